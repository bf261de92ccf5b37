#include "http/orbs3_http_chunked.h"

#include <cstring>

#include "memory/neo_string.h"

namespace {

constexpr uint8_t CR = '\r';
constexpr uint8_t LF = '\n';

// Every chunk framing adds at least 5 bytes to its size ("\r\n0\r\n" behind the data at the least), and
// `length` is computed as size + 5; bounding the size here keeps that sum inside 32 bits.
constexpr uint64_t CHUNK_SIZE_MAX = UINT32_MAX - 5;

// The lower bound of what must still arrive, by where the scan stands.
uint64_t remaining_length(uint32_t state, uint32_t size)
{
    switch (state) {
    case ORBS3_CHUNK_START:
        return 3;  // "0" LF LF
    case ORBS3_CHUNK_SIZE:
        return size != 0 ? uint64_t{size} + 5 : 2;
    case ORBS3_CHUNK_EXT:
    case ORBS3_CHUNK_SIZE_CR:
        return uint64_t{size} + 5;  // LF, the data, LF "0" LF LF
    case ORBS3_CHUNK_DATA:
        return uint64_t{size} + 4;
    case ORBS3_CHUNK_AFTER_DATA:
    case ORBS3_CHUNK_AFTER_DATA_CR:
        return 4;
    case ORBS3_CHUNK_LAST_EXT:
    case ORBS3_CHUNK_LAST_CR:
    case ORBS3_CHUNK_TRAILER_HEADER:
    case ORBS3_CHUNK_TRAILER_LINE_CR:
        return 2;
    default:  // TRAILER, TRAILER_END_CR
        return 1;
    }
}

}  // namespace

