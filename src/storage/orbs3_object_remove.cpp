#include "storage/orbs3_object_remove.h"

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

#include "core/orbs3_tenant.h"
#include "core/orbs3_log.h"
#include "memory/neo_files.h"
#include "memory/neo_list.h"
#include "memory/neo_md5.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_bucket_ops.h"
#include "storage/orbs3_bucket_store.h"
#include "storage/orbs3_file_helpers.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object_store.h"
#include "storage/orbs3_object_read.h"
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

// Destroys the object at meta/data: the record first, so that no listing names an object whose bytes are
// gone, then the data file. A key that was not there counts nothing. 0 or -1 (a file that would not go).
int destroy_object(const char* meta, const char* data, orbs3_object_counts_t* counts)
{
    struct stat st {};
    const bool have_data = lstat(data, &st) == 0 && S_ISREG(st.st_mode);
    orbs3_object_ptr rec(orbs3_create_object_from_file(meta));
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
int destroy_tree(const char* meta, const char* data, orbs3_object_counts_t* counts, int depth)
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
int delete_directory_object(const orbs3_bucket_t* b, std::string_view key, orbs3_object_counts_t* counts)
{
    orbs3_object_path_t path;
    if (orbs3_make_object_path(b, key, "", &path) != 0)
        return ORBS3_S3_KEY_TOO_LONG;
    char marker[ORBS3_PATH_AREA];
    if (orbs3_object_dir_marker_path(path.meta_path, marker) != 0)
        return ORBS3_S3_KEY_TOO_LONG;
    if (unlink(marker) == 0)
        counts->objects++;
    else if (errno != ENOENT && errno != ENOTDIR)
        return ORBS3_S3_INTERNAL_ERROR;
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
int destroy_key(const orbs3_bucket_t* bucket, std::string_view key, orbs3_object_counts_t* counts)
{
    orbs3_object_path_t path;
    if (orbs3_make_object_path(bucket, key, "", &path) != 0)
        return ORBS3_S3_KEY_TOO_LONG;
    if (key.back() != '/') {
        if (destroy_object(path.meta_path, path.data_path, counts) != 0)
            return ORBS3_S3_INTERNAL_ERROR;
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
    return rc == 0 ? 0 : ORBS3_S3_INTERNAL_ERROR;
}

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

int orbs3_object_remove(const orbs3_bucket_t* bucket, std::string_view key, orbs3_remove_mode_t mode,
                        orbs3_object_counts_t* counts)
{
    if (key.back() == '/' && mode != orbs3_remove_mode_t::destroy_below)
        return delete_directory_object(bucket, key, counts);
    if (mode != orbs3_remove_mode_t::recycle)
        return destroy_key(bucket, key, counts);
    int64_t size = 0;
    const int rc = orbs3_delete_object_to_recycle(bucket, key, &size);
    if (rc == ORBS3_RECYCLE_NOTHING)
        return 0;
    if (rc != ORBS3_RECYCLE_MOVED)
        return rc;
    counts->objects++;
    counts->bytes += size;
    orbs3_remove_emptied_dirs(bucket, key);
    return 0;
}
