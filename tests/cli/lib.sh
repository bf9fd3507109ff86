# shellcheck shell=bash
# Functions for the transcripts and the other scripts of this folder.

PROJECT=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
export LC_ALL=C PATH="$PLYCONVERT_PATH:$PATH" PROJECT

# enter_scratch: makes a folder, which is removed at the end of the script, and enters it.
enter_scratch() {
    scratch=$(mktemp -d "${TMPDIR:-/tmp}/plyconvert-cli.XXXXXX")
    # Not in a background job that was killed before exec.
    trap '[[ $BASHPID != $$ ]] || rm -rf "$scratch"' EXIT
    cd "$scratch" || exit 1
}

# fail TEXT: counts and prints a failure. A script ends with ((failures == 0)).
failures=0
fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}

# shellcheck disable=SC2034  # for the scripts
samples=$PROJECT/../shared/samples

# header FLOATS COUNT [LINE...]: prints a splat header with these lines before the element line.
header() {
    local floats=$1 count=$2
    shift 2
    echo ply
    echo "format binary_little_endian 1.0"
    (($# == 0)) || printf '%s\n' "$@"
    echo "element vertex $count"
    records "$floats" properties
    echo end_header
}

# ply FILE FLOATS COUNT [LINE...]: writes a whole splat file. The array record_options has further arguments for
# `records`.
record_options=()
ply() {
    local file=$1
    shift
    header "$@" >"$file"
    records "$1" "$2" "${record_options[@]}" >>"$file"
}

# bounds MINX MINY MINZ MAXX MAXY MAXZ: sets the array bounds_lines to the comment lines of these bounds.
bounds() {
    # shellcheck disable=SC2034  # for the scripts
    bounds_lines=("comment minx $1" "comment miny $2" "comment minz $3" "comment maxx $4" "comment maxy $5"
        "comment maxz $6")
}

# edited FILE SED_SCRIPT: edits the header of the file in place and keeps its body.
edited() {
    local file=$1 script=$2 length
    length=$(($(grep -a -b -o -m 1 '^end_header$' "$file" | cut -d : -f 1) + 11))
    head -c "$length" "$file" | sed -E "$script" >"$file.edited"
    tail -c "+$((length + 1))" "$file" >>"$file.edited"
    mv "$file.edited" "$file"
}

# listing [FOLDER]: prints every name in the folder, including hidden ones.
listing() {
    (cd "${1:-.}" && find . -mindepth 1 | LC_ALL=C sort | sed 's#^\./##')
}

# left_behind: prints the names that a run left beside the output folder `out`, on one line.
left_behind() {
    listing . | grep -E '^out\.' | paste -s -d ' '
}

# hashes FOLDER: prints the hashes of the files that depend only on the input.
hashes() {
    (cd "$1" && for file in data.bin shcoef.bin index.bin; do
        [[ -e $file ]] && sha256sum "$file"
    done)
}

# json_lines COMMAND...: runs a command that prints JSON, and starts a new line at each object of its arrays.
json_lines() {
    "$@" | sed -E -e 's/([[,])\{/\1\n{/g' -e 's/\}\]/}\n]/g'
    return "${PIPESTATUS[0]}"
}

# small_disk FOLDER SIZE: mounts a file system in memory at the folder, of a size like 8m, until the end of the script.
small_disk() {
    mkdir -p "$1"
    if ! mount -t tmpfs -o "size=$2" plyconvert-test "$1" 2>/dev/null; then
        skip "mounting a small file system needs root"
        return 0
    fi
    cleanups+=("umount '$(realpath "$1")'")
}

# plain_disk FOLDER SIZE: the same with a file system that cannot reserve space, so that a write is the first to fail on
# a full disk.
plain_disk() {
    local image=$1.image
    mkdir -p "$1"
    truncate -s "$2" "$image" && mkfs.ext2 -q "$image" 2>/dev/null && mount -o loop "$image" "$1" 2>/dev/null || {
        skip "mounting a file as a disk needs root, mkfs.ext2 and a loop device"
        return 0
    }
    rmdir "$1/lost+found"
    cleanups+=("umount '$(realpath "$1")'")
}

# as_in_a_terminal COMMAND...: runs a background job that reacts to Ctrl-C, which a script's background jobs otherwise
# ignore, in a process group of its own with its process id as number. Leak detection is off in sanitizer builds: if the
# signal ends its helper process, the program waits forever.
as_in_a_terminal() {
    ASAN_OPTIONS=${ASAN_OPTIONS:-}:detect_leaks=0 exec setsid env --default-signal=INT "$@"
}

# Ends a test of memory, as skipped, if the program carries a sanitizer.
skip_under_sanitizers() {
    if ldd "$(command -v plyconvert)" | grep -q -e libasan -e libtsan; then
        echo "skipped: a sanitizer takes memory of its own"
        exit 77
    fi
}
