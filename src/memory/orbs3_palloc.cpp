#include "memory/orbs3_palloc.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "memory/orbs3_assert.h"
#include "core/orbs3_config.h"
#include "core/orbs3_log.h"

// ---- system allocator wrappers ----

void* orbs3_alloc(std::size_t size)
{
    return std::malloc(size);
}

void* orbs3_calloc(std::size_t size)
{
    return std::calloc(1, size);
}

void* orbs3_realloc(void* p, std::size_t size)
{
    // Growing nothing is a caller's fault, not a hidden malloc.
    if (p == nullptr)
        return nullptr;
    return std::realloc(p, size);
}

void* orbs3_memalign(std::size_t alignment, std::size_t size)
{
    // posix_memalign wants a power of two that is a multiple of the pointer size.
    alignment = std::max(alignment, sizeof(void*));
    void* p = nullptr;
    if (posix_memalign(&p, alignment, size) != 0)
        return nullptr;
    return p;
}

void __free__(void* p)
{
    if (p != nullptr)
        std::free(p);
}

// ---- pools ----

namespace {

std::size_t pool_pagesize()
{
    static const std::size_t ps = [] {
        long v = sysconf(_SC_PAGESIZE);
        return v > 0 ? static_cast<std::size_t>(v) : std::size_t{4096};
    }();
    return ps;
}

uint8_t* align_up(uint8_t* p, std::size_t a)
{
    return reinterpret_cast<uint8_t*>((reinterpret_cast<uintptr_t>(p) + (a - 1)) & ~uintptr_t(a - 1));
}

// Debug mode keeps no blocks: the head records every allocation so that destroy and reset can free them.
// last and end stay null, so nothing (an array growing in place, say) ever treats the head as room.
struct pool_debug_t {
    orbs3_pool_t head;
    void** ptrs;
    std::size_t n;
    std::size_t cap;
};

pool_debug_t* debug_of(orbs3_pool_t* pool)
{
    return reinterpret_cast<pool_debug_t*>(pool);
}

[[maybe_unused]] void* debug_alloc(orbs3_pool_t* pool, void* p)
{
    if (p == nullptr)
        return nullptr;
    pool_debug_t* d = debug_of(pool);
    if (d->n == d->cap) {
        std::size_t cap = d->cap ? d->cap * 2 : 64;
        auto* np = static_cast<void**>(std::realloc(d->ptrs, cap * sizeof(void*)));
        if (np == nullptr) {
            std::free(p);
            return nullptr;
        }
        d->ptrs = np;
        d->cap = cap;
    }
    d->ptrs[d->n++] = p;
    return p;
}

[[maybe_unused]] void debug_free_all(orbs3_pool_t* pool)
{
    pool_debug_t* d = debug_of(pool);
    for (std::size_t i = 0; i < d->n; i++)
        std::free(d->ptrs[i]);
    d->n = 0;
}

// A new block of the first block's size, linked at the tail; the request is served from its start.
void* palloc_block(orbs3_pool_t* pool, std::size_t size)
{
    std::size_t psize = static_cast<std::size_t>(pool->end - reinterpret_cast<uint8_t*>(pool));
    ORBS3_ASSERT(ORBS3_POOL_BLOCK_HEAD + size <= psize);  // only requests up to pool->max come here
    auto* m = static_cast<uint8_t*>(orbs3_memalign(ORBS3_POOL_ALIGNMENT, psize));
    if (m == nullptr)
        return nullptr;

    auto* blk = reinterpret_cast<orbs3_pool_t*>(m);
    blk->end = m + psize;
    blk->next = nullptr;
    blk->failed = 0;
    m += ORBS3_POOL_BLOCK_HEAD;
    blk->last = m + size;

    // A block that has refused small requests six times is nearly full: stop searching it.
    orbs3_pool_t* p = pool->current;
    for (; p->next != nullptr; p = p->next) {
        if (p->failed++ > 4)
            pool->current = p->next;
    }
    p->next = blk;
    return m;
}

void* palloc_small(orbs3_pool_t* pool, std::size_t size, bool align)
{
    if constexpr (orbs3_pool_debug) {
        // Exactly the requested size, so ASan flags a single byte of overrun; malloc(0) may give null.
        (void)align;
        return debug_alloc(pool, std::malloc(size ? size : 1));
    }
    for (orbs3_pool_t* p = pool->current; p != nullptr; p = p->next) {
        uint8_t* m = align ? align_up(p->last, ORBS3_ALIGNMENT) : p->last;
        if (m <= p->end && static_cast<std::size_t>(p->end - m) >= size) {
            p->last = m + size;
            return m;
        }
    }
    return palloc_block(pool, size);
}

// Hangs `mem` on the large list, reusing an emptied record among the first five; frees it on failure.
void* large_attach(orbs3_pool_t* pool, void* mem, bool reuse)
{
    if (reuse) {
        int n = 0;
        for (orbs3_pool_large_t* l = pool->large; l != nullptr; l = l->next) {
            if (l->alloc == nullptr) {
                l->alloc = mem;
                return mem;
            }
            if (n++ > 3)
                break;
        }
    }
    auto* l = static_cast<orbs3_pool_large_t*>(palloc_small(pool, sizeof(orbs3_pool_large_t), true));
    if (l == nullptr) {
        std::free(mem);
        return nullptr;
    }
    l->alloc = mem;
    l->next = pool->large;
    pool->large = l;
    return mem;
}

void* palloc_large(orbs3_pool_t* pool, std::size_t size)
{
    void* mem = orbs3_alloc(size);
    if (mem == nullptr)
        return nullptr;
    return large_attach(pool, mem, true);
}

// Cleanups run head first, i.e. newest first, so an object registered later (which may use an earlier
// one) is torn down before it.
// A handler may register further cleanups (a destructor that builds in the pool); those run too.
void run_cleanups(orbs3_pool_t* pool)
{
    while (pool->cleanup != nullptr) {
        orbs3_pool_cleanup_t* c = pool->cleanup;
        pool->cleanup = nullptr;
        for (; c != nullptr; c = c->next) {
            if (c->handler != nullptr) {
                orbs3_pool_cleanup_pt h = c->handler;
                c->handler = nullptr;
                h(c->data);
            }
        }
    }
}

void free_large(orbs3_pool_t* pool)
{
    for (orbs3_pool_large_t* l = pool->large; l != nullptr; l = l->next) {
        if (l->alloc != nullptr) {
            std::free(l->alloc);
            l->alloc = nullptr;
        }
    }
    pool->large = nullptr;
}

}  // namespace

