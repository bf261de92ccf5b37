#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "core/orbs3_log.h"
#include "memory/orbs3_shmem.h"
#include "memory/orbs3_slab.h"
#include "temp_dir.h"

namespace {

constexpr uint64_t kPage = 4096;

// A shared zone with an unreadable page right in front and right behind it (its end within 7 bytes of
// the rear guard), so any write of the pool outside its zone faults at once.
struct GuardedZone {
    uint8_t* map = nullptr;
    std::size_t map_size = 0;
    uint8_t* addr = nullptr;
    uint64_t size = 0;

    explicit GuardedZone(uint64_t zone_size) : size(zone_size)
    {
        std::size_t body = (zone_size + 8 + kPage - 1) / kPage * kPage;
        map_size = body + 2 * kPage;
        void* m = mmap(nullptr, map_size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (m == MAP_FAILED)
            return;
        map = static_cast<uint8_t*>(m);
        uint8_t* rear = map + kPage + body;
        if (mprotect(map, kPage, PROT_NONE) != 0 || mprotect(rear, kPage, PROT_NONE) != 0)
            return;
        addr = reinterpret_cast<uint8_t*>(reinterpret_cast<uintptr_t>(rear - zone_size) & ~uintptr_t{7});
    }
    ~GuardedZone()
    {
        if (map != nullptr)
            munmap(map, map_size);
    }
    GuardedZone(const GuardedZone&) = delete;
    GuardedZone& operator=(const GuardedZone&) = delete;
};

// Collects the trace lines of the debug file for one test.
class Traces {
public:
    Traces()
    {
        ipd_log_init("orbmux-test", path_.c_str());
        ipd_log_debug_open();
    }
    ~Traces() { ipd_log_debug_close(); }
    void clear() { unit_test::write_file(path_, ""); }
    std::string text() const { return unit_test::read_file(path_); }
    int count(const std::string& what) const
    {
        std::string t = text();
        int n = 0;
        for (std::size_t at = t.find(what); at != std::string::npos; at = t.find(what, at + 1))
            n++;
        return n;
    }

private:
    unit_test::temp_dir dir_;
    std::string path_ = dir_("orbmux.debug");
};

struct Accounting {
    uint64_t pfree;
    std::vector<orbs3_slab_stat_t> stats;
};

Accounting accounting(const orbs3_slab_pool_t* pool)
{
    return {pool->pfree, std::vector<orbs3_slab_stat_t>(pool->stats, pool->stats + ORBS3_SLAB_SLOTS)};
}

// Equal in everything but the request counter, which only grows.
void expect_same_usage(const Accounting& a, const Accounting& b, const std::string& where)
{
    EXPECT_EQ(a.pfree, b.pfree) << where;
    for (uint64_t i = 0; i < ORBS3_SLAB_SLOTS; i++) {
        EXPECT_EQ(a.stats[i].total, b.stats[i].total) << where << ", slot " << i;
        EXPECT_EQ(a.stats[i].used, b.stats[i].used) << where << ", slot " << i;
        EXPECT_EQ(a.stats[i].fails, b.stats[i].fails) << where << ", slot " << i;
    }
}

// The free list as (first page index, length) pairs, in list order.
std::vector<std::pair<uint64_t, uint64_t>> free_runs(orbs3_slab_pool_t* pool)
{
    std::vector<std::pair<uint64_t, uint64_t>> runs;
    uint64_t limit = static_cast<uint64_t>(pool->last - pool->pages) + 1;
    for (orbs3_slab_page_t* p = pool->free.next; p != &pool->free && runs.size() < limit; p = p->next)
        runs.emplace_back(static_cast<uint64_t>(p - pool->pages), p->slab);
    return runs;
}

uint64_t page_of(const orbs3_slab_pool_t* pool, const void* p)
{
    return (static_cast<const uint8_t*>(p) - pool->start) / kPage;
}

uint64_t offset_in_page(const orbs3_slab_pool_t* pool, const void* p)
{
    return (static_cast<const uint8_t*>(p) - pool->start) % kPage;
}

bool all_bytes(const void* p, uint8_t v, std::size_t n)
{
    auto* b = static_cast<const uint8_t*>(p);
    return std::all_of(b, b + n, [v](uint8_t x) { return x == v; });
}

// Chunks per page of a class, counted from the page geometry: small pages lose the chunks their bitmap
// takes (one bit per chunk, at least one chunk).
uint64_t chunks_per_page(uint64_t chunk)
{
    uint64_t n = kPage / chunk;
    if (chunk < 128) {
        uint64_t bitmap_bytes = n / 8;
        n -= std::max<uint64_t>(1, (bitmap_bytes + chunk - 1) / chunk);
    }
    return n;
}

struct Slab : ::testing::Test {
    static constexpr uint64_t kZone = 1024 * 1024;
    GuardedZone zone{kZone};
    orbs3_slab_pool_t* pool = nullptr;
    Accounting initial;

