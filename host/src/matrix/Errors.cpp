// The array library's typed errors: bad subscripts and argument counts.

#include <foundation/core/except/Exception.hpp>
#include <matrix/Errors.hpp>
#include <matrix/dvArray.hpp>

#include <cmath>

using foundation::core::except::Exception;

std::size_t dvCheckIndex(double value) {
    // 2^64 is the first double past the largest size_t.
    constexpr double limit = 18446744073709551616.0;
    if (!(value >= 0.0 && value < limit && std::trunc(value) == value)) {
        throw Exception<KORVEX::badsubscript>();
    }
    return static_cast<std::size_t>(value);
}

namespace matrix::detail {

void error_maxlhs() {
    throw Exception<KORVEX::maxlhs>();
}

void error_maxrhs() {
    throw Exception<KORVEX::maxrhs>();
}

void error_minrhs() {
    throw Exception<KORVEX::minrhs>();
}

} // namespace matrix::detail
