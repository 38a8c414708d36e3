// keldra on a kernel that enforces Smack. Each test boots the Smack test VM
// (tools/smack-vm/run-vm.sh) with one scenario of vm-init.sh, reads what the
// VM wrote to its second serial port and checks it here, on the host: the
// thread labels read back from /proc/<pid>/task/<tid>/attr/current, the
// labels that the daemons inherited, the security.SMACK64 label of the
// reinstall marker, the kernel's denial messages, and keldra's log when the
// kernel refuses its labels. keldra itself only ever runs inside the VM.
//
// A launcher thread is told from the others by what the kernel shows it
// blocked in (/proc/<pid>/task/<tid>/syscall): the thread that launched a
// daemon waits for it in wait4(<daemon pid>); the application-policy thread
// waits in epoll_wait.
#include "harness.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;
using e2e::expected_message;
using e2e::format_text;
using e2e::log_record;

constexpr const char *process_label = "Supervisor";
constexpr int syscall_read = 0;
constexpr int syscall_wait4 = 61;
constexpr int syscall_futex = 202;
constexpr int syscall_epoll_wait = 232;
constexpr int syscall_epoll_pwait = 281;
constexpr int cap_mac_override = 32;
constexpr int cap_mac_admin = 33;
constexpr int exit_qemu_unavailable = 77;
// The VM itself is bounded by run-vm.sh; this covers a kernel build on a
// cold cache as well.
constexpr auto run_limit = 1400s;

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string tail(const std::string &text, size_t lines)
{
    size_t at = text.size();
    for (size_t n = 0; at > 0 && n <= lines; ++n)
        at = text.rfind('\n', at - 1);
    return at == std::string::npos ? text : text.substr(at + 1);
}

// ---------------------------------------------------------------------------
// One boot of the VM

struct vm_run {
    std::string scenario;
    std::string out_dir;
    int status = -1; // run-vm.sh's exit status, -1 when it did not end in time
    bool done = false; // the scenario reached its end and sent everything
    std::map<std::string, std::string> files;

    std::string file(const std::string &name) const
    {
        auto it = files.find(name);
        return it == files.end() ? std::string() : it->second;
    }

    // What to look at when a check fails.
    std::string diagnostics() const
    {
        return "scenario " + scenario + ", run-vm.sh status " + std::to_string(status) +
               "\n--- run.log (end):\n" + tail(read_file(out_dir + "/run.log"), 15) +
               "--- console.log (end):\n" + tail(read_file(out_dir + "/console.log"), 25) +
               "--- facts:\n" + file("facts") + "--- everything is in " + out_dir + "\n";
    }
};

// Sections "KELDRA-VM-FILE <name> <size>\n<bytes>\nKELDRA-VM-END <name>\n",
// then "KELDRA-VM-DONE\n".
void parse_results(const std::string &raw, vm_run *run)
{
    const std::string file_mark = "KELDRA-VM-FILE ";
    size_t at = 0;
    for (;;) {
        size_t begin = raw.find(file_mark, at);
        if (begin == std::string::npos)
            break;
        size_t line_end = raw.find('\n', begin);
        if (line_end == std::string::npos)
            break;
        std::istringstream header(raw.substr(begin + file_mark.size(), line_end - begin));
        std::string name;
        size_t size = 0;
        if (!(header >> name >> size) || line_end + 1 + size > raw.size())
            break;
        run->files[name] = raw.substr(line_end + 1, size);
        at = line_end + 1 + size;
    }
    run->done = raw.find("KELDRA-VM-DONE\n", at) != std::string::npos;
}

