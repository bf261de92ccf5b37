// One page of a bucket listing, read from the bucket's meta tree at request time. The tree is the key
// hierarchy: a record file at "<meta_dir>/<key>" is an object, a directory is a part of keys, and the
// record ORBS3_DIR_MARKER inside a directory is the directory object "<dir>/". There is no index.
//
// Pages are in S3 key order (byte-wise over whole keys). Each directory's entries are sorted with a
// directory compared as its name plus "/", which gives exactly that order for the keys below it. A page
// holds the entries of E strictly behind the resume point, at most max_keys of them, where E is the sorted
// list of keys that start with the prefix, each key rolled up to a common prefix (the prefix, then the key
// up to and including the first delimiter behind it) when the delimiter occurs behind the prefix.
// Resuming from the last entry of a page therefore gives every remaining entry exactly once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "memory/neo_list.h"
#include "memory/orbs3_palloc.h"

// What a client asks a page for. Views stay valid for the call.
struct orbs3_list_query_t {
    std::string_view prefix;
    std::string_view delimiter;  // empty: no rolling up
    std::string_view after;      // the resume point: entries strictly greater; empty: from the start
    int max_keys = 1000;         // 0 .. ORBS3_LIST_MAX_KEYS
};

// Longest page a client gets, whatever it asks.
inline constexpr int ORBS3_LIST_MAX_KEYS = 1000;

struct orbs3_list_page_t {
    neo_list_head_t entries;  // orbs3_list_entry_t (s3/orbs3_s3_documents.h) in key order, from the pool
    int key_count = 0;        // entries on the page, Contents and CommonPrefixes together
    bool truncated = false;   // an entry follows the last one of the page
    std::string_view next;    // the last entry when truncated, in the pool
};

// Fills `page` from the meta tree rooted at `meta_dir` (the bucket's meta directory). Record files that do
// not parse, the server's own files (names starting with ORBS3_RESERVED_PREFIX but the directory
// record), anything that is neither a regular file nor a directory, and directories with no object below
// them never show. A meta directory that does not exist is an empty bucket. 0; -1 when the meta directory
// can't be read or the pool runs out.
[[nodiscard]] int orbs3_list_page(const char* meta_dir, const orbs3_list_query_t* query, orbs3_pool_t* pool,
                                  orbs3_list_page_t* page);

// The common prefix `key` rolls up to under `prefix` and `delimiter`, or an empty view when it stays a key
// of its own (no delimiter, or none behind the prefix). `key` must start with `prefix`.
[[nodiscard]] std::string_view orbs3_list_rollup(std::string_view key, std::string_view prefix,
                                                 std::string_view delimiter);
