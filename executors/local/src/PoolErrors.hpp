#pragma once

// Errors of the local pool's language classes. Texts in the host catalogue.

#include <foundation/core/except/Exception.hpp>

namespace KORVEX::localpool {
// No pool is open for the language (setLanguagePool).
QZHOST_ERROR_TAG("KORVEX:localpool", NoPool)
// The number of outputs is not a whole, non-negative double scalar.
QZHOST_ERROR_TAG("KORVEX:localpool", InvalidNumOutputs)
// An argument is missing or of the wrong kind.
QZHOST_ERROR_TAG("KORVEX:localpool", InvalidArgument)
} // namespace KORVEX::localpool

namespace localpool::errors {
using NoPool = foundation::core::except::Exception<::KORVEX::localpool::NoPool>;
using InvalidNumOutputs =
    foundation::core::except::Exception<::KORVEX::localpool::InvalidNumOutputs>;
using InvalidArgument = foundation::core::except::Exception<::KORVEX::localpool::InvalidArgument>;
} // namespace localpool::errors
