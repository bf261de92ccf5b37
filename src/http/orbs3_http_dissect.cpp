#include "http/orbs3_http_dissect.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

#include "core/orbs3_log.h"

namespace {

// Character classes of a head.
constexpr uint8_t C_BLANK = 1;  // space, tab
constexpr uint8_t C_CRLF = 2;   // CR, LF
constexpr uint8_t C_CTL = 4;    // below 32, and 127
constexpr uint8_t C_SEP = 8;    // separators of a token

constexpr struct char_class_table {
    uint8_t c[256];
    constexpr char_class_table() : c{}
    {
        for (int i = 0; i < 32; i++)
            c[i] = C_CTL;
        c[127] = C_CTL;
        c[0x20] = C_BLANK | C_SEP;
        c[0x09] = C_BLANK | C_SEP | C_CTL;
        c[0x0d] = C_CRLF | C_CTL;
        c[0x0a] = C_CRLF | C_CTL;
        for (char s : "()<>@,;:\\\"/[]?={}")
            if (s != '\0')
                c[static_cast<uint8_t>(s)] |= C_SEP;
    }
} k_class;

bool is(char ch, uint8_t cls)
{
    return (k_class.c[static_cast<uint8_t>(ch)] & cls) != 0;
}

char fold(char ch)
{
    return (ch >= 'A' && ch <= 'Z') ? static_cast<char>(ch | 0x20) : ch;
}

bool equal_nocase(const char* a, const char* b, std::size_t n)
{
    for (std::size_t i = 0; i < n; i++)
        if (fold(a[i]) != fold(b[i]))
            return false;
    return true;
}

// Bytes of the line end at p: CR LF, or a lone CR or LF.
std::size_t line_end_len(const char* p, const char* e)
{
    if (p[0] == '\r' && p + 1 < e && p[1] == '\n')
        return 2;
    return 1;
}

// The end of a field of the request line: the first byte of class `stop` from p on. Null when the region
// ends first or a control byte stands in the field that is not of class `ctl_ok`.
char* field_end(char* p, const char* e, uint8_t stop, uint8_t ctl_ok)
{
    for (; p != e; p++) {
        if (is(*p, stop))
            return p;
        if (is(*p, C_CTL) && !is(*p, ctl_ok))
            return nullptr;
    }
    return nullptr;
}

constexpr std::size_t HTTP_RECORD_SPACE = 48;  // the record, rounded, ahead of the slots
static_assert(sizeof(orbs3_http_t) <= HTTP_RECORD_SPACE);
static_assert(HTTP_RECORD_SPACE % alignof(orbs3_http_txt_t) == 0);
// Slots and flags take 17 bytes each; the estimate allows 25.
static_assert(sizeof(orbs3_http_txt_t) + 1 <= 25);

constexpr char k_host_hdr[] = "\005Host:";

}  // namespace

std::size_t http_estimate(uint16_t n)
{
    return std::size_t{n} * 25 + HTTP_RECORD_SPACE;
}

orbs3_http_t* http_create(void* memory, uint16_t n)
{
    if (memory == nullptr || reinterpret_cast<uintptr_t>(memory) % 8 != 0 || n <= ORBS3_HTTP_HDR_FIRST)
        return nullptr;
    auto* base = static_cast<char*>(memory);
    auto* hp = new (base) orbs3_http_t{};
    hp->slots = reinterpret_cast<orbs3_http_txt_t*>(base + HTTP_RECORD_SPACE);
    hp->slot_flags = reinterpret_cast<uint8_t*>(hp->slots + n);
    hp->capacity = n;
    std::memset(hp->slots, 0, sizeof(orbs3_http_txt_t) * n);
    std::memset(hp->slot_flags, 0, n);
    return hp;
}

void http_setup(orbs3_http_t* hp, orbs3_ws_t* ws)
{
    std::memset(hp->slots, 0, sizeof(orbs3_http_txt_t) * hp->capacity);
    std::memset(hp->slot_flags, 0, hp->capacity);
    hp->ws = ws;
    hp->count = ORBS3_HTTP_HDR_FIRST;
    hp->conditional = 0;
    hp->proto_version = 0;
    hp->close_after = 0;
}

int http_dissect_hdrs(orbs3_http_t* hp, char* p, orbs3_http_txt_t region)
{
    char* e = region.e;
    if (p < region.b || p > e)
        return 400;
    hp->count = ORBS3_HTTP_HDR_FIRST;
    hp->conditional = 0;

    while (p < e) {
        // q: the end of this header's text once its line end is found; r: where the next line starts.
        char* q = nullptr;
        char* r = p;
        while (r < e) {
            if (!is(*r, C_CRLF)) {
                r++;
                continue;
            }
            q = r;
            r += line_end_len(r, e);
            if (r >= e || !is(*r, C_BLANK))
                break;
            // A folded line: its line end and indentation become spaces inside the one header.
            for (; q < r; q++)
                *q = ' ';
            for (; r < e && is(*r, C_BLANK); r++)
                *r = ' ';
            q = nullptr;
        }
        if (q == nullptr || q == p)
            break;  // a line cut off by the end of the region, or the empty line ending the head

        if (q - p >= 3 && fold(p[0]) == 'i' && fold(p[1]) == 'f' && p[2] == '-')
            hp->conditional = 1;
        while (q > p && is(q[-1], C_BLANK))
            q--;
        if (hp->count >= hp->capacity) {
            ipd_debug("LostHeader: %.*s", static_cast<int>(q - p > 20 ? 20 : q - p), p);
            return 413;
        }
        *q = '\0';
        hp->slots[hp->count] = {p, q};
        hp->slot_flags[hp->count] = 0;
        hp->count++;
        p = r;
    }
    return 0;
}

