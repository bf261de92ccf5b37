// The known request headers and their handlers.
#include <cstddef>
#include <cstring>
#include <string_view>

#include "core/orbs3_log.h"
#include "core/orbs3_tenant.h"
#include "http/orbs3_http_parse.h"
#include "http/orbs3_http_request.h"
#include "memory/neo_list.h"
#include "memory/neo_string.h"

orbs3_hash_t headers_in_hash;

namespace {

#define ORBS3_HEADER_ROW(name, field, handler) \
    orbs3_http_header_t{name, offsetof(orbs3_http_headers_in_t, field), handler}

// The field at `offset` in the request's headers_in.
template <typename T>
T* field_at(orbs3_http_request_t* r, std::size_t offset)
{
    return reinterpret_cast<T*>(reinterpret_cast<char*>(&r->headers_in) + offset);
}

bool value_holds(const orbs3_header_t* h, std::string_view word)
{
    return h->value.len != 0 &&
           orbs3_strlcasestrn(h->value.data, h->value.data + h->value.len, word.data(), word.size() - 1) != nullptr;
}

}  // namespace

// Transfer-Encoding has a single row, with its own handler: a name has one handler, and the body's
// framing must reach the whole-head test.
extern const orbs3_http_header_t orbs3_http_headers_in[] = {
    ORBS3_HEADER_ROW("Host", host, orbs3_http_process_host),
    ORBS3_HEADER_ROW("Connection", connection, orbs3_http_process_connection),
    ORBS3_HEADER_ROW("If-Modified-Since", if_modified_since, orbs3_http_process_header_line),
    ORBS3_HEADER_ROW("If-Unmodified-Since", if_unmodified_since, orbs3_http_process_header_line),
    ORBS3_HEADER_ROW("If-Match", if_match, orbs3_http_process_header_line),
    ORBS3_HEADER_ROW("If-None-Match", if_none_match, orbs3_http_process_header_line),
    ORBS3_HEADER_ROW("User-Agent", user_agent, orbs3_http_process_header_line),
    ORBS3_HEADER_ROW("Referer", referer, orbs3_http_process_header_line),
    ORBS3_HEADER_ROW("Content-Length", content_length, orbs3_http_process_header_line_content),
    ORBS3_HEADER_ROW("Content-Range", content_range, orbs3_http_process_header_line),
    ORBS3_HEADER_ROW("Content-Type", content_type, orbs3_http_process_header_line),
    ORBS3_HEADER_ROW("Date", date, orbs3_http_process_header_line),
    ORBS3_HEADER_ROW("Range", range, orbs3_http_process_header_line),
    ORBS3_HEADER_ROW("If-Range", if_range, orbs3_http_process_header_line),
    ORBS3_HEADER_ROW("Expect", expect, orbs3_http_process_header_line),
    ORBS3_HEADER_ROW("Upgrade-Insecure-Requests", upgrade, orbs3_http_process_header_line),
    ORBS3_HEADER_ROW("Accept-Encoding", accept_encoding, orbs3_http_process_header_line),
    ORBS3_HEADER_ROW("Authorization", authorization, orbs3_http_process_header_line),
    ORBS3_HEADER_ROW("Keep-Alive", keep_alive, orbs3_http_process_header_line),
    ORBS3_HEADER_ROW("X-Forwarded-For", x_forwarded_for, orbs3_http_process_header_xff),
    ORBS3_HEADER_ROW("X-Real-IP", x_real_ip, orbs3_http_process_header_line),
    ORBS3_HEADER_ROW("Accept", accept, orbs3_http_process_header_line),
    ORBS3_HEADER_ROW("Accept-Language", accept_language, orbs3_http_process_header_line),
    ORBS3_HEADER_ROW("Cookie", cookies, orbs3_http_process_multi_cookies),
    ORBS3_HEADER_ROW("Transfer-Encoding", transfer_encoding, orbs3_http_process_transfer_encoding),
    ORBS3_HEADER_ROW("OrbAction", orb_action, orbs3_http_process_action),
    ORBS3_HEADER_ROW("X-Copy-Source", x_copy_source, orbs3_http_process_copysource),
    ORBS3_HEADER_ROW("Access-Control-Request-Headers", access_control_request_headers,
                     orbs3_http_process_header_line),
    ORBS3_HEADER_ROW("Origin", origin, orbs3_http_process_header_line),
};
extern const std::size_t orbs3_http_headers_in_count = std::size(orbs3_http_headers_in);

