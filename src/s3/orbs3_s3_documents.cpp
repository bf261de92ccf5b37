#include "s3/orbs3_s3_documents.h"

#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <utility>
#include <strings.h>

#include "core/orbs3_tenant.h"
#include "core/orbs3_xml.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_acl.h"

namespace {

// Indentation is an LF followed by CR bytes, as the clients of this system expect it.
constexpr const char* L = "\n";
constexpr const char* LC = "\n\r";
constexpr const char* LCC = "\n\r\r";
constexpr const char* LCCC = "\n\r\r\r";
constexpr const char* LCCCC = "\n\r\r\r\r";

// One element's indentation: written before its opening tag, and before its closing tag when `both`.
struct ws_row {
    const char* name;
    const char* ws;
    bool both;
};

// The row of the element in `rows` (ended by a null name) answers; `dflt` answers for anything else,
// the declaration included.
template <std::size_t N>
const char* ws_lookup(const ws_row (&rows)[N], mxml_node_t* node, int where, const char* dflt = nullptr)
{
    if (where != MXML_WS_BEFORE_OPEN && where != MXML_WS_BEFORE_CLOSE)
        return nullptr;
    const char* name = mxmlGetElement(node);
    if (name == nullptr)
        return nullptr;
    for (const ws_row& r : rows) {
        if (std::strcmp(r.name, name) == 0)
            return (where == MXML_WS_BEFORE_OPEN || r.both) ? r.ws : nullptr;
    }
    return dflt;
}

constexpr ws_row list_buckets_rows[] = {
    {"ListAllMyBucketsResult", L, true}, {"Owner", LC, true},        {"Buckets", LC, true},
    {"Bucket", LCC, true},               {"ID", LCC, false},         {"DisplayName", LCC, false},
    {"Name", LCCC, false},               {"CreationDate", LCCC, false}, {"KeyCount", LCCC, false},
    {"ContinuationToken", LC, false},    {"Prefix", LC, false},
};
const char* list_buckets_whitespace_cb(mxml_node_t* node, int where)
{
    return ws_lookup(list_buckets_rows, node, where);
}

constexpr const char* L2 = "\n  ";
constexpr const char* L4 = "\n    ";
constexpr const char* L6 = "\n      ";
constexpr ws_row list_objects_rows[] = {
    {"ListBucketResult", L, true},
    {"Contents", L2, true},
    {"CommonPrefixes", L2, true},
    {"Name", L2, false},
    {"Prefix", L2, false},
    {"StartAfter", L2, false},
    {"ContinuationToken", L2, false},
    {"NextContinuationToken", L2, false},
    {"Marker", L2, false},
    {"NextMarker", L2, false},
    {"KeyCount", L2, false},
    {"Delimiter", L2, false},
    {"MaxKeys", L2, false},
    {"IsTruncated", L2, false},
    {"EncodingType", L2, false},
    {"Key", L4, false},
    {"LastModified", L4, false},
    {"ETag", L4, false},
    {"Size", L4, false},
    {"Owner", L4, true},
    {"StorageClass", L4, false},
    {"ID", L6, false},
    {"DisplayName", L6, false},
};
const char* list_objects_whitespace_cb(mxml_node_t* node, int where)
{
    // The Prefix of a common prefix sits one level deeper than the Prefix of the request.
    const char* name = mxmlGetElement(node);
    mxml_node_t* parent = mxmlGetParent(node);
    const char* parent_name = parent != nullptr ? mxmlGetElement(parent) : nullptr;
    if (where == MXML_WS_BEFORE_OPEN && name != nullptr && parent_name != nullptr &&
        std::strcmp(name, "Prefix") == 0 && std::strcmp(parent_name, "CommonPrefixes") == 0)
        return L4;
    return ws_lookup(list_objects_rows, node, where);
}

constexpr ws_row bucket_acl_rows[] = {
    {"AccessControlPolicy", L, true}, {"Owner", LC, true},       {"AccessControlList", LC, true},
    {"Grant", LCC, true},             {"Grantee", LCCC, true},   {"Permission", LCCC, false},
    {"ID", LCCCC, false},             {"DisplayName", LCCCC, false}, {"URI", LCCCC, false},
};
const char* make_bucket_acl_whitespace_cb(mxml_node_t* node, int where)
{
    return ws_lookup(bucket_acl_rows, node, where);
}

constexpr ws_row create_multipart_rows[] = {
    {"InitiateMultipartUploadResult", L, true}, {"Bucket", LC, false}, {"Key", LC, false}, {"UploadId", LC, false},
};
const char* create_multipart_whitespace_cb(mxml_node_t* node, int where)
{
    return ws_lookup(create_multipart_rows, node, where);
}

constexpr ws_row del_objects_rows[] = {
    {"DeleteResult", L, true},   {"Deleted", LC, true},       {"Error", LC, true},
    {"Key", LCC, false},         {"VersionId", LCC, false},   {"DeleteMarker", LCC, false},
    {"DeleteMarkerVersionId", LCC, false},
};
const char* del_objects_whitespace_cb(mxml_node_t* node, int where)
{
    return ws_lookup(del_objects_rows, node, where);
}

// Nothing goes before the declaration: a document that does not start with it is not XML to a client.
constexpr ws_row recycle_conf_rows[] = {{"RecycleConf", L, true}, {"Days", LC, false}};
const char* recycle_conf_whitespace_cb(mxml_node_t* node, int where)
{
    return ws_lookup(recycle_conf_rows, node, where);
}

// Mini-XML writes control bytes in a text as they are, where a client's XML parser turns a carriage return
// into a line feed and refuses the others; it escapes every '&' we give it, so it cannot write a character
// reference either. A text therefore enters the tree with each such byte as a mark, kMark and a letter
// ('@' + the byte), and save_doc turns the marks into references. The bytes of the indentation stay raw.
constexpr char kMark = '\x01';

std::string marked(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        const auto b = static_cast<unsigned char>(c);
        if (b < 0x20 && c != '\t' && c != '\n') {
            out.push_back(kMark);
            out.push_back(static_cast<char>('@' + b));
        } else {
            out.push_back(c);
        }
    }
    return out;
}

