// Replies on the wire: the status table and its error pages, the fixed reply templates, the list-based
// header block of object downloads, the Date text and the small time helpers of the S3 layer.
//
// Writing never blocks the thread. What the socket does not take at once is copied into the connection's
// send_buf (from the connection's pool, at most ORBS3_HTTP_SEND_PENDING_MAX bytes) and leaves on write
// events. While output is pending the connection must not be armed for reading: orbs3_http_send_wait
// arms the write event, and when the output has drained the connection's read handler runs, as if a
// read event had arrived. A wait has a time limit: a peer that takes nothing for http_timeout seconds is
// dropped.
//
// A file body is not copied into the queue: the connection holds its descriptor and range, and on plain
// connections the kernel moves it from the page cache to the socket (sendfile). On TLS connections it is
// read in bounded slices and goes through the connection's send.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "event/orbs3_connection.h"
#include "http/orbs3_http_request.h"

// ---- the status table ----

struct orbs3_http_status_t {
    uint32_t code;
    const char* reason;
    const char* page;  // null for 200 and 204
};

// Rows in code order, ended by a row with code 0.
extern const orbs3_http_status_t http_status_code[];

// The row of a code, or null.
const orbs3_http_status_t* orbs3_http_find_status(uint32_t code);

// ---- dates ----

// Enough for every text of the helpers below.
inline constexpr std::size_t ORBS3_HTTP_DATE_LEN = 64;

// Where the helpers take the current time from; tests fix it.
using orbs3_http_clock_pt = time_t (*)();
extern orbs3_http_clock_pt orbs3_http_clock;

// t as the Date value, e.g. "Wed, 1 jul 2026 12:00:00 GMT" (clients have always seen "jul" and "Sept").
void orbs3_http_format_gmt(time_t t, char* buf, std::size_t size);
// The current time as the Date value.
void get_gmt_time(char* buf, std::size_t size);
// The stamp of object and bucket records, e.g. "2026-07-01T12:00:00.000Z".
void get_gmt_meta_time(char* buf, std::size_t size);
// The time of a UTC calendar date and clock time; false for fields out of range or a year before 1970.
[[nodiscard]] bool orbs3_make_utc_time(int year, int mon, int day, int hour, int min, int sec, time_t* t);
// ---- writing ----

// The most output one connection may hold back; a reply beyond it is refused rather than buffered.
inline constexpr std::size_t ORBS3_HTTP_SEND_PENDING_MAX = 16u << 20;
// The fixed text of one reply head of the template family and of an error page, NUL included.
inline constexpr std::size_t ORBS3_HTTP_HEAD_LEN = 1024;
// The list-based head of object downloads.
inline constexpr std::size_t ORBS3_HTTP_HEADERS_LEN = 2048;

// Writes len bytes, queueing what the socket does not take behind output already pending. 0: all
// written or queued; -1: a send error or a queue beyond its bound (the connection is to be closed).
// A null connection sends nothing and gives 0.
[[nodiscard]] int orbs3_http_send_response_bytes(orbs3_connection_t* c, const void* data, std::size_t len);
// The same for a NUL-terminated text; -1 for a null text.
[[nodiscard]] int orbs3_http_send_response_data(orbs3_connection_t* c, const char* text);
// Bytes written or queued but not yet taken by the socket, the pending file range included.
std::size_t orbs3_http_send_pending(const orbs3_connection_t* c);
// Writes pending output in order (queue, file, what was queued behind the file): 0 when none is left,
// -2 when the socket is full, -1 on error.
[[nodiscard]] int orbs3_http_send_flush(orbs3_connection_t* c);
// With output pending: makes orbs3_http_send_response_data_again the write handler, sets a timer of
// sysconfig.http_timeout seconds on the write event and arms one write event, -2 (or -1 when it cannot
// be armed). Without: 0.
[[nodiscard]] int orbs3_http_send_wait(orbs3_connection_t* c);
// Write handler: sends pending output; when it has drained, the read handler runs. Errors and a timed
// out wait close the connection through its exit handler.
void orbs3_http_send_response_data_again(orbs3_event_t* ev);

// Sends len bytes of fd from offset, behind output already pending; output written after this call
// follows the file. The connection owns fd from the call on, whatever the result: it is closed when the
// range has gone, on an error, or when the connection closes. 0: all sent, or the rest is pending (wait
// with orbs3_http_send_wait as after any output); -1: an error, the connection is to be closed. A file
// shorter than the range is an error, since the head has promised the length. One file at a time: while
// one is pending, a second call gives -1 (the first stays pending). A null connection closes fd and
// gives 0.
[[nodiscard]] int orbs3_http_send_file(orbs3_connection_t* c, int fd, int64_t offset, int64_t len);

// ---- replies ----
// Each takes connection and origin as NUL-terminated words (null reads as empty); an origin that is not
// empty adds the Access-Control-Allow-Origin line. 0, or -1 when the reply could not be written or
// queued, or its head does not fit ORBS3_HTTP_HEAD_LEN. A status outside the table sends an empty head:
// the document alone, or nothing.

