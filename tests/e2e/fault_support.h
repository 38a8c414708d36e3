// Support of the fault-injection scenarios (faults_test.cc, fault_*_test.cc,
// fd_hygiene_test.cc, supervisor_kill_test.cc): waits for a healthy start,
// the lines of one launcher, consecutive-line checks, a cgroup that stops the
// supervisor from creating processes, and a PID namespace in which the test
// itself is PID 1.
//
// The cgroup is a host object: the sandbox does not hide /sys/fs/cgroup.
// fork_block therefore always removes it, on failure as well, after moving
// every process in it back to the cgroup it came from.
#pragma once

#include "harness.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace faults {

using namespace std::chrono_literals;
using e2e::format_text;
using e2e::log_record;

inline constexpr const char *core_file = "keldra.cc";
inline constexpr const char *pellan_file = "pellan-launcher.cc";
inline constexpr const char *orvel_file = "orvel-launcher.cc";
inline constexpr const char *dunmar_file = "launcher-dunmar.cc";
inline constexpr const char *tavish_file = "tavish-launcher.cc";

inline uint64_t monotonic_ns()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return uint64_t(now.tv_sec) * 1000000000u + uint64_t(now.tv_nsec);
}

inline std::string launched_text(pid_t keldra)
{
    return format_text("keldra launched successfully (pid:%d)\n", keldra);
}

inline bool start_supervisor(e2e::scenario &keldra, e2e::where loc = e2e::where::current())
{
    if (!keldra.start(loc))
        return false;
    return keldra.wait_for_message('I', launched_text(keldra.pid()), e2e::default_timeout, 1,
                                   loc) >= 0;
}

// Waits until the supervisor is ready and each daemon has been launched once
// and announced by its launcher; returns the daemons' pids by name (empty
// after a failure).
inline std::map<std::string, pid_t> wait_for_healthy_start(e2e::scenario &keldra)
{
    std::map<std::string, pid_t> pids;
    for (const std::string &name : e2e::daemon_names) {
        auto starts = e2e::wait_for_starts(name, 1);
        if (starts.empty())
            return {};
        pids[name] = starts[0].pid;
    }
    const std::vector<e2e::expected_message> announced = {
        {'I', launched_text(keldra.pid())},
        {'I', format_text("pellan launched successfully (pid: %d)\n", pids["pellan"])},
        {'E', format_text("[P %5ld] orvel(pid : %d) is launched successfully...\n",
                          long(keldra.pid()), pids["orvel"])},
        {'E', format_text("dunmar launched successfully (pid: %d)\n", pids["dunmar"])},
        {'I', format_text("tavish launched successfully pid: %d\n", pids["tavish"])},
    };
    for (const e2e::expected_message &message : announced)
        if (keldra.wait_for_message(message.level, message.text) < 0)
            return {};
    for (const char *path : {"/run/keldra.ready", "/run/pellan.ready", "/run/orvel.ready",
                             "/run/tavish.ready", "/run/dunmar.pid"})
        if (!e2e::wait_for_file(path))
            return {};
    return pids;
}

// A line of the process wait of the toolkit (wait_for_pid), which the
// launchers call and whose lines carry the core's file name.
inline bool is_wait_for_pid_line(const log_record &record)
{
    static const char *const prefixes[] = {
        "Invalid pid",           "Can't inotify_init:",    "Error inotify_add_watch:",
        "Error open directory:", "Wait for inotify_event", "inotify_event received",
        "failed read event:",    "Finished wait for pid:",
    };
    if (record.file != core_file)
        return false;
    return std::any_of(std::begin(prefixes), std::end(prefixes),
                       [&](const char *prefix) { return record.text.starts_with(prefix); });
}

// The lines of one launcher's source file and those of the process wait.
inline std::vector<log_record> launcher_lines(const std::vector<log_record> &records,
                                              std::string_view file)
{
    std::vector<log_record> lines;
    for (const log_record &record : records)
        if (record.file == file || is_wait_for_pid_line(record))
            lines.push_back(record);
    return lines;
}

