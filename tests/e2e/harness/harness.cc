// Scenario harness of the end-to-end tests: see harness.h.
#include "harness.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <cctype>
#include <iostream>
#include <sstream>
#include <thread>

extern char **environ;

namespace e2e {

namespace {

using steady = std::chrono::steady_clock;

constexpr size_t diagnostic_message_count = 40;
constexpr size_t diagnostic_raw_tail = 1500;

std::vector<scenario *> &live_scenarios()
{
    static std::vector<scenario *> list;
    return list;
}

// Adds a failure at the caller's line, followed by what the live scenarios
// have logged.
void report_failure(where loc, const std::string &message)
{
    ADD_FAILURE_AT(loc.file_name(), int(loc.line())) << message << live_scenarios_diagnostics();
}

std::string errno_text(int error)
{
    return std::string(strerror(error)) + " (errno " + std::to_string(error) + ")";
}

long long to_ms(milliseconds duration)
{
    return static_cast<long long>(duration.count());
}

// ------------------------------------------------------------------ parsing

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// Length of the digits at pos (an optional leading '-' allowed when signed).
size_t digits_at(std::string_view data, size_t pos, bool allow_sign)
{
    size_t p = pos;
    if (allow_sign && p < data.size() && data[p] == '-')
        ++p;
    size_t first = p;
    while (p < data.size() && is_digit(data[p]))
        ++p;
    return p == first ? 0 : p - pos;
}

// Length of a stamp "[<sec>.<nsec>]" at pos, or 0.
size_t stamp_length(std::string_view data, size_t pos)
{
    if (pos >= data.size() || data[pos] != '[')
        return 0;
    size_t p = pos + 1;
    size_t n = digits_at(data, p, true);
    if (n == 0)
        return 0;
    p += n;
    if (p >= data.size() || data[p] != '.')
        return 0;
    ++p;
    n = digits_at(data, p, true);
    if (n == 0)
        return 0;
    p += n;
    if (p >= data.size() || data[p] != ']')
        return 0;
    return p + 1 - pos;
}

// Length of a record start "[KELDRA][L][file:line] " at pos, or 0; fills the
// record's level, file and line.
size_t record_start_length(std::string_view data, size_t pos, log_record *record)
{
    constexpr std::string_view head = "[KELDRA][";
    if (data.substr(pos, head.size()) != head)
        return 0;
    size_t p = pos + head.size();
    if (p >= data.size() || !std::isupper(static_cast<unsigned char>(data[p])))
        return 0;
    char level = data[p++];
    if (data.substr(p, 2) != "][")
        return 0;
    p += 2;
    size_t file_begin = p;
    while (p < data.size() && data[p] != ':' && data[p] != ']' && data[p] != '[' &&
           data[p] != '\n')
        ++p;
    if (p == file_begin || p >= data.size() || data[p] != ':')
        return 0;
    size_t file_end = p++;
    size_t n = digits_at(data, p, false);
    if (n == 0)
        return 0;
    size_t line_begin = p;
    p += n;
    if (data.substr(p, 2) != "] ")
        return 0;
    if (record) {
        record->level = level;
        record->file = std::string(data.substr(file_begin, file_end - file_begin));
        record->line = std::stoi(std::string(data.substr(line_begin, n)));
    }
    return p + 2 - pos;
}

// Whether a stamp at pos closes the text before it: it must be followed by
// another stamp, a record start or the end of the data.
bool stamp_closes_text(std::string_view data, size_t pos)
{
    size_t n = stamp_length(data, pos);
    if (n == 0)
        return false;
    size_t after = pos + n;
    return after == data.size() || stamp_length(data, after) > 0 ||
           record_start_length(data, after, nullptr) > 0;
}

size_t text_end(std::string_view data, size_t from)
{
    for (size_t p = data.find('[', from); p != std::string_view::npos; p = data.find('[', p + 1)) {
        if (record_start_length(data, p, nullptr) > 0 || stamp_closes_text(data, p))
            return p;
    }
    return data.size();
}

// Parses the records that start at or after `from`, appending them and the
// offsets where they start.
void parse_records_from(std::string_view data, size_t from, std::vector<log_record> *records,
                        std::vector<size_t> *offsets)
{
    size_t pos = data.find('[', from);
    while (pos != std::string_view::npos && pos < data.size()) {
        log_record record;
        size_t head = record_start_length(data, pos, &record);
        if (head == 0) {
            pos = data.find('[', pos + 1);
            continue;
        }
        size_t end = text_end(data, pos + head);
        record.text = std::string(data.substr(pos + head, end - pos - head));
        records->push_back(std::move(record));
        if (offsets)
            offsets->push_back(pos);
        pos = end;
    }
}

std::optional<long> parse_long(std::string_view text)
{
    if (text.empty())
        return std::nullopt;
    std::string copy(text);
    char *end = nullptr;
    errno = 0;
    long value = strtol(copy.c_str(), &end, 10);
    if (errno != 0 || *end != '\0')
        return std::nullopt;
    return value;
}

// Splits "<file>: <function>(<line>) > <message>" into the record.
void split_platform_text(const std::string &text, platform_record *record)
{
    record->text = text;
    size_t colon = text.find(": ");
    if (colon == std::string::npos)
        return;
    size_t paren = text.find('(', colon + 2);
    if (paren == std::string::npos)
        return;
    size_t close = text.find(") > ", paren + 1);
    if (close == std::string::npos)
        return;
    auto line = parse_long(std::string_view(text).substr(paren + 1, close - paren - 1));
    if (!line)
        return;
    record->file = text.substr(0, colon);
    record->function = text.substr(colon + 2, paren - colon - 2);
    record->line = int(*line);
    record->text = text.substr(close + 4);
}

std::optional<platform_record> parse_platform_line(std::string_view line)
{
    size_t tab1 = line.find('\t');
    size_t tab2 = tab1 == std::string_view::npos ? tab1 : line.find('\t', tab1 + 1);
    size_t tab3 = tab2 == std::string_view::npos ? tab2 : line.find('\t', tab2 + 1);
    if (tab3 == std::string_view::npos)
        return std::nullopt;
    auto log_id = parse_long(line.substr(0, tab1));
    auto prio = parse_long(line.substr(tab1 + 1, tab2 - tab1 - 1));
    if (!log_id || !prio)
        return std::nullopt;
    platform_record record;
    record.log_id = int(*log_id);
    record.prio = int(*prio);
    record.tag = std::string(line.substr(tab2 + 1, tab3 - tab2 - 1));
    split_platform_text(unescape_platform_text(line.substr(tab3 + 1)), &record);
    return record;
}

bool texts_similar(std::string_view a, std::string_view b)
{
    auto strip = [](std::string_view s) {
        while (!s.empty() && (s.back() == '\n' || s.back() == ' '))
            s.remove_suffix(1);
        return s;
    };
    return strip(a) == strip(b);
}

// Messages that look like the one looked for: same text at another level, or
// the same text but for trailing blanks and line ends.
std::string similar_messages(const std::vector<log_record> &records, char level,
                             std::string_view text)
{
    std::string out;
    for (size_t i = 0; i < records.size(); ++i) {
        const log_record &r = records[i];
        bool same = r.level == level && r.text == text;
        if (!same && texts_similar(r.text, text))
            out += "  #" + std::to_string(i) + " " + describe(r) + "\n";
    }
    return out.empty() ? "" : "similar messages (level or line end differ):\n" + out;
}

// ------------------------------------------------------------------ files

bool read_into(const std::string &path, std::string *content)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    char buffer[8192];
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0)
        content->append(buffer, size_t(n));
    close(fd);
    return true;
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    size_t begin = 0;
    while (begin < text.size()) {
        size_t end = text.find('\n', begin);
        if (end == std::string::npos)
            break; // a line still being written
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

// Replaces the file through a temporary and a rename, so that a reader sees
// the old or the new content, never a part.
void replace_file(const std::string &path, std::string_view content)
{
    make_directory(simd_dir, 0777);
    std::string temporary = path + ".tmp";
    if (write_file(temporary, content, 0666))
        rename(temporary.c_str(), path.c_str());
}

// ------------------------------------------------------------------ processes

struct child_setup {
    std::vector<std::string> argv;
    std::vector<std::string> env;
    int stdout_fd = -1;
    int stderr_fd = -1;
    spawn_options options;
};

std::vector<char *> c_strings(std::vector<std::string> &strings)
{
    std::vector<char *> pointers;
    for (std::string &s : strings)
        pointers.push_back(s.data());
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<std::string> current_environment()
{
    std::vector<std::string> env;
    for (char **e = environ; e && *e; ++e)
        env.emplace_back(*e);
    return env;
}

void set_environment(std::vector<std::string> *env, const std::string &entry)
{
    std::string name = entry.substr(0, entry.find('='));
    std::erase_if(*env, [&](const std::string &e) { return e.substr(0, e.find('=')) == name; });
    env->push_back(entry);
}

// Closes every descriptor from 3 up except those in keep (sorted).
void close_other_descriptors(std::vector<int> keep)
{
    std::sort(keep.begin(), keep.end());
    unsigned first = 3;
    for (int fd : keep) {
        if (fd < int(first))
            continue;
        if (unsigned(fd) > first)
            close_range(first, unsigned(fd) - 1, 0);
        first = unsigned(fd) + 1;
    }
    close_range(first, ~0u, 0);
}

// In the forked child: hands errno to the parent and ends with status 127.
[[noreturn]] void child_failed(int report_fd)
{
    int error = errno;
    ssize_t w = write(report_fd, &error, sizeof error);
    (void)w;
    _exit(127);
}

// In the forked child: only async-signal-safe calls.
[[noreturn]] void run_child(char *const *argv, char *const *envp, int stdin_fd, int report_fd,
                            const child_setup &setup, const std::vector<int> &keep)
{
    const spawn_options &o = setup.options;
    auto fail = [report_fd]() { child_failed(report_fd); };
    if (dup2(stdin_fd, 0) < 0 || dup2(setup.stdout_fd, 1) < 0 || dup2(setup.stderr_fd, 2) < 0)
        fail();
    close_other_descriptors(keep);
    for (int fd : o.keep_fds)
        fcntl(fd, F_SETFD, 0);
    struct sigaction dfl = {};
    dfl.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; ++sig)
        sigaction(sig, &dfl, nullptr);
    sigset_t mask;
    sigemptyset(&mask);
    for (int sig : o.blocked_signals)
        sigaddset(&mask, sig);
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    if (o.umask)
        umask(*o.umask);
    if (o.new_session && setsid() < 0)
        fail();
    if (!o.cwd.empty() && chdir(o.cwd.c_str()) < 0)
        fail();
    if (o.gid && (setgroups(1, &*o.gid) < 0 || setgid(*o.gid) < 0))
        fail();
    if (o.uid && setuid(*o.uid) < 0)
        fail();
    execve(setup.options.program.empty() ? argv[0] : setup.options.program.c_str(), argv, envp);
    child_failed(report_fd);
}

// Forks and executes; returns the pid, or -1 with *error set.
pid_t launch_child(child_setup setup, std::string *error)
{
    std::vector<char *> argv = c_strings(setup.argv);
    std::vector<char *> envp = c_strings(setup.env);
    int stdin_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    int report[2];
    if (stdin_fd < 0 || pipe2(report, O_CLOEXEC) < 0) {
        *error = "cannot prepare the child: " + errno_text(errno);
        if (stdin_fd >= 0)
            close(stdin_fd);
        return -1;
    }
    std::vector<int> keep = setup.options.keep_fds;
    keep.push_back(report[1]);
    pid_t pid = fork();
    if (pid == 0)
        run_child(argv.data(), envp.data(), stdin_fd, report[1], setup, keep);
    int saved = errno;
    close(report[1]);
    close(stdin_fd);
    if (pid < 0) {
        close(report[0]);
        *error = "fork failed: " + errno_text(saved);
        return -1;
    }
    int child_error = 0;
    ssize_t n;
    do {
        n = read(report[0], &child_error, sizeof child_error);
    } while (n < 0 && errno == EINTR);
    close(report[0]);
    if (n == ssize_t(sizeof child_error)) {
        waitpid(pid, nullptr, 0);
        *error = "cannot execute " +
                 (setup.options.program.empty() ? setup.argv[0] : setup.options.program) + ": " +
                 errno_text(child_error);
        return -1;
    }
    return pid;
}

void sleep_a_little()
{
    std::this_thread::sleep_for(poll_interval);
}

// ------------------------------------------------------------------ records

std::string simd_file(std::string_view name, const char *suffix)
{
    return std::string(simd_dir) + "/" + std::string(name) + suffix;
}

uint64_t parse_u64(const std::map<std::string, std::string> &fields, const char *key, int base)
{
    auto it = fields.find(key);
    if (it == fields.end())
        return 0;
    return strtoull(it->second.c_str(), nullptr, base);
}

long parse_signed(const std::map<std::string, std::string> &fields, const char *key,
                  long fallback)
{
    auto it = fields.find(key);
    if (it == fields.end())
        return fallback;
    return parse_long(it->second).value_or(fallback);
}

std::string field_or_empty(const std::map<std::string, std::string> &fields, const char *key)
{
    auto it = fields.find(key);
    return it == fields.end() ? "" : it->second;
}

std::vector<fd_entry> parse_fd_list(const std::string &list)
{
    std::vector<fd_entry> fds;
    if (list.empty() || list == "-")
        return fds;
    size_t begin = 0;
    while (begin <= list.size()) {
        size_t end = list.find(',', begin);
        if (end == std::string::npos)
            end = list.size();
        std::string item = list.substr(begin, end - begin);
        size_t colon = item.find(':');
        auto fd = colon == std::string::npos
                      ? std::nullopt
                      : parse_long(std::string_view(item).substr(0, colon));
        if (fd)
            fds.push_back({int(*fd), item.substr(colon + 1)});
        else if (!fds.empty())
            fds.back().target += "," + item; // a comma inside a target
        begin = end + 1;
    }
    return fds;
}

std::string daemon_summary(const std::string &name)
{
    std::string out = name + ": starts " + std::to_string(starts(name).size()) + ", deaths " +
                      std::to_string(deaths(name).size());
    auto errors = daemon_errors(name);
    if (!errors.empty()) {
        out += ", errors:";
        for (const end_record &e : errors)
            out += " " + e.step + "/" + std::to_string(e.error);
    }
    out += ", running:";
    for (pid_t pid : daemon_pids(name))
        out += " " + std::to_string(pid);
    return out;
}

// Test-scoped numbering of scenarios: the first of every test gets 1.
int next_scenario_index()
{
    static const ::testing::TestInfo *test = nullptr;
    static int count = 0;
    const ::testing::TestInfo *current = ::testing::UnitTest::GetInstance()->current_test_info();
    if (current != test) {
        test = current;
        count = 0;
    }
    return ++count;
}

std::string scenario_file(const char *stem, int index, const char *extension)
{
    std::string path = std::string(scenario_dir) + "/" + stem;
    if (index > 1)
        path += "-" + std::to_string(index);
    return path + extension;
}

// Ends the program unless it runs inside the sandbox.
void require_sandbox(const char *what)
{
    if (inside_sandbox())
        return;
    fprintf(stderr,
            "e2e harness: refusing to %s outside keldra-sandbox; run this test through "
            "ctest or keldra-sandbox -- <test program>\n",
            what);
    fflush(nullptr);
    _exit(1);
}

} // namespace

// ====================================================================== text

bool inside_sandbox()
{
    static const bool inside = [] {
        const char *flag = getenv("KELDRA_SANDBOX");
        std::string cmdline;
        if (!flag || strcmp(flag, "1") != 0 || !read_into("/proc/1/cmdline", &cmdline))
            return false;
        std::string argv0 = cmdline.c_str();
        size_t slash = argv0.rfind('/');
        return argv0.substr(slash == std::string::npos ? 0 : slash + 1) == "keldra-sandbox";
    }();
    return inside;
}

std::string keldra_binary()
{
    return KELDRA_BUILD_DIR "/keldra";
}

std::string keldra_sanitizer()
{
    return KELDRA_SANITIZE;
}

int number_from_environment(const char *name, int fallback, int min, int max)
{
    const char *text = getenv(name);
    if (text == nullptr || *text == '\0')
        return fallback;
    char *end = nullptr;
    errno = 0;
    long n = strtol(text, &end, 10);
    if (*end != '\0' || errno != 0 || n < min || n > max) {
        fprintf(stderr, "%s must be a number from %d to %d, not %s\n", name, min, max, text);
        exit(2);
    }
    return int(n);
}

int descriptor_count(pid_t pid)
{
    DIR *dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (!dir)
        return -1;
    int count = 0;
    while (dirent *entry = readdir(dir)) {
        if (entry->d_name[0] != '.')
            ++count;
    }
    closedir(dir);
    return count;
}

long status_field(pid_t pid, const char *field)
{
    auto status = read_file("/proc/" + std::to_string(pid) + "/status");
    if (!status)
        return -1;
    std::string key = std::string("\n") + field + ":";
    size_t at = status->find(key);
    if (at == std::string::npos)
        return -1;
    return strtol(status->c_str() + at + key.size(), nullptr, 10);
}

// A signal-set field of a /proc status file, or 0 when it cannot be read.
static unsigned long long signal_set_field(const std::string &status_path, const char *field)
{
    std::istringstream status(read_file(status_path).value_or(""));
    const std::string key = std::string(field) + ":";
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(key, 0) == 0)
            return strtoull(line.c_str() + key.size(), nullptr, 16);
    }
    return 0;
}

