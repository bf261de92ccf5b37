// A whole connection on arbitrary bytes: the client's side of a socketpair writes the input in pieces
// (their sizes come from the input's first bytes), the server's side runs the HTTP engine's handlers as an
// epoll thread would (heads, pipelining, Content-Length and chunked bodies, 100-continue, replies, the
// S3 front end with its admission and error replies), and the client reads replies or, for some inputs,
// does not.
// At the end the client goes away; every connection must then be closed and every request freed, which
// LeakSanitizer checks at exit and the counters check after each input.
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "core/orbs3_tenant.h"
#include "core/orbs3_config.h"
#include "core/orbs3_log.h"
#include "event/orbs3_connection.h"
#include "event/orbs3_socket.h"
#include "http/orbs3_http_request.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_classify.h"
#include "s3/orbs3_s3_dispatch.h"
#include "storage/orbs3_storage_handlers.h"
#include "fuzz_check.h"

namespace {

orbs3_listening_t g_listening;
int g_epfd = -1;

void setup()
{
    // As in the worker: a write to a peer that has gone is an error result, not a signal.
    signal(SIGPIPE, SIG_IGN);
    CHECK(orbs3_init_cycle() == 0);
    static orbs3_pool_ptr hash_pool(orbs3_create_mem_block(16384));
    CHECK(hash_pool && orbs3_http_init_headers_in_hash(hash_pool.get()) == 0);
    // Small buffers, so that heads and bodies cross their bounds often.
    sysconfig.http_header_in_size = 512;
    sysconfig.http_work_space = 512;
    sysconfig.recv_buffer = 256;
    sysconfig.request_pool_size = 8192;
    sysconfig.http_timeout = 0;
    orbs3_service_t* svc = orbs3_service_new();
    orbs3_vhost_t* vh = orbs3_vhost_new();
    CHECK(svc != nullptr && vh != nullptr);
    neo_strdup(&vh->domain, "s3.example", ORBS3_NAME_CAP);
    CHECK(orbs3_service_add_vhost(svc, vh) == 0);
    CHECK(orbs3_storage_install_handlers() == 0);
    g_listening.vhosts = &svc->vhosts;
    g_listening.mode = 3;
    g_listening.request_handler = orbs3_parse_req_msg;
    g_listening.response_handler = orbs3_events_process;
    g_epfd = epoll_create1(EPOLL_CLOEXEC);
    CHECK(g_epfd >= 0);
}

// One pass over what is ready, as the event loop dispatches it; false when nothing was.
bool pass()
{
    struct epoll_event events[8];
    int n = epoll_wait(g_epfd, events, 8, 0);
    for (int i = 0; i < n; i++) {
        auto* c = static_cast<orbs3_connection_t*>(events[i].data.ptr);
        if (events[i].events & EPOLLERR)
            c->exit_handler(c);
        else if (events[i].events & EPOLLIN)
            c->read->handler(c->read);
        else if (events[i].events & EPOLLOUT)
            c->write->handler(c->write);
    }
    return n > 0;
}

void drain(int fd)
{
    uint8_t buf[4096];
    while (read(fd, buf, sizeof buf) > 0) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    setup();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    if (size < 2)
        return 0;
    // First byte: bit 0 the client reads no replies; the rest, with the second, the piece sizes.
    const bool reader = (data[0] & 1) == 0;
    const std::size_t piece = 1 + ((data[0] >> 1) | (data[1] << 7)) % 700;
    data += 2;
    size -= 2;

    int sv[2];
    CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, sv) == 0);
    const int64_t open_before = orbs3_conn_counters.open;
    orbs3_connection_t* c = orbs3_create_connection(sysconfig.conn_pool_size);
    CHECK(c != nullptr);
    orbs3_conn_counters.open++;
    c->fd = sv[0];
    c->epfd = g_epfd;
    c->listening = &g_listening;
    orbs3_http_init_connection(c);

    for (std::size_t at = 0; at < size; at += piece) {
        std::size_t n = size - at < piece ? size - at : piece;
        (void)!write(sv[1], data + at, n);
        while (pass()) {
            if (reader)
                drain(sv[1]);
        }
    }
    // The client goes away: whatever the connection waited for, it ends now.
    shutdown(sv[1], SHUT_WR);
    for (int i = 0; i < 64 && pass(); i++)
        drain(sv[1]);
    close(sv[1]);
    for (int i = 0; i < 64 && pass(); i++) {
    }
    // A connection still open waits on nothing that can come (a lingering read has its own deadline,
    // which is off here): the worker's exit closes it, as it would.
    orbs3_close_all_connections();
    CHECK(orbs3_conn_counters.open == open_before);
    return 0;
}
