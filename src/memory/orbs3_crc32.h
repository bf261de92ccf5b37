// CRC-32 of IEEE 802.3 (reflected polynomial 0xedb88320), as zlib and Ethernet compute it.
#pragma once

#include <cstddef>
#include <cstdint>

// Short keys (session ids): a 16-entry table, low nibble then high nibble of each byte. The table fits
// one cache line, so a lookup of a short key touches no more memory than the key itself.
[[nodiscard]] uint32_t orbs3_crc32_short(const void* data, std::size_t len);
// Longer data: one step per byte with the 256-entry table.
[[nodiscard]] uint32_t orbs3_crc32_long(const void* data, std::size_t len);

// A running value: init, any number of updates, final. The result equals orbs3_crc32_long over the
// concatenated bytes.
inline void orbs3_crc32_init(uint32_t* crc)
{
    *crc = 0xffffffff;
}
void orbs3_crc32_update(uint32_t* crc, const void* data, std::size_t len);
inline void orbs3_crc32_final(uint32_t* crc)
{
    *crc ^= 0xffffffff;
}

// 0 when the short table lies on a 64-byte boundary. It is placed there when the program is built, so
// nothing is copied at run time; -1 would mean the toolchain ignored the alignment.
[[nodiscard]] int orbs3_crc32_table_init();
