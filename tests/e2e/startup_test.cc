// Cold start of the supervisor with four healthy simulated daemons: the order
// in which the launcher threads are created, the moment "/run/keldra.ready"
// appears, and what every daemon inherits from the thread that launched it
// (session, argument vector, user, signal mask, umask, Smack label), plus the
// runtime directory and sockets of pellan, the ready files and the lock file.
#include "harness.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

namespace {

using namespace std::chrono_literals;
using e2e::format_text;

constexpr uid_t pellan_uid = 401;
constexpr gid_t pellan_gid = 401;
constexpr gid_t pellan_socket_group = 402;

constexpr const char *keldra_ready = "/run/keldra.ready";
constexpr const char *lock_file = "/tmp/keldra.lock";

struct socket_expectation {
    const char *path;
    mode_t mode;
    e2e::file_owner owner;
};

const socket_expectation pellan_sockets[] = {
    {"/run/pellan/pellan.socket", 0777, {pellan_uid, pellan_gid}},
    {"/run/pellan/pellan-admin.socket", 0700, {pellan_uid, pellan_gid}},
    {"/run/pellan/pellan-agent.socket", 0060, {pellan_uid, pellan_socket_group}},
    {"/run/pellan/pellan-monitor-get.socket", 0060, {pellan_uid, pellan_socket_group}},
};

// ---------------------------------------------------------------------------
// Threads of the supervisor as /proc shows them

std::vector<pid_t> numbers_in(const std::string &text)
{
    std::vector<pid_t> numbers;
    std::istringstream in(text);
    for (long n; in >> n;)
        numbers.push_back(pid_t(n));
    return numbers;
}

// Thread ids of a process, ascending.
std::vector<pid_t> task_ids(pid_t pid)
{
    std::vector<pid_t> tids;
    std::string dir = "/proc/" + std::to_string(pid) + "/task";
    DIR *d = opendir(dir.c_str());
    if (!d)
        return tids;
    while (dirent *entry = readdir(d)) {
        char *end = nullptr;
        long tid = strtol(entry->d_name, &end, 10);
        if (end != entry->d_name && *end == '\0')
            tids.push_back(pid_t(tid));
    }
    closedir(d);
    std::sort(tids.begin(), tids.end());
    return tids;
}

// The children forked by one thread of a process.
std::vector<pid_t> children_of_thread(pid_t pid, pid_t tid)
{
    std::string path =
        "/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/children";
    return numbers_in(e2e::read_file(path).value_or(""));
}

// The thread of the supervisor that forked the child, or -1.
pid_t thread_that_forked(pid_t keldra, pid_t child)
{
    for (pid_t tid : task_ids(keldra)) {
        auto children = children_of_thread(keldra, tid);
        if (std::find(children.begin(), children.end(), child) != children.end())
            return tid;
    }
    return -1;
}

// ---------------------------------------------------------------------------
// The threads of the opener at the moment it opens a file under /run
//
// A fanotify permission watch on the /run mount holds every opener inside
// open() until this probe answers; for the first open of `path` the probe lists
// the opener's threads before it lets the open go on. The listening thread
// only reads /proc, never a file under /run, so it cannot hold itself up.

struct open_snapshot {
    pid_t opener = -1;
    std::vector<pid_t> tids;
};

class open_probe {
public:
    explicit open_probe(std::string path) : path_(std::move(path)) {}
    ~open_probe() { stop(); }
    open_probe(const open_probe &) = delete;
    open_probe &operator=(const open_probe &) = delete;

    // Returns an error text, empty when the probe is listening.
    std::string start()
    {
        fd_ = fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC | FAN_NONBLOCK,
                            O_RDONLY | O_LARGEFILE | O_CLOEXEC);
        if (fd_ < 0)
            return std::string("fanotify_init: ") + strerror(errno);
        if (fanotify_mark(fd_, FAN_MARK_ADD | FAN_MARK_MOUNT, FAN_OPEN_PERM, AT_FDCWD, "/run") !=
            0)
            return std::string("fanotify_mark /run: ") + strerror(errno);
        listener_ = std::thread([this] { listen(); });
        return "";
    }

