// TLS contexts of a service: certificates and keys in every form a tenant may give, the protocol policy a
// real client meets in a handshake, the certificate chosen by SNI, ALPN, and the queries of a connection.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "core/orbs3_config.h"
#include "core/orbs3_tenant.h"
#include "memory/orbs3_palloc.h"
#include "temp_dir.h"
#include "tls/orbs3_ssl.h"
#include "tls/orbs3_ssl_context.h"

namespace {

constexpr const char* kPassword = "s3cret-Pass";

// Certificates made once for the suite with the openssl command: a root CA, an intermediate, an RSA leaf
// for the service (default.test) signed by the intermediate, EC leaves for two tenants signed by the root.
struct certs_t {
    unit_test::temp_dir dir;
    bool ok = false;

    std::string path(const char* name) const { return dir.path + "/" + name; }

    void make()
    {
        const std::string d = dir.path;
        const std::string sh = "set -e; cd '" + d + "'; exec >/dev/null 2>&1; " +
                               // root and intermediate
                               "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout root.key "
                               "-out root.pem -days 2 -subj /CN=root.test -addext basicConstraints=critical,CA:TRUE; "
                               "openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout inter.key "
                               "-out inter.csr -subj /CN=inter.test; "
                               "printf 'basicConstraints=critical,CA:TRUE\\n' > ca.ext; "
                               "openssl x509 -req -in inter.csr -CA root.pem -CAkey root.key -CAcreateserial "
                               "-out inter.pem -days 2 -extfile ca.ext; "
                               // service leaf: RSA, chained through the intermediate
                               "openssl req -newkey rsa:2048 -nodes -keyout rsa.key -out rsa.csr -subj /CN=default.test; "
                               "printf 'subjectAltName=DNS:default.test\\n' > rsa.ext; "
                               "openssl x509 -req -in rsa.csr -CA inter.pem -CAkey inter.key -CAcreateserial "
                               "-out rsa.pem -days 2 -extfile rsa.ext; "
                               "cat rsa.pem inter.pem root.pem > chain.pem; "
                               "openssl x509 -in rsa.pem -outform DER -out rsa.der; "
                               "openssl pkey -in rsa.key -aes256 -passout pass:" +
                               kPassword +
                               " -out enc.key; "
                               // tenants: EC leaves with their wildcard names
                               "for t in tenant-a tenant-b; do "
                               "openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout $t.key "
                               "-out $t.csr -subj /CN=$t.test; "
                               "printf 'subjectAltName=DNS:%s.test,DNS:*.%s.test\\n' $t $t > $t.ext; "
                               "openssl x509 -req -in $t.csr -CA root.pem -CAkey root.key -CAcreateserial "
                               "-out $t.pem -days 2 -extfile $t.ext; done; "
                               "echo 'not a certificate' > junk.pem";
        ok = std::system(sh.c_str()) == 0;
    }
};

certs_t* g_certs = nullptr;

struct ctx_free {
    void operator()(SSL_CTX* c) const { SSL_CTX_free(c); }
};
struct ssl_free {
    void operator()(SSL* s) const { SSL_free(s); }
};
using ctx_ptr = std::unique_ptr<SSL_CTX, ctx_free>;
using ssl_ptr = std::unique_ptr<SSL, ssl_free>;

// A service with the given certificate and tenants (domain, cert, key); freed with its strings.
struct service_t {
    orbs3_service_t* svc = orbs3_service_new();
    std::vector<orbs3_vhost_t*> vhosts;
    orbs3_cycle_t cycle{};

