// A client connection over one end of a socketpair, non-blocking as the event layer makes it, with the
// other end kept by the test as the peer. Closed with the test.
#pragma once

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "event/orbs3_connection.h"
#include "event/orbs3_fd.h"
#include "event/orbs3_socket.h"

namespace unit_test {

struct socketpair_connection {
    orbs3_fd peer;
    orbs3_connection_t* c = nullptr;

    // peer_nonblocking: the peer's reads return at once when nothing is there.
    explicit socketpair_connection(bool peer_nonblocking = true, std::size_t pool_size = 8192)
    {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0)
            return;
        peer = orbs3_fd(sv[1]);
        if (peer_nonblocking)
            fcntl(sv[1], F_SETFL, O_NONBLOCK);
        c = orbs3_create_connection(pool_size);
        if (c == nullptr) {
            close(sv[0]);
            return;
        }
        c->fd = sv[0];
        c->epfd = -1;
        c->send = orbs3_send;
        c->recv = orbs3_recv;
        orbs3_nonblocking(sv[0]);
    }
    ~socketpair_connection()
    {
        if (c != nullptr)
            orbs3_close_connection(c);
    }
    socketpair_connection(const socketpair_connection&) = delete;
    socketpair_connection& operator=(const socketpair_connection&) = delete;

    // Everything the connection has written to the peer so far (the peer must be non-blocking).
    std::string drain() const
    {
        std::string out;
        char buf[65536];
        ssize_t n;
        while ((n = read(peer.get(), buf, sizeof buf)) > 0)
            out.append(buf, static_cast<std::size_t>(n));
        return out;
    }
};

}  // namespace unit_test
