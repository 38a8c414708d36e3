// A daemon's executable missing or not executable: the child's failed exec,
// its exit status (errno for pellan, dunmar and tavish, 1 for orvel), what
// each launcher makes of that end, and the recovery once the program is back.
// (tavish_test.cc covers tavish's executable without execute permission.)
#include "fault_support.h"

namespace {

using namespace std::chrono_literals;
using e2e::format_text;
using e2e::log_record;
using faults::consecutive;
using faults::launcher_lines;

constexpr const char *exec_enoent = "failed execl :No such file or directory\n";

// Moves a daemon's executable away (its launch then fails with ENOENT) and
// puts it back.
bool move_away(const std::string &path)
{
    return rename(path.c_str(), (path + ".away").c_str()) == 0;
}

bool put_back(const std::string &path)
{
    return rename((path + ".away").c_str(), path.c_str()) == 0;
}

// The launcher's lines without `skipped`, which the child writes between
// its fork and its exit, in no fixed place among the parent's.
std::vector<log_record> parent_lines(const e2e::scenario &keldra, std::string_view file,
                                     std::string_view skipped)
{
    std::vector<log_record> lines;
    for (const log_record &record : launcher_lines(keldra.messages(), file))
        if (record.text != skipped)
            lines.push_back(record);
    return lines;
}

// The pid of the first message that reads `format` (one %d), once written;
// -1 after a failure.
pid_t first_pid(const e2e::scenario &keldra, std::string_view file, const char *format,
                e2e::where loc = e2e::where::current())
{
    pid_t found = -1;
    e2e::wait_until(
        [&] {
            for (const log_record &record : keldra.messages()) {
                int pid = 0;
                if (record.file == file && sscanf(record.text.c_str(), format, &pid) == 1) {
                    found = pid;
                    return true;
                }
            }
            return false;
        },
        e2e::default_timeout, std::string("a message \"") + format + "\"", loc);
    return found;
}

TEST(ExecFailure, PellanMissingExitsWithEnoentAfterTheFullSocketWaitThenIsLaunchedAgain)
{
    const std::string path = e2e::daemon_path("pellan");
    ASSERT_TRUE(move_away(path));
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    // The child (user 401 by then) reports the exec failure.
    ASSERT_GE(keldra.wait_for_message('E', exec_enoent), 0);
    ASSERT_TRUE(put_back(path));
    const pid_t child = first_pid(keldra, faults::pellan_file, "launch pellan( %d )");
    ASSERT_GT(child, 0);

    // No socket comes: all ten polls, the permission step fails on the first
    // socket and kills the dead child (a harmless signal to a zombie), the
    // ready file is created, and the exit status is errno, 2.
    ASSERT_GE(keldra.wait_for_message('W', "No process pellan found, start new one!\n", 15s, 2),
              0);
    std::vector<e2e::expected_message> expected = {
        {'W', "No process pellan found, start new one!\n"},
        {'I', format_text("launch pellan( %d )\n", child)},
    };
    for (int poll = 1; poll <= 10; ++poll)
        expected.push_back({'I', format_text("wait socket files:%d\n", poll * 300)});
    const std::vector<e2e::expected_message> after = {
        {'E', "can't change mode (/run/pellan/pellan.socket)\n"},
        {'I', format_text("pellan launched successfully (pid: %d)\n", child)},
        {'I', "pellan process finished - success\n"},
        {'I', "return value : 2 \n"},
        {'E', format_text("pellan(%d) is dead\n", child)},
        {'I', format_text("Found pellan launched successfully (pid: %d)\n", child)},
        {'E', "Error inotify_add_watch: No such file or directory\n"},
        {'E', "Can't set event reset for /run/pellan.ready. error: -1\n"},
        {'E', "pellan(-1) is dead\n"},
        {'W', "No process pellan found, start new one!\n"},
    };
    expected.insert(expected.end(), after.begin(), after.end());
    EXPECT_TRUE(consecutive(parent_lines(keldra, faults::pellan_file, exec_enoent), expected));
    EXPECT_EQ(keldra.count_messages('E', exec_enoent), 1);
    for (const e2e::start_record &record : e2e::starts("pellan"))
        EXPECT_NE(record.pid, child) << "the child never became a checker";

    // With the program back, launches go on, without socket wait now: the
    // failed launch spent all ten polls.
    const pid_t next = faults::wait_for_checker_relaunch(keldra, 1);
    ASSERT_GT(next, 0);
    EXPECT_GE(keldra.wait_for_message('I', format_text("launch pellan( %d )\n", next)), 0);
    EXPECT_EQ(keldra.count_messages('I', "wait socket files:3300\n"), 0);
    EXPECT_EQ(keldra.count_messages('E', exec_enoent), 1);
}

TEST(ExecFailure, OrvelNotExecutableExitsWithOneAndIsRelaunchedAtOnce)
{
    const std::string path = e2e::daemon_path("orvel");
    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    // No init script in this start: its SIGCHLD would still be pending when
    // the first orvel dies, and the orvel launcher, reading one record that
    // names the script, would never see that death (fault_sigchld_test.cc).
    ASSERT_TRUE(e2e::write_file("/tmp/orvel_script.done", "", 0600));
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    // No line end: the next message's stamp follows on the same line.
    const std::string exec_failed = "failed to execute child process...(errno : Permission denied)";
    ASSERT_GE(keldra.wait_for_message('E', exec_failed), 0);
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);
    faults::expect_platform_record(keldra, 'E', exec_failed, faults::orvel_file, "exec_orvel");
    const pid_t child =
        first_pid(keldra, faults::orvel_file, "[P %*d] orvel(pid : %d) is launched successfully");
    ASSERT_GT(child, 0);
    // The death is reported with the index of the signal descriptor's event
    // among those epoll returned together (0, or 1 after a directory event).
    const std::vector<e2e::expected_message> reaped = {
        {'W', format_text("SIGCHLD signal is received from [pid : %d]\n", child)},
        {'W', format_text("orvel(%d) is dead...\n", child)},
        {'E', format_text("waitpid_orvel(%d)\n", child)},
        {'I', "orvel process terminate - success\n"},
        {'I', "return value : 1 \n"},
        {'E', format_text("orvel(%d) is dead...\n", child)},
        {'E', "orvel after handle_signal_event: ret=1\n"},
    };
    int at = -1;
    ASSERT_TRUE(e2e::wait_until(
        [&] {
            auto lines = parent_lines(keldra, faults::orvel_file, exec_failed);
            at = faults::find_consecutive(lines, reaped);
            return at >= 0 && size_t(at) + reaped.size() < lines.size();
        },
        e2e::default_timeout, "the first orvel reaped"));

