// Deletes that keep every content: the recycle tree takes each deleted content under its own name with
// its record, a delete marker names the content it took away, and deletes by version id take exactly the
// content named and make the right one live again.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_object_read.h"
#include "versions/orbs3_object_version.h"
#include "versions/orbs3_recycle.h"
#include "versions/orbs3_version_delete.h"
#include "versions/version_fixture.h"

namespace fs = std::filesystem;

namespace {

using version_test::read_file;

class VersionDelete : public version_test::version_fixture {
protected:
    // Every content of a tree by its bytes, each with whether the record beside it names those bytes.
    static std::map<std::string, bool> recorded(const std::string& root)
    {
        std::map<std::string, bool> seen;
        if (!fs::exists(root))
            return seen;
        for (const auto& e : fs::recursive_directory_iterator(root)) {
            const std::string name = e.path().filename().string();
            if (!e.is_regular_file() || orbs3_version_is_record_name(name))
                continue;
            const std::string bytes = read_file(e.path().string());
            const std::string rec = e.path().parent_path().string() + "/.orbs3-v-" + name;
            seen[bytes] = fs::exists(rec) && read_file(rec).find("e-" + bytes + "\"") != std::string::npos;
        }
        return seen;
    }
    // The key's entries in the version tree, newest first, with their records.
    std::vector<orbs3_object_ptr> entries(const std::string& key)
    {
        std::vector<orbs3_version_entry_t> list;
        EXPECT_EQ(orbs3_version_list_key(version_, key, &list), 0);
        std::vector<orbs3_object_ptr> out;
        for (const auto& e : list) {
            orbs3_version_file_t f;
            EXPECT_EQ(orbs3_version_paths(version_, key, e.suffix, &f), 0);
            out.emplace_back(orbs3_create_object_from_file(f.record));
        }
        return out;
    }
    std::string live(const std::string& key) const
    {
        return in_data(key) ? read_file(data_ + "/" + key) : std::string("<none>");
    }
};

TEST_F(VersionDelete, RecycleKeepsEveryContentOfOneSecondWithItsRecord)
{
    // PUT-DELETE-PUT-DELETE within one second, null ids and a real one: every content survives.
    const std::string real = new_id();
    struct row {
        std::string bytes, id;
    };
    for (const row& w : {row{"first", ""}, row{"second", ""}, row{"third", real}}) {
        put("d/k", w.bytes, w.id);
        int64_t size = -1;
        char suffix[ORBS3_VERSION_SUFFIX_LEN + 1];
        ASSERT_EQ(orbs3_delete_object_to_recycle(bucket_, "d/k", &size, &suffix), ORBS3_RECYCLE_MOVED) << w.bytes;
        EXPECT_EQ(size, static_cast<int64_t>(w.bytes.size()));
        EXPECT_FALSE(in_data("d/k") || in_meta("d/k"));
        // A real id is the name; a null content gets a fresh one with the stamp of its write.
        if (!w.id.empty()) {
            EXPECT_EQ(std::string(suffix), real);
        } else {
            EXPECT_TRUE(std::string(suffix).starts_with("2026_11_24_18_00_01-")) << suffix;
        }
    }
    EXPECT_EQ(recorded(recycle_), (std::map<std::string, bool>{{"first", true}, {"second", true}, {"third", true}}));

    // Bytes without a record are named by their modification time; nothing left is nothing to do.
    write(data_, "r/k", "bytes");
    struct timespec times[2] = {{0, UTIME_OMIT}, {1700000000, 0}};  // 2023-11-14T22:13:20Z
    ASSERT_EQ(utimensat(AT_FDCWD, (data_ + "/r/k").c_str(), times, 0), 0);
    int64_t size = -1;
    char suffix[ORBS3_VERSION_SUFFIX_LEN + 1];
    ASSERT_EQ(orbs3_delete_object_to_recycle(bucket_, "r/k", &size, &suffix), ORBS3_RECYCLE_MOVED);
    EXPECT_EQ(size, 5);
    EXPECT_TRUE(std::string(suffix).starts_with("2023_11_14_22_13_20-")) << suffix;
    EXPECT_EQ(read_file(recycle_ + "/r/k.." + suffix), "bytes");
    EXPECT_EQ(orbs3_delete_object_to_recycle(bucket_, "r/k", &size), ORBS3_RECYCLE_NOTHING);
    EXPECT_EQ(orbs3_delete_object_to_recycle(bucket_, "r", &size), ORBS3_RECYCLE_NOTHING);
}

TEST_F(VersionDelete, AFailedRecycleLeavesTheObjectWhole)
{
    put("d/k", "stays");
    // A file where the key's recycle directory must go: the move can't be made.
    write(recycle_, "d", "in the way");
    int64_t size = 0;
    EXPECT_EQ(orbs3_delete_object_to_recycle(bucket_, "d/k", &size), ORBS3_S3_INTERNAL_ERROR);
    EXPECT_EQ(live("d/k"), "stays");
    EXPECT_NE(read_file(meta_ + "/d/k").find("e-stays"), std::string::npos);
    // The same on an enabled bucket: no marker is left for a delete that did not happen.
    enable(10);
    orbs3_version_delete_t out;
    EXPECT_EQ(orbs3_version_delete_latest(bucket_, "d/k", {"uid", "alice"}, &out), ORBS3_S3_INTERNAL_ERROR);
    EXPECT_EQ(live("d/k"), "stays");
    EXPECT_TRUE(entries("d/k").empty());
    EXPECT_EQ(out.gone.objects, 0);
}

TEST_F(VersionDelete, MarkersNameWhatTheyTookAndRemovingTheLatestBringsItBack)
{
    enable(10);
    const std::string id1 = new_id();
    put("d/k", "v1", id1);

    orbs3_version_delete_t first;
    ASSERT_EQ(orbs3_version_delete_latest(bucket_, "d/k", {"uid", "alice"}, &first), 0);
    EXPECT_TRUE(first.delete_marker);
    EXPECT_EQ(first.gone.objects, 1);
    EXPECT_EQ(first.gone.bytes, 2);
    EXPECT_EQ(live("d/k"), "<none>");
    EXPECT_EQ(recorded(recycle_), (std::map<std::string, bool>{{"v1", true}}));
    auto list = entries("d/k");
    ASSERT_EQ(list.size(), 1u);
    ASSERT_TRUE(list[0]);
    EXPECT_EQ(list[0]->delete_marker, 1u);
    EXPECT_EQ(storage_test::str(list[0]->version_id), first.version_id);
    EXPECT_EQ(storage_test::str(list[0]->displaced), id1);
    EXPECT_EQ(storage_test::str(list[0]->owner_id), "uid");

    // A key with nothing live still gets its marker, which displaced nothing.
    orbs3_version_delete_t second;
    ASSERT_EQ(orbs3_version_delete_latest(bucket_, "d/k", {"uid", "alice"}, &second), 0);
    EXPECT_EQ(second.gone.objects, 0);
    list = entries("d/k");
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(storage_test::str(list[0]->version_id), second.version_id);
    EXPECT_EQ(list[0]->displaced.len, 0u);

    // The older marker is not the latest: removing it brings nothing back.
    orbs3_version_delete_t out;
    ASSERT_EQ(orbs3_version_delete_id(bucket_, "d/k", first.version_id, &out), 0);
    EXPECT_TRUE(out.delete_marker);
    EXPECT_EQ(out.gone.objects, 0);
    EXPECT_EQ(live("d/k"), "<none>");
    // The latest, which displaced nothing and has no version under it: the key stays deleted.
    out = {};
    ASSERT_EQ(orbs3_version_delete_id(bucket_, "d/k", second.version_id, &out), 0);
    EXPECT_EQ(live("d/k"), "<none>");
    EXPECT_TRUE(entries("d/k").empty());

    // Delete again, then remove that marker: the content comes back from the recycle tree, same record.
    put("d/k", "v2", new_id());
    orbs3_version_delete_t third;
    ASSERT_EQ(orbs3_version_delete_latest(bucket_, "d/k", {"uid", "alice"}, &third), 0);
    out = {};
    ASSERT_EQ(orbs3_version_delete_id(bucket_, "d/k", third.version_id, &out), 0);
    EXPECT_EQ(out.gone.objects, -1);
    EXPECT_EQ(out.gone.bytes, -2);
    EXPECT_EQ(live("d/k"), "v2");
    EXPECT_NE(read_file(meta_ + "/d/k").find("e-v2"), std::string::npos);
    EXPECT_TRUE(entries("d/k").empty());
    EXPECT_EQ(recorded(recycle_), (std::map<std::string, bool>{{"v1", true}}));
}

TEST_F(VersionDelete, AMoveToTheLivePlaceMakesTheDirectoriesOfBothTrees)
{
    const std::string id = new_id();
    put("x/y/k", "moved", id);
    orbs3_object_path_t path;
    ASSERT_EQ(orbs3_make_object_path(bucket_, "x/y/k", "", &path), 0);
    orbs3_version_file_t kept;
    ASSERT_EQ(orbs3_version_paths(recycle_, "x/y/k", id, &kept), 0);
    const orbs3_version_file_t place = orbs3_version_live_file(&path);
    ASSERT_EQ(orbs3_version_move(&place, &kept), 0);
    // Both of the key's directories went meanwhile, as a delete that empties them removes them.
    fs::remove_all(data_ + "/x");
    fs::remove_all(meta_ + "/x");
    ASSERT_EQ(orbs3_version_move(&kept, &place), 0);
    EXPECT_EQ(live("x/y/k"), "moved");
    EXPECT_NE(read_file(meta_ + "/x/y/k").find("e-moved"), std::string::npos);
}

TEST_F(VersionDelete, ALatestMarkerWhoseContentIsGoneMakesTheNewestVersionLive)
{
    enable(10);
    put("k", "old", new_id());
    put("k", "new", new_id());
    orbs3_version_delete_t marker;
    ASSERT_EQ(orbs3_version_delete_latest(bucket_, "k", {"uid", "alice"}, &marker), 0);
    fs::remove_all(recycle_);  // purged from the recycle bin meanwhile
    orbs3_version_delete_t out;
    ASSERT_EQ(orbs3_version_delete_id(bucket_, "k", marker.version_id, &out), 0);
    EXPECT_EQ(live("k"), "old");
    EXPECT_EQ(out.gone.objects, -1);
    EXPECT_EQ(out.gone.bytes, -3);
    EXPECT_TRUE(entries("k").empty());
}

TEST_F(VersionDelete, DeleteByIdTakesExactlyTheContentNamed)
{
    enable(10);
    const std::string id1 = new_id(), id2 = new_id(), id3 = new_id();
    put("a/k", "v1", id1);
    put("a/k", "v2", id2);
    put("a/k", "v3", id3);
    struct row {
        std::string id;
        int rc;
        std::string live;
        int64_t objects_gone;
        std::map<std::string, bool> recycled;
    };
    const row rows[] = {
        // A version: to the recycle tree under its name, with its record; the live content stays.
        {id2, 0, "v3", 0, {{"v2", true}}},
        // Named again, or never there: deleted already.
        {id2, 0, "v3", 0, {{"v2", true}}},
        {new_id(), 0, "v3", 0, {{"v2", true}}},
        {"not-an-id", ORBS3_S3_INVALID_ARGUMENT, "v3", 0, {{"v2", true}}},
        {"", ORBS3_S3_INVALID_ARGUMENT, "v3", 0, {{"v2", true}}},
        // The live content: recycled, and the newest version takes its place (one out, one in).
        {id3, 0, "v1", 0, {{"v2", true}, {"v3", true}}},
        // The last: nothing to take its place.
        {id1, 0, "<none>", 1, {{"v1", true}, {"v2", true}, {"v3", true}}},
    };
    for (const row& w : rows) {
        orbs3_version_delete_t out;
        EXPECT_EQ(orbs3_version_delete_id(bucket_, "a/k", w.id, &out), w.rc) << w.id;
        EXPECT_FALSE(out.delete_marker) << w.id;
        EXPECT_EQ(live("a/k"), w.live) << w.id;
        EXPECT_EQ(out.gone.objects, w.objects_gone) << w.id;
        EXPECT_EQ(recorded(recycle_), w.recycled) << w.id;
        if (w.rc == 0) {
            EXPECT_EQ(std::string(out.version_id), w.id);
        }
    }
    EXPECT_TRUE(entries("a/k").empty());
    EXPECT_FALSE(fs::exists(data_ + "/a")) << "the emptied directory goes with the last content";
}

TEST_F(VersionDelete, MarkersCountInTheBound)
{
    struct row {
        int save_num;
        std::size_t kept;
    };
    for (const row& w : {row{2, 2}, row{0, 1}}) {
        enable(w.save_num);
        const std::string key = "b" + std::to_string(w.save_num);
        std::vector<std::string> made;
        for (int i = 0; i < 4; i++) {
            orbs3_version_delete_t out;
            ASSERT_EQ(orbs3_version_delete_latest(bucket_, key, {"uid", "alice"}, &out), 0);
            made.push_back(out.version_id);
        }
        auto list = entries(key);
        ASSERT_EQ(list.size(), w.kept) << w.save_num;
        // The newest stay, newest first.
        for (std::size_t i = 0; i < w.kept; i++)
            EXPECT_EQ(storage_test::str(list[i]->version_id), made[made.size() - 1 - i]) << w.save_num;
    }
}

}  // namespace
