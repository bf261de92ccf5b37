#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "feed.h"
#include "http/orbs3_http_chunked.h"

namespace {

struct decoded {
    int rc;
    std::size_t consumed;
    std::string out;
};

// Feeds body in pieces cut at `cuts` (ascending offsets), each piece in its own guarded buffer, through
// the whole-body decoder; out_cap limits what one call may write.
decoded decode_pieces(std::string_view body, const std::vector<std::size_t>& cuts, std::size_t out_cap = 4096)
{
    orbs3_http_chunked_t ctx{};
    decoded d{ORBS3_CHUNKED_AGAIN, 0, {}};
    std::size_t from = 0;
    std::vector<std::size_t> ends = cuts;
    ends.push_back(body.size());
    for (std::size_t to : ends) {
        feed::bytes piece(body.substr(from, to - from));
        std::size_t off = 0;
        do {
            std::vector<uint8_t> out(out_cap);
            std::size_t consumed = 0, produced = 0;
            d.rc = orbs3_http_dechunk(&ctx, piece.data() + off, to - from - off, out.data(), out.size(),
                                      &consumed, &produced);
            d.out.append(reinterpret_cast<const char*>(out.data()), produced);
            d.consumed += consumed;
            off += consumed;
            // Out full: go on with the rest of the piece. Anything else ends this piece.
        } while (d.rc == ORBS3_CHUNKED_AGAIN && off < to - from);
        if (d.rc != ORBS3_CHUNKED_AGAIN)
            return d;
        from = to;
    }
    return d;
}

struct body_case {
    const char* name;
    std::string body;
    int rc;
    std::string out;       // decoded bytes
    std::size_t consumed;  // bytes taken; npos: all of body; unused for a refused body
};

constexpr std::size_t ALL = std::string::npos;

const std::vector<body_case>& body_cases()
{
    static const std::vector<body_case> cases = {
        {"one chunk", "5\r\nhello\r\n0\r\n\r\n", ORBS3_CHUNKED_DONE, "hello", ALL},
        {"hex digits in both cases", "a\r\n0123456789\r\nB\r\nabcdefghijk\r\n0\r\n\r\n", ORBS3_CHUNKED_DONE,
         "0123456789abcdefghijk", ALL},
        {"leading zeros", "0005\r\nhello\r\n000\r\n\r\n", ORBS3_CHUNKED_DONE, "hello", ALL},
        {"extensions", "5;name=value\r\nhello\r\n3 ; x\r\nabc\r\n0;last=1\r\n\r\n", ORBS3_CHUNKED_DONE,
         "helloabc", ALL},
        {"tab before extension", "5\t;a\r\nhello\r\n0\t\r\n\r\n", ORBS3_CHUNKED_DONE, "hello", ALL},
        {"trailers", "2\r\nhi\r\n0\r\nX-Sum: 1\r\nX-Other: two\r\n\r\n", ORBS3_CHUNKED_DONE, "hi", ALL},
        {"bare LF framing", "5\nhello\n0\nT: v\n\n", ORBS3_CHUNKED_DONE, "hello", ALL},
        {"data holding CR LF", "4\r\n\r\n\r\n\r\n0\r\n\r\n", ORBS3_CHUNKED_DONE, "\r\n\r\n", ALL},
        {"bytes behind the body stay", "1\r\nx\r\n0\r\n\r\nGET / HTTP/1.1", ORBS3_CHUNKED_DONE, "x", 11},
        {"empty body", "0\r\n\r\n", ORBS3_CHUNKED_DONE, "", ALL},
        {"largest size accepted", "fffffffa\r\nab", ORBS3_CHUNKED_AGAIN, "ab", ALL},
        {"cut inside data", "5\r\nhel", ORBS3_CHUNKED_AGAIN, "hel", ALL},
        {"cut inside trailer", "0\r\nX: y\r\n", ORBS3_CHUNKED_AGAIN, "", ALL},
        {"not a hex digit", "g\r\n", ORBS3_CHUNKED_INVALID, "", 0},
        {"sign before size", "-1\r\n", ORBS3_CHUNKED_INVALID, "", 0},
        {"bad byte after size", "5x\r\nhello\r\n", ORBS3_CHUNKED_INVALID, "", 0},
        {"CR without LF after size", "5\rhello", ORBS3_CHUNKED_INVALID, "", 0},
        {"CR without LF after data", "1\r\nx\r\r\n0\r\n\r\n", ORBS3_CHUNKED_INVALID, "x", 0},
        {"CR without LF after last chunk", "0\r\r\n", ORBS3_CHUNKED_INVALID, "", 0},
        {"CR without LF ending trailers", "0\r\n\rx", ORBS3_CHUNKED_INVALID, "", 0},
        {"CR without LF ending a trailer line", "0\r\nX: y\rz", ORBS3_CHUNKED_INVALID, "", 0},
        {"size + 5 over 32 bits", "fffffffb\r\n", ORBS3_CHUNKED_INVALID, "", 0},
        {"size of 2^32", "100000000\r\n", ORBS3_CHUNKED_INVALID, "", 0},
        {"size over 64 bits", "10000000000000000\r\n", ORBS3_CHUNKED_INVALID, "", 0},
        {"size of many digits", "ffffffffffffffffffffffffffffffff1\r\nx", ORBS3_CHUNKED_INVALID, "", 0},
        {"second chunk overflows", "1\r\nx\r\n1000000000\r\n", ORBS3_CHUNKED_INVALID, "x", 0},
    };
    return cases;
}

std::size_t expected_consumed(const body_case& c)
{
    return c.consumed == ALL ? c.body.size() : c.consumed;
}

}  // namespace

