// End-to-end scenarios of the policy-checker launcher: adoption of a running
// checker by a restarted supervisor, a stale ready file, a checker that never
// creates its sockets, the two-iteration restart after an exit or a kill, and
// the socket-poll budget that later launches inherit from earlier ones.
#include "harness.h"

#include <signal.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>

namespace {

using namespace std::chrono_literals;
using e2e::exit_status;
using e2e::format_text;
using e2e::log_record;

constexpr const char *checker_path = "/usr/bin/pellan";
constexpr const char *launcher_file = "pellan-launcher.cc";
constexpr const char *ready_file = "/run/pellan.ready";
constexpr const char *run_dir = "/run/pellan";
constexpr uid_t checker_uid = 401;
constexpr gid_t checker_gid = 401;

const std::vector<std::string> checker_sockets = {
    "/run/pellan/pellan.socket",
    "/run/pellan/pellan-admin.socket",
    "/run/pellan/pellan-agent.socket",
    "/run/pellan/pellan-monitor-get.socket",
};

uint64_t monotonic_ns()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return uint64_t(now.tv_sec) * 1000000000u + uint64_t(now.tv_nsec);
}

std::optional<ino_t> inode_of(const std::string &path)
{
    struct stat st;
    if (lstat(path.c_str(), &st) != 0)
        return std::nullopt;
    return st.st_ino;
}

// Starts the supervisor and waits for the end of its start-up.
bool start_supervisor(e2e::scenario &keldra)
{
    if (!keldra.start())
        return false;
    return keldra.wait_for_message('I', format_text("keldra launched successfully (pid:%d)\n",
                                                    keldra.pid())) >= 0;
}

bool is_wait_for_pid_line(const log_record &record)
{
    static const char *const prefixes[] = {
        "Invalid pid",          "Can't inotify_init:",    "Error inotify_add_watch:",
        "Error open directory:", "Wait for inotify_event", "inotify_event received",
        "failed read event:",   "Finished wait for pid:",
    };
    if (record.file != "keldra.cc")
        return false;
    return std::any_of(std::begin(prefixes), std::end(prefixes),
                       [&](const char *prefix) { return record.text.starts_with(prefix); });
}

// What the launcher thread wrote: the lines of its own source file and those
// of the process wait that it calls.
std::vector<log_record> launcher_lines(const e2e::scenario &keldra)
{
    std::vector<log_record> lines;
    for (const log_record &record : keldra.messages()) {
        if (record.file == launcher_file || is_wait_for_pid_line(record))
            lines.push_back(record);
    }
    return lines;
}

// The lines without the process waits of other launcher threads, which
// write the same keldra.cc lines for their own daemons.
std::vector<log_record> without_waits_for_others(std::vector<log_record> lines, pid_t pid)
{
    const std::string own = format_text("Wait for inotify_event for pid:%d ...\n", pid);
    std::erase_if(lines, [&](const log_record &record) {
        return record.file == "keldra.cc" &&
               record.text.starts_with("Wait for inotify_event for pid:") && record.text != own;
    });
    return lines;
}

std::string describe_lines(const std::vector<log_record> &lines, size_t from, size_t count)
{
    std::string text;
    for (size_t i = from; i < std::min(lines.size(), from + count); ++i)
        text += "  #" + std::to_string(i) + " " + e2e::describe(lines[i]) + "\n";
    return text;
}

// The expected lines, one right after the other, starting with the first
// occurrence of the first one at or after `from`. On success `end` receives
// the index after the last.
::testing::AssertionResult consecutive(const std::vector<log_record> &lines,
                                       const std::vector<e2e::expected_message> &expected,
                                       int from = 0, int *end = nullptr)
{
    int start = e2e::find_message(lines, expected[0].level, expected[0].text, 1, from);
    if (start < 0) {
        return ::testing::AssertionFailure()
               << "no line [" << expected[0].level << "] \"" << e2e::visible(expected[0].text)
               << "\" at or after #" << from << "; lines:\n"
               << describe_lines(lines, size_t(from), 60);
    }
    for (size_t k = 0; k < expected.size(); ++k) {
        size_t at = size_t(start) + k;
        if (at >= lines.size() || lines[at].level != expected[k].level ||
            lines[at].text != expected[k].text) {
            return ::testing::AssertionFailure()
                   << "expected [" << expected[k].level << "] \""
                   << e2e::visible(expected[k].text) << "\" as line #" << at
                   << " (item " << k << " of the sequence); lines:\n"
                   << describe_lines(lines, size_t(start), expected.size() + 4);
        }
    }
    if (end)
        *end = start + int(expected.size());
    return ::testing::AssertionSuccess();
}