    service_t(const std::string& cert, const std::string& key, const std::string& pwd)
    {
        neo_strdup(&svc->ipaddr, "127.0.0.1", ORBS3_ADDR_CAP);
        neo_strdup(&svc->cert, cert.c_str(), ORBS3_PATH_CAP);
        neo_strdup(&svc->ssl_key, key.c_str(), ORBS3_PATH_CAP);
        neo_strdup(&svc->key_pwd, pwd.c_str(), ORBS3_PWD_CAP);
    }
    void add_tenant(const char* domain, const std::string& cert, const std::string& key)
    {
        orbs3_vhost_t* vh = orbs3_vhost_new();
        neo_strdup(&vh->domain, domain, ORBS3_NAME_CAP);
        neo_strdup(&vh->cert, cert.c_str(), ORBS3_PATH_CAP);
        neo_strdup(&vh->ssl_key, key.c_str(), ORBS3_PATH_CAP);
        ASSERT_EQ(orbs3_service_add_vhost(svc, vh), 0);
        vhosts.push_back(vh);
    }
    int init()
    {
        orbs3_init_ssl_cert(svc);
        return orbs3_openssl_init(&cycle, svc);
    }
    SSL_CTX* ctx() const { return cycle.ssl != nullptr ? static_cast<orbs3_ssl_t*>(cycle.ssl)->ctx : nullptr; }
    ~service_t()
    {
        orbs3_openssl_release(&cycle);
        for (orbs3_vhost_t* vh : vhosts) {
            for (orbs3_str_t* s : {&vh->domain, &vh->cert, &vh->ssl_key})
                neo_strfree(s);
            delete vh;
        }
        orbs3_free_service_data(svc);
    }
};

class SslContext : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        orbs3_sysconfig_defaults();
        ASSERT_EQ(orbs3_ssl_init(), 0);
        g_certs = new certs_t();
        g_certs->make();
    }
    static void TearDownTestSuite()
    {
        delete g_certs;
        g_certs = nullptr;
    }
    void SetUp() override { ASSERT_TRUE(g_certs->ok) << "the openssl command could not make the test certificates"; }
    static std::string p(const char* name) { return g_certs->path(name); }
};

struct client_t {
    int min_version = TLS1_2_VERSION;
    int max_version = 0;
    const char* ciphers = nullptr;  // TLS 1.2 list
    const char* groups = nullptr;
    const char* sni = nullptr;
    std::vector<unsigned char> alpn;  // wire form
};

struct result_t {
    bool ok = false;
    std::string subject_cn;  // of the certificate the client saw
    std::string alpn;
    int version = 0;
    std::string client_error;  // OpenSSL's reason on the client's side when the handshake failed
};

// Both ends in memory: the client is a real OpenSSL client, the server an SSL object of the service's
// context as the connection module makes it.
struct session_t {
    ctx_ptr client_ctx;
    ssl_ptr client;
    ssl_ptr server;

    result_t run(SSL_CTX* server_ctx, const client_t& c)
    {
        client_ctx.reset(SSL_CTX_new(TLS_client_method()));
        SSL_CTX_set_min_proto_version(client_ctx.get(), c.min_version);
        SSL_CTX_set_max_proto_version(client_ctx.get(), c.max_version);
        if (c.min_version < TLS1_2_VERSION)
            SSL_CTX_set_security_level(client_ctx.get(), 0);  // else the client itself refuses to offer 1.1
        if (c.ciphers != nullptr) {
            EXPECT_EQ(SSL_CTX_set_cipher_list(client_ctx.get(), c.ciphers), 1);
        }
        if (c.groups != nullptr) {
            EXPECT_EQ(SSL_CTX_set1_groups_list(client_ctx.get(), c.groups), 1);
        }
        if (!c.alpn.empty()) {
            EXPECT_EQ(SSL_CTX_set_alpn_protos(client_ctx.get(), c.alpn.data(), static_cast<unsigned>(c.alpn.size())), 0);
        }
        client.reset(SSL_new(client_ctx.get()));
        server.reset(SSL_new(server_ctx));
        if (c.sni != nullptr)
            SSL_set_tlsext_host_name(client.get(), c.sni);
        BIO *cb = nullptr, *sb = nullptr;
        BIO_new_bio_pair(&cb, 0, &sb, 0);
        SSL_set_bio(client.get(), cb, cb);
        SSL_set_bio(server.get(), sb, sb);
        SSL_set_connect_state(client.get());
        SSL_set_accept_state(server.get());

        result_t r;
        bool cdone = false, sdone = false;
        for (int i = 0; i < 50 && !(cdone && sdone); i++) {
            for (SSL* s : {client.get(), server.get()}) {
                bool& done = s == client.get() ? cdone : sdone;
                if (done)
                    continue;
                const int rc = SSL_do_handshake(s);
                if (rc == 1) {
                    done = true;
                    continue;
                }
                const int e = SSL_get_error(s, rc);
                if (e != SSL_ERROR_WANT_READ && e != SSL_ERROR_WANT_WRITE) {
                    // The client reads the server's alert: what a refused client is told.
                    ERR_clear_error();
                    if (s == server.get())
                        (void)SSL_do_handshake(client.get());
                    const char* why = ERR_reason_error_string(ERR_peek_error());
                    r.client_error = why != nullptr ? why : "";
                    ERR_clear_error();
                    return r;
                }
            }
        }
        if (!(cdone && sdone))
            return r;
        r.ok = true;
        r.version = SSL_version(client.get());
        if (X509* peer = SSL_get1_peer_certificate(client.get())) {
            char cn[256] = "";
            X509_NAME_get_text_by_NID(X509_get_subject_name(peer), NID_commonName, cn, sizeof cn);
            r.subject_cn = cn;
            X509_free(peer);
        }
        const unsigned char* a = nullptr;
        unsigned int alen = 0;
        SSL_get0_alpn_selected(client.get(), &a, &alen);
        r.alpn.assign(reinterpret_cast<const char*>(a), alen);
        return r;
    }

