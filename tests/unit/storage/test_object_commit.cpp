#include "storage/orbs3_object_commit.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "s3/orbs3_s3_errors.h"
#include "storage/storage_fixture.h"
#include "versions/orbs3_version_name.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kEtag = "0cc175b9c0f1b6a831c399e269772661";

using namespace storage_test;

class ObjectCommit : public bucket_fixture {
protected:
    // `bytes` committed over `key` from a temporary beside it, as a writer does with the lock held; the
    // record written with the commit's stamp and id. The status of the commit.
    int commit(const std::string& key, const orbs3_conditional_t& c, const std::string& bytes, orbs3_commit_t* out)
    {
        if (orbs3_make_object_path(bucket_, key, "", &path_) != 0)
            return -1;
        tmp_ = data_ + "/" + key + ".tmp";
        write_file(tmp_, bytes);
        orbs3_commit_lock_t lock;
        if (orbs3_commit_lock(path_.data_path, &lock) != 0)
            return -1;
        *out = orbs3_commit_t{bucket_, key, &path_};
        const int rc = orbs3_object_commit_file(&c, tmp_.c_str(), out);
        if (rc != 0)
            return rc;
        orbs3_user_t owner{};
        orbs3_object_meta_t meta;
        meta.version_id = out->version_id;
        return orbs3_object_write_record(&owner, key, path_.meta_path, path_.data_path, kEtag, 1, out->stamp, &meta);
    }
    orbs3_object_path_t path_;
    std::string tmp_;
};

}  // namespace

// The commit moves the temporary file over the object only when the condition holds at that moment;
// a refusal leaves both files as they were.
TEST_F(ObjectCommit, ConditionDecidesWhetherTheTemporaryBecomesTheObject)
{
    const std::string record = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<object objectname=\"k\" etag=\"" +
                               std::string(kEtag) + "\" size=\"3\" acl=\"1\" />\n";
    struct row {
        const char* if_match;
        const char* if_none_match;
        bool exists;
        uint32_t want;  // 0: committed
    };
    const row rows[] = {
        {"", "", false, 0},
        {"", "", true, 0},
        {"", "*", false, 0},
        {"", "*", true, ORBS3_S3_PRECONDITION_FAILED},
        {"\"0cc175b9c0f1b6a831c399e269772661\"", "", true, 0},
        {"\"92eb5ffee6ae2fec3ad71c777531578f\"", "", true, ORBS3_S3_PRECONDITION_FAILED},
        {"\"0cc175b9c0f1b6a831c399e269772661\"", "", false, ORBS3_S3_NO_SUCH_KEY},
        {"", "\"0cc175b9c0f1b6a831c399e269772661\"", false, ORBS3_S3_NOT_IMPLEMENTED},
    };
    int n = 0;
    for (const row& w : rows) {
        const std::string key = "k" + std::to_string(n++);
        if (w.exists) {
            write(data_, key, "old");
            write(meta_, key, record);
        }
        const orbs3_conditional_t c{w.if_match, w.if_none_match, {}, {}};
        orbs3_commit_t done;
        const int rc = commit(key, c, "new", &done);
        const std::string what = std::string("If-Match '") + w.if_match + "' If-None-Match '" + w.if_none_match +
                                 "' exists " + (w.exists ? "yes" : "no");
        EXPECT_EQ(rc, static_cast<int>(w.want)) << what;
        if (w.want == 0) {
            EXPECT_EQ(read_file(data_ + "/" + key), "new") << what;
            EXPECT_FALSE(fs::exists(tmp_)) << what;
            EXPECT_EQ(done.before.existed, w.exists) << what;
            EXPECT_STREQ(done.version_id, "") << what;  // a bucket that never had versioning gives no ids
        } else {
            EXPECT_EQ(read_file(tmp_), "new") << what;
            EXPECT_EQ(fs::exists(data_ + "/" + key), w.exists) << what;
            EXPECT_EQ(read_file(data_ + "/" + key), w.exists ? "old" : "") << what;
        }
    }
    // A bucket that never had versioning keeps nothing.
    EXPECT_FALSE(fs::exists(str(bucket_->version_dir)) && !fs::is_empty(str(bucket_->version_dir)));
}

