// Start-up rules, thread restart and finish of the launcher framework, driven
// through a table of test launchers.
#include "keldra.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

using clock_type = std::chrono::steady_clock;

namespace {

std::atomic<int> create_calls[KELDRA_LAUNCHER_COUNT];
std::atomic<int> create_failures[KELDRA_LAUNCHER_COUNT];  // how many calls return null
std::atomic<int> init_calls[KELDRA_LAUNCHER_COUNT];
std::vector<int> init_results[KELDRA_LAUNCHER_COUNT];      // results in call order, then 0
std::atomic<int> thread_runs[KELDRA_LAUNCHER_COUNT];
clock_type::time_point created_at[KELDRA_LAUNCHER_COUNT];
clock_type::time_point announced_at;
std::atomic<bool> exit_now{false};
std::atomic<int> row1_announce_delay_ms{0};

void reset_fakes()
{
    for (int i = 0; i < KELDRA_LAUNCHER_COUNT; ++i) {
        create_calls[i] = 0;
        create_failures[i] = 0;
        init_calls[i] = 0;
        init_results[i].clear();
        thread_runs[i] = 0;
    }
    exit_now = false;
    row1_announce_delay_ms = 0;
    terminate_launcher = false;
}

// A thread that records its start, announces row 1's daemon and returns.
void *returning_handler(void *arg)
{
    auto *context = static_cast<keldra_context *>(arg);
    ++thread_runs[context->id];
    if (context->id == 1) {
        std::this_thread::sleep_for(std::chrono::milliseconds(row1_announce_delay_ms));
        announced_at = clock_type::now();
        keldra_signal_thread_started();
    }
    return nullptr;
}

// A thread that leaves its first run through pthread_exit with the cleanup
// routine registered, and otherwise runs until cancelled.
void *exiting_handler(void *arg)
{
    auto *context = static_cast<keldra_context *>(arg);
    int run = ++thread_runs[context->id];
    if (context->id == 1)
        keldra_signal_thread_started();
    bool finished = false;
    while (!finished) {
        pthread_cleanup_push(keldra_cleanup_handler, context);
        finished = context->finished;
        if (run == 1 && exit_now)
            pthread_exit(nullptr);
        usleep(10000);
        pthread_cleanup_pop(0);
    }
    return nullptr;
}

template <int Row, void *(*Handler)(void *)>
keldra_context *fake_create()
{
    ++create_calls[Row];
    created_at[Row] = clock_type::now();
    if (create_failures[Row] > 0) {
        --create_failures[Row];
        return nullptr;
    }
    auto *context = new keldra_context;
    context->id = Row;
    context->handler = Handler;
    return context;
}

template <int Row>
int fake_init(keldra_context *)
{
    int call = init_calls[Row]++;
    return call < (int)init_results[Row].size() ? init_results[Row][call] : 0;
}

template <void *(*Handler)(void *)>
const launcher *table_of()
{
    static const launcher table[KELDRA_LAUNCHER_COUNT] = {
        {fake_create<0, Handler>, fake_init<0>, keldra_finish},
        {fake_create<1, Handler>, fake_init<1>, keldra_finish},
        {fake_create<2, Handler>, fake_init<2>, keldra_finish},
        {fake_create<3, Handler>, fake_init<3>, keldra_finish},
    };
    return table;
}

double seconds_since(clock_type::time_point t0)
{
    return std::chrono::duration<double>(clock_type::now() - t0).count();
}

void start_with(keldra_context *contexts[KELDRA_LAUNCHER_COUNT], const launcher *table)
{
    keldra_set_launcher_table(table);
    keldra_start(contexts);
}

// Joins what start-up left running so the next test starts clean.
void finish_all(keldra_context *contexts[KELDRA_LAUNCHER_COUNT], const launcher *table)
{
    keldra_set_launcher_table(table);
    keldra_shutdown(contexts);
}

std::atomic<bool> main_loop_returned{false};

// The main loop on a thread of its own; main_loop_returned says when it has
// left.
std::thread start_main_loop(keldra_context **contexts)
{
    main_loop_returned = false;
    return std::thread([contexts] {
        keldra_main_loop(contexts);
        main_loop_returned = true;
    });
}

// Raises the stop request and wakes the main loop until it has left. The loop
// reads the request without the lock, so a wake-up that comes between that
// read and its next wait finds nobody waiting and is lost.
void wake_main_loop_for_exit()
{
    pthread_mutex_lock(&mutex);
    terminate_launcher = true;
    pthread_mutex_unlock(&mutex);
    while (!main_loop_returned) {
        pthread_mutex_lock(&mutex);
        pthread_cond_signal(&thread_finished);
        pthread_mutex_unlock(&mutex);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

bool wait_for(const std::function<bool()> &condition, double seconds)
{
    auto deadline = clock_type::now() + std::chrono::duration<double>(seconds);
    while (clock_type::now() < deadline) {
        if (condition())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}

class framework : public ::testing::Test {
protected:
    void SetUp() override { reset_fakes(); }
    keldra_context *contexts[KELDRA_LAUNCHER_COUNT] = {};
};

} // namespace

TEST_F(framework, row0_factory_is_asked_again_every_second_until_it_delivers)
{
    create_failures[0] = 3;
    const launcher *table = table_of<returning_handler>();
    auto t0 = clock_type::now();
    auto log = capture_log([&] { start_with(contexts, table); });
    EXPECT_EQ(count_messages(log, 'E', "Launcher 0 create_context failed.\n"), 3) << dump_log(log);
    EXPECT_EQ(create_calls[0], 4);
    EXPECT_GE(seconds_since(t0), 3.0);
    ASSERT_NE(contexts[0], nullptr);
    EXPECT_EQ(contexts[0]->id, 0);
    finish_all(contexts, table);
}

TEST_F(framework, a_later_row_whose_factory_fails_is_skipped_for_good)
{
    create_failures[2] = 1;
    const launcher *table = table_of<returning_handler>();
    auto t0 = clock_type::now();
    auto log = capture_log([&] { start_with(contexts, table); });
    EXPECT_EQ(count_messages(log, 'E', "Launcher 2 create_context failed.\n"), 1) << dump_log(log);
    EXPECT_EQ(create_calls[2], 1);
    EXPECT_EQ(init_calls[2], 0);
    EXPECT_EQ(thread_runs[2], 0);
    EXPECT_EQ(contexts[2], nullptr);
    EXPECT_NE(contexts[3], nullptr);
    EXPECT_GE(seconds_since(t0), 1.0);

    // Never restarted by the main loop and never finished.
    std::thread loop = start_main_loop(contexts);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    wake_main_loop_for_exit();
    loop.join();
    EXPECT_EQ(thread_runs[2], 0);
    auto finish_log = capture_log([&] { finish_all(contexts, table); });
    EXPECT_EQ(count_messages(finish_log, 'I', "Thread 2 is finished\n"), 0);
    EXPECT_EQ(count_messages(finish_log, 'I', "Thread 3 is finished\n"), 1) << dump_log(finish_log);
}

TEST_F(framework, init_asking_for_another_call_is_called_again_at_once_without_message)
{
    init_results[0] = {1, 1};
    const launcher *table = table_of<returning_handler>();
    auto t0 = clock_type::now();
    auto log = capture_log([&] { start_with(contexts, table); });
    EXPECT_EQ(init_calls[0], 3);
    EXPECT_LT(seconds_since(t0), 0.9);
    for (const auto &m : log)
        EXPECT_EQ(m.text.find("init failed"), std::string::npos) << m.text;
    finish_all(contexts, table);
}

TEST_F(framework, failing_init_is_logged_and_retried_every_second)
{
    init_results[0] = {-5, -5};
    const launcher *table = table_of<returning_handler>();
    auto t0 = clock_type::now();
    auto log = capture_log([&] { start_with(contexts, table); });
    EXPECT_EQ(count_messages(log, 'E', "Launcher 0 init failed: -5\n"), 2) << dump_log(log);
    EXPECT_EQ(init_calls[0], 3);
    EXPECT_GE(seconds_since(t0), 2.0);
    finish_all(contexts, table);
}

TEST_F(framework, rows_two_and_three_start_only_after_row_one_announces_its_daemon)
{
    row1_announce_delay_ms = 300;
    const launcher *table = table_of<returning_handler>();
    capture_log([&] { start_with(contexts, table); });
    for (int i = 0; i < KELDRA_LAUNCHER_COUNT; ++i)
        ASSERT_TRUE(wait_for([i] { return thread_runs[i] == 1; }, 5.0)) << "row " << i;
    EXPECT_LT(created_at[0], created_at[1]);
    EXPECT_LT(announced_at, created_at[2]);
    EXPECT_LT(created_at[2], created_at[3]);
    finish_all(contexts, table);
}

TEST_F(framework, run_refuses_a_null_context_and_a_missing_handler)
{
    keldra_context no_handler;
    int null_result = 0, handler_result = 0;
    auto log = capture_log([&] {
        null_result = keldra_run(nullptr);
        handler_result = keldra_run(&no_handler);
    });
    EXPECT_EQ(null_result, -EINVAL);
    EXPECT_EQ(handler_result, -EINVAL);
    ASSERT_EQ(log.size(), 2u) << dump_log(log);
    EXPECT_EQ(log[0].level, 'E');
    EXPECT_EQ(log[0].text, "Context is NULL\n");
    EXPECT_EQ(log[0].file, "keldra.cc");
    EXPECT_EQ(log[1].text, "Handler is not defined\n");
    EXPECT_TRUE(no_handler.finished);
}

TEST_F(framework, thread_leaving_through_pthread_exit_is_restarted_by_the_main_loop)
{
    const launcher *table = table_of<exiting_handler>();
    std::vector<log_message> log;
    std::string raw = capture_stderr([&] {
        start_with(contexts, table);
        pthread_t first = contexts[0]->thread;
        std::thread loop = start_main_loop(contexts);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        exit_now = true;
        // A thread that raises its flag while the main loop is busy is restarted
        // at the next wake-up only; plain wake-ups stand for later thread ends.
        EXPECT_TRUE(wait_for([] {
            pthread_mutex_lock(&mutex);
            pthread_cond_signal(&thread_finished);
            pthread_mutex_unlock(&mutex);
            for (int i = 0; i < KELDRA_LAUNCHER_COUNT; ++i)
                if (thread_runs[i] != 2)
                    return false;
            return true;
        }, 8.0));
        EXPECT_FALSE(pthread_equal(first, contexts[0]->thread));
        EXPECT_EQ(contexts[0]->handler, exiting_handler);
        wake_main_loop_for_exit();
        loop.join();
        finish_all(contexts, table);
    });
    log = parse_log(raw);
    // Every row exited once and was restarted once.
    for (int i = 0; i < KELDRA_LAUNCHER_COUNT; ++i) {
        EXPECT_EQ(thread_runs[i], 2) << "row " << i;
        std::string cancelled = "Thread " + std::to_string(i) + " is cancelled\n";
        // once for the pthread_exit, once for the cancel at shutdown
        EXPECT_EQ(count_messages(log, 'E', cancelled), 2) << dump_log(log);
        EXPECT_EQ(count_messages(log, 'I', "Thread " + std::to_string(i) + " is finished\n"), 1);
    }
    for (const auto &m : log) {
        if (m.text.find("is cancelled") != std::string::npos) {
            EXPECT_EQ(m.file, "keldra.cc");
        }
    }
}

TEST_F(framework, thread_returning_normally_is_not_restarted)
{
    const launcher *table = table_of<returning_handler>();
    capture_log([&] { start_with(contexts, table); });
    for (int i = 0; i < KELDRA_LAUNCHER_COUNT; ++i)
        ASSERT_TRUE(wait_for([i] { return thread_runs[i] == 1; }, 5.0)) << "row " << i;
    std::thread loop = start_main_loop(contexts);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    // A wake-up that is not a stop: nothing to restart.
    pthread_mutex_lock(&mutex);
    pthread_cond_signal(&thread_finished);
    pthread_mutex_unlock(&mutex);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    wake_main_loop_for_exit();
    loop.join();
    for (int i = 0; i < KELDRA_LAUNCHER_COUNT; ++i)
        EXPECT_EQ(thread_runs[i], 1) << "row " << i;
    finish_all(contexts, table);
}

TEST_F(framework, finish_cancels_and_joins_a_running_thread_in_no_less_than_a_second)
{
    const launcher *table = table_of<exiting_handler>();
    capture_log([&] { start_with(contexts, table); });
    auto t0 = clock_type::now();
    auto log = capture_log([&] { keldra_finish(contexts[0]); });
    contexts[0] = nullptr;
    EXPECT_GE(seconds_since(t0), 1.0);
    ASSERT_EQ(log.size(), 2u) << dump_log(log);
    EXPECT_EQ(log[0].text, "Thread 0 is cancelled\n");
    EXPECT_EQ(log[1].level, 'I');
    EXPECT_EQ(log[1].text, "Thread 0 is finished\n");
    finish_all(contexts, table);
}

TEST_F(framework, finish_of_an_ended_thread_neither_cancels_nor_joins)
{
    auto *context = new keldra_context;
    context->id = 2;
    auto t0 = clock_type::now();
    auto log = capture_log([&] { keldra_finish(context); });
    EXPECT_LT(seconds_since(t0), 0.5);
    ASSERT_EQ(log.size(), 1u) << dump_log(log);
    EXPECT_EQ(log[0].text, "Thread 2 is finished\n");
}

TEST_F(framework, finish_of_a_null_context_only_logs)
{
    auto log = capture_log([] { keldra_finish(nullptr); });
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].level, 'E');
    EXPECT_EQ(log[0].text, "Invalid context\n");
}
