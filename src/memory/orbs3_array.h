// Arrays that grow in a pool, and the segmented list: a chain of fixed arrays whose elements never move.
#pragma once

#include <cstddef>
#include <cstdint>

struct orbs3_pool_t;

struct orbs3_array_t {
    void* elts;
    uint64_t nelts;
    uint64_t size;  // of one element
    uint64_t nalloc;
    orbs3_pool_t* pool;
};

// Room for n elements of `size` bytes, cleared. 0, or -1 when the pool is out of memory or n * size
// overflows.
[[nodiscard]] int orbs3_array_init(orbs3_array_t* a, orbs3_pool_t* pool, std::size_t n, std::size_t size);
// The record and its elements from the pool; null on failure.
[[nodiscard]] orbs3_array_t* orbs3_array_create(orbs3_pool_t* pool, std::size_t n, std::size_t size);
// The next element, not cleared; null when the array cannot grow. A full array grows in place when it
// ends at the free space of the pool's first block, else it moves to a block of twice the size: pointers
// to elements do not survive a push.
[[nodiscard]] void* orbs3_array_push(orbs3_array_t* a);

struct orbs3_list_part_t {
    void* elts;
    uint32_t nelts;
    orbs3_list_part_t* next;
};

struct orbs3_list_t {
    orbs3_list_part_t* last;  // the part in use
    orbs3_list_part_t part;   // the first part
    uint32_t size;            // of one element
    uint32_t nalloc;          // elements per part
    orbs3_pool_t* pool;
};

// Parts of n elements of `size` bytes; n and size must be above 0 and fit 32 bits. 0 or -1.
[[nodiscard]] int orbs3_list_init(orbs3_list_t* l, orbs3_pool_t* pool, std::size_t n, std::size_t size);
// The record from the pool, or null.
[[nodiscard]] orbs3_list_t* orbs3_list_create(orbs3_pool_t* pool, std::size_t n, std::size_t size);
// The next element, not cleared; a full last part gets a new part linked behind it. Null when out of
// memory. Elements never move.
[[nodiscard]] void* orbs3_list_push(orbs3_list_t* l);
