#include <localpool/LocalPool.hpp>

#include "PoolTask.hpp"
#include "TaskQueue.hpp"

#include <parallel/language/future/VectorMultiTask.hpp>

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

void workerLoop(const std::shared_ptr<TaskQueue>& queue, std::size_t worker) noexcept {
    while (const auto task = queue->takeNext(worker)) {
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

void checkFunction(const boost::intrusive_ptr<dvArray>& function) {
    if (!function || dvGetClassID(function.get()) != matrix::ClassID::FunctionHandle) {
        throw std::invalid_argument("The function to evaluate must be a function handle.");
    }
}

[[noreturn]] void refuseWork() {
    throw std::logic_error("The pool is shutting down and takes no more work.");
}

} // namespace

struct LocalPool::Impl {
    explicit Impl(std::size_t numWorkers) : queue(std::make_shared<TaskQueue>(numWorkers)) {}

    std::shared_ptr<TaskQueue> queue;
    std::vector<std::thread> workers;

    // Cancels the waiting work (shared and pinned), stops the running work and
    // joins the workers.
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

LocalPool::LocalPool(std::size_t numWorkers)
    : impl_(std::make_unique<Impl>(resolveNumWorkers(numWorkers))) {
    const std::size_t count = impl_->queue->getNumWorkers();
    impl_->workers.reserve(count);
    try {
        for (std::size_t i = 0; i < count; ++i) {
            impl_->workers.emplace_back(workerLoop, impl_->queue, i);
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
    checkFunction(function);
    auto task = std::make_shared<PoolTask>(function, numOutputs, inputs, impl_->queue);
    auto future = std::make_shared<FevalFuture>(parent, std::move(function), numOutputs,
                                                std::move(inputs), task);
    // Queued before a worker can see the task, so Running never precedes it.
    task->markPending();
    task->markQueued();
    if (!impl_->queue->push(task)) {
        task->cancel();
        refuseWork();
    }
    return future;
}

std::shared_ptr<FevalOnAllFuture> LocalPool::submitOnAll(boost::intrusive_ptr<dvArray> function,
                                                         unsigned int numOutputs,
                                                         DvArrayVector inputs,
                                                         kcos::COSInterface* parent) {
    checkFunction(function);
    const std::size_t count = impl_->queue->getNumWorkers();
    std::vector<std::shared_ptr<PoolTask>> tasks;
    tasks.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        tasks.push_back(std::make_shared<PoolTask>(function, numOutputs, inputs, impl_->queue, i));
    }
    auto multiTask = std::make_shared<parallel::language::future::VectorMultiTask>(
        std::vector<std::shared_ptr<parallel::language::future::TaskBase>>(tasks.begin(),
                                                                           tasks.end()));
    auto future = std::make_shared<FevalOnAllFuture>(parent, std::move(function), numOutputs,
                                                     std::move(inputs), std::move(multiTask));
    // Every task is queued before any worker can see one: a task still
    // without a notification (Unavailable) would make the whole future
    // Unavailable while another one runs.
    for (const auto& task : tasks) {
        task->markPending();
    }
    for (const auto& task : tasks) {
        task->markQueued();
    }
    if (!impl_->queue->pushPinned(tasks)) {
        for (const auto& task : tasks) {
            task->cancel();
        }
        refuseWork();
    }
    return future;
}

} // namespace localpool
