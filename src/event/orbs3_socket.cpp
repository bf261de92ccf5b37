#include "event/orbs3_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/orbs3_config.h"
#include "core/orbs3_log.h"
#include "event/orbs3_fd.h"

namespace {

int set_int_option(int fd, int level, int name, int value)
{
    return setsockopt(fd, level, name, &value, sizeof value);
}

// socket options of a listener, in order; every failure ends the listener.
int listener_options(int fd, bool with_rcvbuf)
{
    const int rcvbuf = static_cast<int>(sysconfig.recv_buffer);
    struct {
        int name;
        int value;
        bool wanted;
    } const rows[] = {
        {SO_REUSEADDR, 1, true},
        // A service started again binds while its previous worker may still be ending.
        {SO_REUSEPORT, 1, true},
        {SO_RCVBUF, rcvbuf, with_rcvbuf},
    };
    for (const auto& r : rows) {
        if (r.wanted && set_int_option(fd, SOL_SOCKET, r.name, r.value) != 0) {
            ipd_log(LOG_WARNING, "failed to setsockopt ,syserror=%s", strerror(errno));
            return -1;
        }
    }
    return 0;
}

// Options, bind, non-blocking mode and listen, shared by both families.
int bind_and_listen(orbs3_listening_t* ls, const struct sockaddr* sa, socklen_t len, bool with_rcvbuf, int backlog)
{
    orbs3_fd fd(socket(ls->family, ls->type, ls->protocol));
    if (!fd.valid()) {
        ipd_log(LOG_ERR, "failed to create socket ,syserror=%s", strerror(errno));
        return -1;
    }
    if (listener_options(fd.get(), with_rcvbuf) != 0)
        return -1;
    if (bind(fd.get(), sa, len) != 0) {
        ipd_log(LOG_ERR, "failed to listenfd bind ,syserror=%s", strerror(errno));
        return -1;
    }
    if (fcntl(fd.get(), F_SETFL, O_NONBLOCK) != 0) {
        ipd_log(LOG_WARNING, "failed to set O_NONBLOCK ,syserror=%s", strerror(errno));
        return -1;
    }
    if (ls->type == SOCK_STREAM && listen(fd.get(), backlog) != 0) {
        ipd_log(LOG_ERR, "failed to listening,syserror=%s", strerror(errno));
        return -1;
    }
    ls->fd = fd.release();
    return 0;
}

void set_client_options(int fd, int nonblocking)
{
    struct {
        int level;
        int name;
        int value;
    } const rows[] = {
        {SOL_SOCKET, SO_KEEPALIVE, 1}, {IPPROTO_TCP, TCP_KEEPIDLE, 10}, {IPPROTO_TCP, TCP_KEEPINTVL, 10},
        {IPPROTO_TCP, TCP_KEEPCNT, 3}, {IPPROTO_TCP, TCP_NODELAY, 1},
    };
    for (const auto& r : rows)
        (void)set_int_option(fd, r.level, r.name, r.value);
    (void)ioctl(fd, FIONBIO, &nonblocking);
}

// An accept that says nothing about the queue: the loop goes on.
bool accept_retry(int err)
{
    return err == EINTR || err == ECONNABORTED;
}

// Takes a new connection's descriptor and address into a client connection of this thread and hands it
// to the listener's handler. The descriptor is closed if no connection can be made for it.
void take_connection(int epfd, orbs3_listening_t* ls, orbs3_fd fd, const struct sockaddr* sa, socklen_t len)
{
    orbs3_connection_t* c = orbs3_create_connection(sysconfig.conn_pool_size);
    if (c == nullptr)
        return;
    orbs3_nonblocking(fd.get());
    c->fd = fd.release();
    c->listening = ls;
    c->epfd = epfd;
    std::memcpy(c->sockaddr, sa, len);
    c->socklen = len;
    c->peer->family = sa->sa_family;
    if (sa->sa_family == AF_INET6) {
        const auto* sin6 = reinterpret_cast<const struct sockaddr_in6*>(sa);
        std::memcpy(c->peer->addr, &sin6->sin6_addr, 16);
        c->peer->port = sin6->sin6_port;
    } else {
        const auto* sin = reinterpret_cast<const struct sockaddr_in*>(sa);
        std::memcpy(c->peer->addr, &sin->sin_addr, 4);
        c->peer->port = sin->sin_port;
    }
    orbs3_conn_counters.accepted++;
    orbs3_conn_counters.open++;
    if (sa->sa_family == AF_INET) {
        char text[INET_ADDRSTRLEN] = "";
        (void)inet_ntop(AF_INET, c->peer->addr, text, sizeof text);
        ipd_debug("thread pid:[%ld] accept fd:[%d] src:[%s]", static_cast<long>(syscall(SYS_gettid)), c->fd,
                  text);
    }
    ipd_debug("accept fd=%d on thread %d", c->fd, orbs3_thread_index);
    c->read->active = 1;
    c->listen = 0;
    ls->handler(c);
}

template <typename SockAddr>
int accept_loop(int epfd, orbs3_event_t* ev)
{
    auto* lc = static_cast<orbs3_connection_t*>(ev->data);
    orbs3_listening_t* ls = lc->listening;
    for (;;) {
        SockAddr sa{};
        socklen_t len = sizeof sa;
        int fd = accept(ls->fd, reinterpret_cast<struct sockaddr*>(&sa), &len);
        // Edge-triggered and non-blocking: the loop ends on EAGAIN once the queue is empty, and at once
        // in a thread that lost the race for this wake-up. Descriptor 0 is a descriptor like any other.
        if (fd < 0) {
            if (accept_retry(errno))
                continue;
            return 0;
        }
        take_connection(epfd, ls, orbs3_fd(fd), reinterpret_cast<struct sockaddr*>(&sa),
                        len < sizeof sa ? len : sizeof sa);
    }
}

}  // namespace

