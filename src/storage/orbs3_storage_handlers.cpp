#include "storage/orbs3_storage_handlers.h"

#include <string_view>

#include "s3/orbs3_s3_dispatch.h"
#include "storage/orbs3_bucket_ops.h"
#include "storage/orbs3_list_object.h"
#include "storage/orbs3_multipart.h"
#include "storage/orbs3_object.h"
#include "storage/orbs3_object_acl.h"
#include "storage/orbs3_object_copy.h"
#include "storage/orbs3_object_delete.h"
#include "storage/orbs3_object_tagging.h"
#include "storage/orbs3_version_handlers.h"
#include "versions/orbs3_version_conf.h"
#include "versions/orbs3_list_versions.h"

int orbs3_storage_install_handlers()
{
    struct row {
        std::string_view action;
        orbs3_s3_handler_pt handler;
    };
    static constexpr row rows[] = {
        {"PutBucket", orbs3_put_bucket},
        {"DeleteBucket", orbs3_del_bucket},
        {"ListBuckets", orbs3_list_buckets},
        {"ListObject", orbs3_list_object},
        {"GetBucketInfo", orbs3_get_bucket_info},
        {"GetBucketStat", orbs3_get_bucket_stat},
        {"PutBucketAcl", orbs3_put_bucket_acl},
        {"GetBucketAcl", orbs3_get_bucket_acl},
        {"PutBucketRename", orbs3_put_bucket_rename},
        {"PutObject", orbs3_put_object},
        {"GetObject", orbs3_get_object},
        {"DeleteObject", orbs3_delete_object_msg},
        {"DeleteObjects", orbs3_delete_objects},
        {"AppendObject", orbs3_append_object},
        {"CopyObject", orbs3_copy_object},
        {"PutObjectAcl", orbs3_put_object_acl},
        {"GetObjectAcl", orbs3_get_object_acl},
        {"PutObjectTagging", orbs3_put_object_tagging},
        {"GetObjectTagging", orbs3_get_object_tagging},
        {"DeleteObjectTagging", orbs3_delete_object_tagging},
        {"DeleteObjectVorne", orbs3_delete_object_vorne},
        {"CreateMultipartUpload", orbs3_create_multipart_upload_object},
        {"CompleteMultipartUpload", orbs3_complete_multipart_upload_object},
        {"AbortMultipartUpload", orbs3_abort_multipart_upload_object},
        {"UploadPart", orbs3_upload_part_object},
        {"ListParts", orbs3_list_parts_object},
        {"ListMultipartUploads", orbs3_list_multipart_uploads},
        {"GetBucketLocation", orbs3_get_bucket_location},
        {"PutObjectVersionRestore", orbs3_object_version_restore_msg},
        {"DeleteObjectVersion", orbs3_object_version_del_msg},
        {"GetObjectVersion", orbs3_object_version_list_msg},
        {"PutBucketRecycle", orbs3_object_recycle_restore_msg},
        {"DeleteBucketRecycle", orbs3_delete_bucket_recycle_msg},
        {"PutBucketVersioning", orbs3_put_bucket_versioning},
        {"GetBucketVersioning", orbs3_get_bucket_versioning},
        {"PutBucketRecycleConf", orbs3_put_bucket_recycle_conf},
        {"GetBucketRecycleConf", orbs3_get_bucket_recycle_conf},
        {"GetBucketVersions", orbs3_list_object_versions},
        {"GetBucketObjVer", orbs3_get_bucket_object_version},
        {"GetBucketRecycle", orbs3_get_bucket_recycle},
    };
    int rc = 0;
    for (const row& r : rows)
        if (orbs3_s3_install_handler(r.action, r.handler) != 0)
            rc = -1;
    return rc;
}
