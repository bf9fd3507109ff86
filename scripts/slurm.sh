#!/usr/bin/env bash
# Runs a command on a Slurm of one node, which starts before it and ends with it.
#
#   scripts/slurm.sh [--cpus N] [--memory MIB] COMMAND [ARGUMENT...]
#
# The node has N processors (4) and MIB of memory (4096), whatever the machine has. The command finds sbatch, squeue and
# the others set up by SLURM_CONF; daemons write their logs beside that file. The exit status is the command's; 125 says
# that Slurm does not start here, with the reason in one line. Standard input is the command's: `scripts/slurm.sh bash`
# opens a shell.
#
# Needs root, and Debian's slurm-wlm, munge, iproute2 and util-linux. It meets no Slurm that the machine has otherwise:
# daemons, command and jobs live in namespaces of their own (processes, network, mounts, host name), with their own key,
# configuration, state and sockets in a file system in memory. All of it goes with the first process of the namespaces,
# so nothing is left behind however the run ends, by SIGKILL too.
set -euo pipefail

# The node's name and its address. Slurm resolves no loopback address, so the node has a veth pair; both ends of it are in
# the namespace, and no packet leaves it.
node=tilenode
address=10.213.0.1
# A mount point that every system has. Only the namespace no longer sees what the machine keeps there.
folder=/run
# Seconds that each daemon gets to answer.
patience=60

# refuse TEXT: ends the run before the command has begun.
refuse() {
    echo "scripts/slurm.sh: $*" >&2
    exit 125
}

cpus=4
memory=4096
inside=no
while (($# > 0)); do
    case $1 in
    --cpus | --memory)
        [[ ${2-} =~ ^[1-9][0-9]*$ ]] || refuse "$1 takes a whole number above 0, not \"${2-}\""
        declare "${1#--}=$2"
        shift 2
        ;;
    --inside)
        inside=yes
        shift
        ;;
    -h | --help)
        sed -n '2,9s/^# \{0,1\}//p' "$0"
        exit 0
        ;;
    -*) refuse "unknown option $1: see --help" ;;
    *) break ;;
    esac
done
(($# > 0)) || refuse "no command given: see --help"

write_configuration() {
    cat >"$folder/slurm.conf" <<END
ClusterName=tiles
SlurmctldHost=$node($address)
SlurmUser=root
SlurmdUser=root
AuthType=auth/munge
AuthInfo=socket=$folder/munge.socket
CredType=cred/munge
StateSaveLocation=$folder/state
SlurmdSpoolDir=$folder/spool
SlurmctldPidFile=$folder/slurmctld.pid
SlurmdPidFile=$folder/slurmd.pid
SlurmctldLogFile=$folder/slurmctld.log
SlurmdLogFile=$folder/slurmd.log
# Neither systemd nor control groups are needed, so that it runs in containers.
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
MpiDefault=none
SelectType=select/cons_tres
SelectTypeParameters=CR_Core_Memory
# The node has the resources of the line below, not those of the machine.
SlurmdParameters=config_overrides
ReturnToService=2
# Jobs begin at once. A job that is told to end gets ten seconds.
SchedulerParameters=sched_min_interval=0,batch_sched_delay=0,bf_interval=5
KillWait=10
NodeName=$node NodeAddr=$address CPUs=$cpus RealMemory=$memory State=UNKNOWN
PartitionName=tiles Nodes=$node Default=YES MaxTime=INFINITE State=UP
END
}

# came_up WHAT LOG COMMAND...: waits until the command succeeds.
came_up() {
    local what=$1 log=$2 deadline=$((SECONDS + patience))
    shift 2
    until "$@" >/dev/null 2>&1; do
        if ((SECONDS >= deadline)); then
            tail -n 20 "$log" >&2 || true
            refuse "$what does not answer within $patience s"
        fi
        sleep 0.1
    done
}

# shellcheck disable=SC2317  # called by came_up
node_is_idle() {
    [[ $(sinfo --noheader --format=%T) == idle ]]
}

# Everything from here on is in the namespaces, as their first process.
run_inside() {
    mount -t tmpfs -o mode=0755 slurm-of-a-test "$folder" || refuse "cannot mount a file system in memory"
    echo "$node" >/proc/sys/kernel/hostname || refuse "cannot set the host name of the namespace"
    printf '127.0.0.1 localhost\n%s %s\n' "$address" "$node" >"$folder/hosts"
    mount --bind "$folder/hosts" /etc/hosts || refuse "cannot mount over /etc/hosts"
    { ip link set lo up &&
        ip link add slurm0 type veth peer name slurm1 &&
        ip address add "$address/30" dev slurm0 &&
        ip link set slurm0 up && ip link set slurm1 up; } || refuse "cannot make a pair of network devices"

    mkdir "$folder/state" "$folder/spool"
    # The caller may be a job of another Slurm.
    unset "${!SLURM@}" "${!SBATCH@}" "${!SRUN@}"
    export SLURM_CONF=$folder/slurm.conf
    write_configuration
    (umask 077 && head -c 1024 /dev/urandom >"$folder/munge.key")
    munged --key-file="$folder/munge.key" --socket="$folder/munge.socket" --pid-file="$folder/munge.pid" \
        --log-file="$folder/munge.log" --seed-file="$folder/munge.seed" || refuse "munged does not start"
    came_up munged "$folder/munge.log" munge --no-input --socket="$folder/munge.socket"
    slurmctld || refuse "slurmctld does not start"
    came_up slurmctld "$folder/slurmctld.log" scontrol ping
    slurmd -N "$node" || refuse "slurmd does not start"
    came_up slurmd "$folder/slurmd.log" node_is_idle

    # Not the first process itself, which ignores every signal that it does not catch.
    local status=0
    "$@" || status=$?
    exit "$status"
}

if [[ $inside == yes ]]; then
    run_inside "$@"
fi

((EUID == 0)) || refuse "needs root, for namespaces and for slurmd"
for tool in unshare setpriv mount ip munged munge slurmctld slurmd sbatch sinfo; do
    command -v "$tool" >/dev/null || refuse "no $tool here: install Debian's slurm-wlm, munge, iproute2 and util-linux"
done
namespaces=(unshare --mount --uts --ipc --net --pid --fork --kill-child=KILL --mount-proc)
"${namespaces[@]}" mount -t tmpfs slurm-of-a-test "$folder" 2>/dev/null ||
    refuse "this system gives root no namespaces with mounts of their own (a container without CAP_SYS_ADMIN?)"

# In the background, so that this script answers a signal at once. Its end, in whatever way, kills unshare, and the end of
# unshare kills everything in the namespaces. Signals that the shell sets to be ignored in the background are not ignored there.
setpriv --pdeathsig KILL "${namespaces[@]}" env --default-signal=INT,QUIT \
    bash "$0" --inside --cpus "$cpus" --memory "$memory" "$@" <&0 &
namespace=$!
trap 'kill -KILL "$namespace"; exit 129' HUP
trap 'kill -KILL "$namespace"; exit 130' INT
trap 'kill -KILL "$namespace"; exit 143' TERM
status=0
wait "$namespace" || status=$?
exit "$status"