    const long k = keldra.pid();
    auto lines = parent_lines(keldra, faults::orvel_file, exec_failed);
    EXPECT_TRUE(consecutive(
        lines, {
                   {'E', "launching orvel...\n"},
                   {'E', format_text("[P %5ld] Wait for orvel started...\n", k)},
                   {'E', format_text("[P %5ld] orvel is started!\n", k)},
                   {'E', format_text("[P %5ld] orvel(pid : %d) is launched successfully...\n", k,
                                     child)},
               }));
    const log_record &restart = lines[size_t(at) + reaped.size()];
    EXPECT_EQ(restart.level, 'E');
    EXPECT_TRUE(restart.text == "orvel is dead. start flag is set again...0\n" ||
                restart.text == "orvel is dead. start flag is set again...1\n")
        << e2e::describe(restart);
    // The exit took the ready file away; the next turn launches at once.
    auto orvel = e2e::wait_for_starts("orvel", 1);
    ASSERT_EQ(orvel.size(), 1u);
    ASSERT_GE(keldra.wait_for_message(
                  'E', format_text("[P %5ld] orvel(pid : %d) is launched successfully...\n", k,
                                   orvel[0].pid)),
              0);
    EXPECT_EQ(e2e::wait_for_daemon("orvel"), orvel[0].pid);
    EXPECT_TRUE(e2e::wait_for_file("/run/orvel.ready"));
    // The daemons of rows 2 and 3 came up after the first (failed) launch.
    EXPECT_GT(e2e::wait_for_daemon("dunmar"), 0);
    EXPECT_GT(e2e::wait_for_daemon("tavish"), 0);
    EXPECT_TRUE(e2e::stays_true([] { return e2e::daemon_pids("orvel").size() == 1; }, 300ms,
                                "one orvel"));
}

