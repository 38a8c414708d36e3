// The application-policy launcher (row 1 of launcher_table).
//
// The init routine runs orvel's init script once per boot and prepares the
// descriptors of the event loop: a signal descriptor for SIGCHLD, an inotify
// instance with watches on /run, /opt/dbspace and /var/pellan, and an epoll
// instance over both. The thread routine finds or launches /usr/bin/orvel,
// marks it ready and then multiplexes everything through that epoll instance:
// the death of the daemon (SIGCHLD, or the close of the executable of a daemon
// that was adopted), and the recovery markers of the package databases, which
// end in one run of the restore script. A dead daemon is relaunched within the
// same loop.
#include "orvel-launcher.h"

#include "keldra-log.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <time.h>
#include <unistd.h>

bool socket_file_exist = false;
bool orvel_db_recover_file = false;
bool pellan_db_recover_file = false;

namespace {

constexpr const char *orvel_init_script = "/etc/rc.d/init.d/orvel-launcher.sh";
constexpr const char *orvel_script_done_file = "/tmp/orvel_script.done";

constexpr const char *orvel_path = "/usr/bin/orvel";
constexpr const char *orvel_ready_file = "/run/orvel.ready";
constexpr const char *orvel_label = "System::Privileged";

constexpr const char *run_dir = "/run";
constexpr const char *dbspace_dir = "/opt/dbspace";
constexpr const char *pellan_dir = "/var/pellan";

constexpr const char *orvel_socket_name = "orvel.socket";
constexpr const char *orvel_db_recovered_name = ".orvel.db-recovered";
constexpr const char *pellan_db_recovered_name = "db-recovered";

constexpr const char *pellan_db_recovered_file = "/var/pellan/db-recovered";
constexpr const char *pkgreinstall_file = "/opt/dbspace/pkgreinstall";
constexpr const char *pkgreinstall_label_attr = "security.SMACK64";
constexpr const char *pkgreinstall_label = "_";
constexpr const char *orvel_socket_file = "/run/orvel.socket";
constexpr const char *dunmar_pid_file = "/run/dunmar.pid";
constexpr const char *restore_running_file = "/run/restore_zelto_db_sh.running";
constexpr const char *restore_script = "/usr/bin/restore_zelto_db.sh";

constexpr char socket_trace_text[] = "orvel.socket created";
constexpr char restore_trace_text[] = "orvel kovrin restore start\n";
constexpr int trace_mark_option = 666;

constexpr int fork_attempts = 10;
constexpr unsigned fork_retry_delay_s = 3;
constexpr int waitpid_attempts = 3;
constexpr unsigned waitpid_retry_delay_s = 3;
constexpr unsigned rearm_retry_delay_s = 1;

constexpr int max_epoll_events = 100;
constexpr size_t inotify_buffer_size = 8192;
constexpr size_t pid_watch_read_size = 1024;
constexpr size_t proc_path_size = 32;
constexpr size_t inotify_header_size = sizeof(struct inotify_event);

// The states of the handler's loop, one per step.
enum class orvel_state {
    decision,        // search for the daemon, or wait for events
    search,          // adopt a running daemon or launch a new one
    found,           // a running daemon was adopted
    launch,          // fork and exec the daemon
    mark_ready,      // create the daemon's ready file
    wait,            // wait for events and dispatch them
    check_finished,  // leave when the framework asks for it
    end,
};

// What one run of the handler keeps between its steps.
struct orvel_handler_state {
    orvel_context *context;
    int32_t start;           // search or launch at the next turn; try counter of the re-arming
    int32_t orvel_pid;       // the daemon being supervised, -1 after a failed launch
    int32_t pid_inotify_fd;  // inotify instance watching an adopted daemon
    int32_t pid_wd;          // watch on /proc/<pid>/exe in that instance
    int32_t proc_dir_fd;     // /proc/<pid> of an adopted daemon
    struct epoll_event events[max_epoll_events];
    struct signalfd_siginfo siginfo;
    alignas(struct inotify_event) uint8_t inotify_buffer[inotify_buffer_size];
};

// One inotify record, checked to lie wholly inside the bytes read.
struct inotify_record {
    int32_t wd;
    uint32_t mask;
    uint32_t len;
    const char *name;  // len bytes, not necessarily NUL-terminated
};

}  // namespace

// A boot trace mark for the platform kernel; kernels without it refuse the
// option, which is of no concern here.
static void trace_mark(const char *text, size_t length)
{
    (void)prctl(trace_mark_option, (unsigned long)text, (unsigned long)length);
}

static void clear_recovery_flags(void)
{
    socket_file_exist = false;
    orvel_db_recover_file = false;
    pellan_db_recover_file = false;
}

// ---------------------------------------------------------------------------
// Shared helpers of the init routine, the event loop and the recovery.

