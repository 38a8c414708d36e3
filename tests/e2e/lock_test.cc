// End-to-end scenarios of the single-instance lock: the lock file and its pid
// record, the readiness wait, the search for the holder through /proc, the
// SIGTERM to the holder and the tests of its release, and the failures of
// each step. The holders are lock_holder_helper processes (lockf locks, the
// kind the supervisor takes); lockf_fault_helper, preloaded into the
// supervisor, makes a lock call, the path resolution, the /proc scan or the
// readiness wait fail where a healthy system never would.
#include "harness.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <sstream>

namespace {

using namespace std::chrono_literals;
using e2e::exit_status;
using e2e::format_text;

const std::string lock_path = "/tmp/keldra.lock";
const std::vector<std::string> readiness_events = {
    "/run/dunmar.pid", "/run/orvel.ready", "/run/tavish.ready", "/run/pellan.ready",
    "/run/keldra.ready"};

std::string holder_program()
{
    return KELDRA_BUILD_DIR "/tests/e2e/harness/lock_holder_helper";
}

std::string fault_library()
{
    return KELDRA_BUILD_DIR "/tests/e2e/harness/lockf_fault_helper.so";
}

// ------------------------------------------------------------------ holders

struct holder {
    pid_t pid = -1;
    bool reaped = false;
    std::string record;
    std::map<std::string, std::string> ready; // the fields of its ready event
};

std::vector<std::map<std::string, std::string>> holder_events(const holder &h,
                                                              const std::string &event)
{
    auto records = e2e::read_field_records(h.record);
    std::erase_if(records, [&](const auto &r) {
        auto it = r.find("event");
        return it == r.end() || it->second != event;
    });
    return records;
}

// Starts a lock_holder_helper and waits until it has opened (and, unless
// --no-lock, locked) the file.
holder start_holder(const std::string &tag, const std::vector<std::string> &args)
{
    holder h;
    h.record = "/tmp/lock-holder-" + tag + ".rec";
    std::vector<std::string> argv = {holder_program(), "--record", h.record};
    argv.insert(argv.end(), args.begin(), args.end());
    e2e::spawn_options options;
    options.stderr_path = "/tmp/lock-holder-" + tag + ".err";
    h.pid = e2e::spawn(argv, options);
    if (h.pid <= 0)
        return h;
    e2e::wait_until(
        [&] {
            return !holder_events(h, "ready").empty() || !holder_events(h, "error").empty();
        },
        10s, "lock holder " + tag + " to be ready");
    auto ready = holder_events(h, "ready");
    EXPECT_EQ(ready.size(), 1u) << "lock holder " << tag << " failed: "
                                << e2e::read_file(h.record).value_or("(no record)");
    if (!ready.empty())
        h.ready = ready[0];
    return h;
}

// Kills the holder for good (if it still runs) and reaps it.
std::optional<exit_status> end_holder(holder &h)
{
    if (h.pid <= 0 || h.reaped)
        return std::nullopt;
    kill(h.pid, SIGKILL);
    h.reaped = true;
    return e2e::wait_child(h.pid, 10s);
}

// Waits for a holder that ends on its own and reaps it.
std::optional<exit_status> reap_holder(holder &h)
{
    if (h.pid <= 0 || h.reaped)
        return std::nullopt;
    h.reaped = true;
    return e2e::wait_child(h.pid, 10s);
}

// ------------------------------------------------------------------ files

void create_readiness_events()
{
    for (const std::string &path : readiness_events)
        ASSERT_TRUE(e2e::write_file(path, "", 0600)) << path;
}

// The pid of the process holding a POSIX lock on the file, from /proc/locks
// (which does not open the file, so it never counts as a holder in a scan).
std::optional<pid_t> lock_owner(const std::string &path)
{
    struct stat st;
    if (stat(path.c_str(), &st) < 0)
        return std::nullopt;
    std::string id = format_text("%02x:%02x:%lu", major(st.st_dev), minor(st.st_dev),
                                 (unsigned long)st.st_ino);
    std::istringstream locks(e2e::read_file("/proc/locks").value_or(""));
    std::string line;
    while (std::getline(locks, line)) {
        std::istringstream fields(line);
        std::vector<std::string> f;
        for (std::string token; fields >> token;)
            f.push_back(token);
        if (f.size() >= 6 && f[1] == "POSIX" && f[5] == id)
            return pid_t(std::stol(f[4]));
    }
    return std::nullopt;
}

// Descriptors of the process whose link resolves to `target`.
std::vector<int> descriptors_of(pid_t pid, const std::string &target)
{
    std::vector<int> fds;
    std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    DIR *d = opendir(dir.c_str());
    if (!d)
        return fds;
    while (dirent *entry = readdir(d)) {
        if (entry->d_name[0] == '.')
            continue;
        char link[512];
        ssize_t n = readlink((dir + "/" + entry->d_name).c_str(), link, sizeof link - 1);
        if (n < 0)
            continue;
        link[n] = '\0';
        if (target == link)
            fds.push_back(atoi(entry->d_name));
    }
    closedir(d);
    std::sort(fds.begin(), fds.end());
    return fds;
}

// The open flags of a descriptor, from /proc/<pid>/fdinfo/<fd> (octal).
std::optional<long> descriptor_flags(pid_t pid, int fd)
{
    auto info = e2e::read_file("/proc/" + std::to_string(pid) + "/fdinfo/" + std::to_string(fd));
    if (!info)
        return std::nullopt;
    size_t at = info->find("flags:");
    if (at == std::string::npos)
        return std::nullopt;
    return strtol(info->c_str() + at + 6, nullptr, 8);
}

// ------------------------------------------------------------------ raw stderr

// End of a stamp "[<sec>.<nsec>]" starting at pos, or npos.
size_t skip_stamp(std::string_view raw, size_t pos)
{
    if (pos >= raw.size() || raw[pos] != '[')
        return std::string_view::npos;
    size_t p = pos + 1;
    auto digits = [&] {
        size_t first = p;
        if (p < raw.size() && raw[p] == '-')
            ++p;
        while (p < raw.size() && isdigit(static_cast<unsigned char>(raw[p])))
            ++p;
        return p > first;
    };
    if (!digits() || p >= raw.size() || raw[p++] != '.' || !digits() || p >= raw.size() ||
        raw[p] != ']')
        return std::string_view::npos;
    return p + 1;
}

// Where the nth record with this level and text (a prefix when the text has
// no line end) starts, at "[KELDRA]"; npos when there is none.
size_t record_head(std::string_view raw, char level, std::string_view text, int nth = 1)
{
    std::string head = std::string("[KELDRA][") + level + "][";
    int seen = 0;
    for (size_t p = raw.find(head); p != std::string_view::npos; p = raw.find(head, p + 1)) {
        size_t close = raw.find("] ", p + head.size());
        if (close == std::string_view::npos)
            break;
        if (raw.substr(close + 2, text.size()) == text && ++seen == nth)
            return p;
    }
    return std::string_view::npos;
}

// The stamp written just before the nth such record, in seconds.
std::optional<double> stamp_of(std::string_view raw, char level, std::string_view text,
                               int nth = 1)
{
    size_t head = record_head(raw, level, text, nth);
    if (head == std::string_view::npos || head == 0 || raw[head - 1] != ']')
        return std::nullopt;
    size_t open = raw.rfind('[', head - 1);
    if (open == std::string_view::npos || skip_stamp(raw, open) != head)
        return std::nullopt;
    std::string stamp(raw.substr(open + 1, head - open - 2));
    size_t dot = stamp.find('.');
    return double(atol(stamp.substr(0, dot).c_str())) +
           double(atol(stamp.substr(dot + 1).c_str())) / 1e9;
}

// Seconds between the stamps of two messages of the same run.
double seconds_between(const e2e::scenario &s, char level1, const std::string &text1, char level2,
                       const std::string &text2)
{
    std::string raw = s.stderr_text();
    auto first = stamp_of(raw, level1, text1);
    auto second = stamp_of(raw, level2, text2);
    EXPECT_TRUE(first && second) << "stamps of \"" << e2e::visible(text1) << "\" and \""
                                 << e2e::visible(text2) << "\"";
    return first && second ? *second - *first : -1;
}

// Checks that a message without line end is followed at once, on the same
// raw line, by the stamp and the record of the next message.
void expect_continued_by(const e2e::scenario &s, char level1, const std::string &text1,
                         char level2, const std::string &text2)
{
    std::string raw = s.stderr_text();
    size_t head = record_head(raw, level1, text1);
    ASSERT_NE(head, std::string::npos) << "no [" << level1 << "] " << e2e::visible(text1);
    size_t end = raw.find("] ", head + 9) + 2 + text1.size();
    size_t next = skip_stamp(raw, end);
    ASSERT_NE(next, std::string::npos)
        << "no stamp right after \"" << e2e::visible(text1) << "\": \""
        << e2e::visible(raw.substr(end, 80)) << "\"";
    EXPECT_EQ(record_head(raw.substr(next), level2, text2), 0u)
        << "after \"" << e2e::visible(text1) << "\" and its stamp comes \""
        << e2e::visible(raw.substr(next, 120)) << "\"";
}

// ------------------------------------------------------------------ messages

bool any_message_contains(const e2e::scenario &s, std::string_view part)
{
    for (const e2e::log_record &r : s.messages()) {
        if (r.text.find(part) != std::string::npos)
            return true;
    }
    return false;
}

// The platform-log twin of a message: level's priority, tag, call site.
void expect_platform_record(const e2e::scenario &s, char level, const std::string &text,
                            const std::string &function = "")
{
    auto records = s.platform_messages();
    int at = e2e::find_platform_message(records, e2e::level_priority(level), text);
    ASSERT_GE(at, 0) << "no platform record [" << level << "] " << e2e::visible(text);
    const e2e::platform_record &r = records[size_t(at)];
    EXPECT_EQ(r.log_id, 0);
    EXPECT_EQ(r.tag, "KELDRA");
    EXPECT_EQ(r.file, "keldra.cc");
    EXPECT_NE(r.line, 0);
    if (function.empty())
        EXPECT_FALSE(r.function.empty());
    else
        EXPECT_EQ(r.function, function) << e2e::describe(r);
}

std::string pid_text(const char *format, pid_t pid)
{
    return format_text(format, long(pid));
}

std::string pid_text(const char *format, pid_t pid, long value)
{
    return format_text(format, long(pid), value);
}

std::string wait_till_ready(pid_t k)
{
    return pid_text("[P %5ld] Wait till all chldren became ready\n", k);
}
std::string wait_successful(pid_t k)
{
    return pid_text("[P %5ld] Wait children was successfull. Everything is ontime\n", k);
}
std::string wait_timeout(pid_t k)
{
    return pid_text("[P %5ld] Wait children timeout. Will retry\n", k);
}
std::string not_locked(pid_t k)
{
    return pid_text("[P %5ld] File is not locked, just use lock file\n", k);
}
std::string finished_with(pid_t k, int result, int fd)
{
    return format_text("[P %5ld] Finished with %d, descriptor: %d\n", long(k), result, fd);
}
std::string unlocked_with(pid_t k, int result)
{
    return format_text("[P %5ld] Finished with %d\n", long(k), result);
}
std::string pid_of_lock(pid_t k, long holder_pid)
{
    return pid_text("[P %5ld] Pid of lock %ld process\n", k, holder_pid);
}
std::string killing(pid_t k, long holder_pid)
{
    return pid_text("[P %5ld] Killing %ld process\n", k, holder_pid);
}
std::string died_after(pid_t k, long holder_pid, int attempts)
{
    return format_text("[P %5ld] Seems process %ld died after %d attempts\n", long(k), holder_pid,
                       attempts);
}
const std::string looking_for = "Looking for /tmp/keldra.lock ...\n";
const std::string link_to_lock = "Link: /tmp/keldra.lock\n";

std::string launched(pid_t k)
{
    return format_text("keldra launched successfully (pid:%d)\n", int(k));
}

// Waits for the end of the lock step ("Finished with <result>, descriptor")
// and returns the descriptor the supervisor holds on the lock file.
int wait_lock_step_end(e2e::scenario &k, int result, const std::string &target = lock_path,
                       e2e::milliseconds timeout = 30s)
{
    std::string prefix = format_text("[P %5ld] Finished with %d, descriptor: ", long(k.pid()),
                                     result);
    bool ended = e2e::wait_until([&] { return any_message_contains(k, prefix); }, timeout,
                                 "the end of the lock step with result " +
                                     std::to_string(result));
    if (!ended)
        return -1;
    std::vector<int> fds = descriptors_of(k.pid(), target);
    EXPECT_EQ(fds.size(), 1u) << "descriptors of " << k.pid() << " on " << target;
    int fd = fds.size() == 1 ? fds[0] : -1;
    EXPECT_EQ(k.count_messages('D', finished_with(k.pid(), result, fd)), 1);
    return fd;
}

// The simulated daemons never inherit the lock descriptor; their records do
// list what they inherited (stderr, at least).
void expect_no_daemon_inherits_the_lock(const e2e::scenario &k)
{
    for (const std::string &name : e2e::daemon_names) {
        auto records = e2e::wait_for_starts(name, 1, 20s);
        ASSERT_FALSE(records.empty()) << name;
        for (const e2e::start_record &r : records) {
            EXPECT_EQ(r.fd_target(2), k.stderr_path()) << name << " pid " << r.pid;
            for (const e2e::fd_entry &fd : r.fds)
                EXPECT_NE(fd.target, lock_path) << name << " inherited descriptor " << fd.fd;
        }
    }
}

class Lock : public ::testing::Test {
protected:
    void TearDown() override
    {
        for (holder &h : holders)
            end_holder(h);
    }