#undef ORBS3_HEADER_ROW

int orbs3_http_init_headers_in_hash(orbs3_pool_t* pool)
{
    orbs3_array_t keys;
    if (orbs3_array_init(&keys, pool, 32, sizeof(orbs3_hash_key_t)) != 0)
        return -1;

    for (const orbs3_http_header_t& row : orbs3_http_headers_in) {
        auto* k = static_cast<orbs3_hash_key_t*>(orbs3_array_push(&keys));
        if (k == nullptr)
            return -1;
        // The hash only reads names and values.
        k->key.data = const_cast<char*>(row.name.data());
        k->key.len = row.name.size();
        k->key_hash = orbs3_hash_key_lc(row.name.data(), row.name.size());
        k->value = const_cast<orbs3_http_header_t*>(&row);
    }

    orbs3_hash_init_t hinit{};
    hinit.hash = &headers_in_hash;
    hinit.max_size = 512;
    hinit.bucket_size = 64;
    hinit.pool = pool;
    hinit.name = "headers_in_hash";
    return orbs3_hash_init(&hinit, static_cast<const orbs3_hash_key_t*>(keys.elts), keys.nelts);
}

// ---- handlers ----

int orbs3_http_process_header_line(orbs3_http_request_t* r, orbs3_header_t* h, std::size_t offset)
{
    auto** ph = field_at<orbs3_header_t*>(r, offset);
    if (*ph == nullptr)
        *ph = h;
    return 0;
}

int orbs3_http_process_action(orbs3_http_request_t* r, orbs3_header_t* h, std::size_t offset)
{
    return orbs3_http_process_header_line(r, h, offset);
}

int orbs3_http_process_copysource(orbs3_http_request_t* r, orbs3_header_t* h, std::size_t offset)
{
    return orbs3_http_process_header_line(r, h, offset);
}

int orbs3_http_process_header_line_content(orbs3_http_request_t* r, orbs3_header_t* h, std::size_t offset)
{
    auto** ph = field_at<orbs3_header_t*>(r, offset);
    int64_t n = orbs3_atoof(h->value.data, h->value.len);
    if (*ph == nullptr)
        *ph = h;
    else if (n != r->content_length)
        r->headers_in.framing_conflict = 1;  // two lengths: which one frames the body is anyone's guess
    r->content_length = n;
    return 0;
}

int orbs3_http_process_connection(orbs3_http_request_t* r, orbs3_header_t* h, std::size_t offset)
{
    auto** ph = field_at<orbs3_header_t*>(r, offset);
    if (*ph == nullptr)
        *ph = h;

    if (value_holds(h, "close"))
        r->headers_in.connection_type = ORBS3_HTTP_CONNECTION_CLOSE;
    else if (value_holds(h, "keep-alive"))
        r->headers_in.connection_type = ORBS3_HTTP_CONNECTION_KEEP_ALIVE;

    // The value has done its work; later scans of the header list see it as empty.
    h->value.len = 0;
    return 0;
}

namespace {

// Appends the record to the array at the field, made with `first` slots on the first occurrence.
int push_occurrence(orbs3_http_request_t* r, orbs3_header_t* h, std::size_t offset, uint32_t first)
{
    auto* a = field_at<orbs3_array_t>(r, offset);
    if (a->elts == nullptr && orbs3_array_init(a, r->pool, first, sizeof(orbs3_header_t*)) != 0)
        return -1;
    auto** slot = static_cast<orbs3_header_t**>(orbs3_array_push(a));
    if (slot == nullptr)
        return -1;
    *slot = h;
    return 0;
}

}  // namespace

