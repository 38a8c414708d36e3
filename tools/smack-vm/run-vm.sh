#!/bin/bash
# Boots the Smack test VM once for one scenario of tools/smack-vm/vm-init.sh
# and leaves what came back in OUT_DIR:
#
#   run-vm.sh BUILD_DIR SCENARIO OUT_DIR [TIMEOUT_SECONDS]
#
#   OUT_DIR/initramfs.cpio.gz   the image (build-initramfs.sh)
#   OUT_DIR/console.log         the first serial port (kernel and /init output)
#   OUT_DIR/results.raw         the second serial port (the scenario's results)
#   OUT_DIR/kernel              the path of the bzImage used
#
# The kernel comes from build-kernel.sh (cache, or a build of 4-7 minutes).
# QEMU runs with TCG (nested KVM is not usable here), no network, no disk and
# -no-reboot, so the VM's `reboot -f` ends it. The guest's clock counts
# executed instructions (-icount shift=0: 1 ns each; idle time is skipped),
# so a busy host slows the VM down without shortening any time-out inside it:
# keldra's fixed waits (3 s for the checker's sockets, for one) hold whatever
# the load. no_timer_check: the kernel's early IO-APIC timer test is skipped.
# TIMEOUT_SECONDS (default 240) bounds the VM's run in real time; a VM still
# running then is killed (exit status 124).
#
# KELDRA_SMACK_VM_QEMU names another QEMU binary.
#
# Exit status: 0 the VM ran and stopped by itself; 77 QEMU is not available
# and cannot be installed (nothing was built or run); 124 the VM timed out;
# anything else a setup failure.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
[ $# -ge 3 ] || { echo "usage: $0 BUILD_DIR SCENARIO OUT_DIR [TIMEOUT_SECONDS]" >&2; exit 2; }
build=$1 scenario=$2 out=$3 limit=${4:-240}
qemu=${KELDRA_SMACK_VM_QEMU:-qemu-system-x86_64}

log() {
    echo "run-vm.sh: $*" >&2
}

# QEMU first: without it there is nothing to boot, and the kernel is not built.
if ! command -v "$qemu" >/dev/null; then
    packages=()
    mapfile -t packages < <(grep -v '^[[:space:]]*\(#\|$\)' "$here/apt-packages.txt")
    source "$root/tools/packages.sh"
    (install_missing_packages >&2) || log "the packages could not be installed"
    if ! command -v "$qemu" >/dev/null; then
        log "$qemu is not available and could not be installed: the Smack VM test is skipped"
        exit 77
    fi
fi

mkdir -p "$out"
rm -f "$out/console.log" "$out/results.raw" "$out/kernel"
kernel=$("$here/build-kernel.sh")
echo "$kernel" >"$out/kernel"
"$here/build-initramfs.sh" "$build" "$out/initramfs.cpio.gz"

log "booting scenario $scenario (at most $limit s)"
started=$(date +%s%N)
status=0
timeout --kill-after=5 "$limit" "$qemu" \
    -machine pc -accel tcg -icount shift=0,sleep=off -m 256M -smp 1 \
    -nodefaults -no-user-config -display none -no-reboot \
    -kernel "$kernel" -initrd "$out/initramfs.cpio.gz" \
    -append "console=ttyS0 panic=-1 no_timer_check keldra_vm.scenario=$scenario" \
    -serial "file:$out/console.log" -serial "file:$out/results.raw" || status=$?
log "scenario $scenario: QEMU ended with status $status after $((($(date +%s%N) - started) / 1000000)) ms"
exit $status
