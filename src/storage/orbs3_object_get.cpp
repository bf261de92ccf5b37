// GetObject and HeadObject: the data file's bytes, whole or one range, with what the object's record says
// of them (ETag, Last-Modified, content headers, user metadata). A data file without a record is served
// with what the file itself tells.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <string>

#include "event/orbs3_fd.h"
#include "access/orbs3_access_check.h"
#include "core/orbs3_tenant.h"
#include "core/orbs3_log.h"
#include "event/orbs3_socket.h"
#include "http/orbs3_http_conditional.h"
#include "http/orbs3_http_range.h"
#include "http/orbs3_http_response.h"
#include "s3/orbs3_s3_cgi.h"
#include "s3/orbs3_s3_errors.h"
#include "http/orbs3_http_header.h"
#include "storage/orbs3_checksum.h"
#include "storage/orbs3_file_helpers.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_multipart.h"
#include "storage/orbs3_object.h"
#include "storage/orbs3_object_read.h"
#include "storage/orbs3_record.h"

namespace {

// Objects up to this size go out with their head in one write; larger ones by sendfile.
constexpr int64_t kInlineBody = 64 * 1024;

int add(orbs3_http_request_t* r, const char* name, std::string_view value)
{
    char text[ORBS3_REC_META_CAP + 1];
    std::size_t n = std::min(value.size(), sizeof text - 1);
    std::memcpy(text, value.data(), n);
    text[n] = '\0';
    return orbs3_http_set_response_headers(r, name, text);
}

// The reply headers a GET or HEAD may choose with response-* query parameters, as S3 allows; the
// stored value goes out where none is asked for (Content-Language is never stored).
enum reply_choice : std::size_t { kType, kLanguage, kExpires, kCacheControl, kDisposition, kEncoding, kChoices };
constexpr const char* kChoiceParams[kChoices] = {"response-content-type",     "response-content-language",
                                                 "response-expires",          "response-cache-control",
                                                 "response-content-disposition", "response-content-encoding"};
struct reply_choices_t {
    std::optional<std::string> value[kChoices];
};

// Reads the response-* parameters of the query. 0, or ORBS3_S3_INVALID_ARGUMENT for a value that could
// not stand in a header (a control byte would end the header line and start another).
int read_reply_choices(orbs3_http_request_t* r, reply_choices_t* out)
{
    std::string args(orbs3_str_view(r->args));
    if (args.find("response-") == std::string::npos)
        return 0;
    orbs3_cgi_form form(cgiParseGetFormInput(args.c_str()));
    for (const cgiFormEntry* e = form.get(); e != nullptr; e = e->next) {
        for (std::size_t i = 0; i < kChoices; i++) {
            if (e->key == nullptr || std::strcmp(e->key, kChoiceParams[i]) != 0)
                continue;
            std::string_view v = e->value != nullptr && e->value_length > 0
                                     ? std::string_view(e->value, static_cast<std::size_t>(e->value_length))
                                     : std::string_view();
            for (unsigned char ch : v) {
                if (ch < 0x20 || ch == 0x7f) {
                    r->resp.message = "Header values may not hold control characters.";
                    return ORBS3_S3_INVALID_ARGUMENT;
                }
            }
            if (v.size() > ORBS3_REC_HEADER_CAP) {
                r->resp.message = "A response header value is too long.";
                return ORBS3_S3_INVALID_ARGUMENT;
            }
            out->value[i].emplace(v);
        }
    }
    return 0;
}

// What the reply says of the object.
struct object_view_t {
    char etag[48];       // quoted
    char modified[40];   // HTTP date
    time_t mtime;
    std::string_view etag_bare;
    const orbs3_object_t* record;  // null when the data file has none that matches it
    // The additional checksum of exactly the bytes of this reply, empty when none is known: the object's
    // own for the whole object, a part's for a part, none for any other range.
    std::string_view checksum;
    bool whole = true;  // the reply carries the whole object
};

int add_object_headers(orbs3_http_request_t* r, const object_view_t& o, std::string_view key,
                       const reply_choices_t& choices)
{
    int rc = orbs3_http_set_response_headers(r, "ETag", o.etag) |
             orbs3_http_set_response_headers(r, "Last-Modified", o.modified) |
             orbs3_http_set_response_headers(r, "Accept-Ranges", "bytes");
    const orbs3_object_t* rec = o.record;
    std::string_view type = rec != nullptr ? orbs3_str_view(rec->content_type) : std::string_view();
    // Only a data file without a record, or a record written before every upload stated its type, is
    // typed by its name; S3's type for bytes of no known kind is "binary/octet-stream".
    if (type.empty()) {
        const char* by_suffix = get_content_type(key);
        type = by_suffix != nullptr ? by_suffix : "binary/octet-stream";
    }
    const auto& chosen_type = choices.value[kType];
    rc |= add(r, "Content-type", chosen_type ? std::string_view(*chosen_type) : type);
    if (const auto& language = choices.value[kLanguage])
        rc |= add(r, "Content-Language", *language);
    static const orbs3_str_t none{0, nullptr};
    const struct {
        const char* name;
        reply_choice choice;
        const orbs3_str_t* stored;
    } standard[] = {{"Cache-Control", kCacheControl, rec != nullptr ? &rec->cache_control : &none},
                    {"Content-Disposition", kDisposition, rec != nullptr ? &rec->content_disposition : &none},
                    {"Content-Encoding", kEncoding, rec != nullptr ? &rec->content_encoding : &none},
                    {"Expires", kExpires, rec != nullptr ? &rec->expires : &none}};
    for (const auto& h : standard) {
        if (const auto& chosen = choices.value[h.choice])
            rc |= add(r, h.name, *chosen);
        else if (h.stored->len != 0)
            rc |= add(r, h.name, orbs3_str_view(*h.stored));
    }
    if (rec == nullptr)
        return rc;
    std::size_t tags = 0;
    if (rec->tags.next != nullptr)
        for (const neo_list_head_t* pos = rec->tags.next; pos != &rec->tags; pos = pos->next)
            ++tags;
    if (tags > 0) {
        char count[24];
        std::snprintf(count, sizeof count, "%zu", tags);
        rc |= orbs3_http_set_response_headers(r, "x-amz-tagging-count", count);
    }
    // The additional checksum is given only to a client that asks for it. Clients check the bytes they
    // receive against it, so it goes out only when it describes exactly those bytes.
    std::string_view mode;
    if (!o.checksum.empty() && orbs3_http_find_header(r, "x-amz-checksum-mode", &mode) &&
        orbs3_http_iequals(mode, "ENABLED")) {
        std::string_view name = orbs3_checksum_header_name(orbs3_checksum_alg_of_word(orbs3_str_view(rec->checksum_algorithm)));
        if (!name.empty()) {
            char text[64];
            std::snprintf(text, sizeof text, "%.*s", static_cast<int>(name.size()), name.data());
            rc |= add(r, text, o.checksum);
            // A composite value carries its part count behind a dash.
            const bool composite = o.checksum.find('-') != std::string_view::npos;
            if (o.whole)
                rc |= orbs3_http_set_response_headers(r, "x-amz-checksum-type", composite ? "COMPOSITE" : "FULL_OBJECT");
        }
    }
    if (rec->meta.next != nullptr) {
        for (neo_list_head_t* pos = rec->meta.next; pos != &rec->meta; pos = pos->next) {
            const auto* m = static_cast<const orbs3_tag_t*>(orbs3_list_node(pos)->data);
            char name[ORBS3_REC_META_CAP + 16];
            std::snprintf(name, sizeof name, "x-amz-meta-%.*s", static_cast<int>(m->key.len), m->key.data);
            rc |= add(r, name, orbs3_str_view(m->value));
        }
    }
    return rc;
}

// 416 with the size in Content-Range and an InvalidRange document.
int send_invalid_range(orbs3_http_request_t* r, int64_t size)
{
    char range[64];
    (void)orbs3_http_content_range(range, sizeof range, nullptr, size);
    char* doc = make_s3_error_resp_xml_ex(ORBS3_S3_INVALID_RANGE, r->resp.resource, r->resp.request_id, nullptr);
    if (doc == nullptr)
        return ORBS3_S3_INTERNAL_ERROR;
    std::unique_ptr<char, decltype(&__free__)> owned(doc, &__free__);
    const bool head = r->method == ORBS3_HTTP_HEAD;
    char length[24];
    std::snprintf(length, sizeof length, "%zu", head ? std::size_t{0} : std::strlen(doc));
    r->headers_out.status_line = {std::strlen("416 Requested Range Not Satisfiable"),
                                  const_cast<char*>("416 Requested Range Not Satisfiable")};
    if ((orbs3_http_set_response_headers(r, "Content-Range", range) |
         orbs3_http_set_response_headers(r, "Content-Type", "application/xml") |
         orbs3_http_set_response_headers(r, "x-amz-request-id", r->resp.request_id) |
         orbs3_http_set_response_headers(r, "Content-Length", length)) != 0 ||
        orbs3_http_send_headers(r) != 0)
        return -1;
    if (head)
        return 0;
    return orbs3_http_send_response_data(r->connection, doc) == 0 ? 0 : -1;
}

// ?partNumber=N: the part's range, checksum and (for an assembled object) part count. 0 or a status.
int select_part(orbs3_http_request_t* r, const orbs3_object_source_t& src, bool has_range,
                orbs3_byte_range_t* range, object_view_t* o, char parts_count[16])
{
    const int part = r->req_msg.part_number;
    if (part < 1 || part > ORBS3_MULTIPART_MAX_PART) {
        r->resp.message = "Part number must be an integer between 1 and 10000, inclusive.";
        return ORBS3_S3_INVALID_ARGUMENT;
    }
    if (has_range) {
        r->resp.message = "Cannot specify both Range header and partNumber query parameter";
        return ORBS3_S3_INVALID_REQUEST;
    }
    int64_t offset = 0, length = 0;
    int count = 0;
    if (int st = orbs3_object_part(src.record.get(), src.size, part, &offset, &length, &count, &o->checksum); st != 0)
        return st;
    if (count != 0) {
        std::snprintf(parts_count, 16, "%d", count);
        o->whole = false;
    }
    *range = {offset, offset + length - 1};
    return 0;
}

// The bytes the reply carries: the whole object, ?partNumber's part or one Range, with the status line and
// the headers that say which. 0 with *offset and *length, -1 when a header could not be set, or a status;
// *unsatisfiable when the range lies beyond the object (a 416 to send).
int select_bytes(orbs3_http_request_t* r, const orbs3_object_source_t& src, object_view_t* o, int64_t* offset,
                 int64_t* length, bool* unsatisfiable)
{
    const int64_t size = src.size;
    orbs3_byte_range_t range{0, size - 1};
    int ranged = ORBS3_RANGE_NONE;
    std::string_view v;
    const bool has_range = orbs3_http_find_header(r, "range", &v);
    if (o->record != nullptr)
        o->checksum = orbs3_str_view(o->record->checksum);
    char parts_count[16] = "";
    if (r->req_msg.part_number != 0) {
        if (int st = select_part(r, src, has_range, &range, o, parts_count); st != 0)
            return st;
        // A part of an empty object is all of it, with no range to tell.
        ranged = size != 0 ? ORBS3_RANGE_ONE : ORBS3_RANGE_NONE;
    } else if (has_range) {
        ranged = orbs3_http_range_resolve(v, size, &range);
    }
    if (ranged == ORBS3_RANGE_UNSATISFIABLE) {
        *unsatisfiable = true;
        return 0;
    }
    if (r->req_msg.part_number == 0 && ranged == ORBS3_RANGE_ONE && (range.first != 0 || range.last != size - 1)) {
        o->checksum = {};
        o->whole = false;
    }
    if (parts_count[0] != '\0' && orbs3_http_set_response_headers(r, "x-amz-mp-parts-count", parts_count) != 0)
        return -1;
    if (ranged != ORBS3_RANGE_ONE) {
        r->headers_out.status_line = {std::strlen("200 OK"), const_cast<char*>("200 OK")};
        return 0;
    }
    *offset = range.first;
    *length = range.last - range.first + 1;
    char text[64];
    (void)orbs3_http_content_range(text, sizeof text, &range, size);
    r->headers_out.status_line = {std::strlen("206 Partial Content"), const_cast<char*>("206 Partial Content")};
    return orbs3_http_set_response_headers(r, "Content-Range", text) != 0 ? -1 : 0;
}

// 304 with the ETag and Last-Modified a client revalidates with.
int send_not_modified(orbs3_http_request_t* r, const object_view_t& o)
{
    r->headers_out.status_line = {std::strlen("304 Not Modified"), const_cast<char*>("304 Not Modified")};
    if ((orbs3_http_set_response_headers(r, "ETag", o.etag) |
         orbs3_http_set_response_headers(r, "Last-Modified", o.modified)) != 0 ||
        orbs3_http_send_headers(r) != 0)
        return -1;
    return 0;
}

// The bytes [offset, offset + length) of `file` after the head. A small object is read and written with
// its head: one read and one write instead of a head, a sendfile and the corking around them.
int send_object(orbs3_http_request_t* r, orbs3_fd* file, int64_t offset, int64_t length)
{
    const bool body = r->method != ORBS3_HTTP_HEAD && length != 0;
    if (body && length <= kInlineBody) {
        auto* bytes = static_cast<uint8_t*>(orbs3_pnalloc(r->pool, static_cast<std::size_t>(length)));
        if (bytes == nullptr)
            return -1;
        // The head is not out yet: a file that gives less than it said fails before a byte is sent.
        if (orbs3_object_read_at(file->get(), bytes, offset, length) != 0)
            return ORBS3_S3_INTERNAL_ERROR;
        return orbs3_http_send_headers_body(r, bytes, static_cast<std::size_t>(length)) == 0 ? 0 : -1;
    }
    // Head and bytes leave together: the first segment carries the head and the start of the file.
    const int fd = r->connection->fd;
    if (body)
        orbs3_tcp_cork(fd, 1);
    int rc = orbs3_http_send_headers(r);
    // The connection takes the descriptor; the bytes go out with sendfile as the socket takes them.
    if (rc == 0 && body)
        rc = orbs3_http_send_file(r->connection, file->release(), offset, length);
    if (body)
        orbs3_tcp_cork(fd, 0);
    return rc == 0 ? 0 : -1;
}

// A key whose latest entry, or a version asked for by id, is a delete marker: the error `status` with the
// headers that say so, as S3 answers it.
int refuse_delete_marker(orbs3_http_request_t* r, const orbs3_object_source_t& src, int status)
{
    static constexpr std::string_view kLines = "x-amz-delete-marker: true\r\nx-amz-version-id: ";
    const std::size_t id_len = std::strlen(src.version_id);
    auto* text = static_cast<char*>(orbs3_pnalloc(r->pool, kLines.size() + id_len + 1));
    if (text == nullptr)
        return ORBS3_S3_INTERNAL_ERROR;
    std::memcpy(text, kLines.data(), kLines.size());
    std::memcpy(text + kLines.size(), src.version_id, id_len + 1);
    r->resp.headers = text;
    return status;
}

}  // namespace

