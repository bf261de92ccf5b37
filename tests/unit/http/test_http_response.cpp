// Reply writer: the bytes of every template, the error pages, the date texts, the bounds of the fixed
// head areas, and replies that outgrow the socket buffer, over a socketpair.
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/orbs3_config.h"
#include "event/orbs3_epoll.h"
#include "event/orbs3_fd.h"
#include "event/orbs3_socket.h"
#include "http/orbs3_http_request.h"
#include "http/orbs3_http_response.h"
#include "http_test_request.h"
#include "socketpair_connection.h"

namespace {

// Wed, 1 Jul 2026 12:00:00 GMT
constexpr time_t kNoon1July2026 = 1782907200;
const std::string kDate = "Wed, 1 jul 2026 12:00:00 GMT";
const std::string kOrigin = "http://app.example.org";

time_t fixed_clock()
{
    return kNoon1July2026;
}

// The ACAO line when an origin is given.
std::string acao(const std::string& origin)
{
    return origin.empty() ? "" : "Access-Control-Allow-Origin:" + origin + "\r\n";
}

class Response : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (orbs3_cycle == nullptr) {
            ASSERT_EQ(orbs3_init_cycle(), 0);
        }
        orbs3_http_clock = fixed_clock;
        conn_ = std::make_unique<unit_test::socketpair_connection>(true, sysconfig.conn_pool_size);
        c_ = conn_->c;
        ASSERT_NE(c_, nullptr);
    }
    void TearDown() override { orbs3_http_clock = saved_clock_; }

    std::string drain() { return conn_->drain(); }

    orbs3_http_clock_pt saved_clock_ = orbs3_http_clock;
    std::unique_ptr<unit_test::socketpair_connection> conn_;
    orbs3_connection_t* c_ = nullptr;
};

struct template_case {
    const char* name;
    std::function<int(orbs3_connection_t*, const char* origin)> send;
    std::function<std::string(const std::string& origin)> want;
};

const std::string kXml = "<?xml version=\"1.0\"?><R>x</R>";
const std::string kXmlLen = std::to_string(kXml.size());

std::string head_a(const std::string& o)
{
    return "HTTP/1.1 200 OK\r\nDate: " + kDate + "\r\nConnection: keep-alive\r\nContent-Length:0\r\n" + acao(o) +
           "Server: KELVANE\r\n\r\n";
}
std::string head_b(const std::string& o)
{
    return "HTTP/1.1 200 OK\r\nDate: " + kDate + "\r\nConnection: keep-alive\r\nContent-Length:" + kXmlLen +
           "\r\n" + acao(o) + "Server: KELVANE\r\nContent-Type: text/xml\r\n\r\n" + kXml;
}
std::string head_etag(const char* tag_line, const std::string& o, const std::string& extra = "")
{
    return "HTTP/1.1 200 OK\r\nDate: " + kDate + "\r\n" + tag_line +
           ": 9e107d9d372bb6826bd81d3542a419d6\r\nConnection: keep-alive\r\nContent-Length:0\r\n" + acao(o) +
           "Server: KELVANE\r\n" + (extra.empty() ? "" : extra + "\r\n") + "\r\n";
}

