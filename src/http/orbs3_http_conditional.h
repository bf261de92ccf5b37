// Conditional GET and HEAD: If-Match, If-None-Match, If-Modified-Since and If-Unmodified-Since against
// an existing object's ETag and Last-Modified, in the order S3 applies them. Conditional writes
// (PutObject, CompleteMultipartUpload): If-Match and If-None-Match against what the key holds.
#pragma once

#include <ctime>
#include <string_view>

// The four header values as sent; an empty view is a header that is absent (an empty value counts as
// absent too).
struct orbs3_conditional_t {
    std::string_view if_match;
    std::string_view if_none_match;
    std::string_view if_modified_since;
    std::string_view if_unmodified_since;
};

enum {
    ORBS3_CONDITIONAL_PROCEED = 0,
    ORBS3_CONDITIONAL_NOT_MODIFIED = 304,
    ORBS3_CONDITIONAL_PRECONDITION_FAILED = 412,
};

// 0 to serve the object, 304 or 412. `etag` is the object's ETag without quotes (quotes are tolerated);
// `mtime` its Last-Modified in seconds. A date that does not parse leaves its condition out.
[[nodiscard]] int orbs3_http_conditional_result(const orbs3_conditional_t* c, std::string_view etag, time_t mtime);

enum {
    ORBS3_WRITE_CONDITION_PROCEED = 0,
    ORBS3_WRITE_CONDITION_NO_SUCH_KEY = 404,
    ORBS3_WRITE_CONDITION_FAILED = 412,
    ORBS3_WRITE_CONDITION_NOT_IMPLEMENTED = 501,
};

// Whether a write carries a condition at all (If-Match or If-None-Match with a value).
[[nodiscard]] bool orbs3_http_write_conditional(const orbs3_conditional_t* c);

// A write's conditions against the key: `exists` whether it holds an object, `etag` that object's ETag
// (empty when unknown, which no tag but "*" matches). As S3: If-None-Match takes only "*" (501
// otherwise) and fails on any object; If-Match fails with 404 when there is no object and with 412 when
// the ETag is not among those listed. The dates are not looked at.
[[nodiscard]] int orbs3_http_write_condition_result(const orbs3_conditional_t* c, bool exists, std::string_view etag);

// Whether an If-Match / If-None-Match list names `etag`: comma-separated entity tags, quoted or bare, or
// "*" for any object. A W/ tag matches only when `weak` (If-None-Match compares weakly, If-Match strongly).
[[nodiscard]] bool orbs3_http_etag_list_match(std::string_view list, std::string_view etag, bool weak);

// An HTTP-date: IMF-fixdate ("Sun, 06 Nov 1994 08:49:37 GMT"), or the obsolete RFC 850
// ("Sunday, 06-Nov-94 08:49:37 GMT") and asctime ("Sun Nov  6 08:49:37 1994") forms. Whitespace around
// it is passed over. False when it is none of them.
[[nodiscard]] bool orbs3_http_parse_date(std::string_view text, time_t* t);
