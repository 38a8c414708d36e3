// End-to-end scenarios of the admin-user policy push done by the checker's
// launcher at every start of keldra.
//
// The push runs on the main thread before the checker's launcher thread
// exists, so on the first start of a fresh system the checker is not running
// yet and its admin socket is missing: the library cannot connect and the push
// waits for the next start. Every scenario therefore writes the profile files,
// starts keldra, lets it bring the checker up, stops it with SIGTERM (the
// checker stays up) and starts it again; the second keldra adopts the running
// checker and finds its admin socket. What the checker received is read from
// the record file of the simulated checker, what keldra reported from its
// stderr and from the platform log, and the read-write timestamp from disk.
#include "harness.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <memory>
#include <set>

namespace {

using namespace std::chrono_literals;
using e2e::exit_status;

constexpr const char *ro_path = "/usr/share/orvel/policy/usertype-admin.profile-timestamp";
constexpr const char *rw_path = "/opt/var/pellan/usertype-admin.profile-timestamp";
constexpr const char *policy_path =
    "/usr/share/orvel/policy/usertype-admin.profile-change-privilege";
constexpr const char *pellan_ready_path = "/run/pellan.ready";
constexpr const char *launcher_file = "pellan-launcher.cc";

// The functions of the push, as they name themselves in the platform log.
const std::set<std::string> push_functions = {
    "pellan_launcher_init", "get_timestamp_ro", "get_timestamp_rw",        "get_policy",
    "set_pellan_admin_polices", "set_timestamp_rw", "policy_free",
};

// One message of the push: level letter, function and exact text.
struct push_message {
    char level = 0;
    std::string function;
    std::string text;
    bool operator==(const push_message &) const = default;
};

void PrintTo(const push_message &m, std::ostream *out)
{
    *out << "[" << m.level << "] " << m.function << ": \"" << e2e::visible(m.text) << "\"";
}

push_message E(const std::string &function, const std::string &text)
{
    return {'E', function, text};
}

char level_of_priority(int prio)
{
    for (char level : {'E', 'W', 'I', 'D'})
        if (e2e::level_priority(level) == prio)
            return level;
    return '?';
}

// The platform-log records written by the push functions, each checked for
// the fixed tag, the launcher's file and a real line number.
std::vector<push_message> platform_push_messages(const e2e::scenario &keldra)
{
    std::vector<push_message> found;
    for (const e2e::platform_record &r : keldra.platform_messages()) {
        if (!push_functions.contains(r.function))
            continue;
        EXPECT_EQ(r.log_id, 0) << e2e::describe(r);
        EXPECT_EQ(r.tag, "KELDRA") << e2e::describe(r);
        EXPECT_EQ(r.file, launcher_file) << e2e::describe(r);
        EXPECT_GT(r.line, 0) << e2e::describe(r);
        found.push_back({level_of_priority(r.prio), r.function, r.text});
    }
    return found;
}

// The stderr lines of the launcher's file written before its thread started:
// those can only come from the push (init runs before the thread exists).
std::vector<std::pair<char, std::string>> stderr_push_messages(const e2e::scenario &keldra)
{
    // The thread may log its first line a little after keldra reports itself up.
    e2e::wait_until(
        [&] { return e2e::find_message(keldra.messages(), 'E', "Pellan launcher started\n") >= 0; },
        10s, "the checker's launcher thread to start");
    std::vector<e2e::log_record> records = keldra.messages();
    int thread_start = e2e::find_message(records, 'E', "Pellan launcher started\n");
    EXPECT_GE(thread_start, 0) << "the checker's launcher thread never started";
    if (thread_start < 0)
        thread_start = int(records.size());
    std::vector<std::pair<char, std::string>> found;
    for (int i = 0; i < thread_start; ++i)
        if (records[size_t(i)].file == launcher_file)
            found.emplace_back(records[size_t(i)].level, records[size_t(i)].text);
    return found;
}

// Both sinks hold exactly these push messages, in this order.
void expect_push_messages(const e2e::scenario &keldra, const std::vector<push_message> &expected,
                          e2e::where loc = e2e::where::current())
{
    SCOPED_TRACE(testing::Message() << "push messages of " << keldra.stderr_path() << ", from "
                                    << loc.file_name() << ":" << loc.line());
    EXPECT_EQ(platform_push_messages(keldra), expected);
    std::vector<std::pair<char, std::string>> expected_lines;
    for (const push_message &m : expected)
        expected_lines.emplace_back(m.level, m.text);
    EXPECT_EQ(stderr_push_messages(keldra), expected_lines);
}

// The record file of the checker as it must read after these privileges were
// received, in this order.
std::string admin_text(const std::vector<std::string> &privileges)
{
    std::string text;
    for (const std::string &privilege : privileges)
        text += "bucket=USER_TYPE_ADMIN client=* user=* privilege=" + privilege +
                " result=65535 result_extra=(null)\n";
    return text;
}

// Everything the checker received so far ("" when nothing).
std::string received_text()
{
    return e2e::read_file(e2e::admin_record_path).value_or("");
}

size_t admin_connections()
{
    size_t n = 0;
    for (const e2e::step_record &r : e2e::steps("pellan"))
        n += r.step == "admin-served";
    return n;
}

// Writes the file, or removes it for nullopt.
void put_file(const char *path, const std::optional<std::string> &content)
{
    if (content)
        ASSERT_TRUE(e2e::write_file(path, *content, 0644)) << path;
    else
        ASSERT_TRUE(e2e::remove_file(path) || errno == ENOENT) << path;
}

class AdminPolicy : public ::testing::Test {
protected:
    void SetUp() override
    {
        // Everything below writes the system's fixed paths.
        ASSERT_TRUE(e2e::inside_sandbox()) << "run through keldra-sandbox (ctest does)";
    }