    holder &add_holder(const std::string &tag, const std::vector<std::string> &args)
    {
        holders.push_back(start_holder(tag, args));
        return holders.back();
    }

    // Starts the supervisor; false after a test failure.
    bool start(e2e::scenario &k)
    {
        if (!k.start())
            return false;
        pid = k.pid();
        return true;
    }

    // The supervisor's stop on SIGTERM, ending with the release of the lock.
    void stop_and_expect_release(e2e::scenario &k, int result)
    {
        ASSERT_GE(k.wait_for_message('I', launched(pid), 30s), 0);
        ASSERT_TRUE(k.send_signal(SIGTERM));
        EXPECT_EQ(k.wait_exit(20s), exit_status::with_code(0));
        k.expect_in_order({{'I', "Request to exit launcher\n"},
                           {'D', unlocked_with(pid, result)},
                           {'I', "Finished main loop\n"}});
        expect_platform_record(k, 'D', unlocked_with(pid, result), "keldra_unlock");
    }

    std::deque<holder> holders; // references to them stay valid
    pid_t pid = -1;
};

// ---------------------------------------------------------------- no holder

TEST_F(Lock, WithoutAnotherSupervisorTheLockIsTakenAndThePidWritten)
{
    ASSERT_FALSE(e2e::exists(lock_path));
    e2e::scenario k;
    ASSERT_TRUE(start(k));
    int fd = wait_lock_step_end(k, 0);
    ASSERT_GE(fd, 0);

    // The first two messages of the run: no readiness wait, no scan before.
    auto records = k.messages();
    ASSERT_GE(records.size(), 2u);
    EXPECT_EQ(records[0], (e2e::log_record{'D', "keldra.cc", records[0].line, not_locked(pid)}));
    EXPECT_EQ(records[1], (e2e::log_record{'D', "keldra.cc", records[1].line,
                                           finished_with(pid, 0, fd)}));
    expect_platform_record(k, 'D', not_locked(pid));
    expect_platform_record(k, 'D', finished_with(pid, 0, fd), "keldra_lock");

    EXPECT_EQ(e2e::read_file(lock_path), std::to_string(pid) + "\n");
    EXPECT_EQ(e2e::file_mode(lock_path), 0600u);
    EXPECT_EQ(lock_owner(lock_path), pid);
    auto flags = descriptor_flags(pid, fd);
    ASSERT_TRUE(flags);
    EXPECT_EQ(*flags & O_ACCMODE, O_RDWR);
    EXPECT_NE(*flags & O_CLOEXEC, 0) << "flags 0" << std::oct << *flags;

    ASSERT_GE(k.wait_for_message('I', launched(pid), 30s), 0);
    expect_no_daemon_inherits_the_lock(k);
    for (const char *part : {"Wait till", "Wait children", "Looking for", "Link:", "Pid of lock",
                             "Killing", "Seems process"})
        EXPECT_FALSE(any_message_contains(k, part)) << part;

    stop_and_expect_release(k, 0);
    EXPECT_EQ(lock_owner(lock_path), std::nullopt);
}

TEST_F(Lock, LongerOlderContentIsTruncatedBeforeThePidIsWritten)
{
    const std::string old = "4194303 written by an older supervisor, much longer than a pid\n"
                            "and a second line\n";
    ASSERT_TRUE(e2e::write_file(lock_path, old, 0600));
    e2e::scenario k;
    ASSERT_TRUE(start(k));
    ASSERT_GE(wait_lock_step_end(k, 0), 0);
    EXPECT_EQ(k.messages()[0].text, not_locked(pid));
    EXPECT_EQ(e2e::read_file(lock_path), std::to_string(pid) + "\n");
    EXPECT_EQ(lock_owner(lock_path), pid);
    EXPECT_GE(k.wait_for_message('I', launched(pid), 30s), 0);
}

// ---------------------------------------------------------------- failures

TEST_F(Lock, UnopenableLockFileIsReportedAndTheStartGoesOnWithoutLock)
{
    ASSERT_TRUE(e2e::make_directory(lock_path, 0755));
    e2e::scenario k;
    ASSERT_TRUE(start(k));
    const std::string failed = "Create/open lock file failed: Is a directory\n";
    ASSERT_GE(k.wait_for_message('E', failed), 0);
    EXPECT_EQ(k.messages()[0].text, failed);
    expect_platform_record(k, 'E', failed, "keldra_lock");
    ASSERT_GE(k.wait_for_message('I', launched(pid), 30s), 0);
    for (const char *part : {"File is not locked", "descriptor:", "Wait till", "Looking for",
                             "Pid of lock"})
        EXPECT_FALSE(any_message_contains(k, part)) << part;
    for (const std::string &name : e2e::daemon_names)
        EXPECT_EQ(e2e::wait_for_starts(name, 1).size(), 1u) << name;
    stop_and_expect_release(k, -1);
}

TEST_F(Lock, FailedTruncationEndsTheStepWithMinusOneButKeepsTheLock)
{
    // A FIFO opens read-write and locks like a file, but cannot be truncated.
    ASSERT_EQ(mkfifo(lock_path.c_str(), 0600), 0);
    e2e::scenario k;
    ASSERT_TRUE(start(k));
    int fd = wait_lock_step_end(k, -1);
    ASSERT_GE(fd, 0);
    const std::string failed = "Could not truncate lock file: Invalid argument";
    k.expect_in_order({{'D', not_locked(pid)}, {'E', failed}, {'D', finished_with(pid, -1, fd)}});
    expect_continued_by(k, 'E', failed, 'D', finished_with(pid, -1, fd));
    expect_platform_record(k, 'E', failed, "keldra_write_pidfile");
    EXPECT_EQ(lock_owner(lock_path), pid);
    EXPECT_GE(k.wait_for_message('I', launched(pid), 30s), 0);
}

TEST_F(Lock, FailedWriteOfThePidEndsTheStepWithMinusOneButKeepsTheLock)
{
    // The lock file lives on a tmpfs of one page that is already full.
    ASSERT_TRUE(e2e::make_directory("/tmp/full", 0755));
    ASSERT_EQ(mount("tmpfs", "/tmp/full", "tmpfs", 0, "size=4k"), 0) << strerror(errno);
    ASSERT_TRUE(e2e::write_file("/tmp/full/keldra.lock", "", 0600));
    EXPECT_FALSE(e2e::write_file("/tmp/full/filler", std::string(16384, 'x'), 0600));
    ASSERT_EQ(symlink("/tmp/full/keldra.lock", lock_path.c_str()), 0);
    e2e::scenario k;
    ASSERT_TRUE(start(k));
    int fd = wait_lock_step_end(k, -1, "/tmp/full/keldra.lock");
    ASSERT_GE(fd, 0);
    const std::string failed = "Writing to lock file: No space left on device";
    k.expect_in_order({{'D', not_locked(pid)}, {'E', failed}, {'D', finished_with(pid, -1, fd)}});
    expect_continued_by(k, 'E', failed, 'D', finished_with(pid, -1, fd));
    expect_platform_record(k, 'E', failed, "keldra_write_pidfile");
    EXPECT_EQ(e2e::read_file(lock_path), "");
    EXPECT_EQ(lock_owner(lock_path), pid);
    EXPECT_GE(k.wait_for_message('I', launched(pid), 30s), 0);
}

// The supervisor with lockf_fault_helper preloaded (after the sandbox's own
// preload, if any) and the fault chosen.
e2e::scenario_options with_fault(const std::string &fault)
{
    e2e::scenario_options options;
    const char *preload = getenv("LD_PRELOAD");
    std::string list = preload && *preload ? std::string(preload) + ":" + fault_library()
                                           : fault_library();
    options.extra_env = {"LD_PRELOAD=" + list, "KELDRA_LOCKF_FAULT=" + fault};
    return options;
}

TEST_F(Lock, FailedLockCallEndsTheStepWithMinusOneAndTheStartGoesOnWithoutLock)
{
    e2e::scenario k(with_fault("tlock"));
    ASSERT_TRUE(start(k));
    int fd = wait_lock_step_end(k, -1);
    ASSERT_GE(fd, 0);
    const std::string failed = "Locking lock file failed: No locks available";
    auto records = k.messages();
    ASSERT_GE(records.size(), 2u);
    EXPECT_EQ(records[0], (e2e::log_record{'E', "keldra.cc", records[0].line, failed}));
    EXPECT_EQ(records[1], (e2e::log_record{'D', "keldra.cc", records[1].line,
                                           finished_with(pid, -1, fd)}));
    expect_continued_by(k, 'E', failed, 'D', finished_with(pid, -1, fd));
    expect_platform_record(k, 'E', failed);
    ASSERT_GE(k.wait_for_message('I', launched(pid), 30s), 0);
    for (const char *part : {"File is not locked", "Wait till", "Looking for", "Pid of lock"})
        EXPECT_FALSE(any_message_contains(k, part)) << part;
    EXPECT_EQ(lock_owner(lock_path), std::nullopt);
    EXPECT_EQ(e2e::read_file(lock_path), "");
}

// ---------------------------------------------------------------- holders

TEST_F(Lock, FailedLockTestStopsTheWaitAndTheNextPassTakesTheLock)
{
    create_readiness_events();
    holder &h = add_holder("exit", {"--on-term", "exit"});
    ASSERT_GT(h.pid, 0);
    e2e::scenario k(with_fault("test"));
    ASSERT_TRUE(start(k));
    int fd = wait_lock_step_end(k, 0);
    ASSERT_GE(fd, 0);
    const std::string failed = "lock test failed: No locks available";
    k.expect_in_order({{'I', wait_till_ready(pid)},
                       {'W', wait_successful(pid)},
                       {'E', looking_for},
                       {'E', link_to_lock},
                       {'E', pid_of_lock(pid, h.pid)},
                       {'E', killing(pid, h.pid)},
                       {'E', failed},
                       {'E', died_after(pid, h.pid, 0)},
                       {'D', not_locked(pid)},
                       {'D', finished_with(pid, 0, fd)}});
    expect_continued_by(k, 'E', failed, 'E', died_after(pid, h.pid, 0));
    expect_platform_record(k, 'E', failed);
    EXPECT_EQ(k.count_messages('E', killing(pid, h.pid)), 1);
    EXPECT_EQ(reap_holder(h), exit_status::with_code(0));
    EXPECT_EQ(holder_events(h, "term").size(), 1u);
    EXPECT_EQ(lock_owner(lock_path), pid);
    EXPECT_EQ(e2e::read_file(lock_path), std::to_string(pid) + "\n");
}

TEST_F(Lock, UnresolvableLockPathFindsNoHolderAndTheStartGoesOnWithoutLock)
{
    create_readiness_events();
    holder &h = add_holder("plain", {"--on-term", "exit"});
    ASSERT_GT(h.pid, 0);
    e2e::scenario k(with_fault("realpath"));
    ASSERT_TRUE(start(k));
    int fd = wait_lock_step_end(k, 0);
    ASSERT_GE(fd, 0);
    k.expect_in_order({{'I', wait_till_ready(pid)},
                       {'W', wait_successful(pid)},
                       {'E', "Get readpath error: No such file or directory\n"},
                       {'E', "Looking for (null) ...\n"},
                       {'E', pid_of_lock(pid, -1)},
                       {'D', finished_with(pid, 0, fd)}});
    for (const char *part : {"Link:", "Killing", "Seems process", "File is not locked"})
        EXPECT_FALSE(any_message_contains(k, part)) << part;
    EXPECT_TRUE(holder_events(h, "term").empty());
    EXPECT_EQ(lock_owner(lock_path), h.pid);
    EXPECT_GE(k.wait_for_message('I', launched(pid), 30s), 0);
}

// A holder in a mount namespace of its own: the link of its descriptor names
// another path than the lock file's, so the scan finds nobody.
class HolderElsewhere : public Lock {
protected:
    void start_holder_elsewhere()
    {
        ASSERT_TRUE(e2e::write_file(lock_path, "stale\n", 0600));
        holder &h = add_holder("view", {"--view", "/tmp/lockview", "--on-term", "exit"});
        ASSERT_GT(h.pid, 0);
        holder_pid = h.pid;
        EXPECT_EQ(h.ready["link"], "/tmp/lockview/keldra.lock");
        // As the supervisor's namespace sees it.
        EXPECT_TRUE(descriptors_of(h.pid, lock_path).empty());
        EXPECT_EQ(descriptors_of(h.pid, "/tmp/lockview/keldra.lock").size(), 1u);
        EXPECT_EQ(lock_owner(lock_path), h.pid);
    }

