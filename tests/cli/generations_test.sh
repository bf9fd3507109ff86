#!/usr/bin/env bash
# Converts, exports and converts again, twice. Positions must keep every bit, and no other value may change by more than
# one quantiser step from one generation to the next. Prints the share of values that change; it may not exceed the
# share in docs/format.md. Uses scenes of the tests, and every sample scene that the program takes if the folder exists.
#
#   PLYCONVERT_PATH=... generations_test.sh
set -u
# shellcheck source=tests/cli/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
enter_scratch

tried=0

# check_generation second|third OLD NEW: prints how many values of each attribute changed, and compares that with the
# document.
check_generation() {
    local column=3
    [[ $1 == third ]] && column=4
    echo "$1 generation:"
    generations "$2" "$3" >moved || failures=$((failures + 1))
    cat moved
    awk -v column="$column" -v generation="$1" '
        NR == FNR { in_table = /<!-- table: generations -->/ || (in_table && /^\|/) }
        NR == FNR && in_table { split($0, cell, / *\| */); split(cell[column], share, " "); most[cell[2]] = share[1] }
        NR != FNR { ++rows }
        NR != FNR && (!($1 in most) || $4 + 0 > most[$1] + 0) {
            print "FAILED: more " $1 " values move than the document says of the " generation " generation"
            failed = 1
        }
        END { exit failed || rows < 5 }' "$PROJECT/docs/format.md" moved || failures=$((failures + 1))
}

# generations_of FILE: three generations of a scene.
generations_of() {
    rm -rf one two three two.ply three.ply
    tried=$((tried + 1))
    echo "== $(basename "$1")"
    if ! plyconvert --quiet "$1" one || ! plyconvert export --quiet one two.ply ||
        ! plyconvert --quiet two.ply two || ! plyconvert export --quiet two three.ply ||
        ! plyconvert --quiet three.ply three; then
        echo "FAILED: a step ended with an error"
        failures=$((failures + 1))
        return
    fi
    check_generation second one two
    check_generation third two three
    for old in "$1 one" "two.ply two" "three.ply three"; do
        # shellcheck disable=SC2086
        set -- $old
        plyconvert verify --quiet --against "$1" "$2" || failures=$((failures + 1))
    done
}

ply 62.ply 62 20000
generations_of 62.ply
bounds -3.5 1 1 12 11.25 4
ply 17.ply 17 20000 "comment dataType scan" "comment source here" "comment offsetx 431250.125" "comment epsg 25832" \
    "${bounds_lines[@]}"
generations_of 17.ply
cmp <(grep -v guid one/converted_from_ply.ytr | head -n 19) <(grep -v guid three/converted_from_ply.ytr | head -n 19) ||
    failures=$((failures + 1))

if [[ -d $samples ]]; then
    for sample in "$samples"/*.ply "$samples"/small/*.ply; do
        # Only samples that the program takes.
        plyconvert --quiet --dry-run "$sample" refused 2>/dev/null && generations_of "$sample"
    done
    ((tried > 10)) || { echo "FAILED: only $tried scenes were taken" && failures=$((failures + 1)); }
else
    echo "the folder of sample scenes is missing: $samples"
fi
echo "$tried scenes, $failures failures"
((failures == 0))
