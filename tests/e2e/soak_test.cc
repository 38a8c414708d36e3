// Soak: thousands of daemon deaths under one supervisor per daemon. Every
// death must be followed by exactly one relaunch (two copies never run at
// once), every death must be reported by the launcher as it happened, and the
// supervisor's descriptors, threads and resident memory must stay flat once
// the first deaths are behind it.
//
// The number of deaths is KELDRA_SOAK_DEATHS (default 10000, what the main
// suite runs; the sanitizer runs take 200). They are split over seven test
// cases, each with
// a supervisor of its own, so that ctest can run them side by side:
//
//   dunmar, orvel, tavish   32 % each, one case per daemon;
//   pellan                   4 % in all, in four cases of 1 % each.
//
// Why pellan gets so few: its launcher's ten socket polls are spent by the
// first launches and never given back, so every later launch checks the
// sockets right after the fork, before the new checker can have made them,
// and kills it. The launcher goes round (clean the runtime directory with a
// shell, fork again) until a checker wins that race, which takes a hundred
// launches and more per death: 0.3 s on a quiet machine, well over 1 s on a
// busy one (a checker only wins when the launcher thread is preempted right
// after the fork, and the launches are CPU work that competes with everything
// else). A death of the others takes 10 to 20 ms. With this split the
// 10000-death soak spends about as long on 100 pellan deaths per case as on
// 3200 deaths of another daemon, and no case comes near ctest's 600 s limit.
//
// Deaths come in pairs: the test kills the running daemon (SIGKILL and
// SIGTERM in turn) after writing one-shot settings that make its successor
// end on its own right after its readiness step (an exit code, or a signal it
// sends itself); the successor of that one runs normally and is killed again.
// pellan's one-shot settings could be taken by a checker that the launcher
// kills in its socket race, so the checker's standing settings are switched
// instead: every surviving checker's start record says whether it came up
// with them (it then ends on its own) or without (the test kills it).
//
// Resources: no growth of the supervisor per death is accepted (nothing is
// kept from one life of a daemon to the next: no descriptor, thread or
// allocation). The usage is taken after the warm-up deaths and again at the
// end: descriptors and threads must be back to the same count, and the
// resident memory may differ only by resident_growth_bound_kib, a fixed
// allowance for the allocator and the C library, independent of the number
// of deaths. Over the 3000-odd deaths of a case of the full soak that is
// about 90 bytes per death, so a leak of one small allocation per death
// fails; over a pellan case it is 9 bytes per launch.
#include "harness.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <map>
#include <set>

namespace {

using namespace std::chrono_literals;
using e2e::format_text;
using e2e::log_record;
using steady = std::chrono::steady_clock;

constexpr int default_deaths = 10000;
constexpr auto relaunch_timeout = 30s;
constexpr auto pellan_relaunch_timeout = 90s;
// The resident memory may grow by this much between the end of the warm-up
// and the end of the soak (no growth per death is accepted).
constexpr long resident_growth_bound_kib = 256;

// ---------------------------------------------------------------- counts

int soak_deaths()
{
    return e2e::number_from_environment("KELDRA_SOAK_DEATHS", default_deaths, 40, 1000000);
}

// The pellan cases and their share (see above).
constexpr int pellan_cases = 4;

int pellan_deaths_per_case()
{
    return std::max(2, soak_deaths() / 100);
}

// The deaths of the case of dunmar, orvel or tavish: an equal part of what
// the pellan cases leave, dunmar taking the remainder.
int deaths_of(std::string_view name)
{
    const int rest = std::max(6, soak_deaths() - pellan_cases * pellan_deaths_per_case());
    return rest / 3 + (name == "dunmar" ? rest % 3 : 0);
}

// The usage is compared from this death on: a tenth of the deaths, at least
// 20 (at most half of them in a short run).
int warm_up_deaths(int deaths)
{
    return std::max(std::min(20, deaths / 2), deaths / 10);
}

// ---------------------------------------------------------------- files

// Reads the lines appended to a file since the last call.
class line_tail {
public:
    explicit line_tail(std::string path) : path_(std::move(path)) {}

