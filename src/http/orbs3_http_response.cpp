#include "http/orbs3_http_response.h"

#include <sys/sendfile.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "memory/orbs3_assert.h"
#include "core/orbs3_config.h"
#include "core/orbs3_log.h"
#include "event/neo_event_timer.h"
#include "event/orbs3_epoll.h"
#include "http/orbs3_http_request.h"
#include "http/orbs3_http_head_text.h"

// ---- the status table ----

#define ORBS3_PAGE(n, reason)                                                                               \
    "<html>\r\n<head><title>" #n " " reason "</title></head>\r\n<body bgcolor=\"white\">\r\n<center><h1>" #n \
    " " reason "</h1></center>\r\n"
#define ORBS3_ROW(n, reason) {n, reason, ORBS3_PAGE(n, reason)}
// 494 to 497 are variants of 400: the page says so and names the cause below.
#define ORBS3_ROW_400(n, reason)                                                                            \
    {n, reason,                                                                                             \
     "<html>\r\n<head><title>400 " reason "</title></head>\r\n<body bgcolor=\"white\">\r\n"                  \
     "<center><h1>400 Bad Request</h1></center>\r\n<center>" reason "</center>\r\n"}

const orbs3_http_status_t http_status_code[] = {
    {200, "OK", nullptr},
    {204, "No Content", nullptr},
    ORBS3_ROW(301, "Moved Permanently"),
    ORBS3_ROW(302, "Found"),
    {303, "Request Redirect",
     "<html>\r\n<head><title>303 Request Redirect</title></head>\r\n<body bgcolor=\"white\">\r\n"
     "<center><h1>Server is being maintained. Please wait.</h1></center>\r\n"},
    ORBS3_ROW(304, "Not Modified"),
    ORBS3_ROW(307, "Temporary Redirect"),
    ORBS3_ROW(400, "Bad Request"),
    ORBS3_ROW(401, "Authorization Required"),
    ORBS3_ROW(402, "Payment Required"),
    ORBS3_ROW(403, "Forbidden"),
    ORBS3_ROW(404, "Not Found"),
    ORBS3_ROW(405, "Not Allowed"),
    ORBS3_ROW(406, "Not Acceptable"),
    ORBS3_ROW(408, "Request Time-out"),
    ORBS3_ROW(409, "Conflict"),
    ORBS3_ROW(410, "Gone"),
    ORBS3_ROW(411, "Length Required"),
    ORBS3_ROW(412, "Precondition Failed"),
    ORBS3_ROW(413, "Request Entity Too Large"),
    ORBS3_ROW(414, "Request-URI Too Large"),
    ORBS3_ROW(415, "Unsupported Media Type"),
    ORBS3_ROW(416, "Requested Range Not Satisfiable"),
    ORBS3_ROW(421, "Misdirected Request"),
    ORBS3_ROW_400(494, "Request Header Or Cookie Too Large"),
    ORBS3_ROW_400(495, "The SSL certificate error"),
    ORBS3_ROW_400(496, "No required SSL certificate was sent"),
    ORBS3_ROW_400(497, "The plain HTTP request was sent to HTTPS port"),
    ORBS3_ROW(500, "Internal Server Error"),
    ORBS3_ROW(501, "Not Implemented"),
    ORBS3_ROW(502, "Bad Gateway"),
    ORBS3_ROW(503, "Service Temporarily Unavailable"),
    ORBS3_ROW(504, "Gateway Time-out"),
    ORBS3_ROW(507, "Insufficient Storage"),
    {0, nullptr, nullptr},
};

#undef ORBS3_ROW_400
#undef ORBS3_ROW
#undef ORBS3_PAGE

const orbs3_http_status_t* orbs3_http_find_status(uint32_t code)
{
    for (const orbs3_http_status_t* s = http_status_code; s->code != 0; s++) {
        if (s->code == code)
            return s;
    }
    return nullptr;
}

// ---- dates ----

