#include "storage/orbs3_bucket_ops.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "core/orbs3_log.h"
#include "core/orbs3_tenant.h"
#include "http/orbs3_http_request_body.h"
#include "http/orbs3_http_response.h"
#include "memory/neo_files.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_cgi.h"
#include "s3/orbs3_s3_dispatch.h"
#include "s3/orbs3_s3_documents.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_bucket_store.h"
#include "storage/orbs3_file_helpers.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object.h"
#include "storage/orbs3_list_object.h"
#include "storage/orbs3_object.h"
#include "storage/orbs3_record.h"

namespace {

std::string_view bucket_name(const orbs3_http_request_t* r)
{
    return orbs3_str_view(r->req_msg.bucket);
}

// The Resource of an error document; a longer text is cut, it only names what was asked for.
void set_resource(orbs3_http_request_t* r, std::string_view text)
{
    std::size_t n = text.size() < sizeof(r->resp.resource) ? text.size() : sizeof(r->resp.resource) - 1;
    std::memcpy(r->resp.resource, text.data(), n);
    r->resp.resource[n] = '\0';
}

int fail(orbs3_http_request_t* r, uint32_t status, std::string_view resource)
{
    set_resource(r, resource);
    return static_cast<int>(status);
}

// A name is checked before any path is built from it; an empty one fails too.
bool legal_bucket_name(std::string_view name)
{
    return !name.empty() && orbs3_check_bucketname(name) == 0;
}

bool is_admin(const orbs3_http_request_t* r)
{
    return orbmux_check_admin(&r->vhost->admin, r->user) == 0;
}

// The handler's reply went out (0), or could not be written: the connection is closed by the engine.
int sent(int rc)
{
    return rc == 0 ? 0 : -1;
}

// How long an owner that takes a name waits for others taking it at the same moment to give way, in
// milliseconds. They give way as soon as they have looked; the wait only runs out when one of them ended
// half way.
constexpr int kClaimWaitMs = 200;

}  // namespace

int orbs3_request_bucket(orbs3_http_request_t* r, const int* bucket_code, const int* object_code,
                         orbs3_access_chain_t chain, orbs3_bucket_t** out)
{
    *out = nullptr;
    std::string_view name = bucket_name(r);
    if (!legal_bucket_name(name))
        return fail(r, ORBS3_S3_INVALID_BUCKET_NAME, name);
    orbs3_bucket_ptr b(orbs3_get_bucket(r->vhost, r->user, name));
    if (!b)
        return fail(r, ORBS3_S3_NO_SUCH_BUCKET, name);
    if (orbs3_access_check_chain(r->vhost, r->user, b.get(), r->connection->peer, bucket_code, object_code, chain) !=
        0)
        return fail(r, ORBS3_S3_ACCESS_DENIED, "/");
    // Without credentials only the bucket's own ACL can let the request on.
    if (r->user == nullptr &&
        orbs3_anonymous_bucket_status(b.get(), bucket_code != nullptr   ? *bucket_code
                                               : object_code != nullptr ? *object_code
                                                                        : ORBS3_ACCESS_NONE) != 0)
        return fail(r, ORBS3_S3_ACCESS_DENIED, "/");
    if (orbs3_bucket_init_path(r->vhost, r->user, b.get(), name) != 0)
        return fail(r, ORBS3_S3_INTERNAL_ERROR, name);
    *out = b.release();
    return 0;
}

namespace {

// The request's bucket when the requester holds `access` on it along the whole chain: 0 with *out set, or
// the status already answered.
int request_bucket(orbs3_http_request_t* r, int access, orbs3_bucket_ptr* out)
{
    orbs3_bucket_t* raw = nullptr;
    int rc = orbs3_request_bucket(r, &access, nullptr, orbs3_access_chain_t::full, &raw);
    out->reset(raw);
    return rc;
}

}  // namespace

