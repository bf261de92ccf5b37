// The master's control thread: the control socket, its message handlers, and the worker watch thread.
#pragma once

#include <cstdint>

#include "control/orbs3_msg.h"

// The master's listening control socket; -1 when closed. A forked worker closes its copy.
extern int g_ud_listen_fd;

// One row of the handler table: a request type and its handler. A handler answers the client itself;
// its result is 0, the code it answered with, or -1 when no reply could be built.
struct orbs3_msg_handler_t {
    uint32_t type;
    int (*handler)(int fd, orbs3_msg_t* msg);
};
// list, get, add, edit, delete, start, stop, add user, status of all vhosts; ended by a zero row.
extern const orbs3_msg_handler_t g_orbs3_msg_handlers[];

// Answers control messages on the master's socket once the vhosts are loaded.
void* orbs3_ctrl_thread(void* arg);
// Hands the message to its handler and deletes it. A type without a handler is answered with code 1000.
int orbs3_ctrl_msg_processing(int fd, orbs3_msg_t* msg);
// Sleeps three seconds at a time; workers are supervised through SIGCHLD.
void* orbs3_check_worker_thread(void* arg);
// Removes the control socket.
void orbs3_ctrl_thread_exit();
