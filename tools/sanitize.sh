#!/bin/bash
# Builds keldra and its tests with a sanitizer and runs them under it:
#
#   address  AddressSanitizer + UndefinedBehaviorSanitizer, in build-asan/: the
#            unit tests and the end-to-end scenarios
#   thread   ThreadSanitizer, in build-tsan/: the end-to-end scenarios
#
#   tools/sanitize.sh                    both, address first (the thread tree
#                                        builds at a lower priority while the
#                                        address tests run)
#   tools/sanitize.sh thread             one of them
#   tools/sanitize.sh address -- -R e2e_lock   extra arguments after -- go to ctest
#   tools/sanitize.sh --build-only       build the trees one after the other,
#                                        run nothing (tools/test.sh does this
#                                        in the background of the main suite)
#
# Environment: ASAN_BUILD_DIR, TSAN_BUILD_DIR (build directories),
# SANITIZE_JOBS (ctest parallelism, default 10: the scenarios mostly sleep).
#
# Only the test programs of tests/unit and tests/e2e (ctest names unit_* and
# e2e_*) and what they need are built and run: not the host tests (they run
# on the host; the sandbox is not sanitized), the packaging tests (shell
# scripts) nor the tests of other tools. The trees are Debug builds (-O0):
# sanitized code compiles several times faster so, and runs fast enough.
# Further -R/-E arguments given after -- replace the selection.
#
# What is instrumented: keldra, its three platform libraries and the unit
# test programs (which link keldra's code). The scenario programs, their
# harness and the simulated daemons are built without sanitizer: they only
# watch keldra from outside or stand in for the device's daemons, whose start
# -up speed some scenarios race against (cmake/KeldraSanitize.cmake).
#
# A sanitizer report fails the run even when the test that caused it passed
# (keldra killed at the end of a scenario never gets to exit with the
# sanitizer's status): the tests run every sanitized program with log_path
# pointing at <build>/sanitizer-reports/<test program>.<pid>
# (cmake/KeldraSanitize.cmake); the directory is emptied before ctest and
# every report in it afterwards is printed and fails the run.
# UndefinedBehaviorSanitizer ignores log_path next to ASan and writes to
# stderr, and stops the process (status 86): in a test program that fails
# the test; in keldra (or a daemon, which shares keldra's stderr) the scenario
# harness finds it in keldra's stderr when the scenario ends and fails the
# test.
set -uo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=${SANITIZE_JOBS:-10}
packages=(cmake make g++ libgtest-dev libgmock-dev)
source "$root/tools/packages.sh"

# The crash loops and the soak run shorter than in the main suite (which runs
# them at full length): the sanitized supervisor takes several times longer
# per relaunch, and what they add here is every path of a death and a
# relaunch under the sanitizer, not the count.
export KELDRA_CRASHLOOP_KILLS=${KELDRA_CRASHLOOP_KILLS:-50}
export KELDRA_SOAK_DEATHS=${KELDRA_SOAK_DEATHS:-200}

sanitizers=()
build_only=0
while [ $# -gt 0 ] && [ "$1" != "--" ]; do
    case "$1" in
    address | thread) sanitizers+=("$1") ;;
    --build-only) build_only=1 ;;
    *) echo "usage: tools/sanitize.sh [--build-only] [address] [thread] [-- ctest arguments]" >&2; exit 2 ;;
    esac
    shift
done
[ "${1:-}" = "--" ] && shift
[ ${#sanitizers[@]} -eq 0 ] && sanitizers=(address thread)

build_dir() {
    case "$1" in
    address) echo "${ASAN_BUILD_DIR:-$root/build-asan}" ;;
    thread) echo "${TSAN_BUILD_DIR:-$root/build-tsan}" ;;
    esac
}

# The test programs that a sanitizer runs (tests/CMakeLists.txt names them
# after their source files); they depend on keldra and everything else the
# tests use.
test_programs() {
    local source kinds=(e2e)
    [ "$1" = address ] && kinds=(unit e2e)
    for kind in "${kinds[@]}"; do
        for source in "$root/tests/$kind"/*_test.cc; do
            basename "$source" .cc | sed "s/^/${kind}_/"
        done
    done
}

# The ctest selection of each sanitizer, in the array `selection`.
select_tests() {
    case "$1" in
    address) selection=(-R '^(unit|e2e)_') ;;
    thread) selection=(-R '^e2e_') ;;
    esac
}

# Prints every report file with a report; fails when there is one.
check_reports() {
    local dir=$1 found=0 report
    for report in "$dir"/*; do
        [ -e "$report" ] || continue
        [ -s "$report" ] || continue
        if [ $found -eq 0 ]; then
            echo "sanitizer reports in $dir:" >&2
        fi
        found=1
        echo "==== $(basename "$report")" >&2
        cat "$report" >&2
    done
    return $found
}

# Configures and builds (-j2) one sanitizer tree.
build_tree() {
    local sanitizer=$1 build started=$SECONDS
    build=$(build_dir "$sanitizer")
    echo "== $sanitizer sanitizer: building in $build" >&2
    cmake -S "$root" -B "$build" -DKELDRA_SANITIZE="$sanitizer" -DCMAKE_BUILD_TYPE=Debug &&
        cmake --build "$build" -j2 --target $(test_programs "$sanitizer") || return 1
    echo "== $sanitizer sanitizer: built in $((SECONDS - started)) s" >&2
}

# Runs the selected tests of one built tree and checks its reports.
test_tree() {
    local sanitizer=$1 build status=0 started=$SECONDS selection
    shift
    build=$(build_dir "$sanitizer")
    # Writable for all: the daemons that keldra launches run as other users.
    rm -rf "$build/sanitizer-reports"
    install -d -m 1777 "$build/sanitizer-reports"
    select_tests "$sanitizer"
    (cd "$build" && ctest --output-on-failure -j"$jobs" "${selection[@]}" "$@") || status=1
    echo "== $sanitizer sanitizer: tests ran in $((SECONDS - started)) s" >&2
    check_reports "$build/sanitizer-reports" || status=1
    return $status
}

install_missing_packages
if [ $build_only -eq 1 ]; then
    for sanitizer in "${sanitizers[@]}"; do
        build_tree "$sanitizer" || exit 1
    done
    exit 0
fi
failed=()
built=0
build_tree "${sanitizers[0]}" || built=1
for i in "${!sanitizers[@]}"; do
    sanitizer=${sanitizers[$i]}
    next=${sanitizers[$((i + 1))]:-}
    # The next tree builds meanwhile, at a lower priority: the scenarios
    # mostly sleep and leave the processors to it.
    if [ -n "$next" ]; then
        next_log=$(mktemp)
        (renice -n 10 -p $BASHPID >/dev/null && build_tree "$next") >"$next_log" 2>&1 &
        next_build=$!
    fi
    if [ $built -eq 0 ]; then
        test_tree "$sanitizer" "$@" || failed+=("$sanitizer")
    else
        failed+=("$sanitizer")
    fi
    if [ -n "$next" ]; then
        built=0
        wait "$next_build" || built=1
        cat "$next_log" >&2
        rm -f "$next_log"
    fi
done
if [ ${#failed[@]} -gt 0 ]; then
    echo "sanitizer run failed: ${failed[*]}" >&2
    exit 1
fi
echo "sanitizer runs passed: ${sanitizers[*]}" >&2
