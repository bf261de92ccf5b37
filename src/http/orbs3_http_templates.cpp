// The fixed reply templates. Each kind of reply has its own header order, which clients and the tools
// that compare replies have come to rely on, so a template is a list of lines walked in order rather
// than a header list.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>

#include "core/orbs3_log.h"
#include "http/orbs3_http_head_text.h"
#include "http/orbs3_http_response.h"

namespace {

enum class field : uint8_t { none, date, connection, origin, length, etag, bucket, request_id, allow_headers, extra };

struct tpl_line {
    const char* text;  // up to the field
    field value;
    bool cors;         // left out when origin is empty
};

constexpr tpl_line kDate = {"Date: ", field::date, false};
constexpr tpl_line kConnection = {"Connection: ", field::connection, false};
constexpr tpl_line kNoLength = {"Content-Length:0", field::none, false};
constexpr tpl_line kLength = {"Content-Length:", field::length, false};
constexpr tpl_line kCors = {"Access-Control-Allow-Origin:", field::origin, true};
constexpr tpl_line kServer = {"Server: KELVANE", field::none, false};
constexpr tpl_line kXml = {"Content-Type: text/xml", field::none, false};

constexpr tpl_line kTplA[] = {kDate, kConnection, kNoLength, kCors, kServer};
constexpr tpl_line kTplB[] = {kDate, kConnection, kLength, kCors, kServer, kXml};
// A whole header line of the caller's (the checksum a write verified), left out when there is none.
constexpr tpl_line kExtra = {"", field::extra, false};
constexpr tpl_line kTplAExtra[] = {kDate, kConnection, kNoLength, kCors, kServer, kExtra};
constexpr tpl_line kTplC[] = {kDate, {"Etag: ", field::etag, false}, kConnection, kNoLength, kCors, kServer, kExtra};
constexpr tpl_line kTplD[] = {kDate, {"ETag: ", field::etag, false}, kConnection, kNoLength, kCors, kServer, kExtra};
constexpr tpl_line kTplG[] = {kDate, {"Location:/", field::bucket, false}, kNoLength, kConnection, kCors, kServer};
constexpr tpl_line kTplH[] = {kDate, kNoLength, kCors, kConnection, kServer};
constexpr tpl_line kTplI[] = {kDate, kLength, kConnection, kCors, {"Server: KELVANE 1.0", field::none, false}, kXml,
                              kExtra};
// An S3 error document: the lines of I with the request id the document names.
constexpr tpl_line kTplErr[] = {kDate, kLength, kConnection, kCors, {"Server: KELVANE 1.0", field::none, false},
                                {"x-amz-request-id: ", field::request_id, false}, kXml, kExtra};
constexpr tpl_line kTplJ[] = {kDate,
                              kConnection,
                              kLength,
                              kCors,
                              {"Accept-Ranges: bytes", field::none, false},
                              {"content-Security-Policy: block-all-mixed-content", field::none, false},
                              kServer,
                              {"Vary: Origin", field::none, false},
                              {"X-Amz-Request-Id: ", field::request_id, false},
                              {"X-Xss-Protection: 1;mode=block", field::none, false},
                              {"Content-Type: application/xml", field::none, false}};
// Same lines as B.
constexpr std::span<const tpl_line> kTplK = kTplB;
// A preflight always echoes the origin.
constexpr tpl_line kTplM[] = {kDate,
                              kConnection,
                              kNoLength,
                              {"Access-Control-Allow-Origin:", field::origin, false},
                              {"Access-Control-Allow-Methods:POST, GET, PUT, HEAD, DELETE, OPTIONS", field::none, false},
                              {"Access-Control-Allow-Headers: ", field::allow_headers, false},
                              kServer};

struct reply_args {
    const char* connection = nullptr;
    const char* origin = nullptr;
    const char* etag = nullptr;
    const char* bucket = nullptr;
    const char* request_id = nullptr;
    const char* allow_headers = nullptr;
    const char* extra = nullptr;
};

struct free_deleter {
    void operator()(char* p) const noexcept { __free__(p); }
};

bool empty(const char* s)
{
    return s == nullptr || *s == '\0';
}

// Fills the template, joins the document behind it and writes the whole. `who` names the reply in logs.
int send_template(orbs3_connection_t* c, uint32_t status, std::span<const tpl_line> tpl, const reply_args& a,
                  const char* body, const char* who)
{
    if (c == nullptr)
        return 0;
    std::size_t body_len = body != nullptr ? std::strlen(body) : 0;
    orbs3_head_text<ORBS3_HTTP_HEAD_LEN> t;
    if (const orbs3_http_status_t* s = orbs3_http_find_status(status)) {
        char date[ORBS3_HTTP_DATE_LEN];
        get_gmt_time(date, sizeof date);
        t.put("HTTP/1.1 ");
        t.put_number(s->code);
        t.put(" ");
        t.put(s->reason);
        t.put("\r\n");
        for (const tpl_line& l : tpl) {
            if ((l.cors && empty(a.origin)) || (l.value == field::extra && empty(a.extra)))
                continue;
            t.put(l.text);
            switch (l.value) {
            case field::none: break;
            case field::date: t.put(date); break;
            case field::connection: t.put(a.connection); break;
            case field::origin: t.put(a.origin); break;
            case field::length: t.put_number(body_len); break;
            case field::etag: t.put(a.etag); break;
            case field::bucket: t.put(a.bucket); break;
            case field::request_id: t.put(a.request_id); break;
            case field::allow_headers: t.put(a.allow_headers); break;
            case field::extra: t.put(a.extra); break;
            }
            t.put("\r\n");
        }
        t.put("\r\n");
        if (t.overflow) {
            ipd_log(LOG_ERR, "%s reply header does not fit %zu bytes", who, ORBS3_HTTP_HEAD_LEN);
            return -1;
        }
    } else {
        ipd_debug("%s reply with status %u outside the status table", who, status);
    }
    if (body_len == 0)
        return orbs3_http_send_response_bytes(c, t.data, t.len) == 0 ? 0 : -1;
    // Head and document leave in one send.
    std::unique_ptr<char, free_deleter> joined(static_cast<char*>(orbs3_alloc(t.len + body_len + 1)));
    if (!joined) {
        ipd_log(LOG_ERR, "no memory for the %s reply of %zu bytes", who, t.len + body_len);
        return -1;
    }
    std::memcpy(joined.get(), t.data, t.len);
    std::memcpy(joined.get() + t.len, body, body_len + 1);
    return orbs3_http_send_response_bytes(c, joined.get(), t.len + body_len) == 0 ? 0 : -1;
}

}  // namespace

