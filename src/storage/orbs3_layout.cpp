#include "storage/orbs3_layout.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <initializer_list>

#include "core/orbs3_config.h"
#include "core/orbs3_log.h"
#include "core/orbs3_tenant.h"
#include "s3/orbs3_s3_errors.h"

// Joins `parts` into `out` (an area of `cap` bytes). Refuses, with out emptied, instead of cutting.
static int join(char* out, std::size_t cap, std::initializer_list<std::string_view> parts)
{
    std::size_t len = 0;
    for (std::string_view p : parts) {
        if (p.size() >= cap - len) {
            out[0] = '\0';
            return -1;
        }
        if (!p.empty())  // an empty view may hold no pointer at all, which memcpy must not get
            std::memcpy(out + len, p.data(), p.size());
        len += p.size();
    }
    out[len] = '\0';
    return 0;
}

static bool is_dot_name(std::string_view c)
{
    return c == "." || c == "..";
}

// A single directory level of our own making (bucket or owner): anything that could step elsewhere is out.
static bool safe_component(std::string_view c)
{
    return !c.empty() && !is_dot_name(c) && c.find('/') == std::string_view::npos &&
           c.find('\0') == std::string_view::npos;
}

// The structural part of the key check, independent of the configured limits: a key that passes stays
// inside its bucket's tree and names no other key's file. Every component is a real name: not empty (the
// file system folds "a//b" into "a/b" and "/a" into "a", so such a key would share another key's file),
// not "." or "..". Only the last component may be empty, after the "/" of a directory object.
static bool safe_key(std::string_view key)
{
    if (key.empty() || key.find('\0') != std::string_view::npos)
        return false;
    std::size_t start = 0;
    while (start < key.size()) {
        std::size_t end = std::min(key.find('/', start), key.size());
        std::string_view c = key.substr(start, end - start);
        if (c.empty() || is_dot_name(c))
            return false;
        start = end + 1;
    }
    return true;
}

// A limit from the configuration, capped by the area the value must fit in.
static std::size_t limit(int configured, std::size_t area)
{
    return configured < 0 ? 0 : std::min(static_cast<std::size_t>(configured), area - 1);
}

static void make_roots(const orbs3_vhost_t* vh)
{
    char area[ORBS3_PATH_AREA];
    // Failures are left to the first request that needs the directory: another node may be racing us.
    (void)mkdir_p(vh->data_root.data, ORBS3_DIR_MODE);
    for (std::string_view sub : {"/bucket", "/object"})
        if (join(area, sizeof(area), {orbs3_str_view(vh->meta_root), sub}) == 0)
            (void)mkdir_p(area, ORBS3_DIR_MODE);
    (void)mkdir_p(vh->version_root.data, ORBS3_DIR_MODE);
    (void)mkdir_p(vh->recycle_root.data, ORBS3_DIR_MODE);
}

int orbs3_init_path(orbs3_vhost_t* vhost)
{
    // Without the mount path the roots would hang from "/".
    if (vhost == nullptr || vhost->cluster_path.len == 0)
        return -1;
    struct root {
        orbs3_str_t* field;
        std::string_view tail;
    };
    const root roots[] = {{&vhost->data_root, "/data"},
                          {&vhost->meta_root, "/meta"},
                          {&vhost->version_root, "/version"},
                          {&vhost->recycle_root, "/recycle"}};

    int rc = 0;
    for (const root& r : roots) {
        char area[ORBS3_PATH_AREA];
        neo_strfree(r.field);
        if (join(area, sizeof(area), {orbs3_str_view(vhost->cluster_path), "/", orbs3_str_view(vhost->group_path), r.tail}) != 0) {
            ipd_log(LOG_ERR, "vhost %s: root path too long", neo_getstr(&vhost->id));
            rc = -1;
            continue;
        }
        neo_strdup(r.field, area, sizeof(area));
        if (r.field->data == nullptr)
            rc = -1;
    }
    if (rc != 0) {
        for (const root& r : roots)
            neo_strfree(r.field);
        return -1;
    }
    make_roots(vhost);
    return 0;
}

void orbs3_reload_path(neo_list_head_t* head)
{
    if (head == nullptr)
        return;
    for (neo_list_head_t* l = head->next; l != head; l = l->next) {
        auto* node = reinterpret_cast<orbs3_list_node_t*>(l);
        auto* vh = static_cast<const orbs3_vhost_t*>(node->data);
        if (vh != nullptr && vh->data_root.len != 0)
            make_roots(vh);
    }
}

