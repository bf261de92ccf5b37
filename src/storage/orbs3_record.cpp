#include "storage/orbs3_record.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

#include "core/orbs3_xml.h"
#include "memory/neo_files.h"
#include "memory/neo_string.h"
#include "storage/orbs3_file_helpers.h"

namespace {

// ---- memory of a record: its pool, or the heap for the service record ----

struct rec_mem {
    orbs3_pool_t* pool;  // null: calloc, freed by the service record's own walk

    void* alloc(std::size_t n) const { return pool ? orbs3_pcalloc(pool, n) : std::calloc(1, n); }

    // The text cut to `cap` bytes; an empty text leaves the string empty. False when memory runs out.
    bool set(orbs3_str_t* s, const char* text, std::size_t cap) const
    {
        s->len = 0;
        s->data = nullptr;
        if (text == nullptr || text[0] == '\0')
            return true;
        const std::size_t n = strnlen(text, cap);
        auto* d = static_cast<char*>(alloc(n + 1));
        if (d == nullptr)
            return false;
        std::memcpy(d, text, n);
        s->data = d;
        s->len = n;
        return true;
    }

    // The bytes as they are, NUL bytes too, cut to `cap`.
    bool set_bytes(orbs3_str_t* s, std::string_view bytes, std::size_t cap) const
    {
        s->len = 0;
        s->data = nullptr;
        if (bytes.empty())
            return true;
        const std::size_t n = std::min(bytes.size(), cap);
        auto* d = static_cast<char*>(alloc(n + 1));
        if (d == nullptr)
            return false;
        std::memcpy(d, bytes.data(), n);
        s->data = d;
        s->len = n;
        return true;
    }

    bool append(neo_list_head_t* head, void* data) const
    {
        auto* node = static_cast<orbs3_list_node_t*>(alloc(sizeof(orbs3_list_node_t)));
        if (node == nullptr)
            return false;
        node->data = data;
        list_add_tail(&node->list, head);
        return true;
    }
};

void heap_str_free(orbs3_str_t* s)
{
    std::free(s->data);
    s->data = nullptr;
    s->len = 0;
}

// Frees the nodes of a heap list and, through `drop`, what they carry.
template <typename Drop>
void heap_list_free(neo_list_head_t* head, Drop drop)
{
    neo_list_head_t* pos;
    neo_list_head_t* n;
    list_for_each_safe(pos, n, head)
    {
        orbs3_list_node_t* node = orbs3_list_node(pos);
        drop(node->data);
        list_del(pos);
        std::free(node);
    }
    INIT_LIST_HEAD(head);
}

void heap_rule_free(void* data)
{
    auto* rule = static_cast<orbs3_bucket_rule_t*>(data);
    if (rule == nullptr)
        return;
    heap_str_free(&rule->name);
    heap_list_free(&rule->addrs, [](void* d) {
        auto* a = static_cast<orbs3_rule_addr_t*>(d);
        heap_str_free(&a->addr);
        std::free(a);
    });
    heap_list_free(&rule->users, [](void* d) {
        auto* u = static_cast<orbs3_rule_user_t*>(d);
        heap_str_free(&u->userid);
        heap_str_free(&u->name);
        std::free(u);
    });
    std::free(rule);
}

// ---- values ----

std::string capped(const orbs3_str_t& s, std::size_t cap)
{
    return std::string(neo_getstr(&s), s.len < cap ? s.len : cap);
}

bool is_set(const orbs3_str_t& s)
{
    return s.len > 0 && s.data != nullptr;
}

// Strict decimal within [lo, hi]: an optional "-", digits, nothing else.
bool parse_number(const char* text, int64_t lo, int64_t hi, int64_t* out)
{
    if (text == nullptr)
        return false;
    const char* p = text;
    if (*p == '-')
        ++p;
    if (*p < '0' || *p > '9')
        return false;
    errno = 0;
    char* end = nullptr;
    const long long v = std::strtoll(text, &end, 10);
    if (errno == ERANGE || *end != '\0' || v < lo || v > hi)
        return false;
    *out = v;
    return true;
}

// The record time form "%d-%02d-%02dT%02d:%02d:%02d.000Z".
bool is_meta_time(const char* t)
{
    const char* p = t;
    if (*p == '-')
        ++p;
    const char* digits = p;
    while (*p >= '0' && *p <= '9')
        ++p;
    if (p == digits || p - digits > 10)
        return false;
    static constexpr char rest[] = "-dd-ddTdd:dd:dd.000Z";
    for (const char* r = rest; *r != '\0'; ++r, ++p) {
        if (*r == 'd' ? (*p < '0' || *p > '9') : *p != *r)
            return false;
    }
    return *p == '\0';
}

// A value Mini-XML cannot carry (a control byte, a byte that is not UTF-8; a record holding one would not
// load at all) goes under the attribute's name with this suffix, every byte that is not printable ASCII,
// and '%', as %XX. Every other value is written as it is, so records of plain texts keep their bytes.
constexpr std::string_view kEncodedSuffix = "_pct";

std::string encoded_name(const char* attr)
{
    return std::string(attr).append(kEncodedSuffix);
}

// Sets the attribute to `value`, or its encoded form when Mini-XML could not read the value back.
void set_text_attr(mxml_node_t* n, const char* attr, std::string_view value)
{
    if (orbs3_xml_text_ok(value)) {
        mxmlElementSetAttr(n, attr, std::string(value).c_str());
    } else {
        std::string encoded;
        neo_pct_encode(&encoded, value, neo_pct_keep::printable);
        mxmlElementSetAttr(n, encoded_name(attr).c_str(), encoded.c_str());
    }
}

// The attribute's value as set_text_attr wrote it into out. 1 when found, 0 when neither form is there,
// -1 when the encoded form is broken.
int get_text_attr(mxml_node_t* n, const char* attr, std::string* out)
{
    if (const char* v = mxmlElementGetAttr(n, attr)) {
        out->assign(v);
        return 1;
    }
    const char* e = mxmlElementGetAttr(n, encoded_name(attr).c_str());
    if (e == nullptr)
        return 0;
    out->clear();
    return neo_pct_decode(out, e) ? 1 : -1;
}

const char* status_word(uint32_t on)
{
    return on == 1 ? "start" : "stop";
}

// ---- writing helpers ----

// Attribute values go through one place so every cut and every number bound is the same for all records.
struct writer {
    bool ok = true;

