// Epoll registrations and the pass of an epoll thread.
#pragma once

// epoll_create with the size hint; -1 (logged at WARNING) on failure.
int orbs3_create_epfd(int size);
