#include "event/orbs3_epoll.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/orbs3_log.h"

namespace {

int notify_fd = -1;
orbs3_event_t notify_event;
orbs3_connection_t notify_conn;

void notify_exit_handler(orbs3_connection_t*)
{
}

// One registration; the trace names the kind on failure, as each caller of the family reports it.
int register_conn(int epfd, int op, int fd, uint32_t events, orbs3_connection_t* c, const char* trace)
{
    if (orbs3_epoll_ctl(epfd, op, fd, events, c) == 0)
        return 0;
    if (trace != nullptr)
        ipd_debug(trace, strerror(errno));
    return -1;
}

void dispatch(int epfd, const struct epoll_event& ev)
{
    auto* c = static_cast<orbs3_connection_t*>(ev.data.ptr);
    if (c == nullptr)
        return;
    // A slot given back since the wait (a listener closed by a reload) is no longer ours to serve.
    if (c->closed)
        return;
    const uint32_t e = ev.events;
    if (e & EPOLLERR) {
        ipd_debug("EPOLLERR, fd === [%d]", c->fd);
        if (c->exit_handler != nullptr)
            c->exit_handler(c);
        return;
    }
    if ((e & EPOLLIN) && (e & EPOLLRDHUP)) {
        ipd_debug("EPOLLRDHUP, fd === [%d]", c->fd);
        if (c->exit_handler != nullptr)
            c->exit_handler(c);
        return;
    }
    // A handler may end the connection and free it with its pool, so nothing of it is read after a
    // handler has run. A registration carries one direction, so a read handler never leaves a write event
    // of the same pass behind.
    if (e & EPOLLIN) {
        if (c->read == nullptr)
            return;
        if (c->listen)
            (void)c->listening->accept(epfd, c->read);
        else if (c->read->handler != nullptr)
            c->read->handler(c->read);
        return;
    }
    if ((e & EPOLLOUT) && c->write != nullptr && c->write->handler != nullptr)
        c->write->handler(c->write);
}

}  // namespace

int orbs3_create_epfd(int size)
{
    int fd = epoll_create(size);
    if (fd < 0) {
        ipd_log(LOG_WARNING, "failed to create epfd,syserror=%s", strerror(errno));
        return -1;
    }
    return fd;
}

int orbs3_epoll_ctl(int epfd, int op, int fd, uint32_t events, orbs3_connection_t* c)
{
    struct epoll_event ev{};
    ev.events = events;
    ev.data.ptr = c;
    if (epoll_ctl(epfd, op, fd, &ev) != 0) {
        int saved = errno;
        ipd_debug("failed to register fd epoll_ctl [%d] ,syserror=%s", fd, strerror(saved));
        errno = saved;
        return -1;
    }
    return 0;
}

int orbs3_epoll_add_conn(int fd, int epfd, orbs3_connection_t* c)
{
    return register_conn(epfd, EPOLL_CTL_ADD, fd, ORBS3_EPOLL_LISTEN, c, nullptr);
}

int orbs3_epoll_r_add_conn(int fd, int epfd, orbs3_connection_t* c)
{
    return register_conn(epfd, EPOLL_CTL_ADD, fd, ORBS3_EPOLL_READ, c, "epoll_ctr r mod add failed,syserror=%s");
}

int orbs3_epoll_w_add_conn(int fd, int epfd, orbs3_connection_t* c)
{
    return register_conn(epfd, EPOLL_CTL_ADD, fd, ORBS3_EPOLL_WRITE, c, "epoll_ctr w mod add failed,syserror=%s");
}

int orbs3_epoll_r_mod_conn(int fd, int epfd, orbs3_connection_t* c)
{
    if (orbs3_epoll_ctl(epfd, EPOLL_CTL_MOD, fd, ORBS3_EPOLL_READ, c) == 0)
        return 0;
    ipd_log(LOG_ERR, "epoll_ctr mod failed,syserror=%s", strerror(errno));
    return -1;
}

int orbs3_epoll_w_mod_conn(int fd, int epfd, orbs3_connection_t* c)
{
    if (orbs3_epoll_ctl(epfd, EPOLL_CTL_MOD, fd, ORBS3_EPOLL_WRITE, c) == 0)
        return 0;
    ipd_log(LOG_ERR, "epoll_ctr mod failed,syserror=%s", strerror(errno));
    return -1;
}

int orbs3_epoll_del_conn(int fd, int epfd, orbs3_connection_t* c)
{
    return register_conn(epfd, EPOLL_CTL_DEL, fd, 0, c, "epoll_ctr del failed,syserror=%s");
}

int orbs3_epoll_add_async_connection(orbs3_connection_t* c)
{
    return register_conn(c->epfd, EPOLL_CTL_ADD, c->async_fd, ORBS3_EPOLL_LISTEN, c,
                         "epoll_ctr add async failed,syserror=%s");
}

int orbs3_epoll_del_async_connection(orbs3_connection_t* c)
{
    return register_conn(c->epfd, EPOLL_CTL_DEL, c->async_fd, 0, c, "epoll_ctr del async failed,syserror=%s");
}

int orbs3_epoll_events_manage(int epfd)
{
    struct epoll_event events[ORBS3_EPOLL_EVENTS];
    int n = epoll_wait(epfd, events, ORBS3_EPOLL_EVENTS, ORBS3_EPOLL_TIMEOUT_MS);
    // An error, EINTR included, ends the pass like an empty one: the caller's loop simply comes back.
    for (int i = 0; i < n; i++)
        dispatch(epfd, events[i]);
    return 0;
}

int orbs3_epoll_notify_init(int epfd)
{
    int fd = eventfd(0, 0);
    if (fd < 0) {
        ipd_debug("failed to create eventfd,syserror=%s", strerror(errno));
        return -1;
    }
    if (notify_fd >= 0)
        close(notify_fd);
    notify_fd = fd;
    notify_event = orbs3_event_t{};
    notify_event.handler = orbs3_epoll_notify_handler;
    notify_event.active = 1;
    notify_conn = orbs3_connection_t{};
    notify_conn.fd = fd;
    notify_conn.epfd = epfd;
    notify_conn.async_fd = -1;
    notify_conn.read = &notify_event;
    notify_conn.exit_handler = notify_exit_handler;
    if (orbs3_epoll_ctl(epfd, EPOLL_CTL_ADD, fd, EPOLLIN | EPOLLET, &notify_conn) != 0)
        return -1;
    return 0;
}

int orbs3_epoll_notify(orbs3_epoll_notify_pt handler)
{
    // The event's data carries the handler, not a connection: the notify has no peer.
    notify_event.data = reinterpret_cast<void*>(handler);
    uint64_t one = 1;
    if (write(notify_fd, &one, sizeof one) != static_cast<ssize_t>(sizeof one))
        return -1;
    return 0;
}

void orbs3_epoll_notify_handler(orbs3_event_t* ev)
{
    if (++ev->count == 0xffffffffu) {
        ev->count = 0;
        // Edge-triggered: every write is a new edge, so the counter is read only to keep it from filling.
        uint64_t value;
        (void)!read(notify_fd, &value, sizeof value);
    }
    auto handler = reinterpret_cast<orbs3_epoll_notify_pt>(ev->data);
    if (handler == nullptr) {
        std::fputs("handler is null\n", stderr);
        return;
    }
    handler(ev);
}

int orbs3_epoll_notify_fd()
{
    return notify_fd;
}

orbs3_connection_t* orbs3_epoll_notify_conn()
{
    return notify_fd >= 0 ? &notify_conn : nullptr;
}
