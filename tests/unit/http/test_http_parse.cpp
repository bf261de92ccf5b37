#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "feed.h"
#include "http/http_test_request.h"
#include "http/orbs3_http_parse.h"
#include "memory/orbs3_hash.h"

using namespace std::string_view_literals;
using http_test::sv;
using http_test::test_request;

namespace {

// ---- valid heads and what they parse into ----

struct valid_head {
    std::string head;
    uint32_t method;
    uint32_t version;
    std::string uri, args, exten, unparsed_uri, request_line, protocol, url;
    std::size_t headers;
};

// A GET of `target` over HTTP/1.1 to the host "h": the target as sent is the unparsed uri and part of the
// request line, the url is the host and the parsed uri.
valid_head get11(std::string target, std::string uri, std::string args = "", std::string exten = "")
{
    const std::string line = "GET " + target + " HTTP/1.1";
    return {line + "\r\nHost: h\r\n\r\n", ORBS3_HTTP_GET, 1001, uri, args, exten, target, line, "HTTP/1.1",
            "h" + uri, 1};
}

const valid_head valid_heads[] = {
    get11("/a", "/a"),
    // CR and LF ahead of the request line are skipped and are no part of it.
    {"\r\n\r\nGET /a HTTP/1.1\r\nHost: h\r\n\r\n", ORBS3_HTTP_GET, 1001, "/a", "", "", "/a", "GET /a HTTP/1.1",
     "HTTP/1.1", "h/a", 1},
    get11("/a/./b/../c", "/a/c"),
    // A dot segment is resolved only by the slash behind it.
    get11("/a/..", "/a/.."),
    get11("/a/.", "/a/."),
    get11("/a//b", "/a/b"),
    // A decoded slash acts as a slash.
    get11("/a%2F%2Fb", "/a/b"),
    get11("/a/%2e%2E/b", "/b"),
    // Decoded %, # and ? are data.
    get11("/p%25q%23r%3Fs", "/p%q#r?s"),
    get11("/%41b.TXT", "/Ab.TXT", "", "TXT"),
    // Absolute form: the path alone is the uri.
    {"GET http://host:80/p HTTP/1.1\r\nHost: h\r\n\r\n", ORBS3_HTTP_GET, 1001, "/p", "", "", "/p",
     "GET http://host:80/p HTTP/1.1", "HTTP/1.1", "h/p", 1},
    {"GET http://host HTTP/1.1\r\nHost: h\r\n\r\n", ORBS3_HTTP_GET, 1001, "/", "", "", "/", "GET http://host HTTP/1.1",
     "HTTP/1.1", "h/", 1},
    {"GET http://[::1]:9000/q HTTP/1.1\r\nHost: h\r\n\r\n", ORBS3_HTTP_GET, 1001, "/q", "", "", "/q",
     "GET http://[::1]:9000/q HTTP/1.1", "HTTP/1.1", "h/q", 1},
    // No version: HTTP/0.9 GET, no Host needed, url is the uri alone.
    {"GET /x\r\n\r\n", ORBS3_HTTP_GET, 9, "/x", "", "", "/x", "GET /x", "", "/x", 0},
    {"GET /x\n\n", ORBS3_HTTP_GET, 9, "/x", "", "", "/x", "GET /x", "", "/x", 0},
    // A space inside the URI stays.
    get11("/a b", "/a b"),
    get11("/a+b", "/a+b"),
    // Three digits per number are still accepted.
    {"GET /v HTTP/1.100\r\nHost: h\r\n\r\n", ORBS3_HTTP_GET, 1100, "/v", "", "", "/v", "GET /v HTTP/1.100",
     "HTTP/1.100", "h/v", 1},
    {"GET /v HTTP/100.1\r\nHost: h\r\n\r\n", ORBS3_HTTP_GET, 100001, "/v", "", "", "/v", "GET /v HTTP/100.1",
     "HTTP/100.1", "h/v", 1},
    {"GET /v HTTP/1.1  \r\nHost: h\r\n\r\n", ORBS3_HTTP_GET, 1001, "/v", "", "", "/v", "GET /v HTTP/1.1  ",
     "HTTP/1.1  ", "h/v", 1},
    {"PUT /b/o.tar.gz?uploads&x=1 HTTP/1.1\r\nHost: s3.example:9000\r\nContent-Length: 0\r\n\r\n", ORBS3_HTTP_PUT,
     1001, "/b/o.tar.gz", "uploads&x=1", "gz", "/b/o.tar.gz?uploads&x=1",
     "PUT /b/o.tar.gz?uploads&x=1 HTTP/1.1", "HTTP/1.1", "s3.example:9000/b/o.tar.gz", 2},
    // Fragment: cut from the path, and from the query.
    get11("/a?x#f", "/a", "x"),
    get11("/a#f", "/a"),
    get11("/d/./e.jpg?v=1", "/d/e.jpg", "v=1", "jpg"),
    get11("/.hidden", "/.hidden"),
    // A method of an allowed shape that is not in the table is no error.
    {"FOO_BAR / HTTP/1.1\r\nHost: h\r\n\r\n", ORBS3_HTTP_UNKNOWN, 1001, "/", "", "", "/", "FOO_BAR / HTTP/1.1",
     "HTTP/1.1", "h/", 1},
    {"PROPPATCH / HTTP/1.1\r\nHost: h\r\n\r\n", ORBS3_HTTP_PROPPATCH, 1001, "/", "", "", "/",
     "PROPPATCH / HTTP/1.1", "HTTP/1.1", "h/", 1},
    // HTTP/1.0 may come without Host: the url is the uri alone.
    {"POST /up HTTP/1.0\r\nUser-Agent: t\r\n\r\n", ORBS3_HTTP_POST, 1000, "/up", "", "", "/up",
     "POST /up HTTP/1.0", "HTTP/1.0", "/up", 1},
    // LF-only lines, a status line inside the head (dropped whole), values with spaces and tabs.
    {"DELETE /k HTTP/1.1\nHost: h\nHTTP/1.1 200 OK\nX-A:  v w \t  \nX-B:\n\n", ORBS3_HTTP_DELETE, 1001, "/k", "", "",
     "/k", "DELETE /k HTTP/1.1", "HTTP/1.1", "h/k", 3},
};

TEST(HttpParse, ValidHeadsGiveTheirFields)
{
    http_test::ensure_headers_hash();
    for (const auto& v : valid_heads) {
        SCOPED_TRACE(std::string(v.head));
        // The head ends right before an unreadable page, without the spare zero byte of a head buffer.
        test_request t("");
        ASSERT_NE(t.r, nullptr);
        feed::bytes in(v.head);
        orbs3_http_request_t* r = t.r;
        *r->header_in = in.buf();
        ASSERT_EQ(orbs3_check_head(in.data(), v.head.size()), v.head.size());
        ASSERT_EQ(parser_http_request_handler(r), 0);
        EXPECT_EQ(r->method, v.method);
        EXPECT_EQ(r->http_version, v.version);
        EXPECT_EQ(sv(r->uri), v.uri);
        EXPECT_EQ(sv(r->args), v.args);
        EXPECT_EQ(sv(r->exten), v.exten);
        EXPECT_EQ(sv(r->unparsed_uri), v.unparsed_uri);
        EXPECT_EQ(sv(r->request_line), v.request_line);
        EXPECT_EQ(sv(r->http_protocol), v.protocol);
        EXPECT_EQ(sv(r->url), v.url);
        EXPECT_EQ(r->url.data[r->url.len], '\0');
        EXPECT_EQ(http_test::header_count(r), v.headers);
        EXPECT_EQ(sv(r->method_name), v.request_line.substr(0, v.request_line.find(' ')));
        EXPECT_EQ(r->request_length, v.head.size());
        EXPECT_EQ(r->headers_in.connection_type,
                  v.version == 1001 ? ORBS3_HTTP_CONNECTION_KEEP_ALIVE : ORBS3_HTTP_CONNECTION_CLOSE);
    }
}

// ---- invalid request lines ----

TEST(HttpParse, InvalidRequestLinesGiveTheirCodes)
{
    struct row {
        std::string_view line;
        int code;
    };
    const row rows[] = {
        {"get / HTTP/1.1\r\n", ORBS3_PARSE_BAD_METHOD},
        {"G@T / HTTP/1.1\r\n", ORBS3_PARSE_BAD_METHOD},
        {"GET\t/ HTTP/1.1\r\n", ORBS3_PARSE_BAD_METHOD},
        {" GET / HTTP/1.1\r\n", ORBS3_PARSE_BAD_METHOD},
        {"PUT /x\r\n", ORBS3_PARSE_BAD_09_METHOD},
        {"HEAD /x\n", ORBS3_PARSE_BAD_09_METHOD},
        {"GET /a HTTP/1.1000\r\n", ORBS3_PARSE_BAD_REQUEST},
        {"GET /a HTTP/1000.1\r\n", ORBS3_PARSE_BAD_REQUEST},
        {"GET /a HTTP/0.9\r\n", ORBS3_PARSE_BAD_REQUEST},
        {"GET /a HTTP/1.\r\n", ORBS3_PARSE_BAD_REQUEST},
        {"GET /a HTTP/1\r\n", ORBS3_PARSE_BAD_REQUEST},
        {"GET /a HTTQ/1.1\r\n", ORBS3_PARSE_BAD_REQUEST},
        {"GET /a Hxyz\r\n", ORBS3_PARSE_BAD_REQUEST},
        {"GET * HTTP/1.1\r\n", ORBS3_PARSE_BAD_REQUEST},
        {"GET http:/x HTTP/1.1\r\n", ORBS3_PARSE_BAD_REQUEST},
        {"GET ht1p://x/ HTTP/1.1\r\n", ORBS3_PARSE_BAD_REQUEST},
        {"GET http://h@x/ HTTP/1.1\r\n", ORBS3_PARSE_BAD_REQUEST},
        {"GET http://[::1 HTTP/1.1\r\n", ORBS3_PARSE_BAD_REQUEST},
        {"GET http://h:8a/ HTTP/1.1\r\n", ORBS3_PARSE_BAD_REQUEST},
        {"GET /a HTTP/1.1 x\r\n", ORBS3_PARSE_BAD_REQUEST},
        {"GET /a HTTP/1.1\rX", ORBS3_PARSE_BAD_REQUEST},
        {"GET /a\0b HTTP/1.1\r\n"sv, ORBS3_PARSE_BAD_REQUEST},
        {"GET /\0 HTTP/1.1\r\n"sv, ORBS3_PARSE_BAD_REQUEST},
        {"GET /a?\0 HTTP/1.1\r\n"sv, ORBS3_PARSE_BAD_REQUEST},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.line));
        test_request t(row.line);
        ASSERT_NE(t.r, nullptr);
        EXPECT_EQ(orbs3_http_parse_request_line(t.r, t.r->header_in), row.code);
    }
}

