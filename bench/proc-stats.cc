#include "proc-stats.h"

#include "bench-util.h"

#include <dirent.h>

#include <cstring>
#include <set>

namespace bench {

namespace {

std::vector<long> numeric_entries(const std::string &directory)
{
    std::vector<long> numbers;
    DIR *dir = opendir(directory.c_str());
    if (!dir)
        return numbers;
    while (dirent *entry = readdir(dir)) {
        long number = 0;
        if (parse_long(entry->d_name, &number))
            numbers.push_back(number);
    }
    closedir(dir);
    return numbers;
}

// The fields of a stat line after the command name, which is the only field
// in parentheses: [0] is the state, [1] the ppid, [11] utime, [12] stime.
std::vector<std::string> stat_fields_after_name(const std::string &path)
{
    std::string stat;
    if (!read_file(path, &stat))
        return {};
    size_t close = stat.rfind(')');
    if (close == std::string::npos || close + 2 >= stat.size())
        return {};
    return split(trim(stat.substr(close + 2)), ' ');
}

uint64_t field_u64(const std::vector<std::string> &fields, size_t index)
{
    uint64_t value = 0;
    if (index < fields.size())
        parse_u64(fields[index], &value);
    return value;
}

// "Key:   value" lines of status and smaps_rollup files.
uint64_t keyed_number(const std::string &text, const char *key)
{
    std::string wanted = std::string(key) + ":";
    for (const std::string &line : split_lines(text)) {
        if (line.compare(0, wanted.size(), wanted) != 0)
            continue;
        std::string value = trim(line.substr(wanted.size()));
        uint64_t number = 0;
        parse_u64(split(value, ' ')[0], &number);
        return number;
    }
    return 0;
}

task_counters read_task(pid_t pid, long tid)
{
    std::string base = format("/proc/%d/task/%ld/", int(pid), tid);
    task_counters counters;
    std::string status;
    if (read_file(base + "status", &status)) {
        counters.voluntary_switches = keyed_number(status, "voluntary_ctxt_switches");
        counters.involuntary_switches = keyed_number(status, "nonvoluntary_ctxt_switches");
    }
    std::string schedstat;
    if (read_file(base + "schedstat", &schedstat))
        parse_u64(split(trim(schedstat), ' ')[0], &counters.run_ns);
    return counters;
}

bool is_daemon(const std::string &argv0, const std::vector<std::string> &daemon_paths)
{
    for (const std::string &path : daemon_paths)
        if (argv0 == path)
            return true;
    return false;
}

} // namespace

std::vector<process_entry> list_processes()
{
    std::vector<process_entry> processes;
    for (long pid : numeric_entries("/proc")) {
        process_entry entry;
        entry.pid = pid_t(pid);
        std::vector<std::string> fields = stat_fields_after_name(format("/proc/%ld/stat", pid));
        if (fields.size() < 2)
            continue;
        entry.ppid = pid_t(field_u64(fields, 1));
        std::string cmdline;
        if (read_file(format("/proc/%ld/cmdline", pid), &cmdline))
            entry.argv0 = cmdline.c_str();
        processes.push_back(entry);
    }
    return processes;
}

std::vector<pid_t> supervisor_processes(pid_t root, const std::vector<std::string> &daemon_paths)
{
    std::vector<process_entry> all = list_processes();
    std::vector<pid_t> members = {root};
    std::set<pid_t> known = {root};
    for (size_t next = 0; next < members.size(); ++next) {
        for (const process_entry &entry : all) {
            if (entry.ppid != members[next] || known.count(entry.pid) ||
                is_daemon(entry.argv0, daemon_paths))
                continue;
            members.push_back(entry.pid);
            known.insert(entry.pid);
        }
    }
    return members;
}

usage_snapshot take_usage_snapshot(const std::vector<pid_t> &pids)
{
    usage_snapshot snapshot;
    for (pid_t pid : pids) {
        std::vector<std::string> fields = stat_fields_after_name(format("/proc/%d/stat", int(pid)));
        if (fields.size() < 13)
            continue;
        snapshot.ticks[pid] = field_u64(fields, 11) + field_u64(fields, 12);
        for (long tid : numeric_entries(format("/proc/%d/task", int(pid))))
            snapshot.tasks[pid_t(tid)] = read_task(pid, tid);
    }
    return snapshot;
}

usage_delta usage_between(const usage_snapshot &before, const usage_snapshot &after)
{
    usage_delta delta;
    for (const auto &[pid, ticks] : after.ticks) {
        auto earlier = before.ticks.find(pid);
        uint64_t base = earlier == before.ticks.end() ? 0 : earlier->second;
        delta.ticks += ticks >= base ? ticks - base : 0;
    }
    for (const auto &[tid, counters] : after.tasks) {
        task_counters base;
        auto earlier = before.tasks.find(tid);
        if (earlier != before.tasks.end())
            base = earlier->second;
        delta.voluntary_switches += counters.voluntary_switches - base.voluntary_switches;
        delta.involuntary_switches += counters.involuntary_switches - base.involuntary_switches;
        delta.run_ns += counters.run_ns - base.run_ns;
        ++delta.tasks;
    }
    return delta;
}

memory_usage read_memory(const std::vector<pid_t> &pids)
{
    memory_usage usage;
    for (pid_t pid : pids) {
        std::string rollup;
        if (!read_file(format("/proc/%d/smaps_rollup", int(pid)), &rollup))
            continue;
        usage.pss_kb += keyed_number(rollup, "Pss");
        usage.rss_kb += keyed_number(rollup, "Rss");
        ++usage.processes;
    }
    return usage;
}

bool process_alive(pid_t pid)
{
    std::vector<std::string> fields = stat_fields_after_name(format("/proc/%d/stat", int(pid)));
    return !fields.empty() && fields[0] != "Z" && fields[0] != "X";
}

} // namespace bench
