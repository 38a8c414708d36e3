// Fork failures of the launchers. The supervisor is moved into a pids cgroup
// whose limit is its own number of tasks, so that every fork it tries fails
// with EAGAIN (fault_support.h: fork_block), and one daemon is killed so that
// its launcher has to launch again:
//
// - pellan: with its runtime directory still there the removal command cannot
//   be run and the directory cannot be made again, so the launcher goes round
//   without pause (and logs no "failed to command": system() returns the
//   status 127 of a shell that could not run, never -1); once the directory is gone its fork fails and it carries on
//   with pid -1: the socket wait, then, the sockets being absent, the
//   permission step sends SIGKILL to -1, which reaches every process of the
//   PID namespace but PID 1 and the supervisor, and waitpid(-1) reaps some
//   other launcher's daemon, or, when their launchers were quicker, waits for
//   the next child to end. This scenario runs in a PID namespace of its own
//   in which the test is PID 1: in the sandbox's namespace the test itself
//   would be killed.
// - dunmar: the readiness wait with -1, then waitpid(-1) reaps the checker of
//   the pellan launcher, which is at that moment in its socket wait and so in
//   no waitpid of its own.
// - tavish: the ready file created all the same, then the same waitpid(-1).
//
// The checker is made to wait for its sockets (setting no_ready) so that its
// death can only be reaped by the launcher under test; the checker launcher
// then finds its own child gone.
#include "fault_support.h"

#include <filesystem>