std::vector<template_case> all_templates()
{
    using no_doc = int (*)(orbs3_connection_t*, uint32_t, const char*, const char*);
    using doc = int (*)(orbs3_connection_t*, uint32_t, const char*, const char*, const char*);
    std::vector<template_case> cases;
    const std::pair<const char*, no_doc> a_members[] = {
        {"put_bucket_acl", orbs3_http_send_put_bucket_acl_msg},
        {"put_bucket_rename", orbs3_http_send_put_bucket_rename_msg},
        {"del_object", orbs3_http_send_del_object_msg},
        {"abort_mulitipart_object", orbs3_http_send_abort_mulitipart_object_msg},
    };
    for (const auto& m : a_members)
        cases.push_back({m.first, [f = m.second](orbs3_connection_t* c, const char* o) { return f(c, 200, "keep-alive", o); },
                         head_a});
    const std::pair<const char*, doc> b_members[] = {
        {"get_bucket_acl", orbs3_http_send_get_bucket_acl_msg},
        {"del_objects", orbs3_http_send_del_objects_msg},
        {"create_mulitipart_object", orbs3_http_send_create_mulitipart_object_msg},
        {"list_objects", orbs3_http_send_list_objects_msg},
    };
    for (const auto& m : b_members)
        cases.push_back(
            {m.first, [f = m.second](orbs3_connection_t* c, const char* o) { return f(c, 200, kXml.c_str(), "keep-alive", o); },
             head_b});
    cases.push_back({"put_object",
                     [](orbs3_connection_t* c, const char* o) {
                         return orbs3_http_send_put_object_msg(c, 200, "9e107d9d372bb6826bd81d3542a419d6",
                                                               "keep-alive", o);
                     },
                     [](const std::string& o) { return head_etag("Etag", o); }});
    // A write that verified a checksum gives it back on a line of its own at the end.
    cases.push_back({"put_object_checksum",
                     [](orbs3_connection_t* c, const char* o) {
                         return orbs3_http_send_put_object_msg(c, 200, "9e107d9d372bb6826bd81d3542a419d6",
                                                               "keep-alive", o, "x-amz-checksum-crc32: yZRlqg==");
                     },
                     [](const std::string& o) { return head_etag("Etag", o, "x-amz-checksum-crc32: yZRlqg=="); }});
    using etag_msg = int (*)(orbs3_connection_t*, uint32_t, const char*, const char*, const char*, const char*);
    const std::pair<const char*, etag_msg> d_members[] = {
        {"append_object", orbs3_http_send_append_object_msg},
        {"upload_part_object", orbs3_http_send_upload_part_object_msg},
    };
    for (const auto& m : d_members)
        cases.push_back({m.first,
                         [f = m.second](orbs3_connection_t* c, const char* o) {
                             return f(c, 200, "9e107d9d372bb6826bd81d3542a419d6", "keep-alive", o, nullptr);
                         },
                         [](const std::string& o) { return head_etag("ETag", o); }});
    cases.push_back({"put_bucket",
                     [](orbs3_connection_t* c, const char* o) {
                         return orbs3_http_send_put_bucket_msg(c, 200, "photos", "close", o);
                     },
                     [](const std::string& o) {
                         return "HTTP/1.1 200 OK\r\nDate: " + kDate +
                                "\r\nLocation:/photos\r\nContent-Length:0\r\nConnection: close\r\n" + acao(o) +
                                "Server: KELVANE\r\n\r\n";
                     }});
    // A delete on a bucket with versions: the del_object lines, its version lines at the end; none, and
    // it is del_object's reply byte for byte.
    cases.push_back({"del_object_version",
                     [](orbs3_connection_t* c, const char* o) {
                         return orbs3_http_send_del_object_version_msg(
                             c, 200, "keep-alive", o, "x-amz-delete-marker: true\r\nx-amz-version-id: v1");
                     },
                     [](const std::string& o) {
                         std::string head = head_a(o);
                         return head.insert(head.size() - 2, "x-amz-delete-marker: true\r\nx-amz-version-id: v1\r\n");
                     }});
    cases.push_back({"del_object_version_plain",
                     [](orbs3_connection_t* c, const char* o) {
                         return orbs3_http_send_del_object_version_msg(c, 200, "keep-alive", o, nullptr);
                     },
                     head_a});
    cases.push_back({"del_bucket",
                     [](orbs3_connection_t* c, const char* o) {
                         return orbs3_http_send_del_bucket_msg(c, 204, "keep-alive", o);
                     },
                     [](const std::string& o) {
                         return "HTTP/1.1 204 No Content\r\nDate: " + kDate + "\r\nContent-Length:0\r\n" + acao(o) +
                                "Connection: keep-alive\r\nServer: KELVANE\r\n\r\n";
                     }});
    cases.push_back({"msg",
                     [](orbs3_connection_t* c, const char* o) {
                         return orbs3_http_send_msg(c, 404, kXml.c_str(), "close", o);
                     },
                     [](const std::string& o) {
                         return "HTTP/1.1 404 Not Found\r\nDate: " + kDate + "\r\nContent-Length:" + kXmlLen +
                                "\r\nConnection: close\r\n" + acao(o) +
                                "Server: KELVANE 1.0\r\nContent-Type: text/xml\r\n\r\n" + kXml;
                     }});
    cases.push_back({"error",
                     [](orbs3_connection_t* c, const char* o) {
                         return orbs3_http_send_error_msg(c, 404, "0123456789abcdef0123456789abcdef", kXml.c_str(),
                                                          "close", o);
                     },
                     [](const std::string& o) {
                         return "HTTP/1.1 404 Not Found\r\nDate: " + kDate + "\r\nContent-Length:" + kXmlLen +
                                "\r\nConnection: close\r\n" + acao(o) +
                                "Server: KELVANE 1.0\r\nx-amz-request-id: 0123456789abcdef0123456789abcdef\r\n"
                                "Content-Type: text/xml\r\n\r\n" + kXml;
                     }});
    cases.push_back({"list_buckets",
                     [](orbs3_connection_t* c, const char* o) {
                         return orbs3_http_send_list_buckets_msg(c, 200, "17A1B2C3D4E5F607", kXml.c_str(),
                                                                 "keep-alive", o);
                     },
                     [](const std::string& o) {
                         return "HTTP/1.1 200 OK\r\nDate: " + kDate + "\r\nConnection: keep-alive\r\nContent-Length:" +
                                kXmlLen + "\r\n" + acao(o) +
                                "Accept-Ranges: bytes\r\ncontent-Security-Policy: block-all-mixed-content\r\n"
                                "Server: KELVANE\r\nVary: Origin\r\nX-Amz-Request-Id: 17A1B2C3D4E5F607\r\n"
                                "X-Xss-Protection: 1;mode=block\r\nContent-Type: application/xml\r\n\r\n" +
                                kXml;
                     }});
    // One form only: the origin line stays even when the origin is empty.
    cases.push_back({"options",
                     [](orbs3_connection_t* c, const char* o) {
                         return orbs3_http_send_options_msg(c, 200, "keep-alive", o, "content-type,x-amz-date");
                     },
                     [](const std::string& o) {
                         return "HTTP/1.1 200 OK\r\nDate: " + kDate +
                                "\r\nConnection: keep-alive\r\nContent-Length:0\r\nAccess-Control-Allow-Origin:" + o +
                                "\r\nAccess-Control-Allow-Methods:POST, GET, PUT, HEAD, DELETE, OPTIONS\r\n"
                                "Access-Control-Allow-Headers: content-type,x-amz-date\r\nServer: KELVANE\r\n\r\n";
                     }});
    return cases;
}

