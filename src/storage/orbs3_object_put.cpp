// PutObject. The body goes into a temporary file in the key's own directory, its MD5 (and, when the
// request signs its payload, its SHA-256) taken as the bytes pass; only a body that is whole and
// verified is renamed over the object, and its record follows. A reader meets the old object or the new
// one, never a mix; a client that goes away, or a crash, leaves the old object as it was. If-Match and
// If-None-Match are checked before the body and again in the commit step (orbs3_object_commit.h).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "access/orbs3_access_check.h"
#include "core/orbs3_tenant.h"
#include "core/orbs3_log.h"
#include "event/orbs3_fd.h"
#include "http/orbs3_http_parse.h"
#include "http/orbs3_http_request_body.h"
#include "http/orbs3_http_response.h"
#include "memory/neo_files.h"
#include "memory/neo_md5.h"
#include "memory/neo_string.h"
#include "core/orbs3_config.h"
#include "s3/orbs3_s3_aws_chunked.h"
#include "s3/orbs3_s3_dispatch.h"
#include "s3/orbs3_s3_errors.h"
#include "http/orbs3_http_header.h"
#include "s3/orbs3_s3_signature.h"
#include "storage/orbs3_bucket_ops.h"
#include "storage/orbs3_bucket_store.h"
#include "storage/orbs3_checksum.h"
#include "storage/orbs3_file_helpers.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object.h"
#include "storage/orbs3_object_body.h"
#include "storage/orbs3_object_commit.h"
#include "storage/orbs3_object_write.h"
#include "storage/orbs3_record.h"

namespace {

// Everything a PUT keeps between read events besides its body. Made with pool_new: when the request
// goes, by whatever path, the body's destructor removes a temporary file that was never committed and
// this one frees the bucket.
struct put_state_t {
    orbs3_object_body_t body;  // the temporary file, its digests and what the request asks verified
    orbs3_bucket_t* bucket = nullptr;
    std::string_view key;
    orbs3_object_path_t path;
    orbs3_object_meta_t meta;
    orbs3_conditional_t cond{};  // If-Match, If-None-Match: checked before the body and again at the commit

