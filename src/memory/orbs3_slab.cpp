#include "memory/orbs3_slab.h"

#include <cstring>

#include "memory/orbs3_assert.h"
#include "core/orbs3_log.h"

// Everything the pool reads back from the zone (pointers in lists, run lengths, shifts, bitmaps) is
// checked against the pool's frame before it is used to write: the zone is shared, and a stray write by
// any of its processes must end as a refused operation and a trace, never as a write outside the zone.

namespace {

using page_t = orbs3_slab_page_t;

constexpr uint64_t SLAB_SHIFT_MASK = 0xf;
constexpr uint64_t SLAB_MAP_MASK = 0xffff0000;  // chunk bitmap of a big page
constexpr uint64_t SLAB_MAP_SHIFT = 16;
constexpr uint64_t SLAB_EXACT_BUSY = 0xffffffff;
// The bitmap of a small page is made of 64-bit words, so a full word has all 64 bits set.
constexpr uint64_t SLAB_SMALL_BUSY = ~uint64_t{0};
constexpr uint64_t SLAB_EXACT_CHUNKS = orbs3_pagesize >> orbs3_slab_exact_shift;  // 32
constexpr uint64_t SLAB_MAX_SHIFT = 11;
constexpr uint64_t SLOT_OVERHEAD = sizeof(page_t) + sizeof(orbs3_slab_stat_t);
static_assert(SLOT_OVERHEAD == 56);
static_assert(orbs3_slab_max_size == uint64_t{1} << SLAB_MAX_SHIFT);
// The count of a whole-page run shares `slab` with bit 31.
constexpr uint64_t SLAB_MAX_PAGES = ORBS3_SLAB_PAGE_START - 1;

uintptr_t addr_of(const void* p)
{
    return reinterpret_cast<uintptr_t>(p);
}

uintptr_t page_type(const page_t* page)
{
    return page->prev & ORBS3_SLAB_PAGE_MASK;
}

page_t* page_prev(const page_t* page)
{
    return reinterpret_cast<page_t*>(page->prev & ~ORBS3_SLAB_PAGE_MASK);
}

uint64_t page_count(const orbs3_slab_pool_t* pool)
{
    return static_cast<uint64_t>(pool->last - pool->pages);
}

uint64_t page_index(const orbs3_slab_pool_t* pool, const page_t* page)
{
    return static_cast<uint64_t>(page - pool->pages);
}

uint8_t* page_addr(const orbs3_slab_pool_t* pool, const page_t* page)
{
    return pool->start + (page_index(pool, page) << orbs3_pagesize_shift);
}

// Chunks at the start of a small page that hold its own bitmap.
uint64_t bitmap_chunks(uint64_t shift)
{
    uint64_t n = (orbs3_pagesize >> shift) / ((uint64_t{1} << shift) * 8);
    return n == 0 ? 1 : n;
}

uint64_t bitmap_words(uint64_t shift)
{
    return (orbs3_pagesize >> shift) >> 6;
}

const char* ctx_text(const orbs3_slab_pool_t* pool)
{
    const char* c = pool->log_ctx;
    uintptr_t lo = addr_of(pool->addr);
    uintptr_t hi = addr_of(pool->end);
    if (c == nullptr || addr_of(c) < lo || addr_of(c) >= hi)
        return "";
    if (std::memchr(c, '\0', hi - addr_of(c)) == nullptr)
        return "";
    return c;
}

void slab_error(const orbs3_slab_pool_t* pool, const char* text)
{
    ipd_debug("%s%s", text, ctx_text(pool));
}

// The frame that every other check leans on: the parts of the zone lie where slab_init put them.
bool layout_ok(orbs3_slab_pool_t* pool)
{
    page_t* slots = orbs3_slab_slots(pool);
    if (addr_of(pool->stats) != addr_of(slots + ORBS3_SLAB_SLOTS))
        return false;
    if (addr_of(pool->pages) != addr_of(pool->stats + ORBS3_SLAB_SLOTS))
        return false;
    if (addr_of(pool->last) < addr_of(pool->pages) || (addr_of(pool->last) - addr_of(pool->pages)) % sizeof(page_t))
        return false;
    uint64_t n = page_count(pool);
    if (n > SLAB_MAX_PAGES || pool->pfree > n)
        return false;
    uintptr_t start = addr_of(pool->start);
    if (start < addr_of(pool->last) || start % orbs3_pagesize != 0)
        return false;
    return start + (n << orbs3_pagesize_shift) <= addr_of(pool->end);
}

bool is_desc(const orbs3_slab_pool_t* pool, const page_t* p)
{
    uintptr_t a = addr_of(p);
    return a >= addr_of(pool->pages) && a < addr_of(pool->last) && (a - addr_of(pool->pages)) % sizeof(page_t) == 0;
}

// A node of some list: a descriptor, a slot head, or the head of the free list.
bool is_node(orbs3_slab_pool_t* pool, const page_t* p)
{
    if (p == &pool->free || is_desc(pool, p))
        return true;
    uintptr_t a = addr_of(p);
    uintptr_t s = addr_of(orbs3_slab_slots(pool));
    return a >= s && a < s + ORBS3_SLAB_SLOTS * sizeof(page_t) && (a - s) % sizeof(page_t) == 0;
}

bool can_unlink(orbs3_slab_pool_t* pool, const page_t* page)
{
    return is_node(pool, page_prev(page)) && page->next != nullptr && is_node(pool, page->next);
}

void unlink(page_t* page)
{
    page_t* prev = page_prev(page);
    prev->next = page->next;
    page->next->prev = page->prev;
}

// Puts a page at the head of a list whose pages carry `type`.
bool push(orbs3_slab_pool_t* pool, page_t* head, page_t* page, uintptr_t type)
{
    if (!is_node(pool, head->next))
        return false;
    page->next = head->next;
    page->prev = addr_of(head) | type;
    head->next->prev = addr_of(page) | type;
    head->next = page;
    return true;
}

void take_out(page_t* page, uintptr_t type)
{
    unlink(page);
    page->next = nullptr;
    page->prev = type;
}

uintptr_t slot_type(uint64_t shift)
{
    if (shift < orbs3_slab_exact_shift)
        return ORBS3_SLAB_SMALL;
    if (shift == orbs3_slab_exact_shift)
        return ORBS3_SLAB_EXACT;
    return ORBS3_SLAB_BIG;
}

// A page found on the list of the slot for `shift` must belong there.
bool slot_page_ok(orbs3_slab_pool_t* pool, const page_t* page, uint64_t shift)
{
    if (!is_desc(pool, page) || page_type(page) != slot_type(shift) || !can_unlink(pool, page))
        return false;
    switch (page_type(page)) {
    case ORBS3_SLAB_SMALL:
        return page->slab == shift;
    case ORBS3_SLAB_EXACT:
        return page->slab <= SLAB_EXACT_BUSY;
    default:
        return (page->slab & SLAB_SHIFT_MASK) == shift && (page->slab & ~(SLAB_MAP_MASK | SLAB_SHIFT_MASK)) == 0;
    }
}

// A free chunk of a page on a slot's list, or null if it has none. A page that becomes full leaves the
// list.
void* take_chunk(orbs3_slab_pool_t* pool, page_t* page, uint64_t shift, uint64_t slot)
{
    uint8_t* base = page_addr(pool, page);

    switch (page_type(page)) {
    case ORBS3_SLAB_SMALL: {
        auto* bitmap = reinterpret_cast<uint64_t*>(base);
        uint64_t map = bitmap_words(shift);
        // The bits of the bitmap's own chunks are always set on a sound page; setting them again keeps
        // a damaged bitmap from handing out the bitmap itself.
        bitmap[0] |= (uint64_t{1} << bitmap_chunks(shift)) - 1;
        for (uint64_t n = 0; n < map; n++) {
            if (bitmap[n] == SLAB_SMALL_BUSY)
                continue;
            unsigned i = static_cast<unsigned>(__builtin_ctzll(~bitmap[n]));
            bitmap[n] |= uint64_t{1} << i;
            pool->stats[slot].used++;
            void* p = base + ((n * 64 + i) << shift);
            for (uint64_t k = n; k < map; k++)
                if (bitmap[k] != SLAB_SMALL_BUSY)
                    return p;
            take_out(page, ORBS3_SLAB_SMALL);
            return p;
        }
        return nullptr;
    }
    case ORBS3_SLAB_EXACT: {
        if (page->slab == SLAB_EXACT_BUSY)
            return nullptr;
        unsigned i = static_cast<unsigned>(__builtin_ctzll(~page->slab));
        page->slab |= uint64_t{1} << i;
        if (page->slab == SLAB_EXACT_BUSY)
            take_out(page, ORBS3_SLAB_EXACT);
        pool->stats[slot].used++;
        return base + (uint64_t{i} << orbs3_slab_exact_shift);
    }
    default: {
        uint64_t mask = ((uint64_t{1} << (orbs3_pagesize >> shift)) - 1) << SLAB_MAP_SHIFT;
        uint64_t free_bits = ~page->slab & mask;
        if (free_bits == 0)
            return nullptr;
        unsigned bit = static_cast<unsigned>(__builtin_ctzll(free_bits));
        page->slab |= uint64_t{1} << bit;
        if ((page->slab & mask) == mask)
            take_out(page, ORBS3_SLAB_BIG);
        pool->stats[slot].used++;
        return base + (uint64_t{bit - SLAB_MAP_SHIFT} << shift);
    }
    }
}

// Sets up a fresh page for a slot and hands out its first free chunk.
void* new_slot_page(orbs3_slab_pool_t* pool, page_t* page, uint64_t shift, uint64_t slot)
{
    page_t* head = &orbs3_slab_slots(pool)[slot];
    uint8_t* base = page_addr(pool, page);
    void* p;
    uintptr_t type = slot_type(shift);

    if (type == ORBS3_SLAB_SMALL) {
        auto* bitmap = reinterpret_cast<uint64_t*>(base);
        uint64_t n = bitmap_chunks(shift);
        // n + 1 is at most 9 bits: the first word holds the bitmap's own chunks and the one handed out.
        ORBS3_ASSERT(n + 1 <= 9);
        bitmap[0] = (uint64_t{1} << (n + 1)) - 1;
        for (uint64_t i = 1; i < bitmap_words(shift); i++)
            bitmap[i] = 0;
        page->slab = shift;
        pool->stats[slot].total += (orbs3_pagesize >> shift) - n;
        p = base + (n << shift);
    } else if (type == ORBS3_SLAB_EXACT) {
        page->slab = 1;
        // An exact page holds 32 chunks of 128 bytes, and `total` counts chunks.
        pool->stats[slot].total += SLAB_EXACT_CHUNKS;
        p = base;
    } else {
        page->slab = (uint64_t{1} << SLAB_MAP_SHIFT) | shift;
        pool->stats[slot].total += orbs3_pagesize >> shift;
        p = base;
    }

    if (!push(pool, head, page, type)) {
        // A damaged slot head: the page stays out of the list, as a full page would; its frees put it back
        // once the head is sound again.
        slab_error(pool, "orbs3_slab_alloc(): slot list is corrupted");
        page->next = nullptr;
        page->prev = type;
    }
    pool->stats[slot].used++;
    return p;
}

void junk(void* p, uint64_t size)
{
    std::memset(p, ORBS3_SLAB_JUNK, size);
}

}  // namespace