TEST(HttpParse, HeadsThatAreRefused)
{
    http_test::ensure_headers_hash();
    const std::string_view heads[] = {
        "GET /../x HTTP/1.1\r\nHost: h\r\n\r\n",      // climbs above the root
        "GET /a/../../x HTTP/1.1\r\nHost: h\r\n\r\n",
        "GET /%2E%2E/x HTTP/1.1\r\nHost: h\r\n\r\n",
        "GET /a%00 HTTP/1.1\r\nHost: h\r\n\r\n",      // decoded NUL
        "GET /a%zz HTTP/1.1\r\nHost: h\r\n\r\n",      // not hexadecimal
        "GET /a%2 HTTP/1.1\r\nHost: h\r\n\r\n",       // escape cut short
        "GET /a%2#x HTTP/1.1\r\nHost: h\r\n\r\n",
        "GET /a HTTP/1.1\r\nUser-Agent: x\r\n\r\n",   // HTTP/1.1 without Host
        "GET /a HTTP/1.1\r\nHost: a..b\r\n\r\n",       // invalid host
        "GET /a HTTP/1.1\r\nHost: a/b\r\n\r\n",
        "GET /a HTTP/1.1\r\nHost: \r\n\r\n",
        "GET /a HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n",  // duplicate Host
        "PUT /x\r\n\r\n",                              // no version, not GET
        "get /x HTTP/1.1\r\nHost: h\r\n\r\n",
    };
    for (std::string_view head : heads) {
        SCOPED_TRACE(std::string(head));
        test_request t(head);
        ASSERT_NE(t.r, nullptr);
        EXPECT_EQ(parser_http_request_handler(t.r), -1);
    }
}

