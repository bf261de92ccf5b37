#include "control/orbs3_ctrl_thread.h"

#include <json-c/json.h>
#include <pthread.h>
#include <limits.h>
#include <strings.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "control/orbs3_ctrl_req.h"
#include "control/orbs3_service_start.h"
#include "control/orbs3_ud.h"
#include "control/orbs3_vhost_file.h"
#include "core/orbs3_config.h"
#include "core/orbs3_json.h"
#include "core/orbs3_log.h"
#include "core/orbs3_prefix.h"
#include "storage/orbs3_bucket_store.h"

int g_ud_listen_fd = -1;

namespace {

constexpr const char* kCtrlIface = "/var/run/orbmux/orbmux.iface";

// Codes of g_error_info the handlers answer with, besides ORBS3_CTRL_BAD_REQUEST.
constexpr int kOk = 0;
constexpr int kAddFailed = 1101;     // the tenant files could not be written, or the cluster is unknown
constexpr int kDelFailed = 1102;     // the group file could not be rewritten
constexpr int kEditFailed = 1103;    // the group file could not be rewritten
constexpr int kGetFailed = 1104;     // the document could not be built
constexpr int kStartFailed = 1106;   // status not saved, or the start could not be posted
constexpr int kStopFailed = 1107;    // status not saved, or the stop could not be posted
constexpr int kExists = 1108;        // add: the name is another tenant's, or the id is with other content
constexpr int kNoSuchVhost = 1109;   // edit, delete, start, stop, add user of an unknown tenant
constexpr int kKeyExists = 1111;     // add user: the access key id is taken in the tenant
constexpr int kRunning = 1121;       // delete: the tenant is active or a task on it is under way

// A tool that holds the provisioning lock gets this long before a change gives up.
constexpr int kFilesLockWaitMs = 3000;

struct vhost_deleter {
    void operator()(orbs3_vhost_t* vh) const noexcept { orbs3_free_vhost_data(vh); }
};
using vhost_ptr = std::unique_ptr<orbs3_vhost_t, vhost_deleter>;

class service_lock {
public:
    explicit service_lock(bool write)
    {
        if (write)
            pthread_rwlock_wrlock(&g_service_lock);
        else
            pthread_rwlock_rdlock(&g_service_lock);
    }
    ~service_lock() { pthread_rwlock_unlock(&g_service_lock); }
    service_lock(const service_lock&) = delete;
    service_lock& operator=(const service_lock&) = delete;
};

orbs3_vhost_t* vhost_at(neo_list_head_t* pos)
{
    return static_cast<orbs3_vhost_t*>(orbs3_list_node(pos)->data);
}

// The vhost whose `field` is `value`, or null. Caller holds the lock.
orbs3_vhost_t* find_vhost_by(orbs3_str_t orbs3_vhost_t::*field, const std::string& value)
{
    neo_list_head_t* pos;
    list_for_each(pos, &g_vhost_list)
    {
        if (value == neo_getstr(&(vhost_at(pos)->*field)))
            return vhost_at(pos);
    }
    return nullptr;
}

orbs3_vhost_t* orbs3_find_vhost(const std::string& id)
{
    return find_vhost_by(&orbs3_vhost_t::id, id);
}

orbs3_vhost_t* orbs3_find_vhost_byname(const std::string& name)
{
    return find_vhost_by(&orbs3_vhost_t::name, name);
}

// ---- replies ----

void put(json_object* o, const char* key, const orbs3_str_t& s)
{
    json_object_object_add(o, key, json_object_new_string(neo_getstr(&s)));
}

void put(json_object* o, const char* key, const char* s)
{
    json_object_object_add(o, key, json_object_new_string(s));
}

int send_doc(int fd, const orbs3_msg_t* msg, int code, json_object* doc)
{
    const char* text = json_object_to_json_string_ext(doc, JSON_C_TO_STRING_PLAIN);
    if (text == nullptr)
        return -1;
    const uint32_t status = code == kOk ? ORBS3_MSG_STATUS_OK : static_cast<uint32_t>(code);
    (void)orbs3_make_and_send_reply_msg_to_unixdomain(fd, msg->head->type, status, text, std::strlen(text));
    return code;
}

// The status document: the code and its text, and the reason of a refusal when there is one.
int reply_status(int fd, const orbs3_msg_t* msg, int code, const std::string& why = {})
{
    orbs3_json_ptr doc(json_object_new_object());
    if (!doc)
        return -1;
    json_object_object_add(doc.get(), "errorcode", json_object_new_int(code));
    put(doc.get(), "errordesc", orbs3_get_error(code));
    if (!why.empty())
        put(doc.get(), "reason", why.c_str());
    if (code != kOk)
        ipd_log(LOG_NOTICE, "control request 0x%x refused with %d: %s", msg->head->type, code, why.c_str());
    return send_doc(fd, msg, code, doc.get());
}

// One vhost as list and get show it. Secrets only when asked for.
json_object* vhost_doc(const orbs3_vhost_t* vh, bool secrets, bool status_first)
{
    json_object* o = json_object_new_object();
    if (o == nullptr)
        return nullptr;
    put(o, "id", vh->id);
    put(o, "name", vh->name);
    put(o, "group", vh->group);
    put(o, "domain", vh->domain);
    put(o, "path", vh->group_path);
    put(o, "cluster", vh->cluster);
    put(o, "tiered", vh->tiered);
    if (status_first)
        put(o, "status", orbs3_get_status_string(vh->status));
    put(o, "running", orbs3_get_status_string(vh->running));
    if (!status_first)
        put(o, "status", orbs3_get_status_string(vh->status));
    put(o, "ip", vh->ipaddr);
    json_object_object_add(o, "port", json_object_new_int(static_cast<int32_t>(vh->port)));
    put(o, "ssl", orbs3_get_bool_string(static_cast<int>(vh->ssl)));
    put(o, "ca", vh->ca);
    put(o, "cert", vh->cert);
    put(o, "key", vh->ssl_key);
    put(o, "userid", vh->admin.UserId);
    put(o, "username", vh->admin.DisPlayName);
    put(o, "accesskeyid", vh->admin.accesskeyid);
    if (secrets) {
        put(o, "accesskeysecret", vh->admin.accesskeysecret);
        put(o, "key_pwd", vh->key_pwd);
    }
    return o;
}

int parse_or_refuse(int fd, orbs3_msg_t* msg, orbs3_vhost_req_t* req)
{
    std::string why;
    if (orbs3_parse_vhost_req(msg->head->type, msg->data, req, &why) != 0)
        return reply_status(fd, msg, ORBS3_CTRL_BAD_REQUEST, why);
    return kOk;
}

// ---- the tenant files ----

// The tenant's directory stays below the cluster path also through links that exist today: the deepest
// part of it that exists resolves below the resolved cluster path. The path itself has no "..".
bool stays_under(const std::string& root, const std::string& rel)
{
    char real_root[PATH_MAX];
    if (realpath(root.c_str(), real_root) == nullptr)
        return false;
    const std::string base = real_root;
    std::string probe = root + "/" + rel;
    for (;;) {
        char real[PATH_MAX];
        if (realpath(probe.c_str(), real) != nullptr) {
            const std::string r = real;
            return r == base || r.starts_with(base == "/" ? base : base + "/");
        }
        if (errno != ENOENT && errno != ENOTDIR)
            return false;
        const std::size_t slash = probe.rfind('/');
        if (slash == std::string::npos || probe.size() <= root.size())
            return false;
        probe.resize(slash);
    }
}

// The fields that the group file holds, from `src` into `dst` (a scratch record or the live one).
void copy_file_fields(orbs3_vhost_t* dst, const orbs3_vhost_t* src)
{
    orbs3_vhost_copy_settings(dst, src);
    neo_strdup(&dst->admin.vhost_id, neo_getstr(&src->id), ORBS3_NAME_CAP);
}

bool same_tenant(const orbs3_vhost_t* a, const orbs3_vhost_t* b)
{
    auto eq = [](const orbs3_str_t& x, const orbs3_str_t& y) {
        return std::strcmp(neo_getstr(&x), neo_getstr(&y)) == 0;
    };
    return eq(a->name, b->name) && eq(a->group, b->group) && eq(a->domain, b->domain) && eq(a->ipaddr, b->ipaddr) &&
           a->port == b->port && a->ssl == b->ssl && eq(a->cluster, b->cluster) && eq(a->tiered, b->tiered) &&
           eq(a->group_path, b->group_path) && eq(a->ca, b->ca) && eq(a->cert, b->cert) &&
           eq(a->ssl_key, b->ssl_key) && eq(a->key_pwd, b->key_pwd) && eq(a->admin.accesskeyid, b->admin.accesskeyid) &&
           eq(a->admin.accesskeysecret, b->admin.accesskeysecret) &&
           eq(a->admin.DisPlayName, b->admin.DisPlayName) && eq(a->admin.UserId, b->admin.UserId);
}

// A copy of the vhost's file fields to change and save while the lists stay as they are.
vhost_ptr scratch_of(const orbs3_vhost_t* vh)
{
    vhost_ptr s(orbs3_vhost_new());
    if (s)
        copy_file_fields(s.get(), vh);
    return s;
}

// Saves the scratch record into its group file under the provisioning lock. 0 or -1.
int save_tenant(const orbs3_vhost_t* scratch)
{
    orbs3_tenant_files_lock lock(neo_getstr(&scratch->cluster_path), kFilesLockWaitMs);
    if (!lock.held())
        return -1;
    return orbs3_save_vhost_to_file(scratch);
}

// <service dir><id>.user of the vhost; false when the cluster path is unknown.
bool user_file_of(const orbs3_vhost_t* vh, std::string* path)
{
    char dir[ORBS3_PATH_CAP];
    if (orbs3_get_service_file_save_path(dir, vh) != 0)
        return false;
    *path = std::string(dir) + neo_getstr(&vh->id) + ".user";
    return true;
}

// ---- handlers ----

int receive_msg_list_vhost_request(int fd, orbs3_msg_t* msg)
{
    orbs3_vhost_req_t req;
    if (int rc = parse_or_refuse(fd, msg, &req); rc != kOk)
        return rc;
    orbs3_json_ptr doc(json_object_new_object());
    json_object* arr = json_object_new_array();
    if (!doc || arr == nullptr)
        return reply_status(fd, msg, ORBS3_CTRL_BAD_REQUEST, "out of memory");
    json_object_object_add(doc.get(), "data", arr);
    {
        service_lock lock(false);
        neo_list_head_t* pos;
        list_for_each(pos, &g_vhost_list) json_object_array_add(arr, vhost_doc(vhost_at(pos), req.secrets, false));
    }
    return send_doc(fd, msg, kOk, doc.get());
}

int receive_msg_get_vhost_request(int fd, orbs3_msg_t* msg)
{
    orbs3_vhost_req_t req;
    if (int rc = parse_or_refuse(fd, msg, &req); rc != kOk)
        return rc;
    orbs3_json_ptr doc;
    {
        service_lock lock(false);
        const orbs3_vhost_t* vh = orbs3_find_vhost(req.id);
        // An unknown id is an empty object, and no error.
        doc.reset(vh != nullptr ? vhost_doc(vh, req.secrets, true) : json_object_new_object());
    }
    if (!doc)
        return reply_status(fd, msg, kGetFailed);
    return send_doc(fd, msg, kOk, doc.get());
}

int receive_msg_add_vhost_request(int fd, orbs3_msg_t* msg)
{
    orbs3_vhost_req_t req;
    if (int rc = parse_or_refuse(fd, msg, &req); rc != kOk)
        return rc;
    if (req.path.starts_with("ombr/") || req.path == "ombr")
        return reply_status(fd, msg, ORBS3_CTRL_BAD_REQUEST, "path lies in the system directory");
    orbs3_cluster_path_ptr cpath(orbs3_get_cluster_path(req.cluster.c_str(), req.tiered.c_str()));
    if (!cpath)
        return reply_status(fd, msg, kAddFailed, "cluster or tier unknown");
    if (!stays_under(cpath.get(), req.path))
        return reply_status(fd, msg, ORBS3_CTRL_BAD_REQUEST, "path leaves the cluster path");

    vhost_ptr vh(orbs3_vhost_new());
    if (!vh)
        return reply_status(fd, msg, kAddFailed, "out of memory");
    auto set = [](orbs3_str_t* f, const std::string& v, std::size_t cap) { neo_strdup(f, v.c_str(), cap); };
    set(&vh->id, req.id, ORBS3_NAME_CAP);
    set(&vh->name, req.name, ORBS3_NAME_CAP);
    // A tenant without a group gets one of its own, as the provisioning tool gives it.
    set(&vh->group, req.group.empty() ? req.name : req.group, ORBS3_NAME_CAP);
    set(&vh->node_key, orbs3_conf.shost_id, ORBS3_NAME_CAP);
    set(&vh->domain, req.domain, ORBS3_NAME_CAP);
    set(&vh->ipversion, "ipv4", ORBS3_ADDR_CAP);
    set(&vh->ipaddr, req.ip, ORBS3_ADDR_CAP);
    vh->port = static_cast<uint32_t>(req.port);
    vh->ssl = static_cast<uint32_t>(orbs3_get_bool(req.ssl.empty() ? "false" : req.ssl.c_str()));
    set(&vh->ca, req.ca, ORBS3_PATH_CAP);
    set(&vh->cert, req.cert, ORBS3_PATH_CAP);
    set(&vh->ssl_key, req.key, ORBS3_PATH_CAP);
    set(&vh->key_pwd, req.key_pwd, ORBS3_PWD_CAP);
    set(&vh->cluster, req.cluster, ORBS3_NAME_CAP);
    set(&vh->tiered, req.tiered, ORBS3_NAME_CAP);
    set(&vh->group_path, req.path, ORBS3_PATH_CAP);
    set(&vh->cluster_path, cpath.get(), ORBS3_PATH_CAP);
    set(&vh->admin.UserId, req.userid, ORBS3_NAME_CAP);
    set(&vh->admin.DisPlayName, req.displayname, ORBS3_NAME_CAP);
    set(&vh->admin.accesskeyid, req.accesskeyid, ORBS3_KEY_CAP);
    set(&vh->admin.accesskeysecret, req.accesskeysecret, ORBS3_KEY_CAP);
    set(&vh->admin.vhost_id, req.id, ORBS3_NAME_CAP);
    vh->status = ORBS3_STATUS_INACTIVE;
    vh->running = ORBS3_STATUS_INACTIVE;

    // Only the control handlers add, edit and delete vhosts, one at a time, so what is checked here still
    // holds when the record is linked below; the files are written without the lists' lock.
    {
        service_lock lock(false);
        if (const orbs3_vhost_t* old = orbs3_find_vhost(req.id); old != nullptr) {
            if (same_tenant(old, vh.get()))
                return reply_status(fd, msg, kOk);
            return reply_status(fd, msg, kExists, "id exists with other content");
        }
        if (orbs3_find_vhost_byname(req.name) != nullptr)
            return reply_status(fd, msg, kExists, "name exists");
    }
    if (save_tenant(vh.get()) != 0)
        return reply_status(fd, msg, kAddFailed, "group file not written");
    {
        service_lock lock(true);
        orbs3_service_t* svc = orbs3_check_service_is_exist(vh->ssl, req.ip.c_str(), vh->port);
        if (svc == nullptr) {
            svc = orbs3_service_new();
            if (svc == nullptr)
                return reply_status(fd, msg, kAddFailed, "out of memory");
            neo_strdup(&svc->ipaddr, req.ip.c_str(), ORBS3_ADDR_CAP);
            neo_strdup(&svc->ipversion, "ipv4", ORBS3_ADDR_CAP);
            svc->port = vh->port;
            svc->ssl = vh->ssl;
            neo_strdup(&svc->ca, req.ca.c_str(), ORBS3_PATH_CAP);
            neo_strdup(&svc->cert, req.cert.c_str(), ORBS3_PATH_CAP);
            neo_strdup(&svc->ssl_key, req.key.c_str(), ORBS3_PATH_CAP);
            neo_strdup(&svc->key_pwd, req.key_pwd.c_str(), ORBS3_PWD_CAP);
            if (orbs3_list_append(&g_service_list, svc) != 0) {
                orbs3_free_service_data(svc);
                return reply_status(fd, msg, kAddFailed, "out of memory");
            }
        }
        if (orbs3_list_append(&g_vhost_list, vh.get()) != 0)
            return reply_status(fd, msg, kAddFailed, "out of memory");
        if (orbs3_service_add_vhost(svc, vh.get()) != 0) {
            neo_list_head_t* last = g_vhost_list.prev;
            list_del(last);
            std::free(orbs3_list_node(last));
            return reply_status(fd, msg, kAddFailed, "out of memory");
        }
        vh.release();
    }
    return reply_status(fd, msg, kOk);
}

int receive_msg_edit_vhost_request(int fd, orbs3_msg_t* msg)
{
    orbs3_vhost_req_t req;
    if (int rc = parse_or_refuse(fd, msg, &req); rc != kOk)
        return rc;
    vhost_ptr scratch;
    int chg = 0;
    {
        service_lock lock(false);
        const orbs3_vhost_t* vh = orbs3_find_vhost(req.id);
        if (vh == nullptr)
            return reply_status(fd, msg, kNoSuchVhost);
        const orbs3_vhost_t* named = orbs3_find_vhost_byname(req.name);
        if (named != nullptr && named != vh)
            return reply_status(fd, msg, kExists, "name exists");
        scratch = scratch_of(vh);
    }
    if (!scratch)
        return reply_status(fd, msg, kEditFailed, "out of memory");
    // The group and the TLS word place a vhost in its group file and its service: they do not change
    // by an edit. Name and domain do; each TLS file given counts one change for the worker.
    neo_strdup(&scratch->name, req.name.c_str(), ORBS3_NAME_CAP);
    if (req.has(orbs3_req_key::domain))
        neo_strdup(&scratch->domain, req.domain.c_str(), ORBS3_NAME_CAP);
    auto tls = [&](orbs3_str_t* f, const std::string& v, std::size_t cap) {
        if (!v.empty()) {
            neo_strdup(f, v.c_str(), cap);
            ++chg;
        }
    };
    tls(&scratch->ca, req.ca, ORBS3_PATH_CAP);
    tls(&scratch->cert, req.cert, ORBS3_PATH_CAP);
    tls(&scratch->ssl_key, req.key, ORBS3_PATH_CAP);
    tls(&scratch->key_pwd, req.key_pwd, ORBS3_PWD_CAP);
    if (save_tenant(scratch.get()) != 0)
        return reply_status(fd, msg, kEditFailed, "group file not written");
    {
        service_lock lock(true);
        orbs3_vhost_t* vh = orbs3_find_vhost(req.id);
        if (vh == nullptr)
            return reply_status(fd, msg, kNoSuchVhost);
        copy_file_fields(vh, scratch.get());
        if (orbs3_service_t* svc = vh->service; svc != nullptr && chg > 0) {
            neo_strdup(&svc->ca, neo_getstr(&vh->ca), ORBS3_PATH_CAP);
            neo_strdup(&svc->cert, neo_getstr(&vh->cert), ORBS3_PATH_CAP);
            neo_strdup(&svc->ssl_key, neo_getstr(&vh->ssl_key), ORBS3_PATH_CAP);
            neo_strdup(&svc->key_pwd, neo_getstr(&vh->key_pwd), ORBS3_PWD_CAP);
        }
        vh->chg = chg;
        if (vh->status == ORBS3_STATUS_ACTIVE)
            (void)orbs3_task_edit_vhost(vh);
    }
    return reply_status(fd, msg, kOk);
}

int receive_msg_del_vhost_request(int fd, orbs3_msg_t* msg)
{
    orbs3_vhost_req_t req;
    if (int rc = parse_or_refuse(fd, msg, &req); rc != kOk)
        return rc;
    vhost_ptr scratch;
    {
        service_lock lock(false);
        const orbs3_vhost_t* vh = orbs3_find_vhost(req.id);
        if (vh == nullptr)
            return reply_status(fd, msg, kNoSuchVhost);
        // A stop still on its way counts as running: its task holds the record.
        if (vh->status == ORBS3_STATUS_ACTIVE || vh->running != ORBS3_STATUS_INACTIVE ||
            orbs3_vhost_tasks_pending(vh) != 0)
            return reply_status(fd, msg, kRunning);
        scratch = scratch_of(vh);
    }
    if (!scratch)
        return reply_status(fd, msg, kDelFailed, "out of memory");
    {
        orbs3_tenant_files_lock files(neo_getstr(&scratch->cluster_path), kFilesLockWaitMs);
        if (!files.held() || orbs3_del_vhost_from_file(scratch.get()) != 0)
            return reply_status(fd, msg, kDelFailed, "group file not written");
        // A tenant added later under the same id starts without the users of this one.
        std::string users;
        if (user_file_of(scratch.get(), &users) && unlink(users.c_str()) != 0 && errno != ENOENT)
            ipd_log(LOG_ERR, "user file[%s] not removed, error=%s", users.c_str(), strerror(errno));
    }
    {
        service_lock lock(true);
        orbs3_vhost_t* vh = orbs3_find_vhost(req.id);
        if (vh == nullptr)
            return reply_status(fd, msg, kOk);
        neo_list_head_t *pos, *n;
        list_for_each_safe(pos, n, &g_vhost_list)
        {
            if (vhost_at(pos) == vh) {
                list_del(pos);
                std::free(orbs3_list_node(pos));
            }
        }
        if (orbs3_service_t* svc = vh->service; svc != nullptr) {
            list_for_each_safe(pos, n, &svc->vhosts)
            {
                if (vhost_at(pos) == vh) {
                    list_del(pos);
                    std::free(orbs3_list_node(pos));
                }
            }
            // A service with no vhost left and no worker goes too.
            if (list_empty(&svc->vhosts) && svc->pid <= 0) {
                list_for_each_safe(pos, n, &g_service_list)
                {
                    if (orbs3_list_node(pos)->data == svc) {
                        list_del(pos);
                        std::free(orbs3_list_node(pos));
                    }
                }
                orbs3_free_service_data(svc);
            }
        }
        orbs3_free_vhost_data(vh);
    }
    return reply_status(fd, msg, kOk);
}

// Start and stop: the wanted state is saved first, then set, then the task is posted.
int change_status(int fd, orbs3_msg_t* msg, bool start)
{
    orbs3_vhost_req_t req;
    if (int rc = parse_or_refuse(fd, msg, &req); rc != kOk)
        return rc;
    const int failed = start ? kStartFailed : kStopFailed;
    const int32_t wanted = start ? ORBS3_STATUS_ACTIVE : ORBS3_STATUS_INACTIVE;
    vhost_ptr scratch;
    {
        service_lock lock(false);
        const orbs3_vhost_t* vh = orbs3_find_vhost(req.id);
        if (vh == nullptr)
            return reply_status(fd, msg, kNoSuchVhost);
        if ((vh->status == ORBS3_STATUS_ACTIVE) == start) {
            ipd_debug(start ? "vhost(%s) already running" : "vhost(%s) already down", req.id.c_str());
            return reply_status(fd, msg, kOk);
        }
        scratch = scratch_of(vh);
    }
    if (!scratch)
        return reply_status(fd, msg, failed, "out of memory");
    scratch->status = wanted;
    if (save_tenant(scratch.get()) != 0)
        return reply_status(fd, msg, failed, "group file not written");
    service_lock lock(true);
    orbs3_vhost_t* vh = orbs3_find_vhost(req.id);
    if (vh == nullptr)
        return reply_status(fd, msg, kNoSuchVhost);
    const int32_t old_status = vh->status;
    const int32_t old_running = vh->running;
    vh->status = wanted;
    vh->running = start ? ORBS3_STATUS_STARTING : ORBS3_STATUS_STOPING;
    if ((start ? orbs3_task_start_vhost(vh) : orbs3_task_stop_vhost(vh)) != 0) {
        // The file says the new state; the next start of the daemon takes it. Memory stays as it was.
        vh->status = old_status;
        vh->running = old_running;
        return reply_status(fd, msg, failed, "control pool full");
    }
    return reply_status(fd, msg, kOk);
}

int receive_msg_start_vhost_request(int fd, orbs3_msg_t* msg)
{
    return change_status(fd, msg, true);
}

int receive_msg_stop_vhost_request(int fd, orbs3_msg_t* msg)
{
    return change_status(fd, msg, false);
}

int receive_msg_add_user_request(int fd, orbs3_msg_t* msg)
{
    orbs3_vhost_req_t req;
    if (int rc = parse_or_refuse(fd, msg, &req); rc != kOk)
        return rc;
    if (req.id.empty() && req.vhost.empty())
        return reply_status(fd, msg, ORBS3_CTRL_BAD_REQUEST, "missing key id or vhost");
    vhost_ptr scratch;
    {
        service_lock lock(false);
        const orbs3_vhost_t* vh = req.id.empty() ? orbs3_find_vhost_byname(req.vhost) : orbs3_find_vhost(req.id);
        if (vh == nullptr)
            return reply_status(fd, msg, kNoSuchVhost);
        if (!req.accesskeyid.empty() && req.accesskeyid == neo_getstr(&vh->admin.accesskeyid))
            return reply_status(fd, msg, kKeyExists);
        scratch = scratch_of(vh);
    }
    if (!scratch)
        return reply_status(fd, msg, kAddFailed, "out of memory");
    if (req.accesskeyid.empty())
        req.accesskeyid = orbs3_ctrl_random_text(ORBS3_KEY_ID_LEN, ORBS3_KEY_ID_CHARS);
    if (req.accesskeysecret.empty())
        req.accesskeysecret = orbs3_ctrl_random_text(ORBS3_SECRET_LEN, ORBS3_SECRET_CHARS);
    if (req.userid.empty())
        req.userid = orbs3_ctrl_random_text(32, "0123456789abcdef");

    std::string path;
    if (!user_file_of(scratch.get(), &path))
        return reply_status(fd, msg, kAddFailed, "cluster or tier unknown");
    {
        orbs3_tenant_files_lock files(neo_getstr(&scratch->cluster_path), kFilesLockWaitMs);
        if (!files.held())
            return reply_status(fd, msg, kAddFailed, "tenant files locked");
        neo_list_head_t users;
        INIT_LIST_HEAD(&users);
        struct users_owner {
            neo_list_head_t* h;
            ~users_owner() { orbs3_free_user_list(h); }
        } own{&users};
        if (access(path.c_str(), F_OK) == 0 && read_user_data(path.c_str(), &users, neo_getstr(&scratch->id)) != 0)
            return reply_status(fd, msg, kAddFailed, "user file unreadable");
        neo_list_head_t *pos, *kpos;
        list_for_each(pos, &users)
        {
            auto* u = static_cast<orbs3_user_t*>(orbs3_list_node(pos)->data);
            if (req.displayname == neo_getstr(&u->DisPlayName))
                return reply_status(fd, msg, kExists, "user name exists");
            list_for_each(kpos, &u->keys)
            {
                auto* k = static_cast<orbs3_accesskey_t*>(orbs3_list_node(kpos)->data);
                if (req.accesskeyid == neo_getstr(&k->AccessKeyId))
                    return reply_status(fd, msg, kKeyExists);
            }
        }
        orbs3_user_t* u = orbs3_user_new();
        auto* k = static_cast<orbs3_accesskey_t*>(std::calloc(1, sizeof(orbs3_accesskey_t)));
        if (u == nullptr || k == nullptr || orbs3_list_append(&users, u) != 0) {
            orbs3_free_user_data(u);
            std::free(k);
            return reply_status(fd, msg, kAddFailed, "out of memory");
        }
        neo_strdup(&u->UserId, req.userid.c_str(), ORBS3_NAME_CAP);
        neo_strdup(&u->DisPlayName, req.displayname.c_str(), ORBS3_NAME_CAP);
        neo_strdup(&u->vhost_id, neo_getstr(&scratch->id), ORBS3_NAME_CAP);
        neo_strdup(&k->AccessKeyId, req.accesskeyid.c_str(), ORBS3_KEY_CAP);
        neo_strdup(&k->AccessKeySecret, req.accesskeysecret.c_str(), ORBS3_KEY_CAP);
        if (orbs3_list_append(&u->keys, k) != 0) {
            neo_strfree(&k->AccessKeyId);
            neo_strfree(&k->AccessKeySecret);
            std::free(k);
            return reply_status(fd, msg, kAddFailed, "out of memory");
        }
        if (write_user_data(path.c_str(), &users) != 0)
            return reply_status(fd, msg, kAddFailed, "user file not written");
    }
    {
        service_lock lock(true);
        orbs3_vhost_t* vh = orbs3_find_vhost(neo_getstr(&scratch->id));
        if (vh != nullptr && vh->status == ORBS3_STATUS_ACTIVE)
            (void)orbs3_task_add_user(vh);
    }
    // The caller made the user and gets its key, secret included, once.
    orbs3_json_ptr doc(json_object_new_object());
    if (!doc)
        return -1;
    json_object_object_add(doc.get(), "errorcode", json_object_new_int(kOk));
    put(doc.get(), "errordesc", orbs3_get_error(kOk));
    put(doc.get(), "id", scratch->id);
    put(doc.get(), "userid", req.userid.c_str());
    put(doc.get(), "displayname", req.displayname.c_str());
    put(doc.get(), "accesskeyid", req.accesskeyid.c_str());
    put(doc.get(), "accesskeysecret", req.accesskeysecret.c_str());
    return send_doc(fd, msg, kOk, doc.get());
}

int receive_msg_all_vhost_status_request(int fd, orbs3_msg_t* msg)
{
    orbs3_json_ptr doc(json_object_new_object());
    json_object* arr = json_object_new_array();
    if (!doc || arr == nullptr)
        return reply_status(fd, msg, ORBS3_CTRL_BAD_REQUEST, "out of memory");
    json_object_object_add(doc.get(), "data", arr);
    {
        service_lock lock(false);
        neo_list_head_t *spos, *vpos;
        list_for_each(spos, &g_service_list)
        {
            auto* svc = static_cast<orbs3_service_t*>(orbs3_list_node(spos)->data);
            list_for_each(vpos, &svc->vhosts)
            {
                const orbs3_vhost_t* vh = vhost_at(vpos);
                json_object* o = json_object_new_object();
                if (o == nullptr)
                    continue;
                put(o, "service", vh->name);
                put(o, "endpoint", vh->domain);
                put(o, "rootdir", vh->data_root);
                json_object_object_add(o, "bucket_number", json_object_new_int64(vh->bucket_count.load()));
                json_object_object_add(o, "status", json_object_new_int(vh->status));
                // Beside the status: the tenant, the actual state and the worker that serves it.
                put(o, "id", vh->id);
                json_object_object_add(o, "running", json_object_new_int(vh->running));
                json_object_object_add(o, "pid", json_object_new_int(svc->pid));
                // How often the master has started the service's worker again after it was killed.
                json_object_object_add(o, "restarts", json_object_new_int64(svc->restarts));
                json_object_array_add(arr, o);
            }
        }
    }
    return send_doc(fd, msg, kOk, doc.get());
}

}  // namespace

