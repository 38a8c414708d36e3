// Deaths of two children of the supervisor that come together. SIGCHLD is a
// standard signal: while one is pending, the next is dropped, and the signal
// descriptor of the orvel launcher yields one record naming the first child
// that ended. The launcher acts only on a record that names orvel, so when
// another child's SIGCHLD is pending as orvel dies, orvel's death is never
// seen: orvel is not reaped (it stays a zombie) and not launched again while
// this supervisor runs. The launchers that wait with waitpid (here tavish's)
// are not affected.
//
// To have both deaths pending at once the supervisor is stopped (SIGSTOP)
// while the two daemons are killed, tavish first, and continued afterwards:
// what a busy machine does by chance when two children die close together
// (as when the checker launcher sends SIGKILL to -1, see faults_test.cc).
#include "fault_support.h"

#include <dirent.h>

namespace {

using namespace std::chrono_literals;
using e2e::format_text;

// The state letter of /proc/<pid>/stat ('R', 'S', 'T', 'Z', ...), or 0.
char process_state(pid_t pid)
{
    auto stat = e2e::read_file("/proc/" + std::to_string(pid) + "/stat");
    if (!stat)
        return 0;
    size_t close = stat->rfind(')');
    return close != std::string::npos && close + 2 < stat->size() ? (*stat)[close + 2] : 0;
}

// True when every thread of the process is stopped.
bool all_threads_stopped(pid_t pid)
{
    const std::string dir = "/proc/" + std::to_string(pid) + "/task";
    DIR *tasks = opendir(dir.c_str());
    if (!tasks)
        return false;
    bool stopped = true;
    int seen = 0;
    while (dirent *entry = readdir(tasks)) {
        if (entry->d_name[0] == '.')
            continue;
        ++seen;
        auto stat = e2e::read_file(dir + "/" + entry->d_name + "/stat");
        size_t close = stat ? stat->rfind(')') : std::string::npos;
        if (close == std::string::npos || close + 2 >= stat->size() || (*stat)[close + 2] != 'T')
            stopped = false;
    }
    closedir(tasks);
    return stopped && seen > 0;
}

bool wait_for_state(pid_t pid, char state)
{
    return e2e::wait_until([&] { return process_state(pid) == state; }, 10s,
                           format_text("process %d in state %c", pid, state));
}

TEST(MergedSigchld, OrvelDyingWhileAnotherChildsSigchldIsPendingIsNeverSeen)
{
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    auto pids = faults::wait_for_healthy_start(keldra);
    ASSERT_EQ(pids.size(), 4u);
    const pid_t orvel = pids["orvel"];
    const pid_t logger = pids["tavish"];

    ASSERT_EQ(kill(keldra.pid(), SIGSTOP), 0);
    ASSERT_TRUE(e2e::wait_until([&] { return all_threads_stopped(keldra.pid()); }, 10s,
                                "every thread of the supervisor stopped"));
    ASSERT_EQ(kill(logger, SIGKILL), 0);
    ASSERT_TRUE(wait_for_state(logger, 'Z'));
    ASSERT_EQ(kill(orvel, SIGKILL), 0);
    ASSERT_TRUE(wait_for_state(orvel, 'Z'));
    ASSERT_EQ(kill(keldra.pid(), SIGCONT), 0);

    // One record, naming the logger: not orvel's, so nothing is done. (The
    // stop and continue interrupt the launcher's epoll_wait first, which it
    // logs and repeats.)
    // (The failure line carries the index of the event among those epoll
    // returned together.)
    const std::vector<e2e::expected_message> ignored = {
        {'W', format_text("SIGCHLD signal is received from [pid : %d]\n", logger)},
        {'E', "orvel after handle_signal_event: ret=0\n"},
    };
    std::vector<e2e::log_record> lines;
    int at = -1;
    EXPECT_TRUE(e2e::wait_until(
        [&] {
            lines = faults::file_lines(keldra.messages(), faults::orvel_file);
            at = faults::find_consecutive(lines, ignored);
            return at >= 0 && size_t(at) + ignored.size() < lines.size();
        },
        10s, "the orvel launcher to read the logger's SIGCHLD and ignore it"));
    if (at >= 0 && size_t(at) + ignored.size() < lines.size()) {
        const e2e::log_record &failed = lines[size_t(at) + ignored.size()];
        EXPECT_EQ(failed.level, 'E');
        EXPECT_TRUE(failed.text == "signal handling is failed...0, ret = 0\n" ||
                    failed.text == "signal handling is failed...1, ret = 0\n")
            << e2e::describe(failed);
    }

    // The logger's launcher reaps its child with waitpid and relaunches it.
    ASSERT_GE(keldra.wait_for_message('E', format_text("tavish(%d) is dead\n", logger)), 0);
    EXPECT_GT(e2e::wait_for_daemon("tavish"), 0);
    EXPECT_NE(e2e::wait_for_daemon("tavish"), logger);

    // orvel: no record names it, nobody reaps it, no new one is launched.
    EXPECT_TRUE(e2e::stays_true(
        [&] {
            return process_state(orvel) == 'Z' && e2e::starts("orvel").size() == 1 &&
                   keldra.count_messages('W', format_text("SIGCHLD signal is received from "
                                                          "[pid : %d]\n",
                                                          orvel)) == 0;
        },
        2s, "orvel left a zombie, unseen and not relaunched"));
    EXPECT_TRUE(e2e::daemon_pids("orvel").empty());
    EXPECT_TRUE(e2e::exists("/run/orvel.ready")) << "nothing withdrew the ready file";
    EXPECT_EQ(keldra.count_messages('E', format_text("waitpid_orvel(%d)\n", orvel)), 0);
    EXPECT_TRUE(keldra.is_running());
}

} // namespace