int orbs3_init_zone_pool(void* addr, orbs3_slab_pool_t** pool, uint64_t size)
{
    if (addr == nullptr || pool == nullptr)
        return -1;
    // The lock words are used by atomic operations and must be aligned.
    if (addr_of(addr) % alignof(orbs3_slab_pool_t) != 0)
        return -1;
    if (size < sizeof(orbs3_slab_pool_t) + ORBS3_SLAB_SLOTS * SLOT_OVERHEAD + sizeof(page_t) + orbs3_pagesize ||
        size > UINTPTR_MAX - addr_of(addr))
        return -1;

    auto* sp = static_cast<orbs3_slab_pool_t*>(addr);
    sp->lock_word = 0;
    sp->wait_word = 0;
    sp->start = static_cast<uint8_t*>(addr);
    sp->addr = addr;
    sp->end = static_cast<uint8_t*>(addr) + size;
    sp->min_shift = ORBS3_SLAB_MIN_SHIFT;
    sp->data = nullptr;
    // The pool is shared by processes, so its mutex sleeps on a semaphore rather than polling.
    sp->mutex.spin = 0;
    (void)orbs3_shmtx_create(&sp->mutex, &sp->lock_word, "slab");

    orbs3_slab_init(sp);
    if (sp->pfree == 0) {
        orbs3_shmtx_destroy(&sp->mutex);
        return -1;
    }
    *pool = sp;
    return 0;
}