    void SetUp() override
    {
        ASSERT_NE(zone.addr, nullptr);
        ASSERT_EQ(orbs3_init_zone_pool(zone.addr, &pool, kZone), 0);
        initial = accounting(pool);
        ASSERT_GT(initial.pfree, 200u);
    }
    void TearDown() override
    {
        if (pool != nullptr)
            orbs3_shmtx_destroy(&pool->mutex);
    }
};

}  // namespace

TEST(SlabZone, LayoutStaysInsideTheZoneAndUsesItsPages)
{
    const uint64_t head = sizeof(orbs3_slab_pool_t) + ORBS3_SLAB_SLOTS * 56;
    const uint64_t sizes[] = {head + 24 + 2 * kPage, 64 * 1024, 1024 * 1024 + 123, 3 * 1024 * 1024 + 4095,
                              10240000};
    for (uint64_t size : sizes) {
        SCOPED_TRACE(size);
        GuardedZone z(size);
        ASSERT_NE(z.addr, nullptr);
        orbs3_slab_pool_t* pool = nullptr;
        ASSERT_EQ(orbs3_init_zone_pool(z.addr, &pool, size), 0);
        ASSERT_EQ(static_cast<void*>(pool), z.addr);
        EXPECT_EQ(pool->addr, z.addr);
        EXPECT_EQ(pool->end, z.addr + size);

        EXPECT_LE(reinterpret_cast<uint8_t*>(pool->last), pool->start);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(pool->start) % kPage, 0u);
        uint64_t n = static_cast<uint64_t>(pool->last - pool->pages);
        EXPECT_EQ(pool->pfree, n);
        EXPECT_LE(pool->start + n * kPage, pool->end);
        // Descriptors and alignment may cost a page, not more.
        EXPECT_GE(n + 1, (size - head - (kPage - 1)) / (kPage + 24)) << "pages lost";
        ASSERT_EQ(free_runs(pool), (std::vector<std::pair<uint64_t, uint64_t>>{{0, n}}));

        // Every page is usable to its last byte: a write past the zone hits the guard page.
        std::vector<void*> pages;
        while (void* p = orbs3_slab_alloc(pool, kPage)) {
            std::memset(p, 0x11, kPage);
            pages.push_back(p);
        }
        EXPECT_EQ(pages.size(), n);
        EXPECT_EQ(pool->pfree, 0u);
        for (void* p : pages)
            orbs3_slab_free(pool, p);
        EXPECT_EQ(pool->pfree, n);
        EXPECT_EQ(free_runs(pool).size(), 1u) << "all pages merge back into one run";
        orbs3_shmtx_destroy(&pool->mutex);
    }

    // A zone that can't hold one page, or can't hold the lock words aligned, is refused.
    GuardedZone z(head + 24 + 2 * kPage);
    orbs3_slab_pool_t* pool = nullptr;
    EXPECT_EQ(orbs3_init_zone_pool(z.addr, &pool, 1000), -1);
    EXPECT_EQ(orbs3_init_zone_pool(z.addr, &pool, head + 24 + kPage - 1), -1);
    EXPECT_EQ(orbs3_init_zone_pool(z.addr + 1, &pool, head + 24 + kPage), -1);
    EXPECT_EQ(orbs3_init_zone_pool(nullptr, &pool, 1 << 20), -1);
    EXPECT_EQ(pool, nullptr);
}

