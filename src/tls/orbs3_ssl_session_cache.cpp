#include "tls/orbs3_ssl_session_cache.h"

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <charconv>
#include <cstring>
#include <ctime>
#include <memory>

#include "core/orbs3_config.h"
#include "core/orbs3_log.h"
#include "core/orbs3_tenant.h"
#include "memory/neo_string.h"
#include "memory/orbs3_crc32.h"

namespace {

// Set before the epoll threads start and cleared after they stop: read without a lock.
orbs3_shm_zone_t* g_zone = nullptr;

using md_ctx_ptr = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;

orbs3_slab_pool_t* zone_pool(orbs3_shm_zone_t* zone)
{
    return zone == nullptr ? nullptr : static_cast<orbs3_slab_pool_t*>(zone->data);
}

orbs3_shm_zone_t* ctx_zone(SSL_CTX* ctx)
{
    if (ctx == nullptr || orbs3_ssl_session_cache_index < 0)
        return nullptr;
    return static_cast<orbs3_shm_zone_t*>(SSL_CTX_get_ex_data(ctx, orbs3_ssl_session_cache_index));
}

uint64_t now_sec()
{
    return static_cast<uint64_t>(std::time(nullptr));
}

// Under the mutex: unlinks a record from queue and tree and gives its memory back.
void drop_locked(orbs3_ssl_session_cache_t* cache, orbs3_slab_pool_t* pool, orbs3_ssl_cached_session_t* sess)
{
    list_del(&sess->queue);
    neo_rbtree_delete(&cache->tree, &sess->node);
    orbs3_slab_free_locked(pool, sess->session);
    orbs3_slab_free_locked(pool, sess->id);
    orbs3_slab_free_locked(pool, sess);
}

// Under the mutex: the record of this id, or null.
orbs3_ssl_cached_session_t* find_locked(orbs3_ssl_session_cache_t* cache, uint32_t hash, const uint8_t* id,
                                        std::size_t len)
{
    neo_rbtree_node_t* node = cache->tree.root;
    neo_rbtree_node_t* sentinel = cache->tree.sentinel;
    while (node != sentinel) {
        if (hash < node->key) {
            node = node->left;
            continue;
        }
        if (hash > node->key) {
            node = node->right;
            continue;
        }
        auto* sess = reinterpret_cast<orbs3_ssl_cached_session_t*>(node);
        int rc = orbs3_memn2cmp(id, sess->id, len, node->data);
        if (rc == 0)
            return sess;
        node = rc < 0 ? node->left : node->right;
    }
    return nullptr;
}

// Under the mutex: a slab block, after evicting the oldest session once if the pool is full.
void* alloc_evicting(orbs3_ssl_session_cache_t* cache, orbs3_slab_pool_t* pool, std::size_t size)
{
    void* p = orbs3_slab_alloc_locked(pool, size);
    if (p == nullptr) {
        orbs3_ssl_expire_sessions(cache, pool, 0);
        p = orbs3_slab_alloc_locked(pool, size);
    }
    return p;
}

}  // namespace

int orbs3_openssl_shm_init(orbs3_cycle_t* /*cycle*/)
{
    // One zone for the worker's life: a reload must not swap it under connections that still use it.
    if (g_zone != nullptr)
        return 0;
    if (sysconfig.ssl_shm_zone_size <= 0)
        return -1;
    orbs3_shm_zone_t* zone = nullptr;
    if (orbs3_http_create_shm_zone(&zone, static_cast<uint64_t>(sysconfig.ssl_shm_zone_size)) != 0) {
        ipd_log(LOG_ERR, "the ssl session cache zone of %d bytes could not be mapped", sysconfig.ssl_shm_zone_size);
        return -1;
    }
    orbs3_slab_pool_t* pool = nullptr;
    if (orbs3_init_zone_pool(zone->shm.addr, &pool, zone->shm.size) != 0) {
        ipd_log(LOG_ERR, "the ssl session cache zone of %d bytes holds no slab", sysconfig.ssl_shm_zone_size);
        orbs3_http_free_shm_zone(zone);
        return -1;
    }
    // A full pool is the normal case here, handled by evicting the oldest session: no trace each time.
    pool->log_nomem = 0;
    zone->data = pool;
    g_zone = zone;
    return 0;
}

orbs3_shm_zone_t* orbs3_ssl_shm_zone()
{
    return g_zone;
}

