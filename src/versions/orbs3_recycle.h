// The recycle tree: where DeleteObject puts an object's bytes instead of destroying them. A recycled file
// lies at "<recycle_dir>/<key>..YYYY_MM_DD_hh_mm_ss", stamped with the time its content was written (the
// record's last_modified), in the key's own directories. The record is not kept.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "storage/orbs3_bucket.h"

// "<recycle_dir>/<key>..YYYY_MM_DD_hh_mm_ss" for a record stamp "YYYY-MM-DDThh:mm:ss[.mmmZ]" into `out`
// of `room` bytes. 0, or -1 when the stamp is not of that form or the path does not fit.
[[nodiscard]] int orbs3_recycle_path(const orbs3_bucket_t* bucket, std::string_view key, std::string_view stamp,
                                     char* out, std::size_t room);

// Results of orbs3_delete_object_to_recycle beside a status code.
inline constexpr int ORBS3_RECYCLE_NOTHING = 0;  // no record and no data file: nothing to delete
inline constexpr int ORBS3_RECYCLE_MOVED = 1;    // the object is gone from the bucket, its bytes recycled

// Takes the object `key` (not a directory key) out of the bucket: its record leaves the meta tree first,
// so no listing shows an object whose bytes are gone, then the data file moves into the recycle tree by a
// hard link. When the move fails the record comes back and the object stays whole (InternalError). A data
// file without a record is recycled too, stamped with its modification time. *size gets the bytes the
// bucket's statistics counted for the object (the record's size, else the file's).
[[nodiscard]] int orbs3_delete_object_to_recycle(const orbs3_bucket_t* bucket, std::string_view key, int64_t* size);
