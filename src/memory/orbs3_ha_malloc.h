// ha_malloc: a bucket allocator for control messages, serialised across processes by a System V
// semaphore taken with SEM_UNDO (a process that dies holding it gives it back).
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr int HA_BUCKETS = 8;
inline constexpr std::size_t ha_bucket_sizes[HA_BUCKETS] = {16, 32, 64, 128, 256, 512, 1024, 2048};
inline constexpr uint32_t HA_MAGIC = 0xfeedbeef;
inline constexpr std::size_t ha_malloc_hdr_offset = 24;

[[nodiscard]] void* ha_malloc(std::size_t size);
[[nodiscard]] void* ha_calloc(std::size_t count, std::size_t size);
void ha_free(void* p);
void ha_malloc_release();

// For tests: the bucket index recorded in the block's header (8 for a block above 2048 bytes), and the
// number of blocks on a bucket's free list.
int ha_block_bucket(const void* p);
std::size_t ha_free_count(int bucket);
