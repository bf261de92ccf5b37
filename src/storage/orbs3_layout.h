// Where a vhost's objects lie: four parallel trees (data, meta, version, recycle), the paths of a bucket
// and of a key inside them, which names are legal, and how directories are made. Nothing else in the
// storage engine invents a path.
//
// A key's "/" is a real directory. Every name that reaches a path is checked here first: a "." or ".."
// component, a NUL byte or an empty component (a leading "/", "a//b") would let a key leave its bucket's
// tree or alias another key, so such names are refused before any path is built. Paths live in fixed
// areas of ORBS3_PATH_AREA bytes; a path that would not fit is refused (-1), never cut.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string_view>

#include "memory/neo_files.h"  // mkdir_p
#include "memory/neo_list.h"
#include "storage/orbs3_bucket.h"

struct orbs3_vhost_t;
struct orbs3_user_t;

inline constexpr std::size_t ORBS3_PATH_AREA = 1024;  // every derived path, with its terminator
inline constexpr std::size_t ORBS3_NAME_AREA = 256;   // a bucket name or a key component, with its terminator
// Bytes a key's path must leave free in its area for the names the server makes beside or below it:
// temporary files, the recycle stamp, a multipart upload's staging directory and the temporary parts in it.
inline constexpr std::size_t ORBS3_KEY_PATH_RESERVE = 96;

// Mode of every directory of the trees. Deliberately without search bits: the daemon runs as root, which
// passes directories regardless, and nobody else is meant to walk the tenant's trees.
inline constexpr mode_t ORBS3_DIR_MODE = 0600;

// A directory object ("a/b/") keeps its record in its own meta directory under this name, so that
// listings, HEAD and GET know it from a directory that only holds other keys. Key components starting
// with ORBS3_RESERVED_PREFIX belong to the server (records in the making, directory records) and are
// never a client's key.
inline constexpr std::string_view ORBS3_RESERVED_PREFIX = ".orbs3-";
inline constexpr std::string_view ORBS3_DIR_MARKER = ".orbs3-dir";

// orbs3_check_key_conflict: a file of the data tree stands where the key needs a directory ("a" is
// stored and "a/b" arrives), or a directory stands where the key's file must go ("a/b" is stored and
// "a" arrives).
inline constexpr int ORBS3_KEY_CONFLICT_FILE = -20;
inline constexpr int ORBS3_KEY_CONFLICT_DIR = -21;

// The paths of one object. The *_dir fields are the matching *_path without its last component, the
// "/" kept; for a directory object (key ending in "/") they equal the path.
struct orbs3_object_path_t {
    char data_path[ORBS3_PATH_AREA];
    char meta_path[ORBS3_PATH_AREA];
    char version_path[ORBS3_PATH_AREA];
    char recycle_path[ORBS3_PATH_AREA];
    char data_dir[ORBS3_PATH_AREA];
    char meta_dir[ORBS3_PATH_AREA];
    char version_dir[ORBS3_PATH_AREA];
    char recycle_dir[ORBS3_PATH_AREA];
};

// Builds the vhost's four roots ("<cluster_path>/<group_path>/data", .../meta, .../version,
// .../recycle) and makes their directories, with "bucket" and "object" under the meta root. A failure to
// make a directory is ignored (another node may be making it; the first request that needs it will tell).
// -1 when a root does not fit its area or memory runs out (the roots are then left empty), else 0.
[[nodiscard]] int orbs3_init_path(orbs3_vhost_t* vhost);

// Makes the root directories again, from the roots already built, for every vhost of the list
// (orbs3_list_node_t nodes carrying orbs3_vhost_t); a null list is left alone.
void orbs3_reload_path(neo_list_head_t* vhosts);

// Fills data_dir, meta_file, meta_dir, version_dir and recycle_dir of `bucket` (in its pool) for the
// bucket `name` of its owner `owner_name`. Nothing on disk is touched: every request of the bucket calls
// this, and only PutBucket needs the directories. `user` takes no part. -1 when the bucket name or the owner name is
// unsafe as a path component (empty, ".", "..", holding "/" or NUL), a path does not fit its area, or
// memory runs out; else 0.
[[nodiscard]] int orbs3_bucket_init_path(const orbs3_vhost_t* vhost, const orbs3_user_t* user,
                                         orbs3_bucket_t* bucket, std::string_view name);

