#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>
#include <string>
#include <string_view>

#include "feed.h"
#include "http/orbs3_http_range.h"

namespace {

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

struct row {
    const char* value;
    int64_t size;
    int want;
    int64_t first;
    int64_t last;
};

void check_rows(const row* rows, std::size_t n)
{
    for (std::size_t i = 0; i < n; i++) {
        const row& r = rows[i];
        // The value ends right before an unreadable page: a read past it faults.
        std::string_view text(r.value);
        feed::bytes in(text);
        std::string_view placed(in.chars(), text.size());
        orbs3_byte_range_t out{-7, -7};
        int rc = orbs3_http_range_resolve(placed, r.size, &out);
        EXPECT_EQ(rc, r.want) << "'" << r.value << "' of " << r.size;
        if (rc == ORBS3_RANGE_ONE && r.want == ORBS3_RANGE_ONE) {
            EXPECT_EQ(out.first, r.first) << "'" << r.value << "' of " << r.size;
            EXPECT_EQ(out.last, r.last) << "'" << r.value << "' of " << r.size;
        } else {
            EXPECT_EQ(out.first, -7) << "'" << r.value << "' touched *out";
        }
    }
}

}  // namespace

TEST(HttpRange, OneRangeShrinksToTheObject)
{
    const row rows[] = {
        {"bytes=0-0", 10, ORBS3_RANGE_ONE, 0, 0},
        {"bytes=0-9", 10, ORBS3_RANGE_ONE, 0, 9},         // exact end
        {"bytes=0-10", 10, ORBS3_RANGE_ONE, 0, 9},        // one past
        {"bytes=5-2000", 10, ORBS3_RANGE_ONE, 5, 9},
        {"bytes=9-9", 10, ORBS3_RANGE_ONE, 9, 9},         // last byte
        {"bytes=3-", 10, ORBS3_RANGE_ONE, 3, 9},
        {"bytes=9-", 10, ORBS3_RANGE_ONE, 9, 9},
        {"bytes=0-", 1, ORBS3_RANGE_ONE, 0, 0},
        {"bytes=0-0", 1, ORBS3_RANGE_ONE, 0, 0},
        {"bytes=-3", 10, ORBS3_RANGE_ONE, 7, 9},
        {"bytes=-10", 10, ORBS3_RANGE_ONE, 0, 9},
        {"bytes=-11", 10, ORBS3_RANGE_ONE, 0, 9},         // suffix larger than the object
        {"bytes=-1", 1, ORBS3_RANGE_ONE, 0, 0},
        {"bytes=-9223372036854775807", 10, ORBS3_RANGE_ONE, 0, 9},
        {"bytes=0-9223372036854775807", 10, ORBS3_RANGE_ONE, 0, 9},
        {"bytes=00005-0009", 10, ORBS3_RANGE_ONE, 5, 9},  // leading zeros
        {"Bytes=1-2", 10, ORBS3_RANGE_ONE, 1, 2},
        {"BYTES=1-2", 10, ORBS3_RANGE_ONE, 1, 2},
        {" \tbytes=1-2\t ", 10, ORBS3_RANGE_ONE, 1, 2},  // whitespace around the value
        {"bytes=9223372036854775806-", kMax, ORBS3_RANGE_ONE, kMax - 1, kMax - 1},
        {"bytes=-1", kMax, ORBS3_RANGE_ONE, kMax - 1, kMax - 1},
        // A last byte past int64, even past uint64, is past the end: the range runs to it.
        {"bytes=0-9223372036854775808", 10, ORBS3_RANGE_ONE, 0, 9},
        {"bytes=0-18446744073709551615", 10, ORBS3_RANGE_ONE, 0, 9},
        {"bytes=3-18446744073709551616", 10, ORBS3_RANGE_ONE, 3, 9},
        {"bytes=0-99999999999999999999999999999999999999999999", 10, ORBS3_RANGE_ONE, 0, 9},
        {"bytes=9223372036854775806-18446744073709551615", kMax, ORBS3_RANGE_ONE, kMax - 1, kMax - 1},
        {"bytes=-18446744073709551615", 10, ORBS3_RANGE_ONE, 0, 9},  // a suffix longer than any object
        {"bytes=0000000000000000000000000005-0000000000000000000000000007", 10, ORBS3_RANGE_ONE, 5, 7},
    };
    check_rows(rows, std::size(rows));
}

TEST(HttpRange, RangeStartingPastTheEndIsUnsatisfiable)
{
    const row rows[] = {
        {"bytes=10-", 10, ORBS3_RANGE_UNSATISFIABLE},
        {"bytes=10-20", 10, ORBS3_RANGE_UNSATISFIABLE},
        {"bytes=20-30", 10, ORBS3_RANGE_UNSATISFIABLE},
        {"bytes=1-1", 1, ORBS3_RANGE_UNSATISFIABLE},
        {"bytes=-0", 10, ORBS3_RANGE_UNSATISFIABLE},   // a suffix of no bytes
        {"bytes=-000", 10, ORBS3_RANGE_UNSATISFIABLE},
        {"bytes=0-0", 0, ORBS3_RANGE_UNSATISFIABLE},  // an empty object has no range to give
        {"bytes=0-", 0, ORBS3_RANGE_UNSATISFIABLE},
        {"bytes=-5", 0, ORBS3_RANGE_UNSATISFIABLE},
        {"bytes=-0", 0, ORBS3_RANGE_UNSATISFIABLE},
        {"bytes=9223372036854775807-", 10, ORBS3_RANGE_UNSATISFIABLE},
        // A first byte past int64 is past every end.
        {"bytes=9223372036854775808-", 10, ORBS3_RANGE_UNSATISFIABLE},
        {"bytes=18446744073709551616-", kMax, ORBS3_RANGE_UNSATISFIABLE},
        {"bytes=18446744073709551615-18446744073709551615", 10, ORBS3_RANGE_UNSATISFIABLE},
        {"bytes=18446744073709551615-99999999999999999999999", 10, ORBS3_RANGE_UNSATISFIABLE},
        {"bytes=18446744073709551626-18446744073709551627", 10, ORBS3_RANGE_UNSATISFIABLE},  // 2^64 + 10: no wrap
    };
    check_rows(rows, std::size(rows));
}

