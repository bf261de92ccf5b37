#include "core/orbs3_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "control/orbs3_ctrl_thread.h"
#include "control/orbs3_service.h"
#include "control/orbs3_service_start.h"
#include "control/orbs3_shost.h"
#include "core/orbs3_config.h"
#include "core/orbs3_log.h"
#include "core/orbs3_prefix.h"
#include "http/orbs3_http_request.h"
#include "core/orbs3_proctitle.h"
#include "core/orbs3_worker.h"
#include "event/orbs3_connection.h"
#include "event/orbs3_epoll.h"
#include "memory/orbs3_palloc.h"
#include "memory/orbs3_shmtx.h"

std::atomic<int> orbs3_terminate{0};
int epfd = -1;

orbs3_main_thread_t g_main_threads[3] = {
    {0, "msg process thread", nullptr, orbs3_ctrl_thread},
    {0, "send shost thread", nullptr, orbs3_shost_thread},
    {0, "check worker thread", nullptr, orbs3_check_worker_thread},
};

namespace {

constexpr const char* kOptions = "dtkvhl:";
constexpr const char* kServer = "server";

// Signals are only recorded in their handlers; the master's main thread acts on them (logging, memory
// and files are not safe inside a handler). A byte on the pipe wakes it at once.
std::atomic<unsigned> g_pending{0};
int g_wake[2] = {-1, -1};

constexpr unsigned bit_of(int signo)
{
    return 1u << static_cast<unsigned>(signo);
}

void orbs3_record_signal(int signo)
{
    int saved = errno;
    g_pending.fetch_or(bit_of(signo));
    if (g_wake[1] >= 0) {
        char c = static_cast<char>(signo);
        ssize_t w = write(g_wake[1], &c, 1);
        (void)w;
    }
    errno = saved;
}

std::string pid_path()
{
    return orbs3_prefix_path(ORBS3_PID_FILE);
}

void send_to_master(int signo)
{
    pid_t pid = orbs3_get_running_pid();
    if (pid <= 0) {
        // No master to signal; kill(-1) would reach every process we may signal.
        std::fprintf(stderr, "orbmux: no running master (pid file %s)\n", pid_path().c_str());
        std::exit(1);
    }
    (void)kill(pid, signo);
    std::exit(0);
}

}  // namespace

const char* orbs3_usage_text()
{
    static const std::string text = [] {
        std::string flags, valued;
        for (const char* p = kOptions; *p != '\0'; ++p) {
            if (p[1] == ':') {
                char buf[64];
                std::snprintf(buf, sizeof buf, " [-%c %s]", *p, "unknown-flag-argument");
                valued += buf;
                ++p;
            } else {
                flags += *p;
            }
        }
        char head[64];
        std::snprintf(head, sizeof head, "\nUsage: %s [-", kServer);
        return std::string(head) + flags + "]" + valued + "\n";
    }();
    return text.c_str();
}

void usage()
{
    std::fputs(orbs3_usage_text(), stderr);
    std::exit(1);
}

int orbs3_get_options(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        const char* p = argv[i];
        if (*p++ != '-')
            return 1;
        (void)orbs3_get_running_pid();
        for (; *p != '\0'; ++p) {
            switch (*p) {
            case 'd':
                ipd_log_debug_open();
                break;
            case 'q':
                break;
            case 'k':
                send_to_master(SIGUSR1);
                break;
            case 's': {
                // The word stands two bytes behind the letter: "-s=stop", or "-s stop" where the byte behind
                // the letter ends the argument and the next argument follows.
                const char* word = nullptr;
                if (p[1] == '\0')
                    word = (i + 1 < argc) ? argv[i + 1] : nullptr;
                else
                    word = p + 2;  // p[1] is not the terminator, so p[2] is still inside the argument
                if (word == nullptr)
                    usage();
                if (std::strncmp(word, "stop", 4) == 0)
                    send_to_master(SIGWINCH);
                else if (std::strncmp(word, "quit", 4) == 0)
                    send_to_master(SIGQUIT);
                else if (std::strncmp(word, "reload", 6) == 0)
                    send_to_master(SIGINT);
                usage();
            }
            default:
                usage();
            }
        }
    }
    return 0;
}

int orbs3_make_daemon()
{
    pid_t pid = fork();
    if (pid < 0)
        return -1;
    if (pid > 0)
        std::exit(0);
    if (setsid() < 0)
        return -1;
    pid = fork();
    if (pid < 0)
        return -1;
    if (pid > 0)
        std::exit(0);
    return 0;
}

pid_t orbs3_get_running_pid()
{
    std::string path = pid_path();
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        ipd_debug("failed to fopen, syserror = [%s]", strerror(errno));
        return -1;
    }
    char buf[1025];
    ssize_t n = read(fd, buf, 1024);
    close(fd);
    if (n < 0)
        return -1;
    buf[n] = '\0';
    return static_cast<pid_t>(std::atoi(buf));
}

