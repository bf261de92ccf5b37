#include "tls/orbs3_ssl_context.h"

#include <fcntl.h>
#include <unistd.h>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#ifndef OPENSSL_NO_ENGINE
#include <openssl/engine.h>
#endif

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "core/orbs3_log.h"
#include "tls/orbs3_ssl_session_cache.h"

namespace {

struct x509_free {
    void operator()(X509* x) const { X509_free(x); }
};
struct bio_free {
    void operator()(BIO* b) const { BIO_free(b); }
};
struct pkey_free {
    void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
using x509_ptr = std::unique_ptr<X509, x509_free>;
using bio_ptr = std::unique_ptr<BIO, bio_free>;
using pkey_ptr = std::unique_ptr<EVP_PKEY, pkey_free>;

// What one context owns besides OpenSSL's own state: the file names its certificates point at, a reference
// on each certificate of its list, and (the service's context) the vhost contexts SNI can switch to. It
// lives exactly as long as the context, through an ex-data slot with a free function, so a context that
// outlives a reload (held by a connection's SSL object) still has all of it.
struct ctx_state {
    struct vhost_ctx {
        std::string domain;
        std::string cert;  // the files the context was built from: tenants of one group share one context
        std::string key;
        SSL_CTX* ctx;  // one reference per entry
    };
    std::list<std::string> names;  // a list: c_str() of each stays put while others are added
    std::vector<X509*> certs;
    std::vector<vhost_ctx> vhosts;

