// Scenario harness of the end-to-end tests.
//
// Every e2e test program runs inside keldra-sandbox, one sandbox per test
// case, so the harness works with the system's real fixed paths: the
// simulated daemons are installed at /usr/bin/pellan, /usr/bin/orvel,
// /usr/apps/privileged-service/bin/dunmar and /usr/bin/tavish, the scripts at
// /etc/rc.d/init.d/orvel-launcher.sh and /usr/bin/restore_zelto_db.sh, and
// /run, /tmp are private to the test case.
//
// A typical test:
//
//   e2e::scenario keldra;
//   ASSERT_TRUE(keldra.start());
//   ASSERT_GE(keldra.wait_for_message('I', e2e::format_text(
//                 "keldra launched successfully (pid:%d)\n", keldra.pid())), 0);
//   e2e::kill_daemon("tavish", SIGKILL);
//   keldra.wait_for_message('E', "tavish process terminate - fail \n");
//   keldra.send_signal(SIGTERM);
//   EXPECT_EQ(keldra.wait_exit(10s), e2e::exit_status::with_code(0));
//
// Every wait is bounded by a deadline (default_timeout unless given) and polls
// every few milliseconds. A wait that runs out reports a GoogleTest failure at
// the caller's line, with the last parsed messages and the raw tail of the
// stderr of every live scenario, and returns a "not found" value (-1, false,
// std::nullopt or a short vector) so that the test can stop with ASSERT_*.
//
// The simulated daemons (tools/simd/simd.cc) read their settings from
//   /tmp/simd/<name>.next  one-shot: consumed by the next start
//   /tmp/simd/<name>.conf  standing settings
// as key=value lines:
//   exit_code=N       exit with status N, after_ms after the start
//   exit_signal=N     kill itself with signal N after after_ms (wins over
//                     exit_code)
//   after_ms=N        delay of the exit (default 0), from the start
//   no_ready=1        pellan: no sockets; orvel: no /run/orvel.socket;
//                     dunmar: no /run/dunmar.pid
//   ready_delay_ms=N  delay of the sockets / pid file, from the start
//   ignore_term=1     SIGTERM is ignored (and noted as step term-ignored)
//   admin_verdict=N   pellan: verdict of its admin server (default 0)
//   touch=PATH        create the empty file PATH after the readiness step
//                     (repeatable)
// and record what they do in /tmp/simd/<name>.starts (start_record),
// /tmp/simd/<name>.ends (end_record) and /tmp/simd/<name>.steps (steps:
// ready, ready-skipped, term-ignored, admin-served). The admin server of
// pellan appends what it received to /tmp/simd/pellan.admin.
//
// The scripts record every run in /tmp/simd/init-script.runs and
// /tmp/simd/restore.runs (fields pid, ppid, sid, uid, time, uptime) and read
// /tmp/simd/init-script.conf (exit_code, kill_signal, sleep_ms) and
// /tmp/simd/restore.conf (the same plus running_marker=1, which holds
// /run/restore_zelto_db_sh.running while the script runs).
//
// Caution: the supervisor waits for an adopted daemon through a watch on its
// executable file, which any read-only open and close of that file ends.
// The end of any process running the same executable file (a second copy of
// the daemon started by a test, say) closes it as well. Nothing here opens the
// daemons' executables (only stat and /proc/*/cmdline); tests should not
// either, unless that is what they test.
#pragma once

#include <gtest/gtest.h>

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <source_location>
#include <string>
#include <string_view>
#include <vector>