// Mini-XML saves through an 8 KiB stack buffer and takes an exact allocation only for longer texts.
char* save_doc(mxml_node_t* xml, mxml_save_cb_t cb)
{
    if (xml == nullptr)
        return nullptr;
    char* saved = mxmlSaveAllocString(xml, cb);
    if (saved == nullptr || std::strchr(saved, kMark) == nullptr)
        return saved;
    neo_cstr_ptr owner(saved);
    std::string out;
    for (const char* p = saved; *p != '\0'; ++p) {
        if (*p == kMark && p[1] != '\0') {
            const char c = static_cast<char>(*++p - '@');
            orbs3_xml_escape(&out, std::string_view(&c, 1));
        } else {
            out.push_back(*p);
        }
    }
    auto* text = static_cast<char*>(std::malloc(out.size() + 1));
    if (text != nullptr)
        std::memcpy(text, out.c_str(), out.size() + 1);
    return text;
}

orbs3_xml_ptr new_doc()
{
    return orbs3_xml_ptr(mxmlNewXML("1.0"));
}

// Last byte that is not blank is the end of a tag: Mini-XML takes a final close tag without its '>'.
bool ends_in_tag(const char* text)
{
    std::size_t n = std::strlen(text);
    while (n > 0 && (text[n - 1] == ' ' || text[n - 1] == '\t' || text[n - 1] == '\r' || text[n - 1] == '\n'))
        --n;
    return n > 0 && text[n - 1] == '>';
}

// The body as a tree, null when it passes the bounds above, does not load, has no root element, leaves an
// element open or holds a second root. Texts load whole, blanks and all: a key is never cut at a blank.
//
// The body loads under a holder of ours. Mini-XML alone accepts a root that is never closed
// (a body cut short in transit must not pass as a shorter request) and loses a parentless element whose
// attributes break off; under a holder it refuses the first, and every node it made is ours to free.
orbs3_xml_ptr load_body(const char* text)
{
    if (text == nullptr || !ends_in_tag(text) || !orbs3_xml_within_bounds(text, ORBS3_XML_BODY_BOUNDS))
        return nullptr;
    // A blank ends a tag name, so no close tag in the body can match the holder's and climb out of it.
    orbs3_xml_ptr holder(mxmlNewElement(MXML_NO_PARENT, "orbs3 body"));
    if (holder == nullptr)
        return nullptr;
    if (mxmlLoadString(holder.get(), text, MXML_OPAQUE_CALLBACK) != holder.get())
        return nullptr;
    // Declarations and comments load as elements named "?..." and "!..."; exactly one other is the root.
    int roots = 0;
    for (mxml_node_t* n = mxmlGetFirstChild(holder.get()); n != nullptr; n = mxmlGetNextSibling(n)) {
        const char* name = mxmlGetElement(n);
        if (name != nullptr && name[0] != '?' && name[0] != '!')
            ++roots;
    }
    if (roots != 1)
        return nullptr;
    return holder;
}

// The whole text of the element `name` at or below node into out; false when there is no such element.
bool elem_text(mxml_node_t* node, const char* name, std::string* out)
{
    mxml_node_t* e = orbs3_xml_find(node, name);
    if (e == nullptr)
        return false;
    *out = orbs3_xml_text(e);
    return true;
}

// The text of the element `name` as one word of a closed set, blanks around it dropped; "" when missing.
std::string elem_word(mxml_node_t* node, const char* name)
{
    std::string t;
    if (!elem_text(node, name, &t))
        return t;
    return std::string(orbs3_xml_trim(t));
}

// The next `name` below parent behind prev (or the first one when prev is null).
mxml_node_t* next_elem(mxml_node_t* prev, mxml_node_t* parent, const char* name)
{
    if (prev == nullptr)
        return mxmlFindElement(parent, parent, name, nullptr, nullptr, MXML_DESCEND);
    return mxmlFindElement(prev, parent, name, nullptr, nullptr, MXML_DESCEND);
}

// Copies at most `max` bytes of text into str from the pool.
int pool_str(orbs3_str_t* str, const char* text, std::size_t max, orbs3_pool_t* pool)
{
    if (text == nullptr)
        text = "";
    std::size_t n = strnlen(text, max);
    auto* data = static_cast<char*>(orbs3_pnalloc(pool, n + 1));
    if (data == nullptr)
        return -1;
    std::memcpy(data, text, n);
    data[n] = '\0';
    str->data = data;
    str->len = n;
    return 0;
}

template <typename T>
T* new_record(orbs3_pool_t* pool, neo_list_head_t* list)
{
    auto* rec = static_cast<T*>(orbs3_pcalloc(pool, sizeof(T)));
    if (rec != nullptr)
        list_add_tail(&rec->link, list);
    return rec;
}

// Each `name` element below `parent` (below the root when parent is null) as a new record at the end of
// the list, filled by fill(element, record). -1 when the body is no document, parent is missing, the
// elements are more than `max`, memory runs out or fill refuses an element.
template <typename T, typename F>
int parse_records(const char* text, const char* parent, const char* name, std::size_t max, neo_list_head_t* list,
                  orbs3_pool_t* pool, F&& fill)
{
    if (list == nullptr || pool == nullptr)
        return -1;
    orbs3_xml_ptr doc = load_body(text);
    if (doc == nullptr)
        return -1;
    mxml_node_t* top = parent != nullptr ? orbs3_xml_find(doc.get(), parent) : doc.get();
    if (top == nullptr)
        return -1;
    std::size_t n = 0;
    for (mxml_node_t* e = next_elem(nullptr, top, name); e != nullptr; e = next_elem(e, top, name)) {
        if (++n > max)
            return -1;
        auto* rec = new_record<T>(pool, list);
        if (rec == nullptr || fill(e, rec) != 0)
            return -1;
    }
    return 0;
}

