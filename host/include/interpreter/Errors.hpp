#pragma once

#include <foundation/core/except/Exception.hpp>

// Tags of the concatenation errors of the built-in "vertcat", thrown to the
// language as error envelopes made from
// foundation::core::except::Exception<KORVEX::catenate::dimensionMismatch>
// and Exception<KORVEX::catenate::classMismatch>. Their texts are the host
// catalogue's entries of the same identifiers; neither takes arguments.

namespace KORVEX::catenate {

// The arrays do not have the same number of columns, or one is not 2-D.
QZHOST_ERROR_TAG("KORVEX:catenate", dimensionMismatch)

// The arrays' classes cannot be combined into one array.
QZHOST_ERROR_TAG("KORVEX:catenate", classMismatch)

} // namespace KORVEX::catenate
