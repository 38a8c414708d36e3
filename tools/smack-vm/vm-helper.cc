// keldra-vm-helper: the small tools that the Smack test VM needs beside the
// busybox shell. It runs inside the VM only (as its /init's helper); nothing
// here is meant for the host.
//
//   keldra-vm-helper run [--label L] [--relabel-self L] [--drop-mac-admin]
//                        -- PROGRAM [ARGS...]
//       Sets the calling process's Smack label to L, gives it the relabel
//       list L (the labels it may later take without CAP_MAC_ADMIN, one per
//       thread), removes CAP_MAC_ADMIN from every capability set (bounding,
//       inheritable, permitted, effective, ambient) so that PROGRAM, run by
//       root, cannot get it back through exec, then execs PROGRAM.
//       Setup failures: a message on stderr and exit status 125.
//
//   keldra-vm-helper snapshot PID
//       One line per fact, "<kind> key=value ...", values without blanks:
//         process pid=P label=L
//         caps inh=HEX prm=HEX eff=HEX bnd=HEX amb=HEX
//         task tid=T label=L state=S syscall=N arg0=HEX
//             (syscall "running" when the thread is on a CPU, "none" when
//             /proc/P/task/T/syscall cannot be read; arg0 "-" then)
//         daemon name=N pid=D ppid=P uid=U label=L
//             (every process whose first argument is one of the four daemon
//             paths, in /proc order)
//
//   keldra-vm-helper label PATH...
//       file path=PATH label=L            the security.SMACK64 attribute
//       file path=PATH error=ERRNO_NAME   when it cannot be read
//
//   keldra-vm-helper pids PATH
//       The pids, one per line, of the processes whose first argument is PATH.
//
//   keldra-vm-helper probe-denial DIR
//       Takes the label "Probe", becomes uid/gid 401 (which drops every
//       capability, CAP_MAC_OVERRIDE included) and tries to create a file in
//       DIR. Prints "probe label=Probe uid=401 result=created|refused
//       errno=NAME". With no Smack rule for "Probe", the kernel refuses with
//       EACCES and logs the denial.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr int exit_setup_failed = 125;
constexpr const char *daemon_paths[][2] = {
    {"pellan", "/usr/bin/pellan"},
    {"orvel", "/usr/bin/orvel"},
    {"dunmar", "/usr/apps/privileged-service/bin/dunmar"},
    {"tavish", "/usr/bin/tavish"},
};

[[noreturn]] void fail(const std::string &what)
{
    fprintf(stderr, "keldra-vm-helper: %s\n", what.c_str());
    exit(exit_setup_failed);
}

[[noreturn]] void usage()
{
    fail("usage: keldra-vm-helper run [--label L] [--relabel-self L] [--drop-mac-admin] "
         "-- PROGRAM [ARGS...] | snapshot PID | label PATH... | pids PATH | "
         "probe-denial DIR");
}

std::string errno_name(int error)
{
    switch (error) {
    case EPERM: return "EPERM";
    case EACCES: return "EACCES";
    case EINVAL: return "EINVAL";
    case ENOENT: return "ENOENT";
    case ENODATA: return "ENODATA";
    case EOPNOTSUPP: return "EOPNOTSUPP";
    default: return std::to_string(error);
    }
}

// The whole content of a file, or false when it cannot be opened or read.
bool read_file(const std::string &path, std::string *content)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    content->clear();
    char buffer[4096];
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0)
        content->append(buffer, size_t(n));
    close(fd);
    return n == 0;
}

// A label as read from an attr file: the text up to the first NUL or line end.
std::string label_text(const std::string &raw)
{
    std::string label = raw.substr(0, raw.find_first_of(std::string("\0\n", 2)));
    return label.empty() ? "-" : label;
}

std::string read_label(const std::string &attr_path)
{
    std::string raw;
    if (!read_file(attr_path, &raw))
        return "error:" + errno_name(errno);
    return label_text(raw);
}

bool write_whole(const char *path, const std::string &text)
{
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    ssize_t n = write(fd, text.data(), text.size());
    int error = errno;
    close(fd);
    errno = error;
    return n == ssize_t(text.size());
}

