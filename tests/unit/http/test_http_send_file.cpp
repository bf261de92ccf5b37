// File bodies of replies: the order against queued output, the whole range over a slow peer on plain
// (sendfile) and TLS-style (sliced) connections, short files, one file at a time, who closes the
// descriptor, and the time limit on a write wait.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include "core/orbs3_config.h"
#include "event/neo_event_timer.h"
#include "event/orbs3_epoll.h"
#include "event/orbs3_fd.h"
#include "event/orbs3_socket.h"
#include "http/orbs3_http_request.h"
#include "http/orbs3_http_response.h"
#include "socketpair_connection.h"
#include "temp_dir.h"

namespace {

bool fd_open(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

// Bytes that differ from their neighbours and from the same offset one block on, so a lost, repeated or
// reordered piece shows in the comparison.
std::string pattern(std::size_t n)
{
    std::string s(n, '\0');
    for (std::size_t i = 0; i < n; i++)
        s[i] = static_cast<char>((i * 131 + i / 4093) & 0xff);
    return s;
}

// Stands for a TLS session: the writer only asks whether there is one.
int g_fake_ssl;

int g_exit_calls;
int g_read_calls;

void exit_and_close(orbs3_connection_t* c)
{
    g_exit_calls++;
    orbs3_close_connection(c);
}

void count_read(orbs3_event_t*)
{
    g_read_calls++;
}

class SendFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (orbs3_cycle == nullptr) {
            ASSERT_EQ(orbs3_init_cycle(), 0);
        }
        conn_ = std::make_unique<unit_test::socketpair_connection>(true, sysconfig.conn_pool_size);
        c_ = conn_->c;
        ASSERT_NE(c_, nullptr);
        EXPECT_EQ(c_->send_file_fd, -1);
        int small = 4096;
        setsockopt(c_->fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);

        content_ = pattern(kFileSize);
        unit_test::write_file(path_, content_);
    }
    void TearDown() override
    {
        if (c_ != nullptr)
            c_->ssl = nullptr;
        conn_.reset();
    }

    int open_file() const { return open(path_.c_str(), O_RDONLY | O_CLOEXEC); }

    // Reads at most `most` bytes of what the peer has.
    std::size_t read_some(std::string& out, std::size_t most)
    {
        char buf[32768];
        std::size_t got = 0;
        while (got < most) {
            ssize_t n = read(conn_->peer.get(), buf, std::min(sizeof buf, most - got));
            if (n <= 0)
                break;
            out.append(buf, static_cast<std::size_t>(n));
            got += static_cast<std::size_t>(n);
        }
        return got;
    }

    static constexpr std::size_t kFileSize = 5u << 20;
    std::unique_ptr<unit_test::socketpair_connection> conn_;
    orbs3_connection_t* c_ = nullptr;  // closed by the test when it sets this to null
    unit_test::temp_dir dir_;
    const std::string path_ = dir_("file");
    std::string content_;
};

