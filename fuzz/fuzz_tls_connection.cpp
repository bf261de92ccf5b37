// A TLS connection on arbitrary moves: an in-process TLS client talks to a server connection of a TLS
// listener over a socketpair, and the input decides each move: the client writes plain text (requests)
// through its session, a number of its record bytes cross to the server (short writes), a number of the
// server's bytes cross back (short reads), or raw bytes are thrown onto the socket into the record
// stream. The server runs the first look, the handshake and then the HTTP engine with the S3 front end,
// as an epoll thread would. At the end the client goes away; the connection must then be closed with its
// session freed (LeakSanitizer checks at exit), and the counters must balance after each input.
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <string>

#include "core/orbs3_config.h"
#include "core/orbs3_tenant.h"
#include "event/orbs3_connection.h"
#include "http/orbs3_http_request.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_classify.h"
#include "s3/orbs3_s3_dispatch.h"
#include "storage/orbs3_storage_handlers.h"
#include "tls/orbs3_ssl.h"
#include "tls/orbs3_ssl_connection.h"
#include "fuzz_check.h"

namespace {

orbs3_listening_t g_listening;
orbs3_ssl_t g_ssl;
SSL_CTX* g_client_ctx = nullptr;
int g_epfd = -1;

void setup()
{
    signal(SIGPIPE, SIG_IGN);
    CHECK(orbs3_init_cycle() == 0);
    CHECK(orbs3_ssl_init() == 0);
    static orbs3_pool_ptr hash_pool(orbs3_create_mem_block(16384));
    CHECK(hash_pool && orbs3_http_init_headers_in_hash(hash_pool.get()) == 0);
    sysconfig.http_header_in_size = 512;
    sysconfig.http_work_space = 512;
    sysconfig.recv_buffer = 256;
    sysconfig.request_pool_size = 8192;
    sysconfig.http_timeout = 0;
    sysconfig.ssl_handshake_timeout = 0;

    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* cert = X509_new();
    CHECK(key != nullptr && cert != nullptr);
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert), 86400);
    X509_set_pubkey(cert, key);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("s3.example"), -1, -1,
                               0);
    X509_set_issuer_name(cert, name);
    CHECK(X509_sign(cert, key, EVP_sha256()) > 0);
    SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
    CHECK(ctx != nullptr);
    SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
    CHECK(SSL_CTX_use_certificate(ctx, cert) == 1 && SSL_CTX_use_PrivateKey(ctx, key) == 1);
    SSL_CTX_set_read_ahead(ctx, 1);
    X509_free(cert);
    EVP_PKEY_free(key);
    g_ssl = orbs3_ssl_t{ctx, 0, ORBS3_SSL_BUFFER_SIZE};
    orbs3_cycle->ssl = &g_ssl;
    g_client_ctx = SSL_CTX_new(TLS_client_method());
    CHECK(g_client_ctx != nullptr);

    orbs3_service_t* svc = orbs3_service_new();
    orbs3_vhost_t* vh = orbs3_vhost_new();
    CHECK(svc != nullptr && vh != nullptr);
    neo_strdup(&vh->domain, "s3.example", ORBS3_NAME_CAP);
    CHECK(orbs3_service_add_vhost(svc, vh) == 0);
    CHECK(orbs3_storage_install_handlers() == 0);
    g_listening.vhosts = &svc->vhosts;
    g_listening.mode = 4;
    g_listening.handler = orbs3_https_init_connection;
    g_listening.secure_handler = orbs3_http_init_connection;
    g_listening.request_handler = orbs3_parse_req_msg;
    g_listening.response_handler = orbs3_events_process;
    g_epfd = epoll_create1(EPOLL_CLOEXEC);
    CHECK(g_epfd >= 0);
}

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

// The client: its session over a memory BIO pair, and the bytes on their way in each direction.
struct client {
    SSL* ssl = nullptr;
    BIO* net = nullptr;
    int fd = -1;
    std::string out;  // records not yet on the socket
    bool reads = true;

