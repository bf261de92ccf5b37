// Chunked transfer coding: a byte-driven decoder step that stops at the end of the bytes at hand and goes
// on with the next call, and a loop over it that copies a body's data bytes out.
#pragma once

#include <cstddef>
#include <cstdint>

#include "memory/orbs3_palloc.h"

// Values of orbs3_http_chunked_t::state.
enum orbs3_http_chunked_state_e : uint32_t {
    ORBS3_CHUNK_START = 0,
    ORBS3_CHUNK_SIZE = 1,
    ORBS3_CHUNK_EXT = 2,
    ORBS3_CHUNK_SIZE_CR = 3,
    ORBS3_CHUNK_DATA = 4,
    ORBS3_CHUNK_AFTER_DATA = 5,
    ORBS3_CHUNK_AFTER_DATA_CR = 6,
    ORBS3_CHUNK_LAST_EXT = 7,
    ORBS3_CHUNK_LAST_CR = 8,
    ORBS3_CHUNK_TRAILER = 9,
    ORBS3_CHUNK_TRAILER_END_CR = 10,
    ORBS3_CHUNK_TRAILER_HEADER = 11,
    ORBS3_CHUNK_TRAILER_LINE_CR = 12,
};

// Results of the decoder.
inline constexpr int ORBS3_CHUNKED_DATA = 0;      // a chunk's data begin at buffer.pos
inline constexpr int ORBS3_CHUNKED_INVALID = -1;  // not a chunked body; the connection is to be dropped
inline constexpr int ORBS3_CHUNKED_AGAIN = -2;    // every byte at hand was taken; call again with more
inline constexpr int ORBS3_CHUNKED_DONE = -4;     // the body ended; buffer.pos is behind its last byte

// Zero-initialised before the first call of a body.
struct orbs3_http_chunked_t {
    uint32_t state;   // orbs3_http_chunked_state_e
    uint32_t size;    // data bytes of the current chunk not yet taken by the caller
    uint64_t length;  // at least this many bytes are still to come before the body ends
};

// One decoder step over [buffer.pos, buffer.last). Returns ORBS3_CHUNKED_DATA with state ORBS3_CHUNK_DATA
// when a chunk's data start: the caller takes up to `size` bytes from buffer.pos, lowers `size` by what it
// took and calls again (with `size` 0 the scan goes on behind the data). AGAIN leaves buffer.pos at
// buffer.last with the state saved; DONE leaves buffer.pos behind the body and the state at the start;
// INVALID leaves buffer.pos where it was. A chunk size of 2^32 - 5 or more is refused, however it is
// spelled, so `size` never wraps.
[[nodiscard]] int orbs3_http_parse_chunked(orbs3_buf_t* buffer, orbs3_http_chunked_t* ctx);

// Decodes [in, in + in_len) into out, at most out_cap bytes, across as many calls as the body needs
// (ctx carries the position). *consumed and *produced are set to the bytes taken from in and written to
// out. Returns DONE when the body ended (bytes behind it are not consumed), AGAIN when all of in was taken
// or out is full (consumed < in_len tells the two apart), INVALID for a malformed body.
[[nodiscard]] int orbs3_http_dechunk(orbs3_http_chunked_t* ctx, const uint8_t* in, std::size_t in_len,
                                     uint8_t* out, std::size_t out_cap, std::size_t* consumed,
                                     std::size_t* produced);
