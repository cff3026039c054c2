#include "FutureClassNames.hpp"

namespace parallel::language::future::names {

kcos::InternedName intern(std::string_view name) {
    if (name.empty()) {
        return {};
    }
    return kcos::internal::makeInterned(name);
}

kcos::InternedName futureClass() {
    static const kcos::InternedName name = intern("parallel.Future");
    return name;
}

} // namespace parallel::language::future::names
