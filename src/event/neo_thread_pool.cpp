#include "event/neo_thread_pool.h"

#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "core/orbs3_log.h"

std::atomic<uint64_t> neo_thread_pool_task_id{0};

namespace {

// strerror is not safe across threads; the GNU strerror_r gives a text that may or may not be `buf`.
const char* error_text(int err, char* buf, std::size_t size)
{
    return strerror_r(err, buf, size);
}

const char* pool_name(const neo_thread_pool_t* pool)
{
    return pool->name != nullptr ? pool->name : "";
}

// Runs on the pool thread that takes a stop task: tells the destroyer it has it, then ends the thread.
// The stop task lives on the destroyer's stack, so it is never freed here.
void neo_thread_pool_exit_handler(void* data)
{
    static_cast<std::atomic<int>*>(data)->store(0, std::memory_order_release);
    pthread_exit(nullptr);
}

void* neo_thread_pool_cycle(void* arg)
{
    auto* self = static_cast<neo_thread_t*>(arg);
    neo_thread_pool_t* pool = self->pool;

    // Signals belong to the process's main thread; only the faults a thread causes itself stay open.
    sigset_t set;
    sigfillset(&set);
    sigdelset(&set, SIGILL);
    sigdelset(&set, SIGFPE);
    sigdelset(&set, SIGSEGV);
    sigdelset(&set, SIGBUS);
    if (pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0) {
        ipd_log(LOG_ALERT, "pthread_sigmask() failed");
        return nullptr;
    }

    pthread_rwlock_wrlock(&pool->thread_lock);
    self->ktid = neo_thread_tid();
    pthread_rwlock_unlock(&pool->thread_lock);

    for (;;) {
        if (neo_thread_mutex_lock(&pool->mtx) != 0)
            return nullptr;
        while (pool->queue_first == nullptr) {
            if (neo_thread_cond_wait(&pool->cond, &pool->mtx) != 0) {
                neo_thread_mutex_unlock(&pool->mtx);
                return nullptr;
            }
        }
        neo_thread_task_t* task = pool->queue_first;
        pool->queue_first = task->next;
        pool->waiting--;
        if (pool->queue_first == nullptr)
            pool->queue_last = &pool->queue_first;
        // Flags change under mtx, where neo_thread_task_post reads them.
        bool stop = task->exit_handler != nullptr;
        if (!stop)
            task->flags = (task->flags | NEO_THREAD_TASK_COMPLETE) & ~NEO_THREAD_TASK_ACTIVE;
        if (neo_thread_mutex_unlock(&pool->mtx) != 0)
            return nullptr;

        if (stop) {
            task->exit_handler(task->exit_data);
            continue;
        }
        ipd_debug("run task #%lu in thread pool \"%s\"", static_cast<unsigned long>(task->id), pool_name(pool));
        task->handler(task->data);
        neo_thread_task_free(task);
    }
}

}  // namespace

