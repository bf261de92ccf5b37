// The XML bodies of the S3 interface: reply documents built through Mini-XML, and parsers of the request
// documents a client sends. Writers return a malloc'd, NUL-terminated text the caller frees (free or
// __free__), null when memory runs out. Parsers take a NUL-terminated body and return 0, or -1 for a body
// that does not load, has no root element, or exceeds a bound; the handler answers that with the S3 error
// its action names. Parsed records and their texts live in the caller's pool.
#pragma once

#include <mxml.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/orbs3_xml.h"
#include "memory/neo_list.h"
#include "memory/orbs3_palloc.h"

struct orbs3_user_t;

// Longest element text a writer emits and a parser keeps; longer texts are cut.
inline constexpr std::size_t ORBS3_XML_TEXT_MAX = 1024;
// Longest key of a batch delete; a longer one refuses the whole body, since a cut key names another object.
inline constexpr std::size_t ORBS3_XML_DEL_KEY_MAX = 1023;
// Bounds on repeated elements of a request body, so a hostile body cannot make a handler walk without end.
inline constexpr std::size_t ORBS3_XML_MAX_DEL_OBJECTS = 1000;
inline constexpr std::size_t ORBS3_XML_MAX_PARTS = 10000;

// S3's request documents are a few levels deep; a CompleteMultipartUpload of 10,000 parts, each with its
// number, ETag and checksums, is the largest at about 80,000 elements. Every parser refuses a body beyond
// these bounds before loading it.
inline constexpr orbs3_xml_bounds ORBS3_XML_BODY_BOUNDS{32, 100000};

// ---- records the parsers fill and the writers read ----

struct orbs3_part_t {
    neo_list_head_t link;
    int part_number;
    orbs3_str_t etag;
    // A Checksum<alg> element of a Complete document's part: "CRC32", ... (static text) and its value.
    const char* checksum_algorithm;
    orbs3_str_t checksum;
};

// One Object of a batch delete, and what its deletion did for the reply.
struct orbs3_del_key_t {
    neo_list_head_t link;
    orbs3_str_t key;
    orbs3_str_t version_id;  // the VersionId sent, unset when none; the reply echoes it
    bool delete_marker;      // a delete marker was made or removed
    orbs3_str_t delete_marker_version_id;
};

// One row of an object listing: an object (Contents), or a common prefix (is_dir).
struct orbs3_list_entry_t {
    neo_list_head_t link;
    bool is_dir;
    orbs3_str_t key;
    orbs3_str_t last_modified;
    orbs3_str_t etag;  // bare hex, quoted by the writer
    uint64_t size;
    orbs3_str_t owner_id;
    orbs3_str_t owner_display_name;
};

// What a ListBucketResult says besides its rows. Optional texts are shown only when set.
struct orbs3_list_doc_t {
    std::string_view bucket;
    std::string_view prefix;
    std::string_view delimiter;                       // shown when not empty
    bool v2 = true;                                   // V2 names and fields, else V1
    std::optional<std::string_view> marker;           // V1: the Marker sent ("" when none)
    std::optional<std::string_view> start_after;      // V2, as sent
    std::optional<std::string_view> continuation;     // V2, the token as sent
    std::string_view next;                            // NextMarker, or the NextContinuationToken as sent out
    int max_keys = 1000;
    int key_count = 0;
    bool truncated = false;
    bool url_encode = false;   // encoding-type=url: keys, prefixes, delimiter and markers URL-encoded
    bool fetch_owner = false;  // V2: Owner in every Contents (V1 rows always carry it)
    neo_list_head_t* list = nullptr;  // orbs3_list_entry_t in key order
};

// ---- helpers ----

// orbs3_xml_to_int of the text of the element `name` at or below node; 0 when it is missing.
int orbs3_xml_get_textint(mxml_node_t* node, const char* name);
// Copies the element's whole text, at most ORBS3_XML_TEXT_MAX bytes, into str from the pool.
// 0 when the element exists (an element without text gives ""), -1 when it is missing or memory runs out.
int orbs3_pack_xml_text_str(mxml_node_t* node, const char* name, orbs3_str_t* str, orbs3_pool_t* pool);
// A child element with text, at most ORBS3_XML_TEXT_MAX bytes of it; a null text gives an empty text.
mxml_node_t* orbs3_xml_new_text_string(mxml_node_t* parent, const char* name, std::size_t len, const char* text);
mxml_node_t* orbs3_xml_new_text_int(mxml_node_t* parent, const char* name, int value);

// ---- bucket list ----
// One bucket of a ListBuckets page, as the storage layer hands it over.
struct orbs3_s3_bucket_row_t {
    std::string_view name;
    std::string_view alias;
    std::string_view created_date;
    int64_t object_count;
};
// The buckets of one page, in order; `user` is the requester. A page that is not the last names the token
// of the next (`continuation`, shown when not empty); `prefix` is shown when the request had one.
[[nodiscard]] char* make_list_buckets_xml(const std::vector<orbs3_s3_bucket_row_t>& rows, const orbs3_user_t* user,
                                          std::string_view continuation = {},
                                          std::optional<std::string_view> prefix = std::nullopt);
