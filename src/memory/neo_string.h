// Bounded copies, case folding and number reading for texts that come from the network or from records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

// Owner of a malloc'd text (str_dup, path_normalize, ...).
struct neo_free_deleter {
    void operator()(void* p) const noexcept { std::free(p); }
};
using neo_cstr_ptr = std::unique_ptr<char, neo_free_deleter>;

// Copies at most size - 1 bytes, stops at the source's terminator and always terminates. Returns the
// terminator written, so `src[end - dst] != '\0'` tells that the text was cut.
// Size 0 writes nothing and returns dst.
char* cpystrn(char* dst, const char* src, std::size_t size);
char* neo_cpystrn(char* dst, const char* src, std::size_t size);

// A malloc'd copy; null for a null text or when memory runs out.
[[nodiscard]] char* str_dup(const char* s);

// Compares at most n bytes, ASCII letters without regard to case, stopping at a terminator.
// Result: difference of the first differing (folded) bytes, 0 when equal.
int neo_strncasecmp(const char* s1, const char* s2, std::size_t n);

// Orders two byte strings: memcmp over the shorter length, and with those bytes equal the longer string
// is the larger. Negative, 0 or positive.
[[nodiscard]] int orbs3_memn2cmp(const uint8_t* s1, const uint8_t* s2, std::size_t n1, std::size_t n2);

// Lower-cases n ASCII bytes into dst; dst may be src.
void orbs3_strlow(uint8_t* dst, const uint8_t* src, std::size_t n);
inline void orbs3_strlow(char* dst, const char* src, std::size_t n)
{
    orbs3_strlow(reinterpret_cast<uint8_t*>(dst), reinterpret_cast<const uint8_t*>(src), n);
}

// Decimal digits only: -1 for an empty text, any other byte, or a value above INT64_MAX.
[[nodiscard]] int64_t orbs3_atoof(const uint8_t* text, std::size_t n);
[[nodiscard]] inline int64_t orbs3_atoof(const char* text, std::size_t n)
{
    return orbs3_atoof(reinterpret_cast<const uint8_t*>(text), n);
}

// The value of one hexadecimal digit, either case; -1 for anything else.
constexpr int neo_hex_value(unsigned char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Writes 2 * n lower-case hexadecimal digits, no terminator; returns the byte behind them.
char* neo_hex(char* dst, const void* src, std::size_t n);
// The n bytes that exactly 2 * n hexadecimal digits (either case) spell; false for any other text.
[[nodiscard]] bool neo_unhex(std::string_view text, uint8_t* out, std::size_t n);

// The bytes a percent-encoding keeps as they are; every other byte becomes %XX in capital hexadecimal.
enum class neo_pct_keep {
    unreserved,        // A-Z a-z 0-9 - _ . ~ : a query value of a signed request
    unreserved_slash,  // the same and '/', so that a key keeps its path shape (listings, canonical URI)
    printable,         // every printable ASCII byte but '%': a field of a record stays one token on its line
};
// THE percent-encoder: appends `text` to *out, encoded as `keep` says.
void neo_pct_encode(std::string* out, std::string_view text, neo_pct_keep keep);
// One byte of it into out, for writers into a bounded area: the number of bytes written, 1 or 3.
std::size_t neo_pct_encode_byte(char out[3], unsigned char c, neo_pct_keep keep);
// Appends the decoded `text` to *out; false, *out then partly written, for a '%' without two hexadecimal
// digits behind it.
[[nodiscard]] bool neo_pct_decode(std::string* out, std::string_view text);

// The parts one after the other into `out`, terminated; false (and `out` empty) when they don't fit `cap`
// bytes with the terminator. A path is refused rather than cut: a cut path names another file.
[[nodiscard]] bool neo_join(char* out, std::size_t cap, std::initializer_list<std::string_view> parts);