// The platform-log record of the nth message with this level and text, and
// its stderr line: priority, tag, file, function and line agree.
void expect_platform_record(const e2e::scenario &keldra, char level, const std::string &text,
                            const std::string &function, int nth = 1,
                            e2e::where loc = e2e::where::current())
{
    e2e::expect_platform_record(keldra, level, text, launcher_file, function, nth, loc);
}

// A checker as this launcher starts it: the full path alone, a session of
// its own, user and group 401, child of the supervisor.
void expect_launched_checker(const e2e::start_record &record, pid_t supervisor)
{
    EXPECT_EQ(record.argv0, checker_path);
    EXPECT_EQ(record.argc, 1);
    EXPECT_EQ(record.sid, record.pid);
    EXPECT_EQ(record.ppid, supervisor);
    EXPECT_EQ(record.uid, checker_uid);
    EXPECT_EQ(record.euid, checker_uid);
    EXPECT_EQ(record.gid, checker_gid);
    EXPECT_EQ(record.egid, checker_gid);
}

std::vector<e2e::expected_message> socket_polls(int first_ms, int last_ms)
{
    std::vector<e2e::expected_message> polls;
    for (int ms = first_ms; ms <= last_ms; ms += 300)
        polls.push_back({'I', format_text("wait socket files:%d\n", ms)});
    return polls;
}

