#include "s3/orbs3_s3_sign_parts.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "core/orbs3_log.h"
#include "http/orbs3_http_response.h"
#include "memory/neo_md5.h"
#include "memory/neo_string.h"
#include "memory/orbs3_palloc.h"
#include "s3/orbs3_s3_errors.h"

namespace {

// One byte of `raw` from position *i, decoded: false when the byte is a '%' to drop.
bool next_decoded(std::string_view raw, std::size_t* i, uint8_t* out)
{
    char c = raw[*i];
    if (c != '%') {
        *out = static_cast<uint8_t>(c);
        (*i)++;
        return true;
    }
    if (*i + 2 < raw.size()) {
        int hi = neo_hex_value(raw[*i + 1]);
        int lo = neo_hex_value(raw[*i + 2]);
        if (hi >= 0 && lo >= 0) {
            *out = static_cast<uint8_t>(hi * 16 + lo);
            *i += 3;
            return true;
        }
    }
    (*i)++;
    return false;
}

void append_encoded_byte(orbs3_sign_text_t* out, uint8_t c, bool keep_slash)
{
    char enc[3];
    const std::size_t n =
        neo_pct_encode_byte(enc, c, keep_slash ? neo_pct_keep::unreserved_slash : neo_pct_keep::unreserved);
    orbs3_sign_append(out, std::string_view(enc, n));
}

int hmac(const EVP_MD* md, std::string_view key, std::string_view data, uint8_t* out, unsigned expect)
{
    if (key.size() > INT_MAX)
        return -1;
    static const char kEmpty = 0;  // OpenSSL takes a null key as "keep the previous one"
    unsigned int n = 0;
    const unsigned char* p = HMAC(md, key.data() ? key.data() : &kEmpty, static_cast<int>(key.size()),
                                  reinterpret_cast<const unsigned char*>(data.data() ? data.data() : &kEmpty),
                                  data.size(), out, &n);
    return p != nullptr && n == expect ? 0 : -1;
}


}  // namespace


void orbs3_sign_append(orbs3_sign_text_t* t, std::string_view s)
{
    if (t->overflow)
        return;
    if (s.size() > t->cap - t->len) {
        t->overflow = true;
        return;
    }
    if (!s.empty())
        std::memcpy(t->data + t->len, s.data(), s.size());
    t->len += s.size();
}

void orbs3_uri_encode(orbs3_sign_text_t* out, std::string_view text, bool keep_slash)
{
    for (char c : text)
        append_encoded_byte(out, static_cast<uint8_t>(c), keep_slash);
}

std::size_t orbs3_uri_decode(char* text, std::size_t len)
{
    std::string_view raw(text, len);
    std::size_t w = 0;
    std::size_t i = 0;
    while (i < len) {
        uint8_t c;
        if (next_decoded(raw, &i, &c))
            text[w++] = static_cast<char>(c);  // w never passes i: a decoded byte takes one or three
    }
    return w;
}

void orbs3_sign_append_reencoded(orbs3_sign_text_t* out, std::string_view raw, bool keep_slash)
{
    std::size_t i = 0;
    while (i < raw.size()) {
        uint8_t c;
        if (next_decoded(raw, &i, &c))
            append_encoded_byte(out, c, keep_slash);
    }
}

// ---- the query ----