    // Application data both ways after the handshake: the contexts the connection uses are still whole.
    bool exchange()
    {
        char buf[16] = {};
        return SSL_write(client.get(), "ping", 4) == 4 && SSL_read(server.get(), buf, sizeof buf) == 4 &&
               std::string(buf) == "ping" && SSL_write(server.get(), "pong", 4) == 4 &&
               SSL_read(client.get(), buf, sizeof buf) == 4 && std::string(buf, 4) == "pong";
    }
};

std::vector<unsigned char> alpn_wire(std::initializer_list<const char*> protos)
{
    std::vector<unsigned char> w;
    for (const char* pr : protos) {
        w.push_back(static_cast<unsigned char>(std::strlen(pr)));
        w.insert(w.end(), pr, pr + std::strlen(pr));
    }
    return w;
}

TEST_F(SslContext, CertificatesAndKeysLoadOrFailWithTheFileAndReason)
{
    struct row {
        const char* name;
        std::string cert;
        std::string key;
        const char* password;
        int rc;
        int chain;           // extra chain certificates on success
        const char* logged;  // in the error line on failure, with the file named there
        std::string file;    // the file the error line names
    } const rows[] = {
        {"pem with its chain in one pass", p("chain.pem"), p("rsa.key"), "", 0, 2, nullptr, ""},
        {"ec", p("tenant-a.pem"), p("tenant-a.key"), "", 0, 0, nullptr, ""},
        {"der", p("rsa.der"), p("rsa.key"), "", 0, 0, nullptr, ""},
        {"encrypted key, right password", p("rsa.pem"), p("enc.key"), kPassword, 0, 0, nullptr, ""},
        {"encrypted key, wrong password", p("rsa.pem"), p("enc.key"), "wrong-Pass", -1, 0, "PrivateKey file not found",
         p("enc.key")},
        {"encrypted key, empty password", p("rsa.pem"), p("enc.key"), "", -1, 0, "PrivateKey file not found",
         p("enc.key")},
        {"key of another certificate, same type", p("rsa.pem"), p("tenant-a.key"), "", -1, 0, "do not match",
         p("tenant-a.key")},
        {"key of another ec certificate", p("tenant-b.pem"), p("tenant-a.key"), "", -1, 0, "do not match",
         p("tenant-a.key")},
        {"missing certificate", p("none.pem"), p("rsa.key"), "", -1, 0, "the certificate is not exist",
         p("none.pem")},
        {"missing key", p("rsa.pem"), p("none.key"), "", -1, 0, "PrivateKey file not found", p("none.key")},
        {"not a certificate", p("junk.pem"), p("rsa.key"), "", -1, 0, "cannot be read", p("junk.pem")},
        {"engine key never read as a file", p("rsa.pem"), "engine:no-such-engine:key1", "", -1, 0,
         "ENGINE_by_id(\"no-such-engine\")", "engine:no-such-engine:key1"},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        orbs3_ssl_t ssl{};
        orbs3_service_t* svc = orbs3_service_new();
        ASSERT_EQ(orbs3_ssl_create(&ssl, svc, svc), 0);
        ctx_ptr owner(ssl.ctx);
        const int rc = orbs3_ssl_certificate(&ssl, r.cert.c_str(), r.key.c_str(), r.password);
        EXPECT_EQ(rc, r.rc) << orbs3_ssl_last_error();
        const std::string line = orbs3_ssl_last_error();
        if (r.rc == 0) {
            STACK_OF(X509)* chain = nullptr;
            SSL_CTX_get_extra_chain_certs(ssl.ctx, &chain);
            EXPECT_EQ(chain != nullptr ? sk_X509_num(chain) : 0, r.chain);
            auto* head = static_cast<X509*>(SSL_CTX_get_ex_data(ssl.ctx, orbs3_ssl_certificate_index));
            ASSERT_NE(head, nullptr);
            EXPECT_STREQ(static_cast<const char*>(X509_get_ex_data(head, orbs3_ssl_certificate_name_index)),
                         r.cert.c_str());
        } else {
            EXPECT_NE(line.find(r.logged), std::string::npos) << line;
            EXPECT_NE(line.find("\"" + r.file + "\": "), std::string::npos) << line;
            EXPECT_GT(line.size(), line.find("\": ") + 3) << "no reason given: " << line;
            if (r.password[0] != '\0') {
                EXPECT_EQ(line.find(r.password), std::string::npos) << "the password was logged";
            }
        }
        EXPECT_EQ(ERR_peek_error(), 0UL) << "error queue left for the next connection";
        orbs3_free_service_data(svc);
    }
}

