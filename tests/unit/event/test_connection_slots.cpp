// Connection slots: the free list of long-lived connections, and client connections in their own pools.
#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "core/orbs3_config.h"
#include "event/orbs3_connection.h"

namespace {

class ConnectionSlots : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (orbs3_cycle == nullptr) {
            ASSERT_EQ(orbs3_init_cycle(), 0);
        }
        ASSERT_EQ(orbs3_event_process_init(), 0);
    }
    void TearDown() override { orbs3_event_process_exit(); }
};

TEST_F(ConnectionSlots, FreeListHandsOutEverySlotOnceInTableOrderAndTakesThemBackLastInFirstOut)
{
    orbs3_cycle_t* cy = orbs3_cycle;
    ASSERT_EQ(cy->connection_n, ORBS3_CONNECTION_SLOTS);
    ASSERT_EQ(cy->free_connection_n, ORBS3_CONNECTION_SLOTS);
    EXPECT_EQ(orbs3_conn_counters.free_slots.load(), ORBS3_CONNECTION_SLOTS);

    std::vector<orbs3_connection_t*> taken;
    for (int i = 0; i < ORBS3_CONNECTION_SLOTS; i++) {
        orbs3_connection_t* c = orbs3_get_connection(100 + i);
        ASSERT_NE(c, nullptr) << "slot " << i;
        // The first record heads the list, so slots come out in table order, each with its own events.
        ASSERT_EQ(c, &cy->connections[i]);
        EXPECT_EQ(c->fd, 100 + i);
        EXPECT_EQ(c->read, &cy->read_events[i]);
        EXPECT_EQ(c->write, &cy->write_events[i]);
        EXPECT_EQ(c->read->data, c);
        EXPECT_EQ(c->write->data, c);
        EXPECT_EQ(c->data, nullptr) << "the free-list link must not leak into a taken slot";
        taken.push_back(c);
    }
    EXPECT_EQ(cy->free_connection_n, 0);
    EXPECT_EQ(orbs3_conn_counters.free_slots.load(), 0);
    EXPECT_EQ(orbs3_get_connection(7), nullptr) << "1025th slot";

    orbs3_free_connection(taken[5]);
    orbs3_free_connection(taken[700]);
    EXPECT_EQ(taken[700]->fd, -1);
    EXPECT_TRUE(taken[700]->closed);
    EXPECT_TRUE(taken[700]->read->closed);
    EXPECT_TRUE(taken[700]->write->closed);
    EXPECT_EQ(cy->free_connection_n, 2);
    EXPECT_EQ(orbs3_get_connection(1), taken[700]);
    EXPECT_EQ(orbs3_get_connection(2), taken[5]);
    EXPECT_FALSE(taken[5]->closed) << "a slot taken again is cleared";
    EXPECT_EQ(orbs3_get_connection(3), nullptr);

    for (orbs3_connection_t* c : taken)
        orbs3_free_connection(c);
    EXPECT_EQ(cy->free_connection_n, ORBS3_CONNECTION_SLOTS);
    EXPECT_EQ(orbs3_conn_counters.free_slots.load(), ORBS3_CONNECTION_SLOTS);
    std::set<orbs3_connection_t*> again;
    for (int i = 0; i < ORBS3_CONNECTION_SLOTS; i++)
        again.insert(orbs3_get_connection(i));
    EXPECT_EQ(again.size(), static_cast<std::size_t>(ORBS3_CONNECTION_SLOTS)) << "no slot is on the list twice";
    EXPECT_EQ(again.count(nullptr), 0u);
    for (orbs3_connection_t* c : again)
        orbs3_free_connection(c);
}

TEST_F(ConnectionSlots, FoundConnectionOwnsAPoolThatGoesBackWithTheSlot)
{
    orbs3_connection_t* c = orbs3_found_connection(42);
    ASSERT_NE(c, nullptr);
    ASSERT_NE(c->pool, nullptr);
    ASSERT_NE(c->peer, nullptr);
    ASSERT_NE(c->sockaddr, nullptr);
    EXPECT_EQ(c->fd, 42);
    EXPECT_EQ(c->async_fd, -1);
    EXPECT_FALSE(c->closed);
    EXPECT_EQ(orbs3_cycle->free_connection_n, ORBS3_CONNECTION_SLOTS - 1);
    // Under the sanitizer a pool left behind here would be reported as a leak.
    orbs3_free_connection(c);
    EXPECT_EQ(c->pool, nullptr);
    EXPECT_EQ(orbs3_cycle->free_connection_n, ORBS3_CONNECTION_SLOTS);
}

TEST_F(ConnectionSlots, ClientConnectionLivesInItsOwnPoolAndIsNeverASlot)
{
    orbs3_connection_t* c = orbs3_create_connection(sysconfig.conn_pool_size);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->fd, -1);
    EXPECT_EQ(c->read->data, c);
    EXPECT_EQ(c->write->data, c);
    EXPECT_NE(c->read, c->write);
    EXPECT_NE(c->peer, nullptr);
    EXPECT_NE(c->sockaddr, nullptr);
    EXPECT_EQ(orbs3_cycle->free_connection_n, ORBS3_CONNECTION_SLOTS) << "no slot taken";

    // Giving a client connection to the slot list would corrupt it: it is refused.
    orbs3_free_connection(c);
    EXPECT_EQ(orbs3_cycle->free_connection_n, ORBS3_CONNECTION_SLOTS);

    uint64_t closed = orbs3_conn_counters.closed;
    orbs3_close_connection(c);  // the pool, and the record in it, are gone
    EXPECT_EQ(orbs3_conn_counters.closed.load(), closed + 1);

    EXPECT_EQ(orbs3_create_connection(16), nullptr) << "a pool too small for its head";
}

// The worker's exit ends the client connections still open; under the sanitizer a pool left behind (it
// is reachable only through the kernel's epoll set) would be reported as a leak.
TEST_F(ConnectionSlots, ExitClosesEveryConnectionStillOpen)
{
    uint64_t closed = orbs3_conn_counters.closed;
    orbs3_connection_t* keep = orbs3_create_connection(sysconfig.conn_pool_size);
    ASSERT_NE(keep, nullptr);
    for (int i = 0; i < 3; i++)
        ASSERT_NE(orbs3_create_connection(sysconfig.conn_pool_size), nullptr);
    orbs3_close_connection(keep);  // closed on its own first: not closed twice below
    orbs3_close_all_connections();
    EXPECT_EQ(orbs3_conn_counters.closed.load(), closed + 4);
    orbs3_close_all_connections();
    EXPECT_EQ(orbs3_conn_counters.closed.load(), closed + 4) << "nothing is left to close";
}

}  // namespace
