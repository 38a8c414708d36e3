// The application-policy launcher when fork keeps failing: after a death of
// orvel, every fork of the supervisor is refused (EAGAIN) by a pids cgroup
// whose limit is the supervisor's own thread count. The launcher must log ten
// numbered failures 3 s apart, give up with "failed to launch orvel...", start
// a new series at once (the reaper withdrew the ready file, so there is no
// search by name), and launch orvel as soon as forks work again, without
// disturbing the other launchers.
//
// The cgroup lives in the host's pids hierarchy (/sys is not private to the
// sandbox), so its name is unique per run and a guard always moves the
// supervisor back to its former cgroup and removes the group, also when the
// test fails. Without the pids controller the test is skipped, or fails when
// the environment variable CI is set.
#include "harness.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

namespace {

using namespace std::chrono_literals;
using e2e::format_text;
using e2e::log_record;

constexpr const char *orvel_source = "orvel-launcher.cc";
constexpr const char *orvel_ready = "/run/orvel.ready";
constexpr const char *script_done = "/tmp/orvel_script.done";
constexpr const char *pids_hierarchy = "/sys/fs/cgroup/pids";
constexpr const char *group_prefix = "keldra-orvel-fork-";
constexpr int fork_attempts = 10;

// Bounds of the timing checks, in nanoseconds of CLOCK_MONOTONIC_RAW (the
// clock of the supervisor's stderr stamps). The lower bounds are fixed by the
// 3 s sleep between attempts; the upper ones leave room for a loaded machine.
constexpr int64_t ms = 1000000;
constexpr int64_t min_pause = 2900 * ms;
constexpr int64_t max_pause = 4500 * ms;
constexpr int64_t min_series = 29500 * ms; // "launching orvel..." to giving up
constexpr int64_t max_series = 34000 * ms;
constexpr int64_t max_immediate = 2000 * ms; // steps with no sleep between them

// Room added to the upper bounds for a sanitized supervisor: its process
// image is several times larger and slower to fork, and on a loaded machine
// one 3 s pause between its fork attempts has stretched to 6.6 s.
int64_t sanitizer_slack()
{
    return e2e::keldra_sanitizer().empty() ? 0 : 5000 * ms;
}

int64_t monotonic_raw_ns()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_RAW, &now);
    return int64_t(now.tv_sec) * 1000000000 + now.tv_nsec;
}

std::string seconds(int64_t ns)
{
    return format_text("%.3f s", double(ns) / 1e9);
}

// ---------------------------------------------------------------------------
// Host cgroup files

bool write_text(const std::string &path, const std::string &text, std::string *why = nullptr)
{
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    // One write: a cgroup file takes one value per write call.
    bool done = fd >= 0 && write(fd, text.data(), text.size()) == ssize_t(text.size());
    int error = errno;
    if (fd >= 0)
        close(fd);
    if (!done && why)
        *why = "cannot write \"" + text + "\" to " + path + ": " + strerror(error);
    return done;
}

long read_number(const std::string &path)
{
    auto text = e2e::read_file(path);
    return text ? strtol(text->c_str(), nullptr, 10) : -1;
}

// The process's cgroup in the pids hierarchy ("/" or "/a/b"), from
// /proc/<pid>/cgroup, or "" when the hierarchy is not listed.
std::string pids_cgroup_of(const std::string &pid)
{
    auto text = e2e::read_file("/proc/" + pid + "/cgroup");
    if (!text)
        return "";
    size_t at = 0;
    while (at < text->size()) {
        size_t end = text->find('\n', at);
        std::string row = text->substr(at, end == std::string::npos ? std::string::npos : end - at);
        size_t first = row.find(':');
        size_t second = first == std::string::npos ? first : row.find(':', first + 1);
        if (second != std::string::npos) {
            std::string controllers = "," + row.substr(first + 1, second - first - 1) + ",";
            if (controllers.find(",pids,") != std::string::npos)
                return row.substr(second + 1);
        }
        if (end == std::string::npos)
            break;
        at = end + 1;
    }
    return "";
}

