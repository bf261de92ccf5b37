#include "http/orbs3_http_not_implemented.h"

#include <fcntl.h>

#include <cstdio>

#include "core/orbs3_log.h"
#include "http/orbs3_http_request_body.h"
#include "http/orbs3_http_response.h"

namespace {

struct method_action {
    uint32_t method;
    const char* action;
};
constexpr method_action kActions[] = {
    {ORBS3_HTTP_GET, "GET"},   {ORBS3_HTTP_HEAD, "HEAD"},     {ORBS3_HTTP_PUT, "PUT"},
    {ORBS3_HTTP_POST, "POST"}, {ORBS3_HTTP_DELETE, "DELETE"}, {ORBS3_HTTP_OPTIONS, "OPTIONS"},
};

// An S3 error document; the connection word says whether the connection will stay.
int reply_error(orbs3_http_request_t* r, uint32_t status, const char* code, const char* message)
{
    char doc[512];
    int n = std::snprintf(doc, sizeof doc,
                          "<?xml version=\"1.0\" encoding=\"utf-8\"?><Error><Code>%s</Code><Message>%s</Message>"
                          "<Resource>/</Resource><RequestId></RequestId></Error>\n",
                          code, message);
    if (n < 0 || static_cast<std::size_t>(n) >= sizeof doc)
        return -1;
    const bool keep = r->headers_in.connection_type == ORBS3_HTTP_CONNECTION_KEEP_ALIVE &&
                      orbs3_http_body_consumed(r);
    // A reply to HEAD carries no body.
    const char* body = r->method == ORBS3_HTTP_HEAD ? "" : doc;
    if (orbs3_http_send_msg(r->connection, status, body, keep ? "keep-alive" : "close", "") != 0)
        return -1;
    return static_cast<int>(status);
}

int reply_not_implemented(orbs3_http_request_t* r)
{
    return reply_error(r, 501, "NotImplemented",
                       "A header you provided implies functionality that is not implemented.");
}

// What a body road's failure is answered with. Returns the status sent, or -1.
int reply_body_failure(orbs3_http_request_t* r, int rc)
{
    switch (rc) {
    case ORBS3_HTTP_BODY_TOO_LARGE:
        return reply_error(r, 400, "MaxMessageLengthExceeded", "Your request was too big.");
    case ORBS3_HTTP_BODY_INVALID:
        return reply_error(r, 400, "IncompleteBody",
                           "You did not provide the number of bytes specified by the Content-Length HTTP header.");
    default:
        return reply_error(r, 500, "InternalError", "We encountered an internal error. Please try again.");
    }
}

void put_again(orbs3_event_t* ev);
void document_again(orbs3_event_t* ev);

// One pass of a PUT's data into /dev/null; the descriptor is opened anew for every pass, as an object
// file is. The status sent, -2, or ORBS3_HTTP_CLOSED.
int put_pass(orbs3_http_request_t* r)
{
    orbs3_upload_file_t* file = r->file;
    file->fd = open(file->path, O_WRONLY | O_CLOEXEC);
    if (file->fd < 0)
        return reply_body_failure(r, -1);
    int rc = orbs3_http_write_body_into_file(r, file);
    if (rc == -2) {
        if (orbs3_http_wait_read(r->connection, put_again) != 0) {
            orbs3_http_close_request_and_connection(r);
            return ORBS3_HTTP_CLOSED;
        }
        return -2;
    }
    if (rc == ORBS3_HTTP_BODY_INCOMPLETE || rc == -1) {
        // The client went away, or the socket failed: nobody to answer.
        ipd_log(LOG_INFO, "PUT %.*s: body ended after %lld bytes", static_cast<int>(r->uri.len), r->uri.data,
                static_cast<long long>(file->size));
        orbs3_http_close_request_and_connection(r);
        return ORBS3_HTTP_CLOSED;
    }
    if (rc != 0)
        return reply_body_failure(r, rc);
    ipd_log(LOG_INFO, "PUT %.*s: body of %lld bytes, md5 %s", static_cast<int>(r->uri.len), r->uri.data,
            static_cast<long long>(file->size), file->etag);
    return reply_not_implemented(r);
}

int document_pass(orbs3_http_request_t* r)
{
    int rc = orbs3_http_recv_request_body(r->connection->read);
    if (rc == ORBS3_HTTP_CLOSED)
        return rc;
    if (rc == -2) {
        if (orbs3_http_wait_read(r->connection, document_again) != 0) {
            orbs3_http_close_request_and_connection(r);
            return ORBS3_HTTP_CLOSED;
        }
        return -2;
    }
    if (rc != 0)
        return reply_body_failure(r, rc);
    orbs3_buf_t* doc = r->request_body->buf;
    ipd_debug("document of %zu bytes", static_cast<std::size_t>(doc->last - doc->pos));
    return reply_not_implemented(r);
}

// A later read event of a body: the pass goes on, and the request ends here once it is answered.
void resume(orbs3_event_t* ev, int (*pass)(orbs3_http_request_t*))
{
    orbs3_http_request_t* r = orbs3_http_read_event_request(ev, "the body");
    if (r == nullptr)
        return;
    int rc = pass(r);
    if (rc == -2 || rc == ORBS3_HTTP_CLOSED)
        return;
    if (rc < 0) {
        orbs3_http_close_request_and_connection(r);
        return;
    }
    (void)orbs3_http_destory_thread_handler(ev);
}

void put_again(orbs3_event_t* ev)
{
    resume(ev, put_pass);
}

void document_again(orbs3_event_t* ev)
{
    resume(ev, document_pass);
}

}  // namespace

int orbs3_http_classify_unimplemented(orbs3_http_request_t* r)
{
    for (const method_action& m : kActions) {
        if (r->method == m.method) {
            r->req_msg.action.data = const_cast<char*>(m.action);
            r->req_msg.action.len = std::char_traits<char>::length(m.action);
            break;
        }
    }
    return 0;
}

int orbs3_http_answer_not_implemented(orbs3_http_request_t* r)
{
    if (!orbs3_http_has_body(r))
        return reply_not_implemented(r);
    if (r->method != ORBS3_HTTP_PUT)
        return document_pass(r);
    auto* file = pool_new<orbs3_upload_file_t>(r->pool);
    if (file == nullptr || neo_md5_init(&file->md5) != 0)
        return reply_body_failure(r, -1);
    file->fd = -1;
    std::snprintf(file->path, sizeof file->path, "%s", "/dev/null");
    r->file = file;
    return put_pass(r);
}
