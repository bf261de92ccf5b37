// What a multipart request brings before any byte is stored: its Complete document, checked against the
// stored parts, and its x-amz-copy-source-range; and the records an upload leaves on a shared tree, which
// another node may have written (or a crash cut). The first byte picks which; the rest is the text.
// Invariants: a Complete that passes names stored parts in ascending order with their ETags and sizes
// the least part size allows, a refusal names a part of the document; a copy range lies inside the
// source; a record that parses renders to a text that parses to the same record.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_check.h"
#include "memory/orbs3_palloc.h"
#include "s3/orbs3_s3_documents.h"
#include "storage/orbs3_multipart.h"

namespace {

constexpr int64_t kMinPart = 100;

void quiet(const char*) {}

orbs3_multipart_part_t stored_part(int number, int64_t size, uint8_t seed)
{
    orbs3_multipart_part_t p;
    p.number = number;
    p.size = size;
    std::memset(p.md5, seed, sizeof p.md5);
    return p;
}

void complete_document(std::string_view text)
{
    // The stored parts: 1, 2 and 5 of the least size, 3 one byte short; MD5s of repeated bytes.
    const std::vector<orbs3_multipart_part_t> stored = {stored_part(1, kMinPart, 0x11), stored_part(2, kMinPart, 0x22),
                                                        stored_part(3, kMinPart - 1, 0x33),
                                                        stored_part(5, kMinPart, 0xab)};
    std::string body(text);
    orbs3_pool_ptr pool(orbs3_create_mem_block(4096));
    CHECK(pool != nullptr);
    neo_list_head_t list;
    INIT_LIST_HEAD(&list);
    if (parse_complete_multipart_upload_xmlstring(body.c_str(), &list, pool.get()) != 0)
        return;
    std::vector<orbs3_multipart_request_part_t> req;
    neo_list_head_t* pos;
    list_for_each(pos, &list)
    {
        auto* p = list_entry(pos, orbs3_part_t, link);
        req.push_back({p->part_number, p->etag.data == nullptr ? std::string_view()
                                                               : std::string_view(p->etag.data, p->etag.len)});
    }
    std::size_t bad = 12345;
    int rc = orbs3_multipart_check_complete(req, stored, kMinPart, &bad);
    if (rc != 0) {
        CHECK(req.empty() ? bad == 0 : bad < req.size());
        return;
    }
    CHECK(!req.empty());
    for (std::size_t i = 0; i < req.size(); i++) {
        CHECK(i == 0 || req[i].number > req[i - 1].number);
        const orbs3_multipart_part_t* hit = nullptr;
        for (const auto& s : stored)
            hit = s.number == req[i].number ? &s : hit;
        CHECK(hit != nullptr);
        CHECK(i + 1 == req.size() || hit->size >= kMinPart);
        std::string_view e = req[i].etag;
        if (e.size() == 34)
            e = e.substr(1, 32);
        CHECK(e.size() == 32);
        for (std::size_t k = 0; k < 16; k++) {
            char pair[3] = {e[2 * k], e[2 * k + 1], '\0'};
            CHECK(std::strtoul(pair, nullptr, 16) == hit->md5[k]);
        }
    }
}

void copy_range(std::string_view text)
{
    if (text.size() < 8)
        return;
    uint64_t raw = 0;
    std::memcpy(&raw, text.data(), 8);
    const int64_t size = static_cast<int64_t>(raw >> 1);
    std::string value(text.substr(8));
    int64_t first = -1, len = -1;
    if (orbs3_multipart_parse_copy_range(value, size, &first, &len) == 0) {
        CHECK(first >= 0 && len >= 1);
        CHECK(first < size && len <= size - first);
    }
}

void upload_record(std::string_view text)
{
    orbs3_multipart_upload_t up;
    if (orbs3_multipart_parse_upload(text, &up) != 0)
        return;
    CHECK(orbs3_multipart_valid_id(up.upload_id) && !up.key.empty());
    orbs3_multipart_upload_t again;
    CHECK(orbs3_multipart_parse_upload(orbs3_multipart_render_upload(up), &again) == 0);
    CHECK(again.key == up.key && again.upload_id == up.upload_id && again.created == up.created &&
          again.content_type == up.content_type && again.meta == up.meta);
}

void part_record(std::string_view text)
{
    orbs3_multipart_part_t p;
    if (orbs3_multipart_parse_part(text, &p) != 0)
        return;
    CHECK(p.size >= 0);
    orbs3_multipart_part_t again;
    CHECK(orbs3_multipart_parse_part(orbs3_multipart_render_part(p), &again) == 0);
    CHECK(again.size == p.size && again.ino == p.ino && again.number == p.number &&
          std::memcmp(again.md5, p.md5, sizeof p.md5) == 0 && again.modified == p.modified);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    static bool once = (mxmlSetErrorCallback(quiet), true);
    (void)once;
    if (size == 0)
        return 0;
    const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
    switch (data[0] & 3) {
    case 0:
        complete_document(text);
        break;
    case 1:
        copy_range(text);
        break;
    case 2:
        upload_record(text);
        break;
    default:
        part_record(text);
        break;
    }
    return 0;
}
