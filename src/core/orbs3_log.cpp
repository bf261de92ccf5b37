#include "core/orbs3_log.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "core/orbs3_fork_guard.h"

std::atomic<int> g_debug_level{0};

const ipd_log_level_t g_log_level[8] = {
    {"EMERG", LOG_EMERG}, {"ALERT", LOG_ALERT},   {"CRIT", LOG_CRIT}, {"ERR", LOG_ERR},
    {"WARNING", LOG_WARNING}, {"NOTICE", LOG_NOTICE}, {"INFO", LOG_INFO}, {"DEBUG", LOG_DEBUG},
};

namespace {

constexpr std::size_t kLogLine = 1024;
constexpr std::size_t kDebugPathMax = 256;
constexpr off_t kRotateSize = 10485760;
constexpr time_t kRotateAge = 604801;
constexpr int kGenerations = 4;

const char* level_name(int level)
{
    for (const auto& row : g_log_level)
        if (row.level == level)
            return row.name;
    return "NOTICE";
}

long kernel_tid()
{
    return static_cast<long>(syscall(SYS_gettid));
}

}  // namespace

namespace {
char g_ident[64] = "orbmux";
int g_log_opts = LOG_PID | LOG_CONS;

// Guards every call into syslog and the time-zone code. The master forks workers from a pool thread while
// its other threads keep logging; fork takes this lock first, so no libc lock behind it is held mid-call
// when the child's copy of memory is made. The child's only thread is the one that forked and held it.
pthread_mutex_t g_log_lock = PTHREAD_MUTEX_INITIALIZER;

void log_fork_prepare()
{
    pthread_mutex_lock(&g_log_lock);
}

void log_fork_release()
{
    pthread_mutex_unlock(&g_log_lock);
}

// Registered at the first use of the lock, so after any handler registered while the program was being
// initialised: prepare handlers run in the reverse order of registration, so this lock is taken before
// such an earlier handler's (a sanitizer build locks its allocator there, which a thread inside syslog
// may still need on its way out of the log lock).
pthread_once_t g_log_atfork_once = PTHREAD_ONCE_INIT;

void log_register_atfork()
{
    // The allocator's fork guard must be registered before this handler, so that its prepare step runs
    // after this one: a thread holding the log lock may be waiting for the allocator.
    orbs3_fork_guard_init();
    (void)pthread_atfork(log_fork_prepare, log_fork_release, log_fork_release);
}

class log_lock_guard {
public:
    log_lock_guard()
    {
        pthread_once(&g_log_atfork_once, log_register_atfork);
        pthread_mutex_lock(&g_log_lock);
    }
    ~log_lock_guard() { pthread_mutex_unlock(&g_log_lock); }
    log_lock_guard(const log_lock_guard&) = delete;
    log_lock_guard& operator=(const log_lock_guard&) = delete;
};

}  // namespace

void ipd_log_init(const char* ident, const char* debug_path)
{
    int opts = LOG_PID | LOG_CONS;
    // A sandboxed daemon (tests, the demo) may have no syslog to read; ORBMUX_LOG_STDERR copies every
    // message to standard error, which the daemon keeps across its fork.
    const char* to_stderr = std::getenv("ORBMUX_LOG_STDERR");
    if (to_stderr != nullptr && to_stderr[0] != '\0' && std::strcmp(to_stderr, "0") != 0)
        opts |= LOG_PERROR;
    // openlog keeps the pointer: the identity must outlive every later syslog call.
    std::snprintf(g_ident, sizeof g_ident, "%s", ident);
    g_log_opts = opts;
    log_lock_guard lock;
    openlog(g_ident, opts, LOG_USER);
    setenv("LOG_DEBUG", debug_path, 1);
    setenv("LOG_ID", ident, 1);
}

void ipd_log_close()
{
    log_lock_guard lock;
    closelog();
}

