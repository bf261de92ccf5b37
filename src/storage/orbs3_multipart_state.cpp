// The records of a multipart upload and the checks of its Complete document: plain functions of texts
// and lists, so they can be tested without a daemon.
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "core/orbs3_tenant.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_checksum.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_multipart.h"
#include "storage/orbs3_object_body.h"
#include "storage/orbs3_record.h"

namespace {

constexpr std::string_view kUploadMagic = "orbs3-upload 1";
constexpr std::string_view kPartMagic = "orbs3-part 1";

// A value in a record line: every byte that is not printable, a blank or '%' as %XX, so keys with
// newlines or spaces keep one line and one field.
void put_encoded(std::string* out, std::string_view v)
{
    neo_pct_encode(out, v, neo_pct_keep::printable);
}

bool get_encoded(std::string_view v, std::string* out)
{
    out->clear();
    return neo_pct_decode(out, v);
}

void put_field(std::string* out, std::string_view name, std::string_view value)
{
    out->append(name);
    out->push_back(' ');
    put_encoded(out, value);
    out->push_back('\n');
}

// Calls f(name, value) for each "name value" line after the first, which must be `magic`. False for a
// text that does not start with it or does not end in a newline (a file cut short).
template <typename F>
bool for_each_line(std::string_view text, std::string_view magic, F&& f)
{
    if (text.empty() || text.back() != '\n')
        return false;
    std::size_t nl = text.find('\n');
    if (text.substr(0, nl) != magic)
        return false;
    text.remove_prefix(nl + 1);
    while (!text.empty()) {
        nl = text.find('\n');
        std::string_view line = text.substr(0, nl);
        text.remove_prefix(nl + 1);
        std::size_t sp = line.find(' ');
        std::string_view name = line.substr(0, sp);
        std::string_view value = sp == std::string_view::npos ? std::string_view() : line.substr(sp + 1);
        if (!f(name, value))
            return false;
    }
    return true;
}

bool parse_u64(std::string_view v, uint64_t* out)
{
    if (v.empty() || v.size() > 20)
        return false;
    uint64_t n = 0;
    for (char c : v) {
        if (c < '0' || c > '9')
            return false;
        const auto d = static_cast<uint64_t>(c - '0');
        if (n > (UINT64_MAX - d) / 10)
            return false;
        n = n * 10 + d;
    }
    *out = n;
    return true;
}

bool parse_md5_hex(std::string_view v, uint8_t out[NEO_MD5_LEN])
{
    return neo_unhex(v, out, NEO_MD5_LEN);
}

// An ETag as a client sends it back: quotes around it are allowed, hex case is not significant.
bool etag_matches(std::string_view sent, const uint8_t md5[NEO_MD5_LEN])
{
    if (sent.size() >= 2 && sent.front() == '"' && sent.back() == '"')
        sent = sent.substr(1, sent.size() - 2);
    uint8_t got[NEO_MD5_LEN];
    return parse_md5_hex(sent, got) && std::memcmp(got, md5, NEO_MD5_LEN) == 0;
}

// A checksum the document names must be the part's own, of the same algorithm.
bool checksum_matches(const orbs3_multipart_request_part_t& req, const orbs3_multipart_part_t& stored)
{
    return req.checksum.empty() ||
           (req.checksum_algorithm == stored.checksum_algorithm && req.checksum == stored.checksum);
}

}  // namespace

std::string orbs3_multipart_render_upload(const orbs3_multipart_upload_t& up)
{
    std::string out(kUploadMagic);
    out.push_back('\n');
    put_field(&out, "key", up.key);
    put_field(&out, "id", up.upload_id);
    put_field(&out, "initiator", up.initiator_id);
    put_field(&out, "initiator-name", up.initiator_name);
    put_field(&out, "created", up.created);
    put_field(&out, "content-type", up.content_type);
    put_field(&out, "cache-control", up.cache_control);
    put_field(&out, "content-disposition", up.content_disposition);
    put_field(&out, "content-encoding", up.content_encoding);
    put_field(&out, "expires", up.expires);
    if (!up.acl.empty())
        put_field(&out, "acl", up.acl);
    if (!up.checksum_algorithm.empty()) {
        put_field(&out, "checksum-algorithm", up.checksum_algorithm);
        put_field(&out, "checksum-type", up.checksum_type);
    }
    auto pairs = [&out](const char* field, const std::vector<std::pair<std::string, std::string>>& list) {
        for (const auto& [name, value] : list) {
            out.append(field);
            out.push_back(' ');
            put_encoded(&out, name);
            out.push_back(' ');
            put_encoded(&out, value);
            out.push_back('\n');
        }
    };
    pairs("meta", up.meta);
    pairs("tag", up.tags);
    return out;
}

