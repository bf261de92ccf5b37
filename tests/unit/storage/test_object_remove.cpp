#include "storage/orbs3_object_remove.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "control/orbs3_service.h"
#include "core/orbs3_config.h"
#include "storage/orbs3_layout.h"
#include "storage/storage_fixture.h"
#include "versions/orbs3_recycle.h"

namespace fs = std::filesystem;

namespace {

class DeleteDirs : public storage_test::bucket_fixture {
protected:
    // A file of both trees, its directories made.
    void put(const std::string& key, const std::string& bytes = "x")
    {
        write(data_, key, bytes);
        write(meta_, key, bytes);
    }
    void drop(const std::string& key)
    {
        fs::remove(data_ + "/" + key);
        fs::remove(meta_ + "/" + key);
    }
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
    storage_test::bucket_ptr owned = tenant_.bucket("bkt2");
    orbs3_bucket_t* other = owned.get();
    ASSERT_NE(other, nullptr);
    orbs3_mark_deling_object_dir(other, "a");
    EXPECT_FALSE(orbs3_get_deling_object_dirs(bucket_, "a"));
    EXPECT_EQ(orbs3_del_object_dirs(other, "a"), 1);  // nothing there: it went, and so did the mark
    EXPECT_FALSE(orbs3_get_deling_object_dirs(other, "a"));
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

// Each removal takes what it names and counts exactly that; a key that is not there is removed already.
TEST_F(DeleteDirs, RemoveTakesWhatItsModeNamesAndCountsIt)
{
    write(meta_, "d/" + std::string(ORBS3_DIR_MARKER), "x");
    put("d/k", "abc");
    write(data_, "r/k", "bytes");
    struct row {
        std::string key;
        orbs3_remove_mode_t mode;
        int64_t objects, bytes;
        std::vector<std::string> gone, kept;  // relative to the data tree, or to the meta tree with "meta:"
    };
    const row rows[] = {
        {"nope", orbs3_remove_mode_t::destroy, 0, 0, {}, {}},
        {"r/none", orbs3_remove_mode_t::recycle, 0, 0, {}, {"r/k"}},
        {"d/", orbs3_remove_mode_t::destroy, 1, 0, {"meta:d/.orbs3-dir"}, {"d/k", "meta:d/k"}},
        {"d/", orbs3_remove_mode_t::destroy_below, 1, 3, {"d", "meta:d"}, {}},
        {"r/k", orbs3_remove_mode_t::recycle, 1, 5, {"r"}, {}},
    };
    for (const row& w : rows) {
        orbs3_object_counts_t counts;
        EXPECT_EQ(orbs3_object_remove(bucket_, w.key, w.mode, &counts), 0) << w.key;
        EXPECT_EQ(counts.objects, w.objects) << w.key;
        EXPECT_EQ(counts.bytes, w.bytes) << w.key;
        auto there = [&](const std::string& rel) {
            return rel.starts_with("meta:") ? in_meta(rel.substr(5)) : in_data(rel);
        };
        for (const std::string& rel : w.gone)
            EXPECT_FALSE(there(rel)) << w.key << " " << rel;
        for (const std::string& rel : w.kept)
            EXPECT_TRUE(there(rel)) << w.key << " " << rel;
    }
    EXPECT_EQ(std::distance(fs::recursive_directory_iterator(recycle_ + "/r"), {}), 1);
}

}  // namespace
