#include "storage/orbs3_object_read.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_multipart.h"
#include "storage/orbs3_object_store.h"
#include "versions/orbs3_object_version.h"

namespace {

// The ETag, time and version id of an opened content, from its record or, without one, its file.
void describe(std::string_view key, time_t file_mtime, orbs3_object_source_t* out)
{
    const orbs3_object_t* rec = out->record.get();
    const std::string_view id = rec != nullptr ? orbs3_str_view(rec->version_id) : std::string_view();
    const std::size_t n = std::min(id.size(), sizeof out->version_id - 1);
    if (n != 0)
        std::memcpy(out->version_id, id.data(), n);
    out->version_id[n] = '\0';
    out->mtime = rec != nullptr ? orbs3_object_stamp_time(orbs3_str_view(rec->last_modified)) : -1;
    if (out->mtime < 0)
        out->mtime = file_mtime;
    out->recorded_etag = rec != nullptr && rec->etag.len != 0;
    if (out->recorded_etag) {
        std::snprintf(out->etag, sizeof out->etag, "%.*s", static_cast<int>(rec->etag.len), rec->etag.data);
    } else {
        char stamp[32];
        std::snprintf(stamp, sizeof stamp, "%lld", static_cast<long long>(file_mtime));
        Compute_file_md5(key, out->size, stamp, out->etag);
    }
}

// For a key without a live object: when the newest entry of its versions is a delete marker, out says so
// and gets the marker's id.
void find_latest_marker(const orbs3_bucket_t* bucket, std::string_view key, orbs3_object_source_t* out)
{
    const std::string_view tree(neo_getstr(&bucket->version_dir));
    std::vector<orbs3_version_entry_t> list;
    if (orbs3_version_list_key(tree, key, &list) != 0 || list.empty() || list.front().has_data ||
        !list.front().has_record)
        return;
    orbs3_version_file_t f;
    if (orbs3_version_paths(tree, key, list.front().suffix, &f) != 0)
        return;
    orbs3_object_ptr rec(orbs3_create_object_from_file(f.record));
    if (!rec || rec->delete_marker == 0)
        return;
    const std::string_view id = orbs3_object_version_id(rec.get());
    std::snprintf(out->version_id, sizeof out->version_id, "%.*s", static_cast<int>(id.size()), id.data());
    out->delete_marker = true;
}

}  // namespace

int orbs3_object_open_file(std::string_view key, const char* data_path, const char* record_path,
                           orbs3_object_source_t* out)
{
    out->file.reset(open(data_path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st {};
    if (!out->file.valid() || fstat(out->file.get(), &st) != 0 || !S_ISREG(st.st_mode))
        return ORBS3_S3_NO_SUCH_KEY;
    out->size = st.st_size;
    // The record counts only when it describes this file: a record that lags behind a commit in progress
    // would give another content's ETag and metadata.
    out->record.reset(orbs3_create_object_from_file(record_path));
    if (out->record && static_cast<int64_t>(out->record->size) != out->size)
        out->record.reset();
    describe(key, st.st_mtime, out);
    return 0;
}

int orbs3_object_open(const orbs3_bucket_t* bucket, std::string_view key, orbs3_object_source_t* out)
{
    orbs3_object_path_t path;
    if (orbs3_make_object_path(bucket, key, "", &path) != 0)
        return ORBS3_S3_KEY_TOO_LONG;
    if (key.back() != '/') {
        const int rc = orbs3_object_open_file(key, path.data_path, path.meta_path, out);
        if (rc == ORBS3_S3_NO_SUCH_KEY && orbs3_versioning_ever_set(bucket))
            find_latest_marker(bucket, key, out);
        return rc;
    }
    char marker[ORBS3_PATH_AREA];
    if (orbs3_object_dir_marker_path(path.meta_path, marker) != 0)
        return ORBS3_S3_KEY_TOO_LONG;
    out->record.reset(orbs3_create_object_from_file(marker));
    if (!out->record)
        return ORBS3_S3_NO_SUCH_KEY;
    out->record->size = 0;
    describe(key, 0, out);
    return 0;
}

int orbs3_object_open_version(const orbs3_bucket_t* bucket, std::string_view key, std::string_view id,
                              orbs3_object_source_t* out)
{
    orbs3_version_ref_t ref;
    if (int rc = orbs3_version_find(bucket, key, id, &ref); rc != 0)
        return rc;
    if (ref.delete_marker) {
        out->delete_marker = true;
        std::snprintf(out->version_id, sizeof out->version_id, "%.*s", static_cast<int>(id.size()), id.data());
        return ORBS3_S3_METHOD_NOT_ALLOWED;
    }
    // Gone between the finding and the opening: a delete or a newer write moved it on.
    if (orbs3_object_open_file(key, ref.file.data, ref.file.record, out) != 0)
        return ORBS3_S3_NO_SUCH_VERSION;
    out->old_version = ref.place == orbs3_version_place_t::version;
    // A version kept from before records carried ids answers to the suffix it lies under.
    if (out->version_id[0] == '\0' && ref.place == orbs3_version_place_t::version && out->record == nullptr)
        std::snprintf(out->version_id, sizeof out->version_id, "%.*s", static_cast<int>(id.size()), id.data());
    return 0;
}

time_t orbs3_object_stamp_time(std::string_view stamp)
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

void orbs3_object_http_date(time_t t, char* out, std::size_t room)
{
    static constexpr const char* days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    struct tm tm {};
    gmtime_r(&t, &tm);
    std::snprintf(out, room, "%s, %02d %s %04d %02d:%02d:%02d GMT", days[tm.tm_wday % 7], tm.tm_mday,
                  months[tm.tm_mon % 12], tm.tm_year + 1900, tm.tm_hour, tm.tm_min, tm.tm_sec);
}

int orbs3_object_read_at(int fd, uint8_t* buf, int64_t offset, int64_t length)
{
    int64_t got = 0;
    while (got < length) {
        ssize_t n = pread(fd, buf + got, static_cast<std::size_t>(length - got), offset + got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return -1;
        got += n;
    }
    return 0;
}

int orbs3_object_part(const orbs3_object_t* record, int64_t size, int part, int64_t* offset, int64_t* length,
                      int* count, std::string_view* checksum)
{
    *offset = 0;
    *length = size;
    *count = 1;
    const int found = record != nullptr && record->parts.len != 0
                          ? orbs3_multipart_find_part(orbs3_str_view(record->parts), size, part, offset, length, count)
                          : -1;
    if (found == 1 || (found < 0 && part != 1))
        return ORBS3_S3_INVALID_PART_NUMBER;
    if (found < 0) {
        *count = 0;
        return 0;
    }
    *checksum = orbs3_multipart_nth_word(orbs3_str_view(record->part_checksums), part);
    return 0;
}
