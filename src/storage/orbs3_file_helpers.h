// Small plain operations on files that the storage engine shares: whole small files (the record files),
// data files, copies, attributes, content types and identifiers. No locks: the file system is the only
// arbiter.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string_view>

// Truncates (or creates, mode 0666 less umask) and writes all `length` bytes. No fsync and no temporary
// name: a record is rewritten in place. 0, or -1 when the open, a write or the close fails.
[[nodiscard]] int orbs3_write_data_into_file(const char* path, const void* data, std::size_t length);

// Reads the whole file into a new malloc'd buffer with a NUL behind the bytes (the XML parsers rely on
// it); the caller frees *data. *length, when asked for, gets the byte count. A file that shrinks while it
// is read gives what was there. 0, or -1 when the open or a read fails (*data then null).
[[nodiscard]] int orbs3_read_data_from_file(const char* path, char** data, std::size_t* length = nullptr);

// 0 when the path exists; -1 for a null path or a missing file.
[[nodiscard]] int orbs3_access_file(const char* path);

// The size of a regular file that others may read; -1 when stat fails or it is neither a regular file
// nor a directory, -2 for a directory, -3 for a file without read permission for others.
[[nodiscard]] int64_t file_attributes(const char* path);

// The size, or 0 when stat fails.
[[nodiscard]] uint64_t orbs3_get_file_size(const char* path);

// The MIME type for the name's suffix (case-sensitive, ".html", ".png", ...), or null.
[[nodiscard]] const char* get_content_type(std::string_view name);

// Sets the modification time to `mtime` and the access time to now; the second argument is not used
// (callers pass what they have). 0 or -1.
[[nodiscard]] int set_file_time(const char* path, time_t unused, time_t mtime);

// open(path, flags, mode), mode 0600 when `mode` is 0, close-on-exec. Flags 0 (read-only, no create)
// means the caller takes the file over: it is unlinked at once and only the descriptor remains.
// The descriptor, or -1.
[[nodiscard]] int orbs3_open_tempfile(const char* path, int flags, mode_t mode);

// The same without the unlink, positioned at the end of the file (a body resumed after EAGAIN goes on
// where it stopped). The descriptor, or -1.
[[nodiscard]] int orbs3_open_tempfile_end(const char* path, int flags, mode_t mode);

// Copies the data file `src` to `dst` with the source's permission bits and modification time. The
// destination's directory must exist; an existing destination is truncated first. *copied, when asked
// for, gets the bytes written. 0, or -1 when anything fails or the source ends before its size.
[[nodiscard]] int orbs3_copy_file(const char* src, const char* dst, uint64_t* copied = nullptr);

// Request and upload identifiers: a random UUID as 32 lower-case hexadecimal digits and a NUL.
inline constexpr std::size_t ORBS3_UUID_HEX_LEN = 32;
void orbs3_get_uuid_ex(char (&buf)[ORBS3_UUID_HEX_LEN + 1]);
