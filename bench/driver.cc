// keldra-bench: the benchmark driver.
//
//   keldra-bench run --out DIR [--rounds N] [--kills K] [--idle-seconds S]
//                    [--lookup-counts N,N] [--lookup-repeats M]
//                    [--analysis FILE] [--command TEXT]
//                    [--profile-dir DIR [--trace-kills N]]
//   keldra-bench agent KIND [--startup-only]     (inside the sandbox; agent.cc)
//
// `run` works on the host and touches no fixed path of the system: everything
// that runs a supervisor or a daemon is an agent in a keldra-sandbox of its
// own. It
//   1. starts one agent per supervisor (C floor, keldra, runit, s6 with and
//      without readiness notification), one after the other;
//   2. runs the rounds: in every round each agent in turn relaunches its
//      daemons (K kills of each) and then starts its idle window of S seconds,
//      which runs while the next agents relaunch theirs (a supervisor at rest
//      is not disturbed by work elsewhere); the next round of an agent begins
//      once its idle window has been reported;
//   3. while the last idle windows run on, measures the start-up of each
//      supervisor in a fresh sandbox per round; with --profile-dir, traces
//      keldra's relaunch path step by step from its own log stamps (and
//      records it with perf when perf is there); runs keldra-bench-lookup in
//      a sandbox of its own, and with --profile-dir once more under perf;
//      perf data goes to that directory;
//   4. prints the table and the targets, and writes to DIR report.md (with
//      the analysis file appended), samples.tsv and relaunch-samples.dat (the
//      data of the plot, drawn by bench/plot.gp).
#include "bench.h"
#include "bench-util.h"
#include "report.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace bench {

std::vector<std::string> daemon_paths()
{
    std::vector<std::string> paths;
    for (const daemon_entry &daemon : daemons)
        paths.push_back(daemon.path);
    return paths;
}

std::string build_path(const char *relative)
{
    return std::string(KELDRA_BENCH_BUILD_DIR) + "/" + relative;
}

namespace {

constexpr int long_sandbox_timeout_s = 1500;
constexpr int startup_sandbox_timeout_s = 120;
constexpr int lookup_sandbox_timeout_s = 900;

struct driver_options {
    run_settings settings;
    std::string out;
    std::string analysis_path;
    std::string profile_dir; // empty: no profile
    int trace_kills = 10;
};

struct agent_process {
    std::string kind;
    pid_t pid = -1;
    FILE *to = nullptr;
    FILE *from = nullptr;
    bool idle_pending = false;
    int idle_round = 0;
};

std::vector<agent_process *> live_agents;

void stop_live_agents()
{
    for (agent_process *agent : live_agents)
        if (agent->pid > 0)
            kill(agent->pid, SIGTERM);
}

[[noreturn]] void die(const std::string &text)
{
    fprintf(stderr, "keldra-bench: %s\n", text.c_str());
    stop_live_agents();
    exit(1);
}

[[noreturn]] void usage()
{
    fprintf(stderr, "usage: keldra-bench run --out DIR [--rounds N] [--kills K] [--idle-seconds S]"
                    " [--lookup-counts N,N] [--lookup-repeats M] [--analysis FILE]"
                    " [--command TEXT] [--profile-dir DIR [--trace-kills N]]\n");
    exit(2);
}

int positive_int(const std::string &text)
{
    long value = 0;
    if (!parse_long(text, &value) || value <= 0 || value > 100000)
        usage();
    return int(value);
}

driver_options parse_options(const std::vector<std::string> &args)
{
    driver_options opts;
    for (size_t i = 0; i < args.size(); i += 2) {
        if (i + 1 >= args.size())
            usage();
        const std::string &name = args[i];
        const std::string &value = args[i + 1];
        if (name == "--out")
            opts.out = value;
        else if (name == "--rounds")
            opts.settings.rounds = positive_int(value);
        else if (name == "--kills")
            opts.settings.kills = positive_int(value);
        else if (name == "--idle-seconds")
            opts.settings.idle_seconds = positive_int(value);
        else if (name == "--lookup-repeats")
            opts.settings.lookup_repeats = positive_int(value);
        else if (name == "--analysis")
            opts.analysis_path = value;
        else if (name == "--command")
            opts.settings.command = value;
        else if (name == "--profile-dir")
            opts.profile_dir = value;
        else if (name == "--trace-kills")
            opts.trace_kills = positive_int(value);
        else if (name == "--lookup-counts") {
            opts.settings.lookup_counts.clear();
            for (const std::string &count : split(value, ','))
                opts.settings.lookup_counts.push_back(positive_int(count));
        } else
            usage();
    }
    if (opts.out.empty())
        usage();
    return opts;
}

std::string self_path()
{
    char path[4096];
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0)
        die("cannot read /proc/self/exe");
    return std::string(path, size_t(n));
}

