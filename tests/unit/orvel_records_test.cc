// The application-policy launcher's helpers: the walk over the records of the
// directory watches, the inotify step with its restore decision, the epoll and
// inotify helpers, the reaping of the daemon, the init routine and the finish.
//
// Cases that touch the system's fixed paths (/run, /opt/dbspace, /var/pellan,
// /tmp, /usr/bin) run only inside keldra-sandbox (KELDRA_SANDBOX=1); the others
// run anywhere.
#include "orvel-launcher.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

using message = std::pair<char, std::string>;

constexpr int32_t run_wd = 1;
constexpr int32_t dbspace_wd = 2;
constexpr int32_t pellan_wd = 3;

const char *const this_file = "orvel-launcher.cc";

bool in_sandbox()
{
    const char *v = getenv("KELDRA_SANDBOX");
    return v != nullptr && strcmp(v, "1") == 0;
}

#define REQUIRE_SANDBOX()                                                   \
    do {                                                                    \
        if (!in_sandbox())                                                  \
            GTEST_SKIP() << "touches the system's fixed paths: sandbox only"; \
    } while (0)

// The messages of the launcher's own source file, as (level, text) pairs;
// every message must come from that file.
std::vector<message> launcher_messages(const std::vector<log_message> &log)
{
    std::vector<message> out;
    for (const auto &m : log) {
        EXPECT_EQ(m.file, this_file) << dump_log(log);
        EXPECT_GT(m.line, 0);
        out.emplace_back(m.level, m.text);
    }
    return out;
}

// One inotify record: header, then len bytes holding name and NUL padding.
std::vector<uint8_t> record(int32_t wd, uint32_t mask, const std::string &name, uint32_t len)
{
    std::vector<uint8_t> out(sizeof(struct inotify_event) + len, 0);
    uint32_t cookie = 0;
    memcpy(out.data() + offsetof(struct inotify_event, wd), &wd, sizeof wd);
    memcpy(out.data() + offsetof(struct inotify_event, mask), &mask, sizeof mask);
    memcpy(out.data() + offsetof(struct inotify_event, cookie), &cookie, sizeof cookie);
    memcpy(out.data() + offsetof(struct inotify_event, len), &len, sizeof len);
    memcpy(out.data() + sizeof(struct inotify_event), name.data(), std::min<size_t>(name.size(), len));
    return out;
}

// A record as the kernel writes it: the name NUL-padded to a multiple of 16.
std::vector<uint8_t> named_record(int32_t wd, uint32_t mask, const std::string &name)
{
    uint32_t len = name.empty() ? 0 : (uint32_t)((name.size() + 1 + 15) / 16 * 16);
    return record(wd, mask, name, len);
}

std::vector<uint8_t> join(std::initializer_list<std::vector<uint8_t>> records)
{
    std::vector<uint8_t> out;
    for (const auto &r : records)
        out.insert(out.end(), r.begin(), r.end());
    return out;
}

struct walk_result {
    bool decided;
    std::vector<message> messages;
};

// Holds bytes so that they end exactly where an inaccessible page begins:
// any read past the end of the read buffer faults.
class guarded_bytes {
public:
    guarded_bytes(const uint8_t *data, size_t length)
    {
        const size_t page = (size_t)sysconf(_SC_PAGESIZE);
        const size_t data_pages = length / page + 1;
        size_ = (data_pages + 1) * page;
        void *map = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        EXPECT_NE(map, MAP_FAILED);
        base_ = static_cast<uint8_t *>(map);
        EXPECT_EQ(mprotect(base_ + data_pages * page, page, PROT_NONE), 0);
        bytes_ = base_ + data_pages * page - length;
        if (length > 0)
            memcpy(bytes_, data, length);
    }
    ~guarded_bytes() { munmap(base_, size_); }
    guarded_bytes(const guarded_bytes &) = delete;
    guarded_bytes &operator=(const guarded_bytes &) = delete;

    const uint8_t *bytes() const { return bytes_; }

private:
    uint8_t *base_ = nullptr;
    uint8_t *bytes_ = nullptr;
    size_t size_ = 0;
};

walk_result walk(const std::vector<uint8_t> &buffer, size_t length)
{
    guarded_bytes guarded(buffer.data(), length);
    bool decided = false;
    auto log = capture_log([&] {
        decided = walk_inotify_records(guarded.bytes(), length, run_wd, dbspace_wd, pellan_wd);
    });
    return {decided, launcher_messages(log)};
}

walk_result walk(const std::vector<uint8_t> &buffer) { return walk(buffer, buffer.size()); }

std::string dump(const std::vector<message> &messages)
{
    std::string out;
    for (const auto &m : messages)
        out += std::string(1, m.first) + " " + m.second;
    return out;
}

bool exists(const char *path) { return access(path, F_OK) == 0; }

void touch(const char *path)
{
    int fd = open(path, O_RDWR | O_CREAT, 0644);
    ASSERT_GE(fd, 0) << path << ": " << strerror(errno);
    close(fd);
}

void write_file(const char *path, const std::string &text)
{
    std::ofstream out(path);
    out << text;
    ASSERT_TRUE(out.good()) << path;
}

std::string read_file(const char *path)
{
    std::ifstream in(path);
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
}

std::string errno_text(int e)
{
    char buf[256];
    return strerror_r(e, buf, sizeof buf);
}

// The label of the reinstall marker, or "" when it carries none.
std::string smack_label_of(const char *path)
{
    char value[64];
    ssize_t n = getxattr(path, "security.SMACK64", value, sizeof value);
    return n > 0 ? std::string(value, (size_t)n) : std::string();
}

class OrvelTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        socket_file_exist = false;
        orvel_db_recover_file = false;
        pellan_db_recover_file = false;
        // The supervisor runs with a cleared umask.
        old_umask = umask(0);
    }
    void TearDown() override { umask(old_umask); }

    mode_t old_umask = 0;
};

// ---------------------------------------------------------------------------
// The record walk on crafted buffers that touch no fixed path.

TEST_F(OrvelTest, RecordFromUnknownWatchIsReportedAndSkipped)
{
    auto r = walk(named_record(99, IN_CREATE, "orvel.socket"));
    EXPECT_FALSE(r.decided);
    EXPECT_EQ(r.messages, (std::vector<message>{
                              {'W', "inotify watch fd is different(event fd(99) != watch fd(1))\n"}}));
    EXPECT_FALSE(socket_file_exist);
    EXPECT_FALSE(orvel_db_recover_file);
    EXPECT_FALSE(pellan_db_recover_file);
}

