#pragma once

// The message identifier of an error, as tests compare it: a host typed
// error's or an error envelope's identifier, else a standard exception's
// text; "" without an error.

#include <Veldspire/KException/KExceptionEnvelope.hpp>
#include <foundation/core/except/Exception.hpp>

#include <exception>
#include <string>

namespace testsupport {

inline std::string idOf(const std::exception_ptr& error) {
    try {
        if (error) {
            std::rethrow_exception(error);
        }
    } catch (const foundation::core::except::IMsgIDException& e) {
        return e.get_message_id().str();
    } catch (const Veldspire::KException::KExceptionEnvelope& e) {
        return e.GetMessageID().str();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "";
}

// The identifier of what `call` throws ("" when it returns).
template <class Call>
std::string thrownBy(Call call) {
    try {
        call();
    } catch (...) {
        return idOf(std::current_exception());
    }
    return "";
}

} // namespace testsupport
