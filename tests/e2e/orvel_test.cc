// End-to-end scenarios of the application-policy launcher (row 1): the init
// script, the start-up order around orvel, the relaunch after every death of
// the daemon, the reaping messages, the adoption of a daemon left running by
// an earlier supervisor, and the shutdown.
//
// Each test case runs in a fresh sandbox: /run and /tmp start empty, so the
// first start of keldra in a test is the first start of a boot.
#include "harness.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <tuple>

namespace {

using namespace std::chrono_literals;
using e2e::exit_status;
using e2e::format_text;
using e2e::log_record;

constexpr const char *orvel_source = "orvel-launcher.cc";
constexpr const char *core_source = "keldra.cc";
constexpr const char *script_path = "/etc/rc.d/init.d/orvel-launcher.sh";
constexpr const char *script_done = "/tmp/orvel_script.done";
constexpr const char *orvel_ready = "/run/orvel.ready";

// ---------------------------------------------------------------------------
// Messages

// One expected message: level, exact text and the source file that logs it.
struct line {
    char level;
    std::string text;
    std::string file = orvel_source;
};

bool matches(const log_record &record, const line &expected)
{
    return record.level == expected.level && record.text == expected.text &&
           record.file == expected.file;
}

int find_line(const std::vector<log_record> &records, const line &expected, int from = 0)
{
    for (int i = std::max(from, 0); i < int(records.size()); ++i)
        if (matches(records[size_t(i)], expected))
            return i;
    return -1;
}

int count_lines(const std::vector<log_record> &records, const line &expected)
{
    return int(std::count_if(records.begin(), records.end(),
                             [&](const log_record &r) { return matches(r, expected); }));
}

// Checks that the lines appear in this order from index `from` on (other
// messages may come between them). Returns the index of the last one, or -1
// after a test failure naming the first missing line.
int expect_sequence(const std::vector<log_record> &records, const std::vector<line> &expected,
                    int from = 0, e2e::where loc = e2e::where::current())
{
    int at = from - 1;
    for (const line &l : expected) {
        int found = find_line(records, l, at + 1);
        if (found < 0) {
            ADD_FAILURE_AT(loc.file_name(), int(loc.line()))
                << "missing in order after record " << at << ": [" << l.level << "]["
                << l.file << "] \"" << e2e::visible(l.text) << "\" (present "
                << count_lines(records, l) << " times in all)";
            return -1;
        }
        at = found;
    }
    return at;
}

// Index of the first record at or after `from` with this level and file whose
// text starts with prefix, or -1.
int find_prefix(const std::vector<log_record> &records, char level, std::string_view prefix,
                int from = 0, const std::string &file = orvel_source)
{
    for (int i = std::max(from, 0); i < int(records.size()); ++i) {
        const log_record &r = records[size_t(i)];
        if (r.level == level && r.file == file && r.text.starts_with(prefix))
            return i;
    }
    return -1;
}

int count_prefix(const std::vector<log_record> &records, char level, std::string_view prefix)
{
    return int(std::count_if(records.begin(), records.end(), [&](const log_record &r) {
        return r.level == level && r.file == orvel_source && r.text.starts_with(prefix);
    }));
}

// The number that follows prefix in text, or -1.
long number_after(const std::string &text, std::string_view prefix)
{
    if (!text.starts_with(prefix))
        return -1;
    return strtol(text.c_str() + prefix.size(), nullptr, 10);
}

// Waits for "keldra launched successfully (pid:%d)\n".
int wait_launched(e2e::scenario &keldra, e2e::milliseconds timeout = e2e::default_timeout,
                  e2e::where loc = e2e::where::current())
{
    return keldra.wait_for_message(
        'I', format_text("keldra launched successfully (pid:%d)\n", keldra.pid()), timeout, 1,
        loc);
}

// The thread id printed by "[P %5ld][T %5ld] Starting orvel-launcher ...\n".
long handler_tid(const std::vector<log_record> &records, int nth = 1)
{
    for (const log_record &r : records) {
        long pid = 0, tid = 0;
        if (r.file == orvel_source &&
            sscanf(r.text.c_str(), "[P %ld][T %ld] Starting orvel-launcher ...", &pid, &tid) ==
                2 &&
            --nth == 0)
            return tid;
    }
    return -1;
}

std::string launched_text(pid_t keldra, pid_t orvel)
{
    return format_text("[P %5ld] orvel(pid : %d) is launched successfully...\n", long(keldra),
                       orvel);
}

// The messages of one launch, from "launching orvel...".
std::vector<line> launch_lines(pid_t keldra, pid_t orvel)
{
    return {{'E', "launching orvel...\n"},
            {'E', format_text("[P %5ld] Wait for orvel started...\n", long(keldra))},
            {'E', format_text("[P %5ld] orvel is started!\n", long(keldra))},
            {'E', launched_text(keldra, orvel)}};
}

// The watches placed by the init routine on a fresh inotify instance, and
// placed again (same descriptors while the watches exist) after a death.
std::vector<line> watch_lines(int run_wd = 1, int dbspace_wd = 2, int pellan_wd = 3)
{
    return {{'E', format_text("inotify watch path: /run fd: %d is created...\n", run_wd)},
            {'E', format_text("inotify watch path: /opt/dbspace fd: %d is created...\n",
                              dbspace_wd)},
            {'E', format_text("inotify watch path: /var/pellan fd: %d is created...\n",
                              pellan_wd)}};
}

// Checks the platform-log record of a message: priority of its level, tag,
// source file, function and a line number.
void expect_platform_record(const e2e::scenario &keldra, char level, const std::string &text,
                            const std::string &function, e2e::where loc = e2e::where::current())
{
    auto records = keldra.platform_messages();
    int i = e2e::find_platform_message(records, e2e::level_priority(level), text);
    if (i < 0) {
        ADD_FAILURE_AT(loc.file_name(), int(loc.line()))
            << "no platform record for \"" << e2e::visible(text) << "\"";
        return;
    }
    const e2e::platform_record &r = records[size_t(i)];
    EXPECT_EQ(r.tag, "KELDRA") << e2e::describe(r);
    EXPECT_EQ(r.file, orvel_source) << e2e::describe(r);
    EXPECT_EQ(r.function, function) << e2e::describe(r);
    EXPECT_GT(r.line, 0) << e2e::describe(r);
}

// ---------------------------------------------------------------------------
// The supervisor's descriptors, as /proc shows them

std::map<int, std::string> fd_targets(pid_t pid)
{
    std::map<int, std::string> targets;
    std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    DIR *d = opendir(dir.c_str());
    if (!d)
        return targets;
    while (dirent *entry = readdir(d)) {
        if (entry->d_name[0] == '.')
            continue;
        char target[512];
        std::string path = dir + "/" + entry->d_name;
        ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
        if (n > 0)
            targets[atoi(entry->d_name)] = std::string(target, size_t(n));
    }
    closedir(d);
    return targets;
}

std::vector<int> fds_with_target(pid_t pid, const std::string &target)
{
    std::vector<int> fds;
    for (const auto &[fd, t] : fd_targets(pid))
        if (t == target)
            fds.push_back(fd);
    return fds;
}

std::string fdinfo(pid_t pid, int fd)
{
    return e2e::read_file("/proc/" + std::to_string(pid) + "/fdinfo/" + std::to_string(fd))
        .value_or("");
}

// The open flags of a descriptor ("flags:" of fdinfo, octal).
int fd_flags(pid_t pid, int fd)
{
    std::string info = fdinfo(pid, fd);
    size_t at = info.find("flags:");
    return at == std::string::npos ? -1 : int(strtol(info.c_str() + at + 6, nullptr, 8));
}

struct epoll_entry {
    int fd = -1;
    unsigned events = 0;
    unsigned long long data = 0;
};

// The descriptors registered with an epoll instance ("tfd:" lines).
std::vector<epoll_entry> epoll_entries(pid_t pid, int epoll_fd)
{
    std::vector<epoll_entry> entries;
    std::string info = fdinfo(pid, epoll_fd);
    size_t at = 0;
    while ((at = info.find("tfd:", at)) != std::string::npos) {
        epoll_entry e;
        if (sscanf(info.c_str() + at, "tfd: %d events: %x data: %llx", &e.fd, &e.events,
                   &e.data) == 3)
            entries.push_back(e);
        at += 4;
    }
    return entries;
}

struct inotify_watch {
    int wd = -1;
    unsigned long ino = 0;
    unsigned sdev = 0; // the kernel's device number: major << 20 | minor
    unsigned mask = 0;
};

// The watches of an inotify instance ("inotify wd:" lines).
std::vector<inotify_watch> inotify_watches(pid_t pid, int inotify_fd)
{
    std::vector<inotify_watch> watches;
    std::string info = fdinfo(pid, inotify_fd);
    size_t at = 0;
    while ((at = info.find("inotify wd:", at)) != std::string::npos) {
        inotify_watch w;
        if (sscanf(info.c_str() + at, "inotify wd:%d ino:%lx sdev:%x mask:%x", &w.wd, &w.ino,
                   &w.sdev, &w.mask) == 4)
            watches.push_back(w);
        at += 11;
    }
    return watches;
}

// The file a watch lies on: inode number and the kernel's device number.
struct file_id {
    unsigned long ino = 0;
    unsigned sdev = 0;
    bool operator<(const file_id &o) const { return std::tie(ino, sdev) < std::tie(o.ino, o.sdev); }
    bool operator==(const file_id &o) const = default;
};

file_id file_id_of(const char *path)
{
    struct stat st = {};
    if (stat(path, &st) != 0)
        return {};
    return {(unsigned long)st.st_ino, (major(st.st_dev) << 20) | minor(st.st_dev)};
}

file_id file_id_of(const inotify_watch &w)
{
    return {w.ino, w.sdev};
}

// The descriptors of the event loop: the signal descriptor (the process has
// only one), the epoll instance, and the inotify instance registered with it.
struct loop_fds {
    int signal_fd = -1;
    int epoll_fd = -1;
    int inotify_fd = -1;
};

loop_fds find_loop_fds(pid_t pid)
{
    loop_fds fds;
    auto signal_fds = fds_with_target(pid, "anon_inode:[signalfd]");
    auto epoll_fds = fds_with_target(pid, "anon_inode:[eventpoll]");
    if (signal_fds.size() == 1)
        fds.signal_fd = signal_fds[0];
    if (epoll_fds.size() == 1)
        fds.epoll_fd = epoll_fds[0];
    auto targets = fd_targets(pid);
    for (const epoll_entry &e : epoll_entries(pid, fds.epoll_fd))
        if (targets[e.fd] == "anon_inode:inotify")
            fds.inotify_fd = e.fd;
    return fds;
}

// The watch set that the init routine places: /run, /opt/dbspace and
// /var/pellan for IN_CREATE, with these watch descriptors.
void expect_directory_watches(pid_t pid, int inotify_fd, std::vector<int> wds,
                              e2e::where loc = e2e::where::current())
{
    auto watches = inotify_watches(pid, inotify_fd);
    std::map<file_id, inotify_watch> by_inode;
    for (const inotify_watch &w : watches)
        by_inode[file_id_of(w)] = w;
    const char *dirs[] = {"/run", "/opt/dbspace", "/var/pellan"};
    SCOPED_TRACE(testing::Message() << "called from line " << loc.line());
    ASSERT_EQ(watches.size(), 3u) << fdinfo(pid, inotify_fd);
    for (size_t i = 0; i < 3; ++i) {
        auto it = by_inode.find(file_id_of(dirs[i]));
        ASSERT_NE(it, by_inode.end()) << dirs[i] << "\n" << fdinfo(pid, inotify_fd);
        EXPECT_EQ(it->second.wd, wds[i]) << dirs[i];
        EXPECT_EQ(it->second.mask & 0xfff, unsigned(IN_CREATE)) << dirs[i];
    }
}

// ---------------------------------------------------------------------------
// The test's own view of /run: creations and deletions of one name

class run_dir_watch {
public:
    run_dir_watch()
    {
        fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (fd_ >= 0)
            inotify_add_watch(fd_, "/run", IN_CREATE | IN_DELETE);
    }
    ~run_dir_watch()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    // 'C' for every creation and 'D' for every deletion of name so far.
    std::string history(const std::string &name)
    {
        alignas(inotify_event) char buffer[65536];
        ssize_t n;
        while ((n = read(fd_, buffer, sizeof buffer)) > 0) {
            for (ssize_t at = 0; at < n;) {
                const auto *event = reinterpret_cast<const inotify_event *>(buffer + at);
                if (event->len > 0)
                    events_.emplace_back(event->mask, std::string(event->name));
                at += ssize_t(sizeof(inotify_event) + event->len);
            }
        }
        std::string h;
        for (const auto &[mask, n2] : events_)
            if (n2 == name)
                h += (mask & IN_CREATE) ? 'C' : 'D';
        return h;
    }

private:
    int fd_ = -1;
    std::vector<std::pair<uint32_t, std::string>> events_;
};

uint64_t monotonic_ns()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return uint64_t(now.tv_sec) * 1000000000u + uint64_t(now.tv_nsec);
}

