# shellcheck shell=bash
# What the tests of this folder share.

# Seconds that a test waits for something to happen before it gives up. What happens takes seconds.
patience=120

# fail TEXT: counts a failure and says what it is; the script ends with ((failures == 0)).
failures=0
fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}

# expect WHAT EXPECTED FOUND
expect() {
    [[ $3 == "$2" ]] || fail "$1: expected \"$2\", found \"$3\""
}

# says FILE WORD...: whether one line of the file holds all the words.
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

# refused STATUS WORD COMMAND...: whether the run ends so, with one line that has the word.
refused() {
    local status=$1 word=$2 found=0
    shift 2
    "$@" >refused.txt 2>&1 || found=$?
    expect "exit status of $*" "$status" "$found"
    expect "lines of $*" 1 "$(wc -l <refused.txt)"
    says refused.txt "$word"
}

# exists FILE...: whether all of them are there.
exists() {
    local file
    for file in "$@"; do
        [[ -e $file ]] || return 1
    done
}

no_process() {
    ! kill -0 "$1" 2>/dev/null
}

# wait_for WHAT COMMAND...: returns when the command succeeds; ends the test when it does not in time.
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

# quietly COMMAND...: prints its exit status alone.
quietly() {
    "$@" >/dev/null 2>&1
    echo $?
}

# number_in KEY: the first whole number that the JSON document on standard input has by that key.
number_in() {
    grep -o "\"$1\": *[0-9]*" | head -n 1 | grep -o '[0-9]*$'
}
