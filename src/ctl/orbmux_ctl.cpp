// orbmux-ctl: the administrator's command for a running orbmux. It speaks to the master's control socket
// (/var/run/orbmux/orbmux.iface under $ORBMUX_PREFIX or --prefix) and needs root, as the socket does.
//
// Exit codes: 0 done, 1 refused by the daemon (its code and text are printed), 2 usage, 3 the daemon
// could not be reached or did not answer.

#include <json-c/json.h>
#include <uuid/uuid.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "control/orbs3_ctrl_req.h"
#include "control/orbs3_msg.h"
#include "core/orbs3_json.h"
#include "core/orbs3_prefix.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitRefused = 1;
constexpr int kExitUsage = 2;
constexpr int kExitUnreachable = 3;

constexpr const char* kUsage =
    "usage: orbmux-ctl [--prefix DIR] [--json] COMMAND [ARGS]\n"
    "  list [--secrets]                      the tenants of the node\n"
    "  get ID [--secrets]                    one tenant\n"
    "  add --name NAME --port PORT [--id ID] [--ip 127.0.0.1] [--domain D] [--group G]\n"
    "      [--cluster c1] [--tiered T] [--path tenants/G] [--ssl --cert F --key F [--ca F]\n"
    "      [--key-pwd P]] [--user NAME] [--inactive]\n"
    "                                        adds a tenant with fresh administrator keys (and a user\n"
    "                                        with keys of its own) and starts it unless --inactive\n"
    "  edit ID [--name N] [--domain D] [--cert F] [--key F] [--ca F] [--key-pwd P]\n"
    "  start ID | stop ID | delete ID\n"
    "  add-user ID --user NAME               prints the new user's key pair\n"
    "  status                                every tenant with its worker\n"
    "The socket is /var/run/orbmux/orbmux.iface under --prefix or $ORBMUX_PREFIX.\n"
    "Exit codes: 0 done, 1 refused by the daemon, 2 usage, 3 daemon unreachable.\n";

[[noreturn]] void usage_exit(const std::string& why)
{
    if (!why.empty())
        std::fprintf(stderr, "orbmux-ctl: %s\n", why.c_str());
    std::fputs(kUsage, stderr);
    std::exit(kExitUsage);
}

std::string str_of(json_object* o, const char* key)
{
    json_object* v = nullptr;
    if (o == nullptr || !json_object_object_get_ex(o, key, &v) || v == nullptr)
        return {};
    return json_object_get_string(v);
}

std::string new_uuid_hex()
{
    uuid_t u;
    uuid_generate(u);
    char text[37];
    uuid_unparse_lower(u, text);
    std::string hex;
    for (const char* p = text; *p != '\0'; ++p)
        if (*p != '-')
            hex += *p;
    return hex;
}

// Options after the command: --key value pairs and flags; positional words in order.
struct args_t {
    std::vector<std::string> words;
    std::map<std::string, std::string> opts;
    bool flag(const std::string& k) const { return opts.count(k) != 0; }
    std::string get(const std::string& k, const std::string& def = {}) const
    {
        auto it = opts.find(k);
        return it == opts.end() ? def : it->second;
    }
};

struct client_t {
    std::string socket;
    bool json = false;

    // One call. Exits 3 when the daemon can't be reached, 1 when it refuses (after printing why);
    // otherwise the reply document.
    orbs3_json_ptr call(uint32_t type, json_object* body) const
    {
        const char* text = body != nullptr ? json_object_to_json_string_ext(body, JSON_C_TO_STRING_PLAIN) : "";
        char* reply = nullptr;
        uint32_t status = 0;
        errno = 0;
        const int rc = orbs3_daemon_call(socket.c_str(), type, text, std::strlen(text), &reply, &status);
        if (rc == -1) {
            // A user other than root is refused by the socket's mode: EACCES says so.
            const int err = errno;
            std::fprintf(stderr, "orbmux-ctl: no answer from the daemon on %s%s%s\n", socket.c_str(),
                         err != 0 ? ": " : "", err != 0 ? std::strerror(err) : "");
            std::free(reply);
            std::exit(kExitUnreachable);
        }
        orbs3_json_ptr doc(reply != nullptr ? json_tokener_parse(reply) : json_object_new_object());
        std::free(reply);
        if (status != ORBS3_MSG_STATUS_OK) {
            if (json && doc)
                std::puts(json_object_to_json_string_ext(doc.get(), JSON_C_TO_STRING_PRETTY));
            const std::string code = status == ORBS3_MSG_STATUS_BAD_VERSION ? "version mismatch"
                                                                            : std::to_string(status);
            const std::string reason = str_of(doc.get(), "reason");
            std::fprintf(stderr, "orbmux-ctl: refused: %s %s%s%s\n", code.c_str(),
                         str_of(doc.get(), "errordesc").c_str(), reason.empty() ? "" : ": ", reason.c_str());
            std::exit(kExitRefused);
        }
        if (!doc) {
            std::fprintf(stderr, "orbmux-ctl: the daemon's reply is not JSON\n");
            std::exit(kExitUnreachable);
        }
        return doc;
    }
};

