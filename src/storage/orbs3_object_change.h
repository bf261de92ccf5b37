// One change of one content's record: its ACL or its tags, set by the subresource handlers. The record is
// re-read and rewritten in one atomic write under the key's commit lock, so a change racing a PUT of the
// same key never writes the old object's ETag or size over the new one.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "s3/orbs3_s3_documents.h"
#include "storage/orbs3_bucket.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object_read.h"
#include "storage/orbs3_object_store.h"

// The content a request names, opened, and where its record lies.
struct orbs3_object_target_t {
    orbs3_object_source_t src;
    char record[ORBS3_PATH_AREA] = "";
    char data[ORBS3_PATH_AREA] = "";
};

// Opens the live object of `key` (id empty) or its version `id`, as GetObject would serve it, and finds
// the record that describes it: the live record, a directory object's marker, or the version's own.
// 0, or NoSuchKey, NoSuchVersion, MethodNotAllowed (a delete marker), InvalidArgument, KeyTooLong.
[[nodiscard]] int orbs3_object_target_open(const orbs3_bucket_t* bucket, std::string_view key, std::string_view id,
                                           orbs3_object_target_t* t);

// What one change sets; a field left unset stays as the record has it.
struct orbs3_record_change_t {
    bool set_acl = false;
    uint32_t acl = 0;
    bool set_tags = false;
    orbs3_tag_set_t tags;
};

// Applies `change` to the record of the content `key`/`id` names. Under the key's commit lock (the one
// every commit and every move of a version takes) the content is opened again, so the record changed is
// the one that describes the bytes now there. 0 with *version_id the content's id, or a status.
[[nodiscard]] int orbs3_object_change_record(const orbs3_bucket_t* bucket, std::string_view key, std::string_view id,
                                             const orbs3_record_change_t& change, std::string* version_id);
