#include "storage/orbs3_object_read.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <tuple>

#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_object.h"
#include "storage/storage_fixture.h"
#include "versions/orbs3_version_name.h"

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

// A version is opened by its id with its own bytes and record; a delete marker, an unknown id and a
// malformed one each answer for themselves; and a key whose newest entry is a marker says so.
TEST_F(ObjectRead, VersionsOpenByIdWithTheirOwnRecords)
{
    bucket_->versioning.status = 1;
    bucket_->versioning.save_num = 10;
    const std::string tree = storage_test::str(bucket_->version_dir);
    char older[ORBS3_VERSION_SUFFIX_LEN + 1], marker[ORBS3_VERSION_SUFFIX_LEN + 1], live[ORBS3_VERSION_SUFFIX_LEN + 1];
    ASSERT_EQ(orbs3_version_new_suffix("2026-11-24T18:00:01.000Z", older), 0);
    ASSERT_EQ(orbs3_version_new_suffix("2026-11-24T18:00:02.000Z", marker), 0);
    ASSERT_EQ(orbs3_version_new_suffix("2026-11-24T18:00:03.000Z", live), 0);
    orbs3_user_t owner{};
    // The live object, with its id.
    write(data_, "d/k", "live!");
    {
        orbs3_object_meta_t meta;
        meta.version_id = live;
        ASSERT_EQ(orbs3_object_write_record(&owner, "d/k", (meta_ + "/d/k").c_str(), (data_ + "/d/k").c_str(),
                                            "11111111111111111111111111111111", 5, "2026-11-24T18:00:03.000Z", &meta),
                  0);
    }
    // An older version assembled from parts, with metadata of its own.
    orbs3_version_file_t v;
    ASSERT_EQ(orbs3_version_paths(tree, "d/k", older, &v), 0);
    storage_test::write_file(v.data, "0123456789ab");
    {
        orbs3_object_meta_t meta;
        meta.version_id = older;
        meta.parts = "5*2 2";
        meta.content_type = "text/old";
        ASSERT_EQ(orbs3_object_write_record(&owner, "d/k", v.record, v.data, "0123456789abcdef0123456789abcdef-3", 12,
                                            "2026-11-24T18:00:01.000Z", &meta),
                  0);
    }
    // A delete marker between them: a record without bytes.
    orbs3_version_file_t m;
    ASSERT_EQ(orbs3_version_paths(tree, "d/k", marker, &m), 0);
    storage_test::write_file(m.record, std::string("<object objectname=\"d/k\" last_modified=\"2026-11-24T18:00:02.000Z\" "
                                     "version_id=\"") + marker + "\" delete_marker=\"1\" />");

    orbs3_object_source_t by_live;
    ASSERT_EQ(orbs3_object_open_version(bucket_, "d/k", live, &by_live), 0);
    EXPECT_STREQ(by_live.version_id, live);
    EXPECT_FALSE(by_live.old_version);
    EXPECT_EQ(by_live.size, 5);

    orbs3_object_source_t by_old;
    ASSERT_EQ(orbs3_object_open_version(bucket_, "d/k", older, &by_old), 0);
    EXPECT_TRUE(by_old.old_version && by_old.recorded_etag && by_old.record);
    EXPECT_STREQ(by_old.version_id, older);
    EXPECT_STREQ(by_old.etag, "0123456789abcdef0123456789abcdef-3");
    EXPECT_EQ(by_old.size, 12);
    EXPECT_EQ(by_old.mtime, orbs3_object_stamp_time("2026-11-24T18:00:01.000Z"));
    EXPECT_EQ(storage_test::str(by_old.record->content_type), "text/old");
    uint8_t head[4];
    ASSERT_EQ(orbs3_object_read_at(by_old.file.get(), head, 0, 4), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(head), 4), "0123");

    struct row {
        std::string id;
        int rc;
        bool delete_marker;
    };
    const row refused[] = {
        {marker, ORBS3_S3_METHOD_NOT_ALLOWED, true},
        {"2026_11_24_18_00_09-000000deadbeef", ORBS3_S3_NO_SUCH_VERSION, false},
        {"null", ORBS3_S3_NO_SUCH_VERSION, false},
        {"../../etc", ORBS3_S3_INVALID_ARGUMENT, false},
        {"3HL4kqtJlcpXroDTDmJ", ORBS3_S3_INVALID_ARGUMENT, false},
    };
    for (const row& w : refused) {
        orbs3_object_source_t src;
        EXPECT_EQ(orbs3_object_open_version(bucket_, "d/k", w.id, &src), w.rc) << w.id;
        EXPECT_EQ(src.delete_marker, w.delete_marker) << w.id;
        if (w.delete_marker) {
            EXPECT_STREQ(src.version_id, marker);
        }
    }

    // Without its live object the key answers NoSuchKey, and tells when its newest entry is a marker.
    fs::remove(data_ + "/d/k");
    orbs3_object_source_t gone;
    EXPECT_EQ(orbs3_object_open(bucket_, "d/k", &gone), ORBS3_S3_NO_SUCH_KEY);
    EXPECT_TRUE(gone.delete_marker);
    EXPECT_STREQ(gone.version_id, marker);
    fs::remove(m.record);
    orbs3_object_source_t plain;
    EXPECT_EQ(orbs3_object_open(bucket_, "d/k", &plain), ORBS3_S3_NO_SUCH_KEY);
    EXPECT_FALSE(plain.delete_marker);
}

}  // namespace
