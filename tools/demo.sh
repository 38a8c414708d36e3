#!/bin/bash
# Runs keldra inside keldra-sandbox with its four simulated daemons; keldra's
# log is shown on the terminal. Ctrl-C stops it: the sandbox turns it into one
# SIGTERM to keldra, which exits leaving its daemons, and the end of the
# sandbox then ends them. Builds what is needed first, and installs missing
# packages with apt-get (as root).
#
#   tools/demo.sh                    run until Ctrl-C
#   DEMO_SECONDS=20 tools/demo.sh    stop everything after 20 s (exit status 124)
#   BUILD_DIR=dir tools/demo.sh      use another build directory (default build/)
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${BUILD_DIR:-$root/build}
packages=(cmake make g++ libgtest-dev libgmock-dev)

source "$root/tools/packages.sh"

install_missing_packages
[ -f "$build/CMakeCache.txt" ] || cmake -S "$root" -B "$build"
cmake --build "$build" -j2 --target keldra keldra-sandbox keldra-simd

timeout=()
if [ -n "${DEMO_SECONDS:-}" ]; then
    timeout=(--timeout "$DEMO_SECONDS")
fi
echo "demo: keldra and its simulated daemons in a sandbox; Ctrl-C stops it" >&2
exec "$build/tools/keldra-sandbox" "${timeout[@]}" -- "$build/keldra"
