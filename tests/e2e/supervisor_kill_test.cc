// The supervisor killed with SIGKILL at 100 random moments (fixed seed,
// printed; half of them in the first 500 ms, the others up to 2 s), each
// followed by a fresh supervisor in the same sandbox, which
// adopts what the killed one left running. Once the new supervisor is up and
// steady, every daemon must run exactly once, except in the windows where the
// killed supervisor had launched a daemon whose marker did not exist yet: the
// new supervisor does not look for a daemon without its marker and launches a
// second copy. The windows:
//
//   pellan-before-ready   pellan forked, /run/pellan.ready not yet created
//                         (it comes after the socket wait and permissions)
//   orvel-before-ready    orvel forked, /run/orvel.ready not yet created
//   orvel-before-exec     /run/orvel.ready created (right after the fork)
//                         while the child had not yet executed /usr/bin/orvel,
//                         so the lookup by name missed it
//   dunmar-before-pid     dunmar forked, /run/dunmar.pid not yet written by
//                         the agent
//   tavish-before-ready   tavish forked, /run/tavish.ready not yet created
//   tavish-before-exec    /run/tavish.ready created while the child had not
//                         yet executed /usr/bin/tavish
//
// Each case is recognised from the new supervisor's log (launch path taken,
// with or without "already was ran") and the start records (one copy started
// by the killed supervisor, or by no live parent, and one by the new one).
// Anything else is a failure: a daemon missing, more than two copies, a copy
// of unknown origin, or a second copy outside these windows.
//
// The first iteration of a case and every second one after it start from a
// cold state (no daemon, no marker, a new boot); the others from the state
// the previous iteration left: one copy of each daemon with its marker, no
// supervisor (so the killed supervisor adopts everything, and no second copy
// is acceptable). Between iterations the new supervisor is killed and
// surplus copies are killed (and reported). The 100 iterations are split
// over four test cases, which ctest runs in parallel.
#include "fault_support.h"

#include <filesystem>
#include <random>
#include <set>

