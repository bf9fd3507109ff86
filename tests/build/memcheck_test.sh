#!/usr/bin/env bash
# memcheck_test.sh KIND MAKESCENE CONVERTONCE SCRATCH: one whole conversion under valgrind. There may be no invalid
# access, no branch on an uninitialised value, and no leak at the end.
set -euo pipefail

kind=$1 makescene=$2 convertonce=$3 scratch=$4/$1

if ! command -v valgrind >/dev/null; then
    echo "valgrind is not installed"
    exit 77
fi
splats=20000
if [[ $kind == grid* ]]; then
    splats=1000001 # the smallest scene with a grid
fi
options=()
if [[ $kind == *without ]]; then
    options=(--no-coefficients)
fi
rm -rf "$scratch"
mkdir -p "$scratch"
trap 'rm -rf "$scratch"' EXIT
"$makescene" "$scratch/scene.ply" --splats "$splats" "${options[@]}"
valgrind --quiet --error-exitcode=1 --leak-check=full --show-leak-kinds=definite,indirect,possible \
    --errors-for-leak-kinds=definite,indirect,possible "$convertonce" "$scratch/scene.ply" "$scratch/out" >"$scratch/stdout"
test -s "$scratch/out/data.bin"
