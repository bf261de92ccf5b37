#include "core/orbs3_worker.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "access/orbs3_access_check.h"
#include "control/orbs3_vhost_file.h"
#include "control/orbs3_worker_ctrl.h"
#include "core/orbs3_config.h"
#include "core/orbs3_log.h"
#include "core/orbs3_proctitle.h"
#include "event/neo_event_timer.h"
#include "event/orbs3_epoll.h"
#include "event/orbs3_socket.h"
#include "http/orbs3_http_request.h"
#include "s3/orbs3_s3_classify.h"
#include "s3/orbs3_s3_dispatch.h"
#include "storage/orbs3_bucket_store.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_storage_handlers.h"
#include "tls/orbs3_ssl_connection.h"
#include "tls/orbs3_ssl_context.h"
#include "tls/orbs3_ssl_session_cache.h"
#include "versions/orbs3_recycle_age.h"

orbs3_service_t* orbs3_service = nullptr;
orbs3_connection_t* listen_c = nullptr;
pthread_rwlock_t g_cpu_lock = PTHREAD_RWLOCK_INITIALIZER;
int g_cpu_index = 0;
orbs3_worker_thread_info_t worker_thread_info[ORBS3_WORKER_THREADS_MAX];

std::atomic<int> process_terminate{0};
std::atomic<int> process_quit{0};
std::atomic<int> process_exit{0};
std::atomic<int> process_reload{0};