// The lines of one source file only.
inline std::vector<log_record> file_lines(const std::vector<log_record> &records,
                                          std::string_view file)
{
    return e2e::records_from_file(records, file);
}

// Polls the condition until it holds or the time is up, without reporting.
inline bool poll_until(const std::function<bool()> &condition, e2e::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(e2e::poll_interval);
    }
    return true;
}

inline std::string describe_lines(const std::vector<log_record> &lines, size_t from,
                                  size_t count)
{
    std::string text;
    for (size_t i = from; i < std::min(lines.size(), from + count); ++i)
        text += "  #" + std::to_string(i) + " " + e2e::describe(lines[i]) + "\n";
    return text;
}

// Index of the first line of `expected` found as consecutive lines at or
// after `from`, or -1.
inline int find_consecutive(const std::vector<log_record> &lines,
                            const std::vector<e2e::expected_message> &expected, int from = 0)
{
    for (int start = e2e::find_message(lines, expected[0].level, expected[0].text, 1, from);
         start >= 0;
         start = e2e::find_message(lines, expected[0].level, expected[0].text, 1, start + 1)) {
        size_t k = 0;
        for (; k < expected.size(); ++k) {
            size_t at = size_t(start) + k;
            if (at >= lines.size() || lines[at].level != expected[k].level ||
                lines[at].text != expected[k].text)
                break;
        }
        if (k == expected.size())
            return start;
    }
    return -1;
}

// The expected lines, one right after the other, somewhere at or after `from`.
inline ::testing::AssertionResult consecutive(const std::vector<log_record> &lines,
                                              const std::vector<e2e::expected_message> &expected,
                                              int from = 0)
{
    if (find_consecutive(lines, expected, from) >= 0)
        return ::testing::AssertionSuccess();
    int start = e2e::find_message(lines, expected[0].level, expected[0].text, 1, from);
    auto failure = ::testing::AssertionFailure();
    failure << "expected these lines one after the other:\n";
    for (const e2e::expected_message &m : expected)
        failure << "  [" << m.level << "] " << e2e::visible(m.text) << "\n";
    if (start < 0)
        return failure << "the first is missing at or after #" << from << "; lines from there:\n"
                       << describe_lines(lines, size_t(std::max(from, 0)), 40);
    return failure << "lines from its first occurrence:\n"
                   << describe_lines(lines, size_t(start), expected.size() + 6);
}

using e2e::expect_platform_record;

// ------------------------------------------------------------ pellan recovery
//
// Once the checker launcher's ten socket polls are spent, a launch no longer
// waits for the sockets and the permission step may kill the new checker
// before it has made them; the launcher goes round until one wins that race.

struct pellan_launch {
    pid_t pid = -1;
    bool permissions_failed = false;
    bool completed = false; // "pellan launched successfully" logged for it
};

inline std::vector<pellan_launch> pellan_launches(const std::vector<log_record> &records)
{
    std::vector<pellan_launch> launches;
    for (const log_record &record : records) {
        if (record.file != pellan_file)
            continue;
        int pid = -1;
        if (sscanf(record.text.c_str(), "launch pellan( %d )", &pid) == 1) {
            launches.push_back({pid, false, false});
        } else if (!launches.empty() && (record.text.starts_with("can't change mode (") ||
                                         record.text.starts_with("can't change owner ("))) {
            launches.back().permissions_failed = true;
        } else if (!launches.empty() &&
                   sscanf(record.text.c_str(), "pellan launched successfully (pid: %d)", &pid) ==
                       1 &&
                   pid == launches.back().pid) {
            launches.back().completed = true;
        }
    }
    return launches;
}

// Waits for a checker launched after `previous` that came through the
// permission step and runs alone; returns its pid or -1.
inline pid_t wait_for_settled_checker(const e2e::scenario &keldra, pid_t previous,
                                      e2e::milliseconds timeout = 60s,
                                      e2e::where loc = e2e::where::current())
{
    pid_t found = -1;
    e2e::wait_until(
        [&] {
            auto launches = pellan_launches(keldra.messages());
            if (launches.empty())
                return false;
            const pellan_launch &last = launches.back();
            if (last.pid == previous || !last.completed || last.permissions_failed ||
                e2e::daemon_pids("pellan") != std::vector<pid_t>{last.pid})
                return false;
            found = last.pid;
            return true;
        },
        timeout, "a checker that passed the permission step and runs alone", loc);
    return found;
}

