// The event record: one per direction of a connection. Its timer node sits in the process's timer tree.
#pragma once

#include <cstdint>

#include "memory/neo_rbtree.h"

struct orbs3_event_t;
struct neo_event_timers_t;
using orbs3_event_handler_pt = void (*)(orbs3_event_t* ev);

struct orbs3_event_t {
    void* data;               // the owning connection
    neo_rbtree_node_t timer;  // key: deadline in milliseconds since the epoch
    neo_event_timers_t* timers;  // the tree the timer waits in while timer_set; null: the process tree
    unsigned timedout : 1;
    unsigned timer_set : 1;
    unsigned active : 1;
    unsigned ready : 1;
    unsigned closed : 1;
    orbs3_event_handler_pt handler;
    uint32_t count;  // only used by the notify event
};