    std::vector<std::string> new_lines()
    {
        std::vector<std::string> lines;
        int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            return lines;
        char buffer[65536];
        ssize_t n;
        while ((n = pread(fd, buffer, sizeof buffer, offset_)) > 0) {
            offset_ += n;
            partial_.append(buffer, size_t(n));
        }
        close(fd);
        size_t start = 0;
        for (size_t end; (end = partial_.find('\n', start)) != std::string::npos; start = end + 1)
            lines.push_back(partial_.substr(start, end - start));
        partial_.erase(0, start);
        return lines;
    }

private:
    std::string path_;
    off_t offset_ = 0;
    std::string partial_;
};

// Calls back for every record of the supervisor's stderr, reading it in
// blocks (it grows to a hundred megabytes in the pellan soak). A block is
// cut just before a line that starts with "[", which is where a stamp and
// its record begin.
void for_each_record(const std::string &path, const std::function<void(const log_record &)> &f)
{
    constexpr size_t block = 8 << 20;
    FILE *file = fopen(path.c_str(), "r");
    ASSERT_NE(file, nullptr) << path;
    std::string data;
    std::vector<char> buffer(block);
    bool end_of_file = false;
    while (!end_of_file || !data.empty()) {
        if (!end_of_file) {
            size_t got = fread(buffer.data(), 1, buffer.size(), file);
            data.append(buffer.data(), got);
            end_of_file = got < buffer.size();
        }
        size_t cut = end_of_file ? data.size() : data.rfind("\n[");
        if (cut == std::string::npos)
            continue;
        if (!end_of_file)
            cut += 1;
        for (const log_record &record : e2e::parse_keldra_stderr(std::string_view(data).substr(0, cut)))
            f(record);
        data.erase(0, cut);
    }
    fclose(file);
}

// Counts of (level, text) of the records of one source file.
std::map<std::pair<char, std::string>, int> count_records(const e2e::scenario &keldra,
                                                          const std::string &file)
{
    std::map<std::pair<char, std::string>, int> counts;
    for_each_record(keldra.stderr_path(), [&](const log_record &record) {
        if (record.file == file)
            counts[{record.level, record.text}]++;
    });
    return counts;
}

// ---------------------------------------------------------------- usage

struct usage {
    int descriptors = -1;
    long threads = -1;
    long rss_kib = -1;
};

std::ostream &operator<<(std::ostream &out, const usage &u)
{
    return out << u.descriptors << " descriptors, " << u.threads << " threads, VmRSS "
               << u.rss_kib << " kB";
}

// The supervisor's usage once its descriptor count has stayed the same over
// a few readings (a launcher holds a descriptor for a moment now and then).
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
        10s, "a steady descriptor count of the supervisor");
    return {last, e2e::status_field(supervisor, "Threads"),
            e2e::status_field(supervisor, "VmRSS")};
}

// Takes the usage after the warm-up and compares it with the usage at the
// end; also notes the largest resident size seen at the samples between.
struct usage_watch {
    pid_t supervisor = -1;
    int deaths = 0;
    int warm_up = 0;
    usage baseline;
    long rss_peak_kib = -1;

    void after_death(int death)
    {
        if (death == warm_up) {
            baseline = settled_usage(supervisor);
            ASSERT_GT(baseline.descriptors, 0);
            ASSERT_GT(baseline.rss_kib, 0);
            rss_peak_kib = baseline.rss_kib;
        } else if (death > warm_up && death % 100 == 0) {
            rss_peak_kib = std::max(rss_peak_kib, e2e::status_field(supervisor, "VmRSS"));
        }
    }

