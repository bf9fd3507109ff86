#!/usr/bin/env bash
# Tests scripts/slurm.sh: the cluster that it starts, what it refuses, and that it leaves nothing behind.
#
#   tests/slurm/cluster_test.sh FOLDER
#
# The script recreates FOLDER and removes it when the test has passed.
# shellcheck disable=SC2016  # what is in single quotes is expanded in the cluster
set -u
project=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
# shellcheck source=tests/slurm/lib.sh
source "$project/tests/slurm/lib.sh"
export LC_ALL=C
rm -rf "$1" && mkdir -p "$1" && cd "$1" || exit 1
cluster=$project/scripts/slurm.sh

# The files of the machine's own Slurm and munge, each with its time of change.
machines_own() {
    find /etc/slurm /etc/munge /run/munge /run/slurm /var/lib/slurm /var/lib/munge /var/log/slurm /var/log/munge \
        /var/spool/slurm /var/spool/slurmd /var/spool/slurmctld -printf '%p %T@\n' 2>/dev/null
}

# Things that a run could leave on the machine: network devices, named namespaces, mounts.
traces() {
    ip -oneline link | sed 's/ .*//; s/@.*//'
    ip netns list
    grep slurm-of-a-test /proc/self/mountinfo
    ls /run
}

# nobody_in NAMESPACE: succeeds if no process is left in this PID namespace.
nobody_in() {
    local link
    for link in /proc/[0-9]*/ns/pid; do
        [[ $(readlink "$link" 2>/dev/null) != "$1" ]] || return 1
    done
}

machines_own >before.own
traces >before.traces

echo "-- a cluster"
found=$(SLURM_CONF=/nowhere SLURM_JOB_ID=1 SBATCH_PARTITION=elsewhere "$cluster" --cpus 3 --memory 1000 bash -c '
    sinfo --noheader --format="%T %c %m"
    sbatch --quiet --wait --mem=600M --cpus-per-task=2 --output='"$PWD"'/job.txt \
        --wrap "echo \$SLURM_MEM_PER_NODE MiB, \$SLURM_CPUS_PER_TASK processors"
    sbatch --mem=1001M --wrap true 2>&1 | grep -c "not available"
    exit 42')
expect "exit status of the command" 42 "$?"
expect "the node, and the job that is too large for it" $'idle 3 1000\n1' "$found"
expect "what the job found" "600 MiB, 2 processors" "$(cat job.txt)"

echo "-- refusals"
refused 125 "needs root" setpriv --reuid=65534 --clear-groups "$cluster" true
refused 125 "CAP_SYS_ADMIN" setpriv --bounding-set=-sys_admin --inh-caps=-sys_admin "$cluster" true
refused 125 "install" env PATH=/usr/bin:/bin "$cluster" true
refused 125 "no command" "$cluster"
refused 125 "whole number" "$cluster" --cpus none true

echo "-- however it ends"
for signal in HUP INT TERM KILL; do
    # Two clusters at a time do not affect each other. Each has a job that would run for a long time.
    for run in 1 2; do
        env --default-signal=INT "$cluster" bash -c 'sbatch --quiet --output=/dev/null --wrap "sleep 600"
            until [[ $(squeue --noheader --format=%T) == RUNNING ]]; do sleep 0.1; done
            readlink /proc/self/ns/pid >'"$PWD/namespace.$run"'; sleep 600' &
        pids[run]=$!
    done
    wait_for "two clusters run" test -s namespace.1 -a -s namespace.2
    for run in 1 2; do
        kill -"$signal" "${pids[run]}"
        status=0
        wait "${pids[run]}" 2>/dev/null || status=$?
        expect "exit status after $signal" $((128 + $(kill -l "$signal"))) "$status"
        wait_for "nobody is left in cluster $run after $signal" nobody_in "$(<"namespace.$run")"
        rm "namespace.$run"
    done
done
machines_own >after.own
traces >after.traces
expect "the machine's own files" "" "$(diff before.own after.own)"
expect "what is left" "" "$(diff before.traces after.traces)"

((failures == 0)) || exit 1
cd / && rm -rf "$1"
echo "-- passed"
