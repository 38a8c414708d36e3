// Missing or unreadable files and directories around the start-up:
// /opt/dbspace missing (the application-policy init fails at its second
// directory watch and is retried every second until the directory is back;
// the /var/pellan case is in orvel_test.cc), the init script missing (the
// shell's 127 counts as a run), and admin-profile files that cannot be read
// because a directory stands at their path (root reads files of any mode, so
// a directory is what makes fscanf fail after a successful fopen).
#include "fault_support.h"

#include <sys/stat.h>

namespace {

using namespace std::chrono_literals;
using e2e::format_text;
using e2e::log_record;
using faults::consecutive;

constexpr const char *init_failed = "Launcher 1 init failed: -1\n";

std::string watch_line(const char *path, int wd)
{
    return format_text("inotify watch path: %s fd: %d is created...\n", path, wd);
}

// The application-policy launcher's lines and the failures of its init as
// the start routine reports them (the checker's thread runs meanwhile).
std::vector<log_record> init_lines(const e2e::scenario &keldra)
{
    std::vector<log_record> lines;
    for (const log_record &record : keldra.messages())
        if (record.file == faults::orvel_file ||
            (record.file == faults::core_file && record.text == init_failed))
            lines.push_back(record);
    return lines;
}

TEST(MissingFiles, OptDbspaceMissingFailsTheInitAtItsSecondWatchEverySecond)
{
    ASSERT_EQ(rmdir("/opt/dbspace"), 0) << strerror(errno);
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    ASSERT_GE(keldra.wait_for_message('E', init_failed, 10s, 1), 0);
    const uint64_t first_seen = faults::monotonic_ns();
    ASSERT_GE(keldra.wait_for_message('E', init_failed, 10s, 3), 0);
    EXPECT_GE(faults::monotonic_ns() - first_seen, 1'500'000'000u) << "one attempt per second";

    // Every attempt: a fresh instance (so /run is watch 1 again), /opt/dbspace
    // refused, /var/pellan not tried.
    const std::vector<e2e::expected_message> attempt = {
        {'E', watch_line("/run", 1)},
        {'E', "failed to add inotify watch instance...(errno : No such file or directory)\n"},
        {'E', init_failed},
    };
    auto records = init_lines(keldra);
    std::vector<e2e::expected_message> first = {
        {'E', "Starting Orvel Launcher...\n"},
        {'E', "No script running before, run it ..\n"},
        {'I', "/etc/rc.d/init.d/orvel-launcher.sh script terminate - success\n"},
        {'I', "return value : 0\n"}};
    first.insert(first.end(), attempt.begin(), attempt.end());
    EXPECT_TRUE(consecutive(records, first));
    std::vector<e2e::expected_message> later = {{'E', "Starting Orvel Launcher...\n"},
                                                {'E', "Script already done, skip it ..\n"}};
    later.insert(later.end(), attempt.begin(), attempt.end());
    int second = faults::find_consecutive(records, later);
    EXPECT_GE(second, 0);
    EXPECT_GE(faults::find_consecutive(records, later, second + 1), 0) << "third attempt";
    EXPECT_EQ(keldra.count_messages('E', watch_line("/var/pellan", 3)), 0);
    faults::expect_platform_record(keldra, 'E', init_failed, faults::core_file, "keldra_start");
    EXPECT_TRUE(e2e::starts("orvel").empty());
    EXPECT_TRUE(e2e::starts("dunmar").empty());
    EXPECT_FALSE(e2e::exists("/run/keldra.ready"));

    // Back: the next attempt places all three watches and the start goes on.
    ASSERT_TRUE(e2e::make_directory("/opt/dbspace", 0755));
    auto pids = faults::wait_for_healthy_start(keldra);
    ASSERT_EQ(pids.size(), 4u);
    records = init_lines(keldra);
    int last_failure = -1;
    for (int i = e2e::find_message(records, 'E', init_failed); i >= 0;
         i = e2e::find_message(records, 'E', init_failed, 1, i + 1))
        last_failure = i;
    EXPECT_TRUE(consecutive(records,
                            {{'E', "Starting Orvel Launcher...\n"},
                             {'E', "Script already done, skip it ..\n"},
                             {'E', watch_line("/run", 1)},
                             {'E', watch_line("/opt/dbspace", 2)},
                             {'E', watch_line("/var/pellan", 3)}},
                            last_failure + 1));
    EXPECT_EQ(e2e::init_script_runs().size(), 1u);
}

TEST(MissingFiles, InitScriptMissingExitsWith127AndCountsAsRun)
{
    const char *script = "/etc/rc.d/init.d/orvel-launcher.sh";
    ASSERT_EQ(unlink(script), 0) << strerror(errno);
    e2e::scenario keldra;
    ASSERT_TRUE(keldra.start());
    auto pids = faults::wait_for_healthy_start(keldra);
    ASSERT_EQ(pids.size(), 4u);

    // The shell's own complaint goes to the supervisor's stderr without a
    // stamp, so it ends up in the text of the message written before it.
    const std::string shell_line = std::string("sh: 1: ") + script + ": not found\n";
    const std::string stderr_text = keldra.stderr_text();
    size_t at = stderr_text.find(shell_line);
    ASSERT_NE(at, std::string::npos) << "the shell reports the missing script";
    EXPECT_EQ(stderr_text.find(shell_line, at + 1), std::string::npos);
    auto records = keldra.messages();
    std::vector<log_record> orvel_init;
    int carrying = 0;
    for (const log_record &record : records) {
        log_record line = record;
        if (line.text.ends_with(shell_line) && line.text.size() > shell_line.size()) {
            line.text.resize(line.text.size() - shell_line.size());
            ++carrying;
        }
        if (line.file == faults::orvel_file)
            orvel_init.push_back(line);
    }
    EXPECT_EQ(carrying, 1) << "one message (of whichever thread came before) carries it";
    EXPECT_TRUE(consecutive(orvel_init,
                            {
                                {'E', "Starting Orvel Launcher...\n"},
                                {'E', "No script running before, run it ..\n"},
                                {'I', std::string(script) + " script terminate - success\n"},
                                {'I', "return value : 127\n"},
                                {'E', watch_line("/run", 1)},
                            }));
    EXPECT_EQ(keldra.count_platform_messages(4, "return value : 127\n"), 1);
    EXPECT_TRUE(e2e::exists("/tmp/orvel_script.done")) << "the marker is created all the same";
    EXPECT_EQ(keldra.count_messages('E', format_text("Running script %s failed\n", script)), 0);
    EXPECT_TRUE(e2e::init_script_runs().empty());

    // A later start in the same boot skips the script.
    ASSERT_TRUE(keldra.send_signal(SIGKILL));
    keldra.wait_exit();
    e2e::scenario next;
    ASSERT_TRUE(faults::start_supervisor(next));
    EXPECT_EQ(next.count_messages('E', "Script already done, skip it ..\n"), 1);
    EXPECT_EQ(next.stderr_text().find(shell_line), std::string::npos);
}

// ------------------------------------------------------------ admin profile

constexpr const char *ro_path = "/usr/share/orvel/policy/usertype-admin.profile-timestamp";
constexpr const char *rw_path = "/opt/var/pellan/usertype-admin.profile-timestamp";
constexpr const char *policy_path =
    "/usr/share/orvel/policy/usertype-admin.profile-change-privilege";

// The messages of the push functions (platform records of the checker
// launcher's file, other than its thread's), in order: function and text.
std::vector<std::pair<std::string, std::string>> push_messages(const e2e::scenario &keldra)
{
    std::vector<std::pair<std::string, std::string>> found;
    for (const e2e::platform_record &r : keldra.platform_messages()) {
        if (r.file != faults::pellan_file || r.function == "pellan_launcher_handler" ||
            r.function == "launch_pellan" || r.function == "set_sock_perm")
            continue;
        EXPECT_EQ(r.prio, 6) << e2e::describe(r);
        found.emplace_back(r.function, r.text);
    }
    return found;
}

void start_and_expect_push_messages(
    const std::vector<std::pair<std::string, std::string>> &expected)
{
    e2e::scenario keldra;
    ASSERT_TRUE(faults::start_supervisor(keldra));
    EXPECT_EQ(push_messages(keldra), expected);
    for (const auto &[function, text] : expected)
        EXPECT_EQ(keldra.count_messages('E', text), 1) << text;
    EXPECT_TRUE(e2e::admin_records().empty());
}

TEST(UnreadableProfile, ReadOnlyTimestampIsADirectory)
{
    ASSERT_TRUE(e2e::make_directory(ro_path, 0755));
    ASSERT_TRUE(e2e::write_file(rw_path, "v1\n", 0644));
    ASSERT_TRUE(e2e::write_file(policy_path, "1\nalpha\n", 0644));
    start_and_expect_push_messages({{"get_timestamp_ro", "timestampro fscanf return value -1\n"}});
    EXPECT_EQ(e2e::read_file(rw_path), "v1\n");
}

TEST(UnreadableProfile, ReadWriteTimestampIsADirectory)
{
    ASSERT_TRUE(e2e::write_file(ro_path, "v2\n", 0644));
    ASSERT_TRUE(e2e::make_directory(rw_path, 0755));
    ASSERT_TRUE(e2e::write_file(policy_path, "1\nalpha\n", 0644));
    start_and_expect_push_messages({{"get_timestamp_rw", "timestamprw fscanf return value -1\n"}});
    EXPECT_TRUE(e2e::is_directory(rw_path));
}

TEST(UnreadableProfile, PolicyFileIsADirectoryReadsAsEmpty)
{
    ASSERT_TRUE(e2e::write_file(ro_path, "v2\n", 0644));
    ASSERT_TRUE(e2e::write_file(rw_path, "v1\n", 0644));
    ASSERT_TRUE(e2e::make_directory(policy_path, 0755));
    // fopen succeeds on a directory: no "failed to fopen policy", but the
    // first fscanf fails and the count stays -1.
    start_and_expect_push_messages({{"set_pellan_admin_polices", "failed to read policy\n"}});
    EXPECT_EQ(e2e::read_file(rw_path), "v1\n");
}

} // namespace
