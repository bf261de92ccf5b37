#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <utility>

#include "memory/neo_md5.h"
#include "memory/neo_string.h"

namespace {

std::string hex(const uint8_t (&d)[NEO_MD5_LEN])
{
    char out[2 * NEO_MD5_LEN];
    return std::string(out, neo_hex(out, d, NEO_MD5_LEN));
}

struct vector_t {
    const char* text;
    const char* digest;
};

// RFC 1321, appendix A.5.
const vector_t rfc1321[] = {
    {"", "d41d8cd98f00b204e9800998ecf8427e"},
    {"a", "0cc175b9c0f1b6a831c399e269772661"},
    {"abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
    {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
    {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
     "57edf4a22be3c955ac49da2e2107b67a"},
};

}  // namespace

// Every vector in three updates at many cuts; the first and the last cuts feed it whole in one update.
TEST(Md5, Rfc1321VectorsWholeAndSplit)
{
    for (const vector_t& v : rfc1321) {
        const std::size_t len = std::strlen(v.text);
        for (std::size_t a = 0; a <= len; a++) {
            for (std::size_t b = a; b <= len; b += 7) {
                neo_md5_t md5;
                uint8_t d[NEO_MD5_LEN];
                ASSERT_EQ(neo_md5_init(&md5), 0);
                for (auto [from, n] : {std::pair{std::size_t{0}, a}, {a, b - a}, {b, len - b}})
                    ASSERT_EQ(neo_md5_update(&md5, v.text + from, n), 0);
                ASSERT_EQ(neo_md5_final(d, &md5), 0);
                ASSERT_EQ(hex(d), v.digest) << "cuts " << a << ", " << b;
            }
        }
    }
}

TEST(Md5, ContextIsReusableAfterInitAndUnusableOtherwise)
{
    uint8_t d[NEO_MD5_LEN];
    neo_md5_t md5;
    EXPECT_EQ(neo_md5_update(&md5, "abc", 3), -1) << "update before init";
    EXPECT_EQ(neo_md5_final(d, &md5), -1) << "final before init";

    ASSERT_EQ(neo_md5_init(&md5), 0);
    neo_md5_update(&md5, "a", 1);
    ASSERT_EQ(neo_md5_final(d, &md5), 0);
    EXPECT_EQ(neo_md5_final(d, &md5), -1) << "a second final";
    EXPECT_EQ(neo_md5_update(&md5, "a", 1), -1) << "update after final";

    // A restart drops whatever was digested before.
    ASSERT_EQ(neo_md5_init(&md5), 0);
    neo_md5_update(&md5, "garbage", 7);
    ASSERT_EQ(neo_md5_init(&md5), 0);
    neo_md5_update(&md5, "abc", 3);
    ASSERT_EQ(neo_md5_final(d, &md5), 0);
    EXPECT_EQ(hex(d), "900150983cd24fb0d6963f7d28e17f72");
}

TEST(Md5, MovedContextCarriesTheStateAndTheSourceIsEmpty)
{
    neo_md5_t a;
    ASSERT_EQ(neo_md5_init(&a), 0);
    neo_md5_update(&a, "message ", 8);
    neo_md5_t b = std::move(a);
    neo_md5_update(&b, "digest", 6);
    uint8_t d[NEO_MD5_LEN];
    ASSERT_EQ(neo_md5_final(d, &b), 0);
    EXPECT_EQ(hex(d), "f96b697d7cb7938d525a2f31aaf161d0");
    EXPECT_EQ(neo_md5_update(&a, "x", 1), -1);
    EXPECT_EQ(neo_md5_final(d, &a), -1);

    // A context dropped without final releases its state (LeakSanitizer checks this in the
    // sanitizer build).
    neo_md5_t dropped;
    ASSERT_EQ(neo_md5_init(&dropped), 0);
    neo_md5_update(&dropped, "abc", 3);
    static_assert(!std::is_copy_constructible_v<neo_md5_t>);
    static_assert(std::is_nothrow_move_constructible_v<neo_md5_t>);
}
