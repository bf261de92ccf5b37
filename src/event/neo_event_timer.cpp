#include "event/neo_event_timer.h"

#include <sys/time.h>

#include <cstddef>
#include <cstring>

#include "core/orbs3_log.h"

neo_rbtree_t neo_event_timer_rbtree;
neo_rbtree_node_t neo_event_timer_sentinel;
pthread_rwlock_t neo_event_lock = PTHREAD_RWLOCK_INITIALIZER;

namespace {

// Holds neo_event_lock for writing. A failure (only a thread that already holds it) is logged and the
// caller leaves the tree alone rather than change it unguarded.
class timer_lock {
public:
    timer_lock()
    {
        int err = pthread_rwlock_wrlock(&neo_event_lock);
        held_ = err == 0;
        if (!held_) {
            char buf[128];
            ipd_log(LOG_ALERT, "pthread_rwlock_wrlock() failed, error=%s", strerror_r(err, buf, sizeof buf));
        }
    }
    ~timer_lock()
    {
        if (held_)
            pthread_rwlock_unlock(&neo_event_lock);
    }
    timer_lock(const timer_lock&) = delete;
    timer_lock& operator=(const timer_lock&) = delete;

    [[nodiscard]] bool held() const { return held_; }
    void release()
    {
        if (held_)
            pthread_rwlock_unlock(&neo_event_lock);
        held_ = false;
    }

private:
    bool held_;
};

orbs3_event_t* event_of(neo_rbtree_node_t* node)
{
    return reinterpret_cast<orbs3_event_t*>(reinterpret_cast<char*>(node) - offsetof(orbs3_event_t, timer));
}

// Takes the earliest node out of the tree; with `only_due`, only if its deadline has come. Caller holds
// the lock.
orbs3_event_t* take_earliest(bool only_due, uint64_t now)
{
    neo_rbtree_t* tree = &neo_event_timer_rbtree;
    if (neo_rbtree_empty(tree))
        return nullptr;
    neo_rbtree_node_t* node = neo_rbtree_min(tree->root, tree->sentinel);
    // The difference is taken as a signed 64-bit value: keys are 64-bit milliseconds, and a 32-bit
    // difference would make a deadline more than 24 days ahead look passed.
    if (only_due && static_cast<int64_t>(node->key - now) > 0)
        return nullptr;
    orbs3_event_t* ev = event_of(node);
    neo_rbtree_delete(tree, node);
    ev->timer_set = 0;
    return ev;
}

}  // namespace

int neo_event_timer_init()
{
    timer_lock lock;
    neo_rbtree_init(&neo_event_timer_rbtree, &neo_event_timer_sentinel, neo_rbtree_insert_value);
    return 0;
}

void neo_event_add_timer(orbs3_event_t* ev, uint64_t seconds)
{
    neo_event_add_timer_ms(ev, seconds * 1000);
}

void neo_event_add_timer_ms(orbs3_event_t* ev, uint64_t msec)
{
    timer_lock lock;
    if (!lock.held())
        return;
    if (ev->timer_set)
        neo_rbtree_delete(&neo_event_timer_rbtree, &ev->timer);
    ev->timer.key = neo_get_timer() + msec;
    neo_rbtree_insert(&neo_event_timer_rbtree, &ev->timer);
    ev->timer_set = 1;
}

void neo_event_del_timer(orbs3_event_t* ev)
{
    timer_lock lock;
    if (!lock.held() || !ev->timer_set)
        return;
    neo_rbtree_delete(&neo_event_timer_rbtree, &ev->timer);
    ev->timer_set = 0;
}

int64_t neo_event_find_timer()
{
    timer_lock lock;
    neo_rbtree_t* tree = &neo_event_timer_rbtree;
    if (!lock.held() || neo_rbtree_empty(tree))
        return -1;
    uint64_t key = neo_rbtree_min(tree->root, tree->sentinel)->key;
    uint64_t now = neo_get_timer();
    return key > now ? static_cast<int64_t>(key - now) : 0;
}

void neo_event_expire_timers()
{
    for (;;) {
        timer_lock lock;
        if (!lock.held())
            return;
        orbs3_event_t* ev = take_earliest(true, neo_get_timer());
        if (ev == nullptr)
            return;
        ev->timedout = 1;
        // The handler may add timers, which takes the lock again.
        lock.release();
        ev->handler(ev);
    }
}

void event_cancel_timers()
{
    for (;;) {
        timer_lock lock;
        if (!lock.held())
            return;
        orbs3_event_t* ev = take_earliest(false, 0);
        if (ev == nullptr)
            return;
        lock.release();
        ev->handler(ev);
    }
}

uint64_t neo_get_usec_timer()
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000000 + static_cast<uint64_t>(tv.tv_usec);
}

uint64_t neo_get_timer()
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000 + static_cast<uint64_t>(tv.tv_usec) / 1000;
}

uint64_t neo_get_sec_timer()
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec);
}
