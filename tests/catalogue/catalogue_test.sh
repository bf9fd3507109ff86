#!/usr/bin/env bash
# Reads the catalogue of a city with geo tools: 24 tiles in two zones, and one without a code.
#
#   catalogue_test.sh SCRATCH
#
# Needs plyconvert and makescene in PATH, GDAL's programs, and Debian's python3 with jsonschema. The script recreates
# the folder SCRATCH and keeps it after a failure.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# The interpreter for which Debian installs its Python packages.
python=/usr/bin/python3
checker=$here/../../../shared/samples/stac/check.py

scratch=$1
rm -rf "$scratch"
mkdir -p "$scratch/city"
cd "$scratch/city"

# tile NAME EPSG X Y EXTENT...: makes a dataset at this place and its picture, and adds its expected place to
# places.txt: the box that the scene states.
tile() {
    local name=$1 epsg=$2 x=$3 y=$4
    shift 4
    makescene --splats 400 --bounds --extent "$@" --seed "$((seed += 1))" "$name.ply" >/dev/null
    local words=()
    mapfile -t words < <(sed -n '/^end_header/q;s/^comment \(min\|max\)[xyz] //p' "$name.ply")
    # Removes the bounds, as most scenes have none.
    sed -i '/^comment m[ai][nx][xyz] /d' "$name.ply"
    local place=()
    ((epsg == 0)) || place=(--epsg "$epsg" --offset "$x,$y,400")
    plyconvert --quiet "$name.ply" "$name" "${place[@]}"
    ((epsg == 0)) || plyconvert picture --quiet "$name" "$name.tif" --gsd 1
    echo "$name $epsg $x $y ${words[*]}" >>places.txt
    rm "$name.ply"
}
seed=0
for zone in 32 33; do
    for row in 0 1 2; do
        for column in 0 1 2; do
            tile "z${zone}_${row}_$column" "326$zone" $((zone * 10000 + 250 * column)) $((5320000 + 200 * row)) 250 200
        done
    done
    # Edges of kilometres are curved by metres on the globe.
    tile "z${zone}_wide" "326$zone" $((zone * 10000 - 5000)) 5330000 6000 4000
    tile "z${zone}_north" "326$zone" 450000 9000000 250 200
    tile "z${zone}_south" "326$zone" 550000 1000 250 200
done
tile local 0 0 0 250 200

echo "-- 24 tiles and one without a place"
plyconvert catalogue ./*/ city.json --base "$PWD" --datetime 2024-05-01 2>remarks.txt
cat remarks.txt
grep -q '^plyconvert: warning: ./local/: no place on the map' remarks.txt
[[ $(wc -l <remarks.txt) == 1 ]]

echo "-- against the schemas"
if [[ -e $checker ]]; then
    "$python" "$checker" city.json
else
    echo "left out: $checker is not there"
fi

echo "-- the outlines that GDAL reads"
"$python" "$here/places.py" city.json places.txt

echo "-- the pictures of each zone as one mosaic, from another folder"
cd ..
"$python" "$here/mosaics.py" city/city.json EPSG_32632 EPSG_32633

cd ..
rm -rf "$scratch"
