#include "storage/orbs3_checksum.h"

#include <openssl/evp.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "http/orbs3_http_header.h"
#include "memory/orbs3_crc32.h"

namespace {

struct alg_row {
    orbs3_checksum_alg alg;
    std::string_view header;
    std::string_view word;
    std::string_view upper;
};

constexpr alg_row kAlgs[] = {
    {orbs3_checksum_alg::crc32, "x-amz-checksum-crc32", "crc32", "CRC32"},
    {orbs3_checksum_alg::crc32c, "x-amz-checksum-crc32c", "crc32c", "CRC32C"},
    {orbs3_checksum_alg::crc64nvme, "x-amz-checksum-crc64nvme", "crc64nvme", "CRC64NVME"},
    {orbs3_checksum_alg::sha1, "x-amz-checksum-sha1", "sha1", "SHA1"},
    {orbs3_checksum_alg::sha256, "x-amz-checksum-sha256", "sha256", "SHA256"},
};

// `lower` is all lower case already.
bool equal_fold(std::string_view s, std::string_view lower)
{
    if (s.size() != lower.size())
        return false;
    for (std::size_t i = 0; i < s.size(); i++) {
        char c = s[i];
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
        if (c != lower[i])
            return false;
    }
    return true;
}

// Slicing by 8: table k advances a byte through k further zero bytes, so eight table lookups consume
// eight input bytes with no dependency between them. For the 64-bit CRC eight bytes fill the whole
// register at each step.
constexpr uint32_t crc32c_poly = 0x82f63b78;
constexpr uint64_t crc64nvme_poly = 0x9a6c9329ac4bc9b5;

template <typename T>
using slice_tables = std::array<std::array<T, 256>, 8>;

template <typename T>
constexpr slice_tables<T> make_slice_tables(T reflected_poly)
{
    slice_tables<T> t{};
    for (T i = 0; i < 256; i++) {
        T c = i;
        for (int k = 0; k < 8; k++)
            c = (c & 1) ? (c >> 1) ^ reflected_poly : (c >> 1);
        t[0][i] = c;
    }
    for (std::size_t k = 1; k < 8; k++)
        for (std::size_t i = 0; i < 256; i++)
            t[k][i] = (t[k - 1][i] >> 8) ^ t[0][t[k - 1][i] & 0xff];
    return t;
}

using crc32c_tables = slice_tables<uint32_t>;
using crc64_tables = slice_tables<uint64_t>;
alignas(64) constexpr crc32c_tables crc32c_table = make_slice_tables<uint32_t>(crc32c_poly);
static_assert(crc32c_table[0][1] == 0xf26b8303 && crc32c_table[0][255] == 0xad7d5351);
alignas(64) constexpr crc64_tables crc64_table = make_slice_tables<uint64_t>(crc64nvme_poly);

uint64_t load64le(const uint8_t* p)
{
    uint64_t v = 0;
    for (int i = 7; i >= 0; i--)
        v = v << 8 | p[i];
    return v;
}

uint32_t load32le(const uint8_t* p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

// Raw length of a value.
std::size_t raw_size(orbs3_checksum_alg alg)
{
    switch (alg) {
    case orbs3_checksum_alg::crc32:
    case orbs3_checksum_alg::crc32c:
        return 4;
    case orbs3_checksum_alg::crc64nvme:
        return 8;
    case orbs3_checksum_alg::sha1:
        return 20;
    case orbs3_checksum_alg::sha256:
        return 32;
    default:
        return 0;
    }
}

// A CRC register as the header carries it: most significant byte first.
std::size_t put_crc(uint64_t v, std::size_t bytes, uint8_t* out)
{
    for (std::size_t i = 0; i < bytes; i++)
        out[i] = static_cast<uint8_t>(v >> (8 * (bytes - 1 - i)));
    return bytes;
}

uint64_t get_crc(const uint8_t* in, std::size_t bytes)
{
    uint64_t v = 0;
    for (std::size_t i = 0; i < bytes; i++)
        v = v << 8 | in[i];
    return v;
}

// Polynomial arithmetic modulo a reflected CRC polynomial of `width` bits: the top bit is x^0.
struct crc_field {
    uint64_t poly;
    int width;

    uint64_t one() const { return uint64_t{1} << (width - 1); }
    uint64_t mult(uint64_t a, uint64_t b) const
    {
        uint64_t p = 0;
        for (uint64_t m = one(); m != 0 && a != 0; m >>= 1) {
            if (a & m) {
                p ^= b;
                a ^= m;
            }
            b = (b & 1) ? (b >> 1) ^ poly : b >> 1;
        }
        return p;
    }
    // x^(8 * bytes): squaring x^8 for each bit of the count.
    uint64_t x_pow_bytes(uint64_t bytes) const
    {
        uint64_t p = one();
        uint64_t sq = one() >> 8;  // x^8
        for (; bytes != 0; bytes >>= 1) {
            if (bytes & 1)
                p = mult(sq, p);
            sq = mult(sq, sq);
        }
        return p;
    }
};

bool field_of(orbs3_checksum_alg alg, crc_field* f)
{
    switch (alg) {
    case orbs3_checksum_alg::crc32:
        *f = {0xedb88320, 32};
        return true;
    case orbs3_checksum_alg::crc32c:
        *f = {crc32c_poly, 32};
        return true;
    case orbs3_checksum_alg::crc64nvme:
        *f = {crc64nvme_poly, 64};
        return true;
    default:
        return false;
    }
}

const EVP_MD* digest_of(orbs3_checksum_alg alg)
{
    switch (alg) {
    case orbs3_checksum_alg::sha1:
        return EVP_sha1();
    case orbs3_checksum_alg::sha256:
        return EVP_sha256();
    default:
        return nullptr;
    }
}

}  // namespace

orbs3_checksum_alg orbs3_checksum_alg_of_header(std::string_view name)
{
    for (const alg_row& row : kAlgs)
        if (equal_fold(name, row.header))
            return row.alg;
    return orbs3_checksum_alg::none;
}

orbs3_checksum_alg orbs3_checksum_alg_of_word(std::string_view word)
{
    for (const alg_row& row : kAlgs)
        if (equal_fold(word, row.word))
            return row.alg;
    return orbs3_checksum_alg::none;
}

std::string_view orbs3_checksum_word(orbs3_checksum_alg alg)
{
    for (const alg_row& row : kAlgs)
        if (row.alg == alg)
            return row.upper;
    return {};
}

const char* orbs3_checksum_mismatch_message(orbs3_checksum_alg alg)
{
    switch (alg) {
    case orbs3_checksum_alg::crc32:
        return "The CRC32 you specified did not match the calculated checksum.";
    case orbs3_checksum_alg::crc32c:
        return "The CRC32C you specified did not match the calculated checksum.";
    case orbs3_checksum_alg::crc64nvme:
        return "The CRC64NVME you specified did not match the calculated checksum.";
    case orbs3_checksum_alg::sha1:
        return "The SHA1 you specified did not match the calculated checksum.";
    case orbs3_checksum_alg::sha256:
        return "The SHA256 you specified did not match the calculated checksum.";
    default:
        return nullptr;
    }
}

bool orbs3_checksum_is_crc(orbs3_checksum_alg alg)
{
    crc_field f{};
    return field_of(alg, &f);
}

std::string_view orbs3_checksum_header_name(orbs3_checksum_alg alg)
{
    for (const alg_row& row : kAlgs)
        if (row.alg == alg)
            return row.header;
    return {};
}

uint32_t orbs3_crc32c(const void* data, std::size_t len, uint32_t crc)
{
    const auto* p = static_cast<const uint8_t*>(data);
    const crc32c_tables& t = crc32c_table;
    crc = ~crc;
    for (; len >= 8; p += 8, len -= 8) {
        uint32_t lo = crc ^ load32le(p);
        uint32_t hi = load32le(p + 4);
        crc = t[7][lo & 0xff] ^ t[6][(lo >> 8) & 0xff] ^ t[5][(lo >> 16) & 0xff] ^ t[4][lo >> 24] ^
              t[3][hi & 0xff] ^ t[2][(hi >> 8) & 0xff] ^ t[1][(hi >> 16) & 0xff] ^ t[0][hi >> 24];
    }
    for (; len > 0; p++, len--)
        crc = (crc >> 8) ^ t[0][(crc ^ *p) & 0xff];
    return ~crc;
}

uint64_t orbs3_crc64nvme(const void* data, std::size_t len, uint64_t crc)
{
    const auto* p = static_cast<const uint8_t*>(data);
    const crc64_tables& t = crc64_table;
    crc = ~crc;
    for (; len >= 8; p += 8, len -= 8) {
        const uint64_t c = crc ^ load64le(p);
        crc = t[7][c & 0xff] ^ t[6][(c >> 8) & 0xff] ^ t[5][(c >> 16) & 0xff] ^ t[4][(c >> 24) & 0xff] ^
              t[3][(c >> 32) & 0xff] ^ t[2][(c >> 40) & 0xff] ^ t[1][(c >> 48) & 0xff] ^ t[0][c >> 56];
    }
    for (; len > 0; p++, len--)
        crc = (crc >> 8) ^ t[0][(crc ^ *p) & 0xff];
    return ~crc;
}

uint64_t orbs3_crc_combine(orbs3_checksum_alg alg, uint64_t crc_a, uint64_t crc_b, uint64_t len_b)
{
    crc_field f{};
    if (!field_of(alg, &f))
        return 0;
    return f.mult(f.x_pow_bytes(len_b), crc_a) ^ crc_b;
}

std::size_t orbs3_checksum_decode(orbs3_checksum_alg alg, std::string_view text, uint8_t out[ORBS3_CHECKSUM_RAW_MAX])
{
    const std::size_t n = raw_size(alg);
    if (n == 0 || text.size() != 4 * ((n + 2) / 3))
        return 0;
    uint8_t buf[ORBS3_CHECKSUM_RAW_MAX + 3];
    if (EVP_DecodeBlock(buf, reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size())) < 0)
        return 0;
    // Only the one spelling of these bytes: padding, unused bits and alphabet as the encoder writes them.
    char again[ORBS3_CHECKSUM_BASE64_MAX + 1];
    if (orbs3_http_base64(buf, n, again, sizeof again) != text.size() || text != again)
        return 0;
    std::memcpy(out, buf, n);
    return n;
}

