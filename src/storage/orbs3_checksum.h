// The additional checksums a client may send with an object (x-amz-checksum-*): CRC32, CRC32C, CRC64NVME,
// SHA1 and SHA256, computed as the body streams through, and given back in the form the headers carry.
// An object assembled from parts gets its checksum from the parts' own: the composite form (the checksum
// of the parts' raw checksums, "-<count>" behind it) or, for the CRCs, the full-object form (the parts'
// CRCs combined into the CRC of the whole, without reading the bytes again).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "memory/neo_md5.h"

enum class orbs3_checksum_alg { none, crc32, crc32c, sha1, sha256, crc64nvme };

// Base64 of a SHA256 digest, the longest value; a buffer of ORBS3_CHECKSUM_BASE64_MAX + 1 holds any.
inline constexpr std::size_t ORBS3_CHECKSUM_BASE64_MAX = 44;
// The raw value of the longest (SHA256).
inline constexpr std::size_t ORBS3_CHECKSUM_RAW_MAX = 32;
// A composite value: the longest base64, "-" and a part count up to 10000.
inline constexpr std::size_t ORBS3_CHECKSUM_TEXT_MAX = ORBS3_CHECKSUM_BASE64_MAX + 6;

// The algorithm of a header name such as "x-amz-checksum-crc32c" (any case); none for any other name,
// x-amz-checksum-algorithm and x-amz-checksum-type included.
[[nodiscard]] orbs3_checksum_alg orbs3_checksum_alg_of_header(std::string_view name);
// The algorithm of a word as x-amz-sdk-checksum-algorithm and x-amz-checksum-algorithm carry it:
// "CRC32", "CRC32C", "CRC64NVME", "SHA1", "SHA256" (any case); none when unknown.
[[nodiscard]] orbs3_checksum_alg orbs3_checksum_alg_of_word(std::string_view word);
// That word in upper case, as S3 writes it in x-amz-checksum-algorithm and records keep it; empty for none.
[[nodiscard]] std::string_view orbs3_checksum_word(orbs3_checksum_alg alg);
// S3's message for a value that does not match the bytes: "The CRC32 you specified did not match the
// calculated checksum." and so on; static text, null for none.
[[nodiscard]] const char* orbs3_checksum_mismatch_message(orbs3_checksum_alg alg);
// True for the CRCs, whose values combine over concatenated bytes.
[[nodiscard]] bool orbs3_checksum_is_crc(orbs3_checksum_alg alg);
// "x-amz-checksum-crc32" and so on, lower case as a reply writes it; empty for none.
[[nodiscard]] std::string_view orbs3_checksum_header_name(orbs3_checksum_alg alg);

// CRC32C (Castagnoli) as S3 computes it: reflected, initial and final value 0xffffffff. The running
// form takes and returns the finished value, so orbs3_crc32c(b, n2, orbs3_crc32c(a, n1, 0)) is the CRC32C of
// a followed by b.
[[nodiscard]] uint32_t orbs3_crc32c(const void* data, std::size_t len, uint32_t crc);
// CRC-64/NVME: reflected polynomial 0x9a6c9329ac4bc9b5, initial and final value all ones; the same running
// form.
[[nodiscard]] uint64_t orbs3_crc64nvme(const void* data, std::size_t len, uint64_t crc);
// The CRC of A followed by B from the finished CRCs of A and B and the length of B (zlib's crc32_combine
// for any of the three CRCs): multiplication by x^(8 * len_b) modulo the polynomial, in log(len_b) steps.
[[nodiscard]] uint64_t orbs3_crc_combine(orbs3_checksum_alg alg, uint64_t crc_a, uint64_t crc_b, uint64_t len_b);

// A header value back to its raw bytes: exactly the algorithm's length in padded base64. The length, or 0
// when the text is not such a value.
[[nodiscard]] std::size_t orbs3_checksum_decode(orbs3_checksum_alg alg, std::string_view base64,
                                                uint8_t out[ORBS3_CHECKSUM_RAW_MAX]);

// A running checksum of one algorithm. The CRC lives in the record; a digest keeps its state in an
// EVP context, created by the first init and kept across re-inits. Movable, not copyable; a record in a
// pool must be made with pool_new so the context is freed.
struct orbs3_checksum_t {
    orbs3_checksum_alg alg = orbs3_checksum_alg::none;
    uint32_t crc = 0;
    uint64_t crc64 = 0;
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

// The checksum of an object assembled from parts, fed with each part's value in order. Composite: the
// algorithm run over the parts' raw values, "-<count>" behind it. Full object (CRCs only): the parts'
// CRCs combined, with their lengths. A part value that is not one of the algorithm's makes final give 0.
struct orbs3_checksum_parts_t {
    orbs3_checksum_t composite;
    bool full_object = false;
    uint64_t crc = 0;
    std::size_t count = 0;
    bool ok = false;
};
// 0, or -1 for none, or a full object form of a digest (S3 has none).
[[nodiscard]] int orbs3_checksum_parts_init(orbs3_checksum_parts_t* ck, orbs3_checksum_alg alg, bool full_object);
void orbs3_checksum_parts_add(orbs3_checksum_parts_t* ck, std::string_view part_base64, int64_t part_size);
// The value as S3 sends it, NUL-terminated; its length, or 0 when a part was bad, none was added, or
// `room` is too small.
[[nodiscard]] std::size_t orbs3_checksum_parts_final(orbs3_checksum_parts_t* ck, char* out, std::size_t room);
