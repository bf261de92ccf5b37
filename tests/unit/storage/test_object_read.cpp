#include "storage/orbs3_object_read.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <tuple>

#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_object.h"
#include "storage/storage_fixture.h"

namespace {

namespace fs = std::filesystem;

class ObjectRead : public storage_test::bucket_fixture {
protected:
    // The object's record, as a commit writes it.
    void record(const std::string& key, const std::string& meta_rel, int64_t size, const char* etag)
    {
        fs::create_directories(fs::path(meta_ + "/" + meta_rel).parent_path());
        orbs3_user_t owner{};
        orbs3_object_meta_t meta;
        meta.parts = parts_;
        ASSERT_EQ(orbs3_object_write_record(&owner, key, (meta_ + "/" + meta_rel).c_str(), (data_ + "/" + key).c_str(),
                                            etag, size, "2026-07-01T12:00:00.000Z", &meta),
                  0);
    }
    std::string_view parts_;
};

TEST_F(ObjectRead, OpenTrustsOnlyARecordThatDescribesTheFile)
{
    orbs3_object_source_t missing;
    EXPECT_EQ(orbs3_object_open(bucket_, "a/k", &missing), ORBS3_S3_NO_SUCH_KEY);

    write(data_, "a/k", "hello");
    record("a/k", "a/k", 5, "0123456789abcdef0123456789abcdef");
    orbs3_object_source_t whole;
    ASSERT_EQ(orbs3_object_open(bucket_, "a/k", &whole), 0);
    EXPECT_TRUE(whole.file.valid() && whole.record && whole.recorded_etag);
    EXPECT_EQ(whole.size, 5);
    EXPECT_STREQ(whole.etag, "0123456789abcdef0123456789abcdef");
    EXPECT_EQ(whole.mtime, orbs3_object_stamp_time("2026-07-01T12:00:00.000Z"));

    // A commit in progress has replaced the bytes but not yet the record: the file speaks for itself.
    write(data_, "a/k", "hello!");
    orbs3_object_source_t lagging;
    ASSERT_EQ(orbs3_object_open(bucket_, "a/k", &lagging), 0);
    struct stat st {};
    ASSERT_EQ(stat((data_ + "/a/k").c_str(), &st), 0);
    EXPECT_FALSE(lagging.record || lagging.recorded_etag);
    EXPECT_EQ(lagging.size, 6);
    EXPECT_EQ(lagging.mtime, st.st_mtime);
    EXPECT_EQ(std::string(lagging.etag).size(), 32u);
    EXPECT_STRNE(lagging.etag, whole.etag);

    // A directory object is its record alone; a directory that only holds keys is none.
    orbs3_object_source_t dir;
    EXPECT_EQ(orbs3_object_open(bucket_, "a/", &dir), ORBS3_S3_NO_SUCH_KEY);
    record("a/", "a/" + std::string(ORBS3_DIR_MARKER), 0, "d41d8cd98f00b204e9800998ecf8427e");
    orbs3_object_source_t marker;
    ASSERT_EQ(orbs3_object_open(bucket_, "a/", &marker), 0);
    EXPECT_TRUE(marker.record && !marker.file.valid());
    EXPECT_EQ(marker.size, 0);
}

TEST_F(ObjectRead, PartsOfAnAssembledObjectAndOfOneSentWhole)
{
    write(data_, "m", std::string(12, 'x'));
    parts_ = "5*2 2";
    record("m", "m", 12, "0123456789abcdef0123456789abcdef-3");
    orbs3_object_source_t src;
    ASSERT_EQ(orbs3_object_open(bucket_, "m", &src), 0);
    // {record, part, status, offset, length, count}: an object sent whole is its only part, with no count.
    const std::tuple<const orbs3_object_t*, int, int, int64_t, int64_t, int> rows[] = {
        {src.record.get(), 3, 0, 10, 2, 3}, {src.record.get(), 4, ORBS3_S3_INVALID_PART_NUMBER, 0, 12, 3},
        {nullptr, 1, 0, 0, 12, 0},           {nullptr, 2, ORBS3_S3_INVALID_PART_NUMBER, 0, 12, 1},
    };
    for (const auto& [rec, part, rc, offset, length, count] : rows) {
        int64_t o = -1, l = -1;
        int c = -1;
        std::string_view checksum;
        EXPECT_EQ(orbs3_object_part(rec, 12, part, &o, &l, &c, &checksum), rc) << part;
        if (rc == 0) {
            EXPECT_EQ((std::tuple{o, l, c}), (std::tuple{offset, length, count})) << part;
        }
    }
}

}  // namespace
