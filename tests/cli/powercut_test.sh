#!/usr/bin/env bash
# Simulates a power cut before each call of the program that changes names or flushes. Everything not flushed is lost.
# There are two kinds of disk: one loses all names and contents that were not flushed, the other keeps names in order
# and loses contents (see powercut.cpp). On both the output folder must hold the earlier dataset or the new one,
# complete. On a file system that cannot exchange names it may be missing for one moment, and the next run must restore
# the earlier one. After the program has reported success, the new dataset must be there. The next run must succeed with
# every such disk.
#
#   PLYCONVERT_PATH=... FAULTS=.../faults.so powercut_test.sh
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
tried=0

# Prints the state of the output folder of a disk; a dataset must verify to count.
look() {
    if [[ ! -e $1 ]]; then
        echo missing
    else
        hashes "$1" >found.hashes 2>/dev/null
        if ! plyconvert verify --quiet "$1" >/dev/null 2>&1; then
            echo broken
        elif cmp -s found.hashes old.hashes; then
            echo old
        elif cmp -s found.hashes new.hashes; then
            echo new
        else
            echo broken
        fi
    fi
}

# check DISK OUT STATE TEXT: checks what a cut has left, and the result of the next run. STATE is the state of the
# output folder before.
declare -A known
check() {
    local disk=$1 out=$2 state=$3 name=$4 now key
    # The next run depends only on the names on the disk and on the content of the output folder.
    key=$(listing "$disk" && cat "$disk/$out"/* 2>/dev/null | sha256sum)
    if [[ -n ${known[$key]:-} ]]; then
        now=${known[$key]}
    else
        now=$(look "$disk/$out")
        known[$key]=$now
        tried=$((tried + 1))
        if [[ $now == missing && $state == old ]]; then
            # The next run may fail, but it must restore the earlier dataset before.
            plyconvert --quiet --max-memory 1 new.ply "$disk/$out" 2>/dev/null
            [[ $exchange == no && $(look "$disk/$out") =~ ^(old|new)$ ]] || known[$key]=lost
        fi
        plyconvert --quiet new.ply "$disk/$out" || fail "$name: the next run fails"
        [[ $(look "$disk/$out") == new ]] || fail "$name: after the next run $(look "$disk/$out")"
        now=${known[$key]}
    fi
    [[ $now == "$state" || $now == new || ($now == missing && $exchange == no) ]] ||
        fail "$name: the output folder is $now"
    found=$now
}

# check_cuts STATE OUT TEXT: checks every cut of the runs so far.
check_cuts() {
    local number disk seen=()
    for ((number = 1; number <= $(find state/cuts -name '*.call' | wc -l); ++number)); do
        for disk in lost names; do
            check "state/cuts/$number.$disk" "$2" "$1" "$3, cut $number before $(cat "state/cuts/$number.call"), $disk"
            seen+=("$found")
        done
    done
    echo "$3: $(printf '%s\n' "${seen[@]}" | sort | uniq -c | paste -s -d ' ' | tr -s ' ')"
    known=()
}

# watched COMMAND...: runs the program and records every cut.
watched() {
    env "${fault[@]}" FAULT_WATCH="powercut $scratch/state $scratch/disk" LD_PRELOAD="$FAULTS" plyconvert --quiet "$@"
}

# before STATE: prepares the disk for a run.
before() {
    rm -rf disk state && mkdir disk && cp new.ply disk
    [[ $1 != old ]] || cp -r old disk/out
    powercut state disk begin
}

for exchange in yes no; do
    fault=()
    [[ $exchange == no ]] && fault=(FAULT_NO_EXCHANGE=1)
    for state in old missing deep; do
        name="exchange $exchange, before $state"
        before "$state"
        out=out
        [[ $state == deep ]] && out=a/b/out && state=missing
        watched disk/new.ply "disk/$out" || fail "$name: the run fails"
        powercut state disk cut end
        last=$(find state/cuts -name '*.call' | wc -l)
        ((last >= 10)) || fail "$name: only $last cuts"
        for disk in lost names; do
            [[ $(look "state/cuts/$last.$disk/$out") == new ]] || fail "$name: done, and $disk holds no new dataset"
        done
        check_cuts "$state" "$out" "$name"
    done
done

# The program is killed after it has exchanged the names. The next run cleans up, and its calls are cut.
for exchange in yes no; do
    fault=()
    [[ $exchange == no ]] && fault=(FAULT_NO_EXCHANGE=1)
    # Calls 1 to 6 flush and call 7 exchanges the names; without the exchange calls 8 and 9 rename. Then the folder with
    # both names is flushed; the program is killed before that.
    call=8
    [[ $exchange == no ]] && call=10
    name="exchange $exchange, killed at call $call"
    before old
    fault+=("FAULT_KILL_AT=$call")
    watched disk/new.ply disk/out 2>/dev/null
    unset 'fault[-1]'
    watched disk/new.ply disk/out || fail "$name: the next run fails"
    check_cuts old out "$name"
done
echo "$tried different disks"
((failures == 0))
