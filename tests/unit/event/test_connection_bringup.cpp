// The bring-up request handler: fixed reply per request head, over a socketpair driven by epoll passes.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <string>

#include "core/orbs3_config.h"
#include "event/orbs3_epoll.h"
#include "event/orbs3_fd.h"
#include "event/orbs3_socket.h"
#include "http/orbs3_http_bringup.h"

namespace {

const std::string kRequest = "GET /bucket/key?acl HTTP/1.1\r\nHost: s3.example.com\r\nUser-Agent: t/1\r\n\r\n";
const std::regex kReplyHead(
    "HTTP/1\\.1 200 OK\r\n"
    "Date: (Sun|Mon|Tue|Wed|Thu|Fri|Sat), [1-9][0-9]? (Jan|Feb|Mar|Apr|May|Jun|jul|Aug|Sept|Oct|Nov|Dec) "
    "[0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2} GMT\r\n"
    "ETag: 347744cc233e4f4f9457c9e3de370497\r\n"
    "Connection: keep-alive\r\n"
    "Content-Length:1024\r\n"
    "Server: KELVANE\r\n\r\n");

// A server connection on one end of a socketpair, set up by the handler under test, and the client end.
class BringUp : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (orbs3_cycle == nullptr) {
            ASSERT_EQ(orbs3_init_cycle(), 0);
        }
        ep_ = orbs3_fd(orbs3_create_epfd(512));
        ASSERT_TRUE(ep_.valid());
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        client_ = orbs3_fd(sv[1]);
        fcntl(sv[1], F_SETFL, O_NONBLOCK);
        c_ = orbs3_create_connection(sysconfig.conn_pool_size);
        ASSERT_NE(c_, nullptr);
        c_->fd = sv[0];
        c_->epfd = ep_.get();
        orbs3_nonblocking(sv[0]);
        closed_before_ = orbs3_conn_counters.closed;
        orbs3_http_init_connection(c_);
        ASSERT_EQ(c_->type, 1u);
    }
    void TearDown() override
    {
        if (!closed())
            orbs3_close_connection(c_);
    }

    bool closed() const { return orbs3_conn_counters.closed.load() != closed_before_; }

    void send_text(const std::string& s)
    {
        if (!s.empty()) {
            ASSERT_EQ(write(client_.get(), s.data(), s.size()), static_cast<ssize_t>(s.size()));
        }
    }
    void pass() { (void)orbs3_epoll_events_manage(ep_.get()); }

    // Everything the server has written so far.
    std::string drain()
    {
        std::string out;
        char buf[8192];
        ssize_t n;
        while ((n = read(client_.get(), buf, sizeof buf)) > 0)
            out.append(buf, static_cast<std::size_t>(n));
        return out;
    }

    // Splits a stream of replies, checking each head; the number of whole replies, -1 on a bad one.
    static int count_replies(const std::string& s)
    {
        std::size_t at = 0;
        int n = 0;
        while (at < s.size()) {
            std::size_t end = s.find("\r\n\r\n", at);
            if (end == std::string::npos)
                return -1;
            end += 4;
            if (!std::regex_match(s.substr(at, end - at), kReplyHead))
                return -1;
            if (s.size() - end < 1024 || s.compare(end, 1024, std::string(1024, 'a')) != 0)
                return -1;
            at = end + 1024;
            n++;
        }
        return n;
    }

    orbs3_fd ep_;
    orbs3_fd client_;
    orbs3_connection_t* c_ = nullptr;
    uint64_t closed_before_ = 0;
};

TEST_F(BringUp, RequestSplitAtEveryByteGetsTheSameReplyOnOneKeptAliveConnection)
{
    for (std::size_t cut = 0; cut <= kRequest.size(); cut++) {
        SCOPED_TRACE("cut at " + std::to_string(cut));
        send_text(kRequest.substr(0, cut));
        if (cut > 0)
            pass();
        if (cut < kRequest.size()) {
            EXPECT_EQ(drain(), "") << "no reply before the head is complete";
        }
        send_text(kRequest.substr(cut));
        if (cut < kRequest.size())
            pass();
        std::string reply = drain();
        ASSERT_EQ(count_replies(reply), 1) << reply;
        ASSERT_FALSE(closed());
    }
}

