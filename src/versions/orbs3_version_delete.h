// Deletes on a bucket with versions: a delete marker in place of the live content, and the removal of one
// content by its version id. Every content a delete takes away goes to the recycle tree (a delete marker,
// having no bytes, is the one thing forgotten), and what becomes the key's latest content is made live
// again. The caller holds the key's commit lock, so that no write of the key interleaves.
#pragma once

#include <cstdint>
#include <string_view>

#include "storage/orbs3_bucket.h"
#include "storage/orbs3_object_remove.h"
#include "versions/orbs3_version_name.h"

// What a delete did, for the reply and the bucket's statistics.
struct orbs3_version_delete_t {
    bool delete_marker = false;                          // a marker was made or removed
    char version_id[ORBS3_VERSION_SUFFIX_LEN + 1] = "";  // of the marker made, or the id deleted
    orbs3_object_counts_t gone;  // live objects that left the bucket, less those that came back
};

// The requester, as a delete marker names its owner.
struct orbs3_version_owner_t {
    std::string_view id;
    std::string_view display_name;
};

// DELETE without a version id while the bucket's versioning is enabled: the live content (if any) to the
// recycle tree, then a delete marker in the version tree naming it (`displaced`), counted in the key's
// save_num bound. A marker is made also when the key had no live content. 0, or KeyTooLong, InternalError
// (the live content is then still live).
[[nodiscard]] int orbs3_version_delete_latest(const orbs3_bucket_t* bucket, std::string_view key,
                                              const orbs3_version_owner_t& owner, orbs3_version_delete_t* out);

// DELETE ?versionId=`id`. The live content: to the recycle tree, and the newest version made live. A
// version: to the recycle tree under its own name. A delete marker: removed; when it was the key's latest
// entry the content it displaced comes back from the recycle tree (or, when that is gone, the newest
// version). An id that names nothing is deleted already. 0, or InvalidArgument (an id that can't be
// one), KeyTooLong, InternalError.
[[nodiscard]] int orbs3_version_delete_id(const orbs3_bucket_t* bucket, std::string_view key, std::string_view id,
                                          orbs3_version_delete_t* out);