std::vector<std::string> pids_in(const std::string &procs_path)
{
    std::vector<std::string> pids;
    auto text = e2e::read_file(procs_path);
    if (!text)
        return pids;
    size_t at = 0;
    while (at < text->size()) {
        size_t end = text->find('\n', at);
        std::string pid = text->substr(at, end == std::string::npos ? std::string::npos : end - at);
        if (!pid.empty())
            pids.push_back(pid);
        if (end == std::string::npos)
            break;
        at = end + 1;
    }
    return pids;
}

int task_count(pid_t pid)
{
    DIR *dir = opendir(("/proc/" + std::to_string(pid) + "/task").c_str());
    if (!dir)
        return -1;
    int count = 0;
    while (dirent *entry = readdir(dir))
        count += entry->d_name[0] != '.';
    closedir(dir);
    return count;
}

std::string random_suffix()
{
    uint64_t value = 0;
    if (getrandom(&value, sizeof value, 0) != ssize_t(sizeof value))
        value = uint64_t(monotonic_raw_ns()) ^ (uint64_t(getpid()) << 32);
    return format_text("%016llx", (unsigned long long)value);
}

// Groups of this test left behind by a run that was killed before its guard
// could run (a time-out): empty, and older than any run can last. A group in
// use has processes and cannot be removed.
void remove_stale_groups(const std::string &parent_dir)
{
    DIR *dir = opendir(parent_dir.c_str());
    if (!dir)
        return;
    const time_t now = time(nullptr);
    while (dirent *entry = readdir(dir)) {
        if (strncmp(entry->d_name, group_prefix, strlen(group_prefix)) != 0)
            continue;
        std::string path = parent_dir + "/" + entry->d_name;
        struct stat st = {};
        if (stat(path.c_str(), &st) == 0 && now - st.st_ctime > 15 * 60)
            rmdir(path.c_str());
    }
    closedir(dir);
}

// A pids cgroup of its own, beneath the test's cgroup. The destructor moves
// every process still in it back to that parent and removes it.
class fork_limit {
public:
    fork_limit() = default;
    fork_limit(const fork_limit &) = delete;
    fork_limit &operator=(const fork_limit &) = delete;

    ~fork_limit()
    {
        if (dir_.empty())
            return;
        write_text(dir_ + "/pids.max", "max");
        for (const std::string &pid : pids_in(dir_ + "/cgroup.procs")) {
            std::string why;
            if (!write_text(parent_dir_ + "/cgroup.procs", pid, &why))
                ADD_FAILURE() << "cannot move process " << pid << " out of " << dir_ << ": "
                              << why;
        }
        // The kernel may still hold a task that has just been moved or ended.
        for (int attempt = 0; attempt < 300; ++attempt) {
            if (rmdir(dir_.c_str()) == 0 || errno != EBUSY)
                break;
            usleep(10000);
        }
        if (e2e::exists(dir_))
            ADD_FAILURE() << "cannot remove the cgroup " << dir_ << ": " << strerror(errno);
    }

    // Creates the group; false with the reason when the pids controller is
    // not usable here.
    bool create(std::string *why)
    {
        if (!e2e::exists(std::string(pids_hierarchy) + "/cgroup.procs")) {
            *why = std::string("no cgroup v1 pids hierarchy at ") + pids_hierarchy;
            return false;
        }
        std::string parent = pids_cgroup_of("self");
        if (parent.empty()) {
            *why = "/proc/self/cgroup lists no pids hierarchy";
            return false;
        }
        parent_dir_ = std::string(pids_hierarchy) + (parent == "/" ? "" : parent);
        remove_stale_groups(parent_dir_);
        std::string dir = parent_dir_ + "/" + group_prefix + random_suffix();
        if (mkdir(dir.c_str(), 0755) != 0) {
            *why = "cannot create the cgroup " + dir + ": " + strerror(errno);
            return false;
        }
        dir_ = dir;
        if (!e2e::exists(dir_ + "/pids.max")) {
            *why = "the cgroup " + dir_ + " has no pids.max";
            return false;
        }
        return true;
    }

