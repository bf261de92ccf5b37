// The names of old contents. A content that left its key lies in the bucket's version tree (an old
// version) or its recycle tree (deleted or retired), in the key's own directories, as
//
//     <tree>/<dir of key>/<name>..<suffix>          the bytes (absent for a delete marker)
//     <tree>/<dir of key>/.orbs3-v-<name>..<suffix>  its record: ETag, size, headers, owner, version id
//
// where <name> is the key's last component and <suffix> is "YYYY_MM_DD_hh_mm_ss-uuuuuuxxxxxxxx": the
// time the content was written (its record's last_modified, UTC), then the microseconds of the moment
// the name was made and eight random hex digits. The tail makes every name unique, so two contents of one
// key written in the same second never fight for a name. Files from before the tail existed end right
// after the stamp; they are read the same way.
//
// A content written while the bucket's versioning was enabled carries a version id, and that id is its
// suffix: a version is found from its id without a directory scan. Content written while versioning was
// never enabled or suspended carries the id "null" and gets a fresh suffix when it leaves its key.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string_view>
#include <vector>

#include "storage/orbs3_layout.h"
#include "storage/orbs3_record.h"

inline constexpr std::string_view ORBS3_NULL_VERSION_ID = "null";
inline constexpr std::size_t ORBS3_VERSION_STAMP_LEN = 19;   // "YYYY_MM_DD_hh_mm_ss"
inline constexpr std::size_t ORBS3_VERSION_SUFFIX_LEN = 34;  // the stamp, "-", 6 digits, 8 hex digits
inline constexpr std::string_view ORBS3_VERSION_RECORD_PREFIX = ".orbs3-v-";
// What a version's names add to the key's last component at most: "..", the suffix, the record prefix.
// A key whose last component leaves less than this below the file system's name limit can't be versioned.
inline constexpr std::size_t ORBS3_VERSION_NAME_EXTRA = 2 + ORBS3_VERSION_SUFFIX_LEN + 9;
inline constexpr std::size_t ORBS3_VERSION_NAME_MAX = 255;

// Internal results of the version and recycle operations, answered as status 500 "unknown error".
inline constexpr int ORBS3_VERSION_MOVE_FAILED = 10000;     // a listing or a move failed
inline constexpr int ORBS3_VERSION_RETIRE_FAILED = 10001;   // the eldest version could not be retired
inline constexpr int ORBS3_VERSION_NOT_THERE = 10002;       // the version to delete is missing or stuck
inline constexpr int ORBS3_VERSION_DIR_UNREADABLE = 10003;  // the version directory could not be read
inline constexpr int ORBS3_VERSION_BAD_NAME = 10004;        // no ".." and complete stamp in the name

// A fresh suffix for a content whose record stamp is `stamp` ("YYYY-MM-DDThh:mm:ss[.mmmZ]"). 0, or -1
// when the stamp is not of that form.
[[nodiscard]] int orbs3_version_new_suffix(std::string_view stamp, char (&out)[ORBS3_VERSION_SUFFIX_LEN + 1]);

// The records' time form "YYYY-MM-DDThh:mm:ss.000Z" of `t` (UTC): the stamp of a content that has no
// record of its own (its file's modification time) or of a delete marker (now).
void orbs3_version_record_stamp(time_t t, char (&out)[32]);

// The suffix a content takes when it leaves its live place: its version id when it has a real one, else
// a fresh suffix of the time it was written (its record's stamp, else the modification time of its bytes
// at `data_path`, else now). 0 or -1.
[[nodiscard]] int orbs3_version_leaving_suffix(const orbs3_object_t* rec, const char* data_path,
                                               char (&out)[ORBS3_VERSION_SUFFIX_LEN + 1]);

// Whether a client's version id can name a version: "null", or a suffix as made above.
[[nodiscard]] bool orbs3_version_id_valid(std::string_view id);

// The stamp of a name as a number YYYYMMDDhhmmss, from the text that starts at a ".." (the two dots
// included): six decimal numbers separated by "_". -1 when the text is at most two bytes long or fewer
// than six numbers are found.
[[nodiscard]] int64_t orbs3_check_date(std::string_view from_dots);

