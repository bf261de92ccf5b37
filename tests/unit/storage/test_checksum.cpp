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
        // CRC-64/NVME "123456789" = 0xae8b14860a799888.
        {alg::crc64nvme, "", "AAAAAAAAAAA="},
        {alg::crc64nvme, "123456789", "rosUhgp5mIg="},
        {alg::crc64nvme, "hello world", "jSnVw/bqjr4="},
        {alg::sha1, "", "2jmj7l5rSw0yVb/vlWAYkK/YBwk="},
        {alg::sha1, "abc", "qZk+NkcGgWq6PiVxeFDCbJzQ2J0="},
        {alg::sha256, "", "47DEQpj8HBSa+/TImW+5JCeuQeRkm5NMpJWZG3hSuFU="},
        {alg::sha256, "abc", "ungWv48Bz+pBQUDeXa4iI7ADYaOWF3qctBD/YfIAFa0="},
    };
    for (const row& r : rows)
        EXPECT_EQ(checksum_of(r.a, {r.text}), r.want) << static_cast<int>(r.a) << " '" << r.text << "'";
}

TEST(Checksum, WordAtATimeCrcsMatchTheirBitwiseValueAtEveryAlignment)
{
    struct row {
        const char* name;
        uint64_t (*crc)(const void* data, std::size_t len);
        uint64_t check;    // of "123456789"
        uint64_t pattern;  // of pattern(), computed bit by bit
    };
    const row rows[] = {
        {"crc32c", [](const void* d, std::size_t n) -> uint64_t { return orbs3_crc32c(d, n, 0); }, 0xe3069283u,
         0xdd2edff7u},
        {"crc64nvme", [](const void* d, std::size_t n) -> uint64_t { return orbs3_crc64nvme(d, n, 0); },
         0xae8b14860a799888u, 0x387e868bd14debedu},
    };
    const std::string d = pattern();
    for (const row& r : rows) {
        EXPECT_EQ(r.crc("123456789", 9), r.check) << r.name;
        // The same bytes starting at each offset of an eight-byte word and each tail length.
        for (std::size_t off = 0; off < 8; off++) {
            std::vector<uint8_t> buf(d.size() + off);
            std::memcpy(buf.data() + off, d.data(), d.size());
            EXPECT_EQ(r.crc(buf.data() + off, d.size()), r.pattern) << r.name << " at offset " << off;
        }
    }
}

