// Epoll registrations, the pass of an epoll thread, and the eventfd notify of the master.
//
// A client connection is registered edge-triggered and one-shot for one direction at a time; the
// listening connection is registered edge-triggered, without one-shot, in every epoll thread.
#pragma once

#include <sys/epoll.h>

#include <cstdint>

#include "event/orbs3_connection.h"

inline constexpr uint32_t ORBS3_EPOLL_LISTEN = EPOLLIN | EPOLLRDHUP | EPOLLET;   // 0x80002001
inline constexpr uint32_t ORBS3_EPOLL_READ = EPOLLIN | EPOLLONESHOT | EPOLLET;   // 0xc0000001
inline constexpr uint32_t ORBS3_EPOLL_WRITE = EPOLLOUT | EPOLLONESHOT | EPOLLET; // 0xc0000004

// Fixed for every pass; the sysconfig fields of the same meaning are not read.
inline constexpr int ORBS3_EPOLL_EVENTS = 1024;
inline constexpr int ORBS3_EPOLL_TIMEOUT_MS = 500;

// epoll_create with the size hint; -1 (logged at WARNING) on failure.
int orbs3_create_epfd(int size);

// Each stores c as the event's data; 0 or -1.
int orbs3_epoll_ctl(int epfd, int op, int fd, uint32_t events, orbs3_connection_t* c);
int orbs3_epoll_add_conn(int fd, int epfd, orbs3_connection_t* c);
int orbs3_epoll_r_add_conn(int fd, int epfd, orbs3_connection_t* c);
int orbs3_epoll_w_add_conn(int fd, int epfd, orbs3_connection_t* c);
int orbs3_epoll_r_mod_conn(int fd, int epfd, orbs3_connection_t* c);
int orbs3_epoll_w_mod_conn(int fd, int epfd, orbs3_connection_t* c);
int orbs3_epoll_del_conn(int fd, int epfd, orbs3_connection_t* c);
// On the connection's async_fd in the connection's own epfd.
int orbs3_epoll_add_async_connection(orbs3_connection_t* c);
int orbs3_epoll_del_async_connection(orbs3_connection_t* c);

// One pass: wait at most 500 ms for at most 1024 events and dispatch them; 0.
int orbs3_epoll_events_manage(int epfd);

// The notify: an eventfd in the master's epoll set `epfd` whose read event calls a stored handler.
using orbs3_epoll_notify_pt = void (*)(orbs3_event_t* ev);
[[nodiscard]] int orbs3_epoll_notify_init(int epfd);  // 0 or -1
// Stores handler and writes 1 to the eventfd; 0, or -1 on a short write.
int orbs3_epoll_notify(orbs3_epoll_notify_pt handler);
void orbs3_epoll_notify_handler(orbs3_event_t* ev);
// The notify's descriptor and connection, -1 and null before orbs3_epoll_notify_init.
int orbs3_epoll_notify_fd();
orbs3_connection_t* orbs3_epoll_notify_conn();
