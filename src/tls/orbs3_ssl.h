// TLS of a worker: the library's start, the ex-data indices every TLS module shares, and the worker's TLS
// record. A TLS service has one record in the run record's `ssl` field, built before the epoll threads
// start and only read after that.
#pragma once

#include <openssl/ssl.h>

#include <cstdint>

// The worker's TLS record (run record field `ssl`).
struct orbs3_ssl_t {
    SSL_CTX* ctx;          // the service's context: its first certificate, the session cache
    uint32_t async;        // non-zero: OpenSSL's asynchronous mode
    uint64_t buffer_size;  // 16384: one TLS record
};

inline constexpr uint64_t ORBS3_SSL_BUFFER_SIZE = 16384;

// Ex-data indices, made once by orbs3_ssl_init; -1 before.
extern int orbs3_ssl_connection_index;          // on SSL: the orbs3_connection_t
extern int orbs3_ssl_server_conf_index;         // on SSL_CTX: the service
extern int orbs3_ssl_session_cache_index;       // on SSL_CTX: the shared session cache's zone
extern int orbs3_ssl_session_ticket_keys_index; // on SSL_CTX
extern int orbs3_ssl_certificate_index;         // on SSL_CTX: head of the context's certificate list
extern int orbs3_ssl_next_certificate_index;    // on X509: the next certificate of that list
extern int orbs3_ssl_certificate_name_index;    // on X509: the file it came from
extern int orbs3_ssl_stapling_index;            // on X509

// Starts the library (configuration loaded) and makes the indices; a second call does nothing. 0 or -1.
[[nodiscard]] int orbs3_ssl_init();
