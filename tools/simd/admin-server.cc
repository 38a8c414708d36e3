// The simulated checker's admin connection: reads requests through a bounded
// buffer, writes one line per record to the record file and answers each
// request with the configured verdict.
#include "admin-server.h"

#include <pellan-admin.h>

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

namespace {

// Bytes received from the client and not yet decoded.
struct admin_reader {
    int fd;
    size_t pos;
    size_t len;
    unsigned char data[65536];
};

// Record lines not yet written; only whole lines are ever held.
struct record_sink {
    int fd;
    std::string pending;
};

// A record as decoded; a null text has is_null set.
struct admin_field {
    bool is_null;
    std::string text;
};

struct admin_record {
    admin_field bucket, client, user, privilege;
    int32_t result;
    admin_field result_extra;
};

constexpr size_t sink_flush_size = 65536;

enum class read_status { ok, end_of_stream, failed };

// Refills the buffer; end_of_stream when the client closed.
read_status fill_reader(admin_reader &r)
{
    for (;;) {
        ssize_t n = read(r.fd, r.data, sizeof r.data);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return read_status::failed;
        if (n == 0)
            return read_status::end_of_stream;
        r.pos = 0;
        r.len = static_cast<size_t>(n);
        return read_status::ok;
    }
}

// Copies exactly len bytes out of the stream into out.
read_status read_exact(admin_reader &r, void *out, size_t len)
{
    auto *dst = static_cast<unsigned char *>(out);
    while (len > 0) {
        if (r.pos == r.len) {
            read_status s = fill_reader(r);
            if (s != read_status::ok)
                return s;
        }
        size_t take = r.len - r.pos < len ? r.len - r.pos : len;
        memcpy(dst, r.data + r.pos, take);
        r.pos += take;
        dst += take;
        len -= take;
    }
    return read_status::ok;
}

bool read_u32(admin_reader &r, uint32_t *value)
{
    unsigned char b[4];
    if (read_exact(r, b, sizeof b) != read_status::ok)
        return false;
    *value = uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | b[3];
    return true;
}

bool read_field(admin_reader &r, admin_field *field)
{
    uint32_t raw = 0;
    if (!read_u32(r, &raw))
        return false;
    int32_t len = static_cast<int32_t>(raw);
    field->is_null = len == -1;
    field->text.clear();
    if (field->is_null)
        return true;
    if (len < 0 || len > PELLAN_ADMIN_MAX_FIELD)
        return false;
    field->text.resize(static_cast<size_t>(len));
    return read_exact(r, field->text.data(), field->text.size()) == read_status::ok;
}

bool read_record(admin_reader &r, admin_record *rec)
{
    if (!read_field(r, &rec->bucket) || !read_field(r, &rec->client)
        || !read_field(r, &rec->user) || !read_field(r, &rec->privilege))
        return false;
    uint32_t result = 0;
    if (!read_u32(r, &result))
        return false;
    rec->result = static_cast<int32_t>(result);
    return read_field(r, &rec->result_extra);
}

// Reads a request header: 1 with the record count, 0 when the client closed
// between requests, -1 on a fault.
int read_header(admin_reader &r, uint32_t *count)
{
    unsigned char magic[4];
    read_status s = read_exact(r, magic, 1);
    if (s == read_status::end_of_stream)
        return 0;
    if (s != read_status::ok || read_exact(r, magic + 1, 3) != read_status::ok)
        return -1;
    uint32_t value = uint32_t{magic[0]} << 24 | uint32_t{magic[1]} << 16
                     | uint32_t{magic[2]} << 8 | magic[3];
    if (value != PELLAN_ADMIN_MAGIC || !read_u32(r, count))
        return -1;
    return *count <= PELLAN_ADMIN_MAX_RECORDS ? 1 : -1;
}

void append_text(std::string &line, const admin_field &field)
{
    if (field.is_null) {
        line += "(null)";
        return;
    }
    for (unsigned char c : field.text) {
        if (c == '\\') {
            line += "\\\\";
        } else if (c < 0x21 || c == 0x7f) {
            char esc[5];
            snprintf(esc, sizeof esc, "\\x%02x", c);
            line += esc;
        } else {
            line += static_cast<char>(c);
        }
    }
}

void format_record(std::string &out, const admin_record &rec)
{
    out += "bucket=";
    append_text(out, rec.bucket);
    out += " client=";
    append_text(out, rec.client);
    out += " user=";
    append_text(out, rec.user);
    out += " privilege=";
    append_text(out, rec.privilege);
    out += " result=";
    out += std::to_string(rec.result);
    out += " result_extra=";
    append_text(out, rec.result_extra);
    out += '\n';
}

bool write_all(int fd, const char *data, size_t len)
{
    while (len > 0) {
        ssize_t n = write(fd, data, len);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        data += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

// One write of whole lines: with O_APPEND, lines of other connections land
// before or after them, never inside.
bool flush_sink(record_sink &sink)
{
    if (sink.fd < 0 || sink.pending.empty()) {
        sink.pending.clear();
        return true;
    }
    bool ok = write_all(sink.fd, sink.pending.data(), sink.pending.size());
    sink.pending.clear();
    return ok;
}

bool record_line(record_sink &sink, const admin_record &rec)
{
    if (sink.fd < 0)
        return true;
    format_record(sink.pending, rec);
    return sink.pending.size() < sink_flush_size || flush_sink(sink);
}

bool open_sink(record_sink &sink, const char *record_path)
{
    sink.fd = -1;
    if (!record_path)
        return true;
    sink.fd = open(record_path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0666);
    if (sink.fd < 0)
        return false;
    // The umask may have narrowed the mode; the tests read the file as it is.
    (void)fchmod(sink.fd, 0666);
    return true;
}

bool send_verdict(int fd, int verdict)
{
    uint32_t v = static_cast<uint32_t>(verdict);
    unsigned char b[4] = {static_cast<unsigned char>(v >> 24), static_cast<unsigned char>(v >> 16),
                          static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
    size_t done = 0;
    while (done < sizeof b) {
        ssize_t n = send(fd, b + done, sizeof b - done, MSG_NOSIGNAL);
        if (n < 0 && errno == ENOTSOCK)
            n = write(fd, b + done, sizeof b - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// Serves one request: 1 when served, 0 when the client closed, -1 on a fault.
int serve_request(admin_reader &r, record_sink &sink, int verdict)
{
    uint32_t count = 0;
    int h = read_header(r, &count);
    if (h <= 0)
        return h;
    admin_record rec{};
    for (uint32_t i = 0; i < count; ++i)
        if (!read_record(r, &rec) || !record_line(sink, rec)) {
            flush_sink(sink);
            return -1;
        }
    if (!flush_sink(sink) || !send_verdict(r.fd, verdict))
        return -1;
    return 1;
}

} // namespace

int sim_admin_serve_connection(int client_fd, const char *record_path, int verdict)
{
    record_sink sink;
    if (!open_sink(sink, record_path))
        return -1;
    auto reader = std::make_unique<admin_reader>();
    reader->fd = client_fd;
    int r = 1;
    while (r == 1)
        r = serve_request(*reader, sink, verdict);
    if (sink.fd >= 0)
        close(sink.fd);
    return r;
}
