#include "control/orbs3_worker_ctrl.h"

#include <json-c/json.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <atomic>
#include <memory>
#include <mutex>

#include "control/orbs3_msg.h"
#include "control/orbs3_ud.h"
#include "control/orbs3_vhost_file.h"
#include "core/orbs3_json.h"
#include "core/orbs3_log.h"
#include "core/orbs3_prefix.h"
#include "core/orbs3_worker.h"
#include "storage/orbs3_bucket_store.h"

namespace {

char g_worker_iface[ORBS3_IFACE_LEN];
int g_ud_worker_fd = -1;
// Held while a message is handled: the worker's exit waits for the change in progress before it frees
// the vhosts, and no change starts after it.
std::mutex g_busy;
std::atomic<bool> g_closing{false};

struct vhost_deleter {
    void operator()(orbs3_vhost_t* vh) const noexcept { orbs3_free_vhost_data(vh); }
};
using vhost_ptr = std::unique_ptr<orbs3_vhost_t, vhost_deleter>;

enum class kind { text, id, alias, rel_path };

struct key_rule {
    const char* key;
    std::string orbs3_worker_vhost_req_t::*field;
    bool required;
    std::size_t cap;
    kind k;
    bool orbs3_worker_vhost_req_t::*seen;
};

using R = orbs3_worker_vhost_req_t;

constexpr key_rule kAddKeys[] = {
    {"id", &R::id, true, ORBS3_NAME_CAP, kind::id, nullptr},
    {"name", &R::name, true, ORBS3_NAME_CAP, kind::text, nullptr},
    {"path", &R::path, true, ORBS3_PATH_CAP, kind::rel_path, nullptr},
    {"cluster", &R::cluster, true, ORBS3_NAME_CAP, kind::alias, nullptr},
    {"tiered", &R::tiered, false, ORBS3_NAME_CAP, kind::alias, nullptr},
    {"group", &R::group, false, ORBS3_NAME_CAP, kind::text, nullptr},
    {"domain", &R::domain, false, ORBS3_NAME_CAP, kind::text, nullptr},
    {"accesskeyid", &R::accesskeyid, false, ORBS3_KEY_CAP, kind::text, nullptr},
    {"accesskeysecret", &R::accesskeysecret, false, ORBS3_KEY_CAP, kind::text, nullptr},
    {"displayname", &R::displayname, false, ORBS3_NAME_CAP, kind::text, nullptr},
    {"userid", &R::userid, false, ORBS3_NAME_CAP, kind::text, nullptr},
    {"ca", &R::ca, false, ORBS3_PATH_CAP, kind::text, &R::has_ca},
    {"cert", &R::cert, false, ORBS3_PATH_CAP, kind::text, &R::has_cert},
    {"key", &R::key, false, ORBS3_PATH_CAP, kind::text, &R::has_key},
    {"key_pwd", &R::key_pwd, false, ORBS3_PWD_CAP, kind::text, &R::has_key_pwd},
};

constexpr key_rule kEditKeys[] = {
    {"id", &R::id, true, ORBS3_NAME_CAP, kind::id, nullptr},
    {"name", &R::name, true, ORBS3_NAME_CAP, kind::text, nullptr},
    {"group", &R::group, false, ORBS3_NAME_CAP, kind::text, nullptr},
    {"domain", &R::domain, false, ORBS3_NAME_CAP, kind::text, nullptr},
    {"ca", &R::ca, false, ORBS3_PATH_CAP, kind::text, &R::has_ca},
    {"cert", &R::cert, false, ORBS3_PATH_CAP, kind::text, &R::has_cert},
    {"key", &R::key, false, ORBS3_PATH_CAP, kind::text, &R::has_key},
    {"key_pwd", &R::key_pwd, false, ORBS3_PWD_CAP, kind::text, &R::has_key_pwd},
};

constexpr key_rule kIdKeys[] = {
    {"id", &R::id, true, ORBS3_NAME_CAP, kind::id, nullptr},
};

bool names_file(std::string_view s)
{
    return !s.empty() && s != "." && s != ".." && s.find('/') == std::string_view::npos;
}

// A directory below the cluster path: relative, and no component climbs or stands still.
bool below_root(std::string_view s)
{
    if (s.empty() || s.front() == '/')
        return false;
    while (!s.empty()) {
        const std::size_t slash = s.find('/');
        const std::string_view part = s.substr(0, slash);
        if (part == "." || part == "..")
            return false;
        if (slash == std::string_view::npos)
            break;
        s.remove_prefix(slash + 1);
    }
    return true;
}

bool value_ok(std::string_view v, kind k)
{
    switch (k) {
    case kind::text:
        return true;
    case kind::id:
        return names_file(v);
    case kind::alias:
        return v.empty() || names_file(v);
    case kind::rel_path:
        return below_root(v);
    }
    return false;
}

template <std::size_t N>
uint32_t parse_keys(json_object* root, const key_rule (&rules)[N], R* out)
{
    for (const key_rule& rule : rules) {
        json_object* v = nullptr;
        if (!json_object_object_get_ex(root, rule.key, &v)) {
            if (rule.required)
                return ORBS3_WORKER_BAD_BODY;
            continue;
        }
        if (!json_object_is_type(v, json_type_string))
            return ORBS3_WORKER_BAD_BODY;
        const std::string_view text(json_object_get_string(v), static_cast<std::size_t>(json_object_get_string_len(v)));
        if (text.size() > rule.cap || text.find('\0') != std::string_view::npos || !value_ok(text, rule.k))
            return ORBS3_WORKER_BAD_BODY;
        out->*rule.field = std::string(text);
        if (rule.seen != nullptr)
            out->*rule.seen = true;
    }
    return 0;
}

void set_str(orbs3_str_t* s, const std::string& text, std::size_t cap)
{
    neo_strfree(s);
    neo_strdup(s, text.c_str(), cap);
}

void copy_str(orbs3_str_t* to, const orbs3_str_t& from, std::size_t cap)
{
    neo_strfree(to);
    neo_strdup(to, neo_getstr(&from), cap);
}

void copy_user(orbs3_user_t* to, const orbs3_user_t& from)
{
    copy_str(&to->UserId, from.UserId, ORBS3_NAME_CAP);
    copy_str(&to->DisPlayName, from.DisPlayName, ORBS3_NAME_CAP);
    copy_str(&to->accesskeyid, from.accesskeyid, ORBS3_KEY_CAP);
    copy_str(&to->accesskeysecret, from.accesskeysecret, ORBS3_KEY_CAP);
    copy_str(&to->vhost_id, from.vhost_id, ORBS3_NAME_CAP);
    to->Status = from.Status;
}

// A new record with the old one's settings; users, buckets and service record are loaded afresh.
orbs3_vhost_t* clone_vhost(const orbs3_vhost_t* old)
{
    orbs3_vhost_t* vh = orbs3_vhost_new();
    if (vh == nullptr)
        return nullptr;
    orbs3_vhost_copy_settings(vh, old);
    vh->running = old->running;
    vh->service = old->service;
    copy_user(&vh->admin, old->admin);
    return vh;
}

bool tls_service()
{
    return orbs3_service != nullptr && orbs3_service->ssl == 0;
}

// A TLS service's contexts name every tenant's domain and certificate: the main thread builds them again
// with a new listener; connections open keep the contexts they have.
void rebuild_tls()
{
    if (tls_service())
        process_reload = 1;
}

uint32_t parse(orbs3_worker_op op, const orbs3_msg_t* msg, R* req)
{
    const std::string_view body = msg->data == nullptr ? std::string_view() : std::string_view(msg->data, msg->head->length);
    return orbs3_worker_parse_body(op, body, req);
}

int reply(int fd, const orbs3_msg_t* msg, uint32_t status, const char* body)
{
    return orbs3_make_and_send_reply_msg_to_unixdomain(fd, msg->head->type, status, body,
                                                       body == nullptr ? 0 : std::strlen(body));
}

int receive_msg_add_vhost_request(int fd, orbs3_msg_t* msg)
{
    R req;
    if (parse(orbs3_worker_op::add, msg, &req) != 0)
        return reply(fd, msg, ORBS3_WORKER_BAD_BODY, nullptr);
    if (orbs3_find_vhost_byid(req.id.c_str()) != nullptr) {
        ipd_debug("vhost(%s) served already", req.id.c_str());
        return reply(fd, msg, ORBS3_MSG_STATUS_OK, nullptr);
    }
    orbs3_cluster_path_ptr root(orbs3_get_cluster_path(req.cluster.c_str(), req.tiered.c_str()));
    if (!root) {
        ipd_log(LOG_ERR, "add vhost[%s]: cluster[%s] tier[%s] unknown", req.id.c_str(), req.cluster.c_str(),
                req.tiered.c_str());
        return reply(fd, msg, ORBS3_WORKER_BAD_BODY, nullptr);
    }
    vhost_ptr vh(orbs3_vhost_new());
    if (!vh)
        return reply(fd, msg, ORBS3_WORKER_BAD_BODY, nullptr);
    set_str(&vh->id, req.id, ORBS3_NAME_CAP);
    set_str(&vh->name, req.name, ORBS3_NAME_CAP);
    set_str(&vh->group, req.group, ORBS3_NAME_CAP);
    set_str(&vh->domain, req.domain, ORBS3_NAME_CAP);
    set_str(&vh->group_path, req.path, ORBS3_PATH_CAP);
    set_str(&vh->cluster, req.cluster, ORBS3_NAME_CAP);
    set_str(&vh->tiered, req.tiered, ORBS3_NAME_CAP);
    set_str(&vh->cluster_path, root.get(), ORBS3_PATH_CAP);
    set_str(&vh->ca, req.ca, ORBS3_PATH_CAP);
    set_str(&vh->cert, req.cert, ORBS3_PATH_CAP);
    set_str(&vh->ssl_key, req.key, ORBS3_PATH_CAP);
    set_str(&vh->key_pwd, req.key_pwd, ORBS3_PWD_CAP);
    copy_str(&vh->ipaddr, orbs3_service->ipaddr, ORBS3_ADDR_CAP);
    copy_str(&vh->ipversion, orbs3_service->ipversion, ORBS3_ADDR_CAP);
    vh->port = orbs3_service->port;
    vh->ssl = orbs3_service->ssl;
    vh->service = orbs3_service;
    set_str(&vh->admin.UserId, req.userid, ORBS3_NAME_CAP);
    set_str(&vh->admin.DisPlayName, req.displayname, ORBS3_NAME_CAP);
    set_str(&vh->admin.accesskeyid, req.accesskeyid, ORBS3_KEY_CAP);
    set_str(&vh->admin.accesskeysecret, req.accesskeysecret, ORBS3_KEY_CAP);
    set_str(&vh->admin.vhost_id, req.id, ORBS3_NAME_CAP);
    vh->status = ORBS3_STATUS_ACTIVE;
    vh->running = ORBS3_STATUS_ACTIVE;
    // Loaded whole before any request can find it.
    orbs3_worker_load_vhost(vh.get());
    if (orbs3_vhosts_insert(&orbs3_service->vhosts, vh.get()) != 0)
        return reply(fd, msg, ORBS3_WORKER_BAD_BODY, nullptr);
    vh.release();
    ipd_log(LOG_INFO, "vhost[%s] added", req.id.c_str());
    rebuild_tls();
    orbs3_list_vhost_for_debug();
    return reply(fd, msg, ORBS3_MSG_STATUS_OK, nullptr);
}

int receive_msg_edit_vhost_request(int fd, orbs3_msg_t* msg)
{
    R req;
    if (parse(orbs3_worker_op::edit, msg, &req) != 0)
        return reply(fd, msg, ORBS3_WORKER_BAD_BODY, nullptr);
    orbs3_vhost_t* old = orbs3_find_vhost_byid(req.id.c_str());
    if (old == nullptr) {
        ipd_debug("vhost(%s) not exist", req.id.c_str());
        return reply(fd, msg, ORBS3_MSG_STATUS_OK, nullptr);
    }
    vhost_ptr vh(clone_vhost(old));
    if (!vh)
        return reply(fd, msg, ORBS3_WORKER_BAD_BODY, nullptr);
    const bool domain_changed = orbs3_str_view(old->domain) != req.domain;
    set_str(&vh->name, req.name, ORBS3_NAME_CAP);
    set_str(&vh->group, req.group, ORBS3_NAME_CAP);
    set_str(&vh->domain, req.domain, ORBS3_NAME_CAP);
    vh->status = ORBS3_STATUS_ACTIVE;
    vh->running = ORBS3_STATUS_ACTIVE;
    orbs3_worker_load_vhost(vh.get());
    const bool certs = req.has_ca || req.has_cert || req.has_key || req.has_key_pwd;
    if (certs) {
        // The service's files are read by the main thread when it builds the contexts, under the read lock.
        pthread_rwlock_wrlock(&orbs3_vhosts_lock);
        if (req.has_ca)
            set_str(&orbs3_service->ca, req.ca, ORBS3_PATH_CAP);
        if (req.has_cert)
            set_str(&orbs3_service->cert, req.cert, ORBS3_PATH_CAP);
        if (req.has_key)
            set_str(&orbs3_service->ssl_key, req.key, ORBS3_PATH_CAP);
        if (req.has_key_pwd)
            set_str(&orbs3_service->key_pwd, req.key_pwd, ORBS3_PWD_CAP);
        pthread_rwlock_unlock(&orbs3_vhosts_lock);
    }
    if (orbs3_vhosts_swap(&orbs3_service->vhosts, old, vh.get()) != 0)
        return reply(fd, msg, ORBS3_WORKER_BAD_BODY, nullptr);
    vh.release();
    orbs3_vhost_release(old);  // freed now, or by the last request that still uses it
    ipd_log(LOG_INFO, "vhost[%s] edited", req.id.c_str());
    if (req.chg != 0 || certs || domain_changed)
        rebuild_tls();
    orbs3_list_vhost_for_debug();
    return reply(fd, msg, ORBS3_MSG_STATUS_OK, nullptr);
}

int receive_msg_del_vhost_request(int fd, orbs3_msg_t* msg)
{
    R req;
    if (parse(orbs3_worker_op::del, msg, &req) != 0)
        return reply(fd, msg, ORBS3_WORKER_BAD_BODY, nullptr);
    orbs3_vhost_t* vh = orbs3_find_vhost_byid(req.id.c_str());
    if (vh == nullptr || !orbs3_vhosts_unlink(&orbs3_service->vhosts, vh)) {
        ipd_debug("vhost(%s) not exist", req.id.c_str());
        return reply(fd, msg, ORBS3_MSG_STATUS_OK, nullptr);
    }
    orbs3_vhost_release(vh);
    ipd_log(LOG_INFO, "vhost[%s] deleted", req.id.c_str());
    rebuild_tls();
    orbs3_list_vhost_for_debug();
    return reply(fd, msg, ORBS3_MSG_STATUS_OK, nullptr);
}

int receive_msg_get_vhost_request(int fd, orbs3_msg_t* msg)
{
    R req;
    if (parse(orbs3_worker_op::get, msg, &req) != 0)
        return reply(fd, msg, ORBS3_WORKER_BAD_BODY, nullptr);
    orbs3_json_ptr doc(json_object_new_object());
    if (!doc)
        return reply(fd, msg, ORBS3_WORKER_NO_DOC, nullptr);
    // Only this thread changes the list, so the record found stays while the document is built.
    const orbs3_vhost_t* vh = orbs3_find_vhost_byid(req.id.c_str());
    if (vh != nullptr) {
        json_object_object_add(doc.get(), "id", json_object_new_string(neo_getstr(&vh->id)));
        json_object_object_add(doc.get(), "name", json_object_new_string(neo_getstr(&vh->name)));
        json_object_object_add(doc.get(), "status", json_object_new_int(vh->running));
        json_object_object_add(doc.get(), "bucketnum", json_object_new_int64(vh->bucket_count.load()));
        json_object_object_add(doc.get(), "objectnum", json_object_new_int64(vh->object_count.load()));
    }
    const char* text = json_object_to_json_string_ext(doc.get(), JSON_C_TO_STRING_PLAIN);
    if (text == nullptr)
        return reply(fd, msg, ORBS3_WORKER_NO_DOC, nullptr);
    return reply(fd, msg, ORBS3_MSG_STATUS_OK, text);
}

struct handler_row {
    uint32_t type;
    int (*handler)(int fd, orbs3_msg_t* msg);
};

constexpr handler_row g_worker_msg_handlers[] = {
    {ORBS3_MSG_ADD_VHOST, receive_msg_add_vhost_request},
    {ORBS3_MSG_DELETE_VHOST, receive_msg_del_vhost_request},
    {ORBS3_MSG_GET_VHOST, receive_msg_get_vhost_request},
    {ORBS3_MSG_EDIT_VHOST, receive_msg_edit_vhost_request},
    {0, nullptr},
};

}  // namespace

