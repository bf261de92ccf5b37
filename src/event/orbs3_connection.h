// Connections, their two events and the listener that accepted them.
//
// Long-lived connections (a worker's listening socket) take a slot from the tables of the run record; the
// tables are built once in the master and reach every worker by fork. A client connection is no slot: it
// lives at the start of a pool of its own, so closing it frees everything it used in one step.
#pragma once

#include <pthread.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "event/orbs3_event.h"
#include "memory/neo_list.h"
#include "memory/orbs3_palloc.h"

struct orbs3_connection_t;
struct orbs3_listening_t;
struct orbs3_http_request_t;

// Byte count, -1 on error, -2 when the call would block.
using orbs3_recv_pt = ssize_t (*)(orbs3_connection_t* c, uint8_t* buf, std::size_t size);
using orbs3_send_pt = ssize_t (*)(orbs3_connection_t* c, const uint8_t* buf, std::size_t size);
using orbs3_connection_handler_pt = void (*)(orbs3_connection_t* c);
// True when the connection holds input that its socket will not announce again.
using orbs3_pending_pt = bool (*)(const orbs3_connection_t* c);
using orbs3_listening_create_pt = int (*)(orbs3_listening_t* ls);
using orbs3_accept_pt = int (*)(int epfd, orbs3_event_t* ev);
using orbs3_request_handler_pt = int (*)(orbs3_http_request_t* r);

struct orbs3_peer_t {
    uint32_t family;
    uint8_t addr[16];  // 4 bytes used for IPv4
    uint16_t port;     // network order
};

struct orbs3_connection_t {
    void* data;  // next free slot while on the free list; else the current request, or null
    int fd;      // -1 when free
    int epfd;    // epoll descriptor of the owning thread
    orbs3_pool_t* pool;
    orbs3_listening_t* listening;
    orbs3_peer_t* peer;
    struct sockaddr* sockaddr;  // room for either family
    uint32_t socklen;
    void* ssl;
    orbs3_recv_pt recv;
    orbs3_send_pt send;
    uint64_t type;         // 1 on connections set up by orbs3_http_init_connection
    orbs3_buf_t* send_buf; // the rest of a reply that could not be written at once
    // The file part of a reply still to be written: bytes [send_file_pos, send_file_end) of
    // send_file_fd, owned by the connection. It leaves after the first send_file_ahead bytes of send_buf
    // and before the rest, so what was queued behind it stays behind it.
    int send_file_fd;  // -1 when none is pending
    int64_t send_file_pos;
    int64_t send_file_end;
    std::size_t send_file_ahead;
    orbs3_buf_t* send_file_slice;  // TLS: read from the file, not yet taken by send
    int async_fd;
    uint8_t num_async_fds;
    unsigned closed : 1;  // free, or closed
    unsigned listen : 1;  // a listening connection
    orbs3_event_t* read;
    orbs3_event_t* write;
    orbs3_connection_handler_pt exit_handler;  // errors and peer hang-ups
    // TLS: input already taken from the socket and held by the library (a record decrypted but not yet
    // read, or read ahead of the one asked for). Edge-triggered epoll reports no such bytes, so whoever
    // goes to wait for input asks this first. Null: the socket holds all there is.
    orbs3_pending_pt pending;
    // TLS: ends the session before the socket's write side goes (close_notify) and releases it; the
    // connection speaks plain bytes afterwards. Called by every close; null on plain connections.
    orbs3_connection_handler_pt shutdown;
    neo_list_head_t open_link;  // client connections: in the list of open ones until closed
};

struct orbs3_listening_t {
    int fd;
    int family;
    int type;
    int protocol;
    int mode;       // 4: TLS, 3 or 1: plain HTTP
    char addr[60];  // empty: any address
    int port;       // host order
    // Slots the layer that serves the listener fills (the worker): what takes a new connection, what
    // handles its requests and replies, and the vhosts (orbs3_list_node_t nodes carrying orbs3_vhost_t)
    // a request's Host is matched against.
    orbs3_connection_handler_pt handler;
    orbs3_listening_create_pt create;
    orbs3_accept_pt accept;
    orbs3_request_handler_pt request_handler;
    orbs3_request_handler_pt response_handler;
    neo_list_head_t* vhosts;
    // TLS: takes the connection once its handshake has ended (`handler` runs the handshake).
    orbs3_connection_handler_pt secure_handler;
};

inline constexpr int ORBS3_CONNECTION_SLOTS = 1024;
inline constexpr std::size_t ORBS3_SLOT_POOL_SIZE = 8096;

// Guards the slot free list and its count.
extern pthread_mutex_t orbs3_conn_mtx;

// What tests and operators read of a worker's connections: every accept raises `accepted` and `open`,
// every close of a client connection raises `closed` and lowers `open`.
struct orbs3_conn_counters_t {
    std::atomic<uint64_t> accepted{0};
    std::atomic<int64_t> open{0};
    std::atomic<uint64_t> closed{0};
    std::atomic<int64_t> free_slots{0};
};
extern orbs3_conn_counters_t orbs3_conn_counters;

// Index of the epoll thread running on this thread, -1 on any other thread.
extern thread_local int orbs3_thread_index;

// Builds the slot tables in the run record's pool; 0 or -1.
[[nodiscard]] int orbs3_event_process_init();
// Give the tables back and destroy the mutex; 0.
int orbs3_event_process_exit();
int orbs3_event_process_destory_resource();
// A fresh, unlocked orbs3_conn_mtx in a child after fork: the parent may have held it at that moment.
void orbs3_conn_mtx_reinit();

// A cleared slot for fd, or null when none is free.
[[nodiscard]] orbs3_connection_t* orbs3_get_connection(int fd);
// Back to the free list; the descriptor stays open, the slot's pool is destroyed.
void orbs3_free_connection(orbs3_connection_t* c);
// A slot with a pool of its own holding its peer record and address; null on failure.
[[nodiscard]] orbs3_connection_t* orbs3_found_connection(int fd);

// A client connection at the start of a new pool of pool_size bytes, with both events, the peer record
// and the address, all zeroed; fd -1. Null on failure.
[[nodiscard]] orbs3_connection_t* orbs3_create_connection(std::size_t pool_size);
// Ends a client connection: out of its epoll set, descriptor closed, pool (and the record) destroyed.
void orbs3_close_connection(orbs3_connection_t* c);
// Closes every client connection still open. Only once no epoll thread runs any more: the worker's exit.
void orbs3_close_all_connections();
