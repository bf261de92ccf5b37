#include <gtest/gtest.h>

#include "s3/orbs3_s3_acl.h"

namespace {

constexpr uint32_t FC = ORBS3_ACL_FULL_CONTROL;
constexpr uint32_t AR = ORBS3_ACL_ALL_USERS_READ;
constexpr uint32_t AW = ORBS3_ACL_ALL_USERS_WRITE;
constexpr uint32_t UR = ORBS3_ACL_AUTH_USERS_READ;
constexpr const char* ALL = "uri=\"http://acs.amazonaws.com/groups/global/AllUsers\"";
constexpr const char* AUTH = "uri=http://acs.amazonaws.com/groups/global/AuthenticatedUsers";

TEST(S3Acl, HeadersGiveTheMaskOrAreRefused)
{
    struct row {
        const char* what;
        orbs3_acl_headers_t h;
        int rc;
        uint32_t acl;
    } rows[] = {
        {"nothing", {}, 0, 0},
        {"private", {.canned = "private"}, 1, FC},
        {"public-read", {.canned = "public-read"}, 1, FC | AR},
        {"public-read-write", {.canned = "public-read-write"}, 1, FC | AR | AW},
        {"authenticated-read", {.canned = "authenticated-read"}, 1, FC | UR},
        {"bucket-owner-read", {.canned = "bucket-owner-read"}, 1, FC},
        {"bucket-owner-full-control", {.canned = "bucket-owner-full-control"}, 1, FC},
        {"unknown canned", {.canned = "public"}, -1, 0},
        {"canned is case-sensitive", {.canned = "Public-Read"}, -1, 0},
        {"canned beside a grant", {.canned = "private", .read = ALL}, -2, 0},
        {"group read", {.read = ALL}, 1, FC | AR},
        {"group write", {.write = ALL}, 1, FC | AW},
        {"authenticated read", {.read = AUTH}, 1, FC | UR},
        {"group full control", {.full_control = ALL}, 1, FC | AR | AW},
        {"group acp kept nowhere", {.read_acp = ALL}, 1, FC},
        {"user grants set permissions", {.read = "id=\"u1\"", .write_acp = "emailAddress=\"a@b.c\""}, 1,
         ORBS3_ACL_READ | ORBS3_ACL_WRITE_ACP},
        {"a list of grantees", {.read = "id=\"u1\", uri=\"http://acs.amazonaws.com/groups/global/AllUsers\""}, 1,
         ORBS3_ACL_READ | AR},
        {"quoted comma", {.read = "emailAddress=\"a,b@c\""}, 1, ORBS3_ACL_READ},
        {"unknown group", {.read = "uri=\"http://acs.amazonaws.com/groups/s3/LogDelivery\""}, -1, 0},
        {"unknown grantee type", {.read = "name=\"x\""}, -1, 0},
        {"no value", {.read = "id="}, -1, 0},
        {"no equals", {.read = "u1"}, -1, 0},
        {"open quote", {.read = "id=\"u1"}, -1, 0},
    };
    for (const row& r : rows) {
        uint32_t acl = 0;
        EXPECT_EQ(orbs3_acl_from_headers(r.h, &acl), r.rc) << r.what;
        EXPECT_EQ(acl, r.acl) << r.what;
    }
}

}  // namespace
