#include "tls/orbs3_ssl_connection.h"

#include <openssl/err.h>

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/orbs3_config.h"
#include "core/orbs3_log.h"
#include "event/neo_event_timer.h"
#include "event/orbs3_epoll.h"
#include "event/orbs3_socket.h"

namespace {

// The first byte of a TLS handshake record.
constexpr uint8_t kHandshakeRecord = 22;

orbs3_ssl_connection_t* record_of(const orbs3_connection_t* c)
{
    return static_cast<orbs3_ssl_connection_t*>(c->ssl);
}

// The library's reason for the last failure, and the queue emptied so that the next connection of this
// thread does not inherit it.
const char* take_error(char* buf, std::size_t size)
{
    unsigned long e = ERR_peek_last_error();
    if (e == 0)
        std::snprintf(buf, size, "%s", "no error queued");
    else
        ERR_error_string_n(e, buf, size);
    ERR_clear_error();
    return buf;
}

void close_now(orbs3_connection_t* c)
{
    orbs3_ssl_close_connection(c);
}

void shutdown_slot(orbs3_connection_t* c)
{
    (void)orbs3_ssl_shutdown(c);
}

void no_event(orbs3_event_t*)
{
}

// Arms the one direction the handshake waits for. A connection's first wait adds it to the epoll set,
// later ones change its registration. 0 or -1.
int arm(orbs3_connection_t* c, bool write)
{
    const uint32_t events = write ? ORBS3_EPOLL_WRITE : ORBS3_EPOLL_READ;
    if (orbs3_epoll_ctl(c->epfd, EPOLL_CTL_ADD, c->fd, events, c) == 0)
        return 0;
    return write ? orbs3_epoll_w_mod_conn(c->fd, c->epfd, c) : orbs3_epoll_r_mod_conn(c->fd, c->epfd, c);
}

// The handshake's one deadline, set at its first wait and never moved, so a client that trickles its
// handshake byte by byte is closed all the same. It waits on the read event whichever direction is armed:
// both handlers are the handshake's while it runs.
void add_deadline(orbs3_connection_t* c)
{
    if (!c->read->timer_set && sysconfig.ssl_handshake_timeout > 0)
        neo_event_add_timer(c->read, static_cast<uint64_t>(sysconfig.ssl_handshake_timeout));
}

// The handshake has ended: the connection leaves the handshake's registration and deadline and goes to
// the listener's HTTP start, which registers it anew and sets its own idle deadline.
void handshake_finished(orbs3_connection_t* c)
{
    neo_event_del_timer(c->read);
    neo_event_del_timer(c->write);
    if (c->epfd >= 0)
        (void)epoll_ctl(c->epfd, EPOLL_CTL_DEL, c->fd, nullptr);
    orbs3_connection_handler_pt next = c->listening != nullptr ? c->listening->secure_handler : nullptr;
    if (next == nullptr) {
        ipd_log(LOG_ERR, "TLS listener has no handler for connections after the handshake");
        close_now(c);
        return;
    }
    next(c);
}

// Runs one step and acts on its result. -1 when the connection has been closed.
int step(orbs3_connection_t* c)
{
    int rc = orbs3_ssl_handshake(c);
    if (rc == 0) {
        handshake_finished(c);
        return 0;
    }
    if (rc == -1) {
        close_now(c);
        return -1;
    }
    add_deadline(c);
    return 0;
}

void info_callback(const SSL* ssl, int where, int)
{
    auto* c = static_cast<orbs3_connection_t*>(SSL_get_ex_data(ssl, orbs3_ssl_connection_index));
    if (c == nullptr || c->ssl == nullptr)
        return;
    orbs3_ssl_connection_t* sc = record_of(c);
    if ((where & SSL_CB_HANDSHAKE_START) && sc->handshake_done) {
        // Any handshake after the first is the client's: the read path ends such a connection.
        sc->peer_renegotiated = 1;
    }
    if ((where & SSL_CB_ACCEPT_LOOP) && !sc->write_bio_sized) {
        // While the handshake runs, the library writes through a buffering BIO in front of the socket;
        // one of a record's size sends a flight in one write.
        BIO* rbio = SSL_get_rbio(ssl);
        BIO* wbio = SSL_get_wbio(ssl);
        if (rbio != wbio) {
            (void)BIO_set_write_buffer_size(wbio, static_cast<long>(sc->buffer_size));
            sc->write_bio_sized = 1;
        }
    }
}

}  // namespace

