#include "control/orbs3_service.h"

#include <cstring>


// Static initialisation makes both lists empty and the lock usable before main runs, so a signal that
// arrives before the control thread has set anything up finds empty lists, not garbage.
neo_list_head_t g_service_list = {&g_service_list, &g_service_list};
neo_list_head_t g_vhost_list = {&g_vhost_list, &g_vhost_list};
pthread_rwlock_t g_service_lock = PTHREAD_RWLOCK_INITIALIZER;

void orbs3_init_service_list()
{
    pthread_rwlock_wrlock(&g_service_lock);
    if (g_service_list.next == nullptr)
        INIT_LIST_HEAD(&g_service_list);
    if (g_vhost_list.next == nullptr)
        INIT_LIST_HEAD(&g_vhost_list);
    pthread_rwlock_unlock(&g_service_lock);
}

orbs3_service_t* orbs3_check_service_is_exist(uint32_t ssl, const char* ip, uint32_t port)
{
    if (ip == nullptr)
        return nullptr;
    neo_list_head_t* pos;
    list_for_each(pos, &g_service_list)
    {
        auto* svc = static_cast<orbs3_service_t*>(orbs3_list_node(pos)->data);
        if (svc->ssl == ssl && svc->port == port && std::strcmp(neo_getstr(&svc->ipaddr), ip) == 0)
            return svc;
    }
    return nullptr;
}
