#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "memory/neo_rbtree.h"
#include "memory/rbtree_check.h"

namespace {

struct item {
    neo_rbtree_node_t node;  // first, so a node pointer is the item's pointer
    uint64_t key;            // the key to insert with; the node's own key is cleared on delete
    uint64_t seq;            // arrival: when this item was last inserted
    bool in_tree;
};

item* of(neo_rbtree_node_t* n)
{
    return reinterpret_cast<item*>(n);
}

struct tree_fixture {
    neo_rbtree_t tree{};
    neo_rbtree_node_t sentinel{};
    uint64_t arrivals = 0;

    explicit tree_fixture(neo_rbtree_insert_pt insert) { neo_rbtree_init(&tree, &sentinel, insert); }

    void insert(item& it)
    {
        it.node.key = it.key;
        it.seq = arrivals++;
        it.in_tree = true;
        neo_rbtree_insert(&tree, &it.node);
    }
    void remove(item& it)
    {
        neo_rbtree_delete(&tree, &it.node);
        it.in_tree = false;
    }
};

// Keys in order, and among equal keys the earlier arrival first.
::testing::AssertionResult ordered_by_key_then_arrival(const std::vector<neo_rbtree_node_t*>& order)
{
    for (std::size_t i = 1; i < order.size(); i++) {
        const item* a = of(order[i - 1]);
        const item* b = of(order[i]);
        if (a->key > b->key || (a->key == b->key && a->seq > b->seq))
            return ::testing::AssertionFailure() << "out of order at " << i << ": key " << a->key << "/" << b->key
                                                 << " arrival " << a->seq << "/" << b->seq;
    }
    return ::testing::AssertionSuccess();
}

}  // namespace

TEST(RbTree, RandomInsertDeleteKeepsInvariantsAndOrder)
{
    struct row {
        const char* name;
        uint64_t key_mask;  // small masks give many duplicates
    };
    const row rows[] = {
        {"eight distinct keys", 7},
        {"a thousand keys", 1023},
        {"full width", ~uint64_t{0}},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        std::mt19937_64 rng(0x5eed + r.key_mask);
        std::vector<item> items(1500);
        for (auto& it : items)
            it.key = rng() & r.key_mask;
        tree_fixture t(neo_rbtree_insert_value);
        std::size_t count = 0;

        for (int op = 0; op < 6000; op++) {
            item& it = items[rng() % items.size()];
            bool inserting = !it.in_tree;
            if (inserting) {
                t.insert(it);
                count++;
            } else {
                t.remove(it);
                count--;
                ASSERT_EQ(it.node.left, nullptr);
                ASSERT_EQ(it.node.right, nullptr);
                ASSERT_EQ(it.node.parent, nullptr);
                ASSERT_EQ(it.node.key, 0u);
            }
            std::vector<neo_rbtree_node_t*> order;
            ASSERT_TRUE(rbtree_check::valid(t.tree, count, true, &order)) << "after op " << op;
            ASSERT_TRUE(ordered_by_key_then_arrival(order)) << "after op " << op;
            if (count > 0) {
                ASSERT_EQ(neo_rbtree_min(t.tree.root, t.tree.sentinel), order.front());
            }
        }

        // Drain in random order: each removal keeps the tree valid and ends with an empty tree.
        std::vector<item*> left;
        for (auto& it : items)
            if (it.in_tree)
                left.push_back(&it);
        std::shuffle(left.begin(), left.end(), rng);
        for (item* it : left) {
            t.remove(*it);
            count--;
            ASSERT_TRUE(rbtree_check::valid(t.tree, count, true));
        }
        EXPECT_TRUE(neo_rbtree_empty(&t.tree));
    }
}

TEST(RbTree, TimerInsertKeepsArrivalOrderWhateverTheKeys)
{
    std::mt19937_64 rng(42);
    std::vector<item> items(500);
    tree_fixture t(neo_rbtree_insert_timer_value);
    for (std::size_t i = 0; i < items.size(); i++) {
        items[i].key = rng() % 100;
        t.insert(items[i]);
        ASSERT_TRUE(rbtree_check::valid(t.tree, i + 1, false));
    }
    std::vector<neo_rbtree_node_t*> order;
    ASSERT_TRUE(rbtree_check::valid(t.tree, items.size(), false, &order));
    for (std::size_t i = 0; i < order.size(); i++) {
        ASSERT_EQ(order[i], &items[i].node) << "position " << i;
    }

    // The minimum is always the oldest arrival.
    for (std::size_t i = 0; i < items.size(); i++) {
        ASSERT_EQ(neo_rbtree_min(t.tree.root, t.tree.sentinel), &items[i].node);
        t.remove(items[i]);
        ASSERT_TRUE(rbtree_check::valid(t.tree, items.size() - i - 1, false));
    }
    EXPECT_TRUE(neo_rbtree_empty(&t.tree));
}
