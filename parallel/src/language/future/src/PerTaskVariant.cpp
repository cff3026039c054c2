#include <parallel/language/future/PerTaskVariant.hpp>

namespace parallel::language::future {

template class PerTaskVariant<std::u16string>;
template class PerTaskVariant<OutputsOrError>;
template class PerTaskVariant<std::optional<DvArrayVector>>;
template class PerTaskVariant<DvArrayVector>;
template class PerTaskVariant<PropertyDvArray>;
template class PerTaskVariant<OutputsOrErrorPropertyDvArray>;
template class PerTaskVariant<std::exception_ptr>;

} // namespace parallel::language::future
