#include "storage/orbs3_list_object.h"

#include "s3/orbs3_s3_dispatch.h"
#include "storage/orbs3_bucket_ops.h"

int orbs3_list_object(orbs3_http_request_t* r)
{
    if (r->method == ORBS3_HTTP_HEAD)
        return orbs3_head_bucket(r);
    // The walk of the meta tree is not built yet.
    return orbs3_s3_not_implemented(r);
}
