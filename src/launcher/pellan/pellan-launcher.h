// Row 0: the access-policy checker pellan and the admin-user policy push.
#pragma once

#include <stddef.h>

#include <vector>

#include <pellan-admin.h>

#include "keldra.h"

// The admin-user profile: the version shipped with it, the version last pushed
// to the checker, and the privileges to push.
#define PELLAN_TIMESTAMP_RO_FILE "/usr/share/orvel/policy/usertype-admin.profile-timestamp"
#define PELLAN_TIMESTAMP_RW_FILE "/opt/var/pellan/usertype-admin.profile-timestamp"
#define PELLAN_POLICY_FILE "/usr/share/orvel/policy/usertype-admin.profile-change-privilege"

// The checker, its ready file and its runtime directory.
#define PELLAN_PATH "/usr/bin/pellan"
#define PELLAN_READY_FILE "/run/pellan.ready"
#define PELLAN_RUN_DIR "/run/pellan"

// A timestamp token is read with "%19s": 19 characters and the NUL.
constexpr size_t PELLAN_TIMESTAMP_SIZE = 20;

// Row 0 of launcher_table.
keldra_context *pellan_launcher_create_context(void);
int pellan_launcher_init(keldra_context *context);
void *pellan_launcher_handler(void *context);

// Steps of the handler.
int launch_pellan(void);
int set_sock_perm(const char *path, unsigned mode, unsigned uid, unsigned gid);

// Steps of pellan_launcher_init, each taking the file it works on.

// Read the first token of a timestamp file into token (zero-filled first).
// 0 on success, -1 when the file cannot be opened or holds no token.
int get_timestamp_ro(const char *path, char token[PELLAN_TIMESTAMP_SIZE]);
int get_timestamp_rw(const char *path, char token[PELLAN_TIMESTAMP_SIZE]);

// Append one record per privilege of the policy file to policy, in file
// order. Returns the count announced by the file's first token, or -1 when the
// file cannot be opened or is empty.
long get_policy(const char *path, std::vector<pellan_admin_policy> &policy);

// Push the privileges of policy_path to the checker and, when it accepts
// them, write timestamp to rw_path. Returns 0 when the checker accepted the
// policies or there was nothing to send, -1 otherwise.
int set_pellan_admin_polices(const char *policy_path, const char *rw_path,
                             const char *timestamp);

// Rewrite the read-write timestamp file with timestamp and a line end.
// 0 on success, -1 when the file cannot be opened for writing.
int set_timestamp_rw(const char *path, const char *timestamp);

// Free the privilege copy of every record; the array itself is left as is.
void policy_free(const std::vector<pellan_admin_policy> &policy);
