#include "storage/orbs3_version_handlers.h"

#include <cstdio>
#include <string_view>

#include "access/orbs3_access_check.h"
#include "core/orbs3_tenant.h"
#include "http/orbs3_http_response.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_documents.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_bucket_store.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object.h"
#include "storage/orbs3_object_read.h"
#include "storage/orbs3_record.h"
#include "versions/orbs3_version_actions.h"
#include "versions/orbs3_version_name.h"

namespace {

int replied(int rc)
{
    return rc == 0 ? 0 : -1;
}

// A restore or a move answers as a PUT of the object does, with no ETag to tell.
int reply_done(orbs3_http_request_t* r)
{
    return replied(orbs3_http_send_put_object_msg(r->connection, 200, "", r->resp.connection, r->resp.origin));
}

// The bucket and stamped key of an object request, its access chain run for `code`; then `act`.
template <typename Act>
int on_stamped_key(orbs3_http_request_t* r, int code, Act act)
{
    orbs3_bucket_t* raw = nullptr;
    std::string_view key;
    if (int rc = orbs3_object_request_bucket(r, code, &raw, &key); rc != 0)
        return rc;
    orbs3_bucket_ptr bucket(raw);
    return act(bucket.get(), key);
}

}  // namespace

int orbs3_object_version_restore_msg(orbs3_http_request_t* r)
{
    return on_stamped_key(r, ORBS3_ACCESS_WRITE, [r](const orbs3_bucket_t* bucket, std::string_view key) {
        const int rc = orbs3_restore_version(r->vhost, bucket, key);
        return rc != 0 ? rc : reply_done(r);
    });
}

int orbs3_object_recycle_restore_msg(orbs3_http_request_t* r)
{
    return on_stamped_key(r, ORBS3_ACCESS_WRITE, [r](const orbs3_bucket_t* bucket, std::string_view key) {
        const int rc = orbs3_restore_recycled(r->vhost, bucket, key);
        return rc != 0 ? rc : reply_done(r);
    });
}

int orbs3_object_version_del_msg(orbs3_http_request_t* r)
{
    return on_stamped_key(r, ORBS3_ACCESS_WRITE, [r](const orbs3_bucket_t* bucket, std::string_view key) {
        const int rc = orbs3_delete_version(bucket, key);
        return rc != 0 ? rc : reply_done(r);
    });
}

int orbs3_delete_bucket_recycle_msg(orbs3_http_request_t* r)
{
    auto done = [r] {
        return replied(orbs3_http_send_del_object_msg(r->connection, 200, r->resp.connection, r->resp.origin));
    };
    const std::string_view name = orbs3_str_view(r->req_msg.bucket);
    if (!orbs3_str_view(r->req_msg.object).empty()) {
        return on_stamped_key(r, ORBS3_ACCESS_DELETE, [&done](const orbs3_bucket_t* bucket, std::string_view key) {
            const int rc = orbs3_purge_recycled(bucket, key);
            return rc != 0 ? rc : done();
        });
    }
    // On the bucket itself nothing is named, and nothing is removed.
    std::snprintf(r->resp.resource, sizeof r->resp.resource, "%.*s", static_cast<int>(name.size()),
                  name.empty() ? "" : name.data());
    if (name.empty() || orbs3_check_bucketname(name) != 0)
        return ORBS3_S3_INVALID_BUCKET_NAME;
    orbs3_bucket_t* raw = nullptr;
    if (int rc = orbs3_object_access_bucket(r, name, ORBS3_ACCESS_DELETE, &raw); rc != 0)
        return rc;
    orbs3_bucket_ptr bucket(raw);
    return done();
}

int orbs3_object_version_list_msg(orbs3_http_request_t* r)
{
    return on_stamped_key(r, ORBS3_ACCESS_READ, [r](const orbs3_bucket_t* bucket, std::string_view key) {
        orbs3_object_path_t path;
        if (orbs3_make_object_path(bucket, key, "", &path) != 0)
            return ORBS3_S3_KEY_TOO_LONG;
        orbs3_object_ptr rec(orbs3_create_object_from_file(path.meta_path));
        // Only the live object is told of; without its record there is nothing to tell.
        if (!rec)
            return ORBS3_VERSION_NOT_THERE;
        const std::string_view recorded = orbs3_str_view(rec->name);
        neo_cstr_ptr doc(make_object_version_xml(recorded.empty() ? key : recorded, key, rec->size,
                                                 orbs3_str_view(rec->last_modified)));
        if (!doc)
            return ORBS3_S3_INTERNAL_ERROR;
        return replied(
            orbs3_http_send_list_objects_msg(r->connection, 200, doc.get(), r->resp.connection, r->resp.origin));
    });
}
