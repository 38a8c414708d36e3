// Small helpers shared by the benchmark programs: clocks, files, fields,
// statistics and the sandbox check.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

// CLOCK_MONOTONIC in nanoseconds (the clock of the simulated daemons' records).
uint64_t monotonic_ns();
void sleep_ns(uint64_t ns);
void sleep_until_ns(uint64_t deadline);

// True inside keldra-sandbox (KELDRA_SANDBOX=1 and PID 1 is the sandbox).
bool inside_sandbox();
// Ends the program (status 1) with a message unless inside the sandbox.
void require_sandbox(const char *program);

bool read_file(const std::string &path, std::string *content);
bool write_file(const std::string &path, const std::string &content, mode_t mode);
std::vector<std::string> split_lines(std::string_view text);
std::vector<std::string> split(std::string_view text, char separator);
// "key=value key=value ..." split at blanks; words without '=' are skipped.
std::map<std::string, std::string> parse_fields(std::string_view line);
bool parse_long(std::string_view text, long *value);
bool parse_u64(std::string_view text, uint64_t *value);
std::string trim(std::string_view text);

// printf into a std::string.
std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// Statistics of a sample (all of them 0 for an empty one).
double median(std::vector<double> values);
double minimum(const std::vector<double> &values);
double maximum(const std::vector<double> &values);

// Spawns argv with stdin /dev/null, stdout and stderr to the given paths
// (empty: inherited) and every other descriptor closed. Returns the pid or -1.
pid_t spawn_program(const std::vector<std::string> &argv, const std::string &stdout_path,
                    const std::string &stderr_path);

} // namespace bench
