#include "storage/orbs3_object_delete.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "control/orbs3_service.h"
#include "core/orbs3_config.h"
#include "storage/orbs3_layout.h"
#include "versions/orbs3_recycle.h"

namespace fs = std::filesystem;

namespace {

// A bucket "bkt" of owner "alice" under a temporary directory, its data, meta and recycle directories
// made as PutBucket makes them.
class DeleteDirs : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/orbs3_delete_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        neo_strdup(&vh_.id, "t", 16);
        neo_strdup(&vh_.cluster_path, dir_.c_str(), ORBS3_PATH_AREA);
        neo_strdup(&vh_.group_path, "g", ORBS3_PATH_AREA);
        ASSERT_EQ(orbs3_init_path(&vh_), 0);
        bucket_ = orbs3_bucket_new();
        ASSERT_NE(bucket_, nullptr);
        bucket_->owner_name = {owner_.size(), owner_.data()};
        ASSERT_EQ(orbs3_bucket_init_path(&vh_, nullptr, bucket_, "bkt"), 0);
        data_ = std::string(bucket_->data_dir.data, bucket_->data_dir.len);
        meta_ = std::string(bucket_->meta_dir.data, bucket_->meta_dir.len);
        recycle_ = std::string(bucket_->recycle_dir.data, bucket_->recycle_dir.len);
        for (const std::string& d : {data_, meta_, recycle_})
            fs::create_directories(d);
    }
    void TearDown() override
    {
        orbs3_free_bucket(bucket_);
        for (orbs3_str_t* s : {&vh_.id, &vh_.cluster_path, &vh_.group_path, &vh_.data_root, &vh_.meta_root,
                               &vh_.version_root, &vh_.recycle_root})
            neo_strfree(s);
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }

    // A file of both trees, its directories made.
    void put(const std::string& key, const std::string& bytes = "x")
    {
        for (const std::string& root : {data_, meta_}) {
            fs::create_directories(fs::path(root + "/" + key).parent_path());
            std::ofstream(root + "/" + key) << bytes;
        }
    }
    void drop(const std::string& key)
    {
        fs::remove(data_ + "/" + key);
        fs::remove(meta_ + "/" + key);
    }
    bool in_data(const std::string& rel) { return fs::exists(data_ + "/" + rel); }
    bool in_meta(const std::string& rel) { return fs::exists(meta_ + "/" + rel); }

    std::string dir_, data_, meta_, recycle_;
    std::string owner_ = "alice";
    orbs3_vhost_t vh_{};
    orbs3_bucket_t* bucket_ = nullptr;
};

TEST_F(DeleteDirs, MarkedDirectoryStaysWhileFilesRemainAndGoesWithTheLast)
{
    put("a/b/c/k");
    fs::create_directories(meta_ + "/a/b/empty/deeper");
    fs::create_directories(data_ + "/a/b/empty/deeper");
    // Not marked: nothing is touched.
    EXPECT_EQ(orbs3_del_object_dirs(bucket_, "a/b"), 0);
    EXPECT_TRUE(in_meta("a/b/empty/deeper"));

    orbs3_mark_deling_object_dir(bucket_, "a/b");
    orbs3_mark_deling_object_dir(bucket_, "a/b");
    EXPECT_TRUE(orbs3_get_deling_object_dirs(bucket_, "a/b"));
    EXPECT_FALSE(orbs3_get_deling_object_dirs(bucket_, "a"));
    EXPECT_FALSE(orbs3_get_deling_object_dirs(bucket_, "a/b/c"));
    // A file below: the directory stays, and so does its mark; empty branches beside it may go.
    EXPECT_EQ(orbs3_del_object_dirs(bucket_, "a/b"), 0);
    EXPECT_TRUE(in_data("a/b/c/k") && in_meta("a/b/c/k"));
    EXPECT_TRUE(orbs3_get_deling_object_dirs(bucket_, "a/b"));

    // The last file goes: the walk up from it removes the marked directory whole, and stops at "a".
    put("a/other");
    drop("a/b/c/k");
    orbs3_remove_emptied_dirs(bucket_, "a/b/c/k");
    EXPECT_FALSE(in_data("a/b") || in_meta("a/b"));
    EXPECT_TRUE(in_data("a/other") && in_meta("a/other"));
    EXPECT_FALSE(orbs3_get_deling_object_dirs(bucket_, "a/b"));
    // A mark is per bucket: the same directory of another bucket is another entry.
    orbs3_bucket_t* other = orbs3_bucket_new();
    ASSERT_NE(other, nullptr);
    other->owner_name = {owner_.size(), owner_.data()};
    ASSERT_EQ(orbs3_bucket_init_path(&vh_, nullptr, other, "bkt2"), 0);
    orbs3_mark_deling_object_dir(other, "a");
    EXPECT_FALSE(orbs3_get_deling_object_dirs(bucket_, "a"));
    EXPECT_EQ(orbs3_del_object_dirs(other, "a"), 1);  // nothing there: it went, and so did the mark
    EXPECT_FALSE(orbs3_get_deling_object_dirs(other, "a"));
    orbs3_free_bucket(other);
}

