#!/usr/bin/env bash
# reproducible_test.sh SOURCE LIBRARY SCRATCH CMAKE GENERATOR CC CXX CONFIG FLAGS [OPTION...]: builds the library again from a
# copy of the sources in another folder, and compares the bytes.
set -euo pipefail

source=$1 library=$2 scratch=$3 cmake=$4 generator=$5 cc=$6 cxx=$7 config=$8 flags=$9
shift 9

rm -rf "$scratch"
trap 'rm -rf "$scratch"' EXIT
copy="$scratch/a folder of another depth/sources"
mkdir -p "$copy"
cp -r "$source"/{CMakeLists.txt,convert.cpp,cmake,include,src} "$copy"
"$cmake" -S "$copy" -B "$scratch/build" -G "$generator" -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_BUILD_TYPE="$config" -DCMAKE_CXX_FLAGS="$flags" -DPLYCONVERT_BUILD_PROGRAM=OFF -DPLYCONVERT_BUILD_TESTS=OFF \
    -DPLYCONVERT_BUILD_BENCH=OFF -DPLYCONVERT_BUILD_FUZZ=OFF "$@" --log-level=WARNING
"$cmake" --build "$scratch/build" --target plyconvert --parallel 2 >"$scratch/log" || {
    cat "$scratch/log"
    exit 1
}
# Unlike cmp it prints both names.
sha256sum "$library" "$scratch/build/libplyconvert.so"
cmp "$library" "$scratch/build/libplyconvert.so"