// The parts of a stamped key "<key>..<suffix>" as a client names it to the version and recycle actions.
struct orbs3_stamped_key_t {
    std::string_view live_key;      // the key the content belongs to
    std::string_view stamped_name;  // the last component of the stamped key
    std::string_view live_name;     // the last component of the live key
    std::string_view suffix;        // behind the "..": the stamp and the tail, if any
    int64_t stamp = -1;             // YYYYMMDDhhmmss
};
// Splits a stamped key. The separator is the last ".." of the last component, which the suffix (digits,
// "_", "-" and hex, never a ".") can't hold, so keys with ".." in their directories or names split right.
// What follows it must be six numbers "Y_M_D_h_m_s", then the end or "-" and a tail of letters and
// digits. 0, or ORBS3_VERSION_BAD_NAME (nothing of `out` then set). The live key is not checked here.
[[nodiscard]] int orbs3_split_stamped_key(std::string_view stamped, orbs3_stamped_key_t* out);

// Whether a name of a version or recycle directory is the bytes or the record of some content. Records
// and temporary files carry the reserved prefix; everything else that splits is content.
[[nodiscard]] bool orbs3_version_is_record_name(std::string_view name);

// The two files of `key`'s content `suffix` in `tree` (the bucket's version_dir or recycle_dir).
struct orbs3_version_file_t {
    char data[ORBS3_PATH_AREA];
    char record[ORBS3_PATH_AREA];
};
// 0, or -1 when the key is unsafe (orbs3_tree_path), is a directory key, the names would pass the file
// system's name limit, or a path does not fit (then both areas are empty).
[[nodiscard]] int orbs3_version_paths(std::string_view tree, std::string_view key, std::string_view suffix,
                                      orbs3_version_file_t* out);

// One old content of a key in one tree, as a directory scan finds it.
struct orbs3_version_entry_t {
    char suffix[ORBS3_VERSION_SUFFIX_LEN + 1];
    int64_t stamp;
    bool has_data;    // the bytes are there
    bool has_record;  // the record is there
};
// Whether `a` is newer than `b`: the later stamp, then on one stamp the greater suffix (the later made).
[[nodiscard]] bool orbs3_version_newer(const orbs3_version_entry_t& a, const orbs3_version_entry_t& b);

// The contents of `key` in `tree`: names that are exactly "<name>..<suffix>" or the record prefix and
// that (a key "a" does not see the versions of "ba" or "a..b"), joined by suffix, newest first (suffix
// descending, which orders by stamp and then by the moment the name was made). A directory that does not
// exist is an empty list. 0, or ORBS3_VERSION_DIR_UNREADABLE.
[[nodiscard]] int orbs3_version_list_key(std::string_view tree, std::string_view key,
                                         std::vector<orbs3_version_entry_t>* out);

// The version id a record carries: its version_id, or "null" when it has none.
[[nodiscard]] std::string_view orbs3_object_version_id(const orbs3_object_t* rec);

// Where a client's version id of `key` lies.
enum class orbs3_version_place_t { live, version };
struct orbs3_version_ref_t {
    orbs3_version_place_t place = orbs3_version_place_t::live;
    orbs3_version_file_t file;  // the bytes (live: the data path) and the record (live: the meta path)
    bool delete_marker = false;
};
// Finds `id` of `key`: the live object when its record carries that id, else the version tree (a "null"
// id by a scan of the key's versions, any other id directly by its names). Old content that has no
// record (written before records were kept) answers to its suffix; a record without bytes is found only
// when it is a delete marker. 0, NoSuchVersion, InvalidArgument (an id that can't be one), KeyTooLong.
[[nodiscard]] int orbs3_version_find(const orbs3_bucket_t* bucket, std::string_view key, std::string_view id,
                                     orbs3_version_ref_t* ref);

// Moves a file to a name that must be free: rename(2) with RENAME_NOREPLACE, or, where the file system
// lacks it, a rename after checking that the name is free (names here are unique, so no other writer
// makes that name meanwhile). Never leaves the file under both names, so an old content never shares an
// inode with the live object. 0, or -1 with errno (EEXIST when `to` is taken).
[[nodiscard]] int orbs3_move_noreplace(const char* from, const char* to);
