#!/bin/bash
# The systemd unit as `cmake --install` puts it (DESTDIR staging, never the
# host's own directories): systemd-analyze verify finds nothing to say about it,
# with its ExecStart and its manual page resolved inside the staging root, and
# it has the settings a supervisor that leaves its daemons running needs.
. "$(dirname "$0")/lib.sh"

need_tool systemd-analyze systemd
need_tool cmake cmake
[ -x "$build_dir/keldra" ] || abort "$build_dir/keldra is not built; build the tree before running the tests"
make_work_dir

# install_tree <prefix> <root>: installs the component keldra under <root>.
install_tree() {
    DESTDIR=$2 cmake --install "$build_dir" --prefix "$1" --component keldra \
        >"$work/install.log" 2>&1 || abort "cmake --install --prefix $1 failed" "$work/install.log"
}

root=$work/root
install_tree /usr "$root"
unit=$(find "$root/usr/lib/systemd/system" "$root/lib/systemd/system" -name keldra.service 2>/dev/null | head -n 1)
[ -n "$unit" ] || abort "the unit is installed neither under /usr/lib/systemd/system nor under /lib/systemd/system"
mode=$(stat -c %a "$unit")
[ "$mode" = 644 ] || fail "the unit has mode $mode, expected 644"

man_opt=()
if ! command -v man >/dev/null 2>&1; then
    [ -n "${CI:-}" ] && fail "man not found (apt package man-db); CI is set"
    note "man not found (apt package man-db): Documentation= is not checked"
    man_opt=(--man=no)
fi
# verify_unit <root> <unit file>: prints what systemd-analyze verify reports;
# it checks the unit's syntax and values, the ExecStart program and the
# Documentation= manual page, all looked up inside <root>.
verify_unit() {
    MANPATH=$1/usr/share/man systemd-analyze "${man_opt[@]}" --root="$1" verify "$2" 2>&1
    echo "exit status $?"
}

note "systemd-analyze verify"
report=$(verify_unit "$root" keldra.service)
[ "$report" = "exit status 0" ] || fail "systemd-analyze verify reports: $report"

# The verifier must be able to fail here: a misspelt value and a missing
# program are reported.
unit_dir=$(dirname "$unit")
sed 's/^KillMode=.*/KillMode=proces/' "$unit" >"$unit_dir/keldra-typo.service"
report=$(verify_unit "$root" keldra-typo.service)
grep -q 'kill mode' <<<"$report" || fail "systemd-analyze verify did not notice a misspelt KillMode: $report"
sed 's|^ExecStart=.*|ExecStart=/usr/sbin/keldra-missing|' "$unit" >"$unit_dir/keldra-noexec.service"
report=$(verify_unit "$root" keldra-noexec.service)
grep -q 'keldra-missing' <<<"$report" || fail "systemd-analyze verify did not notice a missing program: $report"

# has <regex> <what>: one line of the unit matches.
has() {
    grep -Eq "$1" "$unit" || fail "the unit lacks $2 (no line matching $1)"
}
has '^ExecStart=/usr/sbin/keldra$' "ExecStart=/usr/sbin/keldra"
has '^KillMode=process$' "KillMode=process (keldra alone is signalled)"
has '^Restart=(on-failure|always)$' "Restart=on-failure"
has '^RestartSec=[1-5](s)?$' "a small RestartSec"
has '^StandardError=journal$' "StandardError=journal"
has '^DefaultDependencies=no$' "DefaultDependencies=no"
has '^After=.*local-fs\.target' "After=local-fs.target"
has '^Before=.*shutdown\.target' "Before=shutdown.target"
has '^Conflicts=.*shutdown\.target' "Conflicts=shutdown.target"
has '^Documentation=man:keldra\(8\)$' "Documentation=man:keldra(8)"
has '^WantedBy=' "an [Install] WantedBy="
if grep -Eq '^Type=(notify|forking|dbus)' "$unit"; then
    fail "keldra neither notifies nor forks: $(grep '^Type=' "$unit")"
fi

# The ExecStart follows the prefix chosen at install time.
install_tree /opt/keldra-prefix "$work/root2"
unit2=$(find "$work/root2" -name keldra.service | head -n 1)
if [ -n "$unit2" ]; then
    grep -qx 'ExecStart=/opt/keldra-prefix/sbin/keldra' "$unit2" ||
        fail "with --prefix /opt/keldra-prefix the unit says: $(grep '^ExecStart' "$unit2")"
else
    fail "with --prefix /opt/keldra-prefix no unit was installed"
fi

finish