int orbs3_http_parse_chunked(orbs3_buf_t* buffer, orbs3_http_chunked_t* ctx)
{
    uint32_t state = ctx->state;
    if (state > ORBS3_CHUNK_TRAILER_LINE_CR || ctx->size > CHUNK_SIZE_MAX)
        return ORBS3_CHUNKED_INVALID;
    // The caller took all the data of the chunk.
    if (state == ORBS3_CHUNK_DATA && ctx->size == 0)
        state = ORBS3_CHUNK_AFTER_DATA;

    int rc = ORBS3_CHUNKED_AGAIN;
    uint8_t* p = buffer->pos;
    for (; p < buffer->last; p++) {
        uint8_t ch = *p;
        switch (state) {
        case ORBS3_CHUNK_START: {
            int d = neo_hex_value(ch);
            if (d < 0)
                return ORBS3_CHUNKED_INVALID;
            ctx->size = static_cast<uint32_t>(d);
            state = ORBS3_CHUNK_SIZE;
            break;
        }
        case ORBS3_CHUNK_SIZE: {
            int d = neo_hex_value(ch);
            if (d >= 0) {
                // Checked before it is stored: a size of any number of digits is refused, never wrapped.
                uint64_t n = uint64_t{ctx->size} * 16 + static_cast<uint64_t>(d);
                if (n > CHUNK_SIZE_MAX)
                    return ORBS3_CHUNKED_INVALID;
                ctx->size = static_cast<uint32_t>(n);
                break;
            }
            bool last = ctx->size == 0;
            switch (ch) {
            case '\t':
            case ' ':
            case ';':
                state = last ? ORBS3_CHUNK_LAST_EXT : ORBS3_CHUNK_EXT;
                break;
            case CR:
                state = last ? ORBS3_CHUNK_LAST_CR : ORBS3_CHUNK_SIZE_CR;
                break;
            case LF:
                state = last ? ORBS3_CHUNK_TRAILER : ORBS3_CHUNK_DATA;
                break;
            default:
                return ORBS3_CHUNKED_INVALID;
            }
            break;
        }
        case ORBS3_CHUNK_EXT:
            if (ch == LF)
                state = ORBS3_CHUNK_DATA;
            else if (ch == CR)
                state = ORBS3_CHUNK_SIZE_CR;
            break;
        case ORBS3_CHUNK_SIZE_CR:
            if (ch != LF)
                return ORBS3_CHUNKED_INVALID;
            state = ORBS3_CHUNK_DATA;
            break;
        case ORBS3_CHUNK_DATA:
            rc = ORBS3_CHUNKED_DATA;
            goto data;
        case ORBS3_CHUNK_AFTER_DATA:
            if (ch == LF)
                state = ORBS3_CHUNK_START;
            else if (ch == CR)
                state = ORBS3_CHUNK_AFTER_DATA_CR;
            break;
        case ORBS3_CHUNK_AFTER_DATA_CR:
            if (ch != LF)
                return ORBS3_CHUNKED_INVALID;
            state = ORBS3_CHUNK_START;
            break;
        case ORBS3_CHUNK_LAST_EXT:
            if (ch == LF)
                state = ORBS3_CHUNK_TRAILER;
            else if (ch == CR)
                state = ORBS3_CHUNK_LAST_CR;
            break;
        case ORBS3_CHUNK_LAST_CR:
            if (ch != LF)
                return ORBS3_CHUNKED_INVALID;
            state = ORBS3_CHUNK_TRAILER;
            break;
        case ORBS3_CHUNK_TRAILER:
            if (ch == LF)
                goto done;
            state = ch == CR ? ORBS3_CHUNK_TRAILER_END_CR : ORBS3_CHUNK_TRAILER_HEADER;
            break;
        case ORBS3_CHUNK_TRAILER_END_CR:
            if (ch != LF)
                return ORBS3_CHUNKED_INVALID;
            goto done;
        case ORBS3_CHUNK_TRAILER_HEADER:
            if (ch == LF)
                state = ORBS3_CHUNK_TRAILER;
            else if (ch == CR)
                state = ORBS3_CHUNK_TRAILER_LINE_CR;
            break;
        case ORBS3_CHUNK_TRAILER_LINE_CR:
            if (ch != LF)
                return ORBS3_CHUNKED_INVALID;
            state = ORBS3_CHUNK_TRAILER;
            break;
        }
    }

data:
    ctx->state = state;
    buffer->pos = p;
    ctx->length = remaining_length(state, ctx->size);
    return rc;

done:
    ctx->state = ORBS3_CHUNK_START;
    ctx->size = 0;
    ctx->length = 0;
    buffer->pos = p + 1;
    return ORBS3_CHUNKED_DONE;
}

int orbs3_http_dechunk(orbs3_http_chunked_t* ctx, const uint8_t* in, std::size_t in_len, uint8_t* out,
                       std::size_t out_cap, std::size_t* consumed, std::size_t* produced)
{
    *consumed = 0;
    *produced = 0;
    if (in_len == 0)
        return ORBS3_CHUNKED_AGAIN;

    // The decoder only reads through pos and last; the buffer never writes to the input.
    uint8_t* begin = const_cast<uint8_t*>(in);
    orbs3_buf_t b{};
    b.pos = b.start = begin;
    b.last = b.end = begin + in_len;

    std::size_t written = 0;
    int rc;
    for (;;) {
        rc = orbs3_http_parse_chunked(&b, ctx);
        if (rc != ORBS3_CHUNKED_DATA)
            break;
        std::size_t n = static_cast<std::size_t>(b.last - b.pos);
        if (n > ctx->size)
            n = ctx->size;
        if (n > out_cap - written)
            n = out_cap - written;
        if (n == 0) {
            rc = ORBS3_CHUNKED_AGAIN;  // out is full in the middle of a chunk
            break;
        }
        std::memcpy(out + written, b.pos, n);
        written += n;
        b.pos += n;
        ctx->size -= static_cast<uint32_t>(n);
    }
    *consumed = static_cast<std::size_t>(b.pos - begin);
    *produced = written;
    return rc;
}
