#!/usr/bin/env bash
# same_bytes.sh NATIVE_HOST NATIVE_LIBRARY WINDOWS_HOST WINDOWS_LIBRARY SAMPLES SCRATCH EMULATOR... Converts every
# sample with the library of a Linux build and with the DLL under wine. The datasets must be equal except for the guid
# and the line ends. Ends with 77 (skipped) if the Linux build or the samples are missing.
set -euo pipefail

native_host=$1 native_library=$2 windows_host=$3 windows_library=$4 samples=$5 scratch=$6
emulator=("${@:7}")

for needed in "$native_host" "$native_library" "$samples"; do
    if [[ ! -e $needed ]]; then
        echo "Skipped: there is no $needed"
        exit 77
    fi
done

trap 'echo "line $LINENO ended with $?: $BASH_COMMAND"' ERR
rm -rf "$scratch"
mkdir -p "$scratch"
trap 'rm -rf "$scratch"' EXIT

# convert NAME LIBRARY SAMPLE HOST...   converts into $scratch/NAME/out
convert() {
    local folder=$scratch/$1
    rm -rf "$folder"
    mkdir "$folder"
    printf '%s\n' "library $2" "input $3" "output $folder/out" convert >"$folder/job"
    "${@:4}" "$folder/job" >"$folder/stdout"
    tr -d '\r' <"$folder/job.report" | grep -qx 'result 0' || {
        echo "$1: $3 was not converted:"
        cat "$folder/job.report"
        return 1
    }
}

# Prints a text without what may differ: line ends, the guid and the folder's name.
comparable() {
    sed -e 's/\r$//' -e 's/"guid": "[0-9a-f]*"/"guid": ""/' -e "s:$scratch/[a-z]*/out:OUT:" "$1"
}

count=0
for sample in "$samples"/*.ply; do
    convert native "$native_library" "$sample" "$native_host"
    convert windows "$windows_library" "$sample" "${emulator[@]}" "$windows_host"
    diff <(ls "$scratch/native/out") <(ls "$scratch/windows/out")
    for file in "$scratch"/native/out/*.bin; do
        cmp "$file" "$scratch/windows/out/${file##*/}"
    done
    for file in converted_from_ply.ytr log.txt; do
        diff <(comparable "$scratch/native/out/$file") <(comparable "$scratch/windows/out/$file")
    done
    echo "equal: ${sample##*/}"
    count=$((count + 1))
done
echo "$count samples give the same dataset on both systems"
((count > 0))
