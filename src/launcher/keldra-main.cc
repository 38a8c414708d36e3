// Process entry: bring the launchers up, mark the supervisor ready, restart
// launcher threads until SIGTERM, then stop them and release the lock.
#include "keldra-log.h"
#include "keldra.h"

#include <signal.h>
#include <unistd.h>

void signal_handler(int signo, siginfo_t *, void *)
{
    keldra_log(W, "Signal received: %d\n", signo);
    if (signo != SIGTERM)
        return;
    keldra_log(I, "Request to exit launcher\n");
    pthread_mutex_lock(&mutex);
    terminate_launcher = true;
    pthread_cond_signal(&thread_finished);
    pthread_mutex_unlock(&mutex);
}

int main(int, char **)
{
    keldra_context *contexts[KELDRA_LAUNCHER_COUNT] = {};

    keldra_install_signal_handler(SIGTERM, signal_handler);
    keldra_start(contexts);

    int r = keldra_ready_file_done(KELDRA_READY_FILE);
    if (r < 0)
        keldra_log(E, "Can't set event done for %s. error: %d\n", KELDRA_READY_FILE, r);
    keldra_log(I, "keldra launched successfully (pid:%d)\n", getpid());

    keldra_main_loop(contexts);
    keldra_shutdown(contexts);
    keldra_unlock();
    keldra_log(I, "Finished main loop\n");
    return 0;
}
