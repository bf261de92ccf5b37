// The recycle bin's age bound on a real tree: what goes, what stays, and what is never touched.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <set>
#include <string>

#include "temp_dir.h"
#include "versions/orbs3_recycle_age.h"

namespace {

namespace fs = std::filesystem;
using unit_test::temp_dir;
using unit_test::write_file;

constexpr time_t kDay = 24 * 60 * 60;
const std::string kSuffix = "..2026_01_02_03_04_05-000001abcdef01";

// Every path below `root`, directories with a final "/", symbolic links not followed.
std::set<std::string> tree(const std::string& root)
{
    std::set<std::string> out;
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator(); ++it) {
        const std::string rel = it->path().lexically_relative(root).string();
        out.insert(it->is_directory() && !it->is_symlink() ? rel + "/" : rel);
    }
    return out;
}

// A recycle tree as the delete and overwrite paths leave it, beside a directory outside it.
struct recycle_tree {
    temp_dir dir;
    std::string root = dir("recycle");
    std::string outside = dir("outside");

    recycle_tree()
    {
        fs::create_directories(root + "/a/b");
        fs::create_directories(root + "/keep");
        fs::create_directories(root + "/empty");
        fs::create_directories(outside);
        write_file(root + "/a/b/k" + kSuffix, "12345");  // bytes and record
        write_file(root + "/a/b/.orbs3-v-k" + kSuffix, "<object/>");
        write_file(root + "/old..2026_01_02_03_04_05", "123");  // from before records and tails
        write_file(root + "/.orbs3-v-gone" + kSuffix, "<object/>");  // a record whose bytes went
        write_file(root + "/.orbs3-tmp-abc", "x");                   // a temporary of a record replace
        write_file(root + "/keep/notes.txt", "not a content");
        write_file(outside + "/o" + kSuffix, "outside");
        fs::create_directory_symlink(outside, root + "/link");
    }
};

const std::set<std::string> kWhole = {
    "a/", "a/b/", "a/b/k" + kSuffix, "a/b/.orbs3-v-k" + kSuffix, "old..2026_01_02_03_04_05",
    ".orbs3-v-gone" + kSuffix, ".orbs3-tmp-abc", "keep/", "keep/notes.txt", "empty/", "link",
};
const std::set<std::string> kAged = {".orbs3-tmp-abc", "keep/", "keep/notes.txt", "link"};

TEST(RecycleAge, RemovesContentsOlderThanTheBoundAndTheDirectoriesTheyLeave)
{
    const time_t now = std::time(nullptr);
    std::set<std::string> whole_but_empty = kWhole;
    whole_but_empty.erase("empty/");
    std::set<std::string> aged_and_fresh = kAged;
    aged_and_fresh.insert("empty/");
    struct row {
        const char* what;
        int32_t days;
        time_t at;
        bool fresh_dir;  // "empty" changed just before `at`
        std::set<std::string> left;
        uint64_t contents, bytes, dirs;
    } rows[] = {
        {"0 days keeps everything", 0, now + 3650 * kDay, false, kWhole, 0, 0, 0},
        {"negative days keep everything", -1, now + 3650 * kDay, false, kWhole, 0, 0, 0},
        // The names carry a stamp of January, but the contents entered the tree now.
        {"the name's stamp is no age", 1, now, false, kWhole, 0, 0, 0},
        // An empty directory that has not changed for a while goes whatever the contents' age.
        {"younger than the bound", 3, now + 2 * kDay, false, whole_but_empty, 0, 0, 1},
        {"older than the bound", 1, now + 2 * kDay, false, kAged, 3, 8, 3},
        // A writer may have made a directory a moment ago for a content it is about to move in.
        {"a directory just changed stays", 1, now + 2 * kDay, true, aged_and_fresh, 3, 8, 2},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.what);
        recycle_tree t;
        if (r.fresh_dir) {
            const timespec times[2] = {{r.at - 10, 0}, {r.at - 10, 0}};
            ASSERT_EQ(utimensat(AT_FDCWD, (t.root + "/empty").c_str(), times, 0), 0);
        }
        orbs3_recycle_expired_t got;
        ASSERT_EQ(orbs3_recycle_expire(t.root.c_str(), r.days, r.at, &got), 0);
        EXPECT_EQ(tree(t.root), r.left);
        EXPECT_EQ(got.contents, r.contents);
        EXPECT_EQ(got.bytes, r.bytes);
        EXPECT_EQ(got.dirs, r.dirs);
        EXPECT_EQ(got.failed, 0u);
        EXPECT_TRUE(fs::is_directory(t.root));
        EXPECT_TRUE(fs::exists(t.outside + "/o" + kSuffix)) << "a link led the walk out of the tree";
    }
}

TEST(RecycleAge, StopsWhenAskedAndToleratesAMissingTree)
{
    recycle_tree t;
    orbs3_recycle_expired_t got;
    // Asked to stop at the first directory: what lies in directories stays.
    ASSERT_EQ(orbs3_recycle_expire(t.root.c_str(), 1, std::time(nullptr) + 2 * kDay, &got, [] { return true; }),
              0);
    EXPECT_TRUE(fs::exists(t.root + "/a/b/k" + kSuffix));
    EXPECT_TRUE(fs::is_directory(t.root + "/empty"));

    orbs3_recycle_expired_t none;
    EXPECT_EQ(orbs3_recycle_expire(t.dir("no-such-tree").c_str(), 1, std::time(nullptr), &none), 0);
    EXPECT_EQ(none.contents, 0u);
    // A file where the tree should be is no tree.
    EXPECT_EQ(orbs3_recycle_expire((t.root + "/keep/notes.txt").c_str(), 1, std::time(nullptr), &none), -1);
}

}  // namespace
