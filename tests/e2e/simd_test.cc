// Tests of the simulated daemons and scripts, started directly by the test
// (no supervisor): what they create, what they record, and how their settings
// change their behaviour.
#include "harness.h"

#include <fcntl.h>
#include <string.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

namespace {

using namespace std::chrono_literals;
using e2e::exit_status;

constexpr uid_t pellan_uid = 401;
constexpr gid_t pellan_gid = 401;

const std::vector<std::string> pellan_sockets = {
    "/run/pellan/pellan.socket",
    "/run/pellan/pellan-admin.socket",
    "/run/pellan/pellan-agent.socket",
    "/run/pellan/pellan-monitor-get.socket",
};

uint64_t monotonic_ns()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return uint64_t(now.tv_sec) * 1000000000u + uint64_t(now.tv_nsec);
}

// Connects to a listening Unix socket; returns the descriptor or -1.
int connect_to(const std::string &path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0)
        return fd;
    if (fd >= 0)
        close(fd);
    return -1;
}

class SimulatedDaemon : public ::testing::Test {
protected:
    void TearDown() override
    {
        for (pid_t pid : children) {
            kill(pid, SIGKILL);
            e2e::wait_child(pid, 5s);
        }
    }

    pid_t start(std::string_view name, e2e::spawn_options options = {})
    {
        pid_t pid = e2e::spawn_daemon(name, options);
        if (pid > 0)
            children.push_back(pid);
        return pid;
    }

    // The runtime directory as the supervisor prepares it, then pellan run
    // under its own user and group.
    pid_t start_pellan()
    {
        EXPECT_TRUE(e2e::make_directory("/run/pellan", 0775));
        EXPECT_EQ(chown("/run/pellan", pellan_uid, pellan_gid), 0);
        e2e::spawn_options options;
        options.uid = pellan_uid;
        options.gid = pellan_gid;
        return start("pellan", options);
    }

    std::optional<exit_status> wait_end(pid_t pid, e2e::milliseconds timeout = 10s)
    {
        auto status = e2e::wait_child(pid, timeout);
        if (status)
            std::erase(children, pid);
        return status;
    }

    std::vector<pid_t> children;
};

TEST_F(SimulatedDaemon, PellanCreatesItsFourListeningSocketsAsItsOwnUser)
{
    pid_t pid = start_pellan();
    ASSERT_GT(pid, 0);
    ASSERT_EQ(e2e::wait_for_steps("pellan", "ready", 1).size(), 1u);
    for (const std::string &path : pellan_sockets) {
        EXPECT_TRUE(e2e::is_socket(path)) << path;
        EXPECT_EQ(e2e::owner_of(path), (e2e::file_owner{pellan_uid, pellan_gid})) << path;
        int fd = connect_to(path);
        EXPECT_GE(fd, 0) << "cannot connect to " << path;
        if (fd >= 0)
            close(fd);
    }
    auto starts = e2e::starts("pellan");
    ASSERT_EQ(starts.size(), 1u);
    EXPECT_EQ(starts[0].pid, pid);
    EXPECT_EQ(starts[0].uid, pellan_uid);
    EXPECT_EQ(starts[0].euid, pellan_uid);
    EXPECT_EQ(starts[0].gid, pellan_gid);
    EXPECT_EQ(starts[0].egid, pellan_gid);
    EXPECT_TRUE(e2e::daemon_errors("pellan").empty());
}

// What a checker killed in the middle of its start record leaves: a line
// without its end. The next start record goes on a line of its own, so the
// new checker's pid is not swallowed by the remains.
TEST_F(SimulatedDaemon, StartRecordAfterARecordCutShortStandsOnItsOwnLine)
{
    ASSERT_TRUE(e2e::make_directory(e2e::simd_dir, 01777));
    ASSERT_TRUE(e2e::write_file(std::string(e2e::simd_dir) + "/pellan.starts",
                                "pid=12345 ppid=3 uid=401 mono_ns=17"));
    pid_t pid = start_pellan();
    ASSERT_GT(pid, 0);
    auto starts = e2e::wait_for_starts("pellan", 2);
    ASSERT_EQ(starts.size(), 2u);
    EXPECT_EQ(starts[0].pid, 12345);
    EXPECT_EQ(starts[0].mono_ns, 17u);
    EXPECT_EQ(starts[1].pid, pid);
    EXPECT_EQ(starts[1].argv0, "/usr/bin/pellan");
}