namespace {

constexpr const char* kWeekdays[7] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
// The names clients of this server have always seen, "jul" and "Sept" included.
constexpr const char* kMonths[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                     "jul", "Aug", "Sept", "Oct", "Nov", "Dec"};

time_t system_clock()
{
    return time(nullptr);
}

}  // namespace

orbs3_http_clock_pt orbs3_http_clock = system_clock;

void orbs3_http_format_gmt(time_t t, char* buf, std::size_t size)
{
    struct tm tm;
    orbs3_gmtime(t, &tm);
    std::snprintf(buf, size, "%s, %d %s %d %02d:%02d:%02d GMT", kWeekdays[tm.tm_wday], tm.tm_mday,
                  kMonths[tm.tm_mon], tm.tm_year + 1900, tm.tm_hour, tm.tm_min, tm.tm_sec);
}

void get_gmt_time(char* buf, std::size_t size)
{
    orbs3_http_format_gmt(orbs3_http_clock(), buf, size);
}

void get_gmt_meta_time(char* buf, std::size_t size)
{
    struct tm tm;
    orbs3_gmtime(orbs3_http_clock(), &tm);
    std::snprintf(buf, size, "%d-%02d-%02dT%02d:%02d:%02d.000Z", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                  tm.tm_hour, tm.tm_min, tm.tm_sec);
}

// ---- writing ----

