#include "s3/orbs3_s3_dispatch.h"

#include <sys/random.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "core/orbs3_config.h"
#include "core/orbs3_log.h"
#include "core/orbs3_tenant.h"
#include "http/orbs3_http_parse.h"
#include "http/orbs3_http_request_body.h"
#include "http/orbs3_http_response.h"
#include "memory/neo_string.h"
#include "memory/orbs3_palloc.h"
#include "s3/orbs3_s3_errors.h"
#include "s3/orbs3_s3_signature.h"

orbs3_s3_blacklist_pt orbmux_check_service_blacklist = nullptr;

// Name, code, handler, read_body, own_body. A null handler is the storage layer's to install at start
// (orbs3_s3_install_handler); until an action's own handler is built it answers NotImplemented, and the
// comment names the handler that will answer it.
orbs3_s3_event_t s3_events[] = {
    {"Options", 0x116, orbs3_options_process, 1, 0},
    {"PutBucket", 0x11, nullptr, 1, 0},
    {"DeleteBucket", 0x12, nullptr, 1, 0},
    {"ListBuckets", 0x13, nullptr, 1, 0},
    {"ListObject", 0x14, nullptr, 1, 0},
    {"GetBucketInfo", 0x15, nullptr, 1, 0},
    {"GetBucketStat", 0x16, nullptr, 1, 0},
    {"PutBucketAcl", 0x17, nullptr, 1, 0},
    {"GetBucketAcl", 0x18, nullptr, 1, 0},
    {"PutBucketLifeCycle", 0x19, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_bucket_lifecycle
    {"GetBucketLifeCycle", 0x20, orbs3_s3_not_implemented, 1, 0},  // orbs3_get_bucket_lifecycle
    {"DeleteBucketLifeCycle", 0x21, orbs3_s3_not_implemented, 1, 0},  // orbs3_delete_bucket_lifecycle
    {"PutBucketVersioning", 0x22, nullptr, 1, 0},
    {"GetBucketVersioning", 0x23, nullptr, 1, 0},
    {"PutBucketBlacklist", 0x24, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_bucket_blacklist
    {"PutBucketBlacklistStatus", 0x35, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_bucket_blacklist_status
    {"DeleteBucketBlacklist", 0x36, orbs3_s3_not_implemented, 1, 0},  // orbs3_delete_bucket_blacklist
    {"PutBucketWhitelist", 0x37, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_bucket_whitelist
    {"PutBucketWhitelistStatus", 0x38, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_bucket_whitelist_status
    {"DeleteBucketWhitelist", 0x39, orbs3_s3_not_implemented, 1, 0},  // orbs3_delete_bucket_whitelist
    {"GetBucketBlacklist", 0x25, orbs3_s3_not_implemented, 1, 0},  // orbs3_get_bucket_blacklist
    {"PutBucketAuthorityIp", 0x40, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_bucket_authority_ip
    {"PutBucketAuthorityIpEdit", 0x42, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_bucket_authority_ip_edit
    {"DeleteBucketAuthorityIp", 0x41, orbs3_s3_not_implemented, 1, 0},  // orbs3_delete_bucket_authority_ip
    {"PutBucketAuthorityIpStatus", 0x43, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_bucket_authority_ip_status
    {"PutBucketAuthorityUser", 0x44, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_bucket_authority_user
    {"PutBucketAuthorityUserEdit", 0x46, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_bucket_authority_user_edit
    {"DeleteBucketAuthorityUser", 0x45, orbs3_s3_not_implemented, 1, 0},  // orbs3_delete_bucket_authority_user
    {"PutBucketAuthorityUserStatus", 0x47, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_bucket_authority_user_status
    {"GetBucketAuthority", 0x27, orbs3_s3_not_implemented, 1, 0},  // orbs3_get_bucket_authority
    {"PutBucketQuota", 0x28, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_bucket_quota
    {"GetBucketQuota", 0x29, orbs3_s3_not_implemented, 1, 0},  // orbs3_get_bucket_quota
    {"PutBucketRename", 0x30, nullptr, 1, 0},
    {"PutBucketRecycle", 0x31, nullptr, 1, 0},
    {"GetBucketRecycle", 0x32, nullptr, 1, 0},
    {"DeleteBucketRecycle", 0x33, nullptr, 1, 0},
    {"PutBucketVorneLifecycle", 0x50, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_bucket_lifecycle_vorne
    {"PutBucketVorneLifecycleEdit", 0x52, orbs3_s3_not_implemented, 1, 0},  // orbs3_edit_bucket_lifecycle_vorne
    {"DeleteBucketVorneLifecycle", 0x51, orbs3_s3_not_implemented, 1, 0},  // orbs3_delete_bucket_lifecycle_vorne
    {"PutBucketRecycleConf", 0x53, nullptr, 1, 0},
    {"GetBucketRecycleConf", 0x54, nullptr, 1, 0},
    {"PutBucketMigration", 0x34, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_bucket_migration
    {"PutObject", 0x101, nullptr, 0, 1},
    {"GetObject", 0x102, nullptr, 0, 0},
    {"DeleteObject", 0x103, nullptr, 1, 0},
    {"DeleteObjects", 0x104, nullptr, 1, 0},
    {"AppendObject", 0x105, nullptr, 0, 0},
    {"CopyObject", 0x106, nullptr, 1, 0},
    {"PutObjectVersionRestore", 0x107, nullptr, 1, 0},
    {"DeleteObjectVersion", 0x107, nullptr, 1, 0},
    {"GetObjectVersion", 0x107, nullptr, 1, 0},
    {"GetBucketObjVer", 0x107, nullptr, 1, 0},
    {"PutObjectAcl", 0x108, nullptr, 1, 0},
    {"GetObjectAcl", 0x109, nullptr, 1, 0},
    {"PutObjectTagging", 0x115, nullptr, 1, 0},
    {"GetObjectTagging", 0x115, nullptr, 0, 0},
    {"DeleteObjectTagging", 0x115, nullptr, 1, 0},
    {"DeleteObjectVorne", 0x117, nullptr, 1, 0},
    {"CreateMultipartUpload", 0x110, nullptr, 0, 0},
    {"CompleteMultipartUpload", 0x111, nullptr, 1, 0},
    {"AbortMultipartUpload", 0x112, nullptr, 0, 0},
    {"UploadPart", 0x113, nullptr, 0, 1},
    {"ListParts", 0x114, nullptr, 0, 0},
    {"ListMultipartUploads", 0x118, nullptr, 0, 0},
    {"PutServiceBlacklist", 0x201, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_service_blacklist
    {"PutServiceBlacklistStatus", 0x215, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_service_blacklist_status
    {"DeleteServiceBlacklist", 0x216, orbs3_s3_not_implemented, 1, 0},  // orbs3_delete_service_blacklist
    {"PutServiceWhitelist", 0x217, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_service_whitelist
    {"PutServiceWhitelistStatus", 0x218, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_service_whitelist_status
    {"DeleteServiceWhitelist", 0x219, orbs3_s3_not_implemented, 1, 0},  // orbs3_delete_service_whitelist
    {"GetServiceBlacklist", 0x202, orbs3_s3_not_implemented, 1, 0},  // orbs3_get_service_blacklist
    {"PutServiceAuthorityIp", 0x220, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_service_authority_ip
    {"DeleteServiceAuthorityIp", 0x221, orbs3_s3_not_implemented, 1, 0},  // orbs3_delete_service_authority_ip
    {"PutServiceAuthorityIpEdit", 0x222, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_service_authority_ip_edit
    {"PutServiceAuthorityIpStatus", 0x223, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_service_authority_ip_status
    {"PutServiceAuthorityUser", 0x224, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_service_authority_user
    {"DeleteServiceAuthorityUser", 0x225, orbs3_s3_not_implemented, 1, 0},  // orbs3_delete_service_authority_user
    {"PutServiceAuthorityUserEdit", 0x226, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_service_authority_user_edit
    {"PutServiceAuthorityUserStatus", 0x227, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_service_authority_user_status
    {"GetServiceAuthority", 0x204, orbs3_s3_not_implemented, 1, 0},  // orbs3_get_service_authority
    {"GetBucketAuths", 0x48, orbs3_s3_not_implemented, 1, 0},  // orbs3_get_bucket_user_auths
    {"GetBucketAuth", 0x49, orbs3_s3_not_implemented, 1, 0},  // orbs3_get_bucket_ak_auth
    {"GetAkServiceAuths", 0x228, orbs3_s3_not_implemented, 1, 0},  // orbs3_get_service_ak_auths
    {"GetAkServiceAuth", 0x229, orbs3_s3_not_implemented, 1, 0},  // orbs3_get_service_ak_auth
    {"GetUserServiceAuths", 0x232, orbs3_s3_not_implemented, 1, 0},  // orbs3_get_service_user_auths
    {"PutServiceSysConf", 0x230, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_service_system_storageclass
    {"GetServiceSysConf", 0x231, orbs3_s3_not_implemented, 1, 0},  // orbs3_get_service_system_storageclass
    {"PutServiceQuota", 0x205, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_service_quota
    {"GetServiceQuota", 0x206, orbs3_s3_not_implemented, 1, 0},  // orbs3_get_service_quota
    {"PutServiceVersion", 0x207, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_service_versioning
    {"GetServiceVersion", 0x208, orbs3_s3_not_implemented, 1, 0},  // orbs3_get_service_versioning
    {"PutServiceAccelerated", 0x209, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_service_accelerated
    {"GetServiceAccelerated", 0x210, orbs3_s3_not_implemented, 1, 0},  // orbs3_get_service_accelerated
    {"PutServiceMigration", 0x211, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_service_migration
    {"PutServiceUser", 0x234, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_service_user
    {"PutServiceUserEdit", 0x235, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_service_user_edit
    {"DeleteServiceUser", 0x236, orbs3_s3_not_implemented, 1, 0},  // orbs3_delete_service_user
    {"PutServiceUserAk", 0x237, orbs3_s3_not_implemented, 1, 0},  // orbs3_put_service_user_accesskey
    {"DeleteServiceUserAk", 0x238, orbs3_s3_not_implemented, 1, 0},  // orbs3_delete_service_user_accesskey
    {"GetBucketLifeCycleHistory", 0x55, orbs3_s3_not_implemented, 1, 0},  // orbs3_get_bucket_lifecycle_history
    {"GetBucketLocation", 0x56, nullptr, 1, 0},
    {"GetBucketVersions", 0x57, nullptr, 1, 0},
    {"", 0, nullptr, 0, 0},
};

namespace {

using std::string_view;

// Bounded copy into a fixed field; false (and an empty field) when the text does not fit.
bool copy_field(char* dest, std::size_t size, string_view text)
{
    if (text.size() >= size) {
        dest[0] = '\0';
        return false;
    }
    std::memcpy(dest, text.data(), text.size());
    dest[text.size()] = '\0';
    return true;
}

// A random (version 4) UUID as 32 hex digits. libuuid asks the kernel for its process and user ids and
// fresh entropy on every call; a request id needs uniqueness, not secrecy, so each thread seeds a fast
// generator from the kernel once and draws from it.
void new_request_id(char out[ORBS3_RESP_REQUEST_ID_LEN])
{
    thread_local uint64_t state[2] = {0, 0};
    if (state[0] == 0 && state[1] == 0) {
        if (getrandom(state, sizeof state, 0) != static_cast<ssize_t>(sizeof state) || (state[0] | state[1]) == 0) {
            state[0] = static_cast<uint64_t>(std::time(nullptr)) ^ reinterpret_cast<uintptr_t>(&state);
            state[1] = 0x9e3779b97f4a7c15ULL;
        }
    }
    // xorshift128+
    uint8_t id[16];
    for (int half = 0; half < 2; half++) {
        uint64_t s1 = state[0];
        const uint64_t s0 = state[1];
        state[0] = s0;
        s1 ^= s1 << 23;
        state[1] = s1 ^ s0 ^ (s1 >> 17) ^ (s0 >> 26);
        uint64_t v = state[1] + s0;
        std::memcpy(id + 8 * half, &v, sizeof v);
    }
    id[6] = static_cast<uint8_t>((id[6] & 0x0f) | 0x40);
    id[8] = static_cast<uint8_t>((id[8] & 0x3f) | 0x80);
    *neo_hex(out, id, sizeof id) = '\0';
}

// The statuses whose reply differs from their row: a fixed HTTP status, and "/" as Resource for the
// ones about the caller rather than a bucket or an object.
struct status_override {
    uint32_t code;
    uint32_t http_status;
    bool root_resource;
};
constexpr status_override kOverrides[] = {
    {ORBS3_S3_AUTH_HEADER_MALFORMED, 403, true}, {ORBS3_S3_BUCKET_ALREADY_EXISTS, 409, false},
    {ORBS3_S3_INTERNAL_ERROR, 500, false},       {ORBS3_S3_INVALID_ACCESS_KEY_ID, 403, true},
    {ORBS3_S3_INVALID_ARGUMENT, 400, false},     {ORBS3_S3_INVALID_BUCKET_NAME, 400, false},
    {ORBS3_S3_MISSING_REQUEST_BODY, 400, false}, {ORBS3_S3_NO_SUCH_BUCKET, 404, false},
    {ORBS3_S3_NO_SUCH_KEY, 404, false},          {ORBS3_S3_SIGNATURE_DOES_NOT_MATCH, 403, true},
    {ORBS3_S3_DEST_KEY_ALREADY_EXISTS, 404, false}, {ORBS3_S3_COPY_FAILED, 404, false},
    {ORBS3_S3_ACCESS_DENIED_ROOT, 403, true},    {ORBS3_S3_BUCKET_TOO_MUCH, 403, true},
    {ORBS3_S3_OBJECT_TOO_MUCH, 403, true},       {ORBS3_S3_OPERATION_NOT_SUPPORTED, 400, true},
};

int admit_and_run(orbs3_http_request_t* r);

// What a failed document read is answered with; -1 and ORBS3_HTTP_CLOSED are passed on unanswered.
int body_failure_status(int rc)
{
    switch (rc) {
    case ORBS3_HTTP_BODY_TOO_LARGE: return ORBS3_S3_MAX_MESSAGE_LENGTH_EXCEEDED;
    case ORBS3_HTTP_BODY_INVALID: return ORBS3_S3_INCOMPLETE_BODY;
    default: return rc;
    }
}

// The actions a request without credentials may try, by method: reading an object or a listing, and
// writing an object. Their handlers decide by the ACL of the bucket or the object whether it goes on.
struct anonymous_row {
    string_view action;
    uint32_t methods;
};
constexpr anonymous_row kAnonymous[] = {
    {"GetObject", ORBS3_HTTP_GET | ORBS3_HTTP_HEAD},
    {"ListObject", ORBS3_HTTP_GET | ORBS3_HTTP_HEAD},
    {"PutObject", ORBS3_HTTP_PUT},
};

}  // namespace

bool orbs3_s3_anonymous_action(string_view action, uint32_t method)
{
    for (const anonymous_row& a : kAnonymous) {
        if (a.action == action && (a.methods & method) != 0)
            return true;
    }
    return false;
}

namespace {

// Steps 5 to 9: who sends the request, whether they may, and the handler.
int admit_and_run(orbs3_http_request_t* r)
{
    char key[ORBS3_ACCESS_KEY_ID_LEN];
    int found = orbs3_s3_request_access_key(r, key);
    orbs3_vhost_t* vh = r->vhost;
    orbs3_user_t* user = nullptr;
    if (found == ORBS3_AUTH_NONE) {
        // No credentials at all: a public reader or writer, who is nobody's user. Credentials that are
        // present but fail never come here: they are refused below, whatever the ACLs grant.
        if (!orbs3_s3_anonymous_action(r->event->name, r->method))
            return ORBS3_S3_ACCESS_DENIED;
    } else if (found != 0) {
        return ORBS3_S3_AUTH_HEADER_MALFORMED;
    } else {
        user = orbs3_check_accesskeyid_exist(&vh->admin, key, vh);
        if (user == nullptr)
            return ORBS3_S3_INVALID_ACCESS_KEY_ID;
    }
    r->user = user;

    if (user != nullptr && orbs3_conf.verify_signatures) {
        const char* secret = orbs3_s3_user_secret(user, key);
        if (secret == nullptr)
            return ORBS3_S3_INVALID_ACCESS_KEY_ID;
        const char* message = nullptr;
        uint32_t status = orbs3_s3_authenticate(r, secret, std::time(nullptr), &message);
        if (status != 0) {
            r->resp.message = message;
            return static_cast<int>(status);
        }
    }
    // A body in the streaming framing would reach a handler with its chunk signatures in it; PutObject
    // and UploadPart take the framing off as the body arrives.
    if (orbs3_s3_streaming_payload(r) && orbs3_http_has_body(r) && r->event->own_body == 0) {
        r->resp.message = "Payloads signed chunk by chunk are not accepted yet; send the body with a plain "
                          "payload hash.";
        return ORBS3_S3_NOT_IMPLEMENTED;
    }

    if (user != &vh->admin && orbmux_check_service_blacklist != nullptr &&
        orbmux_check_service_blacklist(vh, r->connection->peer) != 0) {
        copy_field(r->resp.resource, sizeof r->resp.resource, "/");
        return ORBS3_S3_ACCESS_DENIED;
    }

    // An Origin other than the Host asks for a CORS line in every reply, errors included. One longer than
    // the field is not echoed at all: a cut origin would name another site.
    const orbs3_header_t* origin = r->headers_in.origin;
    const orbs3_header_t* host = r->headers_in.host;
    if (origin != nullptr && origin->value.len != 0 && (host == nullptr || orbs3_str_view(host->value) != orbs3_str_view(origin->value)))
        (void)copy_field(r->resp.origin, sizeof r->resp.origin, orbs3_str_view(origin->value));

    // A row whose handler was never installed has nothing to run the action with.
    orbs3_s3_handler_pt handler = r->event->handler != nullptr ? r->event->handler : orbs3_s3_not_implemented;
    return handler(r);
}

}  // namespace

int orbs3_s3_install_handler(string_view name, orbs3_s3_handler_pt handler)
{
    for (orbs3_s3_event_t* e = s3_events; e->code != 0; e++) {
        if (e->name == name) {
            e->handler = handler;
            return 0;
        }
    }
    return -1;
}

const orbs3_s3_event_t* orbs3_s3_find_event(string_view name)
{
    for (const orbs3_s3_event_t* e = s3_events; e->code != 0; e++) {
        if (e->name.size() == name.size() && e->name == name)
            return e;
    }
    return nullptr;
}

const char* orbs3_s3_user_secret(const orbs3_user_t* user, string_view key_id)
{
    if (user == nullptr)
        return nullptr;
    if (user->accesskeyid.len != 0 && orbs3_str_view(user->accesskeyid) == key_id)
        return user->accesskeysecret.data;
    neo_list_head_t* pos;
    list_for_each(pos, &user->keys)
    {
        auto* k = static_cast<orbs3_accesskey_t*>(orbs3_list_node(pos)->data);
        if (k != nullptr && orbs3_str_view(k->AccessKeyId) == key_id)
            return k->AccessKeySecret.data;
    }
    return nullptr;
}

int orbs3_s3_send_error(orbs3_http_request_t* r, int status)
{
    if (status == 0 || status == ORBS3_AGAIN || status < 0)
        return status;
    const auto code = static_cast<uint32_t>(status);
    const orbs3_s3_error_t* row = orbs3_s3_find_error(code);
    uint32_t http_status = row != nullptr ? row->http_status : 500;
    // Before a handler has named what failed, the request as a whole did.
    const char* resource = r->resp.resource[0] != '\0' ? r->resp.resource : "/";
    for (const status_override& o : kOverrides) {
        if (o.code == code) {
            http_status = o.http_status;
            if (o.root_resource)
                resource = "/";
            break;
        }
    }
    char* doc;
    if (row == nullptr)
        doc = make_s3_error_resp_xml("unknown error", "unknown error", resource, r->resp.request_id);
    else
        doc = make_s3_error_resp_xml(row->name, r->resp.message != nullptr ? r->resp.message : row->message,
                                     resource, r->resp.request_id);
    if (doc == nullptr) {
        ipd_log(LOG_ERR, "no memory for the error document of status 0x%x", code);
        return -1;
    }
    // A reply to HEAD has no body: the client would read the document as the start of the next reply.
    const char* body = r->method == ORBS3_HTTP_HEAD ? "" : doc;
    // A body left unread closes the connection after the reply; the client is told so.
    const char* connection = orbs3_http_body_consumed(r) ? r->resp.connection : "close";
    int rc = orbs3_http_send_error_msg(r->connection, http_status, r->resp.request_id, body, connection,
                                       r->resp.origin, r->resp.headers);
    __free__(doc);
    return rc == 0 ? status : -1;
}

int orbs3_events_process(orbs3_http_request_t* r)
{
    // 1
    std::memset(&r->resp, 0, sizeof r->resp);
    new_request_id(r->resp.request_id);
    if (r->headers_in.connection_type == ORBS3_HTTP_CONNECTION_KEEP_ALIVE)
        copy_field(r->resp.connection, sizeof r->resp.connection, "keep-alive");
    else if (r->headers_in.connection_type == ORBS3_HTTP_CONNECTION_CLOSE)
        copy_field(r->resp.connection, sizeof r->resp.connection, "close");

    // 2, 3
    const orbs3_s3_event_t* ev = orbs3_s3_find_event(orbs3_str_view(r->req_msg.action));
    if (ev == nullptr)
        return orbs3_s3_send_error(r, ORBS3_S3_OPERATION_NOT_SUPPORTED);
    r->event = ev;

    // 4: a document is read whole before anyone looks at it.
    if (ev->read_body && orbs3_http_has_body(r)) {
        int rc = orbs3_http_recv_request_body(r->connection->read);
        if (rc == ORBS3_AGAIN) {
            if (orbs3_http_wait_read(r->connection, obrs3_http_recv_json_data_again) != 0)
                return -1;
            return ORBS3_AGAIN;
        }
        if (rc != 0) {
            int status = body_failure_status(rc);
            return status > 0 ? orbs3_s3_send_error(r, status) : status;
        }
    }
    return orbs3_s3_send_error(r, admit_and_run(r));
}

void obrs3_http_recv_json_data_again(orbs3_event_t* ev)
{
    orbs3_http_request_t* r = orbs3_http_read_event_request(ev, "the body");
    if (r == nullptr)
        return;
    int rc = orbs3_http_recv_request_body(ev);
    if (rc == ORBS3_AGAIN) {
        if (orbs3_http_wait_read(r->connection, obrs3_http_recv_json_data_again) != 0)
            orbs3_http_close_request_and_connection(r);
        return;
    }
    if (rc == ORBS3_HTTP_CLOSED)
        return;
    int status = rc == 0 ? admit_and_run(r) : body_failure_status(rc);
    if (status == ORBS3_AGAIN || status == ORBS3_HTTP_CLOSED)
        return;
    if (orbs3_s3_send_error(r, status) == -1) {
        orbs3_http_close_request_and_connection(r);
        return;
    }
    (void)orbs3_http_destory_thread_handler(ev);
}

int orbs3_send_http_respones(int code, orbs3_http_request_t* r)
{
    const orbs3_s3_http_error_t* row = s3_http_error;
    while (row->code != 0 && row->code != code)
        row++;
    char doc[256] = "";
    if (row->code != 0)
        std::snprintf(doc, sizeof doc, "{\"error_code\":\"%s\",\"error_msg\":\"%s\"}", row->error, row->message);
    return orbs3_http_send_msg(r->connection, row->http_status, doc, r->resp.connection, r->resp.origin);
}

int orbs3_options_process(orbs3_http_request_t* r)
{
    auto value = [](const orbs3_header_t* h) { return h != nullptr && h->value.data != nullptr ? h->value.data : ""; };
    if (orbs3_http_send_options_msg(r->connection, 200, r->resp.connection, value(r->headers_in.origin),
                                    value(r->headers_in.access_control_request_headers)) != 0)
        return -1;
    return 0;
}
