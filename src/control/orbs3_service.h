// Services (one listening address, one worker process) and the node's list of them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>

struct orbs3_service_t {
    uint32_t port;
    uint32_t started;  // set to 1 by the worker process when its threads are up
    uint32_t ssl;      // index into orbs3_bool: 0 means TLS
    pid_t pid;         // worker process id; 0 when none
    char iface[1024];  // path of the worker's control socket
    uint8_t flags;     // bit 0: the worker process is gone
};

// Calls fn for every service of g_service_list, in list order.
void orbs3_service_each(const std::function<void(orbs3_service_t*)>& fn);
// Adds a service record at the tail of the list; the list does not own it.
void orbs3_service_add(orbs3_service_t* svc);
void orbs3_service_remove(orbs3_service_t* svc);