namespace {

constexpr int kStatusActive = 1;
constexpr int kEpollSizeHint = 512;
constexpr int kLoopMs = 1000;
// Longer than two epoll passes of 500 ms: every thread that is not stuck in a handler has seen the stop.
constexpr int kEpollStopWaitMs = 2000;

std::atomic<bool> g_epoll_stop{false};
std::atomic<int> g_epoll_threads_running{0};
neo_event_timers_t g_thread_timers[ORBS3_WORKER_THREADS_MAX];

// A byte on this pipe cuts the main thread's one-second wait short: a signal may land on any thread, and
// SIGWINCH or SIGINT must end the worker at once, not after the next full second.
int g_wake[2] = {-1, -1};

class cpu_write_lock {
public:
    cpu_write_lock() { pthread_rwlock_wrlock(&g_cpu_lock); }
    ~cpu_write_lock() { pthread_rwlock_unlock(&g_cpu_lock); }
    cpu_write_lock(const cpu_write_lock&) = delete;
    cpu_write_lock& operator=(const cpu_write_lock&) = delete;
};

void wake_main_thread()
{
    int saved = errno;
    if (g_wake[1] >= 0) {
        char c = 0;
        (void)!write(g_wake[1], &c, 1);
    }
    errno = saved;
}

void trace_counters()
{
    static uint64_t last_accepted = ~uint64_t{0};
    static uint64_t last_closed = ~uint64_t{0};
    uint64_t accepted = orbs3_conn_counters.accepted.load();
    uint64_t closed = orbs3_conn_counters.closed.load();
    if (accepted == last_accepted && closed == last_closed)
        return;
    last_accepted = accepted;
    last_closed = closed;
    ipd_debug("connections accepted=%llu open=%lld closed=%llu free slots=%lld",
              static_cast<unsigned long long>(accepted), static_cast<long long>(orbs3_conn_counters.open.load()),
              static_cast<unsigned long long>(closed), static_cast<long long>(orbs3_conn_counters.free_slots.load()));
}

// The recycle bin's age bound is kept by a pass over every bucket of every vhost this worker serves, on
// this main thread, which serves no request: a long walk delays only the worker's housekeeping, never a
// client, and a stop asked meanwhile ends it between directories. Once shortly after start, then hourly:
// the bound counts in days.
constexpr uint64_t kRecycleFirstSec = 60;
constexpr uint64_t kRecycleEverySec = 3600;
orbs3_event_t g_recycle_ev;

bool stop_asked()
{
    return process_terminate.load() != 0 || process_quit.load() != 0 || process_exit.load() != 0;
}

void recycle_pass(orbs3_event_t* ev)
{
    // The exit cancels timers by calling them without timedout: no walk then.
    if (!ev->timedout || orbs3_service == nullptr)
        return;
    ev->timedout = 0;
    const time_t now = std::time(nullptr);
    orbs3_recycle_expired_t total;
    int buckets = 0;
    // The walk is long: it holds references on the vhosts of the moment, not the list's lock, so the
    // control thread's changes go on meanwhile.
    std::vector<orbs3_vhost_t*> held;
    pthread_rwlock_rdlock(&orbs3_vhosts_lock);
    neo_list_head_t* pos;
    list_for_each(pos, &orbs3_service->vhosts)
    {
        auto* vh = static_cast<orbs3_vhost_t*>(orbs3_list_node(pos)->data);
        orbs3_vhost_hold(vh);
        held.push_back(vh);
    }
    pthread_rwlock_unlock(&orbs3_vhosts_lock);
    for (orbs3_vhost_t* vh : held) {
        buckets += orbs3_recycle_expire_vhost(vh, now, &total, stop_asked);
        orbs3_vhost_release(vh);
    }
    ipd_log(LOG_INFO,
            "recycle pass: %d buckets with an age bound, %llu contents (%llu bytes) removed, %llu empty "
            "directories, %llu failures",
            buckets, static_cast<unsigned long long>(total.contents), static_cast<unsigned long long>(total.bytes),
            static_cast<unsigned long long>(total.dirs), static_cast<unsigned long long>(total.failed));
    neo_event_add_timer(ev, kRecycleEverySec);
}

// Unlinks the vhost's node from the worker's service list and drops the list's reference: the worker owns
// its copy, and a request still running keeps it until it ends.
void drop_vhost(neo_list_head_t* pos)
{
    auto* vh = static_cast<orbs3_vhost_t*>(orbs3_list_node(pos)->data);
    {
        pthread_rwlock_wrlock(&orbs3_vhosts_lock);
        list_del(pos);
        pthread_rwlock_unlock(&orbs3_vhosts_lock);
    }
    std::free(orbs3_list_node(pos));
    orbs3_vhost_release(vh);
}

void free_vhost(orbs3_vhost_t* vh)
{
    orbs3_free_vhost_data(vh);
}

// From program start: whatever drops a worker's vhost (the exit, a delete, a start that keeps only the
// active ones) frees it with its last reference.
[[maybe_unused]] const bool g_free_hook_set = (orbs3_vhost_free_hook = free_vhost, true);

// Asks the epoll threads to end after their current pass (at most 500 ms of waiting) and waits for them a
// bounded time; true when none runs any more.
bool stop_epoll_threads()
{
    g_epoll_stop.store(true, std::memory_order_release);
    for (int i = 0; i < kEpollStopWaitMs / 10; i++) {
        if (g_epoll_threads_running.load() == 0)
            return true;
        usleep(10 * 1000);
    }
    return g_epoll_threads_running.load() == 0;
}

[[noreturn]] void worker_exit()
{
    // Connections in progress are not drained. What the epoll threads use (slots, listener, vhosts) is
    // freed only once they have stopped; a thread stuck in a handler past the wait leaves everything to
    // the process's exit instead of being freed under it. The control socket goes first, whatever
    // happens: no change comes in any more, and no socket file outlives the worker.
    orbs3_ctrl_worker_thread_exit();
    if (!stop_epoll_threads()) {
        ipd_debug("worker process exit with epoll threads still running");
        std::exit(0);
    }
    // The control channel's part of the exit: the vhosts.
    if (orbs3_service != nullptr) {
        neo_list_head_t *pos, *n;
        list_for_each_safe(pos, n, &orbs3_service->vhosts) drop_vhost(pos);
    }
    orbs3_close_all_connections();
    orbs3_close_listen();
    // Last, once no connection or context can reach the session cache.
    orbs3_openssl_exit();
    pthread_rwlock_destroy(&g_cpu_lock);
    (void)orbs3_event_process_destory_resource();
    trace_counters();
    ipd_debug("worker process exit");
    std::exit(0);
}

void wait_one_second()
{
    struct pollfd pfd = {g_wake[0], POLLIN, 0};
    (void)poll(&pfd, 1, kLoopMs);
    char drain[64];
    while (read(g_wake[0], drain, sizeof drain) > 0) {
    }
}

}  // namespace

void orbs3_process_handle_pipe(int)
{
}

void orbs3_process_handle_term(int)
{
}

void orbs3_process_handle_exiting(int)
{
    process_terminate = 1;
    wake_main_thread();
}

void orbs3_process_handle_quit(int)
{
    process_quit = 1;
    wake_main_thread();
}

