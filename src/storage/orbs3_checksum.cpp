#include "storage/orbs3_checksum.h"

#include <openssl/evp.h>

#include <array>

#include "memory/orbs3_crc32.h"
#include "s3/orbs3_s3_sign_parts.h"

namespace {

struct alg_row {
    orbs3_checksum_alg alg;
    std::string_view header;
    std::string_view word;
};

constexpr alg_row kAlgs[] = {
    {orbs3_checksum_alg::crc32, "x-amz-checksum-crc32", "crc32"},
    {orbs3_checksum_alg::crc32c, "x-amz-checksum-crc32c", "crc32c"},
    {orbs3_checksum_alg::sha1, "x-amz-checksum-sha1", "sha1"},
    {orbs3_checksum_alg::sha256, "x-amz-checksum-sha256", "sha256"},
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

constexpr uint32_t crc32c_poly = 0x82f63b78;

// Slicing by 8: table k advances a byte through k further zero bytes, so eight table lookups consume
// eight input bytes with no dependency between them.
using crc32c_tables = std::array<std::array<uint32_t, 256>, 8>;

constexpr crc32c_tables crc32c_make_tables()
{
    crc32c_tables t{};
    for (uint32_t i = 0; i < 256; i++) {
        uint32_t c = i;
        for (int k = 0; k < 8; k++)
            c = (c & 1) ? (c >> 1) ^ crc32c_poly : (c >> 1);
        t[0][i] = c;
    }
    for (std::size_t k = 1; k < 8; k++)
        for (uint32_t i = 0; i < 256; i++)
            t[k][i] = (t[k - 1][i] >> 8) ^ t[0][t[k - 1][i] & 0xff];
    return t;
}

alignas(64) constexpr crc32c_tables crc32c_table = crc32c_make_tables();
static_assert(crc32c_table[0][1] == 0xf26b8303 && crc32c_table[0][255] == 0xad7d5351);

uint32_t load32le(const uint8_t* p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
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
        // The header carries the CRC as four bytes, most significant first.
        raw[0] = static_cast<uint8_t>(v >> 24);
        raw[1] = static_cast<uint8_t>(v >> 16);
        raw[2] = static_cast<uint8_t>(v >> 8);
        raw[3] = static_cast<uint8_t>(v);
        n = 4;
        break;
    }
    default: {
        unsigned int got = 0;
        if (!ck->md || EVP_DigestFinal_ex(ck->md.get(), raw, &got) != 1)
            return 0;
        n = got;
        break;
    }
    }
    return orbs3_sign_base64(raw, n, out, room);
}
