#pragma once

// Private to the array library: the element storage behind a dvArray and the
// one place that reaches into dvArray_tag's private members.

#include <matrix/dvArray.hpp>

#include <boost/container/small_vector.hpp>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace matrix::detail {

using ArrayRef = boost::intrusive_ptr<dvArray>;

struct CellData {
    std::vector<ArrayRef> elements; // null: empty element
};

struct StructData {
    std::vector<std::string> fields;
    std::vector<ArrayRef> values; // values[index * fields.size() + field]; null: empty
};

struct FunctionData {
    std::string name;
    std::shared_ptr<const FunctionBody> body; // shared by every copy
};

// A string array: each element a text, or missing (nullopt). A missing
// string equals nothing, itself included.
struct StringData {
    std::vector<std::optional<std::u16string>> elements;
    bool operator==(const StringData& other) const {
        return std::equal(elements.begin(), elements.end(), other.elements.begin(),
                          other.elements.end(),
                          [](const auto& a, const auto& b) { return a && b && *a == *b; });
    }
};

// The memo slot of an object array's storage. A copy of the storage starts
// with an empty slot. Any thread: the memo is swapped atomically.
struct ObjectsMemoSlot {
    ObjectsMemoSlot() = default;
    ObjectsMemoSlot(const ObjectsMemoSlot&) noexcept {}
    ObjectsMemoSlot& operator=(const ObjectsMemoSlot&) noexcept {
        memo.store(nullptr);
        return *this;
    }
    std::atomic<std::shared_ptr<ObjectsMemo>> memo;
};

struct ObjectData {
    std::string className;
    std::vector<std::shared_ptr<dvObject>> objects;
    // Not part of the value: never compared, dropped by every write.
    mutable ObjectsMemoSlot memo;
};

// Numeric elements. A few are kept inline (within the room the largest
// alternative of StorageValue takes anyway), so that a scalar's storage is a
// single allocation.
using Doubles = boost::container::small_vector<double, 6>;
using Logicals = boost::container::small_vector<std::uint8_t, 48>;
static_assert(sizeof(Doubles) <= sizeof(ObjectData) && sizeof(Logicals) <= sizeof(ObjectData));

// One alternative per class: Double, Logical (0/1), Char (UTF-16), Cell,
// Struct, FunctionHandle, Object, String.
using StorageValue = std::variant<Doubles, Logicals, std::u16string, CellData, StructData,
                                  FunctionData, ObjectData, StringData>;

// The element storage, shared by an array and its shared copies through
// StorageRef. The last reference deletes it.
struct Storage {
    // Constructs the value from `args` (e.g. std::in_place_type<Doubles>,
    // count): numeric elements are built in place rather than moved in.
    template <class... Args>
    explicit Storage(Args&&... args) : value(std::forward<Args>(args)...) {}

    StorageValue value;
    // The references to this storage, one per array using it. Released on
    // leaving and acquired on the "am I the only user" test, so that a writer
    // that finds itself alone sees every read of users released on other
    // threads.
    std::atomic<long> users{0};
};

// Any thread.
inline void intrusive_ptr_add_ref(Storage* storage) noexcept {
    storage->users.fetch_add(1, std::memory_order_relaxed);
}
inline void intrusive_ptr_release(Storage* storage) noexcept {
    if (storage->users.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete storage;
    }
}
using StorageRef = boost::intrusive_ptr<Storage>;
using Shape = std::shared_ptr<const Dimensions>;

// `dims` with at least two entries (missing ones are 1) and no trailing
// singleton beyond the second.
Dimensions normalized(Dimensions dims);
// normalized(dims), held for an array. The common small shapes (1-by-1,
// 0-by-0, 1-by-0, 0-by-1) are one immutable instance each, shared without
// allocating.
Shape shapeOf(const Dimensions& dims);
// The product of `dims` (the same for normalized(dims)); std::length_error
// when it overflows.
std::size_t countOf(const Dimensions& dims);

struct ArrayAccess {
    static unique_dvArray make(ClassID classID, Shape shape, StorageRef data);
    static unique_dvArray make(ClassID classID, const Dimensions& dims, StorageValue value) {
        return make(classID, shapeOf(dims), StorageRef(new Storage(std::move(value))));
    }
    static void destroy(const dvArray* array) noexcept { delete array; }

    static std::atomic<long>& refs(const dvArray* array) noexcept { return array->refs_; }
    static ClassID classID(const dvArray* array) noexcept { return array->classID_; }
    static const Dimensions& dims(const dvArray* array) noexcept { return *array->dims_; }
    static const Shape& shape(const dvArray* array) noexcept { return array->dims_; }
    static const Storage& data(const dvArray* array) noexcept { return *array->data_; }
    static const StorageRef& sharedData(const dvArray* array) noexcept { return array->data_; }
    // The array's root record, made on the first request. Any thread.
    static RootRecordPtr root(const dvArray* array);

    static bool isShared(const dvArray* array) noexcept {
        return array->data_->users.load(std::memory_order_acquire) > 1;
    }
    // The storage to write in place; a shared one is copied first.
    static Storage& detached(dvArray* array);
};

// `array` when it is non-null and of class `id`; std::invalid_argument
// `message` otherwise.
const dvArray* checked(const dvArray* array, ClassID id, const char* message);
dvArray* checked(dvArray* array, ClassID id, const char* message);

} // namespace matrix::detail
