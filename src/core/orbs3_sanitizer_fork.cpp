// Sanitizer builds only: the address sanitizer's allocator of this compiler has no fork handler of its own.
// A worker forked while another master thread was inside malloc would start with the allocator's lock
// held by a thread that does not exist in it, and wait for ever at its first allocation. The runtime's own
// lock and unlock of the whole allocator are wrapped around fork here, as glibc does for its malloc.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORBS3_ASAN_FORK_GUARD 1
#endif
#endif

#include "core/orbs3_fork_guard.h"

#ifdef ORBS3_ASAN_FORK_GUARD
#include <pthread.h>

namespace __asan {
void asan_mz_force_lock();
void asan_mz_force_unlock();
}  // namespace __asan

namespace {

void allocator_lock()
{
    __asan::asan_mz_force_lock();
}

void allocator_unlock()
{
    __asan::asan_mz_force_unlock();
}

}  // namespace
#endif

void orbs3_fork_guard_init()
{
#ifdef ORBS3_ASAN_FORK_GUARD
    // First thing in main, before any handler registered later, so its prepare step runs last, when no
    // other prepare step can need memory any more.
    static const int registered = pthread_atfork(allocator_lock, allocator_unlock, allocator_unlock);
    (void)registered;
#endif
}
