#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "feed.h"
#include "http/orbs3_http_status_line.h"

namespace {

struct scanned {
    int rc;
    std::size_t pos;  // offset of buffer.pos after the last call
    uint32_t version;
    uint32_t code;
    std::string text;  // [start, end)

    bool operator==(const scanned&) const = default;
};

// Scans line in two reads cut at `cut` (cut == size: one read); a -2 must have taken every byte offered.
scanned scan(std::string_view line, std::size_t cut)
{
    feed::bytes in(line, cut);
    orbs3_buf_t b = in.buf();
    orbs3_http_status_t st{};
    int rc;
    for (;;) {
        rc = orbs3_http_parse_status_line(&b, &st);
        if (rc != -2)
            break;
        EXPECT_EQ(b.pos, b.last) << "-2 must leave pos at last";
        if (!in.next_read(&b))
            break;
    }
    scanned s{rc, static_cast<std::size_t>(b.pos - in.data()), st.http_version, st.code, {}};
    if (rc == 0)
        s.text.assign(reinterpret_cast<const char*>(st.start), static_cast<std::size_t>(st.end - st.start));
    return s;
}

struct line_case {
    std::string line;
    int rc;
    uint32_t version;
    uint32_t code;
    std::string text;
};

const line_case k_lines[] = {
    {"HTTP/1.1 200 OK\r\n", 0, 1001, 200, "200 OK"},
    {"HTTP/1.0 404\r\n", 0, 1000, 404, "404"},
    {"HTTP/1.1 503 Service Unavailable\n", 0, 1001, 503, "503 Service Unavailable"},
    {"HTTP/1.1    301 Moved\r\n", 0, 1001, 301, "301 Moved"},
    {"HTTP/1.1 403.1 Forbidden\r\n", 0, 1001, 403, "403.1 Forbidden"},
    {"HTTP/2.0 204 \r\n", 0, 2000, 204, "204 "},
    {"HTTP/1.100 200 x\r\n", 0, 1100, 200, "200 x"},
    {"HTTP/123.999 100 Go on\r\n", 0, 123999, 100, "100 Go on"},
    {"HTTP/1.1 200 OK\r\nServer: x\r\n", 0, 1001, 200, "200 OK"},
    {"HTTP/1.1 200 tab\tand\x01 bytes\r\n", 0, 1001, 200, "200 tab\tand\x01 bytes"},
    {"HTTP/1.1 20", -2, 0, 0, ""},
    {"HTTP/1.1 200 OK\r", -2, 0, 0, ""},
    {"http/1.1 200 OK\r\n", -1, 0, 0, ""},
    {"GET / HTTP/1.1\r\n", -1, 0, 0, ""},
    {"HTTP/0.9 200 OK\r\n", -1, 0, 0, ""},
    {"HTTP/1000.1 200 OK\r\n", -1, 0, 0, ""},
    {"HTTP/1.1000 200 OK\r\n", -1, 0, 0, ""},
    {"HTTP/1. 200 OK\r\n", -1, 0, 0, ""},
    {"HTTP/1 200 OK\r\n", -1, 0, 0, ""},
    {"HTTP/1.1\r\n", -1, 0, 0, ""},
    {"HTTP/1.1 20 OK\r\n", -1, 0, 0, ""},
    {"HTTP/1.1 2000 OK\r\n", -1, 0, 0, ""},
    {"HTTP/1.1 2 00 OK\r\n", -1, 0, 0, ""},
    {"HTTP/1.1 200OK\r\n", -1, 0, 0, ""},
    {"HTTP/1.1 200 OK\rX\n", -1, 0, 0, ""},
    {"HTTP/1.1 2x0 OK\r\n", -1, 0, 0, ""},
};

}  // namespace

TEST(HttpStatusLine, ReadsVersionCodeAndTextAndRefusesMalformedLinesInEverySplit)
{
    for (const auto& c : k_lines) {
        SCOPED_TRACE(c.line);
        const scanned whole = scan(c.line, c.line.size());
        EXPECT_EQ(whole.rc, c.rc);
        if (c.rc == 0) {
            EXPECT_EQ(whole.version, c.version);
            EXPECT_EQ(whole.code, c.code);
            EXPECT_EQ(whole.text, c.text);
            EXPECT_EQ(whole.pos, c.line.find('\n') + 1) << "pos stands behind the LF";
        }
        if (c.rc == -2) {
            EXPECT_EQ(whole.pos, c.line.size());
        }
        // A refusal may come at another offset when the line is cut; any other result is the same.
        feed::every_split(c.line, [&](std::size_t cut) {
            const scanned two = scan(c.line, cut);
            if (whole.rc == -1) {
                EXPECT_EQ(two.rc, -1);
            } else {
                EXPECT_EQ(two, whole);
            }
        });
    }
}

TEST(HttpStatusLine, SecondLineStartsFromAFreshRecord)
{
    const std::string two = "HTTP/1.1 404 Not Found\r\nHTTP/1.0 200\n";
    feed::bytes in(two);
    orbs3_buf_t b = in.buf();
    orbs3_http_status_t st{};

    ASSERT_EQ(orbs3_http_parse_status_line(&b, &st), 0);
    EXPECT_EQ(st.code, 404u);
    EXPECT_EQ(st.state, 0u);
    ASSERT_EQ(orbs3_http_parse_status_line(&b, &st), 0);
    EXPECT_EQ(st.code, 200u);
    EXPECT_EQ(st.count, 3u);
    EXPECT_EQ(st.http_version, 1000u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(st.start), static_cast<std::size_t>(st.end - st.start)), "200");
    EXPECT_EQ(b.pos, b.last);
}
