#include "control/orbs3_shost.h"

#include <json-c/json.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "control/orbs3_msg.h"
#include "control/orbs3_service_start.h"
#include "control/orbs3_vhost_file.h"
#include "core/orbs3_config.h"
#include "core/orbs3_json.h"
#include "core/orbs3_log.h"
#include "core/orbs3_prefix.h"
#include "event/neo_thread_pool.h"

std::atomic<int> g_shost_register{-1};
std::atomic<int> g_shost_status{-1};

namespace {

constexpr unsigned kPassSeconds = 3;
constexpr std::string_view kShostIface = "/var/run/kelvane/shost.iface";

struct free_deleter {
    void operator()(char* p) const { std::free(p); }
};
using text_ptr = std::unique_ptr<char, free_deleter>;

// The end-of-pass state last logged: -1 before the first report.
int g_logged_status = -1;

int make_report(char** out)
{
    if (out == nullptr)
        return -1;
    *out = nullptr;
    orbs3_json_ptr doc(json_object_new_object());
    if (!doc || json_object_object_add(doc.get(), "program", json_object_new_string(ORBS3_SHOST_PROGRAM)) != 0 ||
        json_object_object_add(doc.get(), "version", json_object_new_int(ORBS3_SHOST_VERSION)) != 0)
        return -1;
    const char* text = json_object_to_json_string_ext(doc.get(), JSON_C_TO_STRING_PLAIN);
    *out = text != nullptr ? strdup(text) : nullptr;
    return *out != nullptr ? 0 : -1;
}

// The reply as a JSON object, or null when it is none (a parse that stops early counts as none).
orbs3_json_ptr parse_object(const char* text)
{
    if (text == nullptr)
        return nullptr;
    json_tokener* tok = json_tokener_new();
    if (tok == nullptr)
        return nullptr;
    const std::size_t len = std::strlen(text);
    orbs3_json_ptr doc(json_tokener_parse_ex(tok, text, static_cast<int>(len)));
    const bool whole = json_tokener_get_error(tok) == json_tokener_success &&
                       json_tokener_get_parse_end(tok) == len;
    json_tokener_free(tok);
    if (!whole || !json_object_is_type(doc.get(), json_type_object))
        return nullptr;
    return doc;
}

// 0 with *code set, 1 when the key is missing or not an integer (*code 0).
int read_errorcode(json_object* doc, int* code)
{
    *code = 0;
    json_object* v = nullptr;
    if (!json_object_object_get_ex(doc, "errorcode", &v) || !json_object_is_type(v, json_type_int))
        return 1;
    const int64_t n = json_object_get_int64(v);
    if (n < INT32_MIN || n > INT32_MAX)
        return 1;
    *code = static_cast<int>(n);
    return 0;
}

// The configuration path must name a directory by itself: absolute, no "." or ".." step, no empty step
// but a trailing slash, and room for its zero byte.
bool usable_conf_path(std::string_view p)
{
    if (p.empty() || p.front() != '/' || p.size() >= ORBS3_SHOST_CONF_PATH_CAP)
        return false;
    std::size_t at = 1;
    while (at < p.size()) {
        const std::size_t end = std::min(p.find('/', at), p.size());
        const std::string_view step = p.substr(at, end - at);
        if ((step.empty() && end != p.size() - 1) || step == "." || step == "..")
            return false;
        at = end + 1;
    }
    return p.find('\0') == std::string_view::npos;
}

int exchange(uint32_t type, const char* request, char** reply, bool log_connect)
{
    if (reply != nullptr)
        *reply = nullptr;
    const std::string path = orbs3_prefix_path(kShostIface);
    errno = 0;
    const int rc = orbs3_daemon_call(path.c_str(), type, request, request != nullptr ? std::strlen(request) : 0,
                                     reply, nullptr);
    // A connect that failed leaves one of these; a reply that failed leaves a timeout or a short read.
    if (rc == -1 && log_connect && (errno == ENOENT || errno == ECONNREFUSED || errno == EACCES))
        ipd_log(LOG_ERR, "connect[%s] fail, error=%s", path.c_str(), strerror(errno));
    return rc;
}

void load_once(const char* how, int flag)
{
    if (g_orbs3_init_flag.load() == 0) {
        ipd_log(LOG_INFO, "%s", how);
        (void)orbs3_load_vhosts();
    }
    g_orbs3_init_flag = flag;
}

// One line when the node's standing with the controller changes, not one every pass.
void log_standing()
{
    const int now = g_shost_status.load();
    if (now == g_logged_status || now == -1)
        return;
    g_logged_status = now;
    ipd_log(now == 1 ? LOG_INFO : LOG_WARNING, "shost %s", now == 1 ? "online" : "offline");
}

}  // namespace

int orbs3_make_json_register_to_shost(char** out)
{
    return make_report(out);
}

int orbs3_make_json_alive_to_shost(char** out)
{
    return make_report(out);
}

int orbs3_send_request_register_to_shost(const char* request, char** reply)
{
    return exchange(ORBS3_MSG_REGISTER, request, reply, true);
}

