// A mutex for processes and threads: a lock word in shared memory, taken by compare-and-swap, with a
// bounded spin and then a sleep on a process-shared POSIX semaphore.
//
// The word holds orbs3_pid while the mutex is held. Every worker and thread uses that same value (a worker
// inherits it), so the word says that the mutex is held, not by whom. A process that dies holding it leaves
// it held: there is no recovery.
#pragma once

#include <semaphore.h>
#include <sys/types.h>

#include <cstdint>

// The record may lie anywhere while only threads of one process use it. Between processes it must lie in
// shared memory too, because `sem` is where the sleepers of every process wait.
struct orbs3_shmtx_t {
    uint64_t* lock;      // 0 when free, else orbs3_pid
    uint64_t* wait;      // number of sleepers; the word behind `lock`
    uint64_t semaphore;  // 1 if `sem` works
    sem_t sem;           // shared between processes, start value 0
    uint64_t spin;       // upper bound of the spinning; set to -1 before create for no semaphore
};

// The master's pid, the value of a held lock word. The master sets it at start and workers inherit it; 0
// in a process that never became the master.
extern pid_t orbs3_pid;

inline constexpr uint64_t ORBS3_SHMTX_SPIN = 2048;
inline constexpr uint64_t ORBS3_SHMTX_NO_SEMAPHORE = static_cast<uint64_t>(-1);

// `addr` points to two aligned words, lock and wait, both in the memory the users share. Always 0.
int orbs3_shmtx_create(orbs3_shmtx_t* mtx, uint64_t* addr, const char* name);
void orbs3_shmtx_destroy(orbs3_shmtx_t* mtx);
// One compare-and-swap if the word is free: 1 if taken, else 0. Never waits.
[[nodiscard]] int orbs3_shmtx_trylock(orbs3_shmtx_t* mtx);
void orbs3_shmtx_lock(orbs3_shmtx_t* mtx);
void orbs3_shmtx_unlock(orbs3_shmtx_t* mtx);
// Wakes one sleeper, if any.
void orbs3_shmtx_wakeup(orbs3_shmtx_t* mtx);

// Holds a mutex for a scope.
class orbs3_shmtx_guard {
public:
    explicit orbs3_shmtx_guard(orbs3_shmtx_t* mtx) : mtx_(mtx) { orbs3_shmtx_lock(mtx_); }
    ~orbs3_shmtx_guard() { orbs3_shmtx_unlock(mtx_); }
    orbs3_shmtx_guard(const orbs3_shmtx_guard&) = delete;
    orbs3_shmtx_guard& operator=(const orbs3_shmtx_guard&) = delete;

private:
    orbs3_shmtx_t* mtx_;
};
