// End-to-end scenarios of the denial-logger launcher: the extra pass after
// the death of a launched logger, adoption of a running logger with its ready
// file, a running logger without one, the ready file of a launch whose exec
// fails, and the removal of the leftover file at init.
#include "harness.h"

#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>

#include <algorithm>

namespace {

using namespace std::chrono_literals;
using e2e::exit_status;
using e2e::format_text;
using e2e::log_record;

constexpr const char *logger_path = "/usr/bin/tavish";
constexpr const char *launcher_file = "tavish-launcher.cc";
constexpr const char *ready_file = "/run/tavish.ready";
constexpr const char *leftover = "/opt/var/log/smack";
const std::string already_ran = std::string(logger_path) + " already was ran ...\n";

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

std::string describe_lines(const std::vector<log_record> &lines, size_t from, size_t count)
{
    std::string text;
    for (size_t i = from; i < std::min(lines.size(), from + count); ++i)
        text += "  #" + std::to_string(i) + " " + e2e::describe(lines[i]) + "\n";
    return text;
}

// The expected lines, one right after the other, starting with the first
// occurrence of the first one at or after `from`.
::testing::AssertionResult consecutive(const std::vector<log_record> &lines,
                                       const std::vector<e2e::expected_message> &expected,
                                       int from = 0)
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
    return ::testing::AssertionSuccess();
}

// The platform-log record of the nth message with this level and text, and
// its stderr line with the same file and line.
void expect_platform_record(const e2e::scenario &keldra, char level, const std::string &text,
                            const std::string &function, int nth = 1,
                            e2e::where loc = e2e::where::current())
{
    e2e::expect_platform_record(keldra, level, text, launcher_file, function, nth, loc);
}

// A logger as this launcher starts it: the full path alone, a session of
// its own, the supervisor's user, child of the supervisor, with the
// supervisor's own label (no label set by this launcher).
void expect_launched_logger(const e2e::start_record &record, pid_t supervisor)
{
    EXPECT_EQ(record.argv0, logger_path);
    EXPECT_EQ(record.argc, 1);
    EXPECT_EQ(record.sid, record.pid);
    EXPECT_EQ(record.ppid, supervisor);
    EXPECT_EQ(record.uid, 0u);
    EXPECT_EQ(e2e::fork_label(record.pid), "_");
}

pid_t nth_logger(size_t n)
{
    auto starts = e2e::wait_for_starts("tavish", n);
    return starts.size() >= n ? starts[n - 1].pid : -1;
}

