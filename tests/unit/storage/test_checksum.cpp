#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "storage/orbs3_checksum.h"

namespace {

using alg = orbs3_checksum_alg;

std::string checksum_of(alg a, const std::vector<std::string>& pieces)
{
    orbs3_checksum_t ck;
    if (orbs3_checksum_init(&ck, a) != 0)
        return "init failed";
    for (const std::string& p : pieces)
        orbs3_checksum_update(&ck, p.data(), p.size());
    char out[ORBS3_CHECKSUM_BASE64_MAX + 1];
    std::size_t n = orbs3_checksum_final_base64(&ck, out, sizeof(out));
    if (n == 0 || out[n] != '\0')
        return "final failed";
    return std::string(out, n);
}

// 1000 bytes (i * 7 + 3) mod 256: long enough for the eight-byte steps, with a tail behind them.
std::string pattern()
{
    std::string d(1000, '\0');
    for (std::size_t i = 0; i < d.size(); i++)
        d[i] = static_cast<char>((i * 7 + 3) & 0xff);
    return d;
}

}  // namespace

TEST(Checksum, PublishedValuesInHeaderForm)
{
    struct row {
        alg a;
        const char* text;
        const char* want;
    };
    // CRC32 "123456789" = 0xcbf43926, CRC32C "123456789" = 0xe3069283; SHA1 and SHA256 of "abc" are the
    // FIPS 180 examples.
    const row rows[] = {
        {alg::crc32, "", "AAAAAA=="},
        {alg::crc32, "123456789", "y/Q5Jg=="},
        {alg::crc32, "hello world", "DUoRhQ=="},
        {alg::crc32c, "", "AAAAAA=="},
        {alg::crc32c, "123456789", "4waSgw=="},
        {alg::crc32c, "hello world", "yZRlqg=="},
        {alg::crc32c, "The quick brown fox jumps over the lazy dog", "ImIEBA=="},
        {alg::sha1, "", "2jmj7l5rSw0yVb/vlWAYkK/YBwk="},
        {alg::sha1, "abc", "qZk+NkcGgWq6PiVxeFDCbJzQ2J0="},
        {alg::sha256, "", "47DEQpj8HBSa+/TImW+5JCeuQeRkm5NMpJWZG3hSuFU="},
        {alg::sha256, "abc", "ungWv48Bz+pBQUDeXa4iI7ADYaOWF3qctBD/YfIAFa0="},
    };
    for (const row& r : rows)
        EXPECT_EQ(checksum_of(r.a, {r.text}), r.want) << static_cast<int>(r.a) << " '" << r.text << "'";
}

TEST(Checksum, Crc32cMatchesBitwiseValueAtEveryAlignment)
{
    EXPECT_EQ(orbs3_crc32c("123456789", 9, 0), 0xe3069283u);
    const std::string d = pattern();
    EXPECT_EQ(orbs3_crc32c(d.data(), d.size(), 0), 0xdd2edff7u);
    // The same bytes starting at each offset of an eight-byte word and each tail length.
    for (std::size_t off = 0; off < 8; off++) {
        std::vector<uint8_t> buf(d.size() + off);
        std::memcpy(buf.data() + off, d.data(), d.size());
        EXPECT_EQ(orbs3_crc32c(buf.data() + off, d.size(), 0), 0xdd2edff7u) << off;
    }
}

TEST(Checksum, PiecesGiveTheSameValueAsWhole)
{
    const std::string d = pattern();
    for (alg a : {alg::crc32, alg::crc32c, alg::sha1, alg::sha256}) {
        const std::string whole = checksum_of(a, {d});
        ASSERT_EQ(whole.size(), a == alg::sha256 ? 44u : a == alg::sha1 ? 28u : 8u);
        for (std::size_t cut : {0, 1, 7, 8, 9, 63, 64, 65, 500, 999, 1000})
            EXPECT_EQ(checksum_of(a, {d.substr(0, cut), d.substr(cut)}), whole) << static_cast<int>(a) << " " << cut;
        std::vector<std::string> bytes;
        for (char c : d.substr(0, 100))
            bytes.emplace_back(1, c);
        EXPECT_EQ(checksum_of(a, bytes), checksum_of(a, {d.substr(0, 100)})) << static_cast<int>(a);
    }
}

