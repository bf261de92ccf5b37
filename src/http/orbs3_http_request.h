// One HTTP request: its record, the parsed request headers and the table of known headers with their
// handlers. A request lives at the start of its own pool and everything it points to dies with that pool.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "event/orbs3_connection.h"
#include "memory/orbs3_array.h"
#include "memory/orbs3_hash.h"
#include "memory/orbs3_palloc.h"

struct orbs3_connection_t;
struct orbs3_vhost_t;
struct orbs3_user_t;
struct orbs3_bucket_t;             // a bucket's private copy, owned by the bucket store
struct orbs3_upload_file_t;        // the file record of an operation that moves object data
struct orbs3_s3_event_t;           // a row of the S3 action table
struct orbs3_http_request_body_t;  // body buffers and the count of bytes to come

// Reply parameters that the S3 dispatcher prepares for the handlers, and the handlers for the error path.
inline constexpr std::size_t ORBS3_RESP_CONNECTION_LEN = 16;
inline constexpr std::size_t ORBS3_RESP_ORIGIN_LEN = 128;
inline constexpr std::size_t ORBS3_RESP_REQUEST_ID_LEN = 48;
inline constexpr std::size_t ORBS3_RESP_RESOURCE_LEN = 1024;
struct orbs3_http_resp_t {
    char connection[ORBS3_RESP_CONNECTION_LEN];  // "keep-alive", "close" or empty
    char origin[ORBS3_RESP_ORIGIN_LEN];          // the Origin to echo, or empty
    char request_id[ORBS3_RESP_REQUEST_ID_LEN];  // 32 lower-case hex digits
    char resource[ORBS3_RESP_RESOURCE_LEN];      // the Resource of an error document
    const char* message;  // a message of the error's own instead of its row's (static text), or null
    // Whole header lines an error reply carries besides its own (CRLF between them, in the request's
    // pool), or null: what a delete marker answers with.
    const char* headers;
};

// The list-based head of object downloads.
struct orbs3_http_headers_out_t {
    orbs3_list_t headers;     // orbs3_header_t, 20 to a part; set up by the first header pushed
    orbs3_str_t status_line;  // as in "206 Partial Content"
};

// The S3 view of the request, filled by request classification. Strings live in the request's pool and
// are NUL-terminated; an unset string is {0, nullptr}.
struct orbs3_req_msg_t {
    orbs3_str_t action;  // a name of the S3 action table; unset: the engine answers 403
    orbs3_str_t bucket;
    orbs3_str_t object;  // key as in the path, slashes included; empty at bucket level
    orbs3_str_t delimiter;
    orbs3_str_t encoding_type;
    orbs3_str_t prefix;
    orbs3_str_t marker;
    orbs3_str_t continuation_token;
    orbs3_str_t fetch_owner;
    orbs3_str_t start_after;
    int32_t max_keys;   // 1000 when missing
    int32_t list_type;  // 2 when missing
    int32_t position;
    int32_t part_number;
    int32_t max_parts;
    int32_t part_number_marker;
    orbs3_str_t uploadId;
};

// Method bits; a method name outside this set leaves `method` at 0.
inline constexpr uint32_t ORBS3_HTTP_UNKNOWN = 0;
inline constexpr uint32_t ORBS3_HTTP_GET = 2;
inline constexpr uint32_t ORBS3_HTTP_HEAD = 4;
inline constexpr uint32_t ORBS3_HTTP_POST = 8;
inline constexpr uint32_t ORBS3_HTTP_PUT = 16;
inline constexpr uint32_t ORBS3_HTTP_DELETE = 32;
inline constexpr uint32_t ORBS3_HTTP_MKCOL = 64;
inline constexpr uint32_t ORBS3_HTTP_COPY = 128;
inline constexpr uint32_t ORBS3_HTTP_MOVE = 256;
inline constexpr uint32_t ORBS3_HTTP_OPTIONS = 512;
inline constexpr uint32_t ORBS3_HTTP_PROPFIND = 1024;
inline constexpr uint32_t ORBS3_HTTP_PROPPATCH = 2048;
inline constexpr uint32_t ORBS3_HTTP_LOCK = 4096;
inline constexpr uint32_t ORBS3_HTTP_UNLOCK = 8192;
inline constexpr uint32_t ORBS3_HTTP_PATCH = 16384;
inline constexpr uint32_t ORBS3_HTTP_TRACE = 32768;

