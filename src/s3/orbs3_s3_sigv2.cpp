// Signature Version 2: base64 HMAC-SHA1 over method, Content-MD5, Content-Type, date, the x-amz-*
// headers and the resource with its sub-resources.
#include <algorithm>
#include <cctype>
#include <cstring>

#include "core/orbs3_log.h"
#include "s3/orbs3_s3_errors.h"
#include "s3/orbs3_s3_sign_parts.h"

namespace {

// The query parameters that name a sub-resource and so belong to the signed resource: those of the S3
// documentation and those botocore's signer adds. Sorted, for the binary search.
constexpr std::string_view kSubResources[] = {
    "accelerate",
    "acl",
    "analytics",
    "cors",
    "defaultObjectAcl",
    "delete",
    "inventory",
    "lifecycle",
    "location",
    "logging",
    "metrics",
    "notification",
    "object-lock",
    "partNumber",
    "policy",
    "replication",
    "requestPayment",
    "response-cache-control",
    "response-content-disposition",
    "response-content-encoding",
    "response-content-language",
    "response-content-type",
    "response-expires",
    "restore",
    "select",
    "select-type",
    "storageClass",
    "tagging",
    "torrent",
    "uploadId",
    "uploads",
    "versionId",
    "versioning",
    "versions",
    "website",
};

constexpr std::string_view kAmzPrefix = "x-amz-";
constexpr std::string_view kNoDate = "AWS authentication requires a valid Date or x-amz-date header";

bool sub_resource(std::string_view name)
{
    return std::binary_search(std::begin(kSubResources), std::end(kSubResources), name);
}

bool amz_name(std::string_view name)
{
    return name.size() > kAmzPrefix.size() && strncasecmp(name.data(), kAmzPrefix.data(), kAmzPrefix.size()) == 0;
}

// Content-MD5 or Content-Type: the header, or for a presigned URL the parameter a signer moved there.
void append_standard(orbs3_http_request_t* r, const orbs3_sign_query_t* q, std::string_view name, bool presigned,
                     orbs3_sign_text_t* out)
{
    std::string_view v;
    if (orbs3_http_find_header(r, name, &v)) {
        orbs3_sign_append(out, v);
    } else if (presigned) {
        for (std::size_t i = 0; i < q->n; i++) {
            if (orbs3_http_iequals(q->elts[i].name, name)) {
                orbs3_sign_append(out, orbs3_http_trim(q->elts[i].value));
                break;
            }
        }
    }
    orbs3_sign_append(out, "\n");
}

// The x-amz-* lines: names lower-cased, sorted, each once, with its values joined by ','.
int append_amz_headers(orbs3_http_request_t* r, const orbs3_sign_query_t* q, bool presigned, orbs3_sign_text_t* out)
{
    std::size_t count = 0;
    orbs3_http_for_each_header(r, [&](const orbs3_header_t& h) { count += amz_name(orbs3_http_header_key(r, &h)); });
    if (presigned) {
        for (std::size_t i = 0; i < q->n; i++)
            count += amz_name(q->elts[i].name);
    }
    if (count == 0)
        return 0;

    auto* names = static_cast<std::string_view*>(orbs3_palloc(r->pool, count * sizeof(std::string_view)));
    if (names == nullptr)
        return -1;
    std::size_t n = 0;
    int rc = 0;
    const auto add = [&](std::string_view name) {
        auto* low = static_cast<char*>(orbs3_pnalloc(r->pool, name.size()));
        if (low == nullptr) {
            rc = -1;
            return;
        }
        for (std::size_t i = 0; i < name.size(); i++)
            low[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(name[i])));
        names[n++] = std::string_view(low, name.size());
    };
    orbs3_http_for_each_header(r, [&](const orbs3_header_t& h) {
        std::string_view k = orbs3_http_header_key(r, &h);
        if (amz_name(k))
            add(k);
    });
    for (std::size_t i = 0; presigned && i < q->n; i++) {
        if (amz_name(q->elts[i].name))
            add(q->elts[i].name);
    }
    if (rc != 0)
        return -1;
    std::sort(names, names + n);
    n = static_cast<std::size_t>(std::unique(names, names + n) - names);

