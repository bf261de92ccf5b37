// Client of the cluster controller shost: register, load the vhosts, report alive.
#pragma once

#include <atomic>

// -1 must register; 0 registration failed; 1 registered.
extern std::atomic<int> g_shost_register;
// -1 unknown (no alive report is made); 0 offline; 1 online.
extern std::atomic<int> g_shost_status;

// The thread: every 3 seconds one pass; the pass with the first known result of registration loads the
// vhosts. Never returns.
void* orbs3_shost_thread(void* arg);
// One pass of the thread, without its sleep; for the thread and for tests.
void orbs3_shost_pass();
// 0, or -1 when the exchange failed.
int orbs3_register_shost();
int orbs3_alive_shost();
