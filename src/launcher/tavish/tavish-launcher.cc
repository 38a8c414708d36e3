// Keeps the denial logger tavish running: adopt a running logger or launch
// one, mark it ready at once, wait for its end, start over. The logger runs
// with the supervisor's own Smack label.
#include "tavish-launcher.h"

#include "keldra-log.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

static const char *const tavish_path = "/usr/bin/tavish";
static const char *const tavish_ready_file = "/run/tavish.ready";
static const char *const tavish_leftover = "/opt/var/log/smack";

static void *tavish_launcher_handler(void *arg);

keldra_context *tavish_launcher_create_context(void)
{
    tavish_context *context = new tavish_context;
    context->id = 3;
    context->thread = 0;
    context->finished = true;
    context->init_script = nullptr;
    context->handler = tavish_launcher_handler;
    return context;
}

int tavish_launcher_init(keldra_context *)
{
    if (unlink(tavish_leftover) < 0) {
        char err[256];
        if (errno == ENOENT)
            keldra_log(W, "%s: File %s not found\n", __func__, tavish_leftover);
        else
            keldra_log(E, "Error during format pre-launch tavish command: %s\n",
                       strerror_r(errno, err, sizeof err));
    }
    return 0;
}

// Forks the logger into a session of its own; returns the fork result.
static int launch_tavish(void)
{
    char err[256];
    keldra_log(W, "No process tavish found, start new one!\n");
    pid_t pid = fork();
    if (pid == -1) {
        keldra_log(E, "failed to launch tavish: %s\n", strerror_r(errno, err, sizeof err));
        return -1;
    }
    if (pid == 0) {
        if (setsid() < 0)
            keldra_log(E, "failed to setsid : %s\n", strerror_r(errno, err, sizeof err));
        execl(tavish_path, tavish_path, (char *)nullptr);
        int exec_errno = errno;
        keldra_log(E, "failed execl :%s\n", strerror_r(errno, err, sizeof err));
        exit(exec_errno);
    }
    keldra_log(I, "tavish launched successfully pid: %d\n", pid);
    return pid;
}

static void *tavish_launcher_handler(void *arg)
{
    keldra_context *context = static_cast<keldra_context *>(arg);
    if (!context) {
        keldra_log(E, "Invalid context\n");
        pthread_exit(nullptr);
    }

    int pid = -1;
    int status = 0; // a failed waitpid leaves the previous word to be classified
    bool finished = false;
    while (!finished) {
        pthread_cleanup_push(keldra_cleanup_handler, context);
        finished = context->finished;
        if (!finished) {
            if (keldra_is_ready_file_done(tavish_ready_file)) {
                keldra_log(E, "%s already was ran ...\n", tavish_path);
                pid = keldra_find_process_by_name(tavish_path);
            }
            int r;
            if (pid < 0) {
                pid = launch_tavish();
                int d = keldra_ready_file_done(tavish_ready_file);
                if (d < 0)
                    keldra_log(E, "Can't set event done for %s. error: %d\n", tavish_ready_file, d);
                r = waitpid(pid, &status, 0);
                if (WIFEXITED(status)) {
                    keldra_log(I, "tavish process terminate - success \n");
                    keldra_log(I, "return value : %d \n", WEXITSTATUS(status));
                } else if (WIFSIGNALED(status)) {
                    keldra_log(E, "tavish process terminate - fail \n");
                    keldra_log(E, "signal num : %d \n", WTERMSIG(status));
                } else if (WIFSTOPPED(status)) {
                    keldra_log(I, "tavish process - stop \n");
                    keldra_log(I, "signal num : %d \n", WSTOPSIG(status));
                } else if (status == 0xffff) {
                    keldra_log(I, "tavish process - restart \n");
                }
                if (WIFEXITED(status) || WIFSIGNALED(status)) {
                    int u = unlink(tavish_ready_file);
                    if (u < 0)
                        keldra_log(E, "Can't reset event for %s. error: %d\n", tavish_ready_file, u);
                }
                // pid keeps the dead child's number: the next pass finds it gone.
            } else {
                keldra_log(W, "Found tavish launched successfully pid: %d\n", pid);
                r = wait_for_pid(pid);
                int u = unlink(tavish_ready_file);
                pid = -1;
                if (u < 0)
                    keldra_log(E, "Can't set event reset for %s. error: %d\n", tavish_ready_file, u);
            }
            keldra_log(E, "tavish(%d) is dead\n", r);
        }
        pthread_cleanup_pop(0);
    }
    return nullptr;
}
