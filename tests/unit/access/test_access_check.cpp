#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "access/orbs3_access_check.h"
#include "control/orbs3_service.h"
#include "storage/orbs3_bucket_store.h"
#include "s3/orbs3_s3_dispatch.h"

namespace {

// Rules built in test-owned storage; deques keep every address stable while lists point into them.
struct RuleSet {
    std::deque<orbs3_bucket_rule_t> rules;
    std::deque<orbs3_list_node_t> nodes;
    std::deque<orbs3_rule_addr_t> addrs;
    std::deque<orbs3_rule_user_t> users;
    std::deque<std::string> texts;

    orbs3_str_t str(const char* text)
    {
        std::string& s = texts.emplace_back(text);
        return orbs3_str_t{s.size(), s.data()};
    }
    void link(neo_list_head_t* list, void* data)
    {
        orbs3_list_node_t& n = nodes.emplace_back();
        n.data = data;
        list_add_tail(&n.list, list);
    }
    orbs3_bucket_rule_t* rule(neo_list_head_t* list)
    {
        orbs3_bucket_rule_t& r = rules.emplace_back();
        std::memset(&r, 0, sizeof r);
        r.status = 1;
        INIT_LIST_HEAD(&r.addrs);
        INIT_LIST_HEAD(&r.users);
        link(list, &r);
        return &r;
    }
    void addr(orbs3_bucket_rule_t* r, const char* text, uint32_t mask)
    {
        orbs3_rule_addr_t& a = addrs.emplace_back();
        a.addr = str(text);
        a.mask = mask;
        link(&r->addrs, &a);
    }
    void user(orbs3_bucket_rule_t* r, const char* id, const char* name)
    {
        orbs3_rule_user_t& u = users.emplace_back();
        u.userid = str(id);
        u.name = str(name);
        link(&r->users, &u);
    }
};

template <typename Rec>
void init_lists(Rec* rec)
{
    std::memset(rec, 0, sizeof *rec);
    INIT_LIST_HEAD(&rec->blacklist);
    INIT_LIST_HEAD(&rec->whitelist);
    INIT_LIST_HEAD(&rec->authak_list);
    INIT_LIST_HEAD(&rec->authaddr_list);
}

orbs3_peer_t peer4(const char* text)
{
    orbs3_peer_t p{};
    p.family = AF_INET;
    EXPECT_EQ(inet_pton(AF_INET, text, p.addr), 1) << text;
    return p;
}

orbs3_peer_t peer6(const char* text)
{
    orbs3_peer_t p{};
    p.family = AF_INET6;
    EXPECT_EQ(inet_pton(AF_INET6, text, p.addr), 1) << text;
    return p;
}

orbs3_user_t make_user(RuleSet& rs, const char* id, const char* key)
{
    orbs3_user_t u{};
    u.UserId = rs.str(id);
    u.accesskeyid = rs.str(key);
    INIT_LIST_HEAD(&u.keys);
    return u;
}

void set_all(orbs3_rule_perm_t* p)
{
    for (uint32_t& f : p->flag)
        f = 1;
}

// A rule for the host `addr` on the address list of a bucket or service record, which is put in force.
template <typename Rec>
orbs3_bucket_rule_t* addr_rule(RuleSet& rs, Rec* b, const char* addr, uint32_t mask = 32)
{
    b->authaddr_status = 1;
    orbs3_bucket_rule_t* r = rs.rule(&b->authaddr_list);
    rs.addr(r, addr, mask);
    return r;
}

// A rule for the user `id` (named `name`) on the user list of a bucket or service record, put in force.
template <typename Rec>
orbs3_bucket_rule_t* user_rule(RuleSet& rs, Rec* b, const char* id, const char* name = "alice")
{
    b->authak_status = 1;
    orbs3_bucket_rule_t* r = rs.rule(&b->authak_list);
    rs.user(r, id, name);
    return r;
}

// Moves a list head with its entries to `to`.
void move_list(neo_list_head_t* from, neo_list_head_t* to)
{
    if (list_empty(from))
        return;
    *to = *from;
    to->next->prev = to;
    to->prev->next = to;
}

}  // namespace

