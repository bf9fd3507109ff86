#!/usr/bin/env bash
# Converts tiles on a Slurm cluster: one array job, one tile a task. Tasks that did not fit into their memory run again
# with twice as much. Run it again to convert what is missing or has changed.
#
#   convert_tiles.sh [OPTION...] OUT TILE...
#
#   OUT                  a folder that the login node and all compute nodes see
#   TILE                 a scene of splats; the dataset gets its name without the ending
#   --most-memory=SIZE   ask for no more than that, like 64G; unless given, what the largest node has
#   --at-once=N          run at most N tasks at a time
#   --mem=SIZE           the memory of a task at first, like 1G; needed
#   --NAME=VALUE         any other option goes to sbatch, like --partition=main or --cpus-per-task=8
#
# It waits for the tasks. Ctrl-C ends the waiting, not the tasks: `scancel` ends those. Needs plyconvert in the PATH, here
# and on the nodes.
#
#   OUT/tiles/NAME          the dataset
#   OUT/reports/NAME.txt    what its last conversion said
#   OUT/status/NAME         its exit status; 7 where the memory was too little
#   OUT/logs/ROUND-N.txt    what its task printed
#
# Exit status: 0 every tile is converted; 1 usage; 2 the cluster takes no such job; 3 some are not, and are named.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

# refuse STATUS TEXT: ends the run with one line.
refuse() {
    echo "convert_tiles.sh: $2" >&2
    exit "$1"
}

# mebibytes SIZE: a size as Slurm writes it (megabytes, or with K, M, G or T), in whole mebibytes.
mebibytes() {
    local number=${1%[KMGTkmgt]}
    [[ $number =~ ^[1-9][0-9]{0,11}$ ]] || return 1
    case ${1#"$number"} in
    [Kk]) echo $(((number + 1023) / 1024)) ;;
    [Gg]) echo $((number * 1024)) ;;
    [Tt]) echo $((number * 1024 * 1024)) ;;
    *) echo "$number" ;;
    esac
}

# name_of TILE: the file's name without its folder and endings.
name_of() {
    local name=${1##*/}
    name=${name%.*}
    echo "${name%.compressed}"
}

options=() # for sbatch
memory=
most=
at_once=
while [[ ${1-} == -* ]]; do
    case $1 in
    -h | --help)
        sed -n '2,24s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
        exit 0
        ;;
    --most-memory=*) most=$(mebibytes "${1#*=}") || refuse 1 "\"$1\": a size like 64G is needed" ;;
    --mem=*) memory=$(mebibytes "${1#*=}") || refuse 1 "\"$1\": a size like 4G is needed" ;;
    --at-once=*)
        [[ ${1#*=} =~ ^[1-9][0-9]*$ ]] || refuse 1 "\"$1\": a whole number above 0 is needed"
        at_once=%${1#*=}
        ;;
    --array=* | --output=* | --wait* | --parsable*) refuse 1 "\"$1\" is this script's own" ;;
    --*=*) options+=("$1") ;;
    *) refuse 1 "\"$1\": options have the form --NAME=VALUE; see --help" ;;
    esac
    shift
done
(($# >= 2)) || refuse 1 "a folder and at least one tile are needed; see --help"
for tool in plyconvert sbatch sinfo; do
    command -v "$tool" >/dev/null || refuse 1 "$tool is not in the PATH"
done

mkdir -p "$1"/{tiles,reports,status,logs,lists}
out=$(realpath "$1")
shift
declare -A tile_of=()
for tile in "$@"; do
    name=$(name_of "$tile")
    [[ -n $name ]] || refuse 1 "\"$tile\" has no name for its dataset"
    [[ $tile != *[$'\n\t']* ]] || refuse 1 "the path of the tile \"$name\" has a line break or a tab"
    [[ -z ${tile_of[$name]-} ]] || refuse 1 "${tile_of[$name]} and $tile would both become $out/tiles/$name: rename one"
    tile_of[$name]=$(realpath -m "$tile")
done
mapfile -t names < <(printf '%s\n' "${!tile_of[@]}" | LC_ALL=C sort)

[[ -n $memory ]] || refuse 1 "--mem=SIZE is needed: the memory of a task"
largest=$(sinfo --noheader --format=%m | tr -d + | sort -n | tail -n 1)
[[ -n $most ]] || most=${largest:-$memory}
if ((memory > most)); then
    memory=$most
fi

# outcome NAME: the exit status of its last conversion, or "none" when its task ended before that.
outcome() {
    cat "$out/status/$1" 2>/dev/null || echo none
}

# convert NAME...: one array job; returns when it has ended.
round=0
convert() {
    round=$((round + 1))
    local list=$out/lists/$round job name
    : >"$list"
    for name in "$@"; do
        printf '%s\t%s\n' "$name" "${tile_of[$name]}" >>"$list"
        # Of an earlier run: it would speak for a task that is killed before it says anything.
        rm -f "$out/status/$name" "$out/reports/$name.txt"
    done
    echo "round $round: tiles $#, memory of a task $memory MiB"
    # The exit status is that of the worst task. Whether the job was taken tells its number.
    job=$(sbatch --parsable --wait "${options[@]}" --mem="${memory}M" --array="1-$#$at_once" \
        --output="$out/logs/$round-%a.txt" "$here/tile.sbatch" "$list" "$out") || true
    [[ -n $job ]] || refuse 2 "the cluster did not take the job (above: why)"
}

# is_done NAME: whether its dataset is there, whole, and made of the scene as it is now.
is_done() {
    [[ $(outcome "$1") == 0 && -d $out/tiles/$1 && $out/reports/$1.txt -nt ${tile_of[$1]} ]]
}

missing=()
for name in "${names[@]}"; do
    is_done "$name" || missing+=("$name")
done
echo "tiles: ${#names[@]}, done before: $((${#names[@]} - ${#missing[@]}))"
while ((${#missing[@]} > 0)); do
    convert "${missing[@]}"
    too_large=()
    for name in "${missing[@]}"; do
        if [[ $(outcome "$name") == 7 ]]; then
            too_large+=("$name")
        fi
    done
    missing=()
    if ((memory < most)); then
        missing=("${too_large[@]}")
        memory=$((memory * 2 < most ? memory * 2 : most))
    fi
done

done=0
splats=0
for name in "${names[@]}"; do
    report=$out/reports/$name.txt
    case $(outcome "$name") in
    0)
        done=$((done + 1))
        written=$(sed -nE 's/.*: ([0-9,]+) splats in [0-9,]+ cells?;.*/\1/p' "$report" 2>/dev/null | tr -d ,) || true
        splats=$((splats + ${written:-0}))
        continue
        ;;
    none) why="its task ended before the program did: cancelled, out of time, or never begun" ;;
    137) why="the program was killed: out of memory, or by hand" ;;
    *) why=$(sed -n 's/^plyconvert: error: //p' "$report" 2>/dev/null | head -n 1) || true ;;
    esac
    why=${why:-the program ended with $(outcome "$name")}
    [[ $why == *"${tile_of[$name]}"* ]] || why="$why (${tile_of[$name]})"
    echo "$name: not converted: $why"
done
echo "converted: $done of ${#names[@]} tiles, $splats splats; logs: $out/logs"
((done == ${#names[@]})) || exit 3