    // After the lock step: one readiness wait, no holder, no lock.
    void expect_no_holder_found(e2e::scenario &k, char wait_level, const std::string &wait_text)
    {
        int fd = wait_lock_step_end(k, 0);
        ASSERT_GE(fd, 0);
        k.expect_in_order({{'I', wait_till_ready(pid)},
                           {wait_level, wait_text},
                           {'E', looking_for},
                           {'E', pid_of_lock(pid, -1)},
                           {'D', finished_with(pid, 0, fd)}});
        expect_platform_record(k, 'E', pid_of_lock(pid, -1));
        expect_platform_record(k, 'E', looking_for, "keldra_find_process_by_lock");
        ASSERT_GE(k.wait_for_message('I', launched(pid), 30s), 0);
        EXPECT_EQ(k.count_messages('I', wait_till_ready(pid)), 1);
        EXPECT_EQ(k.count_messages(wait_level, wait_text), 1);
        EXPECT_EQ(k.count_messages('E', looking_for), 1);
        for (const char *part : {"Link:", "Killing", "Seems process", "File is not locked",
                                 "Failed TesselWaitMultiEvents"})
            EXPECT_FALSE(any_message_contains(k, part)) << part;
        EXPECT_EQ(lock_owner(lock_path), holder_pid);
        EXPECT_EQ(e2e::read_file(lock_path), "stale\n");
        EXPECT_TRUE(holder_events(holders.back(), "term").empty());
        EXPECT_TRUE(e2e::process_alive(holder_pid));
    }