// ---------------------------------------------------------------------------
// run

struct run_options {
    std::string label;
    std::string relabel_self;
    bool drop_mac_admin = false;
    char **program = nullptr;
};

run_options parse_run_options(int argc, char **argv)
{
    run_options options;
    int i = 2;
    for (; i < argc && strcmp(argv[i], "--") != 0; ++i) {
        if (strcmp(argv[i], "--label") == 0 && i + 1 < argc)
            options.label = argv[++i];
        else if (strcmp(argv[i], "--relabel-self") == 0 && i + 1 < argc)
            options.relabel_self = argv[++i];
        else if (strcmp(argv[i], "--drop-mac-admin") == 0)
            options.drop_mac_admin = true;
        else
            usage();
    }
    if (i + 1 >= argc)
        usage();
    options.program = argv + i + 1;
    return options;
}

void set_own_label(const std::string &label)
{
    if (!write_whole("/proc/self/attr/current", label))
        fail("cannot set the label " + label + ": " + strerror(errno));
}

void set_relabel_list(const std::string &labels)
{
    if (!write_whole("/sys/fs/smackfs/relabel-self", labels))
        fail("cannot write the relabel list " + labels + ": " + strerror(errno));
}

// Root gets every capability of the bounding set back at exec, and those of
// its inheritable set: both must lose CAP_MAC_ADMIN, as must the running sets.
void drop_mac_admin()
{
    if (prctl(PR_CAPBSET_DROP, CAP_MAC_ADMIN, 0, 0, 0) != 0)
        fail(std::string("cannot drop CAP_MAC_ADMIN from the bounding set: ") + strerror(errno));
    if (prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) != 0)
        fail(std::string("cannot clear the ambient capabilities: ") + strerror(errno));
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capget, &header, data) != 0)
        fail(std::string("capget: ") + strerror(errno));
    const unsigned word = CAP_TO_INDEX(CAP_MAC_ADMIN);
    const uint32_t bit = CAP_TO_MASK(CAP_MAC_ADMIN);
    data[word].effective &= ~bit;
    data[word].permitted &= ~bit;
    data[word].inheritable &= ~bit;
    if (syscall(SYS_capset, &header, data) != 0)
        fail(std::string("capset: ") + strerror(errno));
}

int run(int argc, char **argv)
{
    run_options options = parse_run_options(argc, argv);
    if (!options.label.empty())
        set_own_label(options.label);
    if (!options.relabel_self.empty())
        set_relabel_list(options.relabel_self);
    if (options.drop_mac_admin)
        drop_mac_admin();
    execv(options.program[0], options.program);
    fail(std::string("cannot run ") + options.program[0] + ": " + strerror(errno));
}

// ---------------------------------------------------------------------------
// snapshot, pids

std::vector<long> numeric_entries(const std::string &dir)
{
    std::vector<long> numbers;
    DIR *d = opendir(dir.c_str());
    if (!d)
        return numbers;
    while (dirent *entry = readdir(d)) {
        char *end = nullptr;
        long n = strtol(entry->d_name, &end, 10);
        if (end != entry->d_name && *end == '\0')
            numbers.push_back(n);
    }
    closedir(d);
    return numbers;
}

std::string first_argument(long pid)
{
    std::string cmdline;
    if (!read_file("/proc/" + std::to_string(pid) + "/cmdline", &cmdline))
        return "";
    return cmdline.substr(0, cmdline.find('\0'));
}

// The value of a "Name:\tvalue" line of /proc/<pid>/status (first word).
std::string status_field(const std::string &status, const std::string &name)
{
    std::istringstream lines(status);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.compare(0, name.size() + 1, name + ":") != 0)
            continue;
        std::istringstream value(line.substr(name.size() + 1));
        std::string word;
        value >> word;
        return word;
    }
    return "-";
}

