// The Range header of a GET, resolved against the object's size the way S3 answers it: one byte range
// is served with 206, an unsatisfiable one with 416, and everything else (other units, several ranges,
// text that does not parse) is ignored and the whole object goes out with 200.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

struct orbs3_byte_range_t {
    int64_t first;
    int64_t last;  // inclusive
};

enum {
    ORBS3_RANGE_NONE = 0,           // serve the whole object, 200
    ORBS3_RANGE_ONE = 1,            // 206 with the range written to *out
    ORBS3_RANGE_UNSATISFIABLE = 2,  // 416 InvalidRange, Content-Range: bytes */size
};

// "bytes " + three 19-digit numbers + "-" + "/"; a buffer of ORBS3_CONTENT_RANGE_MAX + 1 holds any.
inline constexpr std::size_t ORBS3_CONTENT_RANGE_MAX = 6 + 19 + 1 + 19 + 1 + 19;

// One of the three results for the header's value and an object of `size` bytes; *out is written only
// for ORBS3_RANGE_ONE, and then 0 <= first <= last < size.
[[nodiscard]] int orbs3_http_range_resolve(std::string_view value, int64_t size, orbs3_byte_range_t* out);

// Writes "bytes first-last/size", or "bytes */size" when `r` is null, with a NUL. Returns the length, or 0
// (and writes nothing) when `room` cannot hold it.
[[nodiscard]] std::size_t orbs3_http_content_range(char* out, std::size_t room, const orbs3_byte_range_t* r,
                                                   int64_t size);
