// The front end that answers until the S3 layer is built: every request that reaches it is read whole
// and answered with the S3 error NotImplemented. Bodies take the real roads: a PUT's data streams through
// the file road into /dev/null with its MD5 taken (and logged), any other body is read as a document.
// So the HTTP engine serves real clients end to end, and nothing is ever stored.
#pragma once

#include "http/orbs3_http_request.h"

// Request classification: the action is the method, for GET, HEAD, PUT, POST, DELETE and OPTIONS; any
// other method leaves it unset (the engine answers 403). Returns 0.
int orbs3_http_classify_unimplemented(orbs3_http_request_t* r);
// Reads the body, then answers 501 NotImplemented. A document above ORBS3_HTTP_DOCUMENT_MAX is answered
// 400 MaxMessageLengthExceeded without being read, a malformed chunked body 400 IncompleteBody. Returns
// the status sent, -1 when it could not be sent, -2 while the body is still coming, ORBS3_HTTP_CLOSED
// when the request has ended already.
int orbs3_http_answer_not_implemented(orbs3_http_request_t* r);