// The process that system() forked for the init script: the script's parent
// when the shell forked it, else the script itself.
pid_t init_script_child(pid_t keldra)
{
    auto runs = e2e::init_script_runs();
    if (runs.empty())
        return -1;
    pid_t pid = pid_t(atol(runs[0]["pid"].c_str()));
    pid_t ppid = pid_t(atol(runs[0]["ppid"].c_str()));
    return ppid == keldra ? pid : ppid;
}

// The lines of one SIGCHLD that is not the daemon's, as dispatched with the
// number printed by the "orvel signaled" line before it. Returns the index of
// the last line, or -1 after a failure.
int expect_foreign_sigchld(e2e::scenario &keldra, int signal_fd, pid_t orvel, pid_t sender,
                           e2e::where loc = e2e::where::current())
{
    line handled = {'E', format_text("handle signal events(signal read fd : %d / orvel pid : "
                                     "%d)...\n",
                                     signal_fd, orvel)};
    line received = {'W', format_text("SIGCHLD signal is received from [pid : %d]\n", sender)};
    // The four lines come from the handler thread one after the other; the
    // other launchers may log between them. The last ones may still be on
    // their way when the SIGCHLD line is there.
    std::vector<log_record> records;
    int at = -1;
    e2e::wait_until(
        [&] {
            records = e2e::records_from_file(keldra.messages(), orvel_source);
            at = find_line(records, received);
            return at >= 0 &&
                   find_prefix(records, 'E', "signal handling is failed...", at + 1) >= 0;
        },
        e2e::default_timeout, "the foreign SIGCHLD handled");
    if (at < 1 || !matches(records[size_t(at - 1)], handled)) {
        ADD_FAILURE_AT(loc.file_name(), int(loc.line()))
            << "no SIGCHLD from " << sender << " handled as a foreign one";
        return -1;
    }
    int signaled = find_prefix(records, 'E', "orvel signaled: ", at - 2);
    if (signaled != at - 2) {
        ADD_FAILURE_AT(loc.file_name(), int(loc.line())) << "no \"orvel signaled\" before it";
        return -1;
    }
    long index = number_after(records[size_t(signaled)].text, "orvel signaled: ");
    EXPECT_EQ(records[size_t(signaled)].text, format_text("orvel signaled: %ld\n", index));
    return expect_sequence(records,
                           {{'E', "orvel after handle_signal_event: ret=0\n"},
                            {'E', format_text("signal handling is failed...%ld, ret = 0\n",
                                              index)}},
                           at + 1, loc);
}

