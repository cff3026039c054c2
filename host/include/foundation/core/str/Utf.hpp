#pragma once

#include <host/Export.hpp>

#include <string>
#include <string_view>

namespace foundation::core::str {

// Conversions between UTF-8 and UTF-16. Ill-formed input is replaced by U+FFFD.
QZHOST_API std::u16string toUtf16(std::string_view utf8);
QZHOST_API std::string toUtf8(std::u16string_view utf16);

} // namespace foundation::core::str