// ---- the end of the head ----

TEST(HttpParse, CheckHeadFindsTheBlankLine)
{
    struct row {
        std::string_view data;
        std::size_t length;
    };
    const row rows[] = {
        {"GET / HTTP/1.1\r\n\r\n", 18},
        {"GET / HTTP/1.1\n\n", 16},
        {"GET / HTTP/1.1\n\r\n", 17},
        {"GET / HTTP/1.1\r\nA: b\r\n\r\nbody bytes", 24},
        {"\r\n \t\r\nGET / HTTP/1.1\r\n\r\n", 24},  // leading white space counts into the length
        {"GET /\n\r\r\n\n", 10},                     // a CR not followed by LF is no blank line
        {"", 0},
        {" \r\n\t\r\n\r\n", 0},                      // white space alone is no head
        {"GET / HTTP/1.1\r\n", 0},
        {"GET / HTTP/1.1\r\nA: b\r\n\r", 0},
        {"GET / HTTP/1.1\r\nA: b\r\n", 0},
        {"GET / HTTP/1.1\r\nA: \0b\r\n\r\n"sv, 0},   // a NUL: never complete
        {"GET / HTTP/1.1\r\n\0\r\n\r\n"sv, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.data));
        // Exactly the bytes, an unreadable page behind them: the scan must not need a terminator.
        feed::bytes in(row.data);
        EXPECT_EQ(orbs3_check_head(in.data(), row.data.size()), row.length);
    }
}