    void stop()
    {
        stopping_ = true;
        if (listener_.joinable())
            listener_.join();
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
    }

    std::optional<open_snapshot> snapshot() const
    {
        std::lock_guard<std::mutex> guard(mutex_);
        return snapshot_;
    }

private:
    void listen()
    {
        pollfd waiting = {fd_, POLLIN, 0};
        while (!stopping_) {
            if (poll(&waiting, 1, 20) > 0)
                answer_pending_events();
        }
    }

    void answer_pending_events()
    {
        alignas(fanotify_event_metadata) char buffer[8192];
        ssize_t n = read(fd_, buffer, sizeof buffer);
        if (n <= 0)
            return;
        auto *event = reinterpret_cast<fanotify_event_metadata *>(buffer);
        for (; FAN_EVENT_OK(event, n); event = FAN_EVENT_NEXT(event, n)) {
            if (event->fd < 0)
                continue;
            if (event->mask & FAN_OPEN_PERM)
                note_open(*event);
            fanotify_response response = {event->fd, FAN_ALLOW};
            if (write(fd_, &response, sizeof response) != ssize_t(sizeof response))
                failed_answers_++;
            close(event->fd);
        }
    }

    void note_open(const fanotify_event_metadata &event)
    {
        char target[512] = {};
        std::string link = "/proc/self/fd/" + std::to_string(event.fd);
        ssize_t length = readlink(link.c_str(), target, sizeof target - 1);
        if (length <= 0 || std::string(target, size_t(length)) != path_)
            return;
        std::lock_guard<std::mutex> guard(mutex_);
        if (!snapshot_)
            snapshot_ = open_snapshot{event.pid, task_ids(event.pid)};
    }

    std::string path_;
    int fd_ = -1;
    std::thread listener_;
    std::atomic<bool> stopping_{false};
    std::atomic<int> failed_answers_{0};
    mutable std::mutex mutex_;
    std::optional<open_snapshot> snapshot_;
};

// ---------------------------------------------------------------------------

struct launched_daemon {
    pid_t pid = -1;
    pid_t thread = -1; // the launcher thread that forked it
    e2e::start_record start;
};

class ColdStart : public ::testing::Test {
protected:
    // Starts the supervisor in a fresh sandbox and waits until it reports
    // itself ready and every launcher has logged the launch of its daemon.
    void start_and_wait_for_all_launches()
    {
        ASSERT_TRUE(keldra.start());
        for (const std::string &name : e2e::daemon_names) {
            auto starts = e2e::wait_for_starts(name, 1);
            ASSERT_EQ(starts.size(), 1u) << name;
            daemons[name].start = starts[0];
            daemons[name].pid = starts[0].pid;
        }
        ASSERT_GE(keldra.wait_for_message('I', launched_text()), 0);
        ASSERT_GE(keldra.wait_for_message('I', format_text("pellan launched successfully "
                                                           "(pid: %d)\n",
                                                           daemons["pellan"].pid)),
                  0);
        ASSERT_GE(keldra.wait_for_message('E', orvel_launched_text()), 0);
        ASSERT_GE(keldra.wait_for_message('E', format_text("dunmar launched successfully "
                                                           "(pid: %d)\n",
                                                           daemons["dunmar"].pid)),
                  0);
        ASSERT_GE(keldra.wait_for_message('I', format_text("tavish launched successfully pid: "
                                                           "%d\n",
                                                           daemons["tavish"].pid)),
                  0);
        for (auto &[name, daemon] : daemons)
            daemon.thread = thread_that_forked(keldra.pid(), daemon.pid);
    }

    std::string launched_text() const
    {
        return format_text("keldra launched successfully (pid:%d)\n", keldra.pid());
    }

    std::string orvel_launched_text()
    {
        return format_text("[P %5ld] orvel(pid : %d) is launched successfully...\n",
                           long(keldra.pid()), daemons["orvel"].pid);
    }

    e2e::scenario keldra;
    std::map<std::string, launched_daemon> daemons;
};

