#pragma once

#include <cstdint>

namespace parallel::language::future {

// How FutureBase::getOutputsAs joins output k of several tasks. Any value
// other than Concatenated is treated as Cell.
enum class OutputFormat : std::int32_t {
    Concatenated = 0, // vertical concatenation
    Cell = 1,         // an N-by-1 cell array, one row per task
};

} // namespace parallel::language::future
