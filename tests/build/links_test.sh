#!/usr/bin/env bash
# Checks that the relative links of documents lead to files of the same folder, and to headings that are there.
#
#   links_test.sh FOLDER                       every document below FOLDER
#   links_test.sh --clone FOLDER               those of a source tree, without build folders and transcripts
#   links_test.sh --packages BUILD SCRATCH     those that the Debian packages install, each package by itself
set -euo pipefail

failures=0
fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}

# prose FILE: the document without code.
prose() {
    awk '/^ *```/ { code = !code; next } !code { gsub(/`[^`]*`/, "code"); print }' "$1"
}

# anchors FILE: one line for each heading, as a link names it.
anchors() {
    awk '/^ *```/ { code = !code } !code && /^#+ / { sub(/^#+ /, ""); print tolower($0) }' "$1" | tr -d "\`*()[].,:;/'\"" | tr ' ' -
}

# check FOLDER FILE...: checks the links of these documents, which lie in the folder.
check() {
    local folder file target path links=0
    folder=$(realpath "$1")
    shift
    for file in "$@"; do
        while read -r target; do
            [[ $target != *://* && $target != mailto:* ]] || continue
            links=$((links + 1))
            path=$file
            [[ $target == "#"* ]] || path=${file%/*}/${target%%#*}
            if [[ ! -e $path || $(realpath "$path") != "$folder"/* ]]; then
                fail "$file links to $target, which is not there"
            elif [[ $target == *"#"* ]] && ! grep -qxF -- "${target#*#}" <<<"$(anchors "$path")"; then
                fail "$file links to $target, and no such heading is there"
            fi
        done < <(prose "$file" | grep -oE '\]\([^) ]+' | cut -c 3-)
    done
    echo "$folder: $# documents, $links relative links"
}

# documents FOLDER [TEST...]: lists the documents below the folder; the words are further tests of find.
documents() {
    mapfile -d '' found < <(find "$@" -name '*.md' -print0 | sort -z)
}

case $1 in
--clone)
    documents "$2" -not -path "$2/build/*" -not -path "$2/.git/*" -not -path '*/node_modules/*' -not -path "$2/tests/*"
    ((${#found[@]} > 0)) || fail "$2 has no documents"
    check "$2" "${found[@]}"
    ;;
--packages)
    build=$2 scratch=$3
    rm -rf "$scratch"
    trap 'rm -rf "$scratch"' EXIT
    packages=0
    for component in runtime development program geo; do
        cmake --install "$build" --component "$component" --prefix "$scratch/$component" >/dev/null
        documents "$scratch/$component"
        ((${#found[@]} > 0)) || continue
        packages=$((packages + 1))
        check "$scratch/$component" "${found[@]}"
    done
    ((packages > 0)) || fail "no package has a document"
    ;;
*)
    documents "$1"
    ((${#found[@]} > 0)) || fail "$1 has no documents"
    check "$1" "${found[@]}"
    ;;
esac
((failures == 0))
