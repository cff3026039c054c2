#pragma once

// Reading the arguments of the methods of "parallel.Future": option names,
// their values, timeouts, state words and numbers of outputs. Each raises
// the language error its method documents. Interpreter thread.

#include <parallel/language/future/FutureState.hpp>
#include <parallel/language/future/TimeTypes.hpp>

#include <matrix/dvArray.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace parallel::language::future::binding {

// `array` as ASCII text: a char array of any shape or a string scalar that
// is not missing, every character below 128. Empty for anything else (null
// included).
std::optional<std::string> asciiText(const dvArray* array);

// A class name: a char row, a 0-by-0 char array or a string scalar, as
// UTF-8. Raises MissingNotSupported for a missing string,
// MustBeStringScalarOrCharacterVector for anything else.
std::string parseClassName(const dvArray* name);

// Whether `name` names `option`: as ASCII text, at most as long as the
// option and equal to its first characters, letters compared without case.
// The empty text names every option.
bool matchesOption(const dvArray* name, std::string_view option);

// Timeouts of the waiting methods. A valid timeout is a real double scalar
// that is not NaN and at least 0 (infinity included).
bool isValidTimeout(const dvArray* timeout);
// The seconds of a valid timeout.
Seconds timeoutOf(const dvArray* timeout);
// The wait of a method given no timeout: as long as it takes.
Seconds noTimeout();

// The value of a logical array with exactly one element.
std::optional<bool> singleLogical(const dvArray* value);

// Running or Finished for the words "running" and "finished" in any letter
// case. Raises InvalidStateToWait for the other state words,
// FailedToInterpretState for anything else.
FutureState parseStateWord(const dvArray* word);

// The number of outputs of a continuation. Raises
// CreateFutureInvalidNumOutputs unless it is a whole double scalar that fits,
// CreateFutureNegativeNumOutputArgs when it is below 0.
unsigned int parseNumOutputs(const dvArray* number);

// Raises the error of an option name given without its value:
// ParamMustBeChar when the name is no text, ParamMissingValue otherwise.
[[noreturn]] void raiseMissingValue(const dvArray* name);

// The value of the option "PassFuture" given as `name` and `value`. Raises
// ParamMustBeChar, UnmatchedParameter or the invalid-type error.
bool parsePassFuture(const dvArray* name, const dvArray* value);

} // namespace parallel::language::future::binding