static const char *epoll_operation_name(int operation)
{
    switch (operation) {
    case EPOLL_CTL_ADD: return "add";
    case EPOLL_CTL_MOD: return "mod";
    case EPOLL_CTL_DEL: return "del";
    }
    return "unknown";
}

int set_epoll_event(int epoll_fd, int fd, uint32_t events, int operation)
{
    char err[256];
    if (epoll_fd < 0) {
        keldra_log(E, "invalid epoll fd...\n");
        return -1;
    }
    struct epoll_event event = {};
    event.events = events;
    event.data.fd = fd;
    if (epoll_ctl(epoll_fd, operation, fd, &event) < 0) {
        keldra_log(E, "failed to set epoll event(%s)...(errno : %s)\n",
                   epoll_operation_name(operation), strerror_r(errno, err, sizeof err));
        return -1;
    }
    return 0;
}

int add_inotify_watch(int inotify_fd, const char *path, uint32_t mask)
{
    char err[256];
    int wd = inotify_add_watch(inotify_fd, path, mask);
    if (wd < 0) {
        keldra_log(E, "failed to add inotify watch instance...(errno : %s)\n",
                   strerror_r(errno, err, sizeof err));
        return -1;
    }
    keldra_log(E, "inotify watch path: %s fd: %d is created...\n", path, wd);
    return wd;
}

