// The metadata records: the bucket record, the object record and a vhost's service record, small XML files
// beside the data. A record is always read whole and written whole; a write goes to a temporary file in the
// same directory and is renamed over the old record, so a reader, or a node that died half way, sees the
// old record or the new one, never a part.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "memory/neo_list.h"
#include "memory/orbs3_palloc.h"
#include "storage/orbs3_bucket.h"

// ---- caps ----
// Longest text of each field, in bytes. A longer value is cut to its cap, by the writer and by the
// reader, so a record file never holds more than a reader keeps. Paths fit the 1024-byte areas, names and
// user texts the 256-byte areas.
inline constexpr std::size_t ORBS3_REC_NAME_CAP = 255;     // bucket name, alias, owner id and name
inline constexpr std::size_t ORBS3_REC_KEY_CAP = 1023;     // object key, whole
inline constexpr std::size_t ORBS3_REC_PATH_CAP = 1023;    // paths and endpoints
inline constexpr std::size_t ORBS3_REC_TIME_CAP = 31;      // "2026-11-23T16:13:01.000Z"
inline constexpr std::size_t ORBS3_REC_ETAG_CAP = 38;      // MD5 in hex, "-<parts>" behind it when assembled
inline constexpr std::size_t ORBS3_REC_ID_CAP = 47;        // rule identifiers, in char[48]
inline constexpr std::size_t ORBS3_REC_ADDR_CAP = 47;      // an address of a rule
// S3 limits a tag to 128 and 256 characters; of UTF-8 that is up to four bytes each.
inline constexpr std::size_t ORBS3_REC_TAG_KEY_CAP = 4 * 128;
inline constexpr std::size_t ORBS3_REC_TAG_VALUE_CAP = 4 * 256;
inline constexpr std::size_t ORBS3_REC_NUMBER_CAP = 20;    // quota texts: decimal kilobytes
inline constexpr std::size_t ORBS3_REC_ACCEL_PATH_CAP = 31; // the accelerate path has a 32-byte area
inline constexpr std::size_t ORBS3_REC_HEADER_CAP = 1023;   // a stored standard header of an object
inline constexpr std::size_t ORBS3_REC_META_CAP = 2048;     // user metadata of an object, names and values
// The parts of an assembled object: up to 10000 sizes ("5368709120*9999 ") and base64 checksums.
inline constexpr std::size_t ORBS3_REC_PARTS_CAP = 10000 * 17;
inline constexpr std::size_t ORBS3_REC_PART_CHECKSUMS_CAP = 10000 * 45;

// Object pools are this size; a record with many tags grows the pool.
inline constexpr std::size_t ORBS3_OBJECT_POOL_SIZE = 1024;

// ---- rules, tags ----
// Flag indexes of orbs3_rule_perm_t. 2 and 6 never occur among the bucket flags.
enum : int {
    ORBS3_PERM_CREATE = 0,
    ORBS3_PERM_READ = 1,
    ORBS3_PERM_WRITE = 2,
    ORBS3_PERM_LIST = 3,
    ORBS3_PERM_DELETE = 4,
    ORBS3_PERM_RENAME = 5,
    ORBS3_PERM_COPY = 7,
    ORBS3_PERM_BLACKLIST = 8,
    ORBS3_PERM_AUTHORITY = 9,
    ORBS3_PERM_VERSION = 10,
    ORBS3_PERM_QUOTA = 11,
    ORBS3_PERM_RECYCLE = 12,
    ORBS3_PERM_COUNT = 13,
};

struct orbs3_rule_perm_t {
    uint32_t flag[ORBS3_PERM_COUNT];
};

struct orbs3_rule_addr_t {
    orbs3_str_t addr;
    uint32_t mask;  // prefix length
};

struct orbs3_rule_user_t {
    orbs3_str_t userid;
    orbs3_str_t name;
};

