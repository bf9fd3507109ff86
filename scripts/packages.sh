# shellcheck shell=bash
# Lists the Debian packages that builds and tests need, and installs them. Sourced by the other scripts.
# shellcheck disable=SC2034  # the other scripts use the lists

# For configuring and building: compiler and tools, and the libraries of the program (CLI11, fmt, nlohmann-json; Boost.Beast for
# the server of view; zlib for its page and for SPZ files, zstd for those of version 4; PROJ for catalogues; libtiff, libgeotiff
# and libpng for pictures), of the tests (GoogleTest) and of the benchmarks.
packages=(
    g++ cmake ninja-build
    libcli11-dev libfmt-dev nlohmann-json3-dev libboost-dev zlib1g-dev libzstd-dev
    libproj-dev libtiff-dev libgeotiff-dev libpng-dev
    libgtest-dev libgmock-dev libbenchmark-dev
)
# For the tests: conversions under valgrind, the character tables of locales, pkg-config for a project that uses the library, a
# terminal that changes its size (tmux), clang-format for the sources, shellcheck for the scripts, mkfs.ext2 for a disk that cannot
# reserve room, and GNU parallel for its example.
suite_packages=(valgrind locales pkg-config tmux clang-format-14 shellcheck e2fsprogs parallel)
clang_packages=(clang)
# The linter of scripts/tidy.sh.
tidy_packages=(clang-tidy-14)
# libFuzzer with the sanitizers' runtimes, and the tools that count the lines that its corpora reach.
fuzz_packages=(libclang-rt-dev llvm)
# The cross compiler, wine, and zip for the release.
windows_packages=(g++-mingw-w64-x86-64-posix libz-mingw-w64-dev wine64 googletest zip)
# The page's tests run in chromium. Its tools (a bundler, a type checker) run under node; using the page needs neither.
viewer_packages=(chromium)
node_packages=(nodejs npm)
# A bare system to try the packages in, a checker of packages, and the tools that look at the system from outside.
bare_packages=(debootstrap lintian curl procps)
# The tools with which scripts/release.sh packs.
release_packages=(dpkg-dev zip python3)

# For scripts/slurm.sh: Slurm for one node, the keys of its messages, and the tools that make its network.
slurm_packages=(slurm-wlm munge iproute2 util-linux)

# Geo tools that open a catalogue and its pictures, and a checker of its schemas.
catalogue_packages=(gdal-bin python3-jsonschema)

# install_missing PACKAGE...
# Installs missing packages on systems with apt-get. On other systems, and without the right to install, it names them and
# goes on: CMake finds what is there under another name, and reports the rest.
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
    "${apt[@]}" update || echo "The package lists could not be updated; trying with the old ones." >&2
    if ! "${apt[@]}" install --no-install-recommends "${missing[@]}"; then
        echo "Some packages could not be installed. Going on without: ${missing[*]}" >&2
    fi
}
