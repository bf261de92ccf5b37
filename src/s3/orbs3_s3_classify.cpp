#include "s3/orbs3_s3_classify.h"

#include <cctype>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "core/orbs3_log.h"
#include "core/orbs3_tenant.h"
#include "http/orbs3_http_header.h"
#include "memory/neo_string.h"
#include "memory/orbs3_palloc.h"
#include "s3/orbs3_s3_cgi.h"
#include "s3/orbs3_s3_signature.h"

namespace {

// Values are read into areas of this size; a value that doesn't fit counts as missing.
constexpr std::size_t FORM_VALUE_AREA = 1024;
// OrbAction and query keys of the parameter tables are read into areas of this size: every key and
// action of the tables is shorter.
constexpr std::size_t PARAM_AREA = 32;
// Key and value of a POST query token.
constexpr std::size_t POST_TOKEN_MAX = 127;

constexpr int32_t DEFAULT_MAX_KEYS = 1000;
constexpr int32_t DEFAULT_LIST_TYPE = 2;

// A NUL-terminated copy in the request's pool. -1 when the pool is out of memory.
int set_str(orbs3_pool_t* pool, orbs3_str_t* dst, std::string_view text)
{
    auto* p = static_cast<char*>(orbs3_pnalloc(pool, text.size() + 1));
    if (p == nullptr)
        return -1;
    if (!text.empty())
        std::memcpy(p, text.data(), text.size());
    p[text.size()] = '\0';
    dst->data = p;
    dst->len = text.size();
    return 0;
}

// atoi's reading (blanks, sign, digits up to the first other byte; none reads as 0), held to the range of
// the field: a count beyond it is as good as its bound, and atoi's overflow is undefined.
int32_t read_int(const char* s)
{
    while (*s == ' ' || (*s >= '\t' && *s <= '\r'))
        s++;
    bool neg = false;
    if (*s == '+' || *s == '-')
        neg = *s++ == '-';
    int64_t v = 0;
    for (; *s >= '0' && *s <= '9'; s++) {
        v = v * 10 + (*s - '0');
        if (v > static_cast<int64_t>(INT32_MAX) + 1)
            break;
    }
    if (neg)
        v = -v;
    if (v > INT32_MAX)
        return INT32_MAX;
    if (v < INT32_MIN)
        return INT32_MIN;
    return static_cast<int32_t>(v);
}

// ---- the form list ----

int32_t orbs3_s3_part_number(std::string_view text)
{
    // S3 numbers parts 1 to 10000; "1.5", "+1", " 1" or "0x1" name no part, where atoi would find one.
    constexpr int32_t max_part = 10000;
    if (text.empty() || text.size() > 5)
        return -1;
    int32_t n = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return -1;
        n = n * 10 + (c - '0');
    }
    return n >= 1 && n <= max_part ? n : -1;
}

template <typename T>
T* field_at(orbs3_http_request_t* r, const orbs3_form_t* row)
{
    return reinterpret_cast<T*>(reinterpret_cast<char*>(&r->req_msg) + row->offset);
}

int form_string(orbs3_http_request_t* r, const cgiFormEntry* form, const orbs3_form_t* row)
{
    char value[FORM_VALUE_AREA];
    if (cgiFormString(form, row->key, value, sizeof value) != cgiFormSuccess)
        return 0;
    return set_str(r->pool, field_at<orbs3_str_t>(r, row), value);
}

int form_number(orbs3_http_request_t* r, const cgiFormEntry* form, const orbs3_form_t* row, int32_t missing)
{
    char value[FORM_VALUE_AREA];
    int32_t* field = field_at<int32_t>(r, row);
    *field = cgiFormString(form, row->key, value, sizeof value) == cgiFormSuccess ? read_int(value) : missing;
    return 0;
}

int orbs3_form_process_delimiter(orbs3_http_request_t* r, const cgiFormEntry* form, const orbs3_form_t* row)
{
    return form_string(r, form, row);
}

int orbs3_form_process_max_keys(orbs3_http_request_t* r, const cgiFormEntry* form, const orbs3_form_t* row)
{
    return form_number(r, form, row, DEFAULT_MAX_KEYS);
}