    ~ctx_state()
    {
        for (X509* x : certs)
            X509_free(x);
        for (vhost_ctx& v : vhosts)
            SSL_CTX_free(v.ctx);
    }
};

void state_free(void*, void* ptr, CRYPTO_EX_DATA*, int, long, void*)
{
    delete static_cast<ctx_state*>(ptr);
}

int state_index()
{
    static std::once_flag once;
    static int index = -1;
    std::call_once(once, [] {
        index = CRYPTO_get_ex_new_index(CRYPTO_EX_INDEX_SSL_CTX, 0, nullptr, nullptr, nullptr, state_free);
    });
    return index;
}

ctx_state* state_of(const SSL_CTX* ctx)
{
    const int index = state_index();
    return index < 0 ? nullptr : static_cast<ctx_state*>(SSL_CTX_get_ex_data(ctx, index));
}

thread_local char g_last_error[768];

// One error line: what failed, the file, and the reason (OpenSSL's first queued error unless given). The
// queue is emptied so the next step starts clean. Pass phrases are never an argument here.
void fail(const char* what, const char* file, const char* reason = nullptr)
{
    char buf[256];
    if (reason == nullptr) {
        const unsigned long e = ERR_peek_error();
        if (e != 0) {
            ERR_error_string_n(e, buf, sizeof buf);
            reason = buf;
        } else {
            reason = "unknown reason";
        }
    }
    std::snprintf(g_last_error, sizeof g_last_error, "%s \"%s\": %s", what, file, reason);
    ipd_log(LOG_ERR, "%s", g_last_error);
    ERR_clear_error();
}

bool iequals(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && (a.empty() || strncasecmp(a.data(), b.data(), a.size()) == 0);
}

int servername_callback(SSL* s, int*, void*)
{
    const char* name = SSL_get_servername(s, TLSEXT_NAMETYPE_host_name);
    if (name == nullptr)
        return SSL_TLSEXT_ERR_NOACK;
    SSL_CTX* cur = SSL_get_SSL_CTX(s);
    SSL_CTX* want = orbs3_ssl_context_for_name(cur, name);
    // The SSL object takes its own reference on the vhost context, so a reload cannot free it under us.
    if (want != cur && SSL_set_SSL_CTX(s, want) == nullptr)
        return SSL_TLSEXT_ERR_ALERT_FATAL;
    return SSL_TLSEXT_ERR_OK;
}

// Only HTTP/1.1 is spoken: it is picked when the client offers it, and no protocol is named otherwise.
int alpn_callback(SSL*, const unsigned char** out, unsigned char* outlen, const unsigned char* in, unsigned int inlen,
                  void*)
{
    constexpr std::string_view kHttp11 = "http/1.1";
    unsigned int i = 0;
    while (i < inlen) {
        const unsigned int len = in[i];
        if (len == 0 || len > inlen - i - 1)
            break;
        if (std::string_view(reinterpret_cast<const char*>(in + i + 1), len) == kHttp11) {
            *out = in + i + 1;
            *outlen = static_cast<unsigned char>(len);
            return SSL_TLSEXT_ERR_OK;
        }
        i += 1 + len;
    }
    return SSL_TLSEXT_ERR_NOACK;
}

int verify_callback(int ok, X509_STORE_CTX* x509_store)
{
    // The decision falls after the handshake (orbs3_ssl_validate_client_cert); here it is only traced.
    char subject[256] = "";
    char issuer[256] = "";
    X509* cert = X509_STORE_CTX_get_current_cert(x509_store);
    if (cert != nullptr) {
        X509_NAME_oneline(X509_get_subject_name(cert), subject, sizeof subject);
        X509_NAME_oneline(X509_get_issuer_name(cert), issuer, sizeof issuer);
    }
    ipd_debug("verify:%d, error:%d, depth:%d, subject:\"%s\", issuer:\"%s\"", ok, X509_STORE_CTX_get_error(x509_store),
              X509_STORE_CTX_get_error_depth(x509_store), subject, issuer);
    return 1;
}

#ifndef OPENSSL_NO_ENGINE
// ENGINE is deprecated in OpenSSL 3 in favour of providers, but `engine:NAME:ID` keys (a key held by a
// hardware module) are only reachable through it; the warning is silenced for these calls alone.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
int engine_key(SSL_CTX* ctx, const char* key)
{
    std::string_view rest(key + 7);
    const std::size_t colon = rest.find(':');
    if (colon == std::string_view::npos || colon == 0 || colon + 1 == rest.size()) {
        fail("invalid syntax in", key, "engine:NAME:ID expected");
        return -1;
    }
    const std::string name(rest.substr(0, colon));
    const std::string id(rest.substr(colon + 1));
    ENGINE* engine = ENGINE_by_id(name.c_str());
    if (engine == nullptr) {
        char what[128];
        std::snprintf(what, sizeof what, "ENGINE_by_id(\"%s\") failed for", name.c_str());
        fail(what, key);
        return -1;
    }
    pkey_ptr pkey(ENGINE_load_private_key(engine, id.c_str(), nullptr, nullptr));
    ENGINE_free(engine);
    if (pkey == nullptr) {
        fail("ENGINE_load_private_key() failed for", key);
        return -1;
    }
    if (SSL_CTX_use_PrivateKey(ctx, pkey.get()) != 1) {
        fail("the certificate and its key do not match", key);
        return -1;
    }
    return 0;
}
#pragma GCC diagnostic pop
#endif

int file_key(SSL_CTX* ctx, const char* key, const char* password)
{
    bio_ptr bio(BIO_new_file(key, "r"));
    if (bio == nullptr) {
        fail("PrivateKey file not found", key);
        return -1;
    }
    // The callback is always given, with the empty pass phrase when none is set: without one OpenSSL would
    // prompt on the terminal for an encrypted key.
    pkey_ptr pkey(PEM_read_bio_PrivateKey(bio.get(), nullptr, orbs3_ssl_password_callback,
                                          const_cast<char*>(password != nullptr ? password : "")));
    if (pkey == nullptr) {
        fail("PrivateKey file not found", key);
        return -1;
    }
    if (SSL_CTX_use_PrivateKey(ctx, pkey.get()) != 1) {
        fail("the certificate and its key do not match", key);
        return -1;
    }
    return 0;
}

// Reads the whole file when it is at most `cap` bytes; -1 when it cannot be read, -2 when it is larger.
ssize_t read_small_file(const char* path, unsigned char* buf, std::size_t cap)
{
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    std::size_t got = 0;
    for (;;) {
        unsigned char extra;
        const ssize_t n = got < cap ? read(fd, buf + got, cap - got) : read(fd, &extra, 1);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            const int err = errno;
            close(fd);
            errno = err;
            return -1;
        }
        if (n == 0)
            break;
        if (got == cap) {
            close(fd);
            return -2;
        }
        got += static_cast<std::size_t>(n);
    }
    close(fd);
    return static_cast<ssize_t>(got);
}

// A context with everything but its certificate: options, ciphers, groups, DH.
int build_context(orbs3_ssl_t* ssl, orbs3_service_t* svc)
{
    if (orbs3_ssl_create(ssl, svc, svc) != 0 || orbs3_ssl_dhparam(ssl) != 0 ||
        orbs3_ssl_ecdh_curve(ssl, ORBS3_SSL_GROUPS) != 0)
        return -1;
    return 0;
}

bool same_file(const orbs3_str_t& a, const char* b)
{
    return orbs3_str_view(a) == std::string_view(b);
}

// One context for each vhost with a certificate and key of its own (other than the service's), in the
// service context's SNI table. A tenant's bad certificate fails the whole service, as the service's own
// would: it must not surface later as failed handshakes.
int vhost_contexts(orbs3_ssl_t* ssl, orbs3_service_t* svc)
{
    ctx_state* st = state_of(ssl->ctx);
    if (st == nullptr)
        return -1;
    neo_list_head_t* pos;
    list_for_each(pos, &svc->vhosts)
    {
        auto* vh = static_cast<orbs3_vhost_t*>(orbs3_list_node(pos)->data);
        if (vh->domain.len == 0 || vh->cert.len == 0 || vh->ssl_key.len == 0)
            continue;
        if (svc->certificate_n > 0 && same_file(vh->cert, svc->certificates[0].cert) &&
            same_file(vh->ssl_key, svc->certificates[0].key))
            continue;
        SSL_CTX* shared = nullptr;
        for (const ctx_state::vhost_ctx& v : st->vhosts)
            if (same_file(vh->cert, v.cert.c_str()) && same_file(vh->ssl_key, v.key.c_str()))
                shared = v.ctx;
        if (shared != nullptr) {
            SSL_CTX_up_ref(shared);
        } else {
            orbs3_ssl_t vs{};
            if (build_context(&vs, svc) != 0 || orbs3_ssl_certificate(&vs, neo_getstr(&vh->cert),
                                                                       neo_getstr(&vh->ssl_key),
                                                                       neo_getstr(&vh->key_pwd)) != 0) {
                SSL_CTX_free(vs.ctx);
                return -1;
            }
            shared = vs.ctx;
        }
        st->vhosts.push_back({std::string(orbs3_str_view(vh->domain)), std::string(orbs3_str_view(vh->cert)),
                              std::string(orbs3_str_view(vh->ssl_key)), shared});
    }
    return 0;
}

}  // namespace

