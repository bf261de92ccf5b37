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
#include "control/orbs3_service.h"
#include "core/orbs3_log.h"
#include "http/orbs3_http_response.h"
#include "memory/neo_md5.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_errors.h"
#include "s3/orbs3_s3_sign_parts.h"
#include "storage/orbs3_file_helpers.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object.h"
#include "storage/orbs3_object_body.h"
#include "storage/orbs3_record.h"

namespace {

// Bytes that pass through user space go through one buffer of this size.
constexpr std::size_t kAppendBuffer = 256 * 1024;
// Up to this size the new content is read back for its MD5, so the ETag stays the digest of the bytes
// as after a PUT. Beyond it the read would cost more than the append itself, and the ETag is the digest
// of "<key>:<bytes appended>:<time>", which names the change but is no digest of the content.
constexpr int64_t kDigestWholeUpTo = 16 << 20;

constexpr int status(uint32_t code)
{
    return static_cast<int>(code);
}

struct object_free {
    void operator()(orbs3_object_t* o) const noexcept { orbs3_free_object(o); }
};
using object_ptr = std::unique_ptr<orbs3_object_t, object_free>;

struct append_state_t {
    orbs3_object_body_t body;  // the body in its temporary file; removed when the request ends
    orbs3_bucket_t* bucket = nullptr;
    std::string_view key;
    orbs3_object_path_t path;
    int64_t position = 0;
    object_ptr record;  // the object's record before the append

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
        return status(ORBS3_S3_INTERNAL_ERROR);
    const orbs3_sign_param_t* p = orbs3_sign_query_find(&q, "position");
    if (p == nullptr)
        return 0;
    return orbs3_parse_length(p->value, position) ? 0 : status(ORBS3_S3_INVALID_ARGUMENT);
}

// `len` bytes of `in` from 0 into `out` at `at`. 0, or -1.
int place_bytes(int in, int out, int64_t at, int64_t len, uint8_t* buf)
{
    int64_t done = 0;
    loff_t src = 0, dst = at;
    while (done < len) {
        ssize_t n = copy_file_range(in, &src, out, &dst, static_cast<std::size_t>(len - done), 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP))
            break;
        if (n <= 0)
            return -1;
        done += n;
    }
    while (done < len) {
        ssize_t n = pread(in, buf, static_cast<std::size_t>(std::min<int64_t>(len - done, kAppendBuffer)), done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return -1;
        for (ssize_t put = 0; put < n;) {
            ssize_t w = pwrite(out, buf + put, static_cast<std::size_t>(n - put), at + done + put);
            if (w < 0 && errno == EINTR)
                continue;
            if (w <= 0)
                return -1;
            put += w;
        }
        done += n;
    }
    return 0;
}

// The MD5 of the file's first `size` bytes, in hex. 0 or -1.
int digest_file(int fd, int64_t size, uint8_t* buf, char out[33])
{
    neo_md5_t md5;
    if (neo_md5_init(&md5) != 0)
        return -1;
    for (int64_t at = 0; at < size;) {
        ssize_t n = pread(fd, buf, static_cast<std::size_t>(std::min<int64_t>(size - at, kAppendBuffer)), at);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return -1;
        (void)neo_md5_update(&md5, buf, static_cast<std::size_t>(n));
        at += n;
    }
    uint8_t sum[NEO_MD5_LEN];
    if (neo_md5_final(sum, &md5) != 0)
        return -1;
    *neo_hex(out, sum, sizeof sum) = '\0';
    return 0;
}

// The object's metadata stays what its uploader said; an additional checksum of the old content no
// longer holds and is dropped.
void meta_of(const orbs3_object_t* rec, orbs3_object_meta_t* meta)
{
    meta->content_type = orbs3_str_view(rec->content_type);
    meta->cache_control = orbs3_str_view(rec->cache_control);
    meta->content_disposition = orbs3_str_view(rec->content_disposition);
    meta->content_encoding = orbs3_str_view(rec->content_encoding);
    meta->expires = orbs3_str_view(rec->expires);
    neo_list_head_t* pos;
    list_for_each(pos, const_cast<neo_list_head_t*>(&rec->meta)) {
        if (meta->n == ORBS3_OBJECT_META_MAX)
            break;
        auto* tag = static_cast<const orbs3_tag_t*>(list_entry(pos, orbs3_list_node_t, list)->data);
        meta->keys[meta->n] = orbs3_str_view(tag->key);
        meta->values[meta->n] = orbs3_str_view(tag->value);
        meta->n++;
    }
}

// The body is whole and verified: into the object it goes.
int append_done(orbs3_http_request_t* r, orbs3_object_body_t* body)
{
    auto* st = static_cast<append_state_t*>(body->owner);
    const int64_t len = body->file.size;
    orbs3_fd in{open(body->file.path, O_RDONLY | O_CLOEXEC)};
    orbs3_fd out{open(st->path.data_path, O_RDWR | O_NOFOLLOW | O_CLOEXEC)};
    struct stat now {};
    if (out.get() < 0 || fstat(out.get(), &now) != 0 || !S_ISREG(now.st_mode))
        return status(ORBS3_S3_NO_SUCH_KEY);  // deleted while its body came
    if (in.get() < 0)
        return status(ORBS3_S3_INTERNAL_ERROR);
    const int64_t old_size = now.st_size;
    const int64_t at = std::min(st->position, old_size);
    const int64_t new_size = std::max(old_size, at + len);
    auto* buf = static_cast<uint8_t*>(orbs3_pnalloc(r->pool, kAppendBuffer));
    if (buf == nullptr)
        return status(ORBS3_S3_INTERNAL_ERROR);
    if (place_bytes(in.get(), out.get(), at, len, buf) != 0 || fsync(out.get()) != 0) {
        ipd_log(LOG_ERR, "append to %s failed: %s", st->path.data_path, std::strerror(errno));
        // The object keeps its length: what was written behind its old end is cut off again.
        if (ftruncate(out.get(), old_size) != 0)
            ipd_log(LOG_ERR, "%s not cut back to %lld bytes: %s", st->path.data_path,
                    static_cast<long long>(old_size), std::strerror(errno));
        return status(ORBS3_S3_INTERNAL_ERROR);
    }

    char stamp[64];
    get_gmt_meta_time(stamp, sizeof stamp);
    char etag[33];
    if (new_size > kDigestWholeUpTo || digest_file(out.get(), new_size, buf, etag) != 0)
        Compute_file_md5(st->key, len, stamp, etag);
    orbs3_object_meta_t meta;
    if (st->record)
        meta_of(st->record.get(), &meta);
    if (orbs3_object_write_record(r, st->key, st->path.meta_path, st->path.data_path, etag, new_size, stamp,
                                  &meta) != 0)
        ipd_log(LOG_ERR, "record %s not written: the object is served without it", st->path.meta_path);
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
        return status(ORBS3_S3_INTERNAL_ERROR);
    }
    st->bucket = raw;
    st->key = key;
    if ((rc = read_position(r, &st->position)) != 0)
        return rc;
    // A directory object has no bytes to add to.
    if (key.back() == '/')
        return status(ORBS3_S3_INVALID_ARGUMENT);
    if (orbs3_make_object_path(raw, key, "", &st->path) != 0)
        return status(ORBS3_S3_KEY_TOO_LONG);
    // Appending needs the object: the first write of an appendable object is position=0, a PUT.
    st->record.reset(orbs3_create_object_from_file(st->path.meta_path));
    struct stat data {};
    if (!st->record || lstat(st->path.data_path, &data) != 0 || !S_ISREG(data.st_mode))
        return status(ORBS3_S3_NO_SUCH_KEY);

