#!/usr/bin/env bash
# Draws a town, and the same town after convert and export, from two sides. The pictures must be equal up to rounding. A
# splat's colour and both pictures are rounded to 8 bits, each with an error spread evenly over one step. Together that
# is 3/12 of a squared step, or 10 log10(255^2 / (3/12)) = 54.15 dB. A colour that is off by half a step gives less.
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
    # A picture of nothing but sky takes a hundredth of that.
    (($(stat -c %s town.png) > 100000)) || fail "from $view: there is nothing to see"
done
((failures == 0))
