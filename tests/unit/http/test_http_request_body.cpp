// Request bodies over a socketpair: bytes that came with the head first, then the socket, across pauses;
// Content-Length and chunked framing; the document bound; the file road's digest; 100-continue; and the
// bytes behind a body, which must stay for the next request.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "core/orbs3_config.h"
#include "event/orbs3_fd.h"
#include "event/orbs3_socket.h"
#include "http/orbs3_http_request.h"
#include "http/orbs3_http_request_body.h"
#include "memory/neo_md5.h"
#include "socketpair_connection.h"
#include "temp_dir.h"

namespace {

std::string md5_hex(const std::string& s)
{
    neo_md5_t md5;
    uint8_t d[NEO_MD5_LEN];
    EXPECT_EQ(neo_md5_init(&md5), 0);
    neo_md5_update(&md5, s.data(), s.size());
    EXPECT_EQ(neo_md5_final(d, &md5), 0);
    char hex[33];
    for (std::size_t i = 0; i < NEO_MD5_LEN; i++)
        std::snprintf(hex + 2 * i, 3, "%02x", d[i]);
    return hex;
}

std::string chunked(const std::string& body, std::size_t piece)
{
    std::string out;
    char line[64];
    for (std::size_t at = 0; at < body.size(); at += piece) {
        std::size_t n = std::min(piece, body.size() - at);
        std::snprintf(line, sizeof line, "%zx;name=value\r\n", n);
        out += line + body.substr(at, n) + "\r\n";
    }
    return out + "0\r\nX-Trailer: t\r\n\r\n";
}

class RequestBody : public ::testing::Test {
protected:
    void SetUp() override
    {
        saved_ = sysconfig;
        sysconfig.recv_buffer = 1024;  // small links, so documents take several
        sysconfig.http_header_in_size = 4096;
        sysconfig.http_work_space = 1024;
        sysconfig.request_pool_size = 32768;
        ASSERT_NE(c_, nullptr);
        new_request();
    }
    void TearDown() override
    {
        orbs3_http_close_request(r_);
        sysconfig = saved_;
    }

    // The next request on the connection, as a kept-alive connection gets it.
    void new_request(uint32_t version = ORBS3_HTTP_VERSION_11)
    {
        if (r_ != nullptr)
            orbs3_http_close_request(r_);
        r_ = orbs3_http_create_request(c_);
        ASSERT_NE(r_, nullptr);
        c_->data = r_;
        r_->http_version = version;
    }

    // The head buffer as the head reader leaves it: `surplus` behind a head that has been consumed.
    void with_head_surplus(const std::string& surplus, int64_t content_length, bool is_chunked = false)
    {
        orbs3_buf_t* in = r_->header_in;
        std::memcpy(in->start, surplus.data(), surplus.size());
        in->pos = in->start;
        in->last = in->start + surplus.size();
        r_->content_length = content_length;
        r_->headers_in.chunked = is_chunked;
    }
    void peer_send(const std::string& s) { ASSERT_EQ(write(peer_.get(), s.data(), s.size()), ssize_t(s.size())); }
    // The peer blocks while the test writes to it, and stops blocking once the test reads.
    std::string peer_read()
    {
        fcntl(peer_.get(), F_SETFL, O_NONBLOCK);
        return conn_.drain();
    }
    std::string head_rest() const
    {
        return std::string(reinterpret_cast<char*>(r_->header_in->pos), r_->header_in->last - r_->header_in->pos);
    }
    // Everything read_body gives until it ends or stops; the last result in *rc.
    std::string read_all(ssize_t* rc, std::size_t cap = 7)
    {
        std::string out;
        uint8_t buf[64];
        for (;;) {
            *rc = orbs3_http_read_body(r_, buf, std::min(cap, sizeof buf));
            if (*rc <= 0)
                return out;
            out.append(reinterpret_cast<char*>(buf), static_cast<std::size_t>(*rc));
        }
    }

