#include "event/orbs3_connection.h"

#include "event/neo_event_timer.h"

#include <netinet/in.h>
#include <sys/epoll.h>
#include <unistd.h>

#include "memory/orbs3_assert.h"
#include "core/orbs3_config.h"
#include "core/orbs3_log.h"

pthread_mutex_t orbs3_conn_mtx = PTHREAD_MUTEX_INITIALIZER;
orbs3_conn_counters_t orbs3_conn_counters;
thread_local int orbs3_thread_index = -1;

namespace {

// Big enough for the address of either family as accept gives it.
constexpr std::size_t kSockaddrSize = sizeof(struct sockaddr_in6);

// Every client connection from its creation to its close, so the worker's exit can end those still open
// (they are otherwise reachable only through the kernel's epoll sets). Guarded by orbs3_conn_mtx.
neo_list_head_t g_open_connections = {&g_open_connections, &g_open_connections};

class conn_lock {
public:
    conn_lock() { pthread_mutex_lock(&orbs3_conn_mtx); }
    ~conn_lock() { pthread_mutex_unlock(&orbs3_conn_mtx); }
    conn_lock(const conn_lock&) = delete;
    conn_lock& operator=(const conn_lock&) = delete;
};

bool is_slot(const orbs3_connection_t* c)
{
    const orbs3_cycle_t* cy = orbs3_cycle;
    return cy != nullptr && cy->connections != nullptr && c >= cy->connections &&
           c < cy->connections + cy->connection_n;
}

}  // namespace

int orbs3_event_process_init()
{
    orbs3_cycle_t* cy = orbs3_cycle;
    if (cy == nullptr || cy->pool == nullptr) {
        ipd_debug("connection slots need the run record");
        return -1;
    }
    if (pthread_mutex_init(&orbs3_conn_mtx, nullptr) != 0) {
        ipd_debug("failed to init connection mutex");
        return -1;
    }
    constexpr int n = ORBS3_CONNECTION_SLOTS;
    auto* conns = static_cast<orbs3_connection_t*>(orbs3_pcalloc(cy->pool, sizeof(orbs3_connection_t) * n));
    auto* rev = static_cast<orbs3_event_t*>(orbs3_pcalloc(cy->pool, sizeof(orbs3_event_t) * n));
    auto* wev = static_cast<orbs3_event_t*>(orbs3_pcalloc(cy->pool, sizeof(orbs3_event_t) * n));
    if (conns == nullptr || rev == nullptr || wev == nullptr) {
        ipd_debug("failed to allocate connection slots");
        for (void* p : {static_cast<void*>(conns), static_cast<void*>(rev), static_cast<void*>(wev)})
            if (p != nullptr)
                (void)orbs3_pfree(cy->pool, p);
        return -1;
    }
    // Linked from the last to the first, so the first record heads the list.
    orbs3_connection_t* next = nullptr;
    for (int i = n - 1; i >= 0; --i) {
        rev[i].closed = 0;
        wev[i].closed = 0;
        conns[i].data = next;
        conns[i].fd = -1;
        conns[i].read = &rev[i];
        conns[i].write = &wev[i];
        next = &conns[i];
    }
    conn_lock lock;
    cy->connection_n = n;
    cy->connections = conns;
    cy->read_events = rev;
    cy->write_events = wev;
    cy->free_connections = next;
    cy->free_connection_n = n;
    orbs3_conn_counters.free_slots = n;
    return 0;
}

int orbs3_event_process_exit()
{
    orbs3_cycle_t* cy = orbs3_cycle;
    if (cy != nullptr && cy->connections != nullptr) {
        {
            conn_lock lock;
            for (void* p : {static_cast<void*>(cy->connections), static_cast<void*>(cy->read_events),
                            static_cast<void*>(cy->write_events)})
                (void)orbs3_pfree(cy->pool, p);
            cy->connections = nullptr;
            cy->read_events = nullptr;
            cy->write_events = nullptr;
            cy->free_connections = nullptr;
            cy->free_connection_n = 0;
            cy->connection_n = 0;
            orbs3_conn_counters.free_slots = 0;
        }
        pthread_mutex_destroy(&orbs3_conn_mtx);
    }
    return 0;
}

int orbs3_event_process_destory_resource()
{
    return orbs3_event_process_exit();
}

void orbs3_conn_mtx_reinit()
{
    pthread_mutex_init(&orbs3_conn_mtx, nullptr);
}

orbs3_connection_t* orbs3_get_connection(int fd)
{
    orbs3_cycle_t* cy = orbs3_cycle;
    if (cy == nullptr)
        return nullptr;
    orbs3_connection_t* c;
    {
        conn_lock lock;
        c = cy->free_connections;
        if (c == nullptr)
            return nullptr;
        cy->free_connections = static_cast<orbs3_connection_t*>(c->data);
        ORBS3_ASSERT(cy->free_connection_n > 0);
        cy->free_connection_n--;
        orbs3_conn_counters.free_slots = cy->free_connection_n;
    }
    orbs3_event_t* rev = c->read;
    orbs3_event_t* wev = c->write;
    *c = orbs3_connection_t{};
    *rev = orbs3_event_t{};
    *wev = orbs3_event_t{};
    c->read = rev;
    c->write = wev;
    c->fd = fd;
    c->epfd = -1;
    c->async_fd = -1;
    rev->data = c;
    wev->data = c;
    return c;
}

