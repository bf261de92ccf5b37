// A reply head being built in a fixed area. Text that would not fit marks the head as overflowing
// instead of being cut, so a head that goes out is always whole; one byte stays free for a NUL.
#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

template <std::size_t N>
struct orbs3_head_text {
    char data[N];
    std::size_t len = 0;
    bool overflow = false;

    void put(std::string_view s)
    {
        if (overflow || s.size() > N - 1 - len) {
            overflow = true;
            return;
        }
        std::memcpy(data + len, s.data(), s.size());
        len += s.size();
        data[len] = '\0';
    }
    void put(const char* s) { put(std::string_view(s != nullptr ? s : "")); }
    void put_number(uint64_t v)
    {
        char digits[24];
        auto res = std::to_chars(digits, digits + sizeof digits, v);
        put(std::string_view(digits, static_cast<std::size_t>(res.ptr - digits)));
    }
};
