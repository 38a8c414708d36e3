// lockf_fault_helper: a preload library that makes calls of the supervisor's
// lock step fail, for the error paths that a healthy system never takes.
// The environment variable KELDRA_LOCKF_FAULT holds a comma-separated list of:
//
//   tlock     the first lockf(F_TLOCK) fails with ENOLCK
//   test      the first lockf(F_TEST) waits (up to 10 s) until the lock is
//             free, then fails with ENOLCK; so the next try of the lock finds
//             it free, whatever the holder's speed
//   realpath  every realpath() fails with ENOENT
//   opendir   the first opendir("/proc") fails with EACCES
//   tessel    every TesselWaitMultiEvents() returns -5 at once
//
// Every other call goes on to the next definition (the C library, the event
// library). The processes the supervisor starts inherit the library too;
// none of them calls these functions in a way that a fault would reach.
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

namespace {

bool fault_is(const char *name)
{
    const char *faults = getenv("KELDRA_LOCKF_FAULT");
    if (!faults)
        return false;
    std::string list = std::string(",") + faults + ",";
    return list.find(std::string(",") + name + ",") != std::string::npos;
}

template <typename F> F next_definition(const char *symbol)
{
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, symbol));
}

int real_lockf(int fd, int cmd, off_t len)
{
    static auto next = next_definition<int (*)(int, int, off_t)>("lockf");
    return next(fd, cmd, len);
}

void wait_until_free(int fd, off_t len)
{
    for (int i = 0; i < 1000 && real_lockf(fd, F_TEST, len) != 0; ++i)
        usleep(10000);
}

} // namespace

extern "C" int lockf(int fd, int cmd, off_t len)
{
    static bool tlock_failed = false;
    static bool test_failed = false;
    if (cmd == F_TLOCK && !tlock_failed && fault_is("tlock")) {
        tlock_failed = true;
        errno = ENOLCK;
        return -1;
    }
    if (cmd == F_TEST && !test_failed && fault_is("test")) {
        test_failed = true;
        wait_until_free(fd, len);
        errno = ENOLCK;
        return -1;
    }
    return real_lockf(fd, cmd, len);
}

extern "C" char *realpath(const char *path, char *resolved)
{
    if (fault_is("realpath")) {
        errno = ENOENT;
        return nullptr;
    }
    static auto next = next_definition<char *(*)(const char *, char *)>("realpath");
    return next(path, resolved);
}

extern "C" DIR *opendir(const char *path)
{
    static bool failed = false;
    if (!failed && strcmp(path, "/proc") == 0 && fault_is("opendir")) {
        failed = true;
        errno = EACCES;
        return nullptr;
    }
    static auto next = next_definition<DIR *(*)(const char *)>("opendir");
    return next(path);
}

extern "C" int TesselWaitMultiEvents(const char **events, int count, int mode, int timeout_ms,
                                     char *result, int result_size)
{
    if (fault_is("tessel"))
        return -5;
    static auto next =
        next_definition<int (*)(const char **, int, int, int, char *, int)>("TesselWaitMultiEvents");
    return next(events, count, mode, timeout_ms, result, result_size);
}
