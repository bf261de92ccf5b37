#include "storage/orbs3_object.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "s3/orbs3_s3_errors.h"
#include "storage/storage_fixture.h"

namespace {

// file_threshold is kilobytes, of the tenant and of the bucket; the smaller one counts, a length equal to
// it passes, and 0 or nothing is no limit.
TEST(Object, SizeLimitOfTenantAndBucket)
{
    storage_test::vhost_ptr vh(orbs3_vhost_new());
    ASSERT_NE(vh, nullptr);
    vh->service_rec = orbs3_get_service(nullptr);
    ASSERT_NE(vh->service_rec, nullptr);
    storage_test::bucket_ptr b(orbs3_bucket_new());
    ASSERT_NE(b, nullptr);

    EXPECT_EQ(orbs3_object_size_limit(vh.get(), b.get()), -1);
    EXPECT_EQ(orbs3_check_object_size(vh.get(), b.get(), INT64_MAX), 0);

    neo_strdup(&vh->service_rec->quota.file_threshold, "4", 20);
    EXPECT_EQ(orbs3_object_size_limit(vh.get(), b.get()), 4096);
    EXPECT_EQ(orbs3_check_object_size(vh.get(), b.get(), 4096), 0);
    EXPECT_EQ(orbs3_check_object_size(vh.get(), b.get(), 4097), 1);

    b->quota.file_threshold = 2;
    EXPECT_EQ(orbs3_object_size_limit(vh.get(), b.get()), 2048);
    b->quota.file_threshold = 8;
    EXPECT_EQ(orbs3_object_size_limit(vh.get(), b.get()), 4096);

    // A text that is no number, or one beyond what bytes can count, sets no limit.
    for (const char* text : {"0", "x", "99999999999999999999"}) {
        neo_strfree(&vh->service_rec->quota.file_threshold);
        neo_strdup(&vh->service_rec->quota.file_threshold, text, 20);
        b->quota.file_threshold = 0;
        EXPECT_EQ(orbs3_object_size_limit(vh.get(), b.get()), -1) << text;
    }
}

// A directory object's ETag is the MD5 of "<key>:0:" as nothing else is known of it.
TEST(Object, ComputedEtagOfADirectoryObject)
{
    char etag[33];
    Compute_file_md5("a/b/", 0, "", etag);
    EXPECT_STREQ(etag, "0609bbd1a622874d2ab46e75f9f5e00a");  // md5 of "a/b/:0:"
    Compute_file_md5("a/b/", 1, "", etag);
    EXPECT_STRNE(etag, "0609bbd1a622874d2ab46e75f9f5e00a");
}

// Every key a plain file can't hold apart from another key, or a listing can't carry, is refused with its
// own reason; anything else is taken as sent.
TEST(Object, KeysAreTakenAsSentOrRefusedWithTheirReason)
{
    using namespace std::string_literals;
    storage_test::conf_limits limits;
    constexpr auto arg = ORBS3_S3_INVALID_ARGUMENT;
    struct row {
        std::string key;
        uint32_t code;          // 0: taken
        const char* reason;     // a text the message holds; null: the code's own text
    } rows[] = {
        {"a", 0, nullptr},
        {"a/b/", 0, nullptr},
        {"tab\tnl\ncr\r", 0, nullptr},
        {"caf\xc3\xa9 \xf0\x9f\x98\x80+%&<", 0, nullptr},
        {"a\x7f", 0, nullptr},
        {"..a/b..", 0, nullptr},
        {"", arg, "empty"},
        {"/a", arg, "starting with"},
        {"//", arg, "starting with"},
        {"a//b", arg, "empty path segment"},
        {"a/b//", arg, "empty path segment"},
        {"a/./b", arg, "\".\""},
        {"..", arg, "\"..\""},
        {"a/..", arg, "\"..\""},
        {"\x01", arg, "control characters"},
        {"a/\x1f", arg, "control characters"},
        {"a\0b"s, arg, "control characters"},
        {"a/.orbs3-dir", arg, "reserved"},
        {"\xff", ORBS3_S3_INVALID_URI, nullptr},
        {"\xc0\xaf", ORBS3_S3_INVALID_URI, nullptr},          // an overlong "/"
        {"\xed\xa0\x80", ORBS3_S3_INVALID_URI, nullptr},     // a surrogate
        {"\xf4\x90\x80\x80", ORBS3_S3_INVALID_URI, nullptr}, // above U+10FFFF
        {"\xe6\x97", ORBS3_S3_INVALID_URI, nullptr},          // cut short
        {std::string(128, 'k'), ORBS3_S3_KEY_TOO_LONG, nullptr},
    };
    for (const row& r : rows) {
        const char* message = nullptr;
        EXPECT_EQ(orbs3_object_key_status(r.key, &message), static_cast<int>(r.code)) << r.key;
        if (r.reason == nullptr) {
            EXPECT_EQ(message, nullptr) << r.key;
        } else {
            ASSERT_NE(message, nullptr) << r.key;
            EXPECT_NE(std::string(message).find(r.reason), std::string::npos) << r.key << ": " << message;
        }
    }
}

}  // namespace
