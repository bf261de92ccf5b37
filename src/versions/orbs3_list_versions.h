// The listings of old contents as requests: S3's ListObjectVersions (GET ?versions) and the flat listings
// of one directory of the version tree (GET ?bucketobjver) and of the recycle tree (GET ?recycle on a
// bucket). All three read what a listing of the bucket's objects reads, so they run its access check.
#pragma once

#include "http/orbs3_http_request.h"

// ListObjectVersions: prefix, delimiter, key-marker, version-id-marker, max-keys, encoding-type=url.
int orbs3_list_object_versions(orbs3_http_request_t* r);

// One directory of the version tree: `prefix` names a directory below the tree's root (the key check
// refuses one that climbs out), the start token is continuation-token, else start-after, else marker (the
// reply then takes the marker form), at most 1000 entries whatever max-keys says. Sizes from the files.
int orbs3_get_bucket_object_version(orbs3_http_request_t* r);

// The same over the recycle tree, every size 0.
int orbs3_get_bucket_recycle(orbs3_http_request_t* r);
