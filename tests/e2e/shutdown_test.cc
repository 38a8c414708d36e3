// Stopping the supervisor with SIGTERM: the order of the shutdown messages,
// its duration (each running launcher thread sleeps 1 s when cancelled), the
// daemons left running, the adoption of those daemons by the next supervisor,
// and a SIGTERM that arrives while the supervisor is still starting.
#include "harness.h"

#include <signal.h>
#include <sys/stat.h>

namespace {

using namespace std::chrono_literals;
using e2e::format_text;
using steady = std::chrono::steady_clock;

// Every launcher thread of a healthy supervisor is running at shutdown and
// sleeps 1 s in its cleanup routine when it is cancelled.
constexpr auto shortest_shutdown = 4s;
constexpr auto shutdown_limit = 40s;

std::optional<ino_t> inode_of(const std::string &path)
{
    struct stat st;
    if (lstat(path.c_str(), &st) != 0)
        return std::nullopt;
    return st.st_ino;
}

std::string launched_text(const e2e::scenario &keldra)
{
    return format_text("keldra launched successfully (pid:%d)\n", keldra.pid());
}

// Waits until the supervisor is ready and every daemon has been launched and
// announced; returns the daemons' pids by name (empty after a failure).
std::map<std::string, pid_t> wait_for_healthy_start(e2e::scenario &keldra)
{
    std::map<std::string, pid_t> pids;
    for (const std::string &name : e2e::daemon_names) {
        auto starts = e2e::wait_for_starts(name, 1);
        if (starts.size() != 1)
            return {};
        pids[name] = starts[0].pid;
    }
    const std::vector<e2e::expected_message> announced = {
        {'I', launched_text(keldra)},
        {'I', format_text("pellan launched successfully (pid: %d)\n", pids["pellan"])},
        {'E', format_text("[P %5ld] orvel(pid : %d) is launched successfully...\n",
                          long(keldra.pid()), pids["orvel"])},
        {'E', format_text("dunmar launched successfully (pid: %d)\n", pids["dunmar"])},
        {'I', format_text("tavish launched successfully pid: %d\n", pids["tavish"])},
    };
    for (const e2e::expected_message &message : announced)
        if (keldra.wait_for_message(message.level, message.text) < 0)
            return {};
    for (const char *path :
         {"/run/keldra.ready", "/run/pellan.ready", "/run/orvel.ready", "/run/tavish.ready",
          "/run/dunmar.pid"})
        if (!e2e::wait_for_file(path))
            return {};
    return pids;
}

// The shutdown sequence after the stop request: every row finished in table
// order, each after its thread was cancelled, then the lock released and the
// last message.
void expect_orderly_shutdown(const e2e::scenario &keldra, int from)
{
    auto records = keldra.messages();
    int previous = from;
    for (int row = 0; row < 4; ++row) {
        SCOPED_TRACE("row " + std::to_string(row));
        std::string cancelled = format_text("Thread %d is cancelled\n", row);
        std::string finished = format_text("Thread %d is finished\n", row);
        int c = e2e::find_message(records, 'E', cancelled, 1, from);
        int f = e2e::find_message(records, 'I', finished, 1, from);
        EXPECT_GT(c, previous);
        EXPECT_GT(f, c);
        EXPECT_EQ(e2e::count_messages(records, 'E', cancelled), 1);
        EXPECT_EQ(e2e::count_messages(records, 'I', finished), 1);
        previous = f;
    }
    ASSERT_GE(records.size(), 2u);
    EXPECT_EQ(records[records.size() - 2].level, 'D');
    EXPECT_EQ(records[records.size() - 2].text,
              format_text("[P %5ld] Finished with 0\n", long(keldra.pid())));
    EXPECT_EQ(records.back().level, 'I');
    EXPECT_EQ(records.back().text, "Finished main loop\n");
    EXPECT_GT(int(records.size()) - 2, previous);
}

void expect_same_daemons_running(const std::map<std::string, pid_t> &pids)
{
    for (const auto &[name, pid] : pids) {
        SCOPED_TRACE(name);
        EXPECT_TRUE(e2e::process_alive(pid));
        EXPECT_EQ(e2e::daemon_pids(name), std::vector<pid_t>{pid});
        EXPECT_EQ(e2e::starts(name).size(), 1u);
        EXPECT_TRUE(e2e::deaths(name).empty());
    }
}

class Shutdown : public ::testing::Test {
protected:
    // Starts a healthy supervisor, stops it with SIGTERM and checks the exit
    // status and the duration of the shutdown.
    void start_then_stop()
    {
        ASSERT_TRUE(first.start());
        pids = wait_for_healthy_start(first);
        ASSERT_EQ(pids.size(), 4u);
        auto sent = steady::now();
        ASSERT_TRUE(first.send_signal(SIGTERM));
        auto status = first.wait_exit(shutdown_limit);
        stop_duration = steady::now() - sent;
        ASSERT_EQ(status, e2e::exit_status::with_code(0));
    }

