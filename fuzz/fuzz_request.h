// A request around a head, built the way the connection code builds one: its own pool, the head copied
// into header_in with one spare zero byte behind it, a url_buf of url_space bytes, content_length -1.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz_check.h"
#include "http/orbs3_http_request.h"
#include "memory/orbs3_palloc.h"

constexpr std::size_t url_space = 4096;

struct request_in_pool {
    orbs3_pool_ptr pool;
    orbs3_http_request_t* r = nullptr;
    uint8_t* in = nullptr;

    request_in_pool(const void* data, std::size_t size) : pool(orbs3_create_mem_block(16384))
    {
        CHECK(pool);
        r = static_cast<orbs3_http_request_t*>(orbs3_pcalloc(pool.get(), sizeof(orbs3_http_request_t)));
        in = static_cast<uint8_t*>(orbs3_pcalloc(pool.get(), size + 1));  // the spare zero byte
        auto* url = static_cast<uint8_t*>(orbs3_pcalloc(pool.get(), url_space));
        CHECK(r && in && url);
        r->header_in = static_cast<orbs3_buf_t*>(orbs3_pcalloc(pool.get(), sizeof(orbs3_buf_t)));
        r->url_buf = static_cast<orbs3_buf_t*>(orbs3_pcalloc(pool.get(), sizeof(orbs3_buf_t)));
        CHECK(r->header_in && r->url_buf);
        if (size != 0)
            std::memcpy(in, data, size);
        r->pool = pool.get();
        r->content_length = -1;
        r->header_in->start = r->header_in->pos = in;
        r->header_in->last = in + size;
        r->header_in->end = in + size + 1;
        r->url_buf->start = r->url_buf->pos = r->url_buf->last = url;
        r->url_buf->end = url + url_space;
    }
};
