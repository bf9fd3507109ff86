#!/usr/bin/env bash
# The memory that a conversion plans, held against the most that it had resident: never below it, and at most a third
# above. Prints a table of planned and measured.
#
#   PLYCONVERT_PATH=... planned_memory_test.sh        some small scenes
#   PLYCONVERT_PATH=... planned_memory_test.sh all    ten scenes of every kind, up to 10,000,000 splats; 4 GB of disk
set -u
# shellcheck source=tests/cli/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
skip_under_sanitizers
enter_scratch

# number KEY: of the JSON on standard input.
number() {
    sed -nE "s/.*\"$1\":([0-9]+).*/\1/p"
}

# held NAME FILE [OPTION...]: plans and converts FILE, and removes it.
held() {
    local name=$1 file=$2 planned scanned tried measured slack
    shift 2
    slack=$(($(stat -c %s "$file") < 1048576 ? 1048576 : 0))
    plyconvert --quiet --report report.json "$@" "$file" out || fail "$name: $(cat report.json)"
    planned=$(number planned <report.json)
    measured=$(number measured <report.json)
    tried=$(plyconvert --dry-run --json "$@" "$file" out | number memoryBytes)
    scanned=$(plyconvert plan --scan --json "$@" "$file" | number mostMemoryBytes)
    awk -v name="$name" -v planned="$planned" -v measured="$measured" 'BEGIN {
        printf "| %-52s | %7.1f | %8.1f | %5.2f |\n", name, planned / 1048576, measured / 1048576, planned / measured }'
    [[ $planned == "$tried" && $planned == "$scanned" ]] || fail "$name: the run plans $planned, --dry-run $tried, plan --scan $scanned"
    ((measured <= planned)) || fail "$name: takes more than it plans"
    # A file of less than 1 MiB does not fill the buffer that its header is read into, which every plan counts.
    ((3 * planned <= 4 * measured + 3 * slack)) || fail "$name: plans more than a third above what it takes"
    [[ $file == town.ply ]] || rm "$file"
    rm -r out
}

echo "| scene                                                | planned MiB | measured MiB | ratio |"
echo "|------------------------------------------------------|--------:|---------:|------:|"
if [[ ${1:-} != all ]]; then
    ply one.ply 17 1000 && held "1,000 without coefficients" one.ply
    ply some.ply 62 50000 && held "50,000 with coefficients" some.ply
    ply some.ply 62 50000 && held "50,000 with coefficients, one thread" some.ply --threads 1
    makescene -n 1200000 --no-coefficients --bounds cells.ply && held "1,200,000 without coefficients, 63 cells" cells.ply
    header 62 20000 >text.ply && sed -i 's/^format.*/format ascii 1.0/' text.ply && plybody text.ply >body && cat body >>text.ply
    held "20,000 with coefficients, text" text.ply
    ((failures == 0))
    exit
fi
# foreign KIND FILE: town.ply in another form.
foreign() {
    "$BENCH/foreign" "$1" town.ply "$2" || exit 1
}
makescene -n 50000 town.ply && held "50,000 with coefficients" town.ply
makescene -n 1000000 --no-coefficients --bounds town.ply && held "1,000,000 without, one cell" town.ply
makescene -n 10000000 --no-coefficients --bounds town.ply && held "10,000,000 without, bounds stated" town.ply
makescene -n 10000000 town.ply && held "10,000,000 with coefficients" town.ply
makescene -n 4000000 --extent 2667 2667 town.ply && held "4,000,000 with coefficients, 7,921 cells" town.ply
makescene -n 3000000 town.ply && held "3,000,000 with coefficients" town.ply
foreign doubles file.ply && held "3,000,000 with coefficients, positions in double" file.ply
foreign spz file.spz && held "3,000,000 with coefficients, SPZ" file.spz
foreign compressed file.ply && held "3,000,000 with coefficients, compressed PLY" file.ply
makescene -n 1200000 town.ply && foreign ascii file.ply && held "1,200,000 with coefficients, text" file.ply
((failures == 0))