TEST(AccessCheck, AdminMatchesOnlyTheAdministratorsKey)
{
    RuleSet rs;
    struct Case {
        const char* admin_key;
        const char* user_key;
        int want;
    } cases[] = {
        {"AKADMIN", "AKADMIN", 0},
        {"AKADMIN", "", -1},          // an ordinary user's record has no key id
        {"AKADMIN", "AKADMI", -1},    // a prefix is not the key
        {"AKADMIN", "AKADMINX", -1},
        {"AKADMIN", "akadmin", -1},
        {"", "", -1},                 // an administrator without a key never matches
    };
    for (const Case& c : cases) {
        orbs3_user_t admin = make_user(rs, "admin", c.admin_key);
        orbs3_user_t user = make_user(rs, "u1", c.user_key);
        EXPECT_EQ(orbmux_check_admin(&admin, &user), c.want) << c.admin_key << " / " << c.user_key;
    }
    orbs3_user_t admin = make_user(rs, "admin", "AKADMIN");
    EXPECT_EQ(orbmux_check_admin(nullptr, &admin), -1);
    EXPECT_EQ(orbmux_check_admin(&admin, nullptr), -1);
}

TEST(AccessCheck, PrefixMaskIsBuiltFromTheTopBit)
{
    EXPECT_EQ(orbs3_access_prefix_mask(0), 0u);
    EXPECT_EQ(orbs3_access_prefix_mask(1), 0x80000000u);
    EXPECT_EQ(orbs3_access_prefix_mask(24), 0xFFFFFF00u);
    EXPECT_EQ(orbs3_access_prefix_mask(31), 0xFFFFFFFEu);
    EXPECT_EQ(orbs3_access_prefix_mask(32), 0xFFFFFFFFu);
    EXPECT_EQ(orbs3_access_prefix_mask(40), 0xFFFFFFFFu);
    EXPECT_EQ(get_ipv4_net_id(0x0A000105u, 0xFFFFFF00u), 0x0A000100u);

    orbs3_peer_t a = peer4("10.0.0.1");
    orbs3_peer_t b = peer4("10.0.0.1");
    orbs3_peer_t c = peer4("10.0.0.2");
    orbs3_peer_t d = peer6("::1");
    EXPECT_EQ(is_contain_netsegment(&a, &b), 0);
    EXPECT_EQ(is_contain_netsegment(&a, &c), -1);
    EXPECT_EQ(is_contain_netsegment(&a, &d), -1);
}

namespace {

struct AddrEntry {
    const char* addr;
    uint32_t mask;
};

struct ListCase {
    const char* what;
    uint32_t white_status;
    std::vector<AddrEntry> white;
    uint32_t black_status;
    std::vector<AddrEntry> black;
    orbs3_peer_t peer;
    int want;
};

template <typename Rec>
void fill_address_lists(RuleSet& rs, Rec* rec, const ListCase& c)
{
    init_lists(rec);
    rec->whitelist_status = c.white_status;
    rec->blacklist_status = c.black_status;
    if (!c.white.empty()) {
        orbs3_bucket_rule_t* r = rs.rule(&rec->whitelist);
        for (const AddrEntry& a : c.white)
            rs.addr(r, a.addr, a.mask);
    }
    // One rule per address, the first one switched off on its own: only the list status counts.
    bool first = true;
    for (const AddrEntry& a : c.black) {
        orbs3_bucket_rule_t* r = rs.rule(&rec->blacklist);
        if (first)
            r->status = 0;
        first = false;
        rs.addr(r, a.addr, a.mask);
    }
}

}  // namespace