int wait_for_runner(pid_t pid)
{
    const auto deadline = steady::now() + run_limit;
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (steady::now() > deadline) {
            kill(-pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(100ms);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

vm_run boot(const std::string &scenario)
{
    vm_run run;
    run.scenario = scenario;
    run.out_dir = std::string(KELDRA_BUILD_DIR) + "/smack-vm/" + scenario;
    std::filesystem::create_directories(run.out_dir);
    const std::string script = KELDRA_SOURCE_DIR "/tools/smack-vm/run-vm.sh";
    const std::string log = run.out_dir + "/run.log";
    pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (fd < 0 || null < 0 || dup2(null, 0) < 0 || dup2(fd, 1) < 0 || dup2(fd, 2) < 0)
            _exit(126);
        execl("/bin/bash", "bash", script.c_str(), KELDRA_BUILD_DIR, scenario.c_str(),
              run.out_dir.c_str(), "240", static_cast<char *>(nullptr));
        _exit(127);
    }
    if (pid < 0)
        return run;
    setpgid(pid, pid);
    run.status = wait_for_runner(pid);
    parse_results(read_file(run.out_dir + "/results.raw"), &run);
    return run;
}

// Skips (or fails under CI) when QEMU cannot be had, and stops the test when
// the VM did not come back with its results.
#define BOOT_OR_RETURN(run, scenario)                                                        \
    vm_run run = boot(scenario);                                                             \
    if (run.status == exit_qemu_unavailable) {                                               \
        const char *ci = getenv("CI");                                                       \
        if (ci && *ci)                                                                       \
            FAIL() << "QEMU is not available and could not be installed; CI needs the "     \
                      "Smack VM test\n"                                                      \
                   << run.diagnostics();                                                     \
        GTEST_SKIP() << "QEMU is not available and could not be installed: the Smack VM "   \
                        "test is skipped (it fails under CI)";                               \
    }                                                                                        \
    ASSERT_EQ(run.status, 0) << run.diagnostics();                                           \
    ASSERT_TRUE(run.done) << "the VM did not send all its results\n" << run.diagnostics()

// ---------------------------------------------------------------------------
// Facts: lines "<kind> key=value ..."

struct fact {
    std::string kind;
    std::map<std::string, std::string> fields;

    std::string get(const std::string &key) const
    {
        auto it = fields.find(key);
        return it == fields.end() ? std::string() : it->second;
    }
};

std::vector<fact> parse_facts(const std::string &text)
{
    std::vector<fact> facts;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.empty())
            continue;
        fact f;
        f.kind = line.substr(0, line.find(' '));
        f.fields = e2e::parse_fields(line);
        facts.push_back(f);
    }
    return facts;
}

std::vector<fact> of_kind(const std::vector<fact> &facts, const std::string &kind)
{
    std::vector<fact> found;
    for (const fact &f : facts)
        if (f.kind == kind)
            found.push_back(f);
    return found;
}

std::optional<fact> find_fact(const std::vector<fact> &facts, const std::string &kind,
                              const std::string &key, const std::string &value)
{
    for (const fact &f : facts)
        if (f.kind == kind && f.get(key) == value)
            return f;
    return std::nullopt;
}

long number(const std::string &text, int base = 10)
{
    char *end = nullptr;
    long value = strtol(text.c_str(), &end, base);
    return text.empty() || *end ? -1 : value;
}

bool has_capability(const std::string &hex, int cap)
{
    return (strtoull(hex.c_str(), nullptr, 16) >> cap) & 1;
}

// What the VM saw of keldra at one moment (the helper's snapshot).
struct snapshot {
    long pid = -1;
    std::string label; // of the process: its main thread
    fact caps;
    std::vector<fact> tasks;
    std::vector<fact> daemons;

    std::vector<fact> tasks_in(int syscall, long arg0 = -1) const
    {
        std::vector<fact> found;
        for (const fact &t : tasks)
            if (number(t.get("syscall")) == syscall &&
                (arg0 < 0 || number(t.get("arg0"), 16) == arg0))
                found.push_back(t);
        return found;
    }

    std::vector<fact> epoll_tasks() const
    {
        auto found = tasks_in(syscall_epoll_wait);
        for (const fact &t : tasks_in(syscall_epoll_pwait))
            found.push_back(t);
        return found;
    }

    std::vector<fact> daemons_named(const std::string &name) const
    {
        std::vector<fact> found;
        for (const fact &d : daemons)
            if (d.get("name") == name)
                found.push_back(d);
        return found;
    }
};

snapshot parse_snapshot(const std::string &text)
{
    snapshot s;
    auto facts = parse_facts(text);
    for (const fact &f : facts) {
        if (f.kind == "process") {
            s.pid = number(f.get("pid"));
            s.label = f.get("label");
        } else if (f.kind == "caps") {
            s.caps = f;
        } else if (f.kind == "task") {
            s.tasks.push_back(f);
        } else if (f.kind == "daemon") {
            s.daemons.push_back(f);
        }
    }
    return s;
}

long keldra_pid(const std::vector<fact> &facts)
{
    auto k = of_kind(facts, "keldra");
    return k.size() == 1 ? number(k[0].get("pid")) : -1;
}

