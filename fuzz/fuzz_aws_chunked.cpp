// The aws-chunked decoder, fed a body whole and then in random pieces (each in a heap block of its exact
// size, so ASan faults on a read past it) into a small output. The first input byte picks the mode and
// whether x-amz-decoded-content-length is sent, the second seeds the pieces and the output size. The key,
// seed signature and scope are those of the AWS example upload, so the seeds with valid signatures go
// deep and their mutations meet every check.
//
// Checked: a call never takes more than its input nor writes more than its output; asking for more with
// input left happens only on a full output; decoding never adds bytes, nor passes the announced length;
// DONE and errors are final (later calls take and give nothing); and the pieces give the same result,
// bytes and body end as the whole.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "s3/orbs3_s3_aws_chunked.h"
#include "s3/orbs3_s3_signature.h"
#include "fuzz_check.h"

namespace {

constexpr std::string_view kSecret = "wJalrXUtnFEMI/K7MDENG/bPxRfiCYEXAMPLEKEY";
constexpr std::string_view kDate = "20130524T000000Z";
constexpr std::string_view kScope = "20130524/us-east-1/s3/aws4_request";
constexpr std::string_view kSeed = "4f232c4386841ef735655705268965c44a0e4690baa4adea153f7db9fa80a0a9";
constexpr std::string_view kAnnounced = "x-amz-checksum-crc32";

struct result {
    int rc = ORBS3_AWS_CHUNKED_MORE;
    std::size_t consumed = 0;
    std::string out;
};

void start(orbs3_aws_chunked_t* st, unsigned mode, int64_t decoded_length)
{
    static uint8_t key[ORBS3_SHA256_LEN];
    static const bool have_key = orbs3_get_signkey(ORBS3_SIGN_AWS4, kSecret.data(), kScope, key) == 0;
    CHECK(have_key);
    CHECK(orbs3_aws_chunked_init(st, mode, key, kSeed, kDate, kScope, decoded_length, kAnnounced) == 0);
}

// One call, checked against its bounds; what it gives is appended to r.
int step(orbs3_aws_chunked_t* st, const uint8_t* in, std::size_t len, std::size_t cap, result* r)
{
    std::unique_ptr<uint8_t[]> out(new uint8_t[cap]);
    std::size_t consumed = SIZE_MAX, produced = SIZE_MAX;
    const int rc = orbs3_aws_chunked_decode(st, in, len, out.get(), cap, &consumed, &produced);
    CHECK(consumed <= len);
    CHECK(produced <= cap);
    CHECK(produced <= consumed);  // the data bytes come out of this call's input
    CHECK(rc == ORBS3_AWS_CHUNKED_MORE || rc == ORBS3_AWS_CHUNKED_DONE || rc == ORBS3_AWS_CHUNKED_BAD_FRAMING ||
          rc == ORBS3_AWS_CHUNKED_BAD_SIGNATURE || rc == ORBS3_AWS_CHUNKED_BAD_LENGTH ||
          rc == ORBS3_AWS_CHUNKED_BAD_TRAILER);
    if (rc == ORBS3_AWS_CHUNKED_MORE && consumed < len)
        CHECK(produced == cap);
    r->out.append(reinterpret_cast<const char*>(out.get()), produced);
    r->consumed += consumed;
    r->rc = rc;
    return rc;
}

// Once finished, a decoder takes nothing more and keeps its result.
void check_final(orbs3_aws_chunked_t* st, int rc)
{
    const uint8_t more[] = {'0', '\r', '\n', '\r', '\n'};
    uint8_t out[8];
    std::size_t consumed = 1, produced = 1;
    CHECK(orbs3_aws_chunked_decode(st, more, sizeof more, out, sizeof out, &consumed, &produced) == rc);
    CHECK(consumed == 0 && produced == 0);
}

void check_totals(const orbs3_aws_chunked_t* st, const result& r, int64_t decoded_length)
{
    CHECK(r.out.size() <= r.consumed);
    CHECK(r.out.size() <= st->decoded_total);  // never past the sizes the chunk lines announced
    if (decoded_length >= 0)
        CHECK(r.out.size() <= static_cast<uint64_t>(decoded_length));
    if (r.rc == ORBS3_AWS_CHUNKED_DONE) {
        CHECK(r.out.size() == st->decoded_total);
        if (decoded_length >= 0)
            CHECK(r.out.size() == static_cast<uint64_t>(decoded_length));
        std::string_view name, value;
        if (orbs3_aws_chunked_checksum(st, &name, &value))
            CHECK(name.size() == kAnnounced.size());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    if (size < 2)
        return 0;
    const unsigned mode = data[0] & 3;
    // A length drawn from the body's own size keeps "equal" within the fuzzer's reach.
    const std::size_t len = size - 2;
    const int64_t decoded_length = (data[0] & 4) ? static_cast<int64_t>(len * ((data[0] >> 3) & 31) / 31) : -1;
    const uint8_t split = data[1];
    const uint8_t* body = data + 2;

    result whole;
    {
        orbs3_aws_chunked_t st;
        start(&st, mode, decoded_length);
        std::unique_ptr<uint8_t[]> copy(new uint8_t[len]);
        if (len > 0)
            std::memcpy(copy.get(), body, len);
        step(&st, copy.get(), len, len + 1, &whole);
        if (whole.rc == ORBS3_AWS_CHUNKED_MORE)
            CHECK(whole.consumed == len);
        check_totals(&st, whole, decoded_length);
        if (whole.rc != ORBS3_AWS_CHUNKED_MORE)
            check_final(&st, whole.rc);
    }

    // Pieces of 1 to 64 bytes from a small generator, into an output of 1 to 8 bytes.
    result pieces;
    {
        orbs3_aws_chunked_t st;
        start(&st, mode, decoded_length);
        uint32_t x = 0x9e3779b9u ^ split;
        const std::size_t cap = 1 + split % 8;
        std::size_t pos = 0;
        while (pieces.rc == ORBS3_AWS_CHUNKED_MORE && pos < len) {
            x = x * 1103515245u + 12345u;
            std::size_t n = 1 + (x >> 16) % 64;
            if (n > len - pos)
                n = len - pos;
            std::unique_ptr<uint8_t[]> copy(new uint8_t[n]);
            std::memcpy(copy.get(), body + pos, n);
            std::size_t done = 0;
            while (done < n) {
                const std::size_t before = pieces.consumed;
                if (step(&st, copy.get() + done, n - done, cap, &pieces) != ORBS3_AWS_CHUNKED_MORE) {
                    done += pieces.consumed - before;
                    break;
                }
                done += pieces.consumed - before;
            }
            pos += done;
        }
        check_totals(&st, pieces, decoded_length);
        if (pieces.rc != ORBS3_AWS_CHUNKED_MORE)
            check_final(&st, pieces.rc);
    }

    CHECK(pieces.rc == whole.rc);
    CHECK(pieces.out == whole.out);
    // Where in a refused line the error shows depends on the pieces; a body end or a pending body does not.
    if (whole.rc >= 0)
        CHECK(pieces.consumed == whole.consumed);
    return 0;
}
