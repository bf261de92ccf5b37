#include "storage/orbs3_object_store.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/orbs3_tenant.h"
#include "core/orbs3_log.h"
#include "memory/neo_md5.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_bucket_store.h"
#include "storage/orbs3_object_read.h"
#include "storage/orbs3_record.h"

namespace {

bool pool_set(orbs3_pool_t* pool, orbs3_str_t* s, std::string_view text)
{
    return text.empty() || orbs3_pstr_set(pool, s, text.data(), text.size()) == 0;
}

// A threshold text in kilobytes as bytes; -1 for none (unset, 0, not a number, or beyond int64).
int64_t threshold_bytes(const orbs3_str_t& text)
{
    if (text.len == 0 || text.data == nullptr)
        return -1;
    char* end = nullptr;
    errno = 0;
    unsigned long long kb = std::strtoull(text.data, &end, 10);
    if (errno != 0 || end == text.data || kb == 0 || kb > (static_cast<unsigned long long>(INT64_MAX) >> 10))
        return -1;
    return static_cast<int64_t>(kb << 10);
}

// Whether `text` is well-formed UTF-8: no stray continuation byte, no overlong form, no surrogate, nothing
// above U+10FFFF. S3 keys are Unicode; a key that is not can't be echoed in a listing document.
bool utf8_valid(std::string_view text)
{
    std::size_t i = 0;
    while (i < text.size()) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x80) {
            i++;
            continue;
        }
        // The lead byte tells how many continuation bytes follow; each length has a smallest code point,
        // below which the sequence is an overlong form of a shorter one.
        const std::size_t n = (c & 0xe0) == 0xc0 ? 1 : (c & 0xf0) == 0xe0 ? 2 : (c & 0xf8) == 0xf0 ? 3 : 0;
        if (n == 0)
            return false;
        constexpr uint32_t smallest[] = {0, 0x80, 0x800, 0x10000};
        const uint32_t min = smallest[n];
        uint32_t cp = c & (0x7fu >> (n + 1));
        if (text.size() - i <= n)
            return false;
        for (std::size_t k = 1; k <= n; k++) {
            const auto cc = static_cast<unsigned char>(text[i + k]);
            if ((cc & 0xc0) != 0x80)
                return false;
            cp = (cp << 6) | (cc & 0x3f);
        }
        if (cp < min || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff))
            return false;
        i += n + 1;
    }
    return true;
}

// The control bytes an XML 1.0 document can't hold in any form, not even as a character reference: a key
// holding one could be stored but never listed.
bool xml_forbidden(char byte)
{
    const auto c = static_cast<unsigned char>(byte);
    return c < 0x20 && c != '\t' && c != '\n' && c != '\r';
}

}  // namespace

// A key the trees can hold as it is, as the client sent it: within the configured lengths, every
// component a real name (the file system would fold "a//b" into "a/b" and "/a" into "a", and "." and ".."
// walk out of place), no component taking a name of the server's own (records in the making, directory
// records), and listable. Each refusal says which of these the key broke.
int orbs3_object_key_status(std::string_view key, const char** message)
{
    auto refuse = [message](int code, const char* text) {
        if (message != nullptr)
            *message = text;
        return code;
    };
    if (key.empty())
        return refuse(ORBS3_S3_INVALID_ARGUMENT, "The object key is empty.");
    if (!utf8_valid(key))
        return refuse(ORBS3_S3_INVALID_URI, nullptr);  // S3's own text for a key that is not UTF-8
    if (std::any_of(key.begin(), key.end(), xml_forbidden))
        return refuse(ORBS3_S3_INVALID_ARGUMENT,
                      "Object keys holding control characters other than tab, line feed and carriage return "
                      "are not accepted: a listing could not carry them.");
    if (key.front() == '/')
        return refuse(ORBS3_S3_INVALID_ARGUMENT,
                      "Object keys starting with \"/\" are not accepted: objects are files, and \"/a\" would be "
                      "the file of \"a\".");
    std::size_t start = 0;
    while (start < key.size()) {
        std::size_t end = std::min(key.find('/', start), key.size());
        const std::string_view part = key.substr(start, end - start);
        if (part.empty())
            return refuse(ORBS3_S3_INVALID_ARGUMENT,
                          "Object keys with an empty path segment (\"//\") are not accepted: objects are files, and "
                          "\"a//b\" would be the file of \"a/b\".");
        if (part == "." || part == "..")
            return refuse(ORBS3_S3_INVALID_ARGUMENT,
                          "Object keys with a \".\" or \"..\" path segment are not accepted.");
        if (part.starts_with(ORBS3_RESERVED_PREFIX))
            return refuse(ORBS3_S3_INVALID_ARGUMENT,
                          "Object key path segments starting with \".orbs3-\" are reserved for the server.");
        start = end + 1;
    }
    // The structure is sound: what is left to refuse is length and depth.
    if (orbs3_check_objectname(key) != 0)
        return refuse(ORBS3_S3_KEY_TOO_LONG, nullptr);
    return 0;
}

