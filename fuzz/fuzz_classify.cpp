// Request classification on arbitrary heads: a complete head is parsed as the connection parses it, the
// vhost is resolved against a fixed service (domains "s3.example" and "localhost", so both addressing
// styles occur), and the request is classified. Checked after: the action is unset or a name the front
// end knows; bucket and object are NUL-terminated copies no longer than what they come from, query
// values no longer than the query; the key is the tail of the decoded path as sent; the bucket is one
// path segment (path style) or one host label (virtual-host style), and a listing never asks for fewer
// than one key.
#include <syslog.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <span>
#include <string>
#include <string_view>

#include "core/orbs3_tenant.h"
#include "event/orbs3_connection.h"
#include "http/orbs3_http_parse.h"
#include "http/orbs3_http_request.h"
#include "memory/orbs3_palloc.h"
#include "s3/orbs3_s3_cgi.h"
#include "s3/orbs3_s3_classify.h"
#include "fuzz_check.h"
#include "fuzz_request.h"

namespace {

// The path of a request target up to its query or fragment, every %XX decoded.
std::string decoded_path(std::string_view raw)
{
    raw = raw.substr(0, raw.find_first_of("?#"));
    auto hex = [](char c) {
        return c >= '0' && c <= '9' ? c - '0' : (c | 0x20) >= 'a' && (c | 0x20) <= 'f' ? (c | 0x20) - 'a' + 10 : -1;
    };
    std::string out;
    for (std::size_t i = 0; i < raw.size(); i++) {
        if (raw[i] == '%' && i + 2 < raw.size() && hex(raw[i + 1]) >= 0 && hex(raw[i + 2]) >= 0) {
            out.push_back(static_cast<char>(hex(raw[i + 1]) * 16 + hex(raw[i + 2])));
            i += 2;
        } else {
            out.push_back(raw[i]);
        }
    }
    return out;
}

// Names the classification makes beside the rows of the parameter tables.
constexpr std::string_view fixed_actions[] = {
    "ListBuckets",  "ListObject",    "ListParts",           "GetObject",    "PutBucket",
    "PutObject",    "CopyObject",    "UploadPart",          "PutAccessKey", "DeleteBucket",
    "DeleteObject", "DeleteObjects", "AbortMultipartUpload", "AppendObject", "CreateMultipartUpload",
    "RestoreObject", "CompleteMultipartUpload", "Options",
};

const std::span<const orbs3_s3_param_t> param_tables[] = {
    orbs3_put_service_params, orbs3_get_service_params, orbs3_delete_service_params,
    orbs3_get_bucket_params,  orbs3_put_bucket_params,  orbs3_delete_bucket_params,
    orbs3_get_object_params,  orbs3_put_object_params,  orbs3_delete_object_params,
};

bool known_action(std::string_view a)
{
    for (std::string_view f : fixed_actions) {
        if (a == f)
            return true;
    }
    for (auto table : param_tables) {
        for (const orbs3_s3_param_t& row : table) {
            if (row.active != 0 && a == row.action)
                return true;
        }
    }
    return false;
}

void check_str(const orbs3_str_t& s, std::size_t bound)
{
    if (s.data == nullptr) {
        CHECK(s.len == 0);
        return;
    }
    CHECK(s.len <= bound);
    CHECK(s.data[s.len] == '\0');
}

orbs3_listening_t g_listening;
orbs3_connection_t g_connection;

void setup_once()
{
    setlogmask(LOG_MASK(LOG_EMERG));  // the parser's client-error lines would drown the run
    static orbs3_pool_ptr table_pool(orbs3_create_mem_block(16384));
    CHECK(table_pool && orbs3_http_init_headers_in_hash(table_pool.get()) == 0);
    cgiSetupConstants();
    orbs3_service_t* svc = orbs3_service_new();
    CHECK(svc != nullptr);
    for (const char* domain : {"s3.example", "localhost"}) {
        orbs3_vhost_t* vh = orbs3_vhost_new();
        CHECK(vh != nullptr);
        neo_strdup(&vh->domain, domain, ORBS3_NAME_CAP);
        CHECK(orbs3_service_add_vhost(svc, vh) == 0);
    }
    // Live as long as the process, as a worker's listener does.
    g_listening.vhosts = &svc->vhosts;
    g_connection.listening = &g_listening;
    g_connection.fd = -1;
}

void classify(const uint8_t* data, std::size_t size)
{
    request_in_pool q(data, size);
    orbs3_http_request_t* r = q.r;
    r->connection = &g_connection;
    if (parser_http_request_handler(r) != 0)
        return;
    (void)orbs3_find_virtual_server(r);
    CHECK(r->vhost != nullptr);

    CHECK(orbs3_parse_req_msg(r) == 0);
    const orbs3_req_msg_t& m = r->req_msg;
    check_str(m.action, 64);
    if (m.action.len == 0)
        return;
    CHECK(known_action(orbs3_str_view(m.action)));

    // The bucket comes from the Host value or the path as sent, the key from the path as sent: escapes
    // decode to fewer bytes, nothing else is added.
    const std::size_t sent = r->unparsed_uri.len;
    check_str(m.bucket, std::max<std::size_t>(r->url.len, sent));
    check_str(m.object, sent);
    // Query values decode to no more bytes than they were sent in.
    check_str(m.uploadId, r->args.len);
    check_str(m.prefix, r->args.len);
    const std::string_view bucket = orbs3_str_view(m.bucket);
    const std::string_view object = orbs3_str_view(m.object);
    if (r->host_style == ORBS3_HOST_STYLE_VIRTUAL)
        CHECK(bucket.find('.') == std::string_view::npos);
    else
        CHECK(bucket.find('/') == std::string_view::npos);
    // The key is the tail of the path as sent, its escapes decoded and nothing resolved or folded: dot
    // segments and "//" reach the key check instead of retargeting the request.
    const std::string path = decoded_path(std::string_view(r->unparsed_uri.data, sent));
    CHECK(std::string_view(path).ends_with(object));
    if (r->host_style != ORBS3_HOST_STYLE_VIRTUAL)
        CHECK(object.size() + bucket.size() <= path.size());
    if (orbs3_str_view(m.action) == "ListObject")
        CHECK(m.max_keys >= 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    static const bool ready = (setup_once(), true);
    (void)ready;

    if (size > 16384)
        return 0;
    std::size_t head = orbs3_check_head(data, size);
    if (head != 0)
        classify(data, size);
    return 0;
}
