#!/usr/bin/env bash
# Checks every script with shellcheck; .shellcheckrc holds the exceptions.
set -eu

cd "$(dirname "${BASH_SOURCE[0]}")/../.."
if ! command -v shellcheck >/dev/null; then
    echo "skipped: shellcheck is not installed"
    exit 77
fi
mapfile -d '' scripts < <(find . -name '*.sh' -not -path './build/*' -not -path '*/node_modules/*' -not -path './.git/*' -print0)
((${#scripts[@]} > 0))
shellcheck "${scripts[@]}"
shellcheck --shell=bash program/completion/plyconvert.bash
