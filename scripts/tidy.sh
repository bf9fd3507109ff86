#!/usr/bin/env bash
# Runs clang-tidy 14 with the project's .clang-tidy on its sources, with the flags of a clang build. It takes about half
# an hour on two idle processors, so it is not part of the tests.
#
#   scripts/tidy.sh                  every source file of Linux
#   scripts/tidy.sh program reader   only those of these folders
#
# The exit status is 1 if there are findings.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck source=scripts/packages.sh
source "$root/scripts/packages.sh"
install_missing "${packages[@]}" "${clang_packages[@]}" "${tidy_packages[@]}"

cmake -S "$root" -B "$root/build/tidy" --preset release --log-level=WARNING \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null

cd "$root"
mapfile -t files < <(git ls-files "$@" | grep -E '\.cpp$' | grep -vE '_windows\.cpp$|^tests/(windows|consumer)/')
printf '%s\0' "${files[@]}" |
    xargs -0 -n 1 -P "$(nproc)" clang-tidy-14 -p build/tidy --quiet 2>/dev/null | tee build/tidy/findings.txt
if [[ -s build/tidy/findings.txt ]]; then
    exit 1
fi
echo "${#files[@]} files, nothing found"
