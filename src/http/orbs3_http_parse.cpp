#include "http/orbs3_http_parse.h"

#include <cstring>
#include <string_view>

#include "memory/orbs3_assert.h"
#include "core/orbs3_log.h"
#include "memory/neo_string.h"

namespace {

char* as_chars(uint8_t* p)
{
    return reinterpret_cast<char*>(p);
}

uint8_t* as_bytes(char* p)
{
    return reinterpret_cast<uint8_t*>(p);
}

constexpr unsigned fold(unsigned c)
{
    return (c >= 'A' && c <= 'Z') ? (c | 0x20) : c;
}

constexpr bool is_letter(uint8_t c)
{
    c = static_cast<uint8_t>(c | 0x20);
    return c >= 'a' && c <= 'z';
}

constexpr bool is_digit(uint8_t c)
{
    return c >= '0' && c <= '9';
}

struct method_row {
    std::string_view name;
    uint32_t value;
};

constexpr method_row methods[] = {
    {"GET", ORBS3_HTTP_GET},           {"HEAD", ORBS3_HTTP_HEAD},         {"POST", ORBS3_HTTP_POST},
    {"PUT", ORBS3_HTTP_PUT},           {"DELETE", ORBS3_HTTP_DELETE},     {"MKCOL", ORBS3_HTTP_MKCOL},
    {"COPY", ORBS3_HTTP_COPY},         {"MOVE", ORBS3_HTTP_MOVE},         {"OPTIONS", ORBS3_HTTP_OPTIONS},
    {"PROPFIND", ORBS3_HTTP_PROPFIND}, {"PROPPATCH", ORBS3_HTTP_PROPPATCH}, {"LOCK", ORBS3_HTTP_LOCK},
    {"UNLOCK", ORBS3_HTTP_UNLOCK},     {"PATCH", ORBS3_HTTP_PATCH},       {"TRACE", ORBS3_HTTP_TRACE},
};

uint32_t method_of(const uint8_t* start, std::size_t len)
{
    if (len < 3 || len > 9)
        return ORBS3_HTTP_UNKNOWN;
    std::string_view name(reinterpret_cast<const char*>(start), len);
    for (const auto& m : methods) {
        if (m.name == name)
            return m.value;
    }
    return ORBS3_HTTP_UNKNOWN;
}

// States of the request-line machine; the values are those of parse_state.
enum line_state : uint32_t {
    LINE_START = 0,
    METHOD,
    BEFORE_URI,
    SCHEME,
    SCHEME_SLASH1,
    SCHEME_SLASH2,
    HOST_BEGIN,
    HOST,
    HOST_DONE,
    HOST_LITERAL,
    PORT,
    HOST_NO_VERSION,
    PATH_SLASH,
    PATH_PLAIN,
    PATH_PLAIN_SPACE,
    PATH_MIXED,
    PATH_MIXED_SPACE,
    PROTO_T1,
    PROTO_T2,
    PROTO_P,
    PROTO_SLASH,
    MAJOR_FIRST,
    MAJOR,
    MINOR_FIRST,
    MINOR,
    TRAILING_SPACE,
    CR_SEEN,
};
static_assert(CR_SEEN == 26);

enum header_state : uint32_t {
    NAME_START = 0,
    NAME,
    BEFORE_VALUE,
    VALUE,
    VALUE_SPACE,
    SKIP_LINE,
    LINE_CR,
    HEAD_CR,
};

static_assert(PROTO_SLASH == PROTO_T1 + 3 && MAJOR_FIRST == PROTO_SLASH + 1);
constexpr char kProtoRest[] = "TTP/";

// Behind the authority of an absolute URI: the path's first '/', or a space when there is no path (the
// '/' behind the scheme's colon then stands in for it). False for any other byte.
inline bool path_behind_authority(orbs3_http_request_t* r, uint8_t* p, uint8_t ch, uint32_t* state)
{
    if (ch == '/') {
        r->uri_start = p;
        *state = PATH_SLASH;
        return true;
    }
    if (ch == ' ') {
        r->uri_start = r->schema_end + 1;
        r->uri_end = r->schema_end + 2;
        *state = HOST_NO_VERSION;
        return true;
    }
    return false;
}

constexpr bool is_literal_byte(uint8_t c)
{
    if (is_letter(c) || is_digit(c))
        return true;
    switch (c) {
    case '!': case '$': case '&': case '\'': case '(': case ')': case '*': case '+': case ',':
    case '-': case '.': case ':': case ';': case '=': case '_': case '~':
        return true;
    default:
        return false;
    }
}

constexpr bool is_head_space(uint8_t c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

}  // namespace

// ---- end of the head ----

// The scan is bounded by `end` and stops at a NUL as well. header_in keeps a zero byte behind the
// received data (the receive leaves room for it), but nothing here reads at or behind `end`, so a
// caller that hands in a region without it cannot make the search overrun.
std::size_t http_header_complete(const uint8_t* start, const uint8_t* end)
{
    const uint8_t* p = start;
    while (p < end && is_head_space(*p))
        p++;
    if (p == end)
        return 0;

    for (;;) {
        while (p < end && *p != '\n') {
            if (*p == '\0')
                return 0;
            p++;
        }
        if (p == end)
            return 0;
        p++;
        if (p < end && *p == '\r')
            p++;
        if (p < end && *p == '\n')
            return static_cast<std::size_t>(p + 1 - start);
    }
}

std::size_t orbs3_check_head(const uint8_t* buffer, std::size_t length)
{
    if (buffer == nullptr)
        return 0;
    return http_header_complete(buffer, buffer + length);
}

// ---- request line ----

int orbs3_http_parse_request_line(orbs3_http_request_t* r, orbs3_buf_t* b)
{
    uint32_t state = r->parse_state;
    uint8_t* p = b->pos;
    uint8_t* const last = b->last;
    ORBS3_ASSERT(state <= CR_SEEN && p <= last);

    while (p < last) {
        const uint8_t ch = *p;

        switch (state) {
        case LINE_START:
            if (ch == '\r' || ch == '\n')
                break;
            if ((ch < 'A' || ch > 'Z') && ch != '_' && ch != '-')
                return ORBS3_PARSE_BAD_METHOD;
            r->request_start = p;
            state = METHOD;
            break;

        case METHOD:
            if ((ch >= 'A' && ch <= 'Z') || ch == '_' || ch == '-')
                break;
            if (ch != ' ')
                return ORBS3_PARSE_BAD_METHOD;
            r->method_end = p - 1;
            r->method = method_of(r->request_start, static_cast<std::size_t>(p - r->request_start));
            state = BEFORE_URI;
            break;

        case BEFORE_URI:
            if (ch == '/') {
                r->uri_start = p;
                state = PATH_SLASH;
            } else if (is_letter(ch)) {
                r->schema_start = p;
                state = SCHEME;
            } else if (ch != ' ') {
                return ORBS3_PARSE_BAD_REQUEST;
            }
            break;

        case SCHEME:
            if (is_letter(ch))
                break;
            if (ch != ':')
                return ORBS3_PARSE_BAD_REQUEST;
            r->schema_end = p;
            state = SCHEME_SLASH1;
            break;

        case SCHEME_SLASH1:
            if (ch != '/')
                return ORBS3_PARSE_BAD_REQUEST;
            state = SCHEME_SLASH2;
            break;

        case SCHEME_SLASH2:
            if (ch != '/')
                return ORBS3_PARSE_BAD_REQUEST;
            state = HOST_BEGIN;
            break;

        case HOST_BEGIN:
            r->host_start = p;
            if (ch == '[') {
                state = HOST_LITERAL;
                break;
            }
            state = HOST;
            continue;  // the same byte in HOST

        case HOST:
            if (is_letter(ch) || is_digit(ch) || ch == '.' || ch == '-')
                break;
            state = HOST_DONE;
            continue;

        case HOST_DONE:
            r->host_end = p;
            if (ch == ':')
                state = PORT;
            else if (!path_behind_authority(r, p, ch, &state))
                return ORBS3_PARSE_BAD_REQUEST;
            break;

        case HOST_LITERAL:
            if (is_literal_byte(ch))
                break;
            if (ch != ']')
                return ORBS3_PARSE_BAD_REQUEST;
            state = HOST_DONE;
            break;

        case PORT:
            if (is_digit(ch))
                break;
            r->port_end = p;
            if (!path_behind_authority(r, p, ch, &state))
                return ORBS3_PARSE_BAD_REQUEST;
            break;

        case PATH_SLASH:
            // "/." and "//" are left to the normaliser; any other byte behind a slash is read as in
            // a plain path.
            if (ch == '.' || ch == '/') {
                r->complex_uri = 1;
                state = PATH_MIXED;
                break;
            }
            [[fallthrough]];

        case PATH_PLAIN:
            if (orbs3_usual(ch)) {
                state = PATH_PLAIN;
                break;
            }
            switch (ch) {
            case '/':
                r->uri_ext = nullptr;
                state = PATH_SLASH;
                break;
            case '.':
                r->uri_ext = p + 1;
                break;
            case ' ':
                r->uri_end = p;
                state = PATH_PLAIN_SPACE;
                break;
            case '\r':
                r->uri_end = p;
                r->http_minor = 9;
                state = CR_SEEN;
                break;
            case '\n':
                r->uri_end = p;
                r->http_minor = 9;
                goto done;
            case '#':
                r->complex_uri = 1;
                state = PATH_MIXED;
                break;
            case '%':
                r->quoted_uri = 1;
                state = PATH_MIXED;
                break;
            case '?':
                r->args_start = p + 1;
                state = PATH_MIXED;
                break;
            case '+':
                break;
            default:  // NUL
                return ORBS3_PARSE_BAD_REQUEST;
            }
            break;

        case HOST_NO_VERSION:
        case PATH_PLAIN_SPACE:
        case PATH_MIXED_SPACE:
            switch (ch) {
            case ' ':
                break;
            case '\r':
                r->http_minor = 9;
                state = CR_SEEN;
                break;
            case '\n':
                r->http_minor = 9;
                goto done;
            case 'H':
                r->http_protocol.data = as_chars(p);
                state = PROTO_T1;
                break;
            default:
                // The space was part of the URI, which an absolute one without a path cannot hold.
                if (state == HOST_NO_VERSION)
                    return ORBS3_PARSE_BAD_REQUEST;
                state = state == PATH_PLAIN_SPACE ? PATH_PLAIN : PATH_MIXED;
                continue;
            }
            break;

        case PATH_MIXED:
            if (orbs3_usual(ch) || ch > '#')
                break;
            switch (ch) {
            case ' ':
                r->uri_end = p;
                state = PATH_MIXED_SPACE;
                break;
            case '\r':
                r->uri_end = p;
                r->http_minor = 9;
                state = CR_SEEN;
                break;
            case '\n':
                r->uri_end = p;
                r->http_minor = 9;
                goto done;
            case '#':
                r->complex_uri = 1;
                break;
            default:  // NUL
                return ORBS3_PARSE_BAD_REQUEST;
            }
            break;

        case PROTO_T1:
        case PROTO_T2:
        case PROTO_P:
        case PROTO_SLASH:
            // The rest of "HTTP/", one state a byte; the last one leads to MAJOR_FIRST.
            if (ch != kProtoRest[state - PROTO_T1])
                return ORBS3_PARSE_BAD_REQUEST;
            state++;
            break;

        case MAJOR_FIRST:
            if (ch < '1' || ch > '9')
                return ORBS3_PARSE_BAD_REQUEST;
            r->http_major = static_cast<uint16_t>(ch - '0');
            state = MAJOR;
            break;

        case MAJOR:
            if (ch == '.') {
                state = MINOR_FIRST;
                break;
            }
            // At most three digits: 999 * 1000 + 999 still fits http_version.
            if (!is_digit(ch) || r->http_major > 99)
                return ORBS3_PARSE_BAD_REQUEST;
            r->http_major = static_cast<uint16_t>(r->http_major * 10 + (ch - '0'));
            break;

        case MINOR_FIRST:
            if (!is_digit(ch))
                return ORBS3_PARSE_BAD_REQUEST;
            r->http_minor = static_cast<uint16_t>(ch - '0');
            state = MINOR;
            break;

        case MINOR:
            if (ch == '\r') {
                state = CR_SEEN;
                break;
            }
            if (ch == '\n')
                goto done;
            if (ch == ' ') {
                state = TRAILING_SPACE;
                break;
            }
            if (!is_digit(ch) || r->http_minor > 99)
                return ORBS3_PARSE_BAD_REQUEST;
            r->http_minor = static_cast<uint16_t>(r->http_minor * 10 + (ch - '0'));
            break;

        case TRAILING_SPACE:
            if (ch == ' ')
                break;
            if (ch == '\r') {
                state = CR_SEEN;
                break;
            }
            if (ch == '\n')
                goto done;
            return ORBS3_PARSE_BAD_REQUEST;

        case CR_SEEN:
            if (ch != '\n')
                return ORBS3_PARSE_BAD_REQUEST;
            r->request_end = p - 1;
            goto done;

        default:
            return ORBS3_PARSE_BAD_REQUEST;
        }
        p++;
    }

    b->pos = p;
    r->parse_state = state;
    return ORBS3_AGAIN;

done:
    b->pos = p + 1;
    if (r->request_end == nullptr)
        r->request_end = p;
    r->http_version = uint32_t{r->http_major} * 1000 + r->http_minor;
    r->parse_state = LINE_START;
    if (r->http_version == ORBS3_HTTP_VERSION_9 && r->method != ORBS3_HTTP_GET)
        return ORBS3_PARSE_BAD_09_METHOD;
    return ORBS3_OK;
}

// ---- header lines ----

int orbs3_http_parse_header_line(orbs3_http_request_t* r, orbs3_buf_t* b, unsigned allow_underscores)
{
    uint32_t state = r->parse_state;
    uint64_t hash = r->header_hash;
    uint64_t i = r->lowcase_index;
    uint8_t* p = b->pos;
    uint8_t* const last = b->last;
    ORBS3_ASSERT(state <= HEAD_CR && i < ORBS3_LOWCASE_HEADER_LEN && p <= last);

    // The lower-cased name byte, or 0 for a byte that is no name byte.
    auto name_byte = [allow_underscores](uint8_t ch) -> uint8_t {
        uint8_t c = lowcase[ch];
        if (c == 0 && ch == '_' && allow_underscores)
            c = '_';
        return c;
    };

    if (state == NAME_START)
        r->header_name_start = p;

    while (p < last) {
        const uint8_t ch = *p;

        switch (state) {
        case NAME_START:
            r->header_name_start = p;
            if (ch == '\n') {
                r->header_end = p;
                goto head_done;
            }
            if (ch == '\r') {
                r->header_end = p;
                state = HEAD_CR;
                break;
            }
            if (ch == '\0')
                goto bad_header;
            if (uint8_t c = name_byte(ch); c != 0) {
                hash = c;
                r->lowcase_header[0] = c;
                i = 1;
            } else {
                // The byte stays in the name but not in the hash: start both afresh, so the name can
                // match no known header and the lower-case copy is made from the name itself.
                hash = 0;
                i = 0;
            }
            state = NAME;
            break;

        case NAME:
            if (uint8_t c = name_byte(ch); c != 0) {
                hash = orbs3_hash(hash, c);
                r->lowcase_header[i++] = c;
                i &= ORBS3_LOWCASE_HEADER_LEN - 1;
                break;
            }
            switch (ch) {
            case ':':
                r->header_name_end = p;
                state = BEFORE_VALUE;
                break;
            case '\r':
                r->header_name_end = p;
                r->header_start = p;
                r->header_end = p;
                state = LINE_CR;
                break;
            case '\n':
                r->header_name_end = p;
                r->header_start = p;
                r->header_end = p;
                goto line_done;
            case '/':
                // A status line inside a head ("HTTP/1.1 200 OK") is dropped whole.
                if (p - r->header_name_start == 4 && std::memcmp(r->header_name_start, "HTTP", 4) == 0)
                    state = SKIP_LINE;
                break;
            case '\0':
                goto bad_header;
            default:
                break;
            }
            break;

        case BEFORE_VALUE:
            switch (ch) {
            case ' ':
                break;
            case '\n':
                r->header_start = p;
                r->header_end = p;
                goto line_done;
            case '\r':
                r->header_start = p;
                r->header_end = p;
                state = LINE_CR;
                break;
            case '\0':
                goto bad_header;
            default:
                r->header_start = p;
                state = VALUE;
                break;
            }
            break;

        case VALUE:
            switch (ch) {
            case '\n':
                r->header_end = p;
                goto line_done;
            case '\r':
                r->header_end = p;
                state = LINE_CR;
                break;
            case ' ':
                r->header_end = p;
                state = VALUE_SPACE;
                break;
            case '\0':
                goto bad_header;
            default:
                break;
            }
            break;

        case VALUE_SPACE:
            switch (ch) {
            case ' ':
                break;
            case '\n':
                goto line_done;
            case '\r':
                state = LINE_CR;
                break;
            case '\0':
                goto bad_header;
            default:
                state = VALUE;
                break;
            }
            break;

        case SKIP_LINE:
            if (ch == '\n') {
                state = NAME_START;
                r->header_name_start = p + 1;
            }
            break;

        case LINE_CR:
            if (ch == '\n')
                goto line_done;
            if (ch == '\r')
                break;
            goto bad_header;

        case HEAD_CR:
            if (ch == '\n')
                goto head_done;
            goto bad_header;

        default:
            goto bad_header;
        }
        p++;
    }

    b->pos = p;
    r->parse_state = state;
    r->header_hash = hash;
    r->lowcase_index = i;
    return ORBS3_AGAIN;

line_done:
    b->pos = p + 1;
    r->parse_state = NAME_START;
    r->header_hash = hash;
    r->lowcase_index = i;
    return ORBS3_OK;

head_done:
    b->pos = p + 1;
    r->parse_state = NAME_START;
    return ORBS3_PARSE_DONE;

bad_header:
    // The head ends here for the caller; the position moves on so a further call cannot spin on it.
    b->pos = p + 1;
    r->parse_state = NAME_START;
    return ORBS3_PARSE_BAD_HEADER;
}

// ---- the URI ----

int orbs3_http_parse_complex_uri(orbs3_http_request_t* r, unsigned merge_slashes)
{
    enum { USUAL, SLASH, DOT, DOT_DOT, QUOTED_FIRST, QUOTED_SECOND };

    r->uri_ext = nullptr;
    r->args_start = nullptr;

    // Offsets rather than pointers: going back over a segment may look in front of the output's start.
    uint8_t* const out = as_bytes(r->uri.data);
    int64_t w = 0;
    int64_t ext = -1;  // offset of the byte behind the last dot of the last segment, -1 for none

    int state = USUAL;
    int quoted_state = USUAL;
    int decoded = 0;

    uint8_t* p = r->uri_start;
    uint8_t* const end = r->uri_end;

    while (p < end) {
        uint8_t ch = *p++;

        if (state == QUOTED_FIRST) {
            decoded = neo_hex_value(ch);
            if (decoded < 0)
                return ORBS3_PARSE_BAD_REQUEST;
            state = QUOTED_SECOND;
            continue;
        }
        if (state == QUOTED_SECOND) {
            int low = neo_hex_value(ch);
            if (low < 0)
                return ORBS3_PARSE_BAD_REQUEST;
            ch = static_cast<uint8_t>(decoded * 16 + low);
            if (ch == '\0')
                return ORBS3_PARSE_BAD_REQUEST;
            if (ch == '%' || ch == '#' || ch == '?') {
                // Decoded, these are data, not syntax.
                out[w++] = ch;
                state = USUAL;
                continue;
            }
            // Anything else acts as if it had stood in the URI: %2F is a slash, %2E a dot.
            state = quoted_state;
        } else {
            if (ch == '%') {
                quoted_state = state;
                state = QUOTED_FIRST;
                continue;
            }
            if (ch == '?') {
                r->args_start = p;
                for (uint8_t* q = p; q < end; q++) {
                    if (*q == '#') {
                        r->args.data = as_chars(p);
                        r->args.len = static_cast<uint64_t>(q - p);
                        r->args_start = nullptr;
                        break;
                    }
                }
                goto finish;
            }
            if (ch == '#')
                goto finish;
        }

        switch (state) {
        case USUAL:
            if (ch == '/') {
                ext = -1;
                out[w++] = ch;
                state = SLASH;
            } else if (ch == '.') {
                out[w++] = ch;
                ext = w;
            } else {
                out[w++] = ch;
            }
            break;

        case SLASH:
            if (ch == '/') {
                if (!merge_slashes)
                    out[w++] = ch;
            } else if (ch == '.') {
                out[w++] = ch;
                state = DOT;
            } else {
                out[w++] = ch;
                state = USUAL;
            }
            break;

        case DOT:
            if (ch == '/') {
                w--;  // "/./": the dot goes, the slash before it stands
                state = SLASH;
            } else if (ch == '.') {
                out[w++] = ch;
                state = DOT_DOT;
            } else {
                out[w++] = ch;
                state = USUAL;
            }
            break;

        case DOT_DOT:
            if (ch == '/') {
                // "/seg/.." is written: back from five bytes before the end to the slash ahead of seg.
                int64_t k = w - 5;
                for (;;) {
                    if (k < 0)
                        return ORBS3_PARSE_BAD_REQUEST;  // above the root
                    if (out[k] == '/')
                        break;
                    k--;
                }
                w = k + 1;
                state = SLASH;
            } else {
                out[w++] = ch;
                state = USUAL;
            }
            break;

        default:
            return ORBS3_PARSE_BAD_REQUEST;
        }
    }

    // An escape cut short by the end of the URI is as bad as one with a non-hex digit.
    if (state == QUOTED_FIRST || state == QUOTED_SECOND)
        return ORBS3_PARSE_BAD_REQUEST;

finish:
    ORBS3_ASSERT(w >= 0 && static_cast<uint64_t>(w) <= r->uri.len);  // the area holds uri.len + 1 bytes
    r->uri.len = static_cast<uint64_t>(w);
    if (ext >= 0) {
        r->exten.data = as_chars(out + ext);
        r->exten.len = static_cast<uint64_t>(w - ext);
    }
    r->uri_ext = nullptr;
    return ORBS3_OK;
}

int orbs3_http_process_request_uri(orbs3_http_request_t* r)
{
    if (r->uri_start == nullptr || r->uri_end == nullptr || r->uri_end < r->uri_start)
        return -1;

    uint8_t* path_end = r->args_start ? r->args_start - 1 : r->uri_end;
    r->uri.len = static_cast<uint64_t>(path_end - r->uri_start);

    if (r->complex_uri || r->quoted_uri) {
        // The normalised path never grows: each byte read writes at most one, and the copy stops at
        // the first '?' ahead of which uri.len already ends.
        auto* data = static_cast<char*>(orbs3_pnalloc(r->pool, r->uri.len + 1));
        if (data == nullptr) {
            r->uri.len = 0;
            return -1;
        }
        r->uri.data = data;
        if (orbs3_http_parse_complex_uri(r, 1) != ORBS3_OK) {
            r->uri.len = 0;
            return -1;
        }
    } else {
        r->uri.data = as_chars(r->uri_start);
    }

    r->unparsed_uri.data = as_chars(r->uri_start);
    r->unparsed_uri.len = static_cast<uint64_t>(r->uri_end - r->uri_start);

    if (r->uri_ext != nullptr) {
        uint8_t* ext_end = r->args_start ? r->args_start - 1 : r->uri_end;
        r->exten.data = as_chars(r->uri_ext);
        r->exten.len = ext_end > r->uri_ext ? static_cast<uint64_t>(ext_end - r->uri_ext) : 0;
    }

    if (r->args_start != nullptr && r->args_start < r->uri_end) {
        r->args.data = as_chars(r->args_start);
        r->args.len = static_cast<uint64_t>(r->uri_end - r->args_start);
    }
    return 0;
}

// ---- cookies ----

std::size_t orbs3_http_parse_cookie(orbs3_http_request_t* r, orbs3_str_t* value)
{
    while (value->len > 0 && (value->data[0] == ' ' || value->data[0] == '\t' || value->data[0] == ';')) {
        value->data++;
        value->len--;
    }

    // Marks of an earlier cookie must not stand in for a cookie without '='.
    r->header_name_end = nullptr;
    r->header_start = nullptr;

    auto* start = as_bytes(value->data);
    auto* end = start + value->len;
    r->header_name_start = start;

    uint8_t* p = start;
    while (p < end && *p != ';' && *p != '\0') {
        if (*p == '=') {
            r->header_name_end = p;
            r->header_start = p + 1;
        }
        p++;
    }
    r->header_end = p;
    return static_cast<std::size_t>(p - start);
}

// ---- whole-head test ----

int orbs3_http_process_request_header(orbs3_http_request_t* r)
{
    orbs3_http_headers_in_t& in = r->headers_in;

    if (in.server.len == 0) {
        ipd_debug("request refused: no server name");
        return -1;
    }
    if (in.host == nullptr && r->http_version > ORBS3_HTTP_VERSION_10) {
        ipd_debug("request refused: no Host");
        return -1;
    }
    if (in.content_length != nullptr && r->content_length == -1) {
        ipd_debug("request refused: unreadable Content-Length");
        return ORBS3_HTTP_BAD_FRAMING;
    }
    if (in.framing_conflict) {
        ipd_debug("request refused: repeated Transfer-Encoding or disputed Content-Length");
        return ORBS3_HTTP_BAD_FRAMING;
    }
    if (r->method == ORBS3_HTTP_TRACE) {
        ipd_debug("request refused: TRACE");
        return -1;
    }
    if (in.transfer_encoding != nullptr) {
        // Both framings in one head let a proxy in front and this server disagree where the body ends.
        if (in.content_length != nullptr) {
            ipd_debug("request refused: Transfer-Encoding together with Content-Length");
            return ORBS3_HTTP_BAD_FRAMING;
        }
        const orbs3_str_t& v = in.transfer_encoding->value;
        if (v.len == 7 && orbs3_strncasecmp(v.data, "chunked", 7) == 0) {
            in.chunked = 1;
            r->content_length = -1;
        } else if (v.len == 8 && orbs3_strncasecmp(v.data, "identity", 8) == 0) {
            // nothing to do
        } else {
            ipd_debug("request refused: transfer coding \"%.*s\"", static_cast<int>(v.len), v.data);
            return ORBS3_HTTP_BAD_FRAMING;
        }
    }
    return 0;
}

// ---- the whole head ----

int parser_http_request_handler(orbs3_http_request_t* r)
{
    orbs3_buf_t* b = r->header_in;
    if (b == nullptr)
        return -1;

    // 1, 2: request line.
    if (orbs3_http_parse_request_line(r, b) != ORBS3_OK)
        return -1;

    r->request_line.data = as_chars(r->request_start);
    r->request_line.len = static_cast<uint64_t>(r->request_end - r->request_start);
    r->method_name.data = as_chars(r->request_start);
    r->method_name.len = static_cast<uint64_t>(r->method_end + 1 - r->request_start);
    if (r->http_protocol.data != nullptr)
        r->http_protocol.len = static_cast<uint64_t>(as_chars(r->request_end) - r->http_protocol.data);

    // 3: connection mode by version, then the URI.
    r->headers_in.connection_type = r->http_version == ORBS3_HTTP_VERSION_11 ? ORBS3_HTTP_CONNECTION_KEEP_ALIVE
                                                                             : ORBS3_HTTP_CONNECTION_CLOSE;
    if (orbs3_http_process_request_uri(r) != 0) {
        ipd_log(LOG_ERR, "client sent invalid request line");
        return -1;
    }

    // 4, 5: header lines.
    if (orbs3_list_init(&r->headers_in.headers, r->pool, ORBS3_HEADERS_IN_BLOCK, sizeof(orbs3_header_t)) != 0)
        return -1;

    for (;;) {
        int rc = orbs3_http_parse_header_line(r, b, 1);
        if (rc != ORBS3_OK) {
            // 1 is the blank line. 13 ends the head just as well: the headers read so far stand and the
            // rest is ignored. -2 cannot come from a complete head; should it, the head ends here too
            // rather than spin.
            if (rc != ORBS3_PARSE_DONE)
                ipd_log(LOG_ERR, "client sent invalid header line");
            break;
        }

        auto* h = static_cast<orbs3_header_t*>(orbs3_list_push(&r->headers_in.headers));
        if (h == nullptr)
            return -1;
        h->hash = r->header_hash;
        h->key.data = as_chars(r->header_name_start);
        h->key.len = static_cast<uint64_t>(r->header_name_end - r->header_name_start);
        h->value.data = as_chars(r->header_start);
        h->value.len = static_cast<uint64_t>(r->header_end - r->header_start);
        h->value.data[h->value.len] = '\0';
        h->key.data[h->key.len] = '\0';

        h->lowcase_key = static_cast<char*>(orbs3_pnalloc(r->pool, h->key.len ? h->key.len : 1));
        if (h->lowcase_key == nullptr)
            return -1;
        if (h->key.len == r->lowcase_index)
            std::memcpy(h->lowcase_key, r->lowcase_header, h->key.len);
        else
            orbs3_strlow(h->lowcase_key, h->key.data, h->key.len);  // wrapped around the ring

        auto* row = static_cast<const orbs3_http_header_t*>(
            orbs3_hash_find(&headers_in_hash, h->hash, h->lowcase_key, h->key.len));
        if (row != nullptr && row->handler(r, h, row->offset) != 0)
            return -1;
    }

    // 7
    r->request_length += static_cast<uint64_t>(b->pos - b->start);

    // 8
    orbs3_header_t* host = r->headers_in.host;
    if (r->http_version == ORBS3_HTTP_VERSION_11 && host == nullptr) {
        ipd_log(LOG_ERR, "client sent invalid host in request line");
        return -1;
    }

    // 9: url = Host value and uri. A head without Host (only below HTTP/1.1 here) has no host to join:
    // url is the uri alone, and the vhost search falls back to the service's first vhost.
    orbs3_buf_t* ub = r->url_buf;
    const uint64_t host_len = host ? host->value.len : 0;
    // Room for the terminating zero too. A Host plus uri longer than url_buf drops the request: a cut
    // url would name another object.
    if (ub == nullptr || ub->start == nullptr ||
        host_len + r->uri.len + 1 > static_cast<uint64_t>(ub->end - ub->start)) {
        ipd_log(LOG_ERR, "client sent too long host and uri: %lu bytes",
                static_cast<unsigned long>(host_len + r->uri.len));
        return -1;
    }
    uint8_t* u = ub->start;
    if (host_len != 0)
        std::memcpy(u, host->value.data, host_len);
    if (r->uri.len != 0)
        std::memcpy(u + host_len, r->uri.data, r->uri.len);
    u[host_len + r->uri.len] = '\0';
    ub->pos = u;
    ub->last = u + host_len + r->uri.len;
    r->url.data = as_chars(u);
    r->url.len = host_len + r->uri.len;
    ipd_debug("url: %.*s", static_cast<int>(r->url.len), r->url.data);
    return 0;
}

// ---- case-insensitive helpers ----

int orbs3_strncasecmp(const char* s1, const char* s2, std::size_t n)
{
    return neo_strncasecmp(s1, s2, n);
}

const char* orbs3_strlcasestrn(const char* start, const char* end, const char* needle, std::size_t n)
{
    if (start == nullptr || end <= start || static_cast<std::size_t>(end - start) <= n)
        return nullptr;
    const unsigned c2 = fold(static_cast<unsigned char>(*needle++));
    // A match must fit: its first byte lies below end - n.
    const char* const stop = end - n;
    for (const char* s = start; s < stop; s++) {
        if (fold(static_cast<unsigned char>(*s)) != c2)
            continue;
        // Bytes compared here lie below end; a NUL in them ends the compare unequal unless needle
        // ends there too, which it does not within n.
        if (orbs3_strncasecmp(s + 1, needle, n) == 0)
            return s;
    }
    return nullptr;
}
