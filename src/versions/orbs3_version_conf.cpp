#include "versions/orbs3_version_conf.h"

#include <cstdio>
#include <string>
#include <string_view>

#include "access/orbs3_access_check.h"
#include "core/orbs3_log.h"
#include "http/orbs3_http_request_body.h"
#include "http/orbs3_http_response.h"
#include "memory/neo_files.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_documents.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_bucket_ops.h"
#include "storage/orbs3_bucket_store.h"
#include "storage/orbs3_layout.h"

namespace {

int fail(orbs3_http_request_t* r, int status)
{
    const orbs3_str_t& b = r->req_msg.bucket;
    std::snprintf(r->resp.resource, sizeof r->resp.resource, "%.*s", static_cast<int>(b.len),
                  b.data != nullptr ? b.data : "");
    return status;
}

int replied(int rc)
{
    return rc == 0 ? 0 : -1;
}

// The request's bucket once the requester holds `access` on it along the whole chain.
int setting_bucket(orbs3_http_request_t* r, int access, orbs3_bucket_ptr* out)
{
    orbs3_bucket_t* raw = nullptr;
    const int rc = orbs3_request_bucket(r, &access, nullptr, orbs3_access_chain_t::full, &raw);
    out->reset(raw);
    return rc;
}

// The body of a settings PUT: 0 with *doc set, or the status that answers it.
int setting_body(orbs3_http_request_t* r, const char** doc)
{
    *doc = orbs3_http_body_document(r);
    if (*doc == nullptr)
        return fail(r, ORBS3_S3_INTERNAL_ERROR);
    if ((*doc)[0] == '\0')
        return fail(r, ORBS3_S3_MISSING_REQUEST_BODY);
    return 0;
}

// The settings PUTs answer a bare 200, as PutBucketAcl does.
int reply_ok(orbs3_http_request_t* r)
{
    return replied(orbs3_http_send_put_bucket_acl_msg(r->connection, 200, r->resp.connection, r->resp.origin));
}

int reply_doc(orbs3_http_request_t* r, const char* doc)
{
    if (doc == nullptr)
        return fail(r, ORBS3_S3_INTERNAL_ERROR);
    return replied(orbs3_http_send_get_bucket_acl_msg(r->connection, 200, doc, r->resp.connection, r->resp.origin));
}

}  // namespace

int orbs3_put_bucket_versioning(orbs3_http_request_t* r)
{
    orbs3_bucket_ptr b;
    if (int rc = setting_bucket(r, ORBS3_ACCESS_VERSION, &b); rc != 0)
        return rc;
    const char* body = nullptr;
    if (int rc = setting_body(r, &body); rc != 0)
        return rc;
    orbs3_versioning_doc_t want;
    if (parse_bucket_versioning_xmlstring(body, &want) != 0)
        return fail(r, ORBS3_S3_MALFORMED_XML);
    // A bucket whose versioning was never set is status 0 with save_num 0. Suspending with SaveNum 0 keeps
    // no version either, as any number below 1 does, and is stored as -1 so the bucket still reads as one
    // whose versioning was set: its versions keep their ids in replies.
    if (want.status == 0 && want.save_num == 0)
        want.save_num = -1;
    if (want.status == 1 && neo_mkdir_p(neo_getstr(&b->version_dir), ORBS3_DIR_MODE) != 0) {
        ipd_log(LOG_ERR, "version directory %s not made", neo_getstr(&b->version_dir));
        return fail(r, ORBS3_S3_INTERNAL_ERROR);
    }
    if (orbs3_bucket_update(neo_getstr(&b->meta_file), [&want](orbs3_bucket_t* fresh) {
            fresh->versioning.status = want.status;
            fresh->versioning.save_num = want.save_num;
            return 0;
        }) != 0)
        return fail(r, ORBS3_S3_INTERNAL_ERROR);
    return reply_ok(r);
}

int orbs3_get_bucket_versioning(orbs3_http_request_t* r)
{
    orbs3_bucket_ptr b;
    if (int rc = setting_bucket(r, ORBS3_ACCESS_VERSION, &b); rc != 0)
        return rc;
    const std::string doc = make_bucket_versioning_xmlstring(b->versioning.status, b->versioning.save_num);
    return reply_doc(r, doc.c_str());
}

int orbs3_put_bucket_recycle_conf(orbs3_http_request_t* r)
{
    orbs3_bucket_ptr b;
    if (int rc = setting_bucket(r, ORBS3_ACCESS_RECYCLE, &b); rc != 0)
        return rc;
    const char* body = nullptr;
    if (int rc = setting_body(r, &body); rc != 0)
        return rc;
    int32_t days = 0;
    if (parse_bucket_recycle_conf_xmlstring(body, &days) != 0)
        return fail(r, ORBS3_S3_MALFORMED_XML);
    if (orbs3_bucket_update(neo_getstr(&b->meta_file), [days](orbs3_bucket_t* fresh) {
            fresh->recycle_days = days;
            return 0;
        }) != 0)
        return fail(r, ORBS3_S3_INTERNAL_ERROR);
    return reply_ok(r);
}

int orbs3_get_bucket_recycle_conf(orbs3_http_request_t* r)
{
    orbs3_bucket_ptr b;
    if (int rc = setting_bucket(r, ORBS3_ACCESS_RECYCLE, &b); rc != 0)
        return rc;
    neo_cstr_ptr doc(make_bucket_recycle_conf_xmlstring(b->recycle_days));
    return reply_doc(r, doc.get());
}
