#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "memory/orbs3_shmem.h"
#include "memory/orbs3_shmtx.h"
#include "memory/orbs3_slab.h"

namespace {

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

// What the processes of a test share: the mutex with its words, and what it guards.
struct shared_t {
    uint64_t words[2];  // lock, wait
    orbs3_shmtx_t mtx;
    uint64_t counter;
    uint64_t inside;
    uint64_t overlaps;
};

struct SharedMap {
    orbs3_shm_t shm{nullptr, sizeof(shared_t)};
    SharedMap() { EXPECT_EQ(orbs3_shm_alloc(&shm), 0); }
    ~SharedMap() { orbs3_shm_free(&shm); }
    shared_t* get() { return reinterpret_cast<shared_t*>(shm.addr); }
};

// Ends the whole test binary if the guarded part outlives its deadline: a lost wake-up must fail the run,
// not hang it.
//
// The constructor returns only once the thread sleeps in its wait. A test forks right after, and a thread
// still starting up may hold the allocator's locks of a sanitizer runtime that does not reset them at fork:
// the child's first allocation would then wait for ever.
class Watchdog {
public:
    Watchdog(std::chrono::seconds limit, pid_t child = -1)
        : child_(child), thread_([this, limit] {
              std::unique_lock<std::mutex> lk(m_);
              started_ = true;
              cv_.notify_all();
              if (!cv_.wait_for(lk, limit, [this] { return done_; })) {
                  std::fprintf(stderr, "shmtx test hung: no progress within its deadline\n");
                  if (child_ > 0)
                      kill(child_, SIGKILL);
                  std::_Exit(3);
              }
          })
    {
        std::unique_lock<std::mutex> lk(m_);
        cv_.wait(lk, [this] { return started_; });
    }
    void set_child(pid_t child) { child_ = child; }
    ~Watchdog()
    {
        {
            std::lock_guard<std::mutex> lk(m_);
            done_ = true;
        }
        cv_.notify_one();
        thread_.join();
    }

private:
    std::atomic<pid_t> child_;
    std::mutex m_;
    std::condition_variable cv_;
    bool started_ = false;
    bool done_ = false;
    std::thread thread_;
};

// Waits for a child with a deadline; a child that overstays is killed and reported as hung (-1).
int wait_child(pid_t pid, std::chrono::seconds limit)
{
    auto deadline = clock_type::now() + limit;
    int status = 0;
    for (;;) {
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid)
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        if (r == -1)
            return -2;
        if (clock_type::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(5ms);
    }
}

template <class Pred>
bool wait_until(Pred pred, std::chrono::milliseconds limit)
{
    auto deadline = clock_type::now() + limit;
    while (!pred()) {
        if (clock_type::now() > deadline)
            return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

uint64_t load(const uint64_t* w)
{
    return __atomic_load_n(w, __ATOMIC_SEQ_CST);
}

// One increment of the shared counter, deliberately not atomic: only the mutex keeps it whole.
void guarded_increment(shared_t* s, orbs3_shmtx_t* mtx, uint64_t* counter)
{
    orbs3_shmtx_guard g(mtx);
    if (__atomic_exchange_n(&s->inside, 1, __ATOMIC_SEQ_CST) != 0)
        __atomic_fetch_add(&s->overlaps, 1, __ATOMIC_SEQ_CST);
    volatile uint64_t* c = counter;
    uint64_t v = *c;
    *c = v + 1;
    __atomic_store_n(&s->inside, 0, __ATOMIC_SEQ_CST);
}

struct Shmtx : ::testing::Test {
    pid_t saved_pid = orbs3_pid;
    SharedMap map;
    shared_t* s = map.get();
    // As in a worker: the lock value is the master's pid, inherited by every process.
    void SetUp() override
    {
        orbs3_pid = getpid();
        ASSERT_NE(s, nullptr);
    }
    void TearDown() override { orbs3_pid = saved_pid; }
};

}  // namespace

TEST_F(Shmtx, TrylockTakesOnlyAFreeWordAndNeverWaits)
{
    ASSERT_EQ(orbs3_shmtx_create(&s->mtx, s->words, "test"), 0);
    ASSERT_EQ(s->mtx.semaphore, 1u);
    EXPECT_EQ(s->mtx.spin, ORBS3_SHMTX_SPIN);
    EXPECT_EQ(s->mtx.wait, &s->words[1]) << "the wait word lies right behind the lock word";

    ASSERT_EQ(orbs3_shmtx_trylock(&s->mtx), 1);
    EXPECT_EQ(load(&s->words[0]), static_cast<uint64_t>(orbs3_pid));

    auto t0 = clock_type::now();
    for (int i = 0; i < 1000; i++)
        ASSERT_EQ(orbs3_shmtx_trylock(&s->mtx), 0);
    EXPECT_LT(clock_type::now() - t0, 500ms) << "a failed trylock returns at once";

    int other_thread = -1;
    std::thread([&] { other_thread = orbs3_shmtx_trylock(&s->mtx); }).join();
    EXPECT_EQ(other_thread, 0);

    pid_t pid = fork();
    ASSERT_NE(pid, -1);
    if (pid == 0)
        _exit(orbs3_shmtx_trylock(&s->mtx) == 0 ? 0 : 1);
    EXPECT_EQ(wait_child(pid, 10s), 0) << "another process sees the mutex held";

    orbs3_shmtx_unlock(&s->mtx);
    EXPECT_EQ(load(&s->words[0]), 0u);
    EXPECT_EQ(load(&s->words[1]), 0u);

    // Unlocking a free mutex changes nothing and posts nothing.
    orbs3_shmtx_unlock(&s->mtx);
    int sval = -1;
    ASSERT_EQ(sem_getvalue(&s->mtx.sem, &sval), 0);
    EXPECT_EQ(sval, 0);

    EXPECT_EQ(orbs3_shmtx_trylock(&s->mtx), 1);
    orbs3_shmtx_unlock(&s->mtx);
    orbs3_shmtx_destroy(&s->mtx);
    EXPECT_EQ(s->mtx.semaphore, 0u);
}

TEST_F(Shmtx, UnlockWakesOneSleeperPerCall)
{
    ASSERT_EQ(orbs3_shmtx_create(&s->mtx, s->words, "test"), 0);
    ASSERT_EQ(s->mtx.semaphore, 1u);

    Watchdog dog(30s);
    orbs3_shmtx_lock(&s->mtx);

    std::atomic<int> entered{0};
    std::atomic<bool> release{false};
    std::vector<std::thread> sleepers;
    for (int i = 0; i < 2; i++)
        sleepers.emplace_back([&] {
            orbs3_shmtx_lock(&s->mtx);
            entered++;
            while (!release.load())
                std::this_thread::sleep_for(1ms);
            orbs3_shmtx_unlock(&s->mtx);
        });

    ASSERT_TRUE(wait_until([&] { return load(&s->words[1]) == 2; }, 10000ms)) << "both go to sleep";
    EXPECT_EQ(entered.load(), 0);

    orbs3_shmtx_unlock(&s->mtx);
    ASSERT_TRUE(wait_until([&] { return entered.load() == 1; }, 10000ms)) << "one sleeper woke and took it";
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(entered.load(), 1) << "the other one still sleeps";
    EXPECT_EQ(load(&s->words[1]), 1u);
    EXPECT_EQ(load(&s->words[0]), static_cast<uint64_t>(orbs3_pid));

    release = true;  // its unlock wakes the second
    ASSERT_TRUE(wait_until([&] { return entered.load() == 2; }, 10000ms));
    for (auto& t : sleepers)
        t.join();
    EXPECT_EQ(load(&s->words[0]), 0u);
    EXPECT_EQ(load(&s->words[1]), 0u);
    int sval = -1;
    ASSERT_EQ(sem_getvalue(&s->mtx.sem, &sval), 0);
    EXPECT_EQ(sval, 0) << "no post is left over";
    orbs3_shmtx_destroy(&s->mtx);
}

TEST_F(Shmtx, WithoutSemaphoreThreadsStillExclude)
{
    s->mtx.spin = ORBS3_SHMTX_NO_SEMAPHORE;
    ASSERT_EQ(orbs3_shmtx_create(&s->mtx, s->words, "test"), 0);
    EXPECT_EQ(s->mtx.semaphore, 0u);
    EXPECT_EQ(s->mtx.spin, ORBS3_SHMTX_NO_SEMAPHORE);

    constexpr int kThreads = 4;
    constexpr int kEach = 20000;
    Watchdog dog(60s);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; i++)
        threads.emplace_back([&] {
            for (int n = 0; n < kEach; n++)
                guarded_increment(s, &s->mtx, &s->counter);
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(s->counter, uint64_t{kThreads} * kEach);
    EXPECT_EQ(s->overlaps, 0u);
    EXPECT_EQ(load(&s->words[0]), 0u);
    orbs3_shmtx_destroy(&s->mtx);  // nothing to destroy: must not touch `sem`
}

// The mutex of a slab pool, contended by threads of two processes: the counter lives in the zone and
// every increment survives. Now and then a thread also allocates and frees in the pool, which takes the
// same mutex, and the pool's accounting must come out as it went in.
TEST_F(Shmtx, PoolMutexContendedByProcessesAndThreadsLosesNoUpdate)
{
    constexpr int kThreads = 3;  // in each process
    constexpr int kEach = 50000;
    constexpr uint64_t kZone = 256 * 1024;

    orbs3_shm_zone_t* zone = nullptr;
    ASSERT_EQ(orbs3_http_create_shm_zone(&zone, kZone), 0);
    orbs3_slab_pool_t* pool = nullptr;
    ASSERT_EQ(orbs3_init_zone_pool(zone->shm.addr, &pool, kZone), 0);
    zone->data = pool;

    auto* s = static_cast<shared_t*>(orbs3_slab_calloc(pool, sizeof(shared_t)));
    ASSERT_NE(s, nullptr);
    const uint64_t pfree0 = pool->pfree;
    std::vector<orbs3_slab_stat_t> stats0(pool->stats, pool->stats + ORBS3_SLAB_SLOTS);

    auto work = [pool, s](int seed) {
        for (int n = 0; n < kEach; n++) {
            guarded_increment(s, &pool->mutex, &s->counter);
            if (n % 512 == 0) {
                std::size_t size = std::size_t{8} << ((n / 512 + seed) % 10);  // 8 .. 4096
                void* p = orbs3_slab_alloc(pool, size);
                if (p != nullptr) {
                    std::memset(p, 0x3c, size);
                    orbs3_slab_free(pool, p);
                }
            }
        }
    };
    auto run_threads = [&](int base) {
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; i++)
            threads.emplace_back(work, base + i);
        for (auto& t : threads)
            t.join();
    };

    Watchdog dog(60s);
    auto t0 = clock_type::now();
    pid_t pid = fork();
    ASSERT_NE(pid, -1);
    if (pid == 0) {
        alarm(60);  // a hung child ends itself
        run_threads(100);
        _exit(0);
    }
    dog.set_child(pid);
    run_threads(0);
    ASSERT_EQ(wait_child(pid, 60s), 0);
    auto elapsed = clock_type::now() - t0;

    EXPECT_EQ(s->counter, uint64_t{2} * kThreads * kEach);
    EXPECT_EQ(s->overlaps, 0u);
    EXPECT_EQ(load(&pool->lock_word), 0u);
    EXPECT_LE(static_cast<int64_t>(load(&pool->wait_word)), 0) << "no sleeper is left counted";
    EXPECT_EQ(pool->pfree, pfree0);
    for (uint64_t i = 0; i < ORBS3_SLAB_SLOTS; i++) {
        EXPECT_EQ(pool->stats[i].used, stats0[i].used) << "slot " << i;
        EXPECT_EQ(pool->stats[i].fails, 0u) << "slot " << i;
    }
    std::printf("[ measured ] %d increments in %lld ms\n", 2 * kThreads * kEach,
                static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count()));

    orbs3_slab_free(pool, s);
    orbs3_shmtx_destroy(&pool->mutex);
    orbs3_http_free_shm_zone(zone);
}
