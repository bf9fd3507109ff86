# shellcheck shell=bash
# What the builds and the tests need from the system, and how it gets there. Sourced by the other scripts.
# shellcheck disable=SC2034  # the lists are used there

# Compiler and tools, and the libraries of the program (CLI11, fmt, nlohmann-json; Beast of Boost for the server of view,
# zlib for its page and for SPZ files, zstd for those of version 4; PROJ for the catalogue of a city, libtiff, libgeotiff and
# libpng for pictures), of the tests (GoogleTest) and of the benchmarks: what configuring and building needs.
packages=(
    g++ cmake ninja-build
    libcli11-dev libfmt-dev nlohmann-json3-dev libboost-dev zlib1g-dev libzstd-dev
    libproj-dev libtiff-dev libgeotiff-dev libpng-dev
    libgtest-dev libgmock-dev libbenchmark-dev
)
# What tests run: conversions looked at for errors of memory, the character tables from which a locale is made, what a
# project that uses the library asks for its flags, a terminal that changes its size, the layout of the sources, the scripts,
# and a disk that cannot set room aside (mkfs.ext2).
suite_packages=(valgrind locales pkg-config tmux clang-format-14 shellcheck e2fsprogs parallel)
clang_packages=(clang)
# The linter of scripts/tidy.sh.
tidy_packages=(clang-tidy-14)
# libFuzzer with the sanitizers' runtimes, and what counts the lines that its corpora reach.
fuzz_packages=(libclang-rt-dev llvm)
# The cross compiler, wine, and what packs the zip.
windows_packages=(g++-mingw-w64-x86-64-posix libz-mingw-w64-dev wine64 googletest zip)
# The page's tests run in chromium; its tools (a bundler, a type checker) run under node, which nobody needs to use the page.
viewer_packages=(chromium)
node_packages=(nodejs npm)
# A bare system to try the packages in, and what looks at it from outside.
bare_packages=(debootstrap lintian curl procps)
# What scripts/release.sh packs with.
release_packages=(dpkg-dev zip python3)

# A Slurm of one node, the keys of its messages, and what makes its network: scripts/slurm.sh.
slurm_packages=(slurm-wlm munge iproute2 util-linux)

# Geo tools that open a catalogue and its pictures, and what checks it against schemas.
catalogue_packages=(gdal-bin python3-jsonschema)

# install_missing PACKAGE...
# Installs those that are not there, on systems with apt-get. Elsewhere, and where nobody may install, names them
# and goes on: what is there under another name is found by CMake, and what is not, it reports.
install_missing() {
    local missing=() package
    if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
        echo "This system has no apt-get. Needed, by their Debian names: $*" >&2
        return 0
    fi
    for package in "$@"; do
        if [[ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" != installed ]]; then
            missing+=("$package")
        fi
    done
    if ((${#missing[@]} == 0)); then
        return 0
    fi
    local as_root=()
    if ((EUID != 0)); then
        if ! command -v sudo >/dev/null; then
            echo "Not root, and no sudo. Going on without these packages: ${missing[*]}" >&2
            return 0
        fi
        as_root=(sudo)
    fi
    echo "Installing: ${missing[*]}"
    local apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q -y -o DPkg::Lock::Timeout=300)
    "${apt[@]}" update || echo "The package lists could not be brought up to date; trying with the old ones." >&2
    if ! "${apt[@]}" install --no-install-recommends "${missing[@]}"; then
        echo "Some packages could not be installed. Going on without: ${missing[*]}" >&2
    fi
}