    e2e::scenario first;
    std::map<std::string, pid_t> pids;
    steady::duration stop_duration{};
};

TEST_F(Shutdown, SigtermFinishesEveryRowInTableOrderAndExitsWithZero)
{
    ASSERT_NO_FATAL_FAILURE(start_then_stop());
    EXPECT_GE(stop_duration, shortest_shutdown);

    int signal = first.find_message('W', "Signal received: 15\n");
    ASSERT_GE(signal, 0);
    int request = first.find_message('I', "Request to exit launcher\n");
    EXPECT_GT(request, signal);
    EXPECT_LT(request, first.find_message('E', "Thread 0 is cancelled\n"));
    EXPECT_EQ(first.messages()[size_t(signal)].file, "keldra-main.cc");
    EXPECT_EQ(first.count_messages('W', "Signal received: 15\n"), 1);
    EXPECT_EQ(first.count_messages('I', "Request to exit launcher\n"), 1);
    expect_orderly_shutdown(first, signal);
}

TEST_F(Shutdown, PlatformRecordsOfTheStopRequestAndOfTheLastMessage)
{
    ASSERT_NO_FATAL_FAILURE(start_then_stop());
    auto platform = first.platform_messages();
    int last = e2e::find_platform_message(platform, 4, "Finished main loop\n");
    ASSERT_GE(last, 0);
    EXPECT_EQ(platform[size_t(last)].tag, "KELDRA");
    EXPECT_EQ(platform[size_t(last)].file, "keldra-main.cc");
    EXPECT_EQ(platform[size_t(last)].function, "main");
    EXPECT_NE(platform[size_t(last)].line, 0);
    EXPECT_EQ(platform[size_t(last)].log_id, 0);
    EXPECT_EQ(last, int(platform.size()) - 1);

    int signal = e2e::find_platform_message(platform, 5, "Signal received: 15\n");
    ASSERT_GE(signal, 0);
    EXPECT_EQ(platform[size_t(signal)].tag, "KELDRA");
    EXPECT_EQ(platform[size_t(signal)].file, "keldra-main.cc");
    EXPECT_EQ(platform[size_t(signal)].function, "signal_handler");
    EXPECT_NE(platform[size_t(signal)].line, 0);
}

TEST_F(Shutdown, DaemonsKeepRunningAfterTheSupervisorHasStopped)
{
    ASSERT_NO_FATAL_FAILURE(start_then_stop());
    expect_same_daemons_running(pids);
    // Still running a little later: nothing was sent to them.
    EXPECT_TRUE(e2e::stays_true(
        [&] {
            for (const auto &[name, pid] : pids)
                if (!e2e::process_alive(pid))
                    return false;
            return true;
        },
        500ms, "the daemons to stay alive"));
    expect_same_daemons_running(pids);
}

TEST_F(Shutdown, NextSupervisorAdoptsEveryRunningDaemonAndLaunchesNone)
{
    ASSERT_NO_FATAL_FAILURE(start_then_stop());
    auto pellan_dir = inode_of("/run/pellan");
    ASSERT_TRUE(pellan_dir.has_value());

    e2e::scenario second;
    ASSERT_TRUE(second.start());
    const std::vector<e2e::expected_message> found = {
        {'I', format_text("Found pellan launched successfully (pid: %d)\n", pids["pellan"])},
        {'E', format_text("Found orvel(pid : %d) is launched successfully...\n", pids["orvel"])},
        {'W', format_text("Found dunmar launched successfully (pid: %d)\n", pids["dunmar"])},
        {'W', format_text("Found tavish launched successfully pid: %d\n", pids["tavish"])},
    };
    for (const e2e::expected_message &message : found)
        ASSERT_GE(second.wait_for_message(message.level, message.text), 0);
    ASSERT_GE(second.wait_for_message('I', launched_text(second)), 0);

    auto records = second.messages();
    for (size_t i = 0; i < found.size(); ++i) {
        std::string path = e2e::daemon_path(e2e::daemon_names[i]);
        std::string already = format_text("%s already was ran ...\n", path.c_str());
        SCOPED_TRACE(path);
        int a = e2e::find_message(records, 'E', already);
        EXPECT_GE(a, 0);
        EXPECT_LT(a, e2e::find_message(records, found[i].level, found[i].text));
        EXPECT_EQ(e2e::count_messages(records, 'E', already), 1);
        EXPECT_EQ(e2e::count_messages(records, found[i].level, found[i].text), 1);
    }
    for (const char *name : {"pellan", "dunmar", "tavish"})
        EXPECT_EQ(second.count_messages('W', format_text("No process %s found, start new one!\n",
                                                         name)),
                  0);
    EXPECT_EQ(second.count_messages('E', "launching orvel...\n"), 0);
    EXPECT_EQ(inode_of("/run/pellan"), pellan_dir);
    EXPECT_TRUE(e2e::stays_true(
        [&] {
            for (const std::string &name : e2e::daemon_names)
                if (e2e::starts(name).size() != 1)
                    return false;
            return true;
        },
        1s, "no daemon to be started again"));
    expect_same_daemons_running(pids);
    EXPECT_EQ(e2e::read_file("/tmp/keldra.lock"), std::to_string(second.pid()) + "\n");

    ASSERT_TRUE(second.send_signal(SIGTERM));
    EXPECT_EQ(second.wait_exit(shutdown_limit), e2e::exit_status::with_code(0));
    expect_same_daemons_running(pids);
}

// A SIGTERM handled while keldra_start still runs sets the stop request before
// the main loop waits for the first time: the start completes, the main loop
// then needs a further wake-up, and only that one stops the supervisor.
TEST(SigtermDuringStartup, StartCompletesAndTheNextWakeUpStopsTheSupervisor)
{
    // Keep the main thread in the init of row 1 for 2 s.
    ASSERT_TRUE(e2e::write_file(e2e::init_script_conf_path, "sleep_ms=2000\n"));
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    ASSERT_GE(keldra.wait_for_message('E', "No script running before, run it ..\n"), 0);
    // Only once the script runs: while system() spawns it, the main thread
    // has every signal blocked, and the kernel hands a SIGTERM to the checker's
    // launcher thread instead, whose wait for its daemon it interrupts.
    ASSERT_TRUE(e2e::wait_until([] { return e2e::init_script_runs().size() == 1; }, 10s,
                                "the init script to record its run"));
    ASSERT_EQ(keldra.count_messages('I', launched_text(keldra)), 0);
    ASSERT_TRUE(keldra.send_signal(SIGTERM));
    int request = keldra.wait_for_message('I', "Request to exit launcher\n");
    ASSERT_GE(request, 0);
    EXPECT_EQ(keldra.count_messages('I', launched_text(keldra)), 0)
        << "the signal was meant to arrive during the start";

    // The start goes on to the end: all four daemons, then the ready file.
    auto pids = wait_for_healthy_start(keldra);
    ASSERT_EQ(pids.size(), 4u);
    int launched = keldra.find_message('I', launched_text(keldra));
    EXPECT_GT(launched, request);
    EXPECT_EQ(e2e::init_script_runs().size(), 1u);

    // The main loop is now waiting for a wake-up that the first signal cannot
    // give any more.
    EXPECT_TRUE(e2e::stays_true([&] { return keldra.is_running(); }, 3s,
                                "the supervisor to keep running"));
    EXPECT_EQ(keldra.count_messages('I', "Thread 0 is finished\n"), 0);
    EXPECT_EQ(keldra.count_messages('I', "Finished main loop\n"), 0);

    auto sent = steady::now();
    ASSERT_TRUE(keldra.send_signal(SIGTERM));
    EXPECT_EQ(keldra.wait_exit(shutdown_limit), e2e::exit_status::with_code(0));
    EXPECT_GE(steady::now() - sent, shortest_shutdown);
    EXPECT_EQ(keldra.count_messages('W', "Signal received: 15\n"), 2);
    EXPECT_EQ(keldra.count_messages('I', "Request to exit launcher\n"), 2);
    int second_signal = keldra.find_message('W', "Signal received: 15\n", 2);
    EXPECT_GT(second_signal, launched);
    expect_orderly_shutdown(keldra, second_signal);
    expect_same_daemons_running(pids);
}

} // namespace
