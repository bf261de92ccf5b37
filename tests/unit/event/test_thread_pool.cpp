#include <gtest/gtest.h>

#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "event/neo_thread_pool.h"

namespace {

// Polls `done` for up to `seconds`; generous, since the machine may be busy.
bool wait_until(const std::function<bool()>& done, int seconds = 20)
{
    auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > give_up)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

struct tally {
    std::unique_ptr<std::atomic<int>[]> per;
    std::atomic<int> done{0};
    explicit tally(std::size_t n) : per(new std::atomic<int>[n]) { for (std::size_t i = 0; i < n; i++) per[i] = 0; }
};

// data[0]: the tally, data[1]: the task's index.
void count_run(void* data)
{
    auto* w = static_cast<uint64_t*>(data);
    auto* t = reinterpret_cast<tally*>(w[0]);
    t->per[w[1]].fetch_add(1);
    t->done.fetch_add(1);
}

neo_thread_task_t* counting_task(tally* t, uint64_t index)
{
    neo_thread_task_t* task = neo_thread_task_alloc();
    if (task == nullptr)
        return nullptr;
    task->handler = count_run;
    task->data[0] = reinterpret_cast<uint64_t>(t);
    task->data[1] = index;
    return task;
}

int64_t waiting_of(neo_thread_pool_t* pool)
{
    EXPECT_EQ(neo_thread_mutex_lock(&pool->mtx), 0);
    int64_t n = pool->waiting;
    neo_thread_mutex_unlock(&pool->mtx);
    return n;
}

std::vector<int> pool_ktids(neo_thread_pool_t* pool)
{
    std::vector<int> ids;
    pthread_rwlock_rdlock(&pool->thread_lock);
    for (neo_thread_t* t = pool->thread_list; t != nullptr; t = t->next)
        ids.push_back(t->ktid);
    pthread_rwlock_unlock(&pool->thread_lock);
    return ids;
}

bool thread_exists(int ktid)
{
    return access(("/proc/self/task/" + std::to_string(ktid)).c_str(), F_OK) == 0;
}

// The blocked-signal mask of a thread of this process, from its status file.
uint64_t blocked_signals(int ktid)
{
    std::ifstream in("/proc/self/task/" + std::to_string(ktid) + "/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("SigBlk:", 0) == 0)
            return std::stoull(line.substr(7), nullptr, 16);
    return 0;
}

bool signal_in(uint64_t mask, int sig)
{
    return (mask >> (sig - 1)) & 1;
}

// A started pool on the heap, freed by the test only after a clean stop: a failed test must not leave
// threads on a dead frame.
neo_thread_pool_t* heap_pool(const char* name, int threads, int64_t max_queue)
{
    auto* pool = new neo_thread_pool_t{};
    pool->name = name;
    pool->threads = threads;
    pool->max_queue = max_queue;
    return neo_thread_pool_init(pool) == 0 ? pool : nullptr;
}

// A pool whose threads can be held busy, so that a test decides what is waiting.
class GatedPool : public ::testing::Test {
protected:
    static constexpr int kThreads = 4;

    neo_thread_pool_t pool{};
    bool started = false;
    std::atomic<bool> open{false};
    std::atomic<int> holding{0};

    static void hold(void* data)
    {
        auto* self = reinterpret_cast<GatedPool*>(static_cast<uint64_t*>(data)[0]);
        self->holding.fetch_add(1);
        while (!self->open.load())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        self->holding.fetch_sub(1);
    }

    void start(int64_t max_queue)
    {
        pool.name = "gated";
        pool.threads = kThreads;
        pool.max_queue = max_queue;
        ASSERT_EQ(neo_thread_pool_init(&pool), 0);
        started = true;
    }

    // Occupies every thread and waits until all of them run a holding task.
    void occupy_all()
    {
        for (int i = 0; i < kThreads; i++) {
            neo_thread_task_t* task = neo_thread_task_alloc();
            ASSERT_NE(task, nullptr);
            task->handler = hold;
            task->data[0] = reinterpret_cast<uint64_t>(this);
            ASSERT_EQ(neo_thread_task_post(&pool, task), 0);
        }
        ASSERT_TRUE(wait_until([this] { return holding.load() == kThreads; }));
    }

    void TearDown() override
    {
        open = true;
        if (started) {
            EXPECT_EQ(neo_thread_pool_destroy(&pool), 0);
        }
    }
};

}  // namespace

TEST(ThreadPool, RunsEveryQueuedTaskExactlyOnce)
{
    constexpr int kTasks = 10000;
    neo_thread_pool_t* pool = heap_pool("count", 4, 64);  // a small queue: posting meets it full and retries
    ASSERT_NE(pool, nullptr);

    tally t(kTasks);
    int refused = 0;
    for (int i = 0; i < kTasks; i++) {
        neo_thread_task_t* task = counting_task(&t, static_cast<uint64_t>(i));
        ASSERT_NE(task, nullptr);
        int rc;
        auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while ((rc = neo_thread_task_post(pool, task)) == -2 && std::chrono::steady_clock::now() < give_up) {
            refused++;
            sched_yield();
        }
        ASSERT_EQ(rc, 0) << "task " << i;
    }
    EXPECT_TRUE(wait_until([&t] { return t.done.load() == kTasks; })) << t.done.load() << " tasks ran";
    ASSERT_EQ(neo_thread_pool_destroy(pool), 0);

    EXPECT_EQ(t.done.load(), kTasks);
    int wrong = 0;
    for (int i = 0; i < kTasks; i++)
        wrong += t.per[i].load() != 1;
    EXPECT_EQ(wrong, 0) << "tasks that did not run exactly once";
    RecordProperty("refused_posts", refused);
    delete pool;
}

TEST_F(GatedPool, FullQueueRefusesTaskAndRunningTasksDoNotCount)
{
    constexpr int64_t kMax = 1024;
    start(kMax);
    occupy_all();
    EXPECT_EQ(waiting_of(&pool), 0) << "tasks being run are not waiting";

    tally t(kMax + 1);
    std::vector<neo_thread_task_t*> queued;
    for (int64_t i = 0; i < kMax; i++) {
        neo_thread_task_t* task = counting_task(&t, static_cast<uint64_t>(i));
        ASSERT_NE(task, nullptr);
        ASSERT_EQ(neo_thread_task_post(&pool, task), 0) << "task " << i;
        queued.push_back(task);
    }
    EXPECT_EQ(waiting_of(&pool), kMax);

    neo_thread_task_t* extra = counting_task(&t, kMax);
    ASSERT_NE(extra, nullptr);
    EXPECT_EQ(neo_thread_task_post(&pool, extra), -2);
    EXPECT_EQ(extra->flags & NEO_THREAD_TASK_ACTIVE, 0u) << "a refused task is not active";
    EXPECT_EQ(waiting_of(&pool), kMax);

    // A queued task posted again is refused as active, not linked twice.
    EXPECT_TRUE(queued[5]->flags & NEO_THREAD_TASK_ACTIVE);
    EXPECT_EQ(neo_thread_task_post(&pool, queued[5]), -1);
    EXPECT_EQ(waiting_of(&pool), kMax);

    open = true;
    ASSERT_TRUE(wait_until([&t] { return t.done.load() == kMax; })) << t.done.load() << " tasks ran";
    EXPECT_EQ(t.per[kMax].load(), 0) << "the refused task must not run";

    // Once there is room, the refused task can be posted and runs.
    EXPECT_EQ(neo_thread_task_post(&pool, extra), 0);
    ASSERT_TRUE(wait_until([&t] { return t.done.load() == kMax + 1; }));
    int wrong = 0;
    for (int64_t i = 0; i <= kMax; i++)
        wrong += t.per[i].load() != 1;
    EXPECT_EQ(wrong, 0);
}

TEST(ThreadPool, DestroyRunsQueuedTasksThenNoPoolThreadRemains)
{
    constexpr int kThreads = 4;
    constexpr int kTasks = 1000;
    neo_thread_pool_t* pool = heap_pool("stop", kThreads, kTasks);  // full when destroy posts its stop tasks
    ASSERT_NE(pool, nullptr);

    std::vector<int> ids;
    ASSERT_TRUE(wait_until([&] {
        ids = pool_ktids(pool);
        for (int id : ids)
            if (id == 0)
                return false;
        return true;
    }));
    ASSERT_EQ(ids.size(), static_cast<std::size_t>(kThreads));
    EXPECT_EQ(std::set<int>(ids.begin(), ids.end()).size(), ids.size());
    for (int id : ids) {
        EXPECT_NE(id, neo_thread_tid());
        ASSERT_TRUE(thread_exists(id)) << id;
        // Pool threads leave signals to the main thread, except the faults they cause themselves.
        uint64_t mask = blocked_signals(id);
        EXPECT_TRUE(signal_in(mask, SIGTERM) && signal_in(mask, SIGCHLD) && signal_in(mask, SIGINT)) << std::hex << mask;
        EXPECT_FALSE(signal_in(mask, SIGSEGV) || signal_in(mask, SIGBUS) || signal_in(mask, SIGFPE) ||
                     signal_in(mask, SIGILL)) << std::hex << mask;
    }

    tally t(kTasks);
    for (int i = 0; i < kTasks; i++) {
        neo_thread_task_t* task = counting_task(&t, static_cast<uint64_t>(i));
        ASSERT_NE(task, nullptr);
        ASSERT_EQ(neo_thread_task_post(pool, task), 0);
    }
    ASSERT_EQ(neo_thread_pool_destroy(pool), 0);
    // Stop tasks queue behind the work, and each thread finishes its task before it takes one.
    EXPECT_EQ(t.done.load(), kTasks);
    EXPECT_EQ(pool->thread_list, nullptr);

    EXPECT_TRUE(wait_until([&ids] {
        for (int id : ids)
            if (thread_exists(id))
                return false;
        return true;
    }, 10));
    delete pool;
}

TEST(ThreadPool, MutexWrapperReportsMisuse)
{
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
    GTEST_SKIP() << "the misuse this test makes on purpose is what ThreadSanitizer reports";
#endif
#endif
    pthread_mutex_t mtx;
    ASSERT_EQ(neo_thread_mutex_create(&mtx), 0);
    ASSERT_EQ(neo_thread_mutex_lock(&mtx), 0);
    EXPECT_EQ(neo_thread_mutex_lock(&mtx), -1) << "relock by the owner";
    std::thread other([&mtx] { EXPECT_EQ(neo_thread_mutex_unlock(&mtx), -1) << "unlock by a thread that does not own it"; });
    other.join();
    EXPECT_EQ(neo_thread_mutex_unlock(&mtx), 0);
    EXPECT_EQ(neo_thread_mutex_unlock(&mtx), -1) << "unlock of an unlocked mutex";
    EXPECT_EQ(neo_thread_mutex_destroy(&mtx), 0);

    pthread_cond_t cond;
    ASSERT_EQ(neo_thread_cond_create(&cond), 0);
    EXPECT_EQ(neo_thread_cond_signal(&cond), 0);
    EXPECT_EQ(neo_thread_cond_destroy(&cond), 0);
}
