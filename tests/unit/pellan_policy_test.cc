// Unit tests of the admin-user policy push of the pellan launcher: reading the
// two timestamp files and the policy file, and what the push does with them.
// The cases of PellanFixedPaths work on the launcher's fixed paths and on the
// checker's admin socket; they refuse to run outside keldra-sandbox.
#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <poll.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "admin-server.h"
#include "pellan-launcher.h"

namespace {

// One message of the launcher as seen on stderr and in the platform log.
struct log_message {
    std::string level;     // E, W, I or D
    std::string function;  // from the platform log record
    std::string text;      // the message text with its own line end
};

bool operator==(const log_message &a, const log_message &b)
{
    return a.level == b.level && a.function == b.function && a.text == b.text;
}

std::ostream &operator<<(std::ostream &out, const log_message &m)
{
    return out << "{" << m.level << ", " << m.function << ", \"" << m.text << "\"}";
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

void write_file(const std::string &path, const std::string &content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    ASSERT_TRUE(out.good()) << path;
}

bool file_exists(const std::string &path)
{
    return access(path.c_str(), F_OK) == 0;
}

std::string unescape(const std::string &text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size()) {
            char next = text[++i];
            out += next == 'n' ? '\n' : next == 't' ? '\t' : next;
        } else {
            out += text[i];
        }
    }
    return out;
}

// A private directory for the files of one case.
class temp_dir {
public:
    temp_dir()
    {
        char name[] = "/tmp/pellan-policy-XXXXXX";
        if (mkdtemp(name) != nullptr)
            path_ = name;
    }
    ~temp_dir()
    {
        if (!path_.empty())
            system(("rm -rf '" + path_ + "'").c_str());
    }
    std::string file(const std::string &name) const { return path_ + "/" + name; }
    bool ok() const { return !path_.empty(); }

private:
    std::string path_;
};

// Captures what the launcher logs between start() and stop(): stderr (fd 2)
// is redirected to a file, and the platform log stand-in appends its records
// to another through VESK_LOG_FILE. Both are then paired message by message.
class log_capture {
public:
    explicit log_capture(const temp_dir &dir)
        : stderr_path_(dir.file("stderr.log")), vesk_path_(dir.file("vesk.log"))
    {
    }

    void start()
    {
        fflush(stderr);
        saved_fd_ = dup(STDERR_FILENO);
        int fd = open(stderr_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(dup2(fd, STDERR_FILENO), STDERR_FILENO);
        close(fd);
        unlink(vesk_path_.c_str());
        setenv("VESK_LOG_FILE", vesk_path_.c_str(), 1);
    }

    void stop()
    {
        if (saved_fd_ < 0)
            return;
        unsetenv("VESK_LOG_FILE");
        fflush(stderr);
        dup2(saved_fd_, STDERR_FILENO);
        close(saved_fd_);
        saved_fd_ = -1;
    }

    ~log_capture() { stop(); }

    std::string raw_stderr() const { return read_file(stderr_path_); }

    // Every stderr message of pellan-launcher.cc, with the function name from
    // the platform record of the same message. Fails the case when the two
    // sinks disagree.
    std::vector<log_message> messages() const
    {
        std::vector<log_message> from_stderr = parse_stderr(raw_stderr());
        std::vector<log_message> from_vesk = parse_vesk(read_file(vesk_path_));
        EXPECT_EQ(from_stderr.size(), from_vesk.size()) << raw_stderr();
        for (size_t i = 0; i < from_stderr.size() && i < from_vesk.size(); ++i) {
            EXPECT_EQ(from_stderr[i].level, from_vesk[i].level);
            EXPECT_EQ(from_stderr[i].text, from_vesk[i].text);
            from_stderr[i].function = from_vesk[i].function;
        }
        return from_stderr;
    }

private:
    // "[<sec>.<nsec>][KELDRA][<L>][pellan-launcher.cc:<line>] <text>"; every
    // message of these steps ends with a line end.
    static std::vector<log_message> parse_stderr(const std::string &text)
    {
        static const std::regex line(
            R"(^\[\d+\.\d+\]\[KELDRA\]\[([EWID])\]\[pellan-launcher\.cc:\d+\] (.*)$)");
        std::vector<log_message> out;
        std::istringstream in(text);
        std::string l;
        while (std::getline(in, l)) {
            std::smatch m;
            if (std::regex_match(l, m, line))
                out.push_back({m[1], "", std::string(m[2]) + "\n"});
            else
                ADD_FAILURE() << "unexpected stderr line: " << l;
        }
        return out;
    }

    // "0\t<prio>\tKELDRA\tpellan-launcher.cc: <function>(<line>) > <text>"
    static std::vector<log_message> parse_vesk(const std::string &text)
    {
        static const std::regex record(
            R"(^0\t([3-6])\tKELDRA\tpellan-launcher\.cc: (\w+)\(\d+\) > (.*)$)");
        static const char *levels[] = {"D", "I", "W", "E"};
        std::vector<log_message> out;
        std::istringstream in(text);
        std::string l;
        while (std::getline(in, l)) {
            std::smatch m;
            if (std::regex_match(l, m, record))
                out.push_back({levels[std::stoi(m[1]) - 3], m[2], unescape(m[3])});
            else
                ADD_FAILURE() << "unexpected platform log record: " << l;
        }
        return out;
    }

    std::string stderr_path_;
    std::string vesk_path_;
    int saved_fd_ = -1;
};

log_message E(const char *function, const std::string &text)
{
    return {"E", function, text};
}

std::vector<std::string> privileges(const std::vector<pellan_admin_policy> &policy)
{
    std::vector<std::string> out;
    for (const pellan_admin_policy &record : policy)
        out.push_back(record.privilege ? record.privilege : "(null)");
    return out;
}

class PellanPolicyFile : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dir.ok()); }

    // Reads the policy file holding content, capturing the log.
    long read_policy(const std::string &content, std::vector<pellan_admin_policy> &policy)
    {
        std::string path = dir.file("policy");
        write_file(path, content);
        log.start();
        long count = get_policy(path.c_str(), policy);
        log.stop();
        return count;
    }

    temp_dir dir;
    log_capture log{dir};
};

