// An object as a reader meets it: its data file opened, the record that describes that file, and the ETag
// and Last-Modified that GET, HEAD and a copy's source conditions judge it by. A data file without a
// record (or with one that lags behind a commit) is described by what the file itself tells.
#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <string_view>

#include "event/orbs3_fd.h"
#include "storage/orbs3_bucket.h"
#include "storage/orbs3_record.h"
#include "versions/orbs3_version_name.h"

struct orbs3_object_source_t {
    orbs3_fd file;              // the data file; not open for a directory object
    int64_t size = 0;
    orbs3_object_ptr record;    // null when there is none that describes the data file
    char etag[ORBS3_REC_ETAG_CAP + 1] = "";  // bare: the record's, or one derived from key, size and file time
    bool recorded_etag = false;  // `etag` is the record's: the MD5 of the content (or an assembly's)
    time_t mtime = 0;           // the record's time stamp, else the file's
    char version_id[ORBS3_VERSION_SUFFIX_LEN + 1] = "";  // the content's version id; empty: "null"
    // Set with NoSuchKey when the key's latest entry is a delete marker, and with MethodNotAllowed when
    // the version asked for is one; version_id is then the marker's.
    bool delete_marker = false;
    bool old_version = false;  // opened from the version tree, not the key's live object
};

// Opens `key` of the bucket. A directory key ("a/") is its record alone, with no bytes; a directory that
// only holds other keys is no object. 0, or NoSuchKey (out->delete_marker set when the newest entry of
// the key's versions is a delete marker), KeyTooLong.
[[nodiscard]] int orbs3_object_open(const orbs3_bucket_t* bucket, std::string_view key, orbs3_object_source_t* out);

// Opens the content of `key` whose bytes lie at `data_path` and its record at `record_path` (the live
// object's, or an old version's), described as orbs3_object_open describes a live object. 0 or NoSuchKey.
[[nodiscard]] int orbs3_object_open_file(std::string_view key, const char* data_path, const char* record_path,
                                         orbs3_object_source_t* out);

// Opens version `id` of `key`: the live object or one in the version tree, served with its own record.
// 0; MethodNotAllowed (out->delete_marker and version_id set) when `id` is a delete marker; or
// NoSuchVersion, InvalidArgument (an id that can't be one), KeyTooLong.
[[nodiscard]] int orbs3_object_open_version(const orbs3_bucket_t* bucket, std::string_view key, std::string_view id,
                                            orbs3_object_source_t* out);

// A record stamp "2026-07-01T12:00:00.000Z" as a time; -1 when it is not one.
[[nodiscard]] time_t orbs3_object_stamp_time(std::string_view stamp);

// Last-Modified in the form HTTP gives it, "Sun, 06 Nov 1994 08:49:37 GMT", whatever the locale.
void orbs3_object_http_date(time_t t, char* out, std::size_t room);

// `length` bytes at `offset` into `buf`. 0, or -1 when the file gives fewer or a read fails.
[[nodiscard]] int orbs3_object_read_at(int fd, uint8_t* buf, int64_t offset, int64_t length);

// ?partNumber=N of an object: part N of one assembled from parts, as its record lists them; an object sent
// whole (or without a record) is its only part. 0 with *offset and *length, *count set to the number of
// parts of an assembled object (0 otherwise) and *checksum to the part's; InvalidPartNumber when there is
// no such part.
[[nodiscard]] int orbs3_object_part(const orbs3_object_t* record, int64_t size, int part, int64_t* offset,
                                    int64_t* length, int* count, std::string_view* checksum);
