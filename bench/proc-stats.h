// What the benchmark reads from /proc about a supervisor: its processes, the
// CPU time and context switches of all their threads, and their memory.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace bench {

struct process_entry {
    pid_t pid = -1;
    pid_t ppid = -1;
    std::string argv0; // first command-line argument ("" for none)
};

std::vector<process_entry> list_processes();

// The supervisor's processes: `root` and its descendants, leaving out every
// process whose argv[0] is one of `daemon_paths` together with everything
// below it (the supervised daemons are not the supervisor).
std::vector<pid_t> supervisor_processes(pid_t root, const std::vector<std::string> &daemon_paths);

// Counters of one thread.
struct task_counters {
    uint64_t voluntary_switches = 0;
    uint64_t involuntary_switches = 0;
    uint64_t run_ns = 0; // time on a CPU (schedstat)
};

// Counters of a set of processes at one moment.
struct usage_snapshot {
    std::map<pid_t, uint64_t> ticks;        // per process: utime + stime (all threads)
    std::map<pid_t, task_counters> tasks;   // per thread id
};

usage_snapshot take_usage_snapshot(const std::vector<pid_t> &pids);

// What the processes used between two snapshots (threads and processes that
// appeared in between count from zero).
struct usage_delta {
    uint64_t ticks = 0;
    uint64_t voluntary_switches = 0;
    uint64_t involuntary_switches = 0;
    uint64_t run_ns = 0;
    int tasks = 0;
};

usage_delta usage_between(const usage_snapshot &before, const usage_snapshot &after);

struct memory_usage {
    uint64_t pss_kb = 0;
    uint64_t rss_kb = 0;
    int processes = 0;
};

// Sum of Pss and Rss of /proc/<pid>/smaps_rollup.
memory_usage read_memory(const std::vector<pid_t> &pids);

// True while /proc/<pid> exists and is not a zombie.
bool process_alive(pid_t pid);

} // namespace bench
