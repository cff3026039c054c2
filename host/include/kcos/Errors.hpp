#pragma once

#include <foundation/core/except/Exception.hpp>

// Tags of the class-object system's typed exceptions, thrown as
// foundation::core::except::Exception<KORVEX::kcos::NoSuchProperty> and so
// on. Their texts are the host catalogue's entries of the same identifiers.

namespace KORVEX::kcos {

// No class of that name. Argument: the class name.
QZHOST_ERROR_TAG("KORVEX:kcos", UndefinedClass)

// Arguments: the property name, the class name.
QZHOST_ERROR_TAG("KORVEX:kcos", NoSuchProperty)
QZHOST_ERROR_TAG("KORVEX:kcos", GetProhibited)
QZHOST_ERROR_TAG("KORVEX:kcos", SetProhibited)

// Arguments: the method name, the class name.
QZHOST_ERROR_TAG("KORVEX:kcos", NoSuchMethod)
QZHOST_ERROR_TAG("KORVEX:kcos", MethodProhibited)

// The object was deleted. No arguments.
QZHOST_ERROR_TAG("KORVEX:kcos", InvalidHandle)

// Property access needs a 1-by-1 object array. No arguments.
QZHOST_ERROR_TAG("KORVEX:kcos", ScalarObjectRequired)

// A method's input is not of its declared type. Arguments: the method name,
// the 1-based input position, the expected type.
QZHOST_ERROR_TAG("KORVEX:kcos", InvalidInputType)

} // namespace KORVEX::kcos

namespace KORVEX {
// No language function of that name. Argument: the function name.
QZHOST_ERROR_TAG("KORVEX", UndefinedFunction)
} // namespace KORVEX
