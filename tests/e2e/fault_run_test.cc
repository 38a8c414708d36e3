// /run unusable before the supervisor starts: read-only (the sandbox's tmpfs
// remounted read-only) or full (a tmpfs with a handful of inodes, all used).
// The ready files cannot be created ("Can't set event done for %s. error: %d"
// with -EROFS or -ENOSPC) and the start goes on; the checker's runtime
// directory cannot be made, and its launcher goes round without pause, so
// these scenarios keep that phase short. The supervisor still starts, stops
// cleanly on SIGTERM, and the checker comes up once /run is usable again.
#include "fault_support.h"

namespace {

using namespace std::chrono_literals;
using e2e::format_text;

constexpr const char *no_directory = "can't create directory (/run/pellan)\n";

std::string not_marked(const char *path, int error)
{
    return format_text("Can't set event done for %s. error: %d\n", path, -error);
}

// The launcher of the checker goes round at once: twenty failed rounds come
// in well under the 19 s that a pause of one second would give.
void expect_rounds_without_pause(e2e::scenario &keldra)
{
    ASSERT_GE(keldra.wait_for_message('E', no_directory), 0);
    const uint64_t first = faults::monotonic_ns();
    ASSERT_GE(keldra.wait_for_message('E', no_directory, 10s, 20), 0);
    EXPECT_LT(faults::monotonic_ns() - first, 5'000'000'000u);
    EXPECT_TRUE(faults::consecutive(faults::launcher_lines(keldra.messages(), faults::pellan_file),
                                    {
                                        {'W', "No process pellan found, start new one!\n"},
                                        {'E', no_directory},
                                        {'W', "No process pellan found, start new one!\n"},
                                        {'E', no_directory},
                                    }));
}

std::vector<e2e::log_record> main_thread_lines(const e2e::scenario &keldra)
{
    std::vector<e2e::log_record> lines;
    for (const e2e::log_record &record : keldra.messages())
        if (record.file == "keldra-main.cc")
            lines.push_back(record);
    return lines;
}

// What a start with /run unusable (error: EROFS or ENOSPC) looks like: every
// ready file refused, the start completed, no checker, the other daemons up.
void expect_start_without_ready_files(e2e::scenario &keldra, int error)
{
    ASSERT_TRUE(keldra.start());
    ASSERT_NO_FATAL_FAILURE(expect_rounds_without_pause(keldra));
    const std::string keldra_ready = not_marked("/run/keldra.ready", error);
    ASSERT_GE(keldra.wait_for_message('E', keldra_ready), 0);
    ASSERT_GE(keldra.wait_for_message('I', faults::launched_text(keldra.pid())), 0);
    // On the main thread: the failure, then at once the launch line.
    EXPECT_TRUE(faults::consecutive(main_thread_lines(keldra),
                                    {{'E', keldra_ready},
                                     {'I', faults::launched_text(keldra.pid())}}));
    faults::expect_platform_record(keldra, 'E', keldra_ready, "keldra-main.cc", "main");
    EXPECT_GE(keldra.wait_for_message('E', not_marked("/run/orvel.ready", error)), 0);
    EXPECT_GE(keldra.wait_for_message('E', not_marked("/run/tavish.ready", error)), 0);
    faults::expect_platform_record(keldra, 'E', not_marked("/run/tavish.ready", error),
                                   faults::tavish_file, "tavish_launcher_handler");
    for (const char *name : {"orvel", "dunmar", "tavish"})
        EXPECT_GT(e2e::wait_for_daemon(name), 0) << name;
    for (const char *path :
         {"/run/keldra.ready", "/run/orvel.ready", "/run/tavish.ready", "/run/pellan"})
        EXPECT_FALSE(e2e::exists(path)) << path;
    EXPECT_TRUE(e2e::starts("pellan").empty());
    EXPECT_EQ(keldra.count_messages('E', "failed to launch pellan\n"), 0);
    std::cout << keldra.count_messages('E', no_directory)
              << " rounds of the checker launcher so far, "
              << keldra.stderr_text().size() << " bytes of stderr\n";
}

// SIGTERM: every row finished in table order, the lock released, exit 0.
void expect_clean_stop(e2e::scenario &keldra)
{
    const int from = int(keldra.messages().size());
    ASSERT_TRUE(keldra.send_signal(SIGTERM));
    EXPECT_EQ(keldra.wait_exit(40s), e2e::exit_status::with_code(0));
    auto records = keldra.messages();
    // Row 0's thread goes round without pause and reads `finished` at the top
    // of every round: it may see it raised and return before the
    // cancellation takes effect, and then no "cancelled" line is written.
    std::vector<e2e::expected_message> stop = {{'I', "Request to exit launcher\n"},
                                               {'I', "Thread 0 is finished\n"}};
    for (int row = 1; row < 4; ++row) {
        stop.push_back({'E', format_text("Thread %d is cancelled\n", row)});
        stop.push_back({'I', format_text("Thread %d is finished\n", row)});
    }
    stop.push_back({'D', format_text("[P %5ld] Finished with 0\n", long(keldra.pid()))});
    stop.push_back({'I', "Finished main loop\n"});
    std::vector<e2e::log_record> tail(records.begin() + std::min<size_t>(from, records.size()),
                                      records.end());
    EXPECT_EQ(e2e::first_missing_in_order(tail, stop), -1);
    EXPECT_LE(keldra.count_messages('E', "Thread 0 is cancelled\n"), 1);
    EXPECT_EQ(records.back().text, "Finished main loop\n");
}

TEST(RunUnusable, ReadOnlyRunRefusesEveryReadyFileThenTheCheckerStartsOnceWritable)
{
    ASSERT_EQ(mount(nullptr, "/run", nullptr, MS_REMOUNT | MS_RDONLY | MS_NOSUID | MS_NODEV,
                    nullptr),
              0)
        << strerror(errno);
    e2e::scenario keldra;
    ASSERT_NO_FATAL_FAILURE(expect_start_without_ready_files(keldra, EROFS));
    // The agent cannot write its pid file either: its launcher polls on.
    EXPECT_GE(keldra.wait_for_message('E', "dunmar is not ready\n", 10s), 0);

    ASSERT_EQ(mount(nullptr, "/run", nullptr, MS_REMOUNT | MS_NOSUID | MS_NODEV, nullptr), 0)
        << strerror(errno);
    auto checkers = e2e::wait_for_starts("pellan", 1);
    ASSERT_EQ(checkers.size(), 1u);
    EXPECT_GE(keldra.wait_for_message(
                  'I', format_text("pellan launched successfully (pid: %d)\n", checkers[0].pid)),
              0);
    EXPECT_TRUE(e2e::exists("/run/pellan.ready"));
    EXPECT_TRUE(e2e::is_socket("/run/pellan/pellan.socket"));
    // The other ready files are not tried again while their daemons live.
    EXPECT_FALSE(e2e::exists("/run/orvel.ready"));
    EXPECT_FALSE(e2e::exists("/run/tavish.ready"));
    EXPECT_FALSE(e2e::exists("/run/keldra.ready"));
    expect_clean_stop(keldra);
}

TEST(RunUnusable, FullRunRefusesEveryReadyFileAndTheSupervisorStopsCleanly)
{
    ASSERT_EQ(mount("keldra-full-run", "/run", "tmpfs", MS_NOSUID | MS_NODEV,
                    "size=8k,nr_inodes=8,mode=0755"),
              0)
        << strerror(errno);
    int fillers = 0;
    for (;; ++fillers) {
        int fd = open(format_text("/run/filler-%d", fillers).c_str(),
                      O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) {
            ASSERT_EQ(errno, ENOSPC) << strerror(errno);
            break;
        }
        close(fd);
    }
    ASSERT_GT(fillers, 0);
    e2e::scenario keldra;
    ASSERT_NO_FATAL_FAILURE(expect_start_without_ready_files(keldra, ENOSPC));
    expect_clean_stop(keldra);
    // The daemons outlive the supervisor as always.
    for (const char *name : {"orvel", "dunmar", "tavish"})
        EXPECT_EQ(e2e::daemon_pids(name).size(), 1u) << name;
}

} // namespace
