// A listener's vhosts of given domains, for tests that resolve a request's vhost: a request finds its
// vhost through its connection's listener, so a request given connection() is served by them.
#pragma once

#include <initializer_list>
#include <vector>

#include "core/orbs3_tenant.h"
#include "event/orbs3_connection.h"
#include "memory/orbs3_palloc.h"

namespace unit_test {

// A service with vhosts for `domains`, in list order, and a listener and connection that serve them.
struct service_fixture {
    orbs3_service_t* svc = orbs3_service_new();
    std::vector<orbs3_vhost_t*> vhosts;
    orbs3_listening_t listening{};
    orbs3_connection_t conn{};

    explicit service_fixture(std::initializer_list<const char*> domains)
    {
        if (svc == nullptr)
            return;
        for (const char* d : domains) {
            orbs3_vhost_t* vh = orbs3_vhost_new();
            if (vh == nullptr)
                continue;
            neo_strdup(&vh->domain, d, ORBS3_NAME_CAP);
            if (orbs3_service_add_vhost(svc, vh) != 0) {
                free_vhost(vh);
                continue;
            }
            vhosts.push_back(vh);
        }
        listening.vhosts = &svc->vhosts;
        conn.listening = &listening;
        conn.fd = -1;
    }
    ~service_fixture()
    {
        for (orbs3_vhost_t* vh : vhosts)
            free_vhost(vh);
        orbs3_free_service_data(svc);
    }
    service_fixture(const service_fixture&) = delete;
    service_fixture& operator=(const service_fixture&) = delete;

    // These vhosts hold their domain, the lists orbs3_vhost_new set up and whatever a test gives their
    // administrator, so the http tests need not link the storage layer's free of a whole vhost.
    static void free_vhost(orbs3_vhost_t* vh)
    {
        neo_strfree(&vh->domain);
        orbs3_user_clear(&vh->admin);
        delete vh;
    }

    // A connection accepted by the listener, for a request that has none of its own.
    orbs3_connection_t* connection() { return &conn; }
};

}  // namespace unit_test