int orbs3_sign_parse_query(orbs3_http_request_t* r, orbs3_sign_query_t* q)
{
    q->elts = nullptr;
    q->n = 0;
    if (r->args.data == nullptr || r->args.len == 0)
        return 0;
    std::string_view args(r->args.data, r->args.len);

    std::size_t pieces = 1 + static_cast<std::size_t>(std::count(args.begin(), args.end(), '&'));
    q->elts = static_cast<orbs3_sign_param_t*>(orbs3_palloc(r->pool, pieces * sizeof(orbs3_sign_param_t)));
    auto* text = static_cast<char*>(orbs3_pnalloc(r->pool, args.size()));
    if (q->elts == nullptr || text == nullptr)
        return -1;

    while (!args.empty()) {
        std::size_t amp = args.find('&');
        std::string_view piece = args.substr(0, amp);
        args.remove_prefix(amp == std::string_view::npos ? args.size() : amp + 1);
        if (piece.empty())
            continue;

        std::size_t eq = piece.find('=');
        std::string_view name = piece.substr(0, eq);
        std::string_view value = eq == std::string_view::npos ? std::string_view() : piece.substr(eq + 1);

        orbs3_sign_param_t* p = &q->elts[q->n++];
        std::memcpy(text, name.data(), name.size());
        p->name = std::string_view(text, orbs3_uri_decode(text, name.size()));
        text += name.size();
        if (!value.empty())
            std::memcpy(text, value.data(), value.size());
        p->value = std::string_view(text, orbs3_uri_decode(text, value.size()));
        text += value.size();
        p->has_value = eq != std::string_view::npos;
    }
    return 0;
}

const orbs3_sign_param_t* orbs3_sign_query_find(const orbs3_sign_query_t* q, std::string_view name)
{
    for (std::size_t i = 0; i < q->n; i++) {
        if (q->elts[i].name == name)
            return &q->elts[i];
    }
    return nullptr;
}

int orbs3_sign_canonical_query(orbs3_http_request_t* r, const orbs3_sign_query_t* q, std::string_view skip,
                               orbs3_sign_text_t* out)
{
    if (q->n == 0)
        return 0;
    struct pair_t {
        std::string_view name;
        std::string_view value;
    };
    std::size_t room = 0;
    for (std::size_t i = 0; i < q->n; i++)
        room += 3 * (q->elts[i].name.size() + q->elts[i].value.size());
    auto* pairs = static_cast<pair_t*>(orbs3_palloc(r->pool, q->n * sizeof(pair_t)));
    auto* area = static_cast<char*>(orbs3_pnalloc(r->pool, room ? room : 1));
    if (pairs == nullptr || area == nullptr)
        return -1;

    // Sorted on the encoded form: encoding does not keep byte order ('~' stays, 0x7f becomes "%7F").
    orbs3_sign_text_t enc{area, room ? room : 1};
    std::size_t n = 0;
    for (std::size_t i = 0; i < q->n; i++) {
        const orbs3_sign_param_t& p = q->elts[i];
        if (!skip.empty() && p.name == skip)
            continue;
        std::size_t at = enc.len;
        orbs3_uri_encode(&enc, p.name, false);
        std::size_t mid = enc.len;
        orbs3_uri_encode(&enc, p.value, false);
        pairs[n].name = std::string_view(area + at, mid - at);
        pairs[n].value = std::string_view(area + mid, enc.len - mid);
        n++;
    }
    if (enc.overflow)
        return -1;
    std::sort(pairs, pairs + n, [](const pair_t& a, const pair_t& b) {
        return a.name != b.name ? a.name < b.name : a.value < b.value;
    });
    for (std::size_t i = 0; i < n; i++) {
        if (i != 0)
            orbs3_sign_append(out, "&");
        orbs3_sign_append(out, pairs[i].name);
        orbs3_sign_append(out, "=");
        orbs3_sign_append(out, pairs[i].value);
    }
    return 0;
}

// ---- headers ----

namespace {

bool in_signed_list(std::string_view list, std::string_view name)
{
    while (!list.empty()) {
        std::size_t semi = list.find(';');
        if (orbs3_http_iequals(orbs3_http_trim(list.substr(0, semi)), name))
            return true;
        list.remove_prefix(semi == std::string_view::npos ? list.size() : semi + 1);
    }
    return false;
}

}  // namespace