void orbs3_slab_init(orbs3_slab_pool_t* pool)
{
    pool->min_size = uint64_t{1} << ORBS3_SLAB_MIN_SHIFT;
    pool->min_shift = ORBS3_SLAB_MIN_SHIFT;
    pool->zero = '\0';
    pool->log_ctx = &pool->zero;
    pool->log_nomem = 1;
    pool->pfree = 0;
    pool->free.slab = 0;
    pool->free.next = &pool->free;
    pool->free.prev = 0;

    uint8_t* p = reinterpret_cast<uint8_t*>(pool) + sizeof(orbs3_slab_pool_t);
    uintptr_t end = addr_of(pool->end);
    if (end < addr_of(p) || end - addr_of(p) < ORBS3_SLAB_SLOTS * SLOT_OVERHEAD) {
        // No room even for the slots: a pool without pages, which refuses every request.
        pool->stats = nullptr;
        pool->pages = pool->last = nullptr;
        return;
    }
    uint64_t size = end - addr_of(p);
    junk(p, size);

    page_t* slots = reinterpret_cast<page_t*>(p);
    for (uint64_t i = 0; i < ORBS3_SLAB_SLOTS; i++) {
        slots[i].slab = 0;
        slots[i].next = &slots[i];
        slots[i].prev = 0;
    }
    p += ORBS3_SLAB_SLOTS * sizeof(page_t);

    pool->stats = reinterpret_cast<orbs3_slab_stat_t*>(p);
    std::memset(pool->stats, 0, ORBS3_SLAB_SLOTS * sizeof(orbs3_slab_stat_t));
    p += ORBS3_SLAB_SLOTS * sizeof(orbs3_slab_stat_t);

    size -= ORBS3_SLAB_SLOTS * SLOT_OVERHEAD;
    uint64_t pages = size / (orbs3_pagesize + sizeof(page_t));
    if (pages > SLAB_MAX_PAGES)
        pages = SLAB_MAX_PAGES;
    pool->pages = reinterpret_cast<page_t*>(p);
    std::memset(pool->pages, 0, pages * sizeof(page_t));

    uintptr_t start = (addr_of(p + pages * sizeof(page_t)) + orbs3_pagesize - 1) & ~(orbs3_pagesize - 1);
    pool->start = reinterpret_cast<uint8_t*>(start);
    uint64_t fit = start <= end ? (end - start) >> orbs3_pagesize_shift : 0;
    if (fit < pages)
        pages = fit;
    pool->last = pool->pages + pages;
    pool->pfree = pages;

    if (pages > 0) {
        page_t* page = pool->pages;
        page->slab = pages;
        page->next = &pool->free;
        page->prev = addr_of(&pool->free);
        if (pages > 1)
            page[pages - 1].prev = addr_of(page);
        pool->free.next = page;
    }
}