// The one place a name from a request becomes a path: "<tree>/<key>" into `out` (ORBS3_PATH_AREA bytes),
// `tree` being one of a bucket's directories. `key` is empty (the tree itself), a key, or a key prefix
// ending in "/". Refused (-1, `out` emptied) unless every component of the key is a real name: no empty
// component ("a//b", "/a"; only the last may be empty, after a final "/"), no "." or "..", no NUL; and
// the path must fit and lie below the tree. Keys, prefixes, markers and tokens reach open, stat and
// opendir only through here. 0 otherwise.
[[nodiscard]] int orbs3_tree_path(std::string_view tree, std::string_view key, char* out);

// Writes "<dir>/<key>" of the bucket's data, meta, version and recycle directories into four caller areas
// of ORBS3_PATH_AREA bytes; a null area is skipped. -1 for an unsafe key or a path that does not fit
// (the areas then hold empty strings), else 0.
[[nodiscard]] int orbs3_get_object_path(const orbs3_bucket_t* bucket, std::string_view key, char* data,
                                        char* meta, char* version, char* recycle);

// Fills all eight paths of `key`. `file_name`, when not empty, must be the key's last component (what
// follows its last "/"). -1 for an unsafe key, a wrong file_name or a path that does not fit; else 0.
[[nodiscard]] int orbs3_make_object_path(const orbs3_bucket_t* bucket, std::string_view key,
                                         std::string_view file_name, orbs3_object_path_t* path);

// Makes the directories a key needs under `path` (the key's path in one tree) when the key holds a "/":
// all of `path` when it ends in "/", else everything in front of its last "/". 0, or
// ORBS3_S3_INTERNAL_ERROR when a directory can't be made.
[[nodiscard]] int orbs3_make_dir_by_name(std::string_view key, const char* path);

// The same, decided on `path` alone.
[[nodiscard]] int orbs3_make_dir_by_object_path(const char* path);

// 0 when the bucket name is legal: at most bucketmaxlen bytes and less than ORBS3_NAME_AREA, no "/",
// no NUL, not "." or "..". An empty name passes (the handlers test the length first). -1 otherwise.
[[nodiscard]] int orbs3_check_bucketname(std::string_view name);

// 0 when the key is legal: at most objectpathlen bytes and less than ORBS3_PATH_AREA, at most
// objectdirnum "/", every component at most objectmaxlen bytes and less than ORBS3_NAME_AREA; no NUL,
// no "." or ".." component, no empty component (a leading "/", "a//b"), as orbs3_tree_path has it.
// -1 otherwise.
[[nodiscard]] int orbs3_check_objectname(std::string_view key);

// The number of "/" in `str`.
[[nodiscard]] int orbs3_check_dir_num(std::string_view str);

// Whether every path the server makes for `key` in the bucket's four trees fits its area: the key's path
// in the deepest of them with ORBS3_KEY_PATH_RESERVE bytes to spare. A key that passes
// orbs3_check_objectname can still be too long for a bucket whose trees lie deep; a write refuses it
// before anything is made.
[[nodiscard]] bool orbs3_object_key_fits(const orbs3_bucket_t* bucket, std::string_view key);

// Whether `key` can be stored in the bucket's data tree without a file and a directory fighting for one
// name: walks the key's prefixes with lstat. 0 when it can; ORBS3_KEY_CONFLICT_FILE when an existing
// non-directory stands where the key needs a directory; ORBS3_KEY_CONFLICT_DIR when an existing directory
// stands where the key's file must go (never for a directory object, whose key ends in "/"); -1 for an
// unsafe key, a path that does not fit, or an lstat failure other than a missing entry.
[[nodiscard]] int orbs3_check_key_conflict(const orbs3_bucket_t* bucket, std::string_view key);
