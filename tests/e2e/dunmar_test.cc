// End-to-end scenarios of the privileged-service agent launcher: the launch
// and its pid-file readiness wait, the extra pass after the death of a
// launched agent, an agent that never writes its pid file, a stale pid file,
// adoption of a running agent, and a running agent without pid file.
#include "harness.h"

#include <signal.h>
#include <time.h>

#include <algorithm>

namespace {

using namespace std::chrono_literals;
using e2e::exit_status;
using e2e::format_text;
using e2e::log_record;

constexpr const char *agent_path = "/usr/apps/privileged-service/bin/dunmar";
constexpr const char *launcher_file = "launcher-dunmar.cc";
constexpr const char *pid_file = "/run/dunmar.pid";
const std::string already_ran = std::string(agent_path) + " already was ran ...\n";

uint64_t monotonic_ns()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return uint64_t(now.tv_sec) * 1000000000u + uint64_t(now.tv_nsec);
}

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

// Checks one platform-log record: priority of the level, id 0, tag, this
// launcher's file, the function and a line.
void expect_record_fields(const e2e::platform_record &record, char level,
                          const std::string &function)
{
    EXPECT_EQ(record.log_id, 0);
    EXPECT_EQ(record.prio, e2e::level_priority(level));
    EXPECT_EQ(record.tag, "KELDRA");
    EXPECT_EQ(record.file, launcher_file);
    EXPECT_EQ(record.function, function);
    EXPECT_GT(record.line, 0);
}

// The platform-log record of the nth message with this level and text, and
// its stderr line with the same file and line.
void expect_platform_record(const e2e::scenario &keldra, char level, const std::string &text,
                            const std::string &function, int nth = 1,
                            e2e::where loc = e2e::where::current())
{
    e2e::expect_platform_record(keldra, level, text, launcher_file, function, nth, loc);
}

// A message written to the platform log alone: its records all come from
// this function, and stderr has no such line at any level.
void expect_platform_only(const e2e::scenario &keldra, const std::string &text, int count,
                          const std::string &function, e2e::where loc = e2e::where::current())
{
    SCOPED_TRACE(::testing::Message() << "platform-only \"" << e2e::visible(text)
                                      << "\", called at line " << loc.line());
    int seen = 0;
    for (const e2e::platform_record &record : keldra.platform_messages()) {
        if (record.text != text)
            continue;
        ++seen;
        expect_record_fields(record, 'I', function);
    }
    EXPECT_EQ(seen, count);
    for (char level : {'E', 'W', 'I', 'D'})
        EXPECT_EQ(keldra.count_messages(level, text), 0) << level;
}

// An agent as this launcher starts it: the full path alone, a session of its
// own, the supervisor's user, child of the supervisor, label "System".
void expect_launched_agent(const e2e::start_record &record, pid_t supervisor)
{
    EXPECT_EQ(record.argv0, agent_path);
    EXPECT_EQ(record.argc, 1);
    EXPECT_EQ(record.sid, record.pid);
    EXPECT_EQ(record.ppid, supervisor);
    EXPECT_EQ(record.uid, 0u);
    EXPECT_EQ(e2e::fork_label(record.pid), "System");
}

pid_t nth_agent(size_t n)
{
    auto starts = e2e::wait_for_starts("dunmar", n);
    return starts.size() >= n ? starts[n - 1].pid : -1;
}

