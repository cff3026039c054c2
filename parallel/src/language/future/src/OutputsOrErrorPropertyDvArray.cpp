#include <parallel/language/future/OutputsOrErrorPropertyDvArray.hpp>

#include "ErrorConversion.hpp"
#include "PropertyArrays.hpp"

namespace parallel::language::future {

OutputsOrErrorPropertyDvArray::OutputsOrErrorPropertyDvArray(const OutputsOrError& outputsOrError) {
    std::exception_ptr error;
    if (outputsOrError.hasError()) {
        error = outputsOrError.error();
    } else if (!outputsOrError.value().has_value()) {
        return;
    } else {
        try {
            array_ = detail::makePropertyCell(*outputsOrError.value());
            return;
        } catch (...) {
            error = std::current_exception();
        }
    }
    matrix::unique_dvArray errorArray = detail::toErrorDvArray(error);
    array_.reset(omPrepareArrayForPropertyContainment(matrix::to_korvex(std::move(errorArray))));
    isError_ = true;
}

} // namespace parallel::language::future
