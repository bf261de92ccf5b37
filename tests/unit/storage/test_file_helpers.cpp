#include "storage/orbs3_file_helpers.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "storage/storage_test_bucket.h"

namespace fs = std::filesystem;
using namespace std::string_literals;

namespace {

class FileHelpers : public ::testing::Test {
protected:
    std::string path(const char* name) const { return dir_ + "/" + name; }
    void put(const std::string& p, const std::string& bytes, mode_t mode = 0644)
    {
        ASSERT_EQ(orbs3_write_data_into_file(p.c_str(), bytes.data(), bytes.size()), 0);
        ASSERT_EQ(chmod(p.c_str(), mode), 0);
    }
    std::string get(const std::string& p)
    {
        char* data = nullptr;
        std::size_t len = 0;
        if (orbs3_read_data_from_file(p.c_str(), &data, &len) != 0)
            return "<missing>";
        std::string s(data, len);
        EXPECT_EQ(data[len], '\0');
        std::free(data);
        return s;
    }
    storage_test::temp_dir tmp_;
    const std::string dir_ = tmp_.path;
};

TEST_F(FileHelpers, WholeFileRoundTripTruncatesAndReportsMissingFiles)
{
    const std::string f = path("rec");
    const std::string bin = "hello\0world\n"s;
    put(f, bin);
    EXPECT_EQ(get(f), bin);
    put(f, "ab");  // a rewrite is whole: no tail of the longer record stays
    EXPECT_EQ(get(f), "ab");
    put(f, "");
    EXPECT_EQ(get(f), "");

    char* data = reinterpret_cast<char*>(1);
    EXPECT_EQ(orbs3_read_data_from_file(path("none").c_str(), &data), -1);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(orbs3_write_data_into_file(path("no/dir").c_str(), "x", 1), -1);
    EXPECT_EQ(orbs3_read_data_from_file(dir_.c_str(), &data), -1);  // a directory can't be read
}

TEST_F(FileHelpers, ExistenceAndSizes)
{
    put(path("five"), "12345");
    EXPECT_EQ(orbs3_access_file(path("five").c_str()), 0);
    EXPECT_EQ(orbs3_access_file(dir_.c_str()), 0);
    EXPECT_EQ(orbs3_access_file(path("none").c_str()), -1);
    EXPECT_EQ(orbs3_access_file(nullptr), -1);
    EXPECT_EQ(orbs3_get_file_size(path("five").c_str()), 5u);
    EXPECT_EQ(orbs3_get_file_size(path("none").c_str()), 0u);
}

TEST_F(FileHelpers, FileAttributesTellSizeOrWhyNot)
{
    put(path("public"), std::string(3000, 'p'), 0644);
    put(path("private"), "secret", 0600);
    put(path("empty"), "", 0604);
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0644), 0);
    struct row {
        std::string p;
        int64_t want;
    } rows[] = {
        {path("public"), 3000}, {path("empty"), 0},  {path("private"), -3},
        {dir_, -2},             {path("none"), -1},  {path("fifo"), -1},
    };
    for (const row& r : rows)
        EXPECT_EQ(file_attributes(r.p.c_str()), r.want) << r.p;
}

TEST_F(FileHelpers, ContentTypeBySuffixFirstMatchCaseSensitive)
{
    struct row {
        const char* name;
        const char* want;
    } rows[] = {
        {"index.html", "text/html"}, {"a.htm", "text/html"},         {"s.css", "text/css"},
        {"app.js", "text/javascript"}, {"d.json", "application/json"}, {"x.pdf", "application/pdf"},
        {"p.png", "image/png"},      {"p.jpg", "image/jpeg"},        {"v.svg", "image/svg+xml"},
        {"g.gif", "image/gif"},      {".js", "text/javascript"},     {"a.HTML", nullptr},
        {"html", nullptr},           {"js", nullptr},                {"a.jpeg", nullptr},
        {"a.html.gz", nullptr},      {"", nullptr},
    };
    for (const row& r : rows) {
        const char* got = get_content_type(r.name);
        if (r.want == nullptr)
            EXPECT_EQ(got, nullptr) << r.name;
        else
            EXPECT_STREQ(got, r.want) << r.name;
    }
}

