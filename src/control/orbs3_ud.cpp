#include "control/orbs3_ud.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace {

constexpr int kBacklog = 128;
constexpr long kConnectRetryNs = 20 * 1000 * 1000;

int64_t now_ms()
{
    struct timespec ts {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits until `fd` is ready for `events` or the deadline passes. 1 ready, 0 timed out, -1 error.
int wait_for(int fd, short events, int64_t deadline)
{
    for (;;) {
        const int64_t left = deadline - now_ms();
        if (left <= 0)
            return 0;
        struct pollfd p {fd, events, 0};
        int n = poll(&p, 1, static_cast<int>(left));
        if (n > 0)
            return 1;
        if (n == 0)
            return 0;
        if (errno != EINTR)
            return -1;
    }
}

bool make_address(const char* path, struct sockaddr_un* addr)
{
    if (path == nullptr || std::strlen(path) > ORBS3_UD_PATH_MAX) {
        errno = EINVAL;
        return false;
    }
    std::memset(addr, 0, sizeof *addr);
    addr->sun_family = AF_UNIX;
    std::memcpy(addr->sun_path, path, std::strlen(path) + 1);
    return true;
}

}  // namespace

int ud_create_listen_socket(const char* path, int* fd)
{
    struct sockaddr_un addr;
    if (fd == nullptr || !make_address(path, &addr))
        return -1;
    int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s < 0)
        return -1;
    (void)unlink(path);
    // Mode 0600 before listen: until then a connect is refused, so nobody slips in under the umask's mode.
    if (bind(s, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0 || chmod(path, 0600) != 0 ||
        listen(s, kBacklog) != 0) {
        const int saved = errno;
        close(s);
        errno = saved;
        return -1;
    }
    *fd = s;
    return 0;
}

int ud_accept(int listen_fd, struct sockaddr* addr, socklen_t* len)
{
    int fd;
    do {
        fd = accept4(listen_fd, addr, len, SOCK_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

int ud_connect(const char* path, int* fd)
{
    struct sockaddr_un addr;
    if (fd == nullptr || !make_address(path, &addr))
        return -1;
    // A peer that stopped accepting fills its backlog, and a blocking connect would then wait for good:
    // the connect is non-blocking and retried until the deadline instead.
    int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (s < 0)
        return -1;
    const int64_t deadline = now_ms() + ORBS3_UD_DEADLINE_MS;
    int rc;
    while ((rc = connect(s, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr)) != 0 &&
           (errno == EAGAIN || errno == EINTR) && now_ms() < deadline) {
        struct timespec pause {0, kConnectRetryNs};
        (void)nanosleep(&pause, nullptr);
    }
    if (rc != 0 || fcntl(s, F_SETFL, fcntl(s, F_GETFL) & ~O_NONBLOCK) != 0) {
        const int saved = errno == EAGAIN ? ETIMEDOUT : errno;
        close(s);
        errno = saved;
        return -1;
    }
    *fd = s;
    return 0;
}

ssize_t ud_send(int fd, const void* buf, std::size_t len)
{
    const int64_t deadline = now_ms() + ORBS3_UD_DEADLINE_MS;
    const auto* p = static_cast<const uint8_t*>(buf);
    std::size_t done = 0;
    while (done < len) {
        ssize_t n = send(fd, p + done, len - done, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n > 0) {
            done += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (wait_for(fd, POLLOUT, deadline) == 1)
                continue;
            errno = ETIMEDOUT;
        }
        return -1;
    }
    return static_cast<ssize_t>(done);
}

ssize_t ud_recv(int fd, void* buf, std::size_t len)
{
    const int64_t deadline = now_ms() + ORBS3_UD_DEADLINE_MS;
    auto* p = static_cast<uint8_t*>(buf);
    std::size_t done = 0;
    while (done < len) {
        ssize_t n = recv(fd, p + done, len - done, MSG_DONTWAIT);
        if (n > 0) {
            done += static_cast<std::size_t>(n);
            continue;
        }
        if (n == 0)
            break;
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            int w = wait_for(fd, POLLIN, deadline);
            if (w == 1)
                continue;
            if (w == 0) {
                errno = ETIMEDOUT;
                break;
            }
        }
        return done > 0 ? static_cast<ssize_t>(done) : -1;
    }
    return static_cast<ssize_t>(done);
}

void ud_destory_listen_socket(const char* path, int fd)
{
    if (path != nullptr)
        (void)unlink(path);
    ud_close(fd);
}

void ud_close(int fd)
{
    if (fd > 0)
        close(fd);
}

bool ud_peer_trusted(int fd)
{
    struct ucred cred {};
    socklen_t len = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || len != sizeof cred)
        return false;
    return cred.uid == 0 || cred.uid == geteuid();
}
