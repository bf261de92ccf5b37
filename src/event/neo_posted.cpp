#include "event/neo_posted.h"

#include <cstdlib>

#include "core/orbs3_log.h"

pthread_mutex_t pthread_mtx = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t pthread_cond = PTHREAD_COND_INITIALIZER;

namespace {

// Unlinks the oldest node under pthread_mtx, so producers may add while the consumer takes.
neo_post_node_t* take_oldest(neo_post_queue_t* queue)
{
    pthread_mutex_lock(&pthread_mtx);
    neo_post_node_t* node = queue->head.prev;
    if (node == &queue->head) {
        pthread_mutex_unlock(&pthread_mtx);
        return nullptr;
    }
    node->prev->next = &queue->head;
    queue->head.prev = node->prev;
    pthread_mutex_unlock(&pthread_mtx);
    return node;
}

}  // namespace

void neo_post_queue_init(neo_post_queue_t* queue)
{
    queue->head.next = &queue->head;
    queue->head.prev = &queue->head;
    queue->head.ev = nullptr;
}

bool neo_post_queue_empty(neo_post_queue_t* queue)
{
    pthread_mutex_lock(&pthread_mtx);
    bool empty = queue->head.next == &queue->head;
    pthread_mutex_unlock(&pthread_mtx);
    return empty;
}

int neo_queue_add_task(neo_post_queue_t* queue, orbs3_event_t* ev)
{
    auto* node = static_cast<neo_post_node_t*>(std::calloc(1, sizeof(neo_post_node_t)));
    if (node == nullptr) {
        ipd_log(LOG_ALERT, "calloc() failed");
        return -1;
    }
    node->ev = ev;

    pthread_mutex_lock(&pthread_mtx);
    node->next = queue->head.next;
    node->prev = &queue->head;
    queue->head.next->prev = node;
    queue->head.next = node;
    pthread_mutex_unlock(&pthread_mtx);

    pthread_cond_signal(&pthread_cond);
    return 0;
}

int neo_queue_get_task(neo_post_queue_t* queue, [[maybe_unused]] void* arg)
{
    neo_post_node_t* node = take_oldest(queue);
    if (node == nullptr)
        return 0;
    orbs3_event_t* ev = node->ev;
    std::free(node);
    ev->handler(ev);
    return 0;
}

void neo_event_process_post(neo_post_queue_t* queue)
{
    for (;;) {
        neo_post_node_t* node = take_oldest(queue);
        if (node == nullptr)
            return;
        orbs3_event_t* ev = node->ev;
        // Freed before the handler runs: a handler may free the event or post it again.
        std::free(node);
        ev->handler(ev);
    }
}
