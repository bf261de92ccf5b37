#include "s3/orbs3_s3_acl.h"

#include <strings.h>

namespace {

struct canned_row {
    std::string_view name;
    uint32_t acl;
};
// The bucket-owner ACLs grant the bucket's owner, who is the owner of every object in a tenant's bucket.
constexpr canned_row canned_rows[] = {
    {"private", ORBS3_ACL_FULL_CONTROL},
    {"public-read", ORBS3_ACL_FULL_CONTROL | ORBS3_ACL_ALL_USERS_READ},
    {"public-read-write", ORBS3_ACL_FULL_CONTROL | ORBS3_ACL_ALL_USERS_READ | ORBS3_ACL_ALL_USERS_WRITE},
    {"authenticated-read", ORBS3_ACL_FULL_CONTROL | ORBS3_ACL_AUTH_USERS_READ},
    {"bucket-owner-read", ORBS3_ACL_FULL_CONTROL},
    {"bucket-owner-full-control", ORBS3_ACL_FULL_CONTROL},
};

bool blank(char c)
{
    return c == ' ' || c == '\t';
}

std::string_view trim(std::string_view s)
{
    while (!s.empty() && blank(s.front()))
        s.remove_prefix(1);
    while (!s.empty() && blank(s.back()))
        s.remove_suffix(1);
    return s;
}

bool iequals(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// One grant header's grantees (`type="value", ...`) into *user (a user is named) and *groups (the group
// bits the permission gives each named group: `all` for AllUsers, `auth` for AuthenticatedUsers). False
// when the list does not parse or names an unknown group.
bool grantees(std::string_view list, uint32_t all, uint32_t auth, bool* user, uint32_t* groups)
{
    while (!list.empty()) {
        // Values are quoted and may not hold a comma unquoted; split at the first comma outside quotes.
        std::size_t end = 0;
        bool quoted = false;
        for (; end < list.size() && (quoted || list[end] != ','); end++) {
            if (list[end] == '"')
                quoted = !quoted;
        }
        if (quoted)
            return false;
        std::string_view one = trim(list.substr(0, end));
        list = end < list.size() ? list.substr(end + 1) : std::string_view{};
        const std::size_t eq = one.find('=');
        if (eq == std::string_view::npos)
            return false;
        std::string_view type = trim(one.substr(0, eq));
        std::string_view value = trim(one.substr(eq + 1));
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
            value = value.substr(1, value.size() - 2);
        if (value.empty())
            return false;
        if (iequals(type, "id") || iequals(type, "emailAddress")) {
            *user = true;
        } else if (iequals(type, "uri")) {
            if (value == ORBS3_ACL_ALL_USERS_URI)
                *groups |= all;
            else if (value == ORBS3_ACL_AUTH_USERS_URI)
                *groups |= auth;
            else
                return false;
        } else {
            return false;
        }
    }
    return true;
}

}  // namespace

int orbs3_acl_from_headers(const orbs3_acl_headers_t& h, uint32_t* acl)
{
    struct grant_row {
        std::string_view value;
        uint32_t perm, all, auth;
    };
    // What each permission gives a group: only reading and writing are kept for groups.
    const grant_row rows[] = {
        {h.read, ORBS3_ACL_READ, ORBS3_ACL_ALL_USERS_READ, ORBS3_ACL_AUTH_USERS_READ},
        {h.write, ORBS3_ACL_WRITE, ORBS3_ACL_ALL_USERS_WRITE, 0},
        {h.read_acp, ORBS3_ACL_READ_ACP, 0, 0},
        {h.write_acp, ORBS3_ACL_WRITE_ACP, 0, 0},
        {h.full_control, ORBS3_ACL_FULL_CONTROL, ORBS3_ACL_ALL_USERS_READ | ORBS3_ACL_ALL_USERS_WRITE,
         ORBS3_ACL_AUTH_USERS_READ},
    };
    bool granted = false;
    for (const grant_row& g : rows)
        granted = granted || !g.value.empty();
    if (!h.canned.empty()) {
        if (granted)
            return -2;
        for (const canned_row& c : canned_rows) {
            if (c.name == h.canned) {
                *acl = c.acl;
                return 1;
            }
        }
        return -1;
    }
    if (!granted)
        return 0;
    uint32_t perms = 0, groups = 0;
    for (const grant_row& g : rows) {
        bool user = false;
        if (!g.value.empty() && !grantees(g.value, g.all, g.auth, &user, &groups))
            return -1;
        if (user)
            perms |= g.perm;
    }
    *acl = (perms != 0 ? perms : ORBS3_ACL_FULL_CONTROL) | groups;
    return 1;
}
