// The process toolkit: ready files, process lookup by name, waiting for a
// process that is not a child, and thread labels.
#include "keldra.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <fstream>
#include <thread>

namespace {

std::string read_all(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

int open_fd_count()
{
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    while (struct dirent *e = readdir(d))
        n += e->d_name[0] != '.';
    closedir(d);
    return n - 1;  // the directory's own descriptor
}

// Starts `sleep` with the given argv[0]; returns its pid.
pid_t spawn_named(const char *argv0)
{
    pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sleep", argv0, "60", (char *)nullptr);
        _exit(127);
    }
    // Wait until the exec has replaced the command line.
    for (int i = 0; i < 2000; ++i) {
        std::ifstream in("/proc/" + std::to_string(pid) + "/cmdline");
        std::string first;
        std::getline(in, first, '\0');
        if (first == argv0)
            break;
        usleep(1000);
    }
    return pid;
}

void stop(pid_t pid)
{
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

} // namespace

TEST(ready_file, creating_a_new_file_gives_an_empty_file_of_mode_0600)
{
    umask(0);
    ASSERT_EQ(keldra_ready_file_done("/run/test.ready"), 0);
    struct stat st;
    ASSERT_EQ(stat("/run/test.ready", &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(st.st_size, 0);
    EXPECT_TRUE(keldra_is_ready_file_done("/run/test.ready"));
}

TEST(ready_file, an_existing_file_keeps_its_content_and_mode)
{
    {
        std::ofstream out("/run/existing.ready");
        out << "content";
    }
    chmod("/run/existing.ready", 0644);
    EXPECT_EQ(keldra_ready_file_done("/run/existing.ready"), 0);
    EXPECT_EQ(read_all("/run/existing.ready"), "content");
    struct stat st;
    ASSERT_EQ(stat("/run/existing.ready", &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
}

TEST(ready_file, a_missing_directory_gives_minus_enoent)
{
    EXPECT_EQ(keldra_ready_file_done("/run/no-such-dir/x.ready"), -ENOENT);
}

TEST(ready_file, a_dangling_symbolic_link_is_not_ready)
{
    ASSERT_EQ(symlink("/run/nowhere", "/run/dangling.ready"), 0);
    EXPECT_FALSE(keldra_is_ready_file_done("/run/dangling.ready"));
    EXPECT_FALSE(keldra_is_ready_file_done("/run/absent.ready"));
}

TEST(find_process_by_name, matches_the_exact_first_argument_only)
{
    pid_t exact = spawn_named("/usr/bin/tavish");
    pid_t bare = spawn_named("tavish");
    pid_t longer = spawn_named("/usr/bin/tavishd");
    EXPECT_EQ(keldra_find_process_by_name("/usr/bin/tavish"), exact);
    stop(exact);
    EXPECT_EQ(keldra_find_process_by_name("/usr/bin/tavish"), -1);
    stop(bare);
    stop(longer);
}

TEST(find_process_by_name, a_first_argument_rewritten_with_blanks_matches_its_first_word)
{
    pid_t pid = spawn_named("/usr/bin/tavish --with more words");
    EXPECT_EQ(keldra_find_process_by_name("/usr/bin/tavish"), pid);
    stop(pid);
}

TEST(find_process_by_name, of_two_matches_the_first_listed_wins)
{
    pid_t a = spawn_named("/usr/bin/orvel");
    pid_t b = spawn_named("/usr/bin/orvel");
    // /proc lists processes in ascending pid order.
    EXPECT_EQ(keldra_find_process_by_name("/usr/bin/orvel"), std::min(a, b));
    stop(a);
    stop(b);
}

TEST(find_process_by_name, a_blank_first_argument_matches_nothing)
{
    pid_t pid = spawn_named("   ");
    EXPECT_EQ(keldra_find_process_by_name(""), -1);
    EXPECT_EQ(keldra_find_process_by_name("   "), -1);
    stop(pid);
}

TEST(wait_for_pid, a_missing_process_fails_at_the_watch_at_once)
{
    pid_t pid = spawn_named("gone");
    stop(pid);
    int fds = open_fd_count();
    int result = 0;
    auto log = capture_log([&] { result = wait_for_pid(pid); });
    EXPECT_EQ(result, -1);
    ASSERT_EQ(log.size(), 1u) << dump_log(log);
    EXPECT_EQ(log[0].level, 'E');
    EXPECT_EQ(log[0].text, "Error inotify_add_watch: No such file or directory\n");
    EXPECT_EQ(open_fd_count(), fds);
}

TEST(wait_for_pid, a_negative_pid_is_refused_and_zero_is_not)
{
    auto log = capture_log([] { EXPECT_EQ(wait_for_pid(-1), -1); });
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].text, "Invalid pid\n");
    log = capture_log([] { EXPECT_EQ(wait_for_pid(0), -1); });
    ASSERT_EQ(log.size(), 1u) << dump_log(log);
    EXPECT_EQ(log[0].text.rfind("Error inotify_add_watch: ", 0), 0u);
}

TEST(wait_for_pid, returns_the_pid_when_the_process_ends)
{
    pid_t pid = spawn_named("/usr/bin/watched");
    std::thread killer([pid] {
        usleep(300000);
        kill(pid, SIGKILL);
    });
    int result = 0;
    auto log = capture_log([&] { result = wait_for_pid(pid); });
    killer.join();
    waitpid(pid, nullptr, 0);
    EXPECT_EQ(result, pid);
    std::string p = std::to_string(pid);
    ASSERT_GE(log.size(), 3u) << dump_log(log);
    EXPECT_EQ(log[0].level, 'I');
    EXPECT_EQ(log[0].text, "Wait for inotify_event for pid:" + p + " ...\n");
    EXPECT_EQ(log[1].text, "inotify_event received : 0x00000010 for pid: " + p + "\n");
    EXPECT_EQ(log.back().text, "Finished wait for pid:" + p + "\n");
}

TEST(wait_for_pid, any_read_only_close_of_the_executable_ends_the_wait)
{
    pid_t pid = spawn_named("/usr/bin/still-running");
    std::thread toucher([] {
        usleep(300000);
        int fd = open("/bin/sleep", O_RDONLY);
        close(fd);
    });
    int result = wait_for_pid(pid);
    toucher.join();
    EXPECT_EQ(result, pid);
    EXPECT_EQ(kill(pid, 0), 0) << "the process itself still runs";
    stop(pid);
}

TEST(set_label, a_label_is_written_for_the_calling_thread)
{
    const char *dir = getenv("SMACK_SIM_DIR");
    if (!dir)
        GTEST_SKIP() << "kernel labels are checked by the Smack VM test";
    int fds = open_fd_count();
    int result = -2;
    auto log = capture_log([&] { result = keldra_set_label("System"); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(open_fd_count(), fds);
    std::string tid = std::to_string(gettid());
    std::string records = read_all(std::string(dir) + "/smack-labels");
    EXPECT_NE(records.find("tid=" + tid + " label=System\n"), std::string::npos) << records;
    ASSERT_EQ(log.size(), 2u) << dump_log(log);
    EXPECT_EQ(log[0].level, 'D');
    EXPECT_EQ(log[0].text, "Set domain label(System)\n");
    EXPECT_EQ(log[1].text,
              "label(System) is set to /proc/self/task/" + tid + "/attr/current successfully ...\n");
}

TEST(set_label, a_refused_label_fails_in_the_write_and_closes_the_descriptor)
{
    const char *dir = getenv("SMACK_SIM_DIR");
    if (!dir)
        GTEST_SKIP() << "kernel labels are checked by the Smack VM test";
    {
        std::ofstream refuse(std::string(dir) + "/smack-refuse");
        refuse << "System::Privileged\n";
    }
    int fds = open_fd_count();
    int result = 0;
    auto log = capture_log([&] { result = keldra_set_label("System::Privileged"); });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(open_fd_count(), fds);
    ASSERT_EQ(log.size(), 2u) << dump_log(log);
    EXPECT_EQ(log[1].level, 'E');
    EXPECT_EQ(log[1].text, "failed to write label(System::Privileged)...(errno : Invalid argument)\n");
}

TEST(write_pidfile, replaces_a_longer_older_content_with_the_pid_and_a_newline)
{
    int fd = open("/tmp/pidfile-test", O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    const char old[] = "99999999 a much longer older content\n";
    ASSERT_EQ(write(fd, old, sizeof old - 1), (ssize_t)(sizeof old - 1));
    close(fd);
    fd = open("/tmp/pidfile-test", O_RDWR);
    EXPECT_EQ(keldra_write_pidfile(fd), 0);
    close(fd);
    EXPECT_EQ(read_all("/tmp/pidfile-test"), std::to_string(getpid()) + "\n");
}

TEST(write_pidfile, a_read_only_descriptor_fails_at_the_truncation_without_line_end)
{
    int fd = open("/tmp/pidfile-ro", O_RDONLY | O_CREAT, 0600);
    int result = 0;
    auto log = capture_log([&] { result = keldra_write_pidfile(fd); });
    close(fd);
    EXPECT_EQ(result, -1);
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].text.rfind("Could not truncate lock file: ", 0), 0u);
    EXPECT_NE(log[0].text.back(), '\n');
}
