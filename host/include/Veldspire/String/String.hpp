#pragma once

// String arrays of the interpreter: arrays of class "string" whose elements
// are each a text or missing. A string scalar has exactly one element.
// Values as any array (see matrix/dvArray.hpp); any thread.

#include <host/Export.hpp>
#include <matrix/dvArray.hpp>

#include <optional>
#include <string>
#include <vector>

namespace Veldspire::String {

// One element: a text, or missing (nullopt).
using Element = std::optional<std::u16string>;

// A string array of the given dimensions; `elements` in column-major order,
// as many as the dimensions describe (std::invalid_argument otherwise).
QZHOST_API matrix::unique_dvArray create(const matrix::Dimensions& dims,
                                         std::vector<Element> elements);
// A 1-by-1 string array.
QZHOST_API matrix::unique_dvArray createScalar(Element element);

// Whether `array` is a string array of any size. Null is not.
QZHOST_API bool isString(const dvArray* array) noexcept;

// The one element of a string scalar. std::invalid_argument "Array is not
// string scalar." for anything else.
QZHOST_API const Element& getString(const dvArray* array);

} // namespace Veldspire::String
