#pragma once

// Scoped singleton storage: one object per slot and scope. The process scope
// lives until static destruction, which destroys the stored objects in the
// reverse order of their insertion. Any thread.

#include <host/Export.hpp>

#include <cstddef>
#include <memory>
#include <typeinfo>

namespace foundation::usm {

namespace scope {
struct Process;
struct Kvm;
} // namespace scope

template <class Scope>
class Detail;

template <>
class QZHOST_API Detail<scope::Process> {
public:
    using ID = std::size_t;
    using Holder = std::unique_ptr<void, void (*)(void*)>;

    // A new slot identifier for objects of `type`; callers obtain it once.
    static ID getNextID(const std::type_info& type);
    // The object stored in slot `id`, or null. A stored object of another
    // type than `type` is a programming error and ends the process.
    static void* find(ID id, const std::type_info& type);
    // Stores `holder`'s object in slot `id` unless the slot is taken, and
    // returns the stored object. A holder that is not stored is destroyed
    // before the call returns.
    static void* findOrInsert(ID id, const std::type_info& type, Holder&& holder);
};

// The interpreter scope: state of the calling thread's interpreter.
template <>
class QZHOST_API Detail<scope::Kvm> {
public:
    // Whether the calling thread runs an interpreter (kvm::KVM::create).
    static bool isRequiredContextActive();
};

} // namespace foundation::usm