// A copy of `area` in the bucket's pool.
static int pool_str(orbs3_pool_t* pool, orbs3_str_t* out, const char* area)
{
    return orbs3_pstr_set(pool, out, area, std::strlen(area));
}

int orbs3_bucket_init_path(const orbs3_vhost_t* vhost, const orbs3_user_t* /*user*/, orbs3_bucket_t* bucket,
                           std::string_view name)
{
    if (vhost == nullptr || bucket == nullptr || bucket->pool == nullptr)
        return -1;
    std::string_view owner = orbs3_str_view(bucket->owner_name);
    if (!safe_component(name) || name.size() >= ORBS3_NAME_AREA || !safe_component(owner) ||
        owner.size() >= ORBS3_NAME_AREA)
        return -1;

    char data_dir[ORBS3_PATH_AREA], meta_file[ORBS3_PATH_AREA], meta_dir[ORBS3_PATH_AREA];
    char version_dir[ORBS3_PATH_AREA], recycle_dir[ORBS3_PATH_AREA];
    const std::string_view meta_root = orbs3_str_view(vhost->meta_root);
    if (vhost->data_root.len == 0 || meta_root.empty() || vhost->version_root.len == 0 ||
        vhost->recycle_root.len == 0)
        return -1;
    if (join(data_dir, ORBS3_PATH_AREA, {orbs3_str_view(vhost->data_root), "/", owner, "/", name}) != 0 ||
        join(meta_file, ORBS3_PATH_AREA, {meta_root, "/", owner, "/bucket/"}) != 0 ||
        join(meta_dir, ORBS3_PATH_AREA, {meta_root, "/", owner, "/object/", name}) != 0 ||
        join(version_dir, ORBS3_PATH_AREA, {orbs3_str_view(vhost->version_root), "/", owner, "/", name}) != 0 ||
        join(recycle_dir, ORBS3_PATH_AREA, {orbs3_str_view(vhost->recycle_root), "/", owner, "/", name}) != 0)
        return -1;

    std::size_t dir_len = std::strlen(meta_file);
    if (join(meta_file + dir_len, ORBS3_PATH_AREA - dir_len, {name}) != 0)
        return -1;

    orbs3_pool_t* pool = bucket->pool;
    if (pool_str(pool, &bucket->data_dir, data_dir) != 0 || pool_str(pool, &bucket->meta_file, meta_file) != 0 ||
        pool_str(pool, &bucket->meta_dir, meta_dir) != 0 ||
        pool_str(pool, &bucket->version_dir, version_dir) != 0 ||
        pool_str(pool, &bucket->recycle_dir, recycle_dir) != 0)
        return -1;
    return 0;
}

int orbs3_tree_path(std::string_view tree, std::string_view key, char* out)
{
    out[0] = '\0';
    // An unset tree would put the key at the file system's root.
    if (tree.empty() || (!key.empty() && !safe_key(key)))
        return -1;
    if (join(out, ORBS3_PATH_AREA, {tree, "/", key}) != 0)
        return -1;
    // The key's components are names, none of them "." or "..": what was joined can only lie below the
    // tree. Said again on the result, so that a change to the check above can't open a way out unseen.
    const std::string_view path(out);
    if (!path.starts_with(tree) || path[tree.size()] != '/' || path.find("/../") != std::string_view::npos ||
        path.ends_with("/..")) {
        out[0] = '\0';
        return -1;
    }
    return 0;
}

int orbs3_get_object_path(const orbs3_bucket_t* bucket, std::string_view key, char* data, char* meta,
                          char* version, char* recycle)
{
    char* const outs[] = {data, meta, version, recycle};
    for (char* o : outs)
        if (o != nullptr)
            o[0] = '\0';
    if (bucket == nullptr || key.empty())
        return -1;
    const orbs3_str_t* const dirs[] = {&bucket->data_dir, &bucket->meta_dir, &bucket->version_dir,
                                       &bucket->recycle_dir};
    for (int i = 0; i < 4; i++) {
        if (outs[i] == nullptr)
            continue;
        if (orbs3_tree_path(orbs3_str_view(*dirs[i]), key, outs[i]) != 0) {
            for (char* o : outs)
                if (o != nullptr)
                    o[0] = '\0';
            return -1;
        }
    }
    return 0;
}

