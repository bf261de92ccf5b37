// Signature Version 4 from the Authorization header, in its three dialects, and the entry points that
// choose between V4, V2 and presigned URLs.
#include "s3/orbs3_s3_signature.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>

#include "core/orbs3_log.h"
#include "s3/orbs3_s3_errors.h"
#include "s3/orbs3_s3_sign_parts.h"

namespace {

// The dialects differ only in their words; indexed by the source number.
struct dialect_t {
    std::string_view algorithm;
    std::string_view key_prefix;
    std::string_view payload_header;
    std::string_view date_header;
};

constexpr dialect_t kDialects[] = {
    {"OWS4-HMAC-SHA256", "OWS4", "x-orb-content-sha256", "date"},        // ORBS3_SIGN_OWS4
    {"OSS-HMAC-SHA256", "OSS", "x-oss-content-sha256", "x-oss-date"},    // ORBS3_SIGN_OSS
    {"AWS4-HMAC-SHA256", "AWS4", "x-amz-content-sha256", "x-amz-date"},  // ORBS3_SIGN_AWS4
};

// SHA-256 of nothing: the payload line when the dialect's payload header is absent.
constexpr std::string_view kEmptySha256 = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr std::string_view kNoDate = "AWS authentication requires a valid Date or x-amz-date header";

constexpr std::size_t kMaxSignedHeaders = ORBS3_SIGN_LIST_LEN / 2;  // "a;" is the shortest entry

std::string_view header_view(const orbs3_header_t* h)
{
    return h != nullptr && h->value.data != nullptr ? orbs3_http_trim(std::string_view(h->value.data, h->value.len))
                                                    : std::string_view();
}

// The scheme word and what follows it.
std::string_view scheme_of(std::string_view value, std::string_view* rest)
{
    value = orbs3_http_trim(value);
    std::size_t sp = value.find(' ');
    *rest = sp == std::string_view::npos ? std::string_view() : orbs3_http_trim(value.substr(sp + 1));
    return value.substr(0, sp);
}

// The V4 fields of an Authorization value: "Credential=KEY/SCOPE, SignedHeaders=a;b, Signature=HEX", with
// or without blanks behind the commas.
struct v4_fields_t {
    std::string_view key;
    std::string_view scope;
    std::string_view signed_headers;
    std::string_view signature;
    bool has_credential = false;
    bool has_signed_headers = false;
    bool has_signature = false;
};

void parse_v4_fields(std::string_view rest, v4_fields_t* f)
{
    while (!rest.empty()) {
        std::size_t comma = rest.find(',');
        std::string_view part = orbs3_http_trim(rest.substr(0, comma));
        rest.remove_prefix(comma == std::string_view::npos ? rest.size() : comma + 1);
        std::size_t eq = part.find('=');
        if (eq == std::string_view::npos)
            continue;
        std::string_view name = part.substr(0, eq);
        std::string_view value = part.substr(eq + 1);
        if (name == "Credential" && !f->has_credential) {
            f->has_credential = true;
            std::size_t slash = value.find('/');
            f->key = value.substr(0, slash);
            f->scope = slash == std::string_view::npos ? std::string_view() : value.substr(slash + 1);
        } else if (name == "SignedHeaders" && !f->has_signed_headers) {
            f->has_signed_headers = true;
            f->signed_headers = value;
        } else if (name == "Signature" && !f->has_signature) {
            f->has_signature = true;
            f->signature = value;
        }
    }
}

int copy_key(std::string_view key, char out[ORBS3_ACCESS_KEY_ID_LEN])
{
    if (key.empty() || key.size() >= ORBS3_ACCESS_KEY_ID_LEN)
        return ORBS3_AUTH_MALFORMED;
    std::memcpy(out, key.data(), key.size());
    out[key.size()] = '\0';
    return ORBS3_AUTH_FOUND;
}

int key_from_authorization(std::string_view value, char key[ORBS3_ACCESS_KEY_ID_LEN])
{
    std::string_view rest;
    std::string_view scheme = scheme_of(value, &rest);
    if (scheme.empty())
        return ORBS3_AUTH_NONE;
    if (scheme == "AWS") {
        std::size_t colon = rest.find(':');
        if (colon == std::string_view::npos)
            return ORBS3_AUTH_MALFORMED;
        return copy_key(rest.substr(0, colon), key);
    }
    if (orbs3_sign_v4_source_of(scheme) < 0)
        return ORBS3_AUTH_MALFORMED;
    v4_fields_t f;
    parse_v4_fields(rest, &f);
    if (!f.has_credential || f.scope.empty())
        return ORBS3_AUTH_MALFORMED;
    return copy_key(f.key, key);
}

int key_from_query(const orbs3_sign_query_t* q, char key[ORBS3_ACCESS_KEY_ID_LEN])
{
    const orbs3_sign_param_t* cred = orbs3_sign_query_find(q, "X-Amz-Credential");
    if (cred != nullptr) {
        std::size_t slash = cred->value.find('/');
        if (slash == std::string_view::npos)
            return ORBS3_AUTH_MALFORMED;
        return copy_key(cred->value.substr(0, slash), key);
    }
    if (orbs3_sign_query_find(q, "X-Amz-Algorithm") != nullptr)
        return ORBS3_AUTH_MALFORMED;
    const orbs3_sign_param_t* id = orbs3_sign_query_find(q, "AWSAccessKeyId");
    if (id != nullptr)
        return copy_key(id->value, key);
    return ORBS3_AUTH_NONE;
}

std::string_view authorization_of(const orbs3_http_request_t* r)
{
    return header_view(r->headers_in.authorization);
}

// The date line and the time of a header-signed V4 request. AWS4 takes x-amz-date, or else Date, whose
// time goes into the string to sign in the ISO form; the other dialects take their own header as sent.
bool v4_header_date(const orbs3_http_request_t* r, int source, char iso[17], std::string_view* line, time_t* when)
{
    const dialect_t& d = kDialects[source];
    std::string_view text;
    if (d.date_header == "date") {
        text = header_view(r->headers_in.date);
        *line = text;
        return !text.empty() && orbs3_sign_parse_date(text, when);
    }
    if (orbs3_http_find_header(r, d.date_header, &text)) {
        *line = text;
        return source == ORBS3_SIGN_AWS4 ? orbs3_http_parse_iso8601(text, when) : orbs3_sign_parse_date(text, when);
    }
    if (source != ORBS3_SIGN_AWS4)
        return false;
    text = header_view(r->headers_in.date);
    if (!orbs3_sign_parse_date(text, when))
        return false;
    struct tm tm {};
    gmtime_r(when, &tm);
    if (strftime(iso, 17, "%Y%m%dT%H%M%SZ", &tm) != 16)
        return false;
    *line = std::string_view(iso, 16);
    return true;
}

uint32_t v4_header(orbs3_http_request_t* r, int source, std::string_view rest, const char* secret, time_t now,
                   const char** message)
{
    v4_fields_t f;
    parse_v4_fields(rest, &f);
    if (!f.has_credential || !f.has_signed_headers || !f.has_signature || f.key.empty() || f.scope.empty())
        return ORBS3_S3_AUTH_HEADER_MALFORMED;
    if (f.key.size() >= ORBS3_ACCESS_KEY_ID_LEN)
        return ORBS3_S3_AUTH_HEADER_MALFORMED;

    orbs3_sign_v4_t v;
    v.source = source;
    v.scope = f.scope;
    v.signed_headers = f.signed_headers;
    v.signature = f.signature;

    char iso[17];
    time_t when = 0;
    if (!v4_header_date(r, source, iso, &v.date, &when)) {
        if (message != nullptr)
            *message = kNoDate.data();
        return ORBS3_S3_ACCESS_DENIED;
    }
    if (when < now - ORBS3_SIGN_MAX_SKEW || when > now + ORBS3_SIGN_MAX_SKEW)
        return ORBS3_S3_REQUEST_TIME_TOO_SKEWED;
    if (!orbs3_sign_scope_day_matches(v.scope, when))
        return ORBS3_S3_AUTH_HEADER_MALFORMED;

    if (!orbs3_http_find_header(r, kDialects[source].payload_header, &v.payload))
        v.payload = kEmptySha256;
    if (uint32_t unbound = orbs3_sign_check_bound_headers(r, v.signed_headers, false, message); unbound != 0)
        return unbound;

    orbs3_sign_query_t q;
    if (orbs3_sign_parse_query(r, &q) != 0)
        return ORBS3_S3_SIGNATURE_DOES_NOT_MATCH;
    return orbs3_sign_v4_verify(&v, r, &q, secret);
}

}  // namespace