bool orbs3_bucket_name_creatable(std::string_view name)
{
    if (name.size() < 3 || name.size() > 63)
        return false;
    auto letter_or_digit = [](char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); };
    if (!letter_or_digit(name.front()) || !letter_or_digit(name.back()))
        return false;
    int dots = 0;
    bool digits_and_dots = true;
    for (std::size_t i = 0; i < name.size(); i++) {
        const char c = name[i];
        if (!letter_or_digit(c) && c != '-' && c != '.')
            return false;
        if (c == '.') {
            dots++;
            // "..", ".-" and "-." leave an empty or dash-edged label.
            if (name[i - 1] == '.' || name[i - 1] == '-' || name[i + 1] == '-')
                return false;
        }
        digits_and_dots = digits_and_dots && (c == '.' || (c >= '0' && c <= '9'));
    }
    // Four numbers read as an IP address.
    if (digits_and_dots && dots == 3)
        return false;
    for (std::string_view reserved : {"xn--", "sthree-"}) {
        if (name.starts_with(reserved))
            return false;
    }
    for (std::string_view reserved : {"-s3alias", "--ol-s3"}) {
        if (name.ends_with(reserved))
            return false;
    }
    return true;
}

int orbs3_claim_bucket_name(const orbs3_vhost_t* vhost, const orbs3_bucket_t* bucket)
{
    const char* data_dir = neo_getstr(&bucket->data_dir);
    std::string_view name = orbs3_str_view(bucket->name);
    // The owner's directory may be new; the bucket's own directory is made exclusively: of two requests
    // for one name under one owner, the second finds it.
    std::string owner_dir(data_dir);
    owner_dir.resize(owner_dir.rfind('/'));
    if (neo_mkdir_p(owner_dir.c_str(), ORBS3_DIR_MODE) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    if (mkdir(data_dir, ORBS3_DIR_MODE) != 0) {
        if (errno == EEXIST)
            return ORBS3_S3_BUCKET_ALREADY_OWNED_BY_YOU;
        ipd_log(LOG_ERR, "mkdir %s failed: %s", data_dir, std::strerror(errno));
        return ORBS3_S3_INTERNAL_ERROR;
    }
    // Every owner that takes a name makes its directory before it looks, so whoever looks second sees
    // the first. Among owners taking one name at once the one that sorts first keeps it: the others give
    // way at once, and it waits until they have. An owner that already has its record keeps the name
    // whatever its own name. A holder that neither gives way nor writes its record (a crash) holds the
    // name until its directory is removed.
    const std::string_view owner = orbs3_str_view(bucket->owner_name);
    int state = -1;
    for (int waited_ms = 0; waited_ms <= kClaimWaitMs; waited_ms++) {
        state = orbs3_bucket_claim_state(vhost, name, owner);
        if (state != ORBS3_CLAIM_WAIT)
            break;
        usleep(1000);
    }
    if (state == ORBS3_CLAIM_ALONE)
        return 0;
    if (rmdir(data_dir) != 0)
        ipd_log(LOG_ERR, "rmdir %s failed: %s", data_dir, std::strerror(errno));
    return static_cast<int>(state < 0 ? ORBS3_S3_INTERNAL_ERROR : ORBS3_S3_BUCKET_ALREADY_EXISTS);
}

int orbs3_dir_has_entries(const char* path)
{
    neo_dir_ptr d(opendir(path));
    if (!d)
        return errno == ENOENT ? 0 : -1;
    while (const dirent* e = readdir(d.get())) {
        if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0 ||
            orbs3_record_is_temp(e->d_name))
            continue;
        return 1;
    }
    return 0;
}

