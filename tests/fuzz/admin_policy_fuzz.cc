// Fuzz target of the reading of the admin profile files: the input is
// written to a file in the sandbox's /tmp and read as the policy file
// (get_policy) and as both timestamp files (get_timestamp_ro,
// get_timestamp_rw). Each result is compared with what an independent
// reading of the same bytes says:
//   - tokens are runs of characters other than the C locale's blanks
//     (space, \t, \n, \v, \f, \r), cut into pieces of at most 99 (policy) or
//     19 (timestamp) characters; a NUL byte is an ordinary character of a
//     token, which then ends early as a C string;
//   - the policy count is strtol of the first token, -1 without any token;
//     every further token is one record, bucket "USER_TYPE_ADMIN", client and
//     user "*", result 65535, no extra;
//   - a timestamp is the first token's first 19 bytes, the rest of the 20
//     bytes zero, or -1 without any token.
//
// Memory: get_policy hands the privilege copies to the caller. The harness
// frees them with policy_free after every input, whatever the count, so the
// leak checker sees every allocation released. (The one leak accepted in
// this area, the copies dropped by set_pellan_admin_polices when the count is
// negative, lies in the caller, which this target does not run.)
#include "fuzz-sandbox.h"
#include "pellan-launcher.h"

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace {

constexpr const char *input_path = "/tmp/fuzz-admin-profile";
constexpr const char *missing_path = "/tmp/fuzz-admin-profile-missing";
constexpr size_t policy_token_max = 99;
constexpr size_t timestamp_token_max = PELLAN_TIMESTAMP_SIZE - 1;

bool is_c_blank(uint8_t c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// The tokens of data as fscanf("%<max>s") reads them one after the other.
std::vector<std::string> tokens_of(const uint8_t *data, size_t size, size_t max)
{
    std::vector<std::string> tokens;
    size_t i = 0;
    for (;;) {
        while (i < size && is_c_blank(data[i]))
            ++i;
        if (i == size)
            return tokens;
        std::string token;
        while (i < size && !is_c_blank(data[i]) && token.size() < max)
            token.push_back(char(data[i++]));
        tokens.push_back(token);
    }
}

void write_input(const uint8_t *data, size_t size)
{
    FILE *file = fopen(input_path, "w");
    fuzz_check(file != nullptr);
    fuzz_check(fwrite(data, 1, size, file) == size);
    fuzz_check(fclose(file) == 0);
}

void check_policy(const std::vector<std::string> &tokens)
{
    std::vector<pellan_admin_policy> policy;
    long count = get_policy(input_path, policy);
    if (tokens.empty()) {
        fuzz_check(count == -1);
        fuzz_check(policy.empty());
        return;
    }
    fuzz_check(count == strtol(tokens[0].c_str(), nullptr, 10));
    fuzz_check(policy.size() == tokens.size() - 1);
    for (size_t i = 0; i < policy.size(); ++i) {
        const pellan_admin_policy &record = policy[i];
        fuzz_check(strcmp(record.bucket, "USER_TYPE_ADMIN") == 0);
        fuzz_check(strcmp(record.client, "*") == 0);
        fuzz_check(strcmp(record.user, "*") == 0);
        fuzz_check(record.privilege != nullptr);
        fuzz_check(strcmp(record.privilege, tokens[i + 1].c_str()) == 0);
        fuzz_check(record.result == 65535);
        fuzz_check(record.result_extra == nullptr);
    }
    policy_free(policy);
}

void check_timestamp(int (*reader)(const char *, char *), const std::vector<std::string> &tokens,
                     const char *path = input_path)
{
    char token[PELLAN_TIMESTAMP_SIZE];
    memset(token, 0x5a, sizeof token);
    int result = reader(path, token);
    char expected[PELLAN_TIMESTAMP_SIZE] = {};
    if (tokens.empty()) {
        fuzz_check(result == -1);
    } else {
        fuzz_check(result == 0);
        memcpy(expected, tokens[0].data(), tokens[0].size());
    }
    // Zero-filled before the read in every case.
    fuzz_check(memcmp(token, expected, sizeof token) == 0);
}

// A file that cannot be opened reads like one without any token.
void check_missing_file(void)
{
    unlink(missing_path);
    std::vector<pellan_admin_policy> policy;
    fuzz_check(get_policy(missing_path, policy) == -1);
    fuzz_check(policy.empty());
    check_timestamp(get_timestamp_ro, {}, missing_path);
    check_timestamp(get_timestamp_rw, {}, missing_path);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_require_sandbox();
    check_missing_file();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    write_input(data, size);
    check_policy(tokens_of(data, size, policy_token_max));
    const std::vector<std::string> timestamp_tokens = tokens_of(data, size, timestamp_token_max);
    check_timestamp(get_timestamp_ro, timestamp_tokens);
    check_timestamp(get_timestamp_rw, timestamp_tokens);
    return 0;
}
