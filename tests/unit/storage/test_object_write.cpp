#include "storage/orbs3_object_write.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "s3/orbs3_s3_errors.h"
#include "storage/storage_fixture.h"
#include "versions/orbs3_version_name.h"

namespace {

namespace fs = std::filesystem;

class ObjectWrite : public storage_test::bucket_fixture {
protected:
    // A copy leaves no temporary file behind, committed or not.
    bool no_temp_in(const std::string& dir)
    {
        for (const auto& e : fs::directory_iterator(dir))
            if (orbs3_record_is_temp(e.path().filename().string()))
                return false;
        return true;
    }
};

TEST_F(ObjectWrite, CopyReplacesTheDestinationWholeAndDigestsBytesWithoutRecord)
{
    write(data_, "a/src", "hello");
    orbs3_object_source_t src;
    ASSERT_EQ(orbs3_object_open(bucket_, "a/src", &src), 0);
    orbs3_object_path_t to;
    ASSERT_EQ(orbs3_make_object_path(bucket_, "b/c/dst", "", &to), 0);
    for (const bool existed : {false, true}) {
        // The destination's directories are made on the way; the second copy replaces the first.
        char etag[ORBS3_REC_ETAG_CAP + 1] = "";
        orbs3_commit_t commit{bucket_, "b/c/dst", &to};
        orbs3_commit_lock_t lock;
        ASSERT_EQ(orbs3_object_copy_content(&src, &commit, false, &lock, etag), 0);
        EXPECT_STREQ(etag, "5d41402abc4b2a76b9719d911017c592");  // MD5 of "hello"
        EXPECT_EQ(commit.before.existed, existed);
        EXPECT_FALSE(lock.dir.valid());  // no versions kept here: no lock taken
        EXPECT_EQ(storage_test::read_file(to.data_path), "hello");
        EXPECT_TRUE(no_temp_in(data_ + "/b/c"));
    }
    // Onto itself the bytes stay where they are, and still get their digest.
    orbs3_object_path_t self;
    ASSERT_EQ(orbs3_make_object_path(bucket_, "a/src", "", &self), 0);
    struct stat before_copy {}, after_copy {};
    ASSERT_EQ(stat(self.data_path, &before_copy), 0);
    char etag[ORBS3_REC_ETAG_CAP + 1] = "";
    orbs3_commit_t commit{bucket_, "a/src", &self};
    orbs3_commit_lock_t lock;
    ASSERT_EQ(orbs3_object_copy_content(&src, &commit, true, &lock, etag), 0);
    EXPECT_STREQ(etag, "5d41402abc4b2a76b9719d911017c592");
    EXPECT_TRUE(commit.before.existed && no_temp_in(data_ + "/a"));
    ASSERT_EQ(stat(self.data_path, &after_copy), 0);
    EXPECT_EQ(before_copy.st_ino, after_copy.st_ino);
}

// Onto itself where versions are kept, the copy is a new content: the old one becomes a version on its
// own inode (a version never shares its bytes with the live object), under the key's lock, which the
// copy leaves held for the record.
TEST_F(ObjectWrite, CopyOntoItselfWithVersioningKeepsTheOldContentApart)
{
    bucket_->versioning.status = 1;
    bucket_->versioning.save_num = 10;
    write(data_, "a/src", "hello");
    orbs3_object_path_t self;
    ASSERT_EQ(orbs3_make_object_path(bucket_, "a/src", "", &self), 0);
    orbs3_user_t owner{};
    orbs3_object_meta_t meta;
    ASSERT_EQ(orbs3_object_write_record(&owner, "a/src", self.meta_path, self.data_path,
                                        "5d41402abc4b2a76b9719d911017c592", 5, "2026-11-24T18:00:01.000Z", &meta),
              0);
    orbs3_object_source_t src;
    ASSERT_EQ(orbs3_object_open(bucket_, "a/src", &src), 0);
    char etag[ORBS3_REC_ETAG_CAP + 1] = "";
    orbs3_commit_t commit{bucket_, "a/src", &self};
    orbs3_commit_lock_t lock;
    ASSERT_EQ(orbs3_object_copy_content(&src, &commit, true, &lock, etag), 0);
    EXPECT_TRUE(lock.dir.valid());
    EXPECT_TRUE(orbs3_version_id_valid(commit.version_id) && commit.version_id[0] != 'n');
    meta.version_id = commit.version_id;
    ASSERT_EQ(orbs3_object_write_record(&owner, "a/src", self.meta_path, self.data_path, etag, 5, commit.stamp, &meta),
              0);
    orbs3_version_ref_t ref;
    ASSERT_EQ(orbs3_version_find(bucket_, "a/src", "null", &ref), 0);
    ASSERT_EQ(ref.place, orbs3_version_place_t::version);
    struct stat live {}, old {};
    ASSERT_EQ(stat(self.data_path, &live), 0);
    ASSERT_EQ(stat(ref.file.data, &old), 0);
    EXPECT_NE(live.st_ino, old.st_ino);
    EXPECT_EQ(storage_test::read_file(self.data_path), "hello");
    EXPECT_EQ(storage_test::read_file(ref.file.data), "hello");
}

TEST_F(ObjectWrite, TempFileLiesBesideTheObjectAndOnlyAKeyMakesItsDirectory)
{
    char tmp[ORBS3_PATH_AREA];
    int fd = -1;
    const std::string final_path = data_ + "/x/y/k";
    // Without a key no directory is made: the caller knows the object's directory must exist.
    EXPECT_EQ(orbs3_object_temp_create({}, final_path.c_str(), tmp, sizeof tmp, &fd), ORBS3_S3_INTERNAL_ERROR);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_STREQ(tmp, "");
    ASSERT_EQ(orbs3_object_temp_create("x/y/k", final_path.c_str(), tmp, sizeof tmp, &fd), 0);
    orbs3_fd owned(fd);
    EXPECT_EQ(fs::path(tmp).parent_path(), fs::path(final_path).parent_path());
    EXPECT_TRUE(orbs3_record_is_temp(fs::path(tmp).filename().string()));
    char small[16];
    EXPECT_EQ(orbs3_object_temp_create("x/y/k", final_path.c_str(), small, sizeof small, &fd), ORBS3_S3_KEY_TOO_LONG);
    EXPECT_STREQ(small, "");
}

// An append writes at its position, or at the object's end when the position lies beyond it: no gap.
TEST_F(ObjectWrite, AppendWritesAtThePositionAndNeverLeavesAGap)
{
    write(data_, "body", "XY");
    const std::string obj = data_ + "/k", body = data_ + "/body";
    struct row {
        int64_t position;
        const char* after;
    } rows[] = {{1, "aXY"}, {3, "aXYXY"}, {99, "aXYXYXY"}, {0, "XYYXYXY"}};
    write(data_, "k", "abc");
    for (const row& w : rows) {
        orbs3_object_append_t a{w.position, 2};
        ASSERT_EQ(orbs3_object_append_content("k", body.c_str(), obj.c_str(), "2026-07-01T12:00:00.000Z",
                                              &a),
                  0);
        EXPECT_EQ(storage_test::read_file(obj), w.after) << w.position;
        EXPECT_EQ(a.new_size, static_cast<int64_t>(std::string(w.after).size()));
    }
    orbs3_object_append_t gone{0, 2};
    EXPECT_EQ(orbs3_object_append_content("k", body.c_str(), (data_ + "/none").c_str(), "", &gone),
              ORBS3_S3_NO_SUCH_KEY);
}

}  // namespace
