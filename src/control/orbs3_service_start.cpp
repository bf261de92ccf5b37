#include "control/orbs3_service_start.h"

#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <json-c/json.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>

#include "control/orbs3_ctrl_thread.h"
#include "control/orbs3_msg.h"
#include "control/orbs3_vhost_file.h"
#include "core/orbs3_config.h"
#include "core/orbs3_json.h"
#include "core/orbs3_log.h"
#include "core/orbs3_prefix.h"
#include "core/orbs3_worker.h"

neo_thread_pool_t g_ctrl_tp;
std::atomic<int> g_orbs3_init_flag{0};

namespace {

// Through syscall(2): the C library's wrappers are not in every version the daemon is built with.
int pidfd_open(pid_t pid, unsigned flags)
{
    return static_cast<int>(syscall(SYS_pidfd_open, pid, flags));
}

int pidfd_send_signal(int pidfd, int signo, siginfo_t* info, unsigned flags)
{
    return static_cast<int>(syscall(SYS_pidfd_send_signal, pidfd, signo, info, flags));
}

constexpr uint64_t kCtrlThreads = 4;
constexpr int64_t kCtrlQueue = 1024;

// Set once the pool's threads run; a task posted to a pool that never started would wait for ever.
std::atomic<bool> g_ctrl_tp_ready{false};

class service_write_lock {
public:
    service_write_lock() { pthread_rwlock_wrlock(&g_service_lock); }
    ~service_write_lock() { pthread_rwlock_unlock(&g_service_lock); }
    service_write_lock(const service_write_lock&) = delete;
    service_write_lock& operator=(const service_write_lock&) = delete;
};

orbs3_vhost_t* vhost_of(neo_list_head_t* pos)
{
    return static_cast<orbs3_vhost_t*>(orbs3_list_node(pos)->data);
}

// Tasks not yet finished, per vhost: the control thread frees no vhost a task still points at.
std::mutex g_pending_mtx;
std::unordered_map<const orbs3_vhost_t*, int> g_pending;

void pending_add(const orbs3_vhost_t* vh, int n)
{
    std::lock_guard<std::mutex> g(g_pending_mtx);
    if ((g_pending[vh] += n) <= 0)
        g_pending.erase(vh);
}

template <int (*Body)(void*)>
void vhost_task_handler(void* data)
{
    auto* words = static_cast<uint64_t*>(data);
    auto* vh = reinterpret_cast<orbs3_vhost_t*>(words[0]);
    (void)Body(vh);
    pending_add(vh, -1);
}

// One request to a worker's control socket, under the socket's deadlines; no lock is held here.
void send_to_worker(const std::string& iface, uint32_t type, const std::string& body, const char* what)
{
    if (iface.empty())
        return;
    char* reply = nullptr;
    uint32_t status = 0;
    const int rc = orbs3_daemon_call(iface.c_str(), type, body.data(), body.size(), &reply, &status);
    std::free(reply);
    if (rc != 0 || status != ORBS3_MSG_STATUS_OK)
        ipd_log(LOG_ERR, "%s[%s]: result %d, status 0x%x", what, iface.c_str(), rc, status);
    else
        ipd_debug("worker[%s] took request 0x%x", iface.c_str(), type);
}

// Forks the service's worker for its first active vhost. Caller holds the write lock.
void fork_worker(orbs3_vhost_t* vh, orbs3_service_t* svc);

void put(json_object* o, const char* key, const orbs3_str_t& s)
{
    json_object_object_add(o, key, json_object_new_string(neo_getstr(&s)));
}

std::string text_of(json_object* o)
{
    const char* t = json_object_to_json_string_ext(o, JSON_C_TO_STRING_PLAIN);
    return t != nullptr ? t : "";
}

int post_vhost_task(orbs3_vhost_t* vhost, neo_thread_handler_pt handler)
{
    if (!g_ctrl_tp_ready.load()) {
        ipd_log(LOG_ERR, "no control pool for vhost[%s]", neo_getstr(&vhost->name));
        return -1;
    }
    neo_thread_task_t* task = neo_thread_task_alloc();
    if (task == nullptr)
        return -1;
    task->data[0] = reinterpret_cast<uint64_t>(vhost);
    task->handler = handler;
    pending_add(vhost, 1);
    if (neo_thread_task_post(&g_ctrl_tp, task) != 0) {
        pending_add(vhost, -1);
        neo_thread_task_free(task);
        return -1;
    }
    return 0;
}

void format_iface(orbs3_service_t* svc, pid_t pid)
{
    std::string dir = orbs3_prefix_path("/var/run/orbmux/");
    std::snprintf(svc->iface, sizeof svc->iface, "%s%d.iface", dir.c_str(), static_cast<int>(pid));
}

}  // namespace

