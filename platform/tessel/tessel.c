/* Host stand-in of the platform event-IPC library. An event is a file: it is
 * raised once a directory entry of that absolute path exists. The wait
 * watches the parent directories with inotify (no polling of the names):
 *
 *   1. check the names once; done if the mode is already satisfied;
 *   2. add a watch on every parent directory, then check the names again, so
 *      that an entry created between the two steps is not missed;
 *   3. until the mode is satisfied or the deadline (CLOCK_MONOTONIC) passes,
 *      poll the inotify descriptor with the remaining time, mark the names
 *      that the events report as created or moved in, and check the names
 *      still missing once more (which also covers a queue overflow).
 *
 * The contract (modes, results, errors) is in tessel.h. Nothing is global:
 * the call is thread-safe, and every path closes the inotify descriptor and
 * frees what it allocated. */
#define _GNU_SOURCE
#include "tessel.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#define TESSEL_WATCH_MASK (IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR)
#define TESSEL_PARENT_GONE (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT)

struct tessel_event {
    const char *path; /* the caller's name */
    const char *base; /* its last component, inside path */
    size_t dir_len;   /* length of the parent directory's part of path */
    int wd;           /* watch of the parent directory, -1 before it is added */
    int raised;
};

struct tessel_wait {
    struct tessel_event *events;
    int count;
    int mode;
    int inotify_fd;
    int unlimited;
    struct timespec deadline;
};

static int check_name(const char *name)
{
    if (!name || name[0] != '/')
        return -EINVAL;
    size_t len = strnlen(name, PATH_MAX);
    if (len >= PATH_MAX)
        return -ENAMETOOLONG;
    if (name[len - 1] == '/')
        return -EINVAL;
    return 0;
}

static int check_arguments(const char **events, int count, int mode)
{
    if (!events || count <= 0)
        return -EINVAL;
    if (mode != TESSEL_WAIT_ANY && mode != TESSEL_WAIT_ALL)
        return -EINVAL;
    for (int i = 0; i < count; ++i) {
        int r = check_name(events[i]);
        if (r < 0)
            return r;
    }
    return 0;
}

static void set_deadline(struct tessel_wait *w, int timeout_ms)
{
    w->unlimited = timeout_ms < 0;
    if (w->unlimited)
        return;
    clock_gettime(CLOCK_MONOTONIC, &w->deadline);
    w->deadline.tv_sec += timeout_ms / 1000;
    w->deadline.tv_nsec += (long)(timeout_ms % 1000) * 1000000L;
    if (w->deadline.tv_nsec >= 1000000000L) {
        w->deadline.tv_sec += 1;
        w->deadline.tv_nsec -= 1000000000L;
    }
}

/* Milliseconds left before the deadline, rounded up so that poll() never
 * returns before it; 0 once it has passed; -1 without a deadline. */
static int remaining_ms(const struct tessel_wait *w)
{
    if (w->unlimited)
        return -1;
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    int64_t left_ns = (int64_t)(w->deadline.tv_sec - now.tv_sec) * 1000000000LL
                      + (w->deadline.tv_nsec - now.tv_nsec);
    if (left_ns <= 0)
        return 0;
    int64_t ms = (left_ns + 999999) / 1000000;
    return ms > INT_MAX ? INT_MAX : (int)ms;
}

static int prepare_events(struct tessel_wait *w, const char **names, int count)
{
    w->events = calloc((size_t)count, sizeof *w->events);
    if (!w->events)
        return -ENOMEM;
    w->count = count;
    for (int i = 0; i < count; ++i) {
        struct tessel_event *e = &w->events[i];
        const char *slash = strrchr(names[i], '/');
        e->path = names[i];
        e->base = slash + 1;
        e->dir_len = slash == names[i] ? 1 : (size_t)(slash - names[i]);
        e->wd = -1;
    }
    return 0;
}

static int entry_exists(const char *path)
{
    struct stat st;
    return fstatat(AT_FDCWD, path, &st, AT_SYMLINK_NOFOLLOW) == 0;
}

static void check_names(struct tessel_wait *w)
{
    for (int i = 0; i < w->count; ++i)
        if (!w->events[i].raised && entry_exists(w->events[i].path))
            w->events[i].raised = 1;
}

static int count_pending(const struct tessel_wait *w)
{
    int pending = 0;
    for (int i = 0; i < w->count; ++i)
        pending += !w->events[i].raised;
    return pending;
}

