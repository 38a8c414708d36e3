// Crash loops: one daemon killed over and over (SIGKILL), each time after its
// successor has come up. Every death must be followed by exactly one
// relaunch, two copies of a daemon must never run at once, and the
// supervisor's descriptors and resident memory must stay steady once the
// first cycles are behind it.
#include "fault_support.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <iostream>
#include <set>

namespace {

using namespace std::chrono_literals;
using e2e::format_text;
using e2e::log_record;

// Kills of each daemon: KELDRA_CRASHLOOP_KILLS, 200 by default (what the main
// suite runs; the sanitizer runs take fewer, tools/sanitize.sh).
const int kills = e2e::number_from_environment("KELDRA_CRASHLOOP_KILLS", 200, 40, 100000);
// The usage of the supervisor is taken after this many kills and compared
// with its usage at the end.
constexpr int baseline_kill = 20;
// Allowed growth of the resident memory between the two measurements. In
// the runs measured it did not grow at all (about 3.2 MiB throughout); a
// leak of one 4 KiB page per cycle would come to 720 KiB.
constexpr long rss_growth_bound_kib = 256;
constexpr auto relaunch_timeout = 20s;

bool start_supervisor(e2e::scenario &keldra)
{
    if (!keldra.start())
        return false;
    return keldra.wait_for_message('I', format_text("keldra launched successfully (pid:%d)\n",
                                                    keldra.pid())) >= 0;
}

struct usage {
    int descriptors = -1;
    long rss_kib = -1;
};

// The supervisor's usage once its descriptor count has stayed the same over
// a few readings (a launcher may hold a descriptor for a moment).
usage settled_usage(pid_t supervisor)
{
    int last = -2;
    int same = 0;
    e2e::wait_until(
        [&] {
            int now = e2e::descriptor_count(supervisor);
            same = now == last ? same + 1 : 0;
            last = now;
            return same >= 4;
        },
        5s, "a steady descriptor count of the supervisor");
    return {last, e2e::status_field(supervisor, "VmRSS")};
}

// Records the usage at the baseline kill and compares it at the last one.
struct usage_watch {
    pid_t supervisor = -1;
    usage baseline;

