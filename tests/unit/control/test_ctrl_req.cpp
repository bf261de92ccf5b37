#include <gtest/gtest.h>

#include <string>

#include "control/orbs3_ctrl_req.h"
#include "control/orbs3_msg.h"

namespace {

const std::string kAdd =
    R"({"id":"t1","name":"n1","ip":"10.0.0.1","port":9000,"cluster":"c1","tiered":"","path":"tenants/n1")";

std::string add_with(const std::string& extra)
{
    return kAdd + extra + "}";
}

}  // namespace

// Every request type against good bodies and each kind of bad one: text that is no JSON object, a
// required key missing, a key of the wrong JSON type, a value above its cap, and values that would
// name a file outside their place. The reason names the key.
TEST(CtrlReq, BodiesAreCheckedKeyByKey)
{
    const std::string big256(257, 'x'), big64(65, 'k');
    struct row {
        uint32_t type;
        std::string body;
        bool ok;
        const char* why;  // a part of the reason when refused
    } const rows[] = {
        {ORBS3_MSG_LIST_VHOST, "", true, ""},
        {ORBS3_MSG_LIST_VHOST, R"({"secrets":true})", true, ""},
        {ORBS3_MSG_LIST_VHOST, R"({"secrets":"yes"})", false, "secrets"},
        {ORBS3_MSG_VHOST_STATUS, "", true, ""},
        {ORBS3_MSG_GET_VHOST, R"({"id":"t1"})", true, ""},
        {ORBS3_MSG_GET_VHOST, "", false, "body"},
        {ORBS3_MSG_GET_VHOST, R"({"name":"t1"})", false, "missing key id"},
        {ORBS3_MSG_GET_VHOST, R"({"id":"t1")", false, "JSON"},
        {ORBS3_MSG_GET_VHOST, R"(["t1"])", false, "JSON object"},
        {ORBS3_MSG_GET_VHOST, R"({"id":7})", false, "id is not a string"},
        {ORBS3_MSG_DELETE_VHOST, R"({"id":"../x"})", false, "id"},
        {ORBS3_MSG_START_VHOST, R"({"id":".."})", false, "id"},
        {ORBS3_MSG_STOP_VHOST, R"({"id":".hidden"})", false, "id"},
        {ORBS3_MSG_STOP_VHOST, R"({"id":""})", false, "id"},
        {ORBS3_MSG_STOP_VHOST, R"({"id":"a\u0000b"})", false, "id"},
        {ORBS3_MSG_STOP_VHOST, R"({"id":"a\nb"})", false, "id"},
        {ORBS3_MSG_DELETE_VHOST, R"({"id":")" + big256 + R"("})", false, "longer than 256"},
        {ORBS3_MSG_ADD_VHOST, add_with(""), true, ""},
        {ORBS3_MSG_ADD_VHOST, add_with(R"(,"ssl":"TRUE","cert":"/pki/c.pem","key":"/pki/k.pem","key_pwd":"p w")"), true, ""},
        {ORBS3_MSG_ADD_VHOST, add_with(R"(,"tiered":"t1","path":"a/b/c","displayname":"admin")"), true, ""},
        {ORBS3_MSG_ADD_VHOST, R"({"id":"t1","name":"n1","ip":"10.0.0.1","port":9000,"cluster":"c1","tiered":""})", false, "missing key path"},
        {ORBS3_MSG_ADD_VHOST, add_with(R"(,"name":"a/b")"), false, "name"},
        {ORBS3_MSG_ADD_VHOST, add_with(R"(,"group":"../g")"), false, "group"},
        {ORBS3_MSG_ADD_VHOST, add_with(R"(,"path":"../etc")"), false, "path"},
        {ORBS3_MSG_ADD_VHOST, add_with(R"(,"path":"a/../../etc")"), false, "path"},
        {ORBS3_MSG_ADD_VHOST, add_with(R"(,"path":"/etc")"), false, "path"},
        {ORBS3_MSG_ADD_VHOST, add_with(R"(,"path":"a/./b")"), false, "path"},
        {ORBS3_MSG_ADD_VHOST, add_with(R"(,"tiered":"../t")"), false, "tiered"},
        {ORBS3_MSG_ADD_VHOST, add_with(R"(,"port":"9000")"), false, "port is not an integer"},
        {ORBS3_MSG_ADD_VHOST, add_with(R"(,"port":0)"), false, "port"},
        {ORBS3_MSG_ADD_VHOST, add_with(R"(,"port":65536)"), false, "port"},
        {ORBS3_MSG_ADD_VHOST, add_with(R"(,"ip":"10.0.0")"), false, "ip"},
        {ORBS3_MSG_ADD_VHOST, add_with(R"(,"ssl":"yes")"), false, "ssl"},
        {ORBS3_MSG_ADD_VHOST, add_with(R"(,"cert":"relative.pem")"), false, "cert"},
        {ORBS3_MSG_ADD_VHOST, add_with(R"(,"accesskeyid":"A K")"), false, "accesskeyid"},
        {ORBS3_MSG_ADD_VHOST, add_with(R"(,"accesskeysecret":")" + big64 + R"(")"), false, "longer than 64"},
        {ORBS3_MSG_ADD_VHOST, add_with(R"(,"displayname":"../u")"), false, "displayname"},
        {ORBS3_MSG_ADD_VHOST, add_with(R"(,"domain":["d"])"), false, "domain is not a string"},
        {ORBS3_MSG_EDIT_VHOST, R"({"id":"t1","name":"n2","domain":"d.test"})", true, ""},
        {ORBS3_MSG_EDIT_VHOST, R"({"id":"t1","domain":"d.test"})", false, "missing key name"},
        {ORBS3_MSG_EDIT_VHOST, R"({"id":"t1","name":"n2","key_pwd":")" + std::string(129, 'p') + R"("})", false, "key_pwd"},
        {ORBS3_MSG_ADD_USER, R"({"id":"t1","displayname":"alice"})", true, ""},
        {ORBS3_MSG_ADD_USER, R"({"vhost":"n1","displayname":"alice","accesskeyid":"AK1","accesskeysecret":"s/+="})", true, ""},
        {ORBS3_MSG_ADD_USER, R"({"id":"t1"})", false, "missing key displayname"},
        {ORBS3_MSG_ADD_USER, R"({"id":"t1","displayname":"a/b"})", false, "displayname"},
        {ORBS3_MSG_ADD_USER, R"({"id":"t1","displayname":"alice","userid":1})", false, "userid"},
    };
    for (const row& r : rows) {
        orbs3_vhost_req_t req;
        std::string why;
        const int rc = orbs3_parse_vhost_req(r.type, r.body.empty() ? nullptr : r.body.c_str(), &req, &why);
        EXPECT_EQ(rc, r.ok ? 0 : ORBS3_CTRL_BAD_REQUEST) << std::hex << r.type << " " << r.body << ": " << why;
        if (!r.ok) {
            EXPECT_NE(why.find(r.why), std::string::npos) << r.body << ": " << why;
        }
    }
}

