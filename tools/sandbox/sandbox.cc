// keldra-sandbox: runs a program in private mount and PID namespaces, on a
// copy-on-write view of the paths that keldra and its daemons use, so that the
// supervisor and the simulated daemons can run on an ordinary host.
//
//   keldra-sandbox [--timeout SECONDS] [--bare] [--no-smack-sim] [--pids-max N]
//                  -- PROGRAM [ARGS...]
//
// Requirements: root (CAP_SYS_ADMIN in the initial user namespace), a kernel
// with mount and PID namespaces, tmpfs and overlayfs; --pids-max needs the
// cgroup v1 pids controller at /sys/fs/cgroup/pids. Without them the sandbox
// exits with status 125 before running anything.
//
// Inside the sandbox:
//   - every mount is private; /run (0755) and /tmp (1777) are fresh tmpfs;
//   - /usr, /etc, /var and /opt are overlays whose lower layer is the host
//     directory and whose upper layer is a tmpfs: writes never reach the host.
//     The upper and work directories are made on a staging tmpfs mounted on
//     /tmp, which is detached once the overlays exist (overlayfs keeps its own
//     private reference to it) and then covered by the clean /tmp. So the
//     layers are visible at no path at all. A root that does not exist on the
//     host is left out with a warning (it cannot be created without touching
//     the host's /);
//   - /proc belongs to the new PID namespace;
//   - the directories the system expects exist, /tmp/simd and /tmp/sandbox
//     (0777) exist, and unless --bare the simulated daemon keldra-simd and the
//     two scripts found beside this binary are installed at the daemons' paths;
//   - on a kernel without Smack (and unless --no-smack-sim) PROGRAM runs with
//     LD_PRELOAD=<dir>/libkeldra-smack-sim.so and SMACK_SIM_DIR=/tmp/sandbox;
//     KELDRA_SANDBOX=1 is always set.
// The build directory must not lie under /run or /tmp, which are replaced.
//
// Processes: the sandbox forks PID 1 of the new namespace, which forks PROGRAM
// in its own process group and reaps every orphan. When PROGRAM ends, PID 1
// exits with its status (exit code, or 128 + signal) and the kernel kills what
// is left in the namespace. SIGINT, SIGTERM or SIGHUP to the sandbox sends one
// SIGTERM to PROGRAM; a second one kills everything. --timeout: SIGKILL
// everything after SECONDS, exit status 124. Setup failures: exit status 125.

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace {

constexpr int exit_timed_out = 124;
constexpr int exit_setup_failed = 125;

struct options {
  long timeout = 0;
  bool bare = false;
  bool smack_sim = true;
  long pids_max = 0;
  char **program = nullptr;
};

const char *const overlay_roots[] = {"/usr", "/etc", "/var", "/opt"};
const char *const system_dirs[] = {
    "/usr/apps/privileged-service/bin", "/etc/rc.d/init.d", "/opt/dbspace",
    "/opt/var/pellan", "/opt/var/log", "/var/pellan", "/usr/share/orvel/policy"};
const char *const daemon_paths[] = {
    "/usr/bin/pellan", "/usr/bin/orvel",
    "/usr/apps/privileged-service/bin/dunmar", "/usr/bin/tavish"};

void report(const char *format, va_list args) {
  fputs("keldra-sandbox: ", stderr);
  vfprintf(stderr, format, args);
  fputc('\n', stderr);
}

void warn(const char *format, ...) {
  va_list args;
  va_start(args, format);
  report(format, args);
  va_end(args);
}

[[noreturn]] void fail(const char *format, ...) {
  va_list args;
  va_start(args, format);
  report(format, args);
  va_end(args);
  _exit(exit_setup_failed);
}

[[noreturn]] void usage() {
  fail("usage: keldra-sandbox [--timeout SECONDS] [--bare] [--no-smack-sim] "
       "[--pids-max N] -- PROGRAM [ARGS...]");
}

long positive_number(const char *text) {
  char *end = nullptr;
  long value = text ? strtol(text, &end, 10) : 0;
  if (!text || *end != '\0' || value <= 0) usage();
  return value;
}

options parse_options(int argc, char **argv) {
  options opts;
  int i = 1;
  for (; i < argc && strcmp(argv[i], "--") != 0; i++) {
    if (strcmp(argv[i], "--timeout") == 0) opts.timeout = positive_number(argv[++i]);
    else if (strcmp(argv[i], "--pids-max") == 0) opts.pids_max = positive_number(argv[++i]);
    else if (strcmp(argv[i], "--bare") == 0) opts.bare = true;
    else if (strcmp(argv[i], "--no-smack-sim") == 0) opts.smack_sim = false;
    else usage();
  }
  if (i + 1 >= argc) usage();
  opts.program = argv + i + 1;
  return opts;
}

// The directory of this binary, where its companions are built.
std::string tool_dir() {
  char path[4096];
  ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
  if (n <= 0) fail("cannot read /proc/self/exe: %s", strerror(errno));
  std::string exe(path, n);
  return exe.substr(0, exe.rfind('/'));
}

// Smack is there when smackfs exists and the task attribute can be read.
bool kernel_has_smack() {
  if (access("/sys/fs/smackfs", F_OK) != 0) return false;
  int fd = open("/proc/self/attr/current", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char label[256];
  ssize_t n = read(fd, label, sizeof(label));
  close(fd);
  return n > 0;
}

bool write_file(const std::string &path, const std::string &text) {
  int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  bool done = fd >= 0 && write(fd, text.data(), text.size()) == (ssize_t)text.size();
  int error = errno;
  if (fd >= 0) close(fd);
  errno = error;
  return done;
}

std::string create_pids_cgroup(long pids_max) {
  std::string dir = "/sys/fs/cgroup/pids/keldra-sandbox." + std::to_string(getpid());
  if (mkdir(dir.c_str(), 0755) != 0)
    fail("cannot create cgroup %s (needs the cgroup v1 pids controller): %s",
         dir.c_str(), strerror(errno));
  if (!write_file(dir + "/pids.max", std::to_string(pids_max))) {
    int error = errno;
    rmdir(dir.c_str());
    fail("cannot set %s/pids.max: %s", dir.c_str(), strerror(error));
  }
  return dir;
}

// PID 1 waits on the pipe until it is in the cgroup, so everything it forks
// is counted.
bool place_in_cgroup(const std::string &dir, pid_t pid) {
  if (write_file(dir + "/cgroup.procs", std::to_string(pid))) return true;
  warn("cannot move the sandbox into %s: %s", dir.c_str(), strerror(errno));
  return false;
}

// The last processes of the namespace may still be leaving the cgroup.
void remove_pids_cgroup(const std::string &dir) {
  for (int attempt = 0; attempt < 200; attempt++) {
    if (rmdir(dir.c_str()) == 0 || errno != EBUSY) return;
    usleep(10000);
  }
  warn("cannot remove cgroup %s: %s", dir.c_str(), strerror(errno));
}

void enter_namespaces() {
  if (unshare(CLONE_NEWNS | CLONE_NEWPID) != 0)
    fail("cannot create namespaces (needs root or unprivileged user namespaces): %s",
         strerror(errno));
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    fail("cannot make the mounts private: %s", strerror(errno));
}

void mount_or_fail(const char *source, const char *target, const char *type,
                   unsigned long flags, const char *data) {
  if (mount(source, target, type, flags, data) != 0)
    fail("cannot mount %s on %s (%s): %s", type, target, data ? data : "",
         strerror(errno));
}

void make_dir(const std::string &path, mode_t mode) {
  if (mkdir(path.c_str(), mode) != 0 && errno != EEXIST)
    fail("cannot create %s: %s", path.c_str(), strerror(errno));
  if (chmod(path.c_str(), mode) != 0)
    fail("cannot chmod %s: %s", path.c_str(), strerror(errno));
}

void make_dirs(const std::string &path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1))
    make_dir(path.substr(0, slash), 0755);
  make_dir(path, 0755);
}

