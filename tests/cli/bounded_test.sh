#!/usr/bin/env bash
# The memory of convert, of verify --full --against and of export does not grow with the scene. The limit counts 64 MiB
# for reading ahead in all cells together, up to 17 batches of 8192 splats with 360 bytes each for the comparison (50
# MB), and as much again for the rest of the program.
#
#   PLYCONVERT_PATH=... bounded_test.sh
set -u
# shellcheck source=tests/cli/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
skip_under_sanitizers
enter_scratch

most=$((192 * 1024)) # KiB
# measured NAME COMMAND...: runs the command and prints its memory and time.
measured() {
    local name=$1 started=$EPOCHREALTIME
    shift
    peak peak.txt "$@" >printed || fail "$name: $(tail -n 3 printed)"
    # Both are microseconds without the decimal point.
    printf '%s: %d MiB, %d ms\n' "$name" $(($(<peak.txt) / 1024)) $(((${EPOCHREALTIME/./} - ${started/./}) / 1000))
}

makescene -n 4000001 --bounds town.ply || exit 1
# A conversion keeps at most x and y of every splat. Here the header states bounds, so it keeps nothing.
for command in "convert town.ply town" "verify --full --against town.ply town" "export town back.ply" "info --scan town"; do
    # shellcheck disable=SC2086
    measured "$command" plyconvert $command
    (($(<peak.txt) < most)) || fail "$command: $(<peak.txt) KiB"
    (($(<peak.txt) > 4096)) || fail "$command: its peak is not seen"
done

# Nor does the memory grow with the counts of a damaged dataset: its index and meta document state 4,294,967,295 splats.
ply in.ply 62 1000 && plyconvert --quiet in.ply lies || exit 1
printf '\377\377\377\377' | dd of=lies/index.bin bs=1 seek=4 conv=notrunc status=none
sed -i 's/1000/4294967295/' lies/converted_from_ply.ytr
for command in "verify --full --against in.ply lies" "export lies back2.ply" "info --scan lies"; do
    # shellcheck disable=SC2086
    peak peak.txt plyconvert $command >printed 2>&1 && fail "$command: takes it for sound"
    (($(<peak.txt) < most)) || fail "$command: $(<peak.txt) KiB"
done
((failures == 0))
