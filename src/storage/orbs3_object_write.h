// Writing an object's bytes: the temporary file new content is made in, beside the object on the same
// file system so that the commit is one rename; the copy of one object's content under another key; and
// the metadata an object keeps when its bytes change without its uploader saying anything new.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "http/orbs3_http_conditional.h"
#include "memory/neo_md5.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object_commit.h"
#include "storage/orbs3_object_store.h"
#include "storage/orbs3_object_read.h"
#include "storage/orbs3_record.h"

// Creates "<directory of final_path>/.orbs3-tmp-<uuid>" (O_EXCL, mode 0644) into `tmp` (`room` bytes).
// A delete that empties the key's directory removes it: with `key` given, a directory that went is made
// again and the create tried again; with `key` empty none is made. 0 with *fd open; KeyTooLong (tmp
// empty) when the name does not fit; InternalError with errno kept (tmp empty) when the create fails.
[[nodiscard]] int orbs3_object_temp_create(std::string_view key, const char* final_path, char* tmp,
                                           std::size_t room, int* fd);

// Readies `key` of the bucket for new content: no other key's file or directory stands in its way, the
// write's conditions hold against the key as it is now, and the key's directories exist (in the data and
// recycle trees). 0 with *path set; KeyConflict, KeyTooLong,
// the status of a failed condition, or InternalError.
[[nodiscard]] int orbs3_object_prepare_write(const orbs3_bucket_t* bucket, std::string_view key,
                                             const orbs3_conditional_t* cond, orbs3_object_path_t* path);

// The metadata the record keeps, its tags among it, as views into it; the additional checksum too when
// `with_checksum`.
void orbs3_object_meta_from_record(const orbs3_object_t* rec, orbs3_object_meta_t* meta, bool with_checksum);
// The record's tags alone, as views into it.
void orbs3_object_tags_from_record(const orbs3_object_t* rec, orbs3_object_meta_t* meta);

// The MD5, in hex, of the file's first `size` bytes. 0 or -1.
[[nodiscard]] int orbs3_object_digest_file(int fd, int64_t size, char out[33]);

// Copies the content of `src` (opened by orbs3_object_open) to commit->key of commit->bucket, through a
// temporary file that replaces it once flushed (a reader sees the old object or the copy, never a part)
// by the commit step, which keeps the replaced content as a version as the bucket says. On a bucket whose
// versioning was ever set the commit runs under the key's lock, which is left held in *lock for the
// record to be written under it. With `onto_itself` on a bucket that never had versioning the bytes stay
// where they are (elsewhere they are copied: a version never shares its bytes with the live object).
// *etag gets the source's recorded ETag or, when it has none, the MD5 of the bytes; *commit what the
// commit step tells. 0, or KeyTooLong, InternalError.
[[nodiscard]] int orbs3_object_copy_content(const orbs3_object_source_t* src, orbs3_commit_t* commit,
                                            bool onto_itself, orbs3_commit_lock_t* lock,
                                            char (&etag)[ORBS3_REC_ETAG_CAP + 1]);

// An append: `length` bytes written into the object at `position`, or at its end when `position` lies
// beyond it, so that no gap can arise.
struct orbs3_object_append_t {
    int64_t position = 0;
    int64_t length = 0;
    int64_t old_size = 0;  // set by the append
    int64_t new_size = 0;
    char etag[33] = "";  // of the new content; of "<key>:<length>:<stamp>" past the size it is read back to
};
// Writes the bytes of the file at `body_path` into the object at `data_path` in place, flushed. A failed write leaves the object its old length. 0; NoSuchKey when the
// object has gone; InternalError.
[[nodiscard]] int orbs3_object_append_content(std::string_view key, const char* body_path, const char* data_path,
                                              const char* stamp, orbs3_object_append_t* a);
