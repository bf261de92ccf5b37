// The names of old contents: the stamped-key parser, ids, and one key's versions as a scan finds them.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "temp_dir.h"
#include "versions/orbs3_version_name.h"

namespace {

using unit_test::temp_dir;
using unit_test::write_file;

struct split_case {
    const char* stamped;
    const char* live_key;
    const char* live_name;
    const char* suffix;
    int64_t stamp;
};

TEST(VersionName, SplitsStampedKeysWhoseKeysHoldDots)
{
    const split_case cases[] = {
        {"a..2026_11_24_18_00_01", "a", "a", "2026_11_24_18_00_01", 20261124180001},
        {"a/b..2026_11_24_18_00_01-12345600ab12cd34", "a/b", "b", "2026_11_24_18_00_01-12345600ab12cd34",
         20261124180001},
        // ".." in the directories and in the name itself: only the last ".." of the last component splits.
        {"x..y/z..w/n..m..2026_01_02_03_04_05", "x..y/z..w/n..m", "n..m", "2026_01_02_03_04_05", 20260102030405},
        {"a...2026_1_2_3_4_5", "a.", "a.", "2026_1_2_3_4_5", 20260102030405},
        {"d/a....2026_01_02_03_04_05-x", "d/a..", "a..", "2026_01_02_03_04_05-x", 20260102030405},
    };
    for (const split_case& c : cases) {
        SCOPED_TRACE(c.stamped);
        orbs3_stamped_key_t s;
        ASSERT_EQ(orbs3_split_stamped_key(c.stamped, &s), 0);
        EXPECT_EQ(s.live_key, c.live_key);
        EXPECT_EQ(s.live_name, c.live_name);
        EXPECT_EQ(s.suffix, c.suffix);
        EXPECT_EQ(s.stamp, c.stamp);
    }
    // Refused: no "..", five numbers, a stamp in a directory only, a "." in the tail, an empty tail,
    // nothing in front of the dots, trailing junk, numbers too long to be a stamp's (their stamp number
    // would overflow).
    for (const char* bad : {"a", "a..2026_11_24_18_00", "a..2026_11_24_18_00_01/b", "a..2026_11_24_18_00_01-a.b",
                            "a..2026_11_24_18_00_01-", "..2026_11_24_18_00_01", "a..2026_11_24_18_00_01x",
                            "a..2026_11_24_18_00_01_07", "", "a/", "a..x_1_2_3_4_5",
                            "a..999999999_99_99_99_99_99", "a..2026_11_24_18_00_00001"}) {
        SCOPED_TRACE(bad);
        orbs3_stamped_key_t s;
        EXPECT_EQ(orbs3_split_stamped_key(bad, &s), ORBS3_VERSION_BAD_NAME);
    }
}

TEST(VersionName, CheckDateAndIds)
{
    EXPECT_EQ(orbs3_check_date("..2026_11_24_18_00_01"), 20261124180001);
    EXPECT_EQ(orbs3_check_date(".."), -1);
    EXPECT_EQ(orbs3_check_date("..2026_11_24_18_00"), -1);
    EXPECT_EQ(orbs3_check_date("..999999999_99_99_99_99_99"), -1);

    char a[ORBS3_VERSION_SUFFIX_LEN + 1];
    char b[ORBS3_VERSION_SUFFIX_LEN + 1];
    ASSERT_EQ(orbs3_version_new_suffix("2026-11-24T18:00:01.000Z", a), 0);
    ASSERT_EQ(orbs3_version_new_suffix("2026-11-24T18:00:01.000Z", b), 0);
    EXPECT_EQ(std::string(a).substr(0, 20), "2026_11_24_18_00_01-");
    EXPECT_EQ(std::string(a).size(), ORBS3_VERSION_SUFFIX_LEN);
    EXPECT_STRNE(a, b) << "two contents of one second must get two names";
    EXPECT_TRUE(orbs3_version_id_valid(a));
    EXPECT_TRUE(orbs3_version_id_valid("null"));
    EXPECT_EQ(orbs3_version_new_suffix("2026-11-24 18:00:01", a), -1);
    EXPECT_STREQ(a, "");
    for (const char* bad : {"", "NULL", "../../etc", "2026_11_24_18_00_01/x", "2026_11_24_18_00_01-ab/..",
                            "2026_11_24_18_00_01-0123456789012345678"})
        EXPECT_FALSE(orbs3_version_id_valid(bad)) << bad;
}

TEST(VersionName, ListsExactlyTheKeysVersionsNewestFirst)
{
    temp_dir tree;
    const std::string d = tree.path + "/dir/";
    std::filesystem::create_directories(d);
    // Versions of "dir/a": two in one second, an older one without a tail, a delete marker (record only).
    write_file(d + "a..2026_11_24_18_00_01-00000100000001", "v2");
    write_file(d + ".orbs3-v-a..2026_11_24_18_00_01-00000100000001", "<object/>");
    write_file(d + "a..2026_11_24_18_00_01-00000200000002", "v3");
    write_file(d + "a..2026_11_24_17_59_59", "v1");
    write_file(d + ".orbs3-v-a..2026_11_24_18_00_02-00000000000003", "<object/>");
    // Not versions of "dir/a": other keys that start or end alike, and names that don't split.
    for (const char* other : {"ba..2026_11_24_18_00_01", "a..b..2026_11_24_18_00_01", "a", "a..junk",
                              "a..2026_11_24_18_00_01-x.y", ".orbs3-tmp-a..2026_11_24_18_00_01"})
        write_file(d + other, "x");

    std::vector<orbs3_version_entry_t> list;
    ASSERT_EQ(orbs3_version_list_key(tree.path, "dir/a", &list), 0);
    std::vector<std::string> got;
    for (const auto& e : list)
        got.push_back(std::string(e.suffix) + (e.has_data ? " D" : "") + (e.has_record ? " R" : ""));
    EXPECT_EQ(got, (std::vector<std::string>{"2026_11_24_18_00_02-00000000000003 R",
                                             "2026_11_24_18_00_01-00000200000002 D",
                                             "2026_11_24_18_00_01-00000100000001 D R", "2026_11_24_17_59_59 D"}));
    // The key "a..b" sees its own version, not those of "a".
    ASSERT_EQ(orbs3_version_list_key(tree.path, "dir/a..b", &list), 0);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_STREQ(list[0].suffix, "2026_11_24_18_00_01");
    // A missing directory is no versions; a key that leaves the tree is refused.
    EXPECT_EQ(orbs3_version_list_key(tree.path, "nowhere/a", &list), 0);
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(orbs3_version_list_key(tree.path, "../a", &list), ORBS3_VERSION_DIR_UNREADABLE);
}

TEST(VersionName, PathsStayInTheTreeAndUnderTheNameLimit)
{
    orbs3_version_file_t f;
    ASSERT_EQ(orbs3_version_paths("/t", "a/b", "2026_11_24_18_00_01", &f), 0);
    EXPECT_STREQ(f.data, "/t/a/b..2026_11_24_18_00_01");
    EXPECT_STREQ(f.record, "/t/a/.orbs3-v-b..2026_11_24_18_00_01");
    EXPECT_EQ(orbs3_version_paths("/t", "../b", "2026_11_24_18_00_01", &f), -1);
    EXPECT_EQ(orbs3_version_paths("/t", "a/", "2026_11_24_18_00_01", &f), -1);
    EXPECT_STREQ(f.data, "");
    const std::string longest(ORBS3_VERSION_NAME_MAX - ORBS3_VERSION_NAME_EXTRA, 'n');
    EXPECT_EQ(orbs3_version_paths("/t", longest, std::string(ORBS3_VERSION_SUFFIX_LEN, '1'), &f), 0);
    EXPECT_EQ(orbs3_version_paths("/t", longest + "n", std::string(ORBS3_VERSION_SUFFIX_LEN, '1'), &f), -1);
}

}  // namespace