bool orbs3_object_key_printable(std::string_view key)
{
    return utf8_valid(key) && std::none_of(key.begin(), key.end(), xml_forbidden);
}

int orbs3_object_dir_marker_path(const char* meta_path, char out[ORBS3_PATH_AREA])
{
    const std::size_t len = std::strlen(meta_path);
    const bool slash = len != 0 && meta_path[len - 1] == '/';
    int n = std::snprintf(out, ORBS3_PATH_AREA, "%s%s%.*s", meta_path, slash ? "" : "/",
                          static_cast<int>(ORBS3_DIR_MARKER.size()), ORBS3_DIR_MARKER.data());
    return n < 0 || static_cast<std::size_t>(n) >= ORBS3_PATH_AREA ? -1 : 0;
}

int64_t orbs3_object_size_limit(const orbs3_vhost_t* vhost, const orbs3_bucket_t* bucket)
{
    int64_t limit = -1;
    if (vhost != nullptr && vhost->service_rec != nullptr)
        limit = threshold_bytes(vhost->service_rec->quota.file_threshold);
    if (bucket != nullptr) {
        // The bucket's threshold is stored as a number of kilobytes too.
        uint64_t kb = bucket->quota.file_threshold;
        if (kb != 0 && kb <= (static_cast<uint64_t>(INT64_MAX) >> 10)) {
            int64_t b = static_cast<int64_t>(kb << 10);
            limit = limit < 0 ? b : std::min(limit, b);
        }
    }
    return limit;
}

int orbs3_check_object_size(const orbs3_vhost_t* vhost, const orbs3_bucket_t* bucket, int64_t length)
{
    int64_t limit = orbs3_object_size_limit(vhost, bucket);
    return limit >= 0 && length > limit ? 1 : 0;
}

void Compute_file_md5(std::string_view name, int64_t size, std::string_view last_modified, char out[33])
{
    char text[ORBS3_PATH_AREA + 96];
    int n = std::snprintf(text, sizeof text, "%.*s:%" PRId64 ":%.*s", static_cast<int>(name.size()), name.data(),
                          size, static_cast<int>(last_modified.size()), last_modified.data());
    std::size_t len = n < 0 ? 0 : std::min(static_cast<std::size_t>(n), sizeof text - 1);
    neo_md5_t md5;
    uint8_t digest[NEO_MD5_LEN] = {};
    if (neo_md5_init(&md5) == 0) {
        (void)neo_md5_update(&md5, text, len);
        (void)neo_md5_final(digest, &md5);
    }
    *neo_hex(out, digest, NEO_MD5_LEN) = '\0';
}

