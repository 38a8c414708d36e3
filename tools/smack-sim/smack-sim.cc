// libkeldra-smack-sim.so: a preload library that simulates the Smack label of
// threads on a kernel without Smack, for programs run in keldra-sandbox.
//
// Active only when SMACK_SIM_DIR is set (read once, at load time); otherwise
// every call passes straight through.
//
//   open (and open64, openat, openat64 and their fortified forms) for writing of
//     /proc/self/task/<n>/attr/current, /proc/<pid>/task/<n>/attr/current,
//     /proc/thread-self/attr/current, /proc/self/attr/current or
//     /proc/<pid>/attr/current
//   returns a descriptor of /dev/null that is remembered together with the task
//   it names (ENOENT when that task does not exist, as the kernel would say).
//   write on it: the label is the bytes written up to the first character the
//   kernel does not accept in a label (blank, control, quote, slash, backslash,
//   non-ASCII). It is refused with EINVAL when it is empty, starts with "-", is
//   256 bytes or longer, or is a line of $SMACK_SIM_DIR/smack-refuse (read at
//   every write); it is refused with EACCES when the task is not the calling
//   thread (a task may only write its own attributes). Otherwise one line
//     label pid=<pid> tid=<tid> label=<label>
//   is appended to $SMACK_SIM_DIR/smack-labels, the label becomes the calling
//   thread's, and the byte count is returned.
//   close forgets the descriptor.
//   fork: in the child, one line
//     fork pid=<child pid> ppid=<parent pid> label=<label of the forking thread>
//   is appended to $SMACK_SIM_DIR/smack-labels and that label becomes the
//   child's process label.
//
// A process starts with the label "_". A thread that never set a label has
// its process's label, which is "_" or the label inherited at fork; so a
// thread created after another thread set its label starts from the process
// label, not from its creator's. After exec the library starts again from
// "_". Children made by vfork, posix_spawn or clone are not recorded.
//
// Everything between the real fork and the return in the child uses fixed
// buffers and raw system calls only, so fork in a multithreaded program is
// safe. Every record is one write on an O_APPEND descriptor.
#undef _FORTIFY_SOURCE

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>

namespace {

constexpr size_t max_label = 256;
constexpr int max_tracked = 64;
constexpr size_t max_path = 512;

struct tracked_descriptor {
  std::atomic<int> fd_plus_one;  // 0: free slot
  std::atomic<int> task;
};

tracked_descriptor tracked[max_tracked];
std::atomic<int> tracked_count;

bool sim_enabled;
char labels_path[max_path];
char refuse_path[max_path];

char process_label[max_label] = "_";
__attribute__((tls_model("initial-exec"))) thread_local char thread_label[max_label];
__attribute__((tls_model("initial-exec"))) thread_local bool thread_label_set;

using open_fn = int (*)(const char *, int, ...);
using openat_fn = int (*)(int, const char *, int, ...);
using write_fn = ssize_t (*)(int, const void *, size_t);
using close_fn = int (*)(int);
using fork_fn = pid_t (*)();

// The C library's functions, looked up at load time (or at the first call
// when another library's constructor calls in earlier).
std::atomic<open_fn> real_open;
std::atomic<openat_fn> real_openat;
std::atomic<write_fn> real_write;
std::atomic<close_fn> real_close;
std::atomic<fork_fn> real_fork;

template <typename fn>
fn next_symbol(std::atomic<fn> &slot, const char *name) {
  fn found = slot.load(std::memory_order_relaxed);
  if (!found) {
    found = reinterpret_cast<fn>(dlsym(RTLD_NEXT, name));
    slot.store(found, std::memory_order_relaxed);
  }
  return found;
}

pid_t raw_getpid() { return static_cast<pid_t>(syscall(SYS_getpid)); }
pid_t raw_gettid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

const char *current_label() { return thread_label_set ? thread_label : process_label; }

// A line of a record, built without allocation.
struct line {
  char text[max_path + 64];
  size_t length = 0;
  void add(const char *s) {
    while (*s && length < sizeof(text) - 1) text[length++] = *s++;
  }
  void add(long n) {
    char digits[24];
    int count = 0;
    bool negative = n < 0;
    unsigned long value = negative ? -static_cast<unsigned long>(n) : n;
    do digits[count++] = static_cast<char>('0' + value % 10); while ((value /= 10) != 0);
    if (negative) add("-");
    while (count > 0 && length < sizeof(text) - 1) text[length++] = digits[--count];
  }
};

void append_record(const line &record) {
  int fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, labels_path,
                                    O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
  if (fd >= 0) {
    syscall(SYS_fchmod, fd, 0666);  // appendable by daemons under other users
  } else {
    fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, labels_path,
                                  O_WRONLY | O_APPEND | O_CLOEXEC));
  }
  if (fd < 0) return;
  syscall(SYS_write, fd, record.text, record.length);
  syscall(SYS_close, fd);
}

