#!/usr/bin/env bash
# Builds everything and runs every test. Options add further builds; each is tested in the same way.
#
#   scripts/test.sh                 release build with g++, every test
#   scripts/test.sh --dev           and the debug build
#   scripts/test.sh --clang         and a release build with clang++
#   scripts/test.sh --sanitizers    and address and undefined-behaviour sanitizers over every test, the thread
#                                   sanitizer over the unit, black-box and golden suites and the fuzz corpora, but for the
#                                   largest scenes, and valgrind over a conversion of each kind
#   scripts/test.sh --windows       and the cross build for Windows, under wine
#   scripts/test.sh --viewer        and the page of viewer/: its reader under node, and its pictures and habits in chromium
#   scripts/test.sh --viewer-core   and the short part of that: its reader, its pixels and its faults
#   scripts/test.sh --slurm         and arrays of tiles on a Slurm of one node; needs root and namespaces of its own, and
#                                   fails without them
#   scripts/test.sh --packages      and the Debian packages, in a bare Debian 12 of their own; needs root
#   scripts/test.sh --catalogue     and the catalogue and the pictures of a city as GDAL reads them
#   scripts/test.sh --all           all of these
#   scripts/test.sh --only ...      the builds that are named, without the release build
#
# Needs only git and bash on Debian 12 and Ubuntu 24.04; missing packages are installed with apt-get.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck source=scripts/packages.sh
source "$root/scripts/packages.sh"

usage() {
    sed -n '2,18s/^# \{0,1\}//p' "$root/scripts/test.sh"
}

# configure FOLDER PRESET [OPTION...]
# Configures a build folder; the options go to CMake.
configure() {
    local folder=$root/build/$1 preset=$2
    shift 2
    cmake -S "$root" -B "$folder" --preset "$preset" --log-level=WARNING "$@"
}

# build FOLDER [OPTION...]
# Builds a configured folder; the options go to the build.
build() {
    local folder=$root/build/$1
    shift
    echo "== ${folder##*/}: building"
    cmake --build "$folder" --parallel "$(nproc)" "$@"
}

# Seconds after which a test without its own limit counts as hung. The longest takes two minutes on two idle processors.
patience=900

# run_tests FOLDER [OPTION...]
# Runs the tests of a build folder; the options go to ctest. Many tests wait for the library's pauses, so two more run at
# a time than there are processors.
run_tests() {
    local folder=$root/build/$1
    shift
    echo "== ${folder##*/}: testing"
    "${launcher[@]}" ctest --test-dir "$folder" --output-on-failure --no-tests=error --parallel "$(($(nproc) + 2))" \
        --timeout "$patience" "$@"
}
launcher=()

test_release() {
    configure release release
    build release
    run_tests release
}

test_dev() {
    configure dev dev
    build dev
    run_tests dev
}

test_clang() {
    configure clang release -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
    build clang
    run_tests clang
}

test_sanitizers() {
    configure asan-ubsan asan-ubsan
    build asan-ubsan
    run_tests asan-ubsan
    configure tsan tsan
    build tsan
    # The thread sanitizer of g++ 12 and 13 fails if the kernel randomises addresses too widely, so randomisation is
    # switched off. A container may forbid that.
    if setarch -R true 2>/dev/null; then
        launcher=(setarch -R)
    fi
    run_tests tsan --label-regex '^(unit|blackbox|golden|fuzz)$' --label-exclude '^(large|exhaustive)$'
    launcher=()
    # The release build under valgrind: a conversion of each kind.
    configure release release
    build release --target makescene convertonce
    run_tests release --build-config Memcheck --label-regex '^memcheck$'
}

# Wine is started before the build, which runs each test program to list its tests. It is always stopped at the end.
test_windows() {
    trap '"$root/scripts/wine.sh" "$root/build/windows/wine" --stop' EXIT
    configure windows windows
    "$root/scripts/wine.sh" "$root/build/windows/wine" --start
    build windows
    # The large scenes must have the hashes of the native builds. Comparing them with the reference again would add
    # nothing.
    run_tests windows --exclude-regex '^Large/Golden[.]BytesAreThoseOfTheReference'
}

# prepare_viewer
# Builds what the page's tests run, and checks the page itself. npm packages are pinned, and their install scripts are not run.
prepare_viewer() {
    configure release release
    build release --target plyconvert_executable makescene renderscene viewer_reference
    echo "== viewer: testing"
    cd "$root/viewer"
    npm ci --ignore-scripts --no-audit --no-fund
    npx tsc --noEmit
    bash "$root/tests/viewer/built_test.sh" "$PWD" "$root/build/release/scratch/viewer.html"
    cd "$root"
}

