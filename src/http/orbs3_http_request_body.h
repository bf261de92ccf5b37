// Request bodies: the bytes behind a head, framed by Content-Length or by the chunked transfer coding,
// read across as many read events as they need. Two roads: a document (XML or JSON of the API) is read
// whole into memory, bounded by ORBS3_HTTP_DOCUMENT_MAX; object data streams through one buffer into a
// file, with its MD5 taken on the way.
//
// Every function that needs more bytes than the socket has returns -2 and leaves the request as it is;
// the caller makes its own `_again` function the read handler with orbs3_http_wait_read and calls the
// same function again from there. Body bytes that came with the head are taken from header_in first;
// bytes behind the body stay there for the next request on the connection.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "event/orbs3_event.h"
#include "http/orbs3_http_chunked.h"
#include "http/orbs3_http_request.h"
#include "memory/neo_md5.h"
#include "memory/orbs3_palloc.h"

// The largest document read into memory. S3 documents stay far below it: a delete of 1,000 keys or a
// completion of 10,000 parts is about 1 MiB.
inline constexpr int64_t ORBS3_HTTP_DOCUMENT_MAX = 8 << 20;

// Results beside 0, -1 and -2.
inline constexpr int ORBS3_HTTP_CLOSED = -9;             // connection and request are gone already
inline constexpr int ORBS3_HTTP_BODY_TOO_LARGE = -12;    // a document above ORBS3_HTTP_DOCUMENT_MAX
inline constexpr int ORBS3_HTTP_BODY_INCOMPLETE = -13;   // the peer closed before the body ended
inline constexpr int ORBS3_HTTP_BODY_INVALID = -14;      // a malformed chunked body

struct orbs3_http_request_body_t {
    uint32_t chain_count;
    orbs3_chain_t* chain;  // first link
    orbs3_buf_t* buf;      // the buffer being filled: the last link's; a whole document once complete
    int64_t rest;          // Content-Length bytes still to come; 0 for a chunked body
    orbs3_pool_t* pool;    // holds this record and every buffer
    int64_t received;      // body bytes delivered so far (decoded, for a chunked body)
    orbs3_http_chunked_t chunked;
    orbs3_buf_t* raw;      // chunked bytes read from the socket, not yet decoded
    unsigned ended : 1;    // the whole body has been delivered
    unsigned continue_sent : 1;
};

// What object data is written into.
struct orbs3_upload_file_t {
    int fd;              // -1 while closed
    char path[1024];
    int64_t size;        // bytes written so far
    neo_md5_t md5;       // running digest of what was written
    char etag[33];       // hex digest once the body is complete
};

// Drops a previous body of the request, then makes the pool, the record and the first link of
// recv_buffer bytes. Logs "Not enough memory create request" and gives -1 when memory runs out.
[[nodiscard]] int init_request_body_memory(orbs3_http_request_t* r);

// The document of a request whose body was read into memory, as one NUL-terminated text (the parsers of
// the API documents rely on the NUL); "" when the request had no body; null when memory runs out. Bytes
// behind a NUL inside the body are not seen by those parsers.
[[nodiscard]] const char* orbs3_http_body_document(orbs3_http_request_t* r);

// A request that asks for 100-continue but has no body (Content-Length: 0) gets the interim answer before
// its final one. botocore, having asked, takes a final reply that comes without it for the interim one
// and carries its status over to the next request on the connection. 0, or -1 when the send failed.
[[nodiscard]] int orbs3_http_continue_without_body(orbs3_http_request_t* r);

// Whether the request announces a body: a positive Content-Length or a chunked coding.
[[nodiscard]] bool orbs3_http_has_body(const orbs3_http_request_t* r);
// Whether every byte of the announced body has been read (true when there is none).
[[nodiscard]] bool orbs3_http_body_consumed(const orbs3_http_request_t* r);

// The next body bytes into dst, at most cap. A count above 0; 0 once the body has ended; -2 when the
// socket has nothing yet; -1 on a read error; ORBS3_HTTP_BODY_INVALID for a malformed chunked body;
// ORBS3_HTTP_BODY_INCOMPLETE when the peer closed first. Before the first read from the socket a client that sent
// "Expect: 100-continue" gets "HTTP/1.1 100 Continue". Creates the body record if there is none.
[[nodiscard]] ssize_t orbs3_http_read_body(orbs3_http_request_t* r, uint8_t* dst, std::size_t cap);

// Document road: reads the whole body into request_body; once complete, request_body->buf holds all of
// it (pos to last) in one piece. 0 complete; -2 again; ORBS3_HTTP_BODY_INVALID for a malformed body and
// -1 when memory runs out (the caller answers and closes);
// ORBS3_HTTP_BODY_TOO_LARGE, before reading any of it when Content-Length says so; ORBS3_HTTP_CLOSED
// when the peer closed or a read failed: connection and request are closed, nothing is to be sent.
[[nodiscard]] int orbs3_http_recv_request_body(orbs3_event_t* ev);

// File road: moves body bytes into file->fd (opened by the caller) in slices of one buffer, adding them
// to file->md5 and file->size. 0 when the body is complete (file->etag is then set); -2 again; -1 on a
// write or read error; ORBS3_HTTP_BODY_INVALID for a malformed body; ORBS3_HTTP_BODY_INCOMPLETE when the peer closed first, which
// must never be committed as an object. file->fd is closed before every return, as a pause may last long.
[[nodiscard]] int orbs3_http_write_body_into_file(orbs3_http_request_t* r, orbs3_upload_file_t* file);

// Makes `handler` the read handler, arms one read event and a timer of http_timeout seconds on it. 0 or -1.
[[nodiscard]] int orbs3_http_wait_read(orbs3_connection_t* c, orbs3_event_handler_pt handler);
