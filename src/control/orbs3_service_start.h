// From loaded vhosts to running workers: the control pool, the one-time load, services formed from
// vhosts, and the start task that forks a worker.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "control/orbs3_service.h"
#include "event/neo_thread_pool.h"

// The master's control pool ("ctrl", 4 threads, queue limit 1024); every worker is forked in one of its
// threads.
extern neo_thread_pool_t g_ctrl_tp;
// 0 until the vhosts are loaded; then 1 when the node started offline, 2 when online.
extern std::atomic<int> g_orbs3_init_flag;

// Names and sizes the control pool, sets up the lists and starts the pool's threads; 0 or -1.
[[nodiscard]] int orbs3_ctrl_pool_init();

// The load: under g_service_lock for writing, read every vhost of this node from the tenant files, form
// the services and post a start task for each active vhost. Runs once per process; 0, or -1 when the
// cluster file could not be read (the node then serves nothing).
int orbs3_load_vhosts();

// Forms services from the vhosts of g_vhost_list by (ssl, address, port). Caller holds the write lock.
void orbs3_init_vhost();
// Gives every active vhost a start task (running becomes "starting"). Caller holds the write lock.
void orbs3_init_service();
// Posts the start of the vhost to the control pool; 0, or -1 when it could not be posted (the task is
// freed then).
int orbs3_task_start_vhost(orbs3_vhost_t* vhost);
// The start task's body: forks the service's worker unless one lives. Always 0.
int orbs3_start_vhost(void* data);

// Posts the stop of the vhost; 0, or -1 when it could not be posted (the task is freed then). The caller
// has set the vhost's status to inactive and running to "stoping".
int orbs3_task_stop_vhost(orbs3_vhost_t* vhost);
// The stop task's body: the stop of a service's last active vhost ends its worker (SIGWINCH); a worker
// with other active vhosts keeps running. Always 0.
int orbs3_stop_vhost(void* data);

// ---- supervision of the workers, in the master ----

// Restart backoff: the first wait is 1 s, each further one doubles up to 30 s; a worker that had lived
// a minute or more starts the count again.
inline constexpr uint32_t ORBS3_RESTART_FIRST_S = 1;
inline constexpr uint32_t ORBS3_RESTART_MAX_S = 30;
inline constexpr int64_t ORBS3_RESTART_RESET_S = 60;
// The wait before the next restart, after `prev` seconds last time (0: none yet) and a life of `lived`.
[[nodiscard]] uint32_t orbs3_restart_backoff(uint32_t prev, int64_t lived);

// Seconds of CLOCK_MONOTONIC.
[[nodiscard]] int64_t orbs3_monotonic_s();

// Sends `signo` to the service's worker through its pidfd, then SIGCONT, so that a worker held by
// SIGSTOP takes it too. 0, or -1 when there is no worker or it is gone. Caller holds g_service_lock.
int orbs3_worker_signal(orbs3_service_t* svc, int signo);

// The master reaped `pid` with wait status `status`: its service forgets the worker (the pidfd is
// closed) and, when the worker was killed by a signal while the master is not stopping and the service
// still has an active vhost, a restart is scheduled with the backoff and logged at error level. Takes
// the write lock; true when the pid was a worker's.
bool orbs3_worker_reaped(pid_t pid, int status, bool stopping);

// Posts the start of every service whose restart is due at `now`. Takes the write lock if it is free (a
// busy lock puts the check off to the caller's next turn); the pool's start task forks.
void orbs3_restart_due_workers(int64_t now);

// Posts the edit of an active vhost: its worker gets the edit message (name, domain, TLS files) and, when
// TLS files changed, reloads its listener. 0 or -1 as above.
int orbs3_task_edit_vhost(orbs3_vhost_t* vhost);
// Posts the news of a new user of an active vhost: its worker gets the vhost's edit message and reads
// the tenant's users anew. 0 or -1 as above.
int orbs3_task_add_user(orbs3_vhost_t* vhost);
// The task bodies; always 0. They hold g_service_lock only to read the vhost: never while a worker is
// asked, which happens under the control socket's deadlines.
int orbs3_edit_vhost(void* data);
int orbs3_notify_add_user(void* data);

// Tasks posted for the vhost and not finished yet. A vhost with any may not be freed.
[[nodiscard]] int orbs3_vhost_tasks_pending(const orbs3_vhost_t* vhost);

// The requests to a worker's control socket: add (everything the worker needs to serve the tenant: its
// paths by cluster, tier and path, and its administrator), edit, delete. Caller holds the lock.
std::string orbs3_make_json_add_vhost(const orbs3_vhost_t* vh);
std::string orbs3_make_json_edit_vhost(const orbs3_vhost_t* vh);
std::string orbs3_make_json_del_vhost(const orbs3_vhost_t* vh);
