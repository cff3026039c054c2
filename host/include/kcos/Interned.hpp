#pragma once

// Interned names of the class-object system: one process-lifetime string per
// distinct text, compared by identity. Any thread.

#include <host/Export.hpp>

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace kcos {

class InternedName;

namespace internal {
// The interned form of `name`; the empty text gives the null name.
QZHOST_API InternedName makeInterned(std::string_view name);
} // namespace internal

class QZHOST_API InternedName {
public:
    // The null name.
    constexpr InternedName() noexcept = default;

    // The text; empty for the null name. Valid for the life of the process.
    const std::string& str() const noexcept;
    std::string_view view() const noexcept { return str(); }
    const char* c_str() const noexcept { return str().c_str(); }
    explicit operator bool() const noexcept { return text_ != nullptr; }

    friend bool operator==(InternedName a, InternedName b) noexcept { return a.text_ == b.text_; }
    // An order by identity, not by text.
    friend bool operator<(InternedName a, InternedName b) noexcept {
        return std::less<const std::string*>()(a.text_, b.text_);
    }
    std::size_t hash() const noexcept { return std::hash<const std::string*>()(text_); }

private:
    friend InternedName internal::makeInterned(std::string_view name);
    explicit constexpr InternedName(const std::string* text) noexcept : text_(text) {}

    const std::string* text_ = nullptr;
};

} // namespace kcos

template <>
struct std::hash<kcos::InternedName> {
    std::size_t operator()(kcos::InternedName name) const noexcept { return name.hash(); }
};
