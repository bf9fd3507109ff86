#!/usr/bin/env bash
# Runs the commands of a transcript with the real program and compares what they print.
#
#   run_transcript.sh [--update] FILE.md
#
# A transcript is prose with fenced blocks that start with ```console. In a block, a line "$ COMMAND" (continued by "> "
# lines) is followed by the command's standard output and standard error, and by "[STATUS]" if its exit status is not 0.
# All commands of a file run in one shell, in a scratch folder, with the functions of lib.sh and the folders of
# PLYCONVERT_PATH in front of PATH. Values that differ between runs (durations, process ids, free space, memory that
# depends on the processors, sizes of compressed pictures) are replaced by fixed text before comparing. --update writes
# the actual output into the file.
#
# A line "<!-- setup: COMMAND -->" outside the blocks runs a command and ignores its output.
#
# A command that calls "skip REASON" ends the run with status 77, which CTest takes as skipped.
set -u
# Descriptors left open by the caller would count towards the limits that a transcript sets.
exec 3>&- 4>&- 5>&- 6>&- 7>&- 8>&- 9>&-

update=no
[[ ${1:-} == --update ]] && update=yes && shift
transcript=$(realpath "$1")
here=$(dirname "$(realpath "$0")")

# The version of the header, which output shows as VERSION.
version=$(sed -nE 's/^#define PLYCONVERT_VERSION_(MAJOR|MINOR|PATCH) ([0-9]+)$/\2/p' "$here/../../include/plyconvert.h" | paste -sd .)
hide_version="s/^plyconvert ${version//./[.]}\$/plyconvert VERSION/; s/\"program\":\"${version//./[.]}\"/\"program\":\"VERSION\"/g"
shown=WORK # replaces the scratch folder's path in output; a document may set another text
scratch=$(mktemp -d "${TMPDIR:-/tmp}/plyconvert-cli.XXXXXX")
cleanups=()
clean_up() {
    [[ $BASHPID == "$$" ]] || return # a background job that was killed before exec
    cd / || return
    for cleanup in "${cleanups[@]}"; do
        eval "$cleanup"
    done
    rm -rf "$scratch"
}
trap clean_up EXIT
mkdir "$scratch/work" && cd "$scratch/work" || exit 1
skip() {
    echo "skipped: $*" >"$scratch/skip"
}
# shellcheck source=tests/cli/lib.sh
source "$here/lib.sh"

# Replaces values that differ between runs by fixed text.
settled() {
    sed -E -e "s#$scratch/work#$shown#g" -e "$hide_version" \
        -e 's/(partial|replaced)-[0-9]+/\1-PID/g' \
        -e 's/[0-9.:]+ (s|min), [0-9,]+ splats\/s/TIME, SPEED splats\/s/' \
        -e 's/, in [0-9.]+ s/, in TIME/' \
        -e 's/(pixels of .* EPSG [0-9]+, )[0-9.]+ ([KMG]iB|bytes)/\1SIZE/' \
        -e 's/(guid +)[0-9a-f]{32}/\1GUID/' \
        -e 's/[0-9.]+ [KMGTP]iB are free|[0-9,]+ bytes are free/FREE are free/g' \
        -e 's/[0-9.]+ [KMGTP]iB and FREE/NEED and FREE/' \
        -e 's/^(peak memory +)[0-9.]+ [KMGTP]iB,/\1NEED,/' -e 's/"memoryBytes":[0-9]+/"memoryBytes":NEED/' \
        -e 's/(takes at least) [0-9.]+ [KMGTP]iB/\1 NEED/' -e 's/(write --max-memory) [0-9]+/\1 NEED/' \
        -e 's/"seconds":[0-9.e+-]+,"splatsPerSecond":[0-9]+/"seconds":TIME,"splatsPerSecond":SPEED/' \
        -e 's/(log\.txt +at most) [0-9,]+/\1 SOME/' -e 's/("logBytesAtMost"):[0-9]+/\1:SOME/' \
        -e 's/"(free[A-Za-z]*Bytes)":[0-9]+/"\1":FREE/g' "$1"
}

failures=0
commands=0
command=
: >"$scratch/expected"
: >"$scratch/updated"

# Runs the last command and compares its output.
finish() {
    [[ -z $command ]] && return
    eval "$command" >"$scratch/actual" 2>&1 </dev/null
    local status=$?
    ((status == 0)) || echo "[$status]" >>"$scratch/actual"
    if [[ -e $scratch/skip ]]; then
        cat "$scratch/skip"
        exit 77
    fi
    # The last line may have no line feed.
    [[ -s $scratch/actual && -n $(tail -c 1 "$scratch/actual") ]] && echo >>"$scratch/actual"
    commands=$((commands + 1))
    settled "$scratch/actual" >"$scratch/actual.settled"
    settled "$scratch/expected" >"$scratch/expected.settled"
    if ! diff -u --label expected "$scratch/expected.settled" --label printed "$scratch/actual.settled" \
        >"$scratch/difference"; then
        failures=$((failures + 1))
        [[ $update == no ]] && printf '%s: $ %s\n' "$(basename "$transcript")" "$command"
        [[ $update == no ]] && tail -n +3 "$scratch/difference"
    fi
    sed -E "s#$scratch/work#$shown#g; $hide_version; s/(partial|replaced)-[0-9]+/\1-PID/g" "$scratch/actual" >>"$scratch/updated"
    command=
    : >"$scratch/expected"
}

in_block=no
while IFS= read -r line || [[ -n $line ]]; do
    if [[ $in_block == no ]]; then
        [[ $line == '```console' ]] && in_block=yes
        if [[ $line == '<!-- setup: '*' -->' ]]; then
            setup=${line#'<!-- setup: '}
            eval "${setup%' -->'}" >/dev/null || exit 1
        fi
        printf '%s\n' "$line" >>"$scratch/updated"
    elif [[ $line == '```' ]]; then
        finish
        in_block=no
        printf '%s\n' "$line" >>"$scratch/updated"
    elif [[ $line == '$ '* ]]; then
        finish
        command=${line#'$ '}
        printf '%s\n' "$line" >>"$scratch/updated"
    elif [[ $line == '> '* && ! -s $scratch/expected ]]; then
        command+=$'\n'${line#'> '}
        printf '%s\n' "$line" >>"$scratch/updated"
    else
        printf '%s\n' "$line" >>"$scratch/expected"
    fi
done <"$transcript"

if [[ $update == yes ]]; then
    cp "$scratch/updated" "$transcript"
    exit 0
fi
if ((commands == 0)); then
    echo "There is no command in it."
    exit 1
fi
if ((failures > 0)); then
    echo "$failures commands printed something else."
    exit 1
fi