// The GetBucketLocation reply: an empty LocationConstraint in S3's name space.
[[nodiscard]] char* make_bucket_location_xml();

// ---- object list ----
// The ListBucketResult of one page: all Contents, then all CommonPrefixes, each in key order. Texts that
// come from keys are never cut.
[[nodiscard]] char* make_list_objects_xml(const orbs3_list_doc_t* doc);

// `text` URL-encoded as S3 encodes listings for encoding-type=url: unreserved bytes and "/" stay, every
// other byte is "%XX" (a blank "%20", "+" "%2B"), so that a client decoding with or without "+" as a
// blank reads the key that is stored.
[[nodiscard]] std::string orbs3_list_url_encode(std::string_view text);

// ---- version list ----
// One row of a ListObjectVersions page: a Version, a DeleteMarker, or a common prefix (in `key`).
enum class orbs3_version_row_kind : uint8_t { version, delete_marker, common_prefix };
struct orbs3_version_row_t {
    neo_list_head_t link;
    orbs3_version_row_kind kind;
    bool is_latest;
    orbs3_str_t key;
    orbs3_str_t version_id;
    orbs3_str_t last_modified;
    orbs3_str_t etag;  // bare hex, quoted by the writer; empty (no ETag element) when not known
    uint64_t size;
    orbs3_str_t owner_id;
    orbs3_str_t owner_display_name;
};
struct orbs3_list_versions_doc_t {
    std::string_view bucket, prefix, delimiter, key_marker, version_id_marker;
    // Shown on a truncated page; the id only when not empty (a page that ends in a common prefix).
    std::string_view next_key_marker, next_version_id_marker;
    int max_keys = 1000;
    bool truncated = false;
    bool url_encode = false;  // encoding-type=url: keys, prefixes, delimiter and key markers URL-encoded
    neo_list_head_t* rows = nullptr;  // orbs3_version_row_t in listing order
};
// The ListVersionsResult of one page, written by hand like the other listings of several kinds of rows:
// the Version and DeleteMarker rows in their order, then the CommonPrefixes.
[[nodiscard]] std::string orbs3_list_versions_xml(const orbs3_list_versions_doc_t& doc);

// ---- access control ----
// An AccessControlPolicy body into the mask of s3/orbs3_s3_acl.h (or-ed into *acl). 0 or -1.
[[nodiscard]] int parse_bucket_acl_xmlstring(const char* text, uint32_t* acl);
// The ACL document of a bucket or object: its owner as Owner and as the grantee of each permission bit,
// and a Group grant for each group bit.
[[nodiscard]] char* make_acl_xmlstring(uint32_t acl, std::string_view owner_id, std::string_view owner_name);

// ---- tagging ----
// A tag set as a client sends it and as GetObjectTagging shows it, in the client's order.
struct orbs3_tag_pair_t {
    std::string key;
    std::string value;
};
using orbs3_tag_set_t = std::vector<orbs3_tag_pair_t>;
// S3's limits for the tags of one object: at most 10, a key of 1 to 128 characters, a value of at most
// 256 (characters of UTF-8, not bytes), no key twice.
inline constexpr std::size_t ORBS3_TAGS_MAX = 10;
inline constexpr std::size_t ORBS3_TAG_KEY_MAX = 128;
inline constexpr std::size_t ORBS3_TAG_VALUE_MAX = 256;
// A Tagging document: each Tag of its TagSet with its Key and Value, texts whole (no blanks dropped); a
// missing Value is "". -1 for a body that does not load, another root, no TagSet, a Tag without Key, or
// more than 1000 Tags (a body that can only be refused, read no further); limits are for
// orbs3_tag_set_valid.
[[nodiscard]] int parse_object_tagging_xml(const char* text, orbs3_tag_set_t* out);
// The x-amz-tagging header of a write: "k1=v1&k2=v2", each side URL-encoded ('+' a blank, as forms send
// it); "k" alone is an empty value. -1 for an empty key or more than 1000 pairs.
[[nodiscard]] int parse_object_tagging_header(std::string_view text, orbs3_tag_set_t* out);
// Whether a set keeps S3's limits above and every text is UTF-8 an XML document can carry.
[[nodiscard]] bool orbs3_tag_set_valid(const orbs3_tag_set_t& tags);
// The GetObjectTagging reply, on one line: Tagging with a TagSet, empty when there are no tags.
[[nodiscard]] std::string make_object_tagging_xml(const orbs3_tag_set_t& tags);

// ---- versioning ----
// A bucket's versioning setting as its documents carry it: status 1 enabled, 0 suspended; save_num, how
// many old versions of a key stay (SaveNum, an extension of S3's document).
struct orbs3_versioning_doc_t {
    uint32_t status = 0;
    int32_t save_num = 10;
};
// VersioningConfiguration with Status "Enabled" or "Suspended", in any case (MFADelete and other elements
// are passed over), and an optional SaveNum, 10 when missing. 0; -1 for a body that does not load, whose
// root is another element, whose Status is missing or another word, or whose SaveNum is not a decimal
// number within 32 bits: S3 answers such a body MalformedXML, and a client must not find its bucket
// suspended by a typing error.
[[nodiscard]] int parse_bucket_versioning_xmlstring(const char* text, orbs3_versioning_doc_t* out);
// The reply of GetBucketVersioning in S3's form, on one line: Status and, when save_num is above 0,
// SaveNum. A bucket whose versioning was never set (status 0 and save_num 0) gets the empty element, which
// clients read as "no Status".
[[nodiscard]] std::string make_bucket_versioning_xmlstring(uint32_t status, int32_t save_num);

