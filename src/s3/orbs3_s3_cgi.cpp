#include "s3/orbs3_s3_cgi.h"

#include <unistd.h>

#include <array>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

constexpr std::array<unsigned char, 256> hex_table()
{
    std::array<unsigned char, 256> t{};
    for (int c = '0'; c <= '9'; c++)
        t[static_cast<std::size_t>(c)] = static_cast<unsigned char>(c - '0');
    for (int c = 'a'; c <= 'f'; c++) {
        t[static_cast<std::size_t>(c)] = static_cast<unsigned char>(c - 'a' + 10);
        t[static_cast<std::size_t>(c - 'a' + 'A')] = static_cast<unsigned char>(c - 'a' + 10);
    }
    return t;
}

// Value of a hex digit; any other byte counts 0, so "%zz" decodes to a zero byte rather than failing.
// Constant-initialised: the epoll threads read it without any start-up ordering.
constinit std::array<unsigned char, 256> cgiHexValue = hex_table();

// Decodes src into dst (room for src.size() + 1 bytes); returns the decoded length. A '%' without two
// bytes behind it is dropped with what follows it: the escape never completes.
std::size_t unescape(std::string_view src, char* dst)
{
    enum { REST, FIRST, SECOND } state = REST;
    unsigned value = 0;
    std::size_t n = 0;
    for (char ch : src) {
        const auto u = static_cast<unsigned char>(ch);
        switch (state) {
        case REST:
            if (ch == '+')
                dst[n++] = ' ';
            else if (ch == '%')
                state = FIRST;
            else
                dst[n++] = ch;
            break;
        case FIRST:
            value = static_cast<unsigned>(cgiHexValue[u]) << 4;
            state = SECOND;
            break;
        case SECOND:
            value += cgiHexValue[u];
            dst[n++] = static_cast<char>(value);
            state = REST;
            break;
        }
    }
    dst[n] = '\0';
    return n;
}

// One block holds the entry, its decoded key and value, and the three empty upload strings, so an
// entry is one allocation and one free.
cgiFormEntry* new_entry(std::string_view key, std::string_view value)
{
    const std::size_t size = sizeof(cgiFormEntry) + key.size() + 1 + value.size() + 1 + 3;
    auto* e = static_cast<cgiFormEntry*>(std::calloc(1, size));
    if (e == nullptr)
        return nullptr;
    char* p = reinterpret_cast<char*>(e + 1);
    e->key = p;
    p += unescape(key, p) + 1;
    e->value = p;
    const std::size_t vlen = unescape(value, p);
    e->value_length = static_cast<int>(vlen);
    p += vlen + 1;
    e->file_name = p++;
    e->content_type = p++;
    e->temp_file_name = p;
    return e;
}

}  // namespace

void cgiSetupConstants()
{
    cgiHexValue = hex_table();
}

cgiFormEntry* cgiParseGetFormInput(const char* text)
{
    if (text == nullptr)
        return nullptr;
    const std::string_view in(text);
    // value_length is an int; no query of the HTTP engine comes near this.
    if (in.size() >= static_cast<std::size_t>(INT_MAX))
        return nullptr;

    cgiFormEntry* head = nullptr;
    cgiFormEntry** tail = &head;
    std::size_t pos = 0;
    for (;;) {
        const std::size_t key_start = pos;
        while (pos < in.size() && in[pos] != '=' && in[pos] != '&')
            pos++;
        const std::string_view key = in.substr(key_start, pos - key_start);
        if (key.empty())
            break;
        if (pos < in.size() && in[pos] == '=')
            pos++;
        const std::size_t value_start = pos;
        while (pos < in.size() && in[pos] != '&')
            pos++;
        cgiFormEntry* e = new_entry(key, in.substr(value_start, pos - value_start));
        if (e == nullptr) {
            cgiFreeResources(head);
            return nullptr;
        }
        *tail = e;
        tail = &e->next;
        if (pos == in.size())
            break;
        pos++;  // the '&' that continues the scan
    }
    return head;
}

int cgiFormString(const cgiFormEntry* form, const char* key, char* result, std::size_t max)
{
    const cgiFormEntry* e = form;
    while (e != nullptr && std::strcmp(e->key, key) != 0)
        e = e->next;
    if (e == nullptr) {
        result[0] = '\0';
        return cgiFormNotFound;
    }

    // A decoded %00 ends the value for a C-string reader.
    const std::size_t src_len = ::strnlen(e->value, static_cast<std::size_t>(e->value_length));
    const std::size_t avail = max - 1;
    std::size_t len = 0;
    std::size_t crs = 0;
    std::size_t lfs = 0;
    bool truncated = false;
    for (std::size_t i = 0; i <= src_len && !truncated; i++) {
        const char ch = i < src_len ? e->value[i] : '\0';
        if (ch == '\r') {
            crs++;
            continue;
        }
        if (ch == '\n') {
            lfs++;
            continue;
        }
        // A run of CR and LF in any pattern: as many line ends as the longer of the two counts, so CR LF
        // gives one line and CR CR LF LF two.
        for (std::size_t k = crs > lfs ? crs : lfs; k != 0; k--) {
            if (len >= avail) {
                truncated = true;
                break;
            }
            result[len++] = '\n';
        }
        crs = lfs = 0;
        if (ch == '\0' || truncated)
            break;
        if (len >= avail) {
            truncated = true;
            break;
        }
        result[len++] = ch;
    }
    result[len] = '\0';
    if (truncated)
        return cgiFormTruncated;
    return len == 0 ? cgiFormEmpty : cgiFormSuccess;
}

void cgiFreeResources(cgiFormEntry* form)
{
    while (form != nullptr) {
        cgiFormEntry* next = form->next;
        if (form->temp_file_name != nullptr && form->temp_file_name[0] != '\0')
            (void)::unlink(form->temp_file_name);
        std::free(form);
        form = next;
    }
}
