// Services (one listening address, one worker process), their vhosts, and the node's list of services.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>

#include "memory/neo_list.h"
#include "memory/orbs3_palloc.h"

inline constexpr std::size_t ORBS3_ADDR_CAP = 48;
inline constexpr std::size_t ORBS3_NAME_CAP = 256;

struct orbs3_service_t {
    orbs3_str_t ipversion;  // cap 48
    orbs3_str_t ipaddr;     // cap 48: listening address
    uint32_t port;
    uint32_t started;  // set to 1 by the worker process when its threads are up
    uint32_t ssl;      // index into orbs3_bool: 0 means TLS
    neo_list_head_t vhosts;  // orbs3_list_node_t nodes carrying orbs3_vhost_t
    pid_t pid;         // worker process id; 0 when none
    char iface[1024];  // path of the worker's control socket
    uint8_t flags;     // bit 0: the worker process is gone
};

// One tenant of a service; only what the worker needs so far.
struct orbs3_vhost_t {
    orbs3_str_t id;      // cap 256
    orbs3_str_t name;    // cap 256
    orbs3_str_t domain;  // cap 256
    uint32_t ssl;        // index into orbs3_bool: 0 means TLS
    uint32_t port;
    orbs3_str_t ipaddr;  // cap 48
    int32_t status;      // index into orbs3_status: the wanted state
    int32_t running;     // index into orbs3_status: the actual state
    orbs3_service_t* service;
};

// Calls fn for every service of g_service_list, in list order.
void orbs3_service_each(const std::function<void(orbs3_service_t*)>& fn);
// Adds a service record at the tail of the list; the list does not own it.
void orbs3_service_add(orbs3_service_t* svc);
void orbs3_service_remove(orbs3_service_t* svc);

// A zeroed service (calloc) with an empty vhost list; null when memory runs out.
[[nodiscard]] orbs3_service_t* orbs3_service_new();
// Frees the service's strings, its vhosts and the record.
void orbs3_service_free(orbs3_service_t* svc);
// A zeroed vhost (calloc); null when memory runs out.
[[nodiscard]] orbs3_vhost_t* orbs3_vhost_new();
void orbs3_vhost_free(orbs3_vhost_t* vh);
// Appends the vhost to the service's list and points it at the service; 0, or -1 when memory runs out.
[[nodiscard]] int orbs3_service_add_vhost(orbs3_service_t* svc, orbs3_vhost_t* vh);
// Unlinks the vhost from its service's list and frees it; 0, or -1 when it is not in the list.
int orbs3_service_free_vhost(orbs3_service_t* svc, orbs3_vhost_t* vh);
