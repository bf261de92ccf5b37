// CopyObject: an object's bytes and record copied under another key, in the same bucket or another bucket
// of the same vhost, and the copy source header that CopyObject and UploadPartCopy share.
#pragma once

#include <string_view>

#include "http/orbs3_http_request.h"
#include "memory/orbs3_palloc.h"

// The source of a copy from "x-amz-copy-source" or, when that is absent, "X-Copy-Source":
// "[/]<bucket>/<key>[?versionId=<id>]", percent-encoded. One leading "/" is dropped, the version suffix
// is cut off into *version_id (when given; empty when the source names none), the rest is decoded ("+"
// stays "+": clients encode a space as %20) and split at its first "/". *bucket and *key become
// NUL-terminated copies in `pool`. 0; InvalidArgument when the header is missing, a "%" is not followed by
// two hex digits, the bucket or the key is empty, the bucket name is not legal or the version id can't be
// one; or the status of the key checks every key passes (InvalidArgument, KeyTooLong).
[[nodiscard]] int orbs3_parse_copy_source(orbs3_http_request_t* r, orbs3_pool_t* pool, orbs3_str_t* bucket,
                                          orbs3_str_t* key, std::string_view* version_id = nullptr);

// Opens the source a copy names: version `version_id` of `key` when one is named, else the live object.
// A delete marker can't be copied: InvalidRequest. Else as orbs3_object_open and orbs3_object_open_version.
struct orbs3_object_source_t;
struct orbs3_bucket_t;
[[nodiscard]] int orbs3_open_copy_source(orbs3_http_request_t* r, const orbs3_bucket_t* bucket, std::string_view key,
                                         std::string_view version_id, orbs3_object_source_t* src);

// PUT with a copy source: 200 with a CopyObjectResult document.
int orbs3_copy_object(orbs3_http_request_t* r);
