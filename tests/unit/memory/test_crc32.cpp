#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "memory/orbs3_crc32.h"

TEST(Crc32, KnownValuesForBothTables)
{
    struct row {
        const char* text;
        uint32_t want;
    };
    const row rows[] = {
        {"", 0x00000000},
        {"a", 0xe8b7be43},
        {"123456789", 0xcbf43926},
        {"The quick brown fox jumps over the lazy dog", 0x414fa339},
    };
    for (const row& r : rows) {
        EXPECT_EQ(orbs3_crc32_short(r.text, std::strlen(r.text)), r.want) << r.text;
        EXPECT_EQ(orbs3_crc32_long(r.text, std::strlen(r.text)), r.want) << r.text;
    }
}

TEST(Crc32, ShortAndLongAgreeOnEveryLengthAndByte)
{
    std::vector<uint8_t> data(300);
    std::mt19937 rng(7);
    for (auto& b : data)
        b = static_cast<uint8_t>(rng());
    for (std::size_t len = 0; len <= data.size(); len++)
        ASSERT_EQ(orbs3_crc32_short(data.data(), len), orbs3_crc32_long(data.data(), len)) << len;

    // Every single byte value, so every entry of both tables is used.
    for (unsigned b = 0; b < 256; b++) {
        uint8_t byte = static_cast<uint8_t>(b);
        ASSERT_EQ(orbs3_crc32_short(&byte, 1), orbs3_crc32_long(&byte, 1)) << b;
    }
}

TEST(Crc32, RunningValueOverSplitInputEqualsWhole)
{
    const char text[] = "The quick brown fox jumps over the lazy dog";
    const std::size_t len = sizeof(text) - 1;
    const uint32_t whole = orbs3_crc32_long(text, len);

    for (std::size_t cut = 0; cut <= len; cut++) {
        uint32_t crc;
        orbs3_crc32_init(&crc);
        orbs3_crc32_update(&crc, text, cut);
        orbs3_crc32_update(&crc, text + cut, len - cut);
        orbs3_crc32_final(&crc);
        EXPECT_EQ(crc, whole) << "cut at " << cut;
    }

    uint32_t crc;
    orbs3_crc32_init(&crc);
    for (std::size_t i = 0; i < len; i++)
        orbs3_crc32_update(&crc, text + i, 1);
    orbs3_crc32_final(&crc);
    EXPECT_EQ(crc, whole);
}

TEST(Crc32, ShortTableLiesOnACacheLine)
{
    EXPECT_EQ(orbs3_crc32_table_init(), 0);
}
