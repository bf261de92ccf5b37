// The ACL of an object, of one of its versions or of a directory object: read from and written into the
// record of that content, as the mask of s3/orbs3_s3_acl.h.
#pragma once

#include "http/orbs3_http_request.h"

// GET ?acl[&versionId=]: the AccessControlPolicy naming the object's owner.
int orbs3_get_object_acl(orbs3_http_request_t* r);
// PUT ?acl[&versionId=]: the ACL from x-amz-acl / x-amz-grant-* or from an AccessControlPolicy body.
int orbs3_put_object_acl(orbs3_http_request_t* r);
