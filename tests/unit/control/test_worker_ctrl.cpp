// Bodies of the worker's control messages: what each operation takes and what it refuses.
#include <gtest/gtest.h>

#include <string>

#include "control/orbs3_worker_ctrl.h"

namespace {

using op = orbs3_worker_op;

struct body_case {
    const char* what;
    op o;
    std::string body;
    uint32_t want;
};

const std::string kLong257(257, 'a');
const std::string kLongPath(1025, 'p');

TEST(WorkerCtrlBody, AcceptsAndRefuses)
{
    const body_case cases[] = {
        {"add whole", op::add,
         R"({"id":"t1","name":"n","path":"grp/t1","cluster":"c1","tiered":"","domain":"a.example",)"
         R"("accesskeyid":"AK","accesskeysecret":"SK","displayname":"d","userid":"u"})",
         0},
        {"add without path", op::add, R"({"id":"t1","name":"n","cluster":"c1"})", ORBS3_WORKER_BAD_BODY},
        {"add without cluster", op::add, R"({"id":"t1","name":"n","path":"g"})", ORBS3_WORKER_BAD_BODY},
        {"add path absolute", op::add, R"({"id":"t1","name":"n","path":"/etc","cluster":"c1"})",
         ORBS3_WORKER_BAD_BODY},
        {"add path climbs", op::add, R"({"id":"t1","name":"n","path":"g/../../etc","cluster":"c1"})",
         ORBS3_WORKER_BAD_BODY},
        {"add path dot", op::add, R"({"id":"t1","name":"n","path":"g/./x","cluster":"c1"})",
         ORBS3_WORKER_BAD_BODY},
        {"add cluster with slash", op::add, R"({"id":"t1","name":"n","path":"g","cluster":"../c"})",
         ORBS3_WORKER_BAD_BODY},
        {"add path over cap", op::add, R"({"id":"t1","name":"n","cluster":"c","path":")" + kLongPath + "\"}",
         ORBS3_WORKER_BAD_BODY},
        {"add secret over cap", op::add,
         R"({"id":"t1","name":"n","path":"g","cluster":"c","accesskeysecret":")" + std::string(65, 's') + "\"}",
         ORBS3_WORKER_BAD_BODY},
        {"edit whole", op::edit, R"({"id":"t1","name":"n","domain":"b.example","meta":"x","chg":2})", 0},
        {"edit without name", op::edit, R"({"id":"t1","domain":"b.example"})", ORBS3_WORKER_BAD_BODY},
        {"edit chg not a number", op::edit, R"({"id":"t1","name":"n","chg":"2"})", ORBS3_WORKER_BAD_BODY},
        {"delete", op::del, R"({"id":"t1","name":"n"})", 0},
        {"delete without id", op::del, R"({"name":"n"})", ORBS3_WORKER_BAD_BODY},
        {"delete id with slash", op::del, R"({"id":"a/b"})", ORBS3_WORKER_BAD_BODY},
        {"delete id dot dot", op::del, R"({"id":".."})", ORBS3_WORKER_BAD_BODY},
        {"delete id empty", op::del, R"({"id":""})", ORBS3_WORKER_BAD_BODY},
        {"get id with NUL", op::get, R"({"id":"a\u0000b"})", ORBS3_WORKER_BAD_BODY},
        {"get id over cap", op::get, "{\"id\":\"" + kLong257 + "\"}", ORBS3_WORKER_BAD_BODY},
        {"get id at cap", op::get, "{\"id\":\"" + std::string(256, 'a') + "\"}", 0},
        {"get id a number", op::get, R"({"id":7})", ORBS3_WORKER_BAD_BODY},
        {"not json", op::get, "id=t1", ORBS3_WORKER_BAD_BODY},
        {"json then garbage", op::get, R"({"id":"t1"}xx)", ORBS3_WORKER_BAD_BODY},
        {"an array", op::get, R"(["t1"])", ORBS3_WORKER_BAD_BODY},
        {"empty body", op::get, "", ORBS3_WORKER_BAD_BODY},
    };
    for (const body_case& c : cases) {
        orbs3_worker_vhost_req_t req;
        EXPECT_EQ(orbs3_worker_parse_body(c.o, c.body, &req), c.want) << c.what;
    }
}

TEST(WorkerCtrlBody, FieldsLandWhereTheyBelong)
{
    orbs3_worker_vhost_req_t req;
    ASSERT_EQ(orbs3_worker_parse_body(op::add,
                                      R"({"id":"t1","name":"n","path":"g/t1","cluster":"c1","tiered":"t",)"
                                      R"("domain":"d","accesskeyid":"AK","accesskeysecret":"SK","cert":""})",
                                      &req),
              0u);
    EXPECT_EQ(req.id, "t1");
    EXPECT_EQ(req.path, "g/t1");
    EXPECT_EQ(req.cluster, "c1");
    EXPECT_EQ(req.tiered, "t");
    EXPECT_EQ(req.domain, "d");
    EXPECT_EQ(req.accesskeyid, "AK");
    EXPECT_EQ(req.accesskeysecret, "SK");
    EXPECT_TRUE(req.has_cert);
    EXPECT_FALSE(req.has_key);

    // A request parsed earlier leaves nothing behind.
    ASSERT_EQ(orbs3_worker_parse_body(op::edit, R"({"id":"t1","name":"m","chg":3})", &req), 0u);
    EXPECT_EQ(req.name, "m");
    EXPECT_EQ(req.chg, 3);
    EXPECT_TRUE(req.domain.empty());
    EXPECT_FALSE(req.has_cert);
}

}  // namespace