    void write_profile(const std::optional<std::string> &ro, const std::optional<std::string> &rw,
                       const std::optional<std::string> &policy)
    {
        put_file(ro_path, ro);
        put_file(rw_path, rw);
        put_file(policy_path, policy);
    }

    // Starts one more keldra and waits until it has started all its launchers
    // and the checker is up (launched or adopted).
    e2e::scenario *start_keldra(e2e::where loc = e2e::where::current())
    {
        runs.push_back(std::make_unique<e2e::scenario>());
        e2e::scenario *keldra = runs.back().get();
        SCOPED_TRACE(testing::Message() << "start " << runs.size() << " from line " << loc.line());
        if (!keldra->start(loc))
            return nullptr;
        if (keldra->wait_for_message('I',
                                     e2e::format_text("keldra launched successfully (pid:%d)\n",
                                                      keldra->pid()),
                                     30s, 1, loc) < 0)
            return nullptr;
        if (!e2e::wait_for_file(pellan_ready_path, 20s, loc))
            return nullptr;
        return keldra;
    }

    // SIGTERM: keldra stops its threads and exits with 0, the daemons stay.
    bool stop_keldra(e2e::scenario *keldra, e2e::where loc = e2e::where::current())
    {
        if (!keldra->send_signal(SIGTERM, loc))
            return false;
        auto status = keldra->wait_exit(30s, loc);
        EXPECT_EQ(status, exit_status::with_code(0)) << "from line " << loc.line();
        return status == exit_status::with_code(0);
    }

    // Stops the running keldra and starts the next one.
    e2e::scenario *restart_keldra(e2e::where loc = e2e::where::current())
    {
        if (runs.empty() || !stop_keldra(runs.back().get(), loc))
            return nullptr;
        return start_keldra(loc);
    }

    // The first start of a fresh system when the timestamps differ and the
    // policy file is good: the push stops at the library, which finds no
    // admin socket yet.
    e2e::scenario *first_start_without_checker()
    {
        e2e::scenario *keldra = start_keldra();
        if (!keldra)
            return nullptr;
        expect_push_messages(*keldra, {E("set_pellan_admin_polices",
                                         e2e::format_text("failed to pellan_admin_initialize %d\n",
                                                          -ENOENT))});
        return keldra;
    }

    // Two starts with the same profile, the second one with the checker
    // running: each reports exactly `expected`, and the checker is never
    // contacted.
    void expect_nothing_sent_at_two_starts(const std::vector<push_message> &expected)
    {
        e2e::scenario *keldra = start_keldra();
        ASSERT_NE(keldra, nullptr);
        expect_push_messages(*keldra, expected);
        keldra = restart_keldra();
        ASSERT_NE(keldra, nullptr);
        expect_push_messages(*keldra, expected);
        EXPECT_EQ(admin_connections(), 0u) << "the library connected to the checker";
        EXPECT_EQ(received_text(), "");
    }

