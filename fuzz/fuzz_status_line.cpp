// The status-line scanner over a heap block of the input's exact size (ASan faults on a read past it),
// as a receive buffer fills: all bytes at once, then `last` cut where the first input byte says, then
// one byte at a time. The three must agree, and a line read must hold what the record says of it.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "http/orbs3_http_status_line.h"
#include "fuzz_check.h"

namespace {

struct result {
    int rc;
    std::size_t pos;
    orbs3_http_status_t st;
};

// Scans the line with `last` moved on through the given stops, then to the end.
result scan(const uint8_t* line, std::size_t len, std::size_t first_stop, std::size_t step)
{
    orbs3_buf_t b{};
    b.pos = b.start = const_cast<uint8_t*>(line);
    b.end = b.start + len;
    result r{-2, 0, {}};
    std::size_t have = first_stop;
    for (;;) {
        b.last = b.start + have;
        uint8_t* before = b.pos;
        r.rc = orbs3_http_parse_status_line(&b, &r.st);
        CHECK(b.pos >= before && b.pos <= b.last);
        if (r.rc != -2)
            break;
        CHECK(b.pos == b.last);
        if (have == len)
            break;
        have = (len - have > step) ? have + step : len;
    }
    r.pos = static_cast<std::size_t>(b.pos - b.start);
    return r;
}

void check_line(const uint8_t* line, std::size_t from, const result& r)
{
    if (r.rc != 0)
        return;
    const orbs3_http_status_t& st = r.st;
    const uint8_t* nl = line + r.pos - 1;
    CHECK(*nl == '\n');
    CHECK(st.count == 3);
    CHECK(st.start >= line + from + 9 && st.start + 3 <= nl);  // behind "HTTP/1.0 " at least
    uint32_t code = 0;
    for (int i = 0; i < 3; i++) {
        CHECK(st.start[i] >= '0' && st.start[i] <= '9');
        code = code * 10 + static_cast<uint32_t>(st.start[i] - '0');
    }
    CHECK(code == st.code);
    CHECK(st.end >= st.start + 3 && st.end <= nl);
    CHECK(*st.end == '\r' || *st.end == '\n');
    CHECK(st.http_version >= 1000 && st.http_version <= 999999);
    CHECK(st.http_version % 1000 <= 999);
    CHECK(st.state == 0);
}

bool same(const result& a, const result& b)
{
    if (a.rc != b.rc)
        return false;
    if (a.rc == -1)
        return true;  // refused at the same byte, but the position is that of the failing call's start
    return a.pos == b.pos && a.st.http_version == b.st.http_version && a.st.code == b.st.code &&
           a.st.count == b.st.count && a.st.start == b.st.start && a.st.end == b.st.end &&
           a.st.state == b.st.state;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    const std::size_t len = size - 1;
    std::unique_ptr<uint8_t[]> line(new uint8_t[len]);
    if (len > 0)
        std::memcpy(line.get(), data + 1, len);
    const std::size_t cut = len * data[0] / 255;

    result whole = scan(line.get(), len, len, len);
    check_line(line.get(), 0, whole);
    result two = scan(line.get(), len, cut, len);
    CHECK(same(whole, two));
    result bytewise = scan(line.get(), len, 0, 1);
    CHECK(same(whole, bytewise));

    // Lines behind the first one go through the same record.
    result next = whole;
    for (int i = 0; next.rc == 0 && next.pos < len && i < 16; i++) {
        std::size_t from = next.pos;
        orbs3_buf_t b{};
        b.pos = line.get() + from;
        b.start = line.get();
        b.last = b.end = line.get() + len;
        next.rc = orbs3_http_parse_status_line(&b, &next.st);
        next.pos = static_cast<std::size_t>(b.pos - line.get());
        CHECK(next.pos >= from && next.pos <= len);
        check_line(line.get(), from, next);
    }
    return 0;
}
