#include "storage/orbs3_layout.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "control/orbs3_service.h"
#include "core/orbs3_config.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/storage_fixture.h"

namespace fs = std::filesystem;
using namespace std::string_literals;
using storage_test::str;
using unit_test::is_dir;

namespace {

mode_t perm(const std::string& p)
{
    struct stat st;
    return lstat(p.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

class Layout : public ::testing::Test {
protected:
    // The tenant's roots built under the temp dir.
    void init_vhost() { ASSERT_EQ(tenant_.roots(), 0); }
    // The bucket "bkt" of owner "alice" with its paths filled.
    void init_bucket()
    {
        init_vhost();
        owned_ = tenant_.bucket();
        bucket_ = owned_.get();
        ASSERT_NE(bucket_, nullptr);
    }

    storage_test::conf_limits limits_{127};
    storage_test::temp_tenant tenant_;
    const std::string& dir_ = tenant_.dir.path;
    orbs3_vhost_t* vh_ = tenant_.vh;
    std::string owner_ = "alice";
    storage_test::bucket_ptr owned_;
    orbs3_bucket_t* bucket_ = nullptr;
};

TEST_F(Layout, BucketNameCheckedAtLengthLimitAndForPathCharacters)
{
    struct row {
        std::string name;
        int want;
    } rows[] = {
        {std::string(127, 'b'), 0},
        {std::string(128, 'b'), -1},
        {"", 0},  // the handlers refuse an empty name before this check
        {"My-Bucket.9_", 0},
        {"-x-", 0},
        {"a/b", -1},
        {"/", -1},
        {".", -1},
        {"..", -1},
        {"...", 0},
        {"a\0b"s, -1},
    };
    for (const row& r : rows)
        EXPECT_EQ(orbs3_check_bucketname(r.name), r.want) << r.name;

    // A configured limit beyond the name area is capped by the area.
    orbs3_conf.bucketmaxlen = 1000;
    EXPECT_EQ(orbs3_check_bucketname(std::string(255, 'b')), 0);
    EXPECT_EQ(orbs3_check_bucketname(std::string(256, 'b')), -1);
}

TEST_F(Layout, KeyCheckedAtEachConfiguredLimit)
{
    {
        storage_test::conf_limits tight(127, 8, 30, 3);
        const std::string c8(8, 'k'), c9(9, 'k');
        struct row {
            std::string key;
            int want;
        } rows[] = {
            {c8, 0},                          // component at the limit, as the only one
            {c9, -1},                         // one over
            {c8 + "/" + c8, 0},               // also as the last component
            {c8 + "/" + c9, -1},
            {c9 + "/" + c8, -1},              // and as the first
            {"a/" + c9 + "/b", -1},           // and in the middle
            {"a/b/c/d", 0},                   // exactly objectdirnum slashes
            {"a/b/c/d/e", -1},                // one more
            {"a/b/c/", 0},                    // a directory object with three slashes
            {"a/b/c/d/", -1},
            {c8 + "/" + c8 + "/" + c8 + "/123", 0},    // 30 bytes: the whole key at its limit
            {c8 + "/" + c8 + "/" + c8 + "/1234", -1},  // 31
        };
        for (const row& r : rows)
            EXPECT_EQ(orbs3_check_objectname(r.key), r.want) << r.key;
    }

    // The defaults: a 1023-byte key passes; components are capped at the name area whatever is configured.
    std::string longest;
    for (int i = 0; i < 7; i++)
        longest += std::string(127, 'x') + "/";
    longest += std::string(1023 - longest.size(), 'y');
    ASSERT_EQ(longest.size(), 1023u);
    EXPECT_EQ(orbs3_check_objectname(longest), 0);
    EXPECT_EQ(orbs3_check_objectname(longest + "z"), -1);
    storage_test::conf_limits wide(127, 4000, 4000);
    EXPECT_EQ(orbs3_check_objectname(std::string(255, 'k')), 0);
    EXPECT_EQ(orbs3_check_objectname(std::string(256, 'k')), -1);
    EXPECT_EQ(orbs3_check_objectname(std::string(120, 'k') + "/" + std::string(1023 - 121, 'k')), -1);

    EXPECT_EQ(orbs3_check_dir_num("a//b/"), 3);
    EXPECT_EQ(orbs3_check_dir_num(""), 0);
}

TEST_F(Layout, HostileKeysRefusedAndHarmlessDotsAccepted)
{
    struct row {
        std::string key;
        int want;
    } rows[] = {
        {".", -1},     {"..", -1},      {"a/../b", -1}, {"a/./b", -1}, {"../x", -1},
        {"a/..", -1},  {"a/../", -1},   {"x\0y"s, -1},  {"\0"s, -1},   {"/a", -1},
        {"//", -1},    {"/", -1},       {"//a", -1},    {"", -1},      {"a//b", -1},
        {"a//", -1},   {"a/b//", -1},   {"a/b/", 0},    {"..a", 0},    {"a..", 0},
        {".../b", 0},  {".hidden", 0},
    };
    for (const row& r : rows)
        EXPECT_EQ(orbs3_check_objectname(r.key), r.want) << r.key;
}

// Whatever a request names, the path stays below the tree it was joined to, or is refused.
TEST(LayoutTreePath, NamesMapBelowTheTreeOrAreRefused)
{
    struct row {
        std::string tree;
        std::string key;
        const char* want;  // null: refused
    } rows[] = {
        {"/t", "", "/t/"},
        {"/t", "a", "/t/a"},
        {"/t", "a/b/", "/t/a/b/"},
        {"/t", "..a/b..", "/t/..a/b.."},
        {"/t", "../x", nullptr},
        {"/t", "a/../../x", nullptr},
        {"/t", "../../../../../g2/meta/u/object/b/", nullptr},
        {"/t", "..", nullptr},
        {"/t", "a/..", nullptr},
        {"/t", ".", nullptr},
        {"/t", "./", nullptr},
        {"/t", "a/./b", nullptr},
        {"/t", "/etc/passwd", nullptr},
        {"/t", "/", nullptr},
        {"/t", "a//b", nullptr},
        {"/t", "a//", nullptr},
        {"/t", "a\0/../x"s, nullptr},
        {"/t", std::string(ORBS3_PATH_AREA, 'k'), nullptr},
        {"", "a", nullptr},
    };
    // A name the request did not carry at all is the tree itself, with no pointer behind it.
    char root[ORBS3_PATH_AREA];
    ASSERT_EQ(orbs3_tree_path("/t", std::string_view(), root), 0);
    EXPECT_STREQ(root, "/t/");
    for (const row& r : rows) {
        char out[ORBS3_PATH_AREA] = "stale";
        const int rc = orbs3_tree_path(r.tree, r.key, out);
        if (r.want == nullptr) {
            EXPECT_EQ(rc, -1) << r.key;
            EXPECT_STREQ(out, "") << r.key;
        } else {
            EXPECT_EQ(rc, 0) << r.key;
            EXPECT_STREQ(out, r.want) << r.key;
        }
    }
}

TEST_F(Layout, RootsAndBucketPathsFollowTheTreeLayout)
{
    init_bucket();
    const std::string g = dir_ + "/g";
    EXPECT_EQ(str(vh_->data_root), g + "/data");
    EXPECT_EQ(str(vh_->meta_root), g + "/meta");
    EXPECT_EQ(str(vh_->version_root), g + "/version");
    EXPECT_EQ(str(vh_->recycle_root), g + "/recycle");
    for (const char* d : {"/data", "/meta/bucket", "/meta/object", "/version", "/recycle"}) {
        EXPECT_TRUE(is_dir(g + d)) << d;
        EXPECT_EQ(perm(g + d), 0600u) << d;
    }

    EXPECT_EQ(str(bucket_->data_dir), g + "/data/alice/bkt");
    EXPECT_EQ(str(bucket_->meta_file), g + "/meta/alice/bucket/bkt");
    EXPECT_EQ(str(bucket_->meta_dir), g + "/meta/alice/object/bkt");
    EXPECT_EQ(str(bucket_->version_dir), g + "/version/alice/bkt");
    EXPECT_EQ(str(bucket_->recycle_dir), g + "/recycle/alice/bkt");
    // Paths only: every request builds them, and nothing on disk is touched.
    EXPECT_FALSE(fs::exists(g + "/meta/alice"));
    EXPECT_FALSE(fs::exists(g + "/data/alice"));
}

TEST_F(Layout, ObjectPathsAndTheirDirectories)
{
    init_bucket();
    const std::string data = str(bucket_->data_dir), meta = str(bucket_->meta_dir);
    const std::string version = str(bucket_->version_dir), recycle = str(bucket_->recycle_dir);

    orbs3_object_path_t p;
    ASSERT_EQ(orbs3_make_object_path(bucket_, "a/b/c.txt", "c.txt", &p), 0);
    EXPECT_EQ(p.data_path, data + "/a/b/c.txt");
    EXPECT_EQ(p.meta_path, meta + "/a/b/c.txt");
    EXPECT_EQ(p.version_path, version + "/a/b/c.txt");
    EXPECT_EQ(p.recycle_path, recycle + "/a/b/c.txt");
    EXPECT_EQ(p.data_dir, data + "/a/b/");
    EXPECT_EQ(p.meta_dir, meta + "/a/b/");
    EXPECT_EQ(p.version_dir, version + "/a/b/");
    EXPECT_EQ(p.recycle_dir, recycle + "/a/b/");

    ASSERT_EQ(orbs3_make_object_path(bucket_, "top", "", &p), 0);
    EXPECT_EQ(p.data_dir, data + "/");
    ASSERT_EQ(orbs3_make_object_path(bucket_, "a/b/", "", &p), 0);  // a directory object
    EXPECT_EQ(p.meta_path, meta + "/a/b/");
    EXPECT_EQ(p.meta_dir, meta + "/a/b/");
    EXPECT_EQ(orbs3_make_object_path(bucket_, "a/b/c", "b", &p), -1);

    char d[ORBS3_PATH_AREA], m[ORBS3_PATH_AREA];
    ASSERT_EQ(orbs3_get_object_path(bucket_, "k", d, m, nullptr, nullptr), 0);
    EXPECT_EQ(d, data + "/k");
    EXPECT_EQ(m, meta + "/k");
    for (const std::string& key : {"../x"s, "a/../../y"s, "/etc/passwd"s, "x\0y"s}) {
        EXPECT_EQ(orbs3_get_object_path(bucket_, key, d, m, nullptr, nullptr), -1) << key;
        EXPECT_STREQ(d, "");
        EXPECT_EQ(orbs3_make_object_path(bucket_, key, "", &p), -1) << key;
    }
}

TEST_F(Layout, UnsafeBucketOrOwnerNamesRefusedBeforeAnyPathIsBuilt)
{
    init_vhost();
    owned_.reset(orbs3_bucket_new());
    bucket_ = owned_.get();
    ASSERT_NE(bucket_, nullptr);
    bucket_->owner_name = {owner_.size(), owner_.data()};
    for (const std::string& name : {""s, "."s, ".."s, "a/b"s, "a\0b"s, std::string(256, 'n')})
        EXPECT_EQ(orbs3_bucket_init_path(vh_, nullptr, bucket_, name), -1) << name;
    EXPECT_EQ(bucket_->data_dir.len, 0u);

    for (std::string owner : {"", "..", "x/y"}) {
        owner_ = owner;
        bucket_->owner_name = {owner_.size(), owner_.data()};
        EXPECT_EQ(orbs3_bucket_init_path(vh_, nullptr, bucket_, "bkt"), -1) << owner;
    }
    EXPECT_FALSE(fs::exists(dir_ + "/g/meta/bucket/bkt"));

    // A bucket whose paths were never filled builds nothing from the file system's root.
    char d[ORBS3_PATH_AREA];
    EXPECT_EQ(orbs3_get_object_path(bucket_, "k", d, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(orbs3_check_key_conflict(bucket_, "k"), -1);
}

TEST_F(Layout, PathsThatDoNotFitAreRefusedNotCut)
{
    storage_test::vhost_ptr v(orbs3_vhost_new());
    ASSERT_NE(v, nullptr);
    neo_strdup(&v->cluster_path, ("/" + std::string(1016, 'c')).c_str(), 2000);
    neo_strdup(&v->group_path, "g", 10);
    EXPECT_EQ(orbs3_init_path(v.get()), -1);  // ".../g/data" alone is 1024 bytes
    EXPECT_EQ(v->data_root.len, 0u);
    EXPECT_EQ(v->recycle_root.len, 0u);

    init_bucket();
    // The key fills the area exactly (1023 bytes and the NUL), then one byte too many.
    const std::size_t room = ORBS3_PATH_AREA - 1 - bucket_->recycle_dir.len - 1;
    ASSERT_LT(bucket_->recycle_dir.len, bucket_->data_dir.len + 10);
    std::string key;
    while (key.size() + 101 < room)
        key += std::string(100, 'k') + "/";
    key += std::string(room - key.size(), 'z');
    ASSERT_EQ(key.size(), room);

    char r[ORBS3_PATH_AREA];
    ASSERT_EQ(orbs3_get_object_path(bucket_, key, nullptr, nullptr, nullptr, r), 0);
    EXPECT_EQ(std::strlen(r), ORBS3_PATH_AREA - 1);
    char d[ORBS3_PATH_AREA];
    EXPECT_EQ(orbs3_get_object_path(bucket_, key + "z", d, nullptr, nullptr, r), -1);
    EXPECT_STREQ(r, "");
    EXPECT_STREQ(d, "");  // every area is emptied, also those that would have fit
    orbs3_object_path_t p;
    EXPECT_EQ(orbs3_make_object_path(bucket_, key + "z", "", &p), -1);
    EXPECT_EQ(orbs3_check_key_conflict(bucket_, key + std::string(20, 'z')), -1);

    std::string owner(250, 'o');
    owner_ = owner;
    bucket_->owner_name = {owner_.size(), owner_.data()};
    storage_test::vhost_ptr deep(orbs3_vhost_new());
    ASSERT_NE(deep, nullptr);
    neo_strdup(&deep->cluster_path, ("/" + std::string(700, 'c')).c_str(), 2000);
    neo_strdup(&deep->group_path, "g", 10);
    ASSERT_EQ(orbs3_init_path(deep.get()), 0);
    EXPECT_EQ(orbs3_bucket_init_path(deep.get(), nullptr, bucket_, std::string(100, 'b')), -1);
}

TEST_F(Layout, MkdirPMakesNestedTreesAndStopsAtAFile)
{
    const std::string nested = dir_ + "/x//y///z/";
    EXPECT_EQ(mkdir_p(nested.c_str(), 0700), 0);
    EXPECT_TRUE(is_dir(dir_ + "/x/y/z"));
    EXPECT_EQ(mkdir_p(nested.c_str(), 0700), 0);  // existing
    EXPECT_EQ(mkdir_p((dir_ + "/x/y").c_str(), 0700), 0);

    storage_test::write_file(dir_ + "/f", "x");
    EXPECT_EQ(mkdir_p((dir_ + "/f").c_str(), 0700), -1);
    EXPECT_EQ(mkdir_p((dir_ + "/f/g/h").c_str(), 0700), -1);
    EXPECT_FALSE(fs::exists(dir_ + "/f/g"));
    EXPECT_EQ(mkdir_p(nullptr, 0700), -1);
}

TEST_F(Layout, KeyDirectoriesMadeOnlyForKeysWithSlashes)
{
    init_bucket();
    const std::string data = str(bucket_->data_dir);

    EXPECT_EQ(orbs3_make_dir_by_name("flat", (data + "/flat").c_str()), 0);
    EXPECT_FALSE(fs::exists(data));  // a flat key needs no directory of its own

    EXPECT_EQ(orbs3_make_dir_by_name("a/b/c", (data + "/a/b/c").c_str()), 0);
    EXPECT_TRUE(is_dir(data + "/a/b"));
    EXPECT_FALSE(fs::exists(data + "/a/b/c"));
    EXPECT_EQ(perm(data + "/a/b"), 0600u);

    EXPECT_EQ(orbs3_make_dir_by_name("d/e/", (data + "/d/e/").c_str()), 0);
    EXPECT_TRUE(is_dir(data + "/d/e"));

    EXPECT_EQ(orbs3_make_dir_by_object_path((data + "/p/q/r").c_str()), 0);
    EXPECT_TRUE(is_dir(data + "/p/q"));
    EXPECT_FALSE(fs::exists(data + "/p/q/r"));

    storage_test::write_file(data + "/file", "x");
    EXPECT_EQ(orbs3_make_dir_by_name("file/x", (data + "/file/x").c_str()), ORBS3_S3_INTERNAL_ERROR);
    EXPECT_EQ(orbs3_make_dir_by_object_path((data + "/file/x/y").c_str()),
              ORBS3_S3_INTERNAL_ERROR);
}

TEST_F(Layout, KeyConflictBetweenFileAndDirectoryBothWays)
{
    init_bucket();
    const std::string data = str(bucket_->data_dir);
    ASSERT_EQ(mkdir_p((data + "/d/e").c_str(), 0700), 0);
    storage_test::write_file(data + "/a", "x");
    storage_test::write_file(data + "/d/e/f", "x");

    struct row {
        std::string key;
        int want;
    } rows[] = {
        {"a/b", ORBS3_KEY_CONFLICT_FILE},      // a stored, a/b arrives
        {"a/", ORBS3_KEY_CONFLICT_FILE},       // a directory object over a file
        {"d/e/f/g", ORBS3_KEY_CONFLICT_FILE},  // deep
        {"d", ORBS3_KEY_CONFLICT_DIR},         // d/... stored, d arrives
        {"d/e", ORBS3_KEY_CONFLICT_DIR},
        {"d/", 0},                             // a directory object over a directory
        {"d/e/f", 0},                          // overwrite
        {"a", 0},
        {"d//e/f", -1},                        // would be d/e/f's file under another name
        {"new/x/y", 0},
        {"../a", -1},
    };
    for (const row& r : rows)
        EXPECT_EQ(orbs3_check_key_conflict(bucket_, r.key), r.want) << r.key;
}

TEST_F(Layout, ReloadRemakesTheRootsOfTheServiceVhosts)
{
    init_vhost();
    const std::string g = dir_ + "/g";
    fs::remove_all(g);

    orbs3_service_t svc{};
    INIT_LIST_HEAD(&svc.vhosts);
    orbs3_list_node_t node{{}, vh_};
    list_add_tail(&node.list, &svc.vhosts);
    orbs3_reload_path(&svc.vhosts);

    for (const char* d : {"/data", "/meta/bucket", "/meta/object", "/version", "/recycle"})
        EXPECT_TRUE(is_dir(g + d)) << d;
}

}  // namespace