// The element's text into a field of a record; a missing element leaves the field empty.
void text_or_empty(mxml_node_t* node, const char* name, orbs3_str_t* str, orbs3_pool_t* pool)
{
    if (orbs3_pack_xml_text_str(node, name, str, pool) != 0)
        *str = {0, nullptr};
}

mxml_node_t* new_text_str(mxml_node_t* parent, const char* name, const orbs3_str_t& s)
{
    return orbs3_xml_new_text_string(parent, name, s.len, neo_getstr(&s));
}

mxml_node_t* new_text_cstr(mxml_node_t* parent, const char* name, const char* text)
{
    return orbs3_xml_new_text_string(parent, name, text == nullptr ? 0 : std::strlen(text), text);
}

// The requester's identity as the bucket list, the ACLs and the part list show it.
void add_identity(mxml_node_t* parent, const orbs3_user_t* user)
{
    static const orbs3_str_t none{0, nullptr};
    new_text_str(parent, "ID", user != nullptr ? user->accesskeyid : none);
    new_text_str(parent, "DisplayName", user != nullptr ? user->DisPlayName : none);
}

constexpr struct {
    uint32_t bit;
    const char* name;
} acl_words[] = {
    {ORBS3_ACL_FULL_CONTROL, "FULL_CONTROL"}, {ORBS3_ACL_READ, "READ"},           {ORBS3_ACL_WRITE, "WRITE"},
    {ORBS3_ACL_READ_ACP, "READ_ACP"},         {ORBS3_ACL_WRITE_ACP, "WRITE_ACP"},
};

// An element with the whole text: keys and tokens are never cut, unlike the capped texts of records.
mxml_node_t* new_text_view(mxml_node_t* parent, const char* name, std::string_view text)
{
    mxml_node_t* e = mxmlNewElement(parent, name);
    if (e != nullptr && !text.empty())
        mxmlNewText(e, 0, marked(text).c_str());
    return e;
}

// The group bits a permission gives a group grantee; 0 for the permissions groups do not keep.
uint32_t group_bits(std::string_view uri, uint32_t perm)
{
    const bool all = uri == ORBS3_ACL_ALL_USERS_URI;
    uint32_t bits = 0;
    if (perm == ORBS3_ACL_READ || perm == ORBS3_ACL_FULL_CONTROL)
        bits |= all ? ORBS3_ACL_ALL_USERS_READ : ORBS3_ACL_AUTH_USERS_READ;
    if (all && (perm == ORBS3_ACL_WRITE || perm == ORBS3_ACL_FULL_CONTROL))
        bits |= ORBS3_ACL_ALL_USERS_WRITE;
    return bits;
}

// Permissions to users are not per grantee: every user Grant's Permission adds its bit. A Grant to a
// group (a Grantee with a URI) adds the group's bits instead; an unknown group fails the document.
int parse_acl(const char* text, uint32_t* acl)
{
    if (acl == nullptr)
        return -1;
    orbs3_xml_ptr doc = load_body(text);
    if (doc == nullptr)
        return -1;
    mxml_node_t* list = orbs3_xml_find(doc.get(), "AccessControlList");
    if (list == nullptr)
        return -1;
    uint32_t bits = 0;
    for (mxml_node_t* g = next_elem(nullptr, list, "Grant"); g != nullptr; g = next_elem(g, list, "Grant")) {
        const std::string p = elem_word(g, "Permission");
        uint32_t perm = 0;
        for (const auto& w : acl_words) {
            if (p == w.name)
                perm = w.bit;
        }
        mxml_node_t* grantee = next_elem(nullptr, g, "Grantee");
        std::string uri;
        if (grantee != nullptr && elem_text(grantee, "URI", &uri)) {
            if (uri != ORBS3_ACL_ALL_USERS_URI && uri != ORBS3_ACL_AUTH_USERS_URI)
                return -1;
            bits |= group_bits(uri, perm);
        } else {
            bits |= perm;
        }
    }
    *acl |= bits;
    return 0;
}

// A Grantee element as S3 writes it: the schema-instance namespace and its type, which clients read.
mxml_node_t* new_grantee(mxml_node_t* grant, const char* type)
{
    mxml_node_t* e = mxmlNewElement(grant, "Grantee");
    mxmlElementSetAttr(e, "xmlns:xsi", "http://www.w3.org/2001/XMLSchema-instance");
    mxmlElementSetAttr(e, "xsi:type", type);
    return e;
}

