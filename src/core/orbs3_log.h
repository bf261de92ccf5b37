// Logging: operational messages to syslog (ipd_log) and trace lines to the debug file (ipd_debug).
#pragma once

#include <syslog.h>

#include <atomic>
#include <cstddef>
#include <ctime>

// Not 0: ipd_debug writes. Switched by -d at start; a worker inherits it by fork.
extern std::atomic<int> g_debug_level;

struct ipd_log_level_t {
    char name[16];
    int level;
};
extern const ipd_log_level_t g_log_level[8];

// Opens syslog under `ident` and records the debug file's path in the environment (LOG_DEBUG, LOG_ID).
void ipd_log_init(const char* ident, const char* debug_path);
void ipd_log_close();
// Closes and reopens the syslog connection under the same identity (for -k after a syslog restart).
void ipd_log_reopen();
void ipd_log_debug_open();
void ipd_log_debug_close();

// syslog(level, "%s, %s", level name, message); the message is cut at 1023 bytes.
void ipd_log(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
// One line "<timestamp> tid[<tid>]: <message>" appended to the debug file, only while debugging is on.
void ipd_debug(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Test hook: the text ipd_log would hand to syslog ("ERR, message"), or null for an empty format.
// Returns the number of bytes written to out (at most size - 1), always terminated when size > 0.
std::size_t ipd_log_format(char* out, std::size_t size, int level, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

// localtime_r under the log's lock. glibc's time-zone lock, like its syslog lock, is copied into a child
// as it stood at fork; taking both only under a lock that fork itself takes first (pthread_atfork) means
// a worker never starts with either held by a master thread that does not exist in it.
void orbs3_localtime(time_t t, struct tm* tm);
// Broken-down UTC time by arithmetic alone: no lock, nothing shared, safe on every request.
void orbs3_gmtime(time_t t, struct tm* tm);

void access_file(const char* path, unsigned mode);
const char* gettimestamp();
const char* get_sys_usec_time();
int checkblocksize(const char* path);
int checktimestamp(const char* path);
void restorelog(const char* path);

// Text of a control-protocol status code; an unknown code gives "Unknow".
const char* orbs3_get_error(int code);

#define ipd_trace_enter() ipd_debug("Enter: %s(), %s Line %i", __func__, __FILE__, __LINE__)
#define ipd_trace_leave() ipd_debug("Leave: %s(), %s Line %i", __func__, __FILE__, __LINE__)
