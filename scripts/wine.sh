#!/usr/bin/env bash
# Runs a Windows program under wine, or prepares and stops the wine it runs in.
#
#   scripts/wine.sh PREFIX PROGRAM [ARGUMENT...]    run the program; its exit status modulo 256
#   scripts/wine.sh PREFIX --start                  start wine, which the first program would do otherwise
#   scripts/wine.sh PREFIX --stop                   end everything that runs in the prefix
#
# PREFIX is wine's folder; it is made if it is missing. --start leaves one waiting process, which keeps wine's server
# and services running between programs: starting them again would cost each program a second.
#
# Wine's server and services outlive the program that starts them. ctest and ninja wait until no process can write to
# their pipes any more. So no process of wine may inherit a pipe of the caller: the program's output goes to files, and
# is copied to the caller when the program has ended.
set -euo pipefail

if (($# < 2)); then
    sed -n '2,6s/^# \{0,1\}//p' "$0" >&2
    exit 1
fi

mkdir -p "$1"
export WINEPREFIX
WINEPREFIX=$(cd "$1" && pwd)
shift
# No messages from wine, no offers to install browsers, no files in the user's menus. Paths for the programs are UTF-8.
export WINEDEBUG=-all WINEDLLOVERRIDES='mscoree=;mshtml=;winemenubuilder.exe=' LC_ALL=C.UTF-8
unset DISPLAY

wine=$(command -v wine64 || echo /usr/lib/wine/wine64)
server=$(command -v wineserver || echo /usr/lib/wine/wineserver64)

# Seconds after which the waiting process ends if it is not stopped.
longest_wait=7200
# Seconds that wine may take to make a prefix or to run an empty command. On an idle machine these take ten seconds and
# one.
patience=600

start() {
    if [[ ! -f $WINEPREFIX/ready ]]; then
        timeout -k 10 "$patience" "$wine" wineboot.exe --init
        touch "$WINEPREFIX/ready"
    fi
    # A command interpreter that waits for its input.
    # shellcheck disable=SC2016  # its own arguments
    setsid bash -c 'sleep "$1" | "$2" cmd.exe' "$WINEPREFIX" "$longest_wait" "$wine" &
    local waiting=$!
    # Returns when the server and the services are running.
    timeout -k 10 "$patience" "$wine" cmd.exe /c exit
    echo "$waiting" >"$WINEPREFIX/waiting"
}

# Succeeds if the waiting process runs. Its number may belong to another process by now, which does not have the prefix
# among its arguments.
is_waiting() {
    local arguments
    [[ -f $WINEPREFIX/waiting ]] &&
        mapfile -d '' -t arguments <"/proc/$(<"$WINEPREFIX/waiting")/cmdline" &&
        [[ ${arguments[3]-} == "$WINEPREFIX" ]]
} 2>/dev/null

stop() {
    if is_waiting; then
        kill -- "-$(<"$WINEPREFIX/waiting")" || true
    fi
    rm -f "$WINEPREFIX/waiting"
    # Ends what is left, including wine's services. The server's exit status only tells whether one was running.
    timeout -k 10 60 "$server" -k || true
}

if [[ $1 == --stop ]]; then
    stop </dev/null >/dev/null 2>&1
    exit 0
fi

if ! is_waiting; then
    (
        flock 9
        is_waiting || start 9>&- </dev/null >/dev/null 2>&1
    ) 9>"$WINEPREFIX/lock" || {
        echo "wine does not start in $WINEPREFIX: remove the folder and try again" >&2
        exit 1
    }
fi
if [[ $1 == --start ]]; then
    exit 0
fi

said=$(mktemp -d "$WINEPREFIX/said.XXXXXX")
trap 'rm -rf "$said"' EXIT
# On a busy machine wine now and then ends with an error before the program begins, without a word. No program of this
# project fails in silence, so it is run again then.
for attempt in 1 2 3; do
    status=0
    "$wine" "$@" >"$said/output" 2>"$said/errors" || status=$?
    if ((status == 0)) || [[ -s $said/output || -s $said/errors ]]; then
        break
    fi
    echo "wine ended with $status and said nothing of $1 (attempt $attempt)" >&2
done
cat "$said/output"
cat "$said/errors" >&2
exit "$status"