// ---- reads split at every byte ----

struct header_scan {
    std::ptrdiff_t name_start, name_end, value_start, value_end;
    uint64_t hash;
    uint64_t lowcase_index;
    std::array<uint8_t, ORBS3_LOWCASE_HEADER_LEN> lowcase;
    bool operator==(const header_scan&) const = default;
};

struct head_scan {
    int line_rc = 0;
    int end_rc = 0;
    uint32_t method = 0, version = 0;
    std::vector<std::ptrdiff_t> marks;
    bool complex = false, quoted = false;
    std::vector<header_scan> headers;
    std::string uri, args, exten, unparsed;
    std::ptrdiff_t consumed = 0;
    bool operator==(const head_scan&) const = default;
};

// Runs the machines the way a reader that gets the head in two reads would, the first of `cut` bytes
// ending right before an unreadable page. A -2 must have consumed every byte offered, and no head is
// complete before its last byte.
head_scan scan_in_two_reads(std::string_view head, std::size_t cut)
{
    head_scan s;
    test_request t("");
    EXPECT_NE(t.r, nullptr);
    if (t.r == nullptr)
        return s;
    feed::bytes in(head, cut);
    orbs3_http_request_t* r = t.r;
    orbs3_buf_t* b = r->header_in;
    *b = in.buf();
    EXPECT_EQ(orbs3_check_head(in.data(), cut), cut == head.size() ? cut : 0u);

    auto more = [&]() {
        EXPECT_EQ(b->pos, b->last) << "-2 left bytes unread";
        return in.next_read(b);
    };

    for (;;) {
        s.line_rc = orbs3_http_parse_request_line(r, b);
        if (s.line_rc != ORBS3_AGAIN || !more())
            break;
    }
    if (s.line_rc != ORBS3_OK)
        return s;

    auto off = [&](const uint8_t* p) { return p ? p - b->start : -1; };
    for (;;) {
        int rc = orbs3_http_parse_header_line(r, b, 1);
        if (rc == ORBS3_AGAIN) {
            if (!more()) {
                s.end_rc = rc;
                break;
            }
            continue;
        }
        if (rc != ORBS3_OK) {
            s.end_rc = rc;
            break;
        }
        header_scan h{off(r->header_name_start), off(r->header_name_end), off(r->header_start), off(r->header_end),
                      r->header_hash, r->lowcase_index, {}};
        std::memcpy(h.lowcase.data(), r->lowcase_header, h.lowcase.size());
        s.headers.push_back(h);
    }
    s.consumed = b->pos - b->start;

    s.method = r->method;
    s.version = r->http_version;
    s.marks = {off(r->request_start), off(r->request_end), off(r->method_end), off(r->schema_start),
               off(r->schema_end), off(r->host_start), off(r->host_end), off(r->port_end), off(r->uri_start),
               off(r->uri_end), off(r->uri_ext), off(r->args_start), off(reinterpret_cast<uint8_t*>(r->http_protocol.data))};
    s.complex = r->complex_uri;
    s.quoted = r->quoted_uri;
    EXPECT_EQ(orbs3_http_process_request_uri(r), 0);
    s.uri = sv(r->uri);
    s.args = sv(r->args);
    s.exten = sv(r->exten);
    s.unparsed = sv(r->unparsed_uri);
    return s;
}

