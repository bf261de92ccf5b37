// What the store keeps of an object besides its bytes: which keys it takes, how large an object may be,
// the object's record, and its place in the bucket's and the tenant's counts.
#pragma once

#include <cstdint>
#include <string_view>

#include "storage/orbs3_bucket.h"
#include "storage/orbs3_layout.h"

struct orbs3_user_t;
struct orbs3_vhost_t;

// 0 when an object of `length` bytes is allowed by the tenant's and the bucket's file_threshold (in
// kilobytes, 0 or unset: no limit; a length equal to the threshold passes), 1 when not.
[[nodiscard]] int orbs3_check_object_size(const orbs3_vhost_t* vhost, const orbs3_bucket_t* bucket, int64_t length);

// The ETag of an object without a digest of its content (a directory object): the MD5, in hex, of
// "<name>:<size>:<last_modified>". `out` gets 32 digits and a NUL.
void Compute_file_md5(std::string_view name, int64_t size, std::string_view last_modified, char out[33]);

// 0 when `key` can be an object's key, as sent: legal as a path (orbs3_check_objectname: no empty, "."
// or ".." component, no leading "/"), no component starting with ORBS3_RESERVED_PREFIX, which names the
// server's own files, well-formed UTF-8 and free of the control bytes XML can't carry. Else InvalidURI
// (not UTF-8), InvalidArgument (the rest) or KeyTooLong, with *message (when given) set to the reason
// for the client, or null for the code's own text.
[[nodiscard]] int orbs3_object_key_status(std::string_view key, const char** message = nullptr);

// The record of the directory object whose meta path (ending in "/") is `meta_path`: ORBS3_DIR_MARKER in
// that directory. 0, or -1 when it does not fit `out`.
[[nodiscard]] int orbs3_object_dir_marker_path(const char* meta_path, char out[ORBS3_PATH_AREA]);

// The largest object file_threshold allows, in bytes; -1 when there is no limit.
[[nodiscard]] int64_t orbs3_object_size_limit(const orbs3_vhost_t* vhost, const orbs3_bucket_t* bucket);

// What an uploader says of an object besides its bytes, as views into the request or the record it came from.
inline constexpr std::size_t ORBS3_OBJECT_META_MAX = 64;  // x-amz-meta-* headers of one object
inline constexpr std::size_t ORBS3_OBJECT_TAGS_MAX = 10;  // tags of one object
struct orbs3_object_meta_t {
    std::string_view content_type;
    std::string_view cache_control;
    std::string_view content_disposition;
    std::string_view content_encoding;  // without the "aws-chunked" of the transfer
    std::string_view expires;
    std::string_view checksum_algorithm;  // "CRC32", ... once the upload's checksum matched
    std::string_view checksum;
    std::string_view upload_id;  // the multipart upload completed into the object
    std::string_view version_id;  // the content's version id; empty: "null"
    std::string_view parts;           // of an assembled object, as its record keeps them
    std::string_view part_checksums;
    uint32_t acl = ORBS3_ACL_FULL_CONTROL;  // the mask of s3/orbs3_s3_acl.h the uploader gave
    std::size_t n = 0;
    std::string_view keys[ORBS3_OBJECT_META_MAX];  // lower case, without "x-amz-meta-"
    std::string_view values[ORBS3_OBJECT_META_MAX];
    // The content's tags, in order (S3 allows 10 to an object).
    std::size_t ntags = 0;
    std::string_view tag_keys[ORBS3_OBJECT_TAGS_MAX];
    std::string_view tag_values[ORBS3_OBJECT_TAGS_MAX];
};

// Writes the object's record at `meta_path` (its directories made as needed), replacing any old one
// whole: owner `owner`, meta->acl, the given ETag, size and time stamp, and `meta`. 0 or -1.
[[nodiscard]] int orbs3_object_write_record(const orbs3_user_t* owner, std::string_view key,
                                            const char* meta_path, const char* data_path, const char* etag,
                                            int64_t size, const char* stamp, const orbs3_object_meta_t* meta);

// Counts an object in or out of the bucket's statistics: the record is read again from its file just
// before, so that changes other requests made to it meanwhile stay. Failures are logged.
void orbs3_object_count_in_bucket(const orbs3_bucket_t* bucket, int64_t objects, int64_t bytes);

// What stood at an object's data file just before a commit renames new content over it.
struct orbs3_object_before_t {
    bool existed = false;  // a regular file: the key is replaced, not new
    int64_t size = 0;
};
[[nodiscard]] orbs3_object_before_t orbs3_object_before_commit(const char* data_path);
// Counts a committed object of `size` bytes in the bucket and the vhost: a new key adds an object and its
// bytes, a replaced one only its change of size, so overwriting a key never inflates the counts.
void orbs3_object_count_commit(orbs3_vhost_t* vhost, const orbs3_bucket_t* bucket, orbs3_object_before_t before,
                               int64_t size);

// Whether an error document can name `key`: well-formed UTF-8 without the control bytes XML can't carry.
[[nodiscard]] bool orbs3_object_key_printable(std::string_view key);