int http_splitline(orbs3_http_t* hp, uint16_t h1, uint16_t h2, uint16_t h3, orbs3_http_txt_t region)
{
    if (h1 >= hp->capacity || h2 >= hp->capacity || h3 >= hp->capacity)
        return 400;
    char* p = region.b;
    char* e = region.e;

    while (p < e && is(*p, C_BLANK | C_CRLF))
        p++;

    // The method: a token up to a blank.
    char* q = p;
    if ((p = field_end(p, e, C_BLANK, C_BLANK)) == nullptr)
        return 400;
    orbs3_http_txt_t f1{q, p};
    while (p < e && is(*p, C_BLANK))
        p++;

    // The URL: up to a blank or the line end.
    q = p;
    if ((p = field_end(p, e, C_BLANK | C_CRLF, 0)) == nullptr)
        return 400;
    orbs3_http_txt_t f2{q, p};
    if (f2.b == f2.e)
        return 413;
    while (p < e && is(*p, C_BLANK))
        p++;

    // The protocol, possibly empty: up to the line end; a tab may stand in it.
    q = p;
    if ((p = field_end(p, e, C_CRLF, C_SEP)) == nullptr)
        return 400;
    orbs3_http_txt_t f3{q, p};
    p += line_end_len(p, e);

    // Each end stands on a blank or a line end inside the region, so these writes cut nothing else.
    *f1.e = '\0';
    *f2.e = '\0';
    *f3.e = '\0';
    hp->slots[h1] = f1;
    hp->slots[h2] = f2;
    hp->slots[h3] = f3;
    hp->slot_flags[h1] = hp->slot_flags[h2] = hp->slot_flags[h3] = 0;

    return http_dissect_hdrs(hp, p, region);
}

void http_proto_ver(orbs3_http_t* hp)
{
    const orbs3_http_txt_t& t = hp->slots[ORBS3_HTTP_HDR_PROTO];
    bool eight = t.b != nullptr && t.e - t.b == 8;
    if (eight && equal_nocase(t.b, "HTTP/1.0", 8)) {
        hp->proto_version = 10;
        hp->close_after = 1;
    } else if (eight && equal_nocase(t.b, "HTTP/1.1", 8)) {
        hp->proto_version = 11;
        hp->close_after = 0;
    } else {
        hp->proto_version = 9;
        hp->close_after = 1;
    }
}

int htc_request_check_host_hdr(const orbs3_http_t* hp)
{
    std::size_t len = static_cast<uint8_t>(k_host_hdr[0]) - 1;
    bool seen = false;
    for (uint16_t u = ORBS3_HTTP_HDR_FIRST; u < hp->count && u < hp->capacity; u++) {
        const orbs3_http_txt_t& t = hp->slots[u];
        if (t.b == nullptr || t.e - t.b < static_cast<std::ptrdiff_t>(len + 1))
            continue;
        if (t.b[len] != ':' || !equal_nocase(t.b, k_host_hdr + 1, len))
            continue;
        if (seen)
            return 400;
        seen = true;
    }
    return 0;
}

int http_dissect_request(orbs3_http_t* hp, orbs3_http_txt_t region)
{
    int rc = http_splitline(hp, ORBS3_HTTP_HDR_METHOD, ORBS3_HTTP_HDR_URL, ORBS3_HTTP_HDR_PROTO, region);
    if (rc != 0)
        return rc;
    http_proto_ver(hp);
    return htc_request_check_host_hdr(hp);
}

uint16_t http_find_hdr(const orbs3_http_t* hp, std::size_t len, const char* name)
{
    for (uint16_t u = ORBS3_HTTP_HDR_FIRST; u < hp->count && u < hp->capacity; u++) {
        const orbs3_http_txt_t& t = hp->slots[u];
        if (t.b == nullptr || t.e < t.b || static_cast<std::size_t>(t.e - t.b) < len + 1)
            continue;
        if (t.b[len] != ':' || !equal_nocase(name, t.b, len))
            continue;
        return u;
    }
    return 0;
}

int http_get_hdr(const orbs3_http_t* hp, const char* hdr, char** value)
{
    *value = nullptr;
    std::size_t l = static_cast<uint8_t>(hdr[0]);
    // The prefix counts the colon, which must close the name.
    if (l == 0 || std::strlen(hdr + 1) != l || hdr[l] != ':')
        return 0;
    uint16_t u = http_find_hdr(hp, l - 1, hdr + 1);
    if (u == 0)
        return 0;
    char* p = hp->slots[u].b + l;
    while (p < hp->slots[u].e && is(*p, C_BLANK))
        p++;
    *value = p;
    return 1;
}

int http_printf_header(orbs3_http_t* hp, const char* format, ...)
{
    orbs3_ws_t* ws = hp->ws;
    if (ws == nullptr) {
        ipd_log(LOG_ERR, "LostHeader, http_max_hdr too small");
        return -1;
    }
    std::size_t room = ws_reserve(ws, 0);
    va_list ap;
    va_start(ap, format);
    int n = std::vsnprintf(ws->f, room, format, ap);
    va_end(ap);
    if (n < 0 || static_cast<std::size_t>(n) >= room || hp->count >= hp->capacity) {
        ipd_log(LOG_ERR, "LostHeader, http_max_hdr too small");
        ws_release(ws, 0);
        return -1;
    }
    hp->slots[hp->count] = {ws->f, ws->f + n};
    hp->slot_flags[hp->count] = 0;
    hp->count++;
    ws_release(ws, static_cast<std::size_t>(n) + 1);
    return 0;
}
