// MD5 of RFC 1321 (ETags, Content-MD5) over OpenSSL's digest interface.
#pragma once

#include <openssl/ossl_typ.h>

#include <cstddef>
#include <cstdint>
#include <memory>

// Owner of an EVP_MD_CTX; any digest (MD5 here, SHA-256 and HMAC elsewhere) keeps its state in one.
struct evp_md_ctx_deleter {
    void operator()(EVP_MD_CTX* ctx) const noexcept;
};
using evp_md_ctx_ptr = std::unique_ptr<EVP_MD_CTX, evp_md_ctx_deleter>;

// A null pointer when memory runs out.
[[nodiscard]] evp_md_ctx_ptr evp_md_ctx_new();

inline constexpr std::size_t NEO_MD5_LEN = 16;

// Holds its digest state for life: freed when the record goes, whether or not neo_md5_final ran.
// Movable, not copyable. A record that lives in a pool must be made with pool_new so its destructor runs.
struct neo_md5_t {
    evp_md_ctx_ptr ctx;
    // Initialised, not yet finished, and no update failed: otherwise update and final give -1, so a
    // lost update shows as an error instead of a wrong digest.
    bool ready = false;
};

// Starts (or restarts) a digest. 0 or -1.
[[nodiscard]] int neo_md5_init(neo_md5_t* md5);
// 0 or -1; a failure is remembered, and neo_md5_final then gives -1 too.
int neo_md5_update(neo_md5_t* md5, const void* data, std::size_t len);
// Writes the 16-byte digest; the context must be initialised again before reuse. 0 or -1.
[[nodiscard]] int neo_md5_final(uint8_t result[NEO_MD5_LEN], neo_md5_t* md5);
