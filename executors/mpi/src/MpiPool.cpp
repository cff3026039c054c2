#include <mpipool/MpiPool.hpp>

#include "ClusterImpl.hpp"
#include "MpiErrors.hpp"

#include <executor/Submission.hpp>

#include <atomic>
#include <cstdint>

namespace mpipool {

namespace {

// Task ids are unique for the life of the process, across pools, so that a
// stale stop request can never name a later task.
std::atomic<codec::TaskId> gNextTaskId{1};

std::size_t checkedNumWorkers(const Cluster& cluster, std::optional<std::size_t> requested) {
    if (!cluster.isClient()) {
        throw errors::NotClient();
    }
    const auto available = static_cast<std::size_t>(cluster.getSize() - 1);
    if (available == 0) {
        throw errors::NoWorkers();
    }
    const std::size_t count = requested.value_or(available);
    if (count == 0 || count > available) {
        throw errors::InvalidNumWorkers(std::uint64_t{count}, std::uint64_t{available});
    }
    return count;
}

} // namespace

struct MpiPool::Impl {
    std::size_t numWorkers = 0;
    std::shared_ptr<ClientLink> link;

    // Makes the tasks of submissions: encoded at once, so that what cannot
    // be sent is refused before the future is made.
    auto taskMaker() const {
        return [work = link->getWorkList()](const boost::intrusive_ptr<dvArray>& function,
                                            unsigned int numOutputs, const DvArrayVector& inputs,
                                            std::optional<std::size_t> worker) {
            const codec::TaskId id = gNextTaskId++;
            return std::make_shared<ClusterTask>(
                id, codec::encodeTask(id, function.get(), numOutputs, inputs), work, worker);
        };
    }
};

MpiPool::MpiPool(Cluster& cluster, std::optional<std::size_t> numWorkers)
    : impl_(std::make_unique<Impl>()) {
    impl_->numWorkers = checkedNumWorkers(cluster, numWorkers);
    impl_->link = cluster.impl_->openLink(impl_->numWorkers);
}

MpiPool::~MpiPool() {
    shutdown();
}

void MpiPool::shutdown() noexcept {
    impl_->link->close();
    impl_->link->waitUntilFinished();
}

std::size_t MpiPool::getNumWorkers() const noexcept {
    return impl_->numWorkers;
}

std::shared_ptr<FevalFuture> MpiPool::submit(boost::intrusive_ptr<dvArray> function,
                                             unsigned int numOutputs, DvArrayVector inputs,
                                             kcos::COSInterface* parent) {
    return executor::submitTo(*impl_->link->getWorkList(), std::move(function), numOutputs,
                              std::move(inputs), parent, impl_->taskMaker());
}

std::shared_ptr<FevalOnAllFuture> MpiPool::submitOnAll(boost::intrusive_ptr<dvArray> function,
                                                       unsigned int numOutputs,
                                                       DvArrayVector inputs,
                                                       kcos::COSInterface* parent) {
    return executor::submitOnAllTo(*impl_->link->getWorkList(), std::move(function), numOutputs,
                                   std::move(inputs), parent, impl_->taskMaker());
}

} // namespace mpipool