int orbs3_ssl_create_connection(orbs3_ssl_t* ssl, orbs3_connection_t* c, int flags)
{
    if (ssl == nullptr || ssl->ctx == nullptr) {
        ipd_log(LOG_ERR, "no TLS context for the connection of fd=%d", c->fd);
        return -1;
    }
    auto* sc = static_cast<orbs3_ssl_connection_t*>(orbs3_pcalloc(c->pool, sizeof(orbs3_ssl_connection_t)));
    if (sc == nullptr) {
        ipd_log(LOG_ERR, "no memory for the TLS record of fd=%d", c->fd);
        return -1;
    }
    sc->context = ssl->ctx;
    sc->buffer_size = ssl->buffer_size != 0 ? ssl->buffer_size : ORBS3_SSL_BUFFER_SIZE;
    sc->buffer = (flags & ORBS3_SSL_BUFFER) != 0;
    SSL* s = SSL_new(ssl->ctx);
    if (s == nullptr) {
        char why[256];
        ipd_log(LOG_ERR, "SSL_new() failed: %s", take_error(why, sizeof why));
        return -1;
    }
    if (SSL_set_fd(s, c->fd) != 1 ||
        SSL_set_ex_data(s, orbs3_ssl_connection_index, c) != 1) {
        char why[256];
        ipd_log(LOG_ERR, "SSL_set_fd() failed: %s", take_error(why, sizeof why));
        SSL_free(s);
        return -1;
    }
    if (flags & ORBS3_SSL_CLIENT)
        SSL_set_connect_state(s);
    else
        SSL_set_accept_state(s);
    // A send takes what one record holds and says how much (a retry may hand the same bytes from another
    // address); the writer moves on by that count. See orbs3_ssl_write.
    SSL_set_mode(s, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    // A client that closes its socket without close_notify ends its stream like one that sends it: HTTP
    // frames its own messages, so a cut body is found incomplete there; without this the library would
    // call the EOF a fatal error and drop the client's session from the cache.
    SSL_set_options(s, SSL_OP_IGNORE_UNEXPECTED_EOF | SSL_OP_NO_RENEGOTIATION);
    SSL_set_info_callback(s, info_callback);
    sc->connection = s;
    sc->last = 0;
    c->ssl = sc;
    c->type = ssl->async;
    c->pending = orbs3_ssl_pending;
    c->shutdown = shutdown_slot;
    return 0;
}

void orbs3_https_init_connection(orbs3_connection_t* c)
{
    c->recv = orbs3_ssl_read;
    c->send = orbs3_ssl_write;
    c->write->handler = no_event;
    c->exit_handler = orbs3_ssl_close_connection;
    c->read->handler = orbs3_http_ssl_handshake;
    c->data = nullptr;
    orbs3_http_ssl_handshake(c->read);
}

void orbs3_http_ssl_handshake(orbs3_event_t* ev)
{
    auto* c = static_cast<orbs3_connection_t*>(ev->data);
    if (ev->timedout) {
        ipd_log(LOG_INFO, "client timed out");
        close_now(c);
        return;
    }
    if (c->closed) {
        close_now(c);
        return;
    }
    uint8_t first;
    ssize_t n;
    do {
        n = recv(c->fd, &first, 1, MSG_PEEK);
    } while (n < 0 && errno == EINTR);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        if (arm(c, false) != 0) {
            close_now(c);
            return;
        }
        add_deadline(c);
        return;
    }
    if (n <= 0) {
        // Gone before its first byte: nothing to answer.
        ipd_debug("client of fd=%d closed before the TLS handshake", c->fd);
        close_now(c);
        return;
    }
    if ((first & 0x80) == 0 && first != kHandshakeRecord) {
        // Plain HTTP on a TLS port: no reply, since the client could not read a plain one as TLS.
        ipd_debug("client of fd=%d sent plain HTTP to a TLS port", c->fd);
        close_now(c);
        return;
    }
    if (orbs3_ssl_create_connection(static_cast<orbs3_ssl_t*>(orbs3_cycle != nullptr ? orbs3_cycle->ssl : nullptr),
                                    c, ORBS3_SSL_BUFFER) != 0) {
        close_now(c);
        return;
    }
    (void)step(c);
}

