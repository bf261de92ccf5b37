#include "http/orbs3_http_request_body.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "core/orbs3_config.h"
#include "core/orbs3_log.h"
#include "event/neo_event_timer.h"
#include "event/orbs3_connection.h"
#include "event/orbs3_epoll.h"
#include "event/orbs3_fd.h"
#include "http/orbs3_http_parse.h"
#include "http/orbs3_http_request.h"
#include "http/orbs3_http_response.h"
#include "memory/neo_string.h"

namespace {

// Raw bytes of a chunked body are read at most this many at a time; the decoder's lower bound of what is
// still to come keeps the read from ever taking bytes of a next request.
constexpr std::size_t kRawSize = 64 * 1024;

constexpr char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";

std::size_t unread(const orbs3_buf_t* b)
{
    return b == nullptr ? 0 : static_cast<std::size_t>(b->last - b->pos);
}

bool expects_continue(const orbs3_http_request_t* r)
{
    const orbs3_header_t* h = r->headers_in.expect;
    return h != nullptr && r->http_version >= ORBS3_HTTP_VERSION_11 && h->value.len == 12 &&
           orbs3_strncasecmp(h->value.data, "100-continue", 12) == 0;
}

// One read from the socket for the body; the interim answer goes first if the client waits for it.
ssize_t recv_body(orbs3_http_request_t* r, uint8_t* dst, std::size_t cap)
{
    orbs3_connection_t* c = r->connection;
    orbs3_http_request_body_t* rb = r->request_body;
    if (!rb->continue_sent && expects_continue(r)) {
        rb->continue_sent = 1;
        if (orbs3_http_send_response_bytes(c, kContinue, sizeof kContinue - 1) != 0)
            return -1;
    }
    ssize_t n = c->recv(c, dst, cap);
    if (n == 0)
        return ORBS3_HTTP_BODY_INCOMPLETE;
    return n;
}

ssize_t read_length_framed(orbs3_http_request_t* r, uint8_t* dst, std::size_t cap)
{
    orbs3_http_request_body_t* rb = r->request_body;
    if (rb->rest <= 0) {
        rb->ended = 1;
        return 0;
    }
    std::size_t want = std::min<std::size_t>(cap, static_cast<uint64_t>(rb->rest));
    orbs3_buf_t* in = r->header_in;
    ssize_t n;
    if (unread(in) != 0) {
        n = static_cast<ssize_t>(std::min(want, unread(in)));
        std::memcpy(dst, in->pos, static_cast<std::size_t>(n));
        in->pos += n;
    } else {
        n = recv_body(r, dst, want);
        if (n <= 0)
            return n;
    }
    rb->rest -= n;
    rb->received += n;
    if (rb->rest == 0)
        rb->ended = 1;
    return n;
}

ssize_t read_chunked(orbs3_http_request_t* r, uint8_t* dst, std::size_t cap)
{
    orbs3_http_request_body_t* rb = r->request_body;
    for (;;) {
        // Bytes that came with the head first, then what was read from the socket.
        orbs3_buf_t* src = unread(r->header_in) != 0 ? r->header_in : rb->raw;
        if (unread(src) == 0) {
            if (rb->raw == nullptr) {
                rb->raw = orbs3_create_temp_buf(rb->pool, kRawSize);
                if (rb->raw == nullptr)
                    return -1;
            }
            src = rb->raw;
            src->pos = src->last = src->start;
            std::size_t want = std::clamp<uint64_t>(rb->chunked.length, 1, kRawSize);
            ssize_t n = recv_body(r, src->last, want);
            if (n <= 0)
                return n;
            src->last += n;
        }
        std::size_t consumed = 0;
        std::size_t produced = 0;
        int rc = orbs3_http_dechunk(&rb->chunked, src->pos, unread(src), dst, cap, &consumed, &produced);
        src->pos += consumed;
        if (rc == ORBS3_CHUNKED_INVALID) {
            ipd_log(LOG_ERR, "client sent invalid chunked body");
            return ORBS3_HTTP_BODY_INVALID;
        }
        if (rc == ORBS3_CHUNKED_DONE)
            rb->ended = 1;
        rb->received += static_cast<ssize_t>(produced);
        if (produced != 0)
            return static_cast<ssize_t>(produced);
        if (rb->ended)
            return 0;
    }
}

// The links of a complete document joined into the last link's place, so a handler reads one buffer.
int join_document(orbs3_http_request_body_t* rb)
{
    if (rb->chain_count < 2)
        return 0;
    orbs3_buf_t* whole = orbs3_create_temp_buf(rb->pool, static_cast<std::size_t>(rb->received) + 1);
    if (whole == nullptr)
        return -1;
    for (orbs3_chain_t* cl = rb->chain; cl != nullptr; cl = cl->next) {
        std::size_t n = unread(cl->buf);
        if (n != 0)
            std::memcpy(whole->last, cl->buf->pos, n);
        whole->last += n;
    }
    *whole->last = '\0';
    rb->buf = whole;
    return 0;
}

}  // namespace

