#!/bin/bash
# Builds the libFuzzer targets of tests/fuzz with clang (AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs each of them for the given time inside
# keldra-sandbox, since they write the system's fixed paths.
#
#   tools/fuzz.sh [SECONDS]        default 60 s per target
#   FUZZ_BUILD_DIR=dir tools/fuzz.sh   another build directory (default
#                                      build-fuzz)
#
# Each target keeps its growing corpus in <build>/fuzz/<target>/corpus and
# starts from it and the seeds in tests/fuzz/corpus/<target>. A crash, a
# sanitizer report, a leak or an input slower than 10 s ends that target's
# run with a failure; the input is saved in <build>/fuzz/<target>/artifacts
# and the end of the run's log is shown. The script goes on with the next
# target and fails at the end if any target failed.
#
# Per target it prints the executions per second and libFuzzer's counters,
# then replays the corpus and the seeds with the target's coverage build and
# prints the line and branch coverage (llvm-cov) of the functions the target
# is about.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${FUZZ_BUILD_DIR:-$root/build-fuzz}
seconds=${1:-60}
if ! [[ $seconds =~ ^[1-9][0-9]*$ ]]; then
    echo "usage: tools/fuzz.sh [SECONDS]" >&2
    exit 2
fi

# clang's libFuzzer and sanitizer runtimes come with libclang-rt-14-dev, only
# recommended by clang-14 in Debian 12; llvm-14 brings llvm-profdata and
# llvm-cov.
packages=(cmake make g++ libgtest-dev libgmock-dev clang libclang-rt-14-dev llvm-14 binutils)
source "$root/tools/packages.sh"
install_missing_packages

targets=(inotify_records admin_policy)
# The source file and the functions each target exercises, for the coverage
# summary.
declare -A source=(
    [inotify_records]=src/launcher/orvel/orvel-launcher.cc
    [admin_policy]=src/launcher/pellan/pellan-launcher.cc
)
declare -A functions=(
    [inotify_records]="walk_inotify_records read_inotify_record handle_inotify_record name_matches printable_name test_created_name test_recovery_files mark_for_reinstall create_pkgreinstall_file setxattr_pkgreinstall_file trace_mark"
    [admin_policy]="get_policy make_admin_policy policy_free get_timestamp_ro get_timestamp_rw"
)
# An inotify read is at most 8192 bytes, plus the state byte of the target.
declare -A max_len=([inotify_records]=8193 [admin_policy]=4096)

cmake -S "$root" -B "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DKELDRA_FUZZ=ON >/dev/null
cmake --build "$build" -j2 --target "${targets[@]/#/keldra_fuzz_}" \
    $(printf 'keldra_fuzz_%s_coverage ' "${targets[@]}")

sandbox=$build/tools/keldra-sandbox
# The fuzzers need no Smack simulation; --no-smack-sim keeps its preload out
# of the sanitized processes.
in_sandbox() {
    "$sandbox" --no-smack-sim --timeout $((seconds + 300)) -- "$@"
}

# Replays the target's corpus with its coverage build and prints the
# coverage of the named functions of its source file, and their total.
coverage_summary() {
    local target=$1 work=$2
    local binary=$build/fuzz/keldra_fuzz_${target}_coverage
    rm -f "$work/coverage.profraw"
    LLVM_PROFILE_FILE=$work/coverage.profraw in_sandbox "$binary" -runs=0 -close_fd_mask=2 \
        "$work/corpus" "$root/tests/fuzz/corpus/$target" >"$work/coverage.log" 2>&1
    llvm-profdata-14 merge -sparse "$work/coverage.profraw" -o "$work/coverage.profdata"
    llvm-cov-14 report "$binary" -instr-profile="$work/coverage.profdata" -show-functions \
        -Xdemangler c++filt "$root/${source[$target]}" >"$work/coverage.txt"
    awk -v names="${functions[$target]}" '
        BEGIN { n = split(names, list, " "); for (i = 1; i <= n; i++) wanted[list[i]] = 1 }
        {
            name = $1; sub(/^[^:(]*:/, "", name); sub(/\(.*/, "", name)
            # Columns from the end: branches (count, missed, %), lines (same),
            # regions (same).
            if (!(name in wanted) || NF < 10) next
            lines = $(NF-5); lmiss = $(NF-4); branches = $(NF-2); bmiss = $(NF-1)
            printf "    %-28s lines %3d/%-3d  branches %3d/%-3d\n", name, lines - lmiss, lines,
                   branches - bmiss, branches
            tl += lines; tlm += lmiss; tb += branches; tbm += bmiss
        }
        END {
            printf "  coverage of these functions: lines %d/%d (%.1f%%), branches %d/%d (%.1f%%)\n",
                   tl - tlm, tl, tl ? 100 * (tl - tlm) / tl : 0, tb - tbm, tb,
                   tb ? 100 * (tb - tbm) / tb : 0
        }' "$work/coverage.txt"
}

failed=()
for target in "${targets[@]}"; do
    fuzzer=$build/fuzz/keldra_fuzz_$target
    work=$build/fuzz/$target
    mkdir -p "$work/corpus" "$work/artifacts"
    echo "== fuzzing $target for $seconds s"
    # stderr of the target is closed (-close_fd_mask=2): the supervisor logs
    # every record there; libFuzzer and the sanitizers report on a copy.
    if in_sandbox "$fuzzer" -max_total_time="$seconds" -max_len="${max_len[$target]}" \
        -timeout=10 -close_fd_mask=2 -print_final_stats=1 \
        -artifact_prefix="$work/artifacts/" \
        "$work/corpus" "$root/tests/fuzz/corpus/$target" >"$work/fuzz.log" 2>&1; then
        grep -E '^#[0-9]+[[:space:]]+DONE' "$work/fuzz.log" | tail -1 || true
        grep -E '^stat::(number_of_executed_units|average_exec_per_sec|peak_rss_mb)' "$work/fuzz.log"
        coverage_summary "$target" "$work" || echo "  (no coverage summary: see $work/coverage.log)"
    else
        echo "fuzzing $target FAILED (log: $work/fuzz.log):"
        tail -60 "$work/fuzz.log"
        failed+=("$target")
    fi
done

if [ ${#failed[@]} -ne 0 ]; then
    echo "fuzz targets that failed: ${failed[*]}" >&2
    exit 1
fi
echo "fuzzing: no crash, no sanitizer report in ${targets[*]}"
