#!/usr/bin/env bash
# Tries the packages in a bare Debian 12: installs them, uses them, builds a host against the development files, upgrades
# them and removes them. Needs root, debootstrap and Debian's package archive.
#
#   bare_test.sh PACKAGES FOLDER MAKESCENE
#
# PACKAGES: the folder of the .deb files. FOLDER: for the bare system; its downloaded packages are kept for the next
# run. MAKESCENE: the scene generator, which runs outside.
set -euo pipefail

packages=$(cd "$1" && pwd)
mkdir -p "$2"
folder=$(cd "$2" && pwd)
makescene=$3
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
bare=$folder/root
archive=$folder/bare.tar

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

if ((EUID != 0)); then
    fail "a bare system is made by root alone"
fi

# leave: ends all processes of the bare system and unmounts it.
leave() {
    local status=$?
    if [[ -n ${server-} ]]; then
        pkill -P "$server" 2>/dev/null || true
    fi
    umount "$bare/proc" 2>/dev/null || true
    rm -rf "$bare"
    exit "$status"
}
trap leave EXIT

inside() {
    chroot "$bare" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"
}
install_inside() {
    inside apt-get -q -y -o Dpkg::Use-Pty=0 install --no-install-recommends "$@" >"$folder/apt.log" 2>&1 || {
        tail -n 30 "$folder/apt.log" >&2
        fail "apt-get install $*"
    }
}

echo "-- a bare Debian 12"
rm -rf "$bare"
mkdir -p "$bare"
if [[ -f $archive ]]; then
    tar -C "$bare" -xf "$archive"
else
    debootstrap --variant=minbase bookworm "$bare" >"$folder/debootstrap.log" 2>&1 || {
        tail -n 20 "$folder/debootstrap.log" >&2
        fail "debootstrap"
    }
    tar -C "$bare" -cf "$archive.part" .
    mv "$archive.part" "$archive"
fi
cp /etc/resolv.conf "$bare/etc/resolv.conf"
mount -t proc proc "$bare/proc"
inside apt-get -q update >"$folder/apt.log" 2>&1 || fail "apt-get update"
inside dpkg-query -W -f '${Package}\n' | sort >"$folder/before"
mkdir "$bare/packages"
cp "$packages"/*.deb "$bare/packages"
"$makescene" --splats 20000 --bounds "$bare/root/scene.ply" >/dev/null

deb() {
    local found=("$bare"/packages/"$1"_*.deb)
    echo "/packages/${found[0]##*/}"
}

echo "-- the library alone: the C and C++ runtimes and nothing else"
install_inside "$(deb libplyconvert1)"
inside dpkg-query -W -f '${Package}\n' | sort | comm -13 "$folder/before" - | tr '\n' ' '
echo
depends=$(inside dpkg-query -W -f '${Depends}' libplyconvert1 | sed 's/ ([^)]*)//g')
[[ $depends == "libc6, libgcc-s1, libstdc++6" ]] || fail "the library depends on: $depends"
# Reads the whole output first: if grep -q closed a pipe early, the writer would fail.
grep -q 'libplyconvert.so.1 ' <<<"$(inside ldconfig -p)" || fail "the dynamic linker does not find the library"

echo "-- the program: converts, verifies, exports, serves"
install_inside "$(deb plyconvert)"
inside dpkg-query -W -f '${Package}\n' | sort | comm -13 "$folder/before" - | tr '\n' ' '
echo
inside plyconvert --version
inside plyconvert /root/scene.ply /root/out
inside plyconvert verify /root/out --against /root/scene.ply >/dev/null
inside plyconvert export /root/out /root/again.ply
[[ -f $bare/usr/share/man/man1/plyconvert.1.gz ]] || fail "no manual page"
for file in docs/program.md examples/slurm/tile.sbatch examples/slurm/convert_tiles.sh examples/parallel/convert.sh; do
    [[ -f $bare/usr/share/doc/plyconvert/$file ]] || fail "no $file"
    [[ $file != *.sh || -x $bare/usr/share/doc/plyconvert/$file ]] || fail "$file cannot be run"