TEST(AccessCheck, AddressListsFollowStatusMaskAndWhitelistPrecedence)
{
    const ListCase cases[] = {
        {"no list in force", 0, {{"10.0.0.5", 32}}, 0, {{"10.0.0.5", 32}}, peer4("10.0.0.5"), 0},
        {"blacklist /24 low edge", 0, {}, 1, {{"10.0.1.77", 24}}, peer4("10.0.1.0"), 1},
        {"blacklist /24 high edge", 0, {}, 1, {{"10.0.1.77", 24}}, peer4("10.0.1.255"), 1},
        {"blacklist /24 just outside", 0, {}, 1, {{"10.0.1.77", 24}}, peer4("10.0.2.0"), 0},
        {"blacklist /24 just below", 0, {}, 1, {{"10.0.1.77", 24}}, peer4("10.0.0.255"), 0},
        {"blacklist /32 the host", 0, {}, 1, {{"192.168.3.4", 32}}, peer4("192.168.3.4"), 1},
        {"blacklist /32 its neighbour", 0, {}, 1, {{"192.168.3.4", 32}}, peer4("192.168.3.5"), 0},
        {"blacklist /0 every host", 0, {}, 1, {{"1.2.3.4", 0}}, peer4("200.100.50.25"), 1},
        {"blacklist second rule", 0, {}, 1, {{"1.1.1.1", 32}, {"10.9.0.0", 16}}, peer4("10.9.200.1"), 1},
        {"blacklist with rule status 0 still refuses", 0, {}, 1, {{"10.0.0.5", 32}}, peer4("10.0.0.5"), 1},
        {"blacklist out of force", 0, {}, 0, {{"1.2.3.4", 0}}, peer4("10.0.0.5"), 0},
        {"unreadable address is 0.0.0.0", 0, {}, 1, {{"not-an-ip", 32}}, peer4("0.0.0.0"), 1},
        {"unreadable address spares others", 0, {}, 1, {{"not-an-ip", 32}}, peer4("10.0.0.5"), 0},
        {"whitelist exact host", 1, {{"10.0.0.5", 24}}, 0, {}, peer4("10.0.0.5"), 0},
        {"whitelist ignores its mask", 1, {{"10.0.0.5", 24}}, 0, {}, peer4("10.0.0.6"), 1},
        {"whitelist second address", 1, {{"10.0.0.5", 32}, {"10.0.0.9", 32}}, 0, {}, peer4("10.0.0.9"), 0},
        {"whitelist empty refuses", 1, {}, 0, {}, peer4("10.0.0.5"), 1},
        {"whitelist beats blacklist", 1, {{"10.0.0.5", 32}}, 1, {{"10.0.0.5", 32}}, peer4("10.0.0.5"), 0},
        {"whitelist hides blacklist", 1, {{"10.0.0.5", 32}}, 1, {}, peer4("10.0.0.7"), 1},
        {"whitelist out of force", 0, {{"10.0.0.5", 32}}, 0, {}, peer4("10.0.0.7"), 0},
        {"mapped IPv6 peer blacklisted", 0, {}, 1, {{"10.0.1.0", 24}}, peer6("::ffff:10.0.1.9"), 1},
        {"mapped IPv6 peer whitelisted", 1, {{"10.0.1.9", 32}}, 0, {}, peer6("::ffff:10.0.1.9"), 0},
        {"IPv6 peer not in a whitelist", 1, {{"0.0.0.0", 32}}, 0, {}, peer6("2001:db8::1"), 1},
        {"IPv6 peer not in a blacklist", 0, {}, 1, {{"0.0.0.0", 0}}, peer6("2001:db8::1"), 0},
    };
    for (const ListCase& c : cases) {
        RuleSet rs;
        orbs3_service_rec_t rec;
        fill_address_lists(rs, &rec, c);
        EXPECT_EQ(orbmux_check_service_rec_blacklist(&rec, &c.peer), c.want) << "service: " << c.what;
        orbs3_bucket_t bucket;
        fill_address_lists(rs, &bucket, c);
        EXPECT_EQ(orbmux_check_bucket_blacklist(&bucket, &c.peer), c.want) << "bucket: " << c.what;
    }
    orbs3_service_rec_t rec;
    init_lists(&rec);
    orbs3_peer_t p = peer4("10.0.0.1");
    EXPECT_EQ(orbmux_check_service_rec_blacklist(nullptr, &p), 1);
    EXPECT_EQ(orbmux_check_service_rec_blacklist(&rec, nullptr), 1);
    EXPECT_EQ(orbmux_check_bucket_blacklist(nullptr, &p), 1);
}

