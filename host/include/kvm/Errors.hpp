#pragma once

#include <foundation/core/except/Exception.hpp>

// Tag of the interpreter's interrupt error, thrown as
// foundation::core::except::Exception<KORVEX::interrupted> when the user
// stops a running operation (Ctrl-C). Its text is the host catalogue's entry
// "KORVEX:interrupted"; it takes no arguments.

namespace KORVEX {

QZHOST_ERROR_TAG("KORVEX", interrupted)

} // namespace KORVEX