std::map<std::string, std::string> file_labels(const vm_run &run)
{
    std::map<std::string, std::string> labels;
    for (const fact &f : parse_facts(run.file("files")))
        labels[f.get("path")] = f.fields.count("label") ? f.get("label") : "error:" + f.get("error");
    return labels;
}

// The VM's waits all ended by their condition, not by their bound.
void expect_no_timeouts(const std::vector<fact> &facts)
{
    for (const fact &f : of_kind(facts, "timeout"))
        ADD_FAILURE() << "the VM gave up waiting for " << f.get("what");
}

void expect_real_smack(const vm_run &run, const std::vector<fact> &facts)
{
    auto lsm = of_kind(facts, "lsm");
    ASSERT_EQ(lsm.size(), 1u);
    EXPECT_NE(("," + lsm[0].get("list") + ",").find(",smack,"), std::string::npos)
        << "active security modules: " << lsm[0].get("list");
    EXPECT_TRUE(find_fact(facts, "rule", "status", "0")) << "the rule was not loaded";
    EXPECT_NE(run.file("load2").find("System _ rwx"), std::string::npos) << run.file("load2");
    EXPECT_NE(run.file("dmesg").find("Smack:  Initializing."), std::string::npos);
}

// Lines of the kernel log that report a Smack denial.
std::vector<std::string> denials(const std::string &dmesg)
{
    std::vector<std::string> found;
    std::istringstream lines(dmesg);
    std::string line;
    while (std::getline(lines, line))
        if (line.find("lsm=SMACK") != std::string::npos &&
            line.find("denied") != std::string::npos)
            found.push_back(line);
    return found;
}

std::string join(const std::vector<std::string> &lines)
{
    std::string text;
    for (const std::string &line : lines)
        text += line + "\n";
    return text;
}

// Messages whose text starts with `prefix` (any level).
int count_starting_with(const std::vector<log_record> &records, const std::string &prefix)
{
    int n = 0;
    for (const log_record &r : records)
        n += r.text.compare(0, prefix.size(), prefix) == 0;
    return n;
}

std::string dump(const std::vector<log_record> &records)
{
    std::string text;
    for (const log_record &r : records)
        text += e2e::describe(r) + "\n";
    return text;
}

void expect_in_order(const std::vector<log_record> &records,
                     const std::vector<expected_message> &expected)
{
    int missing = e2e::first_missing_in_order(records, expected);
    EXPECT_EQ(missing, -1) << "missing in this order: [" << expected[missing < 0 ? 0 : missing].level
                           << "] " << e2e::visible(expected[missing < 0 ? 0 : missing].text)
                           << "\n--- keldra's messages:\n" << dump(records);
}

// The platform-log record of a message: priority, tag, source file and
// function (when given), a line number.
void expect_platform_record(const std::vector<e2e::platform_record> &records, char level,
                            const std::string &text, const std::string &file,
                            const std::string &function)
{
    int at = e2e::find_platform_message(records, e2e::level_priority(level), text);
    ASSERT_GE(at, 0) << "no platform record [" << level << "] " << e2e::visible(text);
    const auto &r = records[size_t(at)];
    EXPECT_EQ(r.tag, "KELDRA");
    EXPECT_EQ(r.file, file) << e2e::describe(r);
    if (!function.empty()) {
        EXPECT_EQ(r.function, function) << e2e::describe(r);
    }
    EXPECT_GT(r.line, 0) << e2e::describe(r);
}

const std::string refused = "(errno : Operation not permitted)\n";

// ---------------------------------------------------------------------------

