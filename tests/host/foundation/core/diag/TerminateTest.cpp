#include <foundation/core/diag/terminate.hpp>

#include <gtest/gtest.h>

using foundation::core::diag::terminate;

TEST(TerminateDeathTest, ReportsMessageSourceAndFunctionWhenGivenThenAborts) {
    EXPECT_DEATH(terminate("Unknown policy.", "src/Promise.cpp", 42, "void f()"),
                 "Fatal error: Unknown policy\\.\n  at src/Promise\\.cpp:42\n  in void f\\(\\)\n");
    EXPECT_DEATH(terminate("Boom.", "a.cpp", 7), "Fatal error: Boom\\.\n  at a\\.cpp:7\n$");
}