void print_json(json_object* o)
{
    std::puts(json_object_to_json_string_ext(o, JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE));
}

void print_table(const std::vector<std::vector<std::string>>& rows)
{
    std::vector<std::size_t> w(rows.front().size(), 0);
    for (const auto& r : rows)
        for (std::size_t i = 0; i < r.size(); ++i)
            w[i] = std::max(w[i], r[i].size());
    for (const auto& r : rows) {
        std::string line;
        for (std::size_t i = 0; i < r.size(); ++i) {
            line += r[i];
            if (i + 1 < r.size())
                line += std::string(w[i] - r[i].size() + 2, ' ');
        }
        std::puts(line.c_str());
    }
}

orbs3_json_ptr id_body(const std::string& id)
{
    orbs3_json_ptr b(json_object_new_object());
    json_object_object_add(b.get(), "id", json_object_new_string(id.c_str()));
    return b;
}

const std::string& need_id(const args_t& a)
{
    if (a.words.empty())
        usage_exit("the tenant's ID is missing");
    return a.words.front();
}

void add_str(json_object* o, const char* key, const std::string& v)
{
    json_object_object_add(o, key, json_object_new_string(v.c_str()));
}

int cmd_list(const client_t& c, const args_t& a)
{
    orbs3_json_ptr body(json_object_new_object());
    if (a.flag("secrets"))
        json_object_object_add(body.get(), "secrets", json_object_new_boolean(1));
    orbs3_json_ptr doc = c.call(ORBS3_MSG_LIST_VHOST, body.get());
    if (c.json) {
        print_json(doc.get());
        return kExitOk;
    }
    json_object* arr = nullptr;
    json_object_object_get_ex(doc.get(), "data", &arr);
    std::vector<std::vector<std::string>> rows = {{"ID", "NAME", "ADDRESS", "DOMAIN", "STATUS", "RUNNING"}};
    for (std::size_t i = 0; arr != nullptr && i < json_object_array_length(arr); ++i) {
        json_object* v = json_object_array_get_idx(arr, i);
        rows.push_back({str_of(v, "id"), str_of(v, "name"), str_of(v, "ip") + ":" + str_of(v, "port"),
                        str_of(v, "domain"), str_of(v, "status"), str_of(v, "running")});
    }
    print_table(rows);
    return kExitOk;
}

int cmd_get(const client_t& c, const args_t& a)
{
    orbs3_json_ptr body = id_body(need_id(a));
    if (a.flag("secrets"))
        json_object_object_add(body.get(), "secrets", json_object_new_boolean(1));
    orbs3_json_ptr doc = c.call(ORBS3_MSG_GET_VHOST, body.get());
    if (c.json)
        print_json(doc.get());
    if (json_object_object_length(doc.get()) == 0) {
        std::fprintf(stderr, "orbmux-ctl: no tenant with id %s\n", need_id(a).c_str());
        return kExitRefused;
    }
    if (!c.json) {
        json_object_object_foreach(doc.get(), key, val)
        {
            const std::string value = json_object_get_string(val);
            if (value.empty())
                std::printf("%s:\n", key);
            else
                std::printf("%-16s%s\n", (std::string(key) + ":").c_str(), value.c_str());
        }
    }
    return kExitOk;
}

// add-user's call; the reply holds the new key pair.
orbs3_json_ptr call_add_user(const client_t& c, const std::string& id, const std::string& user)
{
    orbs3_json_ptr body = id_body(id);
    add_str(body.get(), "displayname", user);
    return c.call(ORBS3_MSG_ADD_USER, body.get());
}

