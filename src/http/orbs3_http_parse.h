// The request-head parser: two byte-driven machines (request line, header lines) that can stop at the end
// of the bytes at hand and go on later, the URI normaliser and the case-insensitive helpers of the header
// handlers. Everything works in place on the request's header_in buffer.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "http/orbs3_http_request.h"
#include "memory/orbs3_palloc.h"

// Results of the machines.
inline constexpr int ORBS3_OK = 0;
inline constexpr int ORBS3_PARSE_DONE = 1;  // the blank line ending the head was read
inline constexpr int ORBS3_AGAIN = -2;      // the input ended inside a line; a later call goes on
inline constexpr int ORBS3_PARSE_BAD_METHOD = 10;
inline constexpr int ORBS3_PARSE_BAD_REQUEST = 11;
inline constexpr int ORBS3_PARSE_BAD_09_METHOD = 12;  // a line without version whose method is not GET
inline constexpr int ORBS3_PARSE_BAD_HEADER = 13;
// The whole-head test's refusal of a head whose body framing is in doubt.
inline constexpr int ORBS3_HTTP_BAD_FRAMING = 400;

namespace orbs3_parse_tables {

constexpr std::array<uint32_t, 8> make_usual()
{
    std::array<uint32_t, 8> t{};
    for (unsigned c = 0; c < 256; c++)
        t[c >> 5] |= 1u << (c & 31);
    for (unsigned char c : {'\0', '\n', '\r', ' ', '#', '%', '+', '.', '/', '?'})
        t[c >> 5] &= ~(1u << (c & 31));
    return t;
}

constexpr std::array<uint8_t, 256> make_lowcase()
{
    std::array<uint8_t, 256> t{};
    for (unsigned c = 'a'; c <= 'z'; c++)
        t[c] = static_cast<uint8_t>(c);
    for (unsigned c = 'A'; c <= 'Z'; c++)
        t[c] = static_cast<uint8_t>(c | 0x20);
    for (unsigned c = '0'; c <= '9'; c++)
        t[c] = static_cast<uint8_t>(c);
    t['-'] = '-';
    return t;
}

}  // namespace orbs3_parse_tables

// Path bytes that need no further look while a path is scanned: all but NUL, LF, CR, space, '#', '%',
// '+', '.', '/' and '?'.
inline constexpr std::array<uint32_t, 8> usual = orbs3_parse_tables::make_usual();
// Header-name bytes: letters folded to lower case, digits and '-' as they are, every other byte 0.
inline constexpr std::array<uint8_t, 256> lowcase = orbs3_parse_tables::make_lowcase();

constexpr bool orbs3_usual(uint8_t c)
{
    return (usual[c >> 5] & (1u << (c & 31))) != 0;
}

static_assert(orbs3_usual('a') && orbs3_usual(0x80) && orbs3_usual('~') && !orbs3_usual('%') &&
              !orbs3_usual('?') && !orbs3_usual('\0'));
static_assert(lowcase['Q'] == 'q' && lowcase['-'] == '-' && lowcase['_'] == 0 && lowcase[':'] == 0 &&
              lowcase[0xC4] == 0);

// Length of the head, up to and including its final LF, or 0 while it is incomplete. Leading white space
// (space, tab, CR, LF, VT, FF) counts into the length. A NUL before the end means the head never completes.
[[nodiscard]] std::size_t orbs3_check_head(const uint8_t* buffer, std::size_t length);
// The same on the bytes from start up to end.
[[nodiscard]] std::size_t http_header_complete(const uint8_t* start, const uint8_t* end);

// Parses the complete head in r->header_in: request line, URI, header records with their handlers, the
// url. 0, or -1 when the request is to be dropped without a reply.
[[nodiscard]] int parser_http_request_handler(orbs3_http_request_t* r);

// Request-line machine from b->pos up to b->last; b->pos ends behind the line. 0, -2, 10, 11 or 12.
[[nodiscard]] int orbs3_http_parse_request_line(orbs3_http_request_t* r, orbs3_buf_t* b);
// Header-line machine: one line per call. 0 (a header), 1 (the blank line), -2 or 13.
[[nodiscard]] int orbs3_http_parse_header_line(orbs3_http_request_t* r, orbs3_buf_t* b, unsigned allow_underscores);

// uri, args, exten and unparsed_uri from the scan marks; a complex or quoted path is normalised into
// the pool. 0 or -1.
[[nodiscard]] int orbs3_http_process_request_uri(orbs3_http_request_t* r);
// Decodes %XX, resolves dot segments and (with merge_slashes) "//" from uri_start..uri_end into
// uri.data, which has room for uri.len + 1 bytes. 0, or 11 for a bad escape, a NUL or a climb above root.
[[nodiscard]] int orbs3_http_parse_complex_uri(orbs3_http_request_t* r, unsigned merge_slashes);
// Cuts the next cookie off the value: leading blanks and ';' are skipped (value moves along), then
// header_name_start..header_name_end is the name and header_start..header_end the value (both marks
// null for a cookie without '='). Returns the bytes from the name's start to header_end.
std::size_t orbs3_http_parse_cookie(orbs3_http_request_t* r, orbs3_str_t* value);
// Whole-head test. 0; -1 (dropped without a reply) without a server name, for a version above 1.0
// without Host, or TRACE; ORBS3_HTTP_BAD_FRAMING (answered 400, then the connection closes) where the end
// of the body is in doubt: an unreadable or disputed Content-Length, a Transfer-Encoding other than
// exactly "chunked" or "identity", a repeated Transfer-Encoding, or Transfer-Encoding together with
// Content-Length. "chunked" sets headers_in.chunked and content_length -1.
[[nodiscard]] int orbs3_http_process_request_header(orbs3_http_request_t* r);

// Compares n bytes with A-Z folded, stopping at a NUL in s1. The difference of the first unequal bytes.
[[nodiscard]] int orbs3_strncasecmp(const char* s1, const char* s2, std::size_t n);
// needle (n = its length - 1) within [start, end), any case; null when absent.
[[nodiscard]] const char* orbs3_strlcasestrn(const char* start, const char* end, const char* needle,
                                             std::size_t n);
