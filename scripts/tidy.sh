#!/usr/bin/env bash
# Runs clang-tidy 14 with the project's .clang-tidy over its sources, with clang's view of the build. It takes some
# twenty minutes on two processors, so it is no part of the tests.
#
#   scripts/tidy.sh                  every source file of Linux
#   scripts/tidy.sh program reader   those of these folders
#
# The exit status is 1 when something was found.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck source=scripts/packages.sh
source "$root/scripts/packages.sh"
install_missing "${packages[@]}" "${clang_packages[@]}" "${tidy_packages[@]}"

# Some sources include what the build writes.
cmake -S "$root" -B "$root/build/tidy" --preset release --log-level=WARNING \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build "$root/build/tidy" --parallel "$(nproc)" --target plyconvert_program

cd "$root"
mapfile -t files < <(git ls-files "$@" | grep -E '\.cpp$' | grep -vE '_windows\.cpp$|^tests/(windows|consumer)/')
printf '%s\0' "${files[@]}" |
    xargs -0 -n 1 -P "$(nproc)" clang-tidy-14 -p build/tidy --quiet 2>/dev/null | tee build/tidy/findings.txt
if [[ -s build/tidy/findings.txt ]]; then
    exit 1
fi
echo "${#files[@]} files, nothing found"
