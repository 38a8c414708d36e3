// Captures what the supervisor's log writes to stderr while a piece of code
// runs, and splits it into messages.
#pragma once

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

struct log_message {
    char level;
    std::string file;
    int line;
    std::string text;  // with its own line end, if it has one
};

// Splits raw stderr output into messages. A message starts at
// "[KELDRA][L][file:line] " and runs to the next stamp or message start.
inline std::vector<log_message> parse_log(const std::string &raw)
{
    static const std::regex start(R"(\[KELDRA\]\[([EWID])\]\[([^:\]]+):(\d+)\] )");
    static const std::regex stamp(R"(\[-?\d+\.\d+\](?=\[|$))");
    std::vector<log_message> out;
    auto begin = std::sregex_iterator(raw.begin(), raw.end(), start);
    std::vector<std::smatch> starts(begin, std::sregex_iterator());
    for (size_t i = 0; i < starts.size(); ++i) {
        size_t from = starts[i].position(0) + starts[i].length(0);
        size_t to = i + 1 < starts.size() ? starts[i + 1].position(0) : raw.size();
        std::string text = raw.substr(from, to - from);
        std::smatch m;
        if (std::regex_search(text, m, stamp))
            text = text.substr(0, m.position(0));
        out.push_back({starts[i][1].str()[0], starts[i][2].str(), std::stoi(starts[i][3].str()), text});
    }
    return out;
}

// Runs fn with stderr redirected to a file and returns what was written.
inline std::string capture_stderr(const std::function<void()> &fn)
{
    char path[] = "/tmp/keldra-capture-XXXXXX";
    int fd = mkstemp(path);
    fflush(stderr);
    int saved = dup(2);
    dup2(fd, 2);
    fn();
    fflush(stderr);
    dup2(saved, 2);
    close(saved);
    close(fd);
    std::ifstream in(path);
    std::stringstream all;
    all << in.rdbuf();
    unlink(path);
    return all.str();
}

inline std::vector<log_message> capture_log(const std::function<void()> &fn)
{
    return parse_log(capture_stderr(fn));
}

inline int count_messages(const std::vector<log_message> &log, char level, const std::string &text)
{
    int n = 0;
    for (const auto &m : log)
        n += m.level == level && m.text == text;
    return n;
}

inline std::string dump_log(const std::vector<log_message> &log)
{
    std::string out;
    for (const auto &m : log)
        out += std::string("[") + m.level + "][" + m.file + ":" + std::to_string(m.line) + "] " + m.text +
               (m.text.empty() || m.text.back() != '\n' ? "\n" : "");
    return out;
}
