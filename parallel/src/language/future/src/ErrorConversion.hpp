#pragma once

// Turning exceptions into language errors.

#include <Veldspire/KException/KExceptionEnvelope.hpp>
#include <matrix/dvArray.hpp>

#include <exception>

namespace parallel::language::future::detail {

// Normalises any exception into an envelope, trying in order: an error of the
// command distributor, an envelope (taken unchanged), a typed user exception,
// a std::exception (StdException with its what() text), anything else
// (UnknownGetErrors). A null pointer counts as an unknown error.
Veldspire::KException::KExceptionEnvelope toKExceptionEnvelope(const std::exception_ptr& error);

// The error object array of toKExceptionEnvelope(error); null for a null pointer.
matrix::unique_dvArray toErrorDvArray(const std::exception_ptr& error);

} // namespace parallel::language::future::detail