    const std::string &dir() const { return dir_; }
    // The group's path as /proc/<pid>/cgroup shows it.
    std::string path() const { return dir_.substr(strlen(pids_hierarchy)); }

    // Moves the whole process (every thread) into the group.
    bool move_in(pid_t pid, std::string *why)
    {
        return write_text(dir_ + "/cgroup.procs", std::to_string(pid), why);
    }

    bool set_max(const std::string &value, std::string *why)
    {
        return write_text(dir_ + "/pids.max", value, why);
    }

    long current() const { return read_number(dir_ + "/pids.current"); }

private:
    std::string parent_dir_;
    std::string dir_;
};

// ---------------------------------------------------------------------------
// The supervisor's messages with their stamps

struct line {
    char level;
    std::string text;
};

bool matches(const log_record &record, const line &expected)
{
    return record.level == expected.level && record.text == expected.text &&
           record.file == orvel_source;
}

std::string describe(const line &l)
{
    return std::string("[") + l.level + "][" + orvel_source + "] " + e2e::visible(l.text);
}

// Value in ns of a stamp "[<sec>.<nsec>]" (nanoseconds not zero-padded) at
// pos, or -1.
int64_t stamp_at(const std::string &raw, size_t pos)
{
    long long sec = 0, nsec = 0;
    int used = 0;
    if (sscanf(raw.c_str() + pos, "[%lld.%lld]%n", &sec, &nsec, &used) != 2 || used == 0)
        return -1;
    for (size_t p = pos + 1; p < pos + size_t(used) - 1; ++p)
        if (raw[p] != '.' && (raw[p] < '0' || raw[p] > '9'))
            return -1;
    return int64_t(sec) * 1000000000 + nsec;
}

// The stamp of every record: the last stamp written before the record's line
// (the stamp comes right before it unless another thread logged in between,
// a few microseconds apart). -1 where none is found.
std::vector<int64_t> record_stamps(const std::string &raw, const std::vector<log_record> &records)
{
    std::vector<int64_t> stamps;
    size_t cursor = 0;
    for (const log_record &r : records) {
        std::string written = format_text("[KELDRA][%c][%s:%d] ", r.level, r.file.c_str(), r.line) +
                              r.text;
        size_t pos = raw.find(written, cursor);
        int64_t stamp = -1;
        if (pos != std::string::npos) {
            cursor = pos + written.size();
            for (size_t p = pos; p > 0 && stamp < 0;) {
                p = raw.rfind('[', p - 1);
                if (p == std::string::npos)
                    break;
                stamp = stamp_at(raw, p);
            }
        }
        stamps.push_back(stamp);
    }
    return stamps;
}

// ---------------------------------------------------------------------------
// Expected texts

std::string fork_failure(int attempt)
{
    return format_text("failed to fork process[retry count : %d]...(errno : Resource temporarily "
                       "unavailable)\n",
                       attempt);
}

const std::string gave_up = format_text("failed to launch orvel...(retry count : %d)\n",
                                        fork_attempts);
const std::string launching = "launching orvel...\n";

std::string launched_text(pid_t keldra, pid_t orvel)
{
    return format_text("[P %5ld] orvel(pid : %d) is launched successfully...\n", long(keldra),
                       orvel);
}

