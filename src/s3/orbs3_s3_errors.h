// S3 errors: the table of status codes with their HTTP statuses, names and messages, the XML error
// document, and the small JSON error table of the administrative readers.
//
// A status code is what a handler returns on failure, e.g. 0xc000063 for NoSuchBucket; the last digits
// count up in decimal style. 0 means the handler has replied, -2 that its work goes on in later events.
#pragma once

#include <cstddef>
#include <cstdint>

struct orbs3_http_request_t;

struct orbs3_s3_error_t {
    uint32_t code;
    uint32_t http_status;
    const char* name;
    const char* message;  // null for OperationNotSupported: its Message element stays empty
};

// In table order, ended by the row with code 0xffffffff ("EndOff").
extern const orbs3_s3_error_t g_s3_error_info[];

// The codes the front end and the handlers name.
inline constexpr int ORBS3_S3_ACCESS_DENIED = 0xc000001;
inline constexpr int ORBS3_S3_ACCESS_DENIED_ROOT = 0xc000093;  // always with Resource "/"
inline constexpr int ORBS3_S3_AUTH_HEADER_MALFORMED = 0xc000005;
inline constexpr int ORBS3_S3_BAD_DIGEST = 0xc000006;
inline constexpr int ORBS3_S3_BUCKET_ALREADY_EXISTS = 0xc000007;
inline constexpr int ORBS3_S3_BUCKET_ALREADY_OWNED_BY_YOU = 0xc000008;
inline constexpr int ORBS3_S3_BUCKET_NOT_EMPTY = 0xc000009;
inline constexpr int ORBS3_S3_ENTITY_TOO_SMALL = 0xc000012;
inline constexpr int ORBS3_S3_ENTITY_TOO_LARGE = 0xc000013;
inline constexpr int ORBS3_S3_INCOMPLETE_BODY = 0xc000016;
inline constexpr int ORBS3_S3_INTERNAL_ERROR = 0xc000019;
inline constexpr int ORBS3_S3_INVALID_ACCESS_KEY_ID = 0xc000020;
inline constexpr int ORBS3_S3_INVALID_ARGUMENT = 0xc000022;
inline constexpr int ORBS3_S3_INVALID_BUCKET_NAME = 0xc000023;
inline constexpr int ORBS3_S3_INVALID_PART = 0xc000029;
inline constexpr int ORBS3_S3_INVALID_PART_ORDER = 0xc000030;
inline constexpr int ORBS3_S3_INVALID_REQUEST = 0xc000034;
inline constexpr int ORBS3_S3_INVALID_BUCKET_STATE = 0xc000024;
inline constexpr int ORBS3_S3_METHOD_NOT_ALLOWED = 0xc000056;
inline constexpr int ORBS3_S3_INVALID_URI = 0xc000048;
inline constexpr int ORBS3_S3_MALFORMED_ACL_ERROR = 0xc000050;
inline constexpr int ORBS3_S3_INVALID_TAG = 0xc000411;
inline constexpr int ORBS3_S3_MALFORMED_XML = 0xc000052;
inline constexpr int ORBS3_S3_MAX_MESSAGE_LENGTH_EXCEEDED = 0xc000053;
inline constexpr int ORBS3_S3_MISSING_CONTENT_LENGTH = 0xc000058;
inline constexpr int ORBS3_S3_MISSING_REQUEST_BODY = 0xc000059;
inline constexpr int ORBS3_S3_NO_SUCH_BUCKET = 0xc000063;
inline constexpr int ORBS3_S3_NO_SUCH_KEY = 0xc000065;
inline constexpr int ORBS3_S3_NO_SUCH_LIFECYCLE = 0xc000066;
inline constexpr int ORBS3_S3_NO_SUCH_UPLOAD = 0xc000067;
inline constexpr int ORBS3_S3_NO_SUCH_VERSION = 0xc000068;
inline constexpr int ORBS3_S3_NOT_IMPLEMENTED = 0xc000069;
inline constexpr int ORBS3_S3_REQUEST_TIMEOUT = 0xc000077;
inline constexpr int ORBS3_S3_REQUEST_TIME_TOO_SKEWED = 0xc000078;
inline constexpr int ORBS3_S3_SIGNATURE_DOES_NOT_MATCH = 0xc000082;
inline constexpr int ORBS3_S3_UNEXPECTED_CONTENT = 0xc000087;
inline constexpr int ORBS3_S3_DEST_KEY_ALREADY_EXISTS = 0xc000091;
inline constexpr int ORBS3_S3_COPY_FAILED = 0xc000092;
inline constexpr int ORBS3_S3_BUCKET_TOO_MUCH = 0xc000094;
inline constexpr int ORBS3_S3_OBJECT_TOO_MUCH = 0xc000095;
inline constexpr int ORBS3_S3_OPERATION_NOT_SUPPORTED = 0xc000400;
inline constexpr int ORBS3_S3_INVALID_DIGEST = 0xc000025;
inline constexpr int ORBS3_S3_INVALID_RANGE = 0xc000033;
inline constexpr int ORBS3_S3_KEY_TOO_LONG = 0xc000049;
inline constexpr int ORBS3_S3_METADATA_TOO_LARGE = 0xc000055;
inline constexpr int ORBS3_S3_SHA256_MISMATCH = 0xc000401;
inline constexpr int ORBS3_S3_PRECONDITION_FAILED = 0xc000402;
inline constexpr int ORBS3_S3_KEY_CONFLICT = 0xc000403;
inline constexpr int ORBS3_S3_CHECKSUM_MISMATCH = 0xc000404;
inline constexpr int ORBS3_S3_AUTH_QUERY_MALFORMED = 0xc000405;
inline constexpr int ORBS3_S3_INVALID_PART_NUMBER = 0xc000420;

// The first row with the code, or null.
[[nodiscard]] const orbs3_s3_error_t* orbs3_s3_find_error(uint32_t code);

// The error document: declaration, Error with Code, Message, Resource and RequestId, one LF at the end;
// texts escaped for XML. Allocated with orbs3_alloc; the caller frees it with __free__. Null when memory
// runs out.
[[nodiscard]] char* make_s3_error_resp_xml(const char* code_name, const char* message, const char* resource,
                                           const char* request_id);
// The same for a status code: its row's name and message, or "unknown error" for both when the code has
// no row. *http_status, when given, gets the status the reply goes out with.
[[nodiscard]] char* make_s3_error_resp_xml_ex(uint32_t code, const char* resource, const char* request_id,
                                              uint32_t* http_status = nullptr);

struct orbs3_s3_http_error_t {
    int32_t code;
    uint32_t http_status;
    const char* error;
    const char* message;  // null for the row that ends the table
};
// The JSON error table of the administrative readers, ended by the row with code 0.
extern const orbs3_s3_http_error_t s3_http_error[];