// One rule of a black, white or authority list. Black and white lists use only id, name, status, addrs.
struct orbs3_bucket_rule_t {
    char id[ORBS3_REC_ID_CAP + 1];
    orbs3_str_t name;
    uint32_t status;        // 1 "start", 0 "stop"
    neo_list_head_t addrs;  // orbs3_list_node_t carrying orbs3_rule_addr_t
    neo_list_head_t users;  // orbs3_list_node_t carrying orbs3_rule_user_t
    orbs3_rule_perm_t bucket;
    orbs3_rule_perm_t object;
};

// A tag of an object. The object record carries tags through list nodes; the tagging documents hang them
// on a list by their own `link`.
struct orbs3_tag_t {
    neo_list_head_t link;
    orbs3_str_t key;
    orbs3_str_t value;
};

// ---- object record ----
struct orbs3_object_t {
    orbs3_str_t name;  // the key, whole
    orbs3_str_t last_modified;
    orbs3_str_t etag;
    uint64_t size;
    orbs3_str_t owner_id;
    orbs3_str_t owner_display_name;
    uint32_t acl;
    uint32_t lifecycle;
    char path[ORBS3_REC_PATH_CAP + 1];   // data file when written; not trusted for finding it
    char fpath[ORBS3_REC_PATH_CAP + 1];  // this record file when written
    uint32_t is_dir;                     // 1 only for a directory entry of a listing
    neo_list_head_t tags;                // orbs3_list_node_t carrying orbs3_tag_t, in file order
    // What the uploader said of the content, given back on GET and HEAD; unset when not sent.
    orbs3_str_t content_type;
    orbs3_str_t cache_control;
    orbs3_str_t content_disposition;
    orbs3_str_t content_encoding;
    orbs3_str_t expires;
    orbs3_str_t checksum_algorithm;  // "CRC32", "CRC32C", "SHA1" or "SHA256"
    orbs3_str_t checksum;            // its value, base64, as S3 sends it ("-<parts>" behind a composite one)
    // An object assembled from parts: their sizes in order, blank-separated, "<size>*<run>" for a run of
    // equal ones; and, when each part's checksum is known, those, blank-separated. Unset for other objects.
    orbs3_str_t parts;
    orbs3_str_t part_checksums;
    neo_list_head_t meta;            // orbs3_list_node_t carrying orbs3_tag_t: x-amz-meta-<key>, key lower case
    // The multipart upload this content was completed from: a Complete sent again finds its result here.
    orbs3_str_t upload_id;
    // The content's version id; unset means "null": written while versioning was never enabled or was
    // suspended. Versions and recycled contents keep their record, and with it this id.
    orbs3_str_t version_id;
    // A delete marker: a record without bytes in the version tree, naming the content its DELETE moved
    // to the recycle tree (`displaced`, that content's suffix there), which removing the marker brings back.
    uint32_t delete_marker;
    orbs3_str_t displaced;
    orbs3_pool_t* pool;
};

// ---- service record ----
struct orbs3_service_quota_t {
    orbs3_str_t service_quota;
    uint32_t max_bucket;
    orbs3_str_t bucket_quota;
    uint32_t max_object;
    uint32_t bucket_threshold;
    orbs3_str_t file_threshold;
    orbs3_str_t segment_size;
};

// A vhost's rule lists, quotas and settings, kept in the worker for the vhost's life. Everything hangs
// from the heap (not a pool) because the administrative operations add and remove rules one by one;
// orbs3_free_service frees it all.
struct orbs3_service_rec_t {
    neo_list_head_t blacklist;  // orbs3_list_node_t carrying orbs3_bucket_rule_t
    uint32_t blacklist_status;
    neo_list_head_t whitelist;
    uint32_t whitelist_status;
    neo_list_head_t authak_list;
    uint32_t authak_status;
    neo_list_head_t authaddr_list;
    uint32_t authaddr_status;
    orbs3_service_quota_t quota;
    uint32_t version_status;  // 1 enabled
    int32_t save_num;
    uint32_t memory_size;
    uint32_t file_size;
    orbs3_str_t accelerate_path;
    uint32_t memory;     // 1 "yes"
    uint32_t aggregate;  // 1 "yes"
    orbs3_str_t low_frequency_path;
    orbs3_str_t archiving_path;
};

