#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "control/orbs3_service.h"
#include "http/http_test_request.h"
#include "http/orbs3_http_parse.h"
#include "http/orbs3_http_request.h"
#include "memory/orbs3_hash.h"
#include "service_fixture.h"

using http_test::sv;
using http_test::test_request;

namespace {

const orbs3_http_header_t* row_for(std::string_view name)
{
    std::string lower(name);
    for (char& c : lower)
        c = static_cast<char>(lowcase[static_cast<uint8_t>(c)]);
    return static_cast<const orbs3_http_header_t*>(
        orbs3_hash_find(&headers_in_hash, orbs3_hash_key_lc(name.data(), name.size()), lower.data(), lower.size()));
}

TEST(HttpHeadersIn, EveryKnownHeaderIsFoundByItsLowerCaseName)
{
    http_test::ensure_headers_hash();
    for (std::size_t i = 0; i < orbs3_http_headers_in_count; i++) {
        const orbs3_http_header_t& row = orbs3_http_headers_in[i];
        SCOPED_TRACE(std::string(row.name));
        EXPECT_EQ(row_for(row.name), &row);
    }
    EXPECT_EQ(row_for("X-Unknown"), nullptr);
    EXPECT_EQ(row_for("Hos"), nullptr);
    // One name, one row: the body's framing is read by the Transfer-Encoding handler.
    const orbs3_http_header_t* te = row_for("Transfer-Encoding");
    ASSERT_NE(te, nullptr);
    EXPECT_EQ(te->handler, orbs3_http_process_transfer_encoding);
}

// Parses a head whose request line is GET / HTTP/1.1 and whose Host is h, with `extra` header lines.
struct parsed_head {
    test_request t;
    int rc;
    explicit parsed_head(std::string_view extra, std::string_view line = "GET / HTTP/1.1\r\nHost: h\r\n")
        : t(std::string(line) + std::string(extra) + "\r\n"), rc(t.r ? parser_http_request_handler(t.r) : -99)
    {
    }
};

// Which occurrence a known header keeps in its field.
TEST(HttpHeadersIn, HandlersKeepTheFirstOccurrence)
{
    http_test::ensure_headers_hash();
    const std::string_view first_wins[] = {
        "If-Modified-Since", "If-Unmodified-Since", "If-Match",        "If-None-Match", "User-Agent",
        "Referer",           "Content-Range",       "Content-Type",    "Date",          "Range",
        "If-Range",          "Expect",              "Upgrade-Insecure-Requests",       "Accept-Encoding",
        "Authorization",     "Keep-Alive",          "X-Real-IP",       "Accept",        "Accept-Language",
        "OrbAction",         "X-Copy-Source",       "Access-Control-Request-Headers", "Origin",
        "Connection",        "Content-Length",      "Transfer-Encoding",
    };
    for (std::string_view name : first_wins) {
        SCOPED_TRACE(std::string(name));
        const orbs3_http_header_t* row = row_for(name);
        ASSERT_NE(row, nullptr);
        std::string extra = std::string(name) + ": 1\r\n" + std::string(name) + ": 2\r\n";
        parsed_head p(extra);
        ASSERT_EQ(p.rc, 0);
        auto* field = *reinterpret_cast<orbs3_header_t**>(reinterpret_cast<char*>(&p.t.r->headers_in) + row->offset);
        ASSERT_NE(field, nullptr);
        // Connection empties the value it has read; the key still tells the record.
        EXPECT_EQ(field->value.data[0], '1');
    }
}

TEST(HttpHeadersIn, RepeatedHeadersThatDecideByTheLastOrCollectAll)
{
    http_test::ensure_headers_hash();

    {   // Content-Length: the first record stays, the last number counts.
        parsed_head p("Content-Length: 5\r\nContent-Length: 5\r\n");
        ASSERT_EQ(p.rc, 0);
        EXPECT_EQ(p.t.r->content_length, 5);
        EXPECT_FALSE(p.t.r->headers_in.framing_conflict);
    }
    {
        parsed_head p("Content-Length: 5\r\nContent-Length: 7\r\n");
        ASSERT_EQ(p.rc, 0);
        EXPECT_EQ(p.t.r->content_length, 7);
        EXPECT_EQ(sv(p.t.r->headers_in.content_length->value), "5");
        EXPECT_TRUE(p.t.r->headers_in.framing_conflict);
    }
    {   // Connection: each occurrence sets the mode, so the last one with a word wins.
        parsed_head p("Connection: close\r\nConnection: keep-alive\r\n", "GET / HTTP/1.0\r\nHost: h\r\n");
        ASSERT_EQ(p.rc, 0);
        EXPECT_EQ(p.t.r->headers_in.connection_type, ORBS3_HTTP_CONNECTION_KEEP_ALIVE);
        EXPECT_EQ(sv(p.t.r->headers_in.connection->key), "Connection");
        EXPECT_EQ(p.t.r->headers_in.connection->value.len, 0u);
    }
    {   // X-Forwarded-For: every occurrence, in order.
        parsed_head p("X-Forwarded-For: 10.0.0.1\r\nX-Forwarded-For: 10.0.0.2, 10.0.0.3\r\n");
        ASSERT_EQ(p.rc, 0);
        const orbs3_array_t& a = p.t.r->headers_in.x_forwarded_for;
        ASSERT_EQ(a.nelts, 2u);
        auto** h = static_cast<orbs3_header_t**>(a.elts);
        EXPECT_EQ(sv(h[0]->value), "10.0.0.1");
        EXPECT_EQ(sv(h[1]->value), "10.0.0.2, 10.0.0.3");
    }
    {   // Cookie: every cookie of every Cookie header; the headers' keys are emptied.
        parsed_head p("Cookie: a=1; b=2\r\nCookie: ;;  c=3;flag\r\n");
        ASSERT_EQ(p.rc, 0);
        const orbs3_array_t& a = p.t.r->headers_in.cookies;
        ASSERT_EQ(a.nelts, 4u);
        auto** c = static_cast<orbs3_header_t**>(a.elts);
        const std::pair<std::string_view, std::string_view> want[] = {{"a", "1"}, {"b", "2"}, {"c", "3"}, {"flag", ""}};
        for (std::size_t i = 0; i < 4; i++) {
            EXPECT_EQ(sv(c[i]->key), want[i].first);
            EXPECT_EQ(sv(c[i]->value), want[i].second);
        }
        int cookie_headers = 0;
        http_test::for_each_header(p.t.r, [&](const orbs3_header_t& h) {
            if (h.hash == orbs3_hash_key_lc("cookie", 6)) {
                cookie_headers++;
                EXPECT_EQ(h.key.len, 0u);
            }
        });
        EXPECT_EQ(cookie_headers, 2);
    }
    {   // Host: a second one drops the request.
        parsed_head p("Host: h\r\n");
        EXPECT_EQ(p.rc, -1);
    }
}

TEST(HttpHeadersIn, ConnectionWordsSetTheMode)
{
    http_test::ensure_headers_hash();
    struct row {
        std::string_view line;
        std::string_view value;
        unsigned mode;
    };
    const row rows[] = {
        {"GET / HTTP/1.1\r\nHost: h\r\n", "close", ORBS3_HTTP_CONNECTION_CLOSE},
        {"GET / HTTP/1.1\r\nHost: h\r\n", "Keep-Alive, close", ORBS3_HTTP_CONNECTION_CLOSE},
        {"GET / HTTP/1.0\r\nHost: h\r\n", "keep-alive", ORBS3_HTTP_CONNECTION_KEEP_ALIVE},
        {"GET / HTTP/1.0\r\nHost: h\r\n", "KEEP-ALIVE", ORBS3_HTTP_CONNECTION_KEEP_ALIVE},
        {"GET / HTTP/1.0\r\nHost: h\r\n", "upgrade", ORBS3_HTTP_CONNECTION_CLOSE},
        {"GET / HTTP/1.1\r\nHost: h\r\n", "upgrade", ORBS3_HTTP_CONNECTION_KEEP_ALIVE},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.value));
        parsed_head p("Connection: " + std::string(row.value) + "\r\n", row.line);
        ASSERT_EQ(p.rc, 0);
        EXPECT_EQ(p.t.r->headers_in.connection_type, row.mode);
    }
}

