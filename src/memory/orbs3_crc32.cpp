#include "memory/orbs3_crc32.h"

#include <array>

static constexpr uint32_t crc32_poly = 0xedb88320;

// Entry i is the register after shifting the `bits` low bits of i through the polynomial.
template <std::size_t N, unsigned bits>
static constexpr std::array<uint32_t, N> crc32_make_table()
{
    std::array<uint32_t, N> t{};
    for (uint32_t i = 0; i < N; i++) {
        uint32_t c = i;
        for (unsigned k = 0; k < bits; k++)
            c = (c & 1) ? (c >> 1) ^ crc32_poly : (c >> 1);
        t[i] = c;
    }
    return t;
}

alignas(64) static constexpr std::array<uint32_t, 16> crc32_table16 = crc32_make_table<16, 4>();
alignas(64) static constexpr std::array<uint32_t, 256> crc32_table256 = crc32_make_table<256, 8>();

static_assert(crc32_table16[1] == 0x1db71064 && crc32_table16[15] == 0xbdbdf21c);
static_assert(crc32_table256[1] == 0x77073096 && crc32_table256[255] == 0x2d02ef8d);

uint32_t orbs3_crc32_short(const void* data, std::size_t len)
{
    const auto* p = static_cast<const uint8_t*>(data);
    uint32_t crc = 0xffffffff;
    while (len--) {
        uint32_t c = *p++;
        crc = crc32_table16[(crc ^ (c & 0xf)) & 0xf] ^ (crc >> 4);
        crc = crc32_table16[(crc ^ (c >> 4)) & 0xf] ^ (crc >> 4);
    }
    return crc ^ 0xffffffff;
}

void orbs3_crc32_update(uint32_t* crc, const void* data, std::size_t len)
{
    const auto* p = static_cast<const uint8_t*>(data);
    uint32_t c = *crc;
    while (len--)
        c = crc32_table256[(c ^ *p++) & 0xff] ^ (c >> 8);
    *crc = c;
}

uint32_t orbs3_crc32_long(const void* data, std::size_t len)
{
    uint32_t crc;
    orbs3_crc32_init(&crc);
    orbs3_crc32_update(&crc, data, len);
    orbs3_crc32_final(&crc);
    return crc;
}

int orbs3_crc32_table_init()
{
    return (reinterpret_cast<std::uintptr_t>(crc32_table16.data()) % 64 == 0) ? 0 : -1;
}
