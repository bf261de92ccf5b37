#include "storage/orbs3_bucket_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "control/orbs3_service.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object_store.h"
#include "storage/orbs3_record.h"
#include "storage/storage_fixture.h"

namespace fs = std::filesystem;
using namespace storage_test;

namespace {

// The names of a list of bucket records; frees the records.
std::multiset<std::string> drain(neo_list_head_t* list)
{
    std::multiset<std::string> names;
    orbs3_bucket_t* b;
    orbs3_bucket_t* n;
    list_for_each_entry_safe(b, n, list, link)
    {
        names.insert(str(b->name) + "@" + str(b->owner_name));
        list_del(&b->link);
        orbs3_free_bucket(b);
    }
    INIT_LIST_HEAD(list);
    return names;
}

class BucketStore : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_NE(tenant_.vh, nullptr);
        ASSERT_EQ(tenant_.roots(), 0);
        meta_root_ = tenant_.meta_root();
        data_root_ = tenant_.data_root();
    }

    // A bucket as PutBucket leaves it: the data directory, then the record. Returns the record's path.
    std::string put(const std::string& owner, const std::string& name, uint32_t acl = 1)
    {
        bucket_ptr b = tenant_.bucket(name, owner);
        if (!b)
            return {};
        b->name = {name.size(), const_cast<char*>(name.data())};
        b->owner_id = b->owner_name;
        b->acl = acl;
        b->stat.object_count = 7;
        const std::string record_dir = fs::path(str(b->meta_file)).parent_path();
        if (mkdir_p(record_dir.c_str(), ORBS3_DIR_MODE) != 0 || mkdir_p(b->data_dir.data, ORBS3_DIR_MODE) != 0 ||
            orbs3_save_bucket(b.get(), b->meta_file.data) != 0)
            return {};
        return str(b->meta_file);
    }

    orbs3_user_t user(const std::string& name)
    {
        orbs3_user_t u{};
        u.DisPlayName = {name.size(), const_cast<char*>(name.data())};
        return u;
    }

    storage_test::temp_tenant tenant_;
    orbs3_vhost_t& vh_ = *tenant_.vh;
    std::string meta_root_, data_root_;
    std::string alice_ = "alice", bob_ = "bob";
};

TEST_F(BucketStore, LookupFindsBucketOfAnyOwnerAndNothingForMissingOrUnsafeNames)
{
    ASSERT_FALSE(put(alice_, "a1").empty());
    ASSERT_FALSE(put(bob_, "b1", ORBS3_ACL_READ | ORBS3_ACL_WRITE).empty());
    orbs3_user_t requester = user(alice_);

    // Another owner's bucket is found for this requester: the namespace is shared.
    bucket_ptr b(orbs3_get_bucket(&vh_, &requester, "b1"));
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(str(b->name), "b1");
    EXPECT_EQ(str(b->owner_name), "bob");
    EXPECT_EQ(b->acl, ORBS3_ACL_READ | ORBS3_ACL_WRITE);
    EXPECT_EQ(b->stat.object_count, 7u);

    char path[ORBS3_PATH_AREA];
    ASSERT_EQ(orbs3_get_bucket_path(&vh_, "a1", path), 0);
    EXPECT_EQ(std::string(path), meta_root_ + "/alice/bucket/a1");
    EXPECT_EQ(orbs3_check_bucket_exist(&vh_, &requester, "a1"), 0);
    EXPECT_EQ(orbs3_check_bucket_exist(&vh_, &requester, "b1"), 0);

    // Names that are missing, or would leave the owner directory, find nothing.
    for (std::string_view name : {std::string_view("zz"), std::string_view(""), std::string_view("."), std::string_view(".."),
                                  std::string_view("a1/.."), std::string_view("bob/b1"), std::string_view("a1\0", 3)}) {
        EXPECT_EQ(orbs3_get_bucket(&vh_, &requester, name), nullptr) << name;
        EXPECT_EQ(orbs3_check_bucket_exist(&vh_, &requester, name), -1) << name;
        EXPECT_EQ(orbs3_get_bucket_path(&vh_, name, path), -1) << name;
        EXPECT_STREQ(path, "");
    }

    // A name whose data directory exists without a record (a PutBucket cut short) is taken, yet there is
    // no bucket to obtain.
    ASSERT_TRUE(fs::create_directories(data_root_ + "/bob/half"));
    EXPECT_EQ(orbs3_check_bucket_exist(&vh_, &requester, "half"), 0);
    EXPECT_EQ(orbs3_get_bucket(&vh_, &requester, "half"), nullptr);

    // A record without its data directory (the bucket being deleted) is not found.
    ASSERT_TRUE(fs::remove(data_root_ + "/alice/a1"));
    EXPECT_EQ(orbs3_get_bucket(&vh_, &requester, "a1"), nullptr);

    // Without a data root nothing is found.
    fs::remove_all(data_root_);
    EXPECT_EQ(orbs3_check_bucket_exist(&vh_, &requester, "b1"), -1);
}