TEST_F(Response, EveryTemplateIsByteExactWithAndWithoutOrigin)
{
    for (const template_case& t : all_templates()) {
        for (const std::string& origin : {std::string(), kOrigin}) {
            SCOPED_TRACE(std::string(t.name) + (origin.empty() ? " without origin" : " with origin"));
            EXPECT_EQ(t.send(c_, origin.c_str()), 0);
            EXPECT_EQ(drain(), t.want(origin));
            EXPECT_EQ(orbs3_http_send_pending(c_), 0u);
        }
    }
}

TEST_F(Response, NullOriginAndConnectionReadAsEmpty)
{
    ASSERT_EQ(orbs3_http_send_del_object_msg(c_, 200, nullptr, nullptr), 0);
    EXPECT_EQ(drain(), "HTTP/1.1 200 OK\r\nDate: " + kDate +
                           "\r\nConnection: \r\nContent-Length:0\r\nServer: KELVANE\r\n\r\n");
}

// One code of each page form: none for 200 and 204, the maintenance page of 303, the 400 page with its
// reason for 494 to 497, the plain page otherwise; the last row of the table is found too.
TEST_F(Response, ErrorPageOfEachFormAndTheStatusLineOfEveryReply)
{
    const std::vector<std::pair<uint32_t, std::string>> table = {
        {200, "OK"}, {204, "No Content"}, {303, "Request Redirect"}, {404, "Not Found"},
        {494, "Request Header Or Cookie Too Large"}, {497, "The plain HTTP request was sent to HTTPS port"},
        {507, "Insufficient Storage"},
    };
    for (const auto& [code, reason] : table) {
        SCOPED_TRACE(code);
        std::string n = std::to_string(code);
        std::string page;
        if (code == 303) {
            page = "<html>\r\n<head><title>303 Request Redirect</title></head>\r\n<body bgcolor=\"white\">\r\n"
                   "<center><h1>Server is being maintained. Please wait.</h1></center>\r\n";
        } else if (code >= 494 && code <= 497) {
            page = "<html>\r\n<head><title>400 " + reason + "</title></head>\r\n<body bgcolor=\"white\">\r\n"
                   "<center><h1>400 Bad Request</h1></center>\r\n<center>" + reason + "</center>\r\n";
        } else if (code != 200 && code != 204) {
            page = "<html>\r\n<head><title>" + n + " " + reason + "</title></head>\r\n<body bgcolor=\"white\">\r\n"
                   "<center><h1>" + n + " " + reason + "</h1></center>\r\n";
        }
        ASSERT_EQ(orbs3_http_send_error_page(c_, code), 0);
        EXPECT_EQ(drain(), "HTTP/1.1 " + n + " " + reason + "\r\nServer: KELVANE 1.0\r\nConnection: close\r\n\r\n" + page);
        // Every reply shows the table's code and reason, 494 to 497 included.
        ASSERT_EQ(orbs3_http_send_del_object_msg(c_, code, "close", ""), 0);
        const std::string status_line = "HTTP/1.1 " + n + " " + reason + "\r\n";
        EXPECT_EQ(drain().substr(0, status_line.size()), status_line);
    }
}