TEST(ExecFailure, DunmarMissingCostsAReadinessPassThenExitsWithEnoent)
{
    const std::string path = e2e::daemon_path("dunmar");
    ASSERT_TRUE(move_away(path));
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    ASSERT_GE(keldra.wait_for_message('E', exec_enoent), 0);
    ASSERT_TRUE(put_back(path));
    faults::expect_platform_record(keldra, 'E', exec_enoent, faults::dunmar_file, "launch_dunmar");
    const pid_t child = first_pid(keldra, faults::dunmar_file, "launch dunmar( %d )");
    ASSERT_GT(child, 0);
    // The dead child writes no pid file: the first polling pass runs out.
    ASSERT_GE(keldra.wait_for_message('W', "Wait when dunmar started: 1\n", 10s), 0);
    ASSERT_TRUE(e2e::write_file("/run/dunmar.pid", "", 0644));
    ASSERT_GE(keldra.wait_for_message('E', "dunmar(-1) is dead\n"), 0);
    auto agents = e2e::wait_for_starts("dunmar", 1);
    ASSERT_EQ(agents.size(), 1u);
    EXPECT_NE(agents[0].pid, child);
    ASSERT_GE(keldra.wait_for_message('E', format_text("dunmar launched successfully (pid: %d)\n",
                                                       agents[0].pid)),
              0);
    EXPECT_TRUE(consecutive(
        parent_lines(keldra, faults::dunmar_file, exec_enoent),
        {
            {'W', "No process dunmar found, start new one!\n"},
            {'I', format_text("launch dunmar( %d )\n", child)},
            {'E', "dunmar is not ready\n"},
            {'W', "Wait when dunmar started: 1\n"},
            {'E', format_text("dunmar launched successfully (pid: %d)\n", child)},
            {'I', "dunmar process finished - success\n"},
            {'I', "return value : 2\n"},
            {'E', format_text("dunmar(%d) is dead\n", child)},
            {'W', format_text("Found dunmar launched successfully (pid: %d)\n", child)},
            {'E', "Error inotify_add_watch: No such file or directory\n"},
            {'E', "dunmar(-1) is dead\n"},
            {'W', "No process dunmar found, start new one!\n"},
            {'I', format_text("launch dunmar( %d )\n", agents[0].pid)},
        }));
    EXPECT_EQ(e2e::wait_for_daemon("dunmar"), agents[0].pid);
    EXPECT_TRUE(e2e::wait_for_file("/run/dunmar.pid"));
}

TEST(ExecFailure, TavishMissingExitsWithEnoentAndIsRelaunchedAfterTheStalePass)
{
    const std::string path = e2e::daemon_path("tavish");
    ASSERT_TRUE(move_away(path));
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    ASSERT_GE(keldra.wait_for_message('I', "return value : 2 \n"), 0);
    ASSERT_TRUE(put_back(path));
    const pid_t child = first_pid(keldra, faults::tavish_file, "tavish launched successfully pid: %d");
    ASSERT_GT(child, 0);
    ASSERT_GE(keldra.wait_for_message('W', "No process tavish found, start new one!\n",
                                      e2e::default_timeout, 2),
              0);
    EXPECT_TRUE(consecutive(parent_lines(keldra, faults::tavish_file, exec_enoent),
                            {
                                {'W', "No process tavish found, start new one!\n"},
                                {'I', format_text("tavish launched successfully pid: %d\n", child)},
                                {'I', "tavish process terminate - success \n"},
                                {'I', "return value : 2 \n"},
                                {'E', format_text("tavish(%d) is dead\n", child)},
                                {'W', format_text("Found tavish launched successfully pid: %d\n",
                                                  child)},
                                {'E', "Error inotify_add_watch: No such file or directory\n"},
                                {'E', "Can't set event reset for /run/tavish.ready. error: -1\n"},
                                {'E', "tavish(-1) is dead\n"},
                                {'W', "No process tavish found, start new one!\n"},
                            }));
    faults::expect_platform_record(keldra, 'E', exec_enoent, faults::tavish_file, "launch_tavish");
    pid_t logger = e2e::wait_for_daemon("tavish");
    ASSERT_GT(logger, 0);
    EXPECT_GE(keldra.wait_for_message('I',
                                      format_text("tavish launched successfully pid: %d\n", logger)),
              0);
    EXPECT_TRUE(e2e::exists("/run/tavish.ready"));
    EXPECT_TRUE(e2e::stays_true([] { return e2e::daemon_pids("tavish").size() == 1; }, 300ms,
                                "one logger"));
}

} // namespace
