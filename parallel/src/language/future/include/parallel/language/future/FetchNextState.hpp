#pragma once

#include <cstdint>

namespace parallel::language::future {

// The outcome of FutureBase::fetchNext, the first match in the order the
// futures are visited. Only Fetched comes with an index and outputs. The
// numeric values are part of the contract.
enum class FetchNextState : std::int32_t {
    InvalidFuture = 0,         // a future is unavailable (ID -1)
    Fetched = 1,               // an unread finished future was taken and marked read
    NoUnreadFutures = 2,       // some were submitted, all of them are read
    TimedOut = 3,              // unread futures remain, none finished in time
    UnsupportedFutureType = 4, // a future has several tasks
    NotSubmitted = 5,          // no future was ever submitted
};

} // namespace parallel::language::future
