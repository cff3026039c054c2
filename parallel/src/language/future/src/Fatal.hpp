#pragma once

// Ends the process on a broken invariant of the library, naming the place of
// the call. Any thread.
//
// The place is Boost's source_location: it is std::source_location where the
// standard library has it, and Clang 14 with libstdc++ 12 does not.

#include <foundation/core/diag/terminate.hpp>

#include <boost/assert/source_location.hpp>

#include <string_view>

namespace parallel::language::future::detail {

// Writes `message` with the caller's file, line and function, then aborts.
[[noreturn]] inline void fatal(std::string_view message,
                               const boost::source_location& where = BOOST_CURRENT_LOCATION) {
    foundation::core::diag::terminate(message, where.file_name(), static_cast<int>(where.line()),
                                      where.function_name());
}

} // namespace parallel::language::future::detail