TEST_F(Slab, RequestSizeChoosesItsClassAndChunksFollowTheBitmap)
{
    struct row {
        std::size_t size;
        int slot;       // -1: whole pages
        uint64_t unit;  // chunk size, or pages
        uint64_t first;  // offset of a fresh page's first chunk: small pages keep their bitmap in front
    };
    // 8-byte chunks: 512 bits of bitmap fill 8 chunks; 16: 256 bits, 2 chunks; 32 and 64: one chunk.
    const row rows[] = {
        {0, 0, 8, 64},        {1, 0, 8, 64},       {8, 0, 8, 64},       {9, 1, 16, 32},      {16, 1, 16, 32},
        {17, 2, 32, 32},      {33, 3, 64, 64},     {64, 3, 64, 64},     {65, 4, 128, 0},     {128, 4, 128, 0},
        {129, 5, 256, 0},     {512, 6, 512, 0},    {1000, 7, 1024, 0},  {2048, 8, 2048, 0},  {2049, -1, 1, 0},
        {4096, -1, 1, 0},     {4097, -1, 2, 0},    {3 * 4096 + 1, -1, 4, 0},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.size);
        Accounting before = accounting(pool);
        void* p = orbs3_slab_alloc(pool, r.size);
        ASSERT_NE(p, nullptr);
        ASSERT_GE(static_cast<uint8_t*>(p), pool->start);
        EXPECT_TRUE(all_bytes(p, 0, r.size)) << "orbs3_slab_alloc clears";
        std::memset(p, 0x5a, r.size);
        EXPECT_EQ(offset_in_page(pool, p), r.first);

        if (r.slot >= 0) {
            EXPECT_EQ(pool->stats[r.slot].used, before.stats[r.slot].used + 1);
            EXPECT_EQ(pool->stats[r.slot].reqs, before.stats[r.slot].reqs + 1);
            EXPECT_EQ(pool->pfree, before.pfree - 1);
            uintptr_t want = r.unit < 128 ? ORBS3_SLAB_SMALL : r.unit == 128 ? ORBS3_SLAB_EXACT : ORBS3_SLAB_BIG;
            EXPECT_EQ(pool->pages[page_of(pool, p)].prev & ORBS3_SLAB_PAGE_MASK, want);
            void* next = orbs3_slab_alloc(pool, r.size);
            EXPECT_EQ(static_cast<uint8_t*>(next) - static_cast<uint8_t*>(p), static_cast<std::ptrdiff_t>(r.unit));
            orbs3_slab_free(pool, next);
        } else {
            EXPECT_EQ(pool->pfree, before.pfree - r.unit);
            const orbs3_slab_page_t* d = &pool->pages[page_of(pool, p)];
            EXPECT_EQ(d->slab, r.unit | ORBS3_SLAB_PAGE_START);
            for (uint64_t i = 1; i < r.unit; i++)
                EXPECT_EQ(d[i].slab, ORBS3_SLAB_PAGE_BUSY);
            for (uint64_t i = 0; i < ORBS3_SLAB_SLOTS; i++)
                EXPECT_EQ(pool->stats[i].reqs, before.stats[i].reqs) << "pages are no slot's request";
        }
        orbs3_slab_free(pool, p);
        expect_same_usage(accounting(pool), initial, "after free");
    }
    EXPECT_EQ(free_runs(pool).size(), 1u);
}

