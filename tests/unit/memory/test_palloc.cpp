#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory_resource>
#include <string>
#include <vector>

#include "core/orbs3_config.h"
#include "memory/orbs3_palloc.h"

namespace {

bool aligned(const void* p, std::size_t a)
{
    return reinterpret_cast<uintptr_t>(p) % a == 0;
}

std::size_t large_count(const orbs3_pool_t* pool)
{
    std::size_t n = 0;
    for (const orbs3_pool_large_t* l = pool->large; l != nullptr; l = l->next)
        n++;
    return n;
}

orbs3_pool_large_t* large_of(orbs3_pool_t* pool, const void* p)
{
    for (orbs3_pool_large_t* l = pool->large; l != nullptr; l = l->next)
        if (l->alloc == p)
            return l;
    return nullptr;
}

// The block of the pool that holds [p, p + size), or null.
const orbs3_pool_t* block_of(const orbs3_pool_t* pool, const void* p, std::size_t size)
{
    auto* b = static_cast<const uint8_t*>(p);
    for (const orbs3_pool_t* blk = pool; blk != nullptr; blk = blk->next) {
        auto* start = reinterpret_cast<const uint8_t*>(blk) +
                      (blk == pool ? ORBS3_POOL_HEAD : ORBS3_POOL_BLOCK_HEAD);
        if (b >= start && b + size <= blk->last)
            return blk;
    }
    return nullptr;
}

}  // namespace

TEST(Palloc, ManyAllocationsOfVariedSizesAreAlignedClearedAndKeepTheirContents)
{
    orbs3_pool_ptr pool(orbs3_create_mem_block(4096));
    ASSERT_NE(pool, nullptr);

    struct rec {
        uint8_t* p;
        std::size_t size;
        bool large;
    };
    std::vector<rec> recs;
    uint32_t seed = 12345;
    for (int i = 0; i < 5000; i++) {
        seed = seed * 1103515245u + 12345u;
        // Mostly small records, some beyond max so the large path is exercised as well.
        std::size_t size = (i % 50 == 0) ? 4096 + (seed >> 16) % 20000 : (seed >> 16) % 700;
        // Text, records and cleared records interleaved: a record behind text is realigned.
        bool text = (i % 3) == 0, cleared = (i % 3) == 1;
        auto* p = static_cast<uint8_t*>(text      ? orbs3_pnalloc(pool.get(), size)
                                        : cleared ? orbs3_pcalloc(pool.get(), size)
                                                  : orbs3_palloc(pool.get(), size));
        ASSERT_NE(p, nullptr) << "size " << size;
        EXPECT_TRUE(text || aligned(p, ORBS3_ALIGNMENT)) << "size " << size;
        EXPECT_TRUE(!cleared || std::all_of(p, p + size, [](uint8_t b) { return b == 0; })) << "pcalloc clears";
        std::memset(p, static_cast<int>(i & 0xff), size);
        recs.push_back({p, size, size > pool->max});
    }

    for (std::size_t i = 0; i < recs.size(); i++) {
        const rec& r = recs[i];
        for (std::size_t k = 0; k < r.size; k++)
            ASSERT_EQ(r.p[k], static_cast<uint8_t>(i & 0xff)) << "allocation " << i << " overwritten at " << k;
        if (r.large) {
            EXPECT_NE(large_of(pool.get(), r.p), nullptr) << "allocation " << i;
        } else if (!orbs3_pool_debug) {
            EXPECT_NE(block_of(pool.get(), r.p, r.size), nullptr) << "allocation " << i << " outside every block";
        }
    }

    if (!orbs3_pool_debug) {
        for (const orbs3_pool_t* b = pool.get(); b != nullptr; b = b->next) {
            EXPECT_TRUE(aligned(b, ORBS3_POOL_ALIGNMENT));
            EXPECT_LE(b->last, b->end);
            EXPECT_EQ(b->end - reinterpret_cast<const uint8_t*>(b), 4096) << "blocks share the first one's size";
        }
    }
}