int orbs3_get_object(orbs3_http_request_t* r)
{
    orbs3_bucket_t* raw = nullptr;
    std::string_view key;
    int rc = orbs3_object_request_bucket(r, ORBS3_ACCESS_READ, &raw, &key);
    if (rc != 0)
        return rc;
    orbs3_bucket_ptr bucket(raw);
    reply_choices_t choices;
    if (rc = read_reply_choices(r, &choices); rc != 0)
        return rc;
    // A link to a public object must not make it served as another type (text/html on this host), as S3
    // holds: only a signed request chooses reply headers.
    for (std::size_t i = 0; r->user == nullptr && i < kChoices; i++) {
        if (choices.value[i]) {
            r->resp.message = "Request specific response headers cannot be used for anonymous GET requests.";
            return ORBS3_S3_INVALID_REQUEST;
        }
    }
    std::string_view version;
    if (rc = orbs3_object_version_param(r, &version); rc != 0)
        return rc;
    orbs3_object_source_t src;
    rc = version.empty() ? orbs3_object_open(raw, key, &src) : orbs3_object_open_version(raw, key, version, &src);
    // A public reader learns nothing of a content its ACL does not show, not even its ETag in a 304.
    if (r->user == nullptr) {
        const int open_status = src.delete_marker ? ORBS3_S3_NO_SUCH_KEY : rc;
        if (int st = orbs3_anonymous_object_status(raw, src.record.get(), open_status); st != open_status) {
            std::snprintf(r->resp.resource, sizeof r->resp.resource, "/");
            return st;
        }
    }
    if (rc != 0)
        return src.delete_marker ? refuse_delete_marker(r, src, rc) : rc;
    const int64_t size = src.size;
    object_view_t o{};
    o.record = src.record.get();
    o.mtime = src.mtime;
    orbs3_object_http_date(o.mtime, o.modified, sizeof o.modified);
    std::snprintf(o.etag, sizeof o.etag, "\"%s\"", src.etag);
    o.etag_bare = src.etag;

    const orbs3_conditional_t cond = orbs3_object_conditions(r);
    const int verdict = orbs3_http_conditional_result(&cond, o.etag_bare, o.mtime);
    if (verdict == ORBS3_CONDITIONAL_PRECONDITION_FAILED)
        return ORBS3_S3_PRECONDITION_FAILED;
    if (verdict == ORBS3_CONDITIONAL_NOT_MODIFIED)
        return send_not_modified(r, o);

    int64_t offset = 0, length = size;
    bool unsatisfiable = false;
    if ((rc = select_bytes(r, src, &o, &offset, &length, &unsatisfiable)) != 0)
        return rc;
    if (unsatisfiable)
        return send_invalid_range(r, size);
    char len_text[24];
    std::snprintf(len_text, sizeof len_text, "%" PRId64, length);
    if (add_object_headers(r, o, key, choices) != 0 || orbs3_http_set_response_headers(r, "Content-Length", len_text) != 0)
        return -1;
    if (orbs3_object_says_version(raw, src.version_id) &&
        orbs3_http_set_response_headers(r, "x-amz-version-id",
                                        src.version_id[0] != '\0' ? src.version_id : "null") != 0)
        return -1;
    return send_object(r, &src.file, offset, length);
}
