#!/bin/bash
# Runs keldra under valgrind's memcheck in the sandbox (tests/memcheck): a
# full start with the admin-user policy push, one death and relaunch of each
# daemon and a SIGTERM; valgrind must find no error and no leak but the one
# listed in tests/memcheck/keldra.supp (see there).
#
#   tools/valgrind.sh                    build in build-valgrind and run it
#   VALGRIND_BUILD_DIR=dir tools/valgrind.sh   another build directory
#
# Only what the scenario needs is built. valgrind's whole report of the run
# is printed when the scenario fails.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${VALGRIND_BUILD_DIR:-$root/build-valgrind}
packages=(cmake make g++ libgtest-dev libgmock-dev valgrind)
source "$root/tools/packages.sh"
install_missing_packages

cmake -S "$root" -B "$build" -DKELDRA_MEMCHECK=ON >/dev/null
cmake --build "$build" -j2 --target memcheck_test keldra keldra-sandbox keldra-simd
cd "$build"
ctest --output-on-failure --no-tests=error -R '^memcheck_test\.' "$@"
