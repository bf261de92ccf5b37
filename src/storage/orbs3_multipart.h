// Multipart upload, the handlers: each takes the request, checks access, calls the engine
// (orbs3_multipart_engine.h, which tells what an upload is on disk, and why) and replies through the S3
// documents.
#pragma once

#include "http/orbs3_http_request.h"
#include "storage/orbs3_multipart_engine.h"

// The handlers.
int orbs3_create_multipart_upload_object(orbs3_http_request_t* r);
int orbs3_upload_part_object(orbs3_http_request_t* r);
int orbs3_list_parts_object(orbs3_http_request_t* r);
int orbs3_complete_multipart_upload_object(orbs3_http_request_t* r);
int orbs3_abort_multipart_upload_object(orbs3_http_request_t* r);
int orbs3_list_multipart_uploads(orbs3_http_request_t* r);