int orbs3_tree_has_files(const char* path, int depth)
{
    // Keys hold at most objectdirnum "/": anything deeper is not the bucket's, but still something.
    if (depth > 64)
        return 1;
    neo_dir_ptr d(opendir(path));
    if (!d)
        return errno == ENOENT ? 0 : -1;
    while (const dirent* e = readdir(d.get())) {
        if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0 ||
            orbs3_record_is_temp(e->d_name))
            continue;
        struct stat st {};
        if (fstatat(dirfd(d.get()), e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT)
                continue;  // gone since the listing: the rest still counts
            return -1;
        }
        if (!S_ISDIR(st.st_mode))
            return 1;
        char below[ORBS3_PATH_AREA];
        if (!neo_join(below, sizeof below, {path, "/", e->d_name}))
            return -1;
        if (int rc = orbs3_tree_has_files(below, depth + 1); rc != 0)
            return rc;
    }
    return 0;
}

int orbs3_delete_bucket(const orbs3_vhost_t* /*vhost*/, const orbs3_bucket_t* bucket)
{
    const char* meta_file = neo_getstr(&bucket->meta_file);
    if (unlink(meta_file) != 0 && errno != ENOENT) {
        ipd_log(LOG_ERR, "unlink %s failed: %s", meta_file, std::strerror(errno));
        return -1;
    }
    int rc = 0;
    for (const orbs3_str_t* dir : {&bucket->meta_dir, &bucket->data_dir, &bucket->recycle_dir, &bucket->version_dir}) {
        const char* path = neo_getstr(dir);
        if (neo_remove_tree(path) != 0) {
            ipd_log(LOG_ERR, "bucket directory %s not removed", path);
            // Without its data directory the name is free again; with it, it stays taken.
            if (dir == &bucket->data_dir)
                rc = -1;
        }
    }
    return rc;
}

char* orbs3_make_bucketstat_json(const orbs3_bucket_t* bucket)
{
    char* text = nullptr;
    if (asprintf(&text,
                 "{\"result\":{\"stat\":{\"storage_in_bytes\":%" PRIu64 ",\"object_count\":%" PRIu64
                 ",\"multipart_upload_count\":%" PRIu64 "}}}",
                 bucket->stat.storage_in_bytes, bucket->stat.object_count, bucket->stat.multipart_upload_count) < 0)
        return nullptr;
    return text;
}