const char* orbs3_ssl_last_error()
{
    return g_last_error;
}

void orbs3_init_ssl_cert(orbs3_service_t* svc)
{
    orbs3_ssl_cert_t& c = svc->certificates[0];
    std::snprintf(c.cert, sizeof c.cert, "%s", neo_getstr(&svc->cert));
    std::snprintf(c.key, sizeof c.key, "%s", neo_getstr(&svc->ssl_key));
    std::snprintf(c.password, sizeof c.password, "%s", neo_getstr(&svc->key_pwd));
    svc->certificate_n = 1;
    svc->protocols = 62;
    svc->protocols_set = 1;
    svc->session_tickets = sysconfig.ssl_ticket != 0 ? 1 : 0;
    svc->ssl_engine_on = sysconfig.ssl_engine == 0 ? 1 : 0;  // orbs3_bool: 0 is "on"
    std::snprintf(svc->ssl_engine_name, sizeof svc->ssl_engine_name, "%s", sysconfig.ssl_engine_name);
}

int orbs3_ssl_password_callback(char* buf, int size, int rwflag, void* userdata)
{
    if (rwflag != 0 || buf == nullptr || size <= 0 || userdata == nullptr)
        return 0;
    const std::size_t len = std::min(std::strlen(static_cast<const char*>(userdata)), static_cast<std::size_t>(size));
    std::memcpy(buf, userdata, len);
    return static_cast<int>(len);
}

