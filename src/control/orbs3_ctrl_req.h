// The bodies of the requests on the master's control socket, read into one record before any handler
// changes anything: every key checked for its JSON type, its cap and for what it may hold. Ids, names and
// groups name files on the cluster file system and user directories, so they never hold '/' or start
// with '.'; a tenant path is relative and has no ".." (that it stays below the cluster path is checked
// again against the real directories when the tenant is placed).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

enum class orbs3_req_key : uint32_t {
    id,
    name,
    group,
    ip,
    port,
    domain,
    cluster,
    tiered,
    path,
    ssl,
    ca,
    cert,
    key,
    key_pwd,
    accesskeyid,
    accesskeysecret,
    displayname,
    userid,
    vhost,
    secrets,
};

struct orbs3_vhost_req_t {
    std::string id, name, group, ip, domain, cluster, tiered, path, ssl, ca, cert, key, key_pwd, accesskeyid,
        accesskeysecret, displayname, userid, vhost;
    int port = 0;
    bool secrets = false;  // list and get show secrets only when the request asks for them
    uint32_t given = 0;    // one bit per orbs3_req_key present in the body

    [[nodiscard]] bool has(orbs3_req_key k) const { return (given & (1u << static_cast<uint32_t>(k))) != 0; }
};

// The code of every refused body: not a JSON object, a required key missing, a key of the wrong type, a
// value above its cap or one that may not stand where it goes.
inline constexpr int ORBS3_CTRL_BAD_REQUEST = 1000;

// Reads the body of a request of `type` (null or empty for the types that take none). 0, or
// ORBS3_CTRL_BAD_REQUEST with *why naming the key and the fault. Unknown keys are ignored.
[[nodiscard]] int orbs3_parse_vhost_req(uint32_t type, const char* body, orbs3_vhost_req_t* req, std::string* why);

// Whether `s` can name a file or a directory by itself: not empty, no '/', no leading '.', no control
// byte, valid UTF-8.
[[nodiscard]] bool orbs3_ctrl_file_name_ok(const std::string& s);
// Whether `s` is a relative path of such names: no empty text, no leading '/', no "." or ".." part.
[[nodiscard]] bool orbs3_ctrl_rel_path_ok(const std::string& s);

// Fresh credentials: `n` characters drawn evenly from `alphabet` by the kernel's random source.
[[nodiscard]] std::string orbs3_ctrl_random_text(std::size_t n, std::string_view alphabet);
inline constexpr std::string_view ORBS3_KEY_ID_CHARS = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
inline constexpr std::string_view ORBS3_SECRET_CHARS =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
inline constexpr std::size_t ORBS3_KEY_ID_LEN = 20;
inline constexpr std::size_t ORBS3_SECRET_LEN = 40;
