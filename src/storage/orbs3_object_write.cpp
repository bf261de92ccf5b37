#include "storage/orbs3_object_write.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/orbs3_log.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_file_helpers.h"
#include "http/orbs3_http_response.h"
#include "storage/orbs3_object_commit.h"
#include "versions/orbs3_object_version.h"

namespace {

// Creates tried in all: a delete may remove an emptied directory between its making and the create.
constexpr int kMakeTries = 4;

// The temporary file of a copy, removed unless it became the object.
struct temp_file {
    char path[ORBS3_PATH_AREA] = "";
    bool committed = false;
    ~temp_file()
    {
        if (!committed && path[0] != '\0')
            unlink(path);
    }
};

// Up to this size the new content is read back for its MD5, so the ETag stays the digest of the bytes
// as after a PUT. Beyond it the read would cost more than the append itself, and the ETag is the digest
// of "<key>:<bytes appended>:<time>", which names the change but is no digest of the content.
constexpr int64_t kDigestWholeUpTo = 16 << 20;

}  // namespace

int orbs3_object_temp_create(std::string_view key, const char* final_path, char* tmp, std::size_t room, int* fd)
{
    std::string_view dir(final_path);
    dir = dir.substr(0, dir.rfind('/') + 1);
    char uuid[ORBS3_UUID_HEX_LEN + 1];
    orbs3_get_uuid_ex(uuid);
    int n = std::snprintf(tmp, room, "%.*s%.*s%s", static_cast<int>(dir.size()), dir.data(),
                          static_cast<int>(ORBS3_RECORD_TMP_PREFIX.size()), ORBS3_RECORD_TMP_PREFIX.data(), uuid);
    if (n < 0 || static_cast<std::size_t>(n) >= room) {
        tmp[0] = '\0';
        return ORBS3_S3_KEY_TOO_LONG;
    }
    *fd = open(tmp, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    for (int tries = 1; *fd < 0 && errno == ENOENT && !key.empty() && tries < kMakeTries; tries++) {
        if (orbs3_make_dir_by_name(key, final_path) != 0)
            break;
        *fd = open(tmp, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    }
    if (*fd >= 0)
        return 0;
    const int err = errno;
    ipd_log(LOG_ERR, "create %s failed: %s", tmp, std::strerror(err));
    tmp[0] = '\0';
    errno = err;
    return ORBS3_S3_INTERNAL_ERROR;
}

int orbs3_object_prepare_write(const orbs3_bucket_t* bucket, std::string_view key, const orbs3_conditional_t* cond,
                               orbs3_object_path_t* path)
{
    const int rc = orbs3_check_key_conflict(bucket, key);
    if (rc == ORBS3_KEY_CONFLICT_FILE || rc == ORBS3_KEY_CONFLICT_DIR)
        return ORBS3_S3_KEY_CONFLICT;
    if (rc != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    if (orbs3_make_object_path(bucket, key, "", path) != 0)
        return ORBS3_S3_KEY_TOO_LONG;
    if (int st = orbs3_object_check_conditions(cond, path->data_path, path->meta_path); st != 0)
        return st;
    // The key's directory in the version tree is made by the move that first keeps a version there.
    if (orbs3_make_dir_by_name(key, path->data_path) != 0 || orbs3_make_dir_by_name(key, path->recycle_path) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    return 0;
}

void orbs3_object_meta_from_record(const orbs3_object_t* rec, orbs3_object_meta_t* meta, bool with_checksum)
{
    meta->content_type = orbs3_str_view(rec->content_type);
    meta->cache_control = orbs3_str_view(rec->cache_control);
    meta->content_disposition = orbs3_str_view(rec->content_disposition);
    meta->content_encoding = orbs3_str_view(rec->content_encoding);
    meta->expires = orbs3_str_view(rec->expires);
    meta->acl = rec->acl;
    if (with_checksum) {
        meta->checksum_algorithm = orbs3_str_view(rec->checksum_algorithm);
        meta->checksum = orbs3_str_view(rec->checksum);
    }
    neo_list_head_t* pos;
    list_for_each(pos, const_cast<neo_list_head_t*>(&rec->meta)) {
        if (meta->n == ORBS3_OBJECT_META_MAX)
            break;
        auto* tag = static_cast<const orbs3_tag_t*>(list_entry(pos, orbs3_list_node_t, list)->data);
        meta->keys[meta->n] = orbs3_str_view(tag->key);
        meta->values[meta->n] = orbs3_str_view(tag->value);
        meta->n++;
    }
    orbs3_object_tags_from_record(rec, meta);
}

void orbs3_object_tags_from_record(const orbs3_object_t* rec, orbs3_object_meta_t* meta)
{
    meta->ntags = 0;
    if (rec->tags.next == nullptr)
        return;
    neo_list_head_t* pos;
    list_for_each(pos, const_cast<neo_list_head_t*>(&rec->tags)) {
        if (meta->ntags == ORBS3_OBJECT_TAGS_MAX)
            break;
        auto* tag = static_cast<const orbs3_tag_t*>(list_entry(pos, orbs3_list_node_t, list)->data);
        meta->tag_keys[meta->ntags] = orbs3_str_view(tag->key);
        meta->tag_values[meta->ntags] = orbs3_str_view(tag->value);
        meta->ntags++;
    }
}

int orbs3_object_digest_file(int fd, int64_t size, char out[33])
{
    neo_md5_t md5;
    if (neo_md5_init(&md5) != 0 ||
        orbs3_copy_range(fd, -1, 0, size, [&md5](const uint8_t* p, std::size_t n) { (void)neo_md5_update(&md5, p, n); }) != 0)
        return -1;
    uint8_t sum[NEO_MD5_LEN];
    if (neo_md5_final(sum, &md5) != 0)
        return -1;
    *neo_hex(out, sum, sizeof sum) = '\0';
    return 0;
}

int orbs3_object_copy_content(const orbs3_object_source_t* src, orbs3_commit_t* commit, bool onto_itself,
                              orbs3_commit_lock_t* lock, char (&etag)[ORBS3_REC_ETAG_CAP + 1])
{
    const orbs3_object_path_t* to = commit->path;
    const bool versioned = orbs3_versioning_ever_set(commit->bucket);
    const bool digest = !src->recorded_etag;
    if (!digest)
        std::snprintf(etag, sizeof etag, "%s", src->etag);
    if (onto_itself && !versioned) {
        // The bytes stay; without a record their digest is read once, in place.
        commit->before = orbs3_object_before_commit(to->data_path);
        get_gmt_meta_time(commit->stamp, sizeof commit->stamp);
        commit->version_id[0] = '\0';
        return digest && orbs3_object_digest_file(src->file.get(), src->size, etag) != 0
                   ? ORBS3_S3_INTERNAL_ERROR
                   : 0;
    }
    temp_file tmp;
    int made = -1;
    if (int rc = orbs3_object_temp_create(commit->key, to->data_path, tmp.path, sizeof tmp.path, &made); rc != 0)
        return rc;
    orbs3_fd out(made);
    neo_md5_t md5;
    if (digest && neo_md5_init(&md5) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    orbs3_copy_observer observe;
    if (digest)
        observe = [&md5](const uint8_t* p, std::size_t n) { (void)neo_md5_update(&md5, p, n); };
    if (orbs3_copy_range(src->file.get(), out.get(), 0, src->size, observe) != 0 || fsync(out.get()) != 0) {
        ipd_log(LOG_ERR, "copy to %s failed: %s", tmp.path, std::strerror(errno));
        return ORBS3_S3_INTERNAL_ERROR;
    }
    if (digest) {
        uint8_t sum[NEO_MD5_LEN];
        if (neo_md5_final(sum, &md5) != 0)
            return ORBS3_S3_INTERNAL_ERROR;
        *neo_hex(etag, sum, sizeof sum) = '\0';
    }
    // A copy carries no write conditions: the commit is the plain replace every writer goes through. Where
    // a version may be kept it takes the key's lock, so that the old content leaves and the new one comes
    // in as one step against other writers.
    if (versioned && orbs3_commit_lock(to->data_path, lock) != 0) {
        ipd_log(LOG_ERR, "commit lock for %s: %s", to->data_path, std::strerror(errno));
        return ORBS3_S3_INTERNAL_ERROR;
    }
    const orbs3_conditional_t none{};
    if (int rc = orbs3_object_commit_file(&none, tmp.path, commit); rc != 0)
        return rc;
    tmp.committed = true;
    return 0;
}

int orbs3_object_append_content(std::string_view key, const char* body_path, const char* data_path,
                                const char* stamp, orbs3_object_append_t* a)
{
    orbs3_fd in{open(body_path, O_RDONLY | O_CLOEXEC)};
    orbs3_fd out{open(data_path, O_RDWR | O_NOFOLLOW | O_CLOEXEC)};
    struct stat now {};
    if (!out.valid() || fstat(out.get(), &now) != 0 || !S_ISREG(now.st_mode))
        return ORBS3_S3_NO_SUCH_KEY;  // deleted while its body came
    if (!in.valid())
        return ORBS3_S3_INTERNAL_ERROR;
    a->old_size = now.st_size;
    const int64_t at = std::min(a->position, a->old_size);
    a->new_size = std::max(a->old_size, at + a->length);
    // The copy writes at the descriptor's offset: the bytes land at `at`.
    if (lseek(out.get(), at, SEEK_SET) != at || orbs3_copy_range(in.get(), out.get(), 0, a->length) != 0 ||
        fsync(out.get()) != 0) {
        ipd_log(LOG_ERR, "append to %s failed: %s", data_path, std::strerror(errno));
        // The object keeps its length: what was written behind its old end is cut off again.
        if (ftruncate(out.get(), a->old_size) != 0)
            ipd_log(LOG_ERR, "%s not cut back to %lld bytes: %s", data_path, static_cast<long long>(a->old_size),
                    std::strerror(errno));
        return ORBS3_S3_INTERNAL_ERROR;
    }
    if (a->new_size > kDigestWholeUpTo || orbs3_object_digest_file(out.get(), a->new_size, a->etag) != 0)
        Compute_file_md5(key, a->length, stamp, a->etag);
    return 0;
}