uint32_t orbs3_sign_check_bound_headers(const orbs3_http_request_t* r, std::string_view signed_headers,
                                        bool amz_bound, const char** message)
{
    constexpr std::string_view kAmz = "x-amz-";
    std::string_view found;
    orbs3_http_for_each_header(r, [&](const orbs3_header_t& h) {
        if (!found.empty())
            return;
        std::string_view k = orbs3_http_header_key(r, &h);
        const bool amz = k.size() >= kAmz.size() && orbs3_http_iequals(k.substr(0, kAmz.size()), kAmz);
        const bool steers = amz || orbs3_http_iequals(k, "orbaction") || orbs3_http_iequals(k, "x-copy-source");
        if (steers && !(amz && amz_bound) && !in_signed_list(signed_headers, k))
            found = k;
    });
    if (found.empty())
        return 0;
    ipd_debug("signature: header %.*s is not signed", static_cast<int>(found.size()), found.data());
    if (message != nullptr)
        *message = "There were headers present in the request which were not signed";
    return ORBS3_S3_ACCESS_DENIED;
}

std::size_t orbs3_sign_append_header(const orbs3_http_request_t* r, std::string_view name, bool collapse,
                                     orbs3_sign_text_t* out)
{
    std::size_t count = 0;
    orbs3_http_for_each_header(r, [&](const orbs3_header_t& h) {
        if (!orbs3_http_iequals(orbs3_http_header_key(r, &h), name))
            return;
        if (count++ != 0)
            orbs3_sign_append(out, ",");
        std::string_view v = orbs3_http_trim(orbs3_http_header_value(r, &h));
        if (!collapse) {
            orbs3_sign_append(out, v);
            return;
        }
        while (!v.empty()) {
            std::size_t run = 0;
            while (run < v.size() && !orbs3_http_blank(v[run]))
                run++;
            orbs3_sign_append(out, v.substr(0, run));
            v.remove_prefix(run);
            if (v.empty())
                break;
            orbs3_sign_append(out, " ");  // trimmed, so a run of blanks always has text behind it
            while (!v.empty() && orbs3_http_blank(v.front()))
                v.remove_prefix(1);
        }
    });
    return count;
}

// ---- dates ----

bool orbs3_sign_parse_date(std::string_view text, time_t* t)
{
    return orbs3_http_parse_iso8601(text, t) || orbs3_http_parse_rfc1123(text, t);
}

// ---- digests and compare ----

int orbs3_get_hex_sha256(std::string_view text, char dst[ORBS3_SHA256_HEX_LEN + 1])
{
    evp_md_ctx_ptr ctx = evp_md_ctx_new();
    uint8_t md[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1 ||
        (!text.empty() && EVP_DigestUpdate(ctx.get(), text.data(), text.size()) != 1) ||
        EVP_DigestFinal_ex(ctx.get(), md, &n) != 1 || n != ORBS3_SHA256_LEN)
        return -1;
    orbs3_hexdigest(md, dst);
    return 0;
}

void orbs3_hexdigest(const uint8_t md[ORBS3_SHA256_LEN], char dst[ORBS3_SHA256_HEX_LEN + 1])
{
    *neo_hex(dst, md, ORBS3_SHA256_LEN) = '\0';
}

// HMAC through the one-shot call: it keeps no state of its own that would need an owner.
int orbs3_hmac_sha256(std::string_view key, std::string_view data, uint8_t out[ORBS3_SHA256_LEN])
{
    return hmac(EVP_sha256(), key, data, out, ORBS3_SHA256_LEN);
}

int orbs3_hmac_sha1(std::string_view key, std::string_view data, uint8_t out[ORBS3_SHA1_LEN])
{
    return hmac(EVP_sha1(), key, data, out, ORBS3_SHA1_LEN);
}

bool orbs3_sign_equal(std::string_view expected, std::string_view sent)
{
    // The lengths are public (64 hex digits, 28 base64 characters); only the contents must not leak.
    if (expected.empty() || expected.size() != sent.size())
        return false;
    return CRYPTO_memcmp(expected.data(), sent.data(), expected.size()) == 0;
}
