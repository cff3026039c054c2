#include <mpipool/MpiPool.hpp>

#include "ClusterImpl.hpp"
#include "MpiErrors.hpp"

#include <parallel/language/future/VectorMultiTask.hpp>

#include <atomic>
#include <cstdint>

namespace mpipool {

namespace {

// Task ids are unique for the life of the process, across pools, so that a
// stale stop request can never name a later task.
std::atomic<codec::TaskId> gNextTaskId{1};

void checkFunction(const boost::intrusive_ptr<dvArray>& function) {
    if (!function || dvGetClassID(function.get()) != matrix::ClassID::FunctionHandle) {
        throw errors::InvalidFunction();
    }
}

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

    std::shared_ptr<ClusterTask> makeTask(const boost::intrusive_ptr<dvArray>& function,
                                          unsigned int numOutputs, const DvArrayVector& inputs,
                                          std::optional<std::size_t> worker = std::nullopt) {
        const codec::TaskId id = gNextTaskId++;
        return std::make_shared<ClusterTask>(
            id, codec::encodeTask(id, function.get(), numOutputs, inputs), link->getWorkList(),
            worker);
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
    checkFunction(function);
    auto task = impl_->makeTask(function, numOutputs, inputs);
    auto future = std::make_shared<FevalFuture>(parent, std::move(function), numOutputs,
                                                std::move(inputs), task);
    // Queued before the link thread can see the task, so Running never precedes it.
    task->markPending();
    task->markQueued();
    if (!impl_->link->getWorkList()->push(task)) {
        task->cancel();
        throw errors::PoolShutDown();
    }
    return future;
}

std::shared_ptr<FevalOnAllFuture> MpiPool::submitOnAll(boost::intrusive_ptr<dvArray> function,
                                                       unsigned int numOutputs,
                                                       DvArrayVector inputs,
                                                       kcos::COSInterface* parent) {
    checkFunction(function);
    std::vector<std::shared_ptr<ClusterTask>> tasks;
    for (std::size_t i = 0; i < impl_->numWorkers; ++i) {
        tasks.push_back(impl_->makeTask(function, numOutputs, inputs, i));
    }
    auto multiTask = std::make_shared<parallel::language::future::VectorMultiTask>(
        std::vector<std::shared_ptr<parallel::language::future::TaskBase>>(tasks.begin(),
                                                                           tasks.end()));
    auto future = std::make_shared<FevalOnAllFuture>(parent, std::move(function), numOutputs,
                                                     std::move(inputs), std::move(multiTask));
    // Every task is queued before any is sent: a task still without a
    // notification (Unavailable) would make the whole future Unavailable.
    for (const auto& task : tasks) {
        task->markPending();
    }
    for (const auto& task : tasks) {
        task->markQueued();
    }
    if (!impl_->link->getWorkList()->pushPinned(
            std::vector<WorkList::TaskPtr>(tasks.begin(), tasks.end()))) {
        for (const auto& task : tasks) {
            task->cancel();
        }
        throw errors::PoolShutDown();
    }
    return future;
}

} // namespace mpipool