namespace {

using namespace std::chrono_literals;
using e2e::format_text;
using e2e::log_record;
using faults::consecutive;
using faults::launcher_lines;

constexpr const char *no_command = "failed to command - /usr/bin/rm -rf /run/pellan\n";
constexpr const char *no_directory = "can't create directory (/run/pellan)\n";
constexpr const char *no_socket_mode = "can't change mode (/run/pellan/pellan.socket)\n";

// Relaunches the checker with no sockets (it stays in the launcher's socket
// wait); returns the new checker's pid. The launcher is the only one that
// waits for the old checker: every other launcher waits for its own pid.
pid_t relaunch_checker_without_sockets(e2e::scenario &keldra, pid_t checker)
{
    e2e::write_next_settings("pellan", "no_ready=1\n");
    EXPECT_EQ(kill(checker, SIGKILL), 0);
    auto starts = e2e::wait_for_starts("pellan", 2);
    if (starts.size() < 2)
        return -1;
    pid_t next = starts[1].pid;
    if (keldra.wait_for_message('I', format_text("launch pellan( %d )\n", next)) < 0)
        return -1;
    if (e2e::wait_for_steps("pellan", "ready-skipped", 1).empty())
        return -1;
    return next;
}

// After the checker `orphan` was reaped by another launcher: the permission
// step fails on the missing first socket, the ready file is created, the
// launcher's own waitpid fails and the untouched status word (0) reads as an
// exit with 0; the next pass watches the stale pid and the one after launches.
void expect_checker_found_reaped_by_another(e2e::scenario &keldra, pid_t orphan)
{
    const std::vector<e2e::expected_message> expected = {
        {'E', no_socket_mode},
        {'I', format_text("pellan launched successfully (pid: %d)\n", orphan)},
        {'I', "pellan process finished - success\n"},
        {'I', "return value : 0 \n"},
        {'E', "pellan(-1) is dead\n"},
        {'I', format_text("Found pellan launched successfully (pid: %d)\n", orphan)},
        {'E', "Error inotify_add_watch: No such file or directory\n"},
        {'E', "Can't set event reset for /run/pellan.ready. error: -1\n"},
        {'E', "pellan(-1) is dead\n"},
        {'W', "No process pellan found, start new one!\n"},
    };
    e2e::wait_until(
        [&] {
            return faults::find_consecutive(
                       launcher_lines(keldra.messages(), faults::pellan_file), expected) >= 0;
        },
        15s, "the checker launcher to find its checker gone");
    EXPECT_TRUE(consecutive(launcher_lines(keldra.messages(), faults::pellan_file), expected));
}

// The other daemons run again exactly once (orvel not at all when its death
// went unseen), the checker launcher launches again (its socket polls are
// spent by now: see faults::wait_for_checker_relaunch) and never runs two
// checkers at once, and the supervisor goes on.
void expect_recovery(e2e::scenario &keldra, size_t checker_launches, bool orvel_back = true)
{
    EXPECT_GT(faults::wait_for_checker_relaunch(keldra, checker_launches), 0);
    for (const char *name : {"dunmar", "tavish"})
        EXPECT_GT(e2e::wait_for_daemon(name, 30s), 0) << name;
    if (orvel_back) {
        EXPECT_GT(e2e::wait_for_daemon("orvel", 30s), 0);
    }
    EXPECT_TRUE(e2e::stays_true(
        [&] {
            for (const std::string &name : e2e::daemon_names)
                if (e2e::daemon_pids(name).size() > 1 ||
                    (name != "pellan" && e2e::daemon_pids(name).size() !=
                                             (name != "orvel" || orvel_back ? 1u : 0u)))
                    return false;
            return true;
        },
        500ms, "every daemon running exactly once, the checker at most once"));
    EXPECT_TRUE(keldra.is_running());
}

// ------------------------------------------------------------------ pellan

// Which launcher's daemon a pid was, among those of the healthy start.
std::string owner_of(const std::map<std::string, pid_t> &pids, pid_t pid)
{
    for (const auto &[name, p] : pids)
        if (p == pid)
            return name;
    return "";
}

// The pid of the first "pellan(%d) is dead\n" at or after `from` that names
// a real process, or -1.
pid_t reaped_by_checker_launcher(const std::vector<log_record> &records, int from)
{
    for (size_t i = size_t(from); i < records.size(); ++i) {
        int pid = 0;
        if (records[i].file == faults::pellan_file && records[i].level == 'E' &&
            sscanf(records[i].text.c_str(), "pellan(%d) is dead", &pid) == 1 && pid > 0)
            return pid;
    }
    return -1;
}

// The line with which a launcher has reported the end of its daemon, killed
// by the SIGKILL to -1 (for orvel taken by another launcher: its first
// failed waitpid).
e2e::expected_message last_end_line(const std::string &name, pid_t pid, bool reaped_elsewhere)
{
    if (name == "orvel")
        return reaped_elsewhere
                   ? e2e::expected_message{'E', "waitpid fail...retry count - 1\n"}
                   : e2e::expected_message{'E', format_text("orvel(%d) is dead...\n", pid)};
    return {'E', format_text("%s(%d) is dead\n", name.c_str(), reaped_elsewhere ? -1 : pid)};
}

// How the launcher of a daemon killed by the checker launcher's SIGKILL to -1
// reports its end: normally, or, when the checker launcher's waitpid(-1) took
// it first, with a failed waitpid whose status word has not changed.
void expect_end_reported(e2e::scenario &keldra, const std::string &name, pid_t pid,
                         bool reaped_elsewhere)
{
    SCOPED_TRACE(name + " " + std::to_string(pid) +
                 (reaped_elsewhere ? " (reaped by the checker launcher)" : ""));
    auto records = keldra.messages();
    if (name == "dunmar") {
        std::vector<e2e::expected_message> lines =
            reaped_elsewhere
                ? std::vector<e2e::expected_message>{{'I', "dunmar process finished - success\n"},
                                                     {'I', "return value : 0\n"},
                                                     {'E', "dunmar(-1) is dead\n"}}
                : std::vector<e2e::expected_message>{{'E', "dunmar process terminate - fail\n"},
                                                     {'E', "signal num : 9\n"},
                                                     {'E', format_text("dunmar(%d) is dead\n", pid)}};
        EXPECT_TRUE(consecutive(faults::file_lines(records, faults::dunmar_file), lines));
    } else if (name == "tavish") {
        std::vector<e2e::expected_message> lines =
            reaped_elsewhere
                ? std::vector<e2e::expected_message>{{'I', "tavish process terminate - success \n"},
                                                     {'I', "return value : 0 \n"},
                                                     {'E', "tavish(-1) is dead\n"}}
                : std::vector<e2e::expected_message>{
                      {'E', "tavish process terminate - fail \n"},
                      {'E', "signal num : 9 \n"},
                      {'E', format_text("tavish(%d) is dead\n", pid)}};
        EXPECT_TRUE(consecutive(faults::file_lines(records, faults::tavish_file), lines));
    } else if (reaped_elsewhere) {
        // The signal record still names orvel; its waitpid fails three times.
        EXPECT_TRUE(consecutive(
            faults::file_lines(records, faults::orvel_file),
            {{'E', format_text("failed to wait child process(%d)...(errno : No child processes)\n",
                               pid)},
             {'E', "waitpid fail...retry count - 1\n"}}));
    } else {
        EXPECT_TRUE(consecutive(faults::file_lines(records, faults::orvel_file),
                                {{'E', "orvel process terminate - fail\n"},
                                 {'E', "signal num : 9\n"},
                                 {'E', format_text("orvel(%d) is dead...\n", pid)}}));
    }
}

// How the orvel launcher learns of orvel's death by the SIGKILL to -1: only
// from a SIGCHLD record that names orvel. The three daemons died at once, and
// SIGCHLD is not queued: while one is pending the next is dropped, so the
// record may name another daemon, and then orvel's death is never seen.
// Returns whether it was told.
bool expect_orvel_end(e2e::scenario &keldra, pid_t orvel, bool reaped_elsewhere)
{
    const bool told = faults::poll_until(
        [&] {
            return keldra.count_messages(
                       'W', format_text("SIGCHLD signal is received from [pid : %d]\n", orvel)) >
                   0;
        },
        5s);
    if (told) {
        const e2e::expected_message last = last_end_line("orvel", orvel, reaped_elsewhere);
        EXPECT_GE(keldra.wait_for_message(last.level, last.text, 15s), 0);
        expect_end_reported(keldra, "orvel", orvel, reaped_elsewhere);
    } else {
        std::cout << "orvel's SIGCHLD merged with another daemon's: its death is never seen and "
                     "it is not launched again\n";
        EXPECT_EQ(keldra.count_messages('W', format_text("orvel(%d) is dead...\n", orvel)), 0);
        EXPECT_TRUE(e2e::stays_true([] { return e2e::starts("orvel").size() == 1; }, 1s,
                                    "no orvel launched"));
    }
    return told;
}

// The checker launcher's waitpid(-1) took one of the killed daemons: its
// status is reported as the checker's; that daemon's own launcher then finds
// it gone.
void pellan_reaps_a_daemon(e2e::scenario &keldra, std::map<std::string, pid_t> &pids,
                           pid_t reaped)
{
    const std::string victim = owner_of(pids, reaped);
    ASSERT_FALSE(victim.empty()) << "pellan(" << reaped << ") is dead names no daemon";
    std::cout << "the checker launcher's waitpid(-1) reaped " << victim << " (" << reaped
              << ")\n";
    EXPECT_TRUE(consecutive(faults::file_lines(keldra.messages(), faults::pellan_file),
                            {
                                {'I', "pellan launched successfully (pid: -1)\n"},
                                {'E', "pellan process terminated - fail\n"},
                                {'E', "signal num : 9 \n"},
                                {'E', format_text("pellan(%d) is dead\n", reaped)},
                            }));
    EXPECT_EQ(keldra.count_messages('E', "Can't reset event for /run/pellan.ready. error: -1\n"),
              0)
        << "the ready file had been created, so its removal succeeds";
    for (const std::string name : {"dunmar", "tavish"}) {
        const e2e::expected_message last = last_end_line(name, pids[name], name == victim);
        EXPECT_GE(keldra.wait_for_message(last.level, last.text, 15s), 0) << name;
        expect_end_reported(keldra, name, pids[name], name == victim);
    }
    const bool told = expect_orvel_end(keldra, pids["orvel"], victim == "orvel");
    expect_recovery(keldra, 1, told);
}

// The daemons' launchers reaped all three themselves: the checker launcher's
// waitpid(-1) has nothing to take and waits for the next child of the
// supervisor to end. The daemons come back; no checker is launched
// meanwhile, and the checker launcher logs nothing more.
void pellan_waits_for_another_child(e2e::scenario &keldra, std::map<std::string, pid_t> &pids)
{
    std::cout << "the daemons' own launchers reaped all three; the checker launcher's "
                 "waitpid(-1) waits on\n";
    for (const std::string name : {"dunmar", "tavish"})
        expect_end_reported(keldra, name, pids[name], false);
    ASSERT_TRUE(expect_orvel_end(keldra, pids["orvel"], false));
    for (const char *name : {"orvel", "dunmar", "tavish"})
        EXPECT_EQ(e2e::wait_for_starts(name, 2, 30s).size(), 2u) << name << " launched again";
    const size_t checker_lines = faults::file_lines(keldra.messages(), faults::pellan_file).size();
    const size_t checker_starts = e2e::starts("pellan").size();
    EXPECT_TRUE(e2e::stays_true(
        [&] {
            return faults::file_lines(keldra.messages(), faults::pellan_file).size() ==
                       checker_lines &&
                   e2e::starts("pellan").size() == checker_starts;
        },
        2s, "the checker launcher still in its waitpid(-1)"));
    EXPECT_EQ(faults::file_lines(keldra.messages(), faults::pellan_file).back().text,
              "pellan launched successfully (pid: -1)\n");
    EXPECT_TRUE(e2e::daemon_pids("pellan").empty());
    for (const char *name : {"orvel", "dunmar", "tavish"})
        EXPECT_EQ(e2e::daemon_pids(name).size(), 1u) << name << " runs exactly once";
    EXPECT_TRUE(keldra.is_running());
}

void pellan_fork_failure_scenario()
{
    ASSERT_EQ(getpid(), 1) << "runs as PID 1 of its own namespace";
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    auto pids = faults::wait_for_healthy_start(keldra);
    ASSERT_EQ(pids.size(), 4u);
    // Socket polls spent by the first launch (none if the sockets were there
    // at the first look); the launcher thread keeps the count for ever.
    int polls_spent = 0;
    for (const log_record &record : faults::file_lines(keldra.messages(), faults::pellan_file))
        polls_spent += record.text.starts_with("wait socket files:") ? 1 : 0;
    ASSERT_LT(polls_spent, 10);
    // A process of the test that has nothing to do with the supervisor.
    pid_t bystander = e2e::spawn({"/bin/sleep", "300"});
    ASSERT_GT(bystander, 0);

    faults::fork_block block;
    ASSERT_TRUE(block.engage(keldra.pid()));
    const pid_t checker = pids["pellan"];
    ASSERT_EQ(kill(checker, SIGKILL), 0);

    // The directory is still there and the removal command cannot run: no
    // new directory, and the next pass at once.
    ASSERT_GE(keldra.wait_for_message('E', no_directory), 0) << block.state();
    const uint64_t first_round = faults::monotonic_ns();
    ASSERT_GE(keldra.wait_for_message('E', no_directory, 10s, 20), 0);
    EXPECT_LT(faults::monotonic_ns() - first_round, 5'000'000'000u)
        << "twenty rounds take well under the 19 s that a pause of 1 s would give";
    auto lines = launcher_lines(keldra.messages(), faults::pellan_file);
    EXPECT_TRUE(consecutive(
        lines,
        {
            {'E', "pellan process terminated - fail\n"},
            {'E', "signal num : 9 \n"},
            {'E', format_text("pellan(%d) is dead\n", checker)},
            {'I', format_text("Found pellan launched successfully (pid: %d)\n", checker)},
            {'E', "Error inotify_add_watch: No such file or directory\n"},
            {'E', "Can't set event reset for /run/pellan.ready. error: -1\n"},
            {'E', "pellan(-1) is dead\n"},
            {'W', "No process pellan found, start new one!\n"},
            {'E', no_directory},
            {'W', "No process pellan found, start new one!\n"},
            {'E', no_directory},
        }));
    // system() cannot start the shell either, but the C library then reports
    // the shell's status 127 (as if it had run and failed), not -1: the
    // launcher has nothing to report about the command.
    EXPECT_EQ(keldra.count_messages('E', no_command), 0);
    faults::expect_platform_record(keldra, 'E', no_directory, faults::pellan_file,
                                   "pellan_launcher_handler");

    // Without the directory the fork itself is tried, and fails.
    std::error_code ignored;
    std::filesystem::remove_all("/run/pellan", ignored);
    int failed = keldra.wait_for_message('E', "failed to launch pellan\n");
    ASSERT_GE(failed, 0);
    block.release();
    faults::expect_platform_record(keldra, 'E', "failed to launch pellan\n", faults::pellan_file,
                                   "launch_pellan");

    // The socket wait goes on with pid -1 for the polls left, then the
    // permission step fails and SIGKILL goes to -1.
    int announced =
        keldra.wait_for_message('I', "pellan launched successfully (pid: -1)\n", 10s);
    ASSERT_GE(announced, 0);
    std::vector<e2e::expected_message> after_failure = {
        {'W', "No process pellan found, start new one!\n"},
        {'E', "failed to launch pellan\n"},
    };
    for (int poll = polls_spent + 1; poll <= 10; ++poll)
        after_failure.push_back({'I', format_text("wait socket files:%d\n", poll * 300)});
    after_failure.push_back({'E', no_socket_mode});
    after_failure.push_back({'I', "pellan launched successfully (pid: -1)\n"});
    // Its own lines only: after the SIGKILL the other launchers' process
    // waits may log in between.
    const auto checker_lines = faults::file_lines(keldra.messages(), faults::pellan_file);
    EXPECT_TRUE(consecutive(
        checker_lines, after_failure,
        e2e::find_message(checker_lines, 'E', "failed to launch pellan\n") - 1));

    // kill(-1, SIGKILL): the bystander, and every daemon, are gone; the test
    // (PID 1) and the supervisor are not.
    EXPECT_EQ(e2e::wait_child(bystander, 10s), e2e::exit_status::by_signal(SIGKILL));
    for (const char *name : {"orvel", "dunmar", "tavish"})
        EXPECT_TRUE(e2e::wait_until([&] { return !e2e::process_alive(pids[name]); }, 10s,
                                    std::string(name) + " killed"));
    EXPECT_TRUE(keldra.is_running());

    // Then waitpid(-1). What it gets is a race with the daemons' own
    // launchers: a daemon of the three that none of them has reaped yet is
    // taken and reported as the checker; if they reaped all three first, it
    // waits on for the next child of the supervisor to end.
    const pid_t orvel = pids["orvel"];
    auto own_launchers_reaped_all = [&] {
        auto records = keldra.messages();
        return e2e::count_messages(records, 'E', format_text("orvel(%d) is dead...\n", orvel)) >
                   0 &&
               e2e::count_messages(records, 'E',
                                   format_text("dunmar(%d) is dead\n", pids["dunmar"])) > 0 &&
               e2e::count_messages(records, 'E',
                                   format_text("tavish(%d) is dead\n", pids["tavish"])) > 0;
    };
    pid_t reaped = -1;
    ASSERT_TRUE(e2e::wait_until(
        [&] {
            reaped = reaped_by_checker_launcher(keldra.messages(), announced);
            return reaped > 0 || own_launchers_reaped_all();
        },
        15s, "the checker launcher's waitpid(-1) to reap a daemon, or the daemons' launchers "
             "to reap all three"));
    if (reaped < 0) {
        pellan_waits_for_another_child(keldra, pids);
        return;
    }
    pellan_reaps_a_daemon(keldra, pids, reaped);
}

TEST(ForkFailure, PellanWithoutSocketsSendsSigkillToEveryProcessThenWaitsForAnyChild)
{
    faults::run_as_namespace_init(pellan_fork_failure_scenario);
}

// ------------------------------------------------------------------ dunmar

TEST(ForkFailure, DunmarWaitsForReadinessThenReapsTheCheckerOfAnotherLauncher)
{
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    auto pids = faults::wait_for_healthy_start(keldra);
    ASSERT_EQ(pids.size(), 4u);
    const pid_t agent = pids["dunmar"];
    const int passes_before = keldra.count_platform_messages(4, "Waiting until the dunmar ready\n");
    int failed = -1;
    {
        faults::fork_block block;
        ASSERT_TRUE(block.engage(keldra.pid()));
        ASSERT_EQ(kill(agent, SIGKILL), 0);
        failed = keldra.wait_for_message('E', "failed to launch dunmar\n");
        ASSERT_GE(failed, 0) << block.state();
    }
    EXPECT_TRUE(consecutive(launcher_lines(keldra.messages(), faults::dunmar_file),
                            {
                                {'E', "dunmar process terminate - fail\n"},
                                {'E', "signal num : 9\n"},
                                {'E', format_text("dunmar(%d) is dead\n", agent)},
                                {'W', format_text("Found dunmar launched successfully (pid: %d)\n",
                                                  agent)},
                                {'E', "Error inotify_add_watch: No such file or directory\n"},
                                {'E', "dunmar(-1) is dead\n"},
                                {'W', "No process dunmar found, start new one!\n"},
                                {'E', "failed to launch dunmar\n"},
                            }));
    faults::expect_platform_record(keldra, 'E', "failed to launch dunmar\n", faults::dunmar_file,
                                   "launch_dunmar");

    // The readiness wait runs as after a launch: no pid file, a pass of about
    // one second, then the next.
    int not_ready = keldra.wait_for_message_after(failed, 'E', "dunmar is not ready\n", 10s);
    ASSERT_GE(not_ready, 0);
    ASSERT_GE(keldra.wait_for_message_after(not_ready, 'W', "Wait when dunmar started: 1\n", 5s),
              0);
    EXPECT_GE(keldra.count_platform_messages(4, "Waiting until the dunmar ready\n"),
              passes_before + 2)
        << "two passes since the failed fork";

    // While the agent's launcher is in its readiness wait (in no waitpid),
    // the checker is relaunched and left waiting for its sockets.
    const pid_t checker = relaunch_checker_without_sockets(keldra, pids["pellan"]);
    ASSERT_GT(checker, 0);
    ASSERT_TRUE(e2e::write_file("/run/dunmar.pid", "", 0644));
    ASSERT_GE(keldra.wait_for_message('E', "dunmar launched successfully (pid: -1)\n"), 0);
    ASSERT_EQ(keldra.count_messages('E', no_socket_mode), 0)
        << "the checker launcher is still in its socket wait";
    ASSERT_EQ(kill(checker, SIGKILL), 0);

    // waitpid(-1) in the agent's launcher takes the checker: its status is
    // reported as the agent's, the pid file goes, and the next pass launches.
    ASSERT_GE(keldra.wait_for_message('E', format_text("dunmar(%d) is dead\n", checker)), 0);
    auto agents = e2e::wait_for_starts("dunmar", 2);
    ASSERT_EQ(agents.size(), 2u);
    ASSERT_GE(keldra.wait_for_message('I', format_text("launch dunmar( %d )\n", agents[1].pid)),
              0);
    EXPECT_TRUE(consecutive(faults::file_lines(keldra.messages(), faults::dunmar_file),
                            {
                                {'E', "dunmar launched successfully (pid: -1)\n"},
                                {'E', "dunmar process terminate - fail\n"},
                                {'E', "signal num : 9\n"},
                                {'E', format_text("dunmar(%d) is dead\n", checker)},
                                {'W', "No process dunmar found, start new one!\n"},
                                {'I', format_text("launch dunmar( %d )\n", agents[1].pid)},
                            }));
    expect_checker_found_reaped_by_another(keldra, checker);
    EXPECT_EQ(e2e::starts("dunmar").size(), 2u) << "one agent launched after the failed fork";
    expect_recovery(keldra, 2);
}

// ------------------------------------------------------------------ tavish

TEST(ForkFailure, TavishMarksReadyAllTheSameThenReapsTheCheckerOfAnotherLauncher)
{
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    auto pids = faults::wait_for_healthy_start(keldra);
    ASSERT_EQ(pids.size(), 4u);
    const pid_t logger = pids["tavish"];
    // The checker waits for its sockets; its launcher is in no waitpid.
    const pid_t checker = relaunch_checker_without_sockets(keldra, pids["pellan"]);
    ASSERT_GT(checker, 0);
    const std::string failed = "failed to launch tavish: Resource temporarily unavailable\n";
    {
        faults::fork_block block;
        ASSERT_TRUE(block.engage(keldra.pid()));
        ASSERT_EQ(kill(logger, SIGKILL), 0);
        ASSERT_GE(keldra.wait_for_message('E', failed), 0) << block.state();
    }
    faults::expect_platform_record(keldra, 'E', failed, faults::tavish_file, "launch_tavish");
    EXPECT_TRUE(e2e::wait_for_file("/run/tavish.ready", 5s)) << "created after the failed fork";
    ASSERT_EQ(keldra.count_messages('E', no_socket_mode), 0)
        << "the checker launcher is still in its socket wait";
    ASSERT_EQ(kill(checker, SIGKILL), 0);

    ASSERT_GE(keldra.wait_for_message('E', format_text("tavish(%d) is dead\n", checker)), 0);
    auto loggers = e2e::wait_for_starts("tavish", 2);
    ASSERT_EQ(loggers.size(), 2u);
    ASSERT_GE(keldra.wait_for_message(
                  'I', format_text("tavish launched successfully pid: %d\n", loggers[1].pid)),
              0);
    EXPECT_TRUE(consecutive(
        launcher_lines(keldra.messages(), faults::tavish_file),
        {
            {'E', "tavish process terminate - fail \n"},
            {'E', "signal num : 9 \n"},
            {'E', format_text("tavish(%d) is dead\n", logger)},
            {'W', format_text("Found tavish launched successfully pid: %d\n", logger)},
            {'E', "Error inotify_add_watch: No such file or directory\n"},
            {'E', "Can't set event reset for /run/tavish.ready. error: -1\n"},
            {'E', "tavish(-1) is dead\n"},
            {'W', "No process tavish found, start new one!\n"},
            {'E', failed},
            // waitpid(-1) takes the checker, reported as the logger's end.
            {'E', "tavish process terminate - fail \n"},
            {'E', "signal num : 9 \n"},
            {'E', format_text("tavish(%d) is dead\n", checker)},
            {'W', "No process tavish found, start new one!\n"},
            {'I', format_text("tavish launched successfully pid: %d\n", loggers[1].pid)},
        }));
    expect_checker_found_reaped_by_another(keldra, checker);
    expect_recovery(keldra, 2);
}

} // namespace