    void after_kill(int kill_number)
    {
        if (kill_number == baseline_kill) {
            baseline = settled_usage(supervisor);
            ASSERT_GT(baseline.descriptors, 0);
            ASSERT_GT(baseline.rss_kib, 0);
        } else if (kill_number == kills) {
            usage last;
            // The count must come back to the baseline, not merely settle.
            EXPECT_TRUE(e2e::wait_until(
                [&] {
                    last = settled_usage(supervisor);
                    return last.descriptors == baseline.descriptors;
                },
                10s, "the supervisor's descriptor count to be back to the baseline"))
                << "baseline " << baseline.descriptors << ", now " << last.descriptors;
            if (e2e::keldra_sanitizer().empty())
                EXPECT_LT(last.rss_kib - baseline.rss_kib, rss_growth_bound_kib)
                    << "VmRSS after kill " << baseline_kill << ": " << baseline.rss_kib
                    << " kB, after kill " << kills << ": " << last.rss_kib << " kB";
            else
                std::cout << "resident size not bounded: keldra runs under the "
                          << e2e::keldra_sanitizer() << " sanitizer\n";
            std::cout << "supervisor usage after kill " << baseline_kill << ": "
                      << baseline.descriptors << " descriptors, VmRSS " << baseline.rss_kib
                      << " kB; after kill " << kills << ": " << last.descriptors
                      << " descriptors, VmRSS " << last.rss_kib << " kB\n";
        }
    }
};

// Waits for the start record number n (counting from 1) and checks that it
// is the only one so far and the only copy running. Returns its pid.
pid_t wait_for_successor(std::string_view name, size_t n)
{
    auto starts = e2e::wait_for_starts(name, n, relaunch_timeout);
    if (starts.size() < n)
        return -1;
    EXPECT_EQ(starts.size(), n) << "more than one relaunch of " << name;
    pid_t pid = starts[n - 1].pid;
    std::vector<pid_t> running;
    EXPECT_TRUE(e2e::wait_until(
        [&] {
            running = e2e::daemon_pids(name);
            return running.size() <= 1 && (running.empty() || running[0] == pid) &&
                   e2e::process_alive(pid);
        },
        relaunch_timeout, "the new " + std::string(name) + " alone to run"));
    EXPECT_EQ(running, std::vector<pid_t>{pid}) << "two copies of " << name << " at once?";
    return pid;
}

// Every start as the launcher makes it: the full path alone, a session of
// its own, child of the supervisor.
void expect_starts_like_the_first(const std::vector<e2e::start_record> &starts,
                                  pid_t supervisor)
{
    for (const e2e::start_record &record : starts) {
        EXPECT_EQ(record.argv0, starts[0].argv0) << record.pid;
        EXPECT_EQ(record.argc, 1) << record.pid;
        EXPECT_EQ(record.sid, record.pid) << record.pid;
        EXPECT_EQ(record.ppid, supervisor) << record.pid;
        EXPECT_EQ(record.uid, starts[0].uid) << record.pid;
    }
}

// The kill loop of a daemon whose every launch is one start: kill the
// current copy, wait for its successor (and for `ready` of it), again.
void kill_loop(e2e::scenario &keldra, std::string_view name,
               const std::function<bool(pid_t, size_t)> &ready)
{
    usage_watch watch{keldra.pid(), {}};
    pid_t current = wait_for_successor(name, 1);
    ASSERT_GT(current, 0);
    ASSERT_TRUE(ready(current, 1));
    for (int k = 1; k <= kills; ++k) {
        SCOPED_TRACE(::testing::Message() << "kill " << k << " of " << name);
        ASSERT_EQ(kill(current, SIGKILL), 0);
        pid_t next = wait_for_successor(name, size_t(k) + 1);
        ASSERT_GT(next, 0);
        ASSERT_NE(next, current);
        ASSERT_TRUE(ready(next, size_t(k) + 1));
        current = next;
        watch.after_kill(k);
        if (::testing::Test::HasFatalFailure())
            return;
    }
    EXPECT_TRUE(e2e::stays_true([&] { return e2e::starts(name).size() == size_t(kills) + 1; },
                                500ms, "no further start of " + std::string(name)));
    auto starts = e2e::starts(name);
    EXPECT_EQ(starts.size(), size_t(kills) + 1);
    expect_starts_like_the_first(starts, keldra.pid());
    EXPECT_EQ(e2e::daemon_pids(name), std::vector<pid_t>{current});
}

TEST(CrashLoop, DunmarKilledAgainAndAgain)
{
    e2e::scenario keldra;
    ASSERT_TRUE(start_supervisor(keldra));
    // Each agent is killed only once its pid file is written, so that the
    // readiness wait of its launch never runs out.
    kill_loop(keldra, "dunmar", [](pid_t pid, size_t n) {
        auto ready = e2e::wait_for_steps("dunmar", "ready", n, relaunch_timeout);
        return ready.size() == n && ready[n - 1].pid == pid;
    });
    if (HasFatalFailure())
        return;
    EXPECT_EQ(keldra.count_messages('W', "No process dunmar found, start new one!\n"), kills + 1);
    EXPECT_EQ(keldra.count_messages('E', "dunmar process terminate - fail\n"), kills);
    EXPECT_EQ(keldra.count_messages('E', "signal num : 9\n"), kills);
    EXPECT_EQ(keldra.count_messages('E', "dunmar(-1) is dead\n"), kills);
    EXPECT_EQ(keldra.count_messages('E', "dunmar is not ready\n"), 0);
    EXPECT_EQ(keldra.count_messages('E', "Can't reset event for /run/dunmar.pid. error: -1\n"), 0);
    for (const e2e::start_record &record : e2e::starts("dunmar"))
        EXPECT_EQ(e2e::fork_label(record.pid), "System") << record.pid;
}

TEST(CrashLoop, TavishKilledAgainAndAgain)
{
    e2e::scenario keldra;
    ASSERT_TRUE(start_supervisor(keldra));
    kill_loop(keldra, "tavish", [](pid_t, size_t) { return true; });
    if (HasFatalFailure())
        return;
    EXPECT_EQ(keldra.count_messages('W', "No process tavish found, start new one!\n"), kills + 1);
    EXPECT_EQ(keldra.count_messages('E', "tavish process terminate - fail \n"), kills);
    EXPECT_EQ(keldra.count_messages('E', "signal num : 9 \n"), kills);
    EXPECT_EQ(keldra.count_messages('E', "tavish(-1) is dead\n"), kills);
    EXPECT_EQ(
        keldra.count_messages('E', "Can't set event reset for /run/tavish.ready. error: -1\n"),
        kills);
    EXPECT_EQ(keldra.count_messages('E', "Can't reset event for /run/tavish.ready. error: -1\n"),
              0);
    EXPECT_TRUE(e2e::exists("/run/tavish.ready"));
}

TEST(CrashLoop, OrvelKilledAgainAndAgain)
{
    e2e::scenario keldra;
    ASSERT_TRUE(start_supervisor(keldra));
    // Each daemon is killed once the launcher has marked it ready and read
    // every SIGCHLD before (a death merged into a pending one goes unseen).
    const pid_t k = keldra.pid();
    kill_loop(keldra, "orvel", [k](pid_t, size_t) {
        return e2e::wait_for_file("/run/orvel.ready") && e2e::wait_for_no_pending_sigchld(k);
    });
    if (HasFatalFailure())
        return;
    auto records = keldra.messages();
    EXPECT_EQ(e2e::count_messages(records, 'E', "launching orvel...\n"), kills + 1);
    EXPECT_EQ(e2e::count_messages(records, 'E', "orvel process terminate - fail\n"), kills);
    EXPECT_EQ(e2e::count_messages(records, 'E', "signal num : 9\n"), kills);
    // The number is the event's place in its epoll batch (0, or 1 behind a
    // directory event).
    EXPECT_EQ(std::count_if(records.begin(), records.end(),
                            [](const log_record &r) {
                                return r.level == 'E' && r.text.starts_with(
                                                              "orvel is dead. start flag is set "
                                                              "again...");
                            }),
              kills);
    EXPECT_TRUE(e2e::exists("/run/orvel.ready"));
    for (const e2e::start_record &record : e2e::starts("orvel"))
        EXPECT_EQ(e2e::fork_label(record.pid), "System::Privileged") << record.pid;
}

// ---------------------------------------------------------------- pellan
//
// Once the thread's ten socket polls are spent (by the first launches), a
// launch no longer waits for the sockets: the permission step runs right
// after the fork and, unless the new checker has already created its
// sockets, fails and kills it. The launcher then goes round (stale pass,
// launch) until a checker wins that race. So one death of a running checker
// is followed by one checker that comes through the permission step, after
// any number of checkers killed by the supervisor itself.

using faults::pellan_launch;
using faults::pellan_launches;

// The last launch as the end of the supervisor's stderr shows it (the whole
// file grows by megabytes in this loop).
pellan_launch last_pellan_launch(const e2e::scenario &keldra)
{
    constexpr off_t tail_size = 16384;
    pellan_launch last;
    FILE *file = fopen(keldra.stderr_path().c_str(), "r");
    if (!file)
        return last;
    fseeko(file, 0, SEEK_END);
    off_t size = ftello(file);
    fseeko(file, std::max<off_t>(0, size - tail_size), SEEK_SET);
    std::string tail(size_t(std::min(size, tail_size)), '\0');
    size_t got = fread(tail.data(), 1, tail.size(), file);
    fclose(file);
    tail.resize(got);
    auto launches = pellan_launches(e2e::parse_keldra_stderr(tail));
    return launches.empty() ? last : launches.back();
}

// Waits for a checker other than `previous` that came through the
// permission step and runs alone. Two checkers must never run at once.
pid_t wait_for_surviving_checker(const e2e::scenario &keldra, pid_t previous)
{
    pid_t found = -1;
    bool two_at_once = false;
    e2e::wait_until(
        [&] {
            auto running = e2e::daemon_pids("pellan");
            two_at_once = two_at_once || running.size() > 1;
            pellan_launch last = last_pellan_launch(keldra);
            if (last.pid == previous || !last.completed || last.permissions_failed ||
                running != std::vector<pid_t>{last.pid})
                return false;
            found = last.pid;
            return true;
        },
        60s, "a checker that passed the permission step");
    EXPECT_FALSE(two_at_once) << "two checkers ran at once";
    return found;
}

TEST(CrashLoop, PellanKilledAgainAndAgain)
{
    e2e::scenario keldra;
    ASSERT_TRUE(start_supervisor(keldra));
    usage_watch watch{keldra.pid(), {}};
    std::vector<pid_t> killed;
    pid_t current = wait_for_surviving_checker(keldra, -1);
    ASSERT_GT(current, 0);
    for (int k = 1; k <= kills; ++k) {
        SCOPED_TRACE(::testing::Message() << "kill " << k << " of pellan");
        ASSERT_EQ(kill(current, SIGKILL), 0);
        killed.push_back(current);
        current = wait_for_surviving_checker(keldra, current);
        ASSERT_GT(current, 0);
        watch.after_kill(k);
        if (HasFatalFailure())
            return;
    }
    EXPECT_TRUE(e2e::stays_true(
        [&] { return last_pellan_launch(keldra).pid == current && e2e::process_alive(current); },
        500ms, "the last checker running on"));

    // The whole log, once: every launch, and which of them survived the
    // permission step.
    auto records = keldra.messages();
    auto launches = pellan_launches(records);
    std::vector<pid_t> survivors;
    for (const pellan_launch &launch : launches) {
        EXPECT_TRUE(launch.completed) << launch.pid;
        if (!launch.permissions_failed)
            survivors.push_back(launch.pid);
    }
    ASSERT_EQ(survivors.size(), size_t(kills) + 1);
    killed.push_back(current);
    EXPECT_EQ(survivors, killed);
    const int deaths = int(launches.size()) - 1;
    EXPECT_EQ(e2e::count_messages(records, 'W', "No process pellan found, start new one!\n"),
              int(launches.size()));
    EXPECT_EQ(e2e::count_messages(records, 'E', "pellan process terminated - fail\n"), deaths);
    EXPECT_EQ(e2e::count_messages(records, 'E', "signal num : 9 \n"), deaths);
    EXPECT_EQ(e2e::count_messages(records, 'E', "pellan(-1) is dead\n"), deaths);
    EXPECT_EQ(e2e::count_messages(records, 'I', "pellan process finished - success\n"), 0);
    std::cout << "pellan: " << kills << " kills, " << launches.size() << " launches, "
              << launches.size() - survivors.size()
              << " checkers killed by the supervisor's permission step\n";

    // Start records: one for every surviving checker, all like the first;
    // checkers killed before or during their exec may have none.
    auto starts = e2e::starts("pellan");
    std::set<pid_t> launched;
    for (const pellan_launch &launch : launches)
        launched.insert(launch.pid);
    std::set<pid_t> started;
    for (const e2e::start_record &record : starts) {
        EXPECT_TRUE(launched.count(record.pid)) << "start of an unknown pellan " << record.pid;
        EXPECT_TRUE(started.insert(record.pid).second) << "two starts of " << record.pid;
        EXPECT_EQ(record.uid, 401u) << record.pid;
        EXPECT_EQ(record.gid, 401u) << record.pid;
    }
    expect_starts_like_the_first(starts, keldra.pid());
    for (pid_t pid : survivors)
        EXPECT_TRUE(started.count(pid)) << "no start record of the surviving checker " << pid;
    EXPECT_EQ(e2e::daemon_pids("pellan"), std::vector<pid_t>{current});
}

} // namespace
