// Reading request headers as the client sent them: lookup by name in any case, blanks, the two date
// forms requests carry (RFC 1123 and the compact x-amz-date form) and the base64 that header values use
// for binary (Content-MD5, checksums, V2 signatures). Every layer above http reads headers through these.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string_view>

#include "http/orbs3_http_request.h"

// The name and the value of a header record as the client sent them. The parser leaves both in
// header_in with a NUL behind, and some handlers set a len to 0 once they are done with it (Connection,
// Cookie); such a field is measured again up to that NUL, never beyond header_in.
[[nodiscard]] std::string_view orbs3_http_header_key(const orbs3_http_request_t* r, const orbs3_header_t* h);
[[nodiscard]] std::string_view orbs3_http_header_value(const orbs3_http_request_t* r, const orbs3_header_t* h);

// Blank is space or tab; the text without surrounding blanks; equal ignoring ASCII case.
[[nodiscard]] bool orbs3_http_blank(char c);
[[nodiscard]] std::string_view orbs3_http_trim(std::string_view s);
[[nodiscard]] bool orbs3_http_iequals(std::string_view a, std::string_view b);
// The first header named `name` (any case), its value without surrounding blanks. False when absent.
[[nodiscard]] bool orbs3_http_find_header(const orbs3_http_request_t* r, std::string_view name,
                                          std::string_view* value);

// Calls f on every header record in arrival order.
template <typename F>
void orbs3_http_for_each_header(const orbs3_http_request_t* r, F&& f)
{
    for (const orbs3_list_part_t* part = &r->headers_in.headers.part; part != nullptr; part = part->next) {
        const auto* h = static_cast<const orbs3_header_t*>(part->elts);
        for (uint32_t i = 0; h != nullptr && i < part->nelts; i++)
            f(h[i]);
    }
}

// "YYYYMMDDTHHMMSSZ".
[[nodiscard]] bool orbs3_http_parse_iso8601(std::string_view text, time_t* t);
// RFC 1123, "Fri, 24 May 2013 00:00:00 GMT".
[[nodiscard]] bool orbs3_http_parse_rfc1123(std::string_view text, time_t* t);

// Standard base64 with padding and a NUL; the length, or 0 when `room` is too small.
std::size_t orbs3_http_base64(const uint8_t* in, std::size_t n, char* out, std::size_t room);
