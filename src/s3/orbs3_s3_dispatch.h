// Action dispatch: the table of S3 actions, the admission of a request (its access key, its signature,
// the service's blacklist) and the mapping of a handler's status to an S3 error reply. The dispatcher
// itself only ever sends errors; a handler that succeeds sends its own reply.
#pragma once

#include <cstdint>
#include <string_view>

#include "event/orbs3_connection.h"
#include "http/orbs3_http_request.h"

struct orbs3_vhost_t;

// A handler: 0 after its reply went out; -2 when its work goes on in later events (it then ends the
// request with orbs3_http_destory_thread_handler and its caller returns ORBS3_HTTP_CLOSED); a status
// code of s3/orbs3_s3_errors.h after filling r->resp.resource.
using orbs3_s3_handler_pt = int (*)(orbs3_http_request_t* r);

// A row of the action table. The s3 layer owns the names, codes and body columns; the handlers of the
// actions that touch the store are the storage layer's, which installs them at start.
struct orbs3_s3_event_t {
    std::string_view name;
    uint32_t code;
    orbs3_s3_handler_pt handler;  // null until installed: the action answers NotImplemented
    uint32_t read_body;  // 1: the whole body is read into memory before the handler runs
    uint32_t own_body;   // 1: the handler reads the body itself and takes the aws-chunked framing off
};

// In table order, ended by a row with code 0. Written only by orbs3_s3_install_handler, before the
// epoll threads start.
extern orbs3_s3_event_t s3_events[];

// Sets the handler of the action `name`; 0, or -1 when the table has no such action.
[[nodiscard]] int orbs3_s3_install_handler(std::string_view name, orbs3_s3_handler_pt handler);

// The row of an action name (exact, length first), or null.
[[nodiscard]] const orbs3_s3_event_t* orbs3_s3_find_event(std::string_view name);

// Whether a request without any credentials may try `action` with `method` (ORBS3_HTTP_*): GET and HEAD
// of an object or a listing, PUT of an object. Such a request runs with a null r->user, and the handler
// admits it only by the public bits of the bucket's or the object's ACL; any other action is AccessDenied.
[[nodiscard]] bool orbs3_s3_anonymous_action(std::string_view action, uint32_t method);

// The listener's response handler. 0 when the handler replied; a status code after an error reply;
// -2 while the operation goes on; -1 or ORBS3_HTTP_CLOSED (-9) after a body failure.
int orbs3_events_process(orbs3_http_request_t* r);

// Read handler while a document body is still coming; admission and the handler follow once it is in.
void obrs3_http_recv_json_data_again(orbs3_event_t* ev);

// Sends the error reply of a status (nothing for 0 and -2). Returns the status.
int orbs3_s3_send_error(orbs3_http_request_t* r, int status);

// The JSON error reply of the administrative readers: the row of `code` in s3_http_error, or status 200
// with an empty document when there is none. Returns 0, or -1 when it could not be sent.
int orbs3_send_http_respones(int code, orbs3_http_request_t* r);

// The secret of `key_id` in the user's record (the administrator's own key or one of its key list), or
// null.
[[nodiscard]] const char* orbs3_s3_user_secret(const orbs3_user_t* user, std::string_view key_id);

// The tenant's service blacklist test, installed by the access rules when they load: non-zero bars the
// peer. Null: no list.
using orbs3_s3_blacklist_pt = int (*)(const orbs3_vhost_t* vhost, const orbs3_peer_t* peer);
extern orbs3_s3_blacklist_pt orbmux_check_service_blacklist;

// The preflight: template M with the request's Origin and Access-Control-Request-Headers echoed.
int orbs3_options_process(orbs3_http_request_t* r);
// Every action whose handler is not built yet: NotImplemented, with the bucket and object as resource.
// Object data that comes with such a request is read to its end first (and dropped), so the connection
// stays usable; -2 while it is still coming.
int orbs3_s3_not_implemented(orbs3_http_request_t* r);
// Reads the request's object data to its end and drops it, then answers with `then` (NotImplemented
// when null); -2 while the data is still coming. `then` takes over r->op_state's place.
int orbs3_s3_drain_then(orbs3_http_request_t* r, orbs3_s3_handler_pt then);