int orbs3_put_bucket(orbs3_http_request_t* r)
{
    orbs3_vhost_t* vh = r->vhost;
    static constexpr int create = ORBS3_ACCESS_CREATE;
    if (!is_admin(r) && orbs3_access_check_chain(vh, r->user, nullptr, r->connection->peer, &create, nullptr,
                                                 orbs3_access_chain_t::no_bucket) != 0)
        return fail(r, ORBS3_S3_ACCESS_DENIED, "/");
    uint32_t max_bucket = vh->service_rec != nullptr ? vh->service_rec->quota.max_bucket : 0;
    if (max_bucket > 0 && vh->bucket_count.load() >= static_cast<int64_t>(max_bucket))
        return fail(r, ORBS3_S3_BUCKET_TOO_MUCH, "");
    std::string_view name = bucket_name(r);
    if (!legal_bucket_name(name) || !orbs3_bucket_name_creatable(name))
        return fail(r, ORBS3_S3_INVALID_BUCKET_NAME, name);
    if (orbs3_check_bucket_exist(vh, r->user, name) == 0) {
        // The owner's own bucket is told apart, so that a client can take it as already made.
        orbs3_bucket_ptr held(orbs3_get_bucket(vh, r->user, name));
        const bool mine = held && orbs3_str_view(held->owner_name) == orbs3_str_view(r->user->DisPlayName);
        return fail(r, mine ? ORBS3_S3_BUCKET_ALREADY_OWNED_BY_YOU : ORBS3_S3_BUCKET_ALREADY_EXISTS, name);
    }

    uint32_t acl = ORBS3_ACL_FULL_CONTROL;
    bool given = false;
    if (int rc = orbs3_object_acl_from_request(r, &acl, &given); rc != 0)
        return fail(r, rc, name);
    orbs3_bucket_ptr b(orbs3_bucket_new(2048));
    if (!b)
        return fail(r, ORBS3_S3_INTERNAL_ERROR, name);
    b->acl = acl;
    char stamp[64];
    get_gmt_meta_time(stamp, sizeof stamp);
    char endpoint[ORBS3_PATH_AREA];
    int n = std::snprintf(endpoint, sizeof endpoint, "%.*s.%s/", static_cast<int>(name.size()), name.data(),
                          neo_getstr(&vh->domain));
    orbs3_pool_t* pool = b->pool;
    std::string_view owner = orbs3_str_view(r->user->DisPlayName);
    std::string_view owner_id = orbs3_str_view(r->user->UserId);
    if (n < 0 || static_cast<std::size_t>(n) >= sizeof endpoint ||
        orbs3_pstr_set(pool, &b->name, name.data(), name.size()) != 0 ||
        orbs3_pstr_set(pool, &b->created_date, stamp, std::strlen(stamp)) != 0 ||
        orbs3_pstr_set(pool, &b->extranet_endpoint, endpoint, static_cast<std::size_t>(n)) != 0 ||
        orbs3_pstr_set(pool, &b->owner_id, owner_id.data(), owner_id.size()) != 0 ||
        orbs3_pstr_set(pool, &b->owner_name, owner.data(), owner.size()) != 0)
        return fail(r, ORBS3_S3_INTERNAL_ERROR, name);
    // An owner whose name is unsafe as a directory can't hold buckets.
    if (orbs3_bucket_init_path(vh, r->user, b.get(), name) != 0)
        return fail(r, ORBS3_S3_INTERNAL_ERROR, name);

    int rc = orbs3_claim_bucket_name(vh, b.get());
    if (rc != 0)
        return fail(r, static_cast<uint32_t>(rc), name);
    // The record comes last and whole: until it stands the bucket answers NoSuchBucket, and a bucket
    // that could not be completed is taken apart again, so no name stays taken without a record.
    std::string record_dir(neo_getstr(&b->meta_file));
    record_dir.resize(record_dir.rfind('/'));
    bool made = neo_mkdir_p(record_dir.c_str(), ORBS3_DIR_MODE) == 0 &&
                neo_mkdir_p(neo_getstr(&b->meta_dir), ORBS3_DIR_MODE) == 0 &&
                neo_mkdir_p(neo_getstr(&b->recycle_dir), ORBS3_DIR_MODE) == 0 &&
                neo_mkdir_p(neo_getstr(&b->version_dir), ORBS3_DIR_MODE) == 0 &&
                orbs3_save_bucket(b.get(), neo_getstr(&b->meta_file)) == 0;
    if (!made) {
        ipd_log(LOG_ERR, "bucket[%s] of [%s] could not be made: %s", b->name.data, b->owner_name.data,
                std::strerror(errno));
        (void)orbs3_delete_bucket(vh, b.get());
        return fail(r, ORBS3_S3_INTERNAL_ERROR, name);
    }
    vh->bucket_count.fetch_add(1);
    return sent(orbs3_http_send_put_bucket_msg(r->connection, 200, b->name.data, r->resp.connection, r->resp.origin));
}

int orbs3_del_bucket(orbs3_http_request_t* r)
{
    orbs3_bucket_ptr b;
    if (int rc = request_bucket(r, ORBS3_ACCESS_DELETE, &b); rc != 0)
        return rc;
    std::string_view name = bucket_name(r);
    // A bucket that holds objects (files or directory objects), versions or delete markers stays; the
    // recycled copies of an empty bucket go with it, and so do empty directories of its version tree.
    int full = orbs3_dir_has_entries(neo_getstr(&b->data_dir));
    if (full == 0)
        full = orbs3_tree_has_files(neo_getstr(&b->version_dir));
    if (full == 1)
        return fail(r, ORBS3_S3_BUCKET_NOT_EMPTY, name);
    if (full < 0)
        return fail(r, ORBS3_S3_INTERNAL_ERROR, name);
    if (orbs3_delete_bucket(r->vhost, b.get()) != 0)
        return fail(r, ORBS3_S3_INTERNAL_ERROR, name);
    r->vhost->bucket_count.fetch_sub(1);
    return sent(orbs3_http_send_del_bucket_msg(r->connection, 204, r->resp.connection, r->resp.origin));
}

