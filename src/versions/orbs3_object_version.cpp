#include "versions/orbs3_object_version.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include "core/orbs3_log.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_record.h"

namespace {

bool exists(const char* path)
{
    struct stat st {};
    return lstat(path, &st) == 0;
}

bool regular_file(const char* path)
{
    struct stat st {};
    return lstat(path, &st) == 0 && S_ISREG(st.st_mode);
}

// A fresh suffix with the stamp of `suffix` (its first 19 bytes when they are the padded form), else of now.
int fresh_like(std::string_view suffix, char (&out)[ORBS3_VERSION_SUFFIX_LEN + 1])
{
    char stamp[64];
    if (suffix.size() >= ORBS3_VERSION_STAMP_LEN && suffix[4] == '_' && suffix[7] == '_' && suffix[10] == '_' &&
        suffix[13] == '_' && suffix[16] == '_') {
        std::snprintf(stamp, sizeof stamp, "%.4s-%.2s-%.2sT%.2s:%.2s:%.2s", suffix.data(), suffix.data() + 5,
                      suffix.data() + 8, suffix.data() + 11, suffix.data() + 14, suffix.data() + 17);
        if (orbs3_version_new_suffix(stamp, out) == 0)
            return 0;
    }
    char now[32];
    orbs3_version_record_stamp(time(nullptr), now);
    return orbs3_version_new_suffix(now, out);
}

}  // namespace

bool orbs3_versioning_ever_set(const orbs3_bucket_t* bucket)
{
    return bucket->versioning.status == 1 || bucket->versioning.save_num != 0;
}

orbs3_version_file_t orbs3_version_live_file(const orbs3_object_path_t* path)
{
    orbs3_version_file_t f;
    std::snprintf(f.data, sizeof f.data, "%s", path->data_path);
    std::snprintf(f.record, sizeof f.record, "%s", path->meta_path);
    return f;
}

int orbs3_version_move(const orbs3_version_file_t* from, const orbs3_version_file_t* to)
{
    const bool has_record = exists(from->record);
    const bool has_data = exists(from->data);
    if (!has_record && !has_data) {
        errno = ENOENT;
        return -1;
    }
    // The live place keeps bytes and record in two trees: each side gets its own directories.
    if ((has_data && orbs3_make_dir_by_object_path(to->data) != 0) ||
        (has_record && orbs3_make_dir_by_object_path(to->record) != 0))
        return -1;
    if (has_record && orbs3_move_noreplace(from->record, to->record) != 0)
        return -1;
    if (has_data && orbs3_move_noreplace(from->data, to->data) != 0) {
        const int err = errno;
        if (has_record && orbs3_move_noreplace(to->record, from->record) != 0)
            ipd_log(LOG_ERR, "record %s not put back from %s: %s", from->record, to->record, std::strerror(errno));
        errno = err;
        return -1;
    }
    return 0;
}

int orbs3_version_to_recycle(const orbs3_bucket_t* bucket, std::string_view key, const orbs3_version_file_t* from,
                             std::string_view suffix, char (*used)[ORBS3_VERSION_SUFFIX_LEN + 1])
{
    const std::string_view tree(neo_getstr(&bucket->recycle_dir));
    char fresh[ORBS3_VERSION_SUFFIX_LEN + 1];
    std::string_view name = suffix;
    for (int attempt = 0; attempt < 4; attempt++) {
        orbs3_version_file_t to;
        if (orbs3_version_paths(tree, key, name, &to) != 0)
            return ORBS3_VERSION_MOVE_FAILED;
        if (orbs3_version_move(from, &to) == 0) {
            if (used != nullptr)
                std::snprintf(*used, sizeof *used, "%.*s", static_cast<int>(name.size()), name.data());
            return 0;
        }
        if (errno != EEXIST) {
            ipd_log(LOG_ERR, "%s not moved to %s: %s", from->data, to.data, std::strerror(errno));
            return ORBS3_VERSION_MOVE_FAILED;
        }
        // Taken: a file from before names were unique, or the freak clash of two tails.
        if (fresh_like(suffix, fresh) != 0)
            return ORBS3_VERSION_MOVE_FAILED;
        name = fresh;
    }
    return ORBS3_VERSION_MOVE_FAILED;
}

int orbs3_version_recycle_nulls(const orbs3_bucket_t* bucket, std::string_view key,
                                std::vector<orbs3_version_entry_t>* list)
{
    const std::string_view tree(neo_getstr(&bucket->version_dir));
    for (auto it = list->begin(); it != list->end();) {
        orbs3_version_file_t f;
        orbs3_object_ptr rec;
        if (it->has_data && it->has_record && orbs3_version_paths(tree, key, it->suffix, &f) == 0)
            rec.reset(orbs3_create_object_from_file(f.record));
        if (rec && rec->delete_marker == 0 && orbs3_object_version_id(rec.get()) == ORBS3_NULL_VERSION_ID) {
            if (orbs3_version_to_recycle(bucket, key, &f, it->suffix) != 0)
                return ORBS3_VERSION_MOVE_FAILED;
            it = list->erase(it);
        } else {
            ++it;
        }
    }
    return 0;
}

