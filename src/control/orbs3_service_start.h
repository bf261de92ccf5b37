// From loaded vhosts to running workers: the control pool, the one-time load, services formed from
// vhosts, and the start task that forks a worker.
#pragma once

#include <atomic>
#include <cstdint>

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
