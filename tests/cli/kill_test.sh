#!/usr/bin/env bash
# Kills the conversion or the process that runs the converter, or interrupts it, at moments drawn from a whole run,
# with an earlier dataset in place. Whatever happens, the output folder holds the earlier dataset or the new one,
# whole, and the next run removes what a killed one left.
#
#   PLYCONVERT_PATH=... kill_test.sh [MOMENTS [SEED [SPLATS]]]
#
# MOMENTS for each way to end a run, 20 unless given: one in each of so many equal parts of the run. SEED, 1 unless
# given, decides where in its part a moment lies. SPLATS of the new dataset, 150,000 unless given: fewer where a build
# is slow.
set -u
# shellcheck source=tests/cli/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
enter_scratch

moments=${1:-20}
RANDOM=${2:-1}
splats=${3:-150000}
record_options=(249 79)
ply old.ply 62 1000
ply new.ply 62 "$splats"
plyconvert --quiet old.ply old || exit 1
started=$(date +%s%N)
plyconvert --quiet new.ply new || exit 1
duration=$((($(date +%s%N) - started) / 1000)) # microseconds
hashes old >old.hashes
hashes new >new.hashes

# Sets holds to what the output folder is: old, new, or broken.
look() {
    hashes out >found.hashes 2>/dev/null
    holds=broken
    cmp -s found.hashes old.hashes && holds=old
    cmp -s found.hashes new.hashes && holds=new
    plyconvert verify out >/dev/null || holds=broken
}

sleep_microseconds() {
    sleep "$(printf '%d.%06d' $(($1 / 1000000)) $(($1 % 1000000)))"
}

# strike VICTIM PID: what the run suffers.
strike() {
    local child
    case $1 in
    parent) kill -KILL "$2" ;;
    child)
        child=$(child_of "$2")
        [[ -n $child ]] && kill -KILL "$child"
        ;;
    *) kill -"$1" "$2" ;;
    esac 2>/dev/null
}

declare -A outcomes
for victim in child parent INT TERM HUP; do
    for ((moment = 0; moment < moments; ++moment)); do
        delay=$((duration * (moment * 32768 + RANDOM) / (moments * 32768)))
        name="$victim after $delay of $duration us"
        rm -rf out && cp -r old out
        # Under nohup, too, the end of the terminal ends it.
        as_in_a_terminal env --default-signal=HUP plyconvert --quiet new.ply out 2>errors &
        pid=$!
        sleep_microseconds "$delay"
        [[ $victim == parent ]] && child=$(cat "/proc/$pid/task/$pid/children" 2>/dev/null)
        strike "$victim" "$pid"
        wait "$pid" 2>/dev/null
        status=$?
        look
        outcomes[$victim:$status:$holds]=$((${outcomes[$victim:$status:$holds]:-0} + 1))
        [[ $holds != broken ]] || fail "$name: the output folder is broken"
        case $victim:$status in
        *:0) [[ $holds == new ]] || fail "$name: status 0, but the output folder holds the $holds dataset" ;;
        child:4) [[ $holds == old && $(wc -l <errors) == 1 ]] || fail "$name: status 4 with $holds: $(cat errors)" ;;
        parent:137) ;;
        INT:130 | TERM:130 | HUP:130) [[ $holds == old && $(wc -l <errors) -le 1 ]] || fail "$name: $holds: $(cat errors)" ;;
        TERM:143 | HUP:129) [[ $holds == old ]] || fail "$name: $holds" ;; # before the program answers signals
        *) fail "$name: status $status: $(cat errors)" ;;
        esac
        if [[ $victim == parent ]]; then
            # The child ends with its parent.
            for ((wait = 0; wait < 1000; ++wait)); do
                [[ -n ${child// /} && -e /proc/${child// /} ]] || break
                sleep 0.01
            done
            ((wait < 1000)) || fail "$name: the child lives on"
        elif [[ -n $(listing | grep -E '^out\.') ]]; then
            fail "$name: left behind: $(listing | grep -E '^out\.' | paste -s -d ' ')"
        fi
    done
    # The next run cleans up.
    plyconvert --quiet new.ply out || fail "$victim: the run after the last one fails"
    [[ -z $(listing | grep -E '^out\.') ]] || fail "$victim: still there: $(listing | grep -E '^out\.' | paste -s -d ' ')"
done
for outcome in "${!outcomes[@]}"; do
    echo "$outcome: ${outcomes[$outcome]} times"
done | sort
((failures == 0))