TEST_F(SslContext, ServiceWithAnUnusableCertificateDoesNotStartAndAReloadDropsTheOldContext)
{
    {
        service_t s(p("chain.pem"), p("enc.key"), kPassword);
        ASSERT_EQ(s.init(), 0) << orbs3_ssl_last_error();
        EXPECT_NE(s.ctx(), nullptr);
        EXPECT_EQ(s.svc->certificates[0].password[0], '\0') << "the pass phrase outlived the key's load";
        EXPECT_EQ(s.svc->protocols, 62U);
        // A reload whose certificate went missing: the service stops serving TLS rather than keep an old
        // context of a configuration that no longer stands.
        neo_strfree(&s.svc->cert);
        neo_strdup(&s.svc->cert, p("gone.pem").c_str(), ORBS3_PATH_CAP);
        EXPECT_EQ(s.init(), -1);
        EXPECT_EQ(s.cycle.ssl, nullptr);
    }
    {
        service_t s(p("rsa.pem"), p("rsa.key"), "");
        s.add_tenant("tenant-a.test", p("tenant-a.pem"), p("rsa.key"));  // a tenant's key that does not match
        EXPECT_EQ(s.init(), -1);
        EXPECT_NE(std::string(orbs3_ssl_last_error()).find(p("rsa.key")), std::string::npos);
        EXPECT_EQ(s.cycle.ssl, nullptr);
    }
}

