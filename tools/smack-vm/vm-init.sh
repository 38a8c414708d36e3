#!/bin/sh
# /init of the Smack test VM (busybox sh, PID 1). It prepares the system the
# way the device's early boot would (proc, sysfs, devtmpfs, smackfs, tmpfs on
# /run and /tmp, one Smack rule), runs keldra in the scenario named on the
# kernel command line (keldra_vm.scenario=...), writes what it observed to the
# second serial port and powers the VM off. It only observes: every check is
# made on the host by tools/smack-vm/smack_vm_test.cc.
#
# Scenarios:
#   healthy          keldra with CAP_MAC_ADMIN; all four daemons run; then
#                    SIGTERM; then a deliberate denial (the probe) that shows
#                    that the kernel's denial messages reach dmesg
#   no-mac-admin     keldra without CAP_MAC_ADMIN: every label write refused
#   privileged-only  keldra without CAP_MAC_ADMIN but allowed to take the one
#                    label "System::Privileged" (smackfs relabel-self)
#
# keldra always starts with the process label "Supervisor", so that "the
# process's own label" differs from the floor label "_" of everything else.
#
# Results on /dev/ttyS1 (raw), one section per file:
#   KELDRA-VM-FILE <name> <size>\n<size bytes>\nKELDRA-VM-END <name>\n
# and finally "KELDRA-VM-DONE\n". The file "facts" holds one line per
# observation: "<kind> key=value ...".

export PATH=/usr/sbin:/usr/bin:/sbin:/bin
# busybox finds itself through /proc/self/exe to install its applets' links.
/bin/busybox mount -t proc proc /proc
/bin/busybox --install -s
# keldra removes the checker's runtime directory with this very path.
ln -s /bin/busybox /usr/bin/rm

results=/tmp/results
facts=$results/facts
stderr_file=$results/keldra.stderr
helper=/usr/bin/keldra-vm-helper
keldra=

mount_filesystems() {
    mount -t sysfs sysfs /sys
    mount -t devtmpfs devtmpfs /dev
    mount -t securityfs securityfs /sys/kernel/security
    mount -t smackfs smackfs /sys/fs/smackfs
    mount -t tmpfs -o mode=0755 tmpfs /run
    mount -t tmpfs -o mode=1777 tmpfs /tmp
}

fact() {
    echo "$*" >>"$facts"
}

