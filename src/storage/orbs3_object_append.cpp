// AppendObject: POST ?append&position=N writes the body into an existing object at N, or at its end when
// N lies beyond it, so that no gap can arise; a position inside the object overwrites from there. The
// body first streams whole into a temporary file beside the object, with every digest the request names
// checked; only then does it go into the object. A body that breaks off, or fails a check, leaves the
// object as it was, bytes and record.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "event/orbs3_fd.h"
#include "access/orbs3_access_check.h"
#include "core/orbs3_tenant.h"
#include "core/orbs3_log.h"
#include "http/orbs3_http_response.h"
#include "memory/neo_md5.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_errors.h"
#include "s3/orbs3_s3_signature.h"
#include "storage/orbs3_file_helpers.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object.h"
#include "storage/orbs3_object_body.h"
#include "storage/orbs3_object_commit.h"
#include "storage/orbs3_object_write.h"
#include "storage/orbs3_record.h"
#include "versions/orbs3_object_version.h"
#include "versions/orbs3_version_name.h"

namespace {

struct append_state_t {
    orbs3_object_body_t body;  // the body in its temporary file; removed when the request ends
    orbs3_bucket_t* bucket = nullptr;
    std::string_view key;
    orbs3_object_path_t path;
    int64_t position = 0;
    orbs3_object_ptr record;  // the object's record before the append

