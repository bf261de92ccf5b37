// Small plain operations on files that the storage engine shares: whole small files (the record files),
// existence, content types and identifiers. No locks: the file system is the only arbiter.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

// Reads the whole file into a new malloc'd buffer with a NUL behind the bytes (the XML parsers rely on
// it); the caller frees *data. *length, when asked for, gets the byte count. A file that shrinks while it
// is read gives what was there. 0, or -1 when the open or a read fails (*data then null).
[[nodiscard]] int orbs3_read_data_from_file(const char* path, char** data, std::size_t* length = nullptr);

// 0 when the path exists; -1 for a null path or a missing file.
[[nodiscard]] int orbs3_access_file(const char* path);

// The MIME type for the name's suffix (case-sensitive, ".html", ".png", ...), or null.
[[nodiscard]] const char* get_content_type(std::string_view name);

// Request and upload identifiers: a random UUID as 32 lower-case hexadecimal digits and a NUL.
inline constexpr std::size_t ORBS3_UUID_HEX_LEN = 32;
void orbs3_get_uuid_ex(char (&buf)[ORBS3_UUID_HEX_LEN + 1]);

// ---- temporary files and bounded copies ----
// A file is written under a temporary name beside the one it becomes (ORBS3_RECORD_TMP_PREFIX and a fresh
// UUID: listings and scans pass it over, and writers in parallel never meet in one file), then committed
// whole, so a reader sees the old file or the new one and a crash leaves at worst a stray temporary.

// A new empty file (mode 0644, write-only, close-on-exec) in `dir` ("/" behind it or not), its path to
// `path`. The descriptor, or -1 with errno (ENOENT when `dir` is gone) and `path` empty.
[[nodiscard]] int orbs3_temp_open(const char* dir, char* path, std::size_t size);

// Commits the written temporary `tmp` as `target`: its bytes flushed, renamed, the directory flushed so the
// rename survives a crash. 0, or -1 with errno (ENOENT when the temporary or the target's directory went
// meanwhile); the temporary is then left for the caller.
[[nodiscard]] int orbs3_temp_commit(const char* tmp, const char* target);

// Owner of a temporary made by orbs3_temp_open: the descriptor is closed and, unless kept, the file
// removed on every path that gives up on it.
struct orbs3_temp_file {
    int fd = -1;
    char path[1024] = "";  // ORBS3_PATH_AREA: every derived path fits
    orbs3_temp_file() = default;
    orbs3_temp_file(const orbs3_temp_file&) = delete;
    orbs3_temp_file& operator=(const orbs3_temp_file&) = delete;
    ~orbs3_temp_file();
    [[nodiscard]] int open(const char* dir) { return fd = orbs3_temp_open(dir, path, sizeof path); }
    // The name is in its next owner's hands (a commit moved it): the descriptor closes, nothing is removed.
    void keep();
};

// Called with each stretch of bytes a copy moves through user space.
using orbs3_copy_observer = std::function<void(const uint8_t* data, std::size_t len)>;

// Copies `len` bytes of `in` from `offset` to the end of `out`, short reads and writes and EINTR
// handled. Without an observer copy_file_range moves them (no bytes through user space; a file system
// may share extents), one bounded buffer where it can't; with one they pass through that buffer and the
// observer sees them all, in order. `out` -1 only reads (a digest of a file). 0, or -1 when a read or a
// write fails or `in` ends before `len` bytes.
[[nodiscard]] int orbs3_copy_range(int in, int out, int64_t offset, int64_t len,
                                   const orbs3_copy_observer& observe = {});