    void at_end(const std::string &name)
    {
        usage last;
        // The count must come back to the baseline, not merely settle.
        EXPECT_TRUE(e2e::wait_until(
            [&] {
                last = settled_usage(supervisor);
                return last.descriptors == baseline.descriptors;
            },
            20s, "the supervisor's descriptor count to be back to the baseline"))
            << "after death " << warm_up << ": " << baseline << "; at the end: " << last;
        EXPECT_EQ(last.threads, baseline.threads);
        rss_peak_kib = std::max(rss_peak_kib, last.rss_kib);
        const long growth = last.rss_kib - baseline.rss_kib;
        if (e2e::keldra_sanitizer().empty())
            EXPECT_LE(growth, resident_growth_bound_kib)
                << "VmRSS after death " << warm_up << ": " << baseline.rss_kib
                << " kB, after death " << deaths << ": " << last.rss_kib << " kB";
        else
            std::cout << "resident size not bounded: keldra runs under the "
                      << e2e::keldra_sanitizer() << " sanitizer\n";
        std::cout << name << " soak: supervisor after death " << warm_up << ": " << baseline
                  << "; after death " << deaths << ": " << last << "; VmRSS peak "
                  << rss_peak_kib << " kB; growth " << growth << " kB over "
                  << deaths - warm_up << " deaths ("
                  << double(growth) * 1024 / std::max(1, deaths - warm_up)
                  << " bytes per death, bound " << resident_growth_bound_kib << " kB in all)\n";
    }
};

// ---------------------------------------------------------------- daemons

// How a daemon's life ended, as the test caused or expects it.
struct death {
    bool by_signal = false;
    int number = 0; // signal or exit code
};

// The one-shot settings of the daemon that dies on its own in cycle c, and
// the kill of cycle c.
death own_end(int cycle)
{
    switch (cycle % 4) {
    case 0: return {false, 0};
    case 1: return {true, SIGUSR1};
    case 2: return {false, 3 + cycle % 100};
    default: return {true, SIGUSR2};
    }
}

std::string settings_of(const death &d)
{
    return d.by_signal ? format_text("exit_signal=%d\n", d.number)
                       : format_text("exit_code=%d\n", d.number);
}

int kill_signal(int cycle)
{
    return cycle % 2 == 0 ? SIGKILL : SIGTERM;
}

// What the simulated daemons wrote about themselves, read as it grows.
struct daemon_records {
    explicit daemon_records(std::string_view daemon)
        : name(daemon),
          starts_file(std::string(e2e::simd_dir) + "/" + name + ".starts"),
          ends_file(std::string(e2e::simd_dir) + "/" + name + ".ends"),
          steps_file(std::string(e2e::simd_dir) + "/" + name + ".steps")
    {
    }

    void refresh()
    {
        for (const std::string &line : starts_file.new_lines())
            starts.push_back(e2e::parse_start_record(line));
        for (const std::string &line : ends_file.new_lines()) {
            e2e::end_record end = e2e::parse_end_record(line);
            if (end.event == "error")
                errors.push_back(line);
            else
                ends[end.pid] = end;
        }
        for (const std::string &line : steps_file.new_lines()) {
            auto fields = e2e::parse_fields(line);
            if (fields["step"] == "ready")
                ready.insert(pid_t(atoi(fields["pid"].c_str())));
        }
    }

    std::string name;
    line_tail starts_file;
    line_tail ends_file;
    line_tail steps_file;
    std::vector<e2e::start_record> starts;
    std::map<pid_t, e2e::end_record> ends;
    std::set<pid_t> ready;
    std::vector<std::string> errors;
};

// True once the daemon takes SIGTERM through its signal descriptor (the
// signal is blocked then), so that it records the signal before it ends.
bool blocks_sigterm(pid_t pid)
{
    auto status = e2e::read_file("/proc/" + std::to_string(pid) + "/status");
    if (!status)
        return false;
    size_t at = status->find("\nSigBlk:\t");
    if (at == std::string::npos)
        return false;
    uint64_t blocked = strtoull(status->c_str() + at + 9, nullptr, 16);
    return (blocked >> (SIGTERM - 1)) & 1;
}

