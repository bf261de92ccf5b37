// The Range resolver over a heap block of the input's exact size (ASan faults on a read past it). The
// first byte picks the object's size: below 0x80 a small one (0 to 31, where the edges are), otherwise
// the next eight bytes shifted right by the low six bits. The rest is the header's value.
// The result must agree with a slow model that splits the text at '-' and reads numbers in 128 bits
// (capped past int64: a last byte that far is past the end, a first byte past every end),
// written from the rules rather than from the scanner; a range must lie inside the object; padding the
// value with whitespace must change nothing; and the Content-Range text must fit and read back.
#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <string_view>

#include "http/orbs3_http_range.h"
#include "fuzz_check.h"

namespace {

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

// Digits only: the value, capped at one past int64 (past every object, and past every in-range number),
// -1 for empty, -2 for anything else.
__int128 model_number(std::string_view s)
{
    if (s.empty())
        return -1;
    __int128 v = 0;
    for (char c : s) {
        if (c < '0' || c > '9')
            return -2;
        v = v * 10 + (c - '0');
        if (v > kMax)
            v = static_cast<__int128>(kMax) + 1;
    }
    return v;
}

// The number the digits name, compared exactly: leading zeros off, then the longer is the larger.
bool number_less(std::string_view a, std::string_view b)
{
    a.remove_prefix(std::min(a.find_first_not_of('0'), a.size()));
    b.remove_prefix(std::min(b.find_first_not_of('0'), b.size()));
    return a.size() != b.size() ? a.size() < b.size() : a < b;
}

int model(std::string_view value, int64_t size, orbs3_byte_range_t* out)
{
    if (size < 0)
        return ORBS3_RANGE_NONE;
    std::size_t b = value.find_first_not_of(" \t");
    if (b == std::string_view::npos)
        return ORBS3_RANGE_NONE;
    value = value.substr(b, value.find_last_not_of(" \t") - b + 1);
    std::size_t eq = value.find('=');
    if (eq != 5)
        return ORBS3_RANGE_NONE;
    std::string unit(value.substr(0, 5));
    for (char& c : unit)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c + 32);
    if (unit != "bytes")
        return ORBS3_RANGE_NONE;
    std::string_view set = value.substr(6);
    if (set.find(',') != std::string_view::npos)
        return ORBS3_RANGE_NONE;
    std::size_t dash = set.find('-');
    if (dash == std::string_view::npos)
        return ORBS3_RANGE_NONE;
    __int128 a = model_number(set.substr(0, dash));
    __int128 z = model_number(set.substr(dash + 1));
    if (a == -2 || z == -2 || (a == -1 && z == -1))
        return ORBS3_RANGE_NONE;
    if (a == -1) {
        if (z == 0 || size == 0)
            return ORBS3_RANGE_UNSATISFIABLE;
        out->first = z >= size ? 0 : static_cast<int64_t>(size - z);
        out->last = size - 1;
        return ORBS3_RANGE_ONE;
    }
    if (z != -1 && number_less(set.substr(dash + 1), set.substr(0, dash)))
        return ORBS3_RANGE_NONE;
    if (a >= size)
        return ORBS3_RANGE_UNSATISFIABLE;
    out->first = static_cast<int64_t>(a);
    out->last = (z == -1 || z >= size) ? size - 1 : static_cast<int64_t>(z);
    return ORBS3_RANGE_ONE;
}

int64_t read_number(std::string_view* s)
{
    int64_t v = -1;
    auto res = std::from_chars(s->data(), s->data() + s->size(), v);
    CHECK(res.ec == std::errc());
    s->remove_prefix(static_cast<std::size_t>(res.ptr - s->data()));
    return v;
}

void check_content_range(const orbs3_byte_range_t* r, int64_t size)
{
    char out[ORBS3_CONTENT_RANGE_MAX + 1];
    std::size_t n = orbs3_http_content_range(out, sizeof(out), r, size);
    CHECK(n > 0 && n <= ORBS3_CONTENT_RANGE_MAX && out[n] == '\0' && std::strlen(out) == n);
    std::string_view t(out, n);
    CHECK(t.substr(0, 6) == "bytes ");
    t.remove_prefix(6);
    if (r) {
        CHECK(read_number(&t) == r->first);
        CHECK(!t.empty() && t[0] == '-');
        t.remove_prefix(1);
        CHECK(read_number(&t) == r->last);
    } else {
        CHECK(!t.empty() && t[0] == '*');
        t.remove_prefix(1);
    }
    CHECK(!t.empty() && t[0] == '/');
    t.remove_prefix(1);
    CHECK(read_number(&t) == size);
    CHECK(t.empty());
    // One byte short of the NUL is refused.
    CHECK(orbs3_http_content_range(out, n, r, size) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    std::size_t off = 1;
    int64_t object_size = data[0] & 0x1f;
    if (data[0] & 0x80) {
        uint64_t v = 0;
        for (int i = 0; i < 8 && off < size; i++)
            v = v << 8 | data[off++];
        object_size = static_cast<int64_t>((v >> (data[0] & 63)) & static_cast<uint64_t>(kMax));
    }
    const std::size_t len = size - off;
    std::unique_ptr<char[]> text(new char[len]);
    if (len > 0)
        std::memcpy(text.get(), data + off, len);
    const std::string_view value(text.get(), len);

    orbs3_byte_range_t got{-1, -1};
    const int rc = orbs3_http_range_resolve(value, object_size, &got);
    CHECK(rc == ORBS3_RANGE_NONE || rc == ORBS3_RANGE_ONE || rc == ORBS3_RANGE_UNSATISFIABLE);

    orbs3_byte_range_t want{-1, -1};
    CHECK(model(value, object_size, &want) == rc);
    if (rc == ORBS3_RANGE_ONE) {
        CHECK(0 <= got.first && got.first <= got.last && got.last < object_size);
        CHECK(got.first == want.first && got.last == want.last);
        check_content_range(&got, object_size);
    } else {
        CHECK(got.first == -1 && got.last == -1);
        if (rc == ORBS3_RANGE_UNSATISFIABLE)
            check_content_range(nullptr, object_size);
    }

    const std::string padded = " \t" + std::string(value) + "\t ";
    orbs3_byte_range_t again{-1, -1};
    CHECK(orbs3_http_range_resolve(padded, object_size, &again) == rc);
    CHECK(again.first == got.first && again.last == got.last);
    return 0;
}