    // The client's side runs: handshake, replies read and dropped, records collected.
    void step()
    {
        if (!SSL_is_init_finished(ssl))
            (void)SSL_do_handshake(ssl);
        char buf[4096];
        if (reads)
            while (SSL_read(ssl, buf, sizeof buf) > 0) {
            }
        int n;
        while ((n = BIO_read(net, buf, sizeof buf)) > 0)
            out.append(buf, static_cast<std::size_t>(n));
        ERR_clear_error();
    }
    // At most `most` record bytes onto the socket.
    void send(std::size_t most)
    {
        if (out.empty() || fd < 0)
            return;
        ssize_t w = write(fd, out.data(), std::min(most, out.size()));
        if (w > 0)
            out.erase(0, static_cast<std::size_t>(w));
    }
    // At most `most` of the server's bytes into the session.
    void receive(std::size_t most)
    {
        char buf[65536];
        ssize_t r = read(fd, buf, std::min(most, sizeof buf));
        if (r > 0)
            (void)BIO_write(net, buf, static_cast<int>(r));
    }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    setup();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    if (size < 1)
        return 0;
    // First byte: bit 0 the client reads no replies; bit 1 the handshake runs to its end before the moves
    // begin (otherwise the moves carry it too); bit 2 TLS 1.2 at most.
    const uint8_t flags = data[0];
    data++;
    size--;

    int sv[2];
    CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, sv) == 0);
    const int64_t open_before = orbs3_conn_counters.open;
    orbs3_connection_t* c = orbs3_create_connection(sysconfig.conn_pool_size);
    CHECK(c != nullptr);
    orbs3_conn_counters.open++;
    c->fd = sv[0];
    c->epfd = g_epfd;
    c->listening = &g_listening;

    client cl;
    cl.fd = sv[1];
    cl.reads = (flags & 1) == 0;
    cl.ssl = SSL_new(g_client_ctx);
    CHECK(cl.ssl != nullptr);
    if (flags & 4)
        SSL_set_max_proto_version(cl.ssl, TLS1_2_VERSION);
    BIO* inner = nullptr;
    CHECK(BIO_new_bio_pair(&inner, 1 << 18, &cl.net, 1 << 18) == 1);
    SSL_set_bio(cl.ssl, inner, inner);
    SSL_set_connect_state(cl.ssl);
    g_listening.handler(c);

    if (flags & 2) {
        for (int i = 0; i < 32 && !SSL_is_init_finished(cl.ssl); i++) {
            cl.step();
            cl.send(SIZE_MAX);
            (void)pass();
            cl.receive(SIZE_MAX);
        }
    }

    // Moves: an op byte (kind in the low 2 bits, a size from the rest) and, for writes, their bytes.
    std::size_t at = 0;
    while (at < size) {
        const uint8_t op = data[at++];
        const std::size_t n = 1 + (op >> 2) * 17;
        switch (op & 3) {
        case 0: {  // plain text through the session
            const std::size_t len = std::min(n, size - at);
            if (len != 0 && SSL_is_init_finished(cl.ssl))
                (void)SSL_write(cl.ssl, data + at, static_cast<int>(len));
            at += len;
            break;
        }
        case 1:
            cl.send(n);
            break;
        case 2:
            cl.receive(n);
            break;
        case 3: {  // raw bytes into the record stream
            const std::size_t len = std::min(n, size - at);
            cl.send(SIZE_MAX);
            if (len != 0)
                (void)!write(cl.fd, data + at, len);
            at += len;
            break;
        }
        }
        cl.step();
        while (pass()) {
        }
    }
    // Whatever is on its way arrives, then the client goes away without its close alert.
    for (int i = 0; i < 16; i++) {
        cl.step();
        cl.send(SIZE_MAX);
        bool moved = pass();
        cl.receive(SIZE_MAX);
        if (!moved && cl.out.empty())
            break;
    }
    SSL_set_quiet_shutdown(cl.ssl, 1);
    (void)SSL_shutdown(cl.ssl);
    SSL_free(cl.ssl);
    BIO_free(cl.net);
    shutdown(cl.fd, SHUT_WR);
    for (int i = 0; i < 64 && pass(); i++) {
    }
    close(cl.fd);
    for (int i = 0; i < 64 && pass(); i++) {
    }
    orbs3_close_all_connections();
    CHECK(orbs3_conn_counters.open == open_before);
    ERR_clear_error();
    return 0;
}