    for (std::size_t i = 0; i < n; i++) {
        orbs3_sign_append(out, names[i]);
        orbs3_sign_append(out, ":");
        std::size_t values = orbs3_sign_append_header(r, names[i], false, out);
        for (std::size_t j = 0; presigned && j < q->n; j++) {
            if (!orbs3_http_iequals(q->elts[j].name, names[i]))
                continue;
            if (values++ != 0)
                orbs3_sign_append(out, ",");
            orbs3_sign_append(out, orbs3_http_trim(q->elts[j].value));
        }
        orbs3_sign_append(out, "\n");
    }
    return 0;
}

// The resource: for a virtual-host request the bucket from the Host name in front, then the path as
// sent, then the sub-resources sorted by name ("?acl&versionId=v", values decoded).
int append_resource(orbs3_http_request_t* r, const orbs3_sign_query_t* q, orbs3_sign_text_t* out, unsigned form)
{
    if (r->host_style == ORBS3_HOST_STYLE_VIRTUAL && r->headers_in.host != nullptr &&
        r->headers_in.host->value.data != nullptr) {
        std::string_view host(r->headers_in.host->value.data, r->headers_in.host->value.len);
        host = orbs3_http_trim(host);
        host = host.substr(0, host.find_first_of(".:"));
        if (!host.empty()) {
            orbs3_sign_append(out, "/");
            orbs3_sign_append(out, host);
        }
    }
    std::string_view path(r->unparsed_uri.data ? r->unparsed_uri.data : "", r->unparsed_uri.len);
    path = path.substr(0, path.find('?'));
    const bool virtual_root = r->host_style == ORBS3_HOST_STYLE_VIRTUAL && (path.empty() || path == "/");
    if (virtual_root && (form & ORBS3_SIGN_V2_BUCKET_SLASH)) {
        // "/bucket" rather than "/bucket/"
    } else {
        orbs3_sign_append(out, path.empty() ? std::string_view("/") : path);
        if (form & ORBS3_SIGN_V2_BUCKET_SLASH)
            orbs3_sign_append(out, "/");
    }
    if (std::size_t literal = form >> 1; literal != 0 && literal <= q->n) {
        const orbs3_sign_param_t& p = q->elts[literal - 1];
        orbs3_sign_append(out, "?");
        orbs3_sign_append(out, p.name);
        if (p.has_value) {
            orbs3_sign_append(out, "=");
            orbs3_sign_append(out, p.value);
        }
    }

    std::size_t count = 0;
    for (std::size_t i = 0; i < q->n; i++)
        count += sub_resource(q->elts[i].name);
    if (count == 0)
        return 0;
    auto* subs = static_cast<const orbs3_sign_param_t**>(orbs3_palloc(r->pool, count * sizeof(orbs3_sign_param_t*)));
    if (subs == nullptr)
        return -1;
    std::size_t n = 0;
    for (std::size_t i = 0; i < q->n; i++) {
        if (sub_resource(q->elts[i].name))
            subs[n++] = &q->elts[i];
    }
    // Repeated names keep the order they were sent in, as the signers do.
    std::stable_sort(subs, subs + n,
                     [](const orbs3_sign_param_t* a, const orbs3_sign_param_t* b) { return a->name < b->name; });
    for (std::size_t i = 0; i < n; i++) {
        orbs3_sign_append(out, i == 0 ? "?" : "&");
        orbs3_sign_append(out, subs[i]->name);
        if (subs[i]->has_value) {
            orbs3_sign_append(out, "=");
            orbs3_sign_append(out, subs[i]->value);
        }
    }
    return 0;
}

}  // namespace

int orbs3_sign_v2_string(orbs3_http_request_t* r, const orbs3_sign_query_t* q, std::string_view date, bool presigned,
                         orbs3_sign_text_t* out, unsigned form)
{
    orbs3_sign_append(out, std::string_view(r->method_name.data, r->method_name.len));
    orbs3_sign_append(out, "\n");
    append_standard(r, q, "content-md5", presigned, out);
    append_standard(r, q, "content-type", presigned, out);
    orbs3_sign_append(out, date);
    orbs3_sign_append(out, "\n");
    if (append_amz_headers(r, q, presigned, out) != 0 || append_resource(r, q, out, form) != 0)
        return -1;
    return out->overflow ? -1 : 0;
}