int orbs3_set_running_pid()
{
    orbs3_pid = getpid();
    std::string path = pid_path();
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        ipd_debug("failed to fopen, syserror = [%s]", strerror(errno));
        return -1;
    }
    // The lock makes check-and-write one step, so two masters starting at once cannot both pass.
    (void)flock(fd, LOCK_EX);
    char buf[1025];
    ssize_t n = pread(fd, buf, 1024, 0);
    buf[n > 0 ? n : 0] = '\0';
    pid_t running = static_cast<pid_t>(std::atoi(buf));
    if (running > 0 && running != orbs3_pid) {
        close(fd);
        std::fputs("orbs3 master in already exists\n", stderr);
        return -1;
    }
    int len = std::snprintf(buf, sizeof buf, "%d", static_cast<int>(orbs3_pid));
    int rc = 0;
    if (ftruncate(fd, 0) != 0 || pwrite(fd, buf, static_cast<std::size_t>(len), 0) != len) {
        ipd_debug("failed to fopen, syserror = [%s]", strerror(errno));
        rc = -1;
    }
    close(fd);
    return rc;
}

int sheild_signals()
{
    sigset_t set;
    if (sigfillset(&set) != 0) {
        ipd_debug("Initialize the signal set failed, syserror=%s", strerror(errno));
        return -1;
    }
    struct {
        int signo;
        const char* trace;
    } const open_signals[] = {
        {SIGTERM, "Delete SIGTERM from signal set failed,syserror=%s"},
        {SIGINT, "Delete SIGINT from signal set failed,syserror=%s"},
        {SIGALRM, "Delete SIGALRM from signal set failed,syserror=%s"},
        {SIGQUIT, "Delete SIGQUIT from signal set failed,syserror=%s"},
        {SIGCHLD, "Delete SIGCHLD from signal set failed,syserror=%s"},
        {SIGWINCH, "Delete SIGWINCH from signal set failed,syserror=%s"},
        {SIGUSR1, "Delete SIGUSR1 from signal set failed,syserror=%s"},
    };
    for (const auto& s : open_signals) {
        if (sigdelset(&set, s.signo) != 0) {
            ipd_debug(s.trace, strerror(errno));
            return -1;
        }
    }
    if (pipe2(g_wake, O_NONBLOCK | O_CLOEXEC) != 0) {
        ipd_debug("Create the signal pipe failed,syserror=%s", strerror(errno));
        return -1;
    }

    // SIGTERM, SIGQUIT and SIGCHLD as designed. SIGWINCH (-s stop), SIGINT (-s reload) and SIGUSR1 (-k)
    // get handlers too, so none of them can end the master without its exit order; control_process
    // says what each does.
    struct {
        int signo;
        const char* trace;
    } const handled[] = {
        {SIGQUIT, "Set SIGQUIT handler failed,syserror=%s"},
        {SIGTERM, "Set SIGTERM handler failed,syserror=%s"},
        {SIGCHLD, "Set SIGCHLD handler failed,syserror=%s"},
        {SIGWINCH, "Set SIGWINCH handler failed,syserror=%s"},
        {SIGINT, "Set SIGINT handler failed,syserror=%s"},
        {SIGUSR1, "Set SIGUSR1 handler failed,syserror=%s"},
    };
    for (const auto& h : handled) {
        struct sigaction sa;
        std::memset(&sa, 0, sizeof sa);
        sa.sa_handler = orbs3_record_signal;
        sigemptyset(&sa.sa_mask);
        sa.sa_flags = 0;
        if (sigaction(h.signo, &sa, nullptr) != 0) {
            ipd_debug(h.trace, strerror(errno));
            return -1;
        }
    }
    // The mask comes last: a signal held since the pid file was written is taken by its handler.
    if (pthread_sigmask(SIG_SETMASK, &set, nullptr) != 0) {
        ipd_debug("Set the signal mask failed,syserror=%s", strerror(errno));
        return -1;
    }
    return 0;
}

namespace {

// Calls fn for every service of the node under the lock of the lists, read or write as `write` says.
template <typename Fn>
void each_service(bool write, Fn fn)
{
    if (write)
        pthread_rwlock_wrlock(&g_service_lock);
    else
        pthread_rwlock_rdlock(&g_service_lock);
    neo_list_head_t* pos;
    list_for_each(pos, &g_service_list) fn(static_cast<orbs3_service_t*>(orbs3_list_node(pos)->data));
    pthread_rwlock_unlock(&g_service_lock);
}

}  // namespace

void orbs3_signal_process(int signo)
{
    each_service(false, [signo](orbs3_service_t* svc) {
        if (svc->pid > 0 && orbs3_worker_signal(svc, signo) != 0)
            ipd_log(LOG_ERR, "Signal transmission failure");
    });
}

int master_process_exit()
{
    int rc = 0;
    each_service(false, [&rc](orbs3_service_t* svc) {
        if ((svc->flags & ORBS3_SERVICE_EXITED) == 0 && svc->pid > 0)
            rc = -1;
    });
    return rc;
}