TEST_F(Slab, FillingEveryClassAndFreeingRestoresAccounting)
{
    for (uint64_t slot = 0; slot < ORBS3_SLAB_SLOTS; slot++) {
        const uint64_t chunk = uint64_t{8} << slot;
        const uint64_t per_page = chunks_per_page(chunk);
        SCOPED_TRACE(chunk);

        // Three full pages and one chunk of a fourth.
        std::vector<uint8_t*> chunks;
        for (uint64_t i = 0; i < 3 * per_page + 1; i++) {
            auto* p = static_cast<uint8_t*>(orbs3_slab_alloc(pool, chunk));
            ASSERT_NE(p, nullptr) << i;
            chunks.push_back(p);
        }
        EXPECT_EQ(std::set<uint8_t*>(chunks.begin(), chunks.end()).size(), chunks.size());
        for (std::size_t i = 0; i < chunks.size(); i++)
            std::memset(chunks[i], static_cast<int>(i * 7 + 1), chunk);
        for (std::size_t i = 0; i < chunks.size(); i++)
            ASSERT_TRUE(all_bytes(chunks[i], static_cast<uint8_t>(i * 7 + 1), chunk)) << "chunks overlap at " << i;

        EXPECT_EQ(pool->stats[slot].total, 4 * per_page);
        EXPECT_EQ(pool->stats[slot].used, 3 * per_page + 1);
        EXPECT_EQ(pool->pfree, initial.pfree - 4);

        // Every other chunk first: the rest survive untouched, and each page keeps a chunk and stays,
        // except a fourth page whose only chunk has an odd index.
        const uint64_t kept = per_page % 2 == 1 ? 3 : 4;
        for (std::size_t i = 1; i < chunks.size(); i += 2) {
            orbs3_slab_free(pool, chunks[i]);
            EXPECT_TRUE(all_bytes(chunks[i], ORBS3_SLAB_JUNK, chunk)) << "freed memory is filled";
        }
        for (std::size_t i = 0; i < chunks.size(); i += 2)
            ASSERT_TRUE(all_bytes(chunks[i], static_cast<uint8_t>(i * 7 + 1), chunk)) << i;
        EXPECT_EQ(pool->pfree, initial.pfree - kept);
        EXPECT_EQ(pool->stats[slot].total, kept * per_page);
        EXPECT_EQ(pool->stats[slot].used, chunks.size() - chunks.size() / 2);

        // Half-free pages are served again before any new page is taken.
        void* again = orbs3_slab_alloc(pool, chunk);
        ASSERT_NE(again, nullptr);
        EXPECT_EQ(pool->stats[slot].total, kept * per_page);
        orbs3_slab_free(pool, again);

        for (std::size_t i = chunks.size(); i-- > 0;) {
            if (i % 2 == 0)
                orbs3_slab_free(pool, chunks[i]);
        }

        expect_same_usage(accounting(pool), initial, "after freeing the class");
        ASSERT_EQ(free_runs(pool).size(), 1u) << "emptied pages merge back";
    }
    // Whole pages the same way, single and multi-page.
    for (uint64_t pages : {1, 3}) {
        std::vector<void*> runs;
        for (int i = 0; i < 5; i++)
            runs.push_back(orbs3_slab_alloc(pool, pages * kPage));
        EXPECT_EQ(pool->pfree, initial.pfree - 5 * pages);
        for (std::size_t i : {1u, 3u, 0u, 4u, 2u})
            orbs3_slab_free(pool, runs[i]);
        expect_same_usage(accounting(pool), initial, "after whole pages");
    }
    ASSERT_EQ(free_runs(pool).size(), 1u);
    void* all = orbs3_slab_alloc(pool, initial.pfree * kPage);
    EXPECT_NE(all, nullptr) << "one run holds every page again";
    orbs3_slab_free(pool, all);
}

TEST_F(Slab, FreedRunsMergeWithNeighboursInEveryOrder)
{
    // Runs A (1 page), B (2), C (3) side by side, then D (1) held, so the tail stays a run of its own.
    std::vector<int> order = {0, 1, 2};
    do {
        SCOPED_TRACE(::testing::PrintToString(order));
        void* run[3] = {orbs3_slab_alloc(pool, kPage), orbs3_slab_alloc(pool, 2 * kPage),
                        orbs3_slab_alloc(pool, 3 * kPage)};
        void* d = orbs3_slab_alloc(pool, kPage);
        ASSERT_TRUE(run[0] && run[1] && run[2] && d);
        uint64_t a = page_of(pool, run[0]);
        ASSERT_EQ(page_of(pool, run[1]), a + 1);
        ASSERT_EQ(page_of(pool, run[2]), a + 3);
        ASSERT_EQ(page_of(pool, d), a + 6);

        for (int i : order)
            orbs3_slab_free(pool, run[i]);
        auto runs = free_runs(pool);
        std::sort(runs.begin(), runs.end());
        ASSERT_EQ(runs.size(), 2u);
        EXPECT_EQ(runs[0], std::make_pair(a, uint64_t{6}));
        EXPECT_EQ(runs[1], std::make_pair(a + 7, initial.pfree - 7));
        // The last page of a free run leads back to its first.
        EXPECT_EQ(pool->pages[a + 5].prev, reinterpret_cast<uintptr_t>(&pool->pages[a]));

        orbs3_slab_free(pool, d);
        EXPECT_EQ(free_runs(pool), (std::vector<std::pair<uint64_t, uint64_t>>{{0, initial.pfree}}));
    } while (std::next_permutation(order.begin(), order.end()));
    expect_same_usage(accounting(pool), initial, "after all");
}