// The reaping of orvel pid killed by SIGKILL, dispatched as event index, up
// to the watches placed again.
std::vector<line> death_lines(int signal_fd, pid_t pid, long index)
{
    return {
        {'E', format_text("orvel signaled: %ld\n", index)},
        {'E', format_text("handle signal events(signal read fd : %d / orvel pid : %d)...\n",
                          signal_fd, pid)},
        {'W', format_text("SIGCHLD signal is received from [pid : %d]\n", pid)},
        {'W', format_text("orvel(%d) is dead...\n", pid)},
        {'E', format_text("waitpid_orvel(%d)\n", pid)},
        {'E', "orvel process terminate - fail\n"},
        {'E', "signal num : 9\n"},
        {'E', format_text("orvel(%d) is dead...\n", pid)},
        {'E', "orvel after handle_signal_event: ret=1\n"},
        {'E', format_text("orvel is dead. start flag is set again...%ld\n", index)},
        {'E', "inotify watch path: /run fd: 1 is created...\n"},
        {'E', "inotify watch path: /opt/dbspace fd: 2 is created...\n"},
        {'E', "inotify watch path: /var/pellan fd: 3 is created...\n"},
    };
}

// The signal descriptor of the supervisor (it has exactly one).
int signal_fd_of(pid_t pid)
{
    std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    DIR *d = opendir(dir.c_str());
    if (!d)
        return -1;
    int found = -1, count = 0;
    while (dirent *entry = readdir(d)) {
        if (entry->d_name[0] == '.')
            continue;
        char target[256];
        ssize_t n = readlink((dir + "/" + entry->d_name).c_str(), target, sizeof target - 1);
        if (n > 0 && std::string(target, size_t(n)) == "anon_inode:[signalfd]") {
            found = atoi(entry->d_name);
            ++count;
        }
    }
    closedir(d);
    return count == 1 ? found : -1;
}

// Creations ('C') and deletions ('D') of one name in /run, as the test sees
// them.
class run_dir_watch {
public:
    run_dir_watch()
    {
        fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (fd_ >= 0)
            inotify_add_watch(fd_, "/run", IN_CREATE | IN_DELETE);
    }
    ~run_dir_watch()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    run_dir_watch(const run_dir_watch &) = delete;
    run_dir_watch &operator=(const run_dir_watch &) = delete;

    std::string history(const std::string &name)
    {
        alignas(inotify_event) char buffer[65536];
        ssize_t n;
        while ((n = read(fd_, buffer, sizeof buffer)) > 0) {
            for (ssize_t at = 0; at < n;) {
                const auto *event = reinterpret_cast<const inotify_event *>(buffer + at);
                if (event->len > 0 && name == event->name)
                    history_ += (event->mask & IN_CREATE) ? 'C' : 'D';
                at += ssize_t(sizeof(inotify_event) + event->len);
            }
        }
        return history_;
    }

private:
    int fd_ = -1;
    std::string history_;
};

// ---------------------------------------------------------------------------
// Steps of the scenario

struct other_daemons {
    pid_t pellan = -1, dunmar = -1, tavish = -1;
};

// Waits until the four daemons run and the supervisor has logged their
// launches; returns the pids of the three that the test leaves alone.
other_daemons wait_for_steady_start(e2e::scenario &keldra, pid_t orvel)
{
    other_daemons d;
    const pid_t k = keldra.pid();
    if (keldra.wait_for_message('I', format_text("keldra launched successfully (pid:%d)\n", k)) < 0 ||
        keldra.wait_for_message('E', launched_text(k, orvel)) < 0)
        return {};
    d.pellan = e2e::wait_for_daemon("pellan");
    d.dunmar = e2e::wait_for_daemon("dunmar");
    d.tavish = e2e::wait_for_daemon("tavish");
    if (keldra.wait_for_message('I', format_text("pellan launched successfully (pid: %d)\n",
                                                 d.pellan)) < 0 ||
        keldra.wait_for_message('E', format_text("dunmar launched successfully (pid: %d)\n",
                                                 d.dunmar)) < 0 ||
        keldra.wait_for_message('I', format_text("tavish launched successfully pid: %d\n",
                                                 d.tavish)) < 0)
        return {};
    // orvel's socket has been seen by the recovery step.
    if (keldra.wait_for_message('I', "inotify event is received for /run/orvel.socket\n") < 0)
        return {};
    // Nothing is logged any more: no event is left over to mix with the
    // reaping of the next death.
    size_t count = keldra.messages().size();
    int quiet = 0;
    e2e::wait_until(
        [&] {
            size_t now = keldra.messages().size();
            quiet = now == count ? quiet + 1 : 0;
            count = now;
            return quiet >= 100; // 100 polls of 5 ms
        },
        10s, "the supervisor to go quiet");
    return d;
}

