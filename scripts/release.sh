#!/usr/bin/env bash
# Makes what is handed out of a version, twice, and compares: Debian packages, a zip for Windows, the source tarball, a list
# of what is in them (SPDX 2.3) and checksums.
#
#   scripts/release.sh VERSION [--once] [--no-windows]     writes build/release-VERSION
#
# VERSION has to be that of include/plyconvert.h and of the first heading of CHANGELOG.md, with its day, and the tree has to
# be as it was committed. --once: makes everything a single time and compares nothing.
#
# Everything is built from the source tarball, in folders of its own, so that nothing of this folder's builds gets in. Times
# in what is made are those of the commit.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck source=scripts/packages.sh
source "$root/scripts/packages.sh"

refuse() {
    echo "release.sh: $*" >&2
    exit 1
}

version=
rounds=2
windows=yes
for argument in "$@"; do
    case $argument in
    --once) rounds=1 ;;
    --no-windows) windows=no ;;
    -h | --help)
        sed -n '2,11s/^# \{0,1\}//p' "$0"
        exit 0
        ;;
    -*) refuse "unknown option: $argument" ;;
    *) version=$argument ;;
    esac
done
[[ $version =~ ^[0-9]+\.[0-9]+\.[0-9]+$ ]] || refuse "a version such as 1.0.0 is needed"

# What the three places say.
cd "$root"
stated=$(sed -nE 's/^#define PLYCONVERT_VERSION_(MAJOR|MINOR|PATCH) ([0-9]+)$/\2/p' include/plyconvert.h | paste -sd .)
[[ $stated == "$version" ]] || refuse "include/plyconvert.h says $stated, not $version"
heading=$(grep -m 1 '^## ' CHANGELOG.md)
[[ $heading =~ ^'## '"$version"' ('[0-9]{4}-[0-9]{2}-[0-9]{2}')'$ ]] ||
    refuse "the first heading of CHANGELOG.md is \"$heading\"; \"## $version (YEAR-MONTH-DAY)\" is needed"
[[ -z $(git status --porcelain) ]] || refuse "the tree has changes: $(git status --porcelain | head -n 1)"

wanted=("${packages[@]}" "${release_packages[@]}")
[[ $windows == no ]] || wanted+=("${windows_packages[@]}")
install_missing "${wanted[@]}"

SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
export SOURCE_DATE_EPOCH TZ=UTC LC_ALL=C.UTF-8
umask 022
name=plyconvert-$version

# make_all FOLDER: everything, into FOLDER/out.
make_all() {
    local folder=$1 out=$1/out
    rm -rf "$folder"
    mkdir -p "$out"
    # git archive writes the commit's time and sorted names.
    git archive --format=tar --prefix="$name/" HEAD | gzip -9n >"$out/$name.tar.gz"
    tar -C "$folder" -xf "$out/$name.tar.gz"
    local source=$folder/$name

    cmake -S "$source" -B "$folder/linux" --preset package --log-level=WARNING >/dev/null
    cmake --build "$folder/linux" --parallel "$(nproc)" >/dev/null
    (cd "$folder/linux" && cpack -B "$folder/debs" >"$folder/cpack.log" 2>&1) || {
        cat "$folder/cpack.log" >&2
        refuse "cpack failed"
    }
    cp "$folder"/debs/*.deb "$out"

    if [[ $windows == yes ]]; then
        cmake -S "$source" -B "$folder/windows" --preset windows --log-level=WARNING -DPLYCONVERT_BUILD_TESTS=OFF >/dev/null
        cmake --build "$folder/windows" --parallel "$(nproc)" >/dev/null
        pack_windows "$source" "$folder/windows" "$folder/$name-windows-x86_64" "$out/$name-windows-x86_64.zip"
    fi
}

# pack_windows SOURCE BUILD STAGE ZIP: the program, the library and what belongs to them in one folder.
pack_windows() {
    local source=$1 build=$2 stage=$3 zip=$4
    mkdir -p "$stage/docs"
    local file
    for file in plyconvert.exe plyconvert.dll libplyconvert.dll.a; do
        find "$build" -name "$file" -not -path '*/CMakeFiles/*' -exec cp {} "$stage" \;
        [[ -f $stage/$file ]] || refuse "$file was not built"
    done
    x86_64-w64-mingw32-strip "$stage/plyconvert.exe" "$stage/plyconvert.dll"
    cp "$source/include/plyconvert.h" "$source/README.md" "$source/CHANGELOG.md" "$stage"
    cp "$source"/docs/*.md "$source"/docs/*.jpg "$stage/docs"
    # A zip file holds times in steps of two seconds, and the order of the names that it is given.
    find "$stage" -exec touch -d "@$((SOURCE_DATE_EPOCH / 2 * 2))" {} +
    (cd "${stage%/*}" && find "${stage##*/}" | sort | zip -9 -X -q "$zip" -@)
}

release=$root/build/release-$version
for ((round = 1; round <= rounds; round++)); do
    echo "== round $round of $rounds"
    make_all "$root/build/release-round-$round"
done
if ((rounds > 1)); then
    for file in "$root"/build/release-round-1/out/*; do
        cmp "$file" "$root/build/release-round-2/out/${file##*/}" || refuse "two builds differ: ${file##*/}"
    done
    echo "== both rounds gave the same bytes"
fi
rm -rf "$release"
cp -r "$root/build/release-round-1/out" "$release"
python3 "$root/scripts/spdx.py" "$version" "$release" >"$release/$name.spdx.json.part"
mv "$release/$name.spdx.json.part" "$release/$name.spdx.json"
(cd "$release" && sha256sum -- * >SHA256SUMS && cat SHA256SUMS)
rm -rf "$root"/build/release-round-*
echo "== $release"