const orbs3_msg_handler_t g_orbs3_msg_handlers[] = {
    {ORBS3_MSG_LIST_VHOST, receive_msg_list_vhost_request},
    {ORBS3_MSG_GET_VHOST, receive_msg_get_vhost_request},
    {ORBS3_MSG_ADD_VHOST, receive_msg_add_vhost_request},
    {ORBS3_MSG_EDIT_VHOST, receive_msg_edit_vhost_request},
    {ORBS3_MSG_DELETE_VHOST, receive_msg_del_vhost_request},
    {ORBS3_MSG_START_VHOST, receive_msg_start_vhost_request},
    {ORBS3_MSG_STOP_VHOST, receive_msg_stop_vhost_request},
    {ORBS3_MSG_ADD_USER, receive_msg_add_user_request},
    {ORBS3_MSG_VHOST_STATUS, receive_msg_all_vhost_status_request},
    {0, nullptr},
};

int orbs3_ctrl_msg_processing(int fd, orbs3_msg_t* msg)
{
    bool handled = false;
    for (const orbs3_msg_handler_t* row = g_orbs3_msg_handlers; row->handler != nullptr; ++row) {
        if (row->type != msg->head->type)
            continue;
        handled = true;
        if (row->handler(fd, msg) != 0)
            ipd_debug("failed to process message[%08x].", msg->head->type);
    }
    if (!handled) {
        ipd_debug("invalid message[%08x], drop it.", msg->head->type);
        // The client learns that the type is unknown instead of waiting for its deadline.
        (void)reply_status(fd, msg, ORBS3_CTRL_BAD_REQUEST, "unknown message type");
    }
    orbs3_msg_del(msg);
    return 0;
}

