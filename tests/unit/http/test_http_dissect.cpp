#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/orbs3_log.h"
#include "http/orbs3_http_dissect.h"

namespace {

// A record in memory of exactly its estimate, a head in a buffer of exactly its length: the sanitizer
// build sees a write one byte outside either.
class Dissect : public ::testing::Test {
protected:
    void make(uint16_t n)
    {
        mem_.reset(new uint64_t[(http_estimate(n) + 7) / 8]);
        hp_ = http_create(mem_.get(), n);
        ASSERT_NE(hp_, nullptr);
        ws_init(&ws_, "http", ws_space_, sizeof ws_space_);
        http_setup(hp_, &ws_);
    }
    void SetUp() override { make(ORBS3_HTTP_MAX_HDR); }

    int dissect(std::string_view head)
    {
        buf_.reset(new char[head.size() + 1]);
        std::copy(head.begin(), head.end(), buf_.get());
        return http_dissect_request(hp_, {buf_.get(), buf_.get() + head.size()});
    }
    std::string_view slot(uint16_t u) const
    {
        const orbs3_http_txt_t& t = hp_->slots[u];
        return {t.b, static_cast<std::size_t>(t.e - t.b)};
    }
    std::vector<std::string_view> headers() const
    {
        std::vector<std::string_view> v;
        for (uint16_t u = ORBS3_HTTP_HDR_FIRST; u < hp_->count; u++)
            v.push_back(slot(u));
        return v;
    }

    std::unique_ptr<uint64_t[]> mem_;
    std::unique_ptr<char[]> buf_;
    orbs3_http_t* hp_ = nullptr;
    alignas(8) char ws_space_[256];
    orbs3_ws_t ws_;
};

using SV = std::vector<std::string_view>;

// Captures what ipd_log hands to syslog, which copies it to standard error.
class log_capture {
public:
    log_capture()
    {
        setenv("ORBMUX_LOG_STDERR", "1", 1);
        ipd_log_init("orbmux-test", "/dev/null");
        testing::internal::CaptureStderr();
    }
    std::string text()
    {
        std::string s = testing::internal::GetCapturedStderr();
        ipd_log_close();
        unsetenv("ORBMUX_LOG_STDERR");
        return s;
    }
};

}  // namespace

TEST_F(Dissect, CutsTheRequestLineAndOneSlotPerHeaderInPlace)
{
    const std::string head = "\r\nGET /index.html HTTP/1.1\r\nHost: example.com\r\nAccept:  */*  \t\r\n"
                             "X-Empty:\r\n\r\nBODY";
    ASSERT_EQ(dissect(head), 0);
    EXPECT_EQ(slot(ORBS3_HTTP_HDR_METHOD), "GET");
    EXPECT_EQ(slot(ORBS3_HTTP_HDR_URL), "/index.html");
    EXPECT_EQ(slot(ORBS3_HTTP_HDR_PROTO), "HTTP/1.1");
    EXPECT_EQ(headers(), (SV{"Host: example.com", "Accept:  */*", "X-Empty:"}));
    for (uint16_t u = 0; u < hp_->count; u++)
        if (hp_->slots[u].b != nullptr) {
            EXPECT_EQ(*hp_->slots[u].e, '\0') << "slot " << u << " is NUL-terminated in the head";
        }
    EXPECT_EQ(hp_->proto_version, 11);
    EXPECT_EQ(hp_->close_after, 0);
    EXPECT_EQ(hp_->conditional, 0);
    EXPECT_EQ(std::string_view(buf_.get() + head.find("BODY"), 4), "BODY") << "nothing behind the empty line is touched";
}

TEST_F(Dissect, FoldedLinesJoinTheirHeaderWithSpaces)
{
    ASSERT_EQ(dissect("GET / HTTP/1.0\r\nX-Long: one\r\n two\n\tthree  \r\nNext: n\r\n \r\n\r\nafter: x\r\n"), 0);
    // The whitespace-only line folds into Next; the empty line behind it still ends the head.
    EXPECT_EQ(headers(), (SV{"X-Long: one   two  three", "Next: n"}));
    EXPECT_EQ(hp_->proto_version, 10);
    EXPECT_EQ(hp_->close_after, 1);
}

