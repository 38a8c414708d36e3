// The dual diagnostic log: every message goes to the platform log and to
// stderr, with the call site's file base name, function and line.
//
//   keldra_log(E, "Thread %d is cancelled\n", id);
//
// writes "[<sec>.<nsec>]" to stderr, then hands "%s: %s(%d) > <fmt>" to
// __vesk_print with priority 6 and tag "KELDRA", then writes
// "[KELDRA][E][<file>:<line>] <fmt>" to stderr. The message format carries its
// own line end; nothing is added. Arguments are evaluated once per sink, so an
// error text built with strerror_r is produced twice, from errno read anew.
#pragma once

#include <vesk.h>

#define KELDRA_LOG_TAG "KELDRA"
#define KELDRA_LOG_ID 0

#define KELDRA_LOG_PRIO_E 6
#define KELDRA_LOG_PRIO_W 5
#define KELDRA_LOG_PRIO_I 4
#define KELDRA_LOG_PRIO_D 3

// Reads CLOCK_MONOTONIC_RAW and writes "[%ld.%ld]" (no zero padding) to stderr.
void keldra_log_stamp(void);

// Writes one formatted line to stderr; the format already holds the prefix.
void keldra_log_line(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

#define keldra_log(level, fmt, ...)                                                  \
    (keldra_log_stamp(),                                                             \
     __vesk_print(KELDRA_LOG_ID, KELDRA_LOG_PRIO_##level, KELDRA_LOG_TAG,            \
                  "%s: %s(%d) > " fmt, __FILE_NAME__, __func__, __LINE__,            \
                  ##__VA_ARGS__),                                                    \
     keldra_log_line("[" KELDRA_LOG_TAG "][" #level "][%s:%d] " fmt, __FILE_NAME__, \
                     __LINE__, ##__VA_ARGS__))

// A message for the platform log alone (no stamp, no stderr line).
#define keldra_log_platform(level, fmt, ...)                                       \
    __vesk_print(KELDRA_LOG_ID, KELDRA_LOG_PRIO_##level, KELDRA_LOG_TAG,           \
                 "%s: %s(%d) > " fmt, __FILE_NAME__, __func__, __LINE__, ##__VA_ARGS__)