int orbs3_checksum_init(orbs3_checksum_t* ck, orbs3_checksum_alg alg)
{
    ck->ready = false;
    ck->alg = alg;
    switch (alg) {
    case orbs3_checksum_alg::crc32:
        orbs3_crc32_init(&ck->crc);
        break;
    case orbs3_checksum_alg::crc32c:
        ck->crc = 0;
        break;
    case orbs3_checksum_alg::crc64nvme:
        ck->crc64 = 0;
        break;
    case orbs3_checksum_alg::sha1:
    case orbs3_checksum_alg::sha256:
        if (!ck->md) {
            ck->md = evp_md_ctx_new();
            if (!ck->md)
                return -1;
        }
        if (EVP_DigestInit_ex(ck->md.get(), digest_of(alg), nullptr) != 1)
            return -1;
        break;
    default:
        return -1;
    }
    ck->ready = true;
    return 0;
}

void orbs3_checksum_update(orbs3_checksum_t* ck, const void* data, std::size_t len)
{
    if (!ck->ready || len == 0)
        return;
    switch (ck->alg) {
    case orbs3_checksum_alg::crc32:
        orbs3_crc32_update(&ck->crc, data, len);
        break;
    case orbs3_checksum_alg::crc32c:
        ck->crc = orbs3_crc32c(data, len, ck->crc);
        break;
    case orbs3_checksum_alg::crc64nvme:
        ck->crc64 = orbs3_crc64nvme(data, len, ck->crc64);
        break;
    default:
        // A moved-from record has no context.
        if (!ck->md || EVP_DigestUpdate(ck->md.get(), data, len) != 1)
            ck->ready = false;
        break;
    }
}