TEST_F(FileHelpers, OpenTempfileWithFlagsZeroKeepsOnlyTheDescriptor)
{
    put(path("part"), "part-bytes");
    int fd = orbs3_open_tempfile(path("part").c_str(), 0, 0);
    ASSERT_GE(fd, 0);
    EXPECT_FALSE(fs::exists(path("part")));
    char buf[16] = {};
    EXPECT_EQ(read(fd, buf, sizeof(buf)), 10);
    EXPECT_STREQ(buf, "part-bytes");
    close(fd);

    EXPECT_EQ(orbs3_open_tempfile(path("none").c_str(), 0, 0), -1);

    mode_t old = umask(022);
    fd = orbs3_open_tempfile(path("new").c_str(), O_CREAT | O_EXCL | O_RDWR, 0);
    umask(old);
    ASSERT_GE(fd, 0);
    close(fd);
    struct stat st;
    ASSERT_EQ(stat(path("new").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(orbs3_open_tempfile(path("new").c_str(), O_CREAT | O_EXCL | O_RDWR, 0), -1);
}

TEST_F(FileHelpers, OpenTempfileEndResumesBehindExistingBytes)
{
    put(path("body"), "abc");
    int fd = orbs3_open_tempfile_end(path("body").c_str(), O_WRONLY, 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 3);
    EXPECT_EQ(write(fd, "de", 2), 2);
    close(fd);
    EXPECT_EQ(get(path("body")), "abcde");
    EXPECT_EQ(orbs3_open_tempfile_end(path("none").c_str(), O_WRONLY, 0), -1);
}

TEST_F(FileHelpers, CopyKeepsBytesModeAndModificationTime)
{
    std::string bytes;
    for (int i = 0; i < 3001; i++)  // several blocks and a short last one
        bytes += static_cast<char>('a' + i % 26);
    put(path("src"), bytes, 0640);
    ASSERT_EQ(set_file_time(path("src").c_str(), 0, 1000000), 0);
    put(path("dst"), std::string(5000, 'o'));

    uint64_t copied = 0;
    ASSERT_EQ(orbs3_copy_file(path("src").c_str(), path("dst").c_str(), &copied), 0);
    EXPECT_EQ(copied, bytes.size());
    EXPECT_EQ(get(path("dst")), bytes);
    struct stat st;
    ASSERT_EQ(stat(path("dst").c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, 1000000);

    ASSERT_EQ(orbs3_copy_file(path("src").c_str(), path("fresh").c_str()), 0);
    ASSERT_EQ(stat(path("fresh").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);

    EXPECT_EQ(orbs3_copy_file(path("none").c_str(), path("d2").c_str()), -1);
    EXPECT_EQ(orbs3_copy_file(path("src").c_str(), path("no/dir").c_str()), -1);
}

TEST_F(FileHelpers, SetFileTimeSetsModificationAndTouchesAccess)
{
    put(path("t"), "x");
    time_t before = time(nullptr);
    ASSERT_EQ(set_file_time(path("t").c_str(), 12345, 777777), 0);
    struct stat st;
    ASSERT_EQ(stat(path("t").c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, 777777);
    EXPECT_GE(st.st_atime, before);
    EXPECT_EQ(set_file_time(path("none").c_str(), 0, 1), -1);
}

TEST_F(FileHelpers, UuidIsThirtyTwoLowerHexDigitsAndFresh)
{
    char a[ORBS3_UUID_HEX_LEN + 1], b[ORBS3_UUID_HEX_LEN + 1];
    orbs3_get_uuid_ex(a);
    orbs3_get_uuid_ex(b);
    EXPECT_EQ(std::strlen(a), 32u);
    EXPECT_EQ(std::strspn(a, "0123456789abcdef"), 32u);
    EXPECT_STRNE(a, b);
}

}  // namespace
