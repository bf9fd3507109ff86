#!/usr/bin/env bash
# Packs the zip for Windows: one folder with the program, the library, its header, the documents and the examples. Headers,
# documents and examples lie as in the sources, so that the links of the documents hold.
#
#   scripts/pack_windows.sh BUILD ZIP
#
# BUILD: a build folder of the preset `windows`. ZIP: the file to write; its name is that of the folder in it. All times in it
# are SOURCE_DATE_EPOCH, or the time of CHANGELOG.md where that is not set.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$1
mkdir -p "$(dirname "$2")"
zip=$(cd "$(dirname "$2")" && pwd)/${2##*/}
name=${zip##*/}
name=${name%.zip}
epoch=${SOURCE_DATE_EPOCH:-$(stat -c %Y "$root/CHANGELOG.md")}

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
umask 022
stage=$folder/$name
mkdir -p "$stage/docs" "$stage/include"
for file in plyconvert.exe plyconvert.dll libplyconvert.dll.a; do
    [[ -f $build/$file ]] || {
        echo "pack_windows.sh: $build/$file is missing: build the preset windows first" >&2
        exit 1
    }
    cp "$build/$file" "$stage"
done
# strip would write the current time into them without this option.
x86_64-w64-mingw32-strip --preserve-dates "$stage/plyconvert.exe" "$stage/plyconvert.dll"
cp "$root"/{README,CHANGELOG,CONTRIBUTING}.md "$stage"
cp "$root/include/plyconvert.h" "$stage/include"
cp -r "$root/examples" "$stage"
cp "$root"/docs/*.md "$root"/docs/*.jpg "$stage/docs"
# A zip file has local times in steps of two seconds, and the order of its names is that of the input.
export TZ=UTC LC_ALL=C.UTF-8
find "$stage" -exec touch -d "@$((epoch / 2 * 2))" {} +
rm -f "$zip"
(cd "$folder" && find "$name" | sort | zip -9 -X -q "$zip" -@)
