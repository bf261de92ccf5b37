// The life of a connection and its requests: an idle connection waits for bytes, a request is made for
// them in its own pool, its head is read across as many reads as it takes, parsed, given a vhost, and
// handed to the listener's front end; afterwards the connection waits for the next request or closes.
//
// Deadlines (http_timeout seconds): for the rest of a head once its first bytes came, for the next bytes
// of a body, for an idle keep-alive connection and for a client that takes no more of a reply. A request
// ends exactly once: a front end that finished the request itself (orbs3_http_destory_thread_handler)
// returns ORBS3_HTTP_CLOSED, and nothing here touches the request after that.
#include "http/orbs3_http_request.h"

#include <sys/socket.h>

#include <cstring>

#include "core/orbs3_config.h"
#include "core/orbs3_log.h"
#include "event/neo_event_timer.h"
#include "event/orbs3_connection.h"
#include "event/orbs3_epoll.h"
#include "event/orbs3_socket.h"
#include "http/orbs3_http_parse.h"
#include "http/orbs3_http_request_body.h"
#include "http/orbs3_http_response.h"

namespace {

// How long a closing connection goes on reading what the client still sends, and in what slices.
constexpr uint64_t kLingerSeconds = 5;
constexpr std::size_t kLingerRead = 4096;

// Pipelined requests taken one after another in one read event before the others get their turn.
constexpr int kRequestsPerEvent = 32;

void linger_handler(orbs3_event_t* ev)
{
    auto* c = static_cast<orbs3_connection_t*>(ev->data);
    if (ev->timedout || c->closed) {
        orbs3_http_close_connection(c);
        return;
    }
    uint8_t sink[kLingerRead];
    for (;;) {
        ssize_t n = c->recv(c, sink, sizeof sink);
        if (n == -2) {
            // The deadline set at the start stays: a client that keeps sending is cut off all the same.
            if (orbs3_epoll_r_mod_conn(c->fd, c->epfd, c) != 0)
                orbs3_http_close_connection(c);
            return;
        }
        if (n <= 0) {
            orbs3_http_close_connection(c);
            return;
        }
    }
}

// The reply has left: the write side is shut, and what the client still sends is read and dropped for a
// while. Closing with unread bytes would make the kernel reset the connection, and a reset can destroy
// the reply before the client has read it.
void start_linger(orbs3_event_t* ev)
{
    auto* c = static_cast<orbs3_connection_t*>(ev->data);
    if (ev->timedout || c->closed) {
        orbs3_http_close_connection(c);
        return;
    }
    // A TLS session says goodbye (close_notify) while the write side is still open; the lingering reads
    // below then take the socket's bytes as they come.
    if (c->shutdown != nullptr)
        c->shutdown(c);
    (void)shutdown(c->fd, SHUT_WR);
    c->read->handler = linger_handler;
    if (orbs3_epoll_r_mod_conn(c->fd, c->epfd, c) != 0 && orbs3_epoll_r_add_conn(c->fd, c->epfd, c) != 0) {
        orbs3_http_close_connection(c);
        return;
    }
    neo_event_add_timer(c->read, kLingerSeconds);
}

// Ends a connection whose request has gone, after its pending output.
void close_after_reply(orbs3_connection_t* c)
{
    c->data = nullptr;
    c->read->handler = start_linger;
    if (orbs3_http_send_pending(c) == 0) {
        start_linger(c->read);
        return;
    }
    if (orbs3_http_send_wait(c) != -2)
        orbs3_http_close_connection(c);
}

// A write handler that hands over to the read handler: a way back into the event loop, so that the next
// pipelined request is taken up by the loop rather than by a deeper call. The socket reports itself
// writable only while its send buffer has room, so a client that reads no replies holds the next request
// here until the deadline closes it.
void resume_read(orbs3_event_t* ev)
{
    auto* c = static_cast<orbs3_connection_t*>(ev->data);
    if (ev->timedout) {
        ipd_debug("client of fd=%d took no replies for %d seconds, closing", c->fd, sysconfig.http_timeout);
        orbs3_http_connection_exit_handler(c);
        return;
    }
    neo_event_del_timer(ev);
    c->write->handler = orbs3_http_events_empty;
    c->read->handler(c->read);
}

}  // namespace

int orbs3_http_resume_read(orbs3_connection_t* c)
{
    c->write->handler = resume_read;
    if (orbs3_epoll_w_mod_conn(c->fd, c->epfd, c) != 0 && orbs3_epoll_w_add_conn(c->fd, c->epfd, c) != 0)
        return -1;
    if (sysconfig.http_timeout > 0)
        neo_event_add_timer(c->write, static_cast<uint64_t>(sysconfig.http_timeout));
    return 0;
}

