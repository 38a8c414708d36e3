/* Platform event-IPC library. The device ships the real one; this header and
 * the host stand-in in this folder keep the same interface. */
#ifndef TESSEL_H
#define TESSEL_H

#ifdef __cplusplus
extern "C" {
#endif

/* Waits until the named events are raised. With mode 1 it waits for all of
 * them. Returns 0 when they were raised within timeout_ms, a positive value
 * when the time-out expired first, a negative errno on error. */
int TesselWaitMultiEvents(const char **events, int count, int mode, int timeout_ms,
                          char *result, int result_size);

#ifdef __cplusplus
}
#endif

#endif