TEST_F(ColdStart, LauncherThreadsAreCreatedInTableOrder)
{
    ASSERT_NO_FATAL_FAILURE(start_and_wait_for_all_launches());
    pid_t pellan = daemons["pellan"].thread, orvel = daemons["orvel"].thread;
    pid_t dunmar = daemons["dunmar"].thread, tavish = daemons["tavish"].thread;
    // Four distinct threads, none of them the main thread; thread ids grow
    // with the order of creation inside the sandbox's PID namespace.
    ASSERT_GT(pellan, keldra.pid());
    EXPECT_LT(pellan, orvel);
    EXPECT_LT(orvel, dunmar);
    EXPECT_LT(dunmar, tavish);

    int pellan_started = keldra.find_message('E', "Pellan launcher started\n");
    int pellan_search = keldra.find_message('W', "No process pellan found, start new one!\n");
    int orvel_started = keldra.find_message(
        'E', format_text("[P %5ld][T %5ld] Starting orvel-launcher ...\n", long(keldra.pid()),
                         long(orvel)));
    int orvel_launched = keldra.find_message('E', orvel_launched_text());
    int dunmar_search = keldra.find_message('W', "No process dunmar found, start new one!\n");
    int tavish_search = keldra.find_message('W', "No process tavish found, start new one!\n");
    int ready = keldra.find_message('I', launched_text());
    ASSERT_GE(pellan_started, 0);
    ASSERT_GE(orvel_started, 0);
    EXPECT_LT(pellan_started, pellan_search);
    EXPECT_LT(pellan_search, orvel_started);
    EXPECT_LT(orvel_started, orvel_launched);
    // Rows 2 and 3 start only once orvel has been launched.
    EXPECT_LT(orvel_launched, dunmar_search);
    EXPECT_LT(orvel_launched, tavish_search);
    EXPECT_LT(orvel_launched, ready);
    const std::vector<e2e::expected_message> once = {
        {'E', "Pellan launcher started\n"},
        {'W', "No process pellan found, start new one!\n"},
        {'W', "No process dunmar found, start new one!\n"},
        {'W', "No process tavish found, start new one!\n"},
    };
    for (const e2e::expected_message &message : once)
        EXPECT_EQ(keldra.count_messages(message.level, message.text), 1) << message.text;
}

TEST_F(ColdStart, ReadyFileIsCreatedOnceAllFourLauncherThreadsExist)
{
    open_probe probe(keldra_ready);
    std::string error = probe.start();
    ASSERT_EQ(error, "") << "the open probe needs fanotify permission events";
    ASSERT_NO_FATAL_FAILURE(start_and_wait_for_all_launches());
    ASSERT_TRUE(e2e::exists(keldra_ready));
    auto snapshot = probe.snapshot();
    probe.stop();
    ASSERT_TRUE(snapshot.has_value()) << "no open of " << keldra_ready << " was seen";
    EXPECT_EQ(snapshot->opener, keldra.pid());
    const std::vector<pid_t> &tids = snapshot->tids;
    for (const std::string &name : e2e::daemon_names) {
        pid_t thread = daemons[name].thread;
        ASSERT_GT(thread, 0) << name;
        EXPECT_TRUE(std::find(tids.begin(), tids.end(), thread) != tids.end())
            << "the " << name << " launcher thread " << thread << " did not exist yet when "
            << keldra_ready << " was opened";
    }
    // The supervisor logs its readiness after the file exists.
    EXPECT_EQ(keldra.count_messages('I', launched_text()), 1);
}

TEST_F(ColdStart, EachDaemonLeadsItsOwnSessionUnderItsFullPath)
{
    ASSERT_NO_FATAL_FAILURE(start_and_wait_for_all_launches());
    const uint64_t only_sigchld = uint64_t(1) << (SIGCHLD - 1);
    for (const std::string &name : e2e::daemon_names) {
        const e2e::start_record &start = daemons[name].start;
        SCOPED_TRACE(name);
        EXPECT_EQ(start.ppid, keldra.pid());
        EXPECT_EQ(start.sid, start.pid);
        EXPECT_EQ(start.argv0, e2e::daemon_path(name));
        EXPECT_EQ(start.argc, 1);
        EXPECT_EQ(start.sigblk, only_sigchld);
        EXPECT_EQ(start.umask, 0u);
        if (name == "pellan") {
            EXPECT_EQ(start.uid, pellan_uid);
            EXPECT_EQ(start.euid, pellan_uid);
            EXPECT_EQ(start.gid, pellan_gid);
            EXPECT_EQ(start.egid, pellan_gid);
        } else {
            EXPECT_EQ(start.uid, getuid());
            EXPECT_EQ(start.euid, getuid());
            EXPECT_EQ(start.gid, getgid());
            EXPECT_EQ(start.egid, getgid());
        }
        EXPECT_EQ(e2e::daemon_pids(name), std::vector<pid_t>{start.pid});
        EXPECT_TRUE(e2e::daemon_errors(name).empty());
    }
}