void* orbs3_slab_alloc(orbs3_slab_pool_t* pool, std::size_t size)
{
    void* p;
    {
        orbs3_shmtx_guard g(&pool->mutex);
        p = orbs3_slab_alloc_locked(pool, size);
    }
    // The chunk is the caller's once handed out; clearing it needs no lock.
    if (p != nullptr)
        std::memset(p, 0, size);
    return p;
}

void* orbs3_slab_calloc(orbs3_slab_pool_t* pool, std::size_t size)
{
    orbs3_shmtx_guard g(&pool->mutex);
    return orbs3_slab_calloc_locked(pool, size);
}

void orbs3_slab_free(orbs3_slab_pool_t* pool, void* p)
{
    orbs3_shmtx_guard g(&pool->mutex);
    orbs3_slab_free_locked(pool, p);
}

void* orbs3_slab_calloc_locked(orbs3_slab_pool_t* pool, std::size_t size)
{
    void* p = orbs3_slab_alloc_locked(pool, size);
    if (p != nullptr)
        std::memset(p, 0, size);
    return p;
}

void* orbs3_slab_alloc_locked(orbs3_slab_pool_t* pool, std::size_t size)
{
    if (!layout_ok(pool)) {
        slab_error(pool, "orbs3_slab_alloc(): pool is corrupted");
        return nullptr;
    }

    if (size > orbs3_slab_max_size) {
        uint64_t n = (size >> orbs3_pagesize_shift) + ((size & (orbs3_pagesize - 1)) ? 1 : 0);
        page_t* page = orbs3_slab_alloc_pages(pool, n);
        return page != nullptr ? page_addr(pool, page) : nullptr;
    }

    uint64_t shift = ORBS3_SLAB_MIN_SHIFT;
    if (size > (uint64_t{1} << ORBS3_SLAB_MIN_SHIFT)) {
        shift = 1;
        for (uint64_t s = size - 1; s >>= 1;)
            shift++;
    }
    uint64_t slot = shift - ORBS3_SLAB_MIN_SHIFT;
    pool->stats[slot].reqs++;

    page_t* head = &orbs3_slab_slots(pool)[slot];
    page_t* page = head->next;
    if (page != head) {
        if (!slot_page_ok(pool, page, shift)) {
            slab_error(pool, "orbs3_slab_alloc(): slot list is corrupted");
            pool->stats[slot].fails++;
            return nullptr;
        }
        void* p = take_chunk(pool, page, shift, slot);
        if (p != nullptr)
            return p;
        slab_error(pool, "orbs3_slab_alloc(): page is busy");
        // A full page has no place on the list; out of it, the next free of one of its chunks puts it back.
        take_out(page, slot_type(shift));
    }

    page = orbs3_slab_alloc_pages(pool, 1);
    if (page == nullptr) {
        pool->stats[slot].fails++;
        return nullptr;
    }
    return new_slot_page(pool, page, shift, slot);
}