int cmd_add(const client_t& c, const args_t& a)
{
    const std::string name = a.get("name");
    const std::string port_text = a.get("port");
    if (name.empty() || port_text.empty())
        usage_exit("add needs --name and --port");
    char* end = nullptr;
    const long port = std::strtol(port_text.c_str(), &end, 10);
    if (*end != '\0' || port < 1 || port > 65535)
        usage_exit("--port must be 1..65535");
    const std::string id = a.get("id", new_uuid_hex());
    const std::string group = a.get("group", name);
    const std::string ip = a.get("ip", "127.0.0.1");
    const std::string admin_key = orbs3_ctrl_random_text(ORBS3_KEY_ID_LEN, ORBS3_KEY_ID_CHARS);
    const std::string admin_secret =
        orbs3_ctrl_random_text(ORBS3_SECRET_LEN, ORBS3_SECRET_CHARS);
    const bool ssl = a.flag("ssl");

    orbs3_json_ptr body(json_object_new_object());
    add_str(body.get(), "id", id);
    add_str(body.get(), "name", name);
    add_str(body.get(), "group", group);
    add_str(body.get(), "ip", ip);
    json_object_object_add(body.get(), "port", json_object_new_int(static_cast<int>(port)));
    add_str(body.get(), "domain", a.get("domain"));
    add_str(body.get(), "cluster", a.get("cluster", "c1"));
    add_str(body.get(), "tiered", a.get("tiered"));
    add_str(body.get(), "path", a.get("path", "tenants/" + group));
    add_str(body.get(), "ssl", ssl ? "true" : "false");
    add_str(body.get(), "ca", a.get("ca"));
    add_str(body.get(), "cert", a.get("cert"));
    add_str(body.get(), "key", a.get("key"));
    add_str(body.get(), "key_pwd", a.get("key-pwd"));
    add_str(body.get(), "accesskeyid", admin_key);
    add_str(body.get(), "accesskeysecret", admin_secret);
    add_str(body.get(), "displayname", "admin");
    add_str(body.get(), "userid", new_uuid_hex());

    orbs3_json_ptr out(json_object_new_object());
    json_object_object_add(out.get(), "add", c.call(ORBS3_MSG_ADD_VHOST, body.get()).release());
    std::string user_key, user_secret;
    if (a.flag("user")) {
        orbs3_json_ptr u = call_add_user(c, id, a.get("user"));
        user_key = str_of(u.get(), "accesskeyid");
        user_secret = str_of(u.get(), "accesskeysecret");
        json_object_object_add(out.get(), "add-user", u.release());
    }
    if (!a.flag("inactive"))
        json_object_object_add(out.get(), "start", c.call(ORBS3_MSG_START_VHOST, id_body(id).get()).release());
    const std::string endpoint = std::string(ssl ? "https://" : "http://") + ip + ":" + std::to_string(port);
    add_str(out.get(), "id", id);
    add_str(out.get(), "endpoint", endpoint);
    add_str(out.get(), "admin_access_key", admin_key);
    add_str(out.get(), "admin_secret_key", admin_secret);
    if (!user_key.empty()) {
        add_str(out.get(), "access_key", user_key);
        add_str(out.get(), "secret_key", user_secret);
    }
    if (c.json) {
        print_json(out.get());
        return kExitOk;
    }
    std::printf("tenant %s (id %s) added%s\n", name.c_str(), id.c_str(),
                a.flag("inactive") ? ", inactive" : " and started");
    std::printf("  endpoint:         %s\n", endpoint.c_str());
    std::printf("  admin access key: %s\n  admin secret key: %s\n", admin_key.c_str(), admin_secret.c_str());
    if (!user_key.empty())
        std::printf("  user %s access key: %s\n  user %s secret key: %s\n", a.get("user").c_str(), user_key.c_str(),
                    a.get("user").c_str(), user_secret.c_str());
    return kExitOk;
}

int cmd_edit(const client_t& c, const args_t& a)
{
    const std::string& id = need_id(a);
    // The edit names the tenant by id and name; the name stays unless a new one is given.
    orbs3_json_ptr cur = c.call(ORBS3_MSG_GET_VHOST, id_body(id).get());
    if (json_object_object_length(cur.get()) == 0) {
        std::fprintf(stderr, "orbmux-ctl: no tenant with id %s\n", id.c_str());
        return kExitRefused;
    }
    orbs3_json_ptr body = id_body(id);
    add_str(body.get(), "name", a.get("name", str_of(cur.get(), "name")));
    for (const char* k : {"domain", "cert", "key", "ca"})
        if (a.flag(k))
            add_str(body.get(), k, a.get(k));
    if (a.flag("key-pwd"))
        add_str(body.get(), "key_pwd", a.get("key-pwd"));
    orbs3_json_ptr doc = c.call(ORBS3_MSG_EDIT_VHOST, body.get());
    if (c.json)
        print_json(doc.get());
    else
        std::printf("tenant %s edited\n", id.c_str());
    return kExitOk;
}

int cmd_simple(const client_t& c, const args_t& a, uint32_t type, const char* done)
{
    const std::string& id = need_id(a);
    orbs3_json_ptr doc = c.call(type, id_body(id).get());
    if (c.json)
        print_json(doc.get());
    else
        std::printf("tenant %s %s\n", id.c_str(), done);
    return kExitOk;
}

int cmd_add_user(const client_t& c, const args_t& a)
{
    const std::string& id = need_id(a);
    if (a.get("user").empty())
        usage_exit("add-user needs --user NAME");
    orbs3_json_ptr doc = call_add_user(c, id, a.get("user"));
    if (c.json) {
        print_json(doc.get());
        return kExitOk;
    }
    std::printf("user %s added to tenant %s\n", a.get("user").c_str(), id.c_str());
    std::printf("  access key: %s\n  secret key: %s\n", str_of(doc.get(), "accesskeyid").c_str(),
                str_of(doc.get(), "accesskeysecret").c_str());
    return kExitOk;
}

