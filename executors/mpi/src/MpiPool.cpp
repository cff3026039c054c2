#include <mpipool/MpiPool.hpp>

#include "ClusterImpl.hpp"
#include "MpiErrors.hpp"

#include <executor/Submission.hpp>

#include <iqm/Iqm.hpp>

#include <atomic>
#include <cstdint>

namespace mpipool {

namespace {

// Task ids are unique for the life of the process, across pools, so that a
// stale stop request can never name a later task.
std::atomic<codec::TaskId> gNextTaskId{1};

std::size_t checkedNumWorkers(const Cluster& cluster, std::size_t available,
                              std::optional<std::size_t> requested) {
    if (cluster.getSize() == 1) {
        throw errors::NoWorkers();
    }
    if (available == 0) {
        throw errors::NoWorkersLeft();
    }
    const std::size_t count = requested.value_or(available);
    if (count == 0 || count > available) {
        throw errors::InvalidNumWorkers(std::uint64_t{count}, std::uint64_t{available});
    }
    return count;
}

} // namespace

struct MpiPool::Impl {
    std::shared_ptr<ClientLink> link;
    // The queue manager of the interpreter thread that opened the pool, whose
    // waits take the workers' reports in themselves, and its sources.
    std::weak_ptr<iqm::Iqm> waiters;
    std::vector<iqm::Iqm::SourceId> sources;

    // A wait on the interpreter thread sleeps on the workers' control
    // sockets too: the report that ends it wakes that thread directly, not
    // the link thread, which would then wake it. Calling thread.
    void letWaitersServe() {
        const std::shared_ptr<iqm::Iqm> queueManager = iqm::Iqm::getCurrent();
        if (!queueManager) {
            return;
        }
        link->setWaiterServes();
        waiters = queueManager;
        for (std::size_t worker = 0; worker < link->numWorkers(); ++worker) {
            sources.push_back(queueManager->addReadable(
                link->controlFd(worker), [weakLink = std::weak_ptr<ClientLink>(link), worker] {
                    const std::shared_ptr<ClientLink> served = weakLink.lock();
                    return served ? served->serveWaiter(worker) : iqm::Iqm::Served::Ended;
                }));
        }
    }

    void stopServing() noexcept {
        if (const std::shared_ptr<iqm::Iqm> queueManager = waiters.lock()) {
            for (const iqm::Iqm::SourceId source : sources) {
                queueManager->removeReadable(source);
            }
        }
        sources.clear();
    }

    // Makes the tasks of submissions, for any worker or pinned to one; for one
    // submission, in the block its future shares. What cannot be sent is
    // refused before the future is made; the link thread encodes the rest
    // when it sends it.
    struct TaskMaker {
        std::shared_ptr<WorkList> work;

        // `allocator`: the block's PairAllocator, or the heap's by default.
        template <class Allocator = std::allocator<ClusterTask>>
        std::shared_ptr<ClusterTask>
        operator()(const boost::intrusive_ptr<dvArray>& function, unsigned int numOutputs,
                   const DvArrayVector& inputs, std::optional<std::size_t> worker,
                   Allocator allocator = {}) const {
            codec::checkSendable(function.get(), inputs);
            return std::allocate_shared<ClusterTask>(allocator, gNextTaskId++, function, numOutputs,
                                                     inputs, work, worker);
        }
    };
    TaskMaker taskMaker() const { return {link->getWorkList()}; }

    // Refuses work once every worker is gone.
    void checkWorkersLeft() const {
        if (link->getWorkList()->liveWorkers() == 0) {
            throw errors::NoWorkersLeft();
        }
    }
};

MpiPool::MpiPool(Cluster& cluster, std::optional<std::size_t> numWorkers)
    : impl_(std::make_unique<Impl>()) {
    if (!cluster.isClient()) {
        throw errors::NotClient();
    }
    impl_->link = cluster.impl_->openLink(
        checkedNumWorkers(cluster, cluster.impl_->liveRanks().size(), numWorkers));
    try {
        impl_->letWaitersServe();
    } catch (...) {
        shutdown();
        throw;
    }
}

MpiPool::~MpiPool() {
    shutdown();
}

void MpiPool::shutdown() noexcept {
    impl_->link->close();
    impl_->link->waitUntilFinished();
    impl_->stopServing();
}

std::size_t MpiPool::getNumWorkers() const noexcept {
    return impl_->link->getWorkList()->liveWorkers();
}

std::shared_ptr<FevalFuture> MpiPool::submit(boost::intrusive_ptr<dvArray> function,
                                             unsigned int numOutputs, DvArrayVector inputs,
                                             kcos::COSInterface* parent) {
    impl_->checkWorkersLeft();
    auto future = executor::submitTo(*impl_->link->getWorkList(), std::move(function), numOutputs,
                                     std::move(inputs), parent, impl_->taskMaker());
    impl_->link->sendNow();
    return future;
}

std::shared_ptr<FevalOnAllFuture> MpiPool::submitOnAll(boost::intrusive_ptr<dvArray> function,
                                                       unsigned int numOutputs,
                                                       DvArrayVector inputs,
                                                       kcos::COSInterface* parent) {
    impl_->checkWorkersLeft();
    auto future =
        executor::submitOnAllTo(*impl_->link->getWorkList(), std::move(function), numOutputs,
                                std::move(inputs), parent, impl_->taskMaker());
    impl_->link->sendNow();
    return future;
}

} // namespace mpipool