int orbs3_ssl_handshake(orbs3_connection_t* c)
{
    orbs3_ssl_connection_t* sc = record_of(c);
    ERR_clear_error();
    errno = 0;
    int n = SSL_do_handshake(sc->connection);
    if (n == 1) {
        if (g_debug_level != 0) {
            char desc[128] = {};
            const SSL_CIPHER* cipher = SSL_get_current_cipher(sc->connection);
            if (cipher != nullptr)
                (void)SSL_CIPHER_description(cipher, desc, sizeof desc);
            // The description pads its columns with runs of spaces and ends in a line end.
            char squeezed[128];
            std::size_t k = 0;
            for (std::size_t i = 0; desc[i] != '\0' && k + 1 < sizeof squeezed; i++) {
                if (desc[i] == '\n' || desc[i] == '\r')
                    continue;
                if (desc[i] == ' ' && k > 0 && squeezed[k - 1] == ' ')
                    continue;
                squeezed[k++] = desc[i];
            }
            squeezed[k] = '\0';
            ipd_debug("SSL: %s, cipher: \"%s\"", SSL_get_version(sc->connection), squeezed);
            if (SSL_session_reused(sc->connection))
                ipd_debug("SSL reused session");
        }
        sc->handshake_done = 1;
        c->recv = orbs3_ssl_read;
        c->send = orbs3_ssl_write;
        return 0;
    }
    int err = SSL_get_error(sc->connection, n);
    if (err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE) {
        const bool write = err == SSL_ERROR_WANT_WRITE;
        c->read->handler = orbs3_ssl_handshake_handler;
        c->write->handler = orbs3_ssl_handshake_handler;
        (write ? c->write : c->read)->ready = 0;
        return arm(c, write) == 0 ? -2 : -1;
    }
    // An asynchronous job would need its descriptor in epoll; the context never turns that mode on.
    char why[256];
    ipd_log(LOG_INFO, "openssl err [%d]:[%s]", err,
            err == SSL_ERROR_SYSCALL && errno != 0 ? strerror(errno) : take_error(why, sizeof why));
    ERR_clear_error();
    sc->skip_peer_close = 1;
    sc->skip_own_close = 1;
    return -1;
}

void orbs3_ssl_handshake_handler(orbs3_event_t* ev)
{
    auto* c = static_cast<orbs3_connection_t*>(ev->data);
    if (ev->timedout) {
        ipd_log(LOG_INFO, "client timed out");
        close_now(c);
        return;
    }
    if (c->closed) {
        close_now(c);
        return;
    }
    (void)step(c);
}

ssize_t orbs3_ssl_read(orbs3_connection_t* c, uint8_t* buf, std::size_t size)
{
    orbs3_ssl_connection_t* sc = record_of(c);
    if (sc == nullptr)
        return -1;
    if (size == 0)
        return 0;
    ERR_clear_error();
    errno = 0;
    const int want = size > INT32_MAX ? INT32_MAX : static_cast<int>(size);
    int n = SSL_read(sc->connection, buf, want);
    if (sc->peer_renegotiated) {
        // Whatever the read gave, a client that started a second handshake is not served further.
        ipd_log(LOG_INFO, "client of fd=%d started a TLS renegotiation: closing", c->fd);
        ERR_clear_error();
        sc->skip_peer_close = 1;
        sc->skip_own_close = 1;
        return -1;
    }
    if (n > 0) {
        sc->last = n;
        return n;
    }
    int err = SSL_get_error(sc->connection, n);
    switch (err) {
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
        // Nothing whole to hand out: what the library holds is part of a record.
        sc->last = -2;
        return -2;
    case SSL_ERROR_ZERO_RETURN:
        // The client's stream has ended, with or without its close alert: a clean end.
        sc->skip_peer_close = 1;
        sc->last = 0;
        return 0;
    case SSL_ERROR_SYSCALL:
        ipd_debug("SSL fd read error %s (%d)", strerror(errno), errno);
        break;
    default: {
        char why[256];
        ipd_debug("SSL fd read error %s (%d/%d)\n", take_error(why, sizeof why), err, errno);
        break;
    }
    }
    ERR_clear_error();
    sc->skip_peer_close = 1;
    sc->skip_own_close = 1;
    sc->last = -1;
    return -1;
}