int orbs3_form_process_encoding_type(orbs3_http_request_t* r, const cgiFormEntry* form, const orbs3_form_t* row)
{
    return form_string(r, form, row);
}

int orbs3_form_process_prefix(orbs3_http_request_t* r, const cgiFormEntry* form, const orbs3_form_t* row)
{
    return form_string(r, form, row);
}

int orbs3_form_process_list_type(orbs3_http_request_t* r, const cgiFormEntry* form, const orbs3_form_t* row)
{
    return form_number(r, form, row, DEFAULT_LIST_TYPE);
}

int orbs3_form_process_continuation_token(orbs3_http_request_t* r, const cgiFormEntry* form,
                                          const orbs3_form_t* row)
{
    return form_string(r, form, row);
}

int orbs3_form_process_marker(orbs3_http_request_t* r, const cgiFormEntry* form, const orbs3_form_t* row)
{
    return form_string(r, form, row);
}

int orbs3_form_process_start_after(orbs3_http_request_t* r, const cgiFormEntry* form, const orbs3_form_t* row)
{
    return form_string(r, form, row);
}

int orbs3_form_process_fetch_owner(orbs3_http_request_t* r, const cgiFormEntry* form, const orbs3_form_t* row)
{
    return form_string(r, form, row);
}

int orbs3_form_process_uploadId(orbs3_http_request_t* r, const cgiFormEntry* form, const orbs3_form_t* row)
{
    return form_string(r, form, row);
}

int orbs3_form_process_max_parts(orbs3_http_request_t* r, const cgiFormEntry* form, const orbs3_form_t* row)
{
    return form_number(r, form, row, 0);
}

int orbs3_form_process_part_number_marker(orbs3_http_request_t* r, const cgiFormEntry* form,
                                          const orbs3_form_t* row)
{
    return form_number(r, form, row, 0);
}

int orbs3_form_process_part_number(orbs3_http_request_t* r, const cgiFormEntry* form, const orbs3_form_t* row)
{
    char value[FORM_VALUE_AREA];
    const int rc = cgiFormString(form, row->key, value, sizeof value);
    int32_t* field = field_at<int32_t>(r, row);
    if (rc == cgiFormNotFound)
        *field = 0;
    else
        *field = rc == cgiFormSuccess ? orbs3_s3_part_number(value) : -1;
    return 0;
}

int orbs3_form_process_position(orbs3_http_request_t* r, const cgiFormEntry* form, const orbs3_form_t* row)
{
    return form_number(r, form, row, 0);
}

}  // namespace

#define ORBS3_FORM_ROW(key, field, handler) \
    {sizeof(key) - 1, key, offsetof(orbs3_req_msg_t, field), handler}

const orbs3_form_t orbs3_form_list[] = {
    ORBS3_FORM_ROW("delimiter", delimiter, orbs3_form_process_delimiter),
    ORBS3_FORM_ROW("max-keys", max_keys, orbs3_form_process_max_keys),
    ORBS3_FORM_ROW("encoding-type", encoding_type, orbs3_form_process_encoding_type),
    ORBS3_FORM_ROW("prefix", prefix, orbs3_form_process_prefix),
    ORBS3_FORM_ROW("list-type", list_type, orbs3_form_process_list_type),
    ORBS3_FORM_ROW("continuation-token", continuation_token, orbs3_form_process_continuation_token),
    ORBS3_FORM_ROW("marker", marker, orbs3_form_process_marker),
    ORBS3_FORM_ROW("start-after", start_after, orbs3_form_process_start_after),
    ORBS3_FORM_ROW("fetch-owner", fetch_owner, orbs3_form_process_fetch_owner),
    ORBS3_FORM_ROW("uploadId", uploadId, orbs3_form_process_uploadId),
    ORBS3_FORM_ROW("max-parts", max_parts, orbs3_form_process_max_parts),
    ORBS3_FORM_ROW("part-number-marker", part_number_marker, orbs3_form_process_part_number_marker),
    ORBS3_FORM_ROW("partNumber", part_number, orbs3_form_process_part_number),
    ORBS3_FORM_ROW("position", position, orbs3_form_process_position),
    {0, nullptr, 0, nullptr},
};

#undef ORBS3_FORM_ROW

