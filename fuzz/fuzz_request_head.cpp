// The request-head parser on arbitrary bytes, held as the connection holds them: a pool per request, the
// bytes in a zero-filled heap block with one spare zero byte behind them. When the head is complete it
// is parsed whole; checked after: every record lies in the head, names are lower-cased and hashed as the
// table hash expects, the uri is normalised, the url fits its buffer. Independently of the end of the
// head, the two machines run over the bytes in one read and in two reads cut where the first byte says;
// both runs must agree on every result and mark.
#include <syslog.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "http/orbs3_http_parse.h"
#include "http/orbs3_http_request.h"
#include "memory/orbs3_hash.h"
#include "memory/orbs3_palloc.h"
#include "fuzz_check.h"
#include "fuzz_request.h"

namespace {

bool inside(const char* p, uint64_t len, const uint8_t* start, std::size_t size)
{
    auto* b = reinterpret_cast<const uint8_t*>(p);
    return b >= start && b + len <= start + size;
}

// A normalised path: absolute, no empty segment, no dot segment followed by a slash.
void check_path(std::string_view uri)
{
    CHECK(!uri.empty() && uri[0] == '/');
    CHECK(uri.find("//") == std::string_view::npos);
    CHECK(uri.find("/./") == std::string_view::npos);
    CHECK(uri.find("/../") == std::string_view::npos);
}

unsigned fold(unsigned char c)
{
    return (c >= 'A' && c <= 'Z') ? (c | 0x20) : c;
}

void parse_whole_head(const uint8_t* data, std::size_t size, std::size_t head)
{
    request_in_pool q(data, size);
    orbs3_http_request_t* r = q.r;
    if (parser_http_request_handler(r) != 0)
        return;

    CHECK(r->request_length <= head);
    CHECK(r->url.len < url_space && r->url.data[r->url.len] == '\0');
    check_path({r->uri.data, r->uri.len});
    CHECK(inside(r->request_line.data, r->request_line.len, q.in, size));
    CHECK(inside(r->unparsed_uri.data, r->unparsed_uri.len, q.in, size));

    for (const orbs3_list_part_t* part = &r->headers_in.headers.part; part; part = part->next) {
        auto* h = static_cast<const orbs3_header_t*>(part->elts);
        for (uint32_t i = 0; i < part->nelts; i++) {
            CHECK(inside(h[i].key.data, h[i].key.len, q.in, head));
            CHECK(inside(h[i].value.data, h[i].value.len, q.in, head));
            if (h[i].key.len == 0)
                continue;  // a Cookie header, emptied once its cookies are cut
            bool plain = true;
            for (uint64_t k = 0; k < h[i].key.len; k++) {
                auto c = static_cast<unsigned char>(h[i].key.data[k]);
                CHECK(static_cast<unsigned char>(h[i].lowcase_key[k]) == fold(c));
                plain = plain && (lowcase[c] != 0 || c == '_');
            }
            if (plain)
                CHECK(h[i].hash == orbs3_hash_key_lc(h[i].key.data, h[i].key.len));
        }
    }

    if (r->headers_in.server.len != 0) {
        int rc = orbs3_http_process_request_header(r);
        if (rc == 0 && r->headers_in.chunked)
            CHECK(r->content_length == -1 && r->headers_in.content_length == nullptr);
    }
}

// Results and marks of the machines, as offsets into the input.
std::vector<int64_t> scan(const uint8_t* data, std::size_t size, std::size_t split)
{
    request_in_pool q(data, size);
    orbs3_http_request_t* r = q.r;
    orbs3_buf_t* b = r->header_in;
    uint8_t* const end = b->last;
    b->last = b->start + split;
    auto off = [&](const void* p) -> int64_t { return p ? static_cast<const uint8_t*>(p) - b->start : -1; };

    std::vector<int64_t> out;
    int rc;
    for (;;) {
        rc = orbs3_http_parse_request_line(r, b);
        if (rc != ORBS3_AGAIN)
            break;
        CHECK(b->pos == b->last);
        if (b->last == end)
            break;
        b->last = end;
    }
    out.push_back(rc);
    out.insert(out.end(), {off(r->request_start), off(r->request_end), off(r->method_end), off(r->uri_start),
                           off(r->uri_end), off(r->uri_ext), off(r->args_start), off(r->host_start),
                           off(r->host_end), off(r->port_end), off(r->http_protocol.data), r->method,
                           r->http_version, r->complex_uri, r->quoted_uri});
    if (rc != ORBS3_OK)
        return out;
    out.push_back(off(b->pos));

    for (;;) {
        rc = orbs3_http_parse_header_line(r, b, 1);
        if (rc == ORBS3_AGAIN) {
            CHECK(b->pos == b->last);
            if (b->last == end)
                break;
            b->last = end;
            continue;
        }
        CHECK(b->pos <= end);
        if (rc != ORBS3_OK)
            break;
        out.insert(out.end(), {off(r->header_name_start), off(r->header_name_end), off(r->header_start),
                               off(r->header_end), static_cast<int64_t>(r->header_hash),
                               static_cast<int64_t>(r->lowcase_index)});
        for (uint8_t c : r->lowcase_header)
            out.push_back(c);
    }
    out.push_back(rc);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    static orbs3_pool_ptr table_pool = [] {
        setlogmask(LOG_MASK(LOG_EMERG));  // the parser's client-error lines would drown the run
        orbs3_pool_ptr p(orbs3_create_mem_block(16384));
        CHECK(p && orbs3_http_init_headers_in_hash(p.get()) == 0);
        return p;
    }();

    if (size > 16384)
        return 0;

    std::size_t head = orbs3_check_head(data, size);
    CHECK(head <= size);
    if (head != 0)
        parse_whole_head(data, size, head);

    std::size_t split = size == 0 ? 0 : data[0] % (size + 1);
    CHECK(scan(data, size, split) == scan(data, size, size));
    return 0;
}
