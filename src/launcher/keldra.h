// The supervisor's framework: launcher contexts, the table of launchers, the
// shared lock and conditions, the single-instance lock and the process toolkit.
#pragma once

#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <sys/types.h>

// The per-launcher context. Launchers that need more state derive from it.
class keldra_context {
public:
    virtual ~keldra_context() {}

    int32_t id = 0;                        // index in launcher_table
    pthread_t thread = 0;                  // last launcher thread created
    bool finished = true;                  // no thread runs, or it asks to be restarted
    const char *init_script = nullptr;     // set by the orvel launcher only
    void *(*handler)(void *) = nullptr;    // the launcher's thread routine
};

struct launcher {
    keldra_context *(*create_context)(void);
    int (*init)(keldra_context *context);
    void (*finish)(keldra_context *context);
};

constexpr int KELDRA_LAUNCHER_COUNT = 4;

extern const launcher launcher_table[KELDRA_LAUNCHER_COUNT];

extern pthread_mutex_t mutex;
extern pthread_cond_t thread_finished;
extern pthread_cond_t thread_started;
extern bool terminate_launcher;
extern int lock_fd;

// Framework.
int keldra_start(keldra_context *contexts[KELDRA_LAUNCHER_COUNT]);
// Makes keldra_start and keldra_shutdown work through another table of
// launchers (null: launcher_table again).
void keldra_set_launcher_table(const launcher table[KELDRA_LAUNCHER_COUNT]);
// Installs `handler` for `signo` (SA_SIGINFO) so that it runs in normal
// context on a relay thread of its own rather than in signal context.
int keldra_install_signal_handler(int signo, void (*handler)(int, siginfo_t *, void *));
int keldra_run(keldra_context *context);
void keldra_finish(keldra_context *context);
void keldra_cleanup_handler(void *context);
void keldra_main_loop(keldra_context *contexts[KELDRA_LAUNCHER_COUNT]);
void keldra_shutdown(keldra_context *contexts[KELDRA_LAUNCHER_COUNT]);
void keldra_signal_thread_started(void);

// Single-instance lock.
int keldra_lock(void);
int keldra_write_pidfile(int fd);
long keldra_find_process_by_lock(const char *path);
int keldra_unlock(void);

// Process toolkit.
int keldra_set_label(const char *label);
int keldra_find_process_by_name(const char *name);
int wait_for_pid(int pid);
bool keldra_is_ready_file_done(const char *path);
int keldra_ready_file_done(const char *path);

// Fixed paths shared by several parts of the supervisor.
#define KELDRA_READY_FILE "/run/keldra.ready"
#define KELDRA_LOCK_FILE "/tmp/keldra.lock"
