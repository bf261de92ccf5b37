// A server connection of a TLS listener driven through its handshake and requests by an in-process
// client over a socketpair. The client's records go through a memory BIO pair, so the test decides how
// many bytes cross the socket at a time in each direction; the server runs the event loop's handlers on
// its own epoll set, as an epoll thread does.
#include <fcntl.h>
#include <malloc.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "core/orbs3_config.h"
#include "core/orbs3_tenant.h"
#include "event/neo_event_timer.h"
#include "event/orbs3_connection.h"
#include "event/orbs3_socket.h"
#include "http/orbs3_http_request.h"
#include "http/orbs3_http_response.h"
#include "memory/neo_string.h"
#include "temp_dir.h"
#include "tls/orbs3_ssl.h"
#include "tls/orbs3_ssl_connection.h"

namespace {

using ctx_ptr = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;

// A self-signed P-256 certificate and its key, made once.
struct identity {
    EVP_PKEY* key = nullptr;
    X509* cert = nullptr;
    identity()
    {
        key = EVP_EC_gen("P-256");
        cert = X509_new();
        X509_set_version(cert, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
        X509_gmtime_adj(X509_getm_notBefore(cert), 0);
        X509_gmtime_adj(X509_getm_notAfter(cert), 3600);
        X509_set_pubkey(cert, key);
        X509_NAME* name = X509_get_subject_name(cert);
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("s3.example"), -1,
                                   -1, 0);
        X509_set_issuer_name(cert, name);
        X509_sign(cert, key, EVP_sha256());
    }
};

const identity& the_identity()
{
    static identity id;
    return id;
}

// Server contexts as the service's would be in the respects that matter here: TLS 1.2 or 1.3 only,
// read-ahead on, the library's own session cache (tickets off, so resumption goes through the cache).
// Renegotiation is left to the connection's own settings.
ctx_ptr server_ctx(int max_version)
{
    ctx_ptr ctx(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
    SSL_CTX_set_min_proto_version(ctx.get(), TLS1_2_VERSION);
    SSL_CTX_set_max_proto_version(ctx.get(), max_version);
    SSL_CTX_use_certificate(ctx.get(), the_identity().cert);
    SSL_CTX_use_PrivateKey(ctx.get(), the_identity().key);
    SSL_CTX_set_read_ahead(ctx.get(), 1);
    SSL_CTX_set_options(ctx.get(), SSL_OP_NO_TICKET);
    static const unsigned char sid[] = "tls-io-test";
    SSL_CTX_set_session_id_context(ctx.get(), sid, sizeof sid - 1);
    return ctx;
}

orbs3_listening_t g_listening;
orbs3_service_t* g_service = nullptr;
std::string g_big_file;  // path of the file /big answers with
int64_t g_big_size = 0;

int classify(orbs3_http_request_t* r)
{
    static char action[] = "Test";
    r->req_msg.action = {4, action};
    return 0;
}

// Answers "/big" with the file, anything else with its own path as the body.
int answer(orbs3_http_request_t* r)
{
    orbs3_connection_t* c = r->connection;
    std::string path(r->uri.data, r->uri.len);
    const bool keep = r->headers_in.connection_type == ORBS3_HTTP_CONNECTION_KEEP_ALIVE;
    if (path == "/big") {
        std::string head = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(g_big_size) + "\r\n\r\n";
        if (orbs3_http_send_response_bytes(c, head.data(), head.size()) != 0)
            return -1;
        int fd = open(g_big_file.c_str(), O_RDONLY | O_CLOEXEC);
        return orbs3_http_send_file(c, fd, 0, g_big_size) == 0 ? 0 : -1;
    }
    std::string reply = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(path.size()) + "\r\n" +
                        (keep ? "" : "Connection: close\r\n") + "\r\n" + path;
    return orbs3_http_send_response_bytes(c, reply.data(), reply.size()) == 0 ? 0 : -1;
}

// Bytes that differ from their neighbours and from the same offset one block on.
std::string pattern(std::size_t n)
{
    std::string s(n, '\0');
    for (std::size_t i = 0; i < n; i++)
        s[i] = static_cast<char>((i * 131 + i / 4093) & 0xff);
    return s;
}

class SslConnection : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        signal(SIGPIPE, SIG_IGN);
        if (orbs3_cycle == nullptr) {
            ASSERT_EQ(orbs3_init_cycle(), 0);
        }
        ASSERT_EQ(orbs3_ssl_init(), 0);
        static orbs3_pool_ptr hash_pool(orbs3_create_mem_block(16384));
        ASSERT_TRUE(hash_pool && orbs3_http_init_headers_in_hash(hash_pool.get()) == 0);
        g_service = orbs3_service_new();
        orbs3_vhost_t* vh = orbs3_vhost_new();
        ASSERT_TRUE(g_service != nullptr && vh != nullptr);
        neo_strdup(&vh->domain, "s3.example", ORBS3_NAME_CAP);
        ASSERT_EQ(orbs3_service_add_vhost(g_service, vh), 0);
        g_listening.vhosts = &g_service->vhosts;
        g_listening.mode = ORBS3_MODE_HTTPS;
        g_listening.handler = orbs3_https_init_connection;
        g_listening.secure_handler = orbs3_http_init_connection;
        g_listening.request_handler = classify;
        g_listening.response_handler = answer;
    }

