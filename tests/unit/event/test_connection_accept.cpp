// The listening socket and the accept loop on a loopback listener.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <vector>

#include "core/orbs3_config.h"
#include "event/orbs3_epoll.h"
#include "event/orbs3_fd.h"
#include "event/orbs3_socket.h"

namespace {

std::vector<orbs3_connection_t*> g_handed;

void record_connection(orbs3_connection_t* c)
{
    g_handed.push_back(c);
}

class ConnectionAccept : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (orbs3_cycle == nullptr) {
            ASSERT_EQ(orbs3_init_cycle(), 0);
        }
        g_handed.clear();
    }
};

sockaddr_in local_of(int fd)
{
    sockaddr_in sin{};
    socklen_t len = sizeof sin;
    getsockname(fd, reinterpret_cast<sockaddr*>(&sin), &len);
    return sin;
}

int int_option(int fd, int level, int name)
{
    int v = -1;
    socklen_t len = sizeof v;
    getsockopt(fd, level, name, &v, &len);
    return v;
}

TEST_F(ConnectionAccept, ListenerBindsAsAskedAndRefusesWhatItCannotServe)
{
    struct row {
        const char* name;
        const char* addr;
        int mode;
        bool ok;
        in_addr_t bound;
    } const rows[] = {
        {"loopback", "127.0.0.1", ORBS3_MODE_HTTP, true, htonl(INADDR_LOOPBACK)},
        {"any address", "", ORBS3_MODE_HTTP, true, htonl(INADDR_ANY)},
        {"bad address text", "999.1.1.1", ORBS3_MODE_HTTP, false, 0},
        {"address of no interface", "192.0.2.55", ORBS3_MODE_HTTP, false, 0},
        {"tls binds as plain", "127.0.0.1", ORBS3_MODE_HTTPS, true, htonl(INADDR_LOOPBACK)},
        {"unknown mode", "127.0.0.1", 7, false, 0},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        orbs3_listening_t* ls = orbs3_create_listening(r.addr, 0, AF_INET, SOCK_STREAM, 0, r.mode);
        if (!r.ok) {
            EXPECT_EQ(ls, nullptr);
            continue;
        }
        ASSERT_NE(ls, nullptr);
        orbs3_fd owner(ls->fd);
        EXPECT_EQ(local_of(ls->fd).sin_addr.s_addr, r.bound);
        EXPECT_EQ(ls->accept, orbs3_events_accept);
        EXPECT_NE(fcntl(ls->fd, F_GETFL) & O_NONBLOCK, 0);
        EXPECT_EQ(int_option(ls->fd, SOL_SOCKET, SO_REUSEPORT), 1);
        EXPECT_EQ(int_option(ls->fd, SOL_SOCKET, SO_REUSEADDR), 1);
        EXPECT_EQ(int_option(ls->fd, SOL_SOCKET, SO_ACCEPTCONN), 1);
    }
}

TEST_F(ConnectionAccept, OneCallTakesEveryQueuedConnectionAsAClientOfThisThread)
{
    orbs3_listening_t* ls = orbs3_create_listening("127.0.0.1", 0, AF_INET, SOCK_STREAM, 0, ORBS3_MODE_HTTP);
    ASSERT_NE(ls, nullptr);
    orbs3_fd listen_fd(ls->fd);
    ls->handler = record_connection;
    orbs3_connection_t* lc = orbs3_create_connection(sysconfig.conn_pool_size);
    ASSERT_NE(lc, nullptr);
    lc->fd = ls->fd;
    lc->listening = ls;
    lc->listen = 1;
    orbs3_fd ep(orbs3_create_epfd(512));
    ASSERT_EQ(orbs3_epoll_add_conn(ls->fd, ep.get(), lc), 0);

    constexpr int kBurst = 64;
    const in_port_t port = local_of(ls->fd).sin_port;
    std::vector<orbs3_fd> clients;
    std::set<in_port_t> client_ports;
    for (int i = 0; i < kBurst; i++) {
        orbs3_fd s(socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = port;
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(connect(s.get(), reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
        client_ports.insert(local_of(s.get()).sin_port);
        clients.push_back(std::move(s));
    }

    uint64_t accepted = orbs3_conn_counters.accepted;
    int64_t open = orbs3_conn_counters.open;
    // Through the pass, as an epoll thread sees it: the listener's read event calls the accept loop.
    EXPECT_EQ(orbs3_epoll_events_manage(ep.get()), 0);
    ASSERT_EQ(g_handed.size(), static_cast<std::size_t>(kBurst)) << "the whole queue in one wake-up";
    EXPECT_EQ(orbs3_conn_counters.accepted.load(), accepted + kBurst);
    EXPECT_EQ(orbs3_conn_counters.open.load(), open + kBurst);

    std::set<in_port_t> peer_ports;
    for (orbs3_connection_t* c : g_handed) {
        EXPECT_EQ(c->epfd, ep.get()) << "the connection belongs to the accepting thread";
        EXPECT_EQ(c->listening, ls);
        EXPECT_FALSE(c->listen);
        EXPECT_TRUE(c->read->active);
        EXPECT_EQ(c->peer->family, static_cast<uint32_t>(AF_INET));
        in_addr_t addr;
        std::memcpy(&addr, c->peer->addr, 4);
        EXPECT_EQ(addr, htonl(INADDR_LOOPBACK));
        EXPECT_EQ(c->socklen, sizeof(sockaddr_in));
        peer_ports.insert(c->peer->port);
        EXPECT_NE(fcntl(c->fd, F_GETFL) & O_NONBLOCK, 0);
        EXPECT_EQ(int_option(c->fd, IPPROTO_TCP, TCP_NODELAY), 1);
        EXPECT_EQ(int_option(c->fd, SOL_SOCKET, SO_KEEPALIVE), 1);
        EXPECT_EQ(int_option(c->fd, IPPROTO_TCP, TCP_KEEPIDLE), 10);
        EXPECT_EQ(int_option(c->fd, IPPROTO_TCP, TCP_KEEPINTVL), 10);
        EXPECT_EQ(int_option(c->fd, IPPROTO_TCP, TCP_KEEPCNT), 3);
    }
    EXPECT_EQ(peer_ports, client_ports);

    // Nothing queued: the loop ends at once instead of blocking.
    EXPECT_EQ(orbs3_events_accept(ep.get(), lc->read), 0);
    EXPECT_EQ(g_handed.size(), static_cast<std::size_t>(kBurst));

    uint64_t closed = orbs3_conn_counters.closed;
    for (orbs3_connection_t* c : g_handed)
        orbs3_close_connection(c);
    EXPECT_EQ(orbs3_conn_counters.closed.load(), closed + kBurst);
    EXPECT_EQ(orbs3_conn_counters.open.load(), open);
    char byte;
    for (auto& s : clients)
        EXPECT_EQ(read(s.get(), &byte, 1), 0) << "the client sees the close";

    lc->fd = -1;  // the listening socket is the test's own
    orbs3_close_connection(lc);
}

}  // namespace