// Sends sig to the daemon; SIGTERM only once the daemon will record it.
bool kill_daemon(pid_t pid, int sig)
{
    if (sig == SIGTERM &&
        !e2e::wait_until([&] { return blocks_sigterm(pid); }, relaunch_timeout,
                         format_text("daemon %d to take SIGTERM through its descriptor", pid)))
        return false;
    return kill(pid, sig) == 0;
}

bool start_supervisor(e2e::scenario &keldra)
{
    if (!keldra.start())
        return false;
    return keldra.wait_for_message('I', format_text("keldra launched successfully (pid:%d)\n",
                                                    keldra.pid())) >= 0;
}

// Waits for start record number n (counting from 1); unless more may follow
// at once (n is a daemon that ends on its own), fails if more than n starts
// are recorded. Returns its pid, or -1.
pid_t wait_for_start_record(daemon_records &records, size_t n, bool more_may_follow = false)
{
    bool started = e2e::wait_until(
        [&] {
            records.refresh();
            return records.starts.size() >= n;
        },
        relaunch_timeout, format_text("start %zu of %s", n, records.name.c_str()));
    if (!started)
        return -1;
    if (!more_may_follow) {
        EXPECT_EQ(records.starts.size(), n) << "more than one relaunch of " << records.name;
    }
    return records.starts[n - 1].pid;
}

// The same, and waits for that daemon to run alone. Returns its pid.
pid_t wait_for_start(daemon_records &records, size_t n)
{
    const pid_t pid = wait_for_start_record(records, n);
    if (pid < 0)
        return -1;
    std::vector<pid_t> running;
    EXPECT_TRUE(e2e::wait_until(
        [&] {
            running = e2e::daemon_pids(records.name);
            return running.size() <= 1 && (running.empty() || running[0] == pid) &&
                   e2e::process_alive(pid);
        },
        relaunch_timeout, "the new " + records.name + " alone to run"));
    EXPECT_EQ(running, std::vector<pid_t>{pid}) << "two copies of " << records.name << " at once?";
    return pid;
}

bool wait_for_end(daemon_records &records, pid_t pid)
{
    return e2e::wait_until(
        [&] {
            records.refresh();
            return records.ends.count(pid) > 0;
        },
        relaunch_timeout, format_text("the end record of %s %d", records.name.c_str(), pid));
}

// How the launcher of one daemon reports a death, and its launches.
struct launcher_texts {
    std::string file;
    char signal_level;
    std::string killed;          // by a signal
    std::string signal_number;   // format with %d
    char exit_level;
    std::string exited;          // exit code
    std::string return_value;    // format with %d
    char launch_level;
    std::string launch;          // once per launch
};

const launcher_texts &texts_of(std::string_view name)
{
    static const std::map<std::string, launcher_texts, std::less<>> texts = {
        {"dunmar",
         {"launcher-dunmar.cc", 'E', "dunmar process terminate - fail\n", "signal num : %d\n", 'I',
          "dunmar process finished - success\n", "return value : %d\n", 'W',
          "No process dunmar found, start new one!\n"}},
        {"tavish",
         {"tavish-launcher.cc", 'E', "tavish process terminate - fail \n", "signal num : %d \n",
          'I', "tavish process terminate - success \n", "return value : %d \n", 'W',
          "No process tavish found, start new one!\n"}},
        {"orvel",
         {"orvel-launcher.cc", 'E', "orvel process terminate - fail\n", "signal num : %d\n", 'I',
          "orvel process terminate - success\n", "return value : %d \n", 'E',
          "launching orvel...\n"}},
    };
    return texts.find(name)->second;
}

// The tallies the test keeps of what it caused.
struct death_tally {
    int deaths = 0;
    std::map<int, int> signals; // signal -> deaths
    std::map<int, int> codes;   // exit code -> deaths
    int terms = 0;              // SIGTERM from the test (recorded as "term")
    int self_signals = 0;
    int exits = 0;

