#pragma once

#include <host/Export.hpp>

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace foundation::core::except {

// One message argument: a signed or unsigned integer, a floating-point number
// or a UTF-16 text.
using MessageArgument = std::variant<std::int64_t, std::uint64_t, double, std::u16string>;
using MessageArguments = std::vector<MessageArgument>;

// A message identifier: a component ("KORVEX:parallel:future") and a key
// ("NoUnreadFutures"), shown joined by ":".
struct QZHOST_API MessageID {
    std::string component;
    std::string key;

    std::string str() const;
    friend bool operator==(const MessageID&, const MessageID&) = default;
};

} // namespace foundation::core::except