TEST_F(SslContext, HandshakePolicySniAndAlpn)
{
    service_t s(p("chain.pem"), p("rsa.key"), "");
    s.add_tenant("tenant-a.test", p("tenant-a.pem"), p("tenant-a.key"));
    s.add_tenant("Tenant-B.test", p("tenant-b.pem"), p("tenant-b.key"));
    s.add_tenant("no-cert.test", "", "");
    s.add_tenant("tenant-c.test", p("tenant-b.pem"), p("tenant-b.key"));  // a group's second domain
    ASSERT_EQ(s.init(), 0) << orbs3_ssl_last_error();

    const auto h11 = alpn_wire({"h2", "http/1.1"});
    struct row {
        const char* name;
        client_t client;
        bool ok;
        const char* cn;  // on failure: the reason the client reads
        const char* alpn;
        int version;
    } const rows[] = {
        {"tls 1.1 refused", {.min_version = TLS1_1_VERSION, .max_version = TLS1_1_VERSION, .ciphers = "DEFAULT"},
         false, "tlsv1 alert protocol version", "", 0},
        {"tls 1.2 rsa key exchange refused", {.max_version = TLS1_2_VERSION, .ciphers = "AES128-GCM-SHA256"}, false,
         "", "", 0},
        {"tls 1.2 finite-field dhe refused", {.max_version = TLS1_2_VERSION, .ciphers = "DHE-RSA-AES128-GCM-SHA256"},
         false, "", "", 0},
        {"tls 1.2 ecdhe cbc refused", {.max_version = TLS1_2_VERSION, .ciphers = "ECDHE-RSA-AES128-SHA256"}, false,
         "", "", 0},
        {"tls 1.2 ecdhe aead", {.max_version = TLS1_2_VERSION, .ciphers = "ECDHE-RSA-AES128-GCM-SHA256"}, true,
         "default.test", "", TLS1_2_VERSION},
        {"group outside x25519 and p-256 refused", {.groups = "P-384"}, false, "", "", 0},
        {"tls 1.3 p-256 only", {.groups = "P-256"}, true, "default.test", "", TLS1_3_VERSION},
        {"tls 1.3 without sni", {}, true, "default.test", "", TLS1_3_VERSION},
        {"tenant by exact name", {.sni = "tenant-a.test"}, true, "tenant-a.test", "", TLS1_3_VERSION},
        {"name case ignored", {.sni = "TENANT-a.Test"}, true, "tenant-a.test", "", TLS1_3_VERSION},
        {"domain case ignored", {.sni = "tenant-b.test"}, true, "tenant-b.test", "", TLS1_3_VERSION},
        {"virtual-host bucket", {.sni = "bucket.tenant-a.test"}, true, "tenant-a.test", "", TLS1_3_VERSION},
        {"dotted bucket name", {.sni = "my.bucket.tenant-b.test"}, true, "tenant-b.test", "", TLS1_3_VERSION},
        {"suffix without a dot is another name", {.sni = "evil-tenant-a.test"}, true, "default.test", "",
         TLS1_3_VERSION},
        {"unknown name gets the first certificate", {.sni = "other.test"}, true, "default.test", "", TLS1_3_VERSION},
        {"tenant without a certificate of its own", {.sni = "no-cert.test"}, true, "default.test", "",
         TLS1_3_VERSION},
        {"second domain of a shared certificate", {.sni = "bucket.tenant-c.test"}, true, "tenant-b.test", "",
         TLS1_3_VERSION},
        {"tenant over tls 1.2", {.max_version = TLS1_2_VERSION, .sni = "bucket.tenant-a.test"}, true,
         "tenant-a.test", "", TLS1_2_VERSION},
        {"alpn http/1.1 chosen over h2", {.sni = "tenant-a.test", .alpn = h11}, true, "tenant-a.test", "http/1.1",
         TLS1_3_VERSION},
        {"alpn h2 alone gets no protocol", {.alpn = alpn_wire({"h2"})}, true, "default.test", "", TLS1_3_VERSION},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        session_t sess;
        const result_t got = sess.run(s.ctx(), r.client);
        EXPECT_EQ(got.ok, r.ok);
        if (!r.ok) {
            if (r.cn[0] != '\0') {
                EXPECT_EQ(got.client_error, r.cn);
            }
            continue;
        }
        EXPECT_EQ(got.subject_cn, r.cn);
        EXPECT_EQ(got.alpn, r.alpn);
        EXPECT_EQ(got.version, r.version);
        EXPECT_TRUE(sess.exchange());
    }
}

TEST_F(SslContext, ClientRenegotiationIsRefused)
{
    service_t s(p("chain.pem"), p("rsa.key"), "");
    ASSERT_EQ(s.init(), 0);
    session_t sess;
    ASSERT_TRUE(sess.run(s.ctx(), {.max_version = TLS1_2_VERSION}).ok);
    SSL* cli = sess.client.get();
    ASSERT_EQ(SSL_renegotiate(cli), 1);
    (void)SSL_do_handshake(cli);  // the new ClientHello goes out
    char buf[8];
    EXPECT_LE(SSL_read(sess.server.get(), buf, sizeof buf), 0);  // the server answers no_renegotiation
    bool refused = false;
    for (int i = 0; i < 4 && !refused; i++)
        refused = SSL_do_handshake(cli) <= 0 && SSL_get_error(cli, -1) == SSL_ERROR_SSL;
    EXPECT_TRUE(refused);
    EXPECT_EQ(SSL_renegotiate_pending(cli), 1) << "the renegotiation completed";
    ERR_clear_error();
}

