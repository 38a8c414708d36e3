// Tests of the scenario harness itself: the parsers of the supervisor's
// stderr, of the platform log and of the simulated daemons' records, the
// searches over parsed messages, and the failure reports of the waits.
#include "harness.h"

#include <gtest/gtest-spi.h>

#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using e2e::log_record;
using e2e::platform_record;

std::vector<log_record> parse(std::string_view data)
{
    return e2e::parse_keldra_stderr(data);
}

TEST(StderrParser, SplitsStampedMessagesIntoRecords)
{
    auto records = parse("[5.1000][KELDRA][I][keldra-main.cc:42] keldra launched successfully "
                         "(pid:7)\n[5.2000][KELDRA][E][keldra.cc:520] Thread 2 is cancelled\n");
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0],
              (log_record{'I', "keldra-main.cc", 42, "keldra launched successfully (pid:7)\n"}));
    EXPECT_EQ(records[1], (log_record{'E', "keldra.cc", 520, "Thread 2 is cancelled\n"}));
}

TEST(StderrParser, MessageWithoutLineEndStopsAtTheNextStampedMessage)
{
    auto records = parse("[1.5][KELDRA][E][keldra.cc:10] Locking lock file failed: Bad file "
                         "descriptor[1.6][KELDRA][D][keldra.cc:20] [P     7] Finished with -1, "
                         "descriptor: 3\n");
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].text, "Locking lock file failed: Bad file descriptor");
    EXPECT_EQ(records[1].level, 'D');
    EXPECT_EQ(records[1].text, "[P     7] Finished with -1, descriptor: 3\n");
}

TEST(StderrParser, StampsOfTwoThreadsBeforeTheirLines)
{
    auto records =
        parse("[1.1][1.2][KELDRA][E][a.cc:1] first\n[KELDRA][I][b.cc:2] second\n[1.3]");
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0], (log_record{'E', "a.cc", 1, "first\n"}));
    EXPECT_EQ(records[1], (log_record{'I', "b.cc", 2, "second\n"}));
}

TEST(StderrParser, OpenLineThenTwoStampsThenTwoLines)
{
    auto records = parse("[1.1][KELDRA][E][a.cc:1] can't open /proc[1.2][1.3][KELDRA][W][b.cc:2] "
                         "x\n[KELDRA][I][c.cc:3] y\n");
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].text, "can't open /proc");
    EXPECT_EQ(records[1].text, "x\n");
    EXPECT_EQ(records[2].text, "y\n");
}

TEST(StderrParser, StampInsideATextStaysInTheText)
{
    auto records = parse("[1.1][KELDRA][I][a.cc:1] value [5.100] seen\n");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text, "value [5.100] seen\n");
}

TEST(StderrParser, StampAtTheEndOfTheDataIsNotText)
{
    auto records = parse("[1.1][KELDRA][E][a.cc:1] Writing to lock file: No space[1.2]");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text, "Writing to lock file: No space");
}

TEST(StderrParser, TextWithoutLineEndAtTheEndOfTheData)
{
    auto records = parse("[1.1][KELDRA][E][a.cc:1] failed to execute child process...(errno : x)");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text, "failed to execute child process...(errno : x)");
}

TEST(StderrParser, NoiseAndMalformedHeadsAreNotRecords)
{
    auto records = parse("noise\n[KELDRA][e][a.cc:1] lower\n[KELDRA][E][a.cc:x] bad\n"
                         "[KELDRA][E]a.cc:1] bad\n[-1.-5][KELDRA][W][long-name.cc:9] good\n");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0], (log_record{'W', "long-name.cc", 9, "good\n"}));
}

TEST(StderrParser, EmptyTextAndEmptyData)
{
    EXPECT_TRUE(parse("").empty());
    auto records = parse("[1.1][KELDRA][I][a.cc:1] [2.2][KELDRA][I][a.cc:2] \n");
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].text, "");
    EXPECT_EQ(records[1].text, "\n");
}

