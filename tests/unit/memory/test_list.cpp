#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "memory/neo_list.h"

namespace {

struct rec {
    int id;
    neo_list_head_t link;  // not first, so list_entry must subtract the offset
};

std::vector<int> forward(neo_list_head_t* head)
{
    std::vector<int> ids;
    neo_list_head_t* pos;
    list_for_each(pos, head) ids.push_back(list_entry(pos, rec, link)->id);
    return ids;
}

std::vector<int> backward(neo_list_head_t* head)
{
    std::vector<int> ids;
    for (neo_list_head_t* pos = head->prev; pos != head; pos = pos->prev)
        ids.push_back(list_entry(pos, rec, link)->id);
    return ids;
}

}  // namespace

TEST(LinkedList, AddTailAppendsAddPrependsAndDeleteUnlinksFromAnyPlace)
{
    neo_list_head_t head;
    INIT_LIST_HEAD(&head);
    EXPECT_TRUE(list_empty(&head));
    rec r[5] = {{0, {}}, {1, {}}, {2, {}}, {3, {}}, {4, {}}};

    list_add_tail(&r[1].link, &head);
    EXPECT_FALSE(list_empty(&head));
    list_del(&r[1].link);
    EXPECT_TRUE(list_empty(&head)) << "deleting the only node";
    EXPECT_EQ(head.prev, &head);

    list_add_tail(&r[1].link, &head);
    list_add_tail(&r[2].link, &head);
    list_add_tail(&r[3].link, &head);
    list_add(&r[0].link, &head);
    list_add_tail(&r[4].link, &head);
    EXPECT_EQ(forward(&head), (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_EQ(backward(&head), (std::vector<int>{4, 3, 2, 1, 0}));

    list_del(&r[0].link);  // first
    list_del(&r[2].link);  // middle
    list_del(&r[4].link);  // last
    EXPECT_EQ(forward(&head), (std::vector<int>{1, 3}));
    EXPECT_EQ(backward(&head), (std::vector<int>{3, 1}));
}

TEST(LinkedList, SafeWalksAllowRemovingTheCurrentNode)
{
    neo_list_head_t head;
    INIT_LIST_HEAD(&head);
    int values[6] = {10, 11, 12, 13, 14, 15};
    std::vector<orbs3_list_node_t> nodes(6);
    for (int i = 0; i < 6; i++) {
        nodes[i].data = &values[i];
        list_add_tail(&nodes[i].list, &head);
    }

    // Remove the even records while walking; a removed node's links are poisoned at once.
    neo_list_head_t *pos, *n;
    list_for_each_safe(pos, n, &head) {
        if (*static_cast<int*>(orbs3_list_node(pos)->data) % 2 == 0)
            list_del(pos);
    }
    std::vector<int> left;
    list_for_each(pos, &head) left.push_back(*static_cast<int*>(orbs3_list_node(pos)->data));
    EXPECT_EQ(left, (std::vector<int>{11, 13, 15}));

    // The record-typed walk empties the list.
    orbs3_list_node_t *node, *next;
    int seen = 0;
    list_for_each_entry_safe(node, next, &head, list) {
        seen += *static_cast<int*>(node->data);
        list_del(&node->list);
    }
    EXPECT_EQ(seen, 11 + 13 + 15);
    EXPECT_TRUE(list_empty(&head));
}
