#include <parallel/language/future/OutputsOrErrorPropertyDvArray.hpp>

#include "ErrorConversion.hpp"

namespace parallel::language::future {

namespace {

// A 1-by-N cell of shared copies of the outputs (0-by-0 for none), readied
// for being held as a property.
PropertyDvArray outputsToPropertyCell(const DvArrayVector& outputs) {
    const matrix::Dimensions dims =
        outputs.empty() ? matrix::Dimensions{0, 0} : matrix::Dimensions{1, outputs.size()};
    matrix::unique_dvArray cell = matrix::detail::do_create_cell(dims);
    for (std::size_t i = 0; i < outputs.size(); ++i) {
        if (outputs[i]) {
            dvSetCell(cell.get(), i, matrix::detail::do_shared_copy(outputs[i].get()));
        }
    }
    return PropertyDvArray(
        omPrepareArrayForPropertyContainment(matrix::to_korvex(std::move(cell))));
}

} // namespace

OutputsOrErrorPropertyDvArray::OutputsOrErrorPropertyDvArray(const OutputsOrError& outputsOrError) {
    std::exception_ptr error;
    if (outputsOrError.hasError()) {
        error = outputsOrError.error();
    } else if (!outputsOrError.value().has_value()) {
        return;
    } else {
        try {
            array_ = outputsToPropertyCell(*outputsOrError.value());
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