// ---- timestamps ----------------------------------------------------------

TEST_F(PellanPolicyFile, TimestampMissingRo)
{
    char token[PELLAN_TIMESTAMP_SIZE];
    log.start();
    int r = get_timestamp_ro(dir.file("missing").c_str(), token);
    log.stop();
    EXPECT_EQ(r, -1);
    EXPECT_EQ(log.messages(),
              std::vector<log_message>({E("get_timestamp_ro", "failed to fopen timestampro\n")}));
}

TEST_F(PellanPolicyFile, TimestampMissingRw)
{
    char token[PELLAN_TIMESTAMP_SIZE];
    log.start();
    int r = get_timestamp_rw(dir.file("missing").c_str(), token);
    log.stop();
    EXPECT_EQ(r, -1);
    EXPECT_EQ(log.messages(),
              std::vector<log_message>({E("get_timestamp_rw", "failed to fopen timestamprw\n")}));
}

TEST_F(PellanPolicyFile, TimestampEmptyRoAndRw)
{
    char token[PELLAN_TIMESTAMP_SIZE];
    write_file(dir.file("empty"), "");
    write_file(dir.file("blank"), " \t\r\n\v\f\n");
    log.start();
    int r1 = get_timestamp_ro(dir.file("empty").c_str(), token);
    int r2 = get_timestamp_rw(dir.file("blank").c_str(), token);
    log.stop();
    EXPECT_EQ(r1, -1);
    EXPECT_EQ(r2, -1);
    EXPECT_EQ(log.messages(),
              std::vector<log_message>(
                  {E("get_timestamp_ro", "timestampro fscanf return value -1\n"),
                   E("get_timestamp_rw", "timestamprw fscanf return value -1\n")}));
}

