#pragma once

#include <foundation/core/except/Exception.hpp>

// Tags of the array library's typed exceptions, thrown as
// foundation::core::except::Exception<KORVEX::badsubscript> and so on. Their
// texts are the host catalogue's entries "KORVEX:badsubscript",
// "KORVEX:maxlhs", "KORVEX:maxrhs" and "KORVEX:minrhs"; none takes arguments.

namespace KORVEX {

QZHOST_ERROR_TAG("KORVEX", badsubscript)

// Too many outputs requested.
QZHOST_ERROR_TAG("KORVEX", maxlhs)

// Too many inputs.
QZHOST_ERROR_TAG("KORVEX", maxrhs)

// Not enough inputs.
QZHOST_ERROR_TAG("KORVEX", minrhs)

} // namespace KORVEX
