#include <parallel/language/future/FutureErrors.hpp>
#include <parallel/language/future/UnavailableFuture.hpp>

#include <gtest/gtest.h>

namespace parallel::language::future {
namespace {

TEST(UnavailableFuture, KnowsNothingAndRefusesWhatNeedsWork) {
    auto lost = std::make_shared<UnavailableFuture>();
    EXPECT_TRUE(lost->isInvalid());
    EXPECT_EQ(lost->getID(), FutureBase::invalidID);
    EXPECT_STREQ(lost->getCosAliasName(), "parallel.Future");
    EXPECT_EQ(lost->getState(), FutureState::Unavailable);
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
    EXPECT_STREQ(UnavailableFuture("parallel.FevalFuture").getCosAliasName(),
                 "parallel.FevalFuture");
}

} // namespace
} // namespace parallel::language::future
