#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "core/orbs3_config.h"
#include "core/orbs3_tenant.h"
#include "memory/neo_string.h"
#include "memory/orbs3_crc32.h"
#include "memory/rbtree_check.h"
#include "tls/orbs3_ssl.h"
#include "tls/orbs3_ssl_session_cache.h"

namespace {

using ctx_ptr = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;
using ssl_ptr = std::unique_ptr<SSL, decltype(&SSL_free)>;
using session_ptr = std::unique_ptr<SSL_SESSION, decltype(&SSL_SESSION_free)>;
using pkey_ptr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using x509_ptr = std::unique_ptr<X509, decltype(&X509_free)>;

session_ptr no_session()
{
    return session_ptr(nullptr, SSL_SESSION_free);
}

struct identity {
    pkey_ptr key{nullptr, EVP_PKEY_free};
    x509_ptr cert{nullptr, X509_free};
};

// A self-signed P-256 certificate; `ous` extra OU entries of 64 bytes make it as large as a test needs.
identity make_identity(const char* cn, int ous = 0)
{
    identity id;
    id.key.reset(EVP_EC_gen("P-256"));
    id.cert.reset(X509_new());
    if (!id.key || !id.cert)
        return identity{};
    X509* x = id.cert.get();
    X509_set_version(x, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(x), 1);
    X509_gmtime_adj(X509_getm_notBefore(x), -60);
    X509_gmtime_adj(X509_getm_notAfter(x), 3600);
    X509_NAME* name = X509_get_subject_name(x);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(cn), -1, -1, 0);
    const std::string ou(64, 'o');
    for (int i = 0; i < ous; i++)
        X509_NAME_add_entry_by_txt(name, "OU", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(ou.c_str()),
                                   -1, -1, 0);
    X509_set_issuer_name(x, name);
    X509_set_pubkey(x, id.key.get());
    if (X509_sign(x, id.key.get(), EVP_sha256()) == 0)
        return identity{};
    return id;
}

uint64_t queue_length(orbs3_shm_zone_t* zone)
{
    auto* pool = static_cast<orbs3_slab_pool_t*>(zone->data);
    auto* cache = static_cast<orbs3_ssl_session_cache_t*>(pool->data);
    uint64_t n = 0;
    neo_list_head_t* pos;
    list_for_each(pos, &cache->queue) n++;
    return n;
}

orbs3_ssl_session_cache_t* cache_of(orbs3_shm_zone_t* zone)
{
    return static_cast<orbs3_ssl_session_cache_t*>(static_cast<orbs3_slab_pool_t*>(zone->data)->data);
}

// A crafted session with the given id; its master key tells sessions apart after a lookup.
session_ptr crafted_session(const uint8_t* id, unsigned len, uint8_t mark)
{
    session_ptr s(SSL_SESSION_new(), SSL_SESSION_free);
    uint8_t master[48];
    std::memset(master, mark, sizeof(master));
    // Any cipher will do; without one the session has no DER form.
    static const unsigned char suite[2] = {0xc0, 0x2b};
    static ctx_ptr ctx(SSL_CTX_new(TLS_method()), SSL_CTX_free);
    static ssl_ptr ssl(SSL_new(ctx.get()), SSL_free);
    const SSL_CIPHER* cipher = SSL_CIPHER_find(ssl.get(), suite);
    if (!s || cipher == nullptr || SSL_SESSION_set_cipher(s.get(), cipher) == 0 ||
        SSL_SESSION_set1_id(s.get(), id, len) == 0 || SSL_SESSION_set1_master_key(s.get(), master, 48) == 0 ||
        SSL_SESSION_set_protocol_version(s.get(), TLS1_2_VERSION) == 0)
        return no_session();
    return s;
}

int mark_of(SSL_SESSION* s)
{
    uint8_t master[48];
    if (s == nullptr || SSL_SESSION_get_master_key(s, master, sizeof(master)) != 48)
        return -1;
    return master[0];
}