int orbs3_object_write_record(const orbs3_user_t* owner, std::string_view key, const char* meta_path,
                              const char* data_path, const char* etag, int64_t size, const char* stamp,
                              const orbs3_object_meta_t* meta)
{
    orbs3_object_ptr o(orbs3_create_object_block());
    if (!o)
        return -1;
    INIT_LIST_HEAD(&o->tags);
    INIT_LIST_HEAD(&o->meta);
    orbs3_pool_t* pool = o->pool;
    o->size = static_cast<uint64_t>(size);
    o->acl = meta->acl;
    std::snprintf(o->path, sizeof o->path, "%s", data_path);
    std::snprintf(o->fpath, sizeof o->fpath, "%s", meta_path);
    bool ok = pool_set(pool, &o->name, key) && pool_set(pool, &o->etag, etag) &&
              pool_set(pool, &o->last_modified, stamp) && pool_set(pool, &o->owner_id, orbs3_str_view(owner->UserId)) &&
              pool_set(pool, &o->owner_display_name, orbs3_str_view(owner->DisPlayName)) &&
              pool_set(pool, &o->content_type, meta->content_type) &&
              pool_set(pool, &o->cache_control, meta->cache_control) &&
              pool_set(pool, &o->content_disposition, meta->content_disposition) &&
              pool_set(pool, &o->content_encoding, meta->content_encoding) &&
              pool_set(pool, &o->expires, meta->expires) &&
              pool_set(pool, &o->checksum_algorithm, meta->checksum_algorithm) &&
              pool_set(pool, &o->checksum, meta->checksum) &&
              pool_set(pool, &o->upload_id, meta->upload_id) &&
              pool_set(pool, &o->version_id, meta->version_id) &&
              pool_set(pool, &o->parts, meta->parts) &&
              pool_set(pool, &o->part_checksums, meta->part_checksums);
    auto add = [pool, &ok](neo_list_head_t* list, std::string_view key, std::string_view value) {
        auto* tag = static_cast<orbs3_tag_t*>(orbs3_pcalloc(pool, sizeof(orbs3_tag_t)));
        auto* node = static_cast<orbs3_list_node_t*>(orbs3_pcalloc(pool, sizeof(orbs3_list_node_t)));
        ok = tag != nullptr && node != nullptr && pool_set(pool, &tag->key, key) && pool_set(pool, &tag->value, value);
        if (ok) {
            node->data = tag;
            list_add_tail(&node->list, list);
        }
    };
    for (std::size_t i = 0; ok && i < meta->n; i++)
        add(&o->meta, meta->keys[i], meta->values[i]);
    for (std::size_t i = 0; ok && i < meta->ntags && i < ORBS3_OBJECT_TAGS_MAX; i++)
        add(&o->tags, meta->tag_keys[i], meta->tag_values[i]);
    if (!ok)
        return -1;
    // A delete that empties the key's directory removes it, and may do so between the mkdir and the
    // record's temporary file: the directory is made again.
    int rc = -1;
    for (int tries = 0; tries < 4; tries++) {
        if (orbs3_make_dir_by_name(key, meta_path) != 0)
            return -1;
        rc = orbs3_save_object(o.get(), meta_path);
        if (rc == 0 || errno != ENOENT)
            break;
    }
    return rc;
}

void orbs3_object_count_in_bucket(const orbs3_bucket_t* bucket, int64_t objects, int64_t bytes)
{
    const char* meta_file = neo_getstr(&bucket->meta_file);
    auto add = [](uint64_t v, int64_t d) { return d < 0 && v < static_cast<uint64_t>(-d) ? 0 : v + d; };
    if (orbs3_bucket_update(meta_file, [&](orbs3_bucket_t* fresh) {
            fresh->stat.object_count = add(fresh->stat.object_count, objects);
            fresh->stat.storage_in_bytes = add(fresh->stat.storage_in_bytes, bytes);
            return 0;
        }) != 0)
        ipd_log(LOG_ERR, "bucket record %s: statistics not changed: %s", meta_file, std::strerror(errno));
}

orbs3_object_before_t orbs3_object_before_commit(const char* data_path)
{
    struct stat st;
    if (lstat(data_path, &st) != 0 || !S_ISREG(st.st_mode))
        return {};
    return {true, static_cast<int64_t>(st.st_size)};
}

void orbs3_object_count_commit(orbs3_vhost_t* vhost, const orbs3_bucket_t* bucket, orbs3_object_before_t before,
                               int64_t size)
{
    if (before.existed) {
        if (size != before.size)
            orbs3_object_count_in_bucket(bucket, 0, size - before.size);
        return;
    }
    orbs3_object_count_in_bucket(bucket, 1, size);
    vhost->object_count.fetch_add(1);
}
