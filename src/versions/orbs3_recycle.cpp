#include "versions/orbs3_recycle.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "core/orbs3_log.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object_read.h"
#include "storage/orbs3_record.h"
#include "versions/orbs3_object_version.h"

int orbs3_delete_object_to_recycle(const orbs3_bucket_t* bucket, std::string_view key, int64_t* size,
                                   char (*suffix)[ORBS3_VERSION_SUFFIX_LEN + 1])
{
    *size = 0;
    if (suffix != nullptr)
        (*suffix)[0] = '\0';
    orbs3_object_path_t path;
    if (key.empty() || key.back() == '/' || orbs3_make_object_path(bucket, key, "", &path) != 0)
        return ORBS3_S3_INVALID_ARGUMENT;

    // The inode seen now is the content this delete takes away; a PUT that commits meanwhile brings
    // another, which is left alone.
    struct stat data {};
    const bool have_data = lstat(path.data_path, &data) == 0 && S_ISREG(data.st_mode);
    orbs3_object_ptr rec(orbs3_create_object_from_file(path.meta_path));
    if (!have_data) {
        // A record whose bytes are gone names nothing a client could read: it goes too.
        if (rec)
            *size = static_cast<int64_t>(rec->size);
        return unlink(path.meta_path) == 0 ? ORBS3_RECYCLE_MOVED : ORBS3_RECYCLE_NOTHING;
    }
    *size = rec ? static_cast<int64_t>(rec->size) : static_cast<int64_t>(data.st_size);

    char name[ORBS3_VERSION_SUFFIX_LEN + 1];
    if (orbs3_version_leaving_suffix(rec.get(), path.data_path, name) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    orbs3_version_file_t recycled;
    if (orbs3_version_paths(neo_getstr(&bucket->recycle_dir), key, name, &recycled) != 0)
        return ORBS3_S3_KEY_TOO_LONG;

    // Record first, then bytes, neither replacing anything; a failure puts the record back.
    const orbs3_version_file_t live = orbs3_version_live_file(&path);
    char used[ORBS3_VERSION_SUFFIX_LEN + 1];
    if (orbs3_version_to_recycle(bucket, key, &live, name, &used) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    if (orbs3_version_paths(neo_getstr(&bucket->recycle_dir), key, used, &recycled) != 0)
        return ORBS3_S3_INTERNAL_ERROR;

    struct stat moved {};
    if (stat(recycled.data, &moved) != 0 || moved.st_ino != data.st_ino || moved.st_dev != data.st_dev) {
        // A writer replaced the bytes between the look and the move: its object stands, with the record
        // it wrote (or is writing). The content this delete came for was gone already, so its record
        // is forgotten; the writer's bytes go back, never over anything newer.
        if (orbs3_move_noreplace(recycled.record, path.meta_path) != 0)
            (void)unlink(recycled.record);
        if (orbs3_move_noreplace(recycled.data, path.data_path) != 0)
            ipd_log(LOG_ERR, "%s replaced during its delete stays recycled at %s: %s", path.data_path,
                    recycled.data, std::strerror(errno));
        return ORBS3_RECYCLE_NOTHING;
    }
    if (suffix != nullptr)
        std::snprintf(*suffix, sizeof *suffix, "%s", used);
    return ORBS3_RECYCLE_MOVED;
}
