#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "http/http_test_request.h"
#include "http/orbs3_http_parse.h"
#include "http/orbs3_http_request.h"
#include "s3/orbs3_s3_classify.h"
#include "service_fixture.h"

using http_test::sv;
using http_test::test_request;
using unit_test::service_fixture;

namespace {

constexpr uint32_t P = ORBS3_HOST_STYLE_PATH;
constexpr uint32_t V = ORBS3_HOST_STYLE_VIRTUAL;

// The vhost domains every test serves: a host inside one of them is virtual-host style.
service_fixture& service()
{
    static service_fixture f({"s3.example", "localhost"});
    return f;
}

// A head parsed as the connection parses it (the Host handler resolves the vhost), then classified.
struct classified {
    test_request t;
    int rc = -99;

    classified(std::string_view method, std::string_view host, std::string_view target,
               std::string_view orb_action = {}, std::string_view copy_source = {})
        : t(head(method, host, target, orb_action, copy_source))
    {
        http_test::ensure_headers_hash();
        if (t.r == nullptr)
            return;
        t.r->connection = service().connection();
        rc = parser_http_request_handler(t.r);
        if (rc == 0)
            rc = orbs3_parse_req_msg(t.r);
    }

    static std::string head(std::string_view method, std::string_view host, std::string_view target,
                            std::string_view orb_action, std::string_view copy_source)
    {
        std::string h = std::string(method) + " " + std::string(target) + " HTTP/1.1\r\nHost: " + std::string(host) +
                        "\r\n";
        if (!orb_action.empty())
            h += "OrbAction: " + std::string(orb_action) + "\r\n";
        if (!copy_source.empty())
            h += "X-Copy-Source: " + std::string(copy_source) + "\r\n";
        return h + "\r\n";
    }

