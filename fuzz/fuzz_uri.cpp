// The request-line machine and the URI derivation on "GET <input> HTTP/1.1\r\n", held in a zero-filled
// heap block with one spare zero byte. An accepted path must come out normalised (absolute, no empty
// segment, no dot segment followed by a slash), never longer than sent, a path that needed no work must
// be the bytes as sent, and normalising the result once more must change nothing. An input that is a
// plain path as a whole is also resolved by a slow model written from the rules, not from the machine;
// both must agree on acceptance and on the path.
#include <syslog.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>
#include <string_view>

#include "http/orbs3_http_parse.h"
#include "http/orbs3_http_request.h"
#include "memory/orbs3_palloc.h"
#include "fuzz_check.h"

namespace {

struct parsed_uri {
    int rc = -1;
    std::string uri, args, exten;
    bool worked = false;  // complex or quoted: normalised into the pool
};

parsed_uri parse(std::string_view target)
{
    const std::string line = "GET " + std::string(target) + " HTTP/1.1\r\n";
    orbs3_pool_ptr pool(orbs3_create_mem_block(8192));
    CHECK(pool);
    auto* r = static_cast<orbs3_http_request_t*>(orbs3_pcalloc(pool.get(), sizeof(orbs3_http_request_t)));
    auto* in = static_cast<uint8_t*>(orbs3_pcalloc(pool.get(), line.size() + 1));  // the spare zero byte
    auto* b = static_cast<orbs3_buf_t*>(orbs3_pcalloc(pool.get(), sizeof(orbs3_buf_t)));
    CHECK(r && in && b);
    std::memcpy(in, line.data(), line.size());
    b->start = b->pos = in;
    b->last = in + line.size();
    b->end = b->last + 1;
    r->pool = pool.get();
    r->header_in = b;

    parsed_uri out;
    if (orbs3_http_parse_request_line(r, b) != ORBS3_OK)
        return out;
    out.worked = r->complex_uri || r->quoted_uri;
    out.rc = orbs3_http_process_request_uri(r);
    if (out.rc != 0)
        return out;
    out.uri.assign(r->uri.data, r->uri.len);
    out.args.assign(r->args.data ? r->args.data : "", r->args.len);
    out.exten.assign(r->exten.data ? r->exten.data : "", r->exten.len);

    // unparsed_uri is what stood in the line, and the uri never grows.
    CHECK(r->unparsed_uri.len <= target.size());
    CHECK(r->uri.len <= r->unparsed_uri.len);
    if (!out.worked) {
        std::string_view sent(r->unparsed_uri.data, r->unparsed_uri.len);
        CHECK(sent.substr(0, out.uri.size()) == out.uri);
    }
    return out;
}

int hex(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    c = static_cast<char>(c | 0x20);
    return (c >= 'a' && c <= 'f') ? c - 'a' + 10 : -1;
}

// The model: cut at the first '?' or '#', decode every escape (a bad or cut one, or a NUL, refuses),
// then walk the segments: empty ones merge away, "." and ".." are resolved only when a slash follows
// them (".." above the root refuses), the last segment stays as it is.
std::optional<std::string> model_path(std::string_view target)
{
    std::string_view raw = target.substr(0, target.find_first_of("?#"));
    std::string decoded;
    for (std::size_t i = 0; i < raw.size(); i++) {
        if (raw[i] != '%') {
            decoded += raw[i];
            continue;
        }
        if (i + 2 >= raw.size())
            return std::nullopt;
        int hi = hex(raw[i + 1]), lo = hex(raw[i + 2]);
        if (hi < 0 || lo < 0 || hi * 16 + lo == 0)
            return std::nullopt;
        decoded += static_cast<char>(hi * 16 + lo);
        i += 2;
    }

    std::vector<std::string_view> segments;
    std::string_view d = decoded;
    for (std::size_t pos = 1;;) {  // d[0] is the leading slash
        std::size_t slash = d.find('/', pos);
        std::string_view seg = d.substr(pos, slash == std::string_view::npos ? std::string_view::npos : slash - pos);
        if (slash == std::string_view::npos) {
            segments.push_back(seg);
            break;
        }
        if (seg == "..") {
            if (segments.empty())
                return std::nullopt;
            segments.pop_back();
        } else if (!seg.empty() && seg != ".") {
            segments.push_back(seg);
        }
        pos = slash + 1;
    }
    std::string out;
    for (std::string_view seg : segments) {
        out += '/';
        out += seg;
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    static const bool quiet = [] {
        setlogmask(LOG_MASK(LOG_EMERG));
        return true;
    }();
    (void)quiet;

    if (size > 8192)
        return 0;
    const std::string_view target(reinterpret_cast<const char*>(data), size);
    const parsed_uri first = parse(target);
    if (!target.empty() && target[0] == '/' &&
        target.find_first_of(std::string_view(" \r\n\0", 4)) == std::string_view::npos) {
        const std::optional<std::string> model = model_path(target);
        CHECK(model.has_value() == (first.rc == 0));
        if (model)
            CHECK(*model == first.uri);
    }
    if (first.rc != 0)
        return 0;

    const std::string_view uri = first.uri;
    CHECK(!uri.empty() && uri[0] == '/');
    CHECK(uri.find("//") == std::string_view::npos);
    CHECK(uri.find("/./") == std::string_view::npos);
    CHECK(uri.find("/../") == std::string_view::npos);
    if (!first.exten.empty())
        CHECK(uri.size() > first.exten.size() && uri.substr(uri.size() - first.exten.size()) == first.exten);

    // Once more, when the result can stand in a request line again as it is.
    if (uri.find_first_of(std::string_view("\0\r\n %?#", 8)) == std::string_view::npos) {
        const parsed_uri again = parse(uri);
        CHECK(again.rc == 0);
        CHECK(again.uri == first.uri);
    }
    return 0;
}
