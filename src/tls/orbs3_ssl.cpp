#include "tls/orbs3_ssl.h"

#include <openssl/crypto.h>

#include <mutex>

#include "core/orbs3_log.h"

int orbs3_ssl_connection_index = -1;
int orbs3_ssl_server_conf_index = -1;
int orbs3_ssl_session_cache_index = -1;
int orbs3_ssl_session_ticket_keys_index = -1;
int orbs3_ssl_certificate_index = -1;
int orbs3_ssl_next_certificate_index = -1;
int orbs3_ssl_certificate_name_index = -1;
int orbs3_ssl_stapling_index = -1;

namespace {

int init_once()
{
    if (OPENSSL_init_ssl(OPENSSL_INIT_LOAD_CONFIG, nullptr) == 0) {
        ipd_log(LOG_ERR, "OPENSSL_init_ssl() failed");
        return -1;
    }
    struct index_t {
        int* slot;
        int kind;
    };
    const index_t indices[] = {
        {&orbs3_ssl_connection_index, CRYPTO_EX_INDEX_SSL},
        {&orbs3_ssl_server_conf_index, CRYPTO_EX_INDEX_SSL_CTX},
        {&orbs3_ssl_session_cache_index, CRYPTO_EX_INDEX_SSL_CTX},
        {&orbs3_ssl_session_ticket_keys_index, CRYPTO_EX_INDEX_SSL_CTX},
        {&orbs3_ssl_certificate_index, CRYPTO_EX_INDEX_SSL_CTX},
        {&orbs3_ssl_next_certificate_index, CRYPTO_EX_INDEX_X509},
        {&orbs3_ssl_certificate_name_index, CRYPTO_EX_INDEX_X509},
        {&orbs3_ssl_stapling_index, CRYPTO_EX_INDEX_X509},
    };
    for (const index_t& i : indices) {
        *i.slot = CRYPTO_get_ex_new_index(i.kind, 0, nullptr, nullptr, nullptr, nullptr);
        if (*i.slot == -1) {
            ipd_log(LOG_ERR, "CRYPTO_get_ex_new_index() failed");
            return -1;
        }
    }
    return 0;
}

}  // namespace

int orbs3_ssl_init()
{
    // The indices are process-wide: a reload of the listener must not make a second set.
    static std::once_flag once;
    static int rc = -1;
    std::call_once(once, [] { rc = init_once(); });
    return rc;
}
