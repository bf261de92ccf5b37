#include "http/orbs3_http_conditional.h"

#include <algorithm>
#include <iterator>

#include "http/orbs3_http_header.h"
#include "http/orbs3_http_response.h"

// The order is that of RFC 9110 section 13.2.2, which S3 follows; its GetObject and HeadObject
// references state the two pairings explicitly: If-Match true with If-Unmodified-Since false gives
// 200 and the data (a matching If-Match makes the date irrelevant), and If-None-Match false (the tag
// matches) with If-Modified-Since true gives 304 (a present If-None-Match makes the date irrelevant).
//   1. If-Match present: no match -> 412. Absent: If-Unmodified-Since, modified after it -> 412.
//   2. If-None-Match present: a match -> 304. Absent: If-Modified-Since, not modified since -> 304.
// A failed precondition of step 1 wins over a 304 of step 2.

namespace {

bool ows(char c)
{
    return c == ' ' || c == '\t';
}

std::string_view trim(std::string_view s)
{
    while (!s.empty() && ows(s.front()))
        s.remove_prefix(1);
    while (!s.empty() && ows(s.back()))
        s.remove_suffix(1);
    return s;
}

std::string_view unquote(std::string_view s)
{
    if (s.size() >= 2 && s.front() == '"' && s.back() == '"')
        return s.substr(1, s.size() - 2);
    return s;
}

constexpr std::string_view kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr std::string_view kDays[] = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};
constexpr std::string_view kLongDays[] = {"Monday", "Tuesday", "Wednesday", "Thursday",
                                          "Friday", "Saturday", "Sunday"};

template <std::size_t N>
bool one_of(const std::string_view (&names)[N], std::string_view s)
{
    return std::find(std::begin(names), std::end(names), s) != std::end(names);
}

// 1 to 12, or 0.
int month_of(std::string_view s)
{
    auto m = std::find(std::begin(kMonths), std::end(kMonths), s);
    return m == std::end(kMonths) ? 0 : static_cast<int>(m - std::begin(kMonths)) + 1;
}

// `n` digits at `at`; a leading space counts as 0 where `pad` allows it (asctime's day).
bool digits(std::string_view s, std::size_t at, std::size_t n, int* v, bool pad = false)
{
    int x = 0;
    for (std::size_t i = at; i < at + n; i++) {
        if (pad && i == at && s[i] == ' ')
            continue;
        if (s[i] < '0' || s[i] > '9')
            return false;
        x = x * 10 + (s[i] - '0');
    }
    *v = x;
    return true;
}

// "hh:mm:ss" at `at`.
bool hms(std::string_view s, std::size_t at, int* h, int* m, int* sec)
{
    return s[at + 2] == ':' && s[at + 5] == ':' && digits(s, at, 2, h) && digits(s, at + 3, 2, m) &&
           digits(s, at + 6, 2, sec);
}


// "Sunday, 06-Nov-94 08:49:37 GMT". A two-digit year below 70 is read as 20xx: no object was written
// before 1970, and a client that still sends this form is older than the next wrap.
bool parse_rfc850(std::string_view s, time_t* t)
{
    std::size_t comma = s.find(", ");
    if (comma == std::string_view::npos || !one_of(kLongDays, s.substr(0, comma)))
        return false;
    std::string_view r = s.substr(comma + 2);
    if (r.size() != 22 || r[2] != '-' || r[6] != '-' || r[9] != ' ' || r.substr(18) != " GMT")
        return false;
    int day, yy, hour, min, sec;
    int mon = month_of(r.substr(3, 3));
    if (!mon || !digits(r, 0, 2, &day) || !digits(r, 7, 2, &yy) || !hms(r, 10, &hour, &min, &sec))
        return false;
    return orbs3_make_utc_time(yy < 70 ? 2000 + yy : 1900 + yy, mon, day, hour, min, sec, t);
}