TEST(HttpParse, HeadSplitAtEveryByteParsesAsInOneReadAndNeverReadsPastARead)
{
    std::vector<std::string_view> heads;
    for (const auto& v : valid_heads)
        heads.push_back(v.head);
    // Long names that wrap around lowcase_header, and a bad line that ends the head early.
    heads.push_back("GET / HTTP/1.1\r\nX-A-Very-Long-Header-Name-Of-Forty-Bytes: v\r\nHost: h\r\n\r\n");
    heads.push_back("GET / HTTP/1.1\r\nHost: h\r\nBad\rX\r\nA: b\r\n\r\n");

    for (std::string_view head : heads) {
        SCOPED_TRACE(std::string(head));
        const head_scan whole = scan_in_two_reads(head, head.size());
        ASSERT_EQ(whole.line_rc, ORBS3_OK);
        ASSERT_TRUE(whole.end_rc == ORBS3_PARSE_DONE || whole.end_rc == ORBS3_PARSE_BAD_HEADER);
        feed::every_split(head, [&](std::size_t cut) { EXPECT_TRUE(scan_in_two_reads(head, cut) == whole); });
    }
}

// ---- header lines ----

TEST(HttpParse, LongHeaderNamesAreLowerCasedWhole)
{
    http_test::ensure_headers_hash();
    // Around and beyond the 32-byte ring of lowcase_header, in mixed case.
    for (std::size_t len : {31u, 32u, 33u, 40u, 64u}) {
        std::string name = "X-";
        while (name.size() < len)
            name += "AbC-dEf9"[name.size() % 8];
        SCOPED_TRACE(name);
        ASSERT_EQ(name.size(), len);
        std::string head = "GET / HTTP/1.1\r\nHost: h\r\n" + name + ": v\r\n\r\n";
        test_request t(head);
        ASSERT_NE(t.r, nullptr);
        ASSERT_EQ(parser_http_request_handler(t.r), 0);
        ASSERT_EQ(http_test::header_count(t.r), 2u);
        std::string lower(name);
        for (char& c : lower)
            c = static_cast<char>(lowcase[static_cast<uint8_t>(c)]);
        int seen = 0;
        http_test::for_each_header(t.r, [&](const orbs3_header_t& h) {
            if (sv(h.key) != name)
                return;
            seen++;
            EXPECT_EQ(std::string_view(h.lowcase_key, h.key.len), lower);
            EXPECT_EQ(h.hash, orbs3_hash_key_lc(name.data(), name.size()));
            EXPECT_EQ(sv(h.value), "v");
        });
        EXPECT_EQ(seen, 1);
    }
}

