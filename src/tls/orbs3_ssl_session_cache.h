// The shared TLS session cache: sessions live outside OpenSSL, in one shared-memory zone with a slab
// pool, so that a client resuming a session may land on any epoll thread of the worker, or on any process
// forked after the zone was made. A red-black tree keyed by the CRC-32 of the session id finds a session;
// a queue in order of creation gives the oldest for expiry and eviction. OpenSSL's own cache is off and
// its new, get and remove callbacks land here.
//
// Lifetime: a worker has one zone for its whole life. orbs3_openssl_shm_init makes it once, before the
// epoll threads start; a listener reload builds a new context over the same zone and adopts the cache
// root already in it, so connections still running on the old context keep a live zone. Only
// orbs3_openssl_exit, at the worker's end after every connection and context is gone, unmaps it.
#pragma once

#include <openssl/ssl.h>

#include <cstddef>
#include <cstdint>

#include "memory/neo_list.h"
#include "memory/neo_rbtree.h"
#include "memory/orbs3_shmem.h"
#include "memory/orbs3_slab.h"
#include "tls/orbs3_ssl.h"

struct orbs3_cycle_t;
struct orbs3_service_t;

// Modes of orbs3_ssl_session_cache; 0 and above is OpenSSL's own cache of that size.
inline constexpr int ORBS3_SSL_SCACHE_OFF = -2;       // no session cache at all
inline constexpr int ORBS3_SSL_SCACHE_NONE = -3;      // server side, nothing stored
inline constexpr int ORBS3_SSL_SCACHE_SHARED = -4;    // only the shared cache (OpenSSL's own without a zone)
inline constexpr int ORBS3_SSL_SCACHE_BUILTIN = -5;   // OpenSSL's own cache, default size

// What a TLS service uses: the shared cache only, sessions resumable for 10 seconds.
inline constexpr int ORBS3_SSL_SESSION_CACHE_MODE = ORBS3_SSL_SCACHE_SHARED;
inline constexpr long ORBS3_SSL_SESSION_TIMEOUT = 10;

// A session whose DER form is longer is not cached (the handshake still works).
inline constexpr std::size_t ORBS3_SSL_MAX_SESSION_SIZE = 4096;

// Room for "HTTP <address>:<port>", the session id context name of a service.
inline constexpr std::size_t ORBS3_SSL_SESSION_CACHE_NAME_LEN = 80;

// One session, in the slab. `node` comes first: a tree node is the record.
struct orbs3_ssl_cached_session_t {
    neo_rbtree_node_t node;  // key: CRC-32 of the id, unsigned; data: the id's length
    uint8_t* id;             // in the slab
    uint64_t session_len;
    uint8_t* session;        // i2d_SSL_SESSION form, in the slab
    neo_list_head_t queue;   // place in the cache's queue
    uint64_t expire;         // seconds since the epoch at which the session ends
};

// The cache root, in the slab; the pool's `data` points to it.
struct orbs3_ssl_session_cache_t {
    neo_rbtree_t tree;
    neo_rbtree_node_t sentinel;
    neo_list_head_t queue;  // oldest at the head
};

// Makes the worker's zone of sysconfig.ssl_shm_zone_size bytes with its slab pool, once: a second call
// keeps the zone it has. Before the epoll threads start. 0 or -1.
[[nodiscard]] int orbs3_openssl_shm_init(orbs3_cycle_t* cycle);
// The zone orbs3_openssl_shm_init made, or null.
[[nodiscard]] orbs3_shm_zone_t* orbs3_ssl_shm_zone();
// Unmaps the zone. Only at the worker's end: no connection or context may use it any more.
void orbs3_openssl_exit();

// Installs the cache on ssl->ctx: timeout, session id context over `name`, then the mode's settings;
// with a zone and a mode other than ORBS3_SSL_SCACHE_OFF the three callbacks. 0 or -1.
[[nodiscard]] int orbs3_ssl_session_cache(orbs3_ssl_t* ssl, const char* name, int mode, orbs3_shm_zone_t* zone,
                                          long timeout);
// Makes the cache root in the zone, or adopts `old`, or the root an earlier context left in the zone.
// 0 or -1.
[[nodiscard]] int orbs3_ssl_session_cache_init(orbs3_shm_zone_t* zone, orbs3_ssl_session_cache_t* old);
// SHA-1 over `name`, the digest of each certificate on the context's list and of each client CA name:
// sessions of another service, or of a changed certificate, are never resumed. 0 or -1.
[[nodiscard]] int orbs3_ssl_session_id_context(orbs3_ssl_t* ssl, const char* name);
// "HTTP <address>:<port>" of a service into buf, for orbs3_ssl_session_cache. 0, or -1 if it doesn't fit.
[[nodiscard]] int orbs3_ssl_session_cache_name(const orbs3_service_t* svc, char* buf, std::size_t size);

// OpenSSL's callbacks.
int orbs3_ssl_new_session(SSL* ssl, SSL_SESSION* session);
SSL_SESSION* orbs3_ssl_get_cached_session(SSL* ssl, const unsigned char* id, int len, int* copy);
void orbs3_ssl_remove_session(SSL_CTX* ctx, SSL_SESSION* session);
// Drops the session from OpenSSL and from the shared cache.
void orbs3_ssl_remove_cached_session(SSL_CTX* ctx, SSL_SESSION* session);

// Under the pool's mutex: removes from the head of the queue, n = 1 at most two expired sessions, n = 0
// the head whatever its expiry and then at most two expired ones.
void orbs3_ssl_expire_sessions(orbs3_ssl_session_cache_t* cache, orbs3_slab_pool_t* pool, uint32_t n);
// Tree order: the key (unsigned), then the id bytes by orbs3_memn2cmp.
void orbs3_ssl_session_rbtree_insert_value(neo_rbtree_node_t* temp, neo_rbtree_node_t* node,
                                           neo_rbtree_node_t* sentinel);

// Offers a session for resumption on a client connection. 0, or -1 with "SSL_set_session() failed".
[[nodiscard]] int orbs3_ssl_set_session(SSL* ssl, SSL_SESSION* session);
