#include <foundation/core/except/Exception.hpp>

#include <fl/i18n/MessageCatalog.hpp>
#include <foundation/core/str/Utf.hpp>

namespace foundation::core::except {

std::string MessageID::str() const {
    return component + ":" + key;
}

IException::~IException() = default;

std::string describe(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return e.what();
    } catch (const IException& e) {
        return e.what();
    } catch (...) {
        return "unknown error";
    }
}

namespace detail {

std::u16string lookupMessage(const MessageID& id, const MessageArguments& arguments) {
    return fl::i18n::MessageCatalog::get_message(id, arguments);
}

std::string toUtf8(const std::u16string& text) {
    return str::toUtf8(text);
}

} // namespace detail

} // namespace foundation::core::except