char* make_acl(uint32_t acl, std::string_view owner_id, std::string_view owner_name, mxml_save_cb_t cb)
{
    orbs3_xml_ptr xml = new_doc();
    mxml_node_t* root = mxmlNewElement(xml.get(), "AccessControlPolicy");
    mxml_node_t* owner = mxmlNewElement(root, "Owner");
    new_text_view(owner, "ID", owner_id);
    new_text_view(owner, "DisplayName", owner_name);
    mxml_node_t* list = mxmlNewElement(root, "AccessControlList");
    for (const auto& w : acl_words) {
        if ((acl & w.bit) == 0)
            continue;
        mxml_node_t* grant = mxmlNewElement(list, "Grant");
        mxml_node_t* grantee = new_grantee(grant, "CanonicalUser");
        new_text_view(grantee, "ID", owner_id);
        new_text_view(grantee, "DisplayName", owner_name);
        mxmlNewText(mxmlNewElement(grant, "Permission"), 0, w.name);
    }
    constexpr struct {
        uint32_t bit;
        std::string_view uri;
        const char* permission;
    } group_words[] = {
        {ORBS3_ACL_ALL_USERS_READ, ORBS3_ACL_ALL_USERS_URI, "READ"},
        {ORBS3_ACL_ALL_USERS_WRITE, ORBS3_ACL_ALL_USERS_URI, "WRITE"},
        {ORBS3_ACL_AUTH_USERS_READ, ORBS3_ACL_AUTH_USERS_URI, "READ"},
    };
    for (const auto& w : group_words) {
        if ((acl & w.bit) == 0)
            continue;
        mxml_node_t* grant = mxmlNewElement(list, "Grant");
        new_text_view(new_grantee(grant, "Group"), "URI", w.uri);
        mxmlNewText(mxmlNewElement(grant, "Permission"), 0, w.permission);
    }
    // The Grantee's attributes stay on its line: the writer would break them at its default margin.
    mxmlSetWrapMargin(0);
    char* text = save_doc(xml.get(), cb);
    mxmlSetWrapMargin(72);
    return text;
}

}  // namespace

// ---- helpers ----

int orbs3_xml_get_textint(mxml_node_t* node, const char* name)
{
    std::string t;
    return elem_text(node, name, &t) ? orbs3_xml_to_int(t.c_str()) : 0;
}

int orbs3_pack_xml_text_str(mxml_node_t* node, const char* name, orbs3_str_t* str, orbs3_pool_t* pool)
{
    std::string t;
    if (str == nullptr || !elem_text(node, name, &t))
        return -1;
    return pool_str(str, t.c_str(), ORBS3_XML_TEXT_MAX, pool);
}

mxml_node_t* orbs3_xml_new_text_string(mxml_node_t* parent, const char* name, std::size_t len, const char* text)
{
    mxml_node_t* e = mxmlNewElement(parent, name);
    if (e == nullptr)
        return nullptr;
    std::size_t n = 0;
    if (text != nullptr)
        n = strnlen(text, len < ORBS3_XML_TEXT_MAX ? len : ORBS3_XML_TEXT_MAX);
    mxmlNewText(e, 0, marked(std::string_view(text == nullptr ? "" : text, n)).c_str());
    return e;
}

mxml_node_t* orbs3_xml_new_text_int(mxml_node_t* parent, const char* name, int value)
{
    mxml_node_t* e = mxmlNewElement(parent, name);
    if (e != nullptr)
        mxmlNewTextf(e, 0, "%d", value);
    return e;
}

// ---- bucket list ----

char* make_list_buckets_xml(const std::vector<orbs3_s3_bucket_row_t>& rows, const orbs3_user_t* user,
                            std::string_view continuation, std::optional<std::string_view> prefix)
{
    orbs3_xml_ptr xml = new_doc();
    mxml_node_t* root = mxmlNewElement(xml.get(), "ListAllMyBucketsResult");
    add_identity(mxmlNewElement(root, "Owner"), user);
    mxml_node_t* buckets = mxmlNewElement(root, "Buckets");
    for (const orbs3_s3_bucket_row_t& b : rows) {
        mxml_node_t* e = mxmlNewElement(buckets, "Bucket");
        orbs3_xml_new_text_string(e, "Name", b.name.size(), b.name.data());
        orbs3_xml_new_text_string(e, "Alias", b.alias.size(), b.alias.data());
        orbs3_xml_new_text_string(e, "CreationDate", b.created_date.size(), b.created_date.data());
        orbs3_xml_new_text_int(e, "KeyCount", static_cast<int>(b.object_count));
    }
    if (!continuation.empty())
        orbs3_xml_new_text_string(root, "ContinuationToken", continuation.size(), continuation.data());
    if (prefix)
        orbs3_xml_new_text_string(root, "Prefix", prefix->size(), prefix->data());
    return save_doc(xml.get(), list_buckets_whitespace_cb);
}

char* make_bucket_location_xml()
{
    // A fixed text: Mini-XML would wrap the long attribute onto a line of its own.
    return strdup("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                  "<LocationConstraint xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"/>\n");
}

// ---- object list ----

std::string orbs3_list_url_encode(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    neo_pct_encode(&out, text, neo_pct_keep::unreserved_slash);
    return out;
}

namespace {


}  // namespace

char* make_list_objects_xml(const orbs3_list_doc_t* doc)
{
    if (doc == nullptr)
        return nullptr;
    auto key_text = [doc](std::string_view text) {
        return doc->url_encode ? orbs3_list_url_encode(text) : std::string(text);
    };
    orbs3_xml_ptr xml = new_doc();
    mxml_node_t* root = mxmlNewElement(xml.get(), "ListBucketResult");
    new_text_view(root, "Name", doc->bucket);
    new_text_view(root, "Prefix", key_text(doc->prefix));
    if (doc->v2) {
        if (doc->start_after)
            new_text_view(root, "StartAfter", key_text(*doc->start_after));
        if (doc->continuation)
            new_text_view(root, "ContinuationToken", *doc->continuation);
        orbs3_xml_new_text_int(root, "KeyCount", doc->key_count);
    } else {
        new_text_view(root, "Marker", key_text(doc->marker.value_or(std::string_view())));
    }
    orbs3_xml_new_text_int(root, "MaxKeys", doc->max_keys);
    if (!doc->delimiter.empty())
        new_text_view(root, "Delimiter", key_text(doc->delimiter));
    mxmlNewText(mxmlNewElement(root, "IsTruncated"), 0, doc->truncated ? "true" : "false");
    if (doc->truncated && !doc->v2)
        new_text_view(root, "NextMarker", key_text(doc->next));
    if (doc->list != nullptr) {
        neo_list_head_t* pos;
        list_for_each(pos, doc->list) {
            auto* ent = list_entry(pos, orbs3_list_entry_t, link);
            if (ent->is_dir)
                continue;
            mxml_node_t* c = mxmlNewElement(root, "Contents");
            new_text_view(c, "Key", key_text(orbs3_str_view(ent->key)));
            new_text_view(c, "LastModified", orbs3_str_view(ent->last_modified));
            std::string etag = "\"";
            etag += orbs3_str_view(ent->etag);
            etag += '"';
            new_text_view(c, "ETag", etag);
            mxmlNewTextf(mxmlNewElement(c, "Size"), 0, "%" PRIu64, ent->size);
            if (!doc->v2 || doc->fetch_owner) {
                mxml_node_t* owner = mxmlNewElement(c, "Owner");
                new_text_view(owner, "ID", orbs3_str_view(ent->owner_id));
                new_text_view(owner, "DisplayName", orbs3_str_view(ent->owner_display_name));
            }
            mxmlNewText(mxmlNewElement(c, "StorageClass"), 0, "STANDARD");
        }
        list_for_each(pos, doc->list) {
            auto* ent = list_entry(pos, orbs3_list_entry_t, link);
            if (ent->is_dir)
                new_text_view(mxmlNewElement(root, "CommonPrefixes"), "Prefix", key_text(orbs3_str_view(ent->key)));
        }
    }
    if (doc->truncated && doc->v2)
        new_text_view(root, "NextContinuationToken", doc->next);
    if (doc->url_encode)
        mxmlNewText(mxmlNewElement(root, "EncodingType"), 0, "url");
    return save_doc(xml.get(), list_objects_whitespace_cb);
}

