#include "memory/orbs3_workspace.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::size_t WS_ALIGN = sizeof(void*);

bool ws_aligned(const void* p)
{
    return (reinterpret_cast<uintptr_t>(p) & (WS_ALIGN - 1)) == 0;
}

std::size_t ws_round_up(std::size_t n)
{
    return (n + (WS_ALIGN - 1)) & ~(WS_ALIGN - 1);
}

std::size_t ws_round_down(std::size_t n)
{
    return n & ~(WS_ALIGN - 1);
}

// A broken invariant means the caller wrote outside its reservation or mixed up the protocol; carrying
// on would corrupt whatever is built next, so stop where the fault is still visible.
[[noreturn]] void ws_fail(const orbs3_ws_t* ws, const char* cond, const char* func)
{
    std::fprintf(stderr, "%s: workspace \"%s\": assertion failed: %s\n", func,
                 (ws != nullptr && ws->id != nullptr) ? ws->id : "", cond);
    std::abort();
}

}  // namespace

#define WS_CHECK(ws, cond)                        \
    do {                                          \
        if (!(cond))                              \
            ws_fail((ws), #cond, __func__);       \
    } while (0)

void ws_assert(const orbs3_ws_t* ws)
{
    WS_CHECK(ws, ws != nullptr);
    WS_CHECK(ws, ws->s != nullptr);
    WS_CHECK(ws, ws_aligned(ws->s));
    WS_CHECK(ws, ws->e != nullptr);
    WS_CHECK(ws, ws_aligned(ws->e));
    WS_CHECK(ws, ws->s < ws->e);
    WS_CHECK(ws, ws->f >= ws->s);
    WS_CHECK(ws, ws->f <= ws->e);
    WS_CHECK(ws, ws_aligned(ws->f));
    if (ws->r != nullptr) {
        WS_CHECK(ws, ws->r > ws->s);
        WS_CHECK(ws, ws->r <= ws->e);
        WS_CHECK(ws, ws_aligned(ws->r));
    }
}

void ws_init(orbs3_ws_t* ws, const char* id, void* space, std::size_t len)
{
    std::memset(ws, 0, sizeof(*ws));
    ws->id = id;
    ws->s = static_cast<char*>(space);
    ws->f = ws->s;
    ws->e = ws->s + len;
    ws_assert(ws);
}

void ws_reset(orbs3_ws_t* ws, char* pos)
{
    ws_assert(ws);
    WS_CHECK(ws, ws->r == nullptr);
    if (pos == nullptr) {
        ws->f = ws->s;
    } else {
        WS_CHECK(ws, pos >= ws->s && pos <= ws->e);
        ws->f = pos;
    }
    ws_assert(ws);
}

char* ws_alloc(orbs3_ws_t* ws, std::size_t size)
{
    ws_assert(ws);
    WS_CHECK(ws, ws->r == nullptr);
    std::size_t avail = static_cast<std::size_t>(ws->e - ws->f);
    // Compare before rounding so that a size near the top of the range cannot wrap to a small one.
    if (size > avail || ws_round_up(size) > avail) {
        ws->overflow++;
        return nullptr;
    }
    char* p = ws->f;
    ws->f += ws_round_up(size);
    return p;
}

char* ws_dup(orbs3_ws_t* ws, const char* text)
{
    std::size_t len = std::strlen(text);
    char* p = ws_alloc(ws, len + 1);
    if (p != nullptr)
        std::memcpy(p, text, len + 1);
    return p;
}

std::size_t ws_free(const orbs3_ws_t* ws)
{
    ws_assert(ws);
    return static_cast<std::size_t>(ws->e - ws->f);
}

char* ws_snapshot(const orbs3_ws_t* ws)
{
    ws_assert(ws);
    return ws->f;
}

// A reservation of fewer than 8 bytes rounds to nothing and leaves r at f; the invariants are checked
// again only when it is released.
std::size_t ws_reserve(orbs3_ws_t* ws, std::size_t size)
{
    ws_assert(ws);
    WS_CHECK(ws, ws->r == nullptr);
    std::size_t avail = static_cast<std::size_t>(ws->e - ws->f);
    std::size_t b = (size != 0 && size <= avail) ? ws_round_down(size) : ws_round_down(avail);
    ws->r = ws->f + b;
    return b;
}

void ws_release(orbs3_ws_t* ws, std::size_t used)
{
    WS_CHECK(ws, ws->r != nullptr);
    WS_CHECK(ws, ws->f <= ws->r);
    WS_CHECK(ws, used <= static_cast<std::size_t>(ws->r - ws->f));
    // r - f is a multiple of 8, so rounding up stays inside the reservation.
    ws->f += ws_round_up(used);
    ws->r = nullptr;
    ws_assert(ws);
}

void ws_releasep(orbs3_ws_t* ws, const char* end)
{
    WS_CHECK(ws, ws->r != nullptr);
    WS_CHECK(ws, end >= ws->f);
    ws_release(ws, static_cast<std::size_t>(end - ws->f));
}
