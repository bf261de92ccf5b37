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
// lock (CopyObject, DeleteObject, append) are ordered only by their own renames.
#pragma once

#include <string_view>

#include "event/orbs3_fd.h"
#include "http/orbs3_http_conditional.h"
#include "storage/orbs3_object_store.h"

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

// With the key's lock held: the conditions checked, then `tmp` moved to `data_path` (linked and
// unlinked under If-None-Match: *, renamed otherwise); *before is what stood there. 0 once `tmp` is the
// object, else a status, `tmp` then left where it was for the caller to remove.
[[nodiscard]] int orbs3_object_commit_file(const orbs3_conditional_t* c, const char* tmp, const char* data_path,
                                           const char* meta_path, orbs3_object_before_t* before);
