#!/usr/bin/env bash
# Converts one very large generated scene, verifies the dataset against it, prints time, MB/s and peak memory, and
# removes both. 100,000,000 splats with coefficients take 24.8 GB for the scene, 9.6 GB for the dataset, and some
# minutes. Not part of the tests.
#
#   scripts/large.sh [--splats N] [--folder DIR] [--passes] [--keep] [OPTION...]
#
# --folder: where scene and dataset go (the system's temporary folder). --passes: the two passes alone, by
# bench/streamonce, instead of the program. --keep: remove nothing. Other options go to the program.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$root/build/release
splats=100000000
parent=${TMPDIR:-/tmp}
passes=false
keep=false
options=()
while [ $# -gt 0 ]; do
    case $1 in
    --splats) splats=$2 && shift ;;
    --folder) parent=$2 && shift ;;
    --passes) passes=true ;;
    --keep) keep=true ;;
    *) options+=("$1") ;;
    esac
    shift
done

record_bytes=248        # of a splat with coefficients in a PLY file
dataset_record_bytes=96 # of its records in data.bin and shcoef.bin
scene_bytes=$((splats * record_bytes))
dataset_bytes=$((splats * dataset_record_bytes))
needed=$((scene_bytes + dataset_bytes + (256 << 20)))
mkdir -p "$parent"
free=$(df --output=avail -B1 "$parent" | tail -n 1)
if [ "$free" -lt "$needed" ]; then
    echo "$parent: $((needed / 1000000)) MB are needed and $((free / 1000000)) MB are free: choose another --folder" >&2
    exit 1
fi

cmake -S "$root" --preset release --log-level=WARNING
cmake --build "$build" --parallel "$(nproc)" --target makescene streamonce plyconvert_executable >/dev/null

folder=$(mktemp -d "$parent/plyconvert-large.XXXXXX")
clean() {
    if $keep; then
        echo "kept: $folder"
    else
        rm -rf "$folder"
    fi
}
trap clean EXIT

# run NAME COMMAND...: runs the command and sets `seconds` and `peak`, the peak resident memory in bytes.
run() {
    local name=$1 start pid
    shift
    start=$(date +%s.%N)
    "$@" &
    pid=$!
    peak=0
    while kill -0 "$pid" 2>/dev/null; do
        local kilobytes
        kilobytes=$(awk '/^VmHWM/ { print $2 }' "/proc/$pid/status" 2>/dev/null || true)
        peak=$((${kilobytes:-0} * 1024 > peak ? kilobytes * 1024 : peak))
        sleep 0.1
    done
    wait "$pid" || { echo "$name failed" >&2 && exit 1; }
    seconds=$(awk -v start="$start" -v end="$(date +%s.%N)" 'BEGIN { printf "%.2f", end - start }')
}

echo "Generating $splats splats: $folder/scene.ply"
run makescene "$build/scenes/makescene" --splats "$splats" "$folder/scene.ply"
sync
echo "Converting"
if $passes; then
    run streamonce "$build/bench/streamonce" "$folder/scene.ply" "$folder/dataset"
else
    run plyconvert "$build/program/plyconvert" "$folder/scene.ply" "$folder/dataset" "${options[@]}"
fi
awk -v splats="$splats" -v bytes="$(stat -c %s "$folder/scene.ply")" -v seconds="$seconds" -v peak="$peak" 'BEGIN {
    printf "%d splats, %.1f GB: %.2f s, %.0f MB/s in, %.2f M splats/s, peak %.0f MB (%.0f MB at most: 64 MB and 12 bytes a splat)\n",
        splats, bytes / 1e9, seconds, bytes / seconds / 1e6, splats / seconds / 1e6, peak / 1e6, 64 + splats * 12 / 1e6 }'
echo "Verifying"
run verify "$build/program/plyconvert" verify "$folder/dataset" --against "$folder/scene.ply"
echo "verified in $seconds s"