int orbs3_version_retire_eldest(const orbs3_bucket_t* bucket, std::string_view key,
                                const std::vector<orbs3_version_entry_t>& list)
{
    if (list.empty())
        return ORBS3_VERSION_RETIRE_FAILED;
    const orbs3_version_entry_t& eldest = list.back();
    orbs3_version_file_t from;
    if (orbs3_version_paths(neo_getstr(&bucket->version_dir), key, eldest.suffix, &from) != 0)
        return ORBS3_VERSION_RETIRE_FAILED;
    if (!eldest.has_data) {
        // A delete marker holds no content: retiring it is forgetting it.
        return unlink(from.record) == 0 || errno == ENOENT ? 0 : ORBS3_VERSION_RETIRE_FAILED;
    }
    return orbs3_version_to_recycle(bucket, key, &from, eldest.suffix) == 0 ? 0 : ORBS3_VERSION_RETIRE_FAILED;
}

int orbs3_object_version_update(const orbs3_bucket_t* bucket, std::string_view key, const orbs3_object_path_t* path,
                                bool new_is_null)
{
    if (!orbs3_versioning_ever_set(bucket) || key.empty() || key.back() == '/')
        return 0;
    const bool enabled = bucket->versioning.status == 1;
    const std::string_view tree(neo_getstr(&bucket->version_dir));
    orbs3_object_ptr live(orbs3_create_object_from_file(path->meta_path));
    const std::string_view live_id = orbs3_object_version_id(live.get());
    const bool live_there = regular_file(path->data_path);
    const bool keep = live_there && (live_id != ORBS3_NULL_VERSION_ID || enabled);
    if (!keep && !new_is_null)
        return 0;

    std::vector<orbs3_version_entry_t> list;
    if (orbs3_version_list_key(tree, key, &list) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    // One "null" per key: the new content takes the id, the old "null" version leaves the history.
    if (new_is_null && orbs3_version_recycle_nulls(bucket, key, &list) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    if (!keep)
        return 0;

    const orbs3_version_file_t from = orbs3_version_live_file(path);
    char suffix[ORBS3_VERSION_SUFFIX_LEN + 1];
    if (orbs3_version_leaving_suffix(live.get(), path->data_path, suffix) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    if (bucket->versioning.save_num <= 0)
        return orbs3_version_to_recycle(bucket, key, &from, suffix) == 0 ? 0 : ORBS3_S3_INTERNAL_ERROR;

    orbs3_version_file_t to;
    if (orbs3_version_paths(tree, key, suffix, &to) != 0)
        return ORBS3_S3_KEY_TOO_LONG;
    if (orbs3_version_move(&from, &to) != 0) {
        ipd_log(LOG_ERR, "%s not kept as version %s: %s", path->data_path, to.data, std::strerror(errno));
        return ORBS3_S3_INTERNAL_ERROR;
    }
    // The bound counts the versions there were before this one, so that the key settles at save_num.
    if (static_cast<int64_t>(list.size()) >= bucket->versioning.save_num &&
        orbs3_version_retire_eldest(bucket, key, list) != 0)
        ipd_log(LOG_ERR, "eldest version of %.*s in %s not retired: one version more than kept",
                static_cast<int>(key.size()), key.data(), neo_getstr(&bucket->version_dir));
    return 0;
}

int orbs3_version_promote(const orbs3_bucket_t* bucket, std::string_view key, const orbs3_object_path_t* path)
{
    if (key.empty() || key.back() == '/' || exists(path->data_path))
        return 0;
    const std::string_view tree(neo_getstr(&bucket->version_dir));
    std::vector<orbs3_version_entry_t> list;
    if (orbs3_version_list_key(tree, key, &list) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    if (list.empty() || !list.front().has_data)
        return 0;  // no versions, or the newest is a delete marker: the key stays deleted
    orbs3_version_file_t from;
    if (orbs3_version_paths(tree, key, list.front().suffix, &from) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    if (orbs3_make_dir_by_name(key, path->data_path) != 0 || orbs3_make_dir_by_name(key, path->meta_path) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    // The bytes first, without replacing: a writer that committed meanwhile keeps its object.
    if (orbs3_move_noreplace(from.data, path->data_path) != 0)
        return errno == EEXIST ? 0 : ORBS3_S3_INTERNAL_ERROR;
    if (exists(from.record) && rename(from.record, path->meta_path) != 0) {
        ipd_log(LOG_ERR, "record %s not made live at %s: %s", from.record, path->meta_path, std::strerror(errno));
        return ORBS3_S3_INTERNAL_ERROR;
    }
    return 1;
}
