// Unix-domain stream sockets of the control plane: the master's and each worker's listening socket, and
// the connections to the node's other daemons. Every socket orbmux listens on is mode 0600 and serves only
// root (or the daemon's own user); every read and write has a deadline, so no peer can hold a control
// thread by sending half a message or by not reading its reply.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>

// How long one message may take to arrive or to leave, in milliseconds.
inline constexpr int ORBS3_UD_DEADLINE_MS = 5000;
// The longest path a unix socket address holds.
inline constexpr std::size_t ORBS3_UD_PATH_MAX = 107;

// Listens on `path` (at most 107 bytes): a socket file left behind is replaced, the new one is mode 0600
// before it accepts anyone. 0 with *fd set, or -1 (errno EINVAL for a null or too long argument).
[[nodiscard]] int ud_create_listen_socket(const char* path, int* fd);
// accept(2), the connection close-on-exec. The descriptor or -1.
[[nodiscard]] int ud_accept(int listen_fd, struct sockaddr* addr, socklen_t* len);
// Connects to the listening socket at `path`. 0 with *fd set, or -1 (a failed connect closes the socket).
[[nodiscard]] int ud_connect(const char* path, int* fd);
// Sends all `len` bytes before the deadline; `len`, or -1 (a peer that takes nothing in time included).
ssize_t ud_send(int fd, const void* buf, std::size_t len);
// Receives exactly `len` bytes before the deadline, or what came before the peer closed or time ran out:
// the count (less than `len` then), or -1.
ssize_t ud_recv(int fd, void* buf, std::size_t len);
// Unlinks `path`, if given, and closes `fd`.
void ud_destory_listen_socket(const char* path, int fd);
// Closes `fd` if it is above 0.
void ud_close(int fd);
// Whether the peer of a connected socket runs as root or as this process's user (SO_PEERCRED); nobody
// else may speak to a control socket.
[[nodiscard]] bool ud_peer_trusted(int fd);
