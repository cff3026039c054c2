#include <kcos/Interned.hpp>

#include <mutex>
#include <string>
#include <unordered_set>

namespace kcos {

namespace {
const std::string kEmpty;
} // namespace

const std::string& InternedName::str() const noexcept {
    return text_ != nullptr ? *text_ : kEmpty;
}

InternedName internal::makeInterned(std::string_view name) {
    if (name.empty()) {
        return InternedName();
    }
    // Nodes of an unordered_set never move, so the strings' addresses are
    // stable for the life of the process.
    static std::mutex mutex;
    static std::unordered_set<std::string>* names = new std::unordered_set<std::string>();
    const std::lock_guard lock(mutex);
    const auto [it, inserted] = names->emplace(name);
    return InternedName(&*it);
}

} // namespace kcos
