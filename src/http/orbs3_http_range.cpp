#include "http/orbs3_http_range.h"

#include <charconv>
#include <cstring>
#include <limits>

namespace {

bool ows(char c)
{
    return c == ' ' || c == '\t';
}

bool digit(char c)
{
    return c >= '0' && c <= '9';
}

// One or more digits at `*pos`: their value into `*v`, and the digits without leading zeros into
// `*digits`. A number past int64 reads as int64's largest: no object is that large, so it is a position
// past any end, never one that wraps into a small range.
bool number(std::string_view s, std::size_t* pos, int64_t* v, std::string_view* digits)
{
    constexpr int64_t max = std::numeric_limits<int64_t>::max();
    std::size_t i = *pos;
    std::size_t lead = i;
    int64_t x = 0;
    for (; i < s.size() && digit(s[i]); i++) {
        int d = s[i] - '0';
        if (x == 0 && d == 0)
            lead = i + 1;
        x = x > (max - d) / 10 ? max : x * 10 + d;
    }
    if (i == *pos)
        return false;
    *digits = s.substr(lead, i - lead);
    *pos = i;
    *v = x;
    return true;
}

// a < b for two digit strings without leading zeros, of any length.
bool digits_less(std::string_view a, std::string_view b)
{
    return a.size() != b.size() ? a.size() < b.size() : a < b;
}

bool unit_is_bytes(std::string_view unit)
{
    constexpr std::string_view bytes = "bytes";
    if (unit.size() != bytes.size())
        return false;
    for (std::size_t i = 0; i < unit.size(); i++)
        if ((unit[i] | 0x20) != bytes[i])
            return false;
    return true;
}

}  // namespace

int orbs3_http_range_resolve(std::string_view value, int64_t size, orbs3_byte_range_t* out)
{
    if (size < 0)
        return ORBS3_RANGE_NONE;
    while (!value.empty() && ows(value.front()))
        value.remove_prefix(1);
    while (!value.empty() && ows(value.back()))
        value.remove_suffix(1);

    std::size_t eq = value.find('=');
    if (eq == std::string_view::npos || !unit_is_bytes(value.substr(0, eq)))
        return ORBS3_RANGE_NONE;
    std::string_view set = value.substr(eq + 1);

    // Exactly one range must fill the rest of the value. So several ranges come out as NONE too, which
    // is what S3 does with them: it ignores the header and sends the object whole.
    std::size_t pos = 0;
    if (!set.empty() && set[0] == '-') {
        pos = 1;
        int64_t n;
        std::string_view digits;
        if (!number(set, &pos, &n, &digits) || pos != set.size())
            return ORBS3_RANGE_NONE;
        // A suffix of no bytes selects nothing; S3 also refuses any range of an empty object.
        if (n == 0 || size == 0)
            return ORBS3_RANGE_UNSATISFIABLE;
        out->first = n >= size ? 0 : size - n;
        out->last = size - 1;
        return ORBS3_RANGE_ONE;
    }

    int64_t first, last = std::numeric_limits<int64_t>::max();
    std::string_view first_digits, last_digits;
    if (!number(set, &pos, &first, &first_digits) || pos == set.size() || set[pos] != '-')
        return ORBS3_RANGE_NONE;
    pos++;
    const bool has_last = pos < set.size();
    if (has_last && (!number(set, &pos, &last, &last_digits) || pos != set.size()))
        return ORBS3_RANGE_NONE;
    // An inverted range is a syntax error, so the header is ignored rather than refused. The digits
    // compare exactly where both numbers are past int64.
    if (has_last && digits_less(last_digits, first_digits))
        return ORBS3_RANGE_NONE;
    if (first >= size)
        return ORBS3_RANGE_UNSATISFIABLE;
    out->first = first;
    out->last = last >= size ? size - 1 : last;
    return ORBS3_RANGE_ONE;
}

std::size_t orbs3_http_content_range(char* out, std::size_t room, const orbs3_byte_range_t* r, int64_t size)
{
    char text[ORBS3_CONTENT_RANGE_MAX];
    char* p = text;
    char* end = text + sizeof(text);
    constexpr std::string_view head = "bytes ";
    std::memcpy(p, head.data(), head.size());
    p += head.size();
    // The area fits three non-negative int64s; to_chars and put_char stop at its end, so numbers a
    // caller got wrong (negative ones take a sign more) give 0 instead of an overrun.
    auto put = [&](int64_t v) {
        auto res = std::to_chars(p, end, v);
        if (res.ec != std::errc())
            return false;
        p = res.ptr;
        return true;
    };
    auto put_char = [&](char c) {
        if (p == end)
            return false;
        *p++ = c;
        return true;
    };
    bool ok;
    if (r)
        ok = put(r->first) && put_char('-') && put(r->last) && put_char('/') && put(size);
    else
        ok = put_char('*') && put_char('/') && put(size);
    std::size_t n = static_cast<std::size_t>(p - text);
    if (!ok || n + 1 > room)
        return 0;
    std::memcpy(out, text, n);
    out[n] = '\0';
    return n;
}
