// Read-only questions about arrays: size, class, scalar tests and value
// equality.

#include "Storage.hpp"

#include <algorithm>
#include <cassert>
#include <type_traits>

using matrix::ClassID;
using namespace matrix::detail;

std::size_t dvGetNumberOfElements(const dvArray* array) noexcept {
    assert(array);
    std::size_t count = 1;
    for (std::size_t extent : ArrayAccess::dims(array)) {
        count *= extent; // cannot overflow: checked at creation
    }
    return count;
}

const matrix::Dimensions& dvGetDimensions(const dvArray* array) noexcept {
    assert(array);
    return ArrayAccess::dims(array);
}

ClassID dvGetClassID(const dvArray* array) noexcept {
    assert(array);
    return ArrayAccess::classID(array);
}

const char* dvGetClassName(const dvArray* array) noexcept {
    assert(array);
    switch (ArrayAccess::classID(array)) {
    case ClassID::Cell:
        return "cell";
    case ClassID::Struct:
        return "struct";
    case ClassID::Logical:
        return "logical";
    case ClassID::Char:
        return "char";
    case ClassID::Double:
        return "double";
    case ClassID::FunctionHandle:
        return "function_handle";
    case ClassID::String:
        return "string";
    case ClassID::Object:
        return std::get<ObjectData>(ArrayAccess::data(array).value).className.c_str();
    default:
        return "unknown";
    }
}

bool dvIsEmpty(const dvArray* array) noexcept {
    return dvGetNumberOfElements(array) == 0;
}

bool dvIsLogicalScalar(const dvArray* array) noexcept {
    return dvGetClassID(array) == ClassID::Logical && dvGetNumberOfElements(array) == 1;
}

bool dvIsRealDoubleScalar(const dvArray* array) noexcept {
    return dvGetClassID(array) == ClassID::Double && dvGetNumberOfElements(array) == 1;
}

namespace {

bool sameElements(const std::vector<ArrayRef>& a, const std::vector<ArrayRef>& b) {
    return std::ranges::equal(
        a, b, [](const ArrayRef& x, const ArrayRef& y) { return dvIsEqual(x.get(), y.get()); });
}

// Structures are equal whatever the order of their fields.
bool sameStructs(const StructData& a, const StructData& b) {
    const std::size_t numFields = a.fields.size();
    if (numFields != b.fields.size() || a.values.size() != b.values.size()) {
        return false;
    }
    for (std::size_t fa = 0; fa < numFields; ++fa) {
        const auto found = std::ranges::find(b.fields, a.fields[fa]);
        if (found == b.fields.end()) {
            return false;
        }
        const auto fb = static_cast<std::size_t>(found - b.fields.begin());
        for (std::size_t base = 0; base < a.values.size(); base += numFields) {
            if (!dvIsEqual(a.values[base + fa].get(), b.values[base + fb].get())) {
                return false;
            }
        }
    }
    return true;
}

} // namespace

bool dvIsEqual(const dvArray* a, const dvArray* b) {
    if (!a || !b) {
        return a == b;
    }
    if (ArrayAccess::classID(a) != ArrayAccess::classID(b) ||
        ArrayAccess::dims(a) != ArrayAccess::dims(b)) {
        return false;
    }
    if (ArrayAccess::sharedData(a) == ArrayAccess::sharedData(b) &&
        ArrayAccess::classID(a) != ClassID::String) { // a missing string equals nothing
        return true;
    }
    const StorageValue& vb = ArrayAccess::data(b).value;
    return std::visit(
        [&vb](const auto& x) {
            using T = std::decay_t<decltype(x)>;
            const T& y = std::get<T>(vb);
            if constexpr (std::is_same_v<T, CellData>) {
                return sameElements(x.elements, y.elements);
            } else if constexpr (std::is_same_v<T, StructData>) {
                return sameStructs(x, y);
            } else if constexpr (std::is_same_v<T, FunctionData>) {
                return x.name == y.name && x.body == y.body;
            } else if constexpr (std::is_same_v<T, ObjectData>) {
                return x.className == y.className && x.objects == y.objects;
            } else {
                return x == y;
            }
        },
        ArrayAccess::data(a).value);
}
