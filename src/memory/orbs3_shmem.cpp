#include "memory/orbs3_shmem.h"

#include <sys/mman.h>

#include "core/orbs3_log.h"

int orbs3_shm_alloc(orbs3_shm_t* shm)
{
    if (shm == nullptr)
        return -1;
    if (shm->size == 0) {
        shm->addr = nullptr;
        return -1;
    }
    void* p = mmap(nullptr, shm->size, PROT_READ | PROT_WRITE, MAP_ANONYMOUS | MAP_SHARED, -1, 0);
    if (p == MAP_FAILED) {
        ipd_debug("mmap(MAP_ANON|MAP_SHARED, %zu) failed", static_cast<std::size_t>(shm->size));
        shm->addr = nullptr;
        return -1;
    }
    shm->addr = static_cast<uint8_t*>(p);
    return 0;
}

void orbs3_shm_free(orbs3_shm_t* shm)
{
    if (shm == nullptr || shm->addr == nullptr)
        return;
    if (munmap(shm->addr, shm->size) == -1)
        ipd_debug("munmap(%p, %zu) failed", static_cast<void*>(shm->addr), static_cast<std::size_t>(shm->size));
    shm->addr = nullptr;
    shm->size = 0;
}

int orbs3_http_create_shm_zone(orbs3_shm_zone_t** zone, uint64_t size)
{
    if (zone == nullptr)
        return -1;
    *zone = nullptr;

    orbs3_shm_t rec{nullptr, sizeof(orbs3_shm_zone_t)};
    if (orbs3_shm_alloc(&rec) == -1)
        return -1;

    auto* z = reinterpret_cast<orbs3_shm_zone_t*>(rec.addr);
    z->self = rec;
    z->shm.addr = nullptr;
    z->shm.size = size;
    z->data = nullptr;
    if (orbs3_shm_alloc(&z->shm) == -1) {
        orbs3_shm_free(&rec);
        return -1;
    }
    *zone = z;
    return 0;
}

void orbs3_http_free_shm_zone(orbs3_shm_zone_t* zone)
{
    if (zone == nullptr)
        return;
    orbs3_shm_free(&zone->shm);
    // The record holds its own mapping: copy it out before the unmap takes the record away.
    orbs3_shm_t self = zone->self;
    orbs3_shm_free(&self);
}