    void SetUp() override
    {
        saved_ = sysconfig;
        sysconfig.http_header_in_size = 512;
        sysconfig.request_pool_size = 16384;
        sysconfig.http_timeout = 30;
        epfd_ = epoll_create1(EPOLL_CLOEXEC);
        ASSERT_GE(epfd_, 0);
        open_before_ = orbs3_conn_counters.open;
        use_server(TLS1_3_VERSION);
        client_ctx_ = ctx_ptr(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
    }

    void TearDown() override
    {
        drop_client();
        if (c_ != nullptr && alive())
            orbs3_close_connection(c_);
        c_ = nullptr;
        close(epfd_);
        orbs3_cycle->ssl = nullptr;
        sysconfig = saved_;
        EXPECT_EQ(orbs3_conn_counters.open, open_before_) << "every connection closed";
    }

    void use_server(int max_version)
    {
        server_ctx_ = server_ctx(max_version);
        ssl_ = orbs3_ssl_t{server_ctx_.get(), 0, ORBS3_SSL_BUFFER_SIZE};
        orbs3_cycle->ssl = &ssl_;
    }

    // A new connection as the accept loop hands it to the listener, and a client for it.
    void connect(int client_max_version = TLS1_3_VERSION, SSL_SESSION* resume = nullptr, bool start = true)
    {
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv), 0);
        peer_ = sv[1];
        c_ = orbs3_create_connection(sysconfig.conn_pool_size);
        ASSERT_NE(c_, nullptr);
        orbs3_conn_counters.open++;
        c_->fd = sv[0];
        c_->epfd = epfd_;
        c_->listening = &g_listening;
        client_ = SSL_new(client_ctx_.get());
        SSL_set_max_proto_version(client_, client_max_version);
        BIO* inner = nullptr;
        ASSERT_EQ(BIO_new_bio_pair(&inner, 1 << 20, &net_, 1 << 20), 1);
        SSL_set_bio(client_, inner, inner);
        SSL_set_connect_state(client_);
        if (resume != nullptr)
            SSL_set_session(client_, resume);
        if (start)
            g_listening.handler(c_);
    }

    void drop_client()
    {
        if (client_ != nullptr) {
            // The client's library keeps its session (quiet: nothing is sent); the socket just goes.
            SSL_set_quiet_shutdown(client_, 1);
            (void)SSL_shutdown(client_);
            SSL_free(client_);
        }
        client_ = nullptr;
        if (net_ != nullptr)
            BIO_free(net_);
        net_ = nullptr;
        if (peer_ >= 0)
            close(peer_);
        peer_ = -1;
        out_.clear();
        in_.clear();
    }

    // Whether the server connection is still open: it is in the list of open connections until closed.
    bool alive() const { return orbs3_conn_counters.open != open_before_; }

    // One pass of the server over what is ready.
    bool server_pass()
    {
        struct epoll_event events[8];
        int n = epoll_wait(epfd_, events, 8, 0);
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

    // Moves at most `chunk` bytes each way between the client's BIO and the socket. Whether anything moved.
    bool pump(std::size_t chunk)
    {
        bool moved = false;
        char buf[65536];
        int n;
        while ((n = BIO_read(net_, buf, sizeof buf)) > 0)
            out_.append(buf, static_cast<std::size_t>(n));
        if (!out_.empty() && peer_ >= 0) {
            ssize_t w = write(peer_, out_.data(), std::min(chunk, out_.size()));
            if (w > 0) {
                out_.erase(0, static_cast<std::size_t>(w));
                moved = true;
            }
        }
        if (peer_ >= 0) {
            ssize_t r = read(peer_, buf, std::min(chunk, sizeof buf));
            if (r > 0) {
                in_.append(buf, static_cast<std::size_t>(r));
                moved = true;
            } else if (r == 0) {
                peer_eof_ = true;
            }
        }
        if (!in_.empty()) {
            int w = BIO_write(net_, in_.data(), static_cast<int>(in_.size()));
            if (w > 0)
                in_.erase(0, static_cast<std::size_t>(w));
        }
        return moved;
    }

    // Runs client and server until `done` or nothing moves any more for a while.
    void run(std::size_t fixed, const std::function<bool()>& done, int max_idle = 50)
    {
        int idle = 0;
        while (!done() && idle < max_idle) {
            const std::size_t chunk = vary_ ? vary_() : fixed;
            bool moved = false;
            if (!SSL_is_init_finished(client_))
                (void)SSL_do_handshake(client_);
            if (!plain_out_.empty()) {
                int w = SSL_write(client_, plain_out_.data(), static_cast<int>(plain_out_.size()));
                if (w > 0)
                    plain_out_.erase(0, static_cast<std::size_t>(w));
            }
            char buf[16384];
            int r;
            while ((r = SSL_read(client_, buf, static_cast<int>(std::min(chunk, sizeof buf)))) > 0) {
                plain_in_.append(buf, static_cast<std::size_t>(r));
                moved = true;
            }
            moved |= pump(chunk);
            moved |= server_pass();
            idle = moved ? 0 : idle + 1;
        }
    }

    bool handshake(std::size_t chunk = 65536)
    {
        run(chunk, [this] { return SSL_is_init_finished(client_) && c_->ssl != nullptr &&
                                   static_cast<orbs3_ssl_connection_t*>(c_->ssl)->handshake_done; });
        return SSL_is_init_finished(client_);
    }

    static std::string get(const std::string& path, bool keep = true)
    {
        return "GET " + path + " HTTP/1.1\r\nHost: s3.example\r\n" + (keep ? "" : "Connection: close\r\n") + "\r\n";
    }

    static std::string reply(const std::string& path, bool keep = true)
    {
        return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(path.size()) + "\r\n" +
               (keep ? "" : "Connection: close\r\n") + "\r\n" + path;
    }

    orbs3_sysconfig_t saved_;
    int epfd_ = -1;
    int64_t open_before_ = 0;
    ctx_ptr server_ctx_{nullptr, SSL_CTX_free};
    ctx_ptr client_ctx_{nullptr, SSL_CTX_free};
    orbs3_ssl_t ssl_{};
    orbs3_connection_t* c_ = nullptr;
    SSL* client_ = nullptr;
    BIO* net_ = nullptr;
    int peer_ = -1;
    bool peer_eof_ = false;
    std::function<std::size_t()> vary_;  // when set: the size of each round's pieces
    std::string out_, in_;              // records on their way to and from the socket
    std::string plain_out_, plain_in_;  // the client's plain text
};

