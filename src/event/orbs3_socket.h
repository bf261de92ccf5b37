// Sockets: the listening socket, the accept loop, the options of a client socket and the thin I/O
// wrappers. The wrappers speak the event layer's results: a byte count, -1 on error, -2 "again" when the
// non-blocking call would block.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

#include "event/orbs3_connection.h"

inline constexpr int ORBS3_LISTEN_BACKLOG = 4096;
inline constexpr int ORBS3_LISTEN_BACKLOG6 = 512;
inline constexpr int ORBS3_MODE_HTTPS = 4;
inline constexpr int ORBS3_MODE_HTTP = 3;

// A listening record with its socket bound and listening; null on failure. The record lives in the run
// record's pool for the life of the process, so an epoll thread that still holds an event of a listener
// that has since been closed never reads freed memory. The caller fills the slots (handler, the request
// handlers, vhosts) before the listener joins an epoll set.
[[nodiscard]] orbs3_listening_t* orbs3_create_listening(const char* addr, int port, int family, int type,
                                                        int protocol, int mode);
[[nodiscard]] int orbs3_create_listenfd(orbs3_listening_t* ls);
[[nodiscard]] int orbs3_create_listenfd_addr6(orbs3_listening_t* ls);

// Accepts until the queue is empty, handing each connection to the listener's handler; 0.
int orbs3_events_accept(int epfd, orbs3_event_t* ev);
int orbs3_events_accept_addr6(int epfd, orbs3_event_t* ev);

// Keep-alive probes (10 s idle, 10 s apart, 3 of them) and no Nagle delay, then the blocking mode.
void orbs3_nonblocking(int fd);
// Holds back (1) or lets go (0) partial segments of a TCP socket: a reply head and the file behind it
// leave in full segments instead of a small one for the head. Not a TCP socket: nothing happens.
void orbs3_tcp_cork(int fd, int on);
void orbs3_blocking(int fd);

ssize_t orbs3_send(orbs3_connection_t* c, const uint8_t* buf, std::size_t size);
// 0: the peer has closed.
ssize_t orbs3_recv(orbs3_connection_t* c, uint8_t* buf, std::size_t size);

// Gather and scatter vectors. The caller provides the element array and its capacity and fills in fd.
struct orbs3_writev_t {
    int fd;
    struct iovec* iov;
    uint32_t total;     // bytes in all elements
    uint32_t count;     // elements in use
    uint32_t capacity;  // elements the array holds
};
// Appends one element; len -1 takes strlen of text. -1 when the array is full.
[[nodiscard]] int orbs3_write_buf(orbs3_writev_t* wv, const void* text, int64_t len);
ssize_t orbs3_writev(orbs3_writev_t* wv);
ssize_t orbs3_readv(orbs3_writev_t* wv);
