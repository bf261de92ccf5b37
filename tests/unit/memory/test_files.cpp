#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "memory/neo_files.h"
#include "memory/neo_string.h"
#include "temp_dir.h"

using namespace unit_test;

namespace {

class Files : public ::testing::Test {
protected:
    std::string path(const std::string& rel) const { return dir(rel); }
    void touch(const std::string& rel, const std::string& text = "x") const { write_file(path(rel), text); }

    temp_dir dir;
    const std::string& root_ = dir.path;
};

bool exists(const std::string& p)
{
    struct stat st;
    return lstat(p.c_str(), &st) == 0;
}

}  // namespace

TEST_F(Files, ExistAndIsdirTellFilesDirectoriesAndLinksApart)
{
    touch("file");
    ASSERT_EQ(mkdir(path("dir").c_str(), 0755), 0);
    ASSERT_EQ(symlink(path("dir").c_str(), path("link").c_str()), 0);

    EXPECT_EQ(neo_file_exist(path("file").c_str()), 0);
    EXPECT_EQ(neo_file_exist(path("dir").c_str()), 0);
    EXPECT_EQ(neo_file_exist(path("missing").c_str()), ENOENT);
    EXPECT_EQ(neo_file_exist(path("file/below").c_str()), ENOTDIR);
    EXPECT_EQ(neo_file_exist(nullptr), -1);

    EXPECT_EQ(neo_isdir(path("dir").c_str()), 1);
    EXPECT_EQ(neo_isdir(path("file").c_str()), 0);
    EXPECT_EQ(neo_isdir(path("link").c_str()), 0) << "a link to a directory is no directory";
    EXPECT_EQ(neo_isdir(path("missing").c_str()), 0);

    testing::internal::CaptureStderr();
    EXPECT_EQ(neo_isdir(path("file/below").c_str()), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Stat failed on " + path("file/below") + ": Not a directory\n");
}

TEST_F(Files, MkdirCreatesThePrefixesBeforeEachSlash)
{
    mode_t old = umask(0);
    EXPECT_EQ(neo_mkdir(path("a/b/c").c_str()), 0);
    EXPECT_EQ(neo_mkdir(path("x//y/z/").c_str()), 0);
    umask(old);

    EXPECT_TRUE(is_dir(path("a")));
    EXPECT_TRUE(is_dir(path("a/b")));
    EXPECT_FALSE(exists(path("a/b/c"))) << "the part behind the last slash is a file name";
    EXPECT_TRUE(is_dir(path("x/y/z")));

    struct stat st;
    ASSERT_EQ(stat(path("a/b").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0775u);

    // Again: existing directories are no error.
    EXPECT_EQ(neo_mkdir(path("a/b/c").c_str()), 0);

    // A prefix that is a file cannot become a directory.
    touch("plain");
    EXPECT_EQ(neo_mkdir(path("plain/sub/file").c_str()), -1);
    EXPECT_EQ(neo_mkdir(nullptr), -1);
}

TEST_F(Files, MkdirCutsThePathAt1024Bytes)
{
    // Components of 49 bytes plus "/": the cut falls inside one of them.
    const std::string part(49, 'd');
    std::string rel;
    while (path(rel).size() < 1200)
        rel += part + "/";
    const std::string full = path(rel);
    ASSERT_EQ(neo_mkdir(full.c_str()), 0);

    std::size_t made = 0;
    for (std::size_t i = root_.size() + 1; i < full.size(); i++) {
        if (full[i] != '/')
            continue;
        std::string prefix = full.substr(0, i);
        if (i < 1023) {
            EXPECT_TRUE(is_dir(prefix)) << prefix.size();
            made++;
        } else {
            EXPECT_FALSE(exists(prefix)) << prefix.size();
        }
    }
    EXPECT_GT(made, 10u);
}

TEST_F(Files, MkdirPCreatesAllParentsAndAcceptsAnExistingDirectory)
{
    EXPECT_EQ(mkdir_p(path("p/q/r").c_str(), 0755), 0);
    EXPECT_TRUE(is_dir(path("p/q/r")));
    EXPECT_EQ(mkdir_p(path("p/q/r").c_str(), 0755), 0);
    EXPECT_EQ(neo_mkdir_p(path("p/q/r/s/").c_str(), 0755), 0);
    EXPECT_TRUE(is_dir(path("p/q/r/s")));
    EXPECT_EQ(neo_mkdir_p(path("p//t").c_str(), 0755), 0);
    EXPECT_TRUE(is_dir(path("p/t")));

    touch("p/file");
    EXPECT_EQ(mkdir_p(path("p/file").c_str(), 0755), -1) << "a file in the way";
    EXPECT_EQ(mkdir_p(path("p/file/sub").c_str(), 0755), -1);
    EXPECT_EQ(mkdir_p(nullptr, 0755), -1);
}

TEST(PathNormalize, CollapsesRunsOfSlashes)
{
    struct row {
        const char* in;
        const char* want;
    };
    const row rows[] = {
        {"//data///bucket//key", "/data/bucket/key"},
        {"a//b/", "a/b/"},
        {"dir////", "dir/"},
        {"///", "/"},
        {"/", "/"},
        {"plain", "plain"},
        {"", ""},
    };
    for (const row& r : rows) {
        neo_cstr_ptr out(neo_path_normalize(r.in));
        ASSERT_TRUE(out) << r.in;
        EXPECT_STREQ(out.get(), r.want) << r.in;
        neo_cstr_ptr alias(path_normalize(r.in));
        EXPECT_STREQ(alias.get(), r.want) << r.in;
    }
    EXPECT_EQ(neo_path_normalize(nullptr), nullptr);
}

TEST_F(Files, RmdirRemovesFilesKeepsTheTreeAndFollowsNoLink)
{
    ASSERT_EQ(mkdir_p(path("t/a/b").c_str(), 0755), 0);
    ASSERT_EQ(mkdir_p(path("t/c").c_str(), 0755), 0);
    ASSERT_EQ(mkdir_p(path("outside").c_str(), 0755), 0);
    touch("t/top");
    touch("t/a/one");
    touch("t/a/b/two");
    touch("t/a/b/.hidden");
    touch("outside/keep");
    ASSERT_EQ(symlink(path("outside").c_str(), path("t/a/dirlink").c_str()), 0);
    ASSERT_EQ(symlink(path("outside/keep").c_str(), path("t/c/filelink").c_str()), 0);
    ASSERT_EQ(mkfifo(path("t/c/fifo").c_str(), 0600), 0);

    EXPECT_EQ(neo_rmdir(path("t").c_str()), 0);

    EXPECT_TRUE(is_dir(path("t")));
    EXPECT_TRUE(is_dir(path("t/a")));
    EXPECT_TRUE(is_dir(path("t/a/b")));
    EXPECT_TRUE(is_dir(path("t/c")));
    for (const char* gone : {"t/top", "t/a/one", "t/a/b/two", "t/a/b/.hidden"})
        EXPECT_FALSE(exists(path(gone))) << gone;
    // Links and other entries stay, and nothing behind a link is touched.
    EXPECT_TRUE(exists(path("t/a/dirlink")));
    EXPECT_TRUE(exists(path("t/c/filelink")));
    EXPECT_TRUE(exists(path("t/c/fifo")));
    EXPECT_TRUE(exists(path("outside/keep")));

    // Clearing an already empty tree, or a path that is not there, succeeds.
    EXPECT_EQ(neo_rmdir(path("t/a/b").c_str()), 0);
    EXPECT_EQ(neo_rmdir(path("missing").c_str()), 0);
    // A link given as the path itself is not followed either.
    EXPECT_EQ(neo_rmdir(path("t/a/dirlink").c_str()), 0);
    EXPECT_TRUE(exists(path("outside/keep")));
    // A stat failure other than a missing path.
    touch("f");
    EXPECT_EQ(neo_rmdir(path("f/below").c_str()), -1);
    // A file given as the path is removed like one found in the walk.
    EXPECT_EQ(neo_rmdir(path("f").c_str()), 0);
    EXPECT_FALSE(exists(path("f")));
}

TEST_F(Files, RemoveTreeRemovesNestedFilesAndEmptyDirectories)
{
    ASSERT_EQ(mkdir_p(path("top/a/b/c").c_str(), 0755), 0);
    ASSERT_EQ(mkdir_p(path("top/empty").c_str(), 0755), 0);
    ASSERT_EQ(mkdir_p(path("top/a/also-empty").c_str(), 0755), 0);
    for (const char* f : {"top/f", "top/a/g", "top/a/b/c/deep", "top/.hidden"})
        touch(f);
    // Mode 0600 directories, as the storage trees make them, are walked too.
    ASSERT_EQ(chmod(path("top/a/b").c_str(), 0600), 0);

    EXPECT_EQ(neo_remove_tree(path("top").c_str()), 0);
    EXPECT_FALSE(exists(path("top")));
    EXPECT_TRUE(is_dir(root_));

    // A plain file is removed as itself; what is already gone is no error.
    touch("file");
    EXPECT_EQ(neo_remove_tree(path("file").c_str()), 0);
    EXPECT_FALSE(exists(path("file")));
    EXPECT_EQ(neo_remove_tree(path("file").c_str()), 0);
    EXPECT_EQ(neo_remove_tree(path("never/there").c_str()), 0);
    EXPECT_EQ(neo_remove_tree(nullptr), -1);
}

TEST_F(Files, RemoveTreeRemovesLinksNeverFollowsThem)
{
    touch("outside/keep", "precious");
    touch("outside/inner/keep2");
    ASSERT_EQ(mkdir_p(path("top/sub").c_str(), 0755), 0);
    ASSERT_EQ(symlink(path("outside").c_str(), path("top/dirlink").c_str()), 0);
    ASSERT_EQ(symlink(path("outside/keep").c_str(), path("top/sub/filelink").c_str()), 0);
    ASSERT_EQ(symlink(path("dangling-target").c_str(), path("top/dangling").c_str()), 0);

    EXPECT_EQ(neo_remove_tree(path("top").c_str()), 0);
    EXPECT_FALSE(exists(path("top")));
    EXPECT_TRUE(exists(path("outside/inner/keep2")));
    EXPECT_EQ(read_file(path("outside/keep")), "precious");

    // A link given as the tree itself goes, its target stays.
    ASSERT_EQ(symlink(path("outside").c_str(), path("toplink").c_str()), 0);
    EXPECT_EQ(neo_remove_tree(path("toplink").c_str()), 0);
    EXPECT_FALSE(exists(path("toplink")));
    EXPECT_TRUE(exists(path("outside/inner/keep2")));
}

TEST(ExitHelpersDeathTest, WriteTheirLineAndExitWithTheStatus)
{
    EXPECT_EXIT(tryhelp_exit(2, "orbmux"), testing::ExitedWithCode(2),
                "^Try `orbmux -h' or 'orbmux --help' for more information\\.\n$");
    EXPECT_EXIT(version_exit(0, "orbmux", "0.1.0", "built today"), testing::ExitedWithCode(0),
                "^orbmux 0\\.1\\.0, built today\n$");
}
