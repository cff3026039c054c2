#include <kvm/TaskReference.hpp>

#include <atomic>

namespace kvm {

TaskReference::~TaskReference() = default;

namespace detail {

CmdDistributorTaskReference::CmdDistributorTaskReference(
    const std::shared_ptr<cmddistributor::CmdDistributor>& distributor, cmddistributor::IDType id)
    : distributor_(distributor), id_(id) {}

void CmdDistributorTaskReference::addContinuation(std::function<void()> continuation) {
    if (const auto distributor = distributor_.lock()) {
        distributor->addContinuation(id_, std::move(continuation));
    } else {
        continuation(); // a distributor that is gone completed all its requests
    }
}

void CmdDistributorTaskReference::setReadyToExecute() {
    if (const auto distributor = distributor_.lock()) {
        distributor->setReadyToExecute(id_);
    }
}

cmddistributor::CancelStatus CmdDistributorTaskReference::cancel_callback(bool /*interrupt*/) {
    const auto distributor = distributor_.lock();
    return distributor ? distributor->cancel(id_) : cmddistributor::CancelStatus::Done;
}

void NullCmdDistributorTaskReference::addContinuation(std::function<void()> continuation) {
    continuation();
}

void NullCmdDistributorTaskReference::setReadyToExecute() {}

cmddistributor::CancelStatus NullCmdDistributorTaskReference::cancel_callback(bool /*interrupt*/) {
    return cmddistributor::CancelStatus::Done;
}

cmddistributor::IDType createID() {
    static std::atomic<cmddistributor::IDType> next{1};
    return next.fetch_add(1, std::memory_order_relaxed);
}

std::tuple<std::shared_ptr<cmddistributor::CmdDistributor>, cmddistributor::Sink,
           cmddistributor::Sink>
getCmdDistributorAndSinks(const Target& target, const cmddistributor::RunOptions& options) {
    kvutil::contextmgr::KcrID id = kvutil::contextmgr::UndefinedKcrID;
    if (const auto* kvm = boost::get<std::shared_ptr<KVM>>(&target)) {
        if (*kvm) {
            id = (*kvm)->getID();
        }
    } else {
        id = boost::get<kvutil::contextmgr::KcrID>(target);
    }
    return {cmddistributor::CmdDistributor::instance(id), options.getOutputStream(),
            options.getErrorStream()};
}

} // namespace detail
} // namespace kvm
