// What a client does to an old content by its stamped key "<key>..<suffix>" (the name a listing of the
// version or recycle tree shows): make a version live again, send a version to the recycle tree, make a
// recycled content live again, or remove a recycled content for good.
//
// A restore swaps: the live content leaves its key as a whole (bytes and record) under its own name, and
// the chosen content comes back with its own record, so a restored object is the object it was (ETag,
// headers, metadata, version id). Only an old content that has no record is given one rebuilt from its
// bytes. Nothing is ever replaced: every move is a rename that fails on a taken name, and a restore that
// fails half way puts the live content back.
#pragma once

#include <string_view>

#include "storage/orbs3_bucket.h"

struct orbs3_vhost_t;

// Makes the version `stamped` of the bucket's version tree the live content of its key. The live content,
// if any, becomes a version named by its id (a fresh suffix for a "null" one), or goes to the recycle tree
// when save_num is 0 or below; when the key keeps save_num versions besides the chosen one, the eldest
// goes to the recycle tree first. With versioning not enabled nothing moves and the result is 0. The
// key's directories are made when they have gone. The bucket's counts follow the live content. 0, or
// ORBS3_VERSION_BAD_NAME, ORBS3_VERSION_DIR_UNREADABLE, ORBS3_VERSION_RETIRE_FAILED,
// ORBS3_VERSION_MOVE_FAILED (also when there is no such version), or the live key's status
// (orbs3_object_key_status).
[[nodiscard]] int orbs3_restore_version(orbs3_vhost_t* vhost, const orbs3_bucket_t* bucket,
                                        std::string_view stamped);

// Makes the content `stamped` of the recycle tree the live content of its key. The live content it
// displaces goes to the recycle tree under its own name while versioning is not enabled, and to the
// version tree (with the save_num bound as above) while it is. Results as orbs3_restore_version.
[[nodiscard]] int orbs3_restore_recycled(orbs3_vhost_t* vhost, const orbs3_bucket_t* bucket,
                                         std::string_view stamped);

// Moves the version `stamped` (bytes and record) to the recycle tree, keeping its name. 0, or
// ORBS3_VERSION_BAD_NAME, ORBS3_VERSION_NOT_THERE (no such content, or the move failed), or the live
// key's status.
[[nodiscard]] int orbs3_delete_version(const orbs3_bucket_t* bucket, std::string_view stamped);

// Removes the content `stamped` of the recycle tree (bytes and record) for good. A name that is not
// there, or can't name anything there, is gone already: 0. InternalError when a file could not be removed.
[[nodiscard]] int orbs3_purge_recycled(const orbs3_bucket_t* bucket, std::string_view stamped);
