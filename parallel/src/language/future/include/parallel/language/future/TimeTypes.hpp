#pragma once

// Clock types of tasks and futures. Wall-clock times are seconds since
// 1970-01-01 UTC, 0.0 meaning "not set"; deadlines are seconds on the steady
// clock.

#include <parallel/language/future/Export.hpp>

#include <boost/chrono/duration.hpp>
#include <boost/chrono/system_clocks.hpp>

#include <chrono>

namespace parallel::language::future {

using Seconds = std::chrono::duration<double>;
using WallClockTimePoint = std::chrono::time_point<std::chrono::system_clock, Seconds>;
using SteadyTimePoint = std::chrono::time_point<std::chrono::steady_clock, Seconds>;
using BoostSteadyTimePoint =
    boost::chrono::time_point<boost::chrono::steady_clock, boost::chrono::duration<double>>;

// The same count of seconds on Boost's steady clock, which reads the same
// monotonic counter as the standard one.
QZ_FUTURE_API BoostSteadyTimePoint stdToBoostTimepoint(const SteadyTimePoint& timePoint);

namespace clock {
// The system clock now, in whole 100-nanosecond ticks. Any thread.
QZ_FUTURE_API WallClockTimePoint getCurrentTime();
// The steady clock now, nanosecond resolution. Any thread.
QZ_FUTURE_API SteadyTimePoint getCurrentSteadyTime();
// 0 when `start` is not set; time since `start` while `finish` is not set;
// otherwise finish - start.
QZ_FUTURE_API Seconds calcDuration(const WallClockTimePoint& start,
                                   const WallClockTimePoint& finish);
} // namespace clock

} // namespace parallel::language::future
