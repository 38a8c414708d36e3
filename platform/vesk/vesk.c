/* Host stand-in of the platform log library: formats the message and hands it
 * to syslog(3) under the tag as ident, with the priorities mapped as
 *
 *     6 -> LOG_ERR, 5 -> LOG_WARNING, 4 -> LOG_INFO, 3 -> LOG_DEBUG,
 *     anything else -> LOG_NOTICE.
 *
 * When the environment variable VESK_LOG_FILE names a file (it is read at
 * every call), one line per call is appended to it as well, for tests:
 *
 *     <log_id>\t<prio>\t<tag>\t<text>\n
 *
 * log_id and prio in decimal; in tag and text a line break is written as \n,
 * a tab as \t and a backslash as \\, so that every record is exactly one line
 * with exactly three tabs. A null tag is written as an empty field. The
 * formatted text is cut at 4095 bytes. Every record is written with a single
 * write(2) to a descriptor opened with O_APPEND, so records of concurrent
 * writers (threads or processes) never mix.
 *
 * Fork and signals: syslog(3) takes a lock of the C library. A fork() while
 * another thread holds it would leave the child's copy locked forever, so
 * every syslog call here runs under vesk_lock, and a pthread_atfork handler
 * takes vesk_lock around fork(): no thread is inside syslog(3) when the
 * address space is copied. A call made from a signal handler that interrupted
 * this thread's own call would deadlock on the C library's lock, so such a
 * nested call skips syslog(3) and only writes the file record.
 *
 * errno is left as the caller had it. */
#define _GNU_SOURCE
#include "vesk.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#define VESK_TEXT_MAX 4096
#define VESK_TAG_MAX 256
/* Every byte may be escaped to two: tag and text escaped, two numbers, three
 * tabs and the line end. */
#define VESK_LINE_MAX (2 * VESK_TEXT_MAX + 2 * VESK_TAG_MAX + 64)

static pthread_mutex_t vesk_lock;
/* Set while this thread is inside its syslog section; initial-exec so that
 * reading it from a signal handler never allocates. */
static __thread int vesk_in_syslog __attribute__((tls_model("initial-exec")));
/* The tag syslog is open with. Guarded by vesk_lock; accessed atomically as
 * well, because a thread may get here from its cancellation cleanup after
 * being cancelled inside a blocking call, where ThreadSanitizer no longer
 * records the locks the thread takes and would report the guarded accesses
 * as a race. */
static const char *vesk_ident;

/* Recursive, so that a signal handler that interrupts fork()'s prepare step
 * in the same thread can still take it. */
static void init_lock(void)
{
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&vesk_lock, &attr);
    pthread_mutexattr_destroy(&attr);
}

static void lock_before_fork(void)
{
    pthread_mutex_lock(&vesk_lock);
}

static void unlock_in_parent(void)
{
    pthread_mutex_unlock(&vesk_lock);
}

/* The child's only thread has a new thread id, which a recursive mutex does
 * not recognise as its owner: start the child with a fresh lock. */
static void reset_in_child(void)
{
    init_lock();
    vesk_in_syslog = 0;
}

__attribute__((constructor)) static void vesk_setup(void)
{
    init_lock();
    pthread_atfork(lock_before_fork, unlock_in_parent, reset_in_child);
}

static int syslog_priority(int prio)
{
    switch (prio) {
    case 6: return LOG_ERR;
    case 5: return LOG_WARNING;
    case 4: return LOG_INFO;
    case 3: return LOG_DEBUG;
    default: return LOG_NOTICE;
    }
}

/* Sends the text to syslog(3), reopening the log when the tag changes.
 * openlog() keeps the ident pointer: callers pass constant tags, so the
 * pointer stays valid. */
static void send_to_syslog(int prio, const char *tag, const char *text)
{
    if (vesk_in_syslog)
        return;
    /* syslog(3) connects and sends, which are cancellation points: a thread
     * cancelled there would keep vesk_lock for ever and every later call of
     * every thread would wait for it. Cancellation is held off meanwhile. */
    int cancel_state;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state);
    vesk_in_syslog = 1;
    pthread_mutex_lock(&vesk_lock);
    if (tag && tag != __atomic_load_n(&vesk_ident, __ATOMIC_RELAXED)) {
        __atomic_store_n(&vesk_ident, tag, __ATOMIC_RELAXED);
        openlog(tag, LOG_PID, LOG_USER);
    }
    syslog(syslog_priority(prio), "%s", text);
    pthread_mutex_unlock(&vesk_lock);
    vesk_in_syslog = 0;
    pthread_setcancelstate(cancel_state, NULL);
}

/* Appends text escaped to out at *used, never past out_size - 1 bytes, and
 * keeps out NUL-terminated. Stops before a character whose escape does not
 * fit whole. */
static void append_escaped(const char *text, char *out, size_t out_size, size_t *used)
{
    size_t o = *used;
    for (const char *p = text; *p; ++p) {
        char esc = 0;
        if (*p == '\n') esc = 'n';
        else if (*p == '\t') esc = 't';
        else if (*p == '\\') esc = '\\';
        size_t need = esc ? 2 : 1;
        if (o + need >= out_size)
            break;
        if (esc) {
            out[o++] = '\\';
            out[o++] = esc;
        } else {
            out[o++] = *p;
        }
    }
    out[o] = '\0';
    *used = o;
}

/* Builds the record line into line (VESK_LINE_MAX bytes); returns its length,
 * the line end included. */
static size_t format_record(char *line, int log_id, int prio, const char *tag,
                            const char *text)
{
    /* Leave room for the line end behind the text. */
    const size_t body_size = VESK_LINE_MAX - 1;
    int head = snprintf(line, body_size, "%d\t%d\t", log_id, prio);
    size_t used = head > 0 ? (size_t)head : 0;
    char short_tag[VESK_TAG_MAX];
    snprintf(short_tag, sizeof short_tag, "%s", tag);
    append_escaped(short_tag, line, body_size, &used);
    if (used + 1 < body_size)
        line[used++] = '\t';
    append_escaped(text, line, body_size, &used);
    line[used++] = '\n';
    line[used] = '\0';
    return used;
}

static void append_record(const char *path, int log_id, int prio, const char *tag,
                          const char *text)
{
    char line[VESK_LINE_MAX + 1];
    size_t len = format_record(line, log_id, prio, tag, text);
    int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0644);
    if (fd < 0)
        return;
    /* One write per record: O_APPEND keeps records of concurrent writers whole. */
    ssize_t w = write(fd, line, len);
    (void)w;
    close(fd);
}

int __vesk_print(int log_id, int prio, const char *tag, const char *fmt, ...)
{
    int saved_errno = errno;
    if (!fmt) {
        errno = saved_errno;
        return -1;
    }
    char text[VESK_TEXT_MAX];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    if (n < 0) {
        errno = saved_errno;
        return -1;
    }

    send_to_syslog(prio, tag, text);

    const char *path = getenv("VESK_LOG_FILE");
    if (path && *path)
        append_record(path, log_id, prio, tag ? tag : "", text);

    errno = saved_errno;
    return n;
}