// Parses a task attribute path; *task is the thread it names.
bool parse_number(const char *&p, int *number) {
  if (*p < '0' || *p > '9') return false;
  long value = 0;
  while (*p >= '0' && *p <= '9' && value < 1000000000) value = value * 10 + (*p++ - '0');
  *number = static_cast<int>(value);
  return true;
}

bool skip(const char *&p, const char *word) {
  size_t n = strlen(word);
  if (strncmp(p, word, n) != 0) return false;
  p += n;
  return true;
}

bool is_attr_current_path(const char *path, int *task) {
  const char *p = path;
  if (!path || !skip(p, "/proc/")) return false;
  if (skip(p, "thread-self/")) {
    *task = raw_gettid();
  } else if (skip(p, "self/")) {
    *task = raw_getpid();
  } else if (!parse_number(p, task) || !skip(p, "/")) {
    return false;
  }
  if (skip(p, "task/") && !(parse_number(p, task) && skip(p, "/"))) return false;
  return strcmp(p, "attr/current") == 0;
}

bool opens_for_writing(int flags) { return (flags & O_ACCMODE) != O_RDONLY; }

int track(int fd, int task) {
  for (tracked_descriptor &slot : tracked) {
    int expected = 0;
    if (slot.fd_plus_one.compare_exchange_strong(expected, fd + 1)) {
      slot.task.store(task);
      tracked_count.fetch_add(1);
      return fd;
    }
  }
  syscall(SYS_close, fd);
  errno = ENFILE;
  return -1;
}

void forget(tracked_descriptor *slot, int fd) {
  int expected = fd + 1;
  if (slot->fd_plus_one.compare_exchange_strong(expected, 0)) tracked_count.fetch_sub(1);
}

// A descriptor closed behind the library's back (dup2, close_range, the C
// library's own closes) and reused no longer refers to /dev/null: forget it.
bool still_dev_null(int fd) {
  struct stat st;
  return syscall(SYS_fstat, fd, &st) == 0 && S_ISCHR(st.st_mode) &&
         major(st.st_rdev) == 1 && minor(st.st_rdev) == 3;
}

tracked_descriptor *find_tracked(int fd) {
  if (fd < 0 || tracked_count.load(std::memory_order_relaxed) == 0) return nullptr;
  for (tracked_descriptor &slot : tracked) {
    if (slot.fd_plus_one.load() != fd + 1) continue;
    if (still_dev_null(fd)) return &slot;
    forget(&slot, fd);
    return nullptr;
  }
  return nullptr;
}

int open_attr_current(const char *path, int flags, int task) {
  if (syscall(SYS_faccessat, AT_FDCWD, path, F_OK) != 0) return -1;
  int fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, "/dev/null",
                                    O_WRONLY | (flags & O_CLOEXEC)));
  return fd < 0 ? -1 : track(fd, task);
}

bool is_label_char(char c) {
  return c > ' ' && c <= '~' && c != '/' && c != '"' && c != '\\' && c != '\'';
}

bool refused_by_list(const char *label, size_t length) {
  int fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, refuse_path, O_RDONLY | O_CLOEXEC));
  if (fd < 0) return false;
  char content[4096];
  ssize_t n = syscall(SYS_read, fd, content, sizeof(content) - 1);
  syscall(SYS_close, fd);
  if (n <= 0) return false;
  content[n] = '\0';
  for (char *start = content; start < content + n;) {
    char *end = strchr(start, '\n');
    size_t line_length = end ? static_cast<size_t>(end - start) : strlen(start);
    if (line_length == length && memcmp(start, label, length) == 0) return true;
    start += line_length + 1;
  }
  return false;
}