namespace {

enum class next_step { stop, process };

// The request has been answered. Keeps the connection for the next request when both sides allow it
// and the whole body was read; otherwise the connection closes after the reply. Bytes behind the request
// start the next one. `inline_next`: the caller loops over requests itself (process is returned);
// otherwise the next request is taken up from the event loop.
next_step finish_request(orbs3_http_request_t* r, bool inline_next)
{
    orbs3_connection_t* c = r->connection;
    const bool keep = r->headers_in.connection_type == ORBS3_HTTP_CONNECTION_KEEP_ALIVE &&
                      orbs3_http_body_consumed(r) && !c->closed;
    if (!keep) {
        orbs3_http_close_request(r);
        close_after_reply(c);
        return next_step::stop;
    }
    orbs3_buf_t* in = r->header_in;
    const std::size_t carry = static_cast<std::size_t>(in->last - in->pos);
    c->data = nullptr;
    if (carry == 0) {
        orbs3_http_close_request(r);
        c->read->handler = orbs3_http_wait_request_handler;
        if (orbs3_http_send_pending(c) != 0) {
            // The wait handler runs once the reply has left; reading sooner would let a client that
            // does not read pile up replies.
            if (orbs3_http_send_wait(c) != -2)
                orbs3_http_close_connection(c);
            return next_step::stop;
        }
        if (orbs3_http_wait_read(c, orbs3_http_wait_request_handler) != 0)
            orbs3_http_close_connection(c);
        return next_step::stop;
    }

    orbs3_http_request_t* next = orbs3_http_create_request(c);
    if (next == nullptr) {
        orbs3_http_close_request(r);
        orbs3_http_close_connection(c);
        return next_step::stop;
    }
    // The bytes came from a buffer of the same size, so they fit, with the zero byte behind them.
    std::memcpy(next->header_in->last, in->pos, carry);
    next->header_in->last += carry;
    *next->header_in->last = '\0';
    next->received = carry;
    orbs3_http_close_request(r);
    c->data = next;
    c->read->handler = orbs3_http_process_get_request_header;
    if (orbs3_http_send_pending(c) != 0) {
        if (orbs3_http_send_wait(c) != -2)
            orbs3_http_close_request_and_connection(next);
        return next_step::stop;
    }
    if (inline_next)
        return next_step::process;
    if (orbs3_http_resume_read(c) != 0)
        orbs3_http_close_request_and_connection(next);
    return next_step::stop;
}

// A reply that refuses the request on its head; the connection closes after it, since what the client
// sends behind such a head cannot be trusted to be a next request.
void refuse(orbs3_http_request_t* r, uint32_t status)
{
    orbs3_connection_t* c = r->connection;
    int rc = orbs3_http_send_error_page(c, status);
    orbs3_http_close_request(r);
    if (rc != 0) {
        orbs3_http_close_connection(c);
        return;
    }
    close_after_reply(c);
}

// Reads more of the head into header_in, keeping one zero byte behind the data. 1: bytes came; 0: none
// yet (read armed); -1: the request has ended (refused, or the connection closed).
int read_head(orbs3_http_request_t* r)
{
    orbs3_connection_t* c = r->connection;
    orbs3_buf_t* in = r->header_in;
    std::size_t room = static_cast<std::size_t>(in->end - in->last);
    if (room <= 1) {
        // A head that fills the buffer without ending. The client is told, so that it stops sending
        // rather than wait for its deadline.
        ipd_log(LOG_ERR, "client sent too large request head: more than %zu bytes",
                static_cast<std::size_t>(in->end - in->start) - 1);
        refuse(r, 400);
        return -1;
    }
    ssize_t n = c->recv(c, in->last, room - 1);
    if (n == -2) {
        if (orbs3_http_wait_read(c, orbs3_http_process_get_request_header) != 0) {
            orbs3_http_close_request_and_connection(r);
            return -1;
        }
        return 0;
    }
    if (n <= 0) {
        orbs3_http_close_request_and_connection(r);
        return -1;
    }
    in->last += n;
    *in->last = '\0';
    r->received += static_cast<uint64_t>(n);
    return 1;
}

// Runs a complete head: parse, vhost, classification, the front end. Returns whether a next request
// waits in this connection to be taken up at once.
next_step run_request(orbs3_http_request_t* r)
{
    orbs3_connection_t* c = r->connection;
    orbs3_buf_t* in = r->header_in;

    // A head that does not parse (a bad request line, a URI that decodes to a NUL or climbs above the
    // root, one too long for the url area) or that the engine cannot serve (no Host, TRACE) is refused.
    if (parser_http_request_handler(r) != 0 || orbs3_http_process_request_header(r) != 0) {
        refuse(r, 400);
        return next_step::stop;
    }
    (void)orbs3_find_virtual_server(r);
    // The parser went through the head; what follows it is body, then possibly the next request.
    in->pos = in->start + r->header_length;

    orbs3_listening_t* ls = c->listening;
    if (r->vhost == nullptr || ls == nullptr || ls->request_handler == nullptr || ls->response_handler == nullptr) {
        refuse(r, 403);
        return next_step::stop;
    }
    (void)ls->request_handler(r);
    if (r->req_msg.action.len == 0) {
        refuse(r, 403);
        return next_step::stop;
    }

    if (orbs3_http_continue_without_body(r) != 0) {
        orbs3_http_close_request_and_connection(r);
        return next_step::stop;
    }
    int rc = ls->response_handler(r);
    if (rc == ORBS3_AGAIN || rc == ORBS3_HTTP_CLOSED)
        return next_step::stop;  // goes on in later events, or already ended
    if (rc == -1) {
        orbs3_http_close_request_and_connection(r);
        return next_step::stop;
    }
    return finish_request(r, true);
}

}  // namespace

