#include "event/orbs3_fd.h"
#include "storage/orbs3_object_copy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>

#include "access/orbs3_access_check.h"
#include "core/orbs3_tenant.h"
#include "core/orbs3_log.h"
#include "http/orbs3_http_conditional.h"
#include "http/orbs3_http_response.h"
#include "memory/neo_md5.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_documents.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_bucket_store.h"
#include "storage/orbs3_file_helpers.h"
#include "storage/orbs3_record.h"
#include "http/orbs3_http_header.h"
#include "s3/orbs3_s3_signature.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object.h"
#include "storage/orbs3_object_read.h"
#include "storage/orbs3_object_tagging.h"
#include "storage/orbs3_object_write.h"
#include "versions/orbs3_object_version.h"

namespace {

bool is_hex(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// A "%" that does not start an escape would be dropped by the decoder and name another key than the
// client meant: such a source is refused instead.
bool escapes_well_formed(std::string_view text)
{
    for (std::size_t i = 0; i < text.size(); i++) {
        if (text[i] != '%')
            continue;
        if (i + 2 >= text.size() || !is_hex(text[i + 1]) || !is_hex(text[i + 2]))
            return false;
        i += 2;
    }
    return true;
}

}  // namespace

int orbs3_parse_copy_source(orbs3_http_request_t* r, orbs3_pool_t* pool, orbs3_str_t* bucket, orbs3_str_t* key,
                            std::string_view* version_id)
{
    static constexpr std::string_view kVersion = "?versionId=";
    if (version_id != nullptr)
        *version_id = {};
    std::string_view source;
    if (!orbs3_http_find_header(r, "x-amz-copy-source", &source) &&
        !orbs3_http_find_header(r, "x-copy-source", &source))
        return ORBS3_S3_INVALID_ARGUMENT;
    if (source.starts_with('/'))
        source.remove_prefix(1);
    // The version suffix is cut before decoding: a "?" that belongs to the key arrives as %3F. An id holds
    // nothing that needs decoding.
    if (std::size_t q = source.find(kVersion); q != std::string_view::npos) {
        const std::string_view id = source.substr(q + kVersion.size());
        if (!orbs3_version_id_valid(id)) {
            r->resp.message = "Invalid version id specified";
            return ORBS3_S3_INVALID_ARGUMENT;
        }
        if (version_id != nullptr)
            *version_id = id;
        source = source.substr(0, q);
    }
    if (source.empty() || !escapes_well_formed(source))
        return ORBS3_S3_INVALID_ARGUMENT;

    auto* text = static_cast<char*>(orbs3_pnalloc(pool, source.size() + 1));
    if (text == nullptr)
        return ORBS3_S3_INTERNAL_ERROR;
    std::memcpy(text, source.data(), source.size());
    const std::size_t len = orbs3_uri_decode(text, source.size());
    text[len] = '\0';

    // Bucket names hold no "/", so the first one of the decoded text ends the bucket whether the client
    // sent it plain or as %2F.
    const std::string_view decoded(text, len);
    const std::size_t slash = decoded.find('/');
    if (slash == std::string_view::npos || slash == 0 || slash + 1 == decoded.size())
        return ORBS3_S3_INVALID_ARGUMENT;
    const std::string_view b = decoded.substr(0, slash);
    const std::string_view k = decoded.substr(slash + 1);
    if (orbs3_check_bucketname(b) != 0)
        return ORBS3_S3_INVALID_ARGUMENT;
    if (int st = orbs3_object_key_status(k); st != 0)
        return st;
    if (orbs3_pstr_set(pool, bucket, b.data(), b.size()) != 0 || orbs3_pstr_set(pool, key, k.data(), k.size()) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    return 0;
}

int orbs3_open_copy_source(orbs3_http_request_t* r, const orbs3_bucket_t* bucket, std::string_view key,
                           std::string_view version_id, orbs3_object_source_t* src)
{
    if (version_id.empty())
        return orbs3_object_open(bucket, key, src);
    const int rc = orbs3_object_open_version(bucket, key, version_id, src);
    if (rc == ORBS3_S3_METHOD_NOT_ALLOWED) {
        r->resp.message = "The source of a copy request may not specifically refer to a delete marker by version id.";
        return ORBS3_S3_INVALID_REQUEST;
    }
    return rc;
}

// ---- CopyObject ----

namespace {

// The copy's tags, apart from its metadata: the source's (x-amz-tagging-directive COPY or absent) or
// those of the request's x-amz-tagging (REPLACE; none without it). 0 or a status.
int copy_tags(orbs3_http_request_t* r, const orbs3_object_t* rec, orbs3_object_meta_t* meta)
{
    std::string_view directive;
    const bool replace = orbs3_http_find_header(r, "x-amz-tagging-directive", &directive) &&
                         orbs3_http_iequals(directive, "REPLACE");
    if (!directive.empty() && !replace && !orbs3_http_iequals(directive, "COPY"))
        return ORBS3_S3_INVALID_ARGUMENT;
    if (replace)
        return orbs3_object_tags_from_request(r, meta);
    meta->ntags = 0;
    if (rec != nullptr)
        orbs3_object_tags_from_record(rec, meta);
    return 0;
}

// The copy's metadata: the source's (x-amz-metadata-directive COPY or absent) or the request's
// (REPLACE), whose content checksum stays the source's, true whatever else is replaced. A copy onto
// itself must replace it. 0 or a status.
int copy_meta(orbs3_http_request_t* r, const orbs3_object_t* rec, bool onto_itself, orbs3_object_meta_t* meta)
{
    std::string_view directive;
    const bool replace = orbs3_http_find_header(r, "x-amz-metadata-directive", &directive) &&
                         orbs3_http_iequals(directive, "REPLACE");
    if (!directive.empty() && !replace && !orbs3_http_iequals(directive, "COPY"))
        return ORBS3_S3_INVALID_ARGUMENT;
    if (onto_itself && !replace) {
        r->resp.message = "This copy request is illegal because it is trying to copy an object to itself without "
                          "changing the object's metadata, storage class, website redirect location or encryption "
                          "attributes.";
        return ORBS3_S3_INVALID_REQUEST;
    }
    if (!replace) {
        if (rec != nullptr)
            orbs3_object_meta_from_record(rec, meta, true);
        // A copy never takes the source's ACL: the request's, or private.
        bool given = false;
        meta->acl = ORBS3_ACL_FULL_CONTROL;
        if (int rc = orbs3_object_acl_from_request(r, &meta->acl, &given); rc != 0)
            return rc;
    } else {
        if (int rc = orbs3_object_meta_from_request(r, meta); rc != 0)
            return rc;
        if (rec != nullptr) {
            meta->checksum_algorithm = orbs3_str_view(rec->checksum_algorithm);
            meta->checksum = orbs3_str_view(rec->checksum);
        }
    }
    return copy_tags(r, rec, meta);
}

// The destination may take an object of `size` bytes under `key`. 0 or a status.
int destination_admits(orbs3_http_request_t* r, const orbs3_bucket_t* dst, std::string_view key, int64_t size)
{
    if (orbs3_check_object_size(r->vhost, dst, size) != 0)
        return ORBS3_S3_ENTITY_TOO_LARGE;
    const int rc = orbs3_check_key_conflict(dst, key);
    if (rc == ORBS3_KEY_CONFLICT_FILE || rc == ORBS3_KEY_CONFLICT_DIR)
        return ORBS3_S3_KEY_CONFLICT;
    return rc != 0 ? ORBS3_S3_INTERNAL_ERROR : 0;
}

}  // namespace

int orbs3_copy_object(orbs3_http_request_t* r)
{
    orbs3_str_t src_name{}, src_key{};
    std::string_view src_version;
    orbs3_bucket_t* raw = nullptr;
    std::string_view key;
    int rc = orbs3_object_request_bucket(r, ORBS3_ACCESS_WRITE, &raw, &key);
    if (rc != 0)
        return rc;
    orbs3_bucket_ptr dst(raw), src_bucket;
    if ((rc = orbs3_parse_copy_source(r, r->pool, &src_name, &src_key, &src_version)) != 0)
        return rc;
    // A directory key holds no bytes to copy, and a copy makes no directory objects.
    if (key.back() == '/')
        return ORBS3_S3_INVALID_ARGUMENT;
    const std::string_view skey = orbs3_str_view(src_key);
    if (skey.back() == '/')
        return ORBS3_S3_NO_SUCH_KEY;
    if ((rc = orbs3_object_access_bucket(r, orbs3_str_view(src_name), ORBS3_ACCESS_COPY, &raw)) != 0)
        return rc;
    src_bucket.reset(raw);
    orbs3_object_source_t src;
    orbs3_object_path_t to;
    if ((rc = orbs3_open_copy_source(r, src_bucket.get(), skey, src_version, &src)) != 0)
        return rc;
    if (orbs3_make_object_path(dst.get(), key, "", &to) != 0)
        return ORBS3_S3_KEY_TOO_LONG;
    // A copy has nothing to answer "not modified" with: every unmet condition fails alike.
    const orbs3_conditional_t cond = orbs3_object_conditions(r, "x-amz-copy-source-");
    if (orbs3_http_conditional_result(&cond, src.etag, src.mtime) != ORBS3_CONDITIONAL_PROCEED)
        return ORBS3_S3_PRECONDITION_FAILED;
    // The same data file, whatever names led to it; a copy from an old version of the key is no copy onto
    // itself.
    orbs3_object_path_t from;
    const bool onto_itself = orbs3_make_object_path(src_bucket.get(), skey, "", &from) == 0 &&
                             std::strcmp(from.data_path, to.data_path) == 0 && !src.old_version;
    orbs3_object_meta_t meta;
    if ((rc = copy_meta(r, src.record.get(), onto_itself, &meta)) != 0 ||
        (rc = destination_admits(r, dst.get(), key, src.size)) != 0)
        return rc;

    char etag[ORBS3_REC_ETAG_CAP + 1] = "";
    orbs3_commit_t commit{dst.get(), key, &to};
    {
        // Held (on a bucket that ever had versioning) until the record is written: data file and record
        // come from one writer.
        orbs3_commit_lock_t lock;
        if ((rc = orbs3_object_copy_content(&src, &commit, onto_itself, &lock, etag)) != 0)
            return rc;
        meta.version_id = commit.version_id;
        if (orbs3_object_write_record(r->user, key, to.meta_path, to.data_path, etag, src.size, commit.stamp, &meta) !=
            0)
            ipd_log(LOG_ERR, "record %s not written: the copy is served without it", to.meta_path);
    }
    orbs3_object_count_commit(r->vhost, dst.get(), commit.before, src.size);

    char quoted[ORBS3_REC_ETAG_CAP + 3];
    std::snprintf(quoted, sizeof quoted, "\"%s\"", etag);
    neo_cstr_ptr doc(make_copy_object_result_xmlstring(commit.stamp, quoted));
    if (!doc)
        return ORBS3_S3_INTERNAL_ERROR;
    // The source's id goes back when the client named it, or when its bucket tells ids at all.
    std::string extra;
    orbs3_object_version_line(dst.get(), commit.version_id, &extra);
    if (!src_version.empty() || orbs3_object_says_version(src_bucket.get(), src.version_id)) {
        if (!extra.empty())
            extra.append("\r\n");
        extra.append("x-amz-copy-source-version-id: ");
        extra.append(src.version_id[0] != '\0' ? std::string_view(src.version_id) : ORBS3_NULL_VERSION_ID);
    }
    return orbs3_http_send_msg(r->connection, 200, doc.get(), r->resp.connection, r->resp.origin, extra.c_str()) == 0
               ? 0
               : -1;
}