const char* orbs3_http_body_document(orbs3_http_request_t* r)
{
    orbs3_http_request_body_t* rb = r->request_body;
    if (rb == nullptr || rb->buf == nullptr)
        return "";
    orbs3_buf_t* b = rb->buf;
    if (b->last < b->end) {
        *b->last = '\0';
        return reinterpret_cast<const char*>(b->pos);
    }
    // A document that filled its buffer to the end gets a copy with room for the NUL.
    std::size_t n = unread(b);
    orbs3_buf_t* whole = orbs3_create_temp_buf(rb->pool, n + 1);
    if (whole == nullptr)
        return nullptr;
    if (n != 0)
        std::memcpy(whole->last, b->pos, n);
    whole->last += n;
    *whole->last = '\0';
    rb->buf = whole;
    return reinterpret_cast<const char*>(whole->pos);
}

int orbs3_http_continue_without_body(orbs3_http_request_t* r)
{
    if (orbs3_http_has_body(r) || !expects_continue(r))
        return 0;
    return orbs3_http_send_response_bytes(r->connection, kContinue, sizeof kContinue - 1) == 0 ? 0 : -1;
}

bool orbs3_http_has_body(const orbs3_http_request_t* r)
{
    return r->headers_in.chunked || r->content_length > 0;
}

bool orbs3_http_body_consumed(const orbs3_http_request_t* r)
{
    if (!orbs3_http_has_body(r))
        return true;
    return r->request_body != nullptr && r->request_body->ended;
}

int init_request_body_memory(orbs3_http_request_t* r)
{
    if (r->request_body != nullptr) {
        orbs3_destroy_pool(r->request_body->pool);
        r->request_body = nullptr;
    }
    orbs3_pool_ptr pool(orbs3_create_mem_block(sysconfig.recv_buffer));
    if (!pool) {
        ipd_log(LOG_ERR, "Not enough memory create request");
        return -1;
    }
    auto* rb = static_cast<orbs3_http_request_body_t*>(orbs3_pcalloc(pool.get(), sizeof(orbs3_http_request_body_t)));
    orbs3_chain_t* first = rb != nullptr ? orbs3_new_chain(pool.get()) : nullptr;
    if (first == nullptr) {
        ipd_log(LOG_ERR, "Not enough memory create request");
        return -1;
    }
    rb->chain = first;
    rb->chain_count = 1;
    rb->buf = first->buf;
    rb->rest = r->headers_in.chunked ? 0 : std::max<int64_t>(r->content_length, 0);
    rb->pool = pool.release();
    r->request_body = rb;
    return 0;
}

ssize_t orbs3_http_read_body(orbs3_http_request_t* r, uint8_t* dst, std::size_t cap)
{
    if (r->request_body == nullptr && init_request_body_memory(r) != 0)
        return -1;
    orbs3_http_request_body_t* rb = r->request_body;
    if (rb->ended || !orbs3_http_has_body(r)) {
        rb->ended = 1;
        return 0;
    }
    if (cap == 0)
        return -1;
    return r->headers_in.chunked ? read_chunked(r, dst, cap) : read_length_framed(r, dst, cap);
}