int orbs3_ctrl_pool_init()
{
    g_ctrl_tp.name = "ctrl";
    g_ctrl_tp.threads = kCtrlThreads;
    g_ctrl_tp.max_queue = kCtrlQueue;
    orbs3_init_service_list();
    if (neo_thread_pool_init(&g_ctrl_tp) != 0) {
        ipd_log(LOG_ERR, "control thread pool init failed");
        return -1;
    }
    g_ctrl_tp_ready = true;
    return 0;
}

int orbs3_load_vhosts()
{
    int rc;
    {
        service_write_lock lock;
        rc = orbs3_load_all_vhost(&g_vhost_list);
        orbs3_init_vhost();
        orbs3_init_service();
    }
    return rc;
}

void orbs3_init_vhost()
{
    neo_list_head_t* pos;
    list_for_each(pos, &g_vhost_list)
    {
        orbs3_vhost_t* vh = vhost_of(pos);
        orbs3_service_t* svc = orbs3_check_service_is_exist(vh->ssl, neo_getstr(&vh->ipaddr), vh->port);
        if (svc == nullptr) {
            svc = orbs3_service_new();
            if (svc == nullptr) {
                ipd_log(LOG_ERR, "out of memory for the service of vhost[%s]", neo_getstr(&vh->name));
                continue;
            }
            neo_strdup(&svc->ipaddr, neo_getstr(&vh->ipaddr), ORBS3_ADDR_CAP);
            neo_strdup(&svc->ipversion, neo_getstr(&vh->ipversion), ORBS3_ADDR_CAP);
            svc->port = vh->port;
            svc->ssl = vh->ssl;
            // The first vhost of a service decides its TLS files.
            neo_strdup(&svc->ca, neo_getstr(&vh->ca), ORBS3_PATH_CAP);
            neo_strdup(&svc->cert, neo_getstr(&vh->cert), ORBS3_PATH_CAP);
            neo_strdup(&svc->ssl_key, neo_getstr(&vh->ssl_key), ORBS3_PATH_CAP);
            neo_strdup(&svc->key_pwd, neo_getstr(&vh->key_pwd), ORBS3_PWD_CAP);
            if (orbs3_list_append(&g_service_list, svc) != 0) {
                orbs3_free_service_data(svc);
                continue;
            }
        }
        if (orbs3_service_add_vhost(svc, vh) != 0)
            ipd_log(LOG_ERR, "out of memory for vhost[%s]", neo_getstr(&vh->name));
    }
}

void orbs3_init_service()
{
    neo_list_head_t* spos;
    list_for_each(spos, &g_service_list)
    {
        auto* svc = static_cast<orbs3_service_t*>(orbs3_list_node(spos)->data);
        neo_list_head_t* vpos;
        list_for_each(vpos, &svc->vhosts)
        {
            orbs3_vhost_t* vh = vhost_of(vpos);
            if (vh->status != ORBS3_STATUS_ACTIVE)
                continue;
            (void)orbs3_task_start_vhost(vh);
            vh->running = ORBS3_STATUS_STARTING;
        }
    }
}

int orbs3_task_start_vhost(orbs3_vhost_t* vhost)
{
    return post_vhost_task(vhost, vhost_task_handler<orbs3_start_vhost>);
}

int orbs3_task_stop_vhost(orbs3_vhost_t* vhost)
{
    return post_vhost_task(vhost, vhost_task_handler<orbs3_stop_vhost>);
}

int orbs3_task_edit_vhost(orbs3_vhost_t* vhost)
{
    return post_vhost_task(vhost, vhost_task_handler<orbs3_edit_vhost>);
}

