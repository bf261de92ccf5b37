#include "http/orbs3_http_header.h"

#include <openssl/evp.h>
#include <strings.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "http/orbs3_http_response.h"

namespace {

std::string_view measured(const orbs3_http_request_t* r, const orbs3_str_t& s)
{
    if (s.data == nullptr)
        return {};
    if (s.len != 0)
        return {s.data, s.len};
    const orbs3_buf_t* b = r->header_in;
    const auto* p = reinterpret_cast<const uint8_t*>(s.data);
    if (b == nullptr || b->start == nullptr || p < b->start || p >= b->end)
        return {};
    return {s.data, strnlen(s.data, static_cast<std::size_t>(b->end - p))};
}

bool digits(std::string_view s, std::size_t at, std::size_t n, int* v)
{
    int x = 0;
    for (std::size_t i = at; i < at + n; i++) {
        if (s[i] < '0' || s[i] > '9')
            return false;
        x = x * 10 + (s[i] - '0');
    }
    *v = x;
    return true;
}

}  // namespace

std::string_view orbs3_http_header_key(const orbs3_http_request_t* r, const orbs3_header_t* h)
{
    return measured(r, h->key);
}

std::string_view orbs3_http_header_value(const orbs3_http_request_t* r, const orbs3_header_t* h)
{
    return measured(r, h->value);
}

bool orbs3_http_blank(char c)
{
    return c == ' ' || c == '\t';
}

std::string_view orbs3_http_trim(std::string_view s)
{
    while (!s.empty() && orbs3_http_blank(s.front()))
        s.remove_prefix(1);
    while (!s.empty() && orbs3_http_blank(s.back()))
        s.remove_suffix(1);
    return s;
}

bool orbs3_http_iequals(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && (a.empty() || strncasecmp(a.data(), b.data(), a.size()) == 0);
}

bool orbs3_http_find_header(const orbs3_http_request_t* r, std::string_view name, std::string_view* value)
{
    bool found = false;
    orbs3_http_for_each_header(r, [&](const orbs3_header_t& h) {
        if (!found && orbs3_http_iequals(orbs3_http_header_key(r, &h), name)) {
            *value = orbs3_http_trim(orbs3_http_header_value(r, &h));
            found = true;
        }
    });
    return found;
}

bool orbs3_http_parse_iso8601(std::string_view s, time_t* t)
{
    int year, mon, day, hour, min, sec;
    if (s.size() != 16 || s[8] != 'T' || s[15] != 'Z')
        return false;
    if (!digits(s, 0, 4, &year) || !digits(s, 4, 2, &mon) || !digits(s, 6, 2, &day) || !digits(s, 9, 2, &hour) ||
        !digits(s, 11, 2, &min) || !digits(s, 13, 2, &sec))
        return false;
    return orbs3_make_utc_time(year, mon, day, hour, min, sec, t);
}

bool orbs3_http_parse_rfc1123(std::string_view s, time_t* t)
{
    static constexpr std::string_view kDays[] = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};
    static constexpr std::string_view kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    // "Fri, 24 May 2013 00:00:00 GMT"; Python's email.utils (botocore) writes the zone as "-0000".
    std::string_view zone = s.size() > 25 ? s.substr(25) : std::string_view();
    if (zone != " GMT" && zone != " +0000" && zone != " -0000")
        return false;
    if (s.substr(3, 2) != ", " || s[7] != ' ' || s[11] != ' ' || s[16] != ' ' || s[19] != ':' || s[22] != ':')
        return false;
    if (std::find(std::begin(kDays), std::end(kDays), s.substr(0, 3)) == std::end(kDays))
        return false;
    auto m = std::find(std::begin(kMonths), std::end(kMonths), s.substr(8, 3));
    if (m == std::end(kMonths))
        return false;
    int year, day, hour, min, sec;
    if (!digits(s, 5, 2, &day) || !digits(s, 12, 4, &year) || !digits(s, 17, 2, &hour) || !digits(s, 20, 2, &min) ||
        !digits(s, 23, 2, &sec))
        return false;
    return orbs3_make_utc_time(year, static_cast<int>(m - std::begin(kMonths)) + 1, day, hour, min, sec, t);
}

std::size_t orbs3_http_base64(const uint8_t* in, std::size_t n, char* out, std::size_t room)
{
    std::size_t need = 4 * ((n + 2) / 3);
    if (n > INT_MAX || need + 1 > room)
        return 0;
    return static_cast<std::size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out), in, static_cast<int>(n)));
}
