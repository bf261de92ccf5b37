// Static hash of names (the known request headers), built once before the workers start and read-only
// after. Names are stored lower-cased, so a lookup must give the lower-case name and its hash.
#pragma once

#include <cstddef>
#include <cstdint>

#include "memory/orbs3_palloc.h"

// A bucket is a row of packed elements ended by a null value. An element is the value pointer, a
// 16-bit length and the lower-cased name, padded to 8 bytes; elements start on 8-byte boundaries and
// each bucket on a 64-byte one.
struct orbs3_hash_elt_t;

struct orbs3_hash_t {
    orbs3_hash_elt_t** buckets;  // null for a bucket that holds nothing
    uint64_t size;
};

struct orbs3_hash_key_t {
    orbs3_str_t key;  // entries with a null key.data are left out
    uint64_t key_hash;
    void* value;
};

struct orbs3_hash_init_t {
    orbs3_hash_t* hash;  // null: the table is made in the pool, behind a three-word header
    uint64_t max_size;
    uint64_t bucket_size;
    orbs3_pool_t* pool;
    const char* name;    // for log lines; may be null
};

// Builds the table from `count` entries: the smallest bucket count from which no bucket exceeds
// bucket_size, up to max_size. 0, or -1 when max_size is 0, an entry does not fit a bucket, or the
// pool is out of memory.
[[nodiscard]] int orbs3_hash_init(orbs3_hash_init_t* hinit, const orbs3_hash_key_t* names, std::size_t count);

// The value stored under the name, or null. Length and bytes must match exactly.
[[nodiscard]] void* orbs3_hash_find(const orbs3_hash_t* hash, uint64_t key, const uint8_t* name, std::size_t len);
[[nodiscard]] inline void* orbs3_hash_find(const orbs3_hash_t* hash, uint64_t key, const char* name,
                                           std::size_t len)
{
    return orbs3_hash_find(hash, key, reinterpret_cast<const uint8_t*>(name), len);
}

// One step of the name hash, as the header parser runs it byte by byte.
constexpr uint64_t orbs3_hash(uint64_t key, uint8_t c)
{
    return key * 31 + c;
}

// k = k * 31 + byte from 0; the _lc form on lower-cased ASCII bytes.
[[nodiscard]] uint64_t orbs3_hash_key(const uint8_t* data, std::size_t len);
[[nodiscard]] uint64_t orbs3_hash_key_lc(const uint8_t* data, std::size_t len);
// Copies the lower-cased bytes to dst and gives the hash orbs3_hash_key_lc gives.
uint64_t orbs3_hash_strlow(uint8_t* dst, const uint8_t* src, std::size_t len);

[[nodiscard]] inline uint64_t orbs3_hash_key(const char* data, std::size_t len)
{
    return orbs3_hash_key(reinterpret_cast<const uint8_t*>(data), len);
}
[[nodiscard]] inline uint64_t orbs3_hash_key_lc(const char* data, std::size_t len)
{
    return orbs3_hash_key_lc(reinterpret_cast<const uint8_t*>(data), len);
}
inline uint64_t orbs3_hash_strlow(char* dst, const char* src, std::size_t len)
{
    return orbs3_hash_strlow(reinterpret_cast<uint8_t*>(dst), reinterpret_cast<const uint8_t*>(src), len);
}
