#include "storage/orbs3_object.h"

#include <gtest/gtest.h>

#include <cstring>

#include "control/orbs3_service.h"
#include "storage/orbs3_bucket.h"
#include "storage/orbs3_record.h"

namespace {

struct vhost_deleter {
    void operator()(orbs3_vhost_t* vh) const { orbs3_free_vhost_data(vh); }
};

// file_threshold is kilobytes, of the tenant and of the bucket; the smaller one counts, a length equal to
// it passes, and 0 or nothing is no limit.
TEST(Object, SizeLimitOfTenantAndBucket)
{
    std::unique_ptr<orbs3_vhost_t, vhost_deleter> vh(orbs3_vhost_new());
    ASSERT_NE(vh, nullptr);
    vh->service_rec = orbs3_get_service(nullptr);
    ASSERT_NE(vh->service_rec, nullptr);
    std::unique_ptr<orbs3_bucket_t, decltype(&orbs3_free_bucket)> b(orbs3_bucket_new(), &orbs3_free_bucket);
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

}  // namespace