// http_version values.
inline constexpr uint32_t ORBS3_HTTP_VERSION_9 = 9;
inline constexpr uint32_t ORBS3_HTTP_VERSION_10 = 1000;
inline constexpr uint32_t ORBS3_HTTP_VERSION_11 = 1001;

// headers_in.connection_type
inline constexpr unsigned ORBS3_HTTP_CONNECTION_CLOSE = 1;
inline constexpr unsigned ORBS3_HTTP_CONNECTION_KEEP_ALIVE = 2;

// host_style
inline constexpr uint32_t ORBS3_HOST_STYLE_PATH = 1;
inline constexpr uint32_t ORBS3_HOST_STYLE_VIRTUAL = 2;

// Size of lowcase_header: names of this length and more wrap around in it and are lower-cased anew.
inline constexpr std::size_t ORBS3_LOWCASE_HEADER_LEN = 32;
// Header records per block of headers_in.headers.
inline constexpr std::size_t ORBS3_HEADERS_IN_BLOCK = 40;

// One request header. key and value point into header_in and are NUL-terminated there.
struct orbs3_header_t {
    uint64_t hash;       // running hash of the lower-cased name, as the parser built it
    orbs3_str_t key;     // name as sent
    orbs3_str_t value;
    char* lowcase_key;   // key.len bytes, lower case, in the pool; null on a cookie record
};

struct orbs3_http_headers_in_t {
    orbs3_list_t headers;  // orbs3_header_t, in arrival order

    orbs3_header_t* host;
    orbs3_header_t* connection;
    orbs3_header_t* if_modified_since;
    orbs3_header_t* if_unmodified_since;
    orbs3_header_t* if_match;
    orbs3_header_t* if_none_match;
    orbs3_header_t* user_agent;
    orbs3_header_t* referer;
    orbs3_header_t* content_length;
    orbs3_header_t* content_range;
    orbs3_header_t* content_type;
    orbs3_header_t* date;
    orbs3_header_t* range;
    orbs3_header_t* if_range;
    orbs3_header_t* transfer_encoding;
    orbs3_header_t* expect;
    orbs3_header_t* upgrade;
    orbs3_header_t* accept_encoding;
    orbs3_header_t* authorization;
    orbs3_header_t* keep_alive;
    orbs3_header_t* x_real_ip;
    orbs3_header_t* accept;
    orbs3_header_t* accept_language;
    orbs3_header_t* orb_action;
    orbs3_header_t* x_copy_source;
    orbs3_header_t* access_control_request_headers;
    orbs3_header_t* origin;

    orbs3_array_t cookies;          // orbs3_header_t*, one per cookie; elts null until the first Cookie
    orbs3_array_t x_forwarded_for;  // orbs3_header_t*, every occurrence; elts null until the first
    orbs3_str_t server;             // validated host name without port, lower case
    unsigned connection_type : 2;
    unsigned chunked : 1;
    // A second Transfer-Encoding, or a Content-Length that disagrees with an earlier one: two parties
    // could frame the body differently, so the whole-head test refuses the request.
    unsigned framing_conflict : 1;
};

struct orbs3_http_request_t {
    orbs3_bucket_t* bucket;
    char file_path[1024];
    orbs3_connection_t* connection;
    orbs3_upload_file_t* file;
    void* op_state;  // a handler's own record while its work goes on in later events
    const orbs3_s3_event_t* event;
    orbs3_pool_t* pool;
    orbs3_vhost_t* vhost;
    uint32_t vhost_held;  // 1 when the request holds a reference on vhost (orbs3_find_virtual_server)
    uint32_t host_style;
    orbs3_http_resp_t resp;
    orbs3_user_t* user;  // null for a request without credentials (orbs3_s3_anonymous_action)
    int32_t header_length;
    uint64_t request_length;
    uint64_t received;
    orbs3_buf_t* url_buf;
    orbs3_buf_t* spare_buf;
    orbs3_buf_t* header_in;  // zero-filled; keeps one zero byte behind the received data
    unsigned request_closed : 1;
    orbs3_http_headers_in_t headers_in;
    orbs3_http_headers_out_t headers_out;
    int64_t file_size;
    orbs3_req_msg_t req_msg;

