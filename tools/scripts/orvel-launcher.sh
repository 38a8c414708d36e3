#!/bin/sh
# Simulated init script of the application-policy launcher. The supervisor runs
# it once per boot through system(). Every run appends one line to
#   /tmp/simd/init-script.runs
#     pid=<pid> ppid=<ppid> sid=<session> uid=<uid> time=<epoch s.ns> uptime=<s>
# Settings, from /tmp/simd/init-script.conf (key=value lines, all optional):
#   sleep_ms=N     sleep N ms after recording the run
#   kill_signal=N  then kill itself with signal N (e.g. 9)
#   exit_code=N    otherwise exit with N (default 0)
# Nothing is written to stdout or stderr.

runs=/tmp/simd/init-script.runs
conf=/tmp/simd/init-script.conf

exec >/dev/null 2>&1
umask 000

exit_code=0
kill_signal=
sleep_ms=0

read_settings() {
    [ -r "$1" ] || return 0
    while IFS='=' read -r key value || [ -n "$key" ]; do
        case $key in
        exit_code) exit_code=$value ;;
        kill_signal) kill_signal=$value ;;
        sleep_ms) sleep_ms=$value ;;
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
read uptime _ </proc/uptime
printf 'pid=%s ppid=%s sid=%s uid=%s time=%s uptime=%s\n' \
    "$$" "$PPID" "$(session_id $$)" "$(id -u)" "$(date +%s.%N)" "$uptime" >>"$runs"
sleep_for_ms "$sleep_ms"
if [ -n "$kill_signal" ]; then
    kill_self "$kill_signal"
fi
exit "$exit_code"
