/* The reference for keldra's process lookup: a minimal C scan of
 * /proc/<pid>/cmdline. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* Pid of the first process (in /proc order) whose first command-line argument
 * is exactly `argv0`, or -1. */
int cscan_find_by_argv0(const char *argv0);

#ifdef __cplusplus
}
#endif
