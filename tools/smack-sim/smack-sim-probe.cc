// keldra-smack-sim-probe: a small program for the sandbox's own tests. It sets
// thread labels the way the supervisor does, forks, and records signals.
//
//   label LABEL            set the calling thread's label; prints "ok tid=<tid>"
//                          or "error <errno name>", exit status 0 or 1
//   threads LABEL1 LABEL2  two threads set one label each and print
//                          "thread tid=<tid> label=<label>"; once the second has
//                          set its label, the first forks a child and prints
//                          "child pid=<pid> label=LABEL1"; then the main thread
//                          forks one ("child pid=<pid> label=_")
//   signals FILE           appends "TERM from=<sender pid>" to FILE for every
//                          SIGTERM, creates FILE.ready once the handler is in
//                          place, exits 0 one second after the first SIGTERM
//                          (status 2 when none came within 60 s)
//   forks N                forks N children that wait, prints "forked=<k>
//                          error=<errno name or none>", ends them, exits 0
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

pthread_mutex_t output_mutex = PTHREAD_MUTEX_INITIALIZER;

void print_line(const std::string &text) {
  pthread_mutex_lock(&output_mutex);
  printf("%s\n", text.c_str());
  fflush(stdout);
  pthread_mutex_unlock(&output_mutex);
}

// Same steps as the supervisor: per-task attribute file, one write, close.
int set_thread_label(const char *label) {
  char path[256];
  snprintf(path, sizeof(path), "/proc/self/task/%d/attr/current", gettid());
  int fd = open(path, O_WRONLY | O_TRUNC);
  if (fd < 0) return errno;
  ssize_t n = write(fd, label, strlen(label));
  int error = n == (ssize_t)strlen(label) ? 0 : errno;
  close(fd);
  return error;
}

int run_label(const char *label) {
  int error = set_thread_label(label);
  if (error != 0) {
    print_line(std::string("error ") + strerrorname_np(error));
    return 1;
  }
  print_line("ok tid=" + std::to_string(gettid()));
  return 0;
}

void fork_and_report(const char *label) {
  pid_t pid = fork();
  if (pid == 0) _exit(0);
  waitpid(pid, nullptr, 0);
  print_line("child pid=" + std::to_string(pid) + " label=" + label);
}

void *labelled_thread(void *arg) {
  const char *label = static_cast<const char *>(arg);
  int error = set_thread_label(label);
  print_line("thread tid=" + std::to_string(gettid()) + " label=" + label +
             (error ? std::string(" error=") + strerrorname_np(error) : ""));
  return nullptr;
}

// The first thread forks only after the second one has set its own label.
sem_t first_labelled, second_labelled;

void *first_thread(void *arg) {
  labelled_thread(arg);
  sem_post(&first_labelled);
  while (sem_wait(&second_labelled) != 0) {
  }
  fork_and_report(static_cast<const char *>(arg));
  return nullptr;
}

int run_threads(char *first, char *second) {
  sem_init(&first_labelled, 0, 0);
  sem_init(&second_labelled, 0, 0);
  pthread_t a, b;
  pthread_create(&a, nullptr, first_thread, first);
  while (sem_wait(&first_labelled) != 0) {
  }
  pthread_create(&b, nullptr, labelled_thread, second);
  pthread_join(b, nullptr);
  sem_post(&second_labelled);
  pthread_join(a, nullptr);
  fork_and_report("_");
  return 0;
}

int signal_file = -1;
volatile sig_atomic_t terms_received;

void record_term(int, siginfo_t *info, void *) {
  char text[64];
  int n = snprintf(text, sizeof(text), "TERM from=%d\n", static_cast<int>(info->si_pid));
  if (write(signal_file, text, n) < 0) _exit(3);
  terms_received = terms_received + 1;
}

void sleep_ms(long ms) {
  timespec pause{ms / 1000, (ms % 1000) * 1000000L};
  while (nanosleep(&pause, &pause) != 0 && errno == EINTR) {
  }
}

int run_signals(const char *file) {
  signal_file = open(file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (signal_file < 0) return 3;
  struct sigaction action {};
  action.sa_sigaction = record_term;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGTERM, &action, nullptr);
  int ready = open((std::string(file) + ".ready").c_str(), O_WRONLY | O_CREAT, 0644);
  if (ready < 0) return 3;
  close(ready);
  for (int i = 0; i < 6000 && terms_received == 0; i++) sleep_ms(10);
  if (terms_received == 0) return 2;
  sleep_ms(1000);
  return 0;
}

int run_forks(int count) {
  std::vector<pid_t> children;
  int error = 0;
  for (int i = 0; i < count; i++) {
    pid_t pid = fork();
    if (pid == 0) {
      pause();
      _exit(0);
    }
    if (pid < 0) {
      error = errno;
      break;
    }
    children.push_back(pid);
  }
  print_line("forked=" + std::to_string(children.size()) +
             " error=" + (error ? strerrorname_np(error) : "none"));
  for (pid_t pid : children) kill(pid, SIGKILL);
  for (pid_t pid : children) waitpid(pid, nullptr, 0);
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "label" && argc == 3) return run_label(argv[2]);
  if (mode == "threads" && argc == 4) return run_threads(argv[2], argv[3]);
  if (mode == "signals" && argc == 3) return run_signals(argv[2]);
  if (mode == "forks" && argc == 3) return run_forks(atoi(argv[2]));
  fprintf(stderr, "usage: keldra-smack-sim-probe label L | threads L1 L2 | "
                  "signals FILE | forks N\n");
  return 64;
}
