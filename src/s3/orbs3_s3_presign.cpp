// Presigned URLs: the credentials and the signature in the query, valid until they expire.
#include <cstring>

#include "s3/orbs3_s3_errors.h"
#include "s3/orbs3_s3_sign_parts.h"

namespace {

constexpr std::string_view kNotYetValid = "Request is not valid yet";
constexpr std::string_view kExpiresTooLong =
    "X-Amz-Expires must be less than a week (in seconds); that is, the given X-Amz-Expires must be less than "
    "604800 seconds";
constexpr std::string_view kExpiresNegative = "X-Amz-Expires must be non-negative";
constexpr std::string_view kExpiresZero = "X-Amz-Expires must be greater than 0";
constexpr std::string_view kExpiresNotNumber = "X-Amz-Expires should be a number";

// A count of seconds: digits only, at most 12 of them, so that the sum with a time cannot overflow.
bool seconds(std::string_view s, int64_t* v)
{
    if (s.empty() || s.size() > 12)
        return false;
    int64_t x = 0;
    for (char c : s) {
        if (c < '0' || c > '9')
            return false;
        x = x * 10 + (c - '0');
    }
    *v = x;
    return true;
}

// Why X-Amz-Expires is refused, or an empty view with the seconds in *v. A URL lives from one second to a
// week; a URL that can never be valid is refused as malformed rather than as expired. A count of more
// digits than any week has is too long, not a wrong number.
std::string_view expires_refusal(std::string_view s, int64_t* v)
{
    const bool negative = s.size() > 1 && s[0] == '-';
    std::string_view digits = negative ? s.substr(1) : s;
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string_view::npos)
        return kExpiresNotNumber;
    if (negative)
        return kExpiresNegative;
    std::size_t lead = digits.find_first_not_of('0');
    digits = lead == std::string_view::npos ? std::string_view() : digits.substr(lead);
    if (digits.size() > 12 || !seconds(digits.empty() ? "0" : digits, v) || *v > ORBS3_SIGN_MAX_EXPIRES)
        return kExpiresTooLong;
    if (*v == 0)
        return kExpiresZero;
    return {};
}

std::string_view param(const orbs3_sign_query_t* q, std::string_view name, bool* present)
{
    const orbs3_sign_param_t* p = orbs3_sign_query_find(q, name);
    *present = p != nullptr;
    return p != nullptr ? p->value : std::string_view();
}

uint32_t presigned_v4(orbs3_http_request_t* r, const orbs3_sign_query_t* q, const char* secret, time_t now,
                      const char** message)
{
    bool has_algorithm, has_credential, has_date, has_expires, has_headers, has_signature;
    std::string_view algorithm = param(q, "X-Amz-Algorithm", &has_algorithm);
    std::string_view credential = param(q, "X-Amz-Credential", &has_credential);
    std::string_view date = param(q, "X-Amz-Date", &has_date);
    std::string_view expires_text = param(q, "X-Amz-Expires", &has_expires);
    std::string_view signed_headers = param(q, "X-Amz-SignedHeaders", &has_headers);
    std::string_view signature = param(q, "X-Amz-Signature", &has_signature);
    if (!has_algorithm || !has_credential || !has_date || !has_expires || !has_headers || !has_signature)
        return ORBS3_S3_AUTH_HEADER_MALFORMED;

    orbs3_sign_v4_t v;
    v.presigned = true;
    v.source = orbs3_sign_v4_source_of(algorithm);
    std::size_t slash = credential.find('/');
    if (v.source < 0 || slash == 0 || slash == std::string_view::npos || slash >= ORBS3_ACCESS_KEY_ID_LEN)
        return ORBS3_S3_AUTH_HEADER_MALFORMED;
    v.scope = credential.substr(slash + 1);
    v.signed_headers = signed_headers;
    v.signature = signature;
    v.date = date;
    v.payload = ORBS3_UNSIGNED_PAYLOAD;

    time_t when = 0;
    int64_t expires = 0;
    if (!orbs3_http_parse_iso8601(date, &when) || !orbs3_sign_scope_day_matches(v.scope, when))
        return ORBS3_S3_AUTH_HEADER_MALFORMED;
    std::string_view refused = expires_refusal(expires_text, &expires);
    if (!refused.empty()) {
        if (message != nullptr)
            *message = refused.data();
        return ORBS3_S3_AUTH_QUERY_MALFORMED;
    }
    // A URL signed a little ahead of this clock is accepted, as a header-signed request would be.
    if (when > now + ORBS3_SIGN_MAX_SKEW) {
        if (message != nullptr)
            *message = kNotYetValid.data();
        return ORBS3_S3_ACCESS_DENIED;
    }
    if (when + expires < now) {
        if (message != nullptr)
            *message = ORBS3_REQUEST_EXPIRED.data();
        return ORBS3_S3_ACCESS_DENIED;
    }
    if (uint32_t unbound = orbs3_sign_check_bound_headers(r, v.signed_headers, false, message); unbound != 0)
        return unbound;
    return orbs3_sign_v4_verify(&v, r, q, secret);
}

uint32_t presigned_v2(orbs3_http_request_t* r, const orbs3_sign_query_t* q, const char* secret, time_t now,
                      const char** message)
{
    bool has_key, has_expires, has_signature;
    std::string_view key = param(q, "AWSAccessKeyId", &has_key);
    std::string_view expires_text = param(q, "Expires", &has_expires);
    std::string_view signature = param(q, "Signature", &has_signature);
    int64_t expires = 0;
    if (!has_key || !has_expires || !has_signature || key.empty() || key.size() >= ORBS3_ACCESS_KEY_ID_LEN ||
        !seconds(expires_text, &expires))
        return ORBS3_S3_AUTH_HEADER_MALFORMED;
    if (expires < now) {
        if (message != nullptr)
            *message = ORBS3_REQUEST_EXPIRED.data();
        return ORBS3_S3_ACCESS_DENIED;
    }
    if (uint32_t unbound = orbs3_sign_check_bound_headers(r, {}, true, message); unbound != 0)
        return unbound;
    // Expires stands where a header-signed request has its Date.
    return orbs3_sign_v2_verify(r, q, expires_text, true, secret, signature);
}

}  // namespace

bool orbs3_sign_query_presigned(const orbs3_sign_query_t* q)
{
    return orbs3_sign_query_find(q, "X-Amz-Algorithm") != nullptr ||
           orbs3_sign_query_find(q, "X-Amz-Credential") != nullptr ||
           orbs3_sign_query_find(q, "AWSAccessKeyId") != nullptr;
}

uint32_t orbs3_sign_presigned(orbs3_http_request_t* r, const orbs3_sign_query_t* q, const char* secret, time_t now,
                              const char** message)
{
    if (orbs3_sign_query_find(q, "X-Amz-Algorithm") != nullptr ||
        orbs3_sign_query_find(q, "X-Amz-Credential") != nullptr)
        return presigned_v4(r, q, secret, now, message);
    return presigned_v2(r, q, secret, now, message);
}
