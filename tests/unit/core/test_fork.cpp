#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "core/orbs3_fork_guard.h"

// The master forks workers while its other threads allocate. Each child here allocates at once; a child
// that inherited an allocator lock held by a thread that does not exist in it never finishes, and its
// alarm ends and counts it. In sanitizer builds this needs the fork guard; glibc's malloc guards itself.
TEST(Fork, ChildForkedWhileOtherThreadsAllocateCanAllocate)
{
    orbs3_fork_guard_init();
    std::atomic<bool> stop{false};
    std::vector<std::thread> busy;
    for (int t = 0; t < 2; t++)
        busy.emplace_back([&stop, t] {
            std::vector<void*> keep(64, nullptr);
            for (unsigned i = 0; !stop.load(std::memory_order_relaxed); i++) {
                std::size_t slot = i % keep.size();
                std::free(keep[slot]);
                keep[slot] = std::malloc(16 + (i * 37 + static_cast<unsigned>(t)) % 4096);
            }
            for (void* p : keep)
                std::free(p);
        });
    int stuck = 0;
    for (int i = 0; i < 200; i++) {
        pid_t pid = fork();
        ASSERT_NE(pid, -1);
        if (pid == 0) {
            alarm(60);  // generous: the machine can stall for tens of seconds
            for (int k = 0; k < 64; k++) {
                void* p = std::malloc(16 + static_cast<std::size_t>(k) * 61);
                std::memset(p, 1, 16);
                std::free(p);
            }
            _exit(0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
            stuck++;
    }
    stop = true;
    for (auto& t : busy)
        t.join();
    EXPECT_EQ(stuck, 0);
}
