// The step that makes new content a key's object: a whole, flushed temporary file beside the object is
// moved over it, with the request's write conditions (If-Match, If-None-Match) checked in that same step.
//
// Commits of PutObject and CompleteMultipartUpload take an exclusive flock(2) on the key's data
// directory from the condition check until the object's record is written, so that for them the check,
// the move and the record are one step: of two writers with `If-Match: <etag>` exactly one finds the
// ETag it names, and the data file and the record always come from the same writer. The lock is on the
// directory because the object's own files are replaced by rename and a lock on them would lock the
// inode being replaced; it is held for a rename and a record write, never while a body arrives or parts
// are assembled. `If-None-Match: *` needs no lock to be exact: the temporary file is hard-linked to the
// object's name, which fails when the name exists, also against a writer that takes no lock.
// Limits: across nodes the lock is only as good as the cluster file system's flock (where a directory
// can't be locked at all, commits go on without it and say so once in the log); writers that take no
// lock (CopyObject and append on a bucket that never had versioning, DeleteObject) are ordered only by
// their own renames.
//
// The commit is also where the content being replaced leaves its key: after the conditions and before
// the rename, under the lock, orbs3_object_version_update keeps it as a version (or recycles it) as the
// bucket's versioning says. The new content's record stamp is taken there too, under the lock, so that
// stamps (and the version ids made of them) follow the order in which contents became live.
#pragma once

#include <string_view>

#include "event/orbs3_fd.h"
#include "http/orbs3_http_conditional.h"
#include "storage/orbs3_bucket.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object_store.h"
#include "versions/orbs3_version_name.h"

// Owns the commit lock of a key's directory: closing the only descriptor of the lock releases it.
struct orbs3_commit_lock_t {
    orbs3_fd dir;
};

// Takes the lock of the directory that holds `data_path`, waiting for another commit there to end.
// 0 (also when the file system can't lock directories, lock->dir then not open), or -1 with errno.
[[nodiscard]] int orbs3_commit_lock(const char* data_path, orbs3_commit_lock_t* lock);

// The conditions against the key as it is now: it exists when its data file does, and its ETag is its
// record's. 0, or PreconditionFailed, NoSuchKey, NotImplemented (a tag in If-None-Match).
[[nodiscard]] int orbs3_object_check_conditions(const orbs3_conditional_t* c, const char* data_path,
                                                const char* meta_path);

// Whether `key` can take new content in the bucket: on a bucket whose versioning was ever set, its last
// component must leave room for the names of its versions. 0 or KeyTooLong; checked before a body is
// read, so that a write is not refused only after its bytes came.
[[nodiscard]] int orbs3_object_versionable(const orbs3_bucket_t* bucket, std::string_view key);

// What a commit makes of `key`'s new content besides its bytes.
struct orbs3_commit_t {
    const orbs3_bucket_t* bucket = nullptr;
    std::string_view key;
    const orbs3_object_path_t* path = nullptr;
    orbs3_object_before_t before;  // what stood at the data file: the key is replaced, not new
    char stamp[64] = "";           // the new record's time stamp
    // The new content's version id: made of its stamp while versioning is enabled, else empty ("null").
    char version_id[ORBS3_VERSION_SUFFIX_LEN + 1] = "";
};

// With the key's lock held: the conditions checked, the replaced content kept as a version as the
// bucket's versioning says, then `tmp` moved to the data file (linked and unlinked under If-None-Match:
// *, renamed otherwise). 0 once `tmp` is the object, with commit->before, stamp and version_id set; else a
// status (InternalError also when the old content could not be kept: it is then still live), `tmp` left
// where it was for the caller to remove.
[[nodiscard]] int orbs3_object_commit_file(const orbs3_conditional_t* c, const char* tmp, orbs3_commit_t* commit);