TEST(Palloc, MaxIsBlockSizeLessHeadCappedBelowPage)
{
    long page = sysconf(_SC_PAGESIZE);
    if (page != 4096)
        GTEST_SKIP() << "page size " << page;

    for (auto [size, max] : {std::pair<std::size_t, uint64_t>{1024, 1024 - 64}, {65536, 4095}}) {
        orbs3_pool_ptr p(orbs3_create_mem_block(size));
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(p->max, max) << size;
    }

    // 4100 bytes: max 4036, the boundary between the two paths.
    orbs3_pool_ptr a(orbs3_create_mem_block(4100));
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->max, 4036u);
    void* p = orbs3_palloc(a.get(), 4036);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(a->large, nullptr);
    if (!orbs3_pool_debug) {
        EXPECT_EQ(a->last, a->end);
        EXPECT_EQ(a->next, nullptr);
    }

    orbs3_pool_ptr b(orbs3_create_mem_block(4100));
    ASSERT_NE(b, nullptr);
    void* q = orbs3_palloc(b.get(), 4037);
    ASSERT_NE(q, nullptr);
    ASSERT_NE(b->large, nullptr);
    EXPECT_EQ(b->large->alloc, q);

    EXPECT_EQ(orbs3_create_mem_block(63), nullptr);
}

TEST(Palloc, RoomLeftInABlockIsUsedToItsLastByte)
{
    if (orbs3_pool_debug)
        GTEST_SKIP() << "debug pools keep no blocks";

    // An exact fit of the remaining room is still served in place.
    orbs3_pool_ptr pool(orbs3_create_mem_block(1024));
    ASSERT_NE(pool, nullptr);
    ASSERT_NE(orbs3_pnalloc(pool.get(), static_cast<std::size_t>(pool->end - pool->last)), nullptr);
    EXPECT_EQ(pool->last, pool->end);
    EXPECT_EQ(pool->next, nullptr);
    // The next request opens a second block of the same size.
    ASSERT_NE(orbs3_palloc(pool.get(), 100), nullptr);
    ASSERT_NE(pool->next, nullptr);
    EXPECT_TRUE(aligned(pool->next, ORBS3_POOL_ALIGNMENT));
    EXPECT_EQ(pool->next->end - reinterpret_cast<uint8_t*>(pool->next), 1024);

    // Ten bytes left at an odd offset: after realignment only eight remain, too few for 10 aligned bytes,
    // yet enough for 10 bytes of text.
    orbs3_pool_ptr odd(orbs3_create_mem_block(1024));
    ASSERT_NE(odd, nullptr);
    ASSERT_NE(orbs3_pnalloc(odd.get(), static_cast<std::size_t>(odd->end - odd->last) - 10), nullptr);
    ASSERT_NE(reinterpret_cast<uintptr_t>(odd->last) % ORBS3_ALIGNMENT, 0u);
    auto* al = static_cast<uint8_t*>(orbs3_palloc(odd.get(), 10));
    ASSERT_NE(odd->next, nullptr);
    EXPECT_EQ(block_of(odd.get(), al, 10), odd->next);
    EXPECT_EQ(odd->last, odd->end - 10);
    EXPECT_EQ(orbs3_pnalloc(odd.get(), 10), odd->end - 10);
    EXPECT_EQ(odd->last, odd->end);
}

TEST(Palloc, FailedCounterMovesCurrentPastExhaustedBlocks)
{
    if (orbs3_pool_debug)
        GTEST_SKIP() << "debug pools keep no blocks";

    // 1024-byte blocks and 900-byte requests: every request after the first needs a new block.
    orbs3_pool_ptr pool(orbs3_create_mem_block(1024));
    ASSERT_NE(pool, nullptr);
    orbs3_pool_t* first = pool.get();
    ASSERT_NE(orbs3_palloc(first, 900), nullptr);

    std::vector<orbs3_pool_t*> blocks{first};
    for (int i = 1; i <= 7; i++) {
        ASSERT_NE(orbs3_palloc(first, 900), nullptr);
        blocks.push_back(blocks.back()->next);
        ASSERT_NE(blocks.back(), nullptr);
        // The walk before linking the i-th new block passes every block but the last one.
        EXPECT_EQ(first->failed, uint64_t(i - 1)) << i;
        if (i <= 6) {
            EXPECT_EQ(first->current, first) << "after " << i << " new blocks";
        }
    }
    // The first block failed for the sixth time when the seventh block came: current moved on.
    EXPECT_EQ(first->current, blocks[1]);
    EXPECT_EQ(blocks[1]->failed, 5u);
    EXPECT_EQ(blocks[7]->failed, 0u);

    // One more walk starts at the second block, leaves the first alone and moves past the second too.
    ASSERT_NE(orbs3_palloc(first, 900), nullptr);
    EXPECT_EQ(first->failed, 6u);
    EXPECT_EQ(first->current, blocks[2]);
    // A small request that would have fitted the first block is no longer served there.
    uint8_t* before = first->last;
    ASSERT_NE(orbs3_palloc(first, 8), nullptr);
    EXPECT_EQ(first->last, before);

    // Reset puts everything back to the start.
    orbs3_reset_pool(first);
    EXPECT_EQ(first->current, first);
    for (orbs3_pool_t* b = first; b != nullptr; b = b->next) {
        EXPECT_EQ(b->failed, 0u);
        EXPECT_EQ(b->last, reinterpret_cast<uint8_t*>(b) + 64);
    }
    EXPECT_EQ(first->large, nullptr);
}

