// The files of tenants: the cluster file (clusters and tiers), the group files on the cluster file system
// (one per group of tenants, shared by every node), the users of a tenant, the node key, the endpoint
// list and the lifecycle date.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "control/orbs3_service.h"
#include "memory/neo_list.h"
#include "memory/orbs3_palloc.h"

// Files of the surrounding storage product and of the daemon; all are put under ORBMUX_PREFIX.
inline constexpr std::string_view ORBS3_CLUSTER_FILE = "/etc/kelvane/conf/cluster-h.xml";
inline constexpr std::string_view ORBS3_SHOST_FILE = "/etc/kelvane/.shost.dat";
inline constexpr std::string_view ORBS3_ENDPOINT_FILE = "/etc/orbmux/.cluster.dat";
inline constexpr std::string_view ORBS3_LIFECYCLE_FILE = "/etc/orbmux/.lifecycle.dat";

// Below a cluster or tier path: group files, service records and user files; lifecycle records.
inline constexpr std::string_view ORBS3_SERVICE_SUBDIR = "/ombr/system/orbmux/";
inline constexpr std::string_view ORBS3_LIFECYCLE_SUBDIR = "/ombr/system/lifecycle/";

inline constexpr uint32_t ORBS3_ENDPOINT_PORT = 9001;

// One entry of the endpoint file.
struct orbs3_endpoint_t {
    orbs3_str_t url;   // cap 1024
    orbs3_str_t addr;  // cap 48
    uint32_t port;
};

// orbs3_list_node_t nodes carrying orbs3_endpoint_t. reload_cluster_data replaces the whole list under
// orbs3_endpoints_lock; a reader holds the lock while it walks the list.
extern neo_list_head_t orbs3_endpoints;
extern pthread_mutex_t orbs3_endpoints_lock;
// Every endpoint of the list, and the nodes; the head is left empty.
void orbs3_free_endpoint_list(neo_list_head_t* head);

struct orbs3_free_deleter {
    void operator()(void* p) const noexcept { std::free(p); }
};
// Owner of what orbs3_get_cluster_path returns.
using orbs3_cluster_path_ptr = std::unique_ptr<char, orbs3_free_deleter>;

// Absolute directory of the cluster (empty `tiered`) or of its tier, from the first `cluster` element of
// the cluster file. A new 1024-byte string the caller frees, or null when the file, the cluster alias or
// the tier alias is not found.
[[nodiscard]] char* orbs3_get_cluster_path(const char* cluster, const char* tiered);

// Appends the vhosts of this node from every tier, then from the cluster itself. 0, or -1 when the
// cluster file can't be opened or parsed.
[[nodiscard]] int orbs3_load_all_vhost(neo_list_head_t* list);
// Reads every regular file group_* of <root>/ombr/system/orbmux. 0, or -1 when the directory can't be
// opened.
[[nodiscard]] int orbs3_filter_vhost_file(neo_list_head_t* list, const char* root);
// Appends the hosts of one group file that carry this node's key; `root` becomes their cluster_path.
// 0 or -1.
[[nodiscard]] int orbs3_read_vhost_file(neo_list_head_t* list, const char* file, const char* root);

// Writes the vhost into its group file, keeping every other host of the file, of every node. 0 or -1.
[[nodiscard]] int orbs3_add_vhost_to_file(const orbs3_vhost_t* vh);
// Writes the vhost into its group file under its own group attributes: in the place of the host with its
// id, or last. Every other host of the file, of every node, stays. 0 or -1.
[[nodiscard]] int orbs3_save_vhost_to_file(const orbs3_vhost_t* vh);
// Removes the hosts with the vhost's id from its group file; the file goes with its last host. 0 or -1.
[[nodiscard]] int orbs3_del_vhost_from_file(const orbs3_vhost_t* vh);

// <cluster path>/ombr/system/orbmux/ (or .../lifecycle/) of the vhost into `path` (at least
// ORBS3_PATH_CAP bytes), the directory created. 0, or -1 when the cluster path is unknown or the
// directory can't be made.
[[nodiscard]] int orbs3_get_service_file_save_path(char* path, const orbs3_vhost_t* vh);
[[nodiscard]] int orbs3_get_lifecycle_file_save_path(char* path, const orbs3_vhost_t* vh);

// Appends the users of a user file to `list`, each with `vhost_id`. 0 or -1.
[[nodiscard]] int read_user_data(const char* path, neo_list_head_t* list, const char* vhost_id);
// Replaces the user file with the users of the list. 0 or -1, and then the old file stands.
[[nodiscard]] int write_user_data(const char* path, neo_list_head_t* list);

// The node key from the shost file into orbs3_conf.shost_id. 0, or -1 and the key unchanged.
[[nodiscard]] int orbs3_read_shost_data_file();
// Replaces orbs3_endpoints with the endpoints of the endpoint file. 0, or -1 and the old list stays.
[[nodiscard]] int reload_cluster_data();

// The lifecycle file with `date` as its Date (none when null). 0 or -1.
[[nodiscard]] int write_lifecycle_date(const char* date);
// Date of the lifecycle file into `buf` (cut to len - 1 bytes); a missing Date leaves `buf` alone.
// 0, or -1 when the file can't be read.
[[nodiscard]] int read_lifecycle_date(char* buf, std::size_t len);

// The lock the provisioning tool takes on a cluster path's tenant files (an flock on
// <cluster path>/ombr/system/orbmux/.orbmux-tenant.lock): whoever rewrites a group or user file holds it
// from the read to the rename, so that neither loses what the other wrote. Waits at most `wait_ms`.
class orbs3_tenant_files_lock {
public:
    orbs3_tenant_files_lock(const char* cluster_path, int wait_ms);
    ~orbs3_tenant_files_lock();
    orbs3_tenant_files_lock(const orbs3_tenant_files_lock&) = delete;
    orbs3_tenant_files_lock& operator=(const orbs3_tenant_files_lock&) = delete;
    [[nodiscard]] bool held() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};
inline constexpr std::string_view ORBS3_TENANT_LOCK_NAME = ".orbmux-tenant.lock";

// Loads the users of the vhost from <service dir><id>.user in the worker; a missing file leaves them
// empty. 0, or -1 (logged) when the cluster path is unknown or the file can't be read.
int orbs3_init_user(orbs3_vhost_t* vh);
