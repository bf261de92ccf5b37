// Region pools, counted strings, buffers and chains.
//
// A pool owns everything it hands out: orbs3_destroy_pool frees every block and large allocation, after
// running the cleanups in reverse order of registration. Allocation from a pool is a bounds test and a
// pointer move. With ORBS3_POOL_DEBUG (the sanitizer build) every allocation is its own heap block, so
// AddressSanitizer sees an overrun of one object into the next.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <memory_resource>
#include <new>
#include <string_view>
#include <type_traits>
#include <utility>

#ifndef ORBS3_POOL_DEBUG
#define ORBS3_POOL_DEBUG 0
#endif

inline constexpr bool orbs3_pool_debug = ORBS3_POOL_DEBUG != 0;
inline constexpr std::size_t ORBS3_POOL_ALIGNMENT = 16;  // blocks
inline constexpr std::size_t ORBS3_ALIGNMENT = 8;        // orbs3_palloc results
inline constexpr std::size_t ORBS3_POOL_HEAD = 64;       // first block: allocations start here
inline constexpr std::size_t ORBS3_POOL_BLOCK_HEAD = 32; // later blocks

// ---- system allocator wrappers ----
void* orbs3_alloc(std::size_t size);
void* orbs3_calloc(std::size_t size);
void* orbs3_realloc(void* p, std::size_t size);  // a null pointer gives null
void* orbs3_memalign(std::size_t alignment, std::size_t size);
void __free__(void* p);

// ---- pools ----
using orbs3_pool_cleanup_pt = void (*)(void* data);

struct orbs3_pool_cleanup_t {
    orbs3_pool_cleanup_pt handler;
    void* data;
    orbs3_pool_cleanup_t* next;
};

struct orbs3_pool_large_t {
    orbs3_pool_large_t* next;
    void* alloc;  // null once given back with orbs3_pfree
};

struct orbs3_pool_t {
    // The first four fields start every block.
    uint8_t* last;
    uint8_t* end;
    orbs3_pool_t* next;
    uint64_t failed;
    // The rest exists only in the first block.
    uint64_t max;
    orbs3_pool_t* current;
    orbs3_pool_large_t* large;
    orbs3_pool_cleanup_t* cleanup;
};
static_assert(sizeof(orbs3_pool_t) == ORBS3_POOL_HEAD);

[[nodiscard]] orbs3_pool_t* orbs3_create_mem_block(std::size_t size);
void orbs3_destroy_pool(orbs3_pool_t* pool);
orbs3_pool_t* orbs3_reset_pool(orbs3_pool_t* pool);

[[nodiscard]] void* orbs3_palloc(orbs3_pool_t* pool, std::size_t size);   // aligned to 8
[[nodiscard]] void* orbs3_pnalloc(orbs3_pool_t* pool, std::size_t size);  // unaligned, for text
[[nodiscard]] void* orbs3_pcalloc(orbs3_pool_t* pool, std::size_t size);
[[nodiscard]] void* orbs3_pmemalign(orbs3_pool_t* pool, std::size_t size, std::size_t alignment);
// 0, or -5 when p is not a large allocation of this pool.
int orbs3_pfree(orbs3_pool_t* pool, void* p);

// A cleanup record at the head of the list, handler null; data of `size` bytes from the pool if size > 0.
[[nodiscard]] orbs3_pool_cleanup_t* orbs3_pool_cleanup_add(orbs3_pool_t* pool, std::size_t size);

// A descriptor the pool closes: register with orbs3_pool_cleanup_add(pool, sizeof(orbs3_pool_cleanup_file_t)),
// handler orbs3_pool_cleanup_file. Close it early only through orbs3_pool_run_cleanup_file, which clears
// the handler, so the descriptor is never closed twice.
struct orbs3_pool_cleanup_file_t {
    int fd;
    const char* name;
};
void orbs3_pool_cleanup_file(void* data);
orbs3_pool_cleanup_t* orbs3_pool_run_cleanup_file(orbs3_pool_t* pool, int fd);

