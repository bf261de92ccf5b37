#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <json-c/json.h>

#include <cstring>
#include <thread>
#include <string>
#include <vector>

#include "control/orbs3_msg.h"
#include "control/orbs3_service.h"
#include "control/orbs3_ud.h"
#include "storage/orbs3_bucket_store.h"
#include "control/orbs3_service_start.h"
#include "temp_dir.h"

namespace {

orbs3_vhost_t* make_vhost(const char* name, uint32_t ssl, const char* ip, uint32_t port, int32_t status)
{
    orbs3_vhost_t* vh = orbs3_vhost_new();
    neo_strdup(&vh->name, name, ORBS3_NAME_CAP);
    neo_strdup(&vh->ipaddr, ip, ORBS3_ADDR_CAP);
    neo_strdup(&vh->ipversion, "ipv4", ORBS3_ADDR_CAP);
    neo_strdup(&vh->cert, name, ORBS3_PATH_CAP);  // tells which vhost gave the service its TLS files
    vh->ssl = ssl;
    vh->port = port;
    vh->status = status;
    return vh;
}

std::vector<orbs3_service_t*> services()
{
    std::vector<orbs3_service_t*> out;
    neo_list_head_t* pos;
    list_for_each(pos, &g_service_list) out.push_back(static_cast<orbs3_service_t*>(orbs3_list_node(pos)->data));
    return out;
}

// The node's lists are process-wide: each test leaves them empty as it found them.
class ServiceStart : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(list_empty(&g_service_list));
        ASSERT_TRUE(list_empty(&g_vhost_list));
    }
    void TearDown() override
    {
        neo_list_head_t *pos, *n;
        list_for_each_safe(pos, n, &g_service_list)
        {
            list_del(pos);
            orbs3_free_service_data(static_cast<orbs3_service_t*>(orbs3_list_node(pos)->data));
            std::free(orbs3_list_node(pos));
        }
        INIT_LIST_HEAD(&g_service_list);
        orbs3_free_vhost_list(&g_vhost_list);
    }
};

}  // namespace

// Same ssl, address and port share a service; a different TLS word, address or port makes a new one, and
// the first vhost of a service decides its TLS files.
TEST_F(ServiceStart, VhostsFormOneServicePerSslAddressAndPort)
{
    struct row {
        const char* name;
        uint32_t ssl;
        const char* ip;
        uint32_t port;
    } const rows[] = {
        {"a", 1, "127.0.0.1", 9000}, {"b", 1, "127.0.0.1", 9000}, {"c", 0, "127.0.0.1", 9000},
        {"d", 1, "127.0.0.2", 9000}, {"e", 1, "127.0.0.1", 9001}, {"f", 0, "127.0.0.1", 9000},
    };
    for (const auto& r : rows)
        ASSERT_EQ(orbs3_list_append(&g_vhost_list, make_vhost(r.name, r.ssl, r.ip, r.port, 0)), 0);
    orbs3_init_vhost();

    auto svcs = services();
    ASSERT_EQ(svcs.size(), 4u);
    auto names = [](orbs3_service_t* svc) {
        std::string out;
        neo_list_head_t* pos;
        list_for_each(pos, &svc->vhosts)
        {
            auto* vh = static_cast<orbs3_vhost_t*>(orbs3_list_node(pos)->data);
            EXPECT_EQ(vh->service, svc);
            out += neo_getstr(&vh->name);
        }
        return out;
    };
    EXPECT_EQ(names(svcs[0]), "ab");
    EXPECT_EQ(names(svcs[1]), "cf");
    EXPECT_EQ(names(svcs[2]), "d");
    EXPECT_EQ(names(svcs[3]), "e");
    EXPECT_STREQ(neo_getstr(&svcs[1]->cert), "c");
    EXPECT_EQ(orbs3_check_service_is_exist(0, "127.0.0.1", 9000), svcs[1]);
    EXPECT_EQ(orbs3_check_service_is_exist(0, "127.0.0.1", 9001), nullptr);
}

// A worker lives as long as its service has an active vhost: stopping one of two leaves it, stopping the
// last sends it SIGWINCH and marks the service as without a worker.
TEST_F(ServiceStart, StopOfTheLastActiveVhostEndsTheWorker)
{
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        signal(SIGWINCH, [](int) { _exit(42); });  // the default action ignores it
        alarm(20);
        (void)!write(ready[1], "r", 1);
        for (;;)
            pause();
    }
    char c;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    close(ready[0]);
    close(ready[1]);

    orbs3_vhost_t* a = make_vhost("a", 1, "127.0.0.1", 9000, ORBS3_STATUS_ACTIVE);
    orbs3_vhost_t* b = make_vhost("b", 1, "127.0.0.1", 9000, ORBS3_STATUS_ACTIVE);
    ASSERT_EQ(orbs3_list_append(&g_vhost_list, a), 0);
    ASSERT_EQ(orbs3_list_append(&g_vhost_list, b), 0);
    orbs3_init_vhost();
    orbs3_service_t* svc = a->service;
    ASSERT_EQ(svc, b->service);
    svc->pid = child;
    svc->pidfd = static_cast<int>(syscall(SYS_pidfd_open, child, 0));  // the start task's hold on it
    ASSERT_GE(svc->pidfd, 0);

    a->status = ORBS3_STATUS_INACTIVE;
    a->running = ORBS3_STATUS_STOPING;
    EXPECT_EQ(orbs3_stop_vhost(a), 0);
    EXPECT_EQ(a->running, ORBS3_STATUS_INACTIVE);
    EXPECT_EQ(svc->pid, child) << "another vhost is active: the worker stays";
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, WNOHANG), 0);

    b->status = ORBS3_STATUS_INACTIVE;
    EXPECT_EQ(orbs3_stop_vhost(b), 0);
    EXPECT_EQ(svc->pid, 0);
    EXPECT_EQ(svc->pidfd, -1);
    EXPECT_NE(svc->flags & ORBS3_SERVICE_EXITED, 0);
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 42) << "the worker got SIGWINCH";
}