TEST(HttpHeadersIn, ContentLengthIsDigitsWithinInt64)
{
    http_test::ensure_headers_hash();
    struct row {
        std::string_view value;
        int64_t length;
    };
    const row rows[] = {
        {"0", 0},
        {"123", 123},
        {"9223372036854775807", INT64_MAX},
        {"9223372036854775808", -1},
        {"99999999999999999999999", -1},
        {"12a", -1},
        {"+5", -1},
        {"-1", -1},
        {"0x10", -1},
        {"1 2", -1},
        {"", -1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.value));
        parsed_head p("Content-Length: " + std::string(row.value) + "\r\n");
        ASSERT_EQ(p.rc, 0);
        EXPECT_EQ(p.t.r->content_length, row.length);
        EXPECT_EQ(orbs3_http_process_request_header(p.t.r), row.length >= 0 ? 0 : ORBS3_HTTP_BAD_FRAMING);
    }
}

TEST(HttpHeadersIn, WholeHeadTestRefusesAmbiguousFraming)
{
    http_test::ensure_headers_hash();
    struct row {
        std::string_view line;
        std::string_view extra;
        int rc;
        bool chunked;
        int64_t length;
    };
    constexpr int B = ORBS3_HTTP_BAD_FRAMING;
    const row rows[] = {
        {"PUT /o HTTP/1.1\r\nHost: h\r\n", "Content-Length: 10\r\n", 0, false, 10},
        {"PUT /o HTTP/1.1\r\nHost: h\r\n", "Transfer-Encoding: chunked\r\n", 0, true, -1},
        {"PUT /o HTTP/1.1\r\nHost: h\r\n", "Transfer-Encoding: CHUNKED\r\n", 0, true, -1},
        {"PUT /o HTTP/1.1\r\nHost: h\r\n", "Transfer-Encoding: identity\r\n", 0, false, -1},
        {"PUT /o HTTP/1.1\r\nHost: h\r\n", "Transfer-Encoding: gzip\r\n", B, false, -1},
        {"PUT /o HTTP/1.1\r\nHost: h\r\n", "Transfer-Encoding: gzip, chunked\r\n", B, true, -1},
        {"PUT /o HTTP/1.1\r\nHost: h\r\n", "Transfer-Encoding: chunked, identity\r\n", B, true, -1},
        {"PUT /o HTTP/1.1\r\nHost: h\r\n", "Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n", B, true,
         -1},
        {"PUT /o HTTP/1.1\r\nHost: h\r\n", "Transfer-Encoding: chunked\r\nContent-Length: 10\r\n", B, true, 10},
        {"PUT /o HTTP/1.1\r\nHost: h\r\n", "Content-Length: 10\r\nTransfer-Encoding: identity\r\n", B, false, 10},
        {"PUT /o HTTP/1.1\r\nHost: h\r\n", "Content-Length: 10\r\nContent-Length: 10\r\n", 0, false, 10},
        {"PUT /o HTTP/1.1\r\nHost: h\r\n", "Content-Length: 10\r\nContent-Length: 11\r\n", B, false, 11},
        {"PUT /o HTTP/1.1\r\nHost: h\r\n", "Content-Length: x\r\nContent-Length: 11\r\n", B, false, 11},
        {"PUT /o HTTP/1.1\r\nHost: h\r\n", "Content-Length: 11\r\nContent-Length: x\r\n", B, false, -1},
        {"TRACE / HTTP/1.1\r\nHost: h\r\n", "", -1, false, -1},
        // No Host: no server name, and above 1.0 no Host at all.
        {"GET / HTTP/1.0\r\n", "", -1, false, -1},
        {"GET / HTTP/1.2\r\n", "", -1, false, -1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.line) + std::string(row.extra));
        parsed_head p(row.extra, row.line);
        ASSERT_EQ(p.rc, 0);
        EXPECT_EQ(orbs3_http_process_request_header(p.t.r), row.rc);
        EXPECT_EQ(bool(p.t.r->headers_in.chunked), row.chunked);
        EXPECT_EQ(p.t.r->content_length, row.length);
    }
}