TEST_F(DeleteDirs, EmptiedParentsGoUpToTheFirstThatHoldsSomething)
{
    put("x/keep");
    put("x/y/z/k");
    drop("x/y/z/k");
    orbs3_remove_emptied_dirs(bucket_, "x/y/z/k");
    EXPECT_FALSE(in_data("x/y") || in_meta("x/y"));
    EXPECT_TRUE(in_data("x/keep") && in_meta("x/keep"));

    // A directory object's record keeps its meta directory, and with it its data directory.
    put("m/.orbs3-dir");
    fs::remove(data_ + "/m/.orbs3-dir");
    put("m/n/k");
    drop("m/n/k");
    orbs3_remove_emptied_dirs(bucket_, "m/n/k");
    EXPECT_FALSE(in_data("m/n") || in_meta("m/n"));
    EXPECT_TRUE(fs::is_directory(data_ + "/m") && fs::is_directory(meta_ + "/m"));

    // A data file without a record (an upload committing) keeps its data directory.
    fs::create_directories(data_ + "/u");
    std::ofstream(data_ + "/u/.orbs3-tmp-1") << "up";
    orbs3_remove_emptied_dirs(bucket_, "u/k");
    EXPECT_TRUE(in_data("u/.orbs3-tmp-1"));

    // The staging of an open multipart upload is the server's: neither it nor its directory goes, even
    // empty and even when the directory was deleted.
    fs::create_directories(data_ + "/s/.orbs3-u1part");
    fs::create_directories(data_ + "/e/.orbs3-u2empty");
    std::ofstream(data_ + "/s/.orbs3-u1part/1") << "part";
    orbs3_mark_deling_object_dir(bucket_, "s");
    orbs3_mark_deling_object_dir(bucket_, "e");
    EXPECT_EQ(orbs3_del_object_dirs(bucket_, "s"), 0);
    EXPECT_EQ(orbs3_del_object_dirs(bucket_, "e"), 0);
    orbs3_remove_emptied_dirs(bucket_, "e/k");
    EXPECT_TRUE(in_data("s/.orbs3-u1part/1") && fs::is_directory(data_ + "/e/.orbs3-u2empty"));

    // Never the bucket's own directories, whatever was deleted.
    fs::remove_all(data_ + "/x");
    fs::remove_all(meta_ + "/x");
    orbs3_remove_emptied_dirs(bucket_, "k");
    orbs3_remove_emptied_dirs(bucket_, "x/k");
    orbs3_remove_emptied_dirs(bucket_, "x/");
    EXPECT_TRUE(fs::is_directory(data_) && fs::is_directory(meta_));
}

TEST_F(DeleteDirs, RecycledNamesCarryTheContentsStamp)
{
    char out[ORBS3_PATH_AREA];
    ASSERT_EQ(orbs3_recycle_path(bucket_, "a/k.txt", "2026-11-23T16:13:01.000Z", out, sizeof out), 0);
    EXPECT_EQ(std::string(out), recycle_ + "/a/k.txt..2026_11_23_16_13_01");
    for (const char* bad : {"", "2026-11-23", "2026-11-23 16:13:01", "20x6-11-23T16:13:01Z"})
        EXPECT_EQ(orbs3_recycle_path(bucket_, "k", bad, out, sizeof out), -1) << bad;
    char small[16];
    EXPECT_EQ(orbs3_recycle_path(bucket_, "k", "2026-11-23T16:13:01Z", small, sizeof small), -1);
    EXPECT_EQ(small[0], '\0');
}

TEST_F(DeleteDirs, BytesWithoutRecordAreRecycledUnderTheirTime)
{
    fs::create_directories(data_ + "/r");
    std::ofstream(data_ + "/r/k") << "bytes";
    struct timespec times[2] = {{0, UTIME_OMIT}, {1700000000, 0}};  // 2023-11-14T22:13:20Z
    ASSERT_EQ(utimensat(AT_FDCWD, (data_ + "/r/k").c_str(), times, 0), 0);
    int64_t size = -1;
    EXPECT_EQ(orbs3_delete_object_to_recycle(bucket_, "r/k", &size), ORBS3_RECYCLE_MOVED);
    EXPECT_EQ(size, 5);
    EXPECT_FALSE(in_data("r/k"));
    std::ifstream back(recycle_ + "/r/k..2023_11_14_22_13_20");
    std::string got;
    back >> got;
    EXPECT_EQ(got, "bytes");
    // Nothing left: nothing to do, and a directory is no object.
    EXPECT_EQ(orbs3_delete_object_to_recycle(bucket_, "r/k", &size), ORBS3_RECYCLE_NOTHING);
    EXPECT_EQ(orbs3_delete_object_to_recycle(bucket_, "r", &size), ORBS3_RECYCLE_NOTHING);
    EXPECT_TRUE(fs::is_directory(data_ + "/r"));
}

}  // namespace
