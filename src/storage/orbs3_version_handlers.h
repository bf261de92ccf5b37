// The requests on old contents named by a stamped key "<key>..<suffix>": restore a version
// (PUT ?objectversion), send a version to the recycle tree (DELETE ?objectversion), tell of the live object
// (GET ?objectversion), restore a recycled content (PUT ?recycle) and remove one for good
// (DELETE ?recycle). Each runs the access chain as its plain S3 counterpart does: read to tell, write to
// restore or move a version, delete to remove.
#pragma once

#include "http/orbs3_http_request.h"

int orbs3_object_version_restore_msg(orbs3_http_request_t* r);
int orbs3_object_version_del_msg(orbs3_http_request_t* r);
int orbs3_object_version_list_msg(orbs3_http_request_t* r);
int orbs3_object_recycle_restore_msg(orbs3_http_request_t* r);
int orbs3_delete_bucket_recycle_msg(orbs3_http_request_t* r);
