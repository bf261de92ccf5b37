#include "control/orbs3_ctrl_req.h"

#include <arpa/inet.h>
#include <json-c/json.h>
#include <strings.h>
#include <sys/random.h>

#include <memory>
#include <span>
#include <string_view>

#include "control/orbs3_msg.h"
#include "core/orbs3_json.h"
#include "core/orbs3_xml.h"

namespace {

enum class value_kind {
    file_name,           // names a file or directory by itself
    file_name_or_empty,  // the same, or empty (a tier alias)
    text,                // any one-line text (a domain)
    rel_path,            // a tenant's directory below its cluster path
    abs_path_or_empty,   // a certificate file
    key_text,            // an access key id or secret: printable ASCII without blanks
    ipv4,
    port,
    bool_word,  // "true" or "false", the words of the tenant files
    json_bool,
};

struct key_rule {
    orbs3_req_key key;
    const char* json;
    std::string orbs3_vhost_req_t::*field;  // null for port and secrets
    std::size_t cap;
    value_kind kind;
    bool required;
};

using K = orbs3_req_key;
using V = value_kind;
using R = orbs3_vhost_req_t;

constexpr key_rule kId{K::id, "id", &R::id, 256, V::file_name, true};
constexpr key_rule kSecrets{K::secrets, "secrets", nullptr, 0, V::json_bool, false};

constexpr key_rule kListRules[] = {kSecrets};
constexpr key_rule kGetRules[] = {kId, kSecrets};
constexpr key_rule kIdRules[] = {kId};

constexpr key_rule kAddRules[] = {
    kId,
    {K::name, "name", &R::name, 256, V::file_name, true},
    {K::group, "group", &R::group, 256, V::file_name, false},
    {K::ip, "ip", &R::ip, 48, V::ipv4, true},
    {K::port, "port", nullptr, 0, V::port, true},
    {K::domain, "domain", &R::domain, 256, V::text, false},
    {K::cluster, "cluster", &R::cluster, 1024, V::file_name, true},
    {K::tiered, "tiered", &R::tiered, 1024, V::file_name_or_empty, true},
    {K::path, "path", &R::path, 1024, V::rel_path, true},
    {K::ssl, "ssl", &R::ssl, 128, V::bool_word, false},
    {K::ca, "ca", &R::ca, 1024, V::abs_path_or_empty, false},
    {K::cert, "cert", &R::cert, 1024, V::abs_path_or_empty, false},
    {K::key, "key", &R::key, 1024, V::abs_path_or_empty, false},
    {K::key_pwd, "key_pwd", &R::key_pwd, 128, V::text, false},
    {K::accesskeyid, "accesskeyid", &R::accesskeyid, 64, V::key_text, false},
    {K::accesskeysecret, "accesskeysecret", &R::accesskeysecret, 64, V::key_text, false},
    {K::displayname, "displayname", &R::displayname, 256, V::file_name, false},
    {K::userid, "userid", &R::userid, 256, V::file_name, false},
};

constexpr key_rule kEditRules[] = {
    kId,
    {K::name, "name", &R::name, 256, V::file_name, true},
    {K::group, "group", &R::group, 256, V::file_name, false},
    {K::domain, "domain", &R::domain, 256, V::text, false},
    {K::ssl, "ssl", &R::ssl, 128, V::bool_word, false},
    {K::ca, "ca", &R::ca, 1024, V::abs_path_or_empty, false},
    {K::cert, "cert", &R::cert, 1024, V::abs_path_or_empty, false},
    {K::key, "key", &R::key, 1024, V::abs_path_or_empty, false},
    {K::key_pwd, "key_pwd", &R::key_pwd, 128, V::text, false},
};

// The tenant is named by `id` or, as the cluster controller names it, by `vhost` (its name); the
// handler asks for one of them. A user without a display name could own no bucket directory.
constexpr key_rule kAddUserRules[] = {
    {K::id, "id", &R::id, 256, V::file_name, false},
    {K::vhost, "vhost", &R::vhost, 256, V::file_name, false},
    {K::accesskeyid, "accesskeyid", &R::accesskeyid, 64, V::key_text, false},
    {K::accesskeysecret, "accesskeysecret", &R::accesskeysecret, 64, V::key_text, false},
    {K::displayname, "displayname", &R::displayname, 256, V::file_name, true},
    {K::userid, "userid", &R::userid, 256, V::file_name, false},
};

std::span<const key_rule> rules_of(uint32_t type)
{
    switch (type) {
    case ORBS3_MSG_LIST_VHOST:
        return kListRules;
    case ORBS3_MSG_GET_VHOST:
        return kGetRules;
    case ORBS3_MSG_ADD_VHOST:
        return kAddRules;
    case ORBS3_MSG_EDIT_VHOST:
        return kEditRules;
    case ORBS3_MSG_DELETE_VHOST:
    case ORBS3_MSG_START_VHOST:
    case ORBS3_MSG_STOP_VHOST:
        return kIdRules;
    case ORBS3_MSG_ADD_USER:
        return kAddUserRules;
    default:
        return {};
    }
}

// One line of text that the tenant files can hold: no tab or line break either.
bool one_line_ok(std::string_view s)
{
    return orbs3_xml_text_ok(s) && s.find_first_of("\t\r\n") == std::string_view::npos;
}

bool value_ok(value_kind kind, const std::string& s)
{
    switch (kind) {
    case V::file_name:
        return orbs3_ctrl_file_name_ok(s);
    case V::file_name_or_empty:
        return s.empty() || orbs3_ctrl_file_name_ok(s);
    case V::text:
        return one_line_ok(s);
    case V::rel_path:
        return orbs3_ctrl_rel_path_ok(s);
    case V::abs_path_or_empty:
        return s.empty() || (s.front() == '/' && one_line_ok(s));
    case V::key_text:
        for (char c : s)
            if (c <= 0x20 || c >= 0x7f)
                return false;
        return true;
    case V::ipv4: {
        struct in_addr a;
        return inet_pton(AF_INET, s.c_str(), &a) == 1;
    }
    case V::bool_word:
        return strcasecmp(s.c_str(), "true") == 0 || strcasecmp(s.c_str(), "false") == 0;
    default:
        return false;
    }
}

}  // namespace

