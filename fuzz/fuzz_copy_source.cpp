// The copy source of CopyObject and UploadPartCopy: the input is the value of an x-amz-copy-source (first
// byte even) or X-Copy-Source (odd) header of an otherwise fixed head, parsed as the connection parses
// it. Checked after: a source that passes is a legal bucket name and a key every other request could
// name (no "." or ".." or empty component, no NUL, no leading "/", no server names), both NUL-terminated
// and no longer than the header; a version id it names is well-formed; encoding the key again and
// parsing that gives the same bucket and key.
#include <syslog.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "core/orbs3_config.h"
#include "fuzz_check.h"
#include "fuzz_request.h"
#include "http/orbs3_http_parse.h"
#include "http/orbs3_http_request.h"
#include "memory/orbs3_palloc.h"
#include "s3/orbs3_s3_errors.h"
#include "s3/orbs3_s3_signature.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object.h"
#include "storage/orbs3_object_copy.h"
#include "versions/orbs3_version_name.h"

namespace {

void setup_once()
{
    setlogmask(LOG_MASK(LOG_EMERG));
    static orbs3_pool_ptr table_pool(orbs3_create_mem_block(16384));
    CHECK(table_pool && orbs3_http_init_headers_in_hash(table_pool.get()) == 0);
    orbs3_conf.bucketmaxlen = 63;
    orbs3_conf.objectmaxlen = 127;
    orbs3_conf.objectpathlen = 1023;
    orbs3_conf.objectdirnum = 10;
}

// rc, and the bucket and key as strings, of one head with the header `name: value`.
int parse(std::string_view name, std::string_view value, std::string* bucket, std::string* key)
{
    std::string head = "PUT /dst/k HTTP/1.1\r\nHost: h\r\n" + std::string(name) + ": " + std::string(value) + "\r\n\r\n";
    request_in_pool q(head.data(), head.size());
    orbs3_http_request_t* r = q.r;
    if (parser_http_request_handler(r) != 0)
        return -1;
    orbs3_str_t b{}, k{};
    std::string_view version;
    const int rc = orbs3_parse_copy_source(r, q.pool.get(), &b, &k, &version);
    if (rc != 0) {
        CHECK(rc == static_cast<int>(ORBS3_S3_INVALID_ARGUMENT) || rc == static_cast<int>(ORBS3_S3_KEY_TOO_LONG) ||
              rc == static_cast<int>(ORBS3_S3_INVALID_URI) || rc == static_cast<int>(ORBS3_S3_INTERNAL_ERROR));
        return rc;
    }
    CHECK(b.data != nullptr && b.data[b.len] == '\0' && k.data != nullptr && k.data[k.len] == '\0');
    // A version named is one this server could have made, so it can never name a path.
    CHECK(version.empty() || orbs3_version_id_valid(version));
    CHECK(b.len + k.len < value.size());
    *bucket = std::string(orbs3_str_view(b));
    *key = std::string(orbs3_str_view(k));
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    static const bool ready = (setup_once(), true);
    (void)ready;
    if (size == 0 || size > 4096)
        return 0;
    const std::string_view name = (data[0] & 1) != 0 ? "X-Copy-Source" : "x-amz-copy-source";
    const std::string_view value(reinterpret_cast<const char*>(data) + 1, size - 1);
    std::string bucket, key;
    if (parse(name, value, &bucket, &key) != 0)
        return 0;
    CHECK(!bucket.empty() && orbs3_check_bucketname(bucket) == 0);
    CHECK(!key.empty() && orbs3_object_key_status(key) == 0);
    CHECK(key.find('\0') == std::string::npos && key.front() != '/' && key.find("//") == std::string::npos);

    // The same source as a client encodes it names the same object.
    static char area[16384];
    orbs3_sign_text_t text{area, sizeof area};
    orbs3_sign_append(&text, "/");
    orbs3_uri_encode(&text, bucket, false);
    orbs3_sign_append(&text, "/");
    orbs3_uri_encode(&text, key, true);
    if (text.overflow)
        return 0;
    std::string again_bucket, again_key;
    CHECK(parse(name, text.view(), &again_bucket, &again_key) == 0);
    CHECK(again_bucket == bucket && again_key == key);
    return 0;
}
