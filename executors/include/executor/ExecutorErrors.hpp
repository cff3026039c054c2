#pragma once

// The errors every executor raises alike. Texts in the host catalogue.

#include <foundation/core/except/Exception.hpp>

namespace KORVEX::executor {
// The function to evaluate is not a function handle.
QZHOST_ERROR_TAG("KORVEX:executor", InvalidFunction)
// Work submitted to a pool that is shutting down or shut down.
QZHOST_ERROR_TAG("KORVEX:executor", PoolShutDown)
// Tasks pinned to the workers, but not one per worker (arguments: the number
// of tasks, the number of workers).
QZHOST_ERROR_TAG("KORVEX:executor", PinnedTaskCount)
// The language classes: no pool is set for the language (setLanguagePool).
QZHOST_ERROR_TAG("KORVEX:executor", NoPool)
// The language classes: the number of outputs is not a whole, non-negative
// double scalar.
QZHOST_ERROR_TAG("KORVEX:executor", InvalidNumOutputs)
// The language classes: an argument is missing or of the wrong kind.
QZHOST_ERROR_TAG("KORVEX:executor", InvalidArgument)
} // namespace KORVEX::executor

namespace executor::errors {
using InvalidFunction = foundation::core::except::Exception<::KORVEX::executor::InvalidFunction>;
using PoolShutDown = foundation::core::except::Exception<::KORVEX::executor::PoolShutDown>;
using PinnedTaskCount = foundation::core::except::Exception<::KORVEX::executor::PinnedTaskCount>;
using NoPool = foundation::core::except::Exception<::KORVEX::executor::NoPool>;
using InvalidNumOutputs =
    foundation::core::except::Exception<::KORVEX::executor::InvalidNumOutputs>;
using InvalidArgument = foundation::core::except::Exception<::KORVEX::executor::InvalidArgument>;
} // namespace executor::errors
