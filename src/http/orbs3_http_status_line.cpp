#include "http/orbs3_http_status_line.h"

namespace {

enum status_state_e : uint32_t {
    ST_START = 0,
    ST_H,
    ST_HT,
    ST_HTT,
    ST_HTTP,
    ST_MAJOR_FIRST,
    ST_MAJOR,
    ST_MINOR_FIRST,
    ST_MINOR,
    ST_STATUS,
    ST_AFTER_STATUS,
    ST_TEXT,
    ST_CR,
};

bool is_digit(uint8_t ch)
{
    return ch >= '0' && ch <= '9';
}

}  // namespace

int orbs3_http_parse_status_line(orbs3_buf_t* buffer, orbs3_http_status_t* status)
{
    uint32_t state = status->state;
    if (state > ST_CR)
        return -1;
    if (state == ST_START) {
        status->http_version = 0;
        status->code = 0;
        status->count = 0;
        status->start = nullptr;
        status->end = nullptr;
        status->http_major = 0;
        status->http_minor = 0;
    }

    uint8_t* p = buffer->pos;
    for (; p < buffer->last; p++) {
        uint8_t ch = *p;
        switch (state) {
        case ST_START:
            if (ch != 'H')
                return -1;
            state = ST_H;
            break;
        case ST_H:
            if (ch != 'T')
                return -1;
            state = ST_HT;
            break;
        case ST_HT:
            if (ch != 'T')
                return -1;
            state = ST_HTT;
            break;
        case ST_HTT:
            if (ch != 'P')
                return -1;
            state = ST_HTTP;
            break;
        case ST_HTTP:
            if (ch != '/')
                return -1;
            state = ST_MAJOR_FIRST;
            break;
        case ST_MAJOR_FIRST:
            if (ch < '1' || ch > '9')
                return -1;
            status->http_major = static_cast<uint16_t>(ch - '0');
            state = ST_MAJOR;
            break;
        case ST_MAJOR:
            if (ch == '.') {
                state = ST_MINOR_FIRST;
                break;
            }
            // Three digits at most, as in a request line: a number above 99 takes no further digit.
            if (!is_digit(ch) || status->http_major > 99)
                return -1;
            status->http_major = static_cast<uint16_t>(status->http_major * 10 + (ch - '0'));
            break;
        case ST_MINOR_FIRST:
            if (!is_digit(ch))
                return -1;
            status->http_minor = static_cast<uint16_t>(ch - '0');
            state = ST_MINOR;
            break;
        case ST_MINOR:
            if (ch == ' ') {
                state = ST_STATUS;
                break;
            }
            if (!is_digit(ch) || status->http_minor > 99)
                return -1;
            status->http_minor = static_cast<uint16_t>(status->http_minor * 10 + (ch - '0'));
            break;
        case ST_STATUS:
            if (ch == ' ' && status->count == 0)
                break;
            if (!is_digit(ch))
                return -1;
            status->code = status->code * 10 + static_cast<uint32_t>(ch - '0');
            if (++status->count == 3) {
                status->start = p - 2;
                state = ST_AFTER_STATUS;
            }
            break;
        case ST_AFTER_STATUS:
            // A '.' follows the code in the sub-status some servers send ("403.1").
            if (ch == ' ' || ch == '.') {
                state = ST_TEXT;
            } else if (ch == '\r') {
                status->end = p;
                state = ST_CR;
            } else if (ch == '\n') {
                goto done;
            } else {
                return -1;
            }
            break;
        case ST_TEXT:
            if (ch == '\r') {
                status->end = p;
                state = ST_CR;
            } else if (ch == '\n') {
                goto done;
            }
            break;
        case ST_CR:
            if (ch != '\n')
                return -1;
            goto done;
        }
    }

    buffer->pos = p;
    status->state = state;
    return -2;

done:
    buffer->pos = p + 1;
    if (status->end == nullptr)
        status->end = p;
    status->http_version = uint32_t{status->http_major} * 1000 + status->http_minor;
    status->state = ST_START;
    return 0;
}