int orbs3_http_process_header_xff(orbs3_http_request_t* r, orbs3_header_t* h, std::size_t offset)
{
    return push_occurrence(r, h, offset, 10);
}

int orbs3_http_process_multi_cookies(orbs3_http_request_t* r, orbs3_header_t* h, std::size_t offset)
{
    auto* a = field_at<orbs3_array_t>(r, offset);
    if (a->elts == nullptr && orbs3_array_init(a, r->pool, 10, sizeof(orbs3_header_t*)) != 0)
        return -1;

    orbs3_str_t rest = h->value;
    while (rest.len != 0) {
        std::size_t taken = orbs3_http_parse_cookie(r, &rest);
        if (taken == 0) {
            // Separators are skipped inside, so this is the end of the value or a NUL in it.
            if (rest.len == 0)
                break;
            rest.data++;
            rest.len--;
            continue;
        }

        auto* c = static_cast<orbs3_header_t*>(orbs3_pcalloc(r->pool, sizeof(orbs3_header_t)));
        if (c == nullptr)
            return -1;
        auto* name_start = reinterpret_cast<char*>(r->header_name_start);
        if (r->header_name_end != nullptr) {
            c->key.data = name_start;
            c->key.len = static_cast<uint64_t>(reinterpret_cast<char*>(r->header_name_end) - name_start);
            c->value.data = reinterpret_cast<char*>(r->header_start);
            c->value.len = static_cast<uint64_t>(r->header_end - r->header_start);
        } else {
            c->key.data = name_start;  // a cookie without '=': a name without value
            c->key.len = taken;
            c->value.data = name_start + taken;
            c->value.len = 0;
        }
        c->hash = orbs3_hash_key(c->key.data, c->key.len);  // cookie names keep their case

        auto** slot = static_cast<orbs3_header_t**>(orbs3_array_push(a));
        if (slot == nullptr)
            return -1;
        *slot = c;

        rest.data += taken;
        rest.len -= taken;
    }

    // The cookies are in their own records now; scans of the header list pass this one by.
    h->key.len = 0;
    return 0;
}

int orbs3_http_process_transfer_encoding(orbs3_http_request_t* r, orbs3_header_t* h, std::size_t offset)
{
    auto** ph = field_at<orbs3_header_t*>(r, offset);
    if (*ph != nullptr) {
        // Two lines are one list of codings ("chunked, gzip"), never exactly one that the whole-head
        // test could accept.
        r->headers_in.framing_conflict = 1;
        return 0;
    }
    *ph = h;
    if (value_holds(h, "chunked"))
        r->headers_in.chunked = 1;
    return 0;
}

int orbs3_http_process_host(orbs3_http_request_t* r, orbs3_header_t* h, std::size_t offset)
{
    auto** ph = field_at<orbs3_header_t*>(r, offset);
    if (*ph != nullptr) {
        const orbs3_header_t* prev = *ph;
        ipd_log(LOG_ERR, "client sent duplicate host header: \"%.*s: %.*s\", previous value: \"%.*s: %.*s\"",
                static_cast<int>(h->key.len), h->key.data, static_cast<int>(h->value.len), h->value.data,
                static_cast<int>(prev->key.len), prev->key.data, static_cast<int>(prev->value.len),
                prev->value.data);
        return -1;
    }
    *ph = h;

    orbs3_str_t host = h->value;
    int rc = orbs3_http_validate_host(&host, r->pool, 0);
    if (rc == ORBS3_HOST_INVALID) {
        ipd_log(LOG_ERR, "client sent invalid host header");
        return -1;
    }
    if (rc != 0)
        return -1;

    if (r->headers_in.server.len != 0)
        return 0;
    (void)orbs3_find_virtual_server(r);
    r->headers_in.server = host;
    return 0;
}

