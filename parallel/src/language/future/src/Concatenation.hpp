#pragma once

// Vertical concatenation through the interpreter's own "vertcat".
// Interpreter thread.

#include <parallel/language/future/OutputsOrErrorPropertyDvArray.hpp>

#include <Veldspire/KException/KExceptionEnvelope.hpp>
#include <interpreter/Kdispatcher.hpp>

#include <optional>

namespace parallel::language::future::detail {

// "vertcat" of `parts`, looked up in the current scope and called for one
// output. Any failure raises Failure (a typed error without arguments): as an
// envelope whose cause is the failure when that is a language error, or
// plainly otherwise.
template <class Failure>
boost::intrusive_ptr<dvArray> concatenateVertically(const DvArrayVector& parts) {
    using Veldspire::KException::KExceptionEnvelope;
    std::optional<KExceptionEnvelope> cause;
    try {
        Kdispatcher& dispatcher = Kdispatcher::getDispatcher();
        const std::optional<Kfunction_handle> vertcat =
            dispatcher.lookup("vertcat", dispatcher.GetCurrentlyExecutingFunctionScope());
        if (vertcat) {
            return (*vertcat)(parts);
        }
    } catch (const KExceptionEnvelope& error) {
        cause = error;
    } catch (const foundation::core::except::IUserException& error) {
        cause = KExceptionEnvelope(error, matrix::dvCreateStackStruct(0));
    } catch (...) {
    }
    if (!cause) {
        throw Failure();
    }
    KExceptionEnvelope failure(Failure(), matrix::dvCreateStackStruct(0));
    failure.AddCause(*cause);
    throw failure;
}

} // namespace parallel::language::future::detail
