#!/usr/bin/env bash
# Builds the converter and converts a scene: a generated town of 1,200,000 splats, or a file of your own.
#
#   scripts/quickstart.sh                    writes build/quickstart/town.ply and build/quickstart/town
#   scripts/quickstart.sh scene.ply out      converts scene.ply into the folder out
#
# Needs only git and bash on Debian 12 and Ubuntu 24.04; missing packages are installed with apt-get.
set -euo pipefail

if (($# != 0 && $# != 2)) || [[ "${1:-}" == -* ]]; then
    sed -n '2,7s/^# \{0,1\}//p' "$0"
    [[ "${1:-}" == -h || "${1:-}" == --help ]] && exit 0
    exit 1
fi

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck source=scripts/packages.sh
source "$root/scripts/packages.sh"

install_missing "${packages[@]}"

build=$root/build/release
echo "Building in $build"
cmake -S "$root" --preset release --log-level=WARNING
cmake --build "$build" --parallel "$(nproc)" --target plyconvert_executable makescene

if (($# == 2)); then
    scene=$1
    dataset=$2
else
    folder=${build%/*}/quickstart
    mkdir -p "$folder"
    scene=${folder#"$PWD"/}/town.ply
    dataset=${folder#"$PWD"/}/town
    echo "Generating a town of 1,200,000 splats: $scene"
    "$build/scenes/makescene" --splats 1200000 --bounds --source makescene "$scene"
fi

echo "Converting"
"$build/program/plyconvert" "$scene" "$dataset"
echo
"$build/program/plyconvert" info "$dataset"
echo
echo "Look at it: ${build#"$PWD"/}/program/plyconvert view $dataset"