// The /proc directories of the process's threads, empty once it has gone.
static std::vector<std::string> thread_dirs(pid_t pid)
{
    const std::string task_dir = "/proc/" + std::to_string(pid) + "/task";
    std::vector<std::string> dirs;
    DIR *dir = opendir(task_dir.c_str());
    if (!dir)
        return dirs;
    while (dirent *entry = readdir(dir)) {
        if (entry->d_name[0] != '.')
            dirs.push_back(task_dir + "/" + entry->d_name);
    }
    closedir(dir);
    return dirs;
}

bool sigchld_pending(pid_t pid)
{
    const unsigned long long sigchld = 1ull << (SIGCHLD - 1);
    if (signal_set_field("/proc/" + std::to_string(pid) + "/status", "ShdPnd") & sigchld)
        return true;
    for (const std::string &thread : thread_dirs(pid)) {
        if (signal_set_field(thread + "/status", "SigPnd") & sigchld)
            return true;
    }
    return false;
}

std::string format_text(const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    va_list copy;
    va_copy(copy, ap);
    int n = vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text(n > 0 ? size_t(n) : 0, '\0');
    if (n > 0)
        vsnprintf(text.data(), text.size() + 1, format, ap);
    va_end(ap);
    return text;
}

std::vector<log_record> parse_keldra_stderr(std::string_view data)
{
    std::vector<log_record> records;
    parse_records_from(data, 0, &records, nullptr);
    return records;
}