bool is_directory(const char *path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

// The staging tmpfs on /tmp holds <root>.upper and <root>.work for each root.
void mount_overlays() {
  mount_or_fail("keldra-layers", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0700");
  for (const char *root : overlay_roots) {
    if (!is_directory(root)) {
      warn("%s does not exist on this host and cannot be created without "
           "touching it: %s is not available in the sandbox", root, root);
      continue;
    }
    std::string layer = std::string("/tmp") + root;
    make_dir(layer + ".upper", 0755);
    make_dir(layer + ".work", 0755);
    std::string data = std::string("lowerdir=") + root + ",upperdir=" + layer +
                       ".upper,workdir=" + layer + ".work";
    mount_or_fail("keldra-overlay", root, "overlay", 0, data.c_str());
  }
  if (umount2("/tmp", MNT_DETACH) != 0)
    fail("cannot detach the staging tmpfs: %s", strerror(errno));
}

void mount_fresh_filesystems() {
  mount_or_fail("keldra-tmp", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
  mount_or_fail("keldra-run", "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755");
  mount_or_fail("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr);
}

void create_system_dirs() {
  for (const char *dir : system_dirs) {
    std::string path(dir);
    if (is_directory(path.substr(0, path.find('/', 1)).c_str())) make_dirs(path);
  }
  make_dir("/tmp/simd", 0777);
  make_dir("/tmp/sandbox", 0777);
}

void copy_executable(const std::string &from, const char *to) {
  int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
  int out = open(to, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0755);
  if (in < 0 || out < 0) fail("cannot copy %s to %s: %s", from.c_str(), to, strerror(errno));
  char buffer[65536];
  ssize_t n;
  while ((n = read(in, buffer, sizeof(buffer))) > 0)
    if (write(out, buffer, n) != n) fail("cannot write %s: %s", to, strerror(errno));
  if (n < 0 || fchmod(out, 0755) != 0)
    fail("cannot copy %s to %s: %s", from.c_str(), to, strerror(errno));
  close(in);
  close(out);
}

void install_simulated_daemons(const std::string &dir) {
  std::string simd = dir + "/keldra-simd";
  if (access(simd.c_str(), X_OK) != 0) {
    warn("%s not found: the simulated daemons are not installed", simd.c_str());
  } else {
    for (const char *path : daemon_paths) copy_executable(simd, path);
  }
  std::string launcher = dir + "/scripts/orvel-launcher.sh";
  std::string restore = dir + "/scripts/restore_zelto_db.sh";
  if (access(launcher.c_str(), R_OK) == 0)
    copy_executable(launcher, "/etc/rc.d/init.d/orvel-launcher.sh");
  if (access(restore.c_str(), R_OK) == 0)
    copy_executable(restore, "/usr/bin/restore_zelto_db.sh");
}

void prepare_environment(const options &opts, const std::string &dir, bool smack) {
  setenv("KELDRA_SANDBOX", "1", 1);
  unsetenv("SMACK_SIM_DIR");
  if (smack || !opts.smack_sim) return;
  std::string library = dir + "/libkeldra-smack-sim.so";
  if (access(library.c_str(), R_OK) != 0) {
    warn("%s not found: no Smack simulation", library.c_str());
    return;
  }
  const char *preload = getenv("LD_PRELOAD");
  if (preload && *preload) library += std::string(":") + preload;
  setenv("LD_PRELOAD", library.c_str(), 1);
  setenv("SMACK_SIM_DIR", "/tmp/sandbox", 1);
}

void set_up_sandbox(const options &opts, const std::string &dir, bool smack) {
  mount_overlays();
  mount_fresh_filesystems();
  create_system_dirs();
  if (!opts.bare) install_simulated_daemons(dir);
  prepare_environment(opts, dir, smack);
}

int status_code(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return exit_setup_failed;
}

pid_t start_program(char **program) {
  pid_t pid = fork();
  if (pid < 0) fail("cannot fork: %s", strerror(errno));
  if (pid == 0) {
    setpgid(0, 0);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execvp(program[0], program);
    warn("cannot run %s: %s", program[0], strerror(errno));
    _exit(errno == ENOENT ? 127 : 126);
  }
  setpgid(pid, pid);
  return pid;
}

// PID 1 of the namespace. SIGTERM from outside (the sandbox process, which
// appears with sender pid 0) is passed to PROGRAM once; orphans are reaped.
[[noreturn]] void supervise(pid_t program) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGCHLD);
  sigaddset(&set, SIGTERM);
  bool forwarded = false;
  for (;;) {
    siginfo_t info;
    int sig = sigwaitinfo(&set, &info);
    if (sig == SIGTERM && info.si_pid == 0 && !forwarded) {
      kill(program, SIGTERM);
      forwarded = true;
    }
    int status;
    pid_t pid;
    while ((pid = waitpid(-1, &status, WNOHANG)) > 0)
      if (pid == program) _exit(status_code(status));
  }
}

[[noreturn]] void run_init(const options &opts, const std::string &dir, bool smack,
                           int sync_fd) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  char byte;
  while (read(sync_fd, &byte, 1) < 0 && errno == EINTR) {
  }
  close(sync_fd);
  set_up_sandbox(opts, dir, smack);
  supervise(start_program(opts.program));
}

timespec remaining_until(const timespec &deadline) {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  timespec left{deadline.tv_sec - now.tv_sec, deadline.tv_nsec - now.tv_nsec};
  if (left.tv_nsec < 0) left = {left.tv_sec - 1, left.tv_nsec + 1000000000L};
  if (left.tv_sec < 0) left = {0, 0};
  return left;
}

// Blocked from the start and taken with sigtimedwait by the sandbox process;
// PID 1 inherits the block.
sigset_t relayed_signals() {
  sigset_t set;
  sigemptyset(&set);
  for (int sig : {SIGCHLD, SIGINT, SIGTERM, SIGHUP}) sigaddset(&set, sig);
  return set;
}

// The sandbox process: relays stop requests to PID 1, enforces the timeout,
// and returns PID 1's status.
int relay_until_exit(pid_t init, long timeout) {
  sigset_t set = relayed_signals();
  timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += timeout;
  int stop_requests = 0;
  for (;;) {
    timespec left = remaining_until(deadline);
    int sig = sigtimedwait(&set, nullptr, timeout > 0 ? &left : nullptr);
    int status;
    if (sig < 0 && errno == EAGAIN) {
      kill(init, SIGKILL);
      waitpid(init, &status, 0);
      fprintf(stderr, "keldra-sandbox: timed out after %ld s\n", timeout);
      return exit_timed_out;
    }
    if (sig == SIGINT || sig == SIGTERM || sig == SIGHUP)
      kill(init, ++stop_requests == 1 ? SIGTERM : SIGKILL);
    if (waitpid(init, &status, WNOHANG) == init) return status_code(status);
  }
}

// The sandbox's /tmp and /run are fresh, so a build directory under either
// would vanish from view inside it: refuse before anything is set up.
void refuse_hidden_tool_dir(const std::string &dir) {
  for (const char *replaced : {"/tmp", "/run"}) {
    std::string prefix = std::string(replaced) + "/";
    if (dir == replaced || dir.compare(0, prefix.size(), prefix) == 0)
      fail("%s lies under %s, which the sandbox replaces: build outside /tmp and /run",
           dir.c_str(), replaced);
  }
}

}  // namespace