void ipd_log_reopen()
{
    log_lock_guard lock;
    closelog();
    openlog(g_ident, g_log_opts, LOG_USER);
}

void ipd_log_debug_open()
{
    g_debug_level = 1;
}

void ipd_log_debug_close()
{
    g_debug_level = 0;
}

static std::size_t format_line(char* out, std::size_t size, int level, const char* fmt, va_list ap)
{
    char msg[kLogLine];
    int n = std::vsnprintf(msg, sizeof msg, fmt, ap);
    if (n < 0)
        msg[0] = '\0';
    int m = std::snprintf(out, size, "%s, %s", level_name(level), msg);
    if (m < 0)
        return 0;
    return static_cast<std::size_t>(m) < size ? static_cast<std::size_t>(m) : size - 1;
}

std::size_t ipd_log_format(char* out, std::size_t size, int level, const char* fmt, ...)
{
    if (out == nullptr || size == 0)
        return 0;
    va_list ap;
    va_start(ap, fmt);
    std::size_t n = format_line(out, size, level, fmt, ap);
    va_end(ap);
    return n;
}

void ipd_log(int level, const char* fmt, ...)
{
    char msg[kLogLine];
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsnprintf(msg, sizeof msg, fmt, ap);
    va_end(ap);
    if (n < 0)
        return;
    int prio = (level >= LOG_EMERG && level <= LOG_DEBUG) ? level : LOG_NOTICE;
    log_lock_guard lock;
    syslog(prio, "%s, %s", level_name(level), msg);
}

void ipd_debug(const char* fmt, ...)
{
    if (g_debug_level.load(std::memory_order_relaxed) == 0)
        return;
    const char* env = std::getenv("LOG_DEBUG");
    if (env == nullptr)
        return;
    char path[kDebugPathMax];
    std::snprintf(path, sizeof path, "%s", env);

    char line[kLogLine];
    int head = std::snprintf(line, sizeof line, "%s tid[%ld]: ", gettimestamp(), kernel_tid());
    if (head < 0 || static_cast<std::size_t>(head) >= sizeof line)
        return;
    va_list ap;
    va_start(ap, fmt);
    int body = std::vsnprintf(line + head, sizeof line - head, fmt, ap);
    va_end(ap);
    if (body < 0)
        return;
    std::size_t len = static_cast<std::size_t>(head) + static_cast<std::size_t>(body);
    // A message that does not fit is cut; the newline always ends the line.
    if (len > sizeof line - 2)
        len = sizeof line - 2;
    line[len++] = '\n';

    // Opened per line so the file can be rotated or removed without telling the daemon. One O_APPEND
    // write per line keeps lines of concurrent threads and processes whole; a full disk fails the write
    // at once instead of waiting.
    int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0644);
    if (fd < 0)
        return;
    ssize_t w = write(fd, line, len);
    (void)w;
    close(fd);
}

void access_file(const char* path, unsigned mode)
{
    if (path == nullptr || access(path, F_OK) == 0)
        return;
    int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, static_cast<mode_t>(mode));
    if (fd >= 0)
        close(fd);
}