namespace {

// What a ListBuckets asks for: a page of at most `max` names behind `after`, all starting with `prefix`.
struct bucket_page_query {
    std::string prefix;
    bool has_prefix = false;
    std::string after;
    std::string token;
    bool has_token = false;
    std::size_t max = 0;  // 0: no paging, every bucket
};

// The query value of `key` into `out`; false when it is missing. A value longer than any name or token
// can be is kept cut, with *cut set.
bool query_value(const cgiFormEntry* form, const char* key, std::string* out, bool* cut)
{
    char buf[ORBS3_PATH_AREA];
    int rc = cgiFormString(form, key, buf, sizeof buf);
    if (rc == cgiFormNotFound)
        return false;
    *cut = rc == cgiFormTruncated;
    out->assign(rc == cgiFormEmpty ? "" : buf);
    return true;
}

// 0, or ORBS3_S3_INVALID_ARGUMENT with r->resp.message set.
int read_bucket_page_query(orbs3_http_request_t* r, bucket_page_query* q)
{
    std::string args(orbs3_str_view(r->args));
    if (args.empty())
        return 0;
    orbs3_cgi_form form(cgiParseGetFormInput(args.c_str()));
    if (!form)
        return 0;
    bool cut = false;
    std::string text;
    if (query_value(form.get(), "max-buckets", &text, &cut)) {
        std::size_t v = 0;
        bool digits = !text.empty() && text.size() <= 5;
        for (char c : text) {
            digits = digits && c >= '0' && c <= '9';
            v = v * 10 + static_cast<std::size_t>(c - '0');
        }
        if (!digits || v < 1 || v > 10000) {
            r->resp.message = "Argument max-buckets must be an integer between 1 and 10000.";
            return ORBS3_S3_INVALID_ARGUMENT;
        }
        q->max = v;
    }
    // A prefix longer than a bucket name matches none, cut or not.
    q->has_prefix = query_value(form.get(), "prefix", &q->prefix, &cut);
    q->has_token = query_value(form.get(), "continuation-token", &q->token, &cut);
    // An empty token is the first page.
    if (q->has_token && !q->token.empty() && (cut || !orbs3_list_token_decode(q->token, &q->after))) {
        r->resp.message = "The continuation token provided is incorrect";
        return ORBS3_S3_INVALID_ARGUMENT;
    }
    return 0;
}

}  // namespace

int orbs3_list_buckets(orbs3_http_request_t* r)
{
    bucket_page_query q;
    if (int rc = read_bucket_page_query(r, &q); rc != 0)
        return fail(r, static_cast<uint32_t>(rc), "/");
    neo_list_head_t list;
    INIT_LIST_HEAD(&list);
    int rc = r->user->is_admin == 1 ? orbs3_load_all_bucket_list(r->vhost, r->user, &list)
                                    : orbs3_load_bucket_list(r->vhost, r->user, &list);
    if (rc != 0) {
        orbs3_free_bucket_list(&list);
        return fail(r, ORBS3_S3_INTERNAL_ERROR, "/");
    }
    // The page moves onto a list of its own in name order; what stays behind is freed with the rest.
    std::vector<orbs3_bucket_t*> chosen;
    neo_list_head_t* pos;
    list_for_each(pos, &list) {
        auto* b = list_entry(pos, orbs3_bucket_t, link);
        std::string_view name = orbs3_str_view(b->name);
        if (name.starts_with(q.prefix) && name > std::string_view(q.after))
            chosen.push_back(b);
    }
    std::sort(chosen.begin(), chosen.end(),
              [](const orbs3_bucket_t* a, const orbs3_bucket_t* b) { return orbs3_str_view(a->name) < orbs3_str_view(b->name); });
    std::string next;
    if (q.max != 0 && chosen.size() > q.max) {
        chosen.resize(q.max);
        next = orbs3_list_token_encode(orbs3_str_view(chosen.back()->name));
    }
    std::vector<orbs3_s3_bucket_row_t> rows;
    rows.reserve(chosen.size());
    for (const orbs3_bucket_t* b : chosen)
        rows.push_back({orbs3_str_view(b->name), orbs3_str_view(b->alias), orbs3_str_view(b->created_date),
                        static_cast<int64_t>(b->stat.object_count)});
    neo_cstr_ptr doc(make_list_buckets_xml(rows, r->user, next,
                                           q.has_prefix ? std::optional<std::string_view>(q.prefix) : std::nullopt));
    orbs3_free_bucket_list(&list);
    if (!doc)
        return fail(r, ORBS3_S3_INTERNAL_ERROR, "/");
    return sent(orbs3_http_send_list_buckets_msg(r->connection, 200, r->resp.request_id, doc.get(),
                                                 r->resp.connection, r->resp.origin));
}

