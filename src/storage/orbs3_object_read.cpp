#include "storage/orbs3_object_read.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_multipart.h"
#include "storage/orbs3_object_store.h"

int orbs3_object_open(const orbs3_bucket_t* bucket, std::string_view key, orbs3_object_source_t* out)
{
    orbs3_object_path_t path;
    if (orbs3_make_object_path(bucket, key, "", &path) != 0)
        return ORBS3_S3_KEY_TOO_LONG;
    time_t file_mtime = 0;
    if (key.back() == '/') {
        char marker[ORBS3_PATH_AREA];
        if (orbs3_object_dir_marker_path(path.meta_path, marker) != 0)
            return ORBS3_S3_KEY_TOO_LONG;
        out->record.reset(orbs3_create_object_from_file(marker));
        if (!out->record)
            return ORBS3_S3_NO_SUCH_KEY;
        out->record->size = 0;
    } else {
        out->file.reset(open(path.data_path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
        struct stat st {};
        if (!out->file.valid() || fstat(out->file.get(), &st) != 0 || !S_ISREG(st.st_mode))
            return ORBS3_S3_NO_SUCH_KEY;
        out->size = st.st_size;
        file_mtime = st.st_mtime;
        // The record counts only when it describes this file: a record that lags behind a commit in
        // progress would give another content's ETag and metadata.
        out->record.reset(orbs3_create_object_from_file(path.meta_path));
        if (out->record && static_cast<int64_t>(out->record->size) != out->size)
            out->record.reset();
    }
    const orbs3_object_t* rec = out->record.get();
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
