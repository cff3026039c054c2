#include <foundation/core/diag/terminate.hpp>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace foundation::core::diag {

void terminate(std::string_view message, std::string_view file, int line,
               std::string_view function) {
    // One write, so that reports of concurrent threads do not interleave.
    std::string report = "Fatal error: ";
    report.append(message).append("\n  at ").append(file).append(":");
    report.append(std::to_string(line)).append("\n");
    if (!function.empty()) {
        report.append("  in ").append(function).append("\n");
    }
    std::fwrite(report.data(), 1, report.size(), stderr);
    std::fflush(stderr);
    std::abort();
}

} // namespace foundation::core::diag