orbs3_pool_t* orbs3_create_mem_block(std::size_t size)
{
    // Below the head there would be no room even for the record of a large allocation in a later block.
    if (size < ORBS3_POOL_HEAD)
        return nullptr;

    orbs3_pool_t* p;
    if constexpr (orbs3_pool_debug) {
        auto* d = static_cast<pool_debug_t*>(std::calloc(1, sizeof(pool_debug_t)));
        if (d == nullptr)
            return nullptr;
        p = &d->head;
        p->last = nullptr;
        p->end = nullptr;
    } else {
        auto* m = static_cast<uint8_t*>(orbs3_memalign(ORBS3_POOL_ALIGNMENT, size));
        if (m == nullptr)
            return nullptr;
        p = reinterpret_cast<orbs3_pool_t*>(m);
        p->last = m + ORBS3_POOL_HEAD;
        p->end = m + size;
    }
    p->next = nullptr;
    p->failed = 0;
    p->max = std::min<std::size_t>(size - ORBS3_POOL_HEAD, pool_pagesize() - 1);
    p->current = p;
    p->large = nullptr;
    p->cleanup = nullptr;
    return p;
}

void orbs3_destroy_pool(orbs3_pool_t* pool)
{
    if (pool == nullptr)
        return;
    run_cleanups(pool);
    free_large(pool);
    if constexpr (orbs3_pool_debug) {
        debug_free_all(pool);
        std::free(debug_of(pool)->ptrs);
        std::free(debug_of(pool));
        return;
    }
    orbs3_pool_t* p = pool;
    while (p != nullptr) {
        orbs3_pool_t* n = p->next;
        std::free(p);
        p = n;
    }
}

// Reset, like destroy, runs and drops the cleanups: memory handed out before the reset is gone, so no
// object living in it may outlast it.
orbs3_pool_t* orbs3_reset_pool(orbs3_pool_t* pool)
{
    if (pool == nullptr)
        return nullptr;
    run_cleanups(pool);
    free_large(pool);
    if constexpr (orbs3_pool_debug) {
        debug_free_all(pool);
    } else {
        for (orbs3_pool_t* p = pool; p != nullptr; p = p->next) {
            p->last = reinterpret_cast<uint8_t*>(p) + ORBS3_POOL_HEAD;
            p->failed = 0;
        }
    }
    pool->current = pool;
    return pool;
}

void* orbs3_palloc(orbs3_pool_t* pool, std::size_t size)
{
    if (size <= pool->max)
        return palloc_small(pool, size, true);
    return palloc_large(pool, size);
}

void* orbs3_pnalloc(orbs3_pool_t* pool, std::size_t size)
{
    if (size <= pool->max)
        return palloc_small(pool, size, false);
    return palloc_large(pool, size);
}

void* orbs3_pcalloc(orbs3_pool_t* pool, std::size_t size)
{
    void* p = orbs3_palloc(pool, size);
    if (p != nullptr)
        std::memset(p, 0, size);
    return p;
}

void* orbs3_pmemalign(orbs3_pool_t* pool, std::size_t size, std::size_t alignment)
{
    void* mem = orbs3_memalign(alignment, size ? size : 1);
    if (mem == nullptr)
        return nullptr;
    return large_attach(pool, mem, false);
}

