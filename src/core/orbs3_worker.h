// The worker process: it serves one service (one listening address and port with its vhosts) with one
// epoll thread per online CPU, each pinned to its CPU, and a main thread that runs the one-second loop.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>

#include "core/orbs3_tenant.h"
#include "event/orbs3_connection.h"

inline constexpr int ORBS3_WORKER_THREADS_MAX = 200;

struct orbs3_worker_thread_info_t {
    int epfd;  // -1 until the thread has its descriptor
    pthread_t tid;
};

extern orbs3_service_t* orbs3_service;  // the service of this worker
extern orbs3_connection_t* listen_c;    // the one listening connection; every epoll thread watches it
extern pthread_rwlock_t g_cpu_lock;     // guards g_cpu_index and walks over worker_thread_info
extern int g_cpu_index;                 // epoll threads started; gives each its index
extern orbs3_worker_thread_info_t worker_thread_info[ORBS3_WORKER_THREADS_MAX];

// Set by signal handlers and the control thread, read and cleared by the main thread only.
extern std::atomic<int> process_terminate;  // SIGWINCH
extern std::atomic<int> process_quit;       // SIGINT
extern std::atomic<int> process_exit;
extern std::atomic<int> process_reload;

// The child's life after fork, for the vhost that caused the fork. Never returns: the exit order ends
// with status 0, a failure at start with status 255.
[[noreturn]] void orbs3_process_cycle(orbs3_vhost_t* vhost);

// The worker's mask and handlers; 0 or -1.
int process_sheild_signals();
void orbs3_process_handle_pipe(int signo);
void orbs3_process_handle_term(int signo);
void orbs3_process_handle_exiting(int signo);
void orbs3_process_handle_quit(int signo);

[[nodiscard]] int orbs3_make_listen(orbs3_service_t* svc);
void orbs3_close_listen();
void orbs3_reload_listen();
void orbs3_threads_add_listen(orbs3_connection_t* c);
void orbs3_threads_del_listen(orbs3_connection_t* c);

[[nodiscard]] int orbs3_create_worker_threads();
void* orbs3_worker_thread_cycle(void* arg);
long orbs3_get_cpu_num();
// Epoll threads for a count of online CPUs: a failing (negative) or zero count gives 1, and the thread
// table bounds it at 200.
int orbs3_worker_thread_count(long cpus);

void orbs3_list_vhost_for_debug();
// What a vhost needs in the worker before a request can find it: users and service record, the four
// roots and their directories, the bucket count. Failures are logged; the vhost is served as far as it can.
void orbs3_worker_load_vhost(orbs3_vhost_t* vh);
orbs3_vhost_t* orbs3_find_vhost_byid(const char* id);
void orbs3_free_vhost(const char* id);
// Frees every vhost of svc whose status is not active; the number of vhosts left.
int orbs3_keep_active_vhosts(orbs3_service_t* svc);
