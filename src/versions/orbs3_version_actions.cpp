#include "versions/orbs3_version_actions.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#include "core/orbs3_log.h"
#include "core/orbs3_tenant.h"
#include "event/orbs3_fd.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object_commit.h"
#include "storage/orbs3_object_store.h"
#include "storage/orbs3_object_write.h"
#include "storage/orbs3_record.h"
#include "versions/orbs3_object_version.h"
#include "versions/orbs3_version_name.h"

namespace {

bool regular_file(const char* path)
{
    struct stat st {};
    return lstat(path, &st) == 0 && S_ISREG(st.st_mode);
}

using suffix_t = char[ORBS3_VERSION_SUFFIX_LEN + 1];

// A record for old content that has none: its digest and size, the bucket's owner, its name's stamp as
// the time it was written, and, for a version, its name's suffix as its id (the id it was found by).
int write_rebuilt_record(const orbs3_bucket_t* bucket, std::string_view key, const orbs3_object_path_t* path,
                         int64_t stamp, std::string_view id)
{
    orbs3_fd fd(open(path->data_path, O_RDONLY | O_CLOEXEC));
    struct stat st {};
    char etag[33];
    if (!fd.valid() || fstat(fd.get(), &st) != 0 || orbs3_object_digest_file(fd.get(), st.st_size, etag) != 0)
        return -1;
    int64_t n = stamp;
    int part[6];
    for (int i = 5; i > 0; i--, n /= 100)
        part[i] = static_cast<int>(n % 100);
    part[0] = static_cast<int>(n);
    char when[64];
    std::snprintf(when, sizeof when, "%04d-%02d-%02dT%02d:%02d:%02d.000Z", part[0], part[1], part[2], part[3],
                  part[4], part[5]);
    orbs3_user_t owner{};
    owner.UserId = bucket->owner_id;
    owner.DisPlayName = bucket->owner_name;
    orbs3_object_meta_t meta;
    if (orbs3_version_id_valid(id) && id != ORBS3_NULL_VERSION_ID)
        meta.version_id = id;
    return orbs3_object_write_record(&owner, key, path->meta_path, path->data_path, etag, st.st_size, when, &meta);
}

enum class source_tree { version, recycle };

int restore(orbs3_vhost_t* vhost, const orbs3_bucket_t* bucket, std::string_view stamped, source_tree from)
{
    orbs3_stamped_key_t sk;
    if (orbs3_split_stamped_key(stamped, &sk) != 0)
        return ORBS3_VERSION_BAD_NAME;
    if (int st = orbs3_object_key_status(sk.live_key); st != 0)
        return st;
    const bool enabled = bucket->versioning.status == 1;
    if (from == source_tree::version && !enabled)
        return 0;  // versions are not swapped while versioning is off
    const std::string_view key = sk.live_key;
    const std::string_view versions(neo_getstr(&bucket->version_dir));
    const std::string_view recycle(neo_getstr(&bucket->recycle_dir));
    orbs3_object_path_t path;
    orbs3_version_file_t chosen;
    // A name too long to be made is a content that can't be there.
    if (orbs3_make_object_path(bucket, key, "", &path) != 0 ||
        orbs3_version_paths(from == source_tree::version ? versions : recycle, key, sk.suffix, &chosen) != 0)
        return ORBS3_VERSION_MOVE_FAILED;

    // The key's directories go with its last object; they are made again rather than leave the content
    // stuck where it lies. A delete may empty and remove them again before the lock is taken.
    orbs3_commit_lock_t lock;
    int locked = -1;
    for (int tries = 0; tries < 4 && locked != 0; tries++) {
        if (orbs3_make_dir_by_name(key, path.data_path) != 0 || orbs3_make_dir_by_name(key, path.meta_path) != 0)
            return ORBS3_VERSION_MOVE_FAILED;
        locked = orbs3_commit_lock(path.data_path, &lock);
    }
    if (locked != 0 || !regular_file(chosen.data))
        return ORBS3_VERSION_MOVE_FAILED;

    orbs3_object_ptr chosen_rec(orbs3_create_object_from_file(chosen.record));
    if (chosen_rec && chosen_rec->delete_marker != 0)
        return ORBS3_VERSION_MOVE_FAILED;  // a marker's record beside bytes: nothing sound to make live
    const bool chosen_is_null = chosen_rec ? orbs3_object_version_id(chosen_rec.get()) == ORBS3_NULL_VERSION_ID
                                           : from == source_tree::recycle;
    std::vector<orbs3_version_entry_t> list;
    if (orbs3_version_list_key(versions, key, &list) != 0)
        return ORBS3_VERSION_DIR_UNREADABLE;
    // The bound counts the versions that stay: the one coming back leaves the tree.
    if (from == source_tree::version)
        std::erase_if(list, [&](const orbs3_version_entry_t& e) { return sk.suffix == e.suffix; });
    if (chosen_is_null && orbs3_version_recycle_nulls(bucket, key, &list) != 0)
        return ORBS3_VERSION_MOVE_FAILED;

    const orbs3_object_before_t before = orbs3_object_before_commit(path.data_path);
    const orbs3_version_file_t live = orbs3_version_live_file(&path);
    orbs3_version_file_t away{};
    if (before.existed) {
        orbs3_object_ptr live_rec(orbs3_create_object_from_file(path.meta_path));
        suffix_t suffix;
        if (orbs3_version_leaving_suffix(live_rec.get(), path.data_path, suffix) != 0)
            return ORBS3_VERSION_MOVE_FAILED;
        if (enabled && bucket->versioning.save_num > 0) {
            if (static_cast<int64_t>(list.size()) >= bucket->versioning.save_num &&
                orbs3_version_retire_eldest(bucket, key, list) != 0)
                return ORBS3_VERSION_RETIRE_FAILED;
            if (orbs3_version_paths(versions, key, suffix, &away) != 0 || orbs3_version_move(&live, &away) != 0) {
                ipd_log(LOG_ERR, "%s not kept as version %s: %s", path.data_path, away.data, std::strerror(errno));
                return ORBS3_VERSION_MOVE_FAILED;
            }
        } else {
            suffix_t used;
            if (orbs3_version_to_recycle(bucket, key, &live, suffix, &used) != 0 ||
                orbs3_version_paths(recycle, key, used, &away) != 0)
                return ORBS3_VERSION_MOVE_FAILED;
        }
    } else if (regular_file(path.meta_path) && unlink(path.meta_path) != 0 && errno != ENOENT) {
        // A record without bytes describes nothing: it gives way to the content coming back.
        return ORBS3_VERSION_MOVE_FAILED;
    }

    if (orbs3_version_move(&chosen, &live) != 0) {
        ipd_log(LOG_ERR, "%s not restored to %s: %s", chosen.data, path.data_path, std::strerror(errno));
        if (before.existed && orbs3_version_move(&away, &live) != 0)
            ipd_log(LOG_ERR, "live content of %s left at %s: %s", path.data_path, away.data, std::strerror(errno));
        return ORBS3_VERSION_MOVE_FAILED;
    }
    if (!chosen_rec && write_rebuilt_record(bucket, key, &path, sk.stamp,
                                            from == source_tree::version ? sk.suffix : std::string_view()) != 0)
        ipd_log(LOG_ERR, "record of restored %s not written: it is served as its file tells", path.data_path);
    struct stat st {};
    orbs3_object_count_commit(vhost, bucket, before, stat(path.data_path, &st) == 0 ? st.st_size : 0);
    return 0;
}

}  // namespace

