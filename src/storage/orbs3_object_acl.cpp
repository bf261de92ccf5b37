#include "storage/orbs3_object_acl.h"

#include <cstdio>
#include <string_view>

#include "access/orbs3_access_check.h"
#include "http/orbs3_http_request_body.h"
#include "http/orbs3_http_response.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_acl.h"
#include "s3/orbs3_s3_documents.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object.h"
#include "storage/orbs3_object_commit.h"
#include "storage/orbs3_object_read.h"
#include "storage/orbs3_object_store.h"
#include "storage/orbs3_record.h"
#include "versions/orbs3_version_name.h"

namespace {

// The record of the content a request names: the live object's, a directory object's marker, or the
// record of version `version`; `data` is the live data path whose directory holds the key's commit lock.
int record_place(const orbs3_bucket_t* bucket, std::string_view key, std::string_view version,
                 char record[ORBS3_PATH_AREA], char data[ORBS3_PATH_AREA])
{
    orbs3_object_path_t path;
    if (orbs3_make_object_path(bucket, key, "", &path) != 0)
        return ORBS3_S3_KEY_TOO_LONG;
    std::snprintf(data, ORBS3_PATH_AREA, "%s", path.data_path);
    if (!version.empty()) {
        orbs3_version_ref_t ref;
        if (int rc = orbs3_version_find(bucket, key, version, &ref); rc != 0)
            return rc;
        if (ref.delete_marker)
            return ORBS3_S3_METHOD_NOT_ALLOWED;
        std::snprintf(record, ORBS3_PATH_AREA, "%s", ref.file.record);
        return 0;
    }
    if (key.back() == '/')
        return orbs3_object_dir_marker_path(path.meta_path, record) == 0 ? 0 : ORBS3_S3_KEY_TOO_LONG;
    std::snprintf(record, ORBS3_PATH_AREA, "%s", path.meta_path);
    return 0;
}

int missing(std::string_view version)
{
    return version.empty() ? ORBS3_S3_NO_SUCH_KEY : ORBS3_S3_NO_SUCH_VERSION;
}

}  // namespace

int orbs3_get_object_acl(orbs3_http_request_t* r)
{
    orbs3_bucket_ptr bucket;
    std::string_view key, version;
    int rc = orbs3_object_request_version(r, ORBS3_ACCESS_READ, &bucket, &key, &version);
    if (rc != 0)
        return rc;
    char record[ORBS3_PATH_AREA], data[ORBS3_PATH_AREA];
    if (rc = record_place(bucket.get(), key, version, record, data); rc != 0)
        return rc;
    orbs3_object_ptr rec(orbs3_create_object_from_file(record));
    if (!rec)
        return missing(version);
    neo_cstr_ptr doc(
        make_acl_xmlstring(rec->acl, orbs3_str_view(rec->owner_id), orbs3_str_view(rec->owner_display_name)));
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
    char record[ORBS3_PATH_AREA], data[ORBS3_PATH_AREA];
    if (rc = record_place(bucket.get(), key, version, record, data); rc != 0)
        return rc;
    // Read and rewritten under the key's commit lock, so that a PUT committing meanwhile is not undone by
    // the old record; the content must still be the one the request named.
    orbs3_commit_lock_t lock;
    if (orbs3_commit_lock(data, &lock) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    orbs3_object_ptr rec(orbs3_create_object_from_file(record));
    if (!rec || (!version.empty() && orbs3_object_version_id(rec.get()) != version))
        return missing(version);
    rec->acl = acl;
    if (orbs3_save_object(rec.get(), record) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    return orbs3_http_send_put_bucket_acl_msg(r->connection, 200, r->resp.connection, r->resp.origin) == 0 ? 0 : -1;
}