TEST_F(SimulatedDaemon, PellanServesAdminConnectionsOneAfterAnother)
{
    pid_t pid = start_pellan();
    ASSERT_GT(pid, 0);
    ASSERT_TRUE(e2e::wait_for_file("/run/pellan/pellan-admin.socket"));
    for (size_t n = 1; n <= 2; ++n) {
        // The file is there from bind(); connections are taken from listen().
        int fd = -1;
        ASSERT_TRUE(e2e::wait_until(
            [&] { return (fd = connect_to("/run/pellan/pellan-admin.socket")) >= 0; },
            e2e::default_timeout, "the admin socket to take a connection"));
        close(fd);
        EXPECT_EQ(e2e::wait_for_steps("pellan", "admin-served", n).size(), n);
    }
    EXPECT_TRUE(e2e::process_alive(pid));
}

// One set-policies request of the admin protocol with a single record.
std::string admin_request(const std::string &privilege)
{
    std::string bytes;
    auto put32 = [&](uint32_t v) {
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes += char((v >> shift) & 0xff);
    };
    auto put_text = [&](const char *text) {
        if (!text) {
            put32(uint32_t(-1));
            return;
        }
        put32(uint32_t(strlen(text)));
        bytes += text;
    };
    put32(0x50414431);
    put32(1);
    put_text("USER_TYPE_ADMIN");
    put_text("*");
    put_text("*");
    put_text(privilege.c_str());
    put32(65535);
    put_text(nullptr);
    return bytes;
}

TEST_F(SimulatedDaemon, PellanAnswersWithTheVerdictOfItsSettings)
{
    e2e::write_settings("pellan", "admin_verdict=7\n");
    ASSERT_GT(start_pellan(), 0);
    ASSERT_TRUE(e2e::wait_for_file("/run/pellan/pellan-admin.socket"));
    int fd = connect_to("/run/pellan/pellan-admin.socket");
    ASSERT_GE(fd, 0);
    std::string request = admin_request("http://example.org/privilege/admin");
    ASSERT_EQ(write(fd, request.data(), request.size()), ssize_t(request.size()));
    unsigned char answer[4] = {};
    ASSERT_EQ(read(fd, answer, sizeof answer), 4);
    close(fd);
    EXPECT_EQ((answer[0] << 24) | (answer[1] << 16) | (answer[2] << 8) | answer[3], 7);
    auto served = e2e::wait_for_steps("pellan", "admin-served", 1);
    ASSERT_EQ(served.size(), 1u);
    EXPECT_EQ(served[0].fields["result"], "0");
    auto records = e2e::admin_records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0]["privilege"], "http://example.org/privilege/admin");
    EXPECT_EQ(records[0]["result"], "65535");
}

TEST_F(SimulatedDaemon, OrvelCreatesItsSocket)
{
    ASSERT_GT(start("orvel"), 0);
    ASSERT_TRUE(e2e::wait_for_file("/run/orvel.socket"));
    EXPECT_TRUE(e2e::is_socket("/run/orvel.socket"));
    int fd = connect_to("/run/orvel.socket");
    EXPECT_GE(fd, 0);
    if (fd >= 0)
        close(fd);
}

TEST_F(SimulatedDaemon, DunmarWritesItsPidFile)
{
    pid_t pid = start("dunmar");
    ASSERT_GT(pid, 0);
    ASSERT_EQ(e2e::wait_for_steps("dunmar", "ready", 1).size(), 1u);
    EXPECT_EQ(e2e::read_file("/run/dunmar.pid"), std::to_string(pid) + "\n");
}

TEST_F(SimulatedDaemon, TavishStaysUpUntilSigtermAndRecordsIt)
{
    pid_t pid = start("tavish");
    ASSERT_GT(pid, 0);
    ASSERT_EQ(e2e::wait_for_steps("tavish", "ready", 1).size(), 1u);
    EXPECT_TRUE(e2e::stays_true([&] { return e2e::process_alive(pid); }, 300ms, "tavish runs"));
    ASSERT_EQ(kill(pid, SIGTERM), 0);
    EXPECT_EQ(wait_end(pid), exit_status::by_signal(SIGTERM));
    auto deaths = e2e::deaths("tavish");
    ASSERT_EQ(deaths.size(), 1u);
    EXPECT_EQ(deaths[0].pid, pid);
    EXPECT_EQ(deaths[0].event, "term");
}

