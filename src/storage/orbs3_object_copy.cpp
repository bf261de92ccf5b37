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
#include <string_view>

#include "access/orbs3_access_check.h"
#include "control/orbs3_service.h"
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
#include "s3/orbs3_s3_sign_parts.h"
#include "s3/orbs3_s3_signature.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object.h"

namespace {

constexpr int status(uint32_t code)
{
    return static_cast<int>(code);
}

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

int orbs3_parse_copy_source(orbs3_http_request_t* r, orbs3_pool_t* pool, orbs3_str_t* bucket, orbs3_str_t* key)
{
    std::string_view source;
    if (!orbs3_sign_find_header(r, "x-amz-copy-source", &source) &&
        !orbs3_sign_find_header(r, "x-copy-source", &source))
        return status(ORBS3_S3_INVALID_ARGUMENT);
    if (source.starts_with('/'))
        source.remove_prefix(1);
    // The version suffix is cut before decoding: a "?" that belongs to the key arrives as %3F.
    if (std::size_t q = source.find("?versionId="); q != std::string_view::npos)
        source = source.substr(0, q);
    if (source.empty() || !escapes_well_formed(source))
        return status(ORBS3_S3_INVALID_ARGUMENT);

    auto* text = static_cast<char*>(orbs3_pnalloc(pool, source.size() + 1));
    if (text == nullptr)
        return status(ORBS3_S3_INTERNAL_ERROR);
    std::memcpy(text, source.data(), source.size());
    const std::size_t len = orbs3_uri_decode(text, source.size());
    text[len] = '\0';

    // Bucket names hold no "/", so the first one of the decoded text ends the bucket whether the client
    // sent it plain or as %2F.
    const std::string_view decoded(text, len);
    const std::size_t slash = decoded.find('/');
    if (slash == std::string_view::npos || slash == 0 || slash + 1 == decoded.size())
        return status(ORBS3_S3_INVALID_ARGUMENT);
    const std::string_view b = decoded.substr(0, slash);
    const std::string_view k = decoded.substr(slash + 1);
    if (orbs3_check_bucketname(b) != 0)
        return status(ORBS3_S3_INVALID_ARGUMENT);
    if (int st = orbs3_object_key_status(k); st != 0)
        return st;
    if (orbs3_pstr_set(pool, bucket, b.data(), b.size()) != 0 || orbs3_pstr_set(pool, key, k.data(), k.size()) != 0)
        return status(ORBS3_S3_INTERNAL_ERROR);
    return 0;
}

// ---- CopyObject ----

namespace {

// Bytes that go through user space (a copy whose ETag must be computed, or a file system without
// copy_file_range) pass through one buffer of this size, whatever the object's size.
constexpr std::size_t kCopyBuffer = 256 * 1024;
// Tries of a directory made and a file created in it: a delete may remove an emptied directory between
// the two.
constexpr int kMakeTries = 4;

struct object_free {
    void operator()(orbs3_object_t* o) const noexcept { orbs3_free_object(o); }
};
using object_ptr = std::unique_ptr<orbs3_object_t, object_free>;
using bucket_ptr = std::unique_ptr<orbs3_bucket_t, decltype(&orbs3_free_bucket)>;

// The temporary file of a copy, removed unless the copy was committed.
struct temp_file {
    char path[ORBS3_PATH_AREA] = "";
    bool committed = false;
    ~temp_file()
    {
        if (!committed && path[0] != '\0')
            unlink(path);
    }
};

// A record stamp "2026-07-01T12:00:00.000Z" as a time; -1 when it is not one.
time_t stamp_time(std::string_view stamp)
{
    struct tm tm {};
    char text[32];
    if (stamp.size() < 19 || stamp.size() >= sizeof text)
        return -1;
    std::memcpy(text, stamp.data(), stamp.size());
    text[stamp.size()] = '\0';
    if (strptime(text, "%Y-%m-%dT%H:%M:%S", &tm) == nullptr)
        return -1;
    return timegm(&tm);
}

bool write_all(int fd, const uint8_t* p, std::size_t n)
{
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return false;
        p += w;
        n -= static_cast<std::size_t>(w);
    }
    return true;
}

// `size` bytes from `in` to `out`, both at their start. With md5 set the bytes pass through `buf` and
// the digest; else the kernel copies them (sharing extents where the file system can), falling back to
// the buffer where it can't. 0, or -1 when a read or write fails or the source ends early.
int copy_bytes(int in, int out, int64_t size, neo_md5_t* md5, uint8_t* buf)
{
    int64_t done = 0;
    if (md5 == nullptr) {
        while (done < size) {
            ssize_t n = copy_file_range(in, nullptr, out, nullptr, static_cast<std::size_t>(size - done), 0);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0 && (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP) && done == 0)
                break;
            if (n <= 0)
                return -1;
            done += n;
        }
        if (done == size)
            return 0;
    }
    while (done < size) {
        std::size_t want = static_cast<std::size_t>(std::min<int64_t>(size - done, kCopyBuffer));
        ssize_t n = pread(in, buf, want, done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return -1;
        if (md5 != nullptr)
            (void)neo_md5_update(md5, buf, static_cast<std::size_t>(n));
        if (!write_all(out, buf, static_cast<std::size_t>(n)))
            return -1;
        done += n;
    }
    return 0;
}

// The object's metadata as the source record has it, as views into the record.
void meta_from_record(const orbs3_object_t* rec, orbs3_object_meta_t* meta)
{
    meta->content_type = orbs3_str_view(rec->content_type);
    meta->cache_control = orbs3_str_view(rec->cache_control);
    meta->content_disposition = orbs3_str_view(rec->content_disposition);
    meta->content_encoding = orbs3_str_view(rec->content_encoding);
    meta->expires = orbs3_str_view(rec->expires);
    meta->checksum_algorithm = orbs3_str_view(rec->checksum_algorithm);
    meta->checksum = orbs3_str_view(rec->checksum);
    neo_list_head_t* pos;
    list_for_each(pos, const_cast<neo_list_head_t*>(&rec->meta)) {
        if (meta->n == ORBS3_OBJECT_META_MAX)
            break;
        auto* node = list_entry(pos, orbs3_list_node_t, list);
        auto* tag = static_cast<const orbs3_tag_t*>(node->data);
        meta->keys[meta->n] = orbs3_str_view(tag->key);
        meta->values[meta->n] = orbs3_str_view(tag->value);
        meta->n++;
    }
}

// The x-amz-copy-source-if-* conditions against the source's ETag and time. 0, or PreconditionFailed:
// a copy has nothing to answer "not modified" with, so S3 fails every unmet condition alike.
int copy_conditions(orbs3_http_request_t* r, std::string_view etag, time_t mtime)
{
    orbs3_conditional_t cond{};
    std::string_view v;
    if (orbs3_sign_find_header(r, "x-amz-copy-source-if-match", &v))
        cond.if_match = v;
    if (orbs3_sign_find_header(r, "x-amz-copy-source-if-none-match", &v))
        cond.if_none_match = v;
    if (orbs3_sign_find_header(r, "x-amz-copy-source-if-modified-since", &v))
        cond.if_modified_since = v;
    if (orbs3_sign_find_header(r, "x-amz-copy-source-if-unmodified-since", &v))
        cond.if_unmodified_since = v;
    return orbs3_http_conditional_result(&cond, etag, mtime) == ORBS3_CONDITIONAL_PROCEED
               ? 0
               : status(ORBS3_S3_PRECONDITION_FAILED);
}

// Creates "<dir of final>/.orbs3-tmp-<uuid>", making the key's directories first. 0, or a status.
int make_temp(std::string_view key, const char* final_path, temp_file* tmp, int* fd)
{
    std::string_view dir(final_path);
    dir = dir.substr(0, dir.rfind('/') + 1);
    char uuid[ORBS3_UUID_HEX_LEN + 1];
    orbs3_get_uuid_ex(uuid);
    int n = std::snprintf(tmp->path, sizeof tmp->path, "%.*s%.*s%s", static_cast<int>(dir.size()), dir.data(),
                          static_cast<int>(ORBS3_RECORD_TMP_PREFIX.size()), ORBS3_RECORD_TMP_PREFIX.data(), uuid);
    if (n < 0 || static_cast<std::size_t>(n) >= sizeof tmp->path) {
        tmp->path[0] = '\0';
        return status(ORBS3_S3_KEY_TOO_LONG);
    }
    for (int i = 0; i < kMakeTries; i++) {
        if (orbs3_make_dir_by_name(key, final_path) != 0)
            break;
        *fd = open(tmp->path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (*fd >= 0)
            return 0;
        if (errno != ENOENT)
            break;
    }
    ipd_log(LOG_ERR, "create %s failed: %s", tmp->path, std::strerror(errno));
    tmp->path[0] = '\0';
    return status(ORBS3_S3_INTERNAL_ERROR);
}

}  // namespace

int orbs3_copy_object(orbs3_http_request_t* r)
{
    orbs3_str_t src_name{}, src_key{};
    orbs3_bucket_t* raw = nullptr;
    std::string_view key;
    int rc = orbs3_object_request_bucket(r, ORBS3_ACCESS_WRITE, &raw, &key);
    if (rc != 0)
        return rc;
    bucket_ptr dst(raw, &orbs3_free_bucket);
    if ((rc = orbs3_parse_copy_source(r, r->pool, &src_name, &src_key)) != 0)
        return rc;
    // A directory key holds no bytes to copy, and a copy makes no directory objects.
    if (key.back() == '/')
        return status(ORBS3_S3_INVALID_ARGUMENT);
    const std::string_view skey = orbs3_str_view(src_key);
    if (skey.back() == '/')
        return status(ORBS3_S3_NO_SUCH_KEY);

    bucket_ptr src(orbs3_get_bucket(r->vhost, r->user, orbs3_str_view(src_name)), &orbs3_free_bucket);
    if (!src)
        return status(ORBS3_S3_NO_SUCH_BUCKET);
    int copy_code = ORBS3_ACCESS_COPY;
    if (orbs3_access_check_chain(r->vhost, r->user, src.get(), r->connection->peer, nullptr, &copy_code,
                                 orbs3_access_chain_t::full) != 0) {
        std::snprintf(r->resp.resource, sizeof r->resp.resource, "/");
        return status(ORBS3_S3_ACCESS_DENIED);
    }
    if (orbs3_bucket_init_path(r->vhost, r->user, src.get(), orbs3_str_view(src_name)) != 0)
        return status(ORBS3_S3_INTERNAL_ERROR);

    orbs3_object_path_t from, to;
    if (orbs3_make_object_path(src.get(), skey, "", &from) != 0 || orbs3_make_object_path(dst.get(), key, "", &to) != 0)
        return status(ORBS3_S3_KEY_TOO_LONG);
    orbs3_fd in{open(from.data_path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC)};
    struct stat st {};
    if (in.get() < 0 || fstat(in.get(), &st) != 0 || !S_ISREG(st.st_mode))
        return status(ORBS3_S3_NO_SUCH_KEY);
    const int64_t size = st.st_size;

    // The source's record counts only when it describes the file opened: one that lags behind a commit
    // would give another content's ETag and metadata.
    object_ptr rec(orbs3_create_object_from_file(from.meta_path));
    if (rec && static_cast<int64_t>(rec->size) != size)
        rec.reset();
    char etag[ORBS3_REC_ETAG_CAP + 1] = "";
    if (rec && rec->etag.len != 0 && rec->etag.len <= ORBS3_REC_ETAG_CAP)
        std::snprintf(etag, sizeof etag, "%s", neo_getstr(&rec->etag));
    time_t mtime = rec ? stamp_time(orbs3_str_view(rec->last_modified)) : -1;
    if (mtime < 0)
        mtime = st.st_mtime;
    {
        // The ETag GET shows for the source, for the conditions.
        char shown[ORBS3_REC_ETAG_CAP + 1];
        if (etag[0] == '\0') {
            char stamp[32];
            std::snprintf(stamp, sizeof stamp, "%lld", static_cast<long long>(st.st_mtime));
            Compute_file_md5(skey, size, stamp, shown);
        } else {
            std::snprintf(shown, sizeof shown, "%s", etag);
        }
        if ((rc = copy_conditions(r, shown, mtime)) != 0)
            return rc;
    }

    std::string_view directive;
    const bool replace = orbs3_sign_find_header(r, "x-amz-metadata-directive", &directive) &&
                         orbs3_sign_iequals(directive, "REPLACE");
    if (!directive.empty() && !replace && !orbs3_sign_iequals(directive, "COPY"))
        return status(ORBS3_S3_INVALID_ARGUMENT);
    const bool onto_itself = std::strcmp(from.data_path, to.data_path) == 0;
    if (onto_itself && !replace) {
        r->resp.message = "This copy request is illegal because it is trying to copy an object to itself without "
                          "changing the object's metadata, storage class, website redirect location or encryption "
                          "attributes.";
        return status(ORBS3_S3_INVALID_REQUEST);
    }
    orbs3_object_meta_t meta;
    if (replace) {
        if ((rc = orbs3_object_meta_from_request(r, &meta)) != 0)
            return rc;
        // The content's checksum stays true whatever else is replaced.
        if (rec) {
            meta.checksum_algorithm = orbs3_str_view(rec->checksum_algorithm);
            meta.checksum = orbs3_str_view(rec->checksum);
        }
    } else if (rec) {
        meta_from_record(rec.get(), &meta);
    }

    if (orbs3_check_object_size(r->vhost, dst.get(), size) != 0)
        return status(ORBS3_S3_ENTITY_TOO_LARGE);
    rc = orbs3_check_key_conflict(dst.get(), key);
    if (rc == ORBS3_KEY_CONFLICT_FILE || rc == ORBS3_KEY_CONFLICT_DIR)
        return status(ORBS3_S3_KEY_CONFLICT);
    if (rc != 0)
        return status(ORBS3_S3_INTERNAL_ERROR);

    const orbs3_object_before_t before = orbs3_object_before_commit(to.data_path);
    if (!onto_itself) {
        // The bytes go into a temporary file beside the destination and replace it by a rename once they
        // are on disk: a reader sees the old object or the copy, never a part.
        temp_file tmp;
        int made = -1;
        if ((rc = make_temp(key, to.data_path, &tmp, &made)) != 0)
            return rc;
        orbs3_fd out(made);
        neo_md5_t md5;
        const bool digest = etag[0] == '\0';
        auto* buf = static_cast<uint8_t*>(orbs3_pnalloc(r->pool, kCopyBuffer));
        if (buf == nullptr || (digest && neo_md5_init(&md5) != 0))
            return status(ORBS3_S3_INTERNAL_ERROR);
        if (copy_bytes(in.get(), out.get(), size, digest ? &md5 : nullptr, buf) != 0 || fsync(out.get()) != 0) {
            ipd_log(LOG_ERR, "copy of %s to %s failed: %s", from.data_path, tmp.path, std::strerror(errno));
            return status(ORBS3_S3_INTERNAL_ERROR);
        }
        if (digest) {
            uint8_t sum[NEO_MD5_LEN];
            if (neo_md5_final(sum, &md5) != 0)
                return status(ORBS3_S3_INTERNAL_ERROR);
            *neo_hex(etag, sum, sizeof sum) = '\0';
        }
        if (rename(tmp.path, to.data_path) != 0) {
            ipd_log(LOG_ERR, "rename %s to %s failed: %s", tmp.path, to.data_path, std::strerror(errno));
            return status(ORBS3_S3_INTERNAL_ERROR);
        }
        tmp.committed = true;
    } else if (etag[0] == '\0') {
        // Onto itself without a record: the content's digest is read once, in place.
        neo_md5_t md5;
        auto* buf = static_cast<uint8_t*>(orbs3_pnalloc(r->pool, kCopyBuffer));
        if (buf == nullptr || neo_md5_init(&md5) != 0)
            return status(ORBS3_S3_INTERNAL_ERROR);
        for (int64_t at = 0; at < size;) {
            ssize_t n = pread(in.get(), buf, static_cast<std::size_t>(std::min<int64_t>(size - at, kCopyBuffer)), at);
            if (n <= 0)
                return status(ORBS3_S3_INTERNAL_ERROR);
            (void)neo_md5_update(&md5, buf, static_cast<std::size_t>(n));
            at += n;
        }
        uint8_t sum[NEO_MD5_LEN];
        if (neo_md5_final(sum, &md5) != 0)
            return status(ORBS3_S3_INTERNAL_ERROR);
        *neo_hex(etag, sum, sizeof sum) = '\0';
    }

    char stamp[64];
    get_gmt_meta_time(stamp, sizeof stamp);
    if (orbs3_object_write_record(r, key, to.meta_path, to.data_path, etag, size, stamp, &meta) != 0)
        ipd_log(LOG_ERR, "record %s not written: the copy is served without it", to.meta_path);
    orbs3_object_count_commit(r, dst.get(), before, size);

    char quoted[ORBS3_REC_ETAG_CAP + 3];
    std::snprintf(quoted, sizeof quoted, "\"%s\"", etag);
    neo_cstr_ptr doc(make_copy_object_result_xmlstring(stamp, quoted));
    if (!doc)
        return status(ORBS3_S3_INTERNAL_ERROR);
    return orbs3_http_send_msg(r->connection, 200, doc.get(), r->resp.connection, r->resp.origin) == 0 ? 0 : -1;
}