// Status line, Server and "Connection: close", then the table's page. A status outside the table sends
// nothing. The caller closes the connection.
[[nodiscard]] int orbs3_http_send_error_page(orbs3_connection_t* c, uint32_t status);

// An XML document, "Server: KELVANE 1.0". `extra`, when set, is one or more whole header lines (CRLF
// between them, none at the end) behind the others: the version id of a write.
[[nodiscard]] int orbs3_http_send_msg(orbs3_connection_t* c, uint32_t status, const char* body,
                                      const char* connection, const char* origin, const char* extra = nullptr);
// An S3 error document, as orbs3_http_send_msg with an "x-amz-request-id" line: the id the document's
// RequestId names; `extra` as there (a delete marker's headers).
[[nodiscard]] int orbs3_http_send_error_msg(orbs3_connection_t* c, uint32_t status, const char* request_id,
                                            const char* body, const char* connection, const char* origin,
                                            const char* extra = nullptr);
// The answer to a preflight: both origin and the requested headers echoed.
[[nodiscard]] int orbs3_http_send_options_msg(orbs3_connection_t* c, uint32_t status, const char* connection,
                                              const char* origin, const char* allow_headers);

// No document.
#define ORBS3_HTTP_NO_DOC_MSG(name)                                                                      \
    [[nodiscard]] int orbs3_http_send_##name##_msg(orbs3_connection_t* c, uint32_t status,                 \
                                                    const char* connection, const char* origin)
ORBS3_HTTP_NO_DOC_MSG(put_bucket_acl);
ORBS3_HTTP_NO_DOC_MSG(put_bucket_rename);
ORBS3_HTTP_NO_DOC_MSG(del_object);
ORBS3_HTTP_NO_DOC_MSG(abort_mulitipart_object);
ORBS3_HTTP_NO_DOC_MSG(del_bucket);
#undef ORBS3_HTTP_NO_DOC_MSG

// An XML document, "Content-Type: text/xml".
#define ORBS3_HTTP_DOC_MSG(name)                                                                         \
    [[nodiscard]] int orbs3_http_send_##name##_msg(orbs3_connection_t* c, uint32_t status, const char* body, \
                                                    const char* connection, const char* origin)
ORBS3_HTTP_DOC_MSG(get_bucket_acl);
ORBS3_HTTP_DOC_MSG(del_objects);
ORBS3_HTTP_DOC_MSG(create_mulitipart_object);
ORBS3_HTTP_DOC_MSG(list_objects);
#undef ORBS3_HTTP_DOC_MSG

// With the ETag of the object: "Etag:" for put, "ETag:" for append and upload part. `extra`, when
// set, is one or more whole header lines (CRLF between them, none at the end) at the end: the checksum the
// write verified, which clients compare with their own, and the version id of the content written.
#define ORBS3_HTTP_ETAG_MSG(name)                                                                        \
    [[nodiscard]] int orbs3_http_send_##name##_msg(orbs3_connection_t* c, uint32_t status, const char* etag, \
                                                    const char* connection, const char* origin,           \
                                                    const char* extra = nullptr)
ORBS3_HTTP_ETAG_MSG(put_object);
ORBS3_HTTP_ETAG_MSG(append_object);
ORBS3_HTTP_ETAG_MSG(upload_part_object);
#undef ORBS3_HTTP_ETAG_MSG

// The reply of DeleteObject on a bucket with versions: the lines of del_object, then `extra`, whole
// header lines joined by CRLF (without the last one): x-amz-version-id, x-amz-delete-marker.
[[nodiscard]] int orbs3_http_send_del_object_version_msg(orbs3_connection_t* c, uint32_t status,
                                                         const char* connection, const char* origin,
                                                         const char* extra);

// "Location:/<bucket>".
[[nodiscard]] int orbs3_http_send_put_bucket_msg(orbs3_connection_t* c, uint32_t status, const char* bucket,
                                                 const char* connection, const char* origin);
// "Content-Type: application/xml" and the request id.
[[nodiscard]] int orbs3_http_send_list_buckets_msg(orbs3_connection_t* c, uint32_t status,
                                                   const char* request_id, const char* body,
                                                   const char* connection, const char* origin);

// ---- list-based head of object downloads ----

// Appends a header to r->headers_out.headers, name and value copied into the request's pool. 0 or -1.
[[nodiscard]] int orbs3_http_set_response_headers(orbs3_http_request_t* r, const char* name, const char* value);
// "HTTP/1.1 <status_line>", the Connection line of connection_type, every header with a name, the
// empty line; no Date or Server. 0, or -1 when it does not fit ORBS3_HTTP_HEADERS_LEN or cannot be
// written or queued.
[[nodiscard]] int orbs3_http_send_headers(orbs3_http_request_t* r);
// The same head with `body_len` bytes of `body` behind it, written together (the body is copied).
[[nodiscard]] int orbs3_http_send_headers_body(orbs3_http_request_t* r, const void* body, std::size_t body_len);