    pid_t holder_pid = -1;
};

TEST_F(HolderElsewhere, IsNotFoundAfterAReadinessWaitThatTimesOut)
{
    start_holder_elsewhere();
    e2e::scenario k;
    ASSERT_TRUE(start(k));
    ASSERT_GE(k.wait_for_message('W', wait_timeout(pid), 50s), 0);
    expect_no_holder_found(k, 'W', wait_timeout(pid));
    double waited = seconds_between(k, 'I', wait_till_ready(pid), 'W', wait_timeout(pid));
    EXPECT_GE(waited, 29.9);
    EXPECT_LT(waited, 45.0);
    expect_platform_record(k, 'W', wait_timeout(pid));
}

TEST_F(HolderElsewhere, IsNotFoundAfterAnImmediateReadinessWait)
{
    create_readiness_events();
    start_holder_elsewhere();
    e2e::scenario k;
    ASSERT_TRUE(start(k));
    expect_no_holder_found(k, 'W', wait_successful(pid));
    EXPECT_LT(seconds_between(k, 'I', wait_till_ready(pid), 'W', wait_successful(pid)), 5.0);
    expect_platform_record(k, 'I', wait_till_ready(pid));
    expect_platform_record(k, 'W', wait_successful(pid));
    // Releasing a lock it never took still runs at shutdown.
    stop_and_expect_release(k, 0);
    EXPECT_EQ(lock_owner(lock_path), holder_pid);
}

TEST_F(Lock, HolderReleasingWithinFiveSecondsOfSigtermIsSeenFreeAfterOneAttempt)
{
    create_readiness_events();
    holder &h = add_holder("release", {"--on-term", "release", "--release-ms", "1500"});
    ASSERT_GT(h.pid, 0);
    e2e::scenario k;
    ASSERT_TRUE(start(k));
    int fd = wait_lock_step_end(k, 0);
    ASSERT_GE(fd, 0);
    k.expect_in_order({{'I', wait_till_ready(pid)},
                       {'W', wait_successful(pid)},
                       {'E', looking_for},
                       {'E', link_to_lock},
                       {'E', pid_of_lock(pid, h.pid)},
                       {'E', killing(pid, h.pid)},
                       {'E', died_after(pid, h.pid, 1)},
                       {'D', not_locked(pid)},
                       {'D', finished_with(pid, 0, fd)}});
    expect_platform_record(k, 'E', link_to_lock);
    expect_platform_record(k, 'E', killing(pid, h.pid));
    expect_platform_record(k, 'E', died_after(pid, h.pid, 1));
    double waited = seconds_between(k, 'E', killing(pid, h.pid), 'E', died_after(pid, h.pid, 1));
    EXPECT_GE(waited, 5.0);
    EXPECT_LT(waited, 10.0);
    EXPECT_EQ(k.count_messages('I', wait_till_ready(pid)), 1);
    EXPECT_EQ(k.count_messages('E', killing(pid, h.pid)), 1);
    EXPECT_EQ(reap_holder(h), exit_status::with_code(0));
    EXPECT_EQ(holder_events(h, "term").size(), 1u);
    EXPECT_EQ(holder_events(h, "released").size(), 1u);
    EXPECT_EQ(lock_owner(lock_path), pid);
    EXPECT_EQ(e2e::read_file(lock_path), std::to_string(pid) + "\n");
}

// A holder that lets the lock go while the supervisor waits for readiness,
// but keeps the file open, so the scan still finds and signals it.
class ReleasedHolder : public Lock {
protected:
    // Runs the lock step up to its end; returns the lock descriptor or -1.
    int take_lock_released_before_the_first_test(e2e::scenario &k)
    {
        holder &h = add_holder("usr1", {"--release-on-usr1", "--on-term", "ignore"});
        holder_pid = h.pid;
        if (h.pid <= 0 || !start(k) || k.wait_for_message('I', wait_till_ready(pid)) < 0)
            return -1;
        EXPECT_EQ(kill(h.pid, SIGUSR1), 0);
        if (!e2e::wait_until([&] { return !holder_events(h, "released").empty(); }, 10s,
                             "the holder's release"))
            return -1;
        EXPECT_EQ(lock_owner(lock_path), std::nullopt);
        create_readiness_events();
        return wait_lock_step_end(k, 0);
    }