namespace e2e {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using where = std::source_location;

inline constexpr milliseconds default_timeout = 20s;
inline constexpr milliseconds poll_interval = 5ms;

// Fixed places of the test environment.
inline constexpr const char *scenario_dir = "/tmp/scenario";
inline constexpr const char *simd_dir = "/tmp/simd";
inline constexpr const char *smack_labels_path = "/tmp/sandbox/smack-labels";
inline constexpr const char *smack_refuse_path = "/tmp/sandbox/smack-refuse";
inline constexpr const char *init_script_runs_path = "/tmp/simd/init-script.runs";
inline constexpr const char *init_script_conf_path = "/tmp/simd/init-script.conf";
inline constexpr const char *restore_runs_path = "/tmp/simd/restore.runs";
inline constexpr const char *restore_conf_path = "/tmp/simd/restore.conf";
inline constexpr const char *admin_record_path = "/tmp/simd/pellan.admin";

// The supervisor under test: KELDRA_BUILD_DIR "/keldra".
std::string keldra_binary();

// The sanitizer the supervisor under test is built with: "address",
// "thread", or "" in a normal build (CMake's KELDRA_SANITIZE). The runtime's
// own memory (shadow, quarantine, histories) grows on its own there, so
// keldra's resident size says nothing about leaks of keldra in such a build.
std::string keldra_sanitizer();

// A whole number from the environment variable `name`: `fallback` when it is
// unset or empty; a value that is not a number from min to max ends the
// program with status 2 and says why (usable before any test has begun).
int number_from_environment(const char *name, int fallback, int min, int max);

// A process's open descriptors, and a numeric field of /proc/<pid>/status
// ("Threads", "VmRSS" in kB); -1 when the process cannot be read.
int descriptor_count(pid_t pid);
long status_field(pid_t pid, const char *field);

// True inside keldra-sandbox (KELDRA_SANDBOX=1 and PID 1 is the sandbox).
// Everything here that starts a program or writes a file ends the test
// program at once (status 1, with a message) when run outside the sandbox,
// so that a stray run never touches the host's fixed paths.
bool inside_sandbox();

// printf-style formatting of an expected message text, e.g.
// format_text("launch dunmar( %d )\n", pid).
std::string format_text(const char *format, ...) __attribute__((format(printf, 1, 2)));

// ---------------------------------------------------------------------------
// Log records

// One message of the supervisor's stderr: "[KELDRA][<level>][<file>:<line>] "
// followed by text, which keeps its "\n" when the message had one.
struct log_record {
    char level = 0;
    std::string file;
    int line = 0;
    std::string text;
    bool operator==(const log_record &) const = default;
};

// Parses the supervisor's stderr. A record starts at
// "[KELDRA][" letter "][" file ":" digits "] "; its text runs until the next
// record start, or until the next time stamp "[<sec>.<nsec>]" that is followed
// at once by another stamp, a record start or the end of the data, or until
// the end of the data. Stamps and anything outside records are dropped; a
// stamp followed by other text stays part of the text.
std::vector<log_record> parse_keldra_stderr(std::string_view data);

// One record of the platform log file (VESK_LOG_FILE): tab-separated log id,
// priority, tag and escaped text (\n, \t, \\). The text is split into
// "<file>: <function>(<line>) > <message>"; when it does not have that form,
// file and function are empty, line is 0 and text is the whole text.
struct platform_record {
    int log_id = 0;
    int prio = 0;
    std::string tag;
    std::string file;
    std::string function;
    int line = 0;
    std::string text;
    bool operator==(const platform_record &) const = default;
};

std::vector<platform_record> parse_platform_log(std::string_view data);
std::string unescape_platform_text(std::string_view escaped);

// Priority of the platform log for a level letter (E 6, W 5, I 4, D 3; else -1).
int level_priority(char level);

// One line for a failure report: [E][file.cc:12] text, with "\n" shown as \n.
std::string describe(const log_record &record);
std::string describe(const platform_record &record);
// The text with line ends, tabs and other control characters made visible.
std::string visible(std::string_view text);

// Searches over parsed records. nth counts from 1; find_* return the index of
// the record or -1; `from` is the first index considered.
int find_message(const std::vector<log_record> &records, char level, std::string_view text,
                 int nth = 1, int from = 0);
int count_messages(const std::vector<log_record> &records, char level, std::string_view text);
// The records written from one source file, in order. A launcher's file is
// only ever run by its own thread, so lines that thread logs one after the
// other stay adjacent here however the other threads interleave.
std::vector<log_record> records_from_file(const std::vector<log_record> &records,
                                          std::string_view file);
int find_platform_message(const std::vector<platform_record> &records, int prio,
                          std::string_view text, int nth = 1, int from = 0);
int count_platform_messages(const std::vector<platform_record> &records, int prio,
                            std::string_view text);

struct expected_message {
    char level;
    std::string text;
};

// Checks that the expected messages appear in this order (other messages may
// come between them). Returns the index of the first one that is missing
// after its predecessor, or -1 when all were found; `found` receives the
// indexes of those that were found.
int first_missing_in_order(const std::vector<log_record> &records,
                           const std::vector<expected_message> &expected,
                           std::vector<int> *found = nullptr);

// ---------------------------------------------------------------------------
// Waits (free functions: their failures carry the diagnostics of every live
// scenario)

bool wait_until(const std::function<bool()> &condition, milliseconds timeout,
                std::string_view what, where loc = where::current());
bool wait_for_file(const std::string &path, milliseconds timeout = default_timeout,
                   where loc = where::current());
bool wait_for_absent(const std::string &path, milliseconds timeout = default_timeout,
                     where loc = where::current());
// True while a SIGCHLD waits for the process, in its shared queue or in one
// of its threads' own.
bool sigchld_pending(pid_t pid);
// Waits until no SIGCHLD waits for the supervisor. Its application-policy
// launcher reads them all through one signal descriptor, and a SIGCHLD that
// comes while another is pending merges with it: a child's end that a test
// needs seen must come after the pending one has been read.
bool wait_for_no_pending_sigchld(pid_t pid, milliseconds timeout = default_timeout,
                                 where loc = where::current());
// Checks, by polling for the whole duration, that the condition stays true.
bool stays_true(const std::function<bool()> &condition, milliseconds duration,
                std::string_view what, where loc = where::current());

// ---------------------------------------------------------------------------
// Processes

// How a process ended.
struct exit_status {
    bool exited = false; // true: exit code; false: killed by `signal`
    int code = 0;
    int signal = 0;
    static exit_status with_code(int code) { return {true, code, 0}; }
    static exit_status by_signal(int signal) { return {false, 0, signal}; }
    static exit_status from_wait_status(int status);
    bool operator==(const exit_status &) const = default;
};
std::string describe(const exit_status &status);
void PrintTo(const exit_status &status, std::ostream *out);

struct spawn_options {
    std::string program;               // executed instead of argv[0] if set
    std::optional<uid_t> uid;          // setuid in the child (after setgid)
    std::optional<gid_t> gid;          // setgid (and setgroups to it alone)
    bool new_session = false;          // setsid in the child
    std::vector<int> blocked_signals;  // signal mask of the child (else empty)
    std::optional<mode_t> umask;       // umask of the child
    std::string cwd;                   // working directory, if not empty
    std::vector<int> keep_fds;         // descriptors inherited besides 0, 1, 2
    std::string stdout_path = "/dev/null";
    std::string stderr_path = "/dev/null";
};

// Forks and executes argv[0] (or options.program) with the arguments argv and
// the test's environment. Stdin is
// /dev/null; every descriptor but 0, 1, 2 and keep_fds is closed. Returns the
// pid, or -1 after a test failure.
pid_t spawn(const std::vector<std::string> &argv, const spawn_options &options = {},
            where loc = where::current());

// Waits for a child of the test (not of the supervisor) to end and reaps it.
std::optional<exit_status> wait_child(pid_t pid, milliseconds timeout = default_timeout,
                                      where loc = where::current());
// Reaps the child if it has ended, without waiting and without failures.
std::optional<exit_status> poll_child(pid_t pid);

// True while /proc/<pid> exists and the process is not a zombie.
bool process_alive(pid_t pid);

// Pids of the processes whose first command-line argument is exactly path
// (the supervisor's own rule for finding a daemon), in /proc order.
std::vector<pid_t> pids_with_argv0(std::string_view path);

// ---------------------------------------------------------------------------
// The supervisor under test

enum class stdout_mode { dev_null, regular_file, pipe };

struct scenario_options {
    stdout_mode out = stdout_mode::dev_null;
    // "NAME=value" entries added to the test's environment (replacing a
    // variable of the same name).
    std::vector<std::string> extra_env;
    // The program and its arguments after argv[0] (the supervisor takes none).
    std::string program = keldra_binary();
    std::vector<std::string> args;
};

// One run of the supervisor. Its files live in /tmp/scenario: the first
// scenario of a test uses stderr, stdout and vesk.log (VESK_LOG_FILE); a
// second one, started in the same test, stderr-2, stdout-2 and vesk-2.log,
// and so on. The destructor kills a supervisor still running (SIGKILL) and,
// when the test has failed, prints the diagnostics once.
class scenario {
public:
    explicit scenario(scenario_options options = {});
    ~scenario();
    scenario(const scenario &) = delete;
    scenario &operator=(const scenario &) = delete;

