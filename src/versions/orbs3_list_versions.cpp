#include "versions/orbs3_list_versions.h"

#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "access/orbs3_access_check.h"
#include "http/orbs3_http_response.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_cgi.h"
#include "s3/orbs3_s3_documents.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_bucket_ops.h"
#include "storage/orbs3_list_object.h"
#include "storage/orbs3_object_store.h"
#include "versions/orbs3_version_list.h"
#include "versions/orbs3_version_name.h"

namespace {

int fail(orbs3_http_request_t* r, uint32_t status, const char* message = nullptr)
{
    if (message != nullptr)
        r->resp.message = message;
    std::string_view name = orbs3_str_view(r->req_msg.bucket);
    std::size_t n = std::min(name.size(), sizeof r->resp.resource - 1);
    std::memcpy(r->resp.resource, name.data(), n);
    r->resp.resource[n] = '\0';
    return static_cast<int>(status);
}

// The bucket for a listing, and the request's query parsed: what ListObjects checks and reads.
struct listing_t {
    orbs3_bucket_ptr bucket;
    std::string args;
    orbs3_cgi_form form;
    orbs3_list_params_t params;
};

int open_listing(orbs3_http_request_t* r, listing_t* l)
{
    static constexpr int list = ORBS3_ACCESS_LIST;
    orbs3_bucket_t* raw = nullptr;
    int rc = orbs3_request_bucket(r, &list, nullptr, orbs3_access_chain_t::full, &raw);
    if (rc != 0)
        return rc;
    l->bucket.reset(raw);
    l->args.assign(orbs3_str_view(r->args));
    l->form.reset(l->args.empty() ? nullptr : cgiParseGetFormInput(l->args.c_str()));
    if (!l->args.empty() && !l->form)
        return fail(r, ORBS3_S3_INTERNAL_ERROR);
    rc = orbs3_list_params_from_query(l->form.get(), &l->params, &r->resp.message);
    return rc == 0 ? 0 : fail(r, static_cast<uint32_t>(rc));
}

// The flat listing of one directory of `tree` (the bucket's version or recycle directory).
int list_tree_dir(orbs3_http_request_t* r, bool version_tree)
{
    listing_t l;
    if (int rc = open_listing(r, &l); rc != 0)
        return rc;
    const orbs3_bucket_t* b = l.bucket.get();
    const cgiFormEntry* form = l.form.get();
    // The prefix names a directory: a key's rules hold for it, so it can't climb out of the tree or
    // into the server's own names.
    std::string dir(l.params.prefix);
    while (!dir.empty() && dir.back() == '/')
        dir.pop_back();
    if (!dir.empty()) {
        const char* message = nullptr;
        if (int rc = orbs3_object_key_status(dir, &message); rc != 0)
            return fail(r, static_cast<uint32_t>(rc), message);
        dir.push_back('/');
    }
    const auto token = orbs3_list_param(form, "continuation-token");
    const auto start_after = orbs3_list_param(form, "start-after");
    const auto marker = orbs3_list_param(form, "marker");
    const bool marker_form = !token && !start_after && marker;
    const std::string_view after = token ? *token : start_after ? *start_after : marker.value_or(std::string_view());

    orbs3_tree_dir_query_t q;
    q.dir = dir;
    q.after = after;
    q.sizes = version_tree;
    q.owner_id = orbs3_str_view(b->owner_id);
    q.owner_name = orbs3_str_view(b->owner_name);
    orbs3_list_page_t page;
    if (orbs3_tree_dir_page(orbs3_str_view(version_tree ? b->version_dir : b->recycle_dir), &q, r->pool, &page) != 0)
        return fail(r, ORBS3_S3_INTERNAL_ERROR);

    orbs3_list_doc_t doc;
    doc.bucket = orbs3_str_view(r->req_msg.bucket);
    doc.prefix = l.params.prefix;
    doc.v2 = !marker_form;
    doc.marker = marker;
    doc.start_after = start_after;
    doc.continuation = token;
    doc.next = page.next;
    doc.max_keys = l.params.max_keys;
    doc.key_count = page.key_count;
    doc.truncated = page.truncated;
    doc.url_encode = l.params.url;
    doc.fetch_owner = true;
    doc.list = &page.entries;
    neo_cstr_ptr text(make_list_objects_xml(&doc));
    if (!text)
        return fail(r, ORBS3_S3_INTERNAL_ERROR);
    return orbs3_http_send_list_objects_msg(r->connection, 200, text.get(), r->resp.connection, r->resp.origin) == 0
               ? 0
               : -1;
}

}  // namespace

int orbs3_list_object_versions(orbs3_http_request_t* r)
{
    listing_t l;
    if (int rc = open_listing(r, &l); rc != 0)
        return rc;
    const orbs3_bucket_t* b = l.bucket.get();
    const std::string_view key_marker = orbs3_list_param(l.form.get(), "key-marker").value_or(std::string_view());
    const std::string_view id_marker =
        orbs3_list_param(l.form.get(), "version-id-marker").value_or(std::string_view());
    if (!id_marker.empty() && key_marker.empty())
        return fail(r, ORBS3_S3_INVALID_ARGUMENT, "A version-id marker cannot be specified without a key marker.");
    if (!id_marker.empty() && !orbs3_version_id_valid(id_marker))
        return fail(r, ORBS3_S3_INVALID_ARGUMENT, "Invalid version id specified");

    const orbs3_version_trees_t trees{orbs3_str_view(b->meta_dir), orbs3_str_view(b->version_dir),
                                      orbs3_str_view(b->owner_id), orbs3_str_view(b->owner_name)};
    orbs3_version_query_t q;
    q.prefix = l.params.prefix;
    q.delimiter = l.params.delimiter;
    q.key_marker = key_marker;
    q.version_id_marker = id_marker;
    q.max_keys = l.params.max_keys;
    orbs3_version_page_t page;
    if (orbs3_version_list_page(&trees, &q, r->pool, &page) != 0)
        return fail(r, ORBS3_S3_INTERNAL_ERROR);

    orbs3_list_versions_doc_t doc;
    doc.bucket = orbs3_str_view(r->req_msg.bucket);
    doc.prefix = q.prefix;
    doc.delimiter = q.delimiter;
    doc.key_marker = key_marker;
    doc.version_id_marker = id_marker;
    doc.next_key_marker = page.next_key;
    doc.next_version_id_marker = page.next_version_id;
    doc.max_keys = l.params.max_keys;
    doc.truncated = page.truncated;
    doc.url_encode = l.params.url;
    doc.rows = &page.rows;
    const std::string text = orbs3_list_versions_xml(doc);
    return orbs3_http_send_msg(r->connection, 200, text.c_str(), r->resp.connection, r->resp.origin) == 0 ? 0 : -1;
}

int orbs3_get_bucket_object_version(orbs3_http_request_t* r)
{
    return list_tree_dir(r, true);
}

int orbs3_get_bucket_recycle(orbs3_http_request_t* r)
{
    return list_tree_dir(r, false);
}
