#include "event/neo_event_timer.h"

#include <sys/time.h>

#include <cstddef>
#include <cstring>
#include <optional>

#include "memory/orbs3_assert.h"
#include "core/orbs3_log.h"

// Empty from the start (a zeroed sentinel is black), so timers work before neo_event_timer_init runs.
neo_rbtree_node_t neo_event_timer_sentinel;
neo_rbtree_t neo_event_timer_rbtree = {&neo_event_timer_sentinel, &neo_event_timer_sentinel,
                                       neo_rbtree_insert_value};
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

thread_local neo_event_timers_t* thread_timers = nullptr;

neo_rbtree_t* tree_of(neo_event_timers_t* t)
{
    return t != nullptr ? &t->tree : &neo_event_timer_rbtree;
}

// The lock for the process tree; a thread's own tree needs none.
class tree_guard {
public:
    explicit tree_guard(neo_event_timers_t* t) : lock_(t == nullptr ? std::optional<timer_lock>(std::in_place)
                                                                      : std::nullopt) {}
    [[nodiscard]] bool held() const { return !lock_ || lock_->held(); }
    void release()
    {
        if (lock_)
            lock_->release();
    }

private:
    std::optional<timer_lock> lock_;
};

// Takes the earliest node out of the tree; with `only_due`, only if its deadline has come. Caller holds
// the tree's guard.
orbs3_event_t* take_earliest(neo_rbtree_t* tree, bool only_due, uint64_t now)
{
    if (neo_rbtree_empty(tree))
        return nullptr;
    neo_rbtree_node_t* node = neo_rbtree_min(tree->root, tree->sentinel);
    // The difference is taken as a signed 64-bit value: keys are 64-bit milliseconds, and a 32-bit
    // difference would make a deadline more than 24 days ahead look passed.
    if (only_due && static_cast<int64_t>(node->key - now) > 0)
        return nullptr;
    orbs3_event_t* ev = event_of(node);
    ORBS3_ASSERT(ev->timer_set);  // only an event whose timer is set stands in a timer tree
    neo_rbtree_delete(tree, node);
    ev->timer_set = 0;
    ev->timers = nullptr;
    return ev;
}

void remove_timer(orbs3_event_t* ev)
{
    tree_guard guard(ev->timers);
    if (!guard.held() || !ev->timer_set)
        return;
    neo_rbtree_delete(tree_of(ev->timers), &ev->timer);
    ev->timer_set = 0;
    ev->timers = nullptr;
}

}  // namespace

int neo_event_timer_init()
{
    timer_lock lock;
    neo_rbtree_init(&neo_event_timer_rbtree, &neo_event_timer_sentinel, neo_rbtree_insert_value);
    return 0;
}

void neo_event_timer_thread_init(neo_event_timers_t* t)
{
    if (t != nullptr)
        neo_rbtree_init(&t->tree, &t->sentinel, neo_rbtree_insert_value);
    thread_timers = t;
}

void neo_event_add_timer(orbs3_event_t* ev, uint64_t seconds)
{
    neo_event_add_timer_ms(ev, seconds * 1000);
}

void neo_event_add_timer_ms(orbs3_event_t* ev, uint64_t msec)
{
    if (ev->timer_set)
        remove_timer(ev);
    neo_event_timers_t* t = thread_timers;
    tree_guard guard(t);
    if (!guard.held())
        return;
    ev->timer.key = neo_get_timer() + msec;
    neo_rbtree_insert(tree_of(t), &ev->timer);
    ev->timer_set = 1;
    ev->timers = t;
}

void neo_event_del_timer(orbs3_event_t* ev)
{
    remove_timer(ev);
}

int64_t neo_event_find_timer()
{
    neo_event_timers_t* t = thread_timers;
    tree_guard guard(t);
    neo_rbtree_t* tree = tree_of(t);
    if (!guard.held() || neo_rbtree_empty(tree))
        return -1;
    uint64_t key = neo_rbtree_min(tree->root, tree->sentinel)->key;
    uint64_t now = neo_get_timer();
    return key > now ? static_cast<int64_t>(key - now) : 0;
}

void neo_event_expire_timers()
{
    neo_event_timers_t* t = thread_timers;
    for (;;) {
        tree_guard guard(t);
        if (!guard.held())
            return;
        orbs3_event_t* ev = take_earliest(tree_of(t), true, neo_get_timer());
        if (ev == nullptr)
            return;
        ev->timedout = 1;
        // The handler may add timers, which takes the lock again.
        guard.release();
        ev->handler(ev);
    }
}

void event_cancel_timers()
{
    neo_event_timers_t* t = thread_timers;
    for (;;) {
        tree_guard guard(t);
        if (!guard.held())
            return;
        orbs3_event_t* ev = take_earliest(tree_of(t), false, 0);
        if (ev == nullptr)
            return;
        guard.release();
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
