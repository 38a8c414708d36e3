// The agent: runs inside keldra-sandbox, starts one supervisor with the four
// simulated daemons and measures it on the driver's commands.
//
// Start: the agent prepares the sandbox for its kind, starts the supervisor
// (taking CLOCK_MONOTONIC in the child just before execv) and waits for the
// first start of each daemon (and, for keldra, for /run/keldra.ready). It then
// prints
//   ready daemons_ns=<exec to the last daemon's first instruction>
//         ready_ns=<exec to /run/keldra.ready, 0 for the peers>
// or, with --startup-only, the same line beginning with "startup" and exits.
//
// Commands, one per line on stdin:
//   relaunch K  K times for each daemon in turn (pellan only the first time,
//               see kill_in_pass): wait until the daemon has run for
//               min_uptime and the previous relaunch lies gap back, take
//               CLOCK_MONOTONIC, SIGKILL the daemon, wait for its successor's
//               start record; prints "sample daemon=<name> ns=<mono_ns of the
//               successor's main - time of the kill>" per kill, then
//               "relaunch-done"
//   idle S      waits settle, then measures the supervisor's processes (all
//               their threads) over S seconds and prints
//               "idle ticks=.. vcsw=.. ivcsw=.. run_ns=.. tasks=.. processes=..
//               healthy=0|1", "memory pss_kb=.. rss_kb=.. processes=.." (four
//               daemons up) and "idle-done"
//   trace K [PERF_DATA]
//               keldra only: the same kills (pellan at most five times), and
//               for each the steps of the relaunch from the stamps of keldra's
//               own log (CLOCK_MONOTONIC_RAW, set against CLOCK_MONOTONIC):
//               "trace daemon=<name> wake_ns=<kill to the launcher's first
//               line> react_ns=<to its last line before the fork (pellan:
//               before its runtime-directory step)> fork_ns=<to its first line
//               after the fork> child_ns=<to the successor's first
//               instruction> total_ns=..", then "trace-done perf=0|1"; with
//               PERF_DATA, another K kills of orvel, dunmar and tavish under
//               perf record --call-graph dwarf of keldra's threads
//   quit        exits; the end of the sandbox ends everything
// A failure prints "error <text>" and exits with status 1.
//
// The peers run every daemon through a run script "#!/bin/sh" + "exec PATH"
// in a service directory under /run/svc; with readiness notification (s6) the
// script first writes a line to descriptor 3 (notification-fd) and closes it.
// keldra runs with a trivial init script. The simulated daemons record their
// starts in /tmp/simd/<name>.starts with CLOCK_MONOTONIC at the top of main.
#include "bench.h"
#include "bench-util.h"
#include "proc-stats.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <string_view>

