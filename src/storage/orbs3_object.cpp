#include "storage/orbs3_object.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "access/orbs3_access_check.h"
#include "core/orbs3_tenant.h"
#include "core/orbs3_config.h"
#include "core/orbs3_log.h"
#include "memory/neo_files.h"
#include "memory/neo_md5.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_acl.h"
#include "s3/orbs3_s3_errors.h"
#include "http/orbs3_http_header.h"
#include "storage/orbs3_bucket_store.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object_commit.h"
#include "storage/orbs3_object_tagging.h"
#include "storage/orbs3_record.h"
#include "s3/orbs3_s3_signature.h"
#include "versions/orbs3_object_version.h"

namespace {

// "<bucket>/<key>", or "<bucket>" for an empty key, cut to the area: it only names what was asked for.
void set_resource(orbs3_http_request_t* r, std::string_view bucket, std::string_view key)
{
    std::string_view parts[] = {bucket, key.empty() ? "" : "/", key};
    std::size_t len = 0;
    for (std::string_view p : parts) {
        std::size_t n = std::min(p.size(), sizeof r->resp.resource - 1 - len);
        if (n != 0)
            std::memcpy(r->resp.resource + len, p.data(), n);
        len += n;
    }
    r->resp.resource[len] = '\0';
}

}  // namespace

int orbs3_anonymous_bucket_status(const orbs3_bucket_t* bucket, int code)
{
    switch (code) {
    case ORBS3_ACCESS_LIST: return (bucket->acl & ORBS3_ACL_ALL_USERS_READ) != 0 ? 0 : ORBS3_S3_ACCESS_DENIED;
    case ORBS3_ACCESS_WRITE: return (bucket->acl & ORBS3_ACL_ALL_USERS_WRITE) != 0 ? 0 : ORBS3_S3_ACCESS_DENIED;
    case ORBS3_ACCESS_READ: return 0;
    default: return ORBS3_S3_ACCESS_DENIED;
    }
}

int orbs3_anonymous_object_status(const orbs3_bucket_t* bucket, const orbs3_object_t* record, int open_status)
{
    if (open_status == ORBS3_S3_NO_SUCH_KEY || open_status == ORBS3_S3_NO_SUCH_VERSION)
        return (bucket->acl & ORBS3_ACL_ALL_USERS_READ) != 0 ? open_status : ORBS3_S3_ACCESS_DENIED;
    if (open_status != 0)
        return open_status;
    return record != nullptr && (record->acl & ORBS3_ACL_ALL_USERS_READ) != 0 ? 0 : ORBS3_S3_ACCESS_DENIED;
}

const orbs3_user_t* orbs3_object_writer(const orbs3_http_request_t* r, const orbs3_bucket_t* bucket,
                                        orbs3_user_t* stand_in)
{
    if (r->user != nullptr)
        return r->user;
    *stand_in = orbs3_user_t{};
    stand_in->UserId = bucket->owner_id;
    stand_in->DisPlayName = bucket->owner_name;
    return stand_in;
}

int orbs3_object_access_bucket(orbs3_http_request_t* r, std::string_view name, int object_code, orbs3_bucket_t** out)
{
    *out = nullptr;
    orbs3_bucket_t* b = orbs3_get_bucket(r->vhost, r->user, name);
    if (b == nullptr)
        return ORBS3_S3_NO_SUCH_BUCKET;
    if (orbs3_access_check_chain(r->vhost, r->user, b, r->connection->peer, nullptr, &object_code,
                                 orbs3_access_chain_t::full) != 0 ||
        (r->user == nullptr && orbs3_anonymous_bucket_status(b, object_code) != 0)) {
        orbs3_free_bucket(b);
        std::snprintf(r->resp.resource, sizeof r->resp.resource, "/");
        return ORBS3_S3_ACCESS_DENIED;
    }
    if (orbs3_bucket_init_path(r->vhost, r->user, b, name) != 0) {
        orbs3_free_bucket(b);
        return ORBS3_S3_INTERNAL_ERROR;
    }
    *out = b;
    return 0;
}