std::size_t orbs3_checksum_final_base64(orbs3_checksum_t* ck, char* out, std::size_t room)
{
    if (!ck->ready)
        return 0;
    ck->ready = false;
    uint8_t raw[EVP_MAX_MD_SIZE];
    std::size_t n = 0;
    switch (ck->alg) {
    case orbs3_checksum_alg::crc32:
    case orbs3_checksum_alg::crc32c: {
        uint32_t v = ck->crc;
        if (ck->alg == orbs3_checksum_alg::crc32)
            orbs3_crc32_final(&v);
        n = put_crc(v, 4, raw);
        break;
    }
    case orbs3_checksum_alg::crc64nvme:
        n = put_crc(ck->crc64, 8, raw);
        break;
    default: {
        unsigned int got = 0;
        if (!ck->md || EVP_DigestFinal_ex(ck->md.get(), raw, &got) != 1)
            return 0;
        n = got;
        break;
    }
    }
    return orbs3_http_base64(raw, n, out, room);
}

int orbs3_checksum_parts_init(orbs3_checksum_parts_t* ck, orbs3_checksum_alg alg, bool full_object)
{
    ck->ok = false;
    ck->count = 0;
    ck->crc = 0;
    ck->full_object = full_object;
    // S3 has no full-object digest, and CRC64NVME only in the full-object form.
    if (full_object != orbs3_checksum_is_crc(alg) && (full_object || alg == orbs3_checksum_alg::crc64nvme))
        return -1;
    ck->composite.alg = alg;
    if (!full_object && orbs3_checksum_init(&ck->composite, alg) != 0)
        return -1;
    ck->ok = alg != orbs3_checksum_alg::none;
    return ck->ok ? 0 : -1;
}

void orbs3_checksum_parts_add(orbs3_checksum_parts_t* ck, std::string_view part_base64, int64_t part_size)
{
    uint8_t raw[ORBS3_CHECKSUM_RAW_MAX];
    const std::size_t n = ck->ok ? orbs3_checksum_decode(ck->composite.alg, part_base64, raw) : 0;
    if (n == 0 || part_size < 0) {
        ck->ok = false;
        return;
    }
    if (ck->full_object)
        ck->crc = ck->count == 0 ? get_crc(raw, n)
                                 : orbs3_crc_combine(ck->composite.alg, ck->crc, get_crc(raw, n),
                                                     static_cast<uint64_t>(part_size));
    else
        orbs3_checksum_update(&ck->composite, raw, n);
    ck->count++;
}

std::size_t orbs3_checksum_parts_final(orbs3_checksum_parts_t* ck, char* out, std::size_t room)
{
    if (!ck->ok || ck->count == 0)
        return 0;
    ck->ok = false;
    if (ck->full_object) {
        uint8_t raw[8];
        const std::size_t n = put_crc(ck->crc, raw_size(ck->composite.alg), raw);
        return orbs3_http_base64(raw, n, out, room);
    }
    std::size_t n = orbs3_checksum_final_base64(&ck->composite, out, room);
    if (n == 0)
        return 0;
    const int m = std::snprintf(out + n, room - n, "-%zu", ck->count);
    return m > 0 && static_cast<std::size_t>(m) < room - n ? n + static_cast<std::size_t>(m) : 0;
}
