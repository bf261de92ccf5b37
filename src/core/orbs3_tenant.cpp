#include "core/orbs3_tenant.h"

#include <cstdlib>
#include <cstring>
#include <new>

orbs3_service_t* orbs3_service_new()
{
    auto* svc = static_cast<orbs3_service_t*>(std::calloc(1, sizeof(orbs3_service_t)));
    if (svc != nullptr) {
        INIT_LIST_HEAD(&svc->vhosts);
        svc->pidfd = -1;
    }
    return svc;
}

void orbs3_vhost_copy_settings(orbs3_vhost_t* dst, const orbs3_vhost_t* src)
{
    struct field {
        orbs3_str_t orbs3_vhost_t::*f;
        std::size_t cap;
    };
    static constexpr field fields[] = {
        {&orbs3_vhost_t::id, ORBS3_NAME_CAP},          {&orbs3_vhost_t::name, ORBS3_NAME_CAP},
        {&orbs3_vhost_t::group, ORBS3_NAME_CAP},       {&orbs3_vhost_t::node_key, ORBS3_NAME_CAP},
        {&orbs3_vhost_t::domain, ORBS3_NAME_CAP},      {&orbs3_vhost_t::ipversion, ORBS3_ADDR_CAP},
        {&orbs3_vhost_t::ipaddr, ORBS3_ADDR_CAP},      {&orbs3_vhost_t::ca, ORBS3_PATH_CAP},
        {&orbs3_vhost_t::cert, ORBS3_PATH_CAP},        {&orbs3_vhost_t::ssl_key, ORBS3_PATH_CAP},
        {&orbs3_vhost_t::key_pwd, ORBS3_PWD_CAP},      {&orbs3_vhost_t::cluster, ORBS3_NAME_CAP},
        {&orbs3_vhost_t::tiered, ORBS3_NAME_CAP},      {&orbs3_vhost_t::group_path, ORBS3_PATH_CAP},
        {&orbs3_vhost_t::cluster_path, ORBS3_PATH_CAP},
    };
    auto copy = [](orbs3_str_t* to, const orbs3_str_t& from, std::size_t cap) {
        neo_strfree(to);
        neo_strdup(to, neo_getstr(&from), cap);
    };
    for (const field& x : fields)
        copy(&(dst->*x.f), src->*x.f, x.cap);
    dst->ssl = src->ssl;
    dst->port = src->port;
    dst->status = src->status;
    copy(&dst->admin.UserId, src->admin.UserId, ORBS3_NAME_CAP);
    copy(&dst->admin.DisPlayName, src->admin.DisPlayName, ORBS3_NAME_CAP);
    copy(&dst->admin.accesskeyid, src->admin.accesskeyid, ORBS3_KEY_CAP);
    copy(&dst->admin.accesskeysecret, src->admin.accesskeysecret, ORBS3_KEY_CAP);
}

orbs3_vhost_t* orbs3_vhost_new()
{
    // Value-initialised: every field zero, the counters included.
    auto* vh = new (std::nothrow) orbs3_vhost_t();
    if (vh == nullptr)
        return nullptr;
    INIT_LIST_HEAD(&vh->users);
    INIT_LIST_HEAD(&vh->bucket_list);
    INIT_LIST_HEAD(&vh->admin.keys);
    vh->refs.store(1);
    return vh;
}

orbs3_user_t* orbs3_user_new()
{
    auto* user = static_cast<orbs3_user_t*>(std::calloc(1, sizeof(orbs3_user_t)));
    if (user != nullptr)
        INIT_LIST_HEAD(&user->keys);
    return user;
}

void orbs3_free_list(neo_list_head_t* head, void (*release)(void* data))
{
    if (head == nullptr || head->next == nullptr)
        return;
    neo_list_head_t *pos, *n;
    list_for_each_safe(pos, n, head)
    {
        orbs3_list_node_t* node = orbs3_list_node(pos);
        list_del(pos);
        if (release != nullptr)
            release(node->data);
        std::free(node);
    }
    INIT_LIST_HEAD(head);
}

int orbs3_list_append(neo_list_head_t* head, void* data)
{
    auto* node = static_cast<orbs3_list_node_t*>(std::calloc(1, sizeof(orbs3_list_node_t)));
    if (node == nullptr)
        return -1;
    node->data = data;
    list_add_tail(&node->list, head);
    return 0;
}

int orbs3_service_add_vhost(orbs3_service_t* svc, orbs3_vhost_t* vh)
{
    if (orbs3_list_append(&svc->vhosts, vh) != 0)
        return -1;
    vh->service = svc;
    return 0;
}

void orbs3_user_clear(orbs3_user_t* user)
{
    for (orbs3_str_t* s :
         {&user->UserId, &user->DisPlayName, &user->accesskeyid, &user->accesskeysecret, &user->vhost_id})
        neo_strfree(s);
    orbs3_free_accesskey_list(&user->keys);
}

