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

source "$root/tools/packages.sh"

install_missing_packages
cmake -S "$root" -B "$build"
cmake --build "$build" -j2
cd "$build"
ctest --output-on-failure -j2 "$@"