// /proc/<pid>/stat: the fields after the command name, which is the only
// one in parentheses; returns field number `index` counted from 3 (state).
std::string stat_field(long pid, int index)
{
    std::string stat;
    if (!read_file("/proc/" + std::to_string(pid) + "/stat", &stat))
        return "-";
    std::istringstream rest(stat.substr(stat.rfind(')') + 2));
    std::string word;
    for (int field = 3; field <= index && rest >> word; ++field) {
    }
    return word.empty() ? "-" : word;
}

void print_task(long pid, long tid)
{
    std::string base = "/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid);
    std::string label = read_label(base + "/attr/current");
    std::string status, syscall_line;
    read_file(base + "/status", &status);
    std::string number = "none", arg0 = "-";
    if (read_file(base + "/syscall", &syscall_line)) {
        std::istringstream words(syscall_line);
        words >> number >> arg0;
        if (number == "running" || arg0.empty())
            arg0 = "-";
    }
    printf("task tid=%ld label=%s state=%s syscall=%s arg0=%s\n", tid, label.c_str(),
           status_field(status, "State").c_str(), number.c_str(), arg0.c_str());
}

void print_daemons()
{
    for (long pid : numeric_entries("/proc")) {
        std::string argv0 = first_argument(pid);
        for (const auto &daemon : daemon_paths) {
            if (argv0 != daemon[1])
                continue;
            std::string status;
            read_file("/proc/" + std::to_string(pid) + "/status", &status);
            std::string uid = status_field(status, "Uid");
            printf("daemon name=%s pid=%ld ppid=%s uid=%s label=%s\n", daemon[0], pid,
                   stat_field(pid, 4).c_str(), uid.c_str(),
                   read_label("/proc/" + std::to_string(pid) + "/attr/current").c_str());
        }
    }
}

int snapshot(long pid)
{
    std::string base = "/proc/" + std::to_string(pid);
    std::string status;
    if (!read_file(base + "/status", &status)) {
        printf("process pid=%ld gone=1\n", pid);
        print_daemons();
        return 0;
    }
    printf("process pid=%ld label=%s state=%s\n", pid, read_label(base + "/attr/current").c_str(),
           status_field(status, "State").c_str());
    printf("caps inh=%s prm=%s eff=%s bnd=%s amb=%s\n", status_field(status, "CapInh").c_str(),
           status_field(status, "CapPrm").c_str(), status_field(status, "CapEff").c_str(),
           status_field(status, "CapBnd").c_str(), status_field(status, "CapAmb").c_str());
    for (long tid : numeric_entries(base + "/task"))
        print_task(pid, tid);
    print_daemons();
    return 0;
}

int pids(const char *path)
{
    for (long pid : numeric_entries("/proc"))
        if (first_argument(pid) == path)
            printf("%ld\n", pid);
    return 0;
}

// ---------------------------------------------------------------------------
// label, probe-denial

int file_labels(int argc, char **argv)
{
    for (int i = 2; i < argc; ++i) {
        char value[256];
        ssize_t n = lgetxattr(argv[i], "security.SMACK64", value, sizeof value);
        if (n < 0)
            printf("file path=%s error=%s\n", argv[i], errno_name(errno).c_str());
        else
            printf("file path=%s label=%s\n", argv[i], std::string(value, size_t(n)).c_str());
    }
    return 0;
}

int probe_denial(const char *dir)
{
    set_own_label("Probe");
    if (setgid(401) != 0 || setuid(401) != 0)
        fail(std::string("cannot become uid 401: ") + strerror(errno));
    std::string path = std::string(dir) + "/keldra-vm-probe";
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    int error = errno;
    if (fd >= 0)
        close(fd);
    printf("probe label=Probe uid=%d result=%s errno=%s\n", int(getuid()),
           fd >= 0 ? "created" : "refused", fd >= 0 ? "0" : errno_name(error).c_str());
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2)
        usage();
    std::string command = argv[1];
    if (command == "run")
        return run(argc, argv);
    if (command == "snapshot" && argc == 3)
        return snapshot(strtol(argv[2], nullptr, 10));
    if (command == "label" && argc >= 3)
        return file_labels(argc, argv);
    if (command == "pids" && argc == 3)
        return pids(argv[2]);
    if (command == "probe-denial" && argc == 3)
        return probe_denial(argv[2]);
    usage();
}
