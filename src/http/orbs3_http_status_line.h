// The status line of an HTTP response ("HTTP/1.1 200 OK"), scanned byte by byte so that a read that ends
// inside the line can be continued when more bytes arrive.
#pragma once

#include <cstdint>

#include "memory/orbs3_palloc.h"

// Zero-initialised before the first call; the scan resets it itself at the start of each line.
struct orbs3_http_status_t {
    uint32_t http_version;  // major * 1000 + minor
    uint32_t code;          // the three digits of the status
    uint32_t count;         // status digits read so far
    uint8_t* start;         // first digit of the status
    uint8_t* end;           // the CR or LF ending the line: [start, end) is "200 OK"
    // Saved between calls.
    uint32_t state;
    uint16_t http_major;
    uint16_t http_minor;
};

// Scans [buffer.pos, buffer.last). 0: a whole line was read, buffer.pos is behind its LF and the record is
// filled. -2: the bytes ended inside the line; buffer.pos is at buffer.last and a later call with the same
// record goes on. -1: not a status line. The line must stay in one buffer between calls that only moves
// `last` on (a receive buffer being filled), since start and end point into it.
[[nodiscard]] int orbs3_http_parse_status_line(orbs3_buf_t* buffer, orbs3_http_status_t* status);
