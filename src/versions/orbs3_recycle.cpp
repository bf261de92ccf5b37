#include "versions/orbs3_recycle.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include "core/orbs3_log.h"
#include "memory/orbs3_palloc.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_file_helpers.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_record.h"

namespace {

struct object_free {
    void operator()(orbs3_object_t* o) const noexcept { orbs3_free_object(o); }
};
using object_ptr = std::unique_ptr<orbs3_object_t, object_free>;

bool digits(std::string_view s, std::size_t at, std::size_t n, int* out)
{
    int v = 0;
    for (std::size_t i = at; i < at + n; i++) {
        if (s[i] < '0' || s[i] > '9')
            return false;
        v = v * 10 + (s[i] - '0');
    }
    *out = v;
    return true;
}

// The record's "YYYY-MM-DDThh:mm:ss" into its six numbers.
bool parse_stamp(std::string_view s, int f[6])
{
    if (s.size() < 19 || s[4] != '-' || s[7] != '-' || s[10] != 'T' || s[13] != ':' || s[16] != ':')
        return false;
    return digits(s, 0, 4, &f[0]) && digits(s, 5, 2, &f[1]) && digits(s, 8, 2, &f[2]) && digits(s, 11, 2, &f[3]) &&
           digits(s, 14, 2, &f[4]) && digits(s, 17, 2, &f[5]);
}

// A file's modification time in the record's form, for a data file that lost its record.
void stamp_of(time_t t, char* out, std::size_t room)
{
    struct tm tm {};
    gmtime_r(&t, &tm);
    std::snprintf(out, room, "%04d-%02d-%02dT%02d:%02d:%02d.000Z", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                  tm.tm_hour, tm.tm_min, tm.tm_sec);
}

// "<dir of path>/.orbs3-tmp-<uuid>": the record's hiding place while its object is being taken away. It
// carries the prefix of temporary files, which listings pass over.
bool hidden_name(const char* path, char* out, std::size_t room)
{
    std::string_view p(path);
    std::string_view dir = p.substr(0, p.rfind('/') + 1);
    char uuid[ORBS3_UUID_HEX_LEN + 1];
    orbs3_get_uuid_ex(uuid);
    int n = std::snprintf(out, room, "%.*s%.*s%s", static_cast<int>(dir.size()), dir.data(),
                          static_cast<int>(ORBS3_RECORD_TMP_PREFIX.size()), ORBS3_RECORD_TMP_PREFIX.data(), uuid);
    return n > 0 && static_cast<std::size_t>(n) < room;
}

}  // namespace

int orbs3_recycle_path(const orbs3_bucket_t* bucket, std::string_view key, std::string_view stamp, char* out,
                       std::size_t room)
{
    int f[6];
    if (room == 0 || !parse_stamp(stamp, f))
        return -1;
    int n = std::snprintf(out, room, "%s/%.*s..%04d_%02d_%02d_%02d_%02d_%02d", neo_getstr(&bucket->recycle_dir),
                          static_cast<int>(key.size()), key.data(), f[0], f[1], f[2], f[3], f[4], f[5]);
    if (n < 0 || static_cast<std::size_t>(n) >= room) {
        out[0] = '\0';
        return -1;
    }
    return 0;
}

int orbs3_delete_object_to_recycle(const orbs3_bucket_t* bucket, std::string_view key, int64_t* size)
{
    *size = 0;
    orbs3_object_path_t path;
    if (key.empty() || key.back() == '/' || orbs3_make_object_path(bucket, key, "", &path) != 0)
        return ORBS3_S3_INVALID_ARGUMENT;

    // The inode seen now is the content this delete takes away; a PUT that commits meanwhile brings
    // another, which is left alone.
    struct stat data {};
    bool have_data = lstat(path.data_path, &data) == 0 && S_ISREG(data.st_mode);
    object_ptr rec(orbs3_create_object_from_file(path.meta_path));
    if (!have_data && !rec) {
        // A record whose bytes are gone names nothing a client could read: it goes too.
        return unlink(path.meta_path) == 0 ? ORBS3_RECYCLE_MOVED : ORBS3_RECYCLE_NOTHING;
    }
    *size = rec ? static_cast<int64_t>(rec->size) : static_cast<int64_t>(data.st_size);
    if (!have_data)
        return unlink(path.meta_path) == 0 ? ORBS3_RECYCLE_MOVED : ORBS3_RECYCLE_NOTHING;

    char stamp[96];
    if (rec && rec->last_modified.len != 0)
        std::snprintf(stamp, sizeof stamp, "%s", neo_getstr(&rec->last_modified));
    else
        stamp_of(data.st_mtime, stamp, sizeof stamp);
    char recycle[ORBS3_PATH_AREA];
    if (orbs3_recycle_path(bucket, key, stamp, recycle, sizeof recycle) != 0) {
        stamp_of(data.st_mtime, stamp, sizeof stamp);
        if (orbs3_recycle_path(bucket, key, stamp, recycle, sizeof recycle) != 0)
            return ORBS3_S3_KEY_TOO_LONG;
    }

    // The record steps aside first: from here on no listing names the object, and the move below can
    // still be undone by putting it back.
    char hidden[ORBS3_PATH_AREA] = "";
    bool had_record = false;
    if (!hidden_name(path.meta_path, hidden, sizeof hidden))
        return ORBS3_S3_KEY_TOO_LONG;
    if (rename(path.meta_path, hidden) == 0)
        had_record = true;
    else if (errno != ENOENT)
        return ORBS3_S3_INTERNAL_ERROR;

    auto put_back = [&] {
        if (had_record && rename(hidden, path.meta_path) != 0)
            ipd_log(LOG_ERR, "record %s not put back: %s", path.meta_path, std::strerror(errno));
    };

    // The bucket's recycle directory itself may be missing too: it is made with the key's directories.
    int rc = orbs3_make_dir_by_object_path(recycle);
    if (rc == 0 && link(path.data_path, recycle) != 0) {
        // Two contents of one key written in the same second share a recycled name: the later wins.
        rc = errno == EEXIST && unlink(recycle) == 0 && link(path.data_path, recycle) == 0 ? 0 : -1;
    }
    if (rc != 0) {
        ipd_log(LOG_ERR, "%s not moved to %s: %s", path.data_path, recycle, std::strerror(errno));
        put_back();
        return ORBS3_S3_INTERNAL_ERROR;
    }
    struct stat moved {};
    if (stat(recycle, &moved) != 0 || moved.st_ino != data.st_ino || moved.st_dev != data.st_dev) {
        // A PUT replaced the bytes between the look and the link: its object stands, with the record it
        // wrote (or is writing). The delete came first and took nothing left to take.
        (void)unlink(recycle);
        if (had_record)
            (void)unlink(hidden);
        return ORBS3_RECYCLE_NOTHING;
    }
    struct stat now {};
    if (lstat(path.data_path, &now) == 0 && now.st_ino == data.st_ino && now.st_dev == data.st_dev &&
        unlink(path.data_path) != 0) {
        ipd_log(LOG_ERR, "%s not unlinked after its move to %s: %s", path.data_path, recycle, std::strerror(errno));
        (void)unlink(recycle);
        put_back();
        return ORBS3_S3_INTERNAL_ERROR;
    }
    if (had_record)
        (void)unlink(hidden);
    return ORBS3_RECYCLE_MOVED;
}