std::vector<std::string> sandbox_command(int timeout_s, bool smack_sim)
{
    std::vector<std::string> argv = {build_path("tools/keldra-sandbox"), "--timeout",
                                     std::to_string(timeout_s)};
    if (!smack_sim)
        argv.push_back("--no-smack-sim");
    argv.push_back("--");
    return argv;
}

// Starts a program with pipes on its stdin and stdout (stderr inherited).
agent_process spawn_piped(const std::string &kind, const std::vector<std::string> &argv)
{
    int to_child[2], from_child[2];
    if (pipe2(to_child, O_CLOEXEC) != 0 || pipe2(from_child, O_CLOEXEC) != 0)
        die("pipe");
    std::vector<char *> args;
    for (const std::string &arg : argv)
        args.push_back(const_cast<char *>(arg.c_str()));
    args.push_back(nullptr);
    fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0)
        die("fork");
    if (pid == 0) {
        dup2(to_child[0], 0);
        dup2(from_child[1], 1);
        execv(args[0], args.data());
        _exit(127);
    }
    close(to_child[0]);
    close(from_child[1]);
    agent_process agent;
    agent.kind = kind;
    agent.pid = pid;
    agent.to = fdopen(to_child[1], "w");
    agent.from = fdopen(from_child[0], "r");
    return agent;
}

agent_process start_agent(const std::string &kind, bool startup_only)
{
    std::vector<std::string> argv =
        sandbox_command(startup_only ? startup_sandbox_timeout_s : long_sandbox_timeout_s, true);
    argv.push_back(self_path());
    argv.push_back("agent");
    argv.push_back(kind);
    if (startup_only)
        argv.push_back("--startup-only");
    return spawn_piped(kind, argv);
}

std::string read_line(agent_process &agent)
{
    char buffer[1024];
    if (!fgets(buffer, sizeof buffer, agent.from))
        die("agent " + agent.kind + " ended unexpectedly");
    std::string line = trim(buffer);
    if (line.rfind("error ", 0) == 0)
        die("agent " + agent.kind + ": " + line.substr(6));
    return line;
}

void send_command(agent_process &agent, const std::string &command)
{
    fprintf(agent.to, "%s\n", command.c_str());
    fflush(agent.to);
}

void finish_agent(agent_process &agent)
{
    if (agent.to) {
        fclose(agent.to);
        agent.to = nullptr;
    }
    if (agent.from) {
        fclose(agent.from);
        agent.from = nullptr;
    }
    int status = 0;
    waitpid(agent.pid, &status, 0);
    agent.pid = -1;
}

double field_number(const std::map<std::string, std::string> &fields, const char *key,
                    const std::string &line)
{
    auto found = fields.find(key);
    uint64_t value = 0;
    if (found == fields.end() || !parse_u64(found->second, &value))
        die("bad line: " + line);
    return double(value);
}

std::string first_word(const std::string &line)
{
    return line.substr(0, line.find(' '));
}

void expect_word(const std::string &line, const char *word)
{
    if (first_word(line) != word)
        die(std::string("expected ") + word + ", got: " + line);
}

void record_startup(bench_results *results, const std::string &kind, int round,
                    const std::string &line)
{
    std::map<std::string, std::string> fields = parse_fields(line);
    results->startup_daemons[kind][round] = field_number(fields, "daemons_ns", line);
    if (kind == "keldra")
        results->startup_ready[kind][round] = field_number(fields, "ready_ns", line);
}

void run_relaunch(agent_process &agent, int round, bench_results *results)
{
    send_command(agent, format("relaunch %d", results->settings.kills));
    for (;;) {
        std::string line = read_line(agent);
        if (line == "relaunch-done")
            return;
        expect_word(line, "sample");
        std::map<std::string, std::string> fields = parse_fields(line);
        results->relaunch[agent.kind][fields["daemon"]][round].push_back(
            field_number(fields, "ns", line));
    }
}

void begin_idle(agent_process &agent, int round, const run_settings &settings)
{
    send_command(agent, format("idle %d", settings.idle_seconds));
    agent.idle_pending = true;
    agent.idle_round = round;
}