TEST(Palloc, PfreeGivesBackLargeOnlyAndRecordsAreReused)
{
    orbs3_pool_ptr pool(orbs3_create_mem_block(4096));
    ASSERT_NE(pool, nullptr);

    void* s = orbs3_palloc(pool.get(), 100);
    ASSERT_NE(s, nullptr);
    uint8_t* last = pool->last;
    EXPECT_EQ(orbs3_pfree(pool.get(), s), -5);
    EXPECT_EQ(pool->last, last);

    void* a = orbs3_palloc(pool.get(), 5000);
    ASSERT_NE(orbs3_palloc(pool.get(), 6000), nullptr);
    ASSERT_EQ(large_count(pool.get()), 2u);
    orbs3_pool_large_t* ra = large_of(pool.get(), a);
    ASSERT_NE(ra, nullptr);

    EXPECT_EQ(orbs3_pfree(pool.get(), a), 0);
    EXPECT_EQ(ra->alloc, nullptr);
    EXPECT_EQ(orbs3_pfree(pool.get(), a), -5) << "a second free finds nothing";

    void* c = orbs3_palloc(pool.get(), 7000);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(large_count(pool.get()), 2u);
    EXPECT_EQ(ra->alloc, c);

    // Only the first five records are looked at: an emptied sixth is not reused.
    orbs3_pool_ptr p2(orbs3_create_mem_block(4096));
    ASSERT_NE(p2, nullptr);
    std::vector<void*> big;
    for (int i = 0; i < 6; i++)
        big.push_back(orbs3_palloc(p2.get(), 5000 + i));
    orbs3_pool_large_t* oldest = large_of(p2.get(), big[0]);  // at the tail: sixth record
    EXPECT_EQ(orbs3_pfree(p2.get(), big[0]), 0);
    ASSERT_NE(orbs3_palloc(p2.get(), 5000), nullptr);
    EXPECT_EQ(large_count(p2.get()), 7u);
    EXPECT_EQ(oldest->alloc, nullptr);
    // The fifth record is still in reach.
    orbs3_pool_large_t* fifth = large_of(p2.get(), big[2]);
    EXPECT_EQ(orbs3_pfree(p2.get(), big[2]), 0);
    void* d = orbs3_palloc(p2.get(), 5000);
    EXPECT_EQ(fifth->alloc, d);
    EXPECT_EQ(large_count(p2.get()), 7u);
}

TEST(Palloc, PmemalignIsAlignedAndFreeable)
{
    orbs3_pool_ptr pool(orbs3_create_mem_block(1024));
    ASSERT_NE(pool, nullptr);
    for (std::size_t align : {16u, 64u, 4096u}) {
        void* p = orbs3_pmemalign(pool.get(), 100, align);
        ASSERT_NE(p, nullptr);
        EXPECT_TRUE(aligned(p, align)) << align;
        EXPECT_EQ(pool->large->alloc, p) << "at the head of the large list";
        std::memset(p, 1, 100);
    }
    void* p = pool->large->alloc;
    EXPECT_EQ(orbs3_pfree(pool.get(), p), 0);
}

