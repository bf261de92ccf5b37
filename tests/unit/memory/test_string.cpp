#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "memory/neo_string.h"

TEST(String, CpystrnCopiesAtMostSizeMinusOneAndAlwaysTerminates)
{
    struct row {
        const char* src;
        std::size_t size;
        const char* want;  // the destination's text afterwards
    };
    const row rows[] = {
        {"hello", 16, "hello"}, {"hello", 6, "hello"}, {"hello", 5, "hell"},
        {"hello", 2, "h"},      {"hello", 1, ""},      {"", 8, ""},
    };
    for (auto fn : {cpystrn, neo_cpystrn}) {
        for (const row& r : rows) {
            char dst[32];
            std::memset(dst, 'Z', sizeof(dst));
            char* end = fn(dst, r.src, r.size);
            EXPECT_STREQ(dst, r.want) << r.src << " size " << r.size;
            EXPECT_EQ(end, dst + std::strlen(r.want));
            EXPECT_EQ(*end, '\0');
            EXPECT_EQ(dst[r.size], 'Z') << "wrote past the size";
            // The documented truncation test.
            EXPECT_EQ(r.src[end - dst] != '\0', std::strlen(r.src) >= r.size);
        }
        char dst[2] = {'Z', 'Z'};
        EXPECT_EQ(fn(dst, "abc", 0), dst);
        EXPECT_EQ(dst[0], 'Z') << "size 0 writes nothing";
    }
}

TEST(String, StrDupCopiesAndGivesNullForNull)
{
    neo_cstr_ptr copy(str_dup("bucket/key"));
    ASSERT_TRUE(copy);
    EXPECT_STREQ(copy.get(), "bucket/key");
    EXPECT_EQ(str_dup(nullptr), nullptr);
    neo_cstr_ptr empty(str_dup(""));
    ASSERT_TRUE(empty);
    EXPECT_STREQ(empty.get(), "");
}

TEST(String, StrncasecmpFoldsAsciiLettersOnly)
{
    struct row {
        const char* a;
        const char* b;
        std::size_t n;
        int sign;
    };
    const row rows[] = {
        {"Content-Length", "content-length", 14, 0},
        {"CHUNKED", "chunked", 100, 0},  // stops at the terminator, not at n
        {"abcX", "abcY", 3, 0},          // only n bytes
        {"abcX", "abcY", 4, -1},
        {"abc", "abcd", 4, -1},
        {"b", "A", 1, 1},
        {"[", "{", 1, -1},              // '[' is 0x5b; no folding outside A-Z
        {"\xc4", "\xe4", 1, -1},        // no folding of non-ASCII bytes
        {"x", "y", 0, 0},
    };
    for (const row& r : rows) {
        int d = neo_strncasecmp(r.a, r.b, r.n);
        EXPECT_EQ((d > 0) - (d < 0), r.sign) << r.a << " vs " << r.b << " n " << r.n;
    }
}

TEST(String, Memn2cmpOrdersBytesUnsignedThenByLength)
{
    struct row {
        std::string_view a;
        std::string_view b;
        int sign;
    };
    const row rows[] = {
        {"abc", "abc", 0},
        {"abc", "abd", -1},
        {"abc", "ab", 1},    // equal prefix: the longer is larger
        {"", "a", -1},
        {"", "", 0},
        {"\x80", "\x7f", 1},  // bytes compare unsigned
        {"b", "abc", 1},     // the bytes decide before the length
    };
    for (const row& r : rows) {
        int d = orbs3_memn2cmp(reinterpret_cast<const uint8_t*>(r.a.data()),
                               reinterpret_cast<const uint8_t*>(r.b.data()), r.a.size(), r.b.size());
        EXPECT_EQ((d > 0) - (d < 0), r.sign) << r.a << " vs " << r.b;
    }
}

TEST(String, StrlowLowersAsciiInPlaceOrIntoACopy)
{
    char text[] = "X-Amz-Date: \xc4Z@[";
    char copy[sizeof(text)] = {};
    orbs3_strlow(copy, text, sizeof(text) - 1);
    EXPECT_STREQ(copy, "x-amz-date: \xc4z@[");
    orbs3_strlow(text, text, sizeof(text) - 1);
    EXPECT_STREQ(text, "x-amz-date: \xc4z@[");
}

TEST(String, AtoofReadsDecimalDigitsWithinInt64)
{
    struct row {
        std::string text;
        int64_t want;
    };
    const row rows[] = {
        {"0", 0},
        {"123", 123},
        {"000000000000000000000000042", 42},
        {"9223372036854775807", INT64_MAX},
        {"9223372036854775808", -1},
        {"9223372036854775810", -1},
        {"18446744073709551616", -1},
        {"99999999999999999999999", -1},
        {"", -1},
        {"-1", -1},
        {"+1", -1},
        {" 1", -1},
        {"1 ", -1},
        {"12a", -1},
        {"1.5", -1},
        {std::string("1\0" "2", 3), -1},
    };
    for (const row& r : rows)
        EXPECT_EQ(orbs3_atoof(r.text.data(), r.text.size()), r.want) << '"' << r.text << '"';

    // Only the given length is read.
    EXPECT_EQ(orbs3_atoof("12345", 3), 123);
    EXPECT_EQ(orbs3_atoof("92233720368547758079", 19), INT64_MAX);
}

TEST(String, HexWritesTwoLowerCaseDigitsPerByte)
{
    const uint8_t bytes[] = {0x00, 0x0f, 0xa5, 0xff};
    char out[9];
    std::memset(out, 'Z', sizeof(out));
    char* end = neo_hex(out, bytes, sizeof(bytes));
    EXPECT_EQ(end, out + 8);
    EXPECT_EQ(std::string(out, end), "000fa5ff");
    EXPECT_EQ(out[8], 'Z') << "no terminator";

    // Read back: either case, exactly two digits a byte, nothing else.
    uint8_t back[4] = {};
    EXPECT_TRUE(neo_unhex("000FA5ff", back, 4));
    EXPECT_EQ(std::memcmp(back, bytes, 4), 0);
    for (const char* bad : {"000fa5f", "000fa5fff", "000fa5fg", "000fa5 f", ""})
        EXPECT_FALSE(neo_unhex(bad, back, 4)) << bad;
}

TEST(String, PercentEncodingKeepsWhatItsAlphabetKeeps)
{
    struct row {
        neo_pct_keep keep;
        const char* in;
        const char* out;
    } rows[] = {
        {neo_pct_keep::unreserved, "a-Z_0.~/ +%", "a-Z_0.~%2F%20%2B%25"},
        {neo_pct_keep::unreserved_slash, "a/b c", "a/b%20c"},
        {neo_pct_keep::printable, "k y%\n\xff!", "k%20y%25%0A%FF!"},
    };
    for (const row& r : rows) {
        std::string enc;
        neo_pct_encode(&enc, r.in, r.keep);
        EXPECT_EQ(enc, r.out);
        std::string dec;
        EXPECT_TRUE(neo_pct_decode(&dec, enc));
        EXPECT_EQ(dec, r.in);
    }
    std::string dec;
    EXPECT_FALSE(neo_pct_decode(&dec, "ab%4"));
    EXPECT_FALSE(neo_pct_decode(&dec, "%zz"));
}