    void count(const death &d, bool from_test)
    {
        deaths++;
        if (d.by_signal) {
            signals[d.number]++;
            if (from_test && d.number == SIGTERM)
                terms++;
            else if (!from_test)
                self_signals++;
        } else {
            codes[d.number]++;
            exits++;
        }
    }
};

// The daemons' own records of their ends agree with the tally.
void expect_end_records(const daemon_records &records, const death_tally &tally)
{
    int terms = 0, signals = 0, exits = 0;
    for (const auto &[pid, end] : records.ends) {
        terms += end.event == "term";
        signals += end.event == "signal";
        exits += end.event == "exit";
    }
    EXPECT_EQ(terms, tally.terms);
    EXPECT_EQ(signals, tally.self_signals);
    EXPECT_EQ(exits, tally.exits);
    EXPECT_TRUE(records.errors.empty()) << records.errors.front();
}

// The launcher reported every death as it happened and launched once per
// death and once at the start.
void expect_launcher_reports(const e2e::scenario &keldra, std::string_view name,
                             const death_tally &tally)
{
    const launcher_texts &t = texts_of(name);
    auto counts = count_records(keldra, t.file);
    int killed = 0;
    for (const auto &[signal, n] : tally.signals) {
        killed += n;
        EXPECT_EQ((counts[{t.signal_level, format_text(t.signal_number.c_str(), signal)}]), n)
            << "deaths by signal " << signal;
    }
    int exited = 0;
    for (const auto &[code, n] : tally.codes) {
        exited += n;
        EXPECT_EQ((counts[{t.exit_level, format_text(t.return_value.c_str(), code)}]), n)
            << "exits with code " << code;
    }
    EXPECT_EQ((counts[{t.signal_level, t.killed}]), killed);
    EXPECT_EQ((counts[{t.exit_level, t.exited}]), exited);
    EXPECT_EQ((counts[{t.launch_level, t.launch}]), tally.deaths + 1);
    if (name == "dunmar") {
        EXPECT_EQ((counts[{'E', "dunmar(-1) is dead\n"}]), tally.deaths);
        EXPECT_EQ((counts[{'E', "dunmar is not ready\n"}]), 0);
    } else if (name == "tavish") {
        EXPECT_EQ((counts[{'E', "tavish(-1) is dead\n"}]), tally.deaths);
    } else if (name == "orvel") {
        int dead = 0;
        for (const auto &[key, n] : counts)
            if (key.first == 'E' && key.second.starts_with("orvel is dead. start flag is set again..."))
                dead += n;
        EXPECT_EQ(dead, tally.deaths);
    }
}

// Waits until the daemon pid may be killed: its launcher has done what it
// does after a launch (dunmar: the pid file; orvel: the ready file).
bool wait_until_killable(daemon_records &records, pid_t pid, pid_t supervisor)
{
    if (records.name == "dunmar")
        return e2e::wait_until(
            [&] {
                records.refresh();
                return records.ready.count(pid) > 0;
            },
            relaunch_timeout, format_text("dunmar %d to write its pid file", pid));
    // Orvel's death is seen through a SIGCHLD, which merges with one still
    // pending (the init script's shell, a successor that ended on its own).
    if (records.name == "orvel")
        return e2e::wait_for_file("/run/orvel.ready", relaunch_timeout) &&
               e2e::wait_for_no_pending_sigchld(supervisor, relaunch_timeout);
    return true;
}

