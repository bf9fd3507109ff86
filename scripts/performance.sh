#!/usr/bin/env bash
# Measures whole conversions and the kernels, and updates the tables of docs/performance.md. Takes about seven minutes
# and 5 GB in the temporary folder. Nothing else should run meanwhile. The first line of each part names the commit, and
# whether the tree has changes.
#
#   scripts/performance.sh [OPTION...]      the options go to build/release/bench/endtoend
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck source=scripts/packages.sh
source "$root/scripts/packages.sh"

document=$root/docs/performance.md
build=$root/build/release
tables=$(mktemp -d)
trap 'rm -rf "$tables"' EXIT

# Prints the kernels' results as a Markdown table.
kernel_table() {
    echo "| kernel | M items/s | GB/s |"
    echo "|--------|----------:|-----:|"
    "$build/bench/kernels" --benchmark_format=csv --benchmark_min_time=0.3 2>/dev/null |
        awk -F, '$1 ~ /^"/ { gsub(/"|\/manual_time/, "", $1); gsub(/\//, " ", $1)
                             printf "| %s | %.2f | %s |\n", $1, $7 / 1e6, $6 == "" ? "" : sprintf("%.2f", $6 / 1e9) }'
}

# Replaces the text between the lines "<!-- $1 -->" and "<!-- end -->" of the document by the content of file $2.
replace_part() {
    awk -v part="<!-- $1 -->" -v file="$2" '
        $0 == part { print $0 "\n"; while ((getline line < file) > 0) print line; inside = 1 }
        $0 == "<!-- end -->" { inside = 0 }
        !inside' "$document" >"$tables/document"
    cp "$tables/document" "$document"
}

# The commit that is measured. The document itself may have changes: it does not take part.
measured_commit() {
    local commit
    if ! commit=$(git -C "$root" rev-parse --short=7 HEAD 2>/dev/null); then
        echo "with version $(sed -nE 's/^#define PLYCONVERT_VERSION_[A-Z]+ ([0-9]+)$/\1/p' "$root/include/plyconvert.h" | paste -sd .), outside a clone"
    elif [[ -n $(git -C "$root" status --porcelain -- . ':!docs') ]]; then
        echo "at commit $commit with changes"
    else
        echo "at commit $commit"
    fi
}

install_missing "${packages[@]}"
commit=$(measured_commit)
cmake -S "$root" --preset release --log-level=WARNING
cmake --build "$build" --parallel "$(nproc)" --target endtoend kernels

{
    printf 'Measured %s.\n\n' "$commit"
    "$build/bench/endtoend" --scaling --cells 4000000 "$@"
} >"$tables/endtoend"
{
    printf 'Measured %s, on the machine of the conversions above.\n\n' "$commit"
    kernel_table
    echo
} >"$tables/kernels"
replace_part conversions "$tables/endtoend"
replace_part kernels "$tables/kernels"
echo "$document"
