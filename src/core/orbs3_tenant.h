// The tenant model: services (one listening address, one worker process), their vhosts (tenants), the
// tenants' users and access keys. Every layer reads these records; the master's lists of them live in
// control/orbs3_service.h.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "memory/neo_list.h"
#include "memory/orbs3_palloc.h"

// Caps: the longest value a field keeps; a longer one is cut to it.
inline constexpr std::size_t ORBS3_ADDR_CAP = 48;
inline constexpr std::size_t ORBS3_NAME_CAP = 256;
inline constexpr std::size_t ORBS3_PATH_CAP = 1024;
inline constexpr std::size_t ORBS3_PWD_CAP = 128;
inline constexpr std::size_t ORBS3_KEY_CAP = 64;
inline constexpr std::size_t ORBS3_IFACE_LEN = 1024;

struct orbs3_accesskey_t {
    orbs3_str_t AccessKeyId;
    orbs3_str_t AccessKeySecret;
};

struct orbs3_user_t {
    orbs3_str_t UserId;           // cap 256
    orbs3_str_t DisPlayName;      // cap 256; also the owner directory of the user's buckets
    orbs3_str_t accesskeyid;      // only in a vhost's admin record, cap 64
    orbs3_str_t accesskeysecret;  // only in a vhost's admin record, cap 64
    orbs3_str_t vhost_id;         // id of the user's vhost
    uint32_t Status;              // given by the client; stored and saved, never tested
    uint32_t is_admin;            // admin record: 1 once the administrator's key has been seen
    neo_list_head_t keys;         // orbs3_list_node_t nodes carrying orbs3_accesskey_t, in order of adding
};

// The tenant's administrative record, loaded in the worker from the service directory.
struct orbs3_service_rec_t;

// One certificate of a TLS service: the files and the key's pass phrase, copied from the service when its
// context is built; the pass phrase is zeroed once the key is loaded.
struct orbs3_ssl_cert_t {
    char cert[ORBS3_PATH_CAP];
    char key[ORBS3_PATH_CAP];
    char password[ORBS3_PWD_CAP];
};

inline constexpr std::size_t ORBS3_SSL_CERTS_MAX = 1;

struct orbs3_service_t {
    orbs3_str_t ipversion;  // cap 48, copied from the first host of the service
    orbs3_str_t ipaddr;     // cap 48: listening address
    uint32_t port;
    uint32_t started;  // set to 1 by the worker process when its threads are up
    uint32_t ssl;      // index into orbs3_bool: 0 means TLS, 1 plain HTTP
    orbs3_str_t ca;       // cap 1024
    orbs3_str_t cert;     // cap 1024
    orbs3_str_t ssl_key;  // cap 1024
    orbs3_str_t key_pwd;  // cap 128
    neo_list_head_t vhosts;  // orbs3_list_node_t nodes carrying orbs3_vhost_t
    pid_t pid;                    // worker process id; 0 when none, -1 after a failed fork
    char iface[ORBS3_IFACE_LEN];  // the worker's control socket, /var/run/orbmux/<pid>.iface
    uint8_t flags;                // bit 0: the worker process is gone
    // The master's supervision of the worker. Signals go through the pidfd, never the bare pid: once
    // the worker is reaped its pid may name another process, while the pidfd names only the worker.
    int pidfd;             // -1 when the master holds none
    uint32_t restarts;     // times the worker was started again after it was killed by a signal
    uint32_t backoff;      // seconds waited before the last restart; 0 before the first
    int64_t started_at;    // monotonic second of the worker's last fork
    int64_t restart_at;    // monotonic second a restart is due; 0 when none is
    // TLS settings, filled by orbs3_init_ssl_cert in the worker before its context is built. The client
    // verification, revocation and async fields have no configuration yet: 0 keeps them off.
    uint32_t protocols;      // 8 TLSv1, 16 TLSv1.1, 32 TLSv1.2 (TLS 1.3 is always offered)
    uint32_t protocols_set;  // 1 once protocols is set
    orbs3_ssl_cert_t certificates[ORBS3_SSL_CERTS_MAX];
    uint32_t certificate_n;
    char ssl_engine_name[64];
    uint32_t ssl_engine_on;
    uint32_t session_tickets;     // 0: tickets off
    uint32_t verify;              // 0 none, 1 required, 3 optional without CA check
    char client_certificate[ORBS3_PATH_CAP];
    char crl[ORBS3_PATH_CAP];
    uint32_t verify_depth;
    uint32_t async;
};

inline constexpr uint8_t ORBS3_SERVICE_EXITED = 1;

struct orbs3_vhost_t {
    orbs3_str_t id;        // cap 256: names the tenant's files
    orbs3_str_t name;      // cap 256: unique among the vhosts of the node
    orbs3_str_t group;     // cap 256: alias of the group file the host came from
    orbs3_str_t node_key;  // cap 256: key of the node that serves the host
    orbs3_str_t domain;    // cap 256
    uint32_t ssl;          // index into orbs3_bool: 0 means TLS
    uint32_t port;
    orbs3_str_t ipversion;  // cap 48
    orbs3_str_t ipaddr;     // cap 48
    orbs3_str_t ca;         // cap 1024
    orbs3_str_t cert;       // cap 1024
    orbs3_str_t ssl_key;    // cap 1024
    orbs3_str_t key_pwd;    // cap 128
    orbs3_str_t data_root;     // cap 1024; the four roots are built in the worker
    orbs3_str_t meta_root;     // cap 1024
    orbs3_str_t version_root;  // cap 1024
    orbs3_str_t recycle_root;  // cap 1024
    orbs3_str_t cluster;       // cap 256: alias of the cluster
    orbs3_str_t tiered;        // cap 256: alias of the tier; empty on the cluster itself
    orbs3_str_t group_path;    // cap 1024: the tenant's directory below cluster_path
    orbs3_str_t cluster_path;  // cap 1024: absolute directory of the cluster or tier
    int32_t status;   // index into orbs3_status: the wanted state
    int32_t running;  // index into orbs3_status: the actual state
    int32_t chg;      // TLS fields changed by the last edit
    orbs3_service_t* service;
    orbs3_service_rec_t* service_rec;
    neo_list_head_t users;        // orbs3_list_node_t nodes carrying orbs3_user_t
    neo_list_head_t bucket_list;  // the tenant's buckets
    std::atomic<int64_t> bucket_count;
    std::atomic<int64_t> object_count;
    orbs3_user_t admin;  // the tenant's administrator, from the group file's admin element
    std::atomic<int32_t> refs;  // holders of the record in a worker: its list, and each request of it
};

