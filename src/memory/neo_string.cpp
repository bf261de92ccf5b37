#include "memory/neo_string.h"

#include <cstring>

#include "memory/orbs3_assert.h"

char* cpystrn(char* dst, const char* src, std::size_t size)
{
    if (size == 0)
        return dst;

    while (--size) {
        *dst = *src;
        if (*dst == '\0')
            return dst;
        dst++;
        src++;
    }
    *dst = '\0';
    return dst;
}

char* neo_cpystrn(char* dst, const char* src, std::size_t size)
{
    return cpystrn(dst, src, size);
}

char* str_dup(const char* s)
{
    if (s == nullptr)
        return nullptr;
    std::size_t len = std::strlen(s) + 1;
    auto* copy = static_cast<char*>(std::malloc(len));
    if (copy != nullptr)
        std::memcpy(copy, s, len);
    return copy;
}

static inline unsigned fold(unsigned c)
{
    return (c >= 'A' && c <= 'Z') ? (c | 0x20) : c;
}

int orbs3_memn2cmp(const uint8_t* s1, const uint8_t* s2, std::size_t n1, std::size_t n2)
{
    std::size_t n = n1 < n2 ? n1 : n2;
    int r = n == 0 ? 0 : std::memcmp(s1, s2, n);
    if (r != 0)
        return r;
    return n1 < n2 ? -1 : (n1 > n2 ? 1 : 0);
}

int neo_strncasecmp(const char* s1, const char* s2, std::size_t n)
{
    while (n) {
        unsigned c1 = fold(static_cast<unsigned char>(*s1++));
        unsigned c2 = fold(static_cast<unsigned char>(*s2++));
        if (c1 != c2)
            return static_cast<int>(c1) - static_cast<int>(c2);
        if (c1 == 0)
            return 0;
        n--;
    }
    return 0;
}

void orbs3_strlow(uint8_t* dst, const uint8_t* src, std::size_t n)
{
    for (std::size_t i = 0; i < n; i++)
        dst[i] = static_cast<uint8_t>(fold(src[i]));
}

int64_t orbs3_atoof(const uint8_t* text, std::size_t n)
{
    if (n == 0)
        return -1;

    // Checked before each step, so the value never leaves the signed range.
    constexpr int64_t cutoff = INT64_MAX / 10;
    constexpr int64_t cutlim = INT64_MAX % 10;

    int64_t value = 0;
    for (std::size_t i = 0; i < n; i++) {
        if (text[i] < '0' || text[i] > '9')
            return -1;
        int64_t digit = text[i] - '0';
        if (value > cutoff || (value == cutoff && digit > cutlim))
            return -1;
        value = value * 10 + digit;
    }
    return value;
}

char* neo_hex(char* dst, const void* src, std::size_t n)
{
    static constexpr char digits[] = "0123456789abcdef";
    const auto* p = static_cast<const uint8_t*>(src);
    for (std::size_t i = 0; i < n; i++) {
        *dst++ = digits[p[i] >> 4];
        *dst++ = digits[p[i] & 0xf];
    }
    return dst;
}

bool neo_unhex(std::string_view text, uint8_t* out, std::size_t n)
{
    if (text.size() != 2 * n)
        return false;
    for (std::size_t i = 0; i < n; i++) {
        const int hi = neo_hex_value(text[2 * i]), lo = neo_hex_value(text[2 * i + 1]);
        if (hi < 0 || lo < 0)
            return false;
        out[i] = static_cast<uint8_t>(hi << 4 | lo);
    }
    return true;
}

namespace {

bool pct_kept(unsigned char c, neo_pct_keep keep)
{
    if (keep == neo_pct_keep::printable)
        return c > 0x20 && c < 0x7f && c != '%';
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
           c == '.' || c == '~' || (c == '/' && keep == neo_pct_keep::unreserved_slash);
}

}  // namespace

std::size_t neo_pct_encode_byte(char out[3], unsigned char c, neo_pct_keep keep)
{
    static constexpr char digits[] = "0123456789ABCDEF";
    if (pct_kept(c, keep)) {
        out[0] = static_cast<char>(c);
        return 1;
    }
    out[0] = '%';
    out[1] = digits[c >> 4];
    out[2] = digits[c & 15];
    return 3;
}

void neo_pct_encode(std::string* out, std::string_view text, neo_pct_keep keep)
{
    char enc[3];
    for (unsigned char c : text)
        out->append(enc, neo_pct_encode_byte(enc, c, keep));
}

bool neo_pct_decode(std::string* out, std::string_view text)
{
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out->push_back(text[i]);
            continue;
        }
        const int hi = i + 2 < text.size() ? neo_hex_value(text[i + 1]) : -1;
        const int lo = i + 2 < text.size() ? neo_hex_value(text[i + 2]) : -1;
        if (hi < 0 || lo < 0)
            return false;
        out->push_back(static_cast<char>(hi << 4 | lo));
        i += 2;
    }
    return true;
}

bool neo_join(char* out, std::size_t cap, std::initializer_list<std::string_view> parts)
{
    ORBS3_ASSERT(cap > 0);
    std::size_t len = 0;
    for (std::string_view p : parts) {
        if (p.size() >= cap - len) {
            out[0] = '\0';
            return false;
        }
        std::memcpy(out + len, p.data(), p.size());
        len += p.size();
    }
    out[len] = '\0';
    return true;
}
