// keldra-simd: the four simulated security daemons in one program.
//
// The role is chosen by the base name of argv[0], which is how the supervisor
// starts them and finds them again ("/usr/bin/pellan", "/usr/bin/orvel",
// "/usr/apps/privileged-service/bin/dunmar", "/usr/bin/tavish"). Any other
// name ends the program at once with status 2. The program never writes to
// stdout or stderr: it inherits the supervisor's stderr, which tests parse.
//
// Settings, read once at every start from the first of:
//   /tmp/simd/<name>.next   one-shot: used for this start only, then deleted
//   /tmp/simd/<name>.conf   used by every start while it exists
//   (none)                  defaults: a healthy daemon
// Format: one key=value per line; blank lines and lines starting with # are
// skipped. Keys:
//   exit_code=N       exit with status N, after_ms after the start
//   exit_signal=N     kill itself with signal N, after_ms after the start
//                     (wins over exit_code; use a signal whose default action
//                     ends the process)
//   after_ms=N        delay of exit_code/exit_signal, counted from the start
//                     (default 0)
//   no_ready=1        skip the readiness step: pellan creates no sockets, orvel
//                     no /run/orvel.socket, dunmar no /run/dunmar.pid
//   ready_delay_ms=N  delay of the readiness step, counted from the start
//                     (default 0); when readiness and exit fall due together,
//                     readiness comes first
//   ignore_term=1     SIGTERM is noted in the steps file and otherwise ignored
//   admin_verdict=N   pellan: the verdict its admin server answers (default 0)
//   touch=PATH        create the empty file PATH right after the readiness
//                     step (also with no_ready); may be given several times
// An unknown key or a bad number is recorded as an error and skipped.
//
// Healthy behaviour (the readiness step):
//   pellan  listening Unix sockets /run/pellan/pellan.socket,
//           /run/pellan/pellan-admin.socket, /run/pellan/pellan-agent.socket,
//           /run/pellan/pellan-monitor-get.socket; connections to the admin
//           socket are served one at a time by sim_admin_serve_connection with
//           the record file /tmp/simd/pellan.admin; connections to the others
//           are accepted and closed
//   orvel   a listening Unix socket /run/orvel.socket (connections accepted
//           and closed)
//   dunmar  writes its pid and "\n" to /run/dunmar.pid
//   tavish  nothing
// then all of them wait for signals. SIGTERM (unless ignored) is recorded and
// ends the process by that very signal, as a daemon without a handler would.
//
// Records, appended to files under /tmp/simd (created mode 0666, so that
// pellan, which runs as uid 401, and root can share them), one line per event,
// each written with a single O_APPEND write:
//   <name>.starts  at every start, before anything else is done:
//     pid=.. ppid=.. uid=.. gid=.. euid=.. egid=.. sid=.. pgid=.. umask=%04o
//     argc=N argv0=.. sigblk=<16 hex digits of SigBlk> sigign=<same, SigIgn>
//     fds=<fd:target,...> cwd=.. mono_ns=<CLOCK_MONOTONIC at start>
//     settings=next|conf|default
//     (fds lists the descriptors inherited, ascending, "-" when none)
//   <name>.ends    when the process ends on its own or by SIGTERM, or a step
//     fails:
//     pid=P event=exit code=N mono_ns=T
//     pid=P event=signal signo=N mono_ns=T
//     pid=P event=term mono_ns=T
//     pid=P event=error step=S errno=E mono_ns=T   (the process goes on)
//   <name>.steps   progress that tests may wait for:
//     pid=P step=ready mono_ns=T          readiness step done
//     pid=P step=ready-skipped mono_ns=T  no_ready given
//     pid=P step=term-ignored mono_ns=T   SIGTERM received and ignored
//     pid=P step=admin-served result=R mono_ns=T  one admin connection served
#include "admin-server.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr const char *record_dir = "/tmp/simd";
constexpr const char *admin_record_path = "/tmp/simd/pellan.admin";
constexpr const char *admin_socket_path = "/run/pellan/pellan-admin.socket";
constexpr const char *orvel_socket_path = "/run/orvel.socket";
constexpr const char *dunmar_pid_path = "/run/dunmar.pid";
constexpr const char *pellan_socket_paths[] = {
    "/run/pellan/pellan.socket",
    "/run/pellan/pellan-admin.socket",
    "/run/pellan/pellan-agent.socket",
    "/run/pellan/pellan-monitor-get.socket",
};