template <typename T>
std::vector<T> joined(std::vector<T> a, const std::vector<T> &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// After the launched logger `dead` has ended with `how` (its status lines):
// the ready file goes, the next pass still holds the dead pid, fails to wait
// for it and fails to remove the ready file again, and the pass after that
// launches. Returns the new logger's pid.
pid_t expect_extra_pass_and_relaunch(e2e::scenario &keldra, pid_t dead,
                                     const std::vector<e2e::expected_message> &how)
{
    pid_t next = nth_logger(2);
    EXPECT_GT(next, 0);
    if (next <= 0)
        return -1;
    EXPECT_GE(keldra.wait_for_message(
                  'I', format_text("tavish launched successfully pid: %d\n", next)),
              0);
    EXPECT_TRUE(consecutive(
        launcher_lines(keldra),
        joined(how, {
                        // No "Can't reset event" here: the removal succeeded.
                        {'E', format_text("tavish(%d) is dead\n", dead)},
                        {'W', format_text("Found tavish launched successfully pid: %d\n", dead)},
                        {'E', "Error inotify_add_watch: No such file or directory\n"},
                        {'E', "Can't set event reset for /run/tavish.ready. error: -1\n"},
                        {'E', "tavish(-1) is dead\n"},
                        {'W', "No process tavish found, start new one!\n"},
                        {'I', format_text("tavish launched successfully pid: %d\n", next)},
                    })));
    return next;
}

// Exactly one new logger, started like the first, marked ready.
void expect_one_relaunch(e2e::scenario &keldra, pid_t next)
{
    EXPECT_TRUE(e2e::stays_true([] { return e2e::starts("tavish").size() == 2; }, 500ms,
                                "exactly two starts of tavish"));
    auto starts = e2e::starts("tavish");
    ASSERT_EQ(starts.size(), 2u);
    EXPECT_EQ(starts[1].pid, next);
    EXPECT_EQ(starts[1].argv0, starts[0].argv0);
    expect_launched_logger(starts[0], keldra.pid());
    expect_launched_logger(starts[1], keldra.pid());
    EXPECT_EQ(e2e::daemon_pids("tavish"), std::vector<pid_t>{next});
    EXPECT_TRUE(e2e::exists(ready_file));
}

// Waits for the first logger to be launched and marked ready.
pid_t first_launched_logger(e2e::scenario &keldra)
{
    pid_t logger = nth_logger(1);
    if (logger <= 0)
        return -1;
    if (keldra.wait_for_message('I', format_text("tavish launched successfully pid: %d\n",
                                                 logger)) < 0 ||
        !e2e::wait_for_file(ready_file))
        return -1;
    return logger;
}

TEST(TavishLauncher, KilledBySignal9TakesAnExtraPassThenRelaunchesOnce)
{
    e2e::scenario keldra;
    ASSERT_TRUE(start_supervisor(keldra));
    pid_t logger = first_launched_logger(keldra);
    ASSERT_GT(logger, 0);
    ASSERT_EQ(kill(logger, SIGKILL), 0);
    pid_t next = expect_extra_pass_and_relaunch(keldra, logger,
                                                {
                                                    {'E', "tavish process terminate - fail \n"},
                                                    {'E', "signal num : 9 \n"},
                                                });
    ASSERT_GT(next, 0);
    expect_one_relaunch(keldra, next);
    expect_platform_record(keldra, 'E', "signal num : 9 \n", "tavish_launcher_handler");
    expect_platform_record(keldra, 'E', format_text("tavish(%d) is dead\n", logger),
                           "tavish_launcher_handler");
    expect_platform_record(keldra, 'W',
                           format_text("Found tavish launched successfully pid: %d\n", logger),
                           "tavish_launcher_handler");
    expect_platform_record(keldra, 'E', "Can't set event reset for /run/tavish.ready. error: -1\n",
                           "tavish_launcher_handler");
    expect_platform_record(keldra, 'I',
                           format_text("tavish launched successfully pid: %d\n", next),
                           "launch_tavish");
    expect_platform_record(keldra, 'W', "No process tavish found, start new one!\n",
                           "launch_tavish", 2);
}

TEST(TavishLauncher, ExitWithStatus5TakesAnExtraPassThenRelaunchesOnce)
{
    e2e::write_next_settings("tavish", "exit_code=5\nafter_ms=300\n");
    e2e::scenario keldra;
    ASSERT_TRUE(start_supervisor(keldra));
    pid_t logger = first_launched_logger(keldra);
    ASSERT_GT(logger, 0);
    pid_t next = expect_extra_pass_and_relaunch(keldra, logger,
                                                {
                                                    {'I', "tavish process terminate - success \n"},
                                                    {'I', "return value : 5 \n"},
                                                });
    ASSERT_GT(next, 0);
    expect_one_relaunch(keldra, next);
    auto deaths = e2e::deaths("tavish");
    ASSERT_EQ(deaths.size(), 1u);
    EXPECT_EQ(deaths[0].pid, logger);
    EXPECT_EQ(deaths[0].event, "exit");
    EXPECT_EQ(deaths[0].code, 5);
    expect_platform_record(keldra, 'I', "return value : 5 \n", "tavish_launcher_handler");
}

TEST(TavishLauncher, RunningLoggerWithReadyFileIsAdoptedThenReplacedAtOnce)
{
    pid_t adopted = e2e::spawn_daemon("tavish");
    ASSERT_GT(adopted, 0);
    ASSERT_EQ(e2e::wait_for_steps("tavish", "ready", 1).size(), 1u);
    ASSERT_TRUE(e2e::write_file(ready_file, "", 0600));

    e2e::scenario keldra;
    ASSERT_TRUE(start_supervisor(keldra));
    const std::string waiting = format_text("Wait for inotify_event for pid:%d ...\n", adopted);
    ASSERT_GE(keldra.wait_for_message('I', waiting), 0);
    EXPECT_TRUE(consecutive(
        launcher_lines(keldra),
        {
            {'E', already_ran},
            {'W', format_text("Found tavish launched successfully pid: %d\n", adopted)},
            {'I', waiting},
        }));
    EXPECT_TRUE(e2e::stays_true([] { return e2e::starts("tavish").size() == 1; }, 500ms,
                                "no logger forked"));
    EXPECT_EQ(keldra.count_messages('W', "No process tavish found, start new one!\n"), 0);
    EXPECT_TRUE(e2e::exists(ready_file));

    ASSERT_EQ(kill(adopted, SIGKILL), 0);
    EXPECT_EQ(e2e::wait_child(adopted), exit_status::by_signal(SIGKILL));
    pid_t next = nth_logger(2);
    ASSERT_GT(next, 0);
    ASSERT_GE(keldra.wait_for_message(
                  'I', format_text("tavish launched successfully pid: %d\n", next)),
              0);
    // The ready file is removed (without a message) and, with the pid
    // forgotten, the very next pass launches.
    EXPECT_TRUE(consecutive(
        launcher_lines(keldra),
        {
            {'I', format_text("inotify_event received : 0x00000010 for pid: %d\n", adopted)},
            {'I', format_text("Finished wait for pid:%d\n", adopted)},
            {'E', format_text("tavish(%d) is dead\n", adopted)},
            {'W', "No process tavish found, start new one!\n"},
            {'I', format_text("tavish launched successfully pid: %d\n", next)},
        }));
    EXPECT_EQ(keldra.count_messages('E', already_ran), 1);
    EXPECT_TRUE(e2e::wait_for_file(ready_file));
    expect_launched_logger(e2e::starts("tavish").at(1), keldra.pid());
    EXPECT_EQ(e2e::daemon_pids("tavish"), std::vector<pid_t>{next});
}

TEST(TavishLauncher, RunningLoggerWithoutReadyFileIsNotLookedForAndASecondOneLaunched)
{
    pid_t stray = e2e::spawn_daemon("tavish");
    ASSERT_GT(stray, 0);
    ASSERT_EQ(e2e::wait_for_steps("tavish", "ready", 1).size(), 1u);
    ASSERT_FALSE(e2e::exists(ready_file));

    e2e::scenario keldra;
    ASSERT_TRUE(start_supervisor(keldra));
    pid_t logger = nth_logger(2);
    ASSERT_GT(logger, 0);
    const std::string launched = format_text("tavish launched successfully pid: %d\n", logger);
    ASSERT_GE(keldra.wait_for_message('I', launched), 0);
    EXPECT_TRUE(consecutive(launcher_lines(keldra),
                            {
                                {'W', "tavish_launcher_init: File /opt/var/log/smack not found\n"},
                                {'W', "No process tavish found, start new one!\n"},
                                {'I', launched},
                            }));
    EXPECT_EQ(keldra.count_messages('E', already_ran), 0);
    auto pids = e2e::daemon_pids("tavish");
    std::sort(pids.begin(), pids.end());
    EXPECT_EQ(pids, (std::vector<pid_t>{std::min(stray, logger), std::max(stray, logger)}));
    expect_launched_logger(e2e::starts("tavish").at(1), keldra.pid());
}

// The first pid in a "tavish launched successfully pid: %d\n" line.
pid_t first_launch_pid(const e2e::scenario &keldra)
{
    for (const log_record &record : keldra.messages()) {
        pid_t pid = -1;
        if (record.level == 'I' &&
            sscanf(record.text.c_str(), "tavish launched successfully pid: %d", &pid) == 1)
            return pid;
    }
    return -1;
}

TEST(TavishLauncher, ReadyFileIsCreatedRightAfterTheForkEvenWhenTheExecFails)
{
    ASSERT_EQ(chmod(logger_path, 0644), 0);
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    ASSERT_GE(keldra.wait_for_message('I', "return value : 13 \n"), 0);
    // Let the next launches succeed.
    ASSERT_EQ(chmod(logger_path, 0755), 0);
    pid_t child = first_launch_pid(keldra);
    ASSERT_GT(child, 0);
    ASSERT_GE(keldra.wait_for_message('E', format_text("tavish(%d) is dead\n", child)), 0);
    ASSERT_GE(keldra.wait_for_message('E', "tavish(-1) is dead\n"), 0);

    // The child's own report, from the launch step, is left out: it may come
    // before or after the parent's lines.
    const std::string exec_failed = "failed execl :Permission denied\n";
    std::vector<log_record> parent_lines;
    for (const log_record &record : launcher_lines(keldra)) {
        if (record.text != exec_failed)
            parent_lines.push_back(record);
    }
    // The exit is reported as a normal one with errno as its value, and the
    // ready file is then removed without error: it had been created after
    // the fork. The stale pass then finds it gone.
    EXPECT_TRUE(consecutive(
        parent_lines,
        {
            {'W', "No process tavish found, start new one!\n"},
            {'I', format_text("tavish launched successfully pid: %d\n", child)},
            {'I', "tavish process terminate - success \n"},
            {'I', "return value : 13 \n"},
            {'E', format_text("tavish(%d) is dead\n", child)},
            {'W', format_text("Found tavish launched successfully pid: %d\n", child)},
            {'E', "Error inotify_add_watch: No such file or directory\n"},
            {'E', "Can't set event reset for /run/tavish.ready. error: -1\n"},
            {'E', "tavish(-1) is dead\n"},
            {'W', "No process tavish found, start new one!\n"},
        }));
    EXPECT_GE(keldra.count_messages('E', exec_failed), 1);
    expect_platform_record(keldra, 'E', exec_failed, "launch_tavish");

    // Once the program can run again a logger is launched and stays.
    pid_t logger = nth_logger(1);
    ASSERT_GT(logger, 0);
    ASSERT_GE(keldra.wait_for_message(
                  'I', format_text("tavish launched successfully pid: %d\n", logger)),
              0);
    EXPECT_TRUE(e2e::wait_for_file(ready_file));
    EXPECT_TRUE(e2e::stays_true([] { return e2e::starts("tavish").size() == 1; }, 300ms,
                                "one logger running"));
    EXPECT_TRUE(e2e::process_alive(logger));
}

TEST(TavishLauncher, InitWithoutLeftoverFileOnlyWarns)
{
    ASSERT_FALSE(e2e::exists(leftover));
    e2e::scenario keldra;
    ASSERT_TRUE(start_supervisor(keldra));
    const std::string not_found = "tavish_launcher_init: File /opt/var/log/smack not found\n";
    EXPECT_EQ(keldra.count_messages('W', not_found), 1);
    // The launcher's first line, before its launch.
    EXPECT_EQ(launcher_lines(keldra).at(0).level, 'W');
    EXPECT_EQ(launcher_lines(keldra).at(0).text, not_found);
    for (const log_record &record : launcher_lines(keldra))
        EXPECT_FALSE(record.text.starts_with("Error during format pre-launch")) << record.text;
    expect_platform_record(keldra, 'W', not_found, "tavish_launcher_init");
    pid_t logger = first_launched_logger(keldra);
    EXPECT_GT(logger, 0);
}

TEST(TavishLauncher, InitWithADirectoryAtTheLeftoverPathReportsIsADirectory)
{
    ASSERT_TRUE(e2e::make_directory(leftover, 0755));
    e2e::scenario keldra;
    ASSERT_TRUE(start_supervisor(keldra));
    const std::string failed = "Error during format pre-launch tavish command: Is a directory\n";
    EXPECT_EQ(keldra.count_messages('E', failed), 1);
    EXPECT_EQ(launcher_lines(keldra).at(0).text, failed);
    EXPECT_EQ(
        keldra.count_messages('W', "tavish_launcher_init: File /opt/var/log/smack not found\n"), 0);
    expect_platform_record(keldra, 'E', failed, "tavish_launcher_init");
    EXPECT_TRUE(e2e::is_directory(leftover));
    // The start-up goes on: the logger is launched.
    pid_t logger = first_launched_logger(keldra);
    EXPECT_GT(logger, 0);
}

TEST(TavishLauncher, InitRemovesALeftoverFileSilently)
{
    ASSERT_TRUE(e2e::make_directory("/opt/var/log", 0755));
    ASSERT_TRUE(e2e::write_file(leftover, "old denials\n"));
    e2e::scenario keldra;
    ASSERT_TRUE(start_supervisor(keldra));
    pid_t logger = first_launched_logger(keldra);
    ASSERT_GT(logger, 0);
    EXPECT_FALSE(e2e::exists(leftover));
    // The launch is the launcher's first line: init wrote nothing.
    EXPECT_EQ(launcher_lines(keldra).at(0).text, "No process tavish found, start new one!\n");
}

} // namespace