# run_suites SUITE...
# Runs files of tests/viewer/ one after another, since software rendering uses all processors.
run_suites() {
    local scratch=$root/build/release/scratch/viewer-$1 suite
    rm -rf "$scratch"
    mkdir -p "$scratch"
    for suite in "$@"; do
        SCRATCH=$scratch BUILD=$root/build/release node --test --test-reporter=spec \
            "$root/tests/viewer/$suite.test.mjs" || return 1
    done
    rm -rf "$scratch"
}

test_viewer() {
    prepare_viewer
    run_suites parts reader pixels faults habits streaming pictures
}

# Two at a time: these mostly wait for a browser that starts or opens a page.
test_viewer-core() {
    local log=$root/build/release/viewer-core.log others failed=0
    prepare_viewer
    run_suites parts reader faults >"$log" 2>&1 &
    others=$!
    run_suites pixels || failed=1
    wait "$others" || failed=1
    cat "$log"
    return "$failed"
}

# Runs examples/slurm/ on a temporary cluster. See tests/slurm/ and scripts/slurm.sh.
test_slurm() {
    # Prints one line if something is missing here.
    "$root/scripts/slurm.sh" true
    configure release release
    build release --target plyconvert_executable makescene faults
    local build=$root/build/release
    echo "== slurm: testing"
    "$root/tests/slurm/cluster_test.sh" "$build/scratch/slurm_cluster"
    PLYCONVERT_PATH=$build/program:$build/scenes FAULTS=$build/tests/cli/faults.so \
        "$root/scripts/slurm.sh" "$root/tests/slurm/array_test.sh" "$build/scratch/slurm_array"
}

# The packages, made by cpack with their preset.
test_packages() {
    configure release release
    build release --target makescene
    configure package package
    build package
    echo "== packages: testing"
    (
        cd "$root/build/package"
        umask 022
        rm -f ./*.deb
        SOURCE_DATE_EPOCH=$(stat -c %Y "$root/CHANGELOG.md") cpack >cpack.log || {
            cat cpack.log
            exit 1
        }
        lintian --display-info --display-experimental --fail-on error,warning,info --allow-root ./*.deb
    )
    "$root/tests/packages/bare_test.sh" "$root/build/package" "$root/build/bare" "$root/build/release/scenes/makescene"
}

# Geo tools read a city of 24 tiles. See tests/catalogue/.
test_catalogue() {
    configure release release
    build release --target plyconvert_executable makescene
    local build=$root/build/release
    echo "== catalogue: testing"
    PATH=$build/program:$build/scenes:$PATH "$root/tests/catalogue/catalogue_test.sh" "$build/scratch/catalogue"
}

release=yes
builds=()
wanted=("${packages[@]}" "${suite_packages[@]}")
for argument in "$@"; do
    case $argument in
    --dev | --clang | --sanitizers | --windows | --viewer | --viewer-core | --slurm | --packages | --catalogue)
        builds+=("${argument#--}")
        ;;
    --all) builds=(dev clang sanitizers windows viewer slurm packages catalogue) ;;
    --only) release=no ;;
    -h | --help)
        usage
        exit 0
        ;;
    *)
        echo "Unknown option: $argument" >&2
        usage >&2
        exit 1
        ;;
    esac
done
if [[ $release == yes ]]; then
    builds=(release "${builds[@]}")
elif ((${#builds[@]} == 0)); then
    echo "--only needs a build: --dev, --clang, --sanitizers, --windows, --viewer, --viewer-core, --slurm, --packages or --catalogue" >&2
    exit 1
fi
for name in "${builds[@]}"; do
    case $name in
    clang) wanted+=("${clang_packages[@]}") ;;
    windows) wanted+=("${windows_packages[@]}") ;;
    packages) wanted+=("${bare_packages[@]}" "${release_packages[@]}") ;;
    catalogue) wanted+=("${catalogue_packages[@]}") ;;
    slurm) wanted+=("${slurm_packages[@]}") ;;
    viewer | viewer-core)
        wanted+=("${viewer_packages[@]}")
        # A node not from Debian has its own npm, which conflicts with Debian's.
        command -v npm >/dev/null || wanted+=("${node_packages[@]}")
        ;;
    esac
done

install_missing "${wanted[@]}"
for name in "${builds[@]}"; do
    "test_$name"
done
echo "== passed: ${builds[*]}"
