#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "event/neo_posted.h"
#include "event/orbs3_event.h"

namespace {

std::vector<orbs3_event_t*> g_ran;

void note(orbs3_event_t* ev)
{
    g_ran.push_back(ev);
}

class Posted : public ::testing::Test {
protected:
    neo_post_queue_t queue{};
    void SetUp() override
    {
        neo_post_queue_init(&queue);
        g_ran.clear();
    }
    void TearDown() override
    {
        neo_event_process_post(&queue);  // frees nodes a failed test left behind
    }
};

}  // namespace

TEST_F(Posted, GetTaskRunsOldestFirstAndEmptyQueueRunsNothing)
{
    EXPECT_EQ(neo_queue_get_task(&queue, nullptr), 0);
    EXPECT_TRUE(g_ran.empty());

    std::vector<orbs3_event_t> evs(4);
    for (auto& ev : evs) {
        ev.handler = note;
        ASSERT_EQ(neo_queue_add_task(&queue, &ev), 0);
    }
    EXPECT_EQ(neo_queue_get_task(&queue, nullptr), 0);
    EXPECT_EQ(neo_queue_get_task(&queue, nullptr), 0);
    ASSERT_EQ(g_ran.size(), 2u);
    EXPECT_EQ(g_ran[0], &evs[0]);
    EXPECT_EQ(g_ran[1], &evs[1]);

    // One added now queues behind the two still waiting.
    orbs3_event_t late{};
    late.handler = note;
    ASSERT_EQ(neo_queue_add_task(&queue, &late), 0);
    neo_event_process_post(&queue);
    ASSERT_EQ(g_ran.size(), 5u);
    EXPECT_EQ(g_ran[2], &evs[2]);
    EXPECT_EQ(g_ran[3], &evs[3]);
    EXPECT_EQ(g_ran[4], &late);
    EXPECT_TRUE(neo_post_queue_empty(&queue));
}

namespace {

neo_post_queue_t* g_repost_queue;
orbs3_event_t* g_repost_next;

// Posts one more event while the queue is being run.
void post_another(orbs3_event_t* ev)
{
    note(ev);
    if (g_repost_next != nullptr) {
        orbs3_event_t* next = g_repost_next;
        g_repost_next = nullptr;
        EXPECT_EQ(neo_queue_add_task(g_repost_queue, next), 0);
    }
}

}  // namespace

TEST_F(Posted, ProcessPostRunsEventsPostedByHandlers)
{
    orbs3_event_t first{};
    orbs3_event_t second{};
    first.handler = post_another;
    second.handler = note;
    g_repost_queue = &queue;
    g_repost_next = &second;
    ASSERT_EQ(neo_queue_add_task(&queue, &first), 0);
    neo_event_process_post(&queue);
    ASSERT_EQ(g_ran.size(), 2u);
    EXPECT_EQ(g_ran[0], &first);
    EXPECT_EQ(g_ran[1], &second);
    EXPECT_TRUE(neo_post_queue_empty(&queue));
}

TEST_F(Posted, ConcurrentProducersKeepEachOnesOrder)
{
    constexpr int kProducers = 4;
    constexpr int kEach = 2000;
    std::vector<std::vector<orbs3_event_t>> evs(kProducers, std::vector<orbs3_event_t>(kEach));
    for (int p = 0; p < kProducers; p++)
        for (int i = 0; i < kEach; i++) {
            evs[p][i].handler = note;
            evs[p][i].count = static_cast<uint32_t>(p * kEach + i);
        }
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; p++)
        producers.emplace_back([&, p] {
            for (int i = 0; i < kEach; i++) {
                EXPECT_EQ(neo_queue_add_task(&queue, &evs[p][i]), 0);
            }
        });
    // The consumer takes while producers add.
    std::size_t taken = 0;
    while (taken < static_cast<std::size_t>(kProducers * kEach) / 2) {
        EXPECT_EQ(neo_queue_get_task(&queue, nullptr), 0);
        taken = g_ran.size();
    }
    for (auto& t : producers)
        t.join();
    neo_event_process_post(&queue);

    ASSERT_EQ(g_ran.size(), static_cast<std::size_t>(kProducers * kEach));
    std::vector<int> next(kProducers, 0);
    for (orbs3_event_t* ev : g_ran) {
        int p = static_cast<int>(ev->count) / kEach;
        int i = static_cast<int>(ev->count) % kEach;
        ASSERT_EQ(i, next[p]) << "producer " << p;
        next[p]++;
    }
}