// The bucket exists and the requester may list it: 0, or the status that says why not.
static int check_listable(orbs3_http_request_t* r)
{
    orbs3_bucket_ptr b;
    return request_bucket(r, ORBS3_ACCESS_LIST, &b);
}

int orbs3_get_bucket_location(orbs3_http_request_t* r)
{
    if (int rc = check_listable(r); rc != 0)
        return rc;
    neo_cstr_ptr doc(make_bucket_location_xml());
    if (!doc)
        return fail(r, ORBS3_S3_INTERNAL_ERROR, bucket_name(r));
    return sent(orbs3_http_send_msg(r->connection, 200, doc.get(), r->resp.connection, r->resp.origin));
}

namespace {

// The administrative readers answer their own errors in JSON.
constexpr int kJsonNoSuchBucket = -4;
// A code without a row in the JSON table: 200 and an empty document.
constexpr int kJsonNoRow = 1;

int json_reply(orbs3_http_request_t* r, int code)
{
    (void)orbs3_send_http_respones(code, r);
    return 0;
}

}  // namespace

int orbs3_get_bucket_info(orbs3_http_request_t* r)
{
    std::string_view name = bucket_name(r);
    if (!legal_bucket_name(name))
        return json_reply(r, kJsonNoRow);
    char path[ORBS3_PATH_AREA];
    char* raw = nullptr;
    if (orbs3_get_bucket_path(r->vhost, name, path) != 0 || orbs3_read_data_from_file(path, &raw) != 0)
        return json_reply(r, kJsonNoSuchBucket);
    neo_cstr_ptr text(raw);
    if (!orbs3_record_text_whole(text.get(), "bucket"))
        return json_reply(r, kJsonNoSuchBucket);
    (void)orbs3_http_send_msg(r->connection, 200, text.get(), r->resp.connection, r->resp.origin);
    return 0;
}

int orbs3_get_bucket_stat(orbs3_http_request_t* r)
{
    std::string_view name = bucket_name(r);
    if (!legal_bucket_name(name))
        return json_reply(r, kJsonNoRow);
    orbs3_bucket_ptr b(orbs3_get_bucket(r->vhost, r->user, name));
    if (!b)
        return json_reply(r, kJsonNoSuchBucket);
    neo_cstr_ptr doc(orbs3_make_bucketstat_json(b.get()));
    if (!doc)
        return fail(r, ORBS3_S3_INTERNAL_ERROR, name);
    (void)orbs3_http_send_msg(r->connection, 200, doc.get(), r->resp.connection, r->resp.origin);
    return 0;
}

