// System configuration: the tuning record `sysconfig` from /etc/orbmux/http.conf, the daemon's settings
// `orbs3_conf` from /etc/orbmux/orbmux.conf, the run record, the size parser and the word tables.
// Both files are read once by the master before any worker exists; workers inherit them by fork.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>

struct orbs3_pool_t;
struct orbs3_event_t;
struct orbs3_connection_t;

struct orbs3_cache_file_t {
    uint64_t size;
    char path[256];
};

struct orbs3_sysconfig_t {
    uint64_t http_pool_total;
    uint64_t cycle_size;
    int listen_nsize;
    int epoll_notify_conn;
    int epoll_events;
    int epoll_events_timeout;
    int listenfd_size;
    uint64_t recv_buffer;
    uint64_t send_buffer;
    uint64_t conn_pool_size;
    uint64_t request_pool_size;
    uint64_t http_limit_header;
    uint64_t http_header_in_size;
    uint64_t http_header_out_size;
    uint64_t http_work_space;
    uint64_t http_limit_conns;
    int http_header_line;
    int http_timeout;
    char ssl_engine_name[64];
    int ssl_shm_zone_size;
    int ssl_ticket;
    int ssl_engine;
    // Seconds a TLS handshake may take from the connection's first byte to its end (https attribute
    // handshake_timeout, 1 or more; default 10): a stalled handshake holds no connection longer.
    int ssl_handshake_timeout;
    int cache_qty;
    int cache_refresh;
    int cache_recycle;
    int cache_bits;
    std::list<orbs3_cache_file_t> cache_files;
};

struct orbs3_conf_t {
    char shost_id[256];
    char conf_path[1024];
    int lifecyclehour;
    int lifecyclethread_min;
    int lifecyclethread_max;
    int lifecyclethread_event;
    int interval;
    int bucketmaxlen;
    int objectmaxlen;
    int objectpathlen;
    int objectdirnum;
    // 1 unless orbmux.conf says signatures="off": request signatures are checked before any action runs.
    int verify_signatures;
    // Least size of every part of a multipart upload but the last, in bytes (multipart_min_part).
    int multipart_min_part;
    uint64_t cache_max_mem;
    uint64_t cache_max_file;
    char cache_tmp[1024];
    int cache_retry;
    int cache_interval;
    std::atomic<uint64_t> cache_used;
};

// The run record, allocated from the cycle's pool.
struct orbs3_cycle_t {
    orbs3_pool_t* pool;
    orbs3_event_t* read_events;
    orbs3_event_t* write_events;
    void* ssl;
    orbs3_connection_t* connections;
    int connection_n;
    orbs3_connection_t* free_connections;
    int free_connection_n;
};

extern orbs3_sysconfig_t sysconfig;
extern orbs3_conf_t orbs3_conf;
extern orbs3_cycle_t* orbs3_cycle;

// Sets the built-in values of sysconfig (what stands when http.conf cannot be opened).
void orbs3_sysconfig_defaults();
uint64_t orbs3_request_pool_size();  // (in + out + work space + 4016) * 2

int orbs3_get_sysconfig();        // 0; reads http.conf if it can
[[nodiscard]] int http_read_sysconfig_xml();  // 0, or -1 when the file cannot be opened
[[nodiscard]] int orbs3_read_conf_xml();      // 0, or -1 when the file cannot be opened or parsed
[[nodiscard]] int orbs3_write_conf_xml();     // 0, or -1 when it cannot be written (the old file stays whole)

int64_t get_size_in_bytes(const char* text);
const char* get_bytes_string(int64_t size);

// Word tables: the index is the value kept in memory and sent in messages. 0 means "true".
inline constexpr const char* orbs3_bool[2] = {"true", "false"};
inline constexpr const char* orbs3_status[10] = {"inactive", "active",   "stoping", "stop_error", "starting",
                                                 "start_error", "adding", "add_error", "deling",  "del_error"};
int orbs3_get_bool(const char* text);
const char* orbs3_get_bool_string(int index);
int orbs3_get_status(const char* text);
const char* orbs3_get_status_string(int index);

// Range-checked setters: outside the range they write a trace line and change nothing.
void set_http_limit_header(uint64_t v);
void set_http_header_in_size(uint64_t v);
void set_http_header_out_size(uint64_t v);
void set_http_work_space(uint64_t v);
void set_http_timeout(int v);

// Creates the run record in a pool of 1,024,000 bytes; 0 or -1.
[[nodiscard]] int orbs3_init_cycle();