// Whole, cut in two at every offset, one byte per read and into a one-byte output: the same result. An
// invalid body is refused where the bad byte stands, so the bytes of the failing call count as not
// consumed and its consumed count is left unchecked.
TEST(HttpChunked, DecodesBodiesAndRefusesMalformedOnesInEveryFeed)
{
    for (const auto& c : body_cases()) {
        SCOPED_TRACE(c.name);
        auto expect_decoded = [&c](const decoded& d) {
            EXPECT_EQ(d.rc, c.rc);
            EXPECT_EQ(d.out, c.out);
            if (c.rc != ORBS3_CHUNKED_INVALID) {
                EXPECT_EQ(d.consumed, expected_consumed(c));
            }
        };
        feed::every_split(c.body, [&](std::size_t cut) { expect_decoded(decode_pieces(c.body, {cut})); });
        std::vector<std::size_t> every;
        for (std::size_t i = 1; i < c.body.size(); i++)
            every.push_back(i);
        expect_decoded(decode_pieces(c.body, every));
        // A full output stops the decoder in the middle of a chunk; the next call goes on there.
        expect_decoded(decode_pieces(c.body, {}, 1));
    }
}

// Fed one byte at a time, the decoder passes through each state with the lower bound of what must still
// come. A call on the first data byte returns the start of the data instead.
TEST(HttpChunked, StateAndRemainingLengthFollowEachByte)
{
    struct step {
        char byte;
        int rc;
        uint32_t state;
        uint64_t length;
    };
    const step steps[] = {
        {'1', -2, ORBS3_CHUNK_SIZE, 6},          {'a', -2, ORBS3_CHUNK_SIZE, 31},
        {';', -2, ORBS3_CHUNK_EXT, 31},          {'e', -2, ORBS3_CHUNK_EXT, 31},
        {'\r', -2, ORBS3_CHUNK_SIZE_CR, 31},     {'\n', -2, ORBS3_CHUNK_DATA, 30},
        // The data byte itself: taken by the test below, one at a time.
        {'0', -2, ORBS3_CHUNK_SIZE, 2},          {' ', -2, ORBS3_CHUNK_LAST_EXT, 2},
        {'\r', -2, ORBS3_CHUNK_LAST_CR, 2},      {'\n', -2, ORBS3_CHUNK_TRAILER, 1},
        {'T', -2, ORBS3_CHUNK_TRAILER_HEADER, 2}, {'\r', -2, ORBS3_CHUNK_TRAILER_LINE_CR, 2},
        {'\n', -2, ORBS3_CHUNK_TRAILER, 1},      {'\r', -2, ORBS3_CHUNK_TRAILER_END_CR, 1},
        {'\n', ORBS3_CHUNKED_DONE, ORBS3_CHUNK_START, 0},
    };

    orbs3_http_chunked_t ctx{};
    auto feed = [&ctx](std::string_view bytes) {
        feed::bytes in(bytes);
        orbs3_buf_t b = in.buf();
        int rc = orbs3_http_parse_chunked(&b, &ctx);
        std::size_t taken = static_cast<std::size_t>(b.pos - in.data());
        return std::make_pair(rc, taken);
    };

    // No bytes at all: the start of a chunk, at least "0" LF LF to come.
    auto [rc0, taken0] = feed("");
    EXPECT_EQ(rc0, ORBS3_CHUNKED_AGAIN);
    EXPECT_EQ(taken0, 0u);
    EXPECT_EQ(ctx.state, ORBS3_CHUNK_START);
    EXPECT_EQ(ctx.length, 3u);

    for (std::size_t i = 0; i < std::size(steps); i++) {
        const step& s = steps[i];
        SCOPED_TRACE("step " + std::to_string(i));
        auto [rc, taken] = feed(std::string_view(&s.byte, 1));
        EXPECT_EQ(rc, s.rc);
        EXPECT_EQ(ctx.state, s.state);
        EXPECT_EQ(ctx.length, s.length);
        EXPECT_EQ(taken, 1u);
        if (s.state == ORBS3_CHUNK_DATA) {
            // 0x1a data bytes: each call returns the start of the data and takes nothing itself.
            ASSERT_EQ(ctx.size, 0x1au);
            while (ctx.size > 0) {
                auto [drc, dtaken] = feed("x");
                ASSERT_EQ(drc, ORBS3_CHUNKED_DATA);
                ASSERT_EQ(dtaken, 0u);
                ctx.size--;
            }
            // All data taken: the next call stands behind them.
            auto [arc, ataken] = feed("");
            EXPECT_EQ(arc, ORBS3_CHUNKED_AGAIN);
            EXPECT_EQ(ataken, 0u);
            EXPECT_EQ(ctx.state, ORBS3_CHUNK_AFTER_DATA);
            EXPECT_EQ(ctx.length, 4u);
            auto [crc, ctaken] = feed("\r");
            EXPECT_EQ(ctx.state, ORBS3_CHUNK_AFTER_DATA_CR);
            EXPECT_EQ(ctx.length, 4u);
            auto [lrc, ltaken] = feed("\n");
            EXPECT_EQ(ctx.state, ORBS3_CHUNK_START);
            EXPECT_EQ(ctx.length, 3u);
            (void)crc, (void)ctaken, (void)lrc, (void)ltaken;
        }
    }
}