    // Results of the request line; strings point into header_in unless told otherwise.
    uint32_t method;
    uint32_t http_version;  // major * 1000 + minor; 9 for a line without version
    uint16_t http_major;
    uint16_t http_minor;
    orbs3_str_t request_line;
    orbs3_str_t method_name;
    orbs3_str_t http_protocol;
    orbs3_str_t uri;           // in the pool when the URI was normalised
    orbs3_str_t args;
    orbs3_str_t exten;
    orbs3_str_t unparsed_uri;
    orbs3_str_t url;           // Host value and uri, in url_buf

    // Scan marks, valid only while parsing.
    uint8_t* request_start;
    uint8_t* request_end;
    uint8_t* method_end;
    uint8_t* schema_start;
    uint8_t* schema_end;
    uint8_t* host_start;
    uint8_t* host_end;
    uint8_t* port_end;
    uint8_t* uri_start;
    uint8_t* uri_end;
    uint8_t* uri_ext;
    uint8_t* args_start;
    uint8_t* header_name_start;
    uint8_t* header_name_end;
    uint8_t* header_start;
    uint8_t* header_end;

    // State of whichever machine runs; parse_state is 0 between lines.
    uint32_t parse_state;
    uint64_t header_hash;
    uint64_t lowcase_index;
    uint8_t lowcase_header[ORBS3_LOWCASE_HEADER_LEN];
    unsigned complex_uri : 1;  // '#', a dot segment or "//": the path needs normalising
    unsigned quoted_uri : 1;   // '%': the path needs decoding

    orbs3_http_request_body_t* request_body;
    int64_t content_length;  // -1: no Content-Length, or one that is not a number
};

// ---- the table of known request headers ----

// (request, header record, offset of the field in orbs3_http_headers_in_t): 0, or -1 to drop the request.
using orbs3_http_header_handler_pt = int (*)(orbs3_http_request_t* r, orbs3_header_t* h, std::size_t offset);

struct orbs3_http_header_t {
    std::string_view name;
    std::size_t offset;
    orbs3_http_header_handler_pt handler;
};

extern const orbs3_http_header_t orbs3_http_headers_in[];
extern const std::size_t orbs3_http_headers_in_count;

// The table by lower-cased name; values point to rows of orbs3_http_headers_in. Built once before the
// workers start, read-only after.
extern orbs3_hash_t headers_in_hash;

// Builds headers_in_hash in `pool`, which must live as long as the process serves requests. 0 or -1.
[[nodiscard]] int orbs3_http_init_headers_in_hash(orbs3_pool_t* pool);

// Handlers of the table. The field keeps the first occurrence unless told otherwise.
[[nodiscard]] int orbs3_http_process_header_line(orbs3_http_request_t* r, orbs3_header_t* h, std::size_t offset);
// Every occurrence is read into content_length (the last wins); a value that differs from an earlier
// one marks framing_conflict.
[[nodiscard]] int orbs3_http_process_header_line_content(orbs3_http_request_t* r, orbs3_header_t* h,
                                                         std::size_t offset);
// Duplicate Host drops the request; the first is validated into `server` and resolves the vhost.
[[nodiscard]] int orbs3_http_process_host(orbs3_http_request_t* r, orbs3_header_t* h, std::size_t offset);
// Every occurrence sets connection_type when it holds "close" or "keep-alive"; the value then reads as
// empty (value.len 0).
[[nodiscard]] int orbs3_http_process_connection(orbs3_http_request_t* r, orbs3_header_t* h, std::size_t offset);
// Appends every occurrence to x_forwarded_for.
[[nodiscard]] int orbs3_http_process_header_xff(orbs3_http_request_t* r, orbs3_header_t* h, std::size_t offset);
// Cuts the value into one record per cookie in `cookies`; the header's key.len becomes 0.
[[nodiscard]] int orbs3_http_process_multi_cookies(orbs3_http_request_t* r, orbs3_header_t* h,
                                                   std::size_t offset);