TEST_F(Dissect, RequestLinesAndHostHeadersGiveTheirStatus)
{
    struct row {
        const char* head;
        int rc;
        uint8_t proto_version;  // when rc is 0
    };
    const row rows[] = {
        {"GET / HTTP/1.1\r\nHost: a\r\n\r\n", 0, 11},
        {"get / http/1.0\r\n\r\n", 0, 10},
        {"GET /\r\n\r\n", 0, 9},
        {"GET /a b\r\n\r\n", 0, 9},
        {"GET / HTTP/2.0\r\n\r\n", 0, 9},
        {"GET   /  HTTP/1.1\r\n\r\n", 0, 11},
        {"GET / HTTP/1.1\t\r\n\r\n", 0, 9},
        {"GET / HTTP/1.1\n\n", 0, 11},
        {"GET / HTTP/1.1\r\n", 0, 11},
        {"GET / HTTP/1.1\r\nX: cut off", 0, 11},
        {"", 400, 0},
        {"\r\n\r\n", 400, 0},
        {"GET\r\n\r\n", 400, 0},
        {"G\x01T / HTTP/1.1\r\n\r\n", 400, 0},
        {"GET /a\x7f HTTP/1.1\r\n\r\n", 400, 0},
        {"GET / HT\x01TP/1.1\r\n\r\n", 400, 0},
        {"GET / HTTP/1.1", 400, 0},
        {"GET /", 400, 0},
        {"GET  \r\n\r\n", 413, 0},
        {"GET / HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n", 400, 0},
        {"GET / HTTP/1.1\r\nHOST: a\r\nhost:b\r\n\r\n", 400, 0},
        {"GET / HTTP/1.1\r\nHost: a\r\nHostname: b\r\nX-Host: c\r\nHost : d\r\n\r\n", 0, 11},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.head);
        make(ORBS3_HTTP_MAX_HDR);
        EXPECT_EQ(dissect(r.head), r.rc);
        if (r.rc == 0) {
            EXPECT_EQ(hp_->proto_version, r.proto_version);
        }
    }
}

TEST_F(Dissect, HeadersBeyondTheCapacityGive413)
{
    for (uint16_t capacity : {uint16_t{6}, uint16_t{9}, ORBS3_HTTP_MAX_HDR}) {
        const int room = capacity - ORBS3_HTTP_HDR_FIRST;
        for (int n : {room, room + 1}) {
            SCOPED_TRACE("capacity " + std::to_string(capacity) + ", " + std::to_string(n) + " headers");
            make(capacity);
            std::string head = "GET / HTTP/1.1\r\n";
            for (int i = 0; i < n; i++)
                head += "X-" + std::to_string(i) + ": v\r\n";
            head += "\r\n";
            EXPECT_EQ(dissect(head), n > room ? 413 : 0);
            EXPECT_LE(hp_->count, capacity);
            if (n == room) {
                EXPECT_EQ(slot(static_cast<uint16_t>(capacity - 1)), "X-" + std::to_string(n - 1) + ": v");
            }
        }
    }
    EXPECT_EQ(http_create(mem_.get(), ORBS3_HTTP_HDR_FIRST), nullptr) << "no room for a single header";
}

TEST_F(Dissect, IfHeadersMarkTheRequestConditional)
{
    const std::pair<const char*, uint8_t> rows[] = {
        {"GET / HTTP/1.1\r\nIf-None-Match: \"x\"\r\n\r\n", 1},
        {"GET / HTTP/1.1\r\nA: b\r\nif-modified-since: now\r\n\r\n", 1},
        {"GET / HTTP/1.1\r\nIffy: x\r\nX-If-Match: y\r\n\r\n", 0},
        {"GET / HTTP/1.1\r\nIf\r\n\r\n", 0},
    };
    for (const auto& [head, conditional] : rows) {
        SCOPED_TRACE(head);
        ASSERT_EQ(dissect(head), 0);
        EXPECT_EQ(hp_->conditional, conditional);
    }
}