namespace {

// ---- parameter tables ----

bool equal_ignoring_case(const char* a, const char* b)
{
    for (;; a++, b++) {
        const int ca = std::tolower(static_cast<unsigned char>(*a));
        const int cb = std::tolower(static_cast<unsigned char>(*b));
        if (ca != cb)
            return false;
        if (ca == 0)
            return true;
    }
}

// The action whose key equals the OrbAction value, in any case. The value goes through an area of
// PARAM_AREA bytes; a longer one can't equal a key and is no match.
const char* match_header(const orbs3_http_request_t* r, const orbs3_s3_param_t* table)
{
    const orbs3_header_t* h = r->headers_in.orb_action;
    if (h == nullptr || h->value.data == nullptr || h->value.len == 0 || h->value.len >= PARAM_AREA)
        return nullptr;
    char scratch[PARAM_AREA];
    std::memcpy(scratch, h->value.data, h->value.len);
    scratch[h->value.len] = '\0';
    for (const orbs3_s3_param_t* row = table; row->active != 0; row++) {
        if (equal_ignoring_case(scratch, row->key))
            return row->action;
    }
    return nullptr;
}

// Present: with a value or an empty one. A value too long for PARAM_AREA counts as absent.
bool query_has(const cgiFormEntry* form, const char* key)
{
    char value[PARAM_AREA];
    const int rc = cgiFormString(form, key, value, sizeof value);
    return rc == cgiFormSuccess || rc == cgiFormEmpty;
}

const char* match_query(const cgiFormEntry* form, const orbs3_s3_param_t* table)
{
    for (const orbs3_s3_param_t* row = table; row->active != 0; row++) {
        if (query_has(form, row->key))
            return row->action;
    }
    return nullptr;
}

// ---- the query ----

// The query of one classification: a NUL-terminated copy of args and the form parsed from it. Both are
// released when the classification returns; only values copied into req_msg stay.
struct query_t {
    neo_cstr_ptr copy;
    orbs3_cgi_form form;

