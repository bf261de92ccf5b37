// Deleting objects: DeleteObject (the bytes go to the recycle tree), DeleteObjects and DeleteObjectVorne
// (destroyed), and the directories that deletes leave behind. A key's "/" is a real directory in the data
// and meta trees; once a delete has emptied one it goes, so that listings show no prefix without objects.
#pragma once

#include <string_view>

#include "http/orbs3_http_request.h"
#include "storage/orbs3_bucket.h"

// DELETE of an object: 204, whether or not the key existed.
int orbs3_delete_object_msg(orbs3_http_request_t* r);
// POST ?delete with up to 1000 keys: 200 with a DeleteResult document. Each key names one object; a
// directory key ("a/") its directory object, never the keys below it.
int orbs3_delete_objects(orbs3_http_request_t* r);
// DELETE ?vorne: the object destroyed at once, nothing recycled; a directory key with everything below it.
// 204; NoSuchKey for a key that isn't there.
int orbs3_delete_object_vorne(orbs3_http_request_t* r);

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
