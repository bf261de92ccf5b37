// What a replacing write does with the content it replaces, and how a version comes back: every content
// ends up in exactly one place, under its own name, whatever the bound and however fast the writes come.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "versions/version_fixture.h"

namespace {

using version_test::read_file;

class ObjectVersion : public version_test::version_fixture {};

TEST_F(ObjectVersion, BoundKeepsSaveNumAndRecyclesTheEldestWithinOneSecond)
{
    enable(3);
    for (int i = 0; i <= 5; i++)
        put("d/k", "c" + std::to_string(i), new_id());
    EXPECT_EQ(read_file(data_ + "/d/k"), "c5");
    EXPECT_EQ(counted(version_), (std::map<std::string, int>{{"c2", 1}, {"c3", 1}, {"c4", 1}}));
    EXPECT_EQ(counted(recycle_), (std::map<std::string, int>{{"c0", 1}, {"c1", 1}}));
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
    put("k", "a", "");
    put("k", "b", "");
    EXPECT_TRUE(counted(version_).empty());
    // Enabled: the "null" content is kept, with a record that still says null.
    enable(10);
    put("k", "c", new_id());
    EXPECT_EQ(counted(version_), (std::map<std::string, int>{{"b", 1}}));
    orbs3_version_ref_t ref;
    ASSERT_EQ(orbs3_version_find(bucket_, "k", "null", &ref), 0);
    EXPECT_EQ(ref.place, orbs3_version_place_t::version);
    EXPECT_EQ(read_file(ref.file.data), "b");
    // Suspended: the live content has a real id and is kept; the new "null" content pushes the old
    // "null" version out to the recycle tree, so the key has one "null" only.
    bucket_->versioning.status = 0;
    put("k", "d", "");
    EXPECT_EQ(counted(version_), (std::map<std::string, int>{{"c", 1}}));
    EXPECT_EQ(counted(recycle_), (std::map<std::string, int>{{"b", 1}}));
    ASSERT_EQ(orbs3_version_find(bucket_, "k", "null", &ref), 0);
    EXPECT_EQ(ref.place, orbs3_version_place_t::live);
    // Suspended over a "null" live content: replaced, as without versioning.
    put("k", "e", "");
    EXPECT_EQ(counted(version_), (std::map<std::string, int>{{"c", 1}}));
    EXPECT_EQ(counted(recycle_), (std::map<std::string, int>{{"b", 1}}));
}

// A live object without a record (written before records were kept) carries no id: it is the "null"
// content, even when the version tree holds a "null" version of the key from earlier.
TEST_F(ObjectVersion, ALiveObjectWithoutRecordIsTheNullVersion)
{
    enable(10);
    put("k", "old null", "");
    put("k", "with id", new_id());
    write(data_, "k", "bare");
    std::filesystem::remove(meta_ + "/k");
    orbs3_version_ref_t ref;
    ASSERT_EQ(orbs3_version_find(bucket_, "k", "null", &ref), 0);
    EXPECT_EQ(ref.place, orbs3_version_place_t::live);
    EXPECT_EQ(read_file(ref.file.data), "bare");
}

TEST_F(ObjectVersion, SaveNumZeroKeepsNoVersionAndPromoteBringsTheNewestBack)
{
    enable(0);
    put("k", "a", new_id());
    put("k", "b", new_id());
    EXPECT_TRUE(counted(version_).empty());
    EXPECT_EQ(counted(recycle_), (std::map<std::string, int>{{"a", 1}}));

    bucket_->versioning.save_num = 5;
    put("k", "c", new_id());
    orbs3_object_path_t path;
    ASSERT_EQ(orbs3_make_object_path(bucket_, "k", "", &path), 0);
    EXPECT_EQ(orbs3_version_promote(bucket_, "k", &path), 0) << "a live object is never displaced";
    std::filesystem::remove(path.data_path);
    std::filesystem::remove(path.meta_path);
    EXPECT_EQ(orbs3_version_promote(bucket_, "k", &path), 1);
    EXPECT_EQ(read_file(path.data_path), "b");
    EXPECT_TRUE(counted(version_).empty());
    EXPECT_NE(read_file(path.meta_path).find("e-b"), std::string::npos);
}

}  // namespace
