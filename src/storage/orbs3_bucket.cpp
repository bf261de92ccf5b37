#include "storage/orbs3_bucket.h"

orbs3_bucket_t* orbs3_bucket_new(std::size_t pool_size)
{
    orbs3_pool_ptr pool(orbs3_create_mem_block(pool_size));
    if (!pool)
        return nullptr;
    auto* b = static_cast<orbs3_bucket_t*>(orbs3_pcalloc(pool.get(), sizeof(orbs3_bucket_t)));
    if (b == nullptr)
        return nullptr;
    for (neo_list_head_t* l : {&b->link, &b->lifecycle, &b->blacklist, &b->whitelist, &b->authak_list,
                               &b->authaddr_list})
        INIT_LIST_HEAD(l);
    b->pool = pool.release();
    return b;
}

void orbs3_free_bucket(orbs3_bucket_t* bucket)
{
    if (bucket != nullptr)
        orbs3_destroy_pool(bucket->pool);
}