// ---- building blocks ----

std::string_view orbs3_sign_v4_algorithm(int source)
{
    return source >= 0 && source <= ORBS3_SIGN_AWS4 ? kDialects[source].algorithm : std::string_view();
}

int orbs3_sign_v4_source_of(std::string_view algorithm)
{
    for (int i = 0; i <= ORBS3_SIGN_AWS4; i++) {
        if (kDialects[i].algorithm == algorithm)
            return i;
    }
    return -1;
}

bool orbs3_sign_scope_day_matches(std::string_view scope, time_t when)
{
    struct tm tm {};
    char day[9];
    if (gmtime_r(&when, &tm) == nullptr || strftime(day, sizeof day, "%Y%m%d", &tm) != 8)
        return false;
    return scope.size() > 8 && scope.substr(0, 8) == std::string_view(day, 8) && scope[8] == '/';
}

int orbs3_sign_v4_canonical(const orbs3_sign_v4_t* v, orbs3_http_request_t* r, const orbs3_sign_query_t* q,
                            orbs3_sign_text_t* out)
{
    if (v->scope.size() >= ORBS3_SIGN_LIST_LEN || v->signed_headers.size() >= ORBS3_SIGN_LIST_LEN ||
        v->payload.size() > ORBS3_SIGN_PAYLOAD_LEN)
        return -1;

    // Header names lower-cased and sorted in a copy; the list as sent may be in any order and case.
    char names_buf[ORBS3_SIGN_LIST_LEN];
    std::array<std::string_view, kMaxSignedHeaders> names;
    std::size_t n = 0;
    for (std::size_t i = 0; i < v->signed_headers.size(); i++)
        names_buf[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(v->signed_headers[i])));
    std::string_view list(names_buf, v->signed_headers.size());
    while (!list.empty()) {
        std::size_t semi = list.find(';');
        std::string_view name = orbs3_http_trim(list.substr(0, semi));
        list.remove_prefix(semi == std::string_view::npos ? list.size() : semi + 1);
        if (name.empty())
            continue;
        if (n == names.size())
            return -1;
        names[n++] = name;
    }
    std::sort(names.begin(), names.begin() + static_cast<std::ptrdiff_t>(n));

    orbs3_sign_append(out, std::string_view(r->method_name.data, r->method_name.len));
    orbs3_sign_append(out, "\n");

    // The path as sent; S3 decodes it once and encodes it again, slashes kept.
    std::string_view path(r->unparsed_uri.data ? r->unparsed_uri.data : "", r->unparsed_uri.len);
    path = path.substr(0, path.find('?'));
    if (path.empty())
        orbs3_sign_append(out, "/");
    orbs3_sign_append_reencoded(out, path, true);
    orbs3_sign_append(out, "\n");

    if (orbs3_sign_canonical_query(r, q, v->presigned ? "X-Amz-Signature" : "", out) != 0)
        return -1;
    orbs3_sign_append(out, "\n");

    for (std::size_t i = 0; i < n; i++) {
        orbs3_sign_append(out, names[i]);
        orbs3_sign_append(out, ":");
        (void)orbs3_sign_append_header(r, names[i], true, out);
        orbs3_sign_append(out, "\n");
    }
    orbs3_sign_append(out, "\n");
    for (std::size_t i = 0; i < n; i++) {
        if (i != 0)
            orbs3_sign_append(out, ";");
        orbs3_sign_append(out, names[i]);
    }
    orbs3_sign_append(out, "\n");
    orbs3_sign_append(out, v->payload);
    return out->overflow ? -1 : 0;
}