const char* gettimestamp()
{
    // Per thread, so that two threads tracing at once never mix their stamps.
    static thread_local char buf[64];
    time_t now = time(nullptr);
    struct tm tm;
    orbs3_localtime(now, &tm);
    std::snprintf(buf, sizeof buf, "%04d.%02d.%02d-%02d:%02d:%02d", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    return buf;
}

const char* get_sys_usec_time()
{
    static thread_local char buf[128];
    struct timeval tv;
    if (gettimeofday(&tv, nullptr) != 0) {
        std::snprintf(buf, sizeof buf, "%s", strerror(errno));
        return buf;
    }
    struct tm tm;
    orbs3_localtime(tv.tv_sec, &tm);
    std::snprintf(buf, sizeof buf, "%04d.%02d.%02d-%02d:%02d:%02d:%06ld", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<long>(tv.tv_usec));
    return buf;
}

void orbs3_localtime(time_t t, struct tm* tm)
{
    log_lock_guard lock;
    localtime_r(&t, tm);
}

void orbs3_gmtime(time_t t, struct tm* tm)
{
    // Days since 1970-01-01 to a civil date (proleptic Gregorian), in 400-year eras of 146097 days.
    constexpr int64_t kDay = 86400;
    int64_t days = t / kDay;
    int64_t secs = t % kDay;
    if (secs < 0) {
        secs += kDay;
        days -= 1;
    }
    std::memset(tm, 0, sizeof *tm);
    tm->tm_hour = static_cast<int>(secs / 3600);
    tm->tm_min = static_cast<int>(secs % 3600 / 60);
    tm->tm_sec = static_cast<int>(secs % 60);
    tm->tm_wday = static_cast<int>(((days % 7) + 11) % 7);  // 1970-01-01 was a Thursday

    const int64_t z = days + 719468;  // days since 0000-03-01
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const int64_t doe = z - era * 146097;
    const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);  // from March 1st
    const int64_t mp = (5 * doy + 2) / 153;
    const int64_t mday = doy - (153 * mp + 2) / 5 + 1;
    const int64_t mon = mp < 10 ? mp + 3 : mp - 9;  // 1..12
    const int64_t year = yoe + era * 400 + (mon <= 2 ? 1 : 0);

    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    constexpr int kBefore[12] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
    tm->tm_mday = static_cast<int>(mday);
    tm->tm_mon = static_cast<int>(mon - 1);
    tm->tm_year = static_cast<int>(year - 1900);
    tm->tm_yday = kBefore[mon - 1] + static_cast<int>(mday) - 1 + (leap && mon > 2 ? 1 : 0);
}

void restorelog(const char* path)
{
    // Four old generations: .3 -> .4, .2 -> .3, .1 -> .2, live -> .1. A missing generation is no error,
    // and the oldest is overwritten. rename() does what the shell's "mv -f" did, without a shell.
    std::string base(path);
    for (int i = kGenerations; i >= 2; --i) {
        std::string from = base + "." + std::to_string(i - 1);
        std::string to = base + "." + std::to_string(i);
        (void)rename(from.c_str(), to.c_str());
    }
    (void)rename(path, (base + ".1").c_str());
}

int checkblocksize(const char* path)
{
    struct stat st;
    if (path == nullptr || stat(path, &st) != 0)
        return -1;
    if (st.st_size <= kRotateSize)
        return -1;
    restorelog(path);
    return 0;
}

int checktimestamp(const char* path)
{
    struct stat live, old;
    if (path == nullptr || stat(path, &live) != 0)
        return -1;
    // With no older generation there is nothing to measure the age against: the file is left alone.
    std::string gen1 = std::string(path) + ".1";
    if (stat(gen1.c_str(), &old) != 0)
        return -1;
    if (live.st_mtime - old.st_mtime < kRotateAge)
        return -1;
    restorelog(path);
    return 0;
}

namespace {

struct error_row {
    int code;
    const char* text;
};

constexpr error_row g_error_info[] = {
    {0, "OK"},
    {1000, "Data parsing error"},
    {1001, "Data generation error"},
    {1101, "Service add failure"},
    {1102, "Service delete failure"},
    {1103, "Service edit failure"},
    {1104, "Service get failure"},
    {1105, "Service list failure"},
    {1106, "Service start failure"},
    {1107, "Service stop failure"},
    {1108, "Service already exist"},
    {1109, "Service does not exist"},
    {1110, "Service is not started"},
    {1111, "AccessKey already exist"},
    {1112, "AccessKey does not exist"},
    {1121, "Service is running"},
    {4086, "Not registered"},
    {-1, "Unknow"},
};

}  // namespace

const char* orbs3_get_error(int code)
{
    const error_row* row = g_error_info;
    while (row->code != -1 && row->code != code)
        ++row;
    return row->text;
}
