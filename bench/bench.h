// The benchmark of keldra against runit, s6 and the C floor: what is compared
// and the two halves of the driver program keldra-bench.
//
//   keldra-bench run [options]       on the host: starts one sandbox per
//                                    supervisor, runs the rounds, writes the
//                                    report (driver.cc)
//   keldra-bench agent KIND [--startup-only]
//                                    inside keldra-sandbox: runs one
//                                    supervisor and measures it on command
//                                    (agent.cc)
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// The supervisors, in the order of the table. Every one supervises the same
// four simulated daemons.
struct supervisor_kind {
    const char *id;
    const char *label;
};

inline constexpr supervisor_kind supervisor_kinds[] = {
    {"floor", "C floor"},
    {"keldra", "keldra"},
    {"runit", "runit"},
    {"s6-ready", "s6 + readiness"},
    {"s6", "s6"},
};

struct daemon_entry {
    const char *name;
    const char *path;
};

// In the order keldra starts them; the relaunch rounds kill them in this order.
inline constexpr daemon_entry daemons[] = {
    {"pellan", "/usr/bin/pellan"},
    {"orvel", "/usr/bin/orvel"},
    {"dunmar", "/usr/apps/privileged-service/bin/dunmar"},
    {"tavish", "/usr/bin/tavish"},
};

std::vector<std::string> daemon_paths();

// Where the programs of the build are (KELDRA_BENCH_BUILD_DIR).
std::string build_path(const char *relative);

int run_agent(const std::vector<std::string> &args);
int run_driver(const std::vector<std::string> &args);

} // namespace bench
