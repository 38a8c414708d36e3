#!/bin/bash
# Benchmarks keldra against runit and s6 (Debian packages) and a minimal C
# fork/exec/waitpid supervisor, all in keldra-sandbox, and writes the report.
#
#   bench/run.sh          full run: 5 rounds, 60 s idle windows, lookups among
#                         1,000 and 5,000 processes, a profile of keldra's
#                         relaunch path and lookup (about 8 minutes); writes
#                         bench/results/report.md (with bench/analysis.md),
#                         samples.tsv, relaunch-samples.dat and
#                         relaunch-latency.png; perf data in <build>/bench-profile
#   bench/run.sh --ci     one short round (about a minute) whose figures are
#                         printed, never judged; writes to <build>/bench-results
#   BUILD_DIR=dir         build directory (default build-bench)
#
# Missing packages (cmake, make, g++, runit, s6, procps, gnuplot-nox) are
# installed first with apt-get (as root); only the benchmark's programs and
# what they need are built (-j2).
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${BUILD_DIR:-$root/build-bench}
mode=full
case ${1:-} in
'') ;;
--ci) mode=ci ;;
*) echo "usage: bench/run.sh [--ci]" >&2; exit 2 ;;
esac

packages=(cmake make g++ runit s6 procps gnuplot-nox)

is_installed() {
    dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'
}

# Other work on the machine may hold the dpkg lock for a while: wait for it.
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
    apt-get -o DPkg::Lock::Timeout=600 update
    DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 install -y \
        --no-install-recommends "${missing[@]}"
}

install_missing_packages
cmake -S "$root" -B "$build" >/dev/null
cmake --build "$build" -j2 --target keldra-bench

if [ "$mode" = ci ]; then
    out=$build/bench-results
    args=(--rounds 1 --kills 2 --idle-seconds 10 --lookup-repeats 3)
else
    out=$root/bench/results
    args=(--rounds 5 --kills 5 --idle-seconds 60 --lookup-repeats 5
          --analysis "$root/bench/analysis.md" --profile-dir "$build/bench-profile")
fi
mkdir -p "$out"
"$build/bench/keldra-bench" run --out "$out" --command "bench/run.sh${1:+ $1}" \
    --lookup-counts 1000,5000 "${args[@]}"
gnuplot -e "datafile='$out/relaunch-samples.dat'; outfile='$out/relaunch-latency.png'" \
    "$root/bench/plot.gp"
echo "Plot: $out/relaunch-latency.png"