// Each case: plain or sliced, with or without a head still queued when the file is handed over. A
// trailer written after the file must come after it.
TEST_F(SendFile, FileLeavesWholeAndInOrderBetweenQueuedHeadAndLaterBytesOverASlowPeer)
{
    struct file_case {
        const char* name;
        bool tls;
        std::size_t head_size;  // beyond the socket buffer: still queued when the file comes
        int64_t offset;
        int64_t len;
    };
    const file_case cases[] = {
        {"plain, head queued", false, 300000, 1000, static_cast<int64_t>(kFileSize) - 5000},
        {"plain, nothing queued", false, 40, 0, static_cast<int64_t>(kFileSize)},
        {"sliced, head queued", true, 300000, 777, 3 << 20},
        {"sliced, nothing queued", true, 40, 12345, static_cast<int64_t>(kFileSize) - 12345},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.name);
        std::string drained;
        (void)read_some(drained, SIZE_MAX);
        c_->ssl = k.tls ? &g_fake_ssl : nullptr;

        std::string head(k.head_size, 'h');
        for (std::size_t i = 0; i < head.size(); i++)
            head[i] = static_cast<char>('A' + (i * 7 + i / 26) % 26);
        ASSERT_EQ(orbs3_http_send_response_data(c_, head.c_str()), 0);
        std::size_t head_pending = orbs3_http_send_pending(c_);
        if (k.head_size > 100000) {
            ASSERT_GT(head_pending, 0u) << "the head has to be queued for this case";
        }

        int fd = open_file();
        ASSERT_GE(fd, 0);
        auto t0 = std::chrono::steady_clock::now();
        ASSERT_EQ(orbs3_http_send_file(c_, fd, k.offset, k.len), 0);
        EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(400)) << "never blocks";
        std::size_t pending = orbs3_http_send_pending(c_);
        EXPECT_GT(pending, 0u);
        EXPECT_LE(pending, head_pending + static_cast<std::size_t>(k.len));
        EXPECT_GT(pending, head_pending) << "the file is counted as pending";
        const std::string trailer = "TRAILER-AFTER-FILE";
        ASSERT_EQ(orbs3_http_send_response_data(c_, trailer.c_str()), 0);
        EXPECT_EQ(orbs3_http_send_pending(c_), pending + trailer.size()) << "bytes behind a file are queued";

        std::string want = head + content_.substr(static_cast<std::size_t>(k.offset), static_cast<std::size_t>(k.len)) +
                           trailer;
        std::string got;
        int again = 0;
        int rc = -2;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (rc == -2 && std::chrono::steady_clock::now() < deadline) {
            (void)read_some(got, 48 * 1024);
            rc = orbs3_http_send_flush(c_);
            if (rc == -2)
                again++;
        }
        ASSERT_EQ(rc, 0);
        (void)read_some(got, SIZE_MAX);
        EXPECT_GT(again, 10) << "the file took many passes";
        ASSERT_EQ(got.size(), want.size());
        EXPECT_TRUE(got == want) << "bytes differ";
        EXPECT_EQ(orbs3_http_send_pending(c_), 0u);
        EXPECT_EQ(c_->send_file_fd, -1);
        EXPECT_FALSE(fd_open(fd)) << "the file is closed once it has gone";
    }
}

// The head already promised the length, so a file that ends early cannot be covered up: both when it is
// found out at once and when it is found out on a later flush.
TEST_F(SendFile, FileShorterThanItsRangeIsAnError)
{
    for (bool tls : {false, true}) {
        for (bool queued : {false, true}) {
            SCOPED_TRACE(std::string(tls ? "sliced" : "plain") + (queued ? ", behind a queue" : ", at once"));
            std::string drained;
            (void)read_some(drained, SIZE_MAX);
            c_->ssl = tls ? &g_fake_ssl : nullptr;
            if (queued) {
                std::string head(300000, 'h');
                ASSERT_EQ(orbs3_http_send_response_data(c_, head.c_str()), 0);
                ASSERT_GT(orbs3_http_send_pending(c_), 0u);
            }
            int fd = open_file();
            ASSERT_GE(fd, 0);
            int64_t len = 4096;
            int64_t offset = static_cast<int64_t>(kFileSize) - len + 100;
            int rc = orbs3_http_send_file(c_, fd, offset, len);
            if (queued) {
                ASSERT_EQ(rc, 0);
                std::string got;
                auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
                do {
                    (void)read_some(got, SIZE_MAX);
                    rc = orbs3_http_send_flush(c_);
                } while (rc == -2 && std::chrono::steady_clock::now() < deadline);
            }
            EXPECT_EQ(rc, -1);
            EXPECT_FALSE(fd_open(fd)) << "closed on error";
            EXPECT_EQ(c_->send_file_fd, -1);
            EXPECT_EQ(orbs3_http_send_pending(c_), 0u);
        }
    }
}

TEST_F(SendFile, SecondFileWhileOneIsPendingIsRefusedAndTheFirstStays)
{
    int first = open_file();
    int second = open_file();
    ASSERT_GE(first, 0);
    ASSERT_GE(second, 0);
    ASSERT_EQ(orbs3_http_send_file(c_, first, 0, static_cast<int64_t>(kFileSize)), 0);
    std::size_t pending = orbs3_http_send_pending(c_);
    ASSERT_GT(pending, 0u);
    EXPECT_EQ(orbs3_http_send_file(c_, second, 0, 10), -1);
    EXPECT_FALSE(fd_open(second)) << "the refused descriptor is closed";
    EXPECT_TRUE(fd_open(first));
    EXPECT_EQ(c_->send_file_fd, first);
    EXPECT_EQ(orbs3_http_send_pending(c_), pending);
}

