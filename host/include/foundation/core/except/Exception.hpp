#pragma once

// Typed host exceptions. Each error is its own type, Exception<Tag>, where the
// tag is an empty type named after the message key inside a namespace named
// after the component, and says so through two static members:
//
//   namespace KORVEX::parallel::future {
//   struct NoUnreadFutures {
//       static constexpr const char* component = "KORVEX:parallel:future";
//       static constexpr const char* key = "NoUnreadFutures";
//       // optional: static constexpr const char* error_id = "...";
//   };
//   }
//   throw foundation::core::except::Exception<KORVEX::parallel::future::NoUnreadFutures>();
//
// The error identifier is "component:key" unless the tag names another one.
// The message text comes from the host's message catalogue.

#include <foundation/core/except/MessageID.hpp>
#include <host/Export.hpp>

#include <boost/exception/exception.hpp>

#include <exception>
#include <string>
#include <utility>

// Declares the tag of a typed exception, inside the namespace named after
// its component:  namespace KORVEX { QZHOST_ERROR_TAG("KORVEX", maxlhs) }
#define QZHOST_ERROR_TAG(Component, Key)                                                           \
    struct QZHOST_API Key {                                                                        \
        static constexpr const char* component = Component;                                        \
        static constexpr const char* key = #Key;                                                   \
    };

namespace foundation::core::except {

class IException;

// The text of any exception: what() of a standard or typed host exception,
// "unknown error" for anything else. Any thread.
QZHOST_API std::string describe(const std::exception_ptr& error);

class QZHOST_API IException {
public:
    virtual ~IException();
    virtual const char* what() const noexcept = 0;
    // Throws the most derived exception again.
    [[noreturn]] virtual void rethrow() const = 0;
};

// An error meant for the language's user: it has a message text.
class QZHOST_API IUserException : public virtual IException {
public:
    virtual std::u16string get_message() const = 0;
};

// An error with a message identifier, message arguments and an error identifier.
class QZHOST_API IMsgIDException : public virtual IException {
public:
    virtual const MessageID& get_message_id() const noexcept = 0;
    virtual const std::string& get_error_id() const noexcept = 0;
    virtual const MessageArguments& get_arguments() const noexcept = 0;
};

namespace detail {
// The catalogue text of `id` with `arguments` filled in (defined by the host).
QZHOST_API std::u16string lookupMessage(const MessageID& id, const MessageArguments& arguments);
QZHOST_API std::string toUtf8(const std::u16string& text);

template <class Tag>
std::string errorIdOf() {
    if constexpr (requires { Tag::error_id; }) {
        return Tag::error_id;
    } else {
        return std::string(Tag::component) + ":" + Tag::key;
    }
}
} // namespace detail

template <class Tag, class StdBase = std::exception>
class QZHOST_API Exception : public IMsgIDException,
                             public IUserException,
                             public virtual IException,
                             public virtual boost::exception,
                             public virtual boost::exception_detail::clone_base,
                             public StdBase {
public:
    explicit Exception(MessageArguments arguments = {})
        : id_{Tag::component, Tag::key}, errorId_(detail::errorIdOf<Tag>()),
          arguments_(std::move(arguments)), message_(detail::lookupMessage(id_, arguments_)),
          what_(detail::toUtf8(message_)) {}

    template <class... Args>
    requires(sizeof...(Args) > 0 && (std::is_constructible_v<MessageArgument, Args> &&
                                     ...)) explicit Exception(Args&&... arguments)
        : Exception(MessageArguments{MessageArgument(std::forward<Args>(arguments))...}) {}

    const MessageID& get_message_id() const noexcept override { return id_; }
    const std::string& get_error_id() const noexcept override { return errorId_; }
    const MessageArguments& get_arguments() const noexcept override { return arguments_; }
    std::u16string get_message() const override { return message_; }
    const char* what() const noexcept override { return what_.c_str(); }
    [[noreturn]] void rethrow() const override { throw *this; }
    const boost::exception_detail::clone_base* clone() const override {
        return new Exception(*this);
    }

private:
    MessageID id_;
    std::string errorId_;
    MessageArguments arguments_;
    std::u16string message_;
    std::string what_;
};

} // namespace foundation::core::except
