#pragma once

#include <parallel/language/future/Export.hpp>
#include <parallel/language/future/OutputsOrErrorPropertyDvArray.hpp>

#include <cstddef>
#include <exception>
#include <optional>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

namespace parallel::language::future {

// One value standing for a whole future (single), or one value per task in
// task order (multi; any length, a one-element vector stays multi), so that
// one loop serves both shapes:
//
//     for (std::size_t i = 0; i < v.size(); ++i) use(v[i]);
//
// Every accessor raises std::bad_variant_access on a variant left without a
// value by a failed assignment. No synchronisation.
template <class T>
class QZ_FUTURE_API PerTaskVariant {
public:
    // Single, holding a value-initialised T.
    PerTaskVariant() requires std::is_default_constructible_v<T> : v_(std::in_place_index<0>) {}
    PerTaskVariant(T value) : v_(std::in_place_index<0>, std::move(value)) {}
    PerTaskVariant(std::vector<T> values) : v_(std::in_place_index<1>, std::move(values)) {}

    PerTaskVariant(const PerTaskVariant&) = default;
    PerTaskVariant(PerTaskVariant&&) = default;
    PerTaskVariant& operator=(const PerTaskVariant&) = default;
    PerTaskVariant& operator=(PerTaskVariant&&) = default;
    ~PerTaskVariant() = default;

    bool isMulti() const { return index() == 1; }

    // 1 for a single value, the number of tasks otherwise.
    std::size_t size() const { return isMulti() ? std::get<1>(v_).size() : 1; }

    // The single value whatever `i`, or element `i` (i < size()).
    T& operator[](std::size_t i) { return isMulti() ? std::get<1>(v_)[i] : std::get<0>(v_); }
    const T& operator[](std::size_t i) const {
        return isMulti() ? std::get<1>(v_)[i] : std::get<0>(v_);
    }

    T& getAsSingle() { return std::get<0>(v_); }
    const T& getAsSingle() const { return std::get<0>(v_); }

private:
    std::size_t index() const {
        if (v_.valueless_by_exception()) {
            throw std::bad_variant_access();
        }
        return v_.index();
    }

    std::variant<T, std::vector<T>> v_;
};

// The instantiations the library provides.
extern template class PerTaskVariant<std::u16string>;
extern template class PerTaskVariant<OutputsOrError>;
extern template class PerTaskVariant<std::optional<DvArrayVector>>;
extern template class PerTaskVariant<DvArrayVector>;
extern template class PerTaskVariant<PropertyDvArray>;
extern template class PerTaskVariant<OutputsOrErrorPropertyDvArray>;
extern template class PerTaskVariant<std::exception_ptr>;

} // namespace parallel::language::future
