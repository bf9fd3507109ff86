#!/usr/bin/env bash
# Converts every scene of a folder on this machine, some at a time, with GNU parallel.
#
#   convert.sh TILES DATASETS [AT_A_TIME]
#
# TILES/NAME.ply (or .spz) becomes the dataset DATASETS/NAME, with its report in DATASETS/reports/NAME.json. A second run does
# only what is missing or has changed. Ends with 0 when every tile is done.
set -u

if (($# < 2 || $# > 3)); then
    sed -n '2,7s/^# \{0,1\}//p' "$0" >&2
    exit 1
fi
tiles=$1 datasets=$2 at_a_time=${3:-2}
processors=$(nproc)
threads=$((processors > at_a_time ? processors / at_a_time : 1))

mkdir -p "$datasets/reports" || exit 1
shopt -s nullglob
scenes=("$tiles"/*.ply "$tiles"/*.spz)
if ((${#scenes[@]} == 0)); then
    echo "$tiles: holds no scenes: name a folder with .ply or .spz files" >&2
    exit 1
fi

# When parallel is asked to end, it asks each run that is left to end (SIGTERM, then SIGKILL).
printf '%s\0' "${scenes[@]}" | parallel --null --jobs "$at_a_time" --termseq TERM,10000,KILL,25 \
    plyconvert convert --quiet --skip-done --threads "$threads" \
    --report "$datasets/reports/{/.}.json" {} "$datasets/{/.}"

reports=()
for scene in "${scenes[@]}"; do
    name=${scene##*/}
    reports+=("$datasets/reports/${name%.*}.json")
done
plyconvert summary "${reports[@]}"
