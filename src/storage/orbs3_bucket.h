// The in-memory form of a bucket: a private copy of its record file, in a pool of its own. Every request
// works on such a copy and writes the whole record back when it changes anything; the file is the truth.
#pragma once

#include <cstdint>
#include <memory>

#include "memory/neo_list.h"
#include "memory/orbs3_palloc.h"
#include "s3/orbs3_s3_acl.h"


struct orbs3_bucket_versioning_t {
    uint32_t status;   // 1 enabled, 0 suspended
    int32_t save_num;  // how many old versions of a key stay
};

struct orbs3_bucket_stat_t {
    uint64_t storage_in_bytes;
    uint64_t object_count;
    uint64_t multipart_upload_count;  // never changed by the storage engine
};

struct orbs3_bucket_quota_t {
    uint64_t bucketquota;
    uint64_t max_object;
    uint64_t bucket_threshold;
    uint64_t file_threshold;
    uint64_t segment_size;
};

struct orbs3_bucket_t {
    neo_list_head_t link;  // first, so that the record itself is the list element
    orbs3_str_t name;               // "bucketname"
    orbs3_str_t alias;              // "alias"
    orbs3_str_t created_date;       // "created_date", as get_gmt_meta_time writes it
    orbs3_str_t extranet_endpoint;  // "<bucket>.<domain>/" at creation
    orbs3_str_t intranet_endpoint;  // empty at creation
    orbs3_str_t owner_id;           // the owner's UserId
    orbs3_str_t owner_name;         // the owner's DisPlayName; also the owner directory in every tree
    uint32_t acl;                   // ORBS3_ACL_* bits; 1 at creation
    neo_list_head_t lifecycle;      // identifiers of lifecycle rules
    orbs3_bucket_versioning_t versioning;
    neo_list_head_t blacklist;  // orbs3_bucket_rule_t
    uint32_t blacklist_status;
    neo_list_head_t whitelist;
    uint32_t whitelist_status;
    neo_list_head_t authak_list;  // per-user rules
    uint32_t authak_status;
    neo_list_head_t authaddr_list;  // per-address rules
    uint32_t authaddr_status;
    orbs3_bucket_stat_t stat;
    orbs3_bucket_quota_t quota;
    // Paths, filled by orbs3_bucket_init_path, never stored.
    orbs3_str_t data_dir;
    orbs3_str_t meta_file;
    orbs3_str_t meta_dir;
    orbs3_str_t version_dir;
    orbs3_str_t recycle_dir;
    int32_t recycle_days;  // days a recycled object stays
    orbs3_pool_t* pool;    // owns the record and everything that hangs from it
};

// A zeroed record with empty lists at the start of a new pool of `pool_size` bytes; null when memory runs
// out.
[[nodiscard]] orbs3_bucket_t* orbs3_bucket_new(std::size_t pool_size = 4096);
// Destroys the record's pool, and the record with it; null is allowed.
void orbs3_free_bucket(orbs3_bucket_t* bucket);
// The owner of a bucket copy: frees it on every way out of a handler.
struct orbs3_bucket_free {
    void operator()(orbs3_bucket_t* b) const noexcept { orbs3_free_bucket(b); }
};
using orbs3_bucket_ptr = std::unique_ptr<orbs3_bucket_t, orbs3_bucket_free>;