    if (r->headers_in.content_length == nullptr && !r->headers_in.chunked)
        return status(ORBS3_S3_MISSING_CONTENT_LENGTH);
    int64_t length = -1;
    if ((rc = orbs3_object_body_length(r, &length)) != 0)
        return rc;
    // The object as it will be must fit the size limits, and so must any body whose length is not known
    // in advance.
    const int64_t limit = orbs3_object_size_limit(r->vhost, raw);
    const int64_t at = std::min<int64_t>(st->position, data.st_size);
    if (length >= 0 && orbs3_check_object_size(r->vhost, raw, std::max<int64_t>(data.st_size, at + length)) != 0)
        return status(ORBS3_S3_ENTITY_TOO_LARGE);
    st->body.limit = limit < 0 ? -1 : std::max<int64_t>(0, limit - at);
    if ((rc = orbs3_object_body_prepare(r, &st->body)) != 0)
        return rc;

    std::string_view dir(st->path.data_path);
    dir = dir.substr(0, dir.rfind('/') + 1);
    char uuid[ORBS3_UUID_HEX_LEN + 1];
    orbs3_get_uuid_ex(uuid);
    char* tmp = st->body.file.path;
    int n = std::snprintf(tmp, sizeof st->body.file.path, "%.*s%.*s%s", static_cast<int>(dir.size()), dir.data(),
                          static_cast<int>(ORBS3_RECORD_TMP_PREFIX.size()), ORBS3_RECORD_TMP_PREFIX.data(), uuid);
    if (n < 0 || static_cast<std::size_t>(n) >= sizeof st->body.file.path) {
        tmp[0] = '\0';
        return status(ORBS3_S3_KEY_TOO_LONG);
    }
    int fd = open(tmp, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        // The object's directory exists (its file was just seen); a delete may have taken both since.
        const int err = errno;
        ipd_log(LOG_ERR, "create %s failed: %s", tmp, std::strerror(err));
        tmp[0] = '\0';
        return status(err == ENOENT ? ORBS3_S3_NO_SUCH_KEY : ORBS3_S3_INTERNAL_ERROR);
    }
    close(fd);
    st->body.done = append_done;
    st->body.owner = st;
    st->body.action = "AppendObject";
    return orbs3_object_body_start(r, &st->body);
}