#define ORBS3_NO_DOC_MSG(name, tpl)                                                                         \
    int orbs3_http_send_##name##_msg(orbs3_connection_t* c, uint32_t status, const char* connection,          \
                                     const char* origin)                                                    \
    {                                                                                                       \
        return send_template(c, status, tpl, {.connection = connection, .origin = origin}, nullptr, #name); \
    }
#define ORBS3_DOC_MSG(name, tpl)                                                                            \
    int orbs3_http_send_##name##_msg(orbs3_connection_t* c, uint32_t status, const char* body,                \
                                     const char* connection, const char* origin)                            \
    {                                                                                                       \
        if (body == nullptr)                                                                                \
            return -1;                                                                                      \
        return send_template(c, status, tpl, {.connection = connection, .origin = origin}, body, #name);    \
    }
#define ORBS3_ETAG_MSG(name, tpl)                                                                           \
    int orbs3_http_send_##name##_msg(orbs3_connection_t* c, uint32_t status, const char* etag,                \
                                     const char* connection, const char* origin, const char* extra)         \
    {                                                                                                       \
        return send_template(c, status, tpl,                                                                \
                             {.connection = connection, .origin = origin, .etag = etag, .extra = extra},    \
                             nullptr, #name);                                                               \
    }

ORBS3_NO_DOC_MSG(put_bucket_acl, kTplA)
ORBS3_NO_DOC_MSG(put_bucket_rename, kTplA)
ORBS3_NO_DOC_MSG(del_object, kTplA)
ORBS3_NO_DOC_MSG(abort_mulitipart_object, kTplA)
ORBS3_NO_DOC_MSG(del_bucket, kTplH)

ORBS3_DOC_MSG(get_bucket_acl, kTplB)
ORBS3_DOC_MSG(del_objects, kTplB)
ORBS3_DOC_MSG(create_mulitipart_object, kTplB)
ORBS3_DOC_MSG(list_objects, kTplK)

ORBS3_ETAG_MSG(put_object, kTplC)
ORBS3_ETAG_MSG(append_object, kTplD)
ORBS3_ETAG_MSG(upload_part_object, kTplD)

#undef ORBS3_ETAG_MSG
#undef ORBS3_DOC_MSG
#undef ORBS3_NO_DOC_MSG

int orbs3_http_send_del_object_version_msg(orbs3_connection_t* c, uint32_t status, const char* connection,
                                           const char* origin, const char* extra)
{
    return send_template(c, status, kTplAExtra, {.connection = connection, .origin = origin, .extra = extra}, nullptr,
                         "del_object_version");
}

int orbs3_http_send_msg(orbs3_connection_t* c, uint32_t status, const char* body, const char* connection,
                        const char* origin, const char* extra)
{
    if (body == nullptr)
        return -1;
    return send_template(c, status, kTplI, {.connection = connection, .origin = origin, .extra = extra}, body,
                         "message");
}

int orbs3_http_send_error_msg(orbs3_connection_t* c, uint32_t status, const char* request_id, const char* body,
                              const char* connection, const char* origin, const char* extra)
{
    if (body == nullptr)
        return -1;
    return send_template(c, status, kTplErr,
                         {.connection = connection, .origin = origin, .request_id = request_id, .extra = extra}, body,
                         "error");
}

int orbs3_http_send_put_bucket_msg(orbs3_connection_t* c, uint32_t status, const char* bucket,
                                   const char* connection, const char* origin)
{
    return send_template(c, status, kTplG, {.connection = connection, .origin = origin, .bucket = bucket},
                         nullptr, "put_bucket");
}

int orbs3_http_send_list_buckets_msg(orbs3_connection_t* c, uint32_t status, const char* request_id,
                                     const char* body, const char* connection, const char* origin)
{
    if (body == nullptr)
        return -1;
    return send_template(c, status, kTplJ,
                         {.connection = connection, .origin = origin, .request_id = request_id}, body,
                         "list_buckets");
}

int orbs3_http_send_options_msg(orbs3_connection_t* c, uint32_t status, const char* connection,
                                const char* origin, const char* allow_headers)
{
    return send_template(c, status, kTplM,
                         {.connection = connection, .origin = origin, .allow_headers = allow_headers}, nullptr,
                         "options");
}
