// Epoll registrations, the pass of an epoll thread, the notify, and the send/recv and vector wrappers.
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "core/orbs3_config.h"
#include "event/orbs3_epoll.h"
#include "event/orbs3_fd.h"
#include "event/orbs3_socket.h"

namespace {

struct pair_fds {
    orbs3_fd ours;
    orbs3_fd peer;
};

pair_fds make_pair()
{
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0)
        return {};
    fcntl(sv[0], F_SETFL, O_NONBLOCK);
    fcntl(sv[1], F_SETFL, O_NONBLOCK);
    return {orbs3_fd(sv[0]), orbs3_fd(sv[1])};
}

struct registration {
    bool found = false;
    unsigned events = 0;
    unsigned long long data = 0;
};

// What the kernel holds for fd in the epoll set, from /proc/self/fdinfo, without EPOLLERR and EPOLLHUP,
// which the kernel adds to every registration.
registration registered(int epfd, int fd)
{
    std::ifstream in("/proc/self/fdinfo/" + std::to_string(epfd));
    std::string line;
    while (std::getline(in, line)) {
        int tfd;
        unsigned events;
        unsigned long long data;
        if (std::sscanf(line.c_str(), "tfd: %d events: %x data: %llx", &tfd, &events, &data) == 3 && tfd == fd)
            return {true, events & ~static_cast<unsigned>(EPOLLERR | EPOLLHUP), data};
    }
    return {};
}

TEST(ConnectionEpoll, RegistrationsCarryTheDesignedFlagsAndTheConnection)
{
    orbs3_fd ep(orbs3_create_epfd(512));
    ASSERT_TRUE(ep.valid());
    using reg_fn = int (*)(int, int, orbs3_connection_t*);
    struct row {
        const char* name;
        reg_fn add;
        reg_fn mod;  // re-arms the same registration, or null
        unsigned want;
    } const rows[] = {
        {"add", orbs3_epoll_add_conn, nullptr, 0x80002001u},
        {"r_add", orbs3_epoll_r_add_conn, orbs3_epoll_r_mod_conn, 0xc0000001u},
        {"w_add", orbs3_epoll_w_add_conn, orbs3_epoll_w_mod_conn, 0xc0000004u},
    };
    orbs3_connection_t conn{};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        pair_fds p = make_pair();
        ASSERT_EQ(r.add(p.ours.get(), ep.get(), &conn), 0);
        registration got = registered(ep.get(), p.ours.get());
        ASSERT_TRUE(got.found);
        EXPECT_EQ(got.events, r.want);
        EXPECT_EQ(got.data, reinterpret_cast<unsigned long long>(&conn));
        EXPECT_EQ(r.add(p.ours.get(), ep.get(), &conn), -1) << "a second add of the same fd fails";
        if (r.mod != nullptr) {
            // Switching direction on the same registration.
            reg_fn other = r.mod == orbs3_epoll_r_mod_conn ? orbs3_epoll_w_mod_conn : orbs3_epoll_r_mod_conn;
            ASSERT_EQ(other(p.ours.get(), ep.get(), &conn), 0);
            EXPECT_NE(registered(ep.get(), p.ours.get()).events, r.want);
            ASSERT_EQ(r.mod(p.ours.get(), ep.get(), &conn), 0);
            EXPECT_EQ(registered(ep.get(), p.ours.get()).events, r.want);
        }
        ASSERT_EQ(orbs3_epoll_del_conn(p.ours.get(), ep.get(), &conn), 0);
        EXPECT_FALSE(registered(ep.get(), p.ours.get()).found);
        EXPECT_EQ(orbs3_epoll_del_conn(p.ours.get(), ep.get(), &conn), -1);
    }
    pair_fds p = make_pair();
    EXPECT_EQ(orbs3_epoll_r_mod_conn(p.ours.get(), ep.get(), &conn), -1) << "mod of an unregistered fd";
}

struct calls {
    int read = 0;
    int write = 0;
    int exit = 0;
};

// A connection on `fd` in the epoll set `ep` whose handlers count their calls in `got`; closed with it.
struct counted_conn {
    calls got;
    orbs3_connection_t* c = orbs3_create_connection(sysconfig.conn_pool_size);

