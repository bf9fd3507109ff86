#!/usr/bin/env bash
# Kills or interrupts the program at random moments of a run, with an earlier dataset in place. Afterwards the output
# folder must hold the earlier dataset or the new one, complete, and the next run must remove what a killed run left.
# Prints how long an interrupted run takes to end.
#
#   PLYCONVERT_PATH=... kill_test.sh [MOMENTS [SEED [SPLATS]]]
#
# MOMENTS (default 20): moments for each signal, one in each of as many equal parts of the run. SEED (default 1) decides
# where in its part a moment lies. SPLATS (default 150,000) of the new dataset; give fewer for a slow build.
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

# Sets `holds` to the content of the output folder: old, new, or broken.
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

declare -A outcomes longest
for signal in KILL INT TERM HUP; do
    longest[$signal]=0
    for ((moment = 0; moment < moments; ++moment)); do
        delay=$((duration * (moment * 32768 + RANDOM) / (moments * 32768)))
        name="$signal after $delay of $duration us"
        rm -rf out && cp -r old out
        # Even if the tests run under nohup, the end of the terminal must end the program.
        as_in_a_terminal env --default-signal=HUP plyconvert --quiet new.ply out 2>errors &
        pid=$!
        sleep_microseconds "$delay"
        struck=$(date +%s%N)
        kill -"$signal" "$pid" 2>/dev/null
        wait "$pid" 2>/dev/null
        status=$?
        took=$((($(date +%s%N) - struck) / 1000000))
        ((took <= longest[$signal])) || longest[$signal]=$took
        look
        outcomes[$signal:$status:$holds]=$((${outcomes[$signal:$status:$holds]:-0} + 1))
        [[ $holds != broken ]] || fail "$name: the output folder is broken"
        case $signal:$status in
        *:0) [[ $holds == new ]] || fail "$name: status 0, but the output folder holds the $holds dataset" ;;
        KILL:137) ;;
        *:130)
            expected=old
            if grep -q "out holds the new dataset" errors; then
                # It was not waited for the disk, and another process removes the earlier dataset.
                expected=new
                for ((wait = 0; wait < 1000; ++wait)); do
                    [[ -n $(left_behind) ]] || break
                    sleep 0.01
                done
            fi
            [[ $holds == "$expected" && $(wc -l <errors) -le 1 ]] || fail "$name: $holds: $(cat errors)"
            ;;
        TERM:143 | HUP:129) [[ $holds == old ]] || fail "$name: $holds" ;; # before the program handles signals
        *) fail "$name: status $status: $(cat errors)" ;;
        esac
        if [[ $signal != KILL && -n $(left_behind) ]]; then
            fail "$name: left behind: $(left_behind)"
        fi
    done
    # The next run cleans up.
    plyconvert --quiet new.ply out || fail "$signal: the run after the last one fails"
    [[ -z $(left_behind) ]] || fail "$signal: still there: $(left_behind)"
done
for outcome in "${!outcomes[@]}"; do
    echo "$outcome: ${outcomes[$outcome]} times"
done | sort
for signal in INT TERM HUP; do
    echo "$signal: ended within ${longest[$signal]} ms"
done
((failures == 0))
