// A worker's vhosts are replaced and removed by its control thread while the epoll threads resolve and
// use them: a record a request holds is never freed or changed under it, and every record is freed once.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "core/orbs3_tenant.h"
#include "http/http_test_request.h"
#include "service_fixture.h"

namespace {

std::atomic<int> g_made{0};
std::atomic<int> g_freed{0};

orbs3_vhost_t* make_vhost(const char* domain, const std::string& name)
{
    orbs3_vhost_t* vh = orbs3_vhost_new();
    neo_strdup(&vh->domain, domain, ORBS3_NAME_CAP);
    neo_strdup(&vh->name, name.c_str(), ORBS3_NAME_CAP);
    g_made.fetch_add(1);
    return vh;
}

void free_counted(orbs3_vhost_t* vh)
{
    neo_strfree(&vh->name);
    // A reader that still used the record would now see a poisoned domain (and the sanitizers the free).
    std::memset(vh->domain.data, 'X', vh->domain.len);
    neo_strfree(&vh->domain);
    orbs3_user_clear(&vh->admin);
    delete vh;
    g_freed.fetch_add(1);
}

TEST(VhostLifetime, LookupsRaceEditsAndDeletes)
{
    http_test::ensure_headers_hash();
    g_made = 0;
    g_freed = 0;
    auto* const saved_hook = orbs3_vhost_free_hook;
    orbs3_vhost_free_hook = free_counted;
    unit_test::service_fixture f({});
    orbs3_vhost_t* a = make_vhost("a.example", "a-0");
    orbs3_vhost_t* b = make_vhost("b.example", "b-0");
    ASSERT_EQ(orbs3_vhosts_insert(&f.svc->vhosts, a), 0);
    ASSERT_EQ(orbs3_vhosts_insert(&f.svc->vhosts, b), 0);

    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    std::atomic<long> lookups{0};
    auto reader = [&](const char* host) {
        http_test::test_request t(std::string("GET / HTTP/1.1\r\nHost: ") + host + "\r\n\r\n");
        if (t.r == nullptr) {
            bad++;
            return;
        }
        t.r->connection = f.connection();
        (void)parser_http_request_handler(t.r);
        while (!stop.load()) {
            (void)orbs3_find_virtual_server(t.r);
            orbs3_vhost_t* vh = t.r->vhost;
            if (vh == nullptr || t.r->vhost_held != 1) {
                bad++;
                break;
            }
            // The record is read across the writer's turns and must stay what it was when found.
            const std::string domain(orbs3_str_view(vh->domain));
            const std::string name(orbs3_str_view(vh->name));
            std::this_thread::yield();
            if (domain != "a.example" && domain != "b.example")
                bad++;
            if (orbs3_str_view(vh->domain) != domain || orbs3_str_view(vh->name) != name)
                bad++;
            orbs3_http_drop_vhost(t.r);
            lookups++;
        }
        orbs3_http_drop_vhost(t.r);
    };
    std::vector<std::thread> readers;
    for (const char* h : {"a.example", "b.example", "bkt.a.example", "other"})
        readers.emplace_back(reader, h);

    while (lookups.load() < 100 && bad.load() == 0)
        std::this_thread::yield();
    // The control thread's part: an edit swaps a new record in, a delete and an add replace b.
    for (int i = 1; i <= 2000; i++) {
        orbs3_vhost_t* next = make_vhost("a.example", "a-" + std::to_string(i));
        ASSERT_EQ(orbs3_vhosts_swap(&f.svc->vhosts, a, next), 0);
        orbs3_vhost_release(a);
        a = next;
        if (i % 4 == 0) {
            ASSERT_TRUE(orbs3_vhosts_unlink(&f.svc->vhosts, b));
            orbs3_vhost_release(b);
            b = make_vhost("b.example", "b-" + std::to_string(i));
            ASSERT_EQ(orbs3_vhosts_insert(&f.svc->vhosts, b), 0);
        }
        std::this_thread::yield();
    }
    stop = true;
    for (auto& t : readers)
        t.join();

    EXPECT_EQ(bad.load(), 0);
    EXPECT_GT(lookups.load(), 0);
    // A record not in the list is no longer swapped or unlinked.
    orbs3_vhost_t* stranger = make_vhost("c.example", "c");
    EXPECT_EQ(orbs3_vhosts_swap(&f.svc->vhosts, stranger, a), -1);
    EXPECT_FALSE(orbs3_vhosts_unlink(&f.svc->vhosts, stranger));
    orbs3_vhost_release(stranger);
    // Every replaced record is freed by now, once; the two in the list go with their last reference.
    EXPECT_EQ(g_freed.load(), g_made.load() - 2);
    ASSERT_TRUE(orbs3_vhosts_unlink(&f.svc->vhosts, a));
    ASSERT_TRUE(orbs3_vhosts_unlink(&f.svc->vhosts, b));
    orbs3_vhost_release(a);
    orbs3_vhost_release(b);
    EXPECT_EQ(g_freed.load(), g_made.load());
    orbs3_vhost_free_hook = saved_hook;
}

}  // namespace