TEST_F(PellanPolicyFile, TimestampFirstTokenOnly)
{
    char token[PELLAN_TIMESTAMP_SIZE];
    memset(token, 'x', sizeof token);
    write_file(dir.file("ts"), "\n\t 20240101.1 trailing words\nsecond line\n");
    log.start();
    int r = get_timestamp_ro(dir.file("ts").c_str(), token);
    log.stop();
    EXPECT_EQ(r, 0);
    EXPECT_STREQ(token, "20240101.1");
    // The buffer is zero-filled before the read.
    for (size_t i = strlen("20240101.1"); i < PELLAN_TIMESTAMP_SIZE; ++i)
        EXPECT_EQ(token[i], '\0') << i;
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(PellanPolicyFile, TimestampLongTokenCutTo19AndWrittenBack)
{
    const std::string long_token = "1234567890123456789ABCDEF";  // 25 characters
    ASSERT_EQ(long_token.size(), 25u);
    char ro[PELLAN_TIMESTAMP_SIZE];
    char rw[PELLAN_TIMESTAMP_SIZE];
    write_file(dir.file("ro"), long_token + "\n");
    write_file(dir.file("rw"), "1234567890123456789ZZZZZZ\n");
    log.start();
    ASSERT_EQ(get_timestamp_ro(dir.file("ro").c_str(), ro), 0);
    ASSERT_EQ(get_timestamp_rw(dir.file("rw").c_str(), rw), 0);
    log.stop();
    EXPECT_STREQ(ro, "1234567890123456789");
    EXPECT_EQ(ro[19], '\0');
    // Only the first 19 characters take part in the comparison.
    EXPECT_EQ(strncmp(ro, rw, PELLAN_TIMESTAMP_SIZE), 0);

    write_file(dir.file("rw2"), "old\n");
    EXPECT_EQ(set_timestamp_rw(dir.file("rw2").c_str(), ro), 0);
    EXPECT_EQ(read_file(dir.file("rw2")), "1234567890123456789\n");
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(PellanPolicyFile, SetTimestampRwReplacesContent)
{
    write_file(dir.file("rw"), "a much longer former content\nwith two lines\n");
    log.start();
    int r = set_timestamp_rw(dir.file("rw").c_str(), "token");
    log.stop();
    EXPECT_EQ(r, 0);
    EXPECT_EQ(read_file(dir.file("rw")), "token\n");
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(PellanPolicyFile, SetTimestampRwCannotOpen)
{
    log.start();
    int r = set_timestamp_rw(dir.file("no-such-dir/rw").c_str(), "token");
    log.stop();
    EXPECT_EQ(r, -1);
    EXPECT_FALSE(file_exists(dir.file("no-such-dir/rw")));
    EXPECT_EQ(log.messages(),
              std::vector<log_message>({E("set_timestamp_rw", "failed to fopen timestamprw\n")}));
}

// ---- policy file ---------------------------------------------------------

TEST_F(PellanPolicyFile, RecordsInFileOrderWithFixedFields)
{
    std::vector<pellan_admin_policy> policy;
    long count = read_policy("2\nhttp://example.org/priv/one\nhttp://example.org/priv/two\n",
                             policy);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(privileges(policy), std::vector<std::string>({"http://example.org/priv/one",
                                                            "http://example.org/priv/two"}));
    for (const pellan_admin_policy &record : policy) {
        EXPECT_STREQ(record.bucket, "USER_TYPE_ADMIN");
        EXPECT_STREQ(record.client, "*");
        EXPECT_STREQ(record.user, "*");
        EXPECT_EQ(record.result, 65535);
        EXPECT_EQ(record.result_extra, nullptr);
    }
    EXPECT_TRUE(log.messages().empty());
    policy_free(policy);
}

TEST_F(PellanPolicyFile, EveryKindOfWhitespaceSeparatesTokens)
{
    std::vector<pellan_admin_policy> policy;
    long count = read_policy(" \t3 \t\n\r\v\fone\r\ntwo\v\f\t three\f\r\n\n", policy);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(privileges(policy), std::vector<std::string>({"one", "two", "three"}));
    policy_free(policy);
}

TEST_F(PellanPolicyFile, LongTokenSplitIntoPiecesOf99)
{
    std::string long_name;
    for (int i = 0; i < 250; ++i)
        long_name += static_cast<char>('a' + i % 26);
    std::vector<pellan_admin_policy> policy;
    long count = read_policy("3\n" + long_name + "\n", policy);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(privileges(policy),
              std::vector<std::string>(
                  {long_name.substr(0, 99), long_name.substr(99, 99), long_name.substr(198)}));
    policy_free(policy);
}

TEST_F(PellanPolicyFile, LongCountTokenIsSplitToo)
{
    // The first 99 characters make the count, the rest is a privilege.
    std::string digits = "1" + std::string(98, '0') + "7";
    std::vector<pellan_admin_policy> policy;
    long count = read_policy(digits, policy);
    EXPECT_EQ(count, strtol(digits.substr(0, 99).c_str(), nullptr, 10));
    EXPECT_EQ(privileges(policy), std::vector<std::string>({"7"}));
    policy_free(policy);
}

TEST_F(PellanPolicyFile, CountWithSignOrTrailingLetters)
{
    struct { const char *token; long count; } cases[] = {
        {"+2", 2}, {"2abc", 2}, {"-1", -1}, {"abc", 0}, {"-0", 0}, {"007", 7}, {"x5", 0},
    };
    for (const auto &c : cases) {
        std::vector<pellan_admin_policy> policy;
        long count = read_policy(std::string(c.token) + " p q\n", policy);
        EXPECT_EQ(count, c.count) << c.token;
        EXPECT_EQ(privileges(policy), std::vector<std::string>({"p", "q"})) << c.token;
        EXPECT_TRUE(log.messages().empty()) << c.token;
        policy_free(policy);
    }
}

TEST_F(PellanPolicyFile, EmptyFileGivesNegativeCount)
{
    for (const char *content : {"", " \n\t\r\v\f"}) {
        std::vector<pellan_admin_policy> policy;
        long count = read_policy(content, policy);
        EXPECT_EQ(count, -1);
        EXPECT_TRUE(policy.empty());
        EXPECT_TRUE(log.messages().empty());
    }
}

TEST_F(PellanPolicyFile, MissingFile)
{
    std::vector<pellan_admin_policy> policy;
    log.start();
    long count = get_policy(dir.file("missing").c_str(), policy);
    log.stop();
    EXPECT_EQ(count, -1);
    EXPECT_TRUE(policy.empty());
    EXPECT_EQ(log.messages(),
              std::vector<log_message>({E("get_policy", "failed to fopen policy\n")}));
}

TEST_F(PellanPolicyFile, PolicyFreeLeavesTheArray)
{
    std::vector<pellan_admin_policy> policy;
    read_policy("2 a b", policy);
    ASSERT_EQ(policy.size(), 2u);
    policy_free(policy);
    EXPECT_EQ(policy.size(), 2u);
}

// ---- the push, up to the library -----------------------------------------

class PellanPush : public PellanPolicyFile {
protected:
    // Runs the push of the policy file holding content; rw holds "old\n".
    int push(const std::string &content, const char *timestamp = "new")
    {
        write_file(dir.file("policy"), content);
        write_file(dir.file("rw"), "old\n");
        return push_existing(timestamp);
    }

    int push_existing(const char *timestamp = "new")
    {
        log.start();
        int r = set_pellan_admin_polices(dir.file("policy").c_str(), dir.file("rw").c_str(),
                                         timestamp);
        log.stop();
        return r;
    }
};

TEST_F(PellanPush, MissingPolicyFile)
{
    write_file(dir.file("rw"), "old\n");
    EXPECT_EQ(push_existing(), -1);
    EXPECT_EQ(log.messages(),
              std::vector<log_message>({E("get_policy", "failed to fopen policy\n"),
                                        E("set_pellan_admin_polices", "failed to read policy\n")}));
    EXPECT_EQ(read_file(dir.file("rw")), "old\n");
}

TEST_F(PellanPush, EmptyPolicyFile)
{
    EXPECT_EQ(push(""), -1);
    EXPECT_EQ(log.messages(),
              std::vector<log_message>({E("set_pellan_admin_polices", "failed to read policy\n")}));
    EXPECT_EQ(read_file(dir.file("rw")), "old\n");
}

TEST_F(PellanPush, NegativeCount)
{
    EXPECT_EQ(push("-1 a b\n"), -1);
    EXPECT_EQ(log.messages(),
              std::vector<log_message>({E("set_pellan_admin_polices", "failed to read policy\n")}));
    EXPECT_EQ(read_file(dir.file("rw")), "old\n");
}

TEST_F(PellanPush, CountDiffersFromNames)
{
    for (const char *content : {"3\none\ntwo\n", "1\none\ntwo\n", "abc\none\n"}) {
        EXPECT_EQ(push(content), -1) << content;
        EXPECT_EQ(log.messages(),
                  std::vector<log_message>({E("set_pellan_admin_polices",
                                              "policy.size() and policysize are different.\n")}))
            << content;
        EXPECT_EQ(read_file(dir.file("rw")), "old\n") << content;
    }
}

TEST_F(PellanPush, CountZeroSendsNothing)
{
    for (const char *content : {"0\n", "abc", "+0 \n"}) {
        EXPECT_EQ(push(content), 0) << content;
        EXPECT_TRUE(log.messages().empty()) << log.raw_stderr();
        EXPECT_EQ(read_file(dir.file("rw")), "old\n") << content;
    }
}

// ---- fixed paths and the checker's admin socket (sandbox only) -----------

bool in_sandbox()
{
    const char *flag = getenv("KELDRA_SANDBOX");
    return flag != nullptr && strcmp(flag, "1") == 0;
}

// Serves one connection on the checker's admin socket from a thread, with the
// simulated checker's side of the protocol.
class admin_server {
public:
    ~admin_server()
    {
        if (thread_.joinable())
            thread_.join();
        if (listen_fd_ >= 0)
            close(listen_fd_);
    }

    void start(const std::string &record_path, int verdict)
    {
        ASSERT_TRUE(mkdir(PELLAN_RUN_DIR, 0775) == 0 || errno == EEXIST);
        listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_GE(listen_fd_, 0);
        sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        strcpy(addr.sun_path, PELLAN_ADMIN_SOCKET_PATH);
        unlink(PELLAN_ADMIN_SOCKET_PATH);
        ASSERT_EQ(bind(listen_fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        ASSERT_EQ(listen(listen_fd_, 1), 0);
        thread_ = std::thread([this, record_path, verdict] { serve(record_path, verdict); });
    }

    // The result of sim_admin_serve_connection, or -2 when no client came.
    int finish()
    {
        if (thread_.joinable())
            thread_.join();
        return result_;
    }

private:
    void serve(const std::string &record_path, int verdict)
    {
        pollfd pfd = {listen_fd_, POLLIN, 0};
        if (poll(&pfd, 1, 10000) != 1)
            return;
        int client = accept(listen_fd_, nullptr, nullptr);
        if (client < 0)
            return;
        result_ = sim_admin_serve_connection(client, record_path.c_str(), verdict);
        close(client);
    }

    int listen_fd_ = -1;
    int result_ = -2;
    std::thread thread_;
};

std::string admin_record(const std::string &privilege)
{
    return "bucket=USER_TYPE_ADMIN client=* user=* privilege=" + privilege +
           " result=65535 result_extra=(null)\n";
}

class PellanFixedPaths : public PellanPolicyFile {
protected:
    void SetUp() override
    {
        PellanPolicyFile::SetUp();
        ASSERT_TRUE(in_sandbox()) << "works on the launcher's fixed paths: run it through "
                                     "keldra-sandbox (ctest does)";
        unlink(PELLAN_TIMESTAMP_RO_FILE);
        unlink(PELLAN_TIMESTAMP_RW_FILE);
        unlink(PELLAN_POLICY_FILE);
        unlink(PELLAN_ADMIN_SOCKET_PATH);
    }

    int run_init()
    {
        log.start();
        int r = pellan_launcher_init(nullptr);
        log.stop();
        return r;
    }

    std::string records_path() const { return dir.file("records"); }
};

TEST_F(PellanFixedPaths, InitMissingRo)
{
    write_file(PELLAN_TIMESTAMP_RW_FILE, "old\n");
    write_file(PELLAN_POLICY_FILE, "1 p\n");
    EXPECT_EQ(run_init(), 0);
    EXPECT_EQ(log.messages(),
              std::vector<log_message>({E("get_timestamp_ro", "failed to fopen timestampro\n")}));
    EXPECT_EQ(read_file(PELLAN_TIMESTAMP_RW_FILE), "old\n");
}

TEST_F(PellanFixedPaths, InitEmptyRo)
{
    write_file(PELLAN_TIMESTAMP_RO_FILE, "\n");
    write_file(PELLAN_TIMESTAMP_RW_FILE, "old\n");
    write_file(PELLAN_POLICY_FILE, "1 p\n");
    EXPECT_EQ(run_init(), 0);
    EXPECT_EQ(log.messages(), std::vector<log_message>({E(
                                  "get_timestamp_ro", "timestampro fscanf return value -1\n")}));
    EXPECT_EQ(read_file(PELLAN_TIMESTAMP_RW_FILE), "old\n");
}

TEST_F(PellanFixedPaths, InitMissingRwIsNeverCreated)
{
    write_file(PELLAN_TIMESTAMP_RO_FILE, "new\n");
    write_file(PELLAN_POLICY_FILE, "1 p\n");
    EXPECT_EQ(run_init(), 0);
    EXPECT_EQ(log.messages(),
              std::vector<log_message>({E("get_timestamp_rw", "failed to fopen timestamprw\n")}));
    EXPECT_FALSE(file_exists(PELLAN_TIMESTAMP_RW_FILE));
}

TEST_F(PellanFixedPaths, InitEmptyRw)
{
    write_file(PELLAN_TIMESTAMP_RO_FILE, "new\n");
    write_file(PELLAN_TIMESTAMP_RW_FILE, "");
    write_file(PELLAN_POLICY_FILE, "1 p\n");
    EXPECT_EQ(run_init(), 0);
    EXPECT_EQ(log.messages(), std::vector<log_message>({E(
                                  "get_timestamp_rw", "timestamprw fscanf return value -1\n")}));
    EXPECT_EQ(read_file(PELLAN_TIMESTAMP_RW_FILE), "");
}

TEST_F(PellanFixedPaths, InitEqualTokensOpensNothing)
{
    // No policy file and no checker: opening the one or calling the other
    // would be logged.
    const std::pair<const char *, const char *> cases[] = {
        {"20240101\n", "20240101 other words\n"},
        {"1234567890123456789AAAAAA\n", "\t1234567890123456789BBBBBB"},
    };
    for (const auto &[ro, rw] : cases) {
        write_file(PELLAN_TIMESTAMP_RO_FILE, ro);
        write_file(PELLAN_TIMESTAMP_RW_FILE, rw);
        EXPECT_EQ(run_init(), 0);
        EXPECT_TRUE(log.messages().empty()) << log.raw_stderr();
        EXPECT_EQ(read_file(PELLAN_TIMESTAMP_RW_FILE), rw);
    }
}

TEST_F(PellanFixedPaths, InitMissingPolicyFile)
{
    write_file(PELLAN_TIMESTAMP_RO_FILE, "new\n");
    write_file(PELLAN_TIMESTAMP_RW_FILE, "old\n");
    EXPECT_EQ(run_init(), 0);
    EXPECT_EQ(log.messages(),
              std::vector<log_message>({E("get_policy", "failed to fopen policy\n"),
                                        E("set_pellan_admin_polices", "failed to read policy\n")}));
    EXPECT_EQ(read_file(PELLAN_TIMESTAMP_RW_FILE), "old\n");
}

TEST_F(PellanFixedPaths, InitCountZeroSendsNothingEveryTime)
{
    write_file(PELLAN_TIMESTAMP_RO_FILE, "new\n");
    write_file(PELLAN_TIMESTAMP_RW_FILE, "old\n");
    write_file(PELLAN_POLICY_FILE, "0\n");
    for (int start = 0; start < 2; ++start) {
        // Without a checker a library call would log its failure.
        EXPECT_EQ(run_init(), 0);
        EXPECT_TRUE(log.messages().empty()) << log.raw_stderr();
        EXPECT_EQ(read_file(PELLAN_TIMESTAMP_RW_FILE), "old\n");
    }
}

TEST_F(PellanFixedPaths, InitCountDiffers)
{
    write_file(PELLAN_TIMESTAMP_RO_FILE, "new\n");
    write_file(PELLAN_TIMESTAMP_RW_FILE, "old\n");
    write_file(PELLAN_POLICY_FILE, "3\none\ntwo\n");
    // Without a checker a library call would log its failure.
    EXPECT_EQ(run_init(), 0);
    EXPECT_EQ(log.messages(),
              std::vector<log_message>({E("set_pellan_admin_polices",
                                          "policy.size() and policysize are different.\n")}));
    EXPECT_EQ(read_file(PELLAN_TIMESTAMP_RW_FILE), "old\n");
}

TEST_F(PellanFixedPaths, InitCheckerNotListening)
{
    write_file(PELLAN_TIMESTAMP_RO_FILE, "new\n");
    write_file(PELLAN_TIMESTAMP_RW_FILE, "old\n");
    write_file(PELLAN_POLICY_FILE, "2\none\ntwo\n");
    EXPECT_EQ(run_init(), 0);
    std::vector<log_message> messages = log.messages();
    ASSERT_EQ(messages.size(), 1u) << log.raw_stderr();
    EXPECT_EQ(messages[0].level, "E");
    EXPECT_EQ(messages[0].function, "set_pellan_admin_polices");
    EXPECT_TRUE(std::regex_match(messages[0].text,
                                 std::regex("failed to pellan_admin_initialize -[1-9][0-9]*\n")))
        << messages[0].text;
    EXPECT_EQ(read_file(PELLAN_TIMESTAMP_RW_FILE), "old\n");
}

TEST_F(PellanFixedPaths, InitPushAccepted)
{
    write_file(PELLAN_TIMESTAMP_RO_FILE, "20250301.7 ignored\n");
    write_file(PELLAN_TIMESTAMP_RW_FILE, "20240101.1\n");
    write_file(PELLAN_POLICY_FILE, "2\r\n\thttp://example.org/priv/one\v\f"
                                   "http://example.org/priv/two\n");
    admin_server server;
    server.start(records_path(), 0);
    EXPECT_EQ(run_init(), 0);
    EXPECT_EQ(server.finish(), 0);
    EXPECT_TRUE(log.messages().empty()) << log.raw_stderr();
    EXPECT_EQ(read_file(records_path()), admin_record("http://example.org/priv/one") +
                                             admin_record("http://example.org/priv/two"));
    EXPECT_EQ(read_file(PELLAN_TIMESTAMP_RW_FILE), "20250301.7\n");
}

TEST_F(PellanFixedPaths, InitPushWritesBack19Characters)
{
    write_file(PELLAN_TIMESTAMP_RO_FILE, "1234567890123456789ABCDEF\n");
    write_file(PELLAN_TIMESTAMP_RW_FILE, "1234567890123456788ABCDEF\n");
    std::string long_name(150, 'q');
    write_file(PELLAN_POLICY_FILE, "+2abc " + long_name + "\n");
    admin_server server;
    server.start(records_path(), 0);
    EXPECT_EQ(run_init(), 0);
    EXPECT_EQ(server.finish(), 0);
    EXPECT_TRUE(log.messages().empty()) << log.raw_stderr();
    EXPECT_EQ(read_file(records_path()),
              admin_record(std::string(99, 'q')) + admin_record(std::string(51, 'q')));
    EXPECT_EQ(read_file(PELLAN_TIMESTAMP_RW_FILE), "1234567890123456789\n");

    // The next start finds the versions equal and does nothing.
    EXPECT_EQ(run_init(), 0);
    EXPECT_TRUE(log.messages().empty()) << log.raw_stderr();
}

TEST_F(PellanFixedPaths, InitPushRefused)
{
    write_file(PELLAN_TIMESTAMP_RO_FILE, "new\n");
    write_file(PELLAN_TIMESTAMP_RW_FILE, "old\n");
    write_file(PELLAN_POLICY_FILE, "1 only\n");
    admin_server server;
    server.start(records_path(), 7);
    EXPECT_EQ(run_init(), 0);
    EXPECT_EQ(server.finish(), 0);
    EXPECT_EQ(log.messages(),
              std::vector<log_message>({E("set_pellan_admin_polices",
                                          "failed to pellan_admin_set_policies 7\n")}));
    EXPECT_EQ(read_file(records_path()), admin_record("only"));
    EXPECT_EQ(read_file(PELLAN_TIMESTAMP_RW_FILE), "old\n");
}

TEST_F(PellanFixedPaths, PushAcceptedButTimestampNotWritable)
{
    write_file(dir.file("policy"), "1 only\n");
    admin_server server;
    server.start(records_path(), 0);
    log.start();
    int r = set_pellan_admin_polices(dir.file("policy").c_str(),
                                     dir.file("missing-dir/rw").c_str(), "new");
    log.stop();
    EXPECT_EQ(r, 0);
    EXPECT_EQ(server.finish(), 0);
    EXPECT_EQ(log.messages(),
              std::vector<log_message>({E("set_timestamp_rw", "failed to fopen timestamprw\n")}));
    EXPECT_EQ(read_file(records_path()), admin_record("only"));
}

} // namespace
