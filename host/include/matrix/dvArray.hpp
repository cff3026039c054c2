#pragma once

// The host array library: every value exchanged with the language is a dvArray.
//
// Ownership: an array carries an atomic reference count. A freshly created
// array has one reference, held by the returned matrix::unique_dvArray.
// boost::intrusive_ptr<dvArray> adds and drops references; a raw dvArray*
// released with matrix::to_korvex carries one reference that the receiver
// must give back through matrix::destroyArray or matrix::from_korvex.
//
// Values: a shared copy (do_shared_copy) shares the element storage and the
// dimensions and behaves as an independent value; every write detaches
// shared storage first (copy-on-write), except dvSetCell/dvSetField, which
// refuse to write shared storage. An array's dimensions never change. Arrays
// may be read from any thread; a given array object is written by one thread
// at a time. Reference counting is thread-safe. An array's root record is
// made when first asked for.
//
// Element order is column-major throughout.

#include <host/Export.hpp>

#include <boost/intrusive_ptr.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

class dvArray_tag;
using dvArray = dvArray_tag;

namespace matrix {

// Class identifiers of host arrays.
enum class ClassID : int {
    Unknown = 0,
    Cell = 1,
    Struct = 2,
    Logical = 3,
    Char = 4,
    Double = 6,
    FunctionHandle = 16,
    Object = 18,
    String = 19,
};

using Dimensions = std::vector<std::size_t>;

// An element of an object array: an instance of a class of the class-object
// system, or an error object. Shared between the arrays that hold it.
class QZHOST_API dvObject {
public:
    virtual ~dvObject();
    virtual const std::string& className() const noexcept = 0;
};

// The callable behind a function-handle value: (number of outputs, inputs) ->
// outputs. An error of the function leaves as an exception.
using FunctionBody = std::function<std::vector<boost::intrusive_ptr<dvArray>>(
    std::size_t numOutputs, const std::vector<boost::intrusive_ptr<dvArray>>& inputs)>;

// The memory root record of an array. Giving it a parent record accounts the
// array's memory to the parent's owner (an object). Any thread.
class QZHOST_API RootRecord {
public:
    std::shared_ptr<RootRecord> getParent() const;
    void setParent(std::shared_ptr<RootRecord> parent);
    // True when `owner` is this record or one of its ancestors.
    bool isAccountedTo(const RootRecord* owner) const;

private:
    mutable std::mutex mutex_;
    std::shared_ptr<RootRecord> parent_;
};
using RootRecordPtr = std::shared_ptr<RootRecord>;

// What a library remembers about the elements of an object array (for
// example the native objects behind them), kept with the element storage
// that the array shares with its shared copies. A memo lives as long as that
// storage and is dropped by the first write to the elements (dvSetObject,
// a change of class); a copy made by copy-on-write starts without one. A
// library derives its own kind and recognises it with dynamic_cast.
class QZHOST_API ObjectsMemo {
public:
    virtual ~ObjectsMemo();
};

namespace detail {
struct QZHOST_API dvDestroy_deleter {
    void operator()(dvArray* array) const noexcept;
};
struct Storage;
struct ArrayAccess;
} // namespace detail

using unique_dvArray = std::unique_ptr<dvArray, detail::dvDestroy_deleter>;

} // namespace matrix

class QZHOST_API dvArray_tag {
public:
    dvArray_tag(const dvArray_tag&) = delete;
    dvArray_tag& operator=(const dvArray_tag&) = delete;

private:
    friend struct matrix::detail::ArrayAccess;
    dvArray_tag(matrix::ClassID classID, std::shared_ptr<const matrix::Dimensions> dims,
                boost::intrusive_ptr<matrix::detail::Storage> data);
    ~dvArray_tag();

    mutable std::atomic<long> refs_{1};
    matrix::ClassID classID_;
    // Fixed for the array's life; shared with its shared copies.
    std::shared_ptr<const matrix::Dimensions> dims_;
    boost::intrusive_ptr<matrix::detail::Storage> data_;
    // Null until first asked for.
    mutable std::atomic<matrix::RootRecordPtr> root_;
};