void orbs3_free_accesskey_list(neo_list_head_t* head)
{
    orbs3_free_list(head, [](void* data) {
        auto* key = static_cast<orbs3_accesskey_t*>(data);
        if (key == nullptr)
            return;
        neo_strfree(&key->AccessKeyId);
        neo_strfree(&key->AccessKeySecret);
        std::free(key);
    });
}

void orbs3_free_user_data(orbs3_user_t* user)
{
    if (user == nullptr)
        return;
    orbs3_user_clear(user);
    std::free(user);
}

void orbs3_free_user_list(neo_list_head_t* head)
{
    orbs3_free_list(head, [](void* data) { orbs3_free_user_data(static_cast<orbs3_user_t*>(data)); });
}

void orbs3_free_service_data(orbs3_service_t* svc)
{
    if (svc == nullptr)
        return;
    orbs3_free_list(&svc->vhosts, nullptr);
    for (orbs3_str_t* s : {&svc->ipversion, &svc->ipaddr, &svc->ca, &svc->cert, &svc->ssl_key, &svc->key_pwd})
        neo_strfree(s);
    std::free(svc);
}

namespace {

bool same_text(const orbs3_str_t& s, const char* text, std::size_t len)
{
    return s.len == len && s.data != nullptr && std::memcmp(s.data, text, len) == 0;
}

}  // namespace

orbs3_user_t* orbs3_check_accesskeyid_exist(orbs3_user_t* admin, const char* key_id, orbs3_vhost_t* vhost)
{
    if (admin == nullptr || key_id == nullptr || vhost == nullptr)
        return nullptr;
    const std::size_t len = std::strlen(key_id);
    if (len == 0)
        return nullptr;  // an empty id would match every record whose key was never set
    if (same_text(admin->accesskeyid, key_id, len)) {
        admin->is_admin = 1;
        return admin;
    }
    neo_list_head_t* upos;
    list_for_each(upos, &vhost->users)
    {
        auto* user = static_cast<orbs3_user_t*>(orbs3_list_node(upos)->data);
        if (user == nullptr)
            continue;
        neo_list_head_t* kpos;
        list_for_each(kpos, &user->keys)
        {
            auto* key = static_cast<orbs3_accesskey_t*>(orbs3_list_node(kpos)->data);
            if (key != nullptr && same_text(key->AccessKeyId, key_id, len))
                return user;
        }
    }
    return nullptr;
}


pthread_rwlock_t orbs3_vhosts_lock = PTHREAD_RWLOCK_INITIALIZER;
void (*orbs3_vhost_free_hook)(orbs3_vhost_t* vh) = nullptr;

namespace {

class vhosts_write_lock {
public:
    vhosts_write_lock() { pthread_rwlock_wrlock(&orbs3_vhosts_lock); }
    ~vhosts_write_lock() { pthread_rwlock_unlock(&orbs3_vhosts_lock); }
    vhosts_write_lock(const vhosts_write_lock&) = delete;
    vhosts_write_lock& operator=(const vhosts_write_lock&) = delete;
};

orbs3_list_node_t* node_of(neo_list_head_t* head, const orbs3_vhost_t* vh)
{
    neo_list_head_t* pos;
    list_for_each(pos, head)
    {
        if (orbs3_list_node(pos)->data == vh)
            return orbs3_list_node(pos);
    }
    return nullptr;
}

}  // namespace

void orbs3_vhost_hold(orbs3_vhost_t* vh)
{
    vh->refs.fetch_add(1, std::memory_order_relaxed);
}

void orbs3_vhost_release(orbs3_vhost_t* vh)
{
    if (vh == nullptr)
        return;
    // acq_rel: every write of an earlier holder happens before the free.
    if (vh->refs.fetch_sub(1, std::memory_order_acq_rel) == 1 && orbs3_vhost_free_hook != nullptr)
        orbs3_vhost_free_hook(vh);
}

int orbs3_vhosts_swap(neo_list_head_t* head, orbs3_vhost_t* old_vh, orbs3_vhost_t* new_vh)
{
    vhosts_write_lock lock;
    orbs3_list_node_t* node = node_of(head, old_vh);
    if (node == nullptr)
        return -1;
    node->data = new_vh;
    return 0;
}

int orbs3_vhosts_insert(neo_list_head_t* head, orbs3_vhost_t* vh)
{
    auto* node = static_cast<orbs3_list_node_t*>(std::calloc(1, sizeof(orbs3_list_node_t)));
    if (node == nullptr)
        return -1;
    node->data = vh;
    vhosts_write_lock lock;
    list_add_tail(&node->list, head);
    return 0;
}

bool orbs3_vhosts_unlink(neo_list_head_t* head, orbs3_vhost_t* vh)
{
    orbs3_list_node_t* node = nullptr;
    {
        vhosts_write_lock lock;
        node = node_of(head, vh);
        if (node == nullptr)
            return false;
        list_del(&node->list);
    }
    std::free(node);
    return true;
}
