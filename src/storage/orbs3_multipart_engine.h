// Multipart upload, the engine: an object assembled from parts sent separately, possibly in parallel, through any
// worker or node that mounts the tree.
//
// Everything an upload is lives on disk, in the bucket's data tree, under names with the reserved prefix
// (no client key can reach them, and listings walk the meta tree only):
//   <data_dir>/.orbs3-uploads/<upload_id>          the upload's record: key, initiator, creation time,
//                                                  and the content headers and x-amz-meta-* of Create
//   <data>/<dir>.orbs3-<upload_id><file>           the staging directory beside the object's final place
//   <staging>/<part_number>                        a part's bytes
//   <staging>/<part_number>.etag                   the part's record: size, MD5, inode, time
// Every file is written under a temporary name and renamed into place, so parts sent in parallel never
// meet in one file and a re-sent part replaces the earlier one whole. The part record names the inode of
// the bytes it describes: a record that does not match its part (a crash or a second sender between the
// two renames) is made again from the part's bytes.
//
// Complete and Abort first claim the upload by renaming its record to "<upload_id>.claimed.<node>.<pid>":
// of two that race exactly one wins, the other finds no upload. A claim whose process is gone (a worker
// killed in the middle of a Complete) is taken over by the next Complete or Abort on its node. Complete copies the parts into a temporary file
// beside the object (copy_file_range: no bytes through user space) and commits it over the object as
// PutObject does (orbs3_object_commit.h). The object's record keeps the upload id, so that a Complete sent
// again after its reply was lost is answered with the same result while the key holds it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "memory/neo_md5.h"
#include "storage/orbs3_checksum.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_bucket.h"

inline constexpr int ORBS3_MULTIPART_MAX_PART = 10000;
// S3's largest part.
inline constexpr int64_t ORBS3_MULTIPART_MAX_PART_SIZE = int64_t{5} << 30;
inline constexpr std::string_view ORBS3_MULTIPART_INDEX_DIR = ".orbs3-uploads";

// An upload as its record keeps it.
struct orbs3_multipart_upload_t {
    std::string key;  // bucket-relative
    std::string upload_id;
    std::string initiator_id;
    std::string initiator_name;
    std::string created;  // record time stamp
    std::string content_type, cache_control, content_disposition, content_encoding, expires;
    std::vector<std::pair<std::string, std::string>> meta;  // x-amz-meta-<name> (lower case), value
    std::vector<std::pair<std::string, std::string>> tags;  // x-amz-tagging of Create: key, value
    // The additional checksum the upload declared (x-amz-checksum-algorithm, "CRC32", ...) and the form
    // of the object's ("COMPOSITE" or "FULL_OBJECT"); empty when none was declared.
    std::string checksum_algorithm, checksum_type;
    // The ACL mask (s3/orbs3_s3_acl.h) Create's headers gave, in decimal; empty: private.
    std::string acl;
};

// A part as its record keeps it.
struct orbs3_multipart_part_t {
    int number = 0;
    int64_t size = 0;
    uint8_t md5[NEO_MD5_LEN] = {};
    uint64_t ino = 0;  // the inode of the part's bytes this record describes
    std::string modified;
    std::string checksum_algorithm, checksum;  // the part's additional checksum, when it has one
};

// A part a Complete document names.
struct orbs3_multipart_request_part_t {
    int number;
    std::string_view etag;  // as sent: quotes allowed
    std::string_view checksum_algorithm = {};  // "CRC32", ... of a Checksum<alg> element, and its value
    std::string_view checksum = {};
};

// The record texts. Render never fails; parse gives 0, or -1 for a text that is not a whole record of
// its kind (the upload record needs key, id and time; the part record number, size and MD5).
[[nodiscard]] std::string orbs3_multipart_render_upload(const orbs3_multipart_upload_t& up);
[[nodiscard]] int orbs3_multipart_parse_upload(std::string_view text, orbs3_multipart_upload_t* up);
[[nodiscard]] std::string orbs3_multipart_render_part(const orbs3_multipart_part_t& part);
[[nodiscard]] int orbs3_multipart_parse_part(std::string_view text, orbs3_multipart_part_t* part);

// 32 lower-case hexadecimal digits, nothing else: the only ids that may reach a path.
[[nodiscard]] bool orbs3_multipart_valid_id(std::string_view id);

// "<data_dir><dir>.orbs3-<id><file>" of `key`. 0, or -1 for an unsafe key or a path that does not fit.
[[nodiscard]] int orbs3_multipart_staging_path(const orbs3_bucket_t* bucket, std::string_view key,
                                               std::string_view id, char* out, std::size_t size);

