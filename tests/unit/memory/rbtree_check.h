// Structural checks of a red-black tree, shared by the tree's and the timer tree's tests.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

#include "memory/neo_rbtree.h"

namespace rbtree_check {

struct walk_state {
    const neo_rbtree_node_t* sentinel;
    std::vector<neo_rbtree_node_t*> order;
    const char* fault = nullptr;
};

// Black height of the subtree, or -1 after recording the first fault.
inline int walk(walk_state& st, neo_rbtree_node_t* n, const neo_rbtree_node_t* parent)
{
    if (n == st.sentinel)
        return 1;
    if (n == nullptr) {
        st.fault = "null link instead of the sentinel";
        return -1;
    }
    if (n->parent != parent) {
        st.fault = "parent link does not match";
        return -1;
    }
    if (n->color == 1 && parent != nullptr && parent->color == 1) {
        st.fault = "red node with a red parent";
        return -1;
    }
    int lh = walk(st, n->left, n);
    if (lh < 0)
        return -1;
    st.order.push_back(n);
    int rh = walk(st, n->right, n);
    if (rh < 0)
        return -1;
    if (lh != rh) {
        st.fault = "black heights differ";
        return -1;
    }
    return lh + (n->color == 0 ? 1 : 0);
}

// Nodes in in-order, or a failure naming the broken invariant. With `by_key`, keys must not decrease.
inline ::testing::AssertionResult valid(const neo_rbtree_t& tree, std::size_t count, bool by_key,
                                        std::vector<neo_rbtree_node_t*>* order = nullptr)
{
    walk_state st{tree.sentinel, {}};
    if (tree.sentinel->color != 0)
        return ::testing::AssertionFailure() << "sentinel is red";
    if (tree.root != tree.sentinel && tree.root->color != 0)
        return ::testing::AssertionFailure() << "root is red";
    if (tree.root != tree.sentinel && tree.root->parent != nullptr)
        return ::testing::AssertionFailure() << "root has a parent";
    if (walk(st, tree.root, nullptr) < 0)
        return ::testing::AssertionFailure() << st.fault;
    if (st.order.size() != count)
        return ::testing::AssertionFailure() << "tree holds " << st.order.size() << " nodes, expected " << count;
    if (by_key)
        for (std::size_t i = 1; i < st.order.size(); i++)
            if (st.order[i - 1]->key > st.order[i]->key)
                return ::testing::AssertionFailure() << "in-order walk not sorted at " << i;
    if (order != nullptr)
        *order = std::move(st.order);
    return ::testing::AssertionSuccess();
}

}  // namespace rbtree_check