// "Sun Nov  6 08:49:37 1994"
bool parse_asctime(std::string_view s, time_t* t)
{
    if (s.size() != 24 || s[3] != ' ' || s[7] != ' ' || s[10] != ' ' || s[19] != ' ')
        return false;
    if (!one_of(kDays, s.substr(0, 3)))
        return false;
    int day, year, hour, min, sec;
    int mon = month_of(s.substr(4, 3));
    if (!mon || !digits(s, 8, 2, &day, true) || !hms(s, 11, &hour, &min, &sec) || !digits(s, 20, 4, &year))
        return false;
    return orbs3_make_utc_time(year, mon, day, hour, min, sec, t);
}

}  // namespace

bool orbs3_http_parse_date(std::string_view text, time_t* t)
{
    std::string_view s = trim(text);
    return orbs3_http_parse_rfc1123(s, t) || parse_rfc850(s, t) || parse_asctime(s, t);
}

bool orbs3_http_etag_list_match(std::string_view list, std::string_view etag, bool weak)
{
    etag = unquote(etag);
    std::size_t i = 0;
    while (i < list.size()) {
        while (i < list.size() && (ows(list[i]) || list[i] == ','))
            i++;
        if (i == list.size())
            break;
        bool is_weak = false;
        if (list.substr(i, 2) == "W/") {
            is_weak = true;
            i += 2;
        }
        std::string_view tag;
        if (i < list.size() && list[i] == '"') {
            // A quoted tag may hold commas of its own.
            std::size_t close = list.find('"', i + 1);
            if (close == std::string_view::npos)
                close = list.size();
            tag = list.substr(i + 1, close - i - 1);
            // Whatever stands between the closing quote and the next comma is passed over.
            i = close == list.size() ? close : std::min(list.find(',', close), list.size());
        } else {
            // Bare tags are not what the grammar allows, but clients send them and S3 takes them.
            std::size_t end = std::min(list.find(',', i), list.size());
            tag = trim(list.substr(i, end - i));
            i = end;
            if (!is_weak && tag == "*")
                return true;
        }
        if (tag == etag && (weak || !is_weak))
            return true;
    }
    return false;
}

int orbs3_http_conditional_result(const orbs3_conditional_t* c, std::string_view etag, time_t mtime)
{
    // A value of only whitespace is no value, as an absent header.
    const std::string_view if_match = trim(c->if_match), if_none_match = trim(c->if_none_match);
    time_t since;
    if (!if_match.empty()) {
        if (!orbs3_http_etag_list_match(if_match, etag, false))
            return ORBS3_CONDITIONAL_PRECONDITION_FAILED;
    } else if (!c->if_unmodified_since.empty() && orbs3_http_parse_date(c->if_unmodified_since, &since) &&
               mtime > since) {
        return ORBS3_CONDITIONAL_PRECONDITION_FAILED;
    }

    if (!if_none_match.empty()) {
        if (orbs3_http_etag_list_match(if_none_match, etag, true))
            return ORBS3_CONDITIONAL_NOT_MODIFIED;
    } else if (!c->if_modified_since.empty() && orbs3_http_parse_date(c->if_modified_since, &since) &&
               mtime <= since) {
        return ORBS3_CONDITIONAL_NOT_MODIFIED;
    }
    return ORBS3_CONDITIONAL_PROCEED;
}

bool orbs3_http_write_conditional(const orbs3_conditional_t* c)
{
    return !trim(c->if_match).empty() || !trim(c->if_none_match).empty();
}

int orbs3_http_write_condition_result(const orbs3_conditional_t* c, bool exists, std::string_view etag)
{
    const std::string_view if_match = trim(c->if_match), if_none_match = trim(c->if_none_match);
    // A tag in If-None-Match would ask to write only over other content, which S3 does not offer.
    if (!if_none_match.empty() && if_none_match != "*")
        return ORBS3_WRITE_CONDITION_NOT_IMPLEMENTED;
    if (!if_none_match.empty() && exists)
        return ORBS3_WRITE_CONDITION_FAILED;
    if (!if_match.empty()) {
        if (!exists)
            return ORBS3_WRITE_CONDITION_NO_SUCH_KEY;
        // An object whose ETag is not known (its record is missing) matches only "*".
        if (etag.empty() ? if_match != "*" : !orbs3_http_etag_list_match(if_match, etag, false))
            return ORBS3_WRITE_CONDITION_FAILED;
    }
    return ORBS3_WRITE_CONDITION_PROCEED;
}
