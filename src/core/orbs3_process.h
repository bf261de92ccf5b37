// The master process: command line, daemonising, pid file, signals, main threads, reaping and exit order.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>

extern std::atomic<int> orbs3_terminate; // 1 once SIGTERM or SIGQUIT has been taken
extern int epfd;                        // the master's epoll descriptor

struct orbs3_main_thread_t {
    pthread_t tid;
    char name[32];
    void* args;
    void* (*routine)(void*);
};
extern orbs3_main_thread_t g_main_threads[3];

// 0 to go on starting, 1 for an argument without "-". Control commands (-k, -s) and bad letters end the
// process here.
int orbs3_get_options(int argc, char** argv);
[[noreturn]] void usage();
int orbs3_make_daemon();
pid_t orbs3_get_running_pid();
int orbs3_set_running_pid();
int sheild_signals();
void orbs3_master_process_cycle(char** argv);
int orbs3_master_process_init();
void other_process_main_start();
[[noreturn]] void control_process();
void orbs3_signal_process(int signo);
int master_process_exit();
int orbs3_handle_reap_children();
[[noreturn]] void orbs3_master_exit();

// The usage text, as written to standard error.
const char* orbs3_usage_text();
