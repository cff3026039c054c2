#include <parallel/language/future/TimeTypes.hpp>

#include <cstdint>
#include <ratio>

namespace parallel::language::future {

BoostSteadyTimePoint stdToBoostTimepoint(const SteadyTimePoint& timePoint) {
    return BoostSteadyTimePoint(
        boost::chrono::duration<double>(timePoint.time_since_epoch().count()));
}

namespace clock {

WallClockTimePoint getCurrentTime() {
    using Ticks = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;
    const auto ticks =
        std::chrono::duration_cast<Ticks>(std::chrono::system_clock::now().time_since_epoch());
    return WallClockTimePoint(Seconds(static_cast<double>(ticks.count()) / 1e7));
}

SteadyTimePoint getCurrentSteadyTime() {
    const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::chrono::steady_clock::now().time_since_epoch());
    return SteadyTimePoint(Seconds(static_cast<double>(nanoseconds.count()) / 1e9));
}

Seconds calcDuration(const WallClockTimePoint& start, const WallClockTimePoint& finish) {
    if (start.time_since_epoch().count() == 0.0) {
        return Seconds(0.0);
    }
    if (finish.time_since_epoch().count() == 0.0) {
        return getCurrentTime() - start;
    }
    return finish - start;
}

} // namespace clock
} // namespace parallel::language::future