// A lookup remembers which owner holds a name; what another process did to the tree since is still seen.
TEST_F(BucketStore, RememberedOwnerIsCheckedOnEveryLookup)
{
    ASSERT_FALSE(put(alice_, "moving").empty());
    char path[ORBS3_PATH_AREA];
    ASSERT_EQ(orbs3_get_bucket_path(&vh_, "moving", path), 0);
    EXPECT_EQ(std::string(path), meta_root_ + "/alice/bucket/moving");

    // Deleted behind the lookup's back: gone at once, then made again by another owner.
    fs::remove_all(data_root_ + "/alice/moving");
    EXPECT_EQ(orbs3_get_bucket_path(&vh_, "moving", path), -1);
    ASSERT_FALSE(put(bob_, "moving").empty());
    ASSERT_EQ(orbs3_get_bucket_path(&vh_, "moving", path), 0);
    EXPECT_EQ(std::string(path), meta_root_ + "/bob/bucket/moving");
    bucket_ptr b(orbs3_get_bucket(&vh_, nullptr, "moving"));
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(str(b->owner_name), "bob");

    // Another vhost with the same name knows nothing of this one's owners.
    orbs3_vhost_t other{};
    const std::string other_root = tenant_.dir.path + "/other";
    fs::create_directories(other_root + "/data");
    fs::create_directories(other_root + "/meta");
    const std::string other_data = other_root + "/data", other_meta = other_root + "/meta";
    other.data_root = {other_data.size(), const_cast<char*>(other_data.data())};
    other.meta_root = {other_meta.size(), const_cast<char*>(other_meta.data())};
    EXPECT_EQ(orbs3_get_bucket_path(&other, "moving", path), -1);
}

TEST_F(BucketStore, RecordCutShortReadsAsNoBucket)
{
    const std::string file = put(alice_, "cut");
    ASSERT_FALSE(file.empty());
    const std::string whole = read_file(file);
    const std::size_t end = whole.rfind("</bucket>");
    ASSERT_NE(end, std::string::npos);
    const std::size_t full = end + std::strlen("</bucket>");

    // A reader meets the file at any length a writer on another node left it at.
    for (std::size_t len = 0; len < full; ++len) {
        const std::string part = whole.substr(0, len);
        bucket_ptr parsed(orbs3_create_bucket_from_xml(part.c_str()));
        EXPECT_EQ(parsed, nullptr) << "cut at " << len;
        write_file(file, part);
        bucket_ptr got(orbs3_get_bucket(&vh_, nullptr, "cut"));
        EXPECT_EQ(got, nullptr) << "cut at " << len;
    }
    write_file(file, whole.substr(0, full));
    bucket_ptr got(orbs3_get_bucket(&vh_, nullptr, "cut"));
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(str(got->name), "cut");
}