// The handshake and a request complete whatever size the pieces on the wire have, in both directions,
// on both protocols; a "Connection: close" reply ends with the server's close alert.
TEST_F(SslConnection, HandshakeAndRequestsCompleteOverShortReadsAndWrites)
{
    struct row {
        int version;
        std::size_t chunk;
    };
    const row rows[] = {{TLS1_3_VERSION, 1}, {TLS1_3_VERSION, 7}, {TLS1_3_VERSION, 100},
                        {TLS1_3_VERSION, 65536}, {TLS1_2_VERSION, 1}, {TLS1_2_VERSION, 333}};
    for (const row& k : rows) {
        SCOPED_TRACE("version " + std::to_string(k.version) + ", chunk " + std::to_string(k.chunk));
        connect(k.version);
        ASSERT_TRUE(handshake(k.chunk));
        EXPECT_EQ(SSL_version(client_), k.version);
        plain_out_ = get("/one") + get("/two", false);
        const std::string want = reply("/one") + reply("/two", false);
        run(k.chunk, [&] {
            return plain_in_.size() >= want.size() && (SSL_get_shutdown(client_) & SSL_RECEIVED_SHUTDOWN) && peer_eof_;
        });
        EXPECT_EQ(plain_in_, want);
        // The close alert came, and then the end of the socket's stream: the alert went first.
        EXPECT_TRUE(SSL_get_shutdown(client_) & SSL_RECEIVED_SHUTDOWN) << "close_notify sent";
        EXPECT_TRUE(peer_eof_) << "write side shut after the reply";
        drop_client();
        for (int i = 0; i < 5 && alive(); i++)
            (void)server_pass();
        EXPECT_FALSE(alive()) << "closed once the client has gone";
        plain_in_.clear();
        c_ = nullptr;
    }
}

