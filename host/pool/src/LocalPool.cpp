#include <localpool/LocalPool.hpp>

#include "PoolTask.hpp"
#include "TaskQueue.hpp"

#include <boost/exception/diagnostic_information.hpp>

#include <algorithm>
#include <iostream>
#include <stdexcept>
#include <thread>
#include <vector>

namespace localpool {

namespace {

// Runs one notification of `task`. A failure there (say, a task-finished
// listener that throws) is the notifier's problem, not the worker's: it is
// reported and the worker carries on. Worker thread.
template <class Notification>
void notifySafely(const char* name, Notification notification) noexcept {
    try {
        notification();
    } catch (...) {
        std::cerr << "localpool: the " << name << " notification of a task failed: "
                  << boost::current_exception_diagnostic_information() << std::endl;
    }
}

// A task that was asked to stop before its function started is cancelled
// instead of run. Worker thread.
void execute(PoolTask& task) noexcept {
    notifySafely("Running", [&] { task.markRunning(); });
    if (task.isStopRequested()) {
        task.cancel();
    } else {
        task.run();
    }
    notifySafely("Finished", [&] { task.markFinished(); });
}

void workerLoop(const std::shared_ptr<TaskQueue>& queue) noexcept {
    while (const auto task = queue->takeNext()) {
        execute(*task);
        queue->markDone(*task);
    }
}

std::size_t resolveNumWorkers(std::size_t requested) noexcept {
    if (requested != 0) {
        return requested;
    }
    return std::max(1u, std::thread::hardware_concurrency());
}

} // namespace

struct LocalPool::Impl {
    std::shared_ptr<TaskQueue> queue = std::make_shared<TaskQueue>();
    std::vector<std::thread> workers;

    // Cancels the waiting work, stops the running work and joins the workers.
    // A worker that destroys its own pool (from a finished callback) is left
    // to end by itself: it holds the queue, which is closed.
    void shutDown() noexcept {
        for (const auto& task : queue->close()) {
            task->cancel();
        }
        for (std::thread& worker : workers) {
            if (worker.get_id() == std::this_thread::get_id()) {
                worker.detach();
            } else {
                worker.join();
            }
        }
    }
};

LocalPool::LocalPool(std::size_t numWorkers) : impl_(std::make_unique<Impl>()) {
    const std::size_t count = resolveNumWorkers(numWorkers);
    impl_->workers.reserve(count);
    try {
        for (std::size_t i = 0; i < count; ++i) {
            impl_->workers.emplace_back(workerLoop, impl_->queue);
        }
    } catch (...) {
        impl_->shutDown();
        throw;
    }
}

LocalPool::~LocalPool() {
    impl_->shutDown();
}

std::size_t LocalPool::getNumWorkers() const noexcept {
    return impl_->workers.size();
}

std::shared_ptr<FevalFuture> LocalPool::submit(boost::intrusive_ptr<dvArray> function,
                                               unsigned int numOutputs, DvArrayVector inputs,
                                               kcos::COSInterface* parent) {
    if (!function || dvGetClassID(function.get()) != matrix::ClassID::FunctionHandle) {
        throw std::invalid_argument("The function to evaluate must be a function handle.");
    }
    auto task = std::make_shared<PoolTask>(function, numOutputs, inputs, impl_->queue);
    auto future = std::make_shared<FevalFuture>(parent, std::move(function), numOutputs,
                                                std::move(inputs), task);
    // Queued before a worker can see the task, so Running never precedes it.
    task->markPending();
    task->markQueued();
    if (!impl_->queue->push(task)) {
        task->cancel();
        throw std::logic_error("The pool is shutting down and takes no more work.");
    }
    return future;
}

} // namespace localpool
