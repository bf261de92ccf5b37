#include "event/orbs3_epoll.h"

#include <sys/epoll.h>

#include <cerrno>
#include <cstring>

#include "core/orbs3_log.h"

int orbs3_create_epfd(int size)
{
    int fd = epoll_create(size);
    if (fd < 0) {
        ipd_log(LOG_WARNING, "failed to create epfd,syserror=%s", strerror(errno));
        return -1;
    }
    return fd;
}
