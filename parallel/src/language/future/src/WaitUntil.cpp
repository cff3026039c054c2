#include "WaitUntil.hpp"

#include <cmath>

namespace parallel::language::future::detail {

namespace {
// Waits longer than this (about 30 years) have no limit.
constexpr double kUnboundedWaitSeconds = 1e9;
} // namespace

bool waitUntil(const boost::shared_future<void>& future, const SteadyTimePoint& deadline) {
    const double remaining = (deadline - clock::getCurrentSteadyTime()).count();
    if (std::isnan(remaining) || remaining <= 0.0) {
        return future.wait_for(boost::chrono::seconds(0)) == boost::future_status::ready;
    }
    if (remaining > kUnboundedWaitSeconds) {
        future.wait();
        return true;
    }
    return future.wait_until(stdToBoostTimepoint(deadline)) == boost::future_status::ready;
}

} // namespace parallel::language::future::detail
