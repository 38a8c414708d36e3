// The dual diagnostic log: the stderr stamp and line, the platform-log record
// (read back through VESK_LOG_FILE of the platform log stand-in), levels,
// call sites, open lines and arguments evaluated once per sink.
#include "keldra-log.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

struct vesk_record {
    int log_id;
    int prio;
    std::string tag;
    std::string text;  // unescaped
};

struct log_output {
    std::string err;
    std::vector<vesk_record> records;
};

std::string make_temp_file()
{
    char path[] = "/tmp/keldra-log-test-XXXXXX";
    int fd = mkstemp(path);
    EXPECT_GE(fd, 0) << strerror(errno);
    if (fd >= 0)
        close(fd);
    return path;
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string unescape(const std::string &s)
{
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] != '\\' || i + 1 == s.size()) {
            out += s[i];
            continue;
        }
        char c = s[++i];
        out += c == 'n' ? '\n' : c == 't' ? '\t' : c;
    }
    return out;
}

// Splits the platform log file into records "<id>\t<prio>\t<tag>\t<text>".
std::vector<vesk_record> parse_records(const std::string &raw)
{
    std::vector<vesk_record> out;
    std::istringstream in(raw);
    std::string line;
    while (std::getline(in, line)) {
        size_t a = line.find('\t');
        size_t b = line.find('\t', a + 1);
        size_t c = line.find('\t', b + 1);
        EXPECT_NE(c, std::string::npos) << "malformed record: " << line;
        if (c == std::string::npos)
            continue;
        out.push_back({std::stoi(line.substr(0, a)), std::stoi(line.substr(a + 1, b - a - 1)),
                       line.substr(b + 1, c - b - 1), unescape(line.substr(c + 1))});
    }
    return out;
}

// fd 2 on a temporary file and VESK_LOG_FILE on another one, between
// start_capture and finish_capture (the calls stay in the test's own body, so
// that __func__ is the test's).
struct log_capture {
    std::string err_path;
    std::string vesk_path;
    int saved_stderr;
};

log_capture start_capture()
{
    log_capture c{make_temp_file(), make_temp_file(), -1};
    setenv("VESK_LOG_FILE", c.vesk_path.c_str(), 1);
    fflush(stderr);
    c.saved_stderr = dup(2);
    int fd = open(c.err_path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    dup2(fd, 2);
    close(fd);
    return c;
}

log_output finish_capture(const log_capture &c)
{
    fflush(stderr);
    dup2(c.saved_stderr, 2);
    close(c.saved_stderr);
    unsetenv("VESK_LOG_FILE");
    log_output out{read_file(c.err_path), parse_records(read_file(c.vesk_path))};
    unlink(c.err_path.c_str());
    unlink(c.vesk_path.c_str());
    return out;
}

struct timespec raw_clock()
{
    struct timespec ts {};
    clock_gettime(CLOCK_MONOTONIC_RAW, &ts);
    return ts;
}

long long to_ns(long sec, long nsec)
{
    return static_cast<long long>(sec) * 1000000000LL + nsec;
}

const std::string stamp_re = R"(\[(\d+)\.(0|[1-9]\d*)\])";

std::string line_of(const char *level, int line, const std::string &text)
{
    return "[KELDRA][" + std::string(level) + "][log_test.cc:" + std::to_string(line) + "] " + text;
}

std::string platform_text(const char *func, int line, const std::string &text)
{
    return std::string("log_test.cc: ") + func + "(" + std::to_string(line) + ") > " + text;
}

// Strips the stamp at the start of s into sec/nsec texts; false if none.
bool take_stamp(std::string &s, std::string *sec, std::string *nsec)
{
    std::smatch m;
    if (!std::regex_search(s, m, std::regex("^" + stamp_re)))
        return false;
    *sec = m[1];
    *nsec = m[2];
    s = m.suffix();
    return true;
}

int named_caller_line;
void log_from_named_caller(int value)
{
    named_caller_line = __LINE__; keldra_log(I, "named caller %d\n", value);
}

int inlined_caller_line;
__attribute__((always_inline)) inline void log_from_inlined_caller()
{
    inlined_caller_line = __LINE__; keldra_log(W, "inlined caller\n");
}

int text_calls;
// Produces the error text of errno, then changes errno, so that a second
// evaluation reads a different errno.
const char *errno_text_then_change(char *buf)
{
    ++text_calls;
    const char *text = strerror_r(errno, buf, 256);
    errno = EACCES;
    return text;
}

TEST(log, stamp_then_line_on_stderr)
{
    int line = 0;
    struct timespec before {}, after {};
    log_capture cap = start_capture();
    before = raw_clock();
    line = __LINE__; keldra_log(E, "Thread %d is cancelled\n", 2);
    after = raw_clock();
    log_output out = finish_capture(cap);
    std::string rest = out.err;
    std::string sec, nsec;
    ASSERT_TRUE(take_stamp(rest, &sec, &nsec)) << out.err;
    EXPECT_EQ(rest, line_of("E", line, "Thread 2 is cancelled\n"));
    long long stamp = to_ns(std::stol(sec), std::stol(nsec));
    EXPECT_GE(stamp, to_ns(before.tv_sec, before.tv_nsec));
    EXPECT_LE(stamp, to_ns(after.tv_sec, after.tv_nsec));
}

TEST(log, platform_record_of_error)
{
    int line = 0;
    log_capture cap = start_capture();
    line = __LINE__; keldra_log(E, "Thread %d is cancelled\n", 2);
    log_output out = finish_capture(cap);
    ASSERT_EQ(out.records.size(), 1u);
    const vesk_record &r = out.records[0];
    EXPECT_EQ(r.log_id, 0);
    EXPECT_EQ(r.prio, 6);
    EXPECT_EQ(r.tag, "KELDRA");
    EXPECT_EQ(r.text, platform_text("TestBody", line, "Thread 2 is cancelled\n"));
}

TEST(log, levels_map_to_letters_and_priorities)
{
    int le = 0, lw = 0, li = 0, ld = 0;
    log_capture cap = start_capture();
    le = __LINE__; keldra_log(E, "level e\n");
    lw = __LINE__; keldra_log(W, "level w\n");
    li = __LINE__; keldra_log(I, "level i\n");
    ld = __LINE__; keldra_log(D, "level d\n");
    log_output out = finish_capture(cap);
    std::regex expected("^" + stamp_re + R"(\[KELDRA\]\[E\]\[log_test\.cc:)" + std::to_string(le)
                        + R"(\] level e\n)" + stamp_re + R"(\[KELDRA\]\[W\]\[log_test\.cc:)"
                        + std::to_string(lw) + R"(\] level w\n)" + stamp_re
                        + R"(\[KELDRA\]\[I\]\[log_test\.cc:)" + std::to_string(li)
                        + R"(\] level i\n)" + stamp_re + R"(\[KELDRA\]\[D\]\[log_test\.cc:)"
                        + std::to_string(ld) + R"(\] level d\n$)");
    EXPECT_TRUE(std::regex_match(out.err, expected)) << out.err;
    ASSERT_EQ(out.records.size(), 4u);
    const int prios[] = {6, 5, 4, 3};
    const int lines[] = {le, lw, li, ld};
    const char *texts[] = {"level e\n", "level w\n", "level i\n", "level d\n"};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(out.records[i].log_id, 0);
        EXPECT_EQ(out.records[i].prio, prios[i]);
        EXPECT_EQ(out.records[i].tag, "KELDRA");
        EXPECT_EQ(out.records[i].text, platform_text("TestBody", lines[i], texts[i]));
    }
}