int orbs3_task_add_user(orbs3_vhost_t* vhost)
{
    return post_vhost_task(vhost, vhost_task_handler<orbs3_notify_add_user>);
}

int orbs3_vhost_tasks_pending(const orbs3_vhost_t* vhost)
{
    std::lock_guard<std::mutex> g(g_pending_mtx);
    auto it = g_pending.find(vhost);
    return it == g_pending.end() ? 0 : it->second;
}

std::string orbs3_make_json_add_vhost(const orbs3_vhost_t* vh)
{
    orbs3_json_ptr o(json_object_new_object());
    put(o.get(), "name", vh->name);
    put(o.get(), "id", vh->id);
    put(o.get(), "group", vh->group);
    put(o.get(), "domain", vh->domain);
    put(o.get(), "path", vh->group_path);
    // The worker finds the tenant's directories and files by cluster and tier, as at its own start.
    put(o.get(), "cluster", vh->cluster);
    put(o.get(), "tiered", vh->tiered);
    put(o.get(), "accesskeyid", vh->admin.accesskeyid);
    put(o.get(), "accesskeysecret", vh->admin.accesskeysecret);
    put(o.get(), "displayname", vh->admin.DisPlayName);
    put(o.get(), "userid", vh->admin.UserId);
    return text_of(o.get());
}

std::string orbs3_make_json_edit_vhost(const orbs3_vhost_t* vh)
{
    const orbs3_service_t* svc = vh->service;
    orbs3_json_ptr o(json_object_new_object());
    put(o.get(), "id", vh->id);
    put(o.get(), "group", vh->group);
    put(o.get(), "name", vh->name);
    put(o.get(), "domain", vh->domain);
    put(o.get(), "meta", vh->meta_root);
    put(o.get(), "data", vh->data_root);
    put(o.get(), "version", vh->version_root);
    put(o.get(), "recycle", vh->recycle_root);
    json_object_object_add(o.get(), "ssl",
                           json_object_new_string(orbs3_get_bool_string(static_cast<int>(svc->ssl))));
    put(o.get(), "ca", svc->ca);
    put(o.get(), "cert", svc->cert);
    put(o.get(), "key", svc->ssl_key);
    put(o.get(), "key_pwd", svc->key_pwd);
    json_object_object_add(o.get(), "chg", json_object_new_int(vh->chg));
    return text_of(o.get());
}

std::string orbs3_make_json_del_vhost(const orbs3_vhost_t* vh)
{
    orbs3_json_ptr o(json_object_new_object());
    put(o.get(), "id", vh->id);
    put(o.get(), "name", vh->name);
    return text_of(o.get());
}

int orbs3_start_vhost(void* data)
{
    auto* vh = static_cast<orbs3_vhost_t*>(data);
    orbs3_service_t* svc = vh->service;
    if (svc == nullptr)
        return 0;

    // Decision and fork under the write lock: two start tasks of one service can never both see it without
    // a worker and fork twice, no writer is half way through the lists when the child's copy is made, and
    // the child, whose only thread is this one, makes the lock new. A vhost started on a service whose
    // worker lives reaches it by the add message, sent once the lock is released.
    std::string iface, body;
    {
        service_write_lock lock;
        if (svc->pid > 0) {
            ipd_debug("vhost[%s] joins the running worker %d", neo_getstr(&vh->name), static_cast<int>(svc->pid));
            vh->running = ORBS3_STATUS_ACTIVE;
            iface = svc->iface;
            body = orbs3_make_json_add_vhost(vh);
        } else {
            fork_worker(vh, svc);
            return 0;
        }
    }
    // A vhost that was in the lists when the worker was forked is there already; the worker takes an
    // add of an id it holds as the same tenant.
    send_to_worker(iface, ORBS3_MSG_ADD_VHOST, body, "worker: add vhost failure");
    return 0;
}

