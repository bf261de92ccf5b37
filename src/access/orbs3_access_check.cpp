#include "access/orbs3_access_check.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <string_view>

#include "core/orbs3_log.h"
#include "core/orbs3_tenant.h"
#include "s3/orbs3_s3_dispatch.h"

namespace {

// The peer's IPv4 address in network order. A peer on an IPv6 socket counts as IPv4 only when its address
// is an IPv4-mapped one (a dual-stack listener); any other IPv6 peer has no address the lists can name.
bool peer_ipv4(const orbs3_peer_t* peer, uint32_t* out)
{
    if (peer->family == AF_INET) {
        std::memcpy(out, peer->addr, 4);
        return true;
    }
    static constexpr uint8_t mapped_prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    if (peer->family == AF_INET6 && std::memcmp(peer->addr, mapped_prefix, sizeof mapped_prefix) == 0) {
        std::memcpy(out, peer->addr + 12, 4);
        return true;
    }
    return false;
}

// A rule's address in network order; text inet_pton can't read counts as 0.0.0.0.
uint32_t rule_ipv4(const orbs3_rule_addr_t* a)
{
    char text[INET6_ADDRSTRLEN] = "";
    std::string_view v = orbs3_str_view(a->addr);
    if (v.size() >= sizeof text)
        return 0;
    std::memcpy(text, v.data(), v.size());
    text[v.size()] = '\0';
    in_addr out{};
    if (inet_pton(AF_INET, text, &out) != 1)
        return 0;
    return out.s_addr;
}

template <typename F>
const orbs3_bucket_rule_t* first_rule_with_addr(const neo_list_head_t* list, F&& match)
{
    for (const neo_list_head_t* r = list->next; r != list; r = r->next) {
        const auto* rule = static_cast<const orbs3_bucket_rule_t*>(
            orbs3_list_node(const_cast<neo_list_head_t*>(r))->data);
        if (rule == nullptr)
            continue;
        for (const neo_list_head_t* a = rule->addrs.next; a != &rule->addrs; a = a->next) {
            const auto* addr = static_cast<const orbs3_rule_addr_t*>(
                orbs3_list_node(const_cast<neo_list_head_t*>(a))->data);
            if (addr != nullptr && match(addr))
                return rule;
        }
    }
    return nullptr;
}

const orbs3_bucket_rule_t* first_rule_with_user(const neo_list_head_t* list, std::string_view userid)
{
    for (const neo_list_head_t* r = list->next; r != list; r = r->next) {
        const auto* rule = static_cast<const orbs3_bucket_rule_t*>(
            orbs3_list_node(const_cast<neo_list_head_t*>(r))->data);
        if (rule == nullptr)
            continue;
        for (const neo_list_head_t* u = rule->users.next; u != &rule->users; u = u->next) {
            const auto* ru = static_cast<const orbs3_rule_user_t*>(
                orbs3_list_node(const_cast<neo_list_head_t*>(u))->data);
            if (ru != nullptr && orbs3_str_view(ru->userid) == userid)
                return rule;
        }
    }
    return nullptr;
}

// Only the status of a list counts; the status of a single rule is shown, never tested.
template <typename Rec>
int check_blacklist(const Rec* rec, const orbs3_peer_t* peer)
{
    if (rec == nullptr || peer == nullptr)
        return 1;
    uint32_t ip = 0;
    const bool have_ip = peer_ipv4(peer, &ip);

    if (rec->whitelist_status == 1) {
        // Exact hosts: the mask of a whitelist address is not applied.
        const auto* hit = have_ip ? first_rule_with_addr(&rec->whitelist,
                                                         [ip](const orbs3_rule_addr_t* a) { return rule_ipv4(a) == ip; })
                                  : nullptr;
        return hit != nullptr ? 0 : 1;
    }
    if (rec->blacklist_status == 1 && have_ip) {
        const auto* hit = first_rule_with_addr(&rec->blacklist, [ip](const orbs3_rule_addr_t* a) {
            const uint32_t mask = htonl(orbs3_access_prefix_mask(a->mask));
            return get_ipv4_net_id(ip, mask) == get_ipv4_net_id(rule_ipv4(a), mask);
        });
        if (hit != nullptr)
            return 1;
    }
    return 0;
}

void grant_by_rule(const orbs3_bucket_rule_t* rule, const int* bucket_code, const int* object_code, int* allowed)
{
    if (bucket_code != nullptr && orbs3_access_bucket_code_granted(rule, *bucket_code))
        *allowed = 1;
    if (object_code != nullptr && orbs3_access_object_code_granted(rule, *object_code))
        *allowed = 1;
}

// Authority lists are positive: a list in force grants only through the first rule naming the peer or
// the requester, so a later rule with the flag never rescues an earlier one without it.
template <typename Rec>
int check_authority(const Rec* rec, const orbs3_peer_t* peer, const orbs3_user_t* user, const int* bucket_code,
                    const int* object_code)
{
    if (rec == nullptr)
        return 1;
    int allowed = 1;
    if (rec->authaddr_status == 1) {
        if (peer == nullptr)
            return 1;
        allowed = 0;
        uint32_t ip = 0;
        if (peer_ipv4(peer, &ip)) {
            const auto* rule = first_rule_with_addr(&rec->authaddr_list,
                                                    [ip](const orbs3_rule_addr_t* a) { return rule_ipv4(a) == ip; });
            if (rule != nullptr)
                grant_by_rule(rule, bucket_code, object_code, &allowed);
        }
        if (allowed == 0)
            return 1;
    }
    if (rec->authak_status == 1) {
        allowed = 0;
        if (user == nullptr)
            return 1;
        const auto* rule = first_rule_with_user(&rec->authak_list, orbs3_str_view(user->UserId));
        if (rule != nullptr)
            grant_by_rule(rule, bucket_code, object_code, &allowed);
    }
    return allowed == 1 ? 0 : 1;
}

}  // namespace