TEST(AccessCheck, EachPermissionCodeReadsItsOwnFlag)
{
    // Codes each group knows; any other grants nothing even with every flag set.
    const std::vector<int> bucket_known = {1, 2, 4, 5, 6, 8, 9, 10, 11, 12, 13};
    const std::vector<int> object_known = {2, 3, 4, 5, 8};
    auto known = [](const std::vector<int>& v, int code) {
        for (int k : v)
            if (k == code)
                return true;
        return false;
    };
    orbs3_bucket_rule_t all{};
    set_all(&all.bucket);
    set_all(&all.object);
    for (int code = -1; code <= 15; code++) {
        EXPECT_EQ(orbs3_access_bucket_code_granted(&all, code), known(bucket_known, code)) << "bucket " << code;
        EXPECT_EQ(orbs3_access_object_code_granted(&all, code), known(object_known, code)) << "object " << code;
    }
    // A single flag grants exactly the code whose index it stands at, through the authority check.
    for (int code = 1; code <= 13; code++) {
        for (int group = 0; group < 2; group++) {
            RuleSet rs;
            orbs3_service_rec_t rec;
            init_lists(&rec);
            orbs3_bucket_rule_t* r = user_rule(rs, &rec, "u1");
            (group == 0 ? r->bucket : r->object).flag[code - 1] = 1;
            orbs3_user_t user = make_user(rs, "u1", "");
            for (int asked = 1; asked <= 13; asked++) {
                const bool known_code = known(group == 0 ? bucket_known : object_known, asked);
                const int want = (asked == code && known_code) ? 0 : 1;
                const int* bc = group == 0 ? &asked : nullptr;
                const int* oc = group == 1 ? &asked : nullptr;
                EXPECT_EQ(orbmux_check_service_authority(&rec, nullptr, &user, bc, oc), want)
                    << "group " << group << " flag of code " << code << " asked " << asked;
            }
        }
    }
    // Code 7 has no flag: even the flag at its index does not grant it.
    orbs3_bucket_rule_t seven{};
    seven.bucket.flag[6] = 1;
    seven.object.flag[6] = 1;
    EXPECT_FALSE(orbs3_access_bucket_code_granted(&seven, ORBS3_ACCESS_NONE));
    EXPECT_FALSE(orbs3_access_object_code_granted(&seven, ORBS3_ACCESS_NONE));
}