TEST_F(SimulatedDaemon, StartRecordDescribesTheProcess)
{
    ASSERT_TRUE(e2e::write_file("/tmp/kept", ""));
    int kept = open("/tmp/kept", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(kept, 0);
    ASSERT_GE(dup2(kept, 9), 0);
    e2e::spawn_options options;
    options.new_session = true;
    options.blocked_signals = {SIGCHLD};
    options.umask = 0;
    options.cwd = "/tmp";
    options.keep_fds = {9};
    uint64_t before = monotonic_ns();
    pid_t pid = start("tavish", options);
    close(9);
    close(kept);
    ASSERT_GT(pid, 0);
    auto starts = e2e::wait_for_starts("tavish", 1);
    ASSERT_EQ(starts.size(), 1u);
    const e2e::start_record &r = starts[0];
    EXPECT_EQ(r.pid, pid);
    EXPECT_EQ(r.ppid, getpid());
    EXPECT_EQ(r.sid, pid);
    EXPECT_EQ(r.pgid, pid);
    EXPECT_EQ(r.uid, getuid());
    EXPECT_EQ(r.umask, 0u);
    EXPECT_EQ(r.argc, 1);
    EXPECT_EQ(r.argv0, "/usr/bin/tavish");
    EXPECT_TRUE(r.signal_blocked(SIGCHLD));
    EXPECT_FALSE(r.signal_blocked(SIGTERM));
    EXPECT_EQ(r.fd_target(0), "/dev/null");
    EXPECT_EQ(r.fd_target(9), "/tmp/kept");
    ASSERT_EQ(r.fds.size(), 4u) << r.fields.at("fds");
    EXPECT_EQ(r.cwd, "/tmp");
    EXPECT_GE(r.mono_ns, before);
    EXPECT_LE(r.mono_ns, monotonic_ns());
    EXPECT_EQ(r.settings, "default");
}

TEST_F(SimulatedDaemon, UmaskAndSessionAreInheritedAsGiven)
{
    e2e::spawn_options options;
    options.umask = 027;
    pid_t pid = start("orvel", options);
    ASSERT_GT(pid, 0);
    auto starts = e2e::wait_for_starts("orvel", 1);
    ASSERT_EQ(starts.size(), 1u);
    EXPECT_EQ(starts[0].umask, 027u);
    EXPECT_EQ(starts[0].sid, getsid(0));
    EXPECT_FALSE(starts[0].signal_blocked(SIGCHLD));
}

TEST_F(SimulatedDaemon, ExitCodeAfterADelay)
{
    e2e::write_settings("orvel", "exit_code=3\nafter_ms=200\n");
    pid_t pid = start("orvel");
    ASSERT_GT(pid, 0);
    EXPECT_EQ(wait_end(pid), exit_status::with_code(3));
    auto starts = e2e::starts("orvel");
    auto deaths = e2e::deaths("orvel");
    ASSERT_EQ(starts.size(), 1u);
    ASSERT_EQ(deaths.size(), 1u);
    EXPECT_EQ(deaths[0].event, "exit");
    EXPECT_EQ(deaths[0].code, 3);
    EXPECT_GE(deaths[0].mono_ns - starts[0].mono_ns, 200'000'000u);
    EXPECT_EQ(starts[0].settings, "conf");
    EXPECT_TRUE(e2e::is_socket("/run/orvel.socket")) << "readiness comes before the exit";
}

TEST_F(SimulatedDaemon, ExitSignalAfterADelay)
{
    e2e::write_settings("dunmar", "exit_signal=9\nafter_ms=100\n");
    pid_t pid = start("dunmar");
    ASSERT_GT(pid, 0);
    EXPECT_EQ(wait_end(pid), exit_status::by_signal(SIGKILL));
    auto deaths = e2e::deaths("dunmar");
    ASSERT_EQ(deaths.size(), 1u);
    EXPECT_EQ(deaths[0].event, "signal");
    EXPECT_EQ(deaths[0].signal, SIGKILL);
    EXPECT_GE(deaths[0].mono_ns - e2e::starts("dunmar").at(0).mono_ns, 100'000'000u);
}

TEST_F(SimulatedDaemon, ExitSignalThatTheInheritedMaskBlocks)
{
    e2e::write_settings("tavish", e2e::format_text("exit_signal=%d\nexit_code=4\n", SIGUSR1));
    e2e::spawn_options options;
    options.blocked_signals = {SIGUSR1, SIGCHLD};
    pid_t pid = start("tavish", options);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(wait_end(pid), exit_status::by_signal(SIGUSR1));
}

TEST_F(SimulatedDaemon, NoReadySkipsSocketsAndPidFile)
{
    for (const char *name : {"pellan", "orvel", "dunmar"})
        e2e::write_settings(name, "no_ready=1\n");
    ASSERT_GT(start_pellan(), 0);
    ASSERT_GT(start("orvel"), 0);
    ASSERT_GT(start("dunmar"), 0);
    for (const char *name : {"pellan", "orvel", "dunmar"}) {
        EXPECT_EQ(e2e::wait_for_steps(name, "ready-skipped", 1).size(), 1u) << name;
        EXPECT_TRUE(e2e::steps(name).size() == 1) << name;
    }
    for (const std::string &path : pellan_sockets)
        EXPECT_FALSE(e2e::exists(path)) << path;
    EXPECT_FALSE(e2e::exists("/run/orvel.socket"));
    EXPECT_FALSE(e2e::exists("/run/dunmar.pid"));
}

TEST_F(SimulatedDaemon, ReadyDelayPostponesTheSocket)
{
    e2e::write_settings("orvel", "ready_delay_ms=300\n");
    ASSERT_GT(start("orvel"), 0);
    auto starts = e2e::wait_for_starts("orvel", 1);
    ASSERT_EQ(starts.size(), 1u);
    ASSERT_TRUE(e2e::wait_for_file("/run/orvel.socket", 5s));
    auto ready = e2e::wait_for_steps("orvel", "ready", 1);
    ASSERT_EQ(ready.size(), 1u);
    EXPECT_GE(ready[0].mono_ns - starts[0].mono_ns, 300'000'000u);
}

TEST_F(SimulatedDaemon, IgnoreTermKeepsItRunning)
{
    e2e::write_settings("tavish", "ignore_term=1\n");
    pid_t pid = start("tavish");
    ASSERT_GT(pid, 0);
    ASSERT_EQ(e2e::wait_for_steps("tavish", "ready", 1).size(), 1u);
    ASSERT_EQ(kill(pid, SIGTERM), 0);
    EXPECT_EQ(e2e::wait_for_steps("tavish", "term-ignored", 1).size(), 1u);
    EXPECT_TRUE(e2e::stays_true([&] { return e2e::process_alive(pid); }, 200ms, "tavish runs"));
    ASSERT_EQ(kill(pid, SIGKILL), 0);
    EXPECT_EQ(wait_end(pid), exit_status::by_signal(SIGKILL));
    EXPECT_TRUE(e2e::deaths("tavish").empty());
}

TEST_F(SimulatedDaemon, OneShotSettingsServeOneStartOnly)
{
    e2e::write_next_settings("dunmar", "exit_code=4\n");
    pid_t first = start("dunmar");
    ASSERT_GT(first, 0);
    EXPECT_EQ(wait_end(first), exit_status::with_code(4));
    EXPECT_FALSE(e2e::exists("/tmp/simd/dunmar.next"));
    pid_t second = start("dunmar");
    ASSERT_GT(second, 0);
    auto starts = e2e::wait_for_starts("dunmar", 2);
    ASSERT_EQ(starts.size(), 2u);
    EXPECT_EQ(starts[0].settings, "next");
    EXPECT_EQ(starts[1].settings, "default");
    EXPECT_EQ(e2e::wait_for_steps("dunmar", "ready", 2).size(), 2u);
    EXPECT_TRUE(e2e::process_alive(second));
}

TEST_F(SimulatedDaemon, PellanAsItsOwnUserConsumesOneShotSettings)
{
    e2e::write_next_settings("pellan", "no_ready=1\n");
    ASSERT_GT(start_pellan(), 0);
    EXPECT_EQ(e2e::wait_for_steps("pellan", "ready-skipped", 1).size(), 1u);
    EXPECT_FALSE(e2e::exists("/tmp/simd/pellan.next"));
    EXPECT_EQ(e2e::file_mode("/tmp/simd/pellan.starts"), 0666u);
    EXPECT_EQ(e2e::owner_of("/tmp/simd/pellan.starts"), (e2e::file_owner{pellan_uid, pellan_gid}));
}

TEST_F(SimulatedDaemon, OneShotSettingsWinOverStandingOnes)
{
    e2e::write_settings("orvel", "exit_code=5\n");
    e2e::write_next_settings("orvel", "exit_code=6\n");
    for (int expected : {6, 5, 5}) {
        pid_t pid = start("orvel");
        ASSERT_GT(pid, 0);
        EXPECT_EQ(wait_end(pid), exit_status::with_code(expected));
    }
    auto deaths = e2e::deaths("orvel");
    ASSERT_EQ(deaths.size(), 3u);
    EXPECT_EQ(deaths[2].code, 5);
}

TEST_F(SimulatedDaemon, BadSettingsAreRecordedAsErrors)
{
    e2e::write_settings("tavish", "# comment\n\nbogus=1\nexit_code=x\nno equals sign\n");
    pid_t pid = start("tavish");
    ASSERT_GT(pid, 0);
    ASSERT_EQ(e2e::wait_for_steps("tavish", "ready", 1).size(), 1u);
    auto errors = e2e::daemon_errors("tavish");
    ASSERT_EQ(errors.size(), 3u);
    EXPECT_EQ(errors[0].step, "setting:bogus=1");
    EXPECT_EQ(errors[1].step, "setting:exit_code=x");
    EXPECT_EQ(errors[2].step, "setting:no");
    EXPECT_TRUE(e2e::process_alive(pid));
}

TEST_F(SimulatedDaemon, TouchCreatesFilesAfterReadiness)
{
    ASSERT_TRUE(e2e::make_directory("/opt/dbspace", 0755));
    e2e::write_settings("orvel", "touch=/opt/dbspace/.orvel.db-recovered\ntouch=/run/second\n");
    ASSERT_GT(start("orvel"), 0);
    EXPECT_TRUE(e2e::wait_for_file("/opt/dbspace/.orvel.db-recovered"));
    EXPECT_TRUE(e2e::wait_for_file("/run/second"));
}

TEST_F(SimulatedDaemon, FailedStepIsRecordedAndTheDaemonGoesOn)
{
    // Without /run/pellan the sockets cannot be bound.
    pid_t pid = start("pellan");
    ASSERT_GT(pid, 0);
    ASSERT_EQ(e2e::wait_for_steps("pellan", "ready", 1).size(), 1u);
    auto errors = e2e::daemon_errors("pellan");
    ASSERT_EQ(errors.size(), 4u);
    EXPECT_EQ(errors[0].step, "bind:/run/pellan/pellan.socket");
    EXPECT_EQ(errors[0].error, ENOENT);
    EXPECT_TRUE(e2e::process_alive(pid));
}

TEST_F(SimulatedDaemon, SecondCopyIsFoundByItsFirstArgument)
{
    pid_t first = start("tavish");
    pid_t second = start("tavish");
    ASSERT_GT(first, 0);
    ASSERT_GT(second, 0);
    ASSERT_EQ(e2e::wait_for_starts("tavish", 2).size(), 2u);
    auto pids = e2e::daemon_pids("tavish");
    std::sort(pids.begin(), pids.end());
    EXPECT_EQ(pids, (std::vector<pid_t>{std::min(first, second), std::max(first, second)}));
    EXPECT_EQ(e2e::kill_daemon("tavish", SIGKILL), 2);
    EXPECT_EQ(wait_end(first), exit_status::by_signal(SIGKILL));
    EXPECT_EQ(wait_end(second), exit_status::by_signal(SIGKILL));
    EXPECT_TRUE(e2e::daemon_pids("tavish").empty());
}

TEST_F(SimulatedDaemon, UnknownNameEndsAtOnceWithStatus2)
{
    e2e::spawn_options options;
    options.program = "/usr/bin/tavish";
    pid_t pid = e2e::spawn({"/usr/bin/somebody"}, options);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(e2e::wait_child(pid, 10s), exit_status::with_code(2));
    EXPECT_TRUE(e2e::starts("tavish").empty());
}

// The init script as the supervisor runs it: system(), that is "sh -c PATH".
pid_t run_init_script()
{
    e2e::spawn_options options;
    options.program = "/bin/sh";
    return e2e::spawn({"sh", "-c", "/etc/rc.d/init.d/orvel-launcher.sh"}, options);
}

// The restore script as the supervisor runs it: execl in a new session.
pid_t run_restore_script()
{
    e2e::spawn_options options;
    options.new_session = true;
    return e2e::spawn({"/usr/bin/restore_zelto_db.sh"}, options);
}

TEST(SimulatedScripts, InitScriptRecordsItsRunAndExitsZero)
{
    pid_t pid = run_init_script();
    ASSERT_GT(pid, 0);
    EXPECT_EQ(e2e::wait_child(pid), exit_status::with_code(0));
    auto runs = e2e::init_script_runs();
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_FALSE(runs[0]["pid"].empty());
    EXPECT_FALSE(runs[0]["time"].empty());
    EXPECT_EQ(runs[0]["uid"], std::to_string(getuid()));
}

TEST(SimulatedScripts, InitScriptExitCode)
{
    ASSERT_TRUE(e2e::write_file(e2e::init_script_conf_path, "exit_code=3\n"));
    pid_t pid = run_init_script();
    ASSERT_GT(pid, 0);
    EXPECT_EQ(e2e::wait_child(pid), exit_status::with_code(3));
    EXPECT_EQ(e2e::init_script_runs().size(), 1u);
}

TEST(SimulatedScripts, InitScriptKilledBySignalAsSeenBySystem)
{
    ASSERT_TRUE(e2e::write_file(e2e::init_script_conf_path, "kill_signal=9"));
    pid_t pid = run_init_script();
    ASSERT_GT(pid, 0);
    EXPECT_EQ(e2e::wait_child(pid), exit_status::by_signal(SIGKILL));
    EXPECT_EQ(e2e::init_script_runs().size(), 1u);
}

TEST(SimulatedScripts, InitScriptSleeps)
{
    ASSERT_TRUE(e2e::write_file(e2e::init_script_conf_path, "sleep_ms=300\n"));
    uint64_t before = monotonic_ns();
    pid_t pid = run_init_script();
    ASSERT_GT(pid, 0);
    EXPECT_EQ(e2e::wait_child(pid), exit_status::with_code(0));
    EXPECT_GE(monotonic_ns() - before, 300'000'000u);
}

TEST(SimulatedScripts, RestoreScriptRecordsItsRunInItsOwnSession)
{
    pid_t pid = run_restore_script();
    ASSERT_GT(pid, 0);
    EXPECT_EQ(e2e::wait_child(pid), exit_status::with_code(0));
    auto runs = e2e::restore_runs();
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(runs[0]["pid"], std::to_string(pid));
    EXPECT_EQ(runs[0]["sid"], std::to_string(pid));
    EXPECT_EQ(runs[0]["ppid"], std::to_string(getpid()));
}

TEST(SimulatedScripts, RestoreScriptHoldsTheRunningMarkerWhileItSleeps)
{
    ASSERT_TRUE(e2e::write_file(e2e::restore_conf_path,
                                "running_marker=1\nsleep_ms=400\nexit_code=2\n"));
    uint64_t before = monotonic_ns();
    pid_t pid = run_restore_script();
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(e2e::wait_for_file("/run/restore_zelto_db_sh.running", 5s));
    EXPECT_EQ(e2e::wait_child(pid), exit_status::with_code(2));
    EXPECT_GE(monotonic_ns() - before, 400'000'000u);
    EXPECT_FALSE(e2e::exists("/run/restore_zelto_db_sh.running"));
}

TEST(SimulatedScripts, RestoreScriptKillsOnlyItself)
{
    ASSERT_TRUE(e2e::write_file(e2e::restore_conf_path, "kill_signal=9\n"));
    pid_t pid = run_restore_script();
    ASSERT_GT(pid, 0);
    EXPECT_EQ(e2e::wait_child(pid), exit_status::by_signal(SIGKILL));
    EXPECT_EQ(e2e::restore_runs().size(), 1u);
}

} // namespace
