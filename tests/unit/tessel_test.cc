// The event-IPC stand-in: waiting for files to appear, with inotify, a
// time-out, argument errors, the result buffer and no descriptor leak. Every
// file lives under a fresh mkdtemp directory.
#include <tessel.h>

#include <gtest/gtest.h>

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;
using std::chrono::milliseconds;

long long ms_since(clock_type::time_point start)
{
    return std::chrono::duration_cast<milliseconds>(clock_type::now() - start).count();
}

void touch(const std::string &path)
{
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0) << path << ": " << strerror(errno);
    close(fd);
}

int count_open_fds()
{
    DIR *d = opendir("/proc/self/fd");
    if (!d)
        return -1;
    int n = 0;
    while (struct dirent *e = readdir(d))
        if (e->d_name[0] != '.')
            ++n;
    closedir(d);
    return n;
}

// Finds an inotify descriptor of this process and returns its open flags
// from fdinfo, or -1 when there is none.
long inotify_fd_flags()
{
    DIR *d = opendir("/proc/self/fd");
    if (!d)
        return -1;
    long flags = -1;
    while (struct dirent *e = readdir(d)) {
        if (e->d_name[0] == '.')
            continue;
        std::string link = std::string("/proc/self/fd/") + e->d_name;
        char target[256] = {};
        if (readlink(link.c_str(), target, sizeof target - 1) < 0)
            continue;
        if (strcmp(target, "anon_inode:inotify") != 0)
            continue;
        std::string info = std::string("/proc/self/fdinfo/") + e->d_name;
        FILE *f = fopen(info.c_str(), "r");
        if (!f)
            continue;
        char line[256];
        while (fgets(line, sizeof line, f))
            if (sscanf(line, "flags: %lo", &flags) == 1)
                break;
        fclose(f);
    }
    closedir(d);
    return flags;
}

class tessel : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/tessel-test-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr) << strerror(errno);
        dir = tmpl;
    }
    void TearDown() override
    {
        for (auto &t : helpers)
            t.join();
        std::string cmd = "rm -rf '" + dir + "'";
        EXPECT_EQ(system(cmd.c_str()), 0);
    }
    std::string path(const std::string &name) const { return dir + "/" + name; }

    // Creates path after delay_ms on a helper thread.
    void touch_later(const std::string &p, int delay_ms)
    {
        helpers.emplace_back([p, delay_ms] {
            std::this_thread::sleep_for(milliseconds(delay_ms));
            touch(p);
        });
    }

    std::string dir;
    std::vector<std::thread> helpers;
};

TEST_F(tessel, all_present_returns_at_once)
{
    std::vector<std::string> names = {path("a"), path("b"), path("c")};
    for (auto &n : names)
        touch(n);
    const char *events[] = {names[0].c_str(), names[1].c_str(), names[2].c_str()};
    char result[256];
    memset(result, 'x', sizeof result);
    auto start = clock_type::now();
    EXPECT_EQ(TesselWaitMultiEvents(events, 3, 1, 30000, result, sizeof result), 0);
    EXPECT_LT(ms_since(start), 1000) << "no wait when everything is there";
    EXPECT_EQ(std::string(result), names[0] + "\n" + names[1] + "\n" + names[2] + "\n");
}

TEST_F(tessel, one_appearing_later_ends_the_wait)
{
    std::string present = path("present"), late = path("late");
    touch(present);
    const char *events[] = {present.c_str(), late.c_str()};
    char result[64] = {};
    auto start = clock_type::now();
    touch_later(late, 200);
    EXPECT_EQ(TesselWaitMultiEvents(events, 2, 1, 10000, result, sizeof result), 0);
    long long elapsed = ms_since(start);
    EXPECT_GE(elapsed, 200);
    EXPECT_LT(elapsed, 2000);
    EXPECT_EQ(access(late.c_str(), F_OK), 0);
}

TEST_F(tessel, time_out_gives_a_positive_result)
{
    std::string present = path("present"), never = path("never");
    touch(present);
    const char *events[] = {present.c_str(), never.c_str()};
    char result[256];
    auto start = clock_type::now();
    int r = TesselWaitMultiEvents(events, 2, 1, 300, result, sizeof result);
    long long elapsed = ms_since(start);
    EXPECT_GT(r, 0);
    EXPECT_EQ(r, 1) << "one event is still missing";
    EXPECT_GE(elapsed, 300);
    EXPECT_LT(elapsed, 1300);
    EXPECT_EQ(std::string(result), present + "\n");
}

TEST_F(tessel, zero_time_out_checks_once)
{
    std::string never = path("never");
    const char *events[] = {never.c_str()};
    auto start = clock_type::now();
    EXPECT_EQ(TesselWaitMultiEvents(events, 1, 1, 0, nullptr, 0), 1);
    EXPECT_LT(ms_since(start), 1000);
    touch(never);
    EXPECT_EQ(TesselWaitMultiEvents(events, 1, 1, 0, nullptr, 0), 0);
}

