/* Host stand-in of the checker's administration library: a client of the
 * stream socket PELLAN_ADMIN_SOCKET_PATH speaking the protocol described in
 * pellan-admin.h and PROTOCOL.md. Requests are built in a small buffer and
 * sent with send(MSG_NOSIGNAL), so a checker that goes away gives -EPIPE
 * rather than SIGPIPE. */
#define _GNU_SOURCE
#include "pellan-admin.h"

#include <errno.h>
#include <poll.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

struct pellan_admin {
    int fd;
    int broken; /* an exchange failed: the stream is out of step */
};

/* Bytes of a request not yet handed to the socket. */
struct request_buffer {
    int fd;
    size_t used;
    unsigned char data[16384];
};

/* connect() interrupted by a signal goes on in the background: wait for it to
 * end and fetch its outcome. */
static int finish_interrupted_connect(int fd)
{
    struct pollfd pfd = { .fd = fd, .events = POLLOUT };
    while (poll(&pfd, 1, -1) < 0)
        if (errno != EINTR)
            return -errno;
    int error = 0;
    socklen_t len = sizeof error;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len) < 0)
        return -errno;
    return -error;
}

static int connect_to_checker(void)
{
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, PELLAN_ADMIN_SOCKET_PATH, sizeof PELLAN_ADMIN_SOCKET_PATH);

    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -errno;
    int r = 0;
    if (connect(fd, (const struct sockaddr *)&addr, sizeof addr) < 0)
        r = errno == EINTR ? finish_interrupted_connect(fd) : -errno;
    if (r < 0) {
        close(fd);
        return r;
    }
    return fd;
}

int pellan_admin_initialize(struct pellan_admin **admin)
{
    if (!admin)
        return -EINVAL;
    *admin = NULL;
    struct pellan_admin *handle = calloc(1, sizeof *handle);
    if (!handle)
        return -ENOMEM;
    int fd = connect_to_checker();
    if (fd < 0) {
        free(handle);
        return fd;
    }
    handle->fd = fd;
    *admin = handle;
    return 0;
}

static int field_fits(const char *text)
{
    return !text || strnlen(text, PELLAN_ADMIN_MAX_FIELD + 1) <= PELLAN_ADMIN_MAX_FIELD;
}

static int record_fits(const struct pellan_admin_policy *p)
{
    return field_fits(p->bucket) && field_fits(p->client) && field_fits(p->user)
           && field_fits(p->privilege) && field_fits(p->result_extra);
}

/* Counts the records and checks them against the protocol's limits before
 * anything is sent. */
static int check_policies(const struct pellan_admin_policy *const *policies, uint32_t *count)
{
    uint32_t n = 0;
    for (; policies[n]; ++n) {
        if (n == PELLAN_ADMIN_MAX_RECORDS)
            return -E2BIG;
        if (!record_fits(policies[n]))
            return -EMSGSIZE;
    }
    *count = n;
    return 0;
}

static int send_all(int fd, const unsigned char *data, size_t len)
{
    while (len > 0) {
        ssize_t n = send(fd, data, len, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -errno;
        data += n;
        len -= (size_t)n;
    }
    return 0;
}

static int flush_request(struct request_buffer *b)
{
    int r = send_all(b->fd, b->data, b->used);
    b->used = 0;
    return r;
}

static int put_bytes(struct request_buffer *b, const void *data, size_t len)
{
    if (len > sizeof b->data - b->used) {
        int r = flush_request(b);
        if (r < 0)
            return r;
    }
    if (len > sizeof b->data)
        return send_all(b->fd, data, len);
    memcpy(b->data + b->used, data, len);
    b->used += len;
    return 0;
}

static int put_u32(struct request_buffer *b, uint32_t value)
{
    unsigned char bytes[4] = { (unsigned char)(value >> 24), (unsigned char)(value >> 16),
                               (unsigned char)(value >> 8), (unsigned char)value };
    return put_bytes(b, bytes, sizeof bytes);
}

static int put_string(struct request_buffer *b, const char *text)
{
    if (!text)
        return put_u32(b, (uint32_t)-1);
    size_t len = strlen(text);
    int r = put_u32(b, (uint32_t)len);
    return r < 0 ? r : put_bytes(b, text, len);
}

static int put_record(struct request_buffer *b, const struct pellan_admin_policy *p)
{
    int r = put_string(b, p->bucket);
    if (r == 0) r = put_string(b, p->client);
    if (r == 0) r = put_string(b, p->user);
    if (r == 0) r = put_string(b, p->privilege);
    if (r == 0) r = put_u32(b, (uint32_t)p->result);
    if (r == 0) r = put_string(b, p->result_extra);
    return r;
}

static int send_request(struct request_buffer *b,
                        const struct pellan_admin_policy *const *policies, uint32_t count)
{
    int r = put_u32(b, PELLAN_ADMIN_MAGIC);
    if (r == 0)
        r = put_u32(b, count);
    for (uint32_t i = 0; r == 0 && i < count; ++i)
        r = put_record(b, policies[i]);
    return r == 0 ? flush_request(b) : r;
}

/* Reads exactly len bytes; the end of the stream before that is a reset. */
static int recv_all(int fd, unsigned char *data, size_t len)
{
    while (len > 0) {
        ssize_t n = recv(fd, data, len, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -errno;
        if (n == 0)
            return -ECONNRESET;
        data += n;
        len -= (size_t)n;
    }
    return 0;
}

static int receive_verdict(int fd, int *verdict)
{
    unsigned char bytes[4];
    int r = recv_all(fd, bytes, sizeof bytes);
    if (r < 0)
        return r;
    uint32_t value = (uint32_t)bytes[0] << 24 | (uint32_t)bytes[1] << 16
                     | (uint32_t)bytes[2] << 8 | bytes[3];
    *verdict = (int)value;
    return 0;
}

int pellan_admin_set_policies(struct pellan_admin *admin,
                              const struct pellan_admin_policy *const *policies)
{
    if (!admin || !policies)
        return -EINVAL;
    if (admin->broken)
        return -ENOTCONN;
    uint32_t count = 0;
    int r = check_policies(policies, &count);
    if (r < 0)
        return r;
    struct request_buffer *b = malloc(sizeof *b);
    if (!b)
        return -ENOMEM;
    b->fd = admin->fd;
    b->used = 0;
    int verdict = 0;
    r = send_request(b, policies, count);
    free(b);
    if (r == 0)
        r = receive_verdict(admin->fd, &verdict);
    if (r < 0) {
        admin->broken = 1;
        return r;
    }
    return verdict;
}

int pellan_admin_finish(struct pellan_admin *admin)
{
    if (!admin)
        return -EINVAL;
    close(admin->fd);
    free(admin);
    return 0;
}
