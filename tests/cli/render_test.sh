#!/usr/bin/env bash
# Draws a town and what export brings back of it from two sides: they look the same. Rounding bounds how far they may
# differ: that of a splat's colour to 1/255 and that of both pictures, each spread evenly over one step of 8 bits, are
# 3/12 of a squared step together, or 10 log10(255^2 / (3/12)) = 54.15 dB. A colour that is half a step off is below.
#
#   PLYCONVERT_PATH=... render_test.sh
set -u
# shellcheck source=tests/cli/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
enter_scratch

least=54.15
makescene -n 150000 --extent 80 60 town.ply || exit 1
plyconvert --quiet town.ply town && plyconvert export --quiet town back.ply || exit 1
for view in "-35 -45 25" "20 40 12"; do
    # shellcheck disable=SC2086
    renderscene --width 480 --height 320 --eye $view -- town.ply town.png || exit 1
    # shellcheck disable=SC2086
    decibels=$(renderscene --width 480 --height 320 --eye $view --against town.png -- back.ply back.png) || exit 1
    echo "from $view: $decibels dB"
    awk -v found="$decibels" -v least="$least" 'BEGIN { exit !(found > least) }' || fail "from $view: $decibels dB"
    # A picture of the sky alone takes a hundredth of that.
    (($(stat -c %s town.png) > 100000)) || fail "from $view: there is nothing to see"
done
((failures == 0))