bool orbs3_access_bucket_code_granted(const orbs3_bucket_rule_t* rule, int code)
{
    // 3 (write) and 7 have no bucket flag.
    if (code < ORBS3_ACCESS_CREATE || code > ORBS3_ACCESS_RECYCLE || code == ORBS3_ACCESS_WRITE ||
        code == ORBS3_ACCESS_NONE)
        return false;
    return rule->bucket.flag[code - 1] == 1;
}

bool orbs3_access_object_code_granted(const orbs3_bucket_rule_t* rule, int code)
{
    switch (code) {
    case ORBS3_ACCESS_READ:
    case ORBS3_ACCESS_WRITE:
    case ORBS3_ACCESS_LIST:
    case ORBS3_ACCESS_DELETE:
    case ORBS3_ACCESS_COPY:
        return rule->object.flag[code - 1] == 1;
    default:
        return false;
    }
}

int orbmux_check_admin(const orbs3_user_t* admin, const orbs3_user_t* user)
{
    if (admin == nullptr || user == nullptr)
        return -1;
    // An administrator without a key would equal every ordinary user, whose record has no key id either.
    const std::string_view key = orbs3_str_view(admin->accesskeyid);
    if (key.empty())
        return -1;
    return orbs3_str_view(user->accesskeyid) == key ? 0 : -1;
}

int orbmux_check_service_rec_blacklist(const orbs3_service_rec_t* rec, const orbs3_peer_t* peer)
{
    return check_blacklist(rec, peer);
}

int orbmux_check_bucket_blacklist(const orbs3_bucket_t* bucket, const orbs3_peer_t* peer)
{
    return check_blacklist(bucket, peer);
}

int orbmux_check_service_authority(const orbs3_service_rec_t* rec, const orbs3_peer_t* peer, const orbs3_user_t* user,
                                   const int* bucket_code, const int* object_code)
{
    return check_authority(rec, peer, user, bucket_code, object_code);
}

int orbmux_check_bucket_authority(const orbs3_bucket_t* bucket, const orbs3_peer_t* peer, const orbs3_user_t* user,
                                  const int* bucket_code, const int* object_code)
{
    return check_authority(bucket, peer, user, bucket_code, object_code);
}

int orbs3_access_check_chain(const orbs3_vhost_t* vh, const orbs3_user_t* user, const orbs3_bucket_t* bucket,
                             const orbs3_peer_t* peer, const int* bucket_code, const int* object_code,
                             orbs3_access_chain_t chain)
{
    if (vh == nullptr)
        return 1;
    if (orbmux_check_admin(&vh->admin, user) == 0)
        return 0;
    if (chain != orbs3_access_chain_t::no_bucket && orbmux_check_bucket_blacklist(bucket, peer) != 0) {
        ipd_debug("access: bucket address lists refuse the peer");
        return 1;
    }
    if (chain == orbs3_access_chain_t::blacklist_only)
        return 0;
    if (orbmux_check_service_authority(vh->service_rec, peer, user, bucket_code, object_code) != 0) {
        ipd_debug("access: service authority refuses the requester");
        return 1;
    }
    if (chain == orbs3_access_chain_t::no_bucket)
        return 0;
    if (orbmux_check_bucket_authority(bucket, peer, user, bucket_code, object_code) != 0) {
        ipd_debug("access: bucket authority refuses the requester");
        return 1;
    }
    return 0;
}

int is_contain_netsegment(const orbs3_peer_t* a, const orbs3_peer_t* b)
{
    if (a == nullptr || b == nullptr || a->family != AF_INET || b->family != AF_INET)
        return -1;
    return std::memcmp(a->addr, b->addr, 4) == 0 ? 0 : -1;
}

uint32_t orbs3_access_prefix_mask(uint32_t length)
{
    // Past 32 steps the mask is all ones and stays so.
    uint32_t mask = 0;
    for (uint32_t i = 0; i < length && i < 32; i++)
        mask = (mask >> 1) | 0x80000000u;
    return mask;
}

int orbs3_access_service_blacklist(const orbs3_vhost_t* vhost, const orbs3_peer_t* peer)
{
    if (vhost == nullptr || peer == nullptr)
        return 1;
    // A tenant whose record is not loaded has no list in force.
    if (vhost->service_rec == nullptr)
        return 0;
    return orbmux_check_service_rec_blacklist(vhost->service_rec, peer);
}

void orbs3_access_install_hooks()
{
    orbmux_check_service_blacklist = orbs3_access_service_blacklist;
}