void orbs3_free_connection(orbs3_connection_t* c)
{
    if (c == nullptr)
        return;
    if (!is_slot(c)) {
        ipd_debug("free of a connection that is no slot, fd=%d", c->fd);
        return;
    }
    c->fd = -1;
    c->closed = 1;
    c->read->closed = 1;
    c->write->closed = 1;
    orbs3_destroy_pool(c->pool);
    c->pool = nullptr;
    orbs3_cycle_t* cy = orbs3_cycle;
    conn_lock lock;
    ORBS3_ASSERT(cy->free_connection_n < cy->connection_n);  // more free than slots: one was freed twice
    c->data = cy->free_connections;
    cy->free_connections = c;
    cy->free_connection_n++;
    orbs3_conn_counters.free_slots = cy->free_connection_n;
}

orbs3_connection_t* orbs3_found_connection(int fd)
{
    orbs3_connection_t* c = orbs3_get_connection(fd);
    if (c == nullptr) {
        ipd_debug("no free connection slot for fd %d", fd);
        return nullptr;
    }
    orbs3_pool_ptr pool(orbs3_create_mem_block(ORBS3_SLOT_POOL_SIZE));
    if (!pool) {
        ipd_log(LOG_ERR, "failed to create connection pool");
        orbs3_free_connection(c);
        return nullptr;
    }
    auto* peer = static_cast<orbs3_peer_t*>(orbs3_pcalloc(pool.get(), sizeof(orbs3_peer_t)));
    auto* sa = static_cast<struct sockaddr*>(orbs3_pcalloc(pool.get(), kSockaddrSize));
    if (peer == nullptr || sa == nullptr) {
        ipd_log(LOG_ERR, "failed to create connection sock addr");
        orbs3_free_connection(c);
        return nullptr;
    }
    c->pool = pool.release();
    c->peer = peer;
    c->sockaddr = sa;
    c->closed = 0;
    c->async_fd = -1;
    c->num_async_fds = 0;
    c->send_file_fd = -1;
    for (orbs3_event_t* ev : {c->read, c->write}) {
        ev->closed = 0;
        ev->timedout = 0;
        ev->timer_set = 0;
        ev->timers = nullptr;
    }
    return c;
}

orbs3_connection_t* orbs3_create_connection(std::size_t pool_size)
{
    orbs3_pool_ptr pool(orbs3_create_mem_block(pool_size));
    if (!pool) {
        ipd_log(LOG_ERR, "failed to create connection pool");
        return nullptr;
    }
    auto* c = static_cast<orbs3_connection_t*>(orbs3_pcalloc(pool.get(), sizeof(orbs3_connection_t)));
    if (c == nullptr) {
        ipd_log(LOG_ERR, "failed to create connection");
        return nullptr;
    }
    auto* wev = static_cast<orbs3_event_t*>(orbs3_pcalloc(pool.get(), sizeof(orbs3_event_t)));
    if (wev == nullptr) {
        ipd_log(LOG_ERR, "failed to create connection write event");
        return nullptr;
    }
    auto* rev = static_cast<orbs3_event_t*>(orbs3_pcalloc(pool.get(), sizeof(orbs3_event_t)));
    if (rev == nullptr) {
        ipd_log(LOG_ERR, "failed to create connection read event");
        return nullptr;
    }
    auto* peer = static_cast<orbs3_peer_t*>(orbs3_pcalloc(pool.get(), sizeof(orbs3_peer_t)));
    auto* sa = static_cast<struct sockaddr*>(orbs3_pcalloc(pool.get(), kSockaddrSize));
    if (peer == nullptr || sa == nullptr) {
        ipd_log(LOG_ERR, "failed to create connection sock addr");
        return nullptr;
    }
    rev->data = c;
    wev->data = c;
    c->read = rev;
    c->write = wev;
    c->peer = peer;
    c->sockaddr = sa;
    c->fd = -1;
    c->epfd = -1;
    c->async_fd = -1;
    c->send_file_fd = -1;
    c->pool = pool.release();
    {
        conn_lock lock;
        list_add_tail(&c->open_link, &g_open_connections);
    }
    return c;
}

void orbs3_close_connection(orbs3_connection_t* c)
{
    if (c == nullptr)
        return;
    // The session ends first: its close alert leaves before the socket closes, and the library's state
    // is not in the pool.
    if (c->shutdown != nullptr)
        c->shutdown(c);
    int fd = c->fd;
    if (fd >= 0) {
        // It may never have been registered; the close alone would not be enough if the socket had a
        // second descriptor somewhere.
        if (c->epfd >= 0)
            (void)epoll_ctl(c->epfd, EPOLL_CTL_DEL, fd, nullptr);
        close(fd);
        c->fd = -1;
    }
    if (c->send_file_fd >= 0) {
        close(c->send_file_fd);
        c->send_file_fd = -1;
    }
    c->closed = 1;
    c->read->closed = 1;
    c->write->closed = 1;
    // The events die with the pool: no tree may keep their nodes.
    neo_event_del_timer(c->read);
    neo_event_del_timer(c->write);
    orbs3_conn_counters.closed++;
    orbs3_conn_counters.open--;
    ipd_debug("close fd=%d on thread %d", fd, orbs3_thread_index);
    {
        conn_lock lock;
        list_del(&c->open_link);
    }
    // The record lives in the pool: nothing of it may be touched after this.
    orbs3_destroy_pool(c->pool);
}

void orbs3_close_all_connections()
{
    for (;;) {
        orbs3_connection_t* c;
        {
            conn_lock lock;
            if (list_empty(&g_open_connections))
                return;
            c = list_entry(g_open_connections.next, orbs3_connection_t, open_link);
        }
        // The exit handler also ends a request in progress, whose pool is not the connection's. Should it
        // leave the connection open, it is closed here, so the loop always moves on.
        if (c->exit_handler != nullptr) {
            c->exit_handler(c);
            conn_lock lock;
            if (list_empty(&g_open_connections) ||
                list_entry(g_open_connections.next, orbs3_connection_t, open_link) != c)
                continue;
        }
        orbs3_close_connection(c);
    }
}
