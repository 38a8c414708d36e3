#include "report.h"

#include "bench-util.h"

#include <algorithm>
#include <cmath>
#include <functional>

namespace bench {

namespace {

constexpr double ns_per_ms = 1e6;

// The columns of the table: the supervisors, then pgrep (lookup only). In the
// lookup rows the C floor column holds the minimal C scan.
struct column {
    const char *id;
    const char *label;
};

constexpr column columns[] = {
    {"floor", "C floor"}, {"keldra", "keldra"}, {"runit", "runit"},
    {"s6-ready", "s6 + readiness"}, {"s6", "s6"}, {"pgrep", "pgrep"},
};

constexpr const char *launchers[] = {"pellan", "orvel", "dunmar", "tavish"};

struct table_row {
    std::string figure;
    int decimals = 2;
    std::map<std::string, by_round<double>> cells; // column id -> rounds
};

struct summary {
    double median = 0, low = 0, high = 0;
    size_t count = 0;
};

std::vector<double> values_of(const by_round<double> &rounds)
{
    std::vector<double> values;
    for (const auto &[round, value] : rounds)
        values.push_back(value);
    return values;
}

summary summarise(const by_round<double> &rounds)
{
    std::vector<double> values = values_of(rounds);
    return {median(values), minimum(values), maximum(values), values.size()};
}

std::string number(double value, int decimals)
{
    return format("%.*f", decimals, value);
}

std::string cell_text(const by_round<double> &rounds, int decimals)
{
    if (rounds.empty())
        return "-";
    summary s = summarise(rounds);
    if (s.count == 1)
        return number(s.median, decimals);
    return number(s.median, decimals) + " [" + number(s.low, decimals) + "-" +
           number(s.high, decimals) + "]";
}

enum class round_statistic { median, fastest };

// Per-round medians (or minima) of a daemon's relaunch samples, in ms
// ("all": pooled).
by_round<double> relaunch_rounds(const bench_results &results, const std::string &kind,
                                 const std::string &daemon,
                                 round_statistic statistic = round_statistic::median)
{
    by_round<double> rounds;
    auto per_kind = results.relaunch.find(kind);
    if (per_kind == results.relaunch.end())
        return rounds;
    std::map<int, std::vector<double>> pooled;
    for (const auto &[name, per_round] : per_kind->second) {
        if (daemon != "all" && name != daemon)
            continue;
        for (const auto &[round, samples] : per_round)
            pooled[round].insert(pooled[round].end(), samples.begin(), samples.end());
    }
    for (const auto &[round, samples] : pooled)
        rounds[round] = (statistic == round_statistic::median ? median(samples) : minimum(samples)) /
                        ns_per_ms;
    return rounds;
}

template <typename T>
by_round<double> field_rounds(const std::map<std::string, by_round<T>> &figures,
                              const std::string &kind, const std::function<double(const T &)> &get)
{
    by_round<double> rounds;
    auto per_kind = figures.find(kind);
    if (per_kind == figures.end())
        return rounds;
    for (const auto &[round, value] : per_kind->second)
        rounds[round] = get(value);
    return rounds;
}

by_round<double> scaled(const by_round<double> &rounds, double factor)
{
    by_round<double> out;
    for (const auto &[round, value] : rounds)
        out[round] = value * factor;
    return out;
}

by_round<double> lookup_rounds(const bench_results &results, long count, const std::string &method)
{
    auto per_count = results.lookup.find(count);
    if (per_count == results.lookup.end())
        return {};
    auto per_method = per_count->second.find(method);
    if (per_method == per_count->second.end())
        return {};
    return scaled(per_method->second, 1 / ns_per_ms);
}

std::vector<std::string> supervisor_ids()
{
    return {"floor", "keldra", "runit", "s6-ready", "s6"};
}

void add_relaunch_rows(const bench_results &results, std::vector<table_row> *rows)
{
    for (const char *daemon : launchers) {
        table_row row{format("relaunch %s, ms", daemon), 2, {}};
        for (const std::string &kind : supervisor_ids())
            row.cells[kind] = relaunch_rounds(results, kind, daemon);
        rows->push_back(row);
    }
    table_row all{"relaunch, all four, ms", 2, {}};
    for (const std::string &kind : supervisor_ids())
        all.cells[kind] = relaunch_rounds(results, kind, "all");
    rows->push_back(all);
}

// The fastest kill of each round: the relaunch least disturbed by other work.
void add_fastest_relaunch_rows(const bench_results &results, std::vector<table_row> *rows)
{
    for (const char *daemon : {"orvel", "dunmar", "tavish", "all"}) {
        table_row row{format("fastest relaunch %s, ms", daemon), 2, {}};
        for (const std::string &kind : supervisor_ids())
            row.cells[kind] = relaunch_rounds(results, kind, daemon, round_statistic::fastest);
        rows->push_back(row);
    }
}

void add_idle_rows(const bench_results &results, std::vector<table_row> *rows)
{
    int seconds = results.settings.idle_seconds;
    table_row ticks{format("idle CPU ticks in %d s", seconds), 0, {}};
    table_row switches{format("idle context switches in %d s", seconds), 0, {}};
    table_row run{format("idle CPU time in %d s, us", seconds), 0, {}};
    table_row pss{"PSS, four daemons up, kB", 0, {}};
    table_row rss{"RSS, four daemons up, kB", 0, {}};
    for (const std::string &kind : supervisor_ids()) {
        ticks.cells[kind] = field_rounds<idle_figures>(results.idle, kind,
                                                       [](const idle_figures &f) { return f.ticks; });
        switches.cells[kind] = field_rounds<idle_figures>(
            results.idle, kind,
            [](const idle_figures &f) { return f.voluntary_switches + f.involuntary_switches; });
        run.cells[kind] = field_rounds<idle_figures>(results.idle, kind,
                                                     [](const idle_figures &f) { return f.run_ns / 1000; });
        pss.cells[kind] = field_rounds<memory_figures>(results.memory, kind,
                                                       [](const memory_figures &m) { return m.pss_kb; });
        rss.cells[kind] = field_rounds<memory_figures>(results.memory, kind,
                                                       [](const memory_figures &m) { return m.rss_kb; });
    }
    for (const table_row &row : {ticks, switches, run, pss, rss})
        rows->push_back(row);
}

void add_startup_rows(const bench_results &results, std::vector<table_row> *rows)
{
    table_row daemons_up{"start-up to four daemons, ms", 2, {}};
    for (const std::string &kind : supervisor_ids()) {
        auto found = results.startup_daemons.find(kind);
        if (found != results.startup_daemons.end())
            daemons_up.cells[kind] = scaled(found->second, 1 / ns_per_ms);
    }
    rows->push_back(daemons_up);
    table_row ready{"start-up to /run/keldra.ready, ms", 2, {}};
    auto found = results.startup_ready.find("keldra");
    if (found != results.startup_ready.end())
        ready.cells["keldra"] = scaled(found->second, 1 / ns_per_ms);
    rows->push_back(ready);
}

void add_lookup_rows(const bench_results &results, std::vector<table_row> *rows)
{
    for (long count : results.settings.lookup_counts) {
        table_row row{format("lookup among %ld, ms", count), 2, {}};
        row.cells["floor"] = lookup_rounds(results, count, "cscan");
        row.cells["keldra"] = lookup_rounds(results, count, "keldra");
        row.cells["pgrep"] = lookup_rounds(results, count, "pgrep");
        rows->push_back(row);
    }
}

std::vector<table_row> table_rows(const bench_results &results)
{
    std::vector<table_row> rows;
    add_relaunch_rows(results, &rows);
    add_fastest_relaunch_rows(results, &rows);
    add_idle_rows(results, &rows);
    add_startup_rows(results, &rows);
    add_lookup_rows(results, &rows);
    return rows;
}

std::string cell_of(const table_row &row, const char *id)
{
    auto found = row.cells.find(id);
    return found == row.cells.end() ? "-" : cell_text(found->second, row.decimals);
}

// keldra/peer round by round, over the rounds that both have (peer not 0).
by_round<double> ratio_rounds(const by_round<double> &keldra, const by_round<double> &peer)
{
    by_round<double> ratios;
    for (const auto &[round, value] : keldra) {
        auto other = peer.find(round);
        if (other != peer.end() && other->second > 0)
            ratios[round] = value / other->second;
    }
    return ratios;
}

const by_round<double> &cells_of(const table_row &row, const char *id)
{
    static const by_round<double> none;
    auto found = row.cells.find(id);
    return found == row.cells.end() ? none : found->second;
}

// The peer figure a keldra relaunch row is compared with: the peer's pooled
// relaunch over its four daemons (the peers treat every daemon alike).
const table_row *comparison_row(const std::vector<table_row> &rows, const table_row &row)
{
    const char *pooled = nullptr;
    if (row.figure.rfind("relaunch ", 0) == 0)
        pooled = "relaunch, all four, ms";
    else if (row.figure.rfind("fastest relaunch ", 0) == 0)
        pooled = "fastest relaunch all, ms";
    for (const table_row &other : rows)
        if (pooled && other.figure == pooled)
            return &other;
    return &row;
}

const table_row *find_row(const std::vector<table_row> &rows, const std::string &figure)
{
    for (const table_row &row : rows)
        if (row.figure == figure)
            return &row;
    return nullptr;
}

struct target_check {
    std::string text;      // what is required
    std::string measured;  // the figure it is judged on
    bool met = false;
    bool known = false;    // false: figures missing
};

std::string ratio_text(const by_round<double> &ratios)
{
    return cell_text(ratios, 2);
}

target_check ratio_target(const std::string &text, const by_round<double> &ratios,
                          const std::function<bool(double)> &passes, const std::string &what)
{
    target_check check{text, what + " = " + ratio_text(ratios), false, !ratios.empty()};
    check.met = check.known && passes(summarise(ratios).median);
    return check;
}

by_round<double> relaunch_row_cells(const std::vector<table_row> &rows, const std::string &daemon,
                                    const char *kind)
{
    const table_row *row = find_row(rows, daemon == "all" ? "relaunch, all four, ms"
                                                          : "relaunch " + daemon + ", ms");
    return row ? cells_of(*row, kind) : by_round<double>{};
}

std::vector<target_check> target_checks(const bench_results &results)
{
    std::vector<table_row> rows = table_rows(results);
    std::vector<target_check> checks;
    by_round<double> orvel = relaunch_row_cells(rows, "orvel", "keldra");
    auto below = [](double limit) { return [limit](double r) { return r < limit; }; };
    auto at_most = [](double limit) { return [limit](double r) { return r <= limit; }; };
    checks.push_back(ratio_target("orvel relaunch within 1.2x of the C floor",
                                  ratio_rounds(orvel, relaunch_row_cells(rows, "all", "floor")),
                                  at_most(1.2), "keldra orvel / C floor"));
    for (const column &peer : {columns[2], columns[3], columns[4]})
        checks.push_back(ratio_target(format("orvel relaunch below %s", peer.label),
                                      ratio_rounds(orvel, relaunch_row_cells(rows, "all", peer.id)),
                                      below(1), format("keldra orvel / %s", peer.label)));
    for (const char *launcher : {"orvel", "dunmar", "tavish"})
        checks.push_back(ratio_target(
            format("%s relaunch not above runit", launcher),
            ratio_rounds(relaunch_row_cells(rows, launcher, "keldra"),
                         relaunch_row_cells(rows, "all", "runit")),
            at_most(1), format("keldra %s / runit", launcher)));
    const table_row *switches = find_row(rows, format("idle context switches in %d s",
                                                      results.settings.idle_seconds));
    const table_row *ticks = find_row(rows, format("idle CPU ticks in %d s",
                                                   results.settings.idle_seconds));
    for (const table_row *row : {switches, ticks}) {
        by_round<double> cells = row ? cells_of(*row, "keldra") : by_round<double>{};
        target_check check{"zero " + row->figure.substr(5), "keldra " + cell_text(cells, 0), false,
                           !cells.empty()};
        check.met = check.known && maximum(values_of(cells)) == 0;
        checks.push_back(check);
    }
    const table_row *pss = find_row(rows, "PSS, four daemons up, kB");
    checks.push_back(ratio_target("PSS below runit's",
                                  ratio_rounds(cells_of(*pss, "keldra"), cells_of(*pss, "runit")),
                                  below(1), "keldra / runit PSS"));
    for (long count : results.settings.lookup_counts) {
        const table_row *row = find_row(rows, format("lookup among %ld, ms", count));
        by_round<double> keldra = cells_of(*row, "keldra");
        checks.push_back(ratio_target(format("lookup among %ld within 1.3x of the C scan", count),
                                      ratio_rounds(keldra, cells_of(*row, "floor")), at_most(1.3),
                                      "keldra / C scan"));
        checks.push_back(ratio_target(format("lookup among %ld at least 3x faster than pgrep", count),
                                      ratio_rounds(cells_of(*row, "pgrep"), keldra),
                                      [](double r) { return r >= 3; }, "pgrep / keldra"));
    }
    return checks;
}

std::string check_status(const target_check &check)
{
    if (!check.known)
        return "no data";
    return check.met ? "met" : "MISSED";
}

std::string pad(const std::string &text, size_t width)
{
    return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

std::string markdown_row(const std::vector<std::string> &cells)
{
    std::string line = "|";
    for (const std::string &cell : cells)
        line += " " + cell + " |";
    return line + "\n";
}

std::string markdown_table(const bench_results &results)
{
    std::string text = markdown_row({"Figure", "C floor", "keldra", "runit", "s6 + readiness", "s6",
                                     "pgrep"});
    text += "|---|---|---|---|---|---|---|\n";
    for (const table_row &row : table_rows(results)) {
        std::vector<std::string> cells = {row.figure};
        for (const column &c : columns)
            cells.push_back(cell_of(row, c.id));
        text += markdown_row(cells);
    }
    (void)results;
    return text;
}

std::string markdown_ratios(const bench_results &results)
{
    std::vector<table_row> rows = table_rows(results);
    std::string text = markdown_row({"Figure", "keldra / C floor", "keldra / runit",
                                     "keldra / s6 + readiness", "keldra / s6", "keldra / pgrep"});
    text += "|---|---|---|---|---|---|\n";
    for (const table_row &row : rows) {
        const by_round<double> &keldra = cells_of(row, "keldra");
        if (keldra.empty())
            continue;
        const table_row &peer_row = *comparison_row(rows, row);
        std::vector<std::string> cells = {row.figure};
        for (const char *peer : {"floor", "runit", "s6-ready", "s6", "pgrep"}) {
            by_round<double> ratios = ratio_rounds(keldra, cells_of(peer_row, peer));
            cells.push_back(ratios.empty() ? "-" : ratio_text(ratios));
        }
        text += markdown_row(cells);
    }
    return text;
}

std::string markdown_targets(const bench_results &results)
{
    std::string text = markdown_row({"Target", "Measured (per round: median [min-max])", "Result"});
    text += "|---|---|---|\n";
    for (const target_check &check : target_checks(results))
        text += markdown_row({check.text, check.measured, check_status(check)});
    return text;
}

std::string markdown_environment(const bench_results &results)
{
    const environment_info &env = results.environment;
    std::string text;
    text += "- Date: " + env.date + "\n";
    text += "- Command: `" + results.settings.command + "`\n";
    text += format("- Machine: %s, %d cores, %s memory\n", env.cpu.c_str(), env.cores,
                   env.memory.c_str());
    text += "- Kernel: " + env.kernel + "\n";
    text += "- System: " + env.os + "\n";
    text += "- Packages:";
    for (const auto &[name, version] : env.packages)
        text += " " + name + " " + version + ";";
    text += "\n- keldra: commit " + env.commit + ", build type " + env.build_type + "\n";
    text += format("- Rounds: %d; per round %d kills of orvel, dunmar and tavish and one of "
                   "pellan, an idle window of %d s, one start-up per supervisor, %d lookups per "
                   "method and count\n",
                   results.settings.rounds, results.settings.kills, results.settings.idle_seconds,
                   results.settings.lookup_repeats);
    text += format("- Duration of the run: %.0f s\n", env.duration_s);
    text += "- Load average (1, 5, 15 min) during the run:";
    for (const std::string &sample : env.load_samples)
        text += " [" + sample + "]";
    text += "\n";
    // Loaded: other work kept half the cores busy on average at some point.
    if (env.max_load >= 0.5 * env.cores)
        text += format("- **The figures were taken on a loaded %d-core machine**: other work was "
                       "running during the run (highest 1-minute load average %.2f), so the "
                       "latencies carry its noise; the ratios, taken round by round, are the "
                       "steadier figures.\n",
                       env.cores, env.max_load);
    return text;
}

const char *method_text = R"(All supervisors run in keldra-sandbox (private mount and PID namespaces,
fresh `/run` and `/tmp`), one sandbox each, with the same environment (the
sandbox's Smack simulation preload included, which keldra needs on a kernel
without Smack) and the same four simulated daemons (`keldra-simd` installed at
`/usr/bin/pellan`, `/usr/bin/orvel`, `/usr/apps/privileged-service/bin/dunmar`
and `/usr/bin/tavish`, default settings: healthy and ready at once). The peers
run each daemon from a service directory under `/run/svc` whose `run` script is
`#!/bin/sh` + `exec <path>` (argv[0] the fixed path); "s6 + readiness" adds
`notification-fd` 3 and a script that writes the readiness line before the
`exec`. The C floor (`bench/floor.c`) forks, execs and waits, nothing more.
keldra runs with a trivial init script, its log on a file in `/tmp`.

1. **Relaunch latency**: each daemon in turn, once it has run for 1.6 s and
   0.4 s after the previous relaunch, is killed with `SIGKILL` (orvel, dunmar
   and tavish the given number of times per round, pellan once per round, see
   the analysis: keldra's pellan launcher cannot take more than nine
   relaunches per run); the latency runs
   from `CLOCK_MONOTONIC` taken just before the `kill` to the `CLOCK_MONOTONIC`
   that the successor records at the top of its `main` (its `.starts` record).
   A round's figure is the median of its kills; the table gives the median and
   the range of the round figures. The "fastest relaunch" rows take each
   round's fastest kill instead, the one least disturbed by other work on the
   machine; the targets are judged on the medians. keldra's four rows are its four launchers
   (orvel through its signal descriptor, dunmar and tavish through their extra
   iteration after a death, pellan through its runtime-directory step); the
   peers' rows are the same daemons under them.
2. **Idle cost**: after a settle of 2 s, the CPU ticks (utime + stime of
   `/proc/<pid>/stat`), the context switches (voluntary + involuntary, summed
   over `/proc/<pid>/task/*/status`) and the CPU time (`schedstat`) of all the
   supervisor's processes and threads, over the idle window, with the four
   daemons up and unchanged (checked). The supervisor's processes: keldra;
   `runsvdir` and its four `runsv`; `s6-svscan` and its four `s6-supervise`; the
   floor.
3. **Memory**: sum of `Pss` and `Rss` of `/proc/<pid>/smaps_rollup` over the
   same processes, at the end of each idle window.
4. **Start-up**: a fresh sandbox per supervisor and round; from
   `CLOCK_MONOTONIC` taken in the child just before `execv` of the supervisor
   to the first instruction of the last of the four daemons, and for keldra to
   the creation of `/run/keldra.ready` (seen through inotify on `/run`).
5. **Lookup**: in a sandbox of its own, among 1,000 and 5,000 other processes
   (idle children of the bench program) with the target `/usr/bin/tavish`
   started last, so that every scan walks the whole process directory:
   `keldra_find_process_by_name` called from `keldra-bench-lookup` (linked with
   keldra's `keldra_core`), the minimal C scan of `bench/cscan.c` (open, read,
   close per process) in the C floor column, and `pgrep -x -f` run as a program
   (its start included). Each method finds the target in every call (checked).

Ratios keldra/peer are taken round by round (keldra's figure of round r over
the peer's figure of the same round); for relaunch, each keldra launcher is
compared with the peer's figure over its four daemons.
)";

std::string samples_cell(const std::vector<double> &samples)
{
    if (samples.empty())
        return "-";
    return format("%.3f [%.3f-%.3f]", median(samples) / ns_per_ms, minimum(samples) / ns_per_ms,
                  maximum(samples) / ns_per_ms);
}

std::string markdown_trace(const bench_results &results)
{
    std::string text = markdown_row({"Launcher", "wake: kill to first log line",
                                     "react: to the last line before the fork",
                                     "fork: to the first line after it",
                                     "child: to the successor's first instruction", "total"});
    text += "|---|---|---|---|---|---|\n";
    for (const char *launcher : launchers) {
        auto found = results.trace.find(launcher);
        if (found == results.trace.end())
            continue;
        std::vector<std::string> cells = {launcher};
        for (const char *step : {"wake", "react", "fork", "child", "total"}) {
            auto samples = found->second.find(step);
            cells.push_back(samples == found->second.end() ? "-" : samples_cell(samples->second));
        }
        text += markdown_row(cells);
    }
    return text;
}

std::string markdown_profile(const bench_results &results)
{
    if (results.trace.empty())
        return "";
    std::string text = "\n## Profile of keldra's relaunch path\n\n";
    text += "Every launcher's relaunches, timed from the stamps of keldra's own log "
            "(`CLOCK_MONOTONIC_RAW`, set against the `CLOCK_MONOTONIC` of the kill and of the "
            "successor's start record), median [min-max] over the kills in ms. For pellan, "
            "\"fork\" holds the runtime-directory step (`system(\"/usr/bin/rm -rf /run/pellan\")`, "
            "`mkdir`, `chown`) before the fork. The C floor needs "
            "wake + fork + child only: its relaunch median over all rounds was " +
            cell_text(relaunch_rounds(results, "floor", "all"), 3) + " ms.\n\n";
    text += markdown_trace(results);
    if (!results.perf_relaunch.empty())
        text += "\n`perf record --call-graph dwarf` of keldra's threads (and of its children "
                "until they exec) during as many further relaunches of orvel, dunmar and tavish "
                "(apart from the timed ones, which perf would slow); user-space symbols of `perf report "
                "--children --sort sym --comm keldra`, as shares of all samples (the daemons' "
                "own included):\n\n```\n" +
                results.perf_relaunch + "```\n";
    if (!results.perf_lookup.empty())
        text += "\n`perf record --call-graph dwarf` of `keldra-bench-lookup` among " +
                std::to_string(results.settings.lookup_counts.back()) +
                " processes (start-up of the other processes, then five lookups of each "
                "method); user-space symbols of `perf report --children --sort sym` for the "
                "program itself (pgrep excluded):\n\n```\n" +
                results.perf_lookup + "```\n";
    return text;
}

} // namespace

std::string text_table(const bench_results &results)
{
    std::vector<table_row> rows = table_rows(results);
    size_t first = 6;
    for (const table_row &row : rows)
        first = std::max(first, row.figure.size());
    std::vector<size_t> widths;
    for (const column &c : columns) {
        size_t width = std::string(c.label).size();
        for (const table_row &row : rows)
            width = std::max(width, cell_of(row, c.id).size());
        widths.push_back(width);
    }
    std::string text = pad("Figure", first);
    for (size_t i = 0; i < std::size(columns); ++i)
        text += "  " + pad(columns[i].label, widths[i]);
    text += "\n";
    for (const table_row &row : rows) {
        text += pad(row.figure, first);
        for (size_t i = 0; i < std::size(columns); ++i)
            text += "  " + pad(cell_of(row, columns[i].id), widths[i]);
        text += "\n";
    }
    return text;
}

std::string text_targets(const bench_results &results)
{
    std::string text;
    for (const target_check &check : target_checks(results))
        text += pad(check_status(check), 8) + check.text + ": " + check.measured + "\n";
    return text;
}

std::string markdown_report(const bench_results &results, const std::string &analysis)
{
    std::string text = "# keldra against runit and s6\n\n";
    text += markdown_environment(results);
    text += "\n## Figures\n\nMedian over the rounds, with the range of the round figures in "
            "brackets.\n\n";
    text += markdown_table(results);
    text += "\n## Ratios keldra / peer, round by round\n\nMedian [min-max] of the per-round "
            "ratios.\n\n";
    text += markdown_ratios(results);
    text += "\n## Targets\n\n";
    text += markdown_targets(results);
    text += "\n## Relaunch latency distributions\n\nEvery kill of every round (log scale).\n\n"
            "![relaunch latency](relaunch-latency.png)\n";
    text += markdown_profile(results);
    text += "\n## Method\n\n";
    text += method_text;
    if (!analysis.empty())
        text += "\n" + analysis;
    return text;
}

std::string samples_tsv(const bench_results &results)
{
    std::string text = "figure\tsubject\tround\tvalue\tunit\n";
    for (const auto &[kind, per_daemon] : results.relaunch)
        for (const auto &[daemon, per_round] : per_daemon)
            for (const auto &[round, samples] : per_round)
                for (double ns : samples)
                    text += format("relaunch\t%s %s\t%d\t%.0f\tns\n", kind.c_str(), daemon.c_str(),
                                   round, ns);
    for (const auto &[kind, per_round] : results.idle)
        for (const auto &[round, f] : per_round)
            text += format("idle\t%s\t%d\tticks=%.0f vcsw=%.0f ivcsw=%.0f run_ns=%.0f healthy=%d\t"
                           "%ds window\n",
                           kind.c_str(), round, f.ticks, f.voluntary_switches,
                           f.involuntary_switches, f.run_ns, f.healthy ? 1 : 0,
                           results.settings.idle_seconds);
    for (const auto &[kind, per_round] : results.memory)
        for (const auto &[round, m] : per_round)
            text += format("memory\t%s\t%d\tpss=%.0f rss=%.0f\tkB\n", kind.c_str(), round, m.pss_kb,
                           m.rss_kb);
    for (const auto &[kind, per_round] : results.startup_daemons)
        for (const auto &[round, ns] : per_round)
            text += format("startup-daemons\t%s\t%d\t%.0f\tns\n", kind.c_str(), round, ns);
    for (const auto &[kind, per_round] : results.startup_ready)
        for (const auto &[round, ns] : per_round)
            text += format("startup-ready\t%s\t%d\t%.0f\tns\n", kind.c_str(), round, ns);
    for (const auto &[count, per_method] : results.lookup)
        for (const auto &[method, per_round] : per_method)
            for (const auto &[round, ns] : per_round)
                text += format("lookup-%ld\t%s\t%d\t%.0f\tns\n", count, method.c_str(), round, ns);
    return text;
}

std::string plot_data(const bench_results &results)
{
    std::string text;
    int index = 0;
    auto add = [&](const std::string &label, const std::string &kind, const std::string &daemon) {
        auto per_kind = results.relaunch.find(kind);
        if (per_kind == results.relaunch.end())
            return;
        ++index;
        for (const auto &[name, per_round] : per_kind->second) {
            if (daemon != "all" && name != daemon)
                continue;
            for (const auto &[round, samples] : per_round)
                for (double ns : samples)
                    text += format("%d \"%s\" %.4f\n", index, label.c_str(), ns / ns_per_ms);
        }
    };
    add("C floor", "floor", "all");
    for (const char *launcher : launchers)
        add(std::string("keldra ") + launcher, "keldra", launcher);
    add("runit", "runit", "all");
    add("s6 + readiness", "s6-ready", "all");
    add("s6", "s6", "all");
    return text;
}

} // namespace bench
