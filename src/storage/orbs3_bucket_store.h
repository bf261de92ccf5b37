// How a request obtains a bucket and how a worker counts a vhost's buckets. Nothing is cached: a lookup
// scans the owner directories and reads the record file every time, because other threads, workers and
// nodes create and delete buckets in the same trees.
//
// Bucket records hang on lists by their own first field `link`, so a list of buckets holds the records
// themselves; whoever fills a list frees its records with orbs3_free_bucket.
#pragma once

#include <functional>
#include <string_view>

#include "storage/orbs3_bucket.h"

struct orbs3_vhost_t;
struct orbs3_user_t;

// A record from record text, in a new pool of 1024 bytes; null when the text is not a whole "bucket"
// record (cut short, no "bucket" element, a field out of range) or memory runs out.
[[nodiscard]] orbs3_bucket_t* orbs3_create_bucket_from_xml(const char* xml);

// Finds the owner that holds the bucket `name`: the first owner directory of the data root, in readdir
// order, with a directory of that name. Writes "<meta_root>/<owner>/bucket/<name>" into `out`, an area
// of ORBS3_PATH_AREA bytes, and gives 0; -1 (and `out` empty) when no owner holds it, the data root
// can't be opened, or the name is unsafe as a path component.
[[nodiscard]] int orbs3_get_bucket_path(const orbs3_vhost_t* vhost, std::string_view name, char* out);

// 0 when some owner of the vhost holds the bucket `name`, else -1. `user` takes no part: the bucket
// namespace is shared by all owners.
[[nodiscard]] int orbs3_check_bucket_exist(const orbs3_vhost_t* vhost, const orbs3_user_t* user,
                                           std::string_view name);

// A new private copy of the bucket `name`, whoever owns it; null when no owner holds it or its record
// can't be read or parsed (a half-written record reads as no bucket). The caller frees it with
// orbs3_free_bucket. `user` is the requester and takes no part in the lookup.
[[nodiscard]] orbs3_bucket_t* orbs3_get_bucket(const orbs3_vhost_t* vhost, const orbs3_user_t* user,
                                               std::string_view name);

// Changes the bucket record at `meta_file` without losing a change another request makes meanwhile: every
// writer of a live bucket's record holds an exclusive lock of the directory of records while it reads the
// record again from its file, applies its change to that fresh copy and writes the whole record back. The
// lock is on the directory because the record is replaced by rename. `change` gives 0 to write the record,
// non-zero to leave it. 0; -1 when the lock can't be taken, the record can't be read or written, or
// `change` refused.
[[nodiscard]] int orbs3_bucket_update(const char* meta_file, const std::function<int(orbs3_bucket_t*)>& change);

// Worker start: empties bucket_list, sets bucket_count to 0, then reads the records of every owner under
// the meta root. 0, or -1 when the meta root can't be opened.
[[nodiscard]] int orbs3_bucket_init(orbs3_vhost_t* vhost);

// Reads every record file of one "<meta_root>/<owner>/bucket" directory onto bucket_list, adding 1 to
// bucket_count for each. Sub-directories, temporary files of a record replace, and records that can't be
// read or parsed are skipped. 0, or -1 when the directory can't be opened.
int orbs3_bucket_user_init(orbs3_vhost_t* vhost, const char* dir);

// Unlinks and frees every record of bucket_list; the list is left empty, bucket_count as it was.
void orbs3_bucket_exit(orbs3_vhost_t* vhost);

// The vhost, its strings, users, admin record (the record itself is embedded), service record and
// buckets; a null argument is allowed.
void orbs3_free_vhost_data(orbs3_vhost_t* vh);
// Every vhost of the list with orbs3_free_vhost_data, and the nodes; the head is left empty.
void orbs3_free_vhost_list(neo_list_head_t* head);

// Appends the buckets of `user` (its DisPlayName is its owner directory) to `list`.
[[nodiscard]] int orbs3_load_bucket_list(const orbs3_vhost_t* vhost, const orbs3_user_t* user,
                                         neo_list_head_t* list);

// Appends the buckets of the owner directory `owner` to `list`, in readdir order of "<data_root>/<owner>":
// each sub-directory is a bucket; the first one without a readable record ends the walk. A missing owner
// directory adds nothing. 0; -1 for a null argument or an owner name unsafe as a path component.
[[nodiscard]] int orbs3_load_user_bucket_list(neo_list_head_t* list, const orbs3_vhost_t* vhost,
                                              const orbs3_user_t* user, std::string_view owner);

// The buckets of every owner directory of the data root, in readdir order, each owner walked as above.
// 0; -1 when the data root can't be opened.
[[nodiscard]] int orbs3_load_all_bucket_list(const orbs3_vhost_t* vhost, const orbs3_user_t* user,
                                             neo_list_head_t* list);

// Unlinks and frees every record of a list filled by the loaders; the head is left empty.
void orbs3_free_bucket_list(neo_list_head_t* list);

// Taking a bucket name: every owner that takes `name` makes "<data_root>/<owner>/<name>" first, then asks
// what the other holders of the name mean for it:
enum : int {
    ORBS3_CLAIM_ALONE = 0,  // no other owner holds the name: it is ours
    ORBS3_CLAIM_YIELD = 1,  // another holder has its record, or sorts before `owner`: the name is not ours
    ORBS3_CLAIM_WAIT = 2,   // only holders that sort after `owner` and have no record yet: they give way
};
// -1 when the data root can't be read or a name is unsafe.
[[nodiscard]] int orbs3_bucket_claim_state(const orbs3_vhost_t* vhost, std::string_view name, std::string_view owner);