void collect_idle(agent_process &agent, bench_results *results)
{
    if (!agent.idle_pending)
        return;
    std::string idle_line = read_line(agent);
    expect_word(idle_line, "idle");
    std::string memory_line = read_line(agent);
    expect_word(memory_line, "memory");
    expect_word(read_line(agent), "idle-done");
    std::map<std::string, std::string> idle = parse_fields(idle_line);
    idle_figures figures;
    figures.ticks = field_number(idle, "ticks", idle_line);
    figures.voluntary_switches = field_number(idle, "vcsw", idle_line);
    figures.involuntary_switches = field_number(idle, "ivcsw", idle_line);
    figures.run_ns = field_number(idle, "run_ns", idle_line);
    figures.healthy = idle["healthy"] == "1";
    if (!figures.healthy)
        die("agent " + agent.kind + ": a daemon was not up during the idle window");
    std::map<std::string, std::string> memory = parse_fields(memory_line);
    results->idle[agent.kind][agent.idle_round] = figures;
    results->memory[agent.kind][agent.idle_round] = {field_number(memory, "pss_kb", memory_line),
                                                     field_number(memory, "rss_kb", memory_line)};
    agent.idle_pending = false;
}

std::string load_average()
{
    std::string text;
    read_file("/proc/loadavg", &text);
    std::vector<std::string> fields = split(trim(text), ' ');
    if (fields.size() < 3)
        return "?";
    return fields[0] + " " + fields[1] + " " + fields[2];
}

void sample_load(environment_info *env)
{
    std::string sample = load_average();
    env->load_samples.push_back(sample);
    double one = atof(sample.c_str());
    env->max_load = std::max(env->max_load, one);
}

uint64_t run_begin_ns = monotonic_ns();

void progress(const std::string &text)
{
    fprintf(stderr, "[keldra-bench %4.0f s] %s\n", double(monotonic_ns() - run_begin_ns) / 1e9,
            text.c_str());
}

// The long-lived agents, one after the other, each up with its daemons.
std::vector<agent_process> start_measuring_agents()
{
    std::vector<agent_process> agents;
    for (const supervisor_kind &kind : supervisor_kinds) {
        agents.push_back(start_agent(kind.id, false));
        expect_word(read_line(agents.back()), "ready");
    }
    return agents;
}

// Every round: each agent in turn relaunches its daemons, then starts its
// idle window, which runs while the next agents relaunch theirs.
void run_rounds(std::vector<agent_process> &agents, bench_results *results)
{
    for (int round = 1; round <= results->settings.rounds; ++round) {
        progress(format("round %d of %d: relaunch and idle", round, results->settings.rounds));
        for (agent_process &agent : agents) {
            collect_idle(agent, results);
            run_relaunch(agent, round, results);
            begin_idle(agent, round, results->settings);
        }
        sample_load(&results->environment);
    }
}

void collect_last_idle_windows(std::vector<agent_process> &agents, bench_results *results)
{
    for (agent_process &agent : agents) {
        collect_idle(agent, results);
        send_command(agent, "quit");
        finish_agent(agent);
    }
}

void run_startups(bench_results *results)
{
    progress("start-up");
    for (int round = 1; round <= results->settings.rounds; ++round) {
        for (const supervisor_kind &kind : supervisor_kinds) {
            agent_process agent = start_agent(kind.id, true);
            live_agents.push_back(&agent);
            std::string line = read_line(agent);
            expect_word(line, "startup");
            record_startup(results, kind.id, round, line);
            finish_agent(agent);
            live_agents.pop_back();
        }
    }
}

