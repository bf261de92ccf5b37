// The parsers of S3 request documents the server calls, on arbitrary bodies, each body in a heap block
// of its exact size (ASan faults on a read past the terminator). Checked after each parser: the result
// is 0 or -1, a refused body leaves the caller's value alone, every kept text is terminated and within
// its bound, no list grows past its cap, and a body beyond the depth and element bounds is refused by
// all of them. The input also serves as a text: put as a key in a batch delete
// document and in an object record, it reads back byte for byte.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include <mxml.h>

#include "fuzz_check.h"
#include "memory/orbs3_palloc.h"
#include "s3/orbs3_s3_documents.h"
#include "storage/orbs3_bucket.h"
#include "storage/orbs3_record.h"

namespace {

void quiet(const char*) {}

void check_str(const orbs3_str_t& s, std::size_t max)
{
    if (s.data == nullptr) {
        CHECK(s.len == 0);
        return;
    }
    CHECK(s.len <= max);
    CHECK(std::strlen(s.data) == s.len);
}

template <typename T, typename F>
std::size_t walk(neo_list_head_t* list, F&& each)
{
    std::size_t n = 0;
    neo_list_head_t* pos;
    list_for_each(pos, list)
    {
        each(list_entry(pos, T, link));
        ++n;
    }
    return n;
}

// The text as a client escapes it in a document.
std::string escaped(std::string_view t)
{
    std::string out;
    for (char c : t) {
        if (c == '&')
            out += "&amp;";
        else if (c == '<')
            out += "&lt;";
        else if (c == '>')
            out += "&gt;";
        else
            out += c;
    }
    return out;
}

void check_text_round_trips(std::string_view text, orbs3_pool_t* pool)
{
    if (text.size() <= ORBS3_XML_DEL_KEY_MAX && orbs3_xml_text_ok(text)) {
        const std::string doc = "<Delete><Object><Key>" + escaped(text) + "</Key></Object></Delete>";
        neo_list_head_t keys;
        INIT_LIST_HEAD(&keys);
        CHECK(parse_del_objects_xmlstring(doc.c_str(), &keys, pool) == 0);
        CHECK(!list_empty(&keys));
        const orbs3_str_t& k = list_entry(keys.next, orbs3_del_key_t, link)->key;
        CHECK(std::string_view(k.data == nullptr ? "" : k.data, k.len) == text);
    }
    if (text.size() > ORBS3_REC_KEY_CAP)
        return;
    orbs3_object_t* o = orbs3_create_object_block();
    CHECK(o != nullptr);
    INIT_LIST_HEAD(&o->tags);
    INIT_LIST_HEAD(&o->meta);
    auto* copy = static_cast<char*>(orbs3_pcalloc(o->pool, text.size() + 1));
    CHECK(copy != nullptr);
    if (!text.empty())
        std::memcpy(copy, text.data(), text.size());
    o->name = {text.size(), copy};
    char* rec = nullptr;
    CHECK(orbs3_make_object_xml(o, &rec) == 0);
    orbs3_object_t* back = orbs3_object_from_text(rec);
    std::free(rec);
    CHECK(back != nullptr);
    CHECK(std::string_view(back->name.data == nullptr ? "" : back->name.data, back->name.len) == text);
    orbs3_free_object(back);
    orbs3_free_object(o);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    static bool once = (mxmlSetErrorCallback(quiet), true);
    (void)once;
    std::unique_ptr<char[]> text(new char[size + 1]);
    std::memcpy(text.get(), data, size);
    text[size] = '\0';
    orbs3_pool_ptr pool(orbs3_create_mem_block(4096));
    CHECK(pool != nullptr);

    uint32_t acl = 0x80000000u;
    int rc = parse_bucket_acl_xmlstring(text.get(), &acl);
    CHECK(rc == 0 || rc == -1);
    CHECK(rc == 0 || acl == 0x80000000u);
    CHECK((acl & ~(0x80000000u | ORBS3_ACL_FULL_CONTROL | ORBS3_ACL_READ | ORBS3_ACL_WRITE | ORBS3_ACL_READ_ACP |
                   ORBS3_ACL_WRITE_ACP | ORBS3_ACL_ALL_USERS_READ | ORBS3_ACL_ALL_USERS_WRITE |
                   ORBS3_ACL_AUTH_USERS_READ)) == 0);

    neo_list_head_t parts;
    INIT_LIST_HEAD(&parts);
    rc = parse_complete_multipart_upload_xmlstring(text.get(), &parts, pool.get());
    CHECK(rc == 0 || rc == -1);
    CHECK(walk<orbs3_part_t>(&parts, [](orbs3_part_t* p) { check_str(p->etag, ORBS3_XML_TEXT_MAX); }) <=
          ORBS3_XML_MAX_PARTS);

    neo_list_head_t keys;
    INIT_LIST_HEAD(&keys);
    rc = parse_del_objects_xmlstring(text.get(), &keys, pool.get());
    CHECK(rc == 0 || rc == -1);
    CHECK(walk<orbs3_del_key_t>(&keys, [](orbs3_del_key_t* k) {
              check_str(k->key, ORBS3_XML_DEL_KEY_MAX);
              check_str(k->version_id, ORBS3_XML_DEL_KEY_MAX);
          }) <= ORBS3_XML_MAX_DEL_OBJECTS);

    orbs3_versioning_doc_t versioning{7, 7};
    rc = parse_bucket_versioning_xmlstring(text.get(), &versioning);
    CHECK(rc == 0 || rc == -1);
    CHECK(rc == 0 ? versioning.status <= 1 : (versioning.status == 7 && versioning.save_num == 7));
    // What was read is written back and read again the same.
    if (rc == 0) {
        orbs3_versioning_doc_t back;
        const std::string doc = make_bucket_versioning_xmlstring(versioning.status, versioning.save_num);
        if (versioning.save_num > 0) {
            CHECK(parse_bucket_versioning_xmlstring(doc.c_str(), &back) == 0);
            CHECK(back.status == versioning.status && back.save_num == versioning.save_num);
        }
    }

    int32_t days = -7;
    rc = parse_bucket_recycle_conf_xmlstring(text.get(), &days);
    CHECK(rc == 0 || rc == -1);
    CHECK(rc == 0 ? days >= 0 : days == -7);

    orbs3_tag_set_t tags = {{"untouched", ""}};
    rc = parse_object_tagging_xml(text.get(), &tags);
    CHECK(rc == 0 || rc == -1);
    CHECK(rc == 0 ? tags.size() <= 1000 : (tags.size() == 1 && tags[0].key == "untouched"));
    // A valid set is written and read back the same.
    if (rc == 0 && orbs3_tag_set_valid(tags)) {
        orbs3_tag_set_t back;
        CHECK(parse_object_tagging_xml(make_object_tagging_xml(tags).c_str(), &back) == 0);
        CHECK(back.size() == tags.size());
        for (std::size_t i = 0; i < back.size(); ++i)
            CHECK(back[i].key == tags[i].key && back[i].value == tags[i].value);
    }

    // Beyond the bounds nothing is taken.
    if (!orbs3_xml_within_bounds(text.get(), ORBS3_XML_BODY_BOUNDS)) {
        neo_list_head_t l;
        INIT_LIST_HEAD(&l);
        CHECK(parse_del_objects_xmlstring(text.get(), &l, pool.get()) == -1);
        CHECK(parse_complete_multipart_upload_xmlstring(text.get(), &l, pool.get()) == -1);
        orbs3_versioning_doc_t v;
        CHECK(parse_bucket_versioning_xmlstring(text.get(), &v) == -1);
        int32_t d = 0;
        CHECK(parse_bucket_recycle_conf_xmlstring(text.get(), &d) == -1);
        orbs3_tag_set_t t;
        CHECK(parse_object_tagging_xml(text.get(), &t) == -1);
        CHECK(list_empty(&l));
    }
    check_text_round_trips(std::string_view(text.get(), std::strlen(text.get())), pool.get());
    return 0;
}
