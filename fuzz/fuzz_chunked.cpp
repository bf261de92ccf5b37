// The chunked decoder, fed a body in two reads cut where the first input byte says, each read in a heap
// block of its exact size (ASan faults on a read past it). Checked after every step: the position stays
// in the read, `size` and `length` agree with the state, and the decoded bytes and the result equal those
// of a one-shot decode and of a decode into a tiny output.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "http/orbs3_http_chunked.h"
#include "fuzz_check.h"

namespace {

// What must still come, by state: written out here again, not taken from the decoder.
uint64_t expected_length(uint32_t state, uint32_t size)
{
    switch (state) {
    case ORBS3_CHUNK_START:
        return 3;
    case ORBS3_CHUNK_SIZE:
        return size == 0 ? 2 : uint64_t{size} + 5;
    case ORBS3_CHUNK_EXT:
    case ORBS3_CHUNK_SIZE_CR:
        return uint64_t{size} + 5;
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
    case ORBS3_CHUNK_TRAILER:
    case ORBS3_CHUNK_TRAILER_END_CR:
        return 1;
    }
    std::fprintf(stderr, "state %u out of range\n", state);
    std::abort();
}

struct result {
    int rc = ORBS3_CHUNKED_AGAIN;
    std::size_t consumed = 0;
    std::string out;
};

// The decoder step by step over the reads [0, cut) and [cut, len), as the body intake drives it.
result decode_in_two(const uint8_t* body, std::size_t len, std::size_t cut)
{
    result r;
    orbs3_http_chunked_t ctx{};
    const std::size_t bounds[3] = {0, cut, len};
    for (int piece = 0; piece < 2; piece++) {
        std::size_t n = bounds[piece + 1] - bounds[piece];
        std::unique_ptr<uint8_t[]> copy(new uint8_t[n]);
        if (n > 0)
            std::memcpy(copy.get(), body + bounds[piece], n);
        orbs3_buf_t b{};
        b.pos = b.start = copy.get();
        b.last = b.end = copy.get() + n;
        for (;;) {
            uint8_t* before = b.pos;
            r.rc = orbs3_http_parse_chunked(&b, &ctx);
            CHECK(b.pos >= before && b.pos <= b.last);
            CHECK(uint64_t{ctx.size} + 5 <= UINT32_MAX);
            if (r.rc == ORBS3_CHUNKED_DATA) {
                CHECK(ctx.state == ORBS3_CHUNK_DATA);
                CHECK(ctx.size > 0);
                CHECK(b.pos < b.last);
                CHECK(ctx.length == uint64_t{ctx.size} + 4);
                std::size_t take = static_cast<std::size_t>(b.last - b.pos);
                if (take > ctx.size)
                    take = ctx.size;
                r.out.append(reinterpret_cast<const char*>(b.pos), take);
                b.pos += take;
                ctx.size -= static_cast<uint32_t>(take);
                continue;
            }
            if (r.rc == ORBS3_CHUNKED_AGAIN) {
                CHECK(b.pos == b.last);
                CHECK(ctx.length == expected_length(ctx.state, ctx.size));
                r.consumed += n;
                break;
            }
            if (r.rc == ORBS3_CHUNKED_DONE) {
                CHECK(b.pos > before && b.pos[-1] == '\n');
                CHECK(ctx.state == ORBS3_CHUNK_START);
                r.consumed += static_cast<std::size_t>(b.pos - copy.get());
                return r;
            }
            CHECK(r.rc == ORBS3_CHUNKED_INVALID);
            CHECK(b.pos == before);
            return r;
        }
    }
    return r;
}

// The whole-body helper with an output of out_cap bytes, called again while it stops on a full output.
result decode_narrow(const uint8_t* body, std::size_t len, std::size_t out_cap)
{
    result r;
    orbs3_http_chunked_t ctx{};
    std::unique_ptr<uint8_t[]> out(new uint8_t[out_cap]);
    do {
        std::size_t consumed = 0, produced = 0;
        r.rc = orbs3_http_dechunk(&ctx, body + r.consumed, len - r.consumed, out.get(), out_cap, &consumed,
                                  &produced);
        CHECK(consumed <= len - r.consumed && produced <= out_cap);
        r.out.append(reinterpret_cast<const char*>(out.get()), produced);
        r.consumed += consumed;
        // Stopped short of the input only on a full output, so every round makes progress.
        if (r.rc == ORBS3_CHUNKED_AGAIN && r.consumed < len)
            CHECK(produced == out_cap);
    } while (r.rc == ORBS3_CHUNKED_AGAIN && r.consumed < len);
    return r;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    const std::size_t len = size - 1;
    std::unique_ptr<uint8_t[]> body(new uint8_t[len]);
    if (len > 0)
        std::memcpy(body.get(), data + 1, len);
    const std::size_t cut = len * data[0] / 255;

    // One call over all of it; the output cannot fill, since decoding never adds bytes.
    result whole;
    {
        orbs3_http_chunked_t ctx{};
        std::unique_ptr<uint8_t[]> out(new uint8_t[len + 1]);
        std::size_t produced = 0;
        whole.rc = orbs3_http_dechunk(&ctx, body.get(), len, out.get(), len, &whole.consumed, &produced);
        CHECK(whole.consumed <= len && produced <= whole.consumed);
        whole.out.assign(reinterpret_cast<const char*>(out.get()), produced);
        if (whole.rc == ORBS3_CHUNKED_AGAIN)
            CHECK(whole.consumed == len);
    }

    result two = decode_in_two(body.get(), len, cut);
    CHECK(two.rc == whole.rc);
    CHECK(two.out == whole.out);
    if (whole.rc != ORBS3_CHUNKED_INVALID)
        CHECK(two.consumed == whole.consumed);

    result narrow = decode_narrow(body.get(), len, 1 + data[0] % 7);
    CHECK(narrow.rc == whole.rc);
    CHECK(narrow.out == whole.out);
    if (whole.rc != ORBS3_CHUNKED_INVALID)
        CHECK(narrow.consumed == whole.consumed);
    return 0;
}
