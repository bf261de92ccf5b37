// The master's supervision of its workers: the restart backoff, what a reaped worker leaves behind,
// and signals that go to the worker through its pidfd and nowhere else.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "control/orbs3_service.h"
#include "control/orbs3_service_start.h"
#include "storage/orbs3_bucket_store.h"

namespace {

TEST(WorkerSupervision, Backoff)
{
    struct row {
        uint32_t prev;
        int64_t lived;
        uint32_t want;
    };
    const row rows[] = {
        {0, 0, 1},  {1, 0, 2},  {2, 5, 4},   {8, 59, 16}, {16, 1, 30},
        {30, 1, 30}, {30, 60, 1}, {4, 3600, 1},
    };
    for (const row& r : rows)
        EXPECT_EQ(orbs3_restart_backoff(r.prev, r.lived), r.want) << r.prev << " after " << r.lived << " s";
}

// A child as the service's worker: it exits with `code` at once, or with 0 waits to be signalled.
pid_t start_child(orbs3_service_t* svc, int code)
{
    pid_t pid = fork();
    if (pid == 0) {
        if (code != 0)
            _exit(code);
        for (;;)
            pause();
    }
    svc->pid = pid;
    svc->pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    svc->started_at = orbs3_monotonic_s();
    return pid;
}

TEST(WorkerSupervision, ReapedWorkers)
{
    ASSERT_TRUE(list_empty(&g_service_list));
    orbs3_service_t* svc = orbs3_service_new();
    orbs3_vhost_t* vh = orbs3_vhost_new();
    vh->status = ORBS3_STATUS_ACTIVE;
    ASSERT_EQ(orbs3_service_add_vhost(svc, vh), 0);
    ASSERT_EQ(orbs3_list_append(&g_service_list, svc), 0);

    struct row {
        const char* what;
        int signo;       // the signal that ends the child; 0: it exits with status 3
        bool stopping;   // the master is stopping
        int32_t status;  // the vhost's wanted state
        bool restart;
    };
    const row rows[] = {
        {"killed", SIGKILL, false, ORBS3_STATUS_ACTIVE, true},
        {"killed while the master stops", SIGKILL, true, ORBS3_STATUS_ACTIVE, false},
        {"killed with no active vhost", SIGSEGV, false, ORBS3_STATUS_INACTIVE, false},
        {"exited with a status", 0, false, ORBS3_STATUS_ACTIVE, false},
    };
    for (const row& r : rows) {
        vh->status = r.status;
        svc->restart_at = 0;
        svc->backoff = 0;
        const pid_t pid = start_child(svc, r.signo == 0 ? 3 : 0);
        ASSERT_GT(pid, 0);
        ASSERT_GE(svc->pidfd, 0);
        if (r.signo != 0) {
            ASSERT_EQ(orbs3_worker_signal(svc, r.signo), 0) << r.what;
        }
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        // Reaped, not yet forgotten: the pid may name another process now, and the pidfd reaches none.
        EXPECT_EQ(orbs3_worker_signal(svc, SIGTERM), -1) << r.what;
        EXPECT_TRUE(orbs3_worker_reaped(pid, status, r.stopping)) << r.what;
        EXPECT_EQ(svc->pid, 0);
        EXPECT_EQ(svc->pidfd, -1);
        EXPECT_EQ(svc->restart_at != 0, r.restart) << r.what;
        EXPECT_EQ(svc->backoff, r.restart ? 1u : 0u) << r.what;
        EXPECT_EQ(orbs3_worker_signal(svc, SIGTERM), -1);
    }
    // A due restart whose start cannot be posted (this process has no control pool) stays due, and is
    // not counted; a lock held elsewhere puts the check off instead of blocking the master's loop.
    vh->status = ORBS3_STATUS_ACTIVE;
    svc->restart_at = 5;
    orbs3_restart_due_workers(4);
    EXPECT_EQ(svc->restart_at, 5);
    orbs3_restart_due_workers(5);
    EXPECT_EQ(svc->restart_at, 6);
    EXPECT_EQ(svc->restarts, 0u);
    pthread_rwlock_rdlock(&g_service_lock);
    orbs3_restart_due_workers(100);
    pthread_rwlock_unlock(&g_service_lock);
    EXPECT_EQ(svc->restart_at, 6);
    vh->status = ORBS3_STATUS_INACTIVE;
    orbs3_restart_due_workers(100);
    EXPECT_EQ(svc->restart_at, 0) << "nothing active: nothing to restart";

    // A pid that is no worker's is none of the services' business.
    svc->pid = 12345;
    EXPECT_FALSE(orbs3_worker_reaped(1, 0, false));
    EXPECT_EQ(svc->pid, 12345);
    svc->pid = 0;

    neo_list_head_t* first = g_service_list.next;
    list_del(first);
    std::free(orbs3_list_node(first));
    INIT_LIST_HEAD(&g_service_list);
    orbs3_free_service_data(svc);
    orbs3_free_vhost_data(vh);
}

}  // namespace