std::string unescape_platform_text(std::string_view escaped)
{
    std::string text;
    for (size_t i = 0; i < escaped.size(); ++i) {
        char c = escaped[i];
        if (c == '\\' && i + 1 < escaped.size()) {
            char next = escaped[++i];
            text += next == 'n' ? '\n' : next == 't' ? '\t' : next;
        } else {
            text += c;
        }
    }
    return text;
}

std::vector<platform_record> parse_platform_log(std::string_view data)
{
    std::vector<platform_record> records;
    for (const std::string &line : lines_of(std::string(data))) {
        if (auto record = parse_platform_line(line))
            records.push_back(std::move(*record));
    }
    return records;
}

int level_priority(char level)
{
    switch (level) {
    case 'E': return 6;
    case 'W': return 5;
    case 'I': return 4;
    case 'D': return 3;
    default: return -1;
    }
}

std::string visible(std::string_view text)
{
    std::string out;
    for (char c : text) {
        if (c == '\n')
            out += "\\n";
        else if (c == '\t')
            out += "\\t";
        else if (static_cast<unsigned char>(c) < 0x20) {
            char hex[8];
            snprintf(hex, sizeof hex, "\\x%02x", unsigned(static_cast<unsigned char>(c)));
            out += hex;
        } else
            out += c;
    }
    return out;
}