TEST(Checksum, FinalRefusesShortRoomAndUseWithoutInit)
{
    for (alg a : {alg::crc32, alg::crc32c, alg::sha1, alg::sha256}) {
        const std::string want = checksum_of(a, {"abc"});
        orbs3_checksum_t ck;
        char out[ORBS3_CHECKSUM_BASE64_MAX + 1];
        EXPECT_EQ(orbs3_checksum_final_base64(&ck, out, sizeof(out)), 0u);

        // Room for the text but not its NUL.
        ASSERT_EQ(orbs3_checksum_init(&ck, a), 0);
        orbs3_checksum_update(&ck, "abc", 3);
        EXPECT_EQ(orbs3_checksum_final_base64(&ck, out, want.size()), 0u);

        // Finished once, it stays finished until init: an update then cannot slip into a stale value.
        ASSERT_EQ(orbs3_checksum_init(&ck, a), 0);
        orbs3_checksum_update(&ck, "abc", 3);
        ASSERT_EQ(orbs3_checksum_final_base64(&ck, out, want.size() + 1), want.size());
        EXPECT_EQ(std::string(out), want);
        orbs3_checksum_update(&ck, "abc", 3);
        EXPECT_EQ(orbs3_checksum_final_base64(&ck, out, sizeof(out)), 0u);

        // A re-init starts afresh, whatever ran before.
        ASSERT_EQ(orbs3_checksum_init(&ck, a), 0);
        orbs3_checksum_update(&ck, "xyz", 3);
        ASSERT_EQ(orbs3_checksum_init(&ck, a), 0);
        orbs3_checksum_update(&ck, "abc", 3);
        ASSERT_EQ(orbs3_checksum_final_base64(&ck, out, sizeof(out)), want.size());
        EXPECT_EQ(std::string(out), want);
    }
    orbs3_checksum_t ck;
    EXPECT_EQ(orbs3_checksum_init(&ck, alg::none), -1);
    // One record switched between a digest and a CRC keeps giving the right algorithm's value.
    ASSERT_EQ(orbs3_checksum_init(&ck, alg::sha256), 0);
    ASSERT_EQ(orbs3_checksum_init(&ck, alg::crc32), 0);
    orbs3_checksum_update(&ck, "123456789", 9);
    char out[ORBS3_CHECKSUM_BASE64_MAX + 1];
    ASSERT_EQ(orbs3_checksum_final_base64(&ck, out, sizeof(out)), 8u);
    EXPECT_STREQ(out, "y/Q5Jg==");
}

TEST(Checksum, HeaderNamesAndWordsNameTheAlgorithm)
{
    struct row {
        const char* text;
        alg as_header;
        alg as_word;
    };
    const row rows[] = {
        {"x-amz-checksum-crc32", alg::crc32, alg::none},
        {"X-Amz-Checksum-CRC32C", alg::crc32c, alg::none},
        {"x-amz-checksum-sha1", alg::sha1, alg::none},
        {"x-amz-checksum-SHA256", alg::sha256, alg::none},
        {"x-amz-checksum-algorithm", alg::none, alg::none},
        {"x-amz-checksum-type", alg::none, alg::none},
        {"x-amz-checksum-crc64nvme", alg::none, alg::none},
        {"x-amz-checksum-crc", alg::none, alg::none},
        {"x-amz-checksum-sha2566", alg::none, alg::none},
        {"CRC32", alg::none, alg::crc32},
        {"crc32c", alg::none, alg::crc32c},
        {"Sha1", alg::none, alg::sha1},
        {"SHA256", alg::none, alg::sha256},
        {"SHA-256", alg::none, alg::none},
        {"CRC32 ", alg::none, alg::none},
        {"", alg::none, alg::none},
    };
    for (const row& r : rows) {
        EXPECT_EQ(orbs3_checksum_alg_of_header(r.text), r.as_header) << r.text;
        EXPECT_EQ(orbs3_checksum_alg_of_word(r.text), r.as_word) << r.text;
    }
    for (alg a : {alg::crc32, alg::crc32c, alg::sha1, alg::sha256})
        EXPECT_EQ(orbs3_checksum_alg_of_header(orbs3_checksum_header_name(a)), a);
    EXPECT_EQ(orbs3_checksum_header_name(alg::crc32c), "x-amz-checksum-crc32c");
    EXPECT_TRUE(orbs3_checksum_header_name(alg::none).empty());
}