TEST(PlatformLogParser, SplitsFieldsAndUnescapes)
{
    auto records = e2e::parse_platform_log(
        "0\t6\tKELDRA\tkeldra.cc: keldra_run(120) > Context is NULL\\n\n"
        "0\t4\tKELDRA\tkeldra-main.cc: main(30) > a\\tb \\\\n c\\n\n");
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0], (platform_record{0, 6, "KELDRA", "keldra.cc", "keldra_run", 120,
                                           "Context is NULL\n"}));
    EXPECT_EQ(records[1].function, "main");
    EXPECT_EQ(records[1].line, 30);
    EXPECT_EQ(records[1].text, "a\tb \\n c\n");
}

TEST(PlatformLogParser, KeepsTextsOfAnotherFormAndSkipsBrokenLines)
{
    auto records = e2e::parse_platform_log("x\ty\n0\t3\tOTHER\tplain: text\n1\t5\tT\tpartial");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].tag, "OTHER");
    EXPECT_EQ(records[0].prio, 3);
    EXPECT_EQ(records[0].file, "");
    EXPECT_EQ(records[0].text, "plain: text");
}

TEST(MessageSearch, FindsOccurrencesCountsAndChecksOrder)
{
    auto records = parse("[1.1][KELDRA][E][a.cc:1] A\n[1.2][KELDRA][I][a.cc:2] B\n"
                         "[1.3][KELDRA][E][a.cc:1] A\n[1.4][KELDRA][E][a.cc:3] A \n");
    EXPECT_EQ(e2e::find_message(records, 'E', "A\n"), 0);
    EXPECT_EQ(e2e::find_message(records, 'E', "A\n", 2), 2);
    EXPECT_EQ(e2e::find_message(records, 'E', "A\n", 3), -1);
    EXPECT_EQ(e2e::find_message(records, 'E', "A\n", 1, 1), 2);
    EXPECT_EQ(e2e::find_message(records, 'I', "A\n"), -1);
    EXPECT_EQ(e2e::count_messages(records, 'E', "A\n"), 2);
    EXPECT_EQ(e2e::first_missing_in_order(records, {{'E', "A\n"}, {'I', "B\n"}, {'E', "A\n"}}),
              -1);
    EXPECT_EQ(e2e::first_missing_in_order(records, {{'I', "B\n"}, {'E', "A\n"}, {'E', "A\n"}}),
              2);
}

TEST(FormatText, FormatsLikePrintf)
{
    EXPECT_EQ(e2e::format_text("[P %5ld] Killing %ld process\n", 42L, 7L),
              "[P    42] Killing 7 process\n");
    EXPECT_EQ(e2e::format_text("finished zelto database restore time = %5.3ld\n", 2L),
              "finished zelto database restore time =   002\n");
}

TEST(SimdRecords, ParsesAStartRecord)
{
    auto r = e2e::parse_start_record(
        "pid=10 ppid=1 uid=401 gid=402 euid=401 egid=402 sid=10 pgid=10 umask=0022 argc=1 "
        "argv0=/usr/bin/pellan sigblk=0000000000010000 sigign=0000000000001000 "
        "fds=0:/dev/null,1:/tmp/a (deleted),2:pipe:[12],5:/tmp/x,y cwd=/ mono_ns=123 "
        "settings=next");
    EXPECT_EQ(r.pid, 10);
    EXPECT_EQ(r.ppid, 1);
    EXPECT_EQ(r.uid, 401u);
    EXPECT_EQ(r.gid, 402u);
    EXPECT_EQ(r.umask, 022u);
    EXPECT_EQ(r.argv0, "/usr/bin/pellan");
    EXPECT_TRUE(r.signal_blocked(SIGCHLD));
    EXPECT_FALSE(r.signal_blocked(SIGTERM));
    EXPECT_TRUE(r.signal_ignored(SIGPIPE));
    ASSERT_EQ(r.fds.size(), 4u);
    EXPECT_EQ(r.fd_target(1), "/tmp/a (deleted)");
    EXPECT_EQ(r.fd_target(2), "pipe:[12]");
    EXPECT_EQ(r.fd_target(5), "/tmp/x,y");
    EXPECT_EQ(r.fd_target(3), std::nullopt);
    EXPECT_EQ(r.cwd, "/");
    EXPECT_EQ(r.mono_ns, 123u);
    EXPECT_EQ(r.settings, "next");
}