namespace {

// Appends to the connection's queue. The queue memory comes from the connection's pool and grows by
// doubling; a grown block that the pool keeps as a large allocation goes back at once.
int queue_append(orbs3_connection_t* c, const uint8_t* data, std::size_t len)
{
    orbs3_buf_t* b = c->send_buf;
    if (b == nullptr) {
        b = static_cast<orbs3_buf_t*>(orbs3_pcalloc(c->pool, sizeof(orbs3_buf_t)));
        if (b == nullptr) {
            ipd_log(LOG_ERR, "no memory for the pending reply of fd=%d", c->fd);
            return -1;
        }
        c->send_buf = b;
    }
    std::size_t unsent = static_cast<std::size_t>(b->last - b->pos);
    if (len > ORBS3_HTTP_SEND_PENDING_MAX - unsent) {
        ipd_log(LOG_ERR, "reply of fd=%d would hold back more than %zu bytes", c->fd, ORBS3_HTTP_SEND_PENDING_MAX);
        return -1;
    }
    std::size_t need = unsent + len;
    if (static_cast<std::size_t>(b->end - b->last) < len) {
        if (static_cast<std::size_t>(b->end - b->start) >= need) {
            if (unsent != 0)
                std::memmove(b->start, b->pos, unsent);
        } else {
            std::size_t cap = std::max<std::size_t>({need, 2 * static_cast<std::size_t>(b->end - b->start), 4096});
            cap = std::min(cap, ORBS3_HTTP_SEND_PENDING_MAX);
            auto* mem = static_cast<uint8_t*>(orbs3_pnalloc(c->pool, cap));
            if (mem == nullptr) {
                ipd_log(LOG_ERR, "no memory for the pending reply of fd=%d", c->fd);
                return -1;
            }
            if (unsent != 0)
                std::memcpy(mem, b->pos, unsent);
            if (b->start != nullptr)
                (void)orbs3_pfree(c->pool, b->start);
            b->start = mem;
            b->end = mem + cap;
        }
        b->pos = b->start;
        b->last = b->start + unsent;
    }
    ORBS3_ASSERT(b->pos <= b->last && static_cast<std::size_t>(b->end - b->last) >= len);
    std::memcpy(b->last, data, len);
    b->last += len;
    return 0;
}

void drop_pending(orbs3_connection_t* c)
{
    if (c->send_buf != nullptr)
        c->send_buf->pos = c->send_buf->last = c->send_buf->start;
}

void close_by_exit_handler(orbs3_connection_t* c)
{
    if (c->exit_handler != nullptr)
        c->exit_handler(c);
    else
        orbs3_close_connection(c);
}

// Bytes read from the file on TLS connections before they go through send: bounded, so a large file
// costs the connection no more memory than this.
constexpr std::size_t kFileSlice = 64u << 10;
// sendfile moves at most a little under 2 GiB per call.
constexpr int64_t kSendfileMax = 1 << 30;

bool file_pending(const orbs3_connection_t* c)
{
    return c->send_file_fd >= 0;
}

// The file has gone, or failed: the descriptor is closed and the slice given back.
void file_done(orbs3_connection_t* c)
{
    if (c->send_file_fd >= 0)
        close(c->send_file_fd);
    c->send_file_fd = -1;
    c->send_file_pos = c->send_file_end = 0;
    c->send_file_ahead = 0;
    if (c->send_file_slice != nullptr) {
        if (c->send_file_slice->start != nullptr)
            (void)orbs3_pfree(c->pool, c->send_file_slice->start);
        c->send_file_slice->start = c->send_file_slice->end = nullptr;
        c->send_file_slice->pos = c->send_file_slice->last = nullptr;
    }
}

std::size_t slice_unsent(const orbs3_connection_t* c)
{
    const orbs3_buf_t* s = c->send_file_slice;
    return s == nullptr ? 0 : static_cast<std::size_t>(s->last - s->pos);
}

void log_short_file(const orbs3_connection_t* c)
{
    ipd_log(LOG_ERR, "file of the reply to fd=%d ended %lld bytes early", c->fd,
            static_cast<long long>(c->send_file_end - c->send_file_pos));
}

// Plain connection: the kernel copies from the page cache to the socket. 0 when the range has gone, -2
// when the socket is full, -1 on error.
int send_file_plain(orbs3_connection_t* c)
{
    while (c->send_file_pos < c->send_file_end) {
        off_t off = c->send_file_pos;
        auto chunk = static_cast<std::size_t>(std::min(c->send_file_end - c->send_file_pos, kSendfileMax));
        ssize_t n = sendfile(c->fd, c->send_file_fd, &off, chunk);
        if (n > 0) {
            c->send_file_pos += n;
            continue;
        }
        if (n == 0) {
            log_short_file(c);
            return -1;
        }
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            return -2;
        ipd_debug("sendfile to fd=%d failed with %lld bytes left: %d", c->fd,
                  static_cast<long long>(c->send_file_end - c->send_file_pos), errno);
        return -1;
    }
    return 0;
}

// TLS connection: slices read into a buffer of the connection and sent through c->send. A slice the
// socket did not take whole is kept and resent as it is, never read again.
int send_file_sliced(orbs3_connection_t* c)
{
    orbs3_buf_t* s = c->send_file_slice;
    if (s == nullptr) {
        s = static_cast<orbs3_buf_t*>(orbs3_pcalloc(c->pool, sizeof(orbs3_buf_t)));
        if (s == nullptr) {
            ipd_log(LOG_ERR, "no memory for the file of the reply to fd=%d", c->fd);
            return -1;
        }
        c->send_file_slice = s;
    }
    if (s->start == nullptr) {
        s->start = static_cast<uint8_t*>(orbs3_pnalloc(c->pool, kFileSlice));
        if (s->start == nullptr) {
            ipd_log(LOG_ERR, "no memory for the file of the reply to fd=%d", c->fd);
            return -1;
        }
        s->end = s->start + kFileSlice;
        s->pos = s->last = s->start;
    }
    for (;;) {
        ORBS3_ASSERT(s->start <= s->pos && s->pos <= s->last && s->last <= s->end);
        if (s->pos == s->last) {
            if (c->send_file_pos >= c->send_file_end)
                return 0;
            auto want = static_cast<std::size_t>(
                std::min<int64_t>(c->send_file_end - c->send_file_pos, static_cast<int64_t>(kFileSlice)));
            ssize_t k = pread(c->send_file_fd, s->start, want, c->send_file_pos);
            if (k < 0 && errno == EINTR)
                continue;
            if (k < 0) {
                ipd_log(LOG_ERR, "reading the file of the reply to fd=%d failed: %d", c->fd, errno);
                return -1;
            }
            if (k == 0) {
                log_short_file(c);
                return -1;
            }
            c->send_file_pos += k;
            s->pos = s->start;
            s->last = s->start + k;
        }
        ssize_t n = c->send(c, s->pos, static_cast<std::size_t>(s->last - s->pos));
        if (n == -2)
            return -2;
        if (n <= 0) {
            ipd_debug("file of the reply to fd=%d failed with %lld bytes left", c->fd,
                      static_cast<long long>(c->send_file_end - c->send_file_pos + (s->last - s->pos)));
            return -1;
        }
        s->pos += n;
    }
}

// Sends the file and closes it once it has gone; 0, -2 or -1 (the file closed too).
int send_file_tail(orbs3_connection_t* c)
{
    int rc = c->ssl != nullptr ? send_file_sliced(c) : send_file_plain(c);
    if (rc != -2)
        file_done(c);
    return rc;
}

// Sends queued bytes until *left of them have gone, counting *left down; 0, -2 or -1.
int send_queued(orbs3_connection_t* c, std::size_t* left)
{
    orbs3_buf_t* b = c->send_buf;
    while (*left != 0) {
        ssize_t n = c->send(c, b->pos, *left);
        if (n == -2)
            return -2;
        if (n <= 0) {
            ipd_debug("pending reply to fd=%d failed with %zu bytes left", c->fd,
                      static_cast<std::size_t>(b->last - b->pos));
            return -1;
        }
        b->pos += n;
        *left -= static_cast<std::size_t>(n);
    }
    return 0;
}

}  // namespace