int orbs3_get_signstr(const orbs3_sign_v4_t* v, orbs3_http_request_t* r, const orbs3_sign_query_t* q,
                      orbs3_sign_text_t* out)
{
    orbs3_sign_area_t<ORBS3_SIGN_CANONICAL_LEN> canonical;
    if (orbs3_sign_v4_canonical(v, r, q, &canonical.t) != 0) {
        ipd_debug("signature: canonical request over %zu bytes or out of memory", ORBS3_SIGN_CANONICAL_LEN);
        return -1;
    }
    ipd_debug("signature: canonical request\n%.*s", static_cast<int>(canonical.t.len), canonical.t.data);

    char hash[ORBS3_SHA256_HEX_LEN + 1];
    if (orbs3_get_hex_sha256(canonical.t.view(), hash) != 0)
        return -1;
    orbs3_sign_append(out, orbs3_sign_v4_algorithm(v->source));
    orbs3_sign_append(out, "\n");
    orbs3_sign_append(out, v->date);
    orbs3_sign_append(out, "\n");
    orbs3_sign_append(out, v->scope);
    orbs3_sign_append(out, "\n");
    orbs3_sign_append(out, std::string_view(hash, ORBS3_SHA256_HEX_LEN));
    return out->overflow ? -1 : 0;
}

