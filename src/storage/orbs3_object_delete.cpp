#include "storage/orbs3_object_delete.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "access/orbs3_access_check.h"
#include "core/orbs3_tenant.h"
#include "http/orbs3_http_request_body.h"
#include "http/orbs3_http_response.h"
#include "memory/neo_list.h"
#include "memory/neo_md5.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_documents.h"
#include "s3/orbs3_s3_errors.h"
#include "http/orbs3_http_header.h"
#include "storage/orbs3_bucket_ops.h"
#include "storage/orbs3_bucket_store.h"
#include "storage/orbs3_file_helpers.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object.h"
#include "storage/orbs3_object_body.h"
#include "storage/orbs3_object_commit.h"
#include "storage/orbs3_object_read.h"
#include "storage/orbs3_object_remove.h"
#include "s3/orbs3_s3_cgi.h"
#include "versions/orbs3_object_version.h"
#include "versions/orbs3_version_delete.h"

namespace {

void set_resource(orbs3_http_request_t* r, std::string_view key)
{
    const orbs3_str_t& b = r->req_msg.bucket;
    std::snprintf(r->resp.resource, sizeof r->resp.resource, "%.*s%s%.*s", static_cast<int>(b.len),
                  b.data != nullptr ? b.data : "", key.empty() ? "" : "/", static_cast<int>(key.size()),
                  key.empty() ? "" : key.data());
}

int replied(int rc)
{
    return rc == 0 ? 0 : -1;
}

// The batch's keys are what it destroys: a document damaged on its way is refused, not obeyed.
int check_content_md5(orbs3_http_request_t* r, const char* doc)
{
    std::string_view sent;
    if (!orbs3_http_find_header(r, "content-md5", &sent))
        return 0;
    uint8_t want[NEO_MD5_LEN], got[NEO_MD5_LEN];
    if (!orbs3_parse_content_md5(sent, want))
        return ORBS3_S3_INVALID_DIGEST;
    neo_md5_t md5;
    if (neo_md5_init(&md5) != 0 || neo_md5_update(&md5, doc, std::strlen(doc)) != 0 || neo_md5_final(got, &md5) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    return std::memcmp(want, got, sizeof want) != 0 ? ORBS3_S3_BAD_DIGEST : 0;
}

// The versionId of the query, when it names one. False when it is missing; an empty value is sent on as
// one, which the engine refuses as no id at all.
bool version_id_of(orbs3_http_request_t* r, std::string* out)
{
    if (r->args.len == 0)
        return false;
    std::string args(orbs3_str_view(r->args));
    orbs3_cgi_form form(cgiParseGetFormInput(args.c_str()));
    for (const cgiFormEntry* e = form.get(); e != nullptr; e = e->next) {
        if (e->key != nullptr && std::strcmp(e->key, "versionId") == 0) {
            out->assign(e->value != nullptr && e->value_length > 0 ? e->value : "",
                        e->value != nullptr && e->value_length > 0 ? static_cast<std::size_t>(e->value_length) : 0);
            return true;
        }
    }
    return false;
}

// One key's delete on a bucket that may hold versions: with `version_id` that version, else on an enabled
// bucket a delete marker, else the object to the recycle tree (or destroyed, as the batch does). It holds
// the key's commit lock, so that no write of the key comes between its steps. done->gone gets the live
// objects that left (less those that came back).
int delete_one(orbs3_http_request_t* r, const orbs3_bucket_t* bucket, std::string_view key,
               const std::string* version_id, orbs3_remove_mode_t mode, orbs3_version_delete_t* done)
{
    orbs3_object_path_t path;
    if (orbs3_make_object_path(bucket, key, "", &path) != 0)
        return ORBS3_S3_KEY_TOO_LONG;
    orbs3_commit_lock_t lock;
    // A key whose directory is not there (or is an object) has nothing live to guard; its delete goes on
    // without the lock.
    if (key.back() != '/' && orbs3_commit_lock(path.data_path, &lock) != 0 && errno != ENOENT && errno != ENOTDIR)
        return ORBS3_S3_INTERNAL_ERROR;
    if (version_id != nullptr)
        return orbs3_version_delete_id(bucket, key, *version_id, done);
    if (bucket->versioning.status == 1 && key.back() != '/') {
        const orbs3_version_owner_t owner{orbs3_str_view(r->user->UserId), orbs3_str_view(r->user->DisPlayName)};
        return orbs3_version_delete_latest(bucket, key, owner, done);
    }
    if (orbs3_versioning_ever_set(bucket)) {
        if (orbs3_object_ptr rec{orbs3_create_object_from_file(path.meta_path)}) {
            const std::string_view id = orbs3_object_version_id(rec.get());
            std::snprintf(done->version_id, sizeof done->version_id, "%.*s", static_cast<int>(id.size()), id.data());
        }
    }
    return orbs3_object_remove(bucket, key, mode, &done->gone);
}

}  // namespace

int orbs3_delete_object_msg(orbs3_http_request_t* r)
{
    const std::string_view name = orbs3_str_view(r->req_msg.bucket);
    const std::string_view key = orbs3_str_view(r->req_msg.object);
    set_resource(r, key);
    if (name.empty() || orbs3_check_bucketname(name) != 0)
        return ORBS3_S3_INVALID_BUCKET_NAME;
    if (key.empty())
        return ORBS3_S3_INVALID_ARGUMENT;
    if (int st = orbs3_object_key_status(key); st != 0)
        return st;
    // DeleteObject runs no per-bucket rule: the rules that deny deletion bind the batch and the immediate
    // delete, whose bytes are gone for good; these stay in the recycle tree.
    orbs3_bucket_ptr bucket(orbs3_get_bucket(r->vhost, r->user, name));
    if (!bucket)
        return ORBS3_S3_NO_SUCH_BUCKET;
    if (orbs3_bucket_init_path(r->vhost, r->user, bucket.get(), name) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    std::string version_id;
    const bool by_version = version_id_of(r, &version_id);
    orbs3_version_delete_t done;
    const int st = delete_one(r, bucket.get(), key, by_version ? &version_id : nullptr, orbs3_remove_mode_t::recycle,
                              &done);
    // What left (or came back) is counted also when a later step failed.
    if (done.gone.objects != 0 || done.gone.bytes != 0) {
        orbs3_object_count_in_bucket(bucket.get(), -done.gone.objects, -done.gone.bytes);
        r->vhost->object_count.fetch_sub(done.gone.objects);
    }
    if (st == ORBS3_S3_INVALID_ARGUMENT && by_version)
        r->resp.message = "Invalid version id specified";
    if (st != 0)
        return st;
    if (done.version_id[0] == '\0' && !done.delete_marker)
        return replied(orbs3_http_send_del_object_msg(r->connection, 204, r->resp.connection, r->resp.origin));
    char extra[128];
    std::snprintf(extra, sizeof extra, "%s%sx-amz-version-id: %s", done.delete_marker ? "x-amz-delete-marker: true" : "",
                  done.delete_marker ? "\r\n" : "", done.version_id[0] != '\0' ? done.version_id : "null");
    return replied(
        orbs3_http_send_del_object_version_msg(r->connection, 204, r->resp.connection, r->resp.origin, extra));
}

int orbs3_delete_object_vorne(orbs3_http_request_t* r)
{
    orbs3_bucket_t* raw = nullptr;
    std::string_view key;
    int rc = orbs3_object_request_bucket(r, ORBS3_ACCESS_DELETE, &raw, &key);
    if (rc != 0)
        return rc;
    orbs3_bucket_ptr bucket(raw);
    orbs3_object_path_t path;
    if (orbs3_make_object_path(raw, key, "", &path) != 0)
        return ORBS3_S3_KEY_TOO_LONG;
    if (orbs3_access_file(path.meta_path) != 0 && orbs3_access_file(path.data_path) != 0)
        return ORBS3_S3_NO_SUCH_KEY;
    // A directory key destroys everything below it: this action is orbmux's own, and asked for by name.
    // A batch delete names keys, and takes only those.
    orbs3_object_counts_t counts;
    rc = orbs3_object_remove(raw, key, orbs3_remove_mode_t::destroy_below, &counts);
    if (counts.objects != 0)
        orbs3_object_count_in_bucket(raw, -counts.objects, -counts.bytes);
    if (rc != 0)
        return rc;
    return replied(orbs3_http_send_del_object_msg(r->connection, 204, r->resp.connection, r->resp.origin));
}

int orbs3_delete_objects(orbs3_http_request_t* r)
{
    static constexpr int del = ORBS3_ACCESS_DELETE;
    orbs3_bucket_t* raw = nullptr;
    int rc = orbs3_request_bucket(r, nullptr, &del, orbs3_access_chain_t::full, &raw);
    if (rc != 0)
        return rc;
    orbs3_bucket_ptr bucket(raw);
    set_resource(r, {});

    const char* doc = orbs3_http_body_document(r);
    if (doc == nullptr)
        return ORBS3_S3_INTERNAL_ERROR;
    if (doc[0] == '\0')
        return ORBS3_S3_MISSING_REQUEST_BODY;
    if ((rc = check_content_md5(r, doc)) != 0)
        return rc;
    neo_list_head_t keys, deleted, failed;
    INIT_LIST_HEAD(&keys);
    INIT_LIST_HEAD(&deleted);
    INIT_LIST_HEAD(&failed);
    if (parse_del_objects_xmlstring(doc, &keys, r->pool) != 0 || list_empty(&keys))
        return ORBS3_S3_MALFORMED_XML;
    const bool quiet = parse_del_objects_quiet(doc);

    // A key that is not there counts as deleted, as S3 has it: the batch says what is no longer in the
    // bucket. Only keys that can't be keys, or that could not be removed, are errors. A directory key
    // names its directory object alone: the keys below it stay, as they do for DeleteObject.
    // A VersionId deletes that version; without one, an enabled bucket gets a delete marker, and any
    // other bucket loses the object for good, as before versions.
    orbs3_object_counts_t counts;
    neo_list_head_t *pos, *next;
    list_for_each_safe(pos, next, &keys) {
        auto* k = list_entry(pos, orbs3_del_key_t, link);
        const std::string_view key = orbs3_str_view(k->key);
        list_del(&k->link);
        bool ok = !key.empty() && orbs3_object_key_status(key) == 0;
        if (ok) {
            const std::string version_id(orbs3_str_view(k->version_id));
            orbs3_version_delete_t done;
            ok = delete_one(r, raw, key, k->version_id.data != nullptr ? &version_id : nullptr,
                            orbs3_remove_mode_t::destroy, &done) == 0;
            counts.objects += done.gone.objects;
            counts.bytes += done.gone.bytes;
            k->delete_marker = ok && done.delete_marker;
            if (k->delete_marker) {
                // A marker removed by its id is named by that id; one made has its own.
                const char* id = k->version_id.data != nullptr ? k->version_id.data : done.version_id;
                ok = orbs3_pstr_set(r->pool, &k->delete_marker_version_id, id, std::strlen(id)) == 0;
            }
        }
        list_add_tail(&k->link, ok ? &deleted : &failed);
    }
    if (counts.objects != 0 || counts.bytes != 0)
        orbs3_object_count_in_bucket(raw, -counts.objects, -counts.bytes);

    neo_list_head_t none;
    INIT_LIST_HEAD(&none);
    neo_cstr_ptr body(make_del_objects_xmlstring(quiet ? &none : &deleted, &failed));
    if (!body)
        return ORBS3_S3_INTERNAL_ERROR;
    return replied(
        orbs3_http_send_del_objects_msg(r->connection, 200, body.get(), r->resp.connection, r->resp.origin));
}
