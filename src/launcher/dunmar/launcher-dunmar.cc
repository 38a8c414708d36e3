// Keeps the privileged-service agent dunmar running: adopt a running agent or
// launch one, wait for its pid file, wait for its end, start over.
#include "launcher-dunmar.h"

#include "keldra-log.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

static const char *const dunmar_path = "/usr/apps/privileged-service/bin/dunmar";
static const char *const dunmar_pid_file = "/run/dunmar.pid";
static const char *const dunmar_label = "System";

static void *dunmar_launcher_handler(void *arg);

keldra_context *dunmar_launcher_create_context(void)
{
    keldra_context *context = new keldra_context;
    context->id = 2;
    context->thread = 0;
    context->finished = true;
    context->init_script = nullptr;
    context->handler = dunmar_launcher_handler;
    return context;
}

int dunmar_launcher_init(keldra_context *)
{
    return 0;
}

// Forks the agent into a session of its own; returns the fork result.
static int launch_dunmar(void)
{
    char err[256];
    keldra_log(W, "No process dunmar found, start new one!\n");
    pid_t pid = fork();
    if (pid == -1) {
        keldra_log(E, "failed to launch dunmar\n");
        return -1;
    }
    if (pid == 0) {
        if (setsid() < 0)
            keldra_log(E, "failed to setsid :%s\n", strerror_r(errno, err, sizeof err));
        execl(dunmar_path, dunmar_path, (char *)nullptr);
        int exec_errno = errno;
        keldra_log(E, "failed execl :%s\n", strerror_r(errno, err, sizeof err));
        exit(exec_errno);
    }
    keldra_log(I, "launch dunmar( %d )\n", pid);
    return pid;
}

// One pass of the readiness wait: up to 1000 polls for the pid file, 1 ms
// apart. Returns true once the file is there.
static bool wait_dunmar_ready(void)
{
    keldra_log_platform(I, "Waiting until the dunmar ready\n");
    for (int poll = 0; poll < 1000; ++poll) {
        if (access(dunmar_pid_file, F_OK) == 0) {
            keldra_log_platform(I, "dunmar is ready\n");
            return true;
        }
        usleep(1000);
    }
    keldra_log(E, "dunmar is not ready\n");
    return false;
}

static void *dunmar_launcher_handler(void *arg)
{
    keldra_context *context = static_cast<keldra_context *>(arg);
    if (!context) {
        keldra_log(E, "Invalid context\n");
        pthread_exit(nullptr);
    }
    if (keldra_set_label(dunmar_label) < 0) {
        keldra_log(E, "Can't set label\n");
        pthread_exit(nullptr);
    }

    int pid = -1;
    int status = 0; // a failed waitpid leaves the previous word to be classified
    bool finished = false;
    while (!finished) {
        pthread_cleanup_push(keldra_cleanup_handler, context);
        finished = context->finished;
        if (!finished) {
            if (keldra_is_ready_file_done(dunmar_pid_file)) {
                keldra_log(E, "%s already was ran ...\n", dunmar_path);
                pid = keldra_find_process_by_name(dunmar_path);
            }
            int r;
            if (pid < 0) {
                pid = launch_dunmar();
                for (int passes = 0; passes < 10 && !wait_dunmar_ready();) {
                    ++passes;
                    keldra_log(W, "Wait when dunmar started: %d\n", passes);
                }
                keldra_log(E, "dunmar launched successfully (pid: %d)\n", pid);
                r = waitpid(pid, &status, 0);
                if (WIFEXITED(status)) {
                    keldra_log(I, "dunmar process finished - success\n");
                    keldra_log(I, "return value : %d\n", WEXITSTATUS(status));
                } else if (WIFSIGNALED(status)) {
                    keldra_log(E, "dunmar process terminate - fail\n");
                    keldra_log(E, "signal num : %d\n", WTERMSIG(status));
                } else if (WIFSTOPPED(status)) {
                    keldra_log(I, "dunmar process - stop\n");
                    keldra_log(I, "signal num : %d\n", WSTOPSIG(status));
                } else if (status == 0xffff) {
                    keldra_log(I, "dunmar process - restart\n");
                }
                if (WIFEXITED(status) || WIFSIGNALED(status)) {
                    int u = unlink(dunmar_pid_file);
                    if (u < 0)
                        keldra_log(E, "Can't reset event for %s. error: %d\n", dunmar_pid_file, u);
                }
                // pid keeps the dead child's number: the next pass finds it gone.
            } else {
                keldra_log(W, "Found dunmar launched successfully (pid: %d)\n", pid);
                r = wait_for_pid(pid);
                pid = -1;
            }
            keldra_log(E, "dunmar(%d) is dead\n", r);
        }
        pthread_cleanup_pop(0);
    }
    return nullptr;
}