void orbs3_ssl_passwords_cleanup(orbs3_service_t* svc)
{
    for (orbs3_ssl_cert_t& c : svc->certificates)
        OPENSSL_cleanse(c.password, sizeof c.password);
}

int orbs3_ssl_create(orbs3_ssl_t* ssl, orbs3_service_t* svc, void* data)
{
    SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
    if (ctx == nullptr) {
        fail("SSL_CTX_new() failed for", neo_getstr(&svc->ipaddr));
        return -1;
    }
    ssl->ctx = ctx;
    ssl->buffer_size = ORBS3_SSL_BUFFER_SIZE;
    auto* st = new (std::nothrow) ctx_state();
    if (st == nullptr || state_index() < 0 || SSL_CTX_set_ex_data(ctx, state_index(), st) != 1) {
        delete st;
        fail("the ssl create failed for", neo_getstr(&svc->ipaddr));
        return -1;
    }
    if (SSL_CTX_set_ex_data(ctx, orbs3_ssl_server_conf_index, data) != 1 ||
        SSL_CTX_set_ex_data(ctx, orbs3_ssl_certificate_index, nullptr) != 1) {
        fail("SSL_CTX_set_ex_data() failed for", neo_getstr(&svc->ipaddr));
        return -1;
    }

    // TLS 1.2 and 1.3 only: older versions lack AEAD suites and are refused by current clients anyway.
    if (SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION) != 1) {
        fail("SSL_CTX_set_min_proto_version() failed for", neo_getstr(&svc->ipaddr));
        return -1;
    }
    uint64_t options = SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE;
    if (svc->protocols_set != 0 && (svc->protocols & 32) == 0)
        options |= SSL_OP_NO_TLSv1_2;
    if (svc->session_tickets == 0)
        options |= SSL_OP_NO_TICKET;
    SSL_CTX_set_options(ctx, options);
    if (SSL_CTX_set_cipher_list(ctx, ORBS3_SSL_CIPHERS) != 1) {
        fail("SSL_CTX_set_cipher_list() failed for", neo_getstr(&svc->ipaddr));
        return -1;
    }
    long mode = SSL_MODE_RELEASE_BUFFERS | SSL_MODE_NO_AUTO_CHAIN;
    if (svc->async != 0)
        mode |= SSL_MODE_ASYNC;
    SSL_CTX_set_mode(ctx, mode);
    SSL_CTX_set_read_ahead(ctx, 1);
    SSL_CTX_set_tlsext_servername_callback(ctx, servername_callback);
    SSL_CTX_set_alpn_select_cb(ctx, alpn_callback, nullptr);

    if (svc->verify != 0 &&
        orbs3_ssl_client_certificate(ssl, svc->client_certificate, static_cast<int>(svc->verify_depth)) != 0)
        return -1;
    if (svc->crl[0] != '\0' && orbs3_ssl_crl(ssl, svc->crl) != 0)
        return -1;
    return 0;
}

int orbs3_ssl_dhparam(orbs3_ssl_t* ssl)
{
    // No suite offered uses finite-field DH (TLS 1.2 is ECDHE only, TLS 1.3 groups are X25519 and P-256), so
    // no parameters are fixed here. Should DHE ever be enabled, OpenSSL then picks parameters matching the
    // certificate's strength (2048 bits and up) rather than a weak fixed 1024-bit prime.
    return SSL_CTX_set_dh_auto(ssl->ctx, 1) == 1 ? 0 : -1;
}

int orbs3_ssl_ecdh_curve(orbs3_ssl_t* ssl, const char* name)
{
    if (SSL_CTX_set1_groups_list(ssl->ctx, name) != 1) {
        fail("SSL_CTX_set1_groups_list() failed for", name);
        return -1;
    }
    return 0;
}

