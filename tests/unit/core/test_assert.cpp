#include <gtest/gtest.h>

#include "memory/orbs3_assert.h"

namespace {

int twice(int* calls)
{
    ++*calls;
    return 2;
}

}  // namespace

// A broken invariant stops the process and names where and what, so a sanitizer or fuzzer run points at it.
TEST(Assert, BrokenInvariantAbortsWithPlaceAndExpression)
{
    if (!orbs3_asserts_on)
        GTEST_SKIP() << "assertions are compiled out in this build";
    int calls = 0;
    EXPECT_DEATH(ORBS3_ASSERT(twice(&calls) == 3), "test_assert\\.cpp:[0-9]+: assertion failed: twice\\(&calls\\) == 3");
    ORBS3_ASSERT(twice(&calls) == 2);
    EXPECT_EQ(calls, 1);
}

// Without assertions the expression is only compiled: a release build pays nothing for it.
TEST(Assert, ReleaseBuildNeverEvaluates)
{
    if (orbs3_asserts_on)
        GTEST_SKIP() << "assertions are checked in this build";
    int calls = 0;
    ORBS3_ASSERT(twice(&calls) == 3);
    EXPECT_EQ(calls, 0);
}