template <typename T>
std::vector<T> joined(std::vector<T> a, const std::vector<T> &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// The pid of the nth start of the checker, once it has been recorded.
pid_t nth_checker(size_t n)
{
    auto starts = e2e::wait_for_starts("pellan", n);
    return starts.size() >= n ? starts[n - 1].pid : -1;
}

// After the launched checker `dead` has ended with `how` (its status lines),
// the ready file goes, the next pass watches the stale pid and fails at
// once, and the pass after that launches a new checker in a fresh runtime
// directory. Returns the new checker's pid.
pid_t expect_restart_path(e2e::scenario &keldra, pid_t dead,
                          const std::vector<e2e::expected_message> &how)
{
    pid_t next = nth_checker(2);
    EXPECT_GT(next, 0);
    if (next <= 0)
        return -1;
    EXPECT_GE(keldra.wait_for_message('I', format_text("launch pellan( %d )\n", next)), 0);
    EXPECT_TRUE(consecutive(
        launcher_lines(keldra),
        joined(how, {
                        {'E', format_text("pellan(%d) is dead\n", dead)},
                        {'I', format_text("Found pellan launched successfully (pid: %d)\n", dead)},
                        {'E', "Error inotify_add_watch: No such file or directory\n"},
                        {'E', "Can't set event reset for /run/pellan.ready. error: -1\n"},
                        {'E', "pellan(-1) is dead\n"},
                        {'W', "No process pellan found, start new one!\n"},
                        {'I', format_text("launch pellan( %d )\n", next)},
                    })));
    return next;
}

// Exactly one new checker, started like the first one, and nothing more.
void expect_one_relaunch(e2e::scenario &keldra, pid_t next)
{
    EXPECT_GE(keldra.wait_for_message(
                  'I', format_text("pellan launched successfully (pid: %d)\n", next)),
              0);
    EXPECT_TRUE(e2e::stays_true([] { return e2e::starts("pellan").size() == 2; }, 500ms,
                                "exactly two starts of pellan"));
    auto starts = e2e::starts("pellan");
    ASSERT_EQ(starts.size(), 2u);
    EXPECT_EQ(starts[1].pid, next);
    EXPECT_EQ(starts[1].argv0, starts[0].argv0);
    expect_launched_checker(starts[0], keldra.pid());
    expect_launched_checker(starts[1], keldra.pid());
    EXPECT_EQ(e2e::daemon_pids("pellan"), std::vector<pid_t>{next});
    EXPECT_TRUE(e2e::exists(ready_file));
}

TEST(PellanLauncher, RestartedSupervisorWatchesTheRunningCheckerAndKeepsItsDirectory)
{
    pid_t checker = -1;
    std::optional<ino_t> dir_inode, socket_inode;
    {
        e2e::scenario first;
        ASSERT_TRUE(start_supervisor(first));
        checker = nth_checker(1);
        ASSERT_GT(checker, 0);
        ASSERT_GE(first.wait_for_message(
                      'I', format_text("pellan launched successfully (pid: %d)\n", checker)),
                  0);
        ASSERT_TRUE(e2e::exists(ready_file));
        dir_inode = inode_of(run_dir);
        socket_inode = inode_of(checker_sockets[0]);
        ASSERT_TRUE(dir_inode && socket_inode);
        ASSERT_TRUE(first.send_signal(SIGTERM));
        ASSERT_EQ(first.wait_exit(30s), exit_status::with_code(0));
    }
    ASSERT_TRUE(e2e::process_alive(checker));
    ASSERT_TRUE(e2e::exists(ready_file));

    e2e::scenario second;
    ASSERT_TRUE(second.start());
    const std::string waiting = format_text("Wait for inotify_event for pid:%d ...\n", checker);
    ASSERT_GE(second.wait_for_message('I', waiting), 0);
    EXPECT_TRUE(consecutive(
        without_waits_for_others(launcher_lines(second), checker),
        {
            {'E', "/usr/bin/pellan already was ran ...\n"},
            {'I', format_text("Found pellan launched successfully (pid: %d)\n", checker)},
            {'I', waiting},
        }));
    expect_platform_record(second, 'I',
                           format_text("Found pellan launched successfully (pid: %d)\n", checker),
                           "pellan_launcher_handler");
    // Nothing launched, the runtime directory and its sockets left as they are.
    EXPECT_TRUE(e2e::stays_true(
        [&] {
            return second.count_messages('W', "No process pellan found, start new one!\n") == 0;
        },
        500ms, "no launch of pellan"));
    EXPECT_EQ(e2e::starts("pellan").size(), 1u);
    EXPECT_EQ(inode_of(run_dir), dir_inode);
    EXPECT_EQ(inode_of(checker_sockets[0]), socket_inode);
    EXPECT_TRUE(e2e::exists(ready_file));

    // The watched checker's end: the ready file goes and a new one is launched.
    ASSERT_EQ(kill(checker, SIGKILL), 0);
    pid_t next = nth_checker(2);
    ASSERT_GT(next, 0);
    ASSERT_GE(second.wait_for_message('I', format_text("launch pellan( %d )\n", next)), 0);
    EXPECT_TRUE(consecutive(
        launcher_lines(second),
        {
            {'I', format_text("inotify_event received : 0x00000010 for pid: %d\n", checker)},
            {'I', format_text("Finished wait for pid:%d\n", checker)},
            {'E', format_text("pellan(%d) is dead\n", checker)},
            {'W', "No process pellan found, start new one!\n"},
            {'I', format_text("launch pellan( %d )\n", next)},
        }));
    ASSERT_GE(second.wait_for_message(
                  'I', format_text("pellan launched successfully (pid: %d)\n", next)),
              0);
    expect_launched_checker(e2e::starts("pellan").at(1), second.pid());
    EXPECT_EQ(second.count_messages('E', "/usr/bin/pellan already was ran ...\n"), 1);
}

TEST(PellanLauncher, ReadyFileWithoutCheckerIsReportedAndACheckerLaunched)
{
    ASSERT_TRUE(e2e::write_file(ready_file, ""));
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    pid_t checker = nth_checker(1);
    ASSERT_GT(checker, 0);
    ASSERT_GE(keldra.wait_for_message(
                  'I', format_text("pellan launched successfully (pid: %d)\n", checker)),
              0);
    EXPECT_TRUE(consecutive(launcher_lines(keldra),
                            {
                                {'E', "Pellan launcher started\n"},
                                {'E', "/usr/bin/pellan already was ran ...\n"},
                                {'W', "No process pellan found, start new one!\n"},
                                {'I', format_text("launch pellan( %d )\n", checker)},
                            }));
    expect_platform_record(keldra, 'E', "/usr/bin/pellan already was ran ...\n",
                           "pellan_launcher_handler");
    expect_launched_checker(e2e::starts("pellan").at(0), keldra.pid());
}

TEST(PellanLauncher, CheckerWithoutSocketsIsPolledTenTimesThenKilledAndStillMarkedReady)
{
    e2e::write_next_settings("pellan", "no_ready=1\n");
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    pid_t checker = nth_checker(1);
    ASSERT_GT(checker, 0);
    const std::string killed = format_text("pellan(%d) is dead\n", checker);
    ASSERT_GE(keldra.wait_for_message('E', killed, 30s), 0);
    const uint64_t seen_ns = monotonic_ns();

    auto expected = joined(
        {
            {'W', "No process pellan found, start new one!\n"},
            {'I', format_text("launch pellan( %d )\n", checker)},
        },
        socket_polls(300, 3000));
    expected = joined(expected,
                      {
                          {'E', "can't change mode (/run/pellan/pellan.socket)\n"},
                          {'I', format_text("pellan launched successfully (pid: %d)\n", checker)},
                          {'E', "pellan process terminated - fail\n"},
                          {'E', "signal num : 9 \n"},
                          // No "Can't reset event" here: the ready file was created
                          // after the kill and removed after the reap.
                          {'E', killed},
                      });
    EXPECT_TRUE(consecutive(launcher_lines(keldra), expected));
    EXPECT_EQ(keldra.count_messages('E', "can't change owner (/run/pellan/pellan.socket)\n"), 0);
    EXPECT_EQ(keldra.find_message('E', "Can't set event done for /run/pellan.ready. error: -2\n"),
              -1);

    auto starts = e2e::starts("pellan");
    ASSERT_GE(starts.size(), 1u);
    EXPECT_EQ(starts[0].pid, checker);
    EXPECT_EQ(starts[0].settings, "next");
    auto skipped = e2e::steps("pellan");
    ASSERT_GE(skipped.size(), 1u);
    EXPECT_EQ(skipped[0].pid, checker);
    EXPECT_EQ(skipped[0].step, "ready-skipped");
    // Ten pauses of 300 ms lie between the launch and the permission step.
    EXPECT_GE(seen_ns - starts[0].mono_ns, 2'800'000'000u);

    expect_platform_record(keldra, 'I', "wait socket files:300\n", "pellan_launcher_handler");
    expect_platform_record(keldra, 'I', "wait socket files:3000\n", "pellan_launcher_handler");
    expect_platform_record(keldra, 'E', "can't change mode (/run/pellan/pellan.socket)\n",
                           "set_sock_perm");
}

TEST(PellanLauncher, ExitWithStatus3RestartsThroughTheStalePidInAFreshDirectory)
{
    e2e::write_next_settings("pellan", "exit_code=3\nafter_ms=800\n");
    e2e::scenario keldra;
    ASSERT_TRUE(start_supervisor(keldra));
    pid_t checker = nth_checker(1);
    ASSERT_GT(checker, 0);
    ASSERT_GE(keldra.wait_for_message(
                  'I', format_text("pellan launched successfully (pid: %d)\n", checker)),
              0);
    // Left in the runtime directory of the first checker; the relaunch
    // removes the directory with all it holds.
    ASSERT_TRUE(e2e::write_file("/run/pellan/left-behind", "x"));
    auto first_inode = inode_of(run_dir);

    pid_t next = expect_restart_path(keldra, checker,
                                     {
                                         {'I', "pellan process finished - success\n"},
                                         {'I', "return value : 3 \n"},
                                     });
    ASSERT_GT(next, 0);
    EXPECT_FALSE(e2e::exists("/run/pellan/left-behind"));
    EXPECT_NE(inode_of(run_dir), first_inode);
    EXPECT_TRUE(e2e::is_directory(run_dir));
    EXPECT_EQ(e2e::file_mode(run_dir), 0775u);
    EXPECT_EQ(e2e::owner_of(run_dir), (e2e::file_owner{checker_uid, checker_gid}));
    expect_one_relaunch(keldra, next);

    auto deaths = e2e::deaths("pellan");
    ASSERT_EQ(deaths.size(), 1u);
    EXPECT_EQ(deaths[0].pid, checker);
    EXPECT_EQ(deaths[0].event, "exit");
    EXPECT_EQ(deaths[0].code, 3);
    expect_platform_record(keldra, 'I', "return value : 3 \n", "pellan_launcher_handler");
    expect_platform_record(keldra, 'E', "Can't set event reset for /run/pellan.ready. error: -1\n",
                           "pellan_launcher_handler");
}

TEST(PellanLauncher, KilledBySignal9IsReportedAtLevelEAndRelaunchedOnce)
{
    e2e::scenario keldra;
    ASSERT_TRUE(start_supervisor(keldra));
    pid_t checker = nth_checker(1);
    ASSERT_GT(checker, 0);
    ASSERT_GE(keldra.wait_for_message(
                  'I', format_text("pellan launched successfully (pid: %d)\n", checker)),
              0);
    ASSERT_EQ(kill(checker, SIGKILL), 0);
    pid_t next = expect_restart_path(keldra, checker,
                                     {
                                         {'E', "pellan process terminated - fail\n"},
                                         {'E', "signal num : 9 \n"},
                                     });
    ASSERT_GT(next, 0);
    expect_one_relaunch(keldra, next);
    EXPECT_EQ(keldra.count_messages('I', "signal num : 9 \n"), 0);
    expect_platform_record(keldra, 'E', "signal num : 9 \n", "pellan_launcher_handler");
    expect_platform_record(keldra, 'E', "pellan process terminated - fail\n",
                           "pellan_launcher_handler");
}

// The socket polls logged after "launch pellan( <pid> )": their count, or -1
// when the launch line is missing.
int polls_after_launch(const std::vector<log_record> &lines, pid_t pid)
{
    int at = e2e::find_message(lines, 'I', format_text("launch pellan( %d )\n", pid));
    if (at < 0)
        return -1;
    int polls = 0;
    for (size_t i = size_t(at) + 1;
         i < lines.size() && lines[i].text.starts_with("wait socket files:"); ++i)
        ++polls;
    return polls;
}

TEST(PellanLauncher, SecondLaunchGetsOnlyThePollsTheFirstLeft)
{
    // Sockets after about 1 s: the first launch spends three or four polls,
    // more on a loaded machine; what it spends is counted, not assumed.
    e2e::write_next_settings("pellan", "ready_delay_ms=1050\n");
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    pid_t first = nth_checker(1);
    ASSERT_GT(first, 0);
    ASSERT_GE(keldra.wait_for_message(
                  'I', format_text("pellan launched successfully (pid: %d)\n", first)),
              0);
    const int spent = polls_after_launch(launcher_lines(keldra), first);
    ASSERT_GE(spent, 1);
    ASSERT_LT(spent, 10) << "the first checker took all ten polls: nothing left to test";
    EXPECT_TRUE(consecutive(
        launcher_lines(keldra),
        joined(joined({{'I', format_text("launch pellan( %d )\n", first)}},
                      socket_polls(300, 300 * spent)),
               {{'I', format_text("pellan launched successfully (pid: %d)\n", first)}})));

    // The second checker never creates its sockets: it gets the polls that
    // are left, counted on from where the first launch stopped.
    e2e::write_next_settings("pellan", "no_ready=1\n");
    ASSERT_EQ(kill(first, SIGKILL), 0);
    pid_t second = nth_checker(2);
    ASSERT_GT(second, 0);
    ASSERT_GE(keldra.wait_for_message(
                  'I', format_text("pellan launched successfully (pid: %d)\n", second)),
              0);
    auto expected = joined({{'I', format_text("launch pellan( %d )\n", second)}},
                           socket_polls(300 * (spent + 1), 3000));
    expected = joined(expected,
                      {
                          {'E', "can't change mode (/run/pellan/pellan.socket)\n"},
                          {'I', format_text("pellan launched successfully (pid: %d)\n", second)},
                      });
    EXPECT_TRUE(consecutive(launcher_lines(keldra), expected));
    EXPECT_EQ(keldra.count_messages('I', "wait socket files:3300\n"), 0);
    EXPECT_EQ(e2e::starts("pellan").at(1).settings, "next");
}

} // namespace
