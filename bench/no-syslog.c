/* keldra-bench-nosyslog: a preload library for bench/experiments.sh that
 * turns openlog(3) and syslog(3) into calls that do nothing, so that the host
 * log stand-in's attempt to reach a system log costs nothing. Loaded only into
 * the experiment's sandbox, never into a benchmark run or a test. */
#include <syslog.h>

void openlog(const char *ident, int option, int facility)
{
    (void)ident;
    (void)option;
    (void)facility;
}

void syslog(int priority, const char *format, ...)
{
    (void)priority;
    (void)format;
}
