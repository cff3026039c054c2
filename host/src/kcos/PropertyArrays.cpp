// Arrays held as object properties, and 1-by-1 object arrays.

#include <kcos/array.hpp>

#include <stdexcept>

namespace kcos {

void property_array_deleter::operator()(dvArray* array) const noexcept {
    matrix::destroyArray(array);
}

matrix::unique_dvArray array::create(std::shared_ptr<matrix::dvObject> object) {
    if (!object) {
        throw std::invalid_argument("Object is null.");
    }
    auto result = matrix::createObjectArray({1, 1}, object->className());
    dvSetObject(result.get(), 0, std::move(object));
    return result;
}

} // namespace kcos

dvArray* omPrepareArrayForPropertyContainment(dvArray* array) {
    return array;
}

dvArray* omCopyArrayForPropertyContainment(const dvArray* array) {
    return matrix::to_korvex(matrix::detail::do_shared_copy(array));
}
