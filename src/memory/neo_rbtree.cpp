#include "memory/neo_rbtree.h"

#include "memory/orbs3_assert.h"

namespace {

inline void set_red(neo_rbtree_node_t* n)
{
    n->color = 1;
}
inline void set_black(neo_rbtree_node_t* n)
{
    n->color = 0;
}
inline bool is_red(const neo_rbtree_node_t* n)
{
    return n->color != 0;
}
inline bool is_black(const neo_rbtree_node_t* n)
{
    return n->color == 0;
}

void left_rotate(neo_rbtree_node_t** root, neo_rbtree_node_t* sentinel, neo_rbtree_node_t* node)
{
    neo_rbtree_node_t* temp = node->right;
    node->right = temp->left;
    if (temp->left != sentinel)
        temp->left->parent = node;
    temp->parent = node->parent;
    if (node == *root)
        *root = temp;
    else if (node == node->parent->left)
        node->parent->left = temp;
    else
        node->parent->right = temp;
    temp->left = node;
    node->parent = temp;
}

void right_rotate(neo_rbtree_node_t** root, neo_rbtree_node_t* sentinel, neo_rbtree_node_t* node)
{
    neo_rbtree_node_t* temp = node->left;
    node->left = temp->right;
    if (temp->right != sentinel)
        temp->right->parent = node;
    temp->parent = node->parent;
    if (node == *root)
        *root = temp;
    else if (node == node->parent->right)
        node->parent->right = temp;
    else
        node->parent->left = temp;
    temp->right = node;
    node->parent = temp;
}

// A removed node keeps no pointers into the tree, so a stray second delete or a use after removal
// faults instead of silently corrupting the tree.
void clear_node(neo_rbtree_node_t* node)
{
    node->left = nullptr;
    node->right = nullptr;
    node->parent = nullptr;
    node->key = 0;
}

}  // namespace

void neo_rbtree_init(neo_rbtree_t* tree, neo_rbtree_node_t* sentinel, neo_rbtree_insert_pt insert)
{
    set_black(sentinel);
    sentinel->left = nullptr;
    sentinel->right = nullptr;
    sentinel->parent = nullptr;
    tree->root = sentinel;
    tree->sentinel = sentinel;
    tree->insert = insert;
}

void neo_rbtree_insert(neo_rbtree_t* tree, neo_rbtree_node_t* node)
{
    neo_rbtree_node_t** root = &tree->root;
    neo_rbtree_node_t* sentinel = tree->sentinel;
    ORBS3_ASSERT(node != sentinel);

    if (*root == sentinel) {
        node->parent = nullptr;
        node->left = sentinel;
        node->right = sentinel;
        set_black(node);
        *root = node;
        return;
    }

    tree->insert(*root, node, sentinel);

    while (node != *root && is_red(node->parent)) {
        neo_rbtree_node_t* grand = node->parent->parent;
        if (node->parent == grand->left) {
            neo_rbtree_node_t* uncle = grand->right;
            if (is_red(uncle)) {
                set_black(node->parent);
                set_black(uncle);
                set_red(grand);
                node = grand;
            } else {
                if (node == node->parent->right) {
                    node = node->parent;
                    left_rotate(root, sentinel, node);
                }
                set_black(node->parent);
                set_red(node->parent->parent);
                right_rotate(root, sentinel, node->parent->parent);
            }
        } else {
            neo_rbtree_node_t* uncle = grand->left;
            if (is_red(uncle)) {
                set_black(node->parent);
                set_black(uncle);
                set_red(grand);
                node = grand;
            } else {
                if (node == node->parent->left) {
                    node = node->parent;
                    right_rotate(root, sentinel, node);
                }
                set_black(node->parent);
                set_red(node->parent->parent);
                left_rotate(root, sentinel, node->parent->parent);
            }
        }
    }

    set_black(*root);
    ORBS3_ASSERT(is_black(sentinel));  // shared by every tree over it: a red one breaks them all
}

