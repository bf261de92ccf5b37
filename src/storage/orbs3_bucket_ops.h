// The S3 operations on buckets themselves, and the way every bucket-level or object-level handler obtains
// the bucket a request names. Each operation takes the request and gives 0 once its reply went out, or an
// S3 status code (s3/orbs3_s3_errors.h) with r->resp.resource filled, which the dispatcher answers.
#pragma once

#include <string_view>

#include "access/orbs3_access_check.h"
#include "http/orbs3_http_request.h"
#include "storage/orbs3_bucket.h"

// The bucket the request names, for a handler that needs it: the name checked (InvalidBucketName), the
// record read (NoSuchBucket), the access chain run for the requester with the given codes (AccessDenied,
// resource "/"), and the record's paths filled. 0 with *out set (the caller frees it with
// orbs3_free_bucket), or a status code with *out null. Either code pointer may be null.
[[nodiscard]] int orbs3_request_bucket(orbs3_http_request_t* r, const int* bucket_code, const int* object_code,
                                       orbs3_access_chain_t chain, orbs3_bucket_t** out);

// Whether `name` may name a new bucket, by S3's rules: 3 to 63 bytes of lower-case letters, digits, "-"
// and "."; a letter or digit at both ends; no "..", ".-" or "-."; not four dot-separated numbers like an
// IP address; not S3's reserved forms (prefixes "xn--" and "sthree-", suffixes "-s3alias" and "--ol-s3").
// Only creation asks: a bucket made under an older rule stays reachable by its name.
[[nodiscard]] bool orbs3_bucket_name_creatable(std::string_view name);

// Takes the bucket name for its owner: makes the data directory that marks a name as taken, exclusively,
// then settles with any other owner taking the name at the same moment (see orbs3_bucket_claim_state): of
// owners racing for one name exactly one keeps it, the others' directories are removed again. 0 when the
// name is the bucket's alone now; ORBS3_S3_BUCKET_ALREADY_OWNED_BY_YOU when the owner holds it already;
// ORBS3_S3_BUCKET_ALREADY_EXISTS when another owner does; ORBS3_S3_INTERNAL_ERROR when the
// directories can't be made or read. The bucket's paths must be filled. May wait up to 200 ms for racers.
[[nodiscard]] int orbs3_claim_bucket_name(const orbs3_vhost_t* vhost, const orbs3_bucket_t* bucket);

// 1 when the directory holds an entry (temporary files of a record replace aside), 0 when it holds none
// or does not exist, -1 when it can't be read.
[[nodiscard]] int orbs3_dir_has_entries(const char* path);
// 1 when a file lies anywhere below the directory (temporary files of a record replace aside), stopping
// at the first; 0 when none does or it does not exist; -1 when something can't be read.
[[nodiscard]] int orbs3_tree_has_files(const char* path, int depth = 0);

// Removes the bucket's record, then its meta, data, recycle and version directories with all they hold.
// 0; -1 when the record or the data directory could not be removed (the name then stays taken).
[[nodiscard]] int orbs3_delete_bucket(const orbs3_vhost_t* vhost, const orbs3_bucket_t* bucket);

// The JSON document of GetBucketStat, malloc'd; null when memory runs out.
[[nodiscard]] char* orbs3_make_bucketstat_json(const orbs3_bucket_t* bucket);

int orbs3_put_bucket(orbs3_http_request_t* r);
int orbs3_del_bucket(orbs3_http_request_t* r);
// ListBuckets: the requester's buckets (every owner's for the administrator) in name order, with S3's
// paging: prefix, max-buckets (1 to 10000) and continuation-token; without max-buckets all of them.
int orbs3_list_buckets(orbs3_http_request_t* r);
// GetBucketLocation: buckets have no region here, so the constraint is empty, as S3 answers for its
// first region.
int orbs3_get_bucket_location(orbs3_http_request_t* r);
int orbs3_get_bucket_info(orbs3_http_request_t* r);
int orbs3_get_bucket_stat(orbs3_http_request_t* r);
int orbs3_put_bucket_acl(orbs3_http_request_t* r);
int orbs3_get_bucket_acl(orbs3_http_request_t* r);
int orbs3_put_bucket_rename(orbs3_http_request_t* r);
// A HEAD on a bucket: the checks of a listing with the list code, then 200 without a body.
int orbs3_head_bucket(orbs3_http_request_t* r);