// The first byte decides: plain HTTP is closed without a reply, a handshake record or an SSLv2-style
// byte with the high bit set goes on to the handshake, and a peer that closes before sending is closed.
TEST_F(SslConnection, FirstByteTellsPlainHttpFromTls)
{
    struct row {
        const char* name;
        std::string bytes;  // empty: the peer closes its side
        bool stays_open;
    };
    const row rows[] = {
        {"plain GET", "GET / HTTP/1.1\r\nHost: s3.example\r\n\r\n", false},
        {"zero byte", std::string(1, '\0'), false},
        {"handshake record", std::string(1, '\x16'), true},
        {"SSLv2-style hello", std::string("\x80\x2e\x01", 3), true},
        {"closed during the first look", "", false},
    };
    for (const row& k : rows) {
        SCOPED_TRACE(k.name);
        connect();
        EXPECT_TRUE(alive()) << "nothing there yet: the first look waits";
        if (k.bytes.empty())
            shutdown(peer_, SHUT_WR);
        else
            ASSERT_EQ(write(peer_, k.bytes.data(), k.bytes.size()), static_cast<ssize_t>(k.bytes.size()));
        for (int i = 0; i < 5; i++)
            (void)server_pass();
        EXPECT_EQ(alive(), k.stays_open);
        if (!k.stays_open) {
            // A close with the first bytes unread resets a local socket: the end shows as ECONNRESET.
            char b[64];
            ssize_t n = read(peer_, b, sizeof b);
            EXPECT_TRUE(n == 0 || (n < 0 && errno == ECONNRESET)) << "closed without a reply: " << n;
        } else {
            EXPECT_NE(c_->ssl, nullptr) << "the handshake has begun";
        }
        drop_client();
        if (alive())
            orbs3_close_connection(c_);
        c_ = nullptr;
    }
}

// Requests that reach the server together must all be answered though the socket has nothing more to
// report: in one record whose first request fills the head buffer exactly (the rest stays decrypted in
// the session), and in two records read ahead at once.
TEST_F(SslConnection, PipelinedRequestsHeldByTheSessionAreAnswered)
{
    struct row {
        const char* name;
        bool one_record;
    };
    for (const row& k : {row{"one record", true}, row{"two records read ahead", false}}) {
        SCOPED_TRACE(k.name);
        connect();
        ASSERT_TRUE(handshake());
        // The first read takes as many bytes as the head buffer has room for: the first request is exactly
        // that long.
        const std::size_t room = sysconfig.http_header_in_size;
        std::string first = get("/a");
        first.insert(first.size() - 2, "X-Pad: " + std::string(room - first.size() - 9, 'p') + "\r\n");
        ASSERT_EQ(first.size(), room);
        const std::string second = get("/b");
        if (k.one_record) {
            std::string both = first + second;
            ASSERT_EQ(SSL_write(client_, both.data(), static_cast<int>(both.size())), static_cast<int>(both.size()));
        } else {
            ASSERT_EQ(SSL_write(client_, first.data(), static_cast<int>(first.size())), static_cast<int>(room));
            ASSERT_EQ(SSL_write(client_, second.data(), static_cast<int>(second.size())),
                      static_cast<int>(second.size()));
        }
        const std::string want = reply("/a") + reply("/b");
        run(65536, [&] { return plain_in_.size() >= want.size(); });
        EXPECT_EQ(plain_in_, want);
        drop_client();
        plain_in_.clear();
        for (int i = 0; i < 5 && alive(); i++)
            (void)server_pass();
        EXPECT_FALSE(alive());
        c_ = nullptr;
    }
}

