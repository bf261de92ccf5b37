// Moving a key's contents between its live place and the bucket's version and recycle trees. A content is
// its bytes and its record; every move here takes both (record first, so a content never lies somewhere
// without the record it came with) by renames that never replace anything: an old content is reachable
// exactly once, at one name, and never shares an inode with the live object.
#pragma once

#include <string_view>
#include <vector>

#include "storage/orbs3_bucket.h"
#include "storage/orbs3_layout.h"
#include "versions/orbs3_version_name.h"

// Whether the bucket's versioning was ever set: a bucket that never had it keeps no versions, gives
// contents no ids and its replies no x-amz-version-id.
[[nodiscard]] bool orbs3_versioning_ever_set(const orbs3_bucket_t* bucket);

// Moves a content from `from` to `to` (both the bytes and the record; a side that does not exist at
// `from` is skipped, a record-only content is a delete marker). The directories of `to` are made. 0, or -1
// with errno, and then nothing has moved.
[[nodiscard]] int orbs3_version_move(const orbs3_version_file_t* from, const orbs3_version_file_t* to);

// Moves a content of `key` from `from` into the recycle tree, named by `suffix` (an old version keeps its
// name); when that name is taken (a file from before names were unique) a fresh suffix with the same stamp
// is used. *used (when given) gets the suffix it lies under. 0 or ORBS3_VERSION_MOVE_FAILED.
[[nodiscard]] int orbs3_version_to_recycle(const orbs3_bucket_t* bucket, std::string_view key,
                                           const orbs3_version_file_t* from, std::string_view suffix,
                                           char (*used)[ORBS3_VERSION_SUFFIX_LEN + 1] = nullptr);

// The live place of `key` as a content: its data file and its record.
[[nodiscard]] orbs3_version_file_t orbs3_version_live_file(const orbs3_object_path_t* path);

// What a replacing write does with the content it replaces, with the key's commit lock held, after the
// write's conditions and before the new bytes are renamed over the live data. A content with a real id is
// kept as a version; one with the id "null" is kept only while versioning is enabled (else the rename
// replaces it, as an unversioned write does). With `new_is_null`, a "null" version in the version tree
// moves to the recycle tree, so a key never has two. When the key already had save_num versions, the
// eldest moves to the recycle tree; with save_num 0 or below nothing is kept as a version and the old
// content goes to the recycle tree at once. 0, or InternalError when the old content could not be moved
// (it is then still live and the write must not go on), or KeyTooLong when its names don't fit.
[[nodiscard]] int orbs3_object_version_update(const orbs3_bucket_t* bucket, std::string_view key,
                                              const orbs3_object_path_t* path, bool new_is_null);

// Moves every "null" content of `list` (the key's entries in the version tree) to the recycle tree and
// out of the list: a key whose new content has the id "null" keeps no other. 0 or ORBS3_VERSION_MOVE_FAILED.
[[nodiscard]] int orbs3_version_recycle_nulls(const orbs3_bucket_t* bucket, std::string_view key,
                                              std::vector<orbs3_version_entry_t>* list);

// The eldest of `list` (the key's entries in the version tree, newest first) to the recycle tree; a delete
// marker, having no bytes, is removed. 0, or ORBS3_VERSION_RETIRE_FAILED.
[[nodiscard]] int orbs3_version_retire_eldest(const orbs3_bucket_t* bucket, std::string_view key,
                                              const std::vector<orbs3_version_entry_t>& list);

// Makes the newest version of `key` live again when the key has no live content and its newest entry in
// the version tree is a content, not a delete marker. 1 when one came back, 0 when none did, or a status.
[[nodiscard]] int orbs3_version_promote(const orbs3_bucket_t* bucket, std::string_view key,
                                        const orbs3_object_path_t* path);
