// The slab pool of a shared-memory zone: the zone is cut into 4096-byte pages, and a page serves either
// chunks of one size class (8 to 2048 bytes) or a run of whole pages for a larger request. All bookkeeping
// lives inside the zone, behind the pool record at its start, so the pool works the same in every process
// that shares the mapping and no pointer leaves the zone.
//
// Layout of a zone: the pool record, nine slot heads, nine slot statistics, one page descriptor per usable
// page, then, aligned to a page, the pages.
#pragma once

#include <cstddef>
#include <cstdint>

#include "memory/orbs3_shmtx.h"

// Fixed at compile time, so nothing can use them before the first pool is set up.
inline constexpr uint64_t orbs3_pagesize = 4096;
inline constexpr uint64_t orbs3_pagesize_shift = 12;
inline constexpr uint64_t orbs3_slab_max_size = 2048;   // above this a request takes whole pages
inline constexpr uint64_t orbs3_slab_exact_size = 128;  // its bitmap fills the 32 low bits of `slab`
inline constexpr uint64_t orbs3_slab_exact_shift = 7;
inline constexpr uint64_t ORBS3_SLAB_MIN_SHIFT = 3;     // the smallest chunk has 8 bytes
inline constexpr uint64_t ORBS3_SLAB_SLOTS = 9;         // chunks of 8, 16, ..., 2048 bytes

// Page types, in the two low bits of a descriptor's `prev`.
inline constexpr uintptr_t ORBS3_SLAB_PAGE = 0;   // a free run, or whole pages
inline constexpr uintptr_t ORBS3_SLAB_BIG = 1;    // chunks above 128 bytes
inline constexpr uintptr_t ORBS3_SLAB_EXACT = 2;  // chunks of 128 bytes
inline constexpr uintptr_t ORBS3_SLAB_SMALL = 3;  // chunks below 128 bytes
inline constexpr uintptr_t ORBS3_SLAB_PAGE_MASK = 3;

inline constexpr uint64_t ORBS3_SLAB_PAGE_START = 0x80000000;  // first page of a whole-page allocation
inline constexpr uint64_t ORBS3_SLAB_PAGE_BUSY = 0xffffffff;   // its other pages
inline constexpr uint8_t ORBS3_SLAB_JUNK = 0xA5;               // fills free memory

struct orbs3_slab_page_t {
    uint64_t slab;             // meaning depends on the page's type
    orbs3_slab_page_t* next;   // null for a page that is out of every list
    uintptr_t prev;            // previous descriptor, with the page's type in the two low bits
};
static_assert(sizeof(orbs3_slab_page_t) == 24);

struct orbs3_slab_stat_t {
    uint64_t total;  // chunks in pages of this slot
    uint64_t used;
    uint64_t reqs;
    uint64_t fails;
};
static_assert(sizeof(orbs3_slab_stat_t) == 32);

struct orbs3_slab_pool_t {
    uint64_t lock_word;  // `lock` of `mutex`
    uint64_t wait_word;  // `wait` of `mutex`
    uint64_t min_size;
    uint64_t min_shift;
    orbs3_slab_page_t* pages;  // one descriptor per usable page
    orbs3_slab_page_t* last;   // end of `pages`
    orbs3_slab_page_t free;    // head of the list of free page runs
    orbs3_slab_stat_t* stats;  // one per slot
    uint64_t pfree;            // free pages
    uint8_t* start;            // first usable page
    uint8_t* end;              // end of the zone
    orbs3_shmtx_t mutex;
    char* log_ctx;  // appended to every trace; printed only if it lies in the zone
    char zero;
    unsigned log_nomem : 1;
    void* data;  // the root of what the zone's user keeps in it
    void* addr;  // the zone's start
};

// The nine slot heads behind the pool record.
inline orbs3_slab_page_t* orbs3_slab_slots(orbs3_slab_pool_t* pool)
{
    return reinterpret_cast<orbs3_slab_page_t*>(reinterpret_cast<uint8_t*>(pool) + sizeof(orbs3_slab_pool_t));
}

// Places the pool at `addr`, a zone of `size` bytes aligned to 8, with its mutex on the pool's first two
// words. -1 if the zone can't hold a single page.
[[nodiscard]] int orbs3_init_zone_pool(void* addr, orbs3_slab_pool_t** pool, uint64_t size);
// Lays out slots, statistics, descriptors and pages between the pool record and `end`.
void orbs3_slab_init(orbs3_slab_pool_t* pool);

// Under `mutex`. orbs3_slab_alloc clears the memory too, as orbs3_slab_calloc does.
[[nodiscard]] void* orbs3_slab_alloc(orbs3_slab_pool_t* pool, std::size_t size);
[[nodiscard]] void* orbs3_slab_calloc(orbs3_slab_pool_t* pool, std::size_t size);
void orbs3_slab_free(orbs3_slab_pool_t* pool, void* p);

// For callers who hold `mutex`. orbs3_slab_alloc_locked leaves freed memory's 0xA5 fill in place.
[[nodiscard]] void* orbs3_slab_alloc_locked(orbs3_slab_pool_t* pool, std::size_t size);
[[nodiscard]] void* orbs3_slab_calloc_locked(orbs3_slab_pool_t* pool, std::size_t size);
// A pointer that is not a live allocation of this pool is refused with a trace and changes nothing.
void orbs3_slab_free_locked(orbs3_slab_pool_t* pool, void* p);

// A run of `pages` whole pages, its first descriptor marked with the count; null if no run is long enough.
[[nodiscard]] orbs3_slab_page_t* orbs3_slab_alloc_pages(orbs3_slab_pool_t* pool, uint64_t pages);
// Gives back a run, merging it with free runs right behind and in front of it.
void orbs3_slab_free_pages(orbs3_slab_pool_t* pool, orbs3_slab_page_t* page, uint64_t pages);
