#include "storage/orbs3_object_copy.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "http/http_test_request.h"
#include "http/orbs3_http_parse.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/storage_fixture.h"

using http_test::sv;
using http_test::test_request;

namespace {

class CopySource : public ::testing::Test {
protected:
    void SetUp() override { http_test::ensure_headers_hash(); }
    storage_test::conf_limits limits_;
};

struct parsed {
    test_request t;
    orbs3_str_t bucket{};
    orbs3_str_t key{};
    std::string_view version;
    int rc = -99;

    explicit parsed(std::string headers) : t("PUT /dst/k HTTP/1.1\r\nHost: h\r\n" + headers + "\r\n")
    {
        if (t.r == nullptr || parser_http_request_handler(t.r) != 0)
            return;
        rc = orbs3_parse_copy_source(t.r, t.r->pool, &bucket, &key, &version);
    }
};

constexpr int ok = 0;
constexpr int bad = static_cast<int>(ORBS3_S3_INVALID_ARGUMENT);

TEST_F(CopySource, BucketAndKeyDecodedFromEitherHeader)
{
    struct row {
        std::string headers;
        int rc;
        std::string_view bucket;
        std::string_view key;
        std::string_view version = {};
    };
    const row rows[] = {
        {"x-amz-copy-source: src/a/b.txt\r\n", ok, "src", "a/b.txt"},
        {"x-amz-copy-source: /src/a/b.txt\r\n", ok, "src", "a/b.txt"},
        {"X-Amz-Copy-Source:   /src/k  \r\n", ok, "src", "k"},
        {"X-Copy-Source: /src/old\r\n", ok, "src", "old"},
        // The S3 header wins over the older one when a client sends both.
        {"X-Copy-Source: /other/x\r\nx-amz-copy-source: src/y\r\n", ok, "src", "y"},
        // Escapes of either case; "+" is a plus, not a space; a "?" of the key comes as %3F.
        {"x-amz-copy-source: src/my%20file%2bx+y\r\n", ok, "src", "my file+x+y"},
        {"x-amz-copy-source: src/%E2%82%AC/%c3%a9t%C3%A9\r\n", ok, "src", "\xE2\x82\xAC/\xC3\xA9t\xC3\xA9"},
        {"x-amz-copy-source: src/what%3F\r\n", ok, "src", "what?"},
        // A slash sent escaped still separates bucket and key.
        {"x-amz-copy-source: src%2Fa%2Fb\r\n", ok, "src", "a/b"},
        // The version suffix names the version; only the text before it names the key.
        {"x-amz-copy-source: /src/k%3FversionId%3Dx?versionId=2026_11_24_18_00_01-123456abcdef01\r\n", ok, "src",
         "k?versionId=x", "2026_11_24_18_00_01-123456abcdef01"},
        {"x-amz-copy-source: src/dir/?versionId=null\r\n", ok, "src", "dir/", "null"},
        // An id that can't be one of this server's is refused, not taken for the live object.
        {"x-amz-copy-source: /src/k?versionId=3HL4kqtJlcpXroDTDmJ\r\n", bad, "", ""},
        {"x-amz-copy-source: /src/k?versionId=\r\n", bad, "", ""},
    };
    for (const row& c : rows) {
        parsed p(c.headers);
        ASSERT_NE(p.t.r, nullptr);
        EXPECT_EQ(p.rc, c.rc) << c.headers;
        if (p.rc != 0)
            continue;
        EXPECT_EQ(sv(p.bucket), c.bucket) << c.headers;
        EXPECT_EQ(sv(p.key), c.key) << c.headers;
        EXPECT_EQ(p.version, c.version) << c.headers;
        EXPECT_EQ(p.bucket.data[p.bucket.len], '\0');
        EXPECT_EQ(p.key.data[p.key.len], '\0');
    }
}

TEST_F(CopySource, MissingMalformedOrUnsafeSourcesRefused)
{
    const std::string long_key(1100, 'k');
    struct row {
        std::string headers;
        int rc;
    };
    const row rows[] = {
        {"", bad},                                   // no source at all
        {"x-amz-copy-source: \r\n", bad},            // empty
        {"x-amz-copy-source: /\r\n", bad},           // neither bucket nor key
        {"x-amz-copy-source: src\r\n", bad},         // no key
        {"x-amz-copy-source: src/\r\n", bad},        // empty key
        {"x-amz-copy-source: //k\r\n", bad},         // empty bucket
        {"x-amz-copy-source: src/?versionId=1\r\n", bad},
        {"x-amz-copy-source: src/a%2\r\n", bad},     // escape cut short
        {"x-amz-copy-source: src/a%zzb\r\n", bad},   // escape without hex digits
        {"x-amz-copy-source: src/a%\r\n", bad},
        {"x-amz-copy-source: src/a%00b\r\n", bad},   // a NUL can't be part of a key
        {"x-amz-copy-source: src/../etc/passwd\r\n", bad},
        {"x-amz-copy-source: src/a/%2E%2E/b\r\n", bad},  // the same, escaped
        {"x-amz-copy-source: src//lead\r\n", bad},   // key with a leading "/"
        {"x-amz-copy-source: ../k\r\n", bad},        // bucket that walks out of the tree
        {"x-amz-copy-source: src/a/.orbs3-tmp-1\r\n", bad},  // the server's own temporary names
        {"x-amz-copy-source: src/" + long_key + "\r\n", static_cast<int>(ORBS3_S3_KEY_TOO_LONG)},
    };
    for (const row& c : rows) {
        parsed p(c.headers);
        ASSERT_NE(p.t.r, nullptr);
        EXPECT_EQ(p.rc, c.rc) << c.headers;
    }
}

}  // namespace