void orbs3_slab_free_locked(orbs3_slab_pool_t* pool, void* ptr)
{
    if (!layout_ok(pool)) {
        slab_error(pool, "orbs3_slab_free(): pool is corrupted");
        return;
    }

    uintptr_t p = addr_of(ptr);
    uintptr_t start = addr_of(pool->start);
    uint64_t npages = page_count(pool);
    // Only the counted pages: a tail of the zone too short for a page is outside as well.
    if (p < start || p >= start + (npages << orbs3_pagesize_shift)) {
        slab_error(pool, "orbs3_slab_free(): outside of pool");
        return;
    }

    uint64_t index = (p - start) >> orbs3_pagesize_shift;
    page_t* page = &pool->pages[index];
    uint64_t slab = page->slab;
    uint8_t* base = page_addr(pool, page);
    uint64_t offset = p - addr_of(base);
    page_t* slots = orbs3_slab_slots(pool);
    uint64_t shift;
    uint64_t size;
    uint64_t slot;

    switch (page_type(page)) {
    case ORBS3_SLAB_SMALL: {
        shift = slab & SLAB_SHIFT_MASK;
        if (slab != shift || shift < ORBS3_SLAB_MIN_SHIFT || shift >= orbs3_slab_exact_shift) {
            slab_error(pool, "orbs3_slab_free(): page is corrupted");
            return;
        }
        size = uint64_t{1} << shift;
        uint64_t own = bitmap_chunks(shift);
        // The chunks that hold the bitmap are never handed out; "freeing" one would wipe the bitmap.
        if ((p & (size - 1)) != 0 || (offset >> shift) < own)
            goto wrong_chunk;

        auto* bitmap = reinterpret_cast<uint64_t*>(base);
        uint64_t chunk = offset >> shift;
        uint64_t m = uint64_t{1} << (chunk % 64);
        uint64_t n = chunk / 64;
        if ((bitmap[n] & m) == 0)
            goto chunk_already_free;

        slot = shift - ORBS3_SLAB_MIN_SHIFT;
        if (page->next == nullptr && !push(pool, &slots[slot], page, ORBS3_SLAB_SMALL))
            goto corrupted;
        bitmap[n] &= ~m;

        uint64_t own_mask = (uint64_t{1} << own) - 1;
        bool empty = (bitmap[0] & ~own_mask) == 0;
        for (uint64_t i = 1; empty && i < bitmap_words(shift); i++)
            empty = bitmap[i] == 0;
        if (empty) {
            orbs3_slab_free_pages(pool, page, 1);
            pool->stats[slot].total -= (orbs3_pagesize >> shift) - own;
        }
        break;
    }

    case ORBS3_SLAB_EXACT: {
        size = orbs3_slab_exact_size;
        if ((p & (size - 1)) != 0)
            goto wrong_chunk;
        if (slab > SLAB_EXACT_BUSY) {
            slab_error(pool, "orbs3_slab_free(): page is corrupted");
            return;
        }
        uint64_t m = uint64_t{1} << (offset >> orbs3_slab_exact_shift);
        if ((slab & m) == 0)
            goto chunk_already_free;

        slot = orbs3_slab_exact_shift - ORBS3_SLAB_MIN_SHIFT;
        // Out of every list means full: `next` tells it for all three chunk types alike, and a page that
        // is still linked must not be linked twice.
        if (page->next == nullptr && !push(pool, &slots[slot], page, ORBS3_SLAB_EXACT))
            goto corrupted;
        page->slab &= ~m;
        if (page->slab == 0) {
            orbs3_slab_free_pages(pool, page, 1);
            pool->stats[slot].total -= SLAB_EXACT_CHUNKS;
        }
        break;
    }

    case ORBS3_SLAB_BIG: {
        shift = slab & SLAB_SHIFT_MASK;
        if (shift <= orbs3_slab_exact_shift || shift > SLAB_MAX_SHIFT ||
            (slab & ~(SLAB_MAP_MASK | SLAB_SHIFT_MASK)) != 0) {
            slab_error(pool, "orbs3_slab_free(): page is corrupted");
            return;
        }
        size = uint64_t{1} << shift;
        if ((p & (size - 1)) != 0)
            goto wrong_chunk;
        uint64_t m = uint64_t{1} << ((offset >> shift) + SLAB_MAP_SHIFT);
        if ((slab & m) == 0)
            goto chunk_already_free;

        slot = shift - ORBS3_SLAB_MIN_SHIFT;
        if (page->next == nullptr && !push(pool, &slots[slot], page, ORBS3_SLAB_BIG))
            goto corrupted;
        page->slab &= ~m;
        if ((page->slab & SLAB_MAP_MASK) == 0) {
            orbs3_slab_free_pages(pool, page, 1);
            pool->stats[slot].total -= orbs3_pagesize >> shift;
        }
        break;
    }

    default: {  // whole pages
        if ((p & (orbs3_pagesize - 1)) != 0)
            goto wrong_chunk;
        if ((slab & ORBS3_SLAB_PAGE_START) == 0) {
            slab_error(pool, "orbs3_slab_free(): page is already free");
            return;
        }
        if (slab == ORBS3_SLAB_PAGE_BUSY) {
            slab_error(pool, "orbs3_slab_free(): pointer to wrong page");
            return;
        }
        uint64_t count = slab & ~ORBS3_SLAB_PAGE_START;
        if (count == 0 || count > npages - index)
            goto corrupted;
        orbs3_slab_free_pages(pool, page, count);
        junk(ptr, count << orbs3_pagesize_shift);
        return;
    }
    }

    pool->stats[slot].used--;
    junk(ptr, size);
    return;

wrong_chunk:
    slab_error(pool, "orbs3_slab_free(): pointer to wrong chunk");
    return;

chunk_already_free:
    slab_error(pool, "orbs3_slab_free(): chunk is already free");
    return;

corrupted:
    slab_error(pool, "orbs3_slab_free(): page is corrupted");
}

