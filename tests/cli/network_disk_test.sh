#!/usr/bin/env bash
# What the program asks of a file system: locks, renames, flushes, and files that are removed while somebody reads them.
# Run by hand, it tries a network's file system:
#
#   PLYCONVERT_PATH=... FAULTS=.../faults.so network_disk_test.sh [FOLDER]
#
# FOLDER is empty and lies there. Without it the test runs on this machine's own file system.
set -u
# shellcheck source=tests/cli/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
enter_scratch
here=${1:-$scratch/disk}
mkdir -p "$here" && cd "$here" || exit 1
[[ -z $(ls -A) ]] || { echo "$here is not empty" && exit 1; }

# left: what stands beside the scenes and the dataset `out`.
left() {
    listing . | grep -v -E '^(one|two)\.ply$|^out($|/)'
}

# step WHAT: says what was tried, and that nothing is left behind it. A file that is closed late may keep a name for a moment.
step() {
    for ((try = 0; try < 50; ++try)); do
        [[ -n $(left) ]] || break
        sleep 0.1
    done
    [[ -z $(left) ]] || fail "$1: left behind: $(left | paste -s -d ' ')"
    echo "$1"
}

# holds SCENE: the dataset is sound, and made of that scene.
holds() {
    plyconvert verify --quiet out --against "$1" || fail "the dataset is not that of $1"
}

# held CALL WORD...: a conversion in the background that stops at its first such call; it goes on when `hold` is gone.
held() {
    local call=$1
    shift
    rm -f "$scratch/hold"
    FAULT_HOLD=$scratch/hold FAULT_HOLD_AT=$call as_in_a_terminal env LD_PRELOAD="$FAULTS" plyconvert --quiet "$@" 2>>"$scratch/said" &
    program=$!
    until [[ -e $scratch/hold ]]; do
        kill -0 "$program" 2>/dev/null || break
        sleep 0.05
    done
}

ply one.ply 62 20000 && ply two.ply 62 3000 || exit 1
touch -d '2026-01-02 03:04:05.5' one.ply two.ply

plyconvert --quiet one.ply out || fail "a conversion: status $?"
holds one.ply
step "a conversion"

plyconvert --quiet two.ply out || fail "a conversion over another dataset: status $?"
holds two.ply
step "over another dataset"

exec 7<out/data.bin
plyconvert --quiet one.ply out 2>>"$scratch/said" || fail "a conversion over a dataset that is read: status $?"
(($(wc -c <&7) == 96000)) || fail "who reads the earlier dataset loses it"
exec 7<&-
holds one.ply
plyconvert --quiet two.ply out || fail "a conversion after that: status $?"
step "over a dataset that is read"

held mkdir one.ply out
first=$program
plyconvert --quiet two.ply out || fail "the second of two at once: status $?"
[[ -e out.partial-$first.lock ]] || fail "the second of two at once takes the lock of the first"
holds two.ply
rm "$scratch/hold"
wait "$first" || fail "the first of two at once: status $?"
holds one.ply
step "two at once"

held pwrite two.ply out
kill -KILL "$program"
wait "$program" 2>/dev/null
[[ -n $(left) ]] || fail "a killed run leaves nothing: it was not in the middle"
holds one.ply
plyconvert --quiet two.ply out || fail "a conversion after a killed one: status $?"
holds two.ply
step "after a killed one"

for call in pread pwrite fsync; do
    held "$call" one.ply out
    kill -TERM "$program"
    rm -f "$scratch/hold"
    wait "$program"
    status=$?
    ((status == 130)) || fail "interrupted at $call: status $status"
    holds two.ply
    step "interrupted at $call"
done

plyconvert --quiet --skip-done --report report.json one.ply out || fail "with a report: status $?"
exec 7<report.json
plyconvert --quiet --skip-done --report report.json one.ply out || fail "done already: status $?"
exec 7<&-
grep -q '"status":"skipped"' report.json || fail "what is done is converted again"
holds one.ply
[[ $(left) == $'out.done.json\nreport.json' ]] || fail "report and record: $(left | paste -s -d ' ')"
rm out.done.json report.json
step "--skip-done and --report"

plyconvert picture --quiet out out.tif --size 200 || fail "a picture: status $?"
plyconvert picture --quiet out out.tif --size 100 --force || fail "a picture over another: status $?"
plyconvert catalogue --quiet out city.json 2>/dev/null || fail "a catalogue: status $?"
plyconvert export --quiet out again.ply || fail "an export: status $?"
[[ $(left) == $'again.ply\ncity.json\nout.tif' ]] || fail "what is drawn: $(left | paste -s -d ' ')"
rm again.ply city.json out.tif
step "picture, catalogue and export"

rm -r out one.ply two.ply
cd "$scratch" || exit 1
((failures == 0))