uint32_t orbs3_worker_parse_body(orbs3_worker_op op, std::string_view body, orbs3_worker_vhost_req_t* out)
{
    *out = orbs3_worker_vhost_req_t{};
    if (body.empty() || body.size() > ORBS3_MSG_BODY_MAX)
        return ORBS3_WORKER_BAD_BODY;
    json_tokener* tok = json_tokener_new();
    if (tok == nullptr)
        return ORBS3_WORKER_BAD_BODY;
    orbs3_json_ptr root(json_tokener_parse_ex(tok, body.data(), static_cast<int>(body.size())));
    const bool whole = json_tokener_get_error(tok) == json_tokener_success &&
                       json_tokener_get_parse_end(tok) == body.size();
    json_tokener_free(tok);
    if (!root || !whole || !json_object_is_type(root.get(), json_type_object))
        return ORBS3_WORKER_BAD_BODY;
    uint32_t rc = 0;
    switch (op) {
    case orbs3_worker_op::add:
        rc = parse_keys(root.get(), kAddKeys, out);
        break;
    case orbs3_worker_op::edit:
        rc = parse_keys(root.get(), kEditKeys, out);
        if (rc == 0) {
            json_object* chg = nullptr;
            if (json_object_object_get_ex(root.get(), "chg", &chg)) {
                if (!json_object_is_type(chg, json_type_int))
                    return ORBS3_WORKER_BAD_BODY;
                out->chg = json_object_get_int64(chg);
            }
        }
        break;
    case orbs3_worker_op::del:
    case orbs3_worker_op::get:
        rc = parse_keys(root.get(), kIdKeys, out);
        break;
    }
    return rc;
}

