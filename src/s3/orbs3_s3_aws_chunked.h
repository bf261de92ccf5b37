// The aws-chunked body of an upload (Content-Encoding: aws-chunked), as the AWS SDKs and the AWS CLI send
// it when x-amz-content-sha256 is one of the STREAMING- values: chunks "<hex size>[;chunk-signature=<sig>]"
// CRLF data CRLF, a zero-size chunk, then trailer lines (a checksum, and in the signed-trailer form the
// trailer's own signature) and an empty line.
//
// The decoder is a state machine fed any split of the raw body, down to one byte, and writes the object's
// bytes into the caller's buffer. A chunk's signature can only be checked once its last byte arrived, so
// the bytes of a chunk are handed out before that check: the caller writes them to a temporary file and
// commits the object only after ORBS3_AWS_CHUNKED_DONE. Any error means the whole upload is refused.
//
// The signing key is the one of the request's scope: orbs3_get_signkey(ORBS3_SIGN_AWS4, secret, scope, key)
// of orbs3_s3_signature.h gives it from the scope of the Authorization header.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "memory/neo_md5.h"
#include "s3/orbs3_s3_signature.h"

// Modes, from the x-amz-content-sha256 value.
inline constexpr unsigned ORBS3_AWS_CHUNKED_SIGNED = 1;   // every chunk carries chunk-signature
inline constexpr unsigned ORBS3_AWS_CHUNKED_TRAILER = 2;  // trailer lines follow the zero-size chunk

// Results of orbs3_aws_chunked_decode.
inline constexpr int ORBS3_AWS_CHUNKED_MORE = 0;  // all input taken, or the output is full
inline constexpr int ORBS3_AWS_CHUNKED_DONE = 1;  // body ended and every check passed
inline constexpr int ORBS3_AWS_CHUNKED_BAD_FRAMING = -1;
inline constexpr int ORBS3_AWS_CHUNKED_BAD_SIGNATURE = -2;
inline constexpr int ORBS3_AWS_CHUNKED_BAD_LENGTH = -3;  // decoded total is not x-amz-decoded-content-length
inline constexpr int ORBS3_AWS_CHUNKED_BAD_TRAILER = -4;

// A size line holds at most 16 hex digits and ";chunk-signature=" with 64 hex digits (97 bytes); a
// trailer line a checksum name and its base64 value. Anything longer is not a client's framing. The
// trailer as a whole is bounded too: only announced names, each once, and the signature line, so at
// most 9 lines of this length.
inline constexpr std::size_t ORBS3_AWS_CHUNKED_LINE_LEN = 256;
inline constexpr uint64_t ORBS3_AWS_CHUNKED_MAX_CHUNK = uint64_t{1} << 40;
inline constexpr std::size_t ORBS3_AWS_CHUNKED_SCOPE_LEN = 128;
inline constexpr std::size_t ORBS3_AWS_CHUNKED_ANNOUNCED_LEN = 128;  // the x-amz-trailer value
inline constexpr std::size_t ORBS3_AWS_CHUNKED_ANNOUNCED_MAX = 8;    // names in it
inline constexpr std::size_t ORBS3_AWS_CHUNKED_NAME_LEN = 64;        // a checksum trailer's name
inline constexpr std::size_t ORBS3_AWS_CHUNKED_VALUE_LEN = 128;      // and its value

struct orbs3_aws_chunked_t {
    int state = 0;
    int result = ORBS3_AWS_CHUNKED_MORE;  // sticky once DONE or an error
    unsigned mode = 0;
    uint8_t key[ORBS3_SHA256_LEN] = {};
    // The head of every string to sign: "<date>\n<scope>\n".
    char date_scope[16 + 1 + ORBS3_AWS_CHUNKED_SCOPE_LEN + 1] = {};
    std::size_t date_scope_len = 0;
    char prev_sig[ORBS3_SHA256_HEX_LEN] = {};  // seed, then the last chunk's
    char chunk_sig[ORBS3_SHA256_HEX_LEN] = {};  // the current chunk's, as sent
    char announced[ORBS3_AWS_CHUNKED_ANNOUNCED_LEN] = {};
    std::size_t announced_len = 0;
    int64_t decoded_length = -1;
    uint64_t decoded_total = 0;
    uint64_t chunk_left = 0;
    char line[ORBS3_AWS_CHUNKED_LINE_LEN] = {};
    std::size_t line_len = 0;
    unsigned trailers_seen = 0;  // announced names met, one bit each (ORBS3_AWS_CHUNKED_ANNOUNCED_MAX)
    bool trailer_signed = false;  // x-amz-trailer-signature came and verified
    char checksum_name[ORBS3_AWS_CHUNKED_NAME_LEN] = {};
    std::size_t checksum_name_len = 0;
    char checksum_value[ORBS3_AWS_CHUNKED_VALUE_LEN] = {};
    std::size_t checksum_value_len = 0;
    // The running SHA-256 of the chunk being read, then of the trailer lines; made once per body.
    evp_md_ctx_ptr md;
};

// The mode of an x-amz-content-sha256 value, or -1 when it is no aws-chunked form this server reads
// (a plain hash, UNSIGNED-PAYLOAD, the ECDSA forms of SigV4a).
[[nodiscard]] int orbs3_aws_chunked_mode(std::string_view content_sha256);

// Prepares `st` for one body. For the signed modes (ignored otherwise): `signing_key` the 32-byte key of
// the scope, `seed` the signature of the Authorization header, `date` the x-amz-date value, `scope` the
// credential scope "date/region/service/aws4_request". `decoded_length` from x-amz-decoded-content-length,
// -1 when absent; `announced` the x-amz-trailer value (names joined by ','), empty when absent. 0, or -1
// when an argument does not fit (no key, seed not 64 characters, date over 16, scope or announcement too
// long, more than 8 names) or no digest context can be made; decode then refuses any body.
[[nodiscard]] int orbs3_aws_chunked_init(orbs3_aws_chunked_t* st, unsigned mode, const uint8_t* signing_key,
                                         std::string_view seed, std::string_view date, std::string_view scope,
                                         int64_t decoded_length, std::string_view announced);

// Takes bytes of `in` and writes decoded bytes to `out` (at most `cap`): *consumed and *produced say how
// many. MORE: call again with the rest of the input or with room. DONE: *consumed ends exactly at the
// body's end (what follows belongs to the connection). An error (negative) is final, as DONE is: later
// calls take nothing and give the same result.
[[nodiscard]] int orbs3_aws_chunked_decode(orbs3_aws_chunked_t* st, const uint8_t* in, std::size_t len,
                                           uint8_t* out, std::size_t cap, std::size_t* consumed,
                                           std::size_t* produced);

// After DONE: the checksum trailer (an x-amz-checksum-* line) as sent. False when there was none. Its
// value is checked against the data by the caller, which knows the algorithm.
[[nodiscard]] bool orbs3_aws_chunked_checksum(const orbs3_aws_chunked_t* st, std::string_view* name,
                                              std::string_view* value);
