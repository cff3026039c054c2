// Interpreter contexts: the calling thread's KVM is found through a
// thread-local weak pointer, so a KVM that is gone (even one destroyed on
// another thread against the rules) reads as no KVM rather than a dangling one.

#include <kvm/KVM.hpp>

#include "InterruptSignalWatcher.hpp"

#include <builtins/HostClasses.hpp>
#include <cmddistributor/CmdDistributor.hpp>
#include <foundation/core/except/Exception.hpp>
#include <foundation/usm/Detail.hpp>
#include <interpreter/Kdispatcher.hpp>
#include <iqm/Iqm.hpp>
#include <kvm/Errors.hpp>

#include <stdexcept>
#include <thread>

namespace kvm {

namespace {

thread_local std::weak_ptr<KVM> currentKVM;

kvutil::contextmgr::KcrID nextKcrID() noexcept {
    static std::atomic<kvutil::contextmgr::KcrID> next{1};
    return next.fetch_add(1, std::memory_order_relaxed);
}

} // namespace

struct KVM::Impl {
    const kvutil::contextmgr::KcrID id = nextKcrID();
    const std::thread::id creatorThread = std::this_thread::get_id();
    const std::shared_ptr<iqm::Iqm> iqm = std::make_shared<iqm::Iqm>();
    Kdispatcher dispatcher;
    std::atomic<bool> interruptPending{false};
    // Null when made without one. Shut down before the queue manager goes.
    std::shared_ptr<cmddistributor::CmdDistributor> distributor;
    // Stopped first on destruction: its thread calls requestInterrupt.
    std::unique_ptr<detail::InterruptSignalWatcher> signalWatcher;
};

KVM::KVM() : impl_(std::make_unique<Impl>()) {}

std::shared_ptr<KVM> KVM::create(CmdDistributorMode mode) {
    if (!currentKVM.expired()) {
        throw std::logic_error("This thread already runs an interpreter.");
    }
    hostclasses::registerHostClasses();
    std::shared_ptr<KVM> kvm(new KVM());
    if (mode == CmdDistributorMode::Enabled) {
        kvm->impl_->distributor =
            cmddistributor::CmdDistributor::create(kvm->impl_->id, kvm->impl_->iqm);
    }
    currentKVM = kvm;
    return kvm;
}

KVM::~KVM() {
    impl_->signalWatcher.reset();
    if (impl_->distributor) {
        impl_->distributor->shutdown();
    }
    if (std::this_thread::get_id() == impl_->creatorThread) {
        currentKVM.reset();
    }
}

kvutil::contextmgr::KcrID KVM::getID() const noexcept {
    return impl_->id;
}

const std::shared_ptr<iqm::Iqm>& KVM::getIqm() const noexcept {
    return impl_->iqm;
}

Kdispatcher& KVM::getDispatcher() noexcept {
    return impl_->dispatcher;
}

void KVM::requestInterrupt() noexcept {
    impl_->interruptPending.store(true);
    try {
        impl_->iqm->wakeUp();
    } catch (...) {
        // The flag is set; a sleeping interpreter sees it at its next wake-up.
    }
}

bool KVM::consumeInterrupt() noexcept {
    return impl_->interruptPending.exchange(false);
}

void KVM::handleInterruptSignal() {
    if (!impl_->signalWatcher) {
        impl_->signalWatcher =
            std::make_unique<detail::InterruptSignalWatcher>([this] { requestInterrupt(); });
    }
}

std::shared_ptr<KVM> Factory::getCurrentLocalKVM() {
    return currentKVM.lock();
}

std::shared_ptr<KVM> Factory::getCurrentLocalKVM(NoActiveUSMBehavior behavior) {
    std::shared_ptr<KVM> kvm = currentKVM.lock();
    if (!kvm && behavior == NoActiveUSMBehavior::Throw) {
        throw std::logic_error("No interpreter runs on this thread.");
    }
    return kvm;
}

} // namespace kvm

std::recursive_mutex& kvutil::kvm::getBFL() {
    static std::recursive_mutex lock;
    return lock;
}

bool foundation::usm::Detail<foundation::usm::scope::Kvm>::isRequiredContextActive() {
    return !kvm::currentKVM.expired();
}

void utInterruptState::ThrowIfInterruptPending() {
    const auto kvm = kvm::Factory::getCurrentLocalKVM();
    if (kvm && kvm->consumeInterrupt()) {
        throw foundation::core::except::Exception<KORVEX::interrupted>();
    }
}