int process_sheild_signals()
{
    if (g_wake[0] < 0 && pipe2(g_wake, O_NONBLOCK | O_CLOEXEC) != 0) {
        ipd_debug("Create the worker wake pipe failed,syserror=%s", strerror(errno));
        return -1;
    }
    sigset_t set;
    sigfillset(&set);
    struct {
        int signo;
        void (*handler)(int);
    } const rows[] = {
        {SIGPIPE, orbs3_process_handle_pipe},  // a write on a dead socket only fails
        {SIGWINCH, orbs3_process_handle_exiting},
        {SIGINT, orbs3_process_handle_quit},
        {SIGTERM, orbs3_process_handle_term},  // a worker outlives a plain SIGTERM
    };
    for (const auto& r : rows) {
        sigdelset(&set, r.signo);
        struct sigaction sa;
        std::memset(&sa, 0, sizeof sa);
        sa.sa_handler = r.handler;
        sigemptyset(&sa.sa_mask);
        sa.sa_flags = 0;
        if (sigaction(r.signo, &sa, nullptr) != 0) {
            ipd_debug("Set signal %d handler failed,syserror=%s", r.signo, strerror(errno));
            return -1;
        }
    }
    // Last, so that a signal held since the fork is taken by the worker's handler.
    if (pthread_sigmask(SIG_SETMASK, &set, nullptr) != 0) {
        ipd_debug("Set the signal mask failed,syserror=%s", strerror(errno));
        return -1;
    }
    return 0;
}

int orbs3_make_listen(orbs3_service_t* svc)
{
    const int mode = svc->ssl == 0 ? ORBS3_MODE_HTTPS : ORBS3_MODE_HTTP;
    // A TLS service's contexts come first: with a certificate or key that cannot be used the service does
    // not listen at all, rather than accept connections whose every handshake would fail.
    if (mode == ORBS3_MODE_HTTPS) {
        orbs3_init_ssl_cert(svc);
        // The session cache's zone is the worker's for its whole life: a reload keeps it.
        if (orbs3_ssl_init() != 0 || orbs3_openssl_shm_init(orbs3_cycle) != 0 ||
            orbs3_openssl_init(orbs3_cycle, svc) != 0) {
            ipd_log(LOG_ERR, "TLS service %s:%u not started: no usable certificate", neo_getstr(&svc->ipaddr),
                    svc->port);
            return -1;
        }
    }
    orbs3_listening_t* ls = orbs3_create_listening(neo_getstr(&svc->ipaddr), static_cast<int>(svc->port), AF_INET,
                                                   SOCK_STREAM, 0, mode);
    if (ls == nullptr) {
        ipd_log(LOG_ERR, "turn back service failed");
        return -1;
    }
    // The HTTP layer takes each new connection; the S3 front end classifies, admits and runs the action's
    // handler; a request's Host picks one of this service's vhosts.
    // A TLS service runs the handshake first and hands the connection to the HTTP layer after it.
    if (mode == ORBS3_MODE_HTTPS) {
        ls->handler = orbs3_https_init_connection;
        ls->secure_handler = orbs3_http_init_connection;
    } else {
        ls->handler = orbs3_http_init_connection;
    }
    ls->vhosts = &svc->vhosts;
    ls->request_handler = orbs3_parse_req_msg;
    ls->response_handler = orbs3_events_process;
    orbs3_connection_t* c = orbs3_found_connection(ls->fd);
    if (c == nullptr) {
        close(ls->fd);
        ls->fd = -1;
        return -1;
    }
    c->listening = ls;
    c->listen = 1;
    c->read->active = 1;
    c->write->active = 1;
    c->write->handler = orbs3_http_events_empty;
    c->exit_handler = orbs3_http_connection_exit_handler;
    listen_c = c;
    return 0;
}

void orbs3_threads_add_listen(orbs3_connection_t* c)
{
    cpu_write_lock lock;
    for (int i = 0; i < g_cpu_index; i++)
        if (worker_thread_info[i].epfd >= 0)
            (void)orbs3_epoll_add_conn(c->fd, worker_thread_info[i].epfd, c);
}

void orbs3_threads_del_listen(orbs3_connection_t* c)
{
    cpu_write_lock lock;
    for (int i = 0; i < g_cpu_index; i++)
        if (worker_thread_info[i].epfd >= 0)
            (void)orbs3_epoll_del_conn(c->fd, worker_thread_info[i].epfd, c);
}

void orbs3_close_listen()
{
    orbs3_connection_t* c = listen_c;
    if (c == nullptr || c->fd <= 0)
        return;
    orbs3_threads_del_listen(c);
    close(c->fd);
    if (c->listening != nullptr)
        c->listening->fd = -1;
    orbs3_free_connection(c);
    listen_c = nullptr;
    // The worker's reference on the TLS contexts goes with the listener; connections still open keep theirs.
    orbs3_openssl_release(orbs3_cycle);
}

