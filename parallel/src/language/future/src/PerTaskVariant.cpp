#include <parallel/language/future/PerTaskVariant.hpp>

namespace parallel::language::future {

template <class T>
PerTaskVariant<T>::PerTaskVariant(T value) : v_(std::in_place_index<0>, std::move(value)) {}

template <class T>
PerTaskVariant<T>::PerTaskVariant(std::vector<T> values)
    : v_(std::in_place_index<1>, std::move(values)) {}

template <class T>
std::size_t PerTaskVariant<T>::index() const {
    if (v_.valueless_by_exception()) {
        throw std::bad_variant_access();
    }
    return v_.index();
}

template <class T>
bool PerTaskVariant<T>::isMulti() const {
    return index() == 1;
}

template <class T>
std::size_t PerTaskVariant<T>::size() const {
    return isMulti() ? std::get<1>(v_).size() : 1;
}

template <class T>
T& PerTaskVariant<T>::operator[](std::size_t i) {
    return isMulti() ? std::get<1>(v_)[i] : std::get<0>(v_);
}

template <class T>
const T& PerTaskVariant<T>::operator[](std::size_t i) const {
    return isMulti() ? std::get<1>(v_)[i] : std::get<0>(v_);
}

template <class T>
T& PerTaskVariant<T>::getAsSingle() {
    return std::get<0>(v_);
}

template <class T>
const T& PerTaskVariant<T>::getAsSingle() const {
    return std::get<0>(v_);
}

template class PerTaskVariant<std::u16string>;
template class PerTaskVariant<OutputsOrError>;
template class PerTaskVariant<std::optional<DvArrayVector>>;
template class PerTaskVariant<DvArrayVector>;
template class PerTaskVariant<PropertyDvArray>;
template class PerTaskVariant<OutputsOrErrorPropertyDvArray>;
template class PerTaskVariant<std::exception_ptr>;

} // namespace parallel::language::future