std::string describe(const log_record &record)
{
    return std::string("[") + record.level + "][" + record.file + ":" +
           std::to_string(record.line) + "] " + visible(record.text);
}

std::string describe(const platform_record &record)
{
    return std::to_string(record.log_id) + " prio " + std::to_string(record.prio) + " " +
           record.tag + " " + record.file + ": " + record.function + "(" +
           std::to_string(record.line) + ") > " + visible(record.text);
}

int find_message(const std::vector<log_record> &records, char level, std::string_view text,
                 int nth, int from)
{
    int seen = 0;
    for (size_t i = size_t(std::max(from, 0)); i < records.size(); ++i) {
        if (records[i].level == level && records[i].text == text && ++seen == nth)
            return int(i);
    }
    return -1;
}

int count_messages(const std::vector<log_record> &records, char level, std::string_view text)
{
    return int(std::count_if(records.begin(), records.end(), [&](const log_record &r) {
        return r.level == level && r.text == text;
    }));
}

std::vector<log_record> records_from_file(const std::vector<log_record> &records,
                                          std::string_view file)
{
    std::vector<log_record> own;
    std::copy_if(records.begin(), records.end(), std::back_inserter(own),
                 [&](const log_record &r) { return r.file == file; });
    return own;
}

int find_platform_message(const std::vector<platform_record> &records, int prio,
                          std::string_view text, int nth, int from)
{
    int seen = 0;
    for (size_t i = size_t(std::max(from, 0)); i < records.size(); ++i) {
        if (records[i].prio == prio && records[i].text == text && ++seen == nth)
            return int(i);
    }
    return -1;
}

int count_platform_messages(const std::vector<platform_record> &records, int prio,
                            std::string_view text)
{
    return int(std::count_if(records.begin(), records.end(), [&](const platform_record &r) {
        return r.prio == prio && r.text == text;
    }));
}

int first_missing_in_order(const std::vector<log_record> &records,
                           const std::vector<expected_message> &expected, std::vector<int> *found)
{
    int from = 0;
    for (size_t i = 0; i < expected.size(); ++i) {
        int at = find_message(records, expected[i].level, expected[i].text, 1, from);
        if (at < 0)
            return int(i);
        if (found)
            found->push_back(at);
        from = at + 1;
    }
    return -1;
}

// ====================================================================== waits

bool wait_until(const std::function<bool()> &condition, milliseconds timeout,
                std::string_view what, where loc)
{
    const auto deadline = steady::now() + timeout;
    for (;;) {
        if (condition())
            return true;
        if (steady::now() >= deadline)
            break;
        sleep_a_little();
    }
    report_failure(loc, "timed out after " + std::to_string(to_ms(timeout)) +
                            " ms waiting for " + std::string(what) + "\n");
    return false;
}

bool wait_for_file(const std::string &path, milliseconds timeout, where loc)
{
    return wait_until([&] { return exists(path); }, timeout, "file " + path + " to exist", loc);
}

bool wait_for_absent(const std::string &path, milliseconds timeout, where loc)
{
    return wait_until([&] { return !exists(path); }, timeout, "file " + path + " to be absent",
                      loc);
}

bool stays_true(const std::function<bool()> &condition, milliseconds duration,
                std::string_view what, where loc)
{
    const auto deadline = steady::now() + duration;
    for (;;) {
        if (!condition()) {
            report_failure(loc, "no longer true within " + std::to_string(to_ms(duration)) +
                                    " ms: " + std::string(what) + "\n");
            return false;
        }
        if (steady::now() >= deadline)
            return true;
        sleep_a_little();
    }
}

// ====================================================================== processes

exit_status exit_status::from_wait_status(int status)
{
    if (WIFEXITED(status))
        return with_code(WEXITSTATUS(status));
    return by_signal(WIFSIGNALED(status) ? WTERMSIG(status) : 0);
}

std::string describe(const exit_status &status)
{
    if (status.exited)
        return "exited with code " + std::to_string(status.code);
    return "killed by signal " + std::to_string(status.signal) + " (" +
           strsignal(status.signal) + ")";
}

void PrintTo(const exit_status &status, std::ostream *out)
{
    *out << describe(status);
}

