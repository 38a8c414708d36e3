// End-to-end scenarios of the database recovery that runs inside the
// application-policy launcher's event loop: the recovery markers in the three
// watched directories, the reinstall marker and its Smack label, the restore
// script and its timings, the removal of the watches after every restore
// decision and their re-arming after the next death of orvel.
//
// The real restore script removes /opt/dbspace/pkgreinstall when it has
// rebuilt the package database; the simulated one does not, so where a test
// plays that part it removes the marker itself while the script runs.
#include "harness.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <map>

namespace {

using namespace std::chrono_literals;
using e2e::exit_status;
using e2e::format_text;
using e2e::log_record;

constexpr const char *orvel_source = "orvel-launcher.cc";
constexpr const char *restore_script = "/usr/bin/restore_zelto_db.sh";
constexpr const char *pkgreinstall = "/opt/dbspace/pkgreinstall";
constexpr const char *running_marker = "/run/restore_zelto_db_sh.running";
constexpr const char *skip_text = "inotify event is received for /run/. skip monitoring path...\n";
constexpr const char *pellan_marker_text = "inotify event is received for /var/pellan/db-recovered\n";

// ---------------------------------------------------------------------------
// Messages

struct line {
    char level;
    std::string text;
    std::string file = orvel_source;
};

bool matches(const log_record &record, const line &expected)
{
    return record.level == expected.level && record.text == expected.text &&
           record.file == expected.file;
}

int find_line(const std::vector<log_record> &records, const line &expected, int from = 0)
{
    for (int i = std::max(from, 0); i < int(records.size()); ++i)
        if (matches(records[size_t(i)], expected))
            return i;
    return -1;
}

int count_lines(const std::vector<log_record> &records, const line &expected)
{
    return int(std::count_if(records.begin(), records.end(),
                             [&](const log_record &r) { return matches(r, expected); }));
}

int count_lines(const e2e::scenario &keldra, const line &expected)
{
    return count_lines(keldra.messages(), expected);
}

// Checks that the lines appear in this order from index `from` on (other
// messages may come between them); returns the index of the last one, or -1
// after a test failure naming the first missing line.
int expect_sequence(const std::vector<log_record> &records, const std::vector<line> &expected,
                    int from = 0, e2e::where loc = e2e::where::current())
{
    int at = from - 1;
    for (const line &l : expected) {
        int found = find_line(records, l, at + 1);
        if (found < 0) {
            ADD_FAILURE_AT(loc.file_name(), int(loc.line()))
                << "missing in order after record " << at << ": [" << l.level << "]["
                << l.file << "] \"" << e2e::visible(l.text) << "\" (present "
                << count_lines(records, l) << " times in all)";
            return -1;
        }
        at = found;
    }
    return at;
}

int find_prefix(const std::vector<log_record> &records, char level, std::string_view prefix,
                int from = 0)
{
    for (int i = std::max(from, 0); i < int(records.size()); ++i) {
        const log_record &r = records[size_t(i)];
        if (r.level == level && r.file == orvel_source && r.text.starts_with(prefix))
            return i;
    }
    return -1;
}

int count_prefix(const std::vector<log_record> &records, char level, std::string_view prefix)
{
    int n = 0;
    for (int i = find_prefix(records, level, prefix); i >= 0;
         i = find_prefix(records, level, prefix, i + 1))
        ++n;
    return n;
}

int wait_launched(e2e::scenario &keldra, e2e::where loc = e2e::where::current())
{
    return keldra.wait_for_message(
        'I', format_text("keldra launched successfully (pid:%d)\n", keldra.pid()),
        e2e::default_timeout, 1, loc);
}

// ---------------------------------------------------------------------------
// The supervisor's descriptors and watches, as /proc shows them

std::map<int, std::string> fd_targets(pid_t pid)
{
    std::map<int, std::string> targets;
    std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    DIR *d = opendir(dir.c_str());
    if (!d)
        return targets;
    while (dirent *entry = readdir(d)) {
        if (entry->d_name[0] == '.')
            continue;
        char target[512];
        std::string path = dir + "/" + entry->d_name;
        ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
        if (n > 0)
            targets[atoi(entry->d_name)] = std::string(target, size_t(n));
    }
    closedir(d);
    return targets;
}

std::string fdinfo(pid_t pid, int fd)
{
    return e2e::read_file("/proc/" + std::to_string(pid) + "/fdinfo/" + std::to_string(fd))
        .value_or("");
}

// The signal descriptor of the event loop (the process has only one).
int signal_fd_of(pid_t pid)
{
    for (const auto &[fd, target] : fd_targets(pid))
        if (target == "anon_inode:[signalfd]")
            return fd;
    return -1;
}

// The inotify instance of the directory watches: the one registered with the
// epoll instance of the event loop.
int directory_inotify_fd(pid_t pid)
{
    auto targets = fd_targets(pid);
    for (const auto &[fd, target] : targets) {
        if (target != "anon_inode:[eventpoll]")
            continue;
        std::string info = fdinfo(pid, fd);
        for (size_t at = info.find("tfd:"); at != std::string::npos;
             at = info.find("tfd:", at + 4)) {
            int tfd = -1;
            if (sscanf(info.c_str() + at, "tfd: %d", &tfd) == 1 &&
                targets[tfd] == "anon_inode:inotify")
                return tfd;
        }
    }
    return -1;
}

// Watch descriptor per watched directory, from the instance's fdinfo.
std::map<std::string, int> directory_watches(pid_t pid)
{
    std::map<std::string, int> result;
    std::string info = fdinfo(pid, directory_inotify_fd(pid));
    for (const char *dir : {"/run", "/opt/dbspace", "/var/pellan"}) {
        struct stat st = {};
        if (stat(dir, &st) != 0)
            continue;
        const unsigned sdev = (major(st.st_dev) << 20) | minor(st.st_dev);
        for (size_t at = info.find("inotify wd:"); at != std::string::npos;
             at = info.find("inotify wd:", at + 11)) {
            int wd = -1;
            unsigned long ino = 0;
            unsigned dev = 0, mask = 0;
            if (sscanf(info.c_str() + at, "inotify wd:%d ino:%lx sdev:%x mask:%x", &wd, &ino,
                       &dev, &mask) == 4 &&
                ino == (unsigned long)st.st_ino && dev == sdev && (mask & 0xfff) == IN_CREATE)
                result[dir] = wd;
        }
    }
    return result;
}

// ---------------------------------------------------------------------------
// Scenario steps

// Starts the supervisor and waits until orvel runs and, unless told not to,
// until its socket has been announced and the agent's pid file exists.
bool start_and_settle(e2e::scenario &keldra, bool healthy_daemons = true,
                      e2e::where loc = e2e::where::current())
{
    if (!keldra.start(loc) || wait_launched(keldra, loc) < 0)
        return false;
    if (e2e::wait_for_starts("orvel", 1, e2e::default_timeout, loc).size() != 1)
        return false;
    if (!healthy_daemons)
        return true;
    return e2e::wait_for_file("/run/dunmar.pid", e2e::default_timeout, loc) &&
           keldra.wait_for_message('I', "inotify event is received for /run/orvel.socket\n",
                                   e2e::default_timeout, 1, loc) >= 0;
}

// Waits for the nth run of the restore script to be recorded and returns its
// fields.
std::map<std::string, std::string> wait_for_restore_run(size_t nth,
                                                        e2e::where loc = e2e::where::current())
{
    bool ok = e2e::wait_until([&] { return e2e::restore_runs().size() >= nth; }, 20s,
                              "run " + std::to_string(nth) + " of the restore script", loc);
    return ok ? e2e::restore_runs()[nth - 1] : std::map<std::string, std::string>{};
}

// The reinstall marker as the recovery leaves it: mode 0644, Smack label "_".
void expect_reinstall_marker(e2e::where loc = e2e::where::current())
{
    SCOPED_TRACE(testing::Message() << "expect_reinstall_marker called from line " << loc.line());
    EXPECT_EQ(e2e::file_mode(pkgreinstall), 0644u);
    char label[64] = {};
    ssize_t n = getxattr(pkgreinstall, "security.SMACK64", label, sizeof label);
    EXPECT_EQ(n, 1) << strerror(errno);
    EXPECT_EQ(std::string(label, size_t(std::max<ssize_t>(n, 0))), "_");
}

// The elapsed-time line "<prefix>%5.3ld\n" after `from`: checks the format and
// the range of the seconds; returns them (or -1).
long expect_elapsed(const std::vector<log_record> &records, int from, const std::string &prefix,
                    long min_seconds, long max_seconds, e2e::where loc = e2e::where::current())
{
    int i = find_prefix(records, 'E', prefix, from);
    if (i < 0) {
        ADD_FAILURE_AT(loc.file_name(), int(loc.line())) << "no \"" << prefix << "\" line";
        return -1;
    }
    const std::string &text = records[size_t(i)].text;
    long seconds = strtol(text.c_str() + prefix.size(), nullptr, 10);
    EXPECT_EQ(text, format_text("%s%5.3ld\n", prefix.c_str(), seconds)) << "at line " << loc.line();
    EXPECT_GE(seconds, min_seconds) << "at line " << loc.line();
    EXPECT_LE(seconds, max_seconds) << "at line " << loc.line();
    return seconds;
}

// One restore from the decision on: the lines of the script's run (pid
// script, with its outcome lines), the timings and the sync. Returns the
// index of the sync's last line.
int expect_restore(const std::vector<log_record> &records, int from, pid_t script,
                   const std::vector<line> &outcome, long min_seconds, long max_seconds,
                   e2e::where loc = e2e::where::current())
{
    std::vector<line> expected = {
        {'I', "request to restore zelto database...\n"},
        {'E', "find pkgreinstall. starting to restore zelto database...\n"},
        {'I', format_text("Script (%s)(pid:%d) finished - success\n", restore_script, script)},
    };
    expected.insert(expected.end(), outcome.begin(), outcome.end());
    expected.push_back({'I', format_text("Script(%d) is finished\n", script)});
    int at = expect_sequence(records, expected, from, loc);
    if (at < 0)
        return -1;
    expect_elapsed(records, at + 1, "finished zelto database restore time = ", min_seconds,
                   max_seconds, loc);
    int sync = find_line(records, {'E', "starting pkgreinstall sync...\n"}, at + 1);
    EXPECT_GT(sync, at) << "at line " << loc.line();
    expect_elapsed(records, sync + 1, "finished pkgreinstall sync time = ", 0, 10, loc);
    return find_prefix(records, 'E', "finished pkgreinstall sync time = ", sync + 1);
}

// The SIGCHLD of a child that is not the daemon: read, reported and ignored.
// Waits until the handler thread has logged all of it.
void expect_foreign_sigchld(e2e::scenario &keldra, pid_t sender,
                            e2e::where loc = e2e::where::current())
{
    const std::string received =
        format_text("SIGCHLD signal is received from [pid : %d]\n", sender);
    // The handler thread logs these lines one after the other; the other
    // launchers may log between them.
    std::vector<log_record> records;
    int at = -1;
    e2e::wait_until(
        [&] {
            records = e2e::records_from_file(keldra.messages(), orvel_source);
            at = find_line(records, {'W', received});
            return at >= 0 &&
                   find_prefix(records, 'E', "signal handling is failed...", at + 1) >= 0;
        },
        e2e::default_timeout, "the foreign SIGCHLD handled");
    if (at < 2) {
        ADD_FAILURE_AT(loc.file_name(), int(loc.line())) << "no SIGCHLD from " << sender;
        return;
    }
    EXPECT_TRUE(records[size_t(at - 1)].text.starts_with(format_text(
        "handle signal events(signal read fd : %d / orvel pid : ", signal_fd_of(keldra.pid()))))
        << e2e::describe(records[size_t(at - 1)]);
    const std::string &signaled = records[size_t(at - 2)].text;
    long index = signaled.starts_with("orvel signaled: ")
                     ? strtol(signaled.c_str() + 16, nullptr, 10)
                     : -1;
    EXPECT_EQ(signaled, format_text("orvel signaled: %ld\n", index));
    expect_sequence(records,
                    {{'E', "orvel after handle_signal_event: ret=0\n"},
                     {'E', format_text("signal handling is failed...%ld, ret = 0\n", index)}},
                    at + 1, loc);
}

void stop_keldra(e2e::scenario &keldra, e2e::where loc = e2e::where::current())
{
    SCOPED_TRACE(testing::Message() << "stop_keldra called from line " << loc.line());
    ASSERT_TRUE(keldra.send_signal(SIGTERM));
    EXPECT_EQ(keldra.wait_exit(30s), exit_status::with_code(0));
    EXPECT_EQ(keldra.count_messages('I', "Thread 1 is finished\n"), 1);
}

pid_t pid_field(const std::map<std::string, std::string> &run, const char *key)
{
    auto it = run.find(key);
    return it == run.end() ? -1 : pid_t(atol(it->second.c_str()));
}

// ===========================================================================

TEST(Recovery, OrvelMarkerAfterSocketAndPidFileRestoresOnceThenWatchesAreRemovedUntilTheNextDeath)
{
    ASSERT_TRUE(e2e::write_file(e2e::restore_conf_path, "sleep_ms=1500\n"));
    e2e::scenario keldra;
    ASSERT_TRUE(start_and_settle(keldra));
    const pid_t k = keldra.pid();
    const auto initial_watches = directory_watches(k);
    ASSERT_EQ(initial_watches.size(), 3u);

    ASSERT_TRUE(e2e::write_file("/opt/dbspace/.orvel.db-recovered", ""));
    auto run = wait_for_restore_run(1);
    ASSERT_FALSE(run.empty());
    expect_reinstall_marker();
    ASSERT_TRUE(e2e::remove_file(pkgreinstall)); // as the real script does
    ASSERT_GE(keldra.wait_for_message('I', skip_text, 20s, 3), 0);

    const pid_t script = pid_field(run, "pid");
    EXPECT_EQ(pid_field(run, "ppid"), k);
    EXPECT_EQ(pid_field(run, "sid"), script) << "the script runs in a session of its own";
    EXPECT_EQ(e2e::fork_label(script), "System::Privileged");
    auto records = keldra.messages();
    int marker = find_line(records,
                           {'I', "inotify event is received for /opt/dbspace/.orvel.db-recovered\n"});
    ASSERT_GE(marker, 0);
    int done = expect_restore(records, marker + 1, script, {{'I', "Return value : 0\n"}}, 1, 4);
    ASSERT_GE(done, 0);
    EXPECT_GE(expect_sequence(records, {{'I', skip_text}, {'I', skip_text}, {'I', skip_text}},
                              done + 1),
              0);
    expect_foreign_sigchld(keldra, script);
    auto platform = keldra.platform_messages();
    int p = e2e::find_platform_message(platform, 6,
                                       "find pkgreinstall. starting to restore zelto database...\n");
    ASSERT_GE(p, 0);
    EXPECT_EQ(platform[size_t(p)].function, "restore_zelto_db");
    EXPECT_EQ(platform[size_t(p)].tag, "KELDRA");

    // Disarmed: no watch left, and a new marker goes unseen.
    EXPECT_TRUE(directory_watches(k).empty()) << fdinfo(k, directory_inotify_fd(k));
    ASSERT_TRUE(e2e::remove_file("/opt/dbspace/.orvel.db-recovered"));
    ASSERT_TRUE(e2e::write_file("/opt/dbspace/.orvel.db-recovered", ""));
    EXPECT_TRUE(e2e::stays_true(
        [&] {
            return count_lines(keldra, {'I', "inotify event is received for "
                                             "/opt/dbspace/.orvel.db-recovered\n"}) == 1 &&
                   e2e::restore_runs().size() == 1 && !e2e::exists(pkgreinstall);
        },
        1s, "no reaction while the watches are removed"));
    EXPECT_EQ(count_lines(keldra, {'I', "request to restore zelto database...\n"}), 1);
    EXPECT_EQ(count_prefix(keldra.messages(), 'E', "failed to remove inotify watch"), 0);

    // The next death re-arms the watches (new descriptors, the old ones were
    // removed) and the next marker restores again.
    const pid_t orvel = e2e::starts("orvel").at(0).pid;
    // The script's own SIGCHLD must have been read, or the death merges with it.
    ASSERT_TRUE(e2e::wait_for_no_pending_sigchld(k));
    ASSERT_EQ(kill(orvel, SIGKILL), 0);
    ASSERT_EQ(e2e::wait_for_starts("orvel", 2).size(), 2u);
    ASSERT_GE(keldra.wait_for_message('I', "inotify event is received for /run/orvel.socket\n",
                                      e2e::default_timeout, 2),
              0);
    auto watches = directory_watches(k);
    ASSERT_EQ(watches.size(), 3u);
    for (const auto &[dir, wd] : watches)
        EXPECT_NE(wd, initial_watches.at(dir)) << dir;
    records = keldra.messages();
    EXPECT_GE(expect_sequence(
                  records,
                  {{'E', format_text("orvel(%d) is dead...\n", orvel)},
                   {'E', format_text("inotify watch path: /run fd: %d is created...\n",
                                     watches["/run"])},
                   {'E', format_text("inotify watch path: /opt/dbspace fd: %d is created...\n",
                                     watches["/opt/dbspace"])},
                   {'E', format_text("inotify watch path: /var/pellan fd: %d is created...\n",
                                     watches["/var/pellan"])},
                   {'E', "launching orvel...\n"}},
                  done),
              0);
    ASSERT_TRUE(e2e::remove_file("/opt/dbspace/.orvel.db-recovered"));
    ASSERT_TRUE(e2e::write_file("/opt/dbspace/.orvel.db-recovered", ""));
    auto second_run = wait_for_restore_run(2);
    ASSERT_FALSE(second_run.empty());
    expect_reinstall_marker();
    ASSERT_TRUE(e2e::remove_file(pkgreinstall));
    ASSERT_GE(keldra.wait_for_message('I', skip_text, 20s, 6), 0);
    records = keldra.messages();
    int second = find_line(records,
                           {'I', "inotify event is received for /opt/dbspace/.orvel.db-recovered\n"},
                           marker + 1);
    ASSERT_GT(second, marker);
    EXPECT_GE(expect_restore(records, second + 1, pid_field(second_run, "pid"),
                             {{'I', "Return value : 0\n"}}, 1, 4),
              0);
    EXPECT_TRUE(directory_watches(k).empty());
    stop_keldra(keldra);
}

TEST(Recovery, OrvelMarkerBeforeSocketAndPidFileWaitsForBothAndAFurtherRecord)
{
    e2e::write_settings("orvel", "no_ready=1\n");
    e2e::write_settings("dunmar", "no_ready=1\n");
    ASSERT_TRUE(e2e::write_file(e2e::restore_conf_path, "sleep_ms=1500\n"));
    e2e::scenario keldra;
    ASSERT_TRUE(start_and_settle(keldra, false));
    ASSERT_EQ(e2e::wait_for_steps("dunmar", "ready-skipped", 1).size(), 1u);
    // Every ready file of the start-up is there: no record is still to come.
    for (const char *ready : {"/run/pellan.ready", "/run/tavish.ready", "/run/keldra.ready"})
        ASSERT_TRUE(e2e::wait_for_file(ready));
    // Files are moved into /run from a directory of its own: a move is no
    // creation, so it makes no record of the /run watch.
    ASSERT_TRUE(e2e::make_directory("/run/staging", 0755));
    ASSERT_TRUE(e2e::write_file("/run/staging/orvel.socket", ""));
    ASSERT_TRUE(e2e::write_file("/run/staging/dunmar.pid", "1\n"));

    ASSERT_TRUE(e2e::write_file("/opt/dbspace/.orvel.db-recovered", ""));
    ASSERT_GE(keldra.wait_for_message(
                  'I', "inotify event is received for /opt/dbspace/.orvel.db-recovered\n"),
              0);
    ASSERT_TRUE(e2e::wait_for_file(pkgreinstall));
    expect_reinstall_marker();
    auto no_restore = [&] {
        return keldra.count_messages('I', "request to restore zelto database...\n") == 0 &&
               e2e::restore_runs().empty();
    };
    EXPECT_TRUE(e2e::stays_true(no_restore, 700ms, "no restore without the socket"));

    ASSERT_EQ(rename("/run/staging/orvel.socket", "/run/orvel.socket"), 0) << strerror(errno);
    EXPECT_TRUE(e2e::stays_true(no_restore, 700ms, "no restore without the pid file"));
    ASSERT_EQ(rename("/run/staging/dunmar.pid", "/run/dunmar.pid"), 0) << strerror(errno);
    EXPECT_TRUE(e2e::stays_true(no_restore, 700ms, "no restore before a further record"));

    ASSERT_TRUE(e2e::write_file("/run/further", ""));
    auto run = wait_for_restore_run(1);
    ASSERT_FALSE(run.empty());
    ASSERT_TRUE(e2e::remove_file(pkgreinstall));
    ASSERT_GE(keldra.wait_for_message('I', skip_text, 20s, 3), 0);
    auto records = keldra.messages();
    int marker = find_line(records,
                           {'I', "inotify event is received for /opt/dbspace/.orvel.db-recovered\n"});
    int done = expect_restore(records, marker + 1, pid_field(run, "pid"),
                              {{'I', "Return value : 0\n"}}, 1, 4);
    EXPECT_GE(done, 0);
    EXPECT_EQ(count_lines(records, {'I', "inotify event is received for /run/orvel.socket\n"}), 0)
        << "the socket was never announced by a record";
    EXPECT_EQ(count_lines(records, {'I', "request to restore zelto database...\n"}), 1);
    EXPECT_EQ(count_lines(records, {'I', skip_text}), 3);
    EXPECT_TRUE(directory_watches(keldra.pid()).empty());
    stop_keldra(keldra);
}

TEST(Recovery, CheckerMarkerWhileARestoreIsUnderWayRunsNoScriptButRemovesTheWatches)
{
    e2e::write_settings("orvel", "no_ready=1\n");
    e2e::scenario keldra;
    ASSERT_TRUE(start_and_settle(keldra, false));
    for (const char *ready : {"/run/dunmar.pid", "/run/pellan.ready", "/run/tavish.ready"})
        ASSERT_TRUE(e2e::wait_for_file(ready));
    ASSERT_TRUE(e2e::write_file(running_marker, ""));

    // The marker of the checker: reported by its name and again by the file
    // test; the reinstall marker created for it is another record, for which
    // the file test reports it once more (as for any record while the file
    // exists). No socket yet: no decision, however many records come.
    ASSERT_TRUE(e2e::write_file("/var/pellan/db-recovered", ""));
    ASSERT_GE(keldra.wait_for_message('I', pellan_marker_text, e2e::default_timeout, 3), 0);
    expect_reinstall_marker();
    const int reports = keldra.count_messages('I', pellan_marker_text);
    EXPECT_TRUE(e2e::stays_true(
        [&] { return keldra.count_messages('I', pellan_marker_text) == reports; }, 500ms,
        "no further report without a further record"));

    // The socket's record completes the conditions; a restore is under way,
    // so none is started, and the watches go all the same.
    ASSERT_TRUE(e2e::write_file("/run/orvel.socket", ""));
    ASSERT_GE(keldra.wait_for_message('I', skip_text, e2e::default_timeout, 3), 0);
    auto records = keldra.messages();
    int first = find_line(records, {'I', pellan_marker_text});
    EXPECT_GE(expect_sequence(records,
                              {{'I', pellan_marker_text},
                               {'I', pellan_marker_text},
                               {'I', pellan_marker_text},
                               {'I', "inotify event is received for /run/orvel.socket\n"},
                               {'I', pellan_marker_text},
                               {'I', skip_text},
                               {'I', skip_text},
                               {'I', skip_text}},
                              first),
              0);
    EXPECT_EQ(count_lines(records, {'I', pellan_marker_text}), reports + 1);
    EXPECT_EQ(count_lines(records, {'I', "request to restore zelto database...\n"}), 0);
    EXPECT_EQ(count_prefix(records, 'E', "find pkgreinstall"), 0);
    EXPECT_EQ(count_prefix(records, 'E', "failed to remove inotify watch"), 0);
    EXPECT_TRUE(directory_watches(keldra.pid()).empty());
    EXPECT_TRUE(e2e::restore_runs().empty());
    ASSERT_TRUE(e2e::write_file("/run/another", ""));
    ASSERT_TRUE(e2e::write_file("/var/pellan/another", ""));
    EXPECT_TRUE(e2e::stays_true(
        [&] {
            return keldra.count_messages('I', pellan_marker_text) == reports + 1 &&
                   keldra.count_messages('I', skip_text) == 3 && e2e::restore_runs().empty();
        },
        700ms, "nothing more is seen"));
    stop_keldra(keldra);
}

TEST(Recovery, DbRecoveredCreatedInRunCountsAsTheCheckersMarkerAndASlowRestoreShowsTwoSeconds)
{
    ASSERT_TRUE(e2e::write_file(e2e::restore_conf_path, "sleep_ms=2700\n"));
    e2e::scenario keldra;
    ASSERT_TRUE(start_and_settle(keldra));
    ASSERT_TRUE(e2e::write_file("/run/db-recovered", ""));
    auto run = wait_for_restore_run(1);
    ASSERT_FALSE(run.empty());
    expect_reinstall_marker();
    ASSERT_TRUE(e2e::remove_file(pkgreinstall));
    ASSERT_GE(keldra.wait_for_message('I', skip_text, 20s, 3), 0);
    auto records = keldra.messages();
    int marker = find_line(records, {'I', pellan_marker_text});
    ASSERT_GE(marker, 0);
    EXPECT_EQ(count_lines(records, {'I', pellan_marker_text}), 1)
        << "only the name matched: /var/pellan/db-recovered does not exist";
    EXPECT_FALSE(e2e::exists("/var/pellan/db-recovered"));
    const pid_t script = pid_field(run, "pid");
    int done = expect_restore(records, marker + 1, script, {{'I', "Return value : 0\n"}}, 2, 4);
    ASSERT_GE(done, 0);
    EXPECT_GE(find_line(records, {'E', "finished zelto database restore time =   002\n"}), 0)
        << "2.7 s print as 002 unless the machine is very slow";
    expect_foreign_sigchld(keldra, script);
    EXPECT_EQ(count_lines(records, {'I', skip_text}), 3);
    stop_keldra(keldra);
}

TEST(Recovery, RestoreScriptThatCannotBeExecutedStillFinishesWithSuccess)
{
    // The reinstall marker is there from the start, the socket is not: the
    // restore is decided when the socket appears.
    e2e::write_settings("orvel", "no_ready=1\n");
    ASSERT_TRUE(e2e::write_file(pkgreinstall, "", 0644));
    ASSERT_EQ(chmod(restore_script, 0644), 0) << strerror(errno);
    e2e::scenario keldra;
    ASSERT_TRUE(start_and_settle(keldra, false));
    for (const char *ready : {"/run/dunmar.pid", "/run/pellan.ready", "/run/tavish.ready"})
        ASSERT_TRUE(e2e::wait_for_file(ready));
    EXPECT_TRUE(e2e::stays_true(
        [&] { return keldra.count_messages('I', "request to restore zelto database...\n") == 0; },
        500ms, "no restore without the socket"));
    ASSERT_TRUE(e2e::write_file("/run/orvel.socket", ""));
    ASSERT_GE(keldra.wait_for_message('I', skip_text, e2e::default_timeout, 3), 0);

    auto records = keldra.messages();
    int finished = find_prefix(records, 'I', "Script(");
    ASSERT_GE(finished, 0);
    const pid_t child = pid_t(strtol(records[size_t(finished)].text.c_str() + 7, nullptr, 10));
    int socket = find_line(records, {'I', "inotify event is received for /run/orvel.socket\n"});
    ASSERT_GE(socket, 0);
    int done = expect_restore(records, socket + 1, child, {{'I', "Return value : 0\n"}}, 0, 2);
    ASSERT_GE(done, 0);
    // The child reports the failed exec itself, then exits with 0.
    int exec_failed = find_line(records, {'E', format_text("Cann't execl script: %d\n", EACCES)});
    EXPECT_GT(exec_failed, find_line(records, {'E', "find pkgreinstall. starting to restore "
                                                    "zelto database...\n"}));
    EXPECT_LT(exec_failed, find_prefix(records, 'I', "Script (/usr/bin/restore_zelto_db.sh)"));
    EXPECT_EQ(e2e::fork_label(child), "System::Privileged");
    EXPECT_TRUE(e2e::restore_runs().empty());
    EXPECT_EQ(count_lines(records, {'I', skip_text}), 3);

    // Without the script at all: the next death re-arms the watches, the
    // relaunch's ready file is a record, and the restore is tried again.
    ASSERT_TRUE(e2e::remove_file(restore_script));
    ASSERT_TRUE(e2e::wait_for_no_pending_sigchld(keldra.pid()));
    ASSERT_EQ(kill(e2e::starts("orvel").at(0).pid, SIGKILL), 0);
    ASSERT_GE(keldra.wait_for_message('I', skip_text, e2e::default_timeout, 6), 0);
    records = keldra.messages();
    int second = find_line(records, {'E', "launching orvel...\n"}, done + 1);
    ASSERT_GT(second, done);
    int again = find_prefix(records, 'I', "Script(", second);
    ASSERT_GT(again, second);
    const pid_t second_child = pid_t(strtol(records[size_t(again)].text.c_str() + 7, nullptr, 10));
    EXPECT_GE(expect_restore(records, second, second_child, {{'I', "Return value : 0\n"}}, 0, 2),
              0);
    EXPECT_GT(find_line(records, {'E', format_text("Cann't execl script: %d\n", ENOENT)}), second);
    EXPECT_EQ(count_lines(records, {'I', "request to restore zelto database...\n"}), 2);
    EXPECT_TRUE(e2e::restore_runs().empty());
    stop_keldra(keldra);
}

// The reinstall marker that the deciding step creates is itself a record of
// the /opt/dbspace watch, queued before the watches are removed. When the
// marker is still there when that record is read (the simulated script leaves
// it), it leads to a second restore decision: the script runs twice, the
// second removal of the watches fails, and the removal notices, which follow
// in the same read, are dropped.
TEST(Recovery, ReinstallMarkerLeftInPlaceLeadsToASecondDecisionOnItsOwnRecord)
{
    e2e::scenario keldra;
    ASSERT_TRUE(start_and_settle(keldra));
    ASSERT_TRUE(e2e::write_file("/opt/dbspace/.orvel.db-recovered", ""));
    ASSERT_FALSE(wait_for_restore_run(2).empty());
    const line remove_failed = {'E', "failed to remove inotify watch instance...(errno : Invalid "
                                     "argument)\n"};
    ASSERT_GE(keldra.wait_for_message('E', "failed to remove inotify watch...\n",
                                      e2e::default_timeout, 3),
              0);
    EXPECT_TRUE(e2e::stays_true([] { return e2e::restore_runs().size() == 2; }, 1s,
                                "no third run"));
    auto runs = e2e::restore_runs();
    auto records = keldra.messages();
    int marker = find_line(records,
                           {'I', "inotify event is received for /opt/dbspace/.orvel.db-recovered\n"});
    int first = expect_restore(records, marker + 1, pid_field(runs[0], "pid"),
                               {{'I', "Return value : 0\n"}}, 0, 2);
    ASSERT_GE(first, 0);
    int second = expect_restore(records, first + 1, pid_field(runs[1], "pid"),
                                {{'I', "Return value : 0\n"}}, 0, 2);
    ASSERT_GE(second, 0);
    std::vector<line> failures;
    for (int n = 0; n < 3; ++n) {
        failures.push_back(remove_failed);
        failures.push_back({'E', "failed to remove inotify watch...\n"});
    }
    EXPECT_GE(expect_sequence(records, failures, second + 1), 0);
    EXPECT_EQ(count_lines(records, remove_failed), 3);
    EXPECT_EQ(count_lines(records, {'I', "request to restore zelto database...\n"}), 2);
    EXPECT_EQ(count_lines(records, {'I', skip_text}), 0);
    EXPECT_TRUE(directory_watches(keldra.pid()).empty());
    expect_reinstall_marker();
    stop_keldra(keldra);
}

} // namespace