TEST(HttpHeadersIn, HostValidation)
{
    orbs3_pool_ptr pool(orbs3_create_mem_block(4096));
    ASSERT_TRUE(pool);
    struct row {
        std::string_view value;
        unsigned alloc;
        int rc;
        std::string_view host;
    };
    const row rows[] = {
        {"s3.example", 0, 0, "s3.example"},
        {"S3.EXAMPLE.", 0, 0, "s3.example"},
        {"h:80", 0, 0, "h"},
        {"H:80", 1, 0, "h"},
        {"[::1]:9000", 0, 0, "[::1]"},
        {"[::A]", 0, 0, "[::a]"},
        {"10.0.0.1:9000", 0, 0, "10.0.0.1"},
        {".a", 0, 0, ".a"},
        {"a..b", 0, ORBS3_HOST_INVALID, ""},
        {".", 0, ORBS3_HOST_INVALID, ""},
        {":80", 0, ORBS3_HOST_INVALID, ""},
        {"", 0, ORBS3_HOST_INVALID, ""},
        {"a/b", 0, ORBS3_HOST_INVALID, ""},
        {"a:8/0", 0, ORBS3_HOST_INVALID, ""},  // the port part is examined too
        {std::string_view("a\0b", 3), 0, ORBS3_HOST_INVALID, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.value));
        std::string text(row.value);
        orbs3_str_t host{text.size(), text.data()};
        ASSERT_EQ(orbs3_http_validate_host(&host, pool.get(), row.alloc), row.rc);
        if (row.rc != 0)
            continue;
        EXPECT_EQ(sv(host), row.host);
        // A copy is made when it had to be lower-cased or was asked for; the value as sent is untouched.
        bool copied = host.data < text.data() || host.data >= text.data() + text.size();
        EXPECT_EQ(copied, row.alloc || row.value.find_first_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ") != std::string_view::npos);
        EXPECT_EQ(text, std::string(row.value));
    }
}

