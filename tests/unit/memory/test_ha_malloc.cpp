#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include "memory/orbs3_ha_malloc.h"

namespace {

// Each test starts with empty free lists and removes its semaphore, so no IPC object outlives the run.
struct HaMalloc : ::testing::Test {
    void TearDown() override { ha_malloc_release(); }
};

}  // namespace

TEST_F(HaMalloc, BucketIsFirstSizeNotBelowRequest)
{
    struct row {
        std::size_t size;
        int bucket;
    };
    const row rows[] = {{0, 0},    {1, 0},     {16, 0},    {17, 1},    {64, 2},    {65, 3},   {128, 3},
                        {129, 4},  {512, 5},   {1000, 6},  {1024, 6},  {1025, 7},  {2048, 7}, {2049, 8},
                        {100000, 8}};
    for (const row& r : rows) {
        void* p = ha_malloc(r.size);
        ASSERT_NE(p, nullptr) << r.size;
        EXPECT_EQ(ha_block_bucket(p), r.bucket) << r.size;
        std::memset(p, 0x5a, r.size);  // the whole request is usable (ASan checks the bound)
        ha_free(p);
    }
}

TEST_F(HaMalloc, FreeKeepsBucketBlocksAndGivesBackDirectOnes)
{
    std::size_t before7 = ha_free_count(7);
    void* a = ha_malloc(2048);
    void* b = ha_malloc(2049);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(ha_block_bucket(a), 7);
    EXPECT_EQ(ha_block_bucket(b), 8);
    ha_free(a);
    EXPECT_EQ(ha_free_count(7), before7 + 1);
    ha_free(b);  // to the system: LeakSanitizer would report it otherwise
    for (int i = 0; i < HA_BUCKETS; i++)
        EXPECT_EQ(ha_free_count(i), i == 7 ? before7 + 1 : 0u) << i;
    EXPECT_EQ(ha_malloc(2000), a) << "bucket 7 hands its block out again";
    ha_free(a);
    ha_free(nullptr);
}

TEST_F(HaMalloc, BlockOfBucketThreeServesAnyRequestFrom65To128)
{
    void* p = ha_malloc(100);
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(ha_block_bucket(p), 3);
    ha_free(p);
    for (std::size_t size = 65; size <= 128; size++) {
        void* q = ha_malloc(size);
        ASSERT_EQ(q, p) << size;
        std::memset(q, 1, size);
        ha_free(q);
    }
    void* small = ha_malloc(64);
    EXPECT_NE(small, p);
    void* big = ha_malloc(129);
    EXPECT_NE(big, p);
    ha_free(small);
    ha_free(big);
    EXPECT_EQ(ha_free_count(3), 1u);
}

TEST_F(HaMalloc, CallocClearsReusedBlocks)
{
    auto* p = static_cast<uint8_t*>(ha_malloc(200));
    ASSERT_NE(p, nullptr);
    std::memset(p, 0xff, 200);
    ha_free(p);
    auto* q = static_cast<uint8_t*>(ha_calloc(25, 8));
    ASSERT_EQ(q, p);
    for (int i = 0; i < 200; i++)
        ASSERT_EQ(q[i], 0) << i;
    ha_free(q);
    EXPECT_EQ(ha_calloc(SIZE_MAX / 2, 3), nullptr) << "product overflows";
    EXPECT_EQ(ha_malloc(SIZE_MAX - 8), nullptr);
}

TEST_F(HaMalloc, ForeignPointerIsIgnored)
{
    // A buffer that merely looks like user memory: the magic is missing, so nothing is listed or freed.
    void* p = ha_malloc(10);
    ASSERT_NE(p, nullptr);
    ha_free(p);
    alignas(8) char fake[64] = {};
    ha_free(fake + ha_malloc_hdr_offset);
    for (int i = 0; i < HA_BUCKETS; i++)
        EXPECT_EQ(ha_free_count(i), i == 0 ? 1u : 0u) << i;
    EXPECT_EQ(ha_malloc(10), p);
    ha_free(p);
}

TEST_F(HaMalloc, ConcurrentThreadsNeverShareABlock)
{
    constexpr int threads = 4;
    constexpr int rounds = 3000;
    std::vector<std::thread> ts;
    std::vector<int> bad(threads, 0);
    for (int t = 0; t < threads; t++) {
        ts.emplace_back([t, &bad] {
            uint32_t seed = 77 + t;
            std::vector<std::pair<uint8_t*, std::size_t>> held;
            for (int i = 0; i < rounds; i++) {
                seed = seed * 1664525u + 1013904223u;
                std::size_t size = (seed >> 8) % 3000;
                auto* p = static_cast<uint8_t*>(ha_malloc(size));
                if (p == nullptr) {
                    bad[t]++;
                    continue;
                }
                std::memset(p, t + 1, size);
                held.emplace_back(p, size);
                // Keep a few blocks alive so that other threads' blocks would collide with them.
                if (held.size() > 8 || (seed & 1)) {
                    auto [q, n] = held.front();
                    held.erase(held.begin());
                    for (std::size_t k = 0; k < n; k++)
                        if (q[k] != t + 1) {
                            bad[t]++;
                            break;
                        }
                    ha_free(q);
                }
            }
            for (auto [q, n] : held) {
                for (std::size_t k = 0; k < n; k++)
                    if (q[k] != t + 1) {
                        bad[t]++;
                        break;
                    }
                ha_free(q);
            }
        });
    }
    for (auto& th : ts)
        th.join();
    for (int t = 0; t < threads; t++)
        EXPECT_EQ(bad[t], 0) << "thread " << t;
}

TEST_F(HaMalloc, ForkedChildUsesTheInheritedLock)
{
    void* p = ha_malloc(300);
    ASSERT_NE(p, nullptr);
    ha_free(p);
    pid_t pid = fork();
    ASSERT_NE(pid, -1);
    if (pid == 0) {
        // The child's tables are a copy: it gets the same block back from its own bucket 5.
        void* q = ha_malloc(400);
        int rc = (q == p) ? 0 : 1;
        ha_free(q);
        _exit(rc);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    // The parent's list is untouched by the child.
    EXPECT_EQ(ha_free_count(5), 1u);
}
