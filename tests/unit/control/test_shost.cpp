// The documents orbmux exchanges with the cluster controller: what it sends, and what it takes from a
// reply that may be anything.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "control/orbs3_shost.h"

namespace {

TEST(ShostJson, ReportsNameTheProgramAndItsVersion)
{
    for (auto make : {orbs3_make_json_register_to_shost, orbs3_make_json_alive_to_shost}) {
        char* text = nullptr;
        ASSERT_EQ(make(&text), 0);
        ASSERT_NE(text, nullptr);
        EXPECT_STREQ(text, "{\"program\":\"orbmux\",\"version\":197121}");
        std::free(text);
    }
    EXPECT_EQ(orbs3_make_json_alive_to_shost(nullptr), -1);
}

TEST(ShostJson, RepliesAreTakenOnlyWhenWellFormed)
{
    const std::string long_path = "/" + std::string(ORBS3_SHOST_CONF_PATH_CAP - 1, 'a');
    struct Case {
        std::string text;
        int reg_rc;
        const char* path;  // what the registration takes
        int alive_rc;
        int code;
    } cases[] = {
        {R"({"errorcode":0,"conf_path":"/mnt/cluster/conf"})", 0, "/mnt/cluster/conf", 0, 0},
        {R"({"errorcode":4086})", 0, "", 0, 4086},
        {R"({"conf_path":"/mnt/c/"})", 0, "/mnt/c/", 1, 0},
        {R"({"errorcode":"4086","conf_path":7})", 0, "", 1, 0},        // wrong types are no values
        {R"({"errorcode":4086.0})", 0, "", 1, 0},
        {R"({"errorcode":99999999999})", 0, "", 1, 0},               // beyond an int
        {R"({"errorcode":1,"conf_path":"relative/conf"})", 0, "", 0, 1},
        {R"({"conf_path":"/mnt/../etc"})", 0, "", 1, 0},
        {R"({"conf_path":"/mnt/./c"})", 0, "", 1, 0},
        {R"({"conf_path":"/mnt//c"})", 0, "", 1, 0},
        {R"({"conf_path":"/mnt/c\u0000/x"})", 0, "", 1, 0},
        {R"({"conf_path":""})", 0, "", 1, 0},
        {"{\"conf_path\":\"" + long_path + "\"}", 0, "", 1, 0},      // no room for its zero byte
        {"{\"conf_path\":\"" + long_path.substr(1) + "\"}", 0, "", 1, 0},
        {"{\"conf_path\":\"" + long_path.substr(0, long_path.size() - 1) + "\"}", 0, nullptr, 1, 0},
        {"", -1, "", -1, 0},
        {"not json", -1, "", -1, 0},
        {R"({"errorcode":4086)", -1, "", -1, 0},                      // half a document
        {R"({"errorcode":4086} trailing)", -1, "", -1, 0},
        {"[4086]", -1, "", -1, 0},
        {"4086", -1, "", -1, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        int code = -7;
        char path[ORBS3_SHOST_CONF_PATH_CAP];
        std::memset(path, 'x', sizeof path);
        EXPECT_EQ(orbs3_parse_json_shost_register(c.text.c_str(), &code, path), c.reg_rc);
        const std::string want = c.path != nullptr ? c.path : long_path.substr(0, long_path.size() - 1);
        EXPECT_EQ(std::string(path), want);
        EXPECT_EQ(code, c.reg_rc == 0 ? c.code : 0);
        code = -7;
        EXPECT_EQ(orbs3_parse_json_shost_alive(c.text.c_str(), &code), c.alive_rc);
        EXPECT_EQ(code, c.code);
    }
    int code = -7;
    EXPECT_EQ(orbs3_parse_json_shost_alive(nullptr, &code), -1) << "a reply without a body";
    EXPECT_EQ(code, 0);
}

}  // namespace
