#!/usr/bin/env bash
# Checks that every source file has the layout of clang-format 14 with .clang-format. Other versions differ in details.
set -eu

cd "$(dirname "${BASH_SOURCE[0]}")/../.."
if ! command -v clang-format-14 >/dev/null; then
    echo "skipped: clang-format-14 is not installed"
    exit 77
fi
if ! git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    echo "skipped: git does not list the files here"
    exit 77
fi
mapfile -d '' files < <(git ls-files -z '*.c' '*.cpp' '*.h')
clang-format-14 --dry-run --Werror "${files[@]}"
