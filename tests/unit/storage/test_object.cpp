#include "storage/orbs3_object.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "access/orbs3_access_check.h"
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

// Without credentials a request goes as far as the public bits allow: the bucket's for a listing and a
// write, the content's own record for a read; a missing key is told only where the bucket is listable.
TEST(Object, RequestsWithoutCredentialsFollowThePublicBits)
{
    constexpr uint32_t owner = ORBS3_ACL_FULL_CONTROL;
    constexpr uint32_t read = ORBS3_ACL_FULL_CONTROL | ORBS3_ACL_ALL_USERS_READ;
    constexpr uint32_t read_write = read | ORBS3_ACL_ALL_USERS_WRITE;
    constexpr uint32_t authenticated = ORBS3_ACL_FULL_CONTROL | ORBS3_ACL_AUTH_USERS_READ;
    constexpr int denied = ORBS3_S3_ACCESS_DENIED;
    const struct {
        uint32_t bucket_acl;
        int code;
        int status;
    } bucket_rows[] = {
        {owner, ORBS3_ACCESS_LIST, denied},          {authenticated, ORBS3_ACCESS_LIST, denied},
        {read, ORBS3_ACCESS_LIST, 0},                {read, ORBS3_ACCESS_WRITE, denied},
        {read_write, ORBS3_ACCESS_WRITE, 0},         {owner, ORBS3_ACCESS_READ, 0},
        {read_write, ORBS3_ACCESS_DELETE, denied},   {read_write, ORBS3_ACCESS_COPY, denied},
        {read_write, ORBS3_ACCESS_AUTHORITY, denied},
    };
    storage_test::bucket_ptr b(orbs3_bucket_new());
    ASSERT_NE(b, nullptr);
    for (const auto& w : bucket_rows) {
        b->acl = w.bucket_acl;
        EXPECT_EQ(orbs3_anonymous_bucket_status(b.get(), w.code), w.status) << std::hex << w.bucket_acl << " " << w.code;
    }

    orbs3_object_t rec{};
    const struct {
        uint32_t bucket_acl;
        int record_acl;  // -1: the content has no record
        int open_status;
        int status;
    } object_rows[] = {
        {owner, read, 0, 0},
        {read, owner, 0, denied},  // a public bucket does not make its objects public
        {read, authenticated, 0, denied},
        {read, -1, 0, denied},
        {read, read, ORBS3_S3_NO_SUCH_KEY, ORBS3_S3_NO_SUCH_KEY},
        {owner, read, ORBS3_S3_NO_SUCH_KEY, denied},
        {read, read, ORBS3_S3_NO_SUCH_VERSION, ORBS3_S3_NO_SUCH_VERSION},
        {owner, read, ORBS3_S3_NO_SUCH_VERSION, denied},
        {owner, read, ORBS3_S3_INVALID_ARGUMENT, ORBS3_S3_INVALID_ARGUMENT},
    };
    for (const auto& w : object_rows) {
        b->acl = w.bucket_acl;
        rec.acl = static_cast<uint32_t>(w.record_acl);
        EXPECT_EQ(orbs3_anonymous_object_status(b.get(), w.record_acl < 0 ? nullptr : &rec, w.open_status), w.status)
            << std::hex << w.bucket_acl << " " << w.record_acl << " " << w.open_status;
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