    put_state_t() = default;
    ~put_state_t() { orbs3_free_bucket(bucket); }
    put_state_t(const put_state_t&) = delete;
    put_state_t& operator=(const put_state_t&) = delete;
};

// The commit: the whole body is in the temporary file and matched every digest the request named.
int commit(orbs3_http_request_t* r, orbs3_object_body_t* body)
{
    auto* st = static_cast<put_state_t*>(body->owner);
    const char* tmp = body->file.path;
    // An acknowledged object survives a power failure: its bytes reach the disk before it replaces the
    // old one.
    if (orbs3_fd fd(open(tmp, O_WRONLY | O_CLOEXEC)); !fd.valid() || fsync(fd.get()) != 0) {
        ipd_log(LOG_ERR, "fsync %s failed: %s", tmp, std::strerror(errno));
        return ORBS3_S3_INTERNAL_ERROR;
    }
    orbs3_commit_t commit{st->bucket, st->key, &st->path};
    {
        // The record is written under the lock too: data file and record always come from one writer.
        orbs3_commit_lock_t lock;
        if (orbs3_commit_lock(st->path.data_path, &lock) != 0) {
            ipd_log(LOG_ERR, "commit lock for %s: %s", st->path.data_path, std::strerror(errno));
            return ORBS3_S3_INTERNAL_ERROR;
        }
        if (int rc = orbs3_object_commit_file(&st->cond, tmp, &commit); rc != 0)
            return rc;
        body->committed = true;

        if (body->checksum.alg != orbs3_checksum_alg::none) {
            st->meta.checksum_algorithm = orbs3_checksum_word(body->checksum.alg);
            st->meta.checksum = body->checksum_value;
        }
        st->meta.version_id = commit.version_id;
        orbs3_user_t stand_in;
        if (orbs3_object_write_record(orbs3_object_writer(r, st->bucket, &stand_in), st->key, st->path.meta_path, st->path.data_path, body->file.etag,
                                      body->file.size, commit.stamp, &st->meta) != 0)
            ipd_log(LOG_ERR, "record %s not written: the object is served without it", st->path.meta_path);
    }
    orbs3_object_count_commit(r->vhost, st->bucket, commit.before, body->file.size);
    char etag[40];
    std::snprintf(etag, sizeof etag, "\"%s\"", body->file.etag);
    std::string extra = orbs3_object_body_checksum_line(*body);
    orbs3_object_version_line(st->bucket, commit.version_id, &extra);
    return orbs3_http_send_put_object_msg(r->connection, 200, etag, r->resp.connection, r->resp.origin,
                                          extra.c_str()) == 0
               ? 0
               : -1;
}

// A key ending in "/": directories in the data and meta trees, and the directory object's record in its
// meta directory under ORBS3_DIR_MARKER, which listings, HEAD and GET know it by. It holds no bytes, and
// its ETag is that of empty content.
int put_directory_object(orbs3_http_request_t* r, orbs3_bucket_t* bucket, std::string_view key)
{
    static constexpr const char* kEmptyEtag = "d41d8cd98f00b204e9800998ecf8427e";
    orbs3_object_path_t path;
    if (orbs3_make_object_path(bucket, key, "", &path) != 0)
        return ORBS3_S3_KEY_TOO_LONG;
    char marker[ORBS3_PATH_AREA];
    if (orbs3_object_dir_marker_path(path.meta_path, marker) != 0)
        return ORBS3_S3_KEY_TOO_LONG;
    orbs3_object_meta_t meta;
    if (int rc = orbs3_object_meta_from_request(r, &meta); rc != 0)
        return rc;
    // "a/b/" needs the directory where "a/b" may already be an object.
    if (int rc = orbs3_check_key_conflict(bucket, key); rc != 0)
        return static_cast<int>(rc == ORBS3_KEY_CONFLICT_FILE ? ORBS3_S3_KEY_CONFLICT : ORBS3_S3_INTERNAL_ERROR);
    if (neo_mkdir_p(path.data_path, ORBS3_DIR_MODE) != 0 || neo_mkdir_p(path.meta_path, ORBS3_DIR_MODE) != 0 ||
        (bucket->versioning.status == 1 && neo_mkdir_p(path.version_path, ORBS3_DIR_MODE) != 0))
        return ORBS3_S3_INTERNAL_ERROR;
    bool fresh = false;
    {
        // The directory object is its record: the conditions judge that, under the lock of its directory.
        orbs3_commit_lock_t lock;
        if (orbs3_commit_lock(marker, &lock) != 0)
            return ORBS3_S3_INTERNAL_ERROR;
        const orbs3_conditional_t cond = orbs3_object_conditions(r);
        if (int rc = orbs3_object_check_conditions(&cond, marker, marker); rc != 0)
            return rc;
        fresh = access(marker, F_OK) != 0;
        char stamp[64];
        get_gmt_meta_time(stamp, sizeof stamp);
        orbs3_user_t stand_in;
        if (orbs3_object_write_record(orbs3_object_writer(r, bucket, &stand_in), key, marker, path.data_path, kEmptyEtag, 0, stamp, &meta) != 0)
            return ORBS3_S3_INTERNAL_ERROR;
    }
    // Writing the record again over an existing directory object adds no object.
    if (fresh) {
        orbs3_object_count_in_bucket(bucket, 1, 0);
        r->vhost->object_count.fetch_add(1);
    }
    char quoted[40];
    std::snprintf(quoted, sizeof quoted, "\"%s\"", kEmptyEtag);
    return orbs3_http_send_put_object_msg(r->connection, 200, quoted, r->resp.connection, r->resp.origin) == 0 ? 0
                                                                                                                : -1;
}

// A key ending in "/" is a directory, which holds no bytes: data sent with it is refused, never dropped
// while the client believes it stored.
int refuse_directory_body(orbs3_http_request_t* r)
{
    r->resp.message = "An object key ending in \"/\" names a folder, which holds no data: send it with an "
                      "empty body, or store the data under a key that does not end in \"/\".";
    return ORBS3_S3_INVALID_ARGUMENT;
}

// The same once a body that came with it has been read: a body of unknown length counts as empty only
// when nothing came.
int put_directory_object_after_drain(orbs3_http_request_t* r)
{
    int64_t length = -1;
    if (orbs3_object_body_length(r, &length) == 0 && length < 0 && r->file != nullptr && r->file->size > 0)
        return refuse_directory_body(r);
    orbs3_bucket_t* b = nullptr;
    std::string_view key;
    int rc = orbs3_object_request_bucket(r, ORBS3_ACCESS_WRITE, &b, &key);
    if (rc != 0)
        return rc;
    rc = put_directory_object(r, b, key);
    orbs3_free_bucket(b);
    return rc;
}

// The length of the object: for an aws-chunked body the decoded length, which is checked as it decodes;
// -1 when it is known only at the end. 0 or a status.
int body_length(orbs3_http_request_t* r, const orbs3_bucket_t* bucket, int64_t* length)
{
    // Without a length and without chunked framing the end of the body can't be known.
    if (r->headers_in.content_length == nullptr && !r->headers_in.chunked)
        return ORBS3_S3_MISSING_CONTENT_LENGTH;
    if (int rc = orbs3_object_body_length(r, length); rc != 0)
        return rc;
    return *length >= 0 && orbs3_check_object_size(r->vhost, bucket, *length) != 0 ? ORBS3_S3_ENTITY_TOO_LARGE : 0;
}

}  // namespace

int orbs3_put_object(orbs3_http_request_t* r)
{
    orbs3_bucket_t* raw = nullptr;
    std::string_view key;
    int rc = orbs3_object_request_bucket(r, ORBS3_ACCESS_WRITE, &raw, &key);
    if (rc != 0)
        return rc;
    auto* st = pool_new<put_state_t>(r->pool);
    if (st == nullptr) {
        orbs3_free_bucket(raw);
        return ORBS3_S3_INTERNAL_ERROR;
    }
    st->bucket = raw;
    st->key = key;
    st->cond = orbs3_object_conditions(r);

    int64_t length = -1;
    if (rc = body_length(r, raw, &length); rc != 0)
        return rc;
    st->body.limit = orbs3_object_size_limit(r->vhost, raw);

    rc = orbs3_object_body_prepare(r, &st->body);
    if (rc != 0)
        return rc;
    rc = orbs3_object_meta_from_request(r, &st->meta);
    if (rc != 0)
        return rc;

    if (key.back() == '/') {
        if (length > 0)
            return orbs3_s3_drain_then(r, refuse_directory_body);
        if (orbs3_http_has_body(r) && !orbs3_http_body_consumed(r))
            return orbs3_s3_drain_then(r, put_directory_object_after_drain);
        return put_directory_object(r, raw, key);
    }

    // A write whose condition fails now is refused before its body is read; the commit checks again.
    if (rc = orbs3_object_prepare_write(raw, key, &st->cond, &st->path); rc != 0)
        return rc;

    // The temporary file lies beside the object, on the same file system, so the commit is one rename.
    int fd = -1;
    if (rc = orbs3_object_temp_create(key, st->path.data_path, st->body.file.path, sizeof st->body.file.path, &fd);
        rc != 0)
        return rc;
    close(fd);
    st->body.done = commit;
    st->body.owner = st;
    st->body.action = "PutObject";
    return orbs3_object_body_start(r, &st->body);
}
