#pragma once

#include <cstdint>

namespace parallel::language::future {

// The outcome of FutureBase::fetchNext.
enum class FetchNextState : std::int32_t {
    InvalidFuture = 0,
    Fetched = 1,
    NoUnreadFutures = 2,
    TimedOut = 3,
    UnsupportedFutureType = 4,
    NotSubmitted = 5,
};

} // namespace parallel::language::future
