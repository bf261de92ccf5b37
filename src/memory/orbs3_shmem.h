// Anonymous shared mappings: memory that a process maps before it forks and that its children then share
// at the same address, so pointers stored inside stay valid in every process.
#pragma once

#include <cstddef>
#include <cstdint>

struct orbs3_shm_t {
    uint8_t* addr;
    uint64_t size;
};

// A zone as its user sees it: the record lives in a small shared mapping of its own, so a child that
// inherits the record's address also sees what the user stores in `data`.
struct orbs3_shm_zone_t {
    orbs3_shm_t self;  // this record's own mapping
    orbs3_shm_t shm;   // the zone
    void* data;        // the zone's user's root, e.g. the slab pool at the zone's start
};
static_assert(sizeof(orbs3_shm_zone_t) == 40);

// Maps shm->size bytes, read and write, shared and anonymous, into shm->addr. 0, or -1 with addr null.
[[nodiscard]] int orbs3_shm_alloc(orbs3_shm_t* shm);
// Unmaps and clears the record; a record with a null address is left alone.
void orbs3_shm_free(orbs3_shm_t* shm);

// Maps the zone record, then a zone of `size` bytes whose address and size it holds. 0, or -1 with
// *zone null and nothing left mapped.
[[nodiscard]] int orbs3_http_create_shm_zone(orbs3_shm_zone_t** zone, uint64_t size);
// Unmaps the zone, then its record. The caller destroys what lives in the zone (such as a pool's mutex)
// first.
void orbs3_http_free_shm_zone(orbs3_shm_zone_t* zone);
