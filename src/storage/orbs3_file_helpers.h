// Small plain operations on files that the storage engine shares: whole small files (the record files),
// existence, content types and identifiers. No locks: the file system is the only arbiter.
#pragma once

#include <cstddef>
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