// keldra with every privilege it has on the device: each launcher thread
// carries its label, each daemon the label of the thread that launched it,
// the reinstall marker is relabelled "_", and the kernel denies nothing.
TEST(SmackVm, HealthyStartLabelsThreadsDaemonsAndMarkerWithoutDenial)
{
    BOOT_OR_RETURN(run, "healthy");
    auto facts = parse_facts(run.file("facts"));
    expect_no_timeouts(facts);
    expect_real_smack(run, facts);

    const long k = keldra_pid(facts);
    snapshot s = parse_snapshot(run.file("snapshot"));
    ASSERT_GT(k, 1);
    ASSERT_EQ(s.pid, k) << run.file("snapshot");
    EXPECT_EQ(s.label, process_label);
    EXPECT_TRUE(has_capability(s.caps.get("eff"), cap_mac_admin)) << run.file("snapshot");

    // One of each daemon, all children of keldra.
    std::map<std::string, fact> daemon;
    for (const char *name : {"pellan", "orvel", "dunmar", "tavish"}) {
        auto found = s.daemons_named(name);
        ASSERT_EQ(found.size(), 1u) << name << "\n" << run.file("snapshot");
        daemon[name] = found[0];
        EXPECT_EQ(number(found[0].get("ppid")), k) << name;
    }
    EXPECT_EQ(daemon["pellan"].get("uid"), "401");
    // Each daemon did its work (the checker as uid 401, so under the rule
    // and without CAP_MAC_OVERRIDE): readiness reached, no step failed.
    for (const char *name : {"pellan", "orvel", "dunmar", "tavish"}) {
        EXPECT_NE(run.file(std::string("simd.") + name + ".steps").find(" step=ready "),
                  std::string::npos)
            << name;
        EXPECT_EQ(run.file(std::string("simd.") + name + ".ends").find("event=error"),
                  std::string::npos)
            << run.file(std::string("simd.") + name + ".ends");
    }

    // The launcher threads, told apart by what they wait in.
    std::map<std::string, fact> thread;
    for (const char *name : {"pellan", "dunmar", "tavish"}) {
        auto found = s.tasks_in(syscall_wait4, number(daemon[name].get("pid")));
        ASSERT_EQ(found.size(), 1u) << "the thread waiting for " << name << "\n"
                                    << run.file("snapshot");
        thread[name] = found[0];
    }
    auto epoll = s.epoll_tasks();
    ASSERT_EQ(epoll.size(), 1u) << run.file("snapshot");
    thread["orvel"] = epoll[0];

    EXPECT_EQ(thread["pellan"].get("label"), "System");
    EXPECT_EQ(thread["orvel"].get("label"), "System::Privileged");
    EXPECT_EQ(thread["dunmar"].get("label"), "System");
    EXPECT_EQ(thread["tavish"].get("label"), s.label);
    for (const char *name : {"pellan", "orvel", "dunmar", "tavish"})
        EXPECT_EQ(daemon[name].get("label"), thread[name].get("label"))
            << name << " does not carry the label of the thread that launched it";

    // Every other thread, the main one first, keeps the process's label.
    auto main_thread = find_fact(s.tasks, "task", "tid", std::to_string(k));
    ASSERT_TRUE(main_thread) << run.file("snapshot");
    EXPECT_EQ(main_thread->get("label"), process_label);
    for (const fact &t : s.tasks) {
        bool launcher = false;
        for (auto &[name, th] : thread)
            launcher |= th.get("tid") == t.get("tid");
        if (!launcher) {
            EXPECT_EQ(t.get("label"), process_label) << "thread " << t.get("tid");
        }
    }

    // keldra's own account names the same threads.
    auto records = e2e::parse_keldra_stderr(run.file("keldra.stderr"));
    auto label_set = [&](const char *label, const fact &t) {
        return expected_message{'D', format_text("label(%s) is set to /proc/self/task/%s/attr/"
                                                 "current successfully ...\n",
                                                 label, t.get("tid").c_str())};
    };
    expect_in_order(records, {{'E', "Pellan launcher started\n"},
                              {'D', "Set domain label(System)\n"},
                              label_set("System", thread["pellan"])});
    expect_in_order(records,
                    {{'E', format_text("[P %5ld][T %5ld] Starting orvel-launcher ...\n", k,
                                       number(thread["orvel"].get("tid")))},
                     {'D', "Set domain label(System::Privileged)\n"},
                     label_set("System::Privileged", thread["orvel"])});
    expect_in_order(records, {{'D', "Set domain label(System)\n"},
                              {'D', "Set domain label(System)\n"},
                              label_set("System", thread["dunmar"])});
    EXPECT_EQ(count_starting_with(records, "failed to write label("), 0) << dump(records);
    EXPECT_EQ(count_starting_with(records, "failed to setxattr"), 0) << dump(records);

    // Files carry their creator's label; the reinstall marker was relabelled.
    auto labels = file_labels(run);
    EXPECT_EQ(labels["/opt/dbspace/pkgreinstall"], "_");
    EXPECT_EQ(labels["/run/orvel.ready"], "System::Privileged");
    EXPECT_EQ(labels["/run/pellan.ready"], "System");
    EXPECT_EQ(labels["/run/pellan"], "System");
    EXPECT_EQ(labels["/run/dunmar.pid"], "System");
    EXPECT_EQ(labels["/run/tavish.ready"], process_label);
    EXPECT_EQ(labels["/run/keldra.ready"], process_label);
    EXPECT_GE(e2e::find_message(records, 'E',
                                "find pkgreinstall. starting to restore zelto database...\n"),
              0)
        << dump(records);

    // SIGTERM still ends keldra normally.
    EXPECT_TRUE(find_fact(facts, "keldra-exit", "status", "0")) << run.file("facts");
    EXPECT_GE(e2e::find_message(records, 'I', "Finished main loop\n"), 0);

    // The kernel logs denials, and none came from keldra or its daemons: the
    // only denial is the one the probe provoked after them.
    auto probe = of_kind(facts, "probe");
    ASSERT_EQ(probe.size(), 1u) << run.file("facts");
    EXPECT_EQ(probe[0].get("result"), "refused");
    EXPECT_EQ(probe[0].get("errno"), "EACCES");

    auto found = denials(run.file("dmesg"));
    int from_probe = 0;
    for (const std::string &line : found) {
        bool probe_line = line.find("subject=\"Probe\"") != std::string::npos;
        from_probe += probe_line;
        EXPECT_TRUE(probe_line) << "a denial during the scenario: " << line;
    }
    EXPECT_GE(from_probe, 1) << "the probe's denial is not in the kernel log, so the absence "
                                "of others proves nothing\n"
                             << run.file("dmesg");
}