TEST_F(SslContext, ConnectionsOutliveTheContextsOfAReload)
{
    service_t s(p("chain.pem"), p("rsa.key"), "");
    s.add_tenant("tenant-a.test", p("tenant-a.pem"), p("tenant-a.key"));
    ASSERT_EQ(s.init(), 0);
    session_t on_service, on_tenant;
    ASSERT_TRUE(on_service.run(s.ctx(), {}).ok);
    ASSERT_TRUE(on_tenant.run(s.ctx(), {.sni = "tenant-a.test"}).ok);
    // The listener's close drops the worker's reference; a second build is what a reload makes.
    orbs3_openssl_release(&s.cycle);
    ASSERT_EQ(s.init(), 0);
    EXPECT_TRUE(on_service.exchange());
    EXPECT_TRUE(on_tenant.exchange());
    // The old service context still finds its tenant: its SNI table went nowhere.
    SSL_CTX* old = SSL_get_SSL_CTX(on_service.server.get());
    EXPECT_NE(old, s.ctx());
    EXPECT_NE(orbs3_ssl_context_for_name(old, "tenant-a.test"), old);
}

TEST_F(SslContext, QueriesOfAConnection)
{
    service_t s(p("chain.pem"), p("rsa.key"), "");
    ASSERT_EQ(s.init(), 0);
    session_t sess;
    ASSERT_TRUE(sess.run(s.ctx(), {.sni = "default.test"}).ok);
    std::unique_ptr<orbs3_pool_t, orbs3_pool_deleter> pool(orbs3_create_mem_block(4096));
    ASSERT_NE(pool, nullptr);
    SSL* srv = sess.server.get();
    orbs3_str_t v{};
    auto text = [&] { return std::string(v.data != nullptr ? v.data : "", v.len); };

    ASSERT_EQ(orbs3_ssl_get_protocol(srv, pool.get(), &v), 0);
    EXPECT_EQ(text(), "TLSv1.3");
    ASSERT_EQ(orbs3_ssl_get_cipher_name(srv, pool.get(), &v), 0);
    EXPECT_EQ(text().rfind("TLS_", 0), 0U) << text();
    ASSERT_EQ(orbs3_ssl_get_session_reused(srv, pool.get(), &v), 0);
    EXPECT_EQ(text(), ".");
    ASSERT_EQ(orbs3_ssl_get_server_name(srv, pool.get(), &v), 0);
    EXPECT_EQ(text(), "default.test");
    ASSERT_EQ(orbs3_ssl_get_session_id(srv, pool.get(), &v), 0);
    unsigned int id_len = 0;
    const unsigned char* id = SSL_SESSION_get_id(SSL_get_session(srv), &id_len);
    std::string hex;
    for (unsigned int i = 0; i < id_len; i++) {
        char b[3];
        std::snprintf(b, sizeof b, "%02x", id[i]);
        hex += b;
    }
    EXPECT_EQ(text(), hex);
    // The server asks no client certificate: nothing to give.
    ASSERT_EQ(orbs3_ssl_get_certificate(srv, pool.get(), &v), 0);
    EXPECT_EQ(v.len, 0U);

    // From the client's side the peer is the service's certificate: one header line, tab after each LF.
    SSL* cli = sess.client.get();
    orbs3_str_t raw{};
    ASSERT_EQ(orbs3_ssl_get_raw_certificate(cli, pool.get(), &raw), 0);
    ASSERT_EQ(orbs3_ssl_get_certificate(cli, pool.get(), &v), 0);
    const std::string pem(raw.data, raw.len), folded = text();
    EXPECT_EQ(pem.rfind("-----BEGIN CERTIFICATE-----\n", 0), 0U);
    std::string unfolded;
    for (std::size_t i = 0; i < folded.size(); i++) {
        if (folded[i] == '\n' && i + 1 < folded.size()) {
            EXPECT_EQ(folded[i + 1], '\t') << "at " << i;
        }
        if (folded[i] != '\t')
            unfolded += folded[i];
    }
    EXPECT_EQ(folded.back(), '\n');
    EXPECT_EQ(unfolded, pem);
}

}  // namespace
