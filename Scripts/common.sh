# shellcheck shell=bash disable=SC2034
# The steps that run-demo, run-tests and run-checks share. Sourced, never run.

root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd -P)

# What the library, its companions and the examples are built and run with.
demo_packages=(
    g++ cmake ninja-build
    nlohmann-json3-dev libspdlog-dev libcli11-dev libasio-dev libssl-dev openssl
    libpython3-dev python3
)
# What the tests and checks need beside them.
test_packages=(libgtest-dev clang clang-tidy clang-format shellcheck libclang-rt-14-dev haproxy)
# What the benchmarks need beside both.
benchmark_packages=(
    libbenchmark-dev pybind11-dev libzmq3-dev
    libgrpc++-dev libprotobuf-dev protobuf-compiler protobuf-compiler-grpc valgrind
)

say() {
    printf '\n== %s\n' "$*"
}

die() {
    printf '\n%s: %s\n' "$(basename -- "$0")" "$*" >&2
    exit 1
}

require_platform() {
    [ "$(uname -s) $(uname -m)" = "Linux x86_64" ] ||
        die "the library is for Linux on x86-64; this machine is $(uname -s) on $(uname -m)."
}

# Prints those of the given Debian packages that are not installed.
missing_packages() {
    local package status
    for package in "$@"; do
        status=$(dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null || true)
        grep -qx installed <<<"$status" || printf '%s\n' "$package"
    done
}

# Installs what is missing and asks nobody anything but for sudo's password.
require_packages() {
    command -v dpkg-query >/dev/null ||
        die "this script sets up Debian only, and there is no dpkg-query here. Install by hand: $*"
    local missing
    mapfile -t missing < <(missing_packages "$@")
    [ ${#missing[@]} -gt 0 ] || return 0
    say "Installing Debian packages: ${missing[*]}"
    command -v apt-get >/dev/null ||
        die "there is no apt-get to install these packages with: ${missing[*]}"
    local as_root=(env DEBIAN_FRONTEND=noninteractive)
    if [ "$(id -u)" != 0 ]; then
        command -v sudo >/dev/null ||
            die "installing packages takes root or sudo. Ask for: apt-get install ${missing[*]}"
        as_root=(sudo "${as_root[@]}")
    fi
    "${as_root[@]}" apt-get update ||
        die "the list of packages could not be fetched (no network, or no rights?). Missing: ${missing[*]}"
    "${as_root[@]}" apt-get install -y --no-install-recommends "${missing[@]}" ||
        die "apt-get could not install these packages (no network, or no rights?): ${missing[*]}"
}

# configure_preset PRESET [cmake option...]: shows cmake's output only when it fails.
configure_preset() {
    local preset=$1 launcher log
    shift
    launcher=$(command -v ccache || true)
    mkdir -p "$root/build/$preset"
    log=$root/build/$preset/configure.log
    (cd "$root" && cmake --preset "$preset" -DCMAKE_C_COMPILER_LAUNCHER="$launcher" \
        -DCMAKE_CXX_COMPILER_LAUNCHER="$launcher" "$@") >"$log" 2>&1 && return
    cat "$log" >&2
    echo "cmake could not configure the preset $preset; its messages are above." >&2
    return 1
}

# build_preset PRESET [cmake build option...]
build_preset() {
    local preset=$1
    shift
    (cd "$root" && cmake --build --preset "$preset" -j "$(nproc)" "$@")
}
