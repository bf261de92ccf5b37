// The actions on a stamped key: a restore swaps the live content with an old one, each keeping its own
// record and name; a failed or refused action moves nothing; a version leaves for the recycle tree under
// its name; a purge removes only what it names.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>

#include "memory/neo_md5.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_object_store.h"
#include "versions/orbs3_version_actions.h"
#include "versions/orbs3_version_name.h"
#include "versions/version_fixture.h"

namespace {

using version_test::read_file;

class VersionActions : public version_test::version_fixture {
protected:
    // The live object `key`: its bytes and a record with ETag "e-<bytes>", "" as id for "null".
    void live(const std::string& key, const std::string& bytes, const std::string& id)
    {
        write(data_, key, bytes);
        write(meta_, key, record(key, "e-" + bytes, bytes.size(), id));
    }
    // The record of `key`'s content `suffix` in `tree`, or the live record with an empty suffix.
    std::unique_ptr<orbs3_object_t, void (*)(orbs3_object_t*)> rec(const std::string& tree, const std::string& key,
                                                                    const std::string& suffix) const
    {
        std::string path = meta_ + "/" + key;
        orbs3_version_file_t f;
        if (!suffix.empty() && orbs3_version_paths(tree, key, suffix, &f) == 0)
            path = f.record;
        return {orbs3_create_object_from_file(path.c_str()), orbs3_free_object};
    }
    // Every file below the tenant's trees, with its bytes: what "nothing moved" compares.
    std::map<std::string, std::string> snapshot() const
    {
        std::map<std::string, std::string> seen;
        for (const auto& e : std::filesystem::recursive_directory_iterator(tenant_.dir.path))
            if (e.is_regular_file())
                seen[e.path().string()] = read_file(e.path().string());
        return seen;
    }
};

std::string id_of(const orbs3_object_t* r)
{
    return std::string(orbs3_object_version_id(r));
}

TEST_F(VersionActions, RestoreTwiceSwapsBackAndForthWithOwnNamesAndRecords)
{
    enable(10);
    for (const std::string key : {"k", "d/k", "a..b/c..d", "x...y", "d/k..2026_01_01_00_00_00"}) {
        SCOPED_TRACE(key);
        const std::string live_id = new_id(), old_id = new_id();
        live(key, "now-" + key, live_id);
        old(version_, key, old_id, "then-" + key, old_id);

        ASSERT_EQ(orbs3_restore_version(vh_, bucket_, key + ".." + old_id), 0);
        EXPECT_EQ(read_file(data_ + "/" + key), "then-" + key);
        auto r = rec(version_, key, "");
        ASSERT_TRUE(r);
        EXPECT_EQ(storage_test::str(r->etag), "e-then-" + key);
        EXPECT_EQ(id_of(r.get()), old_id);
        // The live content became the version named by its id, its record beside it.
        auto v = rec(version_, key, live_id);
        ASSERT_TRUE(v);
        EXPECT_EQ(storage_test::str(v->etag), "e-now-" + key);

        ASSERT_EQ(orbs3_restore_version(vh_, bucket_, key + ".." + live_id), 0);
        EXPECT_EQ(read_file(data_ + "/" + key), "now-" + key);
        EXPECT_EQ(id_of(rec(version_, key, "").get()), live_id);
        auto back = rec(version_, key, old_id);
        ASSERT_TRUE(back);
        EXPECT_EQ(storage_test::str(back->etag), "e-then-" + key);
        std::vector<orbs3_version_entry_t> list;
        ASSERT_EQ(orbs3_version_list_key(version_, key, &list), 0);
        ASSERT_EQ(list.size(), 1u);
        EXPECT_EQ(list[0].suffix, old_id);
    }
    EXPECT_TRUE(named(recycle_).empty());
}

TEST_F(VersionActions, RestoredContentWithoutRecordGetsOneFromItsBytesAndItsDirectoriesBack)
{
    enable(10);
    // No live object, and the key's directories went with its last one.
    old(version_, "d/k", "2026_01_02_03_04_05", "old bytes", "-");
    ASSERT_FALSE(std::filesystem::exists(data_ + "/d"));
    ASSERT_EQ(orbs3_restore_version(vh_, bucket_, "d/k..2026_01_02_03_04_05"), 0);
    EXPECT_EQ(read_file(data_ + "/d/k"), "old bytes");
    auto r = rec(version_, "d/k", "");
    ASSERT_TRUE(r);
    uint8_t sum[NEO_MD5_LEN];
    neo_md5_t md5;
    ASSERT_EQ(neo_md5_init(&md5), 0);
    neo_md5_update(&md5, "old bytes", 9);
    ASSERT_EQ(neo_md5_final(sum, &md5), 0);
    char hex[33];
    *neo_hex(hex, sum, sizeof sum) = '\0';
    EXPECT_EQ(storage_test::str(r->etag), hex);
    EXPECT_EQ(r->size, 9u);
    EXPECT_EQ(storage_test::str(r->last_modified), "2026-01-02T03:04:05.000Z");
    EXPECT_EQ(id_of(r.get()), "2026_01_02_03_04_05") << "found by its name, it keeps that id";
}

TEST_F(VersionActions, RefusedOrFailedActionsMoveNothing)
{
    const std::string id = new_id();
    struct {
        const char* what;
        int status;
        int save_num;
        std::string stamped;
        int want;
    } cases[] = {
        {"versioning suspended", 0, 10, "k.." + id, 0},
        {"versioning never set", 0, 0, "k.." + id, 0},
        {"five numbers", 1, 10, "k..2026_11_24_18_00", ORBS3_VERSION_BAD_NAME},
        {"no stamp", 1, 10, "k", ORBS3_VERSION_BAD_NAME},
        {"no such version", 1, 10, "k..2026_11_24_18_00_01-000000deadbeef", ORBS3_VERSION_MOVE_FAILED},
        {"a directory of that name", 1, 10, "d..2026_01_01_00_00_00", ORBS3_VERSION_MOVE_FAILED},
        {"climbing out", 1, 10, "../k.." + id, ORBS3_S3_INVALID_ARGUMENT},
        {"climbing out below", 1, 10, "d/../../k.." + id, ORBS3_S3_INVALID_ARGUMENT},
        {"reserved name", 1, 10, ".orbs3-v-k.." + id, ORBS3_S3_INVALID_ARGUMENT},
        {"a marker's record beside bytes", 1, 10, "m.." + id, ORBS3_VERSION_MOVE_FAILED},
    };
    live("k", "live", new_id());
    old(version_, "k", id, "old", id);
    old(recycle_, "k", id, "old", id);
    write(version_, "d..2026_01_01_00_00_00/x", "another key's");
    write(recycle_, "d..2026_01_01_00_00_00/x", "another key's");
    for (const std::string& tree : {version_, recycle_}) {
        old(tree, "m", id, "bytes", id);
        orbs3_version_file_t f;
        ASSERT_EQ(orbs3_version_paths(tree, "m", id, &f), 0);
        storage_test::write_file(f.record, "<object objectname=\"m\" delete_marker=\"1\" version_id=\"" + id + "\" />");
    }
    const auto before = snapshot();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        enable(c.save_num, c.status);
        EXPECT_EQ(orbs3_restore_version(vh_, bucket_, c.stamped), c.want);
        EXPECT_EQ(snapshot(), before);
        if (c.status == 1) {
            EXPECT_EQ(orbs3_restore_recycled(vh_, bucket_, c.stamped), c.want);
            EXPECT_EQ(snapshot(), before);
        }
    }
}