TEST(HttpParse, HeaderLinesGiveNamesAndTrimmedValues)
{
    http_test::ensure_headers_hash();
    const std::string head =
        "GET / HTTP/1.1\r\n"
        "Host: h\r\n"
        "X-Spaces:   inner  words   \r\n"
        "X-Tab: \ta\t\r\n"
        "X-Tight:v\r\n"
        "X-Empty:\r\n"
        "X-Colonless\r\n"
        "X_Under: u\r\n"
        "HTTP/1.1 200 OK\r\n"
        "H\xC3\xB6st: odd\r\n"
        "\r\n";
    test_request t(head);
    ASSERT_NE(t.r, nullptr);
    ASSERT_EQ(parser_http_request_handler(t.r), 0);

    struct expect_row {
        std::string_view key, value, lower;
    };
    const expect_row want[] = {
        {"Host", "h", "host"},
        {"X-Spaces", "inner  words", "x-spaces"},
        {"X-Tab", "\ta\t", "x-tab"},
        {"X-Tight", "v", "x-tight"},
        {"X-Empty", "", "x-empty"},
        {"X-Colonless", "", "x-colonless"},
        {"X_Under", "u", "x_under"},
        {"H\xC3\xB6st", "odd", "h\xC3\xB6st"},  // outside lowcase: a header all the same
    };
    std::vector<const orbs3_header_t*> got;
    http_test::for_each_header(t.r, [&](const orbs3_header_t& h) { got.push_back(&h); });
    ASSERT_EQ(got.size(), std::size(want));
    for (std::size_t i = 0; i < got.size(); i++) {
        SCOPED_TRACE(i);
        EXPECT_EQ(sv(got[i]->key), want[i].key);
        EXPECT_EQ(sv(got[i]->value), want[i].value);
        EXPECT_EQ(std::string_view(got[i]->lowcase_key, got[i]->key.len), want[i].lower);
        // Both ends are NUL-terminated in place.
        EXPECT_EQ(got[i]->key.data[got[i]->key.len], '\0');
        EXPECT_EQ(got[i]->value.data[got[i]->value.len], '\0');
    }
    // The odd name misses the Host row: a second Host would have dropped the request.
    EXPECT_EQ(t.r->headers_in.host, got[0]);
}

TEST(HttpParse, BadHeaderLineEndsTheHeadAndEarlierHeadersStand)
{
    http_test::ensure_headers_hash();
    struct row {
        std::string_view head;
        std::size_t headers;
        unsigned connection_type;
    };
    const row rows[] = {
        // A NUL in a line ends the head: the line and all behind it are lost.
        {"GET / HTTP/1.1\r\nHost: h\r\nConnection: close\r\nA: x\0y\r\nB: z\r\n\r\n"sv, 2,
         ORBS3_HTTP_CONNECTION_CLOSE},
        {"GET / HTTP/1.1\r\nHost: h\r\nA\0: y\r\nB: z\r\n\r\n"sv, 1, ORBS3_HTTP_CONNECTION_KEEP_ALIVE},
        {"GET / HTTP/1.1\r\nHost: h\r\n\0\r\n\r\n"sv, 1, ORBS3_HTTP_CONNECTION_KEEP_ALIVE},
        // A malformed line end, after Connection: close, which still counts.
        {"GET / HTTP/1.1\r\nHost: h\r\nConnection: close\r\nBad\rX\r\nC: d\r\n\r\n", 2,
         ORBS3_HTTP_CONNECTION_CLOSE},
        {"GET / HTTP/1.1\r\nHost: h\r\n\rX\r\n\r\n", 1, ORBS3_HTTP_CONNECTION_KEEP_ALIVE},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.head));
        test_request t(row.head);
        ASSERT_NE(t.r, nullptr);
        ASSERT_EQ(parser_http_request_handler(t.r), 0);
        EXPECT_EQ(http_test::header_count(t.r), row.headers);
        EXPECT_EQ(t.r->headers_in.connection_type, row.connection_type);
        ASSERT_NE(t.r->headers_in.host, nullptr);
    }
}

TEST(HttpParse, HeaderMachineResultsPerLine)
{
    struct row {
        std::string_view line;
        int code;
    };
    const row rows[] = {
        {"A: b\r\n", ORBS3_OK},      {"A: b\n", ORBS3_OK},         {"\r\n", ORBS3_PARSE_DONE},
        {"\n", ORBS3_PARSE_DONE},    {"\rX", ORBS3_PARSE_BAD_HEADER}, {"A: b\rX", ORBS3_PARSE_BAD_HEADER},
        {"A: b\r\r\n", ORBS3_OK},    {"\0"sv, ORBS3_PARSE_BAD_HEADER}, {"A\0"sv, ORBS3_PARSE_BAD_HEADER},
        {"A:\0"sv, ORBS3_PARSE_BAD_HEADER}, {"A: b\0"sv, ORBS3_PARSE_BAD_HEADER},
        {"A: b \0"sv, ORBS3_PARSE_BAD_HEADER}, {"A: b", ORBS3_AGAIN},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.line));
        test_request t(row.line);
        ASSERT_NE(t.r, nullptr);
        EXPECT_EQ(orbs3_http_parse_header_line(t.r, t.r->header_in, 1), row.code);
    }
}