TEST_F(tessel, negative_time_out_waits_without_limit)
{
    std::string late = path("late");
    const char *events[] = {late.c_str()};
    auto start = clock_type::now();
    touch_later(late, 200);
    EXPECT_EQ(TesselWaitMultiEvents(events, 1, 1, -1, nullptr, 0), 0);
    EXPECT_GE(ms_since(start), 200);
}

TEST_F(tessel, file_moved_into_place_is_seen)
{
    std::string staging = path("staging"), target = path("moved");
    touch(staging);
    const char *events[] = {target.c_str()};
    auto start = clock_type::now();
    helpers.emplace_back([staging, target] {
        std::this_thread::sleep_for(milliseconds(200));
        rename(staging.c_str(), target.c_str());
    });
    EXPECT_EQ(TesselWaitMultiEvents(events, 1, 1, 10000, nullptr, 0), 0);
    long long elapsed = ms_since(start);
    EXPECT_GE(elapsed, 200);
    EXPECT_LT(elapsed, 2000);
}

TEST_F(tessel, file_created_and_removed_while_waiting_counts_as_raised)
{
    std::string flash = path("flash"), late = path("late");
    const char *events[] = {flash.c_str(), late.c_str()};
    helpers.emplace_back([flash, late] {
        std::this_thread::sleep_for(milliseconds(100));
        touch(flash);
        unlink(flash.c_str());
        std::this_thread::sleep_for(milliseconds(200));
        touch(late);
    });
    EXPECT_EQ(TesselWaitMultiEvents(events, 2, 1, 10000, nullptr, 0), 0);
}

TEST_F(tessel, five_events_like_the_supervisor)
{
    ASSERT_EQ(mkdir(path("run").c_str(), 0755), 0);
    std::vector<std::string> names = {path("run/dunmar.pid"), path("run/orvel.ready"),
                                      path("run/tavish.ready"), path("run/pellan.ready"),
                                      path("keldra.ready")};
    const char *events[5];
    for (int i = 0; i < 5; ++i)
        events[i] = names[i].c_str();
    touch(names[1]);
    char result[64];
    memset(result, 0, sizeof result);
    auto start = clock_type::now();
    helpers.emplace_back([names] {
        const int order[] = {3, 0, 4, 2};
        for (int i : order) {
            std::this_thread::sleep_for(milliseconds(100));
            touch(names[i]);
        }
    });
    EXPECT_EQ(TesselWaitMultiEvents(events, 5, 1, 30000, result, sizeof result), 0);
    long long elapsed = ms_since(start);
    EXPECT_GE(elapsed, 400);
    EXPECT_LT(elapsed, 3000);
    for (auto &n : names)
        EXPECT_EQ(access(n.c_str(), F_OK), 0) << n;
    EXPECT_EQ(strlen(result), 63u) << "result cut to the 64-byte buffer";
}

TEST_F(tessel, mode_any_returns_on_the_first_event)
{
    std::string a = path("a"), b = path("b"), c = path("c");
    const char *events[] = {a.c_str(), b.c_str(), c.c_str()};
    char result[256] = {};
    auto start = clock_type::now();
    touch_later(b, 200);
    EXPECT_EQ(TesselWaitMultiEvents(events, 3, 0, 10000, result, sizeof result), 0);
    EXPECT_GE(ms_since(start), 200);
    EXPECT_LT(ms_since(start), 2000);
    EXPECT_EQ(std::string(result), b + "\n");
}

TEST_F(tessel, mode_any_times_out_with_the_count)
{
    std::string a = path("a"), b = path("b");
    const char *events[] = {a.c_str(), b.c_str()};
    EXPECT_EQ(TesselWaitMultiEvents(events, 2, 0, 100, nullptr, 0), 2);
}

TEST_F(tessel, result_is_cut_and_terminated)
{
    std::string a = path("a");
    touch(a);
    const char *events[] = {a.c_str()};
    char result[8];
    memset(result, 'x', sizeof result);
    EXPECT_EQ(TesselWaitMultiEvents(events, 1, 1, 0, result, sizeof result), 0);
    EXPECT_EQ(std::string(result), a.substr(0, 7));
    char one = 'x';
    EXPECT_EQ(TesselWaitMultiEvents(events, 1, 1, 0, &one, 1), 0);
    EXPECT_EQ(one, '\0');
}

