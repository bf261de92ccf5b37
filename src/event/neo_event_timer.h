// Timer trees: deadlines of events, earliest first.
//
// A node is the `timer` member of an orbs3_event_t, keyed by its deadline in milliseconds since the epoch.
// The process has one tree, shared by its threads, so every access to it takes neo_event_lock for
// writing. An epoll thread may give itself a tree of its own (neo_event_timer_thread_init): the events of
// its connections then wait there and expire on that thread, never on another thread while the owner
// handles the same connection, and without the lock. An event remembers the tree it waits in, so it is
// always taken out of the right one.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "event/orbs3_event.h"
#include "memory/neo_rbtree.h"

extern neo_rbtree_t neo_event_timer_rbtree;
extern neo_rbtree_node_t neo_event_timer_sentinel;
// Statically initialised, so it is usable before neo_event_timer_init and survives a second call.
extern pthread_rwlock_t neo_event_lock;

// Empties the process tree. Events still in it are forgotten, not called: their timer_set stays as it was.
int neo_event_timer_init();

// A tree owned by one thread.
struct neo_event_timers_t {
    neo_rbtree_t tree;
    neo_rbtree_node_t sentinel;
};
// From now on the calling thread's timers go to `t` (emptied first); null goes back to the process tree.
// `t` must outlive every event added to it.
void neo_event_timer_thread_init(neo_event_timers_t* t);

// The functions below work on the calling thread's tree (the process tree unless the thread has its own),
// except neo_event_del_timer and a move by neo_event_add_timer, which use the tree the event waits in.

// Sets the deadline to now plus `seconds`; an event whose timer is set is moved, never inserted twice.
void neo_event_add_timer(orbs3_event_t* ev, uint64_t seconds);
void neo_event_add_timer_ms(orbs3_event_t* ev, uint64_t msec);
// Removes the event's node if its timer is set; clears timer_set.
void neo_event_del_timer(orbs3_event_t* ev);

// Milliseconds to the earliest deadline. -1 only for an empty tree; a deadline that is due or has passed
// gives 0. So the result can go to epoll_wait as its timeout unchanged: wait for ever, or not at all.
int64_t neo_event_find_timer();

// Calls, earliest first, the handler of every event whose deadline has come, with timer_set cleared and
// timedout set. Handlers run on the calling thread without the lock held, so they may add or delete timers;
// a timer a handler sets that is already due fires in the same call.
void neo_event_expire_timers();

// Empties the tree earliest first, calling each event's handler with timer_set cleared and timedout clear.
void event_cancel_timers();

// Wall clock from gettimeofday.
uint64_t neo_get_timer();       // milliseconds
uint64_t neo_get_sec_timer();   // seconds
uint64_t neo_get_usec_timer();  // microseconds
