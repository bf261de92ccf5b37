#include "storage/orbs3_file_helpers.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "temp_dir.h"

using namespace std::string_literals;

namespace {

class FileHelpers : public ::testing::Test {
protected:
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
    unit_test::temp_dir dir_;
};

TEST_F(FileHelpers, WholeFileReadKeepsEveryByteAndReportsMissingFiles)
{
    const std::string f = dir_("rec");
    const std::string bin = "hello\0world\n"s;
    unit_test::write_file(f, bin);
    EXPECT_EQ(get(f), bin);
    unit_test::write_file(f, "");
    EXPECT_EQ(get(f), "");

    char* data = reinterpret_cast<char*>(1);
    EXPECT_EQ(orbs3_read_data_from_file(dir_("none").c_str(), &data), -1);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(orbs3_read_data_from_file(dir_.path.c_str(), &data), -1);  // a directory can't be read
}

TEST_F(FileHelpers, Existence)
{
    unit_test::write_file(dir_("five"), "12345");
    EXPECT_EQ(orbs3_access_file(dir_("five").c_str()), 0);
    EXPECT_EQ(orbs3_access_file(dir_.path.c_str()), 0);
    EXPECT_EQ(orbs3_access_file(dir_("none").c_str()), -1);
    EXPECT_EQ(orbs3_access_file(nullptr), -1);
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