void orbs3_master_exit()
{
    ipd_log(LOG_INFO, "stop %s service.", "orbmux");
    (void)unlink(pid_path().c_str());
    if (orbs3_cycle != nullptr) {
        orbs3_destroy_pool(orbs3_cycle->pool);
        orbs3_cycle = nullptr;
    }
    orbs3_ctrl_thread_exit();
    free_argv();
    std::exit(0);
}

int orbs3_handle_reap_children()
{
    for (;;) {
        int status = 0;
        pid_t pid = waitpid(-1, &status, WNOHANG);
        if (pid == 0)
            break;
        if (pid < 0) {
            if (errno == EINTR)
                continue;
            break;  // ECHILD, or nothing more to learn
        }
        // The process is gone either way: a pid kept for it would make a later stop wait for ever for a
        // child that cannot end again. A worker killed by a signal is started again after a backoff.
        (void)orbs3_worker_reaped(pid, status, orbs3_terminate.load() != 0);
    }
    if (orbs3_terminate.load() && master_process_exit() == 0)
        orbs3_master_exit();
    return 0;
}

static void orbs3_handle_quit()
{
    orbs3_terminate = 1;
    orbs3_signal_process(SIGINT);
}

// A worker that has not ended this long after a stop (stuck in a handler, or held by a debugger) is
// killed: the master's stop is bounded.
constexpr int64_t kStopGraceS = 10;
int64_t g_stop_since = 0;

static void orbs3_handle_exiting()
{
    if (orbs3_terminate.load() == 0)
        g_stop_since = orbs3_monotonic_s();
    orbs3_terminate = 1;
    orbs3_signal_process(SIGWINCH);
    if (master_process_exit() == 0)
        orbs3_master_exit();
}

void control_process()
{
    for (;;) {
        struct pollfd pfd = {g_wake[0], POLLIN, 0};
        (void)poll(&pfd, 1, 1000);
        char drain[64];
        while (read(g_wake[0], drain, sizeof drain) > 0) {
        }
        unsigned pending = g_pending.exchange(0);
        if (pending != 0)
            ipd_debug("master takes signals 0x%x", pending);
        if (pending & bit_of(SIGCHLD))
            (void)orbs3_handle_reap_children();
        if (pending & bit_of(SIGQUIT))
            orbs3_handle_quit();
        // -s stop sends SIGWINCH: it stops the daemon exactly as SIGTERM does.
        if (pending & (bit_of(SIGTERM) | bit_of(SIGWINCH)))
            orbs3_handle_exiting();
        if (pending & bit_of(SIGINT))
            ipd_log(LOG_NOTICE, "reload ignored: configuration is read only at start");
        if (pending & bit_of(SIGUSR1)) {
            ipd_log_reopen();
            ipd_log(LOG_NOTICE, "log reopened");
        }
        const int64_t now = orbs3_monotonic_s();
        if (orbs3_terminate.load() == 0) {
            orbs3_restart_due_workers(now);
        } else if (g_stop_since != 0 && now - g_stop_since >= kStopGraceS && master_process_exit() != 0) {
            ipd_log(LOG_ERR, "workers still running %lld s after the stop: killed",
                    static_cast<long long>(now - g_stop_since));
            g_stop_since = now;
            orbs3_signal_process(SIGKILL);
        }
    }
}

void other_process_main_start()
{
    for (auto& t : g_main_threads) {
        ipd_debug("create thread [%s]", t.name);
        int err = pthread_create(&t.tid, nullptr, t.routine, &t.args);
        if (err != 0) {
            ipd_debug("failed to create child[%s], syserror=%s", t.name, strerror(err));
            std::exit(1);
        }
    }
}

int orbs3_master_process_init()
{
    ipd_trace_enter();
    (void)orbs3_get_sysconfig();
    if (orbs3_init_cycle() != 0)
        return -1;
    if (orbs3_event_process_init() != 0) {
        ipd_debug("connection slots init failed");
        std::exit(-1);
    }
    epfd = orbs3_create_epfd(512);
    if (epfd < 0)
        std::exit(-1);
    if (orbs3_epoll_notify_init(epfd) != 0) {
        ipd_debug("epoll notify init failed");
        std::exit(-1);
    }
    if (orbs3_read_conf_xml() != 0) {
        ipd_debug("read %s failed", orbs3_prefix_path(ORBS3_CONF).c_str());
        std::exit(-1);
    }
    // Built once here and inherited read-only by every worker through fork.
    if (orbs3_http_init_headers_in_hash(orbs3_cycle->pool) != 0) {
        ipd_log(LOG_ERR, "headers_in_hash init failed");
        return -1;
    }
    ipd_trace_leave();
    return 0;
}

void orbs3_master_process_cycle(char** argv)
{
    (void)argv;
    if (orbs3_master_process_init() != 0) {
        ipd_log(LOG_ERR, "master process init failed");
        return;
    }
    ipd_log(LOG_INFO, "start %s service.", "orbmux");
    other_process_main_start();
    control_process();
}