TEST_F(Dissect, FindAndGetHeaderIgnoreCaseAndNeedTheColon)
{
    ASSERT_EQ(dissect("PUT /o HTTP/1.1\r\nHostname: no\r\nhOST: \t example.com\r\nContent-Length:12\r\n"
                      "X-Empty:\r\n\r\n"),
              0);
    EXPECT_EQ(http_find_hdr(hp_, 4, "host"), ORBS3_HTTP_HDR_FIRST + 1);
    EXPECT_EQ(http_find_hdr(hp_, 4, "HOST"), ORBS3_HTTP_HDR_FIRST + 1);
    EXPECT_EQ(http_find_hdr(hp_, 8, "hostname"), ORBS3_HTTP_HDR_FIRST);
    EXPECT_EQ(http_find_hdr(hp_, 3, "hos"), 0) << "a prefix of a name is no match";
    EXPECT_EQ(http_find_hdr(hp_, 3, "GET"), 0) << "request-line slots are not headers";

    struct row {
        const char* hdr;
        int found;
        const char* value;
    };
    const row rows[] = {
        {"\005Host:", 1, "example.com"},
        {"\017content-length:", 1, "12"},
        {"\010X-EMPTY:", 1, ""},
        {"\005Date:", 0, nullptr},
        {"\004Host", 0, nullptr},   // the prefix must count a colon
        {"\007Host:", 0, nullptr},  // and the bytes as they are
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.hdr + 1);
        char* value = reinterpret_cast<char*>(1);
        EXPECT_EQ(http_get_hdr(hp_, r.hdr, &value), r.found);
        if (r.value == nullptr) {
            EXPECT_EQ(value, nullptr);
        } else {
            EXPECT_STREQ(value, r.value);
        }
    }
}

TEST_F(Dissect, PrintfHeaderAddsASlotOrLogsTheLostHeader)
{
    ASSERT_EQ(dissect("GET / HTTP/1.1\r\nHost: a\r\n\r\n"), 0);
    ASSERT_EQ(http_printf_header(hp_, "X-Id: %d-%s", 42, "abc"), 0);
    char* value = nullptr;
    ASSERT_EQ(http_get_hdr(hp_, "\005X-Id:", &value), 1);
    EXPECT_STREQ(value, "42-abc");
    EXPECT_GE(hp_->slots[hp_->count - 1].b, ws_space_);
    EXPECT_LT(hp_->slots[hp_->count - 1].e, ws_space_ + sizeof ws_space_);

    // Too long for what is left of the workspace: nothing is added, the reserved space comes back.
    uint16_t count = hp_->count;
    char* front = ws_snapshot(&ws_);
    std::string big(ws_free(&ws_), 'x');
    log_capture too_long;
    EXPECT_EQ(http_printf_header(hp_, "X-Big: %s", big.c_str()), -1);
    EXPECT_NE(too_long.text().find("ERR, LostHeader, http_max_hdr too small"), std::string::npos);
    EXPECT_EQ(hp_->count, count);
    EXPECT_EQ(ws_snapshot(&ws_), front);
    EXPECT_EQ(ws_.r, nullptr);

    // An exact fit, terminator included, is taken.
    std::string fits(ws_free(&ws_) - sizeof("X-Fit: "), 'y');
    EXPECT_EQ(http_printf_header(hp_, "X-Fit: %s", fits.c_str()), 0);
    EXPECT_EQ(ws_free(&ws_), 0u);

    // The slots full: the same path, though the text would fit.
    make(ORBS3_HTTP_HDR_FIRST + 1);
    ASSERT_EQ(dissect("GET / HTTP/1.1\r\nHost: a\r\n\r\n"), 0);
    front = ws_snapshot(&ws_);
    log_capture full;
    EXPECT_EQ(http_printf_header(hp_, "X-A: b"), -1);
    EXPECT_NE(full.text().find("ERR, LostHeader, http_max_hdr too small"), std::string::npos);
    EXPECT_EQ(hp_->count, ORBS3_HTTP_HDR_FIRST + 1);
    EXPECT_EQ(ws_snapshot(&ws_), front);
}