// ---- host handling ----

int orbs3_http_validate_host(orbs3_str_t* host, orbs3_pool_t* pool, unsigned alloc)
{
    enum { USUAL, LITERAL, REST } state = USUAL;

    const char* h = host->data;
    const int64_t len = static_cast<int64_t>(host->len);
    int64_t dot_pos = len;
    int64_t host_len = len;

    for (int64_t i = 0; i < len; i++) {
        const char ch = h[i];
        switch (ch) {
        case '.':
            if (dot_pos == i - 1)
                return ORBS3_HOST_INVALID;  // ".." would name a parent in a path built from it
            dot_pos = i;
            break;
        case ':':
            if (state == USUAL) {
                host_len = i;
                state = REST;
            }
            break;
        case '[':
            if (i == 0)
                state = LITERAL;
            break;
        case ']':
            if (state == LITERAL) {
                host_len = i + 1;
                state = REST;
            }
            break;
        case '\0':
        case '/':
            return ORBS3_HOST_INVALID;
        default:
            if (ch >= 'A' && ch <= 'Z')
                alloc = 1;
            break;
        }
    }

    if (dot_pos == host_len - 1)
        host_len--;
    if (host_len <= 0)
        return ORBS3_HOST_INVALID;

    if (alloc) {
        auto* data = static_cast<char*>(orbs3_pnalloc(pool, static_cast<std::size_t>(host_len)));
        if (data == nullptr)
            return -1;
        orbs3_strlow(data, h, static_cast<std::size_t>(host_len));
        host->data = data;
    }
    host->len = static_cast<uint64_t>(host_len);
    return 0;
}

int orbs3_find_virtual_server(orbs3_http_request_t* r)
{
    const orbs3_connection_t* c = r->connection;
    neo_list_head_t* vhosts = c != nullptr && c->listening != nullptr ? c->listening->vhosts : nullptr;
    if (vhosts == nullptr)
        return 0;

    // The value as sent, in the case sent, up to the first ':'.
    std::string_view host;
    if (r->headers_in.host != nullptr) {
        host = orbs3_str_view(r->headers_in.host->value);
        host = host.substr(0, host.find(':'));
    }

    auto vhost_at = [](neo_list_head_t* pos) { return static_cast<orbs3_vhost_t*>(orbs3_list_node(pos)->data); };

    // The control thread may change the list meanwhile: the walk holds the read lock, and the request
    // keeps the record it picked by its own reference until it ends.
    orbs3_vhost_t* found = nullptr;
    uint32_t style = ORBS3_HOST_STYLE_PATH;
    pthread_rwlock_rdlock(&orbs3_vhosts_lock);
    neo_list_head_t* pos;
    list_for_each(pos, vhosts)
    {
        orbs3_vhost_t* vh = vhost_at(pos);
        if (vh->domain.len != 0 && orbs3_str_view(vh->domain) == host) {
            found = vh;
            break;
        }
    }
    if (found == nullptr) {
        list_for_each(pos, vhosts)
        {
            orbs3_vhost_t* vh = vhost_at(pos);
            if (vh->domain.len != 0 && host.find(orbs3_str_view(vh->domain)) != std::string_view::npos) {
                found = vh;
                style = ORBS3_HOST_STYLE_VIRTUAL;
                break;
            }
        }
    }
    if (found == nullptr && !list_empty(vhosts))
        found = vhost_at(vhosts->next);
    if (found != nullptr)
        orbs3_vhost_hold(found);
    pthread_rwlock_unlock(&orbs3_vhosts_lock);

    if (found == nullptr)
        return 0;
    orbs3_http_drop_vhost(r);
    r->vhost = found;
    r->vhost_held = 1;
    r->host_style = style;
    return 0;
}

void orbs3_http_drop_vhost(orbs3_http_request_t* r)
{
    if (r->vhost_held != 0)
        orbs3_vhost_release(r->vhost);
    r->vhost_held = 0;
    r->vhost = nullptr;
}