TEST_F(Slab, ExhaustionGivesNullWithoutCorruption)
{
    Traces traces;
    std::vector<uint8_t*> pages;
    while (auto* p = static_cast<uint8_t*>(orbs3_slab_alloc(pool, kPage))) {
        std::memset(p, static_cast<int>(pages.size() % 251), kPage);
        pages.push_back(p);
    }
    ASSERT_EQ(pages.size(), initial.pfree);
    EXPECT_EQ(traces.count("orbs3_slab_alloc() failed: no memory"), 1);

    for (uint64_t slot = 0; slot < ORBS3_SLAB_SLOTS; slot++)
        EXPECT_EQ(orbs3_slab_alloc(pool, std::size_t{8} << slot), nullptr);
    EXPECT_EQ(orbs3_slab_calloc(pool, 4097), nullptr);
    for (uint64_t slot = 0; slot < ORBS3_SLAB_SLOTS; slot++) {
        EXPECT_EQ(pool->stats[slot].fails, 1u) << slot;
        EXPECT_EQ(pool->stats[slot].used, 0u) << slot;
        EXPECT_EQ(pool->stats[slot].total, 0u) << slot;
    }
    EXPECT_EQ(pool->pfree, 0u);
    for (std::size_t i = 0; i < pages.size(); i++)
        ASSERT_TRUE(all_bytes(pages[i], static_cast<uint8_t>(i % 251), kPage)) << "page " << i;

    // With one page back, a class fills it and the next request of that class fails again.
    orbs3_slab_free(pool, pages.back());
    pages.pop_back();
    std::vector<void*> chunks;
    while (void* c = orbs3_slab_alloc(pool, 256))
        chunks.push_back(c);
    EXPECT_EQ(chunks.size(), 16u);
    EXPECT_EQ(pool->stats[5].fails, 2u);
    for (void* c : chunks)
        orbs3_slab_free(pool, c);
    for (uint8_t* p : pages)
        orbs3_slab_free(pool, p);

    EXPECT_EQ(pool->pfree, initial.pfree);
    EXPECT_EQ(free_runs(pool).size(), 1u);

    // Out-of-memory traces can be switched off.
    pool->log_nomem = 0;
    traces.clear();
    EXPECT_EQ(orbs3_slab_alloc(pool, (initial.pfree + 1) * kPage), nullptr);
    EXPECT_EQ(traces.count("no memory"), 0);
}