int cmd_status(const client_t& c)
{
    orbs3_json_ptr doc = c.call(ORBS3_MSG_VHOST_STATUS, nullptr);
    if (c.json) {
        print_json(doc.get());
        return kExitOk;
    }
    json_object* arr = nullptr;
    json_object_object_get_ex(doc.get(), "data", &arr);
    auto word = [](const std::string& n) {
        static const std::map<std::string, std::string> words = {
            {"0", "inactive"}, {"1", "active"}, {"2", "stopping"}, {"4", "starting"}};
        auto it = words.find(n);
        return it == words.end() ? n : it->second;
    };
    std::vector<std::vector<std::string>> rows = {{"ID", "NAME", "DOMAIN", "STATUS", "RUNNING", "WORKER", "BUCKETS"}};
    for (std::size_t i = 0; arr != nullptr && i < json_object_array_length(arr); ++i) {
        json_object* v = json_object_array_get_idx(arr, i);
        const std::string pid = str_of(v, "pid");
        rows.push_back({str_of(v, "id"), str_of(v, "service"), str_of(v, "endpoint"), word(str_of(v, "status")),
                        word(str_of(v, "running")), pid == "0" || pid == "-1" ? "-" : pid,
                        str_of(v, "bucket_number")});
    }
    print_table(rows);
    return kExitOk;
}

// Options that take no value.
bool is_flag(std::string_view k)
{
    return k == "json" || k == "secrets" || k == "ssl" || k == "inactive" || k == "help";
}

}  // namespace

int main(int argc, char** argv)
{
    client_t c;
    std::string prefix;
    bool prefix_given = false;
    std::string command;
    args_t a;
    for (int i = 1; i < argc; ++i) {
        std::string_view w = argv[i];
        if (w.starts_with("--")) {
            std::string key(w.substr(2));
            std::string val;
            if (const std::size_t eq = key.find('='); eq != std::string::npos) {
                val = key.substr(eq + 1);
                key.resize(eq);
            } else if (!is_flag(key)) {
                if (i + 1 >= argc)
                    usage_exit("--" + key + " needs a value");
                val = argv[++i];
            }
            if (key == "help") {
                std::fputs(kUsage, stdout);
                return kExitOk;
            }
            if (key == "json") {
                c.json = true;
            } else if (key == "prefix") {
                prefix = val;
                prefix_given = true;
            } else {
                a.opts[key] = val;
            }
        } else if (command.empty()) {
            command = w;
        } else {
            a.words.emplace_back(w);
        }
    }
    if (command.empty())
        usage_exit("no command");
    if (prefix_given) {
        if (setenv("ORBMUX_PREFIX", prefix.c_str(), 1) != 0)
            usage_exit("bad --prefix");
        orbs3_prefix_reload();
    }
    c.socket = orbs3_prefix_path("/var/run/orbmux/orbmux.iface");

    static const std::map<std::string, std::vector<std::string>> known_opts = {
        {"list", {"secrets"}},
        {"get", {"secrets"}},
        {"add", {"id", "name", "ip", "port", "domain", "group", "cluster", "tiered", "path", "ssl", "ca", "cert",
                 "key", "key-pwd", "user", "inactive"}},
        {"edit", {"name", "domain", "cert", "key", "ca", "key-pwd"}},
        {"start", {}},
        {"stop", {}},
        {"delete", {}},
        {"add-user", {"user"}},
        {"status", {}},
    };
    auto it = known_opts.find(command);
    if (it == known_opts.end())
        usage_exit("unknown command " + command);
    for (const auto& [k, v] : a.opts) {
        (void)v;
        if (std::find(it->second.begin(), it->second.end(), k) == it->second.end())
            usage_exit("--" + k + " is no option of " + command);
    }
    const std::size_t max_words = (command == "list" || command == "status" || command == "add") ? 0 : 1;
    if (a.words.size() > max_words)
        usage_exit("too many arguments");

    if (command == "list")
        return cmd_list(c, a);
    if (command == "get")
        return cmd_get(c, a);
    if (command == "add")
        return cmd_add(c, a);
    if (command == "edit")
        return cmd_edit(c, a);
    if (command == "start")
        return cmd_simple(c, a, ORBS3_MSG_START_VHOST, "started");
    if (command == "stop")
        return cmd_simple(c, a, ORBS3_MSG_STOP_VHOST, "stopped");
    if (command == "delete")
        return cmd_simple(c, a, ORBS3_MSG_DELETE_VHOST, "deleted");
    if (command == "add-user")
        return cmd_add_user(c, a);
    return cmd_status(c);
}