done
: >"$folder/view.log" # the address of an earlier run
inside plyconvert view /root/out --no-open --port 0 >"$folder/view.log" 2>&1 &
server=$!
for _ in {1..100}; do
    address=$(grep -o 'http://[^ ]*' "$folder/view.log" || true)
    [[ -n $address ]] && break
    sleep 0.1
done
[[ -n $address ]] || fail "view says no address: $(cat "$folder/view.log")"
grep -qi '<!doctype html>' <<<"$(curl -s --compressed "$address")" || fail "view serves no page at $address"
# Not INT, which view ignores if this script was started with that ignored, as from a script in the background.
pkill -TERM -P "$server" 2>/dev/null || kill -TERM "$server"
wait "$server" || true
server=

geo() {
    local found=("$bare"/packages/plyconvert-geo_*.deb)
    [[ -e ${found[0]} ]]
}
if geo; then
    echo "-- pictures and catalogues: said to be missing, then there"
    status=0
    said=$(inside plyconvert picture /root/out /root/out.tif 2>&1) || status=$?
    echo "$said"
    [[ $status -ne 0 && $said == *plyconvert-geo* && ! -e $bare/root/out.tif ]] ||
        fail "picture without its package ends with $status: $said"
    install_inside "$(deb plyconvert-geo)"
    inside dpkg-query -W -f '${Package}\n' | sort | comm -13 "$folder/before" - | tr '\n' ' '
    echo
    inside plyconvert picture /root/out /root/out.tif --size 256
    [[ -s $bare/root/out.tif ]] || fail "no picture"
    inside plyconvert catalogue /root/out /root/city.json
    [[ -s $bare/root/city.json ]] || fail "no catalogue"
fi

echo "-- a host built against the development files"
install_inside "$(deb libplyconvert-dev)" g++ cmake make pkg-config
# As in the sources, since a host is made of the example in docs/.
mkdir -p "$bare/root/tests" "$bare/root/docs"
cp -r "$root/tests/consumer" "$bare/root/tests/consumer"
cp "$root/docs/hosting.md" "$bare/root/docs"
inside cmake -S /root/tests/consumer/find_package -B /root/host -DCMAKE_BUILD_TYPE=None >"$folder/host.log" 2>&1 &&
    inside cmake --build /root/host >>"$folder/host.log" 2>&1 &&
    inside ctest --test-dir /root/host --output-on-failure --no-tests=error >>"$folder/host.log" 2>&1 || {
    tail -n 30 "$folder/host.log" >&2
    fail "the host"
}
tail -n 4 "$folder/host.log"

echo "-- upgraded to the next version"
for package in "$bare"/packages/*.deb; do
    name=${package##*/}
    mkdir "$bare/next"
    dpkg-deb -R "$package" "$bare/next/tree"
    sed -i -E 's/^Version: .*/Version: 99.0-1/; s/\(= [^)]*\)/(= 99.0-1)/' "$bare/next/tree/DEBIAN/control"
    dpkg-deb -b "$bare/next/tree" "$bare/packages/next-${name%%_*}.deb" >/dev/null
    rm -r "$bare/next"
done
names=()
for package in "$bare"/packages/next-*.deb; do
    names+=("/packages/${package##*/}")
done
install_inside "${names[@]}"
inside dpkg-query -W -f '${Package} ${Version}\n' plyconvert libplyconvert1 libplyconvert-dev
inside plyconvert verify /root/out >/dev/null || fail "the upgraded program"

echo "-- removed"
mapfile -t installed < <(inside dpkg-query -W -f '${Package}\n' '*plyconvert*')
inside apt-get -q -y purge "${installed[@]}" >"$folder/apt.log" 2>&1 || fail "apt-get purge"
left=$(find "$bare" -xdev -iname '*plyconvert*' -not -path "$bare/root/*" -not -path "$bare/packages/*" -not -path "$bare/var/log/*" \
    -not -path "$bare/var/cache/*")
[[ -z $left ]] || fail "left behind: $left"
echo "passed: packages"