std::size_t orbs3_http_send_pending(const orbs3_connection_t* c)
{
    if (c == nullptr)
        return 0;
    std::size_t n = 0;
    if (c->send_buf != nullptr)
        n = static_cast<std::size_t>(c->send_buf->last - c->send_buf->pos);
    if (file_pending(c))
        n += static_cast<std::size_t>(c->send_file_end - c->send_file_pos) + slice_unsent(c);
    return n;
}

int orbs3_http_send_response_bytes(orbs3_connection_t* c, const void* data, std::size_t len)
{
    if (c == nullptr)
        return 0;
    if (data == nullptr)
        return -1;
    const auto* p = static_cast<const uint8_t*>(data);
    std::size_t sent = 0;
    // Behind pending output (a pending file included) nothing may overtake it.
    if (orbs3_http_send_pending(c) == 0) {
        while (sent < len) {
            ssize_t n = c->send(c, p + sent, len - sent);
            if (n == -2)
                break;
            if (n <= 0) {
                ipd_debug("reply to fd=%d failed after %zu of %zu bytes", c->fd, sent, len);
                return -1;
            }
            sent += static_cast<std::size_t>(n);
        }
        if (sent == len)
            return 0;
    }
    return queue_append(c, p + sent, len - sent);
}

int orbs3_http_send_response_data(orbs3_connection_t* c, const char* text)
{
    if (text == nullptr)
        return -1;
    return orbs3_http_send_response_bytes(c, text, std::strlen(text));
}

int orbs3_http_send_flush(orbs3_connection_t* c)
{
    if (file_pending(c)) {
        int rc = send_queued(c, &c->send_file_ahead);
        if (rc == 0)
            rc = send_file_tail(c);
        if (rc == -2)
            return -2;
        if (rc == -1) {
            file_done(c);
            drop_pending(c);
            return -1;
        }
    }
    if (c->send_buf == nullptr)
        return 0;
    std::size_t left = static_cast<std::size_t>(c->send_buf->last - c->send_buf->pos);
    int rc = send_queued(c, &left);
    if (rc == -2)
        return -2;
    drop_pending(c);
    return rc;
}

