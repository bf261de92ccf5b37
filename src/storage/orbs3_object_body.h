// The body of an upload (PutObject, UploadPart) on its way into a temporary file: read in slices of one
// buffer, the aws-chunked framing taken off and its chunk signatures checked, MD5 (and the additional
// checksum, and the signed payload SHA-256) taken as the bytes pass, on a thread of their own for a
// large body. Only a body that is whole and matched every digest the request named reaches the
// completion, which commits the file and answers; on every other road the temporary file goes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "http/orbs3_http_request.h"
#include "http/orbs3_http_request_body.h"
#include "memory/neo_md5.h"
#include "s3/orbs3_s3_aws_chunked.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_checksum.h"

#include <string>

struct orbs3_object_body_t;
struct orbs3_body_digest_t;  // the digest thread of a large body

// Runs once the whole body is in body->file.path and verified (body->file.etag, body->md5 and, with an
// additional checksum, body->checksum_value set). It commits (sets body->committed once the temporary
// file has been renamed away) and answers: 0 once answered, an S3 status to answer, -1 to close.
using orbs3_object_body_done_pt = int (*)(orbs3_http_request_t* r, orbs3_object_body_t* body);

// Lives in the request's pool (pool_new), so its destructor runs on every road the request ends by.
struct orbs3_object_body_t {
    orbs3_upload_file_t file{};  // the temporary file: path, size, running MD5, hex MD5 once whole
    uint8_t md5[NEO_MD5_LEN] = {};
    bool committed = false;  // the completion renamed the file; it is no longer ours to remove
    int64_t limit = -1;      // largest body in bytes; -1 none
    orbs3_object_body_done_pt done = nullptr;
    void* owner = nullptr;  // the caller's own state, for the completion
    const char* action = "";  // for log lines
    // What to answer when the temporary file is gone between two passes (its directory was removed).
    int vanished = ORBS3_S3_INTERNAL_ERROR;

    // What the request asks to be verified.
    bool want_md5 = false;
    uint8_t md5_expected[NEO_MD5_LEN] = {};
    evp_md_ctx_ptr sha256;  // set when the payload's SHA-256 is signed
    uint8_t sha256_expected[32] = {};
    // An aws-chunked body: decoded from buf into out, which is what the file holds.
    bool chunked = false;
    orbs3_aws_chunked_t aws;
    // An additional checksum, sent as a header or announced for the trailer of an aws-chunked body.
    orbs3_checksum_t checksum;
    char checksum_sent[ORBS3_CHECKSUM_BASE64_MAX + 1] = "";  // empty: it comes in the trailer
    char checksum_value[ORBS3_CHECKSUM_BASE64_MAX + 1] = "";
    // Set by the owner when the checksum is its own choice (the algorithm of a multipart upload for a part
    // sent without one): computed, with nothing to compare it with.
    bool checksum_own = false;

    // Buffers: bytes as read; with the digest thread the second one it takes turns with.
    uint8_t* buf = nullptr;
    uint8_t* bufs[2] = {};
    int turn = 0;
    uint8_t* out = nullptr;
    orbs3_body_digest_t* digest = nullptr;

    orbs3_object_body_t() { file.fd = -1; }
    ~orbs3_object_body_t();
    orbs3_object_body_t(const orbs3_object_body_t&) = delete;
    orbs3_object_body_t& operator=(const orbs3_object_body_t&) = delete;
};

// Reads what the request's headers ask of the body: Content-MD5, a signed payload SHA-256, aws-chunked
// framing (with the chunk signature chain), an x-amz-checksum-* value or trailer. 0 or an S3 status.
[[nodiscard]] int orbs3_object_body_prepare(orbs3_http_request_t* r, orbs3_object_body_t* body);

// The length of the object the request carries: x-amz-decoded-content-length for an aws-chunked body,
// else Content-Length (-1 when neither is known). 0, or ORBS3_S3_INVALID_ARGUMENT for a bad number.
[[nodiscard]] int orbs3_object_body_length(orbs3_http_request_t* r, int64_t* length);

// The header line that gives a verified body's checksum back ("x-amz-checksum-crc32: <value>", without
// its CRLF), as S3 answers a write that carried one; empty when the body had none.
[[nodiscard]] std::string orbs3_object_body_checksum_line(const orbs3_object_body_t& body);

// Starts the intake into body->file.path, which the caller has created; done and owner set. Becomes the
// request's op_state. What a handler returns: 0 answered, a status, -2 (going on in later read events),
// ORBS3_HTTP_CLOSED when connection and request are gone.
[[nodiscard]] int orbs3_object_body_start(orbs3_http_request_t* r, orbs3_object_body_t* body);

// Helpers of the header texts, shared with the unit tests.
// Content-MD5: the base64 of 16 bytes, nothing else.
[[nodiscard]] bool orbs3_parse_content_md5(std::string_view text, uint8_t out[NEO_MD5_LEN]);
// 64 hexadecimal digits into 32 bytes; false for anything else (UNSIGNED-PAYLOAD, STREAMING-...).
[[nodiscard]] bool orbs3_parse_sha256_hex(std::string_view text, uint8_t out[32]);
// A decimal length of at most 18 digits.
[[nodiscard]] bool orbs3_parse_length(std::string_view text, int64_t* out);
