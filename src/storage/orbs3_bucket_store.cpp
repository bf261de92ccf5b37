#include "storage/orbs3_bucket_store.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>

#include "core/orbs3_log.h"
#include "core/orbs3_tenant.h"
#include "core/orbs3_xml.h"
#include "memory/neo_files.h"
#include "memory/neo_string.h"
#include "storage/orbs3_file_helpers.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object_commit.h"
#include "storage/orbs3_record.h"

namespace {

// A name that stays one level below the directory it is joined to.
bool safe_component(std::string_view name)
{
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
           name.find('\0') == std::string_view::npos && name.size() < ORBS3_NAME_AREA;
}

bool dot_entry(const char* name)
{
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

// Symbolic links are not followed: nothing in the trees is made as one, and following one could leave
// the tenant's tree.
bool is_dir_at(DIR* d, const char* rel)
{
    struct stat st;
    return fstatat(dirfd(d), rel, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
}

// The vhost's data root, whose entries are the owners; null (logged) when it can't be opened.
neo_dir_ptr open_data_root(const orbs3_vhost_t* vhost)
{
    char root[ORBS3_PATH_AREA];
    if (!neo_join(root, sizeof(root), {orbs3_str_view(vhost->data_root)}))
        return nullptr;
    neo_dir_ptr d(opendir(root));
    if (!d)
        ipd_debug("opendir %s failed: %s", root, std::strerror(errno));
    return d;
}

orbs3_bucket_t* read_bucket_file(const char* path)
{
    char* raw = nullptr;
    if (orbs3_read_data_from_file(path, &raw) != 0)
        return nullptr;
    neo_cstr_ptr text(raw);
    return orbs3_create_bucket_from_xml(text.get());
}

// Which owner holds a bucket name, remembered per process: a hint, never the truth. Every use checks with
// one stat that the owner's data directory of the name still stands, and a miss scans the data root as
// before; so a bucket deleted, or made by another worker or node, is seen at once, and the scan of all
// owners (a directory read and a stat per owner) is paid once per name instead of once per request.
// Fixed slots, no allocation: a name whose slot another name took is simply scanned again.
struct owner_hint_t {
    const orbs3_vhost_t* vhost = nullptr;
    char name[ORBS3_NAME_AREA] = "";
    char owner[ORBS3_NAME_AREA] = "";
};
constexpr std::size_t kOwnerHints = 256;
owner_hint_t g_owner_hints[kOwnerHints];
pthread_mutex_t g_owner_hint_lock = PTHREAD_MUTEX_INITIALIZER;

std::size_t hint_slot(const orbs3_vhost_t* vhost, std::string_view name)
{
    std::size_t h = std::hash<std::string_view>{}(name) ^ (reinterpret_cast<std::uintptr_t>(vhost) >> 4);
    return h % kOwnerHints;
}

// The hinted owner of `name` into `owner` (ORBS3_NAME_AREA bytes); false when there is none.
bool owner_hint(const orbs3_vhost_t* vhost, std::string_view name, char* owner)
{
    owner_hint_t& slot = g_owner_hints[hint_slot(vhost, name)];
    pthread_mutex_lock(&g_owner_hint_lock);
    bool hit = slot.vhost == vhost && name == slot.name;
    if (hit)
        std::memcpy(owner, slot.owner, sizeof slot.owner);
    pthread_mutex_unlock(&g_owner_hint_lock);
    return hit;
}

void remember_owner(const orbs3_vhost_t* vhost, std::string_view name, const char* owner)
{
    std::size_t owner_len = std::strlen(owner);
    if (name.size() >= ORBS3_NAME_AREA || owner_len >= ORBS3_NAME_AREA)
        return;
    owner_hint_t& slot = g_owner_hints[hint_slot(vhost, name)];
    pthread_mutex_lock(&g_owner_hint_lock);
    slot.vhost = vhost;
    std::memcpy(slot.name, name.data(), name.size());
    slot.name[name.size()] = '\0';
    std::memcpy(slot.owner, owner, owner_len + 1);
    pthread_mutex_unlock(&g_owner_hint_lock);
}

// The hinted owner, when its data directory of the name still stands.
bool hinted_owner_holds(const orbs3_vhost_t* vhost, std::string_view name, char* owner)
{
    if (!owner_hint(vhost, name, owner))
        return false;
    char path[ORBS3_PATH_AREA];
    struct stat st;
    return neo_join(path, sizeof path, {orbs3_str_view(vhost->data_root), "/", owner, "/", name}) &&
           lstat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

orbs3_bucket_t* orbs3_create_bucket_from_xml(const char* xml)
{
    return orbs3_bucket_from_text(xml);
}

int orbs3_get_bucket_path(const orbs3_vhost_t* vhost, std::string_view name, char* out)
{
    if (out == nullptr)
        return -1;
    out[0] = '\0';
    if (vhost == nullptr || vhost->data_root.len == 0 || vhost->meta_root.len == 0 || !safe_component(name))
        return -1;
    char owner[ORBS3_NAME_AREA];
    if (hinted_owner_holds(vhost, name, owner))
        return neo_join(out, ORBS3_PATH_AREA, {orbs3_str_view(vhost->meta_root), "/", owner, "/bucket/", name}) ? 0 : -1;
    neo_dir_ptr d = open_data_root(vhost);
    if (!d)
        return -1;
    char rel[ORBS3_PATH_AREA];
    while (const dirent* e = readdir(d.get())) {
        if (dot_entry(e->d_name))
            continue;
        // The data directory is what marks a name as taken (it is made before the record is written).
        if (!neo_join(rel, sizeof(rel), {e->d_name, "/", name}) || !is_dir_at(d.get(), rel))
            continue;
        if (!neo_join(out, ORBS3_PATH_AREA, {orbs3_str_view(vhost->meta_root), "/", e->d_name, "/bucket/", name}))
            continue;
        remember_owner(vhost, name, e->d_name);
        return 0;
    }
    return -1;
}

int orbs3_check_bucket_exist(const orbs3_vhost_t* vhost, const orbs3_user_t* /*user*/, std::string_view name)
{
    char path[ORBS3_PATH_AREA];
    return orbs3_get_bucket_path(vhost, name, path);
}

orbs3_bucket_t* orbs3_get_bucket(const orbs3_vhost_t* vhost, const orbs3_user_t* /*user*/, std::string_view name)
{
    char path[ORBS3_PATH_AREA];
    if (orbs3_get_bucket_path(vhost, name, path) != 0)
        return nullptr;
    orbs3_bucket_t* b = read_bucket_file(path);
    if (b == nullptr)
        ipd_debug("bucket record %s can't be read", path);
    return b;
}

int orbs3_bucket_update(const char* meta_file, const std::function<int(orbs3_bucket_t*)>& change)
{
    if (meta_file == nullptr || meta_file[0] == '\0')
        return -1;
    orbs3_commit_lock_t lock;
    if (orbs3_commit_lock(meta_file, &lock) != 0) {
        ipd_log(LOG_ERR, "bucket record %s not locked: %s", meta_file, std::strerror(errno));
        return -1;
    }
    orbs3_bucket_ptr fresh(read_bucket_file(meta_file));
    if (!fresh || change(fresh.get()) != 0)
        return -1;
    return orbs3_save_bucket(fresh.get(), meta_file);
}

int orbs3_bucket_init(orbs3_vhost_t* vhost)
{
    if (vhost == nullptr)
        return -1;
    INIT_LIST_HEAD(&vhost->bucket_list);
    vhost->bucket_count = 0;
    char root[ORBS3_PATH_AREA];
    if (vhost->meta_root.len == 0 || !neo_join(root, sizeof(root), {orbs3_str_view(vhost->meta_root)}))
        return -1;
    neo_dir_ptr d(opendir(root));
    if (!d) {
        ipd_log(LOG_ERR, "opendir %s failed: %s", root, std::strerror(errno));
        return -1;
    }
    char dir[ORBS3_PATH_AREA];
    while (const dirent* e = readdir(d.get())) {
        // "bucket" and "object" are the meta root's own fixed directories, not owners.
        if (dot_entry(e->d_name) || std::strcmp(e->d_name, "bucket") == 0 || std::strcmp(e->d_name, "object") == 0)
            continue;
        if (!neo_join(dir, sizeof(dir), {root, "/", e->d_name, "/bucket"}))
            continue;
        char rel[ORBS3_PATH_AREA];
        if (!neo_join(rel, sizeof(rel), {e->d_name, "/bucket"}) || !is_dir_at(d.get(), rel))
            continue;
        // An owner whose directory can't be read loses its buckets from the count, not the others.
        (void)orbs3_bucket_user_init(vhost, dir);
    }
    return 0;
}

int orbs3_bucket_user_init(orbs3_vhost_t* vhost, const char* dir)
{
    if (vhost == nullptr || dir == nullptr)
        return -1;
    neo_dir_ptr d(opendir(dir));
    if (!d) {
        ipd_debug("opendir %s failed: %s", dir, std::strerror(errno));
        return -1;
    }
    char path[ORBS3_PATH_AREA];
    while (const dirent* e = readdir(d.get())) {
        if (dot_entry(e->d_name) || orbs3_record_is_temp(e->d_name) || is_dir_at(d.get(), e->d_name))
            continue;
        if (!neo_join(path, sizeof(path), {dir, "/", e->d_name}))
            continue;
        orbs3_bucket_t* b = read_bucket_file(path);
        if (b == nullptr) {
            ipd_debug("bucket record %s skipped: can't be read", path);
            continue;
        }
        list_add_tail(&b->link, &vhost->bucket_list);
        vhost->bucket_count.fetch_add(1);
    }
    return 0;
}

void orbs3_bucket_exit(orbs3_vhost_t* vhost)
{
    // A vhost whose buckets were never loaded has a list that was never set up.
    if (vhost == nullptr || vhost->bucket_list.next == nullptr)
        return;
    orbs3_bucket_t* b;
    orbs3_bucket_t* n;
    list_for_each_entry_safe(b, n, &vhost->bucket_list, link)
    {
        list_del(&b->link);
        orbs3_free_bucket(b);
    }
    INIT_LIST_HEAD(&vhost->bucket_list);
}

int orbs3_load_bucket_list(const orbs3_vhost_t* vhost, const orbs3_user_t* user, neo_list_head_t* list)
{
    if (user == nullptr)
        return -1;
    return orbs3_load_user_bucket_list(list, vhost, user, orbs3_str_view(user->DisPlayName));
}

int orbs3_load_user_bucket_list(neo_list_head_t* list, const orbs3_vhost_t* vhost, const orbs3_user_t* /*user*/,
                                std::string_view owner)
{
    if (list == nullptr || vhost == nullptr || !safe_component(owner))
        return -1;
    char owner_dir[ORBS3_PATH_AREA];
    if (vhost->data_root.len == 0 || vhost->meta_root.len == 0 ||
        !neo_join(owner_dir, sizeof(owner_dir), {orbs3_str_view(vhost->data_root), "/", owner}))
        return -1;
    neo_dir_ptr d(opendir(owner_dir));
    if (!d)
        return 0;  // an owner without buckets yet
    char path[ORBS3_PATH_AREA];
    while (const dirent* e = readdir(d.get())) {
        if (dot_entry(e->d_name) || !is_dir_at(d.get(), e->d_name))
            continue;
        // The owner's own record, not a lookup over all owners: it is one read instead of a scan of the
        // data root per bucket, and a name that two owners hold after a race shows under each owner with
        // that owner's record.
        if (!neo_join(path, sizeof(path), {orbs3_str_view(vhost->meta_root), "/", owner, "/bucket/", e->d_name}))
            break;
        orbs3_bucket_t* b = read_bucket_file(path);
        if (b == nullptr)
            break;  // a bucket whose record is missing or half written ends the owner's walk
        list_add_tail(&b->link, list);
    }
    return 0;
}

int orbs3_load_all_bucket_list(const orbs3_vhost_t* vhost, const orbs3_user_t* user, neo_list_head_t* list)
{
    if (list == nullptr || vhost == nullptr || vhost->data_root.len == 0)
        return -1;
    neo_dir_ptr d = open_data_root(vhost);
    if (!d)
        return -1;
    while (const dirent* e = readdir(d.get())) {
        if (dot_entry(e->d_name) || !is_dir_at(d.get(), e->d_name))
            continue;
        (void)orbs3_load_user_bucket_list(list, vhost, user, e->d_name);
    }
    return 0;
}

void orbs3_free_bucket_list(neo_list_head_t* list)
{
    if (list == nullptr || list->next == nullptr)
        return;
    orbs3_bucket_t* b;
    orbs3_bucket_t* n;
    list_for_each_entry_safe(b, n, list, link)
    {
        list_del(&b->link);
        orbs3_free_bucket(b);
    }
    INIT_LIST_HEAD(list);
}

int orbs3_bucket_claim_state(const orbs3_vhost_t* vhost, std::string_view name, std::string_view owner)
{
    if (vhost == nullptr || vhost->data_root.len == 0 || vhost->meta_root.len == 0 || !safe_component(name) ||
        !safe_component(owner))
        return -1;
    neo_dir_ptr d = open_data_root(vhost);
    if (!d)
        return -1;
    int state = ORBS3_CLAIM_ALONE;
    char rel[ORBS3_PATH_AREA];
    char record[ORBS3_PATH_AREA];
    while (const dirent* e = readdir(d.get())) {
        if (dot_entry(e->d_name) || owner == e->d_name)
            continue;
        if (!neo_join(rel, sizeof(rel), {e->d_name, "/", name}) || !is_dir_at(d.get(), rel))
            continue;
        // A holder with its record has the bucket; one that sorts before us is taking it and we give way.
        if (owner > std::string_view(e->d_name))
            return ORBS3_CLAIM_YIELD;
        if (!neo_join(record, sizeof(record), {orbs3_str_view(vhost->meta_root), "/", e->d_name, "/bucket/", name}) ||
            access(record, F_OK) == 0)
            return ORBS3_CLAIM_YIELD;
        state = ORBS3_CLAIM_WAIT;
    }
    return state;
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