int orbs3_http_recv_request_body(orbs3_event_t* ev)
{
    auto* c = static_cast<orbs3_connection_t*>(ev->data);
    auto* r = static_cast<orbs3_http_request_t*>(c->data);
    if (ev->closed || r == nullptr)
        return -1;
    if (ev->timedout) {
        c->exit_handler(c);
        return -1;
    }
    neo_event_del_timer(ev);
    if (r->content_length > ORBS3_HTTP_DOCUMENT_MAX)
        return ORBS3_HTTP_BODY_TOO_LARGE;
    if (r->request_body == nullptr && init_request_body_memory(r) != 0)
        return -1;
    orbs3_http_request_body_t* rb = r->request_body;
    orbs3_chain_t* last = rb->chain;
    while (last->next != nullptr)
        last = last->next;
    while (!rb->ended) {
        if (rb->received >= ORBS3_HTTP_DOCUMENT_MAX)
            return ORBS3_HTTP_BODY_TOO_LARGE;
        orbs3_buf_t* b = last->buf;
        if (b->last == b->end) {
            orbs3_chain_t* cl = orbs3_new_chain(rb->pool);
            if (cl == nullptr) {
                ipd_log(LOG_ERR, "Not enough memory create request");
                return -1;
            }
            last->next = cl;
            last = cl;
            rb->buf = cl->buf;
            rb->chain_count++;
            continue;
        }
        std::size_t room = std::min<uint64_t>(static_cast<std::size_t>(b->end - b->last),
                                              ORBS3_HTTP_DOCUMENT_MAX - rb->received);
        ssize_t n = orbs3_http_read_body(r, b->last, room);
        if (n == -2)
            return -2;
        if (n == ORBS3_HTTP_BODY_INVALID)
            return ORBS3_HTTP_BODY_INVALID;
        if (n < 0) {
            orbs3_http_close_request_and_connection(r);
            return ORBS3_HTTP_CLOSED;
        }
        b->last += n;
    }
    if (join_document(rb) != 0) {
        ipd_log(LOG_ERR, "Not enough memory create request");
        return -1;
    }
    return 0;
}

int orbs3_http_write_body_into_file(orbs3_http_request_t* r, orbs3_upload_file_t* file)
{
    // The descriptor is this function's to close, on every return: the caller finds file->fd -1.
    orbs3_fd fd(std::exchange(file->fd, -1));

    if (r->request_body == nullptr && init_request_body_memory(r) != 0)
        return -1;
    orbs3_buf_t* b = r->request_body->buf;
    for (;;) {
        b->pos = b->last = b->start;
        ssize_t n = orbs3_http_read_body(r, b->last, static_cast<std::size_t>(b->end - b->last));
        if (n == 0)
            break;
        if (n < 0)
            return static_cast<int>(n);
        b->last += n;
        while (b->pos < b->last) {
            ssize_t w = write(fd.get(), b->pos, static_cast<std::size_t>(b->last - b->pos));
            if (w < 0 && errno == EINTR)
                continue;
            if (w < 1) {
                ipd_log(LOG_ERR, "write file %s error,%s", file->path, w < 0 ? strerror(errno) : "nothing written");
                return -1;
            }
            (void)neo_md5_update(&file->md5, b->pos, static_cast<std::size_t>(w));
            b->pos += w;
            file->size += w;
        }
    }
    uint8_t digest[NEO_MD5_LEN];
    if (neo_md5_final(digest, &file->md5) != 0)
        return -1;
    *neo_hex(file->etag, digest, NEO_MD5_LEN) = '\0';
    return 0;
}

int orbs3_http_wait_read(orbs3_connection_t* c, orbs3_event_handler_pt handler)
{
    c->read->handler = handler;
    // Input the connection already holds would raise no read event: the handler is taken up from the
    // event loop instead.
    if (c->pending != nullptr && c->pending(c))
        return orbs3_http_resume_read(c);
    if (orbs3_epoll_r_mod_conn(c->fd, c->epfd, c) != 0 && orbs3_epoll_r_add_conn(c->fd, c->epfd, c) != 0)
        return -1;
    if (sysconfig.http_timeout > 0)
        neo_event_add_timer(c->read, static_cast<uint64_t>(sysconfig.http_timeout));
    return 0;
}