namespace {

// The worker's end of its control socket, standing in for it: takes `n` requests, answers each with
// success and keeps the type and the body as JSON.
struct worker_standin {
    unit_test::temp_dir dir;
    std::string path = dir.path + "/4242.iface";
    std::vector<std::pair<uint32_t, std::string>> got;
    std::thread t;
    int fd = -1;

    explicit worker_standin(int n)
    {
        EXPECT_EQ(ud_create_listen_socket(path.c_str(), &fd), 0);
        t = std::thread([this, n] {
            for (int i = 0; i < n; ++i) {
                const int c = ud_accept(fd, nullptr, nullptr);
                orbs3_msg_t* m = c >= 0 ? orbs3_readmsg_from_unixdomain(c) : nullptr;
                if (m == nullptr)
                    return;
                got.emplace_back(m->head->type, m->data != nullptr ? m->data : "");
                (void)orbs3_make_and_send_reply_msg_to_unixdomain(c, m->head->type, ORBS3_MSG_STATUS_OK, nullptr, 0);
                orbs3_msg_del(m);
                ud_close(c);
            }
        });
    }
    ~worker_standin()
    {
        if (t.joinable())
            t.join();
        ud_destory_listen_socket(path.c_str(), fd);
    }
};

std::string key_of(const std::string& body, const char* key)
{
    json_object* o = json_tokener_parse(body.c_str());
    json_object* v = nullptr;
    std::string out = o != nullptr && json_object_object_get_ex(o, key, &v) ? json_object_get_string(v) : "<none>";
    json_object_put(o);
    return out;
}

}  // namespace

// A running worker learns of each change on its own socket: a vhost started on its service is sent as an
// add with what the worker needs to find the tenant's trees and users, an edit as an edit with the count of
// TLS changes (then cleared), a new user as an edit (the worker reads the tenant's users again), a stop of one of several as a delete. Nothing
// goes to a worker for a vhost that is not active.
TEST_F(ServiceStart, RunningWorkerIsToldOfStartEditUserAndStop)
{
    orbs3_vhost_t* a = make_vhost("a", 1, "127.0.0.1", 9000, ORBS3_STATUS_ACTIVE);
    orbs3_vhost_t* b = make_vhost("b", 1, "127.0.0.1", 9000, ORBS3_STATUS_ACTIVE);
    neo_strdup(&b->id, "b-id", ORBS3_NAME_CAP);
    neo_strdup(&b->group_path, "tenants/b", ORBS3_PATH_CAP);
    neo_strdup(&b->cluster, "c1", ORBS3_NAME_CAP);
    neo_strdup(&b->tiered, "t1", ORBS3_NAME_CAP);
    neo_strdup(&b->admin.accesskeyid, "AKB", ORBS3_KEY_CAP);
    ASSERT_EQ(orbs3_list_append(&g_vhost_list, a), 0);
    ASSERT_EQ(orbs3_list_append(&g_vhost_list, b), 0);
    orbs3_init_vhost();
    orbs3_service_t* svc = a->service;

    worker_standin w(4);
    svc->pid = 4242;  // a worker lives: nothing is forked, and no signal is sent while a stays active
    std::snprintf(svc->iface, sizeof svc->iface, "%s", w.path.c_str());

    EXPECT_EQ(orbs3_start_vhost(b), 0);
    b->chg = 2;
    EXPECT_EQ(orbs3_edit_vhost(b), 0);
    EXPECT_EQ(b->chg, 0);
    EXPECT_EQ(orbs3_notify_add_user(b), 0);
    b->status = ORBS3_STATUS_INACTIVE;
    EXPECT_EQ(orbs3_edit_vhost(b), 0);  // inactive: nothing sent
    EXPECT_EQ(orbs3_stop_vhost(b), 0);
    w.t.join();

    ASSERT_EQ(w.got.size(), 4u);
    const auto& [add_type, add] = w.got[0];
    EXPECT_EQ(add_type, ORBS3_MSG_ADD_VHOST);
    EXPECT_EQ(key_of(add, "id") + key_of(add, "name") + key_of(add, "path") + key_of(add, "cluster") +
                  key_of(add, "tiered") + key_of(add, "accesskeyid"),
              "b-idbtenants/bc1t1AKB");
    EXPECT_EQ(w.got[1].first, ORBS3_MSG_EDIT_VHOST);
    EXPECT_EQ(key_of(w.got[1].second, "chg") + key_of(w.got[1].second, "id"), "2b-id");
    EXPECT_EQ(w.got[2].first, ORBS3_MSG_EDIT_VHOST);
    EXPECT_EQ(key_of(w.got[2].second, "chg") + key_of(w.got[2].second, "id"), "0b-id");
    EXPECT_EQ(w.got[3].first, ORBS3_MSG_DELETE_VHOST);
    EXPECT_EQ(key_of(w.got[3].second, "id") + key_of(w.got[3].second, "name"), "b-idb");
    EXPECT_EQ(b->running, ORBS3_STATUS_INACTIVE);
    EXPECT_EQ(svc->pid, 4242) << "a stays active: the worker is not ended";
    svc->pid = 0;
}