// orbs3_status indexes that the system sets.
inline constexpr int32_t ORBS3_STATUS_INACTIVE = 0;
inline constexpr int32_t ORBS3_STATUS_ACTIVE = 1;
inline constexpr int32_t ORBS3_STATUS_STOPING = 2;
inline constexpr int32_t ORBS3_STATUS_STARTING = 4;

// A zeroed service with an empty vhost list; null when memory runs out.
[[nodiscard]] orbs3_service_t* orbs3_service_new();
// A zeroed vhost with empty users, bucket list and admin key list, holding the one reference of the list
// it is put on; null when memory runs out.
[[nodiscard]] orbs3_vhost_t* orbs3_vhost_new();
// Copies what the tenant files say of a vhost (names, address, TLS files, cluster and paths, state, the
// administrator's ids and key) from `src` over `dst`, whose old texts are freed. Lists, counters, the
// service and the run state stay `dst`'s own.
void orbs3_vhost_copy_settings(orbs3_vhost_t* dst, const orbs3_vhost_t* src);
// A zeroed user with an empty key list; null when memory runs out.
[[nodiscard]] orbs3_user_t* orbs3_user_new();

// Unlinks and frees every node of the list, handing each record to `release` first (when not null); the
// head is left empty. A head that was never set up is left alone.
void orbs3_free_list(neo_list_head_t* head, void (*release)(void* data));
// Appends `data` to the list through a new node; 0, or -1 when memory runs out.
[[nodiscard]] int orbs3_list_append(neo_list_head_t* head, void* data);
// Appends the vhost to the service's list and points it at the service; 0, or -1 when memory runs out.
[[nodiscard]] int orbs3_service_add_vhost(orbs3_service_t* svc, orbs3_vhost_t* vh);

// Release what the readers allocated; a null argument is allowed.
// The service's strings, the nodes of its vhost list (not the vhosts) and the record.
void orbs3_free_service_data(orbs3_service_t* svc);
// The user's strings and its keys; the record itself stays (a vhost's admin record is embedded).
void orbs3_user_clear(orbs3_user_t* user);
// The user's strings, its keys and the record.
void orbs3_free_user_data(orbs3_user_t* user);
// Every user of the list with orbs3_free_user_data, and the nodes; the head is left empty.
void orbs3_free_user_list(neo_list_head_t* head);
// Every key of the list, and the nodes; the head is left empty.
void orbs3_free_accesskey_list(neo_list_head_t* head);

// The user that owns the access key id: the admin record when the id is the administrator's (is_admin
// becomes 1), else the first user, in list order, with a key of exactly that id. Null when none owns it
// or an argument is null.
orbs3_user_t* orbs3_check_accesskeyid_exist(orbs3_user_t* admin, const char* key_id, orbs3_vhost_t* vhost);

// The lifetime of a worker's vhosts. The control thread adds, replaces and removes the records of the
// worker's list while the epoll threads serve requests of them, holding no lock for a request's length.
// A lookup walks the list under the read side of orbs3_vhosts_lock and takes a reference on the record it
// picks; the request drops it when it ends. A change never writes into a record a request may read: an
// edit builds a new record and swaps it into the list node, a delete unlinks the node, both under the
// write side, and the list's reference on the old record is dropped after the lock is released. Whoever
// drops the last reference frees the record, through orbs3_vhost_free_hook (the worker's whole-vhost
// free; when unset, nothing is freed). Threads that walk the list for long (the recycle pass) take their
// references under the read lock and walk their own copy.
extern pthread_rwlock_t orbs3_vhosts_lock;
extern void (*orbs3_vhost_free_hook)(orbs3_vhost_t* vh);

void orbs3_vhost_hold(orbs3_vhost_t* vh);
// Drops one reference; the last frees the record. A null argument is allowed.
void orbs3_vhost_release(orbs3_vhost_t* vh);
// Puts `new_vh` into the node that carries `old_vh`, under the write lock. 0, or -1 when `old_vh` is not
// in the list (nothing changed). The list's reference on `old_vh` is the caller's to drop.
[[nodiscard]] int orbs3_vhosts_swap(neo_list_head_t* head, orbs3_vhost_t* old_vh, orbs3_vhost_t* new_vh);
// Appends under the write lock; 0, or -1 when memory runs out.
[[nodiscard]] int orbs3_vhosts_insert(neo_list_head_t* head, orbs3_vhost_t* vh);
// Unlinks the node that carries `vh` under the write lock; true when it was there. The list's reference
// is then the caller's to drop.
bool orbs3_vhosts_unlink(neo_list_head_t* head, orbs3_vhost_t* vh);