enum class daemon_kind { pellan, orvel, dunmar, tavish };

struct daemon_role {
    daemon_kind kind;
    std::string name;
};

struct simd_settings {
    std::string source = "default";
    int exit_code = -1;
    int exit_signal = 0;
    long after_ms = 0;
    bool no_ready = false;
    long ready_delay_ms = 0;
    bool ignore_term = false;
    int admin_verdict = 0;
    std::vector<std::string> touch_paths;
    std::vector<std::string> bad_lines;
};

struct listener {
    int fd;
    bool admin;
};

uint64_t monotonic_ns()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return uint64_t(now.tv_sec) * 1000000000u + uint64_t(now.tv_nsec);
}

bool role_from_argv0(const char *argv0, daemon_role *role)
{
    const char *slash = argv0 ? strrchr(argv0, '/') : nullptr;
    std::string name = slash ? slash + 1 : (argv0 ? argv0 : "");
    const std::pair<const char *, daemon_kind> known[] = {
        {"pellan", daemon_kind::pellan},
        {"orvel", daemon_kind::orvel},
        {"dunmar", daemon_kind::dunmar},
        {"tavish", daemon_kind::tavish},
    };
    for (const auto &[known_name, kind] : known) {
        if (name == known_name) {
            *role = {kind, name};
            return true;
        }
    }
    return false;
}

std::string record_path(const daemon_role &role, const char *suffix)
{
    return std::string(record_dir) + "/" + role.name + suffix;
}

// Appends one line with a single write; the file is made 0666 whoever
// creates it, so that every role and the tests can append and read.
// True when the file's last byte is not a line end: a writer was killed in
// the middle of its record (the supervisor kills new checkers right after
// their start, and a write cut by SIGKILL can stop at a page boundary).
bool ends_mid_line(int fd)
{
    struct stat st;
    char last = '\n';
    return fstat(fd, &st) == 0 && st.st_size > 0 && pread(fd, &last, 1, st.st_size - 1) == 1 &&
           last != '\n';
}

// Appends one record line with one write. After a record cut short, the new
// one starts on a line of its own instead of being glued to the remains.
void append_line(const std::string &path, const std::string &line)
{
    int fd = open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0)
        return;
    fchmod(fd, 0666);
    const std::string text = ends_mid_line(fd) ? "\n" + line : line;
    ssize_t written = write(fd, text.data(), text.size());
    (void)written;
    close(fd);
}

std::string pid_prefix()
{
    return "pid=" + std::to_string(getpid()) + " ";
}

std::string mono_suffix()
{
    return " mono_ns=" + std::to_string(monotonic_ns()) + "\n";
}

void record_end(const daemon_role &role, const std::string &what)
{
    append_line(record_path(role, ".ends"), pid_prefix() + "event=" + what + mono_suffix());
}

void record_error(const daemon_role &role, const std::string &step, int error)
{
    record_end(role, "error step=" + step + " errno=" + std::to_string(error));
}

void record_step(const daemon_role &role, const std::string &step)
{
    append_line(record_path(role, ".steps"), pid_prefix() + "step=" + step + mono_suffix());
}

void ensure_record_dir()
{
    if (mkdir(record_dir, 0777) == 0)
        chmod(record_dir, 0777);
}

bool read_whole_file(const std::string &path, std::string *content)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    char buffer[4096];
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0)
        content->append(buffer, size_t(n));
    close(fd);
    return true;
}