// ---- writing ----
// Each renders the record into a new heap text the caller frees with free(). 0, or -1 when a number is
// beyond what its field can hold in the file ("%d" fields above INT_MAX, sizes above INT64_MAX), a time
// stamp is not of the record form, or memory runs out; *text is then null.
[[nodiscard]] int orbs3_make_bucket_xml(const orbs3_bucket_t* bucket, char** text);
[[nodiscard]] int orbs3_make_object_xml(const orbs3_object_t* object, char** text);
[[nodiscard]] int orbs3_make_service_xml(const orbs3_service_rec_t* service, char** text);

// Temporary files of a record replace start with this; listings and scans skip such names.
inline constexpr std::string_view ORBS3_RECORD_TMP_PREFIX = ".orbs3-tmp-";
[[nodiscard]] bool orbs3_record_is_temp(std::string_view name);

// Replaces the file at `path` with `len` bytes of `text`: a temporary file beside it, fsync, rename, fsync
// of the directory. 0, or -1 with errno, and then the old file stands and no temporary is left.
[[nodiscard]] int orbs3_record_replace(const char* path, const char* text, std::size_t len);

// Render and replace in one step. 0 or -1.
[[nodiscard]] int orbs3_save_bucket(const orbs3_bucket_t* bucket, const char* path);
[[nodiscard]] int orbs3_save_object(const orbs3_object_t* object, const char* path);
[[nodiscard]] int orbs3_save_service(const orbs3_service_rec_t* service, const char* path);

// ---- reading ----
// Fills a record whose pool is set; its lists are made valid and empty first. 0; -1 when the text does not
// parse or a value is not what its field holds (a number that isn't one or is out of range, a time stamp
// not of the record form), and then the record is left empty as for bad text. A text without a "bucket"
// element gives an empty record and 0.
[[nodiscard]] int xml_parse_bucket(orbs3_bucket_t* bucket, const char* text);
// The same for an object record and its "object" element.
[[nodiscard]] int xml_parse_object(orbs3_object_t* object, const char* text);
// The same for a service record and its "service" element; -1 also for null text. A record that already
// held rules has them freed first.
[[nodiscard]] int orbs3_parse_service_xml(orbs3_service_rec_t* service, const char* text);

// A whole record from a file, in a new pool; null when the file can't be read, does not parse, or lacks
// its root element (a file cut short), the pool then gone.
[[nodiscard]] orbs3_object_t* orbs3_create_object_from_file(const char* path);
[[nodiscard]] orbs3_bucket_t* orbs3_create_bucket_from_file(const char* path);
// The same from record text (NUL-terminated), loaded once.
[[nodiscard]] orbs3_object_t* orbs3_object_from_text(const char* text);
[[nodiscard]] orbs3_bucket_t* orbs3_bucket_from_text(const char* text);

// An empty record in its own pool, lists not initialised: the directory entries of a listing.
[[nodiscard]] orbs3_object_t* orbs3_create_object_block();
void orbs3_free_object(orbs3_object_t* object);
// The owner of a record read from a file: frees it, and its pool, on every way out.
struct orbs3_object_free_t {
    void operator()(orbs3_object_t* o) const noexcept { orbs3_free_object(o); }
};
using orbs3_object_ptr = std::unique_ptr<orbs3_object_t, orbs3_object_free_t>;
// Every record of a listing and its list node (nodes from calloc); the head is left empty.
void orbs3_free_object_list(neo_list_head_t* list);

// A new service record with empty lists, filled from the file when it exists and is not empty. Null when
// memory runs out or the file exists but is not a whole service record.
[[nodiscard]] orbs3_service_rec_t* orbs3_get_service(const char* path);
// Frees the record, its rules and texts; null is allowed.
void orbs3_free_service(orbs3_service_rec_t* service);
// Frees every rule of a heap list of the service record; the head is left empty.
void orbs3_free_service_rules(neo_list_head_t* list);

// Whether a record text holds a whole `root` element: it ends in a tag, and an element left open or cut
// inside a tag (which Mini-XML would read as a smaller document) is refused.
[[nodiscard]] bool orbs3_record_text_whole(const char* text, const char* root);