// After the launcher's socket polls are spent (by a launch whose checker
// never made its sockets), a checker survives only if it has made its
// sockets before the permission step looks, and the launcher goes on
// launching until one does (crashloop_test.cc counts those rounds; on a busy
// machine it can take long). Waits for a launch beyond the first `known`
// ones (forks work again), then reports, without asserting, whether a
// checker settled within a few seconds. Returns the new launch's pid or -1.
inline pid_t wait_for_checker_relaunch(const e2e::scenario &keldra, size_t known,
                                       e2e::where loc = e2e::where::current())
{
    pid_t launched = -1;
    e2e::wait_until(
        [&] {
            auto launches = pellan_launches(keldra.messages());
            if (launches.size() <= known)
                return false;
            launched = launches[known].pid;
            return true;
        },
        30s, "the checker launcher to launch again", loc);
    const bool settled = poll_until(
        [&] {
            auto launches = pellan_launches(keldra.messages());
            return !launches.empty() && launches.size() > known && launches.back().completed &&
                   !launches.back().permissions_failed &&
                   e2e::daemon_pids("pellan") == std::vector<pid_t>{launches.back().pid};
        },
        10s);
    std::cout << pellan_launches(keldra.messages()).size() - known << " checker launches since; "
              << (settled ? "one came through the permission step\n"
                          : "none through the permission step yet (the launcher goes on)\n");
    return launched;
}

// ------------------------------------------------------------------ cgroup

inline bool write_text(const std::string &path, const std::string &text, std::string *error)
{
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    bool done = fd >= 0 && write(fd, text.data(), text.size()) == ssize_t(text.size());
    if (!done && error)
        *error = path + ": " + strerror(errno);
    if (fd >= 0)
        close(fd);
    return done;
}

inline constexpr const char *pids_root = "/sys/fs/cgroup/pids";

// The pids cgroup of a process, as a directory under pids_root.
inline std::string pids_cgroup_of(pid_t pid)
{
    auto text = e2e::read_file("/proc/" + std::to_string(pid) + "/cgroup");
    std::istringstream lines(text.value_or(""));
    for (std::string line; std::getline(lines, line);) {
        size_t first = line.find(':');
        size_t second = line.find(':', first + 1);
        if (first == std::string::npos || second == std::string::npos)
            continue;
        std::string controllers = "," + line.substr(first + 1, second - first - 1) + ",";
        if (controllers.find(",pids,") == std::string::npos)
            continue;
        std::string path = line.substr(second + 1);
        return path == "/" ? std::string(pids_root) : pids_root + path;
    }
    return "";
}

inline std::vector<pid_t> cgroup_procs(const std::string &dir)
{
    std::vector<pid_t> pids;
    std::istringstream in(e2e::read_file(dir + "/cgroup.procs").value_or(""));
    for (long pid; in >> pid;)
        pids.push_back(pid_t(pid));
    return pids;
}

// A pids cgroup of the test's own, beneath the supervisor's, whose pids.max
// equals the supervisor's current number of tasks: once the supervisor is in
// it, every fork and thread creation of the supervisor fails with EAGAIN
// (root is not exempt from pids.max). The destructor lifts the limit, moves
// everything back to the parent cgroup and removes the directory.
struct fork_block {
    std::string dir;    // the test's cgroup; empty while not engaged
    std::string parent; // where the supervisor came from

    fork_block() = default;
    fork_block(const fork_block &) = delete;
    fork_block &operator=(const fork_block &) = delete;
    ~fork_block() { release(); }

