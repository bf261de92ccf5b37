// Read-only queries of a connection's TLS state, for logs and request variables.
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstring>
#include <memory>
#include <string_view>

#include "tls/orbs3_ssl_context.h"

namespace {

int set_text(orbs3_pool_t* pool, orbs3_str_t* s, std::string_view text)
{
    s->len = 0;
    s->data = nullptr;
    if (text.empty())
        return 0;
    auto* p = static_cast<char*>(orbs3_pnalloc(pool, text.size() + 1));
    if (p == nullptr)
        return -1;
    std::memcpy(p, text.data(), text.size());
    p[text.size()] = '\0';
    s->data = p;
    s->len = text.size();
    return 0;
}

std::string_view view_of(const char* text)
{
    return text != nullptr ? std::string_view(text) : std::string_view();
}

struct bio_free {
    void operator()(BIO* b) const { BIO_free(b); }
};

}  // namespace

int orbs3_ssl_get_protocol(SSL* ssl, orbs3_pool_t* pool, orbs3_str_t* s)
{
    return set_text(pool, s, view_of(SSL_get_version(ssl)));
}

int orbs3_ssl_get_cipher_name(SSL* ssl, orbs3_pool_t* pool, orbs3_str_t* s)
{
    return set_text(pool, s, view_of(SSL_get_cipher_name(ssl)));
}

int orbs3_ssl_get_session_id(SSL* ssl, orbs3_pool_t* pool, orbs3_str_t* s)
{
    s->len = 0;
    s->data = nullptr;
    SSL_SESSION* sess = SSL_get_session(ssl);
    if (sess == nullptr)
        return 0;
    unsigned int len = 0;
    const unsigned char* id = SSL_SESSION_get_id(sess, &len);
    if (len == 0)
        return 0;
    auto* p = static_cast<char*>(orbs3_pnalloc(pool, 2 * len + 1));
    if (p == nullptr)
        return -1;
    static constexpr char kHex[] = "0123456789abcdef";
    for (unsigned int i = 0; i < len; i++) {
        p[2 * i] = kHex[id[i] >> 4];
        p[2 * i + 1] = kHex[id[i] & 0xf];
    }
    p[2 * len] = '\0';
    s->data = p;
    s->len = 2 * len;
    return 0;
}

int orbs3_ssl_get_session_reused(SSL* ssl, orbs3_pool_t* pool, orbs3_str_t* s)
{
    return set_text(pool, s, SSL_session_reused(ssl) != 0 ? "r" : ".");
}

int orbs3_ssl_get_server_name(SSL* ssl, orbs3_pool_t* pool, orbs3_str_t* s)
{
    return set_text(pool, s, view_of(SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name)));
}

int orbs3_ssl_get_raw_certificate(SSL* ssl, orbs3_pool_t* pool, orbs3_str_t* s)
{
    s->len = 0;
    s->data = nullptr;
    // SSL_get_peer_certificate is deprecated in OpenSSL 3; the get1 form says it takes a reference.
    X509* cert = SSL_get1_peer_certificate(ssl);
    if (cert == nullptr)
        return 0;
    std::unique_ptr<BIO, bio_free> bio(BIO_new(BIO_s_mem()));
    const int ok = bio != nullptr ? PEM_write_bio_X509(bio.get(), cert) : 0;
    X509_free(cert);
    if (ok == 0)
        return -1;
    char* data = nullptr;
    const long len = BIO_get_mem_data(bio.get(), &data);
    if (len <= 0)
        return -1;
    return set_text(pool, s, std::string_view(data, static_cast<std::size_t>(len)));
}

int orbs3_ssl_get_certificate(SSL* ssl, orbs3_pool_t* pool, orbs3_str_t* s)
{
    orbs3_str_t raw{};
    if (orbs3_ssl_get_raw_certificate(ssl, pool, &raw) != 0)
        return -1;
    s->len = 0;
    s->data = nullptr;
    if (raw.len == 0)
        return 0;
    const std::string_view pem(raw.data, raw.len);
    std::size_t lf = 0;
    for (char ch : pem)
        lf += ch == '\n' ? 1 : 0;
    if (pem.back() == '\n')
        lf--;  // the last LF ends the text and gets no tab
    auto* p = static_cast<char*>(orbs3_pnalloc(pool, pem.size() + lf + 1));
    if (p == nullptr)
        return -1;
    std::size_t o = 0;
    for (std::size_t i = 0; i < pem.size(); i++) {
        p[o++] = pem[i];
        if (pem[i] == '\n' && i + 1 < pem.size())
            p[o++] = '\t';
    }
    p[o] = '\0';
    s->data = p;
    s->len = o;
    return 0;
}
