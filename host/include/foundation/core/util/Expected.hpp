#pragma once

#include <exception>
#include <utility>
#include <variant>

namespace foundation::core::util {

// A value or an error. Reading the alternative that is not held raises
// std::bad_variant_access. No synchronisation: one owner at a time.
template <class T>
class Expected {
public:
    Expected(T value) : v_(std::in_place_index<0>, std::move(value)) {}
    Expected(std::exception_ptr error) : v_(std::in_place_index<1>, std::move(error)) {}

    bool hasValue() const noexcept { return v_.index() == 0; }
    bool hasError() const noexcept { return v_.index() == 1; }

    T& value() & { return std::get<0>(v_); }
    const T& value() const& { return std::get<0>(v_); }
    T&& value() && { return std::get<0>(std::move(v_)); }
    const std::exception_ptr& error() const { return std::get<1>(v_); }

private:
    std::variant<T, std::exception_ptr> v_;
};

} // namespace foundation::core::util