// Checks that the records from `from` on are exactly `expected`, one after
// the other. Returns the index after the last one, or -1 after a failure.
int expect_exactly(const std::vector<log_record> &records, int from,
                   const std::vector<line> &expected, e2e::where loc = e2e::where::current())
{
    int at = from;
    for (const line &l : expected) {
        if (at >= int(records.size())) {
            ADD_FAILURE_AT(loc.file_name(), int(loc.line()))
                << "the log ends where " << describe(l) << " was expected";
            return -1;
        }
        if (!matches(records[size_t(at)], l)) {
            ADD_FAILURE_AT(loc.file_name(), int(loc.line()))
                << "record " << at << " is " << e2e::describe(records[size_t(at)])
                << "\n  expected " << describe(l);
            return -1;
        }
        ++at;
    }
    return at;
}

void expect_platform_record(const e2e::scenario &keldra, const std::string &text,
                            int expected_count, e2e::where loc = e2e::where::current())
{
    auto records = keldra.platform_messages();
    SCOPED_TRACE(testing::Message() << "platform record checked at line " << loc.line());
    EXPECT_EQ(e2e::count_platform_messages(records, e2e::level_priority('E'), text),
              expected_count)
        << e2e::visible(text);
    int i = e2e::find_platform_message(records, e2e::level_priority('E'), text);
    ASSERT_GE(i, 0) << e2e::visible(text);
    const e2e::platform_record &r = records[size_t(i)];
    EXPECT_EQ(r.tag, "KELDRA") << e2e::describe(r);
    EXPECT_EQ(r.file, orvel_source) << e2e::describe(r);
    EXPECT_EQ(r.function, "launch_orvel") << e2e::describe(r);
    EXPECT_GT(r.line, 0) << e2e::describe(r);
}

// ===========================================================================