// What a good body carries into the record, and which keys it marked as given.
TEST(CtrlReq, GoodBodyFillsTheRecord)
{
    orbs3_vhost_req_t req;
    std::string why;
    const std::string body = add_with(R"(,"domain":"d.test","ssl":"true","accesskeyid":"AK","unknown":1)");
    ASSERT_EQ(orbs3_parse_vhost_req(ORBS3_MSG_ADD_VHOST, body.c_str(), &req, &why), 0) << why;
    EXPECT_EQ(req.id + "|" + req.name + "|" + req.ip + "|" + req.path + "|" + req.domain + "|" + req.ssl,
              "t1|n1|10.0.0.1|tenants/n1|d.test|true");
    EXPECT_EQ(req.port, 9000);
    EXPECT_TRUE(req.has(orbs3_req_key::domain));
    EXPECT_FALSE(req.has(orbs3_req_key::group));
    EXPECT_FALSE(req.secrets);
    // A second parse starts from nothing.
    ASSERT_EQ(orbs3_parse_vhost_req(ORBS3_MSG_GET_VHOST, R"({"id":"x","secrets":true})", &req, &why), 0);
    EXPECT_TRUE(req.secrets);
    EXPECT_EQ(req.name, "");
    EXPECT_FALSE(req.has(orbs3_req_key::domain));
}

// Keys made for a new tenant or user: the length asked for, only the alphabet's characters, never twice.
TEST(CtrlReq, FreshCredentialsAreOfTheirAlphabetAndDiffer)
{
    const std::string a = orbs3_ctrl_random_text(ORBS3_SECRET_LEN, ORBS3_SECRET_CHARS);
    const std::string b = orbs3_ctrl_random_text(ORBS3_SECRET_LEN, ORBS3_SECRET_CHARS);
    const std::string id = orbs3_ctrl_random_text(ORBS3_KEY_ID_LEN, ORBS3_KEY_ID_CHARS);
    EXPECT_EQ(a.size(), ORBS3_SECRET_LEN);
    EXPECT_EQ(id.size(), ORBS3_KEY_ID_LEN);
    EXPECT_NE(a, b);
    EXPECT_EQ(a.find_first_not_of(ORBS3_SECRET_CHARS), std::string::npos);
    EXPECT_EQ(id.find_first_not_of(ORBS3_KEY_ID_CHARS), std::string::npos);
}