// Without CAP_MAC_ADMIN the kernel refuses every label: the checker's and
// the application-policy launcher's threads end, and the start waits for an
// announcement that never comes.
TEST(SmackVm, WithoutMacAdminEveryLabelIsRefused)
{
    BOOT_OR_RETURN(run, "no-mac-admin");
    auto facts = parse_facts(run.file("facts"));
    expect_no_timeouts(facts);
    expect_real_smack(run, facts);

    const long k = keldra_pid(facts);
    snapshot s = parse_snapshot(run.file("snapshot"));
    ASSERT_GT(k, 1);
    ASSERT_EQ(s.pid, k) << run.file("snapshot");
    EXPECT_EQ(s.label, process_label);
    for (const char *set : {"inh", "prm", "eff", "bnd", "amb"})
        EXPECT_FALSE(has_capability(s.caps.get(set), cap_mac_admin)) << set;
    EXPECT_TRUE(has_capability(s.caps.get("eff"), cap_mac_override));

    auto records = e2e::parse_keldra_stderr(run.file("keldra.stderr"));
    expect_in_order(records, {{'E', "Pellan launcher started\n"},
                              {'D', "Set domain label(System)\n"},
                              {'E', "failed to write label(System)..." + refused},
                              {'E', "Can't set label System\n"}});
    long orvel_tid = -1;
    for (const log_record &r : records) {
        long tid = 0;
        if (r.level == 'E' &&
            sscanf(r.text.c_str(), "[P %*d][T %ld] Starting orvel-launcher ...", &tid) == 1)
            orvel_tid = tid;
    }
    ASSERT_GT(orvel_tid, 0) << dump(records);
    expect_in_order(records,
                    {{'E', format_text("[P %5ld][T %5ld] Starting orvel-launcher ...\n", k,
                                       orvel_tid)},
                     {'D', "Set domain label(System::Privileged)\n"},
                     {'E', "failed to write label(System::Privileged)..." + refused},
                     {'E', "failed to set domain label(System::Privileged)...\n"},
                     {'E', "Thread 1 is cancelled\n"}});
    // Neither thread is started again; the checker's ends without its
    // cleanup; nothing was labelled.
    EXPECT_EQ(count_starting_with(records, "Pellan launcher started"), 1);
    EXPECT_EQ(e2e::count_messages(records, 'E', "Thread 0 is cancelled\n"), 0);
    EXPECT_EQ(e2e::count_messages(records, 'E', "Thread 1 is cancelled\n"), 1);
    EXPECT_EQ(count_starting_with(records, "Set domain label("), 2) << dump(records);
    EXPECT_EQ(count_starting_with(records, "label("), 0) << dump(records);

    auto platform = e2e::parse_platform_log(run.file("platform.log"));
    expect_platform_record(platform, 'E', "failed to write label(System)..." + refused,
                           "keldra.cc", "keldra_set_label");
    expect_platform_record(platform, 'E', "Can't set label System\n", "pellan-launcher.cc",
                           "pellan_launcher_handler");
    expect_platform_record(platform, 'E', "failed to set domain label(System::Privileged)...\n",
                           "orvel-launcher.cc", "");
    expect_platform_record(platform, 'E', "Thread 1 is cancelled\n", "keldra.cc",
                           "keldra_exit_signal");

    // The start never gets past the application-policy launcher: for the
    // whole observation no ready file, no daemon, no later launcher.
    auto held = find_fact(facts, "held", "what", "start-blocked");
    ASSERT_TRUE(held) << run.file("facts");
    EXPECT_GE(number(held->get("ms")), 5000);
    EXPECT_TRUE(s.daemons.empty()) << run.file("snapshot");
    EXPECT_EQ(e2e::find_message(records, 'I', format_text("keldra launched successfully (pid:%ld)\n", k)), -1);
    EXPECT_EQ(count_starting_with(records, "No process dunmar found"), 0);
    EXPECT_EQ(count_starting_with(records, "No process tavish found"), 0);
    EXPECT_EQ(count_starting_with(records, "launching orvel"), 0);
    EXPECT_EQ(file_labels(run)["/run/keldra.ready"], "error:ENOENT");
    EXPECT_EQ(file_labels(run)["/opt/dbspace/pkgreinstall"], "error:ENOENT");
    // Both launcher threads are gone; the main thread waits in the start.
    EXPECT_FALSE(find_fact(s.tasks, "task", "tid", std::to_string(orvel_tid)));
    EXPECT_TRUE(s.tasks_in(syscall_wait4).empty()) << run.file("snapshot");
    EXPECT_TRUE(s.epoll_tasks().empty()) << run.file("snapshot");
    auto main_thread = find_fact(s.tasks, "task", "tid", std::to_string(k));
    ASSERT_TRUE(main_thread) << run.file("snapshot");
    EXPECT_EQ(number(main_thread->get("syscall")), syscall_futex) << run.file("snapshot");
    for (const fact &t : s.tasks) {
        EXPECT_EQ(t.get("label"), process_label) << "thread " << t.get("tid");
        EXPECT_TRUE(number(t.get("syscall")) == syscall_futex ||
                    number(t.get("syscall")) == syscall_read)
            << "thread " << t.get("tid") << "\n" << run.file("snapshot");
    }

    // SIGTERM is taken, but the main thread is still in the start's wait:
    // keldra does not end.
    expect_in_order(records, {{'E', "Thread 1 is cancelled\n"},
                              {'W', "Signal received: 15\n"},
                              {'I', "Request to exit launcher\n"}});
    auto alive = find_fact(facts, "held", "what", "alive-after-term");
    ASSERT_TRUE(alive) << run.file("facts");
    EXPECT_GE(number(alive->get("ms")), 5000);
    EXPECT_EQ(count_starting_with(records, "Thread 0 is finished"), 0);
    EXPECT_EQ(e2e::find_message(records, 'I', "Finished main loop\n"), -1);
    EXPECT_TRUE(find_fact(facts, "keldra-killed", "status", "137")) << run.file("facts");
    EXPECT_TRUE(denials(run.file("dmesg")).empty()) << join(denials(run.file("dmesg")));
}

