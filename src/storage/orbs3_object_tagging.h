// The tags of an object: PutObjectTagging, GetObjectTagging and DeleteObjectTagging on the record of the
// live object or of one version (?versionId=), and the tags a write gives its new content (x-amz-tagging).
// A change rewrites the content's record whole, under the key's commit lock, after reading it again there.
#pragma once

#include "http/orbs3_http_request.h"
#include "s3/orbs3_s3_documents.h"
#include "storage/orbs3_object_store.h"
#include "storage/orbs3_record.h"

int orbs3_put_object_tagging(orbs3_http_request_t* r);
int orbs3_get_object_tagging(orbs3_http_request_t* r);
int orbs3_delete_object_tagging(orbs3_http_request_t* r);

// The record's tags in file order.
[[nodiscard]] orbs3_tag_set_t orbs3_object_tags(const orbs3_object_t* rec);
// Replaces the record's tags by `tags`, texts copied into its pool. 0, or -1 when memory runs out.
[[nodiscard]] int orbs3_object_set_tags(orbs3_object_t* rec, const orbs3_tag_set_t& tags);

// The tags a write gives its new content: those of its x-amz-tagging header, decoded into the request's
// pool, as meta's tags (none without the header). 0, or InvalidTag for a header that does not decode or
// breaks S3's limits.
[[nodiscard]] int orbs3_object_tags_from_request(orbs3_http_request_t* r, orbs3_object_meta_t* meta);