namespace {

void fork_worker(orbs3_vhost_t* vh, orbs3_service_t* svc)
{
    // The child starts with every signal held, so none reaches the master's handlers in it before the
    // worker has installed its own.
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    pid_t pid = fork();
    if (pid == 0) {
        // The master's control socket is not the worker's to hold.
        if (g_ud_listen_fd >= 0)
            close(g_ud_listen_fd);
        pthread_rwlock_init(&g_service_lock, nullptr);
        // The master's hold on the other workers stays in the master.
        neo_list_head_t* spos;
        list_for_each(spos, &g_service_list)
        {
            auto* other = static_cast<orbs3_service_t*>(orbs3_list_node(spos)->data);
            if (other->pidfd >= 0)
                close(other->pidfd);
            other->pidfd = -1;
        }
        svc->pid = getpid();
        format_iface(svc, svc->pid);
        orbs3_process_cycle(vh);
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);

    if (pid < 0) {
        ipd_log(LOG_ERR, "failed to fork process\n");
        pid = -1;
    }
    svc->pid = pid;
    if (pid > 0) {
        if (svc->pidfd >= 0)
            close(svc->pidfd);
        svc->pidfd = pidfd_open(pid, 0);
        if (svc->pidfd < 0)
            ipd_log(LOG_ERR, "pidfd of worker process %d: %s; it will not be signalled", static_cast<int>(pid),
                    strerror(errno));
        svc->started_at = orbs3_monotonic_s();
        svc->restart_at = 0;
    }
    svc->flags &= static_cast<uint8_t>(~ORBS3_SERVICE_EXITED);
    format_iface(svc, pid);
    vh->running = ORBS3_STATUS_ACTIVE;
}

}  // namespace

int orbs3_stop_vhost(void* data)
{
    auto* vh = static_cast<orbs3_vhost_t*>(data);
    orbs3_service_t* svc = vh->service;
    std::string iface, body;
    {
    service_write_lock lock;
    if (svc != nullptr) {
        int active = 0;
        neo_list_head_t* pos;
        list_for_each(pos, &svc->vhosts)
        {
            if (vhost_of(pos)->status == ORBS3_STATUS_ACTIVE)
                active++;
        }
        if (active > 0) {
            // The worker goes on serving the others and drops this one on the message.
            ipd_debug("has service in process[%d]", static_cast<int>(svc->pid));
            if (svc->pid > 0) {
                iface = svc->iface;
                body = orbs3_make_json_del_vhost(vh);
            }
        } else {
            if (svc->pid > 0 && orbs3_worker_signal(svc, SIGWINCH) != 0)
                ipd_log(LOG_ERR, "Signal transmission failure");
            if (svc->pidfd >= 0)
                close(svc->pidfd);
            svc->pidfd = -1;
            svc->restart_at = 0;
            svc->pid = 0;
            svc->flags |= ORBS3_SERVICE_EXITED;
        }
    }
    vh->running = ORBS3_STATUS_INACTIVE;
    }
    send_to_worker(iface, ORBS3_MSG_DELETE_VHOST, body, "worker: del vhost failure");
    return 0;
}

namespace {

// Sends the vhost's request of `type` to its worker when the vhost is active and the worker lives; the
// request is built under the lock, sent after it.
void tell_worker(orbs3_vhost_t* vh, uint32_t type, std::string (*build)(const orbs3_vhost_t*), const char* what)
{
    std::string iface, body;
    {
        service_write_lock lock;
        orbs3_service_t* svc = vh->service;
        if (vh->status == ORBS3_STATUS_ACTIVE && svc != nullptr && svc->pid > 0) {
            iface = svc->iface;
            body = build(vh);
        }
        if (type == ORBS3_MSG_EDIT_VHOST)
            vh->chg = 0;
    }
    send_to_worker(iface, type, body, what);
}

}  // namespace

int orbs3_edit_vhost(void* data)
{
    tell_worker(static_cast<orbs3_vhost_t*>(data), ORBS3_MSG_EDIT_VHOST, orbs3_make_json_edit_vhost,
                "in worker: edit vhost failure");
    return 0;
}

int orbs3_notify_add_user(void* data)
{
    // An edit makes the worker read the tenant's users and keys again; an add of a tenant it serves
    // already changes nothing there.
    tell_worker(static_cast<orbs3_vhost_t*>(data), ORBS3_MSG_EDIT_VHOST, orbs3_make_json_edit_vhost,
                "worker: add user failure");
    return 0;
}