TEST_F(Response, StatusOutsideTheTableSendsAnEmptyHead)
{
    for (uint32_t code : {0u, 100u, 299u, 418u, 599u}) {
        SCOPED_TRACE(code);
        EXPECT_EQ(orbs3_http_find_status(code), nullptr);
        EXPECT_EQ(orbs3_http_send_error_page(c_, code), 0);
        EXPECT_EQ(drain(), "") << "no page";
        EXPECT_EQ(orbs3_http_send_put_bucket_acl_msg(c_, code, "keep-alive", kOrigin.c_str()), 0);
        EXPECT_EQ(drain(), "") << "no head and no document";
        EXPECT_EQ(orbs3_http_send_msg(c_, code, kXml.c_str(), "keep-alive", ""), 0);
        EXPECT_EQ(drain(), kXml) << "the document alone";
    }
}

TEST_F(Response, NullArgumentsAreRefusedAndNullConnectionSendsNothing)
{
    EXPECT_EQ(orbs3_http_send_response_data(c_, nullptr), -1);
    EXPECT_EQ(orbs3_http_send_msg(c_, 200, nullptr, "close", ""), -1);
    EXPECT_EQ(orbs3_http_send_response_data(nullptr, "x"), 0);
    EXPECT_EQ(orbs3_http_send_msg(nullptr, 200, "<a/>", "close", ""), 0);
    EXPECT_EQ(orbs3_http_send_error_page(nullptr, 404), 0);
    EXPECT_EQ(drain(), "");
}

