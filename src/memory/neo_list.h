// Circular doubly linked list. A head is a node that points to itself when the list is empty; records
// hang on lists through separate orbs3_list_node_t nodes, so one record can stand in several lists.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

struct neo_list_head_t {
    neo_list_head_t* next;
    neo_list_head_t* prev;
};

// A node of the rule, user, vhost and service lists: links plus the record it carries.
struct orbs3_list_node_t {
    neo_list_head_t list;
    void* data;
};

// What list_del leaves behind: a use of a removed node faults on these addresses instead of
// quietly walking a list it no longer belongs to.
inline constexpr std::uintptr_t NEO_LIST_POISON1 = 0x100100;  // next
inline constexpr std::uintptr_t NEO_LIST_POISON2 = 0x200200;  // prev

inline void INIT_LIST_HEAD(neo_list_head_t* head)
{
    head->next = head;
    head->prev = head;
}

inline void neo_list_insert_between(neo_list_head_t* node, neo_list_head_t* prev, neo_list_head_t* next)
{
    next->prev = node;
    node->next = next;
    node->prev = prev;
    prev->next = node;
}

// At the front, behind the head.
inline void list_add(neo_list_head_t* node, neo_list_head_t* head)
{
    neo_list_insert_between(node, head, head->next);
}

// At the back, before the head.
inline void list_add_tail(neo_list_head_t* node, neo_list_head_t* head)
{
    neo_list_insert_between(node, head->prev, head);
}

inline void list_del(neo_list_head_t* node)
{
    node->next->prev = node->prev;
    node->prev->next = node->next;
    node->next = reinterpret_cast<neo_list_head_t*>(NEO_LIST_POISON1);
    node->prev = reinterpret_cast<neo_list_head_t*>(NEO_LIST_POISON2);
}

[[nodiscard]] inline bool list_empty(const neo_list_head_t* head)
{
    return head->next == head;
}

// The record that holds `ptr` as its field `member`.
#define list_entry(ptr, type, member) \
    (reinterpret_cast<type*>(reinterpret_cast<char*>(ptr) - offsetof(type, member)))

#define list_for_each(pos, head) for ((pos) = (head)->next; (pos) != (head); (pos) = (pos)->next)

// `pos` may be removed (and freed) in the body: `n` already holds its successor.
#define list_for_each_safe(pos, n, head) \
    for ((pos) = (head)->next, (n) = (pos)->next; (pos) != (head); (pos) = (n), (n) = (pos)->next)

// Walks the records; `pos` is a pointer to the record type, `n` one of the same type.
#define list_for_each_entry_safe(pos, n, head, member)                                          \
    for ((pos) = list_entry((head)->next, std::remove_pointer_t<decltype(pos)>, member),        \
        (n) = list_entry((pos)->member.next, std::remove_pointer_t<decltype(pos)>, member);     \
         &(pos)->member != (head);                                                              \
         (pos) = (n), (n) = list_entry((n)->member.next, std::remove_pointer_t<decltype(n)>, member))

inline orbs3_list_node_t* orbs3_list_node(neo_list_head_t* link)
{
    return list_entry(link, orbs3_list_node_t, list);
}
