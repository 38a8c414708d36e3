// keldra-bench-lookup: times the lookup of a process by its full path among
// many other processes, three ways:
//   keldra  keldra_find_process_by_name, from keldra's own toolkit
//   cscan   the minimal C scan of /proc/*/cmdline (cscan.c)
//   pgrep   pgrep -x -f PATH, run as a program (its start included)
//
//   keldra-bench-lookup [--counts 1000,5000] [--rounds N] [--repeats M]
//
// For every count it forks that many other processes (children that pause),
// then starts the target, the simulated daemon /usr/bin/tavish, last, so that
// it has the highest pid and every scan walks the whole process directory
// before it finds it. Each round times every method `repeats` times (keldra
// and cscan in alternating turns, pgrep after them), checks that each found
// the target, and prints the median:
//   lookup count=<n> method=<keldra|cscan|pgrep> round=<r> ns=<median>
// A method that does not find the target ends the program with status 1.
// Runs only inside keldra-sandbox (its own PID namespace, so the process
// directory holds the sandbox, this program, the others and the target).
#include "bench-util.h"
#include "cscan.h"
#include "keldra.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr const char *target_path = "/usr/bin/tavish";
constexpr const char *pgrep_path = "/usr/bin/pgrep";

struct options {
    std::vector<long> counts = {1000, 5000};
    int rounds = 5;
    int repeats = 5;
};

enum class method { keldra, cscan, pgrep };
constexpr method methods[] = {method::keldra, method::cscan, method::pgrep};

const char *method_name(method m)
{
    switch (m) {
    case method::keldra:
        return "keldra";
    case method::cscan:
        return "cscan";
    case method::pgrep:
        return "pgrep";
    }
    return "?";
}

[[noreturn]] void usage()
{
    fprintf(stderr, "usage: keldra-bench-lookup [--counts N,N...] [--rounds N] [--repeats N]\n");
    exit(2);
}

long positive(const char *text)
{
    long value = 0;
    if (!text || !bench::parse_long(text, &value) || value <= 0)
        usage();
    return value;
}

options parse_options(int argc, char **argv)
{
    options opts;
    for (int i = 1; i < argc; i += 2) {
        std::string arg = argv[i];
        const char *value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (arg == "--counts") {
            opts.counts.clear();
            for (const std::string &count : bench::split(value ? value : "", ','))
                opts.counts.push_back(positive(count.c_str()));
        } else if (arg == "--rounds") {
            opts.rounds = int(positive(value));
        } else if (arg == "--repeats") {
            opts.repeats = int(positive(value));
        } else {
            usage();
        }
    }
    return opts;
}

// A child that only waits; it dies with this program.
pid_t fork_idle_process()
{
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;)
            pause();
    }
    return pid;
}

bool grow_others(std::vector<pid_t> *others, long count)
{
    while (long(others->size()) < count) {
        pid_t pid = fork_idle_process();
        if (pid < 0) {
            perror("keldra-bench-lookup: fork");
            return false;
        }
        others->push_back(pid);
    }
    return true;
}

void stop_process(pid_t pid)
{
    if (pid <= 0)
        return;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

// Runs pgrep with its output on a pipe; returns the pid it printed (or -1).
int run_pgrep()
{
    int pipe_fds[2];
    if (pipe2(pipe_fds, O_CLOEXEC) != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) {
        dup2(pipe_fds[1], 1);
        execl(pgrep_path, "pgrep", "-x", "-f", target_path, (char *)nullptr);
        _exit(127);
    }
    close(pipe_fds[1]);
    std::string output;
    char buffer[256];
    ssize_t n;
    while ((n = read(pipe_fds[0], buffer, sizeof buffer)) > 0)
        output.append(buffer, size_t(n));
    close(pipe_fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    long found = -1;
    std::vector<std::string> lines = bench::split_lines(output);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || lines.size() != 1 ||
        !bench::parse_long(lines[0], &found))
        return -1;
    return int(found);
}

int run_method(method m)
{
    switch (m) {
    case method::keldra:
        return keldra_find_process_by_name(target_path);
    case method::cscan:
        return cscan_find_by_argv0(target_path);
    case method::pgrep:
        return run_pgrep();
    }
    return -1;
}

// Times one call; ends the program when the target was not found.
double timed_lookup(method m, pid_t target)
{
    uint64_t begin = bench::monotonic_ns();
    int found = run_method(m);
    uint64_t elapsed = bench::monotonic_ns() - begin;
    if (found != target) {
        fprintf(stderr, "keldra-bench-lookup: %s found %d instead of %d\n", method_name(m), found,
                int(target));
        exit(1);
    }
    return double(elapsed);
}

// One round: keldra's lookup and the C scan `repeats` times each, in turns
// that alternate which goes first, then pgrep `repeats` times. pgrep runs
// apart: it starts a program and reads several files of every process, which
// leaves the caches colder for whatever runs next.
void run_round(long count, int round, int repeats, pid_t target)
{
    std::vector<double> samples[3];
    for (int repeat = 0; repeat < repeats; ++repeat) {
        for (int k = 0; k < 2; ++k) {
            int index = (k + repeat) % 2;
            samples[index].push_back(timed_lookup(methods[index], target));
        }
    }
    for (int repeat = 0; repeat < repeats; ++repeat)
        samples[2].push_back(timed_lookup(method::pgrep, target));
    for (int index = 0; index < 3; ++index)
        printf("lookup count=%ld method=%s round=%d ns=%.0f\n", count, method_name(methods[index]),
               round, bench::median(samples[index]));
    fflush(stdout);
}

} // namespace

int main(int argc, char **argv)
{
    options opts = parse_options(argc, argv);
    bench::require_sandbox("keldra-bench-lookup");
    std::vector<pid_t> others;
    pid_t target = -1;
    int status = 0;
    for (long count : opts.counts) {
        stop_process(target);
        if (!grow_others(&others, count)) {
            status = 1;
            break;
        }
        target = bench::spawn_program({target_path}, "", "");
        bench::sleep_ns(100000000); // let the target reach its main loop
        // A first scan of each kind brings the process directory into the
        // caches.
        timed_lookup(method::keldra, target);
        timed_lookup(method::cscan, target);
        for (int round = 1; round <= opts.rounds; ++round)
            run_round(count, round, opts.repeats, target);
    }
    stop_process(target);
    for (pid_t pid : others)
        kill(pid, SIGKILL);
    for (pid_t pid : others)
        waitpid(pid, nullptr, 0);
    return status;
}
