#!/bin/bash
# Builds the initramfs of the Smack test VM from a keldra build directory:
# the static busybox (shell and tools), keldra at /usr/sbin/keldra, the
# simulated daemon at the four daemon paths, the two simulated scripts, the
# VM helper, the shared libraries all of these load (at the paths where the
# dynamic loader will look for them) and tools/smack-vm/vm-init.sh as /init.
#
#   build-initramfs.sh BUILD_DIR OUTPUT
#
# OUTPUT is a gzip-compressed newc cpio archive. The libraries are found by
# reading the ELF headers (PT_INTERP, DT_NEEDED, DT_RUNPATH/DT_RPATH): no
# program of the build is run on the host.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
[ $# -eq 2 ] || { echo "usage: $0 BUILD_DIR OUTPUT" >&2; exit 2; }
build=$(cd "$1" && pwd)
output=$2
busybox=/bin/busybox
system_lib_dirs=(/lib/x86_64-linux-gnu /usr/lib/x86_64-linux-gnu /lib64 /usr/lib64 /lib /usr/lib)

fail() {
    echo "build-initramfs.sh: $*" >&2
    exit 1
}

for file in "$build/keldra" "$build/tools/keldra-simd" "$build/tools/keldra-vm-helper" \
    "$build/tools/scripts/orvel-launcher.sh" "$build/tools/scripts/restore_zelto_db.sh"; do
    [ -f "$file" ] || fail "$file is missing: build $build first"
done
[ -x "$busybox" ] && ! readelf -l "$busybox" | grep -q 'program interpreter' ||
    fail "$busybox is not a static busybox (install busybox-static)"

stage=$(mktemp -d "$(dirname "$output")/initramfs-stage.XXXXXX")
trap 'rm -rf "$stage"' EXIT

install_file() { # install_file MODE SOURCE TARGET (TARGET absolute in the VM)
    mkdir -p "$stage$(dirname "$3")"
    install -m "$1" "$2" "$stage$3"
}

# An ELF file without its debugging sections: a smaller image boots faster.
install_program() { # install_program SOURCE TARGET
    install_file 0755 "$1" "$2"
    strip --strip-debug "$stage$2"
}

elf_needed() {
    readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]$/\1/p'
}

elf_search_dirs() {
    local origin
    origin=$(dirname "$(readlink -f "$1")")
    readelf -d "$1" | sed -n 's/.*(\(RUNPATH\|RPATH\)).*\[\(.*\)\]$/\2/p' | tr ':' '\n' |
        sed "s|\$ORIGIN|$origin|g; s|\${ORIGIN}|$origin|g"
}

elf_interpreter() {
    readelf -l "$1" | sed -n 's/.*Requesting program interpreter: \(.*\)\]$/\1/p'
}

declare -A copied=()
search_dirs=()

# Copies an ELF object's interpreter and libraries, recursively, to the same
# paths in the image (the image's /lib and /lib64 lead to usr/, as here).
copy_libraries() {
    local object=$1 interpreter name dir found
    interpreter=$(elf_interpreter "$object")
    [ -z "$interpreter" ] || copy_library "$interpreter"
    mapfile -t -O "${#search_dirs[@]}" search_dirs < <(elf_search_dirs "$object")
    for name in $(elf_needed "$object"); do
        found=
        for dir in "${search_dirs[@]}" "${system_lib_dirs[@]}"; do
            if [ -f "$dir/$name" ]; then
                found=$dir/$name
                break
            fi
        done
        [ -n "$found" ] || fail "cannot find $name, needed by $object"
        copy_library "$found"
    done
}

copy_library() {
    local path=$1
    [ -z "${copied[$path]:-}" ] || return 0
    copied[$path]=1
    install_program "$(readlink -f "$path")" "$path"
    copy_libraries "$path"
}

mkdir -p "$stage"/{bin,sbin,dev,proc,sys,run,tmp,etc,usr/lib,usr/lib64,usr/bin,usr/sbin}
ln -s usr/lib "$stage/lib"
ln -s usr/lib64 "$stage/lib64"
install_file 0755 "$busybox" /bin/busybox
ln -s busybox "$stage/bin/sh"
install_file 0755 "$here/vm-init.sh" /init

install_program "$build/keldra" /usr/sbin/keldra
for path in /usr/bin/pellan /usr/bin/orvel /usr/apps/privileged-service/bin/dunmar /usr/bin/tavish; do
    install_program "$build/tools/keldra-simd" "$path"
done
install_program "$build/tools/keldra-vm-helper" /usr/bin/keldra-vm-helper
install_file 0755 "$build/tools/scripts/orvel-launcher.sh" /etc/rc.d/init.d/orvel-launcher.sh
install_file 0755 "$build/tools/scripts/restore_zelto_db.sh" /usr/bin/restore_zelto_db.sh
for program in "$build/keldra" "$build/tools/keldra-simd" "$build/tools/keldra-vm-helper"; do
    copy_libraries "$program"
done
mkdir -p "$stage"/{opt/dbspace,opt/var/log,opt/var/pellan,var/pellan,usr/share/orvel/policy}

(cd "$stage" && find . -mindepth 1 | LC_ALL=C sort | cpio -o -H newc -R 0:0 --quiet) |
    gzip -6 >"$output.tmp"
mv "$output.tmp" "$output"