int orbs3_restore_version(orbs3_vhost_t* vhost, const orbs3_bucket_t* bucket, std::string_view stamped)
{
    return restore(vhost, bucket, stamped, source_tree::version);
}

int orbs3_restore_recycled(orbs3_vhost_t* vhost, const orbs3_bucket_t* bucket, std::string_view stamped)
{
    return restore(vhost, bucket, stamped, source_tree::recycle);
}

int orbs3_delete_version(const orbs3_bucket_t* bucket, std::string_view stamped)
{
    orbs3_stamped_key_t sk;
    if (orbs3_split_stamped_key(stamped, &sk) != 0)
        return ORBS3_VERSION_BAD_NAME;
    if (int st = orbs3_object_key_status(sk.live_key); st != 0)
        return st;
    orbs3_version_file_t from;
    if (orbs3_version_paths(neo_getstr(&bucket->version_dir), sk.live_key, sk.suffix, &from) != 0 ||
        !regular_file(from.data))
        return ORBS3_VERSION_NOT_THERE;
    return orbs3_version_to_recycle(bucket, sk.live_key, &from, sk.suffix) == 0 ? 0 : ORBS3_VERSION_NOT_THERE;
}

int orbs3_purge_recycled(const orbs3_bucket_t* bucket, std::string_view stamped)
{
    orbs3_stamped_key_t sk;
    orbs3_version_file_t f;
    if (orbs3_split_stamped_key(stamped, &sk) != 0 || orbs3_object_key_status(sk.live_key) != 0 ||
        orbs3_version_paths(neo_getstr(&bucket->recycle_dir), sk.live_key, sk.suffix, &f) != 0)
        return 0;
    // Only files: a directory of that name belongs to other keys ("a..<stamp>/b").
    for (const char* p : {f.record, f.data}) {
        if (regular_file(p) && unlink(p) != 0 && errno != ENOENT) {
            ipd_log(LOG_ERR, "%s not removed: %s", p, std::strerror(errno));
            return ORBS3_S3_INTERNAL_ERROR;
        }
    }
    return 0;
}