// A reply much larger than the socket takes, to a client that reads in small pieces: every send the
// socket refuses is repeated with the same bytes, so the stream is the reply byte for byte; the file goes
// in slices, so the connection's memory stays bounded whatever the file's size.
TEST_F(SslConnection, SlowReaderGetsEveryByteOnceAndMemoryStaysBounded)
{
    unit_test::temp_dir dir;
    g_big_file = dir("big");
    g_big_size = 21 << 20;
    const std::string content = pattern(static_cast<std::size_t>(g_big_size));
    unit_test::write_file(g_big_file, content);

    // A socket smaller than a record refuses every send part way; a larger one takes whole records and
    // then refuses one.
    for (int sndbuf : {4096, 100000}) {
        SCOPED_TRACE(sndbuf);
        connect();
        ASSERT_EQ(setsockopt(c_->fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf), 0);
        ASSERT_TRUE(handshake());
        plain_out_ = get("/big", false);
        const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(g_big_size) + "\r\n\r\n";
        const std::size_t total = head.size() + content.size();
        // Heap in use, mapped blocks included; the client's copy of the reply is made beforehand.
        plain_in_.reserve(total + 1);
        auto heap = [] {
            struct mallinfo2 m = mallinfo2();
            return m.uordblks + m.hblkhd;
        };
        const std::size_t heap_before = heap();
        std::size_t queue_most = 0, heap_most = 0;
        // The peer takes pieces of varying size: 1 byte up to 8 KiB.
        std::size_t chunk = 1;
        vary_ = [&] { return chunk = 1 + (chunk * 7919 + 13) % 8192; };
        int rounds = 0;
        run(8192, [&] {
            if (alive() && c_->send_buf != nullptr)
                queue_most = std::max(queue_most, static_cast<std::size_t>(c_->send_buf->end - c_->send_buf->start));
            if (++rounds % 256 == 0)
                heap_most = std::max(heap_most, heap());
            return plain_in_.size() >= total;
        }, 2000);
        vary_ = nullptr;
        ASSERT_EQ(plain_in_.size(), total);
        EXPECT_TRUE(plain_in_.compare(0, head.size(), head) == 0);
        EXPECT_TRUE(plain_in_.compare(head.size(), content.size(), content) == 0) << "no byte lost or repeated";
        EXPECT_LE(queue_most, 64u << 10) << "the file never sits in the reply queue";
        if (heap_most > heap_before) {
            EXPECT_LT(heap_most - heap_before, 4u << 20) << "memory of the connection bounded";
        }
        drop_client();
        plain_in_.clear();
        for (int i = 0; i < 5 && alive(); i++)
            (void)server_pass();
        c_ = nullptr;
    }
}

// The same for a reply written from memory: the writer queues what the session refused, and repeats
// it from the queue.
TEST_F(SslConnection, QueuedReplyIsRepeatedExactlyAfterRefusedSends)
{
    connect();
    int sndbuf = 100000;
    ASSERT_EQ(setsockopt(c_->fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf), 0);
    ASSERT_TRUE(handshake());
    const std::string body = pattern(3 << 20);
    ASSERT_EQ(orbs3_http_send_response_bytes(c_, body.data(), 300000), 0);
    ASSERT_GT(orbs3_http_send_pending(c_), 0u) << "the socket refused part of it";
    ASSERT_EQ(orbs3_http_send_response_bytes(c_, body.data() + 300000, body.size() - 300000), 0);
    std::size_t chunk = 1;
    vary_ = [&] { return chunk = 1 + (chunk * 31 + 7) % 4096; };
    run(4096, [&] {
        if (orbs3_http_send_pending(c_) != 0) {
            int rc = orbs3_http_send_flush(c_);
            EXPECT_NE(rc, -1);
        }
        return plain_in_.size() >= body.size();
    }, 2000);
    vary_ = nullptr;
    EXPECT_EQ(plain_in_.size(), body.size());
    EXPECT_TRUE(plain_in_ == body) << "no byte lost or repeated";
}

