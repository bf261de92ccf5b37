// A request built around a head the way the connection code builds one: its own pool, a zero-filled
// header_in with one spare zero byte behind the data, a url_buf, content_length -1.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>

#include "http/orbs3_http_parse.h"
#include "http/orbs3_http_request.h"
#include "memory/orbs3_palloc.h"

namespace http_test {

// The table hash lives as long as the test binary, as it lives as long as the worker.
inline void ensure_headers_hash()
{
    static orbs3_pool_ptr pool(orbs3_create_mem_block(16384));
    static bool done = pool && orbs3_http_init_headers_in_hash(pool.get()) == 0;
    ASSERT_TRUE(done);
}

inline constexpr auto& sv = orbs3_str_view;

inline orbs3_buf_t* make_buf(orbs3_pool_t* pool, uint8_t* data, std::size_t size, std::size_t used)
{
    auto* b = static_cast<orbs3_buf_t*>(orbs3_pcalloc(pool, sizeof(orbs3_buf_t)));
    if (b == nullptr)
        return nullptr;
    b->start = b->pos = data;
    b->last = data + used;
    b->end = data + size;
    return b;
}

struct test_request {
    orbs3_pool_ptr pool;
    orbs3_http_request_t* r = nullptr;

    // The head is copied into header_in; url_space is the size of url_buf.
    explicit test_request(std::string_view head, std::size_t url_space = 4096)
        : pool(orbs3_create_mem_block(16384))
    {
        if (!pool)
            return;
        r = static_cast<orbs3_http_request_t*>(orbs3_pcalloc(pool.get(), sizeof(orbs3_http_request_t)));
        auto* in = static_cast<uint8_t*>(orbs3_pcalloc(pool.get(), head.size() + 1));
        auto* url = static_cast<uint8_t*>(orbs3_pcalloc(pool.get(), url_space ? url_space : 1));
        if (r == nullptr || in == nullptr || url == nullptr) {
            r = nullptr;
            return;
        }
        if (!head.empty())
            std::memcpy(in, head.data(), head.size());
        r->pool = pool.get();
        r->content_length = -1;
        r->header_in = make_buf(pool.get(), in, head.size() + 1, head.size());
        r->url_buf = make_buf(pool.get(), url, url_space, 0);
        if (r->header_in == nullptr || r->url_buf == nullptr)
            r = nullptr;
    }

    uint8_t* start() const { return r->header_in->start; }
};

// Header records of the request, in list order.
template <typename F>
void for_each_header(const orbs3_http_request_t* r, F&& f)
{
    for (const orbs3_list_part_t* part = &r->headers_in.headers.part; part != nullptr; part = part->next) {
        auto* h = static_cast<const orbs3_header_t*>(part->elts);
        for (uint32_t i = 0; i < part->nelts; i++)
            f(h[i]);
    }
}

inline std::size_t header_count(const orbs3_http_request_t* r)
{
    std::size_t n = 0;
    for_each_header(r, [&](const orbs3_header_t&) { n++; });
    return n;
}

}  // namespace http_test
