#!/usr/bin/env bash
# Runs examples/slurm on a cluster of one node with 24 tiles. Two are broken, one does not fit the memory that it gets
# first, and one is killed in the middle, while the node's daemon is killed and restarted. Then everything runs a second
# time.
#
#   PLYCONVERT_PATH=... FAULTS=... scripts/slurm.sh tests/slurm/array_test.sh FOLDER
#
# The script recreates FOLDER. It keeps scenes, datasets and logs until the test has passed.
set -u
project=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
# shellcheck source=tests/slurm/lib.sh
source "$project/tests/slurm/lib.sh"
export LC_ALL=C PATH="$PLYCONVERT_PATH:$PATH"
rm -rf "$1" && mkdir -p "$1" && cd "$1" || exit 1
example=$project/examples/slurm/convert_tiles.sh
node_folder=$(dirname "$SLURM_CONF")

tiles=24
cut=tile05
no_scene=tile15
large=tile09
killed=tile12
waiting=tile13
odd="tile24 (Süd & \$HOME)"
# MiB for each task: enough for all tiles except the large one, which has tens of thousands of cells.
memory=100

# Every tile has a different number of splats, so a missing or repeated tile changes the sum.
splats_of() {
    if [[ $1 == "$large" ]]; then
        echo 1000001
    else
        local number=${1#tile}
        number=$((10#${number%% *}))
        echo $((3000 + number * number))
    fi
}

make_scenes() {
    local number name
    mkdir scenes
    for ((number = 1; number <= tiles; ++number)); do
        name=tile$(printf %02d "$number")
        [[ $odd != "$name "* ]] || name=$odd
        names+=("$name")
        case $name in
        "$large") makescene --no-coefficients --extent 45000 45000 --seed "$number" \
            --splats "$(splats_of "$name")" "scenes/$name.ply" ;;
        *) makescene --seed "$number" --splats "$(splats_of "$name")" "scenes/$name.ply" ;;
        esac || exit 1
    done
    truncate --size=-1000 "scenes/$cut.ply"
    echo "no scene of splats" >"scenes/$no_scene.ply"
}

# A wrapper around the program: a tile with a file NAME.stops stops at its first write. Then the file NAME.held exists,
# and NAME.pid has the process id.
make_program_that_stops() {
    mkdir stopping
    cat >stopping/plyconvert <<END
#!/usr/bin/env bash
held=$PWD/\$(basename "\${*: -1}")
if [[ \$1 == convert && -e \$held.stops ]]; then
    echo \$\$ >"\$held.pid"
    export LD_PRELOAD=$FAULTS FAULT_HOLD=\$held.held FAULT_HOLD_AT=pwrite
fi
exec "$(command -v plyconvert)" "\$@"
END
    chmod +x stopping/plyconvert
}

# The times of all datasets except that of the killed tile.
times() {
    for name in "${good[@]}"; do
        [[ $name == "$killed" ]] || stat --format='%n %z' "out/tiles/$name"
    done
}

# reported STATUS: prints the tiles whose last report has this status.
reported() {
    grep -l "\"status\":\"$1\"" out/reports/*.json | sed 's#.*/##; s#[.]json$##'
}

# is_done TILE: true if its report says so.
is_done() {
    grep -qs '"status":"done"' "out/reports/$1.json"
}

# with_commas NUMBER: prints it as the program does.
with_commas() {
    sed -E ':again; s/([0-9])([0-9]{3})(,|$)/\1,\2\3/; t again' <<<"$1"
}

folders() {
    find "$1" -mindepth 1 -maxdepth 1 -type d -printf '%f\n' | sort
}

# sum_of_splats: of all datasets, by what they hold.
sum_of_splats() {
    local sum=0 name
    for name in "$@"; do
        sum=$((sum + $(number_in splatsHeld < <(plyconvert info --json "out/tiles/$name"))))
    done
    echo "$sum"
}

names=()
make_scenes
make_program_that_stops
good=()
for name in "${names[@]}"; do
    [[ $name == "$cut" || $name == "$no_scene" ]] || good+=("$name")
done

echo "-- first run"
touch "$killed.stops" "$waiting.stops"
PATH=$PWD/stopping:$PATH "$example" --mem="${memory}M" --cpus-per-task=1 --time=10 out scenes/*.ply >first.txt 2>&1 &
first=$!
wait_for "two tiles stand in the middle of their conversion" exists "$killed.held" "$waiting.held"
kill -KILL "$(<"$killed.pid")"
kill -KILL "$(<"$node_folder/slurmd.pid")"
wait_for "the node's daemon is gone" no_process "$(<"$node_folder/slurmd.pid")"
rm "$killed.held" "$waiting".{held,stops}
wait_for "a tile is done while there is no daemon" is_done "$waiting"
slurmd -N "$(hostname)" || fail "slurmd does not start again"
wait "$first"
expect "exit status of the first run" 4 "$?"
cat first.txt

for name in "${good[@]}"; do
    [[ $name != "$killed" ]] || continue
    expect "$name verifies" 0 "$(quietly plyconvert verify "out/tiles/$name" --against "scenes/$name.ply")"
done
expect "tiles that are done" "$(printf '%s\n' "${good[@]}" | grep -vx "$killed")" "$(reported "done")"
expect "the killed tile" "$killed" "$(reported running)"
expect "tiles that were refused" "$(printf '%s\n' "$cut" "$no_scene")" "$(reported inputRefused)"
for name in "$killed" "$cut" "$no_scene"; do
    expect "$name has no dataset" no "$(exists "out/tiles/$name" && echo yes || echo no)"
done
expect "rounds" "tiles: $tiles, memory of each: $memory MiB|tiles: 1, memory of each: $((2 * memory)) MiB|" \
    "$(grep '^tiles:' first.txt | tr '\n' '|')"
says first.txt "$cut" "the file is cut"
says first.txt "$no_scene" "scenes/$no_scene.ply"
says first.txt "$killed" "killed"
says first.txt "$tiles tiles: 21 done, 0 skipped, 3 failed (2 inputRefused, 1 running)"

echo "-- second run"
before=$(times)
# Memory and time are those that the program plans.
"$example" --cpus-per-task=1 out scenes/*.ply >second.txt 2>&1
expect "exit status of the second run" 4 "$?"
cat second.txt
expect "the datasets of the first run" "$before" "$(times)"
expect "what the second run converted" "$killed" "$(reported "done")"
expect "what it skipped" "$(printf '%s\n' "${good[@]}" | grep -vx "$killed")" "$(reported skipped)"
expect "what it refused" "$(printf '%s\n' "$cut" "$no_scene")" "$(reported inputRefused)"
expect "$killed verifies" 0 "$(quietly plyconvert verify "out/tiles/$killed" --against "scenes/$killed.ply")"
sum=0
for name in "${good[@]}"; do
    sum=$((sum + $(splats_of "$name")))
done
expect "sum of the splats in ${#good[@]} datasets" "$sum" "$(sum_of_splats "${good[@]}")"
expect "what is in the folder" "$(printf '%s\n' "${good[@]}")" "$(folders out/tiles)"
says second.txt "$cut" "the file is cut"
says second.txt "$(with_commas "$sum") splats,"

echo "-- third run: a scene has changed, and its task is cancelled"
earlier=$(number_in splatsHeld < <(plyconvert info --json "out/tiles/$killed"))
makescene --splats 4000 "scenes/$killed.ply" || exit 1
PATH=$PWD/stopping:$PATH "$example" --mem="${memory}M" --cpus-per-task=1 --time=10 out "scenes/$killed.ply" >third.txt 2>&1 &
third=$!
wait_for "the changed tile stands in the middle of its conversion" exists "$killed.held"
scancel --state=RUNNING --user=root
wait "$third"
expect "exit status of the third run" 4 "$?"
cat third.txt
expect "the cancelled tile" "$killed" "$(reported interrupted)"
says third.txt "$killed" "interrupted"
expect "splats of its earlier dataset" "$earlier" "$(number_in splatsHeld < <(plyconvert info --json "out/tiles/$killed"))"
expect "what is in the folder" "$(printf '%s\n' "${good[@]}")" "$(folders out/tiles)"

echo "-- refusals"
refused 1 "needed" "$example" out
refused 1 "--NAME=VALUE" "$example" --mem 4G out scenes/tile01.ply
refused 1 "size" "$example" --mem=much out scenes/tile01.ply
refused 1 "would both become" "$example" out scenes/tile01.ply elsewhere/tile01.ply
"$example" none "scenes/$no_scene.ply" >refused.txt 2>&1
expect "exit status where nothing can be planned" 1 "$?"
says refused.txt "give --mem=SIZE"
"$example" --partition=none none scenes/tile01.ply >refused.txt 2>&1
expect "exit status where Slurm takes no such job" 1 "$?"
says refused.txt "did not take the job"

((failures == 0)) || exit 1
cd / && rm -rf "$1"
echo "-- passed: ${#good[@]} of $tiles tiles converted, $sum splats"