QZHOST_API void intrusive_ptr_add_ref(const dvArray* array) noexcept;
QZHOST_API void intrusive_ptr_release(const dvArray* array) noexcept;

namespace matrix {
namespace detail {
// A new cell array whose elements are empty (null).
QZHOST_API unique_dvArray do_create_cell(const Dimensions& dims);
// A new zero-filled double or logical array. `real` false (complex) is not
// supported and throws std::invalid_argument.
QZHOST_API unique_dvArray do_create_numeric(const Dimensions& dims, ClassID classID,
                                            bool real = true);
QZHOST_API unique_dvArray do_create_uninitnumeric(const Dimensions& dims, ClassID classID,
                                                  bool real = true);
// A new structure array with the given fields, in order, all elements empty.
QZHOST_API unique_dvArray do_create_struct(const Dimensions& dims,
                                           const std::vector<std::string>& fieldNames);
// A cheap copy that behaves as an independent value.
QZHOST_API unique_dvArray do_shared_copy(const dvArray* array);
// A full copy: element storage, cell and field elements are copied recursively.
QZHOST_API unique_dvArray do_deep_copy(const dvArray* array);

// The host's argument-count errors, thrown as typed exceptions with the
// identifiers "KORVEX:maxlhs", "KORVEX:maxrhs" and "KORVEX:minrhs".
[[noreturn]] QZHOST_API void error_maxlhs();
[[noreturn]] QZHOST_API void error_maxrhs();
[[noreturn]] QZHOST_API void error_minrhs();

// Gives an object array another class name (for the class-object system).
// Throws std::invalid_argument "Array is not object array." for other arrays.
QZHOST_API void setObjectArrayClass(dvArray* array, std::string className);
} // namespace detail

// A 1-by-N char row.
QZHOST_API unique_dvArray create(const char16_t* text, std::size_t length);
QZHOST_API unique_dvArray create(const char* utf8Text, std::size_t length);
// A char array of the given dimensions; `text` holds the characters in
// column-major order and must have as many as the dimensions describe
// (std::invalid_argument otherwise).
QZHOST_API unique_dvArray createChars(const Dimensions& dims, std::u16string text);
// An n-by-1 call-stack structure with fields "file", "name", "line".
QZHOST_API unique_dvArray dvCreateStackStruct(std::size_t n);
// An object array of one class; its elements are null until set.
QZHOST_API unique_dvArray createObjectArray(const Dimensions& dims, std::string className);
// A 1-by-1 function-handle value that runs `body`.
QZHOST_API unique_dvArray createFunctionHandle(std::string name, FunctionBody body);

// Releases the owning pointer into a raw pointer that carries its reference.
QZHOST_API dvArray* to_korvex(unique_dvArray&& array) noexcept;
// Adopts a raw pointer and its reference.
QZHOST_API unique_dvArray from_korvex(dvArray* array) noexcept;
// Drops the reference carried by a raw pointer; null is ignored.
QZHOST_API void destroyArray(dvArray* array) noexcept;
} // namespace matrix

// Scalars.
QZHOST_API matrix::unique_dvArray dvCreateLogicalScalar(bool value);
QZHOST_API matrix::unique_dvArray dvCreateDoubleScalar(double value);
// Same as matrix::detail::do_deep_copy.
QZHOST_API matrix::unique_dvArray dvDuplicateArray(const dvArray* array);

// Queries. Null arrays are not allowed.
QZHOST_API std::size_t dvGetNumberOfElements(const dvArray* array) noexcept;
QZHOST_API const matrix::Dimensions& dvGetDimensions(const dvArray* array) noexcept;
QZHOST_API matrix::ClassID dvGetClassID(const dvArray* array) noexcept;
// "cell", "struct", "logical", "char", "double", "function_handle",
// "string", or the class name of an object array.
QZHOST_API const char* dvGetClassName(const dvArray* array) noexcept;
QZHOST_API bool dvIsEmpty(const dvArray* array) noexcept;
QZHOST_API bool dvIsLogicalScalar(const dvArray* array) noexcept;
QZHOST_API bool dvIsRealDoubleScalar(const dvArray* array) noexcept;
// Value equality of class, dimensions and elements (recursive for cells and
// structures; object elements compare by identity).
QZHOST_API bool dvIsEqual(const dvArray* a, const dvArray* b);

