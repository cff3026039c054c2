#include <parallel/language/future/UnavailableFuture.hpp>

#include <gtest/gtest.h>

namespace parallel::language::future {
namespace {

// Its ID, state and class names are read through the language (FutureClassTest.cpp),
// and continuations on it are refused (AfterEachFutureTest.cpp).
TEST(UnavailableFuture, KnowsNothingAndRefusesNothing) {
    auto lost = std::make_shared<UnavailableFuture>();
    EXPECT_NO_THROW(lost->cancel());
    EXPECT_FALSE(lost->hasError());
    EXPECT_FALSE(lost->getOutputs().getAsSingle().has_value());
    EXPECT_TRUE(lost->getInputs().getAsSingle().value().empty());
}

} // namespace
} // namespace parallel::language::future
