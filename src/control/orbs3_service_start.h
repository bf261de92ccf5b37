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

// Posts the edit of an active vhost: its worker gets the edit message (name, domain, TLS files) and, when
// TLS files changed, reloads its listener. 0 or -1 as above.
int orbs3_task_edit_vhost(orbs3_vhost_t* vhost);
// Posts the news of a new user of an active vhost: its worker gets the vhost's add message again and
// reads the tenant's users anew. 0 or -1 as above.
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