void neo_rbtree_insert_value(neo_rbtree_node_t* temp, neo_rbtree_node_t* node, neo_rbtree_node_t* sentinel)
{
    neo_rbtree_node_t** p;
    for (;;) {
        // Equal keys go right, so among equal keys an in-order walk meets them in order of arrival.
        p = (node->key < temp->key) ? &temp->left : &temp->right;
        if (*p == sentinel)
            break;
        temp = *p;
    }
    *p = node;
    node->parent = temp;
    node->left = sentinel;
    node->right = sentinel;
    set_red(node);
}

void neo_rbtree_insert_timer_value(neo_rbtree_node_t* temp, neo_rbtree_node_t* node,
                                   neo_rbtree_node_t* sentinel)
{
    while (temp->right != sentinel)
        temp = temp->right;
    temp->right = node;
    node->parent = temp;
    node->left = sentinel;
    node->right = sentinel;
    set_red(node);
}

void neo_rbtree_delete(neo_rbtree_t* tree, neo_rbtree_node_t* node)
{
    neo_rbtree_node_t** root = &tree->root;
    neo_rbtree_node_t* sentinel = tree->sentinel;
    neo_rbtree_node_t* subst;
    neo_rbtree_node_t* temp;
    ORBS3_ASSERT(node != sentinel && *root != sentinel);

    if (node->left == sentinel) {
        temp = node->right;
        subst = node;
    } else if (node->right == sentinel) {
        temp = node->left;
        subst = node;
    } else {
        subst = neo_rbtree_min(node->right, sentinel);
        temp = subst->right;
    }

    if (subst == *root) {
        *root = temp;
        set_black(temp);
        temp->parent = nullptr;
        clear_node(node);
        return;
    }

    bool red = is_red(subst);

    if (subst == subst->parent->left)
        subst->parent->left = temp;
    else
        subst->parent->right = temp;

    // temp may be the sentinel: its parent is set anyway, because the fix-up below climbs from it.
    if (subst == node) {
        temp->parent = subst->parent;
    } else {
        temp->parent = (subst->parent == node) ? subst : subst->parent;

        subst->left = node->left;
        subst->right = node->right;
        subst->parent = node->parent;
        subst->color = node->color;

        if (node == *root)
            *root = subst;
        else if (node == node->parent->left)
            node->parent->left = subst;
        else
            node->parent->right = subst;

        if (subst->left != sentinel)
            subst->left->parent = subst;
        if (subst->right != sentinel)
            subst->right->parent = subst;
    }

    clear_node(node);

    if (red)
        return;

    while (temp != *root && is_black(temp)) {
        if (temp == temp->parent->left) {
            neo_rbtree_node_t* w = temp->parent->right;
            if (is_red(w)) {
                set_black(w);
                set_red(temp->parent);
                left_rotate(root, sentinel, temp->parent);
                w = temp->parent->right;
            }
            ORBS3_ASSERT(w != sentinel);  // the sibling of a node short of one black has a black below it
            if (is_black(w->left) && is_black(w->right)) {
                set_red(w);
                temp = temp->parent;
            } else {
                if (is_black(w->right)) {
                    set_black(w->left);
                    set_red(w);
                    right_rotate(root, sentinel, w);
                    w = temp->parent->right;
                }
                w->color = temp->parent->color;
                set_black(temp->parent);
                set_black(w->right);
                left_rotate(root, sentinel, temp->parent);
                temp = *root;
            }
        } else {
            neo_rbtree_node_t* w = temp->parent->left;
            if (is_red(w)) {
                set_black(w);
                set_red(temp->parent);
                right_rotate(root, sentinel, temp->parent);
                w = temp->parent->left;
            }
            ORBS3_ASSERT(w != sentinel);
            if (is_black(w->left) && is_black(w->right)) {
                set_red(w);
                temp = temp->parent;
            } else {
                if (is_black(w->left)) {
                    set_black(w->right);
                    set_red(w);
                    left_rotate(root, sentinel, w);
                    w = temp->parent->left;
                }
                w->color = temp->parent->color;
                set_black(temp->parent);
                set_black(w->left);
                right_rotate(root, sentinel, temp->parent);
                temp = *root;
            }
        }
    }

    set_black(temp);
}

neo_rbtree_node_t* neo_rbtree_min(neo_rbtree_node_t* node, neo_rbtree_node_t* sentinel)
{
    while (node->left != sentinel)
        node = node->left;
    return node;
}
