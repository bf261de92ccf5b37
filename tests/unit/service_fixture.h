// A worker's service with vhosts of given domains, for tests that resolve a request's vhost.
#pragma once

#include <initializer_list>
#include <vector>

#include "control/orbs3_service.h"
#include "core/orbs3_worker.h"
#include "memory/orbs3_palloc.h"

namespace unit_test {

// A worker's service with vhosts for `domains`, in list order; restores the worker's service after.
struct service_fixture {
    orbs3_service_t* saved = orbs3_service;
    orbs3_service_t* svc = orbs3_service_new();
    std::vector<orbs3_vhost_t*> vhosts;

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
                orbs3_free_vhost_data(vh);
                continue;
            }
            vhosts.push_back(vh);
        }
        orbs3_service = svc;
    }
    ~service_fixture()
    {
        orbs3_service = saved;
        for (orbs3_vhost_t* vh : vhosts)
            orbs3_free_vhost_data(vh);
        orbs3_free_service_data(svc);
    }
    service_fixture(const service_fixture&) = delete;
    service_fixture& operator=(const service_fixture&) = delete;
};

}  // namespace unit_test
