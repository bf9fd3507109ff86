#!/usr/bin/env bash
# Compares pictures from straight above with pictures made in other ways:
#
# - one of four neighbouring tiles with one of their scene, and with those of each tile alone, whose
#   pixels lie on the same grid;
# - one of a real scene with the perspective renderer at a height of a thousand times the scene's width.
#
#   PLYCONVERT_PATH=... picture_test.sh
set -u
# shellcheck source=tests/cli/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
enter_scratch

# least NAME DECIBELS ONE.png OTHER.png
least() {
    local found
    found=$(decibels "$3" "$4") || exit 1
    echo "$1: $found dB"
    awk -v found="$found" -v least="$2" 'BEGIN { exit !(found == "inf" || found >= least) }' || fail "$1: $found dB"
}

makescene -n 100000 --extent 60 50 --epsg 25832 --offset 431250 5123456 100 town.ply || exit 1
plyconvert --quiet town.ply town || exit 1
box=431220,5123431,431280,5123481
plyconvert picture --quiet --gsd 0.125 --box $box town whole.png || exit 1
i=0
for corner in "-1000,-1000 0,0" "0,-1000 1000,0" "-1000,0 0,1000" "0,0 1000,1000"; do
    i=$((i + 1))
    read -r low high <<<"$corner"
    plyconvert --quiet --crop "$low,-1000,$high,1000" town.ply "tile$i" || exit 1
done
plyconvert picture --quiet --gsd 0.125 --box $box tile1 tile2 tile3 tile4 tiles.png || exit 1
least "four tiles beside the whole scene" 45 whole.png tiles.png
# The order of the tiles only decides which of two splats at the same height covers the other.
plyconvert picture --quiet --gsd 0.125 --box $box tile3 tile1 tile4 tile2 turned.png || exit 1
least "the tiles in another order" 60 tiles.png turned.png
for tile in tile1 tile2 tile3 tile4; do
    plyconvert picture --quiet --gsd 0.125 $tile $tile.png || exit 1
    # Both edges are multiples of an eighth; the centre of the first pixel is half a pixel inside.
    awk 'NR == 5 || NR == 6 { n = ($1 + (NR == 5 ? -0.0625 : 0.0625)) / 0.125; if (n != int(n)) exit 1 }' $tile.pgw ||
        fail "$tile: its pixels lie off the grid: $(tail -n 2 $tile.pgw | paste -s -d ' ')"
done

real=$samples/real_58649_nosh_17f.ply
if [[ ! -e $real ]]; then
    echo "the real scene is left out: $samples is not there"
    ((failures == 0)) && exit 77
    exit 1
fi
plyconvert --quiet "$real" real && plyconvert export --quiet real real.ply || exit 1
plyconvert picture --quiet --size 640 --background 9ebde0 real above.png || exit 1
# The centre and the width of the picture, from the world file and the picture's size.
read -r pixel left top < <(paste -s -d ' ' above.pgw | awk '{ printf "%.17g %.17g %.17g\n", $1, $5 - $1 / 2, $6 + $1 / 2 }')
width=$(od -An -t u1 -j 16 -N 4 above.png | awk '{ print (($1 * 256 + $2) * 256 + $3) * 256 + $4 }')
height=$(od -An -t u1 -j 20 -N 4 above.png | awk '{ print (($1 * 256 + $2) * 256 + $3) * 256 + $4 }')
read -r x y far degrees < <(awk -v p="$pixel" -v l="$left" -v t="$top" -v w="$width" -v h="$height" 'BEGIN {
    printf "%.17g %.17g %.17g %.17g\n", l + p * w / 2, t - p * h / 2, 1000 * p * w, 2 * atan2(0.5, 1000) * 45 / atan2(1, 1) }')
renderscene --width "$width" --height "$height" --eye "$x" "$y" "$far" --target "$x" "$y" 0 --up 0 1 0 \
    --field-of-view "$degrees" -- real.ply far.png || exit 1
least "a real scene beside the perspective from far above" 35 above.png far.png
[[ $(stat -c %s above.png) -gt 50000 ]] || fail "there is nothing to see of the real scene"
((failures == 0))