// ---- access control ----

int parse_bucket_acl_xmlstring(const char* text, uint32_t* acl)
{
    return parse_acl(text, acl);
}

char* make_acl_xmlstring(uint32_t acl, std::string_view owner_id, std::string_view owner_name)
{
    return make_acl(acl, owner_id, owner_name, make_bucket_acl_whitespace_cb);
}

namespace {

// The root element of a loaded body when it is named `name`; null otherwise.
mxml_node_t* root_named(mxml_node_t* holder, const char* name)
{
    for (mxml_node_t* n = mxmlGetFirstChild(holder); n != nullptr; n = mxmlGetNextSibling(n)) {
        const char* e = mxmlGetElement(n);
        if (e != nullptr && e[0] != '?' && e[0] != '!')
            return std::strcmp(e, name) == 0 ? n : nullptr;
    }
    return nullptr;
}

// The element's text as a decimal number of 32 bits, blanks around it allowed; false for anything else,
// an empty text included.
bool elem_int32(mxml_node_t* node, const char* name, int32_t* out)
{
    const std::string word = elem_word(node, name);
    const char* end = word.data() + word.size();
    auto [p, ec] = std::from_chars(word.data(), end, *out);
    return !word.empty() && ec == std::errc() && p == end;
}

}  // namespace

// ---- versioning ----

int parse_bucket_versioning_xmlstring(const char* text, orbs3_versioning_doc_t* out)
{
    if (out == nullptr)
        return -1;
    orbs3_xml_ptr doc = load_body(text);
    mxml_node_t* root = doc != nullptr ? root_named(doc.get(), "VersioningConfiguration") : nullptr;
    if (root == nullptr)
        return -1;
    const std::string status = elem_word(root, "Status");
    orbs3_versioning_doc_t v;
    if (strcasecmp(status.c_str(), "Enabled") == 0)
        v.status = 1;
    else if (strcasecmp(status.c_str(), "Suspended") != 0)
        return -1;
    if (orbs3_xml_find(root, "SaveNum") != nullptr && !elem_int32(root, "SaveNum", &v.save_num))
        return -1;
    *out = v;
    return 0;
}

// ---- tagging ----

namespace {

// Bound on the Tags or pairs read from one request: past it the request is refused whatever it says.
constexpr std::size_t kTagsRead = 1000;

// Characters of UTF-8 text; a byte that is not the start of a character (a continuation) is not counted.
std::size_t utf8_chars(std::string_view text)
{
    std::size_t n = 0;
    for (const char c : text)
        n += (static_cast<unsigned char>(c) & 0xC0) != 0x80 ? 1 : 0;
    return n;
}

// A URL-encoded form value: %XX decoded, '+' a blank. false for a '%' without two hex digits behind it.
bool form_decode(std::string_view in, std::string* out)
{
    out->clear();
    for (std::size_t i = 0; i < in.size(); ++i) {
        const char c = in[i];
        if (c == '+') {
            out->push_back(' ');
        } else if (c != '%') {
            out->push_back(c);
        } else {
            if (i + 2 >= in.size())
                return false;
            unsigned v = 0;
            auto [p, ec] = std::from_chars(in.data() + i + 1, in.data() + i + 3, v, 16);
            if (ec != std::errc() || p != in.data() + i + 3)
                return false;
            out->push_back(static_cast<char>(v));
            i += 2;
        }
    }
    return true;
}

}  // namespace

int parse_object_tagging_xml(const char* text, orbs3_tag_set_t* out)
{
    if (out == nullptr)
        return -1;
    orbs3_xml_ptr doc = load_body(text);
    mxml_node_t* root = doc != nullptr ? root_named(doc.get(), "Tagging") : nullptr;
    mxml_node_t* set = root != nullptr ? orbs3_xml_find(root, "TagSet") : nullptr;
    if (set == nullptr)
        return -1;
    orbs3_tag_set_t tags;
    for (mxml_node_t* t = next_elem(nullptr, set, "Tag"); t != nullptr; t = next_elem(t, set, "Tag")) {
        orbs3_tag_pair_t pair;
        if (tags.size() == kTagsRead || !elem_text(t, "Key", &pair.key))
            return -1;
        (void)elem_text(t, "Value", &pair.value);
        tags.push_back(std::move(pair));
    }
    *out = std::move(tags);
    return 0;
}

