#!/usr/bin/env bash
# Lets libFuzzer search for inputs that break the library, the sources and the reader of datasets.
#
#   scripts/fuzz.sh MINUTES             all targets, two at a time, MINUTES in total
#   scripts/fuzz.sh MINUTES TARGET...   only these targets
#
# Inputs with findings are written to build/fuzz/findings, and the exit status is then 1. The corpora in
# build/fuzz/corpus grow from run to run. At the end the script prints the executions of each target and how much of the
# code its corpus reaches. Needs clang; missing packages are installed with apt-get.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck source=scripts/packages.sh
source "$root/scripts/packages.sh"

# Shares of the time. Targets with slow inputs and much code get more.
declare -A shares=([conversion]=4 [dataset]=3 [header]=2 [number]=1 [packed]=3 [ply]=4 [stream]=3 [strict_header]=1 [text]=1)
order=(conversion ply dataset packed stream header number strict_header text)

if [[ ${1:-} == -h || ${1:-} == --help ]]; then
    sed -n '2,9s/^# \{0,1\}//p' "$root/scripts/fuzz.sh"
    exit 0
fi
if ! [[ ${1:-} =~ ^[1-9][0-9]*$ ]]; then
    echo "fuzz.sh needs the minutes to fuzz in all, a whole number: scripts/fuzz.sh 10" >&2
    exit 2
fi
seconds=$(($1 * 60))
shift
targets=("$@")
if ((${#targets[@]} == 0)); then
    targets=("${order[@]}")
fi
for target in "${targets[@]}"; do
    if [[ -z ${shares[$target]:-} ]]; then
        echo "No target $target. There are: ${order[*]}" >&2
        exit 2
    fi
done

install_missing "${packages[@]}" "${clang_packages[@]}" "${fuzz_packages[@]}"
folder=$root/build/fuzz
cmake -S "$root" -B "$folder" --preset fuzz --log-level=WARNING
cmake --build "$folder" --parallel "$(nproc)"
cmake -S "$root" -B "$root/build/coverage" --preset coverage --log-level=WARNING
cmake --build "$root/build/coverage" --parallel "$(nproc)"

mkdir -p "$folder/findings" "$folder/logs"
# The folder for the targets' files, in memory if possible.
place=/tmp
if [[ -w /dev/shm ]]; then
    place=/dev/shm
fi
TMPDIR=$(mktemp -d "$place/plyconvert-fuzz.XXXXXX")
export TMPDIR
trap 'rm -rf "$TMPDIR"' EXIT
# Freed blocks stay in quarantine for a while, so that their use is noticed. A small quarantine avoids a fresh page for
# every block.
export ASAN_OPTIONS=quarantine_size_mb=32 UBSAN_OPTIONS=print_stacktrace=1

# fuzz TARGET SECONDS
fuzz() {
    local target=$1 corpus=$folder/corpus/$1 options=()
    mkdir -p "$corpus"
    case $target in
    header | strict_header | conversion | stream | ply | packed) options=(-dict="$root/fuzz/ply.dict") ;;
    dataset) options=(-dict="$root/fuzz/dataset.dict") ;;
    esac
    # No leak detection here, since it takes longer than the inputs; the sanitizer build does it when it replays the
    # corpora. The time limits of an input are long, because a loaded machine may stop a process for a while.
    "$folder/fuzz/${target}_fuzz" -max_total_time="$2" -timeout=300 -report_slow_units=300 -rss_limit_mb=4096 -close_fd_mask=1 \
        -detect_leaks=0 -print_final_stats=1 -artifact_prefix="$folder/findings/$target-" "${options[@]}" \
        "$corpus" "$root/fuzz/corpus/$target" >"$folder/logs/$target.log" 2>&1
}

all=0
for target in "${targets[@]}"; do
    all=$((all + shares[$target]))
done
failed=0
running=0
for target in "${targets[@]}"; do
    # Two at a time: each gets its share of twice the time.
    if ((running == 2)); then
        wait -n || failed=1
        running=$((running - 1))
    fi
    share=$((seconds * 2 * shares[$target] / all))
    ((share <= seconds)) || share=$seconds
    echo "== $target: $share s"
    fuzz "$target" "$share" &
    running=$((running + 1))
done
while ((running > 0)); do
    wait -n || failed=1
    running=$((running - 1))
done

# final STATISTIC LOG
final() {
    sed -n "s/^stat::$1: *//p" "$2"
}
echo
printf '%-14s %14s %9s %10s\n' target executions per\ s findings
for target in "${targets[@]}"; do
    log=$folder/logs/$target.log
    findings=$(find "$folder/findings" -name "$target-*" | wc -l)
    printf '%-14s %14s %9s %10s\n' "$target" "$(final number_of_executed_units "$log")" \
        "$(final average_exec_per_sec "$log")" "$findings"
done

echo
objects=()
rm -f "$folder"/logs/*.profraw
for target in "${targets[@]}"; do
    program=$root/build/coverage/fuzz/${target}_fuzz
    LLVM_PROFILE_FILE=$folder/logs/$target.profraw "$program" "$folder/corpus/$target" "$root/fuzz/corpus/$target" \
        >/dev/null 2>"$folder/logs/$target.replay" || failed=1
    objects+=(-object "$program")
done
llvm-profdata merge -o "$folder/logs/all.profdata" "$folder"/logs/*.profraw
llvm-cov report "${objects[@]:1}" -instr-profile="$folder/logs/all.profdata" -show-region-summary=false \
    -ignore-filename-regex="$root/(fuzz|tests|program/(terminal/console|system))"

if ((failed)) || [[ -n $(find "$folder/findings" -type f) ]]; then
    echo "Findings: $folder/findings; what they said: $folder/logs" >&2
    exit 1
fi