void orbs3_reload_listen()
{
    orbs3_close_listen();
    // The contexts are built from the vhost list and the service's certificate files, which the control
    // thread changes under the write side.
    pthread_rwlock_rdlock(&orbs3_vhosts_lock);
    const int rc = orbs3_make_listen(orbs3_service);
    pthread_rwlock_unlock(&orbs3_vhosts_lock);
    if (rc != 0)
        return;
    orbs3_threads_add_listen(listen_c);
}

long orbs3_get_cpu_num()
{
    return sysconf(_SC_NPROCESSORS_ONLN);
}

int orbs3_worker_thread_count(long cpus)
{
    if (cpus < 1)
        return 1;
    if (cpus > ORBS3_WORKER_THREADS_MAX)
        return ORBS3_WORKER_THREADS_MAX;
    return static_cast<int>(cpus);
}

void* orbs3_worker_thread_cycle(void*)
{
    // Every way out of this thread is counted, so worker_exit knows when nothing uses what it frees.
    struct running_guard {
        ~running_guard() { g_epoll_threads_running.fetch_sub(1); }
    } running;
    prctl(PR_SET_NAME, "worker thread");
    int index;
    {
        cpu_write_lock lock;
        index = g_cpu_index++;
    }
    if (index >= ORBS3_WORKER_THREADS_MAX)
        return nullptr;
    cpu_set_t set;  // 128 bytes: CPUs 0 to 1023
    CPU_ZERO(&set);
    if (index < CPU_SETSIZE)
        CPU_SET(index, &set);
    if (pthread_setaffinity_np(pthread_self(), sizeof set, &set) != 0)
        return nullptr;  // this thread ends; the others serve
    int efd = orbs3_create_epfd(kEpollSizeHint);
    if (efd < 0)
        std::exit(-1);
    orbs3_thread_index = index;
    {
        // One step with the listener's registration, so a reload's walk sees this thread either not yet
        // or with the listener it has.
        cpu_write_lock lock;
        worker_thread_info[index].epfd = efd;
        worker_thread_info[index].tid = pthread_self();
        if (listen_c != nullptr)
            (void)orbs3_epoll_add_conn(listen_c->fd, efd, listen_c);
    }
    // The deadlines of this thread's connections wait and expire here; the tree outlives the thread,
    // since the worker's exit may still close connections that wait in it.
    neo_event_timer_thread_init(&g_thread_timers[index]);
    ipd_debug("worker thread %d on cpu %d, epfd %d", index, index, efd);
    while (!g_epoll_stop.load(std::memory_order_acquire)) {
        (void)orbs3_epoll_events_manage(efd);
        neo_event_expire_timers();
    }
    return nullptr;
}

int orbs3_create_worker_threads()
{
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0)
        return -1;
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_rwlock_init(&g_cpu_lock, nullptr);
    g_cpu_index = 0;
    for (auto& info : worker_thread_info)
        info.epfd = -1;
    int n = orbs3_worker_thread_count(orbs3_get_cpu_num());
    int rc = 0;
    for (int i = 0; i < n; i++) {
        usleep(1000);
        pthread_t tid;
        // Counted before it exists, so an exit that comes while it is still starting waits for it too.
        g_epoll_threads_running.fetch_add(1);
        if (pthread_create(&tid, &attr, orbs3_worker_thread_cycle, nullptr) != 0) {
            g_epoll_threads_running.fetch_sub(1);
            rc = -1;
            break;
        }
    }
    pthread_attr_destroy(&attr);
    return rc;
}

void orbs3_list_vhost_for_debug()
{
    if (orbs3_service == nullptr)
        return;
    neo_list_head_t* pos;
    list_for_each(pos, &orbs3_service->vhosts)
    {
        auto* vh = static_cast<orbs3_vhost_t*>(orbs3_list_node(pos)->data);
        ipd_debug("vhost:%s,%s,%s,%s,%s", neo_getstr(&vh->id), neo_getstr(&vh->name), neo_getstr(&vh->domain),
                  orbs3_get_status_string(vh->status), orbs3_get_bool_string(static_cast<int>(vh->ssl)));
    }
}

orbs3_vhost_t* orbs3_find_vhost_byid(const char* id)
{
    if (orbs3_service == nullptr || id == nullptr)
        return nullptr;
    neo_list_head_t* pos;
    list_for_each(pos, &orbs3_service->vhosts)
    {
        auto* vh = static_cast<orbs3_vhost_t*>(orbs3_list_node(pos)->data);
        if (std::strcmp(neo_getstr(&vh->id), id) == 0)
            return vh;
    }
    return nullptr;
}