    // Forks and executes the supervisor with stdin /dev/null, stdout as
    // chosen and stderr to stderr_path(). False after a test failure.
    bool start(where loc = where::current());
    pid_t pid() const { return pid_; }
    bool send_signal(int sig, where loc = where::current());
    // Waits for the supervisor to end and reaps it.
    std::optional<exit_status> wait_exit(milliseconds timeout = default_timeout,
                                         where loc = where::current());
    bool is_running();
    // The status once reaped (by wait_exit or is_running).
    std::optional<exit_status> status() const { return status_; }

    const std::string &stderr_path() const { return stderr_path_; }
    const std::string &stdout_path() const { return stdout_path_; }
    const std::string &vesk_log_path() const { return vesk_log_path_; }

    std::string stderr_text() const;
    // Everything written to stdout so far (regular_file and pipe modes).
    std::string stdout_text();
    std::vector<log_record> messages() const;
    std::vector<platform_record> platform_messages() const;

    int count_messages(char level, std::string_view text) const;
    int find_message(char level, std::string_view text, int nth = 1, int from = 0) const;
    // Waits until the nth message (counting from 1) with this level and exact
    // text (line end included) has been written; returns its index in
    // messages(), or -1 after a test failure.
    int wait_for_message(char level, std::string_view text, milliseconds timeout = default_timeout,
                         int nth = 1, where loc = where::current());
    // The same, for the first such message after the record with index `after`.
    int wait_for_message_after(int after, char level, std::string_view text,
                               milliseconds timeout = default_timeout,
                               where loc = where::current());
    int count_platform_messages(int prio, std::string_view text) const;
    int wait_for_platform_message(int prio, std::string_view text,
                                  milliseconds timeout = default_timeout, int nth = 1,
                                  where loc = where::current());
    // Adds a test failure unless the messages appear in this order.
    bool expect_in_order(const std::vector<expected_message> &expected,
                         where loc = where::current()) const;

