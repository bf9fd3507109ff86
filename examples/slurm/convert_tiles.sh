#!/usr/bin/env bash
# Converts tiles on a Slurm cluster: one array job, one tile a task. Tiles that did not fit into the memory of their
# tasks run again with twice as much. Start it again to convert what is missing or has changed.
#
#   convert_tiles.sh [--NAME=VALUE...] OUT TILE...
#
#   OUT            a folder that this machine and all nodes see
#   TILE           a scene of splats; its dataset is OUT/tiles/NAME, its report OUT/reports/NAME.json
#   --NAME=VALUE   goes to sbatch, like --partition=main; unless given, --mem and --time are those that
#                  `plyconvert plan` works out, and --cpus-per-task is 4
#
# It waits for the tasks. Ctrl-C ends the waiting; `scancel` ends the tasks. Needs plyconvert in the PATH, here and on the nodes.
#
# Exit status: 0 every tile is done; 1 usage, or Slurm takes no such job; else that of `plyconvert summary`.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

refuse() {
    echo "convert_tiles.sh: $1" >&2
    exit 1
}

# mebibytes SIZE: a size as Slurm writes it, like 4G; without a letter it is megabytes.
mebibytes() {
    local size=${1%B}
    [[ $size != *[0-9] ]] || size+=M
    numfmt --from=iec --to-unit=Mi "$size" 2>/dev/null
}

given=()
processors=4
while [[ ${1-} == -* ]]; do
    case $1 in
    --help)
        sed -n '2,15s/^# \{0,1\}//p' "$0"
        exit 0
        ;;
    --array=* | --output=*) refuse "$1 is this script's own" ;;
    --cpus-per-task=*) processors=${1#*=} given+=("$1") ;;
    --*=*) given+=("$1") ;;
    *) refuse "$1: options have the form --NAME=VALUE; see --help" ;;
    esac
    shift
done
(($# >= 2)) || refuse "a folder and at least one tile are needed; see --help"
out=$(realpath -m "$1")
shift

declare -A tile_of=()
for tile in "$@"; do
    name=$(basename "${tile%.*}" .compressed)
    [[ $tile != *$'\n'* ]] || refuse "the path of the tile $name has a line break"
    [[ -z ${tile_of[$name]-} ]] || refuse "${tile_of[$name]} and $tile would both become $out/tiles/$name: rename one"
    tile_of[$name]=$(realpath -m "$tile")
done
mkdir -p "$out"/{tiles,reports,logs}

# The needs of the largest tile. A broken tile is named here, and again at the end.
mapfile -t options < <(plyconvert plan --slurm --threads "$processors" "${tile_of[@]}" |
    sed -n '/--array=/d; s/^#SBATCH *\(--[a-z-]*=[^ ]*\)$/\1/p')
options+=("${given[@]}")
memory=0
for option in "${options[@]}"; do
    case $option in
    --mem=*) memory=$(mebibytes "${option#*=}") || refuse "$option: a size like 4G is needed" ;;
    --partition=*) partition=$option ;;
    esac
done
((memory > 0)) || refuse "no tile could be planned: give --mem=SIZE"
most=$(sinfo --noheader --format=%m ${partition:+"$partition"} | tr -d + | sort -n | tail -n 1) # of all nodes
most=${most:-$memory}
memory=$((memory < most ? memory : most))

# One array job a round: all tiles, then those that did not fit.
mapfile -t missing < <(printf '%s\n' "${!tile_of[@]}" | LC_ALL=C sort)
reports=("${missing[@]/%/.json}")
reports=("${reports[@]/#/$out/reports/}")
rm -f "${reports[@]}"
while ((${#missing[@]} > 0)); do
    list=$(mktemp "$out/logs/tiles.XXXXXX") # tasks of an earlier call may still read theirs
    for name in "${missing[@]}"; do
        echo "${tile_of[$name]}"
    done >"$list"
    echo "tiles: ${#missing[@]}, memory of each: $memory MiB"
    # Its status is that of the worst task. A number shows that there was a job.
    job=$(sbatch --parsable --wait "${options[@]}" --mem="${memory}M" --array="1-${#missing[@]}" \
        --output="$out/logs/%A_%a.txt" "$here/tile.sbatch" "$list" "$out") || true
    [[ -n $job ]] || refuse "Slurm did not take the job"
    too_large=()
    for name in "${missing[@]}"; do
        if ((memory < most)) && grep -q '"status":"doesNotFit"' "$out/reports/$name.json" 2>/dev/null; then
            too_large+=("$name")
        fi
    done
    missing=("${too_large[@]}")
    memory=$((memory * 2 < most ? memory * 2 : most))
done
plyconvert summary "${reports[@]}"