int orbs3_object_request_bucket(orbs3_http_request_t* r, int object_code, orbs3_bucket_t** out, std::string_view* key)
{
    *out = nullptr;
    const std::string_view bucket = orbs3_str_view(r->req_msg.bucket);
    *key = orbs3_str_view(r->req_msg.object);
    set_resource(r, bucket, *key);
    if (bucket.empty())
        return ORBS3_S3_INVALID_BUCKET_NAME;
    if (key->empty())
        return ORBS3_S3_INVALID_ARGUMENT;
    if (orbs3_check_bucketname(bucket) != 0)
        return ORBS3_S3_INVALID_BUCKET_NAME;
    if (int st = orbs3_object_key_status(*key, &r->resp.message); st != 0) {
        // An error document can't carry what a listing can't: such a key is left out of it.
        if (!orbs3_object_key_printable(*key))
            set_resource(r, bucket, {});
        return st;
    }
    orbs3_bucket_t* b = nullptr;
    if (int st = orbs3_object_access_bucket(r, bucket, object_code, &b); st != 0)
        return st;
    // A write makes the key's paths and names beside them: a key whose paths would not fit is refused
    // before anything is made, whichever write it is.
    if (object_code == ORBS3_ACCESS_WRITE &&
        (!orbs3_object_key_fits(b, *key) || orbs3_object_versionable(b, *key) != 0)) {
        orbs3_free_bucket(b);
        return ORBS3_S3_KEY_TOO_LONG;
    }
    *out = b;
    return 0;
}

orbs3_conditional_t orbs3_object_conditions(orbs3_http_request_t* r, std::string_view prefix)
{
    orbs3_conditional_t c{};
    const struct {
        std::string_view name;
        std::string_view* value;
    } rows[] = {{"if-match", &c.if_match},
                {"if-none-match", &c.if_none_match},
                {"if-modified-since", &c.if_modified_since},
                {"if-unmodified-since", &c.if_unmodified_since}};
    char name[48];
    for (const auto& row : rows) {
        std::snprintf(name, sizeof name, "%.*s%.*s", static_cast<int>(prefix.size()), prefix.data(),
                      static_cast<int>(row.name.size()), row.name.data());
        std::string_view v;
        if (orbs3_http_find_header(r, name, &v))
            *row.value = v;
    }
    return c;
}

int orbs3_object_acl_from_request(orbs3_http_request_t* r, uint32_t* acl, bool* given)
{
    orbs3_acl_headers_t h;
    (void)orbs3_http_find_header(r, "x-amz-acl", &h.canned);
    (void)orbs3_http_find_header(r, "x-amz-grant-read", &h.read);
    (void)orbs3_http_find_header(r, "x-amz-grant-write", &h.write);
    (void)orbs3_http_find_header(r, "x-amz-grant-read-acp", &h.read_acp);
    (void)orbs3_http_find_header(r, "x-amz-grant-write-acp", &h.write_acp);
    (void)orbs3_http_find_header(r, "x-amz-grant-full-control", &h.full_control);
    const int rc = orbs3_acl_from_headers(h, acl);
    *given = rc == 1;
    if (rc == -2)
        return ORBS3_S3_INVALID_REQUEST;
    if (rc < 0)
        return ORBS3_S3_INVALID_ARGUMENT;
    // What a writer without credentials puts into a public bucket belongs to the bucket's owner, who alone
    // decides who may read it: such a writer may hand it over, never publish it.
    if (r->user == nullptr && *given && *acl != ORBS3_ACL_FULL_CONTROL)
        return ORBS3_S3_ACCESS_DENIED;
    return 0;
}

