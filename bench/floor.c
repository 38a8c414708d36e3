/* keldra-bench-floor: the physical floor of relaunching a daemon, a minimal
 * supervisor that forks and executes each program named on its command line
 * (with its path as argv[0], as keldra starts its daemons) and starts it again
 * as soon as waitpid reports its end. Nothing else: no throttling, no log, no
 * readiness, no session.
 *
 *   keldra-bench-floor PATH...
 *
 * With KELDRA_BENCH_FLOOR_SETSID=1 in the environment each child calls
 * setsid() before its exec, as keldra's children do (bench/experiments.sh).
 *
 * The benchmark runs it only inside keldra-sandbox, where the simulated
 * daemons are installed at their fixed paths. */
#define _GNU_SOURCE
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#define MAX_PROGRAMS 16

static int new_session;

static pid_t spawn(const char *path)
{
    pid_t pid = fork();
    if (pid == 0) {
        if (new_session)
            setsid();
        execl(path, path, (char *)NULL);
        _exit(127);
    }
    return pid;
}

static int slot_of(const pid_t *pids, int count, pid_t pid)
{
    for (int i = 0; i < count; i++)
        if (pids[i] == pid)
            return i;
    return -1;
}

static int inside_sandbox(void)
{
    const char *flag = getenv("KELDRA_SANDBOX");
    return flag && strcmp(flag, "1") == 0 && getpid() != 1;
}

int main(int argc, char **argv)
{
    int count = argc - 1;
    if (count < 1 || count > MAX_PROGRAMS) {
        fprintf(stderr, "usage: keldra-bench-floor PATH... (at most %d)\n", MAX_PROGRAMS);
        return 2;
    }
    if (!inside_sandbox()) {
        fprintf(stderr, "keldra-bench-floor: refusing to run outside keldra-sandbox\n");
        return 1;
    }
    const char *setsid_flag = getenv("KELDRA_BENCH_FLOOR_SETSID");
    new_session = setsid_flag && strcmp(setsid_flag, "1") == 0;
    pid_t pids[MAX_PROGRAMS];
    for (int i = 0; i < count; i++)
        pids[i] = spawn(argv[i + 1]);
    for (;;) {
        int status;
        pid_t pid = waitpid(-1, &status, 0);
        if (pid < 0) {
            if (errno == EINTR)
                continue;
            return 1;
        }
        int slot = slot_of(pids, count, pid);
        if (slot >= 0)
            pids[slot] = spawn(argv[slot + 1]);
    }
}
