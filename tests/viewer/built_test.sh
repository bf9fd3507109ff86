#!/usr/bin/env bash
# built_test.sh VIEWER SCRATCH: the committed page must state the hash of the current sources. If node and the page's
# tools are installed, the page is also built again and must be equal byte for byte.
set -euo pipefail

viewer=$1 scratch=$2

cd "$viewer"
stated=$(sed -n 's/^<!-- sources \([0-9a-f]*\) -->$/\1/p' dist/viewer.html)
mapfile -t files < <(printf '%s\n' src/* build.mjs package-lock.json | LC_ALL=C sort)
actual=$(for file in "${files[@]}"; do
    printf '%s %s\n' "$(sha256sum "$file" | cut -d' ' -f1)" "$file"
done | sha256sum | cut -d' ' -f1)
if [[ "$stated" != "$actual" ]]; then
    echo "viewer/dist/viewer.html was built of other sources. Build it: cd viewer && npm ci --ignore-scripts && node build.mjs"
    exit 1
fi
if command -v node >/dev/null && [[ -x node_modules/.bin/esbuild ]]; then
    mkdir -p "${scratch%/*}"
    node build.mjs "$scratch"
    cmp dist/viewer.html "$scratch"
else
    echo "Not built again: node, or what npm ci installs, is missing."
fi
