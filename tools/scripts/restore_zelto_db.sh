#!/bin/sh
# Simulated database restore script. The supervisor's database recovery runs it
# with execl(), in a session of its own. Every run appends one line to
#   /tmp/simd/restore.runs
#     pid=<pid> ppid=<ppid> sid=<session> uid=<uid> time=<epoch s.ns> uptime=<s>
# Settings, from /tmp/simd/restore.conf (key=value lines, all optional):
#   running_marker=1  hold /run/restore_zelto_db_sh.running while it runs
#   sleep_ms=N        sleep N ms after recording the run (e.g. 2700)
#   kill_signal=N     then kill itself with signal N
#   exit_code=N       otherwise exit with N (default 0)
# Nothing is written to stdout or stderr.

runs=/tmp/simd/restore.runs
conf=/tmp/simd/restore.conf
marker=/run/restore_zelto_db_sh.running

exec >/dev/null 2>&1
umask 000

exit_code=0
kill_signal=
sleep_ms=0
running_marker=0

read_settings() {
    [ -r "$1" ] || return 0
    while IFS='=' read -r key value || [ -n "$key" ]; do
        case $key in
        exit_code) exit_code=$value ;;
        kill_signal) kill_signal=$value ;;
        sleep_ms) sleep_ms=$value ;;
        running_marker) running_marker=$value ;;
        esac
    done <"$1"
}

# Session id: the sixth field of /proc/<pid>/stat, counted after the command
# name, which is the only field in parentheses.
session_id() {
    stat=$(cat "/proc/$1/stat" 2>/dev/null) || { echo "?"; return; }
    set -- ${stat##*) }
    echo "$4"
}

sleep_for_ms() {
    [ "$1" -gt 0 ] 2>/dev/null || return 0
    sleep "$(($1 / 1000)).$(printf '%03d' $(($1 % 1000)))"
}

# system() runs a command through "sh -c <path>"; that shell forks for the
# script and would turn the script's death by a signal into exit code 128+N,
# so a self-kill takes such a wrapper down with the same signal first.
kill_self() {
    wrapper=$(tr '\0' ' ' <"/proc/$PPID/cmdline" 2>/dev/null)
    case $wrapper in "sh -c $0 " | "/bin/sh -c $0 ") kill -"$1" "$PPID" ;; esac
    kill -"$1" $$
}

read_settings "$conf"
[ "$running_marker" = 1 ] && : >"$marker"
read uptime _ </proc/uptime
printf 'pid=%s ppid=%s sid=%s uid=%s time=%s uptime=%s\n' \
    "$$" "$PPID" "$(session_id $$)" "$(id -u)" "$(date +%s.%N)" "$uptime" >>"$runs"
sleep_for_ms "$sleep_ms"
[ "$running_marker" = 1 ] && rm -f "$marker"
if [ -n "$kill_signal" ]; then
    kill_self "$kill_signal"
fi
exit "$exit_code"