// Keeps the first and sets `chunked` when it holds "chunked"; a second one marks framing_conflict.
[[nodiscard]] int orbs3_http_process_transfer_encoding(orbs3_http_request_t* r, orbs3_header_t* h,
                                                       std::size_t offset);
[[nodiscard]] int orbs3_http_process_action(orbs3_http_request_t* r, orbs3_header_t* h, std::size_t offset);
[[nodiscard]] int orbs3_http_process_copysource(orbs3_http_request_t* r, orbs3_header_t* h, std::size_t offset);

// ---- host handling ----

inline constexpr int ORBS3_HOST_INVALID = -5;

// Validates a Host value and cuts it to the host name without port (an IP literal keeps its brackets),
// without one trailing dot. A name with upper-case letters, or any name when `alloc` is set, is copied
// lower-cased into the pool. 0, ORBS3_HOST_INVALID (-5), or -1 when the pool is out of memory.
[[nodiscard]] int orbs3_http_validate_host(orbs3_str_t* host, orbs3_pool_t* pool, unsigned alloc);

// Sets r->vhost and r->host_style from the Host value as sent, cut at its first ':', against the vhosts
// of the listener the request's connection came through: a domain equal to it (path style), else a
// domain inside it (virtual-host style), else the first vhost (path style). Leaves both alone when the
// request has no connection or its listener no vhost. Returns 0. The request holds a reference on the
// vhost it found (core/orbs3_tenant.h) until orbs3_http_close_request.
int orbs3_find_virtual_server(orbs3_http_request_t* r);
// Drops the request's reference on its vhost, if it holds one, and clears r->vhost.
void orbs3_http_drop_vhost(orbs3_http_request_t* r);

// ---- the life of a connection and its requests ----

// The listener's handler: I/O wrappers, handlers, one read event, the idle deadline; then reads at once,
// since the request may be there already.
void orbs3_http_init_connection(orbs3_connection_t* c);
// Runs the connection's read handler from the event loop rather than from a deeper call: through the
// write event, which fires as soon as the socket has room, under a deadline of http_timeout seconds. For
// input that is already at hand (pipelined requests, bytes a TLS session holds). 0, or -1 when it cannot
// be armed.
[[nodiscard]] int orbs3_http_resume_read(orbs3_connection_t* c);
// Read handler of an idle connection: makes a request for the bytes that arrived.
void orbs3_http_wait_request_handler(orbs3_event_t* ev);
// Read handler while a head is incomplete; it also drives the request through the front end, and the
// pipelined requests behind it.
void orbs3_http_process_get_request_header(orbs3_event_t* ev);
// A new request in its own pool of request_pool_size bytes, or null (logged).
[[nodiscard]] orbs3_http_request_t* orbs3_http_create_request(orbs3_connection_t* c);
// Ends a request: body pool and request pool destroyed; a second call does nothing.
void orbs3_http_close_request(orbs3_http_request_t* r);
// Ends a connection at once; a closed one is left alone.
void orbs3_http_close_connection(orbs3_connection_t* c);
// Both, request first.
void orbs3_http_close_request_and_connection(orbs3_http_request_t* r);
// The request of a read event that resumes waiting work, with the event's deadline removed; null when
// there is nothing to resume: the connection was closed or had no request, or the deadline passed while
// the client was sending `waiting_for` (logged). Connection and request are closed in those cases.
[[nodiscard]] orbs3_http_request_t* orbs3_http_read_event_request(orbs3_event_t* ev, const char* waiting_for);
// The connection's exit handler (errors, hang-ups): closes the request, if any, and the connection.
void orbs3_http_connection_exit_handler(orbs3_connection_t* c);
// Ends the connection's current request after deferred work has answered it: the connection then waits
// for the next request, takes up one that has arrived, or closes after the reply. -1 when the
// connection is closed or has no request, else 0. Whoever calls it from a front-end handler returns
// ORBS3_HTTP_CLOSED, so that the request is not ended twice.
int orbs3_http_destory_thread_handler(orbs3_event_t* ev);
// A write handler that does nothing.
void orbs3_http_events_empty(orbs3_event_t* ev);
