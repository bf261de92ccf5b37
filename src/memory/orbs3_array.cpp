#include "memory/orbs3_array.h"

#include <cstring>

#include "memory/orbs3_assert.h"
#include "memory/orbs3_palloc.h"

namespace {

// n * size into *out; false when it does not fit a size_t.
bool mul_size(std::size_t n, std::size_t size, std::size_t* out)
{
    return !__builtin_mul_overflow(n, size, out);
}

}  // namespace

int orbs3_array_init(orbs3_array_t* a, orbs3_pool_t* pool, std::size_t n, std::size_t size)
{
    std::size_t bytes;
    if (!mul_size(n, size, &bytes))
        return -1;
    void* elts = orbs3_pcalloc(pool, bytes);
    if (elts == nullptr)
        return -1;
    a->elts = elts;
    a->nelts = 0;
    a->size = size;
    a->nalloc = n;
    a->pool = pool;
    return 0;
}

orbs3_array_t* orbs3_array_create(orbs3_pool_t* pool, std::size_t n, std::size_t size)
{
    auto* a = static_cast<orbs3_array_t*>(orbs3_palloc(pool, sizeof(orbs3_array_t)));
    if (a == nullptr)
        return nullptr;
    if (orbs3_array_init(a, pool, n, size) != 0)
        return nullptr;
    return a;
}

void* orbs3_array_push(orbs3_array_t* a)
{
    ORBS3_ASSERT(a->nelts <= a->nalloc);
    if (a->nelts == a->nalloc) {
        // Fits: it was allocated at this size.
        std::size_t bytes = a->size * a->nalloc;
        orbs3_pool_t* p = a->pool;
        auto* tail = static_cast<uint8_t*>(a->elts) + bytes;

        // The last thing taken from the first block: one more element costs only a pointer move.
        if (tail == p->last && static_cast<std::size_t>(p->end - p->last) >= a->size) {
            p->last += a->size;
            a->nalloc++;
        } else {
            std::size_t n = a->nalloc != 0 ? a->nalloc * 2 : 1;
            std::size_t nbytes;
            if (n < a->nalloc || !mul_size(n, a->size, &nbytes))
                return nullptr;
            void* elts = orbs3_palloc(p, nbytes);
            if (elts == nullptr)
                return nullptr;
            if (bytes != 0)
                std::memcpy(elts, a->elts, bytes);
            a->elts = elts;
            a->nalloc = n;
        }
    }
    void* elt = static_cast<uint8_t*>(a->elts) + a->size * a->nelts;
    a->nelts++;
    return elt;
}

int orbs3_list_init(orbs3_list_t* l, orbs3_pool_t* pool, std::size_t n, std::size_t size)
{
    std::size_t bytes;
    if (n == 0 || size == 0 || n > UINT32_MAX || size > UINT32_MAX || !mul_size(n, size, &bytes))
        return -1;
    l->part.elts = orbs3_palloc(pool, bytes);
    if (l->part.elts == nullptr)
        return -1;
    l->part.nelts = 0;
    l->part.next = nullptr;
    l->last = &l->part;
    l->size = static_cast<uint32_t>(size);
    l->nalloc = static_cast<uint32_t>(n);
    l->pool = pool;
    return 0;
}

orbs3_list_t* orbs3_list_create(orbs3_pool_t* pool, std::size_t n, std::size_t size)
{
    auto* l = static_cast<orbs3_list_t*>(orbs3_palloc(pool, sizeof(orbs3_list_t)));
    if (l == nullptr)
        return nullptr;
    if (orbs3_list_init(l, pool, n, size) != 0)
        return nullptr;
    return l;
}

void* orbs3_list_push(orbs3_list_t* l)
{
    orbs3_list_part_t* last = l->last;
    ORBS3_ASSERT(last->nelts <= l->nalloc);
    if (last->nelts == l->nalloc) {
        auto* part = static_cast<orbs3_list_part_t*>(orbs3_palloc(l->pool, sizeof(orbs3_list_part_t)));
        if (part == nullptr)
            return nullptr;
        // Fits: the first part was allocated at this size.
        part->elts = orbs3_palloc(l->pool, std::size_t{l->nalloc} * l->size);
        if (part->elts == nullptr)
            return nullptr;
        part->nelts = 0;
        part->next = nullptr;
        last->next = part;
        l->last = part;
        last = part;
    }
    void* elt = static_cast<uint8_t*>(last->elts) + std::size_t{l->size} * last->nelts;
    last->nelts++;
    return elt;
}