int remove_inotify_watch(int inotify_fd, int wd)
{
    char err[256];
    if (inotify_rm_watch(inotify_fd, wd) < 0) {
        keldra_log(E, "failed to remove inotify watch instance...(errno : %s)\n",
                   strerror_r(errno, err, sizeof err));
        return -1;
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Context and init routine.

keldra_context *orvel_launcher_create_context(void)
{
    // Plain new: the watch descriptors stay unset until the init routine
    // writes them.
    orvel_context *context = new orvel_context;
    context->id = 1;
    context->thread = 0;
    context->finished = true;
    context->init_script = orvel_init_script;
    context->handler = orvel_launcher_handler;
    context->signal_fd = -1;
    context->inotify_fd = -1;
    context->epoll_fd = -1;
    keldra_log(E, "Init script: %s\n", context->init_script);
    return context;
}

// Blocks SIGCHLD in the calling (main) thread, so that every launcher thread
// created afterwards has it blocked, and returns a descriptor reporting it.
static int create_signal_instance(void)
{
    char err[256];
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    // pthread_sigmask reports errors as positive numbers; only a negative
    // result is taken for a failure here.
    if (pthread_sigmask(SIG_BLOCK, &set, nullptr) < 0) {
        keldra_log(E, "failed to block signals...(errno : %s)\n", strerror_r(errno, err, sizeof err));
        return -1;
    }
    int fd = signalfd(-1, &set, SFD_CLOEXEC);
    if (fd < 0) {
        keldra_log(E, "failed to create signal instance...(errno : %s)\n",
                   strerror_r(errno, err, sizeof err));
        return -1;
    }
    return fd;
}

static int create_inotify_instance(void)
{
    char err[256];
    int fd = inotify_init1(IN_CLOEXEC);
    if (fd < 0)
        keldra_log(E, "failed to create inotify instance...(errno : %s)\n",
                   strerror_r(errno, err, sizeof err));
    return fd;
}

static int create_epoll_instance(void)
{
    char err[256];
    int fd = epoll_create1(EPOLL_CLOEXEC);
    if (fd < 0)
        keldra_log(E, "failed to create epoll instance...(errno : %s)\n",
                   strerror_r(errno, err, sizeof err));
    return fd;
}

// Places the three directory watches of the recovery, storing each watch
// descriptor in the context as soon as it is known; stops at the first
// failure.
static int watch_recovery_directories(orvel_context *context, int inotify_fd)
{
    context->run_wd = add_inotify_watch(inotify_fd, run_dir, IN_CREATE);
    if (context->run_wd < 0)
        return -1;
    context->dbspace_wd = add_inotify_watch(inotify_fd, dbspace_dir, IN_CREATE);
    if (context->dbspace_wd < 0)
        return -1;
    context->pellan_wd = add_inotify_watch(inotify_fd, pellan_dir, IN_CREATE);
    if (context->pellan_wd < 0)
        return -1;
    return 0;
}

// Registers the signal and inotify descriptors with the epoll instance and
// places the directory watches; stops at the first failure.
static int prepare_event_sources(orvel_context *context, int epoll_fd, int signal_fd,
                                 int inotify_fd)
{
    if (set_epoll_event(epoll_fd, signal_fd, EPOLLIN, EPOLL_CTL_ADD) < 0)
        return -1;
    if (set_epoll_event(epoll_fd, inotify_fd, EPOLLIN, EPOLL_CTL_ADD) < 0)
        return -1;
    return watch_recovery_directories(context, inotify_fd);
}

int orvel_launcher_init(keldra_context *base)
{
    orvel_context *context = static_cast<orvel_context *>(base);
    if (context == nullptr) {
        keldra_log(E, "Invalid context\n");
        return -1;
    }
    keldra_log(E, "Starting Orvel Launcher...\n");

    // The init script runs once per boot: its marker lives in /tmp. A script
    // that exits counts as done whatever its code; one killed by a signal
    // runs again at the next attempt; a stopped one is left alone.
    if (keldra_is_ready_file_done(orvel_script_done_file)) {
        keldra_log(E, "Script already done, skip it ..\n");
    } else {
        keldra_log(E, "No script running before, run it ..\n");
        int status = system(orvel_init_script);
        if (status == -1) {
            keldra_log(E, "Running script %s failed\n", orvel_init_script);
        } else if (WIFEXITED(status)) {
            keldra_log(I, "%s script terminate - success\n", orvel_init_script);
            keldra_log(I, "return value : %d\n", WEXITSTATUS(status));
            int r = keldra_ready_file_done(orvel_script_done_file);
            if (r < 0)
                keldra_log(E, "Set script done failed: %d\n", r);
        } else if (WIFSIGNALED(status)) {
            keldra_log(E, "orvel process terminate - fail\n");
            keldra_log(E, "signal num : %d\n", WTERMSIG(status));
            int u = unlink(orvel_script_done_file);
            if (u < 0)
                keldra_log(E, "Can't reset event for %s. error: %d\n", orvel_script_done_file, u);
        }
    }

    int signal_fd = create_signal_instance();
    if (signal_fd < 0)
        return -1;
    int inotify_fd = create_inotify_instance();
    if (inotify_fd < 0) {
        close(signal_fd);
        return -1;
    }
    int epoll_fd = create_epoll_instance();
    if (epoll_fd < 0) {
        close(inotify_fd);
        close(signal_fd);
        return -1;
    }
    if (prepare_event_sources(context, epoll_fd, signal_fd, inotify_fd) < 0) {
        close(epoll_fd);
        close(inotify_fd);
        close(signal_fd);
        return -1;
    }
    context->signal_fd = signal_fd;
    context->inotify_fd = inotify_fd;
    context->epoll_fd = epoll_fd;
    return 0;
}

// ---------------------------------------------------------------------------
// Reaping and finish.

static void withdraw_orvel_ready_file(void)
{
    int u = unlink(orvel_ready_file);
    if (u < 0)
        keldra_log(E, "Can't reset event for %s. error: %d\n", orvel_ready_file, u);
}

// Reports how the daemon ended; the ready file is withdrawn after an exit or
// a kill only.
static void classify_orvel_status(int status)
{
    if (WIFEXITED(status)) {
        keldra_log(I, "orvel process terminate - success\n");
        keldra_log(I, "return value : %d \n", WEXITSTATUS(status));
        withdraw_orvel_ready_file();
    } else if (WIFSIGNALED(status)) {
        keldra_log(E, "orvel process terminate - fail\n");
        keldra_log(E, "signal num : %d\n", WTERMSIG(status));
        withdraw_orvel_ready_file();
    } else if (WIFSTOPPED(status)) {
        keldra_log(I, "orvel process - stop\n");
        keldra_log(I, "signal num : %d\n", WSTOPSIG(status));
    } else if (WIFCONTINUED(status)) {
        keldra_log(I, "orvel process - restart\n");
    }
}

void waitpid_orvel(int pid)
{
    char err[256];
    // The status word is classified after every waitpid, also after a failed
    // one, which leaves it as it was. It starts as -1, a word that none of
    // the wait-status tests accepts, so that a daemon that cannot be reaped is
    // not reported as ended.
    int status = -1;
    int failures = 0;

    keldra_log(E, "%s(%d)\n", __func__, pid);
    for (;;) {
        pid_t w = waitpid(pid, &status, 0);
        int wait_errno = errno;
        classify_orvel_status(status);
        if (w > 0) {
            keldra_log(E, "orvel(%d) is dead...\n", (int)w);
            return;
        }
        errno = wait_errno;
        keldra_log(E, "failed to wait child process(%d)...(errno : %s)\n", pid,
                   strerror_r(errno, err, sizeof err));
        ++failures;
        keldra_log(E, "waitpid fail...retry count - %d\n", failures);
        sleep(waitpid_retry_delay_s);
        if (failures == waitpid_attempts)
            return;
    }
}

void orvel_launcher_finish(keldra_context *base)
{
    orvel_context *context = static_cast<orvel_context *>(base);
    if (context == nullptr) {
        keldra_log(E, "Invalid context\n");
        return;
    }
    if (!context->finished) {
        context->finished = true;
        pthread_cancel(context->thread);
        pthread_join(context->thread, nullptr);
    }
    // The handler has been joined (or was not running): nobody uses the
    // descriptors any more. Closing the inotify instance drops its watches.
    close(context->epoll_fd);
    close(context->inotify_fd);
    close(context->signal_fd);
    keldra_finish(context);
}

// ---------------------------------------------------------------------------
// Database recovery.

static void create_pkgreinstall_file(void)
{
    char err[256];
    int fd = open(pkgreinstall_file, O_RDWR | O_CREAT, 0644);
    if (fd < 0) {
        keldra_log(E, "failed to call create /opt/dbspace/pkgreinstall...(errno : %s)\n",
                   strerror_r(errno, err, sizeof err));
        return;
    }
    close(fd);
}

static void setxattr_pkgreinstall_file(void)
{
    char err[256];
    if (setxattr(pkgreinstall_file, pkgreinstall_label_attr, pkgreinstall_label,
                 strlen(pkgreinstall_label), 0) < 0)
        keldra_log(E, "failed to setxattr /opt/dbspace/pkgreinstall...(errno : %s)\n",
                   strerror_r(errno, err, sizeof err));
}

static void mark_for_reinstall(void)
{
    create_pkgreinstall_file();
    setxattr_pkgreinstall_file();
}

// Reads the record at offset if its header and its name lie wholly inside the
// length bytes of buffer.
static bool read_inotify_record(const uint8_t *buffer, size_t length, size_t offset,
                                inotify_record &record)
{
    if (length - offset < inotify_header_size)
        return false;
    const uint8_t *header = buffer + offset;
    memcpy(&record.wd, header + offsetof(struct inotify_event, wd), sizeof record.wd);
    memcpy(&record.mask, header + offsetof(struct inotify_event, mask), sizeof record.mask);
    memcpy(&record.len, header + offsetof(struct inotify_event, len), sizeof record.len);
    if (record.len > length - offset - inotify_header_size)
        return false;
    record.name = reinterpret_cast<const char *>(header + inotify_header_size);
    return true;
}

// strncmp(name, constant, len) == 0, reading no more than the len bytes of
// the record's name.
static bool name_matches(const inotify_record &record, const char *constant)
{
    for (size_t i = 0; i < record.len; ++i) {
        if (record.name[i] != constant[i])
            return false;
        if (record.name[i] == '\0')
            return true;
    }
    return true;
}

// Copies a matching name for the log. A match ends at a NUL or at the end of
// the record within the length of its constant, so the copy is never cut.
static void printable_name(const inotify_record &record, char *out, size_t out_size)
{
    size_t n = strnlen(record.name, record.len);
    if (n > out_size - 1)
        n = out_size - 1;
    memcpy(out, record.name, n);
    out[n] = '\0';
}

// The name tests of a created entry. Which watch the record came from does
// not matter: the name alone decides.
static void test_created_name(const inotify_record &record)
{
    char name[32];
    if (name_matches(record, orvel_socket_name)) {
        trace_mark(socket_trace_text, strlen(socket_trace_text));
        printable_name(record, name, sizeof name);
        keldra_log(I, "inotify event is received for %s/%s\n", run_dir, name);
        socket_file_exist = true;
    }
    if (name_matches(record, orvel_db_recovered_name)) {
        printable_name(record, name, sizeof name);
        keldra_log(I, "inotify event is received for %s/%s\n", dbspace_dir, name);
        mark_for_reinstall();
        orvel_db_recover_file = true;
    }
    if (name_matches(record, pellan_db_recovered_name)) {
        printable_name(record, name, sizeof name);
        keldra_log(I, "inotify event is received for %s/%s\n", pellan_dir, name);
        mark_for_reinstall();
        pellan_db_recover_file = true;
    }
}

// Looks at the marker files themselves; returns true when a recovery is known,
// the daemon's socket has been seen and the agent's pid file exists.
static bool test_recovery_files(void)
{
    if (keldra_is_ready_file_done(pellan_db_recovered_file)) {
        keldra_log(I, "inotify event is received for /var/pellan/db-recovered\n");
        mark_for_reinstall();
        pellan_db_recover_file = true;
    }
    if (keldra_is_ready_file_done(pkgreinstall_file)) {
        orvel_db_recover_file = true;
        pellan_db_recover_file = true;
    }
    if (keldra_is_ready_file_done(orvel_socket_file))
        socket_file_exist = true;
    else if (!socket_file_exist)
        return false;
    return (orvel_db_recover_file || pellan_db_recover_file) &&
           keldra_is_ready_file_done(dunmar_pid_file);
}

// One record of a directory watch; returns true when the restore decision is
// reached.
static bool handle_inotify_record(const inotify_record &record, int32_t run_wd,
                                  int32_t dbspace_wd, int32_t pellan_wd)
{
    if (record.wd != run_wd && record.wd != dbspace_wd && record.wd != pellan_wd) {
        keldra_log(W, "inotify watch fd is different(event fd(%d) != watch fd(%d))\n", record.wd,
                   run_wd);
        return false;
    }
    if (record.len == 0) {
        keldra_log(I, "inotify event is received for %s/. skip monitoring path...\n", run_dir);
        return false;
    }
    if (record.mask & IN_CREATE)
        test_created_name(record);
    return test_recovery_files();
}

bool walk_inotify_records(const uint8_t *buffer, size_t length, int32_t run_wd,
                          int32_t dbspace_wd, int32_t pellan_wd)
{
    size_t offset = 0;
    while (offset < length) {
        inotify_record record;
        if (!read_inotify_record(buffer, length, offset, record)) {
            keldra_log(E, "wrong address...(len : %zd,  size : %zu)\n", (ssize_t)length,
                       inotify_header_size);
            return false;
        }
        if (handle_inotify_record(record, run_wd, dbspace_wd, pellan_wd))
            return true;
        offset += inotify_header_size + record.len;
    }
    return false;
}

// Whole seconds between two readings, truncated toward zero.
static int32_t elapsed_seconds(const struct timespec &from, const struct timespec &to)
{
    double elapsed = (double)(to.tv_nsec - from.tv_nsec) / 1000000000.0 +
                     (double)(to.tv_sec - from.tv_sec);
    return (int32_t)elapsed;
}

[[noreturn]] static void exec_restore_script(void)
{
    if (setsid() < 0)
        keldra_log(E, "failed to setsid [errno : %d]\n", errno);
    execl(restore_script, restore_script, (char *)nullptr);
    keldra_log(E, "Cann't execl script: %d\n", errno);
    // The outcome of the script is not judged by its exit status.
    exit(0);
}

static void report_script_status(pid_t w, int status)
{
    if (WIFEXITED(status)) {
        keldra_log(I, "Script (%s)(pid:%d) finished - success\n", restore_script, (int)w);
        keldra_log(I, "Return value : %d\n", WEXITSTATUS(status));
    } else if (WIFSIGNALED(status)) {
        keldra_log(I, "Script process terminate - fail\n");
        keldra_log(I, "Script signal num : %d\n", WTERMSIG(status));
    } else if (WIFSTOPPED(status)) {
        keldra_log(I, "Script process - stop\n");
        keldra_log(I, "Script signal num : %d\n", WSTOPSIG(status));
    } else if (WIFCONTINUED(status)) {
        keldra_log(I, "Script process - restart\n");
    }
    keldra_log(I, "Script(%d) is finished\n", (int)w);
}

// Runs the restore script in a session of its own and waits for it. Its
// SIGCHLD still reaches the event loop, which ignores a pid not the daemon's.
static void restore_zelto_db_script(void)
{
    trace_mark(restore_trace_text, strlen(restore_trace_text) - 1);
    pid_t pid = fork();
    if (pid < 0) {
        keldra_log(E, "Cann't fork script: %d\n", errno);
        return;
    }
    if (pid == 0)
        exec_restore_script();
    int status = -1;  // matches no wait-status test should waitpid fail
    pid_t w = waitpid(pid, &status, 0);
    report_script_status(w, status);
}

static void sync_pkgreinstall(void)
{
    char err[256];
    struct timespec ts1 = {};
    struct timespec ts2 = {};
    keldra_log(E, "starting pkgreinstall sync...\n");
    if (clock_gettime(CLOCK_MONOTONIC, &ts1) < 0)
        keldra_log(E, "failed to call clock_gettime() - end ts1 (errno : %s)\n",
                   strerror_r(errno, err, sizeof err));
    sync();
    if (clock_gettime(CLOCK_MONOTONIC, &ts2) < 0)
        keldra_log(E, "failed to call clock_gettime() - end ts2 (errno : %s)\n",
                   strerror_r(errno, err, sizeof err));
    keldra_log(E, "finished pkgreinstall sync time = %5.3ld\n", (long)elapsed_seconds(ts1, ts2));
}

static void restore_zelto_db(void)
{
    char err[256];
    struct timespec ts1 = {};
    struct timespec ts2 = {};
    if (!keldra_is_ready_file_done(pkgreinstall_file)) {
        keldra_log(E, "can not find pkgreinstall...skip restoring zelto database...(errno : %s)\n",
                   strerror_r(errno, err, sizeof err));
        return;
    }
    keldra_log(E, "find pkgreinstall. starting to restore zelto database...\n");
    if (clock_gettime(CLOCK_MONOTONIC, &ts1) < 0)
        keldra_log(E, "failed to call clock_gettime() - start ts1 (errno : %s)\n",
                   strerror_r(errno, err, sizeof err));
    restore_zelto_db_script();
    if (clock_gettime(CLOCK_MONOTONIC, &ts2) < 0)
        keldra_log(E, "failed to call clock_gettime() - start ts2 (errno : %s)\n",
                   strerror_r(errno, err, sizeof err));
    keldra_log(E, "finished zelto database restore time = %5.3ld\n",
               (long)elapsed_seconds(ts1, ts2));
    sync_pkgreinstall();
}

// Runs the restore unless one is already under way.
static void decide_zelto_db_restore(void)
{
    if (keldra_is_ready_file_done(restore_running_file))
        return;
    keldra_log(I, "request to restore zelto database...\n");
    restore_zelto_db();
}

// After a restore decision the recovery is disarmed until the next death of
// the daemon re-arms the watches. The context keeps the old descriptors.
static void remove_recovery_watches(int inotify_fd, int32_t run_wd, int32_t dbspace_wd,
                                    int32_t pellan_wd)
{
    if (remove_inotify_watch(inotify_fd, run_wd) < 0)
        keldra_log(E, "failed to remove inotify watch...\n");
    if (remove_inotify_watch(inotify_fd, dbspace_wd) < 0)
        keldra_log(E, "failed to remove inotify watch...\n");
    if (remove_inotify_watch(inotify_fd, pellan_wd) < 0)
        keldra_log(E, "failed to remove inotify watch...\n");
}

void handle_inotify_event(orvel_context *context)
{
    char err[256];
    const int32_t run_wd = context->run_wd;
    const int32_t dbspace_wd = context->dbspace_wd;
    const int32_t pellan_wd = context->pellan_wd;
    alignas(struct inotify_event) uint8_t buffer[inotify_buffer_size];

    memset(buffer, 0, sizeof buffer);
    ssize_t length = read(context->inotify_fd, buffer, sizeof buffer);
    if (length < 1 || length > (ssize_t)sizeof buffer) {
        keldra_log(E, "Can not read inotify event data(read length : %zd)...(errno : %s)\n",
                   length, strerror_r(errno, err, sizeof err));
        return;
    }
    if (!walk_inotify_records(buffer, (size_t)length, run_wd, dbspace_wd, pellan_wd))
        return;
    decide_zelto_db_restore();
    clear_recovery_flags();
    remove_recovery_watches(context->inotify_fd, run_wd, dbspace_wd, pellan_wd);
}

// ---------------------------------------------------------------------------
// The handler's steps.

static orvel_state decide_next_turn(const orvel_handler_state &state)
{
    return state.start ? orvel_state::search : orvel_state::wait;
}

// Adopts the daemon if this boot has seen it ready and it still runs.
static orvel_state search_orvel(orvel_handler_state &state)
{
    clear_recovery_flags();
    if (!keldra_is_ready_file_done(orvel_ready_file))
        return orvel_state::launch;
    keldra_log(E, "%s already was ran ...\n", orvel_path);
    int pid = keldra_find_process_by_name(orvel_path);
    if (pid < 0)
        return orvel_state::launch;
    state.orvel_pid = pid;
    return orvel_state::found;
}

// Watches an adopted daemon, which is no child of this process: the close of
// its executable, and its /proc directory to tell whether it still lives.
// The watch descriptor itself goes into the epoll set, and the dispatch
// recognises it by that number.
static void watch_orvel_pid(orvel_handler_state &state)
{
    char err[256];
    char path[proc_path_size];

    if (state.pid_inotify_fd < 0) {
        state.pid_inotify_fd = inotify_init();
        if (state.pid_inotify_fd == -1) {
            keldra_log(E, "Can't inotify_init: %s\n", strerror_r(errno, err, sizeof err));
            return;
        }
    }
    snprintf(path, sizeof path, "/proc/%d/exe", state.orvel_pid);
    state.pid_wd = inotify_add_watch(state.pid_inotify_fd, path, IN_CLOSE_NOWRITE);
    if (state.pid_wd < 0) {
        keldra_log(E, "Error inotify_add_watch: %s\n", strerror_r(errno, err, sizeof err));
        return;
    }
    snprintf(path, sizeof path, "/proc/%d", state.orvel_pid);
    state.proc_dir_fd = open(path, O_RDONLY);
    if (state.proc_dir_fd < 0) {
        keldra_log(E, "Error open directory: %s\n", strerror_r(errno, err, sizeof err));
        return;
    }
    if (set_epoll_event(state.context->epoll_fd, state.pid_wd, EPOLLIN, EPOLL_CTL_ADD) < 0)
        keldra_log(E, "Can't set event for pid : %ld\n", (long)state.orvel_pid);
}

static orvel_state found_orvel(orvel_handler_state &state)
{
    keldra_log(E, "Found orvel(pid : %d) is launched successfully...\n", state.orvel_pid);
    if (state.orvel_pid != 0)
        keldra_signal_thread_started();
    watch_orvel_pid(state);
    return state.orvel_pid != 0 ? orvel_state::mark_ready : orvel_state::check_finished;
}

[[noreturn]] static void exec_orvel(void)
{
    char err[256];
    if (setsid() < 0)
        keldra_log(E, "Can't setsid: %s\n", strerror_r(errno, err, sizeof err));
    execl(orvel_path, orvel_path, (char *)nullptr);
    keldra_log(E, "failed to execute child process...(errno : %s)",
               strerror_r(errno, err, sizeof err));
    exit(1);
}

static orvel_state orvel_launched(orvel_handler_state &state, pid_t pid)
{
    keldra_log(E, "[P %5ld] Wait for orvel started...\n", (long)getpid());
    keldra_log(E, "[P %5ld] orvel is started!\n", (long)getpid());
    keldra_log(E, "[P %5ld] orvel(pid : %d) is launched successfully...\n", (long)getpid(),
               (int)pid);
    state.orvel_pid = pid;
    keldra_signal_thread_started();
    return orvel_state::mark_ready;
}

// Forks the daemon, up to ten times 3 s apart. After ten failures start stays
// set, so the next turn tries again.
static orvel_state launch_orvel(orvel_handler_state &state)
{
    char err[256];
    keldra_log(E, "launching orvel...\n");
    for (int attempt = 1; attempt <= fork_attempts; ++attempt) {
        pid_t pid = fork();
        if (pid == 0)
            exec_orvel();
        if (pid > 0)
            return orvel_launched(state, pid);
        keldra_log(E, "failed to fork process[retry count : %d]...(errno : %s)\n", attempt,
                   strerror_r(errno, err, sizeof err));
        sleep(fork_retry_delay_s);
    }
    keldra_log(E, "failed to launch orvel...(retry count : %d)\n", fork_attempts);
    state.orvel_pid = -1;
    return orvel_state::check_finished;
}

static orvel_state mark_orvel_ready(void)
{
    int r = keldra_ready_file_done(orvel_ready_file);
    if (r < 0)
        keldra_log(E, "Can't set event done for %s. error: %d\n", orvel_ready_file, r);
    return orvel_state::wait;
}

// Reads one signal record: 1 when it reports the death of the daemon, which
// has then been reaped; 0 for any other signal or sender; -1 on a bad read.
static int handle_signal_event(orvel_handler_state &state)
{
    char err[256];
    const int32_t signal_fd = state.context->signal_fd;

    keldra_log(E, "handle signal events(signal read fd : %d / orvel pid : %d)...\n", signal_fd,
               state.orvel_pid);
    ssize_t n = read(signal_fd, &state.siginfo, sizeof state.siginfo);
    if (n != (ssize_t)sizeof state.siginfo) {
        keldra_log(E, "failed to read signal event - wrong size(%d / %d)...(errno : %s)\n",
                   signal_fd, state.orvel_pid, strerror_r(errno, err, sizeof err));
        return -1;
    }
    const int signo = (int)state.siginfo.ssi_signo;
    const int sender = (int)state.siginfo.ssi_pid;
    if (signo != SIGCHLD) {
        keldra_log(W, "wrong signal %d is received from [pid : %d]\n", signo, sender);
        return 0;
    }
    keldra_log(W, "SIGCHLD signal is received from [pid : %d]\n", sender);
    if (state.orvel_pid < 2 || state.orvel_pid != sender)
        return 0;
    keldra_log(W, "orvel(%d) is dead...\n", sender);
    waitpid_orvel(state.orvel_pid);
    return 1;
}

// Returns the first directory whose watch is missing, or null.
static const char *first_missing_watch(const orvel_context *context)
{
    if (context->run_wd < 0)
        return run_dir;
    if (context->dbspace_wd < 0)
        return dbspace_dir;
    if (context->pellan_wd < 0)
        return pellan_dir;
    return nullptr;
}

// Places the three directory watches again after a death, two tries 1 s
// apart, with start as the try counter. start ends set either way, so the
// next turn relaunches the daemon.
static void rearm_directory_watches(orvel_handler_state &state, int index)
{
    orvel_context *context = state.context;
    state.start = 0;
    for (;;) {
        context->run_wd = add_inotify_watch(context->inotify_fd, run_dir, IN_CREATE);
        context->dbspace_wd = add_inotify_watch(context->inotify_fd, dbspace_dir, IN_CREATE);
        context->pellan_wd = add_inotify_watch(context->inotify_fd, pellan_dir, IN_CREATE);
        const char *missing = first_missing_watch(context);
        if (missing == nullptr) {
            state.start = 1;
            return;
        }
        keldra_log(E, "failed to add inotify watch(%s)...%d try count (%d)\n", missing, index,
                   state.start);
        sleep(rearm_retry_delay_s);
        if (state.start == 1)
            return;
        state.start = 1;
    }
}

static void dispatch_signal_event(orvel_handler_state &state, int index)
{
    keldra_log(E, "orvel signaled: %d\n", index);
    int ret = handle_signal_event(state);
    keldra_log(E, "orvel after handle_signal_event: ret=%d\n", ret);
    if (ret != 1) {
        keldra_log(E, "signal handling is failed...%d, ret = %d\n", index, ret);
        return;
    }
    keldra_log(E, "orvel is dead. start flag is set again...%d\n", index);
    // The watch descriptor was registered as a descriptor; it is closed as
    // one as well.
    if (state.pid_wd > 0) {
        close(state.pid_wd);
        state.pid_wd = -1;
    }
    rearm_directory_watches(state, index);
}

// Ends the watch of an adopted daemon that has gone; the next turn searches.
static void stop_watching_orvel_pid(orvel_handler_state &state)
{
    char err[256];
    if (remove_inotify_watch(state.pid_inotify_fd, state.pid_wd) < 0)
        keldra_log(E, "failed to remove inotify watch: %s\n", strerror_r(errno, err, sizeof err));
    close(state.pid_wd);
    state.pid_wd = -1;
    state.start = 1;
}

// The mask of the first record read from the pid watch, or 0 when the read
// did not return a whole record header.
static uint32_t first_record_mask(const uint8_t *buffer, ssize_t length)
{
    uint32_t mask = 0;
    if (length >= (ssize_t)inotify_header_size)
        memcpy(&mask, buffer + offsetof(struct inotify_event, mask), sizeof mask);
    return mask;
}

static void dispatch_pid_watch_event(orvel_handler_state &state)
{
    ssize_t n = read(state.pid_wd, state.inotify_buffer, pid_watch_read_size);
    if (n < 1 || n > (ssize_t)pid_watch_read_size)
        return;
    if (first_record_mask(state.inotify_buffer, n) & IN_CLOSE_NOWRITE) {
        stop_watching_orvel_pid(state);
        return;
    }
    int fd = openat(state.proc_dir_fd, "fd", O_RDONLY);
    if (fd >= 0) {
        close(fd);
        return;
    }
    stop_watching_orvel_pid(state);
    close(fd);
}

static void dispatch_orvel_event(orvel_handler_state &state, int index)
{
    const struct epoll_event &event = state.events[index];
    if (!(event.events & EPOLLIN)) {
        keldra_log(E, "wrong events. we only watch read events(epollin)...%d\n", index);
        return;
    }
    const int fd = event.data.fd;
    if (fd == state.context->signal_fd)
        dispatch_signal_event(state, index);
    else if (fd == state.context->inotify_fd)
        handle_inotify_event(state.context);
    else if (fd == state.pid_wd)
        dispatch_pid_watch_event(state);
}

static orvel_state wait_orvel_events(orvel_handler_state &state)
{
    char err[256];
    orvel_context *context = state.context;
    int count = epoll_wait(context->epoll_fd, state.events, max_epoll_events, -1);
    if (count < 1) {
        keldra_log(E, "epoll abnormal state - %s\n", strerror_r(errno, err, sizeof err));
        keldra_log(E, "context->finished: %d\n", (int)context->finished);
        state.start = 0;
        return context->finished ? orvel_state::end : orvel_state::decision;
    }
    state.start = 0;
    for (int i = 0; i < count; ++i)
        dispatch_orvel_event(state, i);
    return orvel_state::check_finished;
}

static orvel_state check_finished(const orvel_handler_state &state)
{
    return state.context->finished ? orvel_state::end : orvel_state::decision;
}

static orvel_state run_orvel_step(orvel_handler_state &state, orvel_state step)
{
    switch (step) {
    case orvel_state::decision: return decide_next_turn(state);
    case orvel_state::search: return search_orvel(state);
    case orvel_state::found: return found_orvel(state);
    case orvel_state::launch: return launch_orvel(state);
    case orvel_state::mark_ready: return mark_orvel_ready();
    case orvel_state::wait: return wait_orvel_events(state);
    case orvel_state::check_finished: return check_finished(state);
    case orvel_state::end: return orvel_state::end;
    }
    return orvel_state::end;
}

static void run_orvel_event_loop(orvel_context *context)
{
    if (context->finished)
        return;
    orvel_handler_state state;
    state.context = context;
    state.start = 1;
    state.orvel_pid = -1;
    state.pid_inotify_fd = -1;
    state.pid_wd = -1;
    state.proc_dir_fd = -1;
    orvel_state step = orvel_state::decision;
    while (step != orvel_state::end)
        step = run_orvel_step(state, step);
}

void *orvel_launcher_handler(void *arg)
{
    orvel_context *context = static_cast<orvel_context *>(static_cast<keldra_context *>(arg));
    if (context == nullptr) {
        keldra_log(E, "Invalid context\n");
        pthread_exit(nullptr);
    }
    keldra_log(E, "[P %5ld][T %5ld] Starting orvel-launcher ...\n", (long)getpid(),
               (long)gettid());
    umask(0);

    pthread_cleanup_push(keldra_cleanup_handler, static_cast<keldra_context *>(context));
    if (keldra_set_label(orvel_label) < 0) {
        keldra_log(E, "failed to set domain label(%s)...\n", orvel_label);
        pthread_exit(nullptr);
    }
    run_orvel_event_loop(context);
    keldra_log(E, "Orvel-launcher is done\n");
    pthread_cleanup_pop(0);
    return nullptr;
}