void orbs3_openssl_exit()
{
    if (g_zone == nullptr)
        return;
    orbs3_slab_pool_t* pool = zone_pool(g_zone);
    if (pool != nullptr)
        orbs3_shmtx_destroy(&pool->mutex);
    orbs3_http_free_shm_zone(g_zone);
    g_zone = nullptr;
}

int orbs3_ssl_session_cache_name(const orbs3_service_t* svc, char* buf, std::size_t size)
{
    if (svc == nullptr || buf == nullptr)
        return -1;
    char port[16];
    auto [end, ec] = std::to_chars(port, port + sizeof(port), svc->port);
    if (ec != std::errc())
        return -1;
    return neo_join(buf, size, {"HTTP ", orbs3_str_view(svc->ipaddr), ":", std::string_view(port, end - port)})
               ? 0
               : -1;
}

int orbs3_ssl_session_cache(orbs3_ssl_t* ssl, const char* name, int mode, orbs3_shm_zone_t* zone, long timeout)
{
    if (ssl == nullptr || ssl->ctx == nullptr || name == nullptr)
        return -1;
    SSL_CTX* ctx = ssl->ctx;
    SSL_CTX_set_timeout(ctx, timeout);
    if (orbs3_ssl_session_id_context(ssl, name) != 0)
        return -1;

    if (mode == ORBS3_SSL_SCACHE_OFF) {
        SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_OFF);
        return 0;
    }
    if (mode == ORBS3_SSL_SCACHE_NONE) {
        // Nothing is stored, but a session id is still sent: some clients refuse a server without one.
        SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_SERVER | SSL_SESS_CACHE_NO_AUTO_CLEAR |
                                                SSL_SESS_CACHE_NO_INTERNAL_STORE);
        SSL_CTX_sess_set_cache_size(ctx, 1);
    } else if (mode == ORBS3_SSL_SCACHE_SHARED && zone != nullptr) {
        SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_SERVER | SSL_SESS_CACHE_NO_INTERNAL);
    } else {
        SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_SERVER);
        if (mode >= 0)
            SSL_CTX_sess_set_cache_size(ctx, mode);
    }

    if (zone != nullptr) {
        if (zone_pool(zone) == nullptr)
            return -1;
        SSL_CTX_sess_set_new_cb(ctx, orbs3_ssl_new_session);
        SSL_CTX_sess_set_get_cb(ctx, orbs3_ssl_get_cached_session);
        SSL_CTX_sess_set_remove_cb(ctx, orbs3_ssl_remove_session);
        // One TLS 1.3 session a handshake rather than OpenSSL's two: a client resumes one, and the zone
        // holds twice as many clients.
        SSL_CTX_set_num_tickets(ctx, 1);
        if (SSL_CTX_set_ex_data(ctx, orbs3_ssl_session_cache_index, zone) == 0) {
            ipd_log(LOG_ERR, "SSL_CTX_set_ex_data() failed");
            return -1;
        }
    }
    return 0;
}

int orbs3_ssl_session_cache_init(orbs3_shm_zone_t* zone, orbs3_ssl_session_cache_t* old)
{
    orbs3_slab_pool_t* pool = zone_pool(zone);
    if (pool == nullptr)
        return -1;
    // Epoll threads may be serving sessions from this zone while a reload builds a new context.
    orbs3_shmtx_guard lock(&pool->mutex);
    if (old != nullptr) {
        pool->data = old;
        return 0;
    }
    if (pool->data != nullptr)
        return 0;  // the worker's zone outlives a context: keep its sessions
    void* root = orbs3_slab_alloc_locked(pool, sizeof(orbs3_ssl_session_cache_t));
    auto* cache = static_cast<orbs3_ssl_session_cache_t*>(root);
    if (cache == nullptr)
        return -1;
    neo_rbtree_init(&cache->tree, &cache->sentinel, orbs3_ssl_session_rbtree_insert_value);
    INIT_LIST_HEAD(&cache->queue);
    pool->data = cache;
    return 0;
}