namespace {

// A request of a bucket itself: signers name it "/bucket/" as often as "/bucket", whichever style the
// request has (botocore and s3cmd add the slash to a path-style "/bucket", botocore leaves it off a
// virtual-host listing), and both name the same bucket.
bool bare_bucket_path(const orbs3_http_request_t* r)
{
    if (r->unparsed_uri.data == nullptr)
        return false;
    std::string_view path(r->unparsed_uri.data, r->unparsed_uri.len);
    path = path.substr(0, path.find('?'));
    if (r->host_style == ORBS3_HOST_STYLE_VIRTUAL)
        return path.empty() || path == "/";
    return path.size() > 1 && path.find('/', 1) == std::string_view::npos;
}

// What botocore may have written behind the path from its request template: "list-type" (no sub-resource)
// or a sub-resource.
bool template_parameter(const orbs3_sign_param_t& p)
{
    return p.name == "list-type" || sub_resource(p.name);
}

}  // namespace

uint32_t orbs3_sign_v2_verify(orbs3_http_request_t* r, const orbs3_sign_query_t* q, std::string_view date,
                              bool presigned, const char* secret, std::string_view sent)
{
    // The forms that name this resource, the plain one first; a request signed in another form costs an
    // HMAC more per form only when it fails the first. A template puts one parameter behind the path, so
    // only the first few candidates are tried: a query of many sub-resources can't buy many HMACs.
    auto matches = [&](unsigned form) {
        orbs3_sign_area_t<ORBS3_SIGN_CANONICAL_LEN> sts;
        if (orbs3_sign_v2_string(r, q, date, presigned, &sts.t, form) != 0) {
            ipd_debug("signature: V2 string to sign over %zu bytes or out of memory", ORBS3_SIGN_CANONICAL_LEN);
            return false;
        }
        uint8_t md[ORBS3_SHA1_LEN];
        char expected[ORBS3_SIGV2_LEN + 1];
        if (orbs3_hmac_sha1(secret, sts.t.view(), md) != 0 ||
            orbs3_http_base64(md, sizeof md, expected, sizeof expected) != ORBS3_SIGV2_LEN)
            return false;
        if (orbs3_sign_equal(std::string_view(expected, ORBS3_SIGV2_LEN), sent))
            return true;
        ipd_debug("signature: V2 mismatch; string to sign\n%.*s", static_cast<int>(sts.t.len), sts.t.data);
        return false;
    };
    constexpr std::size_t kMaxLiterals = 2;
    const unsigned slash = bare_bucket_path(r) ? ORBS3_SIGN_V2_BUCKET_SLASH : 0;
    std::size_t literals = 0;
    // literal: index + 1 of the parameter written behind the path, 0 for none.
    for (std::size_t literal = 0; literal <= q->n && literals <= kMaxLiterals; literal++) {
        if (literal != 0) {
            if (!template_parameter(q->elts[literal - 1]))
                continue;
            literals++;
        }
        const unsigned base = literal != 0 ? orbs3_sign_v2_literal_form(literal - 1) : 0;
        for (unsigned bit = 0; bit <= slash; bit++) {
            if (matches(base | bit))
                return 0;
        }
    }
    return ORBS3_S3_SIGNATURE_DOES_NOT_MATCH;
}

uint32_t orbs3_sign_v2_header(orbs3_http_request_t* r, std::string_view rest, const char* secret, time_t now,
                              const char** message)
{
    std::size_t colon = rest.find(':');
    if (colon == std::string_view::npos || colon == 0 || colon >= ORBS3_ACCESS_KEY_ID_LEN)
        return ORBS3_S3_AUTH_HEADER_MALFORMED;
    std::string_view sent = orbs3_http_trim(rest.substr(colon + 1));

    // With x-amz-date the Date header is not signed: its line stays empty.
    std::string_view date_line;
    std::string_view stamp;
    time_t when = 0;
    if (!orbs3_http_find_header(r, "x-amz-date", &stamp)) {
        if (!orbs3_http_find_header(r, "date", &stamp))
            stamp = std::string_view();
        date_line = stamp;
    }
    if (!orbs3_sign_parse_date(stamp, &when)) {
        if (message != nullptr)
            *message = kNoDate.data();
        return ORBS3_S3_ACCESS_DENIED;
    }
    if (when < now - ORBS3_SIGN_MAX_SKEW || when > now + ORBS3_SIGN_MAX_SKEW)
        return ORBS3_S3_REQUEST_TIME_TOO_SKEWED;

    if (uint32_t unbound = orbs3_sign_check_bound_headers(r, {}, true, message); unbound != 0)
        return unbound;

    orbs3_sign_query_t q;
    if (orbs3_sign_parse_query(r, &q) != 0)
        return ORBS3_S3_SIGNATURE_DOES_NOT_MATCH;
    return orbs3_sign_v2_verify(r, &q, date_line, false, secret, sent);
}
