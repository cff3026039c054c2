#include <parallel/language/future/FutureState.hpp>
#include <parallel/language/future/TimeTypes.hpp>

#include <gtest/gtest.h>

namespace parallel::language::future {
namespace {

WallClockTimePoint at(double secondsSinceEpoch) {
    return WallClockTimePoint(Seconds(secondsSinceEpoch));
}

TEST(TimeTypes, StatesAreOrderedAsWaitingExpects) {
    EXPECT_LT(FutureState::Pending, FutureState::Queued);
    EXPECT_LT(FutureState::Running, FutureState::Finished);
    for (FutureState s :
         {FutureState::Pending, FutureState::Queued, FutureState::Running, FutureState::Finished}) {
        EXPECT_GT(FutureState::Unavailable, s);
    }
}

TEST(TimeTypes, DurationIsZeroUntilStartedAndFixedOnceFinished) {
    EXPECT_EQ(clock::calcDuration(at(0.0), at(0.0)).count(), 0.0);
    EXPECT_EQ(clock::calcDuration(at(0.0), at(50.0)).count(), 0.0);
    EXPECT_DOUBLE_EQ(clock::calcDuration(at(100.0), at(102.5)).count(), 2.5);
    const WallClockTimePoint oneHourAgo = clock::getCurrentTime() - Seconds(3600.0);
    const double running = clock::calcDuration(oneHourAgo, at(0.0)).count();
    EXPECT_GE(running, 3600.0);
    EXPECT_LT(running, 3700.0);
}

TEST(TimeTypes, ClocksReadTheirSystemCounterparts) {
    const double before =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    const double now = clock::getCurrentTime().time_since_epoch().count();
    EXPECT_NEAR(now, before, 1.0);

    const SteadyTimePoint steady = clock::getCurrentSteadyTime();
    const double boostNow =
        boost::chrono::duration<double>(boost::chrono::steady_clock::now().time_since_epoch())
            .count();
    EXPECT_NEAR(stdToBoostTimepoint(steady).time_since_epoch().count(), boostNow, 1.0);
}

TEST(TimeTypes, SteadyTimePointsCrossToBoostUnchanged) {
    const SteadyTimePoint deadline(Seconds(12.5));
    EXPECT_EQ(stdToBoostTimepoint(deadline).time_since_epoch().count(), 12.5);
}

} // namespace
} // namespace parallel::language::future
