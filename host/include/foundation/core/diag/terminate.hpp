#pragma once

#include <host/Export.hpp>

#include <string_view>

namespace foundation::core::diag {

// Ends the process: writes "Fatal error: <message>" with the source file,
// line and function to standard error, then aborts. Any thread.
[[noreturn]] QZHOST_API void terminate(std::string_view message, std::string_view file, int line,
                                       std::string_view function = {});

} // namespace foundation::core::diag