// A client that vanishes without its close alert ends its stream cleanly, and its session can be
// resumed on the next connection, on both protocols.
TEST_F(SslConnection, CloseWithoutCloseNotifyKeepsTheSessionResumable)
{
    for (int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        SCOPED_TRACE(version);
        use_server(version);
        connect(version);
        ASSERT_TRUE(handshake());
        plain_out_ = get("/x");
        run(65536, [&] { return plain_in_ == reply("/x"); });
        ASSERT_EQ(plain_in_, reply("/x"));
        SSL_SESSION* session = SSL_get1_session(client_);
        ASSERT_NE(session, nullptr);
        // The socket goes without the client's close alert.
        drop_client();
        plain_in_.clear();
        for (int i = 0; i < 5 && alive(); i++)
            (void)server_pass();
        EXPECT_FALSE(alive());
        EXPECT_EQ(ERR_peek_error(), 0u) << "nothing left in the thread's error queue";

        connect(version, session);
        ASSERT_TRUE(handshake());
        EXPECT_TRUE(SSL_session_reused(client_)) << "the session stayed in the cache";
        SSL_SESSION_free(session);
        drop_client();
        for (int i = 0; i < 5 && alive(); i++)
            (void)server_pass();
        c_ = nullptr;
    }
}

// The handshake has a deadline of its own, counted from its first wait and not moved by progress: a
// client that stops, and one that trickles a byte at a time, are both closed when it passes.
TEST_F(SslConnection, HandshakeDeadlineClosesStalledAndTricklingClients)
{
    sysconfig.ssl_handshake_timeout = 1;
    for (bool trickle : {false, true}) {
        SCOPED_TRACE(trickle ? "trickle" : "stalled");
        connect(TLS1_3_VERSION, nullptr, false);
        (void)SSL_do_handshake(client_);
        (void)pump(0);  // the client's hello into out_, nothing sent yet
        ASSERT_GT(out_.size(), 40u);
        g_listening.handler(c_);
        ASSERT_EQ(write(peer_, out_.data(), 5), 5);
        out_.erase(0, 5);
        const auto start = std::chrono::steady_clock::now();
        while (alive() && std::chrono::steady_clock::now() - start < std::chrono::seconds(3)) {
            if (trickle && !out_.empty()) {
                ASSERT_EQ(write(peer_, out_.data(), 1), 1);
                out_.erase(0, 1);
            }
            (void)server_pass();
            neo_event_expire_timers();
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        const auto took = std::chrono::steady_clock::now() - start;
        EXPECT_FALSE(alive());
        EXPECT_GE(took, std::chrono::milliseconds(900));
        EXPECT_LT(took, std::chrono::milliseconds(2000));
        drop_client();
        c_ = nullptr;
    }
}

// A client that starts a second handshake on a TLS 1.2 connection is not served any further.
TEST_F(SslConnection, ClientRenegotiationEndsTheConnection)
{
    use_server(TLS1_2_VERSION);
    // A context that would let it happen: the connection's own settings must refuse it.
    SSL_CTX_set_options(server_ctx_.get(), SSL_OP_ALLOW_CLIENT_RENEGOTIATION);
    connect(TLS1_2_VERSION);
    ASSERT_TRUE(handshake());
    ASSERT_EQ(SSL_renegotiate(client_), 1);
    (void)SSL_do_handshake(client_);
    plain_out_ = get("/r");
    run(65536, [&] { return !alive(); });
    EXPECT_FALSE(alive());
    EXPECT_EQ(plain_in_.find("HTTP/1.1 200"), std::string::npos);
    ERR_clear_error();
}

// A TLS 1.3 key update is no renegotiation: the connection goes on serving, both when the client only
// rotates its own keys and when it asks the server to rotate too.
TEST_F(SslConnection, KeyUpdateOfTls13IsServed)
{
    for (int kind : {SSL_KEY_UPDATE_NOT_REQUESTED, SSL_KEY_UPDATE_REQUESTED}) {
        SCOPED_TRACE(kind);
        connect(TLS1_3_VERSION);
        ASSERT_TRUE(handshake());
        ASSERT_EQ(SSL_key_update(client_, kind), 1);
        plain_out_ = get("/k") + get("/after", false);
        const std::string want = reply("/k") + reply("/after", false);
        run(65536, [&] { return plain_in_.size() >= want.size() || !alive(); });
        EXPECT_EQ(plain_in_, want);
        drop_client();
        for (int i = 0; i < 5 && alive(); i++)
            (void)server_pass();
        plain_in_.clear();
        c_ = nullptr;
    }
}

}  // namespace
