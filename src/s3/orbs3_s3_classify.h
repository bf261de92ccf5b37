// Request classification: from method, addressing style, query and the OrbAction and X-Copy-Source
// headers to r->req_msg: the S3 action name, bucket, object and the list parameters. A request that
// can't be classified keeps an unset action, and the engine answers it with the 403 page.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "http/orbs3_http_request.h"

struct cgiFormEntry;

// The listener's request handler. Fills r->req_msg; always 0, since `action` tells all.
int orbs3_parse_req_msg(orbs3_http_request_t* r);

// The part a partNumber value names: 1 .. 10000 written in decimal digits only (leading zeros allowed),
// else -1. Classification stores it in r->req_msg.part_number: 0 when the query has no partNumber, -1
// when it has one that names no part, so that every action taking a part number refuses the same values.
[[nodiscard]] int32_t orbs3_s3_part_number(std::string_view text);

// Sets r->req_msg.action to a copy of `name` in the request's pool. -1 for a null argument or when the
// pool is out of memory (the action stays as it was).
[[nodiscard]] int orbs3_action_handler(orbs3_http_request_t* r, const char* name);

// ---- parameter tables ----

// A row ties a key, as OrbAction value (any case) or as query key (exact), to an action. The end row has
// active 0 and stops every search.
struct orbs3_s3_param_t {
    char key[32];
    char action[32];
    int32_t active;
};

// Service tables are matched by OrbAction only, object tables by query key only, bucket tables by
// OrbAction first, then by query key. The first row found wins.
inline constexpr orbs3_s3_param_t orbs3_put_service_params[] = {
    {"serviceblacklist", "PutServiceBlacklist", 1},
    {"serviceblackliststatus", "PutServiceBlacklistStatus", 1},
    {"servicewhitelist", "PutServiceWhitelist", 1},
    {"servicewhiteliststatus", "PutServiceWhitelistStatus", 1},
    {"serviceauthorityip", "PutServiceAuthorityIp", 1},
    {"serviceauthorityipedit", "PutServiceAuthorityIpEdit", 1},
    {"serviceauthorityipstatus", "PutServiceAuthorityIpStatus", 1},
    {"serviceauthorityuser", "PutServiceAuthorityUser", 1},
    {"serviceauthorityuseredit", "PutServiceAuthorityUserEdit", 1},
    {"serviceauthorityuserstatus", "PutServiceAuthorityUserStatus", 1},
    {"putquota", "PutServiceQuota", 1},
    {"putversion", "PutServiceVersion", 1},
    {"putaccelerated", "PutServiceAccelerated", 1},
    {"putmigration", "PutServiceMigration", 1},
    {"putaccesskey", "PutServiceAccesskey", 1},
    {"putservicestsconf", "PutServiceSysConf", 1},
    {"putserviceuser", "PutServiceUser", 1},
    {"putserviceuseredit", "PutServiceUserEdit", 1},
    {"putserviceuserak", "PutServiceUserAk", 1},
    {"", "", 0},
};

inline constexpr orbs3_s3_param_t orbs3_get_service_params[] = {
    {"serviceblacklist", "GetServiceBlacklist", 1},
    {"serviceauthority", "GetServiceAuthority", 1},
    {"getquota", "GetServiceQuota", 1},
    {"getversion", "GetServiceVersion", 1},
    {"getaccelerated", "GetServiceAccelerated", 1},
    {"getaccesskey", "GetServiceAccesskey", 1},
    {"getakserviceauths", "GetAkServiceAuths", 1},
    {"getakserviceauth", "GetAkServiceAuth", 1},
    {"getservicestsconf", "GetServiceSysConf", 1},
    {"getakbucketauths", "GetBucketAuths", 1},
    {"getakbucketauth", "GetBucketAuth", 1},
    {"getuserserviceauths", "GetUserServiceAuths", 1},
    {"getuserbucketauths", "GetBucketAuths", 1},
    {"", "", 0},
};

inline constexpr orbs3_s3_param_t orbs3_delete_service_params[] = {
    {"deleteaccesskey", "DeleteServiceAccesskey", 1},
    {"serviceblacklist", "DeleteServiceBlacklist", 1},
    {"servicewhitelist", "DeleteServiceWhitelist", 1},
    {"serviceauthorityip", "DeleteServiceAuthorityIp", 1},
    {"serviceauthorityuser", "DeleteServiceAuthorityUser", 1},
    {"delserviceuser", "DeleteServiceUser", 1},
    {"delserviceuserak", "DeleteServiceUserAk", 1},
    {"", "", 0},
};

