// The master's control thread and worker watch thread.
#pragma once

// Answers control messages on the master's socket once the vhosts are loaded.
void* orbs3_ctrl_thread(void* arg);
// Sleeps three seconds at a time; workers are supervised through SIGCHLD.
void* orbs3_check_worker_thread(void* arg);
// Releases what the control thread holds: socket, allocator, lists, control pool.
void orbs3_ctrl_thread_exit();