int parse_object_tagging_header(std::string_view text, orbs3_tag_set_t* out)
{
    orbs3_tag_set_t tags;
    while (!text.empty()) {
        const std::size_t amp = text.find('&');
        const std::string_view pair = text.substr(0, amp);
        text = amp == std::string_view::npos ? std::string_view{} : text.substr(amp + 1);
        const std::size_t eq = pair.find('=');
        orbs3_tag_pair_t t;
        if (tags.size() == kTagsRead || !form_decode(pair.substr(0, eq), &t.key) || t.key.empty())
            return -1;
        if (eq != std::string_view::npos && !form_decode(pair.substr(eq + 1), &t.value))
            return -1;
        tags.push_back(std::move(t));
    }
    *out = std::move(tags);
    return 0;
}

bool orbs3_tag_set_valid(const orbs3_tag_set_t& tags)
{
    if (tags.size() > ORBS3_TAGS_MAX)
        return false;
    for (std::size_t i = 0; i < tags.size(); ++i) {
        const orbs3_tag_pair_t& t = tags[i];
        const std::size_t key_chars = utf8_chars(t.key);
        if (key_chars == 0 || key_chars > ORBS3_TAG_KEY_MAX || utf8_chars(t.value) > ORBS3_TAG_VALUE_MAX)
            return false;
        if (!orbs3_xml_text_ok(t.key) || !orbs3_xml_text_ok(t.value))
            return false;
        for (std::size_t j = 0; j < i; ++j)
            if (tags[j].key == t.key)
                return false;
    }
    return true;
}

std::string make_object_tagging_xml(const orbs3_tag_set_t& tags)
{
    std::string out = R"(<?xml version="1.0" encoding="UTF-8"?>)"
                      R"(<Tagging xmlns="http://s3.amazonaws.com/doc/2006-03-01/"><TagSet>)";
    for (const orbs3_tag_pair_t& t : tags) {
        out += "<Tag><Key>";
        orbs3_xml_escape(&out, t.key);
        out += "</Key><Value>";
        orbs3_xml_escape(&out, t.value);
        out += "</Value></Tag>";
    }
    out += "</TagSet></Tagging>";
    return out;
}

// ---- recycle bin ----

int parse_bucket_recycle_conf_xmlstring(const char* text, int32_t* days)
{
    if (days == nullptr)
        return -1;
    orbs3_xml_ptr doc = load_body(text);
    mxml_node_t* root = doc != nullptr ? root_named(doc.get(), "RecycleConf") : nullptr;
    if (root == nullptr)
        return -1;
    int32_t d = 0;
    if (orbs3_xml_find(root, "Days") != nullptr && (!elem_int32(root, "Days", &d) || d < 0))
        return -1;
    *days = d;
    return 0;
}

char* make_bucket_recycle_conf_xmlstring(int32_t days)
{
    orbs3_xml_ptr xml = new_doc();
    mxml_node_t* root = mxmlNewElement(xml.get(), "RecycleConf");
    orbs3_xml_new_text_int(root, "Days", days);
    return save_doc(xml.get(), recycle_conf_whitespace_cb);
}

// ---- multipart upload ----

char* make_create_multipartupload_xmlstring(const char* bucket, const char* key, const char* upload_id)
{
    orbs3_xml_ptr xml = new_doc();
    mxml_node_t* root = mxmlNewElement(xml.get(), "InitiateMultipartUploadResult");
    new_text_cstr(root, "Bucket", bucket);
    new_text_cstr(root, "Key", key);
    new_text_cstr(root, "UploadId", upload_id);
    return save_doc(xml.get(), create_multipart_whitespace_cb);
}

int parse_complete_multipart_upload_xmlstring(const char* text, neo_list_head_t* list, orbs3_pool_t* pool)
{
    static constexpr std::pair<const char*, const char*> checksums[] = {
        {"ChecksumCRC32", "CRC32"}, {"ChecksumCRC32C", "CRC32C"}, {"ChecksumCRC64NVME", "CRC64NVME"},
        {"ChecksumSHA1", "SHA1"},   {"ChecksumSHA256", "SHA256"}};
    auto fill = [pool](mxml_node_t* p, orbs3_part_t* rec) {
        rec->part_number = orbs3_xml_get_textint(p, "PartNumber");
        text_or_empty(p, "ETag", &rec->etag, pool);
        for (const auto& [element, alg] : checksums) {
            if (rec->checksum_algorithm == nullptr && orbs3_pack_xml_text_str(p, element, &rec->checksum, pool) == 0)
                rec->checksum_algorithm = alg;
        }
        return 0;
    };
    return parse_records<orbs3_part_t>(text, nullptr, "Part", ORBS3_XML_MAX_PARTS, list, pool, fill);
}

namespace {

constexpr std::string_view kDocHead = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
constexpr std::string_view kS3Namespace = " xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"";

void elem(std::string* out, std::string_view name, std::string_view text)
{
    out->append("<").append(name).append(">");
    orbs3_xml_escape(out, text);
    out->append("</").append(name).append(">");
}

void open_doc(std::string* out, std::string_view root, bool s3_namespace = true)
{
    out->append(kDocHead).append("<").append(root);
    if (s3_namespace)
        out->append(kS3Namespace);
    out->append(">");
}

// "<ChecksumCRC32>value</ChecksumCRC32>" and so on, as S3's documents carry a checksum.
void checksum_elem(std::string* out, std::string_view algorithm, std::string_view value)
{
    if (!algorithm.empty() && !value.empty())
        elem(out, "Checksum" + std::string(algorithm), value);
}

void identity(std::string* out, std::string_view element, std::string_view id, std::string_view name)
{
    out->append("<").append(element).append(">");
    elem(out, "ID", id);
    elem(out, "DisplayName", name);
    out->append("</").append(element).append(">");
}

std::string quoted(std::string_view etag)
{
    return "\"" + std::string(etag) + "\"";
}

}  // namespace