TEST_F(tessel, bad_arguments_are_refused)
{
    std::string ok = path("ok");
    touch(ok);
    const char *good[] = {ok.c_str()};
    char result[32];
    memset(result, 'x', sizeof result);
    EXPECT_EQ(TesselWaitMultiEvents(nullptr, 1, 1, 0, result, sizeof result), -EINVAL);
    EXPECT_EQ(result[0], '\0') << "result is emptied on error";
    EXPECT_EQ(TesselWaitMultiEvents(good, 0, 1, 0, nullptr, 0), -EINVAL);
    EXPECT_EQ(TesselWaitMultiEvents(good, -1, 1, 0, nullptr, 0), -EINVAL);
    EXPECT_EQ(TesselWaitMultiEvents(good, 1, 2, 0, nullptr, 0), -EINVAL);
    EXPECT_EQ(TesselWaitMultiEvents(good, 1, -1, 0, nullptr, 0), -EINVAL);

    const char *relative[] = {"relative/name"};
    EXPECT_EQ(TesselWaitMultiEvents(relative, 1, 1, 0, nullptr, 0), -EINVAL);
    const char *empty[] = {""};
    EXPECT_EQ(TesselWaitMultiEvents(empty, 1, 1, 0, nullptr, 0), -EINVAL);
    const char *null_name[] = {ok.c_str(), nullptr};
    EXPECT_EQ(TesselWaitMultiEvents(null_name, 2, 1, 0, nullptr, 0), -EINVAL);
    std::string slash = dir + "/";
    const char *trailing[] = {slash.c_str()};
    EXPECT_EQ(TesselWaitMultiEvents(trailing, 1, 1, 0, nullptr, 0), -EINVAL);
    std::string huge = "/" + std::string(PATH_MAX, 'n');
    const char *too_long[] = {huge.c_str()};
    EXPECT_EQ(TesselWaitMultiEvents(too_long, 1, 1, 0, nullptr, 0), -ENAMETOOLONG);
}

TEST_F(tessel, missing_parent_directory_is_an_error)
{
    std::string orphan = path("no-such-dir/file");
    std::string ok = path("ok");
    touch(ok);
    const char *events[] = {ok.c_str(), orphan.c_str()};
    auto start = clock_type::now();
    EXPECT_EQ(TesselWaitMultiEvents(events, 2, 1, 5000, nullptr, 0), -ENOENT);
    EXPECT_LT(ms_since(start), 1000) << "an error does not wait for the time-out";
}

TEST_F(tessel, parent_that_is_a_file_is_an_error)
{
    std::string file = path("file");
    touch(file);
    std::string below = file + "/child";
    const char *events[] = {below.c_str()};
    EXPECT_EQ(TesselWaitMultiEvents(events, 1, 1, 5000, nullptr, 0), -ENOTDIR);
}

TEST_F(tessel, parent_removed_while_waiting_is_an_error)
{
    std::string sub = path("sub");
    ASSERT_EQ(mkdir(sub.c_str(), 0755), 0);
    std::string name = sub + "/never";
    const char *events[] = {name.c_str()};
    helpers.emplace_back([sub] {
        std::this_thread::sleep_for(milliseconds(200));
        rmdir(sub.c_str());
    });
    auto start = clock_type::now();
    EXPECT_EQ(TesselWaitMultiEvents(events, 1, 1, 10000, nullptr, 0), -ENOENT);
    EXPECT_LT(ms_since(start), 2000);
}

TEST_F(tessel, inotify_descriptor_is_close_on_exec)
{
    std::string late = path("late");
    const char *events[] = {late.c_str()};
    long flags = -2;
    helpers.emplace_back([&flags, late] {
        // Look while the wait is under way, then end it.
        auto deadline = clock_type::now() + std::chrono::seconds(5);
        while ((flags = inotify_fd_flags()) < 0 && clock_type::now() < deadline)
            std::this_thread::sleep_for(milliseconds(5));
        touch(late);
    });
    EXPECT_EQ(TesselWaitMultiEvents(events, 1, 1, 10000, nullptr, 0), 0);
    helpers.back().join();
    helpers.pop_back();
    ASSERT_GE(flags, 0) << "no inotify descriptor seen during the wait";
    EXPECT_NE(flags & O_CLOEXEC, 0);
}

TEST_F(tessel, no_descriptor_leak_on_any_path)
{
    std::string present = path("present"), late = path("late"), never = path("never");
    std::string orphan = path("missing/x");
    touch(present);
    int before = count_open_fds();
    ASSERT_GT(before, 0);

    const char *immediate[] = {present.c_str()};
    EXPECT_EQ(TesselWaitMultiEvents(immediate, 1, 1, 1000, nullptr, 0), 0);
    const char *timeout[] = {present.c_str(), never.c_str()};
    EXPECT_GT(TesselWaitMultiEvents(timeout, 2, 1, 50, nullptr, 0), 0);
    const char *error_after_watches[] = {never.c_str(), orphan.c_str()};
    EXPECT_EQ(TesselWaitMultiEvents(error_after_watches, 2, 1, 1000, nullptr, 0), -ENOENT);
    const char *invalid[] = {"relative"};
    EXPECT_EQ(TesselWaitMultiEvents(invalid, 1, 1, 1000, nullptr, 0), -EINVAL);
    const char *waited[] = {late.c_str()};
    touch_later(late, 50);
    EXPECT_EQ(TesselWaitMultiEvents(waited, 1, 1, 10000, nullptr, 0), 0);
    helpers.back().join();
    helpers.pop_back();

    EXPECT_EQ(count_open_fds(), before);
}

} // namespace
