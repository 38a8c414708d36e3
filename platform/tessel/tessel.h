/* Platform event-IPC library. The device ships the real one; this header and
 * the host stand-in in this folder keep the same interface. */
#ifndef TESSEL_H
#define TESSEL_H

#ifdef __cplusplus
extern "C" {
#endif

/* Waiting modes. */
#define TESSEL_WAIT_ANY 0 /* until at least one of the events is raised */
#define TESSEL_WAIT_ALL 1 /* until every event is raised */

/* Waits until the named events are raised. With mode 1 it waits for all of
 * them, with mode 0 for any one of them. Returns 0 when they were raised
 * within timeout_ms, a positive value when the time-out expired first, a
 * negative errno on error.
 *
 * Host stand-in: an event name is the absolute path of a file, and the event
 * is raised once a directory entry of that name exists (found at a check, or
 * created or moved into its directory while waiting); it stays raised for the
 * rest of the call even if the entry goes away again. Waiting uses inotify on
 * the parent directories, which must exist when the call starts.
 *
 *   - timeout_ms 0 checks once without waiting; a negative timeout_ms waits
 *     without limit.
 *   - On time-out the result is the number of events not raised (>= 1).
 *   - Errors: -EINVAL for a null events array, count <= 0, a null, empty or
 *     relative name, a name ending in '/', or a mode other than 0 and 1;
 *     -ENAMETOOLONG for a name of PATH_MAX bytes or more; -ENOENT when a
 *     parent directory does not exist or is removed while waiting;
 *     -ENOTDIR when it is not a directory; -ENOMEM, or the negative errno of
 *     a failed inotify or poll call.
 *   - result: when result is not null and result_size > 0, it receives the
 *     names of the events raised by the time of return (on success and on
 *     time-out), in argument order, each followed by '\n', cut to
 *     result_size - 1 bytes and always NUL-terminated; an empty string on
 *     error. */
int TesselWaitMultiEvents(const char **events, int count, int mode, int timeout_ms,
                          char *result, int result_size);

#ifdef __cplusplus
}
#endif

#endif
