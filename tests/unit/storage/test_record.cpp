#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <mxml.h>

#include "memory/neo_string.h"
#include "storage/orbs3_record.h"
#include "storage/storage_fixture.h"

using namespace storage_test;

namespace {

std::string golden(const char* name)
{
    std::ifstream in(std::string(ORBS3_UNIT_DIR "golden/") + name, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void heap_set(orbs3_str_t* s, const std::string& v)
{
    std::free(s->data);
    s->data = static_cast<char*>(std::calloc(1, v.size() + 1));
    std::memcpy(s->data, v.data(), v.size());
    s->len = v.size();
}

// A text in the record's pool, or on the heap for the service record, which has none.
void set(orbs3_pool_t* pool, orbs3_str_t* s, const std::string& v)
{
    if (pool == nullptr)
        return heap_set(s, v);
    *s = pool_text(pool, v);
}

template <typename T>
void push(orbs3_pool_t* pool, neo_list_head_t* head, T* data)
{
    void* mem = pool ? orbs3_pcalloc(pool, sizeof(orbs3_list_node_t)) : std::calloc(1, sizeof(orbs3_list_node_t));
    auto* node = static_cast<orbs3_list_node_t*>(mem);
    node->data = data;
    list_add_tail(&node->list, head);
}

template <typename T>
T* make(orbs3_pool_t* pool)
{
    return static_cast<T*>(pool ? orbs3_pcalloc(pool, sizeof(T)) : std::calloc(1, sizeof(T)));
}

template <typename T>
std::vector<T*> items(const neo_list_head_t* head)
{
    std::vector<T*> out;
    for (neo_list_head_t* p = head->next; p != head; p = p->next)
        out.push_back(static_cast<T*>(orbs3_list_node(p)->data));
    return out;
}

orbs3_bucket_rule_t* rule(orbs3_pool_t* pool, neo_list_head_t* list, const char* id, const char* name,
                          uint32_t status)
{
    auto* r = make<orbs3_bucket_rule_t>(pool);
    std::snprintf(r->id, sizeof(r->id), "%s", id);
    if (name != nullptr)
        set(pool, &r->name, name);
    r->status = status;
    INIT_LIST_HEAD(&r->addrs);
    INIT_LIST_HEAD(&r->users);
    push(pool, list, r);
    return r;
}

void addr(orbs3_pool_t* pool, orbs3_bucket_rule_t* r, const char* a, uint32_t mask)
{
    auto* x = make<orbs3_rule_addr_t>(pool);
    set(pool, &x->addr, a);
    x->mask = mask;
    push(pool, &r->addrs, x);
}

void user(orbs3_pool_t* pool, orbs3_bucket_rule_t* r, const char* name, const char* id)
{
    auto* u = make<orbs3_rule_user_t>(pool);
    set(pool, &u->name, name);
    set(pool, &u->userid, id);
    push(pool, &r->users, u);
}

// A key and value pair (a tag, or an item of user metadata) at the end of `list`.
void add_pair(orbs3_pool_t* pool, neo_list_head_t* list, const std::string& key, const std::string& value)
{
    auto* t = make<orbs3_tag_t>(pool);
    set(pool, &t->key, key);
    set(pool, &t->value, value);
    push(pool, list, t);
}

// The bucket of golden/bucket.xml.
orbs3_bucket_t* sample_bucket()
{
    orbs3_bucket_t* b = orbs3_bucket_new();
    orbs3_pool_t* p = b->pool;
    set(p, &b->name, "photos");
    set(p, &b->alias, "Holiday");
    set(p, &b->created_date, "2026-11-23T16:13:01.000Z");
    set(p, &b->extranet_endpoint, "photos.s3.example.com/");
    set(p, &b->owner_id, "u-1001");
    set(p, &b->owner_name, "alice");
    for (const char* id : {"rule-a", "rule-b"}) {
        char* d = static_cast<char*>(orbs3_pcalloc(p, std::strlen(id) + 1));
        std::memcpy(d, id, std::strlen(id));
        push(p, &b->lifecycle, d);
    }
    b->versioning = {1, 5};
    addr(p, rule(p, &b->whitelist, "w1", "office", 1), "10.0.0.0", 8);
    b->whitelist_status = 1;
    orbs3_bucket_rule_t* aa = rule(p, &b->authaddr_list, "aa1", nullptr, 0);
    addr(p, aa, "192.168.1.7", 32);
    aa->bucket.flag[ORBS3_PERM_READ] = 1;
    aa->bucket.flag[ORBS3_PERM_LIST] = 1;
    aa->object.flag[ORBS3_PERM_READ] = 1;
    b->authaddr_status = 1;
    orbs3_bucket_rule_t* ak = rule(p, &b->authak_list, "ak1", "ro", 1);
    user(p, ak, "bob", "u-2002");
    ak->object.flag[ORBS3_PERM_WRITE] = 1;
    ak->object.flag[ORBS3_PERM_DELETE] = 1;
    b->recycle_days = 7;
    b->quota = {1048576, 1000, 80, 0, 4096};
    b->acl = ORBS3_ACL_FULL_CONTROL | ORBS3_ACL_READ;
    b->stat = {123456789012ULL, 42, 0};
    return b;
}

orbs3_object_t* sample_object()
{
    orbs3_object_t* o = orbs3_create_object_block();
    INIT_LIST_HEAD(&o->tags);
    orbs3_pool_t* p = o->pool;
    set(p, &o->name, "photos/a \"b\" & <c>.jpg");
    set(p, &o->etag, "0123456789abcdef0123456789abcdef");
    set(p, &o->last_modified, "2026-11-23T16:13:01.000Z");
    set(p, &o->owner_id, "u-1001");
    set(p, &o->owner_display_name, "alice");
    std::snprintf(o->path, sizeof(o->path), "%s", "/mnt/c1/data/alice/photos/x");
    std::snprintf(o->fpath, sizeof(o->fpath), "%s", "/mnt/c1/meta/alice/photos/x");
    o->size = 5242880;
    o->acl = 1;
    for (auto [k, v] : {std::pair{"color", "red"}, {"a&b", "x\"y"}, {"zeta", "1"}})
        add_pair(p, &o->tags, k, v);
    return o;
}

orbs3_service_rec_t* sample_service()
{
    orbs3_service_rec_t* s = orbs3_get_service(nullptr);
    s->version_status = 1;
    s->save_num = 3;
    s->memory = 1;
    s->memory_size = 64;
    heap_set(&s->accelerate_path, "/ssd");
    addr(nullptr, rule(nullptr, &s->blacklist, "b1", "bad", 1), "203.0.113.0", 24);
    s->blacklist_status = 1;
    orbs3_bucket_rule_t* k = rule(nullptr, &s->authak_list, "k1", nullptr, 0);
    user(nullptr, k, "bob", "u-2002");
    k->bucket.flag[ORBS3_PERM_CREATE] = 1;
    k->object.flag[ORBS3_PERM_READ] = 1;
    s->authak_status = 1;
    heap_set(&s->quota.service_quota, "10240");
    s->quota.max_object = 500;
    s->quota.bucket_threshold = 90;
    heap_set(&s->quota.segment_size, "8192");
    heap_set(&s->low_frequency_path, "/mnt/cold");
    return s;
}

void expect_same_rules(const neo_list_head_t* a, const neo_list_head_t* b)
{
    auto ra = items<orbs3_bucket_rule_t>(a);
    auto rb = items<orbs3_bucket_rule_t>(b);
    ASSERT_EQ(ra.size(), rb.size());
    for (std::size_t i = 0; i < ra.size(); ++i) {
        EXPECT_STREQ(ra[i]->id, rb[i]->id);
        EXPECT_EQ(str(ra[i]->name), str(rb[i]->name));
        EXPECT_EQ(ra[i]->status, rb[i]->status);
        EXPECT_EQ(0, std::memcmp(&ra[i]->bucket, &rb[i]->bucket, sizeof(orbs3_rule_perm_t)));
        EXPECT_EQ(0, std::memcmp(&ra[i]->object, &rb[i]->object, sizeof(orbs3_rule_perm_t)));
        auto aa = items<orbs3_rule_addr_t>(&ra[i]->addrs);
        auto ab = items<orbs3_rule_addr_t>(&rb[i]->addrs);
        ASSERT_EQ(aa.size(), ab.size());
        for (std::size_t j = 0; j < aa.size(); ++j) {
            EXPECT_EQ(str(aa[j]->addr), str(ab[j]->addr));
            EXPECT_EQ(aa[j]->mask, ab[j]->mask);
        }
        auto ua = items<orbs3_rule_user_t>(&ra[i]->users);
        auto ub = items<orbs3_rule_user_t>(&rb[i]->users);
        ASSERT_EQ(ua.size(), ub.size());
        for (std::size_t j = 0; j < ua.size(); ++j) {
            EXPECT_EQ(str(ua[j]->name), str(ub[j]->name));
            EXPECT_EQ(str(ua[j]->userid), str(ub[j]->userid));
        }
    }
}

// The fields named are the same in a and b: counted strings compared as text, the rest by value.
template <typename T, typename... F>
void expect_same_fields(const T* a, const T* b, F... fields)
{
    auto same = [&](auto field) {
        if constexpr (std::is_same_v<std::remove_cvref_t<decltype(a->*field)>, orbs3_str_t>)
            EXPECT_EQ(str(a->*field), str(b->*field));
        else
            EXPECT_EQ(0, std::memcmp(&(a->*field), &(b->*field), sizeof(a->*field)));
    };
    (same(fields), ...);
}

// The four address and key lists and their switches, which buckets and the service both hold.
template <typename T>
void expect_same_lists(const T* a, const T* b)
{
    expect_same_rules(&a->whitelist, &b->whitelist);
    expect_same_rules(&a->blacklist, &b->blacklist);
    expect_same_rules(&a->authaddr_list, &b->authaddr_list);
    expect_same_rules(&a->authak_list, &b->authak_list);
    expect_same_fields(a, b, &T::whitelist_status, &T::blacklist_status, &T::authaddr_status, &T::authak_status);
}

void expect_same_bucket(const orbs3_bucket_t* a, const orbs3_bucket_t* b)
{
    using B = orbs3_bucket_t;
    expect_same_fields(a, b, &B::name, &B::alias, &B::created_date, &B::extranet_endpoint, &B::intranet_endpoint,
                       &B::owner_id, &B::owner_name, &B::acl, &B::versioning, &B::stat, &B::quota, &B::recycle_days);
    auto la = items<char>(&a->lifecycle);
    auto lb = items<char>(&b->lifecycle);
    ASSERT_EQ(la.size(), lb.size());
    for (std::size_t i = 0; i < la.size(); ++i)
        EXPECT_STREQ(la[i], lb[i]);
    expect_same_lists(a, b);
}

void expect_same_object(const orbs3_object_t* a, const orbs3_object_t* b)
{
    using O = orbs3_object_t;
    expect_same_fields(a, b, &O::name, &O::last_modified, &O::etag, &O::size, &O::owner_id, &O::owner_display_name,
                       &O::acl, &O::lifecycle, &O::is_dir);
    EXPECT_STREQ(a->path, b->path);
    EXPECT_STREQ(a->fpath, b->fpath);
    auto ta = items<orbs3_tag_t>(&a->tags);
    auto tb = items<orbs3_tag_t>(&b->tags);
    ASSERT_EQ(ta.size(), tb.size());
    for (std::size_t i = 0; i < ta.size(); ++i)
        expect_same_fields(ta[i], tb[i], &orbs3_tag_t::key, &orbs3_tag_t::value);
}

void expect_same_service(const orbs3_service_rec_t* a, const orbs3_service_rec_t* b)
{
    using S = orbs3_service_rec_t;
    expect_same_lists(a, b);
    using Q = orbs3_service_quota_t;
    expect_same_fields(&a->quota, &b->quota, &Q::service_quota, &Q::bucket_quota, &Q::file_threshold,
                       &Q::segment_size, &Q::max_bucket, &Q::max_object, &Q::bucket_threshold);
    expect_same_fields(a, b, &S::version_status, &S::save_num, &S::memory_size, &S::file_size, &S::memory,
                       &S::aggregate, &S::accelerate_path, &S::low_frequency_path, &S::archiving_path);
}

using object_ptr = std::unique_ptr<orbs3_object_t, decltype(&orbs3_free_object)>;
using service_ptr = std::unique_ptr<orbs3_service_rec_t, decltype(&orbs3_free_service)>;

// The writer's text of a record, or nothing when it refuses; a refusal hands out no text.
template <typename T>
std::optional<std::string> text_of(const T* rec, int (*make)(const T*, char**))
{
    char* text = nullptr;
    const int rc = make(rec, &text);
    neo_cstr_ptr owned(text);
    if (rc != 0) {
        EXPECT_EQ(text, nullptr);
        return std::nullopt;
    }
    return std::string(text);
}

// Fresh records read from a text; the test fails unless the reader takes it.
bucket_ptr bucket_from(const std::optional<std::string>& text)
{
    bucket_ptr b(orbs3_bucket_new());
    EXPECT_TRUE(text && xml_parse_bucket(b.get(), text->c_str()) == 0) << text.value_or("(no text)");
    return b;
}

object_ptr object_from(const std::optional<std::string>& text)
{
    object_ptr o(orbs3_create_object_block(), orbs3_free_object);
    EXPECT_TRUE(text && xml_parse_object(o.get(), text->c_str()) == 0) << text.value_or("(no text)");
    return o;
}

service_ptr service_from(const std::optional<std::string>& text)
{
    service_ptr s(orbs3_get_service(nullptr), orbs3_free_service);
    EXPECT_TRUE(text && orbs3_parse_service_xml(s.get(), text->c_str()) == 0) << text.value_or("(no text)");
    return s;
}

// Whether a record was read at all; one that was must equal the sample it was written from.
template <class T>
bool read_as_sample(T* got, T* sample, void (*expect_same)(const T*, const T*), void (*free_record)(T*))
{
    std::unique_ptr<T, void (*)(T*)> read(got, free_record), want(sample, free_record);
    if (read == nullptr)
        return false;
    expect_same(want.get(), read.get());
    return true;
}

}  // namespace

// What an uploader said of its object rides behind the record's own fields: a record without them reads
// as before, one with them keeps every value, and the user metadata keeps its order.
TEST(Record, ObjectContentHeadersAndUserMetadataRoundTrip)
{
    temp_dir dir;
    object_ptr o(sample_object(), orbs3_free_object);
    INIT_LIST_HEAD(&o->meta);
    orbs3_pool_t* p = o->pool;
    set(p, &o->content_type, "text/plain; charset=utf-8");
    set(p, &o->cache_control, "max-age=60");
    set(p, &o->content_disposition, "attachment; filename=\"a&b.txt\"");
    set(p, &o->content_encoding, "gzip");
    set(p, &o->expires, "Wed, 21 Oct 2026 07:28:00 GMT");
    set(p, &o->checksum_algorithm, "CRC32C");
    set(p, &o->checksum, "yZRlqg==");
    set(p, &o->upload_id, "0123456789abcdef0123456789abcdef");
    // The parts of the largest assembled object: 10000 sizes and SHA256 values are kept whole.
    std::string sums;
    for (int i = 0; i < 10000; i++)
        sums += (i == 0 ? "" : " ") + std::string("ungWv48Bz+pBQUDeXa4iI7ADYaOWF3qctBD/YfIAFa0=");
    std::string sizes;
    for (int i = 0; i < 10000; i++)
        sizes += (i == 0 ? "" : " ") + std::to_string(5368709120 - i);
    set(p, &o->parts, sizes.c_str());
    set(p, &o->part_checksums, sums.c_str());
    for (auto [k, v] : {std::pair{"zeta", "<last>"}, {"alpha", "first & \"quoted\""}})
        add_pair(p, &o->meta, k, v);
    const std::string path = dir.path + "/object.xml";
    ASSERT_EQ(orbs3_save_object(o.get(), path.c_str()), 0);
    object_ptr back(orbs3_create_object_from_file(path.c_str()), orbs3_free_object);
    ASSERT_NE(back, nullptr);
    expect_same_object(o.get(), back.get());
    for (auto field : {&orbs3_object_t::content_type, &orbs3_object_t::cache_control,
                       &orbs3_object_t::content_disposition, &orbs3_object_t::content_encoding,
                       &orbs3_object_t::expires, &orbs3_object_t::checksum_algorithm, &orbs3_object_t::checksum,
                       &orbs3_object_t::parts, &orbs3_object_t::part_checksums})
        EXPECT_EQ(str(o.get()->*field), str(back.get()->*field));
    EXPECT_EQ(str(back->upload_id), "0123456789abcdef0123456789abcdef");
    auto meta = items<orbs3_tag_t>(&back->meta);
    ASSERT_EQ(meta.size(), 2u);
    EXPECT_EQ(str(meta[0]->key), "zeta");
    EXPECT_EQ(str(meta[0]->value), "<last>");
    EXPECT_EQ(str(meta[1]->value), "first & \"quoted\"");

    // The golden record, written before these fields existed, reads with all of them unset.
    const std::string old_path = dir.path + "/old.xml";
    std::ofstream(old_path, std::ios::binary) << golden("object.xml");
    object_ptr old(orbs3_create_object_from_file(old_path.c_str()), orbs3_free_object);
    ASSERT_NE(old, nullptr);
    EXPECT_EQ(old->content_type.len, 0u);
    EXPECT_EQ(old->upload_id.len, 0u);
    EXPECT_TRUE(items<orbs3_tag_t>(&old->meta).empty());
}

// Whatever text a record is given, it reads back byte for byte: blanks and line breaks at either end,
// markup characters, non-ASCII, and bytes XML cannot hold at all (control bytes, bytes that are not UTF-8),
// which once made the whole record unreadable, so the object was stored and never listed.
TEST(Record, EveryTextReadsBackByteForByte)
{
    std::vector<std::string> texts = {" leading", "trailing ", "a b\tc\nd\r\ne", "&<>\"'", "with space/and+plus.txt",
                                      "\xc3\xa9t\xc3\xa9 \xf0\x9f\x98\x80", "ctl\x01" "a\x1f", "\x7f", "latin\xe9",
                                      "cut\xe2\x82", "100%25 %zz %", "a_pct", std::string("nul\0in", 6)};
    std::mt19937 rng(18);
    for (int i = 0; i < 200; ++i) {
        std::string t(1 + rng() % 16, ' ');
        for (char& c : t)
            c = static_cast<char>(rng() % 256);
        texts.push_back(t);
    }
    temp_dir dir;
    const std::string path = dir.path + "/object.xml";
    for (std::size_t i = 0; i < texts.size(); ++i) {
        const std::string& t = texts[i];
        const std::string& u = texts[(i + 1) % texts.size()];
        object_ptr o(sample_object(), orbs3_free_object);
        INIT_LIST_HEAD(&o->meta);
        orbs3_pool_t* p = o->pool;
        set(p, &o->name, t);
        set(p, &o->owner_display_name, u);
        set(p, &o->content_type, t);
        const std::string c_text = t.substr(0, t.find('\0'));
        std::snprintf(o->path, sizeof o->path, "%s", c_text.c_str());
        add_pair(p, &o->tags, t, u);
        add_pair(p, &o->meta, u, t);
        ASSERT_EQ(orbs3_save_object(o.get(), path.c_str()), 0);
        object_ptr back(orbs3_create_object_from_file(path.c_str()), orbs3_free_object);
        ASSERT_NE(back, nullptr) << testing::PrintToString(t) << "\n" << read_file(path);
        expect_same_object(o.get(), back.get());
        EXPECT_EQ(str(back->content_type), t);
        auto meta = items<orbs3_tag_t>(&back->meta);
        ASSERT_EQ(meta.size(), 1u);
        EXPECT_EQ(str(meta[0]->key), u);
        EXPECT_EQ(str(meta[0]->value), t);

        bucket_ptr b(orbs3_bucket_new());
        set(b->pool, &b->owner_name, t);
        EXPECT_EQ(str(bucket_from(text_of(b.get(), orbs3_make_bucket_xml))->owner_name), t);
    }
    // A broken encoded form is a broken record, not a shorter value.
    object_ptr bad(orbs3_object_from_text("<object objectname_pct=\"a%0\" />"), orbs3_free_object);
    EXPECT_EQ(bad, nullptr);
}

TEST(Record, EmptyRecordsKeepListsEmptyAndDefaultsOut)
{
    bucket_ptr b(orbs3_bucket_new());
    b->whitelist_status = 1;
    std::string t = text_of(b.get(), orbs3_make_bucket_xml).value_or("");
    for (const char* el : {"<whitelist />", "<blacklist />", "<authaddr_list />", "<authak_list />"})
        EXPECT_NE(t.find(el), std::string::npos) << el;
    expect_same_bucket(b.get(), bucket_from(t).get());

    // A rule with no flag set keeps bare "bucket" and "object" elements.
    rule(b->pool, &b->authaddr_list, "r", nullptr, 1);
    t = text_of(b.get(), orbs3_make_bucket_xml).value_or("");
    EXPECT_NE(t.find("<bucket />"), std::string::npos);
    EXPECT_NE(t.find("<object />"), std::string::npos);

    // lifecycle 0 is not written and reads back 0.
    object_ptr o(sample_object(), orbs3_free_object);
    EXPECT_EQ(text_of(o.get(), orbs3_make_object_xml).value_or("lifecycle").find("lifecycle"), std::string::npos);
    o->lifecycle = 3;
    t = text_of(o.get(), orbs3_make_object_xml).value_or("");
    EXPECT_NE(t.find("lifecycle=\"3\""), std::string::npos);
    EXPECT_EQ(object_from(t)->lifecycle, 3u);

    // A service without save num and limits: "max_bucket" "0", and no "num".
    service_ptr s(orbs3_get_service(nullptr), orbs3_free_service);
    t = text_of(s.get(), orbs3_make_service_xml).value_or("num=");
    EXPECT_NE(t.find("max_bucket=\"0\""), std::string::npos);
    EXPECT_EQ(t.find("num="), std::string::npos);
}

TEST(Record, VersionWordsOtherThanEnabledOrSuspendedLeaveTheField)
{
    struct row {
        const char* status;
        uint32_t start;
        uint32_t want;
    };
    for (row r : {row{"ENABLED", 0, 1}, {"SUSPENDED", 1, 0}, {"enabled", 0, 0}, {"Bogus", 0, 0}}) {
        const std::string text = std::string("<bucket><version num=\"2\" status=\"") + r.status + "\"/></bucket>";
        bucket_ptr b(orbs3_bucket_new());
        ASSERT_EQ(xml_parse_bucket(b.get(), text.c_str()), 0);
        EXPECT_EQ(b->versioning.status, r.want) << r.status;
        EXPECT_EQ(b->versioning.save_num, 2);
    }
    // A text without a "bucket" element is an empty record, not a failure; broken text is.
    bucket_ptr b(orbs3_bucket_new());
    EXPECT_EQ(xml_parse_bucket(b.get(), "<other a=\"1\"/>"), 0);
    EXPECT_EQ(b->name.len, 0u);
    // Without the declaration an open element would otherwise pass for a whole one.
    for (const char* t : {"<bucket", "<bucket bucketname=\"x\">", "<bucket bucketname=\"x\"><version num=\"1\"/>",
                          "<bucket bucketname=\"x\"><whitelist><rule id=\"a\"/></whitelist></bucke", ""}) {
        EXPECT_EQ(xml_parse_bucket(b.get(), t), -1) << t;
        EXPECT_EQ(b->name.len, 0u) << t;
        EXPECT_TRUE(list_empty(&b->whitelist)) << t;
    }
    EXPECT_EQ(xml_parse_bucket(b.get(), "<bucket bucketname=\"x\"/>\n"), 0);
    EXPECT_EQ(str(b->name), "x");
}

namespace {

// One string field of a record: where it lives and its cap.
struct str_field {
    const char* attr;
    std::size_t cap;
    orbs3_str_t* (*in_bucket)(orbs3_bucket_t*);
    orbs3_str_t* (*in_object)(orbs3_object_t*);
};

}  // namespace

TEST(Record, StringFieldsKeepTheirCapAndCutOneOver)
{
    const str_field fields[] = {
        {"bucketname", ORBS3_REC_NAME_CAP, [](orbs3_bucket_t* b) { return &b->name; }, nullptr},
        {"alias", ORBS3_REC_NAME_CAP, [](orbs3_bucket_t* b) { return &b->alias; }, nullptr},
        {"extranet_endpoint", ORBS3_REC_PATH_CAP, [](orbs3_bucket_t* b) { return &b->extranet_endpoint; }, nullptr},
        {"intranet_endpoint", ORBS3_REC_PATH_CAP, [](orbs3_bucket_t* b) { return &b->intranet_endpoint; }, nullptr},
        {"owner_id", ORBS3_REC_NAME_CAP, [](orbs3_bucket_t* b) { return &b->owner_id; }, nullptr},
        {"owner_name", ORBS3_REC_NAME_CAP, [](orbs3_bucket_t* b) { return &b->owner_name; }, nullptr},
        {"objectname", ORBS3_REC_KEY_CAP, nullptr, [](orbs3_object_t* o) { return &o->name; }},
        {"etag", ORBS3_REC_ETAG_CAP, nullptr, [](orbs3_object_t* o) { return &o->etag; }},
        {"owner_id", ORBS3_REC_NAME_CAP, nullptr, [](orbs3_object_t* o) { return &o->owner_id; }},
        {"owner_display_name", ORBS3_REC_NAME_CAP, nullptr, [](orbs3_object_t* o) { return &o->owner_display_name; }},
    };
    for (const str_field& f : fields) {
        for (std::size_t len : {f.cap, f.cap + 1}) {
            SCOPED_TRACE(std::string(f.attr) + " length " + std::to_string(len));
            const std::string value(len, 'v');
            // The writer cuts, and the reader cuts too, whoever wrote the file.
            const std::string hand = "=\"" + value + "\"/>";
            if (f.in_bucket) {
                bucket_ptr b(orbs3_bucket_new());
                set(b->pool, f.in_bucket(b.get()), value);
                EXPECT_EQ(str(*f.in_bucket(bucket_from(text_of(b.get(), orbs3_make_bucket_xml)).get())),
                          value.substr(0, f.cap));
                EXPECT_EQ(str(*f.in_bucket(bucket_from("<bucket " + std::string(f.attr) + hand).get())).size(), f.cap);
            } else {
                object_ptr o(orbs3_create_object_block(), orbs3_free_object);
                INIT_LIST_HEAD(&o->tags);
                set(o->pool, f.in_object(o.get()), value);
                EXPECT_EQ(str(*f.in_object(object_from(text_of(o.get(), orbs3_make_object_xml)).get())),
                          value.substr(0, f.cap));
                EXPECT_EQ(str(*f.in_object(object_from("<object " + std::string(f.attr) + hand).get())).size(), f.cap);
            }
        }
    }

    // Service texts: written cut and read back at their caps.
    struct svc_field {
        orbs3_str_t* (*at)(orbs3_service_rec_t*);
        std::size_t cap;
    };
    const svc_field svc_fields[] = {
        {[](orbs3_service_rec_t* s) { return &s->accelerate_path; }, ORBS3_REC_ACCEL_PATH_CAP},
        {[](orbs3_service_rec_t* s) { return &s->low_frequency_path; }, ORBS3_REC_PATH_CAP},
        {[](orbs3_service_rec_t* s) { return &s->archiving_path; }, ORBS3_REC_PATH_CAP},
        {[](orbs3_service_rec_t* s) { return &s->quota.service_quota; }, ORBS3_REC_NUMBER_CAP},
        {[](orbs3_service_rec_t* s) { return &s->quota.segment_size; }, ORBS3_REC_NUMBER_CAP},
    };
    for (const svc_field& f : svc_fields) {
        for (std::size_t len : {f.cap, f.cap + 1}) {
            const std::string value(len, '7');
            service_ptr s(orbs3_get_service(nullptr), orbs3_free_service);
            heap_set(f.at(s.get()), value);
            EXPECT_EQ(str(*f.at(service_from(text_of(s.get(), orbs3_make_service_xml)).get())), value.substr(0, f.cap))
                << len;
        }
    }

    // Rule and tag texts, and the fixed paths, on read.
    const std::string id(ORBS3_REC_ID_CAP + 1, 'i'), path(ORBS3_REC_PATH_CAP + 1, 'p');
    const std::string key(ORBS3_REC_TAG_KEY_CAP + 1, 'k'), val(ORBS3_REC_TAG_VALUE_CAP + 1, 'w');
    bucket_ptr b = bucket_from("<bucket><whitelist><rule id=\"" + id + "\"><addrs addr=\"" + std::string(48, 'a') +
                               "\" mask=\"8\"/></rule></whitelist><lifecycle id=\"" + id + "\"/></bucket>");
    auto rules = items<orbs3_bucket_rule_t>(&b->whitelist);
    ASSERT_EQ(rules.size(), 1u);
    EXPECT_EQ(std::string(rules[0]->id), id.substr(0, ORBS3_REC_ID_CAP));
    EXPECT_EQ(str(items<orbs3_rule_addr_t>(&rules[0]->addrs)[0]->addr).size(), ORBS3_REC_ADDR_CAP);
    EXPECT_EQ(std::string(items<char>(&b->lifecycle)[0]), id.substr(0, ORBS3_REC_ID_CAP));
    object_ptr o = object_from("<object path=\"" + path + "\" fpath=\"" + path + "\"><tagging key=\"" + key +
                               "\" value=\"" + val + "\"/></object>");
    EXPECT_EQ(std::strlen(o->path), ORBS3_REC_PATH_CAP);
    EXPECT_EQ(std::strlen(o->fpath), ORBS3_REC_PATH_CAP);
    EXPECT_EQ(str(items<orbs3_tag_t>(&o->tags)[0]->key).size(), ORBS3_REC_TAG_KEY_CAP);
    EXPECT_EQ(str(items<orbs3_tag_t>(&o->tags)[0]->value).size(), ORBS3_REC_TAG_VALUE_CAP);
}

TEST(Record, NumbersAtTheirLimitPassAndOneOverIsRefused)
{
    // Writer: "%d" fields stop at INT_MAX, sizes at INT64_MAX.
    object_ptr o(sample_object(), orbs3_free_object);
    o->acl = INT32_MAX;
    o->size = INT64_MAX;
    object_ptr back = object_from(text_of(o.get(), orbs3_make_object_xml));
    EXPECT_EQ(back->acl, static_cast<uint32_t>(INT32_MAX));
    EXPECT_EQ(back->size, static_cast<uint64_t>(INT64_MAX));
    o->acl = static_cast<uint32_t>(INT32_MAX) + 1;
    EXPECT_FALSE(text_of(o.get(), orbs3_make_object_xml));
    o->acl = 1;
    o->size = static_cast<uint64_t>(INT64_MAX) + 1;
    EXPECT_FALSE(text_of(o.get(), orbs3_make_object_xml));
    o->size = 1;
    set(o->pool, &o->last_modified, "Mon, 23 Nov 2026 16:13:01 GMT");  // not the record form
    EXPECT_FALSE(text_of(o.get(), orbs3_make_object_xml));

    bucket_ptr b(sample_bucket());
    b->quota.max_object = static_cast<uint64_t>(INT32_MAX) + 1;
    EXPECT_FALSE(text_of(b.get(), orbs3_make_bucket_xml));
    b->quota.max_object = INT32_MAX;
    b->recycle_days = INT32_MIN;
    bucket_ptr bb = bucket_from(text_of(b.get(), orbs3_make_bucket_xml));
    EXPECT_EQ(bb->quota.max_object, static_cast<uint64_t>(INT32_MAX));
    EXPECT_EQ(bb->recycle_days, INT32_MIN);

    // Reader: a value beyond its field, or not a number, fails the record and leaves it empty.
    const char* bad[] = {
        "<object objectname=\"k\" acl=\"2147483648\"/>",
        "<object objectname=\"k\" size=\"9223372036854775808\"/>",
        "<object objectname=\"k\" size=\"-1\"/>",
        "<object objectname=\"k\" size=\"12abc\"/>",
        "<object objectname=\"k\" size=\"\"/>",
        "<object objectname=\"k\" last_modified=\"2026-11-23 16:13:01\"/>",
        "<object objectname=\"k\"><tagging key=\"a\" value=\"b\"/></object><x",
    };
    for (const char* t : bad) {
        object_ptr ob(orbs3_create_object_block(), orbs3_free_object);
        EXPECT_EQ(xml_parse_object(ob.get(), t), -1) << t;
        EXPECT_EQ(ob->name.len, 0u) << t;
        EXPECT_TRUE(list_empty(&ob->tags)) << t;
    }
    const char* bad_bucket[] = {
        "<bucket bucketname=\"x\" recycle_days=\"2147483648\"/>",
        "<bucket bucketname=\"x\"><stat object_count=\"-3\"/></bucket>",
        ("<bucket bucketname=\"x\"><whitelist><rule id=\"a\"><addrs addr=\"1.2.3.4\" mask=\"x\"/></rule>"
         "</whitelist></bucket>"),
    };
    for (const char* t : bad_bucket) {
        bucket_ptr bb(orbs3_bucket_new());
        EXPECT_EQ(xml_parse_bucket(bb.get(), t), -1) << t;
        EXPECT_EQ(bb->name.len, 0u) << t;
        EXPECT_TRUE(list_empty(&bb->whitelist)) << t;
    }
    service_ptr s(orbs3_get_service(nullptr), orbs3_free_service);
    EXPECT_EQ(orbs3_parse_service_xml(s.get(), "<service><blacklist><rule id=\"a\"/></blacklist>"
                                               "<quota max_bucket=\"-1\"/></service>"),
              -1);
    EXPECT_TRUE(list_empty(&s->blacklist));
    EXPECT_EQ(orbs3_parse_service_xml(s.get(), nullptr), -1);
}

// Each kind of record is written as its golden bytes and read back whole; cut short anywhere before its
// last '>', it is refused whole instead of read as a record with fewer fields.
TEST(Record, EachKindWritesItsGoldenBytesAndACutRecordIsRejectedWhole)
{
    temp_dir dir;
    const std::string path = dir.path + "/rec";
    struct kind {
        const char* golden;
        int (*save)(const char* path);
        bool (*read)(const char* path);
    };
    const kind kinds[] = {
        {"bucket.xml", [](const char* p) { return orbs3_save_bucket(bucket_ptr(sample_bucket()).get(), p); },
         [](const char* p) {
             return read_as_sample(orbs3_create_bucket_from_file(p), sample_bucket(), expect_same_bucket, orbs3_free_bucket);
         }},
        {"object.xml", [](const char* p) { return orbs3_save_object(object_ptr(sample_object(), orbs3_free_object).get(), p); },
         [](const char* p) {
             return read_as_sample(orbs3_create_object_from_file(p), sample_object(), expect_same_object, orbs3_free_object);
         }},
        {"service.xml",
         [](const char* p) { return orbs3_save_service(service_ptr(sample_service(), orbs3_free_service).get(), p); },
         [](const char* p) {
             return read_as_sample(orbs3_get_service(p), sample_service(), expect_same_service, orbs3_free_service);
         }},
    };
    // Each cut makes Mini-XML complain on standard error; thousands of such lines hide real failures.
    mxmlSetErrorCallback([](const char*) {});
    for (const kind& k : kinds) {
        SCOPED_TRACE(k.golden);
        const std::string whole = golden(k.golden);
        ASSERT_FALSE(whole.empty());
        ASSERT_EQ(k.save(path.c_str()), 0);
        EXPECT_EQ(read_file(path), whole);
        EXPECT_TRUE(k.read(path.c_str()));
        const std::size_t end = whole.rfind('>') + 1;  // only the final newline lies behind it
        for (std::size_t cut = 1; cut < whole.size(); ++cut) {
            write_file(path, whole.substr(0, cut));
            const bool read = k.read(path.c_str());
            if (cut < end)
                EXPECT_FALSE(read) << k.golden << " cut at " << cut;
            else
                EXPECT_TRUE(read) << k.golden << " cut at " << cut;  // all content there, compared above
        }
    }
    mxmlSetErrorCallback(nullptr);
    // Nothing at all: no object, no bucket; an empty service file is a service without limits.
    write_file(path, "");
    EXPECT_EQ(orbs3_create_object_from_file(path.c_str()), nullptr);
    EXPECT_EQ(orbs3_create_bucket_from_file(path.c_str()), nullptr);
    service_ptr s(orbs3_get_service(path.c_str()), orbs3_free_service);
    ASSERT_NE(s, nullptr);
    EXPECT_TRUE(list_empty(&s->blacklist));
    EXPECT_EQ(orbs3_create_object_from_file((dir.path + "/absent").c_str()), nullptr);
}

TEST(Record, ReplaceUnderConcurrentReaderShowsOnlyWholeRecords)
{
    temp_dir dir;
    const std::string path = dir.path + "/obj";
    object_ptr a(sample_object(), orbs3_free_object);
    object_ptr b(sample_object(), orbs3_free_object);
    // Two records whose fields must stay paired: a torn read would mix or lose them.
    set(b->pool, &b->name, std::string(900, 'z'));
    b->size = 7;
    ASSERT_EQ(orbs3_save_object(a.get(), path.c_str()), 0);

    std::atomic<bool> done{false};
    std::atomic<int> reads{0}, torn{0};
    std::thread reader([&] {
        while (!done.load()) {
            orbs3_object_t* o = orbs3_create_object_from_file(path.c_str());
            if (o == nullptr) {
                torn++;
                continue;
            }
            const bool is_a = str(o->name) == str(a->name) && o->size == a->size;
            const bool is_b = str(o->name) == str(b->name) && o->size == b->size;
            if (!(is_a || is_b) || items<orbs3_tag_t>(&o->tags).size() != 3)
                torn++;
            orbs3_free_object(o);
            reads++;
        }
    });
    for (int i = 0; i < 300; ++i)
        ASSERT_EQ(orbs3_save_object((i % 2 ? a : b).get(), path.c_str()), 0);
    done = true;
    reader.join();
    EXPECT_EQ(torn.load(), 0);
    EXPECT_GT(reads.load(), 0);
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"obj"});  // no temporary left behind
}

