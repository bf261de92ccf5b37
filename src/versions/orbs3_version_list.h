// Listings of old contents. ListObjectVersions reads a bucket's meta tree (the live objects) and its
// version tree (noncurrent versions and delete markers) together, at request time, with no index: the keys
// of both trees in S3 order, and per key the live object first, then the version tree's entries newest
// first. A page is exact in the way object listings are: it holds at most max_keys rows (versions, delete
// markers and common prefixes alike), and resuming from its last row (key and version id, or the common
// prefix) gives every remaining row exactly once.
//
// The flat listing shows one directory of the version or recycle tree as the stamped names a restore or a
// removal takes, without descending.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "memory/neo_list.h"
#include "memory/orbs3_palloc.h"
#include "storage/orbs3_list_page.h"

// Where a version listing reads, and whose the contents without a record are (written before contents
// kept records): the bucket's owner.
struct orbs3_version_trees_t {
    std::string_view meta_dir;
    std::string_view version_dir;
    std::string_view owner_id, owner_name;
};

// What a client asks a version page for. Views stay valid for the call.
struct orbs3_version_query_t {
    std::string_view prefix;
    std::string_view delimiter;          // empty: no rolling up
    std::string_view key_marker;         // resume behind every row of this key (or its common prefix)
    std::string_view version_id_marker;  // with key_marker: resume behind this row of that key instead
    int max_keys = ORBS3_LIST_MAX_KEYS;  // 0 .. ORBS3_LIST_MAX_KEYS
};

struct orbs3_version_page_t {
    neo_list_head_t rows;  // orbs3_version_row_t (s3/orbs3_s3_documents.h) in order, from the pool
    int count = 0;
    bool truncated = false;  // a row follows the last one of the page
    // The last row when truncated: its key (or common prefix) and version id (empty for a prefix).
    std::string_view next_key, next_version_id;
};

// Fills `page`. Rows per key: the live object (IsLatest; its record's version id, "null" when it has
// none), then the version tree's contents newest first, the first of them IsLatest when there is no live
// object; a content whose record says delete marker is a DeleteMarker. A content without a record is a
// Version with its suffix as id, its stamp as LastModified, its size from the file and no ETag (reading
// every such file for a digest would make a page cost its bytes). A record whose bytes are gone and that is
// no marker is passed over (a crash between the two moves of a content left it). Records that do not
// parse and the server's own files never show. A version_id_marker resumes behind the key's last row with
// that id; one not found among them resumes behind the contents newer than it (a "null" one: behind the
// whole key). 0; -1 when a tree can't be read
// or the pool runs out.
[[nodiscard]] int orbs3_version_list_page(const orbs3_version_trees_t* trees, const orbs3_version_query_t* query,
                                          orbs3_pool_t* pool, orbs3_version_page_t* page);

// What a flat listing asks for.
struct orbs3_tree_dir_query_t {
    std::string_view dir;         // "" (the tree itself) or a key prefix ending in "/"
    std::string_view after;       // entries whose key is strictly greater
    bool sizes = true;            // false: every size 0 (the recycle tree's listing)
    std::string_view owner_id, owner_name;
};
inline constexpr int ORBS3_TREE_DIR_MAX = 1000;

// One page of the directory `dir` of `tree`, not descending: at most ORBS3_TREE_DIR_MAX entries in S3 key
// order, each file as the key "<dir><name>" with its modification time and size, each directory as the
// common prefix "<dir><name>/". Records, temporary files (ORBS3_RESERVED_PREFIX) and anything that is
// neither a regular file nor a directory never show. A directory that does not exist, or a `dir` no key
// can start with, is an empty page. 0; -1 when the directory can't be read or the pool runs out.
[[nodiscard]] int orbs3_tree_dir_page(std::string_view tree, const orbs3_tree_dir_query_t* query, orbs3_pool_t* pool,
                                      orbs3_list_page_t* page);