int orbs3_multipart_parse_upload(std::string_view text, orbs3_multipart_upload_t* up)
{
    *up = orbs3_multipart_upload_t{};
    bool has_key = false, has_id = false, has_created = false;
    bool ok = for_each_line(text, kUploadMagic, [&](std::string_view name, std::string_view value) {
        std::string* field = name == "key"                   ? (has_key = true, &up->key)
                             : name == "id"                  ? (has_id = true, &up->upload_id)
                             : name == "initiator"           ? &up->initiator_id
                             : name == "initiator-name"      ? &up->initiator_name
                             : name == "created"             ? (has_created = true, &up->created)
                             : name == "content-type"        ? &up->content_type
                             : name == "cache-control"       ? &up->cache_control
                             : name == "content-disposition" ? &up->content_disposition
                             : name == "content-encoding"    ? &up->content_encoding
                             : name == "expires"             ? &up->expires
                             : name == "checksum-algorithm"  ? &up->checksum_algorithm
                             : name == "checksum-type"       ? &up->checksum_type
                             : name == "acl"                 ? &up->acl
                                                             : nullptr;
        if (field != nullptr)
            return get_encoded(value, field);
        if (name == "meta" || name == "tag") {
            std::size_t sp = value.find(' ');
            if (sp == std::string_view::npos)
                return false;
            std::string k, v;
            if (!get_encoded(value.substr(0, sp), &k) || !get_encoded(value.substr(sp + 1), &v))
                return false;
            (name == "meta" ? up->meta : up->tags).emplace_back(std::move(k), std::move(v));
            return true;
        }
        return true;  // a field of a later writer
    });
    if (!ok || !has_key || !has_id || !has_created || up->key.empty() || !orbs3_multipart_valid_id(up->upload_id)) {
        *up = orbs3_multipart_upload_t{};
        return -1;
    }
    return 0;
}

std::string orbs3_multipart_render_part(const orbs3_multipart_part_t& part)
{
    char md5[2 * NEO_MD5_LEN + 1];
    *neo_hex(md5, part.md5, NEO_MD5_LEN) = '\0';
    char text[256];
    std::snprintf(text, sizeof text, "%.*s\nnumber %d\nsize %" PRId64 "\nmd5 %s\nino %" PRIu64 "\n",
                  static_cast<int>(kPartMagic.size()), kPartMagic.data(), part.number, part.size, md5, part.ino);
    std::string out(text);
    put_field(&out, "modified", part.modified);
    if (!part.checksum.empty()) {
        put_field(&out, "checksum-algorithm", part.checksum_algorithm);
        put_field(&out, "checksum", part.checksum);
    }
    return out;
}

int orbs3_multipart_parse_part(std::string_view text, orbs3_multipart_part_t* part)
{
    *part = orbs3_multipart_part_t{};
    bool has_number = false, has_size = false, has_md5 = false;
    bool ok = for_each_line(text, kPartMagic, [&](std::string_view name, std::string_view value) {
        uint64_t n = 0;
        if (name == "number") {
            if (!parse_u64(value, &n) || n < 1 || n > ORBS3_MULTIPART_MAX_PART)
                return false;
            part->number = static_cast<int>(n);
            has_number = true;
        } else if (name == "size") {
            if (!parse_u64(value, &n) || n > static_cast<uint64_t>(INT64_MAX))
                return false;
            part->size = static_cast<int64_t>(n);
            has_size = true;
        } else if (name == "md5") {
            if (!parse_md5_hex(value, part->md5))
                return false;
            has_md5 = true;
        } else if (name == "ino") {
            if (!parse_u64(value, &part->ino))
                return false;
        } else if (name == "modified") {
            return get_encoded(value, &part->modified);
        } else if (name == "checksum-algorithm") {
            return get_encoded(value, &part->checksum_algorithm);
        } else if (name == "checksum") {
            return get_encoded(value, &part->checksum);
        }
        return true;
    });
    if (!ok || !has_number || !has_size || !has_md5) {
        *part = orbs3_multipart_part_t{};
        return -1;
    }
    return 0;
}

bool orbs3_multipart_valid_id(std::string_view id)
{
    if (id.size() != 32)
        return false;
    for (char c : id) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f')))
            return false;
    }
    return true;
}