// ---- bounds ----

TEST(HttpParse, UrlLongerThanUrlBufDropsTheRequest)
{
    http_test::ensure_headers_hash();
    // Host "hhhhhhhhh" (9) and uri "/a/b/c" (6): 15 bytes and the terminating zero.
    const std::string_view head = "GET /a/b/c HTTP/1.1\r\nHost: hhhhhhhhh\r\n\r\n";
    struct row {
        std::size_t space;
        int rc;
    };
    for (const row& row : {row{16, 0}, row{15, -1}, row{8, -1}, row{0, -1}}) {
        SCOPED_TRACE(row.space);
        test_request t(head, row.space);
        ASSERT_NE(t.r, nullptr);
        EXPECT_EQ(parser_http_request_handler(t.r), row.rc);
        if (row.rc == 0) {
            EXPECT_EQ(sv(t.r->url), "hhhhhhhhh/a/b/c");
        }
    }
}

// ---- the URI helpers ----

TEST(HttpParse, ComplexUriWithoutMergeKeepsDoubleSlashes)
{
    struct row {
        std::string_view path;
        unsigned merge;
        int rc;
        std::string_view uri;
    };
    const row rows[] = {
        {"/a//b", 1, 0, "/a/b"},
        {"/a//b", 0, 0, "/a//b"},
        {"/a/b/./../c", 1, 0, "/a/c"},
        {"/a/...", 1, 0, "/a/..."},
        {"/a/..b/", 1, 0, "/a/..b/"},
        {"/a/b/c/../../d", 1, 0, "/a/d"},
        {"/..", 1, 0, "/.."},
        {"/../", 1, ORBS3_PARSE_BAD_REQUEST, ""},
        {"/a%2f..%2F..%2fb", 1, ORBS3_PARSE_BAD_REQUEST, ""},
        {"/%", 1, ORBS3_PARSE_BAD_REQUEST, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.path));
        std::string in(row.path);
        std::string out(in.size() + 1, '\0');
        orbs3_http_request_t r{};
        r.uri_start = reinterpret_cast<uint8_t*>(in.data());
        r.uri_end = r.uri_start + in.size();
        r.uri.data = out.data();
        r.uri.len = in.size();
        ASSERT_EQ(orbs3_http_parse_complex_uri(&r, row.merge), row.rc);
        if (row.rc == 0) {
            EXPECT_EQ(sv(r.uri), row.uri);
        }
    }
}

// ---- case-insensitive helpers ----

TEST(HttpParse, CaseInsensitiveSearchHelpers)
{
    EXPECT_EQ(orbs3_strncasecmp("Keep-Alive", "keep-alive", 10), 0);
    EXPECT_LT(orbs3_strncasecmp("abc", "abd", 3), 0);
    EXPECT_EQ(orbs3_strncasecmp("abX", "ABy", 2), 0);
    EXPECT_NE(orbs3_strncasecmp("ab", "abc", 3), 0);  // stops at the NUL of s1, unequal

    struct row {
        std::string_view hay, needle;
        std::ptrdiff_t at;  // -1: absent
    };
    const row rows[] = {
        {"Keep-Alive, Close", "close", 12}, {"CLOSE", "close", 0}, {"clos", "close", -1},
        {"xxcloseyy", "close", 2},          {"cclose", "close", 1}, {"", "close", -1},
        {"chunked", "chunked", 0},          {"gzip, CHUNKED", "chunked", 6},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.hay) + " / " + std::string(row.needle));
        std::string hay(row.hay);
        std::string needle(row.needle);
        const char* b = orbs3_strlcasestrn(hay.data(), hay.data() + hay.size(), needle.c_str(), needle.size() - 1);
        EXPECT_EQ(b ? b - hay.data() : -1, row.at);
    }
    // The bounded search never looks at or behind end, even with matching bytes there.
    const char text[] = "xxclosexx";
    EXPECT_EQ(orbs3_strlcasestrn(text, text + 6, "close", 4), nullptr);
    EXPECT_EQ(orbs3_strlcasestrn(text, text + 7, "close", 4), text + 2);
}

}  // namespace
