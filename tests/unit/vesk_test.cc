// The platform log stand-in: the VESK_LOG_FILE record format and escaping,
// the syslog(3) priorities and ident, whole records from concurrent writers,
// errno kept, and no deadlock in a child forked while other threads log.
//
// syslog and openlog are defined in this program, so the library's calls land
// here instead of in the C library: the test sees what would have gone to the
// system log.
#include <vesk.h>

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

struct syslog_call {
    int priority;
    std::string text;
};

std::mutex syslog_calls_lock;
std::vector<syslog_call> syslog_calls;
std::string last_ident;
std::atomic<int> syslog_hook_signal{0};

} // namespace

extern "C" void openlog(const char *ident, int, int)
{
    std::lock_guard<std::mutex> hold(syslog_calls_lock);
    last_ident = ident ? ident : "";
}

namespace {

void record_syslog_call(int priority, const char *fmt, va_list ap)
{
    char text[8192];
    vsnprintf(text, sizeof text, fmt, ap);
    {
        std::lock_guard<std::mutex> hold(syslog_calls_lock);
        if (syslog_calls.size() < 10000)
            syslog_calls.push_back({priority, text});
    }
    // Lets a test interrupt the library inside its syslog section.
    int sig = syslog_hook_signal.exchange(0);
    if (sig)
        raise(sig);
}

} // namespace

extern "C" void syslog(int priority, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    record_syslog_call(priority, fmt, ap);
    va_end(ap);
}

// The name syslog() takes in a library built with _FORTIFY_SOURCE.
extern "C" void __syslog_chk(int priority, int, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    record_syslog_call(priority, fmt, ap);
    va_end(ap);
}