// Owner of a pool: destroys it on every path.
struct orbs3_pool_deleter {
    void operator()(orbs3_pool_t* p) const noexcept { orbs3_destroy_pool(p); }
};
using orbs3_pool_ptr = std::unique_ptr<orbs3_pool_t, orbs3_pool_deleter>;

// Constructs a T in the pool; its destructor runs when the pool is destroyed (for trivially
// destructible T nothing is registered). Null when the pool is out of memory.
template <typename T, typename... Args>
[[nodiscard]] T* pool_new(orbs3_pool_t* pool, Args&&... args)
{
    void* mem = (alignof(T) <= ORBS3_ALIGNMENT) ? orbs3_palloc(pool, sizeof(T))
                                                : orbs3_pmemalign(pool, sizeof(T), alignof(T));
    if (mem == nullptr)
        return nullptr;
    if constexpr (!std::is_trivially_destructible_v<T>) {
        orbs3_pool_cleanup_t* c = orbs3_pool_cleanup_add(pool, 0);
        if (c == nullptr)
            return nullptr;
        T* obj = ::new (mem) T(std::forward<Args>(args)...);
        c->data = obj;
        c->handler = [](void* d) { static_cast<T*>(d)->~T(); };
        return obj;
    } else {
        return ::new (mem) T(std::forward<Args>(args)...);
    }
}

// std::pmr containers whose memory lives in a pool. Deallocation is a no-op: the pool frees all at once.
class orbs3_pool_resource final : public std::pmr::memory_resource {
public:
    explicit orbs3_pool_resource(orbs3_pool_t* pool) noexcept : pool_(pool) {}
    orbs3_pool_t* pool() const noexcept { return pool_; }

private:
    void* do_allocate(std::size_t bytes, std::size_t align) override;
    void do_deallocate(void*, std::size_t, std::size_t) noexcept override {}
    bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override
    {
        auto* o = dynamic_cast<const orbs3_pool_resource*>(&other);
        return o != nullptr && o->pool_ == pool_;
    }
    orbs3_pool_t* pool_;
};

// ---- counted strings ----
struct orbs3_str_t {
    uint64_t len;
    char* data;
};

// data becomes a new zeroed calloc block with at most `max` bytes of text and a terminating zero behind
// them; an earlier data is not freed (neo_strfree does that). Nothing happens for a null record or text.
void neo_strdup(orbs3_str_t* str, const char* text, std::size_t max);
void neo_strfree(orbs3_str_t* str);
// The text, or "" for a null record or an empty one; never null.
const char* neo_getstr(const orbs3_str_t* str);
// The text as a view; empty for a record that holds none.
inline std::string_view orbs3_str_view(const orbs3_str_t& s)
{
    return s.data == nullptr ? std::string_view() : std::string_view(s.data, s.len);
}
// str becomes a NUL-terminated copy of `len` bytes of `text` in the pool; 0, or -1 (str unchanged) when
// the pool is out of memory.
[[nodiscard]] int orbs3_pstr_set(orbs3_pool_t* pool, orbs3_str_t* str, const char* text, std::size_t len);

// ---- buffers and chains ----
struct orbs3_buf_t {
    uint8_t* pos;    // first byte not yet used
    uint8_t* last;   // end of the content
    int64_t file_pos;   // left at zero by this system's chains
    int64_t file_last;  // left at zero by this system's chains
    uint8_t* start;  // bounds of the memory
    uint8_t* end;
};

struct orbs3_chain_t {
    orbs3_buf_t* buf;
    orbs3_chain_t* next;
};

// A buffer of `size` bytes from the pool, not cleared; pos and last at its start. Null on failure.
[[nodiscard]] orbs3_buf_t* orbs3_create_temp_buf(orbs3_pool_t* pool, std::size_t size);
// One link, one buffer and `size` bytes of cleared memory from the pool.
[[nodiscard]] orbs3_chain_t* orbs3_new_chain_size(orbs3_pool_t* pool, std::size_t size);
// The same with the configured receive buffer size.
[[nodiscard]] orbs3_chain_t* orbs3_new_chain(orbs3_pool_t* pool);
