// Bounded copies, case folding and number reading for texts that come from the network or from records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

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