TEST(AccessCheck, AuthorityListsGrantOnlyThroughTheFirstMatchingRule)
{
    const int list = ORBS3_ACCESS_LIST;
    const int write = ORBS3_ACCESS_WRITE;
    const orbs3_peer_t peer = peer4("10.0.0.5");
    using RS = RuleSet;
    using B = orbs3_bucket_t;

    struct Case {
        const char* what;
        void (*build)(RuleSet&, orbs3_bucket_t*);
        bool with_peer;
        bool with_user;
        const int* bucket_code;
        const int* object_code;
        int want;
    };
    const Case cases[] = {
        {"nothing in force", [](RS&, B*) {}, false, false, &list, nullptr, 0},
        {"address rule with the flag",
         [](RS& rs, B* b) { addr_rule(rs, b, "10.0.0.5")->bucket.flag[ORBS3_PERM_LIST] = 1; }, true, true, &list,
         nullptr, 0},
        {"first address rule lacks the flag, a later one has it",
         [](RS& rs, B* b) {
             addr_rule(rs, b, "10.0.0.5")->object.flag[ORBS3_PERM_LIST] = 1;
             set_all(&addr_rule(rs, b, "10.0.0.5")->bucket);
         },
         true, true, &list, nullptr, 1},
        {"address rule compares whole hosts, not networks",
         [](RS& rs, B* b) { set_all(&addr_rule(rs, b, "10.0.0.0", 24)->bucket); }, true, true, &list, nullptr, 1},
        {"address list in force without a peer", [](RS& rs, B* b) { set_all(&addr_rule(rs, b, "10.0.0.5")->bucket); },
         false, true, &list, nullptr, 1},
        {"user rule by id with the object flag",
         [](RS& rs, B* b) {
             auto* r = user_rule(rs, b, "other", "bob");
             rs.user(r, "u1", "alice");
             r->object.flag[ORBS3_PERM_WRITE] = 1;
         },
         true, true, nullptr, &write, 0},
        {"user rule naming the requester's id only as a name",
         [](RS& rs, B* b) { set_all(&user_rule(rs, b, "someone", "u1")->object); }, true, true, nullptr, &write, 1},
        {"user rule id that is a prefix of the requester's",
         [](RS& rs, B* b) { set_all(&user_rule(rs, b, "u")->object); }, true, true, nullptr, &write, 1},
        {"empty user list in force", [](RS&, B* b) { b->authak_status = 1; }, true, true, &list, nullptr, 1},
        {"user list in force without a requester", [](RS& rs, B* b) { set_all(&user_rule(rs, b, "u1")->bucket); },
         true, false, &list, nullptr, 1},
        {"both in force, address grants, user does not",
         [](RS& rs, B* b) {
             set_all(&addr_rule(rs, b, "10.0.0.5")->bucket);
             user_rule(rs, b, "u1");
         },
         true, true, &list, nullptr, 1},
        {"both in force, both grant",
         [](RS& rs, B* b) {
             addr_rule(rs, b, "10.0.0.5")->bucket.flag[ORBS3_PERM_LIST] = 1;
             user_rule(rs, b, "u1")->bucket.flag[ORBS3_PERM_LIST] = 1;
         },
         true, true, &list, nullptr, 0},
        {"both in force, user grants, address does not",
         [](RS& rs, B* b) {
             set_all(&addr_rule(rs, b, "10.0.0.6")->bucket);
             set_all(&user_rule(rs, b, "u1")->bucket);
         },
         true, true, &list, nullptr, 1},
        {"rule with status 0 still grants",
         [](RS& rs, B* b) {
             auto* r = user_rule(rs, b, "u1");
             r->status = 0;
             r->bucket.flag[ORBS3_PERM_LIST] = 1;
         },
         true, true, &list, nullptr, 0},
        {"no code asked grants nothing",
         [](RS& rs, B* b) {
             auto* r = user_rule(rs, b, "u1");
             set_all(&r->bucket);
             set_all(&r->object);
         },
         true, true, nullptr, nullptr, 1},
    };
    for (const Case& c : cases) {
        RuleSet rs;
        orbs3_bucket_t bucket;
        init_lists(&bucket);
        c.build(rs, &bucket);
        orbs3_user_t user = make_user(rs, "u1", "");
        const orbs3_peer_t* p = c.with_peer ? &peer : nullptr;
        const orbs3_user_t* u = c.with_user ? &user : nullptr;
        EXPECT_EQ(orbmux_check_bucket_authority(&bucket, p, u, c.bucket_code, c.object_code), c.want) << c.what;
        // The service record's lists behave alike.
        orbs3_service_rec_t rec;
        init_lists(&rec);
        rec.authaddr_status = bucket.authaddr_status;
        rec.authak_status = bucket.authak_status;
        move_list(&bucket.authaddr_list, &rec.authaddr_list);
        move_list(&bucket.authak_list, &rec.authak_list);
        EXPECT_EQ(orbmux_check_service_authority(&rec, p, u, c.bucket_code, c.object_code), c.want)
            << "service: " << c.what;
    }
    EXPECT_EQ(orbmux_check_bucket_authority(nullptr, &peer, nullptr, &list, nullptr), 1);
    EXPECT_EQ(orbmux_check_service_authority(nullptr, &peer, nullptr, &list, nullptr), 1);
}

namespace {

// A vhost whose service record and bucket refuse everyone but the administrator in every way they can.
struct Tenant {
    RuleSet rs;
    orbs3_vhost_t* vh = orbs3_vhost_new();
    orbs3_service_rec_t rec;
    orbs3_bucket_t bucket;

    Tenant()
    {
        init_lists(&rec);
        init_lists(&bucket);
        vh->service_rec = &rec;
        vh->admin.accesskeyid = rs.str("AKADMIN");
    }
    ~Tenant()
    {
        vh->service_rec = nullptr;  // test-owned
        vh->admin.accesskeyid = orbs3_str_t{};
        orbs3_free_vhost_data(vh);
    }
};

}  // namespace