ssize_t orbs3_ssl_write(orbs3_connection_t* c, const uint8_t* buf, std::size_t size)
{
    orbs3_ssl_connection_t* sc = record_of(c);
    if (sc == nullptr)
        return -1;
    if (size == 0)
        return 0;
    ERR_clear_error();
    errno = 0;
    // One call: with partial writes the library takes at most a record and reports it. Were the call to
    // loop, the bytes of an earlier round would be lost to a caller that sees -2 and retries from where it
    // stood.
    const int want = size > INT32_MAX ? INT32_MAX : static_cast<int>(size);
    int n = SSL_write(sc->connection, buf, want);
    if (n > 0)
        return n;
    int err = SSL_get_error(sc->connection, n);
    switch (err) {
    case SSL_ERROR_WANT_WRITE:
    case SSL_ERROR_WANT_READ:
        return -2;
    case SSL_ERROR_SYSCALL:
        // The socket failed under the record: the connection is dead, and retrying would only spin.
        ipd_debug("SSL fd write error %s (%d)", strerror(errno), errno);
        break;
    default: {
        char why[256];
        ipd_debug("SSL fd write error %s (%d/%d)\n", take_error(why, sizeof why), err, errno);
        break;
    }
    }
    ERR_clear_error();
    sc->skip_peer_close = 1;
    sc->skip_own_close = 1;
    return -1;
}

bool orbs3_ssl_pending(const orbs3_connection_t* c)
{
    const orbs3_ssl_connection_t* sc = record_of(c);
    if (sc == nullptr)
        return false;
    // Decrypted bytes are always there to read. Raw bytes read ahead are a whole record only unless the
    // last read found part of one: then the socket's next bytes raise an event of their own.
    return SSL_pending(sc->connection) > 0 || (SSL_has_pending(sc->connection) && sc->last != -2);
}

int orbs3_ssl_shutdown(orbs3_connection_t* c)
{
    orbs3_ssl_connection_t* sc = record_of(c);
    if (sc == nullptr)
        return 0;
    SSL* s = sc->connection;
    if (!SSL_in_init(s)) {
        // The peer's close alert is never waited for: a server has nothing more to read once it closes.
        // A dead or timed-out connection gets no alert either (quiet). Either way the session is marked
        // as shut down, which keeps it resumable: the library drops the session of an SSL freed without
        // that mark as possibly broken.
        int mode = SSL_get_shutdown(s) | SSL_RECEIVED_SHUTDOWN;
        const bool timed_out = c->read->timedout || c->write->timedout;
        if (timed_out || sc->skip_own_close) {
            SSL_set_quiet_shutdown(s, 1);
            mode |= SSL_SENT_SHUTDOWN;
        }
        SSL_set_shutdown(s, mode);
        ERR_clear_error();
        int n = SSL_shutdown(s);
        if (n < 0) {
            // The alert could not leave (a full or broken socket); the connection closes all the same.
            int err = SSL_get_error(s, n);
            if (err != SSL_ERROR_WANT_WRITE && err != SSL_ERROR_WANT_READ && err != SSL_ERROR_SYSCALL) {
                char why[256];
                ipd_debug("openssl err [%d]:[%s]", err, take_error(why, sizeof why));
            }
            SSL_set_shutdown(s, SSL_SENT_SHUTDOWN | SSL_RECEIVED_SHUTDOWN);
        }
        ERR_clear_error();
    }
    SSL_free(s);
    c->ssl = nullptr;
    c->pending = nullptr;
    c->shutdown = nullptr;
    // What still comes (a lingering close drains it) is read as plain bytes and dropped.
    c->recv = orbs3_recv;
    c->send = orbs3_send;
    return 0;
}

void orbs3_ssl_close_connection(orbs3_connection_t* c)
{
    if (c == nullptr || c->closed)
        return;
    // The session goes with the close (the connection's shutdown slot).
    orbs3_close_connection(c);
}
