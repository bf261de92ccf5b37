#include "versions/orbs3_version_delete.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "core/orbs3_log.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object_read.h"
#include "storage/orbs3_record.h"
#include "versions/orbs3_object_version.h"
#include "versions/orbs3_recycle.h"

namespace {

using suffix_t = char[ORBS3_VERSION_SUFFIX_LEN + 1];

bool regular_file(const char* path)
{
    struct stat st {};
    return lstat(path, &st) == 0 && S_ISREG(st.st_mode);
}

// The suffix of a name in the version or recycle tree: what follows the last ".." of its last component.
std::string_view suffix_of(std::string_view path)
{
    const std::size_t slash = path.rfind('/');
    const std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
    const std::size_t dots = name.rfind("..");
    return dots == std::string_view::npos ? std::string_view() : name.substr(dots + 2);
}

void copy_id(std::string_view id, suffix_t& out)
{
    std::snprintf(out, sizeof out, "%.*s", static_cast<int>(id.size()), id.data());
}

// The size the bucket's statistics count for the live object at `path`: its record's, else its file's.
int64_t live_size(const orbs3_object_path_t* path)
{
    if (orbs3_object_ptr rec{orbs3_create_object_from_file(path->meta_path)})
        return static_cast<int64_t>(rec->size);
    struct stat st {};
    return lstat(path->data_path, &st) == 0 ? static_cast<int64_t>(st.st_size) : 0;
}

bool pool_set(orbs3_pool_t* pool, orbs3_str_t* s, std::string_view text)
{
    return text.empty() || orbs3_pstr_set(pool, s, text.data(), text.size()) == 0;
}

// A delete marker's record at `record`: no bytes, the requester as owner, the content it displaced.
int write_marker(std::string_view key, const orbs3_version_owner_t& owner, const char* stamp, std::string_view id,
                 std::string_view displaced, const char* record)
{
    orbs3_object_ptr o(orbs3_create_object_block());
    if (!o)
        return -1;
    INIT_LIST_HEAD(&o->tags);
    INIT_LIST_HEAD(&o->meta);
    o->delete_marker = 1;
    std::snprintf(o->fpath, sizeof o->fpath, "%s", record);
    orbs3_pool_t* pool = o->pool;
    if (!pool_set(pool, &o->name, key) || !pool_set(pool, &o->last_modified, stamp) ||
        !pool_set(pool, &o->owner_id, owner.id) || !pool_set(pool, &o->owner_display_name, owner.display_name) ||
        !pool_set(pool, &o->version_id, id) || !pool_set(pool, &o->displaced, displaced))
        return -1;
    if (orbs3_make_dir_by_object_path(record) != 0)
        return -1;
    return orbs3_save_object(o.get(), record);
}

// Brings the recycled content `suffix` of `key` back to its live place, replacing nothing. 1 when it
// came back, 0 when it is not in the recycle tree or something is live already, -1 on a failure (it then
// stays where it was).
int bring_back(const orbs3_bucket_t* bucket, std::string_view key, std::string_view suffix,
               const orbs3_object_path_t* path)
{
    orbs3_version_file_t from;
    if (suffix.empty() || orbs3_version_paths(neo_getstr(&bucket->recycle_dir), key, suffix, &from) != 0 ||
        !regular_file(from.data))
        return 0;
    const orbs3_version_file_t live = orbs3_version_live_file(path);
    if (orbs3_version_move(&from, &live) == 0)
        return 1;
    if (errno == EEXIST)
        return 0;
    ipd_log(LOG_ERR, "%s not brought back to %s: %s", from.data, path->data_path, std::strerror(errno));
    return -1;
}

// The newest version of the key made live when nothing is; counted back into the statistics.
int promote(const orbs3_bucket_t* bucket, std::string_view key, const orbs3_object_path_t* path,
            orbs3_version_delete_t* out)
{
    const int rc = orbs3_version_promote(bucket, key, path);
    if (rc == 1) {
        out->gone.objects--;
        out->gone.bytes -= live_size(path);
        return 0;
    }
    return rc;
}

// The live content to the recycle tree, counted out. *suffix gets its name there (empty: no bytes went).
int live_to_recycle(const orbs3_bucket_t* bucket, std::string_view key, orbs3_version_delete_t* out,
                    suffix_t& suffix)
{
    int64_t size = 0;
    const int rc = orbs3_delete_object_to_recycle(bucket, key, &size, &suffix);
    if (rc == ORBS3_RECYCLE_MOVED) {
        out->gone.objects++;
        out->gone.bytes += size;
        return 0;
    }
    return rc == ORBS3_RECYCLE_NOTHING ? 0 : rc;
}

}  // namespace

