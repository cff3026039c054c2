#pragma once

#include <cstdint>

namespace parallel::language::future {

// The state of a task or future. The numeric order is part of the contract:
// waiting compares states with <=, so a state "at least" another one has a
// value not below it. Unavailable sorts after every other state.
enum class FutureState : std::int32_t {
    Pending = 0,     // created, not yet submitted
    Queued = 1,      // waiting in an executor's queue
    Running = 2,     // executing
    Finished = 3,    // completed, failed or cancelled
    Unavailable = 4, // nothing can be known
};

} // namespace parallel::language::future
