#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "memory/neo_files.h"

namespace fs = std::filesystem;

namespace {

class RemoveTree : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/orbs3_rmtree_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root_ = tmpl;
    }
    void TearDown() override
    {
        std::error_code ec;
        fs::remove_all(root_, ec);
    }
    void touch(const std::string& path, const std::string& text = "x")
    {
        std::ofstream(path, std::ios::binary) << text;
    }
    std::string root_;
};

TEST_F(RemoveTree, RemovesNestedFilesAndEmptyDirectories)
{
    const std::string top = root_ + "/top";
    ASSERT_TRUE(fs::create_directories(top + "/a/b/c"));
    ASSERT_TRUE(fs::create_directories(top + "/empty"));
    ASSERT_TRUE(fs::create_directories(top + "/a/also-empty"));
    touch(top + "/f");
    touch(top + "/a/g");
    touch(top + "/a/b/c/deep");
    touch(top + "/.hidden");
    // Mode 0600 directories, as the storage trees make them, are walked too.
    ASSERT_EQ(chmod((top + "/a/b").c_str(), 0600), 0);

    EXPECT_EQ(neo_remove_tree(top.c_str()), 0);
    EXPECT_FALSE(fs::exists(top));
    EXPECT_TRUE(fs::is_directory(root_));

    // A plain file is removed as itself; what is already gone is no error.
    touch(root_ + "/file");
    EXPECT_EQ(neo_remove_tree((root_ + "/file").c_str()), 0);
    EXPECT_FALSE(fs::exists(root_ + "/file"));
    EXPECT_EQ(neo_remove_tree((root_ + "/file").c_str()), 0);
    EXPECT_EQ(neo_remove_tree((root_ + "/never/there").c_str()), 0);
    EXPECT_EQ(neo_remove_tree(nullptr), -1);
}

TEST_F(RemoveTree, LinksAreRemovedNeverFollowed)
{
    const std::string outside = root_ + "/outside";
    ASSERT_TRUE(fs::create_directories(outside + "/inner"));
    touch(outside + "/keep", "precious");
    touch(outside + "/inner/keep2");

    const std::string top = root_ + "/top";
    ASSERT_TRUE(fs::create_directories(top + "/sub"));
    fs::create_directory_symlink(outside, top + "/dirlink");
    fs::create_symlink(outside + "/keep", top + "/sub/filelink");
    fs::create_symlink(root_ + "/dangling-target", top + "/dangling");

    EXPECT_EQ(neo_remove_tree(top.c_str()), 0);
    EXPECT_FALSE(fs::exists(fs::symlink_status(top)));
    EXPECT_TRUE(fs::exists(outside + "/inner/keep2"));
    std::ifstream in(outside + "/keep");
    std::string text;
    in >> text;
    EXPECT_EQ(text, "precious");

    // A link given as the tree itself goes, its target stays.
    fs::create_directory_symlink(outside, root_ + "/toplink");
    EXPECT_EQ(neo_remove_tree((root_ + "/toplink").c_str()), 0);
    EXPECT_FALSE(fs::exists(fs::symlink_status(root_ + "/toplink")));
    EXPECT_TRUE(fs::exists(outside + "/inner/keep2"));
}

}  // namespace
