// The recycle tree: where DeleteObject puts an object instead of destroying it. A recycled content lies
// under the unique names of old contents (orbs3_version_name.h): its bytes at
// "<recycle_dir>/<key>..<suffix>" and its record beside them as ".orbs3-v-<name>..<suffix>", so that a
// content brought back is the same object it was. The suffix is the content's version id when it has a
// real one, else a fresh one made from the time its content was written: two contents of one key
// deleted within one second never share a name.
#pragma once

#include <cstdint>
#include <string_view>

#include "storage/orbs3_bucket.h"
#include "versions/orbs3_version_name.h"

// Results of orbs3_delete_object_to_recycle beside a status code.
inline constexpr int ORBS3_RECYCLE_NOTHING = 0;  // no record and no data file: nothing to delete
inline constexpr int ORBS3_RECYCLE_MOVED = 1;    // the object is gone from the bucket, its content recycled

// Takes the object `key` (not a directory key) out of the bucket: its record moves into the recycle tree
// first, so no listing shows an object whose bytes are gone, then its data file, each by a rename that
// replaces nothing. When the bytes can't move the record comes back and the object stays whole
// (InternalError). A data file without a record is recycled too, its suffix made from its modification
// time; a record without a data file is removed. A PUT that replaced the bytes meanwhile keeps its object.
// *size gets the bytes the bucket's statistics counted for the object (the record's size, else the
// file's); *suffix (when given) the name the content lies under in the recycle tree, empty when no bytes
// went there.
[[nodiscard]] int orbs3_delete_object_to_recycle(const orbs3_bucket_t* bucket, std::string_view key, int64_t* size,
                                                 char (*suffix)[ORBS3_VERSION_SUFFIX_LEN + 1] = nullptr);
