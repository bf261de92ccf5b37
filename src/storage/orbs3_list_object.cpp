#include "storage/orbs3_list_object.h"

#include <strings.h>

#include <cstring>
#include <memory>
#include <optional>

#include "access/orbs3_access_check.h"
#include "http/orbs3_http_response.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_cgi.h"
#include "s3/orbs3_s3_documents.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_bucket_ops.h"
#include "storage/orbs3_list_page.h"
#include "storage/orbs3_record.h"

namespace {

constexpr char kB64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

int b64_value(char c)
{
    const char* at = std::strchr(kB64, c);
    return c == '\0' || at == nullptr ? -1 : static_cast<int>(at - kB64);
}

const cgiFormEntry* find(const cgiFormEntry* form, const char* key)
{
    for (const cgiFormEntry* e = form; e != nullptr; e = e->next) {
        if (e->key != nullptr && std::strcmp(e->key, key) == 0)
            return e;
    }
    return nullptr;
}

int fail(orbs3_http_request_t* r, uint32_t status)
{
    std::string_view name = orbs3_str_view(r->req_msg.bucket);
    std::size_t n = std::min(name.size(), sizeof r->resp.resource - 1);
    std::memcpy(r->resp.resource, name.data(), n);
    r->resp.resource[n] = '\0';
    return static_cast<int>(status);
}

}  // namespace

std::optional<std::string_view> orbs3_list_param(const cgiFormEntry* form, const char* key)
{
    const cgiFormEntry* e = find(form, key);
    if (e == nullptr)
        return std::nullopt;
    if (e->value == nullptr || e->value_length <= 0)
        return std::string_view();
    return std::string_view(e->value, static_cast<std::size_t>(e->value_length));
}

int orbs3_list_params_from_query(const cgiFormEntry* form, orbs3_list_params_t* p, const char** message)
{
    auto refuse = [message](const char* text) {
        *message = text;
        return ORBS3_S3_INVALID_ARGUMENT;
    };
    if (auto t = orbs3_list_param(form, "list-type"); t && !t->empty()) {
        if (*t == "2")
            p->v2 = true;
        else if (*t != "1")
            return refuse("Invalid List Type specified in Request");
    }
    // A count beyond the page size is as good as the page size; anything but digits is refused.
    if (auto m = orbs3_list_param(form, "max-keys"); m && !m->empty()) {
        int v = 0;
        for (char c : *m) {
            if (c < '0' || c > '9')
                return refuse("Provided max-keys not an integer or within integer range");
            v = std::min(v * 10 + (c - '0'), ORBS3_LIST_MAX_KEYS + 1);
        }
        p->max_keys = std::min(v, ORBS3_LIST_MAX_KEYS);
    }
    if (auto e = orbs3_list_param(form, "encoding-type"); e && !e->empty()) {
        if (*e != "url")
            return refuse("Invalid Encoding Method specified in Request");
        p->url = true;
    }
    p->prefix = orbs3_list_param(form, "prefix").value_or(std::string_view());
    p->delimiter = orbs3_list_param(form, "delimiter").value_or(std::string_view());
    if (auto f = orbs3_list_param(form, "fetch-owner"); f && f->size() == 4)
        p->fetch_owner = strncasecmp(f->data(), "true", 4) == 0;
    if (p->v2) {
        p->start_after = orbs3_list_param(form, "start-after");
        p->continuation = orbs3_list_param(form, "continuation-token");
    } else {
        p->marker = orbs3_list_param(form, "marker");
    }
    return 0;
}

std::string orbs3_list_token_encode(std::string_view entry)
{
    std::string out;
    out.reserve((entry.size() + 2) / 3 * 4);
    uint32_t acc = 0;
    int bits = 0;
    for (unsigned char c : entry) {
        acc = (acc << 8) | c;
        bits += 8;
        while (bits >= 6) {
            bits -= 6;
            out.push_back(kB64[(acc >> bits) & 0x3f]);
        }
    }
    if (bits > 0)
        out.push_back(kB64[(acc << (6 - bits)) & 0x3f]);
    return out;
}

bool orbs3_list_token_decode(std::string_view token, std::string* entry)
{
    if (token.empty() || token.size() % 4 == 1)
        return false;
    entry->clear();
    uint32_t acc = 0;
    int bits = 0;
    for (char c : token) {
        int v = b64_value(c);
        if (v < 0)
            return false;
        acc = (acc << 6) | static_cast<uint32_t>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            entry->push_back(static_cast<char>((acc >> bits) & 0xff));
        }
    }
    // The bits left over are the padding of the last byte: a token this server made has them clear.
    return (acc & ((1u << bits) - 1)) == 0;
}

int orbs3_list_object(orbs3_http_request_t* r)
{
    if (r->method == ORBS3_HTTP_HEAD)
        return orbs3_head_bucket(r);

    static constexpr int list = ORBS3_ACCESS_LIST;
    orbs3_bucket_t* raw = nullptr;
    int rc = orbs3_request_bucket(r, &list, nullptr, orbs3_access_chain_t::full, &raw);
    if (rc != 0)
        return rc;
    orbs3_bucket_ptr bucket(raw);

    std::string args(orbs3_str_view(r->args));
    orbs3_cgi_form form(args.empty() ? nullptr : cgiParseGetFormInput(args.c_str()));
    if (!args.empty() && !form)
        return fail(r, ORBS3_S3_INTERNAL_ERROR);
    orbs3_list_params_t p;
    rc = orbs3_list_params_from_query(form.get(), &p, &r->resp.message);
    if (rc != 0)
        return fail(r, static_cast<uint32_t>(rc));

    orbs3_list_query_t q;
    q.prefix = p.prefix;
    q.delimiter = p.delimiter;
    q.max_keys = p.max_keys;
    std::string resume;
    // An empty token is the first page: SDKs that carry the token of the previous page send one empty
    // at the start.
    if (p.v2 && p.continuation && !p.continuation->empty()) {
        if (!orbs3_list_token_decode(*p.continuation, &resume)) {
            r->resp.message = "The continuation token provided is incorrect";
            return fail(r, ORBS3_S3_INVALID_ARGUMENT);
        }
        q.after = resume;
    } else if (p.v2 && p.start_after) {
        q.after = *p.start_after;
    } else if (!p.v2 && p.marker) {
        q.after = *p.marker;
    }

    orbs3_list_page_t page;
    if (orbs3_list_page(neo_getstr(&bucket->meta_dir), &q, r->pool, &page) != 0)
        return fail(r, ORBS3_S3_INTERNAL_ERROR);

    orbs3_list_doc_t doc;
    doc.bucket = orbs3_str_view(r->req_msg.bucket);
    doc.prefix = p.prefix;
    doc.delimiter = p.delimiter;
    doc.v2 = p.v2;
    doc.marker = p.marker;
    doc.start_after = p.start_after;
    doc.continuation = p.continuation;
    std::string token;
    if (page.truncated)
        token = p.v2 ? orbs3_list_token_encode(page.next) : std::string(page.next);
    doc.next = token;
    doc.max_keys = p.max_keys;
    doc.key_count = page.key_count;
    doc.truncated = page.truncated;
    doc.url_encode = p.url;
    doc.fetch_owner = p.fetch_owner;
    doc.list = &page.entries;
    neo_cstr_ptr text(make_list_objects_xml(&doc));
    if (!text)
        return fail(r, ORBS3_S3_INTERNAL_ERROR);
    rc = orbs3_http_send_list_objects_msg(r->connection, 200, text.get(), r->resp.connection, r->resp.origin);
    return rc == 0 ? 0 : -1;
}
