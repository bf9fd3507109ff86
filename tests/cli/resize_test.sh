#!/usr/bin/env bash
# Makes the terminal narrower and wider while a conversion shows its progress. At every width there must be one progress
# line and no remains of earlier ones, and earlier text must stay. Reads are slowed down so that the run lasts long
# enough.
#
#   PLYCONVERT_PATH=... resize_test.sh
set -u
# shellcheck source=tests/cli/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
command -v tmux >/dev/null || { echo "skipped: there is no tmux" && exit 77; }
enter_scratch

terminal() {
    tmux -S "$scratch/terminal" -f /dev/null "$@"
}
trap 'terminal kill-server 2>/dev/null; rm -rf "$scratch"' EXIT

# The text on the terminal without empty lines.
shown() {
    terminal capture-pane -p -S - | grep -v '^ *$'
}

# wait_for COMMAND...: repeats the command until it succeeds, for at most a minute.
wait_for() {
    local try
    for ((try = 0; try < 1200; ++try)); do
        "$@" && return
        sleep 0.05
    done
    echo "waited in vain for: $*" && shown
    exit 1
}

# A stage, followed by share and times if there is room.
progress='^(measuring|writing|verifying|flushing) '
has_progress() { shown | grep -q -E "$progress"; }
has_other_progress() { [[ $(shown | grep -E "$progress" | tail -n 1) != "$1" ]]; }
has_times() { shown | grep -q -E 'about [0-9.:]+ (s|min|h) left$'; }
has_ended() { [[ -e ended ]]; }

ply in.ply 62 200000
touch slow
terminal new-session -d -x 100 -y 12 "printf '%s\n' first second
    FAULT_SLOW=slow LD_PRELOAD=$FAULTS plyconvert in.ply out; echo \$? >ended; cat"
terminal set-option -g status off
terminal resize-window -x 100 -y 12
for width in 100 60 40 80 38 100; do
    terminal resize-window -x "$width" -y 12
    # The second line from now is certainly drawn for the new width.
    for _ in 1 2; do
        wait_for has_progress
        wait_for has_other_progress "$(shown | grep -E "$progress" | tail -n 1)"
    done
    ((width != 100)) || wait_for has_times
    shown >lines
    [[ $(head -n 2 lines) == $'first\nsecond' && $(wc -l <lines) == 3 && $(tail -n 1 lines) =~ $progress ]] ||
        fail "$width columns show: $(cat lines)"
    if ((width == 100)); then
        grep -q -E '[a-z] [0-9]+ %, [0-9,]+ splats?, [0-9.:]+ (s|min), about [0-9.:]+ (s|min|h) left$' lines || fail "no times: $(cat lines)"
    fi
done
rm slow
wait_for has_ended
shown >lines
[[ $(cat ended) == 0 && $(head -n 2 lines) == $'first\nsecond' && $(sed -n 3p lines) == 'out: 200,000 splats in 1 cell'* ]] ||
    fail "in the end there is: $(cat ended lines)"
((failures == 0))
