// The bucket settings of old contents: whether a bucket keeps versions and how many of a key
// (PutBucketVersioning, GetBucketVersioning), and how many days the recycle bin keeps what was deleted
// (PutBucketRecycleConf, GetBucketRecycleConf). Each handler checks the name, finds the bucket and runs the
// access chain (the version permission for versioning, the recycle permission for the recycle bin), then
// reads or changes the bucket record; it gives 0 once its reply went out, or an S3 status code with
// r->resp.resource filled.
#pragma once

#include "http/orbs3_http_request.h"

// A PUT with an empty body is MissingRequestBodyError; a body the parser refuses (see
// parse_bucket_versioning_xmlstring) MalformedXML. Suspending keeps every existing version where it lies;
// enabling makes the bucket's version directory first, so that a record never says "enabled" for a bucket
// without one.
int orbs3_put_bucket_versioning(orbs3_http_request_t* r);
int orbs3_get_bucket_versioning(orbs3_http_request_t* r);
int orbs3_put_bucket_recycle_conf(orbs3_http_request_t* r);
int orbs3_get_bucket_recycle_conf(orbs3_http_request_t* r);
