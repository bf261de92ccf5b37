#include "memory/neo_sprintf.h"

#include <algorithm>
#include <cstring>

namespace {

// The output area. Room is computed on addresses as integers: the unbounded form passes the highest
// address as its end, which is no pointer into the buffer.
struct out_t {
    char* p;
    char* last;

    std::size_t room() const
    {
        auto a = reinterpret_cast<std::uintptr_t>(p);
        auto b = reinterpret_cast<std::uintptr_t>(last);
        return a < b ? b - a : 0;
    }
    void put(char c)
    {
        if (room() != 0)
            *p++ = c;
    }
    void put(const char* s, std::size_t n)
    {
        n = std::min(n, room());
        if (n != 0) {
            std::memcpy(p, s, n);
            p += n;
        }
    }
    void fill(char c, std::size_t n)
    {
        n = std::min(n, room());
        if (n != 0) {
            std::memset(p, c, n);
            p += n;
        }
    }
};

enum hex_t { HEX_NONE, HEX_SMALL, HEX_CAPITAL };

constexpr char hex_small[] = "0123456789abcdef";
constexpr char hex_capital[] = "0123456789ABCDEF";
constexpr std::size_t int64_len = 20;  // "-9223372036854775808"
constexpr unsigned max_frac_width = 19;  // 10^19 still fits in 64 bits
constexpr std::size_t max_width = 1 << 20;

}  // namespace

static void put_num(out_t& o, uint64_t v, bool negative, char zero, hex_t hex, std::size_t width)
{
    char temp[int64_len + 4];
    char* end = temp + sizeof(temp);
    char* d = end;

    if (hex == HEX_NONE) {
        do {
            *--d = static_cast<char>('0' + v % 10);
        } while (v /= 10);
    } else {
        const char* digits = (hex == HEX_SMALL) ? hex_small : hex_capital;
        do {
            *--d = digits[v & 0xf];
        } while (v >>= 4);
    }

    std::size_t len = static_cast<std::size_t>(end - d) + (negative ? 1 : 0);
    std::size_t pad = width > len ? width - len : 0;
    if (zero == '0') {
        if (negative)
            o.put('-');
        o.fill('0', pad);
    } else {
        o.fill(' ', pad);
        if (negative)
            o.put('-');
    }
    o.put(d, static_cast<std::size_t>(end - d));
}

static void put_text(out_t& o, const char* s, std::size_t len, bool counted, hex_t hex)
{
    static constexpr char null_text[] = "(null)";
    if (s == nullptr) {
        if (!counted || len != 0)
            o.put(null_text, sizeof(null_text) - 1);
        return;
    }

    if (hex == HEX_NONE) {
        if (counted) {
            o.put(s, len);
        } else {
            while (*s != '\0' && o.room() != 0)
                o.put(*s++);
        }
        return;
    }

    const char* digits = (hex == HEX_SMALL) ? hex_small : hex_capital;
    for (std::size_t i = 0; (counted ? i < len : s[i] != '\0') && o.room() != 0; i++) {
        auto c = static_cast<unsigned char>(s[i]);
        o.put(digits[c >> 4]);
        o.put(digits[c & 0xf]);
    }
}

// A counted text of %V or %v; a null one prints as a null %s does.
template <typename T>
static void put_counted(out_t& o, const T* v, hex_t hex)
{
    if (v == nullptr)
        put_text(o, nullptr, 0, false, hex);
    else
        put_text(o, v->data, v->len, true, hex);
}

static void put_double(out_t& o, double f, char zero, std::size_t width, unsigned frac_width)
{
    bool negative = f < 0;
    if (negative)
        f = -f;

    // Casting a double beyond 64 bits (or NaN) is undefined: such values print as the largest integer
    // (or 0) without a fraction.
    constexpr double two64 = 18446744073709551616.0;
    uint64_t ipart;
    uint64_t frac = 0;
    bool in_range = f < two64;
    if (in_range)
        ipart = static_cast<uint64_t>(f);
    else
        ipart = (f != f) ? 0 : UINT64_MAX;

    if (frac_width != 0 && in_range) {
        uint64_t scale = 1;
        for (unsigned n = 0; n < frac_width; n++)
            scale *= 10;
        // Below 1 * scale + 0.5, so the cast stays in range.
        frac = static_cast<uint64_t>((f - static_cast<double>(ipart)) * static_cast<double>(scale) + 0.5);
        if (frac >= scale) {
            ipart++;
            frac = 0;
        }
    }

    put_num(o, ipart, negative, zero, HEX_NONE, width);
    if (frac_width != 0) {
        o.put('.');
        put_num(o, frac, false, '0', HEX_NONE, frac_width);
    }
}

