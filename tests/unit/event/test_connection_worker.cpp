// What the worker decides before it serves: its thread count, its vhosts, the test service text.
#include <gtest/gtest.h>

#include <string>

#include "core/orbs3_worker.h"

namespace {

TEST(ConnectionWorker, EpollThreadsFollowTheOnlineCpusWithinOneAndTheThreadTable)
{
    struct row {
        long cpus;
        int threads;
    } const rows[] = {{-1, 1}, {0, 1}, {1, 1}, {2, 2}, {64, 64}, {200, 200}, {201, 200}, {4096, 200}};
    for (const auto& r : rows)
        EXPECT_EQ(orbs3_worker_thread_count(r.cpus), r.threads) << "cpus " << r.cpus;
}

TEST(ConnectionWorker, WorkerKeepsOnlyTheActiveVhostsOfItsService)
{
    orbs3_service_t* svc = orbs3_service_new();
    ASSERT_NE(svc, nullptr);
    const int statuses[] = {1, 0, 1, 2};  // active, inactive, active, stoping
    for (int i = 0; i < 4; i++) {
        orbs3_vhost_t* vh = orbs3_vhost_new();
        ASSERT_NE(vh, nullptr);
        neo_strdup(&vh->id, ("vh" + std::to_string(i)).c_str(), ORBS3_NAME_CAP);
        vh->status = statuses[i];
        ASSERT_EQ(orbs3_service_add_vhost(svc, vh), 0);
        EXPECT_EQ(vh->service, svc);
    }
    EXPECT_EQ(orbs3_keep_active_vhosts(svc), 2);

    orbs3_service_t* saved = orbs3_service;
    orbs3_service = svc;
    EXPECT_NE(orbs3_find_vhost_byid("vh0"), nullptr);
    EXPECT_EQ(orbs3_find_vhost_byid("vh1"), nullptr);
    EXPECT_NE(orbs3_find_vhost_byid("vh2"), nullptr);
    EXPECT_EQ(orbs3_find_vhost_byid("vh3"), nullptr);
    orbs3_free_vhost("vh0");
    EXPECT_EQ(orbs3_find_vhost_byid("vh0"), nullptr);
    EXPECT_EQ(orbs3_keep_active_vhosts(svc), 1);
    orbs3_free_vhost("vh2");
    EXPECT_EQ(orbs3_keep_active_vhosts(svc), 0) << "a service with no active vhost has nothing to serve";
    orbs3_service = saved;
    orbs3_free_service_data(svc);
}

}  // namespace
