// The platform log stand-in and thread cancellation: a launcher thread is
// cancelled at shutdown wherever it stands, possibly inside a log call. The
// stand-in's lock must not stay taken by a thread cancelled there, or every
// later log call of every other thread waits for ever (the supervisor then
// hangs in its shutdown).
//
// syslog and openlog are defined in this program, so the library's calls land
// here: this syslog waits in usleep, a cancellation point, as the C library's
// connect or send to the system log may.
#include <vesk.h>

#include <gtest/gtest.h>

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

extern "C" void openlog(const char *, int, int) {}

extern "C" void syslog(int, const char *, ...)
{
    usleep(20000);
}

namespace {

using namespace std::chrono_literals;

std::atomic<bool> spinning{false};

// Logs without pause, as a launcher going round without pause does; the
// cancellation point outside the log call stands for the launcher's others.
void *log_without_pause(void *)
{
    for (;;) {
        __vesk_print(0, 6, "KELDRA", "round %d\n", 1);
        spinning = true;
        pthread_testcancel();
    }
    return nullptr;
}

TEST(VeskCancellation, AThreadCancelledWhileLoggingLeavesTheLogUsableForTheOthers)
{
    for (int attempt = 0; attempt < 5; ++attempt) {
        SCOPED_TRACE(attempt);
        spinning = false;
        pthread_t thread;
        ASSERT_EQ(pthread_create(&thread, nullptr, log_without_pause, nullptr), 0);
        while (!spinning)
            std::this_thread::sleep_for(1ms);
        // The thread spends nearly all its time in syslog by now.
        std::this_thread::sleep_for(10ms);
        ASSERT_EQ(pthread_cancel(thread), 0);
        ASSERT_EQ(pthread_join(thread, nullptr), 0);

        std::atomic<bool> logged{false};
        std::thread other([&] {
            __vesk_print(0, 4, "KELDRA", "after the cancellation\n");
            logged = true;
        });
        const auto deadline = std::chrono::steady_clock::now() + 5s;
        while (!logged && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(5ms);
        if (!logged) {
            other.detach();
            FAIL() << "a log call after the cancellation waits for ever";
        }
        other.join();
    }
}

} // namespace
