#include "memory/orbs3_ha_malloc.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <atomic>
#include <cstring>
#include <mutex>

namespace {

struct ha_hdr_t {
    uint32_t magic;
    uint64_t size;  // as requested
    int bucket;     // HA_BUCKETS for a block above the largest bucket
};
static_assert(sizeof(ha_hdr_t) == ha_malloc_hdr_offset);
static_assert(offsetof(ha_hdr_t, size) == 8 && offsetof(ha_hdr_t, bucket) == 16);

// The slack beyond the header keeps every block a little larger than it must be, as before.
constexpr std::size_t HA_BLOCK_EXTRA = 32;

// Private to each process after fork; only the semaphore is shared.
void* ha_malloc_buckets[HA_BUCKETS];
std::atomic<int> ha_semid{-1};  // -1 until the first use creates the semaphore
std::mutex ha_init_mtx;

// Several threads may make the first call at once; they must end up on one semaphore.
int ha_lock_init()
{
    if (ha_semid.load(std::memory_order_acquire) != -1)
        return 0;
    std::lock_guard<std::mutex> g(ha_init_mtx);
    if (ha_semid.load(std::memory_order_relaxed) != -1)
        return 0;
    int id = semget(IPC_PRIVATE, 1, IPC_CREAT | 0660);
    if (id == -1)
        return -1;
    union {
        int val;
        struct semid_ds* buf;
        unsigned short* array;
    } arg{};
    arg.val = 1;
    if (semctl(id, 0, SETVAL, arg) == -1) {
        semctl(id, 0, IPC_RMID);
        return -1;
    }
    ha_semid.store(id, std::memory_order_release);
    return 0;
}

int ha_sem_op(short op)
{
    int id = ha_semid.load(std::memory_order_acquire);
    if (id == -1)
        return -1;
    struct sembuf sb{};
    sb.sem_num = 0;
    sb.sem_op = op;
    sb.sem_flg = SEM_UNDO;
    while (semop(id, &sb, 1) == -1) {
        if (errno != EINTR)
            return -1;
    }
    return 0;
}

int ha_lock()
{
    return ha_sem_op(-1);
}

void ha_unlock()
{
    (void)ha_sem_op(1);
}

ha_hdr_t* ha_hdr(const void* p)
{
    return reinterpret_cast<ha_hdr_t*>(const_cast<char*>(static_cast<const char*>(p)) - ha_malloc_hdr_offset);
}

void* ha_user(ha_hdr_t* h)
{
    return reinterpret_cast<char*>(h) + ha_malloc_hdr_offset;
}

// The free-list link lives in the first word of the caller's memory, which may be only 8-aligned.
void* ha_next(void* user)
{
    void* n;
    std::memcpy(&n, user, sizeof(n));
    return n;
}

void ha_set_next(void* user, void* n)
{
    std::memcpy(user, &n, sizeof(n));
}

}  // namespace

void* ha_malloc(std::size_t size)
{
    if (size > SIZE_MAX - HA_BLOCK_EXTRA)
        return nullptr;
    if (ha_lock_init() != 0)
        return nullptr;
    if (ha_lock() != 0)
        return nullptr;

    int b = 0;
    while (b < HA_BUCKETS && ha_bucket_sizes[b] < size)
        b++;

    if (b < HA_BUCKETS && ha_malloc_buckets[b] != nullptr) {
        void* user = ha_malloc_buckets[b];
        ha_malloc_buckets[b] = ha_next(user);
        ha_hdr(user)->size = size;
        ha_unlock();
        return user;
    }

    std::size_t bsize = (b < HA_BUCKETS ? ha_bucket_sizes[b] : size) + HA_BLOCK_EXTRA;
    auto* h = static_cast<ha_hdr_t*>(std::malloc(bsize));
    ha_unlock();
    if (h == nullptr)
        return nullptr;
    h->magic = HA_MAGIC;
    h->size = size;
    h->bucket = b;
    return ha_user(h);
}

void* ha_calloc(std::size_t count, std::size_t size)
{
    if (size != 0 && count > SIZE_MAX / size)
        return nullptr;
    void* p = ha_malloc(count * size);
    if (p != nullptr)
        std::memset(p, 0, count * size);
    return p;
}

void ha_free(void* p)
{
    if (p == nullptr)
        return;
    ha_hdr_t* h = ha_hdr(p);
    if (ha_lock() != 0) {
        // Without the lock the lists cannot be touched; the system takes the block back.
        if (h->magic == HA_MAGIC)
            std::free(h);
        return;
    }
    if (h->magic != HA_MAGIC) {
        ha_unlock();
        return;
    }
    if (h->bucket >= 0 && h->bucket < HA_BUCKETS) {
        ha_set_next(p, ha_malloc_buckets[h->bucket]);
        ha_malloc_buckets[h->bucket] = p;
        ha_unlock();
        return;
    }
    ha_unlock();
    std::free(h);
}

void ha_malloc_release()
{
    if (ha_lock() != 0)
        return;
    for (auto& head : ha_malloc_buckets) {
        while (head != nullptr) {
            void* n = ha_next(head);
            std::free(ha_hdr(head));
            head = n;
        }
    }
    // Removing the set also drops this process's undo record, so there is nothing to give back.
    std::lock_guard<std::mutex> g(ha_init_mtx);
    semctl(ha_semid.exchange(-1), 0, IPC_RMID);
}

int ha_block_bucket(const void* p)
{
    return ha_hdr(p)->bucket;
}

std::size_t ha_free_count(int bucket)
{
    if (bucket < 0 || bucket >= HA_BUCKETS)
        return 0;
    if (ha_lock() != 0)
        return 0;
    std::size_t n = 0;
    for (void* u = ha_malloc_buckets[bucket]; u != nullptr; u = ha_next(u))
        n++;
    ha_unlock();
    return n;
}