    void str(mxml_node_t* n, const char* attr, const orbs3_str_t& s, std::size_t cap)
    {
        if (is_set(s))
            set_text_attr(n, attr, capped(s, cap));
    }
    // Written even when empty.
    void text(mxml_node_t* n, const char* attr, std::string_view value) { set_text_attr(n, attr, value); }
    void chars(mxml_node_t* n, const char* attr, const char* area, std::size_t cap)
    {
        text(n, attr, std::string_view(area, strnlen(area, cap)));
    }
    void time(mxml_node_t* n, const char* attr, const orbs3_str_t& s)
    {
        if (!is_set(s))
            return;
        const std::string t = capped(s, ORBS3_REC_TIME_CAP);
        if (t.size() != s.len || !is_meta_time(t.c_str())) {
            ok = false;
            return;
        }
        mxmlElementSetAttr(n, attr, t.c_str());
    }
    void number(mxml_node_t* n, const char* attr, int64_t v, int64_t lo, int64_t hi)
    {
        if (v < lo || v > hi) {
            ok = false;
            return;
        }
        mxmlElementSetAttrf(n, attr, "%lld", static_cast<long long>(v));
    }
    void i32(mxml_node_t* n, const char* attr, int64_t v) { number(n, attr, v, INT32_MIN, INT32_MAX); }
    void u32(mxml_node_t* n, const char* attr, uint32_t v) { number(n, attr, v, 0, INT32_MAX); }
    void u64(mxml_node_t* n, const char* attr, uint64_t v)
    {
        if (v > static_cast<uint64_t>(INT64_MAX)) {
            ok = false;
            return;
        }
        number(n, attr, static_cast<int64_t>(v), 0, INT64_MAX);
    }
};

struct perm_attr {
    const char* name;
    int index;
};
constexpr perm_attr kBucketPerms[] = {
    {"create", ORBS3_PERM_CREATE},       {"read", ORBS3_PERM_READ},       {"list", ORBS3_PERM_LIST},
    {"delete", ORBS3_PERM_DELETE},       {"rename", ORBS3_PERM_RENAME},   {"copy", ORBS3_PERM_COPY},
    {"blacklist", ORBS3_PERM_BLACKLIST}, {"authority", ORBS3_PERM_AUTHORITY}, {"version", ORBS3_PERM_VERSION},
    {"quota", ORBS3_PERM_QUOTA},         {"recycle", ORBS3_PERM_RECYCLE},
};
constexpr perm_attr kObjectPerms[] = {
    {"write", ORBS3_PERM_WRITE}, {"read", ORBS3_PERM_READ}, {"list", ORBS3_PERM_LIST},
    {"delete", ORBS3_PERM_DELETE}, {"copy", ORBS3_PERM_COPY},
};

enum class rule_kind { addrs, authaddr, authak };

template <std::size_t N>
void write_perms(mxml_node_t* rule, const char* name, const orbs3_rule_perm_t& p, const perm_attr (&table)[N])
{
    mxml_node_t* el = mxmlNewElement(rule, name);
    for (const perm_attr& a : table) {
        if (p.flag[a.index] != 0)
            mxmlElementSetAttr(el, a.name, "yes");
    }
}

void write_rules(writer& w, mxml_node_t* parent, const char* name, const neo_list_head_t* list, rule_kind kind)
{
    mxml_node_t* el = mxmlNewElement(parent, name);
    for (neo_list_head_t* pos = list->next; pos != list; pos = pos->next) {
        const auto* r = static_cast<const orbs3_bucket_rule_t*>(orbs3_list_node(pos)->data);
        mxml_node_t* rn = mxmlNewElement(el, "rule");
        mxmlElementSetAttr(rn, "id", std::string(r->id, strnlen(r->id, ORBS3_REC_ID_CAP)).c_str());
        w.str(rn, "name", r->name, ORBS3_REC_NAME_CAP);
        mxmlElementSetAttr(rn, "status", status_word(r->status));
        if (kind == rule_kind::authak) {
            for (neo_list_head_t* u = r->users.next; u != &r->users; u = u->next) {
                const auto* user = static_cast<const orbs3_rule_user_t*>(orbs3_list_node(u)->data);
                mxml_node_t* un = mxmlNewElement(rn, "user");
                w.str(un, "name", user->name, ORBS3_REC_NAME_CAP);
                w.str(un, "userid", user->userid, ORBS3_REC_NAME_CAP);
            }
        } else {
            for (neo_list_head_t* a = r->addrs.next; a != &r->addrs; a = a->next) {
                const auto* addr = static_cast<const orbs3_rule_addr_t*>(orbs3_list_node(a)->data);
                mxml_node_t* an = mxmlNewElement(rn, "addrs");
                w.str(an, "addr", addr->addr, ORBS3_REC_ADDR_CAP);
                w.u32(an, "mask", addr->mask);
            }
        }
        if (kind != rule_kind::addrs) {
            write_perms(rn, "bucket", r->bucket, kBucketPerms);
            write_perms(rn, "object", r->object, kObjectPerms);
        }
    }
}

bool named(mxml_node_t* node, const char* name)
{
    const char* n = mxmlGetElement(node);
    return n != nullptr && std::strcmp(n, name) == 0;
}

bool parent_named(mxml_node_t* node, const char* name)
{
    mxml_node_t* p = mxmlGetParent(node);
    return p != nullptr && named(p, name);
}

bool one_of(const char* name, std::initializer_list<const char*> names)
{
    for (const char* n : names) {
        if (std::strcmp(name, n) == 0)
            return true;
    }
    return false;
}

const char* bucket_ws(mxml_node_t* node, int where)
{
    const char* name = mxmlGetElement(node);
    if (name == nullptr || (where != MXML_WS_BEFORE_OPEN && where != MXML_WS_BEFORE_CLOSE))
        return nullptr;
    const bool in_rule = parent_named(node, "rule");
    if (std::strcmp(name, "bucket") == 0 && !in_rule)
        return "\n";
    if (one_of(name, {"version", "lifecycle", "whitelist", "blacklist", "authaddr_list", "authak_list", "quota"}))
        return "\n\t";
    if (std::strcmp(name, "rule") == 0)
        return where == MXML_WS_BEFORE_OPEN ? "\n\t\t" : nullptr;
    if (one_of(name, {"addrs", "user"}) || (in_rule && one_of(name, {"bucket", "object"})))
        return "\n\t\t\t";
    return nullptr;
}

const char* object_ws(mxml_node_t* node, int where)
{
    const char* name = mxmlGetElement(node);
    if (name == nullptr || (where != MXML_WS_BEFORE_OPEN && where != MXML_WS_BEFORE_CLOSE))
        return nullptr;
    if (std::strcmp(name, "object") == 0)
        return "\n";
    if (std::strcmp(name, "tagging") == 0 || std::strcmp(name, "meta") == 0)
        return "\n\t";
    return nullptr;
}

// Carriage returns, not tabs: the service file has always been laid out so, and other tools of the node
// read it. "addr" is the name this layout has always used; the rules' address elements are "addrs" and so
// get no break of their own.
const char* service_ws(mxml_node_t* node, int where)
{
    const char* name = mxmlGetElement(node);
    if (name == nullptr || (where != MXML_WS_BEFORE_OPEN && where != MXML_WS_BEFORE_CLOSE))
        return nullptr;
    if (std::strcmp(name, "service") == 0)
        return "\n";
    if (one_of(name, {"version", "accelerated", "whitelist", "blacklist", "authaddr_list", "authak_list", "quota"}))
        return "\n\r";
    if (std::strcmp(name, "rule") == 0)
        return where == MXML_WS_BEFORE_OPEN ? "\n\r\r" : nullptr;
    if (one_of(name, {"addr", "bucket", "object"}))
        return "\n\r\r";
    return nullptr;
}

// Saves without Mini-XML's line wrapping, which would break long attribute lists at column 72 and make
// the layout depend on the values.
int save_tree(const orbs3_xml_ptr& xml, bool ok, mxml_save_cb_t cb, char** text)
{
    *text = nullptr;
    if (!ok)
        return -1;
    mxmlSetWrapMargin(0);
    char* s = mxmlSaveAllocString(xml.get(), cb);
    mxmlSetWrapMargin(72);
    if (s == nullptr)
        return -1;
    *text = s;
    return 0;
}

// ---- reading helpers ----

mxml_node_t* child(mxml_node_t* parent, const char* name)
{
    return parent ? mxmlFindElement(parent, parent, name, nullptr, nullptr, MXML_DESCEND_FIRST) : nullptr;
}

mxml_node_t* next_sibling(mxml_node_t* node, mxml_node_t* parent, const char* name)
{
    return mxmlFindElement(node, parent, name, nullptr, nullptr, MXML_NO_DESCEND);
}

#define FOR_CHILDREN(var, parent, name) \
    for (mxml_node_t* var = child(parent, name); var != nullptr; var = next_sibling(var, parent, name))

// Reads attributes with one failure flag: a missing attribute leaves the field, a bad one fails the record.
struct reader {
    rec_mem mem;
    bool ok = true;