TEST(Checksum, PiecesGiveTheSameValueAsWhole)
{
    const std::string d = pattern();
    for (alg a : {alg::crc32, alg::crc32c, alg::crc64nvme, alg::sha1, alg::sha256}) {
        const std::string whole = checksum_of(a, {d});
        ASSERT_EQ(whole.size(), a == alg::sha256 ? 44u : a == alg::sha1 ? 28u : a == alg::crc64nvme ? 12u : 8u);
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
    for (alg a : {alg::crc32, alg::crc32c, alg::crc64nvme, alg::sha1, alg::sha256}) {
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
        {"x-amz-checksum-crc64nvme", alg::crc64nvme, alg::none},
        {"CRC64NVME", alg::none, alg::crc64nvme},
        {"crc64", alg::none, alg::none},
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
    for (alg a : {alg::crc32, alg::crc32c, alg::crc64nvme, alg::sha1, alg::sha256}) {
        EXPECT_EQ(orbs3_checksum_alg_of_header(orbs3_checksum_header_name(a)), a);
        EXPECT_EQ(orbs3_checksum_alg_of_word(orbs3_checksum_word(a)), a);
    }
    EXPECT_EQ(orbs3_checksum_word(alg::crc64nvme), "CRC64NVME");
    EXPECT_EQ(orbs3_checksum_header_name(alg::crc32c), "x-amz-checksum-crc32c");
    EXPECT_TRUE(orbs3_checksum_header_name(alg::none).empty());
}

namespace {

uint64_t crc_value(alg a, const std::string& d)
{
    switch (a) {
    case alg::crc32c:
        return orbs3_crc32c(d.data(), d.size(), 0);
    case alg::crc64nvme:
        return orbs3_crc64nvme(d.data(), d.size(), 0);
    default: {
        // The header form carries the register big-endian: read it back.
        uint8_t raw[ORBS3_CHECKSUM_RAW_MAX];
        const std::string text = checksum_of(a, {d});
        EXPECT_EQ(orbs3_checksum_decode(a, text, raw), 4u);
        return uint64_t{raw[0]} << 24 | uint64_t{raw[1]} << 16 | uint64_t{raw[2]} << 8 | raw[3];
    }
    }
}

std::string assembled(alg a, bool full, const std::string& d, const std::vector<std::size_t>& cuts)
{
    orbs3_checksum_parts_t ck;
    if (orbs3_checksum_parts_init(&ck, a, full) != 0)
        return "init refused";
    std::size_t at = 0;
    for (std::size_t cut : cuts) {
        const std::string part = d.substr(at, cut - at);
        orbs3_checksum_parts_add(&ck, checksum_of(a, {part}), static_cast<int64_t>(part.size()));
        at = cut;
    }
    char out[ORBS3_CHECKSUM_TEXT_MAX + 1];
    const std::size_t n = orbs3_checksum_parts_final(&ck, out, sizeof out);
    return n == 0 ? "final failed" : std::string(out, n);
}

}  // namespace

TEST(Checksum, CombinedCrcIsTheCrcOfTheConcatenation)
{
    const std::string d = pattern();
    for (alg a : {alg::crc32, alg::crc32c, alg::crc64nvme}) {
        for (std::size_t cut : {0, 1, 7, 8, 9, 500, 999, 1000}) {
            const std::string x = d.substr(0, cut), y = d.substr(cut);
            EXPECT_EQ(orbs3_crc_combine(a, crc_value(a, x), crc_value(a, y), y.size()), crc_value(a, d))
                << static_cast<int>(a) << " " << cut;
        }
    }
    // Parts of gigabytes: combining is associative, (A B) C = A (B C), whatever the three values are.
    for (alg a : {alg::crc32, alg::crc32c, alg::crc64nvme}) {
        const uint64_t x = crc_value(a, "abc"), y = crc_value(a, "def"), z = crc_value(a, "ghi");
        const uint64_t ly = uint64_t{3} << 30, lz = uint64_t{5} << 30;
        EXPECT_EQ(orbs3_crc_combine(a, orbs3_crc_combine(a, x, y, ly), z, lz),
                  orbs3_crc_combine(a, x, orbs3_crc_combine(a, y, z, lz), ly + lz))
            << static_cast<int>(a);
    }
    EXPECT_EQ(orbs3_crc_combine(alg::sha256, 1, 2, 3), 0u);
}

TEST(Checksum, AssembledObjectsTakeCompositeOrFullObjectForm)
{
    // Three parts of the 1000-byte pattern, 300 + 400 + 300; expected values from a bitwise reference.
    const std::string d = pattern();
    const std::vector<std::size_t> cuts = {300, 700, 1000};
    struct row {
        alg a;
        bool full;
        const char* want;
    };
    const row rows[] = {
        {alg::crc32, false, "+tI6pA==-3"},
        {alg::crc32c, false, "capwog==-3"},
        {alg::sha256, false, "zOEzL0M3aeDb6kXlRB3cqADgDaFqCFtiA3ZYwrXUUh0=-3"},
        {alg::crc32, true, "F7wqRg=="},
        {alg::crc32c, true, "3S7f9w=="},
        {alg::crc64nvme, true, "OH6Gi9FN6+0="},
        // S3 knows no full-object digest and no composite CRC64NVME.
        {alg::sha1, true, "init refused"},
        {alg::crc64nvme, false, "init refused"},
        {alg::none, false, "init refused"},
    };
    for (const row& r : rows)
        EXPECT_EQ(assembled(r.a, r.full, d, cuts), r.want) << static_cast<int>(r.a) << " " << r.full;
    // The full-object form of one part is that part's own value.
    EXPECT_EQ(assembled(alg::crc32, true, d, {1000}), checksum_of(alg::crc32, {d}));

    // A part value of another algorithm or not base64 spoils the result instead of giving a wrong one.
    for (const char* bad : {"AAAAAAAAAAA=", "AAAAAA=", "AAAAAB==", "AAA*AA==", ""}) {
        orbs3_checksum_parts_t ck;
        ASSERT_EQ(orbs3_checksum_parts_init(&ck, alg::crc32, false), 0);
        orbs3_checksum_parts_add(&ck, "AAAAAA==", 5);
        orbs3_checksum_parts_add(&ck, bad, 5);
        char out[ORBS3_CHECKSUM_TEXT_MAX + 1];
        EXPECT_EQ(orbs3_checksum_parts_final(&ck, out, sizeof out), 0u) << bad;
    }
}