    // State, the last 40 parsed messages and the raw tail of stderr.
    std::string diagnostics() const;

private:
    struct stderr_cache {
        std::string raw;
        std::vector<log_record> records;
        std::vector<size_t> offsets; // where each record starts in raw
    };

    void reap_if_ended();
    void refresh_stderr() const;
    void resend_sigterm_lost_by_thread_sanitizer();

    static constexpr std::string_view sigterm_report = "Signal received: 15\n";

    scenario_options options_;
    int index_ = 1;
    std::string stderr_path_;
    std::string stdout_path_;
    std::string vesk_log_path_;
    pid_t pid_ = -1;
    int stdout_pipe_ = -1;
    std::string stdout_buffer_;
    std::optional<exit_status> status_;
    mutable stderr_cache stderr_cache_;
    // "Signal received: 15" reports before the last SIGTERM, -1 once judged.
    int sigterm_reports_before_ = -1;
    std::chrono::steady_clock::time_point sigterm_sent_at_;
};

// The platform-log record of the nth message with this level and text: id 0,
// the level's priority, tag KELDRA, this file and function, and the file and
// line of its stderr twin.
void expect_platform_record(const scenario &keldra, char level, const std::string &text,
                            const std::string &file, const std::string &function, int nth = 1,
                            where loc = where::current());

// The diagnostics of every scenario alive in the test (empty when none).
std::string live_scenarios_diagnostics();

// ---------------------------------------------------------------------------
// Simulated daemons

inline const std::vector<std::string> daemon_names = {"pellan", "orvel", "dunmar", "tavish"};

// "/usr/bin/pellan", "/usr/bin/orvel", "/usr/apps/privileged-service/bin/dunmar",
// "/usr/bin/tavish"; adds a failure and returns "" for another name.
std::string daemon_path(std::string_view name, where loc = where::current());

// Standing settings (/tmp/simd/<name>.conf) and one-shot settings for the
// next start (/tmp/simd/<name>.next); text is key=value lines.
void write_settings(std::string_view name, std::string_view text);
void write_next_settings(std::string_view name, std::string_view text);
void remove_settings(std::string_view name);

struct fd_entry {
    int fd = -1;
    std::string target;
};

// One line of /tmp/simd/<name>.starts.
struct start_record {
    pid_t pid = -1, ppid = -1, sid = -1, pgid = -1;
    uid_t uid = 0, euid = 0;
    gid_t gid = 0, egid = 0;
    unsigned umask = 0;
    int argc = 0;
    std::string argv0;
    uint64_t sigblk = 0;
    uint64_t sigign = 0;
    std::vector<fd_entry> fds;
    std::string cwd;
    uint64_t mono_ns = 0;
    std::string settings; // next, conf or default
    std::map<std::string, std::string> fields; // every field as written