int main(int argc, char **argv) {
  options opts = parse_options(argc, argv);
  std::string dir = tool_dir();
  refuse_hidden_tool_dir(dir);
  bool smack = kernel_has_smack();
  signal(SIGCHLD, SIG_DFL);  // an inherited SIG_IGN would hide PID 1's exit
  sigset_t blocked = relayed_signals();
  sigprocmask(SIG_BLOCK, &blocked, nullptr);
  enter_namespaces();
  std::string cgroup = opts.pids_max > 0 ? create_pids_cgroup(opts.pids_max) : "";
  int sync[2];
  if (pipe2(sync, O_CLOEXEC) != 0) fail("cannot create a pipe: %s", strerror(errno));
  fflush(nullptr);
  pid_t init = fork();
  if (init < 0) {
    int error = errno;
    if (!cgroup.empty()) remove_pids_cgroup(cgroup);
    fail("cannot fork: %s", strerror(error));
  }
  if (init == 0) {
    close(sync[1]);
    run_init(opts, dir, smack, sync[0]);
  }
  close(sync[0]);
  if (!cgroup.empty() && !place_in_cgroup(cgroup, init)) {
    kill(init, SIGKILL);
    waitpid(init, nullptr, 0);
    remove_pids_cgroup(cgroup);
    return exit_setup_failed;
  }
  close(sync[1]);
  int code = relay_until_exit(init, opts.timeout);
  if (!cgroup.empty()) remove_pids_cgroup(cgroup);
  return code;
}