// Without CAP_MAC_ADMIN but with "System::Privileged" as the one label it may
// take: the application-policy launcher runs, the checker's and the agent's
// launchers end at their refused label, the start completes, and the
// reinstall marker keeps its creator's label.
TEST(SmackVm, OnlyThePrivilegedLabelAllowed)
{
    BOOT_OR_RETURN(run, "privileged-only");
    auto facts = parse_facts(run.file("facts"));
    expect_no_timeouts(facts);
    expect_real_smack(run, facts);

    const long k = keldra_pid(facts);
    snapshot s = parse_snapshot(run.file("snapshot"));
    ASSERT_GT(k, 1);
    ASSERT_EQ(s.pid, k) << run.file("snapshot");
    EXPECT_EQ(s.label, process_label);
    EXPECT_FALSE(has_capability(s.caps.get("eff"), cap_mac_admin));
    EXPECT_FALSE(has_capability(s.caps.get("bnd"), cap_mac_admin));

    auto records = e2e::parse_keldra_stderr(run.file("keldra.stderr"));
    auto epoll = s.epoll_tasks();
    ASSERT_EQ(epoll.size(), 1u) << run.file("snapshot");
    const fact orvel_thread = epoll[0];
    expect_in_order(records, {{'E', "Pellan launcher started\n"},
                              {'D', "Set domain label(System)\n"},
                              {'E', "failed to write label(System)..." + refused},
                              {'E', "Can't set label System\n"}});
    expect_in_order(
        records,
        {{'D', "Set domain label(System::Privileged)\n"},
         {'D', format_text("label(System::Privileged) is set to /proc/self/task/%s/attr/current "
                           "successfully ...\n",
                           orvel_thread.get("tid").c_str())},
         {'D', "Set domain label(System)\n"},
         {'E', "failed to write label(System)..." + refused},
         {'E', "Can't set label\n"}});
    EXPECT_EQ(e2e::count_messages(records, 'E', "failed to write label(System)..." + refused), 2);
    EXPECT_EQ(e2e::count_messages(records, 'E', "Can't set label\n"), 1);
    EXPECT_EQ(e2e::count_messages(records, 'E', "Can't set label System\n"), 1);
    EXPECT_EQ(count_starting_with(records, "failed to write label(System::Privileged)"), 0);
    EXPECT_GE(e2e::find_message(records, 'I',
                                format_text("keldra launched successfully (pid:%ld)\n", k)),
              0);
    auto platform = e2e::parse_platform_log(run.file("platform.log"));
    expect_platform_record(platform, 'E', "Can't set label\n", "launcher-dunmar.cc",
                           "dunmar_launcher_handler");

    // Labels: the application-policy thread and its daemon took theirs; the
    // denial logger's keep the process's; no checker, no agent.
    EXPECT_EQ(orvel_thread.get("label"), "System::Privileged");
    auto orvel = s.daemons_named("orvel");
    auto tavish = s.daemons_named("tavish");
    ASSERT_EQ(orvel.size(), 1u) << run.file("snapshot");
    ASSERT_EQ(tavish.size(), 1u) << run.file("snapshot");
    EXPECT_EQ(orvel[0].get("label"), "System::Privileged");
    EXPECT_EQ(tavish[0].get("label"), process_label);
    EXPECT_TRUE(s.daemons_named("pellan").empty());
    EXPECT_TRUE(s.daemons_named("dunmar").empty());
    auto tavish_thread = s.tasks_in(syscall_wait4, number(tavish[0].get("pid")));
    ASSERT_EQ(tavish_thread.size(), 1u) << run.file("snapshot");
    EXPECT_EQ(tavish_thread[0].get("label"), process_label);
    EXPECT_EQ(s.tasks_in(syscall_wait4).size(), 1u) << run.file("snapshot");
    for (const fact &t : s.tasks) {
        if (t.get("tid") != orvel_thread.get("tid")) {
            EXPECT_EQ(t.get("label"), process_label) << "thread " << t.get("tid");
        }
    }

    // The marker is created, but relabelling it needs CAP_MAC_ADMIN.
    EXPECT_GE(e2e::find_message(records, 'E',
                                "failed to setxattr /opt/dbspace/pkgreinstall..." + refused),
              0)
        << dump(records);
    EXPECT_EQ(file_labels(run)["/opt/dbspace/pkgreinstall"], "System::Privileged");

    // Shutdown: only the threads still running are cancelled.
    expect_in_order(records, {{'W', "Signal received: 15\n"},
                              {'I', "Request to exit launcher\n"},
                              {'I', "Thread 0 is finished\n"},
                              {'E', "Thread 1 is cancelled\n"},
                              {'I', "Thread 1 is finished\n"},
                              {'I', "Thread 2 is finished\n"},
                              {'E', "Thread 3 is cancelled\n"},
                              {'I', "Thread 3 is finished\n"},
                              {'I', "Finished main loop\n"}});
    EXPECT_EQ(e2e::count_messages(records, 'E', "Thread 0 is cancelled\n"), 0);
    EXPECT_EQ(e2e::count_messages(records, 'E', "Thread 2 is cancelled\n"), 0);
    EXPECT_TRUE(find_fact(facts, "keldra-exit", "status", "0")) << run.file("facts");
    EXPECT_TRUE(denials(run.file("dmesg")).empty()) << join(denials(run.file("dmesg")));
}

} // namespace
