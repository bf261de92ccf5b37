// The object requests: PutObject streams the body into a temporary file beside the object and commits it
// by a rename once it is whole and verified; GetObject and HeadObject serve the data file with what the
// object's record says of it; and what every object request starts with.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "http/orbs3_http_conditional.h"
#include "http/orbs3_http_request.h"
#include "storage/orbs3_bucket.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object_store.h"
#include "storage/orbs3_record.h"

// The checks every object action starts with: bucket and key present and legal, the bucket's record
// read, the access chain run with the object code, and for a write (ORBS3_ACCESS_WRITE) the key's paths
// fitting (orbs3_object_key_fits, else KeyTooLong). 0 with *out set (its paths filled; the caller frees
// it), or a status with r->resp.resource "<bucket>/<key>". `key` gets the key.
[[nodiscard]] int orbs3_object_request_bucket(orbs3_http_request_t* r, int object_code, orbs3_bucket_t** out,
                                              std::string_view* key);

// The bucket `name` of the requester, with the access chain run for `object_code`. 0 with *out set (its
// paths filled; the caller frees it), or NoSuchBucket, AccessDenied (r->resp.resource "/"), InternalError.
[[nodiscard]] int orbs3_object_access_bucket(orbs3_http_request_t* r, std::string_view name, int object_code,
                                             orbs3_bucket_t** out);

// What a request without credentials may do with a bucket for the access code of its action: list it
// (ORBS3_ACCESS_LIST) when the bucket's ACL grants READ to all users, write an object into it
// (ORBS3_ACCESS_WRITE) when it grants WRITE to all users, read an object (ORBS3_ACCESS_READ) as far as the
// bucket goes (the object's own ACL decides, orbs3_anonymous_object_status). 0 or ORBS3_S3_ACCESS_DENIED.
[[nodiscard]] int orbs3_anonymous_bucket_status(const orbs3_bucket_t* bucket, int code);
// Whether such a request may read a content: `open_status` is what opening it gave (0, NoSuchKey, ...),
// `record` its record (null when it has none). A content whose record grants READ to all users is read
// (0); a missing one (NoSuchKey, NoSuchVersion) is told only where the bucket lets all users list it, AccessDenied elsewhere so
// that a private bucket's key names are not probed; any other failure stands. The status to answer.
[[nodiscard]] int orbs3_anonymous_object_status(const orbs3_bucket_t* bucket, const orbs3_object_t* record,
                                                int open_status);
// The user a write records as the owner of what it makes: the requester, or for a request without
// credentials the bucket's owner, written into `stand_in`. The bucket owner keeps every object of the
// bucket in hand (its ACL, its deletion), as S3 does under bucket-owner-enforced ownership; a public
// writer is nobody this tenant knows.
[[nodiscard]] const orbs3_user_t* orbs3_object_writer(const orbs3_http_request_t* r, const orbs3_bucket_t* bucket,
                                                      orbs3_user_t* stand_in);

// The request's conditional headers: `prefix` + "if-match", "if-none-match", "if-modified-since" and
// "if-unmodified-since", as views into its headers. "" for GET, HEAD and writes (which look at the first
// two only), "x-amz-copy-source-" for the source of a copy.
[[nodiscard]] orbs3_conditional_t orbs3_object_conditions(orbs3_http_request_t* r, std::string_view prefix = {});

// What an uploader says of an object (orbs3_object_meta_t), from the request's headers, its ACL headers
// included. 0, InvalidArgument or InvalidRequest for an ACL orbs3_object_acl_from_request refuses, or ORBS3_S3_METADATA_TOO_LARGE when the user metadata
// passes 2 KiB (names and values) or 64 headers, or a standard header passes 1023 bytes.
[[nodiscard]] int orbs3_object_meta_from_request(orbs3_http_request_t* r, orbs3_object_meta_t* meta);

// The ACL the request's headers give (x-amz-acl, x-amz-grant-*), as the mask of s3/orbs3_s3_acl.h. 0 with
// *given false when they give none, 0 with *acl set and *given true, or InvalidArgument (a canned name or
// grantee S3 does not know) or InvalidRequest (a canned ACL beside grant headers).
[[nodiscard]] int orbs3_object_acl_from_request(orbs3_http_request_t* r, uint32_t* acl, bool* given);

// Whether a reply about content with version id `id` (empty: "null") names it in x-amz-version-id: on a
// bucket whose versioning was ever set, or for a content with a real id. A bucket that never had
// versioning keeps the replies it always gave.
[[nodiscard]] bool orbs3_object_says_version(const orbs3_bucket_t* bucket, std::string_view id);
// The x-amz-version-id header line (without CRLF) for such a reply, appended to `lines` behind a CRLF
// when they hold a line already; nothing when the reply names no version.
void orbs3_object_version_line(const orbs3_bucket_t* bucket, std::string_view id, std::string* lines);

// The ?versionId= of the request, decoded; empty when none is given. 0, InvalidArgument for an id that
// can't name a version, or InternalError.
[[nodiscard]] int orbs3_object_version_param(orbs3_http_request_t* r, std::string_view* id);

// The request's bucket and key with `access` checked, and its ?versionId=: the start of every handler
// that acts on one content of a key. 0 or a status.
[[nodiscard]] int orbs3_object_request_version(orbs3_http_request_t* r, int access, orbs3_bucket_ptr* bucket,
                                               std::string_view* key, std::string_view* id);

// PUT of an object: 200 with its ETag.
int orbs3_put_object(orbs3_http_request_t* r);
// POST ?append&position=N (N > 0) of an existing object: 200 with the new ETag.
int orbs3_append_object(orbs3_http_request_t* r);
// GET and HEAD of an object.
int orbs3_get_object(orbs3_http_request_t* r);
