// Request signatures: which access key a request names, and whether the request was signed with that
// key's secret. Signature Version 4 in three dialects (AWS4, OSS, the system's own OWS4) from the
// Authorization header, Signature Version 2 from the header, and both versions as presigned URLs.
//
// The canonical request follows the published AWS rules, so that requests of real clients verify:
// path and query decoded once and re-encoded, header values with their runs of blanks collapsed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string_view>

struct orbs3_http_request_t;

inline constexpr std::size_t ORBS3_ACCESS_KEY_ID_LEN = 48;  // buffer incl. NUL

// Results of orbs3_s3_request_access_key.
inline constexpr int ORBS3_AUTH_FOUND = 0;
inline constexpr int ORBS3_AUTH_NONE = 1;       // neither an Authorization header nor presigned parameters
inline constexpr int ORBS3_AUTH_MALFORMED = 2;  // credentials that cannot be read

// The access key the request names: from Authorization ("AWS4-HMAC-SHA256 Credential=KEY/...", the OWS4 and
// OSS forms alike, "AWS KEY:sig") or, when that header is absent or empty, from a presigned query
// (X-Amz-Credential, AWSAccessKeyId). A key of 48 bytes or more, an unknown scheme such as "Bearer x" or a
// missing Credential= are ORBS3_AUTH_MALFORMED.
[[nodiscard]] int orbs3_s3_request_access_key(orbs3_http_request_t* r, char key[ORBS3_ACCESS_KEY_ID_LEN]);

// Verifies the request's signature with `secret` at time `now`: 0 when valid, else one of the S3 status
// codes ORBS3_S3_SIGNATURE_DOES_NOT_MATCH, ORBS3_S3_REQUEST_TIME_TOO_SKEWED, ORBS3_S3_ACCESS_DENIED or
// ORBS3_S3_AUTH_HEADER_MALFORMED. *message (when given) gets the text to send instead of the status's own
// message, or null: "Request has expired" for an expired presigned URL.
[[nodiscard]] uint32_t orbs3_s3_authenticate(orbs3_http_request_t* r, const char* secret, time_t now,
                                             const char** message);

// True when x-amz-content-sha256 announces a chunk-signed or trailer body ("STREAMING-..."): the header
// signature is only the seed, and the body's framing carries more signatures.
[[nodiscard]] bool orbs3_s3_streaming_payload(const orbs3_http_request_t* r);

// ---- building blocks ----

// The dialects of Version 4, told apart by the Authorization value's scheme.
inline constexpr int ORBS3_SIGN_OWS4 = 0;
inline constexpr int ORBS3_SIGN_OSS = 1;
inline constexpr int ORBS3_SIGN_AWS4 = 2;

// A text area of fixed size. An append that does not fit sets `overflow` and adds nothing, so an
// oversize request ends in a failed check, never a write past the area.
struct orbs3_sign_text_t {
    char* data;
    std::size_t cap;
    std::size_t len = 0;
    bool overflow = false;

    std::string_view view() const { return {data, len}; }
};
void orbs3_sign_append(orbs3_sign_text_t* t, std::string_view s);

// Appends `text` encoded by the AWS rules: A-Z a-z 0-9 - _ . ~ stay, every other byte becomes %XX in
// upper case; '/' stays too when keep_slash is set (paths).
void orbs3_uri_encode(orbs3_sign_text_t* out, std::string_view text, bool keep_slash);
// Decodes %XX (either case) in place and returns the new length. A '%' without two hex digits behind it
// is dropped. '+' stays '+': S3 clients send a space as %20.
[[nodiscard]] std::size_t orbs3_uri_decode(char* text, std::size_t len);

inline constexpr std::size_t ORBS3_SHA256_LEN = 32;
inline constexpr std::size_t ORBS3_SHA256_HEX_LEN = 64;
// 64 lower-case hex digits and a NUL. 0, or -1 when the digest fails.
[[nodiscard]] int orbs3_get_hex_sha256(std::string_view text, char dst[ORBS3_SHA256_HEX_LEN + 1]);
void orbs3_hexdigest(const uint8_t md[ORBS3_SHA256_LEN], char dst[ORBS3_SHA256_HEX_LEN + 1]);

// The signing key of a dialect: HMAC-SHA256 chained over the scope's date, region, service and closing
// word, starting from the dialect's prefix and the secret. `scope` is "date/region/service/word".
// 0, or -1 when the scope has not four parts or HMAC fails.
[[nodiscard]] int orbs3_get_signkey(int source, const char* secret, std::string_view scope,
                                    uint8_t key[ORBS3_SHA256_LEN]);
// Lower-case hex HMAC-SHA256 of the string to sign. 0 or -1.
[[nodiscard]] int orbs3_get_signature(const uint8_t key[ORBS3_SHA256_LEN], std::string_view sign_string,
                                      char out[ORBS3_SHA256_HEX_LEN + 1]);

// ---- the decoded query, for the signature checks and for handlers that read a parameter ----

struct orbs3_sign_param_t {
    std::string_view name;   // decoded, in the request's pool
    std::string_view value;  // decoded; empty for a parameter without '='
    bool has_value;          // the parameter was sent with '='
};

struct orbs3_sign_query_t {
    orbs3_sign_param_t* elts = nullptr;
    std::size_t n = 0;
};

// Cuts r->args at '&' (empty pieces are skipped) and decodes names and values into the request's pool.
// 0, or -1 when the pool is out of memory.
[[nodiscard]] int orbs3_sign_parse_query(orbs3_http_request_t* r, orbs3_sign_query_t* q);
// The first parameter named exactly `name`, or null.
[[nodiscard]] const orbs3_sign_param_t* orbs3_sign_query_find(const orbs3_sign_query_t* q, std::string_view name);
