# Helpers of the packaging tests, sourced by tests/packaging/*_test.sh.
#
# Every test is called by ctest as
#   bash <test>.sh --source-dir <dir> --build-dir <dir> --version <x.y.z>
# and exits 0 when every check passed, 1 when one failed, 77 when it was
# skipped because a tool is missing (a failure instead when CI is set).
# Checks report "FAIL: ..." and go on; the test fails at its end. Scratch
# files live in one directory /tmp/keldra-pkg-<test>-XXXXXX, removed when the
# test passed and kept for inspection otherwise.

set -u
set -o pipefail

test_name=$(basename "$0" _test.sh)
failures=0
work=
source_dir=
build_dir=
version=

while [ $# -gt 0 ]; do
    case "$1" in
    --source-dir) source_dir=$2; shift 2 ;;
    --build-dir) build_dir=$2; shift 2 ;;
    --version) version=$2; shift 2 ;;
    *) echo "usage: $0 --source-dir DIR --build-dir DIR --version X.Y.Z" >&2; exit 2 ;;
    esac
done
if [ -z "$source_dir" ] || [ -z "$build_dir" ] || [ -z "$version" ]; then
    echo "usage: $0 --source-dir DIR --build-dir DIR --version X.Y.Z" >&2
    exit 2
fi

# Nested builds must not pick up the make job server or a DESTDIR of a caller.
unset MAKEFLAGS MFLAGS MAKELEVEL DESTDIR
export LC_ALL=C

# fail <message>: records a failed check.
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}

# note <message>: progress line.
note() {
    echo "-- $*"
}

# skip_or_fail <message>: a precondition is missing; skip the test, or fail it
# when the environment variable CI is set.
skip_or_fail() {
    if [ -n "${CI:-}" ]; then
        echo "FAIL: $* (CI is set, so this is a failure; packaging/apt-packages.txt lists the packages)"
        exit 1
    fi
    echo "SKIP: $* (install the packages of packaging/apt-packages.txt)"
    exit 77
}

# need_tool <program> <apt package>: the program must be on PATH.
need_tool() {
    command -v "$1" >/dev/null 2>&1 || skip_or_fail "$1 not found (apt package $2)"
}

# abort <message> [log file]: a step that later checks depend on failed.
abort() {
    echo "FAIL: $1"
    if [ $# -gt 1 ] && [ -f "$2" ]; then
        echo "---- last lines of $2:"
        tail -n 40 "$2"
        echo "----"
    fi
    [ -n "$work" ] && echo "scratch files kept in $work"
    exit 1
}

# finish: ends the test with the result of its checks.
finish() {
    if [ "$failures" -ne 0 ]; then
        echo "$test_name: $failures check(s) failed; scratch files kept in $work"
        exit 1
    fi
    rm -rf "$work"
    echo "$test_name: all checks passed"
    exit 0
}

# make_work_dir: creates the scratch directory $work.
make_work_dir() {
    work=$(mktemp -d "/tmp/keldra-pkg-$test_name-XXXXXX") || exit 1
}

# configure_and_build <build dir> <log> <cmake arguments...> [-- <targets>]:
# configures a scratch build of the source tree and builds the given targets
# (all when none is given).
configure_and_build() {
    local dir=$1 log=$2
    shift 2
    local args=() targets=()
    while [ $# -gt 0 ] && [ "$1" != -- ]; do args+=("$1"); shift; done
    [ $# -gt 0 ] && shift
    targets=("$@")
    cmake -S "$source_dir" -B "$dir" "${args[@]}" >"$log" 2>&1 ||
        abort "configuring $dir failed" "$log"
    local target_args=()
    [ ${#targets[@]} -gt 0 ] && target_args=(--target "${targets[@]}")
    cmake --build "$dir" -j2 "${target_args[@]}" >>"$log" 2>&1 ||
        abort "building $dir failed" "$log"
}

# install_standins <build dir> <prefix> <log>: builds the host stand-ins of
# the platform libraries in a scratch build and installs them, with headers
# and pkg-config files, into <prefix>. Sets standins_pc_dir.
install_standins() {
    local dir=$1 prefix=$2 log=$3
    configure_and_build "$dir" "$log" -DKELDRA_BUILD_TESTS=OFF \
        -DKELDRA_INSTALL_PLATFORM_STANDINS=ON -DCMAKE_INSTALL_LIBDIR=lib \
        -- vesk tessel pellan-admin
    cmake --install "$dir" --prefix "$prefix" --component platform >>"$log" 2>&1 ||
        abort "installing the stand-ins into $prefix failed" "$log"
    standins_pc_dir=$prefix/lib/pkgconfig
}

# check_no_test_files <listing file>: a package listing names no test
# program, simulated daemon or sandbox.
check_no_test_files() {
    local bad
    bad=$(grep -E '(keldra-simd|keldra-sandbox|keldra-smack-sim|/unit_[^/]*$|/e2e_[^/]*$|/host_[^/]*$|_test$|gtest)' "$1")
    [ -z "$bad" ] || fail "test or simulation files shipped: $bad"
}

# check_mode <listing file> <path regex> <mode string> <label>: the listing
# (lines "<mode> <path>") holds exactly one entry matching the path, with the
# given mode.
check_mode() {
    local listing=$1 path_re=$2 mode=$3 label=$4 lines
    lines=$(grep -E " $path_re\$" "$listing")
    if [ -z "$lines" ]; then
        fail "$label missing (no path matching $path_re)"
    elif [ "$(printf '%s\n' "$lines" | wc -l)" -ne 1 ]; then
        fail "$label present more than once: $lines"
    elif [ "${lines%% *}" != "$mode" ]; then
        fail "$label has mode ${lines%% *}, expected $mode: $lines"
    fi
}