TEST_F(OrvelTest, RecordWithoutNameIsSkippedWhicheverWatchItCameFrom)
{
    for (int32_t wd : {run_wd, dbspace_wd, pellan_wd}) {
        auto r = walk(record(wd, IN_IGNORED, "", 0));
        EXPECT_FALSE(r.decided);
        EXPECT_EQ(r.messages, (std::vector<message>{
                                  {'I', "inotify event is received for /run/. skip monitoring path...\n"}}))
            << "wd " << wd;
    }
}

TEST_F(OrvelTest, TruncatedHeaderEndsTheWalk)
{
    auto buffer = named_record(run_wd, IN_CREATE, "orvel.socket");
    auto r = walk(buffer, 10);
    EXPECT_FALSE(r.decided);
    EXPECT_EQ(r.messages, (std::vector<message>{{'E', "wrong address...(len : 10,  size : 16)\n"}}));
    EXPECT_FALSE(socket_file_exist);
}

TEST_F(OrvelTest, NameRunningPastTheReadEndsTheWalkUnprocessed)
{
    // Second record claims 32 name bytes, only 8 of which were read. Its name
    // would match, but it must be neither looked at nor acted upon.
    auto full = join({record(99, IN_CREATE, "", 0), record(run_wd, IN_CREATE, "orvel.socket", 32)});
    size_t length = 16 + 16 + 8;
    std::vector<uint8_t> buffer(full.begin(), full.begin() + (long)length);
    auto r = walk(buffer);
    EXPECT_FALSE(r.decided);
    EXPECT_EQ(r.messages, (std::vector<message>{
                              {'W', "inotify watch fd is different(event fd(99) != watch fd(1))\n"},
                              {'E', "wrong address...(len : 40,  size : 16)\n"}}));
    EXPECT_FALSE(socket_file_exist);
}

TEST_F(OrvelTest, HugeNameLengthDoesNotWrapTheOffset)
{
    std::vector<uint8_t> buffer = record(dbspace_wd, IN_CREATE, "", 0);
    uint32_t len = 0xfffffff0u;
    memcpy(buffer.data() + offsetof(struct inotify_event, len), &len, sizeof len);
    auto h = walk(buffer);
    EXPECT_FALSE(h.decided);
    EXPECT_EQ(h.messages, (std::vector<message>{{'E', "wrong address...(len : 16,  size : 16)\n"}}));
}

TEST_F(OrvelTest, SeveralRecordsOfOneReadAreWalkedInOrder)
{
    auto buffer = join({named_record(7, IN_CREATE, "a"), record(pellan_wd, IN_IGNORED, "", 0),
                        named_record(-4, IN_DELETE, "some-longer-name-here")});
    auto r = walk(buffer);
    EXPECT_FALSE(r.decided);
    EXPECT_EQ(r.messages,
              (std::vector<message>{
                  {'W', "inotify watch fd is different(event fd(7) != watch fd(1))\n"},
                  {'I', "inotify event is received for /run/. skip monitoring path...\n"},
                  {'W', "inotify watch fd is different(event fd(-4) != watch fd(1))\n"}}));
}

TEST_F(OrvelTest, EmptyReadHoldsNoRecord)
{
    std::vector<uint8_t> buffer(16, 0);
    auto r = walk(buffer, 0);
    EXPECT_FALSE(r.decided);
    EXPECT_TRUE(r.messages.empty());
}

// Every prefix of a read of three records: the whole records are walked, a
// partial one ends the walk with "wrong address".
TEST_F(OrvelTest, EveryTruncationOfAReadIsCaught)
{
    auto a = named_record(11, IN_CREATE, "first");
    auto b = record(pellan_wd, IN_IGNORED, "", 0);
    auto c = named_record(12, IN_CREATE, "third-record-name");
    auto buffer = join({a, b, c});
    const message warn_a{'W', "inotify watch fd is different(event fd(11) != watch fd(1))\n"};
    const message skip_b{'I', "inotify event is received for /run/. skip monitoring path...\n"};
    const message warn_c{'W', "inotify watch fd is different(event fd(12) != watch fd(1))\n"};
    for (size_t length = 1; length <= buffer.size(); ++length) {
        std::vector<message> expected;
        if (length >= a.size())
            expected.push_back(warn_a);
        if (length >= a.size() + b.size())
            expected.push_back(skip_b);
        if (length == buffer.size())
            expected.push_back(warn_c);
        else if (length != a.size() && length != a.size() + b.size())
            expected.push_back({'E', "wrong address...(len : " + std::to_string(length) +
                                         ",  size : 16)\n"});
        std::vector<uint8_t> prefix(buffer.begin(), buffer.begin() + (long)length);
        auto r = walk(prefix);
        EXPECT_FALSE(r.decided);
        EXPECT_EQ(r.messages, expected) << "length " << length;
    }
}

// ---------------------------------------------------------------------------
// The record walk against the marker files (sandbox only).

TEST_F(OrvelTest, SocketNameSetsTheSocketFlag)
{
    REQUIRE_SANDBOX();
    auto r = walk(named_record(run_wd, IN_CREATE, "orvel.socket"));
    EXPECT_FALSE(r.decided);
    EXPECT_EQ(r.messages, (std::vector<message>{{'I', "inotify event is received for /run/orvel.socket\n"}}));
    EXPECT_TRUE(socket_file_exist);
    EXPECT_FALSE(orvel_db_recover_file);
    EXPECT_FALSE(pellan_db_recover_file);
    EXPECT_FALSE(exists("/opt/dbspace/pkgreinstall"));
}