TEST(HttpRange, HeaderThatIsNotOneByteRangeIsIgnored)
{
    const row rows[] = {
        {"", 10, ORBS3_RANGE_NONE},
        {"bytes", 10, ORBS3_RANGE_NONE},
        {"bytes=", 10, ORBS3_RANGE_NONE},
        {"bytes=-", 10, ORBS3_RANGE_NONE},
        {"bytes=5", 10, ORBS3_RANGE_NONE},
        {"bytes=5-2", 10, ORBS3_RANGE_NONE},      // inverted
        {"bytes=20-5", 10, ORBS3_RANGE_NONE},     // inverted beats past the end
        {"bytes=18446744073709551616-5", 10, ORBS3_RANGE_NONE},  // inverted, whatever the sizes
        {"bytes=18446744073709551617-18446744073709551616", 10, ORBS3_RANGE_NONE},
        {"bytes=99999999999999999999999-18446744073709551616", 10, ORBS3_RANGE_NONE},
        {"bytes=0-1,3-4", 10, ORBS3_RANGE_NONE},  // several ranges
        {"bytes=0-1,", 10, ORBS3_RANGE_NONE},
        {"bytes=-1,-2", 10, ORBS3_RANGE_NONE},
        {"bytes=0-1, 3-4", 0, ORBS3_RANGE_NONE},
        {"items=0-1", 10, ORBS3_RANGE_NONE},      // other units
        {"bits=0-1", 10, ORBS3_RANGE_NONE},
        {"bytesx=0-1", 10, ORBS3_RANGE_NONE},
        {"=0-1", 10, ORBS3_RANGE_NONE},
        {"0-1", 10, ORBS3_RANGE_NONE},
        {"bytes 0-1", 10, ORBS3_RANGE_NONE},
        {"bytes =0-1", 10, ORBS3_RANGE_NONE},     // whitespace inside
        {"bytes= 0-1", 10, ORBS3_RANGE_NONE},
        {"bytes=0 -1", 10, ORBS3_RANGE_NONE},
        {"bytes=0- 1", 10, ORBS3_RANGE_NONE},
        {"bytes=a-1", 10, ORBS3_RANGE_NONE},
        {"bytes=0-1a", 10, ORBS3_RANGE_NONE},
        {"bytes=0x1-2", 10, ORBS3_RANGE_NONE},
        {"bytes=+1-2", 10, ORBS3_RANGE_NONE},
        {"bytes=--1", 10, ORBS3_RANGE_NONE},
        {"bytes=1--2", 10, ORBS3_RANGE_NONE},
        {"bytes=-1-2", 10, ORBS3_RANGE_NONE},
        {"bytes=1-2-3", 10, ORBS3_RANGE_NONE},
        {"bytes==1-2", 10, ORBS3_RANGE_NONE},
        {"bytes=0-1", -1, ORBS3_RANGE_NONE},
    };
    check_rows(rows, std::size(rows));

    // A NUL inside the value is a byte like any other.
    orbs3_byte_range_t out{};
    EXPECT_EQ(orbs3_http_range_resolve(std::string_view("bytes=0-1\0", 10), 10, &out), ORBS3_RANGE_NONE);
}

TEST(HttpRange, ContentRangeTextIsBounded)
{
    struct cr_row {
        bool star;
        int64_t first, last, size;
        const char* want;
    };
    const cr_row rows[] = {
        {false, 0, 0, 10, "bytes 0-0/10"},
        {false, 7, 9, 10, "bytes 7-9/10"},
        {true, 0, 0, 0, "bytes */0"},
        {true, 0, 0, 10, "bytes */10"},
        {false, kMax - 1, kMax - 1, kMax, "bytes 9223372036854775806-9223372036854775806/9223372036854775807"},
    };
    for (const cr_row& r : rows) {
        orbs3_byte_range_t br{r.first, r.last};
        const orbs3_byte_range_t* p = r.star ? nullptr : &br;
        const std::size_t len = std::strlen(r.want);
        char out[ORBS3_CONTENT_RANGE_MAX + 1];
        ASSERT_EQ(orbs3_http_content_range(out, sizeof(out), p, r.size), len) << r.want;
        EXPECT_STREQ(out, r.want);

        // Exactly enough room, then one byte short of the NUL: the short area stays untouched.
        char exact[ORBS3_CONTENT_RANGE_MAX + 1];
        EXPECT_EQ(orbs3_http_content_range(exact, len + 1, p, r.size), len);
        EXPECT_STREQ(exact, r.want);
        std::memset(exact, 'x', sizeof(exact));
        EXPECT_EQ(orbs3_http_content_range(exact, len, p, r.size), 0u) << r.want;
        EXPECT_EQ(exact[0], 'x');
        EXPECT_EQ(orbs3_http_content_range(exact, 0, p, r.size), 0u);
    }
    // The largest numbers there are, signs and all, are refused rather than written past the area.
    orbs3_byte_range_t neg{std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::min()};
    char out[ORBS3_CONTENT_RANGE_MAX + 1];
    EXPECT_EQ(orbs3_http_content_range(out, sizeof(out), &neg, std::numeric_limits<int64_t>::min()), 0u);
}
