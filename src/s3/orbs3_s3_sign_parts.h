// The parts the three signature checks share (V4 header dialects, V2, presigned URLs): fixed areas,
// the decoded query, header values in canonical form, dates, digests and the constant-time compare.
// Only the signature module includes this; the rest of the server uses orbs3_s3_signature.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string_view>

#include "http/orbs3_http_header.h"
#include "http/orbs3_http_request.h"
#include "s3/orbs3_s3_signature.h"

// The canonical request of a real client can be far longer than the string to sign: a 1024-byte key
// encodes to up to 3072 bytes in the path and again in a query (copy source, prefix, marker), and S3
// admits 8 KiB of request headers, all of which a client may sign. 16 KiB holds all of that; a larger
// canonical request fails the check.
inline constexpr std::size_t ORBS3_SIGN_CANONICAL_LEN = 16384;
inline constexpr std::size_t ORBS3_SIGN_STRING_LEN = 2048;  // string to sign
inline constexpr std::size_t ORBS3_SIGN_LIST_LEN = 1024;    // signed header names and scope, incl. NUL
inline constexpr std::size_t ORBS3_SIGN_PAYLOAD_LEN = 64;   // payload hash text
inline constexpr time_t ORBS3_SIGN_MAX_SKEW = 15 * 60;
inline constexpr int64_t ORBS3_SIGN_MAX_EXPIRES = 604800;  // a presigned URL lives a week at most

inline constexpr std::size_t ORBS3_SHA1_LEN = 20;
inline constexpr std::size_t ORBS3_SIGV2_LEN = 28;  // base64 of an HMAC-SHA1

inline constexpr std::string_view ORBS3_UNSIGNED_PAYLOAD = "UNSIGNED-PAYLOAD";
inline constexpr std::string_view ORBS3_REQUEST_EXPIRED = "Request has expired";

// A fixed area with its text record; lives on the stack of the check that fills it.
template <std::size_t N>
struct orbs3_sign_area_t {
    char buf[N];
    orbs3_sign_text_t t{buf, N};

    orbs3_sign_area_t() = default;
    orbs3_sign_area_t(const orbs3_sign_area_t&) = delete;
    orbs3_sign_area_t& operator=(const orbs3_sign_area_t&) = delete;
};

// Appends `raw` decoded once and encoded again by the AWS rules: how a path as sent becomes canonical.
void orbs3_sign_append_reencoded(orbs3_sign_text_t* out, std::string_view raw, bool keep_slash);

// ---- the query (its decoding is in s3/orbs3_s3_signature.h) ----

// The canonical query of V4: every parameter but the one named `skip`, name and value encoded, sorted by
// name and then value, as name=value joined by '&'. 0, or -1 when the pool is out of memory.
[[nodiscard]] int orbs3_sign_canonical_query(orbs3_http_request_t* r, const orbs3_sign_query_t* q,
                                             std::string_view skip, orbs3_sign_text_t* out);

// ---- headers ----

// Appends the values of every header named `name` (any case), in arrival order, joined by ',', each
// without surrounding blanks and, with `collapse`, every inner run of blanks as one space. The number
// of headers found.
std::size_t orbs3_sign_append_header(const orbs3_http_request_t* r, std::string_view name, bool collapse,
                                     orbs3_sign_text_t* out);

// Every header that changes what the request does must be bound by its signature: every x-amz-*
// header, and OrbAction and X-Copy-Source, which choose the action, so that a replayed request cannot
// gain one. `signed_headers` is the V4 list as sent (names joined by ';', any case). V2 binds every
// x-amz-* header by itself (`amz_bound`) but has no place for the other two. 0, or
// ORBS3_S3_ACCESS_DENIED with S3's message in *message (when given).
[[nodiscard]] uint32_t orbs3_sign_check_bound_headers(const orbs3_http_request_t* r, std::string_view signed_headers,
                                                      bool amz_bound, const char** message);

// ---- dates ----

// Either of the forms orbs3_http_parse_iso8601 and orbs3_http_parse_rfc1123 read.
[[nodiscard]] bool orbs3_sign_parse_date(std::string_view text, time_t* t);

// ---- digests and compare ----

[[nodiscard]] int orbs3_hmac_sha256(std::string_view key, std::string_view data, uint8_t out[ORBS3_SHA256_LEN]);
[[nodiscard]] int orbs3_hmac_sha1(std::string_view key, std::string_view data, uint8_t out[ORBS3_SHA1_LEN]);
// Signatures compare in constant time over the expected length; a different length is unequal.
[[nodiscard]] bool orbs3_sign_equal(std::string_view expected, std::string_view sent);

