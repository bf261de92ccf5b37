#include "storage/orbs3_object_delete.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "access/orbs3_access_check.h"
#include "control/orbs3_service.h"
#include "core/orbs3_log.h"
#include "http/orbs3_http_request_body.h"
#include "http/orbs3_http_response.h"
#include "memory/neo_files.h"
#include "memory/neo_list.h"
#include "memory/neo_md5.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_documents.h"
#include "s3/orbs3_s3_errors.h"
#include "s3/orbs3_s3_sign_parts.h"
#include "storage/orbs3_bucket_ops.h"
#include "storage/orbs3_bucket_store.h"
#include "storage/orbs3_file_helpers.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object.h"
#include "storage/orbs3_object_body.h"
#include "storage/orbs3_record.h"
#include "versions/orbs3_recycle.h"

namespace {

// One directory a client asked to delete while keys below it remained. Entry and texts are heap blocks,
// freed when the directory goes.
struct orbs3_del_dir_t {
    neo_list_head_t link;
    orbs3_str_t bucket;  // the bucket's meta directory: names the bucket of one owner in one tenant
    orbs3_str_t dir;     // the key of the directory without its trailing "/"
};

// Every epoll thread of the worker deletes; the list is short-lived and small, one lock is enough.
std::mutex delobjectdir_lock;
neo_list_head_t delobjectdir = {&delobjectdir, &delobjectdir};

// Directory walks are bounded: keys hold at most objectdirnum "/", and anything deeper is not ours.
constexpr int kMaxDepth = 64;

constexpr int status(uint32_t code)
{
    return static_cast<int>(code);
}

// "<a>/<b>" into a path area; false when it does not fit.
bool join(char (&out)[ORBS3_PATH_AREA], std::string_view a, std::string_view b)
{
    int n = std::snprintf(out, sizeof out, "%.*s/%.*s", static_cast<int>(a.size()), a.data(),
                          static_cast<int>(b.size()), b.data());
    if (n < 0 || static_cast<std::size_t>(n) >= sizeof out) {
        out[0] = '\0';
        return false;
    }
    return true;
}

orbs3_del_dir_t* find_mark(std::string_view bucket, std::string_view dir)
{
    neo_list_head_t* pos;
    list_for_each(pos, &delobjectdir) {
        auto* e = list_entry(pos, orbs3_del_dir_t, link);
        if (orbs3_str_view(e->bucket) == bucket && orbs3_str_view(e->dir) == dir)
            return e;
    }
    return nullptr;
}

void unmark(std::string_view bucket, std::string_view dir)
{
    std::lock_guard<std::mutex> hold(delobjectdir_lock);
    if (orbs3_del_dir_t* e = find_mark(bucket, dir)) {
        list_del(&e->link);
        neo_strfree(&e->bucket);
        neo_strfree(&e->dir);
        std::free(e);
    }
}

bool is_dir_entry(DIR* d, const dirent* e)
{
    if (e->d_type == DT_DIR)
        return true;
    if (e->d_type != DT_UNKNOWN)
        return false;
    struct stat st;
    return fstatat(dirfd(d), e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
}

bool dot_name(const char* n)
{
    return n[0] == '.' && (n[1] == '\0' || (n[1] == '.' && n[2] == '\0'));
}

bool reserved(const char* n)
{
    return std::string_view(n).starts_with(ORBS3_RESERVED_PREFIX);
}

// Removes the empty directories of the tree at meta/data, deepest first: a directory goes only once
// nothing is left in it, so a file that arrives meanwhile keeps its directories. A data directory goes
// only when its meta directory has gone. True when both are gone (or were never there).
bool prune_pair(const char* meta, const char* data, int depth)
{
    if (depth > kMaxDepth)
        return false;
    for (const char* root : {meta, data}) {
        neo_dir_ptr d(opendir(root));
        if (!d)
            continue;
        while (const dirent* e = readdir(d.get())) {
            // Server-owned directories (the staging of an open multipart upload) are not ours to remove.
            if (dot_name(e->d_name) || reserved(e->d_name) || !is_dir_entry(d.get(), e))
                continue;
            char m[ORBS3_PATH_AREA], k[ORBS3_PATH_AREA];
            if (join(m, meta, e->d_name) && join(k, data, e->d_name))
                (void)prune_pair(m, k, depth + 1);
        }
    }
    if (rmdir(meta) != 0 && errno != ENOENT)
        return false;
    return rmdir(data) == 0 || errno == ENOENT;
}

// The parent of a key's directory part: "a/b" for "a/b/c", "" for "a".
std::string_view parent_of(std::string_view key)
{
    std::size_t slash = key.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : key.substr(0, slash);
}

// ---- hard deletes ----

struct counts_t {
    int64_t objects = 0;
    int64_t bytes = 0;
};

struct object_free {
    void operator()(orbs3_object_t* o) const noexcept { orbs3_free_object(o); }
};
using object_ptr = std::unique_ptr<orbs3_object_t, object_free>;

// Destroys the object at meta/data: the record first, so that no listing names an object whose bytes are
// gone, then the data file. A key that was not there counts nothing. 0 or -1 (a file that would not go).
int destroy_object(const char* meta, const char* data, counts_t* counts)
{
    struct stat st {};
    const bool have_data = lstat(data, &st) == 0 && S_ISREG(st.st_mode);
    object_ptr rec(orbs3_create_object_from_file(meta));
    bool had_record = false;
    if (unlink(meta) == 0)
        had_record = true;
    else if (errno != ENOENT && errno != EISDIR && errno != ENOTDIR)
        return -1;
    if (have_data && unlink(data) != 0 && errno != ENOENT)
        return -1;
    if (had_record || have_data) {
        counts->objects++;
        counts->bytes += rec ? static_cast<int64_t>(rec->size) : static_cast<int64_t>(st.st_size);
    }
    return 0;
}

// Everything below a directory key, destroyed: every record with its data file, directory records,
// then data files that had no record. Temporary files of uploads in progress are left to their uploads.
// 0, or -1 when something could not be read or removed (the walk goes on with the rest).
int destroy_tree(const char* meta, const char* data, counts_t* counts, int depth)
{
    if (depth > kMaxDepth)
        return -1;
    int rc = 0;
    for (const char* root : {meta, data}) {
        neo_dir_ptr d(opendir(root));
        if (!d) {
            if (errno != ENOENT && errno != ENOTDIR)
                rc = -1;
            continue;
        }
        while (const dirent* e = readdir(d.get())) {
            // Names of the server's own (records and uploads in the making, the staging of multipart
            // uploads) belong to no key: only a directory object's record goes with the directory.
            if (dot_name(e->d_name) || (reserved(e->d_name) && !(root == meta && e->d_name == ORBS3_DIR_MARKER)))
                continue;
            char m[ORBS3_PATH_AREA], k[ORBS3_PATH_AREA];
            if (!join(m, meta, e->d_name) || !join(k, data, e->d_name)) {
                rc = -1;
                continue;
            }
            if (is_dir_entry(d.get(), e)) {
                if (destroy_tree(m, k, counts, depth + 1) != 0)
                    rc = -1;
            } else if (root == meta && e->d_name == ORBS3_DIR_MARKER) {
                // A directory object's record: an object of the bucket without bytes.
                if (unlink(m) == 0)
                    counts->objects++;
                else if (errno != ENOENT)
                    rc = -1;
            } else if (destroy_object(m, k, counts) != 0) {
                rc = -1;
            }
        }
    }
    return rc;
}

// The directory object `key` ("a/b/"), and nothing below it: its record goes now, counted; the directory
// goes once nothing is below it, now or with the last key below it. A directory without a record is only
// marked. 0, or a status.
int delete_directory_object(const orbs3_bucket_t* b, std::string_view key, counts_t* counts)
{
    orbs3_object_path_t path;
    if (orbs3_make_object_path(b, key, "", &path) != 0)
        return status(ORBS3_S3_KEY_TOO_LONG);
    char marker[ORBS3_PATH_AREA];
    if (orbs3_object_dir_marker_path(path.meta_path, marker) != 0)
        return status(ORBS3_S3_KEY_TOO_LONG);
    if (unlink(marker) == 0)
        counts->objects++;
    else if (errno != ENOENT && errno != ENOTDIR)
        return status(ORBS3_S3_INTERNAL_ERROR);
    const std::string_view dir = key.substr(0, key.size() - 1);
    if (orbs3_access_file(path.meta_path) == 0 || orbs3_access_file(path.data_path) == 0) {
        orbs3_mark_deling_object_dir(b, dir);
        if (orbs3_del_object_dirs(b, dir) == 1)
            orbs3_remove_emptied_dirs(b, key);
    }
    return 0;
}

// Destroys `key` of the bucket, a directory key with everything below it (the immediate delete's
// meaning of a directory key). 0, or a status.
int destroy_key(const orbs3_bucket_t* bucket, std::string_view key, counts_t* counts)
{
    orbs3_object_path_t path;
    if (orbs3_make_object_path(bucket, key, "", &path) != 0)
        return status(ORBS3_S3_KEY_TOO_LONG);
    if (key.back() != '/') {
        if (destroy_object(path.meta_path, path.data_path, counts) != 0)
            return status(ORBS3_S3_INTERNAL_ERROR);
        orbs3_remove_emptied_dirs(bucket, key);
        return 0;
    }
    // The *_path of a directory key ends in "/".
    std::string_view meta(path.meta_path), data(path.data_path);
    meta.remove_suffix(1);
    data.remove_suffix(1);
    char m[ORBS3_PATH_AREA], d[ORBS3_PATH_AREA];
    std::snprintf(m, sizeof m, "%.*s", static_cast<int>(meta.size()), meta.data());
    std::snprintf(d, sizeof d, "%.*s", static_cast<int>(data.size()), data.data());
    int rc = destroy_tree(m, d, counts, 0);
    const std::string_view dir = key.substr(0, key.size() - 1);
    if (prune_pair(m, d, 0))
        unmark(orbs3_str_view(bucket->meta_dir), dir);
    orbs3_remove_emptied_dirs(bucket, key);
    return rc == 0 ? 0 : status(ORBS3_S3_INTERNAL_ERROR);
}

void set_resource(orbs3_http_request_t* r, std::string_view key)
{
    const orbs3_str_t& b = r->req_msg.bucket;
    std::snprintf(r->resp.resource, sizeof r->resp.resource, "%.*s%s%.*s", static_cast<int>(b.len),
                  b.data != nullptr ? b.data : "", key.empty() ? "" : "/", static_cast<int>(key.size()), key.empty() ? "" : key.data());
}

int replied(int rc)
{
    return rc == 0 ? 0 : -1;
}

using bucket_ptr = std::unique_ptr<orbs3_bucket_t, decltype(&orbs3_free_bucket)>;

}  // namespace

// ---- the list of directories being deleted ----

void orbs3_mark_deling_object_dir(const orbs3_bucket_t* bucket, std::string_view dir)
{
    const std::string_view b = orbs3_str_view(bucket->meta_dir);
    std::lock_guard<std::mutex> hold(delobjectdir_lock);
    if (find_mark(b, dir) != nullptr)
        return;
    auto* e = static_cast<orbs3_del_dir_t*>(std::calloc(1, sizeof(orbs3_del_dir_t)));
    if (e == nullptr)
        return;
    neo_strdup(&e->bucket, b.data(), b.size());
    neo_strdup(&e->dir, dir.data(), dir.size());
    if (e->bucket.data == nullptr || e->dir.data == nullptr) {
        neo_strfree(&e->bucket);
        neo_strfree(&e->dir);
        std::free(e);
        return;
    }
    list_add_tail(&e->link, &delobjectdir);
}

bool orbs3_get_deling_object_dirs(const orbs3_bucket_t* bucket, std::string_view dir)
{
    if (dir.empty())
        return false;
    std::lock_guard<std::mutex> hold(delobjectdir_lock);
    return find_mark(orbs3_str_view(bucket->meta_dir), dir) != nullptr;
}

int orbs3_del_object_dirs(const orbs3_bucket_t* bucket, std::string_view dir)
{
    if (!orbs3_get_deling_object_dirs(bucket, dir))
        return 0;
    char meta[ORBS3_PATH_AREA], data[ORBS3_PATH_AREA];
    if (orbs3_tree_path(orbs3_str_view(bucket->meta_dir), dir, meta) != 0 ||
        orbs3_tree_path(orbs3_str_view(bucket->data_dir), dir, data) != 0)
        return 0;
    if (!prune_pair(meta, data, 0))
        return 0;
    unmark(orbs3_str_view(bucket->meta_dir), dir);
    return 1;
}

void orbs3_remove_emptied_dirs(const orbs3_bucket_t* bucket, std::string_view key)
{
    if (!key.empty() && key.back() == '/')
        key.remove_suffix(1);
    for (std::string_view dir = parent_of(key); !dir.empty(); dir = parent_of(dir)) {
        if (orbs3_get_deling_object_dirs(bucket, dir)) {
            if (orbs3_del_object_dirs(bucket, dir) == 1)
                continue;
            return;
        }
        char meta[ORBS3_PATH_AREA], data[ORBS3_PATH_AREA];
        if (orbs3_tree_path(orbs3_str_view(bucket->meta_dir), dir, meta) != 0 ||
            orbs3_tree_path(orbs3_str_view(bucket->data_dir), dir, data) != 0)
            return;
        if (rmdir(meta) != 0 && errno != ENOENT)
            return;
        if (rmdir(data) != 0 && errno != ENOENT)
            return;
    }
}

// ---- handlers ----

int orbs3_delete_object_msg(orbs3_http_request_t* r)
{
    const std::string_view name = orbs3_str_view(r->req_msg.bucket);
    const std::string_view key = orbs3_str_view(r->req_msg.object);
    set_resource(r, key);
    if (name.empty() || orbs3_check_bucketname(name) != 0)
        return status(ORBS3_S3_INVALID_BUCKET_NAME);
    if (key.empty())
        return status(ORBS3_S3_INVALID_ARGUMENT);
    if (int st = orbs3_object_key_status(key); st != 0)
        return st;
    // DeleteObject runs no per-bucket rule: the rules that deny deletion bind the batch and the immediate
    // delete, whose bytes are gone for good; these stay in the recycle tree.
    bucket_ptr bucket(orbs3_get_bucket(r->vhost, r->user, name), &orbs3_free_bucket);
    if (!bucket)
        return status(ORBS3_S3_NO_SUCH_BUCKET);
    if (orbs3_bucket_init_path(r->vhost, r->user, bucket.get(), name) != 0)
        return status(ORBS3_S3_INTERNAL_ERROR);
    const orbs3_bucket_t* b = bucket.get();

    if (key.back() == '/') {
        counts_t counts;
        if (int st = delete_directory_object(b, key, &counts); st != 0)
            return st;
        if (counts.objects != 0) {
            orbs3_object_count_in_bucket(b, -counts.objects, 0);
            r->vhost->object_count.fetch_sub(counts.objects);
        }
    } else {
        int64_t size = 0;
        int rc = orbs3_delete_object_to_recycle(b, key, &size);
        if (rc != ORBS3_RECYCLE_NOTHING && rc != ORBS3_RECYCLE_MOVED)
            return rc;
        if (rc == ORBS3_RECYCLE_MOVED) {
            orbs3_object_count_in_bucket(b, -1, -size);
            r->vhost->object_count.fetch_sub(1);
            orbs3_remove_emptied_dirs(b, key);
        }
    }
    return replied(orbs3_http_send_del_object_msg(r->connection, 204, r->resp.connection, r->resp.origin));
}

int orbs3_delete_object_vorne(orbs3_http_request_t* r)
{
    orbs3_bucket_t* raw = nullptr;
    std::string_view key;
    int rc = orbs3_object_request_bucket(r, ORBS3_ACCESS_DELETE, &raw, &key);
    if (rc != 0)
        return rc;
    bucket_ptr bucket(raw, &orbs3_free_bucket);
    orbs3_object_path_t path;
    if (orbs3_make_object_path(raw, key, "", &path) != 0)
        return status(ORBS3_S3_KEY_TOO_LONG);
    if (orbs3_access_file(path.meta_path) != 0 && orbs3_access_file(path.data_path) != 0)
        return status(ORBS3_S3_NO_SUCH_KEY);
    // A directory key destroys everything below it: this action is orbmux's own, and asked for by name.
    // A batch delete names keys, and takes only those.
    counts_t counts;
    rc = destroy_key(raw, key, &counts);
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
    bucket_ptr bucket(raw, &orbs3_free_bucket);
    set_resource(r, {});

    const char* doc = orbs3_http_body_document(r);
    if (doc == nullptr)
        return status(ORBS3_S3_INTERNAL_ERROR);
    if (doc[0] == '\0')
        return status(ORBS3_S3_MISSING_REQUEST_BODY);
    // The keys of a batch are what it destroys: a document damaged on its way is refused, not obeyed.
    if (std::string_view sent; orbs3_sign_find_header(r, "content-md5", &sent)) {
        uint8_t want[NEO_MD5_LEN], got[NEO_MD5_LEN];
        if (!orbs3_parse_content_md5(sent, want))
            return status(ORBS3_S3_INVALID_DIGEST);
        neo_md5_t md5;
        if (neo_md5_init(&md5) != 0 || neo_md5_update(&md5, doc, std::strlen(doc)) != 0 || neo_md5_final(got, &md5) != 0)
            return status(ORBS3_S3_INTERNAL_ERROR);
        if (std::memcmp(want, got, sizeof want) != 0)
            return status(ORBS3_S3_BAD_DIGEST);
    }
    neo_list_head_t keys, deleted, failed;
    INIT_LIST_HEAD(&keys);
    INIT_LIST_HEAD(&deleted);
    INIT_LIST_HEAD(&failed);
    if (parse_del_objects_xmlstring(doc, &keys, r->pool) != 0 || list_empty(&keys))
        return status(ORBS3_S3_MALFORMED_XML);
    const bool quiet = parse_del_objects_quiet(doc);

    // A key that is not there counts as deleted, as S3 has it: the batch says what is no longer in the
    // bucket. Only keys that can't be keys, or that could not be removed, are errors. A directory key
    // names its directory object alone: the keys below it stay, as they do for DeleteObject.
    counts_t counts;
    neo_list_head_t *pos, *next;
    list_for_each_safe(pos, next, &keys) {
        auto* k = list_entry(pos, orbs3_del_key_t, link);
        const std::string_view key = orbs3_str_view(k->key);
        list_del(&k->link);
        bool ok = !key.empty() && orbs3_object_key_status(key) == 0 &&
                  (key.back() == '/' ? delete_directory_object(raw, key, &counts) : destroy_key(raw, key, &counts)) == 0;
        if (ok)
            list_add_tail(&k->link, &deleted);
        else
            list_add_tail(&k->link, &failed);
    }
    if (counts.objects != 0)
        orbs3_object_count_in_bucket(raw, -counts.objects, -counts.bytes);

    neo_list_head_t none;
    INIT_LIST_HEAD(&none);
    neo_cstr_ptr body(make_del_objects_xmlstring(quiet ? &none : &deleted, &failed));
    if (!body)
        return status(ORBS3_S3_INTERNAL_ERROR);
    return replied(
        orbs3_http_send_del_objects_msg(r->connection, 200, body.get(), r->resp.connection, r->resp.origin));
}