// What the commit keeps of the content it replaces, and which id the new content gets, by the bucket's
// versioning: ids only while enabled, made of the record's own stamp; the replaced content kept once,
// with its record, and the key still counted as replaced, not new.
TEST_F(ObjectCommit, ReplacedContentIsKeptAsTheBucketsVersioningSays)
{
    const std::string versions = str(bucket_->version_dir);
    struct row {
        const char* what;
        uint32_t status;
        int32_t save_num;
        bool old_has_id;     // the content replaced was written while enabled
        bool kept;           // it is in the version tree afterwards
    };
    const row rows[] = {
        {"never set", 0, 0, false, false},
        {"enabled over null", 1, 10, false, true},
        {"enabled over an id", 1, 10, true, true},
        {"suspended over an id", 0, 10, true, true},
        {"suspended over null", 0, 10, false, false},
        {"enabled, save_num 0", 1, 0, true, false},
    };
    int n = 0;
    for (const row& w : rows) {
        const std::string key = "d" + std::to_string(n++) + "/k";
        const std::string old = std::string("old of ") + w.what;
        const orbs3_conditional_t none{};
        orbs3_commit_t first, second;
        bucket_->versioning.status = w.old_has_id ? 1 : 0;
        bucket_->versioning.save_num = w.save_num;
        ASSERT_EQ(commit(key, none, old, &first), 0) << w.what;
        EXPECT_EQ(first.version_id[0] != '\0', w.old_has_id) << w.what;
        bucket_->versioning.status = w.status;
        ASSERT_EQ(commit(key, none, std::string("new of ") + w.what, &second), 0) << w.what;
        EXPECT_TRUE(second.before.existed) << w.what;
        EXPECT_EQ(second.version_id[0] != '\0', w.status == 1) << w.what;
        if (w.status == 1) {
            // The id is a suffix of the record's stamp: "2026-11-24T18:00:01.000Z" gives "2026_11_24_18_00_01-...".
            std::string stamp(second.stamp, ORBS3_VERSION_STAMP_LEN);
            for (char& ch : stamp)
                ch = (ch == '-' || ch == 'T' || ch == ':') ? '_' : ch;
            EXPECT_EQ(std::string(second.version_id, ORBS3_VERSION_STAMP_LEN), stamp) << w.what;
            EXPECT_TRUE(orbs3_version_id_valid(second.version_id)) << w.what;
            EXPECT_STRNE(second.version_id, first.version_id) << w.what;
        }
        EXPECT_EQ(read_file(data_ + "/" + key), std::string("new of ") + w.what) << w.what;
        std::vector<orbs3_version_entry_t> list;
        ASSERT_EQ(orbs3_version_list_key(versions, key, &list), 0) << w.what;
        ASSERT_EQ(list.size(), w.kept ? 1u : 0u) << w.what;
        if (w.kept) {
            EXPECT_TRUE(list.front().has_data && list.front().has_record) << w.what;
            // The version answers to the id its content was written with.
            orbs3_version_ref_t ref;
            ASSERT_EQ(orbs3_version_find(bucket_, key, w.old_has_id ? first.version_id : "null", &ref), 0) << w.what;
            EXPECT_EQ(ref.place, orbs3_version_place_t::version) << w.what;
            EXPECT_EQ(read_file(ref.file.data), old) << w.what;
        }
    }
}

// A replaced content that can't be kept fails the commit before the new bytes move in: the old content is
// still the live object with its record, and the temporary file is left for its writer to remove.
TEST_F(ObjectCommit, AFailedKeepLeavesTheOldObjectLive)
{
    bucket_->versioning.status = 1;
    bucket_->versioning.save_num = 10;
    const orbs3_conditional_t none{};
    orbs3_commit_t first, second;
    ASSERT_EQ(commit("d/k", none, "old", &first), 0);
    write(str(bucket_->version_dir), "d", "a file where the key's version directory must go");
    EXPECT_EQ(commit("d/k", none, "new", &second), static_cast<int>(ORBS3_S3_INTERNAL_ERROR));
    EXPECT_EQ(read_file(data_ + "/d/k"), "old");
    EXPECT_EQ(read_file(tmp_), "new");
    orbs3_version_ref_t ref;
    ASSERT_EQ(orbs3_version_find(bucket_, "d/k", first.version_id, &ref), 0);
    EXPECT_EQ(ref.place, orbs3_version_place_t::live);
}

// On a bucket whose versioning was ever set a key's last component must leave room for its versions'
// names; elsewhere, and for directory keys, which are never versioned, only the usual limits hold.
TEST_F(ObjectCommit, KeysTooLongForVersionNamesAreRefusedWhereVersionsMayBeKept)
{
    conf_limits wide(63, 250);
    const std::string fits(255 - ORBS3_VERSION_NAME_EXTRA, 'n');
    const std::string too_long = fits + "n";
    struct row {
        uint32_t status;
        int32_t save_num;
        std::string key;
        int want;
    };
    const row rows[] = {
        {0, 0, "d/" + too_long, 0},
        {1, 10, "d/" + fits, 0},
        {1, 10, "d/" + too_long, static_cast<int>(ORBS3_S3_KEY_TOO_LONG)},
        {0, 10, too_long, static_cast<int>(ORBS3_S3_KEY_TOO_LONG)},
        {1, 10, too_long + "/", 0},
    };
    for (const row& w : rows) {
        bucket_->versioning.status = w.status;
        bucket_->versioning.save_num = w.save_num;
        EXPECT_EQ(orbs3_object_versionable(bucket_, w.key), w.want) << w.status << " " << w.save_num << " " << w.key.size();
    }
}

// The lock is exclusive between two holders in one process too (each takes its own open file), and is
// released when its owner goes.
TEST_F(ObjectCommit, LockOfADirectoryWaitsForItsHolder)
{
    temp_dir d;
    const std::string obj = d("obj");
    std::atomic<bool> taken{false};
    std::thread other;
    {
        orbs3_commit_lock_t first;
        ASSERT_EQ(orbs3_commit_lock(obj.c_str(), &first), 0);
        other = std::thread([&] {
            orbs3_commit_lock_t second;
            if (orbs3_commit_lock(obj.c_str(), &second) == 0)
                taken = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        EXPECT_FALSE(taken.load());
    }
    other.join();
    EXPECT_TRUE(taken.load());
    orbs3_commit_lock_t missing;
    EXPECT_EQ(orbs3_commit_lock(d("no/such/obj").c_str(), &missing), -1);
}