void orbs3_http_init_connection(orbs3_connection_t* c)
{
    // A TLS connection comes here after its handshake, with the session's recv and send.
    if (c->ssl == nullptr) {
        c->recv = orbs3_recv;
        c->send = orbs3_send;
    }
    c->read->handler = orbs3_http_wait_request_handler;
    c->write->handler = orbs3_http_events_empty;
    c->exit_handler = orbs3_http_connection_exit_handler;
    c->type = 1;
    c->data = nullptr;
    if (orbs3_epoll_r_add_conn(c->fd, c->epfd, c) != 0) {
        orbs3_http_close_connection(c);
        return;
    }
    if (sysconfig.http_timeout > 0)
        neo_event_add_timer(c->read, static_cast<uint64_t>(sysconfig.http_timeout));
    // The request may be there already: it is read now rather than one epoll pass later.
    orbs3_http_wait_request_handler(c->read);
}

orbs3_http_request_t* orbs3_http_create_request(orbs3_connection_t* c)
{
    const uint64_t head = sysconfig.http_header_in_size;
    const uint64_t space = sysconfig.http_work_space;
    orbs3_pool_ptr pool(orbs3_create_mem_block(sysconfig.request_pool_size));
    if (!pool) {
        ipd_log(LOG_ERR, "Not enough memory create request");
        return nullptr;
    }
    auto* r = static_cast<orbs3_http_request_t*>(orbs3_pcalloc(pool.get(), sizeof(orbs3_http_request_t)));
    if (r == nullptr) {
        ipd_log(LOG_ERR, "Not enough memory create request");
        return nullptr;
    }
    // header_in is not cleared as a whole: the reads keep a zero byte behind the data, which is all the
    // parser relies on. One byte more than configured holds that zero behind a head of the full size.
    r->header_in = orbs3_create_temp_buf(pool.get(), head + 1);
    r->url_buf = orbs3_create_temp_buf(pool.get(), space);
    r->spare_buf = static_cast<orbs3_buf_t*>(orbs3_pcalloc(pool.get(), sizeof(orbs3_buf_t)));
    if (r->header_in == nullptr || r->url_buf == nullptr || r->spare_buf == nullptr) {
        ipd_log(LOG_ERR, "Not enough memory create request");
        return nullptr;
    }
    r->header_in->start[0] = '\0';
    r->content_length = -1;
    r->connection = c;
    r->pool = pool.release();
    // The body record is made when a body is read: most requests have none.
    return r;
}

void orbs3_http_wait_request_handler(orbs3_event_t* ev)
{
    auto* c = static_cast<orbs3_connection_t*>(ev->data);
    if (ev->timedout || c->closed) {
        orbs3_http_close_connection(c);
        return;
    }
    orbs3_http_request_t* r = orbs3_http_create_request(c);
    if (r == nullptr) {
        orbs3_http_close_connection(c);
        return;
    }
    c->data = r;
    orbs3_buf_t* in = r->header_in;
    ssize_t n = c->recv(c, in->last, static_cast<std::size_t>(in->end - in->last) - 1);
    if (n == -2) {
        // Nothing after all: an idle connection keeps no request, only its deadline.
        orbs3_http_close_request(r);
        c->data = nullptr;
        if (orbs3_epoll_r_mod_conn(c->fd, c->epfd, c) != 0)
            orbs3_http_close_connection(c);
        else if (!c->read->timer_set && sysconfig.http_timeout > 0)
            neo_event_add_timer(c->read, static_cast<uint64_t>(sysconfig.http_timeout));
        return;
    }
    if (n <= 0) {
        orbs3_http_close_request_and_connection(r);
        return;
    }
    in->last += n;
    *in->last = '\0';
    r->received += static_cast<uint64_t>(n);
    c->read->handler = orbs3_http_process_get_request_header;
    orbs3_http_process_get_request_header(ev);
}

