#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "memory/orbs3_workspace.h"

namespace {

struct ws_fixture : ::testing::Test {
    alignas(8) char space[256];
    orbs3_ws_t ws;
    void SetUp() override { ws_init(&ws, "test", space, sizeof(space)); }
};

using Workspace = ws_fixture;
using WorkspaceDeathTest = ws_fixture;

}  // namespace

TEST_F(Workspace, AllocRoundsUpToEightAndOverflowLeavesFrontAlone)
{
    struct step {
        std::size_t size;
        std::ptrdiff_t advance;  // -1: must fail
    };
    const step steps[] = {{1, 8}, {8, 8}, {9, 16}, {0, 0}, {208, 208}, {17, -1}, {SIZE_MAX, -1}, {SIZE_MAX - 3, -1},
                          {16, 16}, {1, -1}};
    uint64_t failures = 0;
    for (const step& st : steps) {
        char* before = ws.f;
        char* p = ws_alloc(&ws, st.size);
        if (st.advance < 0) {
            EXPECT_EQ(p, nullptr) << st.size;
            EXPECT_EQ(ws.f, before) << st.size;
            EXPECT_EQ(ws.overflow, ++failures) << st.size;
        } else {
            EXPECT_EQ(p, before) << st.size;
            EXPECT_EQ(ws.f - before, st.advance) << st.size;
            std::memset(p, 'x', st.size);
        }
    }
    EXPECT_EQ(ws_free(&ws), 0u);
}

TEST_F(Workspace, DupCopiesWithTerminator)
{
    char* d = ws_dup(&ws, "hello");
    ASSERT_NE(d, nullptr);
    EXPECT_STREQ(d, "hello");
    EXPECT_EQ(ws.f, space + 8);
    ASSERT_NE(ws_alloc(&ws, ws_free(&ws) - 8), nullptr);
    EXPECT_EQ(ws_dup(&ws, "12345678"), nullptr) << "nine bytes do not fit in eight";
    EXPECT_EQ(ws.overflow, 1u);
    EXPECT_NE(ws_dup(&ws, "1234567"), nullptr);
}

TEST_F(Workspace, SnapshotAndReset)
{
    ASSERT_NE(ws_alloc(&ws, 16), nullptr);
    char* snap = ws_snapshot(&ws);
    EXPECT_EQ(snap, space + 16);
    ASSERT_NE(ws_alloc(&ws, 64), nullptr);
    ws_reset(&ws, snap);
    EXPECT_EQ(ws.f, snap);
    ws_reset(&ws, nullptr);
    EXPECT_EQ(ws.f, space);
}

TEST_F(Workspace, ReserveRoundsDownAndReleaseRoundsUp)
{
    struct step {
        std::size_t want;
        std::size_t got;
    };
    // Fresh space of 256 bytes for each row.
    const step rows[] = {{0, 256}, {100, 96}, {256, 256}, {257, 256}, {8, 8}, {15, 8}};
    for (const step& row : rows) {
        ws_reset(&ws, nullptr);
        EXPECT_EQ(ws_reserve(&ws, row.want), row.got) << row.want;
        EXPECT_EQ(ws.r, ws.f + row.got) << row.want;
        EXPECT_EQ(ws.f, space) << "a reservation does not move the front";
        ws_release(&ws, 0);
        EXPECT_EQ(ws.r, nullptr);
    }

    ASSERT_NE(ws_alloc(&ws, 40), nullptr);
    EXPECT_EQ(ws_reserve(&ws, 0), 216u) << "all that is left";
    char* f = ws.f;
    std::memcpy(f, "abcdefghij", 10);
    ws_release(&ws, 10);
    EXPECT_EQ(ws.f, f + 16);
    EXPECT_EQ(ws.r, nullptr);

    EXPECT_EQ(ws_reserve(&ws, 100), 96u);
    f = ws.f;
    ws_releasep(&ws, f + 13);
    EXPECT_EQ(ws.f, f + 16);
    EXPECT_EQ(ws.r, nullptr);

    // Using all of a reservation leaves the front at its end.
    std::size_t n = ws_reserve(&ws, 0);
    ws_release(&ws, n);
    EXPECT_EQ(ws.f, ws.e);
    EXPECT_EQ(ws_reserve(&ws, 0), 0u);
    ws_release(&ws, 0);
}

TEST_F(WorkspaceDeathTest, BrokenInvariantAbortsWithCondition)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    orbs3_ws_t bad = ws;
    bad.f = bad.s - 8;
    EXPECT_DEATH(ws_assert(&bad), "ws->f >= ws->s");
    bad = ws;
    bad.f = bad.s + 3;
    EXPECT_DEATH(ws_assert(&bad), "ws_aligned\\(ws->f\\)");
    bad = ws;
    bad.r = bad.e + 8;
    EXPECT_DEATH(ws_assert(&bad), "ws->r <= ws->e");
    bad = ws;
    bad.e = bad.s;
    EXPECT_DEATH(ws_assert(&bad), "ws->s < ws->e");

    // Protocol faults: allocating or resetting while a reservation is open.
    EXPECT_DEATH(
        {
            (void)ws_reserve(&ws, 64);
            (void)ws_alloc(&ws, 8);
        },
        "ws->r == nullptr");
    EXPECT_DEATH(
        {
            (void)ws_reserve(&ws, 64);
            ws_reset(&ws, nullptr);
        },
        "ws->r == nullptr");
    EXPECT_DEATH(
        {
            (void)ws_reserve(&ws, 64);
            ws_release(&ws, 72);
        },
        "used <=");
    EXPECT_DEATH(ws_reset(&ws, ws.e + 8), "pos >= ws->s && pos <= ws->e");
}