    void str(mxml_node_t* n, const char* attr, orbs3_str_t* s, std::size_t cap)
    {
        std::string v;
        const int found = get_text_attr(n, attr, &v);
        if (found < 0 || (found > 0 && !mem.set_bytes(s, v, cap)))
            ok = false;
    }
    // Into a fixed area of cap + 1 bytes, always terminated; a missing attribute leaves it.
    void chars(mxml_node_t* n, const char* attr, char* area, std::size_t cap)
    {
        std::string v;
        const int found = get_text_attr(n, attr, &v);
        if (found < 0) {
            ok = false;
        } else if (found > 0) {
            const std::size_t len = std::min(v.size(), cap);
            std::memcpy(area, v.data(), len);
            area[len] = '\0';
        }
    }
    void time(mxml_node_t* n, const char* attr, orbs3_str_t* s)
    {
        const char* v = mxmlElementGetAttr(n, attr);
        if (v == nullptr || v[0] == '\0')
            return;
        if (!is_meta_time(v) || !mem.set(s, v, ORBS3_REC_TIME_CAP))
            ok = false;
    }
    bool number(mxml_node_t* n, const char* attr, int64_t lo, int64_t hi, int64_t* out)
    {
        const char* v = mxmlElementGetAttr(n, attr);
        if (v == nullptr)
            return false;
        if (!parse_number(v, lo, hi, out)) {
            ok = false;
            return false;
        }
        return true;
    }
    template <typename T>
    void num(mxml_node_t* n, const char* attr, T* out, int64_t lo, int64_t hi)
    {
        int64_t v;
        if (number(n, attr, lo, hi, &v))
            *out = static_cast<T>(v);
    }
    void i32(mxml_node_t* n, const char* attr, int32_t* out) { num(n, attr, out, INT32_MIN, INT32_MAX); }
    void u32(mxml_node_t* n, const char* attr, uint32_t* out) { num(n, attr, out, 0, INT32_MAX); }
    void u32_64(mxml_node_t* n, const char* attr, uint64_t* out) { num(n, attr, out, 0, INT32_MAX); }
    void u64(mxml_node_t* n, const char* attr, uint64_t* out) { num(n, attr, out, 0, INT64_MAX); }
    // A text number of kilobytes; stored as a number, 0 being none.
    void text_u64(mxml_node_t* n, const char* attr, uint64_t* out)
    {
        const char* v = mxmlElementGetAttr(n, attr);
        if (v == nullptr || v[0] == '\0')
            return;
        u64(n, attr, out);
    }
    void flag(mxml_node_t* n, const char* attr, const char* on, uint32_t* out)
    {
        const char* v = mxmlElementGetAttr(n, attr);
        if (v != nullptr)
            *out = std::strcmp(v, on) == 0 ? 1 : 0;
    }
    void version_status(mxml_node_t* n, uint32_t* out)
    {
        const char* v = mxmlElementGetAttr(n, "status");
        if (v == nullptr)
            return;
        if (std::strcmp(v, "ENABLED") == 0)
            *out = 1;
        else if (std::strcmp(v, "SUSPENDED") == 0)
            *out = 0;
    }

    template <std::size_t N>
    void perms(mxml_node_t* el, orbs3_rule_perm_t* p, const perm_attr (&table)[N])
    {
        if (el == nullptr)
            return;
        for (const perm_attr& a : table) {
            const char* v = mxmlElementGetAttr(el, a.name);
            if (v != nullptr && std::strcmp(v, "yes") == 0)
                p->flag[a.index] = 1;
        }
    }