// The soak of a daemon whose every launch is one start: pairs of a kill by
// the test and an end of the successor on its own.
void soak_daemon(std::string_view name)
{
    const int deaths = deaths_of(name);
    e2e::scenario keldra;
    ASSERT_TRUE(start_supervisor(keldra));
    daemon_records records(name);
    usage_watch watch{keldra.pid(), deaths, warm_up_deaths(deaths), {}, -1};
    death_tally tally;
    const auto began = steady::now();

    pid_t current = wait_for_start(records, 1);
    ASSERT_GT(current, 0);
    for (int cycle = 0; tally.deaths < deaths; ++cycle) {
        SCOPED_TRACE(::testing::Message() << name << " death " << tally.deaths + 1);
        ASSERT_TRUE(wait_until_killable(records, current, keldra.pid()));
        const bool successor_ends_itself = tally.deaths + 2 <= deaths;
        const death own = own_end(cycle);
        if (successor_ends_itself)
            e2e::write_next_settings(name, settings_of(own));
        const int sig = kill_signal(cycle);
        ASSERT_TRUE(kill_daemon(current, sig));
        tally.count({true, sig}, true);
        // The successor that ends on its own may be gone already.
        pid_t next = successor_ends_itself ? wait_for_start_record(records, size_t(tally.deaths) + 1, true)
                                           : wait_for_start(records, size_t(tally.deaths) + 1);
        ASSERT_GT(next, 0);
        ASSERT_NE(next, current);
        watch.after_death(tally.deaths);
        current = next;
        if (!successor_ends_itself)
            continue;
        ASSERT_TRUE(wait_for_end(records, current));
        tally.count(own, false);
        next = wait_for_start(records, size_t(tally.deaths) + 1);
        ASSERT_GT(next, 0);
        ASSERT_NE(next, current);
        // Relaunched after the end, not beside it.
        EXPECT_GE(records.starts.back().mono_ns, records.ends[current].mono_ns);
        watch.after_death(tally.deaths);
        current = next;
        if (::testing::Test::HasFatalFailure())
            return;
    }
    const auto took = steady::now() - began;
    ASSERT_TRUE(wait_until_killable(records, current, keldra.pid()));
    EXPECT_TRUE(e2e::stays_true(
        [&] {
            records.refresh();
            return records.starts.size() == size_t(deaths) + 1 && e2e::process_alive(current);
        },
        1s, "no further start of " + std::string(name)));
    EXPECT_EQ(records.starts.size(), size_t(deaths) + 1);
    EXPECT_EQ(e2e::daemon_pids(name), std::vector<pid_t>{current});
    std::set<pid_t> pids;
    for (const e2e::start_record &start : records.starts) {
        EXPECT_TRUE(pids.insert(start.pid).second) << "two starts of " << start.pid;
        EXPECT_EQ(start.ppid, keldra.pid()) << start.pid;
        EXPECT_EQ(start.argv0, records.starts[0].argv0) << start.pid;
    }
    watch.at_end(std::string(name));
    expect_end_records(records, tally);
    expect_launcher_reports(keldra, name, tally);
    std::cout << name << " soak: " << deaths << " deaths (" << tally.deaths - tally.exits -
                     tally.self_signals
              << " kills, " << tally.exits << " exits, " << tally.self_signals
              << " self-signals) in "
              << std::chrono::duration_cast<std::chrono::milliseconds>(took).count() << " ms\n";
}

// ---------------------------------------------------------------- pellan

// One launch of the checker as the supervisor's log tells it.
struct pellan_launch {
    pid_t pid = -1;
    bool permissions_failed = false; // killed by the permission step
    bool completed = false;          // "pellan launched successfully" logged
    bool reaped = false;             // "pellan(<pid>) is dead" logged
};

// Follows the launches in the supervisor's stderr as it grows.
struct pellan_launches {
    explicit pellan_launches(const e2e::scenario &keldra) : tail(keldra.stderr_path()) {}

    void refresh()
    {
        std::string text;
        for (const std::string &line : tail.new_lines())
            text += line + "\n";
        for (const log_record &record : e2e::parse_keldra_stderr(text))
            if (record.file == "pellan-launcher.cc")
                note(record);
    }

    void note(const log_record &record)
    {
        int pid = -1;
        const std::string &text = record.text;
        if (sscanf(text.c_str(), "launch pellan( %d )", &pid) == 1) {
            list.push_back({pid, false, false, false});
            return;
        }
        if (list.empty())
            return;
        pellan_launch &last = list.back();
        if (!last.completed &&
            (text.starts_with("can't change mode (") || text.starts_with("can't change owner (")))
            last.permissions_failed = true;
        else if (sscanf(text.c_str(), "pellan launched successfully (pid: %d)", &pid) == 1 &&
                 pid == last.pid)
            last.completed = true;
        else if (text == format_text("pellan(%d) is dead\n", last.pid))
            last.reaped = true;
    }