std::string make_bucket_versioning_xmlstring(uint32_t status, int32_t save_num)
{
    std::string out;
    out.append(kDocHead).append("<VersioningConfiguration").append(kS3Namespace);
    if (status != 1 && save_num == 0)
        return out.append("/>");
    out.append(">");
    elem(&out, "Status", status == 1 ? "Enabled" : "Suspended");
    if (save_num > 0)
        elem(&out, "SaveNum", std::to_string(save_num));
    return out.append("</VersioningConfiguration>");
}

std::string orbs3_list_parts_xml(const orbs3_list_parts_doc_t& doc)
{
    std::string out;
    open_doc(&out, "ListPartsResult");
    elem(&out, "Bucket", doc.bucket);
    elem(&out, "Key", doc.key);
    elem(&out, "UploadId", doc.upload_id);
    identity(&out, "Initiator", doc.initiator_id, doc.initiator_name);
    identity(&out, "Owner", doc.initiator_id, doc.initiator_name);
    out.append("<StorageClass>STANDARD</StorageClass>");
    elem(&out, "PartNumberMarker", std::to_string(doc.marker));
    elem(&out, "NextPartNumberMarker", std::to_string(doc.next_marker));
    elem(&out, "MaxParts", std::to_string(doc.max_parts));
    elem(&out, "IsTruncated", doc.truncated ? "true" : "false");
    if (!doc.checksum_algorithm.empty()) {
        elem(&out, "ChecksumAlgorithm", doc.checksum_algorithm);
        elem(&out, "ChecksumType", doc.checksum_type);
    }
    for (const orbs3_part_row_t& p : doc.parts) {
        out.append("<Part>");
        elem(&out, "PartNumber", std::to_string(p.number));
        elem(&out, "LastModified", p.last_modified);
        elem(&out, "ETag", quoted(p.etag));
        elem(&out, "Size", std::to_string(p.size));
        checksum_elem(&out, p.checksum_algorithm, p.checksum);
        out.append("</Part>");
    }
    out.append("</ListPartsResult>");
    return out;
}

std::string orbs3_complete_upload_xml(std::string_view location, std::string_view bucket, std::string_view key,
                                      std::string_view etag, std::string_view checksum_algorithm,
                                      std::string_view checksum)
{
    std::string out;
    open_doc(&out, "CompleteMultipartUploadResult");
    elem(&out, "Location", location);
    elem(&out, "Bucket", bucket);
    elem(&out, "Key", key);
    elem(&out, "ETag", quoted(etag));
    if (!checksum.empty()) {
        checksum_elem(&out, checksum_algorithm, checksum);
        elem(&out, "ChecksumType", checksum.find('-') != std::string_view::npos ? "COMPOSITE" : "FULL_OBJECT");
    }
    out.append("</CompleteMultipartUploadResult>");
    return out;
}

std::string orbs3_copy_part_result_xml(std::string_view etag, std::string_view last_modified,
                                       std::string_view checksum_algorithm, std::string_view checksum)
{
    std::string out;
    open_doc(&out, "CopyPartResult", false);
    elem(&out, "ETag", quoted(etag));
    elem(&out, "LastModified", last_modified);
    checksum_elem(&out, checksum_algorithm, checksum);
    out.append("</CopyPartResult>");
    return out;
}

std::string orbs3_list_uploads_xml(const orbs3_list_uploads_doc_t& doc)
{
    auto enc = [&](std::string_view s) { return doc.url_encode ? orbs3_list_url_encode(s) : std::string(s); };
    std::string out;
    open_doc(&out, "ListMultipartUploadsResult");
    elem(&out, "Bucket", doc.bucket);
    elem(&out, "KeyMarker", enc(doc.key_marker));
    elem(&out, "UploadIdMarker", doc.upload_id_marker);
    elem(&out, "NextKeyMarker", doc.truncated ? enc(doc.next_key_marker) : "");
    elem(&out, "NextUploadIdMarker", doc.truncated ? doc.next_upload_id_marker : "");
    if (!doc.delimiter.empty())
        elem(&out, "Delimiter", enc(doc.delimiter));
    elem(&out, "Prefix", enc(doc.prefix));
    if (doc.url_encode)
        elem(&out, "EncodingType", "url");
    elem(&out, "MaxUploads", std::to_string(doc.max_uploads));
    elem(&out, "IsTruncated", doc.truncated ? "true" : "false");
    for (const orbs3_upload_row_t& up : doc.uploads) {
        out.append("<Upload>");
        elem(&out, "Key", enc(up.key));
        elem(&out, "UploadId", up.upload_id);
        identity(&out, "Initiator", up.initiator_id, up.initiator_name);
        identity(&out, "Owner", up.initiator_id, up.initiator_name);
        out.append("<StorageClass>STANDARD</StorageClass>");
        elem(&out, "Initiated", up.initiated);
        out.append("</Upload>");
    }
    for (std::string_view p : doc.prefixes) {
        out.append("<CommonPrefixes>");
        elem(&out, "Prefix", enc(p));
        out.append("</CommonPrefixes>");
    }
    out.append("</ListMultipartUploadsResult>");
    return out;
}

