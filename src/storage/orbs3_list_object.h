// Listing a bucket: a GET or HEAD on a bucket with no sub-resource.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "http/orbs3_http_request.h"
#include "storage/orbs3_list_page.h"

struct cgiFormEntry;

// HEAD answers whether the bucket is there for the requester (the checks of a listing, then 200 and no
// body); GET lists its objects, ListObjects V1 or V2 (list-type=2), with every parameter of S3.
int orbs3_list_object(orbs3_http_request_t* r);

// What a listing asks for, read from the request's query itself: the request's fields keep values of at
// most 1023 bytes (a continuation token for a long key is longer) and fold max-keys=0 and a missing
// list-type into defaults, where S3 gives both a meaning of their own. Views point into the parsed form.
struct orbs3_list_params_t {
    bool v2 = false;       // list-type=2; absent or 1 is V1
    int max_keys = ORBS3_LIST_MAX_KEYS;  // 0 .. ORBS3_LIST_MAX_KEYS: a larger count is the cap
    std::string_view prefix, delimiter;
    std::optional<std::string_view> marker, start_after, continuation;  // as sent, by version
    bool url = false;          // encoding-type=url
    bool fetch_owner = false;  // fetch-owner=true, in any case
};

// The value of the query parameter `key` in `form` (null for none), whole, a decoded %00 included; an
// empty view for a parameter without value, nullopt when it is absent.
[[nodiscard]] std::optional<std::string_view> orbs3_list_param(const cgiFormEntry* form, const char* key);

// Fills `p` from the decoded query `form` (null for none). 0, or ORBS3_S3_INVALID_ARGUMENT with *message
// set for what S3 refuses too: a list-type other than 1 or 2, a max-keys that is not a decimal count, an
// encoding-type other than "url".
[[nodiscard]] int orbs3_list_params_from_query(const cgiFormEntry* form, orbs3_list_params_t* p,
                                               const char** message);

// The continuation token of a V2 page that ends at `entry`: URL-safe base64 without padding, so that it
// passes through a query string whatever the client escapes.
[[nodiscard]] std::string orbs3_list_token_encode(std::string_view entry);
// The entry a token names; false when `token` is not one this server could have made.
[[nodiscard]] bool orbs3_list_token_decode(std::string_view token, std::string* entry);