    pid_t holder_pid = -1;
};

TEST_F(ReleasedHolder, GivesZeroAttempts)
{
    e2e::scenario k;
    int fd = take_lock_released_before_the_first_test(k);
    ASSERT_GE(fd, 0);
    const pid_t h = holder_pid;
    k.expect_in_order({{'I', wait_till_ready(pid)},
                       {'W', wait_successful(pid)},
                       {'E', looking_for},
                       {'E', link_to_lock},
                       {'E', pid_of_lock(pid, h)},
                       {'E', killing(pid, h)},
                       {'E', died_after(pid, h, 0)},
                       {'D', not_locked(pid)},
                       {'D', finished_with(pid, 0, fd)}});
    EXPECT_LT(seconds_between(k, 'E', killing(pid, h), 'E', died_after(pid, h, 0)), 5.0);
    EXPECT_TRUE(e2e::wait_until([&] { return holder_events(holders.back(), "term").size() == 1; },
                                10s, "one SIGTERM noted by the holder"));
    EXPECT_TRUE(e2e::process_alive(h));
    EXPECT_EQ(descriptors_of(h, lock_path).size(), 1u);
    EXPECT_EQ(lock_owner(lock_path), pid);
    EXPECT_EQ(e2e::read_file(lock_path), std::to_string(pid) + "\n");
}

// Every message of the lock step names, in the platform log, the function in
// whose body it stands: the step itself (keldra_lock) or the two functions it
// calls (keldra_find_process_by_lock, keldra_write_pidfile).
TEST_F(ReleasedHolder, PlatformRecordsNameTheFunctionsOfTheLockStep)
{
    e2e::scenario k;
    int fd = take_lock_released_before_the_first_test(k);
    ASSERT_GE(fd, 0);
    const pid_t h = holder_pid;
    expect_platform_record(k, 'I', wait_till_ready(pid), "keldra_lock");
    expect_platform_record(k, 'W', wait_successful(pid), "keldra_lock");
    expect_platform_record(k, 'E', looking_for, "keldra_find_process_by_lock");
    expect_platform_record(k, 'E', link_to_lock, "keldra_find_process_by_lock");
    expect_platform_record(k, 'E', pid_of_lock(pid, h), "keldra_lock");
    expect_platform_record(k, 'E', killing(pid, h), "keldra_lock");
    expect_platform_record(k, 'E', died_after(pid, h, 0), "keldra_lock");
    expect_platform_record(k, 'D', not_locked(pid), "keldra_lock");
    expect_platform_record(k, 'D', finished_with(pid, 0, fd), "keldra_lock");
}

TEST_F(Lock, FailedReadinessWaitAndUnreadableProcFindNoHolder)
{
    holder &h = add_holder("plain", {"--on-term", "exit"});
    ASSERT_GT(h.pid, 0);
    e2e::scenario k(with_fault("tessel,opendir"));
    ASSERT_TRUE(start(k));
    int fd = wait_lock_step_end(k, 0);
    ASSERT_GE(fd, 0);
    const std::string wait_failed =
        format_text("[P %5ld] Failed TesselWaitMultiEvents. Error: %d\n", long(pid), -5);
    k.expect_in_order({{'I', wait_till_ready(pid)},
                       {'E', wait_failed},
                       {'E', looking_for},
                       {'E', "can't open /proc\n"},
                       {'E', pid_of_lock(pid, -1)},
                       {'D', finished_with(pid, 0, fd)}});
    expect_platform_record(k, 'E', wait_failed);
    expect_platform_record(k, 'E', "can't open /proc\n", "keldra_find_process_by_lock");
    for (const char *part : {"Wait children", "Link:", "Killing", "File is not locked"})
        EXPECT_FALSE(any_message_contains(k, part)) << part;
    EXPECT_TRUE(holder_events(h, "term").empty());
    EXPECT_EQ(lock_owner(lock_path), h.pid);
    EXPECT_GE(k.wait_for_message('I', launched(pid), 30s), 0);
}

TEST_F(Lock, HolderIgnoringSigtermGetsThreeTestsAndANewSigtermEveryPass)
{
    create_readiness_events();
    holder &h = add_holder("ignore", {"--on-term", "ignore"});
    ASSERT_GT(h.pid, 0);
    e2e::scenario k;
    ASSERT_TRUE(start(k));
    ASSERT_GE(k.wait_for_message('E', died_after(pid, h.pid, 3), 30s), 0);
    // Two passes are enough: once the second SIGTERM is out, the holder goes
    // for good, and the second pass sees the lock free after one pause.
    ASSERT_GE(k.wait_for_message('E', killing(pid, h.pid), 15s, 2), 0);
    EXPECT_TRUE(e2e::wait_until([&] { return holder_events(h, "term").size() == 2; }, 10s,
                                "two SIGTERMs noted by the holder"));
    end_holder(h);
    int fd = wait_lock_step_end(k, 0, lock_path, 20s);
    ASSERT_GE(fd, 0);
    k.expect_in_order({{'I', wait_till_ready(pid)},
                       {'W', wait_successful(pid)},
                       {'E', looking_for},
                       {'E', link_to_lock},
                       {'E', pid_of_lock(pid, h.pid)},
                       {'E', killing(pid, h.pid)},
                       {'E', died_after(pid, h.pid, 3)},
                       {'I', wait_till_ready(pid)},
                       {'W', wait_successful(pid)},
                       {'E', looking_for},
                       {'E', link_to_lock},
                       {'E', pid_of_lock(pid, h.pid)},
                       {'E', killing(pid, h.pid)},
                       {'E', died_after(pid, h.pid, 1)},
                       {'D', not_locked(pid)},
                       {'D', finished_with(pid, 0, fd)}});
    // Three tests 5 s apart and no fourth pause; the next pass follows at once.
    double pass = seconds_between(k, 'E', killing(pid, h.pid), 'E', died_after(pid, h.pid, 3));
    EXPECT_GE(pass, 15.0);
    EXPECT_LT(pass, 20.0);
    std::string raw = k.stderr_text();
    auto second_kill = stamp_of(raw, 'E', killing(pid, h.pid), 2);
    auto first_end = stamp_of(raw, 'E', died_after(pid, h.pid, 3));
    ASSERT_TRUE(second_kill && first_end);
    EXPECT_LT(*second_kill - *first_end, 5.0);
    EXPECT_EQ(k.count_messages('I', wait_till_ready(pid)), 2);
    EXPECT_EQ(k.count_messages('E', killing(pid, h.pid)), 2);
    EXPECT_EQ(lock_owner(lock_path), pid);
    EXPECT_EQ(e2e::read_file(lock_path), std::to_string(pid) + "\n");
}

TEST_F(Lock, FirstProcessInProcOrderWithTheFileOpenIsTakenForTheHolder)
{
    create_readiness_events();
    // The opener comes first in /proc (lower pid) but holds no lock; the
    // locker lets the lock go 0.5 s after its SIGTERM.
    holder &opener = add_holder("opener", {"--no-lock", "--on-term", "exit"});
    holder &locker = add_holder("locker", {"--on-term", "release", "--release-ms", "500"});
    ASSERT_GT(opener.pid, 0);
    ASSERT_GT(locker.pid, 0);
    ASSERT_LT(opener.pid, locker.pid);
    ASSERT_EQ(lock_owner(lock_path), locker.pid);
    e2e::scenario k;
    ASSERT_TRUE(start(k));
    ASSERT_GE(k.wait_for_message('E', died_after(pid, opener.pid, 3), 30s), 0);
    EXPECT_EQ(reap_holder(opener), exit_status::with_code(0));
    int fd = wait_lock_step_end(k, 0, lock_path, 20s);
    ASSERT_GE(fd, 0);
    k.expect_in_order({{'I', wait_till_ready(pid)},
                       {'W', wait_successful(pid)},
                       {'E', looking_for},
                       {'E', link_to_lock},
                       {'E', pid_of_lock(pid, opener.pid)},
                       {'E', killing(pid, opener.pid)},
                       {'E', died_after(pid, opener.pid, 3)},
                       {'I', wait_till_ready(pid)},
                       {'W', wait_successful(pid)},
                       {'E', looking_for},
                       {'E', link_to_lock},
                       {'E', pid_of_lock(pid, locker.pid)},
                       {'E', killing(pid, locker.pid)},
                       {'E', died_after(pid, locker.pid, 1)},
                       {'D', not_locked(pid)},
                       {'D', finished_with(pid, 0, fd)}});
    EXPECT_EQ(k.count_messages('E', link_to_lock), 2);
    EXPECT_EQ(holder_events(opener, "term").size(), 1u);
    EXPECT_EQ(reap_holder(locker), exit_status::with_code(0));
    EXPECT_EQ(holder_events(locker, "term").size(), 1u);
    EXPECT_EQ(lock_owner(lock_path), pid);
}

} // namespace
