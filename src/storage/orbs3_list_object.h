// Listing a bucket: a GET or HEAD on a bucket with no sub-resource.
#pragma once

#include <string>
#include <string_view>

#include "http/orbs3_http_request.h"

// HEAD answers whether the bucket is there for the requester (the checks of a listing, then 200 and no
// body); GET lists its objects, ListObjects V1 or V2 (list-type=2), with every parameter of S3.
int orbs3_list_object(orbs3_http_request_t* r);

// The continuation token of a V2 page that ends at `entry`: URL-safe base64 without padding, so that it
// passes through a query string whatever the client escapes.
[[nodiscard]] std::string orbs3_list_token_encode(std::string_view entry);
// The entry a token names; false when `token` is not one this server could have made.
[[nodiscard]] bool orbs3_list_token_decode(std::string_view token, std::string* entry);