    line_tail tail;
    std::vector<pellan_launch> list;
};

// Waits for the first launch after index `after` that came through the
// permission step; returns its index, or -1. Two checkers never run at once.
int wait_for_survivor(pellan_launches &launches, int after)
{
    int found = -1;
    bool two_at_once = false;
    e2e::wait_until(
        [&] {
            two_at_once = two_at_once || e2e::daemon_pids("pellan").size() > 1;
            launches.refresh();
            for (int i = after + 1; i < int(launches.list.size()); ++i) {
                const pellan_launch &launch = launches.list[size_t(i)];
                if (launch.completed && !launch.permissions_failed) {
                    found = i;
                    return true;
                }
            }
            return false;
        },
        pellan_relaunch_timeout, "a checker that passed the permission step");
    EXPECT_FALSE(two_at_once) << "two checkers ran at once";
    return found;
}

// The start record of a surviving checker (it made its sockets, so it ran).
const e2e::start_record *start_of(daemon_records &records, pid_t pid)
{
    const e2e::start_record *start = nullptr;
    e2e::wait_until(
        [&] {
            records.refresh();
            for (const e2e::start_record &record : records.starts)
                if (record.pid == pid)
                    start = &record;
            return start != nullptr;
        },
        relaunch_timeout, format_text("the start record of pellan %d", pid));
    return start;
}

// The launcher's reports agree with the launches and with what the test
// caused: every launch but the last was reaped as a death, the checkers
// killed by the permission step died by SIGKILL.
void expect_pellan_reports(const e2e::scenario &keldra, const pellan_launches &launches,
                           const death_tally &tally, int case_number)
{
    int doomed = 0;
    for (const pellan_launch &launch : launches.list)
        doomed += launch.permissions_failed;
    const int launched = int(launches.list.size());
    auto counts = count_records(keldra, "pellan-launcher.cc");
    EXPECT_EQ((counts[{'W', "No process pellan found, start new one!\n"}]), launched);
    EXPECT_EQ((counts[{'E', "pellan(-1) is dead\n"}]), launched - 1);
    EXPECT_EQ((counts[{'I', "pellan process finished - success\n"}]), tally.exits);
    EXPECT_EQ((counts[{'E', "pellan process terminated - fail\n"}]),
              launched - 1 - tally.exits);
    for (const auto &[code, n] : tally.codes)
        EXPECT_EQ((counts[{'I', format_text("return value : %d \n", code)}]), n) << code;
    for (const auto &[signal, n] : tally.signals)
        EXPECT_EQ((counts[{'E', format_text("signal num : %d \n", signal)}]),
                  n + (signal == SIGKILL ? doomed : 0))
            << signal;
    if (tally.signals.count(SIGKILL) == 0) {
        EXPECT_EQ((counts[{'E', "signal num : 9 \n"}]), doomed);
    }
    std::cout << "pellan " << case_number << " soak: " << launched << " launches, " << doomed
              << " checkers killed by the supervisor's permission step\n";
}

class PellanSoak : public ::testing::TestWithParam<int> {
};

