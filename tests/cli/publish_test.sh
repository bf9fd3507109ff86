#!/usr/bin/env bash
# Kills the program instead of each call that changes names or flushes, one in each run, on a file system that can
# exchange names and on one that cannot. The output folder must hold the earlier dataset or the new one, complete.
# Without the exchange it may be missing for one moment, and the next run must restore the earlier one even if that run
# fails. The next successful run must remove everything that was left.
#
#   PLYCONVERT_PATH=... FAULTS=.../faults.so publish_test.sh
set -u
# shellcheck source=tests/cli/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
enter_scratch

ply old.ply 62 100
ply new.ply 62 200
plyconvert --quiet old.ply old || exit 1
plyconvert --quiet new.ply new || exit 1
hashes old >old.hashes
hashes new >new.hashes
mkdir other && echo precious >other/notes.txt

# Prints the state of the output folder.
look() {
    if [[ ! -e out ]]; then
        echo missing
    elif [[ -z $(listing out) ]]; then
        echo empty
    elif diff -rq out other >/dev/null 2>&1; then
        echo other
    else
        hashes out >found.hashes 2>/dev/null
        if cmp -s found.hashes old.hashes; then
            echo old
        elif cmp -s found.hashes new.hashes; then
            echo new
        else
            echo broken
        fi
    fi
}

# before NAME: prepares the output folder for a run.
before() {
    rm -rf out out.*
    case $1 in
    old | other) cp -r "$1" out ;;
    empty) mkdir out ;;
    esac
}

for exchange in yes no; do
    for state in old empty missing other; do
        fault=()
        [[ $exchange == no ]] && fault=(FAULT_NO_EXCHANGE=1)
        force=()
        [[ $state == other ]] && force=(--force)
        before "$state"
        env "${fault[@]}" FAULT_COUNT="$scratch/count" LD_PRELOAD="$FAULTS" plyconvert --quiet "${force[@]}" new.ply out
        status=$?
        [[ $status == 0 && $(look) == new && -z $(left_behind) ]] ||
            fail "exchange $exchange, before $state: status $status, $(look), $(left_behind)"
        calls=$(cat count)
        ((calls >= 8)) || fail "only $calls calls were seen"
        seen=()
        for ((call = 1; call <= calls; ++call)); do
            name="exchange $exchange, before $state, killed at call $call"
            before "$state"
            {
                env "${fault[@]}" FAULT_KILL_AT=$call LD_PRELOAD="$FAULTS" plyconvert --quiet "${force[@]}" new.ply out
                status=$?
            } 2>/dev/null # the shell's message about the killed job
            now=$(look)
            seen+=("$now")
            [[ $status == 137 ]] || fail "$name: status $status"
            if [[ $now != "$state" && $now != new ]]; then
                [[ $exchange == no && $now == missing ]] || fail "$name: the output folder is $now"
                # The next run may fail, but it must restore the earlier dataset before.
                plyconvert --quiet --max-memory 1 "${force[@]}" new.ply out 2>/dev/null
                [[ $(look) == "$state" ]] || fail "$name: $(look) after the next run, which failed"
            fi
            plyconvert --quiet "${force[@]}" new.ply out || fail "$name: the next run fails"
            left=$(listing | grep -E '^out\.' | grep -v -E '^out\.[a-z]+-[0-9]+(/notes.txt)?$')
            [[ $(look) == new && -z $left ]] || fail "$name: after the next run $(look), $left"
            # What dead runs left must be removed, except a file that no conversion wrote.
            if [[ $state != other && -n $(left_behind) ]]; then
                fail "$name: left behind: $(left_behind)"
            fi
        done
        echo "exchange $exchange, before $state: $(printf '%s\n' "${seen[@]}" | uniq -c | paste -s -d ' ' | tr -s ' ')"
    done
done
((failures == 0))
