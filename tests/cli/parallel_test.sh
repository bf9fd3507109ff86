#!/usr/bin/env bash
# Tests examples/parallel: good tiles are converted, bad ones are named, and a second run only does what is missing.
#
#   PLYCONVERT_PATH=... parallel_test.sh
set -u
# shellcheck source=tests/cli/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
if ! parallel --version 2>/dev/null | grep -q '^GNU parallel'; then
    echo "skipped: there is no GNU parallel"
    exit 77
fi
enter_scratch
export HOME=$scratch # for the files of parallel

mkdir tiles
for ((tile = 1; tile <= 6; ++tile)); do
    ply "tiles/tile $tile.ply" 17 $((100 * tile))
    touch -d '2026-01-02 03:04:05.5' "tiles/tile $tile.ply"
done
head -c 1000 "tiles/tile 1.ply" >tiles/broken.ply

bash "$PROJECT/examples/parallel/convert.sh" tiles datasets >printed 2>errors
status=$?
((status == 4)) || fail "with a broken tile: status $status"
grep -q '^7 tiles: 6 done, 0 skipped, 1 failed (1 inputRefused)$' printed || fail "the first run: $(tail -n 4 printed)"
grep -q '^datasets/broken .*inputRefused: tiles/broken.ply' printed || fail "the broken tile is not named: $(cat printed)"
for ((tile = 1; tile <= 6; ++tile)); do
    plyconvert verify --quiet "datasets/tile $tile" || fail "tile $tile does not verify"
done

rm -r "datasets/tile 3" tiles/broken.ply
bash "$PROJECT/examples/parallel/convert.sh" tiles datasets >printed 2>errors
status=$?
((status == 0)) || fail "the second run: status $status: $(cat errors)"
grep -q '^6 tiles: 1 done, 5 skipped, 0 failed$' printed || fail "the second run: $(tail -n 4 printed)"
grep -q '^2,100 splats,' printed || fail "the sum of splats: $(tail -n 4 printed)"
((failures == 0))