int orbs3_multipart_staging_path(const orbs3_bucket_t* bucket, std::string_view key, std::string_view id,
                                 char* out, std::size_t size)
{
    out[0] = '\0';
    if (!orbs3_multipart_valid_id(id) || key.empty() || key.back() == '/')
        return -1;
    orbs3_object_path_t path;
    if (orbs3_make_object_path(bucket, key, "", &path) != 0)
        return -1;
    std::string_view file = key.substr(key.rfind('/') + 1);
    int n = std::snprintf(out, size, "%s%.*s%.*s%.*s", path.data_dir, static_cast<int>(ORBS3_RESERVED_PREFIX.size()),
                          ORBS3_RESERVED_PREFIX.data(), static_cast<int>(id.size()), id.data(),
                          static_cast<int>(file.size()), file.data());
    if (n < 0 || static_cast<std::size_t>(n) >= size) {
        out[0] = '\0';
        return -1;
    }
    return 0;
}

int orbs3_multipart_check_complete(const std::vector<orbs3_multipart_request_part_t>& req,
                                   const std::vector<orbs3_multipart_part_t>& stored, int64_t min_part,
                                   std::size_t* bad)
{
    *bad = 0;
    if (req.empty())
        return ORBS3_S3_MALFORMED_XML;
    // Order first, as S3 does: a document out of order is refused whatever its parts are.
    for (std::size_t i = 0; i < req.size(); i++) {
        if (req[i].number < 1 || req[i].number > ORBS3_MULTIPART_MAX_PART) {
            *bad = i;
            return ORBS3_S3_INVALID_PART;
        }
        if (i > 0 && req[i].number <= req[i - 1].number) {
            *bad = i;
            return ORBS3_S3_INVALID_PART_ORDER;
        }
    }
    std::size_t at = 0;
    for (std::size_t i = 0; i < req.size(); i++) {
        while (at < stored.size() && stored[at].number < req[i].number)
            at++;
        if (at == stored.size() || stored[at].number != req[i].number || !etag_matches(req[i].etag, stored[at].md5) ||
            !checksum_matches(req[i], stored[at])) {
            *bad = i;
            return ORBS3_S3_INVALID_PART;
        }
        if (i + 1 < req.size() && stored[at].size < min_part) {
            *bad = i;
            return ORBS3_S3_ENTITY_TOO_SMALL;
        }
    }
    return 0;
}

void orbs3_multipart_etag(const std::vector<const orbs3_multipart_part_t*>& parts, char out[40])
{
    neo_md5_t md5;
    uint8_t digest[NEO_MD5_LEN] = {};
    if (neo_md5_init(&md5) == 0) {
        for (const orbs3_multipart_part_t* p : parts)
            (void)neo_md5_update(&md5, p->md5, NEO_MD5_LEN);
        (void)neo_md5_final(digest, &md5);
    }
    char* end = neo_hex(out, digest, NEO_MD5_LEN);
    std::snprintf(end, 40 - 2 * NEO_MD5_LEN, "-%zu", parts.size());
}

std::string orbs3_multipart_parts_text(const std::vector<const orbs3_multipart_part_t*>& parts)
{
    std::string out;
    for (std::size_t i = 0; i < parts.size();) {
        std::size_t run = 1;
        while (i + run < parts.size() && parts[i + run]->size == parts[i]->size)
            run++;
        if (!out.empty())
            out.push_back(' ');
        out.append(std::to_string(parts[i]->size));
        if (run > 1)
            out.append("*").append(std::to_string(run));
        i += run;
    }
    return out;
}

int orbs3_multipart_find_part(std::string_view parts, int64_t object_size, int number, int64_t* offset,
                              int64_t* size, int* count)
{
    int64_t at = 0;
    int seen = 0;
    bool found = false;
    for (bool more = true; more;) {
        const std::size_t sp = parts.find(' ');
        const std::string_view word = parts.substr(0, sp);
        more = sp != std::string_view::npos;
        parts = more ? parts.substr(sp + 1) : std::string_view();
        const std::size_t star = word.find('*');
        uint64_t len = 0, run = 1;
        if (!parse_u64(word.substr(0, star), &len) ||
            (star != std::string_view::npos && (!parse_u64(word.substr(star + 1), &run) || run == 0)) ||
            run > static_cast<uint64_t>(ORBS3_MULTIPART_MAX_PART - seen) ||
            len > static_cast<uint64_t>(ORBS3_MULTIPART_MAX_PART_SIZE))
            return -1;
        if (!found && number > seen && number <= seen + static_cast<int>(run)) {
            found = true;
            *offset = at + static_cast<int64_t>(len) * (number - seen - 1);
            *size = static_cast<int64_t>(len);
        }
        at += static_cast<int64_t>(len * run);
        seen += static_cast<int>(run);
    }
    if (seen == 0 || at != object_size)
        return -1;
    *count = seen;
    return found ? 0 : 1;
}