int orbs3_ssl_certificates(orbs3_ssl_t* ssl, orbs3_service_t* svc)
{
    if (svc->certificate_n == 0) {
        fail("no certificate for the TLS service", neo_getstr(&svc->ipaddr), "no cert set");
        return -1;
    }
    for (uint32_t i = 0; i < svc->certificate_n && i < ORBS3_SSL_CERTS_MAX; i++) {
        const orbs3_ssl_cert_t& c = svc->certificates[i];
        if (orbs3_ssl_certificate(ssl, c.cert, c.key, c.password) != 0)
            return -1;
    }
    return 0;
}

int orbs3_ssl_certificate(orbs3_ssl_t* ssl, const char* cert, const char* key, const char* password)
{
    SSL_CTX* ctx = ssl->ctx;
    ctx_state* st = state_of(ctx);
    if (st == nullptr)
        return -1;
    if (cert == nullptr || cert[0] == '\0') {
        fail("the certificate is not exist", "", "no cert set");
        return -1;
    }
    if (key == nullptr || key[0] == '\0') {
        fail("PrivateKey file not found", "", "no key set");
        return -1;
    }

    // DER first (a small file, no chain), then PEM with the chain behind the certificate.
    unsigned char der[4096];
    const ssize_t n = read_small_file(cert, der, sizeof der);
    if (n == -1) {
        fail("the certificate is not exist", cert, std::strerror(errno));
        return -1;
    }
    x509_ptr x;
    if (n > 0) {
        const unsigned char* p = der;
        x.reset(d2i_X509(nullptr, &p, static_cast<long>(n)));
    }
    bio_ptr bio;
    if (x == nullptr) {
        ERR_clear_error();
        bio.reset(BIO_new_file(cert, "r"));
        if (bio != nullptr)
            x.reset(PEM_read_bio_X509_AUX(bio.get(), nullptr, orbs3_ssl_password_callback, const_cast<char*>("")));
        if (x == nullptr) {
            fail("the certificate cannot be read", cert);
            return -1;
        }
    }
    if (SSL_CTX_use_certificate(ctx, x.get()) != 1) {
        fail("SSL_CTX_use_certificate() failed for", cert);
        return -1;
    }

    // The context's certificate list: each certificate names its file and the one loaded before it.
    st->certs.reserve(st->certs.size() + 1);
    st->names.emplace_back(cert);
    X509_set_ex_data(x.get(), orbs3_ssl_certificate_name_index, const_cast<char*>(st->names.back().c_str()));
    X509_set_ex_data(x.get(), orbs3_ssl_next_certificate_index, SSL_CTX_get_ex_data(ctx, orbs3_ssl_certificate_index));
    SSL_CTX_set_ex_data(ctx, orbs3_ssl_certificate_index, x.get());
    st->certs.push_back(x.release());

    if (bio != nullptr) {
        for (;;) {
            X509* chain = PEM_read_bio_X509(bio.get(), nullptr, orbs3_ssl_password_callback, const_cast<char*>(""));
            if (chain == nullptr) {
                const unsigned long e = ERR_peek_last_error();
                if (ERR_GET_LIB(e) == ERR_LIB_PEM && ERR_GET_REASON(e) == PEM_R_NO_START_LINE) {
                    ERR_clear_error();
                    break;
                }
                fail("the certificate chain cannot be read", cert);
                return -1;
            }
            // The context takes the certificate on success.
            if (SSL_CTX_add_extra_chain_cert(ctx, chain) != 1) {
                X509_free(chain);
                fail("SSL_CTX_add_extra_chain_cert() failed for", cert);
                return -1;
            }
        }
    }

    if (std::strncmp(key, "engine:", 7) == 0) {
#ifndef OPENSSL_NO_ENGINE
        if (engine_key(ctx, key) != 0)
            return -1;
#else
        fail("the key needs an OpenSSL engine, which this OpenSSL lacks:", key, "no ENGINE support");
        return -1;
#endif
    } else if (file_key(ctx, key, password) != 0) {
        return -1;
    }
    if (SSL_CTX_check_private_key(ctx) != 1) {
        fail("the certificate and its key do not match", key);
        return -1;
    }
    return 0;
}