uint32_t orbs3_restart_backoff(uint32_t prev, int64_t lived)
{
    if (prev == 0 || lived >= ORBS3_RESTART_RESET_S)
        return ORBS3_RESTART_FIRST_S;
    return prev >= ORBS3_RESTART_MAX_S / 2 ? ORBS3_RESTART_MAX_S : prev * 2;
}

int64_t orbs3_monotonic_s()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec);
}

int orbs3_worker_signal(orbs3_service_t* svc, int signo)
{
    if (svc == nullptr || svc->pidfd < 0)
        return -1;
    if (pidfd_send_signal(svc->pidfd, signo, nullptr, 0) != 0)
        return -1;
    if (signo != SIGCONT && signo != SIGKILL)
        (void)pidfd_send_signal(svc->pidfd, SIGCONT, nullptr, 0);
    return 0;
}

bool orbs3_worker_reaped(pid_t pid, int status, bool stopping)
{
    service_write_lock lock;
    neo_list_head_t* spos;
    list_for_each(spos, &g_service_list)
    {
        auto* svc = static_cast<orbs3_service_t*>(orbs3_list_node(spos)->data);
        if (svc->pid != pid)
            continue;
        // A worker that ends by itself with a failure (a service that cannot listen, such as a TLS
        // service without a usable certificate) is not started again: it would only fail again.
        if (WIFEXITED(status) && WEXITSTATUS(status) != 0)
            ipd_log(LOG_ERR, "worker process %d of %s:%u exited with status %d, not restarted",
                    static_cast<int>(pid), neo_getstr(&svc->ipaddr), svc->port, WEXITSTATUS(status));
        if (svc->pidfd >= 0)
            close(svc->pidfd);
        svc->pidfd = -1;
        svc->flags |= ORBS3_SERVICE_EXITED;
        svc->pid = 0;
        bool active = false;
        neo_list_head_t* vpos;
        list_for_each(vpos, &svc->vhosts)
        {
            if (vhost_of(vpos)->status == ORBS3_STATUS_ACTIVE)
                active = true;
        }
        if (WIFSIGNALED(status) && !stopping && active) {
            const int64_t now = orbs3_monotonic_s();
            svc->backoff = orbs3_restart_backoff(svc->backoff, now - svc->started_at);
            svc->restart_at = now + svc->backoff;
            ipd_log(LOG_ERR, "worker process %d of %s:%u killed by signal %d, restarting in %u s",
                    static_cast<int>(pid), neo_getstr(&svc->ipaddr), svc->port, WTERMSIG(status), svc->backoff);
        }
        return true;
    }
    return false;
}

void orbs3_restart_due_workers(int64_t now)
{
    // Runs on the master's main thread every second: a busy lock only puts the check off to the next
    // turn, so signals are never kept waiting behind a change of the lists.
    if (pthread_rwlock_trywrlock(&g_service_lock) != 0)
        return;
    struct unlock {
        ~unlock() { pthread_rwlock_unlock(&g_service_lock); }
    } unlock_at_end;
    neo_list_head_t* spos;
    list_for_each(spos, &g_service_list)
    {
        auto* svc = static_cast<orbs3_service_t*>(orbs3_list_node(spos)->data);
        if (svc->restart_at == 0 || now < svc->restart_at || svc->pid > 0)
            continue;
        // Without an active vhost there is nothing to restart; a start that cannot be posted is tried
        // again next turn.
        svc->restart_at = 0;
        neo_list_head_t* vpos;
        list_for_each(vpos, &svc->vhosts)
        {
            orbs3_vhost_t* vh = vhost_of(vpos);
            if (vh->status != ORBS3_STATUS_ACTIVE)
                continue;
            // The task waits for this lock; it forks unless a start got there first.
            if (orbs3_task_start_vhost(vh) == 0) {
                svc->restarts++;
                ipd_log(LOG_ERR, "worker of %s:%u started again (restart %u)", neo_getstr(&svc->ipaddr),
                        svc->port, svc->restarts);
            } else {
                svc->restart_at = now + 1;
            }
            break;
        }
    }
}
