// The recycle bin's age bound: contents that have lain in a bucket's recycle tree longer than the
// bucket's recycle_days are removed for good. A content is its bytes "<name>..<suffix>" and its record
// ".orbs3-v-<name>..<suffix>" (versions/orbs3_version_name.h); what it entered the tree at is the change
// time of its bytes, which the move into the tree sets. The stamp in its name is the time its content was
// written, not the time it was deleted, so it is no age. A record without bytes ages by its own change
// time; names that are not content (temporary files, foreign files) are left alone.
//
// Directories that hold nothing any more go too, never the tree's root, and only once they have been
// unchanged for a minute: a writer makes a key's directory before it moves the content in, and a directory
// it has just made must not vanish under it.
#pragma once

#include <cstdint>
#include <ctime>

struct orbs3_vhost_t;

struct orbs3_recycle_expired_t {
    uint64_t contents = 0;  // contents removed: bytes with their record, or a record alone
    uint64_t bytes = 0;     // the size of the bytes files removed
    uint64_t dirs = 0;      // empty directories removed
    uint64_t failed = 0;    // files or directories that could not be examined or removed
};

// Callers that must end soon (a worker asked to stop) pass a test, asked between directories.
using orbs3_recycle_stop_pt = bool (*)();

// Walks the recycle tree `recycle_dir` and removes every content that entered it more than `days` days
// before `now`, then the directories left empty; `days` below 1 keeps everything. Symbolic links are
// never followed, and the walk goes at most 64 directories deep (keys are far shallower). Adds what it
// removed to *out. 0, also for a tree that does not exist; -1 when the tree can't be opened.
[[nodiscard]] int orbs3_recycle_expire(const char* recycle_dir, int32_t days, time_t now,
                                       orbs3_recycle_expired_t* out, orbs3_recycle_stop_pt stop = nullptr);

// orbs3_recycle_expire over every bucket of the vhost whose recycle_days is above 0, each logged at info
// level with what it removed. Adds the whole to *out and gives the number of buckets walked.
int orbs3_recycle_expire_vhost(const orbs3_vhost_t* vhost, time_t now, orbs3_recycle_expired_t* out,
                               orbs3_recycle_stop_pt stop = nullptr);