int orbs3_openssl_engine(const char* name)
{
#ifndef OPENSSL_NO_ENGINE
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    if (OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CONFIG, nullptr) == 0)
        return -1;
    ENGINE* engine = ENGINE_by_id(name);
    if (engine == nullptr) {
        ipd_log(LOG_ERR, "ENGINE_by_id(\"%s\") failed", name);
        ERR_clear_error();
        return -1;
    }
    if (ENGINE_set_default(engine, ENGINE_METHOD_ALL) == 0) {
        ipd_log(LOG_ERR, "ENGINE_set_default(\"%s\", ENGINE_METHOD_ALL) failed", name);
        ENGINE_free(engine);
        ERR_clear_error();
        return -1;
    }
    ENGINE_free(engine);
    return 0;
#pragma GCC diagnostic pop
#else
    ipd_log(LOG_ERR, "ENGINE_by_id(\"%s\") failed", name);
    return -1;
#endif
}

int orbs3_ssl_client_certificate(orbs3_ssl_t* ssl, const char* file, int depth)
{
    SSL_CTX_set_verify(ssl->ctx, SSL_VERIFY_PEER, verify_callback);
    SSL_CTX_set_verify_depth(ssl->ctx, depth);
    if (file == nullptr || file[0] == '\0')
        return 0;
    if (SSL_CTX_load_verify_locations(ssl->ctx, file, nullptr) != 1) {
        ipd_log(LOG_ERR, "SSL_CTX_load_verify_locations(\"%s\") failed", file);
        ERR_clear_error();
        return -1;
    }
    STACK_OF(X509_NAME)* list = SSL_load_client_CA_file(file);
    if (list == nullptr) {
        ipd_log(LOG_ERR, "SSL_load_client_CA_file(\"%s\") failed", file);
        ERR_clear_error();
        return -1;
    }
    SSL_CTX_set_client_CA_list(ssl->ctx, list);
    return 0;
}

int orbs3_ssl_crl(orbs3_ssl_t* ssl, const char* file)
{
    X509_STORE* store = SSL_CTX_get_cert_store(ssl->ctx);
    if (store == nullptr) {
        ipd_log(LOG_ERR, "SSL_CTX_get_cert_store() failed");
        return -1;
    }
    X509_LOOKUP* lookup = X509_STORE_add_lookup(store, X509_LOOKUP_file());
    if (lookup == nullptr) {
        ipd_log(LOG_ERR, "X509_STORE_add_lookup() failed");
        ERR_clear_error();
        return -1;
    }
    if (X509_LOOKUP_load_file(lookup, file, X509_FILETYPE_PEM) == 0) {
        ipd_log(LOG_ERR, "X509_LOOKUP_load_file(\"%s\") failed", file);
        ERR_clear_error();
        return -1;
    }
    X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
    return 0;
}

int orbs3_ssl_validate_client_cert(SSL* ssl, const orbs3_service_t* svc)
{
    if (svc->verify == 0)
        return 0;
    const long rc = SSL_get_verify_result(ssl);
    if (rc != X509_V_OK) {
        // With optional verification a self-signed or untrusted chain passes; the application decides.
        const bool optional_ok = svc->verify == 3 && (rc == X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT ||
                                                      rc == X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN ||
                                                      rc == X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY ||
                                                      rc == X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE ||
                                                      rc == X509_V_ERR_CERT_UNTRUSTED);
        if (!optional_ok) {
            ipd_log(LOG_INFO, "client SSL certificate verify error: (%ld:%s)", rc, X509_verify_cert_error_string(rc));
            return -1;
        }
    }
    if (svc->verify == 1) {
        X509* peer = SSL_get1_peer_certificate(ssl);
        if (peer == nullptr) {
            ipd_log(LOG_INFO, "client sent no required SSL certificate");
            return -1;
        }
        X509_free(peer);
    }
    return 0;
}