static int is_satisfied(const struct tessel_wait *w)
{
    int pending = count_pending(w);
    return w->mode == TESSEL_WAIT_ALL ? pending == 0 : pending < w->count;
}

static int add_watches(struct tessel_wait *w)
{
    w->inotify_fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (w->inotify_fd < 0)
        return -errno;
    char dir[PATH_MAX];
    for (int i = 0; i < w->count; ++i) {
        struct tessel_event *e = &w->events[i];
        memcpy(dir, e->path, e->dir_len);
        dir[e->dir_len] = '\0';
        e->wd = inotify_add_watch(w->inotify_fd, dir, TESSEL_WATCH_MASK);
        if (e->wd < 0)
            return -errno;
    }
    return 0;
}

static int watched_parent(const struct tessel_wait *w, int wd)
{
    for (int i = 0; i < w->count; ++i)
        if (w->events[i].wd == wd)
            return 1;
    return 0;
}

/* Applies one inotify record; -ENOENT when a parent directory went away. */
static int apply_record(struct tessel_wait *w, const struct inotify_event *ev)
{
    if ((ev->mask & TESSEL_PARENT_GONE) && watched_parent(w, ev->wd))
        return -ENOENT;
    if (ev->len == 0)
        return 0;
    for (int i = 0; i < w->count; ++i) {
        struct tessel_event *e = &w->events[i];
        if (e->wd == ev->wd && strcmp(e->base, ev->name) == 0)
            e->raised = 1;
    }
    return 0;
}

/* Reads every queued inotify record. */
static int drain_records(struct tessel_wait *w)
{
    char buf[4096] __attribute__((aligned(__alignof__(struct inotify_event))));
    for (;;) {
        ssize_t n = read(w->inotify_fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && errno == EAGAIN)
            return 0;
        if (n < 0)
            return -errno;
        if (n == 0)
            return -EIO;
        for (char *p = buf; p < buf + n;) {
            const struct inotify_event *ev = (const struct inotify_event *)p;
            int r = apply_record(w, ev);
            if (r < 0)
                return r;
            p += sizeof *ev + ev->len;
        }
    }
}

/* Waits for the mode to be satisfied: 0, the number of events still pending
 * on time-out, or a negative errno. */
static int wait_for_events(struct tessel_wait *w)
{
    for (;;) {
        if (is_satisfied(w))
            return 0;
        int left = remaining_ms(w);
        if (left == 0) {
            /* A last look: an entry made just before the deadline counts. */
            check_names(w);
            return is_satisfied(w) ? 0 : count_pending(w);
        }
        struct pollfd pfd = { .fd = w->inotify_fd, .events = POLLIN };
        int r = poll(&pfd, 1, left);
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0)
            return -errno;
        if (r == 0)
            continue;
        r = drain_records(w);
        if (r < 0)
            return r;
        check_names(w);
    }
}

/* Writes the raised names, each followed by '\n', cut to fit and always
 * NUL-terminated. */
static void fill_result(const struct tessel_wait *w, char *result, int result_size)
{
    if (!result || result_size <= 0)
        return;
    size_t size = (size_t)result_size;
    size_t used = 0;
    result[0] = '\0';
    for (int i = 0; w->events && i < w->count && used + 1 < size; ++i) {
        if (!w->events[i].raised)
            continue;
        size_t len = strlen(w->events[i].path);
        size_t room = size - 1 - used;
        size_t take = len < room ? len : room;
        memcpy(result + used, w->events[i].path, take);
        used += take;
        if (used + 1 < size)
            result[used++] = '\n';
    }
    result[used] = '\0';
}

static int run_wait(struct tessel_wait *w, const char **events, int count, int timeout_ms)
{
    set_deadline(w, timeout_ms);
    int r = prepare_events(w, events, count);
    if (r < 0)
        return r;
    check_names(w);
    if (is_satisfied(w))
        return 0;
    r = add_watches(w);
    if (r < 0)
        return r;
    check_names(w);
    return wait_for_events(w);
}

int TesselWaitMultiEvents(const char **events, int count, int mode, int timeout_ms,
                          char *result, int result_size)
{
    struct tessel_wait w = { .events = NULL, .count = 0, .mode = mode, .inotify_fd = -1 };
    int r = check_arguments(events, count, mode);
    if (r == 0)
        r = run_wait(&w, events, count, timeout_ms);
    if (r < 0)
        w.count = 0;
    fill_result(&w, result, result_size);
    if (w.inotify_fd >= 0)
        close(w.inotify_fd);
    free(w.events);
    return r;
}