int orbs3_version_delete_latest(const orbs3_bucket_t* bucket, std::string_view key,
                                const orbs3_version_owner_t& owner, orbs3_version_delete_t* out)
{
    orbs3_object_path_t path;
    if (key.empty() || key.back() == '/' || orbs3_make_object_path(bucket, key, "", &path) != 0)
        return ORBS3_S3_KEY_TOO_LONG;
    const std::string_view tree(neo_getstr(&bucket->version_dir));
    char stamp[32];
    orbs3_version_record_stamp(time(nullptr), stamp);
    suffix_t id;
    orbs3_version_file_t marker;
    if (orbs3_version_new_suffix(stamp, id) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    if (orbs3_version_paths(tree, key, id, &marker) != 0)
        return ORBS3_S3_KEY_TOO_LONG;
    std::vector<orbs3_version_entry_t> list;
    if (orbs3_version_list_key(tree, key, &list) != 0)
        return ORBS3_S3_INTERNAL_ERROR;

    suffix_t displaced = "";
    if (int rc = live_to_recycle(bucket, key, out, displaced); rc != 0)
        return rc;
    if (write_marker(key, owner, stamp, id, displaced, marker.record) != 0) {
        // Without its marker the delete did not happen: the content goes back where it was.
        ipd_log(LOG_ERR, "delete marker %s not written: %s", marker.record, std::strerror(errno));
        if (bring_back(bucket, key, displaced, &path) == 1) {
            out->gone = {};
        } else {
            orbs3_remove_emptied_dirs(bucket, key);
        }
        return ORBS3_S3_INTERNAL_ERROR;
    }
    orbs3_remove_emptied_dirs(bucket, key);
    out->delete_marker = true;
    copy_id(id, out->version_id);
    // The marker counts in the bound like any version; with no versions kept at all the key still keeps
    // its one marker, or GET could not tell that the key was deleted.
    const int64_t bound = bucket->versioning.save_num > 0 ? bucket->versioning.save_num : 1;
    if (static_cast<int64_t>(list.size()) >= bound && orbs3_version_retire_eldest(bucket, key, list) != 0)
        ipd_log(LOG_ERR, "eldest version of %.*s in %s not retired: one version more than kept",
                static_cast<int>(key.size()), key.data(), tree.data());
    return 0;
}

int orbs3_version_delete_id(const orbs3_bucket_t* bucket, std::string_view key, std::string_view id,
                            orbs3_version_delete_t* out)
{
    orbs3_version_ref_t ref;
    const int found = orbs3_version_find(bucket, key, id, &ref);
    if (found == ORBS3_S3_INVALID_ARGUMENT)
        return found;
    copy_id(id, out->version_id);
    if (found == ORBS3_S3_NO_SUCH_VERSION)
        return 0;
    if (found != 0)
        return found;
    orbs3_object_path_t path;
    if (orbs3_make_object_path(bucket, key, "", &path) != 0)
        return ORBS3_S3_KEY_TOO_LONG;

    if (ref.place == orbs3_version_place_t::live) {
        suffix_t recycled;
        if (int rc = live_to_recycle(bucket, key, out, recycled); rc != 0)
            return rc;
        const int rc = promote(bucket, key, &path, out);
        if (out->gone.objects > 0)
            orbs3_remove_emptied_dirs(bucket, key);
        return rc;
    }

    const std::string_view tree(neo_getstr(&bucket->version_dir));
    if (!ref.delete_marker) {
        if (orbs3_version_to_recycle(bucket, key, &ref.file, suffix_of(ref.file.data)) != 0)
            return ORBS3_S3_INTERNAL_ERROR;
        // Normally the newest version is older than the live content; when nothing is live it becomes it.
        return promote(bucket, key, &path, out);
    }

    out->delete_marker = true;
    std::vector<orbs3_version_entry_t> list;
    if (orbs3_version_list_key(tree, key, &list) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    const bool latest = !regular_file(path.data_path) && !list.empty() &&
                        std::string_view(list.front().suffix) == suffix_of(ref.file.record);
    bool back = false;
    if (latest) {
        // The content this marker took away comes back first: should that fail, the marker still says
        // the key is deleted, as it is.
        orbs3_object_ptr rec(orbs3_create_object_from_file(ref.file.record));
        const int rc = rec ? bring_back(bucket, key, orbs3_str_view(rec->displaced), &path) : 0;
        if (rc < 0)
            return ORBS3_S3_INTERNAL_ERROR;
        if (rc == 1) {
            back = true;
            out->gone.objects--;
            out->gone.bytes -= live_size(&path);
        }
    }
    if (unlink(ref.file.record) != 0 && errno != ENOENT) {
        ipd_log(LOG_ERR, "delete marker %s not removed: %s", ref.file.record, std::strerror(errno));
        return ORBS3_S3_INTERNAL_ERROR;
    }
    return latest && !back ? promote(bucket, key, &path, out) : 0;
}
