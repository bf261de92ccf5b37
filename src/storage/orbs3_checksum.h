// The additional checksums a client may send with an object (x-amz-checksum-*): CRC32, CRC32C, SHA1 and
// SHA256, computed as the body streams through, and given back in the form the headers carry.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "memory/neo_md5.h"

enum class orbs3_checksum_alg { none, crc32, crc32c, sha1, sha256 };

// Base64 of a SHA256 digest, the longest value; a buffer of ORBS3_CHECKSUM_BASE64_MAX + 1 holds any.
inline constexpr std::size_t ORBS3_CHECKSUM_BASE64_MAX = 44;

// The algorithm of a header name such as "x-amz-checksum-crc32c" (any case); none for any other name,
// x-amz-checksum-algorithm and x-amz-checksum-type included.
[[nodiscard]] orbs3_checksum_alg orbs3_checksum_alg_of_header(std::string_view name);
// The algorithm of a word as x-amz-sdk-checksum-algorithm and x-amz-checksum-algorithm carry it:
// "CRC32", "CRC32C", "SHA1", "SHA256" (any case); none when unknown.
[[nodiscard]] orbs3_checksum_alg orbs3_checksum_alg_of_word(std::string_view word);
// "x-amz-checksum-crc32" and so on, lower case as a reply writes it; empty for none.
[[nodiscard]] std::string_view orbs3_checksum_header_name(orbs3_checksum_alg alg);

// CRC32C (Castagnoli) as S3 computes it: reflected, initial and final value 0xffffffff. The running
// form takes and returns the finished value, so orbs3_crc32c(b, n2, orbs3_crc32c(a, n1, 0)) is the CRC32C of
// a followed by b.
[[nodiscard]] uint32_t orbs3_crc32c(const void* data, std::size_t len, uint32_t crc);

// A running checksum of one algorithm. The CRC lives in the record; a digest keeps its state in an
// EVP context, created by the first init and kept across re-inits. Movable, not copyable; a record in a
// pool must be made with pool_new so the context is freed.
struct orbs3_checksum_t {
    orbs3_checksum_alg alg = orbs3_checksum_alg::none;
    uint32_t crc = 0;
    evp_md_ctx_ptr md;
    // Initialised, not yet finished, and no update failed: final refuses otherwise, so a lost update
    // shows as an error instead of a wrong value.
    bool ready = false;
};

// Starts (or restarts) a checksum. 0, or -1 for none or when the digest context cannot be had.
[[nodiscard]] int orbs3_checksum_init(orbs3_checksum_t* ck, orbs3_checksum_alg alg);
// Feeds bytes; a failure is remembered and makes final give 0.
void orbs3_checksum_update(orbs3_checksum_t* ck, const void* data, std::size_t len);
// The value as S3 sends it: base64 of the big-endian CRC (4 bytes) or of the digest, NUL-terminated.
// Returns its length, or 0 when the checksum is not ready or `room` is too small. The checksum must be
// initialised again before reuse.
[[nodiscard]] std::size_t orbs3_checksum_final_base64(orbs3_checksum_t* ck, char* out, std::size_t room);