// The head area holds 1023 bytes of text: a head of exactly that size leaves whole, one byte more is
// refused and nothing at all goes out.
TEST_F(Response, HeadBeyondTheFixedAreaIsRefusedNotCut)
{
    const std::size_t base = head_a("x").size() - 1;
    const std::string fits(1023 - base, 'o');
    ASSERT_EQ(orbs3_http_send_del_object_msg(c_, 200, "keep-alive", fits.c_str()), 0);
    std::string got = drain();
    EXPECT_EQ(got.size(), 1023u);
    EXPECT_EQ(got, head_a(fits));

    const std::string over(fits.size() + 1, 'o');
    EXPECT_EQ(orbs3_http_send_del_object_msg(c_, 200, "keep-alive", over.c_str()), -1);
    EXPECT_EQ(orbs3_http_send_msg(c_, 200, kXml.c_str(), std::string(1100, 'k').c_str(), ""), -1)
        << "a long connection word counts as well; the document does not";
    EXPECT_EQ(drain(), "");
    EXPECT_EQ(orbs3_http_send_pending(c_), 0u);

    // The document itself is not bounded by the head area.
    const std::string big_doc(5000, 'd');
    ASSERT_EQ(orbs3_http_send_msg(c_, 200, big_doc.c_str(), "close", ""), 0);
    std::string reply = drain();
    EXPECT_NE(reply.find("Content-Length:5000\r\n"), std::string::npos);
    EXPECT_EQ(reply.substr(reply.size() - 5000), big_doc);
}

int g_read_handler_calls = 0;
void count_read_handler(orbs3_event_t*)
{
    g_read_handler_calls++;
}

// The socket never blocks: a reply far beyond the socket buffer returns at once, the rest waits in the
// connection and leaves on write events while the peer reads in small pieces; replies queued behind it
// keep their order, and when all is out the read handler runs once.
TEST_F(Response, ReplyLargerThanTheSocketBufferCompletesAcrossWriteEvents)
{
    orbs3_fd ep(orbs3_create_epfd(16));
    ASSERT_TRUE(ep.valid());
    c_->epfd = ep.get();
    c_->read->handler = count_read_handler;
    g_read_handler_calls = 0;
    int small = 4096;
    setsockopt(c_->fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);

    std::string body(1 << 20, 'x');
    for (std::size_t i = 0; i < body.size(); i += 97)
        body[i] = static_cast<char>('a' + (i / 97) % 26);
    auto t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(orbs3_http_send_msg(c_, 200, body.c_str(), "keep-alive", ""), 0);
    ASSERT_EQ(orbs3_http_send_del_object_msg(c_, 204, "keep-alive", ""), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(400));
    EXPECT_GT(orbs3_http_send_pending(c_), 0u);
    ASSERT_EQ(orbs3_http_send_wait(c_), -2);
    EXPECT_EQ(c_->write->handler, orbs3_http_send_response_data_again);

    std::string want = "HTTP/1.1 200 OK\r\nDate: " + kDate + "\r\nContent-Length:" + std::to_string(body.size()) +
                       "\r\nConnection: keep-alive\r\nServer: KELVANE 1.0\r\nContent-Type: text/xml\r\n\r\n" + body +
                       "HTTP/1.1 204 No Content\r\nDate: " + kDate +
                       "\r\nConnection: keep-alive\r\nContent-Length:0\r\nServer: KELVANE\r\n\r\n";
    std::string got;
    int passes = 0;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (got.size() < want.size() && std::chrono::steady_clock::now() < deadline) {
        char piece[3000];
        ssize_t n;
        while ((n = read(conn_->peer.get(), piece, sizeof piece)) > 0)
            got.append(piece, static_cast<std::size_t>(n));
        (void)orbs3_epoll_events_manage(ep.get());
        passes++;
    }
    EXPECT_GT(passes, 10) << "the reply took many write events";
    ASSERT_EQ(got.size(), want.size());
    EXPECT_TRUE(got == want) << "bytes differ";
    EXPECT_EQ(orbs3_http_send_pending(c_), 0u);
    EXPECT_EQ(g_read_handler_calls, 1);
    EXPECT_EQ(c_->write->handler, orbs3_http_events_empty);
    EXPECT_EQ(orbs3_http_send_wait(c_), 0) << "nothing left to wait for";
}

