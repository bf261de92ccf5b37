#include "control/orbs3_service.h"

#include <algorithm>
#include <list>

// The node's services. It exists, empty, before the first signal handler can run.
static std::list<orbs3_service_t*> g_service_list;

void orbs3_service_each(const std::function<void(orbs3_service_t*)>& fn)
{
    for (orbs3_service_t* svc : g_service_list)
        fn(svc);
}

void orbs3_service_add(orbs3_service_t* svc)
{
    g_service_list.push_back(svc);
}

void orbs3_service_remove(orbs3_service_t* svc)
{
    g_service_list.remove(svc);
}