int orbs3_pfree(orbs3_pool_t* pool, void* p)
{
    for (orbs3_pool_large_t* l = pool->large; l != nullptr; l = l->next) {
        if (p == l->alloc) {
            std::free(l->alloc);
            l->alloc = nullptr;
            return 0;
        }
    }
    return -5;
}

orbs3_pool_cleanup_t* orbs3_pool_cleanup_add(orbs3_pool_t* pool, std::size_t size)
{
    auto* c = static_cast<orbs3_pool_cleanup_t*>(orbs3_palloc(pool, sizeof(orbs3_pool_cleanup_t)));
    if (c == nullptr)
        return nullptr;
    c->data = nullptr;
    if (size != 0) {
        c->data = orbs3_palloc(pool, size);
        if (c->data == nullptr)
            return nullptr;
    }
    c->handler = nullptr;
    c->next = pool->cleanup;
    pool->cleanup = c;
    return c;
}

void orbs3_pool_cleanup_file(void* data)
{
    auto* f = static_cast<orbs3_pool_cleanup_file_t*>(data);
    if (close(f->fd) == -1)
        ipd_log(LOG_ALERT, "close file \"%s\" failed", f->name ? f->name : "");
}

orbs3_pool_cleanup_t* orbs3_pool_run_cleanup_file(orbs3_pool_t* pool, int fd)
{
    for (orbs3_pool_cleanup_t* c = pool->cleanup; c != nullptr; c = c->next) {
        if (c->handler == orbs3_pool_cleanup_file &&
            static_cast<orbs3_pool_cleanup_file_t*>(c->data)->fd == fd) {
            c->handler(c->data);
            c->handler = nullptr;
            return c;
        }
    }
    return nullptr;
}

// The memory_resource contract has no null result: an exhausted pool can only throw here.
void* orbs3_pool_resource::do_allocate(std::size_t bytes, std::size_t align)
{
    void* p = (align <= ORBS3_ALIGNMENT) ? orbs3_palloc(pool_, bytes) : orbs3_pmemalign(pool_, bytes, align);
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}

// ---- counted strings ----

void neo_strdup(orbs3_str_t* str, const char* text, std::size_t max)
{
    if (str == nullptr || text == nullptr)
        return;
    std::size_t len = strnlen(text, max);
    auto* d = static_cast<char*>(std::calloc(1, len + 1));
    if (d == nullptr) {
        str->len = 0;
        str->data = nullptr;
        return;
    }
    std::memcpy(d, text, len);
    str->len = len;
    str->data = d;
}

void neo_strfree(orbs3_str_t* str)
{
    if (str == nullptr)
        return;
    __free__(str->data);
    str->data = nullptr;
    str->len = 0;
}

const char* neo_getstr(const orbs3_str_t* str)
{
    if (str == nullptr || str->len == 0 || str->data == nullptr)
        return "";
    return str->data;
}

// ---- buffers and chains ----

orbs3_buf_t* orbs3_create_temp_buf(orbs3_pool_t* pool, std::size_t size)
{
    auto* b = static_cast<orbs3_buf_t*>(orbs3_pcalloc(pool, sizeof(orbs3_buf_t)));
    if (b == nullptr)
        return nullptr;
    auto* mem = static_cast<uint8_t*>(orbs3_pnalloc(pool, size != 0 ? size : 1));
    if (mem == nullptr)
        return nullptr;
    b->start = b->pos = b->last = mem;
    b->end = mem + size;
    return b;
}

orbs3_chain_t* orbs3_new_chain_size(orbs3_pool_t* pool, std::size_t size)
{
    auto* cl = static_cast<orbs3_chain_t*>(orbs3_pcalloc(pool, sizeof(orbs3_chain_t)));
    if (cl == nullptr)
        return nullptr;
    auto* b = static_cast<orbs3_buf_t*>(orbs3_pcalloc(pool, sizeof(orbs3_buf_t)));
    if (b == nullptr)
        return nullptr;
    auto* mem = static_cast<uint8_t*>(orbs3_pcalloc(pool, size));
    if (mem == nullptr)
        return nullptr;
    b->pos = mem;
    b->last = mem;
    b->start = mem;
    b->end = mem + size;
    cl->buf = b;
    cl->next = nullptr;
    return cl;
}

orbs3_chain_t* orbs3_new_chain(orbs3_pool_t* pool)
{
    return orbs3_new_chain_size(pool, sysconfig.recv_buffer);
}

int orbs3_pstr_set(orbs3_pool_t* pool, orbs3_str_t* str, const char* text, std::size_t len)
{
    auto* d = static_cast<char*>(orbs3_pnalloc(pool, len + 1));
    if (d == nullptr)
        return -1;
    if (len != 0)
        std::memcpy(d, text, len);
    d[len] = '\0';
    str->len = len;
    str->data = d;
    return 0;
}