    bool engage(pid_t pid, e2e::where loc = e2e::where::current())
    {
        parent = pids_cgroup_of(pid);
        if (parent.empty()) {
            ADD_FAILURE_AT(loc.file_name(), int(loc.line()))
                << "no pids cgroup for " << pid << " (cgroup v1 pids controller at "
                << pids_root << " needed)";
            return false;
        }
        std::random_device random;
        std::string name = "keldra-faults." + std::to_string(getpid()) + "." +
                           std::to_string(monotonic_ns()) + "." + std::to_string(random());
        if (mkdir((parent + "/" + name).c_str(), 0755) != 0) {
            ADD_FAILURE_AT(loc.file_name(), int(loc.line()))
                << "cannot create cgroup " << parent << "/" << name << ": " << strerror(errno);
            return false;
        }
        dir = parent + "/" + name;
        std::string error;
        bool done = write_text(dir + "/cgroup.procs", std::to_string(pid), &error);
        if (done) {
            std::string current = e2e::read_file(dir + "/pids.current").value_or("");
            done = !current.empty() && write_text(dir + "/pids.max", current, &error);
        }
        if (!done) {
            ADD_FAILURE_AT(loc.file_name(), int(loc.line())) << "cgroup set-up: " << error;
            release();
        }
        return done;
    }

    // Tasks counted in the cgroup and its limit, for reports.
    std::string state() const
    {
        if (dir.empty())
            return "(not engaged)";
        auto current = e2e::read_file(dir + "/pids.current").value_or("?\n");
        auto max = e2e::read_file(dir + "/pids.max").value_or("?\n");
        return "pids.current " + current.substr(0, current.find('\n')) + ", pids.max " +
               max.substr(0, max.find('\n'));
    }

    void release()
    {
        if (dir.empty())
            return;
        write_text(dir + "/pids.max", "max", nullptr);
        for (int round = 0; round < 200; ++round) {
            auto pids = cgroup_procs(dir);
            if (pids.empty())
                break;
            for (pid_t pid : pids)
                write_text(parent + "/cgroup.procs", std::to_string(pid), nullptr);
        }
        int error = 0;
        for (int attempt = 0; attempt < 200; ++attempt) {
            if (rmdir(dir.c_str()) == 0 || errno == ENOENT) {
                error = 0;
                break;
            }
            error = errno;
            std::this_thread::sleep_for(10ms);
        }
        if (error != 0)
            ADD_FAILURE() << "cannot remove the cgroup " << dir << " (" << strerror(error)
                          << "): it is left on the host";
        dir.clear();
    }
};

// ------------------------------------------------------ own PID namespace
//
// kill(-1, SIGKILL) from the supervisor reaches every process of its PID
// namespace but PID 1 and itself. A scenario that provokes it runs here: a
// child of the test enters a new PID and mount namespace, and its child, PID 1
// there with its own /proc, runs `body` (and so starts the supervisor). The
// body's failures are printed as they happen; its exit status carries the
// verdict back, and the namespace ends with it.
inline void run_as_namespace_init(const std::function<void()> &body,
                                  e2e::milliseconds timeout = 200s)
{
    // The harness remembers that it runs in the sandbox; inside the new
    // namespace PID 1 is the test itself.
    ASSERT_TRUE(e2e::inside_sandbox());
    fflush(nullptr);
    pid_t child = fork();
    ASSERT_GE(child, 0) << strerror(errno);
    if (child == 0) {
        if (unshare(CLONE_NEWPID | CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            fprintf(stderr, "cannot enter new namespaces: %s\n", strerror(errno));
            _exit(120);
        }
        pid_t init = fork();
        if (init == 0) {
            if (mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
                fprintf(stderr, "cannot mount /proc: %s\n", strerror(errno));
                _exit(121);
            }
            body();
            fflush(nullptr);
            _exit(::testing::Test::HasFailure() ? 1 : 0);
        }
        int status = 0;
        if (init < 0 || waitpid(init, &status, 0) != init)
            _exit(122);
        _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
    }
    auto status = e2e::wait_child(child, timeout);
    EXPECT_EQ(status, e2e::exit_status::with_code(0))
        << "the scenario ran as PID 1 of a PID namespace of its own; its failures are "
           "reported above";
}

} // namespace faults