bool parse_number(const std::string &text, long *value)
{
    if (text.empty())
        return false;
    char *end = nullptr;
    errno = 0;
    long parsed = strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0')
        return false;
    *value = parsed;
    return true;
}

std::string trimmed(const std::string &text)
{
    size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos)
        return "";
    size_t last = text.find_last_not_of(" \t\r");
    return text.substr(first, last - first + 1);
}

bool apply_number_key(const std::string &key, long value, simd_settings *settings)
{
    if (key == "exit_code")
        settings->exit_code = int(value);
    else if (key == "exit_signal")
        settings->exit_signal = int(value);
    else if (key == "after_ms")
        settings->after_ms = value;
    else if (key == "no_ready")
        settings->no_ready = value != 0;
    else if (key == "ready_delay_ms")
        settings->ready_delay_ms = value;
    else if (key == "ignore_term")
        settings->ignore_term = value != 0;
    else if (key == "admin_verdict")
        settings->admin_verdict = int(value);
    else
        return false;
    return true;
}

void apply_setting_line(const std::string &raw_line, simd_settings *settings)
{
    std::string line = trimmed(raw_line);
    if (line.empty() || line[0] == '#')
        return;
    size_t equals = line.find('=');
    if (equals == std::string::npos) {
        settings->bad_lines.push_back(line);
        return;
    }
    std::string key = trimmed(line.substr(0, equals));
    std::string value = trimmed(line.substr(equals + 1));
    if (key == "touch" && !value.empty()) {
        settings->touch_paths.push_back(value);
        return;
    }
    long number = 0;
    if (!parse_number(value, &number) || !apply_number_key(key, number, settings))
        settings->bad_lines.push_back(line);
}

simd_settings parse_settings(const std::string &text, const char *source)
{
    simd_settings settings;
    settings.source = source;
    size_t begin = 0;
    while (begin < text.size()) {
        size_t end = text.find('\n', begin);
        if (end == std::string::npos)
            end = text.size();
        apply_setting_line(text.substr(begin, end - begin), &settings);
        begin = end + 1;
    }
    return settings;
}

// The one-shot file wins and is consumed; then the standing file; else the
// defaults.
simd_settings load_settings(const daemon_role &role)
{
    std::string text;
    std::string next_path = record_path(role, ".next");
    if (read_whole_file(next_path, &text)) {
        unlink(next_path.c_str());
        return parse_settings(text, "next");
    }
    if (read_whole_file(record_path(role, ".conf"), &text))
        return parse_settings(text, "conf");
    return simd_settings{};
}

std::string status_field(const char *field)
{
    std::string status;
    if (!read_whole_file("/proc/self/status", &status))
        return "?";
    std::string key = std::string("\n") + field + ":";
    size_t at = status.find(key);
    if (at == std::string::npos)
        return "?";
    size_t end = status.find('\n', at + 1);
    return trimmed(status.substr(at + key.size(), end - at - key.size()));
}

std::string open_descriptors()
{
    DIR *dir = opendir("/proc/self/fd");
    if (!dir)
        return "?";
    std::vector<std::pair<int, std::string>> entries;
    while (dirent *entry = readdir(dir)) {
        long fd = 0;
        if (!parse_number(entry->d_name, &fd) || fd == dirfd(dir))
            continue;
        char target[512];
        std::string link = std::string("/proc/self/fd/") + entry->d_name;
        ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
        entries.emplace_back(int(fd), n < 0 ? std::string("?") : std::string(target, size_t(n)));
    }
    closedir(dir);
    std::sort(entries.begin(), entries.end());
    std::string list;
    for (const auto &[fd, target] : entries)
        list += (list.empty() ? "" : ",") + std::to_string(fd) + ":" + target;
    return list.empty() ? "-" : list;
}

std::string current_umask()
{
    mode_t mask = umask(0);
    umask(mask);
    char text[16];
    snprintf(text, sizeof text, "%04o", unsigned(mask));
    return text;
}