TEST(log, message_without_line_end_leaves_the_line_open)
{
    int l1 = 0, l2 = 0;
    log_capture cap = start_capture();
    l1 = __LINE__; keldra_log(E, "Locking lock file failed: %s", "Bad file descriptor");
    l2 = __LINE__; keldra_log(D, "[P %5ld] next\n", 42L);
    log_output out = finish_capture(cap);
    std::regex expected("^" + stamp_re + R"(\[KELDRA\]\[E\]\[log_test\.cc:)" + std::to_string(l1)
                        + R"(\] Locking lock file failed: Bad file descriptor)" + stamp_re
                        + R"(\[KELDRA\]\[D\]\[log_test\.cc:)" + std::to_string(l2)
                        + R"(\] \[P    42\] next\n$)");
    EXPECT_TRUE(std::regex_match(out.err, expected)) << out.err;
    ASSERT_EQ(out.records.size(), 2u);
    EXPECT_EQ(out.records[0].text,
              platform_text("TestBody", l1, "Locking lock file failed: Bad file descriptor"));
    EXPECT_EQ(out.records[1].text, platform_text("TestBody", l2, "[P    42] next\n"));
}

TEST(log, stamp_nanoseconds_are_not_zero_padded)
{
    // Wait for a reading in the first tenth of a second, where the
    // nanoseconds have fewer than nine digits.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    bool seen_short = false;
    while (!seen_short && std::chrono::steady_clock::now() < deadline) {
        struct timespec before {}, after {};
        log_capture cap = start_capture();
        before = raw_clock();
        keldra_log(D, "tick\n");
        after = raw_clock();
        log_output out = finish_capture(cap);
        std::string rest = out.err, sec, nsec;
        ASSERT_TRUE(take_stamp(rest, &sec, &nsec)) << out.err;
        long long stamp = to_ns(std::stol(sec), std::stol(nsec));
        ASSERT_GE(stamp, to_ns(before.tv_sec, before.tv_nsec));
        ASSERT_LE(stamp, to_ns(after.tv_sec, after.tv_nsec));
        if (before.tv_sec == after.tv_sec && after.tv_nsec < 100000000L) {
            EXPECT_LT(nsec.size(), 9u) << out.err;
            EXPECT_EQ(nsec, std::to_string(std::stol(nsec))) << out.err;
            seen_short = true;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
    EXPECT_TRUE(seen_short) << "no reading in the first tenth of a second within 5 s";
}

TEST(log, function_name_is_the_calling_function)
{
    log_capture cap = start_capture();
    log_from_named_caller(7);
    log_from_inlined_caller();
    log_output out = finish_capture(cap);
    ASSERT_EQ(out.records.size(), 2u);
    EXPECT_EQ(out.records[0].prio, 4);
    EXPECT_EQ(out.records[0].text,
              platform_text("log_from_named_caller", named_caller_line, "named caller 7\n"));
    EXPECT_EQ(out.records[1].prio, 5);
    EXPECT_EQ(out.records[1].text,
              platform_text("log_from_inlined_caller", inlined_caller_line, "inlined caller\n"));
    EXPECT_NE(out.err.find(line_of("I", named_caller_line, "named caller 7\n")), std::string::npos)
        << out.err;
    EXPECT_NE(out.err.find(line_of("W", inlined_caller_line, "inlined caller\n")), std::string::npos)
        << out.err;
}

TEST(log, sinks_are_written_stamp_then_platform_then_line)
{
    // Both sinks on one file opened for appending show the order of writes.
    std::string path = make_temp_file();
    setenv("VESK_LOG_FILE", path.c_str(), 1);
    fflush(stderr);
    int saved = dup(2);
    int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    dup2(fd, 2);
    close(fd);
    const int line = __LINE__; keldra_log(W, "value %d\n", 9);
    dup2(saved, 2);
    close(saved);
    unsetenv("VESK_LOG_FILE");
    std::string all = read_file(path);
    unlink(path.c_str());
    std::regex expected("^" + stamp_re + "0\t5\tKELDRA\tlog_test\\.cc: TestBody\\("
                        + std::to_string(line) + R"(\) > value 9\\n\n\[KELDRA\]\[W\]\[log_test\.cc:)"
                        + std::to_string(line) + R"(\] value 9\n$)");
    EXPECT_TRUE(std::regex_match(all, expected)) << all;
}

TEST(log, error_text_is_produced_once_per_sink_from_errno_read_anew)
{
    char buf[256];
    text_calls = 0;
    int line = 0;
    log_capture cap = start_capture();
    errno = ENOENT;
    line = __LINE__; keldra_log(E, "open failed: %s\n", errno_text_then_change(buf));
    log_output out = finish_capture(cap);
    EXPECT_EQ(text_calls, 2);
    char enoent[256], eacces[256];
    std::string first = strerror_r(ENOENT, enoent, sizeof enoent);
    std::string second = strerror_r(EACCES, eacces, sizeof eacces);
    ASSERT_EQ(out.records.size(), 1u);
    EXPECT_EQ(out.records[0].text, platform_text("TestBody", line, "open failed: " + first + "\n"));
    std::string rest = out.err, sec, nsec;
    ASSERT_TRUE(take_stamp(rest, &sec, &nsec)) << out.err;
    EXPECT_EQ(rest, line_of("E", line, "open failed: " + second + "\n"));
}

TEST(log, error_text_of_strerror_r_in_both_sinks)
{
    char buf[256];
    int line = 0;
    log_capture cap = start_capture();
    errno = ENOENT;
    line = __LINE__; keldra_log(E, "Create/open lock file failed: %s\n", strerror_r(errno, buf, 256));
    log_output out = finish_capture(cap);
    char expect_buf[256];
    std::string text = strerror_r(ENOENT, expect_buf, sizeof expect_buf);
    ASSERT_EQ(out.records.size(), 1u);
    EXPECT_EQ(out.records[0].text,
              platform_text("TestBody", line, "Create/open lock file failed: " + text + "\n"));
    std::string rest = out.err, sec, nsec;
    ASSERT_TRUE(take_stamp(rest, &sec, &nsec)) << out.err;
    EXPECT_EQ(rest, line_of("E", line, "Create/open lock file failed: " + text + "\n"));
}

TEST(log, message_without_arguments)
{
    int line = 0;
    log_capture cap = start_capture();
    line = __LINE__; keldra_log(E, "can't open /proc\n");
    log_output out = finish_capture(cap);
    ASSERT_EQ(out.records.size(), 1u);
    EXPECT_EQ(out.records[0].text, platform_text("TestBody", line, "can't open /proc\n"));
    std::string rest = out.err, sec, nsec;
    ASSERT_TRUE(take_stamp(rest, &sec, &nsec)) << out.err;
    EXPECT_EQ(rest, line_of("E", line, "can't open /proc\n"));
}

TEST(log, platform_only_message_skips_stderr)
{
    int line = 0;
    log_capture cap = start_capture();
    line = __LINE__; keldra_log_platform(I, "quiet %s\n", "one");
    log_output out = finish_capture(cap);
    EXPECT_EQ(out.err, "");
    ASSERT_EQ(out.records.size(), 1u);
    EXPECT_EQ(out.records[0].log_id, 0);
    EXPECT_EQ(out.records[0].prio, 4);
    EXPECT_EQ(out.records[0].tag, "KELDRA");
    EXPECT_EQ(out.records[0].text, platform_text("TestBody", line, "quiet one\n"));
}

} // namespace