// Stops the supervisor with SIGTERM and checks the end of row 1.
void stop_keldra(e2e::scenario &keldra, e2e::where loc = e2e::where::current())
{
    SCOPED_TRACE(testing::Message() << "stop_keldra called from line " << loc.line());
    ASSERT_TRUE(keldra.send_signal(SIGTERM));
    EXPECT_EQ(keldra.wait_exit(30s), exit_status::with_code(0));
    auto records = keldra.messages();
    expect_sequence(records, {{'E', "Thread 1 is cancelled\n", core_source},
                              {'I', "Thread 1 is finished\n", core_source}},
                    find_line(records, {'I', "Request to exit launcher\n", "keldra-main.cc"}));
}

// ===========================================================================
// Start-up

TEST(OrvelStart, FirstStartOfABootRunsTheScriptAndLaunchesOrvelBeforeRowsTwoAndThree)
{
    run_dir_watch run_dir;
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    ASSERT_GE(wait_launched(keldra), 0);
    auto orvel = e2e::wait_for_starts("orvel", 1);
    ASSERT_EQ(orvel.size(), 1u);
    const pid_t k = keldra.pid();
    const pid_t p = orvel[0].pid;
    ASSERT_GE(keldra.wait_for_message('E', launched_text(k, p)), 0);
    const pid_t script_child = init_script_child(k);
    ASSERT_GT(script_child, 0);
    ASSERT_GE(keldra.wait_for_message(
                  'W', format_text("SIGCHLD signal is received from [pid : %d]\n", script_child)),
              0);
    ASSERT_GE(keldra.wait_for_message('W', "No process tavish found, start new one!\n"), 0);

    auto records = keldra.messages();
    const long tid = handler_tid(records);
    ASSERT_GT(tid, 0);
    std::vector<line> start = {
        {'E', format_text("Init script: %s\n", script_path)},
        {'E', "Starting Orvel Launcher...\n"},
        {'E', "No script running before, run it ..\n"},
        {'I', format_text("%s script terminate - success\n", script_path)},
        {'I', "return value : 0\n"},
    };
    for (const line &l : watch_lines())
        start.push_back(l);
    start.push_back({'E', format_text("[P %5ld][T %5ld] Starting orvel-launcher ...\n", long(k),
                                      tid)});
    start.push_back({'D', "Set domain label(System::Privileged)\n", core_source});
    start.push_back({'D',
                     format_text("label(System::Privileged) is set to "
                                 "/proc/self/task/%ld/attr/current successfully ...\n",
                                 tid),
                     core_source});
    for (const line &l : launch_lines(k, p))
        start.push_back(l);
    start.push_back({'I', format_text("keldra launched successfully (pid:%d)\n", k),
                     "keldra-main.cc"});
    int launched = expect_sequence(records, start);
    ASSERT_GE(launched, 0);

    // No ready file in a new boot: no search by name, the daemon is forked.
    EXPECT_EQ(count_lines(records, {'E', "/usr/bin/orvel already was ran ...\n"}), 0);
    EXPECT_EQ(count_lines(records, {'E', "launching orvel...\n"}), 1);

    // Rows 2 and 3 begin only after orvel has been launched: nothing of the
    // dunmar and tavish launchers before that line, and only the policy
    // checker's thread had set its label before.
    int orvel_line = find_line(records, {'E', launched_text(k, p)});
    for (int i = 0; i < orvel_line; ++i) {
        EXPECT_NE(records[size_t(i)].file, "launcher-dunmar.cc") << e2e::describe(records[size_t(i)]);
        EXPECT_NE(records[size_t(i)].file, "tavish-launcher.cc") << e2e::describe(records[size_t(i)]);
    }
    int system_labels_before = 0;
    for (int i = 0; i < orvel_line; ++i)
        system_labels_before += matches(records[size_t(i)],
                                        {'D', "Set domain label(System)\n", core_source});
    EXPECT_LE(system_labels_before, 1) << "at most the policy checker's thread";
    EXPECT_GT(find_line(records, {'W', "No process dunmar found, start new one!\n",
                                  "launcher-dunmar.cc"}),
              orvel_line);
    EXPECT_GT(find_line(records, {'W', "No process tavish found, start new one!\n",
                                  "tavish-launcher.cc"}),
              orvel_line);

    // The handler thread's first label record is System::Privileged, written
    // before orvel was forked, and orvel carries that label.
    auto labels = e2e::label_records();
    int first_label = -1, orvel_fork = -1, later_system = -1;
    for (int i = 0; i < int(labels.size()); ++i) {
        const e2e::label_record &r = labels[size_t(i)];
        if (r.kind == "label" && r.tid == tid && first_label < 0)
            first_label = i;
        if (r.kind == "fork" && r.pid == p)
            orvel_fork = i;
        if (r.kind == "label" && r.label == "System" && first_label >= 0 && later_system < 0)
            later_system = i;
    }
    ASSERT_GE(first_label, 0);
    EXPECT_EQ(labels[size_t(first_label)].label, "System::Privileged");
    EXPECT_EQ(labels[size_t(first_label)].pid, k);
    EXPECT_LT(first_label, orvel_fork);
    EXPECT_GT(later_system, first_label) << "the dunmar thread labels itself after";
    EXPECT_EQ(e2e::fork_label(p), "System::Privileged");

    // The daemon as forked: own session, argv[0] its path, SIGCHLD still
    // blocked as the launcher thread had it.
    EXPECT_EQ(orvel[0].ppid, k);
    EXPECT_EQ(orvel[0].sid, p);
    EXPECT_EQ(orvel[0].argc, 1);
    EXPECT_EQ(orvel[0].argv0, "/usr/bin/orvel");
    EXPECT_TRUE(orvel[0].signal_blocked(SIGCHLD));

    // Script run once, marker and ready file created with mode 0600.
    EXPECT_EQ(e2e::init_script_runs().size(), 1u);
    EXPECT_EQ(e2e::file_mode(script_done), 0600u);
    EXPECT_EQ(e2e::file_mode(orvel_ready), 0600u);
    EXPECT_EQ(run_dir.history("orvel.ready"), "C");

    // The shell that system() forked is a child too: its SIGCHLD, still
    // pending when the loop first waits, is read and ignored.
    loop_fds fds = find_loop_fds(k);
    ASSERT_GE(fds.signal_fd, 0);
    ASSERT_GE(fds.inotify_fd, 0);
    EXPECT_GE(expect_foreign_sigchld(keldra, fds.signal_fd, p, script_child), 0);
    auto entries = epoll_entries(k, fds.epoll_fd);
    ASSERT_EQ(entries.size(), 2u) << fdinfo(k, fds.epoll_fd);
    for (const epoll_entry &e : entries) {
        EXPECT_TRUE(e.fd == fds.signal_fd || e.fd == fds.inotify_fd) << e.fd;
        EXPECT_EQ(e.data, (unsigned long long)e.fd);
        EXPECT_EQ(e.events & (EPOLLIN | EPOLLOUT), unsigned(EPOLLIN));
    }
    expect_directory_watches(k, fds.inotify_fd, {1, 2, 3});
    EXPECT_NE(fdinfo(k, fds.signal_fd).find("sigmask:\t0000000000010000"), std::string::npos)
        << fdinfo(k, fds.signal_fd);

    expect_platform_record(keldra, 'E', "launching orvel...\n", "launch_orvel");
    expect_platform_record(keldra, 'E', "inotify watch path: /run fd: 1 is created...\n",
                           "add_inotify_watch");

    stop_keldra(keldra);
    EXPECT_TRUE(e2e::process_alive(p)) << "the daemon outlives the supervisor";
    EXPECT_EQ(count_lines(keldra.messages(), {'E', "Orvel-launcher is done\n"}), 0)
        << "the handler is cancelled, it does not return";
}

