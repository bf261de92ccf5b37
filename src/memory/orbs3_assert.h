// ORBS3_ASSERT(expr): an invariant the code relies on but the input cannot break. The sanitize and fuzz
// builds (ORBS3_ASSERTS=1) check it, print "file:line: assertion failed: expr" to stderr and abort, so the
// sanitizer's report and the fuzzer's crash point at the broken invariant rather than at its late effects.
// The release build compiles the expression (it must stay valid code) but never evaluates it: an assertion
// costs nothing on the request path there, and must therefore have no side effect the program needs.
// Bad input from the network is never asserted: it is answered where it is parsed.
#pragma once

#include <cstdio>
#include <cstdlib>

#if defined(ORBS3_ASSERTS) && ORBS3_ASSERTS
inline constexpr bool orbs3_asserts_on = true;
#else
inline constexpr bool orbs3_asserts_on = false;
#endif

[[noreturn]] inline void orbs3_assert_fail(const char* file, int line, const char* expr) noexcept
{
    std::fprintf(stderr, "%s:%d: assertion failed: %s\n", file, line, expr);
    std::fflush(stderr);
    std::abort();
}

#define ORBS3_ASSERT(expr)                                                  \
    do {                                                                    \
        if constexpr (orbs3_asserts_on) {                                   \
            if (!(expr))                                                    \
                orbs3_assert_fail(__FILE__, __LINE__, #expr);               \
        } else {                                                            \
            (void)sizeof(static_cast<bool>(expr));                          \
        }                                                                   \
    } while (false)