namespace {

std::string make_temp_dir()
{
    char path[] = "/tmp/vesk-test-XXXXXX";
    EXPECT_NE(mkdtemp(path), nullptr) << strerror(errno);
    return path;
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<std::string> split_lines(const std::string &raw)
{
    std::vector<std::string> lines;
    std::istringstream in(raw);
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

void clear_syslog_calls()
{
    std::lock_guard<std::mutex> hold(syslog_calls_lock);
    syslog_calls.clear();
}

std::vector<syslog_call> take_syslog_calls()
{
    std::lock_guard<std::mutex> hold(syslog_calls_lock);
    std::vector<syslog_call> out;
    out.swap(syslog_calls);
    return out;
}

class vesk : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir = make_temp_dir();
        path = dir + "/vesk.log";
        setenv("VESK_LOG_FILE", path.c_str(), 1);
        clear_syslog_calls();
    }
    void TearDown() override
    {
        unsetenv("VESK_LOG_FILE");
        std::string cmd = "rm -rf '" + dir + "'";
        EXPECT_EQ(system(cmd.c_str()), 0);
    }
    std::string dir;
    std::string path;
};

TEST_F(vesk, record_holds_id_priority_tag_and_text)
{
    __vesk_print(0, 6, "KELDRA", "keldra.cc: main(%d) > launched (pid:%d)\n", 12, 345);
    __vesk_print(3, 4, "OTHER", "%s-%ld", "plain", 7L);
    EXPECT_EQ(read_file(path),
              "0\t6\tKELDRA\tkeldra.cc: main(12) > launched (pid:345)\\n\n"
              "3\t4\tOTHER\tplain-7\n");
}

TEST_F(vesk, text_is_escaped_to_one_line)
{
    __vesk_print(0, 5, "KELDRA", "a\tb\\c\nd\n\n");
    EXPECT_EQ(read_file(path), "0\t5\tKELDRA\ta\\tb\\\\c\\nd\\n\\n\n");
}

TEST_F(vesk, records_are_appended)
{
    {
        std::ofstream out(path);
        out << "earlier\n";
    }
    __vesk_print(0, 3, "KELDRA", "one");
    __vesk_print(0, 3, "KELDRA", "two");
    EXPECT_EQ(read_file(path), "earlier\n0\t3\tKELDRA\tone\n0\t3\tKELDRA\ttwo\n");
}

TEST_F(vesk, null_tag_gives_an_empty_field)
{
    __vesk_print(0, 6, nullptr, "untagged");
    EXPECT_EQ(read_file(path), "0\t6\t\tuntagged\n");
}

TEST_F(vesk, long_text_is_cut_but_stays_one_line)
{
    std::string big(10000, 'x');
    __vesk_print(0, 6, "KELDRA", "%s", big.c_str());
    std::string expected = "0\t6\tKELDRA\t" + std::string(4095, 'x') + "\n";
    EXPECT_EQ(read_file(path), expected);
}

TEST_F(vesk, file_is_named_anew_at_every_call)
{
    std::string second = dir + "/second.log";
    __vesk_print(0, 6, "KELDRA", "first");
    setenv("VESK_LOG_FILE", second.c_str(), 1);
    __vesk_print(0, 6, "KELDRA", "second");
    unsetenv("VESK_LOG_FILE");
    __vesk_print(0, 6, "KELDRA", "nowhere");
    setenv("VESK_LOG_FILE", "", 1);
    __vesk_print(0, 6, "KELDRA", "nowhere either");
    EXPECT_EQ(read_file(path), "0\t6\tKELDRA\tfirst\n");
    EXPECT_EQ(read_file(second), "0\t6\tKELDRA\tsecond\n");
}

TEST_F(vesk, priorities_map_to_syslog_levels)
{
    static const char tag[] = "VESKMAP";
    __vesk_print(0, 6, tag, "e %d", 1);
    __vesk_print(0, 5, tag, "w");
    __vesk_print(0, 4, tag, "i");
    __vesk_print(0, 3, tag, "d\n");
    __vesk_print(0, 9, tag, "other");
    std::vector<syslog_call> calls = take_syslog_calls();
    ASSERT_EQ(calls.size(), 5u);
    EXPECT_EQ(calls[0].priority, LOG_ERR);
    EXPECT_EQ(calls[0].text, "e 1");
    EXPECT_EQ(calls[1].priority, LOG_WARNING);
    EXPECT_EQ(calls[1].text, "w");
    EXPECT_EQ(calls[2].priority, LOG_INFO);
    EXPECT_EQ(calls[3].priority, LOG_DEBUG);
    EXPECT_EQ(calls[3].text, "d\n");
    EXPECT_EQ(calls[4].priority, LOG_NOTICE);
    std::lock_guard<std::mutex> hold(syslog_calls_lock);
    EXPECT_EQ(last_ident, "VESKMAP");
}

TEST_F(vesk, errno_is_kept)
{
    errno = EDOM;
    __vesk_print(0, 6, "KELDRA", "written");
    EXPECT_EQ(errno, EDOM);

    // The record file cannot be opened: the failure does not leak into errno.
    setenv("VESK_LOG_FILE", (dir + "/missing/vesk.log").c_str(), 1);
    errno = ERANGE;
    __vesk_print(0, 6, "KELDRA", "lost");
    EXPECT_EQ(errno, ERANGE);

    errno = EILSEQ;
    EXPECT_LT(__vesk_print(0, 6, "KELDRA", nullptr), 0);
    EXPECT_EQ(errno, EILSEQ);
}

TEST_F(vesk, concurrent_writers_give_whole_lines)
{
    constexpr int threads = 8;
    constexpr int per_thread = 400;
    // Long records: a torn write would show as a broken line.
    const std::string pad(3000, 'p');
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([t, &pad] {
            for (int i = 0; i < per_thread; ++i)
                __vesk_print(0, 4, "KELDRA", "thread %d record %d %s\n", t, i, pad.c_str());
        });
    for (auto &w : workers)
        w.join();

    std::vector<std::string> lines = split_lines(read_file(path));
    ASSERT_EQ(lines.size(), static_cast<size_t>(threads * per_thread));
    int next[threads] = {};
    for (const std::string &line : lines) {
        int t = -1, i = -1;
        char rest[8];
        ASSERT_EQ(sscanf(line.c_str(), "0\t4\tKELDRA\tthread %d record %d %1s", &t, &i, rest), 3)
            << line.substr(0, 80);
        ASSERT_GE(t, 0);
        ASSERT_LT(t, threads);
        EXPECT_EQ(line, "0\t4\tKELDRA\tthread " + std::to_string(t) + " record "
                            + std::to_string(i) + " " + pad + "\\n");
        EXPECT_EQ(i, next[t]) << "records of thread " << t << " out of order";
        next[t] = i + 1;
    }
}

// A child forked while other threads are inside the library must still be
// able to log.
TEST_F(vesk, child_forked_while_threads_log_can_log)
{
    std::atomic<bool> stop{false};
    std::vector<std::thread> loggers;
    for (int t = 0; t < 3; ++t)
        loggers.emplace_back([&stop] {
            while (!stop)
                __vesk_print(0, 3, "KELDRA", "busy\n");
        });
    int stuck = 0;
    for (int round = 0; round < 150 && stuck == 0; ++round) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            __vesk_print(0, 6, "KELDRA", "from child\n");
            _exit(0);
        }
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        int status = 0;
        pid_t r = 0;
        while ((r = waitpid(pid, &status, WNOHANG)) == 0
               && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (r == 0) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            stuck = round + 1;
        } else {
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        }
    }
    stop = true;
    for (auto &t : loggers)
        t.join();
    EXPECT_EQ(stuck, 0) << "child of fork " << stuck << " hung in the log library";
    std::string all = read_file(path);
    size_t children = 0;
    for (size_t at = all.find("from child"); at != std::string::npos;
         at = all.find("from child", at + 1))
        ++children;
    EXPECT_EQ(children, 150u);
}

std::atomic<int> nested_result{-100};

void log_from_handler(int)
{
    nested_result = __vesk_print(0, 5, "KELDRA", "from handler");
}

// A signal handler that logs while its thread is inside the library's syslog
// section gets its record into the file and skips syslog instead of
// deadlocking on it.
TEST_F(vesk, call_from_signal_handler_inside_a_call_does_not_deadlock)
{
    struct sigaction sa {};
    sa.sa_handler = log_from_handler;
    sigemptyset(&sa.sa_mask);
    struct sigaction old {};
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);
    syslog_hook_signal = SIGUSR1;
    __vesk_print(0, 6, "KELDRA", "outer");
    sigaction(SIGUSR1, &old, nullptr);

    EXPECT_GT(nested_result.load(), 0);
    std::vector<syslog_call> calls = take_syslog_calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].text, "outer");
    EXPECT_EQ(read_file(path), "0\t5\tKELDRA\tfrom handler\n0\t6\tKELDRA\touter\n");
}

} // namespace
