#pragma once

// Object arrays of the class-object system, and arrays held as object
// properties. An object array has one class (its class name, as
// dvGetClassName reports it); its elements are objects of that class, of its
// subclasses or aliases, or null. Interpreter thread.
//
// Raw dvArray* results carry one reference (release with
// matrix::destroyArray or adopt with matrix::from_korvex).
//
// Errors: std::invalid_argument "Array is not object array.";
// std::out_of_range "Object index is out of range.".

#include <host/Export.hpp>
#include <kcos/COSInterface.hpp>
#include <kcos/Interned.hpp>
#include <matrix/dvArray.hpp>

#include <cstddef>
#include <memory>
#include <vector>

namespace kcos {

// Releases an array held as an object property.
struct QZHOST_API property_array_deleter {
    void operator()(dvArray* array) const noexcept;
};

namespace array {
// A 1-by-1 object array holding `object`, of the object's class.
QZHOST_API matrix::unique_dvArray create(std::shared_ptr<matrix::dvObject> object);
// An object array of class `className` with null elements.
QZHOST_API matrix::unique_dvArray create(const matrix::Dimensions& dims, InternedName className);
QZHOST_API matrix::unique_dvArray create(std::size_t rows, std::size_t columns,
                                         InternedName className);
} // namespace array

} // namespace kcos

// An object array of class `className` and dimensions `dims`, null elements.
QZHOST_API dvArray* omCreateKCOSArray(kcos::InternedName className, const matrix::Dimensions& dims);
// A 1-by-1 array of the object's class holding the object. An empty handle
// throws std::invalid_argument "Object is null.".
QZHOST_API dvArray* omCreateKCOSScalar(const kcos::COSInterfacePtr& object);
// A 0-by-0 array of class `className`.
QZHOST_API dvArray* omCreateKCOSEmpty(kcos::InternedName className);

// Element `index` (linear, column-major). Elements that are no objects of the
// class-object system (error objects) and null elements give an empty handle.
QZHOST_API kcos::COSInterfacePtr omGetArrayElement(const dvArray* array, std::size_t index);
// The object itself, not a new handle; null as for omGetArrayElement.
QZHOST_API kcos::COSInterface* omGetLiveArrayElement(dvArray* array, std::size_t index);
// One element of dvGetObjects as omGetLiveArrayElement gives it.
QZHOST_API kcos::COSInterface* omLiveObjectOf(matrix::dvObject* element) noexcept;
// Stores the handle's object (an empty handle stores null). The array's
// storage is detached first when shared.
QZHOST_API void omSetArrayElement(dvArray* array, std::size_t index,
                                  const kcos::COSInterfacePtr& object);
// Gives an array that holds objects of several related classes their common
// class. The class must exist (UndefinedClass).
QZHOST_API void omSetClassOfHeterogeneousArray(dvArray* array, kcos::InternedName className);

// A new object of `cls` holding `data` as its instance data under the class's
// interned name; the object owns the data from now on. Strong handle.
QZHOST_API kcos::COSInterfacePtr omWrapData(kcos::COSClass* cls, void* data);

// Readies an array, passed with its reference, for being held as a property;
// returns the array to hold (the stand-in keeps no temporaries, so it is the
// array itself). Null gives null.
QZHOST_API dvArray* omPrepareArrayForPropertyContainment(dvArray* array);
// A shared copy of `array`, readied for being held as a property.
QZHOST_API dvArray* omCopyArrayForPropertyContainment(const dvArray* array);
