// Descriptors inherited by the daemons, from the start records of the
// simulated daemons ("fds=", taken before a daemon opens anything).
//
// Every descriptor the supervisor keeps for itself is close-on-exec (the lock
// file, the relay pipe, the signal, inotify and epoll descriptors of the
// application-policy launcher, the ready files, the platform log, the
// directory streams of the process scans), so a daemon gets exactly 0, 1 and
// 2 from the supervisor. Opened without close-on-exec, as they are meant to
// be: a launcher thread's label file, for the moment it sets its label (at
// the start one launch may fall into that moment of another thread), and,
// for as long as a wait lasts, the inotify instance and the /proc/<pid>
// directory of wait_for_pid, held by every launcher thread that waits for an
// adopted daemon, and the same pair of the application-policy launcher
// (pid_inotify_fd, proc_dir_fd) once it has adopted an orvel, which it never
// closes. A daemon launched while other launchers wait for adopted daemons
// inherits their pairs.
#include "fault_support.h"

#include <dirent.h>
#include <sys/stat.h>

#include <set>

namespace {

using namespace std::chrono_literals;
using e2e::format_text;

std::string fds_field(const e2e::start_record &record)
{
    auto it = record.fields.find("fds");
    return it == record.fields.end() ? "" : it->second;
}

std::string standard_fds(const e2e::scenario &keldra)
{
    return "0:/dev/null,1:/dev/null,2:" + keldra.stderr_path();
}

// Targets of the descriptors a process has open right now.
std::map<int, std::string> open_fds(pid_t pid)
{
    std::map<int, std::string> fds;
    const std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    DIR *listing = opendir(dir.c_str());
    if (!listing)
        return fds;
    while (dirent *entry = readdir(listing)) {
        char *end = nullptr;
        long fd = strtol(entry->d_name, &end, 10);
        if (entry->d_name[0] == '.' || *end != '\0')
            continue;
        char target[512];
        ssize_t n = readlink((dir + "/" + entry->d_name).c_str(), target, sizeof target);
        if (n >= 0)
            fds[int(fd)] = std::string(target, size_t(n));
    }
    closedir(listing);
    return fds;
}

bool has_target(pid_t pid, const std::string &target)
{
    for (const auto &[fd, t] : open_fds(pid))
        if (t == target)
            return true;
    return false;
}

// Which daemon's executable an inode is.
std::string executable_of(unsigned long inode)
{
    for (const std::string &name : e2e::daemon_names) {
        struct stat st;
        if (stat(e2e::daemon_path(name).c_str(), &st) == 0 && st.st_ino == inode)
            return name;
    }
    return "?";
}

// Names an inherited descriptor of `holder` by what it is for:
//   "inotify: close of <daemon>'s executable"  an inotify instance with one
//                                              watch, IN_CLOSE_NOWRITE, on
//                                              that daemon's program file
//   "directory: /proc of <daemon>"             the /proc/<pid> directory of
//                                              that daemon (pid by name)
// and anything else as "<fd>:<target>".
std::string name_descriptor(pid_t holder, const e2e::fd_entry &entry,
                            const std::map<std::string, pid_t> &daemons)
{
    if (entry.target == "anon_inode:inotify") {
        auto info = e2e::read_file("/proc/" + std::to_string(holder) + "/fdinfo/" +
                                   std::to_string(entry.fd));
        std::istringstream lines(info.value_or(""));
        std::vector<std::string> watches;
        for (std::string line; std::getline(lines, line);) {
            unsigned long inode = 0;
            unsigned mask = 0;
            size_t at = line.find(" ino:");
            size_t m = line.find(" mask:");
            if (!line.starts_with("inotify wd:") || at == std::string::npos ||
                m == std::string::npos)
                continue;
            inode = std::stoul(line.substr(at + 5), nullptr, 16);
            mask = unsigned(std::stoul(line.substr(m + 6), nullptr, 16));
            watches.push_back(mask == 0x10 ? "close of " + executable_of(inode) + "'s executable"
                                           : format_text("mask %x", mask));
        }
        if (watches.size() == 1)
            return "inotify: " + watches[0];
        return "inotify with " + std::to_string(watches.size()) + " watches";
    }
    for (const auto &[name, pid] : daemons)
        if (entry.target == "/proc/" + std::to_string(pid))
            return "directory: /proc of " + name;
    return std::to_string(entry.fd) + ":" + entry.target;
}

std::multiset<std::string> named_descriptors(const e2e::start_record &record,
                                             const std::map<std::string, pid_t> &daemons)
{
    std::multiset<std::string> names;
    for (const e2e::fd_entry &entry : record.fds)
        names.insert(name_descriptor(record.pid, entry, daemons));
    return names;
}

// What a daemon launched while the launchers of `waiting` wait for adopted
// daemons inherits: 0, 1, 2 and, for each of them, the inotify instance that
// watches its executable and its /proc directory.
std::multiset<std::string> expected_with_waits(const e2e::scenario &keldra,
                                               const std::vector<std::string> &waiting)
{
    std::multiset<std::string> names = {"0:/dev/null", "1:/dev/null",
                                        "2:" + keldra.stderr_path()};
    for (const std::string &name : waiting) {
        names.insert("inotify: close of " + name + "'s executable");
        names.insert("directory: /proc of " + name);
    }
    return names;
}

std::string describe(const std::multiset<std::string> &names)
{
    std::string text;
    for (const std::string &name : names)
        text += "  " + name + "\n";
    return text;
}

// The target of a launcher thread's Smack label file while it sets its
// label: the simulation stands in /dev/null for it, the kernel shows the
// task's attribute file.
bool is_label_file(const std::string &target)
{
    if (getenv("SMACK_SIM_DIR"))
        return target == "/dev/null";
    return target.starts_with("/proc/") && target.ends_with("/attr/current");
}

TEST(FdHygiene, ColdStartAndRelaunchesGiveEachDaemonExactlyTheStandardDescriptors)
{
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    auto pids = faults::wait_for_healthy_start(keldra);
    ASSERT_EQ(pids.size(), 4u);
    // The supervisor holds the lock file; no daemon has it.
    EXPECT_TRUE(has_target(keldra.pid(), "/tmp/keldra.lock"));

    // At the start one launcher may fork while another thread has its label
    // file open to set its label (opened without close-on-exec, for the
    // moment of one write): tavish's launch and the dunmar thread's label,
    // which start together, or pellan's launch and the orvel thread's. Such a
    // daemon has that one descriptor more; nothing else is allowed.
    for (const std::string &name : e2e::daemon_names) {
        auto starts = e2e::starts(name);
        ASSERT_EQ(starts.size(), 1u) << name;
        std::string standard;
        int label_files = 0;
        for (const e2e::fd_entry &entry : starts[0].fds) {
            if (entry.fd > 2 && is_label_file(entry.target))
                ++label_files;
            else
                standard += (standard.empty() ? "" : ",") + std::to_string(entry.fd) + ":" +
                            entry.target;
        }
        EXPECT_EQ(standard, standard_fds(keldra)) << name << " (fds=" << fds_field(starts[0])
                                                  << ")";
        EXPECT_LE(label_files, 1) << name;
        EXPECT_TRUE(label_files == 0 || name == "tavish" || name == "pellan") << name;
        if (label_files)
            std::cout << name << " inherited the label file of another launcher thread: "
                      << fds_field(starts[0]) << "\n";
    }

    // Launched again after a death, with no launcher setting its label and
    // none waiting for an adopted daemon: exactly the three. (orvel first: its
    // launcher sees a death only through a SIGCHLD naming it, which another
    // child's pending SIGCHLD would swallow; see fault_sigchld_test.cc.)
    for (const std::string name : {"orvel", "tavish", "dunmar"}) {
        ASSERT_EQ(kill(pids[name], SIGKILL), 0);
        auto starts = e2e::wait_for_starts(name, 2);
        ASSERT_EQ(starts.size(), 2u) << name;
        EXPECT_EQ(fds_field(starts[1]), standard_fds(keldra)) << name << " relaunched";
    }
    ASSERT_EQ(kill(pids["pellan"], SIGKILL), 0);
    pid_t checker = faults::wait_for_settled_checker(keldra, pids["pellan"]);
    ASSERT_GT(checker, 0);
    auto checkers = e2e::starts("pellan");
    for (size_t i = 1; i < checkers.size(); ++i)
        EXPECT_EQ(fds_field(checkers[i]), standard_fds(keldra)) << "pellan " << checkers[i].pid;
    EXPECT_TRUE(has_target(keldra.pid(), "/tmp/keldra.lock"));
}

TEST(FdHygiene, AfterATakeoverEachLaunchInheritsTheWaitsForTheAdoptedDaemons)
{
    e2e::scenario first;
    ASSERT_TRUE(first.start());
    auto adopted = faults::wait_for_healthy_start(first);
    ASSERT_EQ(adopted.size(), 4u);

    // The second supervisor takes over (its scan for the holder of the lock
    // uses close-on-exec directory streams) and adopts all four.
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    ASSERT_EQ(first.wait_exit(30s), e2e::exit_status::with_code(0));
    ASSERT_GE(keldra.wait_for_message('I', faults::launched_text(keldra.pid()), 30s), 0);
    for (const char *name : {"pellan", "dunmar", "tavish"})
        ASSERT_GE(keldra.wait_for_message(
                      'I', format_text("Wait for inotify_event for pid:%d ...\n", adopted[name])),
                  0)
            << name;
    ASSERT_GE(keldra.wait_for_message('E', format_text("Found orvel(pid : %d) is launched "
                                                       "successfully...\n",
                                                       adopted["orvel"])),
              0);
    ASSERT_TRUE(e2e::wait_until(
        [&] {
            for (const auto &[name, pid] : adopted)
                if (!has_target(keldra.pid(), "/proc/" + std::to_string(pid)))
                    return false;
            return true;
        },
        10s, "the supervisor holding the /proc directory of every adopted daemon"));
    EXPECT_TRUE(has_target(keldra.pid(), "/tmp/keldra.lock"));

    struct step {
        std::string killed;
        std::vector<std::string> still_waiting; // launchers waiting for adopted daemons
    };
    // Each launch happens while the launchers of the daemons not yet killed
    // (and always orvel's, whose watch pair is never closed) hold their pairs.
    const std::vector<step> steps = {
        {"tavish", {"pellan", "orvel", "dunmar"}},
        {"dunmar", {"pellan", "orvel"}},
        {"pellan", {"orvel"}},
    };
    for (const step &s : steps) {
        SCOPED_TRACE(s.killed + " launched anew");
        ASSERT_EQ(kill(adopted[s.killed], SIGKILL), 0);
        auto starts = e2e::wait_for_starts(s.killed, 2);
        ASSERT_EQ(starts.size(), 2u);
        const e2e::start_record &record = starts[1];
        EXPECT_EQ(record.ppid, keldra.pid());
        auto names = named_descriptors(record, adopted);
        auto expected = expected_with_waits(keldra, s.still_waiting);
        EXPECT_EQ(names, expected) << "inherited (fds=" << fds_field(record) << "):\n"
                                   << describe(names) << "expected:\n"
                                   << describe(expected);
        std::cout << s.killed << " (" << record.pid << ") inherited:\n" << describe(names);
        for (const e2e::fd_entry &entry : record.fds)
            EXPECT_NE(entry.target, "/tmp/keldra.lock");
    }
}

} // namespace
