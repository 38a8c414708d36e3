// The supervisor's framework: the table of launchers, start-up, the thread of
// each launcher and its restart, shutdown, the single-instance lock and the
// process toolkit shared by every launcher.
#include "keldra.h"

#include "dunmar/launcher-dunmar.h"
#include "keldra-log.h"
#include "orvel/orvel-launcher.h"
#include "pellan/pellan-launcher.h"
#include "tavish/tavish-launcher.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <tessel.h>
#include <unistd.h>

pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t thread_finished = PTHREAD_COND_INITIALIZER;
pthread_cond_t thread_started = PTHREAD_COND_INITIALIZER;
bool terminate_launcher = false;
int lock_fd = -1;

// How often the application-policy launcher has announced its daemon; lets the
// start-up wait tell a signal it already missed from one still to come.
static unsigned long thread_started_count;

const launcher launcher_table[KELDRA_LAUNCHER_COUNT] = {
    {pellan_launcher_create_context, pellan_launcher_init, keldra_finish},
    {orvel_launcher_create_context, orvel_launcher_init, orvel_launcher_finish},
    {dunmar_launcher_create_context, dunmar_launcher_init, keldra_finish},
    {tavish_launcher_create_context, tavish_launcher_init, keldra_finish},
};

// ---------------------------------------------------------------------------
// Start-up

// The table that keldra_start and the shutdown work through.
static const launcher *active_table = launcher_table;

void keldra_set_launcher_table(const launcher table[KELDRA_LAUNCHER_COUNT])
{
    active_table = table ? table : launcher_table;
}

static unsigned long thread_started_generation(void)
{
    pthread_mutex_lock(&mutex);
    unsigned long generation = thread_started_count;
    pthread_mutex_unlock(&mutex);
    return generation;
}

// Waits until the application-policy launcher has found or launched its
// daemon since `generation` was taken, so an announcement made before the
// wait began is not lost.
static void wait_thread_started(unsigned long generation)
{
    pthread_mutex_lock(&mutex);
    while (thread_started_count == generation)
        pthread_cond_wait(&thread_started, &mutex);
    pthread_mutex_unlock(&mutex);
}

void keldra_signal_thread_started(void)
{
    pthread_mutex_lock(&mutex);
    ++thread_started_count;
    pthread_cond_signal(&thread_started);
    pthread_mutex_unlock(&mutex);
}

static int block_sigchld(void)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    return pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

