#include "ErrorConversion.hpp"
#include "Fatal.hpp"

#include <parallel/language/future/FutureErrors.hpp>

#include <cmddistributor/RuntimeException.hpp>
#include <foundation/core/str/Utf.hpp>
#include <kcos/array.hpp>

namespace parallel::language::future::detail {

namespace {

using Veldspire::KException::KExceptionEnvelope;

KExceptionEnvelope envelopeOf(const foundation::core::except::IUserException& error) {
    return KExceptionEnvelope(error, matrix::dvCreateStackStruct(0));
}

std::exception_ptr normalise(const std::exception_ptr& error) {
    if (!error) {
        return std::make_exception_ptr(envelopeOf(errors::UnknownGetErrors()));
    }
    try {
        std::rethrow_exception(error);
    } catch (const cmddistributor::RuntimeException& e) {
        return std::make_exception_ptr(Veldspire::KException::CreateKException(e));
    } catch (const KExceptionEnvelope&) {
        return std::current_exception();
    } catch (const foundation::core::except::IUserException& e) {
        return std::make_exception_ptr(envelopeOf(e));
    } catch (const std::exception& e) {
        return std::make_exception_ptr(
            envelopeOf(errors::StdException(foundation::core::str::toUtf16(e.what()))));
    } catch (...) {
        return std::make_exception_ptr(envelopeOf(errors::UnknownGetErrors()));
    }
}

} // namespace

KExceptionEnvelope toKExceptionEnvelope(const std::exception_ptr& error) {
    const std::exception_ptr normalised = normalise(error);
    try {
        std::rethrow_exception(normalised);
    } catch (const KExceptionEnvelope& envelope) {
        return envelope;
    } catch (...) {
        fatal("Unexpected exception returned as the future error.");
    }
}

matrix::unique_dvArray toErrorDvArray(const std::exception_ptr& error) {
    if (!error) {
        return nullptr;
    }
    return kcos::array::create(toKExceptionEnvelope(error).GetExceptionObject());
}

} // namespace parallel::language::future::detail
