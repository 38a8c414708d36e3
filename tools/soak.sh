#!/bin/bash
# The full soak of tests/e2e/soak_test.cc: 10000 daemon deaths (or as many
# as given) spread over the four daemons, in seven test cases run side by
# side, each with a supervisor of its own in the sandbox. The main suite
# runs the same cases with 10000 deaths at ctest's -j2; this runs them all at
# once, in a build directory of its own.
#
#   tools/soak.sh [DEATHS]              default 10000
#   SOAK_BUILD_DIR=dir tools/soak.sh    another build directory (default
#                                       build-soak)
#
# Each case prints its deaths, its time and the supervisor's descriptors,
# threads and resident memory after the warm-up and at the end; the summary
# lines are repeated at the end.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${SOAK_BUILD_DIR:-$root/build-soak}
deaths=${1:-10000}
if ! [[ $deaths =~ ^[1-9][0-9]*$ ]]; then
    echo "usage: tools/soak.sh [DEATHS]" >&2
    exit 2
fi
packages=(cmake make g++ libgtest-dev libgmock-dev)
source "$root/tools/packages.sh"
install_missing_packages

cmake -S "$root" -B "$build" >/dev/null
cmake --build "$build" -j2 --target e2e_soak_test keldra keldra-sandbox keldra-simd
cd "$build"
started=$(date +%s)
status=0
KELDRA_SOAK_DEATHS=$deaths ctest --output-on-failure --no-tests=error -j7 \
    -R '^e2e_soak_test\.' || status=$?
echo "soak of $deaths deaths: $(( $(date +%s) - started )) s, ctest status $status"
grep -h ' soak: ' Testing/Temporary/LastTest.log || true
exit $status
