#pragma once

// The host's message catalogue: an English text per message identifier, with
// placeholders {0}, {1}, ... for the message arguments. Any thread.

#include <foundation/core/except/MessageID.hpp>
#include <host/Export.hpp>

#include <string>

namespace fl::i18n {

class QZHOST_API QzLocale {
public:
    static const QzLocale& global();
    const std::string& name() const noexcept;

private:
    QzLocale();
    std::string name_;
};

class QZHOST_API MessageCatalog {
public:
    // The text of `id` with the arguments filled in. An identifier the
    // catalogue lacks gives the identifier itself, followed by the arguments.
    static std::u16string
    get_message(const foundation::core::except::MessageID& id,
                const foundation::core::except::MessageArguments& arguments = {},
                const QzLocale& locale = QzLocale::global());
    static bool has_message(const foundation::core::except::MessageID& id);
};

} // namespace fl::i18n