TEST(SimdRecords, ParsesEndRecords)
{
    auto exit = e2e::parse_end_record("pid=5 event=exit code=3 mono_ns=9");
    EXPECT_EQ(exit.event, "exit");
    EXPECT_EQ(exit.code, 3);
    EXPECT_EQ(exit.mono_ns, 9u);
    auto killed = e2e::parse_end_record("pid=5 event=signal signo=11 mono_ns=9");
    EXPECT_EQ(killed.signal, 11);
    auto error = e2e::parse_end_record("pid=5 event=error step=bind:/run/orvel.socket errno=2 "
                                       "mono_ns=9");
    EXPECT_EQ(error.step, "bind:/run/orvel.socket");
    EXPECT_EQ(error.error, 2);
}

// The scenario reads the stderr file at its fixed place; these tests write it
// by hand, without starting anything.
class ScenarioReports : public ::testing::Test {
protected:
    void write_stderr(std::string_view text)
    {
        ASSERT_TRUE(e2e::make_directory(e2e::scenario_dir, 0777));
        ASSERT_TRUE(e2e::write_file(keldra.stderr_path(), text, 0644));
    }
    e2e::scenario keldra;
};

TEST_F(ScenarioReports, FilesOfTheFirstScenarioOfATest)
{
    EXPECT_EQ(keldra.stderr_path(), "/tmp/scenario/stderr");
    EXPECT_EQ(keldra.vesk_log_path(), "/tmp/scenario/vesk.log");
    e2e::scenario second;
    EXPECT_EQ(second.stderr_path(), "/tmp/scenario/stderr-2");
    EXPECT_EQ(second.vesk_log_path(), "/tmp/scenario/vesk-2.log");
}

TEST_F(ScenarioReports, WaitForMessageFindsTheNthOccurrence)
{
    write_stderr("[1.1][KELDRA][E][a.cc:1] A\n[1.2][KELDRA][I][a.cc:2] B\n[1.3][KELDRA][E][a.cc:1] A\n");
    EXPECT_EQ(keldra.wait_for_message('E', "A\n", 100ms, 2), 2);
    EXPECT_EQ(keldra.count_messages('E', "A\n"), 2);
}

TEST_F(ScenarioReports, WaitForMessageReportsWhatWasSeen)
{
    write_stderr("[1.1][KELDRA][I][a.cc:1] Thread 2 is finished\n[1.2][KELDRA][W][b.cc:7] other\n");
    EXPECT_NONFATAL_FAILURE(
        EXPECT_EQ(keldra.wait_for_message('E', "Thread 2 is finished\n", 50ms), -1),
        "similar messages (level or line end differ):\n  #0 [I][a.cc:1] Thread 2 is finished\\n");
    EXPECT_NONFATAL_FAILURE(keldra.wait_for_message('E', "never\n", 20ms),
                            "#1 [W][b.cc:7] other\\n");
}

TEST_F(ScenarioReports, ExpectInOrderNamesTheMissingMessage)
{
    write_stderr("[1.1][KELDRA][E][a.cc:1] A\n[1.2][KELDRA][I][a.cc:2] B\n");
    EXPECT_TRUE(keldra.expect_in_order({{'E', "A\n"}, {'I', "B\n"}}));
    EXPECT_NONFATAL_FAILURE(keldra.expect_in_order({{'I', "B\n"}, {'E', "A\n"}}),
                            "missing after them: [E] \"A\\n\" (present 1 times in all)");
}

TEST_F(ScenarioReports, ParsesWhatIsAppendedLikeTheWholeLog)
{
    const std::string parts[] = {
        "[1.1][KELDRA][E][a.cc:1] Locking lock file failed: x",
        "[1.2]",
        " still text\n[1.3][1.4][KELDRA][I][b.cc:2] two\n",
        "[KELDRA][W][c.cc:3] three",
        "\n[2.0][KELDRA][D][d.cc:4] four\n",
    };
    write_stderr("");
    std::string whole;
    for (const std::string &part : parts) {
        whole += part;
        ASSERT_TRUE(e2e::write_file(keldra.stderr_path(), whole, 0644));
        EXPECT_EQ(keldra.messages(), e2e::parse_keldra_stderr(whole)) << e2e::visible(whole);
    }
    EXPECT_EQ(keldra.messages().size(), 4u);
    EXPECT_EQ(keldra.messages()[0].text, "Locking lock file failed: x[1.2] still text\n");
    ASSERT_TRUE(e2e::write_file(keldra.stderr_path(), "[1.1][KELDRA][E][a.cc:1] new\n", 0644));
    EXPECT_EQ(keldra.messages(), e2e::parse_keldra_stderr("[1.1][KELDRA][E][a.cc:1] new\n"));
}

