#include "storage/orbs3_object_acl.h"

#include <string>
#include <string_view>

#include "access/orbs3_access_check.h"
#include "http/orbs3_http_request_body.h"
#include "http/orbs3_http_response.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_acl.h"
#include "s3/orbs3_s3_documents.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_object.h"
#include "storage/orbs3_object_change.h"

int orbs3_get_object_acl(orbs3_http_request_t* r)
{
    orbs3_bucket_ptr bucket;
    std::string_view key, version;
    int rc = orbs3_object_request_version(r, ORBS3_ACCESS_READ, &bucket, &key, &version);
    if (rc != 0)
        return rc;
    orbs3_object_target_t t;
    if (rc = orbs3_object_target_open(bucket.get(), key, version, &t); rc != 0)
        return rc;
    // Content kept from before records is private to the bucket's owner.
    const orbs3_object_t* rec = t.src.record.get();
    neo_cstr_ptr doc(rec != nullptr ? make_acl_xmlstring(rec->acl, orbs3_str_view(rec->owner_id),
                                                         orbs3_str_view(rec->owner_display_name))
                                    : make_acl_xmlstring(ORBS3_ACL_FULL_CONTROL, orbs3_str_view(bucket->owner_id),
                                                         orbs3_str_view(bucket->owner_name)));
    if (!doc)
        return ORBS3_S3_INTERNAL_ERROR;
    return orbs3_http_send_get_bucket_acl_msg(r->connection, 200, doc.get(), r->resp.connection, r->resp.origin) == 0
               ? 0
               : -1;
}

int orbs3_put_object_acl(orbs3_http_request_t* r)
{
    orbs3_bucket_ptr bucket;
    std::string_view key, version;
    int rc = orbs3_object_request_version(r, ORBS3_ACCESS_WRITE, &bucket, &key, &version);
    if (rc != 0)
        return rc;
    const char* body = orbs3_http_body_document(r);
    if (body == nullptr)
        return ORBS3_S3_INTERNAL_ERROR;
    uint32_t acl = 0;
    bool given = false;
    if (rc = orbs3_object_acl_from_request(r, &acl, &given); rc != 0)
        return rc;
    // The ACL comes in the headers or in the body, never both.
    if (given && *body != '\0')
        return ORBS3_S3_UNEXPECTED_CONTENT;
    if (!given && (parse_bucket_acl_xmlstring(body, &acl) != 0 || acl == 0))
        return *body == '\0' ? ORBS3_S3_MISSING_REQUEST_BODY : ORBS3_S3_MALFORMED_ACL_ERROR;
    std::string version_id;
    if (rc = orbs3_object_change_record(bucket.get(), key, version, {.set_acl = true, .acl = acl}, &version_id);
        rc != 0)
        return rc;
    return orbs3_http_send_put_bucket_acl_msg(r->connection, 200, r->resp.connection, r->resp.origin) == 0 ? 0 : -1;
}