int orbs3_worker_msg_processing(int fd, orbs3_msg_t* msg)
{
    const uint32_t type = msg->head->type;
    bool matched = false;
    for (const handler_row* row = g_worker_msg_handlers; row->handler != nullptr; ++row) {
        if (row->type != type)
            continue;
        matched = true;
        if (row->handler(fd, msg) != 0)
            ipd_debug("failed to process message[%08x].", type);
    }
    if (!matched)
        ipd_debug("invalid message[%08x], drop it.", type);
    orbs3_msg_del(msg);
    return 0;
}

int orbs3_ctrl_worker_listen()
{
    char rel[64];
    std::snprintf(rel, sizeof rel, "/var/run/orbmux/%d.iface", static_cast<int>(getpid()));
    const std::string path = orbs3_prefix_path(rel);
    if (path.size() >= sizeof g_worker_iface) {
        ipd_log(LOG_ERR, "worker control socket path too long");
        return -1;
    }
    std::memcpy(g_worker_iface, path.c_str(), path.size() + 1);
    if (ud_create_listen_socket(g_worker_iface, &g_ud_worker_fd) != 0) {
        ipd_log(LOG_ERR, "worker control socket %s not made, syserror=%s", g_worker_iface, strerror(errno));
        g_ud_worker_fd = -1;
        return -1;
    }
    return 0;
}

