#include <mpipool/FunctionRegistry.hpp>

#include "MpiErrors.hpp"
#include "RegisteredFunctions.hpp"

#include <foundation/core/str/Utf.hpp>
#include <foundation/core/sync/Mutex.hpp>

#include <map>

namespace mpipool {

namespace {

// Handles by name: each registered function is one handle array, handed out
// as shared copies.
struct Registry {
    foundation::core::sync::Mutex mutex;
    std::map<std::string, boost::intrusive_ptr<dvArray>, std::less<>> handles QZ_GUARDED_BY(mutex);
};

Registry& registry() {
    static Registry instance;
    return instance;
}

std::u16string utf16(std::string_view text) {
    return foundation::core::str::toUtf16(text);
}

} // namespace

void registerFunction(std::string name, matrix::FunctionBody body) {
    boost::intrusive_ptr<dvArray> handle(
        matrix::to_korvex(matrix::createFunctionHandle(name, std::move(body))), false);
    Registry& functions = registry();
    const foundation::core::sync::LockGuard lock(functions.mutex);
    if (!functions.handles.try_emplace(name, std::move(handle)).second) {
        throw errors::DuplicateFunction(utf16(name));
    }
}

boost::intrusive_ptr<dvArray> functionHandle(std::string_view name) {
    const dvArray* found = findRegistered(name);
    if (found == nullptr) {
        throw errors::UnregisteredFunction(utf16(name));
    }
    return {matrix::to_korvex(matrix::detail::do_shared_copy(found)), false};
}

const dvArray* findRegistered(std::string_view name) {
    // Most submissions, and most evaluations on a worker, call one function.
    thread_local std::string lastName;
    thread_local const dvArray* lastHandle = nullptr;
    if (lastHandle != nullptr && name == lastName) {
        return lastHandle;
    }
    Registry& functions = registry();
    const foundation::core::sync::LockGuard lock(functions.mutex);
    const auto found = functions.handles.find(name);
    if (found == functions.handles.end()) {
        return nullptr;
    }
    lastName = name;
    lastHandle = found->second.get();
    return lastHandle;
}

bool isRegistered(std::string_view name) {
    return findRegistered(name) != nullptr;
}

} // namespace mpipool
