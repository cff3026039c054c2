#pragma once

// Interpreter contexts. A thread becomes an interpreter thread by creating a
// KVM (kvm::KVM::create) and stops being one when that KVM is destroyed; the
// KVM owns the thread's queue manager, dispatcher and interrupt state. Tests
// and programs run the language side on their main thread this way.

#include <host/Export.hpp>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace iqm {
class Iqm;
}
class Kdispatcher;

namespace kvutil::contextmgr {
// Interpreter identifiers. Every interpreter made by kvm::KVM::create is
// blessed (its identifier is at least BlessedKcrID): it has its own thread
// and may have a command distributor. Identifiers below name no such
// interpreter; work for them runs under the interpreter lock (getBFL).
using KcrID = std::int64_t;
inline constexpr KcrID UndefinedKcrID = -1;
inline constexpr KcrID BlessedKcrID = 1;
} // namespace kvutil::contextmgr

namespace kvutil::kvm {
// The process-wide interpreter lock, taken by work that touches an
// interpreter's values from outside its thread. Counted: the holder may take
// it again.
QZHOST_API std::recursive_mutex& getBFL();
} // namespace kvutil::kvm

namespace kvm {

// Whether a new interpreter gets a command distributor.
enum class CmdDistributorMode { Enabled, Disabled };

class QZHOST_API KVM {
public:
    // Makes the calling thread an interpreter thread, with a command
    // distributor unless told otherwise. Throws std::logic_error when it
    // already is one.
    static std::shared_ptr<KVM> create(CmdDistributorMode mode = CmdDistributorMode::Enabled);
    // Destroy on the thread that created it. Shuts the command distributor
    // down first: requests not yet run complete as cancelled.
    ~KVM();
    KVM(const KVM&) = delete;
    KVM& operator=(const KVM&) = delete;

    kvutil::contextmgr::KcrID getID() const noexcept;
    const std::shared_ptr<iqm::Iqm>& getIqm() const noexcept;
    Kdispatcher& getDispatcher() noexcept;

    // Asks the interpreter to stop what it is doing: the next
    // utInterruptState::ThrowIfInterruptPending on its thread throws. Wakes
    // its queue manager. Any thread.
    void requestInterrupt() noexcept;
    // Takes a pending interrupt request away; true when there was one.
    bool consumeInterrupt() noexcept;

    // Turns Ctrl-C (SIGINT) into requestInterrupt of this interpreter until
    // the KVM is destroyed. Call once, from the interpreter thread.
    void handleInterruptSignal();

private:
    KVM();
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// What getCurrentLocalKVM does on a thread without an interpreter.
enum class NoActiveUSMBehavior : int { Throw = 0, ReturnNull = 1 };

class QZHOST_API Factory {
public:
    // The interpreter of the calling thread; null on other threads.
    static std::shared_ptr<KVM> getCurrentLocalKVM();
    // As above; with Throw, a thread without an interpreter raises
    // std::logic_error.
    static std::shared_ptr<KVM> getCurrentLocalKVM(NoActiveUSMBehavior behavior);
};

// Writes text as the language's output: into the diary of the work running
// on this thread when there is one (see DiarySink), else to standard output.
QZHOST_API void print(std::u16string_view text);

// While alive, print() on this thread appends to `diary`. Nests.
class QZHOST_API DiarySink {
public:
    explicit DiarySink(std::u16string& diary) noexcept;
    ~DiarySink();
    DiarySink(const DiarySink&) = delete;
    DiarySink& operator=(const DiarySink&) = delete;

private:
    std::u16string* previous_;
};

} // namespace kvm

// The interrupt state of the calling thread's interpreter.
class QZHOST_API utInterruptState {
public:
    // Throws the host's interrupt error (identifier "KORVEX:interrupted")
    // when an interrupt was requested, and clears the request. Does nothing
    // on a thread that is not an interpreter thread.
    static void ThrowIfInterruptPending();
};
