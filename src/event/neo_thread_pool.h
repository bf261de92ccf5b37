// A pool of threads that run queued tasks first in, first out. The master's control tasks run here.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

using neo_thread_handler_pt = void (*)(void* data);

inline constexpr uint32_t NEO_THREAD_TASK_ACTIVE = 16;     // queued, not yet taken by a thread
inline constexpr uint32_t NEO_THREAD_TASK_COMPLETE = 128;  // taken: the handler runs or has run
// The handler's own words. Control tasks keep the vhost in the first; no task needs more than a few.
inline constexpr std::size_t NEO_THREAD_TASK_DATA_WORDS = 8;

struct neo_thread_task_t {
    neo_thread_task_t* next;
    uint64_t id;  // from neo_thread_pool_task_id when posted
    void* ctx;    // the end of the record
    // Set only by the pool's shutdown: called instead of handler, with exit_data.
    neo_thread_handler_pt exit_handler;
    void* exit_data;
    uint64_t data[NEO_THREAD_TASK_DATA_WORDS];
    uint32_t flags;
    neo_thread_handler_pt handler;  // called with `data`
};

struct neo_thread_pool_t;

struct neo_thread_t {
    neo_thread_pool_t* pool;
    pthread_t tid;
    pid_t ktid;  // kernel thread id; 0 until the thread has started
    neo_thread_t* next;
};

struct neo_thread_pool_t {
    const char* name;  // set by the caller
    pthread_mutex_t mtx;
    neo_thread_task_t* queue_first;
    neo_thread_task_t** queue_last;
    int64_t waiting;
    pthread_cond_t cond;
    uint64_t threads;   // set by the caller
    int64_t max_queue;  // set by the caller
    neo_thread_t* thread_list;
    pthread_rwlock_t thread_lock;
};

extern std::atomic<uint64_t> neo_thread_pool_task_id;

// Starts `threads` detached threads. On a failed start the threads already running stay in the pool.
[[nodiscard]] int neo_thread_pool_init(neo_thread_pool_t* pool);
// Stops every thread after the tasks queued before it, then releases the pool's locks and records.
// A full queue delays it; -1 if a stop task could not be queued otherwise: the pool is then left as it is.
int neo_thread_pool_destroy(neo_thread_pool_t* pool);

[[nodiscard]] neo_thread_task_t* neo_thread_task_alloc();
void neo_thread_task_free(neo_thread_task_t* task);
// 0: queued, the pool frees the task after running it. -1: already active. -2: queue full. On -1 and -2
// the caller keeps the task.
[[nodiscard]] int neo_thread_task_post(neo_thread_pool_t* pool, neo_thread_task_t* task);

int neo_thread_tid();

// Thin wrappers that log a failure; 0 or -1. Mutexes are error-checking.
[[nodiscard]] int neo_thread_cond_create(pthread_cond_t* cond);
int neo_thread_cond_destroy(pthread_cond_t* cond);
int neo_thread_cond_signal(pthread_cond_t* cond);
[[nodiscard]] int neo_thread_cond_wait(pthread_cond_t* cond, pthread_mutex_t* mtx);
[[nodiscard]] int neo_thread_mutex_create(pthread_mutex_t* mtx);
int neo_thread_mutex_destroy(pthread_mutex_t* mtx);
[[nodiscard]] int neo_thread_mutex_lock(pthread_mutex_t* mtx);
int neo_thread_mutex_unlock(pthread_mutex_t* mtx);
