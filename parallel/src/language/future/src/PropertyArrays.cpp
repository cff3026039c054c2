#include "PropertyArrays.hpp"

#include <kcos/COSInterface.hpp>

#include <stdexcept>

namespace parallel::language::future::detail {

PropertyDvArray makePropertyCell(const DvArrayVector& values) {
    const matrix::Dimensions dims =
        values.empty() ? matrix::Dimensions{0, 0} : matrix::Dimensions{1, values.size()};
    matrix::unique_dvArray cell = matrix::detail::do_create_cell(dims);
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (values[i]) {
            dvSetCell(cell.get(), i, matrix::detail::do_shared_copy(values[i].get()));
        }
    }
    return PropertyDvArray(
        omPrepareArrayForPropertyContainment(matrix::to_korvex(std::move(cell))));
}

matrix::unique_dvArray copyArray(const dvArray* array) {
    if (array == nullptr) {
        return nullptr;
    }
    if (kcosDoesArrayContainLegacyObjects(array)) {
        return dvDuplicateArray(array);
    }
    return matrix::detail::do_shared_copy(array);
}

std::optional<DvArrayVector> readCell(const dvArray* cell) {
    if (cell == nullptr) {
        return std::nullopt;
    }
    if (dvGetClassID(cell) != matrix::ClassID::Cell) {
        throw std::invalid_argument("Array is not cell array.");
    }
    const std::size_t count = dvGetNumberOfElements(cell);
    DvArrayVector values;
    values.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        values.emplace_back(matrix::to_korvex(copyArray(dvGetCell(cell, i))), false);
    }
    return values;
}

} // namespace parallel::language::future::detail
