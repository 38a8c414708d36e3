// The results of one benchmark run and what is made of them: the table, the
// ratios keldra/peer round by round, the targets, the Markdown report and the
// data of the plot.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace bench {

struct idle_figures {
    double ticks = 0;
    double voluntary_switches = 0;
    double involuntary_switches = 0;
    double run_ns = 0;
    bool healthy = false;
};

struct memory_figures {
    double pss_kb = 0;
    double rss_kb = 0;
};

struct run_settings {
    int rounds = 5;
    int kills = 5;            // per daemon and round
    int idle_seconds = 60;
    std::vector<long> lookup_counts = {1000, 5000};
    int lookup_repeats = 5;
    std::string command;      // how the run was started
};

struct environment_info {
    std::string date;
    std::string cpu;
    int cores = 0;
    std::string memory;
    std::string kernel;
    std::string os;
    std::map<std::string, std::string> packages;
    std::string commit;
    std::string build_type;
    std::vector<std::string> load_samples; // /proc/loadavg during the run
    double max_load = 0;
    double duration_s = 0;
};

template <typename T> using by_round = std::map<int, T>;

struct bench_results {
    run_settings settings;
    environment_info environment;
    // kind -> daemon -> round -> samples (ns)
    std::map<std::string, std::map<std::string, by_round<std::vector<double>>>> relaunch;
    std::map<std::string, by_round<idle_figures>> idle;
    std::map<std::string, by_round<memory_figures>> memory;
    // kind -> round -> ns
    std::map<std::string, by_round<double>> startup_daemons;
    std::map<std::string, by_round<double>> startup_ready;
    // count -> method (keldra, cscan, pgrep) -> round -> ns
    std::map<long, std::map<std::string, by_round<double>>> lookup;
    // The profile: launcher -> step (wake, react, fork, child, total) ->
    // samples (ns), and excerpts of perf report (empty without perf).
    std::map<std::string, std::map<std::string, std::vector<double>>> trace;
    std::string perf_relaunch;
    std::string perf_lookup;
};

// The table of every figure (median [min-max] over rounds) in plain text.
std::string text_table(const bench_results &results);
// The targets, one line each, with the ratios they are judged on.
std::string text_targets(const bench_results &results);
// The whole report; `analysis` (Markdown) is added as its last section.
std::string markdown_report(const bench_results &results, const std::string &analysis);
// Every sample and per-round figure, tab-separated.
std::string samples_tsv(const bench_results &results);
// The relaunch samples for the plot: "<index> <quoted label> <milliseconds>"
// lines, the index numbering the boxes from 1.
std::string plot_data(const bench_results &results);

} // namespace bench