    bool signal_blocked(int sig) const;
    bool signal_ignored(int sig) const;
    // Target of an inherited descriptor, or nullopt.
    std::optional<std::string> fd_target(int fd) const;
};

// One line of /tmp/simd/<name>.ends.
struct end_record {
    pid_t pid = -1;
    std::string event; // exit, signal, term or error
    int code = 0;      // exit
    int signal = 0;    // signal
    std::string step;  // error: what failed
    int error = 0;     // error: errno
    uint64_t mono_ns = 0;
    std::map<std::string, std::string> fields;
};

// One line of /tmp/simd/<name>.steps.
struct step_record {
    pid_t pid = -1;
    std::string step; // ready, ready-skipped, term-ignored, admin-served
    uint64_t mono_ns = 0;
    std::map<std::string, std::string> fields;
};

// Lines of "key=value key=value ..." split at blanks.
std::map<std::string, std::string> parse_fields(std::string_view line);
std::vector<std::map<std::string, std::string>> read_field_records(const std::string &path);
start_record parse_start_record(std::string_view line);
end_record parse_end_record(std::string_view line);

std::vector<start_record> starts(std::string_view name);
std::vector<end_record> ends(std::string_view name); // all events, errors included
std::vector<step_record> steps(std::string_view name);
// Only the ends of processes (events exit, signal, term).
std::vector<end_record> deaths(std::string_view name);
// The error records of a daemon; tests may expect none.
std::vector<end_record> daemon_errors(std::string_view name);

// Waits until at least n starts (deaths, steps named `step`) are recorded;
// returns all records (fewer than n after a test failure).
std::vector<start_record> wait_for_starts(std::string_view name, size_t n,
                                          milliseconds timeout = default_timeout,
                                          where loc = where::current());
std::vector<end_record> wait_for_deaths(std::string_view name, size_t n,
                                        milliseconds timeout = default_timeout,
                                        where loc = where::current());
std::vector<step_record> wait_for_steps(std::string_view name, std::string_view step, size_t n,
                                        milliseconds timeout = default_timeout,
                                        where loc = where::current());

std::vector<pid_t> daemon_pids(std::string_view name);
// Waits until exactly one process runs the daemon; returns its pid or -1.
pid_t wait_for_daemon(std::string_view name, milliseconds timeout = default_timeout,
                      where loc = where::current());
// Waits until no process runs the daemon.
bool wait_for_no_daemon(std::string_view name, milliseconds timeout = default_timeout,
                        where loc = where::current());
// Sends sig to every process running the daemon; returns how many.
int kill_daemon(std::string_view name, int sig);

// Starts the daemon directly from the test (argv[0] its fixed path).
pid_t spawn_daemon(std::string_view name, const spawn_options &options = {},
                   where loc = where::current());

// Runs of the scripts (fields pid, ppid, sid, uid, time, uptime).
std::vector<std::map<std::string, std::string>> init_script_runs();
std::vector<std::map<std::string, std::string>> restore_runs();

// Policy records received by pellan's admin server (/tmp/simd/pellan.admin):
// fields bucket, client, user, privilege, result, result_extra.
std::vector<std::map<std::string, std::string>> admin_records();

// ---------------------------------------------------------------------------
// Smack label records of the sandbox's simulation

// "label pid=P tid=T label=L" (kind "label": a thread set its label) and
// "fork pid=CHILD ppid=P label=L" (kind "fork": a process was forked with L).
struct label_record {
    std::string kind;
    pid_t pid = -1;
    pid_t tid = -1;
    pid_t ppid = -1;
    std::string label;
};

std::vector<label_record> label_records();
// The label a process was forked with (the last fork record of that pid).
std::optional<std::string> fork_label(pid_t pid);
// Makes the simulation refuse these labels (EINVAL).
void refuse_labels(const std::vector<std::string> &labels);

// ---------------------------------------------------------------------------
// Files

bool exists(const std::string &path); // lstat: a dangling link exists
bool is_socket(const std::string &path);
bool is_directory(const std::string &path);
std::optional<std::string> read_file(const std::string &path);
// Writes (replaces) the file and sets its mode exactly.
bool write_file(const std::string &path, std::string_view content, mode_t mode = 0666);
bool remove_file(const std::string &path);
// Creates the directory and its parents (mode for the last one, exactly).
bool make_directory(const std::string &path, mode_t mode = 0755);
std::optional<mode_t> file_mode(const std::string &path); // permission bits, lstat

struct file_owner {
    uid_t uid = 0;
    gid_t gid = 0;
    bool operator==(const file_owner &) const = default;
};
std::optional<file_owner> owner_of(const std::string &path); // lstat
void PrintTo(const file_owner &owner, std::ostream *out);

} // namespace e2e
