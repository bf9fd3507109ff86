#!/usr/bin/env bash
# Makes the files of a release twice and compares them: Debian packages, a zip for Windows, the source tarball, a list of
# their contents (SPDX 2.3) and checksums.
#
#   scripts/release.sh VERSION [--once] [--no-windows]     writes build/release-VERSION
#   scripts/release.sh VERSION --check                     only checks that the version can be released
#
# VERSION must be that of include/plyconvert.h and of the first heading of CHANGELOG.md, with its day and a text below it. The
# tree must have no changes. --once makes everything a single time and compares nothing.
#
# Everything is built from the source tarball, the second time in a folder at another depth, so the files depend neither on
# this folder's builds nor on its path. All times in them are that of the commit. At the end the zip is tried under wine.
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
check=no
for argument in "$@"; do
    case $argument in
    --once) rounds=1 ;;
    --no-windows) windows=no ;;
    --check) check=yes ;;
    -h | --help)
        sed -n '2,13s/^# \{0,1\}//p' "$0"
        exit 0
        ;;
    -*) refuse "unknown option: $argument" ;;
    *)
        [[ -z $version ]] || refuse "one version is released at a time, not $version and $argument"
        version=$argument
        ;;
    esac
done
[[ $version =~ ^(0|[1-9][0-9]*)(\.(0|[1-9][0-9]*)){2}$ ]] || refuse "a version such as 1.0.0 is needed"

# Checks the tree first: then the other checks read what is committed.
cd "$root"
[[ $(git rev-parse --show-toplevel 2>/dev/null) == "$(pwd -P)" ]] ||
    refuse "$root is no clone of the repository: a release is made of a commit"
changes=$(git status --porcelain --untracked-files=all) || refuse "git status fails"
[[ -z $changes ]] || refuse "the tree has changes, commit or remove them: $(head -n 1 <<<"$changes")"
stated=$(sed -nE 's/^#define PLYCONVERT_VERSION_(MAJOR|MINOR|PATCH) ([0-9]+)$/\2/p' include/plyconvert.h | paste -sd .)
[[ $stated == "$version" ]] || refuse "include/plyconvert.h says $stated, not $version"
heading=$(grep -m 1 '^## ' CHANGELOG.md) || refuse "CHANGELOG.md has no heading \"## $version (YEAR-MONTH-DAY)\""
[[ $heading =~ ^'## '"$version"' ('([0-9]{4}-[0-9]{2}-[0-9]{2})')'$ ]] && date -d "${BASH_REMATCH[1]}" >/dev/null 2>&1 ||
    refuse "the first heading of CHANGELOG.md is \"$heading\"; \"## $version (YEAR-MONTH-DAY)\" is needed"
section=$(awk '/^## / && ++headings > 1 { exit } headings == 1 && !/^## / && NF' CHANGELOG.md)
[[ -n $section ]] || refuse "CHANGELOG.md says nothing of version $version"
if [[ $check == yes ]]; then
    echo "$version can be released"
    exit 0
fi

wanted=("${packages[@]}" "${release_packages[@]}")
[[ $windows == no ]] || wanted+=("${windows_packages[@]}")
install_missing "${wanted[@]}"

SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
export SOURCE_DATE_EPOCH TZ=UTC LC_ALL=C.UTF-8
# Settings of the caller that would change flags or archives.
unset CFLAGS CXXFLAGS CPPFLAGS LDFLAGS GZIP TAR_OPTIONS XZ_DEFAULTS XZ_OPT ZIPOPT
umask 022
name=plyconvert-$version

# quietly LOG COMMAND...: runs the command with its output in a file, and prints the end of that when it fails.
quietly() {
    local log=$1
    shift
    "$@" >"$log" 2>&1 || {
        tail -n 40 "$log" >&2
        refuse "failed: $*"
    }
}

# make_all FOLDER: builds and packs everything into FOLDER/out.
make_all() {
    local folder=$1 out=$1/out
    mkdir -p "$out"
    # git archive sorts the names and writes the commit's time.
    git -c tar.umask=0022 archive --format=tar --prefix="$name/" HEAD | gzip -9n >"$out/$name.tar.gz"
    tar -C "$folder" -xf "$out/$name.tar.gz"
    local source=$folder/$name

    quietly "$folder/linux.log" cmake -S "$source" --preset package --log-level=WARNING
    quietly "$folder/linux.log" cmake --build "$source/build/package" --parallel "$(nproc)"
    quietly "$folder/cpack.log" cpack --config "$source/build/package/CPackConfig.cmake" -B "$folder/debs"
    cp "$folder"/debs/*.deb "$out"

    if [[ $windows == yes ]]; then
        quietly "$folder/windows.log" cmake -S "$source" --preset windows --log-level=WARNING -DPLYCONVERT_BUILD_TESTS=OFF
        quietly "$folder/windows.log" cmake --build "$source/build/windows" --parallel "$(nproc)"
        "$source/scripts/pack_windows.sh" "$source/build/windows" "$out/$name-windows-x86_64.zip"
    fi
    python3 "$source/scripts/spdx.py" "$version" "$out" >"$folder/spdx.json"
    cp "$folder/spdx.json" "$out/$name.spdx.json"
    (cd "$out" && sha256sum -- * >"$folder/sums" && mv "$folder/sums" SHA256SUMS)
}

release=$root/build/release-$version
folders=("$root/build/release-round-1" "$root/build/release-round-2/folder/of/another/depth")
rm -rf "$root"/build/release-round-*
for ((round = 1; round <= rounds; round++)); do
    echo "== round $round of $rounds"
    make_all "${folders[round - 1]}"
done
if ((rounds > 1)); then
    diff -r "${folders[0]}/out" "${folders[1]}/out" || refuse "two builds differ"
    echo "== both rounds gave the same bytes"
fi
rm -rf "$release"
cp -r "${folders[0]}/out" "$release"
if [[ $windows == yes ]]; then
    echo "== the zip under wine"
    "$root/tests/windows/zip_test.sh" "$release/$name-windows-x86_64.zip" "${folders[0]}/zip" \
        "$root/scripts/wine.sh" "${folders[0]}/wine"
    "$root/scripts/wine.sh" "${folders[0]}/wine" --stop
fi
cat "$release/SHA256SUMS"
rm -rf "$root"/build/release-round-*
echo "== $release"