TEST(Palloc, CleanupsRunNewestFirstAndOnceWhetherResetOrDestroyed)
{
    struct item {
        std::vector<int>* order;
        int id;
    };
    for (bool reset_first : {false, true}) {
        SCOPED_TRACE(reset_first ? "reset, then destroy" : "destroy");
        std::vector<int> order;
        orbs3_pool_t* pool = orbs3_create_mem_block(1024);
        ASSERT_NE(pool, nullptr);
        for (int i = 0; i < 5; i++) {
            orbs3_pool_cleanup_t* c = orbs3_pool_cleanup_add(pool, sizeof(item));
            ASSERT_NE(c, nullptr);
            EXPECT_EQ(c->handler, nullptr);
            ASSERT_NE(c->data, nullptr);
            *static_cast<item*>(c->data) = {&order, i};
            if (i != 2)  // a record without handler is passed over
                c->handler = [](void* d) {
                    auto* it = static_cast<item*>(d);
                    it->order->push_back(it->id);
                };
        }
        orbs3_pool_cleanup_t* bare = orbs3_pool_cleanup_add(pool, 0);
        ASSERT_NE(bare, nullptr);
        EXPECT_EQ(bare->data, nullptr);
        // The cleanups see several blocks and large allocations still alive; LeakSanitizer sees any large
        // allocation a reset leaves behind.
        for (int i = 0; i < 50; i++)
            ASSERT_NE(orbs3_palloc(pool, 300 + i * 40), nullptr);
        EXPECT_TRUE(order.empty());
        if (reset_first) {
            EXPECT_EQ(orbs3_reset_pool(pool), pool);
            EXPECT_EQ(order, (std::vector<int>{4, 3, 1, 0}));
            EXPECT_EQ(pool->cleanup, nullptr);
            EXPECT_EQ(pool->large, nullptr);
            EXPECT_EQ(pool->current, pool);
            // The pool is usable again, and a destroy does not run the dropped cleanups a second time.
            ASSERT_NE(orbs3_palloc(pool, 100), nullptr);
            ASSERT_NE(orbs3_palloc(pool, 3000), nullptr);
        }
        orbs3_destroy_pool(pool);
        EXPECT_EQ(order, (std::vector<int>{4, 3, 1, 0}));
    }
}

TEST(Palloc, RunCleanupFileClosesOnceOnly)
{
    orbs3_pool_t* pool = orbs3_create_mem_block(1024);
    ASSERT_NE(pool, nullptr);
    int fd1 = open("/dev/null", O_RDONLY | O_CLOEXEC);
    int fd2 = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd1, 0);
    ASSERT_GE(fd2, 0);
    for (int fd : {fd1, fd2}) {
        orbs3_pool_cleanup_t* c = orbs3_pool_cleanup_add(pool, sizeof(orbs3_pool_cleanup_file_t));
        ASSERT_NE(c, nullptr);
        c->handler = orbs3_pool_cleanup_file;
        *static_cast<orbs3_pool_cleanup_file_t*>(c->data) = {fd, "/dev/null"};
    }

    orbs3_pool_cleanup_t* c = orbs3_pool_run_cleanup_file(pool, fd1);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->handler, nullptr);
    EXPECT_EQ(static_cast<orbs3_pool_cleanup_file_t*>(c->data)->fd, fd1);
    EXPECT_EQ(fcntl(fd1, F_GETFD), -1);
    EXPECT_NE(fcntl(fd2, F_GETFD), -1);
    EXPECT_EQ(orbs3_pool_run_cleanup_file(pool, fd1), nullptr);
    EXPECT_EQ(orbs3_pool_run_cleanup_file(pool, 12345), nullptr);

    // The number is free again; whoever gets it next must not lose it when the pool goes.
    int reused = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(reused, fd1);
    orbs3_destroy_pool(pool);
    EXPECT_NE(fcntl(reused, F_GETFD), -1) << "closed twice";
    EXPECT_EQ(fcntl(fd2, F_GETFD), -1) << "destroy closes the registered file";
    close(reused);
}

namespace {

int g_dtor_runs;

struct tracked {
    std::string name;  // not trivially destructible: its heap text leaks unless the destructor runs
    explicit tracked(const char* n) : name(n) {}
    ~tracked() { g_dtor_runs++; }
};

struct alignas(64) wide {
    char bytes[64];
};

}  // namespace

TEST(Palloc, PoolNewDestroysAtDestroyAndPmrContainersLiveInPool)
{
    g_dtor_runs = 0;
    {
        orbs3_pool_ptr pool(orbs3_create_mem_block(1024));
        ASSERT_NE(pool, nullptr);
        tracked* t = pool_new<tracked>(pool.get(), "a name longer than the small string buffer holds");
        ASSERT_NE(t, nullptr);
        ASSERT_NE(pool_new<tracked>(pool.get(), "second"), nullptr);
        EXPECT_EQ(t->name, "a name longer than the small string buffer holds");
        wide* w = pool_new<wide>(pool.get());
        ASSERT_NE(w, nullptr);
        EXPECT_TRUE(aligned(w, 64));
        EXPECT_EQ(g_dtor_runs, 0);
    }
    EXPECT_EQ(g_dtor_runs, 2);

    orbs3_pool_ptr pool(orbs3_create_mem_block(4096));
    ASSERT_NE(pool, nullptr);
    orbs3_pool_resource res(pool.get());
    orbs3_pool_resource same(pool.get());
    EXPECT_TRUE(res.is_equal(same));
    {
        std::pmr::vector<int> v(&res);
        for (int i = 0; i < 10000; i++)
            v.push_back(i * 3);
        for (int i = 0; i < 10000; i++)
            ASSERT_EQ(v[i], i * 3);
        std::pmr::string s("a text that is long enough to leave the small string buffer", &res);
        s += s;
        EXPECT_EQ(s.size(), 2 * 59u);
    }
    // The vector's last buffer (40000 bytes) is a large allocation of this pool.
    EXPECT_NE(pool->large, nullptr);
}

