// Array lifetime: construction, reference counting, storage sharing and
// copy-on-write, creation of every class, shared and deep copies.

#include "Storage.hpp"

#include <foundation/core/str/Utf.hpp>

#include <algorithm>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

using matrix::ClassID;
using matrix::Dimensions;
using matrix::unique_dvArray;
using namespace matrix::detail;

dvArray_tag::dvArray_tag(ClassID classID, Shape dims, StorageRef data)
    : classID_(classID), dims_(std::move(dims)), data_(std::move(data)) {}

dvArray_tag::~dvArray_tag() = default;

void intrusive_ptr_add_ref(const dvArray* array) noexcept {
    if (array) {
        ArrayAccess::refs(array).fetch_add(1, std::memory_order_relaxed);
    }
}

namespace {
// The arrays whose last reference went while this thread was deleting
// another array (the elements of a cell or structure being deleted): the
// outermost release deletes them in turn, so that dropping an array nested
// any depth takes the stack of dropping a flat one. Null when this thread is
// deleting nothing.
thread_local std::vector<const dvArray*>* tDoomed = nullptr;

void destroyNested(const dvArray* array) noexcept {
    if (tDoomed) {
        try {
            tDoomed->push_back(array);
            return;
        } catch (...) {
            // No memory for the list: delete it here, one level deeper.
        }
        ArrayAccess::destroy(array);
        return;
    }
    std::vector<const dvArray*> doomed;
    tDoomed = &doomed;
    ArrayAccess::destroy(array);
    while (!doomed.empty()) {
        const dvArray* next = doomed.back();
        doomed.pop_back();
        ArrayAccess::destroy(next);
    }
    tDoomed = nullptr;
}
} // namespace

void intrusive_ptr_release(const dvArray* array) noexcept {
    if (array && ArrayAccess::refs(array).fetch_sub(1, std::memory_order_acq_rel) == 1) {
        destroyNested(array);
    }
}