page_t* orbs3_slab_alloc_pages(orbs3_slab_pool_t* pool, uint64_t pages)
{
    if (!layout_ok(pool)) {
        slab_error(pool, "orbs3_slab_alloc(): pool is corrupted");
        return nullptr;
    }
    uint64_t npages = page_count(pool);
    uint64_t steps = 0;

    if (pages > 0 && pages <= pool->pfree) {
        for (page_t* page = pool->free.next; page != &pool->free; page = page->next) {
            // A sound list has at most one run per page; a loop or a stray pointer ends the walk.
            if (!is_desc(pool, page) || ++steps > npages || page->slab == 0 ||
                page->slab > npages - page_index(pool, page) || !can_unlink(pool, page)) {
                slab_error(pool, "orbs3_slab_alloc(): free list is corrupted");
                return nullptr;
            }
            uint64_t run = page->slab;
            if (run < pages)
                continue;

            if (run > pages) {
                page_t* rest = page + pages;
                page[run - 1].prev = addr_of(rest);
                rest->slab = run - pages;
                rest->next = page->next;
                rest->prev = page->prev;
                page_prev(page)->next = rest;
                page->next->prev = addr_of(rest);
            } else {
                unlink(page);
            }

            page->slab = pages | ORBS3_SLAB_PAGE_START;
            page->next = nullptr;
            page->prev = ORBS3_SLAB_PAGE;
            for (uint64_t i = 1; i < pages; i++) {
                page[i].slab = ORBS3_SLAB_PAGE_BUSY;
                page[i].next = nullptr;
                page[i].prev = ORBS3_SLAB_PAGE;
            }
            pool->pfree -= pages;
            return page;
        }
    }

    if (pool->log_nomem)
        slab_error(pool, "orbs3_slab_alloc() failed: no memory");
    return nullptr;
}

