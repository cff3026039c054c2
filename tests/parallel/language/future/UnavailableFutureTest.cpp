#include <parallel/language/future/FutureErrors.hpp>
#include <parallel/language/future/UnavailableFuture.hpp>

#include <gtest/gtest.h>

namespace parallel::language::future {
namespace {

// Its ID, state and class names are read through the language (FutureClassTest.cpp).
TEST(UnavailableFuture, KnowsNothingAndRefusesWhatNeedsWork) {
    auto lost = std::make_shared<UnavailableFuture>();
    EXPECT_EQ(lost->getDiary().getAsSingle(), u"");
    EXPECT_EQ(lost->getCreateTime(), WallClockTimePoint());
    EXPECT_EQ(lost->getRunningDuration().count(), 0.0);
    EXPECT_NO_THROW(lost->cancel());
    EXPECT_FALSE(lost->hasError());
    EXPECT_FALSE(lost->getOutputs().getAsSingle().has_value());
    EXPECT_TRUE(lost->getInputs().getAsSingle().value().empty());
    bool ran = false;
    EXPECT_THROW(lost->afterFinishThen(boost::launch::sync, [&] { ran = true; }),
                 errors::ContinuationOnPending);
    EXPECT_FALSE(ran);
}

} // namespace
} // namespace parallel::language::future
