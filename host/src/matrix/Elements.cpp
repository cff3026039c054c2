// Element access of double, logical, char, cell, structure and object arrays.

#include "Storage.hpp"

#include <algorithm>
#include <stdexcept>

using matrix::ClassID;
using matrix::unique_dvArray;
using namespace matrix::detail;

namespace {

constexpr const char* notDouble = "Array is not double array.";
constexpr const char* notLogical = "Array is not logical array.";
constexpr const char* notCell = "Array is not cell array.";
constexpr const char* notStruct = "Array is not struct array.";
constexpr const char* notObject = "Array is not object array.";

template <class T>
const T& valueOf(const dvArray* array) {
    return std::get<T>(ArrayAccess::data(array).value);
}

template <class T>
T& detachedValueOf(dvArray* array) {
    return std::get<T>(ArrayAccess::detached(array).value);
}

// The storage of `array` to write in place; std::invalid_argument `message`
// when it is shared.
template <class T>
T& writableValueOf(dvArray* array, const char* message) {
    if (ArrayAccess::isShared(array)) {
        throw std::invalid_argument(message);
    }
    return detachedValueOf<T>(array);
}

// The elements of an object array to write in place; its memo is dropped.
ObjectData& writableObjects(dvArray* array) {
    ObjectData& data = detachedValueOf<ObjectData>(checked(array, ClassID::Object, notObject));
    data.memo.memo.store(nullptr);
    return data;
}

void checkIndex(const dvArray* array, std::size_t index, const char* message) {
    if (index >= dvGetNumberOfElements(array)) {
        throw std::out_of_range(message);
    }
}

// The position of `field` in `structure`'s values of element `index`.
std::size_t valuePosition(const StructData& structure, std::size_t index, std::string_view field) {
    const auto found = std::ranges::find(structure.fields, field);
    if (found == structure.fields.end()) {
        throw std::invalid_argument("Wrong field name.");
    }
    return index * structure.fields.size() +
           static_cast<std::size_t>(found - structure.fields.begin());
}

} // namespace

std::span<const double> dvGetDoubles(const dvArray* array) {
    return valueOf<Doubles>(checked(array, ClassID::Double, notDouble));
}

std::span<double> dvGetMutableDoubles(dvArray* array) {
    return detachedValueOf<Doubles>(checked(array, ClassID::Double, notDouble));
}

std::span<const std::uint8_t> dvGetLogicals(const dvArray* array) {
    return valueOf<Logicals>(checked(array, ClassID::Logical, notLogical));
}

std::span<std::uint8_t> dvGetMutableLogicals(dvArray* array) {
    return detachedValueOf<Logicals>(checked(array, ClassID::Logical, notLogical));
}

std::u16string_view dvGetChars(const dvArray* array) {
    return valueOf<std::u16string>(checked(array, ClassID::Char, "Array is not char array."));
}

const dvArray* dvGetCell(const dvArray* cell, std::size_t index) {
    checkIndex(checked(cell, ClassID::Cell, notCell), index, "Cell index is out of range.");
    return valueOf<CellData>(cell).elements[index].get();
}

void dvSetCell(dvArray* cell, std::size_t index, unique_dvArray value) {
    checkIndex(checked(cell, ClassID::Cell, notCell), index, "Cell index is out of range.");
    writableValueOf<CellData>(cell, "Cell array is not writable.").elements[index] =
        ArrayRef(value.release(), false);
}

const std::vector<std::string>& dvGetFieldNames(const dvArray* structure) {
    return valueOf<StructData>(checked(structure, ClassID::Struct, notStruct)).fields;
}

const dvArray* dvGetField(const dvArray* structure, std::size_t index, std::string_view field) {
    checkIndex(checked(structure, ClassID::Struct, notStruct), index,
               "Struct index is out of range.");
    const auto& data = valueOf<StructData>(structure);
    return data.values[valuePosition(data, index, field)].get();
}

void dvSetField(dvArray* structure, std::size_t index, std::string_view field,
                unique_dvArray value) {
    checkIndex(checked(structure, ClassID::Struct, notStruct), index,
               "Struct index is out of range.");
    auto& data = writableValueOf<StructData>(structure, "Struct array is not writable.");
    data.values[valuePosition(data, index, field)] = ArrayRef(value.release(), false);
}

std::shared_ptr<matrix::dvObject> dvGetObject(const dvArray* array, std::size_t index) {
    checkIndex(checked(array, ClassID::Object, notObject), index, "Object index is out of range.");
    return valueOf<ObjectData>(array).objects[index];
}

std::span<const std::shared_ptr<matrix::dvObject>> dvGetObjects(const dvArray* array) {
    return valueOf<ObjectData>(checked(array, ClassID::Object, notObject)).objects;
}

void dvSetObject(dvArray* array, std::size_t index, std::shared_ptr<matrix::dvObject> object) {
    checkIndex(checked(array, ClassID::Object, notObject), index, "Object index is out of range.");
    writableObjects(array).objects[index] = std::move(object);
}

std::shared_ptr<matrix::ObjectsMemo> dvGetObjectsMemo(const dvArray* array) {
    return valueOf<ObjectData>(checked(array, ClassID::Object, notObject)).memo.memo.load();
}

void dvSetObjectsMemo(const dvArray* array, std::shared_ptr<matrix::ObjectsMemo> memo) {
    valueOf<ObjectData>(checked(array, ClassID::Object, notObject))
        .memo.memo.store(std::move(memo));
}

void matrix::detail::setObjectArrayClass(dvArray* array, std::string className) {
    writableObjects(array).className = std::move(className);
}
