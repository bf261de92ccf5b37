#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include "event/neo_event_timer.h"
#include "event/orbs3_event.h"
#include "memory/rbtree_check.h"

namespace {

// What handlers saw, in call order. Each event's `data` points here.
struct recorder {
    std::vector<orbs3_event_t*> fired;
    std::vector<bool> timedout;
    std::vector<bool> timer_set;
};

void record(orbs3_event_t* ev)
{
    auto* r = static_cast<recorder*>(ev->data);
    r->fired.push_back(ev);
    r->timedout.push_back(ev->timedout != 0);
    r->timer_set.push_back(ev->timer_set != 0);
}

orbs3_event_t make_event(recorder* r, orbs3_event_handler_pt h = record)
{
    orbs3_event_t ev{};
    ev.data = r;
    ev.handler = h;
    return ev;
}

// The timer tree is a valid tree of `count` timers.
::testing::AssertionResult timer_tree_valid(std::size_t count)
{
    pthread_rwlock_wrlock(&neo_event_lock);
    auto res = rbtree_check::valid(neo_event_timer_rbtree, count, true);
    pthread_rwlock_unlock(&neo_event_lock);
    return res;
}

// Waits, a bounded time, until the wall clock is past `key`, so that the deadline has come.
void wait_past(uint64_t key)
{
    auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (neo_get_timer() <= key && std::chrono::steady_clock::now() < give_up)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_GT(neo_get_timer(), key);
}

class Timer : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(neo_event_timer_init(), 0); }
    void TearDown() override
    {
        // Events are locals of the test: one left behind would dangle in the next test.
        EXPECT_TRUE(neo_rbtree_empty(&neo_event_timer_rbtree));
        neo_event_timer_init();
    }
};

}  // namespace

TEST_F(Timer, ExpiredTimersFireInDeadlineOrderAndLaterOnesStay)
{
    recorder r;
    std::vector<orbs3_event_t> evs(20, make_event(&r));
    std::vector<uint64_t> delays(evs.size());
    for (std::size_t i = 0; i < delays.size(); i++)
        delays[i] = i * 3 % 20;  // a permutation of 0..19
    std::vector<uint64_t> keys(evs.size());
    for (std::size_t i = 0; i < evs.size(); i++) {
        neo_event_add_timer_ms(&evs[i], delays[i]);
        keys[i] = evs[i].timer.key;
        EXPECT_TRUE(evs[i].timer_set);
    }
    orbs3_event_t later = make_event(&r);
    neo_event_add_timer(&later, 3600);
    ASSERT_TRUE(timer_tree_valid(evs.size() + 1));

    wait_past(*std::max_element(keys.begin(), keys.end()));
    neo_event_expire_timers();

    ASSERT_EQ(r.fired.size(), evs.size());
    for (std::size_t i = 0; i < r.fired.size(); i++) {
        EXPECT_TRUE(r.timedout[i]);
        EXPECT_FALSE(r.timer_set[i]);
        if (i > 0) {
            EXPECT_LE(keys[r.fired[i - 1] - evs.data()], keys[r.fired[i] - evs.data()]) << "call " << i;
        }
    }
    EXPECT_TRUE(later.timer_set);
    EXPECT_FALSE(later.timedout);
    int64_t left = neo_event_find_timer();
    EXPECT_GT(left, 0);
    EXPECT_LE(left, 3600 * 1000);

    neo_event_del_timer(&later);
    EXPECT_FALSE(later.timer_set);
}

TEST_F(Timer, AddOnSetTimerMovesItAndDeleteEmptiesTree)
{
    recorder r;
    orbs3_event_t ev = make_event(&r);
    EXPECT_EQ(neo_event_find_timer(), -1);

    neo_event_add_timer(&ev, 3600);
    uint64_t first = ev.timer.key;
    neo_event_add_timer(&ev, 7200);
    EXPECT_GE(ev.timer.key, first + 3600 * 1000);
    EXPECT_TRUE(timer_tree_valid(1));
    EXPECT_GT(neo_event_find_timer(), 3600 * 1000);

    // And back to a nearer deadline: the tree's minimum follows.
    neo_event_add_timer_ms(&ev, 0);
    EXPECT_TRUE(timer_tree_valid(1));
    EXPECT_EQ(neo_event_find_timer(), 0) << "a due deadline gives 0";
    wait_past(ev.timer.key);
    EXPECT_EQ(neo_event_find_timer(), 0) << "a passed deadline gives 0, never -1";

    neo_event_del_timer(&ev);
    EXPECT_FALSE(ev.timer_set);
    EXPECT_EQ(neo_event_find_timer(), -1);
    neo_event_del_timer(&ev);  // not set: nothing to remove
    EXPECT_TRUE(neo_rbtree_empty(&neo_event_timer_rbtree));
    EXPECT_TRUE(r.fired.empty());
}