TEST(Palloc, SystemWrappers)
{
    EXPECT_EQ(orbs3_realloc(nullptr, 100), nullptr);
    auto* p = static_cast<uint8_t*>(orbs3_calloc(64));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::count(p, p + 64, 0), 64);
    p = static_cast<uint8_t*>(orbs3_realloc(p, 4096));
    ASSERT_NE(p, nullptr);
    p[4095] = 1;
    __free__(p);
    __free__(nullptr);
    void* a = orbs3_memalign(256, 10);
    ASSERT_NE(a, nullptr);
    EXPECT_TRUE(aligned(a, 256));
    __free__(a);
}

TEST(Palloc, StrdupCapsAndGetstrNeverNull)
{
    const char* text = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWX";  // 60 bytes
    ASSERT_EQ(std::strlen(text), 60u);
    orbs3_str_t s{};
    neo_strdup(&s, text, 48);
    ASSERT_NE(s.data, nullptr);
    EXPECT_EQ(s.len, 48u);
    EXPECT_EQ(std::string(s.data), std::string(text, 48));
    EXPECT_STREQ(neo_getstr(&s), s.data);
    neo_strfree(&s);
    EXPECT_EQ(s.data, nullptr);
    EXPECT_EQ(s.len, 0u);

    neo_strdup(&s, "short", 48);
    EXPECT_EQ(s.len, 5u);
    EXPECT_STREQ(s.data, "short");
    neo_strfree(&s);

    neo_strdup(&s, nullptr, 48);
    EXPECT_EQ(s.data, nullptr);
    neo_strdup(nullptr, "x", 48);

    char buf[] = "stale";
    orbs3_str_t empty{}, zero{0, buf};
    for (orbs3_str_t* e : {&empty, &zero, static_cast<orbs3_str_t*>(nullptr)}) {
        ASSERT_NE(neo_getstr(e), nullptr);
        EXPECT_STREQ(neo_getstr(e), "");
    }
}

TEST(Palloc, NewChainIsClearedAndSpansItsMemory)
{
    orbs3_pool_ptr pool(orbs3_create_mem_block(4096));
    ASSERT_NE(pool, nullptr);
    orbs3_chain_t* cl = orbs3_new_chain_size(pool.get(), 100);
    ASSERT_NE(cl, nullptr);
    ASSERT_NE(cl->buf, nullptr);
    EXPECT_EQ(cl->next, nullptr);
    orbs3_buf_t* b = cl->buf;
    EXPECT_TRUE(b->pos == b->start && b->last == b->start && b->end == b->start + 100);
    EXPECT_TRUE(b->file_pos == 0 && b->file_last == 0);
    EXPECT_EQ(std::count(b->start, b->end, 0), 100);

    uint64_t saved = sysconfig.recv_buffer;
    sysconfig.recv_buffer = 8192;
    orbs3_chain_t* big = orbs3_new_chain(pool.get());
    sysconfig.recv_buffer = saved;
    ASSERT_NE(big, nullptr);
    EXPECT_EQ(big->buf->end - big->buf->start, 8192);
    EXPECT_NE(large_of(pool.get(), big->buf->start), nullptr);
}

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORBS3_TEST_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define ORBS3_TEST_ASAN 1
#endif

TEST(PallocDeathTest, DebugPoolsCatchOverrunIntoNextAllocation)
{
#ifndef ORBS3_TEST_ASAN
    GTEST_SKIP() << "needs AddressSanitizer";
#else
    if (!orbs3_pool_debug)
        GTEST_SKIP() << "release pools pack allocations together";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            orbs3_pool_ptr pool(orbs3_create_mem_block(4096));
            auto* a = static_cast<volatile char*>(orbs3_palloc(pool.get(), 24));
            void* b = orbs3_palloc(pool.get(), 24);
            (void)b;
            a[24] = 1;
        },
        "heap-buffer-overflow");
#endif
}