// ---- Version 4 ----

// What a V4 check reads from the Authorization header or the presigned query. Views point into the
// header or into the decoded query in the request's pool.
struct orbs3_sign_v4_t {
    int source = ORBS3_SIGN_AWS4;
    bool presigned = false;
    std::string_view scope;           // date/region/service/closing word
    std::string_view signed_headers;  // as sent: names joined by ';'
    std::string_view signature;       // as sent
    std::string_view date;            // the date line of the string to sign
    std::string_view payload;         // the payload hash line
};

// The canonical request into `out`. 0, or -1 when a bound is passed or memory runs out.
[[nodiscard]] int orbs3_sign_v4_canonical(const orbs3_sign_v4_t* v, orbs3_http_request_t* r,
                                          const orbs3_sign_query_t* q, orbs3_sign_text_t* out);
// The string to sign into `out`: algorithm word, date, scope, hash of the canonical request. 0 or -1.
[[nodiscard]] int orbs3_get_signstr(const orbs3_sign_v4_t* v, orbs3_http_request_t* r, const orbs3_sign_query_t* q,
                                    orbs3_sign_text_t* out);
// 0 when the sent signature is the one `secret` gives, else ORBS3_S3_SIGNATURE_DOES_NOT_MATCH.
[[nodiscard]] uint32_t orbs3_sign_v4_verify(const orbs3_sign_v4_t* v, orbs3_http_request_t* r,
                                            const orbs3_sign_query_t* q, const char* secret);
// The algorithm word of a dialect.
[[nodiscard]] std::string_view orbs3_sign_v4_algorithm(int source);
// The dialect of an algorithm word, or -1.
[[nodiscard]] int orbs3_sign_v4_source_of(std::string_view algorithm);
// The scope starts with the UTC day of `when`, "YYYYMMDD/".
[[nodiscard]] bool orbs3_sign_scope_day_matches(std::string_view scope, time_t when);

// ---- Version 2 ----

// Forms of the resource that signers produce beside the plain one. Bit 0: "/bucket/" for "/bucket", or
// the reverse. The bits above name, as index + 1 into the query, a parameter that botocore writes behind
// the path as its request template has it ("/bucket?list-type=2", "/bucket?acl"), in front of the
// sub-resources (so "/bucket?acl?acl").
inline constexpr unsigned ORBS3_SIGN_V2_BUCKET_SLASH = 1;
[[nodiscard]] constexpr unsigned orbs3_sign_v2_literal_form(std::size_t index)
{
    return static_cast<unsigned>(index + 1) << 1;
}

// The string to sign of V2 into `out`: method, Content-MD5, Content-Type, `date`, the x-amz-* headers
// (and, presigned, the x-amz-* query parameters), the resource with its sub-resources. 0 or -1.
[[nodiscard]] int orbs3_sign_v2_string(orbs3_http_request_t* r, const orbs3_sign_query_t* q, std::string_view date,
                                       bool presigned, orbs3_sign_text_t* out,
                                       unsigned form = 0);
// 0 when `sent` is the base64 HMAC-SHA1 of that string with `secret`, else
// ORBS3_S3_SIGNATURE_DOES_NOT_MATCH.
[[nodiscard]] uint32_t orbs3_sign_v2_verify(orbs3_http_request_t* r, const orbs3_sign_query_t* q,
                                            std::string_view date, bool presigned, const char* secret,
                                            std::string_view sent);
// The V2 header check, time included; `rest` is what follows "AWS ", "key:signature".
[[nodiscard]] uint32_t orbs3_sign_v2_header(orbs3_http_request_t* r, std::string_view rest,
                                            const char* secret, time_t now, const char** message);

// ---- presigned URLs ----

// The query names presigned credentials: X-Amz-Algorithm / X-Amz-Credential, or AWSAccessKeyId.
[[nodiscard]] bool orbs3_sign_query_presigned(const orbs3_sign_query_t* q);
// Verifies a presigned V4 or V2 URL, expiry included.
[[nodiscard]] uint32_t orbs3_sign_presigned(orbs3_http_request_t* r, const orbs3_sign_query_t* q,
                                            const char* secret, time_t now, const char** message);