int neo_thread_pool_init(neo_thread_pool_t* pool)
{
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) {
        ipd_log(LOG_ALERT, "pthread_attr_init() failed");
        return -1;
    }
    // Nobody joins a pool thread: destroy learns of its end through the stop task.
    if (pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED) != 0) {
        ipd_log(LOG_ALERT, "pthread_attr_setdetachstate() failed");
        pthread_attr_destroy(&attr);
        return -1;
    }

    pool->queue_first = nullptr;
    pool->queue_last = &pool->queue_first;
    pool->waiting = 0;
    pool->thread_list = nullptr;
    if (neo_thread_mutex_create(&pool->mtx) != 0) {
        pthread_attr_destroy(&attr);
        return -1;
    }
    if (neo_thread_cond_create(&pool->cond) != 0) {
        neo_thread_mutex_destroy(&pool->mtx);
        pthread_attr_destroy(&attr);
        return -1;
    }
    if (pthread_rwlock_init(&pool->thread_lock, nullptr) != 0) {
        ipd_log(LOG_ALERT, "pthread_rwlock_init() failed");
        neo_thread_cond_destroy(&pool->cond);
        neo_thread_mutex_destroy(&pool->mtx);
        pthread_attr_destroy(&attr);
        return -1;
    }

    neo_thread_t** tail = &pool->thread_list;
    int rc = 0;
    for (uint64_t n = 0; n < pool->threads; n++) {
        auto* rec = static_cast<neo_thread_t*>(std::calloc(1, sizeof(neo_thread_t)));
        if (rec == nullptr) {
            ipd_log(LOG_ALERT, "calloc() failed");
            rc = -1;
            break;
        }
        rec->pool = pool;
        pthread_t tid;
        if (pthread_create(&tid, &attr, neo_thread_pool_cycle, rec) != 0) {
            ipd_log(LOG_ALERT, "pthread_create() failed");
            std::free(rec);
            rc = -1;
            break;
        }
        pthread_rwlock_wrlock(&pool->thread_lock);
        rec->tid = tid;
        *tail = rec;
        tail = &rec->next;
        pthread_rwlock_unlock(&pool->thread_lock);
    }

    pthread_attr_destroy(&attr);
    if (rc == 0)
        ipd_debug("thread pool \"%s\" started with %lu threads", pool_name(pool),
                  static_cast<unsigned long>(pool->threads));
    return rc;
}

int neo_thread_pool_destroy(neo_thread_pool_t* pool)
{
    pthread_rwlock_rdlock(&pool->thread_lock);
    uint64_t count = 0;
    for (neo_thread_t* t = pool->thread_list; t != nullptr; t = t->next)
        count++;
    pthread_rwlock_unlock(&pool->thread_lock);

    // One stop task per thread, each queued behind everything posted before it; a thread that takes one
    // never takes another, so `count` of them stop every thread. A full queue is waited out, since the
    // threads are draining it.
    for (uint64_t n = 0; n < count; n++) {
        std::atomic<int> running{1};
        neo_thread_task_t stop{};
        stop.exit_handler = neo_thread_pool_exit_handler;
        stop.exit_data = &running;
        int rc;
        while ((rc = neo_thread_task_post(pool, &stop)) == -2)
            sched_yield();
        if (rc != 0) {
            ipd_log(LOG_ALERT, "thread pool \"%s\" not stopped", pool_name(pool));
            return -1;
        }
        while (running.load(std::memory_order_acquire) != 0)
            sched_yield();
    }

    neo_thread_t* t = pool->thread_list;
    while (t != nullptr) {
        neo_thread_t* next = t->next;
        std::free(t);
        t = next;
    }
    pool->thread_list = nullptr;
    pthread_rwlock_destroy(&pool->thread_lock);
    neo_thread_cond_destroy(&pool->cond);
    neo_thread_mutex_destroy(&pool->mtx);
    return 0;
}

neo_thread_task_t* neo_thread_task_alloc()
{
    auto* task = static_cast<neo_thread_task_t*>(std::calloc(1, sizeof(neo_thread_task_t)));
    if (task != nullptr)
        task->ctx = task + 1;
    return task;
}

void neo_thread_task_free(neo_thread_task_t* task)
{
    std::free(task);
}

int neo_thread_task_post(neo_thread_pool_t* pool, neo_thread_task_t* task)
{
    if (neo_thread_mutex_lock(&pool->mtx) != 0)
        return -1;

    // Tested under mtx, where a pool thread clears the flag when it takes the task.
    if (task->flags & NEO_THREAD_TASK_ACTIVE) {
        neo_thread_mutex_unlock(&pool->mtx);
        ipd_log(LOG_ALERT, "task %d already active", static_cast<int>(task->id));
        return -1;
    }
    if (pool->waiting >= pool->max_queue) {
        int waiting = static_cast<int>(pool->waiting);
        neo_thread_mutex_unlock(&pool->mtx);
        ipd_debug("thread pool \"%s\" queue overflow: %i tasks waiting", pool_name(pool), waiting);
        return -2;
    }

    task->flags |= NEO_THREAD_TASK_ACTIVE;
    task->id = ++neo_thread_pool_task_id;
    task->next = nullptr;

    // Signalled before the task is linked: the woken thread cannot look at the queue until mtx is released.
    if (neo_thread_cond_signal(&pool->cond) != 0) {
        task->flags &= ~NEO_THREAD_TASK_ACTIVE;
        neo_thread_mutex_unlock(&pool->mtx);
        return -1;
    }
    *pool->queue_last = task;
    pool->queue_last = &task->next;
    pool->waiting++;

    uint64_t id = task->id;
    neo_thread_mutex_unlock(&pool->mtx);
    ipd_debug("task #%lu added to thread pool \"%s\"", static_cast<unsigned long>(id), pool_name(pool));
    return 0;
}