int orbs3_http_send_file(orbs3_connection_t* c, int fd, int64_t offset, int64_t len)
{
    if (c == nullptr) {
        if (fd >= 0)
            close(fd);
        return 0;
    }
    if (fd < 0 || offset < 0 || len < 0 || len > INT64_MAX - offset) {
        ipd_log(LOG_ERR, "file range %lld+%lld of the reply to fd=%d is not valid", static_cast<long long>(offset),
                static_cast<long long>(len), c->fd);
        if (fd >= 0)
            close(fd);
        return -1;
    }
    if (file_pending(c)) {
        ipd_log(LOG_ERR, "reply to fd=%d has a file pending already", c->fd);
        close(fd);
        return -1;
    }
    if (len == 0) {
        close(fd);
        return 0;
    }
    c->send_file_fd = fd;
    c->send_file_pos = offset;
    c->send_file_end = offset + len;
    c->send_file_ahead = c->send_buf != nullptr ? static_cast<std::size_t>(c->send_buf->last - c->send_buf->pos) : 0;
    // Behind queued bytes the file waits for the write events, as any output would.
    if (c->send_file_ahead != 0)
        return 0;
    return send_file_tail(c) == -1 ? -1 : 0;
}

int orbs3_http_send_wait(orbs3_connection_t* c)
{
    if (orbs3_http_send_pending(c) == 0)
        return 0;
    c->write->handler = orbs3_http_send_response_data_again;
    // Set before the event is armed, so the timer never lands on an event already being handled. A
    // timeout of 0 means no deadline.
    if (sysconfig.http_timeout > 0)
        neo_event_add_timer(c->write, static_cast<uint64_t>(sysconfig.http_timeout));
    // A connection not yet in the epoll set is added rather than changed.
    if (orbs3_epoll_w_mod_conn(c->fd, c->epfd, c) != 0 && orbs3_epoll_w_add_conn(c->fd, c->epfd, c) != 0) {
        neo_event_del_timer(c->write);
        return -1;
    }
    return -2;
}

void orbs3_http_send_response_data_again(orbs3_event_t* ev)
{
    auto* c = static_cast<orbs3_connection_t*>(ev->data);
    if (ev->timedout) {
        ipd_debug("client of fd=%d took nothing for %d seconds, closing", c->fd, sysconfig.http_timeout);
        close_by_exit_handler(c);
        return;
    }
    neo_event_del_timer(ev);
    int rc = orbs3_http_send_flush(c);
    if (rc == -2) {
        if (orbs3_http_send_wait(c) != -2)
            close_by_exit_handler(c);
        return;
    }
    if (rc != 0) {
        close_by_exit_handler(c);
        return;
    }
    c->write->handler = orbs3_http_events_empty;
    c->read->handler(c->read);
}

// ---- error pages ----

int orbs3_http_send_error_page(orbs3_connection_t* c, uint32_t status)
{
    if (c == nullptr)
        return 0;
    const orbs3_http_status_t* s = orbs3_http_find_status(status);
    if (s == nullptr) {
        ipd_debug("no error page for status %u", status);
        return 0;
    }
    orbs3_head_text<ORBS3_HTTP_HEAD_LEN> t;
    t.put("HTTP/1.1 ");
    t.put_number(s->code);
    t.put(" ");
    t.put(s->reason);
    t.put("\r\nServer: KELVANE 1.0\r\nConnection: close\r\n\r\n");
    t.put(s->page);
    if (t.overflow) {
        ipd_log(LOG_ERR, "error page %u does not fit %zu bytes", status, ORBS3_HTTP_HEAD_LEN);
        return -1;
    }
    return orbs3_http_send_response_bytes(c, t.data, t.len) == 0 ? 0 : -1;
}

// ---- list-based head ----

