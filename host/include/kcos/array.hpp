#pragma once

// The parts of the class-object system that hold arrays as object properties
// and make object arrays. Interpreter thread.

#include <host/Export.hpp>
#include <matrix/dvArray.hpp>

#include <memory>

namespace kcos {

// Releases an array held as an object property.
struct QZHOST_API property_array_deleter {
    void operator()(dvArray* array) const noexcept;
};

namespace array {
// A 1-by-1 object array holding `object`, of the object's class.
QZHOST_API matrix::unique_dvArray create(std::shared_ptr<matrix::dvObject> object);
} // namespace array

} // namespace kcos

// Readies an array, passed with its reference, for being held as a property;
// returns the array to hold (the stand-in keeps no temporaries, so it is the
// array itself). Null gives null.
QZHOST_API dvArray* omPrepareArrayForPropertyContainment(dvArray* array);
// A shared copy of `array`, readied for being held as a property.
QZHOST_API dvArray* omCopyArrayForPropertyContainment(const dvArray* array);
