#!/usr/bin/env bash
# Runs a Windows program under wine, or prepares and stops the wine it runs in.
#
#   scripts/wine.sh PREFIX PROGRAM [ARGUMENT...]    run the program; its exit status modulo 256
#   scripts/wine.sh PREFIX --stop                   end everything that runs in the prefix
#
# PREFIX is the folder that wine keeps its files in; it is made when it is missing. The first run in it also starts
# wine's server and one waiting process, which keeps wine's services up between programs: starting them anew costs
# each program a second. Both are cut off from the caller's pipes, so that ctest and ninja do not wait for them.
set -euo pipefail

if (($# < 2)); then
    sed -n '2,5s/^# \{0,1\}//p' "$0" >&2
    exit 1
fi

mkdir -p "$1"
export WINEPREFIX
WINEPREFIX=$(cd "$1" && pwd)
shift
# No messages of wine's own, no offers to install browsers, no files in the user's menus. Paths given to the programs
# are UTF-8.
export WINEDEBUG=-all WINEDLLOVERRIDES='mscoree=;mshtml=;winemenubuilder.exe=' LC_ALL=C.UTF-8
unset DISPLAY

wine=$(command -v wine64 || echo /usr/lib/wine/wine64)
server=$(command -v wineserver || echo /usr/lib/wine/wineserver64)

# Seconds after which the waiting process ends when nobody stopped it.
longest_wait=3600

start() {
    if [[ ! -f $WINEPREFIX/ready ]]; then
        "$wine" wineboot.exe --init
        touch "$WINEPREFIX/ready"
    fi
    # A command interpreter that waits for its input.
    # shellcheck disable=SC2016  # its own arguments
    setsid bash -c 'sleep "$1" | "$2" cmd.exe' "$WINEPREFIX" "$longest_wait" "$wine" &
    echo $! >"$WINEPREFIX/waiting"
}

# Whether the waiting process runs. The number in the file may meanwhile be another process's, which does not have the
# prefix among its arguments.
is_waiting() {
    [[ -f $WINEPREFIX/waiting ]] &&
        tr '\0' '\n' 2>/dev/null <"/proc/$(<"$WINEPREFIX/waiting")/cmdline" | grep -qxF "$WINEPREFIX"
}

if [[ $1 == --stop ]]; then
    if is_waiting 2>/dev/null; then
        kill -- "-$(<"$WINEPREFIX/waiting")" || true
    fi
    rm -f "$WINEPREFIX/waiting"
    "$server" -k || true # ends what is left, wine's services among it
    exit 0
fi

if ! is_waiting 2>/dev/null; then
    (
        flock 9
        is_waiting || start 9>&- </dev/null >/dev/null 2>&1
    ) 9>"$WINEPREFIX/lock"
fi
exec "$wine" "$@"
