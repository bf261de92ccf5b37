#include "control/orbs3_service.h"

#include <cstring>

#include "storage/orbs3_bucket_store.h"
#include "storage/orbs3_record.h"

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

void orbs3_free_vhost_data(orbs3_vhost_t* vh)
{
    if (vh == nullptr)
        return;
    for (orbs3_str_t* s : {&vh->id, &vh->name, &vh->group, &vh->node_key, &vh->domain, &vh->ipversion, &vh->ipaddr,
                           &vh->ca, &vh->cert, &vh->ssl_key, &vh->key_pwd, &vh->data_root, &vh->meta_root,
                           &vh->version_root, &vh->recycle_root, &vh->cluster, &vh->tiered, &vh->group_path,
                           &vh->cluster_path})
        neo_strfree(s);
    orbs3_free_user_list(&vh->users);
    orbs3_user_clear(&vh->admin);
    orbs3_free_service(vh->service_rec);
    orbs3_bucket_exit(vh);
    delete vh;
}

void orbs3_free_vhost_list(neo_list_head_t* head)
{
    orbs3_free_list(head, [](void* data) { orbs3_free_vhost_data(static_cast<orbs3_vhost_t*>(data)); });
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