char* neo_vslprintf(char* buf, char* last, const char* fmt, va_list args)
{
    out_t o{buf, last};

    while (*fmt != '\0' && o.room() != 0) {
        if (*fmt != '%') {
            o.put(*fmt++);
            continue;
        }

        fmt++;
        char zero = ' ';
        if (*fmt == '0') {
            zero = '0';
            fmt++;
        }
        std::size_t width = 0;
        while (*fmt >= '0' && *fmt <= '9') {
            width = std::min(width * 10 + static_cast<std::size_t>(*fmt++ - '0'), max_width);
        }

        bool sign = true;
        bool max = false;
        hex_t hex = HEX_NONE;
        unsigned frac_width = 0;
        std::size_t slen = 0;
        bool counted = false;

        for (bool more = true; more;) {
            switch (*fmt) {
            case 'u':
                sign = false;
                fmt++;
                break;
            case 'm':
                max = true;
                fmt++;
                break;
            case 'X':
                hex = HEX_CAPITAL;
                sign = false;
                fmt++;
                break;
            case 'x':
                hex = HEX_SMALL;
                sign = false;
                fmt++;
                break;
            case '.':
                fmt++;
                while (*fmt >= '0' && *fmt <= '9')
                    frac_width = std::min(frac_width * 10 + static_cast<unsigned>(*fmt++ - '0'), max_frac_width);
                break;
            case '*':
                slen = va_arg(args, std::size_t);
                counted = true;
                fmt++;
                break;
            default:
                more = false;
                break;
            }
        }

        int64_t i64 = 0;
        uint64_t u64 = 0;

        switch (*fmt) {
        case '\0':
            // A format that ends inside a conversion: nothing more to print.
            return o.p;

        case 'V':
            put_counted(o, va_arg(args, const orbs3_str_t*), hex);
            fmt++;
            continue;
        case 'v':
            put_counted(o, va_arg(args, const neo_variable_value_t*), hex);
            fmt++;
            continue;
        case 's':
            put_text(o, va_arg(args, const char*), slen, counted, hex);
            fmt++;
            continue;

        case 'O':
        case 'T':
        case 'r':
            i64 = va_arg(args, int64_t);
            sign = true;
            break;
        case 'P':
            i64 = va_arg(args, int32_t);
            sign = true;
            break;
        case 'M':
            u64 = va_arg(args, uint64_t);
            if (u64 == UINT64_MAX) {
                sign = true;
                i64 = -1;
            } else {
                sign = false;
            }
            break;
        case 'd':
        case 'D':
            if (sign)
                i64 = va_arg(args, int32_t);
            else
                u64 = va_arg(args, uint32_t);
            break;
        case 'i':
        case 'A':
            if (sign)
                i64 = va_arg(args, int64_t);
            else
                u64 = va_arg(args, uint64_t);
            if (max)
                width = int64_len;
            break;
        case 'l':
        case 'L':
        case 'z':
            if (sign)
                i64 = va_arg(args, int64_t);
            else
                u64 = va_arg(args, uint64_t);
            break;

        case 'f':
            put_double(o, va_arg(args, double), zero, width, frac_width);
            fmt++;
            continue;

        case 'p':
            u64 = reinterpret_cast<std::uintptr_t>(va_arg(args, void*));
            sign = false;
            hex = HEX_CAPITAL;
            zero = '0';
            width = 2 * sizeof(void*);
            break;

        case 'c':
            o.put(static_cast<char>(va_arg(args, int) & 0xff));
            fmt++;
            continue;
        case 'Z':
            o.put('\0');
            fmt++;
            continue;
        case 'N':
            o.put('\n');
            fmt++;
            continue;
        case '%':
            o.put('%');
            fmt++;
            continue;
        default:
            o.put(*fmt++);
            continue;
        }

        bool negative = false;
        if (sign) {
            negative = i64 < 0;
            // Negation in unsigned arithmetic: INT64_MIN has no positive counterpart.
            u64 = negative ? 0 - static_cast<uint64_t>(i64) : static_cast<uint64_t>(i64);
        }
        put_num(o, u64, negative, zero, hex, width);
        fmt++;
    }

    return o.p;
}

char* neo_sprintf(char* buf, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    char* p = neo_vslprintf(buf, reinterpret_cast<char*>(UINTPTR_MAX), fmt, args);
    va_end(args);
    return p;
}

char* neo_snprintf(char* buf, std::size_t max, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    // The end as an address, so a size beyond the buffer's object is not pointer arithmetic.
    auto end = reinterpret_cast<std::uintptr_t>(buf) + max;
    if (end < reinterpret_cast<std::uintptr_t>(buf))
        end = UINTPTR_MAX;
    char* p = neo_vslprintf(buf, reinterpret_cast<char*>(end), fmt, args);
    va_end(args);
    return p;
}

char* neo_slprintf(char* buf, char* last, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    char* p = neo_vslprintf(buf, last, fmt, args);
    va_end(args);
    return p;
}