    std::vector<std::unique_ptr<e2e::scenario>> runs;
};

const std::string first_privilege = "http://example.org/privilege/zeta-settings.admin";
const std::string second_privilege = "http://example.org/privilege/alpha-account.admin";
const std::string two_privileges_policy = "2\n" + first_privilege + "\n" + second_privilege + "\n";

// ------------------------------------------------------------------ edge cases

TEST_F(AdminPolicy, EqualTimestampsOpenNoPolicyFileAndCallNoLibrary)
{
    // The policy file is missing: opening it would be reported.
    write_profile("20240601.120000\n", "20240601.120000 anything after the token\n", std::nullopt);

    e2e::scenario *keldra = start_keldra();
    ASSERT_NE(keldra, nullptr);
    expect_push_messages(*keldra, {});
    EXPECT_EQ(keldra->count_messages('E', "failed to fopen policy\n"), 0);

    keldra = restart_keldra();
    ASSERT_NE(keldra, nullptr);
    expect_push_messages(*keldra, {});
    EXPECT_EQ(keldra->count_messages('E', "failed to fopen policy\n"), 0);
    EXPECT_EQ(keldra->count_messages('E', "failed to read policy\n"), 0);
    EXPECT_EQ(admin_connections(), 0u) << "the library connected to the checker";
    EXPECT_FALSE(e2e::exists(e2e::admin_record_path));
    EXPECT_EQ(e2e::read_file(rw_path), "20240601.120000 anything after the token\n");
}

TEST_F(AdminPolicy, NewProfileIsPushedAtTheFirstStartThatFindsTheCheckerRunning)
{
    write_profile("20240601.120000\n", "20230101.000000\n", two_privileges_policy);

    // First start: the checker is launched only after the push, so the
    // library finds no socket; nothing is sent and the version stays old.
    e2e::scenario *keldra = first_start_without_checker();
    ASSERT_NE(keldra, nullptr);
    keldra->expect_in_order({
        {'E', e2e::format_text("failed to pellan_admin_initialize %d\n", -ENOENT)},
        {'E', "Pellan launcher started\n"},
        {'W', "No process pellan found, start new one!\n"},
    });
    EXPECT_EQ(e2e::read_file(rw_path), "20230101.000000\n");
    EXPECT_EQ(received_text(), "");
    EXPECT_EQ(admin_connections(), 0u);

    // Second start: the checker is adopted, its admin socket is there.
    auto checker = e2e::starts("pellan");
    ASSERT_EQ(checker.size(), 1u);
    keldra = restart_keldra();
    ASSERT_NE(keldra, nullptr);
    EXPECT_GE(keldra->wait_for_message('I', e2e::format_text(
                                                "Found pellan launched successfully (pid: %d)\n",
                                                checker[0].pid)),
              0);
    expect_push_messages(*keldra, {});
    EXPECT_EQ(received_text(), admin_text({first_privilege, second_privilege}));
    auto records = e2e::admin_records();
    ASSERT_EQ(records.size(), 2u);
    for (size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(records[i], (std::map<std::string, std::string>{
                                  {"bucket", "USER_TYPE_ADMIN"},
                                  {"client", "*"},
                                  {"user", "*"},
                                  {"privilege", i == 0 ? first_privilege : second_privilege},
                                  {"result", "65535"},
                                  {"result_extra", "(null)"},
                              }));
    }
    EXPECT_EQ(e2e::read_file(rw_path), "20240601.120000\n");
    auto served = e2e::wait_for_steps("pellan", "admin-served", 1);
    ASSERT_EQ(served.size(), 1u);
    EXPECT_EQ(served[0].fields["result"], "0");
    EXPECT_EQ(e2e::starts("pellan").size(), 1u) << "the checker was launched again";

    // Third start: the versions are equal now, nothing more is sent.
    keldra = restart_keldra();
    ASSERT_NE(keldra, nullptr);
    expect_push_messages(*keldra, {});
    EXPECT_EQ(received_text(), admin_text({first_privilege, second_privilege}));
    EXPECT_EQ(admin_connections(), 1u);
    EXPECT_EQ(e2e::read_file(rw_path), "20240601.120000\n");
}

TEST_F(AdminPolicy, CountLargerThanTheNamesSendsNothing)
{
    write_profile("v2\n", "v1\n", "3\nalpha\nbeta\n");
    ASSERT_NO_FATAL_FAILURE(expect_nothing_sent_at_two_starts(
        {E("set_pellan_admin_polices", "policy.size() and policysize are different.\n")}));
    EXPECT_EQ(e2e::read_file(rw_path), "v1\n");
}

TEST_F(AdminPolicy, CountZeroAloneSendsNothingAtEveryStart)
{
    // The versions still differ after the first start, so the second one
    // does the same again, silently.
    write_profile("v2\n", "v1\n", "0\n");
    ASSERT_NO_FATAL_FAILURE(expect_nothing_sent_at_two_starts({}));
    EXPECT_EQ(e2e::read_file(rw_path), "v1\n");
}

TEST_F(AdminPolicy, LongTimestampTokenIsComparedAndWrittenBackOnItsFirst19Characters)
{
    const std::string token = "2024-06-01T12:00:00.123456"; // 26 characters
    const std::string ro_token = token.substr(0, 25);
    const std::string cut = token.substr(0, 19);
    ASSERT_EQ(ro_token.size(), 25u);
    write_profile(ro_token + "\n", "2023-01-01T00:00:00\n", "1\nhttp://example.org/privilege/one\n");

    ASSERT_NE(first_start_without_checker(), nullptr);

    e2e::scenario *keldra = restart_keldra();
    ASSERT_NE(keldra, nullptr);
    expect_push_messages(*keldra, {});
    EXPECT_EQ(received_text(), admin_text({"http://example.org/privilege/one"}));
    EXPECT_EQ(e2e::read_file(rw_path), cut + "\n");

    // The 25-character token and the 19 written back compare equal.
    keldra = restart_keldra();
    ASSERT_NE(keldra, nullptr);
    expect_push_messages(*keldra, {});
    EXPECT_EQ(admin_connections(), 1u);
    EXPECT_EQ(received_text(), admin_text({"http://example.org/privilege/one"}));
    EXPECT_EQ(e2e::read_file(rw_path), cut + "\n");
}

// ------------------------------------------------------------------ failures

TEST_F(AdminPolicy, ReadOnlyTimestampMissing)
{
    write_profile(std::nullopt, "v1\n", two_privileges_policy);
    const std::vector<push_message> expected = {
        E("get_timestamp_ro", "failed to fopen timestampro\n")};
    ASSERT_NO_FATAL_FAILURE(expect_nothing_sent_at_two_starts(expected));
    EXPECT_EQ(e2e::read_file(rw_path), "v1\n");
}

TEST_F(AdminPolicy, ReadOnlyTimestampEmpty)
{
    write_profile("", "v1\n", two_privileges_policy);
    const std::vector<push_message> expected = {
        E("get_timestamp_ro", "timestampro fscanf return value -1\n")};
    ASSERT_NO_FATAL_FAILURE(expect_nothing_sent_at_two_starts(expected));
    EXPECT_EQ(e2e::read_file(rw_path), "v1\n");
    EXPECT_EQ(e2e::read_file(ro_path), "");
}

TEST_F(AdminPolicy, ReadWriteTimestampMissingIsNeverCreated)
{
    write_profile("v2\n", std::nullopt, two_privileges_policy);
    const std::vector<push_message> expected = {
        E("get_timestamp_rw", "failed to fopen timestamprw\n")};
    ASSERT_NO_FATAL_FAILURE(expect_nothing_sent_at_two_starts(expected));
    EXPECT_FALSE(e2e::exists(rw_path));
}

TEST_F(AdminPolicy, ReadWriteTimestampWithoutToken)
{
    // Blanks and line ends only: no token to read, as for an empty file.
    write_profile("v2\n", " \n\t\n", two_privileges_policy);
    const std::vector<push_message> expected = {
        E("get_timestamp_rw", "timestamprw fscanf return value -1\n")};
    ASSERT_NO_FATAL_FAILURE(expect_nothing_sent_at_two_starts(expected));
    EXPECT_EQ(e2e::read_file(rw_path), " \n\t\n");
}

TEST_F(AdminPolicy, PolicyFileMissing)
{
    write_profile("v2\n", "v1\n", std::nullopt);
    const std::vector<push_message> expected = {
        E("get_policy", "failed to fopen policy\n"),
        E("set_pellan_admin_polices", "failed to read policy\n"),
    };
    ASSERT_NO_FATAL_FAILURE(expect_nothing_sent_at_two_starts(expected));
    EXPECT_EQ(e2e::read_file(rw_path), "v1\n");
}

TEST_F(AdminPolicy, PolicyFileEmpty)
{
    write_profile("v2\n", "v1\n", "");
    const std::vector<push_message> expected = {
        E("set_pellan_admin_polices", "failed to read policy\n")};
    ASSERT_NO_FATAL_FAILURE(expect_nothing_sent_at_two_starts(expected));
    EXPECT_EQ(e2e::read_file(rw_path), "v1\n");
}

TEST_F(AdminPolicy, NegativeCountSendsNothing)
{
    write_profile("v2\n", "v1\n", "-2\nalpha\nbeta\n");
    const std::vector<push_message> expected = {
        E("set_pellan_admin_polices", "failed to read policy\n")};
    ASSERT_NO_FATAL_FAILURE(expect_nothing_sent_at_two_starts(expected));
    EXPECT_EQ(e2e::read_file(rw_path), "v1\n");
}

TEST_F(AdminPolicy, RefusedPoliciesLeaveTheTimestampOld)
{
    e2e::write_settings("pellan", "admin_verdict=5\n");
    write_profile("v2\n", "v1\n", two_privileges_policy);

    ASSERT_NE(first_start_without_checker(), nullptr);
    EXPECT_EQ(e2e::read_file(rw_path), "v1\n");

    e2e::scenario *keldra = restart_keldra();
    ASSERT_NE(keldra, nullptr);
    expect_push_messages(*keldra,
                         {E("set_pellan_admin_polices", "failed to pellan_admin_set_policies 5\n")});
    // The checker decoded both records before it answered with its refusal.
    EXPECT_EQ(received_text(), admin_text({first_privilege, second_privilege}));
    EXPECT_EQ(e2e::read_file(rw_path), "v1\n");
    EXPECT_EQ(e2e::wait_for_steps("pellan", "admin-served", 1).size(), 1u);
}

// Makes the file read-only for everyone, root included: a read-only bind
// mount of the file over itself (the sandbox's mounts are private).
bool bind_read_only(const char *path)
{
    if (mount(path, path, nullptr, MS_BIND, nullptr) != 0)
        return false;
    return mount(nullptr, path, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
}

TEST_F(AdminPolicy, ReadWriteTimestampNotWritableSendsAgainAtEveryStart)
{
    write_profile("v2\n", "v1\n", two_privileges_policy);
    ASSERT_TRUE(bind_read_only(rw_path)) << strerror(errno);
    int probe = open(rw_path, O_WRONLY | O_CLOEXEC);
    ASSERT_LT(probe, 0) << "the read-write timestamp is still writable";
    ASSERT_EQ(errno, EROFS);

    ASSERT_NE(first_start_without_checker(), nullptr);

    const std::vector<push_message> expected = {
        E("set_timestamp_rw", "failed to fopen timestamprw\n")};
    e2e::scenario *keldra = restart_keldra();
    ASSERT_NE(keldra, nullptr);
    expect_push_messages(*keldra, expected);
    EXPECT_EQ(received_text(), admin_text({first_privilege, second_privilege}));
    EXPECT_EQ(e2e::read_file(rw_path), "v1\n");

    keldra = restart_keldra();
    ASSERT_NE(keldra, nullptr);
    expect_push_messages(*keldra, expected);
    EXPECT_EQ(received_text(), admin_text({first_privilege, second_privilege, first_privilege,
                                           second_privilege}));
    EXPECT_EQ(e2e::read_file(rw_path), "v1\n");
    EXPECT_EQ(e2e::wait_for_steps("pellan", "admin-served", 2).size(), 2u);
}

// ------------------------------------------------------------------ volume

TEST_F(AdminPolicy, FiveHundredPrivilegesArriveInFileOrder)
{
    // Distinct names in an order that is not sorted, several to a line with
    // mixed separators.
    std::vector<std::string> privileges;
    std::string policy = "500\n";
    for (int i = 0; i < 500; ++i) {
        privileges.push_back("http://example.org/privilege/admin-" +
                             std::to_string((i * 337) % 1009));
        policy += privileges.back();
        policy += i % 5 == 4 ? "\n" : (i % 2 ? "\t" : " ");
    }
    write_profile("build-500\n", "build-499\n", policy);

    ASSERT_NE(first_start_without_checker(), nullptr);

    e2e::scenario *keldra = restart_keldra();
    ASSERT_NE(keldra, nullptr);
    expect_push_messages(*keldra, {});
    EXPECT_EQ(received_text(), admin_text(privileges));
    EXPECT_EQ(e2e::read_file(rw_path), "build-500\n");
    EXPECT_EQ(e2e::wait_for_steps("pellan", "admin-served", 1).size(), 1u);
}

} // namespace