// The reinstall marker is created and labelled "_"; where the file system
// refuses the label, the failure is the one extra message.
void expect_marked_for_reinstall(const std::vector<message> &messages, size_t index)
{
    ASSERT_TRUE(exists("/opt/dbspace/pkgreinstall"));
    struct stat st;
    ASSERT_EQ(stat("/opt/dbspace/pkgreinstall", &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    std::string label = smack_label_of("/opt/dbspace/pkgreinstall");
    if (label.empty()) {
        ASSERT_GT(messages.size(), index);
        EXPECT_EQ(messages[index].first, 'E');
        EXPECT_EQ(messages[index].second.rfind("failed to setxattr /opt/dbspace/pkgreinstall...(errno : ", 0),
                  0u);
    } else {
        EXPECT_EQ(label, "_");
        EXPECT_EQ(messages.size(), index);
    }
}

TEST_F(OrvelTest, OrvelRecoveryNameMarksForReinstall)
{
    REQUIRE_SANDBOX();
    auto r = walk(named_record(dbspace_wd, IN_CREATE, ".orvel.db-recovered"));
    EXPECT_FALSE(r.decided);
    ASSERT_GE(r.messages.size(), 1u);
    EXPECT_EQ(r.messages[0], (message{'I', "inotify event is received for /opt/dbspace/.orvel.db-recovered\n"}));
    expect_marked_for_reinstall(r.messages, 1);
    EXPECT_TRUE(orvel_db_recover_file);
    // The reinstall marker now exists, which stands for both recoveries.
    EXPECT_TRUE(pellan_db_recover_file);
    EXPECT_FALSE(socket_file_exist);
}

TEST_F(OrvelTest, PellanRecoveryNameFromTheRunWatchCountsAsTheCheckersMarker)
{
    REQUIRE_SANDBOX();
    auto r = walk(named_record(run_wd, IN_CREATE, "db-recovered"));
    EXPECT_FALSE(r.decided);
    ASSERT_GE(r.messages.size(), 1u);
    EXPECT_EQ(r.messages[0], (message{'I', "inotify event is received for /var/pellan/db-recovered\n"}));
    expect_marked_for_reinstall(r.messages, 1);
    EXPECT_TRUE(pellan_db_recover_file);
    EXPECT_TRUE(orvel_db_recover_file);
    EXPECT_FALSE(socket_file_exist);
}

TEST_F(OrvelTest, NamesAreOnlyTestedForCreatedEntries)
{
    REQUIRE_SANDBOX();
    auto r = walk(join({named_record(run_wd, IN_DELETE, "orvel.socket"),
                        named_record(dbspace_wd, IN_MOVED_TO, ".orvel.db-recovered")}));
    EXPECT_FALSE(r.decided);
    EXPECT_TRUE(r.messages.empty());
    EXPECT_FALSE(socket_file_exist);
    EXPECT_FALSE(orvel_db_recover_file);
    EXPECT_FALSE(exists("/opt/dbspace/pkgreinstall"));
}

TEST_F(OrvelTest, NamesCompareOverTheRecordLengthOnly)
{
    REQUIRE_SANDBOX();
    // "orvel" over 5 bytes agrees with the first 5 bytes of "orvel.socket";
    // "orvel.sockets" and "db-recovered.tmp" do not match.
    auto r = walk(join({record(run_wd, IN_CREATE, "orvel", 5), named_record(run_wd, IN_CREATE, "orvel.sockets"),
                        named_record(pellan_wd, IN_CREATE, "db-recovered.tmp")}));
    EXPECT_FALSE(r.decided);
    EXPECT_EQ(r.messages, (std::vector<message>{{'I', "inotify event is received for /run/orvel\n"}}));
    EXPECT_TRUE(socket_file_exist);
    EXPECT_FALSE(pellan_db_recover_file);
    EXPECT_FALSE(exists("/opt/dbspace/pkgreinstall"));
}

TEST_F(OrvelTest, CheckersMarkerFileIsReportedOnEveryRecord)
{
    REQUIRE_SANDBOX();
    touch("/var/pellan/db-recovered");
    auto r = walk(join({named_record(run_wd, IN_CREATE, "x"), named_record(pellan_wd, IN_DELETE, "y")}));
    EXPECT_FALSE(r.decided);
    size_t reports = 0;
    for (const auto &m : r.messages)
        reports += m == message{'I', "inotify event is received for /var/pellan/db-recovered\n"};
    EXPECT_EQ(reports, 2u);
    EXPECT_TRUE(pellan_db_recover_file);
    EXPECT_TRUE(orvel_db_recover_file);
    EXPECT_TRUE(exists("/opt/dbspace/pkgreinstall"));
}

TEST_F(OrvelTest, RecoveryBeforeTheSocketIsRememberedUntilSocketAndAgentShowUp)
{
    REQUIRE_SANDBOX();
    auto first = walk(named_record(dbspace_wd, IN_CREATE, ".orvel.db-recovered"));
    EXPECT_FALSE(first.decided);
    EXPECT_TRUE(orvel_db_recover_file);

    // The socket alone is not enough: the agent's pid file is missing.
    auto second = walk(named_record(run_wd, IN_CREATE, "orvel.socket"));
    EXPECT_FALSE(second.decided);
    EXPECT_TRUE(socket_file_exist);

    touch("/run/dunmar.pid");
    auto third = walk(named_record(run_wd, IN_CREATE, "dunmar.pid"));
    EXPECT_TRUE(third.decided);
    EXPECT_TRUE(third.messages.empty());
}

TEST_F(OrvelTest, RecordsAfterTheRestoreDecisionAreDropped)
{
    REQUIRE_SANDBOX();
    touch("/run/orvel.socket");
    touch("/run/dunmar.pid");
    touch("/opt/dbspace/pkgreinstall");
    auto r = walk(join({named_record(run_wd, IN_CREATE, "other"), named_record(99, IN_CREATE, "late"),
                        record(run_wd, IN_IGNORED, "", 0)}));
    EXPECT_TRUE(r.decided);
    EXPECT_TRUE(r.messages.empty());
    EXPECT_TRUE(socket_file_exist);
    EXPECT_TRUE(orvel_db_recover_file);
    EXPECT_TRUE(pellan_db_recover_file);
}

TEST_F(OrvelTest, NoDecisionWithoutTheSocket)
{
    REQUIRE_SANDBOX();
    touch("/run/dunmar.pid");
    touch("/opt/dbspace/pkgreinstall");
    auto r = walk(named_record(pellan_wd, IN_CREATE, "anything"));
    EXPECT_FALSE(r.decided);
    EXPECT_TRUE(orvel_db_recover_file);
    EXPECT_TRUE(pellan_db_recover_file);
    EXPECT_FALSE(socket_file_exist);
}

// Random reads, built from records of every kind and cut anywhere: the walk
// stays inside the bytes read (they end at an inaccessible page), reports
// only the known messages, and "wrong address" only as its last word.
TEST_F(OrvelTest, RandomReadsStayInsideTheBytesRead)
{
    REQUIRE_SANDBOX();
    std::mt19937 rng(20240611);
    const std::vector<std::string> names = {"orvel.socket", ".orvel.db-recovered", "db-recovered", "orvel",
                                            "db", "x", "orvel.socket.old", ""};
    const std::regex known(
        R"((inotify watch fd is different\(event fd\(-?\d+\) != watch fd\(1\)\)|)"
        R"(inotify event is received for /run/\. skip monitoring path\.\.\.|)"
        R"(inotify event is received for (/run|/opt/dbspace|/var/pellan)/[^\n]*|)"
        R"(wrong address\.\.\.\(len : \d+,  size : 16\))\n)");
    for (int round = 0; round < 400; ++round) {
        std::vector<uint8_t> buffer;
        const int count = (int)(rng() % 6);
        for (int i = 0; i < count; ++i) {
            const int32_t wds[] = {run_wd, dbspace_wd, pellan_wd, 99, (int32_t)rng()};
            const int32_t wd = wds[rng() % 5];
            const uint32_t mask = rng() % 2 ? IN_CREATE : (uint32_t)rng();
            const std::string &name = names[rng() % names.size()];
            uint32_t len;
            switch (rng() % 4) {
            case 0: len = 0; break;
            case 1: len = (uint32_t)name.size(); break;
            case 2: len = (uint32_t)((name.size() + 16) / 16 * 16); break;
            default: len = (uint32_t)rng(); break;
            }
            auto r = record(wd, mask, name, std::min<uint32_t>(len, 64));
            memcpy(r.data() + offsetof(struct inotify_event, len), &len, sizeof len);
            buffer.insert(buffer.end(), r.begin(), r.end());
        }
        size_t length = buffer.empty() ? 0 : rng() % (buffer.size() + 1);
        if (rng() % 2)
            length = buffer.size();
        auto r = walk(buffer, length);
        EXPECT_FALSE(r.decided) << "round " << round;  // no socket, no agent pid file
        for (size_t i = 0; i < r.messages.size(); ++i) {
            EXPECT_TRUE(std::regex_match(r.messages[i].second, known)) << r.messages[i].second;
            if (r.messages[i].second.rfind("wrong address", 0) == 0) {
                EXPECT_EQ(i + 1, r.messages.size()) << "round " << round;
            }
        }
        if (HasFailure())
            break;
    }
}

// ---------------------------------------------------------------------------
// The inotify step on a real inotify instance (sandbox only).

struct watched_context {
    orvel_context context;

    watched_context()
    {
        context.inotify_fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
        context.run_wd = inotify_add_watch(context.inotify_fd, "/run", IN_CREATE);
        context.dbspace_wd = inotify_add_watch(context.inotify_fd, "/opt/dbspace", IN_CREATE);
        context.pellan_wd = inotify_add_watch(context.inotify_fd, "/var/pellan", IN_CREATE);
    }
    ~watched_context() { close(context.inotify_fd); }

    // The watch descriptors whose removal notice is queued, without blocking.
    std::set<int32_t> removed_watches()
    {
        std::set<int32_t> out;
        alignas(struct inotify_event) uint8_t buffer[4096];
        for (;;) {
            ssize_t n = read(context.inotify_fd, buffer, sizeof buffer);
            if (n <= 0)
                return out;
            for (ssize_t off = 0; off < n;) {
                struct inotify_event ev;
                memcpy(&ev, buffer + off, sizeof ev);
                if (ev.mask & IN_IGNORED)
                    out.insert(ev.wd);
                off += (ssize_t)(sizeof ev + ev.len);
            }
        }
    }
};

TEST_F(OrvelTest, InotifyStepReportsAFailedRead)
{
    orvel_context context;
    context.inotify_fd = -1;
    context.run_wd = run_wd;
    context.dbspace_wd = dbspace_wd;
    context.pellan_wd = pellan_wd;
    auto messages = launcher_messages(capture_log([&] { handle_inotify_event(&context); }));
    EXPECT_EQ(messages, (std::vector<message>{
                            {'E', "Can not read inotify event data(read length : -1)...(errno : " +
                                      errno_text(EBADF) + ")\n"}}));
}

TEST_F(OrvelTest, RunningRestoreSkipsTheScriptButDisarmsTheRecovery)
{
    REQUIRE_SANDBOX();
    touch("/run/restore_zelto_db_sh.running");
    touch("/run/orvel.socket");
    touch("/run/dunmar.pid");
    watched_context w;
    ASSERT_GE(w.context.pellan_wd, 0);
    touch("/opt/dbspace/.orvel.db-recovered");

    auto messages = launcher_messages(capture_log([&] { handle_inotify_event(&w.context); }));
    ASSERT_GE(messages.size(), 1u);
    EXPECT_EQ(messages[0], (message{'I', "inotify event is received for /opt/dbspace/.orvel.db-recovered\n"}));
    expect_marked_for_reinstall(messages, 1);
    EXPECT_FALSE(socket_file_exist);
    EXPECT_FALSE(orvel_db_recover_file);
    EXPECT_FALSE(pellan_db_recover_file);
    EXPECT_EQ(w.removed_watches(), (std::set<int32_t>{w.context.run_wd, w.context.dbspace_wd, w.context.pellan_wd}));
    EXPECT_FALSE(exists("/tmp/simd/restore.runs"));
}

TEST_F(OrvelTest, RestoreWithoutReinstallMarkerIsSkipped)
{
    REQUIRE_SANDBOX();
    touch("/run/orvel.socket");
    touch("/run/dunmar.pid");
    watched_context w;
    ASSERT_GE(w.context.pellan_wd, 0);
    orvel_db_recover_file = true;  // learnt from an earlier read
    touch("/run/trigger");

    auto messages = launcher_messages(capture_log([&] { handle_inotify_event(&w.context); }));
    EXPECT_EQ(messages, (std::vector<message>{
                            {'I', "request to restore zelto database...\n"},
                            {'E', "can not find pkgreinstall...skip restoring zelto database...(errno : " +
                                      errno_text(ENOENT) + ")\n"}}));
    EXPECT_FALSE(orvel_db_recover_file);
    EXPECT_EQ(w.removed_watches(), (std::set<int32_t>{w.context.run_wd, w.context.dbspace_wd, w.context.pellan_wd}));
}

TEST_F(OrvelTest, FailedWatchRemovalsAreReported)
{
    REQUIRE_SANDBOX();
    touch("/run/restore_zelto_db_sh.running");
    touch("/run/orvel.socket");
    touch("/run/dunmar.pid");
    touch("/opt/dbspace/pkgreinstall");
    watched_context w;
    ASSERT_GE(w.context.pellan_wd, 0);
    // The dbspace watch is already gone: its removal fails.
    ASSERT_EQ(inotify_rm_watch(w.context.inotify_fd, w.context.dbspace_wd), 0);
    touch("/run/trigger");

    // The removal notice of the dbspace watch comes first in the read.
    auto messages = launcher_messages(capture_log([&] { handle_inotify_event(&w.context); }));
    EXPECT_EQ(messages, (std::vector<message>{
                            {'I', "inotify event is received for /run/. skip monitoring path...\n"},
                            {'E', "failed to remove inotify watch instance...(errno : " + errno_text(EINVAL) +
                                      ")\n"},
                            {'E', "failed to remove inotify watch...\n"}}));
}

// Runs the inotify step with everything in place for a restore: one record
// of a new file in /run reaches the decision.
struct restore_outcome {
    std::vector<message> messages;
    std::set<int32_t> watches;          // the three watches of the step
    std::set<int32_t> removed_watches;  // those whose removal was notified
};

restore_outcome run_restore()
{
    touch("/run/orvel.socket");
    touch("/run/dunmar.pid");
    touch("/opt/dbspace/pkgreinstall");
    watched_context w;
    EXPECT_GE(w.context.pellan_wd, 0);
    touch("/run/trigger");
    restore_outcome out;
    out.messages = launcher_messages(capture_log([&] { handle_inotify_event(&w.context); }));
    out.watches = {w.context.run_wd, w.context.dbspace_wd, w.context.pellan_wd};
    out.removed_watches = w.removed_watches();
    return out;
}

// The restore script's own record: pid, ppid and session of its one run.
struct script_run {
    long pid = -1, ppid = -1, sid = -1;
};

std::vector<script_run> restore_runs()
{
    std::vector<script_run> out;
    std::istringstream in(read_file("/tmp/simd/restore.runs"));
    std::string line;
    static const std::regex fields(R"(pid=(\d+) ppid=(\d+) sid=(\d+) )");
    while (std::getline(in, line)) {
        std::smatch m;
        if (std::regex_search(line, m, fields))
            out.push_back({std::stol(m[1]), std::stol(m[2]), std::stol(m[3])});
    }
    return out;
}

void expect_timing_lines(const std::vector<message> &tail, const std::string &restore_seconds)
{
    ASSERT_EQ(tail.size(), 3u);
    EXPECT_EQ(tail[0], (message{'E', "finished zelto database restore time = " + restore_seconds + "\n"}));
    EXPECT_EQ(tail[1], (message{'E', "starting pkgreinstall sync...\n"}));
    EXPECT_EQ(tail[2].first, 'E');
    EXPECT_TRUE(std::regex_match(tail[2].second, std::regex(R"(finished pkgreinstall sync time = ( {2}\d{3}|\d{4,})\n)")))
        << tail[2].second;
}

TEST_F(OrvelTest, RestoreRunsTheScriptInItsOwnSessionAndTimesIt)
{
    REQUIRE_SANDBOX();
    ASSERT_TRUE(exists("/usr/bin/restore_zelto_db.sh")) << "the sandbox installs the simulated script";
    write_file("/tmp/simd/restore.conf", "sleep_ms=2700\n");
    auto outcome = run_restore();
    const auto &messages = outcome.messages;

    auto runs = restore_runs();
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(runs[0].ppid, (long)getpid());
    EXPECT_EQ(runs[0].sid, runs[0].pid);
    const std::string pid = std::to_string(runs[0].pid);
    ASSERT_EQ(messages.size(), 8u) << dump(messages);
    EXPECT_EQ(std::vector<message>(messages.begin(), messages.begin() + 5),
              (std::vector<message>{
                  {'I', "request to restore zelto database...\n"},
                  {'E', "find pkgreinstall. starting to restore zelto database...\n"},
                  {'I', "Script (/usr/bin/restore_zelto_db.sh)(pid:" + pid + ") finished - success\n"},
                  {'I', "Return value : 0\n"},
                  {'I', "Script(" + pid + ") is finished\n"}}));
    // 2.7 s are whole seconds 2, printed "%5.3ld".
    expect_timing_lines(std::vector<message>(messages.begin() + 5, messages.end()), "  002");
    EXPECT_FALSE(socket_file_exist);
    EXPECT_FALSE(orvel_db_recover_file);
    EXPECT_FALSE(pellan_db_recover_file);
    EXPECT_EQ(outcome.removed_watches, outcome.watches);
}

TEST_F(OrvelTest, RestoreScriptKilledBySignalIsReported)
{
    REQUIRE_SANDBOX();
    ASSERT_TRUE(exists("/usr/bin/restore_zelto_db.sh"));
    write_file("/tmp/simd/restore.conf", "kill_signal=9\n");
    auto outcome = run_restore();
    const auto &messages = outcome.messages;
    auto runs = restore_runs();
    ASSERT_EQ(runs.size(), 1u);
    const std::string pid = std::to_string(runs[0].pid);
    ASSERT_EQ(messages.size(), 8u) << dump(messages);
    EXPECT_EQ(std::vector<message>(messages.begin() + 2, messages.begin() + 5),
              (std::vector<message>{{'I', "Script process terminate - fail\n"},
                                    {'I', "Script signal num : 9\n"},
                                    {'I', "Script(" + pid + ") is finished\n"}}));
    expect_timing_lines(std::vector<message>(messages.begin() + 5, messages.end()), "  000");
}

TEST_F(OrvelTest, RestoreScriptThatCannotBeExecutedStillEndsWithStatusZero)
{
    REQUIRE_SANDBOX();
    unlink("/usr/bin/restore_zelto_db.sh");  // the sandbox's overlay copy
    ASSERT_FALSE(exists("/usr/bin/restore_zelto_db.sh"));
    auto outcome = run_restore();
    const auto &messages = outcome.messages;
    ASSERT_EQ(messages.size(), 9u) << dump(messages);
    // The child's own failure line comes first: the parent is blocked in
    // waitpid until the child has exited.
    EXPECT_EQ(messages[2], (message{'E', "Cann't execl script: " + std::to_string(ENOENT) + "\n"}));
    std::smatch m;
    ASSERT_TRUE(std::regex_match(messages[3].second, m,
                                 std::regex(R"(Script \(/usr/bin/restore_zelto_db.sh\)\(pid:(\d+)\) finished - success\n)")))
        << messages[3].second;
    EXPECT_EQ(messages[4], (message{'I', "Return value : 0\n"}));
    EXPECT_EQ(messages[5], (message{'I', "Script(" + m[1].str() + ") is finished\n"}));
}

// ---------------------------------------------------------------------------
// epoll and inotify helpers.

TEST_F(OrvelTest, SetEpollEventRefusesANegativeEpollDescriptor)
{
    int ret = 0;
    auto messages = launcher_messages(capture_log([&] { ret = set_epoll_event(-1, 0, EPOLLIN, EPOLL_CTL_ADD); }));
    EXPECT_EQ(ret, -1);
    EXPECT_EQ(messages, (std::vector<message>{{'E', "invalid epoll fd...\n"}}));
}

TEST_F(OrvelTest, SetEpollEventCarriesTheDescriptorInTheEventData)
{
    int epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    int ret = -5;
    auto messages = launcher_messages(
        capture_log([&] { ret = set_epoll_event(epoll_fd, pipe_fds[0], EPOLLIN, EPOLL_CTL_ADD); }));
    EXPECT_EQ(ret, 0);
    EXPECT_TRUE(messages.empty());
    ASSERT_EQ(write(pipe_fds[1], "x", 1), 1);
    struct epoll_event event = {};
    ASSERT_EQ(epoll_wait(epoll_fd, &event, 1, 5000), 1);
    EXPECT_EQ(event.data.fd, pipe_fds[0]);
    EXPECT_TRUE(event.events & EPOLLIN);

    // A second registration of the same descriptor fails in epoll_ctl.
    messages = launcher_messages(
        capture_log([&] { ret = set_epoll_event(epoll_fd, pipe_fds[0], EPOLLIN, EPOLL_CTL_ADD); }));
    EXPECT_EQ(ret, -1);
    EXPECT_EQ(messages, (std::vector<message>{
                            {'E', "failed to set epoll event(add)...(errno : " + errno_text(EEXIST) + ")\n"}}));
    close(pipe_fds[0]);
    close(pipe_fds[1]);
    close(epoll_fd);
}

TEST_F(OrvelTest, SetEpollEventReportsABadDescriptor)
{
    int epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    // A descriptor number far above any in use (the capture file takes the
    // lowest free one).
    int fd = 1000;
    ASSERT_EQ(fcntl(fd, F_GETFD), -1);
    int ret = 0;
    auto messages =
        launcher_messages(capture_log([&] { ret = set_epoll_event(epoll_fd, fd, EPOLLIN, EPOLL_CTL_ADD); }));
    EXPECT_EQ(ret, -1);
    EXPECT_EQ(messages, (std::vector<message>{
                            {'E', "failed to set epoll event(add)...(errno : " + errno_text(EBADF) + ")\n"}}));
    close(epoll_fd);
}

TEST_F(OrvelTest, AddAndRemoveInotifyWatch)
{
    char dir[] = "/tmp/orvel-watch-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    int inotify_fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    int wd = -5;
    auto messages = launcher_messages(capture_log([&] { wd = add_inotify_watch(inotify_fd, dir, IN_CREATE); }));
    ASSERT_GE(wd, 1);
    EXPECT_EQ(messages, (std::vector<message>{
                            {'E', std::string("inotify watch path: ") + dir + " fd: " + std::to_string(wd) +
                                      " is created...\n"}}));

    int ret = -5;
    messages = launcher_messages(capture_log([&] { ret = remove_inotify_watch(inotify_fd, wd); }));
    EXPECT_EQ(ret, 0);
    EXPECT_TRUE(messages.empty());

    messages = launcher_messages(capture_log([&] { ret = remove_inotify_watch(inotify_fd, wd); }));
    EXPECT_EQ(ret, -1);
    EXPECT_EQ(messages, (std::vector<message>{
                            {'E', "failed to remove inotify watch instance...(errno : " + errno_text(EINVAL) +
                                      ")\n"}}));
    close(inotify_fd);
    rmdir(dir);
}

TEST_F(OrvelTest, AddInotifyWatchReportsAMissingPath)
{
    int inotify_fd = inotify_init1(IN_CLOEXEC);
    int wd = 0;
    auto messages = launcher_messages(
        capture_log([&] { wd = add_inotify_watch(inotify_fd, "/nonexistent-orvel-dir/x", IN_CREATE); }));
    EXPECT_EQ(wd, -1);
    EXPECT_EQ(messages, (std::vector<message>{
                            {'E', "failed to add inotify watch instance...(errno : " + errno_text(ENOENT) + ")\n"}}));
    close(inotify_fd);
}

// ---------------------------------------------------------------------------
// Reaping the daemon (sandbox only: it withdraws /run/orvel.ready).

pid_t child_exiting_with(int code)
{
    pid_t pid = fork();
    if (pid == 0)
        _exit(code);
    return pid;
}

pid_t child_killed_by(int sig)
{
    pid_t pid = fork();
    if (pid == 0) {
        struct rlimit no_core = {0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        signal(sig, SIG_DFL);
        raise(sig);
        _exit(99);
    }
    return pid;
}

TEST_F(OrvelTest, WaitpidOrvelAfterAnExit)
{
    REQUIRE_SANDBOX();
    touch("/run/orvel.ready");
    pid_t pid = child_exiting_with(0);
    ASSERT_GT(pid, 0);
    const std::string p = std::to_string(pid);
    auto messages = launcher_messages(capture_log([&] { waitpid_orvel(pid); }));
    EXPECT_EQ(messages, (std::vector<message>{{'E', "waitpid_orvel(" + p + ")\n"},
                                              {'I', "orvel process terminate - success\n"},
                                              {'I', "return value : 0 \n"},
                                              {'E', "orvel(" + p + ") is dead...\n"}}));
    EXPECT_FALSE(exists("/run/orvel.ready"));
}

TEST_F(OrvelTest, WaitpidOrvelAfterAnExitWithCodeAndNoReadyFile)
{
    REQUIRE_SANDBOX();
    pid_t pid = child_exiting_with(3);
    ASSERT_GT(pid, 0);
    const std::string p = std::to_string(pid);
    auto messages = launcher_messages(capture_log([&] { waitpid_orvel(pid); }));
    EXPECT_EQ(messages, (std::vector<message>{{'E', "waitpid_orvel(" + p + ")\n"},
                                              {'I', "orvel process terminate - success\n"},
                                              {'I', "return value : 3 \n"},
                                              {'E', "Can't reset event for /run/orvel.ready. error: -1\n"},
                                              {'E', "orvel(" + p + ") is dead...\n"}}));
}

TEST_F(OrvelTest, WaitpidOrvelAfterAKill)
{
    REQUIRE_SANDBOX();
    touch("/run/orvel.ready");
    pid_t pid = child_killed_by(SIGSEGV);
    ASSERT_GT(pid, 0);
    const std::string p = std::to_string(pid);
    auto messages = launcher_messages(capture_log([&] { waitpid_orvel(pid); }));
    EXPECT_EQ(messages, (std::vector<message>{{'E', "waitpid_orvel(" + p + ")\n"},
                                              {'E', "orvel process terminate - fail\n"},
                                              {'E', "signal num : 11\n"},
                                              {'E', "orvel(" + p + ") is dead...\n"}}));
    EXPECT_FALSE(exists("/run/orvel.ready"));
}

TEST_F(OrvelTest, WaitpidOrvelGivesUpAfterThreeFailures)
{
    REQUIRE_SANDBOX();
    touch("/run/orvel.ready");
    pid_t pid = child_exiting_with(0);
    ASSERT_GT(pid, 0);
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);  // reaped already: ECHILD from now on
    const std::string p = std::to_string(pid);
    const std::string failed = "failed to wait child process(" + p + ")...(errno : " + errno_text(ECHILD) + ")\n";
    auto begin = std::chrono::steady_clock::now();
    auto messages = launcher_messages(capture_log([&] { waitpid_orvel(pid); }));
    auto elapsed = std::chrono::steady_clock::now() - begin;
    EXPECT_EQ(messages, (std::vector<message>{{'E', "waitpid_orvel(" + p + ")\n"},
                                              {'E', failed},
                                              {'E', "waitpid fail...retry count - 1\n"},
                                              {'E', failed},
                                              {'E', "waitpid fail...retry count - 2\n"},
                                              {'E', failed},
                                              {'E', "waitpid fail...retry count - 3\n"}}));
    EXPECT_GE(elapsed, std::chrono::seconds(9));
    // No status was ever collected, so nothing was classified or withdrawn.
    EXPECT_TRUE(exists("/run/orvel.ready"));
}

// ---------------------------------------------------------------------------
// Context, init routine and finish.

TEST_F(OrvelTest, CreateContextFillsTheRow)
{
    keldra_context *base = nullptr;
    auto messages = launcher_messages(capture_log([&] { base = orvel_launcher_create_context(); }));
    ASSERT_NE(base, nullptr);
    auto *context = dynamic_cast<orvel_context *>(base);
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(context->id, 1);
    EXPECT_EQ(context->thread, (pthread_t)0);
    EXPECT_TRUE(context->finished);
    EXPECT_STREQ(context->init_script, "/etc/rc.d/init.d/orvel-launcher.sh");
    EXPECT_EQ(context->handler, &orvel_launcher_handler);
    EXPECT_EQ(context->signal_fd, -1);
    EXPECT_EQ(context->inotify_fd, -1);
    EXPECT_EQ(context->epoll_fd, -1);
    EXPECT_EQ(messages, (std::vector<message>{{'E', "Init script: /etc/rc.d/init.d/orvel-launcher.sh\n"}}));
    delete base;
}

TEST_F(OrvelTest, FinishOfAStoppedLauncherClosesItsDescriptors)
{
    auto *context = new orvel_context;
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    context->epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    context->inotify_fd = fds[0];
    context->signal_fd = fds[1];
    const int epoll_fd = context->epoll_fd;
    context->id = 1;
    context->finished = true;  // no thread: nothing is cancelled or joined
    auto log = capture_log([&] { orvel_launcher_finish(context); });
    EXPECT_EQ(fcntl(epoll_fd, F_GETFD), -1);
    EXPECT_EQ(fcntl(fds[0], F_GETFD), -1);
    EXPECT_EQ(fcntl(fds[1], F_GETFD), -1);
    EXPECT_EQ(count_messages(log, 'I', "Thread 1 is finished\n"), 1) << dump_log(log);
}

TEST_F(OrvelTest, FinishOfANullContext)
{
    auto messages = launcher_messages(capture_log([&] { orvel_launcher_finish(nullptr); }));
    EXPECT_EQ(messages, (std::vector<message>{{'E', "Invalid context\n"}}));
}

// Runs the init routine on a fresh context. The routine blocks SIGCHLD in
// the calling thread; the mask is restored when the run goes out of scope.
struct init_run {
    int result = 0;
    std::vector<message> messages;
    orvel_context context;
    sigset_t mask_before;

    init_run() { pthread_sigmask(SIG_SETMASK, nullptr, &mask_before); }
    ~init_run() { pthread_sigmask(SIG_SETMASK, &mask_before, nullptr); }
};

void run_init(init_run &run)
{
    run.messages = launcher_messages(capture_log([&] { run.result = orvel_launcher_init(&run.context); }));
}

void close_init_descriptors(orvel_context &context)
{
    close(context.epoll_fd);
    close(context.inotify_fd);
    close(context.signal_fd);
}

std::vector<message> watch_messages(const orvel_context &c)
{
    return {{'E', "inotify watch path: /run fd: " + std::to_string(c.run_wd) + " is created...\n"},
            {'E', "inotify watch path: /opt/dbspace fd: " + std::to_string(c.dbspace_wd) + " is created...\n"},
            {'E', "inotify watch path: /var/pellan fd: " + std::to_string(c.pellan_wd) + " is created...\n"}};
}

TEST_F(OrvelTest, InitSkipsTheScriptDoneInThisBoot)
{
    REQUIRE_SANDBOX();
    touch("/tmp/orvel_script.done");
    init_run run;
    run_init(run);
    EXPECT_EQ(run.result, 0);
    std::vector<message> expected{{'E', "Starting Orvel Launcher...\n"}, {'E', "Script already done, skip it ..\n"}};
    auto watches = watch_messages(run.context);
    expected.insert(expected.end(), watches.begin(), watches.end());
    EXPECT_EQ(run.messages, expected);
    EXPECT_FALSE(exists("/tmp/simd/init-script.runs"));
    EXPECT_GE(run.context.signal_fd, 0);
    EXPECT_GE(run.context.inotify_fd, 0);
    EXPECT_GE(run.context.epoll_fd, 0);

    // SIGCHLD is blocked and reaches the signal descriptor through the epoll
    // instance.
    pid_t pid = child_exiting_with(0);
    struct epoll_event event = {};
    ASSERT_EQ(epoll_wait(run.context.epoll_fd, &event, 1, 5000), 1);
    EXPECT_EQ(event.data.fd, run.context.signal_fd);
    struct signalfd_siginfo info = {};
    ASSERT_EQ(read(run.context.signal_fd, &info, sizeof info), (ssize_t)sizeof info);
    EXPECT_EQ(info.ssi_signo, (uint32_t)SIGCHLD);
    EXPECT_EQ(info.ssi_pid, (uint32_t)pid);
    waitpid(pid, nullptr, 0);

    // The directory watches report through the inotify descriptor.
    touch("/opt/dbspace/orvel-init-test");
    ASSERT_EQ(epoll_wait(run.context.epoll_fd, &event, 1, 5000), 1);
    EXPECT_EQ(event.data.fd, run.context.inotify_fd);
    close_init_descriptors(run.context);
}

TEST_F(OrvelTest, InitRunsTheScriptAndCountsAnExitCodeAsDone)
{
    REQUIRE_SANDBOX();
    write_file("/tmp/simd/init-script.conf", "exit_code=3\n");
    init_run run;
    run_init(run);
    EXPECT_EQ(run.result, 0);
    std::vector<message> expected{{'E', "Starting Orvel Launcher...\n"},
                                  {'E', "No script running before, run it ..\n"},
                                  {'I', "/etc/rc.d/init.d/orvel-launcher.sh script terminate - success\n"},
                                  {'I', "return value : 3\n"}};
    auto watches = watch_messages(run.context);
    expected.insert(expected.end(), watches.begin(), watches.end());
    EXPECT_EQ(run.messages, expected);
    EXPECT_TRUE(exists("/tmp/orvel_script.done"));
    close_init_descriptors(run.context);
}

TEST_F(OrvelTest, InitAfterAScriptKilledBySignalLeavesNoMarker)
{
    REQUIRE_SANDBOX();
    write_file("/tmp/simd/init-script.conf", "kill_signal=9\n");
    init_run run;
    run_init(run);
    EXPECT_EQ(run.result, 0);
    std::vector<message> expected{{'E', "Starting Orvel Launcher...\n"},
                                  {'E', "No script running before, run it ..\n"},
                                  {'E', "orvel process terminate - fail\n"},
                                  {'E', "signal num : 9\n"},
                                  {'E', "Can't reset event for /tmp/orvel_script.done. error: -1\n"}};
    auto watches = watch_messages(run.context);
    expected.insert(expected.end(), watches.begin(), watches.end());
    EXPECT_EQ(run.messages, expected);
    EXPECT_FALSE(exists("/tmp/orvel_script.done"));
    close_init_descriptors(run.context);
}

TEST_F(OrvelTest, InitFailsWithoutTheCheckersDirectory)
{
    REQUIRE_SANDBOX();
    touch("/tmp/orvel_script.done");
    ASSERT_EQ(rmdir("/var/pellan"), 0) << strerror(errno);  // the sandbox's overlay copy
    init_run run;
    run_init(run);
    EXPECT_EQ(run.result, -1);
    ASSERT_EQ(run.messages.size(), 5u);
    EXPECT_EQ(run.messages[4], (message{'E', "failed to add inotify watch instance...(errno : " +
                                                 errno_text(ENOENT) + ")\n"}));
    EXPECT_GE(run.context.run_wd, 1);
    EXPECT_GE(run.context.dbspace_wd, 1);
    EXPECT_EQ(run.context.pellan_wd, -1);
    EXPECT_EQ(run.context.signal_fd, -1);
    EXPECT_EQ(run.context.inotify_fd, -1);
    EXPECT_EQ(run.context.epoll_fd, -1);
}

// ---------------------------------------------------------------------------
// The handler's loop, run on its own thread against the simulated daemon
// (sandbox only): launch, death through SIGCHLD, reaping, re-arming of the
// watches, relaunch, and the finish that cancels and joins the thread.

size_t count_lines(const char *path)
{
    std::string all = read_file(path);
    return (size_t)std::count(all.begin(), all.end(), '\n');
}

// The pids of the daemon's starts, in order.
std::vector<std::string> orvel_start_pids()
{
    std::vector<std::string> out;
    std::istringstream in(read_file("/tmp/simd/orvel.starts"));
    std::string line;
    static const std::regex pid(R"(^pid=(\d+) )");
    while (std::getline(in, line)) {
        std::smatch m;
        if (std::regex_search(line, m, pid))
            out.push_back(m[1]);
    }
    return out;
}

// Index of the first message at or after from with this level and text, or
// the message count.
size_t find_message(const std::vector<message> &messages, size_t from, const message &wanted)
{
    for (size_t i = from; i < messages.size(); ++i)
        if (messages[i] == wanted)
            return i;
    return messages.size();
}

TEST_F(OrvelTest, HandlerRelaunchesTheDaemonAfterItsDeath)
{
    REQUIRE_SANDBOX();
    ASSERT_TRUE(exists("/usr/bin/orvel")) << "the sandbox installs the simulated daemon";
    touch("/tmp/orvel_script.done");
    // The first start exits with 0 after 300 ms; the next one stays up.
    write_file("/tmp/simd/orvel.next", "exit_code=0\nafter_ms=300\n");

    init_run run;  // restores the signal mask at the end
    keldra_context *base = orvel_launcher_create_context();
    auto *context = static_cast<orvel_context *>(base);
    bool relaunched = false;
    auto log = capture_log([&] {
        ASSERT_EQ(orvel_launcher_init(context), 0);
        ASSERT_EQ(keldra_run(context), 0);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (std::chrono::steady_clock::now() < deadline) {
            if (count_lines("/tmp/simd/orvel.starts") >= 2 && exists("/run/orvel.ready")) {
                relaunched = true;
                break;
            }
            usleep(10 * 1000);
        }
        // Let the loop reach its wait after the relaunch, then stop it.
        usleep(200 * 1000);
        orvel_launcher_finish(context);
    });
    ASSERT_TRUE(relaunched) << dump_log(log);
    auto pids = orvel_start_pids();
    ASSERT_EQ(pids.size(), 2u) << dump_log(log);
    const std::string &first = pids[0];

    std::vector<message> messages;
    for (const auto &m : log)
        if (m.file == this_file)
            messages.emplace_back(m.level, m.text);
    // The main lines of the first life of the daemon and of its relaunch, in
    // order.
    const std::vector<message> milestones = {
        {'E', "launching orvel...\n"},
        {'W', "SIGCHLD signal is received from [pid : " + first + "]\n"},
        {'W', "orvel(" + first + ") is dead...\n"},
        {'E', "waitpid_orvel(" + first + ")\n"},
        {'I', "orvel process terminate - success\n"},
        {'I', "return value : 0 \n"},
        {'E', "orvel(" + first + ") is dead...\n"},
        {'E', "orvel after handle_signal_event: ret=1\n"},
        {'E', "launching orvel...\n"},
        {'E', "[P " + std::string(std::max(0, 5 - (int)std::to_string(getpid()).size()), ' ') +
                  std::to_string(getpid()) + "] orvel(pid : " + pids[1] + ") is launched successfully...\n"},
    };
    size_t at = 0;
    for (const auto &m : milestones) {
        at = find_message(messages, at, m);
        ASSERT_LT(at, messages.size()) << "missing " << m.second << dump(messages);
        ++at;
    }
    // Cancelled in its wait: the loop never ends on its own.
    EXPECT_EQ(find_message(messages, 0, {'E', "Orvel-launcher is done\n"}), messages.size());
    EXPECT_EQ(std::count_if(messages.begin(), messages.end(),
                            [](const message &m) { return m.second.rfind("orvel is dead. start flag is set again...", 0) == 0; }),
              1);
    EXPECT_EQ(count_messages(log, 'E', "Thread 1 is cancelled\n"), 1) << dump_log(log);
    EXPECT_EQ(count_messages(log, 'I', "Thread 1 is finished\n"), 1) << dump_log(log);
}

}  // namespace
