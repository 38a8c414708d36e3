// The demo script, run on the host as a user would run it: it builds what it
// needs in this build directory, starts keldra and its simulated daemons in
// keldra-sandbox, and stops on Ctrl-C. The test never runs keldra itself: only
// tools/demo.sh, whose sandbox keeps every fixed path private.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

namespace {

using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;

const std::string demo_script = KELDRA_SOURCE_DIR "/tools/demo.sh";

bool wait_until(const std::function<bool()> &condition, std::chrono::milliseconds limit)
{
    auto deadline = steady::now() + limit;
    while (!condition()) {
        if (steady::now() > deadline)
            return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The file that receives the demo's stdout and stderr, in the build tree.
std::string output_path()
{
    std::string dir = std::string(KELDRA_BUILD_DIR) + "/demo-test-scratch";
    std::filesystem::create_directories(dir);
    std::string path = dir + "/output";
    std::filesystem::remove(path);
    return path;
}

// Starts tools/demo.sh in a process group of its own, like a shell job, with
// the build directory of this test; returns its pid (also the group's id).
pid_t start_demo(const std::string &output)
{
    pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        int fd = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (fd < 0 || null < 0 || dup2(null, 0) < 0 || dup2(fd, 1) < 0 || dup2(fd, 2) < 0)
            _exit(99);
        setenv("BUILD_DIR", KELDRA_BUILD_DIR, 1);
        unsetenv("DEMO_SECONDS");
        execl("/bin/bash", "bash", demo_script.c_str(), static_cast<char *>(nullptr));
        _exit(98);
    }
    if (pid > 0)
        setpgid(pid, pid);
    return pid;
}

// The exit code of the demo (128 + signal when killed), or -1 when it did not
// end in time (its whole group is then killed).
int wait_demo(pid_t pid, std::chrono::milliseconds limit)
{
    int status = 0;
    if (!wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; }, limit)) {
        kill(-pid, SIGKILL);
        waitpid(pid, &status, 0);
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST(Demo, CtrlCStopsKeldraWhichExitsWithZero)
{
    std::string output = output_path();
    pid_t demo = start_demo(output);
    ASSERT_GT(demo, 0);
    // The build step comes first; it has nothing to do when the tests are built.
    bool ready = wait_until(
        [&] { return read_file(output).find("] keldra launched successfully (pid:") !=
                     std::string::npos; },
        120s);
    if (!ready) {
        kill(-demo, SIGKILL);
        waitpid(demo, nullptr, 0);
        FAIL() << "keldra did not report itself ready; demo output:\n" << read_file(output);
    }
    // Ctrl-C: SIGINT to the whole foreground group.
    ASSERT_EQ(kill(-demo, SIGINT), 0);
    int code = wait_demo(demo, 60s);
    std::string text = read_file(output);
    EXPECT_EQ(code, 0) << text;
    EXPECT_NE(text.find("[KELDRA][W][keldra-main.cc:"), std::string::npos) << text;
    EXPECT_NE(text.find("] Signal received: 15\n"), std::string::npos) << text;
    EXPECT_NE(text.find("] Request to exit launcher\n"), std::string::npos) << text;
    EXPECT_NE(text.find("[KELDRA][I][keldra-main.cc:"), std::string::npos) << text;
    size_t last = text.rfind("] Finished main loop\n");
    ASSERT_NE(last, std::string::npos) << text;
    EXPECT_EQ(text.find("] Finished main loop\n"), last) << "more than one shutdown:\n" << text;
    EXPECT_NE(text.find("keldra launched successfully"), std::string::npos);
}

} // namespace