    const cgiFormEntry* entries() const { return form.get(); }
    bool empty() const { return copy == nullptr || copy.get()[0] == '\0'; }
};

// Copies args, parses the form and, with `fill`, runs the form list. -1 when memory runs out.
int load_query(orbs3_http_request_t* r, query_t* q, bool fill)
{
    const std::string_view args = orbs3_str_view(r->args);
    q->copy.reset(static_cast<char*>(std::malloc(args.size() + 1)));
    if (q->copy == nullptr)
        return -1;
    if (!args.empty())
        std::memcpy(q->copy.get(), args.data(), args.size());
    q->copy.get()[args.size()] = '\0';
    q->form.reset(cgiParseGetFormInput(q->copy.get()));
    if (!fill)
        return 0;
    for (const orbs3_form_t* row = orbs3_form_list; row->key != nullptr; row++) {
        if (row->handler(r, q->entries(), row) != 0)
            return -1;
    }
    return 0;
}

// Whether the query asks for an operation. A presigned URL carries its signature in the query, SDKs add
// "x-id=<Operation>", and a download may carry "response-*" overrides: none of these makes a plain PUT an
// UploadPart or a plain GET a ListParts.
bool names_operation(const query_t& q)
{
    static constexpr std::string_view neutral[] = {
        "X-Amz-Algorithm", "X-Amz-Credential", "X-Amz-Date",    "X-Amz-Expires", "X-Amz-SignedHeaders",
        "X-Amz-Signature", "X-Amz-Security-Token", "AWSAccessKeyId", "Signature",  "Expires",
        "x-id"};
    for (const cgiFormEntry* e = q.entries(); e != nullptr; e = e->next) {
        const std::string_view key = e->key != nullptr ? e->key : "";
        bool skip = key.starts_with("response-");
        for (std::string_view n : neutral)
            skip = skip || key == n;
        if (!skip)
            return true;
    }
    return false;
}

// ---- bucket and object ----

enum class level { service, bucket, object };

struct target_t {
    level at;
    std::string_view bucket;
    std::string_view object;
};

std::string_view host_value(const orbs3_http_request_t* r)
{
    return r->headers_in.host != nullptr ? orbs3_str_view(r->headers_in.host->value) : std::string_view();
}

// The path as the client sent it, without the query, its escapes decoded and nothing else changed. The
// HTTP engine's normalised path resolves dot segments and folds "//": "/b1/../x" would become the bucket
// "x" and "/b1/a//b" the key "a/b". Here a key is what the client named, dot segments and empty
// components included, and the key check refuses those. Empty when the pool runs out.
std::string_view uri_of(const orbs3_http_request_t* r)
{
    std::string_view raw = orbs3_str_view(r->unparsed_uri);
    raw = raw.substr(0, raw.find_first_of("?#"));
    auto* text = static_cast<char*>(orbs3_pnalloc(r->pool, raw.size() + 1));
    if (text == nullptr)
        return {};
    if (!raw.empty())
        std::memcpy(text, raw.data(), raw.size());
    const std::size_t len = orbs3_uri_decode(text, raw.size());
    text[len] = '\0';
    return {text, len};
}

// Path style: the first segment is the bucket. `/bucket` and `/bucket/` are bucket level, anything
// longer is object level with the rest as key. `service_test` (GET and HEAD) makes `/` the service.
target_t path_style_target(const orbs3_http_request_t* r, bool service_test)
{
    const std::string_view uri = uri_of(r);
    if (service_test && uri.size() <= 1)
        return {level::service, {}, {}};

    const std::size_t slash = uri.find('/');
    const std::size_t p = slash == std::string_view::npos ? uri.size() : slash + 1;
    std::size_t end = uri.find('/', p);
    if (end == std::string_view::npos)
        end = uri.size();
    const std::string_view bucket = uri.substr(p, end - p);
    const std::size_t rest = uri.size() - bucket.size();
    if (rest == 1 || rest == 2)
        return {level::bucket, bucket, {}};
    // The key starts behind the bucket's closing slash; a path without one (only an empty uri) has none.
    const std::size_t key_start = end + 1 <= uri.size() ? end + 1 : uri.size();
    return {level::object, bucket, uri.substr(key_start)};
}

// Virtual-host style: the bucket is the Host value up to its first dot, the whole path is the key.
// `service_test` (GET and HEAD): a Host that starts with the vhost's domain names the service.
target_t virtual_style_target(const orbs3_http_request_t* r, bool service_test)
{
    const std::string_view host = host_value(r);
    if (service_test && r->vhost != nullptr) {
        const std::string_view domain = orbs3_str_view(r->vhost->domain);
        if (host.substr(0, domain.size()) == domain)
            return {level::service, {}, {}};
    }
    // A host without a dot can't be told from a domain without one: no bucket then.
    const std::size_t dot = host.find('.');
    const std::string_view bucket = dot == std::string_view::npos ? std::string_view() : host.substr(0, dot);
    const std::string_view uri = uri_of(r);
    if (uri.size() == 1)
        return {level::bucket, bucket, {}};
    return {level::object, bucket, uri.empty() ? uri : uri.substr(1)};
}

target_t target_of(const orbs3_http_request_t* r, bool virtual_style, bool service_test)
{
    return virtual_style ? virtual_style_target(r, service_test) : path_style_target(r, service_test);
}

// Bucket and object into req_msg; at service level neither is set.
int set_target(orbs3_http_request_t* r, const target_t& t)
{
    if (t.at == level::service)
        return 0;
    if (set_str(r->pool, &r->req_msg.bucket, t.bucket) != 0)
        return -1;
    return set_str(r->pool, &r->req_msg.object, t.object);
}

int set_action(orbs3_http_request_t* r, const char* name)
{
    return name != nullptr ? orbs3_action_handler(r, name) : -1;
}

// ---- per method ----

int classify_get(orbs3_http_request_t* r, bool virtual_style)
{
    query_t q;
    if (load_query(r, &q, true) != 0)
        return -1;
    const target_t t = target_of(r, virtual_style, true);
    if (set_target(r, t) != 0)
        return -1;

    if (const char* a = match_header(r, orbs3_get_service_params))
        return set_action(r, a);
    if (t.at == level::service)
        return set_action(r, "ListBuckets");
    if (t.bucket.empty())
        return -1;

    if (t.at == level::object) {
        if (!names_operation(q))
            return set_action(r, "GetObject");
        // Only an upload id names an upload: ?partNumber=N alone reads a part of the object.
        const char* a = match_query(q.entries(), orbs3_get_object_params);
        char id[FORM_VALUE_AREA];
        if (a == nullptr)
            a = cgiFormString(q.entries(), "uploadId", id, sizeof id) != cgiFormNotFound ? "ListParts" : "GetObject";
        return set_action(r, a);
    }

    const char* a = match_header(r, orbs3_get_bucket_params);
    if (a == nullptr && !q.empty())
        a = match_query(q.entries(), orbs3_get_bucket_params);
    // A listing is never asked for nothing.
    if (r->req_msg.max_keys < 1)
        r->req_msg.max_keys = DEFAULT_MAX_KEYS;
    return set_action(r, a != nullptr ? a : "ListObject");
}

int classify_put(orbs3_http_request_t* r, bool virtual_style)
{
    query_t q;
    if (load_query(r, &q, true) != 0)
        return -1;
    const target_t t = target_of(r, virtual_style, false);
    if (set_target(r, t) != 0)
        return -1;

    if (const char* a = match_header(r, orbs3_put_service_params))
        return set_action(r, a);
    if (t.bucket.empty())
        return query_has(q.entries(), "accesskey") ? set_action(r, "PutAccessKey") : -1;

    if (t.at == level::bucket) {
        const char* a = match_header(r, orbs3_put_bucket_params);
        if (a == nullptr && !names_operation(q))
            a = "PutBucket";
        if (a == nullptr && !q.empty())
            a = match_query(q.entries(), orbs3_put_bucket_params);
        if (a != nullptr)
            return set_action(r, a);
        // No bucket row: an object operation on the empty key, which the handler refuses.
    }

    if (names_operation(q)) {
        const char* a = match_query(q.entries(), orbs3_put_object_params);
        return set_action(r, a != nullptr ? a : "UploadPart");
    }
    // S3 clients name the source in x-amz-copy-source; X-Copy-Source is the older word for it.
    std::string_view source;
    const bool copy = r->headers_in.x_copy_source != nullptr || orbs3_http_find_header(r, "x-amz-copy-source", &source);
    return set_action(r, copy ? "CopyObject" : "PutObject");
}

int classify_delete(orbs3_http_request_t* r, bool virtual_style)
{
    query_t q;
    if (load_query(r, &q, true) != 0)
        return -1;
    const target_t t = target_of(r, virtual_style, false);
    if (set_target(r, t) != 0)
        return -1;

    if (const char* a = match_header(r, orbs3_delete_service_params))
        return set_action(r, a);
    if (t.bucket.empty())
        return -1;

    if (t.at == level::bucket) {
        const char* a = match_header(r, orbs3_delete_bucket_params);
        if (a == nullptr && !names_operation(q))
            a = "DeleteBucket";
        if (a == nullptr)
            a = match_query(q.entries(), orbs3_delete_bucket_params);
        if (a != nullptr)
            return set_action(r, a);
    }

    if (names_operation(q)) {
        const char* a = match_query(q.entries(), orbs3_delete_object_params);
        // A version id names a version of the object, not an upload; its value is longer than the
        // words of the tables, so it is looked up by presence alone.
        char id[FORM_VALUE_AREA];
        if (a == nullptr && cgiFormString(q.entries(), "versionId", id, sizeof id) != cgiFormNotFound)
            a = "DeleteObject";
        return set_action(r, a != nullptr ? a : "AbortMultipartUpload");
    }
    return set_action(r, "DeleteObject");
}

// One token of a POST query as "%[^=]=%s" reads it, with both areas bounded: the key is the bytes before
// '=' (at most POST_TOKEN_MAX; a longer key leaves the value unread), the value follows '=' past any
// blanks up to the next blank. A token without '=' has an empty value.
void read_post_token(std::string_view token, char* key, char* value)
{
    std::size_t k = 0;
    while (k < token.size() && k < POST_TOKEN_MAX && token[k] != '=')
        k++;
    std::memcpy(key, token.data(), k);
    key[k] = '\0';
    value[0] = '\0';
    if (k == 0 || k == token.size() || token[k] != '=')
        return;
    std::size_t i = k + 1;
    while (i < token.size() && std::isspace(static_cast<unsigned char>(token[i])))
        i++;
    std::size_t n = 0;
    while (i < token.size() && n < POST_TOKEN_MAX && !std::isspace(static_cast<unsigned char>(token[i])))
        value[n++] = token[i++];
    value[n] = '\0';
}

// The POST query, token by token; later tokens overwrite earlier actions, and position=0 (the first
// append of an object, which is an ordinary write) ends the scan.
int scan_post_query(orbs3_http_request_t* r, std::string_view query)
{
    const char* action = nullptr;
    while (!query.empty()) {
        const std::size_t amp = query.find('&');
        const std::string_view token = query.substr(0, amp);
        query = amp == std::string_view::npos ? std::string_view() : query.substr(amp + 1);
        if (token.empty())
            continue;

        char key[POST_TOKEN_MAX + 1];
        char value[POST_TOKEN_MAX + 1];
        read_post_token(token, key, value);
        if (std::strncmp(key, "append", 6) == 0) {
            action = "AppendObject";
        } else if (std::strncmp(key, "uploads", 7) == 0) {
            action = "CreateMultipartUpload";
        } else if (std::strncmp(key, "restore", 7) == 0) {
            action = "RestoreObject";
        } else if (std::strncmp(key, "positio", 7) == 0) {
            r->req_msg.position = read_int(value);
            // Only a position that is 0 makes an ordinary write: one that is no number would replace the
            // object it meant to append to, so the append refuses it instead.
            if (value[0] != '\0' && std::strspn(value, "0") == std::strlen(value)) {
                action = "PutObject";
                break;
            }
        } else if (std::strncmp(key, "uploadId", 8) == 0) {
            action = "CompleteMultipartUpload";
            if (set_str(r->pool, &r->req_msg.uploadId, value) != 0)
                return -1;
        }
    }
    return action != nullptr ? set_action(r, action) : -1;
}

// OrbAction plays no part in a POST. The path-style form only answers `delete`; the list fields are read
// in virtual-host style alone.
int classify_post(orbs3_http_request_t* r, bool virtual_style)
{
    query_t q;
    if (load_query(r, &q, virtual_style) != 0)
        return -1;
    const target_t t = target_of(r, virtual_style, false);
    if (t.bucket.empty())
        return -1;
    if (set_target(r, t) != 0)
        return -1;

    if (t.at == level::bucket && query_has(q.entries(), "delete"))
        return set_action(r, "DeleteObjects");
    if (r->args.len == 0)
        return set_action(r, "PutObject");
    if (q.empty())
        return -1;
    return scan_post_query(r, q.copy.get());
}

int classify_options(orbs3_http_request_t* r, bool /*virtual_style*/)
{
    return set_action(r, "Options");
}

// The classifier of each method; it learns the addressing style from its second argument.
struct method_row {
    uint32_t methods;
    int (*classify)(orbs3_http_request_t* r, bool virtual_style);
};

constexpr method_row method_rows[] = {
    {ORBS3_HTTP_GET | ORBS3_HTTP_HEAD, classify_get},
    {ORBS3_HTTP_PUT, classify_put},
    {ORBS3_HTTP_DELETE, classify_delete},
    {ORBS3_HTTP_POST, classify_post},
    {ORBS3_HTTP_OPTIONS, classify_options},
};

}  // namespace

int orbs3_action_handler(orbs3_http_request_t* r, const char* name)
{
    if (r == nullptr || name == nullptr)
        return -1;
    orbs3_str_t action{};
    if (set_str(r->pool, &action, name) != 0)
        return -1;
    r->req_msg.action = action;
    return 0;
}

int orbs3_parse_req_msg(orbs3_http_request_t* r)
{
    for (const method_row& m : method_rows) {
        if ((r->method & m.methods) != 0) {
            (void)m.classify(r, r->host_style == ORBS3_HOST_STYLE_VIRTUAL);
            break;
        }
    }
    ipd_debug("action: %s, bucket: %s, object: %s", neo_getstr(&r->req_msg.action), neo_getstr(&r->req_msg.bucket),
              neo_getstr(&r->req_msg.object));
    return 0;
}