SSL_CTX* orbs3_ssl_context_for_name(SSL_CTX* service_ctx, const char* name)
{
    const ctx_state* st = state_of(service_ctx);
    if (st == nullptr || name == nullptr)
        return service_ctx;
    std::string_view n(name, strnlen(name, 256));
    if (!n.empty() && n.back() == '.')
        n.remove_suffix(1);
    for (const ctx_state::vhost_ctx& v : st->vhosts)
        if (iequals(n, v.domain))
            return v.ctx;
    // A name below a tenant's domain (a virtual-host bucket, dotted bucket names included) is that
    // tenant's, in list order as the Host lookup goes.
    for (const ctx_state::vhost_ctx& v : st->vhosts) {
        const std::size_t d = v.domain.size();
        if (n.size() > d + 1 && n[n.size() - d - 1] == '.' && iequals(n.substr(n.size() - d), v.domain))
            return v.ctx;
    }
    return service_ctx;
}

void orbs3_openssl_release(orbs3_cycle_t* cycle)
{
    if (cycle == nullptr || cycle->ssl == nullptr)
        return;
    auto* ssl = static_cast<orbs3_ssl_t*>(cycle->ssl);
    // Only the worker's reference goes: every SSL object made from the context (or switched to a vhost
    // context) holds its own, so connections still open across a reload keep their contexts until they
    // end, and the last SSL_free frees the context with its vhost contexts.
    SSL_CTX_free(ssl->ctx);
    delete ssl;
    cycle->ssl = nullptr;
}

int orbs3_openssl_init(orbs3_cycle_t* cycle, orbs3_service_t* svc)
{
    if (cycle == nullptr || svc == nullptr)
        return -1;
    orbs3_openssl_release(cycle);
    auto* ssl = new (std::nothrow) orbs3_ssl_t{};
    if (ssl == nullptr) {
        ipd_log(LOG_ERR, "the ssl create failed");
        return -1;
    }
    auto give_up = [&] {
        SSL_CTX_free(ssl->ctx);
        delete ssl;
        orbs3_ssl_passwords_cleanup(svc);
        return -1;
    };
    if (orbs3_ssl_init() != 0)
        return give_up();
    if (svc->ssl_engine_on != 0 && orbs3_openssl_engine(svc->ssl_engine_name) != 0)
        return give_up();
    ssl->async = svc->async;
    if (build_context(ssl, svc) != 0 || orbs3_ssl_certificates(ssl, svc) != 0 || vhost_contexts(ssl, svc) != 0)
        return give_up();

    // Sessions live in the worker's shared zone, named by the service's address and port so that another
    // service never resumes them. OpenSSL asks the context the handshake started on, but SNI may have
    // switched the connection to a tenant's context by then, and the cache's callbacks read the zone and
    // the timeout from the connection's current context: every context of the service gets the cache.
    char name[ORBS3_SSL_SESSION_CACHE_NAME_LEN];
    if (orbs3_ssl_session_cache_name(svc, name, sizeof name) != 0)
        return give_up();
    orbs3_shm_zone_t* zone = orbs3_ssl_shm_zone();
    auto install = [&](SSL_CTX* ctx) {
        orbs3_ssl_t one{ctx, ssl->async, ssl->buffer_size};
        if (orbs3_ssl_session_cache(&one, name, ORBS3_SSL_SESSION_CACHE_MODE, zone, ORBS3_SSL_SESSION_TIMEOUT) != 0) {
            ipd_log(LOG_ERR, "failed to orbs3_ssl_session_cache\n");
            return false;
        }
        return true;
    };
    if (!install(ssl->ctx))
        return give_up();
    if (const ctx_state* st = state_of(ssl->ctx); st != nullptr)
        for (const ctx_state::vhost_ctx& v : st->vhosts)
            if (v.ctx != ssl->ctx && !install(v.ctx))
                return give_up();
    if (zone != nullptr && orbs3_ssl_session_cache_init(zone, nullptr) != 0) {
        ipd_log(LOG_ERR, "failed to orbs3_ssl_session_cache_init\n");
        return give_up();
    }

    orbs3_ssl_passwords_cleanup(svc);
    cycle->ssl = ssl;
    return 0;
}