std::string current_directory()
{
    char path[4096];
    return getcwd(path, sizeof path) ? path : "?";
}

void record_start(const daemon_role &role, int argc, const char *argv0, uint64_t start_ns,
                  const simd_settings &settings)
{
    std::string line = pid_prefix();
    line += "ppid=" + std::to_string(getppid());
    line += " uid=" + std::to_string(getuid()) + " gid=" + std::to_string(getgid());
    line += " euid=" + std::to_string(geteuid()) + " egid=" + std::to_string(getegid());
    line += " sid=" + std::to_string(getsid(0)) + " pgid=" + std::to_string(getpgrp());
    line += " umask=" + current_umask();
    line += " argc=" + std::to_string(argc) + " argv0=" + (argv0 ? argv0 : "");
    line += " sigblk=" + status_field("SigBlk") + " sigign=" + status_field("SigIgn");
    line += " fds=" + open_descriptors();
    line += " cwd=" + current_directory();
    line += " mono_ns=" + std::to_string(start_ns);
    line += " settings=" + settings.source + "\n";
    append_line(record_path(role, ".starts"), line);
}

void record_bad_settings(const daemon_role &role, const simd_settings &settings)
{
    for (const std::string &line : settings.bad_lines)
        record_error(role, "setting:" + line.substr(0, line.find_first_of(" \t")), EINVAL);
}

// SIGTERM is taken through a signal descriptor, so that the main loop can
// record it before the process ends by it.
int open_term_descriptor(const daemon_role &role)
{
    signal(SIGTERM, SIG_DFL);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    int fd = signalfd(-1, &set, SFD_CLOEXEC);
    if (fd < 0)
        record_error(role, "signalfd", errno);
    return fd;
}

[[noreturn]] void end_by_signal(int signo)
{
    signal(signo, SIG_DFL);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signo);
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
    raise(signo);
    // A signal whose default action does not end the process comes back here.
    for (;;)
        pause();
}

[[noreturn]] void run_exit(const daemon_role &role, const simd_settings &settings)
{
    if (settings.exit_signal > 0) {
        record_end(role, "signal signo=" + std::to_string(settings.exit_signal));
        end_by_signal(settings.exit_signal);
    }
    record_end(role, "exit code=" + std::to_string(settings.exit_code));
    _exit(settings.exit_code);
}

int open_listening_socket(const daemon_role &role, const char *path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        record_error(role, std::string("socket:") + path, errno);
        return -1;
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
    unlink(path);
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) < 0 ||
        listen(fd, 16) < 0) {
        record_error(role, std::string("bind:") + path, errno);
        close(fd);
        return -1;
    }
    return fd;
}

void write_pid_file(const daemon_role &role)
{
    int fd = open(dunmar_pid_path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        record_error(role, std::string("open:") + dunmar_pid_path, errno);
        return;
    }
    std::string content = std::to_string(getpid()) + "\n";
    if (write(fd, content.data(), content.size()) != ssize_t(content.size()))
        record_error(role, std::string("write:") + dunmar_pid_path, errno);
    close(fd);
}

void touch_files(const daemon_role &role, const simd_settings &settings)
{
    for (const std::string &path : settings.touch_paths) {
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) {
            record_error(role, "touch:" + path, errno);
            continue;
        }
        close(fd);
    }
}

void add_listener(const daemon_role &role, const char *path, std::vector<listener> *listeners)
{
    int fd = open_listening_socket(role, path);
    if (fd >= 0)
        listeners->push_back({fd, strcmp(path, admin_socket_path) == 0});
}