inline constexpr orbs3_s3_param_t orbs3_get_bucket_params[] = {
    {"acl", "GetBucketAcl", 1},
    {"lifecycle", "GetBucketLifeCycle", 1},
    {"versioning", "GetBucketVersioning", 1},
    {"versions", "GetBucketVersions", 1},
    {"quota", "GetBucketQuota", 1},
    {"recycle", "GetBucketRecycle", 1},
    {"bucketblacklist", "GetBucketBlacklist", 1},
    {"bucketauthority", "GetBucketAuthority", 1},
    {"getakbucketauths", "GetBucketAuths", 1},
    {"getakbucketauth", "GetBucketAuth", 1},
    {"bucketrecycleconf", "GetBucketRecycleConf", 1},
    {"bucketobjver", "GetBucketObjVer", 1},
    {"bucketlifecyclehistory", "GetBucketLifeCycleHistory", 1},
    {"uploads", "ListMultipartUploads", 1},
    {"location", "GetBucketLocation", 1},
    {"", "", 0},
};

inline constexpr orbs3_s3_param_t orbs3_put_bucket_params[] = {
    {"bucketblacklist", "PutBucketBlacklist", 1},
    {"bucketblackliststatus", "PutBucketBlacklistStatus", 1},
    {"bucketwhitelist", "PutBucketWhitelist", 1},
    {"bucketwhiteliststatus", "PutBucketWhitelistStatus", 1},
    {"bucketauthorityip", "PutBucketAuthorityIp", 1},
    {"bucketauthorityipedit", "PutBucketAuthorityIpEdit", 1},
    {"bucketauthorityipstatus", "PutBucketAuthorityIpStatus", 1},
    {"bucketauthorityuser", "PutBucketAuthorityUser", 1},
    {"bucketauthorityuseredit", "PutBucketAuthorityUserEdit", 1},
    {"bucketauthorityuserstatus", "PutBucketAuthorityUserStatus", 1},
    {"bucketlifecycle", "PutBucketVorneLifecycle", 1},
    {"bucketlifecycleedit", "PutBucketVorneLifecycleEdit", 1},
    {"accesskey", "PutAccessKey", 1},
    {"lifecycle", "PutBucketLifeCycle", 1},
    {"acl", "PutBucketAcl", 1},
    {"versioning", "PutBucketVersioning", 1},
    {"quota", "PutBucketQuota", 1},
    {"recycle", "PutBucketRecycle", 1},
    {"bucketrecycleconf", "PutBucketRecycleConf", 1},
    {"migration", "PutBucketMigration", 1},
    {"", "", 0},
};

inline constexpr orbs3_s3_param_t orbs3_delete_bucket_params[] = {
    {"bucketblacklist", "DeleteBucketBlacklist", 1},
    {"bucketwhitelist", "DeleteBucketWhitelist", 1},
    {"bucketauthorityip", "DeleteBucketAuthorityIp", 1},
    {"bucketauthorityuser", "DeleteBucketAuthorityUser", 1},
    {"bucketlifecycle", "DeleteBucketVorneLifecycle", 1},
    {"lifecycle", "DeleteBucketLifeCycle", 1},
    {"recycle", "DeleteBucketRecycle", 1},
    {"", "", 0},
};

inline constexpr orbs3_s3_param_t orbs3_get_object_params[] = {
    {"acl", "GetObjectAcl", 1},
    {"tagging", "GetObjectTagging", 1},
    {"objectversion", "GetObjectVersion", 1},
    {"", "", 0},
};

inline constexpr orbs3_s3_param_t orbs3_put_object_params[] = {
    {"acl", "PutObjectAcl", 1},
    {"tagging", "PutObjectTagging", 1},
    {"objectversion", "PutObjectVersionRestore", 1},
    {"recycle", "PutBucketRecycle", 1},
    {"", "", 0},
};

inline constexpr orbs3_s3_param_t orbs3_delete_object_params[] = {
    {"tagging", "DeleteObjectTagging", 1},
    {"objectversion", "DeleteObjectVersion", 1},
    {"vorne", "DeleteObjectVorne", 1},
    {"recycle", "DeleteBucketRecycle", 1},
    {"", "", 0},
};

// ---- query keys read into req_msg ----

struct orbs3_form_t;
// Reads row->key from the form into the field at row->offset of r->req_msg. 0, or -1 when the pool is
// out of memory.
using orbs3_form_handler_pt = int (*)(orbs3_http_request_t* r, const cgiFormEntry* form, const orbs3_form_t* row);

struct orbs3_form_t {
    std::size_t key_len;
    const char* key;
    std::size_t offset;  // in orbs3_req_msg_t
    orbs3_form_handler_pt handler;
};

// Every row runs for each classified request (except a path-style POST); a key that is missing, empty or
// of 1024 bytes or more leaves the field at its default. Ends in a row of zeros.
extern const orbs3_form_t orbs3_form_list[];