int orbs3_get_signkey(int source, const char* secret, std::string_view scope, uint8_t key[ORBS3_SHA256_LEN])
{
    if (source < 0 || source > ORBS3_SIGN_AWS4 || secret == nullptr)
        return -1;
    const std::string_view prefix = kDialects[source].key_prefix;

    std::array<std::string_view, 4> parts;
    for (std::size_t i = 0; i < parts.size(); i++) {
        std::size_t slash = scope.find('/');
        if ((slash == std::string_view::npos) != (i == parts.size() - 1))
            return -1;  // not exactly four parts
        parts[i] = scope.substr(0, slash);
        scope.remove_prefix(slash == std::string_view::npos ? scope.size() : slash + 1);
    }

    // Secrets are at most 64 bytes in the tenant records; 256 leaves room and keeps the area bounded.
    char text[256];
    std::size_t slen = std::strlen(secret);
    if (prefix.size() + slen > sizeof text)
        return -1;
    std::memcpy(text, prefix.data(), prefix.size());
    std::memcpy(text + prefix.size(), secret, slen);

    uint8_t k[ORBS3_SHA256_LEN];
    int rc = orbs3_hmac_sha256(std::string_view(text, prefix.size() + slen), parts[0], k);
    OPENSSL_cleanse(text, sizeof text);
    const auto kv = [&] { return std::string_view(reinterpret_cast<const char*>(k), sizeof k); };
    for (std::size_t i = 1; rc == 0 && i < parts.size(); i++)
        rc = orbs3_hmac_sha256(kv(), parts[i], k);
    if (rc == 0)
        std::memcpy(key, k, sizeof k);
    OPENSSL_cleanse(k, sizeof k);
    return rc;
}

int orbs3_get_signature(const uint8_t key[ORBS3_SHA256_LEN], std::string_view sign_string,
                        char out[ORBS3_SHA256_HEX_LEN + 1])
{
    uint8_t md[ORBS3_SHA256_LEN];
    if (orbs3_hmac_sha256(std::string_view(reinterpret_cast<const char*>(key), ORBS3_SHA256_LEN), sign_string, md) != 0)
        return -1;
    orbs3_hexdigest(md, out);
    return 0;
}