TEST_P(PellanSoak, Deaths)
{
    const int deaths = pellan_deaths_per_case();
    e2e::scenario keldra;
    ASSERT_TRUE(start_supervisor(keldra));
    daemon_records records("pellan");
    pellan_launches launches(keldra);
    usage_watch watch{keldra.pid(), deaths, warm_up_deaths(deaths), {}, -1};
    death_tally tally;
    std::vector<int> survivors;
    const auto began = steady::now();

    int index = wait_for_survivor(launches, -1);
    ASSERT_GE(index, 0);
    int kills = 0;
    int own_ends = 0;
    for (;;) {
        SCOPED_TRACE(::testing::Message() << "pellan death " << tally.deaths + 1);
        survivors.push_back(index);
        const pid_t current = launches.list[size_t(index)].pid;
        const e2e::start_record *start = start_of(records, current);
        ASSERT_NE(start, nullptr);
        const bool ends_itself = start->settings == "conf";
        if (!ends_itself && tally.deaths >= deaths)
            break;
        if (ends_itself) {
            // Its successors run normally again (those already started with
            // the settings end on their own as well).
            e2e::remove_settings("pellan");
            ASSERT_TRUE(wait_for_end(records, current));
            const e2e::end_record &end = records.ends[current];
            tally.count({end.event == "signal", end.event == "signal" ? end.signal : end.code},
                        false);
        } else {
            if (tally.deaths + 2 <= deaths)
                e2e::write_settings("pellan", settings_of(own_end(own_ends++)) + "after_ms=200\n");
            const int sig = kill_signal(kills++);
            ASSERT_TRUE(kill_daemon(current, sig));
            tally.count({true, sig}, true);
        }
        index = wait_for_survivor(launches, index);
        ASSERT_GE(index, 0);
        watch.after_death(tally.deaths);
        if (::testing::Test::HasFatalFailure())
            return;
    }
    const auto took = steady::now() - began;
    const pid_t current = launches.list[size_t(index)].pid;
    EXPECT_TRUE(e2e::stays_true(
        [&] {
            launches.refresh();
            return int(launches.list.size()) == index + 1 && e2e::process_alive(current);
        },
        1s, "the last checker running on"));
    EXPECT_EQ(e2e::daemon_pids("pellan"), std::vector<pid_t>{current});

    // The survivors the test saw are all the launches that came through the
    // permission step, in order, and every launch was followed by one death
    // and one launch.
    std::vector<int> all_survivors;
    for (int i = 0; i < int(launches.list.size()); ++i) {
        const pellan_launch &launch = launches.list[size_t(i)];
        EXPECT_TRUE(launch.completed) << launch.pid;
        if (!launch.permissions_failed)
            all_survivors.push_back(i);
        if (i + 1 < int(launches.list.size())) {
            EXPECT_TRUE(launch.reaped) << "no death reported of pellan " << launch.pid;
        }
    }
    EXPECT_EQ(all_survivors, survivors);
    EXPECT_EQ(int(survivors.size()), tally.deaths + 1);
    std::set<pid_t> launched;
    for (const pellan_launch &launch : launches.list)
        launched.insert(launch.pid);
    std::set<pid_t> started;
    records.refresh();
    for (const e2e::start_record &start : records.starts) {
        EXPECT_TRUE(launched.count(start.pid)) << "start of an unknown pellan " << start.pid;
        EXPECT_TRUE(started.insert(start.pid).second) << "two starts of " << start.pid;
        EXPECT_EQ(start.ppid, keldra.pid()) << start.pid;
        EXPECT_EQ(start.uid, 401u) << start.pid;
    }
    watch.deaths = tally.deaths;
    watch.at_end(format_text("pellan %d", GetParam()));
    expect_end_records(records, tally);
    expect_pellan_reports(keldra, launches, tally, GetParam());
    std::cout << "pellan " << GetParam() << " soak: " << tally.deaths << " deaths (" << tally.deaths - tally.exits -
                     tally.self_signals
              << " kills, " << tally.exits << " exits, " << tally.self_signals
              << " self-signals) in "
              << std::chrono::duration_cast<std::chrono::milliseconds>(took).count() << " ms\n";
}

INSTANTIATE_TEST_SUITE_P(Soak, PellanSoak, ::testing::Range(0, pellan_cases));

TEST(Soak, DunmarDeaths)
{
    soak_daemon("dunmar");
}

TEST(Soak, TavishDeaths)
{
    soak_daemon("tavish");
}

TEST(Soak, OrvelDeaths)
{
    soak_daemon("orvel");
}

} // namespace
