#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>
#include <vector>

#include "s3/orbs3_s3_cgi.h"
#include "temp_dir.h"

namespace {

using pairs = std::vector<std::pair<std::string, std::string>>;

pairs entries_of(const cgiFormEntry* e)
{
    pairs out;
    for (; e != nullptr; e = e->next) {
        out.emplace_back(e->key, std::string(e->value, static_cast<std::size_t>(e->value_length)));
        // Query input never carries upload data.
        EXPECT_STREQ(e->file_name, "");
        EXPECT_STREQ(e->content_type, "");
        EXPECT_STREQ(e->temp_file_name, "");
    }
    return out;
}

TEST(S3Cgi, FormParsingDecodesAndStopsWhereTheQueryEnds)
{
    cgiSetupConstants();
    struct row {
        std::string_view text;
        pairs want;
    };
    const row rows[] = {
        {"", {}},
        {"a=1&b=2", {{"a", "1"}, {"b", "2"}}},
        {"a+b=c+d", {{"a b", "c d"}}},
        {"k=%41%62%4a%6f%7E", {{"k", "AbJo~"}}},      // both cases of hex digits
        {"%6B%65%79=v", {{"key", "v"}}},              // keys are decoded too
        {"k=%zz", {{"k", std::string(1, '\0')}}},     // a non-hex digit counts 0
        {"k=%G1x", {{"k", "\x01x"}}},
        {"k=ab%4", {{"k", "ab"}}},                    // an escape cut by the end is dropped
        {"k=ab%", {{"k", "ab"}}},
        {"acl", {{"acl", ""}}},                       // a key without '=' has an empty value
        {"acl&b=2", {{"acl", ""}, {"b", "2"}}},
        {"a=&b", {{"a", ""}, {"b", ""}}},
        {"a=1=2", {{"a", "1=2"}}},                    // only the first '=' splits
        {"a=1&&b=2", {{"a", "1"}}},                   // an empty key ends the parse
        {"=v&a=1", {}},
        {"a=1&", {{"a", "1"}}},
        {"a=1&b=2&a=3", {{"a", "1"}, {"b", "2"}, {"a", "3"}}},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(std::string(r.text));
        orbs3_cgi_form form(cgiParseGetFormInput(std::string(r.text).c_str()));
        EXPECT_EQ(entries_of(form.get()), r.want);
    }
    EXPECT_EQ(cgiParseGetFormInput(nullptr), nullptr);
}

TEST(S3Cgi, FormStringResultsAndLineEnds)
{
    struct row {
        std::string_view query;
        const char* key;
        std::size_t max;
        int rc;
        std::string_view value;
    };
    const std::string v1023(1023, 'x');
    const std::string v1024(1024, 'y');
    const std::string q1023 = "k=" + v1023;
    const std::string q1024 = "k=" + v1024;
    const row rows[] = {
        {"k=abc", "k", 1024, cgiFormSuccess, "abc"},
        {"k=", "k", 1024, cgiFormEmpty, ""},
        {"k", "k", 1024, cgiFormEmpty, ""},
        {"a=1", "k", 1024, cgiFormNotFound, ""},
        {"", "k", 1024, cgiFormNotFound, ""},
        {"K=1", "k", 1024, cgiFormNotFound, ""},      // keys match exactly
        {"k=1&k=2", "k", 1024, cgiFormSuccess, "1"},  // the first entry wins
        {q1023, "k", 1024, cgiFormSuccess, v1023},    // max - 1 bytes fit
        {q1024, "k", 1024, cgiFormTruncated, std::string_view(v1024).substr(0, 1023)},
        {"k=abcd", "k", 4, cgiFormTruncated, "abc"},
        {"k=abc", "k", 4, cgiFormSuccess, "abc"},
        {"k=%00abc", "k", 1024, cgiFormEmpty, ""},     // a decoded NUL ends the value
        // Runs of CR and LF: as many LF as the larger count.
        {"k=a%0D%0Ab", "k", 1024, cgiFormSuccess, "a\nb"},
        {"k=a%0Db", "k", 1024, cgiFormSuccess, "a\nb"},
        {"k=a%0A%0Db", "k", 1024, cgiFormSuccess, "a\nb"},
        {"k=a%0D%0D%0Ab", "k", 1024, cgiFormSuccess, "a\n\nb"},
        {"k=a%0A%0A%0A%0Db", "k", 1024, cgiFormSuccess, "a\n\n\nb"},
        {"k=a%0D%0A%0D%0A", "k", 1024, cgiFormSuccess, "a\n\n"},  // a run at the end is written too
        {"k=%0D%0A", "k", 1024, cgiFormSuccess, "\n"},
        {"k=a%0A%0A%0A", "k", 3, cgiFormTruncated, "a\n"},       // a run is cut like any text
    };
    for (const row& r : rows) {
        SCOPED_TRACE(std::string(r.query.substr(0, 40)) + " max " + std::to_string(r.max));
        orbs3_cgi_form form(cgiParseGetFormInput(std::string(r.query).c_str()));
        std::vector<char> out(r.max, '#');
        EXPECT_EQ(cgiFormString(form.get(), r.key, out.data(), r.max), r.rc);
        EXPECT_EQ(std::string_view(out.data()), r.value);
    }
}

TEST(S3Cgi, FreeingTheFormUnlinksItsTemporaryFiles)
{
    unit_test::temp_dir dir;
    std::string path = dir("upload");
    unit_test::write_file(path, "");
    cgiFormEntry* form = cgiParseGetFormInput("a=1&b=2");
    ASSERT_NE(form, nullptr);
    ASSERT_NE(form->next, nullptr);
    // The second entry stands for an upload whose data went to a file.
    form->next->temp_file_name = path.data();
    cgiFreeResources(form);
    EXPECT_NE(::access(path.c_str(), F_OK), 0);
    cgiFreeResources(nullptr);
}

}  // namespace