using unit_test::service_fixture;

TEST(HttpHeadersIn, HostHeaderResolvesTheVhost)
{
    http_test::ensure_headers_hash();
    service_fixture f({"example.com", "s3.example.com", ""});
    ASSERT_EQ(f.vhosts.size(), 3u);
    struct row {
        std::string_view host;
        std::size_t vhost;
        uint32_t style;
        std::string_view server;
    };
    const row rows[] = {
        {"s3.example.com", 1, ORBS3_HOST_STYLE_PATH, "s3.example.com"},
        {"s3.example.com:9000", 1, ORBS3_HOST_STYLE_PATH, "s3.example.com"},
        // Pass two: the earlier vhost's domain lies inside the longer name and captures it.
        {"bkt.s3.example.com", 0, ORBS3_HOST_STYLE_VIRTUAL, "bkt.s3.example.com"},
        {"10.0.0.1:80", 0, ORBS3_HOST_STYLE_PATH, "10.0.0.1"},
        // The search uses the value as sent: no case folding, so no domain matches.
        {"S3.EXAMPLE.COM", 0, ORBS3_HOST_STYLE_PATH, "s3.example.com"},
        {"[::1]:9000", 0, ORBS3_HOST_STYLE_PATH, "[::1]"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.host));
        test_request t("GET / HTTP/1.1\r\nHost: " + std::string(row.host) + "\r\n\r\n");
        ASSERT_NE(t.r, nullptr);
        t.r->connection = f.connection();
        ASSERT_EQ(parser_http_request_handler(t.r), 0);
        EXPECT_EQ(t.r->vhost, f.vhosts[row.vhost]);
        EXPECT_EQ(t.r->host_style, row.style);
        EXPECT_EQ(sv(t.r->headers_in.server), row.server);
    }
    // The vhosts are the listener's: a request without a connection, or through a listener that serves
    // none, gets no vhost, whatever other listeners serve.
    orbs3_listening_t bare{};
    orbs3_connection_t through_bare{};
    through_bare.listening = &bare;
    for (orbs3_connection_t* c : {static_cast<orbs3_connection_t*>(nullptr), &through_bare}) {
        test_request t("GET / HTTP/1.1\r\nHost: s3.example.com\r\n\r\n");
        ASSERT_NE(t.r, nullptr);
        t.r->connection = c;
        ASSERT_EQ(parser_http_request_handler(t.r), 0);
        EXPECT_EQ(t.r->vhost, nullptr);
    }
}

TEST(HttpHeadersIn, CookieCutting)
{
    struct row {
        std::string_view value;
        std::string_view name;   // header_name_start .. header_name_end, or the whole cookie
        std::string_view cval;   // header_start .. header_end
        bool has_eq;
        std::size_t taken;
    };
    const row rows[] = {
        {"a=b; c=d", "a", "b", true, 3},
        {" \t;;a=b", "a", "b", true, 3},
        {"k=v=w;x", "k=v", "w", true, 5},  // every '=' moves the split
        {"flag;a=b", "flag", "", false, 4},
        {"=v", "", "v", true, 2},
        {";;", "", "", false, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.value));
        std::string text(row.value);
        orbs3_str_t v{text.size(), text.data()};
        orbs3_http_request_t r{};
        std::size_t taken = orbs3_http_parse_cookie(&r, &v);
        EXPECT_EQ(taken, row.taken);
        EXPECT_EQ(r.header_name_end != nullptr, row.has_eq);
        const uint8_t* name_end = r.header_name_end ? r.header_name_end : r.header_end;
        EXPECT_EQ(std::string_view(reinterpret_cast<char*>(r.header_name_start),
                                   static_cast<std::size_t>(name_end - r.header_name_start)),
                  row.name);
        if (row.has_eq) {
            EXPECT_EQ(std::string_view(reinterpret_cast<char*>(r.header_start),
                                       static_cast<std::size_t>(r.header_end - r.header_start)),
                      row.cval);
        }
    }
}

}  // namespace
