// Bounded formatter for log lines, headers and record texts. None of these functions writes a
// terminator: each returns the byte behind the last one written, and the caller terminates if it needs
// to. A bounded call writes exactly the first bytes of what an unbounded one would write.
//
// A conversion is "%", an optional "0" (pad with zeros instead of blanks), a decimal width, modifiers,
// and a letter. The width applies to numbers and counts the sign; zero padding goes between sign and
// digits. For f it covers the sign and the integer part.
//
//   modifiers  u        unsigned
//              x, X     hexadecimal, small or capital letters, unsigned
//              m        maximum width: 20 for i and A
//              .digits  precision of f
//              *        a size_t length argument for the next string
//   letters    d, D     int32_t / uint32_t
//              i, A     int64_t / uint64_t word
//              l, L, z  int64_t / uint64_t
//              O, T, r  int64_t, always signed
//              P        int32_t, always signed
//              M        uint64_t time; all ones prints as -1
//              f        double; the fraction is rounded at the precision, a carry goes into the integer
//              p        pointer: 16 capital hexadecimal digits
//              s        const char*, up to its terminator or the * length; with x/X two digits per byte
//              V        const orbs3_str_t*; hexadecimal as for s
//              v        const neo_variable_value_t*; hexadecimal as for s
//              c        one byte (an int argument)
//              Z        a zero byte
//              N        a newline
//              %        a percent sign
// Any other letter is copied unchanged. A null text prints "(null)".
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "memory/orbs3_palloc.h"

// A value with flags: the length is the low 28 bits of the first word, the data pointer follows.
struct neo_variable_value_t {
    uint32_t len : 28;
    uint32_t valid : 1;
    uint32_t no_cacheable : 1;
    uint32_t not_found : 1;
    uint32_t escape : 1;
    const char* data;
};

char* neo_vslprintf(char* buf, char* last, const char* fmt, va_list args);

// Unbounded: the caller guarantees the room.
char* neo_sprintf(char* buf, const char* fmt, ...);
// At most `max` bytes.
char* neo_snprintf(char* buf, std::size_t max, const char* fmt, ...);
// Up to the end pointer `last`.
char* neo_slprintf(char* buf, char* last, const char* fmt, ...);

// The same over byte buffers (orbs3_buf_t).
template <typename... Args>
uint8_t* neo_sprintf(uint8_t* buf, const char* fmt, Args... args)
{
    return reinterpret_cast<uint8_t*>(neo_sprintf(reinterpret_cast<char*>(buf), fmt, args...));
}
template <typename... Args>
uint8_t* neo_snprintf(uint8_t* buf, std::size_t max, const char* fmt, Args... args)
{
    return reinterpret_cast<uint8_t*>(neo_snprintf(reinterpret_cast<char*>(buf), max, fmt, args...));
}
template <typename... Args>
uint8_t* neo_slprintf(uint8_t* buf, uint8_t* last, const char* fmt, Args... args)
{
    return reinterpret_cast<uint8_t*>(
        neo_slprintf(reinterpret_cast<char*>(buf), reinterpret_cast<char*>(last), fmt, args...));
}