int orbs3_http_set_response_headers(orbs3_http_request_t* r, const char* name, const char* value)
{
    if (r == nullptr || name == nullptr || value == nullptr)
        return -1;
    orbs3_list_t* l = &r->headers_out.headers;
    if (l->nalloc == 0 && orbs3_list_init(l, r->pool, 20, sizeof(orbs3_header_t)) != 0)
        return -1;
    std::size_t nlen = std::strlen(name);
    std::size_t vlen = std::strlen(value);
    auto* key = static_cast<char*>(orbs3_pnalloc(r->pool, nlen + 1));
    auto* val = static_cast<char*>(orbs3_pnalloc(r->pool, vlen + 1));
    auto* h = static_cast<orbs3_header_t*>(orbs3_list_push(l));
    if (key == nullptr || val == nullptr || h == nullptr)
        return -1;
    std::memcpy(key, name, nlen + 1);
    std::memcpy(val, value, vlen + 1);
    h->hash = 1;
    h->key = {nlen, key};
    h->value = {vlen, val};
    h->lowcase_key = nullptr;
    return 0;
}

int orbs3_http_send_headers(orbs3_http_request_t* r)
{
    return orbs3_http_send_headers_body(r, nullptr, 0);
}

int orbs3_http_send_headers_body(orbs3_http_request_t* r, const void* body, std::size_t body_len)
{
    if (r == nullptr || r->connection == nullptr)
        return -1;
    // Joined once and written through the connection's send: at most 2 KB copied, and a socket that is
    // full keeps the rest in the same queue as every other reply.
    orbs3_head_text<ORBS3_HTTP_HEADERS_LEN> t;
    t.put("HTTP/1.1 ");
    t.put(std::string_view(r->headers_out.status_line.data ? r->headers_out.status_line.data : "",
                           r->headers_out.status_line.len));
    t.put("\r\n");
    t.put(r->headers_in.connection_type == ORBS3_HTTP_CONNECTION_KEEP_ALIVE ? "Connection: Keep-alive\r\n"
                                                                             : "Connection: close\r\n");
    const orbs3_list_t* l = &r->headers_out.headers;
    if (l->nalloc != 0) {
        for (const orbs3_list_part_t* part = &l->part; part != nullptr; part = part->next) {
            const auto* h = static_cast<const orbs3_header_t*>(part->elts);
            for (uint32_t i = 0; i < part->nelts; i++) {
                if (h[i].key.len == 0)
                    continue;
                t.put(std::string_view(h[i].key.data, h[i].key.len));
                t.put(": ");
                t.put(std::string_view(h[i].value.data, h[i].value.len));
                t.put("\r\n");
            }
        }
    }
    t.put("\r\n");
    if (t.overflow) {
        ipd_log(LOG_ERR, "response headers of fd=%d do not fit %zu bytes", r->connection->fd,
                ORBS3_HTTP_HEADERS_LEN);
        return -1;
    }
    if (body_len == 0)
        return orbs3_http_send_response_bytes(r->connection, t.data, t.len) == 0 ? 0 : -1;
    // Head and body in one write, so they leave in one segment.
    auto* joined = static_cast<char*>(orbs3_pnalloc(r->pool, t.len + body_len));
    if (joined == nullptr)
        return -1;
    std::memcpy(joined, t.data, t.len);
    std::memcpy(joined + t.len, body, body_len);
    return orbs3_http_send_response_bytes(r->connection, joined, t.len + body_len) == 0 ? 0 : -1;
}

bool orbs3_make_utc_time(int year, int mon, int day, int hour, int min, int sec, time_t* t)
{
    if (year < 1970 || mon < 1 || mon > 12 || day < 1 || day > 31 || hour > 23 || min > 59 || sec > 60)
        return false;
    struct tm tm {};
    tm.tm_year = year - 1900;
    tm.tm_mon = mon - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = min;
    tm.tm_sec = sec;
    time_t v = timegm(&tm);
    if (v == static_cast<time_t>(-1))
        return false;
    *t = v;
    return true;
}
