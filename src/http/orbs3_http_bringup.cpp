// Bring-up code: stands in for the HTTP engine until it exists, and goes when it comes.
#include "http/orbs3_http_bringup.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include "core/orbs3_config.h"
#include "core/orbs3_log.h"
#include "event/orbs3_epoll.h"
#include "event/orbs3_socket.h"
#include "http/orbs3_http_response.h"

namespace {

constexpr std::size_t kBodySize = 1024;
// Header (below 200 bytes with the longest date) plus body.
constexpr std::size_t kReplyCap = 2048;
// Used when http.conf sets no header limit.
constexpr std::size_t kHeadFallback = 1024;

constexpr const char* kReplyHead =
    "HTTP/1.1 200 OK\r\nDate: %s\r\nETag: 347744cc233e4f4f9457c9e3de370497\r\nConnection: keep-alive\r\n"
    "Content-Length:%d\r\nServer: KELVANE\r\n\r\n";

// Where the head ends: just behind the first blank line in [pos, last), or null.
uint8_t* find_head_end(uint8_t* pos, uint8_t* last)
{
    std::string_view text(reinterpret_cast<const char*>(pos), static_cast<std::size_t>(last - pos));
    std::size_t at = text.find("\r\n\r\n");
    return at == std::string_view::npos ? nullptr : pos + at + 4;
}

void close_by_exit_handler(orbs3_connection_t* c)
{
    if (c->exit_handler != nullptr)
        c->exit_handler(c);
    else
        orbs3_close_connection(c);
}

// Answers every complete head in the buffer, then moves what is left of the next one to the buffer's
// start. 0, or -2 while a reply waits for a write event, or -1.
int answer_heads(orbs3_connection_t* c, orbs3_buf_t* head)
{
    while (uint8_t* end = find_head_end(head->pos, head->last)) {
        head->pos = end;
        int rc = test_orbs3_http_send_200_OK(c);
        if (rc != 0)
            return rc;
    }
    if (head->pos != head->start) {
        std::size_t rest = static_cast<std::size_t>(head->last - head->pos);
        std::memmove(head->start, head->pos, rest);
        head->pos = head->start;
        head->last = head->start + rest;
    }
    return 0;
}

orbs3_buf_t* new_buf(orbs3_pool_t* pool, std::size_t size)
{
    auto* b = static_cast<orbs3_buf_t*>(orbs3_pcalloc(pool, sizeof(orbs3_buf_t)));
    if (b == nullptr)
        return nullptr;
    auto* mem = static_cast<uint8_t*>(orbs3_palloc(pool, size));
    if (mem == nullptr)
        return nullptr;
    b->start = b->pos = b->last = mem;
    b->end = mem + size;
    return b;
}

}  // namespace

void orbs3_http_bringup_date(char* out, std::size_t size)
{
    get_gmt_time(out, size);
}

std::size_t orbs3_http_bringup_reply(char* out, std::size_t size, const char* date)
{
    int n = std::snprintf(out, size, kReplyHead, date, static_cast<int>(kBodySize));
    if (n < 0 || static_cast<std::size_t>(n) + kBodySize > size)
        return 0;
    std::memset(out + n, 'a', kBodySize);
    return static_cast<std::size_t>(n) + kBodySize;
}

int test_orbs3_http_send_200_OK(orbs3_connection_t* c)
{
    char reply[kReplyCap];
    char date[ORBS3_HTTP_DATE_LEN];
    orbs3_http_bringup_date(date, sizeof date);
    std::size_t n = orbs3_http_bringup_reply(reply, sizeof reply, date);
    if (n == 0 || orbs3_http_send_response_bytes(c, reply, n) != 0)
        return -1;
    // The socket never turns blocking: the rest leaves on write events, and the thread serves others;
    // the read handler answers the heads behind it once the reply is out.
    return orbs3_http_send_wait(c);
}

void orbs3_http_init_connection(orbs3_connection_t* c)
{
    c->type = 1;
    c->recv = orbs3_recv;
    c->send = orbs3_send;
    c->exit_handler = orbs3_http_connection_exit_handler;
    c->read->handler = orbs3_http_wait_request_handler;
    c->write->handler = orbs3_http_events_empty;
    std::size_t head_size = sysconfig.http_limit_header > 0 ? sysconfig.http_limit_header : kHeadFallback;
    // Until requests exist, `data` holds the head buffer of the connection.
    orbs3_buf_t* head = new_buf(c->pool, head_size);
    c->data = head;
    if (head == nullptr) {
        ipd_log(LOG_ERR, "failed to create connection buffers");
        orbs3_close_connection(c);
        return;
    }
    if (orbs3_epoll_r_add_conn(c->fd, c->epfd, c) != 0)
        orbs3_close_connection(c);
}

void orbs3_http_wait_request_handler(orbs3_event_t* ev)
{
    auto* c = static_cast<orbs3_connection_t*>(ev->data);
    auto* head = static_cast<orbs3_buf_t*>(c->data);
    for (;;) {
        int rc = answer_heads(c, head);
        if (rc == -2)
            return;
        if (rc != 0) {
            close_by_exit_handler(c);
            return;
        }
        if (head->last == head->end) {
            ipd_debug("request head larger than %zu bytes, fd=%d", static_cast<std::size_t>(head->end - head->start),
                      c->fd);
            close_by_exit_handler(c);
            return;
        }
        ssize_t n = c->recv(c, head->last, static_cast<std::size_t>(head->end - head->last));
        if (n == -2) {
            if (orbs3_epoll_r_mod_conn(c->fd, c->epfd, c) != 0)
                close_by_exit_handler(c);
            return;
        }
        if (n <= 0) {
            close_by_exit_handler(c);
            return;
        }
        head->last += n;
    }
}

void orbs3_http_connection_exit_handler(orbs3_connection_t* c)
{
    if (c->listen) {
        ipd_debug("listening fd=%d reported an error", c->fd);
        return;
    }
    orbs3_close_connection(c);
}

void orbs3_http_events_empty(orbs3_event_t* ev)
{
    (void)ev;
}
