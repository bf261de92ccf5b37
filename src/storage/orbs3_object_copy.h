// CopyObject: an object's bytes and record copied under another key, in the same bucket or another bucket
// of the same vhost, and the copy source header that CopyObject and UploadPartCopy share.
#pragma once

#include "http/orbs3_http_request.h"
#include "memory/orbs3_palloc.h"

// The source of a copy from "x-amz-copy-source" or, when that is absent, "X-Copy-Source":
// "[/]<bucket>/<key>[?versionId=<id>]", percent-encoded. One leading "/" and a version suffix are dropped
// (orbmux keeps one version of a key), the rest is decoded ("+" stays "+": clients encode a space as %20)
// and split at its first "/". *bucket and *key become NUL-terminated copies in `pool`. 0; InvalidArgument
// when the header is missing, a "%" is not followed by two hex digits, the bucket or the key is empty or
// the bucket name is not legal; or the status of the key checks every key passes (InvalidArgument,
// KeyTooLong).
[[nodiscard]] int orbs3_parse_copy_source(orbs3_http_request_t* r, orbs3_pool_t* pool, orbs3_str_t* bucket,
                                          orbs3_str_t* key);

// PUT with a copy source: 200 with a CopyObjectResult document.
int orbs3_copy_object(orbs3_http_request_t* r);