    void rules(mxml_node_t* list_el, neo_list_head_t* out)
    {
        FOR_CHILDREN(rn, list_el, "rule")
        {
            if (!ok)
                return;
            auto* r = static_cast<orbs3_bucket_rule_t*>(mem.alloc(sizeof(orbs3_bucket_rule_t)));
            if (r == nullptr) {
                ok = false;
                return;
            }
            INIT_LIST_HEAD(&r->addrs);
            INIT_LIST_HEAD(&r->users);
            if (!mem.append(out, r)) {
                if (mem.pool == nullptr)
                    std::free(r);
                ok = false;
                return;
            }
            const char* id = mxmlElementGetAttr(rn, "id");
            if (id != nullptr) {
                const std::size_t n = strnlen(id, ORBS3_REC_ID_CAP);
                std::memcpy(r->id, id, n);
                r->id[n] = '\0';
            }
            str(rn, "name", &r->name, ORBS3_REC_NAME_CAP);
            flag(rn, "status", "start", &r->status);
            FOR_CHILDREN(an, rn, "addrs")
            {
                auto* a = static_cast<orbs3_rule_addr_t*>(mem.alloc(sizeof(orbs3_rule_addr_t)));
                if (a == nullptr || !mem.append(&r->addrs, a)) {
                    if (mem.pool == nullptr)
                        std::free(a);
                    ok = false;
                    return;
                }
                str(an, "addr", &a->addr, ORBS3_REC_ADDR_CAP);
                u32(an, "mask", &a->mask);
            }
            FOR_CHILDREN(un, rn, "user")
            {
                auto* u = static_cast<orbs3_rule_user_t*>(mem.alloc(sizeof(orbs3_rule_user_t)));
                if (u == nullptr || !mem.append(&r->users, u)) {
                    if (mem.pool == nullptr)
                        std::free(u);
                    ok = false;
                    return;
                }
                str(un, "name", &u->name, ORBS3_REC_NAME_CAP);
                str(un, "userid", &u->userid, ORBS3_REC_NAME_CAP);
            }
            perms(child(rn, "bucket"), &r->bucket, kBucketPerms);
            perms(child(rn, "object"), &r->object, kObjectPerms);
        }
    }
};

bool is_declaration(mxml_node_t* node)
{
    const char* n = mxmlGetElement(node);
    return n != nullptr && std::strncmp(n, "?xml", 4) == 0;
}

bool ends_with(std::string_view t, std::string_view tail)
{
    return t.size() >= tail.size() && t.substr(t.size() - tail.size()) == tail;
}

// Mini-XML takes a text that stops inside a tag, or an element left open at the end of the text when
// there is no XML declaration above it, as a smaller document; a record cut short would pass. So the text
// must end in a tag, and a top element without the declaration must end in its own closing tag (or be a
// single empty-element tag).
orbs3_xml_ptr load_text(const char* text)
{
    if (text == nullptr)
        return nullptr;
    std::string_view t(text);
    const std::size_t last = t.find_last_not_of(" \t\r\n");
    if (last == std::string_view::npos || t[last] != '>')
        return nullptr;
    t = t.substr(0, last + 1);
    orbs3_xml_ptr xml(mxmlLoadString(nullptr, text, MXML_OPAQUE_CALLBACK));
    mxml_node_t* top = xml.get();
    if (top == nullptr || is_declaration(top) || mxmlGetType(top) != MXML_ELEMENT)
        return xml;
    const std::string close = std::string("</") + mxmlGetElement(top) + ">";
    if (ends_with(t, close) || (mxmlGetFirstChild(top) == nullptr && ends_with(t, "/>")))
        return xml;
    return nullptr;
}

// Back to a freshly made record: fields zero, lists valid and empty. Pool memory of a failed parse stays
// in the pool until the record is freed.
void bucket_clear(orbs3_bucket_t* b)
{
    orbs3_bucket_t keep = *b;
    std::memset(static_cast<void*>(b), 0, sizeof(*b));
    b->link = keep.link;
    b->data_dir = keep.data_dir;
    b->meta_file = keep.meta_file;
    b->meta_dir = keep.meta_dir;
    b->version_dir = keep.version_dir;
    b->recycle_dir = keep.recycle_dir;
    b->pool = keep.pool;
    for (neo_list_head_t* l : {&b->lifecycle, &b->blacklist, &b->whitelist, &b->authak_list, &b->authaddr_list})
        INIT_LIST_HEAD(l);
}

void object_clear(orbs3_object_t* o)
{
    orbs3_pool_t* pool = o->pool;
    std::memset(static_cast<void*>(o), 0, sizeof(*o));
    o->pool = pool;
    INIT_LIST_HEAD(&o->tags);
    INIT_LIST_HEAD(&o->meta);
}

void service_clear(orbs3_service_rec_t* s)
{
    for (neo_list_head_t* l : {&s->blacklist, &s->whitelist, &s->authak_list, &s->authaddr_list}) {
        if (l->next != nullptr)
            orbs3_free_service_rules(l);
    }
    for (orbs3_str_t* t : {&s->quota.service_quota, &s->quota.bucket_quota, &s->quota.file_threshold,
                           &s->quota.segment_size, &s->accelerate_path, &s->low_frequency_path,
                           &s->archiving_path})
        heap_str_free(t);
    std::memset(static_cast<void*>(s), 0, sizeof(*s));
    for (neo_list_head_t* l : {&s->blacklist, &s->whitelist, &s->authak_list, &s->authaddr_list})
        INIT_LIST_HEAD(l);
}

// A record file is whole when it loads and its root is there, so a file cut right behind the declaration
// is refused too.
bool read_whole(const char* path, std::string* out)
{
    orbs3_file_ptr fp(std::fopen(path, "re"));
    if (!fp)
        return false;
    char buf[4096];
    std::size_t n;
    out->clear();
    while ((n = std::fread(buf, 1, sizeof(buf), fp.get())) > 0)
        out->append(buf, n);
    return std::ferror(fp.get()) == 0;
}

bool looks_whole(const std::string& text, const char* root)
{
    orbs3_xml_ptr xml = load_text(text.c_str());
    if (!xml)
        return false;
    // The root sits at the top or right under the XML declaration, never deeper.
    mxml_node_t* top = xml.get();
    if (named(top, root))
        return true;
    return is_declaration(top) && child(top, root) != nullptr;
}

}  // namespace

bool orbs3_record_text_whole(const char* text, const char* root)
{
    return text != nullptr && root != nullptr && looks_whole(std::string(text), root);
}

// ---- writers ----