namespace {

using namespace std::chrono_literals;
using e2e::format_text;
using e2e::log_record;

constexpr unsigned seed = 20250611;
constexpr int iterations_per_batch = 25;
constexpr int longest_delay_ms = 2000;
constexpr int start_up_delay_ms = 500;

// How a supervisor ended up supervising one daemon.
struct supervision {
    pid_t pid = -1;        // supervised daemon
    bool launched = false; // launched by it (else adopted)
    bool saw_marker = false; // the marker existed when it looked, before launching
    bool waiting = false;  // reached the state in which it waits for the daemon
};

struct daemon_lines {
    std::string file;
    std::string already;      // "%s already was ran ...\n"
    const char *launch;       // sscanf format of the line naming a launched pid
    const char *launched_ok;  // the line after which a launched daemon is waited for
    const char *found;        // the line naming an adopted pid
    bool found_waits_at_once; // orvel: no wait_for_pid line
};

const std::map<std::string, daemon_lines> &lines_by_daemon()
{
    static const std::map<std::string, daemon_lines> table = {
        {"pellan",
         {faults::pellan_file, "/usr/bin/pellan already was ran ...\n", "launch pellan( %d )",
          "pellan launched successfully (pid: %d)", "Found pellan launched successfully (pid: %d)",
          false}},
        {"orvel",
         {faults::orvel_file, "/usr/bin/orvel already was ran ...\n",
          "[P %*d] orvel(pid : %d) is launched successfully...",
          "[P %*d] orvel(pid : %d) is launched successfully...",
          "Found orvel(pid : %d) is launched successfully...", true}},
        {"dunmar",
         {faults::dunmar_file, "/usr/apps/privileged-service/bin/dunmar already was ran ...\n",
          "launch dunmar( %d )", "dunmar launched successfully (pid: %d)",
          "Found dunmar launched successfully (pid: %d)", false}},
        {"tavish",
         {faults::tavish_file, "/usr/bin/tavish already was ran ...\n",
          "tavish launched successfully pid: %d", "tavish launched successfully pid: %d",
          "Found tavish launched successfully pid: %d", false}},
    };
    return table;
}

bool scan_pid(const std::string &text, const char *format, pid_t *pid)
{
    int value = 0;
    if (sscanf(text.c_str(), format, &value) != 1)
        return false;
    *pid = value;
    return true;
}

// The last supervision of one daemon according to a supervisor's log.
supervision supervision_of(const std::vector<log_record> &records, const std::string &name)
{
    const daemon_lines &l = lines_by_daemon().at(name);
    supervision s;
    bool marker_this_pass = false;
    pid_t adopting = -1;
    for (const log_record &record : records) {
        pid_t pid = -1;
        if (record.file == faults::core_file && adopting > 0 &&
            record.text == format_text("Wait for inotify_event for pid:%d ...\n", adopting)) {
            s.waiting = true;
            adopting = -1;
            continue;
        }
        if (record.file != l.file)
            continue;
        if (record.text == l.already) {
            marker_this_pass = true;
        } else if (scan_pid(record.text, l.found, &pid)) {
            s = {pid, false, true, l.found_waits_at_once};
            adopting = l.found_waits_at_once ? -1 : pid;
            marker_this_pass = false;
        } else if (scan_pid(record.text, l.launch, &pid) && pid > 0 &&
                   !(s.launched && s.pid == pid)) {
            s = {pid, true, marker_this_pass, false};
            marker_this_pass = false;
        }
        if (s.launched && scan_pid(record.text, l.launched_ok, &pid) && pid == s.pid)
            s.waiting = true;
    }
    return s;
}

bool runs_program(const std::string &name, pid_t pid)
{
    auto pids = e2e::daemon_pids(name);
    return std::find(pids.begin(), pids.end(), pid) != pids.end();
}

// What a process is doing, for a report: state, kernel wait channel, system
// call and command line.
std::string describe_process(pid_t pid)
{
    const std::string dir = "/proc/" + std::to_string(pid);
    auto field = [&](const char *name) {
        std::string text = e2e::read_file(dir + "/" + name).value_or("-");
        std::replace(text.begin(), text.end(), '\0', ' ');
        while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
            text.pop_back();
        return text;
    };
    return "pid " + std::to_string(pid) + ": stat [" + field("stat") + "] wchan [" +
           field("wchan") + "] syscall [" + field("syscall") + "] cmdline [" + field("cmdline") +
           "]";
}

// The last supervision of every daemon, for a report.
std::string describe_supervision(const e2e::scenario &keldra)
{
    std::string text;
    auto records = keldra.messages();
    for (const std::string &name : e2e::daemon_names) {
        supervision s = supervision_of(records, name);
        text += "  " + name + ": " + (s.launched ? "launched " : "adopted ") +
                std::to_string(s.pid) + (s.waiting ? ", waited for" : ", not yet waited for") +
                "; " + (s.pid > 0 ? describe_process(s.pid) : std::string("no process")) + "\n";
    }
    return text;
}

// The supervisor is steady once each launcher waits for a daemon that runs
// its program.
std::optional<std::map<std::string, supervision>> steady_state(const e2e::scenario &keldra)
{
    auto records = keldra.messages();
    if (e2e::find_message(records, 'I', faults::launched_text(keldra.pid())) < 0)
        return std::nullopt;
    std::map<std::string, supervision> state;
    for (const std::string &name : e2e::daemon_names) {
        supervision s = supervision_of(records, name);
        if (s.pid <= 0 || !s.waiting || !runs_program(name, s.pid))
            return std::nullopt;
        state[name] = s;
    }
    return state;
}

std::string window_name(const std::string &name, bool saw_marker)
{
    if (name == "pellan")
        return saw_marker ? "" : "pellan-before-ready";
    if (name == "dunmar")
        return saw_marker ? "" : "dunmar-before-pid";
    return name + (saw_marker ? "-before-exec" : "-before-ready");
}

std::optional<e2e::start_record> start_of(pid_t pid)
{
    for (const std::string &name : e2e::daemon_names)
        for (const e2e::start_record &record : e2e::starts(name))
            if (record.pid == pid)
                return record;
    return std::nullopt;
}

struct tally {
    std::map<std::string, int> windows;
    int surplus_killed = 0;
    int cold = 0, warm = 0;
    int init_script_reruns = 0;
};

// Checks the daemons once the new supervisor is steady; counts the windows.
void check_daemons(const e2e::scenario &killed, const e2e::scenario &next,
                   const std::map<std::string, supervision> &state, bool cold, tally *counts,
                   std::string *summary)
{
    for (const std::string &name : e2e::daemon_names) {
        SCOPED_TRACE(name);
        const supervision &s = state.at(name);
        auto running = e2e::daemon_pids(name);
        EXPECT_TRUE(std::find(running.begin(), running.end(), s.pid) != running.end())
            << "the supervised " << name << " " << s.pid << " runs";
        if (running.size() == 1)
            continue;
        ASSERT_EQ(running.size(), 2u) << "more than two copies of " << name;
        pid_t other = running[0] == s.pid ? running[1] : running[0];
        auto record = start_of(other);
        ASSERT_TRUE(record.has_value()) << "no start record of the other copy " << other;
        EXPECT_TRUE(record->ppid == killed.pid() || record->ppid == 1)
            << "the other copy " << other << " was started by " << record->ppid
            << ", neither the killed supervisor " << killed.pid() << " nor orphaned";
        EXPECT_TRUE(cold) << "a second " << name << " after a warm start, where the killed "
                             "supervisor adopted everything";
        EXPECT_TRUE(s.launched) << "the new supervisor adopted " << s.pid
                                << " and yet a second copy runs";
        auto own = start_of(s.pid);
        EXPECT_TRUE(own && own->ppid == next.pid()) << "the new copy's parent";
        const std::string window = window_name(name, s.saw_marker);
        EXPECT_FALSE(window.empty()) << name << ": marker present and the daemon running, yet "
                                                "not found by name";
        if (window.empty())
            continue;
        ++counts->windows[window];
        *summary += " " + window;
    }
}

// Waits until the processes no longer exist at all (reaped). A process
// whose command line is already empty may still be releasing its executable,
// and that close would end the wait of a supervisor that adopts a copy of the
// same daemon next.
void wait_until_gone(const std::vector<pid_t> &pids)
{
    EXPECT_TRUE(e2e::wait_until(
        [&] {
            for (pid_t pid : pids)
                if (kill(pid, 0) == 0 || errno != ESRCH)
                    return false;
            return true;
        },
        10s, "the killed daemons to be gone"));
}

// Kills every copy that the (already killed) new supervisor did not
// supervise; returns how many.
int kill_surplus(const std::map<std::string, supervision> &state)
{
    std::vector<pid_t> killed;
    for (const std::string &name : e2e::daemon_names) {
        for (pid_t pid : e2e::daemon_pids(name)) {
            if (pid == state.at(name).pid)
                continue;
            kill(pid, SIGKILL);
            killed.push_back(pid);
        }
    }
    wait_until_gone(killed);
    for (const std::string &name : e2e::daemon_names)
        EXPECT_EQ(e2e::daemon_pids(name), std::vector<pid_t>{state.at(name).pid}) << name;
    return int(killed.size());
}

// A new boot: no daemon, no marker, no runtime directory.
void make_cold()
{
    std::vector<pid_t> running;
    for (const std::string &name : e2e::daemon_names)
        for (pid_t pid : e2e::daemon_pids(name))
            running.push_back(pid);
    for (pid_t pid : running)
        kill(pid, SIGKILL);
    wait_until_gone(running);
    for (const std::string &name : e2e::daemon_names)
        ASSERT_TRUE(e2e::daemon_pids(name).empty()) << name;
    for (const char *path : {"/run/keldra.ready", "/run/pellan.ready", "/run/orvel.ready",
                             "/run/tavish.ready", "/run/dunmar.pid", "/run/orvel.socket",
                             "/tmp/orvel_script.done"})
        unlink(path);
    std::error_code ignored;
    std::filesystem::remove_all("/run/pellan", ignored);
}

// `cold`: start from a new boot; otherwise from what the previous iteration
// left.
void run_iteration(int iteration, bool cold, tally *counts)
{
    // Half of the moments fall in the first 500 ms, where the start-up runs
    // (lock, init script, launches, socket wait), half anywhere up to 2 s.
    std::mt19937 random(seed + unsigned(iteration));
    const bool early = std::bernoulli_distribution(0.5)(random);
    const int delay_ms = std::uniform_int_distribution<int>(
        0, early ? start_up_delay_ms : longest_delay_ms)(random);
    if (cold) {
        ASSERT_NO_FATAL_FAILURE(make_cold());
    }
    ++(cold ? counts->cold : counts->warm);
    const size_t script_runs = e2e::init_script_runs().size();
    SCOPED_TRACE(::testing::Message() << "iteration " << iteration << " ("
                                      << (cold ? "cold" : "warm") << "), killed after "
                                      << delay_ms << " ms");

    e2e::scenario killed;
    ASSERT_TRUE(killed.start());
    std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms)); // the random moment
    ASSERT_TRUE(killed.send_signal(SIGKILL));
    ASSERT_EQ(killed.wait_exit(10s), e2e::exit_status::by_signal(SIGKILL));

    e2e::scenario next;
    ASSERT_TRUE(next.start());
    std::map<std::string, supervision> state;
    ASSERT_TRUE(e2e::wait_until(
        [&] {
            auto s = steady_state(next);
            if (s)
                state = *s;
            return s.has_value();
        },
        30s, "the new supervisor to wait for a live copy of every daemon"))
        << describe_supervision(next);
    // A child of the killed supervisor that was still before its exec has run
    // its program by now; the counts no longer move.
    std::map<std::string, size_t> copies;
    for (const std::string &name : e2e::daemon_names)
        copies[name] = e2e::daemon_pids(name).size();
    EXPECT_TRUE(e2e::stays_true(
        [&] {
            for (const std::string &name : e2e::daemon_names)
                if (e2e::daemon_pids(name).size() != copies[name])
                    return false;
            return true;
        },
        200ms, "the number of copies of each daemon staying the same"));

    std::string summary;
    check_daemons(killed, next, state, cold, counts, &summary);
    const size_t runs = e2e::init_script_runs().size() - script_runs;
    if (runs > 1)
        ++counts->init_script_reruns;

    ASSERT_TRUE(next.send_signal(SIGKILL));
    next.wait_exit(10s);
    const int surplus = kill_surplus(state);
    counts->surplus_killed += surplus;
    std::cout << "iteration " << iteration << " (" << (cold ? "cold" : "warm") << ", killed after "
              << delay_ms << " ms): " << (summary.empty() ? "every daemon once" : "second copy:" + summary)
              << (surplus ? ", " + std::to_string(surplus) + " surplus killed" : "")
              << (runs > 1 ? ", init script run " + std::to_string(runs) + " times" : "") << "\n";
}

