#include "control/orbs3_service.h"

#include <algorithm>
#include <cstdlib>
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

orbs3_service_t* orbs3_service_new()
{
    auto* svc = static_cast<orbs3_service_t*>(std::calloc(1, sizeof(orbs3_service_t)));
    if (svc != nullptr)
        INIT_LIST_HEAD(&svc->vhosts);
    return svc;
}

void orbs3_service_free(orbs3_service_t* svc)
{
    if (svc == nullptr)
        return;
    neo_list_head_t *pos, *n;
    list_for_each_safe(pos, n, &svc->vhosts)
    {
        orbs3_list_node_t* node = orbs3_list_node(pos);
        list_del(pos);
        orbs3_vhost_free(static_cast<orbs3_vhost_t*>(node->data));
        std::free(node);
    }
    neo_strfree(&svc->ipversion);
    neo_strfree(&svc->ipaddr);
    std::free(svc);
}

orbs3_vhost_t* orbs3_vhost_new()
{
    return static_cast<orbs3_vhost_t*>(std::calloc(1, sizeof(orbs3_vhost_t)));
}

void orbs3_vhost_free(orbs3_vhost_t* vh)
{
    if (vh == nullptr)
        return;
    for (orbs3_str_t* s : {&vh->id, &vh->name, &vh->domain, &vh->ipaddr})
        neo_strfree(s);
    std::free(vh);
}

int orbs3_service_add_vhost(orbs3_service_t* svc, orbs3_vhost_t* vh)
{
    auto* node = static_cast<orbs3_list_node_t*>(std::calloc(1, sizeof(orbs3_list_node_t)));
    if (node == nullptr)
        return -1;
    node->data = vh;
    vh->service = svc;
    list_add_tail(&node->list, &svc->vhosts);
    return 0;
}

int orbs3_service_free_vhost(orbs3_service_t* svc, orbs3_vhost_t* vh)
{
    neo_list_head_t* pos;
    list_for_each(pos, &svc->vhosts)
    {
        orbs3_list_node_t* node = orbs3_list_node(pos);
        if (node->data == vh) {
            list_del(pos);
            std::free(node);
            orbs3_vhost_free(vh);
            return 0;
        }
    }
    return -1;
}