class SessionCache : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        ASSERT_EQ(orbs3_ssl_init(), 0);
        server_id_ = new identity(make_identity("server"));
        other_id_ = new identity(make_identity("other"));
        client_big_ = new identity(make_identity("client", 80));
        ASSERT_TRUE(server_id_->cert && other_id_->cert && client_big_->cert);
    }
    static void TearDownTestSuite()
    {
        delete server_id_;
        delete other_id_;
        delete client_big_;
    }

    void SetUp() override { make_zone(1 << 20); }
    void TearDown() override
    {
        rec_.clear();
        ctxs_.clear();
        orbs3_openssl_exit();
    }

    void make_zone(int size)
    {
        orbs3_openssl_exit();
        sysconfig.ssl_shm_zone_size = size;
        ASSERT_EQ(orbs3_openssl_shm_init(nullptr), 0);
        zone_ = orbs3_ssl_shm_zone();
        ASSERT_NE(zone_, nullptr);
    }

    // A server context as the worker builds it: certificate on the context's list, then the cache.
    SSL_CTX* server(int version, const char* name = "HTTP 127.0.0.1:8443", identity* id = nullptr,
                    long timeout = ORBS3_SSL_SESSION_TIMEOUT, const identity* client_ca = nullptr)
    {
        if (id == nullptr)
            id = server_id_;
        ctx_ptr ctx(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
        EXPECT_TRUE(ctx);
        SSL_CTX* c = ctx.get();
        SSL_CTX_set_min_proto_version(c, version);
        SSL_CTX_set_max_proto_version(c, version);
        SSL_CTX_set_options(c, SSL_OP_NO_TICKET);
        SSL_CTX_set_num_tickets(c, 1);  // one stateful TLS 1.3 session per handshake, as with TLS 1.2
        EXPECT_EQ(SSL_CTX_use_certificate(c, id->cert.get()), 1);
        EXPECT_EQ(SSL_CTX_use_PrivateKey(c, id->key.get()), 1);
        SSL_CTX_set_ex_data(c, orbs3_ssl_certificate_index, id->cert.get());
        X509_set_ex_data(id->cert.get(), orbs3_ssl_next_certificate_index, nullptr);
        if (client_ca != nullptr) {
            EXPECT_EQ(SSL_CTX_add_client_CA(c, client_ca->cert.get()), 1);
        }
        auto rec = std::make_unique<orbs3_ssl_t>(orbs3_ssl_t{c, 0, ORBS3_SSL_BUFFER_SIZE});
        EXPECT_EQ(orbs3_ssl_session_cache(rec.get(), name, ORBS3_SSL_SESSION_CACHE_MODE, zone_, timeout), 0);
        EXPECT_EQ(orbs3_ssl_session_cache_init(zone_, nullptr), 0);
        rec_.push_back(std::move(rec));
        ctxs_.push_back(std::move(ctx));
        return c;
    }

    SSL_CTX* client(int version, identity* id = nullptr)
    {
        ctx_ptr ctx(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
        EXPECT_TRUE(ctx);
        SSL_CTX_set_min_proto_version(ctx.get(), version);
        SSL_CTX_set_max_proto_version(ctx.get(), version);
        if (id != nullptr) {
            EXPECT_EQ(SSL_CTX_use_certificate(ctx.get(), id->cert.get()), 1);
            EXPECT_EQ(SSL_CTX_use_PrivateKey(ctx.get(), id->key.get()), 1);
        }
        ctxs_.push_back(std::move(ctx));
        return ctxs_.back().get();
    }

    // A handshake over a memory BIO pair, offering `offer`. The client's resumable session after it (TLS
    // 1.3 sends it after the handshake), or null if the handshake failed.
    // The server closes with close_notify unless `abort`: OpenSSL drops the session of a connection freed
    // without it.
    static session_ptr handshake(SSL_CTX* srv, SSL_CTX* cli, SSL_SESSION* offer, bool* reused,
                                 SSL_SESSION** server_session = nullptr, bool abort = false)
    {
        ssl_ptr s(SSL_new(srv), SSL_free);
        ssl_ptr c(SSL_new(cli), SSL_free);
        BIO *sb = nullptr, *cb = nullptr;
        if (!s || !c || BIO_new_bio_pair(&sb, 0, &cb, 0) == 0)
            return no_session();
        SSL_set_bio(s.get(), sb, sb);
        SSL_set_bio(c.get(), cb, cb);
        SSL_set_accept_state(s.get());
        SSL_set_connect_state(c.get());
        if (offer != nullptr && orbs3_ssl_set_session(c.get(), offer) != 0)
            return no_session();
        int rs = 0, rc = 0;
        for (int i = 0; i < 50 && (rs != 1 || rc != 1); i++) {
            if (rc != 1)
                rc = SSL_do_handshake(c.get());
            if (rs != 1)
                rs = SSL_do_handshake(s.get());
        }
        if (rs != 1 || rc != 1)
            return no_session();
        unsigned char byte;
        (void)SSL_read(c.get(), &byte, 1);  // takes the tickets a TLS 1.3 server sends after the handshake
        ERR_clear_error();
        *reused = SSL_session_reused(s.get()) == 1;
        if (server_session != nullptr)
            *server_session = SSL_get1_session(s.get());
        if (!abort)
            (void)SSL_shutdown(s.get());
        (void)SSL_shutdown(c.get());
        return session_ptr(SSL_get1_session(c.get()), SSL_SESSION_free);
    }

    static identity* server_id_;
    static identity* other_id_;
    static identity* client_big_;
    orbs3_shm_zone_t* zone_ = nullptr;
    std::vector<std::unique_ptr<orbs3_ssl_t>> rec_;
    std::vector<ctx_ptr> ctxs_;
};

identity* SessionCache::server_id_ = nullptr;
identity* SessionCache::other_id_ = nullptr;
identity* SessionCache::client_big_ = nullptr;

class SessionCacheVersion : public SessionCache, public ::testing::WithParamInterface<int> {};

TEST_P(SessionCacheVersion, ResumesOnAnotherContextSharingTheZone)
{
    SSL_CTX* cli = client(GetParam());
    bool reused = true;
    session_ptr first = handshake(server(GetParam()), cli, nullptr, &reused);
    ASSERT_TRUE(first);
    EXPECT_FALSE(reused);
    EXPECT_EQ(queue_length(zone_), 1u);
    // Another epoll thread's view: a second context over the same zone.
    session_ptr again = handshake(server(GetParam()), cli, first.get(), &reused);
    ASSERT_TRUE(again);
    EXPECT_TRUE(reused);

    // A connection freed without close_notify takes its session out of the shared cache as well.
    uint64_t before = queue_length(zone_);
    session_ptr dropped = handshake(server(GetParam()), cli, nullptr, &reused, nullptr, true);
    ASSERT_TRUE(dropped);
    EXPECT_EQ(queue_length(zone_), before);
    session_ptr refused = handshake(server(GetParam()), cli, dropped.get(), &reused);
    ASSERT_TRUE(refused);
    EXPECT_FALSE(reused);
}

TEST_P(SessionCacheVersion, ForkedChildResumesWhatItsParentStored)
{
    SSL_CTX* cli = client(GetParam());
    bool reused = true;
    session_ptr first = handshake(server(GetParam()), cli, nullptr, &reused);
    ASSERT_TRUE(first);
    std::fflush(nullptr);  // the child ends with _exit: nothing buffered is written twice
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        bool r = false;
        session_ptr s = handshake(server(GetParam()), cli, first.get(), &r);
        _exit(s && r ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    if (GetParam() == TLS1_3_VERSION) {
        EXPECT_EQ(queue_length(zone_), 2u);  // the child's new ticket is in the parent's view too
    }
}

TEST_P(SessionCacheVersion, ExpiredSessionIsDroppedByItsLookupAndNotResumed)
{
    SSL_CTX* srv = server(GetParam(), "HTTP 127.0.0.1:8443", nullptr, 1);
    SSL_CTX* cli = client(GetParam());
    bool reused = true;
    SSL_SESSION* stored = nullptr;
    session_ptr first = handshake(srv, cli, nullptr, &reused, &stored);
    session_ptr stored_owner(stored, SSL_SESSION_free);
    ASSERT_TRUE(first && stored);
    ASSERT_EQ(queue_length(zone_), 1u);
    uint64_t expire = list_entry(cache_of(zone_)->queue.next, orbs3_ssl_cached_session_t, queue)->expire;
    uint64_t now = static_cast<uint64_t>(time(nullptr));
    EXPECT_TRUE(expire == now + 1 || expire == now);

    // Until the timeout the lookup finds it; after it, the lookup removes it.
    ssl_ptr probe(SSL_new(srv), SSL_free);
    unsigned id_len = 0;
    const unsigned char* id = SSL_SESSION_get_id(stored, &id_len);
    int copy = 1;
    session_ptr hit(orbs3_ssl_get_cached_session(probe.get(), id, static_cast<int>(id_len), &copy),
                    SSL_SESSION_free);
    EXPECT_TRUE(hit);
    EXPECT_EQ(copy, 0);
    usleep(2100 * 1000);
    EXPECT_EQ(orbs3_ssl_get_cached_session(probe.get(), id, static_cast<int>(id_len), &copy), nullptr);
    EXPECT_EQ(queue_length(zone_), 0u);

    session_ptr late = handshake(srv, cli, first.get(), &reused);
    ASSERT_TRUE(late);
    EXPECT_FALSE(reused);
}

TEST_P(SessionCacheVersion, OnlyTheSameServiceAndCertificatesResume)
{
    struct row {
        const char* what;
        const char* name;
        identity* cert;
        bool client_ca;
        bool reused;
    };
    const row rows[] = {
        {"same service", "HTTP 127.0.0.1:8443", nullptr, false, true},
        {"another port", "HTTP 127.0.0.1:8444", nullptr, false, false},
        {"another address", "HTTP 127.0.0.2:8443", nullptr, false, false},
        {"another certificate", "HTTP 127.0.0.1:8443", other_id_, false, false},
        {"client CA names added", "HTTP 127.0.0.1:8443", nullptr, true, false},
    };
    for (const row& r : rows) {
        SSL_CTX* cli = client(GetParam());
        bool reused = true;
        session_ptr first = handshake(server(GetParam()), cli, nullptr, &reused);
        ASSERT_TRUE(first) << r.what;
        SSL_CTX* other =
            server(GetParam(), r.name, r.cert, ORBS3_SSL_SESSION_TIMEOUT, r.client_ca ? other_id_ : nullptr);
        session_ptr second = handshake(other, cli, first.get(), &reused);
        ASSERT_TRUE(second) << r.what;
        EXPECT_EQ(reused, r.reused) << r.what;
    }
}

TEST_P(SessionCacheVersion, OversizedSessionIsNotCachedButTheHandshakeWorks)
{
    struct row {
        identity* client_cert;
        bool oversized;
    };
    const row rows[] = {{nullptr, false}, {client_big_, true}};
    for (const row& r : rows) {
        make_zone(1 << 20);
        SSL_CTX* srv = server(GetParam());
        // The client's certificate becomes part of the server's session.
        SSL_CTX_set_verify(srv, SSL_VERIFY_PEER, [](int, X509_STORE_CTX*) { return 1; });
        SSL_CTX* cli = client(GetParam(), r.client_cert);
        bool reused = true;
        SSL_SESSION* stored = nullptr;
        session_ptr first = handshake(srv, cli, nullptr, &reused, &stored);
        session_ptr stored_owner(stored, SSL_SESSION_free);
        ASSERT_TRUE(first && stored);
        EXPECT_EQ(i2d_SSL_SESSION(stored, nullptr) > static_cast<int>(ORBS3_SSL_MAX_SESSION_SIZE), r.oversized);
        EXPECT_EQ(queue_length(zone_), r.oversized ? 0u : 1u);
        session_ptr second = handshake(srv, cli, first.get(), &reused);
        ASSERT_TRUE(second);
        EXPECT_EQ(reused, !r.oversized);
    }
}

INSTANTIATE_TEST_SUITE_P(Tls, SessionCacheVersion, ::testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         [](const ::testing::TestParamInfo<int>& p) {
                             return p.param == TLS1_2_VERSION ? std::string("Tls12") : std::string("Tls13");
                         });

uint64_t splitmix(uint64_t& s)
{
    uint64_t z = (s += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

void random_id(uint64_t& seed, uint8_t id[32])
{
    for (int i = 0; i < 4; i++) {
        uint64_t v = splitmix(seed);
        std::memcpy(id + 8 * i, &v, 8);
    }
}

TEST_F(SessionCache, IdsWithTheSameCrcAreToldApart)
{
    // Two 32-byte ids with one CRC-32, found by the birthday bound.
    std::unordered_map<uint32_t, std::vector<uint8_t>> seen;
    uint8_t a[32], b[32];
    bool found = false;
    uint64_t seed = 22;
    for (int i = 0; i < 2000000 && !found; i++) {
        uint8_t id[32];
        random_id(seed, id);
        uint32_t crc = orbs3_crc32_short(id, 32);
        auto [it, fresh] = seen.emplace(crc, std::vector<uint8_t>(id, id + 32));
        if (!fresh && std::memcmp(it->second.data(), id, 32) != 0) {
            std::memcpy(a, it->second.data(), 32);
            std::memcpy(b, id, 32);
            found = true;
        }
    }
    ASSERT_TRUE(found);
    ASSERT_EQ(orbs3_crc32_short(a, 32), orbs3_crc32_short(b, 32));
    ASSERT_NE(std::memcmp(a, b, 32), 0);

    SSL_CTX* srv = server(TLS1_2_VERSION);
    ssl_ptr ssl(SSL_new(srv), SSL_free);
    // Some company in the tree, keys with the top bit set among them, so the colliding pair sits inside it.
    std::vector<std::vector<uint8_t>> others;
    for (int i = 0; i < 200; i++) {
        uint8_t id[32];
        random_id(seed, id);
        session_ptr s = crafted_session(id, 32, 7);
        ASSERT_TRUE(s);
        EXPECT_EQ(orbs3_ssl_new_session(ssl.get(), s.get()), 0);
        others.emplace_back(id, id + 32);
    }
    session_ptr sa = crafted_session(a, 32, 1), sb = crafted_session(b, 32, 2);
    ASSERT_TRUE(sa && sb);
    EXPECT_EQ(orbs3_ssl_new_session(ssl.get(), sa.get()), 0);
    EXPECT_EQ(orbs3_ssl_new_session(ssl.get(), sb.get()), 0);

    orbs3_ssl_session_cache_t* cache = cache_of(zone_);
    std::vector<neo_rbtree_node_t*> order;
    ASSERT_TRUE(rbtree_check::valid(cache->tree, 202, true, &order));
    for (std::size_t i = 1; i < order.size(); i++) {
        auto* x = reinterpret_cast<orbs3_ssl_cached_session_t*>(order[i - 1]);
        auto* y = reinterpret_cast<orbs3_ssl_cached_session_t*>(order[i]);
        EXPECT_LT(y->node.key, uint64_t{1} << 32);
        if (x->node.key == y->node.key) {
            EXPECT_LE(orbs3_memn2cmp(x->id, y->id, x->node.data, y->node.data), 0);
        }
    }

    auto lookup = [&](const uint8_t* id) {
        int copy = 1;
        session_ptr s(orbs3_ssl_get_cached_session(ssl.get(), id, 32, &copy), SSL_SESSION_free);
        return mark_of(s.get());
    };
    EXPECT_EQ(lookup(a), 1);
    EXPECT_EQ(lookup(b), 2);
    for (const auto& id : others)
        EXPECT_EQ(lookup(id.data()), 7);
    // A shorter id with the same leading bytes is another id.
    int copy = 1;
    EXPECT_EQ(orbs3_ssl_get_cached_session(ssl.get(), a, 31, &copy), nullptr);

    orbs3_ssl_remove_cached_session(srv, sa.get());
    EXPECT_EQ(lookup(a), -1);
    EXPECT_EQ(lookup(b), 2);
    EXPECT_TRUE(rbtree_check::valid(cache->tree, 201, true));
    EXPECT_EQ(queue_length(zone_), 201u);
}

TEST_F(SessionCache, FullZoneEvictsTheOldestSession)
{
    make_zone(16 * 4096);
    SSL_CTX* srv = server(TLS1_2_VERSION);
    ssl_ptr ssl(SSL_new(srv), SSL_free);
    uint64_t seed = 3;
    std::vector<std::vector<uint8_t>> ids;
    for (int i = 0; i < 2000; i++) {
        uint8_t id[32];
        random_id(seed, id);
        ids.emplace_back(id, id + 32);
        session_ptr s = crafted_session(id, 32, static_cast<uint8_t>(i));
        ASSERT_TRUE(s);
        EXPECT_EQ(orbs3_ssl_new_session(ssl.get(), s.get()), 0);
        int copy = 1;
        session_ptr back(orbs3_ssl_get_cached_session(ssl.get(), id, 32, &copy), SSL_SESSION_free);
        ASSERT_TRUE(back) << "session " << i << " was not stored";
        EXPECT_EQ(mark_of(back.get()), static_cast<uint8_t>(i));
    }
    uint64_t held = queue_length(zone_);
    EXPECT_GT(held, 10u);
    EXPECT_LT(held, 2000u);
    EXPECT_TRUE(rbtree_check::valid(cache_of(zone_)->tree, held, true));
    // Exactly the newest `held` sessions are left, in order.
    for (std::size_t i = 0; i < ids.size(); i++) {
        int copy = 1;
        session_ptr s(orbs3_ssl_get_cached_session(ssl.get(), ids[i].data(), 32, &copy), SSL_SESSION_free);
        EXPECT_EQ(s != nullptr, i >= ids.size() - held) << "session " << i;
    }
}

TEST_F(SessionCache, ThreadsStoreFindAndRemoveConcurrently)
{
    SSL_CTX* srv = server(TLS1_2_VERSION);
    constexpr int kThreads = 4;
    constexpr int kRounds = 300;
    std::atomic<int> misses{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([&, t] {
            ssl_ptr ssl(SSL_new(srv), SSL_free);
            uint64_t seed = 1000 + static_cast<uint64_t>(t);
            for (int i = 0; i < kRounds; i++) {
                uint8_t id[32];
                random_id(seed, id);
                session_ptr s = crafted_session(id, 32, static_cast<uint8_t>(t));
                if (!s) {
                    misses++;
                    continue;
                }
                (void)orbs3_ssl_new_session(ssl.get(), s.get());
                int copy = 1;
                session_ptr back(orbs3_ssl_get_cached_session(ssl.get(), id, 32, &copy), SSL_SESSION_free);
                if (mark_of(back.get()) != t)
                    misses++;
                if (i % 3 == 0)
                    orbs3_ssl_remove_session(srv, s.get());
            }
        });
    }
    for (std::thread& th : threads)
        th.join();
    EXPECT_EQ(misses.load(), 0);
    uint64_t left = kThreads * (kRounds - (kRounds + 2) / 3);
    EXPECT_EQ(queue_length(zone_), left);
    EXPECT_TRUE(rbtree_check::valid(cache_of(zone_)->tree, left, true));
}

TEST(SessionCacheName, NamesTheServiceByAddressAndPort)
{
    char addr[] = "127.0.0.1";
    orbs3_service_t svc{};
    svc.ipaddr = {sizeof(addr) - 1, addr};
    svc.port = 8443;
    char buf[ORBS3_SSL_SESSION_CACHE_NAME_LEN];
    ASSERT_EQ(orbs3_ssl_session_cache_name(&svc, buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "HTTP 127.0.0.1:8443");
    char small[12];
    EXPECT_EQ(orbs3_ssl_session_cache_name(&svc, small, sizeof(small)), -1);
}

}  // namespace
