#include "bench-util.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace bench {

uint64_t monotonic_ns()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return uint64_t(now.tv_sec) * 1000000000u + uint64_t(now.tv_nsec);
}

void sleep_ns(uint64_t ns)
{
    timespec delay = {time_t(ns / 1000000000u), long(ns % 1000000000u)};
    while (nanosleep(&delay, &delay) != 0 && errno == EINTR) {
    }
}

void sleep_until_ns(uint64_t deadline)
{
    uint64_t now = monotonic_ns();
    if (deadline > now)
        sleep_ns(deadline - now);
}

bool inside_sandbox()
{
    const char *flag = getenv("KELDRA_SANDBOX");
    std::string cmdline;
    if (!flag || strcmp(flag, "1") != 0 || getpid() == 1 || !read_file("/proc/1/cmdline", &cmdline))
        return false;
    std::string argv0 = cmdline.c_str();
    size_t slash = argv0.rfind('/');
    return argv0.substr(slash == std::string::npos ? 0 : slash + 1) == "keldra-sandbox";
}

void require_sandbox(const char *program)
{
    if (inside_sandbox())
        return;
    fprintf(stderr, "%s: refusing to run outside keldra-sandbox\n", program);
    exit(1);
}

bool read_file(const std::string &path, std::string *content)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    content->clear();
    char buffer[8192];
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0)
        content->append(buffer, size_t(n));
    close(fd);
    return n == 0;
}

bool write_file(const std::string &path, const std::string &content, mode_t mode)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0)
        return false;
    bool done = write(fd, content.data(), content.size()) == ssize_t(content.size());
    done = fchmod(fd, mode) == 0 && done;
    close(fd);
    return done;
}

std::vector<std::string> split(std::string_view text, char separator)
{
    std::vector<std::string> parts;
    size_t begin = 0;
    while (begin <= text.size()) {
        size_t end = text.find(separator, begin);
        if (end == std::string_view::npos)
            end = text.size();
        parts.emplace_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return parts;
}

std::vector<std::string> split_lines(std::string_view text)
{
    std::vector<std::string> lines = split(text, '\n');
    if (!lines.empty() && lines.back().empty())
        lines.pop_back();
    return lines;
}

std::map<std::string, std::string> parse_fields(std::string_view line)
{
    std::map<std::string, std::string> fields;
    for (const std::string &word : split(line, ' ')) {
        size_t equals = word.find('=');
        if (equals != std::string::npos)
            fields[word.substr(0, equals)] = word.substr(equals + 1);
    }
    return fields;
}

bool parse_long(std::string_view text, long *value)
{
    std::string copy(text);
    if (copy.empty())
        return false;
    char *end = nullptr;
    errno = 0;
    long parsed = strtol(copy.c_str(), &end, 10);
    if (errno != 0 || *end != '\0')
        return false;
    *value = parsed;
    return true;
}

bool parse_u64(std::string_view text, uint64_t *value)
{
    std::string copy(text);
    if (copy.empty() || copy[0] == '-')
        return false;
    char *end = nullptr;
    errno = 0;
    unsigned long long parsed = strtoull(copy.c_str(), &end, 10);
    if (errno != 0 || *end != '\0')
        return false;
    *value = parsed;
    return true;
}

std::string trim(std::string_view text)
{
    size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos)
        return "";
    size_t last = text.find_last_not_of(" \t\r\n");
    return std::string(text.substr(first, last - first + 1));
}

std::string format(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    va_list copy;
    va_copy(copy, ap);
    int n = vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    std::string text(n > 0 ? size_t(n) : 0, '\0');
    if (n > 0)
        vsnprintf(text.data(), size_t(n) + 1, fmt, ap);
    va_end(ap);
    return text;
}

double median(std::vector<double> values)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    size_t middle = values.size() / 2;
    if (values.size() % 2 == 1)
        return values[middle];
    return (values[middle - 1] + values[middle]) / 2;
}

double minimum(const std::vector<double> &values)
{
    return values.empty() ? 0 : *std::min_element(values.begin(), values.end());
}

double maximum(const std::vector<double> &values)
{
    return values.empty() ? 0 : *std::max_element(values.begin(), values.end());
}

static void redirect(int target, const std::string &path, int flags)
{
    if (path.empty())
        return;
    int fd = open(path.c_str(), flags, 0644);
    if (fd < 0)
        _exit(126);
    if (fd != target) {
        dup2(fd, target);
        close(fd);
    }
}

pid_t spawn_program(const std::vector<std::string> &argv, const std::string &stdout_path,
                    const std::string &stderr_path)
{
    std::vector<char *> args;
    for (const std::string &arg : argv)
        args.push_back(const_cast<char *>(arg.c_str()));
    args.push_back(nullptr);
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    redirect(0, "/dev/null", O_RDONLY);
    redirect(1, stdout_path, O_WRONLY | O_CREAT | O_APPEND);
    redirect(2, stderr_path, O_WRONLY | O_CREAT | O_APPEND);
    close_range(3, ~0u, 0);
    execv(args[0], args.data());
    _exit(127);
}

} // namespace bench