// ---- recycle bin ----
// RecycleConf with Days, the days a recycled content stays; a missing Days is 0 (kept for ever). 0; -1 for
// a body that does not load, another root, or a Days that is not a decimal number from 0 to INT32_MAX: a
// negative age means nothing, and a typing error must not read as "keep for ever".
[[nodiscard]] int parse_bucket_recycle_conf_xmlstring(const char* text, int32_t* days);
[[nodiscard]] char* make_bucket_recycle_conf_xmlstring(int32_t days);

// ---- multipart upload ----
[[nodiscard]] char* make_create_multipartupload_xmlstring(const char* bucket, const char* key, const char* upload_id);
// Appends one orbs3_part_t per Part anywhere in the body.
[[nodiscard]] int parse_complete_multipart_upload_xmlstring(const char* text, neo_list_head_t* list,
                                                            orbs3_pool_t* pool);

// The multipart replies are written by hand, as S3 sends them: one line, texts escaped, never cut.
// A part as ListParts shows it.
struct orbs3_part_row_t {
    int number = 0;
    std::string_view last_modified;
    std::string_view etag;  // bare hex, quoted by the writer
    int64_t size = 0;
    std::string_view checksum_algorithm, checksum;  // a Checksum<alg> element when both are set
};
struct orbs3_list_parts_doc_t {
    std::string_view bucket, key, upload_id;
    std::string_view initiator_id, initiator_name;  // the Initiator, and the Owner too
    int marker = 0, next_marker = 0, max_parts = 1000;
    bool truncated = false;
    std::string_view checksum_algorithm, checksum_type;  // shown when the upload declared one
    std::vector<orbs3_part_row_t> parts;
};
[[nodiscard]] std::string orbs3_list_parts_xml(const orbs3_list_parts_doc_t& doc);

// The CompleteMultipartUploadResult; `etag` bare, quoted by the writer. A checksum, when there is one, comes
// with its type: COMPOSITE for a value with a part count ("...-3"), else FULL_OBJECT.
[[nodiscard]] std::string orbs3_complete_upload_xml(std::string_view location, std::string_view bucket,
                                                    std::string_view key, std::string_view etag,
                                                    std::string_view checksum_algorithm, std::string_view checksum);

// The CopyPartResult of UploadPartCopy; `etag` bare.
[[nodiscard]] std::string orbs3_copy_part_result_xml(std::string_view etag, std::string_view last_modified,
                                                     std::string_view checksum_algorithm, std::string_view checksum);

// An upload as ListMultipartUploads shows it.
struct orbs3_upload_row_t {
    std::string_view key, upload_id, initiator_id, initiator_name, initiated;
};
struct orbs3_list_uploads_doc_t {
    std::string_view bucket, prefix, delimiter, key_marker, upload_id_marker;
    std::string_view next_key_marker, next_upload_id_marker;  // shown only on a truncated page
    int max_uploads = 1000;
    bool truncated = false;
    bool url_encode = false;  // encoding-type=url: keys, prefixes, delimiter and key markers URL-encoded
    std::vector<orbs3_upload_row_t> uploads;  // in key order, then the common prefixes
    std::vector<std::string_view> prefixes;
};
[[nodiscard]] std::string orbs3_list_uploads_xml(const orbs3_list_uploads_doc_t& doc);

// ---- batch delete ----
// Appends one orbs3_del_key_t per Object to `list`.
[[nodiscard]] int parse_del_objects_xmlstring(const char* text, neo_list_head_t* list, orbs3_pool_t* pool);
// Both lists hold orbs3_del_key_t. A Deleted entry carries Key, VersionId when one was sent, and for a
// marker made or removed DeleteMarker and DeleteMarkerVersionId; an Error entry Key and VersionId.
[[nodiscard]] char* make_del_objects_xmlstring(neo_list_head_t* deleted, neo_list_head_t* failed);
// Whether the Delete document asks for a quiet reply: a Quiet element whose text is "true" (any case).
[[nodiscard]] bool parse_del_objects_quiet(const char* text);

// ---- copy ----
// CopyObjectResult with LastModified (the record's stamp) and ETag (quoted).
[[nodiscard]] char* make_copy_object_result_xmlstring(const char* last_modified, const char* etag);

// ---- object information ----
// The Object document of the live object: Name (its record's name), Path (the key; never a path on disk),
// Size and Date (its last write). Texts from keys are never cut.
[[nodiscard]] char* make_object_version_xml(std::string_view name, std::string_view key, uint64_t size,
                                            std::string_view last_modified);
