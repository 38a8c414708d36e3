// lock_holder_helper: a process that holds (or only opens) the supervisor's
// lock file, for the lock and takeover scenarios. Run it inside the sandbox
// only.
//
//   lock_holder_helper --record FILE [--path PATH] [--no-lock] [--view DIR]
//                      [--on-term exit|ignore|release] [--release-ms N]
//                      [--release-on-usr1]
//
//   --record FILE      event lines are appended here (one write per line):
//                        event=ready pid=P fd=F link=L locked=0|1 mono_ns=T
//                        event=released mono_ns=T
//                        event=term n=N mono_ns=T
//                        event=exit mono_ns=T
//                        event=error step=S errno=E mono_ns=T
//                      T is CLOCK_MONOTONIC_RAW, the clock of the supervisor's
//                      stderr stamps.
//   --path PATH        the file (default /tmp/keldra.lock), opened O_RDWR |
//                      O_CREAT, mode 0600
//   --no-lock          keep the file open without locking it
//   --view DIR         open the file from a mount namespace of its own, through
//                      a bind mount of its directory on DIR (see open_in_view)
//   --on-term MODE     on SIGTERM: exit (default; exiting releases the lock),
//                      ignore (note it and go on), release (wait --release-ms,
//                      unlock, close and exit)
//   --release-on-usr1  on SIGUSR1: unlock, but keep the file open
//
// The lock is a lockf() lock (an fcntl record lock), the kind the supervisor
// takes and tests; flock(1) would take a different kind of lock.
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>

namespace {

enum class term_mode { exit_now, ignore, release };

struct holder_options {
    std::string record;
    std::string path = "/tmp/keldra.lock";
    std::string view;
    bool lock = true;
    term_mode on_term = term_mode::exit_now;
    long release_ms = 0;
    bool release_on_usr1 = false;
};

unsigned long long monotonic_raw_ns()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_RAW, &now);
    return (unsigned long long)now.tv_sec * 1000000000ull + (unsigned long long)now.tv_nsec;
}

std::string record_path;

void note(const std::string &fields)
{
    std::string line = fields + " mono_ns=" + std::to_string(monotonic_raw_ns()) + "\n";
    int fd = open(record_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0)
        return;
    ssize_t w = write(fd, line.data(), line.size());
    (void)w;
    close(fd);
}

[[noreturn]] void fail(const char *step, int status)
{
    note(std::string("event=error step=") + step + " errno=" + std::to_string(errno));
    _exit(status);
}

bool parse_term_mode(const char *text, term_mode *mode)
{
    if (strcmp(text, "exit") == 0)
        *mode = term_mode::exit_now;
    else if (strcmp(text, "ignore") == 0)
        *mode = term_mode::ignore;
    else if (strcmp(text, "release") == 0)
        *mode = term_mode::release;
    else
        return false;
    return true;
}

bool parse_options(int argc, char **argv, holder_options *o)
{
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        bool has_value = i + 1 < argc;
        if (arg == "--no-lock")
            o->lock = false;
        else if (arg == "--release-on-usr1")
            o->release_on_usr1 = true;
        else if (arg == "--record" && has_value)
            o->record = argv[++i];
        else if (arg == "--path" && has_value)
            o->path = argv[++i];
        else if (arg == "--view" && has_value)
            o->view = argv[++i];
        else if (arg == "--release-ms" && has_value)
            o->release_ms = strtol(argv[++i], nullptr, 10);
        else if (arg == "--on-term" && has_value) {
            if (!parse_term_mode(argv[++i], &o->on_term))
                return false;
        } else
            return false;
    }
    return !o->record.empty();
}

// Opens the file as a process of another mount namespace sees it: the helper
// unshares its mount namespace, makes every mount private to it, and binds
// the file's directory on `view`, then opens the file through that bind. The
// file is the very same inode, so the lock conflicts with the supervisor's,
// but the link /proc/<pid>/fd/<fd> shows the path in the helper's namespace
// (<view>/<name>): a process of the supervisor's namespace that resolves the
// link never reads the lock file's own path there.
int open_in_view(const std::string &path, const std::string &view)
{
    size_t slash = path.rfind('/');
    std::string dir = slash == 0 ? "/" : path.substr(0, slash);
    std::string name = path.substr(slash + 1);
    if (mkdir(view.c_str(), 0755) < 0 && errno != EEXIST)
        fail("mkdir-view", 2);
    if (unshare(CLONE_NEWNS) < 0)
        fail("unshare", 2);
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0)
        fail("make-private", 2);
    if (mount(dir.c_str(), view.c_str(), nullptr, MS_BIND, nullptr) < 0)
        fail("bind", 2);
    return open((view + "/" + name).c_str(), O_RDWR | O_CREAT, 0600);
}

std::string link_of(int fd)
{
    char link_path[64];
    snprintf(link_path, sizeof link_path, "/proc/self/fd/%d", fd);
    char target[512];
    ssize_t n = readlink(link_path, target, sizeof target - 1);
    if (n < 0)
        return "?";
    target[n] = '\0';
    return target;
}

void unlock(int fd)
{
    if (lockf(fd, F_ULOCK, 0) < 0)
        fail("unlock", 4);
    note("event=released");
}

// Handles one SIGTERM; returns only when the helper goes on running.
void on_sigterm(const holder_options &o, int fd, int count)
{
    note("event=term n=" + std::to_string(count));
    switch (o.on_term) {
    case term_mode::ignore:
        return;
    case term_mode::release:
        usleep(useconds_t(o.release_ms) * 1000);
        unlock(fd);
        close(fd);
        break;
    case term_mode::exit_now:
        break;
    }
    note("event=exit");
    _exit(0);
}

[[noreturn]] void serve_signals(const holder_options &o, const sigset_t &set, int fd)
{
    int terms = 0;
    for (;;) {
        int sig = sigwaitinfo(&set, nullptr);
        if (sig == SIGTERM)
            on_sigterm(o, fd, ++terms);
        else if (sig == SIGUSR1 && o.release_on_usr1)
            unlock(fd);
    }
}

} // namespace

int main(int argc, char **argv)
{
    holder_options o;
    if (!parse_options(argc, argv, &o)) {
        fprintf(stderr, "usage: %s --record FILE [--path PATH] [--no-lock] [--view DIR] "
                        "[--on-term exit|ignore|release] [--release-ms N] [--release-on-usr1]\n",
                argv[0]);
        return 1;
    }
    record_path = o.record;

    // Blocked from the start, so that a SIGTERM sent before the wait below is
    // kept pending rather than ending the helper by its default action.
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGUSR1);
    sigprocmask(SIG_BLOCK, &set, nullptr);

    int fd = o.view.empty() ? open(o.path.c_str(), O_RDWR | O_CREAT, 0600)
                            : open_in_view(o.path, o.view);
    if (fd < 0)
        fail("open", 2);
    if (o.lock && lockf(fd, F_TLOCK, 0) < 0)
        fail("lock", 3);
    note("event=ready pid=" + std::to_string(getpid()) + " fd=" + std::to_string(fd) +
         " link=" + link_of(fd) + " locked=" + (o.lock ? "1" : "0"));
    serve_signals(o, set, fd);
}
