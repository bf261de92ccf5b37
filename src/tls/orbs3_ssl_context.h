// TLS contexts of a service: protocol and cipher policy, certificates and keys, the certificate a client
// gets by the name it asks for (SNI), ALPN, client verification, and read-only queries of a connection's
// TLS state. Built in the worker before its listening socket and only read once the epoll threads run.
#pragma once

#include <openssl/ssl.h>

#include <cstddef>

#include "core/orbs3_config.h"
#include "core/orbs3_tenant.h"
#include "memory/orbs3_palloc.h"
#include "tls/orbs3_ssl.h"

// Groups offered for key exchange: X25519 first (what current clients send a key share for, so no
// HelloRetryRequest), P-256 for the rest.
inline constexpr const char* ORBS3_SSL_GROUPS = "X25519:P-256";
// TLS 1.2 suites: forward secrecy (ECDHE) with AEAD only; TLS 1.3 suites are all AEAD already.
inline constexpr const char* ORBS3_SSL_CIPHERS = "ECDHE+AESGCM:ECDHE+CHACHA20";

// Fills the service's TLS settings from its cert, ssl_key and key_pwd and from http.conf: one certificate
// entry, protocols 62 with protocols_set 1, tickets and engine as configured.
void orbs3_init_ssl_cert(orbs3_service_t* svc);

// Builds the service's TLS record in cycle->ssl (an earlier one, of a reload, is released first): the
// service's context with its certificate, one context per vhost with a certificate of its own, chosen by
// SNI. 0, or -1 with one error line naming the file and OpenSSL's reason; cycle->ssl is then null.
[[nodiscard]] int orbs3_openssl_init(orbs3_cycle_t* cycle, orbs3_service_t* svc);
// Drops the worker's reference on the contexts and frees the record; cycle->ssl becomes null. A connection
// that still has an SSL object keeps its context alive until that object is freed.
void orbs3_openssl_release(orbs3_cycle_t* cycle);

// A context with this server's options; `data` goes under the server-conf index. 0 or -1.
[[nodiscard]] int orbs3_ssl_create(orbs3_ssl_t* ssl, orbs3_service_t* svc, void* data);
[[nodiscard]] int orbs3_ssl_certificates(orbs3_ssl_t* ssl, orbs3_service_t* svc);
// Certificate (DER, or PEM with its chain) and private key (a file, or `engine:NAME:ID`). 0 or -1.
[[nodiscard]] int orbs3_ssl_certificate(orbs3_ssl_t* ssl, const char* cert, const char* key, const char* password);
[[nodiscard]] int orbs3_ssl_dhparam(orbs3_ssl_t* ssl);
[[nodiscard]] int orbs3_ssl_ecdh_curve(orbs3_ssl_t* ssl, const char* name);
[[nodiscard]] int orbs3_openssl_engine(const char* name);
[[nodiscard]] int orbs3_ssl_client_certificate(orbs3_ssl_t* ssl, const char* file, int depth);
[[nodiscard]] int orbs3_ssl_crl(orbs3_ssl_t* ssl, const char* file);
// After the handshake: 0 when the client's certificate satisfies the service's `verify`, else -1.
[[nodiscard]] int orbs3_ssl_validate_client_cert(SSL* ssl, const orbs3_service_t* svc);

// OpenSSL's pass-phrase callback: `userdata` is the NUL-terminated password. Never prompts; an empty
// password gives 0, which fails the key's decryption.
int orbs3_ssl_password_callback(char* buf, int size, int rwflag, void* userdata);
// Overwrites the pass phrases of the service's certificate entries with zero bytes.
void orbs3_ssl_passwords_cleanup(orbs3_service_t* svc);

// The context serving a name a client asked for: the vhost whose domain is the name or a parent of it,
// else the service's own. Exposed for tests; the servername callback uses it.
SSL_CTX* orbs3_ssl_context_for_name(SSL_CTX* service_ctx, const char* name);

// The last error line the context set-up logged in this thread (empty when none); for tests.
const char* orbs3_ssl_last_error();

// Read-only queries of a connection's TLS state, as text allocated in `pool`: 0 (s empty when there is
// nothing to give), or -1 when memory runs out.
[[nodiscard]] int orbs3_ssl_get_protocol(SSL* ssl, orbs3_pool_t* pool, orbs3_str_t* s);
[[nodiscard]] int orbs3_ssl_get_cipher_name(SSL* ssl, orbs3_pool_t* pool, orbs3_str_t* s);
[[nodiscard]] int orbs3_ssl_get_session_id(SSL* ssl, orbs3_pool_t* pool, orbs3_str_t* s);      // hex
[[nodiscard]] int orbs3_ssl_get_session_reused(SSL* ssl, orbs3_pool_t* pool, orbs3_str_t* s);  // "r" or "."
[[nodiscard]] int orbs3_ssl_get_server_name(SSL* ssl, orbs3_pool_t* pool, orbs3_str_t* s);
[[nodiscard]] int orbs3_ssl_get_raw_certificate(SSL* ssl, orbs3_pool_t* pool, orbs3_str_t* s);  // PEM
// The peer's certificate in PEM with a tab after every LF but the last (fit for one header line).
[[nodiscard]] int orbs3_ssl_get_certificate(SSL* ssl, orbs3_pool_t* pool, orbs3_str_t* s);