TEST_F(Slab, BadFreesAreRefusedTracedAndChangeNothing)
{
    Traces traces;
    auto alloc = [&](std::size_t n) { return static_cast<uint8_t*>(orbs3_slab_alloc(pool, n)); };
    uint8_t *small = alloc(8), *small2 = alloc(8), *exact = alloc(128), *exact2 = alloc(128);
    uint8_t *big = alloc(256), *big2 = alloc(256), *whole = alloc(3 * kPage), *whole2 = alloc(kPage);
    ASSERT_TRUE(small && small2 && exact && exact2 && big && big2 && whole && whole2);
    std::memset(small, 1, 8);
    std::memset(exact, 2, 128);
    std::memset(big, 3, 256);
    std::memset(whole, 4, 3 * kPage);
    for (void* p : {small2, exact2, big2, whole2})  // freed once, for the double frees
        orbs3_slab_free(pool, p);

    int on_stack = 0;
    uint8_t* beyond = pool->start + (pool->last - pool->pages) * kPage;
    uint8_t* small_page = pool->start + page_of(pool, small) * kPage;
    uint8_t* free_page = pool->start + (pool->last - pool->pages - 1) * kPage;
    const std::string outside = "orbs3_slab_free(): outside of pool";
    const std::string wrong_chunk = "orbs3_slab_free(): pointer to wrong chunk";
    const std::string twice = "orbs3_slab_free(): chunk is already free";
    struct row {
        const char* what;
        void* p;
        std::string trace;
    };
    const row rows[] = {
        {"null", nullptr, outside},
        {"stack", &on_stack, outside},
        {"pool record", pool, outside},
        {"descriptors", pool->pages, outside},
        {"behind the last page", beyond, outside},
        {"misaligned small", small + 1, wrong_chunk},
        {"small page's bitmap", small_page, wrong_chunk},
        {"misaligned exact", exact + 8, wrong_chunk},
        {"misaligned big", big + 128, wrong_chunk},
        {"inside whole pages", whole + 100, wrong_chunk},
        {"second of whole pages", whole + kPage, "orbs3_slab_free(): pointer to wrong page"},
        {"never allocated page", free_page, "orbs3_slab_free(): page is already free"},
        {"small twice", small2, twice},
        {"exact twice", exact2, twice},
        {"big twice", big2, twice},
        {"whole page twice", whole2, "orbs3_slab_free(): page is already free"},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.what);
        Accounting before = accounting(pool);
        auto runs = free_runs(pool);
        traces.clear();
        orbs3_slab_free(pool, r.p);
        EXPECT_EQ(traces.count(r.trace), 1) << traces.text();
        expect_same_usage(accounting(pool), before, r.what);
        EXPECT_EQ(free_runs(pool), runs);
        EXPECT_TRUE(all_bytes(small, 1, 8));
        EXPECT_TRUE(all_bytes(exact, 2, 128));
        EXPECT_TRUE(all_bytes(big, 3, 256));
        EXPECT_TRUE(all_bytes(whole, 4, 3 * kPage));
    }
    EXPECT_EQ(reinterpret_cast<uint64_t*>(small_page)[0], (uint64_t{1} << 9) - 1) << "bitmap intact";

    // The pool still works and comes back whole.
    void* again = orbs3_slab_alloc(pool, 8);
    EXPECT_EQ(again, small2) << "the freed chunk is the first free one";
    orbs3_slab_free(pool, again);

    // A trace carries the context text only when that text lies inside the zone.
    std::snprintf(reinterpret_cast<char*>(exact), 32, " in SSL session shared cache");
    static char outside_text[] = " from elsewhere";
    for (char* ctx : {reinterpret_cast<char*>(exact), outside_text}) {
        pool->log_ctx = ctx;
        traces.clear();
        orbs3_slab_free(pool, nullptr);
        std::string want = ctx == outside_text ? "" : ctx;
        EXPECT_EQ(traces.count(outside + want + "\n"), 1) << traces.text();
    }
    pool->log_ctx = &pool->zero;

    for (void* p : {small, exact, big, whole})
        orbs3_slab_free(pool, p);
    expect_same_usage(accounting(pool), initial, "after all");
    EXPECT_EQ(free_runs(pool).size(), 1u);
}

TEST_F(Slab, AllocClearsAndFreeFillsWithJunk)
{
    struct row {
        std::size_t size;
        std::size_t extent;  // what the allocation really holds
    };
    {
        orbs3_shmtx_guard g(&pool->mutex);
        void* fresh = orbs3_slab_alloc_locked(pool, initial.pfree * kPage);
        ASSERT_NE(fresh, nullptr);
        EXPECT_TRUE(all_bytes(fresh, ORBS3_SLAB_JUNK, initial.pfree * kPage)) << "a new zone carries the fill";
        orbs3_slab_free_locked(pool, fresh);
    }
    const row rows[] = {{5, 8}, {100, 128}, {300, 512}, {5000, 2 * kPage}};
    for (const row& r : rows) {
        SCOPED_TRACE(r.size);
        {
            orbs3_shmtx_guard g(&pool->mutex);
            void* raw = orbs3_slab_alloc_locked(pool, r.size);
            ASSERT_NE(raw, nullptr);
            std::memset(raw, 0x11, r.extent);
            orbs3_slab_free_locked(pool, raw);
            EXPECT_TRUE(all_bytes(raw, ORBS3_SLAB_JUNK, r.extent)) << "a use after free shows";

            void* c = orbs3_slab_calloc_locked(pool, r.size);
            ASSERT_EQ(c, raw);
            EXPECT_TRUE(all_bytes(c, 0, r.size));
            orbs3_slab_free_locked(pool, c);
        }
        void* q = orbs3_slab_calloc(pool, r.size);
        EXPECT_TRUE(all_bytes(q, 0, r.size));
        orbs3_slab_free(pool, q);
    }
    expect_same_usage(accounting(pool), initial, "after all");
}