    orbs3_sysconfig_t saved_;
    unit_test::socketpair_connection conn_{false};
    orbs3_connection_t* c_ = conn_.c;
    orbs3_fd& peer_ = conn_.peer;
    orbs3_http_request_t* r_ = nullptr;
};

TEST_F(RequestBody, LengthFramedBodyTakesHeadBytesThenSocketAndLeavesTheNextRequest)
{
    const std::string body = "0123456789abcdefghij";
    with_head_surplus(body.substr(0, 8), static_cast<int64_t>(body.size()));
    ssize_t rc;
    std::string got = read_all(&rc);
    EXPECT_EQ(rc, -2);  // the head's 8 bytes, then the socket is empty
    EXPECT_EQ(got, body.substr(0, 8));
    EXPECT_FALSE(orbs3_http_body_consumed(r_));
    // The rest of the body and a pipelined request arrive together: only the body is taken.
    peer_send(body.substr(8) + "GET /next");
    got += read_all(&rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(got, body);
    EXPECT_TRUE(orbs3_http_body_consumed(r_));
    EXPECT_EQ(peer_read(), "");
    char next[16] = {};
    EXPECT_EQ(read(c_->fd, next, sizeof next), 9);
    EXPECT_STREQ(next, "GET /next");

    // A body entirely in the head buffer leaves the pipelined bytes behind it there.
    ASSERT_EQ(init_request_body_memory(r_), 0);
    with_head_surplus("abcGET / HTTP/1.1\r\n", 3);
    ASSERT_EQ(init_request_body_memory(r_), 0);
    EXPECT_EQ(read_all(&rc), "abc");
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(head_rest(), "GET / HTTP/1.1\r\n");
}

TEST_F(RequestBody, ChunkedBodyDecodesAtEverySplitAndNeverReadsPastItsEnd)
{
    std::string body;
    for (int i = 0; i < 300; i++)
        body += static_cast<char>('a' + i % 26);
    const std::string wire = chunked(body, 37);
    const std::string next = "GET /after HTTP/1.1\r\n\r\n";
    for (std::size_t split = 0; split <= wire.size(); split++) {
        SCOPED_TRACE(split);
        new_request();
        // Part in the head buffer, the rest and a next request on the socket.
        with_head_surplus(wire.substr(0, split), -1, true);
        if (split < wire.size())
            peer_send(wire.substr(split));
        peer_send(next);
        ssize_t rc;
        std::string got = read_all(&rc, 1 + split % 50);
        ASSERT_EQ(rc, 0);
        EXPECT_EQ(got, body);
        EXPECT_EQ(r_->request_body->received, static_cast<int64_t>(body.size()));
        char rest[64] = {};
        ASSERT_EQ(read(c_->fd, rest, sizeof rest), static_cast<ssize_t>(next.size()));
        EXPECT_EQ(std::string(rest), next);
    }
    // A malformed size line is refused.
    new_request();
    with_head_surplus("zz\r\n", -1, true);
    ssize_t rc;
    read_all(&rc);
    EXPECT_EQ(rc, ORBS3_HTTP_BODY_INVALID);
}

TEST_F(RequestBody, DocumentRoadJoinsLinksAndRefusesDocumentsAboveTheBound)
{
    // Exactly one link, one byte more, and several links: the handler sees the whole document.
    for (std::size_t size : {std::size_t{1024}, std::size_t{1025}, std::size_t{5000}}) {
        SCOPED_TRACE(size);
        new_request();
        std::string doc(size, 'd');
        doc.back() = 'z';
        with_head_surplus(doc.substr(0, 100), static_cast<int64_t>(size));
        EXPECT_EQ(orbs3_http_recv_request_body(c_->read), -2);
        peer_send(doc.substr(100));
        ASSERT_EQ(orbs3_http_recv_request_body(c_->read), 0);
        orbs3_buf_t* b = r_->request_body->buf;
        EXPECT_EQ(std::string(reinterpret_cast<char*>(b->pos), b->last - b->pos), doc);
        EXPECT_EQ(r_->request_body->chain_count, (size + 1023) / 1024);
    }
    // Announced above the bound: refused before a byte is read.
    new_request();
    with_head_surplus("", ORBS3_HTTP_DOCUMENT_MAX + 1);
    peer_send("xyz");
    EXPECT_EQ(orbs3_http_recv_request_body(c_->read), ORBS3_HTTP_BODY_TOO_LARGE);
    char left[4] = {};
    EXPECT_EQ(read(c_->fd, left, sizeof left), 3);
}

TEST_F(RequestBody, ChunkedDocumentAboveTheBoundIsRefusedWhileReading)
{
    sysconfig.recv_buffer = 1 << 20;
    ASSERT_EQ(init_request_body_memory(r_), 0);
    with_head_surplus("", -1, true);
    ASSERT_EQ(init_request_body_memory(r_), 0);
    const std::string piece(1 << 16, 'p');
    char line[32];
    std::snprintf(line, sizeof line, "%zx\r\n", piece.size());
    const std::string one = line + piece + "\r\n";
    int rc = -2;
    // Feed chunks until the road stops asking for more.
    for (int i = 0; i < 200 && rc == -2; i++) {
        std::size_t off = 0;
        while (off < one.size()) {
            ssize_t n = write(peer_.get(), one.data() + off, one.size() - off);
            if (n <= 0)
                break;
            off += static_cast<std::size_t>(n);
            rc = orbs3_http_recv_request_body(c_->read);
            if (rc != -2)
                break;
        }
    }
    EXPECT_EQ(rc, ORBS3_HTTP_BODY_TOO_LARGE);
    EXPECT_LE(r_->request_body->received, ORBS3_HTTP_DOCUMENT_MAX);
}

TEST_F(RequestBody, FileRoadResumesAcrossPausesWithTheSameDigestAndFlagsAShortBody)
{
    std::string body;
    for (int i = 0; i < 5000; i++)
        body += static_cast<char>(i * 7);
    unit_test::temp_dir dir;
    const std::string path = dir("body");
    unit_test::write_file(path, "");
    auto* file = pool_new<orbs3_upload_file_t>(r_->pool);
    ASSERT_NE(file, nullptr);
    ASSERT_EQ(neo_md5_init(&file->md5), 0);
    with_head_surplus(body.substr(0, 10), static_cast<int64_t>(body.size()));
    std::size_t sent = 10;
    int rc;
    int passes = 0;
    do {
        file->fd = open(path.c_str(), O_WRONLY | O_APPEND);
        ASSERT_GE(file->fd, 0);
        rc = orbs3_http_write_body_into_file(r_, file);
        EXPECT_EQ(file->fd, -1);  // closed at every pause
        passes++;
        std::size_t n = std::min<std::size_t>(1500, body.size() - sent);
        if (n != 0)
            peer_send(body.substr(sent, n));
        sent += n;
    } while (rc == -2);
    EXPECT_EQ(rc, 0);
    EXPECT_GT(passes, 3);
    EXPECT_EQ(file->size, static_cast<int64_t>(body.size()));
    EXPECT_EQ(std::string(file->etag), md5_hex(body));
    EXPECT_EQ(unit_test::read_file(path), body);

    // The peer goes away half way: the road says so instead of finishing.
    new_request();
    file = pool_new<orbs3_upload_file_t>(r_->pool);
    ASSERT_EQ(neo_md5_init(&file->md5), 0);
    with_head_surplus("", 100);
    peer_send(std::string(40, 'x'));
    shutdown(peer_.get(), SHUT_WR);
    file->fd = open(path.c_str(), O_WRONLY | O_TRUNC);
    EXPECT_EQ(orbs3_http_write_body_into_file(r_, file), ORBS3_HTTP_BODY_INCOMPLETE);
    EXPECT_EQ(file->size, 40);
}

TEST_F(RequestBody, ContinueGoesOutOnceAndOnlyWhenTheSocketIsRead)
{
    orbs3_header_t expect{};
    char value[] = "100-Continue";
    expect.value.data = value;
    expect.value.len = sizeof value - 1;
    r_->headers_in.expect = &expect;

    // The whole body came with the head: the client is not waiting, nothing is sent.
    with_head_surplus("abc", 3);
    ssize_t rc;
    EXPECT_EQ(read_all(&rc), "abc");
    EXPECT_EQ(peer_read(), "");

    new_request();
    r_->headers_in.expect = &expect;
    with_head_surplus("", 6);
    EXPECT_EQ(read_all(&rc), "");
    EXPECT_EQ(rc, -2);
    EXPECT_EQ(peer_read(), "HTTP/1.1 100 Continue\r\n\r\n");
    peer_send("abc");
    EXPECT_EQ(read_all(&rc), "abc");
    peer_send("def");
    EXPECT_EQ(read_all(&rc), "def");
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(peer_read(), "");  // once only

    // HTTP/1.0 knows no interim replies.
    new_request(ORBS3_HTTP_VERSION_10);
    r_->headers_in.expect = &expect;
    with_head_surplus("", 2);
    read_all(&rc);
    EXPECT_EQ(peer_read(), "");
}

}  // namespace
