// Access checks: whether a signed-in requester may go on. The dispatcher's gate asks the service's address
// lists for every action; a handler that names a bucket runs the chain of admin test, bucket address lists
// and the service's and bucket's authority lists with the permission of its action. The checks only read
// the rule lists; the administrator of a vhost is above all of them.
//
// Every check gives 0 to let the request pass and non-zero to refuse it; the caller answers a refusal with
// AccessDenied and the resource "/".
#pragma once

#include <cstdint>

#include "event/orbs3_connection.h"
#include "storage/orbs3_bucket.h"
#include "storage/orbs3_record.h"

struct orbs3_user_t;
struct orbs3_vhost_t;
struct orbs3_service_t;

// Permission codes a handler passes to the authority checks. The code minus 1 indexes the rule's `bucket`
// or `object` flags; 7 has no flag in either group, 3 only an object flag.
enum : int {
    ORBS3_ACCESS_CREATE = 1,
    ORBS3_ACCESS_READ = 2,
    ORBS3_ACCESS_WRITE = 3,
    ORBS3_ACCESS_LIST = 4,
    ORBS3_ACCESS_DELETE = 5,
    ORBS3_ACCESS_RENAME = 6,
    ORBS3_ACCESS_NONE = 7,
    ORBS3_ACCESS_COPY = 8,
    ORBS3_ACCESS_BLACKLIST = 9,
    ORBS3_ACCESS_AUTHORITY = 10,
    ORBS3_ACCESS_VERSION = 11,
    ORBS3_ACCESS_QUOTA = 12,
    ORBS3_ACCESS_RECYCLE = 13,
};

// Whether a rule grants the code in its bucket group, or in its object group. A code the group does not
// know grants nothing, whatever flag stands at its index.
[[nodiscard]] bool orbs3_access_bucket_code_granted(const orbs3_bucket_rule_t* rule, int code);
[[nodiscard]] bool orbs3_access_object_code_granted(const orbs3_bucket_rule_t* rule, int code);

// 0 when `user` is the administrator: both records exist, the administrator has a key id, and the user's
// key id equals it. An ordinary user's record carries no key id of its own, so it never matches. -1 else.
[[nodiscard]] int orbmux_check_admin(const orbs3_user_t* admin, const orbs3_user_t* user);

// The address lists of the service record, and of a bucket: a whitelist in force admits only its exact
// hosts and hides the blacklist; else a blacklist in force refuses every peer in one of its networks.
// 0 or 1; a null record or peer refuses.
[[nodiscard]] int orbmux_check_service_rec_blacklist(const orbs3_service_rec_t* rec, const orbs3_peer_t* peer);
[[nodiscard]] int orbmux_check_bucket_blacklist(const orbs3_bucket_t* bucket, const orbs3_peer_t* peer);

// The authority lists of the service record, and of a bucket. Each list in force must have, as its first
// rule naming the peer's address (exact host) or the requester's user id, a rule with the flag of the
// given code; a list in force that names neither refuses. Either code pointer may be null. 0 or 1; a null
// record refuses.
[[nodiscard]] int orbmux_check_service_authority(const orbs3_service_rec_t* rec, const orbs3_peer_t* peer,
                                                 const orbs3_user_t* user, const int* bucket_code,
                                                 const int* object_code);
[[nodiscard]] int orbmux_check_bucket_authority(const orbs3_bucket_t* bucket, const orbs3_peer_t* peer,
                                                const orbs3_user_t* user, const int* bucket_code,
                                                const int* object_code);

// Which steps of the chain an action runs after the bucket is known.
enum class orbs3_access_chain_t {
    full,            // admin, bucket address lists, service and bucket authority
    no_bucket,       // PutBucket: admin and service authority; there is no bucket yet
    blacklist_only,  // lifecycle, object ACL and tagging actions: admin and bucket address lists
};

// The chain of a handler for the vhost's requester; the first refusal ends it. 0 or non-zero.
[[nodiscard]] int orbs3_access_check_chain(const orbs3_vhost_t* vh, const orbs3_user_t* user,
                                           const orbs3_bucket_t* bucket, const orbs3_peer_t* peer,
                                           const int* bucket_code, const int* object_code,
                                           orbs3_access_chain_t chain);

// 0 when both are IPv4 and the addresses are equal, else -1.
[[nodiscard]] int is_contain_netsegment(const orbs3_peer_t* a, const orbs3_peer_t* b);
// The network of an address under a mask, both in the same byte order.
[[nodiscard]] inline uint32_t get_ipv4_net_id(uint32_t addr, uint32_t mask)
{
    return addr & mask;
}
// The mask of a prefix length in host order: 24 gives 0xFFFFFF00, 0 gives 0, 32 and beyond all ones.
[[nodiscard]] uint32_t orbs3_access_prefix_mask(uint32_t length);

// The dispatcher's gate: the blacklist of the requesting tenant's service record bars the peer
// (non-zero). A tenant whose record is not loaded has no list in force.
[[nodiscard]] int orbs3_access_service_blacklist(const orbs3_vhost_t* vhost, const orbs3_peer_t* peer);
// Points the dispatcher's blacklist hook at orbs3_access_service_blacklist.
void orbs3_access_install_hooks();
