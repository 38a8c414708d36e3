/* Platform log library. The device ships the real one; this header and the
 * host stand-in in this folder keep the same interface. */
#ifndef VESK_H
#define VESK_H

#ifdef __cplusplus
extern "C" {
#endif

/* Records one message under a tag and a priority (6 error, 5 warning,
 * 4 info, 3 debug). The result carries no meaning for callers. */
int __vesk_print(int log_id, int prio, const char *tag, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif

#endif