TEST_F(SendFile, DescriptorIsOwnedOnEveryPath)
{
    // An empty range and bad ones: nothing pending, the descriptor closed.
    int fd = open_file();
    EXPECT_EQ(orbs3_http_send_file(c_, fd, 0, 0), 0);
    EXPECT_FALSE(fd_open(fd));
    EXPECT_EQ(orbs3_http_send_pending(c_), 0u);
    fd = open_file();
    EXPECT_EQ(orbs3_http_send_file(c_, fd, -1, 10), -1);
    EXPECT_FALSE(fd_open(fd));
    fd = open_file();
    EXPECT_EQ(orbs3_http_send_file(c_, fd, INT64_MAX - 5, 10), -1);
    EXPECT_FALSE(fd_open(fd));
    EXPECT_EQ(c_->send_file_fd, -1);
    fd = open_file();
    EXPECT_EQ(orbs3_http_send_file(nullptr, fd, 0, 10), 0);
    EXPECT_FALSE(fd_open(fd));

    // Pending when the connection closes.
    fd = open_file();
    ASSERT_GE(fd, 0);
    ASSERT_EQ(orbs3_http_send_file(c_, fd, 0, static_cast<int64_t>(kFileSize)), 0);
    ASSERT_TRUE(fd_open(fd));
    orbs3_close_connection(c_);
    c_ = conn_->c = nullptr;
    EXPECT_FALSE(fd_open(fd)) << "closed with the connection";
}

// Puts back what the timer test changes, also when it stops early.
struct timer_test_globals {
    int saved_timeout = sysconfig.http_timeout;
    neo_event_timers_t timers;
    explicit timer_test_globals(int timeout)
    {
        sysconfig.http_timeout = timeout;
        neo_event_timer_thread_init(&timers);
    }
    ~timer_test_globals()
    {
        neo_event_timer_thread_init(nullptr);
        sysconfig.http_timeout = saved_timeout;
    }
};

// A peer that takes nothing for http_timeout seconds is dropped; taking something renews the limit, and
// once the output has gone no timer is left behind.
TEST_F(SendFile, WriteWaitHasATimeLimitThatProgressRenews)
{
    using std::chrono::milliseconds;
    timer_test_globals globals(1);
    orbs3_fd ep(orbs3_create_epfd(16));
    ASSERT_TRUE(ep.valid());
    c_->epfd = ep.get();
    c_->exit_handler = exit_and_close;
    c_->read->handler = count_read;
    g_exit_calls = 0;
    g_read_calls = 0;

    // A peer that reads everything: the output drains, the read handler runs, no timer stays.
    int fd = open_file();
    ASSERT_EQ(orbs3_http_send_file(c_, fd, 0, 1 << 20), 0);
    ASSERT_EQ(orbs3_http_send_wait(c_), -2);
    EXPECT_TRUE(c_->write->timer_set);
    std::string got;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (g_read_calls == 0 && g_exit_calls == 0 && std::chrono::steady_clock::now() < deadline) {
        (void)read_some(got, SIZE_MAX);
        orbs3_http_send_response_data_again(c_->write);
    }
    (void)read_some(got, SIZE_MAX);
    EXPECT_EQ(g_exit_calls, 0);
    EXPECT_EQ(g_read_calls, 1);
    EXPECT_EQ(got.size(), 1u << 20);
    EXPECT_FALSE(c_->write->timer_set);
    EXPECT_EQ(neo_event_find_timer(), -1) << "the tree is empty";

    // A peer that reads a little after 0.6 s, then stops.
    std::string body(1 << 20, 'b');
    ASSERT_EQ(orbs3_http_send_response_data(c_, body.c_str()), 0);
    ASSERT_GT(orbs3_http_send_pending(c_), 0u);
    ASSERT_EQ(orbs3_http_send_wait(c_), -2);
    neo_event_expire_timers();
    EXPECT_EQ(g_exit_calls, 0) << "the deadline has not come yet";
    std::this_thread::sleep_for(milliseconds(600));
    ASSERT_GT(read_some(got, 65536), 0u);
    orbs3_http_send_response_data_again(c_->write);
    ASSERT_EQ(g_exit_calls, 0);
    ASSERT_GT(orbs3_http_send_pending(c_), 0u);
    EXPECT_TRUE(c_->write->timer_set);
    std::this_thread::sleep_for(milliseconds(600));
    neo_event_expire_timers();
    EXPECT_EQ(g_exit_calls, 0) << "the first deadline was moved by the progress";
    std::this_thread::sleep_for(milliseconds(600));
    neo_event_expire_timers();
    EXPECT_EQ(g_exit_calls, 1) << "dropped through its exit handler";
    if (g_exit_calls == 1)
        c_ = conn_->c = nullptr;
    EXPECT_EQ(neo_event_find_timer(), -1);
}

}  // namespace
