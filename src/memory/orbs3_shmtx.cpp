#include "memory/orbs3_shmtx.h"

#include <unistd.h>

#include <cerrno>

#include "core/orbs3_log.h"

pid_t orbs3_pid = 0;

namespace {

// orbs3_pid is 0 only in a process that never became the master (a tool, a test). A lock value of 0 would
// make every lock look free, so such a process takes 1: still "held, not by whom".
uint64_t lock_value()
{
    return orbs3_pid > 0 ? static_cast<uint64_t>(orbs3_pid) : 1;
}

bool try_take(uint64_t* word, uint64_t value)
{
    // Sequentially consistent, so a sleeper's raise of `wait` and its last look at the word cannot both
    // miss an unlock that runs in between.
    if (__atomic_load_n(word, __ATOMIC_SEQ_CST) != 0)
        return false;
    uint64_t expected = 0;
    return __atomic_compare_exchange_n(word, &expected, value, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED);
}

inline void cpu_pause()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    __asm__ __volatile__("yield");
#endif
}

}  // namespace

int orbs3_shmtx_create(orbs3_shmtx_t* mtx, uint64_t* addr, const char* name)
{
    (void)name;
    mtx->lock = addr;
    mtx->wait = nullptr;
    mtx->semaphore = 0;
    if (mtx->spin == ORBS3_SHMTX_NO_SEMAPHORE)
        return 0;

    mtx->spin = ORBS3_SHMTX_SPIN;
    mtx->wait = addr + 1;
    if (sem_init(&mtx->sem, 1, 0) == -1)
        ipd_debug("sem_init() failed");
    else
        mtx->semaphore = 1;
    return 0;
}

void orbs3_shmtx_destroy(orbs3_shmtx_t* mtx)
{
    if (mtx->semaphore == 0)
        return;
    if (sem_destroy(&mtx->sem) == -1)
        ipd_debug("sem_destroy() failed");
    mtx->semaphore = 0;
}

int orbs3_shmtx_trylock(orbs3_shmtx_t* mtx)
{
    return try_take(mtx->lock, lock_value()) ? 1 : 0;
}

void orbs3_shmtx_lock(orbs3_shmtx_t* mtx)
{
    const uint64_t value = lock_value();
    // Without a semaphore the spin bound is -1; spinning without end would burn a CPU that the holder may
    // need, so such a mutex spins as far as one with a semaphore and then sleeps a moment.
    const uint64_t spin = mtx->spin < ORBS3_SHMTX_SPIN ? mtx->spin : ORBS3_SHMTX_SPIN;

    for (;;) {
        if (try_take(mtx->lock, value))
            return;

        for (uint64_t n = 1; n < spin; n <<= 1) {
            for (uint64_t i = 0; i < n; i++)
                cpu_pause();
            if (try_take(mtx->lock, value))
                return;
        }

        if (mtx->semaphore == 0) {
            usleep(1);
            continue;
        }

        __atomic_fetch_add(mtx->wait, 1, __ATOMIC_SEQ_CST);
        if (try_take(mtx->lock, value)) {
            __atomic_fetch_sub(mtx->wait, 1, __ATOMIC_SEQ_CST);
            return;
        }
        while (sem_wait(&mtx->sem) == -1) {
            if (errno != EINTR) {
                ipd_debug("sem_wait() failed while waiting on shmtx");
                break;
            }
        }
    }
}

void orbs3_shmtx_unlock(orbs3_shmtx_t* mtx)
{
    uint64_t expected = lock_value();
    if (__atomic_compare_exchange_n(mtx->lock, &expected, 0, false, __ATOMIC_SEQ_CST, __ATOMIC_RELAXED))
        orbs3_shmtx_wakeup(mtx);
}

void orbs3_shmtx_wakeup(orbs3_shmtx_t* mtx)
{
    if (mtx->semaphore == 0)
        return;

    // A sleeper that took the lock on its last try lowers `wait` itself, which can race a waker's decrement
    // and leave the word at -1; read it signed so that state counts as "nobody to wake". The extra post
    // it left behind only costs one spurious wake-up later.
    uint64_t wait = __atomic_load_n(mtx->wait, __ATOMIC_SEQ_CST);
    for (;;) {
        if (static_cast<int64_t>(wait) < 1)
            return;
        if (__atomic_compare_exchange_n(mtx->wait, &wait, wait - 1, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST))
            break;
    }
    if (sem_post(&mtx->sem) == -1)
        ipd_debug("sem_post() failed while wake shmtx");
}