orbs3_listening_t* orbs3_create_listening(const char* addr, int port, int family, int type, int protocol, int mode)
{
    orbs3_cycle_t* cy = orbs3_cycle;
    auto* ls = cy != nullptr ? static_cast<orbs3_listening_t*>(orbs3_pcalloc(cy->pool, sizeof(orbs3_listening_t)))
                             : nullptr;
    if (ls == nullptr) {
        ipd_debug("the listen list push failed");
        return nullptr;
    }
    ls->fd = -1;
    if (addr != nullptr && std::snprintf(ls->addr, sizeof ls->addr, "%s", addr) >= static_cast<int>(sizeof ls->addr)) {
        ipd_log(LOG_ERR, "listening address too long: %s", addr);
        return nullptr;
    }
    ls->port = port;
    ls->family = family;
    ls->type = type;
    ls->protocol = protocol;
    ls->mode = mode;
    if (family == AF_INET6) {
        ls->create = orbs3_create_listenfd_addr6;
        ls->accept = orbs3_events_accept_addr6;
    } else {
        ls->create = orbs3_create_listenfd;
        ls->accept = orbs3_events_accept;
    }
    // A TLS listener is a plain one: its context is built by the worker before the socket exists.
    if (mode != ORBS3_MODE_HTTP && mode != ORBS3_MODE_HTTPS && mode != 1) {
        ipd_log(LOG_ERR, "unknown listening mode %d", mode);
        return nullptr;
    }
    if (ls->create(ls) != 0)
        return nullptr;
    return ls;
}

int orbs3_create_listenfd(orbs3_listening_t* ls)
{
    struct sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(static_cast<uint16_t>(ls->port));
    // inet_addr would turn a bad text into 255.255.255.255, which Linux lets a TCP socket bind to.
    if (ls->addr[0] == '\0') {
        sin.sin_addr.s_addr = htonl(INADDR_ANY);
    } else if (inet_pton(AF_INET, ls->addr, &sin.sin_addr) != 1) {
        ipd_log(LOG_ERR, "failed to listenfd bind ,syserror=%s", strerror(EINVAL));
        return -1;
    }
    return bind_and_listen(ls, reinterpret_cast<struct sockaddr*>(&sin), sizeof sin, true, ORBS3_LISTEN_BACKLOG);
}

int orbs3_create_listenfd_addr6(orbs3_listening_t* ls)
{
    struct sockaddr_in6 sin6{};
    sin6.sin6_family = AF_INET6;
    sin6.sin6_port = htons(static_cast<uint16_t>(ls->port));
    if (ls->addr[0] == '\0') {
        sin6.sin6_addr = in6addr_any;
    } else if (inet_pton(AF_INET6, ls->addr, &sin6.sin6_addr) != 1) {
        ipd_log(LOG_ERR, "failed to listenfd bind ,syserror=%s", strerror(EINVAL));
        return -1;
    }
    return bind_and_listen(ls, reinterpret_cast<struct sockaddr*>(&sin6), sizeof sin6, false,
                           ORBS3_LISTEN_BACKLOG6);
}

int orbs3_events_accept(int epfd, orbs3_event_t* ev)
{
    return accept_loop<struct sockaddr_in>(epfd, ev);
}

int orbs3_events_accept_addr6(int epfd, orbs3_event_t* ev)
{
    return accept_loop<struct sockaddr_in6>(epfd, ev);
}

void orbs3_nonblocking(int fd)
{
    set_client_options(fd, 1);
}

void orbs3_blocking(int fd)
{
    set_client_options(fd, 0);
}

ssize_t orbs3_send(orbs3_connection_t* c, const uint8_t* buf, std::size_t size)
{
    for (;;) {
        ssize_t n = ::send(c->fd, buf, size, 0);
        if (n >= 0)
            return n;
        if (errno == EINTR)
            continue;
        return (errno == EAGAIN || errno == EWOULDBLOCK) ? -2 : -1;
    }
}

ssize_t orbs3_recv(orbs3_connection_t* c, uint8_t* buf, std::size_t size)
{
    for (;;) {
        ssize_t n = ::recv(c->fd, buf, size, 0);
        if (n >= 0)
            return n;
        if (errno == EINTR)
            continue;
        return (errno == EAGAIN || errno == EWOULDBLOCK) ? -2 : -1;
    }
}

int orbs3_write_buf(orbs3_writev_t* wv, const void* text, int64_t len)
{
    if (wv->count >= wv->capacity)
        return -1;
    std::size_t n = len == -1 ? std::strlen(static_cast<const char*>(text)) : static_cast<std::size_t>(len);
    wv->iov[wv->count].iov_base = const_cast<void*>(text);
    wv->iov[wv->count].iov_len = n;
    wv->count++;
    wv->total += static_cast<uint32_t>(n);
    return 0;
}

ssize_t orbs3_writev(orbs3_writev_t* wv)
{
    ssize_t n = ::writev(wv->fd, wv->iov, static_cast<int>(wv->count));
    if (n < 0)
        ipd_debug("fd == [%d] failed to writev socket ,syserror=%s", wv->fd, strerror(errno));
    return n;
}

ssize_t orbs3_readv(orbs3_writev_t* wv)
{
    return ::readv(wv->fd, wv->iov, static_cast<int>(wv->count));
}

void orbs3_tcp_cork(int fd, int on)
{
    (void)setsockopt(fd, IPPROTO_TCP, TCP_CORK, &on, sizeof on);
}