std::string orbs3_list_versions_xml(const orbs3_list_versions_doc_t& doc)
{
    auto enc = [&](std::string_view s) { return doc.url_encode ? orbs3_list_url_encode(s) : std::string(s); };
    std::string out;
    open_doc(&out, "ListVersionsResult");
    elem(&out, "Name", doc.bucket);
    elem(&out, "Prefix", enc(doc.prefix));
    elem(&out, "KeyMarker", enc(doc.key_marker));
    elem(&out, "VersionIdMarker", doc.version_id_marker);
    elem(&out, "MaxKeys", std::to_string(doc.max_keys));
    if (!doc.delimiter.empty())
        elem(&out, "Delimiter", enc(doc.delimiter));
    if (doc.url_encode)
        elem(&out, "EncodingType", "url");
    elem(&out, "IsTruncated", doc.truncated ? "true" : "false");
    if (doc.truncated) {
        elem(&out, "NextKeyMarker", enc(doc.next_key_marker));
        if (!doc.next_version_id_marker.empty())
            elem(&out, "NextVersionIdMarker", doc.next_version_id_marker);
    }
    if (doc.rows == nullptr) {
        out.append("</ListVersionsResult>");
        return out;
    }
    neo_list_head_t* pos;
    list_for_each(pos, doc.rows) {
        const auto* row = list_entry(pos, orbs3_version_row_t, link);
        if (row->kind == orbs3_version_row_kind::common_prefix)
            continue;
        const bool marker = row->kind == orbs3_version_row_kind::delete_marker;
        out.append(marker ? "<DeleteMarker>" : "<Version>");
        elem(&out, "Key", enc(orbs3_str_view(row->key)));
        elem(&out, "VersionId", orbs3_str_view(row->version_id));
        elem(&out, "IsLatest", row->is_latest ? "true" : "false");
        elem(&out, "LastModified", orbs3_str_view(row->last_modified));
        if (!marker) {
            if (row->etag.len != 0)
                elem(&out, "ETag", quoted(orbs3_str_view(row->etag)));
            elem(&out, "Size", std::to_string(row->size));
            out.append("<StorageClass>STANDARD</StorageClass>");
        }
        identity(&out, "Owner", orbs3_str_view(row->owner_id), orbs3_str_view(row->owner_display_name));
        out.append(marker ? "</DeleteMarker>" : "</Version>");
    }
    list_for_each(pos, doc.rows) {
        const auto* row = list_entry(pos, orbs3_version_row_t, link);
        if (row->kind != orbs3_version_row_kind::common_prefix)
            continue;
        out.append("<CommonPrefixes>");
        elem(&out, "Prefix", enc(orbs3_str_view(row->key)));
        out.append("</CommonPrefixes>");
    }
    out.append("</ListVersionsResult>");
    return out;
}

// ---- batch delete ----

int parse_del_objects_xmlstring(const char* text, neo_list_head_t* list, orbs3_pool_t* pool)
{
    return parse_records<orbs3_del_key_t>(text, nullptr, "Object", ORBS3_XML_MAX_DEL_OBJECTS, list, pool,
                                          [pool](mxml_node_t* o, orbs3_del_key_t* rec) {
                                              std::string k, v;
                                              (void)elem_text(o, "Key", &k);
                                              if (k.size() > ORBS3_XML_DEL_KEY_MAX)
                                                  return -1;
                                              // A version id longer than a key can't name anything.
                                              if (elem_text(o, "VersionId", &v) &&
                                                  (v.size() > ORBS3_XML_DEL_KEY_MAX ||
                                                   pool_str(&rec->version_id, v.c_str(), ORBS3_XML_DEL_KEY_MAX,
                                                            pool) != 0))
                                                  return -1;
                                              return pool_str(&rec->key, k.c_str(), ORBS3_XML_DEL_KEY_MAX, pool);
                                          });
}

char* make_del_objects_xmlstring(neo_list_head_t* deleted, neo_list_head_t* failed)
{
    orbs3_xml_ptr xml = new_doc();
    mxml_node_t* root = mxmlNewElement(xml.get(), "DeleteResult");
    neo_list_head_t* pos;
    if (deleted != nullptr) {
        list_for_each(pos, deleted) {
            const auto* k = list_entry(pos, orbs3_del_key_t, link);
            mxml_node_t* d = mxmlNewElement(root, "Deleted");
            new_text_str(d, "Key", k->key);
            if (k->version_id.data != nullptr)
                new_text_str(d, "VersionId", k->version_id);
            if (k->delete_marker) {
                new_text_cstr(d, "DeleteMarker", "true");
                new_text_str(d, "DeleteMarkerVersionId", k->delete_marker_version_id);
            }
        }
    }
    if (failed != nullptr) {
        list_for_each(pos, failed) {
            const auto* k = list_entry(pos, orbs3_del_key_t, link);
            mxml_node_t* e = mxmlNewElement(root, "Error");
            new_text_str(e, "Key", k->key);
            if (k->version_id.data != nullptr)
                new_text_str(e, "VersionId", k->version_id);
        }
    }
    return save_doc(xml.get(), del_objects_whitespace_cb);
}

bool parse_del_objects_quiet(const char* text)
{
    orbs3_xml_ptr doc = load_body(text);
    if (doc == nullptr)
        return false;
    return strcasecmp(elem_word(doc.get(), "Quiet").c_str(), "true") == 0;
}

char* make_copy_object_result_xmlstring(const char* last_modified, const char* etag)
{
    orbs3_xml_ptr xml = new_doc();
    mxml_node_t* root = mxmlNewElement(xml.get(), "CopyObjectResult");
    new_text_cstr(root, "LastModified", last_modified);
    new_text_cstr(root, "ETag", etag);
    return save_doc(xml.get(), nullptr);
}

char* make_object_version_xml(std::string_view name, std::string_view key, uint64_t size,
                              std::string_view last_modified)
{
    orbs3_xml_ptr xml = new_doc();
    mxml_node_t* root = mxmlNewElement(xml.get(), "Object");
    new_text_view(root, "Name", name);
    new_text_view(root, "Path", key);
    mxmlNewTextf(mxmlNewElement(root, "Size"), 0, "%" PRIu64, size);
    new_text_view(root, "Date", last_modified);
    return save_doc(xml.get(), nullptr);
}
