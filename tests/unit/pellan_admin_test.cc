// The policy administration stand-in against the simulated checker's admin
// server: connection, verdicts, records in the record file, limits, and a
// checker that goes away in the middle of an exchange. The client tests use
// the fixed socket under /run/pellan and so run only in the sandbox; the
// server's protocol checks use a socket pair.
#include <pellan-admin.h>

#include "admin-server.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr char socket_dir[] = "/run/pellan";
constexpr char socket_path[] = "/run/pellan/pellan-admin.socket";

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<std::string> split_lines(const std::string &raw)
{
    std::vector<std::string> lines;
    std::istringstream in(raw);
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

// Policy records and the null-terminated pointer array that the library takes.
struct policy_list {
    std::vector<std::string> privileges;
    std::vector<pellan_admin_policy> records;
    std::vector<const pellan_admin_policy *> pointers;
};

void finish_list(policy_list &list)
{
    list.pointers.clear();
    for (auto &r : list.records)
        list.pointers.push_back(&r);
    list.pointers.push_back(nullptr);
}

policy_list admin_policies(int count, const std::string &prefix = "http://example.com/privilege/")
{
    policy_list list;
    for (int i = 0; i < count; ++i)
        list.privileges.push_back(prefix + std::to_string(i));
    for (auto &p : list.privileges)
        list.records.push_back({"USER_TYPE_ADMIN", "*", "*", p.c_str(), 65535, nullptr});
    finish_list(list);
    return list;
}

std::string admin_line(const std::string &privilege)
{
    return "bucket=USER_TYPE_ADMIN client=* user=* privilege=" + privilege
           + " result=65535 result_extra=(null)";
}

int listen_at_fixed_path()
{
    mkdir(socket_dir, 0755);
    unlink(socket_path);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_GE(fd, 0) << strerror(errno);
    struct sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, socket_path);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0) << strerror(errno);
    EXPECT_EQ(listen(fd, 4), 0) << strerror(errno);
    return fd;
}

// A checker that accepts one connection on the fixed socket and serves it
// with serve(fd) on a thread.
struct fake_checker {
    int listen_fd = -1;
    std::thread thread;
    int serve_result = -100;
};

void start_checker(fake_checker &c, std::function<int(int)> serve)
{
    c.listen_fd = listen_at_fixed_path();
    int lfd = c.listen_fd;
    c.thread = std::thread([&c, lfd, serve] {
        int fd = accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            return;
        c.serve_result = serve(fd);
        close(fd);
    });
}

void stop_checker(fake_checker &c)
{
    if (c.thread.joinable())
        c.thread.join();
    if (c.listen_fd >= 0)
        close(c.listen_fd);
    c.listen_fd = -1;
}