int orbs3_ssl_session_id_context(orbs3_ssl_t* ssl, const char* name)
{
    SSL_CTX* ctx = ssl->ctx;
    md_ctx_ptr md(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (md == nullptr || EVP_DigestInit_ex(md.get(), EVP_sha1(), nullptr) == 0) {
        ipd_log(LOG_ERR, "EVP_DigestInit_ex() failed");
        return -1;
    }
    if (EVP_DigestUpdate(md.get(), name, std::strlen(name)) == 0) {
        ipd_log(LOG_ERR, "EVP_DigestUpdate() failed");
        return -1;
    }

    unsigned char buf[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    auto* cert = static_cast<X509*>(SSL_CTX_get_ex_data(ctx, orbs3_ssl_certificate_index));
    for (; cert != nullptr; cert = static_cast<X509*>(X509_get_ex_data(cert, orbs3_ssl_next_certificate_index))) {
        if (X509_digest(cert, EVP_sha1(), buf, &len) == 0) {
            ipd_log(LOG_ERR, "X509_digest() failed");
            return -1;
        }
        if (EVP_DigestUpdate(md.get(), buf, len) == 0) {
            ipd_log(LOG_ERR, "EVP_DigestUpdate() failed");
            return -1;
        }
    }

    STACK_OF(X509_NAME)* list = SSL_CTX_get_client_CA_list(ctx);
    for (int i = 0; list != nullptr && i < sk_X509_NAME_num(list); i++) {
        if (X509_NAME_digest(sk_X509_NAME_value(list, i), EVP_sha1(), buf, &len) == 0) {
            ipd_log(LOG_ERR, "X509_NAME_digest() failed");
            return -1;
        }
        if (EVP_DigestUpdate(md.get(), buf, len) == 0) {
            ipd_log(LOG_ERR, "EVP_DigestUpdate() failed");
            return -1;
        }
    }

    if (EVP_DigestFinal_ex(md.get(), buf, &len) == 0) {
        ipd_log(LOG_ERR, "EVP_DigestFinal_ex() failed");
        return -1;
    }
    if (SSL_CTX_set_session_id_context(ctx, buf, len) == 0) {
        ipd_log(LOG_ERR, "SSL_CTX_set_session_id_context() failed");
        return -1;
    }
    return 0;
}

int orbs3_ssl_new_session(SSL* ssl, SSL_SESSION* session)
{
    // Always 0: the library keeps no reference for this cache.
    SSL_CTX* ctx = SSL_get_SSL_CTX(ssl);
    orbs3_slab_pool_t* pool = zone_pool(ctx_zone(ctx));
    if (pool == nullptr || session == nullptr)
        return 0;

    int der_len = i2d_SSL_SESSION(session, nullptr);
    if (der_len <= 0 || static_cast<std::size_t>(der_len) > ORBS3_SSL_MAX_SESSION_SIZE)
        return 0;
    // Serialised ahead of the lock: the time under it stays short.
    uint8_t der[ORBS3_SSL_MAX_SESSION_SIZE];
    uint8_t* p = der;
    if (i2d_SSL_SESSION(session, &p) != der_len)
        return 0;
    unsigned int id_len = 0;
    const unsigned char* id = SSL_SESSION_get_id(session, &id_len);
    if (id_len == 0 || id_len > SSL_MAX_SSL_SESSION_ID_LENGTH)
        return 0;
    uint64_t expire = now_sec() + static_cast<uint64_t>(SSL_CTX_get_timeout(ctx));

    orbs3_shmtx_guard lock(&pool->mutex);
    auto* cache = static_cast<orbs3_ssl_session_cache_t*>(pool->data);
    if (cache == nullptr)
        return 0;
    orbs3_ssl_expire_sessions(cache, pool, 1);

    auto* copy = static_cast<uint8_t*>(alloc_evicting(cache, pool, static_cast<std::size_t>(der_len)));
    auto* sess = copy == nullptr ? nullptr
                                 : static_cast<orbs3_ssl_cached_session_t*>(
                                       alloc_evicting(cache, pool, sizeof(orbs3_ssl_cached_session_t)));
    auto* sid = sess == nullptr ? nullptr : static_cast<uint8_t*>(alloc_evicting(cache, pool, id_len));
    if (sid == nullptr) {
        if (sess != nullptr)
            orbs3_slab_free_locked(pool, sess);
        if (copy != nullptr)
            orbs3_slab_free_locked(pool, copy);
        return 0;
    }

    std::memcpy(copy, der, static_cast<std::size_t>(der_len));
    std::memcpy(sid, id, id_len);
    sess->node.key = orbs3_crc32_short(id, id_len);
    sess->node.data = static_cast<uint8_t>(id_len);
    sess->id = sid;
    sess->session_len = static_cast<uint64_t>(der_len);
    sess->session = copy;
    sess->expire = expire;
    list_add_tail(&sess->queue, &cache->queue);
    neo_rbtree_insert(&cache->tree, &sess->node);
    return 0;
}

SSL_SESSION* orbs3_ssl_get_cached_session(SSL* ssl, const unsigned char* id, int len, int* copy)
{
    // The session handed back is a new one that the library owns: no extra reference.
    *copy = 0;
    orbs3_slab_pool_t* pool = zone_pool(ctx_zone(SSL_get_SSL_CTX(ssl)));
    if (pool == nullptr || id == nullptr || len <= 0 || len > SSL_MAX_SSL_SESSION_ID_LENGTH)
        return nullptr;
    uint32_t hash = orbs3_crc32_short(id, static_cast<std::size_t>(len));

    uint8_t der[ORBS3_SSL_MAX_SESSION_SIZE];
    std::size_t der_len = 0;
    {
        orbs3_shmtx_guard lock(&pool->mutex);
        auto* cache = static_cast<orbs3_ssl_session_cache_t*>(pool->data);
        if (cache == nullptr)
            return nullptr;
        orbs3_ssl_cached_session_t* sess = find_locked(cache, hash, id, static_cast<std::size_t>(len));
        if (sess == nullptr)
            return nullptr;
        if (sess->expire <= now_sec() || sess->session_len > sizeof(der)) {
            drop_locked(cache, pool, sess);
            return nullptr;
        }
        der_len = sess->session_len;
        std::memcpy(der, sess->session, der_len);
    }
    // Parsed behind the lock, from the local copy.
    const uint8_t* p = der;
    return d2i_SSL_SESSION(nullptr, &p, static_cast<long>(der_len));
}

void orbs3_ssl_remove_session(SSL_CTX* ctx, SSL_SESSION* session)
{
    orbs3_slab_pool_t* pool = zone_pool(ctx_zone(ctx));
    if (pool == nullptr || session == nullptr)
        return;
    unsigned int len = 0;
    const unsigned char* id = SSL_SESSION_get_id(session, &len);
    if (len == 0 || len > SSL_MAX_SSL_SESSION_ID_LENGTH)
        return;
    uint32_t hash = orbs3_crc32_short(id, len);

    orbs3_shmtx_guard lock(&pool->mutex);
    auto* cache = static_cast<orbs3_ssl_session_cache_t*>(pool->data);
    if (cache == nullptr)
        return;
    orbs3_ssl_cached_session_t* sess = find_locked(cache, hash, id, len);
    if (sess != nullptr)
        drop_locked(cache, pool, sess);
}

void orbs3_ssl_remove_cached_session(SSL_CTX* ctx, SSL_SESSION* session)
{
    SSL_CTX_remove_session(ctx, session);
    orbs3_ssl_remove_session(ctx, session);
}

void orbs3_ssl_expire_sessions(orbs3_ssl_session_cache_t* cache, orbs3_slab_pool_t* pool, uint32_t n)
{
    uint64_t now = now_sec();
    while (n < 3) {
        if (list_empty(&cache->queue))
            return;
        orbs3_ssl_cached_session_t* sess = list_entry(cache->queue.next, orbs3_ssl_cached_session_t, queue);
        // With n = 0 the first round makes room whatever the head's expiry.
        if (n++ != 0 && sess->expire > now)
            return;
        drop_locked(cache, pool, sess);
    }
}

void orbs3_ssl_session_rbtree_insert_value(neo_rbtree_node_t* temp, neo_rbtree_node_t* node,
                                           neo_rbtree_node_t* sentinel)
{
    for (;;) {
        neo_rbtree_node_t** p;
        if (node->key < temp->key) {
            p = &temp->left;
        } else if (node->key > temp->key) {
            p = &temp->right;
        } else {
            auto* a = reinterpret_cast<orbs3_ssl_cached_session_t*>(node);
            auto* b = reinterpret_cast<orbs3_ssl_cached_session_t*>(temp);
            p = orbs3_memn2cmp(a->id, b->id, node->data, temp->data) < 0 ? &temp->left : &temp->right;
        }
        if (*p == sentinel) {
            *p = node;
            break;
        }
        temp = *p;
    }
    node->parent = temp;
    node->left = sentinel;
    node->right = sentinel;
    node->color = 1;
}

int orbs3_ssl_set_session(SSL* ssl, SSL_SESSION* session)
{
    if (session == nullptr)
        return 0;
    if (SSL_set_session(ssl, session) == 0) {
        ipd_log(LOG_ERR, "SSL_set_session() failed");
        return -1;
    }
    return 0;
}
