/* Host stand-in of the platform log library: formats the message and hands it
 * to syslog(3) under the tag as ident. When VESK_LOG_FILE names a file, one
 * line per call is appended to it as well, for tests:
 *
 *     <log_id>\t<prio>\t<tag>\t<text>
 *
 * with the text's own line breaks and tabs escaped as \n and \t, so that every
 * record is exactly one line. */
#define _GNU_SOURCE
#include "vesk.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

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

/* Escapes text into out (at most out_size bytes with the NUL). */
static void escape_text(const char *text, char *out, size_t out_size)
{
    size_t o = 0;
    for (const char *p = text; *p && o + 3 < out_size; ++p) {
        if (*p == '\n') { out[o++] = '\\'; out[o++] = 'n'; }
        else if (*p == '\t') { out[o++] = '\\'; out[o++] = 't'; }
        else if (*p == '\\') { out[o++] = '\\'; out[o++] = '\\'; }
        else out[o++] = *p;
    }
    out[o] = '\0';
}

static void append_record(const char *path, int log_id, int prio, const char *tag,
                          const char *text)
{
    char escaped[8192];
    char line[8448];
    escape_text(text, escaped, sizeof escaped);
    int n = snprintf(line, sizeof line, "%d\t%d\t%s\t%s\n", log_id, prio, tag, escaped);
    if (n < 0)
        return;
    if ((size_t)n >= sizeof line)
        n = (int)sizeof line - 1;
    int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    /* One write per record: O_APPEND keeps records of concurrent writers whole. */
    ssize_t w = write(fd, line, (size_t)n);
    (void)w;
    close(fd);
}

int __vesk_print(int log_id, int prio, const char *tag, const char *fmt, ...)
{
    int saved_errno = errno;
    char text[4096];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    if (n < 0) {
        errno = saved_errno;
        return -1;
    }

    /* openlog() keeps the ident pointer: callers pass constant tags, so the
     * pointer stays valid, and the log is reopened only when the tag changes. */
    static const char *ident;
    if (tag && tag != ident) {
        ident = tag;
        openlog(ident, LOG_PID, LOG_USER);
    }
    syslog(syslog_priority(prio), "%s", text);

    const char *path = getenv("VESK_LOG_FILE");
    if (path && *path)
        append_record(path, log_id, prio, tag ? tag : "", text);

    errno = saved_errno;
    return n;
}
