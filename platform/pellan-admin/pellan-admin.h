/* Administration library of the access-policy checker. The device ships the
 * real one; this header and the host stand-in in this folder keep the same
 * interface.
 *
 * Host stand-in: the library talks to the checker over the stream socket
 * PELLAN_ADMIN_SOCKET_PATH with the protocol below (also in PROTOCOL.md).
 * All integers are 32 bits, big-endian (network byte order); u32 unsigned,
 * i32 two's complement.
 *
 *   request   := u32 magic (PELLAN_ADMIN_MAGIC, the bytes "PAD1")
 *                u32 count (0 .. PELLAN_ADMIN_MAX_RECORDS)
 *                count * record
 *   record    := string bucket, string client, string user,
 *                string privilege, i32 result, string result_extra
 *   string    := i32 length, then length bytes (no NUL);
 *                length -1 stands for a null pointer (no bytes follow),
 *                otherwise 0 .. PELLAN_ADMIN_MAX_FIELD
 *   answer    := i32 verdict (0 accepted, anything else refused)
 *
 * One connection carries any number of requests, one after the other; every
 * request is answered before the next one is sent. A peer that reads a
 * length or count out of range, a wrong magic, or the end of the stream
 * inside a request drops the connection. */
#ifndef PELLAN_ADMIN_H
#define PELLAN_ADMIN_H

#ifdef __cplusplus
extern "C" {
#endif

#define PELLAN_ADMIN_SOCKET_PATH "/run/pellan/pellan-admin.socket"
#define PELLAN_ADMIN_MAGIC 0x50414431u
#define PELLAN_ADMIN_MAX_FIELD 4096
#define PELLAN_ADMIN_MAX_RECORDS 1000000

struct pellan_admin;

struct pellan_admin_policy {
    const char *bucket;
    const char *client;
    const char *user;
    const char *privilege;
    int result;
    const char *result_extra;
};

/* Connects to the checker; on success sets *admin and returns 0.
 * Host stand-in: otherwise sets *admin to null and returns a negative errno
 * (-EINVAL for a null admin, the connect error such as -ENOENT or
 * -ECONNREFUSED when the checker does not listen). */
int pellan_admin_initialize(struct pellan_admin **admin);

/* Sends a null-terminated array of policy records; returns 0 when the checker
 * accepted them.
 * Host stand-in: returns the checker's verdict (0 accepted, non-zero
 * refused), -EINVAL for a null handle or array, -EMSGSIZE for a text longer
 * than PELLAN_ADMIN_MAX_FIELD bytes and -E2BIG for more than
 * PELLAN_ADMIN_MAX_RECORDS records (nothing is sent in these cases), or a
 * negative errno when the exchange failed (-EPIPE, -ECONNRESET when the
 * checker closed the connection early). After a failed exchange the handle
 * only gives -ENOTCONN; finish it and initialise anew. Blocks until the
 * checker answers; SIGPIPE is never raised. */
int pellan_admin_set_policies(struct pellan_admin *admin,
                              const struct pellan_admin_policy *const *policies);

/* Closes the connection and releases the handle.
 * Host stand-in: returns 0, or -EINVAL for a null handle. */
int pellan_admin_finish(struct pellan_admin *admin);

#ifdef __cplusplus
}
#endif

#endif
