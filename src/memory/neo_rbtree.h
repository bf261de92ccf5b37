// Red-black tree with a shared black sentinel; keys may repeat.
#pragma once

#include <cstdint>

struct neo_rbtree_node_t {
    uint64_t key;
    neo_rbtree_node_t* left;
    neo_rbtree_node_t* right;
    neo_rbtree_node_t* parent;
    uint8_t color;  // 1 red, 0 black
    uint8_t data;   // not used by the tree
};

using neo_rbtree_insert_pt = void (*)(neo_rbtree_node_t* root, neo_rbtree_node_t* node,
                                      neo_rbtree_node_t* sentinel);

struct neo_rbtree_t {
    neo_rbtree_node_t* root;
    neo_rbtree_node_t* sentinel;
    neo_rbtree_insert_pt insert;
};

// Sets up an empty tree over `sentinel`, which becomes black.
void neo_rbtree_init(neo_rbtree_t* tree, neo_rbtree_node_t* sentinel, neo_rbtree_insert_pt insert);
void neo_rbtree_insert(neo_rbtree_t* tree, neo_rbtree_node_t* node);
// Removes and rebalances; clears the node's links and key.
void neo_rbtree_delete(neo_rbtree_t* tree, neo_rbtree_node_t* node);
neo_rbtree_node_t* neo_rbtree_min(neo_rbtree_node_t* node, neo_rbtree_node_t* sentinel);
// Orders by key: smaller to the left, equal or larger to the right.
void neo_rbtree_insert_value(neo_rbtree_node_t* root, neo_rbtree_node_t* node, neo_rbtree_node_t* sentinel);
// Always at the far right: the tree keeps the order of arrival.
void neo_rbtree_insert_timer_value(neo_rbtree_node_t* root, neo_rbtree_node_t* node,
                                   neo_rbtree_node_t* sentinel);

inline bool neo_rbtree_empty(const neo_rbtree_t* tree)
{
    return tree->root == tree->sentinel;
}