namespace matrix {

dvObject::~dvObject() = default;
ObjectsMemo::~ObjectsMemo() = default;

namespace detail {

void dvDestroy_deleter::operator()(dvArray* array) const noexcept {
    intrusive_ptr_release(array);
}

unique_dvArray ArrayAccess::make(ClassID classID, Shape shape, StorageRef data) {
    return unique_dvArray(new dvArray(classID, std::move(shape), std::move(data)));
}

Storage& ArrayAccess::detached(dvArray* array) {
    if (isShared(array)) {
        array->data_ = StorageRef(new Storage(array->data_->value));
    }
    return *array->data_;
}

Dimensions normalized(Dimensions dims) {
    while (dims.size() < 2) {
        dims.push_back(1);
    }
    while (dims.size() > 2 && dims.back() == 1) {
        dims.pop_back();
    }
    return dims;
}

namespace {
// The shapes m-by-n with m, n in {0, 1}, at index 2 * m + n.
const Dimensions smallShapes[] = {{0, 0}, {0, 1}, {1, 0}, {1, 1}};
} // namespace

Shape shapeOf(const Dimensions& dims) {
    std::size_t length = dims.size();
    while (length > 2 && dims[length - 1] == 1) {
        --length;
    }
    const std::size_t rows = length > 0 ? dims[0] : 1;
    const std::size_t columns = length > 1 ? dims[1] : 1;
    if (length <= 2 && rows <= 1 && columns <= 1) {
        return Shape(Shape(), &smallShapes[2 * rows + columns]); // owns nothing
    }
    return std::make_shared<const Dimensions>(normalized(dims));
}

std::size_t countOf(const Dimensions& dims) {
    std::size_t count = 1;
    for (std::size_t extent : dims) {
        if (__builtin_mul_overflow(count, extent, &count)) {
            throw std::length_error("Array dimensions are too large.");
        }
    }
    return count;
}

const dvArray* checked(const dvArray* array, ClassID id, const char* message) {
    if (!array || ArrayAccess::classID(array) != id) {
        throw std::invalid_argument(message);
    }
    return array;
}

dvArray* checked(dvArray* array, ClassID id, const char* message) {
    checked(static_cast<const dvArray*>(array), id, message);
    return array;
}

unique_dvArray do_create_cell(const Dimensions& dims) {
    return ArrayAccess::make(ClassID::Cell, dims, CellData{std::vector<ArrayRef>(countOf(dims))});
}

unique_dvArray do_create_numeric(const Dimensions& dims, ClassID classID, bool real) {
    if (!real) {
        throw std::invalid_argument("Complex arrays are not supported.");
    }
    const std::size_t count = countOf(dims);
    switch (classID) {
    case ClassID::Double:
        return ArrayAccess::make(classID, shapeOf(dims),
                                 StorageRef(new Storage(std::in_place_type<Doubles>, count)));
    case ClassID::Logical:
        return ArrayAccess::make(classID, shapeOf(dims),
                                 StorageRef(new Storage(std::in_place_type<Logicals>, count)));
    default:
        throw std::invalid_argument("Numeric arrays are double or logical.");
    }
}

unique_dvArray do_create_uninitnumeric(const Dimensions& dims, ClassID classID, bool real) {
    return do_create_numeric(dims, classID, real);
}

unique_dvArray do_create_struct(const Dimensions& dims,
                                const std::vector<std::string>& fieldNames) {
    for (auto it = fieldNames.begin(); it != fieldNames.end(); ++it) {
        if (std::find(fieldNames.begin(), it, *it) != it) {
            throw std::invalid_argument("Wrong field name.");
        }
    }
    std::size_t count = countOf(dims);
    if (__builtin_mul_overflow(count, fieldNames.size(), &count)) {
        throw std::length_error("Array dimensions are too large.");
    }
    return ArrayAccess::make(ClassID::Struct, dims,
                             StructData{fieldNames, std::vector<ArrayRef>(count)});
}

unique_dvArray do_shared_copy(const dvArray* array) {
    if (!array) {
        return nullptr;
    }
    return ArrayAccess::make(ArrayAccess::classID(array), ArrayAccess::shape(array),
                             ArrayAccess::sharedData(array));
}

namespace {
ArrayRef deepCopyOf(const ArrayRef& element) {
    return ArrayRef(to_korvex(do_deep_copy(element.get())), false);
}
} // namespace

unique_dvArray do_deep_copy(const dvArray* array) {
    if (!array) {
        return nullptr;
    }
    StorageRef copy(new Storage(ArrayAccess::data(array).value));
    if (auto* cell = std::get_if<CellData>(&copy->value)) {
        std::ranges::transform(cell->elements, cell->elements.begin(), deepCopyOf);
    } else if (auto* structure = std::get_if<StructData>(&copy->value)) {
        std::ranges::transform(structure->values, structure->values.begin(), deepCopyOf);
    }
    return ArrayAccess::make(ArrayAccess::classID(array), ArrayAccess::shape(array),
                             std::move(copy));
}

} // namespace detail

unique_dvArray create(const char16_t* text, std::size_t length) {
    if (!text && length != 0) {
        throw std::invalid_argument("Text is null.");
    }
    const Dimensions dims = length == 0 ? Dimensions{0, 0} : Dimensions{1, length};
    return ArrayAccess::make(ClassID::Char, dims,
                             length == 0 ? std::u16string() : std::u16string(text, length));
}

unique_dvArray createChars(const Dimensions& dims, std::u16string text) {
    if (text.size() != countOf(dims)) {
        throw std::invalid_argument("Text does not fill the dimensions.");
    }
    return ArrayAccess::make(ClassID::Char, dims, std::move(text));
}

unique_dvArray create(const char* utf8Text, std::size_t length) {
    if (!utf8Text && length != 0) {
        throw std::invalid_argument("Text is null.");
    }
    const std::u16string text =
        length == 0 ? std::u16string() : foundation::core::str::toUtf16({utf8Text, length});
    return create(text.data(), text.size());
}

unique_dvArray dvCreateStackStruct(std::size_t n) {
    return detail::do_create_struct({n, 1}, {"file", "name", "line"});
}

unique_dvArray createObjectArray(const Dimensions& dims, std::string className) {
    std::vector<std::shared_ptr<dvObject>> objects(countOf(dims));
    return ArrayAccess::make(ClassID::Object, dims,
                             ObjectData{std::move(className), std::move(objects), {}});
}

dvArray* to_korvex(unique_dvArray&& array) noexcept {
    return array.release();
}

unique_dvArray from_korvex(dvArray* array) noexcept {
    return unique_dvArray(array);
}

void destroyArray(dvArray* array) noexcept {
    intrusive_ptr_release(array);
}

} // namespace matrix

unique_dvArray dvCreateLogicalScalar(bool value) {
    return ArrayAccess::make(
        ClassID::Logical, shapeOf({}), // no dimensions: 1-by-1
        StorageRef(new Storage(std::in_place_type<Logicals>, 1, static_cast<std::uint8_t>(value))));
}

unique_dvArray dvCreateDoubleScalar(double value) {
    return ArrayAccess::make(ClassID::Double, shapeOf({}), // 1-by-1
                             StorageRef(new Storage(std::in_place_type<Doubles>, 1, value)));
}

unique_dvArray dvDuplicateArray(const dvArray* array) {
    return matrix::detail::do_deep_copy(array);
}
