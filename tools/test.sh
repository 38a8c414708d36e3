#!/bin/bash
# Builds keldra with its sandbox, simulated daemons and tests, and runs every
# test. Packages that are missing are installed first with apt-get (as root).
#
#   tools/test.sh                every test: the ctest suite in build/, then
#                                the benchmark smoke round, the fuzz targets,
#                                memcheck, the sanitizer trees and the Smack VM
#   tools/test.sh <ctest args>   build in build/ and run ctest with these
#                                arguments only (for example -R e2e_simd)
#   BUILD_DIR=dir tools/test.sh  use another build directory
#
# The kernel of the Smack VM test comes from its cache or is built (4-7 min)
# in the background, at the lowest priority, while the other suites run; the
# VM test itself runs last. Without QEMU nothing is built and the VM test
# reports it (and fails when CI is set).
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${BUILD_DIR:-$root/build}
packages=(cmake make g++ libgtest-dev libgmock-dev)
# What the packaging tests need (package builders, unit and man page checkers).
mapfile -t -O "${#packages[@]}" packages < <(grep -v '^[[:space:]]*\(#\|$\)' "$root/packaging/apt-packages.txt")

source "$root/tools/packages.sh"

build_tree() {
    install_missing_packages
    cmake -S "$root" -B "$build"
    cmake --build "$build" -j2
}

run_ctest() {
    (cd "$build" && ctest --output-on-failure -j2 "$@")
}

if [ $# -gt 0 ]; then
    build_tree
    run_ctest "$@"
    exit
fi

"$root/tools/smack-vm/build-kernel.sh" --packages ||
    echo "warning: the packages of the Smack VM test could not all be installed" >&2
smack_kernel_log=$(mktemp /tmp/keldra-smack-kernel.XXXXXX)
smack_kernel=
if command -v qemu-system-x86_64 >/dev/null; then
    nice -n 19 "$root/tools/smack-vm/build-kernel.sh" >"$smack_kernel_log" 2>&1 &
    smack_kernel=$!
fi
build_tree
# The sanitizer trees build meanwhile, at the lowest priority too: the
# scenarios of the main suite mostly sleep.
sanitizer_build_log=$(mktemp /tmp/keldra-sanitizer-build.XXXXXX)
nice -n 19 "$root/tools/sanitize.sh" --build-only >"$sanitizer_build_log" 2>&1 &
sanitizer_build=$!
run_ctest -LE smack-vm
# One short round of the benchmark against runit and s6, so that it cannot
# rot: its figures are printed, never judged (bench/run.sh).
BUILD_DIR="$build" "$root/bench/run.sh" --ci
# Robustness: the fuzz targets for 60 s each (clang build in build-fuzz),
# keldra under valgrind's memcheck (build-valgrind), the unit and e2e tests
# under ASan+UBSan (build-asan) and the e2e tests under TSan (build-tsan). The
# soak ran in the ctest suite above with 1000 deaths; tools/soak.sh runs the
# full 10000.
"$root/tools/fuzz.sh" 60
"$root/tools/valgrind.sh"
if ! wait "$sanitizer_build"; then
    echo "the sanitizer trees could not be built:" >&2
    cat "$sanitizer_build_log" >&2
    exit 1
fi
rm -f "$sanitizer_build_log"
"$root/tools/sanitize.sh"
# The Smack VM test (ctest label smack-vm), once its kernel is there.
if [ -n "$smack_kernel" ] && ! wait "$smack_kernel"; then
    echo "the kernel of the Smack VM test could not be built:" >&2
    cat "$smack_kernel_log" >&2
    exit 1
fi
rm -f "$smack_kernel_log"
(cd "$build" && ctest --output-on-failure -j2 -L smack-vm)