int orbs3_make_bucket_xml(const orbs3_bucket_t* b, char** text)
{
    *text = nullptr;
    if (b == nullptr)
        return -1;
    orbs3_xml_ptr xml(mxmlNewXML("1.0"));
    if (!xml)
        return -1;
    writer w;
    mxml_node_t* root = mxmlNewElement(xml.get(), "bucket");
    w.str(root, "bucketname", b->name, ORBS3_REC_NAME_CAP);
    w.str(root, "alias", b->alias, ORBS3_REC_NAME_CAP);
    w.time(root, "created_date", b->created_date);
    w.str(root, "extranet_endpoint", b->extranet_endpoint, ORBS3_REC_PATH_CAP);
    w.str(root, "intranet_endpoint", b->intranet_endpoint, ORBS3_REC_PATH_CAP);
    w.str(root, "owner_id", b->owner_id, ORBS3_REC_NAME_CAP);
    w.str(root, "owner_name", b->owner_name, ORBS3_REC_NAME_CAP);
    for (neo_list_head_t* pos = b->lifecycle.next; pos != &b->lifecycle; pos = pos->next) {
        const auto* id = static_cast<const char*>(orbs3_list_node(pos)->data);
        mxml_node_t* lc = mxmlNewElement(root, "lifecycle");
        mxmlElementSetAttr(lc, "id", std::string(id ? id : "", id ? strnlen(id, ORBS3_REC_ID_CAP) : 0).c_str());
    }
    mxml_node_t* ver = mxmlNewElement(root, "version");
    w.i32(ver, "num", b->versioning.save_num);
    mxmlElementSetAttr(ver, "status", b->versioning.status == 1 ? "ENABLED" : "SUSPENDED");
    write_rules(w, root, "whitelist", &b->whitelist, rule_kind::addrs);
    mxmlElementSetAttr(root, "whitelist_status", status_word(b->whitelist_status));
    write_rules(w, root, "blacklist", &b->blacklist, rule_kind::addrs);
    mxmlElementSetAttr(root, "blacklist_status", status_word(b->blacklist_status));
    mxmlElementSetAttr(root, "authaddr_status", status_word(b->authaddr_status));
    write_rules(w, root, "authaddr_list", &b->authaddr_list, rule_kind::authaddr);
    mxmlElementSetAttr(root, "authak_status", status_word(b->authak_status));
    write_rules(w, root, "authak_list", &b->authak_list, rule_kind::authak);
    w.i32(root, "recycle_days", b->recycle_days);
    mxml_node_t* quota = mxmlNewElement(root, "quota");
    if (b->quota.bucketquota != 0)
        w.u64(quota, "bucketquota", b->quota.bucketquota);
    w.number(quota, "max_object", static_cast<int64_t>(std::min<uint64_t>(b->quota.max_object, UINT32_MAX)), 0,
             INT32_MAX);
    w.number(quota, "bucket_threshold",
             static_cast<int64_t>(std::min<uint64_t>(b->quota.bucket_threshold, UINT32_MAX)), 0, INT32_MAX);
    if (b->quota.file_threshold != 0)
        w.u64(quota, "file_threshold", b->quota.file_threshold);
    if (b->quota.segment_size != 0)
        w.u64(quota, "segment_size", b->quota.segment_size);
    w.u32(root, "acl", b->acl);
    mxml_node_t* stat = mxmlNewElement(root, "stat");
    w.u64(stat, "storage_in_bytes", b->stat.storage_in_bytes);
    w.u64(stat, "object_count", b->stat.object_count);
    w.u64(stat, "multipart_upload_count", b->stat.multipart_upload_count);
    return save_tree(xml, w.ok, bucket_ws, text);
}

int orbs3_make_object_xml(const orbs3_object_t* o, char** text)
{
    *text = nullptr;
    if (o == nullptr)
        return -1;
    orbs3_xml_ptr xml(mxmlNewXML("1.0"));
    if (!xml)
        return -1;
    writer w;
    mxml_node_t* root = mxmlNewElement(xml.get(), "object");
    w.str(root, "objectname", o->name, ORBS3_REC_KEY_CAP);
    w.str(root, "etag", o->etag, ORBS3_REC_ETAG_CAP);
    w.time(root, "last_modified", o->last_modified);
    w.str(root, "owner_id", o->owner_id, ORBS3_REC_NAME_CAP);
    w.str(root, "owner_display_name", o->owner_display_name, ORBS3_REC_NAME_CAP);
    w.chars(root, "path", o->path, ORBS3_REC_PATH_CAP);
    w.chars(root, "fpath", o->fpath, ORBS3_REC_PATH_CAP);
    w.u64(root, "size", o->size);
    w.u32(root, "acl", o->acl);
    if (o->lifecycle != 0)
        w.u32(root, "lifecycle", o->lifecycle);
    if (o->tags.next != nullptr) {
        for (neo_list_head_t* pos = o->tags.next; pos != &o->tags; pos = pos->next) {
            const auto* tag = static_cast<const orbs3_tag_t*>(orbs3_list_node(pos)->data);
            mxml_node_t* t = mxmlNewElement(root, "tagging");
            w.text(t, "key", capped(tag->key, ORBS3_REC_TAG_KEY_CAP));
            w.text(t, "value", capped(tag->value, ORBS3_REC_TAG_VALUE_CAP));
        }
    }
    // Older readers know none of what follows and pass over it.
    w.str(root, "content_type", o->content_type, ORBS3_REC_HEADER_CAP);
    w.str(root, "cache_control", o->cache_control, ORBS3_REC_HEADER_CAP);
    w.str(root, "content_disposition", o->content_disposition, ORBS3_REC_HEADER_CAP);
    w.str(root, "content_encoding", o->content_encoding, ORBS3_REC_HEADER_CAP);
    w.str(root, "expires", o->expires, ORBS3_REC_HEADER_CAP);
    w.str(root, "checksum_algorithm", o->checksum_algorithm, ORBS3_REC_NAME_CAP);
    w.str(root, "checksum", o->checksum, ORBS3_REC_NAME_CAP);
    w.str(root, "parts", o->parts, ORBS3_REC_PARTS_CAP);
    w.str(root, "part_checksums", o->part_checksums, ORBS3_REC_PART_CHECKSUMS_CAP);
    if (o->meta.next != nullptr) {
        for (neo_list_head_t* pos = o->meta.next; pos != &o->meta; pos = pos->next) {
            const auto* m = static_cast<const orbs3_tag_t*>(orbs3_list_node(pos)->data);
            mxml_node_t* t = mxmlNewElement(root, "meta");
            w.text(t, "key", capped(m->key, ORBS3_REC_META_CAP));
            w.text(t, "value", capped(m->value, ORBS3_REC_META_CAP));
        }
    }
    w.str(root, "upload_id", o->upload_id, ORBS3_REC_ID_CAP);
    w.str(root, "version_id", o->version_id, ORBS3_REC_ID_CAP);
    if (o->delete_marker != 0)
        w.u32(root, "delete_marker", o->delete_marker);
    w.str(root, "displaced", o->displaced, ORBS3_REC_ID_CAP);
    return save_tree(xml, w.ok, object_ws, text);
}