TEST_F(ColdStart, PellanRuntimeDirectoryAndSocketsHaveTheirModesAndOwners)
{
    ASSERT_NO_FATAL_FAILURE(start_and_wait_for_all_launches());
    EXPECT_TRUE(e2e::is_directory("/run/pellan"));
    EXPECT_EQ(e2e::file_mode("/run/pellan"), mode_t(0775));
    EXPECT_EQ(e2e::owner_of("/run/pellan"), (e2e::file_owner{pellan_uid, pellan_gid}));
    for (const socket_expectation &socket : pellan_sockets) {
        SCOPED_TRACE(socket.path);
        EXPECT_TRUE(e2e::is_socket(socket.path));
        EXPECT_EQ(e2e::file_mode(socket.path), socket.mode);
        EXPECT_EQ(e2e::owner_of(socket.path), socket.owner);
    }
    EXPECT_EQ(keldra.count_messages('E', "can't change mode (/run/pellan/pellan.socket)\n"), 0);
}

TEST_F(ColdStart, ThreadsAndDaemonsCarryTheirSmackLabels)
{
    ASSERT_NO_FATAL_FAILURE(start_and_wait_for_all_launches());
    const std::map<std::string, std::string> thread_label = {
        {"pellan", "System"}, {"orvel", "System::Privileged"}, {"dunmar", "System"}};
    std::map<pid_t, std::vector<std::string>> labels_by_thread;
    for (const e2e::label_record &record : e2e::label_records())
        if (record.kind == "label" && record.pid == keldra.pid())
            labels_by_thread[record.tid].push_back(record.label);

    std::map<pid_t, std::vector<std::string>> expected;
    for (const auto &[name, label] : thread_label)
        expected[daemons[name].thread].push_back(label);
    EXPECT_EQ(labels_by_thread, expected)
        << "threads: pellan " << daemons["pellan"].thread << ", orvel " << daemons["orvel"].thread
        << ", dunmar " << daemons["dunmar"].thread << ", tavish " << daemons["tavish"].thread;
    EXPECT_EQ(labels_by_thread.count(daemons["tavish"].thread), 0u);

    for (const auto &[name, label] : thread_label)
        EXPECT_EQ(e2e::fork_label(daemons[name].pid), label) << name;
    // tavish runs with the label of the supervisor process itself.
    EXPECT_EQ(e2e::fork_label(daemons["tavish"].pid), "_");
}

TEST_F(ColdStart, ReadyFilesAndLockFileMarkTheStart)
{
    ASSERT_NO_FATAL_FAILURE(start_and_wait_for_all_launches());
    for (const char *path : {keldra_ready, "/run/pellan.ready", "/run/orvel.ready",
                             "/run/tavish.ready", "/run/dunmar.pid"})
        EXPECT_TRUE(e2e::wait_for_file(path)) << path;
    EXPECT_EQ(e2e::read_file(lock_file), std::to_string(keldra.pid()) + "\n");
    EXPECT_EQ(e2e::file_mode(lock_file), mode_t(0600));

    int index = keldra.wait_for_platform_message(4, launched_text());
    ASSERT_GE(index, 0);
    e2e::platform_record record = keldra.platform_messages()[size_t(index)];
    EXPECT_EQ(record.tag, "KELDRA");
    EXPECT_EQ(record.file, "keldra-main.cc");
    EXPECT_EQ(record.function, "main");
    EXPECT_NE(record.line, 0);
    EXPECT_TRUE(keldra.is_running());
}

} // namespace
