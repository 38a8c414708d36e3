#!/bin/bash
# The controlled comparisons behind bench/analysis.md: the relaunch
# measurement of bench/run.sh for variants that each change one thing, run in
# interleaved repetitions so that the machine's drift touches every variant.
#
#   bench/experiments.sh [REPETITIONS [KILLS]]     defaults 3 and 8
#   BUILD_DIR=dir                                   default build-bench
#
# Variants, each in a keldra-sandbox of its own, as in bench/run.sh:
#   floor            the minimal fork/exec/waitpid loop (bench/floor.c)
#   floor+setsid     the same, each child calling setsid() before its exec,
#                    as keldra's children do
#   keldra           keldra as built
#   keldra-nosyslog  keldra with syslog(3) made a no-op by a preload
#                    (bench/no-syslog.c): the host log stand-in's attempt to
#                    reach a system log, which the sandbox lacks, then costs
#                    nothing
# Per repetition and variant it prints the median relaunch latency over KILLS
# kills of orvel, dunmar and tavish (ms, SIGKILL to the successor's first
# instruction) and orvel's median against the floor of the same repetition;
# for the keldra variants also the median steps of orvel's relaunch from
# keldra's own log stamps (KILLS further kills, see "trace" in bench/agent.cc).
# Takes about 4 to 5 minutes per repetition with 8 kills.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${BUILD_DIR:-$root/build-bench}
repetitions=${1:-3}
kills=${2:-8}
case $repetitions$kills in
*[!0-9]*) echo "usage: bench/experiments.sh [REPETITIONS [KILLS]]" >&2; exit 2 ;;
esac

cmake -S "$root" -B "$build" >/dev/null
cmake --build "$build" -j2 --target keldra-bench keldra-bench-nosyslog >/dev/null

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

# run_variant <variant> <file>: runs the agent of the variant, its output to file.
run_variant() {
    local kind=floor commands="relaunch $kills" env=()
    case $1 in
    floor+setsid) env=(KELDRA_BENCH_FLOOR_SETSID=1) ;;
    keldra) kind=keldra commands="trace $kills
relaunch $kills" ;;
    keldra-nosyslog) kind=keldra commands="trace $kills
relaunch $kills" env=("LD_PRELOAD=$build/bench/libkeldra-bench-nosyslog.so") ;;
    esac
    printf '%s\nquit\n' "$commands" |
        env "${env[@]}" "$build/tools/keldra-sandbox" --timeout 900 -- \
            "$build/bench/keldra-bench" agent "$kind" >"$2" 2>"$2.err" ||
        { echo "variant $1 failed:" >&2; cat "$2" "$2.err" >&2; exit 1; }
    if grep -q '^error ' "$2"; then
        echo "variant $1: $(grep '^error ' "$2")" >&2
        exit 1
    fi
}

# median: the median of the numbers on stdin, one per line.
median() {
    sort -g | awk '{ v[NR] = $1 } END {
        if (NR == 0) { print "-"; exit }
        if (NR % 2) printf "%.3f", v[(NR + 1) / 2]
        else printf "%.3f", (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

# relaunch_ms <file> <daemon>: median relaunch latency of the daemon in ms.
relaunch_ms() {
    sed -n "s/^sample daemon=$2 ns=\([0-9]*\)\$/\1/p" "$1" | awk '{ print $1 / 1e6 }' | median
}

# step_ms <file> <step>: median of one step of orvel's traced relaunches.
step_ms() {
    sed -n "s/^trace daemon=orvel .*$2_ns=\([0-9-]*\).*/\1/p" "$1" | awk '{ print $1 / 1e6 }' |
        median
}

# pooled_ms <variant> <daemon>: median over every kill of every repetition.
pooled_ms() {
    cat "$out/$1"-[0-9]*.txt | sed -n "s/^sample daemon=$2 ns=\([0-9]*\)\$/\1/p" |
        awk '{ print $1 / 1e6 }' | median
}

variants=(floor floor+setsid keldra keldra-nosyslog)
printf '%-4s %-16s %8s %8s %8s %12s   %s\n' rep variant orvel dunmar tavish orvel/floor \
    "orvel steps: wake react fork child"
for ((rep = 1; rep <= repetitions; rep++)); do
    for variant in "${variants[@]}"; do
        file=$out/$variant-$rep.txt
        run_variant "$variant" "$file"
        orvel=$(relaunch_ms "$file" orvel)
        floor=$(relaunch_ms "$out/floor-$rep.txt" orvel)
        ratio=$(awk -v a="$orvel" -v b="$floor" 'BEGIN { printf "%.2f", a / b }')
        steps=
        if [[ $variant == keldra* ]]; then
            steps="$(step_ms "$file" wake) $(step_ms "$file" react) $(step_ms "$file" fork)"
            steps+=" $(step_ms "$file" child)"
        fi
        printf '%-4s %-16s %8s %8s %8s %12s   %s\n' "$rep" "$variant" "$orvel" \
            "$(relaunch_ms "$file" dunmar)" "$(relaunch_ms "$file" tavish)" "$ratio" "$steps"
        echo "$ratio" >>"$out/$variant.ratios"
        [ -z "$steps" ] || echo "$steps" >>"$out/$variant.steps"
    done
done
echo
echo "Over all repetitions: median of every kill (ms), median [min-max] of the orvel/floor"
echo "ratios, and for keldra the medians of the repetitions' orvel step medians."
for variant in "${variants[@]}"; do
    ratios=$(sort -g "$out/$variant.ratios")
    steps=
    if [ -f "$out/$variant.steps" ]; then
        for column in 1 2 3 4; do
            steps+="$(awk -v c=$column '{ print $c }' "$out/$variant.steps" | median) "
        done
    fi
    printf '%-4s %-16s %8s %8s %8s %5s [%s-%s]   %s\n' all "$variant" \
        "$(pooled_ms "$variant" orvel)" "$(pooled_ms "$variant" dunmar)" \
        "$(pooled_ms "$variant" tavish)" "$(median <<<"$ratios" | xargs printf '%.2f')" \
        "$(head -n 1 <<<"$ratios")" "$(tail -n 1 <<<"$ratios")" "$steps"
done