TEST_F(VersionActions, RecycledContentComesBackAndTheLiveOneGoesBySetting)
{
    struct {
        const char* what;
        int status;
        int save_num;
        bool live_has_id;
        const char* live_goes_to;  // "recycle" or "version"
    } cases[] = {
        {"suspended, null live", 0, 10, false, "recycle"},
        {"suspended, live with an id", 0, 10, true, "recycle"},
        {"enabled, null live", 1, 10, false, "version"},
        {"enabled, live with an id", 1, 10, true, "version"},
        {"enabled, nothing kept as a version", 1, 0, true, "recycle"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::filesystem::remove_all(data_ + "/k");
        for (const std::string& d : {meta_, recycle_, version_}) {
            std::filesystem::remove_all(d);
            std::filesystem::create_directories(d);
        }
        enable(c.save_num, c.status);
        const std::string live_id = c.live_has_id ? new_id() : "";
        const std::string gone_id = new_id();
        live("k", "live", live_id);
        old(recycle_, "k", gone_id, "deleted", gone_id);

        ASSERT_EQ(orbs3_restore_recycled(vh_, bucket_, "k.." + gone_id), 0);
        EXPECT_EQ(read_file(data_ + "/k"), "deleted");
        EXPECT_EQ(id_of(rec(version_, "k", "").get()), gone_id);
        const std::string& tree = std::string(c.live_goes_to) == "recycle" ? recycle_ : version_;
        const auto there = named(tree);
        ASSERT_EQ(there.size(), 1u);
        EXPECT_EQ(there.begin()->second, "live");
        const std::string name = there.begin()->first;
        if (c.live_has_id)
            EXPECT_EQ(name, "k.." + live_id) << "its own name";
        else
            EXPECT_EQ(name.substr(0, 23), "k..2026_11_24_18_00_01-") << "a fresh name of its stamp";
        auto moved = rec(tree, "k", name.substr(3));
        ASSERT_TRUE(moved) << "its record went with it";
        EXPECT_EQ(storage_test::str(moved->etag), "e-live");
        EXPECT_EQ(id_of(moved.get()), c.live_has_id ? live_id : "null") << "a null content stays null";
        EXPECT_EQ(named(std::string(c.live_goes_to) == "recycle" ? version_ : recycle_).size(), 0u);
    }
}

TEST_F(VersionActions, TheBoundCountsTheVersionsThatStay)
{
    enable(2);
    const std::string eldest = "2026_01_01_00_00_00-000000aaaaaaaa", newer = "2026_01_02_00_00_00-000000bbbbbbbb";
    live("k", "live", new_id());
    old(version_, "k", eldest, "v1", eldest);
    old(version_, "k", newer, "v2", newer);
    // Restoring one of two versions keeps two: the one coming back makes room for the live one.
    ASSERT_EQ(orbs3_restore_version(vh_, bucket_, "k.." + newer), 0);
    EXPECT_EQ(named(version_).size(), 2u);
    EXPECT_TRUE(named(recycle_).empty());
    // A recycled content coming back adds the live one as a third: the eldest is retired.
    const std::string gone = new_id();
    old(recycle_, "k", gone, "deleted", gone);
    ASSERT_EQ(orbs3_restore_recycled(vh_, bucket_, "k.." + gone), 0);
    EXPECT_EQ(named(recycle_), (std::map<std::string, std::string>{{"k.." + eldest, "v1"}}));
    EXPECT_EQ(named(version_).size(), 2u);
    EXPECT_EQ(read_file(data_ + "/k"), "deleted");
}

TEST_F(VersionActions, CountsFollowTheLiveContent)
{
    bucket_->versioning.status = 0;
    const std::string meta_file = storage_test::str(bucket_->meta_file);
    std::filesystem::create_directories(std::filesystem::path(meta_file).parent_path());
    ASSERT_EQ(orbs3_save_bucket(bucket_, meta_file.c_str()), 0);
    const std::string a = new_id(), b = new_id();
    old(recycle_, "k", a, "12345", a);
    old(recycle_, "k", b, "123", b);
    auto stat_of = [&] {
        std::unique_ptr<orbs3_bucket_t, void (*)(orbs3_bucket_t*)> fresh(
            orbs3_create_bucket_from_file(meta_file.c_str()), orbs3_free_bucket);
        return std::pair<uint64_t, uint64_t>(fresh->stat.object_count, fresh->stat.storage_in_bytes);
    };
    const auto objects_before = vh_->object_count.load();
    ASSERT_EQ(orbs3_restore_recycled(vh_, bucket_, "k.." + a), 0);
    EXPECT_EQ(stat_of(), (std::pair<uint64_t, uint64_t>(1, 5))) << "a key without live object gains one";
    ASSERT_EQ(orbs3_restore_recycled(vh_, bucket_, "k.." + b), 0);
    EXPECT_EQ(stat_of(), (std::pair<uint64_t, uint64_t>(1, 3))) << "a replaced one changes only its size";
    EXPECT_EQ(vh_->object_count.load(), objects_before + 1);
}

TEST_F(VersionActions, DeleteVersionRecyclesItAndPurgeRemovesOnlyWhatItNames)
{
    const std::string id = new_id(), other = new_id();
    old(version_, "d/k", id, "old", id);
    ASSERT_EQ(orbs3_delete_version(bucket_, "d/k.." + id), 0);
    EXPECT_EQ(named(recycle_), (std::map<std::string, std::string>{{"d/k.." + id, "old"}}));
    EXPECT_TRUE(named(version_).empty());
    orbs3_version_file_t f;
    ASSERT_EQ(orbs3_version_paths(recycle_, "d/k", id, &f), 0);
    EXPECT_TRUE(std::filesystem::exists(f.record)) << "the record went along";
    EXPECT_EQ(orbs3_delete_version(bucket_, "d/k.." + id), ORBS3_VERSION_NOT_THERE);
    EXPECT_EQ(orbs3_delete_version(bucket_, "d/k..2026_11_24"), ORBS3_VERSION_BAD_NAME);

    old(recycle_, "d/k", other, "kept", other);
    write(recycle_, "d/k..2026_01_01_00_00_00/x", "another key's");
    for (const std::string& gone : std::vector<std::string>{"d/k.." + id, "d/k.." + id, "d/k..2026_01_01_00_00_00", "d/nothing",
                                    "../d/k.." + other})
        EXPECT_EQ(orbs3_purge_recycled(bucket_, gone), 0) << gone;
    EXPECT_FALSE(std::filesystem::exists(f.record));
    EXPECT_EQ(named(recycle_), (std::map<std::string, std::string>{{"d/k.." + other, "kept"},
                                                                      {"d/k..2026_01_01_00_00_00/x", "another key's"}}));
}

}  // namespace

namespace {

TEST_F(VersionActions, ANullContentComingBackTakesTheNullIdFromANullVersion)
{
    enable(10);
    const std::string live_id = new_id(), null_version = new_id(), real_version = new_id(),
                      recycled = new_id();
    live("k", "live", live_id);
    old(version_, "k", null_version, "null version", "");
    old(version_, "k", real_version, "real version", real_version);
    old(recycle_, "k", recycled, "recycled null", "");
    ASSERT_EQ(orbs3_restore_recycled(vh_, bucket_, "k.." + recycled), 0);
    EXPECT_EQ(read_file(data_ + "/k"), "recycled null");
    EXPECT_EQ(named(version_), (std::map<std::string, std::string>{{"k.." + live_id, "live"},
                                                                      {"k.." + real_version, "real version"}}));
    EXPECT_EQ(named(recycle_), (std::map<std::string, std::string>{{"k.." + null_version, "null version"}}));
}

}  // namespace
