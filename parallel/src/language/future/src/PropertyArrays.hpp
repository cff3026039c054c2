#pragma once

// Conversions between vectors of arrays and the cell arrays a future keeps
// as properties. Interpreter thread (they create and copy host arrays).

#include <parallel/language/future/OutputsOrErrorPropertyDvArray.hpp>

#include <optional>

namespace parallel::language::future::detail {

// A 1-by-N cell of shared copies of `values` (0-by-0 when there are none;
// null values stay empty elements), readied for being held as a property.
PropertyDvArray makePropertyCell(const DvArrayVector& values);

// A copy of `array` that behaves as an independent value: deep for arrays
// holding legacy objects, shared otherwise. Null gives null.
matrix::unique_dvArray copyArray(const dvArray* array);

// The elements of a stored cell as copies; null gives an empty optional.
// Throws std::invalid_argument "Array is not cell array." for other arrays.
std::optional<DvArrayVector> readCell(const dvArray* cell);

} // namespace parallel::language::future::detail