int orbs3_make_service_xml(const orbs3_service_rec_t* s, char** text)
{
    *text = nullptr;
    if (s == nullptr)
        return -1;
    orbs3_xml_ptr xml(mxmlNewXML("1.0"));
    if (!xml)
        return -1;
    writer w;
    mxml_node_t* root = mxmlNewElement(xml.get(), "service");
    mxml_node_t* ver = mxmlNewElement(root, "version");
    mxmlElementSetAttr(ver, "status", s->version_status == 1 ? "ENABLED" : "SUSPENDED");
    if (s->save_num > 0)
        w.i32(ver, "num", s->save_num);
    mxml_node_t* acc = mxmlNewElement(root, "accelerated");
    mxmlElementSetAttr(acc, "memory", s->memory == 1 ? "yes" : "no");
    if (s->memory_size > 0)
        w.u32(acc, "memory_size", s->memory_size);
    if (s->file_size > 0)
        w.u32(acc, "file_size", s->file_size);
    w.str(acc, "path", s->accelerate_path, ORBS3_REC_ACCEL_PATH_CAP);
    mxmlElementSetAttr(acc, "aggregate", s->aggregate == 1 ? "yes" : "no");
    write_rules(w, root, "whitelist", &s->whitelist, rule_kind::addrs);
    mxmlElementSetAttr(root, "whitelist_status", status_word(s->whitelist_status));
    write_rules(w, root, "blacklist", &s->blacklist, rule_kind::addrs);
    mxmlElementSetAttr(root, "blacklist_status", status_word(s->blacklist_status));
    mxmlElementSetAttr(root, "authaddr_status", status_word(s->authaddr_status));
    write_rules(w, root, "authaddr_list", &s->authaddr_list, rule_kind::authaddr);
    mxmlElementSetAttr(root, "authak_status", status_word(s->authak_status));
    write_rules(w, root, "authak_list", &s->authak_list, rule_kind::authak);
    mxml_node_t* quota = mxmlNewElement(root, "quota");
    w.str(quota, "service_quota", s->quota.service_quota, ORBS3_REC_NUMBER_CAP);
    w.str(quota, "bucket_quota", s->quota.bucket_quota, ORBS3_REC_NUMBER_CAP);
    w.u32(quota, "max_bucket", s->quota.max_bucket);
    w.u32(quota, "max_object", s->quota.max_object);
    w.u32(quota, "bucket_threshold", s->quota.bucket_threshold);
    w.str(quota, "file_threshold", s->quota.file_threshold, ORBS3_REC_NUMBER_CAP);
    w.str(quota, "segment_size", s->quota.segment_size, ORBS3_REC_NUMBER_CAP);
    w.str(root, "low_frequency_path", s->low_frequency_path, ORBS3_REC_PATH_CAP);
    w.str(root, "archiving_path", s->archiving_path, ORBS3_REC_PATH_CAP);
    return save_tree(xml, w.ok, service_ws, text);
}

// ---- atomic replace ----

bool orbs3_record_is_temp(std::string_view name)
{
    const std::size_t slash = name.rfind('/');
    if (slash != std::string_view::npos)
        name.remove_prefix(slash + 1);
    return name.substr(0, ORBS3_RECORD_TMP_PREFIX.size()) == ORBS3_RECORD_TMP_PREFIX;
}


int orbs3_record_replace(const char* path, const char* text, std::size_t len)
{
    if (path == nullptr || path[0] == '\0' || (text == nullptr && len > 0)) {
        errno = EINVAL;
        return -1;
    }
    // The temporary name is short whatever the record's name, so a key component near NAME_MAX still has
    // room beside it.
    const int rc = neo_replace_file(path, ORBS3_RECORD_TMP_PREFIX,
                                    [&](FILE* fp) { return len == 0 || std::fwrite(text, 1, len, fp) == len; });
    return rc == 0 ? 0 : -1;
}

namespace {

template <typename Rec, typename Make>
int save_with(const Rec* rec, const char* path, Make make)
{
    char* text = nullptr;
    if (make(rec, &text) != 0)
        return -1;
    std::unique_ptr<char, void (*)(void*)> owned(text, std::free);
    return orbs3_record_replace(path, text, std::strlen(text));
}

}  // namespace

int orbs3_save_bucket(const orbs3_bucket_t* bucket, const char* path)
{
    return save_with(bucket, path, orbs3_make_bucket_xml);
}

int orbs3_save_object(const orbs3_object_t* object, const char* path)
{
    return save_with(object, path, orbs3_make_object_xml);
}

int orbs3_save_service(const orbs3_service_rec_t* service, const char* path)
{
    return save_with(service, path, orbs3_make_service_xml);
}

// ---- readers ----

namespace {

// The record whose root element `root` sits at the top of the loaded text or right under its XML
// declaration, never deeper: a text cut short loads as a smaller document without it.
bool tree_whole(mxml_node_t* top, const char* root)
{
    return top != nullptr && (named(top, root) || (is_declaration(top) && child(top, root) != nullptr));
}

int parse_bucket_tree(orbs3_bucket_t* b, mxml_node_t* doc);
int parse_object_tree(orbs3_object_t* o, mxml_node_t* doc);

}  // namespace

int xml_parse_bucket(orbs3_bucket_t* b, const char* text)
{
    if (b == nullptr)
        return -1;
    bucket_clear(b);
    orbs3_xml_ptr xml = load_text(text);
    if (!xml)
        return -1;
    return parse_bucket_tree(b, xml.get());
}