int orbs3_object_meta_from_request(orbs3_http_request_t* r, orbs3_object_meta_t* meta)
{
    bool acl_given = false;
    if (int rc = orbs3_object_acl_from_request(r, &meta->acl, &acl_given); rc != 0)
        return rc;
    static constexpr std::string_view prefix = "x-amz-meta-";
    std::size_t total = 0;
    bool too_large = false;
    orbs3_http_for_each_header(r, [&](const orbs3_header_t& h) {
        if (h.lowcase_key == nullptr || too_large)
            return;
        const std::string_view name(h.lowcase_key, h.key.len);
        const std::string_view value = orbs3_http_trim(orbs3_str_view(h.value));
        std::string_view* standard = name == "content-type"          ? &meta->content_type
                                     : name == "cache-control"       ? &meta->cache_control
                                     : name == "content-disposition" ? &meta->content_disposition
                                     : name == "content-encoding"    ? &meta->content_encoding
                                     : name == "expires"             ? &meta->expires
                                                                     : nullptr;
        if (standard != nullptr) {
            if (value.size() > ORBS3_REC_HEADER_CAP)
                too_large = true;
            *standard = value;
            return;
        }
        if (!name.starts_with(prefix) || name.size() == prefix.size())
            return;
        total += name.size() - prefix.size() + value.size();
        if (total > ORBS3_REC_META_CAP || meta->n == ORBS3_OBJECT_META_MAX) {
            too_large = true;
            return;
        }
        meta->keys[meta->n] = name.substr(prefix.size());
        meta->values[meta->n] = value;
        meta->n++;
    });
    if (too_large)
        return ORBS3_S3_METADATA_TOO_LARGE;
    if (int rc = orbs3_object_tags_from_request(r, meta); rc != 0)
        return rc;
    // "aws-chunked" names the framing of this upload, not the content: it is not kept, whether a client
    // puts it before the content's own coding or behind it.
    std::string_view enc = meta->content_encoding;
    if (enc == "aws-chunked")
        enc = {};
    else if (enc.starts_with("aws-chunked,"))
        enc = orbs3_http_trim(enc.substr(12));
    else if (std::size_t at = enc.rfind(',');
             at != std::string_view::npos && orbs3_http_trim(enc.substr(at + 1)) == "aws-chunked")
        enc = orbs3_http_trim(enc.substr(0, at));
    meta->content_encoding = enc;
    // An object sent without a type is "binary/octet-stream", as S3 stores it; the record says so, and a
    // GET never has to guess from the name.
    if (meta->content_type.empty())
        meta->content_type = "binary/octet-stream";
    return 0;
}

bool orbs3_object_says_version(const orbs3_bucket_t* bucket, std::string_view id)
{
    return (!id.empty() && id != ORBS3_NULL_VERSION_ID) || orbs3_versioning_ever_set(bucket);
}

void orbs3_object_version_line(const orbs3_bucket_t* bucket, std::string_view id, std::string* lines)
{
    if (!orbs3_object_says_version(bucket, id))
        return;
    if (!lines->empty())
        lines->append("\r\n");
    lines->append("x-amz-version-id: ");
    lines->append(id.empty() ? ORBS3_NULL_VERSION_ID : id);
}

int orbs3_object_request_version(orbs3_http_request_t* r, int access, orbs3_bucket_ptr* bucket,
                                 std::string_view* key, std::string_view* id)
{
    orbs3_bucket_t* raw = nullptr;
    if (int rc = orbs3_object_request_bucket(r, access, &raw, key); rc != 0)
        return rc;
    bucket->reset(raw);
    return orbs3_object_version_param(r, id);
}

int orbs3_object_version_param(orbs3_http_request_t* r, std::string_view* id)
{
    *id = {};
    if (orbs3_str_view(r->args).find("versionId") == std::string_view::npos)
        return 0;
    orbs3_sign_query_t q;
    if (orbs3_sign_parse_query(r, &q) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    const orbs3_sign_param_t* p = orbs3_sign_query_find(&q, "versionId");
    if (p == nullptr)
        return 0;
    if (!orbs3_version_id_valid(p->value)) {
        r->resp.message = "Invalid version id specified";
        return ORBS3_S3_INVALID_ARGUMENT;
    }
    *id = p->value;
    return 0;
}
