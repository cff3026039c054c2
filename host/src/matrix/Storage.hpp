#pragma once

// Private to the array library: the element storage behind a dvArray and the
// one place that reaches into dvArray_tag's private members.

#include <matrix/dvArray.hpp>

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

// One alternative per class: Double, Logical (0/1), Char (UTF-16), Cell,
// Struct, FunctionHandle, Object, String.
using StorageValue = std::variant<std::vector<double>, std::vector<std::uint8_t>, std::u16string,
                                  CellData, StructData, FunctionData, ObjectData, StringData>;

struct Storage {
    explicit Storage(StorageValue v) : value(std::move(v)) {}

    StorageValue value;
    // The number of arrays using this storage (the shared_ptr's use count
    // among arrays). Counted here, with release on leaving and acquire on the
    // "am I the only user" test, so that a writer that finds itself alone
    // sees every read of users released on other threads.
    std::atomic<long> users{0};
};

struct ArrayAccess {
    static unique_dvArray make(ClassID classID, const Dimensions& dims,
                               std::shared_ptr<Storage> data);
    static unique_dvArray make(ClassID classID, const Dimensions& dims, StorageValue value) {
        return make(classID, dims, std::make_shared<Storage>(std::move(value)));
    }
    static void destroy(const dvArray* array) noexcept { delete array; }

    static std::atomic<long>& refs(const dvArray* array) noexcept { return array->refs_; }
    static ClassID classID(const dvArray* array) noexcept { return array->classID_; }
    static const Dimensions& dims(const dvArray* array) noexcept { return array->dims_; }
    static const Storage& data(const dvArray* array) noexcept { return *array->data_; }
    static const std::shared_ptr<Storage>& sharedData(const dvArray* array) noexcept {
        return array->data_;
    }
    static const RootRecordPtr& root(const dvArray* array) noexcept { return array->root_; }

    static bool isShared(const dvArray* array) noexcept {
        return array->data_->users.load(std::memory_order_acquire) > 1;
    }
    // The storage to write in place; a shared one is copied first.
    static Storage& detached(dvArray* array);
};

// `dims` with at least two entries (missing ones are 1) and no trailing
// singleton beyond the second.
Dimensions normalized(Dimensions dims);
// The product of `dims`; std::length_error when it overflows.
std::size_t countOf(const Dimensions& dims);

// `array` when it is non-null and of class `id`; std::invalid_argument
// `message` otherwise.
const dvArray* checked(const dvArray* array, ClassID id, const char* message);
dvArray* checked(dvArray* array, ClassID id, const char* message);

} // namespace matrix::detail