TEST(OrvelStart, ScriptExitingWithThreeCountsAsDone)
{
    ASSERT_TRUE(e2e::write_file(e2e::init_script_conf_path, "exit_code=3\n"));
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    ASSERT_GE(wait_launched(keldra), 0);
    auto records = keldra.messages();
    std::vector<line> expected = {
        {'E', "Starting Orvel Launcher...\n"},
        {'E', "No script running before, run it ..\n"},
        {'I', format_text("%s script terminate - success\n", script_path)},
        {'I', "return value : 3\n"},
    };
    for (const line &l : watch_lines())
        expected.push_back(l);
    expected.push_back({'E', "launching orvel...\n"});
    EXPECT_GE(expect_sequence(records, expected), 0);
    EXPECT_EQ(count_lines(records, {'E', "Set script done failed: -2\n"}), 0);
    EXPECT_TRUE(e2e::exists(script_done));
    EXPECT_EQ(e2e::init_script_runs().size(), 1u);
    stop_keldra(keldra);
}

TEST(OrvelStart, ScriptKilledBySigkillLeavesNoMarkerAndRunsAgainAtTheNextStart)
{
    ASSERT_TRUE(e2e::write_file(e2e::init_script_conf_path, "kill_signal=9\n"));
    e2e::scenario first;
    ASSERT_TRUE(first.start());
    ASSERT_GE(wait_launched(first), 0);
    std::vector<line> expected = {
        {'E', "No script running before, run it ..\n"},
        {'E', "orvel process terminate - fail\n"},
        {'E', "signal num : 9\n"},
        {'E', format_text("Can't reset event for %s. error: -1\n", script_done)},
    };
    for (const line &l : watch_lines())
        expected.push_back(l);
    expected.push_back({'E', "launching orvel...\n"});
    auto records = first.messages();
    EXPECT_GE(expect_sequence(records, expected), 0);
    EXPECT_EQ(count_prefix(records, 'I', script_path), 0) << "not counted as a normal exit";
    EXPECT_FALSE(e2e::exists(script_done));
    EXPECT_EQ(e2e::init_script_runs().size(), 1u);
    stop_keldra(first);

    // The next start in the same boot runs it again.
    ASSERT_TRUE(e2e::remove_file(e2e::init_script_conf_path));
    e2e::scenario second;
    ASSERT_TRUE(second.start());
    ASSERT_GE(wait_launched(second), 0);
    EXPECT_GE(expect_sequence(second.messages(),
                              {{'E', "Starting Orvel Launcher...\n"},
                               {'E', "No script running before, run it ..\n"},
                               {'I', format_text("%s script terminate - success\n", script_path)},
                               {'I', "return value : 0\n"}}),
              0);
    EXPECT_EQ(e2e::init_script_runs().size(), 2u);
    EXPECT_TRUE(e2e::exists(script_done));
    stop_keldra(second);
}