namespace {

// Connections whose message is still being read. Each is read on a thread of its own, so a client that
// sends nothing or half a message costs only its own deadline, never the answer to another client; the
// number of such threads is bounded.
constexpr int kReadersMax = 16;
std::atomic<int> g_readers{0};
// Handlers run one at a time, in the order their messages became whole: only they change the lists'
// membership, and each finds what it checked still true when it applies its change.
std::mutex g_handlers_mtx;

void* ctrl_reader(void* arg)
{
    const int fd = static_cast<int>(reinterpret_cast<intptr_t>(arg));
    orbs3_msg_t* msg = orbs3_readmsg_from_unixdomain(fd);
    if (msg == nullptr) {
        ipd_log(LOG_ERR, "failed to recv unixdomain data, syserror=%s", strerror(errno));
    } else if (orbs3_msg_is_valid(fd, msg) != 0) {
        orbs3_msg_del(msg);
    } else {
        std::lock_guard<std::mutex> one_at_a_time(g_handlers_mtx);
        (void)orbs3_ctrl_msg_processing(fd, msg);
    }
    ud_close(fd);
    g_readers.fetch_sub(1);
    return nullptr;
}

}  // namespace

void* orbs3_ctrl_thread(void* arg)
{
    (void)arg;
    // The pool must run before the shost thread's first load posts its start tasks (3 s later at the
    // earliest). Without it no worker can start, and the thread has nothing else to do.
    if (orbs3_ctrl_pool_init() != 0)
        return nullptr;
    const std::string path = orbs3_prefix_path(kCtrlIface);
    int lfd = -1;
    if (ud_create_listen_socket(path.c_str(), &lfd) != 0) {
        ipd_log(LOG_ERR, "control socket[%s] not created, error=%s", path.c_str(), strerror(errno));
        return nullptr;
    }
    g_ud_listen_fd = lfd;
    // Clients wait in the backlog until the vhosts are loaded.
    while (g_orbs3_init_flag.load() == 0)
        sleep(1);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    for (;;) {
        // With every reader busy, further clients wait in the backlog: at worst one deadline.
        while (g_readers.load() >= kReadersMax)
            usleep(10 * 1000);
        const int fd = ud_accept(lfd, nullptr, nullptr);
        if (fd < 0) {
            if (errno == EBADF || errno == EINVAL)
                break;  // the socket was closed by the exit
            continue;
        }
        // Nobody but root and the daemon's own user speaks here; not a byte of anyone else is read.
        if (!ud_peer_trusted(fd)) {
            ipd_log(LOG_WARNING, "control socket: peer refused, not root");
            ud_close(fd);
            continue;
        }
        g_readers.fetch_add(1);
        pthread_t tid;
        if (pthread_create(&tid, &attr, ctrl_reader, reinterpret_cast<void*>(static_cast<intptr_t>(fd))) != 0) {
            g_readers.fetch_sub(1);
            ud_close(fd);
        }
    }
    pthread_attr_destroy(&attr);
    return nullptr;
}

void* orbs3_check_worker_thread(void* arg)
{
    (void)arg;
    for (;;)
        sleep(3);
    return nullptr;
}

void orbs3_ctrl_thread_exit()
{
    const int fd = g_ud_listen_fd;
    g_ud_listen_fd = -1;
    if (fd >= 0)
        ud_destory_listen_socket(orbs3_prefix_path(kCtrlIface).c_str(), fd);
}