// The checks of a Complete document against the stored parts (`stored` sorted by number): the document
// lists at least one part (MalformedXML), its numbers strictly ascending (InvalidPartOrder), each part
// exists with the ETag and the checksum given (InvalidPart), and each part but the last has at least
// `min_part` bytes (EntityTooSmall). 0 or the status; *bad the index in `req` of the part at fault.
[[nodiscard]] int orbs3_multipart_check_complete(const std::vector<orbs3_multipart_request_part_t>& req,
                                                 const std::vector<orbs3_multipart_part_t>& stored,
                                                 int64_t min_part, std::size_t* bad);

// S3's ETag of an assembled object: the MD5 of the parts' binary MD5s in order, "-", the part count.
// `out` gets at most 32 + 1 + 5 characters and a NUL.
void orbs3_multipart_etag(const std::vector<const orbs3_multipart_part_t*>& parts, char out[40]);

// x-amz-copy-source-range: "bytes=<first>-<last>" inside an object of `size` bytes. 0 with *first and
// *len set; InvalidArgument for any other text (first after last included), InvalidRange for a range
// that leaves the object.
[[nodiscard]] int orbs3_multipart_parse_copy_range(std::string_view value, int64_t size, int64_t* first,
                                                   int64_t* len);

// The ETag of the object a Complete document would make: S3's formula over the part ETags it lists.
// False when one of them is not an MD5 or the list is empty.
[[nodiscard]] bool orbs3_multipart_document_etag(const std::vector<orbs3_multipart_request_part_t>& req,
                                                 char out[40]);
// The sizes of an assembled object's parts as its record keeps them: blank-separated, a run of equal sizes
// as "<size>*<run>", so the usual upload of equal parts and a shorter last one takes two words.
[[nodiscard]] std::string orbs3_multipart_parts_text(const std::vector<const orbs3_multipart_part_t*>& parts);
// Part `number` of an object of `object_size` bytes whose record keeps `parts`: 0 with the part's offset
// and size and the part count set; 1 with the count set when the object has no such part; -1 when the
// text is not a list of sizes adding up to the object's size.
[[nodiscard]] int orbs3_multipart_find_part(std::string_view parts, int64_t object_size, int number,
                                            int64_t* offset, int64_t* size, int* count);
// Word `n` (from 1) of a blank-separated text; empty when there is none.
[[nodiscard]] std::string_view orbs3_multipart_nth_word(std::string_view text, int n);

// The additional checksum of the object assembled from `parts`, in the form the upload declared: the
// algorithm and type declared, or, when none was, the full-object CRC the parts all carry. True with
// *alg and *value (ORBS3_CHECKSUM_TEXT_MAX + 1 bytes) set and *part_values the parts' values
// blank-separated; false when the object's checksum is not known exactly (a part without a value of that
// algorithm).
[[nodiscard]] bool orbs3_multipart_object_checksum(const orbs3_multipart_upload_t& up,
                                                   const std::vector<const orbs3_multipart_part_t*>& parts,
                                                   std::string* alg, char* value, std::string* part_values);


struct orbs3_vhost_t;
// The largest part a request may send: S3's 5 GiB, lowered by the tenant's and the bucket's
// segment_size (kilobytes; 0, unset or not a number: no limit of its own).
[[nodiscard]] int64_t orbs3_upload_part_size_limit(const orbs3_vhost_t* vhost, const orbs3_bucket_t* bucket);
// 0 when a part of `length` bytes is within that limit, 1 when not.
[[nodiscard]] int orbs3_check_upload_part_size(int64_t length, const orbs3_vhost_t* vhost,
                                               const orbs3_bucket_t* bucket);

// ---- the upload on disk ----
// Results are 0 or an S3 status; nothing here sees a request.

// The directory of a bucket's upload records.
[[nodiscard]] std::string orbs3_multipart_index_dir(const orbs3_bucket_t* bucket);

// A new upload of up->key: a fresh id and time stamp set in *up, its staging directory made, then its
// record written. 0, KeyTooLong or InternalError; nothing is left behind on failure.
[[nodiscard]] int orbs3_multipart_create(const orbs3_bucket_t* bucket, orbs3_multipart_upload_t* up);