TEST(OrvelForkFailure, TenFailuresThreeSecondsApartThenANewSeriesAtOnceThenRelaunch)
{
    fork_limit limit;
    std::string why;
    if (!limit.create(&why)) {
        if (getenv("CI") != nullptr)
            FAIL() << "this test needs the cgroup v1 pids controller (" << pids_hierarchy
                   << ") to make fork fail: " << why;
        GTEST_SKIP() << "no usable pids cgroup controller: " << why;
    }

    // A boot whose init script has run: no SIGCHLD of the script is pending.
    ASSERT_TRUE(e2e::write_file(script_done, "", 0600));
    run_dir_watch run_dir;
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    const pid_t k = keldra.pid();
    auto orvel = e2e::wait_for_starts("orvel", 1);
    ASSERT_EQ(orvel.size(), 1u);
    const pid_t victim = orvel[0].pid;
    const other_daemons others = wait_for_steady_start(keldra, victim);
    ASSERT_GT(others.tavish, 0);
    ASSERT_EQ(e2e::daemon_pids("orvel"), std::vector<pid_t>{victim});
    const int signal_fd = signal_fd_of(k);
    ASSERT_GE(signal_fd, 0);

    // Every fork of the supervisor fails from now on: all its threads are in
    // the group, whose limit is their number.
    const int threads = task_count(k);
    ASSERT_GE(threads, 5) << "main thread, signal relay and the launcher threads";
    ASSERT_TRUE(limit.move_in(k, &why)) << why;
    ASSERT_TRUE(limit.set_max(std::to_string(threads), &why)) << why;
    ASSERT_EQ(pids_cgroup_of(std::to_string(k)), limit.path());
    ASSERT_EQ(limit.current(), threads) << "every thread of the supervisor is in " << limit.dir();
    ASSERT_EQ(task_count(k), threads);

    const size_t before_kill = keldra.messages().size();
    ASSERT_EQ(kill(victim, SIGKILL), 0);

    // The first series ends after about 30 s; a second one begins at once.
    ASSERT_GE(keldra.wait_for_message('E', gave_up, 60s), 0);
    ASSERT_GE(keldra.wait_for_message('E', fork_failure(1), 10s, 2), 0);
    // Forks work again from here; the next attempt of the series succeeds.
    EXPECT_FALSE(e2e::exists(orvel_ready)) << "withdrawn by the reaper, not created since";
    EXPECT_EQ(e2e::starts("orvel").size(), 1u);
    EXPECT_TRUE(e2e::daemon_pids("orvel").empty());
    ASSERT_TRUE(limit.set_max("max", &why)) << why;
    const int64_t forks_allowed = monotonic_raw_ns();

    orvel = e2e::wait_for_starts("orvel", 2, 15s);
    ASSERT_EQ(orvel.size(), 2u);
    const pid_t successor = orvel[1].pid;
    ASSERT_GE(keldra.wait_for_message('E', launched_text(k, successor), 15s), 0);
    ASSERT_TRUE(e2e::wait_for_file(orvel_ready));

    // The records from the death on, in strict order with nothing between
    // them: the reaping, the first series, the second one.
    const std::vector<log_record> records = keldra.messages();
    const std::vector<int64_t> stamps = record_stamps(keldra.stderr_text(), records);
    int at = -1;
    for (size_t i = before_kill; i < records.size() && at < 0; ++i)
        if (records[i].file == orvel_source && records[i].text.starts_with("orvel signaled: "))
            at = int(i);
    ASSERT_GE(at, 0) << "no dispatch of the signal descriptor after the kill";
    const long index = strtol(records[size_t(at)].text.c_str() + 16, nullptr, 10);
    at = expect_exactly(records, at, death_lines(signal_fd, victim, index));
    ASSERT_GE(at, 0);

    const int first_launching = at;
    std::vector<line> series = {{'E', launching}};
    for (int n = 1; n <= fork_attempts; ++n)
        series.push_back({'E', fork_failure(n)});
    series.push_back({'E', gave_up});
    series.push_back({'E', launching});
    series.push_back({'E', fork_failure(1)});
    at = expect_exactly(records, at, series);
    ASSERT_GE(at, 0);
    const int first_failure = first_launching + 1;
    const int gave_up_at = first_launching + 1 + fork_attempts;
    const int second_launching = gave_up_at + 1;

    // Attempts of the second series that began before the limit was lifted
    // fail too (normally only the first); the next one succeeds.
    int last_failure = at - 1;
    for (int n = 2; at < int(records.size()) && matches(records[size_t(at)], {'E', fork_failure(n)});
         ++n, ++at) {
        EXPECT_LT(stamps[size_t(at)], forks_allowed + 100 * ms + sanitizer_slack())
            << "fork failed after the limit was lifted: " << e2e::describe(records[size_t(at)]);
        last_failure = at;
    }
    ASSERT_GE(expect_exactly(records, at,
                             {{'E', format_text("[P %5ld] Wait for orvel started...\n", long(k))},
                              {'E', format_text("[P %5ld] orvel is started!\n", long(k))},
                              {'E', launched_text(k, successor)}}),
              0);
    const int relaunched_at = at + 2;

    // Timing, from the supervisor's own stamps.
    for (int i = first_launching; i <= relaunched_at; ++i)
        ASSERT_GE(stamps[size_t(i)], 0) << "no stamp for " << e2e::describe(records[size_t(i)]);
    auto gap = [&](int from, int to) { return stamps[size_t(to)] - stamps[size_t(from)]; };
    const int64_t slack = sanitizer_slack();
    EXPECT_LT(gap(first_launching, first_failure), max_immediate + slack)
        << "the first fork is tried at once: " << seconds(gap(first_launching, first_failure));
    for (int i = first_failure; i < gave_up_at; ++i) {
        SCOPED_TRACE(e2e::describe(records[size_t(i + 1)]));
        EXPECT_GE(gap(i, i + 1), min_pause) << seconds(gap(i, i + 1));
        EXPECT_LE(gap(i, i + 1), max_pause + slack) << seconds(gap(i, i + 1));
    }
    EXPECT_GE(gap(first_launching, gave_up_at), min_series)
        << seconds(gap(first_launching, gave_up_at));
    EXPECT_LE(gap(first_launching, gave_up_at), max_series + 3 * slack)
        << seconds(gap(first_launching, gave_up_at));
    EXPECT_LT(gap(gave_up_at, second_launching + 1), max_immediate + slack)
        << "the new series starts at once: " << seconds(gap(gave_up_at, second_launching + 1));
    EXPECT_GE(gap(last_failure, at), min_pause)
        << "the successful fork follows the 3 s pause: " << seconds(gap(last_failure, at));
    EXPECT_LE(gap(last_failure, at), max_pause + slack) << seconds(gap(last_failure, at));
    std::string pauses;
    for (int i = first_failure; i < gave_up_at; ++i)
        pauses += " " + seconds(gap(i, i + 1));
    printf("first series %s; pauses%s; give-up to the next failure %s\n",
           seconds(gap(first_launching, gave_up_at)).c_str(), pauses.c_str(),
           seconds(gap(gave_up_at, second_launching + 1)).c_str());

    // Whole-log counts: one give-up, three launch attempts, no search by name.
    EXPECT_EQ(keldra.count_messages('E', gave_up), 1);
    EXPECT_EQ(keldra.count_messages('E', launching), 3);
    EXPECT_EQ(keldra.count_messages('E', fork_failure(fork_attempts)), 1);
    EXPECT_EQ(keldra.count_messages('E', "/usr/bin/orvel already was ran ...\n"), 0);
    expect_platform_record(keldra, fork_failure(fork_attempts), 1);
    expect_platform_record(keldra, gave_up, 1);

    // The relaunched daemon and its ready file: created at the first launch,
    // withdrawn by the reaper, created again only after the relaunch.
    EXPECT_EQ(orvel[1].ppid, k);
    EXPECT_EQ(orvel[1].argv0, "/usr/bin/orvel");
    EXPECT_TRUE(e2e::wait_until([&] { return run_dir.history("orvel.ready") == "CDC"; }, 5s,
                                "orvel.ready created, withdrawn, created again"))
        << run_dir.history("orvel.ready");
    EXPECT_EQ(e2e::daemon_pids("orvel"), std::vector<pid_t>{successor});

    // The other launchers took no part: nothing of theirs was logged during
    // the series (checked above), their daemons run on unchanged, and the
    // supervisor still runs with all its threads.
    EXPECT_EQ(e2e::daemon_pids("pellan"), std::vector<pid_t>{others.pellan});
    EXPECT_EQ(e2e::daemon_pids("dunmar"), std::vector<pid_t>{others.dunmar});
    EXPECT_EQ(e2e::daemon_pids("tavish"), std::vector<pid_t>{others.tavish});
    for (const char *name : {"pellan", "dunmar", "tavish"}) {
        EXPECT_EQ(e2e::starts(name).size(), 1u) << name;
        EXPECT_TRUE(e2e::deaths(name).empty()) << name;
    }
    EXPECT_TRUE(keldra.is_running());
    EXPECT_EQ(task_count(k), threads);
}

} // namespace
