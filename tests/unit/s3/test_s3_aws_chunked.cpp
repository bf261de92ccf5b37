#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "feed.h"
#include "s3/aws_chunked_vectors.h"
#include "s3/orbs3_s3_aws_chunked.h"
#include "s3/orbs3_s3_signature.h"

namespace {

using namespace aws_chunked_vectors;

// The AWS example upload: 65 KiB of 'a' in chunks of 64 KiB, 1 KiB and the empty one, with the chunk
// signatures the AWS documentation publishes for it.
constexpr std::string_view kSig1 = "ad80c730a21e5b8d04586a2213dd63b9a0e99e0e2307b0ade35a65485a288648";
constexpr std::string_view kSig2 = "0055627c9e194cb4542bae2aa5492e3c1575bbb81b612b7d234b86a503ef5497";
constexpr std::string_view kSig3 = "b6c6ea8a5354eaf15b3cb7646744f4275b71ea724fed81ceb9323e279d449df9";
constexpr int64_t kExampleLength = 66560;

std::string example_body()
{
    std::string b;
    b += "10000;chunk-signature=" + std::string(kSig1) + "\r\n" + std::string(65536, 'a') + "\r\n";
    b += "400;chunk-signature=" + std::string(kSig2) + "\r\n" + std::string(1024, 'a') + "\r\n";
    b += "0;chunk-signature=" + std::string(kSig3) + "\r\n\r\n";
    return b;
}

struct setup {
    unsigned mode = ORBS3_AWS_CHUNKED_SIGNED;
    int64_t decoded_length = kExampleLength;
    std::string_view announced;
    std::string_view seed = kSeed;
};

void start(orbs3_aws_chunked_t* st, const setup& s)
{
    uint8_t key[ORBS3_SHA256_LEN];
    ASSERT_EQ(orbs3_get_signkey(ORBS3_SIGN_AWS4, std::string(kSecret).c_str(), kScope, key), 0);
    ASSERT_EQ(orbs3_aws_chunked_init(st, s.mode, key, s.seed, kDate, kScope, s.decoded_length, s.announced), 0);
}

struct outcome {
    int rc = ORBS3_AWS_CHUNKED_MORE;
    std::size_t consumed = 0;
    std::string data;
};

// Feeds `body` in pieces of the sizes `next_piece` gives, each piece in a heap block of its own size so
// that ASan sees a read past it, into an output of `cap` bytes; calls again while a piece is left and
// the decoder asks for more, as the body intake does.
// Hands one read of n bytes to the decoder, calling again while it asks for more with input left.
void decode_read(orbs3_aws_chunked_t* st, const uint8_t* in, std::size_t n, std::vector<uint8_t>& out, outcome& r)
{
    std::size_t done = 0;
    while (r.rc == ORBS3_AWS_CHUNKED_MORE && done < n) {
        std::size_t consumed = 99999999, produced = 99999999;
        r.rc = orbs3_aws_chunked_decode(st, in + done, n - done, out.data(), out.size(), &consumed, &produced);
        EXPECT_LE(consumed, n - done);
        EXPECT_LE(produced, out.size());
        // Stopping short of the input while asking for more is only allowed on a full output.
        if (r.rc == ORBS3_AWS_CHUNKED_MORE && consumed < n - done) {
            EXPECT_EQ(produced, out.size());
        }
        r.data.append(reinterpret_cast<const char*>(out.data()), produced);
        done += consumed;
    }
    r.consumed += done;
}

outcome decode_pieces(orbs3_aws_chunked_t* st, std::string_view body, std::size_t cap,
                      const std::function<std::size_t()>& next_piece)
{
    outcome r;
    std::vector<uint8_t> out(cap);
    while (r.rc == ORBS3_AWS_CHUNKED_MORE && r.consumed < body.size()) {
        const std::size_t n = std::min(std::max<std::size_t>(next_piece(), 1), body.size() - r.consumed);
        std::vector<uint8_t> piece(body.begin() + static_cast<std::ptrdiff_t>(r.consumed),
                                   body.begin() + static_cast<std::ptrdiff_t>(r.consumed + n));
        decode_read(st, piece.data(), n, out, r);
    }
    return r;
}

outcome decode_with(const setup& s, std::string_view body, std::size_t cap, const std::function<std::size_t()>& next)
{
    orbs3_aws_chunked_t st;
    start(&st, s);
    return decode_pieces(&st, body, cap, next);
}

outcome decode_whole(const setup& s, std::string_view body)
{
    return decode_with(s, body, body.size() + 1, [&] { return body.size(); });
}

// The same body, whole, a byte at a time, in random pieces and into tiny outputs: equal outcomes.
void expect_same_in_every_split(const setup& s, std::string_view body, const outcome& whole, const char* what)
{
    std::mt19937 rng(12345);
    const std::function<std::size_t()> one = [] { return std::size_t{1}; };
    const std::function<std::size_t()> random = [&] { return std::size_t{1} + rng() % 700; };
    struct way {
        const char* name;
        std::size_t cap;
        const std::function<std::size_t()>* next;
    } ways[] = {{"bytewise", 70000, &one}, {"random pieces", 70000, &random}, {"random, 1-byte output", 1, &random},
                {"random, 5-byte output", 5, &random}, {"bytewise, 3-byte output", 3, &one}};
    for (const way& w : ways) {
        outcome o = decode_with(s, body, w.cap, *w.next);
        EXPECT_EQ(o.rc, whole.rc) << what << ", " << w.name;
        EXPECT_EQ(o.consumed, whole.consumed) << what << ", " << w.name;
        EXPECT_TRUE(o.data == whole.data) << what << ", " << w.name;
    }
}

// The body in two reads cut at `cut` (cut == size: one read), each ending right before an unreadable page.
outcome decode_split(const setup& s, std::string_view body, std::size_t cut, std::size_t cap)
{
    feed::bytes in(body, cut);
    orbs3_aws_chunked_t st;
    start(&st, s);
    outcome r;
    std::vector<uint8_t> out(cap);
    decode_read(&st, in.data(), cut, out, r);
    if (in.arrive())
        decode_read(&st, in.cut(), body.size() - cut, out, r);
    return r;
}

TEST(AwsChunked, PublishedExampleVerifiesInEverySplit)
{
    const std::string body = example_body();
    const outcome whole = decode_whole({}, body);
    ASSERT_EQ(whole.rc, ORBS3_AWS_CHUNKED_DONE);
    EXPECT_EQ(whole.consumed, body.size());
    EXPECT_TRUE(whole.data == std::string(kExampleLength, 'a'));
    expect_same_in_every_split({}, body, whole, "example");
    const outcome guarded = decode_split({}, body, body.size(), body.size() + 1);
    EXPECT_EQ(guarded.rc, ORBS3_AWS_CHUNKED_DONE);
    EXPECT_EQ(guarded.consumed, body.size());

    // Without x-amz-decoded-content-length the body decodes the same.
    EXPECT_EQ(decode_whole({.decoded_length = -1}, body).rc, ORBS3_AWS_CHUNKED_DONE);
}

TEST(AwsChunked, DoneStopsAtTheBodyEndAndStays)
{
    const std::string body = example_body();
    const std::string next = "PUT /bucket/next HTTP/1.1\r\n";
    const std::string both = body + next;
    orbs3_aws_chunked_t st;
    start(&st, {});
    std::vector<uint8_t> out(both.size());
    std::size_t consumed = 0, produced = 0;
    ASSERT_EQ(orbs3_aws_chunked_decode(&st, reinterpret_cast<const uint8_t*>(both.data()), both.size(), out.data(),
                                       out.size(), &consumed, &produced),
              ORBS3_AWS_CHUNKED_DONE);
    EXPECT_EQ(consumed, body.size());
    EXPECT_EQ(produced, static_cast<std::size_t>(kExampleLength));

    // A later call takes nothing: the rest belongs to the connection.
    EXPECT_EQ(orbs3_aws_chunked_decode(&st, reinterpret_cast<const uint8_t*>(next.data()), next.size(), out.data(),
                                       out.size(), &consumed, &produced),
              ORBS3_AWS_CHUNKED_DONE);
    EXPECT_EQ(consumed, 0u);
    EXPECT_EQ(produced, 0u);
    std::string_view name, value;
    EXPECT_FALSE(orbs3_aws_chunked_checksum(&st, &name, &value));
}

TEST(AwsChunked, ClientBodiesDecodeWithTheirChecksum)
{
    for (const vector& v : kVectors) {
        EXPECT_EQ(orbs3_aws_chunked_mode(v.content_sha256), static_cast<int>(v.mode)) << v.name;
        const setup s{.mode = v.mode, .decoded_length = v.decoded_length, .announced = v.announced};
        orbs3_aws_chunked_t st;
        start(&st, s);
        const outcome whole = decode_pieces(&st, v.body, v.body.size() + 1, [&] { return v.body.size(); });
        ASSERT_EQ(whole.rc, ORBS3_AWS_CHUNKED_DONE) << v.name;
        EXPECT_EQ(whole.consumed, v.body.size()) << v.name;
        EXPECT_TRUE(whole.data == payload(v.data_size, v.data_salt)) << v.name;
        std::string_view name, value;
        EXPECT_EQ(orbs3_aws_chunked_checksum(&st, &name, &value), !v.checksum_name.empty()) << v.name;
        EXPECT_EQ(name, v.checksum_name) << v.name;
        EXPECT_EQ(value, v.checksum_value) << v.name;
        expect_same_in_every_split(s, v.body, whole, v.name);

        // Cut in two at every offset, each read against a guard page: the same outcome.
        feed::every_split(v.body, [&](std::size_t cut) {
            const outcome two = decode_split(s, v.body, cut, 64);
            EXPECT_EQ(two.rc, whole.rc) << v.name;
            EXPECT_TRUE(two.data == whole.data) << v.name;
        });
    }
}

TEST(AwsChunked, ModeFollowsContentSha256)
{
    const struct {
        std::string_view value;
        int mode;
    } cases[] = {
        {"STREAMING-AWS4-HMAC-SHA256-PAYLOAD", ORBS3_AWS_CHUNKED_SIGNED},
        {"STREAMING-AWS4-HMAC-SHA256-PAYLOAD-TRAILER", ORBS3_AWS_CHUNKED_SIGNED | ORBS3_AWS_CHUNKED_TRAILER},
        {"STREAMING-UNSIGNED-PAYLOAD-TRAILER", ORBS3_AWS_CHUNKED_TRAILER},
        {"STREAMING-AWS4-ECDSA-P256-SHA256-PAYLOAD", -1},
        {"UNSIGNED-PAYLOAD", -1},
        {"streaming-aws4-hmac-sha256-payload", -1},
        {"e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855", -1},
    };
    for (const auto& c : cases)
        EXPECT_EQ(orbs3_aws_chunked_mode(c.value), c.mode) << c.value;
}

std::string replaced(std::string s, std::string_view from, std::string_view to)
{
    std::size_t at = s.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    if (at != std::string::npos)
        s.replace(at, from.size(), to);
    return s;
}

const vector& vector_named(std::string_view name)
{
    for (const vector& v : kVectors)
        if (v.name == name)
            return v;
    ADD_FAILURE() << name;
    return kVectors[0];
}

TEST(AwsChunked, EveryCorruptionGivesItsError)
{
    const std::string ex = example_body();
    const std::string sig1 = ";chunk-signature=" + std::string(kSig1);
    std::string flipped_data = ex;
    flipped_data[ex.find("\r\n") + 2 + 4000] = 'b';
    std::string flipped_last = ex;
    flipped_last[ex.find("400;") - 3] = 'b';  // last data byte of the first chunk
    std::string flipped_second = ex;
    flipped_second[ex.find("\r\n", ex.find("400;")) + 2 + 1023] = 'b';

    const vector& st = vector_named("signed_trailer");
    const std::string st_body(st.body);
    const std::size_t st_sig = st_body.find("x-amz-trailer-signature:");
    const std::string st_no_sig = st_body.substr(0, st_sig) + "\r\n";
    std::string st_bad_sig = st_body;
    st_bad_sig[st_sig + 30] = st_bad_sig[st_sig + 30] == '0' ? '1' : '0';
    const setup st_setup{.mode = st.mode, .decoded_length = st.decoded_length, .announced = st.announced};

    const vector& un = vector_named("botocore_three_chunks");
    const std::string un_body(un.body);
    const std::size_t un_trailer = un_body.rfind("0\r\n") + 3;
    const setup un_setup{.mode = un.mode, .decoded_length = un.decoded_length, .announced = un.announced};

    const std::string two_k_hex = "0" + std::string(300, '0') + "1";
    const struct {
        const char* what;
        setup s;
        std::string body;
        int rc;
    } cases[] = {
        {"flipped data byte", {}, flipped_data, ORBS3_AWS_CHUNKED_BAD_SIGNATURE},
        {"flipped last byte of a chunk", {}, flipped_last, ORBS3_AWS_CHUNKED_BAD_SIGNATURE},
        {"flipped byte of the second chunk", {}, flipped_second, ORBS3_AWS_CHUNKED_BAD_SIGNATURE},
        {"size one short", {}, replaced(ex, "10000;", "0ffff;"), ORBS3_AWS_CHUNKED_BAD_SIGNATURE},
        {"size one long", {.decoded_length = -1}, replaced(ex, "400;", "401;"), ORBS3_AWS_CHUNKED_BAD_SIGNATURE},
        {"size past the decoded length", {}, replaced(ex, "400;", "401;"), ORBS3_AWS_CHUNKED_BAD_LENGTH},
        {"wrong seed", {.seed = kSig1}, ex, ORBS3_AWS_CHUNKED_BAD_SIGNATURE},
        {"signature of another chunk", {}, replaced(ex, kSig2, kSig1), ORBS3_AWS_CHUNKED_BAD_SIGNATURE},
        {"final chunk signature changed", {}, replaced(ex, kSig3, kSig2), ORBS3_AWS_CHUNKED_BAD_SIGNATURE},
        {"missing chunk signature", {}, replaced(ex, sig1, ""), ORBS3_AWS_CHUNKED_BAD_SIGNATURE},
        {"short chunk signature", {}, replaced(ex, sig1, sig1.substr(0, sig1.size() - 1)),
         ORBS3_AWS_CHUNKED_BAD_SIGNATURE},
        {"other chunk extension", {}, replaced(ex, sig1, ";foo=bar"), ORBS3_AWS_CHUNKED_BAD_FRAMING},
        {"extension behind the signature", {}, replaced(ex, sig1, sig1 + ";x"), ORBS3_AWS_CHUNKED_BAD_SIGNATURE},
        {"blank before the extension", {}, replaced(ex, "10000;", "10000 ;"), ORBS3_AWS_CHUNKED_BAD_FRAMING},
        {"no size digits", {}, replaced(ex, "10000;", ";"), ORBS3_AWS_CHUNKED_BAD_FRAMING},
        {"oversize size line", {}, replaced(ex, "10000;", two_k_hex + ";"), ORBS3_AWS_CHUNKED_BAD_FRAMING},
        {"size over 2^40", {.decoded_length = -1}, replaced(ex, "10000;", "10000000001;"),
         ORBS3_AWS_CHUNKED_BAD_FRAMING},
        {"size over 2^64", {.decoded_length = -1}, replaced(ex, "10000;", "1ffffffffffffffffff;"),
         ORBS3_AWS_CHUNKED_BAD_FRAMING},
        {"bare LF after size line", {}, replaced(ex, std::string(kSig1) + "\r\n", std::string(kSig1) + "\n"),
         ORBS3_AWS_CHUNKED_BAD_FRAMING},
        {"stray CR in size line", {}, replaced(ex, "10000;", "10000\r;"), ORBS3_AWS_CHUNKED_BAD_FRAMING},
        {"bare LF after data", {}, replaced(ex, "a\r\n400;", "a\n400;"), ORBS3_AWS_CHUNKED_BAD_FRAMING},
        {"decoded length one less", {.decoded_length = kExampleLength - 1}, ex, ORBS3_AWS_CHUNKED_BAD_LENGTH},
        {"decoded length one more", {.decoded_length = kExampleLength + 1}, ex, ORBS3_AWS_CHUNKED_BAD_LENGTH},
        {"trailer without trailer mode", {}, replaced(ex, std::string(kSig3) + "\r\n",
                                                      std::string(kSig3) + "\r\nx-amz-checksum-crc32:AAAAAA==\r\n"),
         ORBS3_AWS_CHUNKED_BAD_TRAILER},

        {"trailer signature changed", st_setup, st_bad_sig, ORBS3_AWS_CHUNKED_BAD_SIGNATURE},
        {"checksum changed under the trailer signature", st_setup,
         replaced(st_body, std::string(st.checksum_value), "AAAAAA=="), ORBS3_AWS_CHUNKED_BAD_SIGNATURE},
        {"trailer signature missing", st_setup, st_no_sig, ORBS3_AWS_CHUNKED_BAD_SIGNATURE},
        {"line behind the trailer signature", st_setup,
         st_body.substr(0, st_body.size() - 2) + "x-amz-meta-a:b\r\n\r\n", ORBS3_AWS_CHUNKED_BAD_TRAILER},

        {"unannounced trailer", un_setup, replaced(un_body, "x-amz-checksum-crc32:", "x-amz-checksum-sha1:"),
         ORBS3_AWS_CHUNKED_BAD_TRAILER},
        {"announced trailer missing", un_setup, un_body.substr(0, un_trailer) + "\r\n",
         ORBS3_AWS_CHUNKED_BAD_TRAILER},
        {"trailer sent twice", un_setup,
         un_body.substr(0, un_body.size() - 2) + un_body.substr(un_trailer),
         ORBS3_AWS_CHUNKED_BAD_TRAILER},
        {"trailer line without colon", un_setup, replaced(un_body, "x-amz-checksum-crc32:", "x-amz-checksum-crc32"),
         ORBS3_AWS_CHUNKED_BAD_TRAILER},
        {"trailer signature in unsigned mode", un_setup,
         un_body.substr(0, un_body.size() - 2) + "x-amz-trailer-signature:" + std::string(kSig1) + "\r\n\r\n",
         ORBS3_AWS_CHUNKED_BAD_TRAILER},
        {"oversize trailer line", un_setup, replaced(un_body, "x-amz-checksum-crc32:", std::string(300, 'x')),
         ORBS3_AWS_CHUNKED_BAD_TRAILER},
        {"trailer line with bare LF", un_setup, un_body.substr(0, un_body.size() - 4) + "\n\r\n",
         ORBS3_AWS_CHUNKED_BAD_FRAMING},
        {"unsigned decoded length short", {.mode = un.mode, .decoded_length = un.decoded_length - 1,
                                           .announced = un.announced},
         un_body, ORBS3_AWS_CHUNKED_BAD_LENGTH},
        {"unsigned chunk size digit", un_setup, replaced(un_body, "1f4\r\n", "1f3\r\n"),
         ORBS3_AWS_CHUNKED_BAD_FRAMING},
    };
    for (const auto& c : cases) {
        const outcome whole = decode_whole(c.s, c.body);
        EXPECT_EQ(whole.rc, c.rc) << c.what;
        // The bytewise feed finds the same fault.
        const outcome bytewise = decode_with(c.s, c.body, 7, [] { return std::size_t{1}; });
        EXPECT_EQ(bytewise.rc, c.rc) << c.what << ", bytewise";
        // A body longer than announced is refused before its surplus is handed out.
        if (c.rc == ORBS3_AWS_CHUNKED_BAD_LENGTH) {
            EXPECT_LE(whole.data.size(), static_cast<std::size_t>(c.s.decoded_length)) << c.what;
        }
    }
}

TEST(AwsChunked, TruncatedBodyAsksForMore)
{
    const std::string ex = example_body();
    const vector& un = vector_named("botocore_one_chunk");
    const struct {
        const char* what;
        setup s;
        std::string body;
    } cases[] = {
        {"final chunk missing", {}, ex.substr(0, ex.find("0;chunk-signature=" + std::string(kSig3)))},
        {"final empty line missing", {}, ex.substr(0, ex.size() - 2)},
        {"cut inside data", {}, ex.substr(0, 30000)},
        {"trailer end missing", {.mode = un.mode, .decoded_length = un.decoded_length, .announced = un.announced},
         std::string(un.body.substr(0, un.body.size() - 2))},
    };
    for (const auto& c : cases) {
        const outcome o = decode_whole(c.s, c.body);
        EXPECT_EQ(o.rc, ORBS3_AWS_CHUNKED_MORE) << c.what;
        EXPECT_EQ(o.consumed, c.body.size()) << c.what;
    }
}

TEST(AwsChunked, ErrorIsFinal)
{
    const std::string body = replaced(example_body(), "10000;", "10000 ;");
    orbs3_aws_chunked_t st;
    start(&st, {});
    std::vector<uint8_t> out(16);
    std::size_t consumed = 0, produced = 0;
    const auto* in = reinterpret_cast<const uint8_t*>(body.data());
    ASSERT_EQ(orbs3_aws_chunked_decode(&st, in, body.size(), out.data(), out.size(), &consumed, &produced),
              ORBS3_AWS_CHUNKED_BAD_FRAMING);
    EXPECT_EQ(orbs3_aws_chunked_decode(&st, in, body.size(), out.data(), out.size(), &consumed, &produced),
              ORBS3_AWS_CHUNKED_BAD_FRAMING);
    EXPECT_EQ(consumed, 0u);
    EXPECT_EQ(produced, 0u);
}

TEST(AwsChunked, InitRefusesWhatDoesNotFit)
{
    uint8_t key[ORBS3_SHA256_LEN] = {};
    const std::string long_scope(ORBS3_AWS_CHUNKED_SCOPE_LEN + 1, 's');
    const struct {
        const char* what;
        unsigned mode;
        const uint8_t* key;
        std::string_view seed;
        std::string_view scope;
        std::string_view announced;
        int rc;
    } cases[] = {
        {"signed", ORBS3_AWS_CHUNKED_SIGNED, key, kSeed, kScope, "", 0},
        {"unsigned needs no key", ORBS3_AWS_CHUNKED_TRAILER, nullptr, "", "", "x-amz-checksum-crc32", 0},
        {"eight names", ORBS3_AWS_CHUNKED_TRAILER, nullptr, "", "", "a,b,c,d,e,f,g,h", 0},
        {"nine names", ORBS3_AWS_CHUNKED_TRAILER, nullptr, "", "", "a,b,c,d,e,f,g,h,i", -1},
        {"announcement too long", ORBS3_AWS_CHUNKED_TRAILER, nullptr, "", "",
         std::string_view(long_scope.data(), ORBS3_AWS_CHUNKED_ANNOUNCED_LEN + 1), -1},
        {"no key", ORBS3_AWS_CHUNKED_SIGNED, nullptr, kSeed, kScope, "", -1},
        {"short seed", ORBS3_AWS_CHUNKED_SIGNED, key, kSeed.substr(1), kScope, "", -1},
        {"long scope", ORBS3_AWS_CHUNKED_SIGNED, key, kSeed, long_scope, "", -1},
        {"unknown mode", 4, key, kSeed, kScope, "", -1},
    };
    for (const auto& c : cases) {
        orbs3_aws_chunked_t st;
        EXPECT_EQ(orbs3_aws_chunked_init(&st, c.mode, c.key, c.seed, kDate, c.scope, -1, c.announced), c.rc)
            << c.what;
        if (c.rc != 0) {
            // A body is never taken under a failed init.
            std::size_t consumed = 0, produced = 0;
            uint8_t out[4];
            EXPECT_LT(orbs3_aws_chunked_decode(&st, reinterpret_cast<const uint8_t*>("0\r\n\r\n"), 5, out, 4,
                                               &consumed, &produced),
                      0)
                << c.what;
        }
    }
}

TEST(AwsChunked, AnnouncedNamesMatchInAnyCaseAndSpacing)
{
    const vector& v = vector_named("botocore_one_chunk");
    const setup s{.mode = v.mode, .decoded_length = v.decoded_length, .announced = " X-Amz-Checksum-CRC32 , "};
    EXPECT_EQ(decode_whole(s, v.body).rc, ORBS3_AWS_CHUNKED_DONE);
}

}  // namespace
