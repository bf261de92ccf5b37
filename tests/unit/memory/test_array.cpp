#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "memory/orbs3_array.h"
#include "memory/orbs3_palloc.h"

TEST(Array, InitClearsAndRejectsOverflow)
{
    orbs3_pool_ptr pool(orbs3_create_mem_block(4096));
    ASSERT_NE(pool, nullptr);
    orbs3_array_t* a = orbs3_array_create(pool.get(), 10, sizeof(uint64_t));
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->nelts, 0u);
    for (int i = 0; i < 10; i++)
        EXPECT_EQ(static_cast<uint64_t*>(a->elts)[i], 0u);

    orbs3_array_t b;
    EXPECT_EQ(orbs3_array_init(&b, pool.get(), SIZE_MAX / 4, 8), -1);
    EXPECT_EQ(orbs3_array_create(pool.get(), 3, SIZE_MAX / 2), nullptr);
}

TEST(Array, PushAtEndOfFirstBlockGrowsInPlace)
{
    if (orbs3_pool_debug)
        GTEST_SKIP() << "debug pools have no block to grow in";
    orbs3_pool_ptr pool(orbs3_create_mem_block(4096));
    ASSERT_NE(pool, nullptr);
    orbs3_array_t* a = orbs3_array_create(pool.get(), 4, sizeof(uint32_t));
    ASSERT_NE(a, nullptr);
    void* elts = a->elts;
    for (uint32_t i = 0; i < 4; i++)
        *static_cast<uint32_t*>(orbs3_array_push(a)) = i;
    uint8_t* last = pool->last;
    auto* e = static_cast<uint32_t*>(orbs3_array_push(a));
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(a->elts, elts) << "no copy";
    EXPECT_EQ(a->nalloc, 5u);
    EXPECT_EQ(pool->last, last + sizeof(uint32_t));
    EXPECT_EQ(e, static_cast<uint32_t*>(elts) + 4);

    // When the block cannot take one more element, the array moves even though it is at the end.
    orbs3_pool_ptr tight(orbs3_create_mem_block(64 + sizeof(orbs3_array_t) + 2 * 8));
    ASSERT_NE(tight, nullptr);
    orbs3_array_t* t = orbs3_array_create(tight.get(), 2, 8);
    ASSERT_NE(t, nullptr);
    ASSERT_EQ(tight->last, tight->end);
    void* old = t->elts;
    ASSERT_NE(orbs3_array_push(t), nullptr);
    ASSERT_NE(orbs3_array_push(t), nullptr);
    ASSERT_NE(orbs3_array_push(t), nullptr);
    EXPECT_NE(t->elts, old);
    EXPECT_EQ(t->nalloc, 4u);
}

TEST(Array, PushElsewhereDoublesAndKeepsContent)
{
    orbs3_pool_ptr pool(orbs3_create_mem_block(4096));
    ASSERT_NE(pool, nullptr);
    orbs3_array_t a;
    ASSERT_EQ(orbs3_array_init(&a, pool.get(), 3, sizeof(uint64_t)), 0);
    // Something taken after the array: it no longer ends at the free space.
    ASSERT_NE(orbs3_palloc(pool.get(), 8), nullptr);

    std::vector<uint64_t> nallocs;
    for (uint64_t i = 0; i < 100; i++) {
        auto* e = static_cast<uint64_t*>(orbs3_array_push(&a));
        ASSERT_NE(e, nullptr);
        *e = i * 7;
        if (nallocs.empty() || nallocs.back() != a.nalloc)
            nallocs.push_back(a.nalloc);
        // Each new block is followed by nothing else only until the next palloc.
        ASSERT_NE(orbs3_palloc(pool.get(), 1), nullptr);
    }
    EXPECT_EQ(nallocs, (std::vector<uint64_t>{3, 6, 12, 24, 48, 96, 192}));
    EXPECT_EQ(a.nelts, 100u);
    for (uint64_t i = 0; i < 100; i++)
        ASSERT_EQ(static_cast<uint64_t*>(a.elts)[i], i * 7) << i;

    // An array made empty still grows.
    orbs3_array_t z;
    ASSERT_EQ(orbs3_array_init(&z, pool.get(), 0, 16), 0);
    ASSERT_NE(orbs3_palloc(pool.get(), 1), nullptr);
    for (int i = 0; i < 5; i++)
        ASSERT_NE(orbs3_array_push(&z), nullptr);
    EXPECT_EQ(z.nelts, 5u);
    EXPECT_GE(z.nalloc, 5u);
}

TEST(List, PushLinksNewPartsAndElementsStayPut)
{
    orbs3_pool_ptr pool(orbs3_create_mem_block(1024));
    ASSERT_NE(pool, nullptr);
    orbs3_list_t* l = orbs3_list_create(pool.get(), 3, sizeof(int));
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(l->last, &l->part);

    std::vector<int*> ptrs;
    for (int i = 0; i < 10; i++) {
        auto* e = static_cast<int*>(orbs3_list_push(l));
        ASSERT_NE(e, nullptr);
        *e = i;
        ptrs.push_back(e);
    }
    std::vector<uint32_t> counts;
    std::vector<int> values;
    for (orbs3_list_part_t* p = &l->part; p != nullptr; p = p->next) {
        counts.push_back(p->nelts);
        for (uint32_t k = 0; k < p->nelts; k++)
            values.push_back(static_cast<int*>(p->elts)[k]);
        if (p->next == nullptr) {
            EXPECT_EQ(l->last, p);
        }
    }
    EXPECT_EQ(counts, (std::vector<uint32_t>{3, 3, 3, 1}));
    EXPECT_EQ(values, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
    for (int i = 0; i < 10; i++)
        EXPECT_EQ(*ptrs[i], i) << "element " << i << " moved or was overwritten";

    orbs3_list_t bad;
    EXPECT_EQ(orbs3_list_init(&bad, pool.get(), 0, 4), -1);
    EXPECT_EQ(orbs3_list_init(&bad, pool.get(), 4, 0), -1);
    EXPECT_EQ(orbs3_list_create(pool.get(), uint64_t{1} << 33, 4), nullptr);
}