void orbs3_free_vhost(const char* id)
{
    if (orbs3_service == nullptr || id == nullptr)
        return;
    neo_list_head_t *pos, *n;
    list_for_each_safe(pos, n, &orbs3_service->vhosts)
    {
        auto* vh = static_cast<orbs3_vhost_t*>(orbs3_list_node(pos)->data);
        if (std::strcmp(neo_getstr(&vh->id), id) == 0) {
            drop_vhost(pos);
            return;
        }
    }
}

int orbs3_keep_active_vhosts(orbs3_service_t* svc)
{
    int left = 0;
    neo_list_head_t *pos, *n;
    list_for_each_safe(pos, n, &svc->vhosts)
    {
        auto* vh = static_cast<orbs3_vhost_t*>(orbs3_list_node(pos)->data);
        if (vh->status != kStatusActive)
            drop_vhost(pos);
        else
            left++;
    }
    return left;
}

void orbs3_worker_load_vhost(orbs3_vhost_t* vh)
{
    (void)orbs3_init_user(vh);
    if (orbs3_init_path(vh) != 0)
        ipd_log(LOG_ERR, "vhost[%s]: tenant trees unusable", neo_getstr(&vh->id));
    else if (orbs3_bucket_init(vh) != 0)
        ipd_log(LOG_ERR, "vhost[%s]: meta root [%s] unreadable, no buckets counted", neo_getstr(&vh->id),
                neo_getstr(&vh->meta_root));
}

void orbs3_process_cycle(orbs3_vhost_t* vhost)
{
    // Lock state that crossed the fork: another master thread may have held a lock at that moment, and
    // its copy would stay held for ever here. The worker's own locks are made new in the child before
    // any thread exists: the slot list's mutex, the timer tree's lock, and g_cpu_lock (made new in
    // orbs3_create_worker_threads). The service list of the master is not used by the worker.
    orbs3_conn_mtx_reinit();
    pthread_rwlock_init(&neo_event_lock, nullptr);
    pthread_rwlock_init(&orbs3_vhosts_lock, nullptr);

    (void)process_sheild_signals();
    orbs3_service = vhost->service;
    if (orbs3_keep_active_vhosts(orbs3_service) == 0)
        std::exit(-1);

    char title[128];
    std::snprintf(title, sizeof title, "%s:%s:%d", orbs3_service->ssl == 0 ? "https" : "http",
                  neo_getstr(&orbs3_service->ipaddr), static_cast<int>(orbs3_service->port));
    set_proctitle(title);

    // Users, service records, trees and bucket counts are in place before the first request can arrive:
    // the epoll threads read them without a lock.
    neo_list_head_t* pos;
    list_for_each(pos, &orbs3_service->vhosts)
    {
        auto* vh = static_cast<orbs3_vhost_t*>(orbs3_list_node(pos)->data);
        if (vh->status == kStatusActive)
            vh->running = 1;
        orbs3_worker_load_vhost(vh);
    }
    orbs3_access_install_hooks();
    if (orbs3_storage_install_handlers() != 0)
        std::exit(-1);

    (void)neo_event_timer_init();
    if (orbs3_make_listen(orbs3_service) != 0)
        std::exit(-1);
    if (orbs3_create_worker_threads() != 0)
        std::exit(-1);
    // The master may change the vhosts from the moment the worker counts as started.
    if (orbs3_ctrl_worker_listen() == 0) {
        pthread_t ctrl;
        if (pthread_create(&ctrl, nullptr, orbs3_ctrl_worker_thread, nullptr) != 0)
            std::exit(-1);
        pthread_detach(ctrl);
    }

    g_recycle_ev.handler = recycle_pass;
    neo_event_add_timer(&g_recycle_ev, kRecycleFirstSec);

    orbs3_list_vhost_for_debug();
    orbs3_service->started = 1;
    ipd_debug("worker process %s started", title);

    while (process_exit == 0) {
        if (process_terminate.exchange(0) != 0) {
            ipd_debug("worker process terminate");
            worker_exit();
        }
        if (process_quit.exchange(0) != 0) {
            ipd_debug("worker process quit");
            process_exit = 1;
            break;
        }
        if (process_reload.load() != 0) {
            ipd_debug("process is reloading");
            orbs3_reload_listen();
            process_reload = 0;
        }
        trace_counters();
        wait_one_second();
        neo_event_expire_timers();
    }
    worker_exit();
}