void* orbs3_ctrl_worker_thread(void*)
{
    const int lfd = g_ud_worker_fd;
    if (lfd < 0)
        return nullptr;
    for (;;) {
        const int fd = ud_accept(lfd, nullptr, nullptr);
        if (g_closing.load()) {
            ud_close(fd);
            return nullptr;
        }
        if (fd < 0)
            continue;
        std::lock_guard<std::mutex> busy(g_busy);
        if (!ud_peer_trusted(fd)) {
            ipd_log(LOG_WARNING, "worker control socket: untrusted peer refused");
            ud_close(fd);
            continue;
        }
        orbs3_msg_t* msg = orbs3_readmsg_from_unixdomain(fd);
        if (msg == nullptr) {
            ipd_log(LOG_ERR, "failed to recv unixdomain data, syserror=%s", strerror(errno));
        } else if (orbs3_msg_is_valid(fd, msg) != 0) {
            orbs3_msg_del(msg);
        } else {
            (void)orbs3_worker_msg_processing(fd, msg);
        }
        ud_close(fd);
    }
}

void orbs3_ctrl_worker_thread_exit()
{
    if (g_ud_worker_fd < 0)
        return;
    g_closing = true;
    // Wakes the thread out of accept; the message in hand, if any, is finished first (its reads and
    // writes have deadlines).
    (void)shutdown(g_ud_worker_fd, SHUT_RDWR);
    std::lock_guard<std::mutex> busy(g_busy);
    ud_destory_listen_socket(g_worker_iface, g_ud_worker_fd);
    g_ud_worker_fd = -1;
}