int orbs3_make_object_path(const orbs3_bucket_t* bucket, std::string_view key, std::string_view file_name,
                           orbs3_object_path_t* path)
{
    if (path == nullptr)
        return -1;
    std::string_view last = key.substr(key.rfind('/') + 1);  // npos + 1 == 0: the whole key
    if (!file_name.empty() && file_name != last)
        return -1;
    if (orbs3_get_object_path(bucket, key, path->data_path, path->meta_path, path->version_path,
                              path->recycle_path) != 0)
        return -1;

    const char* const full[] = {path->data_path, path->meta_path, path->version_path, path->recycle_path};
    char* const dirs[] = {path->data_dir, path->meta_dir, path->version_dir, path->recycle_dir};
    for (int i = 0; i < 4; i++) {
        std::size_t len = std::strlen(full[i]) - last.size();  // fits: it is a prefix of a path that fit
        std::memcpy(dirs[i], full[i], len);
        dirs[i][len] = '\0';
    }
    return 0;
}

int orbs3_make_dir_by_object_path(const char* path)
{
    if (path == nullptr)
        return ORBS3_S3_INTERNAL_ERROR;
    char area[ORBS3_PATH_AREA];
    if (join(area, sizeof(area), {path}) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    // A path ending in "/" is a directory object: everything in front of its last "/" is all of it.
    char* slash = std::strrchr(area, '/');
    if (slash == nullptr || slash == area)
        return 0;
    *slash = '\0';
    if (mkdir_p(area, ORBS3_DIR_MODE) != 0) {
        ipd_log(LOG_ERR, "mkdir %s failed: %s", area, std::strerror(errno));
        return ORBS3_S3_INTERNAL_ERROR;
    }
    return 0;
}

int orbs3_make_dir_by_name(std::string_view key, const char* path)
{
    if (key.find('/') == std::string_view::npos)
        return 0;
    return orbs3_make_dir_by_object_path(path);
}

int orbs3_check_dir_num(std::string_view str)
{
    return static_cast<int>(std::count(str.begin(), str.end(), '/'));
}

int orbs3_check_bucketname(std::string_view name)
{
    if (name.size() > limit(orbs3_conf.bucketmaxlen, ORBS3_NAME_AREA))
        return -1;
    if (orbs3_check_dir_num(name) != 0 || name.find('\0') != std::string_view::npos || is_dot_name(name))
        return -1;
    return 0;
}

int orbs3_check_objectname(std::string_view key)
{
    if (key.size() > limit(orbs3_conf.objectpathlen, ORBS3_PATH_AREA))
        return -1;
    if (orbs3_check_dir_num(key) > orbs3_conf.objectdirnum)
        return -1;
    if (!safe_key(key))
        return -1;
    const std::size_t component_max = limit(orbs3_conf.objectmaxlen, ORBS3_NAME_AREA);
    std::size_t start = 0;
    while (start <= key.size()) {
        std::size_t end = std::min(key.find('/', start), key.size());
        if (end - start > component_max)
            return -1;
        start = end + 1;
    }
    return 0;
}

bool orbs3_object_key_fits(const orbs3_bucket_t* bucket, std::string_view key)
{
    if (bucket == nullptr)
        return false;
    const std::size_t deepest = std::max({bucket->data_dir.len, bucket->meta_dir.len, bucket->version_dir.len,
                                          bucket->recycle_dir.len});
    // "<dir>/<key>", its terminator and the reserve.
    return deepest + 1 + key.size() + ORBS3_KEY_PATH_RESERVE < ORBS3_PATH_AREA;
}

int orbs3_check_key_conflict(const orbs3_bucket_t* bucket, std::string_view key)
{
    char area[ORBS3_PATH_AREA];
    if (bucket == nullptr || key.empty() || orbs3_tree_path(orbs3_str_view(bucket->data_dir), key, area) != 0)
        return -1;

    struct stat st;
    std::size_t key_start = std::strlen(area) - key.size();
    // Every prefix that ends before a "/" must be a directory, or not exist yet.
    for (char* s = area + key_start + 1; *s != '\0'; s++) {
        if (*s != '/' || s[-1] == '/')
            continue;
        *s = '\0';
        int rc = lstat(area, &st);
        *s = '/';
        if (rc != 0)
            return errno == ENOENT ? 0 : -1;
        if (!S_ISDIR(st.st_mode))
            return ORBS3_KEY_CONFLICT_FILE;
    }
    if (key.back() == '/')
        return 0;
    if (lstat(area, &st) != 0)
        return errno == ENOENT ? 0 : -1;
    return S_ISDIR(st.st_mode) ? ORBS3_KEY_CONFLICT_DIR : 0;
}
