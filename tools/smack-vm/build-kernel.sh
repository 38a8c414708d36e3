#!/bin/bash
# Builds the small x86-64 kernel with Smack that the Smack test VM boots, or
# finds it in the cache, and prints the path of its bzImage on stdout.
#
#   build-kernel.sh              build if needed, print the bzImage path
#   build-kernel.sh --packages   only install the missing packages
#
# Source: Debian's linux-source-6.1 (/usr/src/linux-source-6.1.tar.xz),
# configured with `make tinyconfig` plus smack.config (merged with
# scripts/kconfig/merge_config.sh, then `make olddefconfig`); the build stops
# if an option of smack.config did not land in the final .config.
#
# Cache: $KELDRA_SMACK_KERNEL_CACHE (default /var/cache/keldra-smack-kernel)
# /<key>/{bzImage,config,build-info}, where <key> hashes smack.config, the
# version of the linux-source-6.1 package and the compiler's version. Builds
# are serialised with a lock in the cache directory, so concurrent callers
# wait for one build and then share it. The build itself runs in a scratch
# directory under ${TMPDIR:-/tmp} that is removed afterwards. Nothing outside
# the cache and the scratch directory is written; the host's /boot, modules and
# boot loader are never touched.
#
# Environment: KELDRA_SMACK_KERNEL_JOBS (make -j, default 2).
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
cache_root=${KELDRA_SMACK_KERNEL_CACHE:-/var/cache/keldra-smack-kernel}
fragment=$here/smack.config
source_package=linux-source-6.1
source_tarball=/usr/src/linux-source-6.1.tar.xz
jobs=${KELDRA_SMACK_KERNEL_JOBS:-2}

log() {
    echo "build-kernel.sh: $*" >&2
}

install_packages() {
    local packages=()
    mapfile -t packages < <(grep -v '^[[:space:]]*\(#\|$\)' "$here/apt-packages.txt")
    source "$root/tools/packages.sh"
    install_missing_packages >&2
}

cache_key() {
    local source_version compiler
    source_version=$(dpkg-query -W -f='${Version}' "$source_package")
    compiler=$(gcc --version | head -n 1)
    {
        sha256sum <"$fragment"
        echo "$source_package $source_version"
        echo "$compiler"
    } | sha256sum | cut -c 1-16
}

# Every option of the fragment must appear as written in the final .config
# (tinyconfig drops options whose dependencies are missing without a word).
check_config() {
    local option missing=0
    while read -r option; do
        if ! grep -qxF -- "$option" .config; then
            log "option not in the final .config: $option"
            missing=1
        fi
    done < <(grep -v '^[[:space:]]*\(#\|$\)' "$fragment")
    return $missing
}

build_kernel() { # build_kernel TARGET_DIR
    local target=$1 scratch started
    started=$(date +%s)
    scratch=$(mktemp -d "${TMPDIR:-/tmp}/keldra-smack-kernel.XXXXXX")
    trap "rm -rf '$scratch'" EXIT
    log "building the Smack kernel in $scratch (log: $scratch/build.log)"
    tar -xf "$source_tarball" -C "$scratch"
    cd "$scratch/linux-source-6.1"
    {
        make ARCH=x86_64 tinyconfig
        scripts/kconfig/merge_config.sh -m .config "$fragment"
        make ARCH=x86_64 olddefconfig
    } >"$scratch/build.log" 2>&1 || { tail -n 30 "$scratch/build.log" >&2; return 1; }
    check_config || return 1
    make ARCH=x86_64 -j"$jobs" bzImage >>"$scratch/build.log" 2>&1 ||
        { tail -n 30 "$scratch/build.log" >&2; return 1; }
    mkdir -p "$target.partial"
    cp arch/x86/boot/bzImage "$target.partial/bzImage"
    cp .config "$target.partial/config"
    {
        echo "source: $source_package $(dpkg-query -W -f='${Version}' "$source_package")"
        echo "compiler: $(gcc --version | head -n 1)"
        echo "fragment-sha256: $(sha256sum <"$fragment" | cut -d ' ' -f 1)"
        echo "build-seconds: $(($(date +%s) - started))"
        echo "built: $(date -u +%Y-%m-%dT%H:%M:%SZ)"
    } >"$target.partial/build-info"
    mv "$target.partial" "$target"
    log "built in $(($(date +%s) - started)) s: $target/bzImage"
}

install_packages
[ "${1:-}" = --packages ] && exit 0
[ -r "$source_tarball" ] || { log "$source_tarball is missing (package $source_package)"; exit 1; }

dir=$cache_root/$(cache_key)
if [ ! -f "$dir/bzImage" ]; then
    mkdir -p "$cache_root"
    exec 9>"$cache_root/.lock"
    flock 9
    if [ ! -f "$dir/bzImage" ]; then
        rm -rf "$dir.partial"
        (build_kernel "$dir")
    fi
    flock -u 9
fi
echo "$dir/bzImage"