int orbs3_send_request_alive_to_shost(const char* request, char** reply)
{
    return exchange(ORBS3_MSG_ALIVE, request, reply, false);
}

int orbs3_parse_json_shost_register(const char* text, int* errorcode, char* conf_path)
{
    int unused = 0;
    int* code = errorcode != nullptr ? errorcode : &unused;
    *code = 0;
    if (conf_path != nullptr)
        conf_path[0] = '\0';
    orbs3_json_ptr doc = parse_object(text);
    if (!doc)
        return -1;
    (void)read_errorcode(doc.get(), code);
    json_object* v = nullptr;
    if (conf_path != nullptr && json_object_object_get_ex(doc.get(), "conf_path", &v) &&
        json_object_is_type(v, json_type_string)) {
        const std::string_view p(json_object_get_string(v), static_cast<std::size_t>(json_object_get_string_len(v)));
        if (usable_conf_path(p)) {
            std::memcpy(conf_path, p.data(), p.size());
            conf_path[p.size()] = '\0';
        }
    }
    return 0;
}

int orbs3_parse_json_shost_alive(const char* text, int* errorcode)
{
    int unused = 0;
    int* code = errorcode != nullptr ? errorcode : &unused;
    *code = 0;
    orbs3_json_ptr doc = parse_object(text);
    if (!doc)
        return -1;
    return read_errorcode(doc.get(), code);
}

int orbs3_register_shost()
{
    char* raw = nullptr;
    if (orbs3_make_json_register_to_shost(&raw) != 0)
        return -1;
    text_ptr request(raw);
    raw = nullptr;
    if (orbs3_send_request_register_to_shost(request.get(), &raw) != 0) {
        const int err = errno != 0 ? errno : EPROTO;
        std::free(raw);
        ipd_log(LOG_ERR, "register to shost failure, errno=%d[%s]", err, strerror(err));
        return -1;
    }
    text_ptr reply(raw);
    int code = 0;
    char path[ORBS3_SHOST_CONF_PATH_CAP];
    static_assert(sizeof path <= sizeof orbs3_conf.conf_path);
    // A reply without a usable path leaves the configuration as it is: the node keeps the path it had.
    if (orbs3_parse_json_shost_register(reply.get(), &code, path) != 0 || path[0] == '\0' ||
        std::strcmp(path, orbs3_conf.conf_path) == 0)
        return 0;
    char old[sizeof orbs3_conf.conf_path];
    std::memcpy(old, orbs3_conf.conf_path, sizeof old);
    std::memset(orbs3_conf.conf_path, 0, sizeof orbs3_conf.conf_path);
    std::memcpy(orbs3_conf.conf_path, path, std::strlen(path));
    if (orbs3_write_conf_xml() != 0) {
        const int err = errno;
        // The file still holds the old path; the memory follows it, and the next registration tries again.
        std::memcpy(orbs3_conf.conf_path, old, sizeof old);
        ipd_log(LOG_ERR, "write conf_path[%s] to %s failure, errno=%d[%s]", path,
                orbs3_prefix_path(ORBS3_CONF).c_str(), err, strerror(err));
        return 0;
    }
    ipd_log(LOG_INFO, "conf_path from shost: %s", path);
    return 0;
}

int orbs3_alive_shost()
{
    char* raw = nullptr;
    if (orbs3_make_json_alive_to_shost(&raw) != 0) {
        g_shost_status = 0;
        return -1;
    }
    text_ptr request(raw);
    raw = nullptr;
    if (orbs3_send_request_alive_to_shost(request.get(), &raw) != 0) {
        std::free(raw);
        g_shost_status = 0;
        return -1;
    }
    text_ptr reply(raw);
    int code = 0;
    // No body, or one that is not JSON, is an answer all the same, just not "not registered".
    if (orbs3_parse_json_shost_alive(reply.get(), &code) == 0 && code == ORBS3_SHOST_NOT_REGISTERED) {
        ipd_log(LOG_INFO, "shost does not know this node: register again");
        g_shost_register = -1;
    }
    g_shost_status = 1;
    return 0;
}

void orbs3_shost_pass()
{
    switch (g_shost_register.load()) {
    case 0:
        load_once("start as an offline service", 1);
        g_shost_status = 0;
        break;
    case 1:
        load_once("start as an online service", 2);
        g_shost_status = 1;
        break;
    default:
        ipd_log(LOG_INFO, "register to shost");
        if (orbs3_register_shost() == 0) {
            g_shost_register = 1;
            ipd_log(LOG_INFO, "register shost success");
        } else {
            ipd_log(LOG_INFO, "register shost failure");
            g_shost_register = 0;
            g_shost_status = -1;
        }
        break;
    }
    if (g_shost_register.load() != -1 && g_shost_status.load() != -1)
        (void)orbs3_alive_shost();
    log_standing();
}

void* orbs3_shost_thread(void* arg)
{
    (void)arg;
    ipd_log(LOG_INFO, "shost thread[%ld] start", static_cast<long>(neo_thread_tid()));
    (void)orbs3_read_shost_data_file();
    for (;;) {
        sleep(kPassSeconds);
        orbs3_shost_pass();
    }
    return nullptr;
}
