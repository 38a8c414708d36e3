#!/bin/bash
# Builds keldra with its sandbox, simulated daemons and tests, and runs every
# test. Packages that are missing are installed first with apt-get (as root).
#
#   tools/test.sh              build in build/ and run all tests
#   BUILD_DIR=dir tools/test.sh  use another build directory
#
# Extra arguments are passed to ctest (for example -R e2e_simd).
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${BUILD_DIR:-$root/build}
packages=(cmake make g++ libgtest-dev libgmock-dev)
# What the packaging tests need (package builders, unit and man page checkers).
mapfile -t -O "${#packages[@]}" packages < <(grep -v '^[[:space:]]*\(#\|$\)' "$root/packaging/apt-packages.txt")

is_installed() {
    dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'
}

install_missing_packages() {
    local missing=() package
    for package in "${packages[@]}"; do
        is_installed "$package" || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    if [ "$(id -u)" -ne 0 ]; then
        echo "missing packages: ${missing[*]}; run as root to install them" >&2
        exit 1
    fi
    echo "installing missing packages: ${missing[*]}" >&2
    apt-get update
    DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
}

install_missing_packages
cmake -S "$root" -B "$build"
cmake --build "$build" -j2
cd "$build"
ctest --output-on-failure -j2 "$@"