void orbs3_http_process_get_request_header(orbs3_event_t* ev)
{
    auto* c = static_cast<orbs3_connection_t*>(ev->data);
    orbs3_http_request_t* r = orbs3_http_read_event_request(ev, "the request head");
    if (r == nullptr)
        return;

    for (int served = 0;; served++) {
        // The first round works on the bytes at hand; a head that has none, or an incomplete one, reads.
        std::size_t len = orbs3_check_head(r->header_in->start, r->header_in->last - r->header_in->start);
        while (len == 0) {
            // The head scan stops at a NUL: such a head never ends, so it is refused now rather than
            // held until the deadline. A NUL behind a complete head is body and never looked at here.
            const orbs3_buf_t* in = r->header_in;
            if (std::memchr(in->start, '\0', static_cast<std::size_t>(in->last - in->start)) != nullptr) {
                ipd_log(LOG_ERR, "client sent a NUL byte in the request head");
                refuse(r, 400);
                return;
            }
            int rc = read_head(r);
            if (rc <= 0)
                return;
            len = orbs3_check_head(r->header_in->start, r->header_in->last - r->header_in->start);
        }
        r->header_length = static_cast<int32_t>(len);
        if (run_request(r) != next_step::process)
            return;
        r = static_cast<orbs3_http_request_t*>(c->data);
        if (served + 1 >= kRequestsPerEvent) {
            // Fairness: the next pipelined request is taken up on the next pass.
            if (orbs3_http_resume_read(c) != 0)
                orbs3_http_close_request_and_connection(r);
            return;
        }
    }
}

int orbs3_http_destory_thread_handler(orbs3_event_t* ev)
{
    auto* c = static_cast<orbs3_connection_t*>(ev->data);
    if (c->closed || c->data == nullptr)
        return -1;
    (void)finish_request(static_cast<orbs3_http_request_t*>(c->data), false);
    return 0;
}

void orbs3_http_close_request(orbs3_http_request_t* r)
{
    if (r == nullptr || r->request_closed)
        return;
    r->request_closed = 1;
    if (r->connection != nullptr && r->connection->data == r)
        r->connection->data = nullptr;
    if (r->request_body != nullptr)
        orbs3_destroy_pool(r->request_body->pool);
    // Last use of the vhost: a tenant deleted or edited meanwhile is freed here if this was its last request.
    orbs3_http_drop_vhost(r);
    orbs3_pool_t* pool = r->pool;
    r->pool = nullptr;
    orbs3_destroy_pool(pool);
}

void orbs3_http_close_request_and_connection(orbs3_http_request_t* r)
{
    orbs3_connection_t* c = r->connection;
    orbs3_http_close_request(r);
    orbs3_http_close_connection(c);
}

orbs3_http_request_t* orbs3_http_read_event_request(orbs3_event_t* ev, const char* waiting_for)
{
    auto* c = static_cast<orbs3_connection_t*>(ev->data);
    auto* r = static_cast<orbs3_http_request_t*>(c->data);
    if (r == nullptr || c->closed) {
        orbs3_http_close_connection(c);
        return nullptr;
    }
    if (ev->timedout) {
        ipd_debug("client timed out sending %s, fd=%d", waiting_for, c->fd);
        orbs3_http_close_request_and_connection(r);
        return nullptr;
    }
    neo_event_del_timer(ev);
    return r;
}

void orbs3_http_close_connection(orbs3_connection_t* c)
{
    if (c == nullptr || c->closed)
        return;
    if (c->type != 0 && c->num_async_fds != 0 && c->async_fd >= 0) {
        (void)orbs3_epoll_del_async_connection(c);
        c->num_async_fds--;
    }
    // Removes it from epoll, closes the socket, deletes the timers and destroys the pool.
    orbs3_close_connection(c);
}

void orbs3_http_connection_exit_handler(orbs3_connection_t* c)
{
    if (c->listen) {
        ipd_debug("listening fd=%d reported an error", c->fd);
        return;
    }
    if (c->closed)
        return;
    if (c->data != nullptr) {
        orbs3_http_close_request_and_connection(static_cast<orbs3_http_request_t*>(c->data));
        return;
    }
    orbs3_http_close_connection(c);
}

void orbs3_http_events_empty(orbs3_event_t* ev)
{
    (void)ev;
}
