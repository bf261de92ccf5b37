// The answer of the actions whose handlers are not built yet, and the reading of a body nobody keeps.
// Such object data is read through the file road into /dev/null, the digest taken as a real upload would
// (and logged), so that a client's upload ends cleanly with the answer and its connection can carry the
// next request.
#include <fcntl.h>

#include <cstdio>

#include "core/orbs3_log.h"
#include "http/orbs3_http_parse.h"
#include "http/orbs3_http_request_body.h"
#include "s3/orbs3_s3_dispatch.h"
#include "s3/orbs3_s3_errors.h"

namespace {

int not_implemented_status(orbs3_http_request_t* r)
{
    const orbs3_req_msg_t& m = r->req_msg;
    std::snprintf(r->resp.resource, sizeof r->resp.resource, "%.*s%s%.*s", static_cast<int>(m.bucket.len),
                  m.bucket.data != nullptr ? m.bucket.data : "", m.object.len != 0 ? "/" : "",
                  static_cast<int>(m.object.len), m.object.data != nullptr ? m.object.data : "");
    return ORBS3_S3_NOT_IMPLEMENTED;
}

void drain_again(orbs3_event_t* ev);

// What answers once the body is read: the handler that asked for the drain.
struct drain_then_t {
    orbs3_s3_handler_pt then;
};

// One pass of the body into /dev/null, opened anew for every pass as an object file is. The status to
// answer, -2, or ORBS3_HTTP_CLOSED.
int drain_pass(orbs3_http_request_t* r)
{
    orbs3_upload_file_t* file = r->file;
    file->fd = open(file->path, O_WRONLY | O_CLOEXEC);
    if (file->fd < 0)
        return ORBS3_S3_INTERNAL_ERROR;
    int rc = orbs3_http_write_body_into_file(r, file);
    if (rc == ORBS3_AGAIN) {
        if (orbs3_http_wait_read(r->connection, drain_again) != 0) {
            orbs3_http_close_request_and_connection(r);
            return ORBS3_HTTP_CLOSED;
        }
        return ORBS3_AGAIN;
    }
    if (rc == ORBS3_HTTP_BODY_INCOMPLETE || rc == -1) {
        // The client went away, or the socket failed: nobody to answer.
        ipd_log(LOG_INFO, "%.*s %.*s: body ended after %lld bytes", static_cast<int>(r->req_msg.action.len),
                r->req_msg.action.data, static_cast<int>(r->uri.len), r->uri.data, static_cast<long long>(file->size));
        orbs3_http_close_request_and_connection(r);
        return ORBS3_HTTP_CLOSED;
    }
    if (rc == ORBS3_HTTP_BODY_INVALID)
        return ORBS3_S3_INCOMPLETE_BODY;
    ipd_log(LOG_INFO, "%.*s %.*s: body of %lld bytes, md5 %s", static_cast<int>(r->req_msg.action.len),
            r->req_msg.action.data, static_cast<int>(r->uri.len), r->uri.data, static_cast<long long>(file->size),
            file->etag);
    auto* after = static_cast<const drain_then_t*>(r->op_state);
    return after != nullptr && after->then != nullptr ? after->then(r) : not_implemented_status(r);
}

void drain_again(orbs3_event_t* ev)
{
    orbs3_http_request_t* r = orbs3_http_read_event_request(ev, "the body");
    if (r == nullptr)
        return;
    int status = drain_pass(r);
    if (status == ORBS3_AGAIN || status == ORBS3_HTTP_CLOSED)
        return;
    if (orbs3_s3_send_error(r, status) == -1) {
        orbs3_http_close_request_and_connection(r);
        return;
    }
    (void)orbs3_http_destory_thread_handler(ev);
}

}  // namespace

int orbs3_s3_not_implemented(orbs3_http_request_t* r)
{
    if (r->event == nullptr || r->event->read_body || !orbs3_http_has_body(r) || orbs3_http_body_consumed(r))
        return not_implemented_status(r);
    return orbs3_s3_drain_then(r, nullptr);
}

int orbs3_s3_drain_then(orbs3_http_request_t* r, orbs3_s3_handler_pt then)
{
    if (!orbs3_http_has_body(r) || orbs3_http_body_consumed(r))
        return then != nullptr ? then(r) : not_implemented_status(r);
    auto* after = pool_new<drain_then_t>(r->pool);
    if (after == nullptr)
        return ORBS3_S3_INTERNAL_ERROR;
    after->then = then;
    r->op_state = after;
    auto* file = pool_new<orbs3_upload_file_t>(r->pool);
    if (file == nullptr || neo_md5_init(&file->md5) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    file->fd = -1;
    std::snprintf(file->path, sizeof file->path, "%s", "/dev/null");
    r->file = file;
    return drain_pass(r);
}