TEST(Waits, WaitUntilReportsTheTimeout)
{
    int calls = 0;
    EXPECT_TRUE(e2e::wait_until([&] { return ++calls == 3; }, 1s, "three calls"));
    EXPECT_EQ(calls, 3);
    EXPECT_NONFATAL_FAILURE(e2e::wait_until([] { return false; }, 20ms, "the impossible"),
                            "timed out after 20 ms waiting for the impossible");
    EXPECT_NONFATAL_FAILURE(e2e::wait_for_file("/tmp/no-such-file", 20ms),
                            "waiting for file /tmp/no-such-file to exist");
}

// A process that blocks SIGCHLD (so that it stays pending), optionally forks
// a child that ends at once, tells the test through a pipe and then waits.
pid_t start_sigchld_blocker(bool with_ending_child)
{
    int ready[2];
    if (pipe(ready) != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) {
        signal(SIGCHLD, SIG_DFL);
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGCHLD);
        sigprocmask(SIG_BLOCK, &set, nullptr);
        if (with_ending_child && fork() == 0)
            _exit(0);
        char byte = 1;
        (void)!write(ready[1], &byte, 1);
        for (;;)
            pause();
    }
    close(ready[1]);
    char byte = 0;
    bool told = read(ready[0], &byte, 1) == 1;
    close(ready[0]);
    return told ? pid : -1;
}

void stop_blocker(pid_t pid)
{
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

TEST(PendingSigchld, SeenInTheProcessQueue)
{
    pid_t pid = start_sigchld_blocker(true);
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(e2e::wait_until([&] { return e2e::sigchld_pending(pid); }, 5s,
                                "the child's SIGCHLD to be pending"));
    EXPECT_NONFATAL_FAILURE(e2e::wait_for_no_pending_sigchld(pid, 20ms),
                            "waiting for no SIGCHLD pending for process");
    stop_blocker(pid);
}

TEST(PendingSigchld, SeenInAThreadQueue)
{
    pid_t pid = start_sigchld_blocker(false);
    ASSERT_GT(pid, 0);
    EXPECT_FALSE(e2e::sigchld_pending(pid));
    // Sent to the thread itself, so it waits in that thread's own queue.
    ASSERT_EQ(syscall(SYS_tgkill, pid, pid, SIGCHLD), 0);
    EXPECT_TRUE(e2e::sigchld_pending(pid));
    stop_blocker(pid);
}

TEST(PendingSigchld, NoneWithoutASignalOrAProcess)
{
    pid_t pid = start_sigchld_blocker(false);
    ASSERT_GT(pid, 0);
    EXPECT_FALSE(e2e::sigchld_pending(pid));
    EXPECT_TRUE(e2e::wait_for_no_pending_sigchld(pid, 100ms));
    stop_blocker(pid);
    EXPECT_FALSE(e2e::sigchld_pending(pid));
}

TEST(LabelRecords, ParsesLabelAndForkRecords)
{
    ASSERT_TRUE(e2e::write_file(e2e::smack_labels_path,
                                "label pid=20 tid=22 label=System\n"
                                "fork pid=30 ppid=20 label=System\n"
                                "fork pid=30 ppid=21 label=System::Privileged\n"
                                "fork pid=31 ppid=20 label=_\n"
                                "label pid=20 tid=23 label=Sys"));
    auto records = e2e::label_records();
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[0].kind, "label");
    EXPECT_EQ(records[0].pid, 20);
    EXPECT_EQ(records[0].tid, 22);
    EXPECT_EQ(records[0].label, "System");
    EXPECT_EQ(records[1].kind, "fork");
    EXPECT_EQ(records[1].ppid, 20);
    EXPECT_EQ(e2e::fork_label(30), "System::Privileged");
    EXPECT_EQ(e2e::fork_label(31), "_");
    EXPECT_EQ(e2e::fork_label(20), std::nullopt);
}

} // namespace