template <typename T>
std::vector<T> joined(std::vector<T> a, const std::vector<T> &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// After the launched agent `dead` has ended with `how` (its status lines):
// the pid file goes without a message, the next pass watches the stale pid
// and fails at once, with no pid-file message, and the pass after that
// launches. Every later agent writes its pid file only after 600 ms, so the
// file is seen absent once the relaunch is logged. Returns the new pid.
pid_t expect_extra_pass_and_relaunch(e2e::scenario &keldra, pid_t dead,
                                     const std::vector<e2e::expected_message> &how)
{
    pid_t next = nth_agent(2);
    EXPECT_GT(next, 0);
    if (next <= 0)
        return -1;
    EXPECT_GE(keldra.wait_for_message('I', format_text("launch dunmar( %d )\n", next)), 0);
    EXPECT_FALSE(e2e::exists(pid_file));
    EXPECT_TRUE(consecutive(
        launcher_lines(keldra),
        joined(how, {
                        {'E', format_text("dunmar(%d) is dead\n", dead)},
                        {'W', format_text("Found dunmar launched successfully (pid: %d)\n", dead)},
                        {'E', "Error inotify_add_watch: No such file or directory\n"},
                        {'E', "dunmar(-1) is dead\n"},
                        {'W', "No process dunmar found, start new one!\n"},
                        {'I', format_text("launch dunmar( %d )\n", next)},
                    })));
    return next;
}

// Exactly one new agent, started like the first, supervised once its pid
// file is there.
void expect_one_relaunch(e2e::scenario &keldra, pid_t next)
{
    EXPECT_GE(keldra.wait_for_message(
                  'E', format_text("dunmar launched successfully (pid: %d)\n", next)),
              0);
    EXPECT_EQ(e2e::read_file(pid_file), std::to_string(next) + "\n");
    EXPECT_TRUE(e2e::stays_true([] { return e2e::starts("dunmar").size() == 2; }, 500ms,
                                "exactly two starts of dunmar"));
    auto starts = e2e::starts("dunmar");
    ASSERT_EQ(starts.size(), 2u);
    EXPECT_EQ(starts[1].pid, next);
    EXPECT_EQ(starts[1].argv0, starts[0].argv0);
    expect_launched_agent(starts[0], keldra.pid());
    expect_launched_agent(starts[1], keldra.pid());
    EXPECT_EQ(e2e::daemon_pids("dunmar"), std::vector<pid_t>{next});
}

TEST(DunmarLauncher, LaunchedAgentIsAwaitedThroughItsPidFileWithPlatformOnlyProgress)
{
    e2e::scenario keldra;
    ASSERT_TRUE(start_supervisor(keldra));
    pid_t agent = nth_agent(1);
    ASSERT_GT(agent, 0);
    const std::string launched = format_text("dunmar launched successfully (pid: %d)\n", agent);
    ASSERT_GE(keldra.wait_for_message('E', launched), 0);
    EXPECT_TRUE(consecutive(launcher_lines(keldra),
                            {
                                {'W', "No process dunmar found, start new one!\n"},
                                {'I', format_text("launch dunmar( %d )\n", agent)},
                                {'E', launched},
                            }));
    expect_launched_agent(e2e::starts("dunmar").at(0), keldra.pid());
    // keldra only tests that the file exists; the agent may still be writing it.
    EXPECT_TRUE(e2e::wait_until(
        [&] { return e2e::read_file(pid_file) == std::to_string(agent) + "\n"; }, 5s,
        "the agent's pid in its pid file"));

    expect_platform_only(keldra, "Waiting until the dunmar ready\n", 1, "wait_dunmar_ready");
    expect_platform_only(keldra, "dunmar is ready\n", 1, "wait_dunmar_ready");
    auto records = keldra.platform_messages();
    int waiting = e2e::find_platform_message(records, 4, "Waiting until the dunmar ready\n");
    int ready = e2e::find_platform_message(records, 4, "dunmar is ready\n");
    int success = e2e::find_platform_message(records, 6, launched);
    EXPECT_LT(waiting, ready);
    EXPECT_LT(ready, success);
    expect_platform_record(keldra, 'I', format_text("launch dunmar( %d )\n", agent),
                           "launch_dunmar");
    expect_platform_record(keldra, 'E', launched, "dunmar_launcher_handler");
}

TEST(DunmarLauncher, ExitWithStatus3TakesAnExtraPassThenRelaunchesOnce)
{
    e2e::write_next_settings("dunmar", "exit_code=3\nafter_ms=500\n");
    e2e::write_settings("dunmar", "ready_delay_ms=600\n");
    e2e::scenario keldra;
    ASSERT_TRUE(start_supervisor(keldra));
    pid_t agent = nth_agent(1);
    ASSERT_GT(agent, 0);
    ASSERT_GE(keldra.wait_for_message(
                  'E', format_text("dunmar launched successfully (pid: %d)\n", agent)),
              0);
    pid_t next = expect_extra_pass_and_relaunch(keldra, agent,
                                                {
                                                    {'I', "dunmar process finished - success\n"},
                                                    {'I', "return value : 3\n"},
                                                });
    ASSERT_GT(next, 0);
    expect_one_relaunch(keldra, next);

    auto deaths = e2e::deaths("dunmar");
    ASSERT_EQ(deaths.size(), 1u);
    EXPECT_EQ(deaths[0].pid, agent);
    EXPECT_EQ(deaths[0].event, "exit");
    EXPECT_EQ(deaths[0].code, 3);
    expect_platform_record(keldra, 'I', "return value : 3\n", "dunmar_launcher_handler");
    expect_platform_record(keldra, 'W',
                           format_text("Found dunmar launched successfully (pid: %d)\n", agent),
                           "dunmar_launcher_handler");
    expect_platform_record(keldra, 'E', "dunmar(-1) is dead\n", "dunmar_launcher_handler");
}

TEST(DunmarLauncher, KilledBySignal9TakesAnExtraPassThenRelaunchesOnce)
{
    e2e::scenario keldra;
    ASSERT_TRUE(start_supervisor(keldra));
    pid_t agent = nth_agent(1);
    ASSERT_GT(agent, 0);
    ASSERT_GE(keldra.wait_for_message(
                  'E', format_text("dunmar launched successfully (pid: %d)\n", agent)),
              0);
    e2e::write_settings("dunmar", "ready_delay_ms=600\n");
    ASSERT_EQ(kill(agent, SIGKILL), 0);
    pid_t next = expect_extra_pass_and_relaunch(keldra, agent,
                                                {
                                                    {'E', "dunmar process terminate - fail\n"},
                                                    {'E', "signal num : 9\n"},
                                                });
    ASSERT_GT(next, 0);
    expect_one_relaunch(keldra, next);
    expect_platform_record(keldra, 'E', "signal num : 9\n", "dunmar_launcher_handler");
}

TEST(DunmarLauncher, AgentWithoutPidFileCostsTenPollingPassesThenIsSupervised)
{
    e2e::write_next_settings("dunmar", "no_ready=1\n");
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    pid_t agent = nth_agent(1);
    ASSERT_GT(agent, 0);
    const std::string launched = format_text("dunmar launched successfully (pid: %d)\n", agent);
    ASSERT_GE(keldra.wait_for_message('E', launched, 45s), 0);
    const uint64_t seen_ns = monotonic_ns();

    std::vector<e2e::expected_message> expected = {
        {'W', "No process dunmar found, start new one!\n"},
        {'I', format_text("launch dunmar( %d )\n", agent)},
    };
    for (int pass = 1; pass <= 10; ++pass) {
        expected.push_back({'E', "dunmar is not ready\n"});
        expected.push_back({'W', format_text("Wait when dunmar started: %d\n", pass)});
    }
    expected.push_back({'E', launched});
    EXPECT_TRUE(consecutive(launcher_lines(keldra), expected));
    // 10 x 1000 pauses of 1 ms at least.
    EXPECT_GE(seen_ns - e2e::starts("dunmar").at(0).mono_ns, 9'800'000'000u);
    EXPECT_LT(seen_ns - e2e::starts("dunmar").at(0).mono_ns, 40'000'000'000u);

    expect_platform_only(keldra, "Waiting until the dunmar ready\n", 10, "wait_dunmar_ready");
    expect_platform_only(keldra, "dunmar is ready\n", 0, "wait_dunmar_ready");
    expect_platform_record(keldra, 'W', "Wait when dunmar started: 1\n",
                           "dunmar_launcher_handler");
    expect_platform_record(keldra, 'W', "Wait when dunmar started: 10\n",
                           "dunmar_launcher_handler");
    expect_platform_record(keldra, 'E', "dunmar is not ready\n", "wait_dunmar_ready", 10);
    EXPECT_TRUE(e2e::process_alive(agent));
    EXPECT_FALSE(e2e::exists(pid_file));

    // Supervised like any other: its end is reported (no pid file to
    // remove) and a healthy agent follows.
    ASSERT_EQ(kill(agent, SIGTERM), 0);
    pid_t next = nth_agent(2);
    ASSERT_GT(next, 0);
    ASSERT_GE(keldra.wait_for_message(
                  'E', format_text("dunmar launched successfully (pid: %d)\n", next)),
              0);
    EXPECT_TRUE(consecutive(
        launcher_lines(keldra),
        {
            {'E', "dunmar process terminate - fail\n"},
            {'E', "signal num : 15\n"},
            {'E', "Can't reset event for /run/dunmar.pid. error: -1\n"},
            {'E', format_text("dunmar(%d) is dead\n", agent)},
            {'W', format_text("Found dunmar launched successfully (pid: %d)\n", agent)},
            {'E', "Error inotify_add_watch: No such file or directory\n"},
            {'E', "dunmar(-1) is dead\n"},
            {'W', "No process dunmar found, start new one!\n"},
            {'I', format_text("launch dunmar( %d )\n", next)},
            {'E', format_text("dunmar launched successfully (pid: %d)\n", next)},
        }));
    expect_platform_only(keldra, "Waiting until the dunmar ready\n", 11, "wait_dunmar_ready");
    expect_platform_only(keldra, "dunmar is ready\n", 1, "wait_dunmar_ready");
    EXPECT_EQ(keldra.count_messages('E', "dunmar is not ready\n"), 10);
}

TEST(DunmarLauncher, StalePidFileIsReportedThenALaunchPassesReadinessAtOnce)
{
    ASSERT_TRUE(e2e::write_file(pid_file, "4242\n", 0644));
    // The new agent writes its own pid file only after 3 s: the wait is
    // passed by the stale file.
    e2e::write_settings("dunmar", "ready_delay_ms=3000\n");
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    pid_t agent = nth_agent(1);
    ASSERT_GT(agent, 0);
    const std::string launched = format_text("dunmar launched successfully (pid: %d)\n", agent);
    ASSERT_GE(keldra.wait_for_message('E', launched, 2500ms), 0);
    EXPECT_TRUE(e2e::steps("dunmar").empty()) << "the agent wrote its pid file already";
    EXPECT_EQ(e2e::read_file(pid_file), "4242\n");
    EXPECT_TRUE(consecutive(launcher_lines(keldra),
                            {
                                {'E', already_ran},
                                {'W', "No process dunmar found, start new one!\n"},
                                {'I', format_text("launch dunmar( %d )\n", agent)},
                                {'E', launched},
                            }));
    expect_platform_only(keldra, "Waiting until the dunmar ready\n", 1, "wait_dunmar_ready");
    expect_platform_only(keldra, "dunmar is ready\n", 1, "wait_dunmar_ready");
    EXPECT_EQ(keldra.count_messages('E', "dunmar is not ready\n"), 0);
    expect_platform_record(keldra, 'E', already_ran, "dunmar_launcher_handler");
}

TEST(DunmarLauncher, RunningAgentWithPidFileIsAdoptedAndItsPidFileKeptAfterItsEnd)
{
    pid_t adopted = e2e::spawn_daemon("dunmar");
    ASSERT_GT(adopted, 0);
    ASSERT_EQ(e2e::wait_for_steps("dunmar", "ready", 1).size(), 1u);
    ASSERT_EQ(e2e::read_file(pid_file), std::to_string(adopted) + "\n");
    // Later agents write their pid file only after 2 s.
    e2e::write_settings("dunmar", "ready_delay_ms=2000\n");

    e2e::scenario keldra;
    ASSERT_TRUE(start_supervisor(keldra));
    const std::string waiting = format_text("Wait for inotify_event for pid:%d ...\n", adopted);
    ASSERT_GE(keldra.wait_for_message('I', waiting), 0);
    EXPECT_TRUE(consecutive(
        launcher_lines(keldra),
        {
            {'E', already_ran},
            {'W', format_text("Found dunmar launched successfully (pid: %d)\n", adopted)},
            {'I', waiting},
        }));
    EXPECT_TRUE(e2e::stays_true([] { return e2e::starts("dunmar").size() == 1; }, 500ms,
                                "no agent forked"));
    EXPECT_EQ(keldra.count_messages('W', "No process dunmar found, start new one!\n"), 0);

    ASSERT_EQ(kill(adopted, SIGKILL), 0);
    EXPECT_EQ(e2e::wait_child(adopted), exit_status::by_signal(SIGKILL));
    pid_t next = nth_agent(2);
    ASSERT_GT(next, 0);
    const std::string launched = format_text("dunmar launched successfully (pid: %d)\n", next);
    ASSERT_GE(keldra.wait_for_message('E', launched), 0);
    // The adopted agent's pid file stayed: the next pass reports it, finds
    // no agent, launches, and passes the wait with the old file.
    EXPECT_EQ(e2e::read_file(pid_file), std::to_string(adopted) + "\n");
    EXPECT_TRUE(consecutive(
        launcher_lines(keldra),
        {
            {'I', format_text("inotify_event received : 0x00000010 for pid: %d\n", adopted)},
            {'I', format_text("Finished wait for pid:%d\n", adopted)},
            {'E', format_text("dunmar(%d) is dead\n", adopted)},
            {'E', already_ran},
            {'W', "No process dunmar found, start new one!\n"},
            {'I', format_text("launch dunmar( %d )\n", next)},
            {'E', launched},
        }));
    EXPECT_EQ(keldra.count_messages('E', "dunmar is not ready\n"), 0);
    expect_launched_agent(e2e::starts("dunmar").at(1), keldra.pid());
}

TEST(DunmarLauncher, RunningAgentWithoutPidFileIsNotLookedForAndASecondOneLaunched)
{
    e2e::write_next_settings("dunmar", "no_ready=1\n");
    pid_t stray = e2e::spawn_daemon("dunmar");
    ASSERT_GT(stray, 0);
    ASSERT_EQ(e2e::wait_for_steps("dunmar", "ready-skipped", 1).size(), 1u);
    ASSERT_FALSE(e2e::exists(pid_file));

    e2e::scenario keldra;
    ASSERT_TRUE(start_supervisor(keldra));
    pid_t agent = nth_agent(2);
    ASSERT_GT(agent, 0);
    const std::string launched = format_text("dunmar launched successfully (pid: %d)\n", agent);
    ASSERT_GE(keldra.wait_for_message('E', launched), 0);
    EXPECT_TRUE(consecutive(launcher_lines(keldra),
                            {
                                {'W', "No process dunmar found, start new one!\n"},
                                {'I', format_text("launch dunmar( %d )\n", agent)},
                                {'E', launched},
                            }));
    EXPECT_EQ(keldra.count_messages('E', already_ran), 0);
    auto pids = e2e::daemon_pids("dunmar");
    std::sort(pids.begin(), pids.end());
    EXPECT_EQ(pids, (std::vector<pid_t>{std::min(stray, agent), std::max(stray, agent)}));
    expect_launched_agent(e2e::starts("dunmar").at(1), keldra.pid());
}

} // namespace