uptime_ms() {
    read -r up _ </proc/uptime
    echo $((${up%.*} * 1000 + 1${up#*.}0 - 1000))
}

# wait_for NAME SECONDS COMMAND...: polls COMMAND until it succeeds, at most
# SECONDS; records "waited" or "timeout".
wait_for() {
    name=$1 limit=$(($2 * 1000)) start=$(uptime_ms)
    shift 2
    until "$@"; do
        if [ $(($(uptime_ms) - start)) -ge "$limit" ]; then
            fact "timeout what=$name"
            return 1
        fi
        sleep 0.1
    done
    fact "waited what=$name ms=$(($(uptime_ms) - start))"
}

# stays_for NAME SECONDS COMMAND...: checks for SECONDS that COMMAND keeps
# succeeding (every 0.5 s, and once more at the end); records "held" or
# "broken" with the time it broke.
stays_for() {
    name=$1 limit=$(($2 * 1000)) start=$(uptime_ms)
    shift 2
    while :; do
        elapsed=$(($(uptime_ms) - start))
        if ! "$@"; then
            fact "broken what=$name ms=$elapsed"
            return 1
        fi
        [ "$elapsed" -lt "$limit" ] || break
        sleep 0.5
    done
    fact "held what=$name ms=$(($(uptime_ms) - start))"
}

has_message() {
    grep -q -- "$1" "$stderr_file"
}

alive() {
    [ -r "/proc/$1/status" ] && ! grep -q '^State:[[:space:]]*Z' "/proc/$1/status"
}

not_alive() {
    ! alive "$1"
}

running() {
    [ -n "$($helper pids "$1")" ]
}

all_daemons_running() {
    running /usr/bin/pellan && running /usr/bin/orvel &&
        running /usr/apps/privileged-service/bin/dunmar && running /usr/bin/tavish
}

# The launcher threads are blocked where they wait for their daemons: N of
# them in wait4 (61), the application-policy one in epoll_wait (232, or
# epoll_pwait 281).
launchers_settled() {
    snapshot=$($helper snapshot "$keldra")
    [ "$(echo "$snapshot" | grep -c '^task .* syscall=61 ')" -eq "$1" ] &&
        echo "$snapshot" | grep -Eq '^task .* syscall=(232|281) '
}

start_blocked() {
    alive "$keldra" && [ ! -e /run/keldra.ready ] &&
        ! $helper snapshot "$keldra" | grep -q '^daemon ' &&
        ! has_message 'keldra launched successfully'
}

prepare_system() {
    mkdir -p /tmp/simd /tmp/sandbox "$results"
    chmod 0777 /tmp/simd /tmp/sandbox
    : >"$facts"
    fact "scenario name=$scenario"
    fact "lsm list=$(cat /sys/kernel/security/lsm)"
    fact "init label=$(cat /proc/self/attr/current)"
    # The device's policy lets the checker's label write where "_" objects
    # live (uid 401 has no CAP_MAC_OVERRIDE).
    printf 'System _ rwx' >/sys/fs/smackfs/load2
    fact "rule status=$?"
    cat /sys/fs/smackfs/load2 >"$results/load2"
    # A recovered checker database: keldra marks the packages for reinstall.
    mkdir -p /var/pellan /opt/dbspace /opt/var/log /opt/var/pellan
    : >/var/pellan/db-recovered
}

start_keldra() {
    VESK_LOG_FILE=$results/platform.log $helper run --label Supervisor "$@" -- /usr/sbin/keldra \
        </dev/null >"$results/keldra.stdout" 2>"$stderr_file" &
    keldra=$!
    fact "keldra pid=$keldra"
}

record_files() {
    $helper label /opt/dbspace/pkgreinstall /run/orvel.ready /run/pellan.ready /run/pellan \
        /run/tavish.ready /run/keldra.ready /run/dunmar.pid >"$results/files"
}

# SIGTERM, then the exit status when keldra leaves within the bound.
stop_keldra() {
    kill -TERM "$keldra"
    if wait_for keldra-exit "$1" not_alive "$keldra"; then
        wait "$keldra"
        fact "keldra-exit status=$?"
    else
        $helper snapshot "$keldra" >"$results/snapshot-after-term"
        kill -KILL "$keldra"
        wait "$keldra"
        fact "keldra-killed status=$?"
    fi
}

scenario_healthy() {
    start_keldra
    wait_for keldra-ready 60 test -e /run/keldra.ready
    wait_for daemons 60 all_daemons_running
    wait_for pellan-launched 60 has_message 'pellan launched successfully'
    wait_for restore-done 90 has_message 'finished pkgreinstall sync time'
    wait_for settled 30 launchers_settled 3
    $helper snapshot "$keldra" >"$results/snapshot"
    record_files
    stop_keldra 30
    # The control: a process without any rule or override is refused, and
    # the kernel says so in its log.
    $helper probe-denial /tmp >>"$facts"
    wait_for probe-logged 20 sh -c 'dmesg | grep -q "subject=\"Probe\""'
}

scenario_no_mac_admin() {
    start_keldra --drop-mac-admin
    wait_for pellan-refused 60 has_message "Can't set label System"
    wait_for orvel-thread-ended 60 has_message 'Thread 1 is cancelled'
    stays_for start-blocked 5 start_blocked
    $helper snapshot "$keldra" >"$results/snapshot"
    record_files
    kill -TERM "$keldra"
    wait_for term-logged 30 has_message 'Request to exit launcher'
    stays_for alive-after-term 5 alive "$keldra"
    $helper snapshot "$keldra" >"$results/snapshot-after-term"
    kill -KILL "$keldra"
    wait "$keldra"
    fact "keldra-killed status=$?"
}

scenario_privileged_only() {
    start_keldra --relabel-self System::Privileged --drop-mac-admin
    wait_for keldra-ready 60 test -e /run/keldra.ready
    wait_for dunmar-refused 60 has_message "Can't set label$"
    wait_for orvel-running 60 running /usr/bin/orvel
    wait_for tavish-running 60 running /usr/bin/tavish
    wait_for marker-refused 60 has_message 'failed to setxattr /opt/dbspace/pkgreinstall'
    wait_for settled 30 launchers_settled 1
    $helper snapshot "$keldra" >"$results/snapshot"
    record_files
    stop_keldra 30
}

send_file() {
    [ -f "$2" ] || return 0
    printf 'KELDRA-VM-FILE %s %s\n' "$1" "$(wc -c <"$2")" >&3
    cat "$2" >&3
    printf '\nKELDRA-VM-END %s\n' "$1" >&3
}

send_results() {
    dmesg >"$results/dmesg"
    stty -F /dev/ttyS1 raw -echo
    exec 3>/dev/ttyS1
    for file in "$results"/*; do
        send_file "${file##*/}" "$file"
    done
    for file in /tmp/simd/*; do
        send_file "simd.${file##*/}" "$file"
    done
    printf 'KELDRA-VM-DONE\n' >&3
    # Closing the port waits until the UART has sent everything.
    exec 3>&-
}

mount_filesystems
scenario=
for word in $(cat /proc/cmdline); do
    case $word in keldra_vm.scenario=*) scenario=${word#*=} ;; esac
done
prepare_system
case $scenario in
healthy) scenario_healthy ;;
no-mac-admin) scenario_no_mac_admin ;;
privileged-only) scenario_privileged_only ;;
*) fact "error unknown-scenario=$scenario" ;;
esac
send_results
reboot -f
