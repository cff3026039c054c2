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
// The library provides (and exports) the instantiations listed below only.
template <class T>
class QZ_FUTURE_API PerTaskVariant {
public:
    // Single, holding a value-initialised T. A member template, so that the
    // explicit instantiations below leave it out for a T without a default
    // constructor (Clang 14 instantiates a constrained one regardless).
    template <class U = T>
    requires std::is_default_constructible_v<U> PerTaskVariant() : v_(std::in_place_index<0>) {}
    PerTaskVariant(T value);
    PerTaskVariant(std::vector<T> values);

    PerTaskVariant(const PerTaskVariant&) = default;
    PerTaskVariant(PerTaskVariant&&) = default;
    PerTaskVariant& operator=(const PerTaskVariant&) = default;
    PerTaskVariant& operator=(PerTaskVariant&&) = default;
    ~PerTaskVariant() = default;

    bool isMulti() const;
    // 1 for a single value, the number of tasks otherwise.
    std::size_t size() const;
    // The single value whatever `i`, or element `i` (i < size()).
    T& operator[](std::size_t i);
    const T& operator[](std::size_t i) const;
    T& getAsSingle();
    const T& getAsSingle() const;

private:
    std::size_t index() const;

    std::variant<T, std::vector<T>> v_;
};

// The instantiations the library provides.
extern template class QZ_FUTURE_API PerTaskVariant<std::u16string>;
extern template class QZ_FUTURE_API PerTaskVariant<OutputsOrError>;
extern template class QZ_FUTURE_API PerTaskVariant<std::optional<DvArrayVector>>;
extern template class QZ_FUTURE_API PerTaskVariant<DvArrayVector>;
extern template class QZ_FUTURE_API PerTaskVariant<PropertyDvArray>;
extern template class QZ_FUTURE_API PerTaskVariant<OutputsOrErrorPropertyDvArray>;
extern template class QZ_FUTURE_API PerTaskVariant<std::exception_ptr>;

} // namespace parallel::language::future
