// Workspaces: a fixed arena with a reservation protocol, for building text in place.
#pragma once

#include <cstddef>
#include <cstdint>

struct orbs3_ws_t {
    uint64_t overflow;  // how many allocations failed
    const char* id;     // the caller's label
    char* s;            // start of the space
    char* f;            // front: first free byte
    char* r;            // end of an open reservation, null if none
    char* e;            // end of the space
};

// Space and length must be aligned to 8.
void ws_init(orbs3_ws_t* ws, const char* id, void* space, std::size_t len);
void ws_reset(orbs3_ws_t* ws, char* pos);  // pos null: back to the start
[[nodiscard]] char* ws_alloc(orbs3_ws_t* ws, std::size_t size);
[[nodiscard]] char* ws_dup(orbs3_ws_t* ws, const char* text);
std::size_t ws_free(const orbs3_ws_t* ws);
char* ws_snapshot(const orbs3_ws_t* ws);
std::size_t ws_reserve(orbs3_ws_t* ws, std::size_t size);
void ws_release(orbs3_ws_t* ws, std::size_t used);
void ws_releasep(orbs3_ws_t* ws, const char* end);
// Checks the invariants; a broken one is a fault of the calling code and aborts with the condition's text.
void ws_assert(const orbs3_ws_t* ws);