void orbs3_slab_free_pages(orbs3_slab_pool_t* pool, page_t* page, uint64_t pages)
{
    if (!layout_ok(pool) || !is_desc(pool, page) || pages == 0 || pages > page_count(pool) - page_index(pool, page) ||
        (page->next != nullptr && !can_unlink(pool, page)) || !is_node(pool, pool->free.next)) {
        slab_error(pool, "orbs3_slab_free(): page is corrupted");
        return;
    }

    pool->pfree += pages;
    if (page->next != nullptr)
        unlink(page);
    page->slab = pages;
    page->next = nullptr;
    page->prev = ORBS3_SLAB_PAGE;
    if (pages > 1)
        std::memset(static_cast<void*>(page + 1), 0, (pages - 1) * sizeof(page_t));

    page_t* join = page + pages;
    if (join < pool->last && page_type(join) == ORBS3_SLAB_PAGE && join->next != nullptr) {
        // The head of a free run right behind: merge it in, if its record holds up.
        if (join->slab >= 1 && join->slab <= page_count(pool) - page_index(pool, join) && can_unlink(pool, join)) {
            page->slab += join->slab;
            unlink(join);
            join->slab = 0;
            join->next = nullptr;
            join->prev = ORBS3_SLAB_PAGE;
        }
    }

    if (page > pool->pages) {
        join = page - 1;
        if (page_type(join) == ORBS3_SLAB_PAGE) {
            // The last page of a free run of several pages leads to its first.
            if (join->slab == 0)
                join = page_prev(join);
            if (is_desc(pool, join) && join < page && page_type(join) == ORBS3_SLAB_PAGE && join->next != nullptr &&
                join->slab == page_index(pool, page) - page_index(pool, join) && can_unlink(pool, join)) {
                join->slab += page->slab;
                unlink(join);
                page->slab = 0;
                page->next = nullptr;
                page->prev = ORBS3_SLAB_PAGE;
                page = join;
            }
        }
    }

    if (page->slab > 1)
        page[page->slab - 1].prev = addr_of(page);

    page->prev = addr_of(&pool->free);
    page->next = pool->free.next;
    page->next->prev = addr_of(page);
    pool->free.next = page;
}
