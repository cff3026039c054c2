#pragma once

#include <parallel/language/future/TimeTypes.hpp>

#include <boost/thread/future.hpp>

namespace parallel::language::future::detail {

// True when `future` is ready by `deadline`. A deadline that has passed, or
// is not a number, only looks; one further away than the Boost wait can
// count (the largest finite double stands for no deadline) waits without a
// limit. Exceptions of the Boost wait pass through. Any thread.
bool waitUntil(const boost::shared_future<void>& future, const SteadyTimePoint& deadline);

} // namespace parallel::language::future::detail
