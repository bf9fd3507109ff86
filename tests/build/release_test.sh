#!/usr/bin/env bash
# Checks that scripts/release.sh refuses wrong versions and trees with one line and makes nothing. Runs it in a repository of its
# own, which holds only the files that the script reads.
#
#   release_test.sh SOURCE SCRATCH
set -euo pipefail

source=$1 scratch=$2

if ! command -v git >/dev/null; then
    echo "skipped: there is no git"
    exit 77
fi
rm -rf "$scratch"
trap 'rm -rf "$scratch"' EXIT
mkdir -p "$scratch/clone/scripts" "$scratch/clone/include"
cd "$scratch/clone"
# Neither settings of the user nor a repository above.
export HOME=$scratch GIT_CONFIG_NOSYSTEM=1 GIT_CEILING_DIRECTORIES=$scratch
unset GIT_DIR GIT_WORK_TREE GIT_INDEX_FILE XDG_CONFIG_HOME
cp "$source"/scripts/{release,packages}.sh scripts
cat >include/plyconvert.h <<'END'
#define PLYCONVERT_VERSION_MAJOR 2
#define PLYCONVERT_VERSION_MINOR 10
#define PLYCONVERT_VERSION_PATCH 3
END
good=$'# Changelog\n\n## 2.10.3 (2026-11-22)\n\nWhat is new.\n\n## 2.10.2 (2026-11-21)\n\nWhat was new.'
echo "$good" >CHANGELOG.md
echo /build/ >.gitignore

failures=0
fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}

# refused TEXT WORD...: runs the script with these words and expects status 1 and one line with the text.
refused() {
    local text=$1 said status=0
    shift
    said=$(scripts/release.sh "$@" 2>&1) || status=$?
    ((status == 1)) && [[ $said == "release.sh: "*"$text"* && $said != *$'\n'* ]] ||
        fail "release.sh $* ends with $status and says \"$said\", not \"$text\""
    [[ ! -e build ]] || fail "release.sh $* makes something"
}

commit() {
    git add -A
    git -c user.name=test -c user.email=test@localhost commit -q -m "$1"
}

# changelog TEXT...: commits another CHANGELOG.md of these lines.
changelog() {
    printf '%s\n' "$@" >CHANGELOG.md
    commit changelog
}

refused "is no clone of the repository" 2.10.3 --check
git init -q
commit start
said=$(scripts/release.sh 2.10.3 --check) || fail "the good version is refused: $said"
[[ $said == "2.10.3 can be released" && ! -e build ]] || fail "the good version: $said"

refused "a version such as 1.0.0 is needed" --check
for word in 2.10 v2.10.3 2.10.3-1 2.10.03 2.10.3.0 ""; do
    refused "a version such as 1.0.0 is needed" "$word" --check
done
refused "unknown option: --checks" 2.10.3 --checks
refused "not 2.10.3 and 2.10.4" 2.10.3 2.10.4 --check
refused "include/plyconvert.h says 2.10.3, not 2.10.4" 2.10.4

for heading in "## 2.10.4 (2026-11-22)" "## 2.10.3" "## 2.10.3 (unreleased)" "## 2.10.3 (2026-13-22)" "## 2a10.3 (2026-11-22)" \
    "## 2.10.3 (2026-11-22) and more"; do
    changelog "# Changelog" "" "$heading" "" "What is new." "" "## 2.10.3 (2026-11-21)" "" "What was new."
    refused "the first heading of CHANGELOG.md is \"$heading\"" 2.10.3
done
changelog "# Changelog" "" "Nothing yet."
refused "CHANGELOG.md has no heading \"## 2.10.3 (YEAR-MONTH-DAY)\"" 2.10.3
changelog "# Changelog" "" "## 2.10.3 (2026-11-22)" "" "" "## 2.10.2 (2026-11-21)" "" "What was new."
refused "CHANGELOG.md says nothing of version 2.10.3" 2.10.3
changelog "$good"

sed -i 's/PATCH 3/PATCH 4/' include/plyconvert.h
refused "the tree has changes, commit or remove them:  M include/plyconvert.h" 2.10.4
git add -A
refused "the tree has changes, commit or remove them: M  include/plyconvert.h" 2.10.4
git reset -q --hard
touch another
refused "the tree has changes, commit or remove them: ?? another" 2.10.3
rm another
# A copy inside another clone is no clone itself.
mkdir inner
cp -r scripts include CHANGELOG.md inner
commit inner
(cd inner && refused "is no clone of the repository" 2.10.3 && ((failures == 0))) || failures=$((failures + 1))
said=$(scripts/release.sh 2.10.3 --check) || fail "the good version is refused in the end: $said"

((failures == 0)) && echo "every refusal is the one expected"
