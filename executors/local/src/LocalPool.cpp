#include <localpool/LocalPool.hpp>

#include "PoolTask.hpp"

#include <executor/FinishOnceCancelled.hpp>
#include <executor/PinnedQueue.hpp>
#include <executor/Submission.hpp>
#include <parallel/language/future/TimelineRecorder.hpp>

#include <foundation/core/sync/Mutex.hpp>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace localpool {

namespace {

using TaskQueue = executor::PinnedQueue<PoolTask>;

// Which workers have left their loop. Shared by the pool and its workers:
// a worker the pool stopped waiting for still reports here after the pool
// is gone. Any thread.
class WorkerExits {
public:
    explicit WorkerExits(std::size_t numWorkers) : exited_(numWorkers, false) {}

    // The worker's last action. Worker thread.
    void markExited(std::size_t worker) QZ_EXCLUDES(mutex_) {
        {
            const foundation::core::sync::LockGuard lock(mutex_);
            exited_.at(worker) = true;
        }
        changed_.notify_all();
    }

    // Waits until workers 0 .. count-1, except `skipped`, have exited or
    // `deadline` passes; which of them have exited by then.
    std::vector<bool> waitForExits(std::size_t count, std::optional<std::size_t> skipped,
                                   std::chrono::steady_clock::time_point deadline)
        QZ_EXCLUDES(mutex_) {
        foundation::core::sync::UniqueLock lock(mutex_);
        while (!allExited(count, skipped)) {
            if (changed_.wait_until(lock.native(), deadline) == std::cv_status::timeout) {
                break;
            }
        }
        return {exited_.begin(), exited_.begin() + static_cast<std::ptrdiff_t>(count)};
    }

private:
    bool allExited(std::size_t count, std::optional<std::size_t> skipped) const
        QZ_REQUIRES(mutex_) {
        for (std::size_t i = 0; i < count; ++i) {
            if (!exited_[i] && i != skipped) {
                return false;
            }
        }
        return true;
    }

    mutable foundation::core::sync::Mutex mutex_;
    std::condition_variable changed_;
    std::vector<bool> exited_ QZ_GUARDED_BY(mutex_);
};

// Worker thread. Holds only shared state, so it may outlive the pool.
void workerLoop(const std::shared_ptr<TaskQueue>& queue, const std::shared_ptr<WorkerExits>& exits,
                std::size_t worker) noexcept {
    parallel::language::future::TimelineRecorder::nameThisThread("worker " +
                                                                 std::to_string(worker + 1));
    for (auto task = queue->takeNext(worker); task;) {
        executor::runAsWorker("localpool", *task);
        task.reset(); // not held while the worker waits
        task = queue->releaseAndTakeNext(worker);
    }
    exits->markExited(worker);
}

std::size_t resolveNumWorkers(std::size_t requested) noexcept {
    if (requested != 0) {
        return requested;
    }
    return std::max(1u, std::thread::hardware_concurrency());
}

// Longer grace periods are cut to this, which keeps the deadline representable.
constexpr std::chrono::milliseconds kLongestGrace = std::chrono::hours(24 * 365);

// Makes the tasks of submissions, for any worker or pinned to one; for one
// submission, in the block its future shares.
struct TaskMaker {
    std::shared_ptr<TaskQueue> queue;

    // `allocator`: the block's PairAllocator, or the heap's by default.
    template <class Allocator = std::allocator<PoolTask>>
    std::shared_ptr<PoolTask> operator()(const boost::intrusive_ptr<dvArray>& function,
                                         unsigned int numOutputs, const DvArrayVector& inputs,
                                         std::optional<std::size_t> worker,
                                         Allocator allocator = {}) const {
        return std::allocate_shared<PoolTask>(allocator, function, numOutputs, inputs, queue,
                                              worker);
    }
};

} // namespace

// Owned by the pool; the workers share only `queue` and `exits`.
struct LocalPool::Impl {
    Impl(std::size_t numWorkers, std::chrono::milliseconds grace)
        : queue(std::make_shared<TaskQueue>(numWorkers)),
          exits(std::make_shared<WorkerExits>(numWorkers)), shutdownGrace(grace) {}

    std::shared_ptr<TaskQueue> queue;
    std::shared_ptr<WorkerExits> exits;
    std::vector<std::thread> workers;
    const std::chrono::milliseconds shutdownGrace;

    // Cancels the waiting work (shared and pinned), asks the running work to
    // stop and waits up to the grace period for the workers to leave. The
    // tasks still running then are cancelled, and their workers detached: they
    // end by themselves once their functions return, finding the queue closed.
    // A worker that destroys its own pool (from a finished callback) is not
    // waited for; it is detached likewise. Pool owner's thread.
    void shutDown() noexcept {
        for (const auto& task : queue->close()) {
            executor::cancelUnrun(*task);
        }
        std::optional<std::size_t> self;
        for (std::size_t i = 0; i < workers.size(); ++i) {
            if (workers[i].get_id() == std::this_thread::get_id()) {
                self = i;
            }
        }
        const std::vector<bool> exited = exits->waitForExits(
            workers.size(), self,
            std::chrono::steady_clock::now() + std::min(shutdownGrace, kLongestGrace));
        bool abandoned = false;
        for (std::size_t i = 0; i < workers.size(); ++i) {
            abandoned = abandoned || (!exited[i] && i != self);
        }
        if (abandoned) {
            for (const auto& task : queue->tasksInHand()) {
                // No effect on a task that has just finished. A worker left
                // behind notifies Finished again when its function returns.
                executor::cancelUnrun(*task);
            }
        }
        for (std::size_t i = 0; i < workers.size(); ++i) {
            if (exited[i]) {
                workers[i].join();
            } else {
                workers[i].detach();
            }
        }
    }
};

LocalPool::LocalPool(std::size_t numWorkers, std::chrono::milliseconds shutdownGrace)
    : impl_(std::make_unique<Impl>(resolveNumWorkers(numWorkers), shutdownGrace)) {
    const std::size_t count = impl_->queue->getNumWorkers();
    impl_->workers.reserve(count);
    try {
        for (std::size_t i = 0; i < count; ++i) {
            impl_->workers.emplace_back(workerLoop, impl_->queue, impl_->exits, i);
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
    return executor::submitTo(*impl_->queue, std::move(function), numOutputs, std::move(inputs),
                              parent, TaskMaker{impl_->queue});
}

std::shared_ptr<FevalOnAllFuture> LocalPool::submitOnAll(boost::intrusive_ptr<dvArray> function,
                                                         unsigned int numOutputs,
                                                         DvArrayVector inputs,
                                                         kcos::COSInterface* parent) {
    return executor::submitOnAllTo(*impl_->queue, std::move(function), numOutputs,
                                   std::move(inputs), parent, TaskMaker{impl_->queue});
}

} // namespace localpool