TEST(OrvelStart, InitFailsEverySecondWhileVarPellanIsMissing)
{
    ASSERT_EQ(rmdir("/var/pellan"), 0) << strerror(errno);
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    const line failed = {'E', "Launcher 1 init failed: -1\n", core_source};
    ASSERT_GE(keldra.wait_for_message('E', failed.text, 10s, 1), 0);
    const uint64_t first_seen = monotonic_ns();
    ASSERT_GE(keldra.wait_for_message('E', failed.text, 10s, 3), 0);
    const uint64_t third_seen = monotonic_ns();
    EXPECT_GE(third_seen - first_seen, 1'500'000'000u) << "one attempt per second";

    // Every attempt opens a fresh inotify instance, places /run and
    // /opt/dbspace, fails on /var/pellan and closes what it opened; the
    // script ran at the first attempt only.
    auto records = keldra.messages();
    std::vector<line> attempt = watch_lines();
    attempt.pop_back();
    attempt.push_back({'E', "failed to add inotify watch instance...(errno : No such file or "
                            "directory)\n"});
    attempt.push_back(failed);
    std::vector<line> first_attempt = {{'E', "Starting Orvel Launcher...\n"},
                                       {'E', "No script running before, run it ..\n"},
                                       {'I', "return value : 0\n"}};
    first_attempt.insert(first_attempt.end(), attempt.begin(), attempt.end());
    int at = expect_sequence(records, first_attempt);
    ASSERT_GE(at, 0);
    for (int n = 2; n <= 3; ++n) {
        std::vector<line> next = {{'E', "Starting Orvel Launcher...\n"},
                                  {'E', "Script already done, skip it ..\n"}};
        next.insert(next.end(), attempt.begin(), attempt.end());
        at = expect_sequence(records, next, at + 1);
        ASSERT_GE(at, 0) << "attempt " << n;
    }
    EXPECT_EQ(e2e::init_script_runs().size(), 1u);
    EXPECT_EQ(count_lines(records, {'E', "inotify watch path: /var/pellan fd: 3 is created...\n"}),
              0);
    // Nothing after row 1 has started, and between attempts the launcher
    // holds none of its descriptors.
    EXPECT_TRUE(e2e::starts("orvel").empty());
    EXPECT_TRUE(e2e::starts("dunmar").empty());
    EXPECT_FALSE(e2e::exists("/run/keldra.ready"));
    EXPECT_TRUE(e2e::wait_until(
        [&] { return fds_with_target(keldra.pid(), "anon_inode:[signalfd]").empty(); }, 5s,
        "no signal descriptor between two attempts"));

    // Once the directory exists the next attempt succeeds.
    ASSERT_TRUE(e2e::make_directory("/var/pellan", 0755));
    ASSERT_GE(keldra.wait_for_message('E', "inotify watch path: /var/pellan fd: 3 is created...\n",
                                      10s),
              0);
    ASSERT_GE(wait_launched(keldra), 0);
    auto orvel = e2e::wait_for_starts("orvel", 1);
    ASSERT_EQ(orvel.size(), 1u);
    records = keldra.messages();
    int last_failure = find_line(records, failed, 0);
    for (int i = last_failure; i >= 0; i = find_line(records, failed, i + 1))
        last_failure = i;
    EXPECT_GE(expect_sequence(records,
                              {{'E', "Starting Orvel Launcher...\n"},
                               {'E', "Script already done, skip it ..\n"},
                               watch_lines()[0], watch_lines()[1], watch_lines()[2],
                               {'E', "launching orvel...\n"},
                               {'E', launched_text(keldra.pid(), orvel[0].pid)}},
                              last_failure + 1),
              0);
    const pid_t k = keldra.pid();
    EXPECT_EQ(fds_with_target(k, "anon_inode:[signalfd]").size(), 1u);
    EXPECT_EQ(fds_with_target(k, "anon_inode:[eventpoll]").size(), 1u);
    EXPECT_EQ(fds_with_target(k, "anon_inode:inotify").size(), 1u);
    loop_fds fds = find_loop_fds(k);
    expect_directory_watches(k, fds.inotify_fd, {1, 2, 3});
    stop_keldra(keldra);
}

TEST(OrvelStart, RefusedLabelEndsTheHandlerBeforeOrvelIsFoundOrLaunched)
{
    e2e::refuse_labels({"System::Privileged"});
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    ASSERT_GE(keldra.wait_for_message('E', "Thread 1 is cancelled\n"), 0);
    auto records = keldra.messages();
    const long tid = handler_tid(records);
    ASSERT_GT(tid, 0);
    EXPECT_GE(expect_sequence(
                  records,
                  {{'E', format_text("[P %5ld][T %5ld] Starting orvel-launcher ...\n",
                                     long(keldra.pid()), tid)},
                   {'D', "Set domain label(System::Privileged)\n", core_source},
                   {'E', "failed to write label(System::Privileged)...(errno : Invalid argument)\n",
                    core_source},
                   {'E', "failed to set domain label(System::Privileged)...\n"},
                   {'E', "Thread 1 is cancelled\n", core_source}}),
              0);
    // The thread ended before it could find or launch orvel, so
    // thread_started is never signalled: the start-up stays in its wait after
    // row 1, rows 2 and 3 are not started and the main loop, which would
    // restart the handler, is not reached.
    EXPECT_TRUE(e2e::stays_true(
        [&] {
            return e2e::starts("orvel").empty() && e2e::starts("dunmar").empty() &&
                   e2e::starts("tavish").empty() && !e2e::exists("/run/keldra.ready") &&
                   !e2e::exists(orvel_ready) && handler_tid(keldra.messages(), 2) < 0;
        },
        2s, "nothing after the handler's end"));
    for (const e2e::label_record &r : e2e::label_records())
        EXPECT_FALSE(r.kind == "label" && r.tid == tid) << "the label was refused";
}

// ===========================================================================
// Deaths of the daemon

// The lines from the signal record of the death of pid up to the re-armed
// watches, for the event dispatched with number index.
std::vector<line> death_lines(int signal_fd, pid_t pid, long index,
                              const std::vector<line> &how)
{
    std::vector<line> lines = {
        {'E', format_text("orvel signaled: %ld\n", index)},
        {'E', format_text("handle signal events(signal read fd : %d / orvel pid : %d)...\n",
                          signal_fd, pid)},
        {'W', format_text("SIGCHLD signal is received from [pid : %d]\n", pid)},
        {'W', format_text("orvel(%d) is dead...\n", pid)},
        {'E', format_text("waitpid_orvel(%d)\n", pid)},
    };
    lines.insert(lines.end(), how.begin(), how.end());
    lines.push_back({'E', format_text("orvel(%d) is dead...\n", pid)});
    lines.push_back({'E', "orvel after handle_signal_event: ret=1\n"});
    lines.push_back({'E', format_text("orvel is dead. start flag is set again...%ld\n", index)});
    for (const line &l : watch_lines())
        lines.push_back(l);
    return lines;
}

const std::vector<line> killed_by_sigkill = {{'E', "orvel process terminate - fail\n"},
                                             {'E', "signal num : 9\n"}};

// Index of the record of the orvel launcher's source that comes n such
// records before index `at`, skipping the lines other threads logged in
// between; -1 when there is none (or `at` is -1).
int own_record_before(const std::vector<log_record> &records, int at, int n)
{
    for (int i = at - 1; at >= 0 && i >= 0; --i)
        if (records[size_t(i)].file == orvel_source && --n == 0)
            return i;
    return -1;
}

// Finds the dispatch of the death of pid after `from` and checks its lines
// and the relaunch of successor; returns the index of the relaunch line.
int expect_death_and_relaunch(const std::vector<log_record> &records, int from, int signal_fd,
                              pid_t keldra, pid_t pid, pid_t successor,
                              const std::vector<line> &how,
                              e2e::where loc = e2e::where::current())
{
    line handled = {'E', format_text("handle signal events(signal read fd : %d / orvel pid : "
                                     "%d)...\n",
                                     signal_fd, pid)};
    line received = {'W', format_text("SIGCHLD signal is received from [pid : %d]\n", pid)};
    int at = find_line(records, received, from);
    int dispatch = own_record_before(records, at, 1);
    int signaled = own_record_before(records, at, 2);
    if (signaled < 0 || !matches(records[size_t(dispatch)], handled)) {
        ADD_FAILURE_AT(loc.file_name(), int(loc.line()))
            << "no SIGCHLD of orvel " << pid << " after record " << from;
        return -1;
    }
    long index = number_after(records[size_t(signaled)].text, "orvel signaled: ");
    std::vector<line> expected = death_lines(signal_fd, pid, index, how);
    for (const line &l : launch_lines(keldra, successor))
        expected.push_back(l);
    return expect_sequence(records, expected, signaled, loc);
}

TEST(OrvelDeath, ExitWithZeroAndCrashWithSignalElevenAreReapedAndRelaunched)
{
    // The first orvel exits with 0 shortly after its start, the second is
    // killed with SIGSEGV, the third stays.
    e2e::write_next_settings("orvel", "exit_code=0\nafter_ms=300\n");
    run_dir_watch run_dir;
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    ASSERT_GE(wait_launched(keldra), 0);
    const pid_t k = keldra.pid();
    auto orvel = e2e::wait_for_starts("orvel", 2);
    ASSERT_EQ(orvel.size(), 2u);
    ASSERT_GE(keldra.wait_for_message('E', launched_text(k, orvel[1].pid)), 0);
    auto deaths = e2e::deaths("orvel");
    ASSERT_EQ(deaths.size(), 1u);
    EXPECT_EQ(deaths[0].event, "exit");

    ASSERT_EQ(kill(orvel[1].pid, SIGSEGV), 0);
    orvel = e2e::wait_for_starts("orvel", 3);
    ASSERT_EQ(orvel.size(), 3u);
    ASSERT_GE(keldra.wait_for_message('E', launched_text(k, orvel[2].pid)), 0);

    loop_fds fds = find_loop_fds(k);
    auto records = keldra.messages();
    int at = expect_death_and_relaunch(records, 0, fds.signal_fd, k, orvel[0].pid, orvel[1].pid,
                                       {{'I', "orvel process terminate - success\n"},
                                        {'I', "return value : 0 \n"}});
    ASSERT_GE(at, 0);
    at = expect_death_and_relaunch(records, at, fds.signal_fd, k, orvel[1].pid, orvel[2].pid,
                                   {{'E', "orvel process terminate - fail\n"},
                                    {'E', "signal num : 11\n"}});
    ASSERT_GE(at, 0);
    // The ready file existed at every reaping (it was created before the
    // loop first waited), was withdrawn, and was created again by the
    // relaunch; with no ready file the relaunch forks at once.
    EXPECT_EQ(count_lines(records,
                          {'E', format_text("Can't reset event for %s. error: -1\n", orvel_ready)}),
              0);
    EXPECT_EQ(count_lines(records, {'E', "/usr/bin/orvel already was ran ...\n"}), 0);
    ASSERT_TRUE(e2e::wait_for_file(orvel_ready));
    EXPECT_EQ(run_dir.history("orvel.ready"), "CDCDC");
    for (const e2e::start_record &s : orvel)
        EXPECT_EQ(s.ppid, k);
    EXPECT_EQ(e2e::daemon_pids("orvel"), std::vector<pid_t>{orvel[2].pid});
    expect_platform_record(keldra, 'E', format_text("waitpid_orvel(%d)\n", orvel[0].pid),
                           "waitpid_orvel");
    expect_platform_record(keldra, 'E',
                           format_text("handle signal events(signal read fd : %d / orvel pid : "
                                       "%d)...\n",
                                       fds.signal_fd, orvel[0].pid),
                           "handle_signal_event");
    stop_keldra(keldra);
}

TEST(OrvelDeath, TwoHundredSigkillsInARowEachGiveOneRelaunch)
{
    constexpr int kills = 200;
    // A boot whose script has already run: no SIGCHLD of the script's shell
    // is pending when the first orvel is killed.
    ASSERT_TRUE(e2e::write_file(script_done, "", 0600));
    run_dir_watch run_dir;
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    ASSERT_GE(wait_launched(keldra), 0);
    const pid_t k = keldra.pid();
    auto orvel = e2e::wait_for_starts("orvel", 1);
    ASSERT_EQ(orvel.size(), 1u);
    ASSERT_GE(keldra.wait_for_message('E', launched_text(k, orvel[0].pid)), 0);
    ASSERT_GE(keldra.wait_for_message('I', format_text("pellan launched successfully (pid: %d)\n",
                                                       e2e::wait_for_daemon("pellan"))),
              0);
    ASSERT_GE(keldra.wait_for_message('E', format_text("dunmar launched successfully (pid: %d)\n",
                                                       e2e::wait_for_daemon("dunmar"))),
              0);
    const auto descriptors = fd_targets(k);
    const loop_fds fds = find_loop_fds(k);
    ASSERT_GE(fds.signal_fd, 0);

    std::vector<uint64_t> killed_at;
    for (int n = 1; n <= kills; ++n) {
        const pid_t victim = orvel.back().pid;
        ASSERT_EQ(e2e::daemon_pids("orvel"), std::vector<pid_t>{victim}) << "kill " << n;
        killed_at.push_back(monotonic_ns()); // the successor starts after this
        ASSERT_EQ(kill(victim, SIGKILL), 0);
        orvel = e2e::wait_for_starts("orvel", size_t(n) + 1, 20s);
        ASSERT_EQ(orvel.size(), size_t(n) + 1) << "kill " << n;
        EXPECT_GT(orvel.back().mono_ns, killed_at.back()) << "kill " << n;
        EXPECT_EQ(orvel.back().ppid, k);
    }
    ASSERT_GE(keldra.wait_for_message('E', launched_text(k, orvel.back().pid)), 0);
    EXPECT_TRUE(e2e::stays_true([] { return e2e::starts("orvel").size() == kills + 1; }, 300ms,
                                "no further orvel"));
    EXPECT_EQ(e2e::daemon_pids("orvel"), std::vector<pid_t>{orvel.back().pid});

    // Every death: reaped through the signal descriptor, ready file
    // withdrawn, watches placed again (the same descriptors: they were
    // never removed), one relaunch.
    auto records = keldra.messages();
    int at = 0;
    for (int n = 0; n < kills; ++n) {
        at = expect_death_and_relaunch(records, at, fds.signal_fd, k, orvel[size_t(n)].pid,
                                       orvel[size_t(n) + 1].pid, killed_by_sigkill);
        ASSERT_GE(at, 0) << "death " << n + 1;
    }
    EXPECT_EQ(count_lines(records, {'E', "launching orvel...\n"}), kills + 1);
    EXPECT_EQ(count_lines(records, {'E', "orvel process terminate - fail\n"}), kills);
    EXPECT_EQ(count_prefix(records, 'E', "orvel is dead. start flag is set again..."), kills);
    EXPECT_EQ(count_lines(records, watch_lines()[0]), kills + 1);
    EXPECT_EQ(count_lines(records,
                          {'E', format_text("Can't reset event for %s. error: -1\n", orvel_ready)}),
              0);
    EXPECT_EQ(count_prefix(records, 'E', "signal handling is failed"), 0);

    ASSERT_TRUE(e2e::wait_for_file(orvel_ready));
    std::string expected_history;
    for (int n = 0; n < kills; ++n)
        expected_history += "CD";
    expected_history += "C";
    EXPECT_EQ(run_dir.history("orvel.ready"), expected_history);

    // The supervisor's descriptors are the same as before the first kill.
    EXPECT_TRUE(e2e::wait_until([&] { return fd_targets(k) == descriptors; }, 10s,
                                "the same descriptors as before the kills"));
    expect_directory_watches(k, fds.inotify_fd, {1, 2, 3});
    stop_keldra(keldra);
}

// ===========================================================================
// A supervisor started while orvel runs

// Runs a first supervisor until orvel is up and stops it; returns the pid of
// the orvel it leaves running.
pid_t orvel_left_by_a_first_supervisor()
{
    e2e::scenario first;
    if (!first.start() || wait_launched(first) < 0)
        return -1;
    auto orvel = e2e::wait_for_starts("orvel", 1);
    if (orvel.size() != 1 || first.wait_for_message('E', launched_text(first.pid(), orvel[0].pid)) < 0)
        return -1;
    first.send_signal(SIGTERM);
    EXPECT_EQ(first.wait_exit(30s), exit_status::with_code(0));
    EXPECT_TRUE(e2e::process_alive(orvel[0].pid));
    EXPECT_TRUE(e2e::exists(orvel_ready));
    return orvel[0].pid;
}

// The adoption lines of a second supervisor, up to the registration of the
// watch descriptor; returns the index of the "Found" line.
int expect_adoption(const std::vector<log_record> &records, pid_t orvel,
                    e2e::where loc = e2e::where::current())
{
    return expect_sequence(records,
                           {{'E', "Starting Orvel Launcher...\n"},
                            {'E', "Script already done, skip it ..\n"},
                            watch_lines()[0], watch_lines()[1], watch_lines()[2],
                            {'E', "/usr/bin/orvel already was ran ...\n"},
                            {'E', format_text("Found orvel(pid : %d) is launched successfully...\n",
                                              orvel)}},
                           0, loc);
}

// The watch on the adopted daemon: an inotify instance of its own (no
// close-on-exec) with watch descriptor 1 on the executable, IN_CLOSE_NOWRITE,
// and a descriptor of /proc/<pid>. Returns the descriptor of that instance.
int expect_pid_watch(pid_t keldra, pid_t orvel, e2e::where loc = e2e::where::current())
{
    SCOPED_TRACE(testing::Message() << "expect_pid_watch called from line " << loc.line());
    // The watch lies on the executable as the process maps it (the overlay's
    // inode); stat reports the device of the layer beneath, so only the inode
    // number is compared.
    const unsigned long exe = file_id_of("/usr/bin/orvel").ino;
    int found = -1;
    for (int fd : fds_with_target(keldra, "anon_inode:inotify")) {
        auto watches = inotify_watches(keldra, fd);
        if (watches.size() == 1 && watches[0].ino == exe) {
            EXPECT_EQ(found, -1) << "one instance watches orvel";
            found = fd;
            EXPECT_EQ(watches[0].wd, 1);
            EXPECT_EQ(watches[0].mask & 0xfff, unsigned(IN_CLOSE_NOWRITE));
            EXPECT_EQ(fd_flags(keldra, fd) & O_CLOEXEC, 0) << "created by inotify_init()";
        }
    }
    EXPECT_GE(found, 0) << "no inotify instance watching /usr/bin/orvel";
    EXPECT_GE(fds_with_target(keldra, "/proc/" + std::to_string(orvel)).size(), 1u);
    return found;
}

TEST(OrvelAdoption, WithStdoutOnARegularFileTheWatchCannotBeRegisteredAndTheDeathGoesUnnoticed)
{
    const pid_t p = orvel_left_by_a_first_supervisor();
    ASSERT_GT(p, 0);
    e2e::scenario_options options;
    options.out = e2e::stdout_mode::regular_file;
    e2e::scenario second(options);
    ASSERT_TRUE(second.start());
    ASSERT_GE(wait_launched(second), 0);
    const pid_t k = second.pid();
    ASSERT_GE(second.wait_for_message('E', format_text("Can't set event for pid : %ld\n", long(p))),
              0);
    auto records = second.messages();
    int found = expect_adoption(records, p);
    ASSERT_GE(found, 0);
    // The watch descriptor (1) is registered as if it were a descriptor:
    // descriptor 1 is the regular file of standard output, which epoll
    // refuses. The start-up wait is already over by then (it ends at "Found"),
    // so the main thread's line may come before or after these two.
    EXPECT_GE(expect_sequence(records,
                              {{'E', "failed to set epoll event(add)...(errno : Operation not "
                                     "permitted)\n"},
                               {'E', format_text("Can't set event for pid : %ld\n", long(p))}},
                              found + 1),
              0);
    EXPECT_GT(find_line(records, {'I', format_text("keldra launched successfully (pid:%d)\n", k),
                                  "keldra-main.cc"}),
              found);
    EXPECT_EQ(count_lines(records, {'E', "No script running before, run it ..\n"}), 0);
    EXPECT_EQ(count_lines(records, {'E', "launching orvel...\n"}), 0);
    EXPECT_EQ(e2e::init_script_runs().size(), 1u);
    expect_platform_record(second, 'E', format_text("Can't set event for pid : %ld\n", long(p)),
                           "watch_orvel_pid");
    EXPECT_EQ(fd_targets(k)[1], second.stdout_path());
    expect_pid_watch(k, p);
    loop_fds fds = find_loop_fds(k);
    auto entries = epoll_entries(k, fds.epoll_fd);
    EXPECT_EQ(entries.size(), 2u) << fdinfo(k, fds.epoll_fd);
    EXPECT_EQ(e2e::starts("orvel").size(), 1u) << "no second orvel";
    EXPECT_EQ(e2e::daemon_pids("orvel"), std::vector<pid_t>{p});

    // orvel is no child of this supervisor: its death sends no SIGCHLD here,
    // and the watch on its executable is not in the epoll set. Nothing
    // notices it, not even when other events wake the loop.
    ASSERT_EQ(kill(p, SIGKILL), 0);
    ASSERT_TRUE(e2e::wait_until([&] { return !e2e::process_alive(p); }, 5s, "orvel gone"));
    ASSERT_TRUE(e2e::remove_file("/run/orvel.socket"));
    ASSERT_TRUE(e2e::write_file("/run/orvel.socket", ""));
    EXPECT_GE(second.wait_for_message('I', "inotify event is received for /run/orvel.socket\n"), 0)
        << "the loop woke up for the directory watch";
    EXPECT_TRUE(e2e::stays_true(
        [&] {
            return e2e::starts("orvel").size() == 1 &&
                   second.count_messages('E', "launching orvel...\n") == 0;
        },
        5s, "no relaunch of orvel"));
    EXPECT_EQ(second.count_messages('W', format_text("orvel(%d) is dead...\n", p)), 0);
    EXPECT_TRUE(e2e::exists(orvel_ready)) << "nobody withdraws the ready file";
    stop_keldra(second);
}

TEST(OrvelAdoption, WithStdoutOnAPipeTheWatchIsRegisteredButOnlyTheClosedReaderIsReported)
{
    const pid_t p = orvel_left_by_a_first_supervisor();
    ASSERT_GT(p, 0);
    e2e::scenario_options options;
    options.out = e2e::stdout_mode::pipe;
    e2e::scenario second(options);
    ASSERT_TRUE(second.start());
    ASSERT_GE(wait_launched(second), 0);
    const pid_t k = second.pid();
    auto records = second.messages();
    int found = expect_adoption(records, p);
    ASSERT_GE(found, 0);
    EXPECT_EQ(count_prefix(records, 'E', "Can't set event for pid"), 0);
    EXPECT_EQ(count_prefix(records, 'E', "failed to set epoll event"), 0);
    EXPECT_EQ(count_lines(records, {'E', "launching orvel...\n"}), 0);
    expect_pid_watch(k, p);

    // Descriptor 1, the write end of the pipe, is in the epoll set, asking
    // for EPOLLIN only (EPOLLERR and EPOLLHUP are always reported).
    const std::string pipe = fd_targets(k)[1];
    ASSERT_TRUE(pipe.starts_with("pipe:")) << pipe;
    loop_fds fds = find_loop_fds(k);
    auto entries = epoll_entries(k, fds.epoll_fd);
    ASSERT_EQ(entries.size(), 3u) << fdinfo(k, fds.epoll_fd);
    auto one = std::find_if(entries.begin(), entries.end(), [](const epoll_entry &e) { return e.fd == 1; });
    ASSERT_NE(one, entries.end());
    EXPECT_EQ(one->data, 1u);
    EXPECT_EQ(one->events, unsigned(EPOLLIN | EPOLLERR | EPOLLHUP));

    // A write end never reads as readable: the death of orvel goes unnoticed
    // as with a regular file.
    ASSERT_EQ(kill(p, SIGKILL), 0);
    EXPECT_TRUE(e2e::stays_true(
        [&] {
            return e2e::starts("orvel").size() == 1 &&
                   second.count_messages('E', "launching orvel...\n") == 0 &&
                   count_prefix(second.messages(), 'E', "wrong events") == 0;
        },
        3s, "no relaunch and no event on descriptor 1"));

    // Once the reading end is gone, the write end reports EPOLLERR without
    // EPOLLIN, level-triggered, at every wait: the loop spins on "wrong
    // events" and nothing else.
    int reader = -1;
    for (const auto &[fd, target] : fd_targets(getpid()))
        if (target == pipe)
            reader = fd;
    ASSERT_GE(reader, 0) << "the test holds the reading end";
    int null_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(null_fd, 0);
    ASSERT_GE(dup3(null_fd, reader, O_CLOEXEC), 0);
    close(null_fd);
    const line wrong = {'E', "wrong events. we only watch read events(epollin)...0\n"};
    ASSERT_GE(second.wait_for_message('E', wrong.text, 10s, 100), 0);
    records = second.messages();
    int first_wrong = find_line(records, wrong);
    for (int i = first_wrong; i < int(records.size()); ++i)
        EXPECT_TRUE(matches(records[size_t(i)], wrong) ||
                    records[size_t(i)].text.starts_with("wrong events"))
            << e2e::describe(records[size_t(i)]);
    EXPECT_EQ(e2e::starts("orvel").size(), 1u);

    // A new reader of the same pipe (opened through /proc) ends the error
    // state, and with it the spinning.
    int new_reader = open(("/proc/" + std::to_string(k) + "/fd/1").c_str(),
                          O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(new_reader, 0) << strerror(errno);
    int spun = -1;
    uint64_t changed_at = 0;
    EXPECT_TRUE(e2e::wait_until(
        [&] {
            int now = second.count_messages('E', wrong.text);
            if (now != spun) {
                spun = now;
                changed_at = monotonic_ns();
            }
            return monotonic_ns() - changed_at > 200'000'000u;
        },
        10s, "the end of the spinning"));
    EXPECT_TRUE(e2e::stays_true([&] { return second.count_messages('E', wrong.text) == spun; },
                                300ms, "no more wrong events"));
    stop_keldra(second);
    close(new_reader);
}

TEST(OrvelAdoption, SigchldClaimingToComeFromTheAdoptedOrvelFailsWaitpidThreeTimes)
{
    const pid_t p = orvel_left_by_a_first_supervisor();
    ASSERT_GT(p, 0);
    e2e::scenario_options options;
    options.out = e2e::stdout_mode::regular_file;
    e2e::scenario second(options);
    ASSERT_TRUE(second.start());
    ASSERT_GE(wait_launched(second), 0);
    const pid_t k = second.pid();
    ASSERT_GE(second.wait_for_message('E', format_text("Can't set event for pid : %ld\n", long(p))),
              0);
    const loop_fds fds = find_loop_fds(k);
    ASSERT_GE(fds.signal_fd, 0);
    const size_t proc_dir_fds = fds_with_target(k, "/proc/" + std::to_string(p)).size();
    EXPECT_EQ(proc_dir_fds, 1u);

    // The checker's launcher may clean its runtime directory through
    // system(): that shell's SIGCHLD must have been read, or the one sent
    // below merges with it and is never seen.
    ASSERT_TRUE(e2e::wait_until(
        [&] {
            for (const log_record &record : second.messages())
                if (record.text.find("pellan launched successfully (pid: ") != std::string::npos)
                    return true;
            return false;
        },
        20s, "the checker's launcher to report its checker"));
    ASSERT_TRUE(e2e::wait_for_no_pending_sigchld(k));

    // A SIGCHLD whose sender is the adopted orvel, which is no child of this
    // process: waitpid fails with ECHILD.
    siginfo_t info = {};
    info.si_signo = SIGCHLD;
    info.si_code = SI_QUEUE;
    info.si_pid = p;
    info.si_uid = getuid();
    ASSERT_EQ(syscall(SYS_rt_sigqueueinfo, k, SIGCHLD, &info), 0) << strerror(errno);
    ASSERT_GE(second.wait_for_message('E', format_text("waitpid_orvel(%d)\n", p), 10s), 0);
    const uint64_t wait_began = monotonic_ns();
    ASSERT_GE(second.wait_for_message('E', "orvel after handle_signal_event: ret=1\n", 30s), 0);
    EXPECT_GE(monotonic_ns() - wait_began, 8'500'000'000u) << "three sleeps of 3 s";
    ASSERT_GE(second.wait_for_message(
                  'E', format_text("Found orvel(pid : %d) is launched successfully...\n", p), 10s,
                  2),
              0);
    ASSERT_GE(second.wait_for_message('E', format_text("Can't set event for pid : %ld\n", long(p)),
                                      10s, 2),
              0);

    auto records = second.messages();
    int at = find_line(records, {'E', format_text("waitpid_orvel(%d)\n", p)});
    std::vector<line> expected = {
        {'E', "orvel signaled: 0\n"},
        {'E', format_text("handle signal events(signal read fd : %d / orvel pid : %d)...\n",
                          fds.signal_fd, p)},
        {'W', format_text("SIGCHLD signal is received from [pid : %d]\n", p)},
        {'W', format_text("orvel(%d) is dead...\n", p)},
        {'E', format_text("waitpid_orvel(%d)\n", p)},
    };
    for (int n = 1; n <= 3; ++n) {
        expected.push_back({'E', format_text("failed to wait child process(%d)...(errno : No "
                                             "child processes)\n",
                                             p)});
        expected.push_back({'E', format_text("waitpid fail...retry count - %d\n", n)});
    }
    expected.push_back({'E', "orvel after handle_signal_event: ret=1\n"});
    expected.push_back({'E', "orvel is dead. start flag is set again...0\n"});
    for (const line &l : watch_lines())
        expected.push_back(l);
    // The status word was never filled: no end is reported and the ready
    // file stays, so the next turn looks the daemon up and adopts it again.
    expected.push_back({'E', "/usr/bin/orvel already was ran ...\n"});
    expected.push_back({'E', format_text("Found orvel(pid : %d) is launched successfully...\n", p)});
    expected.push_back({'E', "failed to set epoll event(add)...(errno : Operation not permitted)\n"});
    expected.push_back({'E', format_text("Can't set event for pid : %ld\n", long(p))});
    EXPECT_GE(expect_sequence(records, expected, at - 4), 0);
    EXPECT_EQ(count_lines(records, {'E', "failed to wait child process(" + std::to_string(p) +
                                             ")...(errno : No child processes)\n"}),
              3);
    for (const char *text : {"orvel process terminate - success\n", "orvel process - stop\n",
                             "orvel process - restart\n"})
        EXPECT_EQ(count_lines(records, {'I', text}), 0) << text;
    EXPECT_EQ(count_lines(records, {'E', "orvel process terminate - fail\n"}), 0);
    EXPECT_EQ(count_lines(records, {'E', "launching orvel...\n"}), 0);
    EXPECT_TRUE(e2e::exists(orvel_ready));
    EXPECT_EQ(e2e::starts("orvel").size(), 1u);
    EXPECT_TRUE(e2e::process_alive(p));

    // The watch descriptor 1 was closed as a descriptor: that was standard
    // output. The next open of the second adoption, /proc/<pid>, took the
    // free number 1, and that is what was offered to epoll; the first
    // /proc/<pid> descriptor is still open.
    EXPECT_EQ(fd_targets(k)[1], "/proc/" + std::to_string(p));
    EXPECT_EQ(fds_with_target(k, "/proc/" + std::to_string(p)).size(), 2u);
    EXPECT_TRUE(fds_with_target(k, second.stdout_path()).empty());
    expect_pid_watch(k, p);
    stop_keldra(second);
}

} // namespace
