// The two stderr writes of the dual log; the platform half is a direct call
// in the keldra_log macro.
#include "keldra-log.h"

#include <stdarg.h>
#include <stdio.h>
#include <time.h>

void keldra_log_stamp(void)
{
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_RAW, &now);
    fprintf(stderr, "[%ld.%ld]", (long)now.tv_sec, (long)now.tv_nsec);
}

void keldra_log_line(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
}
