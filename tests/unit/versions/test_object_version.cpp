// What a replacing write does with the content it replaces, and how a version comes back: every content
// ends up in exactly one place, under its own name, whatever the bound and however fast the writes come.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "s3/orbs3_s3_errors.h"
#include "storage/storage_fixture.h"
#include "versions/orbs3_object_version.h"

namespace {

using storage_test::bucket_fixture;
using storage_test::read_file;

class ObjectVersion : public bucket_fixture {
protected:
    // A write of `bytes` to `key` as a PUT makes it: the old content handed to the version step, then
    // the new bytes renamed over the live file and the record written. "" as id writes a "null" content.
    int put(const std::string& key, const std::string& bytes, const std::string& id)
    {
        orbs3_object_path_t path;
        if (orbs3_make_object_path(bucket_, key, "", &path) != 0)
            return -1;
        if (int rc = orbs3_object_version_update(bucket_, key, &path, id.empty()); rc != 0)
            return rc;
        write(data_, key + ".tmp", bytes);
        std::filesystem::rename(data_ + "/" + key + ".tmp", path.data_path);
        std::string rec = "<object objectname=\"" + key + "\" etag=\"e-" + bytes +
                          "\" last_modified=\"2026-11-24T18:00:01.000Z\" size=\"" + std::to_string(bytes.size()) +
                          "\"" + (id.empty() ? "" : " version_id=\"" + id + "\"") + " />";
        write(meta_, key, rec);
        return 0;
    }
    std::string new_id()
    {
        char id[ORBS3_VERSION_SUFFIX_LEN + 1];
        EXPECT_EQ(orbs3_version_new_suffix("2026-11-24T18:00:01.000Z", id), 0);
        return id;
    }
    // Every content file of a tree, by its bytes (records aside).
    static std::map<std::string, int> contents(const std::string& root)
    {
        std::map<std::string, int> seen;
        if (!std::filesystem::exists(root))
            return seen;
        for (const auto& e : std::filesystem::recursive_directory_iterator(root))
            if (e.is_regular_file() && !orbs3_version_is_record_name(e.path().filename().string()))
                seen[read_file(e.path().string())]++;
        return seen;
    }
    std::string version_ = storage_test::str(bucket_ == nullptr ? orbs3_str_t{} : bucket_->version_dir);
    void SetUp() override
    {
        bucket_fixture::SetUp();
        version_ = storage_test::str(bucket_->version_dir);
    }
};

TEST_F(ObjectVersion, BoundKeepsSaveNumAndRecyclesTheEldestWithinOneSecond)
{
    bucket_->versioning.status = 1;
    bucket_->versioning.save_num = 3;
    for (int i = 0; i <= 5; i++)
        ASSERT_EQ(put("d/k", "c" + std::to_string(i), new_id()), 0) << i;
    EXPECT_EQ(read_file(data_ + "/d/k"), "c5");
    EXPECT_EQ(contents(version_), (std::map<std::string, int>{{"c2", 1}, {"c3", 1}, {"c4", 1}}));
    EXPECT_EQ(contents(recycle_), (std::map<std::string, int>{{"c0", 1}, {"c1", 1}}));
    // Each kept content has its record beside it, and the newest version is the one just replaced.
    std::vector<orbs3_version_entry_t> list;
    ASSERT_EQ(orbs3_version_list_key(version_, "d/k", &list), 0);
    ASSERT_EQ(list.size(), 3u);
    for (const auto& e : list)
        EXPECT_TRUE(e.has_data && e.has_record) << e.suffix;
    orbs3_version_file_t f;
    ASSERT_EQ(orbs3_version_paths(version_, "d/k", list.front().suffix, &f), 0);
    EXPECT_EQ(read_file(f.data), "c4");
}

TEST_F(ObjectVersion, NullContentIsKeptOnlyWhileEnabledAndOnceOnly)
{
    // Never set: the old content is simply replaced, nothing is scanned or moved.
    ASSERT_EQ(put("k", "a", ""), 0);
    ASSERT_EQ(put("k", "b", ""), 0);
    EXPECT_TRUE(contents(version_).empty());
    // Enabled: the "null" content is kept, with a record that still says null.
    bucket_->versioning.status = 1;
    bucket_->versioning.save_num = 10;
    ASSERT_EQ(put("k", "c", new_id()), 0);
    EXPECT_EQ(contents(version_), (std::map<std::string, int>{{"b", 1}}));
    orbs3_version_ref_t ref;
    ASSERT_EQ(orbs3_version_find(bucket_, "k", "null", &ref), 0);
    EXPECT_EQ(ref.place, orbs3_version_place_t::version);
    EXPECT_EQ(read_file(ref.file.data), "b");
    // Suspended: the live content has a real id and is kept; the new "null" content pushes the old
    // "null" version out to the recycle tree, so the key has one "null" only.
    bucket_->versioning.status = 0;
    ASSERT_EQ(put("k", "d", ""), 0);
    EXPECT_EQ(contents(version_), (std::map<std::string, int>{{"c", 1}}));
    EXPECT_EQ(contents(recycle_), (std::map<std::string, int>{{"b", 1}}));
    ASSERT_EQ(orbs3_version_find(bucket_, "k", "null", &ref), 0);
    EXPECT_EQ(ref.place, orbs3_version_place_t::live);
    // Suspended over a "null" live content: replaced, as without versioning.
    ASSERT_EQ(put("k", "e", ""), 0);
    EXPECT_EQ(contents(version_), (std::map<std::string, int>{{"c", 1}}));
    EXPECT_EQ(contents(recycle_), (std::map<std::string, int>{{"b", 1}}));
}

// A live object without a record (written before records were kept) carries no id: it is the "null"
// content, even when the version tree holds a "null" version of the key from earlier.
TEST_F(ObjectVersion, ALiveObjectWithoutRecordIsTheNullVersion)
{
    bucket_->versioning.status = 1;
    bucket_->versioning.save_num = 10;
    ASSERT_EQ(put("k", "old null", ""), 0);
    ASSERT_EQ(put("k", "with id", new_id()), 0);
    write(data_, "k", "bare");
    std::filesystem::remove(meta_ + "/k");
    orbs3_version_ref_t ref;
    ASSERT_EQ(orbs3_version_find(bucket_, "k", "null", &ref), 0);
    EXPECT_EQ(ref.place, orbs3_version_place_t::live);
    EXPECT_EQ(read_file(ref.file.data), "bare");
}

TEST_F(ObjectVersion, AFailedMoveLeavesTheOldContentLiveAndTheWriteRefused)
{
    bucket_->versioning.status = 1;
    bucket_->versioning.save_num = 10;
    ASSERT_EQ(put("d/k", "old", new_id()), 0);
    // A file where the key's version directory must go: the move can't be made.
    write(version_, "d", "in the way");
    orbs3_object_path_t path;
    ASSERT_EQ(orbs3_make_object_path(bucket_, "d/k", "", &path), 0);
    EXPECT_EQ(orbs3_object_version_update(bucket_, "d/k", &path, false), ORBS3_S3_INTERNAL_ERROR);
    EXPECT_EQ(read_file(data_ + "/d/k"), "old");
    EXPECT_TRUE(in_meta("d/k"));
}

TEST_F(ObjectVersion, SaveNumZeroKeepsNoVersionAndPromoteBringsTheNewestBack)
{
    bucket_->versioning.status = 1;
    bucket_->versioning.save_num = 0;
    ASSERT_EQ(put("k", "a", new_id()), 0);
    ASSERT_EQ(put("k", "b", new_id()), 0);
    EXPECT_TRUE(contents(version_).empty());
    EXPECT_EQ(contents(recycle_), (std::map<std::string, int>{{"a", 1}}));

    bucket_->versioning.save_num = 5;
    ASSERT_EQ(put("k", "c", new_id()), 0);
    orbs3_object_path_t path;
    ASSERT_EQ(orbs3_make_object_path(bucket_, "k", "", &path), 0);
    EXPECT_EQ(orbs3_version_promote(bucket_, "k", &path), 0) << "a live object is never displaced";
    std::filesystem::remove(path.data_path);
    std::filesystem::remove(path.meta_path);
    EXPECT_EQ(orbs3_version_promote(bucket_, "k", &path), 1);
    EXPECT_EQ(read_file(path.data_path), "b");
    EXPECT_TRUE(contents(version_).empty());
    EXPECT_NE(read_file(path.meta_path).find("e-b"), std::string::npos);
}

}  // namespace