TEST_F(Response, PendingOutputBeyondItsBoundIsRefused)
{
    int small = 4096;
    setsockopt(c_->fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    const std::string chunk(1 << 20, 'z');
    int accepted = 0;
    while (accepted < 64 && orbs3_http_send_response_data(c_, chunk.c_str()) == 0)
        accepted++;
    ASSERT_LT(accepted, 64) << "the queue never refused";
    EXPECT_GE(accepted, 15);
    std::size_t held = orbs3_http_send_pending(c_);
    EXPECT_LE(held, ORBS3_HTTP_SEND_PENDING_MAX);
    EXPECT_GT(held + chunk.size(), ORBS3_HTTP_SEND_PENDING_MAX);
    EXPECT_EQ(orbs3_http_send_response_data(c_, "small"), 0) << "what still fits is taken";
    EXPECT_EQ(orbs3_http_send_pending(c_), held + 5);
}

TEST_F(Response, SendErrorIsReportedAndNothingIsKept)
{
    conn_->peer.reset();
    signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(orbs3_http_send_del_object_msg(c_, 200, "close", ""), -1);
    EXPECT_EQ(orbs3_http_send_pending(c_), 0u);
}

TEST(ResponseDates, DateTextsAreGmtWithUnpaddedDayAndTheMonthNamesClientsKnow)
{
    char buf[ORBS3_HTTP_DATE_LEN];
    orbs3_http_format_gmt(kNoon1July2026, buf, sizeof buf);
    EXPECT_STREQ(buf, "Wed, 1 jul 2026 12:00:00 GMT");
    orbs3_http_format_gmt(1790798709, buf, sizeof buf);  // 30 Sep 2026 20:05:09
    EXPECT_STREQ(buf, "Wed, 30 Sept 2026 20:05:09 GMT");

    orbs3_http_clock_pt saved = orbs3_http_clock;
    orbs3_http_clock = [] { return static_cast<time_t>(1790798709); };
    get_gmt_time(buf, sizeof buf);
    EXPECT_STREQ(buf, "Wed, 30 Sept 2026 20:05:09 GMT");
    get_gmt_meta_time(buf, sizeof buf);
    EXPECT_STREQ(buf, "2026-09-30T20:05:09.000Z");
    orbs3_http_clock = saved;
}

TEST_F(Response, ListBasedHeadCarriesStatusConnectionAndHeadersInOrder)
{
    http_test::test_request tr("");
    ASSERT_NE(tr.r, nullptr);
    orbs3_http_request_t* r = tr.r;
    r->connection = c_;
    static char status[] = "206 Partial Content";
    r->headers_out.status_line = {sizeof status - 1, status};
    r->headers_in.connection_type = ORBS3_HTTP_CONNECTION_KEEP_ALIVE;
    std::string want_headers;
    // More than one part of 20 records.
    for (int i = 0; i < 25; i++) {
        std::string name = "X-H" + std::to_string(i);
        std::string value = "v" + std::to_string(i);
        ASSERT_EQ(orbs3_http_set_response_headers(r, name.c_str(), value.c_str()), 0);
        if (i != 7)
            want_headers += name + ": " + value + "\r\n";
    }
    // A record whose name was emptied is left out.
    auto* part = &r->headers_out.headers.part;
    static_cast<orbs3_header_t*>(part->elts)[7].key.len = 0;
    ASSERT_EQ(orbs3_http_send_headers(r), 0);
    EXPECT_EQ(drain(), "HTTP/1.1 206 Partial Content\r\nConnection: Keep-alive\r\n" + want_headers + "\r\n");

    r->headers_in.connection_type = ORBS3_HTTP_CONNECTION_CLOSE;
    ASSERT_EQ(orbs3_http_send_headers(r), 0);
    EXPECT_EQ(drain(), "HTTP/1.1 206 Partial Content\r\nConnection: close\r\n" + want_headers + "\r\n");

    std::string long_value(ORBS3_HTTP_HEADERS_LEN, 'v');
    ASSERT_EQ(orbs3_http_set_response_headers(r, "X-Long", long_value.c_str()), 0);
    EXPECT_EQ(orbs3_http_send_headers(r), -1);
    EXPECT_EQ(drain(), "") << "a head that does not fit is not cut";
    EXPECT_EQ(orbs3_http_set_response_headers(r, nullptr, "v"), -1);
}

}  // namespace