// An upload found through its record; the record's key must be the one asked for.
struct orbs3_multipart_handle_t {
    const orbs3_bucket_t* bucket = nullptr;
    orbs3_multipart_upload_t up;
    std::string index_path;   // the record
    std::string stale_claim;  // a claim whose holder is gone, which a Complete or Abort may take over
    char staging[ORBS3_PATH_AREA] = "";
};
// 0; NoSuchUpload for an id that is none, has no record or belongs to another key; KeyTooLong. With
// `take_over`, the claim of a process of this node that is gone stands for the record.
[[nodiscard]] int orbs3_multipart_open(const orbs3_bucket_t* bucket, std::string_view key, std::string_view id,
                                       bool take_over, orbs3_multipart_handle_t* h);

// Every part of the staging directory, by ascending number; a part record that does not describe its
// part's bytes is made again from them. 0 or -1.
[[nodiscard]] int orbs3_multipart_load_parts(const char* staging, std::vector<orbs3_multipart_part_t>* parts);

// A part whose bytes are whole in the temporary `tmp` of the staging directory goes into place as part
// part->number, then its record is written; *part (number, size, MD5 and checksum set) gets the inode and
// time stamp. 0, NoSuchUpload (the upload ended meanwhile), KeyTooLong or InternalError; the temporary is
// left for the caller on failure.
[[nodiscard]] int orbs3_multipart_install_part(const char* staging, const char* tmp, orbs3_multipart_part_t* part);

// Part `number` copied from `len` bytes of `in` at `first`; its MD5 and, when the upload declared one, its
// additional checksum computed on the way. 0 with *part the part's record, or a status as for install.
[[nodiscard]] int orbs3_multipart_copy_part(const orbs3_multipart_handle_t& h, int number, int in, int64_t first,
                                            int64_t len, orbs3_multipart_part_t* part);

// Complete and Abort take the upload by renaming its record to a claim: of two that race exactly one
// wins. 0 with *claimed set, NoSuchUpload or InternalError.
[[nodiscard]] int orbs3_multipart_claim(const orbs3_multipart_handle_t& h, std::string* claimed);
// A refused Complete gives the upload back, so the client may correct its document and try again.
void orbs3_multipart_release(const orbs3_multipart_handle_t& h, const std::string& claimed);
// The staging directory and the claimed record go; the index directory too once it is empty (so that an
// emptied bucket can be deleted).
void orbs3_multipart_drop(const orbs3_multipart_handle_t& h, const std::string& claimed);
// After an Abort, the key's directories that only the staging directory needed go again.
void orbs3_multipart_prune_key_dirs(const orbs3_bucket_t* bucket, std::string_view key);

// What a Complete makes of the stored parts: the parts its document names, in its order, and what the
// object's record keeps of them.
struct orbs3_multipart_plan_t {
    std::vector<orbs3_multipart_part_t> stored;
    std::vector<const orbs3_multipart_part_t*> chosen;  // into `stored`
    int64_t total = 0;
    char etag[40] = "";
    std::string parts_text;
    std::string checksum_algorithm, part_checksums;  // empty when the object's checksum is not known exactly
    char checksum[ORBS3_CHECKSUM_TEXT_MAX + 1] = "";
};
// 0, InternalError, or the status of orbs3_multipart_check_complete.
[[nodiscard]] int orbs3_multipart_plan(const orbs3_multipart_handle_t& h,
                                       const std::vector<orbs3_multipart_request_part_t>& req, int64_t min_part,
                                       orbs3_multipart_plan_t* plan);

// The chosen parts copied in order into a new temporary file in `data_dir`, flushed. 0 or InternalError
// (no temporary left then).
struct orbs3_temp_file;
[[nodiscard]] int orbs3_multipart_assemble(const char* staging, const char* data_dir,
                                           const orbs3_multipart_plan_t& plan, orbs3_temp_file* tmp);

// One page of ListMultipartUploads: uploads by key, then by id, whose keys start with the prefix, after
// the markers; keys that hold the delimiter behind the prefix are rolled into common prefixes.
struct orbs3_multipart_list_query_t {
    std::string_view prefix, delimiter, key_marker, id_marker;
    int max = 1000;
};
struct orbs3_multipart_list_page_t {
    std::vector<orbs3_multipart_upload_t> uploads;
    std::vector<std::string> prefixes;
    bool truncated = false;
    std::string next_key, next_id;  // the last row shown
};
void orbs3_multipart_list_uploads(const orbs3_bucket_t* bucket, const orbs3_multipart_list_query_t& q,
                                  orbs3_multipart_list_page_t* page);

// The parts after `marker`, at most `max`: *truncated when more follow.
void orbs3_multipart_part_page(std::vector<orbs3_multipart_part_t>* parts, int marker, int max, bool* truncated);