namespace {

// The key of a (dialect, secret, scope) stays the same for a whole day, and a client signs request after
// request with it: each thread keeps the last one it derived, as the SDKs do on their side, and saves the
// four HMACs of the derivation. The entry holds what the key is worth anyway: the secret it came from.
struct signing_key_cache {
    int source = -1;
    std::size_t secret_len = 0;
    std::size_t scope_len = 0;
    char secret[128];
    char scope[128];
    uint8_t key[ORBS3_SHA256_LEN];
};

int signing_key(int source, const char* secret, std::string_view scope, uint8_t key[ORBS3_SHA256_LEN])
{
    thread_local signing_key_cache cache;
    const std::size_t slen = secret != nullptr ? std::strlen(secret) : 0;
    const bool cacheable = secret != nullptr && slen < sizeof cache.secret && scope.size() < sizeof cache.scope;
    if (cacheable && cache.source == source && cache.secret_len == slen && cache.scope_len == scope.size() &&
        std::memcmp(cache.secret, secret, slen) == 0 && std::memcmp(cache.scope, scope.data(), scope.size()) == 0) {
        std::memcpy(key, cache.key, ORBS3_SHA256_LEN);
        return 0;
    }
    if (orbs3_get_signkey(source, secret, scope, key) != 0)
        return -1;
    if (cacheable) {
        cache.source = source;
        cache.secret_len = slen;
        cache.scope_len = scope.size();
        std::memcpy(cache.secret, secret, slen);
        std::memcpy(cache.scope, scope.data(), scope.size());
        std::memcpy(cache.key, key, ORBS3_SHA256_LEN);
    }
    return 0;
}

}  // namespace

uint32_t orbs3_sign_v4_verify(const orbs3_sign_v4_t* v, orbs3_http_request_t* r, const orbs3_sign_query_t* q,
                              const char* secret)
{
    orbs3_sign_area_t<ORBS3_SIGN_STRING_LEN> sts;
    uint8_t key[ORBS3_SHA256_LEN];
    char expected[ORBS3_SHA256_HEX_LEN + 1];
    if (orbs3_get_signstr(v, r, q, &sts.t) != 0 || signing_key(v->source, secret, v->scope, key) != 0)
        return ORBS3_S3_SIGNATURE_DOES_NOT_MATCH;
    int rc = orbs3_get_signature(key, sts.t.view(), expected);
    OPENSSL_cleanse(key, sizeof key);
    if (rc != 0)
        return ORBS3_S3_SIGNATURE_DOES_NOT_MATCH;
    if (!orbs3_sign_equal(std::string_view(expected, ORBS3_SHA256_HEX_LEN), v->signature)) {
        ipd_debug("signature: V4 mismatch; string to sign\n%.*s", static_cast<int>(sts.t.len), sts.t.data);
        return ORBS3_S3_SIGNATURE_DOES_NOT_MATCH;
    }
    return 0;
}

// ---- entry points ----

int orbs3_s3_request_access_key(orbs3_http_request_t* r, char key[ORBS3_ACCESS_KEY_ID_LEN])
{
    std::string_view auth = authorization_of(r);
    if (!auth.empty())
        return key_from_authorization(auth, key);
    orbs3_sign_query_t q;
    if (orbs3_sign_parse_query(r, &q) != 0)
        return ORBS3_AUTH_MALFORMED;
    return key_from_query(&q, key);
}

uint32_t orbs3_s3_authenticate(orbs3_http_request_t* r, const char* secret, time_t now, const char** message)
{
    if (message != nullptr)
        *message = nullptr;
    if (r == nullptr || secret == nullptr)
        return ORBS3_S3_SIGNATURE_DOES_NOT_MATCH;

    std::string_view auth = authorization_of(r);
    if (!auth.empty()) {
        std::string_view rest;
        std::string_view scheme = scheme_of(auth, &rest);
        if (scheme == "AWS")
            return orbs3_sign_v2_header(r, rest, secret, now, message);
        int source = orbs3_sign_v4_source_of(scheme);
        if (source < 0)
            return ORBS3_S3_AUTH_HEADER_MALFORMED;
        return v4_header(r, source, rest, secret, now, message);
    }

    orbs3_sign_query_t q;
    if (orbs3_sign_parse_query(r, &q) != 0)
        return ORBS3_S3_SIGNATURE_DOES_NOT_MATCH;
    if (orbs3_sign_query_presigned(&q))
        return orbs3_sign_presigned(r, &q, secret, now, message);
    return ORBS3_S3_ACCESS_DENIED;  // no credentials at all: there is no anonymous access
}

bool orbs3_s3_streaming_payload(const orbs3_http_request_t* r)
{
    std::string_view v;
    return r != nullptr && orbs3_http_find_header(r, "x-amz-content-sha256", &v) && v.starts_with("STREAMING-");
}