TEST_F(BringUp, PipelinedHeadsEachGetAReplyInOrder)
{
    send_text(kRequest + kRequest + "GET / HTTP/1.0\r\n\r\n" + "GET /half");
    pass();
    EXPECT_EQ(count_replies(drain()), 3);
    send_text(" HTTP/1.1\r\n\r\n");
    pass();
    EXPECT_EQ(count_replies(drain()), 1);
    EXPECT_FALSE(closed());
}

TEST_F(BringUp, PeerCloseAndOversizedHeadCloseTheConnection)
{
    send_text("GET / HTTP/1.1\r\nHost: x\r\n");  // half a head, then the peer goes
    pass();
    EXPECT_FALSE(closed());
    shutdown(client_.get(), SHUT_WR);
    pass();
    EXPECT_TRUE(closed()) << "end of stream";
    c_ = nullptr;
}

TEST_F(BringUp, HeadLargerThanTheBufferClosesTheConnection)
{
    std::size_t limit = sysconfig.http_limit_header;
    send_text("GET /" + std::string(limit, 'k'));
    for (int i = 0; i < 4 && !closed(); i++)
        pass();
    EXPECT_TRUE(closed());
    EXPECT_EQ(drain(), "");
    char byte;
    EXPECT_EQ(read(client_.get(), &byte, 1), 0) << "the client sees the close";
}

TEST_F(BringUp, ReplyThatDoesNotFitTheSocketGoesOutOnWriteEventsWithoutBlocking)
{
    int small = 4096;
    setsockopt(c_->fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    constexpr int kHeads = 40;
    std::string heads;
    for (int i = 0; i < kHeads; i++)
        heads += kRequest;
    send_text(heads);

    auto t0 = std::chrono::steady_clock::now();
    pass();
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(400))
        << "the handler must not wait for the client";
    EXPECT_NE(c_->write->handler, orbs3_http_events_empty) << "the rest waits for a write event";

    std::string got;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (count_replies(got) != kHeads && std::chrono::steady_clock::now() < deadline) {
        got += drain();
        pass();
    }
    EXPECT_EQ(count_replies(got), kHeads);
    EXPECT_EQ(c_->write->handler, orbs3_http_events_empty) << "back to reading";
    send_text(kRequest);
    pass();
    EXPECT_EQ(count_replies(drain()), 1) << "the connection reads again after the long reply";
    EXPECT_FALSE(closed());
}

TEST(BringUpReply, FixedReplyIsTheTemplateWithTheDateAndAThousandAndTwentyFourBytes)
{
    char buf[2048];
    std::size_t n = orbs3_http_bringup_reply(buf, sizeof buf, "Tue, 7 jul 2026 08:09:10 GMT");
    std::string want = "HTTP/1.1 200 OK\r\nDate: Tue, 7 jul 2026 08:09:10 GMT\r\n"
                       "ETag: 347744cc233e4f4f9457c9e3de370497\r\nConnection: keep-alive\r\n"
                       "Content-Length:1024\r\nServer: KELVANE\r\n\r\n" +
                       std::string(1024, 'a');
    EXPECT_EQ(std::string(buf, n), want);
    EXPECT_EQ(orbs3_http_bringup_reply(buf, want.size() - 1, "Tue, 7 jul 2026 08:09:10 GMT"), 0u)
        << "a reply that does not fit is refused, not cut";

    // Today's date in the form clients have always seen.
    char date[64];
    orbs3_http_bringup_date(date, sizeof date);
    n = orbs3_http_bringup_reply(buf, sizeof buf, date);
    ASSERT_GT(n, 1024u);
    EXPECT_TRUE(std::regex_match(std::string(buf, n - 1024), kReplyHead)) << date;
}

}  // namespace