TEST_F(BucketStore, RecordTextMustBeWholeBucketElement)
{
    struct row {
        const char* text;
        bool ok;
    } rows[] = {
        {"<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<bucket bucketname=\"x\" acl=\"16\"/>\n", true},
        {"<bucket bucketname=\"x\" acl=\"16\"/>", true},
        {"<bucket bucketname=\"x\" acl=\"16\"><stat object_count=\"3\"/></bucket>", true},
        {"<bucket bucketname=\"x\"><stat object_count=\"3\"/>", false},  // closing tag lost
        {"<?xml version=\"1.0\"?>\n<object name=\"k\"/>\n", false},        // another record kind
        {"<?xml version=\"1.0\"?>\n", false},
        {"not xml at all", false},
        {"", false},
    };
    for (const row& r : rows) {
        bucket_ptr b(orbs3_create_bucket_from_xml(r.text));
        EXPECT_EQ(b != nullptr, r.ok) << r.text;
        if (b) {
            EXPECT_EQ(str(b->name), "x");
            EXPECT_EQ(b->acl, 16u);
        }
    }
    EXPECT_EQ(orbs3_create_bucket_from_xml(nullptr), nullptr);
}

TEST_F(BucketStore, InitCountsEveryOwnersReadableRecordsOnly)
{
    const std::string a1 = put(alice_, "a1");
    ASSERT_FALSE(a1.empty());
    ASSERT_FALSE(put(alice_, "a2").empty());
    ASSERT_FALSE(put(bob_, "b1").empty());
    const std::string record = read_file(a1);

    // None of these is a bucket: a record replace under way, a half-written record, a directory among
    // the records, a stray file and an owner-less record under the meta root's fixed directories, and an
    // owner without a bucket directory.
    write_file(meta_root_ + "/alice/bucket/" + std::string(ORBS3_RECORD_TMP_PREFIX) + "a3", record);
    write_file(meta_root_ + "/alice/bucket/broken", record.substr(0, record.size() / 2));
    ASSERT_TRUE(fs::create_directories(meta_root_ + "/bob/bucket/subdir"));
    write_file(meta_root_ + "/stray", record);
    ASSERT_TRUE(fs::create_directories(meta_root_ + "/object/bucket"));
    write_file(meta_root_ + "/object/bucket/ghost", record);
    ASSERT_TRUE(fs::create_directories(meta_root_ + "/carol/object"));

    vh_.bucket_count = 99;
    ASSERT_EQ(orbs3_bucket_init(&vh_), 0);
    EXPECT_EQ(vh_.bucket_count.load(), 3);
    int on_list = 0;
    neo_list_head_t* pos;
    std::multiset<std::string> names;
    list_for_each(pos, &vh_.bucket_list)
    {
        ++on_list;
        names.insert(str(list_entry(pos, orbs3_bucket_t, link)->name));
    }
    EXPECT_EQ(on_list, 3);
    EXPECT_EQ(names, (std::multiset<std::string>{"a1", "a2", "b1"}));

    // Exit frees every record (the sanitizer build's leak check holds it to that) and empties the list,
    // so a second exit is harmless.
    orbs3_bucket_exit(&vh_);
    EXPECT_TRUE(list_empty(&vh_.bucket_list));
    orbs3_bucket_exit(&vh_);

    // One owner's directory alone.
    ASSERT_EQ(orbs3_bucket_user_init(&vh_, (meta_root_ + "/bob/bucket").c_str()), 0);
    EXPECT_EQ(vh_.bucket_count.load(), 4);
    EXPECT_EQ(orbs3_bucket_user_init(&vh_, (meta_root_ + "/nobody/bucket").c_str()), -1);

    // A meta root that can't be opened still leaves the list and the count reset.
    orbs3_bucket_exit(&vh_);
    fs::remove_all(meta_root_);
    EXPECT_EQ(orbs3_bucket_init(&vh_), -1);
    EXPECT_EQ(vh_.bucket_count.load(), 0);
    EXPECT_TRUE(list_empty(&vh_.bucket_list));
}

