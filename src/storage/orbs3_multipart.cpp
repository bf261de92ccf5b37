// The multipart handlers: each takes the request, checks access, calls the engine and replies through the
// S3 documents. What an upload is on disk, and why, is told in orbs3_multipart_engine.h.
#include "storage/orbs3_multipart.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "access/orbs3_access_check.h"
#include "core/orbs3_tenant.h"
#include "core/orbs3_config.h"
#include "core/orbs3_log.h"
#include "event/orbs3_fd.h"
#include "http/orbs3_http_request_body.h"
#include "http/orbs3_http_response.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_cgi.h"
#include "s3/orbs3_s3_dispatch.h"
#include "s3/orbs3_s3_documents.h"
#include "s3/orbs3_s3_errors.h"
#include "http/orbs3_http_header.h"
#include "storage/orbs3_bucket_ops.h"
#include "storage/orbs3_bucket_store.h"
#include "storage/orbs3_checksum.h"
#include "storage/orbs3_file_helpers.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object.h"
#include "storage/orbs3_object_body.h"
#include "storage/orbs3_object_commit.h"
#include "storage/orbs3_object_copy.h"
#include "storage/orbs3_object_read.h"
#include "storage/orbs3_record.h"

namespace {

int send_document(orbs3_http_request_t* r, const std::string& doc)
{
    return orbs3_http_send_msg(r->connection, 200, doc.c_str(), r->resp.connection, r->resp.origin) == 0 ? 0 : -1;
}

// The upload a request names, in the bucket and under the key the request names.
struct upload_ctx {
    orbs3_bucket_ptr bucket;
    std::string_view key;
    orbs3_multipart_handle_t h;
};

int open_upload(orbs3_http_request_t* r, int object_code, upload_ctx* ctx, bool take_over = false)
{
    orbs3_bucket_t* raw = nullptr;
    if (int rc = orbs3_object_request_bucket(r, object_code, &raw, &ctx->key); rc != 0)
        return rc;
    ctx->bucket.reset(raw);
    return orbs3_multipart_open(raw, ctx->key, orbs3_str_view(r->req_msg.uploadId), take_over, &ctx->h);
}

int send_part_etag(orbs3_http_request_t* r, const char* hex, const std::string& checksum_line = {})
{
    char etag[40];
    std::snprintf(etag, sizeof etag, "\"%s\"", hex);
    return orbs3_http_send_upload_part_object_msg(r->connection, 200, etag, r->resp.connection, r->resp.origin,
                                                  checksum_line.c_str()) == 0
               ? 0
               : -1;
}

// ---- UploadPart ----

struct part_state_t {
    orbs3_object_body_t body;
    upload_ctx ctx;
    int number = 0;
};

int part_done(orbs3_http_request_t* r, orbs3_object_body_t* body)
{
    auto* st = static_cast<part_state_t*>(body->owner);
    orbs3_multipart_part_t part;
    part.number = st->number;
    part.size = body->file.size;
    std::memcpy(part.md5, body->md5, NEO_MD5_LEN);
    if (body->checksum.alg != orbs3_checksum_alg::none && body->checksum_value[0] != '\0') {
        part.checksum_algorithm = orbs3_checksum_word(body->checksum.alg);
        part.checksum = body->checksum_value;
    }
    if (int rc = orbs3_multipart_install_part(st->ctx.h.staging, body->file.path, &part); rc != 0)
        return rc;
    body->committed = true;
    return send_part_etag(r, body->file.etag, orbs3_object_body_checksum_line(*body));
}

// A part's additional checksum is of the upload's algorithm, when it declared one: a part sent with
// another is refused, a part sent without one gets it computed. 0 or a status.
int part_checksum(orbs3_http_request_t* r, const upload_ctx& ctx, orbs3_object_body_t* body)
{
    const orbs3_checksum_alg want = orbs3_checksum_alg_of_word(ctx.h.up.checksum_algorithm);
    if (want == orbs3_checksum_alg::none || body->checksum.alg == want)
        return 0;
    if (body->checksum.alg != orbs3_checksum_alg::none) {
        r->resp.message = "The checksum algorithm of the part is not the one its upload was created with.";
        return ORBS3_S3_INVALID_REQUEST;
    }
    body->checksum_own = true;
    return orbs3_checksum_init(&body->checksum, want) == 0 ? 0 : ORBS3_S3_INTERNAL_ERROR;
}

// x-amz-checksum-<alg> on a Complete: the client's own value of the whole object (without the part count
// of a composite one, or with it) must be the one its parts give. 0 or a status.
int check_whole_checksum(orbs3_http_request_t* r, std::string_view alg, std::string_view value)
{
    std::string_view sent;
    const orbs3_checksum_alg a = orbs3_checksum_alg_of_word(alg);
    if (value.empty() || !orbs3_http_find_header(r, orbs3_checksum_header_name(a), &sent))
        return 0;
    if (sent == value || sent == value.substr(0, value.find('-')))
        return 0;
    r->resp.message = orbs3_checksum_mismatch_message(a);
    return ORBS3_S3_CHECKSUM_MISMATCH;
}

// UploadPartCopy: the part's bytes come from an object (a range of it) of this vhost.
int upload_part_copy(orbs3_http_request_t* r, upload_ctx* ctx, int number)
{
    orbs3_str_t sb{}, sk{};
    std::string_view version;
    if (int rc = orbs3_parse_copy_source(r, r->pool, &sb, &sk, &version); rc != 0)
        return rc;
    orbs3_bucket_ptr src(orbs3_get_bucket(r->vhost, r->user, orbs3_str_view(sb)));
    if (!src)
        return ORBS3_S3_NO_SUCH_BUCKET;
    int read_code = ORBS3_ACCESS_READ;
    if (orbs3_access_check_chain(r->vhost, r->user, src.get(), r->connection->peer, nullptr, &read_code,
                                 orbs3_access_chain_t::full) != 0)
        return ORBS3_S3_ACCESS_DENIED;
    if (orbs3_bucket_init_path(r->vhost, r->user, src.get(), orbs3_str_view(sb)) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    orbs3_object_source_t source;
    if (int rc = orbs3_open_copy_source(r, src.get(), orbs3_str_view(sk), version, &source); rc != 0)
        return rc == ORBS3_S3_KEY_TOO_LONG ? ORBS3_S3_NO_SUCH_KEY : rc;
    // A directory object has no bytes to copy.
    if (!source.file.valid())
        return ORBS3_S3_NO_SUCH_KEY;
    int64_t first = 0, len = source.size;
    std::string_view range;
    if (orbs3_http_find_header(r, "x-amz-copy-source-range", &range)) {
        const int rc = orbs3_multipart_parse_copy_range(range, source.size, &first, &len);
        if (rc == ORBS3_S3_INVALID_ARGUMENT)
            r->resp.message = "The x-amz-copy-source-range value must be of the form bytes=first-last where first "
                              "and last are the zero-based offsets of the first and last bytes to copy";
        if (rc != 0)
            return rc;
    }
    if (orbs3_check_upload_part_size(len, r->vhost, ctx->bucket.get()) != 0)
        return ORBS3_S3_ENTITY_TOO_LARGE;

    orbs3_multipart_part_t part;
    if (int rc = orbs3_multipart_copy_part(ctx->h, number, source.file.get(), first, len, &part); rc != 0)
        return rc;
    char hex[2 * NEO_MD5_LEN + 1];
    *neo_hex(hex, part.md5, NEO_MD5_LEN) = '\0';
    return send_document(r, orbs3_copy_part_result_xml(hex, part.modified, part.checksum_algorithm, part.checksum));
}

// ---- Complete ----

// The reply of a Complete, the same for the first request and for one sent again.
int send_complete_result(orbs3_http_request_t* r, const orbs3_bucket_t* b, std::string_view key, const char* etag,
                         std::string_view checksum_alg, std::string_view checksum, std::string_view version_id)
{
    const std::string_view host =
        r->headers_in.host != nullptr ? orbs3_str_view(r->headers_in.host->value) : std::string_view();
    const std::string_view bucket = neo_getstr(&b->name);
    const std::string location = "http://" + std::string(host) + "/" + std::string(bucket) + "/" + std::string(key);
    const std::string doc = orbs3_complete_upload_xml(location, bucket, key, etag, checksum_alg, checksum);
    std::string version;
    orbs3_object_version_line(b, version_id, &version);
    return orbs3_http_send_msg(r->connection, 200, doc.c_str(), r->resp.connection, r->resp.origin,
                               version.c_str()) == 0
               ? 0
               : -1;
}

// A Complete of an upload that is no more. When it was completed and the key still holds its result
// (the object's record names the upload, with the ETag this document's parts make, and the data file
// has the record's size), the request is that Complete sent again, its first reply lost: it gets that
// reply again. An upload whose object was replaced or deleted since is gone: NoSuchUpload. The evidence
// lives in the object's record, so it goes with the object and nothing accumulates.
int answer_completed(orbs3_http_request_t* r, const upload_ctx& ctx, std::string_view id,
                     const std::vector<orbs3_multipart_request_part_t>& req)
{
    char etag[40];
    orbs3_object_path_t path;
    if (!orbs3_multipart_document_etag(req, etag) || orbs3_make_object_path(ctx.bucket.get(), ctx.key, "", &path) != 0)
        return ORBS3_S3_NO_SUCH_UPLOAD;
    orbs3_object_ptr rec(orbs3_create_object_from_file(path.meta_path));
    const orbs3_object_before_t now = orbs3_object_before_commit(path.data_path);
    if (!rec || orbs3_str_view(rec->upload_id) != id || orbs3_str_view(rec->etag) != etag || !now.existed ||
        now.size != static_cast<int64_t>(rec->size))
        return ORBS3_S3_NO_SUCH_UPLOAD;
    ipd_log(LOG_INFO, "upload %.*s: Complete sent again, answered with its result", static_cast<int>(id.size()),
            id.data());
    return send_complete_result(r, ctx.bucket.get(), ctx.key, etag, orbs3_str_view(rec->checksum_algorithm),
                                orbs3_str_view(rec->checksum), orbs3_str_view(rec->version_id));
}

// The parts a Complete document names. 0, MalformedXML (no parts included) or InternalError.
int read_complete_document(orbs3_http_request_t* r, std::vector<orbs3_multipart_request_part_t>* req)
{
    const char* text = orbs3_http_body_document(r);
    if (text == nullptr)
        return ORBS3_S3_INTERNAL_ERROR;
    neo_list_head_t list;
    INIT_LIST_HEAD(&list);
    if (parse_complete_multipart_upload_xmlstring(text, &list, r->pool) != 0)
        return ORBS3_S3_MALFORMED_XML;
    neo_list_head_t* pos;
    list_for_each(pos, &list)
    {
        auto* p = list_entry(pos, orbs3_part_t, link);
        req->push_back({p->part_number, orbs3_str_view(p->etag),
                        p->checksum_algorithm != nullptr ? std::string_view(p->checksum_algorithm) : std::string_view(),
                        orbs3_str_view(p->checksum)});
    }
    return req->empty() ? ORBS3_S3_MALFORMED_XML : 0;
}

// The assembled object's record: the content headers and metadata of Create, the upload id (for a
// Complete sent again), and what the plan keeps of the parts.
void object_meta_of(const orbs3_multipart_upload_t& up, const orbs3_multipart_plan_t& plan, orbs3_object_meta_t* meta)
{
    meta->content_type = up.content_type;
    meta->cache_control = up.cache_control;
    meta->content_disposition = up.content_disposition;
    meta->content_encoding = up.content_encoding;
    meta->expires = up.expires;
    uint32_t acl = 0;
    const char* end = up.acl.data() + up.acl.size();
    if (!up.acl.empty() && std::from_chars(up.acl.data(), end, acl).ptr == end)
        meta->acl = acl;
    for (const auto& [k, v] : up.meta) {
        if (meta->n == ORBS3_OBJECT_META_MAX)
            break;
        meta->keys[meta->n] = k;
        meta->values[meta->n] = v;
        meta->n++;
    }
    for (const auto& [k, v] : up.tags) {
        if (meta->ntags == ORBS3_OBJECT_TAGS_MAX)
            break;
        meta->tag_keys[meta->ntags] = k;
        meta->tag_values[meta->ntags] = v;
        meta->ntags++;
    }
    meta->upload_id = up.upload_id;
    meta->parts = plan.parts_text;
    meta->checksum_algorithm = plan.checksum_algorithm;
    meta->checksum = plan.checksum;
    meta->part_checksums = plan.part_checksums;
}

// The object assembled from the claimed upload and committed over the key as PutObject commits, under the
// key's lock and with the write conditions checked again. 0 once the object stands, else the status for
// which the upload is given back.
int assemble_and_commit(orbs3_http_request_t* r, const upload_ctx& ctx, const orbs3_multipart_plan_t& plan,
                        const orbs3_conditional_t& cond, orbs3_commit_t* commit)
{
    const orbs3_object_path_t& path = *commit->path;
    if (int rc = check_whole_checksum(r, plan.checksum_algorithm, plan.checksum); rc != 0)
        return rc;
    // The assembled object obeys the same file_threshold as one sent whole.
    if (orbs3_check_object_size(r->vhost, ctx.bucket.get(), plan.total) != 0)
        return ORBS3_S3_ENTITY_TOO_LARGE;
    const int conflict = orbs3_check_key_conflict(ctx.bucket.get(), ctx.key);
    if (conflict == ORBS3_KEY_CONFLICT_FILE || conflict == ORBS3_KEY_CONFLICT_DIR)
        return ORBS3_S3_KEY_CONFLICT;
    if (conflict != 0 || orbs3_make_dir_by_name(ctx.key, path.data_path) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    orbs3_temp_file tmp;
    if (int rc = orbs3_multipart_assemble(ctx.h.staging, path.data_dir, plan, &tmp); rc != 0)
        return rc;
    orbs3_object_meta_t meta;
    object_meta_of(ctx.h.up, plan, &meta);
    orbs3_commit_lock_t lock;
    if (orbs3_commit_lock(path.data_path, &lock) != 0) {
        ipd_log(LOG_ERR, "commit lock for %s: %s", path.data_path, std::strerror(errno));
        return ORBS3_S3_INTERNAL_ERROR;
    }
    if (int rc = orbs3_object_commit_file(&cond, tmp.path, commit); rc != 0)
        return rc;
    tmp.keep();
    meta.version_id = commit->version_id;
    if (orbs3_object_write_record(r->user, ctx.key, path.meta_path, path.data_path, plan.etag, plan.total,
                                  commit->stamp, &meta) != 0)
        ipd_log(LOG_ERR, "record %s not written: the object is served without it", path.meta_path);
    return 0;
}

// The additional checksum an upload declares: x-amz-checksum-algorithm, and x-amz-checksum-type for the
// form of the object's (COMPOSITE unless said, FULL_OBJECT for CRC64NVME, which has no other). 0 or a
// status.
int declared_checksum(orbs3_http_request_t* r, orbs3_multipart_upload_t* up)
{
    std::string_view word, type;
    const bool has_alg = orbs3_http_find_header(r, "x-amz-checksum-algorithm", &word);
    const bool has_type = orbs3_http_find_header(r, "x-amz-checksum-type", &type);
    if (!has_alg && !has_type)
        return 0;
    if (!has_alg) {
        r->resp.message = "The x-amz-checksum-type header can only be used with the x-amz-checksum-algorithm header.";
        return ORBS3_S3_INVALID_REQUEST;
    }
    const orbs3_checksum_alg alg = orbs3_checksum_alg_of_word(word);
    if (alg == orbs3_checksum_alg::none) {
        r->resp.message = "Checksum algorithm provided is unsupported. Please try again with any of the valid types: "
                          "[CRC32, CRC32C, CRC64NVME, SHA1, SHA256]";
        return ORBS3_S3_INVALID_REQUEST;
    }
    bool full = alg == orbs3_checksum_alg::crc64nvme;
    if (has_type && !orbs3_http_iequals(type, "FULL_OBJECT") && !orbs3_http_iequals(type, "COMPOSITE")) {
        r->resp.message = "Value for x-amz-checksum-type header is invalid.";
        return ORBS3_S3_INVALID_REQUEST;
    }
    if (has_type)
        full = orbs3_http_iequals(type, "FULL_OBJECT");
    orbs3_checksum_parts_t probe;
    if (orbs3_checksum_parts_init(&probe, alg, full) != 0) {
        r->resp.message = full ? "The FULL_OBJECT checksum type cannot be used with this checksum algorithm."
                               : "The COMPOSITE checksum type cannot be used with this checksum algorithm.";
        return ORBS3_S3_INVALID_REQUEST;
    }
    up->checksum_algorithm = orbs3_checksum_word(alg);
    up->checksum_type = full ? "FULL_OBJECT" : "COMPOSITE";
    return 0;
}

// The record of a new upload of `key`: the requester as its initiator, and the content headers and
// metadata of Create, which the assembled object gets.
orbs3_multipart_upload_t upload_of(const orbs3_http_request_t* r, std::string_view key, const orbs3_object_meta_t& meta)
{
    orbs3_multipart_upload_t up;
    up.key = key;
    up.initiator_id = orbs3_str_view(r->user->UserId);
    up.initiator_name = orbs3_str_view(r->user->DisPlayName);
    up.content_type = meta.content_type;
    up.cache_control = meta.cache_control;
    up.content_disposition = meta.content_disposition;
    up.content_encoding = meta.content_encoding;
    up.expires = meta.expires;
    up.acl = std::to_string(meta.acl);
    for (std::size_t i = 0; i < meta.n; i++)
        up.meta.emplace_back(meta.keys[i], meta.values[i]);
    for (std::size_t i = 0; i < meta.ntags; i++)
        up.tags.emplace_back(meta.tag_keys[i], meta.tag_values[i]);
    return up;
}

}  // namespace

int orbs3_create_multipart_upload_object(orbs3_http_request_t* r)
{
    orbs3_bucket_t* raw = nullptr;
    std::string_view key;
    int rc = orbs3_object_request_bucket(r, ORBS3_ACCESS_WRITE, &raw, &key);
    if (rc != 0)
        return rc;
    orbs3_bucket_ptr b(raw);
    // A directory object has no bytes to assemble.
    if (key.back() == '/')
        return ORBS3_S3_INVALID_ARGUMENT;
    orbs3_object_meta_t meta;
    if (rc = orbs3_object_meta_from_request(r, &meta); rc != 0)
        return rc;
    rc = orbs3_check_key_conflict(raw, key);
    if (rc == ORBS3_KEY_CONFLICT_FILE || rc == ORBS3_KEY_CONFLICT_DIR)
        return ORBS3_S3_KEY_CONFLICT;
    if (rc != 0)
        return ORBS3_S3_INTERNAL_ERROR;

    orbs3_multipart_upload_t up = upload_of(r, key, meta);
    if (rc = declared_checksum(r, &up); rc != 0)
        return rc;
    if (rc = orbs3_multipart_create(raw, &up); rc != 0)
        return rc;
    neo_cstr_ptr doc(make_create_multipartupload_xmlstring(neo_getstr(&raw->name), up.key.c_str(), up.upload_id.c_str()));
    if (!doc)
        return ORBS3_S3_INTERNAL_ERROR;
    return orbs3_http_send_create_mulitipart_object_msg(r->connection, 200, doc.get(), r->resp.connection,
                                                        r->resp.origin) == 0
               ? 0
               : -1;
}

int orbs3_upload_part_object(orbs3_http_request_t* r)
{
    auto* st = pool_new<part_state_t>(r->pool);
    if (st == nullptr)
        return ORBS3_S3_INTERNAL_ERROR;
    if (int rc = open_upload(r, ORBS3_ACCESS_WRITE, &st->ctx); rc != 0)
        return rc;
    st->number = r->req_msg.part_number;
    if (st->number < 1 || st->number > ORBS3_MULTIPART_MAX_PART) {
        r->resp.message = "Part number must be an integer between 1 and 10000, inclusive.";
        return ORBS3_S3_INVALID_ARGUMENT;
    }
    std::string_view copy_source;
    if (r->headers_in.x_copy_source != nullptr || orbs3_http_find_header(r, "x-amz-copy-source", &copy_source))
        return upload_part_copy(r, &st->ctx, st->number);

    if (r->headers_in.content_length == nullptr && !r->headers_in.chunked)
        return ORBS3_S3_MISSING_CONTENT_LENGTH;
    int64_t length = -1;
    if (int rc = orbs3_object_body_length(r, &length); rc != 0)
        return rc;
    if (orbs3_check_upload_part_size(length, r->vhost, st->ctx.bucket.get()) != 0)
        return ORBS3_S3_ENTITY_TOO_LARGE;
    // An aws-chunked body's length is checked again as it decodes.
    st->body.limit = orbs3_upload_part_size_limit(r->vhost, st->ctx.bucket.get());
    if (int rc = orbs3_object_body_prepare(r, &st->body); rc != 0)
        return rc;
    if (int rc = part_checksum(r, st->ctx, &st->body); rc != 0)
        return rc;
    // The body streams into a temporary of the staging directory, which install commits as the part.
    if (orbs3_fd fd(orbs3_temp_open(st->ctx.h.staging, st->body.file.path, sizeof st->body.file.path)); !fd.valid())
        return errno == ENOENT ? ORBS3_S3_NO_SUCH_UPLOAD : ORBS3_S3_INTERNAL_ERROR;
    st->body.done = part_done;
    st->body.owner = st;
    st->body.action = "UploadPart";
    // An Abort that removes the staging directory while the body streams ends the part the same way.
    st->body.vanished = ORBS3_S3_NO_SUCH_UPLOAD;
    return orbs3_object_body_start(r, &st->body);
}

int orbs3_list_parts_object(orbs3_http_request_t* r)
{
    upload_ctx ctx;
    if (int rc = open_upload(r, ORBS3_ACCESS_READ, &ctx); rc != 0)
        return rc;
    const int marker = r->req_msg.part_number_marker;
    int max = r->req_msg.max_parts;
    if (marker < 0 || max < 0)
        return ORBS3_S3_INVALID_ARGUMENT;
    if (max == 0 || max > 1000)
        max = 1000;
    std::vector<orbs3_multipart_part_t> parts;
    if (orbs3_multipart_load_parts(ctx.h.staging, &parts) != 0)
        return ORBS3_S3_NO_SUCH_UPLOAD;
    const orbs3_multipart_upload_t& up = ctx.h.up;
    orbs3_list_parts_doc_t doc{neo_getstr(&ctx.bucket->name), ctx.key, up.upload_id, up.initiator_id,
                               up.initiator_name, marker, 0, max, false, up.checksum_algorithm, up.checksum_type, {}};
    orbs3_multipart_part_page(&parts, marker, max, &doc.truncated);
    std::vector<std::string> etags;
    etags.reserve(parts.size());
    for (const orbs3_multipart_part_t& p : parts) {
        char hex[2 * NEO_MD5_LEN + 1];
        *neo_hex(hex, p.md5, NEO_MD5_LEN) = '\0';
        etags.emplace_back(hex);
        doc.parts.push_back({p.number, p.modified, etags.back(), p.size, p.checksum_algorithm, p.checksum});
        doc.next_marker = p.number;
    }
    return send_document(r, orbs3_list_parts_xml(doc));
}

int orbs3_complete_multipart_upload_object(orbs3_http_request_t* r)
{
    std::vector<orbs3_multipart_request_part_t> req;
    upload_ctx ctx;
    if (int rc = open_upload(r, ORBS3_ACCESS_WRITE, &ctx, true); rc != 0) {
        const std::string_view id = orbs3_str_view(r->req_msg.uploadId);
        if (rc != ORBS3_S3_NO_SUCH_UPLOAD || !ctx.bucket || !orbs3_multipart_valid_id(id) ||
            read_complete_document(r, &req) != 0)
            return rc;
        return answer_completed(r, ctx, id, req);
    }
    if (int rc = read_complete_document(r, &req); rc != 0)
        return rc;
    orbs3_object_path_t path;
    if (orbs3_make_object_path(ctx.bucket.get(), ctx.key, "", &path) != 0)
        return ORBS3_S3_KEY_TOO_LONG;
    // A Complete whose condition already fails costs no claim and no copy; the commit checks again.
    const orbs3_conditional_t cond = orbs3_object_conditions(r);
    if (int rc = orbs3_object_check_conditions(&cond, path.data_path, path.meta_path); rc != 0)
        return rc;
    std::string claimed;
    if (int rc = orbs3_multipart_claim(ctx.h, &claimed); rc != 0)
        return rc;
    orbs3_multipart_plan_t plan;
    orbs3_commit_t commit{ctx.bucket.get(), ctx.key, &path};
    int rc = orbs3_multipart_plan(ctx.h, req, orbs3_conf.multipart_min_part, &plan);
    if (rc == 0)
        rc = assemble_and_commit(r, ctx, plan, cond, &commit);
    if (rc != 0) {
        // A refusal gives the upload back, so the client may correct its document and try again.
        orbs3_multipart_release(ctx.h, claimed);
        return rc;
    }
    orbs3_object_count_commit(r->vhost, ctx.bucket.get(), commit.before, plan.total);
    orbs3_multipart_drop(ctx.h, claimed);
    return send_complete_result(r, ctx.bucket.get(), ctx.key, plan.etag, plan.checksum_algorithm, plan.checksum,
                                commit.version_id);
}

int orbs3_abort_multipart_upload_object(orbs3_http_request_t* r)
{
    upload_ctx ctx;
    if (int rc = open_upload(r, ORBS3_ACCESS_WRITE, &ctx, true); rc != 0)
        return rc;
    std::string claimed;
    if (int rc = orbs3_multipart_claim(ctx.h, &claimed); rc != 0)
        return rc;
    orbs3_multipart_drop(ctx.h, claimed);
    orbs3_multipart_prune_key_dirs(ctx.bucket.get(), ctx.key);
    return orbs3_http_send_abort_mulitipart_object_msg(r->connection, 204, r->resp.connection, r->resp.origin) == 0
               ? 0
               : -1;
}

int orbs3_list_multipart_uploads(orbs3_http_request_t* r)
{
    static constexpr int list_code = ORBS3_ACCESS_LIST;
    orbs3_bucket_t* raw = nullptr;
    if (int rc = orbs3_request_bucket(r, &list_code, nullptr, orbs3_access_chain_t::full, &raw); rc != 0)
        return rc;
    orbs3_bucket_ptr b(raw);

    std::string args(orbs3_str_view(r->args));
    orbs3_cgi_form form(args.empty() ? nullptr : cgiParseGetFormInput(args.c_str()));
    auto param = [&](const char* name) {
        std::string v(ORBS3_PATH_AREA, '\0');
        if (cgiFormString(form.get(), name, v.data(), v.size()) != cgiFormSuccess)
            return std::string();
        v.resize(std::strlen(v.c_str()));
        return v;
    };
    const std::string prefix = param("prefix"), delimiter = param("delimiter"), key_marker = param("key-marker"),
                      id_marker = param("upload-id-marker"), max_text = param("max-uploads");
    const bool url = param("encoding-type") == "url";
    int max = 1000;
    if (!max_text.empty()) {
        int64_t v = 0;
        if (!orbs3_parse_length(max_text, &v))
            return ORBS3_S3_INVALID_ARGUMENT;
        max = v == 0 || v > 1000 ? (v == 0 ? 0 : 1000) : static_cast<int>(v);
    }


    orbs3_multipart_list_page_t page;
    orbs3_multipart_list_uploads(raw, {prefix, delimiter, key_marker, id_marker, max}, &page);
    orbs3_list_uploads_doc_t doc{neo_getstr(&b->name), prefix, delimiter, key_marker, id_marker, page.next_key,
                                 page.next_id, max, page.truncated, url, {}, {}};
    for (const orbs3_multipart_upload_t& up : page.uploads)
        doc.uploads.push_back({up.key, up.upload_id, up.initiator_id, up.initiator_name, up.created});
    doc.prefixes.assign(page.prefixes.begin(), page.prefixes.end());
    return send_document(r, orbs3_list_uploads_xml(doc));
}