pid_t spawn(const std::vector<std::string> &argv, const spawn_options &options, where loc)
{
    require_sandbox("start a program");
    if (argv.empty()) {
        report_failure(loc, "spawn: empty argv\n");
        return -1;
    }
    child_setup setup;
    setup.argv = argv;
    setup.env = current_environment();
    setup.options = options;
    setup.stdout_fd = open(options.stdout_path.c_str(),
                           O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    setup.stderr_fd = open(options.stderr_path.c_str(),
                           O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    std::string error;
    pid_t pid = -1;
    if (setup.stdout_fd < 0 || setup.stderr_fd < 0)
        error = "cannot open the output files: " + errno_text(errno);
    else
        pid = launch_child(setup, &error);
    if (setup.stdout_fd >= 0)
        close(setup.stdout_fd);
    if (setup.stderr_fd >= 0)
        close(setup.stderr_fd);
    if (pid < 0)
        report_failure(loc, "spawn: " + error + "\n");
    return pid;
}

std::optional<exit_status> poll_child(pid_t pid)
{
    int status = 0;
    if (pid > 0 && waitpid(pid, &status, WNOHANG) == pid)
        return exit_status::from_wait_status(status);
    return std::nullopt;
}

std::optional<exit_status> wait_child(pid_t pid, milliseconds timeout, where loc)
{
    std::optional<exit_status> status;
    wait_until([&] { return (status = poll_child(pid)).has_value(); }, timeout,
               "child " + std::to_string(pid) + " to end", loc);
    return status;
}

bool process_alive(pid_t pid)
{
    std::string stat;
    if (pid <= 0 || !read_into("/proc/" + std::to_string(pid) + "/stat", &stat))
        return false;
    size_t close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z' &&
           stat[close + 2] != 'X';
}

std::vector<pid_t> pids_with_argv0(std::string_view path)
{
    std::vector<pid_t> pids;
    DIR *proc = opendir("/proc");
    if (!proc)
        return pids;
    while (dirent *entry = readdir(proc)) {
        auto pid = parse_long(entry->d_name);
        if (!pid)
            continue;
        std::string cmdline;
        if (!read_into("/proc/" + std::string(entry->d_name) + "/cmdline", &cmdline))
            continue;
        if (std::string_view(cmdline.c_str()) == path && !cmdline.empty())
            pids.push_back(pid_t(*pid));
    }
    closedir(proc);
    return pids;
}

// ====================================================================== scenario

namespace {

// Sanitizer builds (tools/sanitize.sh): AddressSanitizer and ThreadSanitizer
// write their reports to files that the CI script checks, but
// UndefinedBehaviorSanitizer writes to stderr whatever its log_path says. A
// report there, from the supervisor or a daemon it launched (they share its
// stderr), fails the test even when the test never looks at how the
// supervisor ended.
void expect_no_sanitizer_report(const std::string &text, const std::string &path)
{
    for (const char *marker : {"runtime error: ", "==ERROR: ", "WARNING: ThreadSanitizer"}) {
        size_t at = text.find(marker);
        if (at == std::string::npos)
            continue;
        size_t from = text.rfind('\n', at);
        from = from == std::string::npos ? 0 : from + 1;
        ADD_FAILURE() << "sanitizer report in " << path << ":\n" << text.substr(from, 4096);
        return;
    }
}

} // namespace

scenario::scenario(scenario_options options) : options_(std::move(options))
{
    index_ = next_scenario_index();
    stderr_path_ = scenario_file("stderr", index_, "");
    stdout_path_ = scenario_file("stdout", index_, "");
    vesk_log_path_ = scenario_file("vesk", index_, ".log");
    live_scenarios().push_back(this);
}

scenario::~scenario()
{
    if (pid_ > 0 && !status_) {
        kill(pid_, SIGKILL);
        int status = 0;
        if (waitpid(pid_, &status, 0) == pid_)
            status_ = exit_status::from_wait_status(status);
    }
    if (stdout_pipe_ >= 0)
        close(stdout_pipe_);
    std::erase(live_scenarios(), this);
    if (pid_ > 0)
        expect_no_sanitizer_report(stderr_text(), stderr_path_);
    if (::testing::Test::HasFailure())
        std::cout << "\nScenario at the end of the failed test:\n" << diagnostics() << std::flush;
}

bool scenario::start(where loc)
{
    require_sandbox("start the supervisor");
    if (pid_ > 0) {
        report_failure(loc, "scenario already started\n");
        return false;
    }
    make_directory(scenario_dir, 0777);
    unlink(vesk_log_path_.c_str());
    stderr_cache_ = stderr_cache{};
    child_setup setup;
    setup.argv.push_back(options_.program);
    setup.argv.insert(setup.argv.end(), options_.args.begin(), options_.args.end());
    setup.env = current_environment();
    set_environment(&setup.env, "VESK_LOG_FILE=" + vesk_log_path_);
    for (const std::string &entry : options_.extra_env)
        set_environment(&setup.env, entry);
    setup.stderr_fd = open(stderr_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    int pipe_fds[2] = {-1, -1};
    switch (options_.out) {
    case stdout_mode::dev_null:
        setup.stdout_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
        break;
    case stdout_mode::regular_file:
        setup.stdout_fd = open(stdout_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
                               0644);
        break;
    case stdout_mode::pipe:
        if (pipe2(pipe_fds, O_CLOEXEC) == 0) {
            setup.stdout_fd = pipe_fds[1];
            stdout_pipe_ = pipe_fds[0];
            fcntl(stdout_pipe_, F_SETFL, O_NONBLOCK);
        }
        break;
    }
    std::string error;
    if (setup.stderr_fd < 0 || setup.stdout_fd < 0)
        error = "cannot open the output files in " + std::string(scenario_dir) + ": " +
                errno_text(errno);
    else
        pid_ = launch_child(setup, &error);
    if (setup.stderr_fd >= 0)
        close(setup.stderr_fd);
    if (setup.stdout_fd >= 0)
        close(setup.stdout_fd);
    if (pid_ < 0) {
        report_failure(loc, "cannot start " + options_.program + ": " + error + "\n");
        return false;
    }
    return true;
}

void scenario::reap_if_ended()
{
    if (pid_ > 0 && !status_)
        status_ = poll_child(pid_);
}

bool scenario::is_running()
{
    reap_if_ended();
    return pid_ > 0 && !status_;
}

bool scenario::send_signal(int sig, where loc)
{
    if (!is_running()) {
        report_failure(loc, "cannot send signal " + std::to_string(sig) +
                                ": the supervisor is not running\n");
        return false;
    }
    if (kill(pid_, sig) < 0) {
        report_failure(loc, "kill(" + std::to_string(pid_) + ", " + std::to_string(sig) +
                                ") failed: " + errno_text(errno) + "\n");
        return false;
    }
    if (sig == SIGTERM) {
        sigterm_reports_before_ = count_messages('W', sigterm_report);
        sigterm_sent_at_ = std::chrono::steady_clock::now();
    }
    return true;
}

// The ThreadSanitizer runtime of gcc 12 loses a signal now and then: in about
// one stop in a thousand, with the test machine loaded, keldra never reports
// the SIGTERM although the kernel has delivered it (no thread has it pending,
// no thread has it queued in the runtime, every thread waits, the relay pipe
// is intact). It has only been seen while a launcher thread was still starting
// its daemon. Plain, address-sanitized and memcheck runs have never lost one.
// Under that runtime only, a SIGTERM still unreported after 10 s is sent once
// more, and the test log says so.
void scenario::resend_sigterm_lost_by_thread_sanitizer()
{
    if (keldra_sanitizer() != "thread" || sigterm_reports_before_ < 0 ||
        std::chrono::steady_clock::now() - sigterm_sent_at_ < 10s)
        return;
    int before = sigterm_reports_before_;
    sigterm_reports_before_ = -1;
    if (count_messages('W', sigterm_report) > before)
        return;
    std::cerr << "note: keldra (pid " << pid_
              << ") has not reported the SIGTERM sent 10 s ago; sending it again\n";
    kill(pid_, SIGTERM);
}

std::optional<exit_status> scenario::wait_exit(milliseconds timeout, where loc)
{
    if (pid_ <= 0) {
        report_failure(loc, "wait_exit: the supervisor was never started\n");
        return std::nullopt;
    }
    wait_until(
        [&] {
            if (!is_running())
                return true;
            resend_sigterm_lost_by_thread_sanitizer();
            return false;
        },
        timeout, "the supervisor (pid " + std::to_string(pid_) + ") to exit", loc);
    return status_;
}

// Reads what was appended to the stderr file since the last call and parses
// it. Every record but the last is final (the next record start ends it), so
// only the last one is parsed again with the new data.
void scenario::refresh_stderr() const
{
    stderr_cache &cache = stderr_cache_;
    struct stat st;
    if (stat(stderr_path_.c_str(), &st) < 0 || size_t(st.st_size) < cache.raw.size())
        cache = stderr_cache{};
    if (stat(stderr_path_.c_str(), &st) < 0 || size_t(st.st_size) == cache.raw.size())
        return;
    int fd = open(stderr_path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    size_t old_size = cache.raw.size();
    char buffer[65536];
    ssize_t n;
    while ((n = pread(fd, buffer, sizeof buffer, off_t(cache.raw.size()))) > 0)
        cache.raw.append(buffer, size_t(n));
    close(fd);
    if (cache.raw.size() == old_size)
        return;
    size_t from = 0;
    if (!cache.offsets.empty()) {
        from = cache.offsets.back();
        cache.offsets.pop_back();
        cache.records.pop_back();
    }
    parse_records_from(cache.raw, from, &cache.records, &cache.offsets);
}

std::string scenario::stderr_text() const
{
    refresh_stderr();
    return stderr_cache_.raw;
}

std::string scenario::stdout_text()
{
    if (options_.out == stdout_mode::regular_file) {
        std::string text;
        read_into(stdout_path_, &text);
        return text;
    }
    if (stdout_pipe_ >= 0) {
        char buffer[4096];
        ssize_t n;
        while ((n = read(stdout_pipe_, buffer, sizeof buffer)) > 0)
            stdout_buffer_.append(buffer, size_t(n));
    }
    return stdout_buffer_;
}

std::vector<log_record> scenario::messages() const
{
    refresh_stderr();
    return stderr_cache_.records;
}

std::vector<platform_record> scenario::platform_messages() const
{
    std::string text;
    read_into(vesk_log_path_, &text);
    return parse_platform_log(text);
}

int scenario::count_messages(char level, std::string_view text) const
{
    return e2e::count_messages(messages(), level, text);
}

int scenario::find_message(char level, std::string_view text, int nth, int from) const
{
    return e2e::find_message(messages(), level, text, nth, from);
}

int scenario::wait_for_message(char level, std::string_view text, milliseconds timeout, int nth,
                               where loc)
{
    int index = -1;
    std::vector<log_record> records;
    const auto deadline = steady::now() + timeout;
    for (;;) {
        records = messages();
        index = e2e::find_message(records, level, text, nth);
        if (index >= 0 || steady::now() >= deadline)
            break;
        sleep_a_little();
    }
    if (index < 0) {
        report_failure(loc, std::string("no message [") + level + "] \"" + visible(text) +
                                "\" (occurrence " + std::to_string(nth) + ") within " +
                                std::to_string(to_ms(timeout)) + " ms; seen " +
                                std::to_string(e2e::count_messages(records, level, text)) +
                                " such\n" + similar_messages(records, level, text));
    }
    return index;
}

int scenario::wait_for_message_after(int after, char level, std::string_view text,
                                     milliseconds timeout, where loc)
{
    int index = -1;
    std::vector<log_record> records;
    const auto deadline = steady::now() + timeout;
    for (;;) {
        records = messages();
        index = e2e::find_message(records, level, text, 1, after + 1);
        if (index >= 0 || steady::now() >= deadline)
            break;
        sleep_a_little();
    }
    if (index < 0) {
        report_failure(loc, std::string("no message [") + level + "] \"" + visible(text) +
                                "\" after message #" + std::to_string(after) + " within " +
                                std::to_string(to_ms(timeout)) + " ms\n" +
                                similar_messages(records, level, text));
    }
    return index;
}

int scenario::count_platform_messages(int prio, std::string_view text) const
{
    return e2e::count_platform_messages(platform_messages(), prio, text);
}

int scenario::wait_for_platform_message(int prio, std::string_view text, milliseconds timeout,
                                        int nth, where loc)
{
    int index = -1;
    std::vector<platform_record> records;
    const auto deadline = steady::now() + timeout;
    for (;;) {
        records = platform_messages();
        index = e2e::find_platform_message(records, prio, text, nth);
        if (index >= 0 || steady::now() >= deadline)
            break;
        sleep_a_little();
    }
    if (index < 0) {
        std::string tail;
        size_t first = records.size() > diagnostic_message_count
                           ? records.size() - diagnostic_message_count
                           : 0;
        for (size_t i = first; i < records.size(); ++i)
            tail += "  #" + std::to_string(i) + " " + describe(records[i]) + "\n";
        report_failure(loc, "no platform log record with priority " + std::to_string(prio) +
                                " and text \"" + visible(text) + "\" (occurrence " +
                                std::to_string(nth) + ") within " +
                                std::to_string(to_ms(timeout)) + " ms in " + vesk_log_path_ +
                                "; last records:\n" + tail);
    }
    return index;
}

bool scenario::expect_in_order(const std::vector<expected_message> &expected, where loc) const
{
    std::vector<log_record> records = messages();
    std::vector<int> found;
    int missing = first_missing_in_order(records, expected, &found);
    if (missing < 0)
        return true;
    std::string message = "messages not in the expected order; found:\n";
    for (size_t i = 0; i < found.size(); ++i)
        message += "  #" + std::to_string(found[i]) + " " + describe(records[size_t(found[i])]) +
                   "\n";
    const expected_message &m = expected[size_t(missing)];
    message += std::string("missing after them: [") + m.level + "] \"" + visible(m.text) +
               "\" (present " + std::to_string(e2e::count_messages(records, m.level, m.text)) +
               " times in all)\n";
    report_failure(loc, message);
    return false;
}

bool wait_for_no_pending_sigchld(pid_t pid, milliseconds timeout, where loc)
{
    return wait_until([&] { return !sigchld_pending(pid); }, timeout,
                      "no SIGCHLD pending for process " + std::to_string(pid), loc);
}

// One line per thread of a process that should have ended: where each one
// waits (state, kernel wait channel, system call) and its signal sets, so a
// hang shows which thread holds a signal and which never took it.
static std::string thread_states(pid_t pid)
{
    std::vector<std::string> threads = thread_dirs(pid);
    if (threads.empty())
        return "";
    std::string out = "threads:\n";
    for (const std::string &base : threads) {
        std::string line = "  " + base.substr(base.rfind('/') + 1);
        std::istringstream status(read_file(base + "/status").value_or(""));
        for (std::string field; std::getline(status, field);) {
            for (const char *key : {"Name:", "State:", "SigPnd:", "ShdPnd:", "SigBlk:"}) {
                if (field.rfind(key, 0) == 0)
                    line += " " + field;
            }
        }
        line += " wchan: " + read_file(base + "/wchan").value_or("?");
        std::string syscall = read_file(base + "/syscall").value_or("?");
        line += " syscall: " + syscall.substr(0, syscall.find(' '));
        std::replace(line.begin(), line.end(), '\t', ' ');
        out += line + "\n";
    }
    return out;
}

std::string scenario::diagnostics() const
{
    std::ostringstream out;
    out << "--- scenario " << index_ << ": " << options_.program << " ";
    if (pid_ <= 0)
        out << "(not started)";
    else if (status_)
        out << "(pid " << pid_ << ", " << describe(*status_) << ")";
    else
        out << "(pid " << pid_ << ", running)";
    std::string raw = stderr_text();
    std::vector<log_record> records = messages();
    out << "\n" << stderr_path_ << ": " << raw.size() << " bytes, " << records.size()
        << " messages";
    size_t first = records.size() > diagnostic_message_count
                       ? records.size() - diagnostic_message_count
                       : 0;
    out << (first > 0 ? "; the last " + std::to_string(diagnostic_message_count) + ":\n"
                      : ":\n");
    for (size_t i = first; i < records.size(); ++i)
        out << "  #" << i << " " << describe(records[i]) << "\n";
    size_t tail_begin = raw.size() > diagnostic_raw_tail ? raw.size() - diagnostic_raw_tail : 0;
    out << "raw tail of stderr:\n" << raw.substr(tail_begin) << (raw.empty() || raw.back() == '\n' ? "" : "\n");
    out << "simulated daemons:\n";
    for (const std::string &name : daemon_names)
        out << "  " << daemon_summary(name) << "\n";
    if (pid_ > 0 && !status_)
        out << thread_states(pid_);
    return out.str();
}

std::string live_scenarios_diagnostics()
{
    std::string out;
    for (const scenario *s : live_scenarios())
        out += s->diagnostics();
    return out;
}

// ====================================================================== daemons

std::string daemon_path(std::string_view name, where loc)
{
    if (name == "pellan")
        return "/usr/bin/pellan";
    if (name == "orvel")
        return "/usr/bin/orvel";
    if (name == "dunmar")
        return "/usr/apps/privileged-service/bin/dunmar";
    if (name == "tavish")
        return "/usr/bin/tavish";
    report_failure(loc, "no simulated daemon named \"" + std::string(name) + "\"\n");
    return "";
}

void write_settings(std::string_view name, std::string_view text)
{
    replace_file(simd_file(name, ".conf"), text);
}

void write_next_settings(std::string_view name, std::string_view text)
{
    replace_file(simd_file(name, ".next"), text);
}

void remove_settings(std::string_view name)
{
    require_sandbox("remove settings");
    unlink(simd_file(name, ".conf").c_str());
    unlink(simd_file(name, ".next").c_str());
}

bool start_record::signal_blocked(int sig) const
{
    return sig > 0 && sig <= 64 && (sigblk >> (sig - 1)) & 1u;
}

bool start_record::signal_ignored(int sig) const
{
    return sig > 0 && sig <= 64 && (sigign >> (sig - 1)) & 1u;
}

std::optional<std::string> start_record::fd_target(int fd) const
{
    for (const fd_entry &entry : fds) {
        if (entry.fd == fd)
            return entry.target;
    }
    return std::nullopt;
}

std::map<std::string, std::string> parse_fields(std::string_view line)
{
    std::map<std::string, std::string> fields;
    std::string last_key;
    size_t begin = 0;
    while (begin < line.size()) {
        size_t end = line.find(' ', begin);
        if (end == std::string_view::npos)
            end = line.size();
        std::string_view token = line.substr(begin, end - begin);
        size_t equals = token.find('=');
        if (equals != std::string_view::npos && equals > 0) {
            last_key = std::string(token.substr(0, equals));
            fields[last_key] = std::string(token.substr(equals + 1));
        } else if (!last_key.empty()) {
            fields[last_key] += " " + std::string(token); // a blank inside a value
        }
        begin = end + 1;
    }
    return fields;
}

std::vector<std::map<std::string, std::string>> read_field_records(const std::string &path)
{
    std::vector<std::map<std::string, std::string>> records;
    std::string text;
    read_into(path, &text);
    for (const std::string &line : lines_of(text))
        records.push_back(parse_fields(line));
    return records;
}

start_record parse_start_record(std::string_view line)
{
    start_record r;
    r.fields = parse_fields(line);
    const auto &f = r.fields;
    r.pid = pid_t(parse_signed(f, "pid", -1));
    r.ppid = pid_t(parse_signed(f, "ppid", -1));
    r.sid = pid_t(parse_signed(f, "sid", -1));
    r.pgid = pid_t(parse_signed(f, "pgid", -1));
    r.uid = uid_t(parse_signed(f, "uid", -1));
    r.gid = gid_t(parse_signed(f, "gid", -1));
    r.euid = uid_t(parse_signed(f, "euid", -1));
    r.egid = gid_t(parse_signed(f, "egid", -1));
    r.umask = unsigned(parse_u64(f, "umask", 8));
    r.argc = int(parse_signed(f, "argc", -1));
    r.argv0 = field_or_empty(f, "argv0");
    r.sigblk = parse_u64(f, "sigblk", 16);
    r.sigign = parse_u64(f, "sigign", 16);
    r.fds = parse_fd_list(field_or_empty(f, "fds"));
    r.cwd = field_or_empty(f, "cwd");
    r.mono_ns = parse_u64(f, "mono_ns", 10);
    r.settings = field_or_empty(f, "settings");
    return r;
}

end_record parse_end_record(std::string_view line)
{
    end_record r;
    r.fields = parse_fields(line);
    const auto &f = r.fields;
    r.pid = pid_t(parse_signed(f, "pid", -1));
    r.event = field_or_empty(f, "event");
    r.code = int(parse_signed(f, "code", 0));
    r.signal = int(parse_signed(f, "signo", 0));
    r.step = field_or_empty(f, "step");
    r.error = int(parse_signed(f, "errno", 0));
    r.mono_ns = parse_u64(f, "mono_ns", 10);
    return r;
}

std::vector<start_record> starts(std::string_view name)
{
    std::vector<start_record> records;
    std::string text;
    read_into(simd_file(name, ".starts"), &text);
    for (const std::string &line : lines_of(text))
        records.push_back(parse_start_record(line));
    return records;
}

std::vector<end_record> ends(std::string_view name)
{
    std::vector<end_record> records;
    std::string text;
    read_into(simd_file(name, ".ends"), &text);
    for (const std::string &line : lines_of(text))
        records.push_back(parse_end_record(line));
    return records;
}

std::vector<end_record> deaths(std::string_view name)
{
    std::vector<end_record> records = ends(name);
    std::erase_if(records, [](const end_record &r) { return r.event == "error"; });
    return records;
}

std::vector<end_record> daemon_errors(std::string_view name)
{
    std::vector<end_record> records = ends(name);
    std::erase_if(records, [](const end_record &r) { return r.event != "error"; });
    return records;
}

std::vector<step_record> steps(std::string_view name)
{
    std::vector<step_record> records;
    for (auto &fields : read_field_records(simd_file(name, ".steps"))) {
        step_record r;
        r.pid = pid_t(parse_signed(fields, "pid", -1));
        r.step = field_or_empty(fields, "step");
        r.mono_ns = parse_u64(fields, "mono_ns", 10);
        r.fields = std::move(fields);
        records.push_back(std::move(r));
    }
    return records;
}

std::vector<start_record> wait_for_starts(std::string_view name, size_t n, milliseconds timeout,
                                          where loc)
{
    std::vector<start_record> records;
    wait_until([&] { return (records = starts(name)).size() >= n; }, timeout,
               std::to_string(n) + " start(s) of " + std::string(name) + " (" +
                   simd_file(name, ".starts") + ")",
               loc);
    return records;
}

std::vector<end_record> wait_for_deaths(std::string_view name, size_t n, milliseconds timeout,
                                        where loc)
{
    std::vector<end_record> records;
    wait_until([&] { return (records = deaths(name)).size() >= n; }, timeout,
               std::to_string(n) + " recorded end(s) of " + std::string(name) + " (" +
                   simd_file(name, ".ends") + ")",
               loc);
    return records;
}

std::vector<step_record> wait_for_steps(std::string_view name, std::string_view step, size_t n,
                                        milliseconds timeout, where loc)
{
    std::vector<step_record> records;
    auto matching = [&] {
        records = steps(name);
        std::erase_if(records, [&](const step_record &r) { return r.step != step; });
        return records.size() >= n;
    };
    wait_until(matching, timeout,
               std::to_string(n) + " step(s) \"" + std::string(step) + "\" of " +
                   std::string(name) + " (" + simd_file(name, ".steps") + ")",
               loc);
    return records;
}

std::vector<pid_t> daemon_pids(std::string_view name)
{
    std::string path = daemon_path(name);
    return path.empty() ? std::vector<pid_t>{} : pids_with_argv0(path);
}

pid_t wait_for_daemon(std::string_view name, milliseconds timeout, where loc)
{
    std::vector<pid_t> pids;
    bool one = wait_until([&] { return (pids = daemon_pids(name)).size() == 1; }, timeout,
                          "exactly one running " + std::string(name), loc);
    return one ? pids[0] : -1;
}

bool wait_for_no_daemon(std::string_view name, milliseconds timeout, where loc)
{
    return wait_until([&] { return daemon_pids(name).empty(); }, timeout,
                      "no running " + std::string(name), loc);
}

int kill_daemon(std::string_view name, int sig)
{
    int count = 0;
    for (pid_t pid : daemon_pids(name)) {
        if (kill(pid, sig) == 0)
            ++count;
    }
    return count;
}

pid_t spawn_daemon(std::string_view name, const spawn_options &options, where loc)
{
    std::string path = daemon_path(name, loc);
    return path.empty() ? -1 : spawn({path}, options, loc);
}

std::vector<std::map<std::string, std::string>> init_script_runs()
{
    return read_field_records(init_script_runs_path);
}

std::vector<std::map<std::string, std::string>> restore_runs()
{
    return read_field_records(restore_runs_path);
}

std::vector<std::map<std::string, std::string>> admin_records()
{
    return read_field_records(admin_record_path);
}

// ====================================================================== labels

std::vector<label_record> label_records()
{
    std::vector<label_record> records;
    std::string text;
    read_into(smack_labels_path, &text);
    for (const std::string &line : lines_of(text)) {
        size_t blank = line.find(' ');
        if (blank == std::string::npos)
            continue;
        auto fields = parse_fields(std::string_view(line).substr(blank + 1));
        label_record r;
        r.kind = line.substr(0, blank);
        r.pid = pid_t(parse_signed(fields, "pid", -1));
        r.tid = pid_t(parse_signed(fields, "tid", -1));
        r.ppid = pid_t(parse_signed(fields, "ppid", -1));
        r.label = field_or_empty(fields, "label");
        records.push_back(std::move(r));
    }
    return records;
}

std::optional<std::string> fork_label(pid_t pid)
{
    std::optional<std::string> label;
    for (const label_record &r : label_records()) {
        if (r.kind == "fork" && r.pid == pid)
            label = r.label;
    }
    return label;
}

void refuse_labels(const std::vector<std::string> &labels)
{
    std::string text;
    for (const std::string &label : labels)
        text += label + "\n";
    write_file(smack_refuse_path, text, 0666);
}

// ====================================================================== files

bool exists(const std::string &path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

bool is_socket(const std::string &path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

bool is_directory(const std::string &path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::optional<std::string> read_file(const std::string &path)
{
    std::string text;
    if (!read_into(path, &text))
        return std::nullopt;
    return text;
}

bool write_file(const std::string &path, std::string_view content, mode_t mode)
{
    require_sandbox("write a file");
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0)
        return false;
    bool ok = fchmod(fd, mode) == 0;
    size_t done = 0;
    while (ok && done < content.size()) {
        ssize_t n = write(fd, content.data() + done, content.size() - done);
        ok = n > 0;
        done += ok ? size_t(n) : 0;
    }
    return close(fd) == 0 && ok;
}

bool remove_file(const std::string &path)
{
    require_sandbox("remove a file");
    return unlink(path.c_str()) == 0;
}

bool make_directory(const std::string &path, mode_t mode)
{
    require_sandbox("create a directory");
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1))
        mkdir(path.substr(0, slash).c_str(), 0755);
    if (mkdir(path.c_str(), mode) < 0 && errno != EEXIST)
        return false;
    return is_directory(path) && chmod(path.c_str(), mode) == 0;
}

std::optional<mode_t> file_mode(const std::string &path)
{
    struct stat st;
    if (lstat(path.c_str(), &st) < 0)
        return std::nullopt;
    return st.st_mode & 07777;
}

std::optional<file_owner> owner_of(const std::string &path)
{
    struct stat st;
    if (lstat(path.c_str(), &st) < 0)
        return std::nullopt;
    return file_owner{st.st_uid, st.st_gid};
}

void PrintTo(const file_owner &owner, std::ostream *out)
{
    *out << owner.uid << ":" << owner.gid;
}

void expect_platform_record(const scenario &keldra, char level, const std::string &text,
                            const std::string &file, const std::string &function, int nth,
                            where loc)
{
    SCOPED_TRACE(::testing::Message() << "platform record of [" << level << "] \""
                                      << visible(text) << "\", checked at line " << loc.line());
    auto records = keldra.platform_messages();
    int at = find_platform_message(records, level_priority(level), text, nth);
    ASSERT_GE(at, 0);
    const platform_record &record = records[size_t(at)];
    EXPECT_EQ(record.log_id, 0);
    EXPECT_EQ(record.tag, "KELDRA");
    EXPECT_EQ(record.file, file);
    EXPECT_EQ(record.function, function);
    EXPECT_GT(record.line, 0);
    int line = keldra.find_message(level, text, nth);
    ASSERT_GE(line, 0);
    EXPECT_EQ(keldra.messages()[size_t(line)].file, record.file);
    EXPECT_EQ(keldra.messages()[size_t(line)].line, record.line);
}

} // namespace e2e
