#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>

#include "memory/neo_sprintf.h"

namespace {

using format_fn = char* (*)(char* buf, char* last);

struct row {
    const char* format;  // the call's arguments as written, for failure messages
    std::string want;
    format_fn fn;
};

orbs3_str_t g_bucket{6, const_cast<char*>("bucket")};
orbs3_str_t g_empty{0, nullptr};
// Flag bits set above the length: only the low 28 bits count.
neo_variable_value_t g_value{3, 1, 1, 0, 1, "abc"};
neo_variable_value_t g_binary{2, 1, 0, 1, 0, "\xab\xcd"};

#define ROW(want, ...) \
    row { #__VA_ARGS__, want, [](char* b, char* e) { return neo_slprintf(b, e, __VA_ARGS__); } }

const row rows[] = {
    ROW("plain text", "plain text"),
    // 32-bit
    ROW("-42", "%d", -42),
    ROW("4294967295", "%ud", 4294967295u),
    ROW("-2147483648", "%D", INT32_MIN),
    ROW("2147483647", "%uD", uint32_t{INT32_MAX}),
    ROW("ff", "%xd", 255),
    ROW("FF", "%Xd", 255),
    ROW("ffffffff", "%xd", -1),
    ROW("-12345", "%P", int32_t{-12345}),
    ROW("-12345", "%uP", int32_t{-12345}),  // always signed
    // 64-bit words
    ROW("-9223372036854775808", "%i", INT64_MIN),
    ROW("18446744073709551615", "%ui", UINT64_MAX),
    ROW("                   5", "%mi", int64_t{5}),
    ROW("00000000000000000042", "%0mi", int64_t{42}),
    ROW("-7", "%A", int64_t{-7}),
    ROW("                  -7", "%mA", int64_t{-7}),
    ROW("18446744073709551615", "%uA", UINT64_MAX),
    // 64-bit integers
    ROW("-1", "%l", int64_t{-1}),
    ROW("9223372036854775807", "%L", INT64_MAX),
    ROW("-3", "%z", int64_t{-3}),
    ROW("18446744073709551615", "%uz", SIZE_MAX),
    ROW("deadbeefcafe", "%xL", uint64_t{0xdeadbeefcafe}),
    // always signed 64-bit
    ROW("-1", "%O", int64_t{-1}),
    ROW("-5", "%uO", int64_t{-5}),
    ROW("-ff", "%xO", int64_t{-255}),
    ROW("1700000000", "%T", int64_t{1700000000}),
    ROW("-9223372036854775808", "%r", INT64_MIN),
    // times
    ROW("-1", "%M", UINT64_MAX),
    ROW("1234", "%M", uint64_t{1234}),
    ROW("18446744073709551614", "%M", UINT64_MAX - 1),
    // width and padding
    ROW("   42", "%5d", 42),
    ROW("00042", "%05d", 42),
    ROW("  -42", "%5d", -42),
    ROW("-0042", "%05d", -42),
    ROW("42", "%1d", 42),
    ROW("0000dead", "%08xL", uint64_t{0xdead}),
    ROW("    DEAD", "%8XL", uint64_t{0xdead}),
    // doubles
    ROW("3", "%f", 3.7),
    ROW("0.13", "%.2f", 0.125),
    ROW("10.00", "%.2f", 9.999),
    ROW("1.0", "%.1f", 0.96),
    ROW("-1.500", "%.3f", -1.5),
    ROW("00003.14", "%05.2f", 3.14159),
    ROW("   -2.5", "%5.1f", -2.5),
    ROW("0.000001", "%.6f", 0.000001),
    ROW("18446744073709551615.00", "%.2f", 1e30),
    // pointers
    ROW("0000000000001234", "%p", reinterpret_cast<void*>(0x1234)),
    ROW("00007FFFDEADBEEF", "%p", reinterpret_cast<void*>(0x7fffdeadbeef)),
    ROW("0000000000000000", "%p", static_cast<void*>(nullptr)),
    // texts
    ROW("abc", "%s", "abc"),
    ROW("ab", "%*s", std::size_t{2}, "abc"),
    ROW(std::string("a\0c", 3), "%*s", std::size_t{3}, "a\0cd"),
    ROW("01ab7f", "%xs", "\x01\xab\x7f"),
    ROW("01AB7F", "%Xs", "\x01\xab\x7f"),
    ROW("ff00", "%*xs", std::size_t{2}, "\xff"),
    ROW("(null)", "%s", static_cast<const char*>(nullptr)),
    ROW("", "%*s", std::size_t{0}, static_cast<const char*>(nullptr)),
    ROW("bucket", "%V", &g_bucket),
    ROW("6275636b6574", "%xV", &g_bucket),
    ROW("[]", "[%V]", &g_empty),
    ROW("abc", "%v", &g_value),
    ROW("616263", "%xv", &g_value),
    ROW("ABCD", "%Xv", &g_binary),
    // single bytes
    ROW("A", "%c", 'A'),
    ROW("\x80", "%c", 0x180),
    ROW(std::string("a\0b", 3), "a%Zb"),
    ROW("x\ny", "x%Ny"),
    ROW("100%", "100%%"),
    ROW("q", "%q"),
    ROW("ab", "ab%"),
    ROW("ab", "ab%05"),
    // mixed, as a log line
    ROW("PUT /bucket/key 200 17 0.25s", "%s /%V/%*s %ud %z %.2fs", "PUT", &g_bucket, std::size_t{3}, "key!", 200u,
        int64_t{17}, 0.25),
};

#undef ROW

}  // namespace

// Every conversion of the table under every bound from none to more than it needs. The buffer's end is
// the first byte of a page that cannot be touched: any write past the bound faults.
TEST(Sprintf, EveryConversionIsAnExactPrefixUnderItsBoundAndStopsAtAGuardPage)
{
    const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* map = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(map, MAP_FAILED);
    char* base = static_cast<char*>(map);
    char* guard = base + page;
    ASSERT_EQ(mprotect(guard, page, PROT_NONE), 0);

    for (const row& r : rows) {
        ASSERT_LT(r.want.size() + 3, page);
        for (std::size_t n = 0; n <= r.want.size() + 2; n++) {
            std::memset(base, 'Q', page);
            char* buf = guard - n;
            char* end = r.fn(buf, guard);
            std::size_t expect = std::min(n, r.want.size());
            ASSERT_EQ(static_cast<std::size_t>(end - buf), expect) << r.format << " bound " << n;
            ASSERT_EQ(std::string(buf, end), r.want.substr(0, expect)) << r.format << " bound " << n;
            if (buf > base) {
                ASSERT_EQ(buf[-1], 'Q') << r.format << " wrote before the buffer";
            }
            if (end < guard) {
                ASSERT_EQ(*end, 'Q') << r.format << " wrote behind its output";
            }
        }
    }
    munmap(map, 2 * page);
}

TEST(Sprintf, SizeBoundAndUnboundedFormsAndByteBuffers)
{
    char buf[16];
    std::memset(buf, 'Z', sizeof(buf));
    char* end = neo_snprintf(buf, 5, "%s-%d", "abcdef", 7);
    EXPECT_EQ(end, buf + 5);
    EXPECT_EQ(std::string(buf, end), "abcde");
    EXPECT_EQ(buf[5], 'Z') << "the terminator is up to the caller";

    EXPECT_EQ(neo_snprintf(buf, 0, "%s", "x"), buf);
    EXPECT_EQ(buf[0], 'a');

    end = neo_sprintf(buf, "%s-%d", "abcdef", 7);
    EXPECT_EQ(std::string(buf, end), "abcdef-7");

    uint8_t bytes[8] = {};
    uint8_t* b = neo_slprintf(bytes, bytes + 3, "%ud", 123456u);
    EXPECT_EQ(b, bytes + 3);
    EXPECT_EQ(std::memcmp(bytes, "123", 3), 0);
    b = neo_snprintf(bytes, sizeof(bytes), "%xd", 0xabc);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), reinterpret_cast<char*>(b)), "abc");
    b = neo_sprintf(bytes, "%c%c", 'o', 'k');
    EXPECT_EQ(b, bytes + 2);
}