namespace bench {

namespace {

constexpr uint64_t ms = 1000000;
constexpr uint64_t min_uptime_ns = 1600 * ms; // both peers throttle under 1 s
constexpr uint64_t gap_ns = 400 * ms;         // after the previous relaunch
constexpr uint64_t settle_ns = 2000 * ms;     // before an idle window
constexpr uint64_t start_timeout_ns = 30000 * ms;
constexpr uint64_t relaunch_timeout_ns = 10000 * ms;

constexpr const char *work_dir = "/tmp/bench";
constexpr const char *simd_dir = "/tmp/simd";
constexpr const char *service_dir = "/run/svc";
constexpr const char *init_script = "/etc/rc.d/init.d/orvel-launcher.sh";

struct agent_state {
    std::string kind;
    pid_t root = -1;    // the supervisor's first process
    int simd_watch = -1; // inotify on /tmp/simd
};

struct start_info {
    pid_t pid = -1;
    uint64_t mono_ns = 0;
};

[[noreturn]] void fail(const std::string &text)
{
    printf("error %s\n", text.c_str());
    fflush(stdout);
    exit(1);
}

bool known_kind(const std::string &kind)
{
    for (const supervisor_kind &k : supervisor_kinds)
        if (kind == k.id)
            return true;
    return false;
}

void make_directory(const std::string &path, mode_t mode)
{
    if (mkdir(path.c_str(), mode) != 0 && errno != EEXIST)
        fail("mkdir " + path + ": " + strerror(errno));
    chmod(path.c_str(), mode);
}

// keldra's init script, run once at start-up through system(): nothing.
void prepare_keldra()
{
    if (!write_file(init_script, "#!/bin/sh\nexit 0\n", 0755))
        fail(std::string("cannot write ") + init_script);
}

std::string run_script(const daemon_entry &daemon, bool readiness)
{
    if (readiness)
        return format("#!/bin/sh\necho >&3\nexec %s 3>&-\n", daemon.path);
    return format("#!/bin/sh\nexec %s\n", daemon.path);
}

// One service directory per daemon; pellan's runtime directory, which keldra
// makes before every launch, is made once.
void prepare_services(bool readiness)
{
    make_directory("/run/pellan", 0755);
    make_directory(service_dir, 0755);
    for (const daemon_entry &daemon : daemons) {
        std::string dir = std::string(service_dir) + "/" + daemon.name;
        make_directory(dir, 0755);
        if (!write_file(dir + "/run", run_script(daemon, readiness), 0755))
            fail("cannot write " + dir + "/run");
        if (readiness && !write_file(dir + "/notification-fd", "3\n", 0644))
            fail("cannot write " + dir + "/notification-fd");
    }
}

void prepare_sandbox(const std::string &kind)
{
    make_directory(work_dir, 0755);
    make_directory(simd_dir, 0777);
    if (kind == "keldra")
        prepare_keldra();
    else if (kind != "floor")
        prepare_services(kind == "s6-ready");
}

std::vector<std::string> supervisor_argv(const std::string &kind)
{
    if (kind == "floor") {
        std::vector<std::string> argv = {build_path("bench/keldra-bench-floor")};
        for (const std::string &path : daemon_paths())
            argv.push_back(path);
        return argv;
    }
    if (kind == "keldra")
        return {build_path("keldra")};
    if (kind == "runit")
        return {"/usr/bin/runsvdir", service_dir};
    return {"/usr/bin/s6-svscan", service_dir};
}

// Forks and executes the supervisor with its output in /tmp/bench; the child
// stores CLOCK_MONOTONIC in a shared page just before execv.
pid_t start_supervisor(const std::vector<std::string> &argv, uint64_t *exec_ns)
{
    void *page = mmap(nullptr, sizeof(uint64_t), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED)
        fail("mmap");
    auto *stamp = static_cast<volatile uint64_t *>(page);
    std::vector<char *> args;
    for (const std::string &arg : argv)
        args.push_back(const_cast<char *>(arg.c_str()));
    args.push_back(nullptr);
    std::string log = std::string(work_dir) + "/supervisor.log";
    pid_t pid = fork();
    if (pid == 0) {
        int in = open("/dev/null", O_RDONLY);
        int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        dup2(in, 0);
        dup2(out, 1);
        dup2(out, 2);
        close_range(3, ~0u, 0);
        *stamp = monotonic_ns();
        execv(args[0], args.data());
        _exit(127);
    }
    if (pid < 0)
        fail("fork");
    // The child has written the stamp by the time a daemon starts; the
    // waits below read it once that has happened.
    *exec_ns = 0;
    while (*stamp == 0 && process_alive(pid))
        sleep_ns(100000);
    *exec_ns = *stamp;
    munmap(page, sizeof(uint64_t));
    return pid;
}

std::string starts_path(const char *name)
{
    return std::string(simd_dir) + "/" + name + ".starts";
}

// The complete lines of a daemon's start records.
std::vector<start_info> read_starts(const char *name)
{
    std::vector<start_info> starts;
    std::string text;
    if (!read_file(starts_path(name), &text))
        return starts;
    size_t end = text.rfind('\n');
    if (end == std::string::npos)
        return starts;
    for (const std::string &line : split_lines(text.substr(0, end + 1))) {
        std::map<std::string, std::string> fields = parse_fields(line);
        start_info info;
        long pid = -1;
        if (!parse_long(fields["pid"], &pid) || !parse_u64(fields["mono_ns"], &info.mono_ns))
            continue;
        info.pid = pid_t(pid);
        starts.push_back(info);
    }
    return starts;
}

int watch_directory(const char *path, uint32_t mask)
{
    int fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (fd < 0 || inotify_add_watch(fd, path, mask) < 0)
        fail(std::string("inotify on ") + path + ": " + strerror(errno));
    return fd;
}

void drain(int fd)
{
    char buffer[4096];
    while (read(fd, buffer, sizeof buffer) > 0) {
    }
}

// Blocks in poll until the descriptor is readable or the deadline passes.
bool wait_readable(int fd, uint64_t deadline)
{
    uint64_t now = monotonic_ns();
    if (now >= deadline)
        return false;
    pollfd p = {fd, POLLIN, 0};
    int timeout_ms = int((deadline - now + ms - 1) / ms);
    return poll(&p, 1, timeout_ms) > 0;
}

// Waits for the start record number `index` (from 0) of a daemon.
start_info wait_for_start(const agent_state &state, const char *name, size_t index,
                          uint64_t deadline)
{
    for (;;) {
        drain(state.simd_watch);
        std::vector<start_info> starts = read_starts(name);
        if (starts.size() > index)
            return starts[index];
        if (!wait_readable(state.simd_watch, deadline) && monotonic_ns() >= deadline)
            fail(format("no start %zu of %s in time", index + 1, name));
    }
}

// Time of the creation of /run/keldra.ready, seen through inotify on /run.
uint64_t wait_for_ready_file(int run_watch, uint64_t deadline)
{
    for (;;) {
        alignas(inotify_event) char buffer[4096];
        ssize_t n;
        while ((n = read(run_watch, buffer, sizeof buffer)) > 0) {
            uint64_t now = monotonic_ns();
            for (ssize_t offset = 0; offset < n;) {
                auto *event = reinterpret_cast<inotify_event *>(buffer + offset);
                if (event->len > 0 && strcmp(event->name, "keldra.ready") == 0)
                    return now;
                offset += ssize_t(sizeof(inotify_event) + event->len);
            }
        }
        if (!wait_readable(run_watch, deadline) && monotonic_ns() >= deadline)
            fail("no /run/keldra.ready in time");
    }
}

// Starts the supervisor and prints the start-up line.
void start_up(agent_state *state, const char *line_head)
{
    int run_watch = watch_directory("/run", IN_CREATE);
    uint64_t exec_ns = 0;
    state->root = start_supervisor(supervisor_argv(state->kind), &exec_ns);
    uint64_t deadline = monotonic_ns() + start_timeout_ns;
    uint64_t ready_ns = 0;
    if (state->kind == "keldra")
        ready_ns = wait_for_ready_file(run_watch, deadline) - exec_ns;
    close(run_watch);
    uint64_t last_start = 0;
    for (const daemon_entry &daemon : daemons) {
        start_info first = wait_for_start(*state, daemon.name, 0, deadline);
        last_start = std::max(last_start, first.mono_ns);
    }
    printf("%s daemons_ns=%llu ready_ns=%llu\n", line_head,
           (unsigned long long)(last_start - exec_ns), (unsigned long long)ready_ns);
    fflush(stdout);
}

struct relaunch_times {
    uint64_t kill_ns = 0;  // CLOCK_MONOTONIC just before the kill
    uint64_t start_ns = 0; // the successor's first instruction
};

// One kill of one daemon; returns when its successor has started.
relaunch_times relaunch_once(const agent_state &state, const daemon_entry &daemon,
                             uint64_t previous_restart)
{
    std::vector<start_info> starts = read_starts(daemon.name);
    if (starts.empty())
        fail(std::string("no start record of ") + daemon.name);
    start_info current = starts.back();
    if (!process_alive(current.pid))
        fail(format("%s (pid %d) is not running", daemon.name, int(current.pid)));
    sleep_until_ns(std::max(current.mono_ns + min_uptime_ns, previous_restart + gap_ns));
    drain(state.simd_watch);
    uint64_t kill_ns = monotonic_ns();
    if (kill(current.pid, SIGKILL) != 0)
        fail(format("kill %d: %s", int(current.pid), strerror(errno)));
    start_info next = wait_for_start(state, daemon.name, starts.size(),
                                     kill_ns + relaunch_timeout_ns);
    if (next.mono_ns < kill_ns)
        fail(format("%s started again before it was killed", daemon.name));
    return {kill_ns, next.mono_ns};
}

// pellan is killed once per relaunch command (trace: at most
// max_traced_pellan_kills times): keldra's pellan launcher spends one of its
// ten socket polls on every launch and never gets them back, and once they
// are spent, each new checker is killed by the permission step before it has
// made its sockets, over and over. Nine relaunches per keldra run is all it
// can take; the rounds use five.
bool kill_in_pass(const char *daemon, long pass, long pellan_passes)
{
    return strcmp(daemon, "pellan") != 0 || pass < pellan_passes;
}

constexpr long max_traced_pellan_kills = 5;

void run_relaunch(const agent_state &state, long kills)
{
    uint64_t previous_restart = monotonic_ns();
    for (long k = 0; k < kills; ++k) {
        for (const daemon_entry &daemon : daemons) {
            if (!kill_in_pass(daemon.name, k, 1))
                continue;
            relaunch_times times = relaunch_once(state, daemon, previous_restart);
            printf("sample daemon=%s ns=%llu\n", daemon.name,
                   (unsigned long long)(times.start_ns - times.kill_ns));
            fflush(stdout);
            previous_restart = times.start_ns;
        }
    }
    printf("relaunch-done\n");
    fflush(stdout);
}

// ---------------------------------------------------------------------------
// Trace of keldra's relaunch path, from the time stamps of its own log
// (CLOCK_MONOTONIC_RAW, "[<s>.<ns>]" at the start of every line).

// Lines of the launcher that mark the steps of a relaunch: the first line it
// writes once it has seen the death, the last line before its fork (for
// pellan, before its runtime-directory step), and the first line after the
// fork in the parent.
struct trace_markers {
    const char *daemon;
    const char *woken;
    const char *before_fork;
    const char *after_fork;
};

constexpr trace_markers launcher_markers[] = {
    {"pellan", "pellan process terminated - fail", "No process pellan found, start new one!",
     "launch pellan( "},
    {"orvel", "orvel signaled: ", "launching orvel...", "Wait for orvel started..."},
    {"dunmar", "dunmar process terminate - fail", "No process dunmar found, start new one!",
     "launch dunmar( "},
    {"tavish", "tavish process terminate - fail ", "No process tavish found, start new one!",
     "tavish launched successfully pid: "},
};

struct log_line {
    uint64_t raw_ns = 0;
    std::string text;
};

// Reads keldra's stderr as it grows. A message is a stamp "[<s>.<ns>]" and a
// record "[KELDRA][<level>][<file>:<line>] <text>", written separately, so
// the stamps and records of two threads may interleave; records take the
// stamps in the order they were written.
struct log_reader {
    size_t offset = 0;
    std::deque<uint64_t> stamps;
};

std::string supervisor_log_path()
{
    return std::string(work_dir) + "/supervisor.log";
}

// A stamp at `at`; the nanoseconds are not zero-padded. *end is past it.
bool parse_stamp_at(const std::string &text, size_t at, uint64_t *raw_ns, size_t *end)
{
    if (at >= text.size() || text[at] != '[')
        return false;
    size_t dot = text.find('.', at);
    size_t close = text.find(']', at);
    uint64_t seconds = 0, nanoseconds = 0;
    if (dot == std::string::npos || close == std::string::npos || dot > close ||
        !parse_u64(text.substr(at + 1, dot - at - 1), &seconds) ||
        !parse_u64(text.substr(dot + 1, close - dot - 1), &nanoseconds))
        return false;
    *raw_ns = seconds * 1000000000u + nanoseconds;
    *end = close + 1;
    return true;
}

constexpr std::string_view record_head = "[KELDRA][";

// Where the next stamp or record begins at or after `from` (or the end).
size_t next_token(const std::string &text, size_t from)
{
    for (size_t at = text.find('[', from); at != std::string::npos; at = text.find('[', at + 1)) {
        uint64_t stamp = 0;
        size_t end = 0;
        if (text.compare(at, record_head.size(), record_head) == 0 ||
            parse_stamp_at(text, at, &stamp, &end))
            return at;
    }
    return text.size();
}

// The messages written since the last call, up to the last complete line.
std::vector<log_line> read_new_log_lines(log_reader *reader)
{
    std::vector<log_line> lines;
    std::string all;
    if (!read_file(supervisor_log_path(), &all) || all.size() <= reader->offset)
        return lines;
    size_t last = all.rfind('\n');
    if (last == std::string::npos || last < reader->offset)
        return lines;
    std::string text = all.substr(reader->offset, last + 1 - reader->offset);
    reader->offset = last + 1;
    for (size_t at = next_token(text, 0); at < text.size();) {
        uint64_t stamp = 0;
        size_t end = 0;
        if (parse_stamp_at(text, at, &stamp, &end)) {
            reader->stamps.push_back(stamp);
            at = next_token(text, end);
            continue;
        }
        size_t next = next_token(text, at + 1);
        if (!reader->stamps.empty()) {
            lines.push_back({reader->stamps.front(), text.substr(at, next - at)});
            reader->stamps.pop_front();
        }
        at = next;
    }
    return lines;
}

// CLOCK_MONOTONIC minus CLOCK_MONOTONIC_RAW, read back to back.
int64_t monotonic_minus_raw()
{
    timespec raw = {};
    uint64_t before = monotonic_ns();
    clock_gettime(CLOCK_MONOTONIC_RAW, &raw);
    uint64_t after = monotonic_ns();
    uint64_t raw_ns = uint64_t(raw.tv_sec) * 1000000000u + uint64_t(raw.tv_nsec);
    return int64_t((before + after) / 2) - int64_t(raw_ns);
}

// Time of the first line at or after `from` that contains `marker`.
bool find_marker(const std::vector<log_line> &lines, const char *marker, uint64_t from,
                 uint64_t *at)
{
    for (const log_line &line : lines) {
        if (line.raw_ns >= from && line.text.find(marker) != std::string::npos) {
            *at = line.raw_ns;
            return true;
        }
    }
    return false;
}

// Reads the log until the launcher's line after the fork has been written.
std::vector<log_line> lines_of_relaunch(log_reader *reader, const trace_markers &markers,
                                        uint64_t kill_raw)
{
    std::vector<log_line> lines;
    uint64_t deadline = monotonic_ns() + 2000 * ms;
    for (;;) {
        std::vector<log_line> more = read_new_log_lines(reader);
        lines.insert(lines.end(), more.begin(), more.end());
        uint64_t at = 0;
        if (find_marker(lines, markers.after_fork, kill_raw, &at))
            return lines;
        if (monotonic_ns() >= deadline)
            fail(std::string("no launch line of ") + markers.daemon + " in keldra's log");
        sleep_ns(10 * ms);
    }
}

// Prints the steps of one relaunch; false when its three lines are not there
// in order.
bool print_trace(const trace_markers &markers, const std::vector<log_line> &lines,
                 const relaunch_times &times, int64_t offset_ns)
{
    uint64_t kill_raw = uint64_t(int64_t(times.kill_ns) - offset_ns);
    uint64_t start_raw = uint64_t(int64_t(times.start_ns) - offset_ns);
    uint64_t woken = 0, before = 0, after = 0;
    if (!find_marker(lines, markers.woken, kill_raw, &woken) ||
        !find_marker(lines, markers.before_fork, woken, &before) ||
        !find_marker(lines, markers.after_fork, before, &after))
        return false;
    printf("trace daemon=%s wake_ns=%lld react_ns=%lld fork_ns=%lld child_ns=%lld total_ns=%llu\n",
           markers.daemon, (long long)(woken - kill_raw), (long long)(before - woken),
           (long long)(after - before), (long long)(int64_t(start_raw) - int64_t(after)),
           (unsigned long long)(times.start_ns - times.kill_ns));
    fflush(stdout);
    return true;
}

// perf record of the supervisor's threads.
pid_t start_perf(const std::string &output, pid_t target)
{
    if (access("/usr/bin/perf", X_OK) != 0)
        return -1;
    pid_t pid = spawn_program({"/usr/bin/perf", "record", "-q", "-F", "20000", "--call-graph",
                               "dwarf,16384", "-p", std::to_string(target), "-o", output},
                              std::string(work_dir) + "/perf.log", std::string(work_dir) + "/perf.log");
    sleep_ns(1000 * ms);
    return pid;
}

void stop_perf(pid_t pid)
{
    if (pid <= 0)
        return;
    kill(pid, SIGINT);
    int status = 0;
    waitpid(pid, &status, 0);
}

const daemon_entry &daemon_named(const char *name)
{
    for (const daemon_entry &daemon : daemons)
        if (strcmp(daemon.name, name) == 0)
            return daemon;
    fail(std::string("no daemon ") + name);
}

// One kill of the daemon; prints its steps, false when its log lines could
// not be told apart.
bool trace_one_relaunch(const agent_state &state, const trace_markers &markers,
                        log_reader *reader, uint64_t *previous_restart)
{
    relaunch_times times = relaunch_once(state, daemon_named(markers.daemon), *previous_restart);
    *previous_restart = times.start_ns;
    // Read anew for every kill: the two clocks drift apart slowly.
    int64_t offset_ns = monotonic_minus_raw();
    uint64_t kill_raw = uint64_t(int64_t(times.kill_ns) - offset_ns);
    return print_trace(markers, lines_of_relaunch(reader, markers, kill_raw), times, offset_ns);
}

// The timed pass: the steps of every relaunch from keldra's log.
void trace_relaunches(const agent_state &state, long kills)
{
    constexpr int max_trace_skips = 5;
    int skipped = 0;
    log_reader reader;
    read_new_log_lines(&reader);
    uint64_t previous_restart = monotonic_ns();
    for (long k = 0; k < kills; ++k) {
        for (const trace_markers &markers : launcher_markers) {
            if (!kill_in_pass(markers.daemon, k, max_traced_pellan_kills))
                continue;
            while (!trace_one_relaunch(state, markers, &reader, &previous_restart)) {
                // A stamp and its line are two writes, so another thread's
                // message can come between them and pair the stamps wrongly.
                // pellan is not killed again: its launcher takes only so many
                // relaunches.
                if (strcmp(markers.daemon, "pellan") == 0 || ++skipped > max_trace_skips)
                    fail(std::string("incomplete relaunch of ") + markers.daemon +
                         " in keldra's log");
                fprintf(stderr, "keldra-bench agent: relaunch of %s not traced (its log lines "
                        "came out of order); killing it once more\n", markers.daemon);
            }
        }
    }
}

// The profiled pass, apart from the timed one since perf slows what it
// records: relaunches of orvel, dunmar and tavish (pellan has spent its
// relaunches) under perf record.
bool profile_relaunches(const agent_state &state, long kills, const std::string &perf_output)
{
    pid_t perf = start_perf(perf_output, state.root);
    if (perf <= 0)
        return false;
    uint64_t previous_restart = monotonic_ns();
    for (long k = 0; k < kills; ++k)
        for (const daemon_entry &daemon : daemons)
            if (strcmp(daemon.name, "pellan") != 0)
                previous_restart = relaunch_once(state, daemon, previous_restart).start_ns;
    stop_perf(perf);
    return true;
}

void run_trace(const agent_state &state, long kills, const std::string &perf_output)
{
    if (state.kind != "keldra")
        fail("trace is for keldra only");
    trace_relaunches(state, kills);
    bool profiled = !perf_output.empty() && profile_relaunches(state, kills, perf_output);
    printf("trace-done perf=%d\n", profiled ? 1 : 0);
    fflush(stdout);
}

// The pid of each daemon's last start, or -1 when that process is gone.
std::vector<pid_t> running_daemons()
{
    std::vector<pid_t> pids;
    for (const daemon_entry &daemon : daemons) {
        std::vector<start_info> starts = read_starts(daemon.name);
        pids.push_back(!starts.empty() && process_alive(starts.back().pid) ? starts.back().pid : -1);
    }
    return pids;
}

void run_idle(const agent_state &state, long seconds)
{
    sleep_ns(settle_ns);
    std::vector<pid_t> before_daemons = running_daemons();
    std::vector<pid_t> members = supervisor_processes(state.root, daemon_paths());
    usage_snapshot before = take_usage_snapshot(members);
    sleep_ns(uint64_t(seconds) * 1000 * ms);
    usage_snapshot after = take_usage_snapshot(members);
    std::vector<pid_t> after_daemons = running_daemons();
    bool healthy = before_daemons == after_daemons;
    for (pid_t pid : after_daemons)
        healthy = healthy && pid > 0;
    usage_delta delta = usage_between(before, after);
    memory_usage memory = read_memory(supervisor_processes(state.root, daemon_paths()));
    printf("idle ticks=%llu vcsw=%llu ivcsw=%llu run_ns=%llu tasks=%d processes=%zu healthy=%d\n",
           (unsigned long long)delta.ticks, (unsigned long long)delta.voluntary_switches,
           (unsigned long long)delta.involuntary_switches, (unsigned long long)delta.run_ns,
           delta.tasks, members.size(), healthy ? 1 : 0);
    printf("memory pss_kb=%llu rss_kb=%llu processes=%d\n", (unsigned long long)memory.pss_kb,
           (unsigned long long)memory.rss_kb, memory.processes);
    printf("idle-done\n");
    fflush(stdout);
}

void serve_commands(const agent_state &state)
{
    char line[256];
    while (fgets(line, sizeof line, stdin)) {
        std::vector<std::string> words = split(trim(line), ' ');
        long count = 0;
        if (words.size() == 2 && words[0] == "relaunch" && parse_long(words[1], &count))
            run_relaunch(state, count);
        else if (words.size() == 2 && words[0] == "idle" && parse_long(words[1], &count))
            run_idle(state, count);
        else if ((words.size() == 2 || words.size() == 3) && words[0] == "trace" &&
                 parse_long(words[1], &count))
            run_trace(state, count, words.size() == 3 ? words[2] : "");
        else if (words.size() == 1 && words[0] == "quit")
            return;
        else
            fail("unknown command: " + trim(line));
    }
}

} // namespace

int run_agent(const std::vector<std::string> &args)
{
    require_sandbox("keldra-bench agent");
    if (args.empty() || !known_kind(args[0]) ||
        (args.size() == 2 && args[1] != "--startup-only") || args.size() > 2) {
        fprintf(stderr, "usage: keldra-bench agent KIND [--startup-only]\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    agent_state state;
    state.kind = args[0];
    prepare_sandbox(state.kind);
    state.simd_watch = watch_directory(simd_dir, IN_MODIFY | IN_CREATE);
    bool startup_only = args.size() == 2;
    start_up(&state, startup_only ? "startup" : "ready");
    if (!startup_only)
        serve_commands(state);
    return 0;
}

} // namespace bench
