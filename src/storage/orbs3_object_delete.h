// DeleteObject (the bytes go to the recycle tree), DeleteObjects and DeleteObjectVorne (destroyed): the
// requests, over the removal step of orbs3_object_remove.h.
#pragma once

#include "http/orbs3_http_request.h"

// DELETE of an object: 204, whether or not the key existed.
int orbs3_delete_object_msg(orbs3_http_request_t* r);
// POST ?delete with up to 1000 keys: 200 with a DeleteResult document. Each key names one object; a
// directory key ("a/") its directory object, never the keys below it.
int orbs3_delete_objects(orbs3_http_request_t* r);
// DELETE ?vorne: the object destroyed at once, nothing recycled; a directory key with everything below it.
// 204; NoSuchKey for a key that isn't there.
int orbs3_delete_object_vorne(orbs3_http_request_t* r);
