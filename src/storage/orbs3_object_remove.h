// Removing objects: a key's bytes moved to the recycle tree or destroyed, and the directories that removals
// leave behind. A key's "/" is a real directory in the data and meta trees; once a removal has emptied one
// it goes, so that listings show no prefix without objects.
#pragma once

#include <cstdint>
#include <string_view>

#include "storage/orbs3_bucket.h"

// What a removal took out of the bucket, for its statistics.
struct orbs3_object_counts_t {
    int64_t objects = 0;
    int64_t bytes = 0;
};

enum class orbs3_remove_mode_t {
    recycle,        // the bytes go to the recycle tree; a directory key takes its directory object alone
    destroy,        // destroyed at once; a directory key takes its directory object alone
    destroy_below,  // destroyed at once; a directory key takes everything below it too
};

// The one step by which an object leaves its bucket. A key that is not there is removed already (0,
// nothing counted). A directory object's directory goes once nothing is below it, now or with the last
// key below it. Counts what went into *counts. 0, or KeyTooLong, InternalError.
[[nodiscard]] int orbs3_object_remove(const orbs3_bucket_t* bucket, std::string_view key, orbs3_remove_mode_t mode,
                                      orbs3_object_counts_t* counts);

// ---- directories being deleted ----
// A directory key ("a/b/") deleted while keys below it remain is marked in `delobjectdir`, the list of
// this worker process, so that the directory goes with the last of them. `dir` is the key without its
// trailing "/"; the bucket is told by its meta directory. Marking twice keeps one entry.
void orbs3_mark_deling_object_dir(const orbs3_bucket_t* bucket, std::string_view dir);
// Whether `dir` of the bucket is marked.
[[nodiscard]] bool orbs3_get_deling_object_dirs(const orbs3_bucket_t* bucket, std::string_view dir);
// Removes the marked directory `dir` of the bucket from the meta and data trees when no file lies below
// it (empty sub-directories go with it; files are never removed here), and then its mark. 1 when it went
// (or was not there), 0 when it stays; also 0 for a directory that is not marked, which is left alone.
int orbs3_del_object_dirs(const orbs3_bucket_t* bucket, std::string_view dir);
// After `key` left the bucket: its parent directories that are now empty, in the meta and data trees,
// from the deepest up; the walk stops at the first that is not empty, and never touches the bucket's own
// directories. A meta directory that still holds something keeps its data directory too, so a directory
// object's two halves stay together. Marked directories on the way are pruned of empty sub-directories.
void orbs3_remove_emptied_dirs(const orbs3_bucket_t* bucket, std::string_view key);