    const orbs3_req_msg_t& msg() const { return t.r->req_msg; }
};

// A set string is NUL-terminated at its length.
void expect_terminated(const orbs3_str_t& s)
{
    if (s.data != nullptr) {
        EXPECT_EQ(s.data[s.len], '\0');
    }
}

TEST(S3Classify, ActionBucketAndObjectFromMethodStyleAndPath)
{
    struct row {
        std::string_view method;
        std::string_view host;
        std::string_view target;
        uint32_t style;
        std::string_view action;  // empty: unset
        std::string_view bucket = {};
        std::string_view object = {};
        struct {
            std::string_view orb_action = {};
            std::string_view copy_source = {};
        } h = {};
        struct {
            std::optional<int32_t> max_keys = {};
            std::optional<int32_t> list_type = {};
            std::optional<int32_t> part_number = {};
            std::optional<int32_t> position = {};
            std::optional<std::string_view> upload_id = {};
            std::optional<std::string_view> prefix = {};
        } l = {};
    };
    const row rows[] = {
        // GET and HEAD, path style.
        {"GET", "s3.example", "/", P, "ListBuckets"},
        {"GET", "s3.example:9000", "/", P, "ListBuckets"},
        {"HEAD", "s3.example", "/", P, "ListBuckets"},
        {"GET", "s3.example", "/b", P, "ListObject", "b", "", {}, {.max_keys = 1000, .list_type = 2}},
        {"GET", "s3.example", "/b/", P, "ListObject", "b", ""},
        {"HEAD", "s3.example", "/b", P, "ListObject", "b", ""},
        {"GET", "s3.example", "/b/a/b", P, "GetObject", "b", "a/b"},
        {"GET", "s3.example", "/b/a/", P, "GetObject", "b", "a/"},
        {"HEAD", "s3.example", "/b/k", P, "GetObject", "b", "k"},
        {"GET", "10.0.0.1", "/b/k", P, "GetObject", "b", "k"},  // an unknown host: the first vhost
        // Only an upload id makes a GET of an object ListParts: a part number alone reads that part.
        {"GET", "s3.example", "/b/k?x=1", P, "GetObject", "b", "k"},
        {"GET", "s3.example", "/b/k?partNumber=2", P, "GetObject", "b", "k"},
        {"GET", "s3.example", "/b/k?partNumber=2&uploadId=0123456789abcdef0123456789abcdef", P, "ListParts", "b", "k"},
        // Signature parameters of a presigned URL, SDKs' x-id and response overrides ask for no operation.
        {"GET", "s3.example", "/b/k?X-Amz-Algorithm=AWS4-HMAC-SHA256&X-Amz-Credential=c&X-Amz-Date=d&X-Amz-Expires=9"
                              "&X-Amz-SignedHeaders=host&X-Amz-Signature=s", P, "GetObject", "b", "k"},
        {"GET", "s3.example", "/b/k?response-content-type=text%2Fplain&x-id=GetObject", P, "GetObject", "b", "k"},
        {"GET", "s3.example", "/b/k?AWSAccessKeyId=a&Signature=s&Expires=1&uploadId=u", P, "ListParts", "b", "k",
         {}, {.upload_id = "u"}},
        {"GET", "s3.example", "/b/k?uploadId=u&max-parts=5", P, "ListParts", "b", "k", {}, {.upload_id = "u"}},
        {"GET", "s3.example", "/b/k?acl", P, "GetObjectAcl", "b", "k"},
        {"GET", "s3.example", "/b/k?tagging=&acl", P, "GetObjectAcl", "b", "k"},  // table order, not query order
        {"GET", "s3.example", "/b/k", P, "GetObject", "b", "k", {.orb_action = "acl"}},  // objects: query only
        {"GET", "s3.example", "/b?acl", P, "GetBucketAcl", "b", ""},
        {"GET", "s3.example", "/b?acl=x", P, "GetBucketAcl", "b", ""},
        {"GET", "s3.example", "/b?acl=0123456789012345678901234567890", P, "GetBucketAcl", "b", ""},
        {"GET", "s3.example", "/b?acl=0123456789012345678901234567890123456789", P, "ListObject", "b", ""},
        {"GET", "s3.example", "/b", P, "GetBucketQuota", "b", "", {.orb_action = "QUOTA"}},
        {"GET", "s3.example", "/b?acl", P, "GetBucketQuota", "b", "", {.orb_action = "quota"}},  // header first
        {"GET", "s3.example", "/b", P, "GetServiceQuota", "b", "", {.orb_action = "getquota"}},  // at any path
        {"GET", "s3.example", "/", P, "GetServiceQuota", "", "", {.orb_action = "GetQuota"}},
        {"GET", "s3.example", "/?serviceblacklist", P, "ListBuckets"},  // service rows: header only
        {"GET", "s3.example", "/b?max-keys=0", P, "ListObject", "b", "", {}, {.max_keys = 1000}},
        {"GET", "s3.example", "/b?max-keys=abc", P, "ListObject", "b", "", {}, {.max_keys = 1000}},
        {"GET", "s3.example", "/b?max-keys=-5", P, "ListObject", "b", "", {}, {.max_keys = 1000}},
        {"GET", "s3.example", "/b?max-keys=7&list-type=1&prefix=a%2Fb", P, "ListObject", "b", "", {}, {.max_keys = 7, .list_type = 1, .prefix = "a/b"}},
        {"GET", "s3.example", "/b?acl&max-keys=0", P, "GetBucketAcl", "b", "", {}, {.max_keys = 1000}},
        {"GET", "s3.example", "/b?uploads&prefix=a%2F&delimiter=%2F", P, "ListMultipartUploads", "b", "", {}, {.prefix = "a/"}},
        {"GET", "bkt.s3.example", "/?uploads", V, "ListMultipartUploads", "bkt", ""},
        {"GET", "s3.example", "/b/k?max-keys=0", P, "GetObject", "b", "k", {}, {.max_keys = 0}},  // bucket level only
        {"GET", "s3.example", "/b?list-type=", P, "ListObject", "b", "", {}, {.list_type = 2}},

        // GET and HEAD, virtual-host style.
        {"GET", "bkt.s3.example", "/", V, "ListObject", "bkt", "", {}, {.max_keys = 1000}},
        {"HEAD", "bkt.s3.example:9000", "/", V, "ListObject", "bkt", ""},
        {"GET", "bkt.s3.example", "/a/b", V, "GetObject", "bkt", "a/b"},
        {"GET", "bkt.s3.example", "/a?acl", V, "GetObjectAcl", "bkt", "a"},
        {"GET", "bkt.s3.example", "/?versioning", V, "GetBucketVersioning", "bkt", ""},
        {"GET", "bkt.s3.example", "/", V, "GetServiceBlacklist", "bkt", "", {.orb_action = "serviceblacklist"}},
        {"GET", "s3.example.org", "/", V, "ListBuckets"},  // the Host starts with the domain
        {"GET", ".s3.example", "/", V, ""},                // no bucket before the dot
        {"GET", "mylocalhost", "/k", V, ""},               // no dot at all: no bucket
        {"PUT", "mylocalhost", "/k", V, ""},

        // PUT.
        {"PUT", "s3.example", "/b", P, "PutBucket", "b", ""},
        {"PUT", "s3.example", "/b/", P, "PutBucket", "b", ""},
        {"PUT", "s3.example", "/b/k", P, "PutObject", "b", "k"},
        {"PUT", "s3.example", "/b/k", P, "CopyObject", "b", "k", {.copy_source = "/src/o"}},
        {"PUT", "s3.example", "/b/k?acl", P, "PutObjectAcl", "b", "k", {.copy_source = "/src/o"}},
        {"PUT", "s3.example", "/b/k?partNumber=1&uploadId=u", P, "UploadPart", "b", "k", {}, {.part_number = 1, .upload_id = "u"}},
        {"PUT", "s3.example", "/b/k?partNumber=1&uploadId=u", P, "UploadPart", "b", "k", {.copy_source = "/s/o"}},
        {"PUT", "s3.example", "/b?foo", P, "UploadPart", "b", ""},
        {"PUT", "s3.example", "/b/k?AWSAccessKeyId=a&Signature=s&Expires=1", P, "PutObject", "b", "k"},
        // The key as sent: dot segments and empty components never retarget the request (the key check
        // refuses them); only escapes are decoded.
        {"PUT", "s3.example", "/b1/../x", P, "PutObject", "b1", "../x"},
        {"PUT", "s3.example", "/b1/%2e%2E/x", P, "PutObject", "b1", "../x"},
        {"PUT", "s3.example", "/b1/..", P, "PutObject", "b1", ".."},
        {"PUT", "s3.example", "/b1/./", P, "PutObject", "b1", "./"},
        {"PUT", "s3.example", "/./x", P, "PutObject", ".", "x"},
        {"PUT", "s3.example", "/b/a//c", P, "PutObject", "b", "a//c"},
        {"PUT", "s3.example", "/b//a", P, "PutObject", "b", "/a"},
        {"PUT", "s3.example", "/b/a%2F..%2Fc", P, "PutObject", "b", "a/../c"},
        {"PUT", "s3.example", "/b/a%3Fb%23c?acl", P, "PutObjectAcl", "b", "a?b#c"},
        {"PUT", "bkt.s3.example", "/a/../b", V, "PutObject", "bkt", "a/../b"},
        {"DELETE", "s3.example", "/b1/../x", P, "DeleteObject", "b1", "../x"},
        {"PUT", "s3.example", "/b?X-Amz-Signature=s&X-Amz-Credential=c", P, "PutBucket", "b", ""},
        {"PUT", "s3.example", "/b/k?x-id=PutObject", P, "PutObject", "b", "k"},
        {"PUT", "s3.example", "/b?tagging", P, "PutObjectTagging", "b", ""},  // no bucket row: object rows
        {"PUT", "s3.example", "/b?acl", P, "PutBucketAcl", "b", ""},
        {"PUT", "s3.example", "/b", P, "PutBucketQuota", "b", "", {.orb_action = "Quota"}},
        {"PUT", "s3.example", "/b/k", P, "PutObject", "b", "k", {.orb_action = "quota"}},  // bucket rows: bucket only
        {"PUT", "s3.example", "/", P, "PutServiceBlacklist", "", "", {.orb_action = "SERVICEBLACKLIST"}},
        {"PUT", "s3.example", "/?SERVICEBLACKLIST", P, ""},
        {"PUT", "s3.example", "/", P, ""},
        {"PUT", "s3.example", "/?accesskey", P, "PutAccessKey", "", ""},
        {"PUT", "s3.example", "/?accesskey=ak1", P, "PutAccessKey", "", ""},
        // A value longer than the 31 bytes read never matches, however it starts.
        {"PUT", "s3.example", "/", P, "", "", "", {.orb_action = "serviceblacklist-and-more-than-31-bytes"}},
        {"PUT", "s3.example", "/b", P, "PutBucket", "b", "", {.orb_action = "bucketauthorityuserstatus......."}},
        {"PUT", "s3.example", "/b", P, "PutBucketAuthorityUserStatus", "b", "",
         {.orb_action = "bucketauthorityuserstatus"}},
        {"PUT", "bkt.s3.example", "/", V, "PutBucket", "bkt", ""},
        {"PUT", "bkt.s3.example", "/k/l", V, "PutObject", "bkt", "k/l"},
        {"PUT", "bkt.s3.example", "/?recycle", V, "PutBucketRecycle", "bkt", ""},
        {"PUT", ".s3.example", "/", V, ""},
        {"PUT", ".s3.example", "/?accesskey", V, "PutAccessKey", "", ""},

        // DELETE.
        {"DELETE", "s3.example", "/b", P, "DeleteBucket", "b", ""},
        {"DELETE", "s3.example", "/b/k", P, "DeleteObject", "b", "k"},
        {"DELETE", "s3.example", "/b/k?X-Amz-Signature=s", P, "DeleteObject", "b", "k"},
        {"DELETE", "s3.example", "/b?X-Amz-Signature=s", P, "DeleteBucket", "b", ""},
        {"DELETE", "s3.example", "/b/k?uploadId=u", P, "AbortMultipartUpload", "b", "k", {}, {.upload_id = "u"}},
        {"DELETE", "s3.example", "/b/k?vorne", P, "DeleteObjectVorne", "b", "k"},
        {"DELETE", "s3.example", "/b/k?versionId=2026_11_24_18_00_01-12345600abcdef", P, "DeleteObject", "b", "k"},
        {"DELETE", "s3.example", "/b/k?uploadId=u1", P, "AbortMultipartUpload", "b", "k"},
        {"DELETE", "s3.example", "/b?lifecycle", P, "DeleteBucketLifeCycle", "b", ""},
        {"DELETE", "s3.example", "/b?tagging", P, "DeleteObjectTagging", "b", ""},
        {"DELETE", "s3.example", "/b?x", P, "AbortMultipartUpload", "b", ""},
        {"DELETE", "s3.example", "/", P, ""},
        {"DELETE", "s3.example", "/", P, "DeleteServiceUser", "", "", {.orb_action = "DelServiceUser"}},
        {"DELETE", "bkt.s3.example", "/", V, "DeleteBucket", "bkt", ""},
        {"DELETE", "bkt.s3.example", "/k", V, "DeleteObject", "bkt", "k"},

        // POST.
        {"POST", "s3.example", "/b?delete", P, "DeleteObjects", "b", ""},
        {"POST", "s3.example", "/b?delete=", P, "DeleteObjects", "b", ""},
        {"POST", "s3.example", "/b", P, "PutObject", "b", ""},
        {"POST", "s3.example", "/b/k?delete", P, "", "b", "k"},  // `delete` is a bucket-level key
        {"POST", "s3.example", "/b/k?uploads", P, "CreateMultipartUpload", "b", "k"},
        {"POST", "s3.example", "/b/k?uploads=", P, "CreateMultipartUpload", "b", "k"},
        {"POST", "s3.example", "/b/k?uploadId=u1", P, "CompleteMultipartUpload", "b", "k", {}, {.upload_id = "u1"}},
        {"POST", "s3.example", "/b/k?restore", P, "RestoreObject", "b", "k"},
        {"POST", "s3.example", "/b/k?append&position=0", P, "PutObject", "b", "k", {}, {.position = 0}},
        {"POST", "s3.example", "/b/k?append&position=7", P, "AppendObject", "b", "k", {}, {.position = 7}},
        {"POST", "s3.example", "/b/k?position=0&append", P, "PutObject", "b", "k"},  // position=0 ends the scan
        {"POST", "s3.example", "/b/k?position=7", P, ""},
        // A position that is no number is the append's to refuse, never a write over the object.
        {"POST", "s3.example", "/b/k?append&position=x", P, "AppendObject", "b", "k"},
        {"POST", "s3.example", "/b/k?append&position=", P, "AppendObject", "b", "k"},
        {"POST", "s3.example", "/b/k?appendix", P, "AppendObject", "b", "k"},  // compared over six bytes
        {"POST", "s3.example", "/b/k?uploads&restore", P, "RestoreObject", "b", "k"},
        {"POST", "s3.example", "/b/k?x=1&&uploads", P, "CreateMultipartUpload", "b", "k"},
        {"POST", "s3.example", "/b/k?x=1", P, ""},
        {"POST", "s3.example", "/b/k", P, "PutObject", "b", "k", {.orb_action = "acl"}},
        // The form list runs in virtual-host style only; the path style leaves the defaults at zero.
        {"POST", "s3.example", "/b/k?uploads&max-keys=5", P, "CreateMultipartUpload", "b", "k", {}, {.max_keys = 0}},
        {"POST", "bkt.s3.example", "/k?uploads&max-keys=5", V, "CreateMultipartUpload", "bkt", "k", {}, {.max_keys = 5}},
        {"POST", "bkt.s3.example", "/?delete", V, "DeleteObjects", "bkt", ""},
        {"POST", "bkt.s3.example", "/", V, "PutObject", "bkt", ""},
        {"POST", ".s3.example", "/?delete", V, ""},
        {"POST", "s3.example", "/", P, ""},

        // OPTIONS and methods the front end doesn't know.
        {"OPTIONS", "s3.example", "/b/k", P, "Options"},
        {"OPTIONS", "bkt.s3.example", "/k", V, "Options"},
        {"MKCOL", "s3.example", "/b/k", P, ""},
        {"PROPFIND", "s3.example", "/b", P, ""},
        {"PATCH", "bkt.s3.example", "/k", V, ""},
    };
    for (const row& w : rows) {
        SCOPED_TRACE(std::string(w.method) + " " + std::string(w.host) + std::string(w.target) + " [" +
                     std::string(w.h.orb_action) + "]");
        classified c(w.method, w.host, w.target, w.h.orb_action, w.h.copy_source);
        ASSERT_EQ(c.rc, 0);
        EXPECT_EQ(c.t.r->host_style, w.style);
        const orbs3_req_msg_t& m = c.msg();
        EXPECT_EQ(sv(m.action), w.action);
        expect_terminated(m.action);
        if (w.action.empty())
            continue;
        EXPECT_EQ(sv(m.bucket), w.bucket);
        EXPECT_EQ(sv(m.object), w.object);
        expect_terminated(m.bucket);
        expect_terminated(m.object);
        if (w.l.max_keys) {
            EXPECT_EQ(m.max_keys, *w.l.max_keys);
        }
        if (w.l.list_type) {
            EXPECT_EQ(m.list_type, *w.l.list_type);
        }
        if (w.l.part_number) {
            EXPECT_EQ(m.part_number, *w.l.part_number);
        }
        if (w.l.position) {
            EXPECT_EQ(m.position, *w.l.position);
        }
        if (w.l.upload_id) {
            EXPECT_EQ(sv(m.uploadId), *w.l.upload_id);
        }
        if (w.l.prefix) {
            EXPECT_EQ(sv(m.prefix), *w.l.prefix);
        }
    }
}

// Each table's rows through the road that reads it, in both addressing styles.
TEST(S3Classify, EveryParameterTableRowIsReachable)
{
    using table = std::span<const orbs3_s3_param_t>;
    auto rows_of = [](table t) {
        EXPECT_EQ(t.back().active, 0);  // the end row
        return t.first(t.size() - 1);
    };
    auto upper = [](std::string_view s) {
        std::string u(s);
        for (char& ch : u)
            ch = static_cast<char>(ch >= 'a' && ch <= 'z' ? ch - 32 : ch);
        return u;
    };
    struct road {
        std::string_view method;
        table rows;
        bool by_header;         // OrbAction, else the query
        bool object_level;
        std::string_view other;  // the action when the key comes by the other road
    };
    const road roads[] = {
        // Service rows hold at any path; by query they fall through to the object defaults.
        {"GET", orbs3_get_service_params, true, true, "GetObject"},
        {"PUT", orbs3_put_service_params, true, true, "UploadPart"},
        {"DELETE", orbs3_delete_service_params, true, true, "AbortMultipartUpload"},
        {"GET", orbs3_get_bucket_params, true, false, ""},
        {"PUT", orbs3_put_bucket_params, true, false, ""},
        {"DELETE", orbs3_delete_bucket_params, true, false, ""},
        {"GET", orbs3_get_bucket_params, false, false, ""},
        {"PUT", orbs3_put_bucket_params, false, false, ""},
        {"DELETE", orbs3_delete_bucket_params, false, false, ""},
        {"GET", orbs3_get_object_params, false, true, "GetObject"},
        {"PUT", orbs3_put_object_params, false, true, "PutObject"},
        {"DELETE", orbs3_delete_object_params, false, true, "DeleteObject"},
    };
    std::size_t tried = 0;
    for (const road& rd : roads) {
        for (const orbs3_s3_param_t& p : rows_of(rd.rows)) {
            for (bool virtual_style : {false, true}) {
                SCOPED_TRACE(std::string(rd.method) + " " + p.key + (rd.by_header ? " by header" : " by query") +
                             (virtual_style ? " virtual" : " path"));
                const std::string host = virtual_style ? "bkt.s3.example" : "s3.example";
                std::string path = virtual_style ? "/" : "/bkt";
                if (rd.object_level)
                    path += virtual_style ? "k" : "/k";
                const std::string header = rd.by_header ? upper(p.key) : std::string();
                const std::string target = rd.by_header ? path : path + "?" + p.key;
                classified c(rd.method, host, target, header);
                ASSERT_EQ(c.rc, 0);
                EXPECT_EQ(c.t.r->host_style, virtual_style ? V : P);
                EXPECT_EQ(sv(c.msg().action), p.action);
                EXPECT_EQ(sv(c.msg().bucket), "bkt");
                EXPECT_EQ(sv(c.msg().object), rd.object_level ? "k" : "");
                tried++;

                // The other road ignores the key.
                if (rd.other.empty())
                    continue;
                const std::string other_target = rd.by_header ? path + "?" + p.key : path;
                classified o(rd.method, host, other_target, rd.by_header ? std::string() : std::string(p.key));
                ASSERT_EQ(o.rc, 0);
                EXPECT_EQ(sv(o.msg().action), rd.other);
            }
        }
    }
    EXPECT_GT(tried, 200u);
}

TEST(S3Classify, FormListReadsEachKeyIntoItsField)
{
    struct want {
        std::string_view key;
        std::size_t offset;
        bool number;
        int32_t missing;
    };
    // The list fields and their defaults: a wrong name, length or offset in the list shows as a value
    // missing from its field.
    const want fields[] = {
        {"delimiter", offsetof(orbs3_req_msg_t, delimiter), false, 0},
        {"max-keys", offsetof(orbs3_req_msg_t, max_keys), true, 1000},
        {"encoding-type", offsetof(orbs3_req_msg_t, encoding_type), false, 0},
        {"prefix", offsetof(orbs3_req_msg_t, prefix), false, 0},
        {"list-type", offsetof(orbs3_req_msg_t, list_type), true, 2},
        {"continuation-token", offsetof(orbs3_req_msg_t, continuation_token), false, 0},
        {"marker", offsetof(orbs3_req_msg_t, marker), false, 0},
        {"start-after", offsetof(orbs3_req_msg_t, start_after), false, 0},
        {"fetch-owner", offsetof(orbs3_req_msg_t, fetch_owner), false, 0},
        {"uploadId", offsetof(orbs3_req_msg_t, uploadId), false, 0},
        {"max-parts", offsetof(orbs3_req_msg_t, max_parts), true, 0},
        {"part-number-marker", offsetof(orbs3_req_msg_t, part_number_marker), true, 0},
        {"partNumber", offsetof(orbs3_req_msg_t, part_number), true, 0},
        {"position", offsetof(orbs3_req_msg_t, position), true, 0},
    };
    const std::string v1023(1023, 'v');
    const std::string v1024(1024, 'v');
    struct value_case {
        std::string value;
        bool kept;
    };
    const value_case values[] = {{"=42", true}, {"=", false}, {"", false}, {"=" + v1023, true}, {"=" + v1024, false}};
    for (const want& f : fields) {
        if (f.key == "partNumber")
            continue;  // strict, not atoi: its own test below
        for (const value_case& v : values) {
            SCOPED_TRACE(std::string(f.key) + " value of " + std::to_string(v.value.size()) + " bytes");
            // An object-level PUT: no listing rule touches max-keys there.
            classified c("PUT", "s3.example", "/b/k?" + std::string(f.key) + v.value);
            ASSERT_EQ(c.rc, 0);
            const char* base = reinterpret_cast<const char*>(&c.msg()) + f.offset;
            if (f.number) {
                int32_t got = *reinterpret_cast<const int32_t*>(base);
                EXPECT_EQ(got, v.kept ? (v.value == "=42" ? 42 : 0) : f.missing);
            } else {
                const auto* s = reinterpret_cast<const orbs3_str_t*>(base);
                EXPECT_EQ(sv(*s), v.kept ? std::string_view(v.value).substr(1) : std::string_view());
                expect_terminated(*s);
            }
        }
    }
}

// A part number that is not a whole count of 1 to 10000 is told apart from a missing one, so that the
// handler refuses it instead of taking "1.5" for part 1.
TEST(S3Classify, PartNumberIsADecimalCountFrom1To10000OrMarkedInvalidAndOtherNumbersReadAsAtoi)
{
    struct row {
        std::string_view query;
        int32_t part_number;
    };
    const row rows[] = {
        {"partNumber=1", 1},      {"partNumber=10000", 10000}, {"partNumber=007", 7},     {"", 0},
        {"partNumber=1.5", -1},   {"partNumber=0", -1},        {"partNumber=10001", -1},  {"partNumber=-1", -1},
        {"partNumber=+1", -1},    {"partNumber=%201", -1},     {"partNumber=1e3", -1},    {"partNumber=", -1},
        {"partNumber", -1},       {"partNumber=0x10", -1},     {"partNumber=99999999999", -1},
    };
    for (const row& w : rows) {
        SCOPED_TRACE(std::string(w.query));
        classified c("PUT", "s3.example", "/b/k?uploadId=u&" + std::string(w.query));
        ASSERT_EQ(c.rc, 0);
        EXPECT_EQ(c.msg().part_number, w.part_number);
    }
    // Other numbers are read as atoi would, held to the range of int32.
    const row atoi_rows[] = {
        {"12abc", 12}, {"+3", 3}, {"-3", -3}, {"%209", 9}, {"x1", 0},
        {"2147483647", INT32_MAX}, {"2147483648", INT32_MAX}, {"99999999999999999999", INT32_MAX},
        {"-2147483648", INT32_MIN}, {"-99999999999999999999", INT32_MIN},
    };
    for (const row& w : atoi_rows) {
        SCOPED_TRACE(std::string(w.query));
        classified c("PUT", "s3.example", "/b/k?max-parts=" + std::string(w.query));
        ASSERT_EQ(c.rc, 0);
        EXPECT_EQ(c.msg().max_parts, w.part_number);
    }
}

// Odd paths (none at all, "//x", no leading slash) still classify safely.
TEST(S3Classify, HandMadePathsNeverYieldANegativeLength)
{
    http_test::ensure_headers_hash();
    struct row {
        uint32_t method;
        std::string_view uri;
        std::string_view action;
        std::string_view object;
    };
    const row rows[] = {
        {ORBS3_HTTP_GET, "//x", "", ""},
        {ORBS3_HTTP_PUT, "//x", "", ""},
        {ORBS3_HTTP_POST, "//x", "", ""},
        {ORBS3_HTTP_PUT, "", "", ""},
        {ORBS3_HTTP_GET, "", "ListBuckets", ""},
        {ORBS3_HTTP_POST, "/b", "PutObject", ""},
        {ORBS3_HTTP_PUT, "/b", "PutBucket", ""},
        {ORBS3_HTTP_PUT, "b", "", ""},
    };
    for (const row& w : rows) {
        for (uint32_t style : {P, V}) {
            SCOPED_TRACE(std::string(w.uri) + (style == V ? " virtual" : " path"));
            test_request t("");
            ASSERT_NE(t.r, nullptr);
            std::string host = style == V ? "b.s3.example" : "s3.example";
            std::string url = host + std::string(w.uri);
            orbs3_header_t h{};
            h.value = {host.size(), host.data()};
            t.r->headers_in.host = &h;
            t.r->url = {url.size(), url.data()};
            t.r->uri = {w.uri.size(), url.data() + host.size()};
            t.r->unparsed_uri = t.r->uri;
            t.r->method = w.method;
            t.r->host_style = style;
            EXPECT_EQ(orbs3_parse_req_msg(t.r), 0);
            const orbs3_req_msg_t& m = t.r->req_msg;
            EXPECT_LE(m.bucket.len, url.size());
            EXPECT_LE(m.object.len, url.size());
            if (style == P) {
                EXPECT_EQ(sv(m.action), w.action);
                if (!w.action.empty()) {
                    EXPECT_EQ(sv(m.object), w.object);
                }
            }
        }
    }
}

TEST(S3Classify, ActionHandlerCopiesTheNameIntoThePool)
{
    test_request t("");
    ASSERT_NE(t.r, nullptr);
    char name[] = "PutObject";
    ASSERT_EQ(orbs3_action_handler(t.r, name), 0);
    name[0] = 'X';
    EXPECT_EQ(sv(t.r->req_msg.action), "PutObject");
    expect_terminated(t.r->req_msg.action);
    EXPECT_EQ(orbs3_action_handler(t.r, nullptr), -1);
    EXPECT_EQ(orbs3_action_handler(nullptr, "PutObject"), -1);
    EXPECT_EQ(sv(t.r->req_msg.action), "PutObject");
}

}  // namespace
