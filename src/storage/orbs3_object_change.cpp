#include "storage/orbs3_object_change.h"

#include <sys/stat.h>

#include <cstdio>

#include "core/orbs3_log.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_object_commit.h"
#include "storage/orbs3_object_tagging.h"
#include "versions/orbs3_version_name.h"

namespace {

// Whether the data file the target was opened from still stands at its path: a writer that takes no
// commit lock (a copy, an append, a delete) may have replaced or removed it since, and then the record in
// hand describes bytes that are gone. A directory object has no data file.
bool still_there(const orbs3_object_target_t& t)
{
    if (!t.src.file.valid())
        return true;
    struct stat open_st {}, now_st {};
    return fstat(t.src.file.get(), &open_st) == 0 && stat(t.data, &now_st) == 0 && open_st.st_ino == now_st.st_ino &&
           open_st.st_dev == now_st.st_dev;
}

}  // namespace

int orbs3_object_target_open(const orbs3_bucket_t* bucket, std::string_view key, std::string_view id,
                             orbs3_object_target_t* t)
{
    if (id.empty()) {
        if (int rc = orbs3_object_open(bucket, key, &t->src); rc != 0)
            return rc;
        orbs3_object_path_t path;
        if (orbs3_make_object_path(bucket, key, "", &path) != 0)
            return ORBS3_S3_KEY_TOO_LONG;
        std::snprintf(t->data, sizeof t->data, "%s", path.data_path);
        if (key.back() == '/')
            return orbs3_object_dir_marker_path(path.meta_path, t->record) == 0 ? 0 : ORBS3_S3_KEY_TOO_LONG;
        std::snprintf(t->record, sizeof t->record, "%s", path.meta_path);
        return 0;
    }
    orbs3_version_ref_t ref;
    if (int rc = orbs3_version_find(bucket, key, id, &ref); rc != 0)
        return rc;
    if (ref.delete_marker)
        return ORBS3_S3_METHOD_NOT_ALLOWED;
    if (orbs3_object_open_file(key, ref.file.data, ref.file.record, &t->src) != 0)
        return ORBS3_S3_NO_SUCH_VERSION;
    std::snprintf(t->record, sizeof t->record, "%s", ref.file.record);
    std::snprintf(t->data, sizeof t->data, "%s", ref.file.data);
    return 0;
}

int orbs3_object_change_record(const orbs3_bucket_t* bucket, std::string_view key, std::string_view id,
                               const orbs3_record_change_t& change, std::string* version_id)
{
    orbs3_object_path_t live;
    if (orbs3_make_object_path(bucket, key, "", &live) != 0)
        return ORBS3_S3_KEY_TOO_LONG;
    // A directory object is its record alone, and its PUT locks the directory of that record.
    char marker[ORBS3_PATH_AREA];
    if (key.back() == '/' && orbs3_object_dir_marker_path(live.meta_path, marker) != 0)
        return ORBS3_S3_KEY_TOO_LONG;
    orbs3_commit_lock_t lock;
    if (orbs3_commit_lock(key.back() == '/' ? marker : live.data_path, &lock) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    orbs3_object_target_t t;
    if (int rc = orbs3_object_target_open(bucket, key, id, &t); rc != 0)
        return rc;
    *version_id = t.src.version_id;
    // Content without a record that describes it (kept from before records, or a record behind its
    // bytes) has nowhere to keep a change; clearing tags it never had is done.
    if (t.src.record == nullptr || (t.src.file.valid() && !t.src.recorded_etag))
        return !change.set_acl && change.tags.empty() ? 0 : ORBS3_S3_INTERNAL_ERROR;
    if (change.set_acl)
        t.src.record->acl = change.acl;
    if (change.set_tags && orbs3_object_set_tags(t.src.record.get(), change.tags) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    if (!still_there(t))
        return id.empty() ? ORBS3_S3_NO_SUCH_KEY : ORBS3_S3_NO_SUCH_VERSION;
    if (orbs3_save_object(t.src.record.get(), t.record) != 0) {
        ipd_log(LOG_ERR, "record %s not written", t.record);
        return ORBS3_S3_INTERNAL_ERROR;
    }
    return 0;
}