void run_lookup(bench_results *results)
{
    progress("lookup");
    const run_settings &settings = results->settings;
    std::vector<std::string> argv = sandbox_command(lookup_sandbox_timeout_s, false);
    argv.push_back(build_path("bench/keldra-bench-lookup"));
    std::string counts;
    for (long count : settings.lookup_counts)
        counts += (counts.empty() ? "" : ",") + std::to_string(count);
    for (const std::string &arg : {std::string("--counts"), counts, std::string("--rounds"),
                                   std::to_string(settings.rounds), std::string("--repeats"),
                                   std::to_string(settings.lookup_repeats)})
        argv.push_back(arg);
    agent_process lookup = spawn_piped("lookup", argv);
    fclose(lookup.to);
    lookup.to = nullptr;
    char buffer[512];
    while (fgets(buffer, sizeof buffer, lookup.from)) {
        std::string line = trim(buffer);
        std::map<std::string, std::string> fields = parse_fields(line);
        long count = 0, round = 0;
        if (first_word(line) != "lookup" || !parse_long(fields["count"], &count) ||
            !parse_long(fields["round"], &round))
            die("lookup: bad line: " + line);
        results->lookup[count][fields["method"]][int(round)] = field_number(fields, "ns", line);
    }
    int status = 0;
    fclose(lookup.from);
    waitpid(lookup.pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        die("keldra-bench-lookup failed");
}

std::string command_output(const std::string &command);

bool perf_available()
{
    return access("/usr/bin/perf", X_OK) == 0;
}

// The user-space symbols of a perf report (lines "[.] <symbol>"), each
// once with its highest share, at most `limit` of them.
std::string perf_excerpt(const std::string &report, size_t limit)
{
    std::string text;
    std::vector<std::string> seen;
    for (const std::string &line : split_lines(report)) {
        size_t mark = line.find("[.] ");
        if (mark == std::string::npos || line[0] == '#')
            continue;
        std::string symbol = trim(line.substr(mark + 4));
        if (symbol.empty() || symbol.rfind("0x", 0) == 0 || symbol.rfind("0000", 0) == 0 ||
            std::find(seen.begin(), seen.end(), symbol) != seen.end())
            continue;
        seen.push_back(symbol);
        text += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
        if (seen.size() == limit)
            break;
    }
    return text;
}

std::string perf_report(const std::string &data, const std::string &comm)
{
    return perf_excerpt(command_output("/usr/bin/perf report -i '" + data + "' --stdio --children "
                                       "--sort sym -g none --percent-limit 0.3 --comm " + comm +
                                       " 2>/dev/null"),
                        40);
}

std::vector<std::string> perf_record_command(const std::string &data)
{
    return {"/usr/bin/perf", "record", "-q", "-F", "4000", "--call-graph", "dwarf,16384", "-o",
            data};
}

void record_trace(bench_results *results, const std::string &line)
{
    std::map<std::string, std::string> fields = parse_fields(line);
    std::map<std::string, std::vector<double>> &steps = results->trace[fields["daemon"]];
    for (const char *step : {"wake", "react", "fork", "child", "total"}) {
        long value = 0;
        if (!parse_long(fields[std::string(step) + "_ns"], &value))
            die("bad trace line: " + line);
        steps[step].push_back(double(value));
    }
}

// keldra's relaunch path step by step, with perf record of its threads.
void run_relaunch_trace(const driver_options &opts, bench_results *results)
{
    agent_process agent = start_agent("keldra", false);
    live_agents.push_back(&agent);
    expect_word(read_line(agent), "ready");
    std::string data = opts.profile_dir + "/relaunch.perf.data";
    send_command(agent, format("trace %d%s", opts.trace_kills,
                               perf_available() ? (" " + data).c_str() : ""));
    std::string line;
    while (first_word(line = read_line(agent)) == "trace")
        record_trace(results, line);
    if (line != "trace-done perf=0" && line != "trace-done perf=1")
        die("agent keldra: expected trace-done, got: " + line);
    send_command(agent, "quit");
    finish_agent(agent);
    live_agents.pop_back();
    if (line == "trace-done perf=1")
        results->perf_relaunch = perf_report(data, "keldra");
}

// perf record of the lookup program among the largest count of processes.
void run_lookup_profile(const driver_options &opts, bench_results *results)
{
    if (opts.profile_dir.empty() || !perf_available())
        return;
    progress("profile of the lookup");
    mkdir(opts.profile_dir.c_str(), 0755);
    std::string data = opts.profile_dir + "/lookup.perf.data";
    std::vector<std::string> argv = sandbox_command(lookup_sandbox_timeout_s, false);
    for (const std::string &arg : perf_record_command(data))
        argv.push_back(arg);
    for (const std::string &arg :
         {std::string("--"), build_path("bench/keldra-bench-lookup"), std::string("--counts"),
          std::to_string(opts.settings.lookup_counts.back()), std::string("--rounds"),
          std::string("1"), std::string("--repeats"), std::string("5")})
        argv.push_back(arg);
    agent_process lookup = spawn_piped("lookup-profile", argv);
    fclose(lookup.to);
    char buffer[512];
    while (fgets(buffer, sizeof buffer, lookup.from)) {
    }
    fclose(lookup.from);
    int status = 0;
    waitpid(lookup.pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        die("perf record of keldra-bench-lookup failed");
    results->perf_lookup = perf_report(data, "keldra-bench-lo");
}

void run_relaunch_profile(const driver_options &opts, bench_results *results)
{
    if (opts.profile_dir.empty())
        return;
    progress("profile of the relaunch path");
    mkdir(opts.profile_dir.c_str(), 0755);
    run_relaunch_trace(opts, results);
}


std::string command_output(const std::string &command)
{
    std::string output;
    FILE *pipe = popen(command.c_str(), "r");
    if (!pipe)
        return "";
    char buffer[512];
    while (fgets(buffer, sizeof buffer, pipe))
        output += buffer;
    pclose(pipe);
    return trim(output);
}

std::string keyed_line(const std::string &path, const std::string &key)
{
    std::string text;
    read_file(path, &text);
    for (const std::string &line : split_lines(text)) {
        if (line.rfind(key, 0) != 0)
            continue;
        size_t separator = line.find_first_of(":=", key.size());
        if (separator == std::string::npos)
            continue;
        std::string value = trim(line.substr(separator + 1));
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
            value = value.substr(1, value.size() - 2);
        return value;
    }
    return "?";
}

std::string utc_date()
{
    time_t now = time(nullptr);
    tm parts = {};
    gmtime_r(&now, &parts);
    char text[64];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M UTC", &parts);
    return text;
}

environment_info describe_environment()
{
    environment_info env;
    env.date = utc_date();
    env.cpu = keyed_line("/proc/cpuinfo", "model name");
    env.cores = int(sysconf(_SC_NPROCESSORS_ONLN));
    std::string total = keyed_line("/proc/meminfo", "MemTotal");
    env.memory = format("%.1f GiB", atof(total.c_str()) / 1024 / 1024);
    utsname names = {};
    uname(&names);
    env.kernel = format("Linux %s %s (%s)", names.release, names.version, names.machine);
    env.os = keyed_line("/etc/os-release", "PRETTY_NAME");
    for (const char *package : {"runit", "s6", "procps", "gnuplot-nox", "g++"})
        env.packages[package] =
            command_output(format("dpkg-query -W -f='${Version}' %s 2>/dev/null", package));
    // The commit measured; "-dirty" when tracked files other than the results
    // this run rewrites differ from it.
    const std::string git = "git -C '" KELDRA_BENCH_SOURCE_DIR "' ";
    env.commit = command_output(git + "rev-parse --short=12 HEAD 2>/dev/null");
    if (env.commit.empty())
        env.commit = "?";
    else if (!command_output(git + "status --porcelain --untracked-files=no -- . "
                                   "':(exclude)bench/results' 2>/dev/null")
                  .empty())
        env.commit += "-dirty";
    env.build_type = KELDRA_BENCH_BUILD_TYPE;
    if (env.build_type.empty())
        env.build_type = "(none)";
    return env;
}

void write_output(const std::string &path, const std::string &content)
{
    if (!write_file(path, content, 0644))
        die("cannot write " + path);
}

void write_results(const driver_options &opts, const bench_results &results)
{
    mkdir(opts.out.c_str(), 0755);
    std::string analysis;
    if (!opts.analysis_path.empty() && !read_file(opts.analysis_path, &analysis))
        die("cannot read " + opts.analysis_path);
    write_output(opts.out + "/report.md", markdown_report(results, analysis));
    write_output(opts.out + "/samples.tsv", samples_tsv(results));
    write_output(opts.out + "/relaunch-samples.dat", plot_data(results));
}

} // namespace

int run_driver(const std::vector<std::string> &args)
{
    driver_options opts = parse_options(args);
    signal(SIGPIPE, SIG_IGN);
    bench_results results;
    results.settings = opts.settings;
    results.environment = describe_environment();
    sample_load(&results.environment);
    uint64_t begin = monotonic_ns();
    std::vector<agent_process> agents = start_measuring_agents();
    for (agent_process &agent : agents)
        live_agents.push_back(&agent);
    run_rounds(agents, &results);
    // The last idle windows run on while the start-ups, the lookups and the
    // profile are measured: a supervisor at rest is not disturbed by them.
    run_startups(&results);
    run_relaunch_profile(opts, &results);
    run_lookup(&results);
    run_lookup_profile(opts, &results);
    collect_last_idle_windows(agents, &results);
    live_agents.clear();
    sample_load(&results.environment);
    results.environment.duration_s = double(monotonic_ns() - begin) / 1e9;
    write_results(opts, results);
    printf("\n%s\n%s", text_table(results).c_str(), text_targets(results).c_str());
    printf("\nLoad average during the run (1, 5, 15 min):");
    for (const std::string &sample : results.environment.load_samples)
        printf(" [%s]", sample.c_str());
    printf("\nReport: %s/report.md\n", opts.out.c_str());
    return 0;
}

} // namespace bench

int main(int argc, char **argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    if (!args.empty() && args[0] == "agent")
        return bench::run_agent({args.begin() + 1, args.end()});
    if (!args.empty() && args[0] == "run")
        return bench::run_driver({args.begin() + 1, args.end()});
    fprintf(stderr, "usage: keldra-bench run ... | keldra-bench agent KIND [--startup-only]\n");
    return 2;
}