TEST(HttpChunked, RefusalLeavesThePositionAndDoneStandsBehindTheBody)
{
    feed::bytes in("3\r\nabc\r\n0\r\n\r\nnext");
    orbs3_buf_t b = in.buf();
    orbs3_http_chunked_t ctx{};
    ASSERT_EQ(orbs3_http_parse_chunked(&b, &ctx), ORBS3_CHUNKED_DATA);
    EXPECT_EQ(b.pos, in.data() + 3);
    EXPECT_EQ(ctx.size, 3u);
    EXPECT_EQ(ctx.length, 7u);
    b.pos += 3;
    ctx.size = 0;
    ASSERT_EQ(orbs3_http_parse_chunked(&b, &ctx), ORBS3_CHUNKED_DONE);
    EXPECT_EQ(b.pos, in.end() - 4);
    EXPECT_EQ(ctx.state, ORBS3_CHUNK_START);

    // A size cut between two reads still counts every digit: the second read overflows it, and the
    // refusal leaves pos on the read that brought it.
    feed::bytes size("ffffffff\r\n", 7);
    b = size.buf();
    ctx = {};
    ASSERT_EQ(orbs3_http_parse_chunked(&b, &ctx), ORBS3_CHUNKED_AGAIN);
    EXPECT_EQ(ctx.size, 0xfffffffu);
    ASSERT_TRUE(size.next_read(&b));
    EXPECT_EQ(orbs3_http_parse_chunked(&b, &ctx), ORBS3_CHUNKED_INVALID);
    EXPECT_EQ(b.pos, size.cut());
}