void run_batch(int batch)
{
    std::cout << "seed " << seed << ", iterations " << (batch - 1) * iterations_per_batch + 1
              << " to " << batch * iterations_per_batch << ", delays 0 to " << start_up_delay_ms
              << " ms or 0 to " << longest_delay_ms << " ms\n";
    tally counts;
    for (int i = 1; i <= iterations_per_batch; ++i) {
        run_iteration((batch - 1) * iterations_per_batch + i, i % 2 == 1, &counts);
        if (::testing::Test::HasFatalFailure())
            return;
    }
    std::cout << "batch " << batch << ": " << counts.cold << " cold, " << counts.warm
              << " warm; second copies by window:";
    if (counts.windows.empty())
        std::cout << " none";
    for (const auto &[window, n] : counts.windows)
        std::cout << " " << window << "=" << n;
    std::cout << "; surplus daemons killed between iterations: " << counts.surplus_killed
              << "; init script run twice (killed during it): " << counts.init_script_reruns
              << "\n";
}

TEST(SupervisorKilled, Iterations001To025) { run_batch(1); }
TEST(SupervisorKilled, Iterations026To050) { run_batch(2); }
TEST(SupervisorKilled, Iterations051To075) { run_batch(3); }
TEST(SupervisorKilled, Iterations076To100) { run_batch(4); }

} // namespace
