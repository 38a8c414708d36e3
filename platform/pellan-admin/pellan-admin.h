/* Administration library of the access-policy checker. The device ships the
 * real one; this header and the host stand-in in this folder keep the same
 * interface. */
#ifndef PELLAN_ADMIN_H
#define PELLAN_ADMIN_H

#ifdef __cplusplus
extern "C" {
#endif

struct pellan_admin;

struct pellan_admin_policy {
    const char *bucket;
    const char *client;
    const char *user;
    const char *privilege;
    int result;
    const char *result_extra;
};

/* Connects to the checker; on success sets *admin and returns 0. */
int pellan_admin_initialize(struct pellan_admin **admin);

/* Sends a null-terminated array of policy records; returns 0 when the checker
 * accepted them. */
int pellan_admin_set_policies(struct pellan_admin *admin,
                              const struct pellan_admin_policy *const *policies);

/* Closes the connection and releases the handle. */
int pellan_admin_finish(struct pellan_admin *admin);

#ifdef __cplusplus
}
#endif

#endif
