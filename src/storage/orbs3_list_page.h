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
#include <string>
#include <string_view>
#include <vector>

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

// A key as a walk gives it: the key, and where its files lie.
struct orbs3_walk_key_t {
    std::string key;
    std::string rel;                 // a record tree: the key's record, relative to the root
    std::vector<std::string> files;  // a grouping tree: the names in the key's directory that belong to it
};

// The component a file name of a grouping tree belongs to, or an empty view for a name of no key. The
// view points into `name`.
using orbs3_walk_group_pt = std::string_view (*)(std::string_view name);

// Keys of a tree shaped like the key hierarchy, in S3 order, strictly past a bound that only grows. In a
// record tree (no grouping) each regular file is a key's record, and ORBS3_DIR_MARKER is the directory
// object's; other names with ORBS3_RESERVED_PREFIX are the server's own. In a grouping tree `group` names
// the key each regular file belongs to, and the files of one key come together. Each directory is read
// once when the walk enters it; its entries that can't matter (behind the bound, outside the prefix) are
// dropped there, and the rest are sorted lazily in chunks of keys, so a page out of a huge flat directory
// sorts only what it takes. Only directories of the tree itself are entered, never one a link points to.
class orbs3_key_walk {
public:
    orbs3_key_walk(std::string_view root, std::string_view prefix, std::size_t chunk,
                   orbs3_walk_group_pt group = nullptr);

    // Moves the bound to `key`, and with `whole` past every key that starts with `key` (a common prefix
    // already given out covers all of them).
    void raise(std::string_view key, bool whole);

    // 1 with the next key, 0 at the end, -1 with errno when the walk's root can't be read.
    [[nodiscard]] int next(orbs3_walk_key_t* out);

private:
    struct bound_t {
        std::string key;
        bool whole = false;
        bool passes(std::string_view k) const;
        bool may_enter(std::string_view p) const;
    };
    static constexpr uint32_t kNone = UINT32_MAX;
    struct entry_t {
        std::string sort_name;  // a directory's name ends in "/"
        bool dir;
        uint32_t first = kNone, last = kNone;  // a grouping tree: the key's chain in frame_t::files
    };
    // A grouping tree's file names lie in one buffer of their directory, chained per key, so that
    // reading a directory of many old contents costs no allocation per file.
    struct file_t {
        uint32_t at, len;
        uint32_t next;
    };
    struct frame_t {
        std::string prefix;  // the key prefix of this directory: "" or ending in "/"
        std::vector<entry_t> entries;
        std::string names;
        std::vector<file_t> files;
        std::size_t pos = 0;
        std::size_t sorted = 0;
        bool marker = false;  // the directory object's record is still to be given
    };

    bool compatible(std::string_view p) const;
    bool wanted(std::string_view k) const;
    void sort_ahead(frame_t& f);
    int push(const std::string& p);

    std::string root_;
    std::string prefix_;
    std::size_t chunk_;
    orbs3_walk_group_pt group_;
    bound_t bound_;
    std::vector<frame_t> stack_;
    bool started_ = false;
};

// The common prefix `key` rolls up to under `prefix` and `delimiter`, or an empty view when it stays a key
// of its own (no delimiter, or none behind the prefix). `key` must start with `prefix`.
[[nodiscard]] std::string_view orbs3_list_rollup(std::string_view key, std::string_view prefix,
                                                 std::string_view delimiter);
