# shellcheck shell=bash
# What the transcripts and the other scripts of this folder share.

PROJECT=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
export LC_ALL=C PATH="$PLYCONVERT_PATH:$PATH" PROJECT

# enter_scratch: makes a folder that is gone after the script, and goes there.
enter_scratch() {
    scratch=$(mktemp -d "${TMPDIR:-/tmp}/plyconvert-cli.XXXXXX")
    # Not for a job that was killed before it became the program.
    trap '[[ $BASHPID != $$ ]] || rm -rf "$scratch"' EXIT
    cd "$scratch" || exit 1
}

# fail TEXT: counts a failure and says what it is; the script ends with ((failures == 0)).
failures=0
fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}

samples=$PROJECT/../shared/samples

# header FLOATS COUNT [LINE...]: a splat header; the lines stand before the element line.
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

# ply FILE FLOATS COUNT [LINE...]: a whole splat file. What `records` takes further stands in the array
# record_options.
record_options=()
ply() {
    local file=$1
    shift
    header "$@" >"$file"
    records "$1" "$2" "${record_options[@]}" >>"$file"
}

# bounds MINX MINY MINZ MAXX MAXY MAXZ: comment lines, one a word of the array bounds_lines.
bounds() {
    bounds_lines=("comment minx $1" "comment miny $2" "comment minz $3" "comment maxx $4" "comment maxy $5"
        "comment maxz $6")
}

# edited FILE SED_SCRIPT: puts an edited copy of the header in front of the same body, in place.
edited() {
    local file=$1 script=$2 length
    length=$(($(grep -a -b -o -m 1 '^end_header$' "$file" | cut -d : -f 1) + 11))
    head -c "$length" "$file" | sed -E "$script" >"$file.edited"
    tail -c "+$((length + 1))" "$file" >>"$file.edited"
    mv "$file.edited" "$file"
}

# listing [FOLDER]: every name in it, the hidden ones too.
listing() {
    (cd "${1:-.}" && find . -mindepth 1 | LC_ALL=C sort | sed 's#^\./##')
}

# hashes FOLDER: of the files that depend on the input alone.
hashes() {
    (cd "$1" && for file in data.bin shcoef.bin index.bin; do
        [[ -e $file ]] && sha256sum "$file"
    done)
}

# json_lines COMMAND...: runs a command that prints JSON, and breaks the line at the objects of its arrays.
json_lines() {
    "$@" | sed -E -e 's/([[,])\{/\1\n{/g' -e 's/\}\]/}\n]/g'
    return "${PIPESTATUS[0]}"
}

# small_disk FOLDER SIZE: mounts a file system in memory at the folder, of a size like 8m. It is gone after the run.
small_disk() {
    mkdir -p "$1"
    if ! mount -t tmpfs -o "size=$2" plyconvert-test "$1" 2>/dev/null; then
        skip "mounting a small file system needs root"
        return 0
    fi
    cleanups+=("umount '$(realpath "$1")'")
}

# plain_disk FOLDER SIZE: the same of a kind that cannot set room aside: a write is what finds the disk full.
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

# as_in_a_terminal COMMAND...: for a job in the background. It answers Ctrl-C, which such jobs of a script ignore, and
# its process group is its own, with its process id for a number. In a sanitizer's build it looks for no leaks: a process
# whose helper for that is ended by the signal waits for it for ever.
as_in_a_terminal() {
    ASAN_OPTIONS=${ASAN_OPTIONS:-}:detect_leaks=0 exec setsid env --default-signal=INT "$@"
}