bool orbs3_ctrl_file_name_ok(const std::string& s)
{
    return !s.empty() && s.front() != '.' && s.find('/') == std::string::npos && one_line_ok(s);
}

bool orbs3_ctrl_rel_path_ok(const std::string& s)
{
    if (s.empty() || s.front() == '/' || !one_line_ok(s))
        return false;
    std::string_view rest = s;
    while (!rest.empty()) {
        const std::size_t slash = rest.find('/');
        const std::string_view part = rest.substr(0, slash);
        if (part == "." || part == "..")
            return false;
        rest = slash == std::string_view::npos ? std::string_view{} : rest.substr(slash + 1);
    }
    return true;
}

int orbs3_parse_vhost_req(uint32_t type, const char* body, orbs3_vhost_req_t* req, std::string* why)
{
    *req = orbs3_vhost_req_t{};
    const std::span<const key_rule> rules = rules_of(type);
    auto refuse = [why](std::string text) {
        *why = std::move(text);
        return ORBS3_CTRL_BAD_REQUEST;
    };
    // A request that names nothing may come without a body.
    bool needs_body = false;
    for (const key_rule& r : rules)
        needs_body = needs_body || r.required;
    if ((body == nullptr || *body == '\0') && !needs_body)
        return 0;
    if (body == nullptr)
        return refuse("no body");
    orbs3_json_ptr doc(json_tokener_parse(body));
    if (!doc || !json_object_is_type(doc.get(), json_type_object))
        return refuse("body is not a JSON object");

    for (const key_rule& r : rules) {
        json_object* v = nullptr;
        if (!json_object_object_get_ex(doc.get(), r.json, &v) || v == nullptr) {
            if (r.required)
                return refuse(std::string("missing key ") + r.json);
            continue;
        }
        req->given |= 1u << static_cast<uint32_t>(r.key);
        if (r.kind == V::json_bool) {
            if (!json_object_is_type(v, json_type_boolean))
                return refuse(std::string(r.json) + " is not a boolean");
            req->secrets = json_object_get_boolean(v) != 0;
            continue;
        }
        if (r.kind == V::port) {
            if (!json_object_is_type(v, json_type_int))
                return refuse(std::string(r.json) + " is not an integer");
            const int64_t port = json_object_get_int64(v);
            if (port < 1 || port > 65535)
                return refuse(std::string(r.json) + " is outside 1..65535");
            req->port = static_cast<int>(port);
            continue;
        }
        if (!json_object_is_type(v, json_type_string))
            return refuse(std::string(r.json) + " is not a string");
        const std::string s(json_object_get_string(v), static_cast<std::size_t>(json_object_get_string_len(v)));
        // A longer value is refused, not cut: a cut id or path would name another tenant's files.
        if (s.size() > r.cap)
            return refuse(std::string(r.json) + " is longer than " + std::to_string(r.cap) + " bytes");
        if (s.find('\0') != std::string::npos || !value_ok(r.kind, s))
            return refuse(std::string(r.json) + " holds a value that is not allowed");
        req->*r.field = s;
    }
    return 0;
}

std::string orbs3_ctrl_random_text(std::size_t n, std::string_view alphabet)
{
    std::string out;
    unsigned char buf[64];
    while (out.size() < n) {
        if (getrandom(buf, sizeof buf, 0) != static_cast<ssize_t>(sizeof buf))
            continue;
        // Bytes past the last whole multiple of the alphabet are dropped, so every character is as likely.
        for (unsigned char b : buf)
            if (b < 256 - 256 % alphabet.size() && out.size() < n)
                out += alphabet[b % alphabet.size()];
    }
    return out;
}