int orbs3_put_bucket_acl(orbs3_http_request_t* r)
{
    std::string_view name = bucket_name(r);
    if (!name.empty() && orbs3_check_bucketname(name) != 0)
        return fail(r, ORBS3_S3_INVALID_BUCKET_NAME, name);
    const char* body = orbs3_http_body_document(r);
    if (body == nullptr)
        return fail(r, ORBS3_S3_INTERNAL_ERROR, name);
    uint32_t acl = 0;
    bool given = false;
    if (int rc = orbs3_object_acl_from_request(r, &acl, &given); rc != 0)
        return fail(r, rc, name);
    // The ACL comes in the headers or in the body, never both.
    if (given && *body != '\0')
        return fail(r, ORBS3_S3_UNEXPECTED_CONTENT, name);
    if (!given && (parse_bucket_acl_xmlstring(body, &acl) != 0 || acl == 0))
        return fail(r, *body == '\0' ? ORBS3_S3_MISSING_REQUEST_BODY : ORBS3_S3_MALFORMED_ACL_ERROR, name);
    orbs3_bucket_ptr b;
    if (int rc = request_bucket(r, ORBS3_ACCESS_AUTHORITY, &b); rc != 0)
        return rc;
    b->acl = acl;
    if (orbs3_save_bucket(b.get(), neo_getstr(&b->meta_file)) != 0)
        return fail(r, ORBS3_S3_INTERNAL_ERROR, name);
    return sent(orbs3_http_send_put_bucket_acl_msg(r->connection, 200, r->resp.connection, r->resp.origin));
}

int orbs3_get_bucket_acl(orbs3_http_request_t* r)
{
    orbs3_bucket_ptr b;
    if (int rc = request_bucket(r, ORBS3_ACCESS_AUTHORITY, &b); rc != 0)
        return rc;
    neo_cstr_ptr doc(make_acl_xmlstring(b->acl, orbs3_str_view(b->owner_id), orbs3_str_view(b->owner_name)));
    if (!doc)
        return fail(r, ORBS3_S3_INTERNAL_ERROR, bucket_name(r));
    return sent(
        orbs3_http_send_get_bucket_acl_msg(r->connection, 200, doc.get(), r->resp.connection, r->resp.origin));
}

int orbs3_put_bucket_rename(orbs3_http_request_t* r)
{
    std::string_view new_name = bucket_name(r);
    const orbs3_header_t* src = r->headers_in.x_copy_source;
    std::string_view old_name = src != nullptr ? orbs3_str_view(src->value) : std::string_view();
    if (!legal_bucket_name(new_name) || !legal_bucket_name(old_name))
        return fail(r, ORBS3_S3_INVALID_BUCKET_NAME, new_name);
    orbs3_bucket_ptr b(orbs3_get_bucket(r->vhost, r->user, old_name));
    if (!b)
        return fail(r, ORBS3_S3_NO_SUCH_BUCKET, old_name);
    static constexpr int rename_code = ORBS3_ACCESS_RENAME;
    if (orbs3_access_check_chain(r->vhost, r->user, b.get(), r->connection->peer, &rename_code, nullptr,
                                 orbs3_access_chain_t::full) != 0)
        return fail(r, ORBS3_S3_ACCESS_DENIED, "/");
    // Only the name inside the record changes: the files and directories keep the old name, under which
    // the bucket stays reachable.
    if (orbs3_bucket_init_path(r->vhost, r->user, b.get(), old_name) != 0 ||
        orbs3_pstr_set(b->pool, &b->name, new_name.data(), new_name.size()) != 0 ||
        orbs3_save_bucket(b.get(), neo_getstr(&b->meta_file)) != 0)
        return fail(r, ORBS3_S3_INTERNAL_ERROR, new_name);
    return sent(orbs3_http_send_put_bucket_rename_msg(r->connection, 200, r->resp.connection, r->resp.origin));
}

int orbs3_head_bucket(orbs3_http_request_t* r)
{
    if (int rc = check_listable(r); rc != 0)
        return rc;
    return sent(orbs3_http_send_list_objects_msg(r->connection, 200, "", r->resp.connection, r->resp.origin));
}