TEST(AccessCheck, ChainStepsDependOnTheAction)
{
    const int quota = ORBS3_ACCESS_QUOTA;
    const int create = ORBS3_ACCESS_CREATE;
    const orbs3_peer_t peer = peer4("10.0.0.5");
    using chain_t = orbs3_access_chain_t;
    // 0 when the chain lets `user` do `code` on `bucket` (null: an action without bucket).
    auto check = [&](Tenant& t, const orbs3_user_t& user, orbs3_bucket_t* bucket, const int& code, chain_t kind) {
        return orbs3_access_check_chain(t.vh, &user, bucket, &peer, &code, nullptr, kind);
    };
    {
        // The administrator passes every chain while every list refuses the peer.
        Tenant t;
        ASSERT_NE(t.vh, nullptr);
        t.rec.blacklist_status = t.bucket.blacklist_status = 1;
        t.rs.addr(t.rs.rule(&t.bucket.blacklist), "0.0.0.0", 0);
        t.rec.authak_status = t.bucket.authak_status = 1;
        t.rec.authaddr_status = t.bucket.authaddr_status = 1;
        orbs3_user_t admin = make_user(t.rs, "adminid", "AKADMIN");
        orbs3_user_t user = make_user(t.rs, "u1", "");
        for (auto kind : {chain_t::full, chain_t::no_bucket, chain_t::blacklist_only}) {
            EXPECT_EQ(check(t, admin, &t.bucket, quota, kind), 0);
            EXPECT_NE(check(t, user, &t.bucket, quota, kind), 0);
        }
        EXPECT_EQ(orbs3_access_check_chain(t.vh, &admin, nullptr, nullptr, nullptr, nullptr, chain_t::full), 0);
    }
    {
        // Authority refusing, address lists silent: only the chains that ask authority refuse.
        Tenant t;
        t.bucket.authak_status = 1;
        orbs3_user_t user = make_user(t.rs, "u1", "");
        EXPECT_EQ(check(t, user, &t.bucket, quota, chain_t::blacklist_only), 0);
        EXPECT_NE(check(t, user, &t.bucket, quota, chain_t::full), 0);
        // PutBucket has no bucket: the service's authority alone decides.
        EXPECT_EQ(check(t, user, nullptr, create, chain_t::no_bucket), 0);
        auto* r = user_rule(t.rs, &t.rec, "u1");
        EXPECT_NE(check(t, user, nullptr, create, chain_t::no_bucket), 0);
        r->bucket.flag[ORBS3_PERM_CREATE] = 1;
        EXPECT_EQ(check(t, user, nullptr, create, chain_t::no_bucket), 0);
    }
    {
        // The bucket narrows what the service grants, never widens it.
        Tenant t;
        orbs3_user_t user = make_user(t.rs, "u1", "");
        auto* rs = user_rule(t.rs, &t.rec, "u1");
        rs->bucket.flag[ORBS3_PERM_QUOTA] = 1;
        auto* rb = user_rule(t.rs, &t.bucket, "u1");
        EXPECT_NE(check(t, user, &t.bucket, quota, chain_t::full), 0);
        rb->bucket.flag[ORBS3_PERM_QUOTA] = 1;
        EXPECT_EQ(check(t, user, &t.bucket, quota, chain_t::full), 0);
        rs->bucket.flag[ORBS3_PERM_QUOTA] = 0;
        EXPECT_NE(check(t, user, &t.bucket, quota, chain_t::full), 0);
    }
}

TEST(AccessCheck, GateHookChecksTheServiceBlacklistOfItsVhost)
{
    orbs3_s3_blacklist_pt saved = orbmux_check_service_blacklist;
    orbs3_access_install_hooks();
    EXPECT_EQ(orbmux_check_service_blacklist, &orbs3_access_service_blacklist);
    orbmux_check_service_blacklist = saved;

    // Each tenant's own record decides, whichever service carries it.
    Tenant a;
    Tenant b;
    a.rec.blacklist_status = 1;
    a.rs.addr(a.rs.rule(&a.rec.blacklist), "10.0.0.0", 8);
    const orbs3_peer_t in = peer4("10.1.2.3");
    const orbs3_peer_t out = peer4("11.1.2.3");
    EXPECT_EQ(orbs3_access_service_blacklist(a.vh, &in), 1);
    EXPECT_EQ(orbs3_access_service_blacklist(a.vh, &out), 0);
    EXPECT_EQ(orbs3_access_service_blacklist(a.vh, nullptr), 1);
    EXPECT_EQ(orbs3_access_service_blacklist(b.vh, &in), 0) << "another tenant's list does not apply";
    b.vh->service_rec = nullptr;
    EXPECT_EQ(orbs3_access_service_blacklist(b.vh, &in), 0) << "no record loaded: no list in force";
}