// Runs fn in a child process and returns what it returned; fails the test if
// the child does not end within the deadline or dies of a signal.
int call_in_child(const std::function<int()> &fn, int deadline_s = 20)
{
    int pipe_fds[2];
    if (pipe2(pipe_fds, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe2: " << strerror(errno);
        return INT32_MIN;
    }
    pid_t pid = fork();
    if (pid == 0) {
        close(pipe_fds[0]);
        int r = fn();
        ssize_t w = write(pipe_fds[1], &r, sizeof r);
        _exit(w == sizeof r ? 0 : 1);
    }
    close(pipe_fds[1]);
    int result = INT32_MIN;
    struct pollfd pfd = {pipe_fds[0], POLLIN, 0};
    if (poll(&pfd, 1, deadline_s * 1000) == 1)
        EXPECT_EQ(read(pipe_fds[0], &result, sizeof result), static_cast<ssize_t>(sizeof result))
            << "the child died before answering";
    else
        ADD_FAILURE() << "the call did not end within " << deadline_s << " s";
    close(pipe_fds[0]);
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_FALSE(WIFSIGNALED(status) && WTERMSIG(status) != SIGKILL)
        << "child killed by signal " << WTERMSIG(status);
    return result;
}

// Reads one whole request off fd (the header and count records).
bool drain_request(int fd)
{
    auto read_n = [fd](void *buf, size_t n) {
        auto *p = static_cast<char *>(buf);
        while (n > 0) {
            ssize_t r = read(fd, p, n);
            if (r <= 0)
                return false;
            p += r;
            n -= static_cast<size_t>(r);
        }
        return true;
    };
    auto read_u32 = [&](uint32_t *v) {
        unsigned char b[4];
        if (!read_n(b, 4))
            return false;
        *v = uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | b[3];
        return true;
    };
    uint32_t magic = 0, count = 0;
    if (!read_u32(&magic) || !read_u32(&count))
        return false;
    std::vector<char> field(PELLAN_ADMIN_MAX_FIELD);
    for (uint32_t i = 0; i < count; ++i)
        for (int f = 0; f < 6; ++f) {
            uint32_t v = 0;
            if (!read_u32(&v))
                return false;
            if (f == 4 || static_cast<int32_t>(v) == -1)
                continue;
            if (v > field.size() || !read_n(field.data(), v))
                return false;
        }
    return true;
}

class pellan_admin_client : public ::testing::Test {
protected:
    void SetUp() override
    {
        // These tests bind the checker's fixed socket: never on the host.
        const char *sandbox = getenv("KELDRA_SANDBOX");
        if (!sandbox || strcmp(sandbox, "1") != 0)
            GTEST_SKIP() << "uses /run/pellan: runs only in the keldra sandbox";
        char tmpl[] = "/tmp/pellan-admin-test-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr) << strerror(errno);
        dir = tmpl;
        records = dir + "/records";
    }
    void TearDown() override
    {
        stop_checker(checker);
        if (dir.empty())
            return;
        unlink(socket_path);
        std::string cmd = "rm -rf '" + dir + "'";
        EXPECT_EQ(system(cmd.c_str()), 0);
    }
    void start_sim_checker(int verdict)
    {
        std::string path = records;
        start_checker(checker, [path, verdict](int fd) {
            return sim_admin_serve_connection(fd, path.c_str(), verdict);
        });
    }

    std::string dir;
    std::string records;
    fake_checker checker;
};

TEST_F(pellan_admin_client, connect_fails_without_checker_directory)
{
    rmdir(socket_dir);
    auto *dummy = reinterpret_cast<pellan_admin *>(0x1);
    pellan_admin *admin = dummy;
    EXPECT_EQ(pellan_admin_initialize(&admin), -ENOENT);
    EXPECT_EQ(admin, nullptr);
}

TEST_F(pellan_admin_client, connect_fails_without_listener)
{
    int fd = listen_at_fixed_path();
    close(fd);  // the socket file stays, nobody listens
    pellan_admin *admin = reinterpret_cast<pellan_admin *>(0x1);
    EXPECT_EQ(pellan_admin_initialize(&admin), -ECONNREFUSED);
    EXPECT_EQ(admin, nullptr);
}

TEST_F(pellan_admin_client, initialize_with_null_address_is_refused)
{
    EXPECT_EQ(pellan_admin_initialize(nullptr), -EINVAL);
}

TEST_F(pellan_admin_client, accepted_policies_are_recorded)
{
    start_sim_checker(0);
    policy_list list = admin_policies(0);
    list.privileges = {"http://example.com/privilege/a", "http://example.com/privilege/b"};
    for (auto &p : list.privileges)
        list.records.push_back({"USER_TYPE_ADMIN", "*", "*", p.c_str(), 65535, nullptr});
    finish_list(list);

    pellan_admin *admin = nullptr;
    ASSERT_EQ(pellan_admin_initialize(&admin), 0);
    ASSERT_NE(admin, nullptr);
    EXPECT_EQ(pellan_admin_set_policies(admin, list.pointers.data()), 0);
    EXPECT_EQ(pellan_admin_finish(admin), 0);
    stop_checker(checker);

    EXPECT_EQ(checker.serve_result, 0);
    EXPECT_EQ(read_file(records), admin_line("http://example.com/privilege/a") + "\n"
                                      + admin_line("http://example.com/privilege/b") + "\n");
    struct stat st {};
    ASSERT_EQ(stat(records.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0666u);
}

TEST_F(pellan_admin_client, refusal_gives_the_verdict_and_records_stay)
{
    start_sim_checker(5);
    policy_list list = admin_policies(3);
    pellan_admin *admin = nullptr;
    ASSERT_EQ(pellan_admin_initialize(&admin), 0);
    EXPECT_EQ(pellan_admin_set_policies(admin, list.pointers.data()), 5);
    pellan_admin_finish(admin);
    stop_checker(checker);
    std::vector<std::string> lines = split_lines(read_file(records));
    ASSERT_EQ(lines.size(), 3u);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(lines[i], admin_line("http://example.com/privilege/" + std::to_string(i)));
}

TEST_F(pellan_admin_client, ten_thousand_records_arrive_in_order)
{
    start_sim_checker(0);
    policy_list list = admin_policies(10000);
    pellan_admin *admin = nullptr;
    ASSERT_EQ(pellan_admin_initialize(&admin), 0);
    EXPECT_EQ(pellan_admin_set_policies(admin, list.pointers.data()), 0);
    pellan_admin_finish(admin);
    stop_checker(checker);
    EXPECT_EQ(checker.serve_result, 0);
    std::vector<std::string> lines = split_lines(read_file(records));
    ASSERT_EQ(lines.size(), 10000u);
    for (int i = 0; i < 10000; ++i)
        ASSERT_EQ(lines[i], admin_line("http://example.com/privilege/" + std::to_string(i)))
            << "record " << i;
}

TEST_F(pellan_admin_client, several_requests_on_one_connection)
{
    start_sim_checker(0);
    policy_list first = admin_policies(2, "first/");
    policy_list empty = admin_policies(0);
    policy_list second = admin_policies(1, "second/");
    pellan_admin *admin = nullptr;
    ASSERT_EQ(pellan_admin_initialize(&admin), 0);
    EXPECT_EQ(pellan_admin_set_policies(admin, first.pointers.data()), 0);
    EXPECT_EQ(pellan_admin_set_policies(admin, empty.pointers.data()), 0);
    EXPECT_EQ(pellan_admin_set_policies(admin, second.pointers.data()), 0);
    pellan_admin_finish(admin);
    stop_checker(checker);
    EXPECT_EQ(read_file(records), admin_line("first/0") + "\n" + admin_line("first/1") + "\n"
                                      + admin_line("second/0") + "\n");
}

TEST_F(pellan_admin_client, null_texts_empty_texts_and_odd_bytes)
{
    start_sim_checker(0);
    pellan_admin_policy odd = {"B", nullptr, "", "a b\\c\nd\x7f", -1, "extra"};
    const pellan_admin_policy *list[] = {&odd, nullptr};
    pellan_admin *admin = nullptr;
    ASSERT_EQ(pellan_admin_initialize(&admin), 0);
    EXPECT_EQ(pellan_admin_set_policies(admin, list), 0);
    pellan_admin_finish(admin);
    stop_checker(checker);
    EXPECT_EQ(read_file(records),
              "bucket=B client=(null) user= privilege=a\\x20b\\\\c\\x0ad\\x7f result=-1 "
              "result_extra=extra\n");
}

TEST_F(pellan_admin_client, null_handle_or_list_is_refused)
{
    start_sim_checker(0);
    policy_list list = admin_policies(1);
    EXPECT_EQ(pellan_admin_set_policies(nullptr, list.pointers.data()), -EINVAL);
    EXPECT_EQ(pellan_admin_finish(nullptr), -EINVAL);
    pellan_admin *admin = nullptr;
    ASSERT_EQ(pellan_admin_initialize(&admin), 0);
    EXPECT_EQ(pellan_admin_set_policies(admin, nullptr), -EINVAL);
    // The refused call sent nothing: the connection still works.
    EXPECT_EQ(pellan_admin_set_policies(admin, list.pointers.data()), 0);
    pellan_admin_finish(admin);
    stop_checker(checker);
    EXPECT_EQ(split_lines(read_file(records)).size(), 1u);
}

TEST_F(pellan_admin_client, oversized_text_is_refused_before_sending)
{
    start_sim_checker(0);
    std::string big(PELLAN_ADMIN_MAX_FIELD + 1, 'p');
    std::string max(PELLAN_ADMIN_MAX_FIELD, 'm');
    pellan_admin_policy too_big = {"USER_TYPE_ADMIN", "*", "*", big.c_str(), 65535, nullptr};
    pellan_admin_policy at_limit = {"USER_TYPE_ADMIN", "*", "*", max.c_str(), 65535, nullptr};
    const pellan_admin_policy *refused[] = {&at_limit, &too_big, nullptr};
    const pellan_admin_policy *accepted[] = {&at_limit, nullptr};
    pellan_admin *admin = nullptr;
    ASSERT_EQ(pellan_admin_initialize(&admin), 0);
    EXPECT_EQ(pellan_admin_set_policies(admin, refused), -EMSGSIZE);
    EXPECT_EQ(pellan_admin_set_policies(admin, accepted), 0);
    pellan_admin_finish(admin);
    stop_checker(checker);
    EXPECT_EQ(read_file(records), admin_line(max) + "\n");
}

TEST_F(pellan_admin_client, checker_closing_mid_reply_gives_an_error)
{
    start_checker(checker, [](int fd) {
        if (!drain_request(fd))
            return -1;
        const unsigned char half[2] = {0, 0};
        return static_cast<int>(write(fd, half, sizeof half));
    });
    int r = call_in_child([] {
        policy_list list = admin_policies(4);
        pellan_admin *admin = nullptr;
        int init = pellan_admin_initialize(&admin);
        if (init != 0)
            return 1000 + init;
        int set = pellan_admin_set_policies(admin, list.pointers.data());
        int again = pellan_admin_set_policies(admin, list.pointers.data());
        pellan_admin_finish(admin);
        return again == -ENOTCONN ? set : 2000;
    });
    stop_checker(checker);
    EXPECT_EQ(checker.serve_result, 2);
    EXPECT_EQ(r, -ECONNRESET);
}

TEST_F(pellan_admin_client, checker_closing_before_reading_gives_an_error_not_sigpipe)
{
    start_checker(checker, [](int) { return 0; });
    int r = call_in_child([] {
        // Large enough that the request cannot fit in the socket buffers.
        policy_list list = admin_policies(50000);
        pellan_admin *admin = nullptr;
        int init = pellan_admin_initialize(&admin);
        if (init != 0)
            return 1000 + init;
        int set = pellan_admin_set_policies(admin, list.pointers.data());
        pellan_admin_finish(admin);
        return set;
    });
    stop_checker(checker);
    EXPECT_TRUE(r == -EPIPE || r == -ECONNRESET) << "result " << r;
}

// The server side, fed by hand over a socket pair.
class admin_server : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        char tmpl[] = "/tmp/admin-server-test-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        records = dir + "/records";
    }
    void TearDown() override
    {
        close(fds[0]);
        if (fds[1] >= 0)
            close(fds[1]);
        std::string cmd = "rm -rf '" + dir + "'";
        EXPECT_EQ(system(cmd.c_str()), 0);
    }
    void put_u32(uint32_t v)
    {
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes.push_back(static_cast<char>(v >> shift));
    }
    void put_text(const std::string &s)
    {
        put_u32(static_cast<uint32_t>(s.size()));
        bytes += s;
    }
    // Sends the bytes, closes the client's sending side and serves.
    int serve(int verdict)
    {
        EXPECT_EQ(write(fds[0], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        shutdown(fds[0], SHUT_WR);
        int r = sim_admin_serve_connection(fds[1], records.c_str(), verdict);
        close(fds[1]);
        fds[1] = -1;
        return r;
    }
    std::string answer()
    {
        std::string out;
        char buf[64];
        ssize_t n;
        while ((n = read(fds[0], buf, sizeof buf)) > 0)
            out.append(buf, static_cast<size_t>(n));
        return out;
    }

    int fds[2] = {-1, -1};
    std::string dir;
    std::string records;
    std::string bytes;
};

TEST_F(admin_server, hand_built_request_gets_a_big_endian_verdict)
{
    bytes = std::string("PAD1", 4);
    put_u32(1);
    put_text("USER_TYPE_ADMIN");
    put_text("*");
    put_text("*");
    put_text("p");
    put_u32(65535);
    put_u32(0xffffffffu);  // null result_extra
    EXPECT_EQ(serve(0x01020305), 0);
    EXPECT_EQ(answer(), std::string("\x01\x02\x03\x05", 4));
    EXPECT_EQ(read_file(records), admin_line("p") + "\n");
}

TEST_F(admin_server, clean_close_without_request)
{
    EXPECT_EQ(serve(0), 0);
    EXPECT_EQ(answer(), "");
}

TEST_F(admin_server, wrong_magic_drops_the_connection)
{
    bytes = "XXXX";
    put_u32(0);
    EXPECT_EQ(serve(0), -1);
    EXPECT_EQ(answer(), "");
}

TEST_F(admin_server, count_above_the_limit_drops_the_connection)
{
    bytes = std::string("PAD1", 4);
    put_u32(PELLAN_ADMIN_MAX_RECORDS + 1);
    EXPECT_EQ(serve(0), -1);
    EXPECT_EQ(answer(), "");
}

TEST_F(admin_server, length_above_the_limit_drops_the_connection)
{
    bytes = std::string("PAD1", 4);
    put_u32(1);
    put_u32(PELLAN_ADMIN_MAX_FIELD + 1);
    bytes += std::string(PELLAN_ADMIN_MAX_FIELD + 1, 'x');
    EXPECT_EQ(serve(0), -1);
    EXPECT_EQ(answer(), "");
    EXPECT_EQ(read_file(records), "");
}

TEST_F(admin_server, negative_length_other_than_null_drops_the_connection)
{
    bytes = std::string("PAD1", 4);
    put_u32(1);
    put_u32(0xfffffffeu);  // -2
    EXPECT_EQ(serve(0), -1);
    EXPECT_EQ(answer(), "");
}

TEST_F(admin_server, end_of_stream_inside_a_request_drops_the_connection)
{
    bytes = std::string("PAD1", 4);
    put_u32(2);
    put_text("USER_TYPE_ADMIN");
    put_text("*");
    put_text("*");
    put_text("first");
    put_u32(65535);
    put_u32(0xffffffffu);
    put_text("USER_TYPE_ADMIN");  // the second record stops here
    EXPECT_EQ(serve(0), -1);
    EXPECT_EQ(answer(), "");
    EXPECT_EQ(read_file(records), admin_line("first") + "\n");
}

TEST_F(admin_server, null_record_path_records_nothing)
{
    bytes = std::string("PAD1", 4);
    put_u32(0);
    EXPECT_EQ(write(fds[0], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    shutdown(fds[0], SHUT_WR);
    EXPECT_EQ(sim_admin_serve_connection(fds[1], nullptr, 7), 0);
    close(fds[1]);
    fds[1] = -1;
    EXPECT_EQ(answer(), std::string("\0\0\0\x07", 4));
    EXPECT_NE(access(records.c_str(), F_OK), 0);
}

} // namespace