ssize_t set_label(int task, const void *data, size_t count) {
  if (task != raw_gettid()) {
    errno = EACCES;
    return -1;
  }
  const char *bytes = static_cast<const char *>(data);
  size_t length = 0;
  while (length < count && length < max_label && is_label_char(bytes[length])) length++;
  if (length == 0 || bytes[0] == '-' || length >= max_label || refused_by_list(bytes, length)) {
    errno = EINVAL;
    return -1;
  }
  memcpy(thread_label, bytes, length);
  thread_label[length] = '\0';
  thread_label_set = true;
  line record;
  record.add("label pid=");
  record.add(static_cast<long>(raw_getpid()));
  record.add(" tid=");
  record.add(static_cast<long>(raw_gettid()));
  record.add(" label=");
  record.add(thread_label);
  record.add("\n");
  append_record(record);
  return static_cast<ssize_t>(count);
}

// Runs in the child between fork and its return: raw system calls only.
void record_fork(pid_t parent, const char *label) {
  line record;
  record.add("fork pid=");
  record.add(static_cast<long>(raw_getpid()));
  record.add(" ppid=");
  record.add(static_cast<long>(parent));
  record.add(" label=");
  record.add(label);
  record.add("\n");
  append_record(record);
}

bool build_path(char *out, const char *dir, const char *name) {
  size_t dir_length = strlen(dir), name_length = strlen(name);
  if (dir_length + name_length + 2 > max_path) return false;
  memcpy(out, dir, dir_length);
  out[dir_length] = '/';
  memcpy(out + dir_length + 1, name, name_length + 1);
  return true;
}

__attribute__((constructor)) void load_settings() {
  next_symbol(real_open, "open");
  next_symbol(real_openat, "openat");
  next_symbol(real_write, "write");
  next_symbol(real_close, "close");
  next_symbol(real_fork, "fork");
  const char *dir = getenv("SMACK_SIM_DIR");
  sim_enabled = dir && *dir && build_path(labels_path, dir, "smack-labels") &&
                build_path(refuse_path, dir, "smack-refuse");
}

mode_t mode_argument(int flags, va_list args) {
  bool has_mode = (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE;
  return has_mode ? static_cast<mode_t>(va_arg(args, int)) : 0;
}

int intercept_open(int dirfd, const char *path, int flags, mode_t mode) {
  int task;
  if (sim_enabled && opens_for_writing(flags) && is_attr_current_path(path, &task))
    return open_attr_current(path, flags, task);
  if (dirfd == AT_FDCWD) return next_symbol(real_open, "open")(path, flags, mode);
  return next_symbol(real_openat, "openat")(dirfd, path, flags, mode);
}

}  // namespace

extern "C" {

int open(const char *path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  mode_t mode = mode_argument(flags, args);
  va_end(args);
  return intercept_open(AT_FDCWD, path, flags, mode);
}

int open64(const char *path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  mode_t mode = mode_argument(flags, args);
  va_end(args);
  return intercept_open(AT_FDCWD, path, flags, mode);
}

int openat(int dirfd, const char *path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  mode_t mode = mode_argument(flags, args);
  va_end(args);
  return intercept_open(dirfd, path, flags, mode);
}

int openat64(int dirfd, const char *path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  mode_t mode = mode_argument(flags, args);
  va_end(args);
  return intercept_open(dirfd, path, flags, mode);
}

int __open_2(const char *path, int flags) { return intercept_open(AT_FDCWD, path, flags, 0); }
int __open64_2(const char *path, int flags) { return intercept_open(AT_FDCWD, path, flags, 0); }
int __openat_2(int dirfd, const char *path, int flags) { return intercept_open(dirfd, path, flags, 0); }
int __openat64_2(int dirfd, const char *path, int flags) { return intercept_open(dirfd, path, flags, 0); }

ssize_t write(int fd, const void *data, size_t count) {
  if (tracked_descriptor *slot = find_tracked(fd)) return set_label(slot->task.load(), data, count);
  return next_symbol(real_write, "write")(fd, data, count);
}

int close(int fd) {
  if (tracked_descriptor *slot = find_tracked(fd)) forget(slot, fd);
  return next_symbol(real_close, "close")(fd);
}

pid_t fork() {
  fork_fn forker = next_symbol(real_fork, "fork");
  char label[max_label];
  strcpy(label, current_label());
  pid_t parent = raw_getpid();
  pid_t pid = forker();
  if (pid == 0 && sim_enabled) {
    memcpy(process_label, label, sizeof(label));
    record_fork(parent, label);
  }
  return pid;
}

}  // extern "C"