// Converts a whole, finite, non-negative double to an index; anything else
// throws the typed exception "KORVEX:badsubscript".
QZHOST_API std::size_t dvCheckIndex(double value);

// Element data. Each throws std::invalid_argument when the array is of
// another class ("Array is not double array.", "Array is not logical array.",
// "Array is not char array.").
QZHOST_API std::span<const double> dvGetDoubles(const dvArray* array);
QZHOST_API std::span<double> dvGetMutableDoubles(dvArray* array);
QZHOST_API std::span<const std::uint8_t> dvGetLogicals(const dvArray* array);
QZHOST_API std::span<std::uint8_t> dvGetMutableLogicals(dvArray* array);
QZHOST_API std::u16string_view dvGetChars(const dvArray* array);

// Cells. Errors: std::invalid_argument "Array is not cell array.",
// "Cell array is not writable." (dvSetCell on shared storage);
// std::out_of_range "Cell index is out of range.".
// The element, not transferred; null when empty.
QZHOST_API const dvArray* dvGetCell(const dvArray* cell, std::size_t index);
// Stores `value` (may be null) into the element in place, releasing the old one.
QZHOST_API void dvSetCell(dvArray* cell, std::size_t index, matrix::unique_dvArray value);

// Structures. Errors: std::invalid_argument "Array is not struct array.",
// "Struct array is not writable.", "Wrong field name."; std::out_of_range
// "Struct index is out of range.".
QZHOST_API const std::vector<std::string>& dvGetFieldNames(const dvArray* structure);
QZHOST_API const dvArray* dvGetField(const dvArray* structure, std::size_t index,
                                     std::string_view field);
QZHOST_API void dvSetField(dvArray* structure, std::size_t index, std::string_view field,
                           matrix::unique_dvArray value);

// Objects. Errors: std::invalid_argument "Array is not object array.";
// std::out_of_range "Object index is out of range.".
QZHOST_API std::shared_ptr<matrix::dvObject> dvGetObject(const dvArray* array, std::size_t index);
// Every element at once, in element order; valid while the array is neither
// written nor released.
QZHOST_API std::span<const std::shared_ptr<matrix::dvObject>> dvGetObjects(const dvArray* array);
QZHOST_API void dvSetObject(dvArray* array, std::size_t index,
                            std::shared_ptr<matrix::dvObject> object);
// The memo of the array's element storage (see matrix::ObjectsMemo); null
// when none. Any thread.
QZHOST_API std::shared_ptr<matrix::ObjectsMemo> dvGetObjectsMemo(const dvArray* array);
// Attaches `memo` to the array's element storage, replacing the one there.
// Any thread; the storage is not written otherwise.
QZHOST_API void dvSetObjectsMemo(const dvArray* array, std::shared_ptr<matrix::ObjectsMemo> memo);

// Function handles. Errors: std::invalid_argument "Array is not function handle.".
QZHOST_API const std::string& dvGetFunctionHandleName(const dvArray* function);
// Calls the function for `numOutputs` outputs, written to `outputs` as owning
// raw pointers. Asking for more outputs than the function gives raises
// "KORVEX:maxlhs"; the function's own errors pass through.
QZHOST_API void dvInvokeFunctionHandle(const dvArray* function, std::size_t numOutputs,
                                       dvArray** outputs, std::size_t numInputs,
                                       dvArray* const* inputs);
// As above, the outputs returned: no buffer is sized by `numOutputs` before
// the function has given that many.
QZHOST_API std::vector<boost::intrusive_ptr<dvArray>>
dvInvokeFunctionHandle(const dvArray* function, std::size_t numOutputs,
                       const std::vector<boost::intrusive_ptr<dvArray>>& inputs);

// Root records.
QZHOST_API matrix::RootRecordPtr dvGetRootRecordForArray(const dvArray* array);
QZHOST_API void dvSetParentRoot(const matrix::RootRecordPtr& child,
                                const matrix::RootRecordPtr& parent);
