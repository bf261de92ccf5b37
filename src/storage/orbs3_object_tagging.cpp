#include "storage/orbs3_object_tagging.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "access/orbs3_access_check.h"
#include "core/orbs3_log.h"
#include "http/orbs3_http_header.h"
#include "http/orbs3_http_request_body.h"
#include "http/orbs3_http_response.h"
#include "memory/neo_list.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object.h"
#include "storage/orbs3_object_change.h"
#include "storage/orbs3_object_read.h"
#include "storage/orbs3_object_store.h"
#include "versions/orbs3_version_name.h"

namespace {

int replied(int rc)
{
    return rc == 0 ? 0 : -1;
}

}  // namespace

orbs3_tag_set_t orbs3_object_tags(const orbs3_object_t* rec)
{
    orbs3_tag_set_t out;
    if (rec == nullptr || rec->tags.next == nullptr)
        return out;
    for (neo_list_head_t* pos = rec->tags.next; pos != &rec->tags; pos = pos->next) {
        const auto* tag = static_cast<const orbs3_tag_t*>(orbs3_list_node(pos)->data);
        out.push_back({std::string(neo_getstr(&tag->key), tag->key.len),
                       std::string(neo_getstr(&tag->value), tag->value.len)});
    }
    return out;
}

int orbs3_object_set_tags(orbs3_object_t* rec, const orbs3_tag_set_t& tags)
{
    // The old nodes and texts stay in the pool until the record goes; the list just forgets them.
    INIT_LIST_HEAD(&rec->tags);
    auto copy = [rec](orbs3_str_t* s, const std::string& text) {
        auto* d = static_cast<char*>(orbs3_pnalloc(rec->pool, text.size() + 1));
        if (d == nullptr)
            return false;
        std::memcpy(d, text.data(), text.size());
        d[text.size()] = '\0';
        s->data = d;
        s->len = text.size();
        return true;
    };
    for (const orbs3_tag_pair_t& p : tags) {
        auto* tag = static_cast<orbs3_tag_t*>(orbs3_pcalloc(rec->pool, sizeof(orbs3_tag_t)));
        auto* node = static_cast<orbs3_list_node_t*>(orbs3_pcalloc(rec->pool, sizeof(orbs3_list_node_t)));
        if (tag == nullptr || node == nullptr || !copy(&tag->key, p.key) || !copy(&tag->value, p.value))
            return -1;
        node->data = tag;
        list_add_tail(&node->list, &rec->tags);
    }
    return 0;
}

int orbs3_object_tags_from_request(orbs3_http_request_t* r, orbs3_object_meta_t* meta)
{
    meta->ntags = 0;
    std::string_view text;
    if (!orbs3_http_find_header(r, "x-amz-tagging", &text))
        return 0;
    orbs3_tag_set_t tags;
    if (parse_object_tagging_header(text, &tags) != 0 || !orbs3_tag_set_valid(tags))
        return ORBS3_S3_INVALID_TAG;
    static_assert(ORBS3_TAGS_MAX <= ORBS3_OBJECT_TAGS_MAX);
    auto keep = [r](const std::string& s, std::string_view* out) {
        auto* d = static_cast<char*>(orbs3_pnalloc(r->pool, s.size() + 1));
        if (d == nullptr)
            return false;
        std::memcpy(d, s.data(), s.size());
        d[s.size()] = '\0';
        *out = std::string_view(d, s.size());
        return true;
    };
    for (const orbs3_tag_pair_t& t : tags) {
        if (!keep(t.key, &meta->tag_keys[meta->ntags]) || !keep(t.value, &meta->tag_values[meta->ntags]))
            return ORBS3_S3_INTERNAL_ERROR;
        meta->ntags++;
    }
    return 0;
}

int orbs3_put_object_tagging(orbs3_http_request_t* r)
{
    orbs3_bucket_ptr bucket;
    std::string_view key, id;
    if (int rc = orbs3_object_request_version(r, ORBS3_ACCESS_WRITE, &bucket, &key, &id); rc != 0)
        return rc;
    const char* body = orbs3_http_body_document(r);
    if (body == nullptr)
        return ORBS3_S3_INTERNAL_ERROR;
    if (body[0] == '\0')
        return ORBS3_S3_MISSING_REQUEST_BODY;
    orbs3_tag_set_t tags;
    if (parse_object_tagging_xml(body, &tags) != 0)
        return ORBS3_S3_MALFORMED_XML;
    if (!orbs3_tag_set_valid(tags))
        return ORBS3_S3_INVALID_TAG;
    std::string version_id;
    if (int rc = orbs3_object_change_record(bucket.get(), key, id, {.set_tags = true, .tags = tags}, &version_id);
        rc != 0)
        return rc;
    std::string extra;
    orbs3_object_version_line(bucket.get(), version_id, &extra);
    return replied(orbs3_http_send_msg(r->connection, 200, "", r->resp.connection, r->resp.origin,
                                       extra.empty() ? nullptr : extra.c_str()));
}

int orbs3_delete_object_tagging(orbs3_http_request_t* r)
{
    orbs3_bucket_ptr bucket;
    std::string_view key, id;
    if (int rc = orbs3_object_request_version(r, ORBS3_ACCESS_WRITE, &bucket, &key, &id); rc != 0)
        return rc;
    std::string version_id;
    if (int rc = orbs3_object_change_record(bucket.get(), key, id, {.set_tags = true}, &version_id); rc != 0)
        return rc;
    std::string extra;
    orbs3_object_version_line(bucket.get(), version_id, &extra);
    return replied(orbs3_http_send_del_object_version_msg(r->connection, 204, r->resp.connection, r->resp.origin,
                                                          extra.empty() ? nullptr : extra.c_str()));
}

int orbs3_get_object_tagging(orbs3_http_request_t* r)
{
    orbs3_bucket_ptr bucket;
    std::string_view key, id;
    if (int rc = orbs3_object_request_version(r, ORBS3_ACCESS_READ, &bucket, &key, &id); rc != 0)
        return rc;
    orbs3_object_target_t t;
    if (int rc = orbs3_object_target_open(bucket.get(), key, id, &t); rc != 0)
        return rc;
    const std::string doc = make_object_tagging_xml(orbs3_object_tags(t.src.record.get()));
    std::string extra;
    orbs3_object_version_line(bucket.get(), t.src.version_id, &extra);
    return replied(orbs3_http_send_msg(r->connection, 200, doc.c_str(), r->resp.connection, r->resp.origin,
                                       extra.empty() ? nullptr : extra.c_str()));
}
