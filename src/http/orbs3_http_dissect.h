// Read-only dissection of a request head in place: the request line and each header line become slots
// (begin and end pointers, the end NUL-terminated in the head itself), kept in a record laid out in
// caller-supplied memory. Headers added later are formatted into a workspace.
#pragma once

#include <cstddef>
#include <cstdint>

#include "memory/orbs3_workspace.h"

// A run of bytes [b, e).
struct orbs3_http_txt_t {
    char* b;
    char* e;
};

// Slots of the request line; header lines start at ORBS3_HTTP_HDR_FIRST.
inline constexpr uint16_t ORBS3_HTTP_HDR_METHOD = 0;
inline constexpr uint16_t ORBS3_HTTP_HDR_URL = 1;
inline constexpr uint16_t ORBS3_HTTP_HDR_PROTO = 2;
inline constexpr uint16_t ORBS3_HTTP_HDR_FIRST = 5;
// The capacity every record of this system is created with (http_max_hdr).
inline constexpr uint16_t ORBS3_HTTP_MAX_HDR = 64;

struct orbs3_http_t {
    orbs3_ws_t* ws;             // where http_printf_header builds its lines
    orbs3_http_txt_t* slots;    // capacity entries, behind the record
    uint8_t* slot_flags;        // one per slot, behind the slots
    uint16_t capacity;
    uint16_t count;             // slots in use, request-line slots included
    uint8_t conditional;        // an "If-" header was seen
    uint8_t proto_version;      // 9, 10 or 11
    uint8_t close_after;        // the connection closes after this request
};

// Bytes a record with n slots needs.
std::size_t http_estimate(uint16_t n);
// Lays out a record with n slots in memory (at least http_estimate(n) bytes, aligned to 8). Null when
// memory is misaligned or n leaves no room for a header (n <= ORBS3_HTTP_HDR_FIRST).
[[nodiscard]] orbs3_http_t* http_create(void* memory, uint16_t n);
// Empties the record for a new head, with ws for the headers to come.
void http_setup(orbs3_http_t* hp, orbs3_ws_t* ws);

// Cuts the three fields of the first line of region into slots h1, h2, h3 and NUL-terminates them, then
// dissects the header lines behind it. 0, 400 for a control byte in a field, a line without its end or
// a slot outside the table, 413 for an empty second field or too many headers.
[[nodiscard]] int http_splitline(orbs3_http_t* hp, uint16_t h1, uint16_t h2, uint16_t h3,
                                 orbs3_http_txt_t region);
// One slot per header line from p to the first empty line or region.e; continuation lines are joined
// into their header with spaces, trailing blanks cut, each line NUL-terminated. 0, or 413 when the slots
// run out. A last line without its line end is not taken.
[[nodiscard]] int http_dissect_hdrs(orbs3_http_t* hp, char* p, orbs3_http_txt_t region);
// A request head: http_splitline into method, URL and protocol, then http_proto_ver and the Host check.
[[nodiscard]] int http_dissect_request(orbs3_http_t* hp, orbs3_http_txt_t region);
void http_proto_ver(orbs3_http_t* hp);
// 400 when the head holds a second Host header, else 0.
[[nodiscard]] int htc_request_check_host_hdr(const orbs3_http_t* hp);

// The slot of the first header named `name` (len bytes, any case), or 0.
uint16_t http_find_hdr(const orbs3_http_t* hp, std::size_t len, const char* name);
// hdr is a name with a length prefix that counts the colon ("\005Host:"). 1 and *value at the value with
// its leading blanks skipped, or 0 and *value null.
int http_get_hdr(const orbs3_http_t* hp, const char* hdr, char** value);
// Formats a header line into the workspace and adds it as a slot: 0, or -1 when the workspace or the
// slots are too small, which is logged and adds nothing.
int http_printf_header(orbs3_http_t* hp, const char* format, ...) __attribute__((format(printf, 2, 3)));
