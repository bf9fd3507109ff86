#!/usr/bin/env bash
# Unpacks the zip for Windows in a folder with blanks and umlauts and uses its files under wine: the program on paths with
# umlauts, and a host that is built with its header and import library. Every link of its documents must lead to something in
# it. Each row of the table in docs/windows.md, of what the program lacks there, must be its one line of output.
#
#   zip_test.sh ZIP SCRATCH EMULATOR...
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
zip=$(cd "$(dirname "$1")" && pwd)/${1##*/}
scratch=$2
emulator=("${@:3}")
export LC_ALL=C.UTF-8

failures=0
fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}

rm -rf "$scratch"
mkdir -p "$scratch"
trap 'rm -rf "$scratch"' EXIT
folder="$scratch/Entwürfe für Jörg (neu)"
mkdir "$folder"
cd "$folder"
cmake -E tar xf "$zip"
name=${zip##*/}
name=${name%.zip}
program="$PWD/$name/plyconvert.exe"
for file in plyconvert.exe plyconvert.dll libplyconvert.dll.a include/plyconvert.h README.md CHANGELOG.md docs/windows.md; do
    [[ -s $name/$file ]] || fail "$file is not in the zip"
done
"$root/tests/build/links_test.sh" "$name" || fail "a link of its documents leads nowhere"

# run STATUS WORD...: runs the program, expects the exit status and leaves the output in $said.
run() {
    local wanted=$1 status=0
    shift
    said=$("${emulator[@]}" "$program" "$@" 2>&1 | tr -d '\r') || status=$?
    ((status == wanted)) || fail "plyconvert $* ends with $status, not $wanted: $said"
}

# scene SPLATS: prints an ASCII PLY scene.
scene() {
    local count=$1
    echo ply
    echo "format ascii 1.0"
    echo "element vertex $count"
    printf 'property float %s\n' x y z f_dc_0 f_dc_1 f_dc_2 opacity scale_0 scale_1 scale_2 rot_0 rot_1 rot_2 rot_3
    echo end_header
    awk -v count="$count" 'BEGIN { for (i = 0; i < count; ++i) print i % 10, i / 10, 1, 0.1, 0.2, 0.3, 2, -4, -4, -5, 1, 0, 0, 0 }'
}

# version_4: prints an SPZ file of one splat, with five streams of one byte.
version_4() {
    printf 'NGSP\4\0\0\0\1\0\0\0\0\14\0\5\40\0\0\0'
    head -c 12 /dev/zero
    local size
    for size in 11 1 3 3 4; do # unpacked sizes, in octal
        printf '%b' "\\1\\0\\0\\0\\0\\0\\0\\0\\0$size\\0\\0\\0\\0\\0\\0\\0"
    done
    printf 'xxxxx'
}

run 0 --version
[[ $said == "plyconvert "* ]] || fail "the version: $said"

# The program needs no file beside it.
mv "$name/plyconvert.dll" aside
input="Häuser am Öresund.ply"
output="fertige Häuser"
scene 1000 >"$input"
run 0 "$input" "$output"
[[ $said == "$output: 1,000 splats in 1 cell"* ]] || fail "the conversion says: $said"
run 0 info "$output"
[[ $said == "$output: a dataset of 1,000 splats"* ]] || fail "info says: $said"
run 0 verify "$output" --against "$input"
[[ $said == *"1,000 splats in 1 cell: no errors" ]] || fail "verify says: $said"
run 0 export "$output" "zurück.ply"
run 0 "$PWD/zurück.ply" "$PWD/noch einmal für später"
cmp <(od -An -v -tx1 -w32 "$output/data.bin" | cut -c 1-36 | sort) \
    <(od -An -v -tx1 -w32 "noch einmal für später/data.bin" | cut -c 1-36 | sort) || fail "the exported scene has other positions"
run 0 view "$output" --write-html "Seite für später.html"
grep -qi '<!doctype html>' "Seite für später.html" || fail "view writes no page: $said"
mv aside "$name/plyconvert.dll"

# The table of docs/windows.md.
rows=0
while IFS='|' read -r _ what says status _; do
    text=$(sed -E 's/^ *`(.*)` *$/\1/' <<<"$says")
    case $what in
    *'`picture`'*) words=(picture "$output" "Bild.tif") ;;
    *'`catalogue`'*) words=(catalogue "$output" "Stadt.json") ;;
    *'SPZ'*)
        version_4 >"Wälder.spz"
        words=("Wälder.spz" "Wälder")
        ;;
    *) fail "docs/windows.md has a row that is not tried here: $what" && continue ;;
    esac
    run "$((status))" "${words[@]}"
    [[ $said == *"$text"* && $said != *$'\n'* ]] || fail "plyconvert ${words[*]} says \"$said\", not \"$text\""
    [[ ! -e ${words[-1]} ]] || fail "plyconvert ${words[*]} leaves ${words[-1]}"
    rows=$((rows + 1))
done < <(sed -n '/^## What it does not have/,/^## /p' "$root/docs/windows.md" | grep -E '^\|.*\| *[0-9]+ *\|$')
((rows > 0)) || fail "the table of docs/windows.md was not found"

# A host, beside the DLL.
x86_64-w64-mingw32-gcc -o "$name/host.exe" -I "$name/include" "$root/tests/consumer/sources/host.c" -L "$name" -lplyconvert
status=0
said=$(cd "$name" && "${emulator[@]}" "$PWD/host.exe" 2>&1) || status=$?
((status == 0)) || fail "the host ends with $status: $said"

((failures == 0)) && echo "the zip works: ${zip##*/}"