TEST_F(Timer, EqualDeadlinesBothExpireInOneCallInOrderOfArrival)
{
    recorder r;
    orbs3_event_t a = make_event(&r);
    orbs3_event_t b = make_event(&r);
    // Both are set within one millisecond almost always; retry the rare pair that straddles a tick.
    for (int tries = 0; tries < 100; tries++) {
        neo_event_add_timer_ms(&a, 1);
        neo_event_add_timer_ms(&b, 1);
        if (a.timer.key == b.timer.key)
            break;
        neo_event_del_timer(&a);
        neo_event_del_timer(&b);
    }
    ASSERT_TRUE(a.timer_set && b.timer_set);
    ASSERT_EQ(a.timer.key, b.timer.key);

    wait_past(a.timer.key);
    neo_event_expire_timers();
    ASSERT_EQ(r.fired.size(), 2u);
    EXPECT_EQ(r.fired[0], &a);
    EXPECT_EQ(r.fired[1], &b);
    EXPECT_EQ(neo_event_find_timer(), -1);
}

namespace {

struct chain {
    recorder rec;
    orbs3_event_t* due_next;    // set by the first handler, already due
    orbs3_event_t* far_next;    // set by the second handler, an hour ahead
};

void add_due(orbs3_event_t* ev)
{
    record(ev);
    neo_event_add_timer_ms(static_cast<chain*>(ev->data)->due_next, 0);
}

void add_far(orbs3_event_t* ev)
{
    record(ev);
    neo_event_add_timer(static_cast<chain*>(ev->data)->far_next, 3600);
}

}  // namespace

TEST_F(Timer, HandlerMayAddTimersDuringExpiry)
{
    chain c{};
    orbs3_event_t first{};
    orbs3_event_t second{};
    orbs3_event_t third{};
    for (orbs3_event_t* ev : {&first, &second, &third})
        ev->data = &c;
    first.handler = add_due;
    second.handler = add_far;
    third.handler = record;
    c.due_next = &second;
    c.far_next = &third;

    neo_event_add_timer_ms(&first, 0);
    wait_past(first.timer.key);
    neo_event_expire_timers();

    // The timer the first handler set was due, so it fired in the same call; the hour-long one waits.
    ASSERT_EQ(c.rec.fired.size(), 2u);
    EXPECT_EQ(c.rec.fired[0], &first);
    EXPECT_EQ(c.rec.fired[1], &second);
    EXPECT_TRUE(second.timedout);
    EXPECT_TRUE(third.timer_set);
    EXPECT_FALSE(third.timedout);
    EXPECT_TRUE(timer_tree_valid(1));
    neo_event_del_timer(&third);
}

TEST_F(Timer, CancelCallsEveryHandlerEarliestFirstWithoutTimedout)
{
    recorder r;
    std::vector<orbs3_event_t> evs(5, make_event(&r));
    const uint64_t seconds[] = {50, 10, 40, 20, 30};
    for (std::size_t i = 0; i < evs.size(); i++)
        neo_event_add_timer(&evs[i], seconds[i]);

    event_cancel_timers();
    ASSERT_EQ(r.fired.size(), evs.size());
    const std::size_t expect[] = {1, 3, 4, 2, 0};
    for (std::size_t i = 0; i < r.fired.size(); i++) {
        EXPECT_EQ(r.fired[i], &evs[expect[i]]) << "call " << i;
        EXPECT_FALSE(r.timedout[i]);
        EXPECT_FALSE(r.timer_set[i]);
    }
    EXPECT_EQ(neo_event_find_timer(), -1);
}

TEST_F(Timer, ConcurrentAddAndDeleteKeepTreeConsistent)
{
    constexpr int kThreads = 4;
    constexpr int kEvents = 64;
    std::vector<std::vector<orbs3_event_t>> evs(kThreads, std::vector<orbs3_event_t>(kEvents, make_event(nullptr)));
    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; t++) {
        workers.emplace_back([&evs, t] {
            std::mt19937 rng(static_cast<unsigned>(t));
            for (int op = 0; op < 5000; op++) {
                orbs3_event_t& ev = evs[t][rng() % kEvents];
                if (rng() % 3 == 0)
                    neo_event_del_timer(&ev);
                else
                    neo_event_add_timer(&ev, 3600 + rng() % 100);
            }
        });
    }
    for (auto& w : workers)
        w.join();

    std::size_t set = 0;
    for (auto& row : evs)
        for (auto& ev : row)
            set += ev.timer_set;
    EXPECT_TRUE(timer_tree_valid(set));
    for (auto& row : evs)
        for (auto& ev : row)
            neo_event_del_timer(&ev);
}

TEST(TimerClock, MillisecondsSecondsAndMicrosecondsAgree)
{
    uint64_t s = neo_get_sec_timer();
    uint64_t ms = neo_get_timer();
    uint64_t us = neo_get_usec_timer();
    // Read in that order, each clock is at or after the one before, and all within seconds of each other.
    EXPECT_GE(ms / 1000, s);
    EXPECT_LE(ms / 1000, s + 5);
    EXPECT_GE(us / 1000, ms);
    EXPECT_LE(us / 1000, ms + 5000);
}
