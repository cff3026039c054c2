#include <mpipool/FunctionRegistry.hpp>

#include "MpiErrors.hpp"

#include <foundation/core/str/Utf.hpp>

#include <map>
#include <shared_mutex>

namespace mpipool {

namespace {

// Handles by name: each registered function is one handle array, handed out
// as shared copies. Guarded by registryMutex().
std::map<std::string, boost::intrusive_ptr<dvArray>, std::less<>>& registry() {
    static std::map<std::string, boost::intrusive_ptr<dvArray>, std::less<>> handles;
    return handles;
}

std::shared_mutex& registryMutex() {
    static std::shared_mutex mutex;
    return mutex;
}

std::u16string utf16(std::string_view text) {
    return foundation::core::str::toUtf16(text);
}

} // namespace

void registerFunction(std::string name, matrix::FunctionBody body) {
    boost::intrusive_ptr<dvArray> handle(
        matrix::to_korvex(matrix::createFunctionHandle(name, std::move(body))), false);
    const std::unique_lock lock(registryMutex());
    if (!registry().try_emplace(name, std::move(handle)).second) {
        throw errors::DuplicateFunction(utf16(name));
    }
}

boost::intrusive_ptr<dvArray> functionHandle(std::string_view name) {
    const std::shared_lock lock(registryMutex());
    const auto found = registry().find(name);
    if (found == registry().end()) {
        throw errors::UnregisteredFunction(utf16(name));
    }
    return {matrix::to_korvex(matrix::detail::do_shared_copy(found->second.get())), false};
}

bool isRegistered(std::string_view name) {
    const std::shared_lock lock(registryMutex());
    return registry().contains(name);
}

} // namespace mpipool