int neo_thread_tid()
{
    return static_cast<int>(syscall(SYS_gettid));
}

int neo_thread_cond_create(pthread_cond_t* cond)
{
    if (pthread_cond_init(cond, nullptr) != 0) {
        ipd_log(LOG_EMERG, "pthread_cond_init() failed");
        return -1;
    }
    return 0;
}

int neo_thread_cond_destroy(pthread_cond_t* cond)
{
    int err = pthread_cond_destroy(cond);
    if (err != 0) {
        char buf[128];
        ipd_log(LOG_EMERG, "pthread_cond_destroy() failed, error=%s", error_text(err, buf, sizeof buf));
        return -1;
    }
    return 0;
}

int neo_thread_cond_signal(pthread_cond_t* cond)
{
    int err = pthread_cond_signal(cond);
    if (err != 0) {
        ipd_log(LOG_EMERG, "pthread_cond_signal() failed, errno=%d", err);
        return -1;
    }
    return 0;
}

int neo_thread_cond_wait(pthread_cond_t* cond, pthread_mutex_t* mtx)
{
    int err = pthread_cond_wait(cond, mtx);
    if (err != 0) {
        ipd_log(LOG_ALERT, "pthread_cond_wait() failed, errno=%d", err);
        return -1;
    }
    return 0;
}

int neo_thread_mutex_create(pthread_mutex_t* mtx)
{
    pthread_mutexattr_t attr;
    if (pthread_mutexattr_init(&attr) != 0) {
        ipd_log(LOG_EMERG, "pthread_mutexattr_init() failed");
        return -1;
    }
    // A relock by the owner or an unlock by another thread is reported instead of hanging or passing.
    if (pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK) != 0) {
        ipd_log(LOG_EMERG, "pthread_mutexattr_settype(PTHREAD_MUTEX_ERRORCHECK) failed");
        pthread_mutexattr_destroy(&attr);
        return -1;
    }
    if (pthread_mutex_init(mtx, &attr) != 0) {
        ipd_log(LOG_EMERG, "pthread_mutex_init() failed");
        pthread_mutexattr_destroy(&attr);
        return -1;
    }
    if (pthread_mutexattr_destroy(&attr) != 0)
        ipd_log(LOG_ALERT, "pthread_mutexattr_destroy() failed");
    return 0;
}

int neo_thread_mutex_destroy(pthread_mutex_t* mtx)
{
    int err = pthread_mutex_destroy(mtx);
    if (err != 0) {
        char buf[128];
        ipd_log(LOG_EMERG, "pthread_mutex_destroy() failed, error=%s", error_text(err, buf, sizeof buf));
        return -1;
    }
    return 0;
}

int neo_thread_mutex_lock(pthread_mutex_t* mtx)
{
    int err = pthread_mutex_lock(mtx);
    if (err != 0) {
        char buf[128];
        ipd_log(LOG_ALERT, "pthread_mutex_lock() failed, error=%s", error_text(err, buf, sizeof buf));
        return -1;
    }
    return 0;
}

int neo_thread_mutex_unlock(pthread_mutex_t* mtx)
{
    int err = pthread_mutex_unlock(mtx);
    if (err != 0) {
        char buf[128];
        ipd_log(LOG_ALERT, "pthread_mutex_unlock() failed, error=%s", error_text(err, buf, sizeof buf));
        return -1;
    }
    return 0;
}
