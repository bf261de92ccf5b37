// The node's lists of services and vhosts, kept by the master. The records themselves are
// core/orbs3_tenant.h; freeing a whole vhost is storage/orbs3_bucket_store.h.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "core/orbs3_tenant.h"
#include "memory/neo_list.h"

// Every service and every vhost of the node, in the master, guarded by g_service_lock. A vhost stands in
// g_vhost_list and, through a second node, in its service's `vhosts`. They exist, empty, from program
// start, before any signal handler or thread can walk them.
extern neo_list_head_t g_service_list;
extern neo_list_head_t g_vhost_list;
extern pthread_rwlock_t g_service_lock;

// Sets up the two lists and the lock again (a no-op on lists that are already empty and set up).
void orbs3_init_service_list();


// The service with this ssl, address (compared as a string) and port, or null. Caller holds the lock.
orbs3_service_t* orbs3_check_service_is_exist(uint32_t ssl, const char* ip, uint32_t port);