    counted_conn(orbs3_fd& fd, int ep)
    {
        if (c == nullptr)
            return;
        c->fd = fd.release();
        c->epfd = ep;
        c->data = &got;
        c->read->handler = [](orbs3_event_t* ev) { of(ev)->read++; };
        c->write->handler = [](orbs3_event_t* ev) { of(ev)->write++; };
        c->exit_handler = [](orbs3_connection_t* conn) { static_cast<calls*>(conn->data)->exit++; };
    }
    ~counted_conn()
    {
        if (c != nullptr)
            orbs3_close_connection(c);
    }
    counted_conn(const counted_conn&) = delete;
    counted_conn& operator=(const counted_conn&) = delete;
    static calls* of(orbs3_event_t* ev) { return static_cast<calls*>(static_cast<orbs3_connection_t*>(ev->data)->data); }
};

TEST(ConnectionEpoll, PassDispatchesByReadinessAndEndsConnectionsOnErrorOrHangUp)
{
    orbs3_fd ep(orbs3_create_epfd(512));
    ASSERT_TRUE(ep.valid());
    signal(SIGPIPE, SIG_IGN);

    enum class setup { data, data_then_shutdown, writable, peer_closed, peer_closed_unread };
    struct row {
        const char* name;
        setup how;
        uint32_t events;
        calls want;
    } const rows[] = {
        {"readable", setup::data, ORBS3_EPOLL_READ, {1, 0, 0}},
        // Unread data does not save a connection whose peer has hung up.
        {"in with rdhup", setup::data_then_shutdown, ORBS3_EPOLL_LISTEN, {0, 0, 1}},
        {"writable", setup::writable, ORBS3_EPOLL_WRITE, {0, 1, 0}},
        {"hup alone", setup::peer_closed, EPOLLET, {0, 0, 0}},
        {"error", setup::peer_closed_unread, ORBS3_EPOLL_READ, {0, 0, 1}},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        pair_fds p = make_pair();
        counted_conn cc(p.ours, ep.get());
        orbs3_connection_t* c = cc.c;
        ASSERT_NE(c, nullptr);
        switch (r.how) {
        case setup::data:
            ASSERT_EQ(write(p.peer.get(), "x", 1), 1);
            break;
        case setup::data_then_shutdown:
            ASSERT_EQ(write(p.peer.get(), "x", 1), 1);
            shutdown(p.peer.get(), SHUT_WR);
            break;
        case setup::writable:
            break;
        case setup::peer_closed:
            p.peer.reset();
            break;
        case setup::peer_closed_unread:
            ASSERT_EQ(write(c->fd, "unread", 6), 6);
            p.peer.reset();
            break;
        }
        ASSERT_EQ(orbs3_epoll_ctl(ep.get(), EPOLL_CTL_ADD, c->fd, r.events, c), 0);
        EXPECT_EQ(orbs3_epoll_events_manage(ep.get()), 0);
        EXPECT_EQ(cc.got.read, r.want.read);
        EXPECT_EQ(cc.got.write, r.want.write);
        EXPECT_EQ(cc.got.exit, r.want.exit);
    }

    // An event whose data is null is skipped; the pass goes on to the next one.
    pair_fds skipped = make_pair();
    pair_fds served = make_pair();
    struct epoll_event raw{};
    raw.events = EPOLLIN;
    raw.data.ptr = nullptr;
    ASSERT_EQ(epoll_ctl(ep.get(), EPOLL_CTL_ADD, skipped.ours.get(), &raw), 0);
    ASSERT_EQ(write(skipped.peer.get(), "x", 1), 1);
    counted_conn cc(served.ours, ep.get());
    orbs3_connection_t* c = cc.c;
    ASSERT_NE(c, nullptr);
    const calls& got = cc.got;
    ASSERT_EQ(orbs3_epoll_r_add_conn(c->fd, ep.get(), c), 0);
    ASSERT_EQ(write(served.peer.get(), "x", 1), 1);
    EXPECT_EQ(orbs3_epoll_events_manage(ep.get()), 0);
    EXPECT_EQ(got.read, 1);
    // One-shot: the same data wakes nobody again until the connection is re-armed.
    (void)epoll_ctl(ep.get(), EPOLL_CTL_DEL, skipped.ours.get(), nullptr);
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(orbs3_epoll_events_manage(ep.get()), 0);
    auto waited = std::chrono::steady_clock::now() - t0;
    EXPECT_EQ(got.read, 1);
    // A pass with nothing to do comes back after the 500 ms bound.
    EXPECT_GE(waited, std::chrono::milliseconds(400));
    EXPECT_LT(waited, std::chrono::milliseconds(1500));
    ASSERT_EQ(orbs3_epoll_r_mod_conn(c->fd, ep.get(), c), 0);
    EXPECT_EQ(orbs3_epoll_events_manage(ep.get()), 0);
    EXPECT_EQ(got.read, 2) << "re-armed with data still waiting";
}