    append_state_t() = default;
    ~append_state_t() { orbs3_free_bucket(bucket); }
    append_state_t(const append_state_t&) = delete;
    append_state_t& operator=(const append_state_t&) = delete;
};

// position: absent is 0; anything but a decimal count of bytes is refused.
int read_position(orbs3_http_request_t* r, int64_t* position)
{
    *position = 0;
    orbs3_sign_query_t q;
    if (orbs3_sign_parse_query(r, &q) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    const orbs3_sign_param_t* p = orbs3_sign_query_find(&q, "position");
    if (p == nullptr)
        return 0;
    return orbs3_parse_length(p->value, position) ? 0 : ORBS3_S3_INVALID_ARGUMENT;
}

// An append changes the bytes in place, and a version id must always name the same bytes: where versions
// are kept (`enabled`), or the object carries an id, new content comes whole, by PUT.
int refuse_versioned(orbs3_http_request_t* r, bool enabled)
{
    r->resp.message = enabled ? "Appending is not allowed on a bucket with versioning enabled: an append changes "
                                "an object's bytes in place, while a version id must always name the same bytes. "
                                "Write the whole object with PUT instead."
                              : "Appending is not allowed to an object that has a version id: an append changes "
                                "an object's bytes in place, while a version id must always name the same bytes. "
                                "Write the whole object with PUT instead.";
    return ORBS3_S3_INVALID_BUCKET_STATE;
}

// The body is whole and verified: into the object it goes.
int append_done(orbs3_http_request_t* r, orbs3_object_body_t* body)
{
    auto* st = static_cast<append_state_t*>(body->owner);
    // Where versions may be kept, the append holds the key's commit lock: a write that keeps the object
    // as a version meanwhile would otherwise have the bytes land in that version. Under the lock the
    // object is checked again: content written with an id since the request began is not appended to.
    orbs3_commit_lock_t lock;
    if (orbs3_versioning_ever_set(st->bucket)) {
        if (orbs3_commit_lock(st->path.data_path, &lock) != 0) {
            ipd_log(LOG_ERR, "commit lock for %s: %s", st->path.data_path, std::strerror(errno));
            return ORBS3_S3_INTERNAL_ERROR;
        }
        st->record.reset(orbs3_create_object_from_file(st->path.meta_path));
        if (st->record && orbs3_object_version_id(st->record.get()) != ORBS3_NULL_VERSION_ID)
            return refuse_versioned(r, false);
    }
    char stamp[64];
    get_gmt_meta_time(stamp, sizeof stamp);
    orbs3_object_append_t a{st->position, body->file.size};
    if (int rc = orbs3_object_append_content(st->key, body->file.path, st->path.data_path, stamp, &a); rc != 0)
        return rc;
    const int64_t new_size = a.new_size, old_size = a.old_size;
    const char* etag = a.etag;
    orbs3_object_meta_t meta;
    // The object's metadata stays what its uploader said; an additional checksum of the old content no
    // longer holds and is dropped.
    if (st->record)
        orbs3_object_meta_from_record(st->record.get(), &meta, false);
    if (orbs3_object_write_record(r->user, st->key, st->path.meta_path, st->path.data_path, etag, new_size, stamp,
                                  &meta) != 0)
        ipd_log(LOG_ERR, "record %s not written: the object is served without it", st->path.meta_path);
    lock = {};
    if (new_size != old_size)
        orbs3_object_count_in_bucket(st->bucket, 0, new_size - old_size);

    char quoted[40];
    std::snprintf(quoted, sizeof quoted, "\"%s\"", etag);
    return orbs3_http_send_append_object_msg(r->connection, 200, quoted, r->resp.connection, r->resp.origin) == 0
               ? 0
               : -1;
}

}  // namespace

int orbs3_append_object(orbs3_http_request_t* r)
{
    orbs3_bucket_t* raw = nullptr;
    std::string_view key;
    int rc = orbs3_object_request_bucket(r, ORBS3_ACCESS_WRITE, &raw, &key);
    if (rc != 0)
        return rc;
    auto* st = pool_new<append_state_t>(r->pool);
    if (st == nullptr) {
        orbs3_free_bucket(raw);
        return ORBS3_S3_INTERNAL_ERROR;
    }
    st->bucket = raw;
    st->key = key;
    if ((rc = read_position(r, &st->position)) != 0)
        return rc;
    // A directory object has no bytes to add to.
    if (key.back() == '/')
        return ORBS3_S3_INVALID_ARGUMENT;
    if (orbs3_make_object_path(raw, key, "", &st->path) != 0)
        return ORBS3_S3_KEY_TOO_LONG;
    // Appending needs the object: the first write of an appendable object is position=0, a PUT.
    st->record.reset(orbs3_create_object_from_file(st->path.meta_path));
    struct stat data {};
    if (!st->record || lstat(st->path.data_path, &data) != 0 || !S_ISREG(data.st_mode))
        return ORBS3_S3_NO_SUCH_KEY;
    // An append changes the bytes in place, and a version id must always name the same bytes: where
    // versions are kept, or the object carries an id, new content comes whole, by PUT.
    if (raw->versioning.status == 1)
        return refuse_versioned(r, true);
    if (orbs3_object_version_id(st->record.get()) != ORBS3_NULL_VERSION_ID)
        return refuse_versioned(r, false);

    if (r->headers_in.content_length == nullptr && !r->headers_in.chunked)
        return ORBS3_S3_MISSING_CONTENT_LENGTH;
    int64_t length = -1;
    if ((rc = orbs3_object_body_length(r, &length)) != 0)
        return rc;
    // The object as it will be must fit the size limits, and so must any body whose length is not known
    // in advance.
    const int64_t limit = orbs3_object_size_limit(r->vhost, raw);
    const int64_t at = std::min<int64_t>(st->position, data.st_size);
    if (length >= 0 && orbs3_check_object_size(r->vhost, raw, std::max<int64_t>(data.st_size, at + length)) != 0)
        return ORBS3_S3_ENTITY_TOO_LARGE;
    st->body.limit = limit < 0 ? -1 : std::max<int64_t>(0, limit - at);
    if ((rc = orbs3_object_body_prepare(r, &st->body)) != 0)
        return rc;

    // The object's directory exists (its file was just seen): none is made, and a delete that has taken
    // it since leaves no object to append to.
    int fd = -1;
    if ((rc = orbs3_object_temp_create({}, st->path.data_path, st->body.file.path, sizeof st->body.file.path, &fd)) != 0)
        return rc == ORBS3_S3_INTERNAL_ERROR && errno == ENOENT ? ORBS3_S3_NO_SUCH_KEY : rc;
    close(fd);
    st->body.done = append_done;
    st->body.owner = st;
    st->body.action = "AppendObject";
    return orbs3_object_body_start(r, &st->body);
}