// Brings the launchers up one row after the other. Row 0 must exist, so its
// factory is asked until it delivers; a later row whose factory fails is left
// out. init and keldra_run are repeated until they succeed, after a second
// when they fail. Rows 2 and 3 start only once row 1 has its daemon.
int keldra_start(keldra_context *contexts[KELDRA_LAUNCHER_COUNT])
{
    keldra_lock();
    umask(0);
    if (block_sigchld() < 0) {
        char err[256];
        keldra_log(E, "failed to block signals...(errno : %s)\n",
                   strerror_r(errno, err, sizeof err));
    }
    for (int i = 0; i < KELDRA_LAUNCHER_COUNT; ++i) {
        const launcher &row = active_table[i];
        keldra_context *context;
        while (!(context = row.create_context())) {
            keldra_log(E, "Launcher %d create_context failed.\n", i);
            sleep(1);
            if (i != 0)
                break;
        }
        if (!context)
            continue;
        contexts[i] = context;
        for (int r; (r = row.init(context)) != 0;) {
            if (r < 0) {
                keldra_log(E, "Launcher %d init failed: %d\n", i, r);
                sleep(1);
            }
        }
        unsigned long generation = thread_started_generation();
        for (int r; (r = keldra_run(context)) != 0;) {
            if (r < 0) {
                keldra_log(E, "keldra_run for launcher %d failed: %d\n", i, r);
                sleep(1);
            }
        }
        if (i == 1)
            wait_thread_started(generation);
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Launcher threads

int keldra_run(keldra_context *context)
{
    if (!context) {
        keldra_log(E, "Context is NULL\n");
        return -EINVAL;
    }
    if (!context->handler) {
        keldra_log(E, "Handler is not defined\n");
        return -EINVAL;
    }
    pthread_attr_t attr;
    int e = pthread_attr_init(&attr);
    if (e != 0) {
        keldra_log(E, "error: pthread_attr_init returned :%d\n", e);
        return e;
    }
    e = pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_JOINABLE);
    if (e != 0) {
        keldra_log(E, "error: pthread_attr_setdetachstate returned :%d\n", e);
        return e;
    }
    context->finished = false;
    e = pthread_create(&context->thread, &attr, context->handler, context);
    context->finished = e != 0;
    if (e != 0) {
        keldra_log(E, "pthread_create returned :%d\n", e);
        return -1;
    }
    pthread_attr_destroy(&attr);
    return 0;
}

// The work of keldra_cleanup_handler; its log lines carry this name.
static void keldra_exit_signal(keldra_context *context)
{
    keldra_log(E, "Thread %d is cancelled\n", context->id);
    pthread_mutex_lock(&mutex);
    context->finished = true;
    pthread_cond_signal(&thread_finished);
    pthread_mutex_unlock(&mutex);
    sleep(1);
}

void keldra_cleanup_handler(void *context)
{
    keldra_exit_signal(static_cast<keldra_context *>(context));
}

// ---------------------------------------------------------------------------
// Main loop and shutdown

static void restart_finished_launchers(keldra_context *contexts[KELDRA_LAUNCHER_COUNT])
{
    for (int i = 0; i < KELDRA_LAUNCHER_COUNT; ++i) {
        if (contexts[i] && contexts[i]->finished)
            keldra_run(contexts[i]);
    }
}

void keldra_main_loop(keldra_context *contexts[KELDRA_LAUNCHER_COUNT])
{
    do {
        pthread_mutex_lock(&mutex);
        pthread_cond_wait(&thread_finished, &mutex);
        restart_finished_launchers(contexts);
        pthread_mutex_unlock(&mutex);
    } while (!terminate_launcher);
}

void keldra_shutdown(keldra_context *contexts[KELDRA_LAUNCHER_COUNT])
{
    for (int i = 0; i < KELDRA_LAUNCHER_COUNT; ++i) {
        if (!contexts[i])
            continue;
        active_table[i].finish(contexts[i]);
        contexts[i] = nullptr;
    }
}

void keldra_finish(keldra_context *context)
{
    if (!context) {
        keldra_log(E, "Invalid context\n");
        return;
    }
    if (!context->finished) {
        context->finished = true;
        int e = pthread_cancel(context->thread);
        if (e != 0)
            keldra_log(E, "pthread_cancel returns %d\n", e);
        e = pthread_join(context->thread, nullptr);
        if (e != 0)
            keldra_log(E, "pthread_join returns %d\n", e);
    }
    keldra_log(I, "Thread %d is finished\n", context->id);
    delete context;
}

// ---------------------------------------------------------------------------
// SIGTERM relay
//
// The handler that the kernel runs only writes the siginfo record to a pipe;
// a thread of its own reads it and runs the supervisor's signal handler in
// normal context. So the log and `mutex` are never entered from signal
// context, whichever thread the signal lands on and whatever it holds then.

static int relay_pipe[2] = {-1, -1};
static pid_t relay_owner;
static void (*relay_handler)(int, siginfo_t *, void *);

static void relay_signal(int signo, siginfo_t *info, void *)
{
    int saved_errno = errno;
    if (getpid() != relay_owner) {
        // A child between fork and exec: behave as the program it becomes.
        signal(signo, SIG_DFL);
        raise(signo);
        errno = saved_errno;
        return;
    }
    ssize_t w = write(relay_pipe[1], info, sizeof *info);
    (void)w;
    errno = saved_errno;
}

static void *relay_thread(void *)
{
    for (;;) {
        siginfo_t info;
        ssize_t n = read(relay_pipe[0], &info, sizeof info);
        if (n == (ssize_t)sizeof info)
            relay_handler(info.si_signo, &info, nullptr);
        else if (n == 0 || (n < 0 && errno != EINTR))
            return nullptr;
    }
}

// Starts the relay thread with every signal blocked, so that it never takes a
// signal meant for the launchers, and leaves the caller's mask as it was.
static int start_relay_thread(void)
{
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    pthread_t thread;
    int e = pthread_create(&thread, nullptr, relay_thread, nullptr);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    if (e != 0)
        return -e;
    pthread_detach(thread);
    return 0;
}

int keldra_install_signal_handler(int signo, void (*handler)(int, siginfo_t *, void *))
{
    if (relay_pipe[0] < 0) {
        if (pipe2(relay_pipe, O_CLOEXEC) < 0)
            return -errno;
        fcntl(relay_pipe[1], F_SETFL, O_NONBLOCK);
        relay_owner = getpid();
        relay_handler = handler;
        int r = start_relay_thread();
        if (r < 0)
            return r;
    }
    struct sigaction action = {};
    action.sa_sigaction = relay_signal;
    action.sa_flags = SA_SIGINFO;
    return sigaction(signo, &action, nullptr);
}

// ---------------------------------------------------------------------------
// Single-instance lock

static const char *const readiness_events[] = {
    "/run/dunmar.pid", "/run/orvel.ready", "/run/tavish.ready", "/run/pellan.ready",
    KELDRA_READY_FILE,
};

int keldra_write_pidfile(int fd)
{
    char err[256];
    if (ftruncate(fd, 0) < 0) {
        keldra_log(E, "Could not truncate lock file: %s", strerror_r(errno, err, sizeof err));
        return -1;
    }
    char record[128];
    snprintf(record, sizeof record, "%ld\n", (long)getpid());
    ssize_t length = (ssize_t)strlen(record);
    if (write(fd, record, (size_t)length) != length) {
        keldra_log(E, "Writing to lock file: %s", strerror_r(errno, err, sizeof err));
        return -1;
    }
    return 0;
}

// Lets a running supervisor finish bringing its daemons up before it is
// asked to stop: waits, at most 30 s, for all five readiness events.
static int wait_for_children_ready(void)
{
    char result[64] = {};
    return TesselWaitMultiEvents(const_cast<const char **>(readiness_events), 5, 1, 30000,
                                 result, sizeof result);
}

// Tests the lock up to three times, 5 s apart, and returns the number of
// pauses. A test that fails for another reason than a foreign lock ends the
// wait with its errno in *test_errno.
static int wait_for_lock_release(int *test_errno)
{
    int attempts = 0;
    *test_errno = 0;
    for (int test = 1;; ++test) {
        if (lockf(lock_fd, F_TEST, 0) == 0)
            break;
        if (errno != EAGAIN && errno != EACCES) {
            *test_errno = errno;
            break;
        }
        sleep(5);
        ++attempts;
        if (test == 3)
            break;
    }
    return attempts;
}

int keldra_lock(void)
{
    char err[256];
    long self = (long)getpid();
    lock_fd = open(KELDRA_LOCK_FILE, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lock_fd < 0) {
        keldra_log(E, "Create/open lock file failed: %s\n", strerror_r(errno, err, sizeof err));
        return -1;
    }
    int result = 0;
    for (int pass = 1;; ++pass) {
        if (lockf(lock_fd, F_TLOCK, 0) == 0) {
            keldra_log(D, "[P %5ld] File is not locked, just use lock file\n", self);
            result = keldra_write_pidfile(lock_fd);
            break;
        }
        if (errno != EAGAIN && errno != EACCES) {
            keldra_log(E, "Locking lock file failed: %s", strerror_r(errno, err, sizeof err));
            result = -1;
            break;
        }
        keldra_log(I, "[P %5ld] Wait till all chldren became ready\n", self);
        int r = wait_for_children_ready();
        if (r > 0)
            keldra_log(W, "[P %5ld] Wait children timeout. Will retry\n", self);
        else if (r == 0)
            keldra_log(W, "[P %5ld] Wait children was successfull. Everything is ontime\n", self);
        else
            keldra_log(E, "[P %5ld] Failed TesselWaitMultiEvents. Error: %d\n", self, r);

        long holder = keldra_find_process_by_lock(KELDRA_LOCK_FILE);
        keldra_log(E, "[P %5ld] Pid of lock %ld process\n", self, holder);
        if (holder == -1 || holder == self) {
            result = 0;
            break;
        }
        keldra_log(E, "[P %5ld] Killing %ld process\n", self, holder);
        int k = kill((pid_t)holder, SIGTERM);
        int test_errno;
        int attempts = wait_for_lock_release(&test_errno);
        if (test_errno != 0) {
            errno = test_errno;
            keldra_log(E, "lock test failed: %s", strerror_r(errno, err, sizeof err));
        }
        keldra_log(E, "[P %5ld] Seems process %ld died after %d attempts\n", self, holder,
                   attempts);
        if (pass == 2048) {
            result = k;
            break;
        }
    }
    keldra_log(D, "[P %5ld] Finished with %d, descriptor: %d\n", self, result, lock_fd);
    return result;
}

int keldra_unlock(void)
{
    int r = lockf(lock_fd, F_ULOCK, 0);
    close(lock_fd);
    lock_fd = -1;
    keldra_log(D, "[P %5ld] Finished with %d\n", (long)getpid(), r);
    return r;
}

static bool parse_pid(const char *name, long *pid)
{
    char *end = nullptr;
    *pid = strtol(name, &end, 10);
    return *end == '\0';
}

// Looks through the descriptors listed in fd_dir for one that points at
// `target`; on a match copies the link into points_to and returns true.
static bool has_file_open(DIR *fd_dir, const char *fd_dir_path, const char *target,
                          char (&points_to)[512])
{
    while (struct dirent *entry = readdir(fd_dir)) {
        if (entry->d_name[0] == '\0' || entry->d_name[0] == '.')
            continue;
        char link[512];
        if (snprintf(link, sizeof link, "%s/%s", fd_dir_path, entry->d_name) < 0)
            continue;
        link[sizeof link - 1] = '\0';
        ssize_t n = readlink(link, points_to, sizeof points_to);
        if (n < 0)
            continue;
        points_to[n >= (ssize_t)sizeof points_to ? sizeof points_to - 1 : (size_t)n] = '\0';
        if (target && strncmp(target, points_to, 512) == 0)
            return true;
    }
    return false;
}

long keldra_find_process_by_lock(const char *path)
{
    char *resolved = realpath(path, nullptr);
    if (!resolved) {
        char err[256];
        keldra_log(E, "Get readpath error: %s\n", strerror_r(errno, err, sizeof err));
    }
    keldra_log(E, "Looking for %s ...\n", resolved ? resolved : "(null)");
    DIR *proc = opendir("/proc");
    if (!proc) {
        keldra_log(E, "can't open /proc\n");
        free(resolved);
        return -1;
    }
    long found = -1;
    while (struct dirent *entry = readdir(proc)) {
        long pid;
        if (!parse_pid(entry->d_name, &pid))
            continue;
        char fd_dir_path[512];
        snprintf(fd_dir_path, sizeof fd_dir_path, "/proc/%ld/fd", pid);
        DIR *fd_dir = opendir(fd_dir_path);
        if (!fd_dir)
            continue;
        if (pid == (long)getpid())
            continue; // the directory stays open: accepted, this runs once per pass
        char points_to[512];
        bool holder = has_file_open(fd_dir, fd_dir_path, resolved, points_to);
        closedir(fd_dir);
        if (holder) {
            keldra_log(E, "Link: %s\n", points_to);
            found = pid;
            break;
        }
    }
    closedir(proc);
    free(resolved);
    return found;
}

// ---------------------------------------------------------------------------
// Process toolkit

int keldra_set_label(const char *label)
{
    char err[256];
    keldra_log(D, "Set domain label(%s)\n", label);
    char path[256];
    snprintf(path, sizeof path, "/proc/self/task/%d/attr/current", (int)gettid());
    int fd = open(path, O_WRONLY | O_TRUNC);
    if (fd < 0) {
        keldra_log(E, "failed to open file(%s)...(errno : %s)\n", path,
                   strerror_r(errno, err, sizeof err));
        return -1;
    }
    size_t length = strlen(label);
    ssize_t written = write(fd, label, length);
    if (written <= 0 || (size_t)written < length) {
        keldra_log(E, "failed to write label(%s)...(errno : %s)\n", label,
                   strerror_r(errno, err, sizeof err));
        close(fd);
        return -1;
    }
    keldra_log(D, "label(%s) is set to %s successfully ...\n", label, path);
    close(fd);
    return 0;
}

// True when the first argument of the process's command line, up to its
// first blank, is exactly `name`.
static bool command_matches(long pid, const char *name)
{
    char buffer[512];
    snprintf(buffer, sizeof buffer, "/proc/%ld/cmdline", pid);
    FILE *file = fopen(buffer, "re");
    if (!file)
        return false;
    // A buffer of our own spares stdio its fstat and its heap buffer for each
    // of the thousands of files a scan may open.
    char stream_buffer[512];
    setvbuf(file, stream_buffer, _IOFBF, sizeof stream_buffer);
    bool match = false;
    if (fgets(buffer, sizeof buffer, file)) {
        char *rest = nullptr;
        const char *first = strtok_r(buffer, " ", &rest);
        match = first && strcmp(first, name) == 0;
    }
    fclose(file);
    return match;
}

int keldra_find_process_by_name(const char *name)
{
    DIR *proc = opendir("/proc");
    if (!proc) {
        keldra_log(E, "can't open /proc");
        return -1;
    }
    int found = -1;
    while (struct dirent *entry = readdir(proc)) {
        long pid;
        if (parse_pid(entry->d_name, &pid) && command_matches(pid, name)) {
            found = (int)pid;
            break;
        }
    }
    closedir(proc);
    return found;
}

// Blocks until the watched executable is closed or the process has gone.
static int wait_for_exe_close(int inotify_fd, int proc_dir_fd, int pid)
{
    for (;;) {
        keldra_log(I, "Wait for inotify_event for pid:%d ...\n", pid);
        struct inotify_event event = {};
        if (read(inotify_fd, &event, sizeof event) < 0) {
            char err[256];
            keldra_log(E, "failed read event: %s\n", strerror_r(errno, err, sizeof err));
            return -1;
        }
        keldra_log(I, "inotify_event received : 0x%08x for pid: %d\n", event.mask, pid);
        if (event.mask & IN_CLOSE_NOWRITE)
            return pid;
        int fd = openat(proc_dir_fd, "fd", O_RDONLY);
        if (fd < 0)
            return pid;
        close(fd);
    }
}

int wait_for_pid(int pid)
{
    char err[256];
    if (pid < 0) {
        keldra_log(E, "Invalid pid\n");
        return -1;
    }
    int inotify_fd = inotify_init();
    if (inotify_fd < 0) {
        keldra_log(E, "Can't inotify_init: %s\n", strerror_r(errno, err, sizeof err));
        return -1;
    }
    char path[32];
    snprintf(path, sizeof path, "/proc/%d/exe", pid);
    if (inotify_add_watch(inotify_fd, path, IN_CLOSE_NOWRITE) < 0) {
        keldra_log(E, "Error inotify_add_watch: %s\n", strerror_r(errno, err, sizeof err));
        close(inotify_fd);
        return -1;
    }
    snprintf(path, sizeof path, "/proc/%d", pid);
    int proc_dir_fd = open(path, O_RDONLY);
    if (proc_dir_fd < 0) {
        keldra_log(E, "Error open directory: %s\n", strerror_r(errno, err, sizeof err));
        close(inotify_fd);
        return -1;
    }
    int result = wait_for_exe_close(inotify_fd, proc_dir_fd, pid);
    close(proc_dir_fd);
    close(inotify_fd);
    keldra_log(I, "Finished wait for pid:%d\n", result);
    return result;
}

bool keldra_is_ready_file_done(const char *path)
{
    return access(path, F_OK) == 0;
}

int keldra_ready_file_done(const char *path)
{
    int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0)
        return -errno;
    close(fd);
    return 0;
}
