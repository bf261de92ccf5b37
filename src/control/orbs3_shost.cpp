#include "control/orbs3_shost.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "control/orbs3_service_start.h"
#include "control/orbs3_vhost_file.h"
#include "core/orbs3_log.h"
#include "core/orbs3_prefix.h"
#include "event/neo_thread_pool.h"

std::atomic<int> g_shost_register{-1};
std::atomic<int> g_shost_status{-1};

namespace {

constexpr unsigned kPassSeconds = 3;
constexpr const char* kShostIface = "/var/run/kelvane/shost.iface";

// Connects to the controller's socket; the descriptor, or -1 with errno set.
int connect_shost()
{
    std::string path = orbs3_prefix_path(kShostIface);
    struct sockaddr_un addr;
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
        int saved = errno;
        close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

// The controller's messages are not spoken yet: a controller that accepts the connection still gets no
// request, and the exchange counts as failed. A node therefore always starts offline for now.
int exchange_with_shost()
{
    int fd = connect_shost();
    if (fd < 0)
        return -1;
    close(fd);
    errno = EPROTONOSUPPORT;
    return -1;
}

void load_once(const char* how, int flag)
{
    if (g_orbs3_init_flag.load() == 0) {
        ipd_log(LOG_INFO, "%s", how);
        (void)orbs3_load_vhosts();
    }
    g_orbs3_init_flag = flag;
}

}  // namespace

int orbs3_register_shost()
{
    if (exchange_with_shost() != 0) {
        int err = errno;
        ipd_log(LOG_ERR, "register to shost failure, errno=%d[%s]", err, strerror(err));
        return -1;
    }
    return 0;
}

int orbs3_alive_shost()
{
    if (exchange_with_shost() != 0) {
        g_shost_status = 0;
        return -1;
    }
    g_shost_status = 1;
    return 0;
}

void orbs3_shost_pass()
{
    switch (g_shost_register.load()) {
    case 0:
        load_once("start as an offline service", 1);
        g_shost_status = 0;
        break;
    case 1:
        load_once("start as an online service", 2);
        g_shost_status = 1;
        break;
    default:
        ipd_log(LOG_INFO, "register to shost");
        if (orbs3_register_shost() == 0) {
            g_shost_register = 1;
            ipd_log(LOG_INFO, "register shost success");
        } else {
            ipd_log(LOG_INFO, "register shost failure");
            g_shost_register = 0;
            g_shost_status = -1;
        }
        break;
    }
    if (g_shost_register.load() != -1 && g_shost_status.load() != -1)
        (void)orbs3_alive_shost();
}

void* orbs3_shost_thread(void* arg)
{
    (void)arg;
    ipd_log(LOG_INFO, "shost thread[%ld] start", static_cast<long>(neo_thread_tid()));
    (void)orbs3_read_shost_data_file();
    for (;;) {
        sleep(kPassSeconds);
        orbs3_shost_pass();
    }
    return nullptr;
}