namespace {

int parse_bucket_tree(orbs3_bucket_t* b, mxml_node_t* doc)
{
    mxml_node_t* root = orbs3_xml_find(doc, "bucket");
    if (root == nullptr)
        return 0;
    reader r{rec_mem{b->pool}};
    r.str(root, "bucketname", &b->name, ORBS3_REC_NAME_CAP);
    r.str(root, "alias", &b->alias, ORBS3_REC_NAME_CAP);
    r.time(root, "created_date", &b->created_date);
    r.str(root, "extranet_endpoint", &b->extranet_endpoint, ORBS3_REC_PATH_CAP);
    r.str(root, "intranet_endpoint", &b->intranet_endpoint, ORBS3_REC_PATH_CAP);
    r.str(root, "owner_id", &b->owner_id, ORBS3_REC_NAME_CAP);
    r.str(root, "owner_name", &b->owner_name, ORBS3_REC_NAME_CAP);
    FOR_CHILDREN(lc, root, "lifecycle")
    {
        const char* id = mxmlElementGetAttr(lc, "id");
        orbs3_str_t s{};
        if (!r.mem.set(&s, id ? id : "", ORBS3_REC_ID_CAP)) {
            r.ok = false;
            break;
        }
        // An identifier is carried as a terminated text; an empty one as "".
        char* data = s.data;
        if (data == nullptr) {
            data = static_cast<char*>(r.mem.alloc(1));
            if (data == nullptr) {
                r.ok = false;
                break;
            }
        }
        if (!r.mem.append(&b->lifecycle, data)) {
            r.ok = false;
            break;
        }
    }
    if (mxml_node_t* ver = child(root, "version")) {
        r.version_status(ver, &b->versioning.status);
        r.i32(ver, "num", &b->versioning.save_num);
    }
    r.rules(child(root, "whitelist"), &b->whitelist);
    r.flag(root, "whitelist_status", "start", &b->whitelist_status);
    r.rules(child(root, "blacklist"), &b->blacklist);
    r.flag(root, "blacklist_status", "start", &b->blacklist_status);
    r.flag(root, "authaddr_status", "start", &b->authaddr_status);
    r.rules(child(root, "authaddr_list"), &b->authaddr_list);
    r.flag(root, "authak_status", "start", &b->authak_status);
    r.rules(child(root, "authak_list"), &b->authak_list);
    r.i32(root, "recycle_days", &b->recycle_days);
    if (mxml_node_t* q = child(root, "quota")) {
        r.text_u64(q, "bucketquota", &b->quota.bucketquota);
        r.u32_64(q, "max_object", &b->quota.max_object);
        r.u32_64(q, "bucket_threshold", &b->quota.bucket_threshold);
        r.text_u64(q, "file_threshold", &b->quota.file_threshold);
        r.text_u64(q, "segment_size", &b->quota.segment_size);
    }
    r.u32(root, "acl", &b->acl);
    if (mxml_node_t* st = child(root, "stat")) {
        r.u64(st, "storage_in_bytes", &b->stat.storage_in_bytes);
        r.u64(st, "object_count", &b->stat.object_count);
        r.u64(st, "multipart_upload_count", &b->stat.multipart_upload_count);
    }
    if (!r.ok) {
        bucket_clear(b);
        return -1;
    }
    return 0;
}

}  // namespace

int xml_parse_object(orbs3_object_t* o, const char* text)
{
    if (o == nullptr)
        return -1;
    object_clear(o);
    orbs3_xml_ptr xml = load_text(text);
    if (!xml)
        return -1;
    return parse_object_tree(o, xml.get());
}

namespace {

int parse_object_tree(orbs3_object_t* o, mxml_node_t* doc)
{
    mxml_node_t* root = orbs3_xml_find(doc, "object");
    if (root == nullptr)
        return 0;
    reader r{rec_mem{o->pool}};
    r.str(root, "objectname", &o->name, ORBS3_REC_KEY_CAP);
    r.str(root, "etag", &o->etag, ORBS3_REC_ETAG_CAP);
    r.time(root, "last_modified", &o->last_modified);
    r.str(root, "owner_id", &o->owner_id, ORBS3_REC_NAME_CAP);
    r.str(root, "owner_display_name", &o->owner_display_name, ORBS3_REC_NAME_CAP);
    r.chars(root, "path", o->path, ORBS3_REC_PATH_CAP);
    r.chars(root, "fpath", o->fpath, ORBS3_REC_PATH_CAP);
    r.u64(root, "size", &o->size);
    r.u32(root, "acl", &o->acl);
    r.u32(root, "lifecycle", &o->lifecycle);
    FOR_CHILDREN(t, root, "tagging")
    {
        auto* tag = static_cast<orbs3_tag_t*>(r.mem.alloc(sizeof(orbs3_tag_t)));
        if (tag == nullptr || !r.mem.append(&o->tags, tag)) {
            r.ok = false;
            break;
        }
        r.str(t, "key", &tag->key, ORBS3_REC_TAG_KEY_CAP);
        r.str(t, "value", &tag->value, ORBS3_REC_TAG_VALUE_CAP);
    }
    r.str(root, "content_type", &o->content_type, ORBS3_REC_HEADER_CAP);
    r.str(root, "cache_control", &o->cache_control, ORBS3_REC_HEADER_CAP);
    r.str(root, "content_disposition", &o->content_disposition, ORBS3_REC_HEADER_CAP);
    r.str(root, "content_encoding", &o->content_encoding, ORBS3_REC_HEADER_CAP);
    r.str(root, "expires", &o->expires, ORBS3_REC_HEADER_CAP);
    r.str(root, "checksum_algorithm", &o->checksum_algorithm, ORBS3_REC_NAME_CAP);
    r.str(root, "checksum", &o->checksum, ORBS3_REC_NAME_CAP);
    r.str(root, "parts", &o->parts, ORBS3_REC_PARTS_CAP);
    r.str(root, "part_checksums", &o->part_checksums, ORBS3_REC_PART_CHECKSUMS_CAP);
    FOR_CHILDREN(t, root, "meta")
    {
        auto* m = static_cast<orbs3_tag_t*>(r.mem.alloc(sizeof(orbs3_tag_t)));
        if (m == nullptr || !r.mem.append(&o->meta, m)) {
            r.ok = false;
            break;
        }
        r.str(t, "key", &m->key, ORBS3_REC_META_CAP);
        r.str(t, "value", &m->value, ORBS3_REC_META_CAP);
    }
    r.str(root, "upload_id", &o->upload_id, ORBS3_REC_ID_CAP);
    r.str(root, "version_id", &o->version_id, ORBS3_REC_ID_CAP);
    r.u32(root, "delete_marker", &o->delete_marker);
    r.str(root, "displaced", &o->displaced, ORBS3_REC_ID_CAP);
    if (!r.ok) {
        object_clear(o);
        return -1;
    }
    return 0;
}

}  // namespace