TEST_F(BucketStore, UserListHoldsOnlyThatOwnersBuckets)
{
    ASSERT_FALSE(put(alice_, "a1").empty());
    ASSERT_FALSE(put(alice_, "a2").empty());
    ASSERT_FALSE(put(bob_, "b1").empty());
    orbs3_user_t a = user(alice_);

    neo_list_head_t list;
    INIT_LIST_HEAD(&list);
    ASSERT_EQ(orbs3_load_bucket_list(&vh_, &a, &list), 0);
    EXPECT_EQ(drain(&list), (std::multiset<std::string>{"a1@alice", "a2@alice"}));

    // The owner named, not the requester, decides; a list is appended to, not replaced.
    ASSERT_EQ(orbs3_load_user_bucket_list(&list, &vh_, &a, "bob"), 0);
    ASSERT_EQ(orbs3_load_user_bucket_list(&list, &vh_, &a, "bob"), 0);
    EXPECT_EQ(drain(&list), (std::multiset<std::string>{"b1@bob", "b1@bob"}));

    // An owner without buckets, or whose only bucket directory has no record, lists nothing.
    ASSERT_TRUE(fs::create_directories(data_root_ + "/erin/orphan"));
    for (const char* owner : {"dave", "erin"}) {
        EXPECT_EQ(orbs3_load_user_bucket_list(&list, &vh_, &a, owner), 0) << owner;
        EXPECT_TRUE(list_empty(&list)) << owner;
    }
    // An owner name that would leave the data root is refused.
    for (const char* owner : {"", "..", "alice/a1"})
        EXPECT_EQ(orbs3_load_user_bucket_list(&list, &vh_, &a, owner), -1) << owner;
    EXPECT_TRUE(list_empty(&list));
}

}  // namespace

// A settings change and the statistics of concurrent writes each read, change and write the whole record:
// without the record lock one of them writes back a copy older than the other's change, and a count or
// the versioning setting is lost.
TEST_F(BucketStore, ConcurrentRecordChangesAreAllKept)
{
    const std::string path = put(alice_, "busy");
    ASSERT_FALSE(path.empty());
    bucket_ptr b(orbs3_get_bucket(&vh_, nullptr, "busy"));
    ASSERT_TRUE(b);
    ASSERT_EQ(orbs3_bucket_init_path(&vh_, nullptr, b.get(), "busy"), 0);
    constexpr int kThreads = 4, kEach = 25;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++)
        threads.emplace_back([&] {
            for (int i = 0; i < kEach; i++)
                orbs3_object_count_in_bucket(b.get(), 1, 10);
        });
    threads.emplace_back([&] {
        for (int i = 0; i < kEach; i++)
            EXPECT_EQ(orbs3_bucket_update(path.c_str(), [i](orbs3_bucket_t* fresh) {
                          fresh->versioning.status = 1;
                          fresh->versioning.save_num = i + 1;
                          return 0;
                      }),
                      0);
    });
    for (auto& t : threads)
        t.join();
    bucket_ptr after(orbs3_create_bucket_from_file(path.c_str()));
    ASSERT_TRUE(after);
    EXPECT_EQ(after->stat.object_count, 7u + kThreads * kEach);
    EXPECT_EQ(after->stat.storage_in_bytes, 10u * kThreads * kEach);
    EXPECT_EQ(after->versioning.status, 1u);
    EXPECT_EQ(after->versioning.save_num, kEach);

    // A change that refuses writes nothing; a record that is gone is not made again.
    EXPECT_EQ(orbs3_bucket_update(path.c_str(), [](orbs3_bucket_t* fresh) {
                  fresh->recycle_days = 9;
                  return -1;
              }),
              -1);
    after.reset(orbs3_create_bucket_from_file(path.c_str()));
    EXPECT_EQ(after->recycle_days, 0);
    EXPECT_EQ(orbs3_bucket_update((path + "-gone").c_str(), [](orbs3_bucket_t*) { return 0; }), -1);
    EXPECT_FALSE(fs::exists(path + "-gone"));
}