TEST(Record, TemporaryNamesAreRecognisedAndFailedReplaceKeepsTheOld)
{
    EXPECT_TRUE(orbs3_record_is_temp(".orbs3-tmp-Ab12Cd"));
    EXPECT_TRUE(orbs3_record_is_temp("/mnt/c/meta/a/b/.orbs3-tmp-x"));
    EXPECT_FALSE(orbs3_record_is_temp(".orbs3-tm"));
    EXPECT_FALSE(orbs3_record_is_temp("orbs3-tmp-x"));
    EXPECT_FALSE(orbs3_record_is_temp("photo.orbs3-tmp-x"));
    EXPECT_FALSE(orbs3_record_is_temp(""));

    temp_dir dir;
    const std::string path = dir.path + "/rec";
    ASSERT_EQ(orbs3_record_replace(path.c_str(), "old", 3), 0);
    struct stat st{};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    // The target is a directory: rename fails, the old content stands, no temporary is left.
    ASSERT_EQ(mkdir((dir.path + "/sub").c_str(), 0755), 0);
    EXPECT_EQ(orbs3_record_replace((dir.path + "/sub").c_str(), "new", 3), -1);
    EXPECT_EQ(orbs3_record_replace((dir.path + "/missing/rec").c_str(), "new", 3), -1);
    auto names = dir.entries();
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"rec", "sub"}));
    EXPECT_EQ(read_file(path), "old");
}