std::vector<listener> make_ready(const daemon_role &role, const simd_settings &settings)
{
    std::vector<listener> listeners;
    if (settings.no_ready) {
        record_step(role, "ready-skipped");
    } else {
        switch (role.kind) {
        case daemon_kind::pellan:
            for (const char *path : pellan_socket_paths)
                add_listener(role, path, &listeners);
            break;
        case daemon_kind::orvel:
            add_listener(role, orvel_socket_path, &listeners);
            break;
        case daemon_kind::dunmar:
            write_pid_file(role);
            break;
        case daemon_kind::tavish:
            break;
        }
        record_step(role, "ready");
    }
    touch_files(role, settings);
    return listeners;
}

void serve_listener(const daemon_role &role, const listener &l, const simd_settings &settings)
{
    int client = accept4(l.fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0)
        return;
    if (l.admin) {
        // The admin server works on a blocking descriptor.
        fcntl(client, F_SETFL, fcntl(client, F_GETFL) & ~O_NONBLOCK);
        int result = sim_admin_serve_connection(client, admin_record_path, settings.admin_verdict);
        record_step(role, "admin-served result=" + std::to_string(result));
    }
    close(client);
}

// Returns after recording a SIGTERM that ends the process, never otherwise.
void handle_term(const daemon_role &role, int term_fd, const simd_settings &settings)
{
    signalfd_siginfo info;
    if (read(term_fd, &info, sizeof info) != ssize_t(sizeof info))
        return;
    if (settings.ignore_term) {
        record_step(role, "term-ignored");
        return;
    }
    record_end(role, "term");
    end_by_signal(SIGTERM);
}

int poll_timeout_ms(uint64_t now, uint64_t ready_at, bool ready_pending, uint64_t exit_at,
                    bool exit_pending)
{
    uint64_t next = UINT64_MAX;
    if (ready_pending)
        next = std::min(next, ready_at);
    if (exit_pending)
        next = std::min(next, exit_at);
    if (next == UINT64_MAX)
        return -1;
    if (next <= now)
        return 0;
    return int((next - now + 999999) / 1000000);
}

uint64_t after_start(uint64_t start_ns, long ms)
{
    return start_ns + uint64_t(std::max(ms, 0L)) * 1000000u;
}

[[noreturn]] void run_daemon(const daemon_role &role, const simd_settings &settings,
                             uint64_t start_ns, int term_fd)
{
    const bool exit_pending = settings.exit_code >= 0 || settings.exit_signal > 0;
    const uint64_t exit_at = after_start(start_ns, settings.after_ms);
    const uint64_t ready_at = after_start(start_ns, settings.ready_delay_ms);
    bool ready_pending = true;
    std::vector<listener> listeners;
    for (;;) {
        uint64_t now = monotonic_ns();
        if (ready_pending && ready_at <= now && (!exit_pending || ready_at <= exit_at)) {
            listeners = make_ready(role, settings);
            ready_pending = false;
            continue;
        }
        if (exit_pending && exit_at <= now)
            run_exit(role, settings);
        std::vector<pollfd> fds;
        fds.push_back({term_fd, POLLIN, 0});
        for (const listener &l : listeners)
            fds.push_back({l.fd, POLLIN, 0});
        int timeout = poll_timeout_ms(now, ready_at, ready_pending, exit_at, exit_pending);
        if (poll(fds.data(), fds.size(), timeout) <= 0)
            continue;
        if (fds[0].revents & POLLIN)
            handle_term(role, term_fd, settings);
        for (size_t i = 1; i < fds.size(); ++i) {
            if (fds[i].revents & POLLIN)
                serve_listener(role, listeners[i - 1], settings);
        }
    }
}

} // namespace

int main(int argc, char **argv)
{
    const uint64_t start_ns = monotonic_ns();
    daemon_role role;
    if (!role_from_argv0(argc > 0 ? argv[0] : nullptr, &role))
        return 2;
    ensure_record_dir();
    const simd_settings settings = load_settings(role);
    record_start(role, argc, argc > 0 ? argv[0] : nullptr, start_ns, settings);
    record_bad_settings(role, settings);
    int term_fd = open_term_descriptor(role);
    run_daemon(role, settings, start_ns, term_fd);
}
