// Queues of posted events: producers add under one process-wide mutex; a consumer runs them oldest first.
#pragma once

#include <pthread.h>

#include "event/orbs3_event.h"

struct neo_post_node_t {
    neo_post_node_t* next;
    neo_post_node_t* prev;
    orbs3_event_t* ev;
};

// A circular list: new events at the head, the oldest at the tail.
struct neo_post_queue_t {
    neo_post_node_t head;
};

extern pthread_mutex_t pthread_mtx;
extern pthread_cond_t pthread_cond;

void neo_post_queue_init(neo_post_queue_t* queue);
bool neo_post_queue_empty(neo_post_queue_t* queue);

// Queues the event and signals pthread_cond. -1 when no node can be allocated.
[[nodiscard]] int neo_queue_add_task(neo_post_queue_t* queue, orbs3_event_t* ev);
// Runs the oldest event's handler, if any, and frees its node; always 0. The event handler takes the
// event alone, so `arg` does not reach it: it is accepted for callers that pass one, and unused.
int neo_queue_get_task(neo_post_queue_t* queue, void* arg);
// Runs the queue until it is empty, oldest first, including events that handlers post meanwhile.
void neo_event_process_post(neo_post_queue_t* queue);