std::string_view orbs3_multipart_nth_word(std::string_view text, int n)
{
    for (int i = 1; n >= 1 && !text.empty(); i++) {
        const std::size_t sp = text.find(' ');
        if (i == n)
            return text.substr(0, sp);
        if (sp == std::string_view::npos)
            break;
        text.remove_prefix(sp + 1);
    }
    return {};
}

bool orbs3_multipart_object_checksum(const orbs3_multipart_upload_t& up,
                                     const std::vector<const orbs3_multipart_part_t*>& parts, std::string* alg,
                                     char* value, std::string* part_values)
{
    if (parts.empty())
        return false;
    *alg = up.checksum_algorithm;
    bool full = up.checksum_type == "FULL_OBJECT";
    // Nothing declared: parts that all carry the same CRC (SDKs send one by default) still give the
    // whole object's exactly.
    if (alg->empty()) {
        *alg = parts.front()->checksum_algorithm;
        full = true;
    }
    orbs3_checksum_parts_t ck;
    if (orbs3_checksum_parts_init(&ck, orbs3_checksum_alg_of_word(*alg), full) != 0)
        return false;
    part_values->clear();
    for (const orbs3_multipart_part_t* p : parts) {
        if (p->checksum_algorithm != *alg || p->checksum.empty())
            return false;
        orbs3_checksum_parts_add(&ck, p->checksum, p->size);
        if (!part_values->empty())
            part_values->push_back(' ');
        part_values->append(p->checksum);
    }
    return orbs3_checksum_parts_final(&ck, value, ORBS3_CHECKSUM_TEXT_MAX + 1) != 0;
}

int orbs3_multipart_parse_copy_range(std::string_view v, int64_t size, int64_t* first, int64_t* len)
{
    // A decimal offset; more digits than any file's size has is still an offset, one past every object.
    auto offset = [](std::string_view text, int64_t* out) {
        if (text.empty() || text.find_first_not_of("0123456789") != std::string_view::npos)
            return false;
        if (!orbs3_parse_length(text, out))
            *out = INT64_MAX;
        return true;
    };
    if (!v.starts_with("bytes="))
        return ORBS3_S3_INVALID_ARGUMENT;
    v.remove_prefix(6);
    std::size_t dash = v.find('-');
    int64_t a = 0, b = 0;
    if (dash == std::string_view::npos || !offset(v.substr(0, dash), &a) || !offset(v.substr(dash + 1), &b) || a > b)
        return ORBS3_S3_INVALID_ARGUMENT;
    if (b >= size)
        return ORBS3_S3_INVALID_RANGE;
    *first = a;
    *len = b - a + 1;
    return 0;
}

bool orbs3_multipart_document_etag(const std::vector<orbs3_multipart_request_part_t>& req, char out[40])
{
    std::vector<orbs3_multipart_part_t> parts(req.size());
    std::vector<const orbs3_multipart_part_t*> order;
    for (std::size_t i = 0; i < req.size(); i++) {
        std::string_view tag = req[i].etag;
        if (tag.size() >= 2 && tag.front() == '"' && tag.back() == '"')
            tag = tag.substr(1, tag.size() - 2);
        if (!parse_md5_hex(tag, parts[i].md5))
            return false;
        order.push_back(&parts[i]);
    }
    orbs3_multipart_etag(order, out);
    return !req.empty();
}

int64_t orbs3_upload_part_size_limit(const orbs3_vhost_t* vhost, const orbs3_bucket_t* bucket)
{
    int64_t limit = ORBS3_MULTIPART_MAX_PART_SIZE;
    auto lower = [&](uint64_t kb) {
        if (kb != 0 && kb <= (static_cast<uint64_t>(INT64_MAX) >> 10))
            limit = std::min(limit, static_cast<int64_t>(kb << 10));
    };
    if (vhost != nullptr && vhost->service_rec != nullptr) {
        const orbs3_str_t& text = vhost->service_rec->quota.segment_size;
        uint64_t kb = 0;
        if (text.data != nullptr && parse_u64(std::string_view(text.data, text.len), &kb))
            lower(kb);
    }
    if (bucket != nullptr)
        lower(bucket->quota.segment_size);
    return limit;
}

int orbs3_check_upload_part_size(int64_t length, const orbs3_vhost_t* vhost, const orbs3_bucket_t* bucket)
{
    return length > orbs3_upload_part_size_limit(vhost, bucket) ? 1 : 0;
}
