// Listing a bucket: a GET or HEAD on a bucket with no sub-resource.
#pragma once

#include "http/orbs3_http_request.h"

// HEAD answers whether the bucket is there for the requester (the checks of a listing, then 200 and no
// body); GET lists its objects.
int orbs3_list_object(orbs3_http_request_t* r);