int orbs3_parse_service_xml(orbs3_service_rec_t* s, const char* text)
{
    if (s == nullptr)
        return -1;
    service_clear(s);
    orbs3_xml_ptr xml = load_text(text);
    if (!xml)
        return -1;
    mxml_node_t* root = orbs3_xml_find(xml.get(), "service");
    if (root == nullptr)
        return 0;
    reader r{rec_mem{nullptr}};
    if (mxml_node_t* ver = child(root, "version")) {
        r.version_status(ver, &s->version_status);
        r.i32(ver, "num", &s->save_num);
    }
    if (mxml_node_t* acc = child(root, "accelerated")) {
        r.flag(acc, "memory", "yes", &s->memory);
        r.u32(acc, "memory_size", &s->memory_size);
        r.u32(acc, "file_size", &s->file_size);
        r.str(acc, "path", &s->accelerate_path, ORBS3_REC_ACCEL_PATH_CAP);
        r.flag(acc, "aggregate", "yes", &s->aggregate);
    }
    r.rules(child(root, "whitelist"), &s->whitelist);
    r.flag(root, "whitelist_status", "start", &s->whitelist_status);
    r.rules(child(root, "blacklist"), &s->blacklist);
    r.flag(root, "blacklist_status", "start", &s->blacklist_status);
    r.flag(root, "authaddr_status", "start", &s->authaddr_status);
    r.rules(child(root, "authaddr_list"), &s->authaddr_list);
    r.flag(root, "authak_status", "start", &s->authak_status);
    r.rules(child(root, "authak_list"), &s->authak_list);
    if (mxml_node_t* q = child(root, "quota")) {
        r.str(q, "service_quota", &s->quota.service_quota, ORBS3_REC_NUMBER_CAP);
        r.str(q, "bucket_quota", &s->quota.bucket_quota, ORBS3_REC_NUMBER_CAP);
        r.u32(q, "max_bucket", &s->quota.max_bucket);
        r.u32(q, "max_object", &s->quota.max_object);
        r.u32(q, "bucket_threshold", &s->quota.bucket_threshold);
        r.str(q, "file_threshold", &s->quota.file_threshold, ORBS3_REC_NUMBER_CAP);
        r.str(q, "segment_size", &s->quota.segment_size, ORBS3_REC_NUMBER_CAP);
    }
    r.str(root, "low_frequency_path", &s->low_frequency_path, ORBS3_REC_PATH_CAP);
    r.str(root, "archiving_path", &s->archiving_path, ORBS3_REC_PATH_CAP);
    if (!r.ok) {
        service_clear(s);
        return -1;
    }
    return 0;
}

orbs3_object_t* orbs3_create_object_block()
{
    orbs3_pool_ptr pool(orbs3_create_mem_block(ORBS3_OBJECT_POOL_SIZE));
    if (!pool)
        return nullptr;
    auto* o = static_cast<orbs3_object_t*>(orbs3_pcalloc(pool.get(), sizeof(orbs3_object_t)));
    if (o == nullptr)
        return nullptr;
    o->pool = pool.release();
    return o;
}

orbs3_object_t* orbs3_create_object_from_file(const char* path)
{
    char* raw = nullptr;
    if (path == nullptr || orbs3_read_data_from_file(path, &raw) != 0)
        return nullptr;
    neo_cstr_ptr text(raw);
    return orbs3_object_from_text(text.get());
}

orbs3_object_t* orbs3_object_from_text(const char* text)
{
    // One load of the text serves the test for a whole record and the reading of its fields.
    orbs3_xml_ptr xml = load_text(text);
    if (!xml || !tree_whole(xml.get(), "object"))
        return nullptr;
    orbs3_object_t* o = orbs3_create_object_block();
    if (o == nullptr)
        return nullptr;
    object_clear(o);
    if (parse_object_tree(o, xml.get()) != 0) {
        orbs3_free_object(o);
        return nullptr;
    }
    return o;
}

orbs3_bucket_t* orbs3_create_bucket_from_file(const char* path)
{
    char* raw = nullptr;
    if (path == nullptr || orbs3_read_data_from_file(path, &raw) != 0)
        return nullptr;
    neo_cstr_ptr text(raw);
    return orbs3_bucket_from_text(text.get());
}

orbs3_bucket_t* orbs3_bucket_from_text(const char* text)
{
    orbs3_xml_ptr xml = load_text(text);
    if (!xml || !tree_whole(xml.get(), "bucket"))
        return nullptr;
    orbs3_bucket_t* b = orbs3_bucket_new(1024);
    if (b == nullptr)
        return nullptr;
    bucket_clear(b);
    if (parse_bucket_tree(b, xml.get()) != 0) {
        orbs3_free_bucket(b);
        return nullptr;
    }
    return b;
}

void orbs3_free_object(orbs3_object_t* object)
{
    if (object != nullptr)
        orbs3_destroy_pool(object->pool);
}

void orbs3_free_object_list(neo_list_head_t* list)
{
    if (list == nullptr || list->next == nullptr)
        return;
    heap_list_free(list, [](void* d) { orbs3_free_object(static_cast<orbs3_object_t*>(d)); });
}

void orbs3_free_service_rules(neo_list_head_t* list)
{
    heap_list_free(list, heap_rule_free);
}

orbs3_service_rec_t* orbs3_get_service(const char* path)
{
    auto* s = static_cast<orbs3_service_rec_t*>(std::calloc(1, sizeof(orbs3_service_rec_t)));
    if (s == nullptr)
        return nullptr;
    for (neo_list_head_t* l : {&s->blacklist, &s->whitelist, &s->authak_list, &s->authaddr_list})
        INIT_LIST_HEAD(l);
    std::string text;
    if (path == nullptr || !read_whole(path, &text) || text.find_first_not_of(" \t\r\n") == std::string::npos)
        return s;  // absent or empty: no limits and no lists
    if (!looks_whole(text, "service") || orbs3_parse_service_xml(s, text.c_str()) != 0) {
        orbs3_free_service(s);
        return nullptr;
    }
    return s;
}

void orbs3_free_service(orbs3_service_rec_t* service)
{
    if (service == nullptr)
        return;
    service_clear(service);
    std::free(service);
}