int g_notified = 0;
orbs3_event_t* g_notified_event = nullptr;

void on_notify(orbs3_event_t* ev)
{
    g_notified++;
    g_notified_event = ev;
}

TEST(ConnectionEpoll, NotifyCallsTheStoredHandlerThroughTheMastersEpollSet)
{
    orbs3_fd ep(orbs3_create_epfd(512));
    ASSERT_TRUE(ep.valid());
    ASSERT_EQ(orbs3_epoll_notify_init(ep.get()), 0);
    EXPECT_TRUE(registered(ep.get(), orbs3_epoll_notify_fd()).found);

    ASSERT_EQ(orbs3_epoll_notify(on_notify), 0);
    EXPECT_EQ(orbs3_epoll_events_manage(ep.get()), 0);
    EXPECT_EQ(g_notified, 1);
    ASSERT_NE(g_notified_event, nullptr);
    EXPECT_EQ(g_notified_event->count, 1u);
    EXPECT_EQ(g_notified_event, orbs3_epoll_notify_conn()->read);

    // Edge-triggered: every notify is a new edge although the counter is not read.
    ASSERT_EQ(orbs3_epoll_notify(on_notify), 0);
    EXPECT_EQ(orbs3_epoll_events_manage(ep.get()), 0);
    EXPECT_EQ(g_notified, 2);
    EXPECT_EQ(g_notified_event->count, 2u);
}

TEST(ConnectionEpoll, SendAndRecvSayAgainWhenTheyWouldBlockAndZeroOnThePeersClose)
{
    signal(SIGPIPE, SIG_IGN);
    pair_fds p = make_pair();
    orbs3_connection_t c{};
    c.fd = p.ours.get();
    uint8_t buf[65536];
    EXPECT_EQ(orbs3_recv(&c, buf, sizeof buf), -2) << "empty non-blocking socket";

    std::memset(buf, 'z', sizeof buf);
    std::size_t sent = 0;
    ssize_t n;
    while ((n = orbs3_send(&c, buf, sizeof buf)) > 0)
        sent += static_cast<std::size_t>(n);
    EXPECT_EQ(n, -2) << "full socket";
    EXPECT_GT(sent, 0u);

    orbs3_connection_t peer{};
    peer.fd = p.peer.get();
    std::size_t received = 0;
    while ((n = orbs3_recv(&peer, buf, sizeof buf)) > 0)
        received += static_cast<std::size_t>(n);
    EXPECT_EQ(n, -2);
    EXPECT_EQ(received, sent);

    ASSERT_EQ(orbs3_send(&peer, reinterpret_cast<const uint8_t*>("tail"), 4), 4);
    p.peer.reset();
    EXPECT_EQ(orbs3_recv(&c, buf, sizeof buf), 4) << "data sent before the close still arrives";
    EXPECT_EQ(orbs3_recv(&c, buf, sizeof buf), 0) << "orderly close";
    EXPECT_EQ(orbs3_send(&c, buf, 1), -1) << "closed peer";
}

TEST(ConnectionEpoll, VectorWrappersGatherAndScatterWhatWasAppended)
{
    pair_fds p = make_pair();
    struct iovec out[3];
    orbs3_writev_t wv{p.ours.get(), out, 0, 0, 3};
    ASSERT_EQ(orbs3_write_buf(&wv, "HTTP/1.1", -1), 0);
    EXPECT_EQ(wv.total, 8u) << "-1 counts the text";
    ASSERT_EQ(orbs3_write_buf(&wv, " 200 OK\r\nignored", 9), 0);
    ASSERT_EQ(orbs3_write_buf(&wv, "", -1), 0);
    EXPECT_EQ(wv.total, 17u);
    EXPECT_EQ(wv.count, 3u);
    EXPECT_EQ(orbs3_write_buf(&wv, "more", -1), -1) << "array full";
    EXPECT_EQ(wv.total, 17u);
    EXPECT_EQ(orbs3_writev(&wv), 17);

    char a[5], b[32] = {};
    struct iovec in[2] = {{a, sizeof a}, {b, sizeof b}};
    orbs3_writev_t rv{p.peer.get(), in, 0, 2, 2};
    EXPECT_EQ(orbs3_readv(&rv), 17);
    EXPECT_EQ(std::string(a, 5), "HTTP/");
    EXPECT_EQ(std::string(b), "1.1 200 OK\r\n");

    orbs3_writev_t bad{-1, out, 0, 1, 3};
    EXPECT_LT(orbs3_writev(&bad), 0);
}

}  // namespace
