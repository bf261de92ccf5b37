#include "storage/orbs3_object_commit.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "s3/orbs3_s3_errors.h"
#include "storage/storage_fixture.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kEtag = "0cc175b9c0f1b6a831c399e269772661";

using namespace storage_test;

}  // namespace

// The commit moves the temporary file over the object only when the condition holds at that moment;
// a refusal leaves both files as they were.
TEST(ObjectCommit, ConditionDecidesWhetherTheTemporaryBecomesTheObject)
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
    for (const row& w : rows) {
        temp_dir d;
        if (w.exists) {
            write_file(d("obj"), "old");
            write_file(d("obj.rec"), record);
        }
        write_file(d("tmp"), "new");
        const orbs3_conditional_t c{w.if_match, w.if_none_match, {}, {}};
        orbs3_commit_lock_t lock;
        ASSERT_EQ(orbs3_commit_lock(d("obj").c_str(), &lock), 0);
        orbs3_object_before_t before;
        const std::string tmp = d("tmp"), obj = d("obj"), rec = d("obj.rec");
        const int rc = orbs3_object_commit_file(&c, tmp.c_str(), obj.c_str(), rec.c_str(), &before);
        const std::string what = std::string("If-Match '") + w.if_match + "' If-None-Match '" + w.if_none_match +
                                 "' exists " + (w.exists ? "yes" : "no");
        EXPECT_EQ(rc, static_cast<int>(w.want)) << what;
        if (w.want == 0) {
            EXPECT_EQ(read_file(d("obj")), "new") << what;
            EXPECT_FALSE(fs::exists(d("tmp"))) << what;
            EXPECT_EQ(before.existed, w.exists) << what;
        } else {
            EXPECT_EQ(read_file(d("tmp")), "new") << what;
            EXPECT_EQ(fs::exists(d("obj")), w.exists) << what;
            EXPECT_EQ(read_file(d("obj")), w.exists ? "old" : "") << what;
        }
    }
}

// The lock is exclusive between two holders in one process too (each takes its own open file), and is
// released when its owner goes.
TEST(ObjectCommit, LockOfADirectoryWaitsForItsHolder)
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
