# Sourced by ./demo, ./check, ./fuzz and ./bench: what they need from the system, installed where that is possible.
# shellcheck shell=bash

build_packages=(g++ cmake ninja-build libgtest-dev libgmock-dev bubblewrap pkg-config fuse3 libfuse3-dev)
# shellcheck disable=SC2034 # for ./check
check_packages=("${build_packages[@]}" git clang-format clang-tidy mandoc shellcheck)
# shellcheck disable=SC2034 # for check_arm.sh
arm_packages=("${build_packages[@]}" g++-arm-linux-gnueabihf googletest qemu-user-static)
# shellcheck disable=SC2034 # for ./fuzz
fuzz_packages=(clang)
# shellcheck disable=SC2034 # for ./bench
bench_packages=("${build_packages[@]}" libbenchmark-dev binutils)

# Makes sure that the given Debian packages are there: installs what is missing when run as root on Debian, otherwise
# says what to install and ends.
require_packages() {
    local missing=() package
    for package in "$@"; do
        dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null; then
        echo "Installing: ${missing[*]}"
        { apt-get -qq update && DEBIAN_FRONTEND=noninteractive apt-get -qq install -y --no-install-recommends "${missing[@]}"; } \
            >/tmp/tessel-setup.$$ 2>&1 || {
            cat /tmp/tessel-setup.$$ >&2
            exit 1
        }
        rm -f /tmp/tessel-setup.$$
    else
        echo "Missing: ${missing[*]}. Install them first, on Debian: sudo apt-get install ${missing[*]}" >&2
        exit 1
    fi
}

# Configures and builds a preset. Prints only when that fails.
build_preset() {
    local log preset=$1
    shift
    log=$(mktemp)
    if ! { cmake --preset "$preset" && cmake --build --preset "$preset" "$@"; } >"$log" 2>&1; then
        cat "$log" >&2
        rm -f "$log"
        exit 1
    fi
    rm -f "$log"
}
