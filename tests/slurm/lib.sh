# shellcheck shell=bash
# Functions for the tests of this folder.

# Seconds that a test waits for an event before it fails. Normally it takes a few seconds.
patience=120

# fail TEXT: counts and prints a failure. A script ends with ((failures == 0)).
failures=0
fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}

# expect WHAT EXPECTED FOUND
expect() {
    [[ $3 == "$2" ]] || fail "$1: expected \"$2\", found \"$3\""
}

# says FILE WORD...: succeeds if one line of the file contains all the words.
says() {
    local file=$1 line word
    shift
    while IFS= read -r line; do
        for word in "$@"; do
            [[ $line == *"$word"* ]] || continue 2
        done
        return 0
    done <"$file"
    fail "no line of $file says: $*"
}

# refused STATUS WORD COMMAND...: expects that the command ends with this status and one line with the word.
refused() {
    local status=$1 word=$2 found=0
    shift 2
    "$@" >refused.txt 2>&1 || found=$?
    expect "exit status of $*" "$status" "$found"
    expect "lines of $*" 1 "$(wc -l <refused.txt)"
    says refused.txt "$word"
}

# exists FILE...: succeeds if all of them exist.
exists() {
    local file
    for file in "$@"; do
        [[ -e $file ]] || return 1
    done
}

no_process() {
    ! kill -0 "$1" 2>/dev/null
}

# wait_for WHAT COMMAND...: returns when the command succeeds; ends the test if that takes too long.
wait_for() {
    local what=$1 deadline=$((SECONDS + patience))
    shift
    until "$@"; do
        if ((SECONDS >= deadline)); then
            echo "FAILED: not within $patience s: $what"
            exit 1
        fi
        sleep 0.1
    done
    echo "   $what"
}

# quietly COMMAND...: prints only the exit status.
quietly() {
    "$@" >/dev/null 2>&1
    echo $?
}

# number_in KEY: prints the first integer with this key in the JSON document on standard input.
number_in() {
    grep -o "\"$1\": *[0-9]*" | head -n 1 | grep -o '[0-9]*$'
}
